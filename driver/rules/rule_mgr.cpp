#include "rules/rule_mgr.h"

#include "core/debug_log.h"
#include "core/record_tags.h"
#include "names/string_block.h"
#include "rules/rule_convert.h"

#define SK_MODULE SK_TRACE_RULE

// How a running add or match and the closing of its slot stay apart: the slot's flags are read
// without the slot's mutex, so a reader may see the slot open just before sk_DelAllRule closes it.
// Every user of a slot's tries therefore takes a reference on the slot's rundown protection first
// and looks at the flags again under it. Closing sets the closed bit under the mutex, then runs the
// slot down: new references are refused from then on, and the wait returns only when the last
// reference of an add or match already running is given back. Only then are the tries freed.
static BOOLEAN sk_EnterSlot(RuleNode *Slot) {
  if (!ExAcquireRundownProtection(&Slot->Rundown)) return FALSE;
  if ((SK_READ_ORDERED(Slot->Flags) & (SK_RULE_NODE_INITED | SK_RULE_NODE_CLOSED)) == SK_RULE_NODE_INITED) {
    return TRUE;
  }
  ExReleaseRundownProtection(&Slot->Rundown);
  return FALSE;
}

static VOID sk_LeaveSlot(RuleNode *Slot) { ExReleaseRundownProtection(&Slot->Rundown); }

NTSTATUS sk_InitRuleMgr(RuleMgr *Mgr) {
  ULONG i;

  PAGED_CODE();
  SK_ENTER();
  if (Mgr->Flags & SK_RULE_MGR_INITED) {
    SK_INFO("Rule Mgr Already Inited\n");
    goto Exit;
  }
  RtlZeroMemory(Mgr, sizeof(*Mgr));
  Mgr->TypeCode = SK_RECORD_RULE_MGR;
  Mgr->Size = sizeof(*Mgr);
  for (i = 0; i < SK_RULE_SLOT_COUNT; ++i) {
    Mgr->Slots[i].TypeCode = SK_RECORD_RULE_NODE;
    Mgr->Slots[i].Size = sizeof(RuleNode);
    Mgr->Slots[i].Flags = 0;
    ExInitializeFastMutex(&Mgr->Slots[i].Mutex);
    ExInitializeRundownProtection(&Mgr->Slots[i].Rundown);
  }
  InterlockedOr(&Mgr->Flags, SK_RULE_MGR_INITED);
  SK_INFO("RuleMgr Init Success\n");
Exit:
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

VOID sk_DelAllRule(RuleMgr *Mgr) {
  ULONG i;
  RuleNode *slot;
  BOOLEAN closing;

  PAGED_CODE();
  SK_ENTER();
  for (i = 0; i < SK_RULE_SLOT_COUNT; ++i) {
    slot = &Mgr->Slots[i];
    if (!(SK_READ_ORDERED(slot->Flags) & SK_RULE_NODE_INITED)) continue;
    closing = FALSE;
    ExAcquireFastMutex(&slot->Mutex);
    if (slot->Flags & SK_RULE_NODE_INITED) {
      InterlockedExchange(&slot->Flags, (slot->Flags & ~SK_RULE_NODE_INITED) | SK_RULE_NODE_CLOSED);
      closing = TRUE;
    }
    ExReleaseFastMutex(&slot->Mutex);
    if (!closing) continue;
    ExWaitForRundownProtectionRelease(&slot->Rundown);
    skt_UninitPathRuleMgr(&slot->Rules);
  }
  SK_LEAVE(STATUS_SUCCESS);
}

NTSTATUS sk_UninitRuleMgr(RuleMgr *Mgr) {
  PAGED_CODE();
  SK_ENTER();
  if (Mgr->Flags & SK_RULE_MGR_INITED) {
    InterlockedAnd(&Mgr->Flags, ~SK_RULE_MGR_INITED);
    SK_INFO("Del All Rule\n");
    sk_DelAllRule(Mgr);
  } else {
    SK_INFO("Rule Mgr no Inited\n");
  }
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}

// Sets up the slot's tries on its first rule. FALSE when the slot was closed.
static BOOLEAN sk_OpenSlot(RuleNode *Slot) {
  if (SK_READ_ORDERED(Slot->Flags) & SK_RULE_NODE_INITED) return TRUE;
  SK_INFO("Init RuleNode:0x%p\n", Slot);
  ExAcquireFastMutex(&Slot->Mutex);
  if (!(Slot->Flags & (SK_RULE_NODE_INITED | SK_RULE_NODE_CLOSED))) {
    skt_InitPathRuleMgr(&Slot->Rules);
    // The tries are complete before any reader can see the bit.
    InterlockedOr(&Slot->Flags, SK_RULE_NODE_INITED);
  }
  ExReleaseFastMutex(&Slot->Mutex);
  return (SK_READ_ORDERED(Slot->Flags) & SK_RULE_NODE_INITED) != 0;
}

NTSTATUS sk_AddRule(RuleMgr *Mgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern) {
  NTSTATUS status = STATUS_SUCCESS;
  RuleNode *slot;
  PUNICODE_STRING converted = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!(SK_READ_ORDERED(Mgr->Flags) & SK_RULE_MGR_INITED)) {
    SK_ERROR("Rule Mgr no Inited\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  if (EventType >= SK_RULE_SLOT_COUNT || !Pattern || !Pattern->Buffer || Pattern->Length < sizeof(WCHAR)) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  slot = &Mgr->Slots[EventType];
  if (!sk_OpenSlot(slot)) {
    status = STATUS_INSUFFICIENT_RESOURCES;
    SK_FAIL("skt_InitPathRuleMgr", status);
    goto Exit;
  }

  status = sk_ConvertRulePattern(EventType, Pattern, &converted);
  if (!NT_SUCCESS(status)) goto Exit;

  // A delete may have closed the slot while the pattern was converted.
  if (!sk_EnterSlot(slot)) {
    status = STATUS_INSUFFICIENT_RESOURCES;
    SK_FAIL("skt_InitPathRuleMgr", status);
    goto Exit;
  }
  status = skt_AddPathRule(&slot->Rules, converted ? converted : Pattern);
  sk_LeaveSlot(slot);
  if (!NT_SUCCESS(status)) SK_FAIL("skt_AddPathRule", status);
Exit:
  if (converted) skt_FreeUnicodeStringSelf(converted);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_MatchRule(RuleMgr *Mgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Path) {
  NTSTATUS status = STATUS_NOT_FOUND;
  RuleNode *slot;

  SK_ENTER();
  if (!(SK_READ_ORDERED(Mgr->Flags) & SK_RULE_MGR_INITED)) {
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  if (EventType >= SK_RULE_SLOT_COUNT || !Path || (Path->Length && !Path->Buffer)) {
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  slot = &Mgr->Slots[EventType];
  // A type without rules is answered from its flags alone.
  if (!(SK_READ_ORDERED(slot->Flags) & SK_RULE_NODE_INITED) || !sk_EnterSlot(slot)) goto Exit;
  status = skt_MatchPathRule(&slot->Rules, Path);
  sk_LeaveSlot(slot);
  if (NT_SUCCESS(status)) SK_INFO("Match Rule [%d][%wZ]\n", EventType, Path);
Exit:
  SK_LEAVE(status);
  return status;
}
