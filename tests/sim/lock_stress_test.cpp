// The executive's locks under many threads at once: the uncontended paths take them with one
// interlocked operation and only waiters go to the dispatcher, so what these tests guard is that
// no owner is let in beside another and that no waiter is left asleep. Bounded by a number of
// acquisitions per thread; every wait in the test is bounded too (HostThread).
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "ntsim/ntsim.h"
#include "sim_test_support.h"
#include "world.h"

using ntsim::World;
using sim_test::HostThread;
using sim_test::RecordViolations;

namespace {

constexpr int kThreads = 6;
constexpr int kRounds = 3000;

// Who is inside: readers count up, a writer sets the high bit.
constexpr long kWriter = 1L << 40;

struct Inside {
  std::atomic<long> word{0};
  std::atomic<int> overlaps{0};

  void EnterShared() {
    if (word.fetch_add(1) & kWriter) ++overlaps;
  }
  void LeaveShared() { word.fetch_sub(1); }
  void EnterExclusive() {
    if (word.fetch_add(kWriter) != 0) ++overlaps;
  }
  void LeaveExclusive() { word.fetch_sub(kWriter); }
};

// Each thread mixes shared and exclusive acquires, recursive ones and tries, as drivers do.
TEST(LockStressTest, ExecutiveResourceAdmitsReadersTogetherAndWritersAlone) {
  World world;
  RecordViolations(world);
  ERESOURCE resource;
  ExInitializeResourceLite(&resource);
  Inside inside;
  std::atomic<int> ownershipWrong{0};
  {
    std::vector<std::unique_ptr<HostThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<HostThread>([&, t] {
        KeEnterCriticalRegion();
        for (int i = 0; i < kRounds; ++i) {
          switch ((i + t) % 4) {
            case 0:
            case 1:
              ExAcquireResourceSharedLite(&resource, TRUE);
              inside.EnterShared();
              ExAcquireResourceSharedLite(&resource, TRUE);  // a reader reads again
              if (ExIsResourceAcquiredSharedLite(&resource) != 2) ++ownershipWrong;
              ExReleaseResourceLite(&resource);
              inside.LeaveShared();
              ExReleaseResourceLite(&resource);
              break;
            case 2:
              ExAcquireResourceExclusiveLite(&resource, TRUE);
              inside.EnterExclusive();
              if (!ExIsResourceAcquiredExclusiveLite(&resource)) ++ownershipWrong;
              inside.LeaveExclusive();
              ExReleaseResourceLite(&resource);
              break;
            case 3:
              if (ExAcquireResourceExclusiveLite(&resource, FALSE)) {
                inside.EnterExclusive();
                inside.LeaveExclusive();
                ExReleaseResourceLite(&resource);
              }
              break;
          }
        }
        if (ExIsResourceAcquiredSharedLite(&resource) != 0) ++ownershipWrong;
        KeLeaveCriticalRegion();
      }));
    }
  }
  EXPECT_EQ(inside.overlaps.load(), 0) << "a writer was let in beside another owner";
  EXPECT_EQ(ownershipWrong.load(), 0);
  EXPECT_TRUE(world.verifier().Violations().empty());
  ExDeleteResourceLite(&resource);
  EXPECT_TRUE(world.verifier().Violations().empty()) << "the resource is still owned after every release";
}

TEST(LockStressTest, FastMutexAndPushLockExcludeAndWakeEveryWaiter) {
  World world;
  RecordViolations(world);
  FAST_MUTEX mutex;
  ExInitializeFastMutex(&mutex);
  EX_PUSH_LOCK pushLock;
  ExInitializePushLock(&pushLock);
  Inside mutexInside, pushInside;
  long counted = 0;  // changed only under the fast mutex
  std::atomic<int> wrongIrql{0};
  {
    std::vector<std::unique_ptr<HostThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<HostThread>([&, t] {
        for (int i = 0; i < kRounds; ++i) {
          ExAcquireFastMutex(&mutex);
          mutexInside.EnterExclusive();
          if (KeGetCurrentIrql() != APC_LEVEL) ++wrongIrql;
          ++counted;
          mutexInside.LeaveExclusive();
          ExReleaseFastMutex(&mutex);
          if (KeGetCurrentIrql() != PASSIVE_LEVEL) ++wrongIrql;

          KeEnterCriticalRegion();
          if ((i + t) % 3 == 0) {
            ExfAcquirePushLockExclusive(&pushLock);
            pushInside.EnterExclusive();
            pushInside.LeaveExclusive();
            ExfReleasePushLockExclusive(&pushLock);
          } else {
            ExfAcquirePushLockShared(&pushLock);
            pushInside.EnterShared();
            pushInside.LeaveShared();
            ExfReleasePushLockShared(&pushLock);
          }
          KeLeaveCriticalRegion();
        }
      }));
    }
  }
  EXPECT_EQ(counted, static_cast<long>(kThreads) * kRounds);
  EXPECT_EQ(mutexInside.overlaps.load(), 0);
  EXPECT_EQ(pushInside.overlaps.load(), 0);
  EXPECT_EQ(wrongIrql.load(), 0);
  EXPECT_EQ(pushLock, 0u) << "the push lock is left held or with waiting bits";
  EXPECT_TRUE(world.verifier().Violations().empty());
}

}  // namespace
