#include "core/load_guard.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"

#define SK_MODULE SK_TRACE_CORE

#define SK_LOAD_GUARD_ACCESS (GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE)
#define SK_LOAD_GUARD_SHARE (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)
#define SK_LOAD_GUARD_OPTIONS (FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE | FILE_WRITE_THROUGH)

volatile BOOLEAN LoadGuardArmed = FALSE;

static NTSTATUS sk_LoadGuardOpen(PHANDLE File, BOOLEAN Create, ULONG Options) {
  UNICODE_STRING name;
  OBJECT_ATTRIBUTES attributes;
  IO_STATUS_BLOCK iosb;
  RtlInitUnicodeString(&name, SK_LOAD_GUARD_FILE);
  // Case-sensitive name: no OBJ_CASE_INSENSITIVE.
  InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, NULL, NULL);
  if (Create) {
    return ZwCreateFile(File, SK_LOAD_GUARD_ACCESS, &attributes, &iosb, NULL, FILE_ATTRIBUTE_NORMAL,
                        SK_LOAD_GUARD_SHARE, FILE_CREATE, Options, NULL, 0);
  }
  return ZwOpenFile(File, SK_LOAD_GUARD_ACCESS, &attributes, &iosb, SK_LOAD_GUARD_SHARE, Options);
}

// Reads the record at offset 0: the read's status, and in *Complete whether all 128 bytes came.
static NTSTATUS sk_LoadGuardRead(HANDLE File, PSK_LOAD_GUARD_RECORD Record, BOOLEAN *Complete) {
  IO_STATUS_BLOCK iosb;
  LARGE_INTEGER offset;
  NTSTATUS status;
  offset.QuadPart = 0;
  iosb.Information = 0;
  status = ZwReadFile(File, NULL, NULL, NULL, &iosb, Record, sizeof(*Record), &offset, NULL);
  *Complete = (status == STATUS_SUCCESS || status == STATUS_END_OF_FILE) && iosb.Information == sizeof(*Record);
  return status;
}

static NTSTATUS sk_LoadGuardWrite(HANDLE File, PSK_LOAD_GUARD_RECORD Record) {
  IO_STATUS_BLOCK iosb;
  LARGE_INTEGER offset;
  offset.QuadPart = 0;
  return ZwWriteFile(File, NULL, NULL, NULL, &iosb, Record, sizeof(*Record), &offset, NULL);
}

static void sk_LoadGuardFlushAndClose(HANDLE File) {
  IO_STATUS_BLOCK iosb;
  ZwFlushBuffersFile(File, &iosb);
  ZwClose(File);
}

static void sk_LoadGuardFreshRecord(PSK_LOAD_GUARD_RECORD Record) {
  static const WCHAR moduleName[] = L"Sentrel.sys";
  RtlZeroMemory(Record, sizeof(*Record));
  Record->Magic = SK_LOAD_GUARD_MAGIC;
  Record->Size = sizeof(*Record);
  Record->LoadCount = 0;
  RtlCopyMemory(Record->ModuleName, moduleName, sizeof(moduleName) - sizeof(WCHAR));
  Record->Trailer = SK_LOAD_GUARD_TRAILER;
}

// Forces the record through the file system: the file is read again, whole allocation, without
// the cache. What is read is not looked at; a failure here changes nothing.
static void sk_LoadGuardReadBack(void) {
  HANDLE file;
  IO_STATUS_BLOCK iosb;
  FILE_STANDARD_INFORMATION info;
  LARGE_INTEGER offset;
  PVOID buffer;
  ULONG size;

  if (!NT_SUCCESS(sk_LoadGuardOpen(&file, FALSE, SK_LOAD_GUARD_OPTIONS | FILE_NO_INTERMEDIATE_BUFFERING))) return;
  if (NT_SUCCESS(ZwQueryInformationFile(file, &iosb, &info, sizeof(info), FileStandardInformation))) {
    size = info.AllocationSize.LowPart;
    buffer = size ? ExAllocatePoolWithTag(PagedPool, size, SK_TAG_LOAD_GUARD) : NULL;
    if (buffer) {
      offset.QuadPart = 0;
      ZwReadFile(file, NULL, NULL, NULL, &iosb, buffer, size, &offset, NULL);
      ExFreePoolWithTag(buffer, SK_TAG_LOAD_GUARD);
    }
  }
  sk_LoadGuardFlushAndClose(file);
}

NTSTATUS sk_LoadGuardEnter(void) {
  SK_LOAD_GUARD_RECORD record;
  HANDLE file = NULL;
  BOOLEAN valid = FALSE;
  NTSTATUS status;

  PAGED_CODE();
  SK_ENTER();
  status = sk_LoadGuardOpen(&file, FALSE, SK_LOAD_GUARD_OPTIONS);
  if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
    status = sk_LoadGuardOpen(&file, TRUE, SK_LOAD_GUARD_OPTIONS);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("ZwCreateFile", status);
      goto Exit;
    }
  } else if (!NT_SUCCESS(status)) {
    SK_FAIL("ZwOpenFile", status);
    goto Exit;
  } else {
    sk_LoadGuardRead(file, &record, &valid);
    valid = valid && record.Magic == SK_LOAD_GUARD_MAGIC && record.Size == sizeof(record) &&
            record.Trailer == SK_LOAD_GUARD_TRAILER;
  }
  if (!valid) sk_LoadGuardFreshRecord(&record);

  if (record.LoadCount >= SK_LOAD_GUARD_LIMIT) {
    SK_ERROR("Load Guard LoadCount:%d, refuse to load\n", record.LoadCount);
    ZwClose(file);
    status = STATUS_ACCESS_DENIED;
    goto Exit;
  }

  ++record.LoadCount;
  status = sk_LoadGuardWrite(file, &record);
  sk_LoadGuardFlushAndClose(file);
  if (!NT_SUCCESS(status)) {
    // Not armed: no release of this load will lower a count it never raised.
    SK_FAIL("ZwWriteFile", status);
    status = STATUS_SUCCESS;
    goto Exit;
  }
  LoadGuardArmed = TRUE;
  sk_LoadGuardReadBack();
  status = STATUS_SUCCESS;
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_LoadGuardRelease(void) {
  SK_LOAD_GUARD_RECORD record;
  HANDLE file = NULL;
  BOOLEAN complete = FALSE;
  NTSTATUS status;

  PAGED_CODE();
  SK_ENTER();
  if (!LoadGuardArmed) {
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  status = sk_LoadGuardOpen(&file, FALSE, SK_LOAD_GUARD_OPTIONS);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ZwOpenFile", status);
    goto Exit;
  }
  status = sk_LoadGuardRead(file, &record, &complete);
  if (status != STATUS_SUCCESS && status != STATUS_END_OF_FILE) {
    SK_FAIL("ZwReadFile", status);
    ZwClose(file);
    goto Exit;
  }
  if (!complete) {
    // Not a record this driver wrote: leave it for the next load to replace.
    ZwClose(file);
    status = STATUS_SUCCESS;
    goto Exit;
  }
  if (record.LoadCount > 0) --record.LoadCount;
  status = sk_LoadGuardWrite(file, &record);
  sk_LoadGuardFlushAndClose(file);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ZwWriteFile", status);
  } else {
    sk_LoadGuardReadBack();
  }
  status = STATUS_SUCCESS;
Exit:
  SK_LEAVE(status);
  return status;
}
