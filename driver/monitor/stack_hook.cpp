#include "monitor/stack_hook.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "core/table_compare.h"
#include "monitor/callback_plus.h"
#include "monitor/process_query.h"
#include "platform/resource_lock.h"

#define SK_MODULE SK_TRACE_STACKHOOK

static PVOID NTAPI sk_GroupTableAllocate(PRTL_AVL_TABLE Table, CLONG ByteSize) {
  UNREFERENCED_PARAMETER(Table);
  return ExAllocatePoolWithTag(NonPagedPool, ByteSize, SK_TAG_STACK_GROUP);
}

static VOID NTAPI sk_GroupTableFree(PRTL_AVL_TABLE Table, PVOID Buffer) {
  UNREFERENCED_PARAMETER(Table);
  ExFreePoolWithTag(Buffer, SK_TAG_STACK_GROUP);
}

static BOOLEAN sk_StackHookInited(PSK_STACK_HOOK StackHook) {
  return StackHook && (SK_READ_ONCE(StackHook->Flags) & SK_STACK_HOOK_INITED) != 0;
}

NTSTATUS sk_AddStackHookGroup(PSK_STACK_HOOK StackHook, HANDLE ProcessId) {
  STACK_HOOK_GROUP block;
  PSTACK_HOOK_GROUP group;
  BOOLEAN isNew = FALSE;
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_StackHookInited(StackHook)) {
    SK_ERROR("Stack Hook Mgr no Inited\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  RtlZeroMemory(&block, sizeof(block));
  block.Tag = SK_RECORD_STACK_GROUP;
  block.Size = sizeof(block);
  block.Key = (ULONG64)(ULONG_PTR)ProcessId;
  skt_AcquireExclusive(&StackHook->GroupLock);
  group = (PSTACK_HOOK_GROUP)RtlInsertElementGenericTableAvl(&StackHook->GroupTable, &block, sizeof(block), &isNew);
  if (group && isNew) {
    // The element is a copy: its lock and list are made in place.
    ExInitializeFastMutex(&group->EntryLock);
    InitializeListHead(&group->EntryList);
  }
  skt_Release(&StackHook->GroupLock);
  if (!group) {
    SK_ERROR("RtlInsertElementGenericTableAvl insert fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
  }
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_DelStackHookGroup(PSK_STACK_HOOK StackHook, HANDLE ProcessId) {
  STACK_HOOK_GROUP probe;
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_StackHookInited(StackHook)) {
    SK_ERROR("Stack Hook Mgr no Inited\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  probe.Key = (ULONG64)(ULONG_PTR)ProcessId;
  skt_AcquireExclusive(&StackHook->GroupLock);
  if (!RtlDeleteElementGenericTableAvl(&StackHook->GroupTable, &probe)) {
    SK_ERROR("no find Group Node\n");
    status = STATUS_NOT_FOUND;
  }
  skt_Release(&StackHook->GroupLock);
Exit:
  SK_LEAVE(status);
  return status;
}

VOID sk_DelAllStackHookGroup(PSK_STACK_HOOK StackHook) {
  PVOID element;
  PVOID restart;
  PAGED_CODE();
  skt_AcquireExclusive(&StackHook->GroupLock);
  for (;;) {
    restart = NULL;
    element = RtlEnumerateGenericTableWithoutSplayingAvl(&StackHook->GroupTable, &restart);
    if (!element) break;
    RtlDeleteElementGenericTableAvl(&StackHook->GroupTable, element);
  }
  skt_Release(&StackHook->GroupLock);
}

VOID sk_StackHookProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  UNREFERENCED_PARAMETER(ParentId);
  PAGED_CODE();
  if (Create) {
    sk_AddStackHookGroup(&SentrelData.StackHook, ProcessId);
  } else {
    sk_DelStackHookGroup(&SentrelData.StackHook, ProcessId);
  }
}

NTSTATUS sk_AddExistingStackHookGroupCallback(PSYSTEM_PROCESS_INFORMATION ProcessEntry, PVOID Context) {
  PAGED_CODE();
  if (ProcessEntry->UniqueProcessId != (HANDLE)0 && ProcessEntry->UniqueProcessId != (HANDLE)4) {
    sk_AddStackHookGroup((PSK_STACK_HOOK)Context, ProcessEntry->UniqueProcessId);
  }
  return STATUS_SUCCESS;
}

NTSTATUS sk_InitStackHook(PSK_STACK_HOOK StackHook) {
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  if (sk_StackHookInited(StackHook)) {
    SK_INFO("StackHook Inited\n");
    goto Exit;
  }
  RtlZeroMemory(StackHook, sizeof(*StackHook));
  StackHook->Tag = SK_RECORD_STACK_HOOK;
  StackHook->Size = sizeof(*StackHook);
  ExInitializeResourceLite(&StackHook->GroupLock);
  RtlInitializeGenericTableAvl(&StackHook->GroupTable, skt_CompareKey64, sk_GroupTableAllocate, sk_GroupTableFree, NULL);
  status = (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)
               ? sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_StackHookProcessNotify, FALSE)
               : STATUS_INSUFFICIENT_RESOURCES;
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", status);
    ExDeleteResourceLite(&StackHook->GroupLock);
    goto Exit;
  }
  InterlockedOr(&StackHook->Flags, SK_STACK_HOOK_INITED);
  skt_EnumProcess(sk_AddExistingStackHookGroupCallback, StackHook);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitStackHook(PSK_STACK_HOOK StackHook) {
  PAGED_CODE();
  SK_ENTER();
  if (!sk_StackHookInited(StackHook)) {
    SK_INFO("Stack Hook Uninited\n");
    goto Exit;
  }
  InterlockedAnd(&StackHook->Flags, ~SK_STACK_HOOK_INITED);
  // Removed before the table goes, so that no exit notification runs on a freed table: a
  // subscriber is never entered after its removal returned.
  if (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS) {
    sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_StackHookProcessNotify, TRUE);
  }
  SK_INFO("Del All Stack Hook\n");
  sk_DelAllStackHookGroup(StackHook);
  ExDeleteResourceLite(&StackHook->GroupLock);
  RtlZeroMemory(StackHook, sizeof(*StackHook));
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
