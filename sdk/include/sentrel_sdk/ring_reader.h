// The consumer's reader of the driver's per-processor ring buffers (sentrel/ring_buffer.h), over the
// buffers as they are mapped into the consumer's own address space by IOCTL_SK_MAP_RINGBUF.
//
// The reader takes one slot at a time with a compare-exchange of its State from RB_SLOT_FREE to
// RB_SLOT_READING, hands over every whole record from offset 32 up to WriteOffset (a zero length
// also ends them), and gives it back with a compare-exchange from RB_SLOT_READING: to mark the
// records read, to RB_SLOT_WRITING, then WriteOffset back to 32, then RB_SLOT_FREE. It never looks at records of a slot it does not hold. ConsumerWord is left
// alone: this reader keeps no read position in it.
//
// A reader is used by one thread at a time; several readers over the same buffers (in one or in
// several processes) are safe with each other, as the slot protocol excludes them like writers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "sentrel/ring_buffer.h"

namespace sentrel_sdk {

// One record: the bytes of one packet, valid only while the callback runs (the slot is given back
// right after).
struct RingRecord {
  const uint8_t* data = nullptr;
  uint32_t length = 0;
  uint32_t buffer = 0;  // the buffer's index: the system-wide index of its processor
  uint32_t slot = 0;
};

using RecordFn = std::function<void(const RingRecord&)>;

// What a reader has done since it was made.
struct RingReaderCounts {
  uint64_t records = 0;    // whole records handed over
  uint64_t bytes = 0;      // their lengths, summed
  uint64_t slotsRead = 0;  // slots taken, read and given back
  uint64_t slotsBusy = 0;  // slots that had records but could not be taken (a writer, another reader)
  uint64_t malformed = 0;  // slots whose data broke the format: a record running past WriteOffset, or
                           // a WriteOffset outside the slot; the rest of such a slot is dropped
  uint64_t slotsLost = 0;  // slots no longer this reader's when it gave them back: the driver emptied
                           // them (the buffers were mapped again) while they were being read
};

// What a buffer's writers could not deliver, as the driver counts it in the buffer itself.
struct RingLosses {
  uint64_t overwrittenRecords = 0;  // unread records emptied out of the full buffer to make room
  uint64_t droppedPackets = 0;      // packets not written: no slot could be taken
};

class RingReader {
 public:
  // Over the buffers at these addresses in this process, buffer i at buffers[i].
  explicit RingReader(std::vector<uint8_t*> buffers);
  // Over the buffers that an answer of IOCTL_SK_MAP_RINGBUF names; nothing if the answer is shorter
  // than its buffer count needs or names a null address.
  static std::optional<RingReader> FromMapInfo(const void* info, size_t length);

  size_t BufferCount() const { return buffers_.size(); }
  uint8_t* Buffer(size_t index) const { return buffers_[index]; }

  // The protocol one step at a time, for tools and tests.
  bool TakeSlot(size_t buffer, uint32_t slot);
  // Hands each whole record of a slot this reader holds to fn; returns how many.
  size_t ReadSlot(size_t buffer, uint32_t slot, const RecordFn& fn);
  // Gives back a slot this reader holds; with markRead its records count as consumed. False (and
  // counted in slotsLost) if the slot was no longer the reader's: then nothing of it is touched.
  bool ReleaseSlot(size_t buffer, uint32_t slot, bool markRead = true);

  // Takes, reads and gives back one slot; false if the slot could not be taken.
  bool DrainSlot(size_t buffer, uint32_t slot, const RecordFn& fn);
  // Every slot of one buffer, or of every buffer, that holds records, once each; returns the records
  // read. Slots a writer holds at that moment are left for the next pass.
  size_t DrainBuffer(size_t buffer, const RecordFn& fn);
  size_t DrainAll(const RecordFn& fn);

  const RingReaderCounts& Counts() const { return counts_; }
  // The driver's loss counters of one buffer, read in place (they only grow while the driver runs).
  RingLosses Losses(size_t buffer) const;

  // A slot's header words as they are now (a racy look, for display and tests).
  uint32_t SlotState(size_t buffer, uint32_t slot) const;
  uint32_t SlotWriteOffset(size_t buffer, uint32_t slot) const;

 private:
  RB_SLOT_HEADER* Header(size_t buffer, uint32_t slot) const;

  std::vector<uint8_t*> buffers_;
  RingReaderCounts counts_;
};

}  // namespace sentrel_sdk
