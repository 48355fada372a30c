// The device's read, write, device-control and cleanup requests. Each routine completes its
// request itself, except a read that waits for a packet.
#pragma once

#include "platform/nt.h"

DRIVER_DISPATCH sk_Read;
DRIVER_DISPATCH sk_Write;
DRIVER_DISPATCH sk_DeviceControl;
DRIVER_DISPATCH sk_Cleanup;

// Completes a request with its status and information, with no priority boost.
NTSTATUS sk_CompleteIrp(PIRP Irp, NTSTATUS Status, ULONG_PTR Information);

// Serves a read of the process from its queue, or parks it until a packet comes. Also called by a
// sender for a read it took out of the pending-read queue. STATUS_PENDING when parked.
NTSTATUS sk_ServeRead(PIRP Irp, ULONG ProcessId);
