// The notification multiplexer: subscriber limits, fan-out order and slot reuse, the slot's cached
// references, start and stop, and its guarantees under many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/callback_plus.h"
#include "test_support.h"

using ntsim::World;

namespace {

std::mutex g_orderMutex;
std::vector<int> g_order;

template <int N>
VOID NTAPI RecordProcess(HANDLE, HANDLE, BOOLEAN) {
  std::lock_guard<std::mutex> lock(g_orderMutex);
  g_order.push_back(N);
}
template <int N>
VOID NTAPI RecordThread(HANDLE, HANDLE, BOOLEAN) {
  std::lock_guard<std::mutex> lock(g_orderMutex);
  g_order.push_back(N);
}
template <int N>
VOID NTAPI RecordImage(PUNICODE_STRING, HANDLE, PIMAGE_INFO) {
  std::lock_guard<std::mutex> lock(g_orderMutex);
  g_order.push_back(N);
}

class CallbackPlusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&SentrelData, 0, sizeof SentrelData);
    g_order.clear();
    ASSERT_EQ(world.AsSystem(sk_InitCallbackPlus), STATUS_SUCCESS);
  }
  void TearDown() override {
    world.AsSystem(sk_UninitCallbackPlus);
    EXPECT_TRUE(world.kernel().pool.Outstanding().empty()) << "subscriber blocks left behind";
    EXPECT_EQ(SentrelData.InitFlags, 0);
  }
  std::vector<int> Fire() {
    g_order.clear();
    sk_CreateProcessNotify((HANDLE)4, (HANDLE)100, TRUE);
    return g_order;
  }
  static LONG64 Word(SK_CALLBACK_SLOT* slot) { return *slot; }
  static PSK_CALLBACK_BLOCK sk_SlotBlock(LONG64 word) { return reinterpret_cast<PSK_CALLBACK_BLOCK>(word & ~0xFll); }
  World world;
};

TEST_F(CallbackPlusTest, EightSubscribersFitAndTheNinthIsRefusedWithItsKindsStatus) {
  EXPECT_EQ(SentrelData.InitFlags, SK_CALLBACK_PLUS_PROCESS | SK_CALLBACK_PLUS_THREAD | SK_CALLBACK_PLUS_IMAGE);
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<1>, FALSE), STATUS_SUCCESS);
    ASSERT_EQ(sk_PsSetCreateThreadNotifyRoutine(RecordThread<1>), STATUS_SUCCESS);
    ASSERT_EQ(sk_PsSetLoadImageNotifyRoutine(RecordImage<1>), STATUS_SUCCESS);
  }
  EXPECT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<2>, FALSE), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(sk_PsSetCreateThreadNotifyRoutine(RecordThread<2>), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(sk_PsSetLoadImageNotifyRoutine(RecordImage<2>), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(world.kernel().pool.Outstanding().size(), 24u);  // nothing of the refused ones remains
  EXPECT_EQ(ProcessNotifyCount[0], 8);
  EXPECT_EQ(ThreadNotifyCount, 8);
  // The same routine added eight times is called eight times, and one removal takes one slot.
  EXPECT_EQ(Fire().size(), 8u);
  EXPECT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<1>, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(Fire().size(), 7u);
}

TEST_F(CallbackPlusTest, FanOutRunsInSlotOrderAndAFreedSlotIsReusedInPlace) {
  ASSERT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<1>, FALSE), STATUS_SUCCESS);
  ASSERT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<2>, FALSE), STATUS_SUCCESS);
  ASSERT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<3>, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(Fire(), std::vector<int>({1, 2, 3}));
  ASSERT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<2>, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(Fire(), std::vector<int>({1, 3}));
  ASSERT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<4>, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(Fire(), std::vector<int>({1, 4, 3}));
  // Only the plain list has subscribers; the Ex and Ex2 entries find none.
  g_order.clear();
  sk_CreateProcessNotifyEx(nullptr, (HANDLE)100, nullptr);
  sk_CreateProcessNotifyEx2(nullptr, (HANDLE)100, nullptr);
  EXPECT_TRUE(g_order.empty());
}

TEST_F(CallbackPlusTest, RemovingWhatWasNeverAddedChangesNothing) {
  ASSERT_EQ(sk_PsSetCreateThreadNotifyRoutine(RecordThread<1>), STATUS_SUCCESS);
  EXPECT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<9>, TRUE), STATUS_PROCEDURE_NOT_FOUND);
  EXPECT_EQ(sk_PsRemoveCreateThreadNotifyRoutine(RecordThread<9>), STATUS_PROCEDURE_NOT_FOUND);
  EXPECT_EQ(sk_PsRemoveLoadImageNotifyRoutine(RecordImage<9>), STATUS_PROCEDURE_NOT_FOUND);
  EXPECT_EQ(ThreadNotifyCount, 1);
  g_order.clear();
  sk_CreateThreadNotify((HANDLE)100, (HANDLE)104, TRUE);
  EXPECT_EQ(g_order, std::vector<int>({1}));
}

TEST_F(CallbackPlusTest, EmptyKindsReturnEarlyExceptTheImageFanOut) {
  ASSERT_EQ(sk_PsSetCreateThreadNotifyRoutine(RecordThread<1>), STATUS_SUCCESS);
  ASSERT_EQ(sk_PsSetLoadImageNotifyRoutine(RecordImage<1>), STATUS_SUCCESS);
  ASSERT_EQ(sk_PsRemoveCreateThreadNotifyRoutine(RecordThread<1>), STATUS_SUCCESS);
  ASSERT_EQ(sk_PsRemoveLoadImageNotifyRoutine(RecordImage<1>), STATUS_SUCCESS);
  EXPECT_EQ(ThreadNotifyCount, 0);
  EXPECT_TRUE(ImageNotifyEnabled);  // stays on until the image registration stops
  g_order.clear();
  sk_LoadImageNotify(nullptr, (HANDLE)100, nullptr);
  sk_CreateThreadNotify((HANDLE)100, (HANDLE)104, TRUE);
  EXPECT_TRUE(g_order.empty());
}

TEST_F(CallbackPlusTest, TheCacheRefillsByFifteenAndNeverHoldsMore) {
  ASSERT_EQ(sk_PsSetCreateThreadNotifyRoutine(RecordThread<1>), STATUS_SUCCESS);
  SK_CALLBACK_SLOT* slot = &ThreadNotifySlots[0];
  PSK_CALLBACK_BLOCK block = reinterpret_cast<PSK_CALLBACK_BLOCK>(Word(slot) & ~0xFll);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(Word(slot) & 0xF, 15);
  EXPECT_EQ(block->RundownRef.Count, 16u * 2);  // the slot's own reference and 15 in reserve

  std::vector<PSK_CALLBACK_BLOCK> held;
  for (int i = 0; i < 40; ++i) {
    held.push_back(sk_ReferenceCallbackBlock(slot));
    ASSERT_EQ(held.back(), block);
    ASSERT_LE(Word(slot) & 0xF, 15);
  }
  // 40 held: the reserve ran dry twice and was refilled each time; the rest came from the slow path.
  EXPECT_EQ(block->RundownRef.Count, static_cast<ULONG_PTR>(1 + (Word(slot) & 0xF) + 40) * 2);
  for (PSK_CALLBACK_BLOCK b : held) {
    sk_DereferenceCallbackBlock(slot, b);
    ASSERT_LE(Word(slot) & 0xF, 15);
  }
  EXPECT_EQ(Word(slot) & 0xF, 15);
  EXPECT_EQ(block->RundownRef.Count, 16u * 2);  // every extra reference went back to the block
}

// A reference that finds a slot's reserve empty reads the block's address and then takes a
// rundown reference on it. A replacement that swaps the block out in between must wait for that
// reference before it lets the old block be run down and freed. The reader is stopped between the
// two steps while another thread replaces the block: the replacement may not finish until the
// reader has gone on, and the reader must get the old block, still whole.
TEST_F(CallbackPlusTest, AReplacementWaitsForASlowPathReferenceInProgress) {
  SK_CALLBACK_SLOT slot = 0;
  PSK_CALLBACK_BLOCK old = world.AsSystem([] { return sk_AllocateCallbackBlock((PVOID)RecordThread<1>); });
  PSK_CALLBACK_BLOCK fresh = world.AsSystem([] { return sk_AllocateCallbackBlock((PVOID)RecordThread<2>); });
  ASSERT_TRUE(old && fresh);
  ASSERT_TRUE(world.AsSystem([&] { return sk_ReplaceCallbackBlock(&slot, old, nullptr); }));
  // Empty the slot's reserve by hand: its 15 references go back to the block.
  slot = reinterpret_cast<LONG64>(old);
  world.AsSystem([&] {
    ExReleaseRundownProtectionEx(&old->RundownRef, SK_CALLBACK_CACHE_MAX);
    return 0;
  });

  std::atomic<bool> replaced{false};
  bool finishedEarly = false;
  std::thread replacer;
  world.kernel().rundownAcquireHook = [&](PEX_RUNDOWN_REF ref) {
    if (ref != &old->RundownRef || replacer.joinable()) return;
    replacer = std::thread([&] {
      world.AsSystem([&] {
        EXPECT_TRUE(sk_ReplaceCallbackBlock(&slot, fresh, old));
        sk_WaitCallbackBlockRelease(old);
        sk_FreeCallbackBlock(old);
        return 0;
      });
      replaced = true;
    });
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (sk_SlotBlock(__atomic_load_n(&slot, __ATOMIC_SEQ_CST)) != fresh && std::chrono::steady_clock::now() < until) {
      std::this_thread::yield();
    }
    // Swapped: a replacement that does not wait would now run the old block down and free it.
    until = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (!replaced && std::chrono::steady_clock::now() < until) std::this_thread::yield();
    finishedEarly = replaced;
  };
  world.kernel().rundownAcquireHooked = true;
  PSK_CALLBACK_BLOCK got = world.AsSystem([&] { return sk_ReferenceCallbackBlock(&slot); });
  world.kernel().rundownAcquireHooked = false;
  ASSERT_TRUE(replacer.joinable()) << "the reference did not take the slow path";
  EXPECT_FALSE(finishedEarly) << "the replacement did not wait for the reference in progress";
  EXPECT_EQ(got, old);
  if (got) {
    EXPECT_EQ(sk_GetCallbackBlockRoutine(got), (PVOID)RecordThread<1>);
    world.AsSystem([&] {
      sk_DereferenceCallbackBlock(&slot, got);  // the slot holds another block: straight back to it
      return 0;
    });
  }
  replacer.join();
  world.kernel().rundownAcquireHook = nullptr;
  EXPECT_TRUE(replaced);
  world.AsSystem([&] {
    sk_ReplaceCallbackBlock(&slot, nullptr, fresh);
    sk_WaitCallbackBlockRelease(fresh);
    sk_FreeCallbackBlock(fresh);
    return 0;
  });
}

TEST_F(CallbackPlusTest, AddingWithoutTheKindOrWithoutMemoryFails) {
  world.AsSystem(sk_UninitThreadCallbackPlus);
  world.AsSystem(sk_UninitLoadImageCallbackPlus);
  EXPECT_EQ(sk_PsSetCreateThreadNotifyRoutine(RecordThread<1>), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(sk_PsRemoveCreateThreadNotifyRoutine(RecordThread<1>), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(sk_PsSetLoadImageNotifyRoutine(RecordImage<1>), STATUS_INSUFFICIENT_RESOURCES);
  // A kind that is not running stops with success, and changes nothing.
  EXPECT_EQ(world.AsSystem(sk_UninitThreadCallbackPlus), STATUS_SUCCESS);
  world.verifier().FailNth(1);
  EXPECT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<1>, FALSE), STATUS_INSUFFICIENT_RESOURCES);
  world.verifier().FailNth(0);
  EXPECT_EQ(ProcessNotifyCount[0], 0);
}

TEST_F(CallbackPlusTest, StopRemovesSubscribersTheirOwnersLeftBehind) {
  ASSERT_EQ(sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)RecordProcess<1>, FALSE), STATUS_SUCCESS);
  ASSERT_EQ(sk_PsSetCreateThreadNotifyRoutine(RecordThread<1>), STATUS_SUCCESS);
  ASSERT_EQ(sk_PsSetLoadImageNotifyRoutine(RecordImage<1>), STATUS_SUCCESS);
  EXPECT_EQ(world.AsSystem(sk_UninitCallbackPlus), STATUS_SUCCESS);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  EXPECT_EQ(ProcessNotifyCount[0], 0);
  EXPECT_FALSE(ImageNotifyEnabled);
  EXPECT_EQ(Fire().size(), 0u);
  // Starting again gives empty lists.
  ASSERT_EQ(world.AsSystem(sk_InitCallbackPlus), STATUS_SUCCESS);
  EXPECT_EQ(Fire().size(), 0u);
}

// ---------------------------------------------------------------------------------------------
// Under stress: notifying threads against threads that add and remove subscribers of every kind.

struct Probe {
  std::atomic<int> active{0};
  std::atomic<bool> removed{false};
  std::atomic<long> calls{0};
  std::atomic<int> lateEntries{0};  // entered after its removal returned
};
Probe g_probes[3][4];

void Enter(Probe& probe) {
  if (probe.removed.load()) probe.lateEntries.fetch_add(1);
  probe.active.fetch_add(1);
  probe.calls.fetch_add(1);
  std::this_thread::yield();
  probe.active.fetch_sub(1);
}
template <int N>
VOID NTAPI StressProcess(HANDLE, HANDLE, BOOLEAN) { Enter(g_probes[0][N]); }
template <int N>
VOID NTAPI StressThread(HANDLE, HANDLE, BOOLEAN) { Enter(g_probes[1][N]); }
template <int N>
VOID NTAPI StressImage(PUNICODE_STRING, HANDLE, PIMAGE_INFO) { Enter(g_probes[2][N]); }

template <int N>
NTSTATUS AddOrRemove(int kind, bool remove) {
  if (kind == 0) return sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)StressProcess<N>, remove);
  if (kind == 1) return remove ? sk_PsRemoveCreateThreadNotifyRoutine(StressThread<N>)
                               : sk_PsSetCreateThreadNotifyRoutine(StressThread<N>);
  return remove ? sk_PsRemoveLoadImageNotifyRoutine(StressImage<N>) : sk_PsSetLoadImageNotifyRoutine(StressImage<N>);
}

NTSTATUS AddOrRemoveAny(int kind, int n, bool remove) {
  switch (n) {
    case 0: return AddOrRemove<0>(kind, remove);
    case 1: return AddOrRemove<1>(kind, remove);
    case 2: return AddOrRemove<2>(kind, remove);
    default: return AddOrRemove<3>(kind, remove);
  }
}

TEST_F(CallbackPlusTest, GuaranteesHoldWhileSubscribersComeAndGoUnderLoad) {
  for (auto& kind : g_probes) {
    for (auto& probe : kind) {
      probe.removed = false;
      probe.calls = 0;
      probe.lateEntries = 0;
    }
  }
  std::atomic<bool> stop{false};
  std::atomic<int> removalsWithCallsUnderWay{0};
  std::vector<std::thread> threads;
  // Notifiers: every kind of notification, as fast as they can.
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!stop.load()) {
        sk_CreateProcessNotify((HANDLE)4, (HANDLE)100, TRUE);
        sk_CreateThreadNotify((HANDLE)100, (HANDLE)104, TRUE);
        sk_LoadImageNotify(nullptr, (HANDLE)100, nullptr);
      }
    });
  }
  // Subscribers: each owns one routine of each kind, and adds and removes it over and over.
  for (int n = 0; n < 4; ++n) {
    threads.emplace_back([&, n] {
      for (int round = 0; round < 150; ++round) {
        for (int kind = 0; kind < 3; ++kind) {
          Probe& probe = g_probes[kind][n];
          probe.removed = false;
          ASSERT_EQ(AddOrRemoveAny(kind, n, false), STATUS_SUCCESS);
          std::this_thread::yield();
          ASSERT_EQ(AddOrRemoveAny(kind, n, true), STATUS_SUCCESS);
          if (probe.active.load() != 0) removalsWithCallsUnderWay.fetch_add(1);
          probe.removed = true;
        }
      }
    });
  }
  for (size_t i = 3; i < threads.size(); ++i) threads[i].join();
  stop = true;
  for (size_t i = 0; i < 3; ++i) threads[i].join();

  EXPECT_EQ(removalsWithCallsUnderWay.load(), 0);
  long calls = 0;
  for (auto& kind : g_probes) {
    for (auto& probe : kind) {
      EXPECT_EQ(probe.lateEntries.load(), 0);
      calls += probe.calls.load();
    }
  }
  EXPECT_GT(calls, 0);
  // Every block was freed after its last reference: nothing is left in pool.
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  for (int i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    EXPECT_EQ(ProcessNotifySlots[0][i], 0);
    EXPECT_EQ(ThreadNotifySlots[i], 0);
    EXPECT_EQ(ImageNotifySlots[i], 0);
  }
}

}  // namespace
