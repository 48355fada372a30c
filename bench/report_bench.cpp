// One report with warm caches, as a notification makes it: a process's creation report (white-rule
// match on its image path, three package lookups, one allocation, one ring-buffer write) and an
// image load through its prober (the image path's DOS form, black and white rule matches, the
// same report), each against one memcpy of the finished packet into a slot, in the same run. The
// consumer drains the ring buffers between batches, so that writes find free slots as they do when
// a consumer keeps up.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "bench_table.h"
#include "core/sentrel_data.h"
#include "monitor/event_report.h"
#include "monitor/probers.h"
#include "sentrel/packet_build.h"
#include "sentrel/ring_buffer.h"
#include "sentrel_sdk/ring_reader.h"
#include "world.h"

namespace {

ntsim::World* g_world;
ntsim::UserProcess* g_process;  // the acting process, its packages cached
PPROC_INFO_NODE g_node;
std::unique_ptr<sentrel_sdk::RingReader> g_reader;
std::u16string g_dllPath;  // as the image-load notification names it
IMAGE_INFO g_imageInfo;
size_t g_createLength, g_imageLength;  // the finished packets' lengths
std::vector<uint8_t> g_slot(RB_SLOT_SIZE);

void DrainEvery(benchmark::State& state, size_t* count) {
  if (++*count % 64 == 0) {
    state.PauseTiming();
    g_reader->DrainAll([](const sentrel_sdk::RingRecord&) {});
    state.ResumeTiming();
  }
}

void BM_ProcessCreateReport(benchmark::State& state) {
  size_t count = 0;
  g_process->InProcess([&] {
    for (auto _ : state) {
      sk_Report_ProcessCreateEvent(g_process->Process(), g_node);
      DrainEvery(state, &count);
    }
    return 0;
  });
}

void BM_ImageLoadReport(benchmark::State& state) {
  size_t count = 0;
  UNICODE_STRING name;
  name.Buffer = reinterpret_cast<PWSTR>(g_dllPath.data());
  name.Length = name.MaximumLength = static_cast<USHORT>(g_dllPath.size() * 2);
  g_process->InProcess([&] {
    for (auto _ : state) {
      sk_xxLoadImageProber(&name, (HANDLE)g_process->Id(), &g_imageInfo);
      DrainEvery(state, &count);
    }
    return 0;
  });
}

// The floor: the finished packet copied into a slot.
void BM_CopyPacket(benchmark::State& state) {
  std::vector<uint8_t> packet(static_cast<size_t>(state.range(0)), 0x5A);
  for (auto _ : state) {
    std::memcpy(g_slot.data() + RB_SLOT_HEADER_SIZE + RB_RECORD_LENGTH_SIZE, packet.data(), packet.size());
    benchmark::DoNotOptimize(g_slot.data());
  }
}

}  // namespace

int main(int argc, char** argv) {
  ntsim::World::Options options;
  options.machine.processors = 4;
  ntsim::World world(options);
  g_world = &world;
  SkDriverObject = world.kernel().io.CreateDriverObject(u"\\Driver\\ReportBench", nullptr);
  ntsim::ProcessSpec desktop;
  desktop.pid = 1500;
  desktop.imagePath = u"\\??\\C:\\Windows\\explorer.exe";
  world.CreateProcess(desktop);
  ntsim::UserProcess& consumer = world.StartProcess(u"agent.exe");
  if (world.AsSystem(sk_InitSentrelData) != STATUS_SUCCESS) return 1;
  SentrelOnline = TRUE;  // as the driver's entry leaves it
  std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(SentrelData.RingBuf.BufferCount));
  ULONG length = static_cast<ULONG>(info.size());
  if (consumer.InProcess([&] {
        return rb_GetRingBufInternal(&SentrelData.RingBuf, PsGetCurrentProcess(), info.data(), &length);
      }) != STATUS_SUCCESS) {
    return 1;
  }
  g_reader = std::make_unique<sentrel_sdk::RingReader>(*sentrel_sdk::RingReader::FromMapInfo(info.data(), length));

  // The acting process: a tool the user started, with a DLL of its own mapped.
  ntsim::ProcessSpec tool;
  tool.pid = 2300;
  tool.parentPid = 1500;
  tool.imagePath = u"\\??\\C:\\Tools\\build\\compile-step.exe";
  tool.commandLine = u"compile-step.exe --target x64 --jobs 2 C:\\src\\project\\module.c";
  ntsim::UserProcess& process = world.CreateProcess(tool);
  g_process = &process;
  uint64_t base = world.MapImage(process, u"\\??\\C:\\Tools\\build\\codegen.dll");
  g_dllPath = u"\\Device\\HarddiskVolume3\\Tools\\build\\codegen.dll";
  g_imageInfo = {};
  g_imageInfo.ImageBase = reinterpret_cast<PVOID>(static_cast<uintptr_t>(base));
  g_imageInfo.ImageSize = 0x20000;
  world.AsSystem([&] {
    return sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)process.Id(), process.Process()->createTime, &g_node);
  });
  if (!g_node) return 1;
  // One of each, to learn the packets' lengths (and to have every package cached).
  g_reader->DrainAll([](const sentrel_sdk::RingRecord&) {});
  process.InProcess([&] {
    sk_Report_ProcessCreateEvent(process.Process(), g_node);
    UNICODE_STRING name;
    name.Buffer = reinterpret_cast<PWSTR>(g_dllPath.data());
    name.Length = name.MaximumLength = static_cast<USHORT>(g_dllPath.size() * 2);
    sk_xxLoadImageProber(&name, (HANDLE)process.Id(), &g_imageInfo);
    return 0;
  });
  g_reader->DrainAll([&](const sentrel_sdk::RingRecord& record) {
    uint32_t type = sk_LoadLe32(record.data, SK_PACKET_EVENT_TYPE_OFFSET);
    (type == ET_PROCESS_CREATE ? g_createLength : g_imageLength) = record.length;
  });
  if (!g_createLength || !g_imageLength) {
    std::fprintf(stderr, "the first reports did not reach the ring buffers\n");
    return 1;
  }

  benchmark::RegisterBenchmark("BM_CopyPacket/create", BM_CopyPacket)->Arg(static_cast<int64_t>(g_createLength));
  benchmark::RegisterBenchmark("BM_ProcessCreateReport", BM_ProcessCreateReport);
  benchmark::RegisterBenchmark("BM_CopyPacket/image", BM_CopyPacket)->Arg(static_cast<int64_t>(g_imageLength));
  benchmark::RegisterBenchmark("BM_ImageLoadReport", BM_ImageLoadReport);
  benchmark::Initialize(&argc, argv);
  bench_table::Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  char name[64];
  std::snprintf(name, sizeof name, "BM_CopyPacket/create/%zu", g_createLength);
  double createCopy = reporter.Time(name), create = reporter.Time("BM_ProcessCreateReport");
  std::snprintf(name, sizeof name, "BM_CopyPacket/image/%zu", g_imageLength);
  double imageCopy = reporter.Time(name), image = reporter.Time("BM_ImageLoadReport");
  std::printf("process-creation report (%zu-byte packet) %.1f ns, its copy %.1f ns; image-load report (%zu bytes) "
              "%.1f ns, its copy %.1f ns\n",
              g_createLength, create, createCopy, g_imageLength, image, imageCopy);
  // A report is a rule match, three package lookups, one allocation and one ring-buffer write
  // (four locked operations and the copy) on top of the copy.
  bench_table::AtMost("process-creation report, warm caches", create, "memcpy of its packet", createCopy, 20.0);
  bench_table::AtMost("image-load report through its prober, warm caches", image, "memcpy of its packet", imageCopy,
                      20.0);

  world.AsSystem([&] { return sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, g_node); });
  g_reader.reset();
  SentrelOnline = FALSE;
  world.ExitProcess(process);
  world.AsSystem(sk_UninitSentrelData);
  return 0;
}
