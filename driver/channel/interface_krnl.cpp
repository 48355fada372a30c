#include "channel/interface_krnl.h"

#include "channel/registration.h"
#include "channel/ring_buffer.h"
#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "monitor/caller_stack.h"
#include "monitor/package_block.h"
#include "monitor/package_cache.h"
#include "names/string_block.h"
#include "platform/resource_lock.h"
#include "rules/rule_sets.h"
#include "sentrel/control_codes.h"

#define SK_MODULE SK_TRACE_INTERFACE

SK_INTERFACE_KRNL_MGR InterfaceKrnlMgr;

static const PCWSTR SkKnownProducers[] = {SK_KNOWN_PRODUCER_DEVICE, NULL};

static BOOLEAN sk_InterfaceInited(void) { return (SK_READ_ONCE(InterfaceKrnlMgr.Flags) & SK_INTERFACE_MGR_INITED) != 0; }
static BOOLEAN sk_EnterInterface(void) { return ExAcquireRundownProtection(&InterfaceKrnlMgr.InterfaceRundown); }
static VOID sk_LeaveInterface(void) { ExReleaseRundownProtection(&InterfaceKrnlMgr.InterfaceRundown); }

// Producers copy a borrowed package and never give it back: the table has no routine for that.
// The interface keeps the package's use for them instead, in a ring of SK_INTERFACE_LOANS: a loan
// is given back when that many later loans have been made, or when the interface goes off. A
// package deleted from the cache meanwhile (its process exited) stays whole for the producer that
// is copying it, and the memory this holds is bounded by the ring.
static VOID sk_LendPackage(PVOID Package) {
  ULONG slot = (ULONG)InterlockedIncrement(&InterfaceKrnlMgr.NextLoan) % SK_INTERFACE_LOANS;
  sk_ReleasePackage(InterlockedExchangePointer(&InterfaceKrnlMgr.Loans[slot], Package));
}

static VOID sk_ReturnAllLoans(void) {
  ULONG i;
  for (i = 0; i < SK_INTERFACE_LOANS; ++i) sk_ReleasePackage(InterlockedExchangePointer(&InterfaceKrnlMgr.Loans[i], NULL));
}

static NTSTATUS sk_Lent(NTSTATUS Status, PVOID *Package) {
  if (NT_SUCCESS(Status)) sk_LendPackage(*Package);
  return Status;
}

// The fifteen routines of the table.
static NTSTATUS sk_IkSendEvent(PVOID Packet, ULONG Length) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = rb_WriteRingBuf(&SentrelData.RingBuf, Packet, Length);
  sk_LeaveInterface();
  return status;
}

static BOOLEAN sk_IkMatchWhiteRule(ULONG EventType, PUNICODE_STRING Path) {
  BOOLEAN matched;
  if (!sk_EnterInterface()) return FALSE;
  matched = NT_SUCCESS(sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, EventType, Path));
  sk_LeaveInterface();
  return matched;
}

static BOOLEAN sk_IkMatchBlackRule(ULONG EventType, PUNICODE_STRING Path) {
  BOOLEAN matched;
  if (!sk_EnterInterface()) return FALSE;
  matched = NT_SUCCESS(sk_MatchBlackRule(&SentrelData.BlackRuleMgr, EventType, Path));
  sk_LeaveInterface();
  return matched;
}

static NTSTATUS sk_IkGetProcInfoPackage(HANDLE ProcessId, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_Lent(sk_GetProcInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.ProcessMgr, ProcessId, Package,
                                         Length),
                   Package);
  sk_LeaveInterface();
  return status;
}

static NTSTATUS sk_IkGetProcInfoPackageByProcess(PEPROCESS Process, PVOID *Package, PULONG Length) {
  return sk_IkGetProcInfoPackage(PsGetProcessId(Process), Package, Length);
}

static NTSTATUS sk_IkGetLogonInfoPackage(ULONG64 LogonId, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_Lent(sk_GetLogonInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.LogonMgr, LogonId, Package,
                                          Length),
                   Package);
  sk_LeaveInterface();
  return status;
}

static NTSTATUS sk_IkGetProcTreeInfoPackage(HANDLE ProcessId, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_Lent(sk_GetProcTreeInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.ProcessMgr, ProcessId,
                                             Package, Length),
                   Package);
  sk_LeaveInterface();
  return status;
}

static NTSTATUS sk_IkGetProcTreeInfoPackageByProcess(PEPROCESS Process, PVOID *Package, PULONG Length) {
  return sk_IkGetProcTreeInfoPackage(PsGetProcessId(Process), Package, Length);
}

static NTSTATUS sk_IkGetProcessImageNtPath(PEPROCESS Process, PUNICODE_STRING *Path) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_GetProcImageNtPath_Process(Process, Path);
  sk_LeaveInterface();
  return status;
}

static NTSTATUS sk_IkGetProcessImageDosPath(PEPROCESS Process, PUNICODE_STRING *Path) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_GetProcImageDosPath_Process(Process, Path);
  sk_LeaveInterface();
  return status;
}

static NTSTATUS sk_IkAddDosNameInfo(PUNICODE_STRING VolumeName, PUNICODE_STRING DosName) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_AddDosNameInfo(&SentrelData.DosNameMgr, TRUE, VolumeName, DosName);
  sk_LeaveInterface();
  return status;
}

// No rundown: one read of a word that lives as long as the driver's image.
static BOOLEAN sk_IkIsEventEnabled(ULONG64 Mask) { return (SK_READ_ONCE(SentrelData.EventMask) & Mask) != 0; }

static NTSTATUS sk_IkGetCallerStackInfoPackage(PVOID *Package, PULONG Length) {
  NTSTATUS status;
  if (!sk_EnterInterface()) return STATUS_INSUFFICIENT_RESOURCES;
  status = sk_GetCallerStackInfoPackage(Package, Length);
  sk_LeaveInterface();
  return status;
}

static VOID sk_IkFreeCallerStackInfoPackage(PVOID Package) {
  if (!sk_EnterInterface()) return;
  if (Package) ExFreePoolWithTag(Package, SK_TAG_CALLER_STACK);
  sk_LeaveInterface();
}

static BOOLEAN sk_IkIsConsumerProcess(ULONG ProcessId) {
  BOOLEAN consumer;
  if (!sk_EnterInterface()) return FALSE;
  consumer = sk_IsConsumerProcess((HANDLE)(ULONG_PTR)ProcessId);
  sk_LeaveInterface();
  return consumer;
}

NTSTATUS sk_InitInterfaceKrnlMgr(void) {
  PAGED_CODE();
  SK_ENTER();
  if (sk_InterfaceInited()) {
    SK_INFO("Interface Mgr Already Inited\n");
    goto Exit;
  }
  RtlZeroMemory(&InterfaceKrnlMgr, sizeof(InterfaceKrnlMgr));
  InterfaceKrnlMgr.Tag = SK_RECORD_INTERFACE_MGR;
  InterfaceKrnlMgr.Size = sizeof(InterfaceKrnlMgr);
  ExInitializeRundownProtection(&InterfaceKrnlMgr.InterfaceRundown);
  InitializeListHead(&InterfaceKrnlMgr.ProducerList);
  ExInitializeResourceLite(&InterfaceKrnlMgr.ProducerListLock);
  ExInitializePagedLookasideList(&InterfaceKrnlMgr.ProducerLookaside, NULL, NULL, 0, sizeof(PRODUCER_INFO),
                                 SK_TAG_PRODUCER_INFO, 0);
  InterlockedOr(&InterfaceKrnlMgr.Flags, SK_INTERFACE_MGR_INITED);
  SK_INFO("InterfaceKrnlMgr Init Success\n");
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

static VOID sk_FreeProducerInfo(PPRODUCER_INFO Producer) {
  if (Producer->DeviceName) skt_FreeUnicodeStringSelf(Producer->DeviceName);
  ExFreeToPagedLookasideList(&InterfaceKrnlMgr.ProducerLookaside, Producer);
}

NTSTATUS sk_AddProducerInfo(PDEVICE_OBJECT DeviceObject, PSK_PRODUCER_OFFLINE OfflineNotify) {
  NTSTATUS status;
  UCHAR probe[sizeof(OBJECT_NAME_INFORMATION)];
  ULONG needed = 0;
  PUNICODE_STRING name = NULL;
  PPRODUCER_INFO producer;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_InterfaceInited()) {
    SK_ERROR("Interface Mgr no Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  // A producer that the off step's call-back registers again would be told again, and so on.
  if (SK_READ_ONCE(InterfaceKrnlMgr.Flags) & SK_INTERFACE_MGR_OFF) {
    SK_ERROR("Interface Mgr Off\n");
    status = STATUS_DELETE_PENDING;
    goto Exit;
  }
  status = ObQueryNameString(DeviceObject, (POBJECT_NAME_INFORMATION)probe, sizeof(probe), &needed);
  if (status != STATUS_INFO_LENGTH_MISMATCH) {
    if (NT_SUCCESS(status)) {
      // An unnamed device answers with an empty name: it could never be found again to be told
      // that the interface went away, so it is not registered, and the producer hears why.
      SK_ERROR("Producer Device has no Name\n");
      status = STATUS_OBJECT_NAME_NOT_FOUND;
    } else {
      SK_FAIL("ObQueryNameString", status);
    }
    goto Exit;
  }
  name = skt_AllocateUnicodeStringSelf(PagedPool, needed - sizeof(OBJECT_NAME_INFORMATION));
  if (!name) {
    SK_ERROR("DevName alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  status = ObQueryNameString(DeviceObject, (POBJECT_NAME_INFORMATION)name, needed, &needed);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ObQueryNameString", status);
    goto Exit;
  }
  producer = (PPRODUCER_INFO)ExAllocateFromPagedLookasideList(&InterfaceKrnlMgr.ProducerLookaside);
  if (!producer) {
    SK_ERROR("ProducerInfo alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(producer, sizeof(*producer));
  producer->Tag = SK_RECORD_PRODUCER_INFO;
  producer->Size = sizeof(*producer);
  producer->DeviceObject = DeviceObject;
  producer->DeviceName = name;
  producer->OfflineNotify = OfflineNotify;
  name = NULL;  // the record's now
  skt_AcquireExclusive(&InterfaceKrnlMgr.ProducerListLock);
  InsertHeadList(&InterfaceKrnlMgr.ProducerList, &producer->ListEntry);
  skt_Release(&InterfaceKrnlMgr.ProducerListLock);
  SK_INFO("Add Producer %wZ\n", producer->DeviceName);
  status = STATUS_SUCCESS;
Exit:
  if (name) skt_FreeUnicodeStringSelf(name);
  SK_LEAVE(status);
  return status;
}

// The newest registration of the device; the list lock is held by the caller.
static PPRODUCER_INFO sk_FindProducer_Locked(PDEVICE_OBJECT DeviceObject) {
  PLIST_ENTRY entry;
  for (entry = InterfaceKrnlMgr.ProducerList.Flink; entry != &InterfaceKrnlMgr.ProducerList; entry = entry->Flink) {
    PPRODUCER_INFO producer = CONTAINING_RECORD(entry, PRODUCER_INFO, ListEntry);
    if (producer->DeviceObject == DeviceObject) return producer;
  }
  return NULL;
}

NTSTATUS sk_GetInterfaceKrnl(PDEVICE_OBJECT Identity, SK_INTERFACE_KRNL *Table) {
  NTSTATUS status = STATUS_NOT_FOUND;
  SK_INTERFACE_KRNL table;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_InterfaceInited()) {
    SK_ERROR("Interface Mgr no Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  skt_AcquireShared(&InterfaceKrnlMgr.ProducerListLock);
  if (sk_FindProducer_Locked(Identity)) status = STATUS_SUCCESS;
  skt_Release(&InterfaceKrnlMgr.ProducerListLock);
  if (!NT_SUCCESS(status)) goto Exit;
  table.Tag = SK_INTERFACE_KRNL_TAG;
  table.Size = SK_INTERFACE_KRNL_SIZE;
  table.SendEvent = (SK_UINT64)(ULONG_PTR)sk_IkSendEvent;
  table.MatchWhiteRule = (SK_UINT64)(ULONG_PTR)sk_IkMatchWhiteRule;
  table.GetProcInfoPackage = (SK_UINT64)(ULONG_PTR)sk_IkGetProcInfoPackage;
  table.GetProcInfoPackageByProcess = (SK_UINT64)(ULONG_PTR)sk_IkGetProcInfoPackageByProcess;
  table.GetLogonInfoPackage = (SK_UINT64)(ULONG_PTR)sk_IkGetLogonInfoPackage;
  table.GetProcTreeInfoPackage = (SK_UINT64)(ULONG_PTR)sk_IkGetProcTreeInfoPackage;
  table.GetProcTreeInfoPackageByProcess = (SK_UINT64)(ULONG_PTR)sk_IkGetProcTreeInfoPackageByProcess;
  table.GetProcessImageNtPath = (SK_UINT64)(ULONG_PTR)sk_IkGetProcessImageNtPath;
  table.GetProcessImageDosPath = (SK_UINT64)(ULONG_PTR)sk_IkGetProcessImageDosPath;
  table.AddDosNameInfo = (SK_UINT64)(ULONG_PTR)sk_IkAddDosNameInfo;
  table.IsEventEnabled = (SK_UINT64)(ULONG_PTR)sk_IkIsEventEnabled;
  table.GetCallerStackInfoPackage = (SK_UINT64)(ULONG_PTR)sk_IkGetCallerStackInfoPackage;
  table.FreeCallerStackInfoPackage = (SK_UINT64)(ULONG_PTR)sk_IkFreeCallerStackInfoPackage;
  table.MatchBlackRule = (SK_UINT64)(ULONG_PTR)sk_IkMatchBlackRule;
  table.IsConsumerProcess = (SK_UINT64)(ULONG_PTR)sk_IkIsConsumerProcess;
  RtlCopyMemory(Table, &table, sizeof(table));
  SK_INFO("Get Interface Krnl Success\n");
Exit:
  SK_LEAVE(status);
  return status;
}

// The device a registration names, found again by its name; whether to call its offline routine.
// A device found under the name but not the same object is another producer's now: no call.
static NTSTATUS sk_FindProducerDevice(PPRODUCER_INFO Producer, PBOOLEAN Same) {
  PFILE_OBJECT file;
  PDEVICE_OBJECT device;
  NTSTATUS status = IoGetDeviceObjectPointer(Producer->DeviceName, GENERIC_ALL, &file, &device);
  *Same = FALSE;
  if (NT_SUCCESS(status)) {
    *Same = device == Producer->DeviceObject;
    ObDereferenceObject(file);
  }
  return status;
}

NTSTATUS sk_DelProducerInfo(PDEVICE_OBJECT DeviceObject) {
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  PPRODUCER_INFO producer = NULL;
  BOOLEAN same;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_InterfaceInited()) {
    SK_ERROR("Interface Mgr no Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  skt_AcquireExclusive(&InterfaceKrnlMgr.ProducerListLock);
  producer = sk_FindProducer_Locked(DeviceObject);
  if (producer) RemoveEntryList(&producer->ListEntry);
  skt_Release(&InterfaceKrnlMgr.ProducerListLock);
  if (!producer) goto Exit;

  // The record is off the list and no lock is held: the offline routine may call the table or
  // send the driver requests (register again, unregister again) without meeting this record.
  SK_INFO("Remove Producer %wZ\n", producer->DeviceName);
  status = sk_FindProducerDevice(producer, &same);
  if (NT_SUCCESS(status)) {
    if (same) producer->OfflineNotify(SentrelData.DeviceObject);
    status = STATUS_SUCCESS;
  } else if (status == STATUS_NO_SUCH_DEVICE) {
    producer->OfflineNotify(SentrelData.DeviceObject);
    status = STATUS_SUCCESS;
  }
  sk_FreeProducerInfo(producer);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_OffInterfaceKrnl(void) {
  NTSTATUS status = STATUS_SUCCESS;
  PPRODUCER_INFO producer;
  BOOLEAN same;

  PAGED_CODE();
  SK_ENTER();
  if (!sk_InterfaceInited()) {
    SK_ERROR("Interface Mgr no Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  if (!(InterlockedOr(&InterfaceKrnlMgr.Flags, SK_INTERFACE_MGR_OFF) & SK_INTERFACE_MGR_OFF)) {
    ExWaitForRundownProtectionRelease(&InterfaceKrnlMgr.InterfaceRundown);
    ExRundownCompleted(&InterfaceKrnlMgr.InterfaceRundown);
  }
  for (;;) {
    producer = NULL;
    skt_AcquireExclusive(&InterfaceKrnlMgr.ProducerListLock);
    if (!IsListEmpty(&InterfaceKrnlMgr.ProducerList)) {
      producer = CONTAINING_RECORD(RemoveHeadList(&InterfaceKrnlMgr.ProducerList), PRODUCER_INFO, ListEntry);
    }
    skt_Release(&InterfaceKrnlMgr.ProducerListLock);
    if (!producer) break;
    if (NT_SUCCESS(sk_FindProducerDevice(producer, &same)) && same) {
      SK_INFO("Notify Producer:0x%p Shutdown\n", producer->DeviceObject);
      producer->OfflineNotify(SentrelData.DeviceObject);
    }
    sk_FreeProducerInfo(producer);
  }
  // No table routine runs any more: the loans can go back.
  sk_ReturnAllLoans();
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitInterfaceKrnlMgr(void) {
  PAGED_CODE();
  SK_ENTER();
  if (!sk_InterfaceInited()) {
    SK_INFO("Interface Mgr no Inited\n");
    goto Exit;
  }
  SK_INFO("Notify Interface Off\n");
  // Off already at unload; a stop without an unload (a failed start's undo) goes off here.
  sk_OffInterfaceKrnl();
  InterlockedAnd(&InterfaceKrnlMgr.Flags, ~SK_INTERFACE_MGR_INITED);
  SK_INFO("Interface off Success\n");
  ExDeleteResourceLite(&InterfaceKrnlMgr.ProducerListLock);
  ExDeletePagedLookasideList(&InterfaceKrnlMgr.ProducerLookaside);
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS sk_NotifySentrelOnline(void) {
  ULONG i;

  PAGED_CODE();
  SK_ENTER();
  for (i = 0; SkKnownProducers[i]; ++i) {
    UNICODE_STRING name;
    PFILE_OBJECT file;
    PDEVICE_OBJECT device;
    KEVENT event;
    IO_STATUS_BLOCK iosb;
    PIRP irp;

    RtlInitUnicodeString(&name, SkKnownProducers[i]);
    if (!NT_SUCCESS(IoGetDeviceObjectPointer(&name, GENERIC_ALL, &file, &device))) continue;
    SK_INFO("Online Notify Producer:0x%p\n", device);
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    irp = IoBuildDeviceIoControlRequest(IOCTL_SK_NOTIFY_ONLINE, device, NULL, 0, NULL, 0, FALSE, &event, &iosb);
    if (irp && IoCallDriver(device, irp) == STATUS_PENDING) {
      KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
    }
    ObDereferenceObject(file);
  }
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
