#include "monitor/process_query.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "monitor/system_snapshot.h"
#include "names/string_block.h"
#include "platform/guarded_memory.h"

#define SK_MODULE SK_TRACE_TOOL

#define SK_PEB_PROCESS_PARAMETERS 0x20  // offset in the 64-bit environment block
#define SK_PARAMETERS_NORMALIZED 0x1    // Flags: string buffers are addresses, not offsets
#define SK_MAPPED_NAME_SIZE 16384
#define SK_WALK_REGION_LIMIT 6000
#define SK_WALK_START 0x40000
#define SK_WALK_START_WOW64 0x10000

// RTL_USER_PROCESS_PARAMETERS as far as it is read here, in the 64-bit layout.
typedef struct _SK_PROCESS_PARAMETERS {
  ULONG MaximumLength;
  ULONG Length;
  ULONG Flags;
  ULONG DebugFlags;
  PVOID ConsoleHandle;
  ULONG ConsoleFlags;
  PVOID StandardInput;
  PVOID StandardOutput;
  PVOID StandardError;
  UNICODE_STRING CurrentDirectoryDosPath;
  PVOID CurrentDirectoryHandle;
  UNICODE_STRING DllPath;
  UNICODE_STRING ImagePathName;
  UNICODE_STRING CommandLine;
} SK_PROCESS_PARAMETERS;
static_assert(FIELD_OFFSET(SK_PROCESS_PARAMETERS, CurrentDirectoryDosPath) == 0x38, "the 64-bit layout");
static_assert(FIELD_OFFSET(SK_PROCESS_PARAMETERS, CommandLine) == 0x70, "the 64-bit layout");

NTSTATUS skt_GetProcessParametersFromPeb(PEPROCESS Process, PVOID *ProcessParameters) {
  PUCHAR peb = (PUCHAR)SentrelData.PsGetProcessPeb(Process);
  if (!peb) return STATUS_INSUFFICIENT_RESOURCES;
  return skt_SafeCopyUserMemory(ProcessParameters, peb + SK_PEB_PROCESS_PARAMETERS, sizeof(PVOID));
}

// Copies one counted string of the parameter block (whose header the caller has copied already)
// into a new string block. The characters lie at the buffer field itself once the block is
// normalized, else at that offset from the block's start.
static NTSTATUS skt_CopyParameterString(PUCHAR Parameters, BOOLEAN Normalized, const UNICODE_STRING *Field,
                                        BOOLEAN IsCommandLine, PUNICODE_STRING *String) {
  PUNICODE_STRING copy;
  const UCHAR *characters;
  NTSTATUS status;

  if (Field->Length == 0) {
    if (IsCommandLine) SK_ERROR("CommandLine Invalid\n");
    else SK_ERROR("CurrentDirectory Invalid\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  characters = Normalized ? (const UCHAR *)Field->Buffer : Parameters + (ULONG_PTR)Field->Buffer;
  copy = skt_AllocateUnicodeStringSelf(PagedPool, Field->Length);
  if (!copy) {
    if (IsCommandLine) SK_ERROR("vCommandLine alloc fail\n");
    else SK_ERROR("vCurrentDirectory alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  // The address is the process's own word: it may point anywhere, the kernel included.
  status = skt_SafeCopyUserMemory(copy->Buffer, characters, Field->Length);
  if (!NT_SUCCESS(status)) {
    skt_FreeUnicodeStringSelf(copy);
    return status;
  }
  copy->Length = Field->Length;
  if (IsCommandLine) SK_INFO("CommandLine:%wZ\n", copy);
  else SK_INFO("CurrentDirectory:%wZ\n", copy);
  *String = copy;
  return STATUS_SUCCESS;
}

NTSTATUS skt_GetProcessPathInfo(PEPROCESS Process, PUNICODE_STRING *CommandLine, PUNICODE_STRING *CurrentDirectory) {
  NTSTATUS status;
  KAPC_STATE apcState;
  BOOLEAN attached = FALSE;
  PVOID parameters = NULL;
  SK_PROCESS_PARAMETERS header;
  BOOLEAN normalized;
  PUNICODE_STRING commandLine = NULL;
  PUNICODE_STRING currentDirectory = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!Process || (!CommandLine && !CurrentDirectory)) {
    status = STATUS_INVALID_PARAMETER;
    goto Leave;
  }
  if (CommandLine) *CommandLine = NULL;
  if (CurrentDirectory) *CurrentDirectory = NULL;
  if (Process != IoGetCurrentProcess()) {
    KeStackAttachProcess((PKPROCESS)Process, &apcState);
    attached = TRUE;
  }

  // Every read of the process's memory below is guarded: a fault ends the call with its code.
  status = skt_GetProcessParametersFromPeb(Process, &parameters);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("skt_GetProcessParametersFromPeb fail Status:%08lx\n", status);
    goto Exit;
  }
  if (!parameters) {
    SK_ERROR("Invalid ProcParameter\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  status = skt_SafeCopyUserMemory(&header, parameters, sizeof(header));
  if (!NT_SUCCESS(status)) goto Exit;
  normalized = (header.Flags & SK_PARAMETERS_NORMALIZED) != 0;
  if (CommandLine) {
    status = skt_CopyParameterString((PUCHAR)parameters, normalized, &header.CommandLine, TRUE, &commandLine);
    if (!NT_SUCCESS(status)) goto Exit;
  }
  if (CurrentDirectory) {
    status = skt_CopyParameterString((PUCHAR)parameters, normalized, &header.CurrentDirectoryDosPath, FALSE,
                                     &currentDirectory);
  }

Exit:
  if (attached) KeUnstackDetachProcess(&apcState);
  if (NT_SUCCESS(status)) {
    if (CommandLine) *CommandLine = commandLine;
    if (CurrentDirectory) *CurrentDirectory = currentDirectory;
  } else {
    if (commandLine) skt_FreeUnicodeStringSelf(commandLine);
    if (currentDirectory) skt_FreeUnicodeStringSelf(currentDirectory);
  }
Leave:
  SK_LEAVE(status);
  return status;
}

NTSTATUS skt_GetThreadWin32StartAddress(PETHREAD Thread, PVOID *StartAddress) {
  NTSTATUS status;
  HANDLE handle = NULL;
  PVOID start = NULL;

  PAGED_CODE();
  SK_ENTER();
  status = SentrelData.ObOpenObjectByPointer(Thread, OBJ_KERNEL_HANDLE, NULL, THREAD_QUERY_INFORMATION, NULL,
                                             KernelMode, &handle);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("ObOpenObjectByPointer fail Status:%08lx\n", status);
    goto Exit;
  }
  status = SentrelData.ZwQueryInformationThread(handle, ThreadQuerySetWin32StartAddress, &start, sizeof(start), NULL);
  if (NT_SUCCESS(status)) {
    SK_INFO("Win32StartAddress:0x%0x\n", (ULONG)(ULONG_PTR)start);
    *StartAddress = start;
  } else {
    SK_ERROR("ZwQueryInformationThread fail Status:%08lx\n", status);
  }
  ZwClose(handle);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS skt_QueryModuleInfo_VirtualMemory_Process(PEPROCESS Process, PSKT_MODULE_CALLBACK Callback, PVOID Context) {
  NTSTATUS status;
  KAPC_STATE apcState;
  BOOLEAN attached = FALSE;
  HANDLE handle = NULL;
  PUNICODE_STRING name = NULL;
  MEMORY_BASIC_INFORMATION region;
  SIZE_T returned;
  ULONG_PTR address;
  ULONG_PTR runBase = 0;
  ULONG runSize = 0;
  BOOLEAN runOpen = FALSE;
  ULONG count;

  PAGED_CODE();
  SK_ENTER();
  if (!Callback) {
    status = STATUS_INVALID_PARAMETER;
    goto Leave;
  }
  if (Process != IoGetCurrentProcess()) {
    KeStackAttachProcess((PKPROCESS)Process, &apcState);
    attached = TRUE;
  }
  status = SentrelData.ObOpenObjectByPointer(Process, OBJ_KERNEL_HANDLE, NULL, PROCESS_QUERY_INFORMATION, NULL,
                                             KernelMode, &handle);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("ObOpenObjectByPointer fail Status:%08lx\n", status);
    goto Exit;
  }
  name = (PUNICODE_STRING)ExAllocatePoolWithTag(PagedPool, SK_MAPPED_NAME_SIZE, SK_TAG_MAPPED_NAME);
  if (!name) {
    SK_ERROR("NameInfo alloca fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }

  // A run of image regions stays open across reserved or private regions (a later image region
  // extends it); only a free region closes it, and then the run is reported under its file name.
  address = SentrelData.PsGetProcessWow64Process(Process) ? SK_WALK_START_WOW64 : SK_WALK_START;
  for (count = 0; count < SK_WALK_REGION_LIMIT; ++count) {
    status = ZwQueryVirtualMemory(handle, (PVOID)address, MemoryBasicInformation, &region, sizeof(region), &returned);
    if (!NT_SUCCESS(status)) {
      SK_ERROR("ZwQueryVirtualMemory fail Status:%08lx\n", status);
      break;
    }
    if (region.Type == MEM_IMAGE) {
      if (!runOpen) {
        runOpen = TRUE;
        runBase = address;
        runSize = (ULONG)region.RegionSize;
      } else {
        runSize += (ULONG)region.RegionSize;
      }
    } else if (region.Type == 0 && region.Protect == PAGE_NOACCESS && runOpen) {
      status = ZwQueryVirtualMemory(handle, (PVOID)runBase, MemoryMappedFilenameInformation, name, SK_MAPPED_NAME_SIZE,
                                    &returned);
      runOpen = FALSE;
      if (NT_SUCCESS(status)) {
        SK_INFO("[B:0x%p][S:0x%0x] %wZ\n", (PVOID)runBase, runSize, name);
        status = Callback(name, (PVOID)runBase, runSize, Context);
        if (!NT_SUCCESS(status)) {
          status = STATUS_SUCCESS;  // the callback has what it wanted
          break;
        }
      }
    }
    address += region.RegionSize;
  }

Exit:
  if (name) ExFreePoolWithTag(name, SK_TAG_MAPPED_NAME);
  if (handle) ZwClose(handle);
  if (attached) KeUnstackDetachProcess(&apcState);
Leave:
  SK_LEAVE(status);
  return status;
}

NTSTATUS skt_EnumProcess(PSKT_ENUM_PROCESS_CALLBACK Callback, PVOID Context) {
  NTSTATUS status;
  PUCHAR buffer;
  PSYSTEM_PROCESS_INFORMATION entry;

  PAGED_CODE();
  SK_ENTER();
  if (!Callback) {
    status = STATUS_INVALID_PARAMETER;
    goto Leave;
  }
  status = skt_QuerySystemSnapshot(SystemProcessInformation, SK_TAG_PROCESS_SNAPSHOT, "ProcInfo alloc fail\n",
                                   (PVOID *)&buffer);
  if (!NT_SUCCESS(status)) goto Leave;
  SK_INFO("Query Process Information Success\n");
  entry = (PSYSTEM_PROCESS_INFORMATION)buffer;
  for (;;) {
    if (!NT_SUCCESS(Callback(entry, Context))) {
      SK_INFO("break Callback\n");
      break;
    }
    if (entry->NextEntryOffset == 0) break;
    entry = (PSYSTEM_PROCESS_INFORMATION)((PUCHAR)entry + entry->NextEntryOffset);
  }
  ExFreePoolWithTag(buffer, SK_TAG_PROCESS_SNAPSHOT);
  status = STATUS_SUCCESS;
Leave:
  SK_LEAVE(status);
  return status;
}
