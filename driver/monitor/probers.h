// The probers: subscribers of the thread and image-load notifications that decide whether a
// remote thread, an image load or a driver load is wanted (online, not the consumer's, enabled in
// the event mask, not passed by a white rule or singled out by a black one) and hand it to its
// reporter. A driver load seen in the System process is the service control manager's doing: it
// is attributed to services.exe, found at start.
#pragma once

#include "platform/nt.h"

struct _SENTREL_DATA;

extern BOOLEAN ThreadProberInited;  // both probers subscribed
// services.exe of the system folder, found at prober start: referenced until prober stop, so that
// the pointer stays a process object while recorded. Null when it was not running then.
extern PEPROCESS ServiceProc;
extern HANDLE ServicePid;

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_InitPsThreadProber(_Inout_ struct _SENTREL_DATA *Data);
// Always succeeds; clears SentrelOnline first.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UninitPsThreadProber(void);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_FindServiceProc(_Inout_ struct _SENTREL_DATA *Data);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_FindServiceProcCallback(_In_ PSYSTEM_PROCESS_INFORMATION ProcessEntry, _In_ PVOID Context);

_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_ThreadProber(_In_ HANDLE ProcessId, _In_ HANDLE ThreadId, _In_ BOOLEAN Create);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_xxLoadImageProber(_In_opt_ PUNICODE_STRING FullImageName, _In_ HANDLE ProcessId, _In_ PIMAGE_INFO ImageInfo);

// Who loaded a driver: the current process, referenced, or services.exe when the load runs in the
// System process. STATUS_INVALID_PARAMETER when services.exe is not known (or no longer runs).
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetDriverLoadActor(_Out_ PEPROCESS *Process, _Out_ PHANDLE ProcessId);
