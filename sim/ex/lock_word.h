// A shared/exclusive lock in one pointer-sized word, behind push locks and executive resources:
//
//   bit 0      held exclusively (drivers may test this bit of a push lock themselves)
//   bit 1      some thread waits for the lock
//   bit 2      some thread waits for exclusive access: new shared owners queue behind it
//   bits 4..   the number of shared owners
//
// Uncontended acquires and releases are one interlocked operation on the word. A thread that must
// wait counts itself in a side table (keyed by the word's address, held only while it has
// waiters) and sleeps on the dispatcher's wait queue; every release that finds the waiting bit set
// wakes the queue. The waiting bits change only under the dispatcher lock, and a releaser takes
// that lock before waking, so no wake-up is lost.
#pragma once

#include "ntsim/ntsim.h"

namespace ntsim {

constexpr ULONG_PTR kLockExclusive = 1;
constexpr ULONG_PTR kLockWaiting = 2;
constexpr ULONG_PTR kLockExclusiveWaiting = 4;
constexpr ULONG_PTR kLockShared = 16;

// The parts that wait and wake, out of line.
void AcquireLockWordSlow(volatile ULONG_PTR* word, bool exclusive);
void WakeLockWaiters();

inline bool LockWordExchange(volatile ULONG_PTR* word, ULONG_PTR* expected, ULONG_PTR desired) {
  return __atomic_compare_exchange_n(word, expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

inline bool LockWordFree(ULONG_PTR value, bool exclusive) {
  // New shared owners also give way to a waiting exclusive acquire.
  return exclusive ? (value & kLockExclusive) == 0 && value / kLockShared == 0
                   : (value & (kLockExclusive | kLockExclusiveWaiting)) == 0;
}

inline ULONG_PTR LockWordTaken(ULONG_PTR value, bool exclusive) {
  return exclusive ? value | kLockExclusive : value + kLockShared;
}

// Takes the word only if it is free for that mode now.
inline bool TryAcquireLockWord(volatile ULONG_PTR* word, bool exclusive) {
  ULONG_PTR value = __atomic_load_n(word, __ATOMIC_SEQ_CST);
  while (LockWordFree(value, exclusive)) {
    if (LockWordExchange(word, &value, LockWordTaken(value, exclusive))) return true;
  }
  return false;
}

// Takes the word, waiting as long as it takes. A shared acquire waits while an exclusive one waits.
inline void AcquireLockWord(volatile ULONG_PTR* word, bool exclusive) {
  ULONG_PTR value = __atomic_load_n(word, __ATOMIC_SEQ_CST);
  // Fast path, only when nobody queues.
  while (!(value & kLockWaiting) && LockWordFree(value, exclusive)) {
    if (LockWordExchange(word, &value, LockWordTaken(value, exclusive))) return;
  }
  AcquireLockWordSlow(word, exclusive);
}

enum class LockRelease { Released, NotHeld, HeldInOtherMode };
// Gives back one exclusive or one shared ownership; says so when the word is not held that way,
// and then leaves it as it was.
inline LockRelease ReleaseLockWord(volatile ULONG_PTR* word, bool exclusive) {
  ULONG_PTR value = __atomic_load_n(word, __ATOMIC_SEQ_CST);
  if (exclusive) {
    for (;;) {
      if (!(value & kLockExclusive)) return value / kLockShared ? LockRelease::HeldInOtherMode : LockRelease::NotHeld;
      if (LockWordExchange(word, &value, value & ~kLockExclusive)) break;
    }
    if (value & kLockWaiting) WakeLockWaiters();
    return LockRelease::Released;
  }
  for (;;) {
    if (value / kLockShared == 0) return (value & kLockExclusive) ? LockRelease::HeldInOtherMode : LockRelease::NotHeld;
    if (LockWordExchange(word, &value, value - kLockShared)) break;
  }
  if ((value & kLockWaiting) && value / kLockShared == 1) WakeLockWaiters();
  return LockRelease::Released;
}

}  // namespace ntsim
