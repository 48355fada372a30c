// Adding a path that the cache already holds (the common case: the same images in many processes)
// against copying the path into a fresh allocation, as a driver without the cache would. Both take
// and give back what they got, on the simulated kernel's pool and locks; the last line gives the
// ratio of their times.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "names/path_cache.h"
#include "world.h"

namespace {

const std::u16string kPath = u"\\Device\\HarddiskVolume3\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";
SK_PATH_MGR g_mgr;

UNICODE_STRING PathString() {
  UNICODE_STRING s;
  s.Length = s.MaximumLength = static_cast<USHORT>(kPath.size() * 2);
  s.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(kPath.data()));
  return s;
}

void BM_AddExistingPath(benchmark::State& state) {
  UNICODE_STRING path = PathString();
  for (auto _ : state) {
    PPATH_CACHE_NODE node = nullptr;
    sk_AddPathCache(&g_mgr, &path, &node);
    benchmark::DoNotOptimize(node);
    sk_ReleasePathCache_Node(&g_mgr, node);
  }
}

void BM_CopyIntoFreshAllocation(benchmark::State& state) {
  UNICODE_STRING path = PathString();
  for (auto _ : state) {
    auto* copy = static_cast<PWCHAR>(ExAllocatePoolWithTag(PagedPool, path.Length, 'hcTg'));
    RtlCopyMemory(copy, path.Buffer, path.Length);
    benchmark::DoNotOptimize(copy);
    ExFreePoolWithTag(copy, 'hcTg');
  }
}

BENCHMARK(BM_CopyIntoFreshAllocation);
BENCHMARK(BM_AddExistingPath);

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) times_[run.benchmark_name()] = run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatio() {
    double cached = times_["BM_AddExistingPath"], copied = times_["BM_CopyIntoFreshAllocation"];
    if (cached > 0) {
      std::printf("path of %zu bytes: cache add+release %.1f ns, fresh copy+free %.1f ns, copy/cache = %.2fx\n",
                  kPath.size() * 2, cached, copied, copied / cached);
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  ntsim::World world;
  UNICODE_STRING path = PathString();
  if (sk_InitPathMgr(&g_mgr) != STATUS_SUCCESS) return 1;
  PPATH_CACHE_NODE held = nullptr;  // a running image holds the path: it stays in the cache
  sk_AddPathCache(&g_mgr, &path, &held);
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatio();
  sk_UninitPathMgr(&g_mgr);
  return 0;
}
