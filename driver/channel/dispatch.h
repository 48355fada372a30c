// The device's read, write, device-control and cleanup requests. Each routine completes its
// request itself, except a read that waits for a packet.
#pragma once

#include "platform/nt.h"

DRIVER_DISPATCH sk_Read;
DRIVER_DISPATCH sk_Write;
DRIVER_DISPATCH sk_DeviceControl;
DRIVER_DISPATCH sk_Cleanup;

