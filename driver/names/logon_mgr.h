// The logon table: one node per logon session seen on the machine, with its user name, user SID
// and terminal-services session. Filled at start from every running process, then from trigger
// processes as they start (dwm.exe of the system folder before Windows 10, any image under
// System32\InputMethod\ from Windows 10 on); a trigger's exit removes its session's node unless it
// is held. Lookups hand a node out referenced; the caller gives it back with the release.
#pragma once

#include "platform/nt.h"

#define SK_LOGON_MGR_INITED 0x1

typedef struct _LOGON_INFO_NODE {
  USHORT Tag;  // SK_RECORD_LOGON_NODE
  USHORT Size;
  volatile LONG RefCount;  // 1 while in the list, +1 per lookup; changed only by interlocked operations
  ULONG64 LogonId;         // the token's authentication id, high part and low part as one number
  ULONG SessionId;
  PUNICODE_STRING UserName;  // string block: "DOMAIN\name" or "name"
  PUNICODE_STRING UserSid;   // string block: "S-1-5-21-..."
  LIST_ENTRY Link;
} LOGON_INFO_NODE, *PLOGON_INFO_NODE;

static_assert(sizeof(LOGON_INFO_NODE) == 56, "nodes are 56-byte lookaside entries");

typedef struct _SK_LOGON_MGR {
  USHORT Tag;  // SK_RECORD_LOGON_MGR
  USHORT Size;
  volatile LONG Flags;       // SK_LOGON_MGR_INITED
  PUNICODE_STRING DwmPath;       // NT path of \SystemRoot\System32\dwm.exe
  PUNICODE_STRING ExplorerPath;  // NT path of \SystemRoot\Explorer.EXE; kept, not read
  PUNICODE_STRING InputMethodPrefix;  // "<system root NT path>\System32\InputMethod\", Windows 10 on
  PAGED_LOOKASIDE_LIST NodeLookaside;  // LOGON_INFO_NODE entries, tag "gTnl"
  // Guards NodeList; taken inside a critical region, shared for walks and count changes, exclusive
  // to insert and remove. Nothing else is locked while it is held.
  ERESOURCE Lock;
  LIST_ENTRY NodeList;  // newest first
  // The add threads started by trigger processes and not yet seen to end (LOGON_ADD_THREAD). The
  // stop waits for each of them, so that no add thread runs the driver's code after it. Guarded
  // by ThreadLock (inside a critical region); never held with Lock.
  ERESOURCE ThreadLock;
  LIST_ENTRY ThreadList;
} SK_LOGON_MGR, *PSK_LOGON_MGR;

// One add thread: its thread object, referenced, to wait on.
typedef struct _LOGON_ADD_THREAD {
  LIST_ENTRY Link;
  PVOID Thread;
} LOGON_ADD_THREAD, *PLOGON_ADD_THREAD;

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_InitLogonMgr(_Inout_ PSK_LOGON_MGR LogonMgr, _In_ PUNICODE_STRING SystemRootNtPath);
// Always succeeds; returns once every add thread has ended.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UninitLogonMgr(_Inout_ PSK_LOGON_MGR LogonMgr);
// Makes sure the process's logon session has a node (asks the security subsystem for its user).
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddLogonInfo(_Inout_ PSK_LOGON_MGR LogonMgr, _In_ PEPROCESS Process);
// The newest node of the logon id, referenced; STATUS_NOT_FOUND when there is none. PASSIVE_LEVEL:
// its log line prints the node's names.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_LookupLogonInfo_LogonId(_Inout_ PSK_LOGON_MGR LogonMgr, _In_ ULONG64 LogonId,
                                    _Out_ PLOGON_INFO_NODE *Node);
// Gives back a lookup's reference; the last reference of a node (count 1) removes it.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_ReleaseLogonInfo_Node(_Inout_ PSK_LOGON_MGR LogonMgr, _In_ PLOGON_INFO_NODE Node);
// Removes the node of the process's logon session unless it is held or is a service session's.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelLogonInfo(_Inout_ PSK_LOGON_MGR LogonMgr, _In_ PEPROCESS Process);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_DelAllLogonInfo(_Inout_ PSK_LOGON_MGR LogonMgr);

// The process notification subscriber: trigger processes add and remove their session's node.
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_LogonNotfiy(_In_ HANDLE ParentId, _In_ HANDLE ProcessId, _In_ BOOLEAN Create);
// The add thread's routine: its context is the referenced trigger process, which it releases.
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_AddLogonInfoThread(_In_ PVOID Process);
// Per running process at start: every session with a process whose image path is known gets a node.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddExistingLogonInfoCallback(_In_ PSYSTEM_PROCESS_INFORMATION ProcessEntry, _In_ PVOID LogonMgr);
