#include "mm/fault_map.h"

#include <sys/mman.h>

#include <cstdlib>

#include "kernel.h"

namespace ntsim {

FaultMap::~FaultMap() { ReleaseAll(); }

void* FaultMap::ReserveFaultingRange(size_t size) {
  size_t length = (size + PAGE_SIZE - 1) & ~size_t(PAGE_SIZE - 1);
  if (length == 0) length = PAGE_SIZE;
  void* p = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) std::abort();
  std::lock_guard<std::mutex> lock(mutex_);
  ranges_[reinterpret_cast<uintptr_t>(p)] = length;
  return p;
}

bool FaultMap::Faults(const void* address, size_t length) {
  uintptr_t start = reinterpret_cast<uintptr_t>(address);
  if (length == 0) return false;
  if (start < 0x10000 || start + length < start) return true;  // the null region, or wrap-around
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = ranges_.upper_bound(start + length - 1);
  if (it == ranges_.begin()) return false;
  --it;
  return it->first + it->second > start;
}

void FaultMap::ReleaseAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [start, length] : ranges_) munmap(reinterpret_cast<void*>(start), length);
  ranges_.clear();
}

}  // namespace ntsim

NTSTATUS NtSimGuardedCopy(PVOID Destination, const VOID* Source, SIZE_T Length) {
  ntsim::FaultMap& faults = ntsim::K().faults;
  if (faults.Faults(Source, Length) || faults.Faults(Destination, Length)) return STATUS_ACCESS_VIOLATION;
  // User memory is readable only in its own process's context.
  _KPROCESS* current = ntsim::CurrentProcess();
  ntsim::ProcessMemory& user = ntsim::K().userMemory;
  // An image view of the current process: its header page, then zeros (code and data are not
  // simulated). Its addresses are the process's own, with no host memory behind them.
  uintptr_t viewBase = 0;
  const uint8_t* header = nullptr;
  uintptr_t source = reinterpret_cast<uintptr_t>(Source);
  if (current && current->addressSpace.ImageView(source, Length, &viewBase, &header)) {
    size_t offset = source - viewBase;
    size_t fromHeader = offset < PAGE_SIZE ? (Length < PAGE_SIZE - offset ? Length : PAGE_SIZE - offset) : 0;
    if ((fromHeader && user.Faults(header + offset, fromHeader, current)) || faults.Faults(Destination, Length)) {
      return STATUS_ACCESS_VIOLATION;
    }
    if (fromHeader) memmove(Destination, header + offset, fromHeader);
    memset(static_cast<uint8_t*>(Destination) + fromHeader, 0, Length - fromHeader);
    return STATUS_SUCCESS;
  }
  if (user.Faults(Source, Length, current) || user.Faults(Destination, Length, current)) {
    return STATUS_ACCESS_VIOLATION;
  }
  memmove(Destination, Source, Length);
  return STATUS_SUCCESS;
}
