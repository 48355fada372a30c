// A process's user address space as the memory manager describes it to ZwQueryVirtualMemory:
// allocations (private memory, image views) made of regions of pages with one state, protection
// and type each, and the free ranges between them. Addresses are the process's own: most regions
// are bookkeeping only (no host memory behind them), except the blocks of ProcessMemory, which are
// entered here at their host addresses.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ntsim/ntsim.h"

namespace ntsim {

constexpr uintptr_t kLowestUserAddress = 0x10000;
constexpr uintptr_t kHighestUserAddress = 0x7FFFFFFEFFFF;  // MmHighestUserAddress on x64
constexpr uintptr_t kAllocationGranularity = 0x10000;

class AddressSpace {
 public:
  struct Region {
    size_t size = 0;  // pages, in bytes
    ULONG state = MEM_COMMIT;
    ULONG protect = PAGE_READWRITE;
  };
  struct Allocation {
    uintptr_t base = 0;  // a multiple of the allocation granularity
    ULONG type = MEM_PRIVATE;
    ULONG allocationProtect = PAGE_READWRITE;
    std::u16string mappedName;   // the file behind an image or mapped view, by its NT name
    std::vector<Region> regions;  // consecutive from base
    // An image view's first page (its PE headers), in a host page of ProcessMemory: the bytes a
    // guarded read of the view sees; the rest of the view reads as zeros.
    const uint8_t* header = nullptr;
    size_t Size() const;
  };

  // False if the allocation leaves the user range, is not aligned, or overlaps another.
  bool Add(const Allocation& allocation);
  bool Remove(uintptr_t base);
  // Everything goes: the process has exited and its address space is torn down.
  void Clear();
  // The lowest aligned base at or above `from` where size bytes are free; 0 if there is none.
  uintptr_t FindFree(size_t size, uintptr_t from) const;
  // ZwQueryVirtualMemory's MemoryBasicInformation for the page holding address.
  NTSTATUS QueryBasic(uintptr_t address, MEMORY_BASIC_INFORMATION* info) const;
  // The NT name of the file mapped at address; false if no image or file view holds it.
  bool MappedName(uintptr_t address, std::u16string* name) const;
  // The image view (with its header page) that holds all of [address, address + length).
  bool ImageView(uintptr_t address, size_t length, uintptr_t* base, const uint8_t** header) const;

 private:
  const Allocation* Holding(uintptr_t address) const;  // with the lock held
  mutable std::mutex mutex_;
  std::map<uintptr_t, Allocation> allocations_;  // by base
};

}  // namespace ntsim
