#include "monitor/probers.h"

#include "channel/registration.h"
#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/callback_plus.h"
#include "monitor/event_report.h"
#include "monitor/process_query.h"
#include "names/path_convert.h"
#include "names/string_block.h"
#include "rules/rule_sets.h"

#define SK_MODULE SK_TRACE_REPORT

BOOLEAN ThreadProberInited = FALSE;
PEPROCESS ServiceProc = NULL;
HANDLE ServicePid = NULL;
// The System process: the start runs on the system's driver-load thread, in that process.
static PEPROCESS SkSystemProcess = NULL;

// The cheap tests every notification goes through before any lookup.
static BOOLEAN sk_ProberWants(HANDLE ProcessId, SK_EVENT_TYPE Type) {
  return SK_READ_ONCE(SentrelOnline) && !sk_IsConsumerProcess(ProcessId) &&
         (SK_READ_ONCE(SentrelData.EventMask) & SK_EVENT_MASK_BIT(Type)) != 0;
}

VOID sk_ThreadProber(HANDLE ProcessId, HANDLE ThreadId, BOOLEAN Create) {
  HANDLE current = PsGetCurrentProcessId();
  PEPROCESS target = NULL, source = NULL;
  PUNICODE_STRING sourceName = NULL;

  if (!sk_ProberWants(current, ET_REMOTE_THREAD_CREATE) || !Create || current == ProcessId) return;
  PAGED_CODE();
  SK_ENTER();
  if (!NT_SUCCESS(PsLookupProcessByProcessId(ProcessId, &target))) {
    target = NULL;
    goto Exit;
  }
  // A creator starting the first thread of its own new child is no remote thread.
  if (SentrelData.PsGetProcessInheritedFromUniqueProcessId(target) == current) goto Exit;
  if (!NT_SUCCESS(PsLookupProcessByProcessId(current, &source))) {
    source = NULL;
    goto Exit;
  }
  if (!NT_SUCCESS(SentrelData.SeLocateProcessImageName(source, &sourceName))) {
    sourceName = NULL;
    goto Exit;
  }
  if (NT_SUCCESS(sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, ET_REMOTE_THREAD_CREATE, sourceName))) {
    SK_INFO("[sk_ThreadProber] Match White Rule Bypass %wZ\n", sourceName);
  } else {
    sk_ReportRemoteThreadEvent(source, target, PsGetCurrentThreadId(), ThreadId);
  }
Exit:
  if (sourceName) ExFreePool(sourceName);
  if (source) ObDereferenceObject(source);
  if (target) ObDereferenceObject(target);
  SK_LEAVE(STATUS_SUCCESS);
}

VOID sk_xxLoadImageProber(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo) {
  BOOLEAN driver = ImageInfo->SystemModeImage != 0;
  SK_EVENT_TYPE type = driver ? ET_DRIVER_LOAD : ET_IMAGE_LOAD;
  PUNICODE_STRING path = NULL;
  NTSTATUS status;

  if (!sk_ProberWants(ProcessId, type) || !FullImageName) return;
  PAGED_CODE();
  SK_ENTER();
  status = sk_GetImageRealPath(FullImageName, &path);
  if (!NT_SUCCESS(status)) {
    SK_INFO("FullImageName:%wZ\n", FullImageName);
    SK_FAIL("sk_GetImageRealPath", status);
    path = NULL;
    goto Exit;
  }
  if (driver) {
    if (NT_SUCCESS(sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, ET_DRIVER_LOAD, path))) {
      SK_INFO("[sk_xxLoadImageProber][DriverLoad] Match White Rule Bypass %wZ\n", path);
    } else {
      sk_ReportDriverLoadEvent(path);
    }
  } else if (NT_SUCCESS(sk_MatchBlackRule(&SentrelData.BlackRuleMgr, ET_IMAGE_LOAD, path))) {
    // A black rule singles the image out whatever the white rules say.
    SK_INFO("[sk_xxLoadImageProber][ImageLoad] Match Black Rule Report %wZ\n", path);
    sk_ReportImageLoadEvent(path, ImageInfo);
  } else if (NT_SUCCESS(sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, ET_IMAGE_LOAD, path))) {
    SK_INFO("[sk_xxLoadImageProber][ImageLoad] Match White Rule Bypass %wZ\n", path);
  } else {
    sk_ReportImageLoadEvent(path, ImageInfo);
  }
Exit:
  if (path && path != FullImageName) skt_FreeUnicodeStringSelf(path);
  SK_LEAVE(STATUS_SUCCESS);
}

NTSTATUS sk_GetDriverLoadActor(PEPROCESS *Process, PHANDLE ProcessId) {
  PEPROCESS found;
  PAGED_CODE();
  *Process = NULL;
  if (!ServiceProc) {
    SK_ERROR("ServiceProc == NULL\n");
    return STATUS_INVALID_PARAMETER;
  }
  if (IoGetCurrentProcess() != SkSystemProcess) {
    *Process = IoGetCurrentProcess();
    ObReferenceObject(*Process);
    *ProcessId = PsGetCurrentProcessId();
    return STATUS_SUCCESS;
  }
  // The recorded object stays valid (it is referenced), but once services.exe has exited its id
  // may name another process, whose packages a report must not carry.
  if (!NT_SUCCESS(PsLookupProcessByProcessId(ServicePid, &found))) found = NULL;
  if (found != ServiceProc) {
    if (found) ObDereferenceObject(found);
    SK_ERROR("ServiceProc Exited\n");
    return STATUS_INVALID_PARAMETER;
  }
  *Process = found;
  *ProcessId = ServicePid;
  return STATUS_SUCCESS;
}

typedef struct _SK_SERVICE_SEARCH {
  PUNICODE_STRING Path;
  PEPROCESS Found;  // referenced
  NTSTATUS Status;
} SK_SERVICE_SEARCH, *PSK_SERVICE_SEARCH;

NTSTATUS sk_FindServiceProcCallback(PSYSTEM_PROCESS_INFORMATION ProcessEntry, PVOID Context) {
  PSK_SERVICE_SEARCH search = (PSK_SERVICE_SEARCH)Context;
  PEPROCESS process;
  PUNICODE_STRING name = NULL;
  BOOLEAN synchronized;
  NTSTATUS status;

  PAGED_CODE();
  if (ProcessEntry->UniqueProcessId == (HANDLE)0 || ProcessEntry->UniqueProcessId == (HANDLE)4) {
    SK_INFO("ByPass Pid:0 and Pid:4\n");
    return STATUS_SUCCESS;
  }
  status = PsLookupProcessByProcessId(ProcessEntry->UniqueProcessId, &process);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsLookupProcessByProcessId", status);
    return STATUS_SUCCESS;
  }
  synchronized = NT_SUCCESS(SentrelData.PsAcquireProcessExitSynchronization(process));
  if (NT_SUCCESS(SentrelData.SeLocateProcessImageName(process, &name))) {
    if (RtlEqualUnicodeString(name, search->Path, TRUE)) {
      ObReferenceObject(process);  // kept until the probers stop
      search->Found = process;
      search->Status = STATUS_SUCCESS;
      SK_INFO("ServicePid:0x%0x ServiceProc:0x%p\n", (ULONG)(ULONG_PTR)ProcessEntry->UniqueProcessId, process);
    }
    ExFreePool(name);
  }
  if (synchronized) SentrelData.PsReleaseProcessExitSynchronization(process);
  ObDereferenceObject(process);
  return search->Found ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS sk_FindServiceProc(struct _SENTREL_DATA *Data) {
  UNICODE_STRING tail = SK_CONSTANT_STRING(L"\\System32\\services.exe");
  SK_SERVICE_SEARCH search;

  PAGED_CODE();
  SK_ENTER();
  search.Found = NULL;
  search.Status = STATUS_NOT_FOUND;
  search.Path = skt_AllocateUnicodeStringSelf(PagedPool, Data->SystemRootNtPath->Length + tail.Length);
  if (!search.Path) {
    SK_ERROR("Path alloc fail\n");
    search.Status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlCopyUnicodeString(search.Path, Data->SystemRootNtPath);
  RtlAppendUnicodeStringToString(search.Path, &tail);
  skt_EnumProcess(sk_FindServiceProcCallback, &search);
  ServiceProc = search.Found;
  if (search.Found) ServicePid = PsGetProcessId(search.Found);
  skt_FreeUnicodeStringSelf(search.Path);
Exit:
  SK_LEAVE(search.Status);
  return search.Status;
}

NTSTATUS sk_InitPsThreadProber(struct _SENTREL_DATA *Data) {
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  if (ThreadProberInited) {
    SK_INFO("PsThreadProber Already Inited\n");
    goto Exit;
  }
  status = (Data->InitFlags & SK_CALLBACK_PLUS_THREAD) ? sk_PsSetCreateThreadNotifyRoutine(sk_ThreadProber)
                                                       : STATUS_INSUFFICIENT_RESOURCES;
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PsSetCreateThreadNotifyRoutine", status);
    goto Exit;
  }
  status = sk_PsSetLoadImageNotifyRoutine(sk_xxLoadImageProber);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PsSetLoadImageNotifyRoutine", status);
    sk_PsRemoveCreateThreadNotifyRoutine(sk_ThreadProber);
    goto Exit;
  }
  SkSystemProcess = IoGetCurrentProcess();
  sk_FindServiceProc(Data);
  ThreadProberInited = TRUE;
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitPsThreadProber(void) {
  PAGED_CODE();
  SK_ENTER();
  if (!ThreadProberInited) {
    SK_INFO("PsThreadProber no Inited\n");
    goto Exit;
  }
  SK_WRITE_ONCE(SentrelOnline, FALSE);
  SK_INFO("Remove sk_xxLoadImageProber\n");
  sk_PsRemoveLoadImageNotifyRoutine(sk_xxLoadImageProber);
  SK_INFO("Remove sk_ThreadProber\n");
  sk_PsRemoveCreateThreadNotifyRoutine(sk_ThreadProber);
  // No prober runs any more: the recorded process can go.
  if (ServiceProc) ObDereferenceObject(ServiceProc);
  ServiceProc = NULL;
  ServicePid = NULL;
  ThreadProberInited = FALSE;
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
