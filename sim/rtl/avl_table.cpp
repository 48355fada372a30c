// AVL generic tables: a height-balanced binary search tree whose nodes the caller allocates and
// frees. Each node is one allocation of sizeof(RTL_BALANCED_LINKS) + the element's size; the
// routines hand out and take back pointers to the element data that follows the links, and give the
// free routine the node itself, which is what the allocate routine returned.
//
// The tree hangs from Table->BalancedRoot.RightChild and the root's Parent is &Table->BalancedRoot,
// so that every node has a parent and rotations at the root need no special case. All state lives in
// the table and its nodes; callers serialise access, as they must with the kernel's tables.
#include <cstddef>

#include "ntsim/avl.h"

static_assert(sizeof(RTL_BALANCED_LINKS) == 32, "RTL_BALANCED_LINKS must match the x64 layout");
static_assert(offsetof(RTL_AVL_TABLE, OrderedPointer) == 32, "RTL_AVL_TABLE must match the x64 layout");
static_assert(offsetof(RTL_AVL_TABLE, RestartKey) == 56, "RTL_AVL_TABLE must match the x64 layout");
static_assert(offsetof(RTL_AVL_TABLE, CompareRoutine) == 72, "RTL_AVL_TABLE must match the x64 layout");
static_assert(sizeof(RTL_AVL_TABLE) == 104, "RTL_AVL_TABLE must match the x64 layout");

namespace {

using Links = RTL_BALANCED_LINKS;

Links* Header(PRTL_AVL_TABLE table) { return &table->BalancedRoot; }
Links* Root(PRTL_AVL_TABLE table) { return table->BalancedRoot.RightChild; }

PVOID UserData(Links* node) { return reinterpret_cast<PUCHAR>(node) + sizeof(Links); }

Links* First(Links* node) {
  while (node->LeftChild != nullptr) node = node->LeftChild;
  return node;
}

// The in-order successor, or null after the last node. The header has the root as its right child,
// so climbing out of the root's right spine reaches the header and ends the walk.
Links* Next(PRTL_AVL_TABLE table, Links* node) {
  if (node->RightChild != nullptr) return First(node->RightChild);
  for (;;) {
    Links* parent = node->Parent;
    if (parent == Header(table)) return nullptr;
    if (parent->LeftChild == node) return parent;
    node = parent;
  }
}

Links* Previous(PRTL_AVL_TABLE table, Links* node) {
  if (node->LeftChild != nullptr) {
    node = node->LeftChild;
    while (node->RightChild != nullptr) node = node->RightChild;
    return node;
  }
  for (;;) {
    Links* parent = node->Parent;
    if (parent == Header(table)) return nullptr;
    if (parent->RightChild == node) return parent;
    node = parent;
  }
}

// The header's LeftChild is always null, so the root is found as its right child.
void ReplaceChild(Links* parent, Links* old_child, Links* new_child) {
  if (parent->LeftChild == old_child) {
    parent->LeftChild = new_child;
  } else {
    parent->RightChild = new_child;
  }
}

// Rotations keep Balance right with the general rules for height(right) - height(left), which hold
// for every shape the rebalancing below produces (including the intermediate step of a double
// rotation, where a node may be two out of balance).
void RotateLeft(Links* x) {
  Links* y = x->RightChild;
  Links* parent = x->Parent;
  x->RightChild = y->LeftChild;
  if (y->LeftChild != nullptr) y->LeftChild->Parent = x;
  y->LeftChild = x;
  x->Parent = y;
  y->Parent = parent;
  ReplaceChild(parent, x, y);

  int xb = x->Balance, yb = y->Balance;
  xb = xb - 1 - (yb > 0 ? yb : 0);
  yb = yb - 1 + (xb < 0 ? xb : 0);
  x->Balance = static_cast<CHAR>(xb);
  y->Balance = static_cast<CHAR>(yb);
}

void RotateRight(Links* x) {
  Links* y = x->LeftChild;
  Links* parent = x->Parent;
  x->LeftChild = y->RightChild;
  if (y->RightChild != nullptr) y->RightChild->Parent = x;
  y->RightChild = x;
  x->Parent = y;
  y->Parent = parent;
  ReplaceChild(parent, x, y);

  int xb = x->Balance, yb = y->Balance;
  xb = xb + 1 - (yb < 0 ? yb : 0);
  yb = yb + 1 + (xb > 0 ? xb : 0);
  x->Balance = static_cast<CHAR>(xb);
  y->Balance = static_cast<CHAR>(yb);
}

// Restores a node two out of balance; returns the subtree's new root.
Links* Rebalance(Links* node) {
  if (node->Balance > 0) {
    if (node->RightChild->Balance < 0) RotateRight(node->RightChild);
    RotateLeft(node);
  } else {
    if (node->LeftChild->Balance > 0) RotateLeft(node->LeftChild);
    RotateRight(node);
  }
  return node->Parent;
}

// After a leaf was added below `child`'s parent: climbs while subtrees grow taller. One rotation at
// most, after which the subtree is as tall as before the insert.
void RebalanceAfterInsert(PRTL_AVL_TABLE table, Links* child) {
  Links* parent = child->Parent;
  while (parent != Header(table)) {
    parent->Balance = static_cast<CHAR>(parent->Balance + (parent->LeftChild == child ? -1 : 1));
    if (parent->Balance == 0) return;
    if (parent->Balance == 2 || parent->Balance == -2) {
      Rebalance(parent);
      return;
    }
    child = parent;
    parent = parent->Parent;
  }
}

// After the subtree on one side of `parent` became one shorter: climbs while subtrees shrink.
void RebalanceAfterDelete(PRTL_AVL_TABLE table, Links* parent, bool left_shrank) {
  while (parent != Header(table)) {
    parent->Balance = static_cast<CHAR>(parent->Balance + (left_shrank ? 1 : -1));
    if (parent->Balance == 1 || parent->Balance == -1) return;  // was even: height unchanged
    Links* subtree = parent;
    if (parent->Balance != 0) {
      Links* taller = parent->Balance > 0 ? parent->RightChild : parent->LeftChild;
      bool height_kept = taller->Balance == 0;
      subtree = Rebalance(parent);
      if (height_kept) return;
    }
    parent = subtree->Parent;
    left_shrank = parent->LeftChild == subtree;
  }
}

// Unlinks `node` from the tree, moving its in-order successor into its place when it has two
// children, so that every other node (and the caller's pointers into it) stays where it is.
void Unlink(PRTL_AVL_TABLE table, Links* node) {
  Links* parent = node->Parent;
  if (node->LeftChild == nullptr || node->RightChild == nullptr) {
    Links* child = node->LeftChild != nullptr ? node->LeftChild : node->RightChild;
    bool was_left = parent->LeftChild == node;
    ReplaceChild(parent, node, child);
    if (child != nullptr) child->Parent = parent;
    RebalanceAfterDelete(table, parent, was_left);
    return;
  }

  Links* successor = First(node->RightChild);
  Links* fix_from;
  bool left_shrank;
  if (successor == node->RightChild) {
    // The successor keeps its right subtree; node's right side loses the successor's level.
    fix_from = successor;
    left_shrank = false;
  } else {
    fix_from = successor->Parent;
    left_shrank = true;
    fix_from->LeftChild = successor->RightChild;
    if (successor->RightChild != nullptr) successor->RightChild->Parent = fix_from;
    successor->RightChild = node->RightChild;
    node->RightChild->Parent = successor;
  }
  successor->LeftChild = node->LeftChild;
  node->LeftChild->Parent = successor;
  successor->Parent = parent;
  successor->Balance = node->Balance;
  ReplaceChild(parent, node, successor);
  RebalanceAfterDelete(table, fix_from, left_shrank);
}

// Finds the node comparing equal to Buffer, or the node below which it would be inserted.
TABLE_SEARCH_RESULT Find(PRTL_AVL_TABLE table, PVOID buffer, Links** node_or_parent) {
  Links* node = Root(table);
  if (node == nullptr) {
    *node_or_parent = nullptr;
    return TableEmptyTree;
  }
  for (;;) {
    RTL_GENERIC_COMPARE_RESULTS result = table->CompareRoutine(table, buffer, UserData(node));
    if (result == GenericEqual) {
      *node_or_parent = node;
      return TableFoundNode;
    }
    Links* next = result == GenericLessThan ? node->LeftChild : node->RightChild;
    if (next == nullptr) {
      *node_or_parent = node;
      return result == GenericLessThan ? TableInsertAsLeft : TableInsertAsRight;
    }
    node = next;
  }
}

PVOID InsertAt(PRTL_AVL_TABLE table, PVOID buffer, CLONG buffer_size, PBOOLEAN new_element,
               Links* node_or_parent, TABLE_SEARCH_RESULT search_result) {
  if (search_result == TableFoundNode) {
    if (new_element != nullptr) *new_element = FALSE;
    return UserData(node_or_parent);
  }

  Links* node = static_cast<Links*>(
      table->AllocateRoutine(table, static_cast<CLONG>(sizeof(Links) + buffer_size)));
  if (node == nullptr) {
    if (new_element != nullptr) *new_element = FALSE;
    return nullptr;
  }
  node->LeftChild = nullptr;
  node->RightChild = nullptr;
  node->Balance = 0;
  node->Reserved[0] = node->Reserved[1] = node->Reserved[2] = 0;
  if (buffer_size != 0) memcpy(UserData(node), buffer, buffer_size);

  if (search_result == TableEmptyTree) {
    node->Parent = Header(table);
    table->BalancedRoot.RightChild = node;
  } else {
    node->Parent = node_or_parent;
    if (search_result == TableInsertAsLeft) {
      node_or_parent->LeftChild = node;
    } else {
      node_or_parent->RightChild = node;
    }
  }

  ULONG depth = 0;
  for (Links* n = node; n != Header(table); n = n->Parent) ++depth;
  if (depth > table->DepthOfTree) table->DepthOfTree = depth;

  table->NumberGenericTableElements++;
  table->WhichOrderedElement = 0;
  table->OrderedPointer = nullptr;
  RebalanceAfterInsert(table, node);
  if (new_element != nullptr) *new_element = TRUE;
  return UserData(node);
}

}  // namespace

VOID NTAPI RtlInitializeGenericTableAvl(PRTL_AVL_TABLE Table, PRTL_AVL_COMPARE_ROUTINE CompareRoutine,
                                        PRTL_AVL_ALLOCATE_ROUTINE AllocateRoutine,
                                        PRTL_AVL_FREE_ROUTINE FreeRoutine, PVOID TableContext) {
  memset(Table, 0, sizeof(*Table));
  Table->BalancedRoot.Parent = &Table->BalancedRoot;
  Table->CompareRoutine = CompareRoutine;
  Table->AllocateRoutine = AllocateRoutine;
  Table->FreeRoutine = FreeRoutine;
  Table->TableContext = TableContext;
}

PVOID NTAPI RtlInsertElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                            PBOOLEAN NewElement) {
  Links* node_or_parent;
  TABLE_SEARCH_RESULT result = Find(Table, Buffer, &node_or_parent);
  return InsertAt(Table, Buffer, BufferSize, NewElement, node_or_parent, result);
}

PVOID NTAPI RtlInsertElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                                PBOOLEAN NewElement, PVOID NodeOrParent,
                                                TABLE_SEARCH_RESULT SearchResult) {
  return InsertAt(Table, Buffer, BufferSize, NewElement, static_cast<Links*>(NodeOrParent),
                  SearchResult);
}

BOOLEAN NTAPI RtlDeleteElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer) {
  Links* node;
  if (Find(Table, Buffer, &node) != TableFoundNode) return FALSE;

  // An enumeration by RtlEnumerateGenericTableAvl resumes after the element before this one.
  if (Table->RestartKey == node) Table->RestartKey = Previous(Table, node);
  Unlink(Table, node);
  Table->NumberGenericTableElements--;
  Table->DeleteCount++;
  Table->WhichOrderedElement = 0;
  Table->OrderedPointer = nullptr;
  if (Table->NumberGenericTableElements == 0) Table->DepthOfTree = 0;
  Table->FreeRoutine(Table, node);
  return TRUE;
}

PVOID NTAPI RtlLookupElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer) {
  Links* node;
  return Find(Table, Buffer, &node) == TableFoundNode ? UserData(node) : nullptr;
}

PVOID NTAPI RtlLookupElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer,
                                                PVOID* NodeOrParent, TABLE_SEARCH_RESULT* SearchResult) {
  Links* node;
  *SearchResult = Find(Table, Buffer, &node);
  *NodeOrParent = node;
  return *SearchResult == TableFoundNode ? UserData(node) : nullptr;
}

PVOID NTAPI RtlEnumerateGenericTableWithoutSplayingAvl(PRTL_AVL_TABLE Table, PVOID* RestartKey) {
  Links* node;
  if (*RestartKey == nullptr) {
    node = Root(Table) != nullptr ? First(Root(Table)) : nullptr;
  } else {
    node = Next(Table, static_cast<Links*>(*RestartKey));
  }
  if (node == nullptr) return nullptr;
  *RestartKey = node;
  return UserData(node);
}

PVOID NTAPI RtlEnumerateGenericTableAvl(PRTL_AVL_TABLE Table, BOOLEAN Restart) {
  if (Restart) Table->RestartKey = nullptr;
  PVOID key = Table->RestartKey;
  PVOID element = RtlEnumerateGenericTableWithoutSplayingAvl(Table, &key);
  Table->RestartKey = static_cast<Links*>(key);
  return element;
}

// Elements are numbered in collation order. The last element found is remembered, so that walking
// the indexes in order costs one step each rather than a walk from the first element.
PVOID NTAPI RtlGetElementGenericTableAvl(PRTL_AVL_TABLE Table, ULONG I) {
  if (I >= Table->NumberGenericTableElements) return nullptr;

  Links* node;
  ULONG index;
  if (Table->WhichOrderedElement != 0 && Table->WhichOrderedElement - 1 <= I) {
    node = static_cast<Links*>(Table->OrderedPointer);
    index = Table->WhichOrderedElement - 1;
  } else {
    node = First(Root(Table));
    index = 0;
  }
  for (; index < I; ++index) node = Next(Table, node);

  Table->OrderedPointer = node;
  Table->WhichOrderedElement = I + 1;
  return UserData(node);
}

ULONG NTAPI RtlNumberGenericTableElementsAvl(PRTL_AVL_TABLE Table) {
  return Table->NumberGenericTableElements;
}

BOOLEAN NTAPI RtlIsGenericTableEmptyAvl(PRTL_AVL_TABLE Table) {
  return Table->NumberGenericTableElements == 0 ? TRUE : FALSE;
}
