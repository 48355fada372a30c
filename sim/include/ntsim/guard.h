// The simulator's stand-in for structured exception handling around reads of memory that may fault.
// The Windows build wraps the same copy in __try/__except; here an address that the simulated memory
// manager marks invalid (or the null page) makes the copy fail instead of crashing the host.
#pragma once

#include "ntsim/status.h"

NTSIM_BEGIN_DECLS

// Copies Length bytes, or returns STATUS_ACCESS_VIOLATION (nothing copied) if any source or
// destination byte lies in memory that would fault.
NTSTATUS NtSimGuardedCopy(PVOID Destination, const VOID *Source, SIZE_T Length);

NTSIM_END_DECLS
