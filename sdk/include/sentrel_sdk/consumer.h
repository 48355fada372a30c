// What a consumer asks of the driver, over any Device: register as the one consumer, set or read
// the event mask, upload or delete white rules, ask for one process's description, map the ring
// buffers for a RingReader, and read the driver's loss counters. Each call is one device-control request and returns its answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sentrel_sdk/device.h"
#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/loss_report.h"
#include "sentrel_sdk/ring_reader.h"
#include "sentrel_sdk/white_rule_text.h"

namespace sentrel_sdk {

class Consumer {
 public:
  explicit Consumer(Device& device) : device_(device) {}

  // IOCTL_APP_REGISTER_CONSUMER; the CommuId the driver handed out, in hex, into *commuId.
  // ERROR_ACCESS_DENIED: another process is the consumer.
  DeviceAnswer Register(std::string* commuId);
  // IOCTL_SK_EVENT_MASK (consumer only). All ones is the query marker, so it cannot be set.
  DeviceAnswer SetEventMask(uint64_t mask);
  DeviceAnswer QueryEventMask(uint64_t* mask);
  // IOCTL_SK_ADD_WHITE_RULE (consumer only): the records, or an empty request that deletes all.
  DeviceAnswer AddWhiteRules(const WhiteRuleRecords& rules);
  DeviceAnswer DeleteWhiteRules();
  // IOCTL_SK_QUERY_PACKCOMINFO: the process's three packages decoded into *description (as an
  // event line's "process", "logon" and "tree"); a well-answered request whose bytes do not add up
  // is ERROR_INVALID_DATA with the reason in *problem.
  DeviceAnswer DescribeProcess(uint32_t processId, Json* description, std::string* problem);
  // IOCTL_SK_MAP_RINGBUF: the buffers mapped into this process, and a reader over them. The
  // mapping lasts until this process exits.
  DeviceAnswer MapRingBuffers(std::optional<RingReader>* reader);
  // IOCTL_SK_QUERY_LOSSES (consumer only): every loss counter of the driver, decoded into *report.
  DeviceAnswer QueryLosses(std::optional<LossReport>* report);

 private:
  Device& device_;
};

}  // namespace sentrel_sdk
