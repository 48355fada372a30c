#include "ex/pool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kernel.h"

namespace ntsim {

std::string TagText(ULONG tag) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    char c = static_cast<char>((tag >> (8 * i)) & 0xFF);
    text.push_back(c >= 0x20 && c < 0x7F ? c : '?');
  }
  return text;
}

Pool::~Pool() { ReleaseAll(); }

PVOID Pool::Allocate(POOL_TYPE type, SIZE_T size, ULONG tag, const char* call) {
  if (tag == 0 || tag == ' kdD') {
    K().verifier.Violation(call, "allocation without a pool tag of its own");
  }
  if (size == 0) {
    K().verifier.Violation(call, "zero-byte allocation");
    return nullptr;
  }
  if (K().verifier.ShouldFail(call, tag)) return nullptr;
  PoolBlock block{type, size, tag};
  block.processor = KernelBooted() ? CurrentThread()->processor : 0;
  void* p = nullptr;
  if (size >= PAGE_SIZE) {
    block.mapped = (size + PAGE_SIZE - 1) & ~size_t(PAGE_SIZE - 1);
    if (block.NonPaged()) {
      block.fd = memfd_create("ntsim-nonpaged-pool", MFD_CLOEXEC);
      if (block.fd < 0) return nullptr;
      if (ftruncate(block.fd, static_cast<off_t>(block.mapped)) != 0) {
        close(block.fd);
        return nullptr;
      }
      p = mmap(nullptr, block.mapped, PROT_READ | PROT_WRITE, MAP_SHARED, block.fd, 0);
      if (p == MAP_FAILED) {
        close(block.fd);
        return nullptr;
      }
    } else {
      p = std::aligned_alloc(PAGE_SIZE, block.mapped);
    }
  } else {
    p = std::malloc(size);
  }
  if (!p) return nullptr;
  // Fresh pool is not zeroed: fill it with a pattern so that code relying on zeroed memory fails.
  std::memset(p, 0xCD, size);
  std::lock_guard<std::mutex> lock(mutex_);
  blocks_[p] = block;
  ++allocations_;
  return p;
}

void Pool::Release(void* p, const PoolBlock& block) {
  if (block.fd >= 0) {
    munmap(p, block.mapped);
    close(block.fd);
  } else {
    std::free(p);
  }
}

bool Pool::Find(const void* address, size_t length, PoolBlock* block, const void** start) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = blocks_.upper_bound(address);
  if (it == blocks_.begin()) return false;
  --it;
  auto begin = static_cast<const char*>(it->first);
  auto at = static_cast<const char*>(address);
  if (at < begin || at + length > begin + it->second.size || at + length < at) return false;
  *block = it->second;
  *start = it->first;
  return true;
}

void Pool::Free(PVOID p, ULONG tag, bool checkTag, const char* call) {
  if (!p) {
    K().verifier.Violation(call, "freeing a null pointer");
    return;
  }
  PoolBlock block;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = blocks_.find(p);
    if (it == blocks_.end()) {
      char text[96];
      std::snprintf(text, sizeof text, "%p is not an allocated pool block (double free or wild pointer)", p);
      K().verifier.Violation(call, text);
      return;
    }
    block = it->second;
    if (checkTag && block.tag != tag) {
      K().verifier.Violation(call, "freeing a block of tag '" + TagText(block.tag) + "' with tag '" + TagText(tag) + "'");
      return;
    }
    blocks_.erase(it);
  }
  if (!block.NonPaged() && KeGetCurrentIrql() > APC_LEVEL) {
    K().verifier.Violation(call, "paged pool freed above APC_LEVEL");
  }
  if (block.fd >= 0) {
    // The pages must not stay visible in a process once the block is someone else's memory.
    for (const UserView& view : K().mm.TakeViewsShowing(reinterpret_cast<uintptr_t>(p), block.mapped)) {
      char text[160];
      std::snprintf(text, sizeof text, "freeing a pool block that is still mapped into process %llu at %p",
                    static_cast<unsigned long long>(view.process->id), reinterpret_cast<void*>(view.base));
      K().verifier.Violation(call, text);
    }
  }
  std::memset(p, 0xFE, block.size);  // catch use after free
  Release(p, block);
}

std::vector<PoolBlock> Pool::Outstanding() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<PoolBlock> out;
  for (auto& [p, block] : blocks_) out.push_back(block);
  return out;
}

size_t Pool::OutstandingBytes() {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t total = 0;
  for (auto& [p, block] : blocks_) total += block.size;
  return total;
}

uint64_t Pool::AllocationCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return allocations_;
}

void Pool::ReleaseAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [p, block] : blocks_) Release(const_cast<void*>(p), block);
  blocks_.clear();
}

}  // namespace ntsim

using namespace ntsim;

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
  if ((PoolType & 1) == PagedPool && KeGetCurrentIrql() > APC_LEVEL) {
    K().verifier.Violation("ExAllocatePoolWithTag", "paged pool allocated above APC_LEVEL");
  }
  return K().pool.Allocate(PoolType, NumberOfBytes, Tag, "ExAllocatePoolWithTag");
}

PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
  if ((PoolType & 1) == PagedPool && KeGetCurrentIrql() > APC_LEVEL) {
    K().verifier.Violation("ExAllocatePool", "paged pool allocated above APC_LEVEL");
  }
  return K().pool.Allocate(PoolType, NumberOfBytes, 0, "ExAllocatePool");
}

VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) { K().pool.Free(P, Tag, true, "ExFreePoolWithTag"); }
VOID NTAPI ExFreePool(PVOID P) { K().pool.Free(P, 0, false, "ExFreePool"); }
