#include "fs/mount_manager.h"

#include "kernel.h"

namespace ntsim {

namespace {

NTSTATUS NTAPI CompleteWith(PIRP irp, NTSTATUS status) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = 0;
  IofCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS NTAPI MountMgrCreateClose(PDEVICE_OBJECT, PIRP irp) { return CompleteWith(irp, STATUS_SUCCESS); }

// Volume queries (IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH) come with the simulated volumes.
NTSTATUS NTAPI MountMgrDeviceControl(PDEVICE_OBJECT, PIRP irp) {
  return CompleteWith(irp, STATUS_INVALID_DEVICE_REQUEST);
}

}  // namespace

void StartMountManager(IoManager& io) {
  PDRIVER_OBJECT driver = io.CreateDriverObject(u"\\Driver\\mountmgr", nullptr);
  driver->MajorFunction[IRP_MJ_CREATE] = MountMgrCreateClose;
  driver->MajorFunction[IRP_MJ_CLEANUP] = MountMgrCreateClose;
  driver->MajorFunction[IRP_MJ_CLOSE] = MountMgrCreateClose;
  driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = MountMgrDeviceControl;
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"\\Device\\MountPointManager");
  PDEVICE_OBJECT device = nullptr;
  io.CreateDevice(driver, 0, &name, MOUNTMGRCONTROLTYPE, 0, FALSE, &device);
  device->Flags &= ~DO_DEVICE_INITIALIZING;
}

}  // namespace ntsim
