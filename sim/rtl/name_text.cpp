#include "rtl/name_text.h"

#include "rtl/format.h"

namespace ntsim {

std::u16string Upcase(const std::u16string& s) {
  std::u16string out(s);
  for (auto& c : out) c = RtlUpcaseUnicodeChar(c);
  return out;
}

std::u16string ToU16(const UNICODE_STRING* s) {
  if (!s || !s->Buffer) return std::u16string();
  return std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR));
}

std::u16string ToU16(const char* ascii) {
  std::u16string out;
  for (; *ascii; ++ascii) out.push_back(static_cast<unsigned char>(*ascii));
  return out;
}

std::string ToUtf8(const std::u16string& s) { return Utf16ToUtf8(s); }

std::vector<std::u16string> SplitPath(const std::u16string& path) {
  std::vector<std::u16string> parts;
  std::u16string current;
  for (char16_t c : path) {
    if (c == u'\\') {
      if (!current.empty()) parts.push_back(current);
      current.clear();
    } else {
      current.push_back(c);
    }
  }
  if (!current.empty()) parts.push_back(current);
  return parts;
}

}  // namespace ntsim
