#include "monitor/image_mgr.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "core/table_compare.h"
#include "monitor/event_report.h"
#include "monitor/process_mgr.h"
#include "names/path_convert.h"
#include "names/string_block.h"
#include "platform/guarded_memory.h"
#include "platform/resource_lock.h"
#include "rules/path_rule.h"

// The image table logs under its own module, the per-process lists and the load path under the
// process table's (SK_MODULE is redefined between the two halves of this file).
#define SK_MODULE SK_TRACE_IMAGE

// The hand-over from an image-load notification to its worker thread in the loading process.
typedef struct _IMAGE_WORK_ITEM {
  IMAGE_INFO_EX ImageInfoEx;  // Size and FileObject stay 0 when the notification had no extended part
  ULONG64 ProcessId;
  volatile LONG Done;  // set by the worker when it has finished
  USHORT NameLength;   // bytes
  WCHAR Name[1];       // the image's drive-letter path
} IMAGE_WORK_ITEM, *PIMAGE_WORK_ITEM;

static_assert(sizeof(IMAGE_INFO) == 40 && sizeof(IMAGE_INFO_EX) == 56, "the 64-bit layouts");

// The machines whose images are recorded: x64, ARM64, x86, ARM.
static BOOLEAN sk_IsKnownMachine(USHORT Machine) {
  return Machine == 0x8664 || Machine == 0xAA64 || Machine == 0x14C || Machine == 0x1C0;
}

static PVOID NTAPI sk_ImageTableAllocate(PRTL_AVL_TABLE Table, CLONG ByteSize) {
  UNREFERENCED_PARAMETER(Table);
  return ExAllocatePoolWithTag(PagedPool, ByteSize, SK_TAG_IMAGE_NODE);
}

static VOID NTAPI sk_ImageTableFree(PRTL_AVL_TABLE Table, PVOID Buffer) {
  UNREFERENCED_PARAMETER(Table);
  ExFreePoolWithTag(Buffer, SK_TAG_IMAGE_NODE);
}

static BOOLEAN sk_ImageMgrInited(PSK_IMAGE_MGR ImageMgr) {
  return ImageMgr && (SK_READ_ONCE(ImageMgr->Flags) & SK_IMAGE_MGR_INITED) != 0;
}

// H1 = (H1 << 7) ^ b and H2 = (H2 * 0x811C9DC5) ^ b over the path's bytes, each sign-extended.
ULONG64 sk_ImageKey(PCUNICODE_STRING NtPath) {
  const CHAR *bytes = (const CHAR *)NtPath->Buffer;
  ULONG h1 = 0, h2 = 0;
  USHORT i;
  for (i = 0; i < NtPath->Length; ++i) {
    ULONG b = (ULONG)(LONG)bytes[i];
    h1 = (h1 << 7) ^ b;
    h2 = (h2 * 0x811C9DC5) ^ b;
  }
  return ((ULONG64)h1 << 32) | h2;
}

static VOID sk_FreeImageContents(PIMAGE_INFO_NODE Node) {
  if (Node->NtPath) sk_ReleasePathCache_Node(&SentrelData.PathMgr, Node->NtPath);
  if (Node->DosPath) sk_ReleasePathCache_Node(&SentrelData.PathMgr, Node->DosPath);
  if (Node->ImageName) skt_FreeUnicodeStringSelf(Node->ImageName);
}

NTSTATUS sk_ReadImageHeaders(PVOID Base, PULONG Checksum, PUSHORT Machine, PUSHORT Characteristics) {
  IMAGE_DOS_HEADER dos;
  IMAGE_NT_HEADERS64 nt;  // PE32 and PE32+ agree up to CheckSum, the last field read
  const ULONG ntBytes = FIELD_OFFSET(IMAGE_NT_HEADERS64, OptionalHeader.CheckSum) + sizeof(ULONG);
  NTSTATUS status;

  *Checksum = SK_IMAGE_CHECKSUM_UNKNOWN;
  *Machine = *Characteristics = SK_IMAGE_TYPE_UNKNOWN;
  status = skt_SafeCopyUserMemory(&dos, Base, sizeof(dos));
  if (!NT_SUCCESS(status)) return status;
  if (dos.e_magic != IMAGE_DOS_SIGNATURE || dos.e_lfanew < (LONG)sizeof(dos) || dos.e_lfanew > 0x10000) {
    SK_ERROR("skt_GetImageType fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  status = skt_SafeCopyUserMemory(&nt, (PUCHAR)Base + dos.e_lfanew, ntBytes);
  if (!NT_SUCCESS(status)) return status;
  if (nt.Signature != IMAGE_NT_SIGNATURE) {
    SK_ERROR("skt_GetImageType fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  *Machine = nt.FileHeader.Machine;
  *Characteristics = nt.FileHeader.Characteristics;
  if (sk_IsKnownMachine(nt.FileHeader.Machine)) *Checksum = nt.OptionalHeader.CheckSum;
  return STATUS_SUCCESS;
}

NTSTATUS sk_AddImageNode(PSK_IMAGE_MGR ImageMgr, PVOID ImageBase, PCUNICODE_STRING NtPath, PCUNICODE_STRING DosPath,
                         PIMAGE_INFO_NODE *Node) {
  NTSTATUS status;
  UNICODE_STRING lastName, rest;
  IMAGE_INFO_NODE block;
  PIMAGE_INFO_NODE element;
  BOOLEAN isNew = FALSE;

  PAGED_CODE();
  SK_ENTER();
  RtlZeroMemory(&block, sizeof(block));
  if (!ImageMgr || !NtPath) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  if (!sk_ImageMgrInited(ImageMgr)) {
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  skt_DissectLastName(NtPath, &lastName, &rest);
  block.ImageName = skt_AllocateUnicodeStringSelf(PagedPool, lastName.Length);
  if (!block.ImageName) {
    SK_ERROR("ImageName alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlCopyUnicodeString(block.ImageName, &lastName);
  block.Key = sk_ImageKey(NtPath);

  skt_AcquireShared(&ImageMgr->Lock);
  element = (PIMAGE_INFO_NODE)RtlLookupElementGenericTableAvl(&ImageMgr->Table, &block);
  if (element) {
    if (Node) {
      InterlockedIncrement(&element->RefCount);
      *Node = element;
    }
    SK_INFO("Find Exist Node:0x%p ImageName:%wZ\n", element, element->ImageName);
  }
  skt_Release(&ImageMgr->Lock);
  if (element) {
    status = STATUS_SUCCESS;
    goto Exit;
  }

  status = sk_ReadImageHeaders(ImageBase, &block.Checksum, &block.Machine, &block.Characteristics);
  if (block.Checksum == SK_IMAGE_CHECKSUM_UNKNOWN) {
    // Unreadable headers, or a machine this driver does not describe: the image is not recorded.
    SK_ERROR("Get Checksum  fail \n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  if (!NT_SUCCESS(status)) {
    SK_ERROR("Get ImageBit or ImageType  fail \n");
    goto Exit;
  }
  status = sk_AddPathCache(&SentrelData.PathMgr, NtPath, &block.NtPath);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("NtPath sk_AddPathCache fail Status:%08lx\n", status);
    block.NtPath = NULL;
    goto Exit;
  }
  if (DosPath) {
    status = sk_AddPathCache(&SentrelData.PathMgr, DosPath, &block.DosPath);
    if (!NT_SUCCESS(status)) {
      SK_ERROR("DosPath sk_AddPathCache fail Status:%08lx\n", status);
      block.DosPath = NULL;
      goto Exit;
    }
  }
  block.Tag = SK_RECORD_IMAGE_NODE;
  block.Size = sizeof(block);
  block.RefCount = 1;

  skt_AcquireExclusive(&ImageMgr->Lock);
  element = (PIMAGE_INFO_NODE)RtlInsertElementGenericTableAvl(&ImageMgr->Table, &block, sizeof(block), &isNew);
  if (element && Node) {
    InterlockedIncrement(&element->RefCount);
    *Node = element;
    SK_INFO("Find Node:0x%p ImageName:%wZ\n", element, element->ImageName);
  }
  skt_Release(&ImageMgr->Lock);
  if (!element) {
    SK_ERROR("RtlInsertElementGenericTableAvl Insert fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  status = STATUS_SUCCESS;
  // A new element owns the block's name and paths; another thread's element added meanwhile stays.
  if (isNew) RtlZeroMemory(&block, sizeof(block));

Exit:
  sk_FreeImageContents(&block);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_AddImageNodeFromLoadImageNotify(PSK_IMAGE_MGR ImageMgr, PUNICODE_STRING DosPath, PIMAGE_INFO ImageInfo,
                                            PIMAGE_INFO_NODE *Node) {
  NTSTATUS status;
  PFILE_OBJECT fileObject = NULL;
  PUNICODE_STRING ntPath = NULL;
  PUNICODE_STRING dosPath = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!ImageMgr || !DosPath || !ImageInfo || !Node) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  if (ImageInfo->SystemModeImage) {
    SK_ERROR("ByPass Driver Image Load\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  if (ImageInfo->ExtendedInfoPresent) fileObject = CONTAINING_RECORD(ImageInfo, IMAGE_INFO_EX, ImageInfo)->FileObject;
  if (fileObject) {
    status = skt_ImagePathConvertToNtPath(PagedPool, fileObject, NULL, &ntPath, &dosPath);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("skt_ImagePathConvertToNtPath", status);
      goto Exit;
    }
  }
  if (!ntPath) {
    if (dosPath) skt_FreeUnicodeStringSelf(dosPath);
    dosPath = NULL;
    status = skt_ImagePathConvertToNtPath(PagedPool, NULL, DosPath, &ntPath, &dosPath);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("skt_ImagePathConvertToNtPath", status);
      goto Exit;
    }
  }
  status = sk_AddImageNode(ImageMgr, ImageInfo->ImageBase, ntPath, dosPath, Node);
Exit:
  if (ntPath) skt_FreeUnicodeStringSelf(ntPath);
  if (dosPath) skt_FreeUnicodeStringSelf(dosPath);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_ReleaseImageNode_Node(PSK_IMAGE_MGR ImageMgr, PIMAGE_INFO_NODE Node) {
  IMAGE_INFO_NODE key;
  PIMAGE_INFO_NODE element;
  LONG count;

  PAGED_CODE();
  if (!ImageMgr || !Node) {
    SK_ERROR("Invalid Parameter\n");
    return STATUS_INVALID_PARAMETER;
  }
  // Another holder remains (3 or more: the table, the caller, someone else): one step down, with
  // the lock shared. A compare-exchange, so that two releases at 3 cannot both step down to 1.
  skt_AcquireShared(&ImageMgr->Lock);
  for (count = SK_READ_ONCE(Node->RefCount); count >= 3; count = SK_READ_ONCE(Node->RefCount)) {
    if (InterlockedCompareExchange(&Node->RefCount, count - 1, count) == count) break;
  }
  skt_Release(&ImageMgr->Lock);
  if (count >= 3) {
    SK_INFO("Decrement Node:0x%p RefCount:0x%0x\n", Node, count - 1);
    return STATUS_SUCCESS;
  }

  key.Key = Node->Key;
  skt_AcquireExclusive(&ImageMgr->Lock);
  element = (PIMAGE_INFO_NODE)RtlLookupElementGenericTableAvl(&ImageMgr->Table, &key);
  if (element && element->RefCount > 2) {
    count = InterlockedDecrement(&element->RefCount);
    SK_INFO("Decrement Node:0x%p RefCount:0x%0x\n", element, count);
  } else if (element) {
    // The caller held the last reference besides the table's.
    SK_INFO("Remove Node:0x%p ImageName:%wZ\n", element, element->ImageName);
    sk_FreeImageContents(element);
    RtlDeleteElementGenericTableAvl(&ImageMgr->Table, &key);
  }
  skt_Release(&ImageMgr->Lock);
  return STATUS_SUCCESS;
}

VOID sk_ClearAllImageNode(PSK_IMAGE_MGR ImageMgr) {
  PIMAGE_INFO_NODE element;
  IMAGE_INFO_NODE key;
  PVOID restart;

  PAGED_CODE();
  skt_AcquireExclusive(&ImageMgr->Lock);
  for (;;) {
    restart = NULL;
    element = (PIMAGE_INFO_NODE)RtlEnumerateGenericTableWithoutSplayingAvl(&ImageMgr->Table, &restart);
    if (!element) break;
    sk_FreeImageContents(element);
    key.Key = element->Key;
    RtlDeleteElementGenericTableAvl(&ImageMgr->Table, &key);
  }
  skt_Release(&ImageMgr->Lock);
}

NTSTATUS sk_InitImageMgr(PSK_IMAGE_MGR ImageMgr) {
  PAGED_CODE();
  SK_ENTER();
  if (sk_ImageMgrInited(ImageMgr)) {
    SK_INFO("Image Mgr Already Inited\n");
  } else {
    RtlZeroMemory(ImageMgr, sizeof(*ImageMgr));
    ImageMgr->Tag = SK_RECORD_IMAGE_MGR;
    ImageMgr->Size = sizeof(*ImageMgr);
    ExInitializeResourceLite(&ImageMgr->Lock);
    RtlInitializeGenericTableAvl(&ImageMgr->Table, skt_CompareKey64, sk_ImageTableAllocate, sk_ImageTableFree, NULL);
    InterlockedOr(&ImageMgr->Flags, SK_IMAGE_MGR_INITED);
    SK_INFO("ImageMgr Init Success\n");
  }
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS sk_UninitImageMgr(PSK_IMAGE_MGR ImageMgr) {
  NTSTATUS status = STATUS_SUCCESS;
  PAGED_CODE();
  SK_ENTER();
  if (!sk_ImageMgrInited(ImageMgr)) {
    SK_INFO("Image Mgr no Inited\n");
    status = STATUS_INVALID_PARAMETER;
  } else {
    InterlockedAnd(&ImageMgr->Flags, ~SK_IMAGE_MGR_INITED);
    SK_INFO("Clear All Image Node\n");
    sk_ClearAllImageNode(ImageMgr);
    ExDeleteResourceLite(&ImageMgr->Lock);
  }
  SK_LEAVE(status);
  return status;
}

#undef SK_MODULE
#define SK_MODULE SK_TRACE_PROCESS

NTSTATUS sk_AddImageToProcNode(ULONG64 ImageBase, ULONG ImageSize, PIMAGE_INFO_NODE ImageNode,
                               PPROC_INFO_NODE ProcessNode) {
  PPROC_IMAGE_RECORD record = (PPROC_IMAGE_RECORD)ExAllocateFromPagedLookasideList(&SentrelData.ImageLookaside);
  if (!record) {
    SK_ERROR("ImageInformation alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(record, sizeof(*record));
  record->Tag = SK_RECORD_IMAGE;
  record->Size = sizeof(*record);
  record->ImageSize = ImageSize;
  record->ImageBase = ImageBase;
  record->ImageEnd = ImageBase + ImageSize;
  record->ImageNode = ImageNode;
  ExAcquireFastMutex(ProcessNode->ImageListLock);
  InsertTailList(&ProcessNode->ImageList, &record->Links);
  ExReleaseFastMutex(ProcessNode->ImageListLock);
  return STATUS_SUCCESS;
}

NTSTATUS sk_LookupImageInfoFromProcNode_Address(PPROC_INFO_NODE ProcessNode, ULONG64 Address, PULONG64 ImageBase,
                                                PULONG64 ImageEnd, PUNICODE_STRING *ImageName) {
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  PLIST_ENTRY entry;

  ExAcquireFastMutex(ProcessNode->ImageListLock);
  for (entry = ProcessNode->ImageList.Flink; entry != &ProcessNode->ImageList; entry = entry->Flink) {
    PPROC_IMAGE_RECORD record = CONTAINING_RECORD(entry, PROC_IMAGE_RECORD, Links);
    if (record->ImageBase < Address && Address < record->ImageEnd && record->ImageNode) {
      if (ImageBase) *ImageBase = record->ImageBase;
      if (ImageEnd) *ImageEnd = record->ImageEnd;
      status = STATUS_SUCCESS;
      if (ImageName) {
        PCUNICODE_STRING name = record->ImageNode->ImageName;
        *ImageName = skt_AllocateUnicodeStringSelf(PagedPool, name->Length);
        if (*ImageName) {
          RtlCopyUnicodeString(*ImageName, name);
        } else {
          SK_ERROR("ImageName alloc fail\n");
          status = STATUS_INSUFFICIENT_RESOURCES;
        }
      }
      break;
    }
  }
  ExReleaseFastMutex(ProcessNode->ImageListLock);
  return status;
}

VOID sk_ReleaseProcNodeImages(PPROC_INFO_NODE ProcessNode) {
  LIST_ENTRY records;
  PAGED_CODE();
  // The records leave the list under its mutex; their image nodes are released after it, at
  // PASSIVE_LEVEL (a release may log the image's name). Nobody else holds the node any more.
  InitializeListHead(&records);
  ExAcquireFastMutex(ProcessNode->ImageListLock);
  while (!IsListEmpty(&ProcessNode->ImageList)) InsertTailList(&records, RemoveHeadList(&ProcessNode->ImageList));
  ExReleaseFastMutex(ProcessNode->ImageListLock);
  while (!IsListEmpty(&records)) {
    PPROC_IMAGE_RECORD record = CONTAINING_RECORD(RemoveHeadList(&records), PROC_IMAGE_RECORD, Links);
    if (record->ImageNode) sk_ReleaseImageNode_Node(&SentrelData.ImageMgr, record->ImageNode);
    ExFreeToPagedLookasideList(&SentrelData.ImageLookaside, record);
  }
}

// The work of one image load, in a thread of the loading process: the image's node, its record in
// the process's node, and at the process's first image the rest of its node.
static NTSTATUS sk_ImageInfoInThread(PIMAGE_WORK_ITEM Item) {
  NTSTATUS status;
  PEPROCESS process = NULL;
  PIMAGE_INFO_NODE imageNode = NULL;
  PPROC_INFO_NODE processNode = NULL;
  UNICODE_STRING name;
  LONGLONG createTime;

  PAGED_CODE();
  SK_ENTER();
  name.Buffer = Item->Name;
  name.Length = name.MaximumLength = Item->NameLength;
  status = PsLookupProcessByProcessId((HANDLE)(ULONG_PTR)Item->ProcessId, &process);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsLookupProcessByProcessId", status);
    process = NULL;
    goto Exit;
  }
  createTime = PsGetProcessCreateTimeQuadPart(process);
  status = sk_AddImageNodeFromLoadImageNotify(&SentrelData.ImageMgr, &name, &Item->ImageInfoEx.ImageInfo, &imageNode);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_AddImageNode", status);
    imageNode = NULL;
    goto Exit;
  }
  status = sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)(ULONG_PTR)Item->ProcessId, createTime, &processNode);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetProcInfo", status);
    processNode = NULL;
    goto Exit;
  }
  status = sk_AddImageToProcNode((ULONG64)(ULONG_PTR)Item->ImageInfoEx.ImageInfo.ImageBase,
                                 (ULONG)Item->ImageInfoEx.ImageInfo.ImageSize, imageNode, processNode);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_AddImageToProcNode", status);
    goto Exit;
  }
  imageNode = NULL;  // the record's now
  // Exactly one image load per process clears the mark, also when several are handled at once.
  if (InterlockedAnd(&processNode->Flags, ~SK_PROC_FLAG_NOT_REPORTED) & SK_PROC_FLAG_NOT_REPORTED) {
    NTSTATUS update = sk_UpdateProcNode(&SentrelData.ProcessMgr, process, processNode);
    if (!NT_SUCCESS(update)) {
      SK_FAIL("sk_UpdateProcNode", update);
      InterlockedOr(&processNode->Flags, SK_PROC_FLAG_NOT_REPORTED);  // the next image load tries again
    } else {
      sk_Report_ProcessCreateEvent(process, processNode);
    }
  }
Exit:
  if (imageNode) sk_ReleaseImageNode_Node(&SentrelData.ImageMgr, imageNode);
  if (processNode) sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, processNode);
  if (process) ObDereferenceObject(process);
  if (Item->ImageInfoEx.FileObject) ObDereferenceObject(Item->ImageInfoEx.FileObject);
  SK_LEAVE(status);
  return status;
}

static VOID sk_ImageInfoThread(PVOID Context) {
  PIMAGE_WORK_ITEM item = (PIMAGE_WORK_ITEM)Context;
  PAGED_CODE();
  sk_ImageInfoInThread(item);
  InterlockedExchange(&item->Done, 1);  // its last access to the item
  PsTerminateSystemThread(STATUS_SUCCESS);
}

NTSTATUS sk_AddImageInfo(HANDLE ProcessId, PIMAGE_INFO ImageInfo, PUNICODE_STRING DosPath) {
  NTSTATUS status;
  PIMAGE_WORK_ITEM item;
  OBJECT_ATTRIBUTES attributes;
  HANDLE handle = NULL;
  PVOID thread = NULL;
  LARGE_INTEGER interval;

  PAGED_CODE();
  item = (PIMAGE_WORK_ITEM)ExAllocatePoolWithTag(PagedPool, FIELD_OFFSET(IMAGE_WORK_ITEM, Name) + DosPath->Length,
                                                 SK_TAG_PROC_TABLE);
  if (!item) {
    SK_ERROR("AddImageInfo alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(item, FIELD_OFFSET(IMAGE_WORK_ITEM, Name) + DosPath->Length);
  if (ImageInfo->ExtendedInfoPresent) {
    item->ImageInfoEx = *CONTAINING_RECORD(ImageInfo, IMAGE_INFO_EX, ImageInfo);
    if (item->ImageInfoEx.FileObject) ObReferenceObject(item->ImageInfoEx.FileObject);
  } else {
    item->ImageInfoEx.ImageInfo = *ImageInfo;
  }
  item->ProcessId = (ULONG64)(ULONG_PTR)ProcessId;
  item->NameLength = DosPath->Length;
  RtlCopyMemory(item->Name, DosPath->Buffer, DosPath->Length);

  // The worker runs in the loading process, where the image's headers are readable.
  InitializeObjectAttributes(&attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
  status = PsCreateSystemThread(&handle, GENERIC_ALL, &attributes, NtCurrentProcess(), NULL, sk_ImageInfoThread, item);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("PsCreateSystemThread", status);
    if (item->ImageInfoEx.FileObject) ObDereferenceObject(item->ImageInfoEx.FileObject);
    ExFreePoolWithTag(item, SK_TAG_PROC_TABLE);
    return status;
  }
  // The loading thread waits until the worker has ended, not only until it has set Done: after
  // that it still runs the driver's code, which must not be unloaded under it.
  if (NT_SUCCESS(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, NULL))) {
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, NULL);
    ObDereferenceObject(thread);
  } else {
    interval.QuadPart = -1000;  // 100 us
    while (!SK_READ_ONCE(item->Done)) KeDelayExecutionThread(KernelMode, FALSE, &interval);
  }
  ZwClose(handle);
  ExFreePoolWithTag(item, SK_TAG_PROC_TABLE);
  return STATUS_SUCCESS;
}

VOID sk_ProcTreeImageNotify(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo) {
  NTSTATUS status;
  PUNICODE_STRING realPath = NULL;

  PAGED_CODE();
  if (!(SK_READ_ONCE(SentrelData.ProcessMgr.Flags) & SK_PROCESS_MGR_INITED)) {
    SK_ERROR("Process Mgr no Init\n");
    return;
  }
  // Kernel-mode images are the driver-load reporter's.
  if (!ImageInfo || ImageInfo->SystemModeImage || !FullImageName) return;
  SK_ENTER();
  status = sk_GetImageRealPath(FullImageName, &realPath);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("[sk_ProcTreeImageNotify] sk_GetImageRealPath fail Status:%08lx\n", status);
    goto Exit;
  }
  status = sk_AddImageInfo(ProcessId, ImageInfo, realPath);
  if (!NT_SUCCESS(status)) SK_ERROR("[sk_ProcTreeImageNotify] sk_AddImageInfo fail Status:%08lx\n", status);
  if (realPath != FullImageName) skt_FreeUnicodeStringSelf(realPath);
Exit:
  SK_LEAVE(status);
}

NTSTATUS sk_AddImageInfoCallback(PUNICODE_STRING MappedName, PVOID ImageBase, ULONG ImageSize, PVOID Context) {
  PSK_IMAGE_SCAN_CONTEXT scan = (PSK_IMAGE_SCAN_CONTEXT)Context;
  PUNICODE_STRING dosPath = NULL;
  PIMAGE_INFO_NODE node = NULL;

  PAGED_CODE();
  if (!NT_SUCCESS(skt_QueryDosPathFromNtPath(PagedPool, MappedName, &dosPath))) return STATUS_SUCCESS;
  if (NT_SUCCESS(sk_AddImageNode(&scan->Data->ImageMgr, ImageBase, MappedName, dosPath, &node)) &&
      !NT_SUCCESS(sk_AddImageToProcNode((ULONG64)(ULONG_PTR)ImageBase, ImageSize, node, scan->ProcessNode))) {
    sk_ReleaseImageNode_Node(&scan->Data->ImageMgr, node);
  }
  skt_FreeUnicodeStringSelf(dosPath);
  return STATUS_SUCCESS;
}
