// DbgPrint and the kernel's string formatting routines, on the Windows formatting rules.
#include "kernel.h"
#include "rtl/format.h"

using namespace ntsim;

ULONG DbgPrint(PCSTR Format, ...) {
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
