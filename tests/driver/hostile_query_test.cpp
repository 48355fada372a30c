// The query as an unprivileged local process attacks it: IOCTL_SK_QUERY_PACKCOMINFO with every
// input and output length, process ids that are not there or stop being there while others ask,
// askers that are not the consumer. Every request must complete with the status and information
// the dispatch promises, write nothing outside its buffer (nothing at all when refused), and leave
// nothing behind at unload.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "channel_test_support.h"
#include "core/debug_log.h"
#include "sentrel/package.h"

using namespace ntsim;
using namespace sentrel_test;

namespace {

constexpr ULONG_PTR kNoInformation = ~ULONG_PTR(0);
constexpr size_t kGuard = 64;  // bytes watched on either side of an output buffer
constexpr uint8_t kFill = 0xCC;

uint32_t Le32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
uint16_t Le16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

// What the asker sees of one request: the completion, and its output buffer with the guard bytes
// around it.
struct Reply {
  IoResult result;
  std::vector<uint8_t> space;  // guard, output, guard
  size_t outLength = 0;

  const uint8_t* Out() const { return space.data() + kGuard; }
  bool GuardsIntact() const {
    for (size_t i = 0; i < kGuard; ++i) {
      if (space[i] != kFill || space[kGuard + outLength + i] != kFill) return false;
    }
    return true;
  }
  bool Untouched() const {
    for (uint8_t b : space) {
      if (b != kFill) return false;
    }
    return true;
  }
  // Bytes of the output from `from` on that were not written.
  bool UntouchedFrom(size_t from) const {
    for (size_t i = kGuard + from; i < space.size(); ++i) {
      if (space[i] != kFill) return false;
    }
    return true;
  }
  std::vector<uint8_t> Answer() const { return std::vector<uint8_t>(Out(), Out() + result.information); }
};

// The parts of an answer an asker relies on; empty image name when the answer does not hold together.
struct Described {
  bool wellFormed = false;
  uint32_t processId = 0;
  std::u16string imageName;
  uint32_t treeCount = 0;
  uint32_t treeFirstPid = 0;
};

Described Describe(const uint8_t* a, size_t length) {
  Described d;
  if (length < 12 || Le32(a) != length || Le32(a + 4) != SK_PACK_COMMON_INFO_TYPE || Le32(a + 8) != 0) return d;
  size_t at = 12;
  uint32_t lengths[3];
  for (uint32_t kind = 1; kind <= 3; ++kind) {
    if (at + 16 > length) return d;
    lengths[kind - 1] = Le32(a + at);
    if (Le32(a + at + 4) != kind || lengths[kind - 1] < 16 || at + lengths[kind - 1] > length) return d;
    if (Le32(a + at + 8) != (kind == 3 ? 0 : lengths[kind - 1])) return d;
    at += lengths[kind - 1];
  }
  if (at != length) return d;
  const uint8_t* proc = a + 12;
  d.processId = Le32(proc + 0x0C);
  uint16_t nameOffset = Le16(proc + 0x50), nameLength = Le16(proc + 0x52);
  if (size_t(nameOffset) + nameLength > lengths[0]) return d;
  d.imageName.assign(nameLength / 2, u'\0');
  std::memcpy(d.imageName.data(), proc + nameOffset, nameLength & ~1u);
  const uint8_t* tree = a + 12 + lengths[0] + lengths[1];
  d.treeCount = Le32(tree + 0x0C);
  if (16 + 132ull * d.treeCount != lengths[2] || d.treeCount == 0) return d;
  d.treeFirstPid = Le32(tree + 16);
  d.wellFormed = true;
  return d;
}

class HostileQueryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", SK_LEVEL_ERROR | SK_LEVEL_INFO);
    world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", SK_TRACE_COMMU);
    LogOnMallory(world);
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
    // The session's input-method process makes the logon table learn the user.
    Create(900, 4, u"C:\\Windows\\System32\\InputMethod\\CHS\\ChsIME.exe", u"ChsIME.exe");
    Settle();
  }
  void TearDown() override {
    if (HasFailure()) {
      std::vector<std::string> lines = Messages(world);
      size_t from = lines.size() > 80 ? lines.size() - 80 : 0;
      for (size_t i = from; i < lines.size(); ++i) std::fprintf(stderr, "  log: %s\n", lines[i].c_str());
    }
    if (world.DriverLoaded()) {
      for (UserProcess* process : started) world.ExitProcess(*process);
      Settle();
      Verdict verdict = world.UnloadDriver();
      EXPECT_TRUE(verdict.Clean()) << verdict.Report();
    }
  }

  UserProcess& Create(uint64_t pid, uint64_t creator, const std::u16string& path, const std::u16string& commandLine) {
    UserProcess& process = world.CreateProcess(MallorysProcess(pid, creator, path, commandLine));
    started.push_back(&process);
    return process;
  }
  Client Start(const std::u16string& image) {
    UserProcess& process = world.StartProcess(image);
    started.push_back(&process);
    return Client(world, process);
  }
  void Exit(UserProcess& process) {
    world.ExitProcess(process);
    started.erase(std::remove(started.begin(), started.end(), &process), started.end());
  }
  // The driver's own threads (image-load work, logon additions) have all ended.
  void Settle() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (world.kernel().threads.Running() != 0) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "a driver thread never ended";
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  // A user's desktop, a shell it started and a script host the shell started.
  void StartChain() {
    explorer = &Create(1000, 4, u"C:\\Windows\\explorer.exe", u"C:\\Windows\\Explorer.EXE");
    cmd = &Create(1100, 1000, u"C:\\Windows\\System32\\cmd.exe", u"cmd.exe /c run.ps1");
    powershell = &Create(1200, 1100, u"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe",
                         u"powershell.exe -nop -w hidden -enc SQBFAFgA");
    Settle();
  }

  // Any device-control request with an input of inLength bytes (the first bytes from `in`, the rest
  // zero) and an output buffer of outLength bytes (none at all for 0).
  static Reply Send(UserProcess& asker, HANDLE handle, ULONG code, const void* in, size_t inCopy, ULONG inLength,
                    ULONG outLength) {
    Reply reply;
    reply.outLength = outLength;
    reply.space.assign(outLength + 2 * kGuard, kFill);
    std::vector<uint8_t> input(inLength, 0);
    if (inLength) std::memcpy(input.data(), in, std::min<size_t>(inCopy, inLength));
    reply.result = asker.DeviceIoControl(handle, code, inLength ? input.data() : nullptr, inLength,
                                         outLength ? reply.space.data() + kGuard : nullptr, outLength);
    return reply;
  }
  static Reply Ask(UserProcess& asker, HANDLE handle, uint32_t pid, ULONG outLength, ULONG inLength = 4) {
    return Send(asker, handle, IOCTL_SK_QUERY_PACKCOMINFO, &pid, sizeof pid, inLength, outLength);
  }
  // A refusal: an error status, the given information, and not one byte written.
  static void ExpectRefused(const Reply& reply, NTSTATUS status, ULONG_PTR information, const std::string& what) {
    EXPECT_EQ(reply.result.status, status) << what;
    EXPECT_EQ(reply.result.information, information) << what;
    EXPECT_TRUE(reply.Untouched()) << what << ": bytes written by a refused request";
  }

  World world;
  std::vector<UserProcess*> started;
  UserProcess* explorer = nullptr;
  UserProcess* cmd = nullptr;
  UserProcess* powershell = nullptr;
};

constexpr ULONG kRoom = 0x10000;

TEST_F(HostileQueryTest, QueryBuffersAreCheckedBeforeAnythingIsWritten) {
  StartChain();
  Client mallory = Start(u"mallory.exe");
  HANDLE h = mallory.Open(false);

  // No output buffer: no memory descriptor list, whatever the input.
  ExpectRefused(Ask(mallory.Process(), h, 1200, 0), STATUS_INVALID_PARAMETER, kNoInformation, "no output, 4 in");
  ExpectRefused(Ask(mallory.Process(), h, 1200, 0, 0), STATUS_INVALID_PARAMETER, kNoInformation, "no output, no input");
  ExpectRefused(Ask(mallory.Process(), h, 1200, 0, 3), STATUS_INVALID_PARAMETER, kNoInformation, "no output, 3 in");
  EXPECT_TRUE(HasMessage(world, "!Irp->MdlAddress"));

  // The input is a process id, exactly 4 bytes: the right id in a longer or shorter input is refused
  // with the length it needs.
  for (ULONG inLength : {0u, 1u, 3u, 5u, 8u, 4096u, 1u << 20}) {
    ExpectRefused(Ask(mallory.Process(), h, 1200, kRoom, inLength), STATUS_INVALID_PARAMETER, 4,
                  "input of " + std::to_string(inLength) + " bytes");
  }
  EXPECT_TRUE(HasMessage(world, "Invalid Parameter"));

  // The code needs a handle open for reading and writing.
  HANDLE readOnly = nullptr;
  ASSERT_EQ(mallory.Process().CreateFile(u"\\\\.\\Sentrel", GENERIC_READ, &readOnly), STATUS_SUCCESS);
  Reply denied = Ask(mallory.Process(), readOnly, 1200, kRoom);
  EXPECT_EQ(denied.result.status, STATUS_ACCESS_DENIED);
  EXPECT_TRUE(denied.Untouched());

  // The same asker, well-formed, is answered: the refusals left nothing in its way.
  Reply ok = Ask(mallory.Process(), h, 1200, kRoom);
  EXPECT_EQ(ok.result.status, STATUS_SUCCESS);
  EXPECT_TRUE(ok.GuardsIntact());
}

TEST_F(HostileQueryTest, TheAnswerFitsItsRoomOrNothingIsWritten) {
  StartChain();
  Client mallory = Start(u"mallory.exe");
  HANDLE h = mallory.Open(false);

  Reply big = Ask(mallory.Process(), h, 1200, 16u << 20);
  ASSERT_EQ(big.result.status, STATUS_SUCCESS);
  const ULONG needed = static_cast<ULONG>(big.result.information);
  ASSERT_GT(needed, 12u + 88 + 52 + 16);
  EXPECT_LE(needed, SK_PACK_COMMON_INFO_MAX);
  Described d = Describe(big.Out(), needed);
  ASSERT_TRUE(d.wellFormed);
  EXPECT_EQ(d.processId, 1200u);
  EXPECT_EQ(d.imageName, u"powershell.exe");
  EXPECT_EQ(d.treeCount, 3u);
  EXPECT_EQ(d.treeFirstPid, 1200u);
  EXPECT_TRUE(big.UntouchedFrom(needed)) << "written beyond the answer";
  EXPECT_TRUE(big.GuardsIntact());

  Reply exact = Ask(mallory.Process(), h, 1200, needed);
  EXPECT_EQ(exact.result.status, STATUS_SUCCESS);
  EXPECT_EQ(exact.result.information, needed);
  EXPECT_EQ(exact.Answer(), big.Answer());
  EXPECT_TRUE(exact.GuardsIntact());

  // Any room short of the answer, down to one byte: a warning, no length, not one byte written.
  for (ULONG room : {needed - 1, needed / 2, 13u, 12u, 11u, 4u, 1u}) {
    ExpectRefused(Ask(mallory.Process(), h, 1200, room), STATUS_BUFFER_OVERFLOW, kNoInformation,
                  "room of " + std::to_string(room) + " bytes");
  }
}

TEST_F(HostileQueryTest, OnlyALiveProcessIsDescribed) {
  StartChain();
  Client mallory = Start(u"mallory.exe");
  HANDLE h = mallory.Open(false);
  UserProcess& victim = Create(1300, 1000, u"C:\\Windows\\System32\\notepad.exe", u"notepad.exe secrets.txt");
  Settle();
  ASSERT_EQ(Ask(mallory.Process(), h, 1300, kRoom).result.status, STATUS_SUCCESS);
  const uint32_t threadId = static_cast<uint32_t>(cmd->InitialThreadId());
  Exit(victim);

  struct Case {
    uint32_t pid;
    const char* what;
  };
  for (Case c : {Case{0, "id 0"}, Case{4, "the System process"}, Case{0x7FF0, "an id never used"},
                 Case{0xFFFFFFFF, "all ones"}, Case{0xFFFFFFFC, "the highest multiple of 4"},
                 Case{0x80000000, "the sign bit"}, Case{1300, "a process that exited"},
                 Case{threadId, "a thread's id"}}) {
    Reply r = Ask(mallory.Process(), h, c.pid, kRoom);
    EXPECT_TRUE(NT_ERROR_STATUS(r.result.status)) << c.what << ": status 0x" << std::hex << r.result.status;
    EXPECT_EQ(r.result.information, kNoInformation) << c.what;
    EXPECT_TRUE(r.Untouched()) << c.what << ": bytes written for a failed query";
  }
}

TEST_F(HostileQueryTest, AReusedProcessIdDescribesTheNewProcess) {
  // An id comes back once its process is gone: whatever the driver kept for the old one must not
  // be handed out for the new one.
  StartChain();
  Client mallory = Start(u"mallory.exe");
  HANDLE h = mallory.Open(false);
  Reply before = Ask(mallory.Process(), h, 1200, kRoom);
  ASSERT_EQ(before.result.status, STATUS_SUCCESS);
  ASSERT_EQ(Describe(before.Out(), before.result.information).imageName, u"powershell.exe");
  Exit(*powershell);
  UserProcess& reborn = Create(1200, 1000, u"C:\\Windows\\System32\\calc.exe", u"calc.exe");
  Settle();
  Reply after = Ask(mallory.Process(), h, 1200, kRoom);
  ASSERT_EQ(after.result.status, STATUS_SUCCESS);
  Described d = Describe(after.Out(), after.result.information);
  ASSERT_TRUE(d.wellFormed);
  EXPECT_EQ(d.imageName, u"calc.exe");
  EXPECT_EQ(d.treeCount, 2u) << "calc.exe and the desktop that started it";
  (void)reborn;
}

TEST_F(HostileQueryTest, AnyProcessMayAskBeforeAndAfterAConsumerRegisters) {
  StartChain();
  Client mallory = Start(u"mallory.exe");
  Client agent = Start(u"agent.exe");
  HANDLE mh = mallory.Open(false);
  Reply early = Ask(mallory.Process(), mh, 1200, kRoom);
  ASSERT_EQ(early.result.status, STATUS_SUCCESS) << "no consumer yet";

  HANDLE ah = agent.Open(false);
  ASSERT_EQ(agent.Register(ah, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  Reply fromConsumer = Ask(agent.Process(), ah, 1200, kRoom);
  Reply fromOther = Ask(mallory.Process(), mh, 1200, kRoom);
  ASSERT_EQ(fromConsumer.result.status, STATUS_SUCCESS);
  ASSERT_EQ(fromOther.result.status, STATUS_SUCCESS);
  EXPECT_EQ(fromOther.Answer(), fromConsumer.Answer());
  EXPECT_EQ(early.Answer(), fromConsumer.Answer());

  // A process asking about itself, and about the consumer.
  Reply self = Ask(mallory.Process(), mh, mallory.Pid(), kRoom);
  ASSERT_EQ(self.result.status, STATUS_SUCCESS);
  EXPECT_EQ(Describe(self.Out(), self.result.information).processId, mallory.Pid());
  Reply aboutConsumer = Ask(mallory.Process(), mh, agent.Pid(), kRoom);
  ASSERT_EQ(aboutConsumer.result.status, STATUS_SUCCESS);
  EXPECT_EQ(Describe(aboutConsumer.Out(), aboutConsumer.result.information).processId, agent.Pid());

  // A producer's handle asks as well as a plain one.
  HANDLE ph = mallory.Open(false);
  ASSERT_EQ(mallory.Register(ph, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  Reply fromProducer = Ask(mallory.Process(), ph, 1200, kRoom);
  EXPECT_EQ(fromProducer.Answer(), fromConsumer.Answer());
}

TEST_F(HostileQueryTest, AProcessThatExitsWhileOthersAskLeavesNothingStale) {
  // Several askers hammer one id while its process exits; the id is then given to another image.
  // Every answer is whole and about the process asked for, or a failure that wrote nothing; once the
  // exit has returned no answer comes, and the next process with the id is described as itself.
  StartChain();
  constexpr int kRounds = 12;
  constexpr int kAskers = 3;
  constexpr int kMaxAsks = 300;  // per asker and round
  constexpr uint32_t kPid = 2000;
  std::vector<Client> askers;
  std::vector<HANDLE> handles;
  for (int i = 0; i < kAskers; ++i) {
    askers.push_back(Start(u"asker" + std::u16string(1, char16_t(u'0' + i)) + u".exe"));
    handles.push_back(askers.back().Open(false));
  }
  const std::u16string images[] = {u"alpha.exe", u"bravo.exe"};
  std::atomic<int> bad{0}, answered{0}, refused{0};
  std::string firstBad;
  std::mutex badMutex;
  auto note = [&](const std::string& what) {
    std::lock_guard<std::mutex> lock(badMutex);
    if (bad++ == 0) firstBad = what;
  };

  for (int round = 0; round < kRounds; ++round) {
    const std::u16string image = images[round % 2];
    UserProcess& target = Create(kPid, 1000, u"C:\\Tools\\" + image, image);
    Settle();
    {
      Reply first = Ask(askers[0].Process(), handles[0], kPid, kRoom);
      Described d = Describe(first.Out(), first.result.information);
      if (first.result.status != STATUS_SUCCESS || d.imageName != image) {
        note("round " + std::to_string(round) + ": the new process with the id is not described as itself");
      }
    }
    std::atomic<bool> exited{false};
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int a = 0; a < kAskers; ++a) {
      threads.emplace_back([&, a] {
        ready++;
        int afterExit = 0;
        for (int i = 0; i < kMaxAsks && afterExit < 5; ++i) {
          bool wasExited = exited.load();
          Reply r = Ask(askers[a].Process(), handles[a], kPid, kRoom);
          if (r.result.status == STATUS_SUCCESS) {
            Described d = Describe(r.Out(), r.result.information);
            if (!d.wellFormed || d.processId != kPid || d.treeFirstPid != kPid || d.imageName != image ||
                !r.UntouchedFrom(r.result.information) || !r.GuardsIntact()) {
              note("a success whose answer does not hold together");
            }
            if (wasExited) note("an answer about a process whose exit had returned");
            answered++;
          } else if (!NT_ERROR_STATUS(r.result.status) || r.result.information != kNoInformation || !r.Untouched()) {
            char text[96];
            std::snprintf(text, sizeof text, "a failure 0x%08x with information 0x%llx or bytes written",
                          unsigned(r.result.status), (unsigned long long)r.result.information);
            note(text);
          } else {
            refused++;
          }
          if (wasExited) ++afterExit;
        }
      });
    }
    while (ready.load() < kAskers) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(200 * (round % 5)));
    Exit(target);
    exited = true;
    for (std::thread& t : threads) t.join();
    Settle();
    world.ForgetProcess(target);
  }
  EXPECT_EQ(bad.load(), 0) << firstBad;
  EXPECT_GT(answered.load(), 0) << "the askers never overlapped the process's life";
  EXPECT_GT(refused.load(), 0);
  for (int i = 0; i < kAskers; ++i) EXPECT_EQ(askers[i].Process().CloseHandle(handles[i]), STATUS_SUCCESS);
}

TEST_F(HostileQueryTest, AProcessOfASessionTheDriverNeverLearnedIsRefusedCleanly) {
  // A user who logs on after the driver started and runs no input-method process: the process
  // is known, its session is not.
  StartChain();
  Client mallory = Start(u"mallory.exe");
  HANDLE h = mallory.Open(false);
  world.LogOn({0x7B200, u"SENTREL-LAB", u"trudy", "S-1-5-21-7-8-9-1444", 3});
  ProcessSpec spec;
  spec.pid = 3300;
  spec.imagePath = u"\\??\\C:\\Tools\\stranger.exe";
  spec.commandLine = u"stranger.exe";
  spec.logonId = 0x7B200;
  spec.sessionId = 3;
  UserProcess& stranger = world.CreateProcess(spec);
  started.push_back(&stranger);
  Settle();
  Reply r = Ask(mallory.Process(), h, 3300, kRoom);
  if (r.result.status == STATUS_SUCCESS) {
    Described d = Describe(r.Out(), r.result.information);
    EXPECT_TRUE(d.wellFormed);
    EXPECT_EQ(d.processId, 3300u);
    EXPECT_TRUE(r.GuardsIntact());
  } else {
    EXPECT_TRUE(NT_ERROR_STATUS(r.result.status)) << std::hex << r.result.status;
    EXPECT_EQ(r.result.information, kNoInformation);
    EXPECT_TRUE(r.Untouched());
  }
}

TEST_F(HostileQueryTest, EveryAllocationFailureDuringAQueryIsRefusedCleanly) {
  // Each target is new and never reported, so the query builds all of its packages; the n-th
  // allocation point from the request on fails. A refused query writes nothing; an answered one is
  // whole; the unload finds nothing left of the failed builds.
  StartChain();
  Client mallory = Start(u"mallory.exe");
  HANDLE h = mallory.Open(false);
  int refusedCount = 0;
  for (uint64_t n = 1;; ++n) {
    ASSERT_LT(n, 80u) << "the query never stopped allocating";
    ProcessSpec spec = MallorysProcess(6000 + 4 * n, 1100, u"C:\\Tools\\target.exe", u"target.exe --n");
    spec.mapExecutable = false;
    UserProcess& target = world.CreateProcess(spec);
    Settle();
    world.verifier().FailNth(n);
    Reply r = Ask(mallory.Process(), h, static_cast<uint32_t>(spec.pid), kRoom);
    bool injected = world.verifier().InjectedFailure();
    world.verifier().FailNth(0);
    if (r.result.status == STATUS_SUCCESS) {
      Described d = Describe(r.Out(), r.result.information);
      EXPECT_TRUE(d.wellFormed) << n;
      EXPECT_EQ(d.processId, spec.pid) << n;
      EXPECT_TRUE(r.GuardsIntact()) << n;
    } else {
      ++refusedCount;
      EXPECT_TRUE(injected) << n << ": refused with 0x" << std::hex << r.result.status << " without a failure";
      EXPECT_TRUE(r.Untouched()) << n;
      if (r.result.status != STATUS_ACCESS_VIOLATION && r.result.status != STATUS_INSUFFICIENT_RESOURCES) {
        EXPECT_EQ(r.result.information, kNoInformation) << n;
      }
    }
    world.ExitProcess(target);
    world.ForgetProcess(target);
    if (!injected) break;
  }
  EXPECT_GT(refusedCount, 0);
}

TEST_F(HostileQueryTest, AStormOfQueriesThenUnloadLeavesNothing) {
  // Askers in several processes, every kind of answer (whole, too short, no such process) from
  // several threads at once, handles closed, then the driver goes: nothing of it may stay.
  StartChain();
  constexpr int kThreads = 4;
  constexpr int kAsks = 150;
  std::vector<Client> askers;
  std::vector<HANDLE> handles;
  for (int i = 0; i < kThreads; ++i) {
    askers.push_back(Start(u"storm" + std::u16string(1, char16_t(u'0' + i)) + u".exe"));
    handles.push_back(askers.back().Open(i % 2 == 0));
  }
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const uint32_t pids[] = {1000, 1100, 1200, 0x7FF0, 4};
      for (int i = 0; i < kAsks; ++i) {
        uint32_t pid = pids[(i + t) % 5];
        ULONG room = (i % 3 == 0) ? 16 : kRoom;
        std::shared_ptr<PendingIo> io;
        Reply r;
        r.outLength = room;
        r.space.assign(room + 2 * kGuard, kFill);
        io = askers[t].Process().DeviceIoControlOverlapped(handles[t], IOCTL_SK_QUERY_PACKCOMINFO, &pid, 4,
                                                            r.space.data() + kGuard, room);
        if (!io->Wait(std::chrono::seconds(5))) {
          wrong++;
          continue;
        }
        r.result = io->Result();
        bool live = pid == 1000 || pid == 1100 || pid == 1200;
        if (live && room == kRoom) {
          if (r.result.status != STATUS_SUCCESS || !r.GuardsIntact()) wrong++;
        } else if (live) {
          if (r.result.status != STATUS_BUFFER_OVERFLOW || r.result.information != kNoInformation || !r.Untouched()) wrong++;
        } else if (!NT_ERROR_STATUS(r.result.status) || !r.Untouched()) {
          wrong++;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong.load(), 0);
  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(askers[i].Process().CloseHandle(handles[i]), STATUS_SUCCESS);
  for (UserProcess* process : started) world.ExitProcess(*process);
  started.clear();
  Settle();
  Verdict verdict = world.UnloadDriver();
  EXPECT_TRUE(verdict.Clean()) << verdict.Report();
}

}  // namespace
