// The white and black rule sets after start-up, as the reporters ask them: the rules each built-in
// list puts in each event type's slot, the programs, DLLs and registry places they single out or
// let pass, the per-user rules made for each user hive loaded at start, their print lines, the
// order of start and stop, and the built-in lists' failures, which never stop the start.
#include <gtest/gtest.h>

#include "core/pool_tags.h"
#include "path_test_support.h"
#include "rules/default_rules.h"
#include "rules/rule_sets.h"

using namespace sentrel_test;

namespace {

const std::u16string kUser = ntsim::World::LoggedOnUserSid();
// The hives of \REGISTRY\USER that get the per-user rules: all but the user's classes hive.
const std::u16string kHives[] = {u".DEFAULT", u"S-1-5-18", u"S-1-5-19", u"S-1-5-20", kUser};
const SK_EVENT_TYPE kRegistryTypes[] = {ET_REGISTRY_KEY_CREATE, ET_REGISTRY_KEY_MODIFY, ET_REGISTRY_VALUE_CREATE,
                                        ET_REGISTRY_VALUE_MODIFY};

class RuleSetsTest : public StartedDriverTest {
 protected:
  NTSTATUS Black(SK_EVENT_TYPE type, const std::u16string& path) {
    UNICODE_STRING s = Counted(path);
    return world.AsSystem([&] { return sk_MatchBlackRule(&SentrelData.BlackRuleMgr, type, &s); });
  }
  NTSTATUS White(SK_EVENT_TYPE type, const std::u16string& path) {
    UNICODE_STRING s = Counted(path);
    return world.AsSystem([&] { return sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, type, &s); });
  }
  // Starts SentrelData again with these log modules on.
  void Restart(ULONG traceLevel) {
    ASSERT_EQ(Stop(), STATUS_SUCCESS);
    world.debug().Clear();
    TraceLevel = traceLevel;
    ASSERT_EQ(Start(), STATUS_SUCCESS);
  }
  size_t LinesContaining(const std::string& text) {
    size_t n = 0;
    for (const std::string& m : Messages(world)) n += m.find(text) != std::string::npos;
    return n;
  }
  size_t IndexOf(const std::string& text) {
    std::vector<std::string> messages = Messages(world);
    for (size_t i = 0; i < messages.size(); ++i) {
      if (messages[i].find(text) != std::string::npos) return i;
    }
    return SIZE_MAX;
  }
};

struct SlotCount {
  ULONG forward;
  ULONG reverse;
};

SlotCount CountOf(const RuleMgr& mgr, SK_EVENT_TYPE type) {
  return {mgr.Slots[type].Rules.ForwardCount, mgr.Slots[type].Rules.ReverseCount};
}

TEST_F(RuleSetsTest, EachSlotHoldsWhatTheBuiltInListsPutThere) {
  const RuleMgr& black = SentrelData.BlackRuleMgr;
  const RuleMgr& white = SentrelData.WhiteRuleMgr;
  auto expect = [](const RuleMgr& mgr, SK_EVENT_TYPE type, ULONG forward, ULONG reverse) {
    SlotCount c = CountOf(mgr, type);
    EXPECT_EQ(c.forward, forward) << "event type " << type;
    EXPECT_EQ(c.reverse, reverse) << "event type " << type;
    EXPECT_EQ(mgr.Slots[type].Flags, forward + reverse ? SK_RULE_NODE_INITED : 0) << "event type " << type;
  };
  // Black: 84 programs and 5 DLLs, all suffixes. The registry list, 25 suffixes and 177 prefixes
  // (its duplicates counted), goes to each registry type, and so do the 63 per-user templates for
  // each of the 5 user hives, all prefixes.
  ASSERT_EQ(std::size(kHives), 5u);
  for (SK_EVENT_TYPE type = 0; type < SK_RULE_SLOT_COUNT; ++type) {
    if (type == ET_PROCESS_CREATE) expect(black, type, 0, 84);
    else if (type == ET_IMAGE_LOAD) expect(black, type, 0, 5);
    else if (type >= ET_REGISTRY_KEY_CREATE && type <= ET_REGISTRY_VALUE_MODIFY) expect(black, type, 177 + 63 * 5, 25);
    else expect(black, type, 0, 0);
  }
  // White: 36 rules, the twice-listed Tcpip parameters counted twice.
  const SlotCount whiteCounts[SK_RULE_SLOT_COUNT] = {
      {0, 0}, {0, 0}, {1, 10}, {0, 0}, {1, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0},
      {15, 1}, {2, 0}, {1, 0}, {3, 0}, {0, 0}, {0, 2}, {0, 0}, {0, 0}, {0, 0}, {0, 0},
  };
  ULONG total = 0;
  for (SK_EVENT_TYPE type = 0; type < SK_RULE_SLOT_COUNT; ++type) {
    expect(white, type, whiteCounts[type].forward, whiteCounts[type].reverse);
    total += whiteCounts[type].forward + whiteCounts[type].reverse;
  }
  EXPECT_EQ(total, 36u);
}

TEST_F(RuleSetsTest, BlackRulesSingleOutRiskyProgramsDllsAndRegistryPlaces) {
  for (const char16_t* path : {u"\\Device\\HarddiskVolume3\\Windows\\System32\\calc.exe",
                               u"\\Device\\HarddiskVolume5\\Data\\calc.exe", u"\\Device\\HarddiskVolume3\\calc.exe",
                               u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe\\calc.exe"}) {
    EXPECT_EQ(Black(ET_PROCESS_CREATE, path), STATUS_NOT_FOUND) << ntsim::ToUtf8(path);
  }
  for (const char16_t* path : {u"\\Device\\HarddiskVolume3\\Windows\\System32\\Cmd.EXE",
                               u"\\Device\\HarddiskVolume5\\Tools\\POWERSHELL.exe",
                               u"\\Device\\Mup\\server\\share\\tools\\psexec.exe",
                               u"\\Device\\HarddiskVolume3\\Program Files\\Microsoft Office\\EQNEDT32.EXE"}) {
    EXPECT_EQ(Black(ET_PROCESS_CREATE, path), STATUS_SUCCESS) << ntsim::ToUtf8(path);
  }
  EXPECT_EQ(Black(ET_IMAGE_LOAD, u"\\??\\C:\\Windows\\System32\\HID.DLL"), STATUS_SUCCESS);
  EXPECT_EQ(Black(ET_IMAGE_LOAD, u"\\??\\C:\\Windows\\System32\\vaultcli.dll"), STATUS_SUCCESS);
  EXPECT_EQ(Black(ET_IMAGE_LOAD, u"\\??\\C:\\Windows\\System32\\kernel32.dll"), STATUS_NOT_FOUND);
  EXPECT_TRUE(HasMessage(world, "Add ET_PROCESS_CREATE Rule *\\cmd.exe Success"));
  EXPECT_TRUE(HasMessage(world, "Add ET_IMAGE_LOAD Rule *\\WinSCard.dll Success"));

  for (SK_EVENT_TYPE type : kRegistryTypes) {
    EXPECT_EQ(Black(type, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run"), STATUS_SUCCESS);
    EXPECT_EQ(Black(type, u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\evil\\ImagePath"), STATUS_SUCCESS);
    EXPECT_EQ(Black(type, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\txtfile\\shell\\open\\command"), STATUS_SUCCESS);
    EXPECT_EQ(Black(type, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\CLSID\\$clsid\\InprocServer32"), STATUS_SUCCESS);
    EXPECT_EQ(Black(type, u"\\REGISTRY\\MACHINE\\HARDWARE\\DEVICEMAP\\Scsi"), STATUS_NOT_FOUND);
    EXPECT_EQ(Black(type, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Vendor\\Settings"), STATUS_NOT_FOUND);
  }
  // The registry list is the registry types' alone.
  EXPECT_EQ(Black(ET_FILE_CREATE, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run"),
            STATUS_NOT_FOUND);
  EXPECT_EQ(Black(ET_NAMED_PIPE_CREATE, u"\\Device\\NamedPipe\\cmd.exe"), STATUS_NOT_FOUND);
}

TEST_F(RuleSetsTest, PerUserRulesCoverEveryHiveLoadedAtStartButClassesHives) {
  world.LoadUserHive(u"S-1-5-21-1-2-3-1107");  // a user who logs on after the start
  for (SK_EVENT_TYPE type : kRegistryTypes) {
    for (const std::u16string& hive : kHives) {
      const std::u16string root = u"\\REGISTRY\\USER\\" + hive;
      EXPECT_EQ(Black(type, root + u"\\Control Panel\\Mouse\\DoubleClickSpeed"), STATUS_SUCCESS) << ntsim::ToUtf8(hive);
      EXPECT_EQ(Black(type, root + u"\\AppEvents\\Schemes\\Apps\\x"), STATUS_SUCCESS) << ntsim::ToUtf8(hive);
      EXPECT_EQ(Black(type, root + u"\\Display\\Settings\\x"), STATUS_SUCCESS) << "HKEY_CURRENT_CONFIG templates too";
      EXPECT_EQ(Black(type, root + u"\\Printers\\x"), STATUS_NOT_FOUND) << ntsim::ToUtf8(hive);
    }
    EXPECT_EQ(Black(type, u"\\REGISTRY\\USER\\" + kUser + u"_Classes\\Control Panel\\Mouse\\x"), STATUS_NOT_FOUND);
    EXPECT_EQ(Black(type, u"\\REGISTRY\\USER\\S-1-5-21-1-2-3-1107\\Control Panel\\Mouse\\x"), STATUS_NOT_FOUND);
  }

  // One line per rule and type, printed whatever the levels; none for the classes hive.
  EXPECT_TRUE(HasMessage(world, "Add ET_REGISTRY_KEY_CREATE Rule \\Registry\\User\\S-1-5-18\\\\keyboard layout\\preload\\* Success"));
  EXPECT_TRUE(HasMessage(world, "Add ET_REGISTRY_VALUE_MODIFY Rule \\Registry\\User\\.DEFAULT\\\\Display\\Settings\\* Success"));
  EXPECT_EQ(LinesContaining("Rule \\Registry\\User\\S-1-5-20\\\\"), 63u * 4);
  EXPECT_EQ(LinesContaining("_Classes"), 0u);
  EXPECT_EQ(LinesContaining("Rule fail"), 0u) << "every built-in black rule is one the engine takes";
}

TEST_F(RuleSetsTest, WhiteRulesLetKnownToolsAndPlacesPass) {
  // Process access compares NT paths: the system root's is taken at start.
  EXPECT_EQ(White(ET_PROCESS_ACCESS, u"\\Device\\HarddiskVolume3\\Windows\\System32\\lsass.exe"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_PROCESS_ACCESS, u"\\??\\C:\\Windows\\System32\\lsass.exe"), STATUS_NOT_FOUND);
  EXPECT_EQ(White(ET_PROCESS_ACCESS, u"\\Device\\HarddiskVolume5\\Tools\\PROCEXP64.EXE"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_PROCESS_ACCESS, u"\\Device\\HarddiskVolume3\\Program Files\\Windows Defender\\MsMpEng.exe"),
            STATUS_SUCCESS);
  EXPECT_EQ(White(ET_PROCESS_ACCESS, u"\\Device\\HarddiskVolume3\\Tools\\MsMpEng.exe"), STATUS_NOT_FOUND);
  // Image loads compare DOS paths.
  EXPECT_EQ(White(ET_IMAGE_LOAD, u"\\??\\C:\\Windows\\System32\\ntdll.dll"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_IMAGE_LOAD, u"\\Device\\HarddiskVolume3\\Windows\\System32\\ntdll.dll"), STATUS_NOT_FOUND);
  EXPECT_EQ(White(ET_IMAGE_LOAD, u"\\??\\D:\\Data\\x.dll"), STATUS_NOT_FOUND);
  // Registry places and pipes.
  EXPECT_EQ(White(ET_REGISTRY_KEY_CREATE, u"\\REGISTRY\\USER\\S-1-5-18\\Software\\x"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_REGISTRY_KEY_CREATE, u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Control\\Session Manager"),
            STATUS_SUCCESS);
  EXPECT_EQ(White(ET_REGISTRY_KEY_MODIFY, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\.txt"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_REGISTRY_KEY_MODIFY, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft"), STATUS_NOT_FOUND);
  EXPECT_EQ(White(ET_REGISTRY_VALUE_MODIFY, u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\W32Time\\SecureTimeLimits"),
            STATUS_SUCCESS);
  EXPECT_EQ(White(ET_NAMED_PIPE_CONNECT, u"\\Device\\NamedPipe\\srvsvc"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_NAMED_PIPE_CREATE, u"\\Device\\NamedPipe\\srvsvc"), STATUS_NOT_FOUND);
  EXPECT_EQ(White(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe"), STATUS_NOT_FOUND);

  // Each rule's line, through the white rule set's log module.
  Restart(SK_TRACE_WHITERULE | SK_TRACE_RULE);
  EXPECT_TRUE(HasMessage(world, "[sk_AddDefauleWhiteRule] Add Default White Rule"));
  EXPECT_TRUE(HasMessage(world, "Add ET_PROCESS_ACCESS Rule \\SystemRoot\\* Success"));
  EXPECT_TRUE(HasMessage(world, "\\SystemRoot\\* -> \\Device\\HarddiskVolume3\\Windows\\*"));
  EXPECT_TRUE(HasMessage(world, "\\SystemRoot\\* -> \\??\\C:\\Windows\\*"));
  EXPECT_TRUE(HasMessage(world, "Add ET_NAMED_PIPE_CONNECT Rule *\\wkssvc Success"));
  EXPECT_EQ(White(ET_NAMED_PIPE_CONNECT, u"\\Device\\NamedPipe\\wkssvc"), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "Match White Rule [15][\\Device\\NamedPipe\\wkssvc]"));
  EXPECT_TRUE(HasMessage(world, "Match Rule [15][\\Device\\NamedPipe\\wkssvc]"));
}

TEST_F(RuleSetsTest, BlackStartsBeforeWhiteAndStopsBeforeItToo) {
  Restart(SK_TRACE_CORE | SK_TRACE_PATH | SK_TRACE_DOSNAME | SK_TRACE_BLACKRULE | SK_TRACE_WHITERULE);
  EXPECT_TRUE(HasMessage(world, "[sk_AddDefauleBlackRule] Add Default Black Rule"));
  EXPECT_TRUE(HasMessage(world, "Add ET_PROCESS_CREATE Rule Success"));
  EXPECT_TRUE(HasMessage(world, "Add ET_REGISTRY_VALUE_MODIFY Rule Success"));
  size_t black = IndexOf("sk_InitBlackRuleMgr Entry"), white = IndexOf("sk_InitWhiteRuleMgr Entry");
  ASSERT_LT(black, white);
  EXPECT_LT(IndexOf("sk_InitPathMgr -> 00000000"), black);
  EXPECT_LT(IndexOf("sk_InitBlackRuleMgr -> 00000000"), white);
  EXPECT_LT(IndexOf("sk_InitWhiteRuleMgr -> 00000000"), IndexOf("sk_InitDosNameMgr Entry"));

  // A second start of either set keeps its rules as they are.
  const SlotCount before = CountOf(SentrelData.BlackRuleMgr, ET_PROCESS_CREATE);
  EXPECT_EQ(world.AsSystem(sk_InitBlackRuleMgr), STATUS_SUCCESS);
  EXPECT_EQ(world.AsSystem(sk_InitWhiteRuleMgr), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "Black Rule Mgr Already Inited"));
  EXPECT_TRUE(HasMessage(world, "White Rule Mgr Already Inited"));
  EXPECT_EQ(CountOf(SentrelData.BlackRuleMgr, ET_PROCESS_CREATE).reverse, before.reverse);

  world.debug().Clear();
  ASSERT_EQ(Stop(), STATUS_SUCCESS);
  size_t blackStop = IndexOf("sk_UninitBlackRuleMgr Entry"), whiteStop = IndexOf("sk_UninitWhiteRuleMgr Entry");
  ASSERT_LT(blackStop, whiteStop);
  EXPECT_LT(IndexOf("sk_UninitBlackRuleMgr -> 00000000"), whiteStop);
  EXPECT_LT(IndexOf("sk_UninitDosNameMgr -> 00000000"), blackStop);
  EXPECT_LT(IndexOf("sk_UninitWhiteRuleMgr -> 00000000"), IndexOf("sk_UninitPathMgr Entry"));
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  ASSERT_EQ(Start(), STATUS_SUCCESS);
}

TEST_F(RuleSetsTest, AFailingBuiltInRuleIsReportedAndSkipped) {
  // A trie node that cannot be had fails one rule of a list; the rest are added.
  auto mgr = std::make_unique<RuleMgr>();
  world.AsSystem([&] { return sk_InitRuleMgr(mgr.get()); });
  world.verifier().FailNth(1);
  NTSTATUS status = world.AsSystem(
      [&] { return sk_AddBlackRuleArray(mgr.get(), ET_IMAGE_LOAD, SkDefaultBlackDllRules, 5); });
  world.verifier().FailNth(0);
  EXPECT_EQ(status, STATUS_SUCCESS) << "the last add's status";
  EXPECT_TRUE(HasMessage(world, "Add ET_IMAGE_LOAD Rule *\\cryptdll.dll fail Status:c000009a"));
  EXPECT_TRUE(HasMessage(world, "Add ET_IMAGE_LOAD Rule *\\WinSCard.dll Success"));
  EXPECT_EQ(CountOf(*mgr, ET_IMAGE_LOAD).reverse, 4u);
  const PCWSTR gaps[] = {nullptr, L"*\\a.dll", nullptr};
  EXPECT_EQ(world.AsSystem([&] { return sk_AddBlackRuleArray(mgr.get(), ET_IMAGE_LOAD, gaps, 3); }), STATUS_SUCCESS);
  EXPECT_EQ(CountOf(*mgr, ET_IMAGE_LOAD).reverse, 5u);
  EXPECT_EQ(world.AsSystem([&] { return sk_AddBlackRuleArray(mgr.get(), ET_IMAGE_LOAD, gaps, 0); }),
            STATUS_INVALID_PARAMETER);
  const PCWSTR refused[] = {L"*\\b.dll", L"\\x\\*\\y"};
  EXPECT_EQ(world.AsSystem([&] { return sk_AddBlackRuleArray(mgr.get(), ET_IMAGE_LOAD, refused, 2); }),
            STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(HasMessage(world, "Add ET_IMAGE_LOAD Rule \\x\\*\\y fail Status:c000000d"));
  world.AsSystem([&] { return sk_UninitRuleMgr(mgr.get()); });
}

TEST_F(RuleSetsTest, EveryFailureOfTheUserHiveWalkEndsItCleanly) {
  // The tries' own allocations are failed in turn by the rule engine's tests; here the walk's.
  ExemptRuleTries(world);
  TraceLevel |= SK_TRACE_BLACKRULE;
  auto mgr = std::make_unique<RuleMgr>();
  std::vector<NTSTATUS> results;
  EachFailure(
      [&](uint64_t) { results.push_back(sk_AddUserHiveBlackRule(mgr.get())); },
      [&] { world.AsSystem([&] { return sk_InitRuleMgr(mgr.get()); }); },
      [&] { world.AsSystem([&] { return sk_UninitRuleMgr(mgr.get()); }); });
  world.verifier().ExemptTags({});
  ASSERT_EQ(results.size(), 4u);
  EXPECT_EQ(results[0], STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(results[1], STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(results[2], STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(results[3], STATUS_NO_MORE_ENTRIES) << "a full pass";
  EXPECT_TRUE(HasMessage(world, "KeyInformation alloc fail"));
  EXPECT_TRUE(HasMessage(world, "UserHiveRule alloc fail"));
  EXPECT_TRUE(HasMessage(world, "ZwOpenKey fail Status:c000009a"));
}

TEST_F(RuleSetsTest, EveryFailureOfTheBuiltInWhiteRulesSkipsOnlyTheirRule) {
  ExemptRuleTries(world);
  TraceLevel |= SK_TRACE_WHITERULE | SK_TRACE_RULE;
  auto mgr = std::make_unique<RuleMgr>();
  std::vector<SlotCount> processAccess;
  EachFailure(
      [&](uint64_t) {
        sk_AddDefauleWhiteRule(mgr.get());
        processAccess.push_back(CountOf(*mgr, ET_PROCESS_ACCESS));
        EXPECT_EQ(CountOf(*mgr, ET_NAMED_PIPE_CONNECT).reverse, 2u) << "the list goes on to its end";
      },
      [&] { world.AsSystem([&] { return sk_InitRuleMgr(mgr.get()); }); },
      [&] { world.AsSystem([&] { return sk_UninitRuleMgr(mgr.get()); }); });
  world.verifier().ExemptTags({});
  ASSERT_EQ(processAccess.size(), 3u);  // the two \SystemRoot\* patterns' blocks, then none
  EXPECT_EQ(processAccess[0].forward, 0u);
  EXPECT_EQ(processAccess[0].reverse, 10u);
  EXPECT_EQ(processAccess[2].forward, 1u);
  EXPECT_TRUE(HasMessage(world, "NtPathRule alloc fail Status:c000009a"));
  EXPECT_TRUE(HasMessage(world, "Add ET_PROCESS_ACCESS Rule \\SystemRoot\\* fail Status:c000009a"));
  EXPECT_TRUE(HasMessage(world, "Add ET_IMAGE_LOAD Rule \\SystemRoot\\* fail Status:c000009a"));
}

}  // namespace
