#include "platform/guarded_memory.h"

#if defined(_WIN32) && !defined(SENTREL_HOST)

// An access fault is caught only when it is raised inside a called function, so the copy is a call
// to the kernel's memmove, and this helper must not be inlined into its callers.
DECLSPEC_NOINLINE NTSTATUS skt_SafeCopyMemory(PVOID Destination, const VOID *Source, SIZE_T Length) {
  NTSTATUS status = STATUS_SUCCESS;
  __try {
    RtlCopyMemory(Destination, Source, Length);
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    status = STATUS_ACCESS_VIOLATION;
  }
  return status;
}

#else

NTSTATUS skt_SafeCopyMemory(PVOID Destination, const VOID *Source, SIZE_T Length) {
  return NtSimGuardedCopy(Destination, Source, Length);
}

#endif
