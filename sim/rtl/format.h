// printf-style formatting with the Windows kernel's rules, behind the simulator's DbgPrint,
// _vsnprintf and _vsnwprintf. Host code: returns whole strings; callers truncate to their buffers.
#pragma once

#include <cstdarg>
#include <string>

namespace ntsim {

// Formats as the Windows kernel's DbgPrint / _vsnprintf do (narrow output). Wide text taken by
// %S, %ls, %ws, %wZ, %C is written as UTF-8. `args` is left untouched (the formatter reads a copy).
std::string FormatNarrow(const char* format, va_list args);

// Formats as the Windows kernel's _vsnwprintf does (wide output, WCHAR = 16-bit wchar_t). Narrow
// text taken by %S, %hs, %Z, %C is read as UTF-8.
std::u16string FormatWide(const wchar_t* format, va_list args);

// UTF-16 <-> UTF-8 conversion used by the sim for printing. Unpaired surrogates and malformed
// UTF-8 sequences become U+FFFD.
std::string Utf16ToUtf8(const std::u16string& s);
std::u16string Utf8ToUtf16(const std::string& s);

}  // namespace ntsim
