#include "scenario.h"

#include <cstring>
#include <map>
#include <set>

namespace sentrel_sim {

namespace {

enum class Kind { Number, Text, Bool, Hex, Object, NumberOrText, Array };

struct Field {
  const char* name;
  Kind kind;
  bool required;
};

// Every op and its fields.
const std::map<std::string, std::vector<Field>>& Schema() {
  static const std::map<std::string, std::vector<Field>> schema = {
      {"machine", {{"cpus", Kind::Number, false}, {"windows", Kind::Number, false}}},
      {"volume", {{"device", Kind::Text, true}, {"letter", Kind::Text, false}}},
      {"load", {}},
      {"unload", {}},
      {"shutdown", {}},
      {"reboot", {}},
      {"crash", {}},
      {"registry",
       {{"key", Kind::Text, true}, {"value", Kind::Text, true}, {"type", Kind::Text, true},
        {"data", Kind::NumberOrText, true}}},
      {"process",
       {{"pid", Kind::Number, true}, {"ppid", Kind::Number, false}, {"creator", Kind::Number, false},
        {"image", Kind::Text, true}, {"cmdline", Kind::Text, false}, {"cwd", Kind::Text, false},
        {"user", Kind::Text, false}, {"sid", Kind::Text, false}, {"logon", Kind::Number, false},
        {"session", Kind::Number, false}, {"integrity", Kind::Text, false}, {"wow64", Kind::Bool, false}}},
      {"image",
       {{"pid", Kind::Number, true}, {"path", Kind::Text, true}, {"base", Kind::Number, false},
        {"size", Kind::Number, false}, {"machine", Kind::Number, false}, {"dll", Kind::Bool, false},
        {"checksum", Kind::Number, false}, {"unreadable", Kind::Bool, false}}},
      {"thread",
       {{"pid", Kind::Number, true}, {"tid", Kind::Number, false}, {"by_pid", Kind::Number, false},
        {"by_tid", Kind::Number, false}, {"start", Kind::Number, false}, {"start_module", Kind::Text, false},
        {"start_offset", Kind::Number, false}, {"exit", Kind::Bool, false}}},
      {"driver", {{"path", Kind::Text, true}, {"by_pid", Kind::Number, false}}},
      {"exit", {{"pid", Kind::Number, true}}},
      {"logon",
       {{"logon", Kind::Number, true}, {"user", Kind::Text, true}, {"sid", Kind::Text, true},
        {"session", Kind::Number, false}}},
      {"logoff", {{"logon", Kind::Number, true}}},
      {"consumer", {{"pid", Kind::Number, true}, {"image", Kind::Text, false}}},
      {"mask", {{"mask", Kind::Number, true}}},
      {"producer", {{"pid", Kind::Number, true}, {"image", Kind::Text, false}}},
      {"send", {{"pid", Kind::Number, true}, {"packet", Kind::Object, true}}},
      {"read", {{"pid", Kind::Number, true}}},
      {"ioctl",
       {{"pid", Kind::Number, true}, {"code", Kind::Number, true}, {"in", Kind::Hex, false},
        {"out_len", Kind::Number, false}, {"direct", Kind::Hex, false}}},
      {"white_rules", {{"rules", Kind::Array, false}, {"delete", Kind::Bool, false}}},
      {"producer_driver", {{"action", Kind::Text, true}}},
      {"kernel_event",
       {{"pid", Kind::Number, true}, {"event_type", Kind::NumberOrText, true}, {"data", Kind::Hex, false},
        {"stack", Kind::Array, false}}},
      {"write", {{"pid", Kind::Number, true}, {"hex", Kind::Hex, true}}},
      {"drain", {}},
      {"query", {{"pid", Kind::Number, true}, {"room", Kind::Number, false}}},
      {"losses", {}},
  };
  return schema;
}

const std::vector<Field>& PacketFields() {
  static const std::vector<Field> fields = {
      {"type", Kind::NumberOrText, true}, {"dst", Kind::NumberOrText, true}, {"dst_pid", Kind::Number, false},
      {"event_type", Kind::NumberOrText, false}, {"body", Kind::Hex, false}};
  return fields;
}

bool IsNumber(const Json& value) {
  if (value.is_number_unsigned() || (value.is_number_integer() && value.get<int64_t>() >= 0)) return true;
  if (!value.is_string()) return false;
  const std::string& text = value.get_ref<const std::string&>();
  if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X') || text.size() > 18) return false;
  return text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
}

const char* Expected(Kind kind) {
  switch (kind) {
    case Kind::Number: return "a number (or a \"0x...\" string)";
    case Kind::Text: return "a string";
    case Kind::Bool: return "true or false";
    case Kind::Hex: return "a string of hex digits";
    case Kind::Object: return "an object";
    case Kind::NumberOrText: return "a number or a string";
    case Kind::Array: return "an array";
  }
  return "";
}

bool Check(const Json& object, const std::vector<Field>& fields, const std::string& prefix, int line,
           ScenarioError* error) {
  std::set<std::string> known;
  for (const Field& field : fields) {
    known.insert(field.name);
    std::string name = prefix + field.name;
    if (!object.contains(field.name)) {
      if (field.required) {
        *error = {line, name, "missing"};
        return false;
      }
      continue;
    }
    const Json& value = object[field.name];
    std::vector<uint8_t> bytes;
    bool ok = false;
    switch (field.kind) {
      case Kind::Number: ok = IsNumber(value); break;
      case Kind::Text: ok = value.is_string(); break;
      case Kind::Bool: ok = value.is_boolean(); break;
      case Kind::Hex: ok = value.is_string() && ParseHex(value.get<std::string>(), &bytes); break;
      case Kind::Object: ok = value.is_object(); break;
      case Kind::NumberOrText: ok = IsNumber(value) || value.is_string(); break;
      case Kind::Array: ok = value.is_array(); break;
    }
    if (!ok) {
      *error = {line, name, std::string("must be ") + Expected(field.kind)};
      return false;
    }
  }
  for (auto it = object.begin(); it != object.end(); ++it) {
    if (prefix.empty() && it.key() == "op") continue;
    if (!known.count(it.key())) {
      *error = {line, prefix + it.key(), "is not a field of this op"};
      return false;
    }
  }
  return true;
}

}  // namespace

bool MakeOp(const Json& object, int line, Op* op, ScenarioError* error) {
  if (!object.is_object()) {
    *error = {line, "", "not a JSON object"};
    return false;
  }
  if (!object.contains("op") || !object["op"].is_string()) {
    *error = {line, "op", object.contains("op") ? "must be a string" : "missing"};
    return false;
  }
  std::string name = object["op"].get<std::string>();
  auto schema = Schema().find(name);
  if (schema == Schema().end()) {
    *error = {line, "op", "unknown op \"" + name + "\""};
    return false;
  }
  if (!Check(object, schema->second, "", line, error)) return false;
  if (name == "send" && !Check(object["packet"], PacketFields(), "packet.", line, error)) return false;
  if (name == "white_rules") {
    static const std::vector<Field> ruleFields = {{"type", Kind::NumberOrText, true}, {"pattern", Kind::Text, true}};
    bool hasRules = object.contains("rules"), deletes = object.contains("delete") && object["delete"].get<bool>();
    if (hasRules == deletes) {
      *error = {line, "rules", "give either rules or \"delete\":true"};
      return false;
    }
    if (hasRules) {
      for (size_t i = 0; i < object["rules"].size(); ++i) {
        const Json& rule = object["rules"][i];
        std::string prefix = "rules[" + std::to_string(i) + "].";
        if (!rule.is_object()) {
          *error = {line, prefix, "must be an object"};
          return false;
        }
        if (!Check(rule, ruleFields, prefix, line, error)) return false;
      }
    }
  }
  *op = Op{line, name, object};
  return true;
}

bool ParseScenario(std::istream& input, std::vector<Op>* ops, ScenarioError* error) {
  std::string text;
  int line = 0;
  while (std::getline(input, text)) {
    ++line;
    size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos || text[first] == '#') continue;
    Json object = Json::parse(text, nullptr, false);
    if (object.is_discarded()) {
      *error = {line, "", "not valid JSON"};
      return false;
    }
    Op op;
    if (!MakeOp(object, line, &op, error)) return false;
    if (op.name == "machine" && !ops->empty()) {
      *error = {line, "op", "machine must be the first op"};
      return false;
    }
    ops->push_back(std::move(op));
  }
  return true;
}

bool Has(const Json& fields, const char* name) { return fields.contains(name); }

uint64_t Number(const Json& fields, const char* name, uint64_t fallback) {
  if (!fields.contains(name)) return fallback;
  const Json& value = fields[name];
  if (value.is_string()) return std::stoull(value.get<std::string>().substr(2), nullptr, 16);
  return value.get<uint64_t>();
}

std::string Text(const Json& fields, const char* name, const std::string& fallback) {
  return fields.contains(name) && fields[name].is_string() ? fields[name].get<std::string>() : fallback;
}

bool ParseHex(const std::string& text, std::vector<uint8_t>* bytes) {
  std::string digits;
  for (char c : text) {
    if (c == ' ') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    digits.push_back(c);
  }
  if (digits.size() % 2 != 0) return false;
  bytes->clear();
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes->push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return true;
}

}  // namespace sentrel_sim
