// Pool with tags: every block the driver holds is tracked by tag, so that leaks can be reported at
// unload, a free with the wrong tag or a second free is caught, and allocations can be made to fail.
// Blocks of a page or more are page-aligned, as the kernel's are; non-paged ones are backed by a
// shared memory object of their own, so that their pages can be mapped into user space a second
// time (mm/user_views.h).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ntsim/ntsim.h"

namespace ntsim {

struct PoolBlock {
  POOL_TYPE type;
  size_t size;
  ULONG tag;
  ULONG processor = 0;  // system-wide index of the processor the allocating thread ran on
  int fd = -1;          // the shared memory object behind a non-paged block of a page or more
  size_t mapped = 0;    // its length in whole pages
  bool NonPaged() const { return (type & 1) == 0; }
};

class Pool {
 public:
  ~Pool();
  PVOID Allocate(POOL_TYPE type, SIZE_T size, ULONG tag, const char* call);
  void Free(PVOID p, ULONG tag, bool checkTag, const char* call);
  std::vector<PoolBlock> Outstanding();
  // The block that holds every byte of [address, address + length), and its start.
  bool Find(const void* address, size_t length, PoolBlock* block, const void** start);
  size_t OutstandingBytes();
  uint64_t AllocationCount();
  void ReleaseAll();  // on teardown after a crash: the memory goes with the machine

 private:
  static void Release(void* p, const PoolBlock& block);
  std::mutex mutex_;
  std::map<const void*, PoolBlock> blocks_;
  uint64_t allocations_ = 0;
};

std::string TagText(ULONG tag);  // 'gTsu' as it reads in memory: "gTsu"

}  // namespace ntsim
