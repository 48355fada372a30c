// Interrupt level, critical regions, current thread and process, dispatcher events.
#include <chrono>

#include "kernel.h"
#include "ke/dispatcher.h"

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
ULONG NTAPI KeGetCurrentProcessorNumber(void) { return CurrentThread()->processor; }
PETHREAD NTAPI PsGetCurrentThread(void) { return CurrentThread(); }
PEPROCESS NTAPI PsGetCurrentProcess(void) { return CurrentProcess(); }
HANDLE NTAPI PsGetCurrentProcessId(void) { return reinterpret_cast<HANDLE>(CurrentProcess()->id); }
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

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
  bool poll = Timeout && Timeout->QuadPart == 0;
  if (!poll && KeGetCurrentIrql() >= DISPATCH_LEVEL) {
    K().verifier.Violation("KeWaitForSingleObject", "waiting at DISPATCH_LEVEL or above");
  }
  auto* event = static_cast<PRKEVENT>(Object);
  std::unique_lock<std::mutex> lock(DispatcherLock());
  auto signalled = [event] { return event->Header.SignalState != 0; };
  bool ok;
  if (!Timeout) {
    DispatcherWake().wait(lock, signalled);
    ok = true;
  } else if (Timeout->QuadPart <= 0) {
    // Relative time in 100-ns units.
    auto wait = std::chrono::microseconds(-Timeout->QuadPart / 10);
    ok = DispatcherWake().wait_for(lock, wait, signalled);
  } else {
    ok = signalled();  // absolute times are not simulated: treated as already past
  }
  if (!ok) return STATUS_TIMEOUT;
  if (event->Header.Type == SynchronizationEvent) event->Header.SignalState = 0;
  return STATUS_WAIT_0;
}
