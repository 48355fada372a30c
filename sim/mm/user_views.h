// User views: pages of non-paged pool mapped a second time, at another address, into a process's
// user address space (MmMapLockedPagesSpecifyCache with UserMode). The pool backs every non-paged
// block of a page or more with a shared memory object of its own, so a view is a real second
// mapping of the same memory: what the driver writes through its kernel address, the process reads
// through its view, and a kernel address handed to user mode is not the view's.
//
// The verifier's part: a view must be unmapped in the context of its own process, before that
// process exits and before its pool block is freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ntsim/ntsim.h"

namespace ntsim {

struct UserView {
  _KPROCESS* process = nullptr;
  uintptr_t base = 0;         // page-aligned start of the view
  size_t length = 0;          // whole pages
  uintptr_t kernelStart = 0;  // the first kernel page it shows
  PMDL mdl = nullptr;         // the MDL it was mapped from
  MEMORY_CACHING_TYPE cacheType = MmCached;
};

class MemoryManager {
 public:
  ~MemoryManager();
  // Maps length bytes of the shared memory object fd, from offset on, into the process. Null if
  // the host refuses the mapping.
  void* MapView(_KPROCESS* process, int fd, size_t offset, size_t length, uintptr_t kernelStart, PMDL mdl,
                MEMORY_CACHING_TYPE cacheType);
  // Unmaps the view that starts at base (page-aligned) if it belongs to process and was mapped
  // from mdl; otherwise leaves everything as it is and says why in problem.
  bool UnmapView(_KPROCESS* process, uintptr_t base, PMDL mdl, std::string* problem);
  // The views of a process, and the views mapped from an MDL.
  std::vector<UserView> ViewsOf(const _KPROCESS* process);
  std::vector<UserView> ViewsMappedFrom(PMDL mdl);
  size_t ViewCount();
  // Removes every view of the process and returns them (the caller reports them).
  std::vector<UserView> TakeViewsOf(const _KPROCESS* process);
  // Removes the views showing a kernel range and returns them.
  std::vector<UserView> TakeViewsShowing(uintptr_t kernelStart, size_t length);
  void ReleaseAll();  // the machine goes away

 private:
  static void Unmap(const UserView& view);
  std::mutex mutex_;
  std::map<uintptr_t, UserView> views_;  // by base
};

}  // namespace ntsim
