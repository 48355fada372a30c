// Scenarios: JSON Lines, one op per line (docs/scenario.md). Parsing checks every line against its
// op's fields before anything runs, so that a bad scenario runs nothing.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sentrel_sim {

using Json = nlohmann::ordered_json;

struct Op {
  int line = 0;     // in the scenario file, from 1
  std::string name;  // "load", "process", ...
  Json fields;       // the whole object
};

struct ScenarioError {
  int line = 0;
  std::string field;  // empty when the line as a whole is wrong
  std::string message;
};

// One op from its object, checked as ParseScenario checks a line.
bool MakeOp(const Json& object, int line, Op* op, ScenarioError* error);
// Every op of the scenario, or the first error. Blank lines and lines starting with '#' are skipped.
bool ParseScenario(std::istream& input, std::vector<Op>* ops, ScenarioError* error);

// Field readers for a checked op. Numbers may be JSON numbers or "0x..." strings.
uint64_t Number(const Json& fields, const char* name, uint64_t fallback = 0);
std::string Text(const Json& fields, const char* name, const std::string& fallback = std::string());
bool Has(const Json& fields, const char* name);
// "41 42 43" or "414243" into bytes; false if it is not hex.
bool ParseHex(const std::string& text, std::vector<uint8_t>* bytes);

}  // namespace sentrel_sim
