#include "names/logon_mgr.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "monitor/callback_plus.h"
#include "monitor/process_query.h"
#include "names/path_convert.h"
#include "names/string_block.h"
#include "names/token_query.h"
#include "platform/resource_lock.h"

#define SK_MODULE SK_TRACE_LOGON

static BOOLEAN sk_LogonMgrInited(PSK_LOGON_MGR LogonMgr) {
  return (SK_READ_ONCE(LogonMgr->Flags) & SK_LOGON_MGR_INITED) != 0;
}

// The newest node of a logon id; the caller holds the lock.
static PLOGON_INFO_NODE sk_FindLogonNode(PSK_LOGON_MGR LogonMgr, ULONG64 LogonId) {
  PLIST_ENTRY entry;
  for (entry = LogonMgr->NodeList.Flink; entry != &LogonMgr->NodeList; entry = entry->Flink) {
    PLOGON_INFO_NODE node = CONTAINING_RECORD(entry, LOGON_INFO_NODE, Link);
    if (node->LogonId == LogonId) return node;
  }
  return NULL;
}

// Whether Node itself is in the list; the caller holds the lock. Two adds racing for one session
// may both insert: a release must act on the node it was handed, not on a newer twin.
static BOOLEAN sk_LogonNodeListed(PSK_LOGON_MGR LogonMgr, PLOGON_INFO_NODE Node) {
  PLIST_ENTRY entry;
  for (entry = LogonMgr->NodeList.Flink; entry != &LogonMgr->NodeList; entry = entry->Flink) {
    if (CONTAINING_RECORD(entry, LOGON_INFO_NODE, Link) == Node) return TRUE;
  }
  return FALSE;
}

static VOID sk_FreeLogonNode(PSK_LOGON_MGR LogonMgr, PLOGON_INFO_NODE Node) {
  if (Node->UserName) skt_FreeUnicodeStringSelf(Node->UserName);
  if (Node->UserSid) skt_FreeUnicodeStringSelf(Node->UserSid);
  ExFreeToPagedLookasideList(&LogonMgr->NodeLookaside, Node);
}

// The checks an add and a delete start with: the table running, and the process's logon id.
static NTSTATUS sk_ProcessLogonId(PSK_LOGON_MGR LogonMgr, PEPROCESS Process, PULONG64 LogonId) {
  NTSTATUS status;
  if (!sk_LogonMgrInited(LogonMgr)) {
    SK_ERROR("Logon Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  status = skt_GetLogonId(Process, LogonId);
  if (!NT_SUCCESS(status)) SK_FAIL("skt_GetLogonId", status);
  return status;
}

NTSTATUS sk_AddLogonInfo(PSK_LOGON_MGR LogonMgr, PEPROCESS Process) {
  NTSTATUS status = STATUS_SUCCESS;
  ULONG64 logonId = 0;
  PLOGON_INFO_NODE node;
  BOOLEAN known;

  PAGED_CODE();
  SK_ENTER();
  status = sk_ProcessLogonId(LogonMgr, Process, &logonId);
  if (!NT_SUCCESS(status)) goto Exit;
  skt_AcquireShared(&LogonMgr->Lock);
  known = sk_FindLogonNode(LogonMgr, logonId) != NULL;
  skt_Release(&LogonMgr->Lock);
  if (known) goto Exit;

  node = (PLOGON_INFO_NODE)ExAllocateFromPagedLookasideList(&LogonMgr->NodeLookaside);
  if (!node) {
    SK_ERROR("Node alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(node, sizeof(*node));
  node->Tag = SK_RECORD_LOGON_NODE;
  node->Size = sizeof(*node);
  node->RefCount = 1;
  node->LogonId = logonId;
  node->SessionId = SentrelData.PsGetProcessSessionId(Process);
  status = skt_GetUserName(Process, &node->UserName);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetUserName", status);
    sk_FreeLogonNode(LogonMgr, node);
    goto Exit;
  }
  status = skt_GetUserSid_Process(Process, &node->UserSid);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetUserSid_Process", status);
    sk_FreeLogonNode(LogonMgr, node);
    goto Exit;
  }
  // Not checked again: a racing add for the same session may insert a twin; lookups find the newer.
  skt_AcquireExclusive(&LogonMgr->Lock);
  InsertHeadList(&LogonMgr->NodeList, &node->Link);
  SK_INFO("Add User:%wZ UserSid:%wZ\n", node->UserName, node->UserSid);
  skt_Release(&LogonMgr->Lock);
Exit:
  SK_LEAVE(status);
  return status;
}

// The checks a lookup and a release start with: the table running, and the node argument given.
static NTSTATUS sk_CheckLogonCall(PSK_LOGON_MGR LogonMgr, const VOID *Node) {
  if (!sk_LogonMgrInited(LogonMgr)) {
    SK_ERROR("Logon Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  if (!Node) {
    SK_ERROR("Invalid Parameter\n");
    return STATUS_INVALID_PARAMETER;
  }
  return STATUS_SUCCESS;
}

NTSTATUS sk_LookupLogonInfo_LogonId(PSK_LOGON_MGR LogonMgr, ULONG64 LogonId, PLOGON_INFO_NODE *Node) {
  NTSTATUS status = STATUS_SUCCESS;
  PLOGON_INFO_NODE node = NULL;

  PAGED_CODE();
  SK_ENTER();
  status = sk_CheckLogonCall(LogonMgr, Node);
  if (!NT_SUCCESS(status)) goto Exit;
  skt_AcquireShared(&LogonMgr->Lock);
  if (sk_LogonMgrInited(LogonMgr)) {
    node = sk_FindLogonNode(LogonMgr, LogonId);
    if (node) InterlockedIncrement(&node->RefCount);
  } else {
    status = STATUS_INSUFFICIENT_RESOURCES;
  }
  skt_Release(&LogonMgr->Lock);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("Logon Mgr no Inited\n");
    goto Exit;
  }
  if (!node) {
    SK_ERROR("No Find LogonId:0x%I64x\n", LogonId);
    status = STATUS_NOT_FOUND;
    goto Exit;
  }
  *Node = node;
  SK_INFO("Find Node:0x%p LogonId:0x%0x UserName:%wZ UserSid:%wZ\n", node, (ULONG)node->LogonId, node->UserName,
          node->UserSid);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_ReleaseLogonInfo_Node(PSK_LOGON_MGR LogonMgr, PLOGON_INFO_NODE Node) {
  NTSTATUS status = STATUS_SUCCESS;
  BOOLEAN removed = FALSE;
  LONG count;

  PAGED_CODE();
  SK_ENTER();
  status = sk_CheckLogonCall(LogonMgr, Node);
  if (!NT_SUCCESS(status)) goto Exit;
  skt_AcquireShared(&LogonMgr->Lock);
  if (IsListEmpty(&LogonMgr->NodeList)) {
    skt_Release(&LogonMgr->Lock);
    goto Exit;
  }
  if (!sk_LogonNodeListed(LogonMgr, Node)) {
    skt_Release(&LogonMgr->Lock);
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  // A held reference goes with the lock shared; the count never drops below the list's own 1 here.
  for (count = SK_READ_ONCE(Node->RefCount); count >= 2; count = SK_READ_ONCE(Node->RefCount)) {
    if (InterlockedCompareExchange(&Node->RefCount, count - 1, count) == count) break;
  }
  skt_Release(&LogonMgr->Lock);
  if (count >= 2) goto Exit;

  // The last reference: remove it, if it is still listed and still unheld once the lock is exclusive.
  skt_AcquireExclusive(&LogonMgr->Lock);
  if (sk_LogonNodeListed(LogonMgr, Node) && Node->RefCount == 1) {
    RemoveEntryList(&Node->Link);
    SK_INFO("Remove Node:0x%p UserName:%wZ UserSid:%wZ\n", Node, Node->UserName, Node->UserSid);
    removed = TRUE;
  } else {
    status = STATUS_INVALID_PARAMETER;
  }
  skt_Release(&LogonMgr->Lock);
  if (removed) sk_FreeLogonNode(LogonMgr, Node);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_DelLogonInfo(PSK_LOGON_MGR LogonMgr, PEPROCESS Process) {
  NTSTATUS status = STATUS_SUCCESS;
  ULONG64 logonId = 0;
  PLOGON_INFO_NODE node;

  PAGED_CODE();
  SK_ENTER();
  status = sk_ProcessLogonId(LogonMgr, Process, &logonId);
  if (!NT_SUCCESS(status)) goto Exit;
  // The service sessions' nodes stay until the table stops.
  if (skt_IsServiceLogonId(logonId)) {
    SK_INFO("Windows Default LogonId:0x%I64x\n", logonId);
    goto Exit;
  }
  skt_AcquireExclusive(&LogonMgr->Lock);
  node = sk_FindLogonNode(LogonMgr, logonId);
  if (node && node->RefCount == 1) {
    RemoveEntryList(&node->Link);
    SK_INFO("Remove Node:0x%p UserName:%wZ UserSid:%wZ\n", node, node->UserName, node->UserSid);
  } else {
    node = NULL;  // none, or held: a held node outlives its session
  }
  skt_Release(&LogonMgr->Lock);
  if (node) sk_FreeLogonNode(LogonMgr, node);
Exit:
  SK_LEAVE(status);
  return status;
}

VOID sk_DelAllLogonInfo(PSK_LOGON_MGR LogonMgr) {
  PAGED_CODE();
  SK_ENTER();
  skt_AcquireExclusive(&LogonMgr->Lock);
  while (!IsListEmpty(&LogonMgr->NodeList)) {
    PLOGON_INFO_NODE node = CONTAINING_RECORD(RemoveHeadList(&LogonMgr->NodeList), LOGON_INFO_NODE, Link);
    SK_INFO("Del Node:0x%p User:%wZ UserSid:%wZ\n", node, node->UserName, node->UserSid);
    sk_FreeLogonNode(LogonMgr, node);
  }
  skt_Release(&LogonMgr->Lock);
  SK_LEAVE(STATUS_SUCCESS);
}

// Forgets the add threads that have ended. Wait: the stop waits for every one instead.
static VOID sk_ReapLogonAddThreads(PSK_LOGON_MGR LogonMgr, BOOLEAN Wait) {
  LARGE_INTEGER now;
  PLIST_ENTRY entry;
  PLIST_ENTRY next;

  now.QuadPart = 0;
  skt_AcquireExclusive(&LogonMgr->ThreadLock);
  for (entry = LogonMgr->ThreadList.Flink; entry != &LogonMgr->ThreadList; entry = next) {
    PLOGON_ADD_THREAD record = CONTAINING_RECORD(entry, LOGON_ADD_THREAD, Link);
    next = entry->Flink;
    if (KeWaitForSingleObject(record->Thread, Executive, KernelMode, FALSE, Wait ? NULL : &now) == STATUS_TIMEOUT) {
      continue;
    }
    RemoveEntryList(&record->Link);
    ObDereferenceObject(record->Thread);
    ExFreePoolWithTag(record, SK_TAG_LOGON_THREAD);
  }
  skt_Release(&LogonMgr->ThreadLock);
}

// Starts the thread that adds the trigger's session; on success it owns the process reference.
// The thread is remembered (its object referenced) until it is seen to end: the table's stop waits
// for it, so that no add thread still runs the driver's code, or uses the table, once the table
// (or the driver) is gone. A reference count that the thread dropped itself would leave its last
// instructions, after the drop, racing the unload.
static NTSTATUS sk_StartLogonAddThread(PSK_LOGON_MGR LogonMgr, PEPROCESS Process) {
  NTSTATUS status;
  OBJECT_ATTRIBUTES attributes;
  HANDLE handle = NULL;
  PLOGON_ADD_THREAD record;

  sk_ReapLogonAddThreads(LogonMgr, FALSE);
  record = (PLOGON_ADD_THREAD)ExAllocatePoolWithTag(PagedPool, sizeof(*record), SK_TAG_LOGON_THREAD);
  if (!record) {
    SK_ERROR("[sk_LogonNotfiy] thread record alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  InitializeObjectAttributes(&attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
  status = PsCreateSystemThread(&handle, GENERIC_ALL, &attributes, NULL, NULL, sk_AddLogonInfoThread, Process);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("[sk_LogonNotfiy] PsCreateSystemThread fail Status:%08lx\n", status);
    ExFreePoolWithTag(record, SK_TAG_LOGON_THREAD);
    return status;
  }
  // A handle just made with every access refers to a thread: this cannot fail; if it ever did, the
  // thread would go untracked rather than the process reference it owns being released twice.
  if (NT_SUCCESS(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, (PVOID *)&record->Thread,
                                           NULL))) {
    skt_AcquireExclusive(&LogonMgr->ThreadLock);
    InsertTailList(&LogonMgr->ThreadList, &record->Link);
    skt_Release(&LogonMgr->ThreadLock);
  } else {
    SK_ERROR("[sk_LogonNotfiy] ObReferenceObjectByHandle fail\n");
    ExFreePoolWithTag(record, SK_TAG_LOGON_THREAD);
  }
  ZwClose(handle);
  return STATUS_SUCCESS;
}

// Whether the image is a logon trigger: dwm.exe of the system folder before Windows 10, anything
// under System32\InputMethod\ from Windows 10 on; any letter case.
static BOOLEAN sk_IsLogonTrigger(PSK_LOGON_MGR LogonMgr, PUNICODE_STRING ImagePath) {
  if (SharedUserData->NtMajorVersion < 10) return RtlEqualUnicodeString(ImagePath, LogonMgr->DwmPath, TRUE);
  return RtlPrefixUnicodeString(LogonMgr->InputMethodPrefix, ImagePath, TRUE);
}

VOID sk_LogonNotfiy(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  PSK_LOGON_MGR logonMgr = &SentrelData.LogonMgr;
  PEPROCESS process = NULL;
  PUNICODE_STRING imagePath = NULL;

  UNREFERENCED_PARAMETER(ParentId);
  PAGED_CODE();
  SK_ENTER();
  if (!sk_LogonMgrInited(logonMgr)) {
    SK_ERROR("Logon Mgr no Inited\n");
    goto Exit;
  }
  if (!NT_SUCCESS(PsLookupProcessByProcessId(ProcessId, &process))) {
    process = NULL;
    goto Exit;
  }
  if (!NT_SUCCESS(SentrelData.SeLocateProcessImageName(process, &imagePath))) {
    imagePath = NULL;
    goto Exit;
  }
  if (!sk_IsLogonTrigger(logonMgr, imagePath)) goto Exit;

  SK_INFO("Logon trigger %wZ Pid:%d %s\n", imagePath, (ULONG)(ULONG_PTR)ProcessId, Create ? "created" : "exits");
  if (Create) {
    // The user name is not asked here, inside the notification: a thread of its own does it.
    if (NT_SUCCESS(sk_StartLogonAddThread(logonMgr, process))) process = NULL;  // the thread's now
  } else {
    ULONG64 logonId;
    if (NT_SUCCESS(skt_GetLogonId(process, &logonId))) {
      sk_DelLogonInfoCacheInternal(&SentrelData.PackageCacheMgr, logonId);
    }
    sk_DelLogonInfo(logonMgr, process);
  }
Exit:
  if (imagePath) ExFreePool(imagePath);
  if (process) ObDereferenceObject(process);
  SK_LEAVE(STATUS_SUCCESS);
}

VOID sk_AddLogonInfoThread(PVOID Process) {
  PAGED_CODE();
  sk_AddLogonInfo(&SentrelData.LogonMgr, (PEPROCESS)Process);
  ObDereferenceObject(Process);
  PsTerminateSystemThread(STATUS_SUCCESS);
}

NTSTATUS sk_AddExistingLogonInfoCallback(PSYSTEM_PROCESS_INFORMATION ProcessEntry, PVOID Context) {
  PSK_LOGON_MGR logonMgr = (PSK_LOGON_MGR)Context;
  PEPROCESS process = NULL;
  PUNICODE_STRING imagePath = NULL;
  PLOGON_INFO_NODE node = NULL;
  ULONG64 logonId = 0;

  PAGED_CODE();
  if (!NT_SUCCESS(PsLookupProcessByProcessId(ProcessEntry->UniqueProcessId, &process))) return STATUS_SUCCESS;
  // Every session with a process whose image is known gets a node, the service sessions included.
  if (NT_SUCCESS(SentrelData.SeLocateProcessImageName(process, &imagePath))) {
    if (NT_SUCCESS(skt_GetLogonId(process, &logonId))) {
      if (NT_SUCCESS(sk_LookupLogonInfo_LogonId(logonMgr, logonId, &node))) {
        sk_ReleaseLogonInfo_Node(logonMgr, node);
      } else {
        sk_AddLogonInfo(logonMgr, process);
      }
    }
    ExFreePool(imagePath);
  }
  ObDereferenceObject(process);
  return STATUS_SUCCESS;
}

// Frees what the start made of the record (paths, lookaside list, locks).
static VOID sk_ReleaseLogonMgr(PSK_LOGON_MGR LogonMgr) {
  if (LogonMgr->InputMethodPrefix) skt_FreeUnicodeStringSelf(LogonMgr->InputMethodPrefix);
  if (LogonMgr->ExplorerPath) skt_FreeUnicodeStringSelf(LogonMgr->ExplorerPath);
  if (LogonMgr->DwmPath) skt_FreeUnicodeStringSelf(LogonMgr->DwmPath);
  ExDeletePagedLookasideList(&LogonMgr->NodeLookaside);
  ExDeleteResourceLite(&LogonMgr->ThreadLock);
  ExDeleteResourceLite(&LogonMgr->Lock);
  RtlZeroMemory(LogonMgr, sizeof(*LogonMgr));
}

// The NT path of a \SystemRoot file, as a string block.
static NTSTATUS sk_SystemFileNtPath(PCWSTR Path, PUNICODE_STRING *NtPath) {
  UNICODE_STRING path;
  RtlInitUnicodeString(&path, Path);
  return skt_PathConvertToNtPath(PagedPool, FALSE, NULL, &path, NtPath, NULL);
}

NTSTATUS sk_InitLogonMgr(PSK_LOGON_MGR LogonMgr, PUNICODE_STRING SystemRootNtPath) {
  NTSTATUS status = STATUS_SUCCESS;
  UNICODE_STRING inputMethod = SK_CONSTANT_STRING(L"\\System32\\InputMethod\\");

  PAGED_CODE();
  SK_ENTER();
  if (sk_LogonMgrInited(LogonMgr)) {
    SK_ERROR("Logon Mgr Already Inited\n");
    goto Exit;
  }
  if (!SystemRootNtPath) {
    SK_ERROR("!SystemRootNtPath\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  RtlZeroMemory(LogonMgr, sizeof(*LogonMgr));
  LogonMgr->Tag = SK_RECORD_LOGON_MGR;
  LogonMgr->Size = sizeof(*LogonMgr);
  ExInitializeResourceLite(&LogonMgr->Lock);
  ExInitializeResourceLite(&LogonMgr->ThreadLock);
  InitializeListHead(&LogonMgr->NodeList);
  InitializeListHead(&LogonMgr->ThreadList);
  ExInitializePagedLookasideList(&LogonMgr->NodeLookaside, NULL, NULL, 0, sizeof(LOGON_INFO_NODE), SK_TAG_LOGON_NODE,
                                 0);

  status = sk_SystemFileNtPath(L"\\SystemRoot\\System32\\dwm.exe", &LogonMgr->DwmPath);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("[dwm.exe] skt_PathConvertToNtPath fail Status:%08lx\n", status);
    LogonMgr->DwmPath = NULL;
    goto Undo;
  }
  SK_INFO("%ws -> %wZ\n", L"\\SystemRoot\\System32\\dwm.exe", LogonMgr->DwmPath);
  status = sk_SystemFileNtPath(L"\\SystemRoot\\Explorer.EXE", &LogonMgr->ExplorerPath);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("[Explorer.EXE] skt_PathConvertToNtPath fail Status:%08lx\n", status);
    LogonMgr->ExplorerPath = NULL;
    goto Undo;
  }
  SK_INFO("%ws -> %wZ\n", L"\\SystemRoot\\Explorer.EXE", LogonMgr->ExplorerPath);
  if (SharedUserData->NtMajorVersion >= 10) {
    LogonMgr->InputMethodPrefix =
        skt_AllocateUnicodeStringSelf(PagedPool, (ULONG)SystemRootNtPath->Length + inputMethod.Length);
    if (!LogonMgr->InputMethodPrefix) {
      SK_ERROR("[ChsIME.exe] skt_AllocateUnicodeStringSelf fail\n");
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Undo;
    }
    RtlCopyUnicodeString(LogonMgr->InputMethodPrefix, SystemRootNtPath);
    RtlAppendUnicodeStringToString(LogonMgr->InputMethodPrefix, &inputMethod);
  }
  if (!(SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)) {
    status = STATUS_INSUFFICIENT_RESOURCES;
  } else {
    status = sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_LogonNotfiy, FALSE);
  }
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", status);
    goto Undo;
  }

  // Inited before the walk, so that its adds are taken; what the walk finds does not change the
  // result.
  InterlockedOr(&LogonMgr->Flags, SK_LOGON_MGR_INITED);
  SK_INFO("LogonMgr Init Success\n");
  skt_EnumProcess(sk_AddExistingLogonInfoCallback, LogonMgr);
  status = STATUS_SUCCESS;
  goto Exit;

Undo:
  sk_ReleaseLogonMgr(LogonMgr);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitLogonMgr(PSK_LOGON_MGR LogonMgr) {
  NTSTATUS status;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_LogonMgrInited(LogonMgr)) {
    SK_ERROR("Logon Mgr no Inited\n");
    goto Exit;
  }
  InterlockedAnd(&LogonMgr->Flags, ~SK_LOGON_MGR_INITED);
  SK_INFO("Remove sk_LogonNotfiy\n");
  // Once the removal returns no notification is left that could start another add thread.
  if (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS) {
    status = sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_LogonNotfiy, TRUE);
    if (!NT_SUCCESS(status)) SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", status);
  }
  sk_ReapLogonAddThreads(LogonMgr, TRUE);
  SK_INFO("Del All Logon Info\n");
  sk_DelAllLogonInfo(LogonMgr);
  sk_ReleaseLogonMgr(LogonMgr);
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
