// The white and black rule sets: the two rule managers of SentrelData. A white match marks an
// event as harmless (not reported), a black match as one to report. Both are filled with the
// built-in lists at start-up; afterwards only the consumer changes the white set, by adding rules
// (IOCTL_SK_ADD_WHITE_RULE) or deleting them all, which closes every white event type that had
// rules until the driver starts again. The black set changes only at start and stop.
#pragma once

#include "platform/nt.h"
#include "rules/rule_mgr.h"

// Start-up: the rule engine on SentrelData's manager, then its built-in rules. The result is the
// engine's; a default rule that cannot be added is reported by its print line and skipped.
NTSTATUS sk_InitBlackRuleMgr(void);
NTSTATUS sk_InitWhiteRuleMgr(void);
NTSTATUS sk_UninitBlackRuleMgr(RuleMgr *BlackRuleMgr);
NTSTATUS sk_UninitWhiteRuleMgr(RuleMgr *WhiteRuleMgr);

NTSTATUS sk_AddBlackRule(RuleMgr *BlackRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern);
NTSTATUS sk_AddWhiteRule(RuleMgr *WhiteRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern);
// sk_MatchRule on the set; a match is also logged under the set's own module.
NTSTATUS sk_MatchBlackRule(RuleMgr *BlackRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Path);
NTSTATUS sk_MatchWhiteRule(RuleMgr *WhiteRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Path);

// Adds each non-null pattern of Array for EventType, printing one line per pattern; a failure does
// not stop the loop. The result is the last add's; a Count of 0 is STATUS_INVALID_PARAMETER.
NTSTATUS sk_AddBlackRuleArray(RuleMgr *BlackRuleMgr, SK_EVENT_TYPE EventType, const PCWSTR *Array, ULONG Count);
// The per-user templates for every user hive loaded under \Registry\User, classes hives excepted,
// for the four registry event types. Users who log on later get none.
NTSTATUS sk_AddUserHiveBlackRule(RuleMgr *BlackRuleMgr);
NTSTATUS sk_AddDefauleBlackRule(RuleMgr *BlackRuleMgr);
NTSTATUS sk_AddDefauleWhiteRule(RuleMgr *WhiteRuleMgr);

// Deletes every white rule, the built-in ones included, and closes their event types.
VOID sk_DelAllWhiteRule(void);
// Adds the rules of a buffer of WHITE_RULE_NODE records (sentrel/white_rule.h), Length bytes long,
// until the last record or the first malformed one or failed add. The result is the last add's
// status, STATUS_INVALID_PARAMETER when none was made.
NTSTATUS sk_AddWhiteRuleFunction_Ioctl(PVOID Buffer, ULONG Length);

// The event type's name as a wide string, for the rule sets' print lines ("" for the unnamed slot).
PCWSTR sk_EventTypeWideName(SK_EVENT_TYPE EventType);
