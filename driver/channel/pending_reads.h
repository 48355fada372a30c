// The pending-read queue of the device: reads that found no packet wait here, in a cancel-safe
// queue over a list guarded by a fast mutex, until a sender, a cancellation or the cleanup of
// their handle completes them.
#pragma once

#include "platform/nt.h"

struct _SK_DEVICE_EXTENSION;

// Sets up the list, its lock and the cancel-safe queue in the device's extension.
VOID sk_InitPendingReads(struct _SK_DEVICE_EXTENSION *Extension);
// Parks a read (marking it pending); it can be taken back with sk_UnparkRead until someone else
// removes or cancels it. The removal context lives in the request itself.
NTSTATUS sk_ParkRead(PIRP Irp);
// Takes a parked read back; FALSE if a sender, a cancellation or a cleanup has it already.
BOOLEAN sk_UnparkRead(PIRP Irp);
// The oldest parked read of the handle, taken out of the queue, or null.
PIRP sk_TakePendingRead(PFILE_OBJECT FileObject);
