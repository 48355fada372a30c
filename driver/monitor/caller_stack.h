// Caller stacks: the user-mode return addresses of the calling thread as a package (kind 4), each
// frame as the text "<image path>+0x<offset>" or "UnknowImage+0x<full address>", for a producer
// driver to attach to its event. The package is the caller's: paged pool, tag "fIts".
#pragma once

#include "platform/nt.h"
#include "monitor/process_mgr.h"
#include "sentrel/package.h"  // SK_PACKAGE_CALLER_STACK and its header

#define SK_CALLER_STACK_MAX_FRAMES 256

// The current thread's caller stack.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetCallerStackInfoPackage(_Out_ PVOID *Package, _Out_ PULONG Length);
// The same, with the current process's node at hand; refused for another process's node.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_GetCallerStackInfoPackage_ProcNode(_In_ PPROC_INFO_NODE Node, _Out_ PVOID *Package, _Out_ PULONG Length);
