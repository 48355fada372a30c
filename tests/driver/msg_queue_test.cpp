// The message queues called directly, with SentrelData started: the order of re-inserted packets,
// queues that go with their processes, and every allocation failure of a send.
#include <gtest/gtest.h>

#include "channel/msg_queue.h"
#include "channel/pending_reads.h"
#include "path_test_support.h"
#include "sentrel/packet_build.h"

using namespace sentrel_test;

namespace {

class MsgQueueTest : public StartedDriverTest {
 protected:
  void SetUp() override {
    StartedDriverTest::SetUp();
    TraceLevel |= SK_TRACE_MSG | SK_TRACE_PROCESS;
  }
  PSK_PROC_MSG_MGR Mgr() { return &SentrelData.ProcMsgMgr; }
  // A packet whose body holds n.
  static std::vector<uint8_t> Numbered(uint32_t n) {
    std::vector<uint8_t> packet(SK_PACKET_MIN_SIZE);
    sk_PacketInit(packet.data(), SKPT_CONTROL, SKT_PRODUCER, 0, SKT_PRODUCER, 100, 4);
    sk_StoreLe32(packet.data(), SK_PACKET_BODY_OFFSET, n);
    return packet;
  }
  NTSTATUS Send(ULONG pid, uint32_t n) {
    std::vector<uint8_t> packet = Numbered(n);
    return world.AsSystem([&] { return sk_SendMsg(pid, packet.data(), static_cast<ULONG>(packet.size())); });
  }
  // The numbers of the packets waiting for pid, oldest first; the queue is emptied.
  std::vector<uint32_t> Take(ULONG pid) {
    std::vector<uint32_t> numbers;
    world.AsSystem([&] {
      while (PSK_MSG_NODE node = sk_PickMsgFromMsgQueue(Mgr(), pid)) {
        numbers.push_back(sk_LoadLe32(node->Msg, SK_PACKET_BODY_OFFSET));
        sk_FreeMsgNode(node);
      }
      return 0;
    });
    return numbers;
  }
};

TEST_F(MsgQueueTest, AReinsertedPacketGoesBehindEveryWaitingOne) {
  ASSERT_EQ(world.AsSystem([&] { return sk_AddProcMsgQueue(Mgr(), 100, nullptr, nullptr); }), STATUS_SUCCESS);
  for (uint32_t n = 1; n <= 3; ++n) ASSERT_EQ(Send(100, n), STATUS_SUCCESS);
  world.AsSystem([&] {
    PSK_MSG_NODE first = sk_PickMsgFromMsgQueue(Mgr(), 100);
    return sk_ReInsertMsgNodeToMsgQueue(Mgr(), 100, first);
  });
  EXPECT_EQ(Take(100), (std::vector<uint32_t>{2, 3, 1}));

  // Without a queue nothing is queued; a queue goes with its process, packets and all.
  EXPECT_EQ(Send(200, 1), STATUS_INVALID_PARAMETER);
  ASSERT_EQ(Send(100, 4), STATUS_SUCCESS);
  world.AsSystem([&] {
    sk_ProcMsgNotfiy(nullptr, reinterpret_cast<HANDLE>(100), FALSE);
    return 0;
  });
  EXPECT_TRUE(Take(100).empty());
  EXPECT_EQ(Send(100, 5), STATUS_INVALID_PARAMETER);
}

TEST_F(MsgQueueTest, EveryFailedAllocationOfASendQueuesNothingAndKeepsNothing) {
  size_t failures = 0;
  EachFailure(
      [&](uint64_t) {
        NTSTATUS status = Send(100, 7);
        std::vector<uint32_t> left = Take(100);
        if (world.verifier().InjectedFailure()) {
          ++failures;
          EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
          EXPECT_TRUE(left.empty());
        } else {
          EXPECT_EQ(status, STATUS_SUCCESS);
          EXPECT_EQ(left, std::vector<uint32_t>{7});
        }
      },
      [&] { world.AsSystem([&] { return sk_AddProcMsgQueue(Mgr(), 100, nullptr, nullptr); }); });
  EXPECT_EQ(failures, 2u);  // the packet's copy, its node
  EXPECT_TRUE(HasMessage(world, "NewMsg alloc fail"));
  EXPECT_TRUE(HasMessage(world, "MsgNode alloc fail"));
}

}  // namespace
