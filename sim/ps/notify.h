// Process, thread and image-load notifications: the registration tables behind
// PsSetCreateProcessNotifyRoutine(Ex/Ex2), PsSetCreateThreadNotifyRoutine and
// PsSetLoadImageNotifyRoutine, and their delivery.
//
// Delivery runs on the calling host thread in whatever simulated thread it currently acts as (the
// world picks the context the kernel documents) and holds no simulator lock while a routine runs:
// a routine may take locks, allocate, open files or wait. Every call of a routine is counted on its
// registration, and removing a routine waits until its calls in flight have returned.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ntsim/ntsim.h"

namespace ntsim {

class Notifications {
 public:
  // The registration routines' kinds. The three process kinds share one table, as in the kernel.
  enum class Kind { Process, ProcessEx, ProcessEx2, Thread, Image };
  // How many routines the kernel keeps per table.
  static constexpr size_t kLimit = 64;

  NTSTATUS Add(Kind kind, void* routine, const char* call);
  NTSTATUS Remove(Kind kind, void* routine, const char* call);

  // Makes the named registration routine fail with the status (STATUS_SUCCESS: work again).
  void FailRegistration(const std::string& routine, NTSTATUS status);

  struct Counts {
    size_t process = 0, thread = 0, image = 0;
    size_t Total() const { return process + thread + image; }
  };
  Counts Registered();

  // Delivery, in the current simulated thread. Process and image routines run inside a critical
  // region, thread routines at PASSIVE_LEVEL without one.
  void ProcessCreated(PEPROCESS process, HANDLE processId, HANDLE parentId, PPS_CREATE_NOTIFY_INFO info);
  void ProcessExited(PEPROCESS process, HANDLE processId, HANDLE parentId);
  void ThreadCreated(HANDLE processId, HANDLE threadId);
  void ThreadExited(HANDLE processId, HANDLE threadId);
  void ImageLoaded(PUNICODE_STRING fullImageName, HANDLE processId, PIMAGE_INFO imageInfo);

 private:
  struct Registration {
    Kind kind;
    void* routine;
    std::atomic<int> inFlight{0};
    std::atomic<bool> removed{false};
  };
  using Table = std::vector<std::shared_ptr<Registration>>;

  Table& TableOf(Kind kind);
  std::vector<std::shared_ptr<Registration>> Snapshot(Kind kind);
  // Runs call() for the registration unless it has been removed; keeps the in-flight count.
  template <typename Call>
  void Deliver(Registration& registration, const char* what, Call call);

  std::mutex mutex_;
  Table process_, thread_, image_;
  std::map<std::string, NTSTATUS> failing_;
};

// PsSetCreateProcessNotifyRoutineEx2: no import library declares it, so drivers find it with
// MmGetSystemRoutineAddress; kernels before Windows 10 lack it.
NTSTATUS NTAPI SetCreateProcessNotifyRoutineEx2(PSCREATEPROCESSNOTIFYTYPE NotifyType, PVOID NotifyInformation,
                                                BOOLEAN Remove);

// A referenced file object for an image or executable, as the notifications hand it over: the file
// opened through the file system when it exists there, or else a file object that only names the
// path. The caller dereferences it when the notification is over.
PFILE_OBJECT ReferenceImageFile(const std::u16string& ntPath);

}  // namespace ntsim
