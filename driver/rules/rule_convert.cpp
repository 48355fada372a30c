#include "rules/rule_convert.h"

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "names/path_convert.h"
#include "names/string_block.h"

#define SK_MODULE SK_TRACE_RULE

static const UNICODE_STRING SkSystemRootName = SK_CONSTANT_STRING(L"\\SystemRoot");

static BOOLEAN sk_ComparesNtPaths(SK_EVENT_TYPE EventType) {
  return EventType == ET_PROCESS_CREATE || EventType == ET_REMOTE_THREAD_CREATE || EventType == ET_PROCESS_ACCESS ||
         EventType == ET_FILE_CREATE;
}

// Root followed by what comes behind "\SystemRoot" in Pattern, as a block of exactly that size.
static NTSTATUS sk_ReplaceSystemRoot(PCUNICODE_STRING Root, PCUNICODE_STRING Pattern, PUNICODE_STRING *Converted) {
  UNICODE_STRING rest;
  PUNICODE_STRING joined;

  rest.Buffer = Pattern->Buffer + SkSystemRootName.Length / sizeof(WCHAR);
  rest.Length = rest.MaximumLength = (USHORT)(Pattern->Length - SkSystemRootName.Length);
  if ((ULONG)Root->Length + rest.Length > 0xFFFE) {
    SK_ERROR("NtPathRule alloc fail Status:%08lx\n", STATUS_NAME_TOO_LONG);
    return STATUS_NAME_TOO_LONG;
  }
  joined = skt_AllocateUnicodeStringSelf(PagedPool, (ULONG)Root->Length + rest.Length);
  if (!joined) {
    SK_ERROR("NtPathRule alloc fail Status:%08lx\n", STATUS_INSUFFICIENT_RESOURCES);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlCopyUnicodeString(joined, Root);
  RtlAppendUnicodeStringToString(joined, &rest);
  *Converted = joined;
  return STATUS_SUCCESS;
}

// The NT path of a file or folder pattern: opened as a folder first, then as anything.
static NTSTATUS sk_QueryNtPattern(PCUNICODE_STRING Pattern, PUNICODE_STRING *Converted) {
  UNICODE_STRING path = *Pattern;
  NTSTATUS status = skt_QueryNtPath(&path, TRUE, Converted);
  if (!NT_SUCCESS(status)) status = skt_QueryNtPath(&path, FALSE, Converted);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_QueryNtPath", status);
    *Converted = NULL;
  }
  return status;
}

// The NT path of the folder a "...\*" pattern names, followed by "\*". skt_QueryNtPath leaves room
// behind the path for the two characters.
static NTSTATUS sk_QueryNtFolderPattern(PCUNICODE_STRING Pattern, PUNICODE_STRING *Converted) {
  UNICODE_STRING folder = *Pattern;
  PUNICODE_STRING nt = NULL;
  NTSTATUS status;

  folder.Length -= sizeof(WCHAR);
  folder.MaximumLength = folder.Length;
  status = skt_QueryNtPath(&folder, TRUE, &nt);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_QueryNtPath", status);
    return status;
  }
  if (nt->Length < sizeof(WCHAR) || nt->Buffer[nt->Length / sizeof(WCHAR) - 1] != L'\\') {
    RtlAppendUnicodeToString(nt, L"\\");
  }
  RtlAppendUnicodeToString(nt, L"*");
  *Converted = nt;
  return STATUS_SUCCESS;
}

NTSTATUS sk_ConvertRulePattern(SK_EVENT_TYPE EventType, PCUNICODE_STRING Pattern, PUNICODE_STRING *Converted) {
  NTSTATUS status = STATUS_SUCCESS;
  USHORT chars = Pattern->Length / sizeof(WCHAR);
  BOOLEAN starred = chars > 0 && Pattern->Buffer[chars - 1] == L'*';
  BOOLEAN underSystemRoot = RtlPrefixUnicodeString(&SkSystemRootName, Pattern, TRUE);

  *Converted = NULL;
  if (chars == 0 || Pattern->Buffer[0] == L'*') return STATUS_SUCCESS;  // suffix patterns stay as they are
  if (sk_ComparesNtPaths(EventType)) {
    SK_INFO("Convert DosPath Rule To NtPath Rule\n");
    if (!starred) {
      status = sk_QueryNtPattern(Pattern, Converted);
    } else if (underSystemRoot) {
      status = sk_ReplaceSystemRoot(SentrelData.SystemRootNtPath, Pattern, Converted);
    } else {
      status = sk_QueryNtFolderPattern(Pattern, Converted);
    }
  } else if (underSystemRoot) {
    // Without a drive letter for the system volume no DOS path lies below the system root, so such
    // a rule could never match: it is refused rather than kept in a form no event has.
    if (!SentrelData.SystemRootDosPath) {
      SK_ERROR("SystemRootDosPath null\n");
      return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    status = sk_ReplaceSystemRoot(SentrelData.SystemRootDosPath, Pattern, Converted);
  }
  if (NT_SUCCESS(status) && *Converted) SK_INFO("%wZ -> %wZ\n", Pattern, *Converted);
  return status;
}
