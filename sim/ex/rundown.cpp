// Rundown protection. The record is the driver's own: Count holds the references taken, in units
// of 2, and bit 0 once a rundown has begun. After the rundown, Count is exactly the rundown bit,
// as the kernel leaves it. The waiter of a rundown sleeps on the dispatcher's wait queue; the
// release that drops the last reference under a rundown wakes it.
#include "kernel.h"
#include "ke/dispatcher.h"

using namespace ntsim;

namespace {

constexpr ULONG_PTR kRundownActive = 1;
constexpr ULONG_PTR kReference = 2;

ULONG_PTR Load(PEX_RUNDOWN_REF RunRef) { return __atomic_load_n(&RunRef->Count, __ATOMIC_SEQ_CST); }

bool Exchange(PEX_RUNDOWN_REF RunRef, ULONG_PTR* expected, ULONG_PTR desired) {
  return __atomic_compare_exchange_n(&RunRef->Count, expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

void CheckIrql(const char* call, KIRQL highest) {
  if (CurrentThread()->irql > highest) {
    K().verifier.Violation(call, highest == APC_LEVEL ? "called above APC_LEVEL" : "called above DISPATCH_LEVEL");
  }
}

BOOLEAN Acquire(PEX_RUNDOWN_REF RunRef, ULONG Count, const char* call) {
  CheckIrql(call, DISPATCH_LEVEL);
  ULONG_PTR value = Load(RunRef);
  for (;;) {
    if (value & kRundownActive) return FALSE;
    if (Exchange(RunRef, &value, value + kReference * Count)) return TRUE;
  }
}

void Release(PEX_RUNDOWN_REF RunRef, ULONG Count, const char* call) {
  CheckIrql(call, DISPATCH_LEVEL);
  ULONG_PTR value = Load(RunRef);
  ULONG_PTR remaining;
  for (;;) {
    ULONG_PTR held = value / kReference;
    if (held < Count) {
      K().verifier.Violation(call, "releasing " + std::to_string(Count) + " rundown reference(s) when " +
                                       std::to_string(held) + " are held");
      return;
    }
    remaining = value - kReference * Count;
    if (Exchange(RunRef, &value, remaining)) break;
  }
  if (remaining == kRundownActive) {
    // The last reference under a rundown: the waiter re-checks under the dispatcher lock, so taking
    // it here orders this release before the waiter's next look.
    { std::lock_guard<std::mutex> lock(DispatcherLock()); }
    DispatcherWake().notify_all();
  }
}

}  // namespace

VOID NTAPI ExInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) {
  __atomic_store_n(&RunRef->Count, ULONG_PTR(0), __ATOMIC_SEQ_CST);
}

VOID NTAPI ExReInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) {
  CheckIrql("ExReInitializeRundownProtection", APC_LEVEL);
  if (Load(RunRef) != kRundownActive) {
    K().verifier.Violation("ExReInitializeRundownProtection",
                           "reinitialising rundown protection that has not been run down");
  }
  __atomic_store_n(&RunRef->Count, ULONG_PTR(0), __ATOMIC_SEQ_CST);
}

BOOLEAN NTAPI ExAcquireRundownProtection(PEX_RUNDOWN_REF RunRef) {
  Kernel& k = K();
  if (k.rundownAcquireHooked.load(std::memory_order_relaxed)) k.rundownAcquireHook(RunRef);
  return Acquire(RunRef, 1, "ExAcquireRundownProtection");
}

BOOLEAN NTAPI ExAcquireRundownProtectionEx(PEX_RUNDOWN_REF RunRef, ULONG Count) {
  return Acquire(RunRef, Count, "ExAcquireRundownProtectionEx");
}

VOID NTAPI ExReleaseRundownProtection(PEX_RUNDOWN_REF RunRef) { Release(RunRef, 1, "ExReleaseRundownProtection"); }

VOID NTAPI ExReleaseRundownProtectionEx(PEX_RUNDOWN_REF RunRef, ULONG Count) {
  Release(RunRef, Count, "ExReleaseRundownProtectionEx");
}

VOID NTAPI ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF RunRef) {
  CheckIrql("ExWaitForRundownProtectionRelease", APC_LEVEL);
  ULONG_PTR before = __atomic_fetch_or(&RunRef->Count, kRundownActive, __ATOMIC_SEQ_CST);
  if (before / kReference == 0) return;  // nothing held, or already run down
  std::unique_lock<std::mutex> lock(DispatcherLock());
  DispatcherWake().wait(lock, [RunRef] { return Load(RunRef) == kRundownActive; });
}

VOID NTAPI ExRundownCompleted(PEX_RUNDOWN_REF RunRef) {
  CheckIrql("ExRundownCompleted", APC_LEVEL);
  if (Load(RunRef) != kRundownActive) {
    K().verifier.Violation("ExRundownCompleted", "completing a rundown that was not waited for");
  }
  __atomic_store_n(&RunRef->Count, kRundownActive, __ATOMIC_SEQ_CST);
}
