// The process table and tree and the images of every process, on a simulated machine: nodes for
// processes created and found at start, the creator tree kept past exit and swept, reused ids,
// images shared between processes, addresses resolved, every failure path, and a busy machine.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/image_mgr.h"
#include "monitor/process_mgr.h"
#include "monitor/package_block.h"
#include "names/string_block.h"
#include "test_support.h"

using ntsim::ImageSpec;
using ntsim::ProcessSpec;
using ntsim::UserProcess;
using ntsim::World;
using sentrel_test::HasMessage;
using sentrel_test::HasMessageStarting;
using sentrel_test::Text;

namespace {

class ProcessMgrTest : public ::testing::Test {
 protected:
  void SetUp() override {
    world = std::make_unique<World>();
    SkDriverObject = world->kernel().io.CreateDriverObject(u"\\Driver\\ProcessTest", nullptr);
    sentrel_test::ExemptRuleTries(*world);
    PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
    TraceLevel = SK_TRACE_PROCESS | SK_TRACE_IMAGE;
  }
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

  UserProcess& Create(uint64_t pid, uint64_t parent, const std::u16string& name, uint64_t creator = 0) {
    ProcessSpec spec;
    spec.pid = pid;
    spec.parentPid = parent;
    spec.creatorPid = creator;
    spec.imagePath = u"\\??\\C:\\Windows\\System32\\" + name;
    spec.commandLine = name + u" /run";
    return world->CreateProcess(spec);
  }
  static LONGLONG Time(UserProcess& p) { return p.Process()->createTime; }

  // The node of a process instance, looked up and released again; null if there is none.
  struct Facts {
    bool found = false;
    LONG refCount = 0;  // while nobody else looks
    uint64_t creator = 0, parent = 0;
    LONGLONG creatorTime = 0;
    std::u16string name, user, commandLine, ntPath, dosPath;
    ULONG flags = 0;
    size_t images = 0;
  };
  Facts Lookup(uint64_t pid, LONGLONG createTime) {
    return world->AsSystem([&] {
      Facts facts;
      PPROC_INFO_NODE node = nullptr;
      if (!NT_SUCCESS(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)pid, createTime, &node))) return facts;
      facts.found = true;
      facts.refCount = node->RefCount - 1;
      facts.creator = node->CreatorProcessId;
      facts.parent = node->ParentProcessId;
      facts.creatorTime = node->CreatorCreateTime;
      facts.name = node->ImageFileName ? Text(node->ImageFileName) : u"";
      facts.user = Text(node->UserName);
      facts.commandLine = node->CommandLine ? Text(node->CommandLine) : u"";
      facts.ntPath = std::u16string(reinterpret_cast<const char16_t*>(node->NtImagePath->Path),
                                    node->NtImagePath->Length / 2);
      facts.dosPath = std::u16string(reinterpret_cast<const char16_t*>(node->DosImagePath->Path),
                                     node->DosImagePath->Length / 2);
      facts.flags = node->Flags;
      for (PLIST_ENTRY e = node->ImageList.Flink; e != &node->ImageList; e = e->Flink) ++facts.images;
      EXPECT_EQ(sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node), STATUS_SUCCESS);
      return facts;
    });
  }
  Facts Lookup(UserProcess& p) { return Lookup(p.Id(), Time(p)); }
  size_t NodeCount() { return RtlNumberGenericTableElementsAvl(&SentrelData.ProcessMgr.Table); }
  size_t ImageNodeCount() { return RtlNumberGenericTableElementsAvl(&SentrelData.ImageMgr.Table); }
  // The process-tree record: (pid, name) nearest first.
  std::vector<std::pair<ULONG, std::u16string>> Tree(UserProcess& p) {
    std::vector<std::pair<ULONG, std::u16string>> entries;
    world->AsSystem([&] {
      PVOID record = nullptr;
      ULONG size = 0;
      if (!NT_SUCCESS(sk_GetProcTreeInfo(&SentrelData.ProcessMgr, (HANDLE)p.Id(), Time(p), &record, &size))) return 0;
      auto* words = static_cast<ULONG*>(record);
      EXPECT_EQ(words[0], size);
      EXPECT_EQ(words[1], 3u);
      EXPECT_EQ(size, 16 + 132 * words[3]);
      for (ULONG i = 0; i < words[3]; ++i) {
        auto* entry = static_cast<UCHAR*>(record) + 16 + 132 * i;
        auto* name = reinterpret_cast<const char16_t*>(entry + 4);
        EXPECT_EQ(name[63], 0) << "at most 63 characters";
        entries.emplace_back(*reinterpret_cast<ULONG*>(entry), std::u16string(name));
      }
      sk_ReleasePackage(record);
      return 0;
    });
    return entries;
  }

  std::unique_ptr<World> world;
};

TEST_F(ProcessMgrTest, CreatedProcessesGetNodesWithTheirCreatorAndFirstImageCompletesThem) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& shell = Create(1000, 4, u"explorer.exe");
  // Created by the shell's thread, with another process as its parent.
  UserProcess& cmd = Create(1100, 4, u"cmd.exe", 1000);
  Facts facts = Lookup(cmd);
  ASSERT_TRUE(facts.found);
  EXPECT_EQ(facts.creator, 1000u);
  EXPECT_EQ(facts.parent, 4u);
  EXPECT_EQ(facts.creatorTime, Time(shell));
  EXPECT_EQ(facts.name, u"cmd.exe");
  EXPECT_EQ(facts.user, u"NT AUTHORITY\\SYSTEM");
  EXPECT_EQ(facts.ntPath, u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe");
  EXPECT_EQ(facts.dosPath, u"\\??\\C:\\Windows\\System32\\cmd.exe");
  // Its executable and ntdll.dll were loaded: recorded, and the first load completed the node.
  EXPECT_EQ(facts.images, 2u);
  for (const std::string& m : sentrel_test::Messages(*world)) {
    if (m.find("fail") != std::string::npos) ADD_FAILURE() << m;
  }
  EXPECT_EQ(facts.commandLine, u"cmd.exe /run");
  EXPECT_EQ(facts.flags & SK_PROC_FLAG_NOT_REPORTED, 0u);
  EXPECT_EQ(facts.refCount, 1) << "the process's own reference";
  EXPECT_EQ(Lookup(shell).refCount, 2) << "its own, and its child's";
  EXPECT_TRUE(HasMessageStarting(*world, "Add New Node:"));

  // Ids 0 and 4 never get a node.
  world->AsSystem([&] {
    EXPECT_EQ(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)4, 0, nullptr), STATUS_INVALID_PARAMETER);
    PROC_INFO_NODE block = {};
    block.ProcessId = 4;
    EXPECT_EQ(sk_AddProcInfo(&SentrelData.ProcessMgr, &block, sizeof block, nullptr, nullptr),
              STATUS_INVALID_PARAMETER);
    return 0;
  });
  EXPECT_TRUE(HasMessage(*world, "ByPass Pid:0 or Pid:4"));
  EXPECT_EQ(NodeCount(), 2u);
  // The image path as producer drivers ask for it.
  world->AsSystem([&] {
    PUNICODE_STRING path = nullptr;
    EXPECT_EQ(sk_GetProcImageDosPath_Process(cmd.Process(), &path), STATUS_SUCCESS);
    EXPECT_EQ(Text(path), u"C:\\Windows\\System32\\cmd.exe");
    skt_FreeUnicodeStringSelf(path);
    EXPECT_EQ(sk_GetProcImageNtPath_Process(cmd.Process(), &path), STATUS_SUCCESS);
    EXPECT_EQ(Text(path), u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe");
    skt_FreeUnicodeStringSelf(path);
    return 0;
  });
}

TEST_F(ProcessMgrTest, ExitedAncestorsStayWhileADescendantLivesAndGoInOneSweep) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& a = Create(1200, 4, u"a.exe");
  UserProcess& b = Create(1204, 1200, u"b.exe");
  UserProcess& c = Create(1208, 1204, u"c.exe");
  UserProcess& d = Create(1212, 1208, u"d.exe");
  world->ExitProcess(c);
  world->ExitProcess(b);
  world->ExitProcess(a);
  EXPECT_EQ(NodeCount(), 4u) << "the three exited ancestors are kept by d";
  auto tree = Tree(d);
  ASSERT_EQ(tree.size(), 4u);
  EXPECT_EQ(tree[0], std::make_pair(1212u, std::u16string(u"d.exe")));
  EXPECT_EQ(tree[3], std::make_pair(1200u, std::u16string(u"a.exe")));
  // A lookup held across d's exit keeps d, and with it the whole chain, until it is released.
  PPROC_INFO_NODE held = nullptr;
  ASSERT_EQ(world->AsSystem([&] { return sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)1212, Time(d), &held); }),
            STATUS_SUCCESS);
  world->ExitProcess(d);
  EXPECT_EQ(NodeCount(), 4u);
  world->AsSystem([&] { return sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, held); });
  EXPECT_EQ(NodeCount(), 0u) << "one sweep removes the descendant and its three ancestors";
  EXPECT_EQ(ImageNodeCount(), 0u) << "and the images only they held";
}

TEST_F(ProcessMgrTest, AReusedIdIsANewNodeAndANewerCreatorLeavesARoot) {
  // Before the driver starts: 500 starts 600 and exits; a newer process takes id 500.
  UserProcess& first = Create(500, 4, u"setup.exe");
  UserProcess& child = Create(600, 500, u"worker.exe");
  world->ExitProcess(first);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  UserProcess& reused = Create(500, 4, u"other.exe");
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  Facts worker = Lookup(child);
  ASSERT_TRUE(worker.found);
  EXPECT_EQ(worker.creatorTime, 0) << "the process now named 500 is newer than its child: no creator";
  EXPECT_EQ(Tree(child).size(), 1u);
  EXPECT_TRUE(Lookup(reused).found);
  EXPECT_FALSE(Lookup(500, Time(first)).found);
  EXPECT_EQ(worker.images, 2u) << "the scan walked its images";
  EXPECT_NE(worker.flags & SK_PROC_FLAG_NOT_REPORTED, 0u) << "reported at its first image load after the start";
  EXPECT_EQ(worker.commandLine, u"worker.exe /run") << "read by the scan while attached";

  // A held node of an exiting process, and a new process with its id: two nodes.
  PPROC_INFO_NODE held = nullptr;
  ASSERT_EQ(world->AsSystem([&] { return sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)600, Time(child), &held); }),
            STATUS_SUCCESS);
  world->ExitProcess(child);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  UserProcess& again = Create(600, 4, u"worker.exe");
  EXPECT_TRUE(Lookup(again).found);
  EXPECT_TRUE(Lookup(600, Time(child)).found);
  world->AsSystem([&] { return sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, held); });
  EXPECT_FALSE(Lookup(600, Time(child)).found);
}

TEST_F(ProcessMgrTest, LongNamesAreCutInTheTreeRecord) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  std::u16string longName(70, u'x');
  longName += u".exe";
  UserProcess& parent = Create(700, 4, longName);
  UserProcess& child = Create(704, 700, u"y.exe");
  auto tree = Tree(child);
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree[1].second, longName.substr(0, 63));
  (void)parent;
}

TEST_F(ProcessMgrTest, ImagesAreSharedCountedAndResolveAddresses) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& p1 = Create(800, 4, u"p1.exe");
  UserProcess& p2 = Create(804, 4, u"p2.exe");
  ImageSpec k32;
  k32.path = u"\\SystemRoot\\System32\\kernel32.dll";
  k32.base = 0x7FF810000000;
  k32.size = 0x20000;
  world->MapImage(p1, k32);
  world->MapImage(p2, k32);
  PIMAGE_INFO_NODE node = nullptr;
  world->AsSystem([&] {
    std::u16string text = u"\\Device\\HarddiskVolume3\\Windows\\System32\\kernel32.dll";
    UNICODE_STRING path = sentrel_test::Counted(text);
    IMAGE_INFO_NODE key;
    key.Key = sk_ImageKey(&path);
    node = static_cast<PIMAGE_INFO_NODE>(RtlLookupElementGenericTableAvl(&SentrelData.ImageMgr.Table, &key));
    return 0;
  });
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->RefCount, 3) << "the table and two records";
  EXPECT_EQ(Text(node->ImageName), u"kernel32.dll");
  EXPECT_EQ(node->Machine, 0x8664);
  EXPECT_EQ(node->Characteristics & 0x2000, 0x2000) << "a DLL";

  // Addresses: strictly inside; a second image overlapping the first answers with the first.
  ImageSpec overlap;
  overlap.path = u"\\SystemRoot\\System32\\notepad.exe";
  overlap.base = 0x7FF810030000;
  world->MapImage(p1, overlap);
  world->AsSystem([&] {
    PPROC_INFO_NODE proc = nullptr;
    EXPECT_EQ(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)800, Time(p1), &proc), STATUS_SUCCESS);
    ULONG64 base = 0, end = 0;
    PUNICODE_STRING name = nullptr;
    EXPECT_EQ(sk_LookupImageInfoFromProcNode_Address(proc, 0x7FF810001234, &base, &end, &name), STATUS_SUCCESS);
    EXPECT_EQ(base, 0x7FF810000000u);
    EXPECT_EQ(end, 0x7FF810020000u);
    EXPECT_EQ(Text(name), u"kernel32.dll");
    skt_FreeUnicodeStringSelf(name);
    EXPECT_EQ(sk_LookupImageInfoFromProcNode_Address(proc, 0x7FF810000000, nullptr, nullptr, nullptr),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(sk_LookupImageInfoFromProcNode_Address(proc, 0x7FF810020000, nullptr, nullptr, nullptr),
              STATUS_INVALID_PARAMETER);
    // A record added by hand over kernel32's range, after it: the first record still answers.
    PIMAGE_INFO_NODE other = nullptr;
    std::u16string otherText = u"\\Device\\HarddiskVolume3\\Windows\\System32\\notepad.exe";
    UNICODE_STRING otherPath = sentrel_test::Counted(otherText);
    IMAGE_INFO_NODE key;
    key.Key = sk_ImageKey(&otherPath);
    other = static_cast<PIMAGE_INFO_NODE>(RtlLookupElementGenericTableAvl(&SentrelData.ImageMgr.Table, &key));
    EXPECT_NE(other, nullptr);
    InterlockedIncrement(&other->RefCount);
    EXPECT_EQ(sk_AddImageToProcNode(0x7FF810010000, 0x10000, other, proc), STATUS_SUCCESS);
    EXPECT_EQ(sk_LookupImageInfoFromProcNode_Address(proc, 0x7FF810015000, nullptr, nullptr, &name), STATUS_SUCCESS);
    EXPECT_EQ(Text(name), u"kernel32.dll");
    skt_FreeUnicodeStringSelf(name);
    sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, proc);
    return 0;
  });
  world->ExitProcess(p1);
  EXPECT_EQ(node->RefCount, 2);
  world->ExitProcess(p2);
  EXPECT_EQ(ImageNodeCount(), 0u);
}

TEST_F(ProcessMgrTest, ImagesOfOtherMachinesOrUnreadableHeadersAreNotRecorded) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& p = Create(900, 4, u"p.exe");
  ImageSpec arm;
  arm.path = u"\\SystemRoot\\System32\\cmd.exe";
  arm.machine = 0x0200;  // Itanium
  world->MapImage(p, arm);
  ImageSpec broken;
  broken.path = u"\\SystemRoot\\System32\\kernel32.dll";
  broken.readableHeader = false;
  world->MapImage(p, broken);
  ImageSpec wow;
  wow.path = u"\\SystemRoot\\System32\\notepad.exe";
  wow.machine = 0x14C;
  world->MapImage(p, wow);
  EXPECT_EQ(Lookup(p).images, 3u) << "the executable, ntdll.dll and the x86 image";
  EXPECT_TRUE(HasMessage(*world, "Get Checksum  fail "));
  EXPECT_TRUE(HasMessage(*world, "sk_AddImageNode fail Status:c000009a"));
}

TEST_F(ProcessMgrTest, TwoImagesOfANewProcessAtOnceCompleteItOnce) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  ProcessSpec spec;
  spec.pid = 1300;
  spec.imagePath = u"\\??\\C:\\Windows\\System32\\cmd.exe";
  spec.commandLine = u"cmd /c both";
  spec.mapExecutable = false;
  UserProcess& p = world->CreateProcess(spec);
  EXPECT_NE(Lookup(p).flags & SK_PROC_FLAG_NOT_REPORTED, 0u);
  world->debug().Clear();
  std::thread other([&] { world->MapImage(p, u"\\SystemRoot\\System32\\kernel32.dll"); });
  world->MapImage(p, u"\\SystemRoot\\System32\\ntdll.dll");
  other.join();
  int completions = 0;
  for (const std::string& m : sentrel_test::Messages(*world)) {
    if (m.find("CommandLine:cmd /c both") != std::string::npos) ++completions;
  }
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(Lookup(p).flags & SK_PROC_FLAG_NOT_REPORTED, 0u);
}

TEST_F(ProcessMgrTest, EveryAllocationFailureLeavesNoHalfBuiltNode) {
  UserProcess& before = Create(1400, 4, u"before.exe");
  Create(1404, 1400, u"child.exe");
  // The start-up scan, the creation path and the image path, each allocation point in turn.
  for (int path = 0; path < 3; ++path) {
    for (uint64_t n = 1;; ++n) {
      ASSERT_EQ(Start(), STATUS_SUCCESS);
      if (path == 0) world->AsSystem([] { return sk_UninitProcessMgr(&SentrelData.ProcessMgr); });
      UserProcess* made = nullptr;
      world->verifier().FailNth(n);
      if (path == 0) {
        world->AsSystem([] { return sk_InitProcessMgr(&SentrelData.ProcessMgr); });
      } else if (path == 1) {
        made = &Create(1500, 1400, u"new.exe", 1400);
      } else {
        world->MapImage(before, u"\\SystemRoot\\System32\\kernel32.dll");
      }
      bool injected = world->verifier().InjectedFailure();
      world->verifier().FailNth(0);
      // Whatever node exists is whole.
      world->AsSystem([&] {
        PVOID restart = nullptr;
        for (auto* node = static_cast<PPROC_INFO_NODE>(
                 RtlEnumerateGenericTableWithoutSplayingAvl(&SentrelData.ProcessMgr.Table, &restart));
             node; node = static_cast<PPROC_INFO_NODE>(
                       RtlEnumerateGenericTableWithoutSplayingAvl(&SentrelData.ProcessMgr.Table, &restart))) {
          EXPECT_NE(node->NtImagePath, nullptr) << n;
          EXPECT_NE(node->UserName, nullptr) << n;
          EXPECT_NE(node->ImageListLock, nullptr) << n;
        }
        return 0;
      });
      if (made) world->ExitProcess(*made);
      ASSERT_EQ(Stop(), STATUS_SUCCESS);
      sentrel_test::ExpectNothingHeld(*world, "path " + std::to_string(path) + " failure " + std::to_string(n));
      if (!injected) break;
      ASSERT_LT(n, 300u);
    }
  }
}

// Many threads create processes with children and grandchildren, map images and end them in
// random order, while others look nodes up, walk trees and resolve addresses.
TEST_F(ProcessMgrTest, ABusyMachine) {
  PrintLevel = TraceLevel = 0;
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  std::atomic<int> creatorsLeft{3};
  std::atomic<uint64_t> nextPid{5000};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t);
      for (int round = 0; round < 12; ++round) {
        std::vector<UserProcess*> family;
        family.push_back(&Create(nextPid += 4, 4, u"root.exe"));
        family.push_back(&Create(nextPid += 4, family[0]->Id(), u"child.exe"));
        family.push_back(&Create(nextPid += 4, family[1]->Id(), u"grandchild.exe"));
        world->MapImage(*family[random() % 3], u"\\SystemRoot\\System32\\kernel32.dll");
        std::shuffle(family.begin(), family.end(), random);
        for (UserProcess* p : family) world->ExitProcess(*p);
      }
      --creatorsLeft;
    });
  }
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      while (creatorsLeft > 0) {
        world->AsSystem([&] {
          for (uint64_t pid = 5000; pid < nextPid; pid += 4) {
            PEPROCESS process = nullptr;
            if (!NT_SUCCESS(PsLookupProcessByProcessId((HANDLE)pid, &process))) continue;
            PPROC_INFO_NODE node = nullptr;
            if (NT_SUCCESS(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)pid, PsGetProcessCreateTimeQuadPart(process),
                                          &node))) {
              sk_LookupImageInfoFromProcNode_Address(node, 0x7FFE00001000, nullptr, nullptr, nullptr);
              sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
            }
            PVOID record = nullptr;
            ULONG size = 0;
            if (NT_SUCCESS(sk_GetProcTreeInfo(&SentrelData.ProcessMgr, (HANDLE)pid,
                                              PsGetProcessCreateTimeQuadPart(process), &record, &size))) {
              sk_ReleasePackage(record);
            }
            ObDereferenceObject(process);
          }
          return 0;
        });
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(NodeCount(), 0u);
  EXPECT_EQ(ImageNodeCount(), 0u);
  ASSERT_EQ(Stop(), STATUS_SUCCESS);
  sentrel_test::ExpectNothingHeld(*world, "after the busy machine");
}

}  // namespace
