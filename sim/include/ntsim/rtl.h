// Run-time library: counted strings, lists, generic-table comparison results, debugger output.
#pragma once

#include "ntsim/status.h"

NTSIM_BEGIN_DECLS

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
// With AllocateDestinationString the buffer comes from paged pool (RtlFreeAnsiString frees it).
NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString);
VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString);
NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                    BOOLEAN CaseInSensitive);
LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                   BOOLEAN CaseInSensitive);
BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                     BOOLEAN CaseInSensitive);
WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);

// String hashes. The default algorithm is X65599: h = h * 65599 + c over the characters, from 0,
// each character upcased first when CaseInSensitive; the values are the kernel's own.
#define HASH_STRING_ALGORITHM_DEFAULT 0
#define HASH_STRING_ALGORITHM_X65599 1
#define HASH_STRING_ALGORITHM_INVALID 0xffffffff
NTSTATUS NTAPI RtlHashUnicodeString(PCUNICODE_STRING String, BOOLEAN CaseInSensitive, ULONG HashAlgorithm,
                                    PULONG HashValue);

// Debugger output: formats with the Windows printf rules (%wZ, %ws, %S, %p, l is 32 bits).
ULONG DbgPrint(PCSTR Format, ...);
int _snwprintf(WCHAR *Buffer, SIZE_T Count, const WCHAR *Format, ...);
int _vsnwprintf(WCHAR *Buffer, SIZE_T Count, const WCHAR *Format, va_list ArgList);
int _snprintf(char *Buffer, SIZE_T Count, const char *Format, ...);

// A system time as seconds since 1970 (or 1980); FALSE when it lies outside what 32 bits hold.
BOOLEAN NTAPI RtlTimeToSecondsSince1970(PLARGE_INTEGER Time, PULONG ElapsedSeconds);
BOOLEAN NTAPI RtlTimeToSecondsSince1980(PLARGE_INTEGER Time, PULONG ElapsedSeconds);

NTSIM_END_DECLS

// Doubly linked lists, as the DDK's inline routines.
static inline VOID InitializeListHead(PLIST_ENTRY ListHead) {
  ListHead->Flink = ListHead->Blink = ListHead;
}
static inline BOOLEAN IsListEmpty(const LIST_ENTRY *ListHead) {
  return (BOOLEAN)(ListHead->Flink == ListHead);
}
static inline BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
  PLIST_ENTRY Flink = Entry->Flink;
  PLIST_ENTRY Blink = Entry->Blink;
  Blink->Flink = Flink;
  Flink->Blink = Blink;
  return (BOOLEAN)(Flink == Blink);
}
static inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
  PLIST_ENTRY Entry = ListHead->Flink;
  RemoveEntryList(Entry);
  return Entry;
}
static inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead) {
  PLIST_ENTRY Entry = ListHead->Blink;
  RemoveEntryList(Entry);
  return Entry;
}
static inline VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
  PLIST_ENTRY Blink = ListHead->Blink;
  Entry->Flink = ListHead;
  Entry->Blink = Blink;
  Blink->Flink = Entry;
  ListHead->Blink = Entry;
}
static inline VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
  PLIST_ENTRY Flink = ListHead->Flink;
  Entry->Flink = Flink;
  Entry->Blink = ListHead;
  Flink->Blink = Entry;
  ListHead->Flink = Entry;
}

// Results of a generic table's comparison routine.
typedef enum _RTL_GENERIC_COMPARE_RESULTS {
  GenericLessThan,
  GenericGreaterThan,
  GenericEqual
} RTL_GENERIC_COMPARE_RESULTS;

// The AVL generic table itself comes with the managers that keep tables.
typedef struct _RTL_AVL_TABLE RTL_AVL_TABLE, *PRTL_AVL_TABLE;
