// Simulated processes and threads: what the object manager, the I/O manager, the notifications and
// the current-thread queries need. Every host thread that acts in the simulated kernel runs as a
// simulated thread of its own, never shared with another host thread: explicitly by a ThreadScope,
// or else as its acting thread in the System process, made on first use.
//
// Each host thread has at most one acting thread per process (ProcessManager::ActingThread): the
// first host thread to act in a new process acts as its initial thread, any other gets a thread of
// its own in that process, made silently (as if it had run since before anyone listened: no
// creation or exit notification is delivered for it). Threads that the world starts explicitly are
// not acting threads of any host thread; they run only for their own exit.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "mm/address_space.h"
#include "ob/object_manager.h"

struct _KPROCESS {
  uint64_t id = 0;
  uint64_t parentId = 0;
  std::u16string imageName;  // the executable's file name: "agent.exe"
  std::u16string imagePath;  // its NT path: "\??\C:\Windows\System32\agent.exe"
  std::u16string commandLine;
  std::u16string devicePath;  // the executable as SeLocateProcessImageName names it: "\Device\HarddiskVolume3\..."
  bool isSystem = false;
  bool wow64 = false;
  ULONG sessionId = 0;
  LONGLONG createTime = 0;  // system time, 100 ns units
  ntsim::HandleTable handles{false};
  ntsim::AddressSpace addressSpace;
  void* peb = nullptr;       // the 64-bit environment block, in the process's own memory
  void* wow64Peb = nullptr;  // the 32-bit one of a Wow64 process
  void* token = nullptr;     // its primary token (a Token object), referenced for the machine's life

  // Guarded by the process manager's lock.
  bool exiting = false;                           // its exit has begun: no host thread may start acting in it
  std::vector<_KTHREAD*> threads;                 // live threads, in creation order
  std::map<uint64_t, _KTHREAD*> acting;           // host thread (its number) -> the thread it acts as here
  _KTHREAD* spare = nullptr;                      // the initial thread, until a host thread acts as it
  struct _FILE_OBJECT* imageFile = nullptr;       // referenced from creation to exit
  int exitSynchronization = 0;                    // PsAcquireProcessExitSynchronization holds
};

struct _KTHREAD {
  uint64_t id = 0;
  _KPROCESS* process = nullptr;
  uint64_t win32StartAddress = 0;  // where its user-mode code starts
  // The return addresses of its user-mode stack, innermost first, as RtlWalkFrameChain reports
  // them. Set while nothing else runs as the thread (see World::SetUserStack).
  std::vector<uint64_t> userStack;
  LONGLONG createTime = 0;
  KIRQL irql = PASSIVE_LEVEL;
  int kernelApcDisable = 0;  // raised by KeEnterCriticalRegion
  KPROCESSOR_MODE previousMode = KernelMode;
  bool announced = false;    // its creation was notified, so its exit will be
  bool exited = false;       // guarded by the process manager's lock

  // Scheduling, touched only by the thread itself. It runs on `processor` (a system-wide index),
  // which always lies in its group affinity: a new affinity that excludes it moves the thread.
  ULONG processor = 0;
  USHORT group = 0;
  KAFFINITY affinity = 0;
  USHORT userGroup = 0;  // the affinity it was created with, which a revert restores
  KAFFINITY userAffinity = 0;
  bool systemAffinity = false;  // KeSetSystemGroupAffinityThread is in force

  // KeStackAttachProcess: the process whose address space it runs in, or null for its own.
  _KPROCESS* attachedProcess = nullptr;
  int attachDepth = 0;
  // A driver's __try block (NtSimEnterGuardedRegion) and the exception raised inside it.
  int guardDepth = 0;
  NTSTATUS raisedStatus = 0;

  // Executive resources the thread owns shared, with its recursion count on each (ex/sync.cpp).
  // Touched only by the thread itself, so an acquire needs no lock to know whether it owns one.
  struct SharedOwnership {
    void* resource;
    int count;
  };
  std::vector<SharedOwnership> sharedResources;

  bool systemThread = false;  // made by PsCreateSystemThread
  bool terminated = false;    // its thread object is signalled; guarded by the dispatcher lock
  // Host threads running as this thread now (ThreadScope): its exit waits until the one blocked
  // in a request that the exit cancelled has left, so that one host thread at a time runs as it.
  std::atomic<int> scopes{0};
};

namespace ntsim {

class ProcessManager {
 public:
  void Boot(ObjectManager& ob);
  void Teardown();
  _KPROCESS* System() { return system_; }

  // A new live process with no threads, named by its executable's path (its image name is the
  // path's last component); null if the id is taken by a live process (id 0: the next free id).
  // prepare fills in the rest before the process can be found; on a refusal it has run all the same.
  _KPROCESS* CreateProcess(uint64_t id, const std::u16string& imagePath, uint64_t parentId,
                           const std::u16string& commandLine = std::u16string(),
                           const std::function<void(_KPROCESS*)>& prepare = nullptr);
  // A new live thread of the process, on the next processor in turn. Nothing is notified here;
  // announced says whether the caller notifies its creation (and so its exit will be notified).
  // id 0: the next free id; else that id, or null if a live thread or process has it.
  _KTHREAD* CreateThread(_KPROCESS* process, bool announced = false, uint64_t win32StartAddress = 0, uint64_t id = 0);
  // The next host thread that starts acting in the process acts as this thread.
  void OfferThread(_KPROCESS* process, _KTHREAD* thread);
  // The calling host thread's thread in the process (see above). Acting in a process whose exit has
  // begun stops the run with a message: the test uses a process it ended.
  _KTHREAD* ActingThread(_KPROCESS* process);

  // Live processes and threads by id; null if none.
  _KPROCESS* FindProcess(uint64_t id);
  _KTHREAD* FindThread(uint64_t id);
  // The same, referenced for the caller under the id table's lock, as the kernel's lookups do: the
  // object cannot go between finding and referencing it.
  _KPROCESS* ReferenceProcess(uint64_t id);
  _KTHREAD* ReferenceThread(uint64_t id);

  struct ThreadEnd {
    bool ended = false;  // false: it had ended already
    bool last = false;   // it was its process's last live thread: the process goes with it
  };
  // Ends a live thread; no host thread acts as it any more.
  ThreadEnd EndThread(_KTHREAD* thread);
  // A process whose last thread ended leaves the id table once its exit has been notified: as on
  // Windows, where the id goes with the process object, a lookup by id still finds it in the exit
  // notification.
  void RemoveExitedProcess(_KPROCESS* process);
  // The manager's own references: a process's goes once its exit is done, a thread's once it has
  // ended and no host thread runs as it any more (a thread still run as waits for a later call).
  // The objects themselves go with their last reference, as on Windows: a driver or a handle may
  // keep one long after; a thread keeps its process, a process its token.
  void ReleaseExitedProcess(_KPROCESS* process);
  void Retire(_KTHREAD* thread);
  // Begins a process's exit: its live threads, in creation order; false if its exit had begun.
  bool BeginExit(_KPROCESS* process, std::vector<_KTHREAD*>* threads);

  // PsAcquireProcessExitSynchronization and its release: an exit waits for every hold to go.
  bool AcquireExitSynchronization(_KPROCESS* process);
  void ReleaseExitSynchronization(_KPROCESS* process);
  void WaitForExitSynchronization(_KPROCESS* process);
  // The image file a process was created from: referenced for the caller, or null once it exited.
  struct _FILE_OBJECT* ReferenceImageFile(_KPROCESS* process);
  struct _FILE_OBJECT* TakeImageFile(_KPROCESS* process);

  // What NtQuerySystemInformation reports: live processes in creation order with their threads.
  struct ThreadFacts {
    uint64_t id;
    uint64_t startAddress;
    LONGLONG createTime;
  };
  struct ProcessFacts {
    uint64_t id, parentId;
    ULONG sessionId;
    LONGLONG createTime;
    std::u16string imageName;
    std::vector<ThreadFacts> threads;
  };
  std::vector<ProcessFacts> Snapshot();
  // Runs before every snapshot, outside any lock: tests change the machine between two queries.
  void SetSnapshotHook(std::function<void()> hook);
  std::function<void()> SnapshotHook();

  uint64_t NewId();

 private:
  std::mutex mutex_;
  std::condition_variable exitSynchronizationReleased_;
  std::function<void()> snapshotHook_;
  ObjectManager* ob_ = nullptr;
  _KPROCESS* system_ = nullptr;
  std::vector<_KTHREAD*> retired_;  // ended threads some host thread still ran as when they were retired
  std::vector<_KPROCESS*> creationOrder_;  // live processes
  std::unordered_map<uint64_t, _KPROCESS*> liveProcesses_;
  std::unordered_map<uint64_t, _KTHREAD*> liveThreads_;
  uint64_t nextId_ = 8;
  uint64_t nextProcessor_ = 0;
};

// The simulated thread the calling host thread runs as, and the process whose address space it
// runs in (its own, or the one it attached to). CurrentThread is inline (kernel.h): nearly every
// kernel routine asks for it, and on Windows it is one read relative to the processor block.
inline _KTHREAD* CurrentThread();
_KPROCESS* CurrentProcess();

// The binding of the calling host thread to its simulated thread, valid for the kernel of that
// generation. Initial-exec: the library is loaded with the program, never opened later, so its
// thread-local data sits at a fixed offset from the thread pointer and is read without a call.
// Plain __thread data, so that reading it needs no initialisation check: it starts zeroed.
struct ThreadBinding {
  uint64_t generation;
  _KTHREAD* thread;
};
extern __thread ThreadBinding t_binding __attribute__((tls_model("initial-exec")));
// The slow path: binds a host thread that has no binding for the booted kernel yet.
_KTHREAD* BindCurrentThread();

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
  int attachDepth_;
};

// Forgets the calling host thread's binding (the kernel it belonged to is gone).
void ResetCurrentThreadBinding();

}  // namespace ntsim
