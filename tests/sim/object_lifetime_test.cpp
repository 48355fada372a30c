// Process and thread objects go with their last reference, as on Windows: a driver that keeps a
// thread object may use it, and the process it names, long after both ended; once nothing refers
// to them they are gone, so that a long run of short-lived processes keeps only the live ones. A
// process's released user memory stays reserved (late accesses fault) for the newest releases only.
#include <gtest/gtest.h>

#include <cstdint>

#include "kernel.h"
#include "mm/process_memory.h"
#include "ntsim/ntsim.h"
#include "world.h"

using ntsim::UserProcess;
using ntsim::World;

namespace {

HANDLE IdHandle(uint64_t id) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id)); }

// The calling host thread acts as a thread of the System process of its own from its first call on:
// counted from there.
size_t LiveObjects(World& world) {
  world.AsSystem([] { return 0; });
  return world.kernel().ob.LiveCount();
}

TEST(ObjectLifetimeTest, AThreadKeptByADriverOutlivesItsProcessAndThenBothGo) {
  World world;
  size_t before = LiveObjects(world);
  UserProcess& app = world.StartProcess(u"app.exe");
  uint64_t pid = app.Id();
  uint64_t tid = world.StartThread(app);
  PETHREAD kept = nullptr;
  ASSERT_EQ(world.AsSystem([&] { return PsLookupThreadByThreadId(IdHandle(tid), &kept); }), STATUS_SUCCESS);
  world.ExitProcess(app);
  world.ForgetProcess(app);

  world.AsSystem([&] {
    PEPROCESS process = nullptr;
    EXPECT_EQ(PsLookupProcessByProcessId(IdHandle(pid), &process), STATUS_INVALID_CID);
    PETHREAD thread = nullptr;
    EXPECT_EQ(PsLookupThreadByThreadId(IdHandle(tid), &thread), STATUS_INVALID_PARAMETER);  // as documented
    // The kept thread still names its process, whose object it keeps.
    EXPECT_EQ(PsGetProcessId(PsGetThreadProcess(kept)), IdHandle(pid));
    EXPECT_EQ(PsGetThreadId(kept), IdHandle(tid));
    return 0;
  });
  EXPECT_GT(LiveObjects(world), before);
  ObDereferenceObject(kept);
  // The process, its threads and its token are gone.
  EXPECT_EQ(LiveObjects(world), before);
}

VOID NTAPI ReturnAtOnce(PVOID) {}

TEST(ObjectLifetimeTest, ASystemThreadsObjectGoesWithItsHandleAndTheLastReference) {
  World world;
  size_t before = LiveObjects(world);
  world.AsSystem([&] {
    HANDLE handle = nullptr;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    EXPECT_EQ(PsCreateSystemThread(&handle, GENERIC_ALL, &attributes, nullptr, nullptr, ReturnAtOnce, nullptr),
              STATUS_SUCCESS);
    PVOID thread = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    // Ended and without a handle, it stays while referenced.
    EXPECT_EQ(PsGetProcessId(PsGetThreadProcess(static_cast<PETHREAD>(thread))), IdHandle(4));
    ObDereferenceObject(thread);
    return 0;
  });
  // The host thread lets go of the object after it signalled it: wait for that.
  for (int i = 0; i < 2000 && LiveObjects(world) != before; ++i) {
    LARGE_INTEGER interval;
    interval.QuadPart = -10000;  // 1 ms
    world.AsSystem([&] { return KeDelayExecutionThread(KernelMode, FALSE, &interval); });
  }
  EXPECT_EQ(LiveObjects(world), before);
}

TEST(ObjectLifetimeTest, ProcessesCreatedAndEndedInTurnLeaveNothingBehind) {
  World world;
  UserProcess& first = world.StartProcess(u"job.exe");
  world.MapImage(first, u"\\SystemRoot\\System32\\kernel32.dll");
  world.ExitProcess(first);
  world.ForgetProcess(first);
  size_t after = LiveObjects(world);
  for (int n = 0; n < 50; ++n) {
    UserProcess& job = world.StartProcess(u"job.exe");
    world.StartThread(job);
    world.MapImage(job, u"\\SystemRoot\\System32\\kernel32.dll");
    world.ExitProcess(job);
    world.ForgetProcess(job);
  }
  EXPECT_EQ(LiveObjects(world), after);
}

TEST(ObjectLifetimeTest, ReleasedUserMemoryFaultsUntilNewerReleasesPushItOut) {
  ntsim::ProcessMemory memory;
  // Only the identity of the owner matters here.
  auto owner = [](uintptr_t n) { return reinterpret_cast<const _KPROCESS*>(0x1000 + 16 * n); };
  void* oldest = memory.Allocate(owner(0), 100);
  EXPECT_FALSE(memory.Faults(oldest, 100, owner(0)));
  EXPECT_TRUE(memory.Faults(oldest, 100, owner(1)));
  memory.ReleaseProcess(owner(0));
  EXPECT_TRUE(memory.Faults(oldest, 100, owner(0)));
  size_t quarantine = ntsim::ProcessMemory::kQuarantine;
  for (size_t n = 1; n < quarantine; ++n) {
    memory.Allocate(owner(n), 100);
    memory.ReleaseProcess(owner(n));
  }
  void* live = memory.Allocate(owner(quarantine), 100);
  EXPECT_EQ(memory.BlockCount(), quarantine + 1);
  EXPECT_TRUE(memory.Faults(oldest, 100, owner(0)));  // still the newest kQuarantine releases
  memory.Allocate(owner(quarantine + 1), 100);
  memory.ReleaseProcess(owner(quarantine + 1));
  // Pushed out: unmapped and no longer any process's user memory.
  EXPECT_EQ(memory.BlockCount(), quarantine + 1);
  EXPECT_FALSE(memory.Faults(oldest, 100, owner(0)));
  EXPECT_FALSE(memory.Faults(live, 100, owner(quarantine)));
}

}  // namespace
