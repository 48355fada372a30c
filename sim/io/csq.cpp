// Cancel-safe queues: the I/O manager's side of a queue whose list and lock the driver keeps
// through its callbacks. The queue's own cancel routine and the removal routines race for the
// request's cancel routine with an interlocked exchange: whoever takes it out owns the request, so
// a request the driver removes is never also completed by cancellation, and a cancelled one is
// removed (under the driver's lock) before the driver is asked to complete it. The context of a
// queued request is kept in Tail.Overlay.DriverContext[3], as the kernel keeps it.
#include "kernel.h"

using namespace ntsim;

namespace {

bool CheckQueue(const char* call, PIO_CSQ Csq) {
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) K().verifier.Violation(call, "called above DISPATCH_LEVEL");
  if (!Csq || (Csq->Type != IO_TYPE_CSQ && Csq->Type != IO_TYPE_CSQ_EX) || Csq->ReservePointer) {
    K().verifier.Violation(call, "the queue was not set up by IoCsqInitialize or IoCsqInitializeEx");
    return false;
  }
  return true;
}

// The queue a request sits in, and the context it was inserted with (null if none): the slot holds
// either the context (whose Type comes first) or the queue itself.
PIO_CSQ QueueOf(PIRP Irp, PIO_CSQ_IRP_CONTEXT* Context) {
  void* slot = Irp->Tail.Overlay.DriverContext[3];
  auto* context = static_cast<PIO_CSQ_IRP_CONTEXT>(slot);
  if (context && context->Type == IO_TYPE_CSQ_IRP_CONTEXT) {
    *Context = context;
    return context->Csq;
  }
  *Context = nullptr;
  return static_cast<PIO_CSQ>(slot);
}

// Unlinks a request this thread owns; call with the queue's lock held.
void TakeOut(PIO_CSQ Csq, PIRP Irp) {
  PIO_CSQ_IRP_CONTEXT context;
  QueueOf(Irp, &context);
  Csq->CsqRemoveIrp(Csq, Irp);
  if (context) context->Irp = nullptr;
  Irp->Tail.Overlay.DriverContext[3] = nullptr;
}

VOID NTAPI CsqCancelRoutine(PDEVICE_OBJECT, PIRP Irp) {
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  PIO_CSQ_IRP_CONTEXT context;
  PIO_CSQ csq = QueueOf(Irp, &context);
  KIRQL irql;
  csq->CsqAcquireLock(csq, &irql);
  TakeOut(csq, Irp);
  csq->CsqReleaseLock(csq, irql);
  csq->CsqCompleteCanceledIrp(csq, Irp);
}

NTSTATUS Initialize(const char* call, PIO_CSQ Csq, ULONG type, PIO_CSQ_INSERT_IRP insert, PIO_CSQ_REMOVE_IRP remove,
                    PIO_CSQ_PEEK_NEXT_IRP peek, PIO_CSQ_ACQUIRE_LOCK acquire, PIO_CSQ_RELEASE_LOCK release,
                    PIO_CSQ_COMPLETE_CANCELED_IRP complete) {
  if (!Csq || !insert || !remove || !peek || !acquire || !release || !complete) {
    K().verifier.Violation(call, "a queue or callback routine is missing");
    return STATUS_INVALID_PARAMETER;
  }
  Csq->Type = type;
  Csq->CsqInsertIrp = insert;
  Csq->CsqRemoveIrp = remove;
  Csq->CsqPeekNextIrp = peek;
  Csq->CsqAcquireLock = acquire;
  Csq->CsqReleaseLock = release;
  Csq->CsqCompleteCanceledIrp = complete;
  Csq->ReservePointer = nullptr;
  return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NTAPI IoCsqInitialize(PIO_CSQ Csq, PIO_CSQ_INSERT_IRP CsqInsertIrp, PIO_CSQ_REMOVE_IRP CsqRemoveIrp,
                               PIO_CSQ_PEEK_NEXT_IRP CsqPeekNextIrp, PIO_CSQ_ACQUIRE_LOCK CsqAcquireLock,
                               PIO_CSQ_RELEASE_LOCK CsqReleaseLock,
                               PIO_CSQ_COMPLETE_CANCELED_IRP CsqCompleteCanceledIrp) {
  return Initialize("IoCsqInitialize", Csq, IO_TYPE_CSQ, CsqInsertIrp, CsqRemoveIrp, CsqPeekNextIrp, CsqAcquireLock,
                    CsqReleaseLock, CsqCompleteCanceledIrp);
}

NTSTATUS NTAPI IoCsqInitializeEx(PIO_CSQ Csq, PIO_CSQ_INSERT_IRP_EX CsqInsertIrp, PIO_CSQ_REMOVE_IRP CsqRemoveIrp,
                                 PIO_CSQ_PEEK_NEXT_IRP CsqPeekNextIrp, PIO_CSQ_ACQUIRE_LOCK CsqAcquireLock,
                                 PIO_CSQ_RELEASE_LOCK CsqReleaseLock,
                                 PIO_CSQ_COMPLETE_CANCELED_IRP CsqCompleteCanceledIrp) {
  // The Ex insert routine sits in the same slot, told apart by the queue's type.
  return Initialize("IoCsqInitializeEx", Csq, IO_TYPE_CSQ_EX, reinterpret_cast<PIO_CSQ_INSERT_IRP>(reinterpret_cast<void (*)()>(CsqInsertIrp)),
                    CsqRemoveIrp, CsqPeekNextIrp, CsqAcquireLock, CsqReleaseLock, CsqCompleteCanceledIrp);
}

NTSTATUS NTAPI IoCsqInsertIrpEx(PIO_CSQ Csq, PIRP Irp, PIO_CSQ_IRP_CONTEXT Context, PVOID InsertContext) {
  const char* call = "IoCsqInsertIrp";
  if (!CheckQueue(call, Csq)) return STATUS_INVALID_PARAMETER;
  K().io.RunCsqHook(CsqStep::Inserting);
  if (__atomic_load_n(&Irp->CancelRoutine, __ATOMIC_SEQ_CST)) {
    K().verifier.Violation(call, "the request already has a cancel routine");
  }
  NTSTATUS status = STATUS_SUCCESS;
  KIRQL irql;
  Csq->CsqAcquireLock(Csq, &irql);
  if (Context) {
    Context->Type = IO_TYPE_CSQ_IRP_CONTEXT;
    Context->Irp = Irp;
    Context->Csq = Csq;
    Irp->Tail.Overlay.DriverContext[3] = Context;
  } else {
    Irp->Tail.Overlay.DriverContext[3] = Csq;
  }
  if (Csq->Type == IO_TYPE_CSQ_EX) {
    status = reinterpret_cast<PIO_CSQ_INSERT_IRP_EX>(reinterpret_cast<void (*)()>(Csq->CsqInsertIrp))(Csq, Irp, InsertContext);
    if (!NT_SUCCESS(status)) {
      // Refused: the request is not queued, and stays the caller's.
      if (Context) Context->Irp = nullptr;
      Irp->Tail.Overlay.DriverContext[3] = nullptr;
      Csq->CsqReleaseLock(Csq, irql);
      return status;
    }
  } else {
    Csq->CsqInsertIrp(Csq, Irp);
  }
  IoMarkIrpPending(Irp);
  (void)IoSetCancelRoutine(Irp, CsqCancelRoutine);
  // A request cancelled before its routine was set: IoCancelIrp found nothing to call. If the
  // routine can be taken back, the request does not stay queued: it comes out of the list again
  // and is completed as cancelled here. (If it cannot, a cancellation under way has it.)
  if (__atomic_load_n(&Irp->Cancel, __ATOMIC_SEQ_CST) && IoSetCancelRoutine(Irp, NULL)) {
    TakeOut(Csq, Irp);
    Csq->CsqReleaseLock(Csq, irql);
    Csq->CsqCompleteCanceledIrp(Csq, Irp);
    return status;
  }
  Csq->CsqReleaseLock(Csq, irql);
  K().io.RunCsqHook(CsqStep::Inserted);  // from here another thread may remove and complete it
  return status;
}

VOID NTAPI IoCsqInsertIrp(PIO_CSQ Csq, PIRP Irp, PIO_CSQ_IRP_CONTEXT Context) {
  IoCsqInsertIrpEx(Csq, Irp, Context, nullptr);
}

PIRP NTAPI IoCsqRemoveIrp(PIO_CSQ Csq, PIO_CSQ_IRP_CONTEXT Context) {
  if (!CheckQueue("IoCsqRemoveIrp", Csq)) return nullptr;
  KIRQL irql;
  Csq->CsqAcquireLock(Csq, &irql);
  PIRP irp = Context->Irp;
  if (irp) {
    if (IoSetCancelRoutine(irp, NULL)) {
      TakeOut(Csq, irp);
    } else {
      irp = nullptr;  // its cancellation is under way: the cancel routine removes and completes it
    }
  }
  Csq->CsqReleaseLock(Csq, irql);
  if (!irp) K().io.RunCsqHook(CsqStep::FoundNothing);
  return irp;
}

PIRP NTAPI IoCsqRemoveNextIrp(PIO_CSQ Csq, PVOID PeekContext) {
  if (!CheckQueue("IoCsqRemoveNextIrp", Csq)) return nullptr;
  KIRQL irql;
  Csq->CsqAcquireLock(Csq, &irql);
  PIRP irp = Csq->CsqPeekNextIrp(Csq, nullptr, PeekContext);
  while (irp) {
    if (IoSetCancelRoutine(irp, NULL)) {
      TakeOut(Csq, irp);
      break;
    }
    // Being cancelled: its cancel routine will take it out; look further.
    irp = Csq->CsqPeekNextIrp(Csq, irp, PeekContext);
  }
  Csq->CsqReleaseLock(Csq, irql);
  if (!irp) K().io.RunCsqHook(CsqStep::FoundNothing);
  return irp;
}
