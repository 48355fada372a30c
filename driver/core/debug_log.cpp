#include "core/debug_log.h"

#include "names/string_block.h"
#include "platform/guarded_memory.h"

#define SK_MODULE SK_TRACE_TOOL

ULONG PrintLevel = 0;
ULONG TraceLevel = 1;
ULONG TraceDepth = 0;
PUNICODE_STRING DebugKeyPath = NULL;
LARGE_INTEGER DebugCallbackCookie = {};

// Indexed by severity value; the unused slots print two blanks.
// ANSI: a line may be printed at any IRQL, and DbgPrint takes Unicode formats only at PASSIVE_LEVEL.
static const char *const SkSeverityTags[9] = {
    "  ", "[ERROR]", "[WARNING]", "  ", "[INFO]", "  ", "  ", "  ", "[EVENT_REPORT]",
};

BOOLEAN sk_LogPrefix(LONG Change, ULONG Severity, ULONG Module) {
  ULONG depth;
  if ((SK_READ_ONCE(PrintLevel) & Severity) != Severity) return FALSE;
  if ((SK_READ_ONCE(TraceLevel) & Module) != Module && Severity != SK_LEVEL_EVENT_REPORT) return FALSE;
  DbgPrint("[SK]");
  DbgPrint("%s", Severity < RTL_NUMBER_OF(SkSeverityTags) ? SkSeverityTags[Severity] : "  ");
  DbgPrint("[T:0x%p] ", (PVOID)PsGetCurrentThread());
  if (Change < 0) {
    // Lowered without a lock, as every line of every thread shares the depth; never below 0.
    LONG lowered;
    for (;;) {
      LONG old = (LONG)SK_READ_ONCE(TraceDepth);
      lowered = old + Change < 0 ? 0 : old + Change;
      if (InterlockedCompareExchange((volatile LONG *)&TraceDepth, lowered, old) == old) break;
    }
    depth = (ULONG)lowered;
  } else {
    depth = SK_READ_ONCE(TraceDepth);
  }
  DbgPrint("%*s", (int)depth, " ");
  return TRUE;
}

void sk_TraceEnter(ULONG Module, const char *Name) {
  if (sk_LogPrefix(1, SK_LEVEL_INFO, Module)) {
    DbgPrint("%s Entry\n", Name);
    InterlockedIncrement((volatile LONG *)&TraceDepth);
  }
}

void sk_TraceLeave(ULONG Module, const char *Name, NTSTATUS Status) {
  if (sk_LogPrefix(-1, SK_LEVEL_INFO, Module)) DbgPrint("%s -> %08lx\n", Name, Status);
}

void sk_TraceLeaveAddress(ULONG Module, const char *Name, PVOID Address) {
  if (sk_LogPrefix(-1, SK_LEVEL_INFO, Module)) DbgPrint("%s Address -> 0x%p\n", Name, Address);
}

// Reads one 4-byte level from the open Debug key; a value that is missing or does not fit the
// 32-byte buffer leaves the level as it is.
static void sk_ReadDebugValue(HANDLE Key, PCWSTR Name, ULONG *Level) {
  UCHAR buffer[32];
  PKEY_VALUE_PARTIAL_INFORMATION info = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
  UNICODE_STRING valueName;
  ULONG resultLength = 0;
  ULONG value;
  RtlZeroMemory(buffer, sizeof(buffer));
  RtlInitUnicodeString(&valueName, Name);
  if (!NT_SUCCESS(ZwQueryValueKey(Key, &valueName, KeyValuePartialInformation, buffer, sizeof(buffer), &resultLength))) {
    return;
  }
  RtlCopyMemory(&value, info->Data, sizeof(value));
  SK_WRITE_ONCE(*Level, value);
}

// Not traced itself: it is what decides whether anything is traced.
NTSTATUS sk_InitDebugLevel(PUNICODE_STRING RegistryPath) {
  static const WCHAR suffix[] = L"\\Debug";
  OBJECT_ATTRIBUTES attributes;
  HANDLE key = NULL;
  NTSTATUS status;

  DebugCallbackCookie.QuadPart = 0;
  DebugKeyPath = skt_AllocateUnicodeStringSelf(PagedPool, RegistryPath->Length + sizeof(suffix));
  if (!DebugKeyPath) return STATUS_INSUFFICIENT_RESOURCES;
  RtlCopyUnicodeString(DebugKeyPath, RegistryPath);
  RtlAppendUnicodeToString(DebugKeyPath, suffix);

  status = CmRegisterCallback(sk_DebugRegistryCallback, NULL, &DebugCallbackCookie);
  if (!NT_SUCCESS(status)) {
    DebugCallbackCookie.QuadPart = 0;
    skt_FreeUnicodeStringSelf(DebugKeyPath);
    DebugKeyPath = NULL;
    return status;
  }

  SK_WRITE_ONCE(PrintLevel, 0u);
  SK_WRITE_ONCE(TraceLevel, 0u);
  SK_WRITE_ONCE(TraceDepth, 0u);

  InitializeObjectAttributes(&attributes, DebugKeyPath, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
  if (NT_SUCCESS(ZwOpenKey(&key, KEY_QUERY_VALUE, &attributes))) {
    sk_ReadDebugValue(key, L"PrintLevel", &PrintLevel);
    sk_ReadDebugValue(key, L"TraceLevel", &TraceLevel);
    ZwClose(key);
  }
  return STATUS_SUCCESS;
}

NTSTATUS sk_UninitDebugLevel(void) {
  if (DebugCallbackCookie.QuadPart == 0 || !DebugKeyPath) return STATUS_INSUFFICIENT_RESOURCES;
  // Returns only when no call of the callback is running, so the key path can go afterwards.
  CmUnRegisterCallback(DebugCallbackCookie);
  DebugCallbackCookie.QuadPart = 0;
  skt_FreeUnicodeStringSelf(DebugKeyPath);
  DebugKeyPath = NULL;
  SK_WRITE_ONCE(PrintLevel, 0u);
  SK_WRITE_ONCE(TraceLevel, 0u);
  return STATUS_SUCCESS;
}

// Which level a value name selects: "PrintLevel" or "TraceLevel", in any case, or none.
static ULONG *sk_DebugLevelOf(PCUNICODE_STRING ValueName) {
  UNICODE_STRING printName, traceName;
  RtlInitUnicodeString(&printName, L"PrintLevel");
  RtlInitUnicodeString(&traceName, L"TraceLevel");
  if (RtlEqualUnicodeString(ValueName, &printName, TRUE)) return &PrintLevel;
  if (RtlEqualUnicodeString(ValueName, &traceName, TRUE)) return &TraceLevel;
  return NULL;
}

// The part of a key name under \REGISTRY\MACHINE\SYSTEM\ that follows the control set, from its
// backslash on ("\Services\Sentrel\Debug"); FALSE if the name is not of that form.
static BOOLEAN sk_ControlSetRest(PCUNICODE_STRING KeyName, PUNICODE_STRING Rest) {
  static const WCHAR systemKey[] = L"\\REGISTRY\\MACHINE\\SYSTEM\\";
  UNICODE_STRING head, prefix;
  USHORT i;
  USHORT count = KeyName->Length / sizeof(WCHAR);
  USHORT start = (USHORT)(sizeof(systemKey) / sizeof(WCHAR) - 1);

  RtlInitUnicodeString(&prefix, systemKey);
  if (KeyName->Length <= prefix.Length) return FALSE;
  head.Buffer = KeyName->Buffer;
  head.Length = head.MaximumLength = prefix.Length;
  if (!RtlEqualUnicodeString(&head, &prefix, TRUE)) return FALSE;
  i = start;
  while (i < count && KeyName->Buffer[i] != L'\\') ++i;
  if (i == start || i == count) return FALSE;  // no control set, or nothing below it
  Rest->Buffer = KeyName->Buffer + i;
  Rest->Length = Rest->MaximumLength = (USHORT)((count - i) * sizeof(WCHAR));
  return TRUE;
}

// Whether a key is the driver's own Debug key: the one under the service key the driver was started
// with, in whichever control set (the key object's name names the set itself, ControlSet001 or
// another, never the CurrentControlSet link). A key whose name merely ends in "Sentrel\Debug"
// is not enough: any user could make one in their own hive and switch the kernel's log on.
static BOOLEAN sk_IsOwnDebugKey(PCUNICODE_STRING KeyName) {
  UNICODE_STRING keyRest, ownRest;
  if (!sk_ControlSetRest(DebugKeyPath, &ownRest)) return RtlEqualUnicodeString(KeyName, DebugKeyPath, TRUE);
  return sk_ControlSetRest(KeyName, &keyRest) && RtlEqualUnicodeString(&keyRest, &ownRest, TRUE);
}

// Every field of the caller's notification is copied through the guarded copy before it is used:
// a fault in any of them leaves both levels as they were. The write itself is never blocked.
NTSTATUS sk_DebugRegistryCallback(PVOID CallbackContext, PVOID Argument1, PVOID Argument2) {
  REG_SET_VALUE_KEY_INFORMATION info;
  UNICODE_STRING valueName;
  WCHAR nameBuffer[16];
  ULONG value;
  ULONG *level;
  PUNICODE_STRING keyName = NULL;
  UNREFERENCED_PARAMETER(CallbackContext);

  if ((REG_NOTIFY_CLASS)(ULONG_PTR)Argument1 != RegNtPreSetValueKey || !Argument2) return STATUS_SUCCESS;
  if (!NT_SUCCESS(skt_SafeCopyMemory(&info, Argument2, sizeof(info)))) return STATUS_SUCCESS;
  if (!info.Object || info.DataSize != sizeof(ULONG) || !info.ValueName) return STATUS_SUCCESS;

  // Both names are ten characters; a name of any other length is neither.
  if (!NT_SUCCESS(skt_SafeCopyMemory(&valueName, info.ValueName, sizeof(valueName)))) return STATUS_SUCCESS;
  if (valueName.Length != 10 * sizeof(WCHAR) || !valueName.Buffer) return STATUS_SUCCESS;
  if (!NT_SUCCESS(skt_SafeCopyMemory(nameBuffer, valueName.Buffer, valueName.Length))) return STATUS_SUCCESS;
  valueName.Buffer = nameBuffer;
  valueName.MaximumLength = sizeof(nameBuffer);
  level = sk_DebugLevelOf(&valueName);
  if (!level) return STATUS_SUCCESS;
  if (!NT_SUCCESS(skt_SafeCopyMemory(&value, info.Data, sizeof(value)))) return STATUS_SUCCESS;

  if (!NT_SUCCESS(skt_GetNameInfo(info.Object, &keyName))) return STATUS_SUCCESS;
  if (sk_IsOwnDebugKey(keyName)) SK_WRITE_ONCE(*level, value);
  skt_FreeUnicodeStringSelf(keyName);
  return STATUS_SUCCESS;
}
