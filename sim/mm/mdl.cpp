// Memory descriptor lists over driver memory, and their mappings: IoAllocateMdl/IoFreeMdl,
// MmBuildMdlForNonPagedPool, MmMapLockedPagesSpecifyCache and MmUnmapLockedPages. A page-frame
// entry holds the page's kernel address shifted by PAGE_SHIFT: the simulator has no physical
// pages, but an entry names its page all the same.
#include <cstdio>
#include <string>

#include "kernel.h"
#include "ps/system_thread.h"

using namespace ntsim;

namespace {

constexpr ULONG kMdlTag = ' ldM';  // "Mdl "

std::string Hex(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

ULONG SpanPages(PMDL mdl) { return ADDRESS_AND_SIZE_TO_SPAN_PAGES(MmGetMdlVirtualAddress(mdl), mdl->ByteCount); }

}  // namespace

SIZE_T NTAPI MmSizeOfMdl(PVOID Base, SIZE_T Length) {
  return sizeof(MDL) + sizeof(PFN_NUMBER) * ADDRESS_AND_SIZE_TO_SPAN_PAGES(Base, Length);
}

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp) {
  Kernel& k = K();
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) k.verifier.Violation("IoAllocateMdl", "called above DISPATCH_LEVEL");
  if (Irp) {
    // The I/O manager frees the MDLs of a request itself; it does not know pool-allocated ones.
    k.verifier.Violation("IoAllocateMdl", "MDLs chained to a request are not simulated");
    return nullptr;
  }
  if (SecondaryBuffer) k.verifier.Violation("IoAllocateMdl", "SecondaryBuffer must be FALSE without a request");
  if (Length == 0 || Length > 0xFFFFFFFFu - PAGE_SIZE + 1) return nullptr;  // at most 4 GB - PAGE_SIZE
  SIZE_T size = MmSizeOfMdl(VirtualAddress, Length);
  auto mdl = static_cast<PMDL>(k.pool.Allocate(NonPagedPool, size, kMdlTag, "IoAllocateMdl"));
  if (!mdl) return nullptr;
  std::memset(mdl, 0, size);
  MmInitializeMdl(mdl, VirtualAddress, Length);
  mdl->MdlFlags = MDL_ALLOCATED_FIXED_SIZE;
  return mdl;
}

VOID NTAPI IoFreeMdl(PMDL Mdl) {
  for (const UserView& view : K().mm.ViewsMappedFrom(Mdl)) {
    K().verifier.Violation("IoFreeMdl", "freeing an MDL whose pages are still mapped into process " +
                                            std::to_string(view.process->id) + " at " +
                                            Hex(reinterpret_cast<void*>(view.base)));
  }
  K().pool.Free(Mdl, kMdlTag, true, "IoFreeMdl");
}

VOID NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
  Kernel& k = K();
  PMDL mdl = MemoryDescriptorList;
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) {
    k.verifier.Violation("MmBuildMdlForNonPagedPool", "called above DISPATCH_LEVEL");
  }
  PVOID start = MmGetMdlVirtualAddress(mdl);
  PoolBlock block;
  const void* blockStart = nullptr;
  if (!k.pool.Find(start, mdl->ByteCount, &block, &blockStart) || !block.NonPaged()) {
    k.verifier.Violation("MmBuildMdlForNonPagedPool",
                         "the MDL at " + Hex(mdl) + " does not describe a buffer within one non-paged pool block");
    return;
  }
  ULONG pages = SpanPages(mdl);
  if (static_cast<SIZE_T>(static_cast<USHORT>(mdl->Size)) < sizeof(MDL) + pages * sizeof(PFN_NUMBER)) {
    k.verifier.Violation("MmBuildMdlForNonPagedPool", "the MDL at " + Hex(mdl) +
                                                          " is too small for the page-frame entries of " +
                                                          std::to_string(pages) + " page(s)");
    return;
  }
  PPFN_NUMBER pfns = MmGetMdlPfnArray(mdl);
  auto firstPage = reinterpret_cast<ULONG_PTR>(mdl->StartVa) >> PAGE_SHIFT;
  for (ULONG i = 0; i < pages; ++i) pfns[i] = firstPage + i;
  mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
  mdl->MappedSystemVa = start;
  mdl->Process = nullptr;
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                         MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                         ULONG BugCheckOnFailure, ULONG Priority) {
  Kernel& k = K();
  PMDL mdl = MemoryDescriptorList;
  const char* call = "MmMapLockedPagesSpecifyCache";
  if (CacheType < MmNonCached || CacheType >= MmMaximumCacheType) {
    k.verifier.Violation(call, "invalid cache type " + std::to_string(static_cast<int>(CacheType)));
    return nullptr;
  }
  if (AccessMode == KernelMode) {
    if (KeGetCurrentIrql() > DISPATCH_LEVEL) k.verifier.Violation(call, "kernel-mode mapping above DISPATCH_LEVEL");
    if (BugCheckOnFailure) k.verifier.Violation(call, "drivers must pass BugCheckOnFailure FALSE");
    if (mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL) {
      k.verifier.Violation(call, "a second system mapping of an MDL built by MmBuildMdlForNonPagedPool");
      return nullptr;
    }
    if (k.verifier.ShouldFail(call)) return nullptr;
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    return mdl->MappedSystemVa;
  }
  if (KeGetCurrentIrql() > APC_LEVEL) k.verifier.Violation(call, "user-mode mapping above APC_LEVEL");
  if (!(mdl->MdlFlags & (MDL_SOURCE_IS_NONPAGED_POOL | MDL_PAGES_LOCKED))) {
    k.verifier.Violation(call, "the MDL at " + Hex(mdl) + " describes no locked pages");
    return nullptr;
  }
  PoolBlock block;
  const void* blockStart = nullptr;
  if (!k.pool.Find(mdl->StartVa, SpanPages(mdl) * PAGE_SIZE, &block, &blockStart) || block.fd < 0) {
    k.verifier.Violation(call, "the simulator maps into user space only whole pages of a non-paged pool block "
                               "of a page or more");
    return nullptr;
  }
  if (k.verifier.ShouldFail(call)) {
    RaiseKernelException(call, STATUS_INSUFFICIENT_RESOURCES, "a user-mode mapping failed");
    return nullptr;
  }
  size_t offset = static_cast<const char*>(mdl->StartVa) - static_cast<const char*>(blockStart);
  void* base = k.mm.MapView(CurrentProcess(), block.fd, offset, SpanPages(mdl) * PAGE_SIZE,
                            reinterpret_cast<uintptr_t>(mdl->StartVa), mdl, CacheType);
  if (!base) {
    RaiseKernelException(call, STATUS_INSUFFICIENT_RESOURCES, "a user-mode mapping failed");
    return nullptr;
  }
  return static_cast<char*>(base) + mdl->ByteOffset;
}

VOID NTAPI MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList) {
  Kernel& k = K();
  PMDL mdl = MemoryDescriptorList;
  const char* call = "MmUnmapLockedPages";
  if ((mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL) && BaseAddress == mdl->MappedSystemVa) {
    k.verifier.Violation(call, "releasing the system mapping of an MDL built by MmBuildMdlForNonPagedPool");
    return;
  }
  if ((mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) && BaseAddress == mdl->MappedSystemVa) {
    if (KeGetCurrentIrql() > DISPATCH_LEVEL) k.verifier.Violation(call, "called above DISPATCH_LEVEL");
    mdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
    mdl->MappedSystemVa = nullptr;
    return;
  }
  if (KeGetCurrentIrql() > APC_LEVEL) k.verifier.Violation(call, "unmapping a user view above APC_LEVEL");
  uintptr_t base = reinterpret_cast<uintptr_t>(BaseAddress) - mdl->ByteOffset;
  std::string problem;
  if (!k.mm.UnmapView(CurrentProcess(), base, mdl, &problem)) {
    k.verifier.Violation(call, Hex(BaseAddress) + ": " + problem);
  }
}
