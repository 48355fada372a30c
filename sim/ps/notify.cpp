#include "ps/notify.h"

#include <algorithm>

#include "kernel.h"
#include "ke/dispatcher.h"

namespace ntsim {

namespace {

// The registrations whose routines the calling host thread is inside of, innermost last: a routine
// that removes itself would wait for itself.
thread_local std::vector<const void*> t_calling;

bool IsProcessKind(Notifications::Kind kind) {
  return kind == Notifications::Kind::Process || kind == Notifications::Kind::ProcessEx ||
         kind == Notifications::Kind::ProcessEx2;
}

void CheckIrql(const char* call, KIRQL highest) {
  if (KeGetCurrentIrql() > highest) {
    K().verifier.Violation(call, highest == PASSIVE_LEVEL ? "called above PASSIVE_LEVEL" : "called above APC_LEVEL");
  }
}

}  // namespace

Notifications::Table& Notifications::TableOf(Kind kind) {
  if (IsProcessKind(kind)) return process_;
  return kind == Kind::Thread ? thread_ : image_;
}

NTSTATUS Notifications::Add(Kind kind, void* routine, const char* call) {
  CheckIrql(call, PASSIVE_LEVEL);
  if (!routine) {
    K().verifier.Violation(call, "registering a null notify routine");
    return STATUS_INVALID_PARAMETER;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto forced = failing_.find(call);
    if (forced != failing_.end()) return forced->second;
  }
  // The kernel allocates the routine's callback block first.
  if (K().verifier.ShouldFail(call)) return STATUS_INSUFFICIENT_RESOURCES;
  auto registration = std::make_shared<Registration>();
  registration->kind = kind;
  registration->routine = routine;
  std::lock_guard<std::mutex> lock(mutex_);
  Table& table = TableOf(kind);
  if (IsProcessKind(kind)) {
    // Already registered (by the same routine), or the table is full.
    for (auto& existing : table) {
      if (existing->kind == kind && existing->routine == routine) return STATUS_INVALID_PARAMETER;
    }
    if (table.size() >= kLimit) return STATUS_INVALID_PARAMETER;
  } else if (table.size() >= kLimit) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  table.push_back(std::move(registration));
  return STATUS_SUCCESS;
}

NTSTATUS Notifications::Remove(Kind kind, void* routine, const char* call) {
  CheckIrql(call, IsProcessKind(kind) ? PASSIVE_LEVEL : APC_LEVEL);
  std::shared_ptr<Registration> found;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Table& table = TableOf(kind);
    auto it = std::find_if(table.begin(), table.end(),
                           [&](auto& r) { return r->kind == kind && r->routine == routine; });
    if (it != table.end()) {
      found = *it;
      table.erase(it);
    }
  }
  if (!found) return IsProcessKind(kind) ? STATUS_INVALID_PARAMETER : STATUS_PROCEDURE_NOT_FOUND;
  found->removed.store(true);
  if (std::find(t_calling.begin(), t_calling.end(), found.get()) != t_calling.end()) {
    K().verifier.Violation(call, "a notify routine removes itself while it runs: the removal would wait for itself");
    return STATUS_SUCCESS;
  }
  // Calls already in progress finish before the routine may go away.
  std::unique_lock<std::mutex> lock(DispatcherLock());
  DispatcherWake().wait(lock, [&] { return found->inFlight.load() == 0; });
  return STATUS_SUCCESS;
}

void Notifications::FailRegistration(const std::string& routine, NTSTATUS status) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (NT_SUCCESS(status)) failing_.erase(routine);
  else failing_[routine] = status;
}

Notifications::Counts Notifications::Registered() {
  std::lock_guard<std::mutex> lock(mutex_);
  return Counts{process_.size(), thread_.size(), image_.size()};
}

std::vector<std::shared_ptr<Notifications::Registration>> Notifications::Snapshot(Kind kind) {
  std::lock_guard<std::mutex> lock(mutex_);
  return TableOf(kind);
}

template <typename Call>
void Notifications::Deliver(Registration& registration, const char* what, Call call) {
  // Counted before the removed flag is read: a removal either sees this call or this call sees
  // the removal.
  registration.inFlight.fetch_add(1);
  if (!registration.removed.load()) {
    _KTHREAD* thread = CurrentThread();
    KIRQL irql = thread->irql;
    int apcDisable = thread->kernelApcDisable;
    t_calling.push_back(&registration);
    call();
    t_calling.pop_back();
    if (thread->irql != irql || thread->kernelApcDisable != apcDisable) {
      K().verifier.Violation(what, thread->irql != irql
                                       ? "the routine returned at IRQL " + std::to_string(thread->irql) +
                                             ", called at " + std::to_string(irql)
                                       : "the routine returned with its critical regions unbalanced");
      thread->irql = irql;
      thread->kernelApcDisable = apcDisable;
    }
  }
  if (registration.inFlight.fetch_sub(1) == 1 && registration.removed.load()) {
    { std::lock_guard<std::mutex> lock(DispatcherLock()); }
    DispatcherWake().notify_all();
  }
}

void Notifications::ProcessCreated(PEPROCESS process, HANDLE processId, HANDLE parentId,
                                   PPS_CREATE_NOTIFY_INFO info) {
  auto registrations = Snapshot(Kind::Process);
  KeEnterCriticalRegion();
  for (auto& r : registrations) {
    Deliver(*r, "process notify routine", [&] {
      if (r->kind == Kind::Process) {
        reinterpret_cast<PCREATE_PROCESS_NOTIFY_ROUTINE>(r->routine)(parentId, processId, TRUE);
      } else {
        reinterpret_cast<PCREATE_PROCESS_NOTIFY_ROUTINE_EX>(r->routine)(process, processId, info);
      }
    });
  }
  KeLeaveCriticalRegion();
}

void Notifications::ProcessExited(PEPROCESS process, HANDLE processId, HANDLE parentId) {
  auto registrations = Snapshot(Kind::Process);
  KeEnterCriticalRegion();
  for (auto& r : registrations) {
    Deliver(*r, "process notify routine", [&] {
      if (r->kind == Kind::Process) {
        reinterpret_cast<PCREATE_PROCESS_NOTIFY_ROUTINE>(r->routine)(parentId, processId, FALSE);
      } else {
        reinterpret_cast<PCREATE_PROCESS_NOTIFY_ROUTINE_EX>(r->routine)(process, processId, nullptr);
      }
    });
  }
  KeLeaveCriticalRegion();
}

void Notifications::ThreadCreated(HANDLE processId, HANDLE threadId) {
  for (auto& r : Snapshot(Kind::Thread)) {
    Deliver(*r, "thread notify routine", [&] {
      reinterpret_cast<PCREATE_THREAD_NOTIFY_ROUTINE>(r->routine)(processId, threadId, TRUE);
    });
  }
}

void Notifications::ThreadExited(HANDLE processId, HANDLE threadId) {
  for (auto& r : Snapshot(Kind::Thread)) {
    Deliver(*r, "thread notify routine", [&] {
      reinterpret_cast<PCREATE_THREAD_NOTIFY_ROUTINE>(r->routine)(processId, threadId, FALSE);
    });
  }
}

void Notifications::ImageLoaded(PUNICODE_STRING fullImageName, HANDLE processId, PIMAGE_INFO imageInfo) {
  auto registrations = Snapshot(Kind::Image);
  KeEnterCriticalRegion();
  for (auto& r : registrations) {
    Deliver(*r, "load-image notify routine", [&] {
      reinterpret_cast<PLOAD_IMAGE_NOTIFY_ROUTINE>(r->routine)(fullImageName, processId, imageInfo);
    });
  }
  KeLeaveCriticalRegion();
}

NTSTATUS NTAPI SetCreateProcessNotifyRoutineEx2(PSCREATEPROCESSNOTIFYTYPE NotifyType, PVOID NotifyInformation,
                                                BOOLEAN Remove) {
  const char* call = "PsSetCreateProcessNotifyRoutineEx2";
  if (NotifyType != PsCreateProcessNotifySubsystems) return STATUS_INVALID_PARAMETER;
  if (Remove) return K().notify.Remove(Notifications::Kind::ProcessEx2, NotifyInformation, call);
  return K().notify.Add(Notifications::Kind::ProcessEx2, NotifyInformation, call);
}

PFILE_OBJECT ReferenceImageFile(const std::u16string& ntPath) {
  Kernel& k = K();
  if (!ntPath.empty()) {
    CreateRequest request;
    request.ntPath = ntPath;
    request.access = FILE_READ_DATA | SYNCHRONIZE;
    request.share = FILE_SHARE_READ | FILE_SHARE_DELETE;
    request.disposition = FILE_OPEN;
    request.options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
    request.kernelHandle = true;
    HANDLE handle = nullptr;
    if (NT_SUCCESS(k.io.CreateFile(request, &handle, nullptr))) {
      void* body = nullptr;
      NTSTATUS status = k.ob.ReferenceByHandle(handle, &k.ob.types.file, KernelMode, 0, &body, nullptr);
      k.ob.CloseHandle(handle, KernelMode);
      if (NT_SUCCESS(status)) return static_cast<PFILE_OBJECT>(body);
    }
  }
  // Not a file on any volume: a file object that names the path, on its volume's device when the
  // path leads to one. It was never opened, so no request reaches a device when it goes.
  auto* file = static_cast<PFILE_OBJECT>(k.ob.CreateObject(&k.ob.types.file, sizeof(FILE_OBJECT)));
  file->Type = IO_TYPE_FILE;
  file->Size = sizeof(FILE_OBJECT);
  std::u16string name = ntPath;
  ObjectHeader* header = nullptr;
  std::u16string remaining;
  if (!ntPath.empty() && NT_SUCCESS(k.ob.Lookup(ntPath, false, &header, &remaining))) {
    if (header->type == &k.ob.types.device) {
      file->DeviceObject = static_cast<PDEVICE_OBJECT>(header->Body());  // the lookup's reference passes on
      name = remaining;
    } else {
      k.ob.Dereference(header->Body());
    }
  }
  if (!name.empty()) {
    file->FileName.Buffer = new WCHAR[name.size()];
    std::memcpy(file->FileName.Buffer, name.data(), name.size() * sizeof(WCHAR));
    file->FileName.Length = file->FileName.MaximumLength = static_cast<USHORT>(name.size() * sizeof(WCHAR));
  }
  file->ReadAccess = TRUE;
  file->SharedRead = TRUE;
  KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
  return file;
}

}  // namespace ntsim

using namespace ntsim;

NTSTATUS NTAPI PsSetCreateProcessNotifyRoutine(PCREATE_PROCESS_NOTIFY_ROUTINE NotifyRoutine, BOOLEAN Remove) {
  const char* call = "PsSetCreateProcessNotifyRoutine";
  void* routine = reinterpret_cast<void*>(NotifyRoutine);
  if (Remove) return K().notify.Remove(Notifications::Kind::Process, routine, call);
  return K().notify.Add(Notifications::Kind::Process, routine, call);
}

NTSTATUS NTAPI PsSetCreateProcessNotifyRoutineEx(PCREATE_PROCESS_NOTIFY_ROUTINE_EX NotifyRoutine, BOOLEAN Remove) {
  const char* call = "PsSetCreateProcessNotifyRoutineEx";
  void* routine = reinterpret_cast<void*>(NotifyRoutine);
  if (Remove) return K().notify.Remove(Notifications::Kind::ProcessEx, routine, call);
  return K().notify.Add(Notifications::Kind::ProcessEx, routine, call);
}

NTSTATUS NTAPI PsSetCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE NotifyRoutine) {
  return K().notify.Add(Notifications::Kind::Thread, reinterpret_cast<void*>(NotifyRoutine),
                        "PsSetCreateThreadNotifyRoutine");
}

NTSTATUS NTAPI PsRemoveCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE NotifyRoutine) {
  return K().notify.Remove(Notifications::Kind::Thread, reinterpret_cast<void*>(NotifyRoutine),
                           "PsRemoveCreateThreadNotifyRoutine");
}

NTSTATUS NTAPI PsSetLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine) {
  return K().notify.Add(Notifications::Kind::Image, reinterpret_cast<void*>(NotifyRoutine),
                        "PsSetLoadImageNotifyRoutine");
}

NTSTATUS NTAPI PsRemoveLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine) {
  return K().notify.Remove(Notifications::Kind::Image, reinterpret_cast<void*>(NotifyRoutine),
                           "PsRemoveLoadImageNotifyRoutine");
}
