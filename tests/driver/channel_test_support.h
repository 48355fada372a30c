// The device as user-mode processes see it: handles on "\\.\Sentrel", registration, packets written
// and read, with the driver loaded into a simulated machine.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

#include "sentrel/control_codes.h"
#include "sentrel_sdk/loss_report.h"
#include "sentrel/packet_build.h"
#include "test_support.h"

namespace sentrel_test {

// A control (or event) packet with a body of bodyLength bytes, each byte `fill`.
inline std::vector<uint8_t> Packet(uint32_t type, uint32_t dstType, uint32_t dstPid, uint32_t bodyLength = 4,
                                   uint8_t fill = 0x5A) {
  std::vector<uint8_t> bytes(SK_PACKET_HEADER_SIZE + bodyLength, fill);
  sk_PacketInit(bytes.data(), type, SKT_PRODUCER, 0, dstType, dstPid, bodyLength);
  return bytes;
}

inline std::vector<uint8_t> Control(uint32_t dstType, uint32_t dstPid = 0, uint32_t bodyLength = 4, uint8_t fill = 0x5A) {
  return Packet(SKPT_CONTROL, dstType, dstPid, bodyLength, fill);
}

struct Registration {
  ntsim::IoResult result;
  SENTREL_AUTH_COMMUID auth{};
};

// One process's side of the device.
class Client {
 public:
  Client(ntsim::World& world, ntsim::UserProcess& process) : world_(world), process_(process) {}
  ntsim::UserProcess& Process() { return process_; }
  uint32_t Pid() const { return static_cast<uint32_t>(process_.Id()); }

  HANDLE Open(bool overlapped = true) {
    HANDLE handle = nullptr;
    EXPECT_EQ(process_.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &handle, overlapped),
              STATUS_SUCCESS);
    return handle;
  }
  Registration Register(HANDLE handle, ULONG code, ULONG outLength = sizeof(SENTREL_AUTH_COMMUID)) {
    Registration r;
    std::vector<uint8_t> out(outLength);
    r.result = process_.DeviceIoControl(handle, code, nullptr, 0, out.data(), outLength);
    if (outLength >= sizeof r.auth) std::memcpy(&r.auth, out.data(), sizeof r.auth);
    return r;
  }
  // Works on either kind of handle (a plain WriteFile on an overlapped handle is refused).
  ntsim::IoResult Write(HANDLE handle, const std::vector<uint8_t>& packet) {
    auto io = process_.WriteFileOverlapped(handle, packet.data(), static_cast<ULONG>(packet.size()));
    EXPECT_TRUE(io->Wait(std::chrono::seconds(5)));
    return io->Result();
  }
  // A read that may wait: its buffer lives as long as the request.
  struct Read {
    std::shared_ptr<ntsim::PendingIo> io;
    std::shared_ptr<std::vector<uint8_t>> buffer;
    bool Done(int ms = 2000) { return io->Wait(std::chrono::milliseconds(ms)); }
    std::vector<uint8_t> Bytes() const {
      ntsim::IoResult r = io->Result();
      return std::vector<uint8_t>(buffer->begin(), buffer->begin() + (r.status == STATUS_SUCCESS ? r.information : 0));
    }
  };
  // The driver's loss counters, asked for as the consumer asks: first the length, then the answer.
  std::optional<sentrel_sdk::LossReport> QueryLosses(HANDLE handle) {
    ntsim::IoResult sized = process_.DeviceIoControl(handle, IOCTL_SK_QUERY_LOSSES, nullptr, 0, nullptr, 0);
    EXPECT_EQ(sized.status, STATUS_BUFFER_OVERFLOW);
    std::vector<uint8_t> answer(sized.information);
    ntsim::IoResult full = process_.DeviceIoControl(handle, IOCTL_SK_QUERY_LOSSES, nullptr, 0, answer.data(),
                                                    static_cast<ULONG>(answer.size()));
    EXPECT_EQ(full.status, STATUS_SUCCESS);
    EXPECT_EQ(full.information, answer.size());
    return sentrel_sdk::DecodeLossReport(answer.data(), answer.size());
  }
  Read StartRead(HANDLE handle, ULONG length = 4096) {
    Read read;
    read.buffer = std::make_shared<std::vector<uint8_t>>(length);
    read.io = process_.ReadFileOverlapped(handle, read.buffer->data(), length);
    return read;
  }

 private:
  ntsim::World& world_;
  ntsim::UserProcess& process_;
};

}  // namespace sentrel_test
