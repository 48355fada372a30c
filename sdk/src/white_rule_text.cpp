#include "sentrel_sdk/white_rule_text.h"

#include <cstdlib>

#include "sentrel/packet_build.h"
#include "sentrel/white_rule.h"

namespace sentrel_sdk {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

bool EventTypeOf(const std::string& word, uint32_t* type) {
  SK_EVENT_TYPE named;
  if (sk_EventTypeFromName(word.data(), static_cast<SK_UINT32>(word.size()), &named)) {
    *type = named;
    return true;
  }
  char* end = nullptr;
  unsigned long number = std::strtoul(word.c_str(), &end, 0);
  if (word.empty() || *end != '\0' || number >= SK_EVENT_TYPE_SLOTS) return false;
  *type = static_cast<uint32_t>(number);
  return true;
}

}  // namespace

bool Utf8ToUtf16(const std::string& text, std::u16string* out) {
  out->clear();
  size_t i = 0;
  while (i < text.size()) {
    auto byte = static_cast<uint8_t>(text[i]);
    uint32_t c;
    size_t extra;
    if (byte < 0x80) {
      c = byte, extra = 0;
    } else if ((byte & 0xE0) == 0xC0) {
      c = byte & 0x1F, extra = 1;
    } else if ((byte & 0xF0) == 0xE0) {
      c = byte & 0x0F, extra = 2;
    } else if ((byte & 0xF8) == 0xF0) {
      c = byte & 0x07, extra = 3;
    } else {
      return false;
    }
    if (i + extra >= text.size()) return false;  // cut short
    for (size_t k = 1; k <= extra; ++k) {
      auto next = static_cast<uint8_t>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      c = (c << 6) | (next & 0x3F);
    }
    static const uint32_t smallest[] = {0, 0x80, 0x800, 0x10000};
    if (c < smallest[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
    if (c >= 0x10000) {
      out->push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
      out->push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
    } else {
      out->push_back(static_cast<char16_t>(c));
    }
    i += extra + 1;
  }
  return true;
}

bool ParseWhiteRules(const std::string& text, WhiteRuleRecords* out, std::string* error) {
  out->bytes.clear();
  out->count = 0;
  size_t lastRecord = 0;
  size_t lineNumber = 0;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++lineNumber;
    auto fail = [&](const std::string& what) {
      *error = "line " + std::to_string(lineNumber) + ": " + what;
      return false;
    };
    size_t at = 0;
    while (at < line.size() && IsBlank(line[at])) ++at;
    if (at == line.size() || line[at] == '#') continue;
    size_t wordEnd = at;
    while (wordEnd < line.size() && !IsBlank(line[wordEnd])) ++wordEnd;
    std::string word = line.substr(at, wordEnd - at);
    uint32_t type;
    if (!EventTypeOf(word, &type)) return fail("\"" + word + "\" is not an event type (ET_PROCESS_CREATE ...)");
    size_t patternStart = wordEnd;
    while (patternStart < line.size() && IsBlank(line[patternStart])) ++patternStart;
    size_t patternEnd = line.size();
    while (patternEnd > patternStart && IsBlank(line[patternEnd - 1])) --patternEnd;
    if (patternStart == patternEnd) return fail("a rule needs a pattern after its event type");
    std::u16string pattern;
    if (!Utf8ToUtf16(line.substr(patternStart, patternEnd - patternStart), &pattern)) {
      return fail("the pattern is not UTF-8");
    }
    // Each record takes at least its declared size: the driver wants that much room for every one.
    size_t pathBytes = pattern.size() * 2;
    size_t recordBytes = WHITE_RULE_NODE_HEADER_SIZE + pathBytes;
    if (recordBytes < WHITE_RULE_NODE_SIZE) recordBytes = WHITE_RULE_NODE_SIZE;
    if (recordBytes > 0xFFFF) return fail("the pattern is too long");
    if (out->count > 0) {
      sk_StoreLe16(out->bytes.data() + lastRecord, SK_OFFSETOF(WHITE_RULE_NODE, NextOffset),
                   static_cast<SK_UINT16>(out->bytes.size() - lastRecord));
    }
    lastRecord = out->bytes.size();
    out->bytes.resize(lastRecord + recordBytes, 0);
    uint8_t* record = out->bytes.data() + lastRecord;
    sk_StoreLe16(record, SK_OFFSETOF(WHITE_RULE_NODE, Length), static_cast<SK_UINT16>(pathBytes));
    sk_StoreLe32(record, SK_OFFSETOF(WHITE_RULE_NODE, EventType), type);
    for (size_t i = 0; i < pattern.size(); ++i) {
      sk_StoreLe16(record, static_cast<SK_UINT32>(WHITE_RULE_NODE_HEADER_SIZE + 2 * i), pattern[i]);
    }
    ++out->count;
  }
  if (out->count == 0) {
    *error = "no rules (an empty upload would delete every white rule; that is --delete-rules)";
    return false;
  }
  // The driver takes no request shorter than one record and a byte.
  if (out->bytes.size() < WHITE_RULE_REQUEST_MIN_LENGTH) out->bytes.resize(WHITE_RULE_REQUEST_MIN_LENGTH, 0);
  return true;
}

}  // namespace sentrel_sdk
