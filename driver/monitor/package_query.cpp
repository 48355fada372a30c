// IOCTL_SK_QUERY_PACKCOMINFO: the consumer asks for the three packages of one process.
#include "monitor/package_cache.h"

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/package_block.h"

#define SK_MODULE SK_TRACE_COMMU

NTSTATUS sk_QueryPackCommonInformation(ULONG ProcessId, ULONG OutputLength, PVOID Buffer, PULONG ReturnLength) {
  NTSTATUS status;
  PEPROCESS process = NULL;
  HANDLE processId = (HANDLE)(ULONG_PTR)ProcessId;
  PVOID procInfo = NULL, logonInfo = NULL, treeInfo = NULL;
  ULONG procLength = 0, logonLength = 0, treeLength = 0;
  ULONG needed;
  PUCHAR out = (PUCHAR)Buffer;
  PACKAGE_HEADER header;

  PAGED_CODE();
  SK_ENTER();
  SK_INFO("Query ProcessId:%ld\n", (LONG)ProcessId);
  status = PsLookupProcessByProcessId(processId, &process);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsLookupProcessByProcessId", status);
    process = NULL;
    goto Exit;
  }
  status = sk_GetProcInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.ProcessMgr, processId, &procInfo,
                                 &procLength);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PackProcessInfo_Pid", status);
    procInfo = NULL;
    goto Exit;
  }
  status = sk_GetLogonInfo_Process(process, &logonInfo, &logonLength);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetLogonInfo_Process", status);
    logonInfo = NULL;
    goto Exit;
  }
  status = sk_GetProcTreeInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.ProcessMgr, processId, &treeInfo,
                                     &treeLength);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PackProcTree_Pid", status);
    treeInfo = NULL;
    goto Exit;
  }
  // Each package is at most a few dozen KiB (sentrel/package.h), so the sum cannot wrap.
  needed = sizeof(PACKAGE_HEADER) + procLength + logonLength + treeLength;
  if (needed > OutputLength) {
    *ReturnLength = needed;
    SK_ERROR("Length > InformationLength --->NeedLength:0x%0x\n", needed);
    status = STATUS_BUFFER_OVERFLOW;
    goto Exit;
  }
  RtlZeroMemory(out, needed);
  header.Length = needed;
  header.Type = SK_PACK_COMMON_INFO_TYPE;
  header.NextOffset = 0;
  RtlCopyMemory(out, &header, sizeof(header));
  RtlCopyMemory(out + sizeof(header), procInfo, procLength);
  RtlCopyMemory(out + sizeof(header) + procLength, logonInfo, logonLength);
  RtlCopyMemory(out + sizeof(header) + procLength + logonLength, treeInfo, treeLength);
  // The tree package ends the answer. Packages are only 2-byte aligned behind one another.
  header.NextOffset = 0;
  RtlCopyMemory(out + sizeof(header) + procLength + logonLength + FIELD_OFFSET(PACKAGE_HEADER, NextOffset),
                &header.NextOffset, sizeof(header.NextOffset));
  *ReturnLength = needed;
  status = STATUS_SUCCESS;
Exit:
  sk_ReleasePackage(procInfo);
  sk_ReleasePackage(logonInfo);
  sk_ReleasePackage(treeInfo);
  if (process) ObDereferenceObject(process);
  SK_LEAVE(status);
  return status;
}
