// Pool with tags: every block the driver holds is tracked by tag, so that leaks can be reported at
// unload, a free with the wrong tag or a second free is caught, and allocations can be made to fail.
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
};

class Pool {
 public:
  ~Pool();
  PVOID Allocate(POOL_TYPE type, SIZE_T size, ULONG tag, const char* call);
  void Free(PVOID p, ULONG tag, bool checkTag, const char* call);
  std::vector<PoolBlock> Outstanding();
  size_t OutstandingBytes();
  uint64_t AllocationCount();
  void ReleaseAll();  // on teardown after a crash: the memory goes with the machine

 private:
  std::mutex mutex_;
  std::map<const void*, PoolBlock> blocks_;
  uint64_t allocations_ = 0;
};

std::string TagText(ULONG tag);  // 'gTsu' as it reads in memory: "gTsu"

}  // namespace ntsim
