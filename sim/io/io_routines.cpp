// The I/O manager's driver-facing routines.
#include "kernel.h"

using namespace ntsim;

namespace ntsim {
void NoteDriverReference(void* body);
}

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                              DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PDEVICE_OBJECT* DeviceObject) {
  if (K().verifier.ShouldFail("IoCreateDevice")) return STATUS_INSUFFICIENT_RESOURCES;
  return K().io.CreateDevice(DriverObject, DeviceExtensionSize, DeviceName, DeviceType, DeviceCharacteristics,
                             Exclusive, DeviceObject);
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
  if (!K().ob.IsObject(DeviceObject) || ObjectManager::HeaderOf(DeviceObject)->type != *IoDeviceObjectType) {
    K().verifier.Violation("IoDeleteDevice", "not a device object");
    return;
  }
  K().io.DeleteDevice(DeviceObject);
}

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
  if (K().verifier.ShouldFail("IoCreateSymbolicLink")) return STATUS_INSUFFICIENT_RESOURCES;
  void* link = nullptr;
  NTSTATUS status = K().ob.CreateSymbolicLink(ToU16(SymbolicLinkName), ToU16(DeviceName), &link);
  if (NT_SUCCESS(status)) K().io.NoteDriverLink(link);
  return status;
}

NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) {
  ObjectHeader* header = nullptr;
  NTSTATUS status = K().ob.Lookup(ToU16(SymbolicLinkName), true, &header, nullptr);
  if (!NT_SUCCESS(status)) return status;
  if (header->type != &K().ob.types.symbolicLink) {
    K().ob.Dereference(header->Body());
    return STATUS_OBJECT_TYPE_MISMATCH;
  }
  K().io.ForgetDriverLink(header->Body());
  K().ob.RemoveName(header->Body());
  K().ob.Dereference(header->Body());
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoRegisterShutdownNotification(PDEVICE_OBJECT DeviceObject) {
  if (K().verifier.ShouldFail("IoRegisterShutdownNotification")) return STATUS_INSUFFICIENT_RESOURCES;
  return K().io.RegisterShutdown(DeviceObject);
}

VOID NTAPI IoUnregisterShutdownNotification(PDEVICE_OBJECT DeviceObject) { K().io.UnregisterShutdown(DeviceObject); }

VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) { K().io.CompleteRequest(Irp); }

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return K().io.CallDriver(DeviceObject, Irp); }

PEPROCESS NTAPI IoGetRequestorProcess(PIRP Irp) {
  return Irp->Tail.Overlay.Thread ? static_cast<_KTHREAD*>(Irp->Tail.Overlay.Thread)->process : nullptr;
}

NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                        PFILE_OBJECT* FileObject, PDEVICE_OBJECT* DeviceObject) {
  if (K().verifier.ShouldFail("IoGetDeviceObjectPointer")) return STATUS_INSUFFICIENT_RESOURCES;
  // As the kernel does: open the device (the create request goes to its driver), reference the
  // file object, close the handle (cleanup goes to the driver) and hand out the file object.
  HANDLE handle = nullptr;
  NTSTATUS status;
  {
    ThreadScope kernelCall(CurrentThread(), KernelMode);
    // A kernel handle, so that no user process sees it.
    CreateRequest request;
    request.ntPath = ToU16(ObjectName);
    request.access = DesiredAccess;
    request.options = FILE_NON_DIRECTORY_FILE;
    request.kernelHandle = true;
    status = K().io.CreateFile(request, &handle, nullptr);
    if (!NT_SUCCESS(status)) return status;
    void* file = nullptr;
    status = K().ob.ReferenceByHandle(handle, *IoFileObjectType, KernelMode, 0, &file, nullptr);
    K().ob.CloseHandle(handle, KernelMode);
    if (!NT_SUCCESS(status)) return status;
    NoteDriverReference(file);
    *FileObject = static_cast<PFILE_OBJECT>(file);
    *DeviceObject = static_cast<PFILE_OBJECT>(file)->DeviceObject;
  }
  return STATUS_SUCCESS;
}

PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                         BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                         PIO_STATUS_BLOCK IoStatusBlock) {
  const char* call = "IoBuildDeviceIoControlRequest";
  // The request is queued to the calling thread and its completion runs there: passive level only.
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) K().verifier.Violation(call, "called above PASSIVE_LEVEL");
  if (!K().ob.IsObject(DeviceObject) || ObjectManager::HeaderOf(DeviceObject)->type != *IoDeviceObjectType) {
    K().verifier.Violation(call, "not a device object");
    return nullptr;
  }
  if (!IoStatusBlock) {
    K().verifier.Violation(call, "no I/O status block");
    return nullptr;
  }
  if ((!InputBuffer && InputBufferLength) || (!OutputBuffer && OutputBufferLength)) {
    K().verifier.Violation(call, "a buffer length without its buffer");
    return nullptr;
  }
  if (K().verifier.ShouldFail(call)) return nullptr;
  return K().io.BuildDeviceIoControl(IoControlCode, DeviceObject, InputBuffer, InputBufferLength, OutputBuffer,
                                     OutputBufferLength, InternalDeviceIoControl != FALSE, Event, IoStatusBlock);
}

// ---------------------------------------------------------------------------------------------
// Cancellation

VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) { K().io.AcquireCancelSpinLock(Irql); }

VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql) { K().io.ReleaseCancelSpinLock(Irql); }

// Under the cancel spin lock: the cancel bit is set, and the cancel routine is taken out of the
// request with the same interlocked exchange that IoSetCancelRoutine uses, so that exactly one of
// the canceller and a driver clearing the routine gets it. The routine runs with the lock held and
// must release it (with Irp->CancelIrql).
BOOLEAN NTAPI IoCancelIrp(PIRP Irp) {
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) K().verifier.Violation("IoCancelIrp", "called above DISPATCH_LEVEL");
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  __atomic_store_n(&Irp->Cancel, TRUE, __ATOMIC_SEQ_CST);
  PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, NULL);
  if (!routine) {
    IoReleaseCancelSpinLock(irql);
    return FALSE;
  }
  Irp->CancelIrql = irql;
  // The device of the driver that holds the request: the one its current stack location names.
  PDEVICE_OBJECT device =
      Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
  routine(device, Irp);
  if (K().io.CancelSpinLockHeld()) {
    K().verifier.Violation("IoCancelIrp", "the cancel routine returned without releasing the cancel spin lock");
    IoReleaseCancelSpinLock(irql);
  }
  return TRUE;
}
