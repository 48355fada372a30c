// The kernel interface for producer drivers: registration by device object, the table of routines
// (sentrel/interface_krnl.h) they call to send events and borrow packages, the online notice at
// load and the offline call-back at unregistration and unload. Every table routine but
// IsEventEnabled runs under the interface's rundown protection, so that the interface going off
// waits for the calls in progress and refuses later ones before any manager stops.
#pragma once

#include "platform/nt.h"
#include "sentrel/interface_krnl.h"

#define SK_INTERFACE_MGR_INITED 0x1
#define SK_INTERFACE_MGR_OFF 0x2  // gone off at unload: no producer is added any more

// How many package uses the interface keeps for producers (see sk_LendPackage).
#define SK_INTERFACE_LOANS 1024

typedef VOID (*PSK_PRODUCER_OFFLINE)(PDEVICE_OBJECT SentrelDevice);

typedef struct _PRODUCER_INFO {
  USHORT Tag;  // SK_RECORD_PRODUCER_INFO
  USHORT Size;
  ULONG Flags;  // 0
  LIST_ENTRY ListEntry;
  PDEVICE_OBJECT DeviceObject;  // the producer's device, also its identity
  PUNICODE_STRING DeviceName;   // string block: the device's object name
  PSK_PRODUCER_OFFLINE OfflineNotify;
} PRODUCER_INFO, *PPRODUCER_INFO;

static_assert(sizeof(PRODUCER_INFO) == 48, "producer records are 48-byte lookaside entries");

typedef struct _SK_INTERFACE_KRNL_MGR {
  USHORT Tag;  // SK_RECORD_INTERFACE_MGR
  USHORT Size;
  volatile LONG Flags;  // SK_INTERFACE_MGR_*
  EX_RUNDOWN_REF InterfaceRundown;
  PAGED_LOOKASIDE_LIST ProducerLookaside;
  LIST_ENTRY ProducerList;  // newest first
  // Guards ProducerList; taken inside a critical region; no producer routine runs while it is held.
  ERESOURCE ProducerListLock;
  // The package uses lent to producers, newest replacing the oldest (see sk_LendPackage).
  PVOID volatile Loans[SK_INTERFACE_LOANS];
  volatile LONG NextLoan;
} SK_INTERFACE_KRNL_MGR, *PSK_INTERFACE_KRNL_MGR;

extern SK_INTERFACE_KRNL_MGR InterfaceKrnlMgr;

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_InitInterfaceKrnlMgr(void);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UninitInterfaceKrnlMgr(void);
// A producer's registration: its device object and the routine to call when the interface goes
// away. A device object without a name cannot be found again to be told: STATUS_OBJECT_NAME_NOT_FOUND.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddProducerInfo(_In_ PDEVICE_OBJECT DeviceObject, _In_ PSK_PRODUCER_OFFLINE OfflineNotify);
// Removes the newest registration of the device and calls its offline routine; STATUS_INVALID_PARAMETER
// for a device that is not registered.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelProducerInfo(_In_ PDEVICE_OBJECT DeviceObject);
// The table, for a registered device; STATUS_NOT_FOUND (nothing written) for any other.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetInterfaceKrnl(_In_ PDEVICE_OBJECT Identity, _Out_ SK_INTERFACE_KRNL *Table);
// At unload, before anything stops: waits for the calls in progress, refuses later ones, and tells
// every registered producer (once per registration).
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_OffInterfaceKrnl(void);
// At the end of the load: IOCTL_SK_NOTIFY_ONLINE to each known producer driver that is loaded.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_NotifySentrelOnline(void);
