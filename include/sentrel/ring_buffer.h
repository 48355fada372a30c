// The ring buffers that the driver shares with the consumer: one 512 KiB buffer per active
// processor, mapped into the consumer's address space by IOCTL_SK_MAP_RINGBUF, each cut into 8 slots
// of 64 KiB. Writers in the driver fill a slot with length-prefixed packets; the consumer takes a
// whole slot at a time. All integers are little-endian; offsets count from the start of the slot.
//
// A slot:
//   0   32 bytes  RB_SLOT_HEADER
//   32  records, back to back, no alignment: a 32-bit length n, then n bytes (one whole SK_PACKET)
//       After the last record a 32-bit 0 marks the end when it fits, that is when WriteOffset + 4 <
//       65536; a record that ends 4 bytes or less before the end of the slot has no marker after it.
//
// Who holds a slot is its State, changed only by atomic operations:
//   RB_SLOT_FREE     nobody: a writer may take it, and so may the consumer
//   RB_SLOT_WRITING  a driver writer, for the length of one write
//   RB_SLOT_READING  the consumer
// The consumer takes a slot only with an atomic compare-exchange of State from RB_SLOT_FREE to
// RB_SLOT_READING, reads the records from offset 32 up to WriteOffset (a record length of 0 also
// ends them) only while it holds the slot, and gives the slot back with a compare-exchange from
// RB_SLOT_READING (the driver empties and frees held slots when the buffers are mapped again, and
// a writer may hold the slot by then). To mark the records read it exchanges RB_SLOT_READING for
// RB_SLOT_WRITING, sets WriteOffset to 32, then stores RB_SLOT_FREE. The
// driver's exchange that sets State back to RB_SLOT_FREE after a write publishes the record and
// WriteOffset. When no slot has room a writer empties one (its unread records are lost); when no
// slot can be taken at all the packet is dropped. Both losses are counted per buffer in the header
// of its slot 0 (OverwrittenRecords, DroppedPackets): raised by the driver with interlocked
// additions, never reset while the driver runs, so that every packet written is either read or
// counted there.
#pragma once

#include "sentrel/wire_types.h"

#define RB_BUFFER_SIZE 0x80000u  // one processor's buffer
#define RB_SLOT_COUNT 8u
#define RB_SLOT_SIZE 0x10000u
#define RB_SLOT_HEADER_SIZE 32u
#define RB_RECORD_LENGTH_SIZE 4u
// The largest packet that fits an empty slot: 65536 - 32 > n + 4.
#define RB_MAX_PACKET_LENGTH (RB_SLOT_SIZE - RB_SLOT_HEADER_SIZE - RB_RECORD_LENGTH_SIZE - 1u)

// State.
#define RB_SLOT_FREE 1u
#define RB_SLOT_WRITING 0x40000u
#define RB_SLOT_READING 0x80000000u

typedef struct _RB_SLOT_HEADER {
  SK_UINT32 State;
  // The consumer's own word; the driver only sets it to 0 whenever it empties the slot.
  SK_UINT32 ConsumerWord;
  // Offset of the first free byte in the slot: RB_SLOT_HEADER_SIZE when the slot is empty. A value
  // of RB_SLOT_SIZE or more is taken as an empty slot by the next writer.
  SK_UINT32 WriteOffset;
  SK_UINT32 Reserved;  // zero
  // In slot 0 only (zero in the others), the buffer's losses since the driver started: unread
  // records a writer emptied out of a full buffer to make room, and packets not written at all
  // because no slot could be taken. Read them with atomic 64-bit loads.
  SK_UINT64 OverwrittenRecords;
  SK_UINT64 DroppedPackets;
} RB_SLOT_HEADER, *PRB_SLOT_HEADER;

SK_STATIC_ASSERT(sizeof(RB_SLOT_HEADER) == RB_SLOT_HEADER_SIZE, "RB_SLOT_HEADER is 32 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(RB_SLOT_HEADER, State) == 0, "RB_SLOT_HEADER.State");
SK_STATIC_ASSERT(SK_OFFSETOF(RB_SLOT_HEADER, ConsumerWord) == 4, "RB_SLOT_HEADER.ConsumerWord");
SK_STATIC_ASSERT(SK_OFFSETOF(RB_SLOT_HEADER, WriteOffset) == 8, "RB_SLOT_HEADER.WriteOffset");
SK_STATIC_ASSERT(SK_OFFSETOF(RB_SLOT_HEADER, Reserved) == 12, "RB_SLOT_HEADER.Reserved");
SK_STATIC_ASSERT(SK_OFFSETOF(RB_SLOT_HEADER, OverwrittenRecords) == 16, "RB_SLOT_HEADER.OverwrittenRecords");
SK_STATIC_ASSERT(SK_OFFSETOF(RB_SLOT_HEADER, DroppedPackets) == 24, "RB_SLOT_HEADER.DroppedPackets");
SK_STATIC_ASSERT(RB_BUFFER_SIZE == RB_SLOT_COUNT * RB_SLOT_SIZE, "a buffer is its 8 slots");
SK_STATIC_ASSERT(RB_MAX_PACKET_LENGTH == 65499u, "the largest packet an empty slot holds");
SK_STATIC_ASSERT((RB_SLOT_FREE & RB_SLOT_WRITING) == 0 && (RB_SLOT_FREE & RB_SLOT_READING) == 0 &&
                     (RB_SLOT_WRITING & RB_SLOT_READING) == 0,
                 "the three states are distinct bits");

// Slot s of a buffer, and its header.
#define RB_SLOT_OFFSET(Slot) ((SK_UINT32)(Slot) * RB_SLOT_SIZE)

// The answer to IOCTL_SK_MAP_RINGBUF: the number of buffers, then one user address per buffer (buffer
// i belongs to the processor with system-wide index i), then 8 zero bytes. It takes
// RING_BUF_MAP_INFO_SIZE(BufferCount) bytes; UserAddress is declared with one entry and continues
// past the end of the structure.
typedef struct _RING_BUF_MAP_INFO {
  SK_UINT32 BufferCount;
  SK_UINT32 Reserved;  // zero
  SK_UINT64 UserAddress[1];
} RING_BUF_MAP_INFO, *PRING_BUF_MAP_INFO;

// In 64 bits: a count read from an answer must not wrap the size it is checked against.
#define RING_BUF_MAP_INFO_SIZE(BufferCount) (16u + 8u * (SK_UINT64)(SK_UINT32)(BufferCount))
#define RING_BUF_MAP_INFO_ADDRESS_OFFSET(Index) (8u + 8u * (SK_UINT32)(Index))

SK_STATIC_ASSERT(SK_OFFSETOF(RING_BUF_MAP_INFO, BufferCount) == 0, "RING_BUF_MAP_INFO.BufferCount");
SK_STATIC_ASSERT(SK_OFFSETOF(RING_BUF_MAP_INFO, Reserved) == 4, "RING_BUF_MAP_INFO.Reserved");
SK_STATIC_ASSERT(SK_OFFSETOF(RING_BUF_MAP_INFO, UserAddress) == 8, "RING_BUF_MAP_INFO.UserAddress");
SK_STATIC_ASSERT(sizeof(RING_BUF_MAP_INFO) == 16, "RING_BUF_MAP_INFO with one address");
SK_STATIC_ASSERT(RING_BUF_MAP_INFO_SIZE(1) == 24, "16 + 8 bytes per buffer");
