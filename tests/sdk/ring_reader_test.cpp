// The consumer's ring-buffer reader over buffers laid out by hand: what it hands over, what it
// refuses, how it takes and gives back slots, and the mapping answer it starts from. The layout
// itself is compared between C and C++.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sentrel/packet_build.h"
#include "sentrel/ring_buffer.h"
#include "sentrel_sdk/ring_reader.h"

extern "C" void ring_c_Layout(SK_UINT32 Out[14]);

using sentrel_sdk::RingReader;
using sentrel_sdk::RingRecord;

namespace {

// One buffer as a fresh one looks: every slot free and empty.
struct Buffer {
  Buffer() : bytes(RB_BUFFER_SIZE, 0) {
    for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) {
      Header(s)->State = RB_SLOT_FREE;
      Header(s)->WriteOffset = RB_SLOT_HEADER_SIZE;
    }
  }
  RB_SLOT_HEADER* Header(uint32_t slot) { return reinterpret_cast<RB_SLOT_HEADER*>(&bytes[RB_SLOT_OFFSET(slot)]); }
  // Appends a record as the driver writes it, with the end marker when it fits.
  void Append(uint32_t slot, const std::string& text) {
    uint32_t offset = Header(slot)->WriteOffset;
    uint8_t* base = &bytes[RB_SLOT_OFFSET(slot)];
    sk_StoreLe32(base, offset, static_cast<uint32_t>(text.size()));
    std::memcpy(base + offset + 4, text.data(), text.size());
    offset += 4 + static_cast<uint32_t>(text.size());
    Header(slot)->WriteOffset = offset;
    if (offset + 4 < RB_SLOT_SIZE) sk_StoreLe32(base, offset, 0);
  }
  std::vector<uint8_t> bytes;
};

std::vector<std::string> Drain(RingReader& reader, std::vector<uint32_t>* slots = nullptr) {
  std::vector<std::string> out;
  reader.DrainAll([&](const RingRecord& r) {
    out.emplace_back(reinterpret_cast<const char*>(r.data), r.length);
    if (slots) slots->push_back(r.slot);
  });
  return out;
}

TEST(RingReaderTest, HandsOverWholeRecordsOnlyAndConsumesWhatItRead) {
  Buffer buffer;
  buffer.Append(0, "alpha");
  buffer.Append(0, "bravo-charlie");
  buffer.Append(1, "delta");
  buffer.Header(1)->WriteOffset += 12;  // past the end marker: the marker ends the records
  buffer.Append(2, "echo");
  buffer.Append(2, "foxtrot");
  sk_StoreLe32(&buffer.bytes[RB_SLOT_OFFSET(2)], 32 + 4 + 4, 500);  // runs past WriteOffset
  buffer.Header(3)->WriteOffset = RB_SLOT_SIZE + 1;                  // outside the slot
  buffer.Append(4, "golf");
  buffer.Header(4)->State = RB_SLOT_WRITING;  // a writer holds it

  RingReader reader({buffer.bytes.data()});
  std::vector<uint32_t> slots;
  std::vector<std::string> expected = {"alpha", "bravo-charlie", "delta", "echo"};
  EXPECT_EQ(Drain(reader, &slots), expected);
  EXPECT_EQ(slots, (std::vector<uint32_t>{0, 0, 1, 2}));
  EXPECT_EQ(reader.Counts().records, 4u);
  EXPECT_EQ(reader.Counts().bytes, 5u + 13 + 5 + 4);
  EXPECT_EQ(reader.Counts().slotsRead, 4u);  // 0-3; the empty slots 5-7 are not taken
  EXPECT_EQ(reader.Counts().slotsBusy, 1u);
  EXPECT_EQ(reader.Counts().malformed, 2u);

  // What was read is consumed, broken slots included; the writer's slot is untouched.
  for (uint32_t s = 0; s < RB_SLOT_COUNT; ++s) {
    if (s == 4) continue;
    EXPECT_EQ(reader.SlotState(0, s), RB_SLOT_FREE) << s;
    EXPECT_EQ(reader.SlotWriteOffset(0, s), RB_SLOT_HEADER_SIZE) << s;
  }
  EXPECT_EQ(reader.SlotState(0, 4), RB_SLOT_WRITING);
  EXPECT_EQ(reader.SlotWriteOffset(0, 4), 32u + 4 + 4);

  buffer.Header(4)->State = RB_SLOT_FREE;  // the writer is done
  EXPECT_EQ(Drain(reader), std::vector<std::string>{"golf"});
  EXPECT_TRUE(Drain(reader).empty());
}

TEST(RingReaderTest, ASlotIsTakenOnlyFromFreeAndKeptUntilGivenBack) {
  Buffer buffer;
  buffer.Append(6, "hotel");
  RingReader reader({buffer.bytes.data()});
  RingReader other({buffer.bytes.data()});  // a second reader over the same buffer
  ASSERT_TRUE(reader.TakeSlot(0, 6));
  EXPECT_EQ(buffer.Header(6)->State, RB_SLOT_READING);
  EXPECT_FALSE(reader.TakeSlot(0, 6));
  EXPECT_TRUE(Drain(other).empty());
  EXPECT_EQ(other.Counts().slotsBusy, 1u);

  std::vector<std::string> read;
  reader.ReadSlot(0, 6, [&](const RingRecord& r) {
    read.emplace_back(reinterpret_cast<const char*>(r.data), r.length);
  });
  EXPECT_EQ(read, std::vector<std::string>{"hotel"});
  reader.ReleaseSlot(0, 6, false);  // given back unread: the records stay
  EXPECT_EQ(buffer.Header(6)->State, RB_SLOT_FREE);
  EXPECT_EQ(Drain(other), std::vector<std::string>{"hotel"});
}

TEST(RingReaderTest, TheMappingAnswerIsCheckedBeforeItIsUsed) {
  Buffer first, second;
  std::vector<uint8_t> info(RING_BUF_MAP_INFO_SIZE(2), 0);
  sk_StoreLe32(info.data(), 0, 2);
  sk_StoreLe64(info.data(), RING_BUF_MAP_INFO_ADDRESS_OFFSET(0), reinterpret_cast<uintptr_t>(first.bytes.data()));
  sk_StoreLe64(info.data(), RING_BUF_MAP_INFO_ADDRESS_OFFSET(1), reinterpret_cast<uintptr_t>(second.bytes.data()));
  std::optional<RingReader> reader = RingReader::FromMapInfo(info.data(), info.size());
  ASSERT_TRUE(reader.has_value());
  ASSERT_EQ(reader->BufferCount(), 2u);
  EXPECT_EQ(reader->Buffer(1), second.bytes.data());

  EXPECT_FALSE(RingReader::FromMapInfo(info.data(), info.size() - 1).has_value());  // short for two buffers
  EXPECT_FALSE(RingReader::FromMapInfo(info.data(), 15).has_value());
  sk_StoreLe64(info.data(), RING_BUF_MAP_INFO_ADDRESS_OFFSET(1), 0);
  EXPECT_FALSE(RingReader::FromMapInfo(info.data(), info.size()).has_value());
  // A count whose addresses would need 4 GiB: 16 + 8 * count must not wrap to 16.
  std::vector<uint8_t> lying(RING_BUF_MAP_INFO_SIZE(0), 0);
  sk_StoreLe32(lying.data(), 0, 0x20000000u);
  EXPECT_FALSE(RingReader::FromMapInfo(lying.data(), lying.size()).has_value());
}

// The driver empties and frees the slots a consumer holds when the buffers are mapped again; a
// writer may take such a slot at once. The reader that then gives the slot back must leave it as
// the writer left it, and say so.
TEST(RingReaderTest, ASlotTheDriverTookBackIsLeftAlone) {
  Buffer buffer;
  buffer.Append(3, "first");
  RingReader reader({buffer.bytes.data()});
  ASSERT_TRUE(reader.TakeSlot(0, 3));
  std::vector<std::string> read;
  reader.ReadSlot(0, 3, [&](const RingRecord& r) { read.emplace_back(reinterpret_cast<const char*>(r.data), r.length); });
  EXPECT_EQ(read, std::vector<std::string>{"first"});

  buffer.Header(3)->WriteOffset = RB_SLOT_HEADER_SIZE;  // the driver empties and frees it...
  buffer.Header(3)->State = RB_SLOT_FREE;
  buffer.Header(3)->State = RB_SLOT_WRITING;  // ...and a writer takes it
  buffer.Append(3, "second");
  EXPECT_FALSE(reader.ReleaseSlot(0, 3, true));
  EXPECT_EQ(buffer.Header(3)->State, RB_SLOT_WRITING);
  EXPECT_EQ(buffer.Header(3)->WriteOffset, RB_SLOT_HEADER_SIZE + 4 + 6) << "the writer's record was undone";
  buffer.Header(3)->State = RB_SLOT_FREE;  // the writer is done
  EXPECT_FALSE(reader.ReleaseSlot(0, 3, false));
  EXPECT_EQ(reader.Counts().slotsLost, 2u);

  RingReader next({buffer.bytes.data()});
  EXPECT_EQ(Drain(next), std::vector<std::string>{"second"});
  EXPECT_EQ(buffer.Header(3)->State, RB_SLOT_FREE);
}

TEST(RingBufferLayoutTest, CAndCppAgree) {
  SK_UINT32 c[14];
  ring_c_Layout(c);
  SK_UINT32 cpp[14] = {sizeof(RB_SLOT_HEADER),
                       SK_OFFSETOF(RB_SLOT_HEADER, State),
                       SK_OFFSETOF(RB_SLOT_HEADER, ConsumerWord),
                       SK_OFFSETOF(RB_SLOT_HEADER, WriteOffset),
                       SK_OFFSETOF(RB_SLOT_HEADER, Reserved),
                       sizeof(RING_BUF_MAP_INFO),
                       SK_OFFSETOF(RING_BUF_MAP_INFO, BufferCount),
                       SK_OFFSETOF(RING_BUF_MAP_INFO, Reserved),
                       SK_OFFSETOF(RING_BUF_MAP_INFO, UserAddress),
                       RING_BUF_MAP_INFO_SIZE(3),
                       RB_MAX_PACKET_LENGTH,
                       RB_SLOT_FREE,
                       RB_SLOT_WRITING,
                       RB_SLOT_READING};
  for (int i = 0; i < 14; ++i) EXPECT_EQ(c[i], cpp[i]) << i;
  EXPECT_EQ(c[0], 32u);
  EXPECT_EQ(c[3], 8u);
  EXPECT_EQ(c[9], 40u);
  EXPECT_EQ(c[10], 65499u);
}

}  // namespace
