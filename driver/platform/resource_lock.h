// An executive resource is taken only inside a critical region, so that the thread holding it
// cannot be suspended: these pair the two, in the order the kernel requires.
#pragma once

#include "platform/nt.h"

static inline VOID skt_AcquireShared(PERESOURCE Resource) {
  KeEnterCriticalRegion();
  ExAcquireResourceSharedLite(Resource, TRUE);
}

static inline VOID skt_AcquireExclusive(PERESOURCE Resource) {
  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(Resource, TRUE);
}

static inline VOID skt_Release(PERESOURCE Resource) {
  ExReleaseResourceLite(Resource);
  KeLeaveCriticalRegion();
}
