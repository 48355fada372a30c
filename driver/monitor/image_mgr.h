// The image table and the images of every process: one reference-counted node per distinct image
// file (its paths, name and what its PE headers say), shared by every process that maps it, and
// per process node a list of records (base, end, a reference on the node) that turns an address in
// the process into an image and an offset.
#pragma once

#include "platform/nt.h"
#include "monitor/image_record.h"
#include "names/path_cache.h"

#define SK_IMAGE_MGR_INITED 0x1
#define SK_IMAGE_CHECKSUM_UNKNOWN 0xFFFFFFFF
#define SK_IMAGE_TYPE_UNKNOWN 0xFFFF

// The image's checksum, machine and characteristics, from a guarded copy of its headers at Base in
// the current address space. A header that faults leaves all three unknown.
_IRQL_requires_max_(APC_LEVEL)
NTSTATUS sk_ReadImageHeaders(_In_ PVOID Base, _Out_ PULONG Checksum, _Out_ PUSHORT Machine,
                             _Out_ PUSHORT Characteristics);

typedef struct _IMAGE_INFO_NODE {
  USHORT Tag;  // SK_RECORD_IMAGE_NODE
  USHORT Size;
  volatile LONG RefCount;  // 1 for the table, + one per holder (an image record, a caller)
  ULONG64 Key;             // (H1 << 32) | H2 over the kernel path's bytes
  ULONG Checksum;          // the optional header's CheckSum
  USHORT Machine;          // the file header's Machine
  USHORT Characteristics;  // the file header's Characteristics
  PUNICODE_STRING ImageName;  // string block: the path's last component
  PPATH_CACHE_NODE NtPath;
  PPATH_CACHE_NODE DosPath;  // or null
} IMAGE_INFO_NODE, *PIMAGE_INFO_NODE;

static_assert(FIELD_OFFSET(IMAGE_INFO_NODE, Key) == 8, "the table compares the second 8 bytes");

typedef struct _SK_IMAGE_MGR {
  USHORT Tag;  // SK_RECORD_IMAGE_MGR
  USHORT Size;
  volatile LONG Flags;  // SK_IMAGE_MGR_INITED
  // Guards Table; taken inside a critical region, last in the lock order (after the process table
  // lock and a node's ImageListLock).
  ERESOURCE Lock;
  RTL_AVL_TABLE Table;  // IMAGE_INFO_NODE elements by Key
} SK_IMAGE_MGR, *PSK_IMAGE_MGR;

struct _SENTREL_DATA;
struct _PROC_INFO_NODE;

// What the start-up scan's image callback adds to: the driver's managers and a process node.
typedef struct _SK_IMAGE_SCAN_CONTEXT {
  struct _SENTREL_DATA *Data;
  struct _PROC_INFO_NODE *ProcessNode;
} SK_IMAGE_SCAN_CONTEXT, *PSK_IMAGE_SCAN_CONTEXT;

ULONG64 sk_ImageKey(PCUNICODE_STRING NtPath);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_InitImageMgr(_Inout_ PSK_IMAGE_MGR ImageMgr);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UninitImageMgr(_Inout_ PSK_IMAGE_MGR ImageMgr);
// Finds or makes the node of an image mapped at ImageBase in the current address space; with Node,
// hands it out with one reference.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddImageNode(_Inout_ PSK_IMAGE_MGR ImageMgr, _In_ PVOID ImageBase, _In_ PCUNICODE_STRING NtPath,
                         _In_opt_ PCUNICODE_STRING DosPath, _Out_opt_ PIMAGE_INFO_NODE *Node);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddImageNodeFromLoadImageNotify(_Inout_ PSK_IMAGE_MGR ImageMgr, _In_ PUNICODE_STRING DosPath,
                                            _In_ PIMAGE_INFO ImageInfo, _Out_ PIMAGE_INFO_NODE *Node);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_ReleaseImageNode_Node(_Inout_ PSK_IMAGE_MGR ImageMgr, _In_ PIMAGE_INFO_NODE Node);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_ClearAllImageNode(_Inout_ PSK_IMAGE_MGR ImageMgr);

// Appends a record to the process node's list; the image node's reference passes to the record.
_IRQL_requires_max_(APC_LEVEL)
NTSTATUS sk_AddImageToProcNode(_In_ ULONG64 ImageBase, _In_ ULONG ImageSize, _In_ PIMAGE_INFO_NODE ImageNode,
                               _Inout_ struct _PROC_INFO_NODE *ProcessNode);
// The first image whose range holds Address (strictly inside); its name as a new string block.
// STATUS_INVALID_PARAMETER when no image holds it.
_IRQL_requires_max_(APC_LEVEL)
NTSTATUS sk_LookupImageInfoFromProcNode_Address(_In_ struct _PROC_INFO_NODE *ProcessNode, _In_ ULONG64 Address,
                                                _Out_opt_ PULONG64 ImageBase, _Out_opt_ PULONG64 ImageEnd,
                                                _Out_opt_ PUNICODE_STRING *ImageName);
// Empties the process node's list, releasing each record's image node.
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_ReleaseProcNodeImages(_Inout_ struct _PROC_INFO_NODE *ProcessNode);

// The image-load subscriber: records the image on a thread inside the loading process.
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_ProcTreeImageNotify(_In_opt_ PUNICODE_STRING FullImageName, _In_ HANDLE ProcessId, _In_ PIMAGE_INFO ImageInfo);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddImageInfo(_In_ HANDLE ProcessId, _In_ PIMAGE_INFO ImageInfo, _In_ PUNICODE_STRING DosPath);
// The start-up scan's image callback (attached to the process); Context is an SK_IMAGE_SCAN_CONTEXT.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddImageInfoCallback(_In_ PUNICODE_STRING MappedName, _In_ PVOID ImageBase, _In_ ULONG ImageSize,
                                 _In_ PVOID Context);
