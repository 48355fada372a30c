// Packing: the process-information and logon packages, built from the process and logon tables
// (the process-tree package is built by the process table itself). Each result is a package block
// (monitor/package_block.h) with one use, the caller's.
#pragma once

#include "platform/nt.h"
#include "monitor/process_mgr.h"
#include "names/logon_mgr.h"

// The process's package: its node and its creator's node (when the creator is known). Strings
// that would make the package longer than SK_PROC_INFO_PACKAGE_MAX are shortened.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_PackProcessInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ PEPROCESS Process, _Out_ PVOID *Package,
                            _Out_ PULONG Length);
// The logon session's package: user name and SID text, within SK_LOGON_INFO_PACKAGE_MAX.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_PackLogonInfo(_Inout_ PSK_LOGON_MGR LogonMgr, _In_ ULONG64 LogonId, _Out_ PVOID *Package,
                          _Out_ PULONG Length);

// One string of a package being packed: its characters and the reference that will name it.
typedef struct _SK_PACK_STRING {
  const WCHAR *Buffer;
  ULONG Length;        // bytes; shortened by sk_FitPackStrings
  SK_STRING_REF *Ref;  // inside the package; left 0/0 for an empty string
} SK_PACK_STRING, *PSK_PACK_STRING;

// Shortens the longest strings to one common length (whole characters, never half a surrogate
// pair) until all of them fit Budget bytes; shorter strings stay whole. TRUE if any was shortened.
BOOLEAN sk_FitPackStrings(_Inout_ PSK_PACK_STRING Strings, _In_ ULONG Count, _In_ ULONG Budget);
// A counted string, or nothing.
VOID sk_SetPackString(_Out_ PSK_PACK_STRING String, _In_opt_ PCUNICODE_STRING Source);
// A drive-letter image path without its "\??\". A path that does not begin with it (a network
// path, kept in its kernel form) is stored whole rather than losing four real characters.
VOID sk_SetPackImagePath(_Out_ PSK_PACK_STRING String, _In_opt_ PPATH_CACHE_NODE Path);
// Copies the strings in order from Offset on and sets their references; returns the end offset.
ULONG sk_PutPackStrings(_Inout_ PUCHAR Package, _In_ ULONG Offset, _In_ PSK_PACK_STRING Strings,
                        _In_ ULONG Count);
