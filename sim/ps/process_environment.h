// A user process's environment block and process parameters, in its own memory and in the
// 64-bit layout the kernel and ntdll share: the environment block's ProcessParameters (at 0x20)
// points to RTL_USER_PROCESS_PARAMETERS, whose counted strings hold addresses once the block is
// normalized (Flags bit 0) and offsets from the block's start before that. Each string lies on
// pages of its own, so that a test can make exactly one of them fault.
#pragma once

#include <cstdint>
#include <string>

#include "mm/process_memory.h"

namespace ntsim {

struct EnvironmentSpec {
  std::u16string imagePath;  // DOS form: "C:\Windows\System32\notepad.exe"
  std::u16string commandLine;
  std::u16string currentDirectory;
  bool normalized = true;
  bool wow64 = false;  // also a 32-bit environment block
};

struct EnvironmentBlock {
  uintptr_t base = 0;  // the whole block, as one private allocation of the process
  size_t size = 0;
  void* peb = nullptr;
  void* wow64Peb = nullptr;
  void* parameters = nullptr;
  void* commandLine = nullptr;  // the characters
  void* currentDirectory = nullptr;
};

EnvironmentBlock BuildEnvironment(ProcessMemory& memory, const _KPROCESS* process, const EnvironmentSpec& spec);

}  // namespace ntsim
