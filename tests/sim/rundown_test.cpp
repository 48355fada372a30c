// Rundown protection and push locks as a driver observes them: the reference counts kept in the
// driver's own record, a rundown that refuses new references and waits for the old ones on
// another thread, reinitialisation, exclusion between threads, and the verifier's view of misuse.

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "host_thread.h"
#include "ntsim/ntsim.h"
#include "world.h"

using ntsim::Verifier;
using ntsim::World;
using sim_test::Eventually;
using sim_test::HostThread;

namespace {

using namespace std::chrono_literals;

void RecordViolations(World& world) { world.verifier().SetViolationPolicy(Verifier::ViolationPolicy::Record); }

std::vector<std::string> ViolationCalls(World& world) {
  std::vector<std::string> calls;
  for (const ntsim::Finding& f : world.verifier().Violations()) calls.push_back(f.call);
  return calls;
}

ULONG_PTR CountOf(const EX_RUNDOWN_REF& ref) { return __atomic_load_n(&ref.Count, __ATOMIC_SEQ_CST); }
ULONG_PTR WordOf(const EX_PUSH_LOCK& lock) { return __atomic_load_n(&lock, __ATOMIC_SEQ_CST); }

// ---------------------------------------------------------------------------------------------
// Rundown protection

TEST(RundownTest, ReferencesAreCountedInTwosAndOverReleasesAreViolations) {
  World world;
  RecordViolations(world);
  EX_RUNDOWN_REF ref;
  ExInitializeRundownProtection(&ref);
  EXPECT_EQ(CountOf(ref), 0u);
  EXPECT_TRUE(ExAcquireRundownProtection(&ref));
  EXPECT_EQ(CountOf(ref), 2u);
  EXPECT_TRUE(ExAcquireRundownProtectionEx(&ref, 15));
  EXPECT_EQ(CountOf(ref), 32u);
  ExReleaseRundownProtectionEx(&ref, 10);
  EXPECT_EQ(CountOf(ref), 12u);
  ExReleaseRundownProtection(&ref);
  EXPECT_EQ(CountOf(ref), 10u);
  EXPECT_TRUE(world.verifier().Violations().empty());

  // Five held: releasing six takes nothing and is reported; so is a release of nothing held.
  ExReleaseRundownProtectionEx(&ref, 6);
  EXPECT_EQ(CountOf(ref), 10u);
  ExReleaseRundownProtectionEx(&ref, 5);
  EXPECT_EQ(CountOf(ref), 0u);
  ExReleaseRundownProtection(&ref);
  EXPECT_EQ(CountOf(ref), 0u);
  EXPECT_EQ(ViolationCalls(world),
            (std::vector<std::string>{"ExReleaseRundownProtectionEx", "ExReleaseRundownProtection"}));
}

TEST(RundownTest, ARundownRefusesNewReferencesUntilReinitialised) {
  World world;
  RecordViolations(world);
  EX_RUNDOWN_REF ref;
  ExInitializeRundownProtection(&ref);

  // Nothing held: the wait returns at once and leaves the rundown bit alone in the count.
  ExWaitForRundownProtectionRelease(&ref);
  EXPECT_EQ(CountOf(ref), 1u);
  EXPECT_FALSE(ExAcquireRundownProtection(&ref));
  EXPECT_FALSE(ExAcquireRundownProtectionEx(&ref, 3));
  EXPECT_EQ(CountOf(ref), 1u);
  ExWaitForRundownProtectionRelease(&ref);  // a second rundown is no error and does not wait
  ExRundownCompleted(&ref);
  EXPECT_EQ(CountOf(ref), 1u);
  EXPECT_FALSE(ExAcquireRundownProtection(&ref));
  EXPECT_TRUE(world.verifier().Violations().empty());

  ExReInitializeRundownProtection(&ref);
  EXPECT_EQ(CountOf(ref), 0u);
  EXPECT_TRUE(ExAcquireRundownProtection(&ref));
  ExReleaseRundownProtection(&ref);

  // Reinitialising or completing a record that was never run down is a mistake.
  ExReInitializeRundownProtection(&ref);
  ExRundownCompleted(&ref);
  EXPECT_EQ(ViolationCalls(world),
            (std::vector<std::string>{"ExReInitializeRundownProtection", "ExRundownCompleted"}));
}

TEST(RundownTest, TheWaitEndsWithTheLastReleaseOnAnotherThread) {
  World world;
  EX_RUNDOWN_REF ref;
  ExInitializeRundownProtection(&ref);
  ASSERT_TRUE(ExAcquireRundownProtectionEx(&ref, 2));
  std::atomic<bool> returned{false};
  HostThread waiter([&] {
    ExWaitForRundownProtectionRelease(&ref);
    returned = true;
  });
  // The rundown has begun: the references held are still counted, new ones are refused.
  ASSERT_TRUE(Eventually([&] { return (CountOf(ref) & 1) != 0; }));
  EXPECT_EQ(CountOf(ref), 5u);
  EXPECT_FALSE(ExAcquireRundownProtection(&ref));
  EXPECT_FALSE(waiter.FinishedWithin(100ms));
  ExReleaseRundownProtection(&ref);
  EXPECT_FALSE(waiter.FinishedWithin(50ms));
  EXPECT_FALSE(returned);
  ExReleaseRundownProtection(&ref);
  EXPECT_TRUE(waiter.FinishedWithin(2s));
  EXPECT_EQ(CountOf(ref), 1u);
}

TEST(RundownTest, NoReferenceOutlivesTheWaitUnderManyThreads) {
  World world;
  EX_RUNDOWN_REF ref;
  ExInitializeRundownProtection(&ref);
  std::atomic<int> inside{0};
  std::atomic<int> granted{0};
  std::atomic<bool> lateEntry{false};
  std::atomic<bool> rundownReturned{false};
  {
    std::vector<std::unique_ptr<HostThread>> users;
    for (int t = 0; t < 6; ++t) {
      users.push_back(std::make_unique<HostThread>([&, t] {
        for (int i = 0; i < 4000; ++i) {
          ULONG count = (i + t) % 3 + 1;
          if (!ExAcquireRundownProtectionEx(&ref, count)) continue;
          ++granted;
          ++inside;
          if (rundownReturned) lateEntry = true;  // a reference granted after the rundown finished
          --inside;
          ExReleaseRundownProtectionEx(&ref, count);
        }
      }));
    }
    ASSERT_TRUE(Eventually([&] { return granted.load() > 100; }));
    ExWaitForRundownProtectionRelease(&ref);
    rundownReturned = true;
    EXPECT_EQ(inside.load(), 0);
    EXPECT_EQ(CountOf(ref), 1u);
  }
  EXPECT_FALSE(lateEntry);
  EXPECT_EQ(CountOf(ref), 1u);
}

// ---------------------------------------------------------------------------------------------
// Push locks

// Runs fn inside a critical region, as push locks require.
template <typename Fn>
void InRegion(Fn fn) {
  KeEnterCriticalRegion();
  fn();
  KeLeaveCriticalRegion();
}

TEST(PushLockTest, OwnersExcludeEachOtherAcrossThreadsAndExclusiveWaitersGoFirst) {
  World world;
  EX_PUSH_LOCK lock;
  ExInitializePushLock(&lock);
  EXPECT_EQ(WordOf(lock), 0u);
  InRegion([&] {
    ExfAcquirePushLockExclusive(&lock);
    EXPECT_EQ(WordOf(lock) & 1, 1u);  // the lock bit drivers may read
    ExfReleasePushLockExclusive(&lock);
    EXPECT_EQ(WordOf(lock), 0u);

    ExfAcquirePushLockShared(&lock);
    EXPECT_EQ(WordOf(lock) & 1, 0u);
    EXPECT_NE(WordOf(lock), 0u);
  });

  // A second shared owner gets in; an exclusive one waits for both.
  HostThread reader([&] { InRegion([&] { ExfAcquirePushLockShared(&lock); }); });
  EXPECT_TRUE(reader.FinishedWithin(2s));
  std::atomic<bool> writerIn{false};
  HostThread writer([&] {
    InRegion([&] {
      ExfAcquirePushLockExclusive(&lock);
      writerIn = true;
      std::this_thread::sleep_for(20ms);
      ExfReleasePushLockExclusive(&lock);
    });
  });
  EXPECT_FALSE(writer.FinishedWithin(100ms));
  // With the writer queued, a new shared acquire waits behind it.
  std::atomic<bool> lateReaderIn{false};
  std::atomic<bool> lateReaderSawWriter{false};
  HostThread lateReader([&] {
    InRegion([&] {
      ExfAcquirePushLockShared(&lock);
      lateReaderIn = true;
      lateReaderSawWriter = writerIn.load();
      ExfReleasePushLockShared(&lock);
    });
  });
  EXPECT_FALSE(lateReader.FinishedWithin(100ms));
  EXPECT_FALSE(lateReaderIn);
  InRegion([&] {
    ExfReleasePushLockShared(&lock);  // this thread's share
    ExfReleasePushLockShared(&lock);  // the reader thread's: push locks are not owned by a thread
  });
  EXPECT_TRUE(writer.FinishedWithin(2s));
  EXPECT_TRUE(lateReader.FinishedWithin(2s));
  EXPECT_TRUE(writerIn);
  EXPECT_TRUE(lateReaderSawWriter);
  EXPECT_EQ(WordOf(lock), 0u);
}

TEST(PushLockTest, ManyThreadsSeeEveryUpdateWhole) {
  World world;
  EX_PUSH_LOCK lock;
  ExInitializePushLock(&lock);
  // Two plain words that writers keep equal; readers must never see them differ.
  uint64_t first = 0, second = 0;
  std::atomic<int> torn{0};
  constexpr int kWriters = 4, kReaders = 3, kRounds = 3000;
  {
    std::vector<std::unique_ptr<HostThread>> threads;
    for (int t = 0; t < kWriters; ++t) {
      threads.push_back(std::make_unique<HostThread>([&] {
        for (int i = 0; i < kRounds; ++i) {
          InRegion([&] {
            ExfAcquirePushLockExclusive(&lock);
            ++first;
            ++second;
            ExfReleasePushLockExclusive(&lock);
          });
        }
      }));
    }
    for (int t = 0; t < kReaders; ++t) {
      threads.push_back(std::make_unique<HostThread>([&] {
        for (int i = 0; i < kRounds; ++i) {
          InRegion([&] {
            ExfAcquirePushLockShared(&lock);
            if (first != second) ++torn;
            ExfReleasePushLockShared(&lock);
          });
        }
      }));
    }
  }
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(first, uint64_t(kWriters) * kRounds);
  EXPECT_EQ(second, first);
  EXPECT_EQ(WordOf(lock), 0u);
}

TEST(PushLockTest, AcquiringWithApcsEnabledAndReleasingWhatIsNotHeldAreViolations) {
  World world;
  RecordViolations(world);
  EX_PUSH_LOCK lock;
  ExInitializePushLock(&lock);
  ExfAcquirePushLockExclusive(&lock);  // no critical region
  ExfReleasePushLockExclusive(&lock);
  ExfAcquirePushLockShared(&lock);
  ExfReleasePushLockShared(&lock);
  EXPECT_EQ(ViolationCalls(world),
            (std::vector<std::string>{"ExfAcquirePushLockExclusive", "ExfAcquirePushLockShared"}));
  world.verifier().ClearViolations();

  // At APC_LEVEL normal kernel APCs are off as well: no finding.
  KIRQL old;
  KeRaiseIrql(APC_LEVEL, &old);
  ExfAcquirePushLockExclusive(&lock);
  ExfReleasePushLockExclusive(&lock);
  KeLowerIrql(old);
  EXPECT_TRUE(world.verifier().Violations().empty());

  InRegion([&] {
    ExfReleasePushLockExclusive(&lock);  // not held at all
    ExfReleasePushLockShared(&lock);
    ExfAcquirePushLockShared(&lock);
    ExfReleasePushLockExclusive(&lock);  // held shared, released as exclusive
    ExfReleasePushLockShared(&lock);
    ExfAcquirePushLockExclusive(&lock);
    ExfReleasePushLockShared(&lock);  // held exclusively, released as shared
    ExfReleasePushLockExclusive(&lock);
  });
  EXPECT_EQ(ViolationCalls(world),
            (std::vector<std::string>{"ExfReleasePushLockExclusive", "ExfReleasePushLockShared",
                                      "ExfReleasePushLockExclusive", "ExfReleasePushLockShared"}));
  EXPECT_EQ(WordOf(lock), 0u);
}

}  // namespace
