#include "core/sentrel_data.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "channel/interface_krnl.h"
#include "channel/msg_queue.h"
#include "channel/registration.h"
#include "monitor/callback_plus.h"
#include "monitor/image_record.h"
#include "monitor/probers.h"
#include "names/path_convert.h"
#include "names/string_block.h"
#include "rules/rule_sets.h"

#define SK_MODULE SK_TRACE_CORE

SENTREL_DATA SentrelData;

// The managers, in start-up order; they stop in the reverse order, except that a manager marked
// StopsAfterPrevious stops right after the one started before it (the white rule set after the
// black one).
typedef struct _SK_MANAGER {
  const char *StartName;
  NTSTATUS (*Start)(void);
  const char *StopName;
  NTSTATUS (*Stop)(void);
  BOOLEAN StopsAfterPrevious;
} SK_MANAGER;

static NTSTATUS sk_StartStackHook(void) { return sk_InitStackHook(&SentrelData.StackHook); }
static NTSTATUS sk_StopStackHook(void) { return sk_UninitStackHook(&SentrelData.StackHook); }
static NTSTATUS sk_StartPathMgr(void) { return sk_InitPathMgr(&SentrelData.PathMgr); }
static NTSTATUS sk_StopPathMgr(void) { return sk_UninitPathMgr(&SentrelData.PathMgr); }
static NTSTATUS sk_StopBlackRuleMgr(void) { return sk_UninitBlackRuleMgr(&SentrelData.BlackRuleMgr); }
static NTSTATUS sk_StopWhiteRuleMgr(void) { return sk_UninitWhiteRuleMgr(&SentrelData.WhiteRuleMgr); }
static NTSTATUS sk_StartLogonMgr(void) { return sk_InitLogonMgr(&SentrelData.LogonMgr, SentrelData.SystemRootNtPath); }
static NTSTATUS sk_StopLogonMgr(void) { return sk_UninitLogonMgr(&SentrelData.LogonMgr); }
static NTSTATUS sk_StartDosNameMgr(void) { return sk_InitDosNameMgr(&SentrelData.DosNameMgr); }
static NTSTATUS sk_StopDosNameMgr(void) { return sk_UninitDosNameMgr(&SentrelData.DosNameMgr); }

static NTSTATUS sk_StartImageMgr(void) { return sk_InitImageMgr(&SentrelData.ImageMgr); }
static NTSTATUS sk_StopImageMgr(void) { return sk_UninitImageMgr(&SentrelData.ImageMgr); }
static NTSTATUS sk_StartProcessMgr(void) { return sk_InitProcessMgr(&SentrelData.ProcessMgr); }
static NTSTATUS sk_StopProcessMgr(void) { return sk_UninitProcessMgr(&SentrelData.ProcessMgr); }

static NTSTATUS sk_StartPackageCacheMgr(void) { return sk_InitPackageCacheMgr(&SentrelData.PackageCacheMgr); }
static NTSTATUS sk_StopPackageCacheMgr(void) { return sk_UninitPackageCacheMgr(&SentrelData.PackageCacheMgr); }

static NTSTATUS sk_StartProcMsgMgr(void) { return sk_InitProcMsgMgr(&SentrelData.ProcMsgMgr); }
static NTSTATUS sk_StopProcMsgMgr(void) { return sk_UninitProcMsgMgr(&SentrelData.ProcMsgMgr); }

static NTSTATUS sk_StartRingBuf(void) { return rb_InitRingBuf(&SentrelData.RingBuf); }
static NTSTATUS sk_StopRingBuf(void) { return rb_UnInitRingBuf(&SentrelData.RingBuf); }

static const SK_MANAGER SkManagers[] = {
    {"sk_InitCallbackPlus", sk_InitCallbackPlus, "sk_UninitCallbackPlus", sk_UninitCallbackPlus, FALSE},
    {"rb_InitRingBuf", sk_StartRingBuf, "rb_UnInitRingBuf", sk_StopRingBuf, FALSE},
    {"sk_InitCommuncation", sk_InitCommuncation, "sk_UninitCommuncation", sk_UninitCommuncation, FALSE},
    {"sk_InitStackHook", sk_StartStackHook, "sk_UninitStackHook", sk_StopStackHook, FALSE},
    {"sk_InitPathMgr", sk_StartPathMgr, "sk_UninitPathMgr", sk_StopPathMgr, FALSE},
    {"sk_InitBlackRuleMgr", sk_InitBlackRuleMgr, "sk_UninitBlackRuleMgr", sk_StopBlackRuleMgr, FALSE},
    {"sk_InitWhiteRuleMgr", sk_InitWhiteRuleMgr, "sk_UninitWhiteRuleMgr", sk_StopWhiteRuleMgr, TRUE},
    {"sk_InitLogonMgr", sk_StartLogonMgr, "sk_UninitLogonMgr", sk_StopLogonMgr, FALSE},
    {"sk_InitDosNameMgr", sk_StartDosNameMgr, "sk_UninitDosNameMgr", sk_StopDosNameMgr, FALSE},
    {"sk_InitImageMgr", sk_StartImageMgr, "sk_UninitImageMgr", sk_StopImageMgr, FALSE},
    {"sk_InitProcessMgr", sk_StartProcessMgr, "sk_UninitProcessMgr", sk_StopProcessMgr, FALSE},
    {"sk_InitPackageCacheMgr", sk_StartPackageCacheMgr, "sk_UninitPackageCacheMgr", sk_StopPackageCacheMgr, FALSE},
    {"sk_InitProcMsgMgr", sk_StartProcMsgMgr, "sk_UninitProcMsgMgr", sk_StopProcMsgMgr, FALSE},
    // Last to start, first to stop: the producer drivers' way into every manager above.
    {"sk_InitInterfaceKrnlMgr", sk_InitInterfaceKrnlMgr, "sk_UninitInterfaceKrnlMgr", sk_UninitInterfaceKrnlMgr, FALSE},
    {NULL, NULL, NULL, NULL, FALSE},  // end of the table
};


// Undoes step 2 onward of the start-up: what exists is freed, then the record is zeroed.
static void sk_ReleaseSentrelData(void) {
  if (SentrelData.SystemRootNtPath) skt_FreeUnicodeStringSelf(SentrelData.SystemRootNtPath);
  if (SentrelData.SystemRootDosPath) skt_FreeUnicodeStringSelf(SentrelData.SystemRootDosPath);
  if (SentrelData.SystemRootPath) skt_FreeUnicodeStringSelf(SentrelData.SystemRootPath);
  if (SentrelData.MountMgrFileObject) ObDereferenceObject(SentrelData.MountMgrFileObject);
  ExDeletePagedLookasideList(&SentrelData.CcbLookaside);
  ExDeletePagedLookasideList(&SentrelData.MsgNodeLookaside);
  ExDeletePagedLookasideList(&SentrelData.ImageLookaside);
  ExDeleteNPagedLookasideList(&SentrelData.MutexLookaside);
  RtlZeroMemory(&SentrelData, sizeof(SentrelData));
}

NTSTATUS sk_InitSentrelData(void) {
  NTSTATUS status = STATUS_SUCCESS;
  UNICODE_STRING name;
  ULONG started;

  PAGED_CODE();
  SK_ENTER();
  if (SkDriverObject && SentrelData.DriverObject == SkDriverObject) {
    SK_ERROR("sk_InitSentrelData Inited\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }

  RtlZeroMemory(&SentrelData, sizeof(SentrelData));
  SentrelData.Tag = SK_RECORD_SENTREL_DATA;
  SentrelData.Size = sizeof(SentrelData);
  SentrelData.EventMask = ~(ULONG64)0;
  SentrelData.DriverObject = SkDriverObject;
  SentrelData.DeviceObject = SkDeviceObject;
  ExInitializePagedLookasideList(&SentrelData.CcbLookaside, NULL, NULL, 0, sizeof(SK_CCB), SK_TAG_CCB, 0);
  ExInitializePagedLookasideList(&SentrelData.MsgNodeLookaside, NULL, NULL, 0, sizeof(SK_MSG_NODE), SK_TAG_MSG_NODE, 0);
  ExInitializePagedLookasideList(&SentrelData.ImageLookaside, NULL, NULL, 0, sizeof(PROC_IMAGE_RECORD),
                                 SK_TAG_IMAGE_RECORD, 0);
  ExInitializeNPagedLookasideList(&SentrelData.MutexLookaside, NULL, NULL, 0, sizeof(FAST_MUTEX), SK_TAG_FAST_MUTEX, 0);

  RtlInitUnicodeString(&name, L"\\Device\\MountPointManager");
  status = IoGetDeviceObjectPointer(&name, FILE_READ_ATTRIBUTES, &SentrelData.MountMgrFileObject,
                                    &SentrelData.MountMgrDeviceObject);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("IoGetDeviceObjectPointer", status);
    SentrelData.MountMgrFileObject = NULL;
    goto Undo;
  }

  RtlInitUnicodeString(&name, L"\\SystemRoot\\");
  SentrelData.SystemRootPath = skt_AllocateUnicodeStringSelf(PagedPool, name.Length + sizeof(WCHAR));
  if (!SentrelData.SystemRootPath) {
    SK_ERROR("SentrelData.SystemRootPath alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Undo;
  }
  RtlCopyUnicodeString(SentrelData.SystemRootPath, &name);
  // The system root's DOS path may stay null (no drive letter): images under it then keep their
  // names.
  status = skt_PathConvertToNtPath(PagedPool, TRUE, NULL, SentrelData.SystemRootPath, &SentrelData.SystemRootNtPath,
                                   &SentrelData.SystemRootDosPath);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_PathConvertToNtPath", status);
    SentrelData.SystemRootNtPath = NULL;
    SentrelData.SystemRootDosPath = NULL;
    goto Undo;
  }
  SentrelData.SystemRootPath->Length -= sizeof(WCHAR);  // "\SystemRoot", without the backslash

  sk_ResolveOptionalRoutines(&SentrelData);

  for (started = 0; SkManagers[started].Start; ++started) {
    status = SkManagers[started].Start();
    if (!NT_SUCCESS(status)) {
      SK_ERROR("%s fail Status:%08lx\n", SkManagers[started].StartName, status);
      while (started > 0) {
        --started;
        SkManagers[started].Stop();
      }
      goto Undo;
    }
  }

  // Neither the probers nor the ring-buffer owner's exit hook is needed for the driver to run: a
  // failure is logged and the load goes on.
  status = sk_InitPsThreadProber(&SentrelData);
  if (!NT_SUCCESS(status)) SK_FAIL("sk_InitPsThreadProber", status);
  if (!(SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", STATUS_INSUFFICIENT_RESOURCES);
  } else {
    status = sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_RingBufOwnerProcessNotify, FALSE);
    if (!NT_SUCCESS(status)) SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", status);
  }
  status = STATUS_SUCCESS;
  goto Exit;

Undo:
  sk_ReleaseSentrelData();
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitSentrelData(void) {
  NTSTATUS status = STATUS_SUCCESS;
  ULONG i = 0;

  PAGED_CODE();
  SK_ENTER();
  if (SentrelData.DriverObject != SkDriverObject || !SkDriverObject) {
    SK_ERROR("sk_UninitSentrelData Uninited\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }

  if (!(SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", STATUS_INSUFFICIENT_RESOURCES);
  } else {
    status = sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_RingBufOwnerProcessNotify, TRUE);
    if (!NT_SUCCESS(status)) SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", status);
  }

  sk_UninitPsThreadProber();

  // The first stop that fails ends the shut-down: the managers after it in stop order keep running.
  while (SkManagers[i].Stop) ++i;
  while (i > 0) {
    ULONG first = i - 1;  // the first of the pair (or the one manager) stopped in this round
    ULONG count = 1;
    ULONG k;
    if (first > 0 && SkManagers[first].StopsAfterPrevious) {
      --first;
      count = 2;
    }
    for (k = 0; k < count; ++k) {
      status = SkManagers[first + k].Stop();
      if (!NT_SUCCESS(status)) {
        SK_ERROR("%s fail Status:%08lx\n", SkManagers[first + k].StopName, status);
        goto Exit;
      }
    }
    i = first;
  }

  sk_ReleaseSentrelData();
  status = STATUS_SUCCESS;
Exit:
  SK_LEAVE(status);
  return status;
}

VOID sk_RingBufOwnerProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  UNREFERENCED_PARAMETER(ParentId);
  // Every process notification comes here; only the owner's exit is traced and acted on.
  if (Create || !ProcessId || SK_READ_ONCE(SentrelData.RingBuf.OwnerProcessId) != ProcessId) return;
  PAGED_CODE();
  SK_ENTER();
  rb_ReleaseRingBufInternal(&SentrelData.RingBuf, PsGetCurrentProcess(), TRUE);
  // Cleared only if no other process has taken the mapping over meanwhile.
  InterlockedCompareExchangePointer((PVOID volatile *)&SentrelData.RingBuf.OwnerProcessId, NULL, ProcessId);
  SK_LEAVE(STATUS_SUCCESS);
}
