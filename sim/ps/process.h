// Simulated processes and threads: just what the object manager, the I/O manager and the
// current-thread queries need. Every host thread that acts in the simulated kernel is bound to a
// simulated thread: explicitly by a ThreadScope, or else adopted as a system thread on first use.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ob/object_manager.h"

struct _KPROCESS {
  uint64_t id = 0;
  uint64_t parentId = 0;
  std::u16string imageName;
  bool isSystem = false;
  ntsim::HandleTable handles{false};
};

struct _KTHREAD {
  uint64_t id = 0;
  _KPROCESS* process = nullptr;
  KIRQL irql = PASSIVE_LEVEL;
  int kernelApcDisable = 0;  // raised by KeEnterCriticalRegion
  KPROCESSOR_MODE previousMode = KernelMode;
};

namespace ntsim {

class ProcessManager {
 public:
  void Boot(ObjectManager& ob);
  void Teardown();
  _KPROCESS* System() { return system_; }
  _KPROCESS* CreateProcess(uint64_t id, const std::u16string& imageName, uint64_t parentId);
  _KTHREAD* CreateThread(_KPROCESS* process);
  _KPROCESS* FindProcess(uint64_t id);
  uint64_t NewId();

 private:
  std::mutex mutex_;
  ObjectManager* ob_ = nullptr;
  _KPROCESS* system_ = nullptr;
  std::vector<_KPROCESS*> processes_;  // each holds a reference
  std::vector<_KTHREAD*> threads_;     // each holds a reference
  uint64_t nextId_ = 8;
};

// The simulated thread the calling host thread runs as.
_KTHREAD* CurrentThread();
_KPROCESS* CurrentProcess();

// Runs the calling host thread as the given simulated thread for the scope's lifetime.
class ThreadScope {
 public:
  ThreadScope(_KTHREAD* thread, KPROCESSOR_MODE previousMode);
  ~ThreadScope();
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

 private:
  _KTHREAD* saved_;
  KPROCESSOR_MODE savedMode_;
  _KTHREAD* thread_;
};

// Forgets the calling host thread's binding (the kernel it belonged to is gone).
void ResetCurrentThreadBinding();

}  // namespace ntsim
