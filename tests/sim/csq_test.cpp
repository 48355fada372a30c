// Requests that stay pending, as a device like Sentrel's keeps them: a small driver defined here
// queues reads in a cancel-safe queue until a write hands them data, and a read ends by the write,
// by cancellation (CancelIo, CancelIoEx, its thread's exit) or by its handle's cleanup, each
// exactly once. Also: direct-I/O buffers, the previous mode of user and driver-built requests, and
// the verifier's cancellation checks.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ntsim/ntsim.h"
#include "sim_test_support.h"
#include "world.h"

using ntsim::IoResult;
using ntsim::PendingIo;
using ntsim::UserProcess;
using ntsim::World;

namespace {

using sim_test::Eventually;
using sim_test::HostThread;
using sim_test::RecordViolations;
using sim_test::ViolationCalls;

using namespace std::chrono_literals;

constexpr ULONG kPark = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x900, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kCompareInDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x901, METHOD_IN_DIRECT, FILE_ANY_ACCESS);
constexpr ULONG kFillOutDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x902, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);
constexpr ULONG kModes = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x903, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kForwardModes = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x904, METHOD_BUFFERED, FILE_ANY_ACCESS);

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

UNICODE_STRING Counted(const std::u16string& text) {
  auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  return UNICODE_STRING{bytes, bytes, reinterpret_cast<PWSTR>(const_cast<char16_t*>(text.data()))};
}

// ---------------------------------------------------------------------------------------------
// The driver: reads wait in a cancel-safe queue; a write completes the oldest read with its bytes;
// cleanup completes the handle's reads as cancelled; kPark queues a control request with a
// context, so that it can be taken out by IoCsqRemoveIrp.

struct QueueDevice {
  QueueDevice(World& world, const std::u16string& name, ULONG ioFlags, bool exQueue = false) {
    driver = world.kernel().io.CreateDriverObject(u"\\Driver\\" + name, nullptr);
    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL,
                        IRP_MJ_INTERNAL_DEVICE_CONTROL, IRP_MJ_CLEANUP}) {
      driver->MajorFunction[major] = Dispatch;
    }
    std::u16string path = u"\\Device\\" + name;
    UNICODE_STRING counted = Counted(path);
    EXPECT_EQ(IoCreateDevice(driver, sizeof(QueueDevice*), &counted, FILE_DEVICE_UNKNOWN, 0, FALSE, &device),
              STATUS_SUCCESS);
    *static_cast<QueueDevice**>(device->DeviceExtension) = this;
    device->Flags |= ioFlags;
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    InitializeListHead(&queue);
    ExInitializeFastMutex(&lock);
    NTSTATUS status = exQueue ? IoCsqInitializeEx(&csq, InsertEx, Remove, Peek, Acquire, Release, CompleteCanceled)
                              : IoCsqInitialize(&csq, Insert, Remove, Peek, Acquire, Release, CompleteCanceled);
    EXPECT_EQ(status, STATUS_SUCCESS);
  }

  // The driver's own removals, as a sender or a timer would make them.
  PIRP TakeNext(PVOID fileObject = nullptr) { return IoCsqRemoveNextIrp(&csq, fileObject); }
  PIRP TakeParked() { return IoCsqRemoveIrp(&csq, &parked); }
  int Queued() {
    ExAcquireFastMutex(&lock);
    int n = 0;
    for (PLIST_ENTRY entry = queue.Flink; entry != &queue; entry = entry->Flink) ++n;
    ExReleaseFastMutex(&lock);
    return n;
  }
  std::vector<std::string> Log() {
    std::lock_guard<std::mutex> guard(logMutex);
    return log;
  }

  PDRIVER_OBJECT driver = nullptr;
  PDEVICE_OBJECT device = nullptr;
  IO_CSQ csq;
  LIST_ENTRY queue;
  FAST_MUTEX lock;
  IO_CSQ_IRP_CONTEXT parked;

  // Behaviour the tests choose.
  bool cleanupCompletesReads = true;
  bool cancelBeforeQueueing = false;  // the read dispatch cancels the request before queueing it
  NTSTATUS refusal = STATUS_SUCCESS;  // what an Ex queue's insert routine answers when not success
  // The host thread whose next taking of the queue's lock waits until this is cleared.
  std::atomic<std::thread::id> pauseThread{};
  std::atomic<bool> paused{false};

  // What the tests observe.
  std::atomic<int> inserted{0}, removed{0}, cancelled{0};
  std::atomic<int> cancelReturned{-1};
  std::mutex logMutex;
  std::vector<std::string> log;  // "cleanup", "close", with the file's FsContext2 checked
  char fsContextTag = 'Q';
  std::thread::id lastNoteThread;  // the host thread of the last cleanup or close

 private:
  static QueueDevice* Of(PIO_CSQ csq) { return CONTAINING_RECORD(csq, QueueDevice, csq); }
  static QueueDevice* Of(PDEVICE_OBJECT device) { return *static_cast<QueueDevice**>(device->DeviceExtension); }

  static VOID NTAPI Insert(PIO_CSQ csq, PIRP irp) {
    InsertTailList(&Of(csq)->queue, &irp->Tail.Overlay.ListEntry);
    ++Of(csq)->inserted;
  }
  static NTSTATUS NTAPI InsertEx(PIO_CSQ csq, PIRP irp, PVOID insertContext) {
    if (insertContext) return Of(csq)->refusal;  // a queue that is full, say
    Insert(csq, irp);
    return STATUS_SUCCESS;
  }
  static VOID NTAPI Remove(PIO_CSQ csq, PIRP irp) {
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    ++Of(csq)->removed;
  }
  static PIRP NTAPI Peek(PIO_CSQ csq, PIRP irp, PVOID peekContext) {
    QueueDevice* self = Of(csq);
    PLIST_ENTRY entry = irp ? irp->Tail.Overlay.ListEntry.Flink : self->queue.Flink;
    for (; entry != &self->queue; entry = entry->Flink) {
      PIRP next = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
      if (!peekContext || IoGetCurrentIrpStackLocation(next)->FileObject == peekContext) return next;
    }
    return nullptr;
  }
  static VOID NTAPI Acquire(PIO_CSQ csq, PKIRQL) {
    QueueDevice* self = Of(csq);
    if (self->pauseThread.load() == std::this_thread::get_id()) {
      self->paused = true;
      while (self->pauseThread.load() == std::this_thread::get_id()) std::this_thread::yield();
    }
    ExAcquireFastMutex(&self->lock);
  }
  static VOID NTAPI Release(PIO_CSQ csq, KIRQL) { ExReleaseFastMutex(&Of(csq)->lock); }
  static VOID NTAPI CompleteCanceled(PIO_CSQ csq, PIRP irp) {
    ++Of(csq)->cancelled;
    Complete(irp, STATUS_CANCELLED, 0);
  }

  // The system address of a request's data buffer, whichever way the device asked for it.
  static PVOID DataOf(PDEVICE_OBJECT device, PIRP irp) {
    if (device->Flags & DO_DIRECT_IO) {
      return irp->MdlAddress ? MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority) : nullptr;
    }
    return irp->AssociatedIrp.SystemBuffer;
  }

  void Note(const char* what, PFILE_OBJECT file) {
    std::lock_guard<std::mutex> guard(logMutex);
    log.push_back(std::string(what) + (file->FsContext2 == &fsContextTag ? "" : " (lost FsContext2)") +
                  (KeGetCurrentIrql() == PASSIVE_LEVEL ? "" : " (above PASSIVE_LEVEL)"));
    lastNoteThread = std::this_thread::get_id();
  }

  static NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    QueueDevice* self = Of(device);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MajorFunction) {
      case IRP_MJ_CREATE:
        stack->FileObject->FsContext2 = &self->fsContextTag;
        return Complete(irp, STATUS_SUCCESS, 0);
      case IRP_MJ_READ:
        if (self->cancelBeforeQueueing) self->cancelReturned = IoCancelIrp(irp);
        IoCsqInsertIrp(&self->csq, irp, nullptr);
        return STATUS_PENDING;
      case IRP_MJ_WRITE: {
        PIRP read = self->TakeNext();
        if (!read) return Complete(irp, STATUS_NOT_FOUND, 0);
        ULONG length = stack->Parameters.Write.Length;
        ULONG room = IoGetCurrentIrpStackLocation(read)->Parameters.Read.Length;
        PVOID to = DataOf(device, read);
        PVOID from = DataOf(device, irp);
        if (!to || !from) {
          Complete(read, STATUS_INSUFFICIENT_RESOURCES, 0);
          return Complete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
        }
        ULONG n = length < room ? length : room;
        std::memcpy(to, from, n);
        Complete(read, STATUS_SUCCESS, n);
        return Complete(irp, STATUS_SUCCESS, length);
      }
      case IRP_MJ_CLEANUP:
        if (self->cleanupCompletesReads) {
          while (PIRP read = self->TakeNext(stack->FileObject)) Complete(read, STATUS_CANCELLED, 0);
        }
        self->Note("cleanup", stack->FileObject);
        return Complete(irp, STATUS_SUCCESS, 0);
      case IRP_MJ_CLOSE:
        self->Note("close", stack->FileObject);
        return Complete(irp, STATUS_SUCCESS, 0);
      default:
        return Control(self, irp, stack);
    }
  }

  static NTSTATUS Control(QueueDevice* self, PIRP irp, PIO_STACK_LOCATION stack) {
    auto& p = stack->Parameters.DeviceIoControl;
    auto* system = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
    switch (p.IoControlCode) {
      case kPark: {
        static NTSTATUS refuse = STATUS_UNSUCCESSFUL;
        // With an Ex queue, an input byte asks the insert routine to refuse the request.
        NTSTATUS status = IoCsqInsertIrpEx(&self->csq, irp, &self->parked, p.InputBufferLength ? &refuse : nullptr);
        if (!NT_SUCCESS(status)) return Complete(irp, status, 0);
        return STATUS_PENDING;
      }
      case kCompareInDirect: {
        // The first buffer arrives buffered; the second, read through the MDL, is input too.
        if (!irp->MdlAddress) return Complete(irp, STATUS_INVALID_PARAMETER, 0);
        PVOID second = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        if (!second) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
        bool same = p.InputBufferLength == p.OutputBufferLength &&
                    std::memcmp(system, second, p.InputBufferLength) == 0;
        return Complete(irp, same ? STATUS_SUCCESS : STATUS_DATA_ERROR, 0);
      }
      case kFillOutDirect: {
        if (!irp->MdlAddress) return Complete(irp, STATUS_INVALID_PARAMETER, 0);
        auto* out = static_cast<char*>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority));
        if (!out) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
        // The input, repeated to fill the output.
        for (ULONG i = 0; i < p.OutputBufferLength; ++i) out[i] = static_cast<char>(system[i % p.InputBufferLength]);
        return Complete(irp, STATUS_SUCCESS, p.OutputBufferLength);
      }
      case kModes:
        if (p.OutputBufferLength < 2) return Complete(irp, STATUS_BUFFER_TOO_SMALL, 0);
        system[0] = static_cast<UCHAR>(ExGetPreviousMode());
        system[1] = static_cast<UCHAR>(irp->RequestorMode);
        return Complete(irp, STATUS_SUCCESS, 2);
      case kForwardModes: {
        // The driver asks itself, with a request it builds, inside the caller's request.
        if (p.OutputBufferLength < 4) return Complete(irp, STATUS_BUFFER_TOO_SMALL, 0);
        system[0] = static_cast<UCHAR>(ExGetPreviousMode());
        system[1] = static_cast<UCHAR>(irp->RequestorMode);
        NTSTATUS status = AskModes(self->device, system + 2);
        return Complete(irp, status, NT_SUCCESS(status) ? 4 : 0);
      }
      default:
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
  }

 public:
  // kModes through a request the caller builds with IoBuildDeviceIoControlRequest.
  static NTSTATUS AskModes(PDEVICE_OBJECT device, UCHAR modes[2]) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP irp = IoBuildDeviceIoControlRequest(kModes, device, nullptr, 0, modes, 2, FALSE, &event, &iosb);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
      KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
      status = iosb.Status;
    }
    return status;
  }
};

HANDLE Open(UserProcess& process, const std::u16string& path, bool overlapped) {
  HANDLE handle = nullptr;
  EXPECT_EQ(process.CreateFile(path, GENERIC_READ | GENERIC_WRITE, &handle, overlapped), STATUS_SUCCESS);
  return handle;
}

// ---------------------------------------------------------------------------------------------
// Reads that wait

TEST(PendingReadTest, AQueuedReadIsCompletedByALaterWriteInOrder) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& reader = world.StartProcess(u"reader.exe");
  UserProcess& writer = world.StartProcess(u"writer.exe");
  HANDLE in = Open(reader, u"\\Device\\Queue", true);
  HANDLE out = Open(writer, u"\\Device\\Queue", false);

  char first[8], second[8];
  std::memset(first, 'u', sizeof first);
  std::memset(second, 'u', sizeof second);
  std::shared_ptr<PendingIo> a = reader.ReadFileOverlapped(in, first, sizeof first);
  std::shared_ptr<PendingIo> b = reader.ReadFileOverlapped(in, second, sizeof second);
  EXPECT_EQ(a->IssueStatus(), STATUS_PENDING);
  EXPECT_EQ(b->IssueStatus(), STATUS_PENDING);
  EXPECT_FALSE(a->Wait(20ms)) << "a read with nothing to read completed";
  EXPECT_EQ(a->Result().status, STATUS_PENDING);
  EXPECT_EQ(KeReadStateEvent(a->Event()), 0);
  EXPECT_EQ(queue.Queued(), 2);

  // The oldest read gets the first write, the next the second.
  IoResult written = writer.WriteFile(out, "hello", 5);
  EXPECT_EQ(written.status, STATUS_SUCCESS);
  ASSERT_TRUE(a->Wait(5s));
  EXPECT_EQ(a->Result().status, STATUS_SUCCESS);
  EXPECT_EQ(a->Result().information, 5u);
  EXPECT_EQ(std::string(first, sizeof first), "hellouuu");
  EXPECT_EQ(KeReadStateEvent(a->Event()), 1) << "the overlapped event is set at completion";
  EXPECT_FALSE(b->Completed());
  EXPECT_EQ(writer.WriteFile(out, "a longer line", 13).status, STATUS_SUCCESS);
  ASSERT_TRUE(b->Wait(5s));
  EXPECT_EQ(b->Result().information, sizeof second);
  EXPECT_EQ(std::string(second, sizeof second), "a longer");
  EXPECT_EQ(writer.WriteFile(out, "nobody", 6).status, STATUS_NOT_FOUND);

  // On a synchronous handle the read blocks its caller until a write arrives.
  HANDLE syncIn = Open(reader, u"\\Device\\Queue", false);
  char third[8] = {};
  IoResult result;
  {
    HostThread blocked([&] { result = reader.ReadFile(syncIn, third, sizeof third); });
    ASSERT_TRUE(Eventually([&] { return queue.Queued() == 1; }));
    EXPECT_FALSE(blocked.FinishedWithin(20ms));
    EXPECT_EQ(writer.WriteFile(out, "sync", 4).status, STATUS_SUCCESS);
    ASSERT_TRUE(blocked.FinishedWithin(5s));
  }
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.information, 4u);
  EXPECT_STREQ(third, "sync");
  // So does an overlapped call on a synchronous handle, which then returns the final status.
  std::shared_ptr<PendingIo> waited;
  {
    HostThread blocked([&] { waited = reader.ReadFileOverlapped(syncIn, third, sizeof third); });
    ASSERT_TRUE(Eventually([&] { return queue.Queued() == 1; }));
    EXPECT_FALSE(blocked.FinishedWithin(20ms));
    EXPECT_EQ(writer.WriteFile(out, "more", 4).status, STATUS_SUCCESS);
  }
  EXPECT_EQ(waited->IssueStatus(), STATUS_SUCCESS);
  EXPECT_EQ(waited->Result().information, 4u);
  EXPECT_EQ(KeReadStateEvent(waited->Event()), 1);

  EXPECT_EQ(queue.cancelled, 0);
  EXPECT_EQ(world.kernel().io.OutstandingRequests(), 0u);
  reader.CloseHandle(in);
  reader.CloseHandle(syncIn);
  writer.CloseHandle(out);
}

TEST(PendingReadTest, DirectReadsAreFilledThroughTheirMdlFromAnotherThread) {
  World world;
  QueueDevice queue(world, u"Direct", DO_DIRECT_IO);
  UserProcess& reader = world.StartProcess(u"reader.exe");
  UserProcess& writer = world.StartProcess(u"writer.exe");
  HANDLE in = Open(reader, u"\\Device\\Direct", true);
  HANDLE out = Open(writer, u"\\Device\\Direct", false);
  char buffer[6000];  // spans pages
  std::memset(buffer, 'u', sizeof buffer);
  std::shared_ptr<PendingIo> read = reader.ReadFileOverlapped(in, buffer + 100, 5000);
  ASSERT_EQ(read->IssueStatus(), STATUS_PENDING);
  std::string data(5000, 'd');
  {
    HostThread sender([&] { EXPECT_EQ(writer.WriteFile(out, data.data(), 5000).status, STATUS_SUCCESS); });
  }
  ASSERT_TRUE(read->Wait(5s));
  EXPECT_EQ(read->Result().information, 5000u);
  EXPECT_EQ(std::string(buffer + 100, 5000), data);
  EXPECT_EQ(buffer[99], 'u');
  EXPECT_EQ(buffer[5100], 'u');

  // The mapping can fail; the driver says so and the caller hears it.
  std::shared_ptr<PendingIo> starved = reader.ReadFileOverlapped(in, buffer, 16);
  world.verifier().FailNth(1);
  EXPECT_EQ(writer.WriteFile(out, "x", 1).status, STATUS_INSUFFICIENT_RESOURCES);
  world.verifier().FailNth(0);
  ASSERT_TRUE(starved->Wait(5s));
  EXPECT_EQ(starved->Result().status, STATUS_INSUFFICIENT_RESOURCES);
  reader.CloseHandle(in);
  writer.CloseHandle(out);
}

// ---------------------------------------------------------------------------------------------
// Cancellation

TEST(CancelTest, CancelIoEndsTheCallingThreadsReadsAndCancelIoExAnyThreads) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", true);
  char mine[4], theirs[4], third[4];

  std::shared_ptr<PendingIo> read = app.ReadFileOverlapped(handle, mine, sizeof mine);
  std::shared_ptr<PendingIo> other;
  {
    HostThread thread([&] { other = app.ReadFileOverlapped(handle, theirs, sizeof theirs); });
  }
  ASSERT_EQ(queue.Queued(), 2);
  // CancelIo waits for the calling thread's requests; the other thread's stays.
  EXPECT_EQ(app.CancelIo(handle), STATUS_SUCCESS);
  ASSERT_TRUE(read->Completed());
  EXPECT_EQ(read->Result().status, STATUS_CANCELLED);
  EXPECT_EQ(read->Result().information, 0u);
  EXPECT_EQ(KeReadStateEvent(read->Event()), 1);
  EXPECT_FALSE(other->Completed());
  EXPECT_EQ(app.CancelIo(handle), STATUS_SUCCESS) << "nothing left of this thread's: still success";

  // CancelIoEx reaches any thread's request of the process, or only the one named.
  std::shared_ptr<PendingIo> kept = app.ReadFileOverlapped(handle, third, sizeof third);
  EXPECT_EQ(app.CancelIoEx(handle, other.get()), STATUS_SUCCESS);
  ASSERT_TRUE(other->Wait(5s));
  EXPECT_EQ(other->Result().status, STATUS_CANCELLED);
  EXPECT_FALSE(kept->Completed());
  EXPECT_EQ(app.CancelIoEx(handle, other.get()), STATUS_NOT_FOUND) << "it has ended already";
  UserProcess& stranger = world.StartProcess(u"stranger.exe");
  EXPECT_EQ(stranger.CancelIoEx(handle), STATUS_INVALID_HANDLE) << "the handle is not the stranger's";
  EXPECT_EQ(app.CancelIoEx(handle), STATUS_SUCCESS);
  ASSERT_TRUE(kept->Wait(5s));
  EXPECT_EQ(kept->Result().status, STATUS_CANCELLED);
  EXPECT_EQ(app.CancelIoEx(handle), STATUS_NOT_FOUND);

  // Each ended once, through the queue's cancel routine, and left the queue.
  EXPECT_EQ(queue.cancelled, 3);
  EXPECT_EQ(queue.inserted, 3);
  EXPECT_EQ(queue.removed, 3);
  EXPECT_EQ(queue.Queued(), 0);
  app.CloseHandle(handle);
}

TEST(CancelTest, AThreadsExitCancelsItsRequestsBeforeItEnds) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE overlapped = Open(app, u"\\Device\\Queue", true);
  HANDLE synchronous = Open(app, u"\\Device\\Queue", false);
  char a[4], b[4], c[4];

  // A thread leaves an overlapped read behind; another stays blocked in a synchronous one.
  std::shared_ptr<PendingIo> left;
  uint64_t leaver = 0;
  {
    HostThread thread([&] {
      leaver = app.CurrentThreadId();
      left = app.ReadFileOverlapped(overlapped, a, sizeof a);
    });
  }
  std::atomic<uint64_t> blocker{0};
  IoResult blockedResult;
  HostThread blocked([&] {
    blocker = app.CurrentThreadId();
    blockedResult = app.ReadFile(synchronous, b, sizeof b);
  });
  std::shared_ptr<PendingIo> mine = app.ReadFileOverlapped(overlapped, c, sizeof c);
  ASSERT_TRUE(Eventually([&] { return queue.Queued() == 3; }));

  world.ExitThread(leaver);
  ASSERT_TRUE(left->Completed()) << "the thread's exit waits for its requests";
  EXPECT_EQ(left->Result().status, STATUS_CANCELLED);
  EXPECT_FALSE(mine->Completed());

  world.ExitThread(blocker);
  ASSERT_TRUE(blocked.FinishedWithin(5s));
  EXPECT_EQ(blockedResult.status, STATUS_CANCELLED);
  EXPECT_FALSE(mine->Completed());
  EXPECT_EQ(queue.cancelled, 2);

  // The process's exit ends the rest, then closes its handles: cleanup and close for each file.
  world.ExitProcess(app);
  ASSERT_TRUE(mine->Completed());
  EXPECT_EQ(mine->Result().status, STATUS_CANCELLED);
  EXPECT_EQ(queue.cancelled, 3);
  EXPECT_EQ(queue.Log(), (std::vector<std::string>{"cleanup", "close", "cleanup", "close"}));
  EXPECT_EQ(world.kernel().io.AllocatedRequests(), 0u);
}

TEST(CancelTest, ClosingTheLastHandleCleansUpItsReadsAndThenClosesTheFile) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE first = Open(app, u"\\Device\\Queue", true);
  HANDLE second = Open(app, u"\\Device\\Queue", true);
  char a[4], b[4];
  std::shared_ptr<PendingIo> readA = app.ReadFileOverlapped(first, a, sizeof a);
  std::shared_ptr<PendingIo> readB = app.ReadFileOverlapped(second, b, sizeof b);

  // Cleanup ends the reads of the file whose handle went, and only those.
  ASSERT_EQ(app.CloseHandle(first), STATUS_SUCCESS);
  ASSERT_TRUE(readA->Completed());
  EXPECT_EQ(readA->Result().status, STATUS_CANCELLED);
  EXPECT_FALSE(readB->Completed());
  EXPECT_EQ(queue.cancelled, 0) << "completed by the driver's cleanup, not by cancellation";
  EXPECT_EQ(queue.Log(), (std::vector<std::string>{"cleanup", "close"}));

  // A driver that keeps a handle's reads through cleanup: the file object stays referenced by the
  // read, so the close waits for its end (here, the thread's exit).
  queue.cleanupCompletesReads = false;
  std::shared_ptr<PendingIo> survivor;
  uint64_t thread = 0;
  {
    HostThread reader([&] {
      thread = app.CurrentThreadId();
      survivor = app.ReadFileOverlapped(second, b, sizeof b);
    });
  }
  ASSERT_EQ(app.CloseHandle(second), STATUS_SUCCESS);
  EXPECT_EQ(queue.Log(), (std::vector<std::string>{"cleanup", "close", "cleanup"}));
  EXPECT_FALSE(readB->Completed());
  EXPECT_FALSE(survivor->Completed());
  EXPECT_EQ(app.CancelIo(second), STATUS_INVALID_HANDLE);
  EXPECT_EQ(app.CancelIoEx(second), STATUS_INVALID_HANDLE);
  world.ExitThread(thread);
  ASSERT_TRUE(survivor->Completed());
  EXPECT_EQ(survivor->Result().status, STATUS_CANCELLED);
  EXPECT_EQ(queue.Log().size(), 3u) << "readB still holds the file";
  world.ExitProcess(app);  // the main thread's exit cancels readB; its end drops the last reference
  EXPECT_EQ(readB->Result().status, STATUS_CANCELLED);
  EXPECT_EQ(queue.Log(), (std::vector<std::string>{"cleanup", "close", "cleanup", "close"}));
}

TEST(CancelTest, AFileCompletedAwayAtDispatchLevelIsClosedLaterAtPassiveLevel) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  queue.cleanupCompletesReads = false;
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", true);
  char buffer[4];
  std::shared_ptr<PendingIo> read = app.ReadFileOverlapped(handle, buffer, sizeof buffer);
  ASSERT_EQ(app.CloseHandle(handle), STATUS_SUCCESS);
  EXPECT_EQ(queue.Log(), std::vector<std::string>{"cleanup"});
  // The read holds the file's last reference. Its completion under a spin lock must not run the
  // driver's close there and then: the close comes from elsewhere, at PASSIVE_LEVEL.
  PIRP irp = queue.TakeNext();
  ASSERT_NE(irp, nullptr);
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  Complete(irp, STATUS_SUCCESS, 0);
  KeLowerIrql(old);
  ASSERT_TRUE(read->Wait(5s));
  ASSERT_TRUE(Eventually([&] { return queue.Log().size() == 2; }));
  EXPECT_EQ(queue.Log(), (std::vector<std::string>{"cleanup", "close"}));
  EXPECT_NE(queue.lastNoteThread, std::this_thread::get_id());
}

TEST(CancelTest, ARequestCancelledBeforeItIsQueuedIsCompletedAtOnce) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  queue.cancelBeforeQueueing = true;
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", true);
  char buffer[4];
  std::shared_ptr<PendingIo> read = app.ReadFileOverlapped(handle, buffer, sizeof buffer);
  // IoCancelIrp found no cancel routine: it only set the cancel bit. The queue does not keep such
  // a request: it has it completed as cancelled at once.
  EXPECT_EQ(queue.cancelReturned, FALSE);
  EXPECT_EQ(read->IssueStatus(), STATUS_PENDING);
  ASSERT_TRUE(read->Completed());
  EXPECT_EQ(read->Result().status, STATUS_CANCELLED);
  EXPECT_EQ(queue.Queued(), 0);
  EXPECT_EQ(queue.inserted.load(), queue.removed.load()) << "whatever went into the list came out";
  EXPECT_EQ(queue.cancelled, 1);
  app.CloseHandle(handle);
}

TEST(CancelTest, ContextRemovalAndExQueues) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO, /*exQueue=*/true);
  queue.refusal = STATUS_DEVICE_NOT_READY;
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", true);

  // A request parked with a context is taken out by it, once.
  std::shared_ptr<PendingIo> parked = app.DeviceIoControlOverlapped(handle, kPark, nullptr, 0, nullptr, 0);
  ASSERT_EQ(parked->IssueStatus(), STATUS_PENDING);
  PIRP irp = queue.TakeParked();
  ASSERT_NE(irp, nullptr);
  EXPECT_EQ(queue.TakeParked(), nullptr);
  EXPECT_EQ(irp->CancelRoutine, nullptr) << "a request taken out is no longer cancelable";
  EXPECT_EQ(app.CancelIoEx(handle, parked.get()), STATUS_SUCCESS) << "found, though its driver owns it now";
  EXPECT_FALSE(parked->Completed());
  EXPECT_TRUE(irp->Cancel);
  Complete(irp, STATUS_SUCCESS, 0);
  ASSERT_TRUE(parked->Wait(5s));
  EXPECT_EQ(parked->Result().status, STATUS_SUCCESS);

  // Once cancelled, the context yields nothing.
  parked = app.DeviceIoControlOverlapped(handle, kPark, nullptr, 0, nullptr, 0);
  EXPECT_EQ(app.CancelIoEx(handle), STATUS_SUCCESS);
  EXPECT_EQ(queue.TakeParked(), nullptr);
  ASSERT_TRUE(parked->Wait(5s));
  EXPECT_EQ(parked->Result().status, STATUS_CANCELLED);

  // An Ex queue's insert routine may refuse: the request is not queued, not pending, not
  // cancelable, and its driver completes it with the refusal.
  UCHAR full = 1;
  std::shared_ptr<PendingIo> refused = app.DeviceIoControlOverlapped(handle, kPark, &full, 1, nullptr, 0);
  EXPECT_EQ(refused->IssueStatus(), STATUS_DEVICE_NOT_READY);
  EXPECT_EQ(refused->Result().status, STATUS_DEVICE_NOT_READY);
  EXPECT_EQ(queue.Queued(), 0);
  EXPECT_TRUE(world.verifier().Violations().empty());
  app.CloseHandle(handle);
}

// The moment that matters, held still: the cancel routine has taken the request's cancel routine
// but waits for the queue's lock. Removal must pass the request by, and the cancellation ends it.
TEST(CsqRaceTest, ARequestBeingCancelledIsPassedOverByRemoval) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", true);
  char buffer[4];
  for (bool byContext : {false, true}) {
    std::shared_ptr<PendingIo> request = byContext
                                             ? app.DeviceIoControlOverlapped(handle, kPark, nullptr, 0, nullptr, 0)
                                             : app.ReadFileOverlapped(handle, buffer, sizeof buffer);
    std::shared_ptr<PendingIo> later = app.ReadFileOverlapped(handle, buffer, sizeof buffer);
    queue.paused = false;
    NTSTATUS cancelStatus = STATUS_UNSUCCESSFUL;
    {
      HostThread canceller([&] {
        queue.pauseThread = std::this_thread::get_id();
        cancelStatus = app.CancelIoEx(handle, request.get());
      });
      ASSERT_TRUE(Eventually([&] { return queue.paused.load(); }));
      // The queue still holds the request; a removal takes the next one instead, or nothing.
      EXPECT_EQ(queue.Queued(), 2);
      PIRP taken = byContext ? queue.TakeParked() : queue.TakeNext();
      if (byContext) {
        EXPECT_EQ(taken, nullptr);
      } else {
        ASSERT_NE(taken, nullptr);
        EXPECT_EQ(taken->UserEvent, later->Event()) << "the read being cancelled was not passed over";
        Complete(taken, STATUS_SUCCESS, 0);
      }
      EXPECT_FALSE(request->Completed());
      queue.pauseThread = std::thread::id();
    }
    EXPECT_EQ(cancelStatus, STATUS_SUCCESS);
    ASSERT_TRUE(request->Wait(5s));
    EXPECT_EQ(request->Result().status, STATUS_CANCELLED);
    if (byContext) {
      ASSERT_TRUE(app.CancelIoEx(handle, later.get()) == STATUS_SUCCESS);
    }
    ASSERT_TRUE(later->Wait(5s));
  }
  EXPECT_EQ(queue.Queued(), 0);
  app.CloseHandle(handle);
}

// The driver's removal (a sender taking the next read, or one request by its context) races the
// caller's CancelIoEx on two host threads: whichever wins, the request is completed exactly once,
// as the winner says, and the verifier sees no second completion.
TEST(CsqRaceTest, RemovalRacingCancellationCompletesEachRequestOnce) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", true);
  constexpr int kRounds = 400;
  int takenByDriver = 0, cancelled = 0;
  for (int round = 0; round < kRounds; ++round) {
    char buffer[4];
    bool byContext = round % 2 != 0;
    std::shared_ptr<PendingIo> request = byContext
                                             ? app.DeviceIoControlOverlapped(handle, kPark, nullptr, 0, nullptr, 0)
                                             : app.ReadFileOverlapped(handle, buffer, sizeof buffer);
    ASSERT_EQ(request->IssueStatus(), STATUS_PENDING);
    std::atomic<int> ready{0};
    PIRP taken = nullptr;
    NTSTATUS cancelStatus = STATUS_SUCCESS;
    {
      auto start = [&ready] {
        ++ready;
        while (ready.load() < 2) std::this_thread::yield();
      };
      HostThread driver([&] {
        start();
        taken = byContext ? queue.TakeParked() : queue.TakeNext();
        if (taken) Complete(taken, STATUS_SUCCESS, 1);
      });
      HostThread canceller([&] {
        start();
        cancelStatus = app.CancelIoEx(handle, request.get());
      });
    }
    ASSERT_TRUE(request->Wait(5s)) << "round " << round << ": the request was lost";
    IoResult result = request->Result();
    if (taken) {
      ++takenByDriver;
      EXPECT_EQ(result.status, STATUS_SUCCESS) << "round " << round;
      EXPECT_EQ(result.information, 1u);
    } else {
      ++cancelled;
      EXPECT_EQ(result.status, STATUS_CANCELLED) << "round " << round;
      EXPECT_EQ(cancelStatus, STATUS_SUCCESS) << "round " << round << ": cancelled, but CancelIoEx found nothing";
    }
  }
  EXPECT_EQ(takenByDriver + cancelled, kRounds);
  EXPECT_EQ(queue.cancelled, cancelled);
  EXPECT_EQ(queue.Queued(), 0);
  EXPECT_EQ(world.kernel().io.AllocatedRequests(), 0u);
  EXPECT_TRUE(world.verifier().Violations().empty());
  app.CloseHandle(handle);
}

// ---------------------------------------------------------------------------------------------
// Direct-I/O control requests and the previous mode

TEST(DirectControlTest, InDirectAndOutDirectBuffersAreLockedCallerMemory) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", false);

  // METHOD_IN_DIRECT: both buffers are input; nothing is copied back into either.
  char first[] = "same bytes", second[] = "same bytes", different[] = "diff bytes";
  IoResult result = app.DeviceIoControl(handle, kCompareInDirect, first, sizeof first, second, sizeof second);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_STREQ(second, "same bytes");
  EXPECT_EQ(app.DeviceIoControl(handle, kCompareInDirect, first, sizeof first, different, sizeof different).status,
            STATUS_DATA_ERROR);
  // No second buffer: no MDL.
  EXPECT_EQ(app.DeviceIoControl(handle, kCompareInDirect, first, sizeof first, nullptr, 0).status,
            STATUS_INVALID_PARAMETER);

  // METHOD_OUT_DIRECT: the driver writes the caller's memory through the MDL, across pages.
  std::vector<char> out(3 * PAGE_SIZE, 'u');
  result = app.DeviceIoControl(handle, kFillOutDirect, "ab", 2, out.data() + 10, 2 * PAGE_SIZE);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.information, 2u * PAGE_SIZE);
  EXPECT_EQ(out[9], 'u');
  EXPECT_EQ(std::string(out.data() + 10, 6), "ababab");
  EXPECT_EQ(out[10 + 2 * PAGE_SIZE - 1], 'b');
  EXPECT_EQ(out[10 + 2 * PAGE_SIZE], 'u');
  // A mapping that fails reaches the caller as the driver reports it.
  world.verifier().FailNth(1);
  EXPECT_EQ(app.DeviceIoControl(handle, kFillOutDirect, "ab", 2, out.data(), 8).status,
            STATUS_INSUFFICIENT_RESOURCES);
  world.verifier().FailNth(0);
  // Buffers that are not there are refused before the driver sees the request.
  EXPECT_EQ(app.DeviceIoControl(handle, kFillOutDirect, "ab", 2, nullptr, 8).status, STATUS_ACCESS_VIOLATION);
  app.CloseHandle(handle);
}

TEST(PreviousModeTest, UserRequestsAreUserModeAndDriverBuiltOnesKernelMode) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", false);
  UCHAR modes[4] = {9, 9, 9, 9};
  ASSERT_EQ(app.DeviceIoControl(handle, kModes, nullptr, 0, modes, 2).status, STATUS_SUCCESS);
  EXPECT_EQ(modes[0], UserMode) << "ExGetPreviousMode";
  EXPECT_EQ(modes[1], UserMode) << "Irp->RequestorMode";

  // A request a driver builds on a system thread: kernel mode both ways.
  std::memset(modes, 9, sizeof modes);
  ASSERT_EQ(world.AsSystem([&] { return QueueDevice::AskModes(queue.device, modes); }), STATUS_SUCCESS);
  EXPECT_EQ(modes[0], KernelMode);
  EXPECT_EQ(modes[1], KernelMode);

  // Built inside a user's request, it is a kernel-mode request, but the thread's previous mode
  // stays the user's: ExGetPreviousMode answers for the thread, RequestorMode for the request.
  std::memset(modes, 9, sizeof modes);
  ASSERT_EQ(app.DeviceIoControl(handle, kForwardModes, nullptr, 0, modes, 4).status, STATUS_SUCCESS);
  EXPECT_EQ(modes[0], UserMode);
  EXPECT_EQ(modes[1], UserMode);
  EXPECT_EQ(modes[2], UserMode);
  EXPECT_EQ(modes[3], KernelMode);
  app.CloseHandle(handle);
}

// ---------------------------------------------------------------------------------------------
// The verifier's cancellation checks

PIRP g_held = nullptr;

VOID NTAPI ForgetfulCancel(PDEVICE_OBJECT, PIRP irp) {
  // Completes the request but keeps the cancel spin lock.
  Complete(irp, STATUS_CANCELLED, 0);
}

NTSTATUS NTAPI HoldWithRoutine(PDEVICE_OBJECT, PIRP irp) {
  IoMarkIrpPending(irp);
  (void)IoSetCancelRoutine(irp, ForgetfulCancel);
  g_held = irp;
  return STATUS_PENDING;
}

NTSTATUS NTAPI HoldWithoutRoutine(PDEVICE_OBJECT, PIRP irp) {
  IoMarkIrpPending(irp);
  g_held = irp;
  return STATUS_PENDING;
}

TEST(CancelVerifierTest, CancellationMistakesAreViolations) {
  World world;
  RecordViolations(world);
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = Open(app, u"\\Device\\Queue", true);
  char buffer[4];

  // Completing a queued request behind the queue's back leaves its cancel routine set.
  std::shared_ptr<PendingIo> read = app.ReadFileOverlapped(handle, buffer, sizeof buffer);
  PIRP queued = CONTAINING_RECORD(queue.queue.Flink, IRP, Tail.Overlay.ListEntry);
  RemoveEntryList(&queued->Tail.Overlay.ListEntry);
  Complete(queued, STATUS_SUCCESS, 0);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IofCompleteRequest"});
  ASSERT_TRUE(read->Wait(5s));

  // A cancel routine must release the cancel spin lock.
  world.verifier().ClearViolations();
  queue.driver->MajorFunction[IRP_MJ_READ] = HoldWithRoutine;
  read = app.ReadFileOverlapped(handle, buffer, sizeof buffer);
  EXPECT_EQ(app.CancelIoEx(handle), STATUS_SUCCESS);
  ASSERT_TRUE(read->Wait(5s));
  EXPECT_EQ(read->Result().status, STATUS_CANCELLED);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IoCancelIrp"});
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

  // A request its driver does not let go of keeps its thread's exit waiting: a violation once
  // the cancel wait is over (the kernel would wait for minutes).
  world.verifier().ClearViolations();
  world.kernel().io.SetCancelWait(50ms);
  queue.driver->MajorFunction[IRP_MJ_READ] = HoldWithoutRoutine;
  uint64_t thread = 0;
  {
    HostThread reader([&] {
      thread = app.CurrentThreadId();
      read = app.ReadFileOverlapped(handle, buffer, sizeof buffer);
    });
  }
  world.ExitThread(thread);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"thread exit"});
  EXPECT_TRUE(g_held->Cancel) << "the cancel bit is set even without a cancel routine";
  EXPECT_FALSE(read->Completed());
  Complete(g_held, STATUS_CANCELLED, 0);
  ASSERT_TRUE(read->Wait(5s));
  g_held = nullptr;
  app.CloseHandle(handle);
}

TEST(CancelVerifierTest, ADriverCancelsARequestItBuiltItself) {
  World world;
  QueueDevice queue(world, u"Queue", DO_BUFFERED_IO);
  world.AsSystem([&] {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP irp = IoBuildDeviceIoControlRequest(kPark, queue.device, nullptr, 0, nullptr, 0, FALSE, &event, &iosb);
    ASSERT_NE(irp, nullptr);
    EXPECT_FALSE(irp->Cancel);
    ASSERT_EQ(IoCallDriver(queue.device, irp), STATUS_PENDING);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(IoCancelIrp(irp), TRUE) << "the queue's cancel routine ran";
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    EXPECT_EQ(iosb.Status, STATUS_CANCELLED);
  });
  EXPECT_EQ(queue.cancelled, 1);
  EXPECT_EQ(world.kernel().io.AllocatedRequests(), 0u);
}

TEST(CancelVerifierTest, ARequestStillPendingAtUnloadIsADanglingFinding) {
  World::Options options;
  options.driverImage = SIM_TEST_REQUEST_DRIVER;
  World world(options);
  RecordViolations(world);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(world.kernel().io.OutstandingRequests(world.DriverObject()), 1u);
  ntsim::Verdict verdict = world.UnloadDriver();
  EXPECT_NE(verdict.Report().find("DriverUnload: 1 request(s) never completed"), std::string::npos)
      << verdict.Report();
  // Its completion would run into the unloaded image: that stops the machine.
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"DriverUnload"});
}

}  // namespace
