// The simulated I/O manager: driver and device objects, file objects, requests and their
// completion, shutdown notification, and the user-mode side of CreateFile, ReadFile, WriteFile,
// DeviceIoControl and CloseHandle.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ob/object_manager.h"

namespace ntsim {

// What a create asks for (the arguments of ZwCreateFile that reach the file system).
struct CreateRequest {
  std::u16string ntPath;
  ACCESS_MASK access = 0;
  ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  ULONG disposition = FILE_OPEN;
  ULONG options = 0;
  ULONG attributes = 0;
  bool kernelHandle = false;
  bool driverOwned = false;  // opened by the driver: reported if still open at unload
};

// What a user-mode caller gets back from a request, as the Win32 routines report it.
struct IoResult {
  NTSTATUS status = STATUS_SUCCESS;
  ULONG_PTR information = 0;
};

class IoManager {
 public:
  void Boot(ObjectManager& ob);
  void Teardown();

  PDRIVER_OBJECT CreateDriverObject(const std::u16string& name, PDRIVER_INITIALIZE entry);
  void DeleteDriverObject(PDRIVER_OBJECT driver);

  NTSTATUS CreateDevice(PDRIVER_OBJECT driver, ULONG extensionSize, const UNICODE_STRING* name, DEVICE_TYPE type,
                        ULONG characteristics, BOOLEAN exclusive, PDEVICE_OBJECT* device);
  void DeleteDevice(PDEVICE_OBJECT device);

  // Requests.
  PIRP AllocateIrp(CCHAR stackSize);
  NTSTATUS CallDriver(PDEVICE_OBJECT device, PIRP irp);
  void CompleteRequest(PIRP irp);
  // Sends a request built by the I/O manager and waits until it is completed.
  IoResult SendAndWait(PDEVICE_OBJECT device, PIRP irp);
  void FreeIrp(PIRP irp);
  // Requests not yet completed; with a driver, only those it holds in one of its devices.
  size_t OutstandingRequests(PDRIVER_OBJECT driver = nullptr);
  // Requests allocated and not yet freed, completed or not.
  size_t AllocatedRequests();

  // IoBuildDeviceIoControlRequest: a request the I/O manager owns and frees on its final
  // completion, after copying the output back and setting the caller's status block and event.
  // Null if the buffers do not match their lengths.
  PIRP BuildDeviceIoControl(ULONG code, PDEVICE_OBJECT device, PVOID in, ULONG inLength, PVOID out, ULONG outLength,
                            bool internal, PKEVENT event, PIO_STATUS_BLOCK iosb);

  // The name of a file object as ObQueryNameString reports it: its device's name followed by the
  // name its file system gives the file (asked with IRP_MJ_QUERY_INFORMATION), or by the name it
  // was opened with where the device answers no such query.
  NTSTATUS QueryFileObjectName(PFILE_OBJECT file, std::u16string* name);

  // Shutdown notification.
  NTSTATUS RegisterShutdown(PDEVICE_OBJECT device);
  void UnregisterShutdown(PDEVICE_OBJECT device);
  std::vector<PDEVICE_OBJECT> ShutdownDevices();

  // Symbolic links the driver created, for the unload verdict.
  void NoteDriverLink(void* link);
  void ForgetDriverLink(void* link);
  std::vector<std::u16string> DriverLinks();

  // Files, for any caller: the handle goes to the kernel's table or the current process's.
  NTSTATUS CreateFile(const CreateRequest& request, HANDLE* handle, ULONG_PTR* information);
  IoResult Transfer(HANDLE handle, UCHAR major, void* buffer, ULONG length, const LARGE_INTEGER* offset,
                    KPROCESSOR_MODE mode);
  IoResult Flush(HANDLE handle, KPROCESSOR_MODE mode);
  IoResult QueryInformation(HANDLE handle, int infoClass, void* buffer, ULONG length, KPROCESSOR_MODE mode);

  // The user-mode side: the calling thread acts in its own process.
  NTSTATUS UserCreateFile(const std::u16string& win32Path, ACCESS_MASK access, HANDLE* handle);
  IoResult UserDeviceIoControl(HANDLE handle, ULONG code, const void* in, ULONG inLength, void* out,
                               ULONG outLength);
  IoResult UserRead(HANDLE handle, void* buffer, ULONG length);
  IoResult UserWrite(HANDLE handle, const void* buffer, ULONG length);
  IoResult UserSendMajor(HANDLE handle, UCHAR major);  // any other request, with no buffers
  NTSTATUS UserCloseHandle(HANDLE handle);

  void SendFileRequest(PFILE_OBJECT file, UCHAR major);  // cleanup and close, from the object manager

 private:
  struct RequestState {
    bool completed = false;
    bool dispatchReturned = false;
    PDEVICE_OBJECT device = nullptr;  // where the request was last sent
    // Requests built by IoBuildDeviceIoControlRequest: freed by the I/O manager on completion.
    bool freeOnCompletion = false;
    std::unique_ptr<char[]> systemBuffer;
    void* output = nullptr;  // where a buffered request's output goes back to
    ULONG outputLength = 0;
  };
  void FinishOwnedRequest(PIRP irp);
  NTSTATUS ReferenceFile(HANDLE handle, ACCESS_MASK access, KPROCESSOR_MODE mode, PFILE_OBJECT* file);
  PIRP BuildUserIrp(PFILE_OBJECT file, UCHAR major);

  ObjectManager* ob_ = nullptr;
  std::mutex mutex_;
  std::condition_variable completed_;
  std::map<PIRP, RequestState> requests_;
  std::vector<PDEVICE_OBJECT> shutdown_;
  std::set<void*> driverLinks_;
  std::vector<PDRIVER_OBJECT> drivers_;
};

const char* MajorFunctionName(UCHAR major);

}  // namespace ntsim
