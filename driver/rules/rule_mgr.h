// The rule engine: a rule manager holds, for each event type, the path patterns added for it, and
// answers whether a path matches one of them. The driver keeps two in SentrelData, the white and
// the black rule set (rules/rule_sets.h).
//
// A pattern is "*\name" (a suffix rule: the last components of a path) or "\A\B", "\A\B\*" (a
// prefix rule: that path and every path below it); a star elsewhere is refused. Patterns of the
// event types whose events carry NT paths (process creation, remote threads, process access, file
// creation) are converted to NT paths when added; the others keep their form, but a leading
// \SystemRoot becomes the system root's DOS path.
//
// Everything runs at PASSIVE_LEVEL, on any thread.
#pragma once

#include "platform/nt.h"
#include "rules/path_rule.h"
#include "sentrel/event_types.h"

#define SK_RULE_SLOT_COUNT SK_EVENT_TYPE_SLOTS  // one slot per event type, 0 to 19

#define SK_RULE_MGR_INITED 0x1
#define SK_RULE_NODE_INITED 0x1  // the slot's tries exist: a rule was added
#define SK_RULE_NODE_CLOSED 0x2  // the slot's rules were deleted; it stays closed for good

// The slot of one event type.
typedef struct RuleNode {
  USHORT TypeCode;  // SK_RECORD_RULE_NODE
  USHORT Size;
  volatile LONG Flags;  // SK_RULE_NODE_INITED, SK_RULE_NODE_CLOSED
  FAST_MUTEX Mutex;     // serialises the slot's set-up and its closing
  // Every add and match holds a reference while it uses Rules; closing the slot runs it down and
  // waits for those in progress before the tries are freed.
  EX_RUNDOWN_REF Rundown;
  PathRuleMgr Rules;
} RuleNode;

typedef struct RuleMgr {
  USHORT TypeCode;  // SK_RECORD_RULE_MGR
  USHORT Size;
  volatile LONG Flags;  // SK_RULE_MGR_INITED
  RuleNode Slots[SK_RULE_SLOT_COUNT];  // slot i holds the rules of event type i
} RuleMgr;

static_assert(sizeof(RuleMgr) <= 0xFFFF, "the record's size fits its 16-bit Size");

// Both always succeed; a second start or a stop of a stopped manager changes nothing.
NTSTATUS sk_InitRuleMgr(RuleMgr *Mgr);
NTSTATUS sk_UninitRuleMgr(RuleMgr *Mgr);
// Converts Pattern as its event type needs and adds it. STATUS_INSUFFICIENT_RESOURCES when the
// manager is not started or the slot was closed; STATUS_INVALID_PARAMETER for an event type above
// 19, an empty pattern or one the pattern language refuses; a path that cannot be converted gives
// the status of its open.
NTSTATUS sk_AddRule(RuleMgr *Mgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern);
// STATUS_SUCCESS when Path matches a rule of the event type, STATUS_NOT_FOUND when not (also when
// the type has no rules or its slot was closed), STATUS_INSUFFICIENT_RESOURCES when the manager is
// not started, STATUS_INVALID_PARAMETER for an event type above 19 or no path.
NTSTATUS sk_MatchRule(RuleMgr *Mgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Path);
// Deletes the rules of every slot that has some and closes those slots; slots that never had a
// rule stay open. Waits for the adds and matches in progress in the slots it closes.
VOID sk_DelAllRule(RuleMgr *Mgr);
