#include "channel/pending_reads.h"

#include "channel/dispatch.h"
#include "core/debug_log.h"
#include "core/sentrel_data.h"

#define SK_MODULE SK_TRACE_COMMU

// The removal context of a parked read sits in the first three of the request's four driver
// context words; the cancel-safe queue keeps its own pointer in the fourth.
static_assert(sizeof(IO_CSQ_IRP_CONTEXT) <= 3 * sizeof(PVOID), "the context fits the request");
#define SK_PARKED_CONTEXT(Irp) ((PIO_CSQ_IRP_CONTEXT) & (Irp)->Tail.Overlay.DriverContext[0])

static PSK_DEVICE_EXTENSION sk_ExtensionOf(PIO_CSQ Csq) {
  return CONTAINING_RECORD(Csq, SK_DEVICE_EXTENSION, CancelSafeQueue);
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

NTSTATUS sk_ParkRead(PIRP Irp) {
  PSK_DEVICE_EXTENSION extension = (PSK_DEVICE_EXTENSION)SkDeviceObject->DeviceExtension;
  IoCsqInsertIrp(&extension->CancelSafeQueue, Irp, SK_PARKED_CONTEXT(Irp));
  return STATUS_PENDING;
}

BOOLEAN sk_UnparkRead(PIRP Irp) {
  PSK_DEVICE_EXTENSION extension = (PSK_DEVICE_EXTENSION)SkDeviceObject->DeviceExtension;
  return IoCsqRemoveIrp(&extension->CancelSafeQueue, SK_PARKED_CONTEXT(Irp)) != NULL;
}

PIRP sk_TakePendingRead(PFILE_OBJECT FileObject) {
  PSK_DEVICE_EXTENSION extension = (PSK_DEVICE_EXTENSION)SkDeviceObject->DeviceExtension;
  return IoCsqRemoveNextIrp(&extension->CancelSafeQueue, FileObject);
}
