// Declarations of kernel routines and types that the mingw-w64 DDK headers lack.
// Each is exported by ntoskrnl.exe (or ksecdd.sys) on the Windows versions we run on.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Push locks (the mingw-w64 DDK defines EX_PUSH_LOCK but not its exported routines).
NTKERNELAPI VOID FASTCALL ExfAcquirePushLockExclusive(PEX_PUSH_LOCK PushLock);
NTKERNELAPI VOID FASTCALL ExfReleasePushLockExclusive(PEX_PUSH_LOCK PushLock);
NTKERNELAPI VOID FASTCALL ExfAcquirePushLockShared(PEX_PUSH_LOCK PushLock);
NTKERNELAPI VOID FASTCALL ExfReleasePushLockShared(PEX_PUSH_LOCK PushLock);

// Found at run time with MmGetSystemRoutineAddress: older kernels do not export it.
typedef enum _PSCREATEPROCESSNOTIFYTYPE { PsCreateProcessNotifySubsystems = 0 } PSCREATEPROCESSNOTIFYTYPE;

#ifdef __cplusplus
}
#endif
