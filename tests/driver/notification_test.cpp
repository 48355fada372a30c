// The loaded driver and the kernel's notifications: what it registers, on which kernels, and a
// machine busy with processes, threads and images while the driver loads and unloads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "test_support.h"

using ntsim::World;

namespace {

TEST(NotificationTest, TheDriverRegistersEachKindOnceAndRemovesThemAtUnload) {
  World world;
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  auto counts = world.kernel().notify.Registered();
  EXPECT_EQ(counts.process, 3u);  // plain, Ex and Ex2, side by side
  EXPECT_EQ(counts.thread, 1u);
  EXPECT_EQ(counts.image, 1u);
  EXPECT_TRUE(world.UnloadDriver().Clean());
  EXPECT_EQ(world.kernel().notify.Registered().Total(), 0u);
}

TEST(NotificationTest, AnOlderKernelWithoutTheEx2ServiceStillStarts) {
  World::Options options;
  options.machine.windowsMajor = 6;
  World world(options);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(world.kernel().notify.Registered().process, 2u);
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

TEST(NotificationTest, AFailingRegistrationFailsTheLoadAndLeavesNoneBehind) {
  for (const char* routine : {"PsSetCreateProcessNotifyRoutineEx2", "PsSetCreateProcessNotifyRoutineEx",
                              "PsSetCreateThreadNotifyRoutine", "PsSetLoadImageNotifyRoutine"}) {
    World world;
    world.SetRegistryDwordDirect(sentrel_test::DebugKey(), u"PrintLevel", 1);
    world.SetRegistryDwordDirect(sentrel_test::DebugKey(), u"TraceLevel", 0x8000);
    world.FailNotifyRegistration(routine, STATUS_ACCESS_DENIED);
    EXPECT_EQ(world.LoadDriver(), STATUS_ACCESS_DENIED) << routine;
    EXPECT_TRUE(world.LastVerdict().Clean()) << routine << ": " << world.LastVerdict().Report();
    EXPECT_EQ(world.kernel().notify.Registered().Total(), 0u) << routine;
    EXPECT_TRUE(sentrel_test::HasMessage(world, std::string(routine) + " fail Status:c0000022")) << routine;
  }
}

TEST(NotificationTest, ABusyMachineLoadsAndUnloadsTheDriverSafely) {
  World world;
  std::atomic<bool> stop{false};
  std::vector<std::thread> activity;
  for (int t = 0; t < 3; ++t) {
    activity.emplace_back([&, t] {
      int n = 0;
      while (!stop.load()) {
        ntsim::ProcessSpec spec;
        spec.imagePath = u"\\??\\C:\\Windows\\System32\\worker.exe";
        spec.commandLine = u"worker.exe /n " + std::u16string(1, u'0' + t);
        ntsim::UserProcess& process = world.CreateProcess(spec);
        world.MapImage(process, u"\\??\\C:\\Windows\\System32\\ntdll.dll", 0x7FF800000000ull, 0x1F0000);
        uint64_t thread = world.StartThread(process);
        world.ExitThread(thread);
        world.ExitProcess(process);
        if (++n % 4 == 0) world.LoadKernelImage(u"\\SystemRoot\\System32\\drivers\\extra.sys", 0xFFFFF80000000000ull, 0x8000);
      }
    });
  }
  for (int round = 0; round < 5; ++round) {
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS) << round;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ntsim::Verdict verdict = world.UnloadDriver();
    ASSERT_TRUE(verdict.Clean()) << round << ": " << verdict.Report();
  }
  stop = true;
  for (auto& thread : activity) thread.join();
  EXPECT_TRUE(world.verifier().Violations().empty());
}

}  // namespace
