// The process table and tree: one node per process the driver knows (running at start, created
// since), keyed by (process id, creation time) so that a reused id is another node. A node names
// its creator; the creator's node is kept, by reference counting, while any descendant's node
// exists, so that the ancestry of a process can be reported after its ancestors have exited.
#pragma once

#include "platform/nt.h"
#include "names/path_cache.h"
#include "sentrel/package.h"

#define SK_PROCESS_MGR_INITED 0x1

// PROC_INFO_NODE.Flags
#define SK_PROC_FLAG_WOW64 0x1
#define SK_PROC_FLAG_NOT_REPORTED 0x2  // the creation is reported at the first image load handled
#define SK_PROC_FLAG_EXITED 0x4        // the process's exit was seen; the node stays for its descendants

typedef struct _PROC_INFO_NODE {
  USHORT Tag;  // SK_RECORD_PROC_NODE
  USHORT Size;
  // The process itself (until its exit), every child node naming it as creator, and every lookup
  // not yet released. Changed only by interlocked operations; a node at 0 goes in the next sweep.
  volatile LONG RefCount;
  ULONG64 Key;  // (process id << 32) | low 32 bits of CreateTime
  ULONG64 LogonId;
  ULONG64 ProcessId;
  ULONG64 CreatorProcessId;  // the process current at the creation; 0 when unknown
  ULONG64 ParentProcessId;
  LONGLONG CreateTime;
  LONGLONG CreatorCreateTime;  // 0: no creator node (unknown, or created after this process)
  // What reports copy to identify the instance: inherited-from id, environment block address,
  // creation as seconds since 1970, session, process id, creation as seconds since 1980.
  UCHAR ProcessIdentity[16];
  volatile LONG Flags;  // SK_PROC_FLAG_*
  ULONG IntegrityLevel;
  PFAST_MUTEX ImageListLock;  // from SentrelData.MutexLookaside; guards ImageList
  LIST_ENTRY ImageList;       // PROC_IMAGE_RECORD.Links
  PPATH_CACHE_NODE NtImagePath;
  PPATH_CACHE_NODE DosImagePath;  // "\??\C:\..."
  PUNICODE_STRING ImageFileName;  // string block, or null
  PUNICODE_STRING UserName;
  PUNICODE_STRING UserSid;
  PUNICODE_STRING volatile CommandLine;  // written once by atomic exchange; readers read it once
  PUNICODE_STRING volatile CurrentDirectory;
} PROC_INFO_NODE, *PPROC_INFO_NODE;

static_assert(FIELD_OFFSET(PROC_INFO_NODE, Key) == 8, "the table compares the second 8 bytes");

typedef struct _SK_PROCESS_MGR {
  USHORT Tag;  // SK_RECORD_PROCESS_MGR
  USHORT Size;
  volatile LONG Flags;  // SK_PROCESS_MGR_INITED
  // Guards Table; taken inside a critical region. Lock order: this lock, then a node's
  // ImageListLock, then the image table's lock.
  ERESOURCE Lock;
  RTL_AVL_TABLE Table;  // PROC_INFO_NODE elements by Key
} SK_PROCESS_MGR, *PSK_PROCESS_MGR;

// The process-tree record (kind 3): a header, then one entry per process, nearest first.
#define SK_PROC_TREE_KIND 3
#define SK_PROC_TREE_HEADER_SIZE 16
#define SK_PROC_TREE_ENTRY_SIZE 132
#define SK_PROC_TREE_NAME_BYTES 128  // at most 126 bytes of characters, zero after them

ULONG64 sk_ProcKey(ULONG64 ProcessId, LONGLONG CreateTime);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_InitProcessMgr(_Inout_ PSK_PROCESS_MGR ProcessMgr);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UninitProcessMgr(_Inout_ PSK_PROCESS_MGR ProcessMgr);

// The process subscriber: a created process gets its node, an exiting one drops its reference.
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_ProcTreeProcessNotify(_In_ HANDLE ParentId, _In_ HANDLE ProcessId, _In_ BOOLEAN Create);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddProcTreeInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ParentId, _In_ HANDLE ProcessId);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelProcTreeInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ProcessId);

// Builds a node block (paged pool, the caller's) for a process; nothing is inserted. NoParent: the
// creator is left unknown and the creation marked unreported; SkipPathInfo: no command line yet.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetNewProcInfo(_In_ HANDLE ParentId, _In_ HANDLE ProcessId, _In_ BOOLEAN NoParent,
                           _In_ BOOLEAN SkipPathInfo, _Out_ PPROC_INFO_NODE *Block);
// Inserts a copy of the block; an existing node of the key stays as it is. *Inserted tells which.
// With Node, the table's node is handed out with one reference.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddProcInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ PPROC_INFO_NODE Block, _In_ ULONG BlockSize,
                        _Out_opt_ PPROC_INFO_NODE *Node, _Out_opt_ PBOOLEAN Inserted);
// The node of a process instance, with one reference for the caller; STATUS_NOT_FOUND.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetProcInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ProcessId, _In_ LONGLONG CreateTime,
                        _Out_opt_ PPROC_INFO_NODE *Node);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_ReleaseProcInfo_Node(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ PPROC_INFO_NODE Node);
// Drops the reference the process's existence holds.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelProcInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ProcessId, _In_ LONGLONG CreateTime);
// The removal sweep: every node at count 0 goes, and with it its creator's reference, up the tree.
// The table lock is held exclusively.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelProcTreeInternal_Unlock(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ProcessId,
                                       _In_ LONGLONG CreateTime);
// Marks the node's process as exited, as the table's own exit step does; the package cache marks it
// before it drops the process's packages, whichever of the two subscribers runs first.
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_SetProcInfoExited(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ProcessId, _In_ LONGLONG CreateTime);
// Whether the process's node exists and its exit has not been seen.
_IRQL_requires_max_(PASSIVE_LEVEL)
BOOLEAN sk_IsProcInfoLive(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ProcessId, _In_ LONGLONG CreateTime);
// The process-tree record of a process and its chain of creators, at most SK_PROC_TREE_MAX_ENTRIES
// of them: a package block (tag "Fitp") with the caller's use, given back with sk_ReleasePackage.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetProcTreeInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ HANDLE ProcessId, _In_ LONGLONG CreateTime,
                            _Out_ PVOID *Record, _Out_ PULONG RecordSize);
// Completes a node added without its command line and current directory.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UpdateProcNode(_Inout_ PSK_PROCESS_MGR ProcessMgr, _In_ PEPROCESS Process, _Inout_ PPROC_INFO_NODE Node);
// The process's image path (kernel form; drive-letter form without "\??\") as a new string block.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetProcImageNtPath_Process(_In_ PEPROCESS Process, _Out_ PUNICODE_STRING *Path);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetProcImageDosPath_Process(_In_ PEPROCESS Process, _Out_ PUNICODE_STRING *Path);
// The start-up scan's callback; Context is SentrelData.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddExstingProcessInfoCallback(_In_ PSYSTEM_PROCESS_INFORMATION ProcessEntry, _In_ PVOID Context);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_ClearAllProcInfo(_Inout_ PSK_PROCESS_MGR ProcessMgr);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_FreeProcInfo(_In_ PPROC_INFO_NODE Block, _In_ BOOLEAN FreeContents);
