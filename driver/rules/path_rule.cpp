// The forward and reverse tries of one event type's rules, with their child index.
#include "rules/path_rule.h"

#include "core/pool_tags.h"
#include "core/record_tags.h"

#define SK_RULE_INDEX_FIRST_CAPACITY 64u

typedef VOID (*SK_PATH_SPLITTER)(PCUNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName);

static ULONG skt_ComponentHash(PCUNICODE_STRING Component) {
  ULONG hash = 0;
  // Cannot fail: the string and the result are there and the algorithm is a known one.
  RtlHashUnicodeString(Component, TRUE, HASH_STRING_ALGORITHM_X65599, &hash);
  return hash;
}

static ULONG skt_IndexSlotOf(const PathRuleMgr *Rules, PLIST_ENTRY Parent, ULONG Hash) {
  ULONG64 mixed = ((ULONG64)(ULONG_PTR)Parent >> 4) * 0x9E3779B97F4A7C15ull;
  ULONG slot = Hash ^ (ULONG)(mixed >> 32);
  slot ^= slot >> 15;
  return slot & (Rules->IndexCapacity - 1);
}

// The child of Parent whose component is Component (hash Hash), or null.
static PPATH_RULE_NODE skt_FindChild(const PathRuleMgr *Rules, PLIST_ENTRY Parent, PCUNICODE_STRING Component,
                                     ULONG Hash) {
  ULONG slot;
  UNICODE_STRING text;
  PPATH_RULE_NODE child;

  if (!Rules->Index) return NULL;
  for (slot = skt_IndexSlotOf(Rules, Parent, Hash);; slot = (slot + 1) & (Rules->IndexCapacity - 1)) {
    child = Rules->Index[slot].Child;
    if (!child) return NULL;
    if (Rules->Index[slot].Parent != Parent || child->Hash != Hash || child->Length != Component->Length) continue;
    text.Length = text.MaximumLength = child->Length;
    text.Buffer = child->Component;
    if (RtlEqualUnicodeString(&text, Component, TRUE)) return child;
  }
}

static VOID skt_IndexInsert(PathRuleMgr *Rules, PLIST_ENTRY Parent, PPATH_RULE_NODE Child) {
  ULONG slot = skt_IndexSlotOf(Rules, Parent, Child->Hash);
  while (Rules->Index[slot].Child) slot = (slot + 1) & (Rules->IndexCapacity - 1);
  Rules->Index[slot].Parent = Parent;
  Rules->Index[slot].Child = Child;
  ++Rules->IndexCount;
}

// Makes room for one more node, keeping the index at most half full. On failure the index is as
// it was.
static NTSTATUS skt_IndexReserve(PathRuleMgr *Rules) {
  PSK_RULE_CHILD_SLOT old = Rules->Index;
  ULONG oldCapacity = Rules->IndexCapacity;
  ULONG capacity;
  ULONG i;

  if (old && (Rules->IndexCount + 1) * 2 <= oldCapacity) return STATUS_SUCCESS;
  capacity = old ? oldCapacity * 2 : SK_RULE_INDEX_FIRST_CAPACITY;
  if (capacity > 0x10000000u) return STATUS_INSUFFICIENT_RESOURCES;
  Rules->Index = (PSK_RULE_CHILD_SLOT)ExAllocatePoolWithTag(PagedPool, capacity * sizeof(SK_RULE_CHILD_SLOT),
                                                            SK_TAG_RULE_INDEX);
  if (!Rules->Index) {
    Rules->Index = old;
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(Rules->Index, capacity * sizeof(SK_RULE_CHILD_SLOT));
  Rules->IndexCapacity = capacity;
  Rules->IndexCount = 0;
  for (i = 0; old && i < oldCapacity; ++i) {
    if (old[i].Child) skt_IndexInsert(Rules, old[i].Parent, old[i].Child);
  }
  if (old) ExFreePoolWithTag(old, SK_TAG_RULE_INDEX);
  return STATUS_SUCCESS;
}

// The child of Parent for Component, made if there is none yet. Called with the lock exclusive.
static NTSTATUS skt_FindOrAddChild(PathRuleMgr *Rules, PLIST_ENTRY Parent, PCUNICODE_STRING Component,
                                   PPATH_RULE_NODE *Child) {
  ULONG hash = skt_ComponentHash(Component);
  PPATH_RULE_NODE node = skt_FindChild(Rules, Parent, Component, hash);
  NTSTATUS status;

  if (node) {
    *Child = node;
    return STATUS_SUCCESS;
  }
  status = skt_IndexReserve(Rules);
  if (!NT_SUCCESS(status)) return status;
  node = (PPATH_RULE_NODE)ExAllocatePoolWithTag(
      PagedPool, FIELD_OFFSET(PATH_RULE_NODE, Component) + Component->Length, SK_TAG_PATH_RULE_NODE);
  if (!node) return STATUS_INSUFFICIENT_RESOURCES;
  InitializeListHead(&node->Children);
  node->Hash = hash;
  node->Flags = 0;
  node->Length = Component->Length;
  // An empty component (a run of backslashes in a pattern) may come with no buffer at all.
  if (Component->Length) RtlCopyMemory(node->Component, Component->Buffer, Component->Length);
  InsertHeadList(Parent, &node->SiblingLink);
  InsertTailList(&Rules->AllNodes, &node->AllNodesLink);
  skt_IndexInsert(Rules, Parent, node);
  *Child = node;
  return STATUS_SUCCESS;
}

NTSTATUS skt_InitPathRuleMgr(PathRuleMgr *Rules) {
  RtlZeroMemory(Rules, sizeof(*Rules));
  Rules->TypeCode = SK_RECORD_PATH_RULE_MGR;
  Rules->Size = sizeof(*Rules);
  InitializeListHead(&Rules->AllNodes);
  InitializeListHead(&Rules->ForwardRoot);
  InitializeListHead(&Rules->ReverseRoot);
  ExInitializeResourceLite(&Rules->Lock);
  Rules->Flags = SK_PATH_RULE_MGR_INITED;
  return STATUS_SUCCESS;
}

NTSTATUS skt_UninitPathRuleMgr(PathRuleMgr *Rules) {
  PLIST_ENTRY entry;

  if (!(Rules->Flags & SK_PATH_RULE_MGR_INITED)) return STATUS_INSUFFICIENT_RESOURCES;
  InterlockedAnd(&Rules->Flags, ~SK_PATH_RULE_MGR_INITED);
  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(&Rules->Lock, TRUE);
  while (!IsListEmpty(&Rules->AllNodes)) {
    entry = RemoveHeadList(&Rules->AllNodes);
    ExFreePoolWithTag(CONTAINING_RECORD(entry, PATH_RULE_NODE, AllNodesLink), SK_TAG_PATH_RULE_NODE);
  }
  if (Rules->Index) ExFreePoolWithTag(Rules->Index, SK_TAG_RULE_INDEX);
  Rules->Index = NULL;
  ExReleaseResourceLite(&Rules->Lock);
  KeLeaveCriticalRegion();
  ExDeleteResourceLite(&Rules->Lock);
  RtlZeroMemory(Rules, sizeof(*Rules));
  return STATUS_SUCCESS;
}

NTSTATUS skt_AddPathRule(PathRuleMgr *Rules, PCUNICODE_STRING Pattern) {
  NTSTATUS status;
  BOOLEAN isSuffix;
  PLIST_ENTRY parent;
  ULONG *counter;
  SK_PATH_SPLITTER split;
  UNICODE_STRING first;
  UNICODE_STRING remaining;
  UNICODE_STRING rest;
  PPATH_RULE_NODE node;

  if (!(SK_READ_ORDERED(Rules->Flags) & SK_PATH_RULE_MGR_INITED)) return STATUS_INSUFFICIENT_RESOURCES;
  status = skt_CheckPathRule(Pattern, &isSuffix);
  if (!NT_SUCCESS(status)) return status;
  if (isSuffix) {
    // The star's component goes; the rest is taken from its end.
    parent = &Rules->ReverseRoot;
    counter = &Rules->ReverseCount;
    split = skt_DissectLastName;
    skt_DissectFirstName(Pattern, &first, &rest);
    split(&rest, &first, &remaining);
  } else {
    parent = &Rules->ForwardRoot;
    counter = &Rules->ForwardCount;
    split = skt_DissectFirstName;
    split(Pattern, &first, &remaining);
  }

  KeEnterCriticalRegion();
  ExAcquireResourceExclusiveLite(&Rules->Lock, TRUE);
  if (first.Length == 0) {
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  for (;;) {
    status = skt_FindOrAddChild(Rules, parent, &first, &node);
    if (!NT_SUCCESS(status)) goto Exit;
    if (remaining.Length == 0 || (remaining.Length == sizeof(WCHAR) && remaining.Buffer[0] == L'*')) break;
    rest = remaining;
    split(&rest, &first, &remaining);
    parent = &node->Children;
  }
  node->Flags |= SK_PATH_RULE_TERMINAL;
  ++*counter;
Exit:
  ExReleaseResourceLite(&Rules->Lock);
  KeLeaveCriticalRegion();
  return status;
}

// Walks one trie with the path's components in the splitter's order; TRUE at the first terminal
// node met. The walk ends when the path has no component left, so it always ends.
static BOOLEAN skt_WalkTrie(const PathRuleMgr *Rules, PLIST_ENTRY Root, PCUNICODE_STRING Path, SK_PATH_SPLITTER Split) {
  PLIST_ENTRY parent = Root;
  UNICODE_STRING rest = *Path;
  UNICODE_STRING first;
  UNICODE_STRING remaining;
  PPATH_RULE_NODE node;

  while (rest.Length >= sizeof(WCHAR)) {
    Split(&rest, &first, &remaining);
    node = skt_FindChild(Rules, parent, &first, skt_ComponentHash(&first));
    if (!node) return FALSE;
    if (node->Flags & SK_PATH_RULE_TERMINAL) return TRUE;
    parent = &node->Children;
    rest = remaining;
  }
  return FALSE;
}

NTSTATUS skt_MatchPathRule(PathRuleMgr *Rules, PCUNICODE_STRING Path) {
  BOOLEAN matched = FALSE;

  if (!(SK_READ_ORDERED(Rules->Flags) & SK_PATH_RULE_MGR_INITED)) return STATUS_INSUFFICIENT_RESOURCES;
  KeEnterCriticalRegion();
  ExAcquireResourceSharedLite(&Rules->Lock, TRUE);
  if (Rules->ForwardCount != 0) matched = skt_WalkTrie(Rules, &Rules->ForwardRoot, Path, skt_DissectFirstName);
  if (!matched && Rules->ReverseCount != 0) {
    matched = skt_WalkTrie(Rules, &Rules->ReverseRoot, Path, skt_DissectLastName);
  }
  ExReleaseResourceLite(&Rules->Lock);
  KeLeaveCriticalRegion();
  return matched ? STATUS_SUCCESS : STATUS_NOT_FOUND;
}
