#include "sentrel_sdk/consumer.h"

#include <vector>

#include "sentrel/control_codes.h"
#include "sentrel/loss_counters.h"
#include "sentrel/package.h"
#include "sentrel/packet.h"
#include "sentrel/packet_build.h"
#include "sentrel/ring_buffer.h"

namespace sentrel_sdk {

namespace {

// Room for the mapping answer of the largest machine Windows runs on (2048 logical processors):
// a failed request does not say how much it needed.
constexpr uint32_t kMaxBuffers = 2048;
// The description of one process: the driver keeps its three packages within these bounds, and a
// too-short buffer is refused without saying how much was needed.
constexpr uint32_t kDescriptionRoom = SK_PACK_COMMON_INFO_MAX;

}  // namespace

DeviceAnswer Consumer::Register(std::string* commuId) {
  uint8_t answer[sizeof(SENTREL_AUTH_COMMUID)] = {};
  DeviceAnswer result = device_.Control(IOCTL_APP_REGISTER_CONSUMER, nullptr, 0, answer, sizeof answer);
  if (result.Ok()) *commuId = Hex(answer + SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId), 16);
  return result;
}

DeviceAnswer Consumer::SetEventMask(uint64_t mask) {
  uint8_t in[8];
  sk_StoreLe64(in, 0, mask);
  return device_.Control(IOCTL_SK_EVENT_MASK, in, sizeof in, nullptr, 0);
}

DeviceAnswer Consumer::QueryEventMask(uint64_t* mask) {
  uint8_t in[8], out[8] = {};
  sk_StoreLe64(in, 0, ~0ull);
  DeviceAnswer result = device_.Control(IOCTL_SK_EVENT_MASK, in, sizeof in, out, sizeof out);
  if (result.Ok()) *mask = sk_LoadLe64(out, 0);
  return result;
}

DeviceAnswer Consumer::AddWhiteRules(const WhiteRuleRecords& rules) {
  // The driver reads the records from the second (direct) buffer and takes their length from the
  // input length, so the same bytes go as both.
  std::vector<uint8_t> records = rules.bytes;
  auto length = static_cast<uint32_t>(records.size());
  return device_.Control(IOCTL_SK_ADD_WHITE_RULE, records.data(), length, records.data(), length);
}

DeviceAnswer Consumer::DeleteWhiteRules() { return device_.Control(IOCTL_SK_ADD_WHITE_RULE, nullptr, 0, nullptr, 0); }

DeviceAnswer Consumer::DescribeProcess(uint32_t processId, Json* description, std::string* problem) {
  uint8_t in[4];
  sk_StoreLe32(in, 0, processId);
  std::vector<uint8_t> out(kDescriptionRoom);
  DeviceAnswer result = device_.Control(IOCTL_SK_QUERY_PACKCOMINFO, in, sizeof in, out.data(),
                                        static_cast<uint32_t>(out.size()));
  if (!result.Ok()) return result;
  if (!DecodeProcessDescription(out.data(), result.bytes, description, problem)) result.error = kErrorInvalidData;
  return result;
}

DeviceAnswer Consumer::MapRingBuffers(std::optional<RingReader>* reader) {
  std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(kMaxBuffers));
  DeviceAnswer result = device_.Control(IOCTL_SK_MAP_RINGBUF, nullptr, 0, info.data(), static_cast<uint32_t>(info.size()));
  if (!result.Ok()) return result;
  *reader = RingReader::FromMapInfo(info.data(), result.bytes);
  if (!*reader) result.error = kErrorInvalidData;
  return result;
}

DeviceAnswer Consumer::QueryLosses(std::optional<LossReport>* report) {
  std::vector<uint8_t> out(SK_LOSS_COUNTERS_SIZE(kMaxBuffers, 256));
  DeviceAnswer result;
  // Queues come and go between two requests: a too-short answer's header says how long the whole
  // one is, and the next request has that and room to spare.
  for (int attempt = 0; attempt < 4; ++attempt) {
    result = device_.Control(IOCTL_SK_QUERY_LOSSES, nullptr, 0, out.data(), static_cast<uint32_t>(out.size()));
    if (result.error != kErrorMoreData) break;
    out.resize(sk_LoadLe32(out.data(), 0) + SK_LOSS_COUNTERS_SIZE(0, 256));
  }
  if (!result.Ok()) return result;
  *report = DecodeLossReport(out.data(), result.bytes);
  if (!*report) result.error = kErrorInvalidData;
  return result;
}

}  // namespace sentrel_sdk
