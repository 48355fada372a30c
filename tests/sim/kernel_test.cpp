// The simulated kernel's executive, kernel-core and run-time routines as a driver observes them:
// pool by tag and the verifier's pool checks, fault injection, lookaside lists, executive
// resources and fast mutexes across host threads, dispatcher events and timeouts, critical
// regions, the guarded copy, counted strings, debugger output, routine lookup by name, and DACLs
// applied to objects.
//
// Tests that provoke a violation switch the verifier to recording and then read its findings.
// Waits on other host threads are bounded: a thread that the simulated kernel never releases
// stops the run with a message instead of hanging it.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ntsim/ntsim.h"
#include "world.h"
#include "sim_test_support.h"

using ntsim::ObjectManager;
using ntsim::Verifier;
using ntsim::World;

namespace {

using sim_test::Eventually;
using sim_test::HostThread;
using sim_test::RecordViolations;
using sim_test::ViolationCalls;

using namespace std::chrono_literals;

constexpr ULONG kTagA = 'AtsT';  // "TstA" in memory
constexpr ULONG kTagB = 'BtsT';
constexpr ULONG kTagLookaside = 'LtsT';





size_t OutstandingWithTag(World& world, ULONG tag) {
  auto blocks = world.kernel().pool.Outstanding();
  return std::count_if(blocks.begin(), blocks.end(), [tag](const ntsim::PoolBlock& b) { return b.tag == tag; });
}

UNICODE_STRING Counted(const std::u16string& text) {
  UNICODE_STRING s;
  s.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  s.MaximumLength = s.Length;
  s.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(text.data()));
  return s;
}

std::string Utf8(const UNICODE_STRING& s) {
  return ntsim::ToUtf8(std::u16string(reinterpret_cast<const char16_t*>(s.Buffer), s.Length / sizeof(WCHAR)));
}

LARGE_INTEGER RelativeMs(LONGLONG ms) {
  LARGE_INTEGER t;
  t.QuadPart = -ms * 10 * 1000;  // negative: relative, in 100-ns units
  return t;
}

NTSTATUS Poll(PKEVENT event) {
  LARGE_INTEGER zero;
  zero.QuadPart = 0;
  return KeWaitForSingleObject(event, Executive, KernelMode, FALSE, &zero);
}

// ---------------------------------------------------------------------------------------------
// Pool

TEST(PoolTest, BlocksAreTrackedByTagUntilFreed) {
  World world;
  void* a1 = ExAllocatePoolWithTag(NonPagedPoolNx, 24, kTagA);
  void* a2 = ExAllocatePoolWithTag(PagedPool, 40, kTagA);
  void* b = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTagB);
  ASSERT_TRUE(a1 && a2 && b);
  EXPECT_EQ(OutstandingWithTag(world, kTagA), 2u);
  EXPECT_EQ(OutstandingWithTag(world, kTagB), 1u);
  EXPECT_EQ(world.kernel().pool.OutstandingBytes(), 164u);

  ExFreePoolWithTag(a1, kTagA);
  ExFreePool(b);  // the untagged free checks no tag
  EXPECT_EQ(OutstandingWithTag(world, kTagA), 1u);
  EXPECT_EQ(OutstandingWithTag(world, kTagB), 0u);
  ExFreePoolWithTag(a2, kTagA);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  EXPECT_TRUE(world.verifier().Violations().empty());
}

TEST(PoolTest, FreshPoolIsNotZeroed) {
  World world;
  auto* p = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 256, kTagA));
  ASSERT_NE(p, nullptr);
  EXPECT_FALSE(std::all_of(p, p + 256, [](unsigned char c) { return c == 0; }))
      << "code that forgets to zero its pool must not pass by luck";
  ExFreePoolWithTag(p, kTagA);
}

TEST(PoolTest, BadFreesAreViolationsAndLoseNothing) {
  World world;
  RecordViolations(world);
  void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 32, kTagA);
  ASSERT_NE(p, nullptr);

  ExFreePoolWithTag(p, kTagB);  // the wrong tag: the block stays allocated
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExFreePoolWithTag"});
  EXPECT_EQ(OutstandingWithTag(world, kTagA), 1u);

  world.verifier().ClearViolations();
  ExFreePoolWithTag(p, kTagA);  // the right tag still frees it
  EXPECT_TRUE(world.verifier().Violations().empty());
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());

  ExFreePoolWithTag(p, kTagA);  // a second free
  int local = 0;
  ExFreePoolWithTag(&local, kTagA);  // a pointer that never came from pool
  ExFreePool(reinterpret_cast<char*>(&local) + 8);
  EXPECT_EQ(ViolationCalls(world), (std::vector<std::string>{"ExFreePoolWithTag", "ExFreePoolWithTag", "ExFreePool"}));
}

TEST(PoolTest, MisuseOfTheAllocatorIsAViolation) {
  World world;
  RecordViolations(world);
  EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, 0, kTagA), nullptr);  // zero bytes
  EXPECT_EQ(ViolationCalls(world).size(), 1u);

  world.verifier().ClearViolations();
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  void* nonPaged = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA);  // fine at DISPATCH_LEVEL
  EXPECT_TRUE(world.verifier().Violations().empty());
  void* paged = ExAllocatePoolWithTag(PagedPool, 16, kTagA);  // paged pool is not
  KeLowerIrql(old);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExAllocatePoolWithTag"});
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  ExFreePoolWithTag(nonPaged, kTagA);

  // Freeing paged pool is as bound to APC_LEVEL as allocating it.
  world.verifier().ClearViolations();
  if (!paged) paged = ExAllocatePoolWithTag(PagedPool, 16, kTagA);
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  ExFreePoolWithTag(paged, kTagA);
  KeLowerIrql(old);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExFreePoolWithTag"});
}

// DbgPrint converts Unicode text only at PASSIVE_LEVEL; pageable routines run at APC_LEVEL at most.
TEST(IrqlRuleTest, UnicodeFormatsAndPageableCodeAboveTheirLevelAreViolations) {
  World world;
  RecordViolations(world);
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"x");
  KIRQL old;
  KeRaiseIrql(APC_LEVEL, &old);  // as a fast mutex holder runs
  DbgPrint("%s %d %p %Z %%S\n", "ansi", 1, nullptr, nullptr);
  PAGED_CODE();
  EXPECT_TRUE(world.verifier().Violations().empty());
  for (const char* format : {"%S\n", "%ws\n", "%-8ls\n", "%wZ\n", "%C\n", "%wc\n"}) {
    DbgPrint(format, format[1] == 'w' && format[2] == 'Z' ? static_cast<void*>(&name) : static_cast<void*>(name.Buffer));
  }
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>(6, "DbgPrint"));
  world.verifier().ClearViolations();
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  PAGED_CODE();
  KeLowerIrql(PASSIVE_LEVEL);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"TestBody"});
  world.verifier().ClearViolations();
  DbgPrint("%wZ\n", &name);  // at PASSIVE_LEVEL
  EXPECT_TRUE(world.verifier().Violations().empty());
}

// ---------------------------------------------------------------------------------------------
// Fault injection

TEST(FaultInjectionTest, FailNthFailsExactlyThatAllocationPointOnce) {
  World world;
  world.verifier().FailNth(3);
  EXPECT_FALSE(world.verifier().InjectedFailure());
  std::vector<void*> blocks;
  for (int i = 0; i < 5; ++i) blocks.push_back(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(blocks[i] == nullptr, i == 2) << "allocation " << i + 1;
  EXPECT_EQ(world.verifier().AllocationPoints(), 5u);
  EXPECT_TRUE(world.verifier().InjectedFailure());
  EXPECT_EQ(OutstandingWithTag(world, kTagA), 4u);  // the failed one holds nothing

  // Re-arming restarts the count; kernel routines that allocate on the driver's behalf are points
  // too, and report the failure as a status.
  PDRIVER_OBJECT driver = world.kernel().io.CreateDriverObject(u"\\Driver\\FaultTest", nullptr);
  world.verifier().FailNth(2);
  void* first = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA);
  EXPECT_NE(first, nullptr);
  PDEVICE_OBJECT device = nullptr;
  EXPECT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device),
            STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(driver->DeviceObject, nullptr);
  EXPECT_EQ(world.verifier().AllocationPoints(), 2u);

  // Off: nothing fails, points are still counted.
  world.verifier().FailNth(0);
  EXPECT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device), STATUS_SUCCESS);
  for (int i = 0; i < 3; ++i) blocks.push_back(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA));
  EXPECT_TRUE(std::all_of(blocks.end() - 3, blocks.end(), [](void* p) { return p != nullptr; }));
  EXPECT_EQ(world.verifier().AllocationPoints(), 4u);
  EXPECT_FALSE(world.verifier().InjectedFailure());

  blocks.push_back(first);
  for (void* p : blocks) {
    if (p) ExFreePoolWithTag(p, kTagA);
  }
  IoDeleteDevice(device);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
}

TEST(FaultInjectionTest, ExemptTagsAreNoAllocationPoints) {
  World world;
  world.verifier().ExemptTags({kTagB});
  world.verifier().FailNth(2);
  void* exempt[3];
  for (void*& p : exempt) p = ExAllocatePoolWithTag(PagedPool, 16, kTagB);
  void* first = ExAllocatePoolWithTag(PagedPool, 16, kTagA);
  void* second = ExAllocatePoolWithTag(PagedPool, 16, kTagA);
  EXPECT_TRUE(std::all_of(std::begin(exempt), std::end(exempt), [](void* p) { return p != nullptr; }));
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr) << "the second counted point fails";
  EXPECT_EQ(world.verifier().AllocationPoints(), 2u);

  // Until the list is changed.
  world.verifier().ExemptTags({});
  world.verifier().FailNth(1);
  EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 16, kTagB), nullptr);
  world.verifier().FailNth(0);
  for (void* p : exempt) ExFreePoolWithTag(p, kTagB);
  ExFreePoolWithTag(first, kTagA);
}

// ---------------------------------------------------------------------------------------------
// Lookaside lists

TEST(LookasideTest, EntriesArePoolOfTheListsTagUntilTheListIsDeleted) {
  World world;
  NPAGED_LOOKASIDE_LIST list;
  ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 48, kTagLookaside, 0);
  std::vector<void*> entries;
  for (int i = 0; i < 6; ++i) {
    entries.push_back(ExAllocateFromNPagedLookasideList(&list));
    ASSERT_NE(entries.back(), nullptr);
  }
  for (const ntsim::PoolBlock& block : world.kernel().pool.Outstanding()) {
    EXPECT_EQ(block.tag, kTagLookaside);
    EXPECT_EQ(block.size, 48u);
  }
  EXPECT_EQ(OutstandingWithTag(world, kTagLookaside), 6u);

  // Entries given back may stay cached; deleting the list frees every cached one, so that what
  // remains is exactly the entry the driver never returned.
  for (int i = 0; i < 5; ++i) ExFreeToNPagedLookasideList(&list, entries[i]);
  ExDeleteNPagedLookasideList(&list);
  auto left = world.kernel().pool.Outstanding();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].tag, kTagLookaside);
  ExFreePoolWithTag(entries[5], kTagLookaside);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  EXPECT_TRUE(world.verifier().Violations().empty());
}

TEST(LookasideTest, AMissGoesToPoolAndCanFail) {
  World world;
  PAGED_LOOKASIDE_LIST list;
  ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 64, kTagLookaside, 0);
  world.verifier().FailNth(1);
  EXPECT_EQ(ExAllocateFromPagedLookasideList(&list), nullptr);
  EXPECT_TRUE(world.verifier().InjectedFailure());
  void* entry = ExAllocateFromPagedLookasideList(&list);
  ASSERT_NE(entry, nullptr);
  ExFreeToPagedLookasideList(&list, entry);
  ExDeletePagedLookasideList(&list);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
}

TEST(LookasideTest, UsingADeletedListIsAViolation) {
  World world;
  RecordViolations(world);
  NPAGED_LOOKASIDE_LIST list;
  ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 32, kTagLookaside, 0);
  void* entry = ExAllocateFromNPagedLookasideList(&list);
  ExDeleteNPagedLookasideList(&list);
  EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);
  ExFreeToNPagedLookasideList(&list, entry);
  EXPECT_EQ(ViolationCalls(world),
            (std::vector<std::string>{"ExAllocateFromNPagedLookasideList", "ExFreeToNPagedLookasideList"}));
  ExFreePoolWithTag(entry, kTagLookaside);
}

// ---------------------------------------------------------------------------------------------
// Executive resources

TEST(ResourceTest, AcquiringOutsideACriticalRegionIsAViolation) {
  World world;
  RecordViolations(world);
  ERESOURCE resource;
  ExInitializeResourceLite(&resource);
  EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
  ExReleaseResourceLite(&resource);
  EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
  ExReleaseResourceLite(&resource);
  EXPECT_EQ(ViolationCalls(world),
            (std::vector<std::string>{"ExAcquireResourceExclusiveLite", "ExAcquireResourceSharedLite"}));

  // Inside a critical region, or with APCs disabled by a raised IRQL, it is allowed.
  world.verifier().ClearViolations();
  KeEnterCriticalRegion();
  EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
  ExReleaseResourceLite(&resource);
  KeLeaveCriticalRegion();
  KIRQL old;
  KeRaiseIrql(APC_LEVEL, &old);
  EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
  ExReleaseResourceLite(&resource);
  KeLowerIrql(old);
  EXPECT_TRUE(world.verifier().Violations().empty());
  ExDeleteResourceLite(&resource);
}

TEST(ResourceTest, OwnershipIsRecursiveAndPerThread) {
  World world;
  ERESOURCE resource;
  ExInitializeResourceLite(&resource);
  KeEnterCriticalRegion();
  EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));
  EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 0u);

  ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
  ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, FALSE));  // recursive
  ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, FALSE));     // an exclusive owner may also take it shared
  EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
  EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 3u);

  {
    HostThread other([&] {
      KeEnterCriticalRegion();
      EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));
      EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 0u);
      EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, FALSE));
      EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, FALSE));
      KeLeaveCriticalRegion();
    });
  }

  ExReleaseResourceLite(&resource);
  ExReleaseResourceLite(&resource);
  EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));  // one acquisition left
  ExReleaseResourceLite(&resource);
  EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));
  EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 0u);
  KeLeaveCriticalRegion();
  ExDeleteResourceLite(&resource);
}

TEST(ResourceTest, SharedAndExclusiveOwnersExcludeEachOtherAcrossThreads) {
  World world;
  ERESOURCE resource;
  ExInitializeResourceLite(&resource);
  KEVENT releaseWriter;
  KeInitializeEvent(&releaseWriter, NotificationEvent, FALSE);
  KeEnterCriticalRegion();
  ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));

  {  // Readers share; a writer is refused without waiting.
    HostThread reader([&] {
      KeEnterCriticalRegion();
      EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, FALSE));
      EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 1u);
      ExReleaseResourceLite(&resource);
      EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, FALSE));
      KeLeaveCriticalRegion();
    });
  }

  std::atomic<bool> writerOwns{false};
  HostThread writer([&] {
    KeEnterCriticalRegion();
    EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));  // waits for the reader
    writerOwns = true;
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
    LARGE_INTEGER bound = RelativeMs(5000);
    EXPECT_EQ(KeWaitForSingleObject(&releaseWriter, Executive, KernelMode, FALSE, &bound), STATUS_SUCCESS);
    writerOwns = false;
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
  });

  // Once the writer waits, new readers queue behind it (it is not starved)...
  std::atomic<bool> newReaderRefused{false};
  {
    HostThread newReader([&] {
      KeEnterCriticalRegion();
      newReaderRefused = Eventually([&] {
        if (!ExAcquireResourceSharedLite(&resource, FALSE)) return true;
        ExReleaseResourceLite(&resource);
        return false;
      });
      KeLeaveCriticalRegion();
    });
  }
  EXPECT_TRUE(newReaderRefused);
  // ...but a thread that already reads may take it again, or it would wait for itself.
  EXPECT_TRUE(ExAcquireResourceSharedLite(&resource, FALSE));
  EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 2u);
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(writerOwns) << "the writer got in while a reader held the resource";

  ExReleaseResourceLite(&resource);
  ExReleaseResourceLite(&resource);
  EXPECT_TRUE(Eventually([&] { return writerOwns.load(); })) << "the writer was not woken";
  EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, FALSE));
  EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));

  KeSetEvent(&releaseWriter, IO_NO_INCREMENT, FALSE);
  EXPECT_TRUE(writer.FinishedWithin(5s));
  EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource, FALSE));
  ExReleaseResourceLite(&resource);
  KeLeaveCriticalRegion();
  ExDeleteResourceLite(&resource);
}

TEST(ResourceTest, SelfDeadlocksAndBadReleasesAreViolations) {
  World world;
  RecordViolations(world);
  ERESOURCE resource;
  ExInitializeResourceLite(&resource);
  KeEnterCriticalRegion();
  ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
  EXPECT_FALSE(ExAcquireResourceExclusiveLite(&resource, TRUE));  // would wait for itself
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExAcquireResourceExclusiveLite"});

  world.verifier().ClearViolations();
  { HostThread other([&] { ExReleaseResourceLite(&resource); }); }  // not the owner
  ExDeleteResourceLite(&resource);                                  // still owned
  EXPECT_EQ(ViolationCalls(world), (std::vector<std::string>{"ExReleaseResourceLite", "ExDeleteResourceLite"}));

  world.verifier().ClearViolations();
  EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, TRUE));  // deleted
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExAcquireResourceSharedLite"});
  KeLeaveCriticalRegion();
}

// ---------------------------------------------------------------------------------------------
// Fast mutexes

TEST(FastMutexTest, HolderRunsAtApcLevelAndOthersAreExcluded) {
  World world;
  FAST_MUTEX mutex;
  ExInitializeFastMutex(&mutex);
  ASSERT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  ExAcquireFastMutex(&mutex);
  EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
  EXPECT_TRUE(KeAreApcsDisabled());

  std::atomic<bool> otherOwns{false};
  {
    HostThread trier([&] { EXPECT_FALSE(ExTryToAcquireFastMutex(&mutex)); });
  }
  HostThread waiter([&] {
    ExAcquireFastMutex(&mutex);
    otherOwns = true;
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  });
  EXPECT_FALSE(waiter.FinishedWithin(20ms));
  EXPECT_FALSE(otherOwns);
  ExReleaseFastMutex(&mutex);
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  EXPECT_TRUE(waiter.FinishedWithin(5s));
  EXPECT_TRUE(otherOwns);

  // The level before the acquire is what the release restores.
  KIRQL old;
  KeRaiseIrql(APC_LEVEL, &old);
  ASSERT_TRUE(ExTryToAcquireFastMutex(&mutex));
  ExReleaseFastMutex(&mutex);
  EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
  KeLowerIrql(old);
}

TEST(FastMutexTest, RecursionAndForeignReleaseAreViolations) {
  World world;
  RecordViolations(world);
  FAST_MUTEX mutex;
  ExInitializeFastMutex(&mutex);
  ExAcquireFastMutex(&mutex);
  ExAcquireFastMutex(&mutex);  // would wait for itself forever
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExAcquireFastMutex"});

  world.verifier().ClearViolations();
  { HostThread other([&] { ExReleaseFastMutex(&mutex); }); }
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExReleaseFastMutex"});
  ExReleaseFastMutex(&mutex);  // the owner's release still works
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

  world.verifier().ClearViolations();
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  if (ExTryToAcquireFastMutex(&mutex)) ExReleaseFastMutex(&mutex);
  KeLowerIrql(old);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExTryToAcquireFastMutex"});
}

// ---------------------------------------------------------------------------------------------
// Events and waits

TEST(EventTest, NotificationEventsStaySignalledSynchronizationEventsReleaseOneWait) {
  World world;
  KEVENT notification;
  KeInitializeEvent(&notification, NotificationEvent, FALSE);
  EXPECT_EQ(KeReadStateEvent(&notification), 0);
  EXPECT_EQ(Poll(&notification), STATUS_TIMEOUT);
  EXPECT_EQ(KeSetEvent(&notification, IO_NO_INCREMENT, FALSE), 0);  // the previous state
  EXPECT_NE(KeSetEvent(&notification, IO_NO_INCREMENT, FALSE), 0);
  EXPECT_EQ(Poll(&notification), STATUS_SUCCESS);
  EXPECT_EQ(Poll(&notification), STATUS_SUCCESS);
  EXPECT_NE(KeReadStateEvent(&notification), 0);
  EXPECT_NE(KeResetEvent(&notification), 0);
  EXPECT_EQ(Poll(&notification), STATUS_TIMEOUT);

  KEVENT synchronization;
  KeInitializeEvent(&synchronization, SynchronizationEvent, TRUE);
  EXPECT_EQ(Poll(&synchronization), STATUS_SUCCESS);
  EXPECT_EQ(KeReadStateEvent(&synchronization), 0);  // the satisfied wait reset it
  EXPECT_EQ(Poll(&synchronization), STATUS_TIMEOUT);
  KeSetEvent(&synchronization, IO_NO_INCREMENT, FALSE);
  KeClearEvent(&synchronization);
  EXPECT_EQ(Poll(&synchronization), STATUS_TIMEOUT);
}

TEST(EventTest, SettingWakesWaitersOnOtherThreads) {
  World world;
  KEVENT notification, synchronization;
  KeInitializeEvent(&notification, NotificationEvent, FALSE);
  KeInitializeEvent(&synchronization, SynchronizationEvent, FALSE);
  auto waitOn = [](PKEVENT event, std::atomic<int>* woken) {
    LARGE_INTEGER bound = RelativeMs(5000);
    EXPECT_EQ(KeWaitForSingleObject(event, Executive, KernelMode, FALSE, &bound), STATUS_SUCCESS);
    ++*woken;
  };

  // A notification event releases every waiter.
  std::atomic<int> notified{0};
  {
    HostThread w1([&] { waitOn(&notification, &notified); });
    HostThread w2([&] { waitOn(&notification, &notified); });
    HostThread w3([&] { waitOn(&notification, &notified); });
    EXPECT_FALSE(w1.FinishedWithin(20ms));
    KeSetEvent(&notification, IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(w1.FinishedWithin(5s) && w2.FinishedWithin(5s) && w3.FinishedWithin(5s));
  }
  EXPECT_EQ(notified, 3);

  // A synchronization event releases one waiter per set.
  std::atomic<int> released{0};
  {
    HostThread w1([&] { waitOn(&synchronization, &released); });
    HostThread w2([&] { waitOn(&synchronization, &released); });
    std::this_thread::sleep_for(20ms);
    KeSetEvent(&synchronization, IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(Eventually([&] { return released == 1; }));
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(KeReadStateEvent(&synchronization), 0);
    KeSetEvent(&synchronization, IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(Eventually([&] { return released == 2; }));
  }
}

TEST(EventTest, RelativeTimeoutsExpire) {
  World world;
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  LARGE_INTEGER timeout = RelativeMs(30);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);
  auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, 29ms);
  EXPECT_LT(elapsed, 2s);

  // An event set during the wait ends it early.
  HostThread setter([&] {
    std::this_thread::sleep_for(20ms);
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
  });
  timeout = RelativeMs(5000);
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_SUCCESS);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
}

TEST(EventTest, WaitingAtDispatchLevelIsAViolationButPollingIsNot) {
  World world;
  RecordViolations(world);
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, TRUE);
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
  EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
  EXPECT_TRUE(world.verifier().Violations().empty());
  LARGE_INTEGER timeout = RelativeMs(1);
  KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
  KeLowerIrql(old);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"KeWaitForSingleObject"});
}

// ---------------------------------------------------------------------------------------------
// Critical regions

TEST(CriticalRegionTest, RegionsNestAndAnUnmatchedLeaveIsAViolation) {
  World world;
  RecordViolations(world);
  EXPECT_FALSE(KeAreApcsDisabled());
  KeEnterCriticalRegion();
  KeEnterCriticalRegion();
  EXPECT_TRUE(KeAreApcsDisabled());
  KeLeaveCriticalRegion();
  EXPECT_TRUE(KeAreApcsDisabled());
  KeLeaveCriticalRegion();
  EXPECT_FALSE(KeAreApcsDisabled());
  EXPECT_TRUE(world.verifier().Violations().empty());
  KeLeaveCriticalRegion();
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"KeLeaveCriticalRegion"});
  EXPECT_FALSE(KeAreApcsDisabled());  // the unmatched leave did not go negative

  // The region belongs to the thread that entered it.
  KeEnterCriticalRegion();
  { HostThread other([&] { EXPECT_FALSE(KeAreApcsDisabled()); }); }
  KeLeaveCriticalRegion();
}

// ---------------------------------------------------------------------------------------------
// UUIDs

TEST(UuidTest, EachIsANewRandomVersion4Uuid) {
  World world;
  RecordViolations(world);
  std::vector<UUID> made(64);
  for (UUID& uuid : made) {
    ASSERT_EQ(ExUuidCreate(&uuid), STATUS_SUCCESS);
    EXPECT_EQ(uuid.Data3 >> 12, 4) << "version";
    EXPECT_EQ(uuid.Data4[0] >> 6, 2) << "variant";
  }
  for (size_t i = 0; i < made.size(); ++i) {
    for (size_t j = i + 1; j < made.size(); ++j) EXPECT_NE(std::memcmp(&made[i], &made[j], sizeof(UUID)), 0);
  }
  // Threads draw their own: no two alike either.
  UUID other;
  { HostThread thread([&] { ExUuidCreate(&other); }); }
  for (const UUID& uuid : made) EXPECT_NE(std::memcmp(&uuid, &other, sizeof(UUID)), 0);
  EXPECT_TRUE(world.verifier().Violations().empty());

  KIRQL old;
  KeRaiseIrql(APC_LEVEL, &old);
  ExUuidCreate(&other);
  KeLowerIrql(old);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"ExUuidCreate"});
}

// ---------------------------------------------------------------------------------------------
// Guarded copy

TEST(GuardedCopyTest, FaultingSourcesAndDestinationsGiveAccessViolation) {
  World world;
  char destination[64];
  std::memset(destination, 'k', sizeof destination);
  const char source[] = "ordinary memory";
  EXPECT_EQ(NtSimGuardedCopy(destination, source, sizeof source), STATUS_SUCCESS);
  EXPECT_STREQ(destination, source);

  auto* faulting = static_cast<char*>(world.FaultingBuffer(PAGE_SIZE));
  std::memset(destination, 'k', sizeof destination);
  EXPECT_EQ(NtSimGuardedCopy(destination, faulting, 16), STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(NtSimGuardedCopy(destination, faulting + 100, 1), STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(NtSimGuardedCopy(destination, faulting + PAGE_SIZE - 1, 1), STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(NtSimGuardedCopy(destination, faulting - 8, 16), STATUS_ACCESS_VIOLATION);  // runs into it
  EXPECT_EQ(NtSimGuardedCopy(faulting, source, 4), STATUS_ACCESS_VIOLATION);
  EXPECT_TRUE(std::all_of(destination, destination + sizeof destination, [](char c) { return c == 'k'; }))
      << "a failed copy copies nothing";

  // The null page, and a range that wraps around the address space.
  EXPECT_EQ(NtSimGuardedCopy(destination, nullptr, 4), STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(NtSimGuardedCopy(destination, reinterpret_cast<void*>(0x20), 4), STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(NtSimGuardedCopy(nullptr, source, 4), STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(NtSimGuardedCopy(destination, reinterpret_cast<void*>(~uintptr_t(0) - 3), 16),
            STATUS_ACCESS_VIOLATION);
}

// ---------------------------------------------------------------------------------------------
// Counted strings

TEST(UnicodeStringTest, CopyTruncatesToTheDestinationAndTerminatesWhenThereIsRoom) {
  World world;
  UNICODE_STRING source;
  RtlInitUnicodeString(&source, L"ABCDEFG");
  EXPECT_EQ(source.Length, 14);
  EXPECT_EQ(source.MaximumLength, 16);

  WCHAR small[5] = {L'x', L'x', L'x', L'x', L'x'};
  UNICODE_STRING destination{0, 4 * sizeof(WCHAR), small};
  RtlCopyUnicodeString(&destination, &source);
  EXPECT_EQ(destination.Length, 8);
  EXPECT_EQ(Utf8(destination), "ABCD");
  EXPECT_EQ(small[4], L'x') << "nothing written beyond MaximumLength";

  WCHAR large[16];
  std::fill(std::begin(large), std::end(large), L'x');
  UNICODE_STRING roomy{0, sizeof large, large};
  RtlCopyUnicodeString(&roomy, &source);
  EXPECT_EQ(Utf8(roomy), "ABCDEFG");
  EXPECT_EQ(large[7], 0);
  RtlCopyUnicodeString(&roomy, nullptr);
  EXPECT_EQ(roomy.Length, 0);
}

TEST(UnicodeStringTest, AppendFailsWithoutChangingWhenTooSmall) {
  World world;
  WCHAR buffer[5];
  UNICODE_STRING s{0, sizeof buffer, buffer};
  EXPECT_EQ(RtlAppendUnicodeToString(&s, L"ab"), STATUS_SUCCESS);
  EXPECT_EQ(RtlAppendUnicodeToString(&s, L"cde"), STATUS_SUCCESS);  // exactly full
  EXPECT_EQ(Utf8(s), "abcde");
  EXPECT_EQ(RtlAppendUnicodeToString(&s, L"f"), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(Utf8(s), "abcde");

  UNICODE_STRING tail;
  RtlInitUnicodeString(&tail, L"z");
  s.Length = 8;
  EXPECT_EQ(RtlAppendUnicodeStringToString(&s, &tail), STATUS_SUCCESS);
  EXPECT_EQ(Utf8(s), "abcdz");
  EXPECT_EQ(RtlAppendUnicodeStringToString(&s, &tail), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(s.Length, 10);
}

TEST(UnicodeStringTest, ComparisonIgnoresCaseOnlyWhenAsked) {
  World world;
  auto equal = [](const wchar_t* a, const wchar_t* b, bool caseInsensitive) {
    UNICODE_STRING ua, ub;
    RtlInitUnicodeString(&ua, a);
    RtlInitUnicodeString(&ub, b);
    return RtlEqualUnicodeString(&ua, &ub, caseInsensitive) != FALSE;
  };
  EXPECT_TRUE(equal(L"\\Device\\HarddiskVolume1", L"\\DEVICE\\harddiskvolume1", true));
  EXPECT_FALSE(equal(L"\\Device\\HarddiskVolume1", L"\\DEVICE\\harddiskvolume1", false));
  EXPECT_TRUE(equal(L"\x00C4rger\x00E9", L"\x00E4RGER\x00C9", true));              // Latin-1
  EXPECT_TRUE(equal(L"\x041F\x0440\x0438\x0432\x0435\x0442", L"\x043F\x0420\x0418\x0412\x0415\x0422", true));  // Cyrillic
  EXPECT_FALSE(equal(L"abc", L"abcd", true));
  EXPECT_FALSE(equal(L"abc", L"abd", true));

  UNICODE_STRING prefix, whole;
  RtlInitUnicodeString(&prefix, L"\\??\\c:");
  RtlInitUnicodeString(&whole, L"\\??\\C:\\Windows");
  EXPECT_TRUE(RtlPrefixUnicodeString(&prefix, &whole, TRUE));
  EXPECT_FALSE(RtlPrefixUnicodeString(&prefix, &whole, FALSE));
  EXPECT_FALSE(RtlPrefixUnicodeString(&whole, &prefix, TRUE));
  EXPECT_LT(RtlCompareUnicodeString(&prefix, &whole, TRUE), 0);
}

TEST(UnicodeStringTest, HashesAreX65599OverTheCharactersUpcasedWhenAsked) {
  World world;
  // Values worked out independently: h = h * 65599 + c over the UTF-16 characters, from 0.
  auto hash = [](const wchar_t* text, BOOLEAN caseInsensitive, ULONG algorithm, ULONG* value) {
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, text);
    return RtlHashUnicodeString(&s, caseInsensitive, algorithm, value);
  };
  ULONG value = 0;
  EXPECT_EQ(hash(L"cmd.exe", TRUE, HASH_STRING_ALGORITHM_X65599, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x41eaadfeu);
  EXPECT_EQ(hash(L"CMD.EXE", FALSE, HASH_STRING_ALGORITHM_X65599, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x41eaadfeu);
  EXPECT_EQ(hash(L"cmd.exe", FALSE, HASH_STRING_ALGORITHM_DEFAULT, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x5a427e3eu);
  EXPECT_EQ(hash(L"Windows", TRUE, HASH_STRING_ALGORITHM_X65599, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x50510c63u);
  EXPECT_EQ(hash(L"\x00e9t\x00e9", TRUE, HASH_STRING_ALGORITHM_X65599, &value), STATUS_SUCCESS);  // Latin-1 upcased
  EXPECT_EQ(value, 0x634e41beu);
  EXPECT_EQ(hash(L"\x043f", TRUE, HASH_STRING_ALGORITHM_X65599, &value), STATUS_SUCCESS);  // Cyrillic
  EXPECT_EQ(value, 0x41fu);
  EXPECT_EQ(hash(L"", TRUE, HASH_STRING_ALGORITHM_X65599, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0u);

  value = 7;
  EXPECT_EQ(hash(L"x", TRUE, HASH_STRING_ALGORITHM_INVALID, &value), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(hash(L"x", TRUE, 2, &value), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(value, 7u);
  UNICODE_STRING s;
  RtlInitUnicodeString(&s, L"x");
  EXPECT_EQ(RtlHashUnicodeString(nullptr, TRUE, HASH_STRING_ALGORITHM_X65599, &value), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(RtlHashUnicodeString(&s, TRUE, HASH_STRING_ALGORITHM_X65599, nullptr), STATUS_INVALID_PARAMETER);
}

TEST(UnicodeStringTest, DissectNameSplitsOffTheFirstNameInPlace) {
  World world;
  struct Case {
    const wchar_t* path;
    const char* first;
    const char* remaining;
  };
  // The documented examples, and the edges around a leading, doubled and trailing backslash.
  for (const Case& c : {Case{L"", "", ""}, Case{L"A", "A", ""}, Case{L"A\\B\\C\\D\\E", "A", "B\\C\\D\\E"},
                        Case{L"*A?", "*A?", ""}, Case{L"\\A", "A", ""}, Case{L"A[,]", "A[,]", ""},
                        Case{L"A\\\\B+;\\C", "A", "\\B+;\\C"}, Case{L"\\", "", ""}, Case{L"\\\\B", "", "B"},
                        Case{L"A\\", "A", ""}, Case{L"\\A\\B\\", "A", "B\\"}}) {
    UNICODE_STRING path, first, remaining;
    RtlInitUnicodeString(&path, c.path);
    FsRtlDissectName(path, &first, &remaining);
    EXPECT_EQ(Utf8(first), c.first) << Utf8(path);
    EXPECT_EQ(Utf8(remaining), c.remaining) << Utf8(path);
    EXPECT_EQ(first.MaximumLength, first.Length);
    if (first.Length) {
      EXPECT_TRUE(first.Buffer >= path.Buffer && first.Buffer < path.Buffer + path.Length / 2) << "points into Path";
    }
    if (remaining.Length) {
      EXPECT_EQ(remaining.Buffer + remaining.Length / 2, path.Buffer + path.Length / 2) << "the rest of Path";
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Debugger output

TEST(DebugOutputTest, PiecesAreJoinedIntoLines) {
  World world;
  DbgPrint("first ");
  DbgPrint("line %lu", ULONG(1));
  EXPECT_TRUE(world.debug().Lines().empty()) << "an unfinished line is not a line yet";
  DbgPrint("\nsecond line\r\nthird");
  EXPECT_EQ(world.debug().Lines(), (std::vector<std::string>{"first line 1", "second line"}));
  EXPECT_EQ(world.debug().Text(), "first line 1\nsecond line\nthird");

  // The debugger takes at most 512 bytes from one call.
  world.debug().Clear();
  std::string longLine(600, 'x');
  DbgPrint("%s\n", longLine.c_str());
  EXPECT_TRUE(world.debug().Lines().empty());
  EXPECT_EQ(world.debug().Text(), std::string(512, 'x'));
}

// ---------------------------------------------------------------------------------------------
// Routine lookup by name

TEST(SystemRoutineTest, NamesLeadIntoTheKernelImageAndTheAddressesWork) {
  World world;
  uintptr_t base = world.kernel().modules.KernelImageBase();
  uint32_t size = world.kernel().modules.KernelImageSize();
  auto inImage = [&](void* p) {
    auto at = reinterpret_cast<uintptr_t>(p);
    return at > base && at < base + size;
  };
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"ExAllocatePoolWithTag");
  auto allocate = reinterpret_cast<decltype(&ExAllocatePoolWithTag)>(MmGetSystemRoutineAddress(&name));
  ASSERT_TRUE(inImage(reinterpret_cast<void*>(allocate)));
  RtlInitUnicodeString(&name, L"ExFreePoolWithTag");
  auto release = reinterpret_cast<decltype(&ExFreePoolWithTag)>(MmGetSystemRoutineAddress(&name));
  ASSERT_TRUE(inImage(reinterpret_cast<void*>(release)));
  // Called through the export, the routine runs: the pool sees the block come and go.
  size_t before = world.kernel().pool.Outstanding().size();
  void* block = allocate(NonPagedPoolNx, 32, 'tseT');
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(world.kernel().pool.Outstanding().size(), before + 1);
  release(block, 'tseT');
  EXPECT_EQ(world.kernel().pool.Outstanding().size(), before);

  // The export directory is what the lookup searches: sorted names, each with its function.
  ULONG directorySize = 0;
  auto* directory = static_cast<PIMAGE_EXPORT_DIRECTORY>(
      RtlImageDirectoryEntryToData(reinterpret_cast<PVOID>(base), TRUE, IMAGE_DIRECTORY_ENTRY_EXPORT, &directorySize));
  ASSERT_NE(directory, nullptr);
  auto* names = reinterpret_cast<const uint32_t*>(base + directory->AddressOfNames);
  for (ULONG i = 1; i < directory->NumberOfNames; ++i) {
    EXPECT_LT(strcmp(reinterpret_cast<const char*>(base + names[i - 1]), reinterpret_cast<const char*>(base + names[i])),
              0);
  }

  RtlInitUnicodeString(&name, L"exallocatepoolwithtag");  // export names are exact
  EXPECT_EQ(MmGetSystemRoutineAddress(&name), nullptr);
  RtlInitUnicodeString(&name, L"NoSuchKernelRoutine");
  EXPECT_EQ(MmGetSystemRoutineAddress(&name), nullptr);
}

TEST(SystemRoutineTest, AMachineCanLackRoutines) {
  World::Options options;
  options.machine.missingRoutines = {"PsAcquireProcessExitSynchronization"};
  options.machine.windowsMajor = 8;
  World world(options);
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"PsAcquireProcessExitSynchronization");
  EXPECT_EQ(MmGetSystemRoutineAddress(&name), nullptr);
  RtlInitUnicodeString(&name, L"PsSetCreateProcessNotifyRoutineEx2");  // newer than this kernel
  EXPECT_EQ(MmGetSystemRoutineAddress(&name), nullptr);
  RtlInitUnicodeString(&name, L"PsReleaseProcessExitSynchronization");
  EXPECT_NE(MmGetSystemRoutineAddress(&name), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Security

struct SidBuffer {
  ULONG storage[8];  // room for a SID of up to 6 sub-authorities
  PSID Sid() { return storage; }
};

SidBuffer MakeSid(ULONG first, ULONG second = 0, UCHAR count = 1) {
  SidBuffer sid{};
  SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
  EXPECT_EQ(RtlInitializeSid(sid.Sid(), &nt, count), STATUS_SUCCESS);
  *RtlSubAuthoritySid(sid.Sid(), 0) = first;
  if (count > 1) *RtlSubAuthoritySid(sid.Sid(), 1) = second;
  return sid;
}

TEST(SecurityTest, AclBuiltWithRtlRoutinesIsAppliedToTheObject) {
  World world;
  PDRIVER_OBJECT driver = world.kernel().io.CreateDriverObject(u"\\Driver\\SecurityTest", nullptr);
  std::u16string deviceName = u"\\Device\\SecurityTest";
  UNICODE_STRING name = Counted(deviceName);
  PDEVICE_OBJECT device = nullptr;
  ASSERT_EQ(IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device), STATUS_SUCCESS);

  SidBuffer system = MakeSid(SECURITY_LOCAL_SYSTEM_RID);
  SidBuffer admins = MakeSid(SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 2);
  ASSERT_TRUE(RtlValidSid(system.Sid()));
  EXPECT_EQ(RtlLengthSid(system.Sid()), 12u);
  EXPECT_EQ(RtlLengthSid(admins.Sid()), 16u);

  // Exactly room for two entries.
  ULONG aceBase = sizeof(ACCESS_ALLOWED_ACE) - sizeof(ULONG);
  ULONG aclLength = sizeof(ACL) + aceBase + RtlLengthSid(system.Sid()) + aceBase + RtlLengthSid(admins.Sid());
  std::vector<ULONG> aclBuffer(aclLength / sizeof(ULONG) + 1);
  auto* acl = reinterpret_cast<PACL>(aclBuffer.data());
  EXPECT_EQ(RtlCreateAcl(acl, sizeof(ACL) - 1, ACL_REVISION), STATUS_BUFFER_TOO_SMALL);
  ASSERT_EQ(RtlCreateAcl(acl, aclLength, ACL_REVISION), STATUS_SUCCESS);
  EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, system.Sid()), STATUS_SUCCESS);
  EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, GENERIC_READ | GENERIC_WRITE, admins.Sid()), STATUS_SUCCESS);
  EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, GENERIC_READ, system.Sid()), STATUS_ALLOTTED_SPACE_EXCEEDED);
  EXPECT_EQ(acl->AceCount, 2);

  SECURITY_DESCRIPTOR sd;
  ASSERT_EQ(RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION), STATUS_SUCCESS);
  ASSERT_EQ(RtlSetDaclSecurityDescriptor(&sd, TRUE, acl, FALSE), STATUS_SUCCESS);
  EXPECT_TRUE(RtlValidSecurityDescriptor(&sd));

  // A handle without WRITE_DAC may not change the DACL.
  HANDLE readOnly = nullptr;
  ASSERT_EQ(ObOpenObjectByPointer(device, OBJ_KERNEL_HANDLE, nullptr, READ_CONTROL, *IoDeviceObjectType,
                                  KernelMode, &readOnly),
            STATUS_SUCCESS);
  EXPECT_EQ(ZwSetSecurityObject(readOnly, DACL_SECURITY_INFORMATION, &sd), STATUS_ACCESS_DENIED);
  EXPECT_FALSE(ObjectManager::HeaderOf(device)->security.daclPresent);
  EXPECT_EQ(ZwClose(readOnly), STATUS_SUCCESS);

  HANDLE handle = nullptr;
  ASSERT_EQ(ObOpenObjectByPointer(device, OBJ_KERNEL_HANDLE, nullptr, WRITE_DAC, *IoDeviceObjectType, KernelMode,
                                  &handle),
            STATUS_SUCCESS);
  EXPECT_EQ(ZwSetSecurityObject(handle, DACL_SECURITY_INFORMATION, nullptr), STATUS_ACCESS_VIOLATION);
  SECURITY_DESCRIPTOR unknownRevision = sd;
  unknownRevision.Revision = 7;
  EXPECT_NE(ZwSetSecurityObject(handle, DACL_SECURITY_INFORMATION, &unknownRevision), STATUS_SUCCESS);
  EXPECT_FALSE(ObjectManager::HeaderOf(device)->security.daclPresent);

  ASSERT_EQ(ZwSetSecurityObject(handle, DACL_SECURITY_INFORMATION, &sd), STATUS_SUCCESS);
  const ntsim::SecurityRecord& security = ObjectManager::HeaderOf(device)->security;
  EXPECT_TRUE(security.daclPresent);
  ASSERT_EQ(security.dacl.size(), 2u);
  EXPECT_EQ(security.dacl[0].type, ACCESS_ALLOWED_ACE_TYPE);
  EXPECT_EQ(security.dacl[0].sid, "S-1-5-18");
  EXPECT_EQ(security.dacl[0].mask, GENERIC_ALL);
  EXPECT_EQ(security.dacl[1].sid, "S-1-5-32-544");
  EXPECT_EQ(security.dacl[1].mask, GENERIC_READ | GENERIC_WRITE);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  IoDeleteDevice(device);
}

}  // namespace
