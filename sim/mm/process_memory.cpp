#include "mm/process_memory.h"

#include <sys/mman.h>

#include <cstdlib>

#include "ntsim/ntsim.h"

namespace ntsim {

ProcessMemory::~ProcessMemory() {
  for (auto& [start, block] : blocks_) munmap(reinterpret_cast<void*>(start), block.length);
}

void* ProcessMemory::Allocate(const _KPROCESS* process, size_t size) {
  size_t length = (size + PAGE_SIZE - 1) & ~size_t(PAGE_SIZE - 1);
  // A whole allocation-granularity unit, aligned, as the process's address space describes it.
  size_t reserve = length + 0x10000;
  void* p = mmap(nullptr, reserve, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) std::abort();
  uintptr_t raw = reinterpret_cast<uintptr_t>(p);
  uintptr_t start = (raw + 0xFFFF) & ~uintptr_t(0xFFFF);
  if (start > raw) munmap(p, start - raw);
  if (raw + reserve > start + length) munmap(reinterpret_cast<void*>(start + length), raw + reserve - start - length);
  std::lock_guard<std::mutex> lock(mutex_);
  blocks_[start] = Block{process, length, true};
  return reinterpret_cast<void*>(start);
}

void ProcessMemory::MakeFault(const void* address, size_t length) {
  uintptr_t start = reinterpret_cast<uintptr_t>(address) & ~uintptr_t(PAGE_SIZE - 1);
  uintptr_t end = (reinterpret_cast<uintptr_t>(address) + length + PAGE_SIZE - 1) & ~uintptr_t(PAGE_SIZE - 1);
  mprotect(reinterpret_cast<void*>(start), end - start, PROT_NONE);
  std::lock_guard<std::mutex> lock(mutex_);
  faulting_[start] = end;
}

void ProcessMemory::ReleaseProcess(const _KPROCESS* process) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [start, block] : blocks_) {
    if (block.process != process || !block.live) continue;
    block.live = false;
    // The addresses stay reserved, so that a late access faults and is never served by a new
    // allocation; the pages themselves go back to the host, so that a long run of short-lived
    // processes does not keep every one of them.
    mprotect(reinterpret_cast<void*>(start), block.length, PROT_NONE);
    madvise(reinterpret_cast<void*>(start), block.length, MADV_DONTNEED);
    released_.push_back(start);
  }
  while (released_.size() > kQuarantine) ForgetOldestReleased();
}

void ProcessMemory::ForgetOldestReleased() {
  uintptr_t start = released_.front();
  released_.pop_front();
  auto block = blocks_.find(start);
  uintptr_t end = start + block->second.length;
  munmap(reinterpret_cast<void*>(start), block->second.length);
  blocks_.erase(block);
  faulting_.erase(faulting_.lower_bound(start), faulting_.lower_bound(end));
}

size_t ProcessMemory::BlockCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return blocks_.size();
}

bool ProcessMemory::Faults(const void* address, size_t length, const _KPROCESS* current) {
  if (length == 0) return false;
  uintptr_t start = reinterpret_cast<uintptr_t>(address);
  uintptr_t end = start + length;
  std::lock_guard<std::mutex> lock(mutex_);
  auto block = blocks_.upper_bound(start);
  if (block == blocks_.begin()) return false;
  --block;
  if (start >= block->first + block->second.length) return false;
  if (!block->second.live || block->second.process != current) return true;
  if (end > block->first + block->second.length) return true;  // runs past the allocation
  auto fault = faulting_.upper_bound(end - 1);
  if (fault == faulting_.begin()) return false;
  --fault;
  return fault->second > start;
}

}  // namespace ntsim
