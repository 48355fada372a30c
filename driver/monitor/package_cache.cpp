#include "monitor/package_cache.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "monitor/callback_plus.h"
#include "monitor/package_block.h"
#include "monitor/package_pack.h"
#include "names/string_block.h"
#include "names/token_query.h"
#include "platform/resource_lock.h"

#define SK_MODULE SK_TRACE_PACKAGE

// The three tables, for the routines they share; their log lines differ only in these names.
typedef enum _SK_PACKAGE_TABLE { SkProcInfoTable, SkLogonInfoTable, SkProcTreeTable } SK_PACKAGE_TABLE;

static PRTL_AVL_TABLE sk_TableOf(PSK_PACKAGE_CACHE_MGR Mgr, SK_PACKAGE_TABLE Table) {
  return Table == SkProcInfoTable ? &Mgr->ProcInfoCache
         : Table == SkLogonInfoTable ? &Mgr->LogonInfoCache
                                     : &Mgr->ProcTreeInfoCache;
}

static PERESOURCE sk_LockOf(PSK_PACKAGE_CACHE_MGR Mgr, SK_PACKAGE_TABLE Table) {
  return Table == SkProcInfoTable ? &Mgr->ProcInfoLock
         : Table == SkLogonInfoTable ? &Mgr->LogonInfoLock
                                     : &Mgr->ProcTreeInfoLock;
}

static VOID sk_LogAdded(SK_PACKAGE_TABLE Table, ULONG64 Key, PVOID Entry) {
  if (Table == SkProcInfoTable) SK_INFO("Add New ProcCacheNode Pid:%d Node:0x%p Success\n", (ULONG)Key, Entry);
  else if (Table == SkLogonInfoTable) SK_INFO("Add New LogonCacheNode Pid:%d Node:0x%p Success\n", (ULONG)Key, Entry);
  else SK_INFO("Add New ProcTreeCacheNode Pid:%d Node:0x%p Success\n", (ULONG)Key, Entry);
}

static VOID sk_LogFound(SK_PACKAGE_TABLE Table, PPACKAGE_CACHE_ENTRY Entry) {
  if (Table == SkProcInfoTable) {
    SK_INFO("find ProcInfoCache Node Pid:%d Node:0x%p Length:0x%0x\n", (ULONG)Entry->Key, Entry, Entry->Length);
  } else if (Table == SkLogonInfoTable) {
    SK_INFO("find LogonInfoCache Node Pid:0x%0x Node:0x%p Length:0x%0x\n", (ULONG)Entry->Key, Entry, Entry->Length);
  } else {
    SK_INFO("find ProcTreeCache Node Pid:%d Node:0x%p Length:0x%0x\n", (ULONG)Entry->Key, Entry, Entry->Length);
  }
}

static VOID sk_LogDeleted(SK_PACKAGE_TABLE Table, PPACKAGE_CACHE_ENTRY Entry) {
  if (Table == SkProcInfoTable) SK_INFO("Del ProcCacheNode Pid:%d Node:0x%p\n", (ULONG)Entry->Key, Entry);
  else if (Table == SkLogonInfoTable) SK_INFO("Del LogonCacheNode LogonId:0x%0x Node:0x%p\n", (ULONG)Entry->Key, Entry);
  else SK_INFO("Del ProcTreeCacheNode Pid:%d Node:0x%p\n", (ULONG)Entry->Key, Entry);
}

static RTL_GENERIC_COMPARE_RESULTS NTAPI sk_ComparePackageKey(PRTL_AVL_TABLE Table, PVOID First, PVOID Second) {
  ULONG64 first = ((PPACKAGE_CACHE_ENTRY)First)->Key;
  ULONG64 second = ((PPACKAGE_CACHE_ENTRY)Second)->Key;
  UNREFERENCED_PARAMETER(Table);
  return first > second ? GenericGreaterThan : first < second ? GenericLessThan : GenericEqual;
}

// Table elements live in non-paged pool, one tag per table (the table's context names it).
static PVOID NTAPI sk_PackageTableAllocate(PRTL_AVL_TABLE Table, CLONG ByteSize) {
  return ExAllocatePoolWithTag(NonPagedPool, ByteSize, (ULONG)(ULONG_PTR)Table->TableContext);
}

static VOID NTAPI sk_PackageTableFree(PRTL_AVL_TABLE Table, PVOID Buffer) {
  ExFreePoolWithTag(Buffer, (ULONG)(ULONG_PTR)Table->TableContext);
}

static BOOLEAN sk_PackageCacheInited(PSK_PACKAGE_CACHE_MGR Mgr) {
  return Mgr && (SK_READ_ONCE(Mgr->Flags) & SK_PACKAGE_CACHE_INITED) != 0;
}

static NTSTATUS sk_AddPackage(PSK_PACKAGE_CACHE_MGR Mgr, SK_PACKAGE_TABLE Table, ULONG64 Key, PVOID Package,
                              ULONG Length) {
  PACKAGE_CACHE_ENTRY entry;
  PPACKAGE_CACHE_ENTRY element;
  BOOLEAN isNew = FALSE;

  PAGED_CODE();
  if (!sk_PackageCacheInited(Mgr)) {
    SK_INFO("Package Cache Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  entry.Key = Key;
  entry.Package = Package;
  entry.Length = Length;
  skt_AcquireExclusive(sk_LockOf(Mgr, Table));
  element = (PPACKAGE_CACHE_ENTRY)RtlInsertElementGenericTableAvl(sk_TableOf(Mgr, Table), &entry, sizeof(entry), &isNew);
  skt_Release(sk_LockOf(Mgr, Table));
  if (!element || !isNew) return STATUS_INSUFFICIENT_RESOURCES;
  sk_LogAdded(Table, Key, element);
  return STATUS_SUCCESS;
}

static NTSTATUS sk_LookupPackage(PSK_PACKAGE_CACHE_MGR Mgr, SK_PACKAGE_TABLE Table, ULONG64 Key, PVOID *Package,
                                 PULONG Length) {
  PACKAGE_CACHE_ENTRY probe;
  PPACKAGE_CACHE_ENTRY element;

  PAGED_CODE();
  if (!sk_PackageCacheInited(Mgr)) {
    SK_ERROR("Package Cache Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  probe.Key = Key;
  skt_AcquireShared(sk_LockOf(Mgr, Table));
  element = (PPACKAGE_CACHE_ENTRY)RtlLookupElementGenericTableAvl(sk_TableOf(Mgr, Table), &probe);
  if (element) {
    // The caller's use, taken while the entry's own keeps the package alive.
    sk_ReferencePackage(element->Package);
    *Package = element->Package;
    *Length = element->Length;
    sk_LogFound(Table, element);
  }
  skt_Release(sk_LockOf(Mgr, Table));
  return element ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}

// Removes the key's entry, if it holds Expected (any package when Expected is null); the entry's
// use of its package is given back after the lock is released.
static NTSTATUS sk_DelPackage(PSK_PACKAGE_CACHE_MGR Mgr, SK_PACKAGE_TABLE Table, ULONG64 Key, PVOID Expected) {
  PACKAGE_CACHE_ENTRY probe;
  PPACKAGE_CACHE_ENTRY element;
  PVOID package = NULL;

  PAGED_CODE();
  if (!sk_PackageCacheInited(Mgr)) {
    SK_INFO("Package Cache Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  probe.Key = Key;
  skt_AcquireExclusive(sk_LockOf(Mgr, Table));
  element = (PPACKAGE_CACHE_ENTRY)RtlLookupElementGenericTableAvl(sk_TableOf(Mgr, Table), &probe);
  if (element && (!Expected || element->Package == Expected)) {
    sk_LogDeleted(Table, element);
    package = element->Package;
    RtlDeleteElementGenericTableAvl(sk_TableOf(Mgr, Table), &probe);
  }
  skt_Release(sk_LockOf(Mgr, Table));
  sk_ReleasePackage(package);
  return STATUS_SUCCESS;
}

static VOID sk_DelAllPackages(PSK_PACKAGE_CACHE_MGR Mgr, SK_PACKAGE_TABLE Table) {
  PRTL_AVL_TABLE table = sk_TableOf(Mgr, Table);
  PPACKAGE_CACHE_ENTRY element;
  PVOID restart;

  skt_AcquireExclusive(sk_LockOf(Mgr, Table));
  for (;;) {
    PVOID package;
    restart = NULL;
    element = (PPACKAGE_CACHE_ENTRY)RtlEnumerateGenericTableWithoutSplayingAvl(table, &restart);
    if (!element) break;
    sk_LogDeleted(Table, element);
    package = element->Package;
    RtlDeleteElementGenericTableAvl(table, element);
    sk_ReleasePackage(package);
  }
  skt_Release(sk_LockOf(Mgr, Table));
}

NTSTATUS sk_AddProcInfoCache(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 ProcessId, PVOID Package, ULONG Length) {
  return sk_AddPackage(PackageCacheMgr, SkProcInfoTable, ProcessId, Package, Length);
}
NTSTATUS sk_LookupProcInfoPack(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 ProcessId, PVOID *Package,
                               PULONG Length) {
  return sk_LookupPackage(PackageCacheMgr, SkProcInfoTable, ProcessId, Package, Length);
}
NTSTATUS sk_DelProcInfoCache(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 ProcessId) {
  return sk_DelPackage(PackageCacheMgr, SkProcInfoTable, ProcessId, NULL);
}
NTSTATUS sk_AddLogonInfoCache(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 LogonId, PVOID Package, ULONG Length) {
  return sk_AddPackage(PackageCacheMgr, SkLogonInfoTable, LogonId, Package, Length);
}
NTSTATUS sk_LookupLogonInfoPack(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 LogonId, PVOID *Package,
                                PULONG Length) {
  return sk_LookupPackage(PackageCacheMgr, SkLogonInfoTable, LogonId, Package, Length);
}
NTSTATUS sk_DelLogonInfoCacheInternal(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 LogonId) {
  return sk_DelPackage(PackageCacheMgr, SkLogonInfoTable, LogonId, NULL);
}
NTSTATUS sk_AddProcTreeInfoCache(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 ProcessId, PVOID Package,
                                 ULONG Length) {
  return sk_AddPackage(PackageCacheMgr, SkProcTreeTable, ProcessId, Package, Length);
}
NTSTATUS sk_LookupProcTreeInfoPack(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 ProcessId, PVOID *Package,
                                   PULONG Length) {
  return sk_LookupPackage(PackageCacheMgr, SkProcTreeTable, ProcessId, Package, Length);
}
NTSTATUS sk_DelProcTreeInfoCache(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, ULONG64 ProcessId) {
  return sk_DelPackage(PackageCacheMgr, SkProcTreeTable, ProcessId, NULL);
}

VOID sk_DelAllPackageCache(PSK_PACKAGE_CACHE_MGR PackageCacheMgr) {
  PAGED_CODE();
  sk_DelAllPackages(PackageCacheMgr, SkProcInfoTable);
  sk_DelAllPackages(PackageCacheMgr, SkLogonInfoTable);
  sk_DelAllPackages(PackageCacheMgr, SkProcTreeTable);
}

// The build and add of a get-or-build, once the lookup missed. The builder keeps a use of its own
// package across the add, so that the result is the package it added (or, having lost the race,
// the winner's). A package added for a process whose exit notification had already dropped its
// packages would outlive it under an id that the next process may get: when the process table has
// seen the exit by the time the package is in, the builder takes it out again. The exit marks the
// process before it deletes, so one of the two always sees the other.
static NTSTATUS sk_BuildProcPackage(PSK_PACKAGE_CACHE_MGR Mgr, PSK_PROCESS_MGR ProcessMgr, SK_PACKAGE_TABLE Table,
                                    HANDLE ProcessId, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  PEPROCESS process;
  PVOID package = NULL;
  ULONG length = 0;
  LONGLONG createTime;

  status = PsLookupProcessByProcessId(ProcessId, &process);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsLookupProcessByProcessId", status);
    return status;
  }
  createTime = PsGetProcessCreateTimeQuadPart(process);
  if (Table == SkProcInfoTable) {
    status = sk_PackProcessInfo(ProcessMgr, process, &package, &length);
    if (!NT_SUCCESS(status)) SK_FAIL("sk_PackProcessInfo", status);
  } else {
    status = sk_GetProcTreeInfo(ProcessMgr, ProcessId, createTime, &package, &length);
    if (!NT_SUCCESS(status)) SK_FAIL("sk_PackProcTreeInfo", status);
  }
  if (!NT_SUCCESS(status)) goto Exit;

  sk_ReferencePackage(package);  // the builder's, beside the one the add hands to the cache
  status = sk_AddPackage(Mgr, Table, (ULONG64)(ULONG_PTR)ProcessId, package, length);
  if (!NT_SUCCESS(status)) {
    if (Table == SkProcInfoTable) SK_FAIL("sk_AddProcInfoCache", status);
    else SK_FAIL("sk_AddProcTreeInfoCache", status);
    sk_ReleasePackage(package);
    sk_ReleasePackage(package);
    status = sk_LookupPackage(Mgr, Table, (ULONG64)(ULONG_PTR)ProcessId, Package, Length);
    goto Exit;
  }
  if (!sk_IsProcInfoLive(ProcessMgr, ProcessId, createTime)) {
    SK_INFO("Pid:%d exited while its package was built\n", (ULONG)(ULONG_PTR)ProcessId);
    sk_DelPackage(Mgr, Table, (ULONG64)(ULONG_PTR)ProcessId, package);
  }
  *Package = package;
  *Length = length;
Exit:
  ObDereferenceObject(process);
  return status;
}

static NTSTATUS sk_GetProcPackage(PSK_PACKAGE_CACHE_MGR Mgr, PSK_PROCESS_MGR ProcessMgr, SK_PACKAGE_TABLE Table,
                                  HANDLE ProcessId, PVOID *Package, PULONG Length) {
  NTSTATUS status = sk_LookupPackage(Mgr, Table, (ULONG64)(ULONG_PTR)ProcessId, Package, Length);
  if (status == STATUS_NOT_FOUND) status = sk_BuildProcPackage(Mgr, ProcessMgr, Table, ProcessId, Package, Length);
  if (NT_SUCCESS(status)) {
    if (Table == SkProcInfoTable) {
      SK_INFO("Find Pid:%d Proc Info Cache Node:0x%p Success\n", (ULONG)(ULONG_PTR)ProcessId, *Package);
    } else {
      SK_INFO("Find Pid:%d Proc Tree Info Cache Node:0x%p Success\n", (ULONG)(ULONG_PTR)ProcessId, *Package);
    }
  }
  return status;
}

NTSTATUS sk_GetProcInfoPackage(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, PSK_PROCESS_MGR ProcessMgr, HANDLE ProcessId,
                               PVOID *Package, PULONG Length) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_GetProcPackage(PackageCacheMgr, ProcessMgr, SkProcInfoTable, ProcessId, Package, Length);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_GetProcTreeInfoPackage(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, PSK_PROCESS_MGR ProcessMgr,
                                   HANDLE ProcessId, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_GetProcPackage(PackageCacheMgr, ProcessMgr, SkProcTreeTable, ProcessId, Package, Length);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_GetLogonInfoPackage(PSK_PACKAGE_CACHE_MGR PackageCacheMgr, PSK_LOGON_MGR LogonMgr, ULONG64 LogonId,
                                PVOID *Package, PULONG Length) {
  NTSTATUS status;
  PVOID package = NULL;
  ULONG length = 0;

  PAGED_CODE();
  SK_ENTER();
  status = sk_LookupPackage(PackageCacheMgr, SkLogonInfoTable, LogonId, Package, Length);
  if (status != STATUS_NOT_FOUND) goto Exit;
  status = sk_PackLogonInfo(LogonMgr, LogonId, &package, &length);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PackLogonInfo", status);
    goto Exit;
  }
  sk_ReferencePackage(package);  // the builder's, beside the one the add hands to the cache
  status = sk_AddPackage(PackageCacheMgr, SkLogonInfoTable, LogonId, package, length);
  if (NT_SUCCESS(status)) {
    *Package = package;
    *Length = length;
    goto Exit;
  }
  SK_FAIL("sk_AddLogonInfoCache", status);
  sk_ReleasePackage(package);
  sk_ReleasePackage(package);
  status = sk_LookupPackage(PackageCacheMgr, SkLogonInfoTable, LogonId, Package, Length);
Exit:
  if (NT_SUCCESS(status)) SK_INFO("Find LogonId:0x%0x Logon Info Cache Node:0x%p Success\n", (ULONG)LogonId, *Package);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_GetLogonInfo_Process(PEPROCESS Process, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  ULONG64 logonId = 0;

  PAGED_CODE();
  SK_ENTER();
  status = skt_GetLogonId(Process, &logonId);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetLogonId", status);
    goto Exit;
  }
  status = sk_GetLogonInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.LogonMgr, logonId, Package, Length);
Exit:
  SK_LEAVE(status);
  return status;
}

// dwm.exe, in any case: its exit ends the session's desktop, and with it the session's package.
static BOOLEAN sk_IsDwmProcess(PEPROCESS Process) {
  UNICODE_STRING dwm = SK_CONSTANT_STRING(L"dwm.exe");
  PUNICODE_STRING imagePath = NULL;
  UNICODE_STRING lastName;
  BOOLEAN isDwm;
  USHORT start;

  if (!NT_SUCCESS(SentrelData.SeLocateProcessImageName(Process, &imagePath))) return FALSE;
  start = imagePath->Length / sizeof(WCHAR);
  while (start > 0 && imagePath->Buffer[start - 1] != L'\\') --start;
  lastName.Buffer = imagePath->Buffer + start;
  lastName.Length = lastName.MaximumLength = (USHORT)(imagePath->Length - start * sizeof(WCHAR));
  isDwm = RtlEqualUnicodeString(&lastName, &dwm, TRUE);
  ExFreePool(imagePath);
  return isDwm;
}

VOID sk_PackageCacheProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  PSK_PACKAGE_CACHE_MGR mgr = &SentrelData.PackageCacheMgr;
  PEPROCESS process;
  ULONG64 logonId;

  UNREFERENCED_PARAMETER(ParentId);
  if (Create) return;
  PAGED_CODE();
  SK_ENTER();
  if (NT_SUCCESS(PsLookupProcessByProcessId(ProcessId, &process))) {
    // Before the deletes: a package being built for this process meanwhile is taken out by its
    // builder when the builder sees the mark.
    sk_SetProcInfoExited(&SentrelData.ProcessMgr, ProcessId, PsGetProcessCreateTimeQuadPart(process));
    if (sk_IsDwmProcess(process) && NT_SUCCESS(skt_GetLogonId(process, &logonId))) {
      sk_DelLogonInfoCacheInternal(mgr, logonId);
    }
    ObDereferenceObject(process);
  }
  sk_DelProcInfoCache(mgr, (ULONG64)(ULONG_PTR)ProcessId);
  sk_DelProcTreeInfoCache(mgr, (ULONG64)(ULONG_PTR)ProcessId);
  SK_LEAVE(STATUS_SUCCESS);
}

static VOID sk_DeletePackageLocks(PSK_PACKAGE_CACHE_MGR Mgr) {
  ExDeleteResourceLite(&Mgr->ProcInfoLock);
  ExDeleteResourceLite(&Mgr->LogonInfoLock);
  ExDeleteResourceLite(&Mgr->ProcTreeInfoLock);
}

NTSTATUS sk_InitPackageCacheMgr(PSK_PACKAGE_CACHE_MGR PackageCacheMgr) {
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  if (sk_PackageCacheInited(PackageCacheMgr)) {
    SK_INFO("Package Cache Mgr Already Inited\n");
    goto Exit;
  }
  RtlZeroMemory(PackageCacheMgr, sizeof(*PackageCacheMgr));
  PackageCacheMgr->Tag = SK_RECORD_PACKAGE_CACHE_MGR;
  PackageCacheMgr->Size = sizeof(*PackageCacheMgr);
  ExInitializeFastMutex(&PackageCacheMgr->InitLock);
  RtlInitializeGenericTableAvl(&PackageCacheMgr->ProcInfoCache, sk_ComparePackageKey, sk_PackageTableAllocate,
                               sk_PackageTableFree, (PVOID)(ULONG_PTR)SK_TAG_PROC_INFO_CACHE);
  RtlInitializeGenericTableAvl(&PackageCacheMgr->LogonInfoCache, sk_ComparePackageKey, sk_PackageTableAllocate,
                               sk_PackageTableFree, (PVOID)(ULONG_PTR)SK_TAG_LOGON_CACHE);
  RtlInitializeGenericTableAvl(&PackageCacheMgr->ProcTreeInfoCache, sk_ComparePackageKey, sk_PackageTableAllocate,
                               sk_PackageTableFree, (PVOID)(ULONG_PTR)SK_TAG_PROC_TREE_CACHE);
  ExInitializeResourceLite(&PackageCacheMgr->ProcInfoLock);
  ExInitializeResourceLite(&PackageCacheMgr->LogonInfoLock);
  ExInitializeResourceLite(&PackageCacheMgr->ProcTreeInfoLock);

  status = (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)
               ? sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_PackageCacheProcessNotify, FALSE)
               : STATUS_INSUFFICIENT_RESOURCES;
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", status);
    sk_DeletePackageLocks(PackageCacheMgr);
    goto Exit;
  }
  InterlockedOr(&PackageCacheMgr->Flags, SK_PACKAGE_CACHE_INITED);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitPackageCacheMgr(PSK_PACKAGE_CACHE_MGR PackageCacheMgr) {
  PAGED_CODE();
  SK_ENTER();
  if (!sk_PackageCacheInited(PackageCacheMgr)) {
    SK_INFO("Package Cache Mgr no Inited\n");
    goto Exit;
  }
  ExAcquireFastMutex(&PackageCacheMgr->InitLock);
  InterlockedAnd(&PackageCacheMgr->Flags, ~SK_PACKAGE_CACHE_INITED);
  ExReleaseFastMutex(&PackageCacheMgr->InitLock);
  if (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS) {
    sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_PackageCacheProcessNotify, TRUE);
  }
  sk_DelAllPackageCache(PackageCacheMgr);
  sk_DeletePackageLocks(PackageCacheMgr);
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
