// System threads (PsCreateSystemThread): each simulated system thread runs on a host thread of its
// own. PsTerminateSystemThread and the end of the machine unwind the thread's frames with a C++
// exception that the thread's host routine catches; the thread then ends as a returning one does:
// its exit is notified, and its thread object is signalled.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "ntsim/ntsim.h"

namespace ntsim {

struct SystemThreadExit {
  NTSTATUS status;
};

class SystemThreads {
 public:
  ~SystemThreads();
  // Runs routine(context) as the new simulated thread, on a new host thread.
  void Start(_KTHREAD* thread, PKSTART_ROUTINE routine, PVOID context);
  // System threads whose thread object is not yet signalled.
  size_t Running();
  // A system thread is about to signal its thread object.
  void Ended();
  // Whether the machine is going away; read with the dispatcher lock held.
  bool StoppingLocked() const { return stopping_; }
  // The machine goes away: every wait of a system thread now ends that thread. Returns when all
  // have ended; a thread that has not ended after 10 s (it never waits) stops the run.
  void Shutdown();

 private:
  struct Entry {
    std::thread host;
    std::shared_ptr<std::atomic<bool>> done;
  };
  void ReapLocked();

  std::mutex mutex_;
  std::vector<Entry> threads_;
  size_t running_ = 0;
  bool stopping_ = false;  // guarded by the dispatcher lock
};

// A kernel routine raises an exception: inside a driver's guarded region the routine's caller gets
// the status from NtSimLeaveGuardedRegion; outside one it is a verifier violation.
void RaiseKernelException(const char* call, NTSTATUS status, const char* why);

// The end of a system thread's wait: true if the machine is going away (the caller then unwinds
// the thread with SystemThreadExit). Call with the dispatcher lock held.
bool SystemThreadMustEndLocked(_KTHREAD* thread);

}  // namespace ntsim
