// The DOS name table: filled from the drive letters, DOS names normalised on the way in, the
// newest name for a volume winning, failed adds leaving the old entry, lookups racing replacements.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/debug_log.h"
#include "core/record_tags.h"
#include "names/dos_name.h"
#include "names/string_block.h"
#include "test_support.h"

using namespace sentrel_test;
using ntsim::World;

namespace {

class DosNameTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&mgr, 0, sizeof mgr);
    PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
    TraceLevel = SK_TRACE_DOSNAME;
  }
  void TearDown() override {
    world.verifier().FailNth(0);
    world.AsSystem([&] { return sk_UninitDosNameMgr(&mgr); });
    EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
    EXPECT_TRUE(world.kernel().ob.DriverHeldReferences().empty());
    PrintLevel = TraceLevel = 0;
  }
  NTSTATUS Init() { return world.AsSystem([&] { return sk_InitDosNameMgr(&mgr); }); }
  NTSTATUS Add(const std::u16string& volume, const std::u16string& dos) {
    UNICODE_STRING v = Counted(volume), d = Counted(dos);
    return world.AsSystem([&] { return sk_AddDosNameInfo(&mgr, TRUE, &v, &d); });
  }
  // The table's DOS name for a volume, or the lookup's failure as text.
  std::u16string Lookup(const std::u16string& volume) {
    UNICODE_STRING v = Counted(volume);
    PUNICODE_STRING dos = nullptr;
    NTSTATUS status = world.AsSystem([&] { return sk_LookupDosName(&mgr, &v, &dos); });
    if (status == STATUS_NOT_FOUND) return u"<not found>";
    if (!NT_SUCCESS(status)) return u"<failed>";
    std::u16string text = Text(dos);
    skt_FreeUnicodeStringSelf(dos);
    return text;
  }
  ULONG Entries() { return RtlNumberGenericTableElementsAvl(&mgr.Table); }
  World world;
  SK_DOS_NAME_MGR mgr;
};

TEST_F(DosNameTest, StartFindsTheVolumeBehindEachDriveLetter) {
  // A letter that stands for a folder (a substituted drive) names no volume.
  ASSERT_TRUE(NT_SUCCESS(world.kernel().ob.CreateSymbolicLink(u"\\??\\S:", u"\\Device\\HarddiskVolume3\\Windows",
                                                              nullptr)));
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  EXPECT_EQ(mgr.Tag, 0xFCFE);
  EXPECT_EQ(mgr.Size, sizeof(SK_DOS_NAME_MGR));
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume3"), u"\\??\\C:");
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume5"), u"\\??\\D:");
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume1"), u"<not found>");  // no letter
  EXPECT_EQ(Lookup(u"\\Device\\Mup"), u"<not found>");
  EXPECT_EQ(Entries(), 2u);
  EXPECT_TRUE(HasMessage(world, "Dos Name Mgr Init Success"));

  // Starting twice changes nothing; the stop empties the table.
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "Dos Name Mgr Already Inited"));
  EXPECT_EQ(Entries(), 2u);
  EXPECT_EQ(world.AsSystem([&] { return sk_UninitDosNameMgr(&mgr); }), STATUS_SUCCESS);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  EXPECT_EQ(Add(u"\\Device\\HarddiskVolume3", u"C:"), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume3"), u"<failed>");
  EXPECT_TRUE(HasMessage(world, "Dos Name Mgr no Inited"));
}

TEST_F(DosNameTest, NamesAreNormalisedAndTheNewestWins) {
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  ASSERT_EQ(Add(u"\\Device\\HarddiskVolume7", u"F:"), STATUS_SUCCESS);
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume7"), u"\\??\\F:");
  ASSERT_EQ(Add(u"\\Device\\HarddiskVolume8", u"\\??\\G:"), STATUS_SUCCESS);
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume8"), u"\\??\\G:");
  EXPECT_EQ(Entries(), 4u);
  ASSERT_EQ(Add(u"\\Device\\HarddiskVolume7", u"\\??\\K:"), STATUS_SUCCESS);
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume7"), u"\\??\\K:");
  EXPECT_EQ(Entries(), 4u);
  // Keys are bytes: another case is another volume.
  EXPECT_EQ(Lookup(u"\\DEVICE\\HARDDISKVOLUME7"), u"<not found>");

  // The elements as they sit in the table.
  PVOID restart = nullptr;
  auto* node = static_cast<PDOS_NAME_NODE>(RtlEnumerateGenericTableWithoutSplayingAvl(&mgr.Table, &restart));
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->Tag, 0xFCFD);
  EXPECT_EQ(node->Size, sizeof(DOS_NAME_NODE));
  EXPECT_EQ(node->Flags, 0u);
  EXPECT_EQ(node->Key, sk_DosNameKey(node->VolumeName));

  // A lookup's answer holds at most 64 bytes of the name.
  std::u16string longName = u"\\??\\Volume{0123456789abcdef0123456789abcdef}";
  ASSERT_EQ(Add(u"\\Device\\HarddiskVolume9", longName), STATUS_SUCCESS);
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume9"), longName.substr(0, 32));
}

TEST_F(DosNameTest, AFailedAddLeavesThePreviousEntry) {
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  ASSERT_EQ(Add(u"\\Device\\HarddiskVolume7", u"F:"), STATUS_SUCCESS);
  for (uint64_t n = 1;; ++n) {
    world.verifier().FailNth(n);
    NTSTATUS status = Add(u"\\Device\\HarddiskVolume7", u"K:");
    bool injected = world.verifier().InjectedFailure();
    world.verifier().FailNth(0);
    if (!injected) {
      EXPECT_EQ(status, STATUS_SUCCESS);
      break;
    }
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << n;
    EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume7"), u"\\??\\F:") << n;
  }
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume7"), u"\\??\\K:");
  // A new volume whose add fails is not in the table at all.
  world.verifier().FailNth(1);
  EXPECT_EQ(Add(u"\\Device\\HarddiskVolume8", u"G:"), STATUS_INSUFFICIENT_RESOURCES);
  world.verifier().FailNth(0);
  EXPECT_EQ(Lookup(u"\\Device\\HarddiskVolume8"), u"<not found>");
  EXPECT_TRUE(HasMessage(world, "VolDevNameX alloc fail"));
}

TEST_F(DosNameTest, LookupsRacingReplacementsSeeOneWholeName) {
  ASSERT_EQ(Init(), STATUS_SUCCESS);
  PrintLevel = SK_LEVEL_ERROR;
  std::u16string volume = u"\\Device\\HarddiskVolume7";
  ASSERT_EQ(Add(volume, u"F:"), STATUS_SUCCESS);
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      while (!done.load()) {
        std::u16string name = Lookup(volume);
        if (name != u"\\??\\F:" && name != u"\\??\\Archive:") ++bad;
      }
    });
  }
  for (int i = 0; i < 300; ++i) ASSERT_EQ(Add(volume, i % 2 ? u"F:" : u"Archive:"), STATUS_SUCCESS);
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(Entries(), 3u);
}

}  // namespace
