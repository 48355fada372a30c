// Push locks. The lock is one pointer-sized word in the driver's memory:
//
//   bit 0      held exclusively (drivers may test this bit themselves)
//   bit 1      some thread waits for the lock
//   bit 2      some thread waits for exclusive access: new shared owners queue behind it
//   bits 4..   the number of shared owners
//
// Uncontended acquires and releases are one interlocked operation on the word. A thread that must
// wait counts itself in a side table (keyed by the lock's address, held only while it has
// waiters, since push locks are never deleted) and sleeps on the dispatcher's wait queue; every
// release that finds the waiting bit set wakes the queue. The waiting bits change only under the
// dispatcher lock, and a releaser takes that lock before waking, so no wake-up is lost.
//
// As the kernel documents, the caller disables normal kernel APCs first (a critical region), a
// push lock is not recursive, and a shared acquire waits while an exclusive acquire waits.
#include <unordered_map>

#include "kernel.h"
#include "ke/dispatcher.h"

using namespace ntsim;

namespace {

constexpr ULONG_PTR kExclusive = 1;
constexpr ULONG_PTR kWaiting = 2;
constexpr ULONG_PTR kExclusiveWaiting = 4;
constexpr ULONG_PTR kShared = 16;
constexpr ULONG_PTR kFlags = kShared - 1;

struct Waiters {
  int all = 0;
  int exclusive = 0;
};

// Guarded by the dispatcher lock.
std::unordered_map<PEX_PUSH_LOCK, Waiters>& WaitTable() {
  static std::unordered_map<PEX_PUSH_LOCK, Waiters> table;
  return table;
}

ULONG_PTR Load(PEX_PUSH_LOCK lock) { return __atomic_load_n(lock, __ATOMIC_SEQ_CST); }

bool Exchange(PEX_PUSH_LOCK lock, ULONG_PTR* expected, ULONG_PTR desired) {
  return __atomic_compare_exchange_n(lock, expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

void CheckCaller(const char* call) {
  if (KeGetCurrentIrql() > APC_LEVEL) K().verifier.Violation(call, "push lock acquired above APC_LEVEL");
  if (!KeAreApcsDisabled()) {
    K().verifier.Violation(call, "push lock acquired with normal kernel APCs enabled (outside a critical region)");
  }
}

bool FreeForExclusive(ULONG_PTR value) { return (value & kExclusive) == 0 && value / kShared == 0; }

// New shared owners also give way to a waiting exclusive acquire.
bool FreeForShared(ULONG_PTR value) { return (value & (kExclusive | kExclusiveWaiting)) == 0; }

ULONG_PTR Taken(ULONG_PTR value, bool exclusive) { return exclusive ? value | kExclusive : value + kShared; }

void Wake() {
  { std::lock_guard<std::mutex> lock(DispatcherLock()); }
  DispatcherWake().notify_all();
}

void Acquire(PEX_PUSH_LOCK lock, bool exclusive) {
  auto free = exclusive ? FreeForExclusive : FreeForShared;
  ULONG_PTR value = Load(lock);
  // Fast path, only when nobody queues.
  while (!(value & kWaiting) && free(value)) {
    if (Exchange(lock, &value, Taken(value, exclusive))) return;
  }
  std::unique_lock<std::mutex> guard(DispatcherLock());
  bool queued = false;
  for (;;) {
    value = Load(lock);
    // A queued exclusive waiter's own bit does not hold it back; a queued shared waiter gives way
    // to exclusive waiters like anyone else.
    if (free(value)) {
      if (!Exchange(lock, &value, Taken(value, exclusive))) continue;
      break;
    }
    if (!queued) {
      Waiters& waiters = WaitTable()[lock];
      ++waiters.all;
      if (exclusive) ++waiters.exclusive;
      queued = true;
    }
    ULONG_PTR bits = kWaiting | (exclusive ? kExclusiveWaiting : 0);
    if ((value & bits) != bits) {
      if (!Exchange(lock, &value, value | bits)) continue;  // the word moved: look again
    }
    DispatcherWake().wait(guard);
  }
  if (!queued) return;
  auto it = WaitTable().find(lock);
  Waiters& waiters = it->second;
  --waiters.all;
  if (exclusive) --waiters.exclusive;
  ULONG_PTR clear = (waiters.all == 0 ? kWaiting : 0) | (waiters.exclusive == 0 ? kExclusiveWaiting : 0);
  if (clear) __atomic_fetch_and(lock, ~clear, __ATOMIC_SEQ_CST);
  if (waiters.all == 0) WaitTable().erase(it);
  // Shared waiters held back by this exclusive waiter may go now if it got the lock shared-free.
  if (clear & kExclusiveWaiting) DispatcherWake().notify_all();
}

}  // namespace

VOID NTAPI ExInitializePushLock(PEX_PUSH_LOCK PushLock) { __atomic_store_n(PushLock, ULONG_PTR(0), __ATOMIC_SEQ_CST); }

VOID FASTCALL ExfAcquirePushLockExclusive(PEX_PUSH_LOCK PushLock) {
  CheckCaller("ExfAcquirePushLockExclusive");
  Acquire(PushLock, true);
}

VOID FASTCALL ExfAcquirePushLockShared(PEX_PUSH_LOCK PushLock) {
  CheckCaller("ExfAcquirePushLockShared");
  Acquire(PushLock, false);
}

VOID FASTCALL ExfReleasePushLockExclusive(PEX_PUSH_LOCK PushLock) {
  ULONG_PTR value = Load(PushLock);
  for (;;) {
    if (!(value & kExclusive)) {
      K().verifier.Violation("ExfReleasePushLockExclusive",
                             value / kShared ? "releasing exclusively a push lock that is held shared"
                                             : "releasing a push lock that is not held");
      return;
    }
    if (Exchange(PushLock, &value, value & ~kExclusive)) break;
  }
  if (value & kWaiting) Wake();
}

VOID FASTCALL ExfReleasePushLockShared(PEX_PUSH_LOCK PushLock) {
  ULONG_PTR value = Load(PushLock);
  for (;;) {
    if (value / kShared == 0) {
      K().verifier.Violation("ExfReleasePushLockShared", (value & kExclusive)
                                                             ? "releasing shared a push lock that is held exclusively"
                                                             : "releasing a push lock that is not held");
      return;
    }
    if (Exchange(PushLock, &value, value - kShared)) break;
  }
  if ((value & kWaiting) && value / kShared == 1) Wake();
}
