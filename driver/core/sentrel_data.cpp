#include "core/sentrel_data.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "monitor/callback_plus.h"
#include "monitor/image_record.h"
#include "names/string_block.h"

#define SK_MODULE SK_TRACE_CORE

SENTREL_DATA SentrelData;

// The managers, in start-up order; they stop in the reverse order. Each later manager takes its
// place here as it lands (ring buffers, communication and stack hook before the path cache; then
// black and white rule sets, logon table, DOS names, images, processes, package cache, message
// queues, producer interface).
typedef struct _SK_MANAGER {
  const char *StartName;
  NTSTATUS (*Start)(void);
  const char *StopName;
  NTSTATUS (*Stop)(void);
} SK_MANAGER;

static NTSTATUS sk_StartPathMgr(void) { return sk_InitPathMgr(&SentrelData.PathMgr); }
static NTSTATUS sk_StopPathMgr(void) { return sk_UninitPathMgr(&SentrelData.PathMgr); }

static const SK_MANAGER SkManagers[] = {
    {"sk_InitCallbackPlus", sk_InitCallbackPlus, "sk_UninitCallbackPlus", sk_UninitCallbackPlus},
    // Ring buffers, communication and the stack hook come here, before the path cache.
    {"sk_InitPathMgr", sk_StartPathMgr, "sk_UninitPathMgr", sk_StopPathMgr},
    {NULL, NULL, NULL, NULL},  // end of the table
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
  // The system root's kernel and DOS paths (SystemRootNtPath, SystemRootDosPath) are made here by
  // the path conversion, which comes with the path and drive-name tools.
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

  // The thread prober (not fatal) and the ring-buffer owner's exit hook start here once they exist;
  // the hook needs the process notification registration, which is not active yet.
  if (!(SentrelData.InitFlags & 1)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", STATUS_INSUFFICIENT_RESOURCES);
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

  SK_ENTER();
  if (SentrelData.DriverObject != SkDriverObject || !SkDriverObject) {
    SK_ERROR("sk_UninitSentrelData Uninited\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }

  // The ring-buffer owner's exit hook is removed here while the process registration is active.
  if (!(SentrelData.InitFlags & 1)) {
    SK_FAIL("sk_PsSetCreateProcessNotifyRoutine", STATUS_INSUFFICIENT_RESOURCES);
  }

  // The first stop that fails ends the shut-down: the managers after it in stop order keep running.
  while (SkManagers[i].Stop) ++i;
  for (; i > 0; --i) {
    status = SkManagers[i - 1].Stop();
    if (!NT_SUCCESS(status)) {
      SK_ERROR("%s fail Status:%08lx\n", SkManagers[i - 1].StopName, status);
      goto Exit;
    }
  }

  sk_ReleaseSentrelData();
  status = STATUS_SUCCESS;
Exit:
  SK_LEAVE(status);
  return status;
}
