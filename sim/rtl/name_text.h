// Text helpers of the simulator's name handling: case folding as the kernel's upcase table does it,
// conversions between counted strings and host strings, and splitting of backslash paths.
#pragma once

#include <string>
#include <vector>

#include "ntsim/ntsim.h"

namespace ntsim {

std::u16string Upcase(const std::u16string& s);
std::u16string ToU16(const UNICODE_STRING* s);
std::u16string ToU16(const char* ascii);
std::string ToUtf8(const std::u16string& s);
// "\A\\B\C\" gives {"A", "B", "C"}.
std::vector<std::u16string> SplitPath(const std::u16string& path);

}  // namespace ntsim
