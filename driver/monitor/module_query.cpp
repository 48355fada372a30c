#include "monitor/module_query.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "monitor/system_snapshot.h"

#define SK_MODULE SK_TRACE_TOOL

NTSTATUS skt_EnumSysModule(PSKT_ENUM_SYS_MODULE_CALLBACK Callback, PVOID Context) {
  NTSTATUS status;
  PRTL_PROCESS_MODULES modules;
  ULONG index;

  PAGED_CODE();
  SK_ENTER();
  if (!Callback) {
    status = STATUS_INVALID_PARAMETER;
    goto Leave;
  }
  status = skt_QuerySystemSnapshot(SystemModuleInformation, SK_TAG_MODULE_SNAPSHOT, "ProcModInfo alloc fail\n",
                                   (PVOID *)&modules);
  if (!NT_SUCCESS(status)) goto Leave;
  SK_INFO("Query Module Information Success\n");
  for (index = 0; index < modules->NumberOfModules; ++index) {
    status = Callback(&modules->Modules[index], Context);
    if (!NT_SUCCESS(status)) {
      ExFreePoolWithTag(modules, SK_TAG_MODULE_SNAPSHOT);
      goto Leave;
    }
  }
  ExFreePoolWithTag(modules, SK_TAG_MODULE_SNAPSHOT);
  status = STATUS_SUCCESS;
Leave:
  SK_LEAVE(status);
  return status;
}

NTSTATUS skt_ModuleContainsAddress(PRTL_PROCESS_MODULE_INFORMATION ModuleEntry, PVOID Query) {
  PMODULE_ADDRESS_QUERY query = (PMODULE_ADDRESS_QUERY)Query;
  ULONG_PTR base = (ULONG_PTR)ModuleEntry->ImageBase;
  ULONG_PTR address = (ULONG_PTR)query->Address;

  if (base < address && address < base + ModuleEntry->ImageSize) {
    if (query->ImageBase) *query->ImageBase = ModuleEntry->ImageBase;
    if (query->ImageSize) *query->ImageSize = ModuleEntry->ImageSize;
    query->Status = STATUS_SUCCESS;
    return STATUS_INSUFFICIENT_RESOURCES;  // found: stop the walk
  }
  return STATUS_SUCCESS;
}

// Compares the wanted name (a counted string, as if a zero followed it) with a zero-terminated
// export name, as unsigned bytes.
static int skt_CompareExportName(PANSI_STRING Wanted, const UCHAR *ExportName) {
  USHORT index;
  UCHAR wanted;

  for (index = 0;; ++index) {
    wanted = index < Wanted->Length ? (UCHAR)Wanted->Buffer[index] : 0;
    if (wanted != ExportName[index]) return wanted < ExportName[index] ? -1 : 1;
    if (wanted == 0) return 0;
  }
}

// The export directory of a loaded image, read from its own headers. (RtlImageDirectoryEntryToData
// would do it, but it has no reference page, and Sentrel imports only what Windows 7 documents.)
static PIMAGE_EXPORT_DIRECTORY skt_ImageExportDirectory(PUCHAR Base) {
  PIMAGE_DOS_HEADER dos = (PIMAGE_DOS_HEADER)Base;
  PIMAGE_NT_HEADERS64 nt;
  PIMAGE_DATA_DIRECTORY entry;

  if (dos->e_magic != IMAGE_DOS_SIGNATURE) return NULL;
  nt = (PIMAGE_NT_HEADERS64)(Base + dos->e_lfanew);
  if (nt->Signature != IMAGE_NT_SIGNATURE || nt->OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) return NULL;
  if (nt->OptionalHeader.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_EXPORT) return NULL;
  entry = &nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  return entry->VirtualAddress ? (PIMAGE_EXPORT_DIRECTORY)(Base + entry->VirtualAddress) : NULL;
}

PVOID skt_FindExportedRoutineByName(PVOID ImageBase, PANSI_STRING RoutineName) {
  PUCHAR base = (PUCHAR)ImageBase;
  PIMAGE_EXPORT_DIRECTORY directory;
  PULONG names;
  PUSHORT ordinals;
  PULONG functions;
  LONG low, high, middle;
  int order;
  USHORT ordinal;
  PVOID address = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!ImageBase || !RoutineName) {
    SK_ERROR("Invalid Parameter\n");
    goto Leave;
  }
  SK_INFO("find %Z\n", RoutineName);
  directory = skt_ImageExportDirectory(base);
  if (!directory) {
    SK_ERROR("Can't find Export Directory\n");
    goto Leave;
  }
  names = (PULONG)(base + directory->AddressOfNames);
  ordinals = (PUSHORT)(base + directory->AddressOfNameOrdinals);
  functions = (PULONG)(base + directory->AddressOfFunctions);

  // The name table is sorted, so a binary search finds the name.
  low = 0;
  high = (LONG)directory->NumberOfNames - 1;
  while (high >= low) {
    middle = (low + high) / 2;
    order = skt_CompareExportName(RoutineName, base + names[middle]);
    if (order == 0) {
      ordinal = ordinals[middle];
      if (ordinal < directory->NumberOfFunctions) {
        address = base + functions[ordinal];
        SK_INFO("FunctionAddress 0x%p\n", address);
      }
      break;
    }
    if (order < 0) high = middle - 1;
    else low = middle + 1;
  }
  if (!address) SK_ERROR("Can't find %Z\n", RoutineName);
Leave:
  SK_LEAVE_ADDRESS(address);
  return address;
}

PVOID skt_MmGetSystemRoutineAddress(PVOID ImageBase, PUNICODE_STRING RoutineName) {
  ANSI_STRING ansiName;
  PVOID address = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!ImageBase || !RoutineName) goto Leave;
  SK_INFO("Get %wZ address\n", RoutineName);
  if (NT_SUCCESS(RtlUnicodeStringToAnsiString(&ansiName, RoutineName, TRUE))) {
    address = skt_FindExportedRoutineByName(ImageBase, &ansiName);
    RtlFreeAnsiString(&ansiName);
  } else {
    address = MmGetSystemRoutineAddress(RoutineName);
  }
Leave:
  SK_LEAVE_ADDRESS(address);
  return address;
}
