#include "ex/lock_word.h"

#include <unordered_map>

#include "ke/dispatcher.h"

namespace ntsim {

namespace {

struct Waiters {
  int all = 0;
  int exclusive = 0;
};

// Guarded by the dispatcher lock.
std::unordered_map<volatile ULONG_PTR*, Waiters>& WaitTable() {
  static std::unordered_map<volatile ULONG_PTR*, Waiters> table;
  return table;
}

ULONG_PTR Load(volatile ULONG_PTR* word) { return __atomic_load_n(word, __ATOMIC_SEQ_CST); }

}  // namespace

void WakeLockWaiters() {
  { std::lock_guard<std::mutex> lock(DispatcherLock()); }
  DispatcherWake().notify_all();
}

void AcquireLockWordSlow(volatile ULONG_PTR* word, bool exclusive) {
  ULONG_PTR value;
  std::unique_lock<std::mutex> guard(DispatcherLock());
  bool queued = false;
  for (;;) {
    value = Load(word);
    // A queued exclusive waiter's own bit does not hold it back; a queued shared waiter gives way
    // to exclusive waiters like anyone else.
    if (LockWordFree(value, exclusive)) {
      if (!LockWordExchange(word, &value, LockWordTaken(value, exclusive))) continue;
      break;
    }
    if (!queued) {
      Waiters& waiters = WaitTable()[word];
      ++waiters.all;
      if (exclusive) ++waiters.exclusive;
      queued = true;
    }
    ULONG_PTR bits = kLockWaiting | (exclusive ? kLockExclusiveWaiting : 0);
    if ((value & bits) != bits) {
      if (!LockWordExchange(word, &value, value | bits)) continue;  // the word moved: look again
    }
    DispatcherWake().wait(guard);
  }
  if (!queued) return;
  auto it = WaitTable().find(word);
  Waiters& waiters = it->second;
  --waiters.all;
  if (exclusive) --waiters.exclusive;
  ULONG_PTR clear = (waiters.all == 0 ? kLockWaiting : 0) | (waiters.exclusive == 0 ? kLockExclusiveWaiting : 0);
  if (clear) __atomic_fetch_and(word, ~clear, __ATOMIC_SEQ_CST);
  if (waiters.all == 0) WaitTable().erase(it);
  // Shared waiters held back by this exclusive waiter may go now if it got the lock shared-free.
  if (clear & kLockExclusiveWaiting) DispatcherWake().notify_all();
}

}  // namespace ntsim
