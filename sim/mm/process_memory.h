// User memory that driver code can really read: blocks of host pages that belong to one process,
// such as its environment block and process parameters. Kernel code may read them only while it
// runs in that process (its own thread, or attached with KeStackAttachProcess), and only through a
// guarded copy; a read from another process's context faults as an unmapped address would. Pages
// can be made to fault (they become inaccessible, so an unguarded read really crashes), and when a
// process exits its blocks fault from then on.
#pragma once

#include <cstddef>
#include <cstdint>
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

 private:
  struct Block {
    const _KPROCESS* process = nullptr;
    size_t length = 0;
    bool live = true;
  };
  std::mutex mutex_;
  std::map<uintptr_t, Block> blocks_;       // by start
  std::map<uintptr_t, uintptr_t> faulting_;  // page-aligned start -> end
};

}  // namespace ntsim
