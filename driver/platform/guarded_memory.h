// Reads of memory that may fault (user buffers, image headers, registry-callback data) go only
// through this copy: copy once into kernel memory, then parse the copy. Kernel routines that raise
// exceptions instead of returning a failure are called here too, inside the same kind of guard.
#pragma once

#include "platform/nt.h"

// Copies Length bytes from Source to Destination; a fault returns its exception code
// (STATUS_ACCESS_VIOLATION for an unmapped address).
NTSTATUS skt_SafeCopyMemory(PVOID Destination, const VOID *Source, SIZE_T Length);

// The same copy of memory that a process's user-mode code owns: the whole range must lie in user
// space (as ProbeForRead checks), so that an address the process chose cannot make the driver
// copy kernel memory out. A range beyond user space gives STATUS_ACCESS_VIOLATION.
NTSTATUS skt_SafeCopyUserMemory(PVOID Destination, const VOID *Source, SIZE_T Length);

// Maps the pages an MDL describes into the current process's user space. The kernel raises an
// exception when a user-mode mapping cannot be made, so the call runs guarded: any failure comes back
// as a status and *UserAddress stays null.
NTSTATUS skt_MapLockedPagesUser(PMDL Mdl, MEMORY_CACHING_TYPE CacheType, PVOID *UserAddress);
