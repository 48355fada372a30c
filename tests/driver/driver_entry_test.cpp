// The whole driver on a simulated machine: load and unload, the device and its link, requests,
// shutdown, crashes, failures at every allocation of the load, and the start-up of SentrelData.
#include <gtest/gtest.h>

#include "core/debug_log.h"
#include "core/optional_routines.h"
#include "core/sentrel_data.h"
#include "monitor/process_query.h"
#include "test_support.h"

using namespace sentrel_test;
using ntsim::IoResult;
using ntsim::ObjectHeader;
using ntsim::ObjectManager;
using ntsim::UserProcess;
using ntsim::World;

namespace {

bool NameExists(World& world, const std::u16string& path, bool openLink = false) {
  ObjectHeader* header = nullptr;
  if (!NT_SUCCESS(world.kernel().ob.Lookup(path, openLink, &header, nullptr))) return false;
  world.kernel().ob.Dereference(header->Body());
  return true;
}

PDEVICE_OBJECT SentrelDevice(World& world) {
  ObjectHeader* header = nullptr;
  if (!NT_SUCCESS(world.kernel().ob.Lookup(u"\\Sentrel", false, &header, nullptr))) return nullptr;
  world.kernel().ob.Dereference(header->Body());
  return static_cast<PDEVICE_OBJECT>(header->Body());
}

TEST(DriverEntryTest, LoadsAndUnloadsRepeatedlyLeavingNothingBehind) {
  World world;
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS) << "load " << i;
    ntsim::Verdict verdict = world.UnloadDriver();
    ASSERT_TRUE(verdict.Clean()) << "unload " << i << ": " << verdict.Report();
  }
  EXPECT_FALSE(NameExists(world, u"\\Sentrel"));
  EXPECT_FALSE(NameExists(world, u"\\??\\Sentrel", true));
  EXPECT_TRUE(world.kernel().io.ShutdownDevices().empty());
  EXPECT_TRUE(world.verifier().Violations().empty());
}

TEST(DriverEntryTest, EveryFailedAllocationOfTheLoadFailsItCleanly) {
  World world;
  ExemptRuleTries(world);
  uint64_t n = 1;
  for (;; ++n) {
    ASSERT_LT(n, 200u) << "the load never stopped allocating";
    world.verifier().FailNth(n);
    NTSTATUS status = world.LoadDriver();
    if (!world.verifier().InjectedFailure()) {
      ASSERT_EQ(status, STATUS_SUCCESS);
      break;
    }
    if (NT_SUCCESS(status)) {
      // A failure the driver may go on without (the Debug key, the levels): the load stands.
      ASSERT_TRUE(world.UnloadDriver().Clean()) << "allocation point " << n;
      continue;
    }
    EXPECT_TRUE(world.LastVerdict().Clean()) << "allocation point " << n << ": " << world.LastVerdict().Report();
    EXPECT_FALSE(world.DriverLoaded());
    EXPECT_FALSE(NameExists(world, u"\\Sentrel")) << n;
    EXPECT_FALSE(NameExists(world, u"\\??\\Sentrel", true)) << n;
    EXPECT_EQ(world.kernel().cm.CallbackCount(), 0u) << n;
    EXPECT_TRUE(world.kernel().io.ShutdownDevices().empty()) << n;
  }
  world.verifier().FailNth(0);
  EXPECT_GT(n, 5u);  // the load has several allocation points, and each was made to fail
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

TEST(DriverEntryTest, DeviceLinkAndSecurityAreInPlaceAfterLoad) {
  World world;
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  PDEVICE_OBJECT device = SentrelDevice(world);
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_UNKNOWN));
  EXPECT_TRUE(device->Flags & DO_DIRECT_IO);
  EXPECT_FALSE(device->Flags & DO_DEVICE_INITIALIZING);
  auto* extension = static_cast<PSK_DEVICE_EXTENSION>(device->DeviceExtension);
  EXPECT_EQ(extension->Tag, 0xFCF1);
  EXPECT_EQ(extension->Size, sizeof(SK_DEVICE_EXTENSION));
  EXPECT_TRUE(IsListEmpty(&extension->PendingReadList));

  // The link resolves, through \DosDevices, to the device.
  ObjectHeader* link = nullptr;
  ASSERT_EQ(world.kernel().ob.Lookup(u"\\DosDevices\\Sentrel", false, &link, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(link->Body(), device);
  world.kernel().ob.Dereference(link->Body());

  const ntsim::SecurityRecord& security = ObjectManager::HeaderOf(device)->security;
  EXPECT_TRUE(security.daclPresent);
  EXPECT_TRUE(security.daclProtected);
  ASSERT_EQ(security.dacl.size(), 4u);
  const ACCESS_MASK rwx = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE;
  EXPECT_EQ(security.dacl[0].sid, "S-1-5-18");
  EXPECT_EQ(security.dacl[0].mask, static_cast<ACCESS_MASK>(GENERIC_ALL));
  EXPECT_EQ(security.dacl[1].sid, "S-1-5-32-544");
  EXPECT_EQ(security.dacl[1].mask, rwx);
  EXPECT_EQ(security.dacl[2].sid, "S-1-1-0");
  EXPECT_EQ(security.dacl[2].mask, rwx);
  EXPECT_EQ(security.dacl[3].sid, "S-1-5-12");
  EXPECT_EQ(security.dacl[3].mask, rwx);

  auto shutdown = world.kernel().io.ShutdownDevices();
  EXPECT_EQ(shutdown.size(), 1u);
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

TEST(DriverEntryTest, CreateAndCloseSucceedAndRequestsTheDeviceDoesNotServeAreInvalid) {
  World world;
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  UserProcess& agent = world.StartProcess(u"agent.exe");
  HANDLE device = nullptr;
  ASSERT_EQ(agent.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &device), STATUS_SUCCESS);
  for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
    switch (major) {
      case IRP_MJ_CREATE: case IRP_MJ_CLOSE: case IRP_MJ_SHUTDOWN: case IRP_MJ_READ: case IRP_MJ_WRITE:
      case IRP_MJ_DEVICE_CONTROL: case IRP_MJ_CLEANUP:
        continue;
    }
    IoResult result = agent.SendRequest(device, major);
    EXPECT_EQ(result.status, STATUS_INVALID_DEVICE_REQUEST) << ntsim::MajorFunctionName(major);
    EXPECT_EQ(result.information, 0u);
  }
  EXPECT_EQ(agent.CloseHandle(device), STATUS_SUCCESS);

  // Nothing was allocated per open: open and close many times, and the unload is clean.
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(agent.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ, &device), STATUS_SUCCESS);
    ASSERT_EQ(agent.CloseHandle(device), STATUS_SUCCESS);
  }
  EXPECT_TRUE(world.UnloadDriver().Clean());
  EXPECT_EQ(agent.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ, &device), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST(DriverEntryTest, UnloadWaitsForOpenHandles) {
  World world;
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  UserProcess& agent = world.StartProcess(u"agent.exe");
  HANDLE device = nullptr;
  ASSERT_EQ(agent.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ, &device), STATUS_SUCCESS);
  EXPECT_FALSE(world.UnloadDriver().Clean());
  EXPECT_TRUE(world.DriverLoaded());
  EXPECT_EQ(agent.CloseHandle(device), STATUS_SUCCESS);
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

TEST(DriverEntryTest, ShutdownAndUnloadInEitherOrderStopCleanly) {
  World world;
  world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", SK_LEVEL_INFO);
  world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", SK_TRACE_CORE);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  world.Shutdown();
  EXPECT_TRUE(HasMessage(world, "sk_DispatchShutdown Entry"));
  EXPECT_TRUE(HasMessage(world, "sk_DispatchShutdown -> 00000000"));
  EXPECT_TRUE(world.UnloadDriver().Clean());

  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_TRUE(world.UnloadDriver().Clean());
  world.debug().Clear();
  world.Shutdown();  // the unloaded driver is no longer told
  EXPECT_TRUE(world.debug().Lines().empty());
}

TEST(DriverEntryTest, LoadsAgainAfterACrashAndAfterAReboot) {
  World world;
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  world.Crash();
  EXPECT_FALSE(world.DriverLoaded());
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);  // a fresh image: its context starts empty
  world.Reboot();
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

TEST(DriverEntryTest, LogShowsTheLoadAndFollowsTheRegistryWhileRunning) {
  World world;
  world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", SK_LEVEL_ERROR | SK_LEVEL_INFO);
  world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", SK_TRACE_CORE);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  std::vector<std::string> expected = {" Sentrel DriverEntry Entry", " sk_InitSentrelData Entry"};
  for (const char* routine : {"PsReferenceProcessFilePointer", "SeLocateProcessImageName",
                              "PsAcquireProcessExitSynchronization", "PsReleaseProcessExitSynchronization"}) {
    char line[128];
    std::snprintf(line, sizeof line, "  %s:0x%016llX", routine,
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(world.kernel().modules.RoutineAddress(routine))));
    expected.push_back(line);
  }
  expected.insert(expected.end(), {
      " sk_InitSentrelData -> 00000000",
      " Sentrel DriverEntry Leave -> 00000000",
  });
  // The lines of the levelled log; the black rule set's per-rule lines, printed whatever the
  // levels, are left out.
  std::vector<std::string> levelled;
  for (const std::string& message : Messages(world)) {
    if (message.rfind("Add ", 0) != 0) levelled.push_back(message);
  }
  EXPECT_EQ(levelled, expected);

  // Silence the log while running, then bring it back: each write takes effect at once.
  world.debug().Clear();
  EXPECT_EQ(world.SetRegistryDword(DebugKey(), u"PrintLevel", 0), STATUS_SUCCESS);
  world.Shutdown();
  EXPECT_TRUE(world.debug().Lines().empty());
  EXPECT_EQ(world.SetRegistryDword(DebugKey(), u"PrintLevel", SK_LEVEL_INFO), STATUS_SUCCESS);
  world.Shutdown();
  EXPECT_TRUE(HasMessage(world, "sk_DispatchShutdown Entry"));
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

// SentrelData's start-up and shut-down, called directly.
class SentrelDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SkDriverObject = world.kernel().io.CreateDriverObject(u"\\Driver\\SentrelDataTest", nullptr);
    PrintLevel = SK_LEVEL_ERROR;
    TraceLevel = SK_TRACE_CORE;
  }
  void TearDown() override {
    PrintLevel = TraceLevel = 0;
    SkDriverObject = nullptr;
  }
  static bool AllZero(const SENTREL_DATA& data) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&data);
    for (size_t i = 0; i < sizeof data; ++i) {
      if (bytes[i]) return false;
    }
    return true;
  }
  World world;
};

TEST_F(SentrelDataTest, StartsOnceAndStopsOnce) {
  ASSERT_EQ(world.AsSystem(sk_InitSentrelData), STATUS_SUCCESS);
  EXPECT_EQ(SentrelData.Tag, 0xFCF0);
  EXPECT_EQ(SentrelData.Size, sizeof(SENTREL_DATA));
  EXPECT_EQ(SentrelData.EventMask, ~0ull);
  EXPECT_EQ(SentrelData.DriverObject, SkDriverObject);
  EXPECT_NE(SentrelData.MountMgrFileObject, nullptr);
  EXPECT_EQ(Text(SentrelData.SystemRootPath), u"\\SystemRoot");

  EXPECT_EQ(world.AsSystem(sk_InitSentrelData), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(HasMessage(world, "sk_InitSentrelData Inited"));

  ASSERT_EQ(world.AsSystem(sk_UninitSentrelData), STATUS_SUCCESS);
  EXPECT_TRUE(AllZero(SentrelData));
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  EXPECT_EQ(world.AsSystem(sk_UninitSentrelData), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(HasMessage(world, "sk_UninitSentrelData Uninited"));
}

TEST_F(SentrelDataTest, EachFailingStepUndoesEverythingBeforeIt) {
  // Every allocation point of the start-up in turn. Failures inside the managers' own fill-ups
  // (the DOS names) or in the system root's DOS part do not stop it; every other one does, and
  // then nothing may be left.
  size_t failedStarts = 0;
  ExemptRuleTries(world);
  for (uint64_t n = 1;; ++n) {
    world.verifier().FailNth(n);
    NTSTATUS status = world.AsSystem(sk_InitSentrelData);
    bool injected = world.verifier().InjectedFailure();
    world.verifier().FailNth(0);
    if (NT_SUCCESS(status)) {
      EXPECT_EQ(world.AsSystem(sk_UninitSentrelData), STATUS_SUCCESS) << n;
    } else {
      ++failedStarts;
      EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << n;
    }
    EXPECT_TRUE(AllZero(SentrelData)) << n;
    EXPECT_TRUE(world.kernel().pool.Outstanding().empty()) << n;
    EXPECT_TRUE(world.kernel().ob.DriverHeldReferences().empty()) << n;
    if (!injected) break;
  }
  EXPECT_GE(failedStarts, 5u);
  EXPECT_TRUE(HasMessage(world, "IoGetDeviceObjectPointer fail Status:c000009a"));
  EXPECT_TRUE(HasMessage(world, "SentrelData.SystemRootPath alloc fail"));
  EXPECT_TRUE(HasMessage(world, "skt_PathConvertToNtPath fail Status:c000009a"));
}

TEST_F(SentrelDataTest, OptionalRoutinesComeFromTheKernelImageFoundByAddress) {
  SENTREL_DATA data = {};
  TraceLevel = SK_TRACE_CORE | SK_TRACE_TOOL;
  PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
  world.AsSystem([&] {
    sk_ResolveOptionalRoutines(&data);
    return 0;
  });
  EXPECT_EQ(data.KernelImageBase, world.kernel().modules.KernelImageBase());
  EXPECT_EQ(data.KernelImageSize, world.kernel().modules.KernelImageSize());
  EXPECT_TRUE(HasMessage(world, "Get PsReleaseProcessExitSynchronization address"));

  // The routines work on a process of the machine.
  UserProcess& app = world.StartProcess(u"notepad.exe");
  PUNICODE_STRING name = nullptr;
  ASSERT_EQ(world.AsSystem([&] { return data.SeLocateProcessImageName(app.Process(), &name); }), STATUS_SUCCESS);
  EXPECT_EQ(Text(name), u"\\Device\\HarddiskVolume3\\Windows\\System32\\notepad.exe");
  ExFreePool(name);
  PFILE_OBJECT file = nullptr;
  ASSERT_EQ(data.PsReferenceProcessFilePointer(app.Process(), &file), STATUS_SUCCESS);
  ObfDereferenceObject(file);
  EXPECT_EQ(data.PsAcquireProcessExitSynchronization(app.Process()), STATUS_SUCCESS);
  data.PsReleaseProcessExitSynchronization(app.Process());
  world.ExitProcess(app);
  EXPECT_EQ(data.PsReferenceProcessFilePointer(app.Process(), &file), STATUS_UNSUCCESSFUL);
}

TEST(OptionalRoutinesTest, AKernelWithoutExitSynchronizationStartsWithTheFallback) {
  World::Options options;
  options.machine.missingRoutines = {"PsAcquireProcessExitSynchronization"};
  World world(options);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_TRUE(world.UnloadDriver().Clean());

  SENTREL_DATA data = {};
  world.AsSystem([&] {
    sk_ResolveOptionalRoutines(&data);
    return 0;
  });
  UNICODE_STRING release;
  RtlInitUnicodeString(&release, L"PsReleaseProcessExitSynchronization");
  EXPECT_EQ(reinterpret_cast<void*>(data.PsReleaseProcessExitSynchronization), MmGetSystemRoutineAddress(&release));
  // The fallback does nothing and succeeds, even on a process that has exited.
  UserProcess& app = world.StartProcess(u"notepad.exe");
  world.ExitProcess(app);
  EXPECT_EQ(data.PsAcquireProcessExitSynchronization(app.Process()), STATUS_SUCCESS);
}

TEST(OptionalRoutinesTest, AModuleListWithoutTheKernelImageResolvesByName) {
  World::Options options;
  options.machine.listKernelImage = false;
  options.machine.missingRoutines = {"SeLocateProcessImageName", "PsReferenceProcessFilePointer"};
  World world(options);
  PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
  TraceLevel = SK_TRACE_CORE | SK_TRACE_TOOL;
  SENTREL_DATA data = {};
  world.AsSystem([&] {
    sk_ResolveOptionalRoutines(&data);
    return 0;
  });
  PrintLevel = TraceLevel = 0;
  EXPECT_EQ(data.KernelImageBase, 0u);
  EXPECT_EQ(data.KernelImageSize, 0u);
  EXPECT_FALSE(HasMessage(world, "Get PsAcquireProcessExitSynchronization address"));
  UNICODE_STRING acquire;
  RtlInitUnicodeString(&acquire, L"PsAcquireProcessExitSynchronization");
  EXPECT_EQ(reinterpret_cast<void*>(data.PsAcquireProcessExitSynchronization), MmGetSystemRoutineAddress(&acquire));
  EXPECT_TRUE(HasMessage(world, "PsAcquireProcessExitSynchronization:0x" + [&] {
    char text[32];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(
                                                    MmGetSystemRoutineAddress(&acquire))));
    return std::string(text);
  }()));
  // The missing two have their fallbacks.
  UserProcess& app = world.StartProcess(u"notepad.exe");
  PFILE_OBJECT file = nullptr;
  EXPECT_EQ(data.PsReferenceProcessFilePointer(app.Process(), &file), STATUS_NOT_IMPLEMENTED);
  PUNICODE_STRING name = nullptr;
  EXPECT_EQ(data.SeLocateProcessImageName(app.Process(), &name), STATUS_NOT_IMPLEMENTED);
}

}  // namespace

namespace {

// The routines Sentrel looks up because their reference pages name no Windows version: on a kernel
// without them the driver still loads and leaves nothing behind, and the queries that need them
// answer without them. Without ObOpenObjectByPointer the device gets no access list, and the load
// fails cleanly instead of the kernel refusing the image.
TEST(OptionalRoutinesTest, AKernelWithoutTheUndocumentedRoutinesStillLoadsTheDriver) {
  World::Options options;
  options.machine.missingRoutines = {"PsGetProcessPeb", "PsGetProcessWow64Process", "ZwQueryInformationThread"};
  World world(options);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  // The queries below are this test's own copy of the driver's routines: their table is filled here.
  world.AsSystem([] { sk_ResolveOptionalRoutines(&SentrelData); });
  UserProcess& app = world.StartProcess(u"notepad.exe");
  PETHREAD thread = world.kernel().ps.FindThread(world.StartThread(app, nullptr, 0x7FF612345678));
  PVOID start = nullptr;
  EXPECT_EQ(world.AsSystem([&] { return skt_GetThreadWin32StartAddress(thread, &start); }), STATUS_NOT_IMPLEMENTED);
  EXPECT_EQ(start, nullptr);
  PVOID parameters = nullptr;
  EXPECT_NE(world.AsSystem([&] { return skt_GetProcessParametersFromPeb(app.Process(), &parameters); }),
            STATUS_SUCCESS);
  world.ExitProcess(app);
  ntsim::Verdict verdict = world.UnloadDriver();
  EXPECT_TRUE(verdict.Clean()) << verdict.Report();

  World::Options noOpen;
  noOpen.machine.missingRoutines = {"ObOpenObjectByPointer"};
  World bare(noOpen);
  EXPECT_EQ(bare.LoadDriver(), STATUS_NOT_IMPLEMENTED);
  EXPECT_TRUE(bare.LastVerdict().Clean()) << bare.LastVerdict().Report();
}

}  // namespace
