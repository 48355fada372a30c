// Completion of the device's requests: every request is completed once, with no priority boost,
// and not touched again by the routine that completed it.
#pragma once

#include "platform/nt.h"

static inline NTSTATUS sk_CompleteIrp(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}
