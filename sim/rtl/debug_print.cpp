// DbgPrint and the kernel's string formatting routines, on the Windows formatting rules.
#include "kernel.h"
#include "rtl/format.h"

#include <cstring>

using namespace ntsim;

namespace {

// Whether a format has a conversion of Unicode text: %C, %S, %lc, %ls, %wc, %ws or %wZ. DbgPrint
// takes those only at PASSIVE_LEVEL (their conversion may touch paged memory).
bool HasUnicodeConversion(PCSTR format) {
  for (const char* p = format; *p; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    while (*p && std::strchr("-+ #0123456789.*", *p)) ++p;
    bool wide = false;
    while (*p == 'l' || *p == 'w' || *p == 'h' || *p == 'I' || *p == 'L' || *p == '6' || *p == '4' ||
           *p == '3' || *p == '2') {
      if (*p == 'l' || *p == 'w') wide = true;
      ++p;
    }
    if (!*p) break;
    if (*p == 'S' || *p == 'C' || (wide && (*p == 's' || *p == 'c' || *p == 'Z'))) return true;
  }
  return false;
}

}  // namespace

ULONG DbgPrint(PCSTR Format, ...) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL && HasUnicodeConversion(Format)) {
    K().verifier.Violation("DbgPrint", std::string("a Unicode format above PASSIVE_LEVEL: \"") + Format + "\"");
  }
  va_list args;
  va_start(args, Format);
  std::string text = FormatNarrow(Format, args);
  va_end(args);
  // The debugger takes at most 512 bytes from one call.
  if (text.size() > 512) text.resize(512);
  K().debug.Append(text);
  return STATUS_SUCCESS;
}

int _vsnwprintf(WCHAR* Buffer, SIZE_T Count, const WCHAR* Format, va_list ArgList) {
  std::u16string text = FormatWide(Format, ArgList);
  // As the C runtime: the whole text and its terminator fit, or Count characters are written
  // without a terminator and -1 is returned.
  if (text.size() < Count) {
    std::memcpy(Buffer, text.data(), text.size() * sizeof(WCHAR));
    Buffer[text.size()] = 0;
    return static_cast<int>(text.size());
  }
  if (text.size() == Count) {
    std::memcpy(Buffer, text.data(), Count * sizeof(WCHAR));
    return static_cast<int>(Count);
  }
  std::memcpy(Buffer, text.data(), Count * sizeof(WCHAR));
  return -1;
}

int _snwprintf(WCHAR* Buffer, SIZE_T Count, const WCHAR* Format, ...) {
  va_list args;
  va_start(args, Format);
  int n = _vsnwprintf(Buffer, Count, Format, args);
  va_end(args);
  return n;
}

int _snprintf(char* Buffer, SIZE_T Count, const char* Format, ...) {
  va_list args;
  va_start(args, Format);
  std::string text = FormatNarrow(Format, args);
  va_end(args);
  if (text.size() < Count) {
    std::memcpy(Buffer, text.data(), text.size() + 1);
    return static_cast<int>(text.size());
  }
  std::memcpy(Buffer, text.data(), Count);
  return text.size() == Count ? static_cast<int>(Count) : -1;
}
