// The notification multiplexer: the driver registers one routine with each of the kernel's
// process, thread and image-load notification services and fans every notification out to up to
// eight subscribers per kind, which the managers add and remove while notifications run.
//
// A subscriber's routine is never entered after its removal returned; a removal returns only when
// every call of the routine already under way has returned; a subscriber's block is never freed
// while a fan-out uses it. The common path takes no lock: a reference is one compare-exchange on
// the slot's cached count.
#pragma once

#include "platform/nt.h"

// Bits of SentrelData.InitFlags: which kernel registrations are in force.
#define SK_CALLBACK_PLUS_PROCESS 0x1
#define SK_CALLBACK_PLUS_THREAD 0x2
#define SK_CALLBACK_PLUS_IMAGE 0x4

#define SK_CALLBACK_SLOT_COUNT 8
#define SK_CALLBACK_CACHE_MAX 15  // references a slot keeps in reserve (its low four bits)

// Process registration variants, one subscriber list each.
#define SK_PROCESS_NOTIFY_PLAIN 0
#define SK_PROCESS_NOTIFY_EX 1
#define SK_PROCESS_NOTIFY_EX2 2
#define SK_PROCESS_NOTIFY_VARIANTS 3

// One subscription. The rundown reference counts the references held on the block.
typedef struct _SK_CALLBACK_BLOCK {
  EX_RUNDOWN_REF RundownRef;
  PVOID Routine;
} SK_CALLBACK_BLOCK, *PSK_CALLBACK_BLOCK;

// A slot: the block's address (16-byte aligned) in bits 4 and up, the cached count in bits 0-3.
// While a block sits in a slot its rundown reference counts 1 (the slot's own) + the cached count
// + the references of callers using it.
typedef volatile LONG64 SK_CALLBACK_SLOT;

NTSTATUS sk_InitCallbackPlus(void);
NTSTATUS sk_UninitCallbackPlus(void);
NTSTATUS sk_InitProcessCallbackPlus(void);
NTSTATUS sk_InitThreadCallbackPlus(void);
NTSTATUS sk_InitLoadImageCallbackPlus(void);
NTSTATUS sk_UninitProcessCallbackPlus(void);
NTSTATUS sk_UninitThreadCallbackPlus(void);
NTSTATUS sk_UninitLoadImageCallbackPlus(void);

// Subscriptions. The process operation does not test SK_CALLBACK_PLUS_PROCESS: its callers do.
NTSTATUS sk_PsSetCreateProcessNotifyRoutine(ULONG Variant, PVOID Routine, BOOLEAN Remove);
NTSTATUS sk_PsSetCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE Routine);
NTSTATUS sk_PsRemoveCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE Routine);
NTSTATUS sk_PsSetLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE Routine);
NTSTATUS sk_PsRemoveLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE Routine);

// The routines registered with the kernel.
VOID sk_CreateProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create);
VOID sk_CreateProcessNotifyEx(PEPROCESS Process, HANDLE ProcessId, PPS_CREATE_NOTIFY_INFO CreateInfo);
VOID sk_CreateProcessNotifyEx2(PEPROCESS Process, HANDLE ProcessId, PPS_CREATE_NOTIFY_INFO CreateInfo);
VOID sk_CreateThreadNotify(HANDLE ProcessId, HANDLE ThreadId, BOOLEAN Create);
VOID sk_LoadImageNotify(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo);

// The block operations, for the fan-outs and for tests of the slot protocol.
PSK_CALLBACK_BLOCK sk_AllocateCallbackBlock(PVOID Routine);
VOID sk_FreeCallbackBlock(PSK_CALLBACK_BLOCK Block);
PVOID sk_GetCallbackBlockRoutine(PSK_CALLBACK_BLOCK Block);
VOID sk_WaitCallbackBlockRelease(PSK_CALLBACK_BLOCK Block);
PSK_CALLBACK_BLOCK sk_ReferenceCallbackBlock(SK_CALLBACK_SLOT *Slot);
VOID sk_DereferenceCallbackBlock(SK_CALLBACK_SLOT *Slot, PSK_CALLBACK_BLOCK Block);
BOOLEAN sk_ReplaceCallbackBlock(SK_CALLBACK_SLOT *Slot, PSK_CALLBACK_BLOCK NewBlock, PSK_CALLBACK_BLOCK OldBlock);

// State, in static storage.
extern SK_CALLBACK_SLOT ProcessNotifySlots[SK_PROCESS_NOTIFY_VARIANTS][SK_CALLBACK_SLOT_COUNT];
extern volatile LONG ProcessNotifyCount[SK_PROCESS_NOTIFY_VARIANTS];
extern SK_CALLBACK_SLOT ThreadNotifySlots[SK_CALLBACK_SLOT_COUNT];
extern volatile LONG ThreadNotifyCount;
extern SK_CALLBACK_SLOT ImageNotifySlots[SK_CALLBACK_SLOT_COUNT];
extern volatile BOOLEAN ImageNotifyEnabled;
