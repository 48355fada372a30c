#include "fs/mount_manager.h"

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "kernel.h"

namespace ntsim {

namespace {

// The booted machine's mount manager.
struct MountManagerState {
  std::mutex mutex;
  std::shared_ptr<FileStore> store;
  NTSTATUS failure = STATUS_SUCCESS;
  bool pending = false;
  size_t queries = 0;
  std::vector<std::thread> completers;  // answers being delivered late
};
MountManagerState g_state;

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IofCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS NTAPI MountMgrCreateClose(PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS, 0); }

// The one path the query reports for a known volume: its letter, else its mount folder, else its
// GUID path. Null when the mount manager does not know the device.
bool DosVolumePath(FileStore* store, const std::u16string& deviceName, std::u16string* path) {
  if (!store) return false;
  std::lock_guard<std::mutex> lock(store->mutex);
  Volume* volume = store->FindVolume(deviceName);
  if (!volume || !volume->present || !volume->knownToMountManager) return false;
  if (volume->letter) {
    *path = std::u16string(1, volume->letter) + u":";
  } else if (!volume->mountFolder.empty()) {
    *path = volume->mountFolder;
  } else {
    *path = VolumeGuidPath(volume->deviceName);
  }
  return true;
}

// IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH, METHOD_BUFFERED: the input and output share the system
// buffer, so the name is read in full before the answer is written.
NTSTATUS AnswerQuery(PIRP irp, FileStore* store, ULONG_PTR* information) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  ULONG inLength = stack->Parameters.DeviceIoControl.InputBufferLength;
  ULONG outLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
  void* buffer = irp->AssociatedIrp.SystemBuffer;
  const ULONG nameOffset = FIELD_OFFSET(MOUNTMGR_TARGET_NAME, DeviceName);
  if (inLength < nameOffset) return STATUS_INVALID_PARAMETER;
  auto* target = static_cast<const MOUNTMGR_TARGET_NAME*>(buffer);
  if (inLength < nameOffset + target->DeviceNameLength) return STATUS_INVALID_PARAMETER;
  if (outLength < sizeof(MOUNTMGR_VOLUME_PATHS)) return STATUS_INVALID_PARAMETER;
  std::u16string deviceName(reinterpret_cast<const char16_t*>(target->DeviceName),
                            target->DeviceNameLength / sizeof(WCHAR));
  std::u16string path;
  if (!DosVolumePath(store, deviceName, &path)) return STATUS_OBJECT_NAME_NOT_FOUND;
  std::u16string multiSz = path + u'\0' + u'\0';
  ULONG bytes = static_cast<ULONG>(multiSz.size() * sizeof(WCHAR));
  auto* paths = static_cast<PMOUNTMGR_VOLUME_PATHS>(buffer);
  paths->MultiSzLength = bytes;
  const ULONG listOffset = FIELD_OFFSET(MOUNTMGR_VOLUME_PATHS, MultiSz);
  if (outLength < listOffset + bytes) {
    // The caller learns the length it needs and asks again with a buffer that large.
    *information = sizeof(MOUNTMGR_VOLUME_PATHS);
    return STATUS_BUFFER_OVERFLOW;
  }
  std::memcpy(paths->MultiSz, multiSz.data(), bytes);
  *information = listOffset + bytes;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI MountMgrDeviceControl(PDEVICE_OBJECT, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  if (stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH) {
    return Complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  }
  std::shared_ptr<FileStore> store;
  NTSTATUS failure;
  bool pending;
  {
    std::lock_guard<std::mutex> lock(g_state.mutex);
    ++g_state.queries;
    store = g_state.store;
    failure = g_state.failure;
    pending = g_state.pending;
  }
  ULONG_PTR information = 0;
  NTSTATUS status = NT_SUCCESS(failure) ? AnswerQuery(irp, store.get(), &information) : failure;
  if (!pending) return Complete(irp, status, information);
  IoMarkIrpPending(irp);
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  // The request may be completed and freed before this routine returns: it is not touched again.
  std::lock_guard<std::mutex> lock(g_state.mutex);
  g_state.completers.emplace_back([irp] {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    IofCompleteRequest(irp, IO_NO_INCREMENT);
  });
  return STATUS_PENDING;
}

// FNV-1a over the upcased name, twice with different offsets: 128 stable bits.
uint64_t Fnv(const std::u16string& text, uint64_t hash) {
  for (char16_t c : text) {
    hash ^= static_cast<uint64_t>(c);
    hash *= 0x100000001B3ull;
  }
  return hash;
}

}  // namespace

std::u16string VolumeGuidPath(const std::u16string& deviceName) {
  std::u16string upcased = Upcase(deviceName);
  uint64_t high = Fnv(upcased, 0xCBF29CE484222325ull);
  uint64_t low = Fnv(upcased, 0x84222325CBF29CE4ull);
  // Shaped as a random (version 4) GUID, as volume GUIDs are.
  high = (high & ~0xF000ull) | 0x4000ull;
  low = (low & ~(0xC000ull << 48)) | (0x8000ull << 48);
  char text[64];
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%012llx", static_cast<unsigned>(high >> 32),
                static_cast<unsigned>((high >> 16) & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                static_cast<unsigned>(low >> 48), static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFull));
  return u"\\\\?\\Volume{" + ToU16(text) + u"}\\";
}

void StartMountManager(IoManager& io) {
  {
    std::lock_guard<std::mutex> lock(g_state.mutex);
    g_state.store.reset();
    g_state.failure = STATUS_SUCCESS;
    g_state.pending = false;
    g_state.queries = 0;
  }
  PDRIVER_OBJECT driver = io.CreateDriverObject(u"\\Driver\\mountmgr", nullptr);
  driver->MajorFunction[IRP_MJ_CREATE] = MountMgrCreateClose;
  driver->MajorFunction[IRP_MJ_CLEANUP] = MountMgrCreateClose;
  driver->MajorFunction[IRP_MJ_CLOSE] = MountMgrCreateClose;
  driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = MountMgrDeviceControl;
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, MOUNTMGR_DEVICE_NAME);
  PDEVICE_OBJECT device = nullptr;
  io.CreateDevice(driver, 0, &name, MOUNTMGRCONTROLTYPE, 0, FALSE, &device);
  device->Flags &= ~DO_DEVICE_INITIALIZING;
}

void StopMountManager() {
  std::vector<std::thread> completers;
  {
    std::lock_guard<std::mutex> lock(g_state.mutex);
    completers.swap(g_state.completers);
    g_state.store.reset();
  }
  for (std::thread& t : completers) t.join();
}

void ConnectMountManager(std::shared_ptr<FileStore> store) {
  std::lock_guard<std::mutex> lock(g_state.mutex);
  g_state.store = std::move(store);
}

void MountManagerFailQueries(NTSTATUS status) {
  std::lock_guard<std::mutex> lock(g_state.mutex);
  g_state.failure = status;
}

void MountManagerAnswerPending(bool pending) {
  std::lock_guard<std::mutex> lock(g_state.mutex);
  g_state.pending = pending;
}

size_t MountManagerQueryCount() {
  std::lock_guard<std::mutex> lock(g_state.mutex);
  return g_state.queries;
}

}  // namespace ntsim
