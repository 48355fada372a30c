// The white rule set: its start and stop, its built-in rules and the delete of all white rules.
#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "rules/default_rules.h"
#include "rules/rule_sets.h"

#define SK_MODULE SK_TRACE_WHITERULE

NTSTATUS sk_AddWhiteRule(RuleMgr *WhiteRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_AddRule(WhiteRuleMgr, EventType, Pattern);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_MatchWhiteRule(RuleMgr *WhiteRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Path) {
  NTSTATUS status;
  SK_ENTER();
  status = sk_MatchRule(WhiteRuleMgr, EventType, Path);
  if (NT_SUCCESS(status)) SK_INFO("Match White Rule [%d][%wZ]\n", EventType, Path);
  SK_LEAVE(status);
  return status;
}

// Each rule's line goes through the level filter under the white rule set's module (the black
// set's per-rule lines do not; rules/black_rules.cpp).
NTSTATUS sk_AddDefauleWhiteRule(RuleMgr *WhiteRuleMgr) {
  NTSTATUS status = STATUS_SUCCESS;
  UNICODE_STRING pattern;
  ULONG i;

  PAGED_CODE();
  SK_ENTER();
  SK_INFO("[sk_AddDefauleWhiteRule] Add Default White Rule\n");
  for (i = 0; i < SK_DEFAULT_WHITE_RULES; ++i) {
    RtlInitUnicodeString(&pattern, SkDefaultWhiteRules[i].Pattern);
    status = sk_AddWhiteRule(WhiteRuleMgr, SkDefaultWhiteRules[i].EventType, &pattern);
    if (NT_SUCCESS(status)) {
      SK_INFO("Add %S Rule %wZ Success\n", sk_EventTypeWideName(SkDefaultWhiteRules[i].EventType), &pattern);
    } else {
      SK_ERROR("Add %S Rule %wZ fail Status:%08lx\n", sk_EventTypeWideName(SkDefaultWhiteRules[i].EventType),
               &pattern, status);
    }
  }
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_InitWhiteRuleMgr(void) {
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  // A second start keeps the rules of the first rather than adding the list again.
  if (SentrelData.WhiteRuleMgr.Flags & SK_RULE_MGR_INITED) {
    SK_INFO("White Rule Mgr Already Inited\n");
    goto Exit;
  }
  status = sk_InitRuleMgr(&SentrelData.WhiteRuleMgr);
  if (NT_SUCCESS(status)) sk_AddDefauleWhiteRule(&SentrelData.WhiteRuleMgr);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitWhiteRuleMgr(RuleMgr *WhiteRuleMgr) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_UninitRuleMgr(WhiteRuleMgr);
  SK_LEAVE(status);
  return status;
}

VOID sk_DelAllWhiteRule(void) {
  PAGED_CODE();
  SK_ENTER();
  sk_DelAllRule(&SentrelData.WhiteRuleMgr);
  if (sk_LogPrefix(-1, SK_LEVEL_INFO, SK_MODULE)) DbgPrint("sk_DelAllWhiteRule Leave\n");
}
