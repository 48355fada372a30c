// Fuzz target: device-control requests of any code, transfer method, buffer lengths and contents,
// sent by the consumer, a producer or a process that never registered. An input is a run of
// requests, each: a byte that picks the caller; a byte that picks the code (below 0x80 one of the
// device's own codes, with bit 6 set also given the method of the next four bytes; else those four
// bytes are the whole code); four code bytes; 16-bit input and output lengths (little-endian); then
// the input bytes (fewer if the input ends). Checked: every request completes, reports no more
// output than its buffer holds, and after the input the driver still works and holds nothing.
#include "device_machine.h"

namespace {

const ULONG kCodes[] = {IOCTL_SK_REGISTER_PRODUCER, IOCTL_SK_UNREGISTER_PRODUCER, IOCTL_SK_GET_INTERFACEKRNL,
                        IOCTL_SK_RESERVED_4,        IOCTL_SK_RESERVED_5,          IOCTL_SK_ADD_WHITE_RULE,
                        IOCTL_SK_QUERY_PACKCOMINFO, IOCTL_APP_REGISTER_CONSUMER,  IOCTL_SK_MAP_RINGBUF,
                        IOCTL_SK_EVENT_MASK,        IOCTL_SK_QUERY_LOSSES,        IOCTL_APP_REGISTER_PRODUCER,
                        IOCTL_SK_NOTIFY_ONLINE};

uint32_t Le32(const uint8_t* at) { return at[0] | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  device_fuzz::DeviceMachine& machine = device_fuzz::DeviceMachine::Get();
  size_t offset = 0;
  for (int requests = 0; requests < 16 && size - offset >= 10; ++requests) {
    uint8_t who = data[offset];
    uint8_t pick = data[offset + 1];
    uint32_t raw = Le32(data + offset + 2);
    size_t inLength = data[offset + 6] | size_t(data[offset + 7]) << 8;
    size_t outLength = data[offset + 8] | size_t(data[offset + 9]) << 8;
    offset += 10;
    ULONG code = raw;
    if (pick < 0x80) {
      code = kCodes[pick % (sizeof kCodes / sizeof kCodes[0])];
      if (pick & 0x40) code = (code & ~3u) | (raw & 3u);
    }
    size_t given = inLength < size - offset ? inLength : size - offset;
    // Heap buffers of exactly the lengths the request names, so that a touch past either end is seen;
    // input bytes the fuzzer did not supply are zero.
    std::unique_ptr<uint8_t[]> in(new uint8_t[inLength ? inLength : 1]());
    std::unique_ptr<uint8_t[]> out(new uint8_t[outLength ? outLength : 1]());
    if (given) std::memcpy(in.get(), data + offset, given);
    ntsim::IoResult result = machine.Finished(
        machine.Process(who).DeviceIoControlOverlapped(machine.Handle(who), code, inLength ? in.get() : nullptr,
                                                       static_cast<ULONG>(inLength),
                                                       outLength ? out.get() : nullptr,
                                                       static_cast<ULONG>(outLength)),
        "control");
    DEVICE_FUZZ_CHECK(!NT_SUCCESS(result.status) || result.information <= outLength,
                      "code %08x reported %zu bytes of output into %zu", (unsigned)code, size_t(result.information),
                      outLength);
    offset += given;
  }
  machine.Settle();
  return 0;
}

bool FuzzReplayFinished() { return device_fuzz::DeviceMachine::Get().Finish(); }
