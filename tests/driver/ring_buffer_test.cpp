// The per-processor ring buffers, observed the way the consumer observes them: through its own
// mapping of the buffers, with the consumer library's reader. Start and stop, the record framing,
// the limits of a slot, recycling, a reader that holds every slot, mapping into one process and
// then another, the owner's exit, the processor numbering on a machine with two processor groups,
// and many writers on every processor racing a draining reader.
//
// Here the consumer's mapping comes from calling the driver's mapping routine directly in the
// consumer process's context; the device request that does the same (IOCTL_SK_MAP_RINGBUF) is
// exercised with the rest of the dispatch.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "channel/ring_buffer.h"
#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "sentrel/packet_build.h"
#include "sentrel_sdk/ring_reader.h"
#include "../sim/host_thread.h"
#include "test_support.h"

using ntsim::UserProcess;
using ntsim::World;
using sentrel_sdk::RingReader;
using sentrel_sdk::RingRecord;
using sentrel_test::HasMessage;
using sentrel_test::Messages;

namespace {

constexpr uint32_t kPayloadOffset = 52;  // after the header, the body length and the event type
constexpr uint32_t kMinPacket = kPayloadOffset + 8;

// An event packet of `length` bytes that says who wrote it (writer, sequence number) and carries a
// pattern derived from both, so that a reader can tell a whole packet from a torn or shifted one.
std::vector<uint8_t> MakePacket(uint32_t length, uint32_t writer, uint32_t sequence) {
  std::vector<uint8_t> packet(length);
  sk_PacketInitEvent(packet.data(), 1000 + writer, length - SK_PACKET_HEADER_SIZE);
  sk_StoreLe32(packet.data(), SK_PACKET_BODY_LENGTH_OFFSET, length - SK_PACKET_HEADER_SIZE);
  sk_StoreLe32(packet.data(), SK_PACKET_EVENT_TYPE_OFFSET, 0);
  sk_StoreLe32(packet.data(), kPayloadOffset, writer);
  sk_StoreLe32(packet.data(), kPayloadOffset + 4, sequence);
  for (uint32_t i = kMinPacket; i < length; ++i) packet[i] = static_cast<uint8_t>(writer * 31 + sequence * 7 + i);
  return packet;
}

bool PacketIsWhole(const RingRecord& record, uint32_t* writer, uint32_t* sequence) {
  if (record.length < kMinPacket || sk_LoadLe32(record.data, 0) != record.length) return false;
  *writer = sk_LoadLe32(record.data, kPayloadOffset);
  *sequence = sk_LoadLe32(record.data, kPayloadOffset + 4);
  for (uint32_t i = kMinPacket; i < record.length; ++i) {
    if (record.data[i] != static_cast<uint8_t>(*writer * 31 + *sequence * 7 + i)) return false;
  }
  return true;
}

// Runs fn on the calling host thread's system thread, pinned to one processor.
template <typename Fn>
auto OnProcessor(World& world, ULONG index, Fn fn) {
  return world.AsSystem([&] {
    PROCESSOR_NUMBER number = {};
    KeGetProcessorNumberFromIndex(index, &number);
    GROUP_AFFINITY affinity = {}, previous;
    affinity.Group = number.Group;
    affinity.Mask = KAFFINITY(1) << number.Number;
    KeSetSystemGroupAffinityThread(&affinity, &previous);
    auto result = fn();
    KeRevertToUserGroupAffinityThread(&previous);
    return result;
  });
}

// A pointer as the kernel's "%p" prints it: 16 uppercase hexadecimal digits.
std::string Pointer(const void* p) {
  char text[24];
  std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
  return text;
}

bool HasLine(World& world, const std::string& text) {
  std::vector<std::string> lines = world.debug().Lines();
  return std::find(lines.begin(), lines.end(), text) != lines.end();
}

size_t CountLinesContaining(World& world, const std::string& text) {
  size_t n = 0;
  for (const std::string& line : world.debug().Lines()) n += line.find(text) != std::string::npos;
  return n;
}

class RingBufferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
    TraceLevel = SK_TRACE_RINGBUF;
    Boot(4, 1);
  }
  void TearDown() override {
    Stop();
    EXPECT_TRUE(world_->kernel().pool.Outstanding().empty());
    EXPECT_EQ(world_->kernel().mm.ViewCount(), 0u);
    EXPECT_EQ(world_->kernel().threads.Running(), 0u);
    EXPECT_TRUE(world_->verifier().Violations().empty());
    PrintLevel = TraceLevel = 0;
  }

  void Boot(int processors, int groups) {
    World::Options options;
    options.machine.processors = processors;
    options.machine.processorGroups = groups;
    world_.reset();
    world_ = std::make_unique<World>(options);
    std::memset(&rb, 0, sizeof rb);
  }
  World& world() { return *world_; }

  NTSTATUS Start() { return world().AsSystem([&] { return rb_InitRingBuf(&rb); }); }
  void Stop() {
    if (rb.Flags & RB_FLAG_INITED) {
      EXPECT_EQ(world().AsSystem([&] { return rb_UnInitRingBuf(&rb); }), STATUS_SUCCESS);
    }
  }
  NTSTATUS Write(ULONG processor, const std::vector<uint8_t>& packet) {
    return OnProcessor(world(), processor,
                       [&] { return rb_WriteRingBuf(&rb, packet.data(), static_cast<ULONG>(packet.size())); });
  }
  // What IOCTL_SK_MAP_RINGBUF does for the consumer; here the mapping routine is called directly.
  NTSTATUS Map(UserProcess& consumer, std::vector<uint8_t>* info, ULONG size = 0) {
    info->assign(size ? size : RING_BUF_MAP_INFO_SIZE(rb.BufferCount), 0xEE);
    ULONG length = static_cast<ULONG>(info->size());
    NTSTATUS status = consumer.InProcess(
        [&] { return rb_GetRingBufInternal(&rb, PsGetCurrentProcess(), info->data(), &length); });
    info->resize(length);
    return status;
  }
  RingReader MapReader(UserProcess& consumer) {
    std::vector<uint8_t> info;
    EXPECT_EQ(Map(consumer, &info), STATUS_SUCCESS);
    std::optional<RingReader> reader = RingReader::FromMapInfo(info.data(), info.size());
    EXPECT_TRUE(reader.has_value());
    return *reader;
  }
  static std::vector<std::vector<uint8_t>> Records(RingReader& reader, size_t buffer, uint32_t slot) {
    std::vector<std::vector<uint8_t>> out;
    EXPECT_TRUE(reader.TakeSlot(buffer, slot));
    reader.ReadSlot(buffer, slot, [&](const RingRecord& r) { out.emplace_back(r.data, r.data + r.length); });
    reader.ReleaseSlot(buffer, slot, false);
    return out;
  }
  static std::vector<RB_SLOT_HEADER> Headers(RingReader& reader, size_t buffer) {
    std::vector<RB_SLOT_HEADER> headers(RB_SLOT_COUNT);
    for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) {
      std::memcpy(&headers[s], reader.Buffer(buffer) + RB_SLOT_OFFSET(s), sizeof(RB_SLOT_HEADER));
    }
    return headers;
  }

  std::unique_ptr<World> world_;
  SK_RING_BUF rb;
};

TEST_F(RingBufferTest, StartPutsOneBufferOnEachProcessorAndStopGivesEverythingBack) {
  Boot(5, 2);
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  EXPECT_EQ(rb.Tag, 0x00BB);
  EXPECT_EQ(rb.Size, sizeof(SK_RING_BUF));
  EXPECT_EQ(rb.SlotSize, 65536u);
  EXPECT_EQ(rb.BufferCount, 5u);
  EXPECT_EQ(rb.Flags, RB_FLAG_INITED);
  EXPECT_EQ(world().kernel().threads.Running(), 0u);  // the allocation thread has ended

  // Each buffer was allocated by a thread running on its own processor.
  for (ULONG i = 0; i < 5; ++i) {
    ntsim::PoolBlock block;
    const void* start = nullptr;
    ASSERT_TRUE(world().kernel().pool.Find(rb.KrnlRingBufSlot[i], RB_BUFFER_SIZE, &block, &start)) << i;
    EXPECT_EQ(start, rb.KrnlRingBufSlot[i]);
    EXPECT_EQ(block.tag, static_cast<ULONG>('rbTg'));
    EXPECT_EQ(block.processor, i);
    std::string line = "[Core:" + std::to_string(i) + "] KernelRingBuf:0x" + Pointer(rb.KrnlRingBufSlot[i]);
    EXPECT_TRUE(HasMessage(world(), line)) << line;
  }

  // The consumer sees every slot empty and free, and nothing else but zeroes.
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  ASSERT_EQ(reader.BufferCount(), 5u);
  for (size_t b = 0; b < 5; ++b) {
    EXPECT_NE(reader.Buffer(b), rb.KrnlRingBufSlot[b]);
    for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) {
      const uint8_t* slot = reader.Buffer(b) + RB_SLOT_OFFSET(s);
      EXPECT_EQ(reader.SlotState(b, s), RB_SLOT_FREE);
      EXPECT_EQ(reader.SlotWriteOffset(b, s), 32u);
      EXPECT_EQ(std::count(slot + 4, slot + 8, 0) + std::count(slot + 12, slot + RB_SLOT_SIZE, 0),
                static_cast<long>(RB_SLOT_SIZE - 8));
    }
  }

  // A second start changes nothing; stop twice is harmless.
  size_t blocks = world().kernel().pool.Outstanding().size();
  EXPECT_EQ(Start(), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world(), "Ring Buffer Inited"));
  EXPECT_EQ(world().kernel().pool.Outstanding().size(), blocks);
  Stop();
  EXPECT_TRUE(world().kernel().pool.Outstanding().empty());
  EXPECT_TRUE(world().kernel().mm.ViewsOf(consumer.Process()).empty());  // stop took the views back
  const auto* bytes = reinterpret_cast<const unsigned char*>(&rb);
  EXPECT_EQ(std::count(bytes, bytes + sizeof rb, 0), static_cast<long>(sizeof rb));
  EXPECT_EQ(world().AsSystem([&] { return rb_UnInitRingBuf(&rb); }), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world(), "Ring Buffer No Inited"));
}

TEST_F(RingBufferTest, EveryFailureOfTheStartIsUndoneCompletely) {
  size_t failures = 0;
  for (uint64_t n = 1;; ++n) {
    ASSERT_LT(n, 100u);
    world().verifier().FailNth(n);
    NTSTATUS status = Start();
    bool injected = world().verifier().InjectedFailure();
    world().verifier().FailNth(0);
    if (!injected) {
      EXPECT_EQ(status, STATUS_SUCCESS);
      break;
    }
    ++failures;
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << n;
    EXPECT_TRUE(world().kernel().pool.Outstanding().empty()) << n;
    EXPECT_EQ(world().kernel().threads.Running(), 0u) << n;
    EXPECT_EQ(rb.Flags, 0) << n;
    EXPECT_EQ(rb.KrnlRingBufSlot, nullptr) << n;
  }
  // Four arrays, four MDL blocks, the thread, four buffers.
  EXPECT_EQ(failures, 13u);
  for (const char* line :
       {"KrnlRingBufSlot allocate fail", "UserRingBufSlot allocate fail", "RingBufIndex allocate fail",
        "RingBufMdlSlot allocate fail", "[0] mdl allocate fail", "[3] mdl allocate fail",
        "PsCreateSystemThread fail Status:c000009a", "[Core:0] Buf alloc fail", "[Core:3] Buf alloc fail",
        "rb_AllocBufThreadStart fail Status:c000009a"}) {
    EXPECT_TRUE(HasMessage(world(), line)) << line;
  }
}

TEST_F(RingBufferTest, RecordsAreLengthPrefixedAndEndedAndLandInTheWritersBuffer) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  std::vector<uint8_t> a = MakePacket(60, 1, 1), b = MakePacket(301, 1, 2), c = MakePacket(48 + 1000, 1, 3);
  ASSERT_EQ(Write(2, a), STATUS_SUCCESS);
  ASSERT_EQ(Write(2, b), STATUS_SUCCESS);
  ASSERT_EQ(Write(2, c), STATUS_SUCCESS);

  const uint8_t* slot = reader.Buffer(2);
  uint32_t end = 32 + 4 + 60 + 4 + 301 + 4 + 1048;
  EXPECT_EQ(reader.SlotState(2, 0), RB_SLOT_FREE);
  EXPECT_EQ(reader.SlotWriteOffset(2, 0), end);
  EXPECT_EQ(sk_LoadLe32(slot, 32), 60u);
  EXPECT_EQ(std::memcmp(slot + 36, a.data(), a.size()), 0);
  EXPECT_EQ(sk_LoadLe32(slot, 96), 301u);
  EXPECT_EQ(sk_LoadLe32(slot, end), 0u);  // the end marker
  std::vector<std::vector<uint8_t>> expected = {a, b, c};
  EXPECT_EQ(Records(reader, 2, 0), expected);
  for (size_t other : {0, 1, 3}) EXPECT_EQ(reader.DrainBuffer(other, [](const RingRecord&) {}), 0u);

  // The reader's drain consumes them: the slot is empty again and writers start over at 32.
  size_t seen = reader.DrainAll([](const RingRecord&) {});
  EXPECT_EQ(seen, 3u);
  EXPECT_EQ(reader.SlotWriteOffset(2, 0), 32u);
  EXPECT_EQ(reader.Counts().records, 6u);  // three read above, three drained
  EXPECT_EQ(reader.Counts().malformed, 0u);
}

TEST_F(RingBufferTest, OnTwoProcessorGroupsEachWriterUsesTheBufferOfItsSystemWideIndex) {
  Boot(5, 2);  // group 0: indexes 0-2; group 1: indexes 3 and 4, numbers 0 and 1
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  for (ULONG p = 0; p < 5; ++p) ASSERT_EQ(Write(p, MakePacket(64, p, 0)), STATUS_SUCCESS);
  for (size_t b = 0; b < 5; ++b) {
    std::vector<std::vector<uint8_t>> records = Records(reader, b, 0);
    ASSERT_EQ(records.size(), 1u) << b;
    EXPECT_EQ(records[0], MakePacket(64, static_cast<uint32_t>(b), 0)) << b;
  }
}

TEST_F(RingBufferTest, TheLargestPacketFillsAnEmptySlotAndOneByteMoreIsRefusedUntouched) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  std::vector<uint8_t> largest = MakePacket(65499, 7, 1);
  ASSERT_EQ(Write(1, largest), STATUS_SUCCESS);
  EXPECT_EQ(reader.SlotWriteOffset(1, 0), 65535u);  // 32 + 4 + 65499, and no room for a marker

  std::vector<RB_SLOT_HEADER> before = Headers(reader, 1);
  std::vector<uint8_t> image(reader.Buffer(1), reader.Buffer(1) + RB_BUFFER_SIZE);
  EXPECT_EQ(Write(1, MakePacket(65500, 7, 2)), STATUS_BUFFER_OVERFLOW);
  EXPECT_TRUE(std::equal(image.begin(), image.end(), reader.Buffer(1)));

  std::vector<std::vector<uint8_t>> records = Records(reader, 1, 0);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0], largest);
  // The next packet goes to the next slot.
  ASSERT_EQ(Write(1, MakePacket(100, 7, 3)), STATUS_SUCCESS);
  EXPECT_EQ(reader.SlotWriteOffset(1, 1), 32u + 4 + 100);
  EXPECT_EQ(before[1].WriteOffset, 32u);
}

TEST_F(RingBufferTest, TheEndMarkerFollowsOnlyARecordThatEndsMoreThanFourBytesBeforeTheSlotEnd) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  uint8_t* slot = reader.Buffer(0);
  auto scribbleTail = [&] {  // the consumer's own bytes at the end of the empty slot 0
    ASSERT_TRUE(reader.TakeSlot(0, 0));
    std::memset(slot + 65520, 0xAB, 16);
    reader.ReleaseSlot(0, 0, false);
  };

  scribbleTail();
  ASSERT_EQ(Write(0, MakePacket(65495, 1, 1)), STATUS_SUCCESS);  // ends at 65531: 65531 + 4 < 65536
  EXPECT_EQ(reader.SlotWriteOffset(0, 0), 65531u);
  EXPECT_EQ(sk_LoadLe32(slot, 65531), 0u);
  EXPECT_EQ(slot[65535], 0xAB);
  EXPECT_EQ(reader.DrainAll([](const RingRecord&) {}), 1u);

  scribbleTail();
  ASSERT_EQ(Write(0, MakePacket(65496, 1, 2)), STATUS_SUCCESS);  // ends at 65532: no marker
  EXPECT_EQ(reader.SlotWriteOffset(0, 0), 65532u);
  EXPECT_EQ(sk_LoadLe32(slot, 65532), 0xABABABABu);
  std::vector<std::vector<uint8_t>> records = Records(reader, 0, 0);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0], MakePacket(65496, 1, 2));
}

TEST_F(RingBufferTest, AnOffsetOutsideTheSlotCountsAsAnEmptySlot) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  auto* header = reinterpret_cast<RB_SLOT_HEADER*>(reader.Buffer(0));
  for (uint32_t broken : {65536u, 0xFFFFFFF0u, 8u}) {  // past the end, far past it, inside the header
    ASSERT_TRUE(reader.TakeSlot(0, 0));
    header->WriteOffset = broken;
    reader.ReleaseSlot(0, 0, false);
    std::vector<uint8_t> packet = MakePacket(90, 0, broken);
    ASSERT_EQ(Write(0, packet), STATUS_SUCCESS) << broken;
    EXPECT_EQ(header->State, RB_SLOT_FREE) << broken;
    EXPECT_EQ(Records(reader, 0, 0), std::vector<std::vector<uint8_t>>{packet}) << broken;
  }
}

TEST_F(RingBufferTest, WithEverySlotFullTheSlotTwoBeforeTheStartIsRecycled) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) ASSERT_EQ(Write(3, MakePacket(65499, 3, s)), STATUS_SUCCESS);
  // The consumer keeps a word of its own in two of the full slots.
  for (uint32_t s : {4u, 5u}) {
    ASSERT_TRUE(reader.TakeSlot(3, s));
    reinterpret_cast<RB_SLOT_HEADER*>(reader.Buffer(3) + RB_SLOT_OFFSET(s))->ConsumerWord = 77;
    reader.ReleaseSlot(3, s, false);
  }

  // The last write went to slot 7, where the next one starts: slot 5 is emptied for it.
  std::vector<uint8_t> small = MakePacket(80, 3, 100);
  ASSERT_EQ(Write(3, small), STATUS_SUCCESS);
  EXPECT_TRUE(HasLine(world(), "[WB][C:3] Loop Buf 5"));
  std::vector<RB_SLOT_HEADER> headers = Headers(reader, 3);
  EXPECT_EQ(headers[5].ConsumerWord, 0u);
  EXPECT_EQ(headers[4].ConsumerWord, 77u);
  EXPECT_EQ(Records(reader, 3, 5), std::vector<std::vector<uint8_t>>{small});
  for (uint32_t s : {0u, 1u, 2u, 3u, 4u, 6u, 7u}) {
    EXPECT_EQ(Records(reader, 3, s), std::vector<std::vector<uint8_t>>{MakePacket(65499, 3, s)}) << s;
  }

  // Now the writes start at slot 5, and a packet that fits nowhere empties slot 3.
  std::vector<uint8_t> big = MakePacket(65499, 3, 101);
  ASSERT_EQ(Write(3, big), STATUS_SUCCESS);
  EXPECT_TRUE(HasLine(world(), "[WB][C:3] Loop Buf 3"));
  EXPECT_EQ(Records(reader, 3, 3), std::vector<std::vector<uint8_t>>{big});
  EXPECT_EQ(CountLinesContaining(world(), "Loop Buf"), 2u);
}

TEST_F(RingBufferTest, WithEverySlotHeldByTheReaderTheWriteFailsAndTheNextScanStartsAtSlotZero) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  // Slots 0 and 1 full, one record in slot 2: writes start at slot 2.
  ASSERT_EQ(Write(1, MakePacket(65499, 1, 0)), STATUS_SUCCESS);
  ASSERT_EQ(Write(1, MakePacket(65499, 1, 1)), STATUS_SUCCESS);
  ASSERT_EQ(Write(1, MakePacket(70, 1, 2)), STATUS_SUCCESS);
  EXPECT_EQ(reader.SlotWriteOffset(1, 2), 32u + 4 + 70);

  for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) ASSERT_TRUE(reader.TakeSlot(1, s));
  EXPECT_EQ(Write(1, MakePacket(70, 1, 3)), STATUS_BUFFER_OVERFLOW);
  EXPECT_TRUE(HasLine(world(), "[rb_WriteRingBuf] Buf not Available"));
  for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) EXPECT_EQ(reader.SlotState(1, s), RB_SLOT_READING);

  // The reader consumes everything and gives the slots back: the next write lands in slot 0.
  for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) reader.ReleaseSlot(1, s, true);
  std::vector<uint8_t> next = MakePacket(70, 1, 4);
  ASSERT_EQ(Write(1, next), STATUS_SUCCESS);
  EXPECT_EQ(Records(reader, 1, 0), std::vector<std::vector<uint8_t>>{next});
  EXPECT_EQ(reader.SlotWriteOffset(1, 2), 32u);
}

TEST_F(RingBufferTest, WritesBeforeStartAndAfterStopAreRefused) {
  std::vector<uint8_t> packet = MakePacket(64, 0, 0);
  EXPECT_EQ(Write(0, packet), STATUS_BUFFER_OVERFLOW);
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  EXPECT_EQ(Write(0, packet), STATUS_SUCCESS);
  Stop();
  EXPECT_EQ(Write(0, packet), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(rb.WriterCount, 0);
}

TEST_F(RingBufferTest, TheMappingAnswersItsOwnerAgainAndMovesToAnotherProcess) {
  UserProcess& first = world().StartProcess(u"agent.exe");
  std::vector<uint8_t> info;
  EXPECT_EQ(Map(first, &info, 64), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(HasMessage(world(), "Ring Buffer No Inited"));
  ASSERT_EQ(Start(), STATUS_SUCCESS);

  // One byte short of 16 + 8 per buffer: the needed length comes back.
  ULONG needed = RING_BUF_MAP_INFO_SIZE(4);
  EXPECT_EQ(Map(first, &info, needed - 1), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(info.size(), needed);
  EXPECT_TRUE(HasMessage(world(), "Buffer too small NeedLength:0x30"));
  EXPECT_TRUE(world().kernel().mm.ViewsOf(first.Process()).empty());

  ASSERT_EQ(Map(first, &info, needed + 8), STATUS_SUCCESS);
  ASSERT_EQ(info.size(), needed);
  EXPECT_EQ(sk_LoadLe32(info.data(), 0), 4u);
  EXPECT_EQ(sk_LoadLe32(info.data(), 4), 0u);
  EXPECT_EQ(sk_LoadLe64(info.data(), 8 + 8 * 4), 0u);
  std::vector<uint8_t> firstInfo = info;
  for (ULONG i = 0; i < 4; ++i) {
    std::string line = "[" + std::to_string(i) + "] KBuf:0x" + Pointer(rb.KrnlRingBufSlot[i]) + " UBuf:0x" +
                       Pointer(reinterpret_cast<void*>(sk_LoadLe64(info.data(), RING_BUF_MAP_INFO_ADDRESS_OFFSET(i))));
    EXPECT_TRUE(HasLine(world(), line)) << line;  // printed whatever the levels
  }
  EXPECT_EQ(world().kernel().mm.ViewsOf(first.Process()).size(), 4u);
  EXPECT_EQ(rb.OwnerProcessId, reinterpret_cast<HANDLE>(first.Id()));

  // The owner asks again while it holds a slot: it gets the same addresses and the slot back empty.
  RingReader reader = *RingReader::FromMapInfo(firstInfo.data(), firstInfo.size());
  ASSERT_EQ(Write(0, MakePacket(64, 0, 1)), STATUS_SUCCESS);
  ASSERT_TRUE(reader.TakeSlot(0, 0));
  reinterpret_cast<RB_SLOT_HEADER*>(reader.Buffer(0))->ConsumerWord = 5;
  ASSERT_EQ(Map(first, &info), STATUS_SUCCESS);
  EXPECT_EQ(info, firstInfo);
  EXPECT_EQ(reader.SlotState(0, 0), RB_SLOT_FREE);
  EXPECT_EQ(reader.SlotWriteOffset(0, 0), 32u);
  EXPECT_EQ(reinterpret_cast<RB_SLOT_HEADER*>(reader.Buffer(0))->ConsumerWord, 0u);
  EXPECT_EQ(world().kernel().mm.ViewsOf(first.Process()).size(), 4u);
  EXPECT_TRUE(HasMessage(world(), "[P:0x" + Pointer(first.Process()) + "] UserBuf Mapped"));

  // Another process asks: the views leave the first one (with the slot it held) and come to it.
  ASSERT_EQ(Write(2, MakePacket(64, 2, 1)), STATUS_SUCCESS);
  ASSERT_TRUE(reader.TakeSlot(2, 0));
  UserProcess& second = world().StartProcess(u"agent.exe");
  RingReader moved = MapReader(second);
  EXPECT_TRUE(world().kernel().mm.ViewsOf(first.Process()).empty());
  EXPECT_EQ(world().kernel().mm.ViewsOf(second.Process()).size(), 4u);
  EXPECT_EQ(rb.OwnerProcessId, reinterpret_cast<HANDLE>(second.Id()));
  EXPECT_EQ(moved.SlotState(2, 0), RB_SLOT_FREE);
  ASSERT_EQ(Write(3, MakePacket(64, 3, 1)), STATUS_SUCCESS);
  EXPECT_EQ(Records(moved, 3, 0), std::vector<std::vector<uint8_t>>{MakePacket(64, 3, 1)});

  // Released by its owner in its context; a second release finds nothing mapped.
  EXPECT_EQ(second.InProcess([&] { return rb_ReleaseRingBufInternal(&rb, PsGetCurrentProcess(), TRUE); }),
            STATUS_SUCCESS);
  EXPECT_EQ(world().kernel().mm.ViewCount(), 0u);
  EXPECT_EQ(second.InProcess([&] { return rb_ReleaseRingBufInternal(&rb, PsGetCurrentProcess(), TRUE); }),
            STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(HasMessage(world(), "Ring Buffer No Mapped"));
}

TEST_F(RingBufferTest, TheOwnersExitUnmapsTheViewsAndLeavesTheRecordsForTheNextMapping) {
  // The driver's own record and exit hook; the hook is registered with the kernel directly, in
  // place of the notification multiplexer that delivers it in the loaded driver.
  PSK_RING_BUF ring = &SentrelData.RingBuf;
  std::memset(ring, 0, sizeof *ring);
  ASSERT_EQ(world().AsSystem([&] { return rb_InitRingBuf(ring); }), STATUS_SUCCESS);
  ASSERT_EQ(world().AsSystem([] { return PsSetCreateProcessNotifyRoutine(sk_RingBufOwnerProcessNotify, FALSE); }),
            STATUS_SUCCESS);
  UserProcess& owner = world().StartProcess(u"agent.exe");
  std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(4));
  ULONG length = static_cast<ULONG>(info.size());
  ASSERT_EQ(owner.InProcess([&] { return rb_GetRingBufInternal(ring, PsGetCurrentProcess(), info.data(), &length); }),
            STATUS_SUCCESS);
  std::vector<std::vector<uint8_t>> written;
  for (uint32_t i = 0; i < 3; ++i) {
    written.push_back(MakePacket(100 + i, 1, i));
    ASSERT_EQ(OnProcessor(world(), 1, [&] { return rb_WriteRingBuf(ring, written.back().data(), 100 + i); }),
              STATUS_SUCCESS);
  }
  UserProcess& bystander = world().StartProcess(u"notepad.exe");
  world().ExitProcess(bystander);  // not the owner: nothing happens
  EXPECT_EQ(world().kernel().mm.ViewsOf(owner.Process()).size(), 4u);

  world().ExitProcess(owner);  // the verifier stops the run if a view outlives the process
  EXPECT_TRUE(world().verifier().Violations().empty());
  EXPECT_EQ(ring->OwnerProcessId, nullptr);
  EXPECT_EQ(ring->Flags, RB_FLAG_INITED);

  UserProcess& next = world().StartProcess(u"agent.exe");
  length = static_cast<ULONG>(info.size());
  ASSERT_EQ(next.InProcess([&] { return rb_GetRingBufInternal(ring, PsGetCurrentProcess(), info.data(), &length); }),
            STATUS_SUCCESS);
  RingReader reader = *RingReader::FromMapInfo(info.data(), info.size());
  std::vector<std::vector<uint8_t>> read;
  reader.DrainAll([&](const RingRecord& r) { read.emplace_back(r.data, r.data + r.length); });
  EXPECT_EQ(read, written);

  world().ExitProcess(next);
  EXPECT_EQ(world().kernel().mm.ViewCount(), 0u);
  EXPECT_EQ(world().AsSystem([] { return PsSetCreateProcessNotifyRoutine(sk_RingBufOwnerProcessNotify, TRUE); }),
            STATUS_SUCCESS);
  EXPECT_EQ(world().AsSystem([&] { return rb_UnInitRingBuf(ring); }), STATUS_SUCCESS);
}

TEST_F(RingBufferTest, TheWritePathAllocatesNothing) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");
  RingReader reader = MapReader(consumer);
  uint64_t before = world().kernel().pool.AllocationCount();
  // Enough to fill, recycle and refuse: every path of a write.
  for (uint32_t i = 0; i < 40; ++i) Write(0, MakePacket(30000, 0, i));
  ASSERT_TRUE(reader.TakeSlot(0, 0));
  Write(0, MakePacket(65500, 0, 99));
  reader.ReleaseSlot(0, 0);
  EXPECT_GT(CountLinesContaining(world(), "Loop Buf"), 0u);
  EXPECT_EQ(world().kernel().pool.AllocationCount(), before);
}

// ---------------------------------------------------------------------------------------------
// Writers on every processor against a reader that drains at the same time.

struct StressResult {
  uint64_t written = 0;
  uint64_t failed = 0;
  uint64_t read = 0;
  uint64_t torn = 0;
  uint64_t duplicates = 0;
  uint64_t recycles = 0;
};

// writersPerProcessor threads pinned to each processor write `count` packets each, of 60 to
// maxLength bytes; a reader in the consumer drains all buffers until they are done, pausing
// readerPause between passes, then drains once more.
StressResult RunStress(World& world, PSK_RING_BUF rb, RingReader reader, uint32_t writersPerProcessor,
                       uint32_t count, uint32_t maxLength, std::chrono::microseconds readerPause) {
  const uint32_t processors = rb->BufferCount;
  const uint32_t writers = processors * writersPerProcessor;
  StressResult result;
  std::vector<std::vector<uint8_t>> seen(writers, std::vector<uint8_t>(count, 0));
  std::atomic<uint32_t> running{writers};
  std::atomic<uint64_t> written{0}, failed{0};
  auto consume = [&](const RingRecord& record) {
    uint32_t writer = 0, sequence = 0;
    if (!PacketIsWhole(record, &writer, &sequence) || writer >= writers || sequence >= count) {
      ++result.torn;
      return;
    }
    if (seen[writer][sequence]++) ++result.duplicates;
    ++result.read;
  };
  {
    std::vector<std::unique_ptr<sim_test::HostThread>> threads;
    for (uint32_t w = 0; w < writers; ++w) {
      threads.push_back(std::make_unique<sim_test::HostThread>([&, w] {
        OnProcessor(world, w % processors, [&] {
          for (uint32_t i = 0; i < count; ++i) {
            uint32_t length = 60 + (w * 7919 + i * 104729) % (maxLength - 59);
            std::vector<uint8_t> packet = MakePacket(length, w, i);
            if (NT_SUCCESS(rb_WriteRingBuf(rb, packet.data(), length))) ++written;
            else ++failed;
          }
          return 0;
        });
        --running;
      }));
    }
    while (running.load() > 0) {
      reader.DrainAll(consume);
      std::this_thread::sleep_for(readerPause);
    }
  }
  reader.DrainAll(consume);
  result.written = written;
  result.failed = failed;
  result.recycles = CountLinesContaining(world, "Loop Buf");
  return result;
}

TEST_F(RingBufferTest, WritersOnEveryProcessorAndADrainingReaderLoseNothingTheProtocolKeeps) {
  ASSERT_EQ(Start(), STATUS_SUCCESS);
  UserProcess& consumer = world().StartProcess(u"agent.exe");

  // Two writers per processor, within what a buffer holds even if nothing were read (8 slots of
  // 65504 bytes, less at most one unused tail per slot): no record may be recycled, so every
  // written record must be read, exactly once and whole.
  const uint32_t count = 900, maxLength = 256;
  ASSERT_LT(2u * count * (maxLength + 4), 8u * (65504u - (maxLength + 4)));
  StressResult calm = RunStress(world(), &rb, MapReader(consumer), 2, count, maxLength, std::chrono::microseconds(0));
  EXPECT_EQ(calm.failed, 0u);
  EXPECT_EQ(calm.written, 2u * 4 * count);
  EXPECT_EQ(calm.recycles, 0u);
  EXPECT_EQ(calm.read, calm.written);
  EXPECT_EQ(calm.torn, 0u);
  EXPECT_EQ(calm.duplicates, 0u);

  // Far more than the buffers hold, against a reader that pauses: slots are recycled, and each
  // recycle may lose at most the records one slot can hold; everything read is still whole.
  world().debug().Clear();
  const uint32_t flood = 8000;
  StressResult busy = RunStress(world(), &rb, MapReader(consumer), 1, flood, maxLength, std::chrono::milliseconds(5));
  EXPECT_EQ(busy.failed, 0u);
  EXPECT_EQ(busy.torn, 0u);
  EXPECT_EQ(busy.duplicates, 0u);
  ASSERT_LE(busy.read, busy.written);
  uint64_t lost = busy.written - busy.read;
  EXPECT_LE(lost, busy.recycles * (65504 / (60 + 4))) << busy.recycles << " recycles";
  if (lost > 0) {
    EXPECT_GT(busy.recycles, 0u);
  }
}

}  // namespace
