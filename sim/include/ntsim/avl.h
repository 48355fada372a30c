// AVL generic tables (RTL_AVL_TABLE), laid out as the DDK's ntddk.h declares them.
//
// The driver may rely on the layout only as far as the DDK lets it: every node the table asks the
// caller's allocate routine for begins with an RTL_BALANCED_LINKS and the caller's data follows it,
// and the tree hangs from BalancedRoot.RightChild. Everything else in the table is the table's own.
// Driver code names the routine types by their pointer forms (PRTL_AVL_COMPARE_ROUTINE, ...): the
// mingw-w64 DDK declares only those.
#pragma once

#include "ntsim/rtl.h"

typedef ULONG CLONG, *PCLONG;

typedef enum _TABLE_SEARCH_RESULT {
  TableEmptyTree,
  TableFoundNode,
  TableInsertAsLeft,
  TableInsertAsRight
} TABLE_SEARCH_RESULT;

typedef RTL_GENERIC_COMPARE_RESULTS NTAPI RTL_AVL_COMPARE_ROUTINE(struct _RTL_AVL_TABLE *Table,
                                                                  PVOID FirstStruct,
                                                                  PVOID SecondStruct);
typedef RTL_AVL_COMPARE_ROUTINE *PRTL_AVL_COMPARE_ROUTINE;

typedef PVOID NTAPI RTL_AVL_ALLOCATE_ROUTINE(struct _RTL_AVL_TABLE *Table, CLONG ByteSize);
typedef RTL_AVL_ALLOCATE_ROUTINE *PRTL_AVL_ALLOCATE_ROUTINE;

typedef VOID NTAPI RTL_AVL_FREE_ROUTINE(struct _RTL_AVL_TABLE *Table, PVOID Buffer);
typedef RTL_AVL_FREE_ROUTINE *PRTL_AVL_FREE_ROUTINE;

typedef struct _RTL_BALANCED_LINKS {
  struct _RTL_BALANCED_LINKS *Parent;
  struct _RTL_BALANCED_LINKS *LeftChild;
  struct _RTL_BALANCED_LINKS *RightChild;
  CHAR Balance;  // height(right) - height(left): -1, 0 or +1 between calls
  UCHAR Reserved[3];
} RTL_BALANCED_LINKS, *PRTL_BALANCED_LINKS;

// RTL_AVL_TABLE and PRTL_AVL_TABLE are declared in rtl.h; this completes the structure.
struct _RTL_AVL_TABLE {
  RTL_BALANCED_LINKS BalancedRoot;  // RightChild is the root; Parent points back at BalancedRoot
  PVOID OrderedPointer;             // node last found by RtlGetElementGenericTableAvl
  ULONG WhichOrderedElement;        // its index plus one; 0 when OrderedPointer is stale
  ULONG NumberGenericTableElements;
  ULONG DepthOfTree;                // deepest level an insert has reached since the table was empty
  PRTL_BALANCED_LINKS RestartKey;   // node last returned by RtlEnumerateGenericTableAvl
  ULONG DeleteCount;
  PRTL_AVL_COMPARE_ROUTINE CompareRoutine;
  PRTL_AVL_ALLOCATE_ROUTINE AllocateRoutine;
  PRTL_AVL_FREE_ROUTINE FreeRoutine;
  PVOID TableContext;
};

NTSIM_BEGIN_DECLS

VOID NTAPI RtlInitializeGenericTableAvl(PRTL_AVL_TABLE Table, PRTL_AVL_COMPARE_ROUTINE CompareRoutine,
                                        PRTL_AVL_ALLOCATE_ROUTINE AllocateRoutine,
                                        PRTL_AVL_FREE_ROUTINE FreeRoutine, PVOID TableContext);
PVOID NTAPI RtlInsertElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                            PBOOLEAN NewElement);
PVOID NTAPI RtlInsertElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                                PBOOLEAN NewElement, PVOID NodeOrParent,
                                                TABLE_SEARCH_RESULT SearchResult);
BOOLEAN NTAPI RtlDeleteElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer);
PVOID NTAPI RtlLookupElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer);
PVOID NTAPI RtlLookupElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer,
                                                PVOID *NodeOrParent, TABLE_SEARCH_RESULT *SearchResult);
PVOID NTAPI RtlEnumerateGenericTableAvl(PRTL_AVL_TABLE Table, BOOLEAN Restart);
PVOID NTAPI RtlEnumerateGenericTableWithoutSplayingAvl(PRTL_AVL_TABLE Table, PVOID *RestartKey);
PVOID NTAPI RtlGetElementGenericTableAvl(PRTL_AVL_TABLE Table, ULONG I);
ULONG NTAPI RtlNumberGenericTableElementsAvl(PRTL_AVL_TABLE Table);
BOOLEAN NTAPI RtlIsGenericTableEmptyAvl(PRTL_AVL_TABLE Table);

NTSIM_END_DECLS
