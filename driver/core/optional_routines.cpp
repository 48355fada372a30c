#include "core/optional_routines.h"

#include "core/debug_log.h"
#include "core/sentrel_data.h"

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

static PVOID sk_LookupRoutine(PSENTREL_DATA Data, PCWSTR Name) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, Name);
  // Once the kernel image is known its export table is searched; that search comes with the
  // process and module queries. Until then, and on kernels where the image is not found, the
  // system's own lookup by name is used.
  UNREFERENCED_PARAMETER(Data);
  return MmGetSystemRoutineAddress(&name);
}

void sk_ResolveOptionalRoutines(PSENTREL_DATA Data) {
  PVOID routine;

  // The kernel image is the loaded module whose range contains ZwCreateSection; walking the
  // module list comes with the module queries, so KernelImageBase stays 0 for now.
  Data->KernelImageBase = 0;
  Data->KernelImageSize = 0;

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
}
