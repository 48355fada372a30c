// Declarations of kernel routines and types that the mingw-w64 DDK headers lack.
// Each is exported by ntoskrnl.exe (or ksecdd.sys) on the Windows versions we run on.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Found at run time with MmGetSystemRoutineAddress: older kernels do not export it.
typedef enum _PSCREATEPROCESSNOTIFYTYPE { PsCreateProcessNotifySubsystems = 0 } PSCREATEPROCESSNOTIFYTYPE;

// Process and thread queries.
#ifndef THREAD_QUERY_INFORMATION
#define THREAD_QUERY_INFORMATION 0x0040
#endif
#ifndef PROCESS_QUERY_INFORMATION
#define PROCESS_QUERY_INFORMATION 0x0400
#endif
#ifndef MEM_IMAGE
#define MEM_IMAGE 0x01000000
#endif

typedef enum _MEMORY_INFORMATION_CLASS {
  MemoryBasicInformation = 0,
  MemoryWorkingSetInformation = 1,
  MemoryMappedFilenameInformation = 2,
} MEMORY_INFORMATION_CLASS;

typedef struct _MEMORY_BASIC_INFORMATION {
  PVOID BaseAddress;
  PVOID AllocationBase;
  ULONG AllocationProtect;
  USHORT PartitionId;
  SIZE_T RegionSize;
  ULONG State;
  ULONG Protect;
  ULONG Type;
} MEMORY_BASIC_INFORMATION, *PMEMORY_BASIC_INFORMATION;

NTSYSAPI NTSTATUS NTAPI ZwQueryVirtualMemory(HANDLE ProcessHandle, PVOID BaseAddress,
                                             MEMORY_INFORMATION_CLASS MemoryInformationClass, PVOID MemoryInformation,
                                             SIZE_T MemoryInformationLength, PSIZE_T ReturnLength);

// System information, in the layouts the 64-bit kernel returns.
typedef enum _SYSTEM_INFORMATION_CLASS {
  SystemBasicInformation = 0,
  SystemProcessInformation = 5,
  SystemModuleInformation = 11,
} SYSTEM_INFORMATION_CLASS;

typedef struct _SYSTEM_PROCESS_INFORMATION {
  ULONG NextEntryOffset;
  ULONG NumberOfThreads;
  LARGE_INTEGER WorkingSetPrivateSize;
  ULONG HardFaultCount;
  ULONG NumberOfThreadsHighWatermark;
  ULONGLONG CycleTime;
  LARGE_INTEGER CreateTime;
  LARGE_INTEGER UserTime;
  LARGE_INTEGER KernelTime;
  UNICODE_STRING ImageName;
  KPRIORITY BasePriority;
  HANDLE UniqueProcessId;
  HANDLE InheritedFromUniqueProcessId;
  ULONG HandleCount;
  ULONG SessionId;
  ULONG_PTR UniqueProcessKey;
  SIZE_T PeakVirtualSize;
  SIZE_T VirtualSize;
  ULONG PageFaultCount;
  SIZE_T PeakWorkingSetSize;
  SIZE_T WorkingSetSize;
  SIZE_T QuotaPeakPagedPoolUsage;
  SIZE_T QuotaPagedPoolUsage;
  SIZE_T QuotaPeakNonPagedPoolUsage;
  SIZE_T QuotaNonPagedPoolUsage;
  SIZE_T PagefileUsage;
  SIZE_T PeakPagefileUsage;
  SIZE_T PrivatePageCount;
  LARGE_INTEGER ReadOperationCount;
  LARGE_INTEGER WriteOperationCount;
  LARGE_INTEGER OtherOperationCount;
  LARGE_INTEGER ReadTransferCount;
  LARGE_INTEGER WriteTransferCount;
  LARGE_INTEGER OtherTransferCount;
} SYSTEM_PROCESS_INFORMATION, *PSYSTEM_PROCESS_INFORMATION;

typedef struct _RTL_PROCESS_MODULE_INFORMATION {
  HANDLE Section;
  PVOID MappedBase;
  PVOID ImageBase;
  ULONG ImageSize;
  ULONG Flags;
  USHORT LoadOrderIndex;
  USHORT InitOrderIndex;
  USHORT LoadCount;
  USHORT OffsetToFileName;
  UCHAR FullPathName[256];
} RTL_PROCESS_MODULE_INFORMATION, *PRTL_PROCESS_MODULE_INFORMATION;

typedef struct _RTL_PROCESS_MODULES {
  ULONG NumberOfModules;
  RTL_PROCESS_MODULE_INFORMATION Modules[1];
} RTL_PROCESS_MODULES, *PRTL_PROCESS_MODULES;

NTSYSAPI NTSTATUS NTAPI NtQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass,
                                                 PVOID SystemInformation, ULONG SystemInformationLength,
                                                 PULONG ReturnLength);

// The kernel security support library (ksecdd.sys): the user of a logon session.
typedef struct _SECURITY_USER_DATA {
  UNICODE_STRING UserName;
  UNICODE_STRING LogonDomainName;
  UNICODE_STRING LogonServer;
  PSID pSid;
} SECURITY_USER_DATA, *PSECURITY_USER_DATA;
#ifndef UNDERSTANDS_LONG_NAMES
#define UNDERSTANDS_LONG_NAMES 1
#endif
NTSTATUS NTAPI GetSecurityUserInfo(PLUID LogonId, ULONG Flags, PSECURITY_USER_DATA *UserInformation);
NTSTATUS NTAPI LsaFreeReturnBuffer(PVOID Buffer);
#ifdef __cplusplus
}
#endif

static_assert(sizeof(MEMORY_BASIC_INFORMATION) == 48, "the 64-bit layout");
static_assert(sizeof(SYSTEM_PROCESS_INFORMATION) == 0x100, "the 64-bit layout");
static_assert(sizeof(RTL_PROCESS_MODULE_INFORMATION) == 296, "the 64-bit layout");
