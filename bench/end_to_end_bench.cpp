// Events per second from the kernel's notification to the consumer's decoder, on a simulated
// machine of 1, 2 and 4 processors with the whole driver loaded: one host thread per processor
// starts threads in another process (each a remote-thread notification, its prober, its report
// and its ring-buffer write) and ends them again, while the consumer drains and decodes every
// record. Figures: the events the driver wrote per second, and those the consumer decoded per
// second; what the consumer could not keep up with must show in the driver's loss counters, so
// that decoded + lost = started. The scaling ratio compares the driver's rate on 4 processors with
// 1. Each run lasts a fixed time, so the figures do not depend on luck in how threads interleave.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "bench_table.h"
#include "sentrel/control_codes.h"
#include "sentrel/packet.h"
#include "sentrel/ring_buffer.h"
#include "sentrel/loss_counters.h"
#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/loss_report.h"
#include "sentrel_sdk/ring_reader.h"
#include "world.h"

namespace {

constexpr auto kRunTime = std::chrono::milliseconds(1500);

struct Result {
  double writtenPerSecond = 0, decodedPerSecond = 0;
  uint64_t started = 0, decoded = 0, malformed = 0, lost = 0;
};

Result Run(int processors) {
  ntsim::World::Options options;
  options.machine.processors = processors;
  options.usualProcesses = true;
  ntsim::World world(options);
  Result result;
  ntsim::ProcessSpec target;
  target.pid = 1500;
  target.imagePath = u"\\??\\C:\\Windows\\explorer.exe";
  ntsim::UserProcess& desktop = world.CreateProcess(target);
  ntsim::ProcessSpec agentSpec;
  agentSpec.pid = 900;
  agentSpec.parentPid = ntsim::World::kServicesPid;
  agentSpec.imagePath = u"\\??\\C:\\Program Files\\Sentrel\\agent.exe";
  ntsim::UserProcess& agent = world.CreateProcess(agentSpec);
  if (world.LoadDriver() != STATUS_SUCCESS) return result;
  HANDLE handle = nullptr;
  agent.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &handle);
  std::vector<uint8_t> auth(sizeof(SENTREL_AUTH_COMMUID)), info(RING_BUF_MAP_INFO_SIZE(64));
  agent.DeviceIoControl(handle, IOCTL_APP_REGISTER_CONSUMER, nullptr, 0, auth.data(), static_cast<ULONG>(auth.size()));
  ntsim::IoResult mapped = agent.DeviceIoControl(handle, IOCTL_SK_MAP_RINGBUF, nullptr, 0, info.data(),
                                                 static_cast<ULONG>(info.size()));
  std::optional<sentrel_sdk::RingReader> reader = sentrel_sdk::RingReader::FromMapInfo(info.data(), mapped.information);
  if (!reader) return result;

  // One source process per processor, each created (and reported) before the clock starts.
  std::vector<ntsim::UserProcess*> sources;
  for (int i = 0; i < processors; ++i) {
    ntsim::ProcessSpec spec;
    spec.pid = 3000 + 8 * i;
    spec.parentPid = 1500;
    spec.imagePath = u"\\??\\C:\\Tools\\injector.exe";
    sources.push_back(&world.CreateProcess(spec));
  }
  reader->DrainAll([](const sentrel_sdk::RingRecord&) {});

  std::atomic<bool> stop{false};
  std::atomic<uint64_t> started{0};
  uint64_t decoded = 0, malformed = 0;
  auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int i = 0; i < processors; ++i) {
    threads.emplace_back([&, i] {
      while (!stop) {
        uint64_t tid = world.StartThread(desktop, sources[i], 0x7ff700010000 + 0x10 * i);
        world.ExitThread(tid);
        started.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  std::thread consumer([&] {
    auto drain = [&] {
      return reader->DrainAll([&](const sentrel_sdk::RingRecord& record) {
        sentrel_sdk::Json event = sentrel_sdk::DecodeEvent(record.data, record.length);
        if (event.contains("malformed")) ++malformed;
        ++decoded;
      });
    };
    while (!stop) {
      if (drain() == 0) std::this_thread::yield();
    }
    for (std::thread& t : threads) t.join();
    while (drain() != 0) {
    }
  });
  std::this_thread::sleep_for(kRunTime);
  stop = true;
  consumer.join();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  result.started = started;
  result.decoded = decoded;
  result.malformed = malformed;
  result.writtenPerSecond = result.started / seconds;
  result.decodedPerSecond = decoded / seconds;
  std::vector<uint8_t> losses(SK_LOSS_COUNTERS_SIZE(64, 64));
  ntsim::IoResult asked = agent.DeviceIoControl(handle, IOCTL_SK_QUERY_LOSSES, nullptr, 0, losses.data(),
                                                static_cast<ULONG>(losses.size()));
  std::optional<sentrel_sdk::LossReport> report = sentrel_sdk::DecodeLossReport(losses.data(), asked.information);
  if (report) {
    for (const sentrel_sdk::RingLosses& buffer : report->buffers) result.lost += buffer.overwrittenRecords + buffer.droppedPackets;
  }

  for (ntsim::UserProcess* source : sources) world.ExitProcess(*source);
  agent.CloseHandle(handle);
  world.ExitProcess(agent);
  world.ExitProcess(desktop);
  world.UnloadDriver();
  return result;
}

}  // namespace

int main() {
  std::vector<std::pair<int, Result>> results;
  for (int processors : {1, 2, 4}) {
    Result r = Run(processors);
    results.emplace_back(processors, r);
    std::printf("%d processor(s): %llu remote threads started and reported (%.0f/s), %llu decoded (%.0f/s, %llu "
                "malformed), %llu lost to full buffers and counted\n",
                processors, static_cast<unsigned long long>(r.started), r.writtenPerSecond,
                static_cast<unsigned long long>(r.decoded), r.decodedPerSecond,
                static_cast<unsigned long long>(r.malformed), static_cast<unsigned long long>(r.lost));
  }
  char figure[64], baseline[96];
  for (const auto& [processors, r] : results) {
    std::snprintf(figure, sizeof figure, "%.0f events/s decoded", r.decodedPerSecond);
    std::snprintf(baseline, sizeof baseline, "%.0f events/s written", r.writtenPerSecond);
    // Nothing lost silently: every event written was decoded or counted as lost.
    bench_table::Row("end to end, remote-thread events, " + std::to_string(processors) + " processor(s)", figure,
                     baseline, r.writtenPerSecond > 0 ? r.decodedPerSecond / r.writtenPerSecond : 0,
                     "decoded + lost = written", r.started > 0 && r.decoded + r.lost == r.started && r.malformed == 0);
  }
  double one = results[0].second.writtenPerSecond, four = results[2].second.writtenPerSecond;
  std::snprintf(baseline, sizeof baseline, "1 processor, per event");
  // The host has two cores: four simulated processors can at best double what one does.
  bench_table::SpeedUpAtLeast("end to end, driver's time per event, 4 processors against 1", four > 0 ? 1e9 / four : 0,
                              baseline, one > 0 ? 1e9 / one : 0, 1.5);
  return 0;
}
