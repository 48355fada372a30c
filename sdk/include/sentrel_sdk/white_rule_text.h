// White rules as a person writes them, one a line, and the records IOCTL_SK_ADD_WHITE_RULE carries
// (sentrel/white_rule.h):
//
//   # comment lines and blank lines are skipped
//   ET_PROCESS_CREATE   *\Tools\build.exe
//   ET_IMAGE_LOAD       \SystemRoot\System32\*
//
// The event type's name (or its number), blanks, then the pattern: the rest of the line, without
// its trailing blanks. Text is UTF-8; patterns go to the driver in UTF-16LE.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sentrel_sdk {

struct WhiteRuleRecords {
  std::vector<uint8_t> bytes;  // the whole request, records back to back
  size_t count = 0;
};

// false, with "line N: what is wrong" in *error, for a line that is not a rule; no rules at all is
// an error too (an empty request would delete every rule).
bool ParseWhiteRules(const std::string& text, WhiteRuleRecords* out, std::string* error);

// Strict UTF-8 to UTF-16: false for bytes that are not UTF-8.
bool Utf8ToUtf16(const std::string& text, std::u16string* out);

}  // namespace sentrel_sdk
