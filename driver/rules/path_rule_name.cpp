// The pattern language's two string tools: the check of a pattern and the split of a path from its
// end. Both only read the string they are given.
#include "rules/path_rule.h"

NTSTATUS skt_CheckPathRule(PCUNICODE_STRING Pattern, BOOLEAN *IsSuffix) {
  USHORT chars;
  USHORT i;

  *IsSuffix = FALSE;
  if (!Pattern || !Pattern->Buffer) return STATUS_INVALID_PARAMETER;
  chars = Pattern->Length / sizeof(WCHAR);
  if (chars == 0) return STATUS_INVALID_PARAMETER;
  if (Pattern->Buffer[0] == L'*') {
    *IsSuffix = TRUE;
    return STATUS_SUCCESS;
  }
  // Only one star can be at the last index, so any star before it is refused.
  for (i = 0; i + 1 < chars; ++i) {
    if (Pattern->Buffer[i] == L'*') return STATUS_INVALID_PARAMETER;
  }
  return STATUS_SUCCESS;
}

VOID skt_DissectLastName(PCUNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName) {
  USHORT chars = Path->Length / sizeof(WCHAR);
  USHORT end;  // one past the last character of the first name
  USHORT i;

  FirstName->Length = FirstName->MaximumLength = 0;
  FirstName->Buffer = NULL;
  RemainingName->Length = RemainingName->MaximumLength = 0;
  RemainingName->Buffer = NULL;
  if (chars == 0 || (chars == 1 && Path->Buffer[0] == L'\\')) return;

  end = Path->Buffer[chars - 1] == L'\\' ? (USHORT)(chars - 1) : chars;
  for (i = end; i > 1; --i) {
    if (Path->Buffer[i - 1] == L'\\') break;
  }
  // i - 1 is the separator's index when one was found above index 0.
  if (i > 1) {
    FirstName->Buffer = Path->Buffer + i;
    FirstName->Length = FirstName->MaximumLength = (USHORT)((end - i) * sizeof(WCHAR));
    RemainingName->Buffer = Path->Buffer;
    RemainingName->Length = RemainingName->MaximumLength = (USHORT)((i - 1) * sizeof(WCHAR));
  } else {
    FirstName->Buffer = Path->Buffer;
    FirstName->Length = FirstName->MaximumLength = (USHORT)(end * sizeof(WCHAR));
  }
}

VOID skt_DissectFirstName(PCUNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName) {
  USHORT chars = Path->Length / sizeof(WCHAR);
  USHORT start = (chars > 0 && Path->Buffer[0] == L'\\') ? 1 : 0;
  USHORT end = start;  // one past the last character of the first name

  while (end < chars && Path->Buffer[end] != L'\\') ++end;
  // An empty first name still points into a path that has characters, as the kernel's does.
  FirstName->Buffer = chars > 0 ? Path->Buffer + start : NULL;
  FirstName->Length = FirstName->MaximumLength = (USHORT)((end - start) * sizeof(WCHAR));
  // Only the one backslash after the first name goes; the rest is left as it is.
  RemainingName->Buffer = end + 1 < chars ? Path->Buffer + end + 1 : NULL;
  RemainingName->Length = RemainingName->MaximumLength =
      end + 1 < chars ? (USHORT)((chars - end - 1) * sizeof(WCHAR)) : 0;
}
