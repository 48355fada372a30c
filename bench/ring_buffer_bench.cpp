// Writing event packets into the per-processor ring buffers, against a plain memcpy of the same
// record (length word and packet) into a slot-sized buffer, and against the least any lock-free
// slot protocol can do (a compare-exchange to take a private slot, the memcpy, an exchange to give
// it back):
//  - one writer, 128-byte and 2-KiB packets; the consumer's reader empties the buffer between
//    batches, outside the timed part;
//  - writers on 2 and on 4 processors, each pinned to its own processor, while the consumer's reader
//    drains every buffer at the same time on a thread of its own.
// The lines at the end give events per second and the ratio of each run to the memcpy baseline of
// the same packet size, measured in the same process.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_table.h"
#include "channel/ring_buffer.h"
#include "sentrel/packet_build.h"
#include "sentrel_sdk/ring_reader.h"
#include "world.h"

namespace {

SK_RING_BUF g_ring;
std::unique_ptr<sentrel_sdk::RingReader> g_reader;  // the consumer's view of the buffers

std::vector<uint8_t> Packet(uint32_t length) {
  std::vector<uint8_t> packet(length, 0x5A);
  sk_PacketInitEvent(packet.data(), 1234, length - SK_PACKET_HEADER_SIZE);
  return packet;
}

// Pins the calling host thread's system thread to one processor for its lifetime.
class Pinned {
 public:
  explicit Pinned(ULONG index) {
    PROCESSOR_NUMBER number = {};
    KeGetProcessorNumberFromIndex(index, &number);
    GROUP_AFFINITY affinity = {};
    affinity.Group = number.Group;
    affinity.Mask = KAFFINITY(1) << number.Number;
    KeSetSystemGroupAffinityThread(&affinity, &previous_);
  }
  ~Pinned() { KeRevertToUserGroupAffinityThread(&previous_); }

 private:
  GROUP_AFFINITY previous_;
};

void NoRecord(const sentrel_sdk::RingRecord&) {}

void BM_MemcpyIntoSlot(benchmark::State& state) {
  const uint32_t length = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> packet = Packet(length);
  std::vector<uint8_t> buffer(RB_BUFFER_SIZE);
  uint32_t slot = 0, offset = RB_SLOT_HEADER_SIZE;
  for (auto _ : state) {
    if (RB_SLOT_SIZE - offset <= length + RB_RECORD_LENGTH_SIZE) {
      slot = (slot + 1) % RB_SLOT_COUNT;
      offset = RB_SLOT_HEADER_SIZE;
    }
    uint8_t* at = buffer.data() + RB_SLOT_OFFSET(slot) + offset;
    std::memcpy(at, &length, sizeof length);
    std::memcpy(at + RB_RECORD_LENGTH_SIZE, packet.data(), length);
    offset += length + RB_RECORD_LENGTH_SIZE;
    benchmark::DoNotOptimize(at);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * length);
}

// The least any lock-free slot protocol can do: take a private slot with a compare-exchange of its
// state word, copy the record in, give the slot back with an exchange.
void BM_SlotProtocolIntoSlot(benchmark::State& state) {
  const uint32_t length = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> packet = Packet(length);
  std::vector<uint8_t> buffer(RB_BUFFER_SIZE);
  uint32_t slot = 0, offset = RB_SLOT_HEADER_SIZE;
  for (auto _ : state) {
    if (RB_SLOT_SIZE - offset <= length + RB_RECORD_LENGTH_SIZE) {
      slot = (slot + 1) % RB_SLOT_COUNT;
      offset = RB_SLOT_HEADER_SIZE;
    }
    auto* header = reinterpret_cast<RB_SLOT_HEADER*>(buffer.data() + RB_SLOT_OFFSET(slot));
    InterlockedCompareExchange(reinterpret_cast<volatile LONG*>(&header->State), RB_SLOT_WRITING, RB_SLOT_FREE);
    uint8_t* at = buffer.data() + RB_SLOT_OFFSET(slot) + offset;
    std::memcpy(at, &length, sizeof length);
    std::memcpy(at + RB_RECORD_LENGTH_SIZE, packet.data(), length);
    offset += length + RB_RECORD_LENGTH_SIZE;
    InterlockedExchange(reinterpret_cast<volatile LONG*>(&header->State), RB_SLOT_FREE);
    benchmark::DoNotOptimize(at);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * length);
}

void BM_WriteOneWriter(benchmark::State& state) {
  const uint32_t length = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> packet = Packet(length);
  Pinned pinned(0);
  // Seven slots' worth between drains (a slot holds k records while 32 + k * (length + 4) < 65536):
  // the writer never has to recycle.
  const uint64_t batch = 7 * ((RB_SLOT_SIZE - RB_SLOT_HEADER_SIZE - 1) / (length + RB_RECORD_LENGTH_SIZE));
  uint64_t written = 0;
  for (auto _ : state) {
    if (++written == batch) {
      state.PauseTiming();
      g_reader->DrainBuffer(0, NoRecord);
      written = 0;
      state.ResumeTiming();
    }
    if (!NT_SUCCESS(rb_WriteRingBuf(&g_ring, packet.data(), length))) {
      state.SkipWithError("write refused");
      break;
    }
  }
  g_reader->DrainBuffer(0, NoRecord);  // the timing stopped with the loop
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * length);
}

// The consumer's reader, draining every buffer while the writers run.
std::atomic<bool> g_draining{false};
std::unique_ptr<std::thread> g_drainer;

void BM_WritersWithReader(benchmark::State& state) {
  const uint32_t length = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> packet = Packet(length);
  if (state.thread_index() == 0) {
    g_draining = true;
    g_drainer = std::make_unique<std::thread>([] {
      while (g_draining.load()) g_reader->DrainAll(NoRecord);
    });
  }
  {
    Pinned pinned(static_cast<ULONG>(state.thread_index()));
    for (auto _ : state) {
      benchmark::DoNotOptimize(rb_WriteRingBuf(&g_ring, packet.data(), length));
    }
  }
  if (state.thread_index() == 0) {
    g_draining = false;
    g_drainer->join();
    g_drainer.reset();
    g_reader->DrainAll(NoRecord);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_MemcpyIntoSlot)->Arg(128)->Arg(2048);
BENCHMARK(BM_SlotProtocolIntoSlot)->Arg(128)->Arg(2048);
BENCHMARK(BM_WriteOneWriter)->Arg(128)->Arg(2048);
BENCHMARK(BM_WritersWithReader)->Arg(128)->Threads(2)->Threads(4)->UseRealTime();

void PrintRatios(const bench_table::Reporter& reporter) {
  for (const char* size : {"128", "2048"}) {
    double base = reporter.Rate(std::string("BM_MemcpyIntoSlot/") + size);
    double write = reporter.Rate(std::string("BM_WriteOneWriter/") + size);
    if (base <= 0 || write <= 0) continue;
    std::printf("%s-byte packets, one writer: %.2f M events/s; memcpy %.2f M events/s; "
                "time per write / time per memcpy = %.2fx\n",
                size, write / 1e6, base / 1e6, base / write);
  }
  double base = reporter.Rate("BM_MemcpyIntoSlot/128");
  for (const char* threads : {"2", "4"}) {
    double rate = reporter.Rate(std::string("BM_WritersWithReader/128/real_time/threads:") + threads);
    if (base <= 0 || rate <= 0) continue;
    std::printf("128-byte packets, %s writers on %s processors and a draining reader: %.2f M events/s in all, "
                "%.3fx the one-thread memcpy rate\n",
                threads, threads, rate / 1e6, rate / base);
  }
  for (const char* size : {"128", "2048"}) {
    bench_table::AtMost(std::string("ring-buffer write, one writer, ") + size + "-byte packet",
                        reporter.Time(std::string("BM_WriteOneWriter/") + size), "CAS+memcpy+exchange",
                        reporter.Time(std::string("BM_SlotProtocolIntoSlot/") + size), 1.5);
  }
}

}  // namespace

int main(int argc, char** argv) {
  ntsim::World::Options options;
  options.machine.processors = 4;
  ntsim::World world(options);
  if (world.AsSystem([] { return rb_InitRingBuf(&g_ring); }) != STATUS_SUCCESS) return 1;
  // The consumer maps the buffers (as IOCTL_SK_MAP_RINGBUF will, through the same routine).
  ntsim::UserProcess& consumer = world.StartProcess(u"agent.exe");
  std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(g_ring.BufferCount));
  ULONG length = static_cast<ULONG>(info.size());
  if (consumer.InProcess([&] { return rb_GetRingBufInternal(&g_ring, PsGetCurrentProcess(), info.data(), &length); }) !=
      STATUS_SUCCESS) {
    return 1;
  }
  g_reader = std::make_unique<sentrel_sdk::RingReader>(*sentrel_sdk::RingReader::FromMapInfo(info.data(), length));

  benchmark::Initialize(&argc, argv);
  bench_table::Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  PrintRatios(reporter);

  g_reader.reset();
  world.AsSystem([] { return rb_UnInitRingBuf(&g_ring); });
  return 0;
}
