#include "sentrel_sdk/loss_report.h"

#include <cstring>

#include "sentrel/loss_counters.h"

namespace sentrel_sdk {

std::optional<LossReport> DecodeLossReport(const void* answer, size_t length) {
  auto bytes = static_cast<const uint8_t*>(answer);
  SK_LOSS_COUNTERS header;
  if (length < sizeof header) return std::nullopt;
  std::memcpy(&header, bytes, sizeof header);
  uint64_t size = SK_LOSS_COUNTERS_SIZE(header.BufferCount, header.QueueCount);
  if (size != header.Size || size > length) return std::nullopt;
  LossReport report;
  report.consumerQueueEvicted = header.ConsumerQueueEvicted;
  report.processQueuesEvicted = header.ProcessQueuesEvicted;
  size_t offset = sizeof header;
  for (uint32_t i = 0; i < header.BufferCount; ++i, offset += sizeof(SK_RING_LOSSES)) {
    SK_RING_LOSSES ring;
    std::memcpy(&ring, bytes + offset, sizeof ring);
    report.buffers.push_back(RingLosses{ring.OverwrittenRecords, ring.DroppedPackets});
  }
  for (uint32_t i = 0; i < header.QueueCount; ++i, offset += sizeof(SK_QUEUE_LOSSES)) {
    SK_QUEUE_LOSSES queue;
    std::memcpy(&queue, bytes + offset, sizeof queue);
    report.queues.push_back(QueueLosses{queue.ProcessId, queue.Evicted});
  }
  return report;
}

Json LossReportJson(const LossReport& report) {
  Json buffers = Json::array(), queues = Json::array();
  for (size_t i = 0; i < report.buffers.size(); ++i) {
    buffers.push_back({{"cpu", i},
                       {"overwritten", report.buffers[i].overwrittenRecords},
                       {"dropped", report.buffers[i].droppedPackets}});
  }
  for (const QueueLosses& queue : report.queues) queues.push_back({{"pid", queue.processId}, {"evicted", queue.evicted}});
  return {{"buffers", buffers},
          {"consumer_queue_evicted", report.consumerQueueEvicted},
          {"process_queues_evicted", report.processQueuesEvicted},
          {"queues", queues}};
}

}  // namespace sentrel_sdk
