// The black rule set: its start and stop, and its built-in rules, among them the per-user registry
// rules made for every user hive loaded at start-up.
#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "names/string_block.h"
#include "rules/default_rules.h"
#include "rules/rule_sets.h"

#define SK_MODULE SK_TRACE_BLACKRULE

#define SK_USER_HIVE_INFO_SIZE 4096
#define SK_USER_HIVE_RULE_CAPACITY 8192

static const UNICODE_STRING SkCurrentUserName = SK_CONSTANT_STRING(L"HKEY_CURRENT_USER");
static const UNICODE_STRING SkCurrentConfigName = SK_CONSTANT_STRING(L"HKEY_CURRENT_CONFIG");
static const UNICODE_STRING SkClassesSuffix = SK_CONSTANT_STRING(L"_Classes");

// The line after each black rule. It goes to the debugger whatever the levels are, so that the
// built-in black set can always be read back from a start-up's output.
static VOID sk_PrintBlackRuleAdd(SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern, NTSTATUS Status) {
  if (NT_SUCCESS(Status)) {
    DbgPrint("Add %S Rule %wZ Success\n", sk_EventTypeWideName(EventType), Pattern);
  } else {
    DbgPrint("Add %S Rule %wZ fail Status:%08lx\n", sk_EventTypeWideName(EventType), Pattern, Status);
  }
}

NTSTATUS sk_AddBlackRule(RuleMgr *BlackRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_AddRule(BlackRuleMgr, EventType, Pattern);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_MatchBlackRule(RuleMgr *BlackRuleMgr, SK_EVENT_TYPE EventType, PCUNICODE_STRING Path) {
  NTSTATUS status;
  SK_ENTER();
  status = sk_MatchRule(BlackRuleMgr, EventType, Path);
  if (NT_SUCCESS(status)) SK_INFO("Match Black Rule [%d][%wZ]\n", EventType, Path);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_AddBlackRuleArray(RuleMgr *BlackRuleMgr, SK_EVENT_TYPE EventType, const PCWSTR *Array, ULONG Count) {
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  UNICODE_STRING pattern;
  ULONG i;

  PAGED_CODE();
  SK_ENTER();
  if (!Array || Count == 0) {
    SK_ERROR("Invalid Parameter\n");
    goto Exit;
  }
  for (i = 0; i < Count; ++i) {
    if (!Array[i]) continue;
    RtlInitUnicodeString(&pattern, Array[i]);
    status = sk_AddRule(BlackRuleMgr, EventType, &pattern);
    sk_PrintBlackRuleAdd(EventType, &pattern, status);
  }
Exit:
  SK_LEAVE(status);
  return status;
}

// TRUE for the name of a user's classes hive: longer than "_Classes" and ending with it.
static BOOLEAN sk_IsClassesHive(PCUNICODE_STRING Name) {
  UNICODE_STRING tail;
  if (Name->Length <= SkClassesSuffix.Length) return FALSE;
  tail.Buffer = Name->Buffer + (Name->Length - SkClassesSuffix.Length) / sizeof(WCHAR);
  tail.Length = tail.MaximumLength = SkClassesSuffix.Length;
  return RtlEqualUnicodeString(&tail, &SkClassesSuffix, TRUE);
}

// Makes the rules of every template for one hive, "\Registry\User\<Hive>\" followed by what
// comes behind HKEY_CURRENT_USER or HKEY_CURRENT_CONFIG; the doubled backslash this gives adds no
// component. Each template's rule is composed afresh in Rule.
static VOID sk_AddHiveRules(RuleMgr *BlackRuleMgr, PCUNICODE_STRING Hive, PUNICODE_STRING Rule) {
  static const SK_EVENT_TYPE Types[] = {ET_REGISTRY_KEY_CREATE, ET_REGISTRY_KEY_MODIFY, ET_REGISTRY_VALUE_CREATE,
                                        ET_REGISTRY_VALUE_MODIFY};
  UNICODE_STRING text;
  UNICODE_STRING rest;
  PCUNICODE_STRING word;
  NTSTATUS status;
  ULONG i;
  ULONG t;

  for (i = 0; i < SK_DEFAULT_USER_HIVE_TEMPLATES; ++i) {
    RtlInitUnicodeString(&text, SkDefaultUserHiveTemplates[i]);
    if (RtlPrefixUnicodeString(&SkCurrentUserName, &text, TRUE)) {
      word = &SkCurrentUserName;
    } else if (RtlPrefixUnicodeString(&SkCurrentConfigName, &text, TRUE)) {
      word = &SkCurrentConfigName;
    } else {
      continue;
    }
    rest.Buffer = text.Buffer + word->Length / sizeof(WCHAR);
    rest.Length = rest.MaximumLength = (USHORT)(text.Length - word->Length);
    Rule->Length = 0;
    status = RtlAppendUnicodeToString(Rule, L"\\Registry\\User\\");
    if (NT_SUCCESS(status)) status = RtlAppendUnicodeStringToString(Rule, Hive);
    if (NT_SUCCESS(status)) status = RtlAppendUnicodeToString(Rule, L"\\");
    if (NT_SUCCESS(status)) status = RtlAppendUnicodeStringToString(Rule, &rest);
    if (!NT_SUCCESS(status)) {
      // Cannot happen with names that fit the key-information buffer; said, not hidden, if it does.
      SK_ERROR("User Hive Rule too long:%wZ\n", Hive);
      continue;
    }
    for (t = 0; t < RTL_NUMBER_OF(Types); ++t) {
      status = sk_AddBlackRule(BlackRuleMgr, Types[t], Rule);
      sk_PrintBlackRuleAdd(Types[t], Rule, status);
    }
  }
}

NTSTATUS sk_AddUserHiveBlackRule(RuleMgr *BlackRuleMgr) {
  NTSTATUS status;
  PKEY_BASIC_INFORMATION info = NULL;
  PUNICODE_STRING rule = NULL;
  UNICODE_STRING usersPath;
  UNICODE_STRING hive;
  OBJECT_ATTRIBUTES attributes;
  HANDLE users = NULL;
  ULONG index;
  ULONG resultLength;

  PAGED_CODE();
  SK_ENTER();
  info = (PKEY_BASIC_INFORMATION)ExAllocatePoolWithTag(PagedPool, SK_USER_HIVE_INFO_SIZE, SK_TAG_USER_HIVE_INFO);
  if (!info) {
    SK_ERROR("KeyInformation alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  rule = skt_AllocateUnicodeStringSelf(PagedPool, SK_USER_HIVE_RULE_CAPACITY);
  if (!rule) {
    SK_ERROR("UserHiveRule alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }

  RtlInitUnicodeString(&usersPath, L"\\Registry\\User");
  InitializeObjectAttributes(&attributes, &usersPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
  status = ZwOpenKey(&users, KEY_ENUMERATE_SUB_KEYS, &attributes);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ZwOpenKey", status);
    users = NULL;
    goto Exit;
  }
  for (index = 0;; ++index) {
    status = ZwEnumerateKey(users, index, KeyBasicInformation, info, SK_USER_HIVE_INFO_SIZE, &resultLength);
    if (status == STATUS_NO_MORE_ENTRIES) break;
    if (status != STATUS_SUCCESS) continue;  // a name too long for the buffer, among others: skipped
    hive.Buffer = info->Name;
    hive.Length = hive.MaximumLength = (USHORT)info->NameLength;
    if (sk_IsClassesHive(&hive)) continue;
    sk_AddHiveRules(BlackRuleMgr, &hive, rule);
  }
Exit:
  if (users) ZwClose(users);
  if (rule) skt_FreeUnicodeStringSelf(rule);
  if (info) ExFreePoolWithTag(info, SK_TAG_USER_HIVE_INFO);
  SK_LEAVE(status);
  return status;
}

// The summary line after each list.
static VOID sk_PrintBlackListAdd(SK_EVENT_TYPE EventType, NTSTATUS Status) {
  if (NT_SUCCESS(Status)) {
    SK_INFO("Add %S Rule Success\n", sk_EventTypeWideName(EventType));
  } else {
    SK_ERROR("Add %S Rule fail Status:%08lx\n", sk_EventTypeWideName(EventType), Status);
  }
}

NTSTATUS sk_AddDefauleBlackRule(RuleMgr *BlackRuleMgr) {
  static const SK_EVENT_TYPE RegistryTypes[] = {ET_REGISTRY_KEY_CREATE, ET_REGISTRY_KEY_MODIFY,
                                                ET_REGISTRY_VALUE_CREATE, ET_REGISTRY_VALUE_MODIFY};
  NTSTATUS status;
  ULONG t;

  PAGED_CODE();
  SK_ENTER();
  SK_INFO("[sk_AddDefauleBlackRule] Add Default Black Rule\n");
  sk_AddUserHiveBlackRule(BlackRuleMgr);
  status = sk_AddBlackRuleArray(BlackRuleMgr, ET_PROCESS_CREATE, SkDefaultBlackProgramRules,
                                SK_DEFAULT_BLACK_PROGRAM_RULES);
  sk_PrintBlackListAdd(ET_PROCESS_CREATE, status);
  status = sk_AddBlackRuleArray(BlackRuleMgr, ET_IMAGE_LOAD, SkDefaultBlackDllRules, SK_DEFAULT_BLACK_DLL_RULES);
  sk_PrintBlackListAdd(ET_IMAGE_LOAD, status);
  for (t = 0; t < RTL_NUMBER_OF(RegistryTypes); ++t) {
    status = sk_AddBlackRuleArray(BlackRuleMgr, RegistryTypes[t], SkDefaultBlackRegistryRules,
                                  SK_DEFAULT_BLACK_REGISTRY_RULES);
    sk_PrintBlackListAdd(RegistryTypes[t], status);
  }
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_InitBlackRuleMgr(void) {
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  // A second start keeps the rules of the first rather than adding the lists again.
  if (SentrelData.BlackRuleMgr.Flags & SK_RULE_MGR_INITED) {
    SK_INFO("Black Rule Mgr Already Inited\n");
    goto Exit;
  }
  status = sk_InitRuleMgr(&SentrelData.BlackRuleMgr);
  if (NT_SUCCESS(status)) sk_AddDefauleBlackRule(&SentrelData.BlackRuleMgr);
Exit:
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_UninitBlackRuleMgr(RuleMgr *BlackRuleMgr) {
  NTSTATUS status;
  PAGED_CODE();
  SK_ENTER();
  status = sk_UninitRuleMgr(BlackRuleMgr);
  SK_LEAVE(status);
  return status;
}
