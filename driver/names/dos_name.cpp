#include "names/dos_name.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/table_compare.h"
#include "names/name_hash.h"
#include "names/string_block.h"

#define SK_MODULE SK_TRACE_DOSNAME

// "\??\A:\" .. "\??\Z:\": the letter is the fifth character.
#define SK_DRIVE_LETTER_INDEX 4

static PVOID NTAPI sk_DosNameTableAllocate(PRTL_AVL_TABLE Table, CLONG ByteSize) {
  UNREFERENCED_PARAMETER(Table);
  return ExAllocatePoolWithTag(PagedPool, ByteSize, SK_TAG_DOS_NAME);
}

static VOID NTAPI sk_DosNameTableFree(PRTL_AVL_TABLE Table, PVOID Buffer) {
  UNREFERENCED_PARAMETER(Table);
  ExFreePoolWithTag(Buffer, SK_TAG_DOS_NAME);
}

ULONG64 sk_DosNameKey(PCUNICODE_STRING VolumeName) {
  return ((ULONG64)skt_HashBKDR(VolumeName) << 32) | skt_HashDJB(VolumeName);
}

// The checks every add and lookup starts with: the table running, and both names given.
static NTSTATUS sk_CheckDosNameMgr(PSK_DOS_NAME_MGR DosNameMgr, const VOID *VolumeName, const VOID *DosName) {
  if (!DosNameMgr || !(DosNameMgr->Flags & SK_DOS_NAME_MGR_INITED)) {
    SK_ERROR("Dos Name Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  if (!VolumeName || !DosName) {
    SK_ERROR("Invalid Parameter\n");
    return STATUS_INVALID_PARAMETER;
  }
  return STATUS_SUCCESS;
}

// A string block holding a copy of String behind Prefix (which may be null).
static PUNICODE_STRING sk_CopyWithPrefix(PCWSTR Prefix, PCUNICODE_STRING String) {
  UNICODE_STRING prefix;
  PUNICODE_STRING block;
  RtlInitUnicodeString(&prefix, Prefix);
  block = skt_AllocateUnicodeStringSelf(PagedPool, (ULONG)prefix.Length + String->Length);
  if (!block) return NULL;
  if (prefix.Length) RtlCopyUnicodeString(block, &prefix);
  RtlAppendUnicodeStringToString(block, String);
  return block;
}

NTSTATUS sk_AddDosNameInfo(PSK_DOS_NAME_MGR DosNameMgr, BOOLEAN TakeLock, PCUNICODE_STRING VolumeName,
                           PCUNICODE_STRING DosName) {
  NTSTATUS status = STATUS_SUCCESS;
  DOS_NAME_NODE element;
  PDOS_NAME_NODE node;
  PUNICODE_STRING volumeCopy = NULL;
  PUNICODE_STRING dosCopy = NULL;
  PUNICODE_STRING staleVolume;
  PUNICODE_STRING staleDos;
  BOOLEAN inserted = FALSE;

  PAGED_CODE();
  SK_ENTER();
  status = sk_CheckDosNameMgr(DosNameMgr, VolumeName, DosName);
  if (!NT_SUCCESS(status)) goto Exit;

  RtlZeroMemory(&element, sizeof(element));
  element.Tag = SK_RECORD_DOS_NAME_NODE;
  element.Size = sizeof(element);
  element.Key = sk_DosNameKey(VolumeName);

  volumeCopy = sk_CopyWithPrefix(NULL, VolumeName);
  if (!volumeCopy) {
    SK_ERROR("VolDevNameX alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  if (DosName->Length >= sizeof(WCHAR) && DosName->Buffer[0] == L'\\') {
    dosCopy = sk_CopyWithPrefix(NULL, DosName);
  } else {
    dosCopy = sk_CopyWithPrefix(L"\\??\\", DosName);
  }
  if (!dosCopy) {
    SK_ERROR("DosNameX alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  element.VolumeName = volumeCopy;
  element.DosName = dosCopy;

  SK_INFO("Insert %wZ -> %wZ\n", volumeCopy, dosCopy);
  if (TakeLock) {
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&DosNameMgr->Lock, TRUE);
  }
  node = (PDOS_NAME_NODE)RtlInsertElementGenericTableAvl(&DosNameMgr->Table, &element, sizeof(element), &inserted);
  staleVolume = NULL;
  staleDos = NULL;
  if (node) {
    if (!inserted) {
      // The volume is known already: its new names replace the old ones.
      staleVolume = node->VolumeName;
      staleDos = node->DosName;
      node->VolumeName = volumeCopy;
      node->DosName = dosCopy;
    }
    volumeCopy = NULL;  // the table owns the copies now
    dosCopy = NULL;
  }
  if (TakeLock) {
    ExReleaseResourceLite(&DosNameMgr->Lock);
    KeLeaveCriticalRegion();
  }
  if (staleVolume) skt_FreeUnicodeStringSelf(staleVolume);
  if (staleDos) skt_FreeUnicodeStringSelf(staleDos);
  if (!node) {
    SK_ERROR("RtlInsertElementGenericTableAvl insert fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
  }

Exit:
  if (volumeCopy) skt_FreeUnicodeStringSelf(volumeCopy);
  if (dosCopy) skt_FreeUnicodeStringSelf(dosCopy);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_LookupDosName(PSK_DOS_NAME_MGR DosNameMgr, PCUNICODE_STRING VolumeName, PUNICODE_STRING *DosName) {
  NTSTATUS status = STATUS_SUCCESS;
  DOS_NAME_NODE probe;
  PDOS_NAME_NODE node;
  PUNICODE_STRING answer;

  SK_ENTER();
  status = sk_CheckDosNameMgr(DosNameMgr, VolumeName, DosName);
  if (!NT_SUCCESS(status)) goto Exit;
  RtlZeroMemory(&probe, sizeof(probe));
  probe.Key = sk_DosNameKey(VolumeName);
  answer = skt_AllocateUnicodeStringSelf(PagedPool, SK_DOS_NAME_LOOKUP_CAPACITY);
  if (!answer) {
    SK_ERROR("DosNameX alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  KeEnterCriticalRegion();
  ExAcquireResourceSharedLite(&DosNameMgr->Lock, TRUE);
  node = (PDOS_NAME_NODE)RtlLookupElementGenericTableAvl(&DosNameMgr->Table, &probe);
  if (node) {
    RtlCopyUnicodeString(answer, node->DosName);
    SK_INFO("Find %wZ -> %wZ\n", node->VolumeName, answer);
  }
  ExReleaseResourceLite(&DosNameMgr->Lock);
  KeLeaveCriticalRegion();
  if (node) {
    *DosName = answer;
  } else {
    skt_FreeUnicodeStringSelf(answer);
    status = STATUS_NOT_FOUND;
  }
Exit:
  SK_LEAVE(status);
  return status;
}

// One drive letter: open its root, take the root directory's NT name (\Device\HarddiskVolume3\)
// and record the volume under the letter.
static NTSTATUS sk_AddDriveLetter(PSK_DOS_NAME_MGR DosNameMgr, PUNICODE_STRING RootPath, PCUNICODE_STRING DosName) {
  NTSTATUS status;
  OBJECT_ATTRIBUTES attributes;
  IO_STATUS_BLOCK iosb;
  HANDLE handle = NULL;
  PVOID object = NULL;
  OBJECT_NAME_INFORMATION probe;
  POBJECT_NAME_INFORMATION name = NULL;
  ULONG needed = 0;
  UNICODE_STRING volumeName;

  InitializeObjectAttributes(&attributes, RootPath, OBJ_KERNEL_HANDLE, NULL, NULL);
  status = ZwCreateFile(&handle, GENERIC_READ, &attributes, &iosb, NULL, FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ,
                        FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0);
  if (!NT_SUCCESS(status)) return status;  // no such letter: nothing to say
  status = ObReferenceObjectByHandle(handle, GENERIC_ALL, NULL, KernelMode, &object, NULL);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ObReferenceObjectByHandle", status);
    goto Exit;
  }
  status = ObQueryNameString(object, &probe, sizeof(probe), &needed);
  if (status != STATUS_BUFFER_OVERFLOW && status != STATUS_INFO_LENGTH_MISMATCH && !NT_SUCCESS(status)) {
    SK_FAIL("ObQueryNameString", status);
    goto Exit;
  }
  name = (POBJECT_NAME_INFORMATION)ExAllocatePoolWithTag(PagedPool, needed, SK_TAG_DOS_NAME);
  if (!name) {
    SK_ERROR("pName alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(name, needed);
  status = ObQueryNameString(object, name, needed, &needed);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ObQueryNameString too", status);
    goto Exit;
  }
  // A volume's root directory is named with a trailing backslash; a letter whose root has a name
  // without one stands for a folder on a volume (a substituted drive), not for a volume.
  volumeName = name->Name;
  if (volumeName.Length < 2 * sizeof(WCHAR) || volumeName.Buffer[volumeName.Length / sizeof(WCHAR) - 1] != L'\\') {
    SK_INFO("%wZ -> %wZ is no volume root\n", DosName, &volumeName);
    status = STATUS_OBJECT_PATH_INVALID;
    goto Exit;
  }
  volumeName.Length -= sizeof(WCHAR);
  status = sk_AddDosNameInfo(DosNameMgr, FALSE, &volumeName, DosName);

Exit:
  if (name) ExFreePoolWithTag(name, SK_TAG_DOS_NAME);
  if (object) ObDereferenceObject(object);
  if (handle) ZwClose(handle);
  return status;
}

NTSTATUS sk_EnumAllDosName_Unlock(PSK_DOS_NAME_MGR DosNameMgr) {
  NTSTATUS last = STATUS_SUCCESS;
  NTSTATUS status;
  WCHAR rootText[] = L"\\??\\A:\\";
  UNICODE_STRING rootPath;
  UNICODE_STRING dosName;
  WCHAR letter;

  PAGED_CODE();
  SK_ENTER();
  RtlInitUnicodeString(&rootPath, rootText);
  dosName = rootPath;
  dosName.Length -= sizeof(WCHAR);  // \??\A:
  dosName.MaximumLength = dosName.Length;
  for (letter = L'A'; letter <= L'Z'; ++letter) {
    rootText[SK_DRIVE_LETTER_INDEX] = letter;
    status = sk_AddDriveLetter(DosNameMgr, &rootPath, &dosName);
    if (!NT_SUCCESS(status)) last = status;
  }
  SK_LEAVE(last);
  return last;
}

NTSTATUS sk_EnumAllDosName(PSK_DOS_NAME_MGR DosNameMgr) {
  NTSTATUS status;
  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(&DosNameMgr->Lock, TRUE);
  status = sk_EnumAllDosName_Unlock(DosNameMgr);
  ExReleaseResourceLite(&DosNameMgr->Lock);
  KeLeaveCriticalRegion();
  return status;
}

VOID sk_DelAllDosName(PSK_DOS_NAME_MGR DosNameMgr) {
  PDOS_NAME_NODE node;
  PVOID restart;
  PAGED_CODE();
  SK_ENTER();
  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(&DosNameMgr->Lock, TRUE);
  for (;;) {
    restart = NULL;
    node = (PDOS_NAME_NODE)RtlEnumerateGenericTableWithoutSplayingAvl(&DosNameMgr->Table, &restart);
    if (!node) break;
    skt_FreeUnicodeStringSelf(node->VolumeName);
    skt_FreeUnicodeStringSelf(node->DosName);
    RtlDeleteElementGenericTableAvl(&DosNameMgr->Table, node);
  }
  ExReleaseResourceLite(&DosNameMgr->Lock);
  KeLeaveCriticalRegion();
  SK_LEAVE(STATUS_SUCCESS);
}

NTSTATUS sk_InitDosNameMgr(PSK_DOS_NAME_MGR DosNameMgr) {
  PAGED_CODE();
  SK_ENTER();
  if (DosNameMgr->Flags & SK_DOS_NAME_MGR_INITED) {
    SK_INFO("Dos Name Mgr Already Inited\n");
  } else {
    DosNameMgr->Flags = 0;
    DosNameMgr->Tag = SK_RECORD_DOS_NAME_MGR;
    DosNameMgr->Size = sizeof(*DosNameMgr);
    RtlInitializeGenericTableAvl(&DosNameMgr->Table, skt_CompareKey64, sk_DosNameTableAllocate, sk_DosNameTableFree,
                                 NULL);
    ExInitializeResourceLite(&DosNameMgr->Lock);
    DosNameMgr->Flags |= SK_DOS_NAME_MGR_INITED;
    SK_INFO("Dos Name Mgr Init Success\n");
    sk_EnumAllDosName(DosNameMgr);
  }
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

NTSTATUS sk_UninitDosNameMgr(PSK_DOS_NAME_MGR DosNameMgr) {
  PAGED_CODE();
  SK_ENTER();
  if (!(DosNameMgr->Flags & SK_DOS_NAME_MGR_INITED)) {
    SK_INFO("Dos Name Mgr no Inited\n");
  } else {
    DosNameMgr->Flags &= ~SK_DOS_NAME_MGR_INITED;
    SK_INFO("Del All Dos Name\n");
    sk_DelAllDosName(DosNameMgr);
    ExDeleteResourceLite(&DosNameMgr->Lock);
  }
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
