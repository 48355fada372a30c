// User memory that driver code can really read: blocks of host pages that belong to one process,
// such as its environment block and process parameters. Kernel code may read them only while it
// runs in that process (its own thread, or attached with KeStackAttachProcess), and only through a
// guarded copy; a read from another process's context faults as an unmapped address would. Pages
// can be made to fault (they become inaccessible, so an unguarded read really crashes), and when a
// process exits its blocks fault from then on (for as long as they are in quarantine, below).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

struct _KPROCESS;

namespace ntsim {

class ProcessMemory {
 public:
  ~ProcessMemory();
  // Zeroed, readable and writable pages of at least size bytes for the process.
  void* Allocate(const _KPROCESS* process, size_t size);
  // The pages that hold [address, address + length) fault from now on.
  void MakeFault(const void* address, size_t length);
  // The process's address space is gone.
  void ReleaseProcess(const _KPROCESS* process);
  // Whether a guarded read of the range, by code running in `current`, faults. Memory that is no
  // process's user memory is not this class's concern (false).
  bool Faults(const void* address, size_t length, const _KPROCESS* current);

  // Released blocks stay reserved, so that a late access faults, for the newest kQuarantine of
  // them; older ones are unmapped and forgotten, so that a long run keeps only what its live
  // processes have (and a bounded past).
  static constexpr size_t kQuarantine = 4096;
  size_t BlockCount();  // live and quarantined

 private:
  struct Block {
    const _KPROCESS* process = nullptr;
    size_t length = 0;
    bool live = true;
  };
  void ForgetOldestReleased();  // with the lock held

  std::mutex mutex_;
  std::map<uintptr_t, Block> blocks_;       // by start
  std::map<uintptr_t, uintptr_t> faulting_;  // page-aligned start -> end
  std::deque<uintptr_t> released_;           // starts of released blocks, oldest first
};

}  // namespace ntsim
