#include "channel/msg_queue.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "monitor/callback_plus.h"

#define SK_MODULE SK_TRACE_PROCESS

static RTL_GENERIC_COMPARE_RESULTS NTAPI sk_CompareQueues(PRTL_AVL_TABLE Table, PVOID First, PVOID Second) {
  ULONG first = ((PSK_MSG_QUEUE)First)->ProcessId;
  ULONG second = ((PSK_MSG_QUEUE)Second)->ProcessId;
  UNREFERENCED_PARAMETER(Table);
  if (first < second) return GenericLessThan;
  return first > second ? GenericGreaterThan : GenericEqual;
}

static PVOID NTAPI sk_QueueTableAllocate(PRTL_AVL_TABLE Table, CLONG ByteSize) {
  UNREFERENCED_PARAMETER(Table);
  return ExAllocatePoolWithTag(PagedPool, ByteSize, SK_TAG_MSG_QUEUE_TABLE);
}

static VOID NTAPI sk_QueueTableFree(PRTL_AVL_TABLE Table, PVOID Buffer) {
  UNREFERENCED_PARAMETER(Table);
  ExFreePoolWithTag(Buffer, SK_TAG_MSG_QUEUE_TABLE);
}

VOID sk_LockQueueTableShared(PSK_PROC_MSG_MGR ProcMsgMgr) {
  KeEnterCriticalRegion();
  ExAcquireResourceSharedLite(&ProcMsgMgr->QueueTableLock, TRUE);
}

static VOID sk_LockQueueTableExclusive(PSK_PROC_MSG_MGR ProcMsgMgr) {
  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(&ProcMsgMgr->QueueTableLock, TRUE);
}

VOID sk_UnlockQueueTable(PSK_PROC_MSG_MGR ProcMsgMgr) {
  ExReleaseResourceLite(&ProcMsgMgr->QueueTableLock);
  KeLeaveCriticalRegion();
}

VOID sk_FreeMsgNode(PSK_MSG_NODE Node) {
  ExFreePoolWithTag(Node->Msg, SK_TAG_MSG_COPY);
  ExFreeToPagedLookasideList(&SentrelData.MsgNodeLookaside, Node);
}

// Takes the oldest node off a queue whose lock the caller holds; null when it is empty.
static PSK_MSG_NODE sk_TakeOldest(PSK_MSG_QUEUE Queue) {
  PLIST_ENTRY entry;
  PSK_MSG_NODE node;
  if (IsListEmpty(&Queue->MsgList)) return NULL;
  entry = RemoveHeadList(&Queue->MsgList);
  InterlockedDecrement(&Queue->MsgCount);
  node = CONTAINING_RECORD(entry, SK_MSG_NODE, Link);
  Queue->MsgBytes -= node->MsgLen;
  return node;
}

static PSK_MSG_QUEUE sk_LookupQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId) {
  SK_MSG_QUEUE key;
  key.ProcessId = ProcessId;
  return (PSK_MSG_QUEUE)RtlLookupElementGenericTableAvl(&ProcMsgMgr->QueueTable, &key);
}

static BOOLEAN sk_IsConsumerId(ULONG ProcessId) {
  ULONG consumer = SK_READ_ONCE(SentrelData.ConsumerMsgQueue.ProcessId);
  return consumer != 0 && consumer == ProcessId;
}

NTSTATUS sk_InitProcMsgMgr(PSK_PROC_MSG_MGR ProcMsgMgr) {
  PSK_MSG_QUEUE consumer = &SentrelData.ConsumerMsgQueue;
  NTSTATUS status;

  PAGED_CODE();
  SK_ENTER();
  if (ProcMsgMgr->Flags & SK_PROC_MSG_MGR_INITED) {
    SK_INFO("Proc Msg Mgr Already Inited\n");
    status = STATUS_SUCCESS;
    goto Exit;
  }
  RtlZeroMemory(ProcMsgMgr, sizeof(*ProcMsgMgr));
  ProcMsgMgr->Tag = SK_RECORD_PROC_MSG_MGR;
  ProcMsgMgr->Size = sizeof(*ProcMsgMgr);
  ExInitializeResourceLite(&ProcMsgMgr->QueueTableLock);
  RtlInitializeGenericTableAvl(&ProcMsgMgr->QueueTable, sk_CompareQueues, sk_QueueTableAllocate, sk_QueueTableFree,
                               NULL);

  consumer->Tag = SK_RECORD_MSG_QUEUE;
  consumer->Size = sizeof(*consumer);
  InitializeListHead(&consumer->MsgList);
  consumer->MsgQueueLock = (PFAST_MUTEX)ExAllocateFromNPagedLookasideList(&SentrelData.MutexLookaside);
  if (!consumer->MsgQueueLock) {
    SK_ERROR("SentrelData.ConsumerMsgQueue.MsgQueueLock alloc fail\n");
    ExDeleteResourceLite(&ProcMsgMgr->QueueTableLock);
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  ExInitializeFastMutex(consumer->MsgQueueLock);
  consumer->Flags |= SK_MSG_QUEUE_USABLE;

  status = (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)
               ? sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_ProcMsgNotfiy, FALSE)
               : STATUS_INSUFFICIENT_RESOURCES;
  if (!NT_SUCCESS(status)) {
    SK_ERROR("sk_PsSetCreateProcessNotifyRoutine fail Status:%08lx\n", status);
    consumer->Flags &= ~SK_MSG_QUEUE_USABLE;
    ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, consumer->MsgQueueLock);
    consumer->MsgQueueLock = NULL;
    ExDeleteResourceLite(&ProcMsgMgr->QueueTableLock);
    goto Exit;
  }
  ProcMsgMgr->Flags |= SK_PROC_MSG_MGR_INITED;
  SK_INFO("Proc Msg Mgr Init Success\n");
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitProcMsgMgr(PSK_PROC_MSG_MGR ProcMsgMgr) {
  PSK_MSG_QUEUE consumer = &SentrelData.ConsumerMsgQueue;
  PSK_MSG_QUEUE queue;

  PAGED_CODE();
  SK_ENTER();
  if (!(ProcMsgMgr->Flags & SK_PROC_MSG_MGR_INITED)) {
    SK_INFO("Proc Msg Mgr no Inited\n");
    goto Exit;
  }
  ProcMsgMgr->Flags &= ~SK_PROC_MSG_MGR_INITED;
  if (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS) {
    SK_INFO("Remove sk_ProcMsgNotfiy\n");
    sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_ProcMsgNotfiy, TRUE);
  }
  SK_INFO("Clear All Proc Msg Queue Info\n");
  sk_LockQueueTableExclusive(ProcMsgMgr);
  while ((queue = (PSK_MSG_QUEUE)RtlGetElementGenericTableAvl(&ProcMsgMgr->QueueTable, 0)) != NULL) {
    sk_ClearMsgQueue(queue);
    ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, queue->MsgQueueLock);
    RtlDeleteElementGenericTableAvl(&ProcMsgMgr->QueueTable, queue);
  }
  sk_UnlockQueueTable(ProcMsgMgr);
  SK_INFO("Clear All Msg Info\n");
  sk_ClearMsgQueue(consumer);
  consumer->Flags &= ~SK_MSG_QUEUE_USABLE;
  ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, consumer->MsgQueueLock);
  consumer->MsgQueueLock = NULL;
  ExDeleteResourceLite(&ProcMsgMgr->QueueTableLock);
  RtlZeroMemory(ProcMsgMgr, sizeof(*ProcMsgMgr));
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS sk_AddProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PFILE_OBJECT FileObject, PSK_MSG_QUEUE *Queue) {
  NTSTATUS status = STATUS_SUCCESS;
  PFAST_MUTEX mutex;
  SK_MSG_QUEUE element;
  PSK_MSG_QUEUE queue;
  BOOLEAN inserted = FALSE;

  PAGED_CODE();
  SK_ENTER();
  if (!(ProcMsgMgr->Flags & SK_PROC_MSG_MGR_INITED)) {
    SK_ERROR("Proc Msg Mgr no Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  // The lock comes first: nothing is allocated while the table is held.
  mutex = (PFAST_MUTEX)ExAllocateFromNPagedLookasideList(&SentrelData.MutexLookaside);
  if (!mutex) {
    SK_ERROR("FastMutext alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(&element, sizeof(element));
  element.ProcessId = ProcessId;
  sk_LockQueueTableExclusive(ProcMsgMgr);
  queue = (PSK_MSG_QUEUE)RtlInsertElementGenericTableAvl(&ProcMsgMgr->QueueTable, &element, sizeof(element), &inserted);
  if (!queue) {
    SK_ERROR("NewNode Insert fail\n");
    ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, mutex);
    status = STATUS_INSUFFICIENT_RESOURCES;
  } else if (inserted) {
    queue->Tag = SK_RECORD_MSG_QUEUE;
    queue->Size = sizeof(*queue);
    queue->FileObject = FileObject;
    InitializeListHead(&queue->MsgList);
    ExInitializeFastMutex(mutex);
    queue->MsgQueueLock = mutex;
    queue->Flags |= SK_MSG_QUEUE_USABLE;
    SK_INFO("Add New Node Pid:%d Node:0x%p\n", ProcessId, queue);
  } else {
    queue->FileObject = FileObject;
    ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, mutex);
  }
  if (Queue) *Queue = queue;
  sk_UnlockQueueTable(ProcMsgMgr);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_GetProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PFILE_OBJECT FileObject, PSK_MSG_QUEUE *Queue) {
  NTSTATUS status = STATUS_SUCCESS;
  PSK_MSG_QUEUE queue;

  if (!(ProcMsgMgr->Flags & SK_PROC_MSG_MGR_INITED)) {
    SK_ERROR("Proc Msg Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  if (sk_IsConsumerId(ProcessId)) {
    *Queue = &SentrelData.ConsumerMsgQueue;
    SK_INFO("Get Consumer MsgQueue:0x%p\n", *Queue);
    return STATUS_SUCCESS;
  }
  queue = sk_LookupQueue(ProcMsgMgr, ProcessId);
  if (!queue && FileObject) {
    // Made under the lock held exclusive: the shared hold is given up meanwhile, and the queue is
    // looked up again once it is back, since the process may have exited in between.
    sk_UnlockQueueTable(ProcMsgMgr);
    status = sk_AddProcMsgQueue(ProcMsgMgr, ProcessId, FileObject, NULL);
    sk_LockQueueTableShared(ProcMsgMgr);
    if (!NT_SUCCESS(status)) return status;
    queue = sk_LookupQueue(ProcMsgMgr, ProcessId);
  }
  if (!queue) return FileObject ? STATUS_NOT_FOUND : STATUS_INVALID_PARAMETER;
  SK_INFO("Get Msg Queue:0x%p\n", queue);
  *Queue = queue;
  return STATUS_SUCCESS;
}

NTSTATUS sk_GetMsgLength(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PFILE_OBJECT FileObject, PULONG Length) {
  NTSTATUS status;
  PSK_MSG_QUEUE queue = NULL;

  *Length = 0xFFFFFFFF;
  sk_LockQueueTableShared(ProcMsgMgr);
  status = sk_GetProcMsgQueue(ProcMsgMgr, ProcessId, FileObject, &queue);
  if (NT_SUCCESS(status)) {
    status = STATUS_NOT_FOUND;
    ExAcquireFastMutex(queue->MsgQueueLock);
    if (!IsListEmpty(&queue->MsgList)) {
      *Length = CONTAINING_RECORD(queue->MsgList.Flink, SK_MSG_NODE, Link)->MsgLen;
      SK_INFO("Get Msg Len:0x%0x\n", *Length);
      status = STATUS_SUCCESS;
    }
    ExReleaseFastMutex(queue->MsgQueueLock);
  } else {
    status = STATUS_NOT_FOUND;
  }
  sk_UnlockQueueTable(ProcMsgMgr);
  return status;
}

PSK_MSG_NODE sk_PickMsgFromMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId) {
  PSK_MSG_QUEUE queue = NULL;
  PSK_MSG_NODE node = NULL;

  sk_LockQueueTableShared(ProcMsgMgr);
  if (NT_SUCCESS(sk_GetProcMsgQueue(ProcMsgMgr, ProcessId, NULL, &queue)) && SK_READ_ONCE(queue->MsgCount) > 0) {
    ExAcquireFastMutex(queue->MsgQueueLock);
    node = sk_TakeOldest(queue);
    ExReleaseFastMutex(queue->MsgQueueLock);
    if (node) SK_INFO("Get Msg Node:0x%p\n", node);
  }
  sk_UnlockQueueTable(ProcMsgMgr);
  return node;
}

NTSTATUS sk_ReInsertMsgNodeToMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PSK_MSG_NODE Node) {
  NTSTATUS status;
  PSK_MSG_QUEUE queue = NULL;

  sk_LockQueueTableShared(ProcMsgMgr);
  status = sk_GetProcMsgQueue(ProcMsgMgr, ProcessId, NULL, &queue);
  if (NT_SUCCESS(status)) {
    ExAcquireFastMutex(queue->MsgQueueLock);
    // Back behind the others, and not held to the byte budget: it was accepted before.
    InsertTailList(&queue->MsgList, &Node->Link);
    InterlockedIncrement(&queue->MsgCount);
    queue->MsgBytes += Node->MsgLen;
    ExReleaseFastMutex(queue->MsgQueueLock);
    SK_INFO("ReInsert MsgNode:0x%p\n", Node);
  } else {
    SK_ERROR("sk_GetProcMsgQueue fail Status:%08lx\n", status);
    // The queue went with its process: so does the packet.
    sk_FreeMsgNode(Node);
  }
  sk_UnlockQueueTable(ProcMsgMgr);
  return status;
}

static PSK_MSG_NODE sk_NewMsgNode(PVOID Msg, ULONG MsgLen) {
  PSK_MSG_NODE node = (PSK_MSG_NODE)ExAllocateFromPagedLookasideList(&SentrelData.MsgNodeLookaside);
  if (!node) return NULL;
  RtlZeroMemory(node, sizeof(*node));
  node->Tag = SK_RECORD_MSG_NODE;
  node->Size = sizeof(*node);
  node->MsgLen = MsgLen;
  node->Msg = Msg;
  return node;
}

// Appends the node to a queue and drops the oldest packets once the queue reaches its limit. A
// packet that would pass the byte budget is refused instead (the node stays the caller's), so that
// nothing already queued is lost for it.
static NTSTATUS sk_AppendBounded(PSK_MSG_QUEUE Queue, PSK_MSG_NODE Node, LONG Limit, ULONG Drop, ULONG ByteBudget,
                                 BOOLEAN Consumer) {
  PSK_MSG_NODE oldest;
  ULONG i;

  ExAcquireFastMutex(Queue->MsgQueueLock);
  if (Node->MsgLen > ByteBudget - Queue->MsgBytes) {
    ExReleaseFastMutex(Queue->MsgQueueLock);
    SK_ERROR("Msg Queue Over Budget Pid:%d Bytes:0x%0x MsgLen:0x%0x\n", Queue->ProcessId, Queue->MsgBytes,
             Node->MsgLen);
    return STATUS_QUOTA_EXCEEDED;
  }
  InsertTailList(&Queue->MsgList, &Node->Link);
  Queue->MsgBytes += Node->MsgLen;
  if (Consumer) SK_INFO("Insert Node:0x%p to Tail\n", Node);
  else SK_INFO("Add New MsgNode:0x%p\n", Node);
  if (InterlockedIncrement(&Queue->MsgCount) >= Limit) {
    if (Consumer) SK_INFO("Over MaxMsgQueyeNum 0x%0x\n", (ULONG)Limit);
    for (i = 0; i < Drop; ++i) {
      oldest = sk_TakeOldest(Queue);
      if (!oldest) break;
      if (Consumer) {
        SK_INFO("[T:0x%p] Over Free MsgNode:0x%p Msg:0x%p MsgLen:0x%0x\n", PsGetCurrentThread(), oldest, oldest->Msg,
                oldest->MsgLen);
      }
      ++Queue->EvictedCount;
      sk_FreeMsgNode(oldest);
    }
  }
  ExReleaseFastMutex(Queue->MsgQueueLock);
  return STATUS_SUCCESS;
}

NTSTATUS sk_AddMsgToMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PVOID Msg, ULONG MsgLen) {
  NTSTATUS status;
  PSK_MSG_QUEUE queue = NULL;
  PSK_MSG_NODE node;

  if (!(ProcMsgMgr->Flags & SK_PROC_MSG_MGR_INITED)) return STATUS_INSUFFICIENT_RESOURCES;
  sk_LockQueueTableShared(ProcMsgMgr);
  status = sk_GetProcMsgQueue(ProcMsgMgr, ProcessId, NULL, &queue);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("sk_GetProcMsgQueue fail Status:%08lx\n", status);
    status = STATUS_NOT_FOUND;
    goto Exit;
  }
  node = sk_NewMsgNode(Msg, MsgLen);
  if (!node) {
    SK_ERROR("MsgNode alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  status = sk_AppendBounded(queue, node, SK_PROCESS_QUEUE_LIMIT, SK_PROCESS_QUEUE_DROP, SK_PROCESS_QUEUE_BYTES, FALSE);
  if (!NT_SUCCESS(status)) ExFreeToPagedLookasideList(&SentrelData.MsgNodeLookaside, node);
Exit:
  sk_UnlockQueueTable(ProcMsgMgr);
  return status;
}

NTSTATUS sk_AddMsgToConsumerMsgQueue(PSK_MSG_QUEUE ConsumerMsgQueue, PVOID Msg, ULONG MsgLen) {
  NTSTATUS status;
  PSK_MSG_NODE node;

  if (!(ConsumerMsgQueue->Flags & SK_MSG_QUEUE_USABLE)) {
    SK_ERROR("Proc Msg Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  node = sk_NewMsgNode(Msg, MsgLen);
  if (!node) {
    SK_ERROR("MsgNode alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  status = sk_AppendBounded(ConsumerMsgQueue, node, SK_CONSUMER_QUEUE_LIMIT, SK_CONSUMER_QUEUE_DROP,
                            SK_CONSUMER_QUEUE_BYTES, TRUE);
  if (!NT_SUCCESS(status)) ExFreeToPagedLookasideList(&SentrelData.MsgNodeLookaside, node);
  return status;
}

VOID sk_ClearMsgQueue(PSK_MSG_QUEUE Queue) {
  PSK_MSG_NODE node;
  if (!(Queue->Flags & SK_MSG_QUEUE_USABLE)) return;
  ExAcquireFastMutex(Queue->MsgQueueLock);
  while ((node = sk_TakeOldest(Queue)) != NULL) sk_FreeMsgNode(node);
  ExReleaseFastMutex(Queue->MsgQueueLock);
}

NTSTATUS sk_DelProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId) {
  PSK_MSG_QUEUE queue;
  BOOLEAN present;

  sk_LockQueueTableShared(ProcMsgMgr);
  present = sk_LookupQueue(ProcMsgMgr, ProcessId) != NULL;
  sk_UnlockQueueTable(ProcMsgMgr);
  if (!present) return STATUS_SUCCESS;
  // The exclusive hold waits for every use of the queue to end.
  sk_LockQueueTableExclusive(ProcMsgMgr);
  queue = sk_LookupQueue(ProcMsgMgr, ProcessId);
  if (queue) {
    SK_INFO("Clear All Msg\n");
    sk_ClearMsgQueue(queue);
    ProcMsgMgr->EvictedByGoneQueues += queue->EvictedCount;
    ExFreeToNPagedLookasideList(&SentrelData.MutexLookaside, queue->MsgQueueLock);
    RtlDeleteElementGenericTableAvl(&ProcMsgMgr->QueueTable, queue);
  }
  sk_UnlockQueueTable(ProcMsgMgr);
  return STATUS_SUCCESS;
}

NTSTATUS sk_EnumProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, PSK_MSG_QUEUE_VISITOR Visit, PVOID Context) {
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  PVOID restart = NULL;
  PSK_MSG_QUEUE queue;

  if (!(ProcMsgMgr->Flags & SK_PROC_MSG_MGR_INITED)) return STATUS_INSUFFICIENT_RESOURCES;
  sk_LockQueueTableShared(ProcMsgMgr);
  for (queue = (PSK_MSG_QUEUE)RtlEnumerateGenericTableWithoutSplayingAvl(&ProcMsgMgr->QueueTable, &restart); queue;
       queue = (PSK_MSG_QUEUE)RtlEnumerateGenericTableWithoutSplayingAvl(&ProcMsgMgr->QueueTable, &restart)) {
    status = Visit(queue, Context);
    if (!NT_SUCCESS(status)) break;
  }
  sk_UnlockQueueTable(ProcMsgMgr);
  return status;
}

static ULONG64 sk_EvictedCount(PSK_MSG_QUEUE Queue) {
  ULONG64 evicted;
  ExAcquireFastMutex(Queue->MsgQueueLock);
  evicted = Queue->EvictedCount;
  ExReleaseFastMutex(Queue->MsgQueueLock);
  return evicted;
}

VOID sk_QueryMsgQueueEvictions(PSK_PROC_MSG_MGR ProcMsgMgr, PULONG64 ConsumerEvicted, PULONG64 ProcessesEvicted,
                               PSK_EVICTION_VISITOR Visit, PVOID Context) {
  PSK_MSG_QUEUE consumer = &SentrelData.ConsumerMsgQueue;
  PVOID restart = NULL;
  PSK_MSG_QUEUE queue;
  ULONG64 evicted;

  *ConsumerEvicted = (consumer->Flags & SK_MSG_QUEUE_USABLE) ? sk_EvictedCount(consumer) : 0;
  *ProcessesEvicted = 0;
  if (!(ProcMsgMgr->Flags & SK_PROC_MSG_MGR_INITED)) return;
  sk_LockQueueTableShared(ProcMsgMgr);
  *ProcessesEvicted = ProcMsgMgr->EvictedByGoneQueues;
  for (queue = (PSK_MSG_QUEUE)RtlEnumerateGenericTableWithoutSplayingAvl(&ProcMsgMgr->QueueTable, &restart); queue;
       queue = (PSK_MSG_QUEUE)RtlEnumerateGenericTableWithoutSplayingAvl(&ProcMsgMgr->QueueTable, &restart)) {
    evicted = sk_EvictedCount(queue);
    *ProcessesEvicted += evicted;
    if (evicted) Visit(queue->ProcessId, evicted, Context);
  }
  sk_UnlockQueueTable(ProcMsgMgr);
}

VOID sk_ProcMsgNotfiy(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  UNREFERENCED_PARAMETER(ParentId);
  if (Create) return;
  sk_DelProcMsgQueue(&SentrelData.ProcMsgMgr, (ULONG)(ULONG_PTR)ProcessId);
}
