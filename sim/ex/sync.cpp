// Executive resources and fast mutexes.
#include <map>

#include "kernel.h"
#include "ke/dispatcher.h"

using namespace ntsim;

namespace {

struct ResourceImpl {
  _KTHREAD* exclusiveOwner = nullptr;
  int exclusiveCount = 0;
  int exclusiveWaiters = 0;
  std::map<_KTHREAD*, int> shared;
};

ResourceImpl* ImplOf(PERESOURCE resource, const char* call) {
  if (!resource->Impl) K().verifier.Violation(call, "executive resource not initialised (or already deleted)");
  return static_cast<ResourceImpl*>(resource->Impl);
}

void CheckCriticalRegion(const char* call) {
  if (!KeAreApcsDisabled()) K().verifier.Violation(call, "executive resource acquired outside a critical region");
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
  {
    std::lock_guard<std::mutex> lock(DispatcherLock());
    if (impl->exclusiveOwner || !impl->shared.empty()) {
      K().verifier.Violation("ExDeleteResourceLite", "deleting an executive resource that is still owned");
    }
  }
  K().arena.Delete(impl);
  Resource->Impl = nullptr;
  return STATUS_SUCCESS;
}

BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) {
  CheckCriticalRegion("ExAcquireResourceSharedLite");
  ResourceImpl* impl = ImplOf(Resource, "ExAcquireResourceSharedLite");
  if (!impl) return FALSE;
  _KTHREAD* self = CurrentThread();
  std::unique_lock<std::mutex> lock(DispatcherLock());
  if (impl->exclusiveOwner == self) {  // an exclusive owner may also take it shared
    ++impl->exclusiveCount;
    return TRUE;
  }
  auto grantable = [&] {
    return !impl->exclusiveOwner && (impl->exclusiveWaiters == 0 || impl->shared.count(self));
  };
  if (!grantable()) {
    if (!Wait) return FALSE;
    DispatcherWake().wait(lock, grantable);
  }
  ++impl->shared[self];
  return TRUE;
}

BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) {
  CheckCriticalRegion("ExAcquireResourceExclusiveLite");
  ResourceImpl* impl = ImplOf(Resource, "ExAcquireResourceExclusiveLite");
  if (!impl) return FALSE;
  _KTHREAD* self = CurrentThread();
  std::unique_lock<std::mutex> lock(DispatcherLock());
  if (impl->exclusiveOwner == self) {
    ++impl->exclusiveCount;
    return TRUE;
  }
  if (impl->shared.count(self)) {
    lock.unlock();
    K().verifier.Violation("ExAcquireResourceExclusiveLite",
                           "a shared owner asks for the resource exclusively: it would wait for itself");
    return FALSE;
  }
  auto grantable = [&] { return !impl->exclusiveOwner && impl->shared.empty(); };
  if (!grantable()) {
    if (!Wait) return FALSE;
    ++impl->exclusiveWaiters;
    DispatcherWake().wait(lock, grantable);
    --impl->exclusiveWaiters;
  }
  impl->exclusiveOwner = self;
  impl->exclusiveCount = 1;
  return TRUE;
}

VOID NTAPI ExReleaseResourceLite(PERESOURCE Resource) {
  ResourceImpl* impl = ImplOf(Resource, "ExReleaseResourceLite");
  if (!impl) return;
  _KTHREAD* self = CurrentThread();
  {
    std::lock_guard<std::mutex> lock(DispatcherLock());
    if (impl->exclusiveOwner == self) {
      if (--impl->exclusiveCount == 0) impl->exclusiveOwner = nullptr;
    } else {
      auto it = impl->shared.find(self);
      if (it == impl->shared.end()) {
        K().verifier.Violation("ExReleaseResourceLite", "releasing an executive resource the thread does not own");
        return;
      }
      if (--it->second == 0) impl->shared.erase(it);
    }
  }
  DispatcherWake().notify_all();
}

BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) {
  ResourceImpl* impl = ImplOf(Resource, "ExIsResourceAcquiredExclusiveLite");
  if (!impl) return FALSE;
  std::lock_guard<std::mutex> lock(DispatcherLock());
  return impl->exclusiveOwner == CurrentThread();
}

ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource) {
  ResourceImpl* impl = ImplOf(Resource, "ExIsResourceAcquiredSharedLite");
  if (!impl) return 0;
  _KTHREAD* self = CurrentThread();
  std::lock_guard<std::mutex> lock(DispatcherLock());
  if (impl->exclusiveOwner == self) return static_cast<ULONG>(impl->exclusiveCount);
  auto it = impl->shared.find(self);
  return it == impl->shared.end() ? 0 : static_cast<ULONG>(it->second);
}

// ---------------------------------------------------------------------------------------------
// Fast mutexes: Count is 1 when free. The holder runs at APC_LEVEL; the previous level is kept in
// the mutex, as the kernel does.

VOID NTAPI ExInitializeFastMutex(PFAST_MUTEX FastMutex) {
  FastMutex->Count = 1;
  FastMutex->Owner = nullptr;
  FastMutex->Contention = 0;
  KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

static bool TakeFastMutex(PFAST_MUTEX FastMutex, bool wait, const char* call) {
  _KTHREAD* self = CurrentThread();
  if (self->irql > APC_LEVEL) K().verifier.Violation(call, "fast mutex acquired above APC_LEVEL");
  std::unique_lock<std::mutex> lock(DispatcherLock());
  if (FastMutex->Owner == self) {
    if (!wait) return false;  // a try simply fails, as for any held mutex
    lock.unlock();
    K().verifier.Violation(call, "fast mutex acquired recursively: the thread would wait for itself");
    return false;
  }
  if (FastMutex->Count != 1) {
    if (!wait) return false;
    ++FastMutex->Contention;
    DispatcherWake().wait(lock, [FastMutex] { return FastMutex->Count == 1; });
  }
  FastMutex->Count = 0;
  FastMutex->Owner = self;
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
  {
    std::lock_guard<std::mutex> lock(DispatcherLock());
    if (FastMutex->Owner != self) {
      K().verifier.Violation("ExReleaseFastMutex", "releasing a fast mutex the thread does not own");
      return;
    }
    FastMutex->Owner = nullptr;
    FastMutex->Count = 1;
    self->irql = static_cast<KIRQL>(FastMutex->OldIrql);
  }
  DispatcherWake().notify_all();
}
