#include "mm/kernel_modules.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ntsim {

namespace {

constexpr uint32_t kHeadersSize = 0x1000;
constexpr uint32_t kNtHeadersOffset = 0x80;
constexpr size_t kJumpSize = 16;  // jmp [rip+0]; the target; two bytes of int3

uint32_t Align(uint32_t value, uint32_t alignment) { return (value + alignment - 1) & ~(alignment - 1); }

template <typename T>
void Put(std::vector<uint8_t>& image, size_t offset, const T& value) {
  std::memcpy(image.data() + offset, &value, sizeof value);
}

}  // namespace

std::vector<uint8_t> BuildExportImage(const ExportImageSpec& spec) {
  uint32_t count = static_cast<uint32_t>(spec.names.size());
  uint32_t functionsAt = kHeadersSize + sizeof(IMAGE_EXPORT_DIRECTORY);
  uint32_t namesAt = functionsAt + 4 * static_cast<uint32_t>(spec.functions.size());
  uint32_t ordinalsAt = namesAt + 4 * count;
  uint32_t stringsAt = Align(ordinalsAt + 2 * count, 4);
  uint32_t end = stringsAt + static_cast<uint32_t>(spec.dllName.size()) + 1;
  for (const std::string& name : spec.names) end += static_cast<uint32_t>(name.size()) + 1;
  uint32_t size = Align(std::max(end, spec.sizeOfImage), PAGE_SIZE);
  std::vector<uint8_t> image(size, 0);

  IMAGE_DOS_HEADER dos = {};
  dos.e_magic = IMAGE_DOS_SIGNATURE;
  dos.e_lfanew = kNtHeadersOffset;
  Put(image, 0, dos);
  IMAGE_NT_HEADERS64 nt = {};
  nt.Signature = IMAGE_NT_SIGNATURE;
  nt.FileHeader.Machine = IMAGE_FILE_MACHINE_AMD64;
  nt.FileHeader.SizeOfOptionalHeader = sizeof(IMAGE_OPTIONAL_HEADER64);
  nt.OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR64_MAGIC;
  nt.OptionalHeader.SectionAlignment = PAGE_SIZE;
  nt.OptionalHeader.FileAlignment = 0x200;
  nt.OptionalHeader.SizeOfImage = size;
  nt.OptionalHeader.SizeOfHeaders = kHeadersSize;
  nt.OptionalHeader.NumberOfRvaAndSizes = IMAGE_NUMBEROF_DIRECTORY_ENTRIES;
  nt.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT] = {kHeadersSize, end - kHeadersSize};
  Put(image, kNtHeadersOffset, nt);

  IMAGE_EXPORT_DIRECTORY directory = {};
  directory.Base = 1;
  directory.NumberOfFunctions = static_cast<ULONG>(spec.functions.size());
  directory.NumberOfNames = count;
  directory.AddressOfFunctions = functionsAt;
  directory.AddressOfNames = namesAt;
  directory.AddressOfNameOrdinals = ordinalsAt;
  for (size_t i = 0; i < spec.functions.size(); ++i) Put(image, functionsAt + 4 * i, spec.functions[i]);
  uint32_t at = stringsAt;
  directory.Name = at;
  std::memcpy(image.data() + at, spec.dllName.c_str(), spec.dllName.size() + 1);
  at += static_cast<uint32_t>(spec.dllName.size()) + 1;
  for (uint32_t i = 0; i < count; ++i) {
    Put(image, namesAt + 4 * i, at);
    Put(image, ordinalsAt + 2 * i, i < spec.nameOrdinals.size() ? spec.nameOrdinals[i] : uint16_t(0));
    std::memcpy(image.data() + at, spec.names[i].c_str(), spec.names[i].size() + 1);
    at += static_cast<uint32_t>(spec.names[i].size()) + 1;
  }
  Put(image, kHeadersSize, directory);
  return image;
}

KernelModules::~KernelModules() { Teardown(); }

void KernelModules::Boot(const std::vector<Routine>& routines, bool listKernelImage) {
  std::vector<Routine> sorted = routines;
  std::sort(sorted.begin(), sorted.end(), [](const Routine& a, const Routine& b) { return a.name < b.name; });
  ExportImageSpec spec;
  spec.dllName = "ntoskrnl.exe";
  // The directory first, to learn where it ends; the jumps follow it on their own pages.
  for (size_t i = 0; i < sorted.size(); ++i) {
    spec.names.push_back(sorted[i].name);
    spec.nameOrdinals.push_back(static_cast<uint16_t>(i));
    spec.functions.push_back(0);
  }
  uint32_t jumpsAt = static_cast<uint32_t>(BuildExportImage(spec).size());
  for (size_t i = 0; i < sorted.size(); ++i) spec.functions[i] = jumpsAt + static_cast<uint32_t>(i * kJumpSize);
  // Whole allocation units, as the loader maps a driver image.
  spec.sizeOfImage = Align(jumpsAt + static_cast<uint32_t>(sorted.size() * kJumpSize), 0x10000);
  std::vector<uint8_t> image = BuildExportImage(spec);
  for (size_t i = 0; i < sorted.size(); ++i) {
    size_t at = jumpsAt + i * kJumpSize;
    const uint8_t jump[6] = {0xFF, 0x25, 0, 0, 0, 0};
    std::memcpy(image.data() + at, jump, sizeof jump);
    uint64_t target = reinterpret_cast<uint64_t>(sorted[i].address);
    std::memcpy(image.data() + at + 6, &target, sizeof target);
    image[at + 14] = image[at + 15] = 0xCC;
  }
  void* memory = mmap(nullptr, image.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  std::memcpy(memory, image.data(), image.size());
  if (mprotect(memory, image.size(), PROT_READ | PROT_EXEC) != 0) std::abort();
  std::lock_guard<std::mutex> lock(mutex_);
  imageBase_ = reinterpret_cast<uintptr_t>(memory);
  imageSize_ = static_cast<uint32_t>(image.size());
  if (listKernelImage) modules_.push_back(Module{imageBase_, imageSize_, "\\SystemRoot\\system32\\ntoskrnl.exe"});
  modules_.push_back(Module{nextBase_, 0x80000, "\\SystemRoot\\system32\\hal.dll"});
  nextBase_ += 0x100000;
}

void KernelModules::Teardown() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (imageBase_) munmap(reinterpret_cast<void*>(imageBase_), imageSize_);
  imageBase_ = 0;
  imageSize_ = 0;
  modules_.clear();
}

void* KernelModules::RoutineAddress(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!imageBase_) return nullptr;
  auto* base = reinterpret_cast<const uint8_t*>(imageBase_);
  auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  auto* directory = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
      base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
  auto* names = reinterpret_cast<const uint32_t*>(base + directory->AddressOfNames);
  auto* ordinals = reinterpret_cast<const uint16_t*>(base + directory->AddressOfNameOrdinals);
  auto* functions = reinterpret_cast<const uint32_t*>(base + directory->AddressOfFunctions);
  auto first = names, last = names + directory->NumberOfNames;
  auto found = std::lower_bound(first, last, name, [base](uint32_t rva, const std::string& wanted) {
    return std::strcmp(reinterpret_cast<const char*>(base + rva), wanted.c_str()) < 0;
  });
  if (found == last || name != reinterpret_cast<const char*>(base + *found)) return nullptr;
  uint16_t ordinal = ordinals[found - names];
  return ordinal < directory->NumberOfFunctions ? const_cast<uint8_t*>(base + functions[ordinal]) : nullptr;
}

uintptr_t KernelModules::Add(const std::string& path, uintptr_t base, uint32_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (base == 0) {
    base = nextBase_;
    nextBase_ += (static_cast<uintptr_t>(size) + 0xFFFFF) & ~uintptr_t(0xFFFFF);
  }
  modules_.push_back(Module{base, size, path});
  return base;
}

std::vector<KernelModules::Module> KernelModules::Listed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return modules_;
}

}  // namespace ntsim
