#include "names/string_block.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"

#define SK_MODULE SK_TRACE_TOOL

static_assert(sizeof(UNICODE_STRING) == 16, "a string block's header is 16 bytes");

PUNICODE_STRING skt_AllocateUnicodeStringSelf(POOL_TYPE PoolType, ULONG Capacity) {
  PUNICODE_STRING block;
  UNREFERENCED_PARAMETER(PoolType);
  // A counted string cannot describe more than 0xFFFF bytes.
  if (Capacity > 0xFFFF) return NULL;
  block = (PUNICODE_STRING)ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING) + Capacity, SK_TAG_STRING_BLOCK);
  if (!block) return NULL;
  RtlZeroMemory(block, sizeof(UNICODE_STRING) + Capacity);
  block->Length = 0;
  block->MaximumLength = (USHORT)Capacity;
  block->Buffer = (PWSTR)(block + 1);
  return block;
}

NTSTATUS skt_FreeUnicodeStringSelf(PUNICODE_STRING String) {
  if (String->Buffer == (PWSTR)(String + 1)) {
    String->MaximumLength = 0;
    ExFreePoolWithTag(String, SK_TAG_STRING_BLOCK);
    return STATUS_SUCCESS;
  }
  if (!String->Buffer) return STATUS_INVALID_PARAMETER;
  RtlZeroMemory(String->Buffer, String->MaximumLength);
  ExFreePoolWithTag(String->Buffer, SK_TAG_STRING_BLOCK);
  String->Length = 0;
  String->MaximumLength = 0;
  String->Buffer = NULL;
  return STATUS_SUCCESS;
}

NTSTATUS skt_GetNameInfo(PVOID Object, PUNICODE_STRING *Name) {
  OBJECT_NAME_INFORMATION scratch;
  ULONG needed = 0;
  ULONG capacity;
  PUNICODE_STRING block;
  NTSTATUS status;

  status = ObQueryNameString(Object, &scratch, sizeof(scratch), &needed);
  if (status != STATUS_INFO_LENGTH_MISMATCH) {
    SK_FAIL("ObQueryNameString", status);
    // An unnamed object's empty name fits the scratch record: that is no name, not a success.
    return NT_SUCCESS(status) ? STATUS_OBJECT_NAME_NOT_FOUND : status;
  }
  capacity = needed + 32;
  block = skt_AllocateUnicodeStringSelf(PagedPool, capacity);
  if (!block) {
    SK_ERROR("pName alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  // The name record overwrites the block's own header and points into the block: still one block.
  status = ObQueryNameString(Object, (POBJECT_NAME_INFORMATION)block, capacity, &needed);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("ObQueryNameString too fail Status:%08lx\n", status);
    ExFreePoolWithTag(block, SK_TAG_STRING_BLOCK);
    return status;
  }
  SK_INFO("Object:%p -> %wZ\n", Object, block);
  *Name = block;
  return STATUS_SUCCESS;
}
