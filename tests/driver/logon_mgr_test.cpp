// The logon table and the token queries, on a simulated machine: who runs a process, which
// sessions the table knows from start-up and from trigger processes, what a held node survives,
// every failure path, and a stop that races the threads adding nodes.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "names/logon_mgr.h"
#include "names/string_block.h"
#include "names/token_query.h"
#include "test_support.h"

using ntsim::World;
using sentrel_test::HasMessage;
using sentrel_test::HasMessageStarting;
using sentrel_test::Text;

namespace {

constexpr uint64_t kKioskLogon = 0x51000;   // a local user with an empty domain
constexpr uint64_t kRemoteLogon = 0x62000;  // a second desktop user

class LogonMgrTest : public ::testing::Test {
 protected:
  void Boot(int windowsMajor = 10, std::vector<std::string> missingRoutines = {}) {
    World::Options options;
    options.machine.windowsMajor = windowsMajor;
    options.machine.missingRoutines = missingRoutines;
    world.reset();
    world = std::make_unique<World>(options);
    world->LogOn({kKioskLogon, u"", u"kiosk", "S-1-5-21-1-2-3-1105", 2});
    world->LogOn({kRemoteLogon, u"CONTOSO", u"dana", "S-1-5-21-4-5-6-2201", 3});
    SkDriverObject = world->kernel().io.CreateDriverObject(u"\\Driver\\LogonTest", nullptr);
    PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
    TraceLevel = SK_TRACE_LOGON | SK_TRACE_TOOL;
  }
  void SetUp() override { Boot(); }
  void TearDown() override {
    world->verifier().FailNth(0);
    if (SentrelData.DriverObject) {
      EXPECT_EQ(Stop(), STATUS_SUCCESS);
    }
    sentrel_test::ExpectNothingHeld(*world, "teardown");
    PrintLevel = TraceLevel = 0;
    SkDriverObject = nullptr;
  }
  NTSTATUS Start() { return world->AsSystem(sk_InitSentrelData); }
  NTSTATUS Stop() { return world->AsSystem(sk_UninitSentrelData); }

  ntsim::UserProcess& Create(const std::u16string& image, uint64_t logonId = 0, ULONG rid = 0x2000,
                             uint64_t parent = 4) {
    ntsim::ProcessSpec spec;
    spec.imagePath = image;
    spec.parentPid = parent;
    spec.logonId = logonId;
    spec.integrityRid = rid;
    return world->CreateProcess(spec);
  }
  // The add threads that trigger processes started have all ended (bounded: 10 s).
  void SettleAddThreads() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (world->kernel().threads.Running() != 0) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "an add thread never ended";
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  // The node's user name and SID ("" when the session has none); the node is released again.
  struct Known {
    bool found = false;
    std::u16string user, sid;
    ULONG session = 0;
    LONG countWhileHeld = 0;
  };
  Known Lookup(uint64_t logonId) {
    return world->AsSystem([&] {
      Known known;
      PLOGON_INFO_NODE node = nullptr;
      if (!NT_SUCCESS(sk_LookupLogonInfo_LogonId(&SentrelData.LogonMgr, logonId, &node))) return known;
      known.found = true;
      known.user = Text(node->UserName);
      known.sid = Text(node->UserSid);
      known.session = node->SessionId;
      known.countWhileHeld = node->RefCount;
      EXPECT_EQ(sk_ReleaseLogonInfo_Node(&SentrelData.LogonMgr, node), STATUS_SUCCESS);
      EXPECT_EQ(node->RefCount, known.countWhileHeld - 1) << "lookup then release leaves the count as before";
      return known;
    });
  }
  size_t NodeCount() {
    size_t n = 0;
    for (PLIST_ENTRY e = SentrelData.LogonMgr.NodeList.Flink; e != &SentrelData.LogonMgr.NodeList; e = e->Flink) ++n;
    return n;
  }

  std::unique_ptr<World> world;
};

TEST_F(LogonMgrTest, StartKnowsEverySessionThatRunsAProcessAndAsksOnlyForUsers) {
  Create(u"\\??\\C:\\Windows\\Explorer.EXE", World::LoggedOnUserLogonId());
  Create(u"\\??\\C:\\Windows\\System32\\cmd.exe", kKioskLogon);
  Create(u"\\??\\C:\\Windows\\System32\\svchost.exe", 0x3E5);
  std::mutex askedMutex;
  std::set<uint64_t> asked;
  world->kernel().se.userInfoHook = [&](uint64_t id) {
    std::lock_guard<std::mutex> lock(askedMutex);
    asked.insert(id);
  };
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  world->kernel().se.userInfoHook = nullptr;
  // The user sessions were asked about; SYSTEM and LOCAL SERVICE were answered without a call.
  EXPECT_EQ(asked, (std::set<uint64_t>{World::LoggedOnUserLogonId(), kKioskLogon}));

  Known system = Lookup(0x3E7);
  EXPECT_EQ(system.user, u"NT AUTHORITY\\SYSTEM");
  EXPECT_EQ(system.sid, u"S-1-5-18");
  EXPECT_EQ(system.countWhileHeld, 2);
  EXPECT_EQ(Lookup(0x3E5).user, u"NT AUTHORITY\\LOCAL SERVICE");
  Known analyst = Lookup(World::LoggedOnUserLogonId());
  EXPECT_EQ(analyst.user, u"SENTREL-LAB\\analyst");
  EXPECT_EQ(analyst.sid, u"S-1-5-21-3623811015-3361044348-30300820-1013");
  Known kiosk = Lookup(kKioskLogon);
  EXPECT_EQ(kiosk.user, u"kiosk") << "an empty domain gives the bare name";
  EXPECT_EQ(kiosk.sid, u"S-1-5-21-1-2-3-1105");
  EXPECT_EQ(kiosk.session, 1u) << "the session of the process the node was made from";
  EXPECT_FALSE(Lookup(kRemoteLogon).found);
  EXPECT_TRUE(HasMessage(*world, "No Find LogonId:0x62000"));
  EXPECT_EQ(NodeCount(), 4u);

  // A second add for a known session changes nothing and asks nobody.
  ntsim::UserProcess& again = Create(u"\\??\\C:\\Windows\\System32\\notepad.exe", kKioskLogon);
  uint64_t queries = world->kernel().se.userInfoQueries.load();
  EXPECT_EQ(world->AsSystem([&] { return sk_AddLogonInfo(&SentrelData.LogonMgr, again.Process()); }), STATUS_SUCCESS);
  EXPECT_EQ(NodeCount(), 4u);
  EXPECT_EQ(world->kernel().se.userInfoQueries.load(), queries);
}

TEST_F(LogonMgrTest, TokenQueriesAnswerEveryIntegrityLevelAndLeaveOthersAlone) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  const std::pair<ULONG, ULONG> table[] = {{0x0000, 0}, {0x1000, 1}, {0x2000, 2}, {0x2100, 3},
                                           {0x3000, 4}, {0x4000, 5}, {0x5000, 6}};
  for (auto [rid, code] : table) {
    ntsim::UserProcess& p = Create(u"\\??\\C:\\Windows\\System32\\cmd.exe", kKioskLogon, rid);
    ULONG answer = 77;
    EXPECT_EQ(world->AsSystem([&] { return skt_SeQueryInformationToken(p.Process(), &answer); }), STATUS_SUCCESS);
    EXPECT_EQ(answer, code) << std::hex << rid;
  }
  ntsim::UserProcess& odd = Create(u"\\??\\C:\\Windows\\System32\\cmd.exe", kKioskLogon, 0x1234);
  ULONG answer = 77;
  EXPECT_EQ(world->AsSystem([&] { return skt_SeQueryInformationToken(odd.Process(), &answer); }), STATUS_SUCCESS);
  EXPECT_EQ(answer, 77u) << "a RID outside the table leaves the value as it was";

  world->AsSystem([&] {
    EXPECT_EQ(skt_SeQueryInformationToken(nullptr, &answer), STATUS_INVALID_PARAMETER);
    ULONG64 logonId = 0;
    EXPECT_EQ(skt_GetLogonId(odd.Process(), nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(skt_GetLogonId(odd.Process(), &logonId), STATUS_SUCCESS);
    EXPECT_EQ(logonId, kKioskLogon);
    EXPECT_EQ(skt_GetUserName(odd.Process(), nullptr), STATUS_INVALID_PARAMETER);
  });
  EXPECT_TRUE(HasMessage(*world, "Invalid Parameter"));
}

TEST_F(LogonMgrTest, AKernelWithoutTheRoutinesLookedUpAtLoadStillTellsSessions) {
  Boot(6, {"SeQueryAuthenticationIdToken", "PsGetProcessSessionId"});
  ntsim::ProcessSpec spec;
  spec.imagePath = u"\\??\\C:\\Windows\\System32\\cmd.exe";
  spec.logonId = kKioskLogon;
  spec.sessionId = 2;
  world->CreateProcess(spec);
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  Known kiosk = Lookup(kKioskLogon);
  EXPECT_TRUE(kiosk.found) << "the logon id from the token's statistics";
  EXPECT_EQ(kiosk.user, u"kiosk");
  EXPECT_EQ(kiosk.session, 2u) << "the session from the token";
}

TEST_F(LogonMgrTest, AUserNameIsAskedFromTheThreadsOwnProcessWhenItIsAttachedElsewhere) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  ntsim::UserProcess& remote = Create(u"\\??\\C:\\Windows\\System32\\cmd.exe", kRemoteLogon);
  ntsim::UserProcess& caller = Create(u"\\??\\C:\\Windows\\System32\\notepad.exe", kKioskLogon);
  PUNICODE_STRING name = nullptr;
  void* askedFrom = nullptr;
  world->kernel().se.userInfoHook = [&](uint64_t) { askedFrom = IoGetCurrentProcess(); };
  caller.InProcess([&] {
    KAPC_STATE state;
    KeStackAttachProcess(remote.Process(), &state);
    EXPECT_EQ(skt_GetUserName(remote.Process(), &name), STATUS_SUCCESS);
    EXPECT_EQ(IoGetCurrentProcess(), remote.Process()) << "the caller's attachment is as it was";
    KeUnstackDetachProcess(&state);
    return 0;
  });
  world->kernel().se.userInfoHook = nullptr;
  EXPECT_EQ(askedFrom, caller.Process());
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(Text(name), u"CONTOSO\\dana");
  world->AsSystem([&] { return skt_FreeUnicodeStringSelf(name); });
}

TEST_F(LogonMgrTest, FromWindows10AnyInputMethodImageIsATriggerAndItsExitRemovesTheNode) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  // dwm.exe is no trigger from Windows 10 on.
  ntsim::UserProcess& dwm = Create(u"\\??\\C:\\Windows\\System32\\dwm.exe", kRemoteLogon);
  SettleAddThreads();
  EXPECT_FALSE(Lookup(kRemoteLogon).found);
  // An input method in a subfolder, named in another letter case.
  ntsim::UserProcess& ime = Create(u"\\??\\C:\\WINDOWS\\system32\\inputmethod\\CHS\\ChsIME.exe", kRemoteLogon);
  SettleAddThreads();
  Known dana = Lookup(kRemoteLogon);
  EXPECT_TRUE(dana.found);
  EXPECT_EQ(dana.user, u"CONTOSO\\dana");
  EXPECT_EQ(dana.session, 1u);
  world->ExitProcess(dwm);
  EXPECT_TRUE(Lookup(kRemoteLogon).found) << "only a trigger's exit removes the node";
  world->ExitProcess(ime);
  EXPECT_FALSE(Lookup(kRemoteLogon).found);
  EXPECT_TRUE(HasMessageStarting(*world, "Remove Node:"));

  // An input method of the SYSTEM session: its exit never removes SYSTEM's node.
  ntsim::UserProcess& systemIme = Create(u"\\??\\C:\\Windows\\System32\\InputMethod\\CHS\\ChsIME.exe", 0x3E7);
  SettleAddThreads();
  world->ExitProcess(systemIme);
  EXPECT_TRUE(Lookup(0x3E7).found);
  EXPECT_TRUE(HasMessage(*world, "Windows Default LogonId:0x3e7"));
}

TEST_F(LogonMgrTest, BeforeWindows10OnlyTheSystemDwmIsATriggerAndAHeldNodeOutlivesIt) {
  Boot(6);
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  ntsim::UserProcess& ime = Create(u"\\??\\C:\\Windows\\System32\\InputMethod\\CHS\\ChsIME.exe", kRemoteLogon);
  ASSERT_TRUE(world->WriteFileBytes(u"\\??\\D:\\Data\\dwm.exe", {'M', 'Z'}));
  Create(u"\\??\\D:\\Data\\dwm.exe", kRemoteLogon);
  SettleAddThreads();
  EXPECT_FALSE(Lookup(kRemoteLogon).found) << "an input method, and a dwm.exe of another folder, are no triggers";
  ntsim::UserProcess& dwm = Create(u"\\??\\C:\\windows\\SYSTEM32\\DWM.EXE", kRemoteLogon);
  SettleAddThreads();
  ASSERT_TRUE(Lookup(kRemoteLogon).found);

  // The packaging holds the node while the trigger exits: the node stays, then goes with its last
  // reference.
  PLOGON_INFO_NODE held = nullptr;
  ASSERT_EQ(world->AsSystem([&] { return sk_LookupLogonInfo_LogonId(&SentrelData.LogonMgr, kRemoteLogon, &held); }),
            STATUS_SUCCESS);
  world->ExitProcess(dwm);
  world->ExitProcess(ime);
  EXPECT_EQ(held->RefCount, 2);
  EXPECT_TRUE(Lookup(kRemoteLogon).found);
  world->AsSystem([&] {
    EXPECT_EQ(sk_ReleaseLogonInfo_Node(&SentrelData.LogonMgr, held), STATUS_SUCCESS);
    EXPECT_EQ(held->RefCount, 1);
    // A release of a node at count 1 removes it; it is then unknown to a further release.
    EXPECT_EQ(sk_ReleaseLogonInfo_Node(&SentrelData.LogonMgr, held), STATUS_SUCCESS);
  });
  EXPECT_FALSE(Lookup(kRemoteLogon).found);
}

TEST_F(LogonMgrTest, AMachineWithoutTheShellFailsTheStartWithTheConversionsStatus) {
  ASSERT_TRUE(world->DeleteFile(u"\\SystemRoot\\Explorer.EXE"));
  EXPECT_EQ(Start(), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_TRUE(HasMessage(*world, "[Explorer.EXE] skt_PathConvertToNtPath fail Status:c0000034"));
  sentrel_test::ExpectNothingHeld(*world, "failed start");
}

TEST_F(LogonMgrTest, EveryAllocationFailureOfTheStartAndOfAnAddLeavesNothingBehind) {
  ntsim::UserProcess& kiosk = Create(u"\\??\\C:\\Windows\\System32\\cmd.exe", kKioskLogon);
  ntsim::UserProcess& dana = Create(u"\\??\\C:\\Windows\\System32\\cmd.exe", kRemoteLogon);
  sentrel_test::ExemptRuleTries(*world);
  // The table's start: every allocation point in turn, with the rest of the driver running.
  for (uint64_t n = 1;; ++n) {
    ASSERT_EQ(Start(), STATUS_SUCCESS);
    world->AsSystem([&] { return sk_UninitLogonMgr(&SentrelData.LogonMgr); });
    world->verifier().FailNth(n);
    NTSTATUS status = world->AsSystem(
        [&] { return sk_InitLogonMgr(&SentrelData.LogonMgr, SentrelData.SystemRootNtPath); });
    bool injected = world->verifier().InjectedFailure();
    world->verifier().FailNth(0);
    if (NT_SUCCESS(status)) {
      EXPECT_TRUE(Lookup(kKioskLogon).found || injected) << n;
    }
    ASSERT_EQ(Stop(), STATUS_SUCCESS);
    sentrel_test::ExpectNothingHeld(*world, "start failure " + std::to_string(n));
    if (!injected) break;
    ASSERT_LT(n, 200u);
  }
  // An add for a session the table does not know yet.
  for (uint64_t n = 1;; ++n) {
    ASSERT_EQ(Start(), STATUS_SUCCESS);
    world->AsSystem([&] {
      PLOGON_INFO_NODE node = nullptr;
      // Forget dana's session, which the start found.
      EXPECT_EQ(sk_LookupLogonInfo_LogonId(&SentrelData.LogonMgr, kRemoteLogon, &node), STATUS_SUCCESS);
      sk_ReleaseLogonInfo_Node(&SentrelData.LogonMgr, node);
      return sk_DelLogonInfo(&SentrelData.LogonMgr, dana.Process());
    });
    ASSERT_FALSE(Lookup(kRemoteLogon).found);
    world->verifier().FailNth(n);
    NTSTATUS status = world->AsSystem([&] { return sk_AddLogonInfo(&SentrelData.LogonMgr, dana.Process()); });
    bool injected = world->verifier().InjectedFailure();
    world->verifier().FailNth(0);
    EXPECT_EQ(Lookup(kRemoteLogon).found, NT_SUCCESS(status)) << "no half-made node, failure " << n;
    EXPECT_TRUE(Lookup(kKioskLogon).found);
    ASSERT_EQ(Stop(), STATUS_SUCCESS);
    sentrel_test::ExpectNothingHeld(*world, "add failure " + std::to_string(n));
    if (!injected) break;
    ASSERT_LT(n, 200u);
  }
  (void)kiosk;
}

// The stop comes while an add thread is inside the security subsystem: it waits for the thread,
// and nothing of the driver's is left running or held.
TEST_F(LogonMgrTest, UnloadWaitsForAnAddThreadStillAtWork) {
  world->SetRegistryDwordDirect(sentrel_test::DebugKey(), u"PrintLevel", SK_LEVEL_INFO | SK_LEVEL_ERROR);
  world->SetRegistryDwordDirect(sentrel_test::DebugKey(), u"TraceLevel", SK_TRACE_LOGON);
  ASSERT_EQ(world->LoadDriver(), STATUS_SUCCESS);
  std::atomic<bool> entered{false}, release{false};
  // Only the add thread is held; the process table asks about the same user in the creation.
  world->kernel().se.userInfoHook = [&](uint64_t) {
    if (!ntsim::CurrentThread()->systemThread) return;
    entered = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  Create(u"\\??\\C:\\Windows\\System32\\InputMethod\\CHS\\ChsIME.exe", kRemoteLogon);
  while (!entered) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::thread releaser([&] {
    // Let the add thread go once the unload has taken the table's notification away.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!HasMessage(*world, "Remove sk_LogonNotfiy") && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release = true;
  });
  ntsim::Verdict verdict = world->UnloadDriver();
  releaser.join();
  world->kernel().se.userInfoHook = nullptr;
  EXPECT_TRUE(verdict.Clean()) << verdict.Report();
  EXPECT_EQ(world->kernel().threads.Running(), 0u);
  EXPECT_TRUE(HasMessage(*world, "Logon Mgr no Inited") || HasMessageStarting(*world, "Add User:CONTOSO\\dana"));
}

// Trigger processes of several sessions start and end on many threads while other threads look
// the sessions up and release them; every reference comes back.
TEST_F(LogonMgrTest, TriggersOnManyThreadsWhileLookupsRun) {
  PrintLevel = TraceLevel = 0;
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  const uint64_t sessions[] = {0x71000, 0x72000, 0x73000, 0x74000};
  for (int i = 0; i < 4; ++i) {
    std::string sid = "S-1-5-21-7-7-7-" + std::to_string(3000 + i);
    world->LogOn({sessions[i], u"LAB", u"user" + std::u16string(1, char16_t(u'0' + i)), sid, ULONG(i + 1)});
  }
  std::atomic<int> creatorsLeft{4};
  std::atomic<long> lookups{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 25; ++round) {
        ntsim::UserProcess& ime =
            Create(u"\\??\\C:\\Windows\\System32\\InputMethod\\CHS\\ChsIME.exe", sessions[(i + round) % 4]);
        world->ExitProcess(ime);
      }
      --creatorsLeft;
    });
  }
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&, i] {
      while (creatorsLeft > 0) {
        for (uint64_t id : sessions) {
          world->AsSystem([&] {
            PLOGON_INFO_NODE node = nullptr;
            if (!NT_SUCCESS(sk_LookupLogonInfo_LogonId(&SentrelData.LogonMgr, id, &node))) return 0;
            EXPECT_EQ(node->LogonId, id);
            EXPECT_EQ(node->UserName->Length, 18u);  // "LAB\userN"
            EXPECT_EQ(sk_ReleaseLogonInfo_Node(&SentrelData.LogonMgr, node), STATUS_SUCCESS);
            ++lookups;
            return 0;
          });
        }
      }
      (void)i;
    });
  }
  for (std::thread& t : threads) t.join();
  SettleAddThreads();
  for (PLIST_ENTRY e = SentrelData.LogonMgr.NodeList.Flink; e != &SentrelData.LogonMgr.NodeList; e = e->Flink) {
    EXPECT_EQ(CONTAINING_RECORD(e, LOGON_INFO_NODE, Link)->RefCount, 1);
  }
  EXPECT_EQ(Stop(), STATUS_SUCCESS);
  sentrel_test::ExpectNothingHeld(*world, "after the stress");
}

}  // namespace
