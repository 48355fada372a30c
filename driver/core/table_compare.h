// Comparison routine of the AVL tables keyed by a 64-bit value (DOS names, paths, processes,
// images): each element's second 8 bytes hold the unsigned key.
#pragma once

#include "platform/nt.h"

RTL_GENERIC_COMPARE_RESULTS NTAPI skt_CompareKey64(PRTL_AVL_TABLE Table, PVOID FirstStruct, PVOID SecondStruct);
