// Kernel core: interrupt level, critical regions, threads, dispatcher events.
#pragma once

#include "ntsim/status.h"

typedef struct _KTHREAD *PKTHREAD, *PETHREAD, *PRKTHREAD;
typedef struct _KPROCESS *PKPROCESS, *PEPROCESS, *PRKPROCESS;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 6 } KWAIT_REASON;

// A dispatcher event. The state lives in the record itself, as in the kernel: an event needs no
// teardown and may sit in any non-paged memory.
typedef struct _KEVENT {
  struct {
    UCHAR Type;
    UCHAR Reserved[3];
    volatile LONG SignalState;
    LIST_ENTRY WaitListHead;
  } Header;
} KEVENT, *PKEVENT, *PRKEVENT;

// A full memory barrier: a locked exchange, as on x64.
static inline VOID KeMemoryBarrier(void) {
  static volatile LONG barrier;
  __atomic_exchange_n(&barrier, 0, __ATOMIC_SEQ_CST);
}

#define EVENT_INCREMENT 1
#define IO_NO_INCREMENT 0

// Processors and their groups. A system-wide processor index counts every active processor of
// every group; a processor number is relative to its group.
typedef ULONG_PTR KAFFINITY, *PKAFFINITY;
#define ALL_PROCESSOR_GROUPS 0xffff
#define INVALID_PROCESSOR_INDEX 0xffffffff
#define MAXIMUM_PROC_PER_GROUP 64

typedef struct _PROCESSOR_NUMBER {
  USHORT Group;
  UCHAR Number;
  UCHAR Reserved;
} PROCESSOR_NUMBER, *PPROCESSOR_NUMBER;

typedef struct _GROUP_AFFINITY {
  KAFFINITY Mask;
  USHORT Group;
  USHORT Reserved[3];
} GROUP_AFFINITY, *PGROUP_AFFINITY;

// What KeStackAttachProcess saves for its KeUnstackDetachProcess; sized as the kernel's.
typedef struct _KAPC_STATE {
  LIST_ENTRY ApcListHead[2];
  PKPROCESS Process;
  UCHAR Reserved[8];
} KAPC_STATE, *PKAPC_STATE, *PRKAPC_STATE;

// The page the kernel shares with every process; only the fields drivers read are simulated, at
// their offsets in the kernel's layout.
typedef struct _KUSER_SHARED_DATA {
  UCHAR Reserved[0x26C];
  ULONG NtMajorVersion;  // 6 on Windows 7 and 8, 10 on Windows 10 and 11
  ULONG NtMinorVersion;
} KUSER_SHARED_DATA, *PKUSER_SHARED_DATA;
static_assert(offsetof(KUSER_SHARED_DATA, NtMajorVersion) == 0x26C, "the kernel's layout");

NTSIM_BEGIN_DECLS

KIRQL NTAPI KeGetCurrentIrql(void);
// PAGED_CODE(): the routine it begins must not run above APC_LEVEL (its code may be paged out). The
// checked kernel asserts it; here it is a verifier violation naming the routine.
VOID NtSimPagedCode(PCSTR Routine);
#define PAGED_CODE() NtSimPagedCode(__func__)
VOID NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
VOID NTAPI KeLowerIrql(KIRQL NewIrql);
VOID NTAPI KeEnterCriticalRegion(void);
VOID NTAPI KeLeaveCriticalRegion(void);
BOOLEAN NTAPI KeAreApcsDisabled(void);

PKTHREAD NTAPI KeGetCurrentThread(void);
ULONG NTAPI KeGetCurrentProcessorNumber(void);
PETHREAD NTAPI PsGetCurrentThread(void);
PEPROCESS NTAPI PsGetCurrentProcess(void);
HANDLE NTAPI PsGetCurrentProcessId(void);
HANDLE NTAPI PsGetCurrentThreadId(void);
KPROCESSOR_MODE NTAPI ExGetPreviousMode(void);

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
VOID NTAPI KeClearEvent(PRKEVENT Event);
LONG NTAPI KeResetEvent(PRKEVENT Event);
LONG NTAPI KeReadStateEvent(PRKEVENT Event);
NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

ULONG NTAPI KeQueryActiveProcessorCountEx(USHORT GroupNumber);
USHORT NTAPI KeQueryActiveGroupCount(void);
NTSTATUS NTAPI KeGetProcessorNumberFromIndex(ULONG ProcIndex, PPROCESSOR_NUMBER ProcNumber);
ULONG NTAPI KeGetProcessorIndexFromNumber(PPROCESSOR_NUMBER ProcNumber);
ULONG NTAPI KeGetCurrentProcessorNumberEx(PPROCESSOR_NUMBER ProcNumber);
VOID NTAPI KeSetSystemGroupAffinityThread(PGROUP_AFFINITY Affinity, PGROUP_AFFINITY PreviousAffinity);
VOID NTAPI KeRevertToUserGroupAffinityThread(PGROUP_AFFINITY PreviousAffinity);

VOID NTAPI KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState);
VOID NTAPI KeUnstackDetachProcess(PRKAPC_STATE ApcState);

// The booted machine's shared page (SharedUserData on Windows is its fixed kernel address).
extern KUSER_SHARED_DATA NtSimSharedUserData;
#define SharedUserData (&NtSimSharedUserData)

NTSIM_END_DECLS
