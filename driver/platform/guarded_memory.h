// Reads of memory that may fault (user buffers, image headers, registry-callback data) go only
// through this copy: copy once into kernel memory, then parse the copy.
#pragma once

#include "platform/nt.h"

// Copies Length bytes from Source to Destination; STATUS_ACCESS_VIOLATION if either faults.
NTSTATUS skt_SafeCopyMemory(PVOID Destination, const VOID *Source, SIZE_T Length);
