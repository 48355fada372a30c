#include "monitor/package_block.h"

static PSK_PACKAGE_BLOCK sk_BlockOf(PVOID Package) { return (PSK_PACKAGE_BLOCK)Package - 1; }

PVOID sk_AllocatePackage(ULONG Length, ULONG Tag) {
  PSK_PACKAGE_BLOCK block;
  if (Length > MAXULONG - sizeof(SK_PACKAGE_BLOCK)) return NULL;
  block = (PSK_PACKAGE_BLOCK)ExAllocatePoolWithTag(PagedPool, sizeof(SK_PACKAGE_BLOCK) + Length, Tag);
  if (!block) return NULL;
  RtlZeroMemory(block, sizeof(SK_PACKAGE_BLOCK) + Length);
  block->UseCount = 1;
  block->Tag = Tag;
  block->Length = Length;
  return block + 1;
}

VOID sk_ReferencePackage(PVOID Package) { InterlockedIncrement(&sk_BlockOf(Package)->UseCount); }

VOID sk_ReleasePackage(PVOID Package) {
  PSK_PACKAGE_BLOCK block;
  if (!Package) return;
  block = sk_BlockOf(Package);
  if (InterlockedDecrement(&block->UseCount) == 0) ExFreePoolWithTag(block, block->Tag);
}
