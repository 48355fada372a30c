// Quillet: a producer driver that a test or scenario loads beside Sentrel. It is written here, in
// the simulated machine's host code, but lives as a real driver: a driver object \Driver\Quillet
// with the device \Quillet, a dispatch routine that answers IOCTL_SK_NOTIFY_ONLINE, and an offline
// routine. It talks to Sentrel only as a kernel driver can: kernel-mode device-control requests to
// \Sentrel (IoGetDeviceObjectPointer, IoBuildDeviceIoControlRequest, IofCallDriver, waiting on an
// event when the request pends), and the routines of the table Sentrel hands it. Its methods run
// in the calling thread's context: call them inside World::AsSystem or a process's InProcess.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "ntsim/ntsim.h"
#include "sentrel/interface_krnl.h"

namespace ntsim {

class Quillet {
 public:
  Quillet() = default;
  Quillet(const Quillet&) = delete;
  Quillet& operator=(const Quillet&) = delete;

  // Creates the driver object and its device (a second load after an unload makes new ones).
  NTSTATUS Load();
  // Its unload routine: unregisters from Sentrel if registered (and Sentrel still takes requests),
  // then deletes its device.
  void Unload();
  // Deletes the device while the driver stays loaded (it is found by name no more).
  void DeleteDevice();
  bool Loaded() const { return driver_ != nullptr; }
  PDEVICE_OBJECT Device() const { return device_; }

  // IOCTL_SK_REGISTER_PRODUCER with its device object and offline routine, then
  // IOCTL_SK_GET_INTERFACEKRNL into Table(); the registration's status.
  NTSTATUS Register();
  NTSTATUS Unregister();
  NTSTATUS FetchTable();
  // A kernel-mode device-control request to \Sentrel; *information gets the request's information.
  NTSTATUS Request(ULONG code, void* in, ULONG inLength, void* out, ULONG outLength, ULONG_PTR* information);
  // Registers with a device object given (Device() when null), for the cases the driver refuses.
  NTSTATUS RegisterDevice(PDEVICE_OBJECT device);

  const SK_INTERFACE_KRNL& Table() const { return table_; }
  bool HasTable() const { return hasTable_.load(); }
  // The table's routines, called through the addresses in it.
  template <typename Fn>
  Fn Routine(SK_UINT64 address) const {
    return reinterpret_cast<Fn>(static_cast<uintptr_t>(address));
  }

  // An event of the given type on behalf of the current thread's process, as a producer builds one
  // (sentrel/event_data.h): the packet header, the body header, the process, logon and tree
  // packages it borrows through the table, the thread's caller stack when asked, then the data;
  // sent with the table's SendEvent. The status of the first step that failed.
  NTSTATUS SendProcessEvent(ULONG eventType, const std::vector<uint8_t>& data, bool withCallerStack);

  // When told that Sentrel is online: register and fetch the table (the usual producer), or only
  // count the notice.
  bool registerWhenOnline = true;
  // Runs inside the offline routine, after the table has been put away (a test's probe).
  std::function<void()> onOffline;
  int OnlineNotices() const { return onlineNotices_.load(); }
  int OfflineCalls() const { return offlineCalls_.load(); }

 private:
  static NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT device, PIRP irp);
  static VOID Offline(PDEVICE_OBJECT sentrelDevice);

  PDRIVER_OBJECT driver_ = nullptr;
  PDEVICE_OBJECT device_ = nullptr;
  SK_INTERFACE_KRNL table_{};
  std::atomic<bool> hasTable_{false};
  std::atomic<bool> registered_{false};
  std::atomic<int> onlineNotices_{0};
  std::atomic<int> offlineCalls_{0};
};

// The producer driver of the machine (one at a time), for its dispatch and offline routines.
Quillet* CurrentQuillet();

}  // namespace ntsim
