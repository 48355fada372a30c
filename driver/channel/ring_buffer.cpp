#include "channel/ring_buffer.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "platform/guarded_memory.h"

#define SK_MODULE SK_TRACE_RINGBUF

// The per-buffer arrays carry 8 entries more than there are buffers.
#define RB_ARRAY_SPARE 8

// The consumer's views get the cache type of the kernel's own view of the same pages. Mapping one
// page with two different cache types is undefined on x86, and a cached view is what lets the
// consumer read records right after the writer's exchange publishes them.
#define RB_USER_CACHE_TYPE MmCached

static PRB_SLOT_HEADER rb_SlotHeader(PUCHAR Buffer, ULONG Slot) {
  return (PRB_SLOT_HEADER)(Buffer + RB_SLOT_OFFSET(Slot));
}

static volatile LONG *rb_SlotState(PRB_SLOT_HEADER Header) { return (volatile LONG *)&Header->State; }

static BOOLEAN rb_TakeSlot(PRB_SLOT_HEADER Header) {
  return InterlockedCompareExchange(rb_SlotState(Header), (LONG)RB_SLOT_WRITING, (LONG)RB_SLOT_FREE) ==
         (LONG)RB_SLOT_FREE;
}

// Gives a slot back; the exchange is a full barrier, so it publishes whatever was written before it.
static VOID rb_FreeSlot(PRB_SLOT_HEADER Header) { InterlockedExchange(rb_SlotState(Header), (LONG)RB_SLOT_FREE); }

// The buffer's loss counters, in the header of its slot 0, which the consumer reads in place.
static volatile LONG64 *rb_OverwrittenCounter(PUCHAR Buffer) {
  return (volatile LONG64 *)&rb_SlotHeader(Buffer, 0)->OverwrittenRecords;
}
static volatile LONG64 *rb_DroppedCounter(PUCHAR Buffer) {
  return (volatile LONG64 *)&rb_SlotHeader(Buffer, 0)->DroppedPackets;
}

// The records of a slot that nobody has read: the consumer sets WriteOffset back to the start once
// it has read a slot, so these are the whole records up to WriteOffset. Called by the writer that
// holds the slot, on the way to emptying it; the bounds hold whatever the consumer wrote there.
static ULONG rb_UnreadRecords(PRB_SLOT_HEADER Header) {
  PUCHAR base = (PUCHAR)Header;
  ULONG end = SK_READ_ONCE(Header->WriteOffset);
  ULONG offset = RB_SLOT_HEADER_SIZE;
  ULONG count = 0;
  ULONG length;

  if (end > RB_SLOT_SIZE) return 0;
  while (end >= offset + RB_RECORD_LENGTH_SIZE) {
    RtlCopyMemory(&length, base + offset, sizeof(length));
    if (length == 0 || length > end - offset - RB_RECORD_LENGTH_SIZE) break;
    ++count;
    offset += RB_RECORD_LENGTH_SIZE + length;
  }
  return count;
}

// Empties every slot that the consumer holds and gives it back to the writers.
static VOID rb_ResetReadingSlots(PSK_RING_BUF RingBuf) {
  ULONG i, s;
  for (i = 0; i < RingBuf->BufferCount; ++i) {
    PUCHAR buffer = RingBuf->KrnlRingBufSlot[i];
    if (!buffer) continue;
    for (s = 0; s < RB_SLOT_COUNT; ++s) {
      PRB_SLOT_HEADER header = rb_SlotHeader(buffer, s);
      if (InterlockedCompareExchange(rb_SlotState(header), (LONG)RB_SLOT_READING, (LONG)RB_SLOT_READING) !=
          (LONG)RB_SLOT_READING) {
        continue;
      }
      InterlockedExchange((volatile LONG *)&header->WriteOffset, (LONG)RB_SLOT_HEADER_SIZE);
      InterlockedExchange(rb_SlotState(header), (LONG)RB_SLOT_FREE);
      InterlockedExchange((volatile LONG *)&header->ConsumerWord, 0);
    }
  }
}

// Frees the MDL blocks (every entry, skipping empty ones) and the four arrays, and zeroes the record.
static VOID rb_FreeRingBufRecord(PSK_RING_BUF RingBuf) {
  ULONG i;
  if (RingBuf->RingBufMdlSlot) {
    for (i = 0; i < RingBuf->BufferCount + RB_ARRAY_SPARE; ++i) {
      if (RingBuf->RingBufMdlSlot[i]) ExFreePoolWithTag(RingBuf->RingBufMdlSlot[i], SK_TAG_RING_MDL);
    }
    ExFreePoolWithTag(RingBuf->RingBufMdlSlot, SK_TAG_RING_ARRAY);
  }
  if (RingBuf->RingBufIndex) ExFreePoolWithTag((PVOID)RingBuf->RingBufIndex, SK_TAG_RING_ARRAY);
  if (RingBuf->UserRingBufSlot) ExFreePoolWithTag(RingBuf->UserRingBufSlot, SK_TAG_RING_ARRAY);
  if (RingBuf->KrnlRingBufSlot) ExFreePoolWithTag(RingBuf->KrnlRingBufSlot, SK_TAG_RING_ARRAY);
  RtlZeroMemory(RingBuf, sizeof(*RingBuf));
}

static PVOID rb_AllocateArray(SIZE_T Size) {
  PVOID array = ExAllocatePoolWithTag(NonPagedPool, Size, SK_TAG_RING_ARRAY);
  if (array) RtlZeroMemory(array, Size);
  return array;
}

// Unmaps every user view from OwnerProcess, in its context, and forgets the owner. With
// ResetReading the slots the consumer held are emptied and given back first. The caller holds
// MapLock, or runs at stop when no request can arrive.
static VOID rb_UnmapUserViews(PSK_RING_BUF RingBuf, BOOLEAN ResetReading) {
  KAPC_STATE apcState;
  BOOLEAN attached = FALSE;
  PEPROCESS owner = RingBuf->OwnerProcess;
  ULONG i;

  if (owner != PsGetCurrentProcess()) {
    KeStackAttachProcess((PKPROCESS)owner, &apcState);
    attached = TRUE;
  }
  if (ResetReading) rb_ResetReadingSlots(RingBuf);
  for (i = 0; i < RingBuf->BufferCount; ++i) {
    if (RingBuf->UserRingBufSlot[i]) MmUnmapLockedPages(RingBuf->UserRingBufSlot[i], RingBuf->RingBufMdlSlot[i]);
    RingBuf->UserRingBufSlot[i] = NULL;
  }
  InterlockedAnd(&RingBuf->Flags, ~RB_FLAG_MAPPED);
  if (attached) KeUnstackDetachProcess(&apcState);
  RingBuf->OwnerProcess = NULL;
  ObDereferenceObject(owner);
}

VOID NTAPI rb_AllocBufThreadStart(PVOID Context) {
  PSK_RING_BUF_ALLOC_CONTEXT context = (PSK_RING_BUF_ALLOC_CONTEXT)Context;
  PSK_RING_BUF ringBuf = context->RingBuf;
  NTSTATUS status = STATUS_SUCCESS;
  PROCESSOR_NUMBER number;
  GROUP_AFFINITY affinity;
  GROUP_AFFINITY previous;
  LARGE_INTEGER delay;
  FAST_MUTEX mutex;  // private: it only keeps the allocation at APC_LEVEL
  PUCHAR buffer;
  PMDL mdl;
  ULONG i;
  ULONG s;

  PAGED_CODE();
  SK_ENTER();
  ExInitializeFastMutex(&mutex);
  delay.QuadPart = -10000;  // 1 ms
  for (i = 0; i < ringBuf->BufferCount; ++i) {
    status = KeGetProcessorNumberFromIndex(i, &number);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("KeGetProcessorNumberFromIndex", status);
      break;
    }
    RtlZeroMemory(&affinity, sizeof(affinity));
    affinity.Group = number.Group;
    affinity.Mask = (KAFFINITY)1 << number.Number;
    KeSetSystemGroupAffinityThread(&affinity, &previous);
    // The same numbering as the writers': the system-wide index (see ring_buffer.h).
    while (KeGetCurrentProcessorNumberEx(NULL) != i) KeDelayExecutionThread(KernelMode, FALSE, &delay);

    ExAcquireFastMutex(&mutex);
    ringBuf->KrnlRingBufSlot[i] = NULL;
    buffer = (PUCHAR)ExAllocatePoolWithTag(NonPagedPool, RB_BUFFER_SIZE, SK_TAG_RING_BUFFER);
    if (!buffer) {
      ExReleaseFastMutex(&mutex);
      SK_ERROR("[Core:%d] Buf alloc fail\n", i);
      KeRevertToUserGroupAffinityThread(&previous);
      status = STATUS_INSUFFICIENT_RESOURCES;
      break;
    }
    SK_INFO("[Core:%d] KernelRingBuf:0x%p\n", i, buffer);
    RtlZeroMemory(buffer, RB_BUFFER_SIZE);
    for (s = 0; s < RB_SLOT_COUNT; ++s) {
      PRB_SLOT_HEADER header = rb_SlotHeader(buffer, s);
      header->State = RB_SLOT_FREE;
      header->WriteOffset = RB_SLOT_HEADER_SIZE;
    }
    ringBuf->KrnlRingBufSlot[i] = buffer;
    mdl = ringBuf->RingBufMdlSlot[i];
    MmInitializeMdl(mdl, buffer, RB_BUFFER_SIZE);
    MmBuildMdlForNonPagedPool(mdl);
    ExReleaseFastMutex(&mutex);
    KeRevertToUserGroupAffinityThread(&previous);
  }

  if (!NT_SUCCESS(status)) {
    while (i > 0) {
      --i;
      RtlZeroMemory(ringBuf->KrnlRingBufSlot[i], RB_BUFFER_SIZE);
      ExFreePoolWithTag(ringBuf->KrnlRingBufSlot[i], SK_TAG_RING_BUFFER);
      ringBuf->KrnlRingBufSlot[i] = NULL;
    }
  }
  context->Status = status;
  SK_LEAVE(status);
  KeSetEvent(&context->Done, IO_NO_INCREMENT, FALSE);
  PsTerminateSystemThread(status);
}

NTSTATUS rb_InitRingBuf(PSK_RING_BUF RingBuf) {
  NTSTATUS status = STATUS_SUCCESS;
  SK_RING_BUF_ALLOC_CONTEXT context;
  OBJECT_ATTRIBUTES attributes;
  HANDLE threadHandle = NULL;
  PVOID threadObject = NULL;
  ULONG count;
  ULONG i;

  PAGED_CODE();
  SK_ENTER();
  if (SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_INITED) {
    SK_ERROR("Ring Buffer Inited\n");
    goto Exit;
  }

  RtlZeroMemory(RingBuf, sizeof(*RingBuf));
  RingBuf->Tag = SK_RECORD_RING_BUF;
  RingBuf->Size = sizeof(*RingBuf);
  RingBuf->SlotSize = RB_SLOT_SIZE;
  ExInitializeFastMutex(&RingBuf->MapLock);
  RingBuf->BufferCount = count = KeQueryActiveProcessorCountEx(ALL_PROCESSOR_GROUPS);

  RingBuf->KrnlRingBufSlot = (PUCHAR *)rb_AllocateArray(8 * (SIZE_T)count + 64);
  if (!RingBuf->KrnlRingBufSlot) {
    SK_ERROR("KrnlRingBufSlot allocate fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Undo;
  }
  RingBuf->UserRingBufSlot = (PVOID *)rb_AllocateArray(8 * (SIZE_T)count + 64);
  if (!RingBuf->UserRingBufSlot) {
    SK_ERROR("UserRingBufSlot allocate fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Undo;
  }
  RingBuf->RingBufIndex = (volatile ULONG *)rb_AllocateArray(4 * (SIZE_T)count + 32);
  if (!RingBuf->RingBufIndex) {
    SK_ERROR("RingBufIndex allocate fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Undo;
  }
  RingBuf->RingBufMdlSlot = (PMDL *)rb_AllocateArray(8 * (SIZE_T)count + 64);
  if (!RingBuf->RingBufMdlSlot) {
    SK_ERROR("RingBufMdlSlot allocate fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Undo;
  }
  for (i = 0; i < count; ++i) {
    RingBuf->RingBufMdlSlot[i] = (PMDL)ExAllocatePoolWithTag(NonPagedPool, RB_MDL_BLOCK_SIZE, SK_TAG_RING_MDL);
    if (!RingBuf->RingBufMdlSlot[i]) {
      SK_ERROR("[%d] mdl allocate fail\n", i);
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Undo;
    }
    RtlZeroMemory(RingBuf->RingBufMdlSlot[i], RB_MDL_BLOCK_SIZE);
  }

  // One thread visits every processor, so that each buffer is allocated on (and so near) the
  // processor whose writers fill it.
  context.RingBuf = RingBuf;
  context.Status = STATUS_UNSUCCESSFUL;
  KeInitializeEvent(&context.Done, NotificationEvent, FALSE);
  InitializeObjectAttributes(&attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
  status = PsCreateSystemThread(&threadHandle, THREAD_ALL_ACCESS, &attributes, NULL, NULL, rb_AllocBufThreadStart,
                                &context);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsCreateSystemThread", status);
    goto Undo;
  }
  // The event is set while the thread still runs our code: its end is waited for as well, so that
  // the driver cannot be unloaded under it.
  if (!NT_SUCCESS(ObReferenceObjectByHandle(threadHandle, SYNCHRONIZE, *PsThreadType, KernelMode, &threadObject,
                                            NULL))) {
    threadObject = NULL;
  }
  ZwClose(threadHandle);
  KeWaitForSingleObject(&context.Done, Executive, KernelMode, FALSE, NULL);
  if (threadObject) {
    KeWaitForSingleObject(threadObject, Executive, KernelMode, FALSE, NULL);
    ObDereferenceObject(threadObject);
  }

  status = context.Status;
  if (!NT_SUCCESS(status)) {
    SK_ERROR("rb_AllocBufThreadStart fail Status:%08lx\n", status);
    goto Undo;
  }
  InterlockedOr(&RingBuf->Flags, RB_FLAG_INITED);
  goto Exit;

Undo:
  rb_FreeRingBufRecord(RingBuf);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS rb_UnInitRingBuf(PSK_RING_BUF RingBuf) {
  LARGE_INTEGER delay;
  ULONG i;

  PAGED_CODE();
  SK_ENTER();
  if (!(SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_INITED)) {
    SK_ERROR("Ring Buffer No Inited\n");
    goto Exit;
  }
  // Writers raise WriterCount before they test the flag; cleared first, it turns new writers away,
  // and those already in are waited for.
  InterlockedAnd(&RingBuf->Flags, ~RB_FLAG_INITED);
  delay.QuadPart = -1000000;  // 100 ms
  while (SK_READ_ORDERED(RingBuf->WriterCount) != 0) KeDelayExecutionThread(KernelMode, FALSE, &delay);

  if (SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_MAPPED) rb_UnmapUserViews(RingBuf, FALSE);
  for (i = 0; i < RingBuf->BufferCount; ++i) {
    if (RingBuf->KrnlRingBufSlot[i]) {
      RtlZeroMemory(RingBuf->KrnlRingBufSlot[i], RB_BUFFER_SIZE);
      ExFreePoolWithTag(RingBuf->KrnlRingBufSlot[i], SK_TAG_RING_BUFFER);
    }
  }
  rb_FreeRingBufRecord(RingBuf);
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS rb_WriteRingBuf(PSK_RING_BUF RingBuf, const VOID *Packet, ULONG Length) {
  NTSTATUS status;
  KIRQL oldIrql;
  PUCHAR buffer;
  PRB_SLOT_HEADER header;
  ULONG processor;
  ULONG slot;
  ULONG start;
  ULONG pass;
  ULONG tries;
  ULONG offset = RB_SLOT_HEADER_SIZE;
  ULONG zero = 0;
  ULONG lost;

  // A record that could not fit even an empty slot.
  if (Length > RB_MAX_PACKET_LENGTH) return STATUS_BUFFER_OVERFLOW;

  // The whole write runs at APC_LEVEL, so that the thread cannot be suspended while it holds a
  // slot. The level is raised directly: it is what a private fast mutex would give, without the lock.
  KeRaiseIrql(APC_LEVEL, &oldIrql);
  InterlockedIncrement(&RingBuf->WriterCount);
  if (!(SK_READ_ORDERED(RingBuf->Flags) & RB_FLAG_INITED)) {
    status = STATUS_BUFFER_OVERFLOW;
    goto Exit;
  }
  processor = KeGetCurrentProcessorNumberEx(NULL);
  if (processor >= RingBuf->BufferCount) {
    status = STATUS_BUFFER_OVERFLOW;
    goto Exit;
  }

  buffer = RingBuf->KrnlRingBufSlot[processor];
  slot = SK_READ_ONCE(RingBuf->RingBufIndex[processor]);
  start = slot;
  if (slot >= RB_SLOT_COUNT) {
    slot = 0;
    start = RB_SLOT_COUNT - 1;
  }
  pass = 0;
  for (;;) {
    for (tries = 0; tries < RB_SLOT_COUNT; ++tries) {
      header = rb_SlotHeader(buffer, slot);
      if (rb_TakeSlot(header)) {
        // The consumer can write this page too: the offset is fetched once, and the write goes
        // by that copy. An offset past the end is an empty slot; so is one inside the header,
        // which only a consumer that broke the protocol can leave.
        offset = SK_READ_ONCE(header->WriteOffset);
        if (offset >= RB_SLOT_SIZE || offset < RB_SLOT_HEADER_SIZE) {
          offset = RB_SLOT_HEADER_SIZE;
          header->WriteOffset = offset;
        }
        if (RB_SLOT_SIZE - offset > Length + RB_RECORD_LENGTH_SIZE) goto Write;
        rb_FreeSlot(header);
      }
      slot = (slot + 1) % RB_SLOT_COUNT;
      SK_WRITE_ONCE(RingBuf->RingBufIndex[processor], slot);
    }

    // No slot had room: empty one, starting two slots before where this write began.
    if (pass > 8) {
      InterlockedIncrement64(rb_DroppedCounter(buffer));
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Exit;
    }
    slot = (start + RB_SLOT_COUNT - 2) % RB_SLOT_COUNT;
    for (tries = 0; tries < RB_SLOT_COUNT; ++tries) {
      header = rb_SlotHeader(buffer, slot);
      if (rb_TakeSlot(header)) break;
      slot = (slot + 1) % RB_SLOT_COUNT;
    }
    if (tries == RB_SLOT_COUNT) {
      SK_WRITE_ONCE(RingBuf->RingBufIndex[processor], 0);
      InterlockedIncrement64(rb_DroppedCounter(buffer));
      DbgPrint("\n[rb_WriteRingBuf] Buf not Available\n");
      status = STATUS_BUFFER_OVERFLOW;
      goto Exit;
    }
    lost = rb_UnreadRecords(header);
    if (lost) InterlockedExchangeAdd64(rb_OverwrittenCounter(buffer), lost);
    header->WriteOffset = RB_SLOT_HEADER_SIZE;
    InterlockedExchange((volatile LONG *)&header->ConsumerWord, 0);
    SK_WRITE_ONCE(RingBuf->RingBufIndex[processor], slot);
    rb_FreeSlot(header);
    DbgPrint("\n[WB][C:%d] Loop Buf %d\n", processor, slot);
    ++pass;
  }

Write:
  RtlCopyMemory((PUCHAR)header + offset, &Length, RB_RECORD_LENGTH_SIZE);
  RtlCopyMemory((PUCHAR)header + offset + RB_RECORD_LENGTH_SIZE, Packet, Length);
  offset += Length + RB_RECORD_LENGTH_SIZE;
  header->WriteOffset = offset;
  if (offset + RB_RECORD_LENGTH_SIZE < RB_SLOT_SIZE) RtlCopyMemory((PUCHAR)header + offset, &zero, sizeof(zero));
  // Stored only when it changes: the entries of all processors share cache lines, and a store of
  // the same value on every write would pass those lines between the processors for nothing.
  if (SK_READ_ONCE(RingBuf->RingBufIndex[processor]) != slot) SK_WRITE_ONCE(RingBuf->RingBufIndex[processor], slot);
  rb_FreeSlot(header);
  status = STATUS_SUCCESS;

Exit:
  InterlockedDecrement(&RingBuf->WriterCount);
  KeLowerIrql(oldIrql);
  return status;
}

VOID rb_QueryRingLosses(PSK_RING_BUF RingBuf, ULONG Index, PULONG64 OverwrittenRecords, PULONG64 DroppedPackets) {
  PUCHAR buffer = (SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_INITED) && Index < RingBuf->BufferCount
                      ? RingBuf->KrnlRingBufSlot[Index]
                      : NULL;
  *OverwrittenRecords = buffer ? (ULONG64)SK_READ_ONCE(*rb_OverwrittenCounter(buffer)) : 0;
  *DroppedPackets = buffer ? (ULONG64)SK_READ_ONCE(*rb_DroppedCounter(buffer)) : 0;
}

NTSTATUS rb_GetRingBufInternal(PSK_RING_BUF RingBuf, PEPROCESS Process, PVOID Output, PULONG Length) {
  NTSTATUS status = STATUS_SUCCESS;
  KAPC_STATE apcState;
  BOOLEAN attached = FALSE;
  PUCHAR output = (PUCHAR)Output;
  ULONG needed;
  ULONG64 address;
  PVOID user;
  ULONG i;
  ULONG j;

  PAGED_CODE();
  SK_ENTER();
  if (!(SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_INITED)) {
    SK_ERROR("Ring Buffer No Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  needed = (ULONG)RING_BUF_MAP_INFO_SIZE(RingBuf->BufferCount);
  if (*Length < needed) {
    *Length = needed;
    SK_ERROR("Buffer too small NeedLength:0x%0x\n", needed);
    status = STATUS_BUFFER_TOO_SMALL;
    goto Exit;
  }

  ExAcquireFastMutex(&RingBuf->MapLock);
  RtlZeroMemory(output, needed);
  RtlCopyMemory(output, &RingBuf->BufferCount, sizeof(ULONG));

  if ((SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_MAPPED) && RingBuf->OwnerProcess == Process) {
    // The owner asks again: it starts over, so the slots it held are emptied, and it gets the
    // views it has.
    SK_ERROR("[P:0x%p] UserBuf Mapped\n", Process);
    rb_ResetReadingSlots(RingBuf);
    for (i = 0; i < RingBuf->BufferCount; ++i) {
      address = (ULONG64)(ULONG_PTR)RingBuf->UserRingBufSlot[i];
      RtlCopyMemory(output + RING_BUF_MAP_INFO_ADDRESS_OFFSET(i), &address, sizeof(address));
      SK_INFO("[%d] KBuf:0x%p UBuf:0x%p\n", i, RingBuf->KrnlRingBufSlot[i], RingBuf->UserRingBufSlot[i]);
    }
    *Length = needed;
    goto Unlock;
  }
  if (SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_MAPPED) rb_ReleaseRingBufInternal(RingBuf, RingBuf->OwnerProcess, FALSE);

  if (Process != PsGetCurrentProcess()) {
    KeStackAttachProcess((PKPROCESS)Process, &apcState);
    attached = TRUE;
  }
  for (i = 0; i < RingBuf->BufferCount; ++i) {
    RingBuf->UserRingBufSlot[i] = NULL;
    status = skt_MapLockedPagesUser(RingBuf->RingBufMdlSlot[i], RB_USER_CACHE_TYPE, &user);
    if (!NT_SUCCESS(status)) {
      SK_ERROR("Ring Buffer 0x%p Mapped fail\n", RingBuf->KrnlRingBufSlot[i]);
      RtlZeroMemory(output, needed);
      for (j = 0; j < i; ++j) {
        MmUnmapLockedPages(RingBuf->UserRingBufSlot[j], RingBuf->RingBufMdlSlot[j]);
        RingBuf->UserRingBufSlot[j] = NULL;
      }
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Detach;
    }
    RingBuf->UserRingBufSlot[i] = user;
    address = (ULONG64)(ULONG_PTR)user;
    RtlCopyMemory(output + RING_BUF_MAP_INFO_ADDRESS_OFFSET(i), &address, sizeof(address));
    DbgPrint("[%d] KBuf:0x%p UBuf:0x%p\n", i, RingBuf->KrnlRingBufSlot[i], user);
    SK_INFO("[%d] KBuf:0x%p UBuf:0x%p\n", i, RingBuf->KrnlRingBufSlot[i], user);
  }
  ObReferenceObject(Process);
  RingBuf->OwnerProcess = Process;
  SK_WRITE_ONCE(RingBuf->OwnerProcessId, PsGetProcessId(Process));
  InterlockedOr(&RingBuf->Flags, RB_FLAG_MAPPED);
  *Length = needed;
  status = STATUS_SUCCESS;
Detach:
  if (attached) KeUnstackDetachProcess(&apcState);
Unlock:
  ExReleaseFastMutex(&RingBuf->MapLock);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS rb_ReleaseRingBufInternal(PSK_RING_BUF RingBuf, PEPROCESS Process, BOOLEAN TakeLock) {
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  if (!(SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_INITED)) {
    SK_ERROR("Ring Buffer No Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  if (TakeLock) ExAcquireFastMutex(&RingBuf->MapLock);
  // Views are unmapped only in the context of the process that has them.
  if (!(SK_READ_ONCE(RingBuf->Flags) & RB_FLAG_MAPPED) || RingBuf->OwnerProcess != Process) {
    SK_ERROR("Ring Buffer No Mapped\n");
    status = STATUS_INVALID_PARAMETER;
  } else {
    rb_UnmapUserViews(RingBuf, TRUE);
  }
  if (TakeLock) ExReleaseFastMutex(&RingBuf->MapLock);
Exit:
  SK_LEAVE(status);
  return status;
}
