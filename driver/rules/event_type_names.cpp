// The event types' names as wide strings: the debugger prints them with %S.
#include "rules/rule_sets.h"

#define SK_WIDE_EVENT_TYPE_NAME(Name) L"" #Name,

PCWSTR sk_EventTypeWideName(SK_EVENT_TYPE EventType) {
  static const PCWSTR Names[SK_EVENT_TYPE_SLOTS] = {SK_FOR_EACH_EVENT_TYPE(SK_WIDE_EVENT_TYPE_NAME) L""};
  return EventType < SK_EVENT_TYPE_SLOTS ? Names[EventType] : L"";
}
