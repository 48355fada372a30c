// The answer to IOCTL_SK_QUERY_LOSSES: every count of what the driver could not deliver, in one
// request. All integers are little-endian; the counts only grow while the driver runs.
//
//   0   SK_LOSS_COUNTERS   (32 bytes)
//   32  SK_RING_LOSSES     one per ring buffer, buffer i for the processor with system-wide index i
//   ..  SK_QUEUE_LOSSES    one per process queue that has evicted packets, in process-id order
//
// An output buffer too short for the whole answer gets STATUS_BUFFER_OVERFLOW and, in the request's
// information, the length it needs (the header is written when it fits, with Size = that length);
// queues come and go, so a consumer asks again with that length, plus room to spare.
#pragma once

#include "sentrel/wire_types.h"

typedef struct _SK_LOSS_COUNTERS {
  SK_UINT32 Size;        // bytes of the whole answer
  SK_UINT32 BufferCount;  // SK_RING_LOSSES records that follow
  SK_UINT32 QueueCount;   // SK_QUEUE_LOSSES records after them
  SK_UINT32 Reserved;     // zero
  // Control packets dropped, oldest first, because a queue reached its packet limit: the
  // consumer's queue, and every process queue since start, including the queues of processes that
  // have exited since.
  SK_UINT64 ConsumerQueueEvicted;
  SK_UINT64 ProcessQueuesEvicted;
} SK_LOSS_COUNTERS;

// One ring buffer's counts, as its slot 0 header holds them (sentrel/ring_buffer.h).
typedef struct _SK_RING_LOSSES {
  SK_UINT64 OverwrittenRecords;  // unread records emptied out of a full buffer to make room
  SK_UINT64 DroppedPackets;      // packets not written: no slot could be taken
} SK_RING_LOSSES;

// A live process queue's evictions.
typedef struct _SK_QUEUE_LOSSES {
  SK_UINT32 ProcessId;
  SK_UINT32 Reserved;  // zero
  SK_UINT64 Evicted;
} SK_QUEUE_LOSSES;

// In 64 bits: counts read from an answer must not wrap the size they are checked against.
#define SK_LOSS_COUNTERS_SIZE(BufferCount, QueueCount) \
  (32u + 16u * (SK_UINT64)(SK_UINT32)(BufferCount) + 16u * (SK_UINT64)(SK_UINT32)(QueueCount))

SK_STATIC_ASSERT(sizeof(SK_LOSS_COUNTERS) == 32, "SK_LOSS_COUNTERS is 32 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_LOSS_COUNTERS, Size) == 0, "SK_LOSS_COUNTERS.Size");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_LOSS_COUNTERS, BufferCount) == 4, "SK_LOSS_COUNTERS.BufferCount");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_LOSS_COUNTERS, QueueCount) == 8, "SK_LOSS_COUNTERS.QueueCount");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_LOSS_COUNTERS, ConsumerQueueEvicted) == 16, "SK_LOSS_COUNTERS.ConsumerQueueEvicted");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_LOSS_COUNTERS, ProcessQueuesEvicted) == 24, "SK_LOSS_COUNTERS.ProcessQueuesEvicted");
SK_STATIC_ASSERT(sizeof(SK_RING_LOSSES) == 16, "SK_RING_LOSSES is 16 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_RING_LOSSES, DroppedPackets) == 8, "SK_RING_LOSSES.DroppedPackets");
SK_STATIC_ASSERT(sizeof(SK_QUEUE_LOSSES) == 16, "SK_QUEUE_LOSSES is 16 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_QUEUE_LOSSES, Evicted) == 8, "SK_QUEUE_LOSSES.Evicted");
SK_STATIC_ASSERT(SK_LOSS_COUNTERS_SIZE(4, 2) == 32 + 64 + 32, "header, buffers, queues");
