// Process, thread and load-image notifications as a driver observes them: the registration rules
// and their statuses, PsSetCreateProcessNotifyRoutineEx2 found only by name on Windows 10, the
// context each notification runs in (process, thread, IRQL, critical region), the information it
// carries, removal waiting for calls in flight, the unload verdict on routines left behind, and
// many host threads creating and ending processes and threads at once.
//
// The routines are plain functions, as a driver's are; they write what they saw into one log.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host_thread.h"
#include "ntsim/ntsim.h"
#include "world.h"

using ntsim::ProcessSpec;
using ntsim::UserProcess;
using ntsim::Verifier;
using ntsim::World;
using sim_test::Eventually;
using sim_test::HostThread;

namespace {

using namespace std::chrono_literals;

uint64_t Id(HANDLE handle) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle)); }

std::u16string Text(PCUNICODE_STRING s) {
  return s ? std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR)) : u"<null>";
}

std::u16string ObjectName(PVOID object) {
  alignas(8) UCHAR buffer[512];
  ULONG needed = 0;
  auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer);
  if (!NT_SUCCESS(ObQueryNameString(object, info, sizeof buffer, &needed))) return u"<no name>";
  return Text(&info->Name);
}

UNICODE_STRING Counted(const wchar_t* text) {
  UNICODE_STRING s;
  RtlInitUnicodeString(&s, text);
  return s;
}

// What a routine saw.
struct Event {
  std::string what;  // "process", "processEx", "thread", "image"
  bool create = false;
  uint64_t processId = 0;  // the routine's ProcessId
  uint64_t otherId = 0;    // ParentId (process) or ThreadId (thread)
  uint64_t currentProcess = 0, currentThread = 0;
  ULONG processor = 0;
  bool apcsDisabled = false;
  KIRQL irql = 0;
  // PS_CREATE_NOTIFY_INFO, when there was one.
  bool hasInfo = false;
  SIZE_T infoSize = 0;
  bool fileOpenNameAvailable = false;
  uint64_t infoParent = 0, creatorProcess = 0, creatorThread = 0;
  std::u16string imageFileName, commandLine, fileName;
  NTSTATUS creationStatus = 0;
  PEPROCESS process = nullptr;
  // Load-image notifications.
  std::u16string fullImageName;
  IMAGE_INFO imageInfo = {};
  SIZE_T extendedSize = 0;
};

std::mutex g_mutex;
std::vector<Event> g_events;

void Log(Event event) {
  event.currentProcess = Id(PsGetCurrentProcessId());
  event.currentThread = Id(PsGetCurrentThreadId());
  event.processor = KeGetCurrentProcessorNumber();
  event.apcsDisabled = KeAreApcsDisabled();
  event.irql = KeGetCurrentIrql();
  std::lock_guard<std::mutex> lock(g_mutex);
  g_events.push_back(std::move(event));
}

std::vector<Event> Events(const std::string& what = "") {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<Event> out;
  for (const Event& e : g_events) {
    if (what.empty() || e.what == what) out.push_back(e);
  }
  return out;
}

void ClearEvents() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_events.clear();
}

VOID NTAPI OnProcess(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  Event e;
  e.what = "process";
  e.create = Create;
  e.processId = Id(ProcessId);
  e.otherId = Id(ParentId);
  Log(e);
}

VOID NTAPI OnProcessEx(PEPROCESS Process, HANDLE ProcessId, PPS_CREATE_NOTIFY_INFO CreateInfo) {
  Event e;
  e.what = "processEx";
  e.create = CreateInfo != nullptr;
  e.processId = Id(ProcessId);
  e.process = Process;
  if (CreateInfo) {
    e.hasInfo = true;
    e.infoSize = CreateInfo->Size;
    e.fileOpenNameAvailable = CreateInfo->FileOpenNameAvailable;
    e.infoParent = Id(CreateInfo->ParentProcessId);
    e.creatorProcess = Id(CreateInfo->CreatingThreadId.UniqueProcess);
    e.creatorThread = Id(CreateInfo->CreatingThreadId.UniqueThread);
    e.imageFileName = Text(CreateInfo->ImageFileName);
    e.commandLine = Text(CreateInfo->CommandLine);
    e.fileName = CreateInfo->FileObject ? ObjectName(CreateInfo->FileObject) : u"<null>";
    e.creationStatus = CreateInfo->CreationStatus;
  }
  Log(e);
}

VOID NTAPI OnProcessEx2(PEPROCESS Process, HANDLE ProcessId, PPS_CREATE_NOTIFY_INFO CreateInfo) {
  Event e;
  e.what = "processEx2";
  e.create = CreateInfo != nullptr;
  e.processId = Id(ProcessId);
  e.process = Process;
  if (CreateInfo) {
    e.hasInfo = true;
    e.imageFileName = Text(CreateInfo->ImageFileName);
  }
  Log(e);
}

VOID NTAPI OnThread(HANDLE ProcessId, HANDLE ThreadId, BOOLEAN Create) {
  Event e;
  e.what = "thread";
  e.create = Create;
  e.processId = Id(ProcessId);
  e.otherId = Id(ThreadId);
  Log(e);
}

VOID NTAPI OnImage(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo) {
  Event e;
  e.what = "image";
  e.processId = Id(ProcessId);
  e.fullImageName = Text(FullImageName);
  e.imageInfo = *ImageInfo;
  if (ImageInfo->ExtendedInfoPresent) {
    PIMAGE_INFO_EX extended = CONTAINING_RECORD(ImageInfo, IMAGE_INFO_EX, ImageInfo);
    e.extendedSize = extended->Size;
    e.fileName = extended->FileObject ? ObjectName(extended->FileObject) : u"<null>";
  }
  Log(e);
}

class NotifyTest : public ::testing::Test {
 protected:
  void SetUp() override { ClearEvents(); }
  void TearDown() override { ClearEvents(); }

  UserProcess& Create(const std::u16string& image, uint64_t parent = 4, const std::u16string& commandLine = u"") {
    ProcessSpec spec;
    spec.parentPid = parent;
    spec.imagePath = u"\\??\\C:\\Windows\\System32\\" + image;
    spec.commandLine = commandLine;
    return world_.CreateProcess(spec);
  }

  World world_;
};

// ---------------------------------------------------------------------------------------------
// Registration

template <size_t N>
VOID NTAPI NthProcessRoutine(HANDLE, HANDLE, BOOLEAN) {}
template <size_t N>
VOID NTAPI NthThreadRoutine(HANDLE, HANDLE, BOOLEAN) {}
template <size_t N>
VOID NTAPI NthImageRoutine(PUNICODE_STRING, HANDLE, PIMAGE_INFO) {}

template <size_t... I>
std::vector<PCREATE_PROCESS_NOTIFY_ROUTINE> ProcessRoutines(std::index_sequence<I...>) {
  return {&NthProcessRoutine<I>...};
}
template <size_t... I>
std::vector<PCREATE_THREAD_NOTIFY_ROUTINE> ThreadRoutines(std::index_sequence<I...>) {
  return {&NthThreadRoutine<I>...};
}
template <size_t... I>
std::vector<PLOAD_IMAGE_NOTIFY_ROUTINE> ImageRoutines(std::index_sequence<I...>) {
  return {&NthImageRoutine<I>...};
}

TEST_F(NotifyTest, ProcessRoutinesRefuseDuplicatesUnknownRemovalsAndASixtyFifthRoutine) {
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, FALSE), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, FALSE), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, TRUE), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(NthProcessRoutine<99>, TRUE), STATUS_INVALID_PARAMETER);

  // Plain and extended routines share the kernel's 64 places: OnProcessEx holds one.
  auto routines = ProcessRoutines(std::make_index_sequence<64>());
  for (size_t i = 0; i < 63; ++i) ASSERT_EQ(PsSetCreateProcessNotifyRoutine(routines[i], FALSE), STATUS_SUCCESS) << i;
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(routines[63], FALSE), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx2, FALSE), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(routines[63], FALSE), STATUS_SUCCESS);
  for (auto routine : routines) EXPECT_EQ(PsSetCreateProcessNotifyRoutine(routine, TRUE), STATUS_SUCCESS);
}

TEST_F(NotifyTest, ThreadAndImageRoutinesRunOutOfRoomAndUnknownRemovalsAreNotFound) {
  EXPECT_EQ(PsRemoveCreateThreadNotifyRoutine(OnThread), STATUS_PROCEDURE_NOT_FOUND);
  EXPECT_EQ(PsRemoveLoadImageNotifyRoutine(OnImage), STATUS_PROCEDURE_NOT_FOUND);

  auto threads = ThreadRoutines(std::make_index_sequence<64>());
  for (auto routine : threads) ASSERT_EQ(PsSetCreateThreadNotifyRoutine(routine), STATUS_SUCCESS);
  EXPECT_EQ(PsSetCreateThreadNotifyRoutine(OnThread), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(PsRemoveCreateThreadNotifyRoutine(threads[10]), STATUS_SUCCESS);
  EXPECT_EQ(PsRemoveCreateThreadNotifyRoutine(threads[10]), STATUS_PROCEDURE_NOT_FOUND);
  EXPECT_EQ(PsSetCreateThreadNotifyRoutine(OnThread), STATUS_SUCCESS);

  auto images = ImageRoutines(std::make_index_sequence<64>());
  for (auto routine : images) ASSERT_EQ(PsSetLoadImageNotifyRoutine(routine), STATUS_SUCCESS);
  EXPECT_EQ(PsSetLoadImageNotifyRoutine(OnImage), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(PsRemoveLoadImageNotifyRoutine(images[0]), STATUS_SUCCESS);
  EXPECT_EQ(PsSetLoadImageNotifyRoutine(OnImage), STATUS_SUCCESS);

  // The three tables are separate: a full thread table leaves process routines their room.
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, TRUE), STATUS_SUCCESS);
}

using SetProcessNotifyEx2 = NTSTATUS (*)(PSCREATEPROCESSNOTIFYTYPE, PVOID, BOOLEAN);

SetProcessNotifyEx2 FindEx2() {
  UNICODE_STRING name = Counted(L"PsSetCreateProcessNotifyRoutineEx2");
  return reinterpret_cast<SetProcessNotifyEx2>(MmGetSystemRoutineAddress(&name));
}

TEST_F(NotifyTest, Ex2IsFoundByNameOnWindows10AndTakesAnExtendedRoutine) {
  SetProcessNotifyEx2 ex2 = FindEx2();
  ASSERT_NE(ex2, nullptr);
  EXPECT_EQ(ex2(static_cast<PSCREATEPROCESSNOTIFYTYPE>(1), reinterpret_cast<PVOID>(OnProcessEx2), FALSE),
            STATUS_INVALID_PARAMETER);
  ASSERT_EQ(ex2(PsCreateProcessNotifySubsystems, reinterpret_cast<PVOID>(OnProcessEx2), FALSE), STATUS_SUCCESS);
  EXPECT_EQ(ex2(PsCreateProcessNotifySubsystems, reinterpret_cast<PVOID>(OnProcessEx2), FALSE),
            STATUS_INVALID_PARAMETER);
  UserProcess& app = Create(u"app.exe");
  world_.ExitProcess(app);
  std::vector<Event> events = Events("processEx2");
  ASSERT_EQ(events.size(), 2u);
  EXPECT_TRUE(events[0].create);
  EXPECT_EQ(events[0].processId, app.Id());
  EXPECT_EQ(events[0].imageFileName, u"\\??\\C:\\Windows\\System32\\app.exe");
  EXPECT_FALSE(events[1].create);
  EXPECT_EQ(ex2(PsCreateProcessNotifySubsystems, reinterpret_cast<PVOID>(OnProcessEx2), TRUE), STATUS_SUCCESS);
  EXPECT_EQ(ex2(PsCreateProcessNotifySubsystems, reinterpret_cast<PVOID>(OnProcessEx2), TRUE),
            STATUS_INVALID_PARAMETER);

  // An older kernel lacks the routine altogether.
  World::Options options;
  options.machine.windowsMajor = 6;
  World older(options);
  EXPECT_EQ(FindEx2(), nullptr);
  UNICODE_STRING name = Counted(L"PsSetCreateProcessNotifyRoutineEx");
  EXPECT_NE(MmGetSystemRoutineAddress(&name), nullptr);
}

TEST_F(NotifyTest, RegistrationsFailWhenToldToOrWhenTheirAllocationFails) {
  world_.FailNotifyRegistration("PsSetCreateProcessNotifyRoutineEx2", STATUS_ACCESS_DENIED);
  SetProcessNotifyEx2 ex2 = FindEx2();
  EXPECT_EQ(ex2(PsCreateProcessNotifySubsystems, reinterpret_cast<PVOID>(OnProcessEx2), FALSE),
            STATUS_ACCESS_DENIED);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, FALSE), STATUS_SUCCESS);  // only Ex2 is refused
  world_.FailNotifyRegistration("PsSetCreateProcessNotifyRoutineEx2", STATUS_SUCCESS);
  EXPECT_EQ(ex2(PsCreateProcessNotifySubsystems, reinterpret_cast<PVOID>(OnProcessEx2), FALSE), STATUS_SUCCESS);

  world_.verifier().FailNth(1);
  EXPECT_EQ(PsSetLoadImageNotifyRoutine(OnImage), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(world_.verifier().InjectedFailure());
  EXPECT_EQ(PsRemoveLoadImageNotifyRoutine(OnImage), STATUS_PROCEDURE_NOT_FOUND);  // nothing was kept
  world_.verifier().FailNth(2);
  EXPECT_EQ(PsSetCreateThreadNotifyRoutine(OnThread), STATUS_SUCCESS);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, FALSE), STATUS_INSUFFICIENT_RESOURCES);
  world_.verifier().FailNth(0);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, FALSE), STATUS_SUCCESS);
}

// ---------------------------------------------------------------------------------------------
// Delivery

TEST_F(NotifyTest, ProcessCreationRunsInTheCreatorAndExitInTheExitingProcessInsideACriticalRegion) {
  ASSERT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, FALSE), STATUS_SUCCESS);
  ASSERT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, FALSE), STATUS_SUCCESS);
  ASSERT_EQ(PsSetCreateThreadNotifyRoutine(OnThread), STATUS_SUCCESS);
  UserProcess& shell = Create(u"shell.exe");
  ClearEvents();

  UserProcess& child = Create(u"child.exe", shell.Id(), u"child.exe /quiet");
  std::vector<Event> events = Events();
  ASSERT_EQ(events.size(), 3u);
  const Event& plain = events[0];
  EXPECT_EQ(plain.what, "process");
  EXPECT_TRUE(plain.create);
  EXPECT_EQ(plain.processId, child.Id());
  EXPECT_EQ(plain.otherId, shell.Id());
  const Event& ex = events[1];
  EXPECT_EQ(ex.what, "processEx");
  EXPECT_EQ(ex.process, child.Process());
  ASSERT_TRUE(ex.hasInfo);
  EXPECT_EQ(ex.infoSize, sizeof(PS_CREATE_NOTIFY_INFO));
  EXPECT_TRUE(ex.fileOpenNameAvailable);
  EXPECT_EQ(ex.infoParent, shell.Id());
  EXPECT_EQ(ex.imageFileName, u"\\??\\C:\\Windows\\System32\\child.exe");
  EXPECT_EQ(ex.commandLine, u"child.exe /quiet");
  EXPECT_EQ(ex.fileName, u"\\Device\\HarddiskVolume3\\Windows\\System32\\child.exe");
  EXPECT_EQ(ex.creationStatus, STATUS_SUCCESS);
  for (const Event& e : {plain, ex}) {
    // The creating thread is this host thread's thread in the parent: the parent's first thread.
    EXPECT_EQ(e.currentProcess, shell.Id());
    EXPECT_EQ(e.currentThread, shell.InitialThreadId());
    EXPECT_TRUE(e.apcsDisabled);
    EXPECT_EQ(e.irql, PASSIVE_LEVEL);
  }
  EXPECT_EQ(ex.creatorProcess, shell.Id());
  EXPECT_EQ(ex.creatorThread, shell.InitialThreadId());
  const Event& initial = events[2];
  EXPECT_EQ(initial.what, "thread");
  EXPECT_TRUE(initial.create);
  EXPECT_EQ(initial.processId, child.Id());
  EXPECT_EQ(initial.otherId, child.InitialThreadId());
  EXPECT_EQ(initial.currentThread, shell.InitialThreadId());
  EXPECT_LE(initial.irql, APC_LEVEL);
  EXPECT_FALSE(KeAreApcsDisabled());  // the region ended with the notifications

  // A process with no command line gets none; one made by System is created in a System thread.
  UserProcess& service = Create(u"service.exe");
  EXPECT_EQ(Events("processEx").back().commandLine, u"<null>");
  EXPECT_EQ(Events("processEx").back().currentProcess, 4u);

  // Exit: each thread ends in itself, the process in its last thread, then its handles close.
  ASSERT_TRUE(world_.WriteFileBytes(u"\\??\\C:\\Windows\\notes.txt", {1, 2, 3}));
  HANDLE file = nullptr;
  ASSERT_EQ(child.CreateFile(u"\\??\\C:\\Windows\\notes.txt", GENERIC_READ, &file), STATUS_SUCCESS);
  uint64_t worker = world_.StartThread(child);
  ClearEvents();
  world_.ExitProcess(child);
  events = Events();
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].what, "thread");
  EXPECT_EQ(events[0].otherId, child.InitialThreadId());
  EXPECT_EQ(events[0].currentThread, child.InitialThreadId());
  EXPECT_EQ(events[1].what, "thread");
  EXPECT_EQ(events[1].otherId, worker);
  EXPECT_EQ(events[1].currentThread, worker);
  for (size_t i : {2, 3}) {
    EXPECT_FALSE(events[i].create);
    EXPECT_EQ(events[i].processId, child.Id());
    EXPECT_EQ(events[i].currentProcess, child.Id());
    EXPECT_EQ(events[i].currentThread, worker);
    EXPECT_TRUE(events[i].apcsDisabled);
  }
  EXPECT_EQ(events[2].otherId, shell.Id());
  EXPECT_FALSE(events[3].hasInfo);
  EXPECT_TRUE(child.Exited());
  EXPECT_TRUE(child.Process()->handles.Entries().empty());

  // An exit is delivered once.
  ClearEvents();
  world_.ExitProcess(child);
  world_.ExitThread(worker);
  EXPECT_TRUE(Events().empty());
  EXPECT_FALSE(service.Exited());
}

TEST_F(NotifyTest, ThreadsStartInTheirCreatorEndInThemselvesAndTheLastOneEndsTheProcess) {
  ASSERT_EQ(PsSetCreateProcessNotifyRoutine(OnProcess, FALSE), STATUS_SUCCESS);
  ASSERT_EQ(PsSetCreateThreadNotifyRoutine(OnThread), STATUS_SUCCESS);
  UserProcess& app = Create(u"app.exe");
  UserProcess& injector = Create(u"injector.exe");
  ClearEvents();

  uint64_t own = world_.StartThread(app);
  uint64_t remote = world_.StartThread(app, &injector);
  std::vector<Event> events = Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].processId, app.Id());
  EXPECT_EQ(events[0].otherId, own);
  EXPECT_EQ(events[0].currentProcess, app.Id());
  EXPECT_EQ(events[1].processId, app.Id());
  EXPECT_EQ(events[1].otherId, remote);
  EXPECT_EQ(events[1].currentProcess, injector.Id());  // a remote thread

  ClearEvents();
  world_.ExitThread(remote);
  world_.ExitThread(app.InitialThreadId());
  EXPECT_FALSE(app.Exited());
  world_.ExitThread(own);
  events = Events();
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].otherId, remote);
  EXPECT_EQ(events[0].currentThread, remote);
  EXPECT_EQ(events[0].currentProcess, app.Id());
  EXPECT_EQ(events[1].currentThread, app.InitialThreadId());
  EXPECT_EQ(events[2].currentThread, own);
  EXPECT_EQ(events[3].what, "process");
  EXPECT_FALSE(events[3].create);
  EXPECT_EQ(events[3].currentThread, own);
  EXPECT_TRUE(app.Exited());
}

TEST(NotifyProcessorTest, ThreadsGetProcessorsInTurn) {
  ClearEvents();
  World::Options options;
  options.machine.processors = 3;
  World three(options);
  ASSERT_EQ(PsSetCreateThreadNotifyRoutine(OnThread), STATUS_SUCCESS);
  ProcessSpec spec;
  spec.imagePath = u"\\??\\C:\\Windows\\System32\\busy.exe";
  UserProcess& busy = three.CreateProcess(spec);
  std::vector<uint64_t> threads;
  for (int i = 0; i < 6; ++i) threads.push_back(three.StartThread(busy));
  ClearEvents();
  for (uint64_t thread : threads) three.ExitThread(thread);  // each exit runs on the exiting thread
  std::vector<Event> events = Events("thread");
  ASSERT_EQ(events.size(), 6u);
  std::multiset<ULONG> processors;
  for (const Event& e : events) processors.insert(e.processor);
  EXPECT_EQ(processors, (std::multiset<ULONG>{0, 0, 1, 1, 2, 2}));
  three.ExitProcess(busy);
}

TEST_F(NotifyTest, ImagesAreReportedInTheMappingProcessWithAFileObjectForTheCall) {
  ASSERT_EQ(PsSetLoadImageNotifyRoutine(OnImage), STATUS_SUCCESS);
  UserProcess& app = Create(u"app.exe");
  ASSERT_TRUE(world_.WriteFileBytes(u"\\SystemRoot\\System32\\helper.dll", std::vector<uint8_t>(64, 0x90)));
  auto fileObjects = [&] { return world_.kernel().ob.LiveCount(&world_.kernel().ob.types.file); };
  size_t filesBefore = fileObjects();
  ClearEvents();  // the executable's and ntdll's loads

  world_.MapImage(app, u"\\SystemRoot\\System32\\helper.dll", 0x7FF800000000, 0x20000);
  world_.LoadKernelImage(u"\\SystemRoot\\System32\\drivers\\other.sys", 0xFFFFF80000400000, 0x8000);
  world_.LoadKernelImage(u"\\Device\\Nowhere\\lost.sys", 0xFFFFF80000500000, 0x1000);
  std::vector<Event> events = Events("image");
  ASSERT_EQ(events.size(), 3u);

  const Event& user = events[0];
  EXPECT_EQ(user.processId, app.Id());
  EXPECT_EQ(user.currentProcess, app.Id());
  EXPECT_EQ(user.fullImageName, u"\\SystemRoot\\System32\\helper.dll");
  EXPECT_EQ(user.imageInfo.SystemModeImage, 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(user.imageInfo.ImageBase), 0x7FF800000000u);
  EXPECT_EQ(user.imageInfo.ImageSize, 0x20000u);
  // Opened through the file system: named by the volume and the path on it.
  EXPECT_EQ(user.fileName, u"\\Device\\HarddiskVolume3\\Windows\\System32\\helper.dll");

  const Event& driver = events[1];
  EXPECT_EQ(driver.processId, 0u);
  EXPECT_EQ(driver.currentProcess, 4u);
  EXPECT_EQ(driver.imageInfo.SystemModeImage, 1u);
  EXPECT_EQ(driver.fileName, u"\\Device\\HarddiskVolume3\\Windows\\System32\\drivers\\other.sys");
  EXPECT_EQ(events[2].fileName, u"\\Device\\Nowhere\\lost.sys");  // on no volume: named by its path

  for (const Event& e : events) {
    EXPECT_TRUE(e.imageInfo.ExtendedInfoPresent);
    EXPECT_EQ(e.extendedSize, sizeof(IMAGE_INFO_EX));
    EXPECT_TRUE(e.apcsDisabled);
    EXPECT_EQ(e.irql, PASSIVE_LEVEL);
  }
  // The file objects lived for the calls only.
  EXPECT_EQ(fileObjects(), filesBefore);
}

PFILE_OBJECT g_keptFile = nullptr;

VOID NTAPI KeepImageFile(PUNICODE_STRING, HANDLE, PIMAGE_INFO ImageInfo) {
  g_keptFile = CONTAINING_RECORD(ImageInfo, IMAGE_INFO_EX, ImageInfo)->FileObject;
  ObReferenceObject(g_keptFile);
}

TEST_F(NotifyTest, ARoutineMayKeepTheImageFileObjectByReferencingIt) {
  ASSERT_EQ(PsSetLoadImageNotifyRoutine(KeepImageFile), STATUS_SUCCESS);
  UserProcess& app = Create(u"app.exe");
  world_.MapImage(app, u"\\??\\C:\\Windows\\System32\\kept.dll", 0x10000000, 0x1000);
  ASSERT_NE(g_keptFile, nullptr);
  EXPECT_EQ(ObjectName(g_keptFile), u"\\Device\\HarddiskVolume3\\Windows\\System32\\kept.dll");
  ObDereferenceObject(g_keptFile);
  g_keptFile = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Removal and mistakes

std::shared_future<void> g_gate;
std::atomic<int> g_blockingCalls{0};
std::atomic<bool> g_blockingReturned{false};

VOID NTAPI BlockingRoutine(HANDLE, HANDLE, BOOLEAN) {
  ++g_blockingCalls;
  g_gate.wait_for(10s);
  g_blockingReturned = true;
}

TEST_F(NotifyTest, RemovalWaitsForACallInFlightOnAnotherThread) {
  std::promise<void> gate;
  g_gate = gate.get_future().share();
  g_blockingCalls = 0;
  g_blockingReturned = false;
  ASSERT_EQ(PsSetCreateProcessNotifyRoutine(BlockingRoutine, FALSE), STATUS_SUCCESS);
  HostThread creator([&] { Create(u"slow.exe"); });
  ASSERT_TRUE(Eventually([] { return g_blockingCalls.load() == 1; }));

  NTSTATUS removed = STATUS_PENDING;
  bool returnedFirst = false;
  HostThread remover([&] {
    removed = PsSetCreateProcessNotifyRoutine(BlockingRoutine, TRUE);
    returnedFirst = g_blockingReturned.load();
  });
  EXPECT_FALSE(remover.FinishedWithin(150ms));
  gate.set_value();
  ASSERT_TRUE(remover.FinishedWithin(5s));
  EXPECT_EQ(removed, STATUS_SUCCESS);
  EXPECT_TRUE(returnedFirst);
  ASSERT_TRUE(creator.FinishedWithin(5s));

  Create(u"later.exe");  // removed: not called again
  EXPECT_EQ(g_blockingCalls.load(), 1);
}

VOID NTAPI RemovesItself(HANDLE, HANDLE, BOOLEAN) {
  EXPECT_EQ(PsRemoveCreateThreadNotifyRoutine(RemovesItself), STATUS_SUCCESS);
}

VOID NTAPI LeavesRegionEntered(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO) { KeEnterCriticalRegion(); }

TEST_F(NotifyTest, RoutinesThatRemoveThemselvesOrLeaveARegionEnteredAreViolations) {
  world_.verifier().SetViolationPolicy(Verifier::ViolationPolicy::Record);
  ASSERT_EQ(PsSetCreateThreadNotifyRoutine(RemovesItself), STATUS_SUCCESS);
  ASSERT_EQ(PsSetCreateProcessNotifyRoutineEx(LeavesRegionEntered, FALSE), STATUS_SUCCESS);
  Create(u"app.exe");
  std::vector<ntsim::Finding> findings = world_.verifier().Violations();
  ASSERT_EQ(findings.size(), 2u);
  EXPECT_EQ(findings[0].call, "process notify routine");
  EXPECT_NE(findings[0].what.find("critical region"), std::string::npos);
  EXPECT_EQ(findings[1].call, "PsRemoveCreateThreadNotifyRoutine");
  EXPECT_FALSE(KeAreApcsDisabled());
  EXPECT_EQ(PsRemoveCreateThreadNotifyRoutine(RemovesItself), STATUS_PROCEDURE_NOT_FOUND);
}

TEST(NotifyUnloadTest, RoutinesLeftRegisteredAtUnloadAreDanglingFindings) {
  World::Options options;
  options.driverImage = SIM_TEST_NOTIFY_DRIVER;
  World world(options);
  world.verifier().SetViolationPolicy(Verifier::ViolationPolicy::Record);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  ntsim::Verdict verdict = world.UnloadDriver();
  ASSERT_FALSE(verdict.Clean());
  EXPECT_NE(verdict.Report().find("DriverUnload: 2 notify routine(s) still registered (0 process, 1 thread, "
                                  "1 load-image)"),
            std::string::npos)
      << verdict.Report();
  // The kernel would call into the unloaded image: that stops the machine.
  std::vector<ntsim::Finding> violations = world.verifier().Violations();
  ASSERT_EQ(violations.size(), 1u);
  EXPECT_EQ(violations[0].call, "DriverUnload");
}

// ---------------------------------------------------------------------------------------------
// Many host threads at once

std::atomic<int> g_processCreates{0}, g_processExits{0}, g_threadCreates{0}, g_threadExits{0}, g_images{0};
std::atomic<int> g_wrongContext{0};

VOID NTAPI CountProcess(PEPROCESS Process, HANDLE ProcessId, PPS_CREATE_NOTIFY_INFO CreateInfo) {
  if (!KeAreApcsDisabled() || PsGetCurrentProcess() == nullptr) ++g_wrongContext;
  if (CreateInfo) {
    if (PsGetCurrentProcessId() != CreateInfo->CreatingThreadId.UniqueProcess ||
        PsGetCurrentThreadId() != CreateInfo->CreatingThreadId.UniqueThread) {
      ++g_wrongContext;
    }
    ++g_processCreates;
  } else {
    if (PsGetCurrentProcessId() != ProcessId || PsGetCurrentProcess() != Process) ++g_wrongContext;
    ++g_processExits;
  }
}

VOID NTAPI CountThread(HANDLE ProcessId, HANDLE ThreadId, BOOLEAN Create) {
  if (!Create && (PsGetCurrentThreadId() != ThreadId || PsGetCurrentProcessId() != ProcessId)) ++g_wrongContext;
  ++(Create ? g_threadCreates : g_threadExits);
}

VOID NTAPI CountImage(PUNICODE_STRING, HANDLE ProcessId, PIMAGE_INFO) {
  if (PsGetCurrentProcessId() != ProcessId) ++g_wrongContext;
  ++g_images;
}

TEST(NotifyStressTest, HostThreadsCreateAndEndProcessesAndThreadsAtOnce) {
  World world;
  for (auto* counter : {&g_processCreates, &g_processExits, &g_threadCreates, &g_threadExits, &g_images,
                        &g_wrongContext}) {
    *counter = 0;
  }
  ProcessSpec hostSpec;
  hostSpec.imagePath = u"\\??\\C:\\Windows\\System32\\host.exe";
  UserProcess& shared = world.CreateProcess(hostSpec);
  ASSERT_EQ(PsSetCreateProcessNotifyRoutineEx(CountProcess, FALSE), STATUS_SUCCESS);
  ASSERT_EQ(PsSetCreateThreadNotifyRoutine(CountThread), STATUS_SUCCESS);
  ASSERT_EQ(PsSetLoadImageNotifyRoutine(CountImage), STATUS_SUCCESS);

  constexpr int kThreads = 6, kRounds = 25;
  std::mutex seenMutex;
  std::set<uint64_t> actingThreads;  // the threads the host threads acted as in the shared process
  {
    std::vector<std::unique_ptr<HostThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<HostThread>([&] {
        for (int i = 0; i < kRounds; ++i) {
          ProcessSpec spec;
          spec.parentPid = shared.Id();
          spec.imagePath = u"\\??\\C:\\Windows\\System32\\worker.exe";
          UserProcess& worker = world.CreateProcess(spec);
          uint64_t extra = world.StartThread(worker, &shared);
          world.MapImage(worker, u"\\SystemRoot\\System32\\ntdll.dll", 0x7FFE0000, 0x1000);
          world.MapImage(shared, u"\\SystemRoot\\System32\\plugin.dll", 0, 0x1000);
          world.ExitThread(extra);
          world.ExitProcess(worker);
        }
        // Each host thread acts as a thread of its own in the shared process.
        uint64_t acting = world.kernel().ps.ActingThread(shared.Process())->id;
        std::lock_guard<std::mutex> lock(seenMutex);
        actingThreads.insert(acting);
      }));
    }
  }
  EXPECT_EQ(actingThreads.size(), size_t(kThreads));
  EXPECT_EQ(g_processCreates.load(), kThreads * kRounds);
  EXPECT_EQ(g_processExits.load(), kThreads * kRounds);
  EXPECT_EQ(g_threadCreates.load(), 2 * kThreads * kRounds);
  EXPECT_EQ(g_threadExits.load(), 2 * kThreads * kRounds);
  EXPECT_EQ(g_images.load(), 4 * kThreads * kRounds);  // each worker's executable and ntdll, and two maps
  EXPECT_EQ(g_wrongContext.load(), 0);
  EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(CountProcess, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(PsRemoveCreateThreadNotifyRoutine(CountThread), STATUS_SUCCESS);
  EXPECT_EQ(PsRemoveLoadImageNotifyRoutine(CountImage), STATUS_SUCCESS);
}

}  // namespace
