// The consumer's view of what the driver could not deliver: the answer to IOCTL_SK_QUERY_LOSSES
// (sentrel/loss_counters.h), decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/ring_reader.h"

namespace sentrel_sdk {

struct QueueLosses {
  uint32_t processId = 0;
  uint64_t evicted = 0;
};

struct LossReport {
  std::vector<RingLosses> buffers;  // buffer i: the processor with system-wide index i
  uint64_t consumerQueueEvicted = 0;
  uint64_t processQueuesEvicted = 0;  // every process queue since the driver started
  std::vector<QueueLosses> queues;    // live process queues that have evicted packets
};

// Nothing if the answer is shorter than its header says or its counts do not add up to its size.
std::optional<LossReport> DecodeLossReport(const void* answer, size_t length);

// As sentrel-sim and sentrel-events print it: {"buffers":[{"cpu","overwritten","dropped"},...],
// "consumer_queue_evicted","process_queues_evicted","queues":[{"pid","evicted"},...]}.
Json LossReportJson(const LossReport& report);

}  // namespace sentrel_sdk
