// Interrupt level, critical regions, current thread and process, process attach, dispatcher
// events and waits on events and threads, delays.
#include <chrono>
#include <cstdio>

#include "kernel.h"
#include "ke/dispatcher.h"
#include "ps/system_thread.h"

using namespace ntsim;

namespace ntsim {

std::mutex& DispatcherLock() {
  static std::mutex lock;
  return lock;
}

std::condition_variable& DispatcherWake() {
  static std::condition_variable wake;
  return wake;
}

}  // namespace ntsim

KIRQL NTAPI KeGetCurrentIrql(void) { return CurrentThread()->irql; }

VOID NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) {
  _KTHREAD* thread = CurrentThread();
  if (NewIrql < thread->irql) K().verifier.Violation("KeRaiseIrql", "new IRQL is below the current IRQL");
  *OldIrql = thread->irql;
  thread->irql = NewIrql;
}

VOID NTAPI KeLowerIrql(KIRQL NewIrql) {
  _KTHREAD* thread = CurrentThread();
  if (NewIrql > thread->irql) K().verifier.Violation("KeLowerIrql", "new IRQL is above the current IRQL");
  thread->irql = NewIrql;
}

VOID NTAPI KeEnterCriticalRegion(void) { ++CurrentThread()->kernelApcDisable; }

VOID NTAPI KeLeaveCriticalRegion(void) {
  _KTHREAD* thread = CurrentThread();
  if (thread->kernelApcDisable <= 0) {
    K().verifier.Violation("KeLeaveCriticalRegion", "leaving a critical region that was not entered");
    return;
  }
  --thread->kernelApcDisable;
}

BOOLEAN NTAPI KeAreApcsDisabled(void) {
  _KTHREAD* thread = CurrentThread();
  return thread->kernelApcDisable > 0 || thread->irql >= APC_LEVEL;
}

PKTHREAD NTAPI KeGetCurrentThread(void) { return CurrentThread(); }
PETHREAD NTAPI PsGetCurrentThread(void) { return CurrentThread(); }
PEPROCESS NTAPI PsGetCurrentProcess(void) { return CurrentProcess(); }
PEPROCESS NTAPI IoGetCurrentProcess(void) { return CurrentProcess(); }
// The id of the thread's own process, also while it is attached to another.
HANDLE NTAPI PsGetCurrentProcessId(void) { return reinterpret_cast<HANDLE>(CurrentThread()->process->id); }
HANDLE NTAPI PsGetProcessId(PEPROCESS Process) { return reinterpret_cast<HANDLE>(Process->id); }
HANDLE NTAPI PsGetThreadId(PETHREAD Thread) { return reinterpret_cast<HANDLE>(Thread->id); }
HANDLE NTAPI PsGetCurrentThreadId(void) { return reinterpret_cast<HANDLE>(CurrentThread()->id); }
KPROCESSOR_MODE NTAPI ExGetPreviousMode(void) { return CurrentThread()->previousMode; }

// ---------------------------------------------------------------------------------------------
// Events. Header.Type holds the event type; SignalState the state.

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
  std::lock_guard<std::mutex> lock(DispatcherLock());
  Event->Header.Type = static_cast<UCHAR>(Type);
  Event->Header.SignalState = State ? 1 : 0;
  InitializeListHead(&Event->Header.WaitListHead);
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
  LONG previous;
  {
    std::lock_guard<std::mutex> lock(DispatcherLock());
    previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
  }
  DispatcherWake().notify_all();
  return previous;
}

VOID NTAPI KeClearEvent(PRKEVENT Event) {
  std::lock_guard<std::mutex> lock(DispatcherLock());
  Event->Header.SignalState = 0;
}

LONG NTAPI KeResetEvent(PRKEVENT Event) {
  std::lock_guard<std::mutex> lock(DispatcherLock());
  LONG previous = Event->Header.SignalState;
  Event->Header.SignalState = 0;
  return previous;
}

LONG NTAPI KeReadStateEvent(PRKEVENT Event) {
  std::lock_guard<std::mutex> lock(DispatcherLock());
  return Event->Header.SignalState;
}

namespace {

// The thread object Object is, or null (an event).
_KTHREAD* ThreadObject(PVOID Object) {
  Kernel& k = K();
  if (!k.ob.IsObject(Object)) return nullptr;
  ObjectHeader* header = ObjectManager::HeaderOf(Object);
  if (header->type == &k.ob.types.thread) return static_cast<_KTHREAD*>(Object);
  k.verifier.Violation("KeWaitForSingleObject",
                       "waiting on a " + ToUtf8(header->type->name) + " object, which the simulator does not signal");
  return nullptr;
}

}  // namespace

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
  bool poll = Timeout && Timeout->QuadPart == 0;
  if (!poll && KeGetCurrentIrql() >= DISPATCH_LEVEL) {
    K().verifier.Violation("KeWaitForSingleObject", "waiting at DISPATCH_LEVEL or above");
  }
  _KTHREAD* self = CurrentThread();
  _KTHREAD* thread = ThreadObject(Object);
  if (thread == self && !poll) {
    K().verifier.Violation("KeWaitForSingleObject", "a thread waits for its own end");
    return STATUS_INVALID_PARAMETER;
  }
  auto* event = static_cast<PRKEVENT>(Object);
  std::unique_lock<std::mutex> lock(DispatcherLock());
  auto signalled = [event, thread] { return thread ? thread->terminated : event->Header.SignalState != 0; };
  bool ending = false;
  auto done = [&] {
    ending = SystemThreadMustEndLocked(self);
    return ending || signalled();
  };
  bool ok;
  if (!Timeout) {
    DispatcherWake().wait(lock, done);
    ok = true;
  } else if (Timeout->QuadPart <= 0) {
    // Relative time in 100-ns units.
    auto wait = std::chrono::microseconds(-Timeout->QuadPart / 10);
    ok = DispatcherWake().wait_for(lock, wait, done);
  } else {
    ok = done();  // absolute times are not simulated: treated as already past
  }
  if (ending) {
    lock.unlock();
    throw SystemThreadExit{STATUS_SUCCESS};  // the machine goes away under the waiting thread
  }
  if (!ok) return STATUS_TIMEOUT;
  if (!thread && event->Header.Type == SynchronizationEvent) event->Header.SignalState = 0;
  return STATUS_WAIT_0;
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
  if (KeGetCurrentIrql() > APC_LEVEL) K().verifier.Violation("KeDelayExecutionThread", "called above APC_LEVEL");
  _KTHREAD* self = CurrentThread();
  std::unique_lock<std::mutex> lock(DispatcherLock());
  bool ending = false;
  auto mustEnd = [&] { return ending = SystemThreadMustEndLocked(self); };
  if (Interval->QuadPart < 0) {
    DispatcherWake().wait_for(lock, std::chrono::microseconds(-Interval->QuadPart / 10), mustEnd);
  } else {
    mustEnd();  // an absolute time: already past, as for waits
  }
  if (ending) {
    lock.unlock();
    throw SystemThreadExit{STATUS_SUCCESS};
  }
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------------------------
// Process attach. The saved state holds the previous attach and the depth it belongs to, so that a
// detach with another attach's state is caught.

VOID NTAPI KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState) {
  Kernel& k = K();
  if (KeGetCurrentIrql() >= DISPATCH_LEVEL) {
    k.verifier.Violation("KeStackAttachProcess", "called at DISPATCH_LEVEL or above");
  }
  if (k.ps.FindProcess(Process->id) != Process) {
    k.verifier.Violation("KeStackAttachProcess", "attaching to a process that has exited");
  }
  _KTHREAD* thread = CurrentThread();
  std::memset(ApcState, 0, sizeof *ApcState);
  ApcState->Process = thread->attachedProcess;
  ++thread->attachDepth;
  ApcState->Reserved[0] = static_cast<UCHAR>(thread->attachDepth);
  ApcState->Reserved[1] = 0xA7;  // marks a state that an attach filled in
  thread->attachedProcess = Process;
}

VOID NTAPI KeUnstackDetachProcess(PRKAPC_STATE ApcState) {
  Kernel& k = K();
  if (KeGetCurrentIrql() >= DISPATCH_LEVEL) {
    k.verifier.Violation("KeUnstackDetachProcess", "called at DISPATCH_LEVEL or above");
  }
  _KTHREAD* thread = CurrentThread();
  if (thread->attachDepth == 0 || ApcState->Reserved[1] != 0xA7 || ApcState->Reserved[0] != thread->attachDepth) {
    k.verifier.Violation("KeUnstackDetachProcess", "detaching with a state that is not the innermost attach's");
    return;
  }
  thread->attachedProcess = ApcState->Process;
  --thread->attachDepth;
  ApcState->Reserved[1] = 0;
}

// ---------------------------------------------------------------------------------------------
// A driver's __try blocks around routines that raise.

VOID NtSimPagedCode(PCSTR Routine) {
  if (KeGetCurrentIrql() > APC_LEVEL) K().verifier.Violation(Routine, "pageable code (PAGED_CODE) run above APC_LEVEL");
}

VOID NtSimEnterGuardedRegion(void) {
  _KTHREAD* thread = CurrentThread();
  if (thread->guardDepth++ == 0) thread->raisedStatus = STATUS_SUCCESS;
}

NTSTATUS NtSimLeaveGuardedRegion(void) {
  _KTHREAD* thread = CurrentThread();
  if (thread->guardDepth == 0) {
    K().verifier.Violation("NtSimLeaveGuardedRegion", "leaving a guarded region that was not entered");
    return STATUS_SUCCESS;
  }
  NTSTATUS status = thread->raisedStatus;
  if (--thread->guardDepth == 0) thread->raisedStatus = STATUS_SUCCESS;
  return status;
}
