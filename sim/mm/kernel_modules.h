// The loaded kernel modules that SystemModuleInformation lists. The first is the kernel image: real
// memory holding a PE header and an export directory (sorted names, name ordinals, function
// addresses) whose functions are small jumps to the simulator's routines, so that an address the
// kernel hands out by name lies inside the kernel image, as on Windows. MmGetSystemRoutineAddress
// searches that export directory. Other modules (hal.dll, drivers loaded by the world) are listed
// by base and size only.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ntsim/ntsim.h"

namespace ntsim {

// An image's headers and export directory, laid out as the loader maps them, for the kernel image
// and for tests that need an image with an unusual export table.
struct ExportImageSpec {
  std::string dllName;
  std::vector<std::string> names;      // as they go into the name table (the loader's are sorted)
  std::vector<uint16_t> nameOrdinals;  // one per name: an index into functions
  std::vector<uint32_t> functions;     // addresses relative to the image base
  uint32_t sizeOfImage = 0;            // at least what the headers and the directory take
};
std::vector<uint8_t> BuildExportImage(const ExportImageSpec& spec);

class KernelModules {
 public:
  struct Module {
    uintptr_t base = 0;
    uint32_t size = 0;
    std::string path;  // "\SystemRoot\system32\ntoskrnl.exe"
  };
  struct Routine {
    std::string name;
    void* address;
  };

  ~KernelModules();
  // Builds the kernel image exporting the routines, then lists it (unless listKernelImage is false:
  // a module list that lacks it) and hal.dll.
  void Boot(const std::vector<Routine>& routines, bool listKernelImage);
  void Teardown();
  // The kernel image's export by name, found as the loader would: null if it does not export it.
  void* RoutineAddress(const std::string& name) const;
  uintptr_t KernelImageBase() const { return imageBase_; }
  uint32_t KernelImageSize() const { return imageSize_; }
  // Adds a module; base 0 chooses one. Returns its base.
  uintptr_t Add(const std::string& path, uintptr_t base, uint32_t size);
  std::vector<Module> Listed() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Module> modules_;
  uintptr_t imageBase_ = 0;
  uint32_t imageSize_ = 0;
  uintptr_t nextBase_ = 0xFFFFF80100000000ULL;
};

}  // namespace ntsim
