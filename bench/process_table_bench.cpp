// The process table's hot lookups on a started driver with 256 processes: a node lookup with its
// release (what every report does for the acting process), against a plain hash lookup of the same
// 64-bit key; and turning an address into an image in a process with 100 images, against a linear
// scan of the same ranges.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <unordered_map>
#include <vector>

#include "bench_table.h"
#include "core/sentrel_data.h"
#include "monitor/image_mgr.h"
#include "monitor/process_mgr.h"
#include "world.h"

namespace {

constexpr int kProcesses = 256;
constexpr int kImages = 100;
constexpr uint64_t kFirstImage = 0x7FF900000000;
constexpr uint64_t kImageSize = 0x20000;

struct Target {
  HANDLE pid;
  LONGLONG createTime;
};
std::vector<Target> g_targets;
std::unordered_map<uint64_t, void*> g_hash;
PPROC_INFO_NODE g_busy;  // the process with 100 images, held
struct Range {
  uint64_t base, end;
  void* image;
};
std::vector<Range> g_ranges;

void BM_ProcessNodeLookup(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    const Target& t = g_targets[i++ % g_targets.size()];
    PPROC_INFO_NODE node = nullptr;
    sk_GetProcInfo(&SentrelData.ProcessMgr, t.pid, t.createTime, &node);
    benchmark::DoNotOptimize(node);
    sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
  }
}

void BM_HashLookup(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    const Target& t = g_targets[i++ % g_targets.size()];
    auto it = g_hash.find(sk_ProcKey((ULONG64)(ULONG_PTR)t.pid, t.createTime));
    benchmark::DoNotOptimize(it->second);
  }
}

// Addresses spread over all 100 images, so that the walk goes half the list on average.
uint64_t Address(size_t i) { return kFirstImage + (i * 7919 % kImages) * kImageSize + 0x1234; }

void BM_AddressToImage(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    ULONG64 base = 0;
    sk_LookupImageInfoFromProcNode_Address(g_busy, Address(i++), &base, nullptr, nullptr);
    benchmark::DoNotOptimize(base);
  }
}

void BM_LinearScan(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    uint64_t address = Address(i++);
    uint64_t base = 0;
    for (const Range& r : g_ranges) {
      if (r.base < address && address < r.end && r.image) {
        base = r.base;
        break;
      }
    }
    benchmark::DoNotOptimize(base);
  }
}

BENCHMARK(BM_HashLookup);
BENCHMARK(BM_ProcessNodeLookup);
BENCHMARK(BM_LinearScan);
BENCHMARK(BM_AddressToImage);

}  // namespace

int main(int argc, char** argv) {
  ntsim::World world;
  SkDriverObject = world.kernel().io.CreateDriverObject(u"\\Driver\\ProcessBench", nullptr);
  if (world.AsSystem(sk_InitSentrelData) != STATUS_SUCCESS) return 1;
  for (int i = 0; i < kProcesses; ++i) {
    ntsim::ProcessSpec spec;
    spec.pid = 10000 + 4 * i;
    spec.imagePath = u"\\??\\C:\\Windows\\System32\\cmd.exe";
    ntsim::UserProcess& p = world.CreateProcess(spec);
    g_targets.push_back({(HANDLE)p.Id(), p.Process()->createTime});
    g_hash[sk_ProcKey(p.Id(), p.Process()->createTime)] = p.Process();
  }
  std::shuffle(g_targets.begin(), g_targets.end(), std::mt19937(1));
  ntsim::ProcessSpec busySpec;
  busySpec.pid = 9000;
  busySpec.imagePath = u"\\??\\C:\\Windows\\System32\\notepad.exe";
  busySpec.mapExecutable = false;
  ntsim::UserProcess& busy = world.CreateProcess(busySpec);
  for (int i = 0; i < kImages; ++i) {
    ntsim::ImageSpec image;
    image.path = u"\\SystemRoot\\System32\\module" + std::u16string(1, char16_t(u'A' + i / 26)) +
                 std::u16string(1, char16_t(u'a' + i % 26)) + u".dll";
    image.base = kFirstImage + i * kImageSize;
    image.size = kImageSize;
    world.MapImage(busy, image);
    g_ranges.push_back({image.base, image.base + image.size, &g_ranges});
  }
  world.AsSystem([&] { return sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)9000, busy.Process()->createTime, &g_busy); });
  if (!g_busy) return 1;

  benchmark::Initialize(&argc, argv);
  bench_table::Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double node = reporter.Time("BM_ProcessNodeLookup"), hash = reporter.Time("BM_HashLookup");
  double address = reporter.Time("BM_AddressToImage"), scan = reporter.Time("BM_LinearScan");
  std::printf("%d processes: node lookup+release %.1f ns, hash lookup %.1f ns; %d images: address %.1f ns, scan %.1f ns\n",
              kProcesses, node, hash, kImages, address, scan);
  // The lookup takes the table lock shared inside a critical region and a reference it gives back:
  // four interlocked operations around the tree walk.
  bench_table::AtMost("process node lookup+release, 256 processes", node, "hash lookup of the key", hash, 4.0);
  bench_table::AtMost("address to image, 100 images", address, "linear scan of the ranges", scan, 1.5);

  world.AsSystem([&] { return sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, g_busy); });
  world.ExitProcess(busy);
  world.AsSystem(sk_UninitSentrelData);
  return 0;
}
