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

NTSIM_BEGIN_DECLS

KIRQL NTAPI KeGetCurrentIrql(void);
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

NTSIM_END_DECLS
