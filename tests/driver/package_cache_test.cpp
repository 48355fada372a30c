// The packages and their cache, on a simulated machine: every field of the three packages of a
// process with a known user and a chain of creators, the query's answer and its length rules,
// what an exit takes away, strings too long for a package, every allocation failure of a build,
// and builders, readers and exits racing over one process's packages.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/package_block.h"
#include "monitor/package_cache.h"
#include "monitor/package_pack.h"
#include "sentrel/package.h"
#include "test_support.h"

using ntsim::ProcessSpec;
using ntsim::UserProcess;
using ntsim::World;
using sentrel_test::HasMessage;
using sentrel_test::kMallory;
using sentrel_test::HasMessageStarting;

namespace {


enum class Kind { kProcess, kLogon, kTree };

struct Bytes {
  NTSTATUS status = STATUS_UNSUCCESSFUL;
  std::vector<uint8_t> data;
  uint32_t U32(size_t at) const {
    uint32_t v;
    std::memcpy(&v, data.data() + at, 4);
    return v;
  }
  uint64_t U64(size_t at) const {
    uint64_t v;
    std::memcpy(&v, data.data() + at, 8);
    return v;
  }
  // The string a 16-bit offset and length at `at` name; checks that it lies inside the package.
  std::u16string String(size_t at, size_t packageStart = 0) const {
    uint16_t offset, length;
    std::memcpy(&offset, data.data() + packageStart + at, 2);
    std::memcpy(&length, data.data() + packageStart + at + 2, 2);
    EXPECT_LE(size_t(offset) + length, U32(packageStart)) << "a string beyond its package";
    if (offset == 0 && length == 0) return u"<absent>";
    std::u16string text(length / 2, u'\0');
    std::memcpy(text.data(), data.data() + packageStart + offset, length);
    return text;
  }
  uint16_t Offset(size_t at) const {
    uint16_t v;
    std::memcpy(&v, data.data() + at, 2);
    return v;
  }
};

class PackageCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    world = std::make_unique<World>();
    sentrel_test::LogOnMallory(*world);
    SkDriverObject = world->kernel().io.CreateDriverObject(u"\\Driver\\PackageTest", nullptr);
    sentrel_test::ExemptRuleTries(*world);
    PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_WARNING | SK_LEVEL_INFO;
    TraceLevel = SK_TRACE_PACKAGE | SK_TRACE_COMMU;
    ASSERT_EQ(world->AsSystem(sk_InitSentrelData), STATUS_SUCCESS);
  }
  void TearDown() override {
    world->verifier().FailNth(0);
    if (SentrelData.DriverObject) {
      EXPECT_EQ(world->AsSystem(sk_UninitSentrelData), STATUS_SUCCESS);
    }
    sentrel_test::ExpectNothingHeld(*world, "teardown");
    PrintLevel = TraceLevel = 0;
    SkDriverObject = nullptr;
  }

  UserProcess& Create(uint64_t pid, uint64_t creator, const std::u16string& path, const std::u16string& commandLine,
                      uint64_t logon = kMallory, ULONG rid = 0x2000) {
    return world->CreateProcess(sentrel_test::MallorysProcess(pid, creator, path, commandLine, logon, rid));
  }

  // A get-or-build's package, copied out and given back.
  Bytes Get(Kind kind, uint64_t key) {
    Bytes out;
    world->AsSystem([&] {
      PVOID package = nullptr;
      ULONG length = 0;
      PSK_PACKAGE_CACHE_MGR cache = &SentrelData.PackageCacheMgr;
      if (kind == Kind::kProcess) {
        out.status = sk_GetProcInfoPackage(cache, &SentrelData.ProcessMgr, (HANDLE)key, &package, &length);
      } else if (kind == Kind::kTree) {
        out.status = sk_GetProcTreeInfoPackage(cache, &SentrelData.ProcessMgr, (HANDLE)key, &package, &length);
      } else {
        out.status = sk_GetLogonInfoPackage(cache, &SentrelData.LogonMgr, key, &package, &length);
      }
      if (NT_SUCCESS(out.status)) {
        out.data.assign(static_cast<uint8_t*>(package), static_cast<uint8_t*>(package) + length);
        sk_ReleasePackage(package);
      }
      return 0;
    });
    return out;
  }
  // The query's answer in a buffer of `room` bytes, filled with 0xCC beforehand.
  struct Answer {
    NTSTATUS status;
    ULONG returned = 0;
    std::vector<uint8_t> buffer;
  };
  Answer Query(uint64_t pid, ULONG room) {
    Answer answer;
    answer.buffer.assign(room, 0xCC);
    answer.status = world->AsSystem(
        [&] { return sk_QueryPackCommonInformation(ULONG(pid), room, answer.buffer.data(), &answer.returned); });
    return answer;
  }
  size_t Entries(Kind kind) {
    PSK_PACKAGE_CACHE_MGR cache = &SentrelData.PackageCacheMgr;
    return RtlNumberGenericTableElementsAvl(kind == Kind::kProcess ? &cache->ProcInfoCache
                                            : kind == Kind::kLogon ? &cache->LogonInfoCache
                                                                   : &cache->ProcTreeInfoCache);
  }
  std::vector<uint8_t> Identity(UserProcess& p) {
    return world->AsSystem([&] {
      PPROC_INFO_NODE node = nullptr;
      std::vector<uint8_t> identity;
      if (NT_SUCCESS(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)p.Id(), p.Process()->createTime, &node))) {
        identity.assign(node->ProcessIdentity, node->ProcessIdentity + 16);
        sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
      }
      return identity;
    });
  }
  // The driver's own threads (the logon table's add threads, the image loads' work, which reports
  // each process's creation and so builds its packages) have all ended.
  void Settle() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (world->kernel().threads.Running() != 0) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "a driver thread never ended";
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  // The session's input-method process makes the logon table learn the user (Windows 10).
  void KnowSession() {
    Create(900, 4, u"C:\\Windows\\System32\\InputMethod\\CHS\\ChsIME.exe", u"ChsIME.exe");
    Settle();
  }
  void DropAll() {
    world->AsSystem([&] {
      sk_DelAllPackageCache(&SentrelData.PackageCacheMgr);
      return 0;
    });
  }
  // Whether the cache holds the key's package.
  bool Cached(Kind kind, uint64_t key) {
    return world->AsSystem([&] {
      PVOID package = nullptr;
      ULONG length = 0;
      PSK_PACKAGE_CACHE_MGR cache = &SentrelData.PackageCacheMgr;
      NTSTATUS status = kind == Kind::kProcess ? sk_LookupProcInfoPack(cache, key, &package, &length)
                        : kind == Kind::kLogon ? sk_LookupLogonInfoPack(cache, key, &package, &length)
                                               : sk_LookupProcTreeInfoPack(cache, key, &package, &length);
      if (NT_SUCCESS(status)) sk_ReleasePackage(package);
      return NT_SUCCESS(status);
    });
  }
  // A user's desktop, a shell it started and a script host the shell started.
  void StartChain() {
    KnowSession();
    explorer = &Create(1000, 4, u"C:\\Windows\\explorer.exe", u"C:\\Windows\\Explorer.EXE");
    cmd = &Create(1100, 1000, u"C:\\Windows\\System32\\cmd.exe", u"cmd.exe /c run.ps1");
    powershell = &Create(1200, 1100, u"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe",
                         u"powershell.exe -nop -w hidden -enc SQBFAFgA", kMallory, 0x3000);
    Settle();
  }

  std::unique_ptr<World> world;
  UserProcess* explorer = nullptr;
  UserProcess* cmd = nullptr;
  UserProcess* powershell = nullptr;
};

std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t at, size_t length) {
  return std::vector<uint8_t>(bytes.begin() + at, bytes.begin() + at + length);
}

TEST_F(PackageCacheTest, ThePackagesDescribeTheProcessItsSessionAndItsCreators) {
  StartChain();
  Bytes p = Get(Kind::kProcess, 1200);
  ASSERT_EQ(p.status, STATUS_SUCCESS);
  EXPECT_EQ(p.U32(0), p.data.size());
  EXPECT_EQ(p.U32(4), SK_PACKAGE_PROC_INFO);
  EXPECT_EQ(p.U32(8), p.data.size()) << "a package's NextOffset is its own length";
  EXPECT_EQ(p.U32(0x0C), 1200u);
  EXPECT_EQ(p.U32(0x10), 1100u);
  EXPECT_EQ(p.U32(0x14), 1100u);
  EXPECT_EQ(p.U32(0x18), SK_INTEGRITY_HIGH);
  EXPECT_EQ(Slice(p.data, 0x1C, 16), Identity(*powershell));
  EXPECT_EQ(Slice(p.data, 0x2C, 16), Identity(*cmd));
  EXPECT_EQ(p.Offset(0x3C), 0x58);
  EXPECT_EQ(p.String(0x3C), u"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe");
  EXPECT_EQ(p.String(0x40), u"powershell.exe -nop -w hidden -enc SQBFAFgA");
  EXPECT_EQ(p.String(0x44), u"SENTREL-LAB\\mallory");
  EXPECT_EQ(p.String(0x48), u"cmd.exe /c run.ps1");
  EXPECT_EQ(p.String(0x4C), u"C:\\Windows\\System32\\cmd.exe");
  EXPECT_EQ(p.String(0x50), u"powershell.exe");
  EXPECT_EQ(p.String(0x54), u"C:\\Users\\mallory\\");
  // Stored back to back in their order: image path, command line, current directory, image name,
  // creator image path, creator user name, creator command line; nothing after the last.
  size_t at = 0x58;
  for (size_t ref : {0x3C, 0x40, 0x54, 0x50, 0x4C, 0x44, 0x48}) {
    EXPECT_EQ(p.Offset(ref), at) << "string at 0x" << std::hex << ref;
    at += p.Offset(ref + 2);
  }
  EXPECT_EQ(at, p.data.size());

  Bytes l = Get(Kind::kLogon, kMallory);
  ASSERT_EQ(l.status, STATUS_SUCCESS);
  EXPECT_EQ(l.U32(0), l.data.size());
  EXPECT_EQ(l.U32(4), SK_PACKAGE_LOGON_INFO);
  EXPECT_EQ(l.U32(8), l.data.size());
  EXPECT_EQ(l.U32(0x0C), 2u);
  EXPECT_EQ(l.U64(0x10), kMallory);
  EXPECT_EQ(l.Offset(0x18), 0x34);
  EXPECT_EQ(l.String(0x18), u"SENTREL-LAB\\mallory");
  EXPECT_EQ(l.String(0x1C), u"S-1-5-21-7-8-9-1337");
  EXPECT_EQ(Slice(l.data, 0x20, 20), std::vector<uint8_t>(20, 0));
  EXPECT_EQ(l.data.size(), 0x34u + 2 * (19 + 19));

  Bytes t = Get(Kind::kTree, 1200);
  ASSERT_EQ(t.status, STATUS_SUCCESS);
  ASSERT_EQ(t.U32(0x0C), 3u) << "the process, its creator and the creator's creator";
  EXPECT_EQ(t.U32(0), 16u + 132 * 3);
  EXPECT_EQ(t.U32(8), t.U32(0));
  const uint32_t pids[] = {1200, 1100, 1000};
  const std::u16string names[] = {u"powershell.exe", u"cmd.exe", u"Explorer.EXE"};  // as the volume spells it
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(t.U32(16 + 132 * i), pids[i]);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(t.data.data() + 20 + 132 * i)), names[i]);
  }
}

TEST_F(PackageCacheTest, AProcessWhoseCreatorIsUnknownStandsAlone) {
  // Created by the System process, which has no node: the creator's id stays, nothing else of it.
  UserProcess& lone = Create(2000, 4, u"C:\\Windows\\System32\\svchost.exe", u"svchost.exe -k netsvcs");
  Bytes p = Get(Kind::kProcess, lone.Id());
  ASSERT_EQ(p.status, STATUS_SUCCESS);
  EXPECT_EQ(p.U32(0x10), 4u);
  EXPECT_EQ(Slice(p.data, 0x2C, 16), std::vector<uint8_t>(16, 0));
  for (size_t ref : {0x44, 0x48, 0x4C}) EXPECT_EQ(p.String(ref), u"<absent>");
  EXPECT_TRUE(HasMessageStarting(*world, "No Find Parent Process Status:"));
  Bytes t = Get(Kind::kTree, lone.Id());
  ASSERT_EQ(t.status, STATUS_SUCCESS);
  EXPECT_EQ(t.U32(0x0C), 1u);
  EXPECT_EQ(t.data.size(), 16u + 132);
}

TEST_F(PackageCacheTest, TheQueryAnswersInFullOrNotAtAllAndAlwaysTheSame) {
  StartChain();
  Answer first = Query(1200, 0x10000);
  ASSERT_EQ(first.status, STATUS_SUCCESS);
  const ULONG needed = first.returned;
  Bytes p = Get(Kind::kProcess, 1200), l = Get(Kind::kLogon, kMallory), t = Get(Kind::kTree, 1200);
  ASSERT_EQ(needed, 12 + p.data.size() + l.data.size() + t.data.size());
  Bytes answer{STATUS_SUCCESS, Slice(first.buffer, 0, needed)};
  EXPECT_EQ(answer.U32(0), needed);
  EXPECT_EQ(answer.U32(4), SK_PACK_COMMON_INFO_TYPE);
  EXPECT_EQ(answer.U32(8), 0u);
  EXPECT_EQ(Slice(answer.data, 12, p.data.size()), p.data);
  EXPECT_EQ(Slice(answer.data, 12 + p.data.size(), l.data.size()), l.data);
  // The tree package ends the answer: its NextOffset is 0 there, its length in the cache.
  size_t treeAt = 12 + p.data.size() + l.data.size();
  EXPECT_EQ(answer.U32(treeAt + 8), 0u);
  EXPECT_EQ(t.U32(8), t.data.size());
  EXPECT_EQ(Slice(answer.data, treeAt + 12, t.data.size() - 12), Slice(t.data, 12, t.data.size() - 12));
  EXPECT_EQ(first.buffer[needed], 0xCC) << "nothing written beyond the answer";

  Answer exact = Query(1200, needed);
  EXPECT_EQ(exact.status, STATUS_SUCCESS);
  EXPECT_EQ(exact.buffer, answer.data);

  Answer tooShort = Query(1200, needed - 1);
  EXPECT_EQ(tooShort.status, STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(tooShort.returned, needed);
  EXPECT_EQ(tooShort.buffer, std::vector<uint8_t>(needed - 1, 0xCC)) << "nothing written";
  char line[64];
  std::snprintf(line, sizeof line, "Length > InformationLength --->NeedLength:0x%x", needed);
  EXPECT_TRUE(HasMessage(*world, line));

  // A package is not rebuilt while its entry exists, whatever changes in the process's node.
  world->AsSystem([&] {
    PPROC_INFO_NODE node = nullptr;
    EXPECT_EQ(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)1200, powershell->Process()->createTime, &node),
              STATUS_SUCCESS);
    node->IntegrityLevel = SK_INTEGRITY_LOW;
    return sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
  });
  Answer again = Query(1200, needed);
  EXPECT_EQ(again.buffer, answer.data);

  EXPECT_EQ(Query(4, 0x10000).status, STATUS_INVALID_PARAMETER) << "the System process has no node";
  EXPECT_FALSE(NT_SUCCESS(Query(0x7FF0, 0x10000).status)) << "no such process";
}

TEST_F(PackageCacheTest, AnExitTakesItsPackagesAndDwmTakesItsSessionsToo) {
  StartChain();
  UserProcess& dwm = Create(1300, 4, u"C:\\WINDOWS\\SYSTEM32\\DWM.EXE", u"\"dwm.exe\"");
  for (uint64_t pid : {1200, 1300}) {
    ASSERT_EQ(Get(Kind::kProcess, pid).status, STATUS_SUCCESS);
    ASSERT_EQ(Get(Kind::kTree, pid).status, STATUS_SUCCESS);
  }
  ASSERT_EQ(Get(Kind::kLogon, kMallory).status, STATUS_SUCCESS);

  world->ExitProcess(*powershell);
  EXPECT_FALSE(Cached(Kind::kProcess, 1200));
  EXPECT_FALSE(Cached(Kind::kTree, 1200));
  EXPECT_TRUE(Cached(Kind::kProcess, 1300));
  EXPECT_TRUE(Cached(Kind::kLogon, kMallory)) << "the session lives on";
  EXPECT_TRUE(HasMessageStarting(*world, "Del ProcCacheNode Pid:1200 "));
  EXPECT_TRUE(HasMessageStarting(*world, "Del ProcTreeCacheNode Pid:1200 "));

  world->ExitProcess(dwm);
  EXPECT_FALSE(Cached(Kind::kProcess, 1300));
  EXPECT_FALSE(Cached(Kind::kTree, 1300));
  EXPECT_FALSE(Cached(Kind::kLogon, kMallory)) << "dwm.exe in any case ends the session's package";
}

TEST_F(PackageCacheTest, APackageBuiltForAProcessWhoseExitWasSeenIsHandedOutButNotKept) {
  StartChain();
  // The exit notification has marked the process and dropped its packages; a builder that looked
  // the process up just before still finishes its package afterwards.
  world->AsSystem([&] {
    sk_SetProcInfoExited(&SentrelData.ProcessMgr, (HANDLE)1200, powershell->Process()->createTime);
    sk_DelProcInfoCache(&SentrelData.PackageCacheMgr, 1200);
    sk_DelProcTreeInfoCache(&SentrelData.PackageCacheMgr, 1200);
    return 0;
  });
  Bytes p = Get(Kind::kProcess, 1200);
  EXPECT_EQ(p.status, STATUS_SUCCESS);
  EXPECT_EQ(p.U32(0x0C), 1200u);
  EXPECT_EQ(Get(Kind::kTree, 1200).status, STATUS_SUCCESS);
  EXPECT_FALSE(Cached(Kind::kProcess, 1200)) << "it would describe the next process given id 1200";
  EXPECT_FALSE(Cached(Kind::kTree, 1200));
  EXPECT_TRUE(HasMessage(*world, "Pid:1200 exited while its package was built"));
}

TEST_F(PackageCacheTest, StringsTooLongForAPackageAreShortenedNeverMisaddressed) {
  // Two command lines of the longest kind Windows allows end far beyond what a 16-bit offset
  // reaches, and an event carrying the package would not fit a ring-buffer slot: the two share
  // what room the other strings leave.
  KnowSession();
  std::u16string creatorLine(ntsim::kMaxProcessParameterChars, u'c'), childLine(ntsim::kMaxProcessParameterChars, u'x');
  Create(3000, 4, u"C:\\Tools\\launcher.exe", creatorLine);
  Create(3100, 3000, u"C:\\Tools\\payload.exe", childLine);
  Bytes p = Get(Kind::kProcess, 3100);
  ASSERT_EQ(p.status, STATUS_SUCCESS);
  EXPECT_LE(p.data.size(), SK_PROC_INFO_PACKAGE_MAX);
  EXPECT_GT(p.data.size(), SK_PROC_INFO_PACKAGE_MAX - 16) << "the room is used";
  EXPECT_EQ(p.String(0x3C), u"C:\\Tools\\payload.exe");
  EXPECT_EQ(p.String(0x50), u"payload.exe");
  EXPECT_EQ(p.String(0x54), u"C:\\Users\\mallory\\");
  EXPECT_EQ(p.String(0x4C), u"C:\\Tools\\launcher.exe");
  EXPECT_EQ(p.String(0x44), u"SENTREL-LAB\\mallory");
  std::u16string cut = p.String(0x40), creatorCut = p.String(0x48);
  EXPECT_EQ(cut.size(), creatorCut.size()) << "both long strings are cut to one length";
  EXPECT_LT(cut.size(), childLine.size());
  EXPECT_EQ(cut, childLine.substr(0, cut.size()));
  EXPECT_EQ(creatorCut, creatorLine.substr(0, creatorCut.size()));
  EXPECT_TRUE(HasMessageStarting(*world, "PackProcInfo Pid:3100 strings shortened from 0x"));
  // The query carries it whole.
  Answer answer = Query(3100, SK_PACK_COMMON_INFO_MAX);
  EXPECT_EQ(answer.status, STATUS_SUCCESS);
}

TEST(PackStringsTest, TheLongestStringsShareTheRoomInWholeCharacters) {
  std::u16string shortText(10, u'a'), pairs;
  for (int i = 0; i < 100; ++i) pairs += u"\U0001F600";  // 100 surrogate pairs
  SK_STRING_REF refs[2] = {};
  auto fit = [&](ULONG budget) {
    SK_PACK_STRING strings[2] = {{reinterpret_cast<const WCHAR*>(shortText.data()), 20, &refs[0]},
                                 {reinterpret_cast<const WCHAR*>(pairs.data()), 400, &refs[1]}};
    BOOLEAN cut = sk_FitPackStrings(strings, 2, budget);
    return std::make_tuple(cut, strings[0].Length, strings[1].Length);
  };
  EXPECT_EQ(fit(420), std::make_tuple(BOOLEAN(FALSE), ULONG(20), ULONG(400)));
  EXPECT_EQ(fit(221), std::make_tuple(BOOLEAN(TRUE), ULONG(20), ULONG(200)));
  EXPECT_EQ(fit(223), std::make_tuple(BOOLEAN(TRUE), ULONG(20), ULONG(200))) << "no half of a pair is kept";
  EXPECT_EQ(fit(30), std::make_tuple(BOOLEAN(TRUE), ULONG(14), ULONG(12)));
  EXPECT_EQ(fit(0), std::make_tuple(BOOLEAN(TRUE), ULONG(0), ULONG(0)));
}

TEST_F(PackageCacheTest, EveryAllocationFailureOfABuildLeavesNothingCached) {
  StartChain();
  DropAll();  // what the creation reports built
  const Kind kinds[] = {Kind::kProcess, Kind::kLogon, Kind::kTree};
  for (Kind kind : kinds) {
    for (uint64_t n = 1;; ++n) {
      world->verifier().FailNth(n);
      Bytes b = Get(kind, kind == Kind::kLogon ? kMallory : 1200);
      bool injected = world->verifier().InjectedFailure();
      world->verifier().FailNth(0);
      if (!NT_SUCCESS(b.status)) {
        EXPECT_TRUE(injected) << n;
        EXPECT_EQ(Entries(kind), 0u) << "a failed build caches nothing (" << n << ")";
      }
      DropAll();
      if (!injected) break;
      ASSERT_LT(n, 100u);
    }
  }
  // The query, whose three builds fail in turn.
  for (uint64_t n = 1;; ++n) {
    world->verifier().FailNth(n);
    Answer answer = Query(1200, 0x10000);
    bool injected = world->verifier().InjectedFailure();
    world->verifier().FailNth(0);
    if (!NT_SUCCESS(answer.status)) {
      EXPECT_EQ(answer.buffer[0], 0xCC) << n;
    }
    DropAll();
    if (!injected) break;
    ASSERT_LT(n, 100u);
  }
  EXPECT_EQ(world->AsSystem(sk_UninitSentrelData), STATUS_SUCCESS);
  sentrel_test::ExpectNothingHeld(*world, "after the failures");
}

TEST_F(PackageCacheTest, BuildersOfOnePackageEndWithOneEntryAndNoLeak) {
  StartChain();
  DropAll();  // what the creation reports built
  for (int round = 0; round < 40; ++round) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    std::vector<std::vector<uint8_t>> seen(4);
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        ++ready;
        while (ready < 4) std::this_thread::yield();
        Bytes b = Get(t % 2 ? Kind::kTree : Kind::kProcess, 1200);
        EXPECT_EQ(b.status, STATUS_SUCCESS);
        seen[t] = b.data;
        EXPECT_EQ(Get(Kind::kLogon, kMallory).status, STATUS_SUCCESS);
      });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(Entries(Kind::kProcess), 1u);
    EXPECT_EQ(Entries(Kind::kTree), 1u);
    EXPECT_EQ(Entries(Kind::kLogon), 1u) << "one entry per key, whoever built it";
    EXPECT_EQ(seen[0], seen[2]);
    EXPECT_EQ(seen[1], seen[3]);
    DropAll();
  }
  EXPECT_EQ(world->AsSystem(sk_UninitSentrelData), STATUS_SUCCESS);
  sentrel_test::ExpectNothingHeld(*world, "after the builders");
}

TEST_F(PackageCacheTest, APackageDeletedWhileOthersCopyItStaysWholeUntilTheyAreDone) {
  StartChain();
  const std::vector<uint8_t> expected = Get(Kind::kProcess, 1200).data;
  ASSERT_FALSE(expected.empty());
  std::atomic<bool> stop{false};
  std::atomic<long> copies{0}, deletes{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!stop) {
        world->AsSystem([&] {
          PVOID package = nullptr;
          ULONG length = 0;
          if (NT_SUCCESS(sk_LookupProcInfoPack(&SentrelData.PackageCacheMgr, 1200, &package, &length))) {
            std::vector<uint8_t> copy(static_cast<uint8_t*>(package), static_cast<uint8_t*>(package) + length);
            std::this_thread::yield();  // the deleter gets its chance between lookup and copy end
            EXPECT_EQ(std::memcmp(package, expected.data(), expected.size()), 0);
            sk_ReleasePackage(package);
            EXPECT_EQ(copy, expected);
            ++copies;
          }
          return 0;
        });
      }
    });
  }
  threads.emplace_back([&] {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < end || deletes < 50) {
      world->AsSystem([&] {
        sk_DelProcInfoCache(&SentrelData.PackageCacheMgr, 1200);
        return 0;
      });
      ++deletes;
      EXPECT_EQ(Get(Kind::kProcess, 1200).data, expected);
    }
    stop = true;
  });
  for (std::thread& t : threads) t.join();
  EXPECT_GT(copies.load(), 0);
  EXPECT_EQ(world->AsSystem(sk_UninitSentrelData), STATUS_SUCCESS);
  sentrel_test::ExpectNothingHeld(*world, "after the race");
}

}  // namespace
