// The load guard: the record file counts loads not ended in order, across crashes and reboots.
#include <gtest/gtest.h>

#include "test_support.h"

using namespace sentrel_test;
using ntsim::World;

namespace {

const std::u16string kGuardFile = u"\\SystemRoot\\System32\\kestrixkernel.dat";

struct GuardRecord {
  uint16_t magic = 0;
  uint16_t size = 0;
  uint32_t count = 0;
  std::u16string module;
  uint32_t trailer = 0;
};

uint32_t Le32(const std::vector<uint8_t>& b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (uint32_t(b[at + 3]) << 24);
}

// Parses the file's bytes; fails the test if the file is not one 128-byte record.
GuardRecord ReadGuard(World& world) {
  GuardRecord record;
  auto bytes = world.ReadFileBytes(kGuardFile);
  EXPECT_TRUE(bytes.has_value());
  if (!bytes) return record;
  EXPECT_EQ(bytes->size(), 128u);
  if (bytes->size() < 128) return record;
  record.magic = static_cast<uint16_t>((*bytes)[0] | ((*bytes)[1] << 8));
  record.size = static_cast<uint16_t>((*bytes)[2] | ((*bytes)[3] << 8));
  record.count = Le32(*bytes, 4);
  for (size_t at = 8; at < 124; at += 2) {
    char16_t c = static_cast<char16_t>((*bytes)[at] | ((*bytes)[at + 1] << 8));
    if (!c) break;
    record.module.push_back(c);
  }
  record.trailer = Le32(*bytes, 124);
  return record;
}

std::vector<uint8_t> RawRecord(uint32_t count, uint32_t trailer) {
  std::vector<uint8_t> bytes(128, 0);
  bytes[0] = 0xFB, bytes[1] = 0xFB, bytes[2] = 128;
  for (int i = 0; i < 4; ++i) bytes[4 + i] = static_cast<uint8_t>(count >> (8 * i));
  for (int i = 0; i < 4; ++i) bytes[124 + i] = static_cast<uint8_t>(trailer >> (8 * i));
  return bytes;
}

TEST(LoadGuardTest, ThreeCrashedRunsInARowRefuseTheFourthLoad) {
  World world;
  EXPECT_FALSE(world.ReadFileBytes(kGuardFile).has_value());
  for (uint32_t run = 1; run <= 3; ++run) {
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS) << run;
    EXPECT_EQ(ReadGuard(world).count, run);
    world.Crash();
  }
  EXPECT_EQ(world.LoadDriver(), STATUS_ACCESS_DENIED);
  EXPECT_TRUE(world.LastVerdict().Clean()) << world.LastVerdict().Report();
  // Refused before anything existed, and the count is not lowered by the refusal.
  {
    ntsim::ObjectHeader* device = nullptr;
    EXPECT_EQ(world.kernel().ob.Lookup(u"\\Sentrel", false, &device, nullptr), STATUS_OBJECT_NAME_NOT_FOUND);
  }
  EXPECT_EQ(world.kernel().cm.CallbackCount(), 0u);
  GuardRecord record = ReadGuard(world);
  EXPECT_EQ(record.count, 3u);
  // Still refused on the next boot: only repairing the file from outside lets it load again.
  world.Reboot();
  EXPECT_EQ(world.LoadDriver(), STATUS_ACCESS_DENIED);
  ASSERT_TRUE(world.DeleteFile(kGuardFile));
  EXPECT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(ReadGuard(world).count, 1u);
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

TEST(LoadGuardTest, OrderlyEndsLowerTheCountAgain) {
  World world;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
    GuardRecord record = ReadGuard(world);
    EXPECT_EQ(record.magic, 0xFBFB);
    EXPECT_EQ(record.size, 128);
    EXPECT_EQ(record.count, 1u);
    EXPECT_EQ(record.module, u"Sentrel.sys");
    EXPECT_EQ(record.trailer, 0xFEFEFEFEu);
    ASSERT_TRUE(world.UnloadDriver().Clean());
    EXPECT_EQ(ReadGuard(world).count, 0u);
  }
  // A reboot is an orderly end too: its shutdown lowers the count.
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  world.Reboot();
  EXPECT_EQ(ReadGuard(world).count, 0u);
}

TEST(LoadGuardTest, ShutdownThenUnloadLowersTheCountOnce) {
  World world;
  ASSERT_TRUE(world.WriteFileBytes(kGuardFile, RawRecord(1, 0xFEFEFEFE)));  // one crashed run before
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(ReadGuard(world).count, 2u);
  world.Shutdown();
  EXPECT_EQ(ReadGuard(world).count, 1u);
  world.Shutdown();  // a second shutdown request must not hide the crash before
  EXPECT_EQ(ReadGuard(world).count, 1u);
  EXPECT_TRUE(world.UnloadDriver().Clean());
  EXPECT_EQ(ReadGuard(world).count, 1u);
}

TEST(LoadGuardTest, ADamagedRecordIsReplacedByAFreshOne) {
  World world;
  // A wrong trailer with count 3 would refuse the load if the record were believed.
  ASSERT_TRUE(world.WriteFileBytes(kGuardFile, RawRecord(3, 0x12345678)));
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  GuardRecord record = ReadGuard(world);
  EXPECT_EQ(record.count, 1u);
  EXPECT_EQ(record.trailer, 0xFEFEFEFEu);
  EXPECT_EQ(record.module, u"Sentrel.sys");
  EXPECT_TRUE(world.UnloadDriver().Clean());

  // A file too short to hold a record is replaced the same way.
  ASSERT_TRUE(world.WriteFileBytes(kGuardFile, std::vector<uint8_t>(100, 0xFB)));
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(ReadGuard(world).count, 1u);
  // ...but a release that finds a short file leaves it alone.
  ASSERT_TRUE(world.WriteFileBytes(kGuardFile, std::vector<uint8_t>(100, 0xFB)));
  EXPECT_TRUE(world.UnloadDriver().Clean());
  EXPECT_EQ(world.ReadFileBytes(kGuardFile)->size(), 100u);
}

TEST(LoadGuardTest, ACountAtZeroStaysZero) {
  World world;
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  ASSERT_TRUE(world.WriteFileBytes(kGuardFile, RawRecord(0, 0xFEFEFEFE)));
  EXPECT_TRUE(world.UnloadDriver().Clean());
  EXPECT_EQ(ReadGuard(world).count, 0u);
}

TEST(LoadGuardTest, ACountThatCouldNotBeWrittenIsNeverLowered) {
  World world;
  ASSERT_TRUE(world.WriteFileBytes(kGuardFile, RawRecord(1, 0xFEFEFEFE)));
  world.FailWrites(kGuardFile, STATUS_DISK_FULL);
  ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);  // the load goes on, unarmed
  EXPECT_EQ(ReadGuard(world).count, 1u);
  world.FailWrites(kGuardFile, STATUS_SUCCESS);
  world.Shutdown();
  EXPECT_TRUE(world.UnloadDriver().Clean());
  EXPECT_EQ(ReadGuard(world).count, 1u);
}

TEST(LoadGuardTest, AFailedLoadLowersTheCountItRaised) {
  World world;
  ASSERT_TRUE(world.WriteFileBytes(kGuardFile, RawRecord(2, 0xFEFEFEFE)));
  ExemptRuleTries(world);
  // Fail each allocation of the load in turn: whether the load failed before the guard raised the
  // count or after (device, link, context...), the count is back where it was.
  int failedLoads = 0;
  for (uint64_t n = 1;; ++n) {
    ASSERT_LT(n, 200u);
    world.verifier().FailNth(n);
    NTSTATUS status = world.LoadDriver();
    if (!world.verifier().InjectedFailure()) {
      ASSERT_EQ(status, STATUS_SUCCESS);
      break;
    }
    if (NT_SUCCESS(status)) {
      ASSERT_TRUE(world.UnloadDriver().Clean());
    } else {
      ++failedLoads;
    }
    EXPECT_EQ(ReadGuard(world).count, 2u) << "allocation point " << n;
  }
  world.verifier().FailNth(0);
  EXPECT_GT(failedLoads, 3);  // the guard itself can fail the load at one point only
  EXPECT_EQ(ReadGuard(world).count, 3u);
  EXPECT_TRUE(world.UnloadDriver().Clean());
}

}  // namespace
