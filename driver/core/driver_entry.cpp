// The driver's frame: entry, unload, the device and its dispatch table, shutdown.
#include "core/debug_log.h"
#include "core/load_guard.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "channel/dispatch.h"
#include "channel/interface_krnl.h"
#include "channel/pending_reads.h"

#define SK_MODULE SK_TRACE_CORE

PDRIVER_OBJECT SkDriverObject = NULL;
PDEVICE_OBJECT SkDeviceObject = NULL;
volatile BOOLEAN SentrelOnline = FALSE;
volatile LONG LoadGuardReleased = FALSE;

static const WCHAR SkDeviceName[] = L"\\Sentrel";
static const WCHAR SkLinkName[] = L"\\DosDevices\\Sentrel";
// System: all; administrators, everyone and restricted code: read, write, execute.
static const WCHAR SkDeviceSddl[] = L"D:P(A;;GA;;;SY)(A;;GRGWGX;;;BA)(A;;GRGWGX;;;WD)(A;;GRGWGX;;;RC)";

extern "C" DRIVER_INITIALIZE DriverEntry;
static DRIVER_UNLOAD sk_DriverUnload;
static DRIVER_DISPATCH sk_DispatchCreateClose;
static DRIVER_DISPATCH sk_DispatchInvalidRequest;
static DRIVER_DISPATCH sk_DispatchShutdown;

static NTSTATUS sk_CompleteRequest(PIRP Irp, NTSTATUS Status) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = 0;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

// Nothing is allocated per open: create and close only succeed.
static NTSTATUS sk_DispatchCreateClose(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  UNREFERENCED_PARAMETER(DeviceObject);
  return sk_CompleteRequest(Irp, STATUS_SUCCESS);
}

static NTSTATUS sk_DispatchInvalidRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  UNREFERENCED_PARAMETER(DeviceObject);
  return sk_CompleteRequest(Irp, STATUS_INVALID_DEVICE_REQUEST);
}

// A run ends in order once: the first of a shutdown, the unload and a failed load lowers the load
// count, and nothing after it does. A second shutdown request lowering it again would hide a crash
// from the count. A release that failed lowered nothing, so a later one may try again.
static VOID sk_ReleaseLoadGuardOnce(void) {
  if (InterlockedExchange(&LoadGuardReleased, TRUE) != FALSE) return;
  if (!NT_SUCCESS(sk_LoadGuardRelease())) InterlockedExchange(&LoadGuardReleased, FALSE);
}

// Shutdown stops nothing: it only marks the run as ended in order.
static NTSTATUS sk_DispatchShutdown(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  NTSTATUS status;
  UNREFERENCED_PARAMETER(DeviceObject);
  PAGED_CODE();
  SK_ENTER();
  sk_ReleaseLoadGuardOnce();
  status = sk_CompleteRequest(Irp, STATUS_SUCCESS);
  SK_LEAVE(status);
  return status;
}

static void sk_InitDeviceExtension(PDEVICE_OBJECT DeviceObject) {
  PSK_DEVICE_EXTENSION extension = (PSK_DEVICE_EXTENSION)DeviceObject->DeviceExtension;
  extension->Tag = SK_RECORD_DEVICE_EXTENSION;
  extension->Size = sizeof(SK_DEVICE_EXTENSION);
  sk_InitPendingReads(extension);
}

static VOID sk_DriverUnload(PDRIVER_OBJECT DriverObject) {
  UNICODE_STRING link;
  NTSTATUS status;
  UNREFERENCED_PARAMETER(DriverObject);

  PAGED_CODE();
  SK_ENTER();
  SK_WRITE_ONCE(SentrelOnline, FALSE);  // first, so that nothing is reported while the managers stop
  // Before anything stops: no producer driver's call reaches a stopped manager.
  sk_OffInterfaceKrnl();
  RtlInitUnicodeString(&link, SkLinkName);
  IoDeleteSymbolicLink(&link);
  // A stop that fails leaves its managers and the device in place: deleting the device under a
  // running manager would be worse than keeping both.
  status = sk_UninitSentrelData();
  if (NT_SUCCESS(status)) {
    IoDeleteDevice(SkDeviceObject);
    SkDeviceObject = NULL;
  }
  SK_LEAVE(status);
  sk_UninitDebugLevel();
  sk_ReleaseLoadGuardOnce();
}

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  UNICODE_STRING deviceName, linkName, sddl;
  NTSTATUS status;
  ULONG i;

  status = sk_LoadGuardEnter();
  if (!NT_SUCCESS(status)) return status;  // refused: nothing else exists yet
  sk_InitDebugLevel(RegistryPath);
  sk_TraceEnter(SK_TRACE_CORE, "Sentrel DriverEntry");
  SkDriverObject = DriverObject;

  RtlInitUnicodeString(&deviceName, SkDeviceName);
  RtlInitUnicodeString(&linkName, SkLinkName);
  RtlInitUnicodeString(&sddl, SkDeviceSddl);
  status = IoCreateDeviceSecure(DriverObject, sizeof(SK_DEVICE_EXTENSION), &deviceName, FILE_DEVICE_UNKNOWN, 0, FALSE,
                                &sddl, NULL, &SkDeviceObject);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("IoCreateDevice fail -> %08lx\n", status);
    SkDeviceObject = NULL;
    goto Fail;
  }
  sk_InitDeviceExtension(SkDeviceObject);

  status = IoCreateSymbolicLink(&linkName, &deviceName);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("IoCreateSymbolicLink fail -> %08lx\n", status);
    IoDeleteDevice(SkDeviceObject);
    SkDeviceObject = NULL;
    goto Fail;
  }

  status = IoRegisterShutdownNotification(SkDeviceObject);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("IoRegisterShutdownNotification fail -> %08lx\n", status);
    IoDeleteSymbolicLink(&linkName);
    IoDeleteDevice(SkDeviceObject);
    SkDeviceObject = NULL;
    goto Fail;
  }

  for (i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; ++i) DriverObject->MajorFunction[i] = sk_DispatchInvalidRequest;
  DriverObject->MajorFunction[IRP_MJ_CREATE] = sk_DispatchCreateClose;
  DriverObject->MajorFunction[IRP_MJ_CLOSE] = sk_DispatchCreateClose;
  DriverObject->MajorFunction[IRP_MJ_SHUTDOWN] = sk_DispatchShutdown;
  DriverObject->MajorFunction[IRP_MJ_READ] = sk_Read;
  DriverObject->MajorFunction[IRP_MJ_WRITE] = sk_Write;
  DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = sk_DeviceControl;
  DriverObject->MajorFunction[IRP_MJ_CLEANUP] = sk_Cleanup;
  DriverObject->DriverUnload = sk_DriverUnload;

  status = sk_InitSentrelData();
  if (!NT_SUCCESS(status)) {
    SK_ERROR("sk_InitSentrelData fail -> %08lx\n", status);
    IoUnregisterShutdownNotification(SkDeviceObject);
    IoDeleteSymbolicLink(&linkName);
    IoDeleteDevice(SkDeviceObject);
    SkDeviceObject = NULL;
    goto Fail;
  }

  SK_WRITE_ONCE(SentrelOnline, TRUE);
  SkDeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;
  SkDeviceObject->Flags |= DO_DIRECT_IO;
  sk_NotifySentrelOnline();
  sk_TraceLeave(SK_TRACE_CORE, "Sentrel DriverEntry Leave", STATUS_SUCCESS);
  return STATUS_SUCCESS;

Fail:
  sk_TraceLeave(SK_TRACE_CORE, "Sentrel DriverEntry Leave", status);
  sk_UninitDebugLevel();
  sk_ReleaseLoadGuardOnce();
  return status;
}
