// One snapshot of system information (the running processes, the loaded modules) in a buffer of
// its own, for the walks of process_query and module_query.
#pragma once

#include "platform/nt.h"

// Queries the class into a new paged-pool buffer (tag Tag) that the caller frees. The buffer starts
// at 16 KB; while the kernel answers STATUS_INFO_LENGTH_MISMATCH it grows to the length reported
// plus 16 KB, since the list may grow between two queries. AllocFailMessage is logged when the
// buffer cannot be had (STATUS_INSUFFICIENT_RESOURCES); any other failure is logged and returned.
NTSTATUS skt_QuerySystemSnapshot(SYSTEM_INFORMATION_CLASS InformationClass, ULONG Tag, const char *AllocFailMessage,
                                 PVOID *Buffer);
