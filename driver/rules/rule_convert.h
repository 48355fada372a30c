// The conversion of a rule pattern into the form of the paths its event type carries.
#pragma once

#include "platform/nt.h"
#include "sentrel/event_types.h"

// *Converted is a new string block with the converted pattern, or null when the pattern is used as
// it stands (a suffix pattern, or one of an event type whose paths keep their form and that does
// not begin with \SystemRoot). Process creation, remote threads, process access and file creation
// compare NT paths: a pattern naming a file or folder becomes that object's NT path, which needs
// it to exist; \SystemRoot\...* becomes the system root's NT path with the rest. Every other event
// type only has a leading \SystemRoot replaced by the system root's DOS path.
NTSTATUS sk_ConvertRulePattern(SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern, PUNICODE_STRING *Converted);
