#include "ps/system_thread.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "ke/dispatcher.h"
#include "kernel.h"

namespace ntsim {

namespace {

HANDLE IdHandle(uint64_t id) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id)); }

// What a driver's thread must have undone before it ends.
void CheckThreadEnd(_KTHREAD* thread) {
  Verifier& verifier = K().verifier;
  if (thread->irql != PASSIVE_LEVEL) {
    verifier.Violation("PsTerminateSystemThread", "a system thread ended above PASSIVE_LEVEL");
  }
  if (thread->kernelApcDisable != 0) {
    verifier.Violation("PsTerminateSystemThread", "a system thread ended inside a critical region");
  }
  if (thread->attachDepth != 0) {
    verifier.Violation("PsTerminateSystemThread", "a system thread ended attached to another process");
  }
}

void SystemThreadMain(Kernel* kernel, _KTHREAD* thread, PKSTART_ROUTINE routine, PVOID context) {
  {
    ThreadScope scope(thread, KernelMode);
    try {
      routine(context);
    } catch (const SystemThreadExit&) {
      // PsTerminateSystemThread, or the machine going away.
    }
    CheckThreadEnd(thread);
    ProcessManager::ThreadEnd end = kernel->ps.EndThread(thread);
    if (end.ended && thread->announced) {
      kernel->notify.ThreadExited(IdHandle(thread->process->id), IdHandle(thread->id));
    }
    kernel->threads.Ended();
    {
      std::lock_guard<std::mutex> lock(DispatcherLock());
      thread->terminated = true;
    }
    DispatcherWake().notify_all();
  }
  kernel->ps.Retire(thread);  // the thread object stays while a driver or a handle keeps it
  ResetCurrentThreadBinding();
}

}  // namespace

SystemThreads::~SystemThreads() { Shutdown(); }

void SystemThreads::ReapLocked() {
  for (auto it = threads_.begin(); it != threads_.end();) {
    if (it->done->load()) {
      it->host.join();
      it = threads_.erase(it);
    } else {
      ++it;
    }
  }
}

void SystemThreads::Start(_KTHREAD* thread, PKSTART_ROUTINE routine, PVOID context) {
  Kernel* kernel = &K();
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::lock_guard<std::mutex> lock(mutex_);
  ReapLocked();
  ++running_;
  threads_.push_back(Entry{std::thread([kernel, thread, routine, context, done] {
                             SystemThreadMain(kernel, thread, routine, context);
                             done->store(true);
                           }),
                           done});
}

void SystemThreads::Ended() {
  std::lock_guard<std::mutex> lock(mutex_);
  --running_;
}

size_t SystemThreads::Running() {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

void SystemThreads::Shutdown() {
  {
    std::lock_guard<std::mutex> lock(DispatcherLock());
    stopping_ = true;
  }
  DispatcherWake().notify_all();
  std::vector<Entry> threads;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    threads.swap(threads_);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (Entry& entry : threads) {
    while (!entry.done->load()) {
      if (std::chrono::steady_clock::now() > deadline) {
        std::fprintf(stderr, "ntsim: a system thread is still running 10 s after the machine went away\n");
        std::abort();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      DispatcherWake().notify_all();
    }
    entry.host.join();
  }
}

bool SystemThreadMustEndLocked(_KTHREAD* thread) { return thread->systemThread && K().threads.StoppingLocked(); }

void RaiseKernelException(const char* call, NTSTATUS status, const char* why) {
  _KTHREAD* thread = CurrentThread();
  if (thread->guardDepth > 0) {
    if (thread->raisedStatus == STATUS_SUCCESS) thread->raisedStatus = status;
    return;
  }
  K().verifier.Violation(call, std::string(why) +
                                   ": the exception it raises is not caught (no __try/__except around the call)");
}

}  // namespace ntsim

using namespace ntsim;

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                    HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                    PVOID StartContext) {
  Kernel& k = K();
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) k.verifier.Violation("PsCreateSystemThread", "called above PASSIVE_LEVEL");
  if (!ThreadHandle || !StartRoutine) return STATUS_INVALID_PARAMETER;
  if (ObjectAttributes && (ObjectAttributes->Attributes & (OBJ_PERMANENT | OBJ_EXCLUSIVE | OBJ_OPENIF))) {
    return STATUS_INVALID_PARAMETER;
  }
  _KPROCESS* process = k.ps.System();
  void* referenced = nullptr;
  if (ProcessHandle == NtCurrentProcess()) {
    process = CurrentProcess();
  } else if (ProcessHandle) {
    NTSTATUS status = k.ob.ReferenceByHandle(ProcessHandle, &k.ob.types.process, KernelMode, 0, &referenced, nullptr);
    if (!NT_SUCCESS(status)) return status;
    process = static_cast<_KPROCESS*>(referenced);
  }
  if (k.verifier.ShouldFail("PsCreateSystemThread")) {
    if (referenced) k.ob.Dereference(referenced);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  _KTHREAD* thread = k.ps.CreateThread(process, true);
  thread->systemThread = true;
  if (referenced) k.ob.Dereference(referenced);
  // A kernel handle, whatever the attributes say, as on every kernel since Windows Vista.
  *ThreadHandle = k.ob.InsertHandle(thread, DesiredAccess, true, true);
  if (ClientId) {
    ClientId->UniqueProcess = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(process->id));
    ClientId->UniqueThread = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(thread->id));
  }
  // The creation is notified in the creating thread, before the new thread runs.
  k.notify.ThreadCreated(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(process->id)),
                         reinterpret_cast<HANDLE>(static_cast<uintptr_t>(thread->id)));
  k.threads.Start(thread, StartRoutine, StartContext);
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus) {
  _KTHREAD* thread = CurrentThread();
  if (!thread->systemThread) return STATUS_INVALID_PARAMETER;
  if (thread->irql != PASSIVE_LEVEL) {
    K().verifier.Violation("PsTerminateSystemThread", "called above PASSIVE_LEVEL");
  }
  throw SystemThreadExit{ExitStatus};
}
