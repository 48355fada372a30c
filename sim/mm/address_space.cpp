#include "mm/address_space.h"

namespace ntsim {

size_t AddressSpace::Allocation::Size() const {
  size_t size = 0;
  for (const Region& region : regions) size += region.size;
  return size;
}

bool AddressSpace::Add(const Allocation& allocation) {
  size_t size = allocation.Size();
  uintptr_t end = allocation.base + size;
  if (size == 0 || allocation.base % kAllocationGranularity != 0 || allocation.base < kLowestUserAddress ||
      end < allocation.base || end - 1 > kHighestUserAddress) {
    return false;
  }
  for (const Region& region : allocation.regions) {
    if (region.size == 0 || region.size % PAGE_SIZE != 0) return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  auto next = allocations_.lower_bound(allocation.base);
  if (next != allocations_.end() && next->first < end) return false;
  if (next != allocations_.begin() && std::prev(next)->first + std::prev(next)->second.Size() > allocation.base) {
    return false;
  }
  allocations_.emplace(allocation.base, allocation);
  return true;
}

bool AddressSpace::Remove(uintptr_t base) {
  std::lock_guard<std::mutex> lock(mutex_);
  return allocations_.erase(base) != 0;
}

void AddressSpace::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  allocations_.clear();
}

uintptr_t AddressSpace::FindFree(size_t size, uintptr_t from) const {
  size = (size + kAllocationGranularity - 1) & ~(kAllocationGranularity - 1);
  uintptr_t candidate = (from + kAllocationGranularity - 1) & ~(kAllocationGranularity - 1);
  if (candidate < kLowestUserAddress) candidate = kLowestUserAddress;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = allocations_.upper_bound(candidate);
  if (it != allocations_.begin()) {
    auto before = std::prev(it);
    uintptr_t end = before->first + before->second.Size();
    if (end > candidate) candidate = (end + kAllocationGranularity - 1) & ~(kAllocationGranularity - 1);
  }
  for (;; ++it) {
    uintptr_t limit = it == allocations_.end() ? kHighestUserAddress + 1 : it->first;
    if (candidate <= limit && limit - candidate >= size) return candidate;
    if (it == allocations_.end()) return 0;
    uintptr_t end = it->first + it->second.Size();
    candidate = (end + kAllocationGranularity - 1) & ~(kAllocationGranularity - 1);
  }
}

const AddressSpace::Allocation* AddressSpace::Holding(uintptr_t address) const {
  auto it = allocations_.upper_bound(address);
  if (it == allocations_.begin()) return nullptr;
  --it;
  return address < it->first + it->second.Size() ? &it->second : nullptr;
}

NTSTATUS AddressSpace::QueryBasic(uintptr_t address, MEMORY_BASIC_INFORMATION* info) const {
  if (address > kHighestUserAddress) return STATUS_INVALID_PARAMETER;
  uintptr_t page = address & ~uintptr_t(PAGE_SIZE - 1);
  std::memset(info, 0, sizeof *info);
  info->BaseAddress = reinterpret_cast<PVOID>(page);
  std::lock_guard<std::mutex> lock(mutex_);
  if (const Allocation* allocation = Holding(page)) {
    uintptr_t start = allocation->base;
    for (const Region& region : allocation->regions) {
      if (page < start + region.size) {
        info->AllocationBase = reinterpret_cast<PVOID>(allocation->base);
        info->AllocationProtect = allocation->allocationProtect;
        info->RegionSize = start + region.size - page;
        info->State = region.state;
        info->Protect = region.state == MEM_RESERVE ? 0 : region.protect;
        info->Type = allocation->type;
        return STATUS_SUCCESS;
      }
      start += region.size;
    }
  }
  // Free: up to the next allocation, or to the end of the user range.
  auto next = allocations_.upper_bound(page);
  uintptr_t end = next == allocations_.end() ? kHighestUserAddress + 1 : next->first;
  info->RegionSize = end - page;
  info->State = MEM_FREE;
  info->Protect = PAGE_NOACCESS;
  return STATUS_SUCCESS;
}

bool AddressSpace::MappedName(uintptr_t address, std::u16string* name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Allocation* allocation = Holding(address);
  if (!allocation || allocation->type == MEM_PRIVATE || allocation->mappedName.empty()) return false;
  *name = allocation->mappedName;
  return true;
}

bool AddressSpace::ImageView(uintptr_t address, size_t length, uintptr_t* base, const uint8_t** header) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Allocation* allocation = Holding(address);
  if (!allocation || allocation->type != MEM_IMAGE || !allocation->header) return false;
  if (length > allocation->base + allocation->Size() - address) return false;
  *base = allocation->base;
  *header = allocation->header;
  return true;
}

}  // namespace ntsim
