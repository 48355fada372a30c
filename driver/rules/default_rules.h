// The built-in rule lists of the black and white rule sets.
#pragma once

#include "platform/nt.h"
#include "sentrel/event_types.h"

#define SK_DEFAULT_BLACK_PROGRAM_RULES 84    // ET_PROCESS_CREATE, all suffix patterns
#define SK_DEFAULT_BLACK_DLL_RULES 5         // ET_IMAGE_LOAD, all suffix patterns
#define SK_DEFAULT_BLACK_REGISTRY_RULES 202  // each of the four registry event types
#define SK_DEFAULT_USER_HIVE_TEMPLATES 63    // each of the four registry event types, per user hive
#define SK_DEFAULT_WHITE_RULES 36

typedef struct _SK_DEFAULT_WHITE_RULE {
  SK_EVENT_TYPE EventType;
  PCWSTR Pattern;
} SK_DEFAULT_WHITE_RULE;

extern const PCWSTR SkDefaultBlackProgramRules[SK_DEFAULT_BLACK_PROGRAM_RULES];
extern const PCWSTR SkDefaultBlackDllRules[SK_DEFAULT_BLACK_DLL_RULES];
extern const PCWSTR SkDefaultBlackRegistryRules[SK_DEFAULT_BLACK_REGISTRY_RULES];
extern const PCWSTR SkDefaultUserHiveTemplates[SK_DEFAULT_USER_HIVE_TEMPLATES];
extern const SK_DEFAULT_WHITE_RULE SkDefaultWhiteRules[SK_DEFAULT_WHITE_RULES];
