// The four events the driver observes itself: a process's creation, a thread one process starts in
// another, an image loaded into a process, a kernel driver loaded. Each builds one packet (the
// acting process's three packages and the event's data record) and writes it into the ring
// buffers; every failure drops that one event with its log line.
#pragma once

#include "platform/nt.h"
#include "monitor/process_mgr.h"

// The process's creation, from the image manager's thread inside the new process once its node is
// complete. A white rule on the node's image path drops it.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_Report_ProcessCreateEvent(_In_ PEPROCESS Process, _In_ PPROC_INFO_NODE Node);
// A thread that the current (source) process started in another (target) process.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_ReportRemoteThreadEvent(_In_ PEPROCESS Source, _In_ PEPROCESS Target, _In_ HANDLE SourceThreadId,
                                    _In_ HANDLE NewThreadId);
// The remote thread's packet, once its start address, image and users are known. ImageBase 0: the
// address lies in no known image of the target.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_Report_RTEvent(_In_ PEPROCESS Source, _In_ PEPROCESS Target, _In_ HANDLE SourceProcessId,
                           _In_ HANDLE TargetProcessId, _In_ HANDLE NewThreadId, _In_ ULONG64 StartAddress,
                           _In_ ULONG64 ImageBase, _In_ ULONG64 ImageEnd, _In_opt_ PCUNICODE_STRING SourceUserName,
                           _In_opt_ PCUNICODE_STRING TargetUserName, _In_ PCUNICODE_STRING ModuleName);
// An image loaded into the current process.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_ReportImageLoadEvent(_In_ PCUNICODE_STRING ImagePath, _In_ PIMAGE_INFO ImageInfo);
// A kernel driver loaded by the current process, or by the service control manager when the load
// runs in the System process.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_ReportDriverLoadEvent(_In_ PCUNICODE_STRING ImagePath);

// The start offset text of a remote thread: "+0x" and the offset into its image (low 32 bits) when
// the image is known; else the whole start address, "0x" and 16 digits at most, without the plus,
// so that it never reads as an offset. Text has room for 19 characters; returns the length in bytes.
USHORT sk_FormatStartOffset(_Out_ PWCHAR Text, _In_ ULONG64 StartAddress, _In_ ULONG64 ImageBase);
