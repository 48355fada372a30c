// The stack hook: one group record per live process, keyed by process id, from the process's
// creation (or the start-up scan) to its exit.
#pragma once

#include "platform/nt.h"

#define SK_STACK_HOOK_INITED 0x1

typedef struct _STACK_HOOK_GROUP {
  USHORT Tag;  // SK_RECORD_STACK_GROUP
  USHORT Size;
  ULONG Flags;  // 0
  ULONG64 Key;  // process id
  FAST_MUTEX EntryLock;
  LIST_ENTRY EntryList;
} STACK_HOOK_GROUP, *PSTACK_HOOK_GROUP;

static_assert(FIELD_OFFSET(STACK_HOOK_GROUP, Key) == 8, "the table compares the second 8 bytes");

typedef struct _SK_STACK_HOOK {
  USHORT Tag;  // SK_RECORD_STACK_HOOK
  USHORT Size;
  volatile LONG Flags;  // SK_STACK_HOOK_INITED
  ERESOURCE GroupLock;  // guards GroupTable; taken inside a critical region
  RTL_AVL_TABLE GroupTable;
} SK_STACK_HOOK, *PSK_STACK_HOOK;

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_InitStackHook(_Inout_ PSK_STACK_HOOK StackHook);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_UninitStackHook(_Inout_ PSK_STACK_HOOK StackHook);
// A group for the process id; one that exists already stays as it is.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddStackHookGroup(_Inout_ PSK_STACK_HOOK StackHook, _In_ HANDLE ProcessId);
// STATUS_NOT_FOUND when the id has no group (a second exit, say).
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_DelStackHookGroup(_Inout_ PSK_STACK_HOOK StackHook, _In_ HANDLE ProcessId);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_DelAllStackHookGroup(_Inout_ PSK_STACK_HOOK StackHook);
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_StackHookProcessNotify(_In_ HANDLE ParentId, _In_ HANDLE ProcessId, _In_ BOOLEAN Create);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_AddExistingStackHookGroupCallback(_In_ PSYSTEM_PROCESS_INFORMATION ProcessEntry, _In_ PVOID Context);
