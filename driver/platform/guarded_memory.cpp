#include "platform/guarded_memory.h"

#if defined(_WIN32) && !defined(SENTREL_HOST)

// An access fault is caught only when it is raised inside a called function, so the copy is a call
// to the kernel's memmove, and this helper must not be inlined into its callers.
DECLSPEC_NOINLINE NTSTATUS skt_SafeCopyMemory(PVOID Destination, const VOID *Source, SIZE_T Length) {
  NTSTATUS status = STATUS_SUCCESS;
  __try {
    RtlCopyMemory(Destination, Source, Length);
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    status = GetExceptionCode();
  }
  return status;
}

DECLSPEC_NOINLINE NTSTATUS skt_SafeCopyUserMemory(PVOID Destination, const VOID *Source, SIZE_T Length) {
  NTSTATUS status = STATUS_SUCCESS;
  __try {
    ProbeForRead((PVOID)Source, Length, 1);
    RtlCopyMemory(Destination, Source, Length);
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    status = GetExceptionCode();
  }
  return status;
}

DECLSPEC_NOINLINE NTSTATUS skt_MapLockedPagesUser(PMDL Mdl, MEMORY_CACHING_TYPE CacheType, PVOID *UserAddress) {
  NTSTATUS status = STATUS_SUCCESS;
  PVOID address = NULL;
  __try {
    address = MmMapLockedPagesSpecifyCache(Mdl, UserMode, CacheType, NULL, FALSE, NormalPagePriority);
  } __except (EXCEPTION_EXECUTE_HANDLER) {
    status = GetExceptionCode();
    address = NULL;
  }
  if (NT_SUCCESS(status) && !address) status = STATUS_INSUFFICIENT_RESOURCES;
  *UserAddress = address;
  return status;
}

#else

NTSTATUS skt_MapLockedPagesUser(PMDL Mdl, MEMORY_CACHING_TYPE CacheType, PVOID *UserAddress) {
  PVOID address;
  NTSTATUS status;
  NtSimEnterGuardedRegion();
  address = MmMapLockedPagesSpecifyCache(Mdl, UserMode, CacheType, NULL, FALSE, NormalPagePriority);
  status = NtSimLeaveGuardedRegion();
  if (!NT_SUCCESS(status)) address = NULL;
  if (NT_SUCCESS(status) && !address) status = STATUS_INSUFFICIENT_RESOURCES;
  *UserAddress = address;
  return status;
}

NTSTATUS skt_SafeCopyMemory(PVOID Destination, const VOID *Source, SIZE_T Length) {
  return NtSimGuardedCopy(Destination, Source, Length);
}

NTSTATUS skt_SafeCopyUserMemory(PVOID Destination, const VOID *Source, SIZE_T Length) {
  NTSTATUS status;
  NtSimEnterGuardedRegion();
  ProbeForRead(Source, Length, 1);
  status = NtSimLeaveGuardedRegion();  // the raise ends the __try before the copy
  return NT_SUCCESS(status) ? NtSimGuardedCopy(Destination, Source, Length) : status;
}

#endif
