// Who is behind a process: its primary token's logon session, integrity level, user SID and user
// name. All of them run at PASSIVE_LEVEL; each string they hand out is a string block that the
// caller owns and frees with skt_FreeUnicodeStringSelf.
#pragma once

#include "platform/nt.h"

// The logon ids of the three service sessions, answered without asking the security subsystem.
#define SK_LOGON_ID_NETWORK_SERVICE 0x3E4
#define SK_LOGON_ID_LOCAL_SERVICE 0x3E5
#define SK_LOGON_ID_SYSTEM 0x3E7

// Integrity codes: the mandatory label's RID as a small number (untrusted 0, low 1, medium 2,
// medium plus 3, high 4, system 5, protected process 6). A RID outside that table leaves
// *IntegrityCode as it was, and the answer is still success.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS skt_SeQueryInformationToken(_In_ PEPROCESS Process, _Inout_ PULONG IntegrityCode);
// The token's authentication id: the logon session's LUID as one 64-bit number.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS skt_GetLogonId(_In_ PEPROCESS Process, _Out_ PULONG64 LogonId);
// "S-1-5-21-...".
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS skt_GetUserSid_Process(_In_ PEPROCESS Process, _Out_ PUNICODE_STRING *UserSid);
// "DOMAIN\name", or the bare name when the logon domain is empty. Runs in the calling thread's own
// process, attaching to it for the query when the thread is attached elsewhere.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS skt_GetUserName(_In_ PEPROCESS Process, _Out_ PUNICODE_STRING *UserName);

// Whether a logon id is one of the three service sessions.
static inline BOOLEAN skt_IsServiceLogonId(ULONG64 LogonId) {
  return LogonId == SK_LOGON_ID_NETWORK_SERVICE || LogonId == SK_LOGON_ID_LOCAL_SERVICE || LogonId == SK_LOGON_ID_SYSTEM;
}
