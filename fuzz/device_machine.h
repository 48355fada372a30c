// The machine of the device fuzz targets: Sentrel loaded into a simulated machine, with a consumer
// (its ring buffers mapped), two producers and a process that never registered, each with an
// overlapped handle on "\\.\Sentrel". A target tries the device as these processes can; after each
// input the machine settles (the consumer drains the rings, every queued control packet is read,
// reads left waiting are cancelled) and must still do its work: a control packet crosses from the
// consumer to a producer and back, and the consumer reads the event mask. The verifier stops the
// run at the first violation; at the end of a replay the driver unloads and must leave nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "sentrel/control_codes.h"
#include "sentrel/packet_build.h"
#include "sentrel/ring_buffer.h"
#include "sentrel_sdk/ring_reader.h"
#include "world.h"

#define DEVICE_FUZZ_CHECK(cond, ...)                      \
  do {                                                    \
    if (!(cond)) {                                        \
      std::fprintf(stderr, "device fuzz: " __VA_ARGS__);  \
      std::fprintf(stderr, "\n");                         \
      std::abort();                                       \
    }                                                     \
  } while (0)

namespace device_fuzz {

using namespace std::chrono_literals;

// Who acts: the consumer, producer one, producer two, or the process that never registered.
enum Who : uint8_t { kConsumer, kProducerOne, kProducerTwo, kStranger, kWhoCount };

class DeviceMachine {
 public:
  static DeviceMachine& Get() {
    static DeviceMachine* machine = new DeviceMachine();  // ends in Finish()
    return *machine;
  }

  ntsim::UserProcess& Process(uint8_t who) { return *process_[who % kWhoCount]; }
  HANDLE Handle(uint8_t who) { return handle_[who % kWhoCount]; }

  // A request of the process that must end by itself: none of these stays pending.
  ntsim::IoResult Finished(const std::shared_ptr<ntsim::PendingIo>& io, const char* what) {
    DEVICE_FUZZ_CHECK(io->Wait(5s), "a %s request never completed", what);
    return io->Result();
  }
  ntsim::IoResult Write(uint8_t who, const uint8_t* bytes, size_t length) {
    return Finished(Process(who).WriteFileOverlapped(Handle(who), bytes, static_cast<ULONG>(length)), "write");
  }

  // Back to a known state after an input, and the proof that the driver still works.
  void Settle() {
    while (reader_->DrainAll([](const sentrel_sdk::RingRecord&) {}) != 0) continue;
    for (uint8_t who = 0; who < kWhoCount; ++who) ReadEverything(who);
    uint32_t producer = static_cast<uint32_t>(Process(kProducerOne).Id());
    std::vector<uint8_t> ask = Control(SKT_PRODUCER, producer, 0x51);
    DEVICE_FUZZ_CHECK(Write(kConsumer, ask.data(), ask.size()).status == STATUS_SUCCESS, "the consumer cannot send");
    DEVICE_FUZZ_CHECK(ReadOne(kProducerOne) == ask, "the producer did not get the consumer's packet");
    std::vector<uint8_t> answer = Control(SKT_CONSUMER, 0, 0x52);
    DEVICE_FUZZ_CHECK(Write(kProducerOne, answer.data(), answer.size()).status == STATUS_SUCCESS,
                      "the producer cannot answer");
    DEVICE_FUZZ_CHECK(ReadOne(kConsumer) == answer, "the consumer did not get the producer's answer");
    uint64_t query = SK_EVENT_MASK_QUERY, mask = 0;
    ntsim::IoResult masked = Finished(Process(kConsumer).DeviceIoControlOverlapped(
                                          Handle(kConsumer), IOCTL_SK_EVENT_MASK, &query, 8, &mask, 8),
                                      "mask");
    DEVICE_FUZZ_CHECK(masked.status == STATUS_SUCCESS, "the consumer cannot read the event mask");
    DEVICE_FUZZ_CHECK(world_->kernel().io.OutstandingRequests(world_->DriverObject()) == 0,
                      "the driver holds requests after the machine settled");
  }

  // After the last input of a replay: the processes exit, the driver unloads, nothing is left.
  bool Finish() {
    for (uint8_t who = 0; who < kWhoCount; ++who) world_->ExitProcess(Process(who));
    ntsim::Verdict verdict = world_->UnloadDriver();
    if (!verdict.Clean()) std::fprintf(stderr, "device fuzz: %s\n", verdict.Report().c_str());
    delete this;
    return verdict.Clean();
  }

 private:
  DeviceMachine() : world_(new ntsim::World()) {
    DEVICE_FUZZ_CHECK(world_->LoadDriver() == STATUS_SUCCESS, "the driver does not load");
    const char16_t* images[kWhoCount] = {u"agent.exe", u"scanner.exe", u"updater.exe", u"stranger.exe"};
    for (uint8_t who = 0; who < kWhoCount; ++who) {
      process_[who] = &world_->StartProcess(images[who]);
      DEVICE_FUZZ_CHECK(process_[who]->CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &handle_[who],
                                                  true) == STATUS_SUCCESS,
                        "the device does not open");
    }
    DEVICE_FUZZ_CHECK(Register(kConsumer, IOCTL_APP_REGISTER_CONSUMER), "no consumer");
    DEVICE_FUZZ_CHECK(Register(kProducerOne, IOCTL_APP_REGISTER_PRODUCER), "no first producer");
    DEVICE_FUZZ_CHECK(Register(kProducerTwo, IOCTL_APP_REGISTER_PRODUCER), "no second producer");
    std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(64));
    ntsim::IoResult mapped = Finished(Process(kConsumer).DeviceIoControlOverlapped(
                                          Handle(kConsumer), IOCTL_SK_MAP_RINGBUF, nullptr, 0, info.data(),
                                          static_cast<ULONG>(info.size())),
                                      "map");
    DEVICE_FUZZ_CHECK(mapped.status == STATUS_SUCCESS, "the ring buffers are not mapped");
    reader_ = sentrel_sdk::RingReader::FromMapInfo(info.data(), mapped.information);
    DEVICE_FUZZ_CHECK(reader_.has_value(), "the mapping record does not decode");
  }
  ~DeviceMachine() { delete world_; }

  bool Register(uint8_t who, ULONG code) {
    SENTREL_AUTH_COMMUID auth{};
    return Finished(Process(who).DeviceIoControlOverlapped(Handle(who), code, nullptr, 0, &auth, sizeof auth),
                    "registration")
               .status == STATUS_SUCCESS;
  }

  static std::vector<uint8_t> Control(uint32_t dstType, uint32_t dstPid, uint8_t fill) {
    std::vector<uint8_t> packet(SK_PACKET_HEADER_SIZE + 4, fill);
    sk_PacketInit(packet.data(), SKPT_CONTROL, SKT_PRODUCER, 0, dstType, dstPid, 4);
    return packet;
  }

  // One packet that is waiting for the process, or nothing (its read cancelled).
  std::optional<std::vector<uint8_t>> TryRead(uint8_t who) {
    std::vector<uint8_t> buffer(RB_SLOT_SIZE);
    std::shared_ptr<ntsim::PendingIo> io =
        Process(who).ReadFileOverlapped(Handle(who), buffer.data(), static_cast<ULONG>(buffer.size()));
    if (!io->Wait(0ms)) {
      Process(who).CancelIoEx(Handle(who), io.get());
      Finished(io, "cancelled read");
    }
    ntsim::IoResult result = io->Result();
    if (result.status != STATUS_SUCCESS) return std::nullopt;
    buffer.resize(result.information);
    return buffer;
  }
  std::vector<uint8_t> ReadOne(uint8_t who) {
    std::optional<std::vector<uint8_t>> packet = TryRead(who);
    return packet ? *packet : std::vector<uint8_t>();
  }
  void ReadEverything(uint8_t who) {
    for (int i = 0; i < 20000; ++i) {
      if (!TryRead(who)) return;
    }
  }

  ntsim::World* world_;
  ntsim::UserProcess* process_[kWhoCount] = {};
  HANDLE handle_[kWhoCount] = {};
  std::optional<sentrel_sdk::RingReader> reader_;
};

}  // namespace device_fuzz
