// Push locks: the lock is one pointer-sized word in the driver's memory (ex/lock_word.h), bit 0
// held exclusively, as drivers may test themselves.
//
// As the kernel documents, the caller disables normal kernel APCs first (a critical region), a
// push lock is not recursive, and a shared acquire waits while an exclusive acquire waits.
#include "ex/lock_word.h"
#include "kernel.h"

using namespace ntsim;

namespace {

// Out of line and cold, so that the checks around it stay a compare and a branch.
[[gnu::cold, gnu::noinline]] void Report(const char* call, const char* what) { K().verifier.Violation(call, what); }

inline void CheckCaller(const char* call) {
  _KTHREAD* self = CurrentThread();
  if (self->irql > APC_LEVEL) Report(call, "push lock acquired above APC_LEVEL");
  if (self->kernelApcDisable <= 0 && self->irql < APC_LEVEL) {
    Report(call, "push lock acquired with normal kernel APCs enabled (outside a critical region)");
  }
}

inline void Release(PEX_PUSH_LOCK PushLock, bool exclusive, const char* call) {
  LockRelease result = ReleaseLockWord(PushLock, exclusive);
  if (result == LockRelease::Released) return;
  if (result == LockRelease::NotHeld) {
    Report(call, "releasing a push lock that is not held");
  } else {
    Report(call, exclusive ? "releasing exclusively a push lock that is held shared"
                           : "releasing shared a push lock that is held exclusively");
  }
}

}  // namespace

VOID NTAPI ExInitializePushLock(PEX_PUSH_LOCK PushLock) { __atomic_store_n(PushLock, ULONG_PTR(0), __ATOMIC_SEQ_CST); }

VOID FASTCALL ExfAcquirePushLockExclusive(PEX_PUSH_LOCK PushLock) {
  CheckCaller("ExfAcquirePushLockExclusive");
  AcquireLockWord(PushLock, true);
}

VOID FASTCALL ExfAcquirePushLockShared(PEX_PUSH_LOCK PushLock) {
  CheckCaller("ExfAcquirePushLockShared");
  AcquireLockWord(PushLock, false);
}

VOID FASTCALL ExfReleasePushLockExclusive(PEX_PUSH_LOCK PushLock) {
  Release(PushLock, true, "ExfReleasePushLockExclusive");
}

VOID FASTCALL ExfReleasePushLockShared(PEX_PUSH_LOCK PushLock) { Release(PushLock, false, "ExfReleasePushLockShared"); }
