// Executive: pool, lookaside lists, executive resources, fast mutexes.
#pragma once

#include "ntsim/ke.h"

typedef enum _POOL_TYPE {
  NonPagedPool = 0,
  NonPagedPoolExecute = 0,
  PagedPool = 1,
  NonPagedPoolMustSucceed = 2,
  NonPagedPoolCacheAligned = 4,
  PagedPoolCacheAligned = 5,
  NonPagedPoolNx = 512,
} POOL_TYPE;

typedef PVOID NTAPI ALLOCATE_FUNCTION(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef ALLOCATE_FUNCTION *PALLOCATE_FUNCTION;
typedef VOID NTAPI FREE_FUNCTION(PVOID Buffer);
typedef FREE_FUNCTION *PFREE_FUNCTION;

// Lookaside lists. The simulated list keeps its own bookkeeping behind Impl; the record is sized
// like the kernel's so that embedding it costs the same.
typedef struct _GENERAL_LOOKASIDE_SIM {
  PVOID Impl;
  POOL_TYPE Type;
  ULONG Tag;
  ULONG Size;
  USHORT Depth;
  USHORT MaximumDepth;
  ULONG TotalAllocates;
  ULONG AllocateMisses;
  ULONG TotalFrees;
  ULONG FreeMisses;
  PALLOCATE_FUNCTION Allocate;
  PFREE_FUNCTION Free;
  UCHAR Reserved[64];
} GENERAL_LOOKASIDE_SIM;
typedef struct _PAGED_LOOKASIDE_LIST {
  GENERAL_LOOKASIDE_SIM L;
} PAGED_LOOKASIDE_LIST, *PPAGED_LOOKASIDE_LIST;
typedef struct _NPAGED_LOOKASIDE_LIST {
  GENERAL_LOOKASIDE_SIM L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

// An executive resource: shared/exclusive, recursive for its owner, to be taken only inside a
// critical region (or with special kernel APCs disabled otherwise).
typedef struct _ERESOURCE {
  PVOID Impl;
  UCHAR Reserved[96];
} ERESOURCE, *PERESOURCE;

// A fast mutex: not recursive, raises to APC_LEVEL while held.
typedef struct _FAST_MUTEX {
  volatile LONG Count;
  volatile LONG Waiters;  // threads that wait for it now; in what the kernel's record pads
  PVOID Owner;
  ULONG Contention;
  KEVENT Event;
  ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

// Rundown protection: Count holds the references in units of 2, bit 0 set once a rundown began.
typedef struct _EX_RUNDOWN_REF {
  union {
    volatile ULONG_PTR Count;
    volatile PVOID Ptr;
  };
} EX_RUNDOWN_REF, *PEX_RUNDOWN_REF;

// Push locks: bit 0 is the lock bit, held while owned exclusively.
#define EX_PUSH_LOCK ULONG_PTR
#define PEX_PUSH_LOCK PULONG_PTR

// A UUID and a GUID are one and the same record.
typedef GUID UUID;

typedef NTSTATUS NTAPI EX_CALLBACK_FUNCTION(PVOID CallbackContext, PVOID Argument1, PVOID Argument2);
typedef EX_CALLBACK_FUNCTION *PEX_CALLBACK_FUNCTION;

NTSIM_BEGIN_DECLS

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
VOID NTAPI ExFreePool(PVOID P);

VOID NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                          PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                          USHORT Depth);
VOID NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside);
PVOID NTAPI ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside);
VOID NTAPI ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);
VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                           PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                           USHORT Depth);
VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
PVOID NTAPI ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
VOID NTAPI ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);

NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource);
NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource);
BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
VOID NTAPI ExReleaseResourceLite(PERESOURCE Resource);
BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource);

VOID NTAPI ExInitializeRundownProtection(PEX_RUNDOWN_REF RunRef);
VOID NTAPI ExReInitializeRundownProtection(PEX_RUNDOWN_REF RunRef);
BOOLEAN NTAPI ExAcquireRundownProtection(PEX_RUNDOWN_REF RunRef);
BOOLEAN NTAPI ExAcquireRundownProtectionEx(PEX_RUNDOWN_REF RunRef, ULONG Count);
VOID NTAPI ExReleaseRundownProtection(PEX_RUNDOWN_REF RunRef);
VOID NTAPI ExReleaseRundownProtectionEx(PEX_RUNDOWN_REF RunRef, ULONG Count);
VOID NTAPI ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF RunRef);
VOID NTAPI ExRundownCompleted(PEX_RUNDOWN_REF RunRef);

VOID NTAPI ExInitializePushLock(PEX_PUSH_LOCK PushLock);
VOID FASTCALL ExfAcquirePushLockExclusive(PEX_PUSH_LOCK PushLock);
VOID FASTCALL ExfReleasePushLockExclusive(PEX_PUSH_LOCK PushLock);
VOID FASTCALL ExfAcquirePushLockShared(PEX_PUSH_LOCK PushLock);
VOID FASTCALL ExfReleasePushLockShared(PEX_PUSH_LOCK PushLock);

VOID NTAPI ExInitializeFastMutex(PFAST_MUTEX FastMutex);
VOID NTAPI ExAcquireFastMutex(PFAST_MUTEX FastMutex);
VOID NTAPI ExReleaseFastMutex(PFAST_MUTEX FastMutex);
BOOLEAN NTAPI ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex);

NTSTATUS NTAPI ExUuidCreate(UUID *Uuid);

NTSIM_END_DECLS
