// The simulator's stand-in for structured exception handling around reads of memory that may fault.
// The Windows build wraps the same copy in __try/__except; here an address that the simulated memory
// manager marks invalid (or the null page) makes the copy fail instead of crashing the host.
#pragma once

#include "ntsim/status.h"

NTSIM_BEGIN_DECLS

// Copies Length bytes, or returns STATUS_ACCESS_VIOLATION (nothing copied) if any source or
// destination byte lies in memory that would fault.
NTSTATUS NtSimGuardedCopy(PVOID Destination, const VOID *Source, SIZE_T Length);

// A __try block around calls of kernel routines that raise exceptions (MmMapLockedPagesSpecifyCache
// for a user-mode mapping that cannot be made). Between enter and leave an exception such a routine
// raises is caught: the routine returns at once and leave reports the exception's status (else
// STATUS_SUCCESS). Outside such a block the exception is a verifier violation, as an unhandled
// exception in kernel mode is a bug check. The Windows build uses __try/__except instead.
VOID NtSimEnterGuardedRegion(void);
NTSTATUS NtSimLeaveGuardedRegion(void);

NTSIM_END_DECLS
