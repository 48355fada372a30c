#include "monitor/system_snapshot.h"

#include "core/debug_log.h"

#define SK_MODULE SK_TRACE_TOOL

#define SK_SNAPSHOT_STEP 16384

NTSTATUS skt_QuerySystemSnapshot(SYSTEM_INFORMATION_CLASS InformationClass, ULONG Tag, const char *AllocFailMessage,
                                 PVOID *Buffer) {
  NTSTATUS status;
  ULONG size = SK_SNAPSHOT_STEP;
  PVOID buffer;

  *Buffer = NULL;
  for (;;) {
    buffer = ExAllocatePoolWithTag(PagedPool, size, Tag);
    if (!buffer) {
      SK_ERROR("%s", AllocFailMessage);
      return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(buffer, size);
    status = NtQuerySystemInformation(InformationClass, buffer, size, &size);
    if (NT_SUCCESS(status)) break;
    ExFreePoolWithTag(buffer, Tag);
    if (status != STATUS_INFO_LENGTH_MISMATCH || size > MAXULONG - SK_SNAPSHOT_STEP) {
      SK_ERROR("NtQuerySystemInformation fail Status:%08lx\n", status);
      return status;
    }
    size += SK_SNAPSHOT_STEP;
  }
  *Buffer = buffer;
  return STATUS_SUCCESS;
}
