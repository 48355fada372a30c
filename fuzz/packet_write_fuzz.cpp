// Fuzz target: packets written to the device, of any length and with any header, by the consumer,
// a producer or a process that never registered. An input is a run of writes, each a byte that
// picks the writer, a 16-bit length (little-endian) and that many bytes (fewer if the input ends);
// a destination process id below 4 stands for one of the machine's processes.
// Checked: every write completes with a status, and after the input the driver still routes
// control packets both ways and answers the consumer, holds no request, and breaks no rule of the
// verifier's; at the end of a replay it unloads leaving nothing behind.
#include "device_machine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  device_fuzz::DeviceMachine& machine = device_fuzz::DeviceMachine::Get();
  size_t offset = 0;
  for (int writes = 0; writes < 16 && size - offset >= 3; ++writes) {
    uint8_t who = data[offset];
    size_t length = data[offset + 1] | size_t(data[offset + 2]) << 8;
    offset += 3;
    if (length > size - offset) length = size - offset;
    // A heap copy of exactly the packet's length, so that a read past its end is seen.
    std::unique_ptr<uint8_t[]> packet(new uint8_t[length ? length : 1]);
    if (length) std::memcpy(packet.get(), data + offset, length);
    // Process ids are the machine's: a DstPid below 4 names one of its four processes instead.
    if (length >= SK_PACKET_HEADER_SIZE) {
      uint32_t dstPid = sk_LoadLe32(packet.get(), 40);
      if (dstPid < device_fuzz::kWhoCount) {
        sk_StoreLe32(packet.get(), 40, static_cast<uint32_t>(machine.Process(static_cast<uint8_t>(dstPid)).Id()));
      }
    }
    ntsim::IoResult result = machine.Write(who, packet.get(), length);
    DEVICE_FUZZ_CHECK(result.status != STATUS_PENDING, "a write was left pending");
    DEVICE_FUZZ_CHECK(result.status != STATUS_SUCCESS || result.information <= length,
                      "a write of %zu bytes reported %zu", length, size_t(result.information));
    offset += length;
  }
  machine.Settle();
  return 0;
}

bool FuzzReplayFinished() { return device_fuzz::DeviceMachine::Get().Finish(); }
