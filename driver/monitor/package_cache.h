// The package cache: one process-information and one process-tree package per process id, one
// logon package per logon session, built the first time something needs them and then only
// copied. A process's packages go at its exit; a logon package when the session's dwm.exe exits
// or the logon table drops the session; everything at stop.
//
// A package handed out (a lookup or a get-or-build) carries one use for the caller, who copies it
// and gives the use back with sk_ReleasePackage: an exit that deletes the entry meanwhile only
// drops the cache's own use, and the package is freed when the last use is given back.
#pragma once

#include "platform/nt.h"
#include "monitor/process_mgr.h"
#include "names/logon_mgr.h"

#define SK_PACKAGE_CACHE_INITED 0x1

typedef struct _SK_PACKAGE_CACHE_MGR {
  USHORT Tag;  // SK_RECORD_PACKAGE_CACHE_MGR
  USHORT Size;
  volatile LONG Flags;  // SK_PACKAGE_CACHE_INITED
  FAST_MUTEX InitLock;  // taken to clear the inited bit at stop
  // Each table is guarded by its own resource, taken inside a critical region: shared to look up,
  // exclusive to add and delete. No two of them are ever held at once.
  RTL_AVL_TABLE ProcInfoCache;  // PACKAGE_CACHE_ENTRY by process id
  ERESOURCE ProcInfoLock;
  RTL_AVL_TABLE LogonInfoCache;  // by logon id
  ERESOURCE LogonInfoLock;
  RTL_AVL_TABLE ProcTreeInfoCache;  // by process id
  ERESOURCE ProcTreeInfoLock;
} SK_PACKAGE_CACHE_MGR, *PSK_PACKAGE_CACHE_MGR;

// The element of each table: the entry owns one use of its package.
typedef struct _PACKAGE_CACHE_ENTRY {
  ULONG64 Key;  // process id, or logon id
  PVOID Package;
  ULONG Length;
} PACKAGE_CACHE_ENTRY, *PPACKAGE_CACHE_ENTRY;

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_InitPackageCacheMgr(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UninitPackageCacheMgr(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr);

// Add: on success the cache takes over the caller's use of Package. A key already present (or a
// failed insert) is STATUS_INSUFFICIENT_RESOURCES and leaves the package the caller's.
// Lookup: the package with one more use, the caller's; STATUS_NOT_FOUND.
// Delete: success whether or not the key was there.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddProcInfoCache(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 ProcessId, _In_ PVOID Package,
                             _In_ ULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_LookupProcInfoPack(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 ProcessId,
                               _Out_ PVOID *Package, _Out_ PULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelProcInfoCache(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 ProcessId);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddLogonInfoCache(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 LogonId, _In_ PVOID Package,
                              _In_ ULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_LookupLogonInfoPack(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 LogonId,
                                _Out_ PVOID *Package, _Out_ PULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelLogonInfoCacheInternal(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 LogonId);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddProcTreeInfoCache(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 ProcessId,
                                 _In_ PVOID Package, _In_ ULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_LookupProcTreeInfoPack(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 ProcessId,
                                   _Out_ PVOID *Package, _Out_ PULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelProcTreeInfoCache(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _In_ ULONG64 ProcessId);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_DelAllPackageCache(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr);

// Get-or-build: the cached package, built and added first if it is not there; one use for the
// caller, given back with sk_ReleasePackage once the package is copied.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetProcInfoPackage(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _Inout_ PSK_PROCESS_MGR ProcessMgr,
                               _In_ HANDLE ProcessId, _Out_ PVOID *Package, _Out_ PULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetProcTreeInfoPackage(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _Inout_ PSK_PROCESS_MGR ProcessMgr,
                                   _In_ HANDLE ProcessId, _Out_ PVOID *Package, _Out_ PULONG Length);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetLogonInfoPackage(_Inout_ PSK_PACKAGE_CACHE_MGR PackageCacheMgr, _Inout_ PSK_LOGON_MGR LogonMgr,
                                _In_ ULONG64 LogonId, _Out_ PVOID *Package, _Out_ PULONG Length);
// The logon package of the session of the process's primary token.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetLogonInfo_Process(_In_ PEPROCESS Process, _Out_ PVOID *Package, _Out_ PULONG Length);

// IOCTL_SK_QUERY_PACKCOMINFO: the answer's header and the process's three packages into Buffer.
// Too short a buffer: STATUS_BUFFER_OVERFLOW, *ReturnLength the needed length, nothing written.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_QueryPackCommonInformation(_In_ ULONG ProcessId, _In_ ULONG OutputLength,
                                       _Out_ PVOID Buffer, _Out_ PULONG ReturnLength);

// The process subscriber: an exiting process's packages go (and its session's, for dwm.exe).
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_PackageCacheProcessNotify(_In_ HANDLE ParentId, _In_ HANDLE ProcessId, _In_ BOOLEAN Create);
