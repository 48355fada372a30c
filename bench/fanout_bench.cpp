// Fan-out of a process notification to seven subscribers: the multiplexer's lock-free path against
// a baseline that holds a shared lock around the same seven calls. Both run in this process, one
// after the other; the last line gives the ratio of their times per notification.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <shared_mutex>
#include <string>

#include "core/sentrel_data.h"
#include "monitor/callback_plus.h"
#include "world.h"

namespace {

std::atomic<long> g_sink{0};

template <int N>
VOID NTAPI Subscriber(HANDLE, HANDLE ProcessId, BOOLEAN) {
  g_sink.fetch_add(N + (long)(ULONG_PTR)ProcessId, std::memory_order_relaxed);
}

PCREATE_PROCESS_NOTIFY_ROUTINE const kSubscribers[7] = {Subscriber<0>, Subscriber<1>, Subscriber<2>, Subscriber<3>,
                                                        Subscriber<4>, Subscriber<5>, Subscriber<6>};

ntsim::World* g_world;
std::shared_mutex g_lock;

void BM_MultiplexerFanOut(benchmark::State& state) {
  for (auto _ : state) sk_CreateProcessNotify((HANDLE)4, (HANDLE)100, TRUE);
  state.SetItemsProcessed(state.iterations());
}

void BM_SharedLockFanOut(benchmark::State& state) {
  for (auto _ : state) {
    std::shared_lock<std::shared_mutex> lock(g_lock);
    for (auto routine : kSubscribers) routine((HANDLE)4, (HANDLE)100, TRUE);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_SharedLockFanOut)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_MultiplexerFanOut)->ThreadRange(1, 2)->UseRealTime();

// Keeps each run's time per iteration, to print the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) times_[run.benchmark_name()] = run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() {
    for (const char* threads : {"threads:1", "threads:2"}) {
      std::string suffix = std::string("/real_time/") + threads;
      auto plain = times_.find("BM_MultiplexerFanOut" + suffix);
      auto locked = times_.find("BM_SharedLockFanOut" + suffix);
      if (plain == times_.end() || locked == times_.end() || plain->second <= 0) continue;
      std::printf("fan-out to 7 subscribers, %s: multiplexer %.1f ns, shared-lock baseline %.1f ns, "
                  "baseline/multiplexer = %.2fx\n",
                  threads, plain->second, locked->second, locked->second / plain->second);
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  ntsim::World world;
  g_world = &world;
  std::memset(&SentrelData, 0, sizeof SentrelData);
  if (world.AsSystem(sk_InitCallbackPlus) != STATUS_SUCCESS) return 1;
  for (auto routine : kSubscribers) sk_PsSetCreateProcessNotifyRoutine(0, (PVOID)routine, FALSE);

  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();

  world.AsSystem(sk_UninitCallbackPlus);
  return 0;
}
