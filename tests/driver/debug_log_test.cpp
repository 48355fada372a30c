// The diagnostic log: filtering by severity and module, the prefix and its indentation, the levels
// read at start-up and followed through the registry callback, and clean teardown.
#include <gtest/gtest.h>

#include "core/debug_log.h"
#include "test_support.h"

using namespace sentrel_test;
using ntsim::World;

namespace {

class DebugLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PrintLevel = 0;
    TraceLevel = 0;
    TraceDepth = 0;
  }
  void TearDown() override {
    if (DebugKeyPath) world.AsSystem([] { return sk_UninitDebugLevel(); });
  }
  NTSTATUS Init() {
    std::u16string path = World::ServiceKeyPath();
    UNICODE_STRING registryPath = Counted(path);
    return world.AsSystem([&] { return sk_InitDebugLevel(&registryPath); });
  }
  // Prints one line the way every operation does.
  bool Line(LONG change, ULONG severity, ULONG module, const char* text) {
    if (!sk_LogPrefix(change, severity, module)) return false;
    DbgPrint("%s\n", text);
    return true;
  }

  World world;
};

TEST_F(DebugLogTest, PrefixNamesSeverityAndThreadAndIndentsByDepth) {
  PrintLevel = 0xF;
  TraceLevel = SK_TRACE_CORE;
  world.AsSystem([&] {
    sk_TraceEnter(SK_TRACE_CORE, "outer");
    sk_TraceEnter(SK_TRACE_CORE, "inner");
    Line(0, SK_LEVEL_ERROR, SK_TRACE_CORE, "failure");
    sk_TraceLeave(SK_TRACE_CORE, "inner", STATUS_SUCCESS);
    sk_TraceLeave(SK_TRACE_CORE, "outer", STATUS_INVALID_PARAMETER);
    // Lines are printed under fast mutexes too, at APC_LEVEL, where DbgPrint takes no Unicode.
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    Line(0, SK_LEVEL_WARNING, SK_TRACE_CORE, "warned");
    KeLowerIrql(old);
    return 0;
  });
  char thread[32];
  std::snprintf(thread, sizeof thread, "%016llX",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(world.AsSystem([] { return PsGetCurrentThread(); }))));
  std::vector<std::string> lines = world.debug().Lines();
  ASSERT_EQ(lines.size(), 6u);
  std::string t = std::string("[T:0x") + thread + "] ";
  EXPECT_EQ(lines[0], "[SK][INFO]" + t + " outer Entry");
  EXPECT_EQ(lines[1], "[SK][INFO]" + t + " inner Entry");
  EXPECT_EQ(lines[2], "[SK][ERROR]" + t + "  failure");
  EXPECT_EQ(lines[3], "[SK][INFO]" + t + " inner -> 00000000");
  EXPECT_EQ(lines[4], "[SK][INFO]" + t + " outer -> c000000d");
  EXPECT_EQ(lines[5], "[SK][WARNING]" + t + " warned");
  EXPECT_EQ(TraceDepth, 0u);
}

TEST_F(DebugLogTest, MasksSelectSeveritiesAndModules) {
  // Nothing at all while PrintLevel is 0, whatever TraceLevel holds.
  TraceLevel = 0xFFFFFFFF;
  for (ULONG severity : {1u, 2u, 4u, 8u}) EXPECT_FALSE(Line(0, severity, SK_TRACE_CORE, "x"));

  // PrintLevel 8, TraceLevel 0: only event reports, from any module.
  PrintLevel = SK_LEVEL_EVENT_REPORT;
  TraceLevel = 0;
  EXPECT_TRUE(Line(0, SK_LEVEL_EVENT_REPORT, SK_TRACE_REPORT, "event"));
  EXPECT_TRUE(Line(0, SK_LEVEL_EVENT_REPORT, SK_TRACE_RULE, "event"));
  EXPECT_FALSE(Line(0, SK_LEVEL_ERROR, SK_TRACE_REPORT, "x"));
  EXPECT_FALSE(Line(0, SK_LEVEL_INFO, SK_TRACE_REPORT, "x"));

  // PrintLevel 5, TraceLevel 0x4: errors and traces of the device dispatch only.
  PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
  TraceLevel = SK_TRACE_COMMU;
  EXPECT_TRUE(Line(0, SK_LEVEL_ERROR, SK_TRACE_COMMU, "x"));
  EXPECT_TRUE(Line(0, SK_LEVEL_INFO, SK_TRACE_COMMU, "x"));
  EXPECT_FALSE(Line(0, SK_LEVEL_WARNING, SK_TRACE_COMMU, "x"));
  EXPECT_FALSE(Line(0, SK_LEVEL_INFO, SK_TRACE_CORE, "x"));
  EXPECT_FALSE(Line(0, SK_LEVEL_EVENT_REPORT, SK_TRACE_COMMU, "x"));
  EXPECT_EQ(world.debug().Lines().size(), 4u);
}

TEST_F(DebugLogTest, DepthNeverGoesBelowZeroAndFilteredLinesLeaveItAlone) {
  PrintLevel = SK_LEVEL_INFO;
  TraceLevel = SK_TRACE_CORE;
  sk_TraceLeave(SK_TRACE_CORE, "orphan", STATUS_SUCCESS);
  EXPECT_EQ(TraceDepth, 0u);
  EXPECT_EQ(Messages(world).back(), " orphan -> 00000000");  // one blank at depth 0

  // A filtered Entry does not raise the depth, nor its filtered leave lower it.
  sk_TraceEnter(SK_TRACE_CORE, "shown");
  EXPECT_EQ(TraceDepth, 1u);
  sk_TraceEnter(SK_TRACE_PATH, "hidden");
  EXPECT_EQ(TraceDepth, 1u);
  sk_TraceLeave(SK_TRACE_PATH, "hidden", STATUS_SUCCESS);
  EXPECT_EQ(TraceDepth, 1u);
  sk_TraceLeave(SK_TRACE_CORE, "shown", STATUS_SUCCESS);
  EXPECT_EQ(TraceDepth, 0u);
  EXPECT_EQ(world.debug().Lines().size(), 3u);
}

TEST_F(DebugLogTest, StartReadsBothLevelsFromTheDebugKey) {
  world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", 5);
  world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", 0x42);
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 5u);
  EXPECT_EQ(TraceLevel, 0x42u);
  EXPECT_EQ(Text(DebugKeyPath), std::u16string(World::ServiceKeyPath()) + u"\\Debug");
  EXPECT_EQ(world.kernel().cm.CallbackCount(), 1u);
}

TEST_F(DebugLogTest, StartTakesAnyTypeThatFitsAndIgnoresWhatDoesNot) {
  // No Debug key at all: both levels 0.
  TraceLevel = 7;
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 0u);
  EXPECT_EQ(TraceLevel, 0u);
  world.AsSystem([] { return sk_UninitDebugLevel(); });

  // A 4-byte binary value is taken; a value longer than the 32-byte query buffer is not.
  uint8_t binary[4] = {4, 0, 0, 0};
  world.SetRegistryValueDirect(DebugKey(), u"PrintLevel", REG_BINARY, binary, sizeof binary);
  std::vector<uint8_t> big(21, 0xFF);
  world.SetRegistryValueDirect(DebugKey(), u"TraceLevel", REG_BINARY, big.data(), big.size());
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 4u);
  EXPECT_EQ(TraceLevel, 0u);
}

// A callback registered after the driver's: it sees the level already changed, and can veto the
// write to show that the level changes even when the write fails.
struct Observer {
  ULONG printLevelSeen = 0;
  NTSTATUS verdict = STATUS_SUCCESS;
  static NTSTATUS NTAPI Callback(PVOID context, PVOID argument1, PVOID) {
    auto* self = static_cast<Observer*>(context);
    if ((REG_NOTIFY_CLASS)(ULONG_PTR)argument1 != RegNtPreSetValueKey) return STATUS_SUCCESS;
    self->printLevelSeen = PrintLevel;
    return self->verdict;
  }
};

TEST_F(DebugLogTest, RegistryWritesUnderTheDebugKeyChangeTheLevelBeforeTheWriteReturns) {
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  Observer observer;
  LARGE_INTEGER cookie;
  ASSERT_EQ(CmRegisterCallback(Observer::Callback, &observer, &cookie), STATUS_SUCCESS);

  EXPECT_EQ(world.SetRegistryDword(DebugKey(), u"printlevel", 5), STATUS_SUCCESS);
  EXPECT_EQ(observer.printLevelSeen, 5u);
  EXPECT_EQ(PrintLevel, 5u);
  EXPECT_EQ(world.SetRegistryDword(DebugKey(), u"TRACELEVEL", 0x4), STATUS_SUCCESS);
  EXPECT_EQ(TraceLevel, 0x4u);

  // Vetoed by a later callback: the level still follows.
  observer.verdict = STATUS_ACCESS_DENIED;
  EXPECT_EQ(world.SetRegistryDword(DebugKey(), u"PrintLevel", 1), STATUS_ACCESS_DENIED);
  EXPECT_EQ(observer.printLevelSeen, 1u);
  EXPECT_EQ(PrintLevel, 1u);
  observer.verdict = STATUS_SUCCESS;

  // Other keys, other value names and other sizes change nothing.
  std::u16string other = u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\Other\\Debug";
  EXPECT_EQ(world.SetRegistryDword(other, u"PrintLevel", 0xF), STATUS_SUCCESS);
  std::u16string shortKey = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Sentrel\\Debug";  // shorter than the driver's key
  EXPECT_EQ(world.SetRegistryDword(shortKey, u"PrintLevel", 0xF), STATUS_SUCCESS);
  EXPECT_EQ(world.SetRegistryDword(DebugKey(), u"PrintLevels", 0xF), STATUS_SUCCESS);
  ULONG64 wide = 0xF;
  EXPECT_EQ(world.SetRegistryValue(DebugKey(), u"PrintLevel", REG_QWORD, &wide, sizeof wide), STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 1u);
  EXPECT_EQ(TraceLevel, 0x4u);

  // Only the driver's own Debug key counts, in any control set: not another key whose name ends in
  // "Sentrel\Debug", neither below the driver's key nor in a user's own hive.
  std::u16string nested = std::u16string(World::ServiceKeyPath()) + u"\\Nested\\Sentrel\\Debug";
  EXPECT_EQ(world.SetRegistryDword(nested, u"TraceLevel", 0x10), STATUS_SUCCESS);
  ntsim::UserProcess& user = world.StartProcess(u"user.exe");
  std::u16string userKey = u"\\REGISTRY\\USER\\" + std::u16string(World::LoggedOnUserSid()) +
                           u"\\Software\\Services\\Sentrel\\Debug";
  ULONG all = 0xFFFFFFFF;
  EXPECT_EQ(user.SetRegistryValue(userKey, u"TraceLevel", REG_DWORD, &all, sizeof all), STATUS_SUCCESS);
  EXPECT_EQ(user.SetRegistryValue(userKey, u"PrintLevel", REG_DWORD, &all, sizeof all), STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 1u);
  EXPECT_EQ(TraceLevel, 0x4u);
  std::u16string otherSet = u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet002\\Services\\SENTREL\\Debug";
  EXPECT_EQ(world.SetRegistryDword(otherSet, u"TraceLevel", 0x10), STATUS_SUCCESS);
  EXPECT_EQ(TraceLevel, 0x10u);
  world.ExitProcess(user);

  EXPECT_EQ(CmUnRegisterCallback(cookie), STATUS_SUCCESS);
}

TEST_F(DebugLogTest, FaultingCallerDataLeavesTheLevelsAsTheyWere) {
  world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", 5);
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  void* bad = world.FaultingBuffer(4);
  // The kernel's own capture of the data fails afterwards; the callback must not have crashed.
  EXPECT_EQ(world.SetRegistryValue(DebugKey(), u"PrintLevel", REG_DWORD, bad, 4), STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(PrintLevel, 5u);

  // A notification argument that itself faults is ignored as well.
  EXPECT_EQ(sk_DebugRegistryCallback(nullptr, (PVOID)(ULONG_PTR)RegNtPreSetValueKey, world.FaultingBuffer(64)),
            STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 5u);
}

TEST_F(DebugLogTest, StopUnregistersFreesAndSilences) {
  world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", 5);
  world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", 2);
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  EXPECT_EQ(world.AsSystem([] { return sk_UninitDebugLevel(); }), STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 0u);
  EXPECT_EQ(TraceLevel, 0u);
  EXPECT_EQ(DebugKeyPath, nullptr);
  EXPECT_EQ(world.kernel().cm.CallbackCount(), 0u);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  EXPECT_EQ(world.kernel().ob.KernelHandles().Entries().size(), 0u);
  // A second stop has nothing to stop.
  EXPECT_EQ(world.AsSystem([] { return sk_UninitDebugLevel(); }), STATUS_INSUFFICIENT_RESOURCES);
  // Writes after the stop reach no callback.
  EXPECT_EQ(world.SetRegistryDword(DebugKey(), u"PrintLevel", 5), STATUS_SUCCESS);
  EXPECT_EQ(PrintLevel, 0u);
}

TEST_F(DebugLogTest, FailedStartLeavesNothingBehind) {
  // The first allocation point is the key path, the second the callback registration.
  for (uint64_t n : {1u, 2u}) {
    PrintLevel = 0;
    TraceLevel = 1;
    world.verifier().FailNth(n);
    EXPECT_NE(Init(), STATUS_SUCCESS) << "allocation point " << n;
    EXPECT_TRUE(world.verifier().InjectedFailure());
    EXPECT_EQ(DebugKeyPath, nullptr);
    EXPECT_EQ(PrintLevel, 0u);
    EXPECT_EQ(TraceLevel, 1u);
    EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
    EXPECT_EQ(world.kernel().cm.CallbackCount(), 0u);
  }
  world.verifier().FailNth(0);
}

}  // namespace
