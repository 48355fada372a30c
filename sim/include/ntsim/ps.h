// Process, thread and image-load notifications.
#pragma once

#include "ntsim/io.h"

typedef struct _CLIENT_ID {
  HANDLE UniqueProcess;
  HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef VOID NTAPI CREATE_PROCESS_NOTIFY_ROUTINE(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create);
typedef CREATE_PROCESS_NOTIFY_ROUTINE *PCREATE_PROCESS_NOTIFY_ROUTINE;

typedef struct _PS_CREATE_NOTIFY_INFO {
  SIZE_T Size;
  union {
    ULONG Flags;
    struct {
      ULONG FileOpenNameAvailable : 1;
      ULONG IsSubsystemProcess : 1;
      ULONG Reserved : 30;
    };
  };
  HANDLE ParentProcessId;
  CLIENT_ID CreatingThreadId;
  struct _FILE_OBJECT *FileObject;
  PCUNICODE_STRING ImageFileName;
  PCUNICODE_STRING CommandLine;
  NTSTATUS CreationStatus;
} PS_CREATE_NOTIFY_INFO, *PPS_CREATE_NOTIFY_INFO;

typedef VOID NTAPI CREATE_PROCESS_NOTIFY_ROUTINE_EX(PEPROCESS Process, HANDLE ProcessId,
                                                    PPS_CREATE_NOTIFY_INFO CreateInfo);
typedef CREATE_PROCESS_NOTIFY_ROUTINE_EX *PCREATE_PROCESS_NOTIFY_ROUTINE_EX;

// PsSetCreateProcessNotifyRoutineEx2 is not declared: drivers find it with MmGetSystemRoutineAddress,
// since older kernels lack it.
typedef enum _PSCREATEPROCESSNOTIFYTYPE { PsCreateProcessNotifySubsystems = 0 } PSCREATEPROCESSNOTIFYTYPE;

typedef VOID NTAPI CREATE_THREAD_NOTIFY_ROUTINE(HANDLE ProcessId, HANDLE ThreadId, BOOLEAN Create);
typedef CREATE_THREAD_NOTIFY_ROUTINE *PCREATE_THREAD_NOTIFY_ROUTINE;

#define IMAGE_ADDRESSING_MODE_32BIT 3

typedef struct _IMAGE_INFO {
  union {
    ULONG Properties;
    struct {
      ULONG ImageAddressingMode : 8;
      ULONG SystemModeImage : 1;
      ULONG ImageMappedToAllPids : 1;
      ULONG ExtendedInfoPresent : 1;
      ULONG MachineTypeMismatch : 1;
      ULONG ImageSignatureLevel : 4;
      ULONG ImageSignatureType : 3;
      ULONG ImagePartialMap : 1;
      ULONG Reserved : 12;
    };
  };
  PVOID ImageBase;
  ULONG ImageSelector;
  SIZE_T ImageSize;
  ULONG ImageSectionNumber;
} IMAGE_INFO, *PIMAGE_INFO;

typedef struct _IMAGE_INFO_EX {
  SIZE_T Size;
  IMAGE_INFO ImageInfo;
  struct _FILE_OBJECT *FileObject;
} IMAGE_INFO_EX, *PIMAGE_INFO_EX;

// System threads.
typedef VOID NTAPI KSTART_ROUTINE(PVOID StartContext);
typedef KSTART_ROUTINE *PKSTART_ROUTINE;
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)
#define PROCESS_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)
#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define NtCurrentThread() ((HANDLE)(LONG_PTR)-2)

typedef VOID NTAPI LOAD_IMAGE_NOTIFY_ROUTINE(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo);
typedef LOAD_IMAGE_NOTIFY_ROUTINE *PLOAD_IMAGE_NOTIFY_ROUTINE;

#define THREAD_QUERY_INFORMATION 0x0040
#define PROCESS_QUERY_INFORMATION 0x0400
#define PROCESS_QUERY_LIMITED_INFORMATION 0x1000

typedef enum _THREADINFOCLASS {
  ThreadBasicInformation = 0,
  ThreadQuerySetWin32StartAddress = 9,
} THREADINFOCLASS;

typedef struct _PEB *PPEB;

NTSIM_BEGIN_DECLS

NTSTATUS NTAPI PsSetCreateProcessNotifyRoutine(PCREATE_PROCESS_NOTIFY_ROUTINE NotifyRoutine, BOOLEAN Remove);
NTSTATUS NTAPI PsSetCreateProcessNotifyRoutineEx(PCREATE_PROCESS_NOTIFY_ROUTINE_EX NotifyRoutine, BOOLEAN Remove);
NTSTATUS NTAPI PsSetCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE NotifyRoutine);
NTSTATUS NTAPI PsRemoveCreateThreadNotifyRoutine(PCREATE_THREAD_NOTIFY_ROUTINE NotifyRoutine);
NTSTATUS NTAPI PsSetLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine);
NTSTATUS NTAPI PsRemoveLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine);

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                    HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                    PVOID StartContext);
NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS ExitStatus);
HANDLE NTAPI PsGetProcessId(PEPROCESS Process);
HANDLE NTAPI PsGetThreadId(PETHREAD Thread);
PEPROCESS NTAPI IoGetCurrentProcess(void);

// Processes and threads by id: a referenced object, or STATUS_INVALID_PARAMETER (STATUS_INVALID_CID
// for a thread) when none is alive with that id.
NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS *Process);
NTSTATUS NTAPI PsLookupThreadByThreadId(HANDLE ThreadId, PETHREAD *Thread);
PPEB NTAPI PsGetProcessPeb(PEPROCESS Process);
PVOID NTAPI PsGetProcessWow64Process(PEPROCESS Process);
LONGLONG NTAPI PsGetProcessCreateTimeQuadPart(PEPROCESS Process);
HANDLE NTAPI PsGetProcessInheritedFromUniqueProcessId(PEPROCESS Process);
// Exported by every kernel but documented by none: the return addresses of the current thread's
// stack, user mode with flag 1.
ULONG NTAPI RtlWalkFrameChain(PVOID* Callers, ULONG Count, ULONG Flags);
ULONG NTAPI PsGetProcessSessionId(PEPROCESS Process);
BOOLEAN NTAPI PsIsSystemThread(PETHREAD Thread);
PEPROCESS NTAPI PsGetThreadProcess(PETHREAD Thread);
NTSTATUS NTAPI ZwQueryInformationThread(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                        PVOID ThreadInformation, ULONG ThreadInformationLength, PULONG ReturnLength);
// Not every kernel exports these: drivers find them with MmGetSystemRoutineAddress.
NTSTATUS NTAPI PsReferenceProcessFilePointer(PEPROCESS Process, struct _FILE_OBJECT **FileObject);
NTSTATUS NTAPI PsAcquireProcessExitSynchronization(PEPROCESS Process);
VOID NTAPI PsReleaseProcessExitSynchronization(PEPROCESS Process);

NTSIM_END_DECLS
