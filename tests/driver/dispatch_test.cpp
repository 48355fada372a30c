// The device's requests as user-mode processes make them: registration of the consumer and of
// producers, control packets routed between them, reads that wait, queue limits, and the
// completion of every request exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "channel_test_support.h"
#include "core/pool_tags.h"
#include "sentrel_sdk/ring_reader.h"
#include "sentrel/ring_buffer.h"

using namespace ntsim;
using namespace sentrel_test;

namespace {

class DispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", 1);  // errors, printed when a test fails
    world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", 0xFFFFFFFF);
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  }
  void TearDown() override {
    if (HasFailure()) {
      for (const std::string& line : Messages(world)) std::fprintf(stderr, "  log: %s\n", line.c_str());
    }
    if (world.DriverLoaded()) {
      for (UserProcess* process : started) world.ExitProcess(*process);
      Verdict verdict = world.UnloadDriver();
      EXPECT_TRUE(verdict.Clean()) << verdict.Report();
    }
  }
  Client Start(const std::u16string& image) {
    UserProcess& process = world.StartProcess(image);
    started.push_back(&process);
    return Client(world, process);
  }

  // The consumer's request for the mapping, and a reader over what it names (none if it failed).
  std::optional<sentrel_sdk::RingReader> MapBuffers(Client& consumer, HANDLE handle) {
    std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(4));
    IoResult mapped = consumer.Process().DeviceIoControl(handle, IOCTL_SK_MAP_RINGBUF, nullptr, 0, info.data(),
                                                         static_cast<ULONG>(info.size()));
    EXPECT_EQ(mapped.status, STATUS_SUCCESS);
    EXPECT_EQ(mapped.information, info.size());
    return sentrel_sdk::RingReader::FromMapInfo(info.data(), mapped.information);
  }
  // A producer and the consumer, each registered on a synchronous handle.
  struct Pair {
    Client producer, agent;
    HANDLE in, control;
  };
  Pair RegisterProducerAndConsumer() {
    Pair pair{Start(u"producer.exe"), Start(u"agent.exe"), nullptr, nullptr};
    pair.in = pair.producer.Open(false);
    EXPECT_EQ(pair.producer.Register(pair.in, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
    pair.control = pair.agent.Open(false);
    EXPECT_EQ(pair.agent.Register(pair.control, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
    return pair;
  }

  World world;
  std::vector<UserProcess*> started;
};

TEST_F(DispatchTest, OneConsumerAtATimeAndItsRegistrationMovesWithItsHandle) {
  Client agent = Start(u"agent.exe");
  Client other = Start(u"other.exe");
  HANDLE first = agent.Open();
  Registration one = agent.Register(first, IOCTL_APP_REGISTER_CONSUMER);
  ASSERT_EQ(one.result.status, STATUS_SUCCESS);
  EXPECT_EQ(one.result.information, 24u);
  EXPECT_EQ(one.auth.Size, SK_AUTH_COMMUID_SIZE);
  EXPECT_EQ(one.auth.Tag, SK_AUTH_COMMUID_TAG);
  EXPECT_EQ(one.auth.Kind, SK_AUTH_COMMUID_KIND);

  HANDLE intruder = other.Open();
  Registration refused = other.Register(intruder, IOCTL_APP_REGISTER_CONSUMER);
  EXPECT_EQ(refused.result.status, STATUS_ACCESS_DENIED);
  EXPECT_EQ(refused.result.information, 0u);

  // Registering again on another handle renews the id and moves delivery to that handle.
  HANDLE second = agent.Open();
  Client::Read onFirst = agent.StartRead(first);
  Registration two = agent.Register(second, IOCTL_APP_REGISTER_CONSUMER);
  ASSERT_EQ(two.result.status, STATUS_SUCCESS);
  EXPECT_NE(std::memcmp(&one.auth.CommuId, &two.auth.CommuId, sizeof one.auth.CommuId), 0);
  Client::Read onSecond = agent.StartRead(second);
  EXPECT_EQ(onSecond.io->IssueStatus(), STATUS_PENDING);
  std::vector<uint8_t> packet = Control(SKT_CONSUMER, 0, 8, 0x11);
  IoResult sent = other.Write(intruder, packet);
  EXPECT_EQ(sent.status, STATUS_SUCCESS);
  EXPECT_EQ(sent.information, packet.size());
  ASSERT_TRUE(onSecond.Done());
  EXPECT_EQ(onSecond.Bytes(), packet);
  EXPECT_FALSE(onFirst.Done(50));
  EXPECT_EQ(agent.Process().CancelIoEx(first), STATUS_SUCCESS);
  ASSERT_TRUE(onFirst.Done());
  EXPECT_EQ(onFirst.io->Result().status, STATUS_CANCELLED);

  // A buffer too short for the answer registers nothing.
  Registration tooShort = other.Register(intruder, IOCTL_APP_REGISTER_CONSUMER, 20);
  EXPECT_EQ(tooShort.result.status, STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(tooShort.result.information, 24u);

  // Once the consumer has exited, another process may take its place.
  world.ExitProcess(agent.Process());
  EXPECT_EQ(other.Register(intruder, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
}

TEST_F(DispatchTest, ProducersRegisterOncePerHandleAndTheLatestHandleReceives) {
  Client producer = Start(u"producer.exe");
  Client sender = Start(u"sender.exe");
  HANDLE first = producer.Open();
  ASSERT_EQ(producer.Register(first, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  Registration again = producer.Register(first, IOCTL_APP_REGISTER_PRODUCER);
  EXPECT_EQ(again.result.status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(again.result.information, ~ULONG_PTR(0));

  HANDLE second = producer.Open();
  ASSERT_EQ(producer.Register(second, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  Client::Read onFirst = producer.StartRead(first);
  Client::Read onSecond = producer.StartRead(second);
  HANDLE out = sender.Open(false);
  std::vector<uint8_t> packet = Control(SKT_PRODUCER, producer.Pid(), 16, 0x22);
  EXPECT_EQ(sender.Write(out, packet).status, STATUS_SUCCESS);
  ASSERT_TRUE(onSecond.Done());
  EXPECT_EQ(onSecond.Bytes(), packet);
  EXPECT_FALSE(onFirst.Done(50));

  // Cleanup of a registered handle ends its waiting reads; an unregistered one keeps them.
  Client::Read unregistered = sender.StartRead(sender.Open());
  EXPECT_EQ(producer.Process().CloseHandle(first), STATUS_SUCCESS);
  ASSERT_TRUE(onFirst.Done());
  EXPECT_EQ(onFirst.io->Result().status, STATUS_CANCELLED);
  EXPECT_FALSE(unregistered.Done(50));

  // A packet for a process with no queue is refused.
  EXPECT_EQ(sender.Write(out, Control(SKT_PRODUCER, 99999)).status, STATUS_INVALID_PARAMETER);
}

TEST_F(DispatchTest, ReadsGetWholePacketsOrTheLengthTheyNeed) {
  Client producer = Start(u"producer.exe");
  Client sender = Start(u"sender.exe");
  HANDLE in = producer.Open(false);
  ASSERT_EQ(producer.Register(in, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  HANDLE out = sender.Open(false);
  std::vector<uint8_t> big = Control(SKT_PRODUCER, producer.Pid(), 100, 0x33);
  std::vector<uint8_t> small = Control(SKT_PRODUCER, producer.Pid(), 4, 0x44);
  ASSERT_EQ(sender.Write(out, big).status, STATUS_SUCCESS);
  ASSERT_EQ(sender.Write(out, small).status, STATUS_SUCCESS);

  std::vector<uint8_t> buffer(big.size());
  IoResult shortRead = producer.Process().ReadFile(in, buffer.data(), static_cast<ULONG>(big.size() - 1));
  EXPECT_EQ(shortRead.status, STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(shortRead.information, big.size());
  // The packet stayed first: a read of exactly its length gets it, then the next one.
  IoResult exact = producer.Process().ReadFile(in, buffer.data(), static_cast<ULONG>(big.size()));
  ASSERT_EQ(exact.status, STATUS_SUCCESS);
  EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.begin() + exact.information), big);
  IoResult next = producer.Process().ReadFile(in, buffer.data(), static_cast<ULONG>(buffer.size()));
  ASSERT_EQ(next.status, STATUS_SUCCESS);
  EXPECT_EQ(next.information, small.size());

  // A waiting read too short for the packet that comes is told the length; the packet waits.
  HANDLE waiting = producer.Open();
  ASSERT_EQ(producer.Register(waiting, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  Client::Read tiny = producer.StartRead(waiting, 48);
  ASSERT_EQ(sender.Write(out, big).status, STATUS_SUCCESS);
  ASSERT_TRUE(tiny.Done());
  EXPECT_EQ(tiny.io->Result().status, STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(tiny.io->Result().information, big.size());
  Client::Read enough = producer.StartRead(waiting, 4096);
  ASSERT_TRUE(enough.Done());
  EXPECT_EQ(enough.Bytes(), big);
}

TEST_F(DispatchTest, QueuesDropTheirOldestPacketsAtTheirLimits) {
  auto [producer, agent, in, control] = RegisterProducerAndConsumer();

  auto numbered = [](uint32_t dstType, uint32_t dstPid, uint32_t n) {
    std::vector<uint8_t> packet = Control(dstType, dstPid, 4);
    sk_StoreLe32(packet.data(), SK_PACKET_BODY_OFFSET, n);
    return packet;
  };
  auto drain = [](Client& client, HANDLE handle, std::vector<uint32_t>* numbers) {
    std::vector<uint8_t> buffer(64);
    for (;;) {
      Client::Read read = client.StartRead(handle, 64);
      if (!read.Done(0)) {
        EXPECT_EQ(client.Process().CancelIoEx(handle), STATUS_SUCCESS);
        read.Done();
        return;
      }
      ASSERT_EQ(read.io->Result().status, STATUS_SUCCESS);
      numbers->push_back(sk_LoadLe32(read.buffer->data(), SK_PACKET_BODY_OFFSET));
    }
  };

  // 2047 packets wait for the producer; one more drops the 8 oldest.
  for (uint32_t n = 1; n <= 2048; ++n) ASSERT_EQ(agent.Write(control, numbered(SKT_PRODUCER, producer.Pid(), n)).status, STATUS_SUCCESS);
  std::vector<uint32_t> seen;
  drain(producer, producer.Open(), &seen);  // reads on another handle of the same process
  ASSERT_EQ(seen.size(), 2040u);
  EXPECT_EQ(seen.front(), 9u);
  EXPECT_EQ(seen.back(), 2048u);
  // The consumer sees what was dropped, per queue and in all.
  std::optional<sentrel_sdk::LossReport> losses = agent.QueryLosses(control);
  ASSERT_TRUE(losses.has_value());
  ASSERT_EQ(losses->queues.size(), 1u);
  EXPECT_EQ(losses->queues[0].processId, producer.Pid());
  EXPECT_EQ(losses->queues[0].evicted, 8u);
  EXPECT_EQ(losses->processQueuesEvicted, 8u);
  EXPECT_EQ(losses->consumerQueueEvicted, 0u);

  // 16383 packets wait for the consumer; one more drops the 2048 oldest.
  for (uint32_t n = 1; n <= 16384; ++n) ASSERT_EQ(producer.Write(in, numbered(SKT_CONSUMER, 0, n)).status, STATUS_SUCCESS);
  seen.clear();
  drain(agent, agent.Open(), &seen);
  ASSERT_EQ(seen.size(), 14336u);
  EXPECT_EQ(seen.front(), 2049u);
  EXPECT_EQ(seen.back(), 16384u);
  // A queue's count outlives its process in the total.
  world.ExitProcess(producer.Process());
  losses = agent.QueryLosses(control);
  ASSERT_TRUE(losses.has_value());
  EXPECT_TRUE(losses->queues.empty());
  EXPECT_EQ(losses->processQueuesEvicted, 8u);
  EXPECT_EQ(losses->consumerQueueEvicted, 2048u);
  // Only the consumer asks.
  Client other = Start(u"other.exe");
  HANDLE h = other.Open(false);
  std::vector<uint8_t> answer(256);
  IoResult refused = other.Process().DeviceIoControl(h, IOCTL_SK_QUERY_LOSSES, nullptr, 0, answer.data(), 256);
  EXPECT_EQ(refused.status, STATUS_ACCESS_DENIED);
}

// Flooded, the ring buffers lose records, and with every slot held by the consumer they drop
// packets; the consumer can account for every packet written: read, or counted as lost.
TEST_F(DispatchTest, EveryEventPacketIsReadOrCountedAsLost) {
  Client agent = Start(u"agent.exe");
  Client producer = Start(u"producer.exe");
  HANDLE h = agent.Open(false);
  ASSERT_EQ(agent.Register(h, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  std::optional<sentrel_sdk::RingReader> reader = MapBuffers(agent, h);
  ASSERT_TRUE(reader.has_value());
  HANDLE p = producer.Open(false);

  constexpr uint64_t kFlood = 1000, kHeld = 10;
  uint64_t refused = 0;
  for (uint64_t i = 0; i < kFlood; ++i) {
    refused += producer.Write(p, Packet(SKPT_EVENT, SKT_CONSUMER, 0, 2048, uint8_t(i))).status != STATUS_SUCCESS;
  }
  EXPECT_EQ(refused, 0u) << "a writer always finds a slot to empty while the consumer holds none";
  for (size_t b = 0; b < reader->BufferCount(); ++b) {
    for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) ASSERT_TRUE(reader->TakeSlot(b, s));
  }
  for (uint64_t i = 0; i < kHeld; ++i) {
    EXPECT_NE(producer.Write(p, Packet(SKPT_EVENT, SKT_CONSUMER, 0, 2048)).status, STATUS_SUCCESS);
  }
  for (size_t b = 0; b < reader->BufferCount(); ++b) {
    for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) reader->ReleaseSlot(b, s, false);
  }

  uint64_t read = reader->DrainAll([](const sentrel_sdk::RingRecord&) {});
  std::optional<sentrel_sdk::LossReport> losses = agent.QueryLosses(h);
  ASSERT_TRUE(losses.has_value());
  ASSERT_EQ(losses->buffers.size(), reader->BufferCount());
  uint64_t overwritten = 0, dropped = 0;
  for (size_t b = 0; b < reader->BufferCount(); ++b) {
    overwritten += losses->buffers[b].overwrittenRecords;
    dropped += losses->buffers[b].droppedPackets;
    EXPECT_EQ(reader->Losses(b).overwrittenRecords, losses->buffers[b].overwrittenRecords) << b;
    EXPECT_EQ(reader->Losses(b).droppedPackets, losses->buffers[b].droppedPackets) << b;
  }
  EXPECT_GT(overwritten, 0u);
  EXPECT_EQ(dropped, kHeld);
  EXPECT_EQ(read + overwritten + dropped, kFlood + kHeld);
  EXPECT_EQ(reader->Counts().malformed, 0u);
}

// A control packet is no longer than the largest event packet, and a queue holds a bounded number
// of bytes: a packet past the budget is refused and the queued ones are all still read.
TEST_F(DispatchTest, ControlPacketsAndQueuesAreBoundedInBytes) {
  auto [producer, agent, in, control] = RegisterProducerAndConsumer();
  constexpr uint32_t kLargestBody = RB_MAX_PACKET_LENGTH - SK_PACKET_HEADER_SIZE;

  EXPECT_EQ(agent.Write(control, Control(SKT_PRODUCER, producer.Pid(), kLargestBody + 1)).status,
            STATUS_INVALID_BUFFER_SIZE);

  auto fill = [](Client& writer, HANDLE handle, uint32_t dstType, uint32_t dstPid, uint8_t count) {
    for (uint8_t n = 0; n < count; ++n) {
      EXPECT_EQ(writer.Write(handle, Control(dstType, dstPid, kLargestBody, n)).status, STATUS_SUCCESS) << int(n);
    }
    EXPECT_EQ(writer.Write(handle, Control(dstType, dstPid, kLargestBody, count)).status, STATUS_QUOTA_EXCEEDED);
  };
  auto readAll = [](Client& reader, HANDLE handle, uint32_t dstType, uint32_t dstPid, uint8_t count) {
    for (uint8_t n = 0; n < count; ++n) {
      Client::Read read = reader.StartRead(handle, RB_SLOT_SIZE);
      ASSERT_TRUE(read.Done());
      EXPECT_EQ(read.Bytes(), Control(dstType, dstPid, kLargestBody, n)) << int(n);
    }
  };
  // A producer's queue takes 1 MiB: sixteen of the largest packets; the consumer's 8 MiB.
  fill(agent, control, SKT_PRODUCER, producer.Pid(), 16);
  readAll(producer, producer.Open(), SKT_PRODUCER, producer.Pid(), 16);
  EXPECT_EQ(agent.Write(control, Control(SKT_PRODUCER, producer.Pid())).status, STATUS_SUCCESS) << "room again";
  fill(producer, in, SKT_CONSUMER, 0, 128);
  readAll(agent, agent.Open(), SKT_CONSUMER, 0, 128);
}

TEST_F(DispatchTest, BroadcastsReachEveryProducerButTheConsumer) {
  Client agent = Start(u"agent.exe");
  Client one = Start(u"one.exe");
  Client two = Start(u"two.exe");
  // The consumer had a queue of its own as a producer before it registered as consumer.
  HANDLE agentProducer = agent.Open();
  ASSERT_EQ(agent.Register(agentProducer, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  HANDLE agentConsumer = agent.Open();
  ASSERT_EQ(agent.Register(agentConsumer, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  HANDLE h1 = one.Open(), h2 = two.Open();
  ASSERT_EQ(one.Register(h1, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  ASSERT_EQ(two.Register(h2, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);

  Client::Read atTwo = two.StartRead(h2);
  Client::Read atAgent = agent.StartRead(agentConsumer);
  std::vector<uint8_t> broadcast = Control(SKT_PRODUCERS, 0, 12, 0x66);
  IoResult sent = one.Write(h1, broadcast);
  EXPECT_EQ(sent.status, STATUS_SUCCESS);
  EXPECT_EQ(sent.information, broadcast.size());
  ASSERT_TRUE(atTwo.Done());
  EXPECT_EQ(atTwo.Bytes(), broadcast);
  Client::Read atOne = one.StartRead(h1);  // the sender is a producer too
  ASSERT_TRUE(atOne.Done());
  EXPECT_EQ(atOne.Bytes(), broadcast);
  EXPECT_FALSE(atAgent.Done(50));

  // A producer may not address the consumer by its process id.
  EXPECT_EQ(one.Write(h1, Control(SKT_PRODUCER, agent.Pid())).status, STATUS_INVALID_PARAMETER);
  EXPECT_FALSE(atAgent.Done(50));
  // The consumer sends to a producer, which answers the consumer.
  Client::Read atOneAgain = one.StartRead(h1);
  std::vector<uint8_t> order = Control(SKT_PRODUCER, one.Pid(), 8, 0x77);
  ASSERT_EQ(agent.Write(agentConsumer, order).status, STATUS_SUCCESS);
  ASSERT_TRUE(atOneAgain.Done());
  EXPECT_EQ(atOneAgain.Bytes(), order);
  std::vector<uint8_t> answer = Control(SKT_CONSUMER, 0, 8, 0x78);
  ASSERT_EQ(one.Write(h1, answer).status, STATUS_SUCCESS);
  ASSERT_TRUE(atAgent.Done());
  EXPECT_EQ(atAgent.Bytes(), answer);
}

TEST_F(DispatchTest, BadPacketsAndRequestsAreRefused) {
  Client app = Start(u"app.exe");
  HANDLE h = app.Open(false);
  std::vector<uint8_t> shortPacket(47, 0);
  EXPECT_EQ(app.Process().WriteFile(h, shortPacket.data(), 47).status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(app.Write(h, Packet(0, SKT_CONSUMER, 0)).status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(app.Write(h, Packet(7, SKT_CONSUMER, 0)).status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(app.Write(h, Packet(SKPT_EVENT, SKT_PRODUCER, 0)).status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(app.Write(h, Control(9)).status, STATUS_INVALID_PARAMETER);
  std::vector<uint8_t> driverCode = Control(SKT_SENTREL, 0, 8);
  sk_StoreLe32(driverCode.data(), SK_PACKET_CONTROL_CODE_OFFSET, SKCC_RESERVED_2);
  EXPECT_EQ(app.Write(h, driverCode).status, STATUS_NOT_IMPLEMENTED);
  sk_StoreLe32(driverCode.data(), SK_PACKET_CONTROL_CODE_OFFSET, 4);
  EXPECT_EQ(app.Write(h, driverCode).status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(app.Write(h, Control(SKT_SENTREL, 0, 4)).status, STATUS_INVALID_PARAMETER);  // no room for a code

  // Kernel-only codes from user mode, consumer-only codes from anyone else, unknown codes.
  uint8_t in[16] = {};
  EXPECT_EQ(app.Process().DeviceIoControl(h, IOCTL_SK_REGISTER_PRODUCER, in, 16, nullptr, 0).status,
            STATUS_ACCESS_DENIED);
  IoResult mask = app.Process().DeviceIoControl(h, IOCTL_SK_EVENT_MASK, in, 8, nullptr, 0);
  EXPECT_EQ(mask.status, STATUS_ACCESS_DENIED);
  EXPECT_EQ(mask.information, ~ULONG_PTR(0));
  EXPECT_EQ(app.Process().DeviceIoControl(h, SK_CTL_CODE(0x123, SK_METHOD_BUFFERED), in, 8, nullptr, 0).status,
            STATUS_INVALID_PARAMETER);
  IoResult reserved = app.Process().DeviceIoControl(h, IOCTL_SK_RESERVED_4, nullptr, 0, nullptr, 0);
  EXPECT_EQ(reserved.status, STATUS_NOT_IMPLEMENTED);
  EXPECT_EQ(reserved.information, ~ULONG_PTR(0));
  IoResult map = app.Process().DeviceIoControl(h, IOCTL_SK_MAP_RINGBUF, nullptr, 0, in, 16);
  EXPECT_EQ(map.status, STATUS_ACCESS_DENIED);
  EXPECT_EQ(map.information, ~ULONG_PTR(0));

  // The consumer learns how large the mapping record is, sets the event mask and reads it back.
  ASSERT_EQ(app.Register(h, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  map = app.Process().DeviceIoControl(h, IOCTL_SK_MAP_RINGBUF, nullptr, 0, in, 16);
  EXPECT_EQ(map.status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(map.information, RING_BUF_MAP_INFO_SIZE(4));
  uint64_t value = 0x6;
  EXPECT_EQ(app.Process().DeviceIoControl(h, IOCTL_SK_EVENT_MASK, &value, 8, nullptr, 0).status, STATUS_SUCCESS);
  uint64_t query = SK_EVENT_MASK_QUERY, current = 0;
  IoResult read = app.Process().DeviceIoControl(h, IOCTL_SK_EVENT_MASK, &query, 8, &current, 8);
  EXPECT_EQ(read.status, STATUS_SUCCESS);
  EXPECT_EQ(read.information, 8u);
  EXPECT_EQ(current, 0x6u);
  IoResult badInput = app.Process().DeviceIoControl(h, IOCTL_SK_EVENT_MASK, &value, 4, nullptr, 0);
  EXPECT_EQ(badInput.status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(badInput.information, 8u);
}

TEST_F(DispatchTest, EventsFromAProducerReachTheConsumersRingBuffers) {
  Client agent = Start(u"agent.exe");
  Client producer = Start(u"producer.exe");
  HANDLE h = agent.Open(false);
  ASSERT_EQ(agent.Register(h, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  std::optional<sentrel_sdk::RingReader> reader = MapBuffers(agent, h);
  ASSERT_TRUE(reader.has_value());
  // Another process cannot take the mapping away from the consumer.
  HANDLE other = producer.Open(false);
  std::vector<uint8_t> stolen(RING_BUF_MAP_INFO_SIZE(4));
  IoResult refused = producer.Process().DeviceIoControl(other, IOCTL_SK_MAP_RINGBUF, nullptr, 0, stolen.data(),
                                                         static_cast<ULONG>(stolen.size()));
  EXPECT_EQ(refused.status, STATUS_ACCESS_DENIED);

  HANDLE p = producer.Open(false);
  ASSERT_EQ(producer.Register(p, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  std::vector<std::vector<uint8_t>> sent;
  for (uint8_t i = 0; i < 20; ++i) {
    sent.push_back(Packet(SKPT_EVENT, SKT_CONSUMER, 0, 32, i));
    IoResult written = producer.Write(p, sent.back());
    ASSERT_EQ(written.status, STATUS_SUCCESS);
    EXPECT_EQ(written.information, sent.back().size());
  }
  std::vector<std::vector<uint8_t>> received;
  reader->DrainAll([&](const sentrel_sdk::RingRecord& record) {
    received.emplace_back(record.data, record.data + record.length);
  });
  std::sort(received.begin(), received.end());
  std::sort(sent.begin(), sent.end());
  EXPECT_EQ(received, sent);
}

// A read that finds nothing and a send that finds no waiting read may cross; the packet must still
// reach the read rather than wait for the next one. Each side is caught in its window: the read
// just before it parks (the whole send happens then), the send just after it found no waiting read
// (the whole read happens then), and the read just after it parked (two sends happen then).
TEST_F(DispatchTest, AReadAndASendThatCrossStillMeet) {
  Client producer = Start(u"producer.exe");
  Client sender = Start(u"sender.exe");
  HANDLE in = producer.Open();
  ASSERT_EQ(producer.Register(in, IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  HANDLE out = sender.Open(false);

  std::vector<uint8_t> first = Control(SKT_PRODUCER, producer.Pid(), 4, 0x01);
  bool armed = true;
  world.kernel().io.SetCsqHook([&](CsqStep step) {
    if (step != CsqStep::Inserting || !armed) return;
    armed = false;
    std::thread([&] { EXPECT_EQ(sender.Write(out, first).status, STATUS_SUCCESS); }).join();
  });
  Client::Read read = producer.StartRead(in);
  world.kernel().io.SetCsqHook(nullptr);
  ASSERT_TRUE(read.Done()) << "the packet waits in the queue beside a parked read";
  EXPECT_EQ(read.Bytes(), first);

  std::vector<uint8_t> second = Control(SKT_PRODUCER, producer.Pid(), 4, 0x02);
  Client::Read late;
  armed = true;
  world.kernel().io.SetCsqHook([&](CsqStep step) {
    if (step != CsqStep::FoundNothing || !armed) return;
    armed = false;
    std::thread([&] { late = producer.StartRead(in); }).join();
  });
  EXPECT_EQ(sender.Write(out, second).status, STATUS_SUCCESS);
  world.kernel().io.SetCsqHook(nullptr);
  ASSERT_TRUE(late.io);
  ASSERT_TRUE(late.Done()) << "the packet waits in the queue beside a parked read";
  EXPECT_EQ(late.Bytes(), second);

  // Once parked, a read is the queue's: a sender on another thread may complete it, and the I/O
  // manager free it, while the read's own dispatch routine still runs. Caught just after the read
  // is parked, a sender delivers one packet into it and queues another; the reader's dispatch
  // routine must leave the freed request alone, and the other packet waits for the next read.
  std::vector<uint8_t> third = Control(SKT_PRODUCER, producer.Pid(), 4, 0x03);
  std::vector<uint8_t> fourth = Control(SKT_PRODUCER, producer.Pid(), 4, 0x04);
  armed = true;
  world.kernel().io.SetCsqHook([&](CsqStep step) {
    if (step != CsqStep::Inserted || !armed) return;
    armed = false;
    std::thread([&] {
      EXPECT_EQ(sender.Write(out, third).status, STATUS_SUCCESS);
      EXPECT_EQ(sender.Write(out, fourth).status, STATUS_SUCCESS);
    }).join();
  });
  Client::Read parked = producer.StartRead(in);
  world.kernel().io.SetCsqHook(nullptr);
  ASSERT_TRUE(parked.Done());
  EXPECT_EQ(parked.Bytes(), third);
  Client::Read next = producer.StartRead(in);
  ASSERT_TRUE(next.Done());
  EXPECT_EQ(next.Bytes(), fourth);
}

// A packet for the consumer whose sender is overtaken by the consumer's exit: a read on a handle
// the consumer shared with another process is parked meanwhile. No queue may be made for the
// consumer that is gone (nor for process id 0), and the packet waits for the next consumer.
TEST_F(DispatchTest, APacketForAConsumerThatExitsMeanwhileWaitsForTheNextOne) {
  UserProcess& agentProcess = world.StartProcess(u"agent.exe");
  Client agent(world, agentProcess);
  Client child = Start(u"child.exe");
  Client sender = Start(u"sender.exe");
  HANDLE registered = agent.Open();
  ASSERT_EQ(agent.Register(registered, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  HANDLE shared = nullptr;
  ASSERT_EQ(agentProcess.DuplicateHandle(registered, child.Process(), &shared), STATUS_SUCCESS);
  HANDLE out = sender.Open(false);

  std::vector<uint8_t> packet = Control(SKT_CONSUMER, 0, 4, 0x33);
  Client::Read parked;
  std::atomic<bool> armed{true};
  world.kernel().io.SetCsqHook([&](CsqStep step) {
    if (step != CsqStep::FoundNothing || !armed.exchange(false)) return;
    std::thread([&] {
      parked = child.StartRead(shared);
      world.ExitProcess(agentProcess);
    }).join();
  });
  EXPECT_EQ(sender.Write(out, packet).status, STATUS_SUCCESS);
  world.kernel().io.SetCsqHook(nullptr);
  ASSERT_TRUE(parked.io);
  EXPECT_FALSE(parked.Done(50)) << "a consumer's packet reached a read after the consumer had gone";

  world.ExitProcess(child.Process());
  ASSERT_TRUE(parked.Done());
  EXPECT_EQ(parked.io->Result().status, STATUS_CANCELLED);
  size_t queues = 0;
  for (const PoolBlock& block : world.kernel().pool.Outstanding()) queues += block.tag == SK_TAG_MSG_QUEUE_TABLE;
  EXPECT_EQ(queues, 0u) << "a queue outlived every process that used the device";

  Client next = Start(u"agent2.exe");
  HANDLE again = next.Open();
  ASSERT_EQ(next.Register(again, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  Client::Read read = next.StartRead(again);
  ASSERT_TRUE(read.Done());
  EXPECT_EQ(read.Bytes(), packet);
}

// Many producers send to each other and read, while some of them exit in the middle of reads:
// every request ends exactly once (the verifier stops the run at a second completion) and nothing
// is left behind.
TEST_F(DispatchTest, ProducersThatSendReadAndExitAtOnceEndEveryRequestOnce) {
  constexpr int kProducers = 4, kRounds = 150;
  std::vector<Client> clients;
  std::vector<HANDLE> handles;
  for (int i = 0; i < kProducers; ++i) {
    clients.push_back(Start(u"worker.exe"));
    handles.push_back(clients.back().Open());
    ASSERT_EQ(clients.back().Register(handles.back(), IOCTL_APP_REGISTER_PRODUCER).result.status, STATUS_SUCCESS);
  }
  std::atomic<int> completed{0}, issued{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kProducers; ++i) {
    threads.emplace_back([&, i] {
      Client& self = clients[i];
      for (int round = 0; round < kRounds; ++round) {
        Client::Read read = self.StartRead(handles[i]);
        ++issued;
        uint32_t target = clients[(i + 1 + round) % kProducers].Pid();
        self.Write(handles[i], round % 7 ? Control(SKT_PRODUCER, target) : Control(SKT_PRODUCERS));
        if (!read.Done(round % 3 ? 5 : 0)) self.Process().CancelIoEx(handles[i]);
        if (read.Done()) ++completed;
      }
    });
  }
  // Meanwhile processes come, wait on reads and go.
  for (int round = 0; round < 40; ++round) {
    UserProcess& passer = world.StartProcess(u"passer.exe");
    Client client(world, passer);
    HANDLE h = client.Open();
    client.Register(h, IOCTL_APP_REGISTER_PRODUCER);
    Client::Read read = client.StartRead(h);
    world.ExitProcess(passer);
    ASSERT_TRUE(read.Done());
    NTSTATUS status = read.io->Result().status;  // a broadcast may have reached it first
    EXPECT_TRUE(status == STATUS_CANCELLED || status == STATUS_SUCCESS) << std::hex << status;
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(completed.load(), issued.load());
}

}  // namespace
