// The reporters with the whole driver loaded: a busy machine on four processors whose every event
// reaches the consumer whole, and every allocation failure along the report paths, which drops the
// one event and leaves nothing behind.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "channel_test_support.h"
#include "sentrel/ring_buffer.h"
#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/ring_reader.h"

using ntsim::IoResult;
using ntsim::ProcessSpec;
using ntsim::UserProcess;
using ntsim::Verdict;
using ntsim::World;
using sentrel_sdk::Json;
using sentrel_test::Client;
using sentrel_test::DebugKey;

namespace {

World::Options Machine() {
  World::Options options;
  options.machine.processors = 4;
  options.usualProcesses = true;
  return options;
}

class EventReportTest : public ::testing::Test {
 protected:
  EventReportTest() : world(Machine()) {}
  void SetUp() override {
    world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", 1);
    world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", 0xFFFFFFFF);
    desktop = &Create(1500, 4, u"C:\\Windows\\explorer.exe");
    agent = &Create(900, World::kServicesPid, u"C:\\Program Files\\Sentrel\\agent.exe");
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
    consumer = std::make_unique<Client>(world, *agent);
    handle = consumer->Open(false);
    ASSERT_EQ(consumer->Register(handle, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
    std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(4));
    IoResult mapped = agent->DeviceIoControl(handle, IOCTL_SK_MAP_RINGBUF, nullptr, 0, info.data(),
                                             static_cast<ULONG>(info.size()));
    ASSERT_EQ(mapped.status, STATUS_SUCCESS);
    reader = sentrel_sdk::RingReader::FromMapInfo(info.data(), mapped.information);
    ASSERT_TRUE(reader.has_value());
  }
  void TearDown() override {
    if (world.DriverLoaded()) {
      for (UserProcess* process : {desktop, agent}) {
        if (process && !process->Exited()) world.ExitProcess(*process);
      }
      Verdict verdict = world.UnloadDriver();
      EXPECT_TRUE(verdict.Clean()) << verdict.Report();
    }
  }
  UserProcess& Create(uint64_t pid, uint64_t parent, const std::u16string& path) {
    ProcessSpec spec;
    spec.pid = pid;
    spec.parentPid = parent;
    spec.imagePath = u"\\??\\" + path;
    spec.commandLine = path + u" --run";
    return world.CreateProcess(spec);
  }
  // Every event the consumer can read now, decoded.
  std::vector<Json> Drain() {
    std::vector<Json> events;
    std::lock_guard<std::mutex> lock(readerMutex);
    reader->DrainAll([&](const sentrel_sdk::RingRecord& record) {
      events.push_back(sentrel_sdk::DecodeEvent(record.data, record.length));
    });
    return events;
  }

  World world;
  UserProcess* desktop = nullptr;
  UserProcess* agent = nullptr;
  std::unique_ptr<Client> consumer;
  HANDLE handle = nullptr;
  std::mutex readerMutex;
  std::optional<sentrel_sdk::RingReader> reader;
};

// Three host threads create families of processes that load DLLs and start threads in each other
// and in the desktop, while the consumer drains. Every event decodes; every process created while
// the consumer ran is reported exactly once; nothing is lost.
TEST_F(EventReportTest, ABusyMachineReportsEveryProcessOnceAndEveryEventWhole) {
  constexpr int kThreads = 3, kRounds = 12;
  std::atomic<int> working{kThreads};
  std::mutex createdMutex;
  std::vector<uint64_t> created;
  std::vector<Json> events;
  std::thread drainer([&] {
    while (working > 0) {
      std::vector<Json> got = Drain();
      events.insert(events.end(), got.begin(), got.end());
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int round = 0; round < kRounds; ++round) {
        uint64_t base = 10000 + 1000 * t + 40 * round;
        UserProcess& parent = Create(base, 1500, u"C:\\Apps\\launcher.exe");
        UserProcess& child = Create(base + 4, base, u"C:\\Apps\\worker.exe");
        world.MapImage(child, u"\\??\\C:\\Apps\\plugin.dll");
        world.MapImage(parent, u"\\SystemRoot\\System32\\kernel32.dll");
        world.StartThread(child, &parent, 0x10000 + random() % 0x1000);
        world.StartThread(*desktop, &child);
        {
          std::lock_guard<std::mutex> lock(createdMutex);
          created.push_back(base);
          created.push_back(base + 4);
        }
        world.ExitProcess(child);
        world.ExitProcess(parent);
      }
      --working;
    });
  }
  for (std::thread& t : threads) t.join();
  drainer.join();
  std::vector<Json> rest = Drain();
  events.insert(events.end(), rest.begin(), rest.end());

  std::map<uint64_t, int> creations;
  std::map<std::string, int> kinds;
  for (const Json& event : events) {
    ASSERT_FALSE(event.contains("malformed")) << event.dump();
    ASSERT_FALSE(event.contains("producer")) << event.dump();
    ++kinds[event["event"]];
    if (event["event"] == "ET_PROCESS_CREATE") ++creations[event["src_pid"].get<uint64_t>()];
  }
  for (uint64_t pid : created) EXPECT_EQ(creations[pid], 1) << "process " << pid;
  // Per round: the child's thread in the desktop; a thread the parent starts in its own child is
  // the creator's business, whichever thread of the child it is.
  EXPECT_EQ(kinds["ET_REMOTE_THREAD_CREATE"], kThreads * kRounds);
  EXPECT_EQ(kinds["ET_IMAGE_LOAD"], 3 * kThreads * kRounds);
  const sentrel_sdk::RingReaderCounts& counts = reader->Counts();
  EXPECT_EQ(counts.malformed, 0u);
}

// Every allocation along a process's life as the reporters see it (its node, its first image load
// and the creation's report with its packages, a DLL's load and report, a remote thread's report)
// fails in turn: each failure loses at most its event, and the driver unloads holding nothing.
TEST_F(EventReportTest, EveryAllocationFailureOfAReportLosesOnlyItsEvent) {
  sentrel_test::ExemptRuleTries(world);
  uint64_t n = 1;
  for (;; ++n) {
    Drain();
    world.verifier().FailNth(n);
    UserProcess& process = Create(20000 + 8 * n, 1500, u"C:\\Apps\\tool.exe");
    world.MapImage(process, u"\\??\\C:\\Apps\\extra.dll");
    world.StartThread(*desktop, &process, 0x20000);
    bool injected = world.verifier().InjectedFailure();
    world.verifier().FailNth(0);
    for (const Json& event : Drain()) EXPECT_FALSE(event.contains("malformed")) << n << ": " << event.dump();
    world.ExitProcess(process);
    if (!injected) break;
    ASSERT_LT(n, 400u);
  }
  // The process's node and packages, its creation, its two images and the thread were all in reach.
  EXPECT_GT(n, 40u);
}

// services.exe stays referenced while the probers run, so its record never dangles; once it has
// exited, a driver load in the System process is attributed to nobody rather than to whichever
// process gets its id next.
TEST_F(EventReportTest, ADriverLoadInTheSystemProcessNeedsTheServiceControlManagerAlive) {
  world.LoadKernelImage(u"\\SystemRoot\\System32\\drivers\\first.sys");
  std::vector<Json> events = Drain();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["src_pid"], World::kServicesPid);
  EXPECT_EQ(events[0]["data"]["service_name"], "first");

  world.ExitProcess(*world.FindUserProcess(World::kServicesPid));
  Create(World::kServicesPid, 1500, u"C:\\Apps\\impostor.exe");  // the id is free again
  Drain();  // its own creation and image load
  world.LoadKernelImage(u"\\SystemRoot\\System32\\drivers\\second.sys");
  EXPECT_TRUE(Drain().empty());
  EXPECT_TRUE(sentrel_test::HasMessage(world, "ServiceProc Exited"));
  // A process that loads a driver itself is still its acting process.
  world.LoadKernelImage(u"\\SystemRoot\\System32\\drivers\\third.sys", 0, 0x20000, desktop);
  events = Drain();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]["src_pid"], 1500);
  world.ExitProcess(*world.FindUserProcess(World::kServicesPid));
}

}  // namespace
