// Loaded kernel modules and the routines that images export by name.
#pragma once

#include "platform/nt.h"

// One module of the kernel's module list; a negative status ends the walk and is its result.
typedef NTSTATUS (*PSKT_ENUM_SYS_MODULE_CALLBACK)(PRTL_PROCESS_MODULE_INFORMATION ModuleEntry, PVOID Context);

// Looks for the module whose range holds Address (strictly inside). The caller presets Status to
// STATUS_INSUFFICIENT_RESOURCES; a match sets it to STATUS_SUCCESS and fills the outputs given.
typedef struct _MODULE_ADDRESS_QUERY {
  NTSTATUS Status;
  PVOID Address;
  PVOID *ImageBase;  // or null
  PULONG ImageSize;  // or null
} MODULE_ADDRESS_QUERY, *PMODULE_ADDRESS_QUERY;

NTSTATUS skt_EnumSysModule(PSKT_ENUM_SYS_MODULE_CALLBACK Callback, PVOID Context);
// The skt_EnumSysModule callback for a MODULE_ADDRESS_QUERY: a match stops the walk (with a failure
// status, as every stop does); the caller reads the query's Status, not the walk's result.
NTSTATUS skt_ModuleContainsAddress(PRTL_PROCESS_MODULE_INFORMATION ModuleEntry, PVOID Query);

// A routine exported by name from the image mapped at ImageBase, by binary search of its sorted
// name table; null if it is not there. Forwarded exports are not resolved.
PVOID skt_FindExportedRoutineByName(PVOID ImageBase, PANSI_STRING RoutineName);
// The same for a UTF-16 name; where the name cannot be converted, the kernel's own lookup answers.
PVOID skt_MmGetSystemRoutineAddress(PVOID ImageBase, PUNICODE_STRING RoutineName);
