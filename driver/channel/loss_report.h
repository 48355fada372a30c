// What the driver could not deliver, counted where the consumer sees it: the ring buffers' lost
// records and dropped packets, and the control packets the queues evicted. The consumer reads all
// of it with IOCTL_SK_QUERY_LOSSES (sentrel/loss_counters.h).
#pragma once

#include "platform/nt.h"

// Writes the answer into Output (OutputLength bytes). STATUS_BUFFER_OVERFLOW when it does not all
// fit: *Information is then the length needed (the header is written when it fits), else the length
// written.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_QueryLossCounters(_Out_ PVOID Output, _In_ ULONG OutputLength, _Out_ PULONG_PTR Information);
