// The common part of every event the driver reports: the acting process's three packages, the
// packet around them and the event's data record, and the write into the ring buffers.
#pragma once

#include "platform/nt.h"
#include "monitor/package_pack.h"
#include "sentrel/event_data.h"
#include "sentrel/event_types.h"

#define SK_EVENT_MAX_STRINGS 5

// One event being built: the acting process, the data record's fixed part (its string references
// are set here) and its strings, in the order they are stored.
typedef struct _SK_EVENT {
  SK_EVENT_TYPE Type;
  HANDLE ProcessId;   // the acting process: the packet's SrcPid and the packages' process
  PEPROCESS Process;  // the same process's object
  PVOID Data;
  ULONG DataLength;
  SK_PACK_STRING Strings[SK_EVENT_MAX_STRINGS];
  ULONG StringCount;
} SK_EVENT, *PSK_EVENT;

// The packet of the event (paged pool, tag "GtKp", the caller's): header, body header, the three
// packages, the data record. Strings that would not fit one ring-buffer slot are shortened.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_BuildEventPacket(_Inout_ PSK_EVENT Event, _Out_ PUCHAR *Packet, _Out_ PULONG Length);
// Writes the packet into the ring buffers and frees it; a lost event is not retried.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_SendEventPacket(_In_ SK_EVENT_TYPE Type, _In_ PUCHAR Packet, _In_ ULONG Length);
// Whether the counted EVENT_REPORT lines print: then the reporter raises its counter and prints.
BOOLEAN sk_EventReportEnabled(void);
