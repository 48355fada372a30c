// Package blocks: every package the driver builds is one paged-pool block with a use count in a
// small header before the package's bytes. The package cache hands a package out with a use of its
// own, so that a process's exit may take the package out of the cache while a reporter or the
// query is still copying it: the block is freed when the last use is given back, never under a
// reader. The pointer every routine passes around is the package's first byte.
#pragma once

#include "platform/nt.h"

typedef struct _SK_PACKAGE_BLOCK {
  volatile LONG UseCount;  // changed only by interlocked operations
  ULONG Tag;               // the pool tag of the package's kind
  ULONG Length;            // of the package, header excluded
  ULONG Reserved;          // keeps the package 16-byte aligned
} SK_PACKAGE_BLOCK, *PSK_PACKAGE_BLOCK;

static_assert(sizeof(SK_PACKAGE_BLOCK) == 16, "packages start 16-byte aligned");

// A zeroed package of Length bytes with one use (the caller's), or null.
_IRQL_requires_max_(APC_LEVEL)
PVOID sk_AllocatePackage(_In_ ULONG Length, _In_ ULONG Tag);
// One more use of a package the caller holds (or reaches under the lock that keeps it alive).
VOID sk_ReferencePackage(_In_ PVOID Package);
// Gives back a use; the last one frees the block. A null package is ignored.
_IRQL_requires_max_(APC_LEVEL)
VOID sk_ReleasePackage(_In_opt_ PVOID Package);
