// The mount point manager's interface (mountmgr.h): the device "\Device\MountPointManager" and the
// control codes a driver sends it. Guarded by version as the DDK's header is.
#ifndef _MOUNTMGR_
#define _MOUNTMGR_

#include "ntsim/io.h"

// The version constants of sdkddkver.h that the guards below compare; the simulated kernel is a
// Windows 10 one unless the build says otherwise.
#ifndef NTDDI_WIN2K
#define NTDDI_WIN2K 0x05000000
#endif
#ifndef NTDDI_WINXP
#define NTDDI_WINXP 0x05010000
#endif
#ifndef NTDDI_VERSION
#define NTDDI_VERSION 0x0A000000
#endif

#if (NTDDI_VERSION >= NTDDI_WIN2K)

#define MOUNTMGR_DEVICE_NAME L"\\Device\\MountPointManager"
#define MOUNTMGRCONTROLTYPE ((ULONG)'m')

// The input of the queries that name one volume device ("\Device\HarddiskVolume3"); not terminated.
typedef struct _MOUNTMGR_TARGET_NAME {
  USHORT DeviceNameLength;  // in bytes
  WCHAR DeviceName[1];
} MOUNTMGR_TARGET_NAME, *PMOUNTMGR_TARGET_NAME;

#endif /* (NTDDI_VERSION >= NTDDI_WIN2K) */

#if (NTDDI_VERSION >= NTDDI_WINXP)

#define IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH CTL_CODE(MOUNTMGRCONTROLTYPE, 12, METHOD_BUFFERED, FILE_ANY_ACCESS)

// The answer: a multi-string (each path NUL-terminated, the list ended by one more NUL).
typedef struct _MOUNTMGR_VOLUME_PATHS {
  ULONG MultiSzLength;  // in bytes, both terminators included
  WCHAR MultiSz[1];
} MOUNTMGR_VOLUME_PATHS, *PMOUNTMGR_VOLUME_PATHS;

#endif /* (NTDDI_VERSION >= NTDDI_WINXP) */

#endif /* _MOUNTMGR_ */
