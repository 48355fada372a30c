#include "monitor/process_mgr.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "core/table_compare.h"
#include "monitor/callback_plus.h"
#include "monitor/image_mgr.h"
#include "monitor/package_block.h"
#include "monitor/process_query.h"
#include "names/path_convert.h"
#include "names/string_block.h"
#include "names/token_query.h"
#include "platform/resource_lock.h"
#include "rules/path_rule.h"

#define SK_MODULE SK_TRACE_PROCESS

static PVOID NTAPI sk_ProcTableAllocate(PRTL_AVL_TABLE Table, CLONG ByteSize) {
  UNREFERENCED_PARAMETER(Table);
  return ExAllocatePoolWithTag(PagedPool, ByteSize, SK_TAG_PROC_TABLE);
}

static VOID NTAPI sk_ProcTableFree(PRTL_AVL_TABLE Table, PVOID Buffer) {
  UNREFERENCED_PARAMETER(Table);
  ExFreePoolWithTag(Buffer, SK_TAG_PROC_TABLE);
}

ULONG64 sk_ProcKey(ULONG64 ProcessId, LONGLONG CreateTime) { return (ProcessId << 32) | (ULONG)CreateTime; }

static BOOLEAN sk_ProcessMgrInited(PSK_PROCESS_MGR ProcessMgr) {
  return ProcessMgr && (SK_READ_ONCE(ProcessMgr->Flags) & SK_PROCESS_MGR_INITED) != 0;
}

static PPROC_INFO_NODE sk_FindProcNode(PSK_PROCESS_MGR ProcessMgr, ULONG64 ProcessId, LONGLONG CreateTime) {
  PROC_INFO_NODE probe;
  probe.Key = sk_ProcKey(ProcessId, CreateTime);
  return (PPROC_INFO_NODE)RtlLookupElementGenericTableAvl(&ProcessMgr->Table, &probe);
}

static VOID sk_FreeString(PUNICODE_STRING String) {
  if (String) skt_FreeUnicodeStringSelf(String);
}

// Frees what a node owns: path references, strings and (for a table node) its images.
static VOID sk_ReleaseProcContents(PPROC_INFO_NODE Node) {
  if (Node->NtImagePath) sk_ReleasePathCache_Node(&SentrelData.PathMgr, Node->NtImagePath);
  if (Node->DosImagePath) sk_ReleasePathCache_Node(&SentrelData.PathMgr, Node->DosImagePath);
  sk_FreeString(Node->UserName);
  sk_FreeString(Node->UserSid);
  sk_FreeString(Node->CommandLine);
  sk_FreeString(Node->CurrentDirectory);
  sk_FreeString(Node->ImageFileName);
  Node->NtImagePath = Node->DosImagePath = NULL;
  Node->UserName = Node->UserSid = Node->CommandLine = Node->CurrentDirectory = Node->ImageFileName = NULL;
}

VOID sk_FreeProcInfo(PPROC_INFO_NODE Block, BOOLEAN FreeContents) {
  if (!Block) return;
  if (FreeContents) sk_ReleaseProcContents(Block);
  ExFreePoolWithTag(Block, SK_TAG_PROC_BLOCK);
}

// Removes a table node whatever its count; the table lock is held exclusively.
static VOID sk_RemoveProcNode(PSK_PROCESS_MGR ProcessMgr, PPROC_INFO_NODE Node) {
  PROC_INFO_NODE key;
  sk_ReleaseProcNodeImages(Node);
  sk_ReleaseProcContents(Node);
  if (Node->ImageListLock) ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, Node->ImageListLock);
  key.Key = Node->Key;
  RtlDeleteElementGenericTableAvl(&ProcessMgr->Table, &key);
}

// The creator's time, or 0 when the creator began after the process (ids are reused): such a
// process is a root.
static LONGLONG sk_CreatorTime(LONGLONG CreatorCreateTime, LONGLONG CreateTime) {
  return CreatorCreateTime > CreateTime ? 0 : CreatorCreateTime;
}

// A system time as seconds since an epoch (seconds from 1601 to it); 0 outside what 32 bits hold.
// The kernel's RtlTimeToSecondsSince1970/1980 do the same, but their pages name no Windows version.
static ULONG sk_SecondsSince(LONGLONG Time, LONGLONG EpochSeconds) {
  LONGLONG seconds = Time / 10000000 - EpochSeconds;
  return seconds < 0 || seconds > 0xFFFFFFFFLL ? 0 : (ULONG)seconds;
}

// ProcessIdentity: inherited-from id, environment block, seconds since 1970, session, id, seconds
// since 1980, each cut to the width given.
static VOID sk_FillProcessIdentity(PEPROCESS Process, LONGLONG CreateTime, PUCHAR Identity) {
  ULONG since1970 = sk_SecondsSince(CreateTime, 11644473600LL);
  ULONG since1980 = sk_SecondsSince(CreateTime, 11960006400LL);
  USHORT inherited = (USHORT)(ULONG_PTR)SentrelData.PsGetProcessInheritedFromUniqueProcessId(Process);
  USHORT peb = (USHORT)(ULONG_PTR)SentrelData.PsGetProcessPeb(Process);
  USHORT session = (USHORT)SentrelData.PsGetProcessSessionId(Process);
  USHORT pid = (USHORT)(ULONG_PTR)PsGetProcessId(Process);
  RtlCopyMemory(Identity + 0, &inherited, 2);
  RtlCopyMemory(Identity + 2, &peb, 2);
  RtlCopyMemory(Identity + 4, &since1970, 4);
  RtlCopyMemory(Identity + 8, &session, 2);
  RtlCopyMemory(Identity + 10, &pid, 2);
  RtlCopyMemory(Identity + 12, &since1980, 4);
}

NTSTATUS sk_GetNewProcInfo(HANDLE ParentId, HANDLE ProcessId, BOOLEAN NoParent, BOOLEAN SkipPathInfo,
                           PPROC_INFO_NODE *Block) {
  NTSTATUS status;
  PEPROCESS parent = NULL;
  PEPROCESS process = NULL;
  PUNICODE_STRING imageName = NULL;
  PUNICODE_STRING dosPath = NULL;
  PPATH_CACHE_NODE ntNode = NULL;
  PPATH_CACHE_NODE dosNode = NULL;
  PPROC_INFO_NODE block = NULL;
  UNICODE_STRING lastName, rest;

  PAGED_CODE();
  SK_ENTER();
  *Block = NULL;
  if (!NoParent && ParentId != PsGetCurrentProcessId()) {
    status = PsLookupProcessByProcessId(ParentId, &parent);
    if (!NT_SUCCESS(status)) {
      SK_ERROR("Parent PsLookupProcessByProcessId fail Status:%08lx\n", status);
      parent = NULL;
      goto Exit;
    }
  }
  status = PsLookupProcessByProcessId(ProcessId, &process);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("Process PsLookupProcessByProcessId fail Status:%08lx\n", status);
    process = NULL;
    goto Exit;
  }
  status = SentrelData.SeLocateProcessImageName(process, &imageName);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("SeLocateProcessImageName", status);
    imageName = NULL;
    goto Exit;
  }
  status = sk_AddPathCache(&SentrelData.PathMgr, imageName, &ntNode);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_AddPathCache", status);
    ntNode = NULL;
    goto Exit;
  }
  status = skt_QueryDosPathFromNtPath(PagedPool, imageName, &dosPath);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_QueryDosPathFromNtPath", status);
    dosPath = NULL;
    goto Exit;
  }
  status = sk_AddPathCache(&SentrelData.PathMgr, dosPath, &dosNode);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_AddPathCache", status);
    dosNode = NULL;
    goto Exit;
  }
  block = (PPROC_INFO_NODE)ExAllocatePoolWithTag(PagedPool, sizeof(*block), SK_TAG_PROC_BLOCK);
  if (!block) {
    SK_ERROR("Node alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(block, sizeof(*block));
  block->Tag = SK_RECORD_PROC_NODE;
  block->Size = sizeof(*block);
  block->NtImagePath = ntNode;
  block->DosImagePath = dosNode;
  ntNode = dosNode = NULL;  // the block's now
  block->ProcessId = (ULONG64)(ULONG_PTR)ProcessId;
  block->CreateTime = PsGetProcessCreateTimeQuadPart(process);
  // Their statuses are not examined: an unknown level stays 0, an unknown session 0.
  skt_SeQueryInformationToken(process, &block->IntegrityLevel);
  skt_GetLogonId(process, &block->LogonId);
  sk_FillProcessIdentity(process, block->CreateTime, block->ProcessIdentity);
  status = skt_GetUserName(process, &block->UserName);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetUserName", status);
    goto Exit;
  }
  status = skt_GetUserSid_Process(process, &block->UserSid);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetUserSid_Process", status);
    goto Exit;
  }
  if (SkipPathInfo) {
    block->Flags |= SK_PROC_FLAG_NOT_REPORTED;
  } else if (!NT_SUCCESS(skt_GetProcessPathInfo(process, (PUNICODE_STRING *)&block->CommandLine,
                                                  (PUNICODE_STRING *)&block->CurrentDirectory))) {
    // Read again at the process's next image load.
    block->CommandLine = block->CurrentDirectory = NULL;
  }
  if (SentrelData.PsGetProcessWow64Process(process)) block->Flags |= SK_PROC_FLAG_WOW64;
  if (NoParent) {
    block->Flags |= SK_PROC_FLAG_NOT_REPORTED;
  } else {
    block->CreatorProcessId = (ULONG64)(ULONG_PTR)PsGetCurrentProcessId();
    block->ParentProcessId = (ULONG64)(ULONG_PTR)ParentId;
    block->CreatorCreateTime = sk_CreatorTime(PsGetProcessCreateTimeQuadPart(IoGetCurrentProcess()), block->CreateTime);
  }
  block->Key = sk_ProcKey(block->ProcessId, block->CreateTime);
  skt_DissectLastName(imageName, &lastName, &rest);
  if (lastName.Length) {
    block->ImageFileName = skt_AllocateUnicodeStringSelf(PagedPool, lastName.Length);
    if (block->ImageFileName) RtlCopyUnicodeString(block->ImageFileName, &lastName);
  }
  *Block = block;
  block = NULL;
  SK_INFO("Get New Node:0x%p\n", *Block);

Exit:
  if (block) sk_FreeProcInfo(block, TRUE);
  if (dosNode) sk_ReleasePathCache_Node(&SentrelData.PathMgr, dosNode);
  if (ntNode) sk_ReleasePathCache_Node(&SentrelData.PathMgr, ntNode);
  if (dosPath) skt_FreeUnicodeStringSelf(dosPath);
  if (imageName) ExFreePool(imageName);
  if (process) ObDereferenceObject(process);
  if (parent) ObDereferenceObject(parent);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_AddProcInfo(PSK_PROCESS_MGR ProcessMgr, PPROC_INFO_NODE Block, ULONG BlockSize, PPROC_INFO_NODE *Node,
                        PBOOLEAN Inserted) {
  NTSTATUS status = STATUS_SUCCESS;
  PFAST_MUTEX mutex;
  PPROC_INFO_NODE element;
  BOOLEAN isNew = FALSE;

  PAGED_CODE();
  SK_ENTER();
  if (Inserted) *Inserted = FALSE;
  if (!ProcessMgr || !Block) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  if (!sk_ProcessMgrInited(ProcessMgr)) {
    SK_ERROR("Process Mgr no Init\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  if (Block->ProcessId == 0 || Block->ProcessId == 4) {
    SK_INFO("ByPass Pid:0 or Pid:4\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  mutex = (PFAST_MUTEX)ExAllocateFromNPagedLookasideList(&SentrelData.MutexLookaside);
  if (!mutex) {
    SK_ERROR("FastMutext alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  ExInitializeFastMutex(mutex);
  skt_AcquireExclusive(&ProcessMgr->Lock);
  element = (PPROC_INFO_NODE)RtlInsertElementGenericTableAvl(&ProcessMgr->Table, Block, BlockSize, &isNew);
  if (!element) {
    SK_ERROR("Node alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
  } else if (isNew) {
    // The copy's list head must point at itself, not at the block's.
    InitializeListHead(&element->ImageList);
    element->ImageListLock = mutex;
    element->RefCount = 1;
    mutex = NULL;
    SK_INFO("Add New Node:0x%p Pid:0x%0x\n", element, (ULONG)element->ProcessId);
  }
  if (element && Node) {
    InterlockedIncrement(&element->RefCount);
    *Node = element;
  }
  skt_Release(&ProcessMgr->Lock);
  if (mutex) ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, mutex);
  if (Inserted) *Inserted = isNew;
Exit:
  SK_LEAVE(status);
  return status;
}

// The child's reference on its creator's node, if that node exists (the lock taken shared).
static VOID sk_ReferenceCreator(PSK_PROCESS_MGR ProcessMgr, ULONG64 CreatorId, LONGLONG CreatorTime) {
  PPROC_INFO_NODE creator;
  if (!CreatorTime) return;
  skt_AcquireShared(&ProcessMgr->Lock);
  creator = sk_FindProcNode(ProcessMgr, CreatorId, CreatorTime);
  if (creator) {
    LONG count = InterlockedIncrement(&creator->RefCount);
    SK_INFO("increment parent node:0x%p refcount:0x%0x\n", creator, count);
  }
  skt_Release(&ProcessMgr->Lock);
}

NTSTATUS sk_AddProcTreeInfo(PSK_PROCESS_MGR ProcessMgr, HANDLE ParentId, HANDLE ProcessId) {
  NTSTATUS status;
  PPROC_INFO_NODE block = NULL;
  BOOLEAN inserted = FALSE;

  PAGED_CODE();
  SK_ENTER();
  if (!ProcessMgr || !ParentId || ProcessId == (HANDLE)4) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  // The new process's parameter block is not read yet: its first image load completes the node.
  status = sk_GetNewProcInfo(ParentId, ProcessId, FALSE, TRUE, &block);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetNewProcInfo", status);
    goto Exit;
  }
  status = sk_AddProcInfo(ProcessMgr, block, sizeof(*block), NULL, &inserted);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_AddProcInfo", status);
    sk_FreeProcInfo(block, TRUE);
    goto Exit;
  }
  if (inserted) sk_ReferenceCreator(ProcessMgr, block->CreatorProcessId, block->CreatorCreateTime);
  // A new node took the block's strings and references; an existing one keeps its own.
  sk_FreeProcInfo(block, !inserted);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_DelProcInfo(PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId, LONGLONG CreateTime) {
  PPROC_INFO_NODE node;

  PAGED_CODE();
  if (!ProcessMgr || !ProcessId || ProcessId == (HANDLE)4) return STATUS_INVALID_PARAMETER;
  if (!sk_ProcessMgrInited(ProcessMgr)) return STATUS_INSUFFICIENT_RESOURCES;
  skt_AcquireExclusive(&ProcessMgr->Lock);
  node = sk_FindProcNode(ProcessMgr, (ULONG64)(ULONG_PTR)ProcessId, CreateTime);
  if (node) InterlockedOr(&node->Flags, SK_PROC_FLAG_EXITED);
  if (node && InterlockedDecrement(&node->RefCount) == 0) {
    sk_DelProcTreeInternal_Unlock(ProcessMgr, ProcessId, CreateTime);
  }
  skt_Release(&ProcessMgr->Lock);
  return STATUS_SUCCESS;
}

VOID sk_SetProcInfoExited(PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId, LONGLONG CreateTime) {
  PPROC_INFO_NODE node;
  PAGED_CODE();
  if (!sk_ProcessMgrInited(ProcessMgr)) return;
  skt_AcquireShared(&ProcessMgr->Lock);
  node = sk_FindProcNode(ProcessMgr, (ULONG64)(ULONG_PTR)ProcessId, CreateTime);
  if (node) InterlockedOr(&node->Flags, SK_PROC_FLAG_EXITED);
  skt_Release(&ProcessMgr->Lock);
}

BOOLEAN sk_IsProcInfoLive(PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId, LONGLONG CreateTime) {
  PPROC_INFO_NODE node;
  BOOLEAN live;
  PAGED_CODE();
  if (!sk_ProcessMgrInited(ProcessMgr)) return FALSE;
  skt_AcquireShared(&ProcessMgr->Lock);
  node = sk_FindProcNode(ProcessMgr, (ULONG64)(ULONG_PTR)ProcessId, CreateTime);
  live = node && !(SK_READ_ONCE(node->Flags) & SK_PROC_FLAG_EXITED);
  skt_Release(&ProcessMgr->Lock);
  return live;
}

NTSTATUS sk_DelProcTreeInfo(PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId) {
  NTSTATUS status;
  PEPROCESS process;

  PAGED_CODE();
  SK_ENTER();
  status = PsLookupProcessByProcessId(ProcessId, &process);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsLookupProcessByProcessId", status);
    goto Exit;
  }
  status = sk_DelProcInfo(ProcessMgr, ProcessId, PsGetProcessCreateTimeQuadPart(process));
  if (NT_SUCCESS(status)) SK_INFO("Del Process Id %d Success\n", (ULONG)(ULONG_PTR)ProcessId);
  ObDereferenceObject(process);
Exit:
  SK_LEAVE(status);
  return status;
}

VOID sk_ProcTreeProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  PSK_PROCESS_MGR processMgr = &SentrelData.ProcessMgr;
  PAGED_CODE();
  if (!sk_ProcessMgrInited(processMgr)) {
    SK_ERROR("Process Mgr no Inited\n");
    return;
  }
  if (Create) {
    sk_AddProcTreeInfo(processMgr, ParentId, ProcessId);
  } else {
    sk_DelProcTreeInfo(processMgr, ProcessId);
  }
}

NTSTATUS sk_GetProcInfo(PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId, LONGLONG CreateTime, PPROC_INFO_NODE *Node) {
  NTSTATUS status = STATUS_SUCCESS;
  PPROC_INFO_NODE node;

  PAGED_CODE();
  if (!ProcessMgr || !ProcessId || ProcessId == (HANDLE)4) return STATUS_INVALID_PARAMETER;
  if (!sk_ProcessMgrInited(ProcessMgr)) {
    SK_ERROR("Process Mgr no Init\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  skt_AcquireShared(&ProcessMgr->Lock);
  node = sk_FindProcNode(ProcessMgr, (ULONG64)(ULONG_PTR)ProcessId, CreateTime);
  if (!node) {
    status = STATUS_NOT_FOUND;
  } else if (Node) {
    InterlockedIncrement(&node->RefCount);
    *Node = node;
  }
  skt_Release(&ProcessMgr->Lock);
  if (node && Node) SK_INFO("ProcessId %d find Node:0x%p\n", (ULONG)(ULONG_PTR)ProcessId, node);
  return status;
}

NTSTATUS sk_ReleaseProcInfo_Node(PSK_PROCESS_MGR ProcessMgr, PPROC_INFO_NODE Node) {
  ULONG64 processId;
  LONGLONG createTime;
  LONG count;

  PAGED_CODE();
  if (!ProcessMgr || !Node) {
    SK_ERROR("Invalid Parameter\n");
    return STATUS_INVALID_PARAMETER;
  }
  if (!sk_ProcessMgrInited(ProcessMgr)) return STATUS_INSUFFICIENT_RESOURCES;
  processId = Node->ProcessId;
  createTime = Node->CreateTime;
  skt_AcquireShared(&ProcessMgr->Lock);
  count = InterlockedDecrement(&Node->RefCount);
  skt_Release(&ProcessMgr->Lock);
  if (count == 0) {
    // Removed only under the exclusive lock, after the count is checked again: a lookup in between
    // keeps the node.
    skt_AcquireExclusive(&ProcessMgr->Lock);
    sk_DelProcTreeInternal_Unlock(ProcessMgr, (HANDLE)(ULONG_PTR)processId, createTime);
    skt_Release(&ProcessMgr->Lock);
  }
  return STATUS_SUCCESS;
}

NTSTATUS sk_DelProcTreeInternal_Unlock(PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId, LONGLONG CreateTime) {
  PPROC_INFO_NODE node = sk_FindProcNode(ProcessMgr, (ULONG64)(ULONG_PTR)ProcessId, CreateTime);
  PPROC_INFO_NODE element;
  PVOID restart;
  BOOLEAN removed;

  PAGED_CODE();
  if (!node) {
    SK_ERROR("ProcessId:%d no find node\n", (ULONG)(ULONG_PTR)ProcessId);
    return STATUS_SUCCESS;
  }
  if (node->RefCount != 0) return STATUS_SUCCESS;
  SK_INFO("Remove Pid:%d -> Node:0x%p\n", (ULONG)(ULONG_PTR)ProcessId, node);
  // Every node at 0 goes; its creator loses a reference and may reach 0 itself, so the walk starts
  // over after each removal until a whole pass removes nothing.
  do {
    removed = FALSE;
    restart = NULL;
    for (element = (PPROC_INFO_NODE)RtlEnumerateGenericTableWithoutSplayingAvl(&ProcessMgr->Table, &restart);
         element; element = (PPROC_INFO_NODE)RtlEnumerateGenericTableWithoutSplayingAvl(&ProcessMgr->Table, &restart)) {
      if (element->RefCount != 0) continue;
      if (element->CreatorCreateTime) {
        PPROC_INFO_NODE creator = sk_FindProcNode(ProcessMgr, element->CreatorProcessId, element->CreatorCreateTime);
        if (creator) InterlockedDecrement(&creator->RefCount);
      }
      sk_RemoveProcNode(ProcessMgr, element);
      removed = TRUE;
      break;
    }
  } while (removed);
  return STATUS_SUCCESS;
}

NTSTATUS sk_GetProcTreeInfo(PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId, LONGLONG CreateTime, PVOID *Record,
                            PULONG RecordSize) {
  NTSTATUS status = STATUS_SUCCESS;
  PPROC_INFO_NODE node;
  ULONG count = 0;
  ULONG written = 0;
  ULONG size;
  PUCHAR record = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_ProcessMgrInited(ProcessMgr)) {
    SK_ERROR("Process Mgr no Init\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  skt_AcquireShared(&ProcessMgr->Lock);
  // Creators go back in time, but two processes created in the same clock tick could name each
  // other after an id was reused: the walk stops at the nearest SK_PROC_TREE_MAX_ENTRIES.
  for (node = sk_FindProcNode(ProcessMgr, (ULONG64)(ULONG_PTR)ProcessId, CreateTime);
       node && count < SK_PROC_TREE_MAX_ENTRIES;
       node = node->CreatorCreateTime ? sk_FindProcNode(ProcessMgr, node->CreatorProcessId, node->CreatorCreateTime)
                                      : NULL) {
    ++count;
  }
  if (!count) {
    skt_Release(&ProcessMgr->Lock);
    SK_INFO("No Find ProcessId:%d\n", (ULONG)(ULONG_PTR)ProcessId);
    status = STATUS_NOT_FOUND;
    goto Exit;
  }
  size = SK_PROC_TREE_HEADER_SIZE + SK_PROC_TREE_ENTRY_SIZE * count;
  record = (PUCHAR)sk_AllocatePackage(size, SK_TAG_PROC_TREE);
  if (!record) {
    skt_Release(&ProcessMgr->Lock);
    SK_ERROR("Info alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  ((PULONG)record)[0] = size;
  ((PULONG)record)[1] = SK_PROC_TREE_KIND;
  ((PULONG)record)[2] = size;
  ((PULONG)record)[3] = count;
  for (node = sk_FindProcNode(ProcessMgr, (ULONG64)(ULONG_PTR)ProcessId, CreateTime); node && written < count;
       node = node->CreatorCreateTime ? sk_FindProcNode(ProcessMgr, node->CreatorProcessId, node->CreatorCreateTime)
                                      : NULL) {
    PUCHAR entry = record + SK_PROC_TREE_HEADER_SIZE + SK_PROC_TREE_ENTRY_SIZE * written;
    UNICODE_STRING unknown = SK_CONSTANT_STRING(L"Unknow Process Name");
    PCUNICODE_STRING name = node->ImageFileName ? node->ImageFileName : &unknown;
    ULONG bytes = name->Length < SK_PROC_TREE_NAME_BYTES - 2 ? name->Length : SK_PROC_TREE_NAME_BYTES - 2;
    *(PULONG)entry = (ULONG)node->ProcessId;
    RtlCopyMemory(entry + 4, name->Buffer, bytes & ~1u);
    ++written;
  }
  skt_Release(&ProcessMgr->Lock);
  *Record = record;
  *RecordSize = size;
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UpdateProcNode(PSK_PROCESS_MGR ProcessMgr, PEPROCESS Process, PPROC_INFO_NODE Node) {
  NTSTATUS status;
  PUNICODE_STRING commandLine = NULL;
  PUNICODE_STRING currentDirectory = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (SK_READ_ONCE(Node->CommandLine)) {
    status = STATUS_SUCCESS;
    goto Exit;
  }
  status = skt_GetProcessPathInfo(Process, &commandLine, &currentDirectory);
  if (!NT_SUCCESS(status)) {
    SK_INFO("CommandLine:%wZ\n", Node->CommandLine);
    goto Exit;
  }
  skt_AcquireExclusive(&ProcessMgr->Lock);
  if (!Node->CommandLine && commandLine) {
    InterlockedExchangePointer((PVOID volatile *)&Node->CommandLine, commandLine);
    SK_INFO("CommandLine:%wZ\n", commandLine);
    commandLine = NULL;
  }
  if (!Node->CurrentDirectory && currentDirectory) {
    InterlockedExchangePointer((PVOID volatile *)&Node->CurrentDirectory, currentDirectory);
    SK_INFO("CurrentDir:%wZ\n", currentDirectory);
    currentDirectory = NULL;
  }
  skt_Release(&ProcessMgr->Lock);
  sk_FreeString(commandLine);
  sk_FreeString(currentDirectory);
Exit:
  SK_LEAVE(status);
  return status;
}

// A copy of a path node's characters, less `Skip` leading ones, as a new string block.
static NTSTATUS sk_CopyProcImagePath(PEPROCESS Process, BOOLEAN Dos, PUNICODE_STRING *Path) {
  NTSTATUS status;
  PPROC_INFO_NODE node = NULL;
  PPATH_CACHE_NODE path;
  UNICODE_STRING text;
  USHORT skip;

  PAGED_CODE();
  if (!Process || !Path) return STATUS_INVALID_PARAMETER;
  status = sk_GetProcInfo(&SentrelData.ProcessMgr, PsGetProcessId(Process), PsGetProcessCreateTimeQuadPart(Process),
                          &node);
  if (!NT_SUCCESS(status)) return status;
  path = Dos ? node->DosImagePath : node->NtImagePath;
  skip = Dos && path->Length >= 4 * sizeof(WCHAR) ? 4 * sizeof(WCHAR) : 0;  // "\??\"
  text.Buffer = (PWSTR)((PUCHAR)path->Path + skip);
  text.Length = text.MaximumLength = (USHORT)(path->Length - skip);
  *Path = skt_AllocateUnicodeStringSelf(PagedPool, text.Length);
  if (*Path) {
    RtlCopyUnicodeString(*Path, &text);
  } else {
    status = STATUS_INSUFFICIENT_RESOURCES;
  }
  sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
  return status;
}

NTSTATUS sk_GetProcImageNtPath_Process(PEPROCESS Process, PUNICODE_STRING *Path) {
  return sk_CopyProcImagePath(Process, FALSE, Path);
}

NTSTATUS sk_GetProcImageDosPath_Process(PEPROCESS Process, PUNICODE_STRING *Path) {
  return sk_CopyProcImagePath(Process, TRUE, Path);
}

NTSTATUS sk_AddExstingProcessInfoCallback(PSYSTEM_PROCESS_INFORMATION ProcessEntry, PVOID Context) {
  PSENTREL_DATA data = (PSENTREL_DATA)Context;
  PSK_PROCESS_MGR processMgr = &data->ProcessMgr;
  NTSTATUS status;
  PEPROCESS process = NULL;
  PEPROCESS parent = NULL;
  BOOLEAN synchronized = FALSE;
  BOOLEAN attached = FALSE;
  BOOLEAN inserted = FALSE;
  KAPC_STATE apcState;
  PPROC_INFO_NODE block = NULL;
  PPROC_INFO_NODE node = NULL;
  SK_IMAGE_SCAN_CONTEXT scan;

  PAGED_CODE();
  SK_ENTER();
  if (ProcessEntry->UniqueProcessId == (HANDLE)0 || ProcessEntry->UniqueProcessId == (HANDLE)4) {
    SK_INFO("ByPass Pid:0 and Pid:4\n");
    goto Exit;
  }
  status = PsLookupProcessByProcessId(ProcessEntry->UniqueProcessId, &process);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsLookupProcessByProcessId", status);
    process = NULL;
    goto Exit;
  }
  // The process cannot exit while its images are walked.
  synchronized = NT_SUCCESS(data->PsAcquireProcessExitSynchronization(process));
  if (process != IoGetCurrentProcess()) {
    KeStackAttachProcess((PKPROCESS)process, &apcState);
    attached = TRUE;
  }
  status = sk_GetNewProcInfo(ProcessEntry->InheritedFromUniqueProcessId, ProcessEntry->UniqueProcessId, TRUE, FALSE,
                             &block);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetNewProcInfo", status);
    goto Exit;
  }
  if (NT_SUCCESS(PsLookupProcessByProcessId(ProcessEntry->InheritedFromUniqueProcessId, &parent))) {
    block->CreatorProcessId = block->ParentProcessId = (ULONG64)(ULONG_PTR)ProcessEntry->InheritedFromUniqueProcessId;
    block->CreatorCreateTime = sk_CreatorTime(PsGetProcessCreateTimeQuadPart(parent), block->CreateTime);
  } else {
    parent = NULL;  // the parent has exited: this process is a root
  }
  status = sk_AddProcInfo(processMgr, block, sizeof(*block), &node, &inserted);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_AddProcInfo", status);
    sk_FreeProcInfo(block, TRUE);
    block = NULL;
    goto Exit;
  }
  if (!inserted) {
    sk_ReleaseProcContents(block);  // its notification was first: that node stays
  } else {
    scan.Data = data;
    scan.ProcessNode = node;
    status = skt_QueryModuleInfo_VirtualMemory_Process(process, sk_AddImageInfoCallback, &scan);
    if (NT_SUCCESS(status)) SK_FAIL("skt_QueryModuleInfo_VirtualMemory_Process", status);
    sk_ReferenceCreator(processMgr, block->CreatorProcessId, block->CreatorCreateTime);
  }
  sk_FreeProcInfo(block, FALSE);
  sk_ReleaseProcInfo_Node(processMgr, node);
Exit:
  if (attached) KeUnstackDetachProcess(&apcState);
  if (parent) ObDereferenceObject(parent);
  if (synchronized) data->PsReleaseProcessExitSynchronization(process);
  if (process) ObDereferenceObject(process);
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

VOID sk_ClearAllProcInfo(PSK_PROCESS_MGR ProcessMgr) {
  PPROC_INFO_NODE element;
  PVOID restart;

  PAGED_CODE();
  SK_ENTER();
  skt_AcquireExclusive(&ProcessMgr->Lock);
  for (;;) {
    restart = NULL;
    element = (PPROC_INFO_NODE)RtlEnumerateGenericTableWithoutSplayingAvl(&ProcessMgr->Table, &restart);
    if (!element) break;
    SK_INFO("Del Pid:%d ->Node:0x%p\n", (ULONG)element->ProcessId, element);
    sk_RemoveProcNode(ProcessMgr, element);
  }
  skt_Release(&ProcessMgr->Lock);
  SK_LEAVE(STATUS_SUCCESS);
}

NTSTATUS sk_InitProcessMgr(PSK_PROCESS_MGR ProcessMgr) {
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  if (sk_ProcessMgrInited(ProcessMgr)) {
    SK_INFO("Process Mgr Already Inited\n");
    goto Exit;
  }
  RtlZeroMemory(ProcessMgr, sizeof(*ProcessMgr));
  ProcessMgr->Tag = SK_RECORD_PROCESS_MGR;
  ProcessMgr->Size = sizeof(*ProcessMgr);
  ExInitializeResourceLite(&ProcessMgr->Lock);
  RtlInitializeGenericTableAvl(&ProcessMgr->Table, skt_CompareKey64, sk_ProcTableAllocate, sk_ProcTableFree, NULL);
  if (!(SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)) {
    status = STATUS_INSUFFICIENT_RESOURCES;
  } else {
    status = sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_ProcTreeProcessNotify, FALSE);
  }
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", status);
    ExDeleteResourceLite(&ProcessMgr->Lock);
    goto Exit;
  }
  status = sk_PsSetLoadImageNotifyRoutine(sk_ProcTreeImageNotify);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PsSetLoadImageNotifyRoutine", status);
    sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_ProcTreeProcessNotify, TRUE);
    ExDeleteResourceLite(&ProcessMgr->Lock);
    goto Exit;
  }
  InterlockedOr(&ProcessMgr->Flags, SK_PROCESS_MGR_INITED);
  SK_INFO("ProcessMgr Init Success\n");
  // After the subscriptions: a process created during the scan is added by its notification, and
  // the first node of a key stays.
  skt_EnumProcess(sk_AddExstingProcessInfoCallback, &SentrelData);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitProcessMgr(PSK_PROCESS_MGR ProcessMgr) {
  PAGED_CODE();
  SK_ENTER();
  if (!sk_ProcessMgrInited(ProcessMgr)) {
    SK_INFO("Process Mgr no Inited\n");
    goto Exit;
  }
  InterlockedAnd(&ProcessMgr->Flags, ~SK_PROCESS_MGR_INITED);
  sk_PsRemoveLoadImageNotifyRoutine(sk_ProcTreeImageNotify);
  if (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS) {
    sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_ProcTreeProcessNotify, TRUE);
  }
  SK_INFO("Clear All Process Info\n");
  sk_ClearAllProcInfo(ProcessMgr);
  ExDeleteResourceLite(&ProcessMgr->Lock);
  RtlZeroMemory(ProcessMgr, sizeof(*ProcessMgr));
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
