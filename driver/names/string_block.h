// String blocks: a counted string and its characters in one paged-pool block (tag "gTsu"), the
// header immediately followed by the buffer. The block has the layout of the kernel's object-name
// information, so ObQueryNameString can fill it in place. Whoever receives a block owns it.
#pragma once

#include "platform/nt.h"

// A counted string over a literal (the DDK's own macro does not cast away the literal's const).
#define SK_CONSTANT_STRING(s) \
  { sizeof(s) - sizeof((s)[0]), sizeof(s), (PWSTR)(s) }

// A zero-filled block with room for Capacity bytes of characters (Capacity + the header's 16
// bytes in all), empty, or null. The pool type is ignored: string blocks are always paged.
PUNICODE_STRING skt_AllocateUnicodeStringSelf(POOL_TYPE PoolType, ULONG Capacity);
// Frees a whole block; for a counted string whose buffer lies elsewhere, frees only the buffer
// (STATUS_INVALID_PARAMETER when it is null) and leaves the header empty.
NTSTATUS skt_FreeUnicodeStringSelf(PUNICODE_STRING String);
// The full name of a named object (a registry key), as a new string block.
NTSTATUS skt_GetNameInfo(PVOID Object, PUNICODE_STRING *Name);
