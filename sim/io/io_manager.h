// The simulated I/O manager: driver and device objects, file objects, requests, their completion
// and cancellation, shutdown notification, and the user-mode side of CreateFile, ReadFile,
// WriteFile, DeviceIoControl, CancelIo and CloseHandle.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
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

// A request issued through the system services (NtReadFile, NtWriteFile, NtDeviceIoControlFile):
// what the call returned and, once the request is completed, its final status and information,
// as an OVERLAPPED reports them. An overlapped request carries an event (Irp->UserEvent) that the
// I/O manager sets when the request completes. It outlives the machine it was issued on.
class PendingIo {
 public:
  PendingIo();
  PendingIo(const PendingIo&) = delete;
  PendingIo& operator=(const PendingIo&) = delete;

  // STATUS_PENDING when the request went on waiting in its driver; otherwise its final status.
  NTSTATUS IssueStatus() const { return issueStatus_; }
  // GetOverlappedResult with a bounded wait: true once the request is completed.
  bool Wait(std::chrono::milliseconds timeout);
  bool Completed() const;
  // The final status and information; STATUS_PENDING until the request is completed.
  IoResult Result() const;
  PKEVENT Event() { return &event_; }

 private:
  friend class IoManager;
  void Finish(const IoResult& result);

  mutable std::mutex mutex_;
  std::condition_variable done_;
  bool completed_ = false;
  IoResult result_{STATUS_PENDING, 0};
  NTSTATUS issueStatus_ = STATUS_PENDING;
  KEVENT event_;

  // What the I/O manager does at completion. Touched only by the issuing thread before the
  // request is sent, and by the one thread that finishes it.
  PFILE_OBJECT file_ = nullptr;  // referenced until the request is finished
  UCHAR major_ = 0;
  bool overlapped_ = false;  // the call returned before the completion
  bool userEvent_ = false;   // the call carried an event (OVERLAPPED.hEvent)
  std::vector<char> system_;  // buffered I/O: the system buffer
  void* output_ = nullptr;    // where the system buffer's output goes back to
  ULONG outputLength_ = 0;
  bool outputIsRead_ = false;  // a buffered read (else a buffered control request's output)
  bool updatesPosition_ = false;
  LONGLONG position_ = 0;
};

// Moments of a cancel-safe queue at which a test may act: a request about to be inserted, one just
// inserted (the queue's lock released), and a removal that found no request.
enum class CsqStep { Inserting, Inserted, FoundNothing };

class IoManager {
 public:
  // Runs at those moments, on the calling thread, holding no lock of the queue (null: nothing).
  void SetCsqHook(std::function<void(CsqStep)> hook);
  void RunCsqHook(CsqStep step);

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
  // Returns once every file reference that a completion handed to the deferred worker has been
  // dropped (and the closes it caused have run).
  void WaitForDeferredDereferences();
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
  // Reads, writes and control requests that may stay pending. The request is queued to the calling
  // thread. On a file opened for synchronous I/O, or without `overlapped`, the call waits for the
  // completion; otherwise it returns once the driver's dispatch routine has.
  std::shared_ptr<PendingIo> StartTransfer(HANDLE handle, UCHAR major, void* buffer, ULONG length,
                                           const LARGE_INTEGER* offset, KPROCESSOR_MODE mode, bool overlapped);
  std::shared_ptr<PendingIo> StartDeviceIoControl(HANDLE handle, ULONG code, const void* in, ULONG inLength,
                                                  void* out, ULONG outLength, KPROCESSOR_MODE mode, bool overlapped);

  // The user-mode side: the calling thread acts in its own process.
  NTSTATUS UserCreateFile(const std::u16string& win32Path, ACCESS_MASK access, HANDLE* handle,
                          bool overlapped = false);
  IoResult UserDeviceIoControl(HANDLE handle, ULONG code, const void* in, ULONG inLength, void* out,
                               ULONG outLength);
  IoResult UserRead(HANDLE handle, void* buffer, ULONG length);
  IoResult UserWrite(HANDLE handle, const void* buffer, ULONG length);
  IoResult UserSendMajor(HANDLE handle, UCHAR major);  // any other request, with no buffers
  NTSTATUS UserCloseHandle(HANDLE handle);

  // Cancellation. NtCancelIoFile (CancelIo): the calling thread's requests on the handle's file,
  // waited for; STATUS_SUCCESS even when there were none. NtCancelIoFileEx (CancelIoEx): the
  // calling process's requests on it, or only `only`, not waited for; STATUS_NOT_FOUND when
  // there were none.
  NTSTATUS CancelIo(HANDLE handle);
  NTSTATUS CancelIoEx(HANDLE handle, const PendingIo* only);
  // A thread ends: every request still queued to it is cancelled and waited for. One that its
  // driver does not complete within the cancel wait is a violation (the kernel would wait minutes).
  void CancelThreadIo(_KTHREAD* thread);
  void SetCancelWait(std::chrono::milliseconds wait);

  // The system-wide cancel spin lock.
  void AcquireCancelSpinLock(PKIRQL irql);
  void ReleaseCancelSpinLock(KIRQL irql);
  bool CancelSpinLockHeld();  // by the calling thread

  void SendFileRequest(PFILE_OBJECT file, UCHAR major);  // cleanup and close, from the object manager

 private:
  struct RequestState {
    uint64_t serial = 0;  // tells a request from a later one allocated at the same address
    bool completed = false;
    bool dispatchReturned = false;
    // The driver of the device the request was last sent to (the device may go before it).
    PDRIVER_OBJECT driver = nullptr;
    // Requests built by IoBuildDeviceIoControlRequest: freed by the I/O manager on completion.
    bool freeOnCompletion = false;
    std::unique_ptr<char[]> systemBuffer;
    void* output = nullptr;  // where a buffered request's output goes back to
    ULONG outputLength = 0;
    // Requests queued to a thread (threaded requests), which its exit and CancelIo cancel.
    _KTHREAD* thread = nullptr;
    _KTHREAD* requestor = nullptr;  // the thread that allocated it; both are referenced
    std::shared_ptr<PendingIo> operation;  // issued through the system services
    // Who may still touch the request: a canceller between finding the request and IoCancelIrp's
    // return, and its dispatch routine until it returns, unless the request was marked pending:
    // such a request is finished (and freed) as soon as its completion ends, wherever the
    // dispatch routine is, as on Windows.
    int holds = 0;
    bool dispatching = false;
    bool pendingReturned = false;  // the completion found the request marked pending
    NTSTATUS completedStatus = STATUS_PENDING;
    bool finishing = false;
  };
  // A request that never reached a driver: the system service failed it before building one.
  static std::shared_ptr<PendingIo> Failed(NTSTATUS status);
  struct Victim {
    PIRP irp;
    uint64_t serial;
  };
  void FinishOwnedRequest(PIRP irp);
  void FinishOperation(PIRP irp);
  // Finishes the request if it is completed and nobody holds it; call with mutex_ held.
  bool TakeFinishLocked(RequestState& state);
  void RunFinish(PIRP irp);
  // Sends an issued request to its file's device; waits for the completion unless the request is
  // an overlapped one that stays pending.
  std::shared_ptr<PendingIo> Issue(const std::shared_ptr<PendingIo>& op, PIRP irp);
  void Release(PIRP irp);  // drops a hold, finishing the request if it was the last
  // Cancels the requests chosen (holding each across IoCancelIrp) and returns them.
  template <typename Pick>
  std::vector<Victim> CancelRequests(Pick pick);
  bool WaitForRequests(const std::vector<Victim>& victims, std::chrono::milliseconds limit);
  void DropFileReference(PFILE_OBJECT file);
  void DeferredDereferences();
  NTSTATUS ReferenceFile(HANDLE handle, ACCESS_MASK access, KPROCESSOR_MODE mode, PFILE_OBJECT* file);
  PIRP BuildUserIrp(PFILE_OBJECT file, UCHAR major);

  ObjectManager* ob_ = nullptr;
  std::mutex mutex_;
  std::condition_variable completed_;
  std::map<PIRP, RequestState> requests_;
  uint64_t nextSerial_ = 1;
  std::chrono::milliseconds cancelWait_{5000};

  // The cancel spin lock: a host mutex and the simulated thread that owns it.
  std::mutex cancelLock_;
  std::atomic<_KTHREAD*> cancelOwner_{nullptr};

  // File references that completions at raised IRQL or under a lock hand over, dropped by a
  // worker at PASSIVE_LEVEL as the kernel's deferred deletion does: the last one sends the close.
  std::mutex deferredMutex_;
  std::condition_variable deferredWake_;
  std::mutex csqHookMutex_;
  std::function<void(CsqStep)> csqHook_;
  std::deque<PFILE_OBJECT> deferred_;
  std::condition_variable deferredDone_;
  size_t deferredPending_ = 0;  // queued or being dereferenced
  std::thread deferredWorker_;
  bool stopping_ = false;
  std::vector<PDEVICE_OBJECT> shutdown_;
  std::set<void*> driverLinks_;
  std::vector<PDRIVER_OBJECT> drivers_;
};

const char* MajorFunctionName(UCHAR major);

}  // namespace ntsim
