#include "names/path_cache.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/record_tags.h"
#include "core/table_compare.h"

#define SK_MODULE SK_TRACE_PATH

static PVOID NTAPI sk_PathTableAllocate(PRTL_AVL_TABLE Table, CLONG ByteSize) {
  UNREFERENCED_PARAMETER(Table);
  return ExAllocatePoolWithTag(PagedPool, ByteSize, SK_TAG_PATH_NODE);
}

static VOID NTAPI sk_PathTableFree(PRTL_AVL_TABLE Table, PVOID Buffer) {
  UNREFERENCED_PARAMETER(Table);
  ExFreePoolWithTag(Buffer, SK_TAG_PATH_NODE);
}

// H1 = H1 * 0x1003F + b and H2 = (H2 * 0x811C9DC5) ^ b over the bytes, each byte sign-extended.
ULONG64 sk_PathCacheKey(PCUNICODE_STRING Path) {
  const CHAR *bytes = (const CHAR *)Path->Buffer;
  ULONG h1 = 0, h2 = 0;
  USHORT i;
  for (i = 0; i < Path->Length; ++i) {
    ULONG b = (ULONG)(LONG)bytes[i];
    h1 = h1 * 0x1003F + b;
    h2 = (h2 * 0x811C9DC5) ^ b;
  }
  return ((ULONG64)h2 << 32) | h1;
}

NTSTATUS sk_InitPathMgr(PSK_PATH_MGR PathMgr) {
  NTSTATUS status = STATUS_SUCCESS;
  PAGED_CODE();
  SK_ENTER();
  if (!PathMgr) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
  } else if (PathMgr->Flags & SK_PATH_MGR_INITED) {
    SK_INFO("Path Mgr Already Inited\n");
  } else {
    RtlInitializeGenericTableAvl(&PathMgr->Table, skt_CompareKey64, sk_PathTableAllocate, sk_PathTableFree, NULL);
    ExInitializeResourceLite(&PathMgr->Lock);
    PathMgr->Flags |= SK_PATH_MGR_INITED;
  }
  SK_LEAVE(status);
  return status;
}

VOID sk_DelAllPathCache(PSK_PATH_MGR PathMgr) {
  PVOID element;
  PVOID restart;
  PAGED_CODE();
  SK_ENTER();
  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(&PathMgr->Lock, TRUE);
  for (;;) {
    restart = NULL;
    element = RtlEnumerateGenericTableWithoutSplayingAvl(&PathMgr->Table, &restart);
    if (!element) break;
    RtlDeleteElementGenericTableAvl(&PathMgr->Table, element);
  }
  ExReleaseResourceLite(&PathMgr->Lock);
  KeLeaveCriticalRegion();
  SK_LEAVE(STATUS_SUCCESS);
}

NTSTATUS sk_UninitPathMgr(PSK_PATH_MGR PathMgr) {
  NTSTATUS status = STATUS_SUCCESS;
  PAGED_CODE();
  SK_ENTER();
  if (!PathMgr) {
    status = STATUS_INVALID_PARAMETER;
  } else if (!(PathMgr->Flags & SK_PATH_MGR_INITED)) {
    SK_INFO("Path Mgr no Inited\n");
  } else {
    PathMgr->Flags &= ~SK_PATH_MGR_INITED;
    sk_DelAllPathCache(PathMgr);
    ExDeleteResourceLite(&PathMgr->Lock);
  }
  SK_LEAVE(status);
  return status;
}

// The checks every add and release starts with: a manager, an argument, and the manager running.
static NTSTATUS sk_CheckPathMgr(PSK_PATH_MGR PathMgr, const VOID *Argument) {
  if (!PathMgr || !Argument) {
    SK_ERROR("Invalid Parameter\n");
    return STATUS_INVALID_PARAMETER;
  }
  if (!(PathMgr->Flags & SK_PATH_MGR_INITED)) {
    SK_ERROR("Path Mgr no Inited\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  return STATUS_SUCCESS;
}

NTSTATUS sk_AddPathCache(PSK_PATH_MGR PathMgr, PCUNICODE_STRING Path, PPATH_CACHE_NODE *Node) {
  NTSTATUS status = STATUS_SUCCESS;
  PATH_CACHE_NODE probe;
  PPATH_CACHE_NODE node;
  PPATH_CACHE_NODE fresh = NULL;
  ULONG size;

  SK_ENTER();
  status = sk_CheckPathMgr(PathMgr, Path);
  if (!NT_SUCCESS(status)) goto Exit;
  // A node's 16-bit size holds the length + 24: a longer path is refused rather than cut.
  if (Path->Length > SK_PATH_CACHE_MAX_LENGTH) {
    SK_ERROR("Path Length:%d too long\n", Path->Length);
    status = STATUS_NAME_TOO_LONG;
    goto Exit;
  }

  RtlZeroMemory(&probe, sizeof(probe));
  probe.Key = sk_PathCacheKey(Path);
  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(&PathMgr->Lock, TRUE);
  node = (PPATH_CACHE_NODE)RtlLookupElementGenericTableAvl(&PathMgr->Table, &probe);
  if (!node) {
    size = Path->Length + 24u;
    fresh = (PPATH_CACHE_NODE)ExAllocatePoolWithTag(PagedPool, size, SK_TAG_PATH_NODE);
    if (fresh) {
      RtlZeroMemory(fresh, size);
      fresh->Tag = SK_RECORD_PATH_NODE;
      fresh->Size = (USHORT)size;
      fresh->RefCount = 0;
      fresh->Key = probe.Key;
      fresh->Length = Path->Length;
      RtlCopyMemory(fresh->Path, Path->Buffer, Path->Length);
      // The table copies the node into an element of its own.
      node = (PPATH_CACHE_NODE)RtlInsertElementGenericTableAvl(&PathMgr->Table, fresh, size, NULL);
      if (node) SK_INFO("Add New Path Node [id:0x%0x]0x%p\n", (ULONG)probe.Key, node);
      ExFreePoolWithTag(fresh, SK_TAG_PATH_NODE);
    }
  }
  if (node) {
    if (Node) {
      SK_INFO("Find id:0x%0x Success Node:0x%p\n", (ULONG)probe.Key, node);
      InterlockedIncrement(&node->RefCount);
      *Node = node;
    }
  } else {
    SK_ERROR("Find id:0x%0x fail\n", (ULONG)probe.Key);
    status = STATUS_INSUFFICIENT_RESOURCES;
  }
  ExReleaseResourceLite(&PathMgr->Lock);
  KeLeaveCriticalRegion();
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_ReleasePathCache_Node(PSK_PATH_MGR PathMgr, PPATH_CACHE_NODE Node) {
  NTSTATUS status = STATUS_SUCCESS;
  PPATH_CACHE_NODE found;
  PATH_CACHE_NODE probe;
  LONG count;

  SK_ENTER();
  status = sk_CheckPathMgr(PathMgr, Node);
  if (!NT_SUCCESS(status)) goto Exit;
  KeEnterCriticalRegion();
  ExAcquireResourceSharedLite(&PathMgr->Lock, TRUE);
  SK_INFO("Decrement Node:0x%p Refcount[%d]\n", Node, SK_READ_ONCE(Node->RefCount));
  count = InterlockedDecrement(&Node->RefCount);
  // The key is taken while the node surely exists: once the lock is dropped, another release may
  // delete it.
  RtlZeroMemory(&probe, sizeof(probe));
  probe.Key = Node->Key;
  ExReleaseResourceLite(&PathMgr->Lock);
  if (count < 1) {
    // An add may take the node between the shared and the exclusive lock: look again, and delete
    // only a node that nobody holds.
    ExAcquireResourceExclusiveLite(&PathMgr->Lock, TRUE);
    found = (PPATH_CACHE_NODE)RtlLookupElementGenericTableAvl(&PathMgr->Table, &probe);
    if (found && found->RefCount == 0) {
      SK_INFO("Remove Node:0x%p\n", found);
      RtlDeleteElementGenericTableAvl(&PathMgr->Table, found);
    }
    ExReleaseResourceLite(&PathMgr->Lock);
  }
  KeLeaveCriticalRegion();
Exit:
  SK_LEAVE(status);
  return status;
}
