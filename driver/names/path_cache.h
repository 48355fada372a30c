// The path cache: every distinct path string kept once, as a reference-counted node keyed by a
// 64-bit hash of its bytes. Process and image records hold their paths as nodes of this table.
#pragma once

#include "platform/nt.h"

#define SK_PATH_MGR_INITED 0x1

typedef struct _SK_PATH_MGR {
  ULONG Flags;  // SK_PATH_MGR_INITED
  ERESOURCE Lock;  // guards Table; taken inside a critical region
  RTL_AVL_TABLE Table;  // PATH_CACHE_NODE elements ordered by Key
} SK_PATH_MGR, *PSK_PATH_MGR;

// A node: the header, then the characters right behind Length. Readers make a counted string of
// Path with length and maximum length Length.
typedef struct _PATH_CACHE_NODE {
  USHORT Tag;   // SK_RECORD_PATH_NODE
  USHORT Size;  // Length + 24
  volatile LONG RefCount;  // holders; 0 when created; changed only by interlocked operations
  ULONG64 Key;  // the path key: H2 in the high 32 bits, H1 in the low ones
  USHORT Length;  // in bytes
  WCHAR Path[3];  // Length bytes, not terminated
} PATH_CACHE_NODE, *PPATH_CACHE_NODE;

static_assert(FIELD_OFFSET(PATH_CACHE_NODE, Key) == 8, "the table compares the second 8 bytes");
static_assert(FIELD_OFFSET(PATH_CACHE_NODE, Path) == 18, "no gap between the length and the characters");
static_assert(sizeof(PATH_CACHE_NODE) == 24, "a node is its path length + 24 bytes");

// The longest path a node can describe: its 16-bit size holds the length + 24.
#define SK_PATH_CACHE_MAX_LENGTH (0xFFFF - 24)

ULONG64 sk_PathCacheKey(PCUNICODE_STRING Path);
NTSTATUS sk_InitPathMgr(PSK_PATH_MGR PathMgr);
NTSTATUS sk_UninitPathMgr(PSK_PATH_MGR PathMgr);
// Finds or creates the node of Path; with Node, stores it there and takes one reference for the caller.
NTSTATUS sk_AddPathCache(PSK_PATH_MGR PathMgr, PCUNICODE_STRING Path, PPATH_CACHE_NODE *Node);
// Gives one reference back; the last one removes the node.
NTSTATUS sk_ReleasePathCache_Node(PSK_PATH_MGR PathMgr, PPATH_CACHE_NODE Node);
VOID sk_DelAllPathCache(PSK_PATH_MGR PathMgr);
