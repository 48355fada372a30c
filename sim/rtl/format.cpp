// The Windows kernel's printf rules for the simulator's DbgPrint, _vsnprintf and _vsnwprintf.
// Driver format strings are written for Windows (`l` is 32 bits, %wZ/%Z take counted strings, %ws
// and %S switch character width, %p has no "0x"), so glibc's printf would misread their arguments.
//
// One core, templated on the format's character type, serves both outputs: narrow (bytes, wide
// text as UTF-8) and wide (UTF-16, narrow text read as UTF-8). As in the Windows runtime, width and
// precision of a string count the units of the source string, and the `0` flag pads every
// conversion, strings included.

#include "format.h"

#include <stdint.h>

#include <algorithm>
#include <climits>
#include <type_traits>

#include "ntsim/base.h"

namespace ntsim {
namespace {

const char kNullText[] = "(null)";
const char16_t kReplacement = 0xFFFD;

// ---- UTF-8 / UTF-16 ----

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// Unit is wchar_t (driver strings) or char16_t (host strings); both are 16 bits here.
template <typename Unit>
void AppendUtf16AsUtf8(std::string& out, const Unit* s, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    uint32_t unit = static_cast<uint16_t>(s[i]);
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < n) {
      uint32_t low = static_cast<uint16_t>(s[i + 1]);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        ++i;
        continue;
      }
    }
    AppendUtf8(out, (unit >= 0xD800 && unit <= 0xDFFF) ? kReplacement : unit);
  }
}

// Decodes UTF-8; each maximal ill-formed subsequence becomes one U+FFFD, so overlong forms,
// encoded surrogates and values above U+10FFFF never pass through.
void AppendUtf8AsUtf16(std::u16string& out, const char* s, size_t n) {
  const auto byte = [s](size_t i) { return static_cast<uint8_t>(s[i]); };
  size_t i = 0;
  while (i < n) {
    uint32_t lead = byte(i);
    if (lead < 0x80) {
      out.push_back(static_cast<char16_t>(lead));
      ++i;
      continue;
    }
    size_t trail = 3;              // continuation bytes expected
    uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the first continuation byte
    uint32_t cp = lead & 0x07;
    if (lead >= 0xC2 && lead <= 0xDF) {
      trail = 1;
      cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      trail = 2;
      cp = lead & 0x0F;
      if (lead == 0xE0) lo = 0xA0;
      if (lead == 0xED) hi = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      if (lead == 0xF0) lo = 0x90;
      if (lead == 0xF4) hi = 0x8F;
    } else {
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    size_t k = 1;
    for (; k <= trail; ++k) {
      if (i + k >= n) break;
      uint8_t b = byte(i + k);
      if (b < (k == 1 ? lo : 0x80) || b > (k == 1 ? hi : 0xBF)) break;
      cp = (cp << 6) | (b & 0x3F);
    }
    i += k;
    if (k <= trail) {
      out.push_back(kReplacement);
    } else if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
}

// Text of either width into either output.
void AppendNarrow(std::string& out, const char* s, size_t n) { out.append(s, n); }
void AppendNarrow(std::u16string& out, const char* s, size_t n) { AppendUtf8AsUtf16(out, s, n); }
void AppendWide(std::string& out, const wchar_t* s, size_t n) { AppendUtf16AsUtf8(out, s, n); }
void AppendWide(std::u16string& out, const wchar_t* s, size_t n) {
  for (size_t i = 0; i < n; ++i) out.push_back(static_cast<char16_t>(s[i]));
}

// ---- Conversions: flags, width, precision, size prefix, type ----

enum Flag : unsigned { kLeft = 1, kPlus = 2, kSpace = 4, kAlternate = 8, kZero = 16 };

// Integer argument size. Windows is LLP64: `l` and `I32` are 32 bits like the default;
// `ll`, `I64`, `I`, `z`, `t`, `j` are 64 bits on x64.
enum class IntSize { kInt, kShort, kChar, k64 };

// Character width asked for by a size prefix: `h` narrow, `l` or `w` wide; otherwise the
// conversion decides (s and c follow the output, S and C the opposite).
enum class TextWidth { kDefault, kNarrow, kWide };

struct Spec {
  unsigned flags = 0;
  size_t width = 0;
  bool has_precision = false;
  size_t precision = 0;
  IntSize int_size = IntSize::kInt;
  TextWidth text_width = TextWidth::kDefault;

  size_t Limit(size_t n) const { return has_precision ? std::min(n, precision) : n; }
};

// Length of a NUL-terminated string, reading no further than the precision allows (a string
// printed with a precision need not be terminated).
template <typename T>
size_t BoundedLength(const T* s, const Spec& spec) {
  size_t n = 0;
  while ((!spec.has_precision || n < spec.precision) && s[n] != 0) ++n;
  return n;
}

// Char is the format's character type: char formats to narrow output, wchar_t to wide (UTF-16).
template <typename Char>
class Formatter {
 public:
  using Out = typename std::conditional<std::is_same<Char, char>::value, char, char16_t>::type;
  static constexpr bool kWideOutput = !std::is_same<Char, char>::value;

  explicit Formatter(va_list* args) : args_(args) {}

  std::basic_string<Out> Run(const Char* format) {
    if (format == nullptr) return out_;
    const Char* p = format;
    while (*p != 0) {
      if (*p != '%') {
        out_.push_back(static_cast<Out>(*p++));
      } else {
        p = Conversion(p + 1);
      }
    }
    return std::move(out_);
  }

 private:
  // Parses and prints one conversion; p follows the '%'. Returns where the literal text resumes.
  const Char* Conversion(const Char* p) {
    Spec spec;
    for (;; ++p) {
      if (*p == '-') spec.flags |= kLeft;
      else if (*p == '+') spec.flags |= kPlus;
      else if (*p == ' ') spec.flags |= kSpace;
      else if (*p == '#') spec.flags |= kAlternate;
      else if (*p == '0') spec.flags |= kZero;
      else break;
    }
    if (*p == '*') {
      long long width = va_arg(*args_, int);
      if (width < 0) {
        spec.flags |= kLeft;
        width = -width;
      }
      spec.width = static_cast<size_t>(width);
      ++p;
    } else {
      p = Number(p, &spec.width);
    }
    if (*p == '.') {
      ++p;
      spec.has_precision = true;
      if (*p == '*') {
        int precision = va_arg(*args_, int);
        spec.has_precision = precision >= 0;  // a negative precision counts as none
        spec.precision = spec.has_precision ? static_cast<size_t>(precision) : 0;
        ++p;
      } else {
        p = Number(p, &spec.precision);
      }
    }
    p = SizePrefix(p, &spec);

    switch (*p) {
      case 0:
        return p;  // the format ends inside a conversion: nothing to print
      case 'd':
      case 'i':
      case 'u':
      case 'o':
      case 'x':
      case 'X':
      case 'p':
        Integer(spec, static_cast<char>(*p));
        break;
      case 'c':
      case 'C':
        Character(spec, *p == 'c');
        break;
      case 's':
      case 'S':
        String(spec, *p == 's');
        break;
      case 'Z':
        CountedString(spec);
        break;
      case 'n':
        // Writing the count through a pointer is not supported; the argument is still consumed
        // so that the conversions after it read theirs.
        (void)va_arg(*args_, void*);
        break;
      default:
        // Includes "%%". An unknown conversion character is printed as itself.
        out_.push_back(static_cast<Out>(*p));
        break;
    }
    return p + 1;
  }

  static const Char* Number(const Char* p, size_t* value) {
    size_t v = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
      v = std::min<size_t>(v * 10 + static_cast<size_t>(*p - '0'), INT_MAX);
    }
    *value = v;
    return p;
  }

  static const Char* SizePrefix(const Char* p, Spec* spec) {
    switch (*p) {
      case 'h':
        ++p;
        spec->text_width = TextWidth::kNarrow;
        spec->int_size = IntSize::kShort;
        if (*p == 'h') {
          ++p;
          spec->int_size = IntSize::kChar;
        }
        break;
      case 'l':
        ++p;
        spec->text_width = TextWidth::kWide;  // `l` alone is a 32-bit LONG: int_size stays kInt
        if (*p == 'l') {
          ++p;
          spec->int_size = IntSize::k64;
        }
        break;
      case 'w':
        ++p;
        spec->text_width = TextWidth::kWide;
        break;
      case 'I':
        ++p;
        if (p[0] == '6' && p[1] == '4') {
          p += 2;
          spec->int_size = IntSize::k64;
        } else if (p[0] == '3' && p[1] == '2') {
          p += 2;
        } else {
          spec->int_size = IntSize::k64;  // pointer-sized
        }
        break;
      case 'z':
      case 't':
      case 'j':
        ++p;
        spec->int_size = IntSize::k64;
        break;
      case 'L':
        ++p;  // long double: no meaning for the conversions supported here
        break;
      default:
        break;
    }
    return p;
  }

  // d i u o x X, and p (pointer: 16 uppercase hexadecimal digits, no prefix unless `#`).
  void Integer(Spec spec, char conversion) {
    const bool is_signed = conversion == 'd' || conversion == 'i';
    const unsigned radix = conversion == 'o' ? 8 : conversion == 'u' || is_signed ? 10 : 16;
    const char* digit_set = conversion == 'x' ? "0123456789abcdef" : "0123456789ABCDEF";

    uint64_t magnitude;
    bool negative = false;
    if (conversion == 'p') {
      magnitude = reinterpret_cast<uintptr_t>(va_arg(*args_, void*));
      spec.has_precision = true;
      spec.precision = 2 * sizeof(void*);
    } else if (is_signed) {
      int64_t v = spec.int_size == IntSize::k64 ? va_arg(*args_, long long) : va_arg(*args_, int);
      if (spec.int_size == IntSize::kShort) v = static_cast<int16_t>(v);
      if (spec.int_size == IntSize::kChar) v = static_cast<int8_t>(v);
      negative = v < 0;
      magnitude = negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    } else {
      magnitude = spec.int_size == IntSize::k64 ? va_arg(*args_, unsigned long long)
                                                : va_arg(*args_, unsigned);
      if (spec.int_size == IntSize::kShort) magnitude = static_cast<uint16_t>(magnitude);
      if (spec.int_size == IntSize::kChar) magnitude = static_cast<uint8_t>(magnitude);
    }

    std::string prefix;
    if (negative) {
      prefix = "-";
    } else if (is_signed && (spec.flags & kPlus)) {
      prefix = "+";
    } else if (is_signed && (spec.flags & kSpace)) {
      prefix = " ";
    } else if (radix == 16 && (spec.flags & kAlternate) && magnitude != 0) {
      prefix = conversion == 'x' ? "0x" : "0X";
    }

    // Digits, least significant first. A precision is a minimum digit count and turns off the
    // `0` flag; precision 0 prints the value 0 as no digits at all.
    std::string digits;
    for (uint64_t v = magnitude; v != 0; v /= radix) digits.push_back(digit_set[v % radix]);
    const size_t min_digits = spec.has_precision ? spec.precision : 1;
    if (digits.size() < min_digits) digits.append(min_digits - digits.size(), '0');
    if (spec.has_precision) spec.flags &= ~kZero;
    if (radix == 8 && (spec.flags & kAlternate) && (digits.empty() || digits.back() != '0')) {
      digits.push_back('0');
    }
    std::reverse(digits.begin(), digits.end());

    Field(spec, prefix, digits.size(), [&] { AppendNarrow(out_, digits.data(), digits.size()); });
  }

  bool WantsWide(const Spec& spec, bool follows_output) const {
    if (spec.text_width != TextWidth::kDefault) return spec.text_width == TextWidth::kWide;
    return follows_output == kWideOutput;
  }

  void Character(const Spec& spec, bool follows_output) {
    const int value = va_arg(*args_, int);  // char and WCHAR arrive promoted to int
    if (WantsWide(spec, follows_output)) {
      const wchar_t ch = static_cast<wchar_t>(static_cast<uint16_t>(value));
      WideText(spec, &ch, 1);
    } else {
      const char ch = static_cast<char>(value);
      NarrowText(spec, &ch, 1);
    }
  }

  void String(const Spec& spec, bool follows_output) {
    if (WantsWide(spec, follows_output)) {
      const wchar_t* s = va_arg(*args_, const wchar_t*);
      if (s == nullptr) return NullText(spec);
      WideText(spec, s, BoundedLength(s, spec));
    } else {
      const char* s = va_arg(*args_, const char*);
      if (s == nullptr) return NullText(spec);
      NarrowText(spec, s, BoundedLength(s, spec));
    }
  }

  // %Z takes a STRING / ANSI_STRING, %wZ (or %lZ) a UNICODE_STRING, whatever the output width.
  // Length is in bytes and the buffer need not be terminated.
  void CountedString(const Spec& spec) {
    if (spec.text_width == TextWidth::kWide) {
      const UNICODE_STRING* s = va_arg(*args_, const UNICODE_STRING*);
      if (s == nullptr || s->Buffer == nullptr) return NullText(spec);
      WideText(spec, s->Buffer, spec.Limit(s->Length / sizeof(WCHAR)));
    } else {
      const STRING* s = va_arg(*args_, const STRING*);
      if (s == nullptr || s->Buffer == nullptr) return NullText(spec);
      NarrowText(spec, s->Buffer, spec.Limit(s->Length));
    }
  }

  void NullText(const Spec& spec) {
    NarrowText(spec, kNullText, spec.Limit(sizeof(kNullText) - 1));
  }

  void NarrowText(const Spec& spec, const char* s, size_t n) {
    Field(spec, std::string(), n, [&] { AppendNarrow(out_, s, n); });
  }

  void WideText(const Spec& spec, const wchar_t* s, size_t n) {
    Field(spec, std::string(), n, [&] { AppendWide(out_, s, n); });
  }

  // Pads a field of `length` source units plus an ASCII prefix (sign or radix) to the width:
  // spaces before the prefix, or zeros after it, or spaces after the text when left-justified.
  template <typename Emit>
  void Field(const Spec& spec, const std::string& prefix, size_t length, Emit emit) {
    const size_t used = prefix.size() + length;
    const size_t padding = spec.width > used ? spec.width - used : 0;
    const bool left = (spec.flags & kLeft) != 0;
    const bool zeros = !left && (spec.flags & kZero) != 0;
    if (!left && !zeros) out_.append(padding, static_cast<Out>(' '));
    AppendNarrow(out_, prefix.data(), prefix.size());
    if (zeros) out_.append(padding, static_cast<Out>('0'));
    emit();
    if (left) out_.append(padding, static_cast<Out>(' '));
  }

  va_list* args_;
  std::basic_string<Out> out_;
};

}  // namespace

std::string FormatNarrow(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  std::string out = Formatter<char>(&copy).Run(format);
  va_end(copy);
  return out;
}

std::u16string FormatWide(const wchar_t* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  std::u16string out = Formatter<wchar_t>(&copy).Run(format);
  va_end(copy);
  return out;
}

std::string Utf16ToUtf8(const std::u16string& s) {
  std::string out;
  out.reserve(s.size());
  AppendUtf16AsUtf8(out, s.data(), s.size());
  return out;
}

std::u16string Utf8ToUtf16(const std::string& s) {
  std::u16string out;
  out.reserve(s.size());
  AppendUtf8AsUtf16(out, s.data(), s.size());
  return out;
}

}  // namespace ntsim
