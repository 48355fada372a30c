#include "names/path_convert.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "names/dos_name.h"
#include "names/string_block.h"

#define SK_MODULE SK_TRACE_TOOL

// Open options of the conversions (FILE_SYNCHRONOUS_IO_ALERT is 0x10).
#define SK_OPEN_DIRECTORY (FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_ALERT)          // 0x11
#define SK_OPEN_FILE (FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_ALERT)           // 0x50
#define SK_OPEN_ANY FILE_SYNCHRONOUS_IO_ALERT                                         // 0x10: files and directories

// Spare capacity behind an NT name that only needs room for its terminator.
#define SK_NT_PATH_SLACK 16

// The mount manager's answer for a volume never comes in more than this many rounds.
#define SK_DOS_NAME_COMPLETIONS 5

#define SK_DEVICE_PREFIX L"\\Device\\"
#define SK_DEVICE_PREFIX_CHARS 8

static const UNICODE_STRING SkMupPrefix = SK_CONSTANT_STRING(L"\\Device\\Mup");
static const UNICODE_STRING SkSystemRootPrefix = SK_CONSTANT_STRING(L"\\SystemRoot");
static const UNICODE_STRING SkWindowsPrefix = SK_CONSTANT_STRING(L"\\Windows");
static const UNICODE_STRING SkVolumePrefix = SK_CONSTANT_STRING(L"\\Device\\HarddiskVolume");
// How the mount manager names a volume that has no letter: by its GUID path, \\?\Volume{...}.
static const UNICODE_STRING SkVolumeGuidPrefix = SK_CONSTANT_STRING(L"\\\\?\\");

// Whether Name carries Prefix (case-insensitively) and has something behind it.
static BOOLEAN sk_HasPrefix(PCUNICODE_STRING Prefix, PCUNICODE_STRING Name) {
  return Name->Length > Prefix->Length && RtlPrefixUnicodeString(Prefix, Name, TRUE);
}

// The part of String from byte Offset on, sharing its buffer.
static UNICODE_STRING sk_Tail(PCUNICODE_STRING String, USHORT Offset) {
  UNICODE_STRING tail;
  tail.Buffer = (PWSTR)((PUCHAR)String->Buffer + Offset);
  tail.Length = (USHORT)(String->Length - Offset);
  tail.MaximumLength = tail.Length;
  return tail;
}

// A string block of Capacity bytes holding First, Second and Third one after another (any may be
// null). Null when the block cannot be had or the strings do not fit it.
static PUNICODE_STRING sk_JoinStrings(ULONG Capacity, PCUNICODE_STRING First, PCUNICODE_STRING Second,
                                      PCUNICODE_STRING Third) {
  PUNICODE_STRING block;
  ULONG needed = (First ? First->Length : 0u) + (Second ? Second->Length : 0u) + (Third ? Third->Length : 0u);
  if (needed > Capacity) return NULL;
  block = skt_AllocateUnicodeStringSelf(PagedPool, Capacity);
  if (!block) return NULL;
  if (First) RtlAppendUnicodeStringToString(block, First);
  if (Second) RtlAppendUnicodeStringToString(block, Second);
  if (Third) RtlAppendUnicodeStringToString(block, Third);
  return block;
}

// Opens Path for reading and references its file object. With UseNt the open and the close are
// NtOpenFile and NtClose, else ZwOpenFile and ZwClose.
static NTSTATUS sk_OpenPath(PUNICODE_STRING Path, ULONG Options, BOOLEAN UseNt, PHANDLE Handle,
                            PFILE_OBJECT *FileObject) {
  NTSTATUS status;
  OBJECT_ATTRIBUTES attributes;
  IO_STATUS_BLOCK iosb;

  *Handle = NULL;
  *FileObject = NULL;
  InitializeObjectAttributes(&attributes, Path, OBJ_KERNEL_HANDLE, NULL, NULL);
  if (UseNt) {
    status = NtOpenFile(Handle, GENERIC_READ, &attributes, &iosb, FILE_SHARE_READ, Options);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("NtOpenFile", status);
      *Handle = NULL;
      return status;
    }
  } else {
    status = ZwOpenFile(Handle, GENERIC_READ, &attributes, &iosb, FILE_SHARE_READ, Options);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("ZwOpenFile", status);
      *Handle = NULL;
      return status;
    }
  }
  status = ObReferenceObjectByHandle(*Handle, 0, *IoFileObjectType, KernelMode, (PVOID *)FileObject, NULL);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ObReferenceObjectByHandle", status);
    *FileObject = NULL;
  }
  return status;
}

static VOID sk_ClosePath(HANDLE Handle, PFILE_OBJECT FileObject, BOOLEAN UseNt) {
  if (FileObject) ObDereferenceObject(FileObject);
  if (Handle) {
    if (UseNt) NtClose(Handle);
    else ZwClose(Handle);
  }
}

// The NT name of a file object, in a string block with Spare bytes of capacity beyond the name
// record's own length. The name record is written over the block's header, pointing just behind
// it, so the result is still one block; its MaximumLength is set to the block's whole capacity.
static NTSTATUS sk_QueryFileObjectName(PFILE_OBJECT FileObject, ULONG Spare, PUNICODE_STRING *NtPath) {
  NTSTATUS status;
  OBJECT_NAME_INFORMATION probe;
  ULONG needed = 0;
  ULONG capacity;
  PUNICODE_STRING block;

  *NtPath = NULL;
  status = ObQueryNameString(FileObject, &probe, sizeof(probe), &needed);
  if (status != STATUS_BUFFER_OVERFLOW && !NT_SUCCESS(status)) {
    SK_FAIL("ObQueryNameString", status);
    return status;
  }
  capacity = needed + Spare;
  block = skt_AllocateUnicodeStringSelf(PagedPool, capacity);
  if (!block) {
    SK_ERROR("pName alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  status = ObQueryNameString(FileObject, (POBJECT_NAME_INFORMATION)block, capacity, &needed);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ObQueryNameString too", status);
    block->Buffer = (PWSTR)(block + 1);  // whatever the query left, the block is freed as a block
    skt_FreeUnicodeStringSelf(block);
    return status;
  }
  if (block->Buffer != (PWSTR)(block + 1)) {
    // An unnamed file object: its name is empty.
    block->Buffer = (PWSTR)(block + 1);
    block->Length = 0;
  }
  block->MaximumLength = (USHORT)capacity;
  *NtPath = block;
  return STATUS_SUCCESS;
}

NTSTATUS skt_GetVolDevName(PCUNICODE_STRING NtPath, PUNICODE_STRING VolumeName) {
  NTSTATUS status = STATUS_SUCCESS;
  UNICODE_STRING head;
  UNICODE_STRING prefix;
  USHORT chars;
  USHORT i;

  PAGED_CODE();
  SK_ENTER();
  if (!NtPath || !VolumeName || !NtPath->Buffer || NtPath->Length < (SK_DEVICE_PREFIX_CHARS + 1) * sizeof(WCHAR)) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  // The first three characters decide, case-sensitively, whether this can be a device path at all.
  if (NtPath->Buffer[0] != L'\\' || NtPath->Buffer[1] != L'D' || NtPath->Buffer[2] != L'e') {
    SK_ERROR("Invalid Parameter NtPath:%wZ\n", NtPath);
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  head.Buffer = NtPath->Buffer;
  head.Length = head.MaximumLength = SK_DEVICE_PREFIX_CHARS * sizeof(WCHAR);
  RtlInitUnicodeString(&prefix, SK_DEVICE_PREFIX);
  if (!RtlEqualUnicodeString(&head, &prefix, TRUE)) {
    status = STATUS_NOT_FOUND;
    goto Exit;
  }
  chars = NtPath->Length / sizeof(WCHAR);
  for (i = SK_DEVICE_PREFIX_CHARS; i < chars && NtPath->Buffer[i] != L'\\'; ++i) {
  }
  VolumeName->Buffer = NtPath->Buffer;
  VolumeName->Length = VolumeName->MaximumLength = (USHORT)(i * sizeof(WCHAR));
  SK_INFO("VolDevName:%wZ\n", VolumeName);
Exit:
  SK_LEAVE(status);
  return status;
}

// Sends IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH and waits for the answer, also when it pends.
static NTSTATUS sk_QueryVolumePaths(PDEVICE_OBJECT Device, PMOUNTMGR_TARGET_NAME Target, ULONG TargetSize,
                                    PVOID Output, ULONG OutputSize) {
  NTSTATUS status;
  KEVENT event;
  IO_STATUS_BLOCK iosb;
  PIRP irp;

  KeInitializeEvent(&event, NotificationEvent, FALSE);
  iosb.Status = STATUS_SUCCESS;
  iosb.Information = 0;
  irp = IoBuildDeviceIoControlRequest(IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH, Device, Target, TargetSize, Output,
                                      OutputSize, FALSE, &event, &iosb);
  if (!irp) {
    SK_ERROR("Irp alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  status = IoCallDriver(Device, irp);
  if (status == STATUS_PENDING) {
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
    status = iosb.Status;
  }
  return status;
}

NTSTATUS skt_QueryDosNameFromNtName(PCUNICODE_STRING VolumeName, PUNICODE_STRING DosName) {
  NTSTATUS status = STATUS_SUCCESS;
  UNICODE_STRING managerName;
  PFILE_OBJECT file = NULL;
  PDEVICE_OBJECT device = NULL;
  PFILE_OBJECT replaced;
  PMOUNTMGR_TARGET_NAME target = NULL;
  ULONG targetSize;
  MOUNTMGR_VOLUME_PATHS first;
  PMOUNTMGR_VOLUME_PATHS paths = NULL;
  ULONG outputSize;
  USHORT answerLength;

  PAGED_CODE();
  SK_ENTER();
  if (!VolumeName || !DosName) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  if (!SK_READ_ONCE(SentrelData.MountMgrDeviceObject)) {
    SK_ERROR("Invalid MountmgrDevObj\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  // The mount manager is asked afresh each time; the reference kept at start is swapped for the
  // new one. A concurrent query may still use the device it read: the device is the system's and
  // outlives every reference of ours.
  RtlInitUnicodeString(&managerName, L"\\Device\\MountPointManager");
  status = IoGetDeviceObjectPointer(&managerName, FILE_READ_ATTRIBUTES, &file, &device);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("IoGetDeviceObjectPointer Status:%08lx\n", status);
    goto Exit;
  }
  SK_INFO("MountmgrDevObj:%p\n", device);
  SK_INFO("MountmgrFileObj:%p\n", file);
  InterlockedExchangePointer((PVOID volatile *)&SentrelData.MountMgrDeviceObject, device);
  replaced = (PFILE_OBJECT)InterlockedExchangePointer((PVOID volatile *)&SentrelData.MountMgrFileObject, file);
  if (replaced) ObDereferenceObject(replaced);

  targetSize = VolumeName->Length + 4u;
  target = (PMOUNTMGR_TARGET_NAME)ExAllocatePoolWithTag(PagedPool, targetSize, SK_TAG_MOUNT_MGR);
  if (!target) {
    SK_ERROR("MountDevName alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(target, targetSize);
  target->DeviceNameLength = VolumeName->Length;
  RtlCopyMemory(target->DeviceName, VolumeName->Buffer, VolumeName->Length);

  RtlZeroMemory(&first, sizeof(first));
  status = sk_QueryVolumePaths(device, target, targetSize, &first, sizeof(first));
  if (status != STATUS_BUFFER_OVERFLOW && !NT_SUCCESS(status)) {
    SK_ERROR("Query Volume Paths fail Status:%08lx\n", status);
    goto Exit;
  }
  outputSize = first.MultiSzLength + 8;
  if (first.MultiSzLength > MAXUSHORT || outputSize > MAXUSHORT) {
    SK_ERROR("OutputLength > MAXUSHORT\n");
    status = STATUS_INVALID_BUFFER_SIZE;
    goto Exit;
  }
  paths = (PMOUNTMGR_VOLUME_PATHS)ExAllocatePoolWithTag(PagedPool, outputSize, SK_TAG_MOUNT_MGR);
  if (!paths) {
    SK_ERROR("MntMgrVolPath allo fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(paths, outputSize);
  status = sk_QueryVolumePaths(device, target, targetSize, paths, outputSize);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("Query Volume Paths fail Status:%08lx\n", status);
    goto Exit;
  }
  // The first name of the multi-string, moved to the buffer's start. An answer with no name at
  // all (just the terminators) would make a negative length: the volume has no DOS name.
  answerLength = (USHORT)paths->MultiSzLength;
  if (answerLength < 3 * sizeof(WCHAR) || (ULONG)answerLength + 4 > outputSize) {
    SK_ERROR("Query Volume Paths fail Status:%08lx\n", STATUS_NOT_FOUND);
    status = STATUS_NOT_FOUND;
    goto Exit;
  }
  DosName->Buffer = (PWSTR)paths;
  DosName->Length = (USHORT)(answerLength - 4);
  DosName->MaximumLength = (USHORT)(answerLength - 2);
  RtlMoveMemory(paths, paths->MultiSz, DosName->Length);
  // A volume with neither a letter nor a mount folder is answered with its GUID path, which is no
  // DOS name to put before a path: such a volume has none, as one the mount manager does not know.
  if (sk_HasPrefix(&SkVolumeGuidPrefix, DosName)) {
    SK_ERROR("Query Volume Paths fail Status:%08lx\n", STATUS_NOT_FOUND);
    RtlZeroMemory(DosName, sizeof(*DosName));
    status = STATUS_NOT_FOUND;
    goto Exit;
  }
  // A mount folder ends with a backslash; the rest of a path brings its own.
  if (DosName->Length >= sizeof(WCHAR) && DosName->Buffer[DosName->Length / sizeof(WCHAR) - 1] == L'\\') {
    DosName->Length -= sizeof(WCHAR);
  }
  DosName->Buffer[DosName->Length / sizeof(WCHAR)] = L'\0';
  paths = NULL;  // the caller's now
  SK_INFO("Vn:%wZ -> Dn:%wZ\n", VolumeName, DosName);

Exit:
  if (paths) ExFreePoolWithTag(paths, SK_TAG_MOUNT_MGR);
  if (target) ExFreePoolWithTag(target, SK_TAG_MOUNT_MGR);
  SK_LEAVE(status);
  return status;
}

// The table's DOS name of a volume; a miss asks the mount manager and adds its answer, at most
// five times, so one volume costs at most six lookups and five mount-manager requests.
static NTSTATUS sk_LookupDosNameCompleting(PCUNICODE_STRING VolumeName, PUNICODE_STRING *DosName) {
  NTSTATUS status;
  UNICODE_STRING answer;
  ULONG completions;

  for (completions = 0;; ++completions) {
    status = sk_LookupDosName(&SentrelData.DosNameMgr, VolumeName, DosName);
    if (NT_SUCCESS(status)) return status;
    if (status != STATUS_NOT_FOUND) {
      SK_FAIL("sk_LookupDosName", status);
      return status;
    }
    if (completions == SK_DOS_NAME_COMPLETIONS) {
      SK_ERROR("STATUS_NOT_FOUND i = %d\n", (int)completions);
      return STATUS_NOT_FOUND;
    }
    status = skt_QueryDosNameFromNtName(VolumeName, &answer);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("skt_QueryDosNameFromNtName", status);
      return status;
    }
    status = sk_AddDosNameInfo(&SentrelData.DosNameMgr, TRUE, VolumeName, &answer);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("sk_AddDosNameInfo", status);
      ExFreePoolWithTag(answer.Buffer, SK_TAG_MOUNT_MGR);
      return status;
    }
    SK_INFO("add %wZ-%wZ\n", VolumeName, &answer);
    ExFreePoolWithTag(answer.Buffer, SK_TAG_MOUNT_MGR);
  }
}

// The DOS path of NtPath from the table: the volume's DOS name followed by the rest of the path,
// in a block of exactly that size.
static NTSTATUS sk_DosPathFromTable(PCUNICODE_STRING NtPath, PUNICODE_STRING *DosPath) {
  NTSTATUS status;
  UNICODE_STRING volume;
  UNICODE_STRING rest;
  PUNICODE_STRING dosName = NULL;

  status = skt_GetVolDevName(NtPath, &volume);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetVolDevName", status);
    return status;
  }
  status = sk_LookupDosNameCompleting(&volume, &dosName);
  if (!NT_SUCCESS(status)) return status;
  rest = sk_Tail(NtPath, volume.Length);
  *DosPath = sk_JoinStrings((ULONG)NtPath->Length - volume.Length + dosName->Length, dosName, &rest, NULL);
  skt_FreeUnicodeStringSelf(dosName);
  if (!*DosPath) {
    SK_ERROR("pDosName alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  SK_INFO("DosPath:%wZ\n", *DosPath);
  return STATUS_SUCCESS;
}

// The DOS path of NtPath as the mount manager names its volume: "\??\" + DOS name + the rest.
static NTSTATUS sk_DosPathFromMountManager(PCUNICODE_STRING NtPath, PUNICODE_STRING *DosPath) {
  NTSTATUS status;
  UNICODE_STRING volume;
  UNICODE_STRING dosName;
  UNICODE_STRING rest;
  UNICODE_STRING root;

  status = skt_GetVolDevName(NtPath, &volume);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetVolDevName", status);
    return status;
  }
  status = skt_QueryDosNameFromNtName(&volume, &dosName);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_QueryDosNameFromNtName", status);
    return status;
  }
  rest = sk_Tail(NtPath, volume.Length);
  RtlInitUnicodeString(&root, L"\\??\\");
  *DosPath = sk_JoinStrings((ULONG)dosName.Length + rest.Length + 16, &root, &dosName, &rest);
  ExFreePoolWithTag(dosName.Buffer, SK_TAG_MOUNT_MGR);
  if (!*DosPath) {
    SK_ERROR("pDosName alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  SK_INFO("DosPath:%wZ\n", *DosPath);
  return STATUS_SUCCESS;
}

// The end of both conversions: the DOS path made from the NT name (from the table or from the
// mount manager) where asked for, then the NT name handed over or freed. Without a DOS part the
// NT path still stands.
static VOID sk_HandOverPaths(PUNICODE_STRING NtName, BOOLEAN FromTable, PUNICODE_STRING *NtPath,
                             PUNICODE_STRING *DosPath) {
  if (NtPath) SK_INFO("NtPath:%wZ\n", NtName);
  if (DosPath) {
    *DosPath = NULL;
    if (FromTable) sk_DosPathFromTable(NtName, DosPath);
    else sk_DosPathFromMountManager(NtName, DosPath);
  }
  if (NtPath) *NtPath = NtName;
  else skt_FreeUnicodeStringSelf(NtName);
}

NTSTATUS skt_PathConvertToNtPath(POOL_TYPE PoolType, BOOLEAN IsDirectory, PFILE_OBJECT FileObject,
                                 PUNICODE_STRING Path, PUNICODE_STRING *NtPath, PUNICODE_STRING *DosPath) {
  NTSTATUS status = STATUS_SUCCESS;
  HANDLE handle = NULL;
  PFILE_OBJECT file = NULL;
  PUNICODE_STRING ntName = NULL;

  UNREFERENCED_PARAMETER(PoolType);
  UNREFERENCED_PARAMETER(FileObject);
  PAGED_CODE();
  SK_ENTER();
  if (!Path || (!NtPath && !DosPath)) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  SK_INFO("Path:%wZ\n", Path);
  status = sk_OpenPath(Path, IsDirectory ? SK_OPEN_DIRECTORY : SK_OPEN_FILE, FALSE, &handle, &file);
  if (NT_SUCCESS(status)) status = sk_QueryFileObjectName(file, SK_NT_PATH_SLACK, &ntName);
  sk_ClosePath(handle, file, FALSE);
  if (!NT_SUCCESS(status)) goto Exit;

  sk_HandOverPaths(ntName, FALSE, NtPath, DosPath);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS skt_ImagePathConvertToNtPath(POOL_TYPE PoolType, PFILE_OBJECT FileObject, PUNICODE_STRING Path,
                                      PUNICODE_STRING *NtPath, PUNICODE_STRING *DosPath) {
  NTSTATUS status = STATUS_SUCCESS;
  HANDLE handle = NULL;
  PFILE_OBJECT file = FileObject;
  PUNICODE_STRING ntName = NULL;

  UNREFERENCED_PARAMETER(PoolType);
  PAGED_CODE();
  SK_ENTER();
  if ((!FileObject && !Path) || (!NtPath && !DosPath)) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  if (FileObject) {
    // The caller's file object is used as it is: neither referenced nor released here.
    status = sk_QueryFileObjectName(FileObject, SK_NT_PATH_SLACK, &ntName);
  } else {
    SK_INFO("Path:%wZ\n", Path);
    status = sk_OpenPath(Path, SK_OPEN_FILE, TRUE, &handle, &file);
    if (NT_SUCCESS(status)) status = sk_QueryFileObjectName(file, SK_NT_PATH_SLACK, &ntName);
    sk_ClosePath(handle, file, TRUE);
  }
  if (!NT_SUCCESS(status)) goto Exit;

  sk_HandOverPaths(ntName, TRUE, NtPath, DosPath);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS skt_QueryNtPath(PUNICODE_STRING Path, BOOLEAN IsDirectory, PUNICODE_STRING *NtPath) {
  NTSTATUS status = STATUS_SUCCESS;
  HANDLE handle = NULL;
  PFILE_OBJECT file = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!Path || !NtPath) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  status = sk_OpenPath(Path, IsDirectory ? SK_OPEN_DIRECTORY : SK_OPEN_ANY, FALSE, &handle, &file);
  if (NT_SUCCESS(status)) status = sk_QueryFileObjectName(file, SK_NT_PATH_SPARE, NtPath);
  sk_ClosePath(handle, file, FALSE);
  if (NT_SUCCESS(status)) SK_INFO("NtPath:%wZ\n", *NtPath);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS skt_QueryDosPathFromNtPath(POOL_TYPE PoolType, PCUNICODE_STRING NtPath, PUNICODE_STRING *DosPath) {
  NTSTATUS status = STATUS_SUCCESS;

  UNREFERENCED_PARAMETER(PoolType);
  PAGED_CODE();
  SK_ENTER();
  if (!NtPath || !DosPath) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  *DosPath = NULL;
  SK_INFO("NtPath:%wZ\n", NtPath);
  if (NtPath->Length >= SkMupPrefix.Length && RtlPrefixUnicodeString(&SkMupPrefix, NtPath, TRUE)) {
    // A network path has no drive letter to go by: it stands for itself.
    *DosPath = sk_JoinStrings(NtPath->Length, NtPath, NULL, NULL);
    if (!*DosPath) {
      SK_ERROR("Mup pDosName alloc fail\n");
      status = STATUS_INSUFFICIENT_RESOURCES;
    }
    goto Exit;
  }
  status = sk_DosPathFromTable(NtPath, DosPath);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_GetImageRealPath(PUNICODE_STRING ImageName, PUNICODE_STRING *RealPath) {
  NTSTATUS status = STATUS_SUCCESS;
  PCUNICODE_STRING root = NULL;  // the DOS path that replaces the name's symbolic head
  PUNICODE_STRING dosName = NULL;
  UNICODE_STRING volume;
  UNICODE_STRING rest;
  PUNICODE_STRING joined;
  USHORT chars;
  USHORT i;

  PAGED_CODE();
  SK_ENTER();
  if (!ImageName || !RealPath) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  *RealPath = ImageName;
  SK_INFO("FullImageName:%wZ\n", ImageName);

  if (sk_HasPrefix(&SkSystemRootPrefix, ImageName) || sk_HasPrefix(&SkWindowsPrefix, ImageName)) {
    rest = sk_Tail(ImageName, sk_HasPrefix(&SkSystemRootPrefix, ImageName) ? SkSystemRootPrefix.Length
                                                                            : SkWindowsPrefix.Length);
    root = SentrelData.SystemRootDosPath;
    if (!root) {
      // The system root had no DOS path at start-up: there is nothing to put in its place.
      status = STATUS_NOT_FOUND;
      goto Exit;
    }
  } else if (ImageName->Length <= SkVolumePrefix.Length) {
    goto Exit;  // too short to name a file on a volume: it stays as it is
  } else if (!RtlPrefixUnicodeString(&SkVolumePrefix, ImageName, TRUE)) {
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  } else {
    chars = ImageName->Length / sizeof(WCHAR);
    for (i = SkVolumePrefix.Length / sizeof(WCHAR); i < chars && ImageName->Buffer[i] != L'\\'; ++i) {
    }
    volume.Buffer = ImageName->Buffer;
    volume.Length = volume.MaximumLength = (USHORT)(i * sizeof(WCHAR));
    rest = sk_Tail(ImageName, volume.Length);
    status = sk_LookupDosName(&SentrelData.DosNameMgr, &volume, &dosName);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("sk_LookupDosName", status);
      goto Exit;
    }
    root = dosName;
  }

  joined = sk_JoinStrings((ULONG)root->Length + rest.Length, root, &rest, NULL);
  if (!joined) {
    SK_ERROR("NewPath alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  *RealPath = joined;
  SK_INFO("RealPath:%wZ\n", joined);
Exit:
  if (dosName) skt_FreeUnicodeStringSelf(dosName);
  SK_LEAVE(status);
  return status;
}
