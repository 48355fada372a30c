#include "sentrel_sdk/ring_reader.h"

#include <cstring>

namespace sentrel_sdk {

namespace {

uint32_t LoadLe32(const uint8_t* at) {
  uint32_t value;
  std::memcpy(&value, at, sizeof value);  // records are unaligned; the layout is little-endian
  return value;
}

}  // namespace

RingReader::RingReader(std::vector<uint8_t*> buffers) : buffers_(std::move(buffers)) {}

std::optional<RingReader> RingReader::FromMapInfo(const void* info, size_t length) {
  auto bytes = static_cast<const uint8_t*>(info);
  if (length < RING_BUF_MAP_INFO_SIZE(0)) return std::nullopt;
  uint32_t count = LoadLe32(bytes);
  if (length < RING_BUF_MAP_INFO_SIZE(count)) return std::nullopt;
  std::vector<uint8_t*> buffers;
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t address;
    std::memcpy(&address, bytes + RING_BUF_MAP_INFO_ADDRESS_OFFSET(i), sizeof address);
    if (address == 0) return std::nullopt;
    buffers.push_back(reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(address)));
  }
  return RingReader(std::move(buffers));
}

RB_SLOT_HEADER* RingReader::Header(size_t buffer, uint32_t slot) const {
  return reinterpret_cast<RB_SLOT_HEADER*>(buffers_[buffer] + RB_SLOT_OFFSET(slot));
}

uint32_t RingReader::SlotState(size_t buffer, uint32_t slot) const {
  return __atomic_load_n(&Header(buffer, slot)->State, __ATOMIC_ACQUIRE);
}

uint32_t RingReader::SlotWriteOffset(size_t buffer, uint32_t slot) const {
  return __atomic_load_n(&Header(buffer, slot)->WriteOffset, __ATOMIC_RELAXED);
}

RingLosses RingReader::Losses(size_t buffer) const {
  RB_SLOT_HEADER* header = Header(buffer, 0);
  RingLosses losses;
  losses.overwrittenRecords = __atomic_load_n(&header->OverwrittenRecords, __ATOMIC_RELAXED);
  losses.droppedPackets = __atomic_load_n(&header->DroppedPackets, __ATOMIC_RELAXED);
  return losses;
}

bool RingReader::TakeSlot(size_t buffer, uint32_t slot) {
  uint32_t expected = RB_SLOT_FREE;
  return __atomic_compare_exchange_n(&Header(buffer, slot)->State, &expected, RB_SLOT_READING, false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

size_t RingReader::ReadSlot(size_t buffer, uint32_t slot, const RecordFn& fn) {
  const uint8_t* base = buffers_[buffer] + RB_SLOT_OFFSET(slot);
  uint32_t end = Header(buffer, slot)->WriteOffset;
  if (end < RB_SLOT_HEADER_SIZE || end > RB_SLOT_SIZE) {
    // A writer takes such a slot as empty; there is nothing to read in it.
    ++counts_.malformed;
    return 0;
  }
  size_t records = 0;
  uint32_t offset = RB_SLOT_HEADER_SIZE;
  while (end - offset >= RB_RECORD_LENGTH_SIZE) {
    uint32_t length = LoadLe32(base + offset);
    if (length == 0) break;  // the end marker
    if (length > end - offset - RB_RECORD_LENGTH_SIZE) {
      ++counts_.malformed;
      break;
    }
    RingRecord record;
    record.data = base + offset + RB_RECORD_LENGTH_SIZE;
    record.length = length;
    record.buffer = static_cast<uint32_t>(buffer);
    record.slot = slot;
    fn(record);
    ++records;
    counts_.bytes += length;
    offset += RB_RECORD_LENGTH_SIZE + length;
  }
  counts_.records += records;
  return records;
}

bool RingReader::ReleaseSlot(size_t buffer, uint32_t slot, bool markRead) {
  RB_SLOT_HEADER* header = Header(buffer, slot);
  // Only from the reading state: the driver empties and frees the slots a consumer holds when the
  // buffers are mapped again, and a writer may have taken the slot since; a plain store would undo
  // its write. To mark the records read the slot is held as a writer holds it for the one store
  // of WriteOffset, so that neither the driver's emptying nor a writer can come in between.
  uint32_t expected = RB_SLOT_READING;
  if (!__atomic_compare_exchange_n(&header->State, &expected, markRead ? RB_SLOT_WRITING : RB_SLOT_FREE, false,
                                   __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    ++counts_.slotsLost;
    return false;
  }
  if (markRead) {
    __atomic_store_n(&header->WriteOffset, RB_SLOT_HEADER_SIZE, __ATOMIC_RELAXED);
    __atomic_store_n(&header->State, RB_SLOT_FREE, __ATOMIC_RELEASE);
  }
  return true;
}

bool RingReader::DrainSlot(size_t buffer, uint32_t slot, const RecordFn& fn) {
  if (!TakeSlot(buffer, slot)) return false;
  ReadSlot(buffer, slot, fn);
  ReleaseSlot(buffer, slot, true);
  ++counts_.slotsRead;
  return true;
}

size_t RingReader::DrainBuffer(size_t buffer, const RecordFn& fn) {
  uint64_t before = counts_.records;
  for (uint32_t slot = 0; slot < RB_SLOT_COUNT; ++slot) {
    // A look at the offset first: an empty slot is not taken, so writers are not sent past it.
    if (SlotWriteOffset(buffer, slot) == RB_SLOT_HEADER_SIZE) continue;
    if (!DrainSlot(buffer, slot, fn)) ++counts_.slotsBusy;
  }
  return static_cast<size_t>(counts_.records - before);
}

size_t RingReader::DrainAll(const RecordFn& fn) {
  size_t records = 0;
  for (size_t buffer = 0; buffer < buffers_.size(); ++buffer) records += DrainBuffer(buffer, fn);
  return records;
}

}  // namespace sentrel_sdk
