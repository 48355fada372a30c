#include "core/optional_routines.h"

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/module_query.h"

#define SK_MODULE SK_TRACE_CORE

static NTSTATUS sk_FallbackReferenceProcessFilePointer(PEPROCESS Process, PFILE_OBJECT *FileObject) {
  UNREFERENCED_PARAMETER(Process);
  UNREFERENCED_PARAMETER(FileObject);
  return STATUS_NOT_IMPLEMENTED;
}

static NTSTATUS sk_FallbackLocateProcessImageName(PEPROCESS Process, PUNICODE_STRING *ImageName) {
  UNREFERENCED_PARAMETER(Process);
  UNREFERENCED_PARAMETER(ImageName);
  return STATUS_NOT_IMPLEMENTED;
}

static NTSTATUS sk_FallbackAcquireProcessExitSynchronization(PEPROCESS Process) {
  UNREFERENCED_PARAMETER(Process);
  return STATUS_SUCCESS;
}

static VOID sk_FallbackReleaseProcessExitSynchronization(PEPROCESS Process) { UNREFERENCED_PARAMETER(Process); }

static NTSTATUS sk_FallbackOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                                               ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                               KPROCESSOR_MODE AccessMode, PHANDLE Handle) {
  UNREFERENCED_PARAMETER(Object);
  UNREFERENCED_PARAMETER(HandleAttributes);
  UNREFERENCED_PARAMETER(PassedAccessState);
  UNREFERENCED_PARAMETER(DesiredAccess);
  UNREFERENCED_PARAMETER(ObjectType);
  UNREFERENCED_PARAMETER(AccessMode);
  UNREFERENCED_PARAMETER(Handle);
  return STATUS_NOT_IMPLEMENTED;
}

static NTSTATUS sk_FallbackQueryInformationThread(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                                  PVOID ThreadInformation, ULONG ThreadInformationLength,
                                                  PULONG ReturnLength) {
  UNREFERENCED_PARAMETER(ThreadHandle);
  UNREFERENCED_PARAMETER(ThreadInformationClass);
  UNREFERENCED_PARAMETER(ThreadInformation);
  UNREFERENCED_PARAMETER(ThreadInformationLength);
  UNREFERENCED_PARAMETER(ReturnLength);
  return STATUS_NOT_IMPLEMENTED;
}

// No parameter block to read: command lines and current directories go unreported.
static PPEB sk_FallbackGetProcessPeb(PEPROCESS Process) {
  UNREFERENCED_PARAMETER(Process);
  return NULL;
}

// Every process counts as native: the module walk starts where a 64-bit process's images lie.
static PVOID sk_FallbackGetProcessWow64Process(PEPROCESS Process) {
  UNREFERENCED_PARAMETER(Process);
  return NULL;
}

// The session's id from the token's statistics, which every kernel answers.
static NTSTATUS sk_FallbackQueryAuthenticationIdToken(PACCESS_TOKEN Token, PLUID AuthenticationId) {
  PTOKEN_STATISTICS statistics = NULL;
  NTSTATUS status = SeQueryInformationToken(Token, TokenStatistics, (PVOID *)&statistics);
  if (!NT_SUCCESS(status)) return status;
  *AuthenticationId = statistics->AuthenticationId;
  ExFreePool(statistics);
  return STATUS_SUCCESS;
}

// The terminal-services session of the process's primary token (0 when there is none).
static ULONG sk_FallbackGetProcessSessionId(PEPROCESS Process) {
  PACCESS_TOKEN token = PsReferencePrimaryToken(Process);
  PVOID sessionId = NULL;  // the DWORD itself comes back in place of the pointer
  if (!token) return 0;
  if (!NT_SUCCESS(SeQueryInformationToken(token, TokenSessionId, &sessionId))) sessionId = NULL;
  ObDereferenceObject(token);
  return (ULONG)(ULONG_PTR)sessionId;
}

// Unknown: the process identity's first field stays 0.
static HANDLE sk_FallbackGetProcessInheritedFromUniqueProcessId(PEPROCESS Process) {
  UNREFERENCED_PARAMETER(Process);
  return NULL;
}

// No frames: caller stacks cannot be captured.
static ULONG sk_FallbackWalkFrameChain(PVOID *Callers, ULONG Count, ULONG Flags) {
  UNREFERENCED_PARAMETER(Callers);
  UNREFERENCED_PARAMETER(Count);
  UNREFERENCED_PARAMETER(Flags);
  return 0;
}

// From the kernel image's export table once the image is known; otherwise the kernel's own lookup.
static PVOID sk_LookupRoutine(PSENTREL_DATA Data, PCWSTR Name) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, Name);
  if (Data->KernelImageBase) return skt_MmGetSystemRoutineAddress((PVOID)(ULONG_PTR)Data->KernelImageBase, &name);
  return MmGetSystemRoutineAddress(&name);
}

void sk_ResolveOptionalRoutines(PSENTREL_DATA Data) {
  UNICODE_STRING name;
  PVOID routine;
  PVOID imageBase = NULL;
  ULONG imageSize = 0;
  MODULE_ADDRESS_QUERY query;

  // The kernel image is the loaded module whose range holds ZwCreateSection, which every kernel
  // exports. A module list without it leaves the base at 0.
  RtlInitUnicodeString(&name, L"ZwCreateSection");
  query.Status = STATUS_INSUFFICIENT_RESOURCES;
  query.Address = MmGetSystemRoutineAddress(&name);
  query.ImageBase = &imageBase;
  query.ImageSize = &imageSize;
  skt_EnumSysModule(skt_ModuleContainsAddress, &query);
  Data->KernelImageBase = NT_SUCCESS(query.Status) ? (ULONG64)(ULONG_PTR)imageBase : 0;
  Data->KernelImageSize = NT_SUCCESS(query.Status) ? imageSize : 0;

  routine = sk_LookupRoutine(Data, L"PsReferenceProcessFilePointer");
  if (routine) SK_INFO("PsReferenceProcessFilePointer:0x%p\n", routine);
  Data->PsReferenceProcessFilePointer =
      routine ? (PSK_PS_REFERENCE_PROCESS_FILE_POINTER)routine : sk_FallbackReferenceProcessFilePointer;

  routine = sk_LookupRoutine(Data, L"SeLocateProcessImageName");
  if (routine) SK_INFO("SeLocateProcessImageName:0x%p\n", routine);
  Data->SeLocateProcessImageName =
      routine ? (PSK_SE_LOCATE_PROCESS_IMAGE_NAME)routine : sk_FallbackLocateProcessImageName;

  routine = sk_LookupRoutine(Data, L"PsAcquireProcessExitSynchronization");
  if (routine) SK_INFO("PsAcquireProcessExitSynchronization:0x%p\n", routine);
  Data->PsAcquireProcessExitSynchronization = routine ? (PSK_PS_ACQUIRE_PROCESS_EXIT_SYNCHRONIZATION)routine
                                                      : sk_FallbackAcquireProcessExitSynchronization;

  routine = sk_LookupRoutine(Data, L"PsReleaseProcessExitSynchronization");
  if (routine) SK_INFO("PsReleaseProcessExitSynchronization:0x%p\n", routine);
  Data->PsReleaseProcessExitSynchronization = routine ? (PSK_PS_RELEASE_PROCESS_EXIT_SYNCHRONIZATION)routine
                                                      : sk_FallbackReleaseProcessExitSynchronization;

  routine = sk_LookupRoutine(Data, L"ObOpenObjectByPointer");
  Data->ObOpenObjectByPointer = routine ? (PSK_OB_OPEN_OBJECT_BY_POINTER)routine : sk_FallbackOpenObjectByPointer;
  routine = sk_LookupRoutine(Data, L"ZwQueryInformationThread");
  Data->ZwQueryInformationThread =
      routine ? (PSK_ZW_QUERY_INFORMATION_THREAD)routine : sk_FallbackQueryInformationThread;
  routine = sk_LookupRoutine(Data, L"PsGetProcessPeb");
  Data->PsGetProcessPeb = routine ? (PSK_PS_GET_PROCESS_PEB)routine : sk_FallbackGetProcessPeb;
  routine = sk_LookupRoutine(Data, L"PsGetProcessWow64Process");
  Data->PsGetProcessWow64Process =
      routine ? (PSK_PS_GET_PROCESS_WOW64_PROCESS)routine : sk_FallbackGetProcessWow64Process;
  // None of these has a reference page that names a Windows version.
  routine = sk_LookupRoutine(Data, L"SeQueryAuthenticationIdToken");
  Data->SeQueryAuthenticationIdToken =
      routine ? (PSK_SE_QUERY_AUTHENTICATION_ID_TOKEN)routine : sk_FallbackQueryAuthenticationIdToken;
  routine = sk_LookupRoutine(Data, L"PsGetProcessSessionId");
  Data->PsGetProcessSessionId = routine ? (PSK_PS_GET_PROCESS_SESSION_ID)routine : sk_FallbackGetProcessSessionId;
  routine = sk_LookupRoutine(Data, L"PsGetProcessInheritedFromUniqueProcessId");
  Data->PsGetProcessInheritedFromUniqueProcessId = routine ? (PSK_PS_GET_PROCESS_INHERITED_FROM_UNIQUE_PROCESS_ID)routine
                                                           : sk_FallbackGetProcessInheritedFromUniqueProcessId;
  routine = sk_LookupRoutine(Data, L"RtlWalkFrameChain");
  Data->RtlWalkFrameChain = routine ? (PSK_RTL_WALK_FRAME_CHAIN)routine : sk_FallbackWalkFrameChain;
}
