// Executive resources and fast mutexes.
//
// An executive resource is a lock word (ex/lock_word.h) with its exclusive owner and that owner's
// recursion count beside it; each thread keeps the resources it owns shared in a small table of
// its own (as the kernel keeps owner entries), so that a recursive shared acquire, a shared owner
// asking for exclusive access and a release by a thread that owns nothing are caught without a
// lock. Uncontended, an acquire and a release are one interlocked operation each.
#include <algorithm>

#include "ex/lock_word.h"
#include "kernel.h"
#include "ke/dispatcher.h"

using namespace ntsim;

namespace {

struct ResourceImpl {
  volatile ULONG_PTR word = 0;
  std::atomic<_KTHREAD*> exclusiveOwner{nullptr};
  int exclusiveCount = 0;  // the owner's acquisitions, exclusive and shared; touched only by the owner
};

// Out of line and cold, so that the checks around it stay a compare and a branch.
[[gnu::cold, gnu::noinline]] void Report(const char* call, const char* what) { K().verifier.Violation(call, what); }

inline ResourceImpl* ImplOf(PERESOURCE resource, const char* call) {
  if (!resource->Impl) Report(call, "executive resource not initialised (or already deleted)");
  return static_cast<ResourceImpl*>(resource->Impl);
}

inline void CheckCriticalRegion(_KTHREAD* self, const char* call) {
  if (self->kernelApcDisable <= 0 && self->irql < APC_LEVEL) {
    Report(call, "executive resource acquired outside a critical region");
  }
}

bool OwnedExclusively(ResourceImpl* impl, _KTHREAD* self) {
  return impl->exclusiveOwner.load(std::memory_order_relaxed) == self;
}

// The thread's shared ownership of the resource, or null.
_KTHREAD::SharedOwnership* SharedEntry(_KTHREAD* self, ResourceImpl* impl) {
  for (auto& entry : self->sharedResources) {
    if (entry.resource == impl) return &entry;
  }
  return nullptr;
}

bool Held(ResourceImpl* impl) {
  ULONG_PTR word = __atomic_load_n(&impl->word, __ATOMIC_SEQ_CST);
  return (word & kLockExclusive) || word >= kLockShared;
}

}  // namespace

NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource) {
  std::memset(Resource, 0, sizeof *Resource);
  Resource->Impl = K().arena.New<ResourceImpl>("executive resource");
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource) {
  ResourceImpl* impl = ImplOf(Resource, "ExDeleteResourceLite");
  if (!impl) return STATUS_INVALID_PARAMETER;
  if (Held(impl)) K().verifier.Violation("ExDeleteResourceLite", "deleting an executive resource that is still owned");
  K().arena.Delete(impl);
  Resource->Impl = nullptr;
  return STATUS_SUCCESS;
}

BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) {
  _KTHREAD* self = CurrentThread();
  CheckCriticalRegion(self, "ExAcquireResourceSharedLite");
  ResourceImpl* impl = ImplOf(Resource, "ExAcquireResourceSharedLite");
  if (!impl) return FALSE;
  if (OwnedExclusively(impl, self)) {  // an exclusive owner may also take it shared
    ++impl->exclusiveCount;
    return TRUE;
  }
  // A thread that already reads takes it again even while a writer waits, or it would wait for itself.
  if (_KTHREAD::SharedOwnership* entry = SharedEntry(self, impl)) {
    ++entry->count;
    return TRUE;
  }
  if (Wait) AcquireLockWord(&impl->word, false);
  else if (!TryAcquireLockWord(&impl->word, false)) return FALSE;
  _KTHREAD::SharedOwnership& entry = self->sharedResources.emplace_back();
  entry.resource = impl;
  entry.count = 1;
  return TRUE;
}

BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) {
  _KTHREAD* self = CurrentThread();
  CheckCriticalRegion(self, "ExAcquireResourceExclusiveLite");
  ResourceImpl* impl = ImplOf(Resource, "ExAcquireResourceExclusiveLite");
  if (!impl) return FALSE;
  if (OwnedExclusively(impl, self)) {
    ++impl->exclusiveCount;
    return TRUE;
  }
  if (SharedEntry(self, impl)) {
    K().verifier.Violation("ExAcquireResourceExclusiveLite",
                           "a shared owner asks for the resource exclusively: it would wait for itself");
    return FALSE;
  }
  if (Wait) AcquireLockWord(&impl->word, true);
  else if (!TryAcquireLockWord(&impl->word, true)) return FALSE;
  impl->exclusiveOwner.store(self, std::memory_order_relaxed);
  impl->exclusiveCount = 1;
  return TRUE;
}

VOID NTAPI ExReleaseResourceLite(PERESOURCE Resource) {
  ResourceImpl* impl = ImplOf(Resource, "ExReleaseResourceLite");
  if (!impl) return;
  _KTHREAD* self = CurrentThread();
  if (OwnedExclusively(impl, self)) {
    if (--impl->exclusiveCount == 0) {
      impl->exclusiveOwner.store(nullptr, std::memory_order_relaxed);
      ReleaseLockWord(&impl->word, true);
    }
    return;
  }
  _KTHREAD::SharedOwnership* entry = SharedEntry(self, impl);
  if (!entry) {
    K().verifier.Violation("ExReleaseResourceLite", "releasing an executive resource the thread does not own");
    return;
  }
  if (--entry->count > 0) return;
  _KTHREAD::SharedOwnership& last = self->sharedResources.back();
  if (entry != &last) {
    entry->resource = last.resource;
    entry->count = last.count;
  }
  self->sharedResources.pop_back();
  ReleaseLockWord(&impl->word, false);
}

BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) {
  ResourceImpl* impl = ImplOf(Resource, "ExIsResourceAcquiredExclusiveLite");
  if (!impl) return FALSE;
  return OwnedExclusively(impl, CurrentThread());
}

ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource) {
  ResourceImpl* impl = ImplOf(Resource, "ExIsResourceAcquiredSharedLite");
  if (!impl) return 0;
  _KTHREAD* self = CurrentThread();
  if (OwnedExclusively(impl, self)) return static_cast<ULONG>(impl->exclusiveCount);
  _KTHREAD::SharedOwnership* entry = SharedEntry(self, impl);
  return entry ? static_cast<ULONG>(entry->count) : 0;
}

// ---------------------------------------------------------------------------------------------
// Fast mutexes: Count is 1 when free, taken with one compare-exchange. The holder runs at
// APC_LEVEL; the previous level is kept in the mutex, as the kernel does. A thread that must wait
// counts itself in Waiters and sleeps on the dispatcher's wait queue; a release wakes the queue
// only when someone waits.

VOID NTAPI ExInitializeFastMutex(PFAST_MUTEX FastMutex) {
  FastMutex->Count = 1;
  FastMutex->Waiters = 0;
  FastMutex->Owner = nullptr;
  FastMutex->Contention = 0;
  KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

static bool TryTakeFastMutexCount(PFAST_MUTEX FastMutex) {
  LONG free = 1;
  return __atomic_compare_exchange_n(&FastMutex->Count, &free, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

static bool TakeFastMutex(PFAST_MUTEX FastMutex, bool wait, const char* call) {
  _KTHREAD* self = CurrentThread();
  if (self->irql > APC_LEVEL) K().verifier.Violation(call, "fast mutex acquired above APC_LEVEL");
  if (__atomic_load_n(&FastMutex->Owner, __ATOMIC_RELAXED) == self) {
    if (!wait) return false;  // a try simply fails, as for any held mutex
    K().verifier.Violation(call, "fast mutex acquired recursively: the thread would wait for itself");
    return false;
  }
  if (!TryTakeFastMutexCount(FastMutex)) {
    if (!wait) return false;
    std::unique_lock<std::mutex> lock(DispatcherLock());
    __atomic_add_fetch(&FastMutex->Waiters, 1, __ATOMIC_SEQ_CST);
    ++FastMutex->Contention;
    DispatcherWake().wait(lock, [FastMutex] { return TryTakeFastMutexCount(FastMutex); });
    __atomic_sub_fetch(&FastMutex->Waiters, 1, __ATOMIC_SEQ_CST);
  }
  __atomic_store_n(&FastMutex->Owner, static_cast<PVOID>(self), __ATOMIC_RELAXED);
  FastMutex->OldIrql = self->irql;
  self->irql = APC_LEVEL;
  return true;
}

VOID NTAPI ExAcquireFastMutex(PFAST_MUTEX FastMutex) { TakeFastMutex(FastMutex, true, "ExAcquireFastMutex"); }

BOOLEAN NTAPI ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex) {
  return TakeFastMutex(FastMutex, false, "ExTryToAcquireFastMutex") ? TRUE : FALSE;
}

VOID NTAPI ExReleaseFastMutex(PFAST_MUTEX FastMutex) {
  _KTHREAD* self = CurrentThread();
  if (__atomic_load_n(&FastMutex->Owner, __ATOMIC_RELAXED) != self) {
    K().verifier.Violation("ExReleaseFastMutex", "releasing a fast mutex the thread does not own");
    return;
  }
  __atomic_store_n(&FastMutex->Owner, static_cast<PVOID>(nullptr), __ATOMIC_RELAXED);
  self->irql = static_cast<KIRQL>(FastMutex->OldIrql);
  // The store and the load are ordered against a waiter's count and look: either the waiter sees
  // the mutex free, or this release sees the waiter and wakes it under the dispatcher lock.
  __atomic_store_n(&FastMutex->Count, 1, __ATOMIC_SEQ_CST);
  if (__atomic_load_n(&FastMutex->Waiters, __ATOMIC_SEQ_CST) == 0) return;
  { std::lock_guard<std::mutex> lock(DispatcherLock()); }
  DispatcherWake().notify_all();
}
