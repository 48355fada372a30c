#include "monitor/callback_plus.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"

#define SK_MODULE SK_TRACE_CALLBACK

#define SK_SLOT_COUNT_MASK ((ULONG64)0xF)

typedef NTSTATUS (*PSK_SET_PROCESS_NOTIFY_EX2)(PSCREATEPROCESSNOTIFYTYPE NotifyType, PVOID NotifyInformation,
                                                BOOLEAN Remove);

SK_CALLBACK_SLOT ProcessNotifySlots[SK_PROCESS_NOTIFY_VARIANTS][SK_CALLBACK_SLOT_COUNT];
volatile LONG ProcessNotifyCount[SK_PROCESS_NOTIFY_VARIANTS];
SK_CALLBACK_SLOT ThreadNotifySlots[SK_CALLBACK_SLOT_COUNT];
volatile LONG ThreadNotifyCount;
SK_CALLBACK_SLOT ImageNotifySlots[SK_CALLBACK_SLOT_COUNT];
volatile BOOLEAN ImageNotifyEnabled;
// Per slot, the routine it was last filled with: a hint that lets a removal reference only the slot
// that holds its routine. A reference on any other slot would take the slots' cache line from every
// processor that is fanning out at that moment.
static PVOID ProcessNotifyRoutines[SK_PROCESS_NOTIFY_VARIANTS][SK_CALLBACK_SLOT_COUNT];
static PVOID ThreadNotifyRoutines[SK_CALLBACK_SLOT_COUNT];
static PVOID ImageNotifyRoutines[SK_CALLBACK_SLOT_COUNT];
// How many slow-path references are between reading a slot and taking their reference. A
// replacement waits for it to fall to zero after its exchange. (A push lock did this before; the
// push-lock routines are documented only from Windows 10 version 1809, and Sentrel loads on 7.)
static volatile LONG CallbackSlowReaders;
static PSK_SET_PROCESS_NOTIFY_EX2 SetProcessNotifyEx2Routine;

static BOOLEAN sk_CallbackKindActive(LONG Bit) { return (SK_READ_ONCE(SentrelData.InitFlags) & Bit) != 0; }

// ---------------------------------------------------------------------------------------------
// Blocks and slots

PSK_CALLBACK_BLOCK sk_AllocateCallbackBlock(PVOID Routine) {
  PSK_CALLBACK_BLOCK block =
      (PSK_CALLBACK_BLOCK)ExAllocatePoolWithTag(PagedPool, sizeof(SK_CALLBACK_BLOCK), SK_TAG_CALLBACK_BLOCK);
  if (!block) return NULL;
  block->Routine = Routine;
  ExInitializeRundownProtection(&block->RundownRef);
  return block;
}

VOID sk_FreeCallbackBlock(PSK_CALLBACK_BLOCK Block) { ExFreePoolWithTag(Block, SK_TAG_CALLBACK_BLOCK); }

PVOID sk_GetCallbackBlockRoutine(PSK_CALLBACK_BLOCK Block) { return Block->Routine; }

VOID sk_WaitCallbackBlockRelease(PSK_CALLBACK_BLOCK Block) { ExWaitForRundownProtectionRelease(&Block->RundownRef); }

static PSK_CALLBACK_BLOCK sk_SlotBlock(ULONG64 Word) { return (PSK_CALLBACK_BLOCK)(ULONG_PTR)(Word & ~SK_SLOT_COUNT_MASK); }

PSK_CALLBACK_BLOCK sk_ReferenceCallbackBlock(SK_CALLBACK_SLOT *Slot) {
  PSK_CALLBACK_BLOCK block;
  ULONG64 word = (ULONG64)SK_READ_ONCE(*Slot);

  // Fast path: take one of the references the slot keeps in reserve.
  while (word & SK_SLOT_COUNT_MASK) {
    ULONG64 seen = (ULONG64)InterlockedCompareExchange64(Slot, (LONG64)(word - 1), (LONG64)word);
    if (seen == word) break;
    word = seen;
  }
  if (word == 0) return NULL;

  if (word & SK_SLOT_COUNT_MASK) {
    block = sk_SlotBlock(word);
    if ((word & SK_SLOT_COUNT_MASK) == 1 &&
        ExAcquireRundownProtectionEx(&block->RundownRef, SK_CALLBACK_CACHE_MAX)) {
      // That was the last reserve: charge the block with a new batch, unless the slot changed.
      ULONG64 current = (ULONG64)SK_READ_ONCE(*Slot);
      for (;;) {
        if (sk_SlotBlock(current) != block || (current & SK_SLOT_COUNT_MASK) != 0) {
          ExReleaseRundownProtectionEx(&block->RundownRef, SK_CALLBACK_CACHE_MAX);
          break;
        }
        ULONG64 seen = (ULONG64)InterlockedCompareExchange64(Slot, (LONG64)(current + SK_CALLBACK_CACHE_MAX),
                                                            (LONG64)current);
        if (seen == current) break;
        current = seen;
      }
    }
    return block;
  }

  // Slow path: the slot holds a block with an empty reserve. Being counted keeps a replacement
  // from completing between reading the address and taking the reference: the interlocked add
  // comes before the read, so a replacer whose exchange follows the read sees the count. The
  // critical region keeps the thread from being suspended while replacers wait on it.
  KeEnterCriticalRegion();
  InterlockedIncrement(&CallbackSlowReaders);
  block = sk_SlotBlock((ULONG64)SK_READ_ONCE(*Slot));
  if (block && !ExAcquireRundownProtection(&block->RundownRef)) block = NULL;  // being run down
  InterlockedDecrement(&CallbackSlowReaders);
  KeLeaveCriticalRegion();
  return block;
}

VOID sk_DereferenceCallbackBlock(SK_CALLBACK_SLOT *Slot, PSK_CALLBACK_BLOCK Block) {
  ULONG64 word = (ULONG64)SK_READ_ONCE(*Slot);
  // Back into the reserve while the slot still holds the block and has room.
  while ((word ^ (ULONG64)(ULONG_PTR)Block) < SK_CALLBACK_CACHE_MAX) {
    ULONG64 seen = (ULONG64)InterlockedCompareExchange64(Slot, (LONG64)(word + 1), (LONG64)word);
    if (seen == word) return;
    word = seen;
  }
  ExReleaseRundownProtection(&Block->RundownRef);
}

BOOLEAN sk_ReplaceCallbackBlock(SK_CALLBACK_SLOT *Slot, PSK_CALLBACK_BLOCK NewBlock, PSK_CALLBACK_BLOCK OldBlock) {
  ULONG64 newWord = 0;
  ULONG64 word;

  if (NewBlock) {
    // 15 for the reserve, 1 for the slot itself.
    if (!ExAcquireRundownProtectionEx(&NewBlock->RundownRef, SK_CALLBACK_CACHE_MAX + 1)) return FALSE;
    newWord = (ULONG64)(ULONG_PTR)NewBlock | SK_CALLBACK_CACHE_MAX;
  }
  word = (ULONG64)SK_READ_ONCE(*Slot);
  for (;;) {
    // The slot must hold OldBlock, with any reserve; an empty slot for a null OldBlock.
    if ((word ^ (ULONG64)(ULONG_PTR)OldBlock) > SK_CALLBACK_CACHE_MAX) {
      if (NewBlock) ExReleaseRundownProtectionEx(&NewBlock->RundownRef, SK_CALLBACK_CACHE_MAX + 1);
      return FALSE;
    }
    ULONG64 seen = (ULONG64)InterlockedCompareExchange64(Slot, (LONG64)newWord, (LONG64)word);
    if (seen == word) break;
    word = seen;
  }
  if (OldBlock) {
    // Wait out a slow-path reference that may have read the old address before the exchange: once
    // the count is zero, each such reader holds its reference already or failed to take it. Slow
    // paths are short and rare (a reserve runs dry once per SK_CALLBACK_CACHE_MAX references).
    SK_FULL_BARRIER();
    while (SK_READ_ONCE(CallbackSlowReaders) != 0) {
      LARGE_INTEGER interval;
      interval.QuadPart = -10 * 1000;  // 1 ms
      KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    // What the slot held for the old block: its reserve and its own reference.
    ExReleaseRundownProtectionEx(&OldBlock->RundownRef, (ULONG)(word & SK_SLOT_COUNT_MASK) + 1);
  }
  return TRUE;
}

// ---------------------------------------------------------------------------------------------
// Adding, removing, purging

static NTSTATUS sk_AddToList(SK_CALLBACK_SLOT *Slots, PVOID *Routines, PVOID Routine, NTSTATUS FullStatus,
                             BOOLEAN *Added) {
  PSK_CALLBACK_BLOCK block = sk_AllocateCallbackBlock(Routine);
  ULONG i;
  *Added = FALSE;
  if (!block) return STATUS_INSUFFICIENT_RESOURCES;
  for (i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    if (sk_ReplaceCallbackBlock(&Slots[i], block, NULL)) {
      SK_WRITE_ONCE(Routines[i], Routine);
      *Added = TRUE;
      return STATUS_SUCCESS;
    }
  }
  sk_FreeCallbackBlock(block);
  return FullStatus;
}

// Takes slot I out of the list if it holds Routine, and returns its block, or null.
static PSK_CALLBACK_BLOCK sk_TakeSlotIfRoutine(SK_CALLBACK_SLOT *Slots, ULONG I, PVOID Routine) {
  PSK_CALLBACK_BLOCK block = sk_ReferenceCallbackBlock(&Slots[I]);
  if (!block) return NULL;
  if (sk_GetCallbackBlockRoutine(block) == Routine && sk_ReplaceCallbackBlock(&Slots[I], NULL, block)) return block;
  sk_DereferenceCallbackBlock(&Slots[I], block);
  return NULL;
}

// Takes a slot holding Routine out of the list and returns its block, or null. The slots whose
// hint names Routine are tried first, lowest first; only when none of them holds it (a hint
// overtaken by concurrent adds) is every slot tried, so whether a routine is found never depends
// on the hints.
static PSK_CALLBACK_BLOCK sk_TakeFromList(SK_CALLBACK_SLOT *Slots, PVOID *Routines, PVOID Routine) {
  PSK_CALLBACK_BLOCK block;
  ULONG i;
  for (i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    if (SK_READ_ONCE(Routines[i]) != Routine) continue;
    block = sk_TakeSlotIfRoutine(Slots, i, Routine);
    if (block) return block;
  }
  for (i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    block = sk_TakeSlotIfRoutine(Slots, i, Routine);
    if (block) return block;
  }
  return NULL;
}

// The slot no longer holds the block: drop the finder's reference (straight to the rundown
// reference, as no slot keeps a reserve for it any more), wait for the fan-outs still using it,
// free it.
static VOID sk_RetireBlock(PSK_CALLBACK_BLOCK Block) {
  ExReleaseRundownProtection(&Block->RundownRef);
  sk_WaitCallbackBlockRelease(Block);
  sk_FreeCallbackBlock(Block);
}

static VOID sk_PurgeList(SK_CALLBACK_SLOT *Slots, volatile LONG *Count) {
  ULONG i;
  for (i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    PSK_CALLBACK_BLOCK block = sk_ReferenceCallbackBlock(&Slots[i]);
    if (!block) continue;
    if (sk_ReplaceCallbackBlock(&Slots[i], NULL, block)) {
      if (Count) InterlockedDecrement(Count);
      sk_RetireBlock(block);
    } else {
      sk_DereferenceCallbackBlock(&Slots[i], block);
    }
  }
}

static VOID sk_RemoveAllProcessNotifyRoutines(void) {
  ULONG variant;
  for (variant = 0; variant < SK_PROCESS_NOTIFY_VARIANTS; ++variant) {
    sk_PurgeList(ProcessNotifySlots[variant], &ProcessNotifyCount[variant]);
  }
}

NTSTATUS sk_PsSetCreateProcessNotifyRoutine(ULONG Variant, PVOID Routine, BOOLEAN Remove) {
  NTSTATUS status;
  BOOLEAN added;
  PSK_CALLBACK_BLOCK block;

  PAGED_CODE();
  SK_ENTER();
  if (Variant >= SK_PROCESS_NOTIFY_VARIANTS) {
    status = STATUS_INVALID_PARAMETER;
  } else if (!Remove) {
    status = sk_AddToList(ProcessNotifySlots[Variant], ProcessNotifyRoutines[Variant], Routine, STATUS_INVALID_PARAMETER,
                          &added);
    if (added) InterlockedIncrement(&ProcessNotifyCount[Variant]);
  } else if ((block = sk_TakeFromList(ProcessNotifySlots[Variant], ProcessNotifyRoutines[Variant], Routine)) == NULL) {
    status = STATUS_PROCEDURE_NOT_FOUND;
  } else {
    InterlockedDecrement(&ProcessNotifyCount[Variant]);
    sk_RetireBlock(block);
    status = STATUS_SUCCESS;
  }
  SK_LEAVE(status);
  return status;
}

// Adding and removing for the thread and image kinds, which need their kernel registration in
// force. A list without a count (image) is marked enabled instead.
static NTSTATUS sk_AddKindSubscriber(LONG KindBit, SK_CALLBACK_SLOT *Slots, PVOID *Routines, PVOID Routine,
                                     volatile LONG *Count) {
  NTSTATUS status;
  BOOLEAN added;
  if (!sk_CallbackKindActive(KindBit)) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_AddToList(Slots, Routines, Routine, STATUS_INSUFFICIENT_RESOURCES, &added);
  if (added && Count) InterlockedIncrement(Count);
  if (added && !Count) SK_WRITE_ONCE(ImageNotifyEnabled, (BOOLEAN)TRUE);
  return status;
}

static NTSTATUS sk_RemoveKindSubscriber(LONG KindBit, SK_CALLBACK_SLOT *Slots, PVOID *Routines, PVOID Routine,
                                        volatile LONG *Count) {
  PSK_CALLBACK_BLOCK block;
  if (!sk_CallbackKindActive(KindBit)) return STATUS_INSUFFICIENT_RESOURCES;
  block = sk_TakeFromList(Slots, Routines, Routine);
  if (!block) return STATUS_PROCEDURE_NOT_FOUND;
  if (Count) InterlockedDecrement(Count);
  sk_RetireBlock(block);
  return STATUS_SUCCESS;
}

NTSTATUS sk_PsSetCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE Routine) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_AddKindSubscriber(SK_CALLBACK_PLUS_THREAD, ThreadNotifySlots, ThreadNotifyRoutines, (PVOID)Routine,
                                &ThreadNotifyCount);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_PsRemoveCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE Routine) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_RemoveKindSubscriber(SK_CALLBACK_PLUS_THREAD, ThreadNotifySlots, ThreadNotifyRoutines, (PVOID)Routine,
                                   &ThreadNotifyCount);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_PsSetLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE Routine) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_AddKindSubscriber(SK_CALLBACK_PLUS_IMAGE, ImageNotifySlots, ImageNotifyRoutines, (PVOID)Routine, NULL);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_PsRemoveLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE Routine) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_RemoveKindSubscriber(SK_CALLBACK_PLUS_IMAGE, ImageNotifySlots, ImageNotifyRoutines, (PVOID)Routine, NULL);
  SK_LEAVE(status);
  return status;
}

// ---------------------------------------------------------------------------------------------
// Fan-outs: a reference per subscriber for the length of one call, no lock.

static VOID sk_CallProcessNotifyRoutines(ULONG Variant, PVOID Argument1, HANDLE ProcessId, PVOID Argument3) {
  ULONG i;
  if (!sk_CallbackKindActive(SK_CALLBACK_PLUS_PROCESS) || SK_READ_ONCE(ProcessNotifyCount[Variant]) == 0) return;
  for (i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    SK_CALLBACK_SLOT *slot = &ProcessNotifySlots[Variant][i];
    PSK_CALLBACK_BLOCK block = sk_ReferenceCallbackBlock(slot);
    if (!block) continue;
    if (Variant == SK_PROCESS_NOTIFY_PLAIN) {
      ((PCREATE_PROCESS_NOTIFY_ROUTINE)sk_GetCallbackBlockRoutine(block))((HANDLE)Argument1, ProcessId,
                                                                          (BOOLEAN)(ULONG_PTR)Argument3);
    } else {
      ((PCREATE_PROCESS_NOTIFY_ROUTINE_EX)sk_GetCallbackBlockRoutine(block))((PEPROCESS)Argument1, ProcessId,
                                                                             (PPS_CREATE_NOTIFY_INFO)Argument3);
    }
    sk_DereferenceCallbackBlock(slot, block);
  }
}

VOID sk_CreateProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  sk_CallProcessNotifyRoutines(SK_PROCESS_NOTIFY_PLAIN, ParentId, ProcessId, (PVOID)(ULONG_PTR)Create);
}

VOID sk_CreateProcessNotifyEx(PEPROCESS Process, HANDLE ProcessId, PPS_CREATE_NOTIFY_INFO CreateInfo) {
  sk_CallProcessNotifyRoutines(SK_PROCESS_NOTIFY_EX, Process, ProcessId, CreateInfo);
}

VOID sk_CreateProcessNotifyEx2(PEPROCESS Process, HANDLE ProcessId, PPS_CREATE_NOTIFY_INFO CreateInfo) {
  sk_CallProcessNotifyRoutines(SK_PROCESS_NOTIFY_EX2, Process, ProcessId, CreateInfo);
}

VOID sk_CreateThreadNotify(HANDLE ProcessId, HANDLE ThreadId, BOOLEAN Create) {
  ULONG i;
  if (!sk_CallbackKindActive(SK_CALLBACK_PLUS_THREAD) || SK_READ_ONCE(ThreadNotifyCount) == 0) return;
  for (i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    PSK_CALLBACK_BLOCK block = sk_ReferenceCallbackBlock(&ThreadNotifySlots[i]);
    if (!block) continue;
    ((PCREATE_THREAD_NOTIFY_ROUTINE)sk_GetCallbackBlockRoutine(block))(ProcessId, ThreadId, Create);
    sk_DereferenceCallbackBlock(&ThreadNotifySlots[i], block);
  }
}

VOID sk_LoadImageNotify(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo) {
  ULONG i;
  if (!sk_CallbackKindActive(SK_CALLBACK_PLUS_IMAGE) || !SK_READ_ONCE(ImageNotifyEnabled)) return;
  for (i = 0; i < SK_CALLBACK_SLOT_COUNT; ++i) {
    PSK_CALLBACK_BLOCK block = sk_ReferenceCallbackBlock(&ImageNotifySlots[i]);
    if (!block) continue;
    ((PLOAD_IMAGE_NOTIFY_ROUTINE)sk_GetCallbackBlockRoutine(block))(FullImageName, ProcessId, ImageInfo);
    sk_DereferenceCallbackBlock(&ImageNotifySlots[i], block);
  }
}

// ---------------------------------------------------------------------------------------------
// Start and stop

NTSTATUS sk_InitProcessCallbackPlus(void) {
  NTSTATUS status = STATUS_SUCCESS;
  UNICODE_STRING name;

  PAGED_CODE();
  SK_ENTER();
  if (sk_CallbackKindActive(SK_CALLBACK_PLUS_PROCESS)) goto Exit;
  RtlZeroMemory((PVOID)ProcessNotifySlots, sizeof(ProcessNotifySlots));
  RtlZeroMemory((PVOID)ProcessNotifyRoutines, sizeof(ProcessNotifyRoutines));
  RtlZeroMemory((PVOID)ProcessNotifyCount, sizeof(ProcessNotifyCount));

  status = PsSetCreateProcessNotifyRoutine(sk_CreateProcessNotify, FALSE);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsSetCreateProcessNotifyRoutine", status);
    goto Exit;
  }
  status = PsSetCreateProcessNotifyRoutineEx(sk_CreateProcessNotifyEx, FALSE);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsSetCreateProcessNotifyRoutineEx", status);
    PsSetCreateProcessNotifyRoutine(sk_CreateProcessNotify, TRUE);
    goto Exit;
  }
  RtlInitUnicodeString(&name, L"PsSetCreateProcessNotifyRoutineEx2");
  SetProcessNotifyEx2Routine = (PSK_SET_PROCESS_NOTIFY_EX2)MmGetSystemRoutineAddress(&name);
  if (SetProcessNotifyEx2Routine) {
    status = SetProcessNotifyEx2Routine(PsCreateProcessNotifySubsystems, (PVOID)sk_CreateProcessNotifyEx2, FALSE);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("PsSetCreateProcessNotifyRoutineEx2", status);
      PsSetCreateProcessNotifyRoutineEx(sk_CreateProcessNotifyEx, TRUE);
      PsSetCreateProcessNotifyRoutine(sk_CreateProcessNotify, TRUE);
      SetProcessNotifyEx2Routine = NULL;
      goto Exit;
    }
  }
  InterlockedOr(&SentrelData.InitFlags, SK_CALLBACK_PLUS_PROCESS);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_InitThreadCallbackPlus(void) {
  NTSTATUS status = STATUS_SUCCESS;
  PAGED_CODE();
  SK_ENTER();
  if (!sk_CallbackKindActive(SK_CALLBACK_PLUS_THREAD)) {
    RtlZeroMemory((PVOID)ThreadNotifySlots, sizeof(ThreadNotifySlots));
    RtlZeroMemory((PVOID)ThreadNotifyRoutines, sizeof(ThreadNotifyRoutines));
    ThreadNotifyCount = 0;
    status = PsSetCreateThreadNotifyRoutine(sk_CreateThreadNotify);
    if (!NT_SUCCESS(status)) SK_FAIL("PsSetCreateThreadNotifyRoutine", status);
    else InterlockedOr(&SentrelData.InitFlags, SK_CALLBACK_PLUS_THREAD);
  }
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_InitLoadImageCallbackPlus(void) {
  NTSTATUS status = STATUS_SUCCESS;
  PAGED_CODE();
  SK_ENTER();
  if (!sk_CallbackKindActive(SK_CALLBACK_PLUS_IMAGE)) {
    RtlZeroMemory((PVOID)ImageNotifySlots, sizeof(ImageNotifySlots));
    RtlZeroMemory((PVOID)ImageNotifyRoutines, sizeof(ImageNotifyRoutines));
    status = PsSetLoadImageNotifyRoutine(sk_LoadImageNotify);
    if (!NT_SUCCESS(status)) SK_FAIL("PsSetLoadImageNotifyRoutine", status);
    else InterlockedOr(&SentrelData.InitFlags, SK_CALLBACK_PLUS_IMAGE);
  }
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitProcessCallbackPlus(void) {
  PAGED_CODE();
  SK_ENTER();
  if (!sk_CallbackKindActive(SK_CALLBACK_PLUS_PROCESS)) {
    if (sk_LogPrefix(-1, SK_LEVEL_INFO, SK_MODULE)) DbgPrint("sk_UninitProcessCallbackPlus United -> %08lx\n", STATUS_SUCCESS);
    return STATUS_SUCCESS;
  }
  // Cleared first: fan-outs that start from now on return at once; those under way finish and
  // the purge waits for them through the blocks' rundown references.
  InterlockedAnd(&SentrelData.InitFlags, ~SK_CALLBACK_PLUS_PROCESS);
  PsSetCreateProcessNotifyRoutine(sk_CreateProcessNotify, TRUE);
  PsSetCreateProcessNotifyRoutineEx(sk_CreateProcessNotifyEx, TRUE);
  if (SetProcessNotifyEx2Routine) {
    SetProcessNotifyEx2Routine(PsCreateProcessNotifySubsystems, (PVOID)sk_CreateProcessNotifyEx2, TRUE);
    SetProcessNotifyEx2Routine = NULL;
  }
  sk_RemoveAllProcessNotifyRoutines();
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS sk_UninitThreadCallbackPlus(void) {
  PAGED_CODE();
  SK_ENTER();
  if (sk_CallbackKindActive(SK_CALLBACK_PLUS_THREAD)) {
    InterlockedAnd(&SentrelData.InitFlags, ~SK_CALLBACK_PLUS_THREAD);
    PsRemoveCreateThreadNotifyRoutine(sk_CreateThreadNotify);
    sk_PurgeList(ThreadNotifySlots, &ThreadNotifyCount);
  }
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS sk_UninitLoadImageCallbackPlus(void) {
  PAGED_CODE();
  SK_ENTER();
  if (!sk_CallbackKindActive(SK_CALLBACK_PLUS_IMAGE)) {
    if (sk_LogPrefix(-1, SK_LEVEL_INFO, SK_MODULE)) DbgPrint("sk_UninitLoadImageCallbackPlus Uninited -> %08lx\n", STATUS_SUCCESS);
    return STATUS_SUCCESS;
  }
  SK_WRITE_ONCE(ImageNotifyEnabled, (BOOLEAN)FALSE);
  InterlockedAnd(&SentrelData.InitFlags, ~SK_CALLBACK_PLUS_IMAGE);
  PsRemoveLoadImageNotifyRoutine(sk_LoadImageNotify);
  sk_PurgeList(ImageNotifySlots, NULL);
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS sk_InitCallbackPlus(void) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_InitProcessCallbackPlus();
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_InitProcessCallbackPlus", status);
    goto Exit;
  }
  status = sk_InitThreadCallbackPlus();
  if (!NT_SUCCESS(status)) {
    sk_UninitProcessCallbackPlus();
    goto Exit;
  }
  status = sk_InitLoadImageCallbackPlus();
  if (!NT_SUCCESS(status)) {
    sk_UninitThreadCallbackPlus();
    sk_UninitProcessCallbackPlus();
  }
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitCallbackPlus(void) {
  PAGED_CODE();
  SK_ENTER();
  sk_UninitProcessCallbackPlus();
  sk_UninitThreadCallbackPlus();
  sk_UninitLoadImageCallbackPlus();
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
