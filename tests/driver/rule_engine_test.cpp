// The rule engine as a reporter meets it: patterns added per event type and paths matched against
// them, the pattern language's matches and refusals, the conversions into the form each event type
// carries, the slots closed by a delete, failures that leave the rules as they were, and matches
// that run while the rules are deleted.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "../sim/host_thread.h"
#include "core/pool_tags.h"
#include "path_test_support.h"
#include "rules/rule_mgr.h"

using namespace sentrel_test;

namespace {

const SK_EVENT_TYPE kRegistry = ET_REGISTRY_KEY_CREATE;  // a type whose patterns are not converted

class RuleEngineTest : public StartedDriverTest {
 protected:
  void SetUp() override {
    StartedDriverTest::SetUp();
    TraceLevel |= SK_TRACE_RULE;
    defaultNodes = Blocks(SK_TAG_PATH_RULE_NODE);
    defaultIndexes = Blocks(SK_TAG_RULE_INDEX);
    Init();
  }
  void TearDown() override {
    Uninit();
    StartedDriverTest::TearDown();
  }
  void Init() {
    world.AsSystem([&] { return sk_InitRuleMgr(mgr.get()); });
  }
  void Uninit() {
    world.AsSystem([&] { return sk_UninitRuleMgr(mgr.get()); });
  }
  NTSTATUS Add(SK_EVENT_TYPE type, const std::u16string& pattern) {
    UNICODE_STRING s = Counted(pattern);
    return world.AsSystem([&] { return sk_AddRule(mgr.get(), type, &s); });
  }
  NTSTATUS Match(SK_EVENT_TYPE type, const std::u16string& path) {
    UNICODE_STRING s = Counted(path);
    return world.AsSystem([&] { return sk_MatchRule(mgr.get(), type, &s); });
  }
  bool Matches(SK_EVENT_TYPE type, const std::u16string& path) {
    NTSTATUS status = Match(type, path);
    EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_NOT_FOUND) << std::hex << status;
    return status == STATUS_SUCCESS;
  }
  ULONG Count(SK_EVENT_TYPE type) {
    const PathRuleMgr& rules = mgr->Slots[type].Rules;
    return rules.ForwardCount + rules.ReverseCount;
  }
  size_t Blocks(ULONG tag) {
    size_t n = 0;
    for (const ntsim::PoolBlock& block : world.kernel().pool.Outstanding()) n += block.tag == tag;
    return n;
  }
  // The trie nodes and indexes of the manager under test: those of SentrelData's own rule sets
  // are left out.
  size_t Nodes() { return Blocks(SK_TAG_PATH_RULE_NODE) - defaultNodes; }
  size_t Indexes() { return Blocks(SK_TAG_RULE_INDEX) - defaultIndexes; }

  size_t defaultNodes = 0;
  size_t defaultIndexes = 0;

  std::unique_ptr<RuleMgr> mgr = std::make_unique<RuleMgr>();
};

std::u16string Utf16(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

TEST_F(RuleEngineTest, SuffixRulesNameTheLastComponentsInAnyCase) {
  ASSERT_EQ(Add(kRegistry, u"*\\cmd.exe"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\Device\\HarddiskVolume3\\Windows\\System32\\CMD.EXE"));
  EXPECT_TRUE(Matches(kRegistry, u"\\??\\C:\\Tools\\Cmd.Exe"));
  EXPECT_TRUE(Matches(kRegistry, u"\\??\\C:\\Tools\\cmd.exe\\"));  // one trailing backslash is ignored
  EXPECT_FALSE(Matches(kRegistry, u"\\??\\C:\\Tools\\cmd.exe\\x"));
  EXPECT_FALSE(Matches(kRegistry, u"\\??\\C:\\Tools\\xcmd.exe"));
  EXPECT_FALSE(Matches(kRegistry, u"\\??\\C:\\Tools\\cmd.ex"));

  // Several components, counted from the end.
  ASSERT_EQ(Add(kRegistry, u"*\\Microsoft\\Windows\\CurrentVersion\\Run"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\REGISTRY\\MACHINE\\SOFTWARE\\microsoft\\windows\\currentversion\\run"));
  EXPECT_FALSE(Matches(kRegistry, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\RunOnce"));
  EXPECT_FALSE(Matches(kRegistry, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run\\x"));
  EXPECT_FALSE(Matches(kRegistry, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Windows\\CurrentVersion\\Run"));

  // Reached from the end, a path's first component keeps its leading backslash, which no stored
  // component has: a rule spanning all of such a path never matches it.
  EXPECT_FALSE(Matches(kRegistry, u"\\cmd.exe"));
  EXPECT_TRUE(Matches(kRegistry, u"cmd.exe"));
  ASSERT_EQ(Add(kRegistry, u"*\\Device\\x"), STATUS_SUCCESS);
  EXPECT_FALSE(Matches(kRegistry, u"\\Device\\x"));
  EXPECT_TRUE(Matches(kRegistry, u"\\y\\Device\\x"));

  // Nothing after the first component is special: a star, a "$clsid", are text to be matched,
  // except that a rule whose rest is one star ends there.
  ASSERT_EQ(Add(kRegistry, u"*\\Classes\\CLSID\\$clsid\\InprocServer32"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\CLSID\\$CLSID\\InprocServer32"));
  EXPECT_FALSE(Matches(kRegistry, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\CLSID\\{0A}\\InprocServer32"));
  ASSERT_EQ(Add(kRegistry, u"*\\Pipes\\*"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\x\\Pipes\\*"));
  EXPECT_FALSE(Matches(kRegistry, u"\\x\\Pipes\\srvsvc"));
  const ULONG before = Count(kRegistry);
  ASSERT_EQ(Add(kRegistry, u"*\\*\\rundll32.exe"), STATUS_SUCCESS);  // the rule *\rundll32.exe
  EXPECT_TRUE(Matches(kRegistry, u"\\a\\b\\rundll32.exe"));
  EXPECT_TRUE(Matches(kRegistry, u"b\\RUNDLL32.exe"));
  EXPECT_EQ(Count(kRegistry), before + 1);

  // A run of backslashes is a run of empty components, each matched by an empty one.
  ASSERT_EQ(Add(kRegistry, u"*\\\\\\X"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\a\\\\\\x"));
  EXPECT_FALSE(Matches(kRegistry, u"\\a\\b\\x"));
}

TEST_F(RuleEngineTest, PrefixRulesNameAPathAndEverythingBelowIt) {
  ASSERT_EQ(Add(kRegistry, u"\\REGISTRY\\USER\\*"), STATUS_SUCCESS);
  ASSERT_EQ(Add(kRegistry, u"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES"), STATUS_SUCCESS);
  for (const char16_t* path : {u"\\REGISTRY\\USER", u"\\REGISTRY\\USER\\", u"\\REGISTRY\\USER\\S-1-5-18",
                               u"\\registry\\user\\S-1-5-18\\Software\\x", u"REGISTRY\\USER\\.DEFAULT",
                               u"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES", u"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\.txt"}) {
    EXPECT_TRUE(Matches(kRegistry, path)) << ntsim::ToUtf8(path);
  }
  for (const char16_t* path : {u"\\REGISTRY", u"\\REGISTRY\\USERS\\S-1-5-18", u"\\REGISTRY\\MACHINE",
                               u"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSESX", u"\\REGISTRY\\MACHINE\\SOFTWARE", u"",
                               u"\\", u"\\USER\\REGISTRY"}) {
    EXPECT_FALSE(Matches(kRegistry, path)) << ntsim::ToUtf8(path);
  }

  // A star glued to a name is part of it; a doubled backslash adds no component, in a rule or in
  // a path.
  ASSERT_EQ(Add(kRegistry, u"\\A\\B*"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\A\\B*\\c"));
  EXPECT_FALSE(Matches(kRegistry, u"\\A\\B"));
  EXPECT_FALSE(Matches(kRegistry, u"\\A\\Bc"));
  ASSERT_EQ(Add(kRegistry, u"\\P\\\\Q"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\P\\Q\\r"));
  EXPECT_TRUE(Matches(kRegistry, u"\\P\\\\Q"));
  // The walk stops at the first rule met: a longer rule below a shorter one changes nothing.
  ASSERT_EQ(Add(kRegistry, u"\\REGISTRY\\USER\\S-1-5-18\\Software"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(kRegistry, u"\\REGISTRY\\USER\\S-1-5-19"));
}

TEST_F(RuleEngineTest, PatternsTheLanguageRefusesAddNothing) {
  for (const char16_t* pattern : {u"*cmd.exe", u"*", u"\\", u"\\A\\*\\B", u"\\A\\**", u"*A", u"A*B"}) {
    EXPECT_EQ(Add(kRegistry, pattern), STATUS_INVALID_PARAMETER) << ntsim::ToUtf8(pattern);
  }
  EXPECT_EQ(Add(kRegistry, u""), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(HasMessage(world, "Invalid Parameter"));
  EXPECT_TRUE(HasMessage(world, "skt_AddPathRule fail Status:c000000d"));
  EXPECT_EQ(Count(kRegistry), 0u);
  EXPECT_EQ(Nodes(), 0u);
  EXPECT_FALSE(Matches(kRegistry, u"\\A\\x\\B"));
  EXPECT_FALSE(Matches(kRegistry, u"\\cmd.exe"));
}

TEST_F(RuleEngineTest, EventTypesAreTheTwentySlots) {
  // A type without rules is answered without any trie behind it.
  EXPECT_EQ(Match(ET_IMAGE_LOAD, u"\\??\\C:\\x.dll"), STATUS_NOT_FOUND);
  EXPECT_EQ(mgr->Slots[ET_IMAGE_LOAD].Flags, 0);
  EXPECT_EQ(Nodes(), 0u);

  EXPECT_EQ(Add(19, u"*\\x"), STATUS_SUCCESS);
  EXPECT_EQ(Match(19, u"\\a\\x"), STATUS_SUCCESS);
  for (SK_EVENT_TYPE type : {20u, 0xFFFFFFFFu, 0x80000000u}) {
    EXPECT_EQ(Add(type, u"*\\x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Match(type, u"\\a\\x"), STATUS_INVALID_PARAMETER);
  }
  // Rules of one type do not answer for another.
  EXPECT_EQ(Match(18, u"\\a\\x"), STATUS_NOT_FOUND);
  EXPECT_EQ(world.AsSystem([&] { return sk_MatchRule(mgr.get(), 19, nullptr); }), STATUS_INVALID_PARAMETER);

  // A manager that is not started refuses both.
  Uninit();
  EXPECT_TRUE(HasMessage(world, "Del All Rule"));
  EXPECT_EQ(Add(19, u"*\\y"), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(HasMessage(world, "Rule Mgr no Inited"));
  EXPECT_EQ(Match(19, u"\\a\\x"), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(Nodes(), 0u);
  Init();
  EXPECT_TRUE(HasMessage(world, "RuleMgr Init Success"));
  Init();
  EXPECT_TRUE(HasMessage(world, "Rule Mgr Already Inited"));
}

TEST_F(RuleEngineTest, ARuleAddedTwiceCountsTwiceAndIsStoredOnce) {
  ASSERT_EQ(Add(kRegistry, u"\\REGISTRY\\MACHINE\\System\\CurrentControlSet\\Services\\*"), STATUS_SUCCESS);
  ASSERT_EQ(Add(kRegistry, u"*\\Shell\\Open\\Command"), STATUS_SUCCESS);
  size_t nodes = Nodes();
  EXPECT_EQ(nodes, 5u + 3u);
  ASSERT_EQ(Add(kRegistry, u"\\REGISTRY\\MACHINE\\SYSTEM\\CURRENTCONTROLSET\\SERVICES"), STATUS_SUCCESS);
  ASSERT_EQ(Add(kRegistry, u"*\\shell\\open\\command"), STATUS_SUCCESS);
  EXPECT_EQ(Nodes(), nodes);
  EXPECT_EQ(mgr->Slots[kRegistry].Rules.ForwardCount, 2u);
  EXPECT_EQ(mgr->Slots[kRegistry].Rules.ReverseCount, 2u);
  // A shorter rule on the way of a longer one marks a node that exists already.
  ASSERT_EQ(Add(kRegistry, u"\\REGISTRY\\MACHINE"), STATUS_SUCCESS);
  EXPECT_EQ(Nodes(), nodes);
  EXPECT_TRUE(Matches(kRegistry, u"\\REGISTRY\\MACHINE\\HARDWARE"));
}

TEST_F(RuleEngineTest, ManyChildrenOfOneNodeAreEachFound) {
  // Hundreds of program names hang from the reverse trie's root and grow its index several times.
  for (int i = 0; i < 700; ++i) ASSERT_EQ(Add(ET_PROCESS_CREATE, u"*\\tool" + Utf16(std::to_string(i)) + u".exe"), STATUS_SUCCESS);
  for (int i = 0; i < 700; ++i) {
    EXPECT_TRUE(Matches(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\t\\TOOL" + Utf16(std::to_string(i)) + u".EXE")) << i;
  }
  EXPECT_FALSE(Matches(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\t\\tool700.exe"));
  EXPECT_FALSE(Matches(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\t\\tool.exe"));
  EXPECT_EQ(Indexes(), 1u);
}

TEST_F(RuleEngineTest, DeletingAllRulesClosesTheSlotsThatHadRules) {
  ASSERT_EQ(Add(kRegistry, u"\\REGISTRY\\USER\\*"), STATUS_SUCCESS);
  ASSERT_EQ(Add(ET_NAMED_PIPE_CONNECT, u"*\\srvsvc"), STATUS_SUCCESS);
  world.AsSystem([&] {
    sk_DelAllRule(mgr.get());
    return 0;
  });
  EXPECT_EQ(Nodes(), 0u);
  EXPECT_EQ(Indexes(), 0u);
  EXPECT_FALSE(Matches(kRegistry, u"\\REGISTRY\\USER\\S-1-5-18"));
  EXPECT_EQ(Add(kRegistry, u"\\REGISTRY\\USER\\*"), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(HasMessage(world, "skt_InitPathRuleMgr fail Status:c000009a"));
  EXPECT_EQ(Add(ET_NAMED_PIPE_CONNECT, u"*\\wkssvc"), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_FALSE(Matches(ET_NAMED_PIPE_CONNECT, u"\\Device\\NamedPipe\\wkssvc"));

  // A type that had no rules is still open, also to a second delete.
  ASSERT_EQ(Add(ET_NAMED_PIPE_CREATE, u"*\\lsass"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(ET_NAMED_PIPE_CREATE, u"\\Device\\NamedPipe\\lsass"));
  world.AsSystem([&] {
    sk_DelAllRule(mgr.get());
    return 0;
  });
  EXPECT_FALSE(Matches(ET_NAMED_PIPE_CREATE, u"\\Device\\NamedPipe\\lsass"));
  EXPECT_EQ(Add(ET_NAMED_PIPE_CREATE, u"*\\lsass"), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(Add(ET_SCRIPT_EXECUTE, u"*\\a.ps1"), STATUS_SUCCESS);
  EXPECT_EQ(Nodes(), 1u);

  // The closed slots open again only with a new start of the manager.
  Uninit();
  Init();
  EXPECT_EQ(Add(kRegistry, u"\\REGISTRY\\USER\\*"), STATUS_SUCCESS);
}

TEST_F(RuleEngineTest, SystemRootPatternsTakeTheFormOfTheirEventType) {
  const size_t blocks = Blocks(SK_TAG_STRING_BLOCK);
  // Process creation compares NT paths, image loads DOS paths.
  ASSERT_EQ(Add(ET_PROCESS_CREATE, u"\\SystemRoot\\*"), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "Convert DosPath Rule To NtPath Rule"));
  EXPECT_TRUE(HasMessage(world, "\\SystemRoot\\* -> \\Device\\HarddiskVolume3\\Windows\\*"));
  EXPECT_TRUE(Matches(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe"));
  EXPECT_TRUE(Matches(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\WINDOWS\\explorer.exe"));
  EXPECT_FALSE(Matches(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume5\\Data\\cmd.exe"));
  EXPECT_FALSE(Matches(ET_PROCESS_CREATE, u"\\??\\C:\\Windows\\System32\\cmd.exe"));

  ASSERT_EQ(Add(ET_IMAGE_LOAD, u"\\systemroot\\System32\\*"), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "\\systemroot\\System32\\* -> \\??\\C:\\Windows\\System32\\*"));
  EXPECT_TRUE(Matches(ET_IMAGE_LOAD, u"\\??\\C:\\Windows\\System32\\ntdll.dll"));
  EXPECT_FALSE(Matches(ET_IMAGE_LOAD, u"\\??\\C:\\Windows\\explorer.exe"));
  EXPECT_FALSE(Matches(ET_IMAGE_LOAD, u"\\Device\\HarddiskVolume3\\Windows\\System32\\ntdll.dll"));

  // Other patterns of NT-path types name a file or folder, which must exist.
  ASSERT_EQ(Add(ET_PROCESS_ACCESS, u"\\??\\C:\\Windows\\System32\\notepad.exe"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(ET_PROCESS_ACCESS, u"\\Device\\HarddiskVolume3\\Windows\\System32\\NOTEPAD.EXE"));
  EXPECT_FALSE(Matches(ET_PROCESS_ACCESS, u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe"));
  ASSERT_EQ(Add(ET_FILE_CREATE, u"\\??\\D:\\Data\\*"), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "\\??\\D:\\Data\\* -> \\Device\\HarddiskVolume5\\Data\\*"));
  EXPECT_TRUE(Matches(ET_FILE_CREATE, u"\\Device\\HarddiskVolume5\\Data\\report.txt"));
  ASSERT_EQ(Add(ET_REMOTE_THREAD_CREATE, u"\\??\\D:\\*"), STATUS_SUCCESS);  // a root keeps its one backslash
  EXPECT_TRUE(HasMessage(world, "\\??\\D:\\* -> \\Device\\HarddiskVolume5\\*"));
  EXPECT_TRUE(Matches(ET_REMOTE_THREAD_CREATE, u"\\Device\\HarddiskVolume5\\anything.exe"));
  EXPECT_EQ(Add(ET_PROCESS_CREATE, u"\\??\\C:\\Windows\\System32\\missing.exe"), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_TRUE(HasMessage(world, "skt_QueryNtPath fail Status:c0000034"));
  EXPECT_EQ(Add(ET_PROCESS_CREATE, u"\\??\\C:\\Missing\\*"), STATUS_OBJECT_NAME_NOT_FOUND);
  // Suffix patterns and patterns of other types are taken as they are.
  ASSERT_EQ(Add(ET_PROCESS_CREATE, u"*\\missing.exe"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume9\\missing.exe"));
  ASSERT_EQ(Add(ET_NAMED_PIPE_CREATE, u"\\Device\\NamedPipe\\x"), STATUS_SUCCESS);
  EXPECT_TRUE(Matches(ET_NAMED_PIPE_CREATE, u"\\Device\\NamedPipe\\x"));

  // Without a drive letter for the system volume no DOS path lies below the system root.
  PUNICODE_STRING dosRoot = SentrelData.SystemRootDosPath;
  SentrelData.SystemRootDosPath = nullptr;
  EXPECT_EQ(Add(ET_DRIVER_LOAD, u"\\SystemRoot\\*"), STATUS_OBJECT_PATH_NOT_FOUND);
  SentrelData.SystemRootDosPath = dosRoot;
  EXPECT_EQ(Blocks(SK_TAG_STRING_BLOCK), blocks) << "the converted patterns are freed";
}

TEST_F(RuleEngineTest, PathsSplitFromTheirEndAndFromTheirStart) {
  struct Case {
    const char16_t* path;
    const char16_t* first;
    const char16_t* remaining;
  };
  for (const Case& c : {Case{u"", u"", u""}, Case{u"\\", u"", u""}, Case{u"A", u"A", u""}, Case{u"A\\", u"A", u""},
                        Case{u"\\A", u"\\A", u""}, Case{u"\\A\\", u"\\A", u""}, Case{u"\\A\\B", u"B", u"\\A"},
                        Case{u"\\A\\B\\", u"B", u"\\A"}, Case{u"A\\\\B", u"B", u"A\\"}, Case{u"\\\\", u"\\", u""},
                        Case{u"A\\\\", u"", u"A"}, Case{u"\\A\\B\\C.exe", u"C.exe", u"\\A\\B"}}) {
    std::u16string text = c.path;
    UNICODE_STRING path = Counted(text), first, remaining;
    skt_DissectLastName(&path, &first, &remaining);
    EXPECT_EQ(Text(&first), c.first) << ntsim::ToUtf8(text);
    EXPECT_EQ(Text(&remaining), c.remaining) << ntsim::ToUtf8(text);
    if (first.Length) {
      EXPECT_GE(first.Buffer, path.Buffer) << "the names point into the path";
    }
  }

  // From their start, as FsRtlDissectName splits them (its reference page's examples), and as the
  // simulated kernel's FsRtlDissectName does.
  for (const Case& c : {Case{u"", u"", u""}, Case{u"A", u"A", u""}, Case{u"A\\B\\C\\D\\E", u"A", u"B\\C\\D\\E"},
                        Case{u"*A?", u"*A?", u""}, Case{u"\\A", u"A", u""}, Case{u"A[,]", u"A[,]", u""},
                        Case{u"A\\\\B+;\\C", u"A", u"\\B+;\\C"}, Case{u"\\", u"", u""}, Case{u"A\\", u"A", u""},
                        Case{u"\\\\A", u"", u"A"}}) {
    std::u16string text = c.path;
    UNICODE_STRING path = Counted(text), first, remaining, kernelFirst, kernelRemaining;
    skt_DissectFirstName(&path, &first, &remaining);
    EXPECT_EQ(Text(&first), c.first) << ntsim::ToUtf8(text);
    EXPECT_EQ(Text(&remaining), c.remaining) << ntsim::ToUtf8(text);
    FsRtlDissectName(path, &kernelFirst, &kernelRemaining);
    EXPECT_EQ(Text(&first), Text(&kernelFirst)) << ntsim::ToUtf8(text);
    EXPECT_EQ(Text(&remaining), Text(&kernelRemaining)) << ntsim::ToUtf8(text);
  }

  BOOLEAN suffix = FALSE;
  std::u16string text = u"*x";
  UNICODE_STRING pattern = Counted(text);
  EXPECT_EQ(skt_CheckPathRule(&pattern, &suffix), STATUS_SUCCESS);
  EXPECT_TRUE(suffix);
  text = u"\\A\\*";
  pattern = Counted(text);
  EXPECT_EQ(skt_CheckPathRule(&pattern, &suffix), STATUS_SUCCESS);
  EXPECT_FALSE(suffix);
  text = u"\\*\\*";
  pattern = Counted(text);
  EXPECT_EQ(skt_CheckPathRule(&pattern, &suffix), STATUS_INVALID_PARAMETER);
}

TEST_F(RuleEngineTest, AFailedAddLeavesTheRulesMatchingAsBefore) {
  // Thirty-odd nodes already: the adds below grow the index from its first size.
  auto prepare = [&] {
    Init();
    for (int i = 0; i < 10; ++i) ASSERT_EQ(Add(kRegistry, u"\\R\\k" + Utf16(std::to_string(i)) + u"\\a\\b"), STATUS_SUCCESS);
    ASSERT_EQ(Add(kRegistry, u"*\\Run"), STATUS_SUCCESS);
  };
  auto finish = [&] {
    // Whatever failed, the earlier rules answer as before and nothing half-added matches.
    EXPECT_TRUE(Matches(kRegistry, u"\\R\\k3\\a\\b\\c"));
    EXPECT_TRUE(Matches(kRegistry, u"\\x\\Run"));
    EXPECT_FALSE(Matches(kRegistry, u"\\R\\k3\\a"));
    Uninit();
  };
  std::vector<NTSTATUS> seen;
  EachFailure(
      [&](uint64_t) {
        const std::u16string prefixText = u"\\R\\new\\one\\two\\three\\four\\five\\six\\seven\\eight\\nine\\ten\\*";
        const std::u16string suffixText = u"*\\Policies\\Explorer\\Run";
        const std::u16string convertedText = u"\\SystemRoot\\System32\\*";
        const std::u16string newPath = u"\\R\\new\\one\\two\\three\\four\\five\\six\\seven\\eight\\nine\\ten\\x";
        const std::u16string runPath = u"\\HKCU\\Policies\\Explorer\\Run";
        const std::u16string cmdPath = u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe";
        UNICODE_STRING prefix = Counted(prefixText);
        UNICODE_STRING suffix = Counted(suffixText);
        UNICODE_STRING converted = Counted(convertedText);
        const std::u16string fileText = u"\\??\\C:\\Windows\\System32\\notepad.exe";
        const std::u16string folderText = u"\\??\\D:\\Data\\*";
        UNICODE_STRING file = Counted(fileText);
        UNICODE_STRING folder = Counted(folderText);
        NTSTATUS a = sk_AddRule(mgr.get(), kRegistry, &prefix);
        NTSTATUS b = sk_AddRule(mgr.get(), kRegistry, &suffix);
        NTSTATUS c = sk_AddRule(mgr.get(), ET_PROCESS_CREATE, &converted);
        // The opens behind these conversions fail with the status of what could not be had.
        NTSTATUS d = sk_AddRule(mgr.get(), ET_PROCESS_ACCESS, &file);
        NTSTATUS e = sk_AddRule(mgr.get(), ET_FILE_CREATE, &folder);
        for (NTSTATUS status : {a, b, c, d, e}) {
          EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES) << std::hex << status;
          seen.push_back(status);
        }
        UNICODE_STRING path = Counted(newPath);
        EXPECT_EQ(sk_MatchRule(mgr.get(), kRegistry, &path), a == STATUS_SUCCESS ? STATUS_SUCCESS : STATUS_NOT_FOUND);
        path = Counted(runPath);
        EXPECT_EQ(sk_MatchRule(mgr.get(), kRegistry, &path), STATUS_SUCCESS);  // *\Run holds in any case
        path = Counted(cmdPath);
        EXPECT_EQ(sk_MatchRule(mgr.get(), ET_PROCESS_CREATE, &path), c == STATUS_SUCCESS ? STATUS_SUCCESS : STATUS_NOT_FOUND);
        const std::u16string notepad = u"\\Device\\HarddiskVolume3\\Windows\\System32\\notepad.exe";
        const std::u16string report = u"\\Device\\HarddiskVolume5\\Data\\report.txt";
        path = Counted(notepad);
        EXPECT_EQ(sk_MatchRule(mgr.get(), ET_PROCESS_ACCESS, &path), d == STATUS_SUCCESS ? STATUS_SUCCESS : STATUS_NOT_FOUND);
        path = Counted(report);
        EXPECT_EQ(sk_MatchRule(mgr.get(), ET_FILE_CREATE, &path), e == STATUS_SUCCESS ? STATUS_SUCCESS : STATUS_NOT_FOUND);
      },
      prepare, finish);
  EXPECT_NE(std::count(seen.begin(), seen.end(), STATUS_INSUFFICIENT_RESOURCES), 0);
  EXPECT_TRUE(HasMessage(world, "skt_AddPathRule fail Status:c000009a"));
  EXPECT_TRUE(HasMessage(world, "NtPathRule alloc fail Status:c000009a"));
  EXPECT_TRUE(HasMessage(world, "skt_QueryNtPath fail Status:c000009a"));
  Init();  // for the fixture's own stop
}

TEST_F(RuleEngineTest, MatchesRunningWhileTheRulesAreDeletedNeverSeeFreedTries) {
  // Each round a fresh manager is filled, matched by several threads at once (one of them also
  // adding), and deleted while they run. A match sees the rules or no rules, an add succeeds or
  // meets a closed slot; the sanitizers see every touch of a freed trie.
  constexpr int kRounds = 12;
  std::vector<std::unique_ptr<RuleMgr>> managers;
  std::atomic<RuleMgr*> current{nullptr};
  std::atomic<bool> stop{false};
  std::atomic<long> matched{0}, missed{0}, odd{0};
  for (int r = 0; r < kRounds; ++r) managers.push_back(std::make_unique<RuleMgr>());
  {
    std::vector<std::unique_ptr<sim_test::HostThread>> threads;
    for (int t = 0; t < 3; ++t) {
      threads.push_back(std::make_unique<sim_test::HostThread>([&, t] {
        const std::u16string hitText = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run\\x";
        const std::u16string suffixHitText = u"\\Device\\HarddiskVolume3\\Windows\\System32\\CMD.exe";
        const std::u16string extraText = u"\\REGISTRY\\MACHINE\\SYSTEM\\Setup\\*";
        UNICODE_STRING hit = Counted(hitText);
        UNICODE_STRING suffixHit = Counted(suffixHitText);
        UNICODE_STRING extra = Counted(extraText);
        while (!stop.load()) {
          RuleMgr* m = current.load();
          if (!m) continue;
          world.AsSystem([&] {
            for (int i = 0; i < 20; ++i) {
              NTSTATUS a = sk_MatchRule(m, kRegistry, &hit);
              NTSTATUS b = sk_MatchRule(m, ET_PROCESS_CREATE, &suffixHit);
              for (NTSTATUS s : {a, b}) {
                if (s == STATUS_SUCCESS) ++matched;
                else if (s == STATUS_NOT_FOUND) ++missed;
                else ++odd;
              }
              if (t == 0) {
                NTSTATUS s = sk_AddRule(m, kRegistry, &extra);
                if (s != STATUS_SUCCESS && s != STATUS_INSUFFICIENT_RESOURCES) ++odd;
              }
            }
            return 0;
          });
        }
      }));
    }
    for (int r = 0; r < kRounds; ++r) {
      RuleMgr* m = managers[r].get();
      world.AsSystem([&] {
        sk_InitRuleMgr(m);
        const std::u16string runText = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run\\*";
        const std::u16string cmdText = u"*\\cmd.exe";
        UNICODE_STRING run = Counted(runText);
        UNICODE_STRING cmd = Counted(cmdText);
        for (int i = 0; i < 50; ++i) {
          std::u16string filler = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Vendor" + Utf16(std::to_string(i)) + u"\\*";
          UNICODE_STRING f = Counted(filler);
          sk_AddRule(m, kRegistry, &f);
        }
        sk_AddRule(m, kRegistry, &run);
        sk_AddRule(m, ET_PROCESS_CREATE, &cmd);
        return 0;
      });
      current.store(m);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      world.AsSystem([&] {
        sk_DelAllRule(m);
        return 0;
      });
    }
    current.store(nullptr);
    stop.store(true);
  }
  for (auto& m : managers) world.AsSystem([&] { return sk_UninitRuleMgr(m.get()); });
  EXPECT_GT(matched.load(), 0);
  EXPECT_GT(missed.load(), 0);
  EXPECT_EQ(odd.load(), 0);
  EXPECT_EQ(Nodes(), 0u);
}

}  // namespace
