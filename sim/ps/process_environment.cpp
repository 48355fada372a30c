#include "ps/process_environment.h"

#include <cstring>

#include "ntsim/ntsim.h"

namespace ntsim {

namespace {

// RTL_USER_PROCESS_PARAMETERS up to the fields anyone reads, in the 64-bit layout.
struct UserProcessParameters64 {
  ULONG MaximumLength;
  ULONG Length;
  ULONG Flags;
  ULONG DebugFlags;
  PVOID ConsoleHandle;
  ULONG ConsoleFlags;
  PVOID StandardInput;
  PVOID StandardOutput;
  PVOID StandardError;
  UNICODE_STRING CurrentDirectoryDosPath;
  PVOID CurrentDirectoryHandle;
  UNICODE_STRING DllPath;
  UNICODE_STRING ImagePathName;
  UNICODE_STRING CommandLine;
  PVOID Environment;
};
static_assert(offsetof(UserProcessParameters64, CurrentDirectoryDosPath) == 0x38, "the 64-bit layout");
static_assert(offsetof(UserProcessParameters64, CommandLine) == 0x70, "the 64-bit layout");

constexpr size_t kPebSize = 0x7C8;
constexpr size_t kPebProcessParameters = 0x20;
constexpr size_t kWow64PebOffset = 0x800;
constexpr ULONG kParametersNormalized = 1;
static_assert(kPebSize <= kWow64PebOffset, "the 32-bit block follows the 64-bit one");

size_t PagesFor(const std::u16string& text) {
  return ((text.size() + 1) * sizeof(WCHAR) + PAGE_SIZE - 1) / PAGE_SIZE * PAGE_SIZE;
}

}  // namespace

EnvironmentBlock BuildEnvironment(ProcessMemory& memory, const _KPROCESS* process, const EnvironmentSpec& spec) {
  size_t imageAt = 2 * PAGE_SIZE;
  size_t commandAt = imageAt + PagesFor(spec.imagePath);
  size_t directoryAt = commandAt + PagesFor(spec.commandLine);
  size_t size = directoryAt + PagesFor(spec.currentDirectory);
  auto* base = static_cast<uint8_t*>(memory.Allocate(process, size));

  EnvironmentBlock block;
  block.base = reinterpret_cast<uintptr_t>(base);
  block.size = size;
  block.peb = base;
  block.wow64Peb = spec.wow64 ? base + kWow64PebOffset : nullptr;
  block.parameters = base + PAGE_SIZE;
  block.commandLine = base + commandAt;
  block.currentDirectory = base + directoryAt;

  auto* parameters = static_cast<UserProcessParameters64*>(block.parameters);
  parameters->MaximumLength = parameters->Length = static_cast<ULONG>(size - PAGE_SIZE);
  parameters->Flags = spec.normalized ? kParametersNormalized : 0;
  auto place = [&](UNICODE_STRING* field, const std::u16string& text, size_t at) {
    std::memcpy(base + at, text.data(), text.size() * sizeof(WCHAR));
    field->Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    field->MaximumLength = static_cast<USHORT>(field->Length + sizeof(WCHAR));
    // Before normalization a buffer field holds the offset from the parameters' start.
    field->Buffer = spec.normalized ? reinterpret_cast<PWSTR>(base + at)
                                    : reinterpret_cast<PWSTR>(static_cast<uintptr_t>(at - PAGE_SIZE));
  };
  place(&parameters->ImagePathName, spec.imagePath, imageAt);
  place(&parameters->CommandLine, spec.commandLine, commandAt);
  place(&parameters->CurrentDirectoryDosPath, spec.currentDirectory, directoryAt);
  void* pointer = block.parameters;
  std::memcpy(base + kPebProcessParameters, &pointer, sizeof pointer);
  if (spec.wow64) {
    // The 32-bit block's ProcessParameters (at 0x10) holds a 32-bit address; none is set here: the
    // kernel's own readers use the 64-bit block.
    std::memset(base + kWow64PebOffset, 0, 0x480);
  }
  return block;
}

}  // namespace ntsim
