// Producer drivers and the kernel interface, with the whole driver loaded and Quillet, the
// simulated producer driver, beside it: the online notice, registration, the table and its
// routines, unregistration and the offline call-back (also when the call-back calls back), the
// interface going off at unload while producer threads call the table.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "channel_test_support.h"
#include "sentrel/event_types.h"
#include "sentrel/interface_krnl.h"
#include "sentrel/package.h"
#include "sentrel/ring_buffer.h"
#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/ring_reader.h"

using ntsim::IoResult;
using ntsim::ProcessSpec;
using ntsim::Quillet;
using ntsim::UserProcess;
using ntsim::Verdict;
using ntsim::World;
using sentrel_test::DebugKey;

namespace {

using GetPackage = NTSTATUS (*)(HANDLE, PVOID*, PULONG);
using GetPackageByProcess = NTSTATUS (*)(PEPROCESS, PVOID*, PULONG);
using MatchRule = BOOLEAN (*)(ULONG, PUNICODE_STRING);
using IsEnabled = BOOLEAN (*)(ULONG64);
using SendEvent = NTSTATUS (*)(const void*, ULONG);
using GetStack = NTSTATUS (*)(PVOID*, PULONG);
using FreeStack = VOID (*)(PVOID);
using IsConsumer = BOOLEAN (*)(ULONG);

class ProducerInterfaceTest : public ::testing::Test {
 protected:
  ProducerInterfaceTest() : world(Machine()) {}
  static World::Options Machine() {
    World::Options options;
    options.usualProcesses = true;
    return options;
  }
  void SetUp() override {
    world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", 1);
    world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", 0xFFFFFFFF);
    ProcessSpec spec;
    spec.pid = 1500;
    spec.imagePath = u"\\??\\C:\\Windows\\explorer.exe";
    desktop = &world.CreateProcess(spec);
  }
  void TearDown() override {
    if (world.DriverLoaded()) {
      Verdict verdict = Unload();
      EXPECT_TRUE(verdict.Clean()) << verdict.Report();
    }
    world.UnloadProducerDriver();
  }
  Verdict Unload() {
    if (desktop && !desktop->Exited()) world.ExitProcess(*desktop);
    return world.UnloadDriver();
  }
  Quillet& LoadBoth() {
    EXPECT_EQ(world.LoadProducerDriver(), STATUS_SUCCESS);
    EXPECT_EQ(world.LoadDriver(), STATUS_SUCCESS);
    return *world.ProducerDriver();
  }
  template <typename Fn>
  auto System(Fn fn) {
    return world.AsSystem(fn);
  }

  World world;
  UserProcess* desktop = nullptr;
};

TEST_F(ProducerInterfaceTest, AProducerLoadedFirstIsToldAndGetsTheTable) {
  Quillet& quillet = LoadBoth();
  EXPECT_EQ(quillet.OnlineNotices(), 1);
  ASSERT_TRUE(quillet.HasTable()) << "it registered and fetched the table when told";
  const SK_INTERFACE_KRNL& table = quillet.Table();
  EXPECT_EQ(table.Tag, SK_INTERFACE_KRNL_TAG);
  EXPECT_EQ(table.Size, SK_INTERFACE_KRNL_SIZE);
  // Fifteen routine addresses at 4, 12, ..., 116, each a distinct routine.
  uint8_t bytes[SK_INTERFACE_KRNL_SIZE];
  std::memcpy(bytes, &table, sizeof bytes);
  std::vector<uint64_t> routines;
  for (size_t at = 4; at <= 116; at += 8) {
    uint64_t address;
    std::memcpy(&address, bytes + at, 8);
    EXPECT_NE(address, 0u) << at;
    routines.push_back(address);
  }
  std::sort(routines.begin(), routines.end());
  EXPECT_EQ(std::unique(routines.begin(), routines.end()), routines.end());

  // A few of them, from the desktop's own thread.
  desktop->InProcess([&] {
    EXPECT_TRUE(quillet.Routine<IsEnabled>(table.IsEventEnabled)(1ull << ET_FILE_CREATE));
    PVOID package = nullptr;
    ULONG length = 0;
    EXPECT_EQ(quillet.Routine<GetPackageByProcess>(table.GetProcInfoPackageByProcess)(PsGetCurrentProcess(), &package,
                                                                                     &length),
              STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<PACKAGE_HEADER*>(package)->Type, SK_PACKAGE_PROC_INFO);
    std::u16string text = u"\\Device\\HarddiskVolume3\\Windows\\System32\\samlib.dll";
    UNICODE_STRING path = sentrel_test::Counted(text);
    EXPECT_TRUE(quillet.Routine<MatchRule>(table.MatchBlackRule)(ET_IMAGE_LOAD, &path));
    EXPECT_FALSE(quillet.Routine<IsConsumer>(table.IsConsumerProcess)(1500));
    return 0;
  });
}

TEST_F(ProducerInterfaceTest, RegistrationsAreCheckedAndEachIsCalledBackOnce) {
  Quillet& quillet = LoadBoth();
  System([&] {
    // The table for a device that never registered: not found, nothing written.
    uint8_t buffer[SK_INTERFACE_KRNL_SIZE];
    std::memset(buffer, 0xEE, sizeof buffer);
    uint64_t stranger = reinterpret_cast<uintptr_t>(desktop->Process());
    std::memcpy(buffer, &stranger, 8);
    ULONG_PTR information = 99;
    EXPECT_EQ(quillet.Request(IOCTL_SK_GET_INTERFACEKRNL, buffer, 8, buffer, sizeof buffer, &information),
              STATUS_NOT_FOUND);
    EXPECT_EQ(information, 0u);
    for (size_t i = 8; i < sizeof buffer; ++i) EXPECT_EQ(buffer[i], 0xEE) << i;
    // Unregistering a device that is not registered calls nothing.
    EXPECT_EQ(quillet.Request(IOCTL_SK_UNREGISTER_PRODUCER, &stranger, 8, nullptr, 0, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(quillet.OfflineCalls(), 0);
    // A device without a name could never be found again to be told: refused, with a reason.
    PDEVICE_OBJECT unnamed = nullptr;
    EXPECT_EQ(IoCreateDevice(quillet.Device()->DriverObject, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &unnamed),
              STATUS_SUCCESS);
    EXPECT_EQ(quillet.RegisterDevice(unnamed), STATUS_OBJECT_NAME_NOT_FOUND);
    IoDeleteDevice(unnamed);
    // Registered a second time: two registrations, two call-backs at unload.
    EXPECT_EQ(quillet.RegisterDevice(quillet.Device()), STATUS_SUCCESS);
    return 0;
  });
  // Kernel-only: a user-mode process is refused.
  HANDLE handle = nullptr;
  ASSERT_EQ(desktop->CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &handle), STATUS_SUCCESS);
  uint64_t in[2] = {0, 0};
  EXPECT_EQ(desktop->DeviceIoControl(handle, IOCTL_SK_REGISTER_PRODUCER, in, sizeof in, nullptr, 0).status,
            STATUS_ACCESS_DENIED);
  desktop->CloseHandle(handle);

  Verdict verdict = Unload();
  EXPECT_TRUE(verdict.Clean()) << verdict.Report();
  EXPECT_EQ(quillet.OfflineCalls(), 2);
}

TEST_F(ProducerInterfaceTest, AProducerWhoseDeviceWentIsDroppedSilently) {
  Quillet& quillet = LoadBoth();
  ASSERT_TRUE(quillet.HasTable());
  System([&] {
    quillet.DeleteDevice();
    return 0;
  });
  Verdict verdict = Unload();
  EXPECT_TRUE(verdict.Clean()) << verdict.Report();
  EXPECT_EQ(quillet.OfflineCalls(), 0);
}

// An offline routine may call back into the driver: at unregistration the interface is still on
// (the record is off the list and no lock is held), at unload it is off and every call but
// IsEventEnabled fails fast, and a registration then is refused instead of being told again.
TEST_F(ProducerInterfaceTest, AnOfflineRoutineMayCallBackIntoTheDriver) {
  Quillet& quillet = LoadBoth();
  SK_INTERFACE_KRNL table = quillet.Table();
  std::vector<NTSTATUS> seen;
  quillet.onOffline = [&] {
    PVOID package = nullptr;
    ULONG length = 0;
    seen.push_back(quillet.Routine<GetPackage>(table.GetProcInfoPackage)((HANDLE)1500, &package, &length));
    seen.push_back(quillet.Routine<IsEnabled>(table.IsEventEnabled)(~0ull) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
    std::u16string text = u"\\??\\C:\\Windows\\System32\\x.dll";  // as image loads are matched
    UNICODE_STRING path = sentrel_test::Counted(text);
    seen.push_back(quillet.Routine<MatchRule>(table.MatchWhiteRule)(ET_IMAGE_LOAD, &path) ? STATUS_SUCCESS
                                                                                         : STATUS_UNSUCCESSFUL);
    seen.push_back(quillet.RegisterDevice(quillet.Device()));
  };
  System([&] { return quillet.Unregister(); });
  EXPECT_EQ(quillet.OfflineCalls(), 1);
  EXPECT_EQ(seen, (std::vector<NTSTATUS>{STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS}))
      << "during unregistration everything works, a new registration included";

  seen.clear();
  Verdict verdict = Unload();
  EXPECT_TRUE(verdict.Clean()) << verdict.Report();
  EXPECT_EQ(quillet.OfflineCalls(), 2) << "the registration made in the call-back";
  EXPECT_EQ(seen, (std::vector<NTSTATUS>{STATUS_INSUFFICIENT_RESOURCES, STATUS_SUCCESS, STATUS_UNSUCCESSFUL,
                                         STATUS_DELETE_PENDING}))
      << "off: IsEventEnabled alone answers";
}

// A package a producer borrowed stays whole while it copies, even if the process exits meanwhile
// and its packages leave the cache.
TEST_F(ProducerInterfaceTest, ABorrowedPackageOutlivesItsProcessesExit) {
  Quillet& quillet = LoadBoth();
  ProcessSpec spec;
  spec.pid = 2000;
  spec.parentPid = 1500;
  spec.imagePath = u"\\??\\C:\\Apps\\tool.exe";
  UserProcess& tool = world.CreateProcess(spec);
  PVOID package = nullptr;
  ULONG length = 0;
  System([&] {
    return quillet.Routine<GetPackage>(quillet.Table().GetProcInfoPackage)((HANDLE)2000, &package, &length);
  });
  ASSERT_NE(package, nullptr);
  std::vector<uint8_t> before(static_cast<uint8_t*>(package), static_cast<uint8_t*>(package) + length);
  world.ExitProcess(tool);
  EXPECT_EQ(std::memcmp(package, before.data(), length), 0);
}

// Producer threads call the table without pause while the driver unloads: the offline routine,
// as a producer's must, stops its threads and waits for them before it returns; every call made
// before the interface went off completes, none reaches a stopped manager, nothing is left behind.
TEST_F(ProducerInterfaceTest, UnloadWhileProducerThreadsCallTheTable) {
  Quillet& quillet = LoadBoth();
  SK_INTERFACE_KRNL table = quillet.Table();
  std::atomic<bool> stop{false};
  std::atomic<long> calls{0}, refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      while (!stop) {
        auto call = [&] {
          PVOID package = nullptr;
          ULONG length = 0;
          NTSTATUS status = t == 0 ? quillet.Routine<GetPackage>(table.GetProcTreeInfoPackage)((HANDLE)1500, &package,
                                                                                               &length)
                                   : quillet.Routine<GetPackage>(table.GetProcInfoPackage)((HANDLE)1500, &package,
                                                                                           &length);
          ++calls;
          if (status == STATUS_INSUFFICIENT_RESOURCES) ++refused;
          return 0;
        };
        if (t == 2) {
          desktop->InProcess(call);
        } else {
          world.AsSystem(call);
        }
      }
    });
  }
  quillet.onOffline = [&] {
    stop = true;
    for (std::thread& thread : threads) thread.join();
  };
  while (calls < 300) std::this_thread::yield();
  Verdict verdict = world.UnloadDriver();  // the desktop stays: a thread still acts in it
  EXPECT_TRUE(verdict.Clean()) << verdict.Report();
  EXPECT_EQ(quillet.OfflineCalls(), 1);
  EXPECT_GE(calls.load(), 300);
  EXPECT_EQ(threads.size(), 3u);
}

}  // namespace
