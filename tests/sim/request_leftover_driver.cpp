// A driver image that leaves a request pending when it unloads: in DriverEntry it sends its own
// device a request it built, parks it, and forgets it. The unload verdict must name the request,
// since the kernel would one day complete it into the unmapped image.
#include "ntsim/ntsim.h"

namespace {

PDEVICE_OBJECT g_device;
KEVENT g_event;
IO_STATUS_BLOCK g_iosb;

NTSTATUS NTAPI Park(PDEVICE_OBJECT, PIRP Irp) {
  IoMarkIrpPending(Irp);
  return STATUS_PENDING;
}

VOID NTAPI Unload(PDRIVER_OBJECT) { IoDeleteDevice(g_device); }

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
  DriverObject->DriverUnload = Unload;
  DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Park;
  NTSTATUS status = IoCreateDevice(DriverObject, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_device);
  if (!NT_SUCCESS(status)) return status;
  g_device->Flags &= ~DO_DEVICE_INITIALIZING;
  KeInitializeEvent(&g_event, NotificationEvent, FALSE);
  PIRP irp = IoBuildDeviceIoControlRequest(CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_NEITHER, FILE_ANY_ACCESS),
                                           g_device, nullptr, 0, nullptr, 0, TRUE, &g_event, &g_iosb);
  if (!irp) {
    IoDeleteDevice(g_device);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  IoCallDriver(g_device, irp);
  return STATUS_SUCCESS;
}
