// Counted-string routines of the run-time library.
#include "kernel.h"

namespace {

constexpr ULONG kRtlStringTag = 0x67727453;  // "Strg"

size_t WideLength(PCWSTR s) {
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

}  // namespace

// The kernel's upcase table for the ranges that file, registry and device names use: ASCII,
// Latin-1, Latin Extended-A, Greek and Cyrillic. The comparisons and hashes below use it directly,
// as the kernel's use its table, rather than calling the exported routine for every character.
static inline WCHAR Upcase(WCHAR c) {
  if (c < 'a') return c;
  if (c <= 'z') return static_cast<WCHAR>(c - 0x20);
  if (c < 0xE0) return c == 0xB5 ? 0x39C : c;
  if (c <= 0xFE) return c == 0xF7 ? c : static_cast<WCHAR>(c - 0x20);
  if (c == 0xFF) return 0x178;
  if (c >= 0x100 && c <= 0x17F) {
    if (c == 0x131 || c == 0x138 || c == 0x149 || c == 0x17F) return c;
    bool oddUpper = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
    if (oddUpper) return (c & 1) ? c : static_cast<WCHAR>(c - 1);
    return (c & 1) ? static_cast<WCHAR>(c - 1) : c;
  }
  if (c >= 0x3B1 && c <= 0x3CB && c != 0x3C2) return static_cast<WCHAR>(c - 0x20);
  if (c >= 0x430 && c <= 0x44F) return static_cast<WCHAR>(c - 0x20);
  if (c >= 0x450 && c <= 0x45F) return static_cast<WCHAR>(c - 0x50);
  if (c >= 0xFF41 && c <= 0xFF5A) return static_cast<WCHAR>(c - 0x20);
  return c;
}

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR c) { return Upcase(c); }

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
  if (!SourceString) {
    DestinationString->Length = DestinationString->MaximumLength = 0;
    DestinationString->Buffer = nullptr;
    return;
  }
  size_t bytes = WideLength(SourceString) * sizeof(WCHAR);
  if (bytes > 0xFFFC) bytes = 0xFFFC;
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
  DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
  if (!SourceString) {
    DestinationString->Length = DestinationString->MaximumLength = 0;
    DestinationString->Buffer = nullptr;
    return;
  }
  size_t bytes = strlen(SourceString);
  if (bytes > 0xFFFE) bytes = 0xFFFE;
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + 1);
  DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
  if (!SourceString) {
    DestinationString->Length = 0;
    return;
  }
  USHORT bytes = SourceString->Length < DestinationString->MaximumLength ? SourceString->Length
                                                                          : DestinationString->MaximumLength;
  memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
  DestinationString->Length = bytes;
  if (bytes + sizeof(WCHAR) <= DestinationString->MaximumLength) {
    DestinationString->Buffer[bytes / sizeof(WCHAR)] = 0;
  }
}

static NTSTATUS Append(PUNICODE_STRING Destination, PCWSTR source, size_t bytes) {
  if (bytes == 0) return STATUS_SUCCESS;
  if (Destination->Length + bytes > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
  memmove(reinterpret_cast<char*>(Destination->Buffer) + Destination->Length, source, bytes);
  Destination->Length = static_cast<USHORT>(Destination->Length + bytes);
  if (Destination->Length + sizeof(WCHAR) <= Destination->MaximumLength) {
    Destination->Buffer[Destination->Length / sizeof(WCHAR)] = 0;
  }
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
  if (!Source) return STATUS_SUCCESS;
  return Append(Destination, Source, WideLength(Source) * sizeof(WCHAR));
}

NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
  return Append(Destination, Source->Buffer, Source->Length);
}

LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
  size_t n1 = String1->Length / sizeof(WCHAR);
  size_t n2 = String2->Length / sizeof(WCHAR);
  size_t n = n1 < n2 ? n1 : n2;
  for (size_t i = 0; i < n; ++i) {
    WCHAR a = String1->Buffer[i];
    WCHAR b = String2->Buffer[i];
    if (CaseInSensitive) {
      a = Upcase(a);
      b = Upcase(b);
    }
    if (a != b) return static_cast<LONG>(a) - static_cast<LONG>(b);
  }
  return static_cast<LONG>(n1) - static_cast<LONG>(n2);
}

BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
  if (String1->Length != String2->Length) return FALSE;
  return RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

// Callable up to APC_LEVEL; a null string or result, or an algorithm other than the default and
// X65599 (which are the same today), is STATUS_INVALID_PARAMETER.
NTSTATUS NTAPI RtlHashUnicodeString(PCUNICODE_STRING String, BOOLEAN CaseInSensitive, ULONG HashAlgorithm,
                                    PULONG HashValue) {
  if (KeGetCurrentIrql() > APC_LEVEL) ntsim::K().verifier.Violation("RtlHashUnicodeString", "called above APC_LEVEL");
  if (!String || !HashValue) return STATUS_INVALID_PARAMETER;
  if (HashAlgorithm != HASH_STRING_ALGORITHM_DEFAULT && HashAlgorithm != HASH_STRING_ALGORITHM_X65599) {
    return STATUS_INVALID_PARAMETER;
  }
  ULONG hash = 0;
  size_t chars = String->Length / sizeof(WCHAR);
  for (size_t i = 0; i < chars; ++i) {
    WCHAR c = String->Buffer[i];
    hash = hash * 65599u + (CaseInSensitive ? Upcase(c) : c);
  }
  *HashValue = hash;
  return STATUS_SUCCESS;
}

BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
  if (String1->Length > String2->Length) return FALSE;
  UNICODE_STRING head = *String2;
  head.Length = String1->Length;
  return RtlCompareUnicodeString(String1, &head, CaseInSensitive) == 0;
}

// The system's ANSI code page here is plain ASCII: a character it cannot represent becomes '?'.
NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString) {
  size_t chars = SourceString->Length / sizeof(WCHAR);
  if (chars + 1 > 0xFFFF) return STATUS_INVALID_PARAMETER_2;
  NTSTATUS status = STATUS_SUCCESS;
  if (AllocateDestinationString) {
    DestinationString->MaximumLength = static_cast<USHORT>(chars + 1);
    DestinationString->Buffer = static_cast<PCHAR>(
        ntsim::K().pool.Allocate(PagedPool, chars + 1, kRtlStringTag, "RtlUnicodeStringToAnsiString"));
    if (!DestinationString->Buffer) return STATUS_NO_MEMORY;
  } else if (DestinationString->MaximumLength <= chars) {
    // What fits is converted, with its terminator where there is room for one.
    status = STATUS_BUFFER_OVERFLOW;
    chars = DestinationString->MaximumLength;
  }
  for (size_t i = 0; i < chars; ++i) {
    WCHAR c = SourceString->Buffer[i];
    DestinationString->Buffer[i] = c < 0x80 ? static_cast<CHAR>(c) : '?';
  }
  if (chars < DestinationString->MaximumLength) DestinationString->Buffer[chars] = 0;
  DestinationString->Length = static_cast<USHORT>(chars);
  return status;
}

VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString) {
  if (AnsiString->Buffer) ntsim::K().pool.Free(AnsiString->Buffer, 0, false, "RtlFreeAnsiString");
  AnsiString->Buffer = nullptr;
  AnsiString->Length = AnsiString->MaximumLength = 0;
}
