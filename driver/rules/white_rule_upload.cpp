// The consumer's white rules: the walk over the WHITE_RULE_NODE records of IOCTL_SK_ADD_WHITE_RULE.
// Its lines belong to the device dispatch, which calls it.
#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "names/string_block.h"
#include "rules/rule_sets.h"
#include "sentrel/white_rule.h"

#define SK_MODULE SK_TRACE_COMMU

// The buffer is the request's direct buffer: its pages are locked, but the consumer may still
// write to them while the walk runs. So each record's header is copied once and only the copy is
// looked at, and the path is copied into a block of our own before the rule engine sees it (which
// also gives it the alignment of a string, as records need not be aligned). Whatever the consumer
// does meanwhile, the walk reads nothing outside [Buffer, Buffer + Length).
NTSTATUS sk_AddWhiteRuleFunction_Ioctl(PVOID Buffer, ULONG Length) {
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  const UCHAR *bytes = (const UCHAR *)Buffer;
  ULONG offset = 0;  // of the record R
  WHITE_RULE_NODE header;
  PUNICODE_STRING path;

  PAGED_CODE();
  SK_ENTER();
  for (;;) {
    if ((ULONG64)offset + WHITE_RULE_NODE_SIZE > Length) {
      SK_ERROR("pNext + sizeof(WHITE_RULE_NODE) > pEnd fail\n");
      break;
    }
    RtlCopyMemory(&header, bytes + offset, WHITE_RULE_NODE_HEADER_SIZE);
    if ((ULONG64)offset + WHITE_RULE_NODE_HEADER_SIZE + header.Length > Length) {
      SK_ERROR("NodeEnd > pEnd fail\n");
      break;
    }
    path = skt_AllocateUnicodeStringSelf(PagedPool, header.Length);
    if (!path) {
      SK_ERROR("WhiteRule alloc fail\n");
      status = STATUS_INSUFFICIENT_RESOURCES;
      break;
    }
    RtlCopyMemory(path->Buffer, bytes + offset + WHITE_RULE_NODE_HEADER_SIZE, header.Length);
    // A counted string holds whole characters: an odd last byte is not part of the pattern.
    path->Length = (USHORT)(header.Length & ~1u);
    SK_INFO("Add White Rule [%d][%wZ]\n", header.EventType, path);
    status = sk_AddWhiteRule(&SentrelData.WhiteRuleMgr, header.EventType, path);
    skt_FreeUnicodeStringSelf(path);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("sk_AddWhiteRule", status);
      break;
    }
    if (header.NextOffset == 0) break;
    offset += header.NextOffset;
    if (offset >= Length) break;
  }
  SK_LEAVE(status);
  return status;
}
