// The per-processor ring buffers: every event packet that leaves the driver is written into the
// buffer of the processor its writer runs on, and the consumer reads it straight out of its own
// mapping of that buffer (the shared layout and the slot protocol are in sentrel/ring_buffer.h).
//
// Writers never wait and never allocate: a write takes one slot with a compare-exchange of its
// State, copies the packet once and gives the slot back with an exchange. The only other shared
// words a write touches are WriterCount (so that stop can wait for writers to leave) and the
// buffer's RingBufIndex entry (a hint where the next scan starts).
//
// Processor numbering: buffer i belongs to the processor with system-wide index i
// (KeGetProcessorNumberFromIndex), and both the writers and the allocation thread identify the
// processor they run on with KeGetCurrentProcessorNumberEx, which returns that same system-wide
// index. KeGetCurrentProcessorNumber would not do: on a machine with more than one processor group
// it returns a number within the group (or, outside group 0, a number below the size of group 0),
// so writers would use another processor's buffer, and the allocation thread, waiting for the
// current number to equal the index of the processor it asked for, would wait forever.
#pragma once

#include "platform/nt.h"
#include "sentrel/ring_buffer.h"

// RingBuf.Flags
#define RB_FLAG_INITED 0x1  // initialised and accepting writes
#define RB_FLAG_MAPPED 0x2  // mapped into OwnerProcess

// Each buffer's MDL lives in a block of this size: an MDL header and the page-frame entries of a
// 512 KiB buffer at any page offset.
#define RB_MDL_BLOCK_SIZE 1080u

typedef struct _SK_RING_BUF {
  USHORT Tag;  // SK_RECORD_RING_BUF
  USHORT Size;
  volatile LONG Flags;  // RB_FLAG_; changed only by interlocked operations
  // Serialises mapping and release of the user views. Lock order: taken alone; nothing else is
  // taken while it is held.
  FAST_MUTEX MapLock;
  volatile LONG WriterCount;  // writers inside rb_WriteRingBuf
  ULONG SlotSize;             // RB_SLOT_SIZE
  ULONG BufferCount;          // active processors in all groups at start
  // The process the buffers are mapped into while RB_FLAG_MAPPED is set, referenced so that it stays
  // valid even if its exit notification were lost; and its id, which the owner's exit hook compares
  // against exiting processes and clears.
  PEPROCESS OwnerProcess;
  HANDLE OwnerProcessId;
  PMDL *RingBufMdlSlot;             // per buffer: its MDL
  volatile ULONG *RingBufIndex;     // per buffer: the slot writers try first (plain words, racy hints)
  PUCHAR *KrnlRingBufSlot;          // per buffer: its kernel address
  PVOID *UserRingBufSlot;           // per buffer: its address in OwnerProcess, or null
} SK_RING_BUF, *PSK_RING_BUF;

// The context of the allocation thread.
typedef struct _SK_RING_BUF_ALLOC_CONTEXT {
  PSK_RING_BUF RingBuf;
  KEVENT Done;
  NTSTATUS Status;
} SK_RING_BUF_ALLOC_CONTEXT, *PSK_RING_BUF_ALLOC_CONTEXT;

NTSTATUS rb_InitRingBuf(PSK_RING_BUF RingBuf);
NTSTATUS rb_UnInitRingBuf(PSK_RING_BUF RingBuf);
// Copies one packet of Length bytes into the current processor's buffer; the caller keeps its
// buffer. STATUS_BUFFER_OVERFLOW: too large, not running, or no slot could be taken;
// STATUS_INSUFFICIENT_RESOURCES: still no room after nine recycles. Runs at PASSIVE_LEVEL or
// APC_LEVEL.
NTSTATUS rb_WriteRingBuf(PSK_RING_BUF RingBuf, const VOID *Packet, ULONG Length);
// A buffer's loss counters (sentrel/ring_buffer.h); zero for a buffer that does not exist.
VOID rb_QueryRingLosses(PSK_RING_BUF RingBuf, ULONG Index, PULONG64 OverwrittenRecords, PULONG64 DroppedPackets);
// Maps the buffers into Process and writes RING_BUF_MAP_INFO into Output. *Length goes in as the
// output size and comes out as the needed size.
NTSTATUS rb_GetRingBufInternal(PSK_RING_BUF RingBuf, PEPROCESS Process, PVOID Output, PULONG Length);
// Unmaps the buffers from Process, their owner. TakeLock FALSE: the caller holds MapLock.
NTSTATUS rb_ReleaseRingBufInternal(PSK_RING_BUF RingBuf, PEPROCESS Process, BOOLEAN TakeLock);
// The system-thread routine of rb_InitRingBuf: visits every processor and allocates its buffer there.
VOID NTAPI rb_AllocBufThreadStart(PVOID Context);
