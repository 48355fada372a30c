// Adding a path that the cache already holds (the common case: the same images in many processes)
// against copying the path into a fresh allocation, as a driver without the cache would. Both take
// and give back what they got, on the simulated kernel's pool and locks. The path's key is measured
// alone beside them: it is the floor of every add.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "bench_table.h"
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

// The path's key alone: two hashes over its bytes, the second a chain of one multiply per byte
// that no two bytes can share.
void BM_PathKey(benchmark::State& state) {
  UNICODE_STRING path = PathString();
  for (auto _ : state) benchmark::DoNotOptimize(sk_PathCacheKey(&path));
}

BENCHMARK(BM_CopyIntoFreshAllocation);
BENCHMARK(BM_AddExistingPath);
BENCHMARK(BM_PathKey);

}  // namespace

int main(int argc, char** argv) {
  ntsim::World world;
  UNICODE_STRING path = PathString();
  if (sk_InitPathMgr(&g_mgr) != STATUS_SUCCESS) return 1;
  PPATH_CACHE_NODE held = nullptr;  // a running image holds the path: it stays in the cache
  sk_AddPathCache(&g_mgr, &path, &held);
  benchmark::Initialize(&argc, argv);
  bench_table::Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double cached = reporter.Time("BM_AddExistingPath"), copied = reporter.Time("BM_CopyIntoFreshAllocation");
  double key = reporter.Time("BM_PathKey");
  std::printf("path of %zu bytes: cache add+release %.1f ns (its key alone %.1f ns), fresh copy+free %.1f ns\n",
              kPath.size() * 2, cached, key, copied);
  bench_table::AtMost("path cache add+release, existing 156-byte path", cached, "fresh allocation+copy", copied, 2.0);
  bench_table::Row("  of which the path key alone", bench_table::Ns(key), "fresh allocation+copy " + bench_table::Ns(copied),
                   copied > 0 ? key / copied : 0, "(part)", true);
  sk_UninitPathMgr(&g_mgr);
  return 0;
}
