#include "producer/quillet.h"

#include <algorithm>
#include <cstring>

#include "kernel.h"
#include "sentrel/control_codes.h"
#include "sentrel/event_data.h"
#include "sentrel/packet_build.h"
#include "se/logon_sessions.h"

namespace ntsim {

namespace {

std::atomic<Quillet*> g_quillet{nullptr};

UNICODE_STRING Name(const wchar_t* text) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(text));
  return name;
}

}  // namespace

Quillet* CurrentQuillet() { return g_quillet.load(); }

NTSTATUS Quillet::Load() {
  if (driver_) return STATUS_SUCCESS;
  driver_ = K().io.CreateDriverObject(u"\\Driver\\Quillet", nullptr);
  for (auto& dispatch : driver_->MajorFunction) dispatch = Dispatch;
  UNICODE_STRING name = Name(SK_KNOWN_PRODUCER_DEVICE);
  NTSTATUS status = IoCreateDevice(driver_, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device_);
  if (!NT_SUCCESS(status)) {
    K().io.DeleteDriverObject(driver_);
    driver_ = nullptr;
    device_ = nullptr;
    return status;
  }
  device_->Flags &= ~DO_DEVICE_INITIALIZING;
  g_quillet = this;
  return STATUS_SUCCESS;
}

void Quillet::DeleteDevice() {
  if (!device_) return;
  IoDeleteDevice(device_);
  device_ = nullptr;
}

void Quillet::Unload() {
  if (!driver_) return;
  // A producer leaves the interface before its code goes: unregistered, Sentrel calls it no more.
  if (registered_ && device_) Unregister();
  DeleteDevice();
  hasTable_ = false;
  g_quillet = nullptr;
  K().io.DeleteDriverObject(driver_);
  driver_ = nullptr;
}

NTSTATUS Quillet::Request(ULONG code, void* in, ULONG inLength, void* out, ULONG outLength, ULONG_PTR* information) {
  UNICODE_STRING name = Name(L"\\Sentrel");
  PFILE_OBJECT file = nullptr;
  PDEVICE_OBJECT sentrel = nullptr;
  NTSTATUS status = IoGetDeviceObjectPointer(&name, FILE_READ_DATA | FILE_WRITE_DATA, &file, &sentrel);
  if (!NT_SUCCESS(status)) return status;
  KEVENT event;
  IO_STATUS_BLOCK iosb{};
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  PIRP irp = IoBuildDeviceIoControlRequest(code, sentrel, in, inLength, out, outLength, FALSE, &event, &iosb);
  if (!irp) {
    ObDereferenceObject(file);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  status = IoCallDriver(sentrel, irp);
  if (status == STATUS_PENDING) {
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    status = iosb.Status;
  }
  if (information) *information = iosb.Information;
  ObDereferenceObject(file);
  return status;
}

NTSTATUS Quillet::RegisterDevice(PDEVICE_OBJECT device) {
  uint64_t in[2] = {reinterpret_cast<uintptr_t>(device), reinterpret_cast<uintptr_t>(&Quillet::Offline)};
  NTSTATUS status = Request(IOCTL_SK_REGISTER_PRODUCER, in, sizeof in, nullptr, 0, nullptr);
  if (NT_SUCCESS(status) && device == device_) registered_ = true;
  return status;
}

NTSTATUS Quillet::Register() {
  NTSTATUS status = RegisterDevice(device_);
  if (!NT_SUCCESS(status)) return status;
  return FetchTable();
}

NTSTATUS Quillet::FetchTable() {
  uint8_t buffer[SK_INTERFACE_KRNL_SIZE] = {};
  uint64_t identity = reinterpret_cast<uintptr_t>(device_);
  std::memcpy(buffer, &identity, sizeof identity);
  ULONG_PTR information = 0;
  NTSTATUS status = Request(IOCTL_SK_GET_INTERFACEKRNL, buffer, sizeof identity, buffer, sizeof buffer, &information);
  if (NT_SUCCESS(status) && information == SK_INTERFACE_KRNL_SIZE) {
    std::memcpy(&table_, buffer, sizeof table_);
    hasTable_ = true;
  }
  return status;
}

NTSTATUS Quillet::Unregister() {
  uint64_t in = reinterpret_cast<uintptr_t>(device_);
  NTSTATUS status = Request(IOCTL_SK_UNREGISTER_PRODUCER, &in, sizeof in, nullptr, 0, nullptr);
  if (NT_SUCCESS(status)) registered_ = false;
  return status;
}

NTSTATUS Quillet::SendProcessEvent(ULONG eventType, const std::vector<uint8_t>& data, bool withCallerStack) {
  using GetPackage = NTSTATUS (*)(PEPROCESS, PVOID*, PULONG);
  using GetLogon = NTSTATUS (*)(ULONG64, PVOID*, PULONG);
  using GetStack = NTSTATUS (*)(PVOID*, PULONG);
  using FreeStack = VOID (*)(PVOID);
  using Send = NTSTATUS (*)(const void*, ULONG);
  if (!hasTable_) return STATUS_DEVICE_NOT_READY;  // not registered, or told the interface went away
  SK_INTERFACE_KRNL table = table_;
  PEPROCESS process = PsGetCurrentProcess();
  std::vector<uint8_t> packages;
  PVOID package = nullptr;
  ULONG length = 0;
  // Borrowed packages are copied at once and never freed.
  auto borrow = [&](NTSTATUS status) {
    if (NT_SUCCESS(status)) {
      packages.insert(packages.end(), static_cast<uint8_t*>(package), static_cast<uint8_t*>(package) + length);
    }
    return status;
  };
  NTSTATUS status = borrow(Routine<GetPackage>(table.GetProcInfoPackageByProcess)(process, &package, &length));
  if (!NT_SUCCESS(status)) return status;
  // The logon id, as a producer reads it from the process's primary token.
  uint64_t logonId = LogonSessions::Token(process->token)->logonId;
  status = borrow(Routine<GetLogon>(table.GetLogonInfoPackage)(logonId, &package, &length));
  if (!NT_SUCCESS(status)) return status;
  status = borrow(Routine<GetPackage>(table.GetProcTreeInfoPackageByProcess)(process, &package, &length));
  if (!NT_SUCCESS(status)) return status;
  if (withCallerStack) {
    status = Routine<GetStack>(table.GetCallerStackInfoPackage)(&package, &length);
    if (!NT_SUCCESS(status)) return status;
    packages.insert(packages.end(), static_cast<uint8_t*>(package), static_cast<uint8_t*>(package) + length);
    Routine<FreeStack>(table.FreeCallerStackInfoPackage)(package);
  }
  uint32_t body = static_cast<uint32_t>(sizeof(PACKAGE_HEADER) + packages.size() + data.size());
  std::vector<uint8_t> packet(SK_PACKET_HEADER_SIZE + body);
  sk_PacketInitEvent(packet.data(), static_cast<uint32_t>(reinterpret_cast<uintptr_t>(PsGetProcessId(process))), body);
  sk_StoreLe32(packet.data(), SK_EVENT_BODY_HEADER_OFFSET, body);
  sk_StoreLe32(packet.data(), SK_EVENT_BODY_HEADER_OFFSET + 4, eventType);
  sk_StoreLe32(packet.data(), SK_EVENT_BODY_HEADER_OFFSET + 8, static_cast<uint32_t>(sizeof(PACKAGE_HEADER) + packages.size()));
  std::copy(packages.begin(), packages.end(), packet.begin() + SK_EVENT_PACKAGES_OFFSET);
  std::copy(data.begin(), data.end(), packet.begin() + SK_EVENT_PACKAGES_OFFSET + packages.size());
  return Routine<Send>(table.SendEvent)(packet.data(), static_cast<ULONG>(packet.size()));
}

NTSTATUS NTAPI Quillet::Dispatch(PDEVICE_OBJECT device, PIRP irp) {
  (void)device;
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  NTSTATUS status = STATUS_SUCCESS;
  Quillet* self = CurrentQuillet();
  switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
    case IRP_MJ_CLOSE:
    case IRP_MJ_CLEANUP:
      break;
    case IRP_MJ_DEVICE_CONTROL:
      if (stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_SK_NOTIFY_ONLINE && self) {
        ++self->onlineNotices_;
        if (self->registerWhenOnline) self->Register();
      } else {
        status = STATUS_INVALID_DEVICE_REQUEST;
      }
      break;
    default:
      status = STATUS_INVALID_DEVICE_REQUEST;
  }
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = 0;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

VOID Quillet::Offline(PDEVICE_OBJECT sentrelDevice) {
  (void)sentrelDevice;
  Quillet* self = CurrentQuillet();
  if (!self) return;
  // From here on the table must not be used.
  self->hasTable_ = false;
  self->registered_ = false;
  ++self->offlineCalls_;
  if (self->onOffline) self->onOffline();
}

}  // namespace ntsim
