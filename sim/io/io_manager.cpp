#include "io/io_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kernel.h"

namespace ntsim {

void NoteDriverReference(void* body);

namespace {


const char* const kMajorNames[] = {
    "IRP_MJ_CREATE", "IRP_MJ_CREATE_NAMED_PIPE", "IRP_MJ_CLOSE", "IRP_MJ_READ", "IRP_MJ_WRITE",
    "IRP_MJ_QUERY_INFORMATION", "IRP_MJ_SET_INFORMATION", "IRP_MJ_QUERY_EA", "IRP_MJ_SET_EA",
    "IRP_MJ_FLUSH_BUFFERS", "IRP_MJ_QUERY_VOLUME_INFORMATION", "IRP_MJ_SET_VOLUME_INFORMATION",
    "IRP_MJ_DIRECTORY_CONTROL", "IRP_MJ_FILE_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CONTROL",
    "IRP_MJ_INTERNAL_DEVICE_CONTROL", "IRP_MJ_SHUTDOWN", "IRP_MJ_LOCK_CONTROL", "IRP_MJ_CLEANUP",
    "IRP_MJ_CREATE_MAILSLOT", "IRP_MJ_QUERY_SECURITY", "IRP_MJ_SET_SECURITY", "IRP_MJ_POWER",
    "IRP_MJ_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CHANGE", "IRP_MJ_QUERY_QUOTA", "IRP_MJ_SET_QUOTA", "IRP_MJ_PNP"};

// The I/O manager's own answer for a major function that a driver does not handle.
NTSTATUS NTAPI InvalidDeviceRequest(PDEVICE_OBJECT, PIRP irp) {
  irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
  irp->IoStatus.Information = 0;
  IofCompleteRequest(irp, IO_NO_INCREMENT);
  return STATUS_INVALID_DEVICE_REQUEST;
}

void OnFileLastHandle(void* body) { K().io.SendFileRequest(static_cast<PFILE_OBJECT>(body), IRP_MJ_CLEANUP); }

void OnFileDelete(void* body) {
  auto* file = static_cast<PFILE_OBJECT>(body);
  if (file->Flags & FO_HANDLE_CREATED) K().io.SendFileRequest(file, IRP_MJ_CLOSE);
  delete[] file->FileName.Buffer;
  if (file->DeviceObject) K().ob.Dereference(file->DeviceObject);
}

// When the machine goes away with the file still open: no request is sent, only memory freed.
void DestroyFileBody(void* body) { delete[] static_cast<PFILE_OBJECT>(body)->FileName.Buffer; }

bool QueryDeviceName(void* body, std::u16string* name) {
  *name = K().ob.FullName(ObjectManager::HeaderOf(body));
  return true;
}

// A file object is named by its device followed by its file name; one with no device (an image
// that is on no volume) by its file name alone.
bool QueryFileName(void* body, std::u16string* name) {
  auto* file = static_cast<PFILE_OBJECT>(body);
  *name = file->DeviceObject ? K().ob.FullName(ObjectManager::HeaderOf(file->DeviceObject)) + ToU16(&file->FileName)
                             : ToU16(&file->FileName);
  return true;
}

std::u16string Win32ToNtPath(const std::u16string& path) {
  if (path.rfind(u"\\\\.\\", 0) == 0 || path.rfind(u"\\\\?\\", 0) == 0) return u"\\??\\" + path.substr(4);
  if (path.size() >= 2 && path[1] == u':') return u"\\??\\" + path;
  return path;
}

// The file object type's generic mapping; the handle keeps the mapped rights only.
ACCESS_MASK MapFileAccess(ACCESS_MASK access) {
  if (access & GENERIC_READ) access |= FILE_GENERIC_READ;
  if (access & GENERIC_WRITE) access |= FILE_GENERIC_WRITE;
  if (access & GENERIC_EXECUTE) access |= FILE_GENERIC_EXECUTE;
  if (access & GENERIC_ALL) access |= FILE_ALL_ACCESS;
  return access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
}

// Answers of a device that keeps no names of its own files: the name it was opened with stands.
bool NoNameQuery(NTSTATUS status) {
  return status == STATUS_INVALID_DEVICE_REQUEST || status == STATUS_NOT_IMPLEMENTED ||
         status == STATUS_INVALID_INFO_CLASS || status == STATUS_NOT_SUPPORTED || status == STATUS_INVALID_PARAMETER;
}

// The MDL the I/O manager builds over a caller's buffer for direct I/O: probed and locked, with a
// page-frame entry per page (the page's address shifted, as the simulator's MDLs name pages), and
// not yet mapped into system space.
PMDL BuildMdl(void* buffer, ULONG length) {
  SIZE_T size = MmSizeOfMdl(buffer, length);
  auto* mdl = reinterpret_cast<PMDL>(new char[size]());
  MmInitializeMdl(mdl, buffer, length);
  mdl->MdlFlags = MDL_PAGES_LOCKED;
  mdl->Process = CurrentProcess();
  PPFN_NUMBER pages = MmGetMdlPfnArray(mdl);
  ULONG count = ADDRESS_AND_SIZE_TO_SPAN_PAGES(buffer, length);
  for (ULONG i = 0; i < count; ++i) pages[i] = (reinterpret_cast<ULONG_PTR>(mdl->StartVa) >> PAGE_SHIFT) + i;
  return mdl;
}

void FreeMdls(PMDL mdl) {
  while (mdl) {
    PMDL next = mdl->Next;
    delete[] reinterpret_cast<char*>(mdl);
    mdl = next;
  }
}

}  // namespace

const char* MajorFunctionName(UCHAR major) {
  return major <= IRP_MJ_MAXIMUM_FUNCTION ? kMajorNames[major] : "IRP_MJ_?";
}

// ---------------------------------------------------------------------------------------------
// Requests issued through the system services

PendingIo::PendingIo() {
  event_.Header.Type = NotificationEvent;
  event_.Header.SignalState = 0;
  InitializeListHead(&event_.Header.WaitListHead);
}

bool PendingIo::Wait(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return done_.wait_for(lock, timeout, [this] { return completed_; });
}

bool PendingIo::Completed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return completed_;
}

IoResult PendingIo::Result() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return result_;
}

void PendingIo::Finish(const IoResult& result) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    result_ = result;
    completed_ = true;
  }
  done_.notify_all();
}

// ---------------------------------------------------------------------------------------------

void IoManager::Boot(ObjectManager& ob) {
  ob_ = &ob;
  ob.types.file.onLastHandleClose = OnFileLastHandle;
  ob.types.file.onDelete = OnFileDelete;
  ob.types.file.destroyBody = DestroyFileBody;
  ob.types.file.queryName = QueryFileName;
  ob.types.device.queryName = QueryDeviceName;
  ob.CreateDirectory(u"\\Device");
  ob.CreateDirectory(u"\\Driver");
  ob.CreateDirectory(u"\\FileSystem");
  ob.CreateDirectory(u"\\??");
  ob.CreateSymbolicLink(u"\\DosDevices", u"\\??", nullptr);
  ob.CreateSymbolicLink(u"\\GLOBAL??", u"\\??", nullptr);
}

void IoManager::Teardown() {
  {
    std::lock_guard<std::mutex> lock(deferredMutex_);
    stopping_ = true;
    deferred_.clear();  // the object manager frees what they kept
  }
  deferredWake_.notify_all();
  if (deferredWorker_.joinable()) deferredWorker_.join();
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [irp, state] : requests_) {
    FreeMdls(irp->MdlAddress);
    std::free(irp);
  }
  requests_.clear();
  shutdown_.clear();
  driverLinks_.clear();
  drivers_.clear();
}

PDRIVER_OBJECT IoManager::CreateDriverObject(const std::u16string& name, PDRIVER_INITIALIZE entry) {
  struct DriverBody {
    DRIVER_OBJECT driver;
    DRIVER_EXTENSION extension;
    WCHAR name[64];
  };
  auto* body = static_cast<DriverBody*>(ob_->CreateObject(&ob_->types.driver, sizeof(DriverBody)));
  PDRIVER_OBJECT driver = &body->driver;
  driver->Type = IO_TYPE_DRIVER;
  driver->Size = sizeof(DRIVER_OBJECT);
  driver->DriverExtension = &body->extension;
  body->extension.DriverObject = driver;
  size_t n = name.size() < 63 ? name.size() : 63;
  std::memcpy(body->name, name.data(), n * sizeof(WCHAR));
  driver->DriverName.Buffer = body->name;
  driver->DriverName.Length = static_cast<USHORT>(n * sizeof(WCHAR));
  driver->DriverName.MaximumLength = static_cast<USHORT>(sizeof body->name);
  driver->DriverInit = entry;
  for (auto& dispatch : driver->MajorFunction) dispatch = InvalidDeviceRequest;
  ob_->InsertName(driver, name, true);
  ob_->Dereference(driver);  // the namespace keeps it
  std::lock_guard<std::mutex> lock(mutex_);
  drivers_.push_back(driver);
  return driver;
}

void IoManager::DeleteDriverObject(PDRIVER_OBJECT driver) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = drivers_.begin(); it != drivers_.end(); ++it) {
      if (*it == driver) {
        drivers_.erase(it);
        break;
      }
    }
  }
  ob_->RemoveName(driver);
}

NTSTATUS IoManager::CreateDevice(PDRIVER_OBJECT driver, ULONG extensionSize, const UNICODE_STRING* name,
                                 DEVICE_TYPE type, ULONG characteristics, BOOLEAN exclusive, PDEVICE_OBJECT* device) {
  size_t extensionOffset = (sizeof(DEVICE_OBJECT) + 15) & ~size_t(15);
  auto* object = static_cast<PDEVICE_OBJECT>(ob_->CreateObject(&ob_->types.device, extensionOffset + extensionSize));
  object->Type = IO_TYPE_DEVICE;
  object->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + extensionSize);
  object->ReferenceCount = 0;
  object->DriverObject = driver;
  object->DeviceType = type;
  object->Characteristics = characteristics;
  object->StackSize = 1;
  object->Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0);
  object->DeviceExtension = extensionSize ? reinterpret_cast<char*>(object) + extensionOffset : nullptr;
  if (name && name->Length) {
    NTSTATUS status = ob_->InsertName(object, ToU16(name), true);
    if (!NT_SUCCESS(status)) {
      ob_->Dereference(object);
      return status;
    }
    object->Flags |= DO_DEVICE_HAS_NAME;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  object->NextDevice = driver->DeviceObject;
  driver->DeviceObject = object;
  *device = object;
  return STATUS_SUCCESS;
}

void IoManager::DeleteDevice(PDEVICE_OBJECT device) {
  UnregisterShutdown(device);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link && *link != device) link = &(*link)->NextDevice;
    if (*link) *link = device->NextDevice;
  }
  ob_->RemoveName(device);     // drops the name's reference, if it has a name
  ob_->Dereference(device);    // the creation reference: open files may keep it a while longer
}

// ---------------------------------------------------------------------------------------------
// Requests

PIRP IoManager::AllocateIrp(CCHAR stackSize) {
  size_t size = sizeof(IRP) + stackSize * sizeof(IO_STACK_LOCATION);
  auto* irp = static_cast<PIRP>(std::calloc(1, size));
  if (!irp) std::abort();
  irp->Type = IO_TYPE_IRP;
  irp->Size = static_cast<USHORT>(size);
  irp->StackCount = stackSize;
  irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
  irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stackSize;
  irp->Tail.Overlay.Thread = CurrentThread();
  irp->RequestorMode = ExGetPreviousMode();
  InitializeListHead(&irp->ThreadListEntry);
  std::lock_guard<std::mutex> lock(mutex_);
  RequestState& state = requests_[irp];
  state = RequestState();
  state.serial = nextSerial_++;
  state.requestor = CurrentThread();  // Tail.Overlay.Thread names it until the request is freed
  ob_->Reference(state.requestor);
  return irp;
}

NTSTATUS IoManager::CallDriver(PDEVICE_OBJECT device, PIRP irp) {
  if (--irp->CurrentLocation <= 0) {
    K().verifier.Violation("IofCallDriver", "the request has no stack location left for the next driver");
    return STATUS_INVALID_PARAMETER;
  }
  PIO_STACK_LOCATION stack = --irp->Tail.Overlay.CurrentStackLocation;
  stack->DeviceObject = device;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = requests_.find(irp);
    if (it != requests_.end()) it->second.driver = device->DriverObject;
  }
  PDRIVER_DISPATCH dispatch = device->DriverObject->MajorFunction[stack->MajorFunction];
  return dispatch(device, irp);
}

void IoManager::CompleteRequest(PIRP irp) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = requests_.find(irp);
    if (it == requests_.end()) {
      char text[96];
      std::snprintf(text, sizeof text, "request %p is not outstanding (completed before and freed?)", (void*)irp);
      K().verifier.Violation("IofCompleteRequest", text);
      return;
    }
    if (it->second.completed) {
      K().verifier.Violation("IofCompleteRequest", "request completed twice");
      return;
    }
  }
  if (irp->IoStatus.Status == STATUS_PENDING) {
    K().verifier.Violation("IofCompleteRequest", "request completed with STATUS_PENDING");
  }
  if (__atomic_load_n(&irp->CancelRoutine, __ATOMIC_SEQ_CST)) {
    K().verifier.Violation("IofCompleteRequest", "request completed with its cancel routine still set");
  }
  // Completion routines, from the current stack location upward.
  PIO_STACK_LOCATION stack = irp->Tail.Overlay.CurrentStackLocation;
  PIO_STACK_LOCATION end = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + irp->StackCount;
  for (; stack < end; ++stack) {
    irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
    ++irp->CurrentLocation;
    ++irp->Tail.Overlay.CurrentStackLocation;
    if (stack->CompletionRoutine) {
      PDEVICE_OBJECT device = stack + 1 < end ? (stack + 1)->DeviceObject : nullptr;
      NTSTATUS status = stack->CompletionRoutine(device, irp, stack->Context);
      if (status == (NTSTATUS)0xC0000016L /* STATUS_MORE_PROCESSING_REQUIRED */) return;
    }
  }
  bool finishedByManager;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    RequestState& state = requests_[irp];
    finishedByManager = state.freeOnCompletion || state.operation;
  }
  if (!finishedByManager) {
    // A request whose sender frees it: the status block and event are the sender's.
    if (irp->UserIosb) *irp->UserIosb = irp->IoStatus;
    if (irp->UserEvent) KeSetEvent(irp->UserEvent, IO_NO_INCREMENT, FALSE);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_[irp].completed = true;
    }
    completed_.notify_all();
    return;
  }
  bool finish;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    RequestState& state = requests_[irp];
    state.completed = true;
    state.pendingReturned = irp->PendingReturned;
    state.completedStatus = irp->IoStatus.Status;
    finish = TakeFinishLocked(state);
  }
  completed_.notify_all();
  if (finish) RunFinish(irp);
}

bool IoManager::TakeFinishLocked(RequestState& state) {
  if (!state.completed || state.holds > 0 || state.finishing) return false;
  if (state.dispatching && !state.pendingReturned) return false;
  if (!state.freeOnCompletion && !state.operation) return false;
  state.finishing = true;
  return true;
}

void IoManager::RunFinish(PIRP irp) {
  bool owned;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    owned = requests_[irp].freeOnCompletion;
  }
  if (owned) {
    FinishOwnedRequest(irp);
  } else {
    FinishOperation(irp);
  }
}

void IoManager::Release(PIRP irp) {
  bool finish;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    RequestState& state = requests_[irp];
    --state.holds;
    finish = TakeFinishLocked(state);
  }
  if (finish) RunFinish(irp);
}

// The final completion of a request the I/O manager built for a driver: the output is copied back
// unless the request failed, and the request is freed before the caller's event is set, so that a
// caller woken by it never finds the request still allocated.
void IoManager::FinishOwnedRequest(PIRP irp) {
  const char* system = nullptr;
  void* output = nullptr;
  ULONG outputLength = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    RequestState& state = requests_[irp];
    system = state.systemBuffer.get();
    output = state.output;
    outputLength = state.outputLength;
  }
  ULONG_PTR information = irp->IoStatus.Information;
  if (system && output && information && !NT_ERROR_STATUS(irp->IoStatus.Status)) {
    if (information > outputLength) {
      K().verifier.Violation(MajorFunctionName(IoGetNextIrpStackLocation(irp)->MajorFunction),
                             "information exceeds the output buffer's length");
      information = outputLength;
    }
    std::memcpy(output, system, information);
  }
  IO_STATUS_BLOCK result = irp->IoStatus;
  PIO_STATUS_BLOCK iosb = irp->UserIosb;
  PKEVENT event = irp->UserEvent;
  FreeIrp(irp);
  if (iosb) *iosb = result;
  if (event) KeSetEvent(event, IO_NO_INCREMENT, FALSE);
  completed_.notify_all();
}

// The final completion of a request issued through the system services, as the kernel's
// completion does it in the requesting thread: buffered output goes back to the caller's buffer
// (unless the request failed), a synchronous file's position moves on, the request is freed, and
// the caller's event is set.
void IoManager::FinishOperation(PIRP irp) {
  std::shared_ptr<PendingIo> op;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    op = requests_[irp].operation;
  }
  IoResult result{irp->IoStatus.Status, irp->IoStatus.Information};
  if (op->output_ && !op->system_.empty() && !NT_ERROR_STATUS(result.status) && result.information) {
    ULONG_PTR length = result.information;
    if (length > op->outputLength_ && !op->outputIsRead_) {
      K().verifier.Violation(MajorFunctionName(op->major_), "information exceeds the output buffer's length");
      length = 0;
    }
    std::memcpy(op->output_, op->system_.data(), std::min<ULONG_PTR>(length, op->outputLength_));
  }
  if (op->updatesPosition_ && NT_SUCCESS(result.status)) {
    op->file_->CurrentByteOffset.QuadPart = op->position_ + static_cast<LONGLONG>(result.information);
  }
  FreeIrp(irp);
  if (op->userEvent_) KeSetEvent(&op->event_, IO_NO_INCREMENT, FALSE);
  PFILE_OBJECT file = op->overlapped_ ? op->file_ : nullptr;
  op->Finish(result);
  completed_.notify_all();
  // A synchronous caller drops the file's reference itself once it wakes.
  if (file) DropFileReference(file);
}

PIRP IoManager::BuildDeviceIoControl(ULONG code, PDEVICE_OBJECT device, PVOID in, ULONG inLength, PVOID out,
                                     ULONG outLength, bool internal, PKEVENT event, PIO_STATUS_BLOCK iosb) {
  if ((!in && inLength) || (!out && outLength)) return nullptr;
  PIRP irp = AllocateIrp(device->StackSize);
  irp->RequestorMode = KernelMode;
  irp->UserIosb = iosb;
  irp->UserEvent = event;
  irp->UserBuffer = out;
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->MajorFunction = internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
  stack->Parameters.DeviceIoControl.IoControlCode = code;
  stack->Parameters.DeviceIoControl.InputBufferLength = inLength;
  stack->Parameters.DeviceIoControl.OutputBufferLength = outLength;
  ULONG method = METHOD_FROM_CTL_CODE(code);
  std::unique_ptr<char[]> system;
  bool copyBack = false;
  if (method == METHOD_BUFFERED) {
    // One buffer for both directions, as large as the larger of the two.
    ULONG size = inLength > outLength ? inLength : outLength;
    if (size) {
      system.reset(new char[size]());
      if (inLength) std::memcpy(system.get(), in, inLength);
    }
    copyBack = outLength != 0;
  } else if (method == METHOD_NEITHER) {
    stack->Parameters.DeviceIoControl.Type3InputBuffer = in;
  } else {
    // Direct I/O: the input is buffered, the output described by an MDL over the caller's buffer.
    if (inLength) {
      system.reset(new char[inLength]);
      std::memcpy(system.get(), in, inLength);
    }
    if (outLength) irp->MdlAddress = BuildMdl(out, outLength);
  }
  irp->AssociatedIrp.SystemBuffer = system.get();
  std::lock_guard<std::mutex> lock(mutex_);
  RequestState& state = requests_[irp];
  state.freeOnCompletion = true;
  state.thread = CurrentThread();  // a threaded request: its thread's end cancels it
  ob_->Reference(state.thread);    // and the request names it (IoGetRequestorProcess) until it is freed
  state.systemBuffer = std::move(system);
  if (copyBack) {
    state.output = out;
    state.outputLength = outLength;
  }
  return irp;
}

IoResult IoManager::SendAndWait(PDEVICE_OBJECT device, PIRP irp) {
  UCHAR major = IoGetNextIrpStackLocation(irp)->MajorFunction;
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  NTSTATUS status = CallDriver(device, irp);
  std::unique_lock<std::mutex> lock(mutex_);
  RequestState& state = requests_[irp];
  state.dispatchReturned = true;
  if (status == STATUS_PENDING) {
    if (!(stack->Control & SL_PENDING_RETURNED)) {
      lock.unlock();
      K().verifier.Violation(MajorFunctionName(major), "dispatch returned STATUS_PENDING without IoMarkIrpPending");
      lock.lock();
    }
    completed_.wait(lock, [&] { return requests_[irp].completed; });
  } else if (!state.completed) {
    lock.unlock();
    char text[128];
    std::snprintf(text, sizeof text, "dispatch returned %08x without completing the request", (unsigned)status);
    K().verifier.Violation(MajorFunctionName(major), text);
    lock.lock();
  } else if (status != irp->IoStatus.Status) {
    lock.unlock();
    char text[128];
    std::snprintf(text, sizeof text, "dispatch returned %08x but completed the request with %08x", (unsigned)status,
                  (unsigned)irp->IoStatus.Status);
    K().verifier.Violation(MajorFunctionName(major), text);
    lock.lock();
  }
  return IoResult{irp->IoStatus.Status, irp->IoStatus.Information};
}

std::shared_ptr<PendingIo> IoManager::Issue(const std::shared_ptr<PendingIo>& op, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  UCHAR major = stack->MajorFunction;
  PDEVICE_OBJECT device = op->file_->DeviceObject;
  if (op->userEvent_) {
    KeClearEvent(&op->event_);  // as the system service does before it sends the request
    irp->UserEvent = &op->event_;
  }
  uint64_t serial;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    RequestState& state = requests_[irp];
    state.operation = op;
    if (!state.thread) {
      state.thread = CurrentThread();
      ob_->Reference(state.thread);
    }
    state.dispatching = true;
    serial = state.serial;
  }
  NTSTATUS status = CallDriver(device, irp);
  // Once its dispatch routine has marked it pending, a request completed elsewhere may already be
  // finished and freed here: only the I/O manager's own record of it is read, never the request.
  bool marked;
  bool completed;
  NTSTATUS completedStatus = STATUS_SUCCESS;
  bool finish = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = requests_.find(irp);
    if (it == requests_.end() || it->second.serial != serial || it->second.finishing) {
      marked = true;  // finished before its dispatch routine returned: only a pending one is
      completed = true;
      completedStatus = STATUS_PENDING;
    } else {
      RequestState& state = it->second;
      state.dispatching = false;
      state.dispatchReturned = true;
      completed = state.completed;
      marked = completed ? state.pendingReturned : (stack->Control & SL_PENDING_RETURNED) != 0;
      if (completed) completedStatus = state.completedStatus;
      // A request its dispatch routine neither completed nor left pending would never end: the
      // verifier stops the run below, and a test that records violations gets it back as it stands.
      if (!completed && status != STATUS_PENDING) state.completed = true;
      finish = TakeFinishLocked(state);
    }
  }
  if (status == STATUS_PENDING && !marked) {
    K().verifier.Violation(MajorFunctionName(major), "dispatch returned STATUS_PENDING without IoMarkIrpPending");
  } else if (status != STATUS_PENDING && marked) {
    char text[128];
    std::snprintf(text, sizeof text, "dispatch marked the request pending but returned %08x", (unsigned)status);
    K().verifier.Violation(MajorFunctionName(major), text);
  } else if (status != STATUS_PENDING && !completed) {
    char text[128];
    std::snprintf(text, sizeof text, "dispatch returned %08x without completing the request", (unsigned)status);
    K().verifier.Violation(MajorFunctionName(major), text);
  } else if (status != STATUS_PENDING && status != completedStatus) {
    char text[128];
    std::snprintf(text, sizeof text, "dispatch returned %08x but completed the request with %08x", (unsigned)status,
                  (unsigned)completedStatus);
    K().verifier.Violation(MajorFunctionName(major), text);
  }
  if (finish) RunFinish(irp);
  if (op->overlapped_) {
    op->issueStatus_ = status;
    return op;
  }
  {
    std::unique_lock<std::mutex> lock(op->mutex_);
    op->done_.wait(lock, [&] { return op->completed_; });
    op->issueStatus_ = op->result_.status;
  }
  DropFileReference(op->file_);
  return op;
}

std::shared_ptr<PendingIo> IoManager::Failed(NTSTATUS status) {
  auto op = std::make_shared<PendingIo>();
  op->issueStatus_ = status;
  op->Finish(IoResult{status, 0});
  return op;
}

// ---------------------------------------------------------------------------------------------
// Cancellation

template <typename Pick>
std::vector<IoManager::Victim> IoManager::CancelRequests(Pick pick) {
  std::vector<Victim> victims;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [irp, state] : requests_) {
      if (state.completed || !state.thread || !pick(state)) continue;
      ++state.holds;  // it stays allocated until IoCancelIrp has returned
      victims.push_back(Victim{irp, state.serial});
    }
  }
  for (const Victim& victim : victims) {
    IoCancelIrp(victim.irp);
    Release(victim.irp);
  }
  return victims;
}

bool IoManager::WaitForRequests(const std::vector<Victim>& victims, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return completed_.wait_for(lock, limit, [&] {
    for (const Victim& victim : victims) {
      auto it = requests_.find(victim.irp);
      if (it != requests_.end() && it->second.serial == victim.serial && !it->second.completed) return false;
    }
    return true;
  });
}

void IoManager::SetCancelWait(std::chrono::milliseconds wait) {
  std::lock_guard<std::mutex> lock(mutex_);
  cancelWait_ = wait;
}

void IoManager::CancelThreadIo(_KTHREAD* thread) {
  std::vector<Victim> victims = CancelRequests([thread](const RequestState& state) { return state.thread == thread; });
  if (victims.empty()) return;
  std::chrono::milliseconds limit;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    limit = cancelWait_;
  }
  if (!WaitForRequests(victims, limit)) {
    K().verifier.Violation("thread exit", "thread " + std::to_string(thread->id) + " ends with request(s) that " +
                                              "their driver did not complete within " +
                                              std::to_string(limit.count()) + " ms of their cancellation");
  }
}

NTSTATUS IoManager::CancelIo(HANDLE handle) {
  PFILE_OBJECT file = nullptr;
  NTSTATUS status = ReferenceFile(handle, 0, ExGetPreviousMode(), &file);
  if (!NT_SUCCESS(status)) return status;
  _KTHREAD* self = CurrentThread();
  std::vector<Victim> victims = CancelRequests([self, file](const RequestState& state) {
    return state.thread == self && state.operation && state.operation->file_ == file;
  });
  std::chrono::milliseconds limit;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    limit = cancelWait_;
  }
  WaitForRequests(victims, limit);
  ob_->Dereference(file);
  return STATUS_SUCCESS;
}

NTSTATUS IoManager::CancelIoEx(HANDLE handle, const PendingIo* only) {
  PFILE_OBJECT file = nullptr;
  NTSTATUS status = ReferenceFile(handle, 0, ExGetPreviousMode(), &file);
  if (!NT_SUCCESS(status)) return status;
  _KPROCESS* process = CurrentThread()->process;
  std::vector<Victim> victims = CancelRequests([process, file, only](const RequestState& state) {
    return state.thread->process == process && state.operation && state.operation->file_ == file &&
           (!only || state.operation.get() == only);
  });
  ob_->Dereference(file);
  return victims.empty() ? STATUS_NOT_FOUND : STATUS_SUCCESS;
}

void IoManager::AcquireCancelSpinLock(PKIRQL irql) {
  _KTHREAD* self = CurrentThread();
  if (self->irql > DISPATCH_LEVEL) K().verifier.Violation("IoAcquireCancelSpinLock", "called above DISPATCH_LEVEL");
  if (cancelOwner_.load() == self) {
    K().verifier.Violation("IoAcquireCancelSpinLock",
                           "the thread already holds the cancel spin lock: the processor would spin forever");
    *irql = self->irql;
    return;
  }
  cancelLock_.lock();
  cancelOwner_.store(self);
  *irql = self->irql;
  self->irql = DISPATCH_LEVEL;
}

void IoManager::ReleaseCancelSpinLock(KIRQL irql) {
  _KTHREAD* self = CurrentThread();
  if (cancelOwner_.load() != self) {
    K().verifier.Violation("IoReleaseCancelSpinLock", "the thread does not hold the cancel spin lock");
    return;
  }
  if (irql > DISPATCH_LEVEL) K().verifier.Violation("IoReleaseCancelSpinLock", "restoring an IRQL above DISPATCH_LEVEL");
  cancelOwner_.store(nullptr);
  cancelLock_.unlock();
  self->irql = irql;
}

bool IoManager::CancelSpinLockHeld() { return cancelOwner_.load() == CurrentThread(); }

// Where a completion may not run a driver's close routine itself (above PASSIVE_LEVEL, or with
// kernel APCs disabled, where the completing driver may hold its own locks), the file's reference
// goes to a worker, as the kernel defers an object's deletion.
void IoManager::DropFileReference(PFILE_OBJECT file) {
  if (KeGetCurrentIrql() == PASSIVE_LEVEL && !KeAreApcsDisabled()) {
    ob_->Dereference(file);
    return;
  }
  std::lock_guard<std::mutex> lock(deferredMutex_);
  if (stopping_) return;
  if (!deferredWorker_.joinable()) deferredWorker_ = std::thread([this] { DeferredDereferences(); });
  deferred_.push_back(file);
  ++deferredPending_;
  deferredWake_.notify_one();
}

void IoManager::SetCsqHook(std::function<void(CsqStep)> hook) {
  std::lock_guard<std::mutex> lock(csqHookMutex_);
  csqHook_ = std::move(hook);
}

void IoManager::RunCsqHook(CsqStep step) {
  std::function<void(CsqStep)> hook;
  {
    std::lock_guard<std::mutex> lock(csqHookMutex_);
    hook = csqHook_;
  }
  if (hook) hook(step);
}

void IoManager::WaitForDeferredDereferences() {
  std::unique_lock<std::mutex> lock(deferredMutex_);
  deferredDone_.wait(lock, [this] { return stopping_ || deferredPending_ == 0; });
}

void IoManager::DeferredDereferences() {
  Kernel& kernel = K();
  {
    ThreadScope scope(kernel.ps.ActingThread(kernel.ps.System()), KernelMode);
    for (;;) {
      PFILE_OBJECT file;
      {
        std::unique_lock<std::mutex> lock(deferredMutex_);
        deferredWake_.wait(lock, [this] { return stopping_ || !deferred_.empty(); });
        if (stopping_) break;
        file = deferred_.front();
        deferred_.pop_front();
      }
      ob_->Dereference(file);
      std::lock_guard<std::mutex> lock(deferredMutex_);
      if (--deferredPending_ == 0) deferredDone_.notify_all();
    }
  }
  ResetCurrentThreadBinding();
}

void IoManager::FreeIrp(PIRP irp) {
  FreeMdls(irp->MdlAddress);
  _KTHREAD* thread = nullptr;
  _KTHREAD* requestor = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = requests_.find(irp);
    if (it != requests_.end()) {
      thread = it->second.thread;
      requestor = it->second.requestor;
      requests_.erase(it);
    }
    // Poisoned, so that a driver that touches a freed request reads garbage even where no address
    // sanitizer would report the touch.
    std::memset(irp, 0xDD, irp->Size);
    std::free(irp);
  }
  if (thread) ob_->Dereference(thread);
  if (requestor) ob_->Dereference(requestor);
}

size_t IoManager::AllocatedRequests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_.size();
}

size_t IoManager::OutstandingRequests(PDRIVER_OBJECT driver) {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (auto& [irp, state] : requests_) {
    if (state.completed) continue;
    if (!driver) {
      ++n;
      continue;
    }
    // Only a request that sits in one of the driver's devices is the driver's to complete. The
    // device itself may be gone already: a request does not keep it.
    if (state.driver == driver) ++n;
  }
  return n;
}

// ---------------------------------------------------------------------------------------------
// Shutdown notification and links

NTSTATUS IoManager::RegisterShutdown(PDEVICE_OBJECT device) {
  std::lock_guard<std::mutex> lock(mutex_);
  shutdown_.push_back(device);
  return STATUS_SUCCESS;
}

void IoManager::UnregisterShutdown(PDEVICE_OBJECT device) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = shutdown_.begin(); it != shutdown_.end();) {
    it = *it == device ? shutdown_.erase(it) : it + 1;
  }
}

std::vector<PDEVICE_OBJECT> IoManager::ShutdownDevices() {
  std::lock_guard<std::mutex> lock(mutex_);
  return shutdown_;
}

void IoManager::NoteDriverLink(void* link) {
  std::lock_guard<std::mutex> lock(mutex_);
  driverLinks_.insert(link);
}

void IoManager::ForgetDriverLink(void* link) {
  std::lock_guard<std::mutex> lock(mutex_);
  driverLinks_.erase(link);
}

std::vector<std::u16string> IoManager::DriverLinks() {
  std::vector<void*> links;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    links.assign(driverLinks_.begin(), driverLinks_.end());
  }
  std::vector<std::u16string> names;
  for (void* link : links) names.push_back(ob_->FullName(ObjectManager::HeaderOf(link)));
  return names;
}

// ---------------------------------------------------------------------------------------------
// The user-mode side

PIRP IoManager::BuildUserIrp(PFILE_OBJECT file, UCHAR major) {
  PIRP irp = AllocateIrp(file->DeviceObject->StackSize);
  irp->Tail.Overlay.OriginalFileObject = file;
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->MajorFunction = major;
  stack->FileObject = file;
  return irp;
}

NTSTATUS IoManager::CreateFile(const CreateRequest& request, HANDLE* handle, ULONG_PTR* information) {
  if (information) *information = 0;
  // Access is checked as granted: after the generic rights are mapped to the file's own rights,
  // so GENERIC_READ alone carries the SYNCHRONIZE that synchronous I/O needs.
  ACCESS_MASK access = MapFileAccess(request.access);
  ULONG synchronous = request.options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT);
  bool directory = (request.options & FILE_DIRECTORY_FILE) != 0;
  if (request.disposition > FILE_MAXIMUM_DISPOSITION || (synchronous && !(access & SYNCHRONIZE)) ||
      synchronous == (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT) ||
      (directory && (request.options & FILE_NON_DIRECTORY_FILE)) ||
      (directory && request.disposition != FILE_CREATE && request.disposition != FILE_OPEN &&
       request.disposition != FILE_OPEN_IF)) {
    return STATUS_INVALID_PARAMETER;
  }
  ObjectHeader* header = nullptr;
  std::u16string remaining;
  NTSTATUS status = ob_->Lookup(request.ntPath, false, &header, &remaining);
  if (!NT_SUCCESS(status)) return status;
  if (header->type != &ob_->types.device) {
    ob_->Dereference(header->Body());
    return STATUS_OBJECT_TYPE_MISMATCH;
  }
  auto* device = static_cast<PDEVICE_OBJECT>(header->Body());
  // A device is named before its driver clears the flag; volumes appear while others open files.
  if (__atomic_load_n(&device->Flags, __ATOMIC_ACQUIRE) & DO_DEVICE_INITIALIZING) {
    ob_->Dereference(device);
    return STATUS_NO_SUCH_DEVICE;
  }
  if ((device->Flags & DO_EXCLUSIVE) && device->ReferenceCount > 0) {
    ob_->Dereference(device);
    return STATUS_ACCESS_DENIED;
  }
  auto* file = static_cast<PFILE_OBJECT>(ob_->CreateObject(&ob_->types.file, sizeof(FILE_OBJECT)));
  file->Type = IO_TYPE_FILE;
  file->Size = sizeof(FILE_OBJECT);
  file->DeviceObject = device;  // the lookup's reference passes to the file object
  if (!remaining.empty()) {
    file->FileName.Buffer = new WCHAR[remaining.size()];
    std::memcpy(file->FileName.Buffer, remaining.data(), remaining.size() * sizeof(WCHAR));
    file->FileName.Length = file->FileName.MaximumLength = static_cast<USHORT>(remaining.size() * sizeof(WCHAR));
  }
  file->ReadAccess = (access & FILE_READ_DATA) != 0;
  file->WriteAccess = (access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
  if (synchronous) file->Flags |= FO_SYNCHRONOUS_IO | ((synchronous & FILE_SYNCHRONOUS_IO_ALERT) ? FO_ALERTABLE_IO : 0);
  if (request.options & FILE_NO_INTERMEDIATE_BUFFERING) file->Flags |= FO_NO_INTERMEDIATE_BUFFERING;
  if (request.options & FILE_WRITE_THROUGH) file->Flags |= FO_WRITE_THROUGH;
  KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
  PIRP irp = BuildUserIrp(file, IRP_MJ_CREATE);
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->Parameters.Create.Options = (request.disposition << 24) | (request.options & 0x00FFFFFF);
  stack->Parameters.Create.FileAttributes = static_cast<USHORT>(request.attributes);
  stack->Parameters.Create.ShareAccess = static_cast<USHORT>(request.share);
  IoResult result = SendAndWait(device, irp);
  FreeIrp(irp);
  if (information) *information = result.information;
  if (!NT_SUCCESS(result.status)) {
    ob_->Dereference(file);  // no handle was created: no cleanup or close follows
    return result.status;
  }
  file->Flags |= FO_HANDLE_CREATED;
  __atomic_add_fetch(&device->ReferenceCount, 1, __ATOMIC_SEQ_CST);
  *handle = ob_->InsertHandle(file, access, request.kernelHandle, request.driverOwned);
  ob_->Dereference(file);  // the handle keeps it
  return STATUS_SUCCESS;
}

NTSTATUS IoManager::UserCreateFile(const std::u16string& win32Path, ACCESS_MASK access, HANDLE* handle,
                                   bool overlapped) {
  CreateRequest request;
  // As CreateFile asks for it: synchronous I/O unless FILE_FLAG_OVERLAPPED.
  request.ntPath = Win32ToNtPath(win32Path);
  request.access = access | SYNCHRONIZE | FILE_READ_ATTRIBUTES;
  request.options = (overlapped ? 0 : FILE_SYNCHRONOUS_IO_NONALERT) | FILE_NON_DIRECTORY_FILE;
  return CreateFile(request, handle, nullptr);
}

NTSTATUS IoManager::ReferenceFile(HANDLE handle, ACCESS_MASK access, KPROCESSOR_MODE mode, PFILE_OBJECT* file) {
  void* body = nullptr;
  NTSTATUS status = ob_->ReferenceByHandle(handle, &ob_->types.file, mode, access, &body, nullptr);
  if (NT_SUCCESS(status)) *file = static_cast<PFILE_OBJECT>(body);
  return status;
}

std::shared_ptr<PendingIo> IoManager::StartDeviceIoControl(HANDLE handle, ULONG code, const void* in,
                                                           ULONG inLength, void* out, ULONG outLength,
                                                           KPROCESSOR_MODE mode, bool overlapped) {
  ULONG requiredAccess = (code >> 14) & 3;
  ACCESS_MASK access = ((requiredAccess & FILE_READ_ACCESS) ? FILE_READ_DATA : 0) |
                       ((requiredAccess & FILE_WRITE_ACCESS) ? FILE_WRITE_DATA : 0);
  ULONG method = METHOD_FROM_CTL_CODE(code);
  // The system service probes the caller's buffers; only METHOD_NEITHER hands them over untouched.
  if (method != METHOD_NEITHER && ((!in && inLength) || (!out && outLength))) return Failed(STATUS_ACCESS_VIOLATION);
  PFILE_OBJECT file = nullptr;
  NTSTATUS status = ReferenceFile(handle, access, mode, &file);
  if (!NT_SUCCESS(status)) return Failed(status);
  auto op = std::make_shared<PendingIo>();
  op->file_ = file;
  op->major_ = IRP_MJ_DEVICE_CONTROL;
  op->overlapped_ = overlapped && !(file->Flags & FO_SYNCHRONOUS_IO);
  op->userEvent_ = overlapped;
  PIRP irp = BuildUserIrp(file, IRP_MJ_DEVICE_CONTROL);
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->Parameters.DeviceIoControl.IoControlCode = code;
  stack->Parameters.DeviceIoControl.InputBufferLength = inLength;
  stack->Parameters.DeviceIoControl.OutputBufferLength = outLength;
  if (method == METHOD_BUFFERED) {
    // One system buffer for both directions, as large as the larger of the two.
    op->system_.resize(inLength > outLength ? inLength : outLength);
    if (inLength) std::memcpy(op->system_.data(), in, inLength);
    op->output_ = out;
    op->outputLength_ = outLength;
    irp->AssociatedIrp.SystemBuffer = op->system_.empty() ? nullptr : op->system_.data();
  } else if (method == METHOD_NEITHER) {
    stack->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<void*>(in);
    irp->UserBuffer = out;
  } else {
    // METHOD_IN_DIRECT and METHOD_OUT_DIRECT: the input is buffered; the second buffer, which the
    // driver reads (in) or fills (out), is described by an MDL locked over the caller's memory.
    if (inLength) op->system_.assign(static_cast<const char*>(in), static_cast<const char*>(in) + inLength);
    irp->AssociatedIrp.SystemBuffer = op->system_.empty() ? nullptr : op->system_.data();
    if (outLength) irp->MdlAddress = BuildMdl(out, outLength);
  }
  return Issue(op, irp);
}

IoResult IoManager::UserDeviceIoControl(HANDLE handle, ULONG code, const void* in, ULONG inLength, void* out,
                                        ULONG outLength) {
  return StartDeviceIoControl(handle, code, in, inLength, out, outLength, UserMode, false)->Result();
}

std::shared_ptr<PendingIo> IoManager::StartTransfer(HANDLE handle, UCHAR major, void* buffer, ULONG length,
                                                    const LARGE_INTEGER* offset, KPROCESSOR_MODE mode,
                                                    bool overlapped) {
  bool read = major == IRP_MJ_READ;
  if (!buffer && length) return Failed(STATUS_ACCESS_VIOLATION);
  PFILE_OBJECT file = nullptr;
  NTSTATUS status = ReferenceFile(handle, read ? FILE_READ_DATA : FILE_WRITE_DATA, mode, &file);
  if (!NT_SUCCESS(status)) return Failed(status);
  bool synchronous = (file->Flags & FO_SYNCHRONOUS_IO) != 0;
  LARGE_INTEGER position;
  if (offset) {
    position = *offset;
  } else if (synchronous) {
    position = file->CurrentByteOffset;  // the file's current position
  } else {
    ob_->Dereference(file);
    return Failed(STATUS_INVALID_PARAMETER);  // asynchronous files need an offset
  }
  auto op = std::make_shared<PendingIo>();
  op->file_ = file;
  op->major_ = major;
  op->overlapped_ = overlapped && !synchronous;
  op->userEvent_ = overlapped;
  op->updatesPosition_ = synchronous;
  op->position_ = position.QuadPart;
  PIRP irp = BuildUserIrp(file, major);
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->Parameters.Read.Length = length;  // the same place for reads and writes
  stack->Parameters.Read.ByteOffset = position;
  ULONG flags = file->DeviceObject->Flags;
  if (flags & DO_BUFFERED_IO) {
    if (read) {
      op->system_.resize(length);
      op->output_ = buffer;
      op->outputLength_ = length;
      op->outputIsRead_ = true;
    } else {
      op->system_.assign(static_cast<const char*>(buffer), static_cast<const char*>(buffer) + length);
    }
    irp->AssociatedIrp.SystemBuffer = length ? op->system_.data() : nullptr;
  } else if (flags & DO_DIRECT_IO) {
    if (length) irp->MdlAddress = BuildMdl(buffer, length);
  } else {
    irp->UserBuffer = buffer;
  }
  return Issue(op, irp);
}

IoResult IoManager::Transfer(HANDLE handle, UCHAR major, void* buffer, ULONG length, const LARGE_INTEGER* offset,
                             KPROCESSOR_MODE mode) {
  return StartTransfer(handle, major, buffer, length, offset, mode, false)->Result();
}

IoResult IoManager::UserRead(HANDLE handle, void* buffer, ULONG length) {
  return Transfer(handle, IRP_MJ_READ, buffer, length, nullptr, UserMode);
}

IoResult IoManager::UserWrite(HANDLE handle, const void* buffer, ULONG length) {
  return Transfer(handle, IRP_MJ_WRITE, const_cast<void*>(buffer), length, nullptr, UserMode);
}

IoResult IoManager::Flush(HANDLE handle, KPROCESSOR_MODE mode) {
  PFILE_OBJECT file = nullptr;
  NTSTATUS status = ReferenceFile(handle, 0, mode, &file);
  if (!NT_SUCCESS(status)) return IoResult{status, 0};
  if (!file->WriteAccess) {
    ob_->Dereference(file);
    return IoResult{STATUS_ACCESS_DENIED, 0};
  }
  auto op = std::make_shared<PendingIo>();
  op->file_ = file;
  op->major_ = IRP_MJ_FLUSH_BUFFERS;
  return Issue(op, BuildUserIrp(file, IRP_MJ_FLUSH_BUFFERS))->Result();
}

IoResult IoManager::QueryInformation(HANDLE handle, int infoClass, void* buffer, ULONG length, KPROCESSOR_MODE mode) {
  PFILE_OBJECT file = nullptr;
  NTSTATUS status = ReferenceFile(handle, 0, mode, &file);
  if (!NT_SUCCESS(status)) return IoResult{status, 0};
  auto op = std::make_shared<PendingIo>();
  op->file_ = file;
  op->major_ = IRP_MJ_QUERY_INFORMATION;
  op->system_.resize(length);
  op->output_ = buffer;
  op->outputLength_ = length;
  op->outputIsRead_ = true;
  PIRP irp = BuildUserIrp(file, IRP_MJ_QUERY_INFORMATION);
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->Parameters.QueryFile.Length = length;
  stack->Parameters.QueryFile.FileInformationClass = infoClass;
  irp->AssociatedIrp.SystemBuffer = length ? op->system_.data() : nullptr;
  return Issue(op, irp)->Result();
}

NTSTATUS IoManager::QueryFileObjectName(PFILE_OBJECT file, std::u16string* name) {
  std::u16string opened = ToU16(&file->FileName);
  if (!file->DeviceObject) {
    *name = opened;
    return STATUS_SUCCESS;
  }
  std::u16string device = ob_->FullName(ObjectManager::HeaderOf(file->DeviceObject));
  if (opened.empty()) {  // the device itself was opened
    *name = device;
    return STATUS_SUCCESS;
  }
  // As the kernel does: ask the file system, with a buffer that grows to what it says it needs.
  ULONG length = 512;
  for (;;) {
    PIRP irp = BuildUserIrp(file, IRP_MJ_QUERY_INFORMATION);
    irp->RequestorMode = KernelMode;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.QueryFile.Length = length;
    stack->Parameters.QueryFile.FileInformationClass = FileNameInformation;
    std::vector<ULONG> buffer((length + sizeof(ULONG) - 1) / sizeof(ULONG));
    irp->AssociatedIrp.SystemBuffer = buffer.data();
    IoResult result = SendAndWait(file->DeviceObject, irp);
    FreeIrp(irp);
    auto* info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
    ULONG needed = FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) + info->FileNameLength;
    if (result.status == STATUS_BUFFER_OVERFLOW && needed > length) {
      length = needed;
      continue;
    }
    if (NT_SUCCESS(result.status)) {
      *name = device + std::u16string(reinterpret_cast<const char16_t*>(info->FileName),
                                      info->FileNameLength / sizeof(WCHAR));
      return STATUS_SUCCESS;
    }
    if (NoNameQuery(result.status)) {
      *name = device + opened;
      return STATUS_SUCCESS;
    }
    return result.status;
  }
}

IoResult IoManager::UserSendMajor(HANDLE handle, UCHAR major) {
  PFILE_OBJECT file = nullptr;
  NTSTATUS status = ReferenceFile(handle, 0, UserMode, &file);
  if (!NT_SUCCESS(status)) return IoResult{status, 0};
  auto op = std::make_shared<PendingIo>();
  op->file_ = file;
  op->major_ = major;
  return Issue(op, BuildUserIrp(file, major))->Result();
}

NTSTATUS IoManager::UserCloseHandle(HANDLE handle) { return ob_->CloseHandle(handle, UserMode); }

void IoManager::SendFileRequest(PFILE_OBJECT file, UCHAR major) {
  PDEVICE_OBJECT device = file->DeviceObject;
  if (major == IRP_MJ_CLOSE) __atomic_sub_fetch(&device->ReferenceCount, 1, __ATOMIC_SEQ_CST);
  PIRP irp = BuildUserIrp(file, major);
  irp->RequestorMode = KernelMode;
  SendAndWait(device, irp);
  FreeIrp(irp);
}

}  // namespace ntsim
