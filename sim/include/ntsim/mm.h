// Memory manager: routine lookup by name, memory descriptor lists and their mappings into system and
// user space.
#pragma once

#include "ntsim/io.h"

typedef ULONG_PTR PFN_NUMBER, *PPFN_NUMBER;

typedef enum _MEMORY_CACHING_TYPE {
  MmNonCached = 0,
  MmCached = 1,
  MmWriteCombined = 2,
  MmHardwareCoherentCached = 3,
  MmNonCachedUnordered = 4,
  MmUSWCCached = 5,
  MmMaximumCacheType = 6,
  MmNotMapped = -1
} MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY {
  LowPagePriority = 0,
  NormalPagePriority = 16,
  HighPagePriority = 32
} MM_PAGE_PRIORITY;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010

#define PAGE_SHIFT 12
#define BYTE_OFFSET(Va) ((ULONG)((LONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~(ULONG_PTR)(PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
  ((ULONG)(((ULONG_PTR)BYTE_OFFSET(Va) + (SIZE_T)(Size) + (PAGE_SIZE - 1)) >> PAGE_SHIFT))

// As the DDK defines it: the MDL header, then one page-frame entry per page the buffer spans.
#define MmInitializeMdl(MemoryDescriptorList, BaseVa, Length)                                          \
  do {                                                                                                 \
    (MemoryDescriptorList)->Next = (PMDL)NULL;                                                         \
    (MemoryDescriptorList)->Size =                                                                     \
        (CSHORT)(sizeof(MDL) + (sizeof(PFN_NUMBER) * ADDRESS_AND_SIZE_TO_SPAN_PAGES((BaseVa), (Length)))); \
    (MemoryDescriptorList)->MdlFlags = 0;                                                              \
    (MemoryDescriptorList)->StartVa = (PVOID)PAGE_ALIGN((BaseVa));                                     \
    (MemoryDescriptorList)->ByteOffset = BYTE_OFFSET((BaseVa));                                        \
    (MemoryDescriptorList)->ByteCount = (ULONG)(Length);                                               \
  } while (0)

#define MmGetMdlPfnArray(Mdl) ((PPFN_NUMBER)((Mdl) + 1))
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)

// As wdm.h defines it: an MDL already mapped into system space (or built over non-paged pool) gives
// its mapping; any other is mapped now, and null comes back when that fails.
#define MmGetSystemAddressForMdlSafe(_Mdl, _Priority)                                                \
  (((_Mdl)->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))                      \
       ? (_Mdl)->MappedSystemVa                                                                      \
       : (PVOID)MmMapLockedPagesSpecifyCache((_Mdl), KernelMode, MmCached, NULL, FALSE, (_Priority)))

NTSIM_BEGIN_DECLS

PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

SIZE_T NTAPI MmSizeOfMdl(PVOID Base, SIZE_T Length);
PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp);
VOID NTAPI IoFreeMdl(PMDL Mdl);
VOID NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
// The first address above user space (MmUserProbeAddress on x64).
#define NTSIM_USER_PROBE_ADDRESS ((ULONG_PTR)0x7FFFFFFF0000ull)
// Raises STATUS_ACCESS_VIOLATION if [Address, Address + Length) reaches beyond user space (or
// wraps), STATUS_DATATYPE_MISALIGNMENT if Address is not a multiple of Alignment (1, 2, 4, 8 or
// 16); checks nothing when Length is 0. It does not look at whether the pages are there.
VOID NTAPI ProbeForRead(const volatile VOID *Address, SIZE_T Length, ULONG Alignment);
PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                         MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                         ULONG BugCheckOnFailure, ULONG Priority);
VOID NTAPI MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);

NTSIM_END_DECLS

// ---------------------------------------------------------------------------------------------
// A process's user address space as ZwQueryVirtualMemory describes it.

#define PAGE_NOACCESS 0x01
#define PAGE_READONLY 0x02
#define PAGE_READWRITE 0x04
#define PAGE_WRITECOPY 0x08
#define PAGE_EXECUTE 0x10
#define PAGE_EXECUTE_READ 0x20
#define PAGE_EXECUTE_READWRITE 0x40
#define PAGE_EXECUTE_WRITECOPY 0x80
#define MEM_COMMIT 0x00001000
#define MEM_RESERVE 0x00002000
#define MEM_FREE 0x00010000
#define MEM_PRIVATE 0x00020000
#define MEM_MAPPED 0x00040000
#define MEM_IMAGE 0x01000000

typedef enum _MEMORY_INFORMATION_CLASS {
  MemoryBasicInformation = 0,
  MemoryWorkingSetInformation = 1,
  MemoryMappedFilenameInformation = 2,
} MEMORY_INFORMATION_CLASS;

typedef struct _MEMORY_BASIC_INFORMATION {
  PVOID BaseAddress;
  PVOID AllocationBase;
  ULONG AllocationProtect;
  USHORT PartitionId;
  SIZE_T RegionSize;
  ULONG State;
  ULONG Protect;
  ULONG Type;
} MEMORY_BASIC_INFORMATION, *PMEMORY_BASIC_INFORMATION;
static_assert(sizeof(MEMORY_BASIC_INFORMATION) == 48, "the 64-bit layout");

NTSIM_BEGIN_DECLS

NTSYSAPI NTSTATUS NTAPI ZwQueryVirtualMemory(HANDLE ProcessHandle, PVOID BaseAddress,
                                             MEMORY_INFORMATION_CLASS MemoryInformationClass, PVOID MemoryInformation,
                                             SIZE_T MemoryInformationLength, PSIZE_T ReturnLength);
NTSYSAPI NTSTATUS NTAPI ZwCreateSection(PHANDLE SectionHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes, PLARGE_INTEGER MaximumSize,
                                        ULONG SectionPageProtection, ULONG AllocationAttributes, HANDLE FileHandle);

NTSIM_END_DECLS
