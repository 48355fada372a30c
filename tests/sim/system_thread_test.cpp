// System threads as a driver sees them: PsCreateSystemThread runs the routine on a thread of its
// own in the System process (or in the given one), PsTerminateSystemThread does not return, the
// thread object is signalled when the thread has ended, creation and exit are notified; delays,
// waits on thread objects, and what the verifier makes of threads that outlive their driver or the
// machine.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "ntsim/ntsim.h"
#include "sim_test_support.h"

using ntsim::Verifier;
using ntsim::World;
using sim_test::RecordViolations;
using sim_test::ViolationCalls;

namespace {

struct WorkerContext {
  KEVENT go;
  PEPROCESS process = nullptr;
  HANDLE processId = nullptr;
  KIRQL irql = HIGH_LEVEL;
  KPROCESSOR_MODE previousMode = UserMode;
  std::atomic<bool> ran{false};
  std::atomic<bool> pastTerminate{false};
  bool terminate = true;
};

VOID NTAPI Worker(PVOID Context) {
  auto* context = static_cast<WorkerContext*>(Context);
  context->process = PsGetCurrentProcess();
  context->processId = PsGetCurrentProcessId();
  context->irql = KeGetCurrentIrql();
  context->previousMode = ExGetPreviousMode();
  context->ran = true;
  KeWaitForSingleObject(&context->go, Executive, KernelMode, FALSE, nullptr);
  if (context->terminate) {
    PsTerminateSystemThread(STATUS_SUCCESS);
    context->pastTerminate = true;  // never reached
  }
}

struct ThreadNotices {
  std::mutex mutex;
  std::vector<std::pair<uint64_t, bool>> seen;  // thread id, create
};
ThreadNotices g_notices;

VOID NTAPI NoteThread(HANDLE ProcessId, HANDLE ThreadId, BOOLEAN Create) {
  if (reinterpret_cast<uintptr_t>(ProcessId) != 4) return;
  std::lock_guard<std::mutex> lock(g_notices.mutex);
  g_notices.seen.emplace_back(reinterpret_cast<uintptr_t>(ThreadId), Create != FALSE);
}

// Starts Worker and returns its referenced thread object; the handle is closed.
PVOID StartWorker(WorkerContext* context, HANDLE process = nullptr, CLIENT_ID* client = nullptr) {
  KeInitializeEvent(&context->go, NotificationEvent, FALSE);
  HANDLE handle = nullptr;
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
  if (PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, &attributes, process, client, Worker, context) !=
      STATUS_SUCCESS) {
    return nullptr;
  }
  PVOID object = nullptr;
  EXPECT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &object, nullptr),
            STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  return object;
}

TEST(SystemThreadTest, RunsInTheSystemProcessUntilItTerminatesAndItsObjectIsThenSignalled) {
  World world;
  {
    std::lock_guard<std::mutex> lock(g_notices.mutex);
    g_notices.seen.clear();
  }
  WorkerContext context;
  CLIENT_ID client = {};
  world.AsSystem([&] {
    EXPECT_EQ(PsSetCreateThreadNotifyRoutine(NoteThread), STATUS_SUCCESS);
    PVOID thread = StartWorker(&context, nullptr, &client);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(sim_test::Eventually([&] { return context.ran.load(); }));
    LARGE_INTEGER poll = {};
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, &poll), STATUS_TIMEOUT);
    EXPECT_EQ(world.kernel().threads.Running(), 1u);

    KeSetEvent(&context.go, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    EXPECT_EQ(world.kernel().threads.Running(), 0u);
    EXPECT_EQ(PsGetThreadId(static_cast<PETHREAD>(thread)), client.UniqueThread);
    ObDereferenceObject(thread);
    EXPECT_EQ(PsRemoveCreateThreadNotifyRoutine(NoteThread), STATUS_SUCCESS);
  });
  EXPECT_EQ(context.process, world.kernel().ps.System());
  EXPECT_EQ(reinterpret_cast<uintptr_t>(context.processId), 4u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(client.UniqueProcess), 4u);
  EXPECT_EQ(context.irql, PASSIVE_LEVEL);
  EXPECT_EQ(context.previousMode, KernelMode);
  EXPECT_FALSE(context.pastTerminate);
  uint64_t id = reinterpret_cast<uintptr_t>(client.UniqueThread);
  std::vector<std::pair<uint64_t, bool>> expected = {{id, true}, {id, false}};
  std::lock_guard<std::mutex> lock(g_notices.mutex);
  EXPECT_EQ(g_notices.seen, expected);
}

TEST(SystemThreadTest, ReturningEndsTheThreadAndOnlySystemThreadsMayTerminateThemselves) {
  World world;
  WorkerContext context;
  context.terminate = false;
  world.AsSystem([&] {
    PVOID thread = StartWorker(&context);
    ASSERT_NE(thread, nullptr);
    KeSetEvent(&context.go, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    ObDereferenceObject(thread);
    // The driver-load thread is no thread of PsCreateSystemThread: the call fails and returns.
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER);
  });
  EXPECT_TRUE(world.verifier().Violations().empty());
}

TEST(SystemThreadTest, AThreadStartedForAUserProcessRunsInIt) {
  World world;
  ntsim::UserProcess& agent = world.StartProcess(u"agent.exe");
  WorkerContext context;
  PVOID thread = agent.InProcess([&] { return StartWorker(&context, NtCurrentProcess()); });
  ASSERT_NE(thread, nullptr);
  world.AsSystem([&] {
    KeSetEvent(&context.go, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    ObDereferenceObject(thread);
  });
  EXPECT_EQ(context.process, agent.Process());
  EXPECT_EQ(reinterpret_cast<uintptr_t>(context.processId), agent.Id());
  EXPECT_EQ(context.previousMode, KernelMode);
  EXPECT_FALSE(agent.Exited());
}

TEST(SystemThreadTest, AFailedCreationRunsNothingAndLeavesNoHandle) {
  World world;
  WorkerContext context;
  size_t handles = world.kernel().ob.KernelHandles().Entries().size();
  world.AsSystem([&] {
    KeInitializeEvent(&context.go, NotificationEvent, FALSE);
    world.verifier().FailNth(1);
    HANDLE handle = nullptr;
    EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Worker, &context),
              STATUS_INSUFFICIENT_RESOURCES);
    world.verifier().FailNth(0);
  });
  EXPECT_FALSE(context.ran);
  EXPECT_EQ(world.kernel().threads.Running(), 0u);
  EXPECT_EQ(world.kernel().ob.KernelHandles().Entries().size(), handles);
}

TEST(SystemThreadTest, DelaysLastTheirIntervalAndMisusedWaitsAreViolations) {
  World world;
  RecordViolations(world);
  world.AsSystem([&] {
    LARGE_INTEGER interval;
    interval.QuadPart = -20 * 10000;  // 20 ms, relative
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
    EXPECT_TRUE(world.verifier().Violations().empty());

    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    interval.QuadPart = -1;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
    KeLowerIrql(old);
    // A thread that waits for its own end would wait forever.
    EXPECT_EQ(KeWaitForSingleObject(PsGetCurrentThread(), Executive, KernelMode, FALSE, nullptr),
              STATUS_INVALID_PARAMETER);
  });
  std::vector<std::string> expected = {"KeDelayExecutionThread", "KeWaitForSingleObject"};
  EXPECT_EQ(ViolationCalls(world), expected);
}

std::atomic<int> g_pastWait{0};

VOID NTAPI WaitForever(PVOID Context) {
  KeWaitForSingleObject(Context, Executive, KernelMode, FALSE, nullptr);
  ++g_pastWait;
}

VOID NTAPI DelayForever(PVOID) {
  LARGE_INTEGER interval;
  interval.QuadPart = -10000;
  for (;;) KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

TEST(SystemThreadTest, TheMachineGoingAwayEndsThreadsThatWaitOrSleep) {
  g_pastWait = 0;
  auto event = std::make_unique<KEVENT>();
  {
    World world;
    world.AsSystem([&] {
      KeInitializeEvent(event.get(), NotificationEvent, FALSE);
      HANDLE a = nullptr, b = nullptr;
      ASSERT_EQ(PsCreateSystemThread(&a, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, WaitForever, event.get()),
                STATUS_SUCCESS);
      ASSERT_EQ(PsCreateSystemThread(&b, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, DelayForever, nullptr),
                STATUS_SUCCESS);
      ZwClose(a);
      ZwClose(b);
    });
    EXPECT_EQ(world.kernel().threads.Running(), 2u);
  }  // the machine goes away: both threads are unwound, none runs past its wait
  EXPECT_EQ(g_pastWait, 0);
}

TEST(SystemThreadTest, AThreadStillRunningAtUnloadIsAFinding) {
  World::Options options;
  options.driverImage = SIM_TEST_THREAD_DRIVER;
  World world(options);
  world.verifier().SetViolationPolicy(Verifier::ViolationPolicy::Record);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  ntsim::Verdict verdict = world.UnloadDriver();
  EXPECT_NE(verdict.Report().find("DriverUnload: 1 system thread(s) still running"), std::string::npos)
      << verdict.Report();
  // The thread would run code of the unmapped image: that stops the machine.
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"DriverUnload"});
}

}  // namespace
