#include "core/table_compare.h"

RTL_GENERIC_COMPARE_RESULTS NTAPI skt_CompareKey64(PRTL_AVL_TABLE Table, PVOID FirstStruct, PVOID SecondStruct) {
  ULONG64 first = ((const ULONG64 *)FirstStruct)[1];
  ULONG64 second = ((const ULONG64 *)SecondStruct)[1];
  UNREFERENCED_PARAMETER(Table);
  if (first > second) return GenericGreaterThan;
  if (first < second) return GenericLessThan;
  return GenericEqual;
}
