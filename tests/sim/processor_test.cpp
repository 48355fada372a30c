// Processors and groups as a driver sees them: counts per group, the conversions between
// system-wide index and group-relative number, the current processor, and thread affinity, whose
// changes move the calling thread.
#include <gtest/gtest.h>

#include "ntsim/ntsim.h"
#include "sim_test_support.h"

using ntsim::World;

namespace {

World::Options Machine(int processors, int groups) {
  World::Options options;
  options.machine.processors = processors;
  options.machine.processorGroups = groups;
  return options;
}

GROUP_AFFINITY Affinity(USHORT group, KAFFINITY mask) {
  GROUP_AFFINITY affinity = {};
  affinity.Group = group;
  affinity.Mask = mask;
  return affinity;
}

TEST(ProcessorTest, GroupsSplitTheProcessorsAndIndexesCountThemAll) {
  World world(Machine(5, 2));  // group 0: indexes 0-2, group 1: indexes 3-4
  EXPECT_EQ(KeQueryActiveProcessorCountEx(ALL_PROCESSOR_GROUPS), 5u);
  EXPECT_EQ(KeQueryActiveProcessorCountEx(0), 3u);
  EXPECT_EQ(KeQueryActiveProcessorCountEx(1), 2u);
  EXPECT_EQ(KeQueryActiveProcessorCountEx(2), 0u);  // no such group
  EXPECT_EQ(KeQueryActiveGroupCount(), 2u);

  PROCESSOR_NUMBER number = {};
  ASSERT_EQ(KeGetProcessorNumberFromIndex(4, &number), STATUS_SUCCESS);
  EXPECT_EQ(number.Group, 1u);
  EXPECT_EQ(number.Number, 1u);
  ASSERT_EQ(KeGetProcessorNumberFromIndex(2, &number), STATUS_SUCCESS);
  EXPECT_EQ(number.Group, 0u);
  EXPECT_EQ(number.Number, 2u);
  EXPECT_EQ(KeGetProcessorNumberFromIndex(5, &number), STATUS_INVALID_PARAMETER);

  for (ULONG index = 0; index < 5; ++index) {
    ASSERT_EQ(KeGetProcessorNumberFromIndex(index, &number), STATUS_SUCCESS);
    EXPECT_EQ(KeGetProcessorIndexFromNumber(&number), index);
  }
  number.Group = 1;
  number.Number = 2;  // group 1 has two processors
  EXPECT_EQ(KeGetProcessorIndexFromNumber(&number), INVALID_PROCESSOR_INDEX);
  number.Group = 3;
  number.Number = 0;
  EXPECT_EQ(KeGetProcessorIndexFromNumber(&number), INVALID_PROCESSOR_INDEX);
}

TEST(ProcessorTest, AffinityMovesTheThreadAndTheRevertBringsItBack) {
  World world(Machine(5, 2));
  world.AsSystem([&] {
    ULONG home = KeGetCurrentProcessorNumberEx(nullptr);

    GROUP_AFFINITY last = Affinity(1, 0x2), previous;
    KeSetSystemGroupAffinityThread(&last, &previous);
    PROCESSOR_NUMBER number = {};
    EXPECT_EQ(KeGetCurrentProcessorNumberEx(&number), 4u);
    EXPECT_EQ(number.Group, 1u);
    EXPECT_EQ(number.Number, 1u);
    // The number of older drivers stays below the size of group 0, whatever group the thread is in.
    EXPECT_LT(KeGetCurrentProcessorNumber(), 3u);

    // A second change, then back through both saved affinities.
    GROUP_AFFINITY first = Affinity(0, 0x1), middle;
    KeSetSystemGroupAffinityThread(&first, &middle);
    EXPECT_EQ(KeGetCurrentProcessorNumberEx(nullptr), 0u);
    KeRevertToUserGroupAffinityThread(&middle);
    EXPECT_EQ(KeGetCurrentProcessorNumberEx(nullptr), 4u);
    KeRevertToUserGroupAffinityThread(&previous);
    EXPECT_EQ(KeGetCurrentProcessorNumberEx(nullptr), home);
    // A revert with no change in force does nothing.
    KeRevertToUserGroupAffinityThread(&middle);
    EXPECT_EQ(KeGetCurrentProcessorNumberEx(nullptr), home);

    // A mask within the group that holds the current processor does not move the thread.
    GROUP_AFFINITY wide = Affinity(1, 0x3), saved;
    KeSetSystemGroupAffinityThread(&wide, &saved);
    ULONG landed = KeGetCurrentProcessorNumberEx(nullptr);
    EXPECT_TRUE(landed == 3 || landed == 4) << landed;
    GROUP_AFFINITY other = Affinity(1, 0x3), ignored;
    KeSetSystemGroupAffinityThread(&other, &ignored);
    EXPECT_EQ(KeGetCurrentProcessorNumberEx(nullptr), landed);
    KeRevertToUserGroupAffinityThread(&saved);
  });
}

TEST(ProcessorTest, AnInvalidAffinityChangesNothing) {
  World world(Machine(5, 2));
  world.AsSystem([&] {
    GROUP_AFFINITY pin = Affinity(0, 0x4), previous;
    KeSetSystemGroupAffinityThread(&pin, &previous);
    ASSERT_EQ(KeGetCurrentProcessorNumberEx(nullptr), 2u);
    GROUP_AFFINITY invalid[] = {Affinity(0, 0), Affinity(1, 0x4), Affinity(2, 0x1)};
    for (GROUP_AFFINITY& affinity : invalid) {
      GROUP_AFFINITY ignored;
      KeSetSystemGroupAffinityThread(&affinity, &ignored);
      EXPECT_EQ(KeGetCurrentProcessorNumberEx(nullptr), 2u) << affinity.Group << "/" << affinity.Mask;
    }
    KeRevertToUserGroupAffinityThread(&previous);
  });
}

TEST(ProcessorTest, NewThreadsAreSpreadOverTheProcessors) {
  World world(Machine(4, 1));
  ntsim::UserProcess& agent = world.StartProcess(u"agent.exe");
  std::vector<ULONG> seen(4, 0);
  for (int i = 0; i < 8; ++i) world.StartThread(agent);
  for (_KTHREAD* thread : agent.Process()->threads) ++seen[thread->processor];
  for (ULONG count : seen) EXPECT_GT(count, 0u);
}

}  // namespace
