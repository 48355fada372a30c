// The loss counters' answer decoded from raw bytes, as a consumer receives it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sentrel/loss_counters.h"
#include "sentrel_sdk/loss_report.h"

namespace {

std::vector<uint8_t> Answer(uint32_t buffers, uint32_t queues) {
  std::vector<uint8_t> bytes(SK_LOSS_COUNTERS_SIZE(buffers, queues));
  SK_LOSS_COUNTERS header{};
  header.Size = static_cast<uint32_t>(bytes.size());
  header.BufferCount = buffers;
  header.QueueCount = queues;
  header.ConsumerQueueEvicted = 2048;
  header.ProcessQueuesEvicted = 16;
  std::memcpy(bytes.data(), &header, sizeof header);
  for (uint32_t i = 0; i < buffers; ++i) {
    SK_RING_LOSSES ring{100 + i, i};
    std::memcpy(bytes.data() + SK_LOSS_COUNTERS_SIZE(i, 0), &ring, sizeof ring);
  }
  for (uint32_t i = 0; i < queues; ++i) {
    SK_QUEUE_LOSSES queue{4000 + i, 0, 8};
    std::memcpy(bytes.data() + SK_LOSS_COUNTERS_SIZE(buffers, i), &queue, sizeof queue);
  }
  return bytes;
}

TEST(LossReportTest, EveryCountIsDecodedInItsPlace) {
  std::vector<uint8_t> bytes = Answer(2, 1);
  std::optional<sentrel_sdk::LossReport> report = sentrel_sdk::DecodeLossReport(bytes.data(), bytes.size());
  ASSERT_TRUE(report.has_value());
  ASSERT_EQ(report->buffers.size(), 2u);
  EXPECT_EQ(report->buffers[1].overwrittenRecords, 101u);
  EXPECT_EQ(report->buffers[1].droppedPackets, 1u);
  EXPECT_EQ(report->consumerQueueEvicted, 2048u);
  EXPECT_EQ(report->processQueuesEvicted, 16u);
  ASSERT_EQ(report->queues.size(), 1u);
  EXPECT_EQ(report->queues[0].processId, 4000u);
  EXPECT_EQ(report->queues[0].evicted, 8u);
}

TEST(LossReportTest, AnswersThatDoNotAddUpAreRefused) {
  std::vector<uint8_t> bytes = Answer(2, 1);
  EXPECT_FALSE(sentrel_sdk::DecodeLossReport(bytes.data(), bytes.size() - 1).has_value()) << "cut short";
  EXPECT_FALSE(sentrel_sdk::DecodeLossReport(bytes.data(), 31).has_value()) << "no whole header";
  std::vector<uint8_t> lying = bytes;
  uint32_t huge = 0x10000000u;  // 16 * huge wraps a 32-bit size to the real one
  std::memcpy(lying.data() + 8, &huge, 4);
  EXPECT_FALSE(sentrel_sdk::DecodeLossReport(lying.data(), lying.size()).has_value()) << "counts beyond the size";
  lying = bytes;
  uint32_t size = 1000;
  std::memcpy(lying.data(), &size, 4);
  EXPECT_FALSE(sentrel_sdk::DecodeLossReport(lying.data(), lying.size()).has_value()) << "size beyond the bytes";
}

}  // namespace
