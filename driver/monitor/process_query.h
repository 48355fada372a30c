// Questions about processes and threads that the kernel does not answer in one call: the command
// line and current directory of a process (from its own parameter block), a thread's start
// address, the images mapped into a process (by walking its address space) and the running
// processes. Each call is synchronous, runs at PASSIVE_LEVEL, keeps no state between calls, and
// frees everything it does not hand to the caller.
#pragma once

#include "platform/nt.h"

// One process entry of the system's process snapshot; a negative status ends the walk.
typedef NTSTATUS (*PSKT_ENUM_PROCESS_CALLBACK)(PSYSTEM_PROCESS_INFORMATION ProcessEntry, PVOID Context);
// One image mapped into the process: its mapped file name (the kernel's form), base and size; a
// negative status ends the walk.
typedef NTSTATUS (*PSKT_MODULE_CALLBACK)(PUNICODE_STRING MappedName, PVOID ImageBase, ULONG ImageSize, PVOID Context);

// Reads the ProcessParameters pointer of the current process's environment block. The caller is
// attached to the process and runs guarded.
NTSTATUS skt_GetProcessParametersFromPeb(PEPROCESS Process, PVOID *ProcessParameters);

// The command line and the current directory of a process as string blocks that the caller frees
// with skt_FreeUnicodeStringSelf; either output may be null (not both). On failure both are null.
NTSTATUS skt_GetProcessPathInfo(PEPROCESS Process, PUNICODE_STRING *CommandLine, PUNICODE_STRING *CurrentDirectory);

// The thread's Win32 start address.
NTSTATUS skt_GetThreadWin32StartAddress(PETHREAD Thread, PVOID *StartAddress);

// Walks the user address space of the process and calls back once for each run of image regions
// closed by a free region. A walk that reaches the end of the address space ends with the failure
// of the query that went past it; a callback that stops the walk yields STATUS_SUCCESS.
NTSTATUS skt_QueryModuleInfo_VirtualMemory_Process(PEPROCESS Process, PSKT_MODULE_CALLBACK Callback, PVOID Context);

// Calls back for every running process of one snapshot, in the kernel's order. STATUS_SUCCESS also
// when the callback stopped the walk.
NTSTATUS skt_EnumProcess(PSKT_ENUM_PROCESS_CALLBACK Callback, PVOID Context);
