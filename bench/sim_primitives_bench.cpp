// What the simulated kernel's own primitives cost, uncontended, each against the closest plain C++
// equivalent in the same process. Every driver benchmark runs on these primitives: if they cost
// much more than the kernel's, a driver figure measures the simulator.
//
// Locks are taken inside a critical region entered once, outside the timed loop: the region's own
// cost is a row of its own.
//
// The kernel's routines are calls (into ntoskrnl on Windows, into libntsim here), so the baselines
// that stand for a thread field (critical region, current processor) are calls too: a function the
// compiler may not inline that touches a thread-local variable.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "bench_table.h"
#include "world.h"

namespace {

constexpr ULONG kTag = 'hcnB';

// ---------------------------------------------------------------------------------------------
// Baselines

thread_local int t_counter;
thread_local ULONG t_processor;  // written by the benchmark, so that the compiler cannot fold it

__attribute__((noipa)) void ThreadCounterUp() {
  ++t_counter;
  benchmark::ClobberMemory();
}
__attribute__((noipa)) void ThreadCounterDown() {
  --t_counter;
  benchmark::ClobberMemory();
}
__attribute__((noipa)) ULONG ThreadProcessor() { return t_processor; }

std::atomic<long> g_atomic{0};
std::shared_mutex g_sharedMutex;
std::mutex g_mutex;

void BM_AtomicCasPair(benchmark::State& state) {  // take and give back a reference, as a rundown does
  for (auto _ : state) {
    long value = g_atomic.load(std::memory_order_relaxed);
    while (!g_atomic.compare_exchange_strong(value, value + 2)) {
    }
    value = g_atomic.load(std::memory_order_relaxed);
    while (!g_atomic.compare_exchange_strong(value, value - 2)) {
    }
  }
}

void BM_AtomicCas(benchmark::State& state) {
  long value = 0;
  for (auto _ : state) {
    long expected = value;
    g_atomic.compare_exchange_strong(expected, value ^ 1);
    value ^= 1;
  }
}

void BM_ThreadLocalUpDown(benchmark::State& state) {
  for (auto _ : state) {
    ThreadCounterUp();
    ThreadCounterDown();
  }
}

void BM_ThreadLocalRead(benchmark::State& state) {
  t_processor = 3;
  for (auto _ : state) benchmark::DoNotOptimize(ThreadProcessor());
}

void BM_SharedMutexShared(benchmark::State& state) {
  for (auto _ : state) {
    g_sharedMutex.lock_shared();
    g_sharedMutex.unlock_shared();
  }
}

void BM_SharedMutexExclusive(benchmark::State& state) {
  for (auto _ : state) {
    g_sharedMutex.lock();
    g_sharedMutex.unlock();
  }
}

void BM_StdMutex(benchmark::State& state) {
  for (auto _ : state) {
    g_mutex.lock();
    g_mutex.unlock();
  }
}

void BM_MallocFree(benchmark::State& state) {
  for (auto _ : state) {
    void* p = std::malloc(128);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}

// ---------------------------------------------------------------------------------------------
// The simulated kernel's primitives

EX_RUNDOWN_REF g_rundown;
ERESOURCE g_resource;
EX_PUSH_LOCK g_pushLock;
FAST_MUTEX g_fastMutex;
NPAGED_LOOKASIDE_LIST g_lookaside;
volatile LONG g_interlocked;

void BM_Rundown(benchmark::State& state) {
  for (auto _ : state) {
    ExAcquireRundownProtection(&g_rundown);
    ExReleaseRundownProtection(&g_rundown);
  }
}

void BM_InterlockedCas(benchmark::State& state) {
  LONG value = 0;
  for (auto _ : state) {
    InterlockedCompareExchange(&g_interlocked, value ^ 1, value);
    value ^= 1;
  }
}

void BM_CriticalRegion(benchmark::State& state) {
  for (auto _ : state) {
    KeEnterCriticalRegion();
    KeLeaveCriticalRegion();
  }
}

void BM_CurrentProcessor(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(KeGetCurrentProcessorNumberEx(nullptr));
}

void BM_ResourceShared(benchmark::State& state) {
  KeEnterCriticalRegion();
  for (auto _ : state) {
    ExAcquireResourceSharedLite(&g_resource, TRUE);
    ExReleaseResourceLite(&g_resource);
  }
  KeLeaveCriticalRegion();
}

void BM_ResourceExclusive(benchmark::State& state) {
  KeEnterCriticalRegion();
  for (auto _ : state) {
    ExAcquireResourceExclusiveLite(&g_resource, TRUE);
    ExReleaseResourceLite(&g_resource);
  }
  KeLeaveCriticalRegion();
}

void BM_PushLockShared(benchmark::State& state) {
  KeEnterCriticalRegion();
  for (auto _ : state) {
    ExfAcquirePushLockShared(&g_pushLock);
    ExfReleasePushLockShared(&g_pushLock);
  }
  KeLeaveCriticalRegion();
}

void BM_PushLockExclusive(benchmark::State& state) {
  KeEnterCriticalRegion();
  for (auto _ : state) {
    ExfAcquirePushLockExclusive(&g_pushLock);
    ExfReleasePushLockExclusive(&g_pushLock);
  }
  KeLeaveCriticalRegion();
}

void BM_FastMutex(benchmark::State& state) {
  for (auto _ : state) {
    ExAcquireFastMutex(&g_fastMutex);
    ExReleaseFastMutex(&g_fastMutex);
  }
}

void BM_Lookaside(benchmark::State& state) {
  for (auto _ : state) {
    void* p = ExAllocateFromNPagedLookasideList(&g_lookaside);
    benchmark::DoNotOptimize(p);
    ExFreeToNPagedLookasideList(&g_lookaside, p);
  }
}

BENCHMARK(BM_AtomicCasPair);
BENCHMARK(BM_Rundown);
BENCHMARK(BM_AtomicCas);
BENCHMARK(BM_InterlockedCas);
BENCHMARK(BM_ThreadLocalUpDown);
BENCHMARK(BM_CriticalRegion);
BENCHMARK(BM_ThreadLocalRead);
BENCHMARK(BM_CurrentProcessor);
BENCHMARK(BM_SharedMutexShared);
BENCHMARK(BM_ResourceShared);
BENCHMARK(BM_PushLockShared);
BENCHMARK(BM_SharedMutexExclusive);
BENCHMARK(BM_ResourceExclusive);
BENCHMARK(BM_PushLockExclusive);
BENCHMARK(BM_StdMutex);
BENCHMARK(BM_FastMutex);
BENCHMARK(BM_MallocFree);
BENCHMARK(BM_Lookaside);

}  // namespace

int main(int argc, char** argv) {
  // The C library skips the locked instructions of a mutex while the process has one thread: the
  // baselines are measured as the simulated kernel runs, with other threads about.
  std::atomic<bool> done{false};
  std::thread idle([&] {
    while (!done.load()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  });
  ntsim::World world;
  ExInitializeRundownProtection(&g_rundown);
  ExInitializeResourceLite(&g_resource);
  ExInitializePushLock(&g_pushLock);
  ExInitializeFastMutex(&g_fastMutex);
  ExInitializeNPagedLookasideList(&g_lookaside, nullptr, nullptr, 0, 128, kTag, 0);

  benchmark::Initialize(&argc, argv);
  bench_table::Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  struct Pair {
    const char* row;
    const char* sim;
    const char* baselineRow;
    const char* baseline;
  };
  const Pair pairs[] = {
      {"sim: rundown acquire+release", "BM_Rundown", "2 std::atomic CAS", "BM_AtomicCasPair"},
      {"sim: InterlockedCompareExchange", "BM_InterlockedCas", "std::atomic CAS", "BM_AtomicCas"},
      {"sim: critical region enter+leave", "BM_CriticalRegion", "thread-local ++/--", "BM_ThreadLocalUpDown"},
      {"sim: current processor number", "BM_CurrentProcessor", "thread-local read", "BM_ThreadLocalRead"},
      {"sim: resource shared, in critical region", "BM_ResourceShared", "std::shared_mutex shared",
       "BM_SharedMutexShared"},
      {"sim: resource exclusive, in critical region", "BM_ResourceExclusive", "std::shared_mutex exclusive",
       "BM_SharedMutexExclusive"},
      {"sim: push lock shared, in critical region", "BM_PushLockShared", "std::shared_mutex shared",
       "BM_SharedMutexShared"},
      {"sim: push lock exclusive, in critical region", "BM_PushLockExclusive", "std::shared_mutex exclusive",
       "BM_SharedMutexExclusive"},
      {"sim: fast mutex acquire+release", "BM_FastMutex", "std::mutex", "BM_StdMutex"},
      {"sim: lookaside allocate+free", "BM_Lookaside", "malloc+free", "BM_MallocFree"},
  };
  for (const Pair& pair : pairs) {
    bench_table::AtMost(pair.row, reporter.Time(pair.sim), pair.baselineRow, reporter.Time(pair.baseline), 2.0);
  }

  ExDeleteNPagedLookasideList(&g_lookaside);
  ExDeleteResourceLite(&g_resource);
  done = true;
  idle.join();
  return 0;
}
