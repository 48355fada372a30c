#include "channel/pending_reads.h"

#include "channel/complete_request.h"
#include "channel/msg_queue.h"
#include "channel/registration.h"
#include "channel/ring_buffer.h"
#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "sentrel/packet.h"

#define SK_MODULE SK_TRACE_COMMU

#define SK_NO_INFORMATION ((ULONG_PTR)-1)

static PSK_DEVICE_EXTENSION sk_ExtensionOf(PIO_CSQ Csq) {
  return CONTAINING_RECORD(Csq, SK_DEVICE_EXTENSION, CancelSafeQueue);
}

static PIO_CSQ sk_PendingReadQueue(void) {
  return &((PSK_DEVICE_EXTENSION)SkDeviceObject->DeviceExtension)->CancelSafeQueue;
}

static VOID NTAPI sk_CsqInsertIrp(PIO_CSQ Csq, PIRP Irp) {
  UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  // Only reads (and writes) ever wait here.
  if (major != IRP_MJ_READ && major != IRP_MJ_WRITE) return;
  InsertTailList(&sk_ExtensionOf(Csq)->PendingReadList, &Irp->Tail.Overlay.ListEntry);
}

static VOID NTAPI sk_CsqRemoveIrp(PIO_CSQ Csq, PIRP Irp) {
  UNREFERENCED_PARAMETER(Csq);
  RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
}

static PIRP NTAPI sk_CsqPeekNextIrp(PIO_CSQ Csq, PIRP Irp, PVOID PeekContext) {
  PLIST_ENTRY head = &sk_ExtensionOf(Csq)->PendingReadList;
  PLIST_ENTRY entry = Irp ? Irp->Tail.Overlay.ListEntry.Flink : head->Flink;
  PIRP next;

  for (; entry != head; entry = entry->Flink) {
    next = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
    if (!PeekContext || IoGetCurrentIrpStackLocation(next)->FileObject == (PFILE_OBJECT)PeekContext) return next;
  }
  return NULL;
}

static VOID NTAPI sk_CsqAcquireLock(PIO_CSQ Csq, PKIRQL Irql) {
  UNREFERENCED_PARAMETER(Irql);
  ExAcquireFastMutex(&sk_ExtensionOf(Csq)->PendingReadLock);
}

static VOID NTAPI sk_CsqReleaseLock(PIO_CSQ Csq, KIRQL Irql) {
  UNREFERENCED_PARAMETER(Irql);
  ExReleaseFastMutex(&sk_ExtensionOf(Csq)->PendingReadLock);
}

static VOID NTAPI sk_CsqCompleteCanceledIrp(PIO_CSQ Csq, PIRP Irp) {
  UNREFERENCED_PARAMETER(Csq);
  sk_CompleteIrp(Irp, STATUS_CANCELLED, 0);
}

VOID sk_InitPendingReads(PSK_DEVICE_EXTENSION Extension) {
  InitializeListHead(&Extension->PendingReadList);
  ExInitializeFastMutex(&Extension->PendingReadLock);
  IoCsqInitialize(&Extension->CancelSafeQueue, sk_CsqInsertIrp, sk_CsqRemoveIrp, sk_CsqPeekNextIrp, sk_CsqAcquireLock,
                  sk_CsqReleaseLock, sk_CsqCompleteCanceledIrp);
}

// Hands a read to the queue (which marks it pending). The caller must not touch it afterwards: no
// removal context is kept, since it would live in the request itself; reads are taken back by
// their handle, oldest first.
static VOID sk_ParkRead(PIRP Irp) { IoCsqInsertIrp(sk_PendingReadQueue(), Irp, NULL); }

// The oldest parked read of the handle, taken out of the queue (the caller owns it), or null.
static PIRP sk_TakeParkedRead(PFILE_OBJECT FileObject) {
  return IoCsqRemoveNextIrp(sk_PendingReadQueue(), FileObject);
}

VOID sk_CancelPendingReads(PFILE_OBJECT FileObject) {
  PIRP irp;
  while ((irp = sk_TakeParkedRead(FileObject)) != NULL) sk_CompleteIrp(irp, STATUS_CANCELLED, 0);
}

// Serves a read that the caller owns from the process's queue (made for MakeQueueFor's handle if
// the process has none and a handle is given). STATUS_PENDING when no packet waits: the read is
// untouched and still the caller's. Otherwise the read is completed and its status returned.
static NTSTATUS sk_TryServeRead(PIRP Irp, ULONG ProcessId, PFILE_OBJECT MakeQueueFor) {
  ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length;
  ULONG needed;
  PSK_MSG_NODE node;
  PVOID buffer;

  if (!NT_SUCCESS(sk_GetMsgLength(&SentrelData.ProcMsgMgr, ProcessId, MakeQueueFor, &needed))) {
    SK_INFO("Get Msg Length fail(No Msg),Insert Irp to Queue\n");
    return STATUS_PENDING;
  }
  if (needed > length) {
    SK_ERROR("NeedLength > Length -> NeedLength:0x%0x\n", needed);
    SK_INFO(" Complete Irp[0x%p]\n", Irp);
    return sk_CompleteIrp(Irp, STATUS_BUFFER_TOO_SMALL, needed);
  }
  node = sk_PickMsgFromMsgQueue(&SentrelData.ProcMsgMgr, ProcessId);
  if (!node) {
    SK_INFO("No Msg,Insert Irp to Queue\n");
    return STATUS_PENDING;
  }
  if (node->MsgLen > length) {
    needed = node->MsgLen;
    sk_ReInsertMsgNodeToMsgQueue(&SentrelData.ProcMsgMgr, ProcessId, node);
    SK_ERROR("MsgNode->MsgLen > Length -> NeedLength:0x%0x\n", needed);
    SK_INFO(" Complete Irp[0x%p]\n", Irp);
    return sk_CompleteIrp(Irp, STATUS_BUFFER_TOO_SMALL, needed);
  }
  buffer = Irp->MdlAddress ? MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority) : NULL;
  if (!buffer) {
    SK_ERROR("MmGetSystemAddressForMdlSafe fail\n");
    sk_FreeMsgNode(node);
    return sk_CompleteIrp(Irp, STATUS_INSUFFICIENT_RESOURCES, SK_NO_INFORMATION);
  }
  SK_INFO("Read MsgNode:0x%p Msg:0x%p MsgLen:0x%0x\n", node, node->Msg, node->MsgLen);
  RtlCopyMemory(buffer, node->Msg, node->MsgLen);
  needed = node->MsgLen;
  sk_FreeMsgNode(node);
  SK_INFO("Read Success[len:0x%0x]\n", needed);
  return sk_CompleteIrp(Irp, STATUS_SUCCESS, needed);
}

// A read that finds nothing and a send that finds no parked read can cross: the sender queues its
// packet while the read is being parked. Both sides therefore look again once their part is done:
// while the process has a packet waiting, its handle's oldest parked read is taken back and served
// (or parked again if another reader was faster). Never makes a queue: the process may be gone.
static VOID sk_ServeParkedReads(ULONG ProcessId, PFILE_OBJECT FileObject) {
  ULONG needed;
  PIRP irp;

  while (NT_SUCCESS(sk_GetMsgLength(&SentrelData.ProcMsgMgr, ProcessId, NULL, &needed))) {
    irp = sk_TakeParkedRead(FileObject);
    if (!irp) return;
    if (sk_TryServeRead(irp, ProcessId, NULL) == STATUS_PENDING) sk_ParkRead(irp);
  }
}

NTSTATUS sk_ServeRead(PIRP Irp, ULONG ProcessId) {
  PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
  NTSTATUS status = sk_TryServeRead(Irp, ProcessId, fileObject);

  if (status != STATUS_PENDING) return status;
  if (Irp->UserEvent) KeResetEvent(Irp->UserEvent);
  SK_INFO("Insert Irp[0x%p] to Queue\n", Irp);
  sk_ParkRead(Irp);
  sk_ServeParkedReads(ProcessId, fileObject);
  return STATUS_PENDING;
}

#undef SK_MODULE
#define SK_MODULE SK_TRACE_MSG

// Copies a packet into a parked read the caller took out and completes it; FALSE (the read
// untouched) if its buffer is too short or cannot be mapped.
static BOOLEAN sk_FillRead(PIRP Irp, PVOID Msg, ULONG MsgLen) {
  PVOID buffer;
  if (IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length < MsgLen || !Irp->MdlAddress) return FALSE;
  buffer = MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority);
  if (!buffer) return FALSE;
  RtlCopyMemory(buffer, Msg, MsgLen);
  sk_CompleteIrp(Irp, STATUS_SUCCESS, MsgLen);
  return TRUE;
}

// A private copy of a packet for a queue (which owns it from then on); null when out of memory.
static PVOID sk_CopyForQueue(PVOID Msg, ULONG MsgLen) {
  PVOID copy = ExAllocatePoolWithTag(PagedPool, MsgLen, SK_TAG_MSG_COPY);
  if (!copy) {
    SK_ERROR("NewMsg alloc fail\n");
    return NULL;
  }
  RtlCopyMemory(copy, Msg, MsgLen);
  return copy;
}

NTSTATUS sk_SendMsg(ULONG ProcessId, PVOID Msg, ULONG MsgLen) {
  NTSTATUS status;
  PSK_MSG_QUEUE queue = NULL;
  PFILE_OBJECT fileObject;
  PIRP irp;
  PVOID copy;

  PAGED_CODE();
  SK_ENTER();
  if (MsgLen < SK_PACKET_MIN_SIZE) {
    SK_ERROR("MsgLen < sizeof(SK_PACKET)\n");
    status = STATUS_INVALID_PARAMETER;
    goto Leave;
  }
  if (sk_IsConsumerProcess((HANDLE)(ULONG_PTR)ProcessId) || ((PSK_PACKET)Msg)->DstType == SKT_CONSUMER) {
    status = rb_WriteRingBuf(&SentrelData.RingBuf, Msg, MsgLen);
    goto Leave;
  }
  // The table stays held shared while the queue is used: its process's exit waits for that.
  sk_LockQueueTableShared(&SentrelData.ProcMsgMgr);
  status = sk_GetProcMsgQueue(&SentrelData.ProcMsgMgr, ProcessId, NULL, &queue);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("sk_GetProcMsgQueue fail Status:%08lx\n", status);
    goto Exit;
  }
  fileObject = queue->FileObject;
  irp = fileObject ? sk_TakeParkedRead(fileObject) : NULL;
  if (irp) {
    if (sk_FillRead(irp, Msg, MsgLen)) {
      SK_INFO("Send Msg:0x%p MsgLen:0x%0x\n", Msg, MsgLen);
      status = STATUS_SUCCESS;
      goto Exit;
    }
    SK_ERROR("Buffer Too Small.NeedLength:0x%0x\n", MsgLen);
    sk_CompleteIrp(irp, STATUS_BUFFER_TOO_SMALL, MsgLen);
  }
  copy = sk_CopyForQueue(Msg, MsgLen);
  if (!copy) {
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  status = sk_AddMsgToMsgQueue(&SentrelData.ProcMsgMgr, ProcessId, copy, MsgLen);
  if (!NT_SUCCESS(status)) {
    ExFreePoolWithTag(copy, SK_TAG_MSG_COPY);
    SK_ERROR("sk_AddMsgToMsgQueue fail Status:%08lx\n", status);
    goto Exit;
  }
  SK_INFO("Add New Msg:0x%p MsgLen:0x%0x\n", copy, MsgLen);
  if (fileObject) sk_ServeParkedReads(ProcessId, fileObject);
Exit:
  sk_UnlockQueueTable(&SentrelData.ProcMsgMgr);
Leave:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_SendMsgToConsumer(PVOID Msg, ULONG MsgLen) {
  PSK_MSG_QUEUE consumer = &SentrelData.ConsumerMsgQueue;
  NTSTATUS status;
  PFILE_OBJECT fileObject = NULL;
  ULONG consumerId = 0;
  PIRP irp = NULL;
  PIRP tooSmall = NULL;
  PVOID copy;
  LONG count;

  PAGED_CODE();
  SK_ENTER();
  if (MsgLen < SK_PACKET_MIN_SIZE) {
    SK_ERROR("MsgLen < sizeof(SK_PACKET)\n");
    status = STATUS_INVALID_PARAMETER;
    goto Leave;
  }
  if (!(consumer->Flags & SK_MSG_QUEUE_USABLE)) {
    SK_ERROR("ConsumerMsgQueue no Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Leave;
  }
  // The consumer's identity is read once: it may exit (and its words be cleared) at any moment.
  if (SK_READ_ONCE(consumer->Flags) & SK_MSG_QUEUE_CONSUMER_REGISTERED) {
    consumerId = SK_READ_ONCE(consumer->ProcessId);
    fileObject = (PFILE_OBJECT)SK_READ_ONCE(consumer->FileObject);
    if (fileObject) irp = sk_TakeParkedRead(fileObject);
  }
  if (irp) {
    SK_INFO("Remove Irp[0x%p] to Queue\n", irp);
    if (sk_FillRead(irp, Msg, MsgLen)) {
      count = InterlockedIncrement(&SentrelData.DeliveredMsgCount);
      DbgPrint("[T:0x%p] Msg Count:0x%0x\n", PsGetCurrentThread(), (ULONG)count);
      count = InterlockedIncrement(&SentrelData.ReadMsgCount);
      SK_INFO("[C:0x%0x] Read MsgNode:0x%p MsgLen:0x%0x\n", (ULONG)count, Msg, MsgLen);
      status = STATUS_SUCCESS;
      goto Leave;
    }
    tooSmall = irp;
  }
  copy = sk_CopyForQueue(Msg, MsgLen);
  if (!copy) {
    status = STATUS_INSUFFICIENT_RESOURCES;
  } else {
    status = sk_AddMsgToConsumerMsgQueue(consumer, copy, MsgLen);
    if (!NT_SUCCESS(status)) {
      ExFreePoolWithTag(copy, SK_TAG_MSG_COPY);
      SK_ERROR("sk_AddMsgToMsgQueue fail Status:%08lx\n", status);
    } else {
      SK_INFO("Add New Msg:0x%p MsgLen:0x%0x\n", copy, MsgLen);
    }
  }
  if (tooSmall) {
    SK_ERROR("[Irp:0x%p] Irp Buffer Too Small.NeedLength:0x%0x\n", tooSmall, MsgLen);
    SK_INFO(" Complete Irp[0x%p]\n", tooSmall);
    sk_CompleteIrp(tooSmall, STATUS_BUFFER_TOO_SMALL, MsgLen);
  }
  if (NT_SUCCESS(status) && fileObject && consumerId) sk_ServeParkedReads(consumerId, fileObject);
Leave:
  SK_LEAVE(status);
  return status;
}
