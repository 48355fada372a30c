#include "monitor/package_pack.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "monitor/package_block.h"

#define SK_MODULE SK_TRACE_PACKAGE

static ULONG sk_SumCapped(PSK_PACK_STRING Strings, ULONG Count, ULONG Cap) {
  ULONG sum = 0, i;
  for (i = 0; i < Count; ++i) sum += Strings[i].Length < Cap ? Strings[i].Length : Cap;
  return sum;
}

BOOLEAN sk_FitPackStrings(PSK_PACK_STRING Strings, ULONG Count, ULONG Budget) {
  ULONG low = 0, high = 0, i;

  for (i = 0; i < Count; ++i) {
    if (!Strings[i].Buffer) Strings[i].Length = 0;
    if (Strings[i].Length > high) high = Strings[i].Length;
  }
  if (sk_SumCapped(Strings, Count, high) <= Budget) return FALSE;
  // The largest even cap whose capped sum fits: sum(low) fits, sum(high) does not.
  high &= ~1u;
  while (high - low > 2) {
    ULONG middle = (low + (high - low) / 2) & ~1u;
    if (sk_SumCapped(Strings, Count, middle) <= Budget) low = middle;
    else high = middle;
  }
  for (i = 0; i < Count; ++i) {
    ULONG length = Strings[i].Length;
    if (length <= low) continue;
    length = low;
    // A high surrogate whose low half was cut off goes too.
    if (length >= sizeof(WCHAR) && Strings[i].Buffer[length / sizeof(WCHAR) - 1] >= 0xD800 &&
        Strings[i].Buffer[length / sizeof(WCHAR) - 1] <= 0xDBFF) {
      length -= sizeof(WCHAR);
    }
    Strings[i].Length = length;
  }
  return TRUE;
}

ULONG sk_PutPackStrings(PUCHAR Package, ULONG Offset, PSK_PACK_STRING Strings, ULONG Count) {
  ULONG i;
  for (i = 0; i < Count; ++i) {
    if (!Strings[i].Buffer || !Strings[i].Length) continue;
    Strings[i].Ref->Offset = (USHORT)Offset;
    Strings[i].Ref->Length = (USHORT)Strings[i].Length;
    RtlCopyMemory(Package + Offset, Strings[i].Buffer, Strings[i].Length);
    Offset += Strings[i].Length;
  }
  return Offset;
}

VOID sk_SetPackString(PSK_PACK_STRING String, PCUNICODE_STRING Source) {
  String->Buffer = Source ? Source->Buffer : NULL;
  String->Length = Source && Source->Buffer ? Source->Length : 0;
}

VOID sk_SetPackImagePath(PSK_PACK_STRING String, PPATH_CACHE_NODE Path) {
  const WCHAR *text;
  String->Buffer = NULL;
  String->Length = 0;
  if (!Path) return;
  text = (const WCHAR *)((const UCHAR *)Path + FIELD_OFFSET(PATH_CACHE_NODE, Path));  // Length bytes
  String->Buffer = text;
  String->Length = Path->Length;
  if (Path->Length >= 4 * sizeof(WCHAR) && text[0] == L'\\' && text[1] == L'?' && text[2] == L'?' && text[3] == L'\\') {
    String->Buffer += 4;
    String->Length -= 4 * sizeof(WCHAR);
  }
}

NTSTATUS sk_PackProcessInfo(PSK_PROCESS_MGR ProcessMgr, PEPROCESS Process, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  PPROC_INFO_NODE node = NULL, creator = NULL;
  PROC_INFO_PACKAGE fixed;
  SK_PACK_STRING strings[7];
  PUCHAR package;
  ULONG length, stored, i;
  HANDLE processId = PsGetProcessId(Process);

  PAGED_CODE();
  SK_ENTER();
  status = sk_GetProcInfo(ProcessMgr, processId, PsGetProcessCreateTimeQuadPart(Process), &node);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetProcInfo", status);
    node = NULL;
    goto Exit;
  }
  if (node->CreatorCreateTime) {
    NTSTATUS found = sk_GetProcInfo(ProcessMgr, (HANDLE)(ULONG_PTR)node->CreatorProcessId, node->CreatorCreateTime,
                                    &creator);
    if (!NT_SUCCESS(found)) {
      SK_INFO("No Find Parent Process Status:%08lx\n", found);
      creator = NULL;
    }
  }

  RtlZeroMemory(&fixed, sizeof(fixed));
  // In the order the strings are stored.
  sk_SetPackImagePath(&strings[0], node->DosImagePath);
  strings[0].Ref = &fixed.ImagePath;
  sk_SetPackString(&strings[1], SK_READ_ONCE(node->CommandLine));
  strings[1].Ref = &fixed.CommandLine;
  sk_SetPackString(&strings[2], SK_READ_ONCE(node->CurrentDirectory));
  strings[2].Ref = &fixed.CurrentDirectory;
  sk_SetPackString(&strings[3], node->ImageFileName);
  strings[3].Ref = &fixed.ImageName;
  sk_SetPackImagePath(&strings[4], creator ? creator->DosImagePath : NULL);
  strings[4].Ref = &fixed.CreatorImagePath;
  sk_SetPackString(&strings[5], creator ? creator->UserName : NULL);
  strings[5].Ref = &fixed.CreatorUserName;
  sk_SetPackString(&strings[6], creator ? SK_READ_ONCE(creator->CommandLine) : NULL);
  strings[6].Ref = &fixed.CreatorCommandLine;

  // String offsets are 16-bit, and an event carries this package with two others in one ring-
  // buffer slot: a command line of tens of thousands of characters is shortened rather than the
  // process going unreported.
  for (stored = 0, i = 0; i < 7; ++i) stored += strings[i].Length;
  if (sk_FitPackStrings(strings, 7, SK_PROC_INFO_PACKAGE_MAX - sizeof(PROC_INFO_PACKAGE))) {
    ULONG kept = 0;
    for (i = 0; i < 7; ++i) kept += strings[i].Length;
    SK_WARNING("PackProcInfo Pid:%d strings shortened from 0x%x to 0x%x bytes\n", (ULONG)(ULONG_PTR)processId,
               stored, kept);
    stored = kept;
  }
  length = sizeof(PROC_INFO_PACKAGE) + stored;
  package = (PUCHAR)sk_AllocatePackage(length, SK_TAG_PROC_INFO_PACKAGE);
  if (!package) {
    SK_ERROR("NewProcInfo alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  fixed.Header.Length = length;
  fixed.Header.Type = SK_PACKAGE_PROC_INFO;
  fixed.Header.NextOffset = length;
  fixed.ProcessId = (ULONG)node->ProcessId;
  fixed.CreatorProcessId = (ULONG)node->CreatorProcessId;
  fixed.ParentProcessId = (ULONG)node->ParentProcessId;
  fixed.IntegrityLevel = node->IntegrityLevel;
  RtlCopyMemory(fixed.ProcessIdentity, node->ProcessIdentity, sizeof(fixed.ProcessIdentity));
  if (creator) RtlCopyMemory(fixed.CreatorProcessIdentity, creator->ProcessIdentity, sizeof(fixed.CreatorProcessIdentity));
  sk_PutPackStrings(package, sizeof(PROC_INFO_PACKAGE), strings, 7);
  RtlCopyMemory(package, &fixed, sizeof(fixed));
  SK_INFO("PackProcInfo:0x%p Length:0x%0x\n", package, length);
  *Package = package;
  *Length = length;
  status = STATUS_SUCCESS;
Exit:
  if (creator) sk_ReleaseProcInfo_Node(ProcessMgr, creator);
  if (node) sk_ReleaseProcInfo_Node(ProcessMgr, node);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_PackLogonInfo(PSK_LOGON_MGR LogonMgr, ULONG64 LogonId, PVOID *Package, PULONG Length) {
  NTSTATUS status;
  PLOGON_INFO_NODE node = NULL;
  LOGON_INFO_PACKAGE fixed;
  SK_PACK_STRING strings[2];
  PUCHAR package;
  ULONG length;

  PAGED_CODE();
  SK_ENTER();
  status = sk_LookupLogonInfo_LogonId(LogonMgr, LogonId, &node);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_LookupLogonInfo_LogonId", status);
    node = NULL;
    goto Exit;
  }
  RtlZeroMemory(&fixed, sizeof(fixed));
  sk_SetPackString(&strings[0], node->UserName);
  strings[0].Ref = &fixed.UserName;
  sk_SetPackString(&strings[1], node->UserSid);
  strings[1].Ref = &fixed.UserSid;
  if (sk_FitPackStrings(strings, 2, SK_LOGON_INFO_PACKAGE_MAX - sizeof(LOGON_INFO_PACKAGE))) {
    SK_WARNING("PackLogonInfo LogonId:0x%I64x strings shortened\n", LogonId);
  }
  length = sizeof(LOGON_INFO_PACKAGE) + strings[0].Length + strings[1].Length;
  package = (PUCHAR)sk_AllocatePackage(length, SK_TAG_LOGON_PACKAGE);
  if (!package) {
    SK_ERROR("Info alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  fixed.Header.Length = length;
  fixed.Header.Type = SK_PACKAGE_LOGON_INFO;
  fixed.Header.NextOffset = length;
  fixed.SessionId = node->SessionId;
  fixed.LogonIdLow = (ULONG)node->LogonId;
  fixed.LogonIdHigh = (ULONG)(node->LogonId >> 32);
  sk_PutPackStrings(package, sizeof(LOGON_INFO_PACKAGE), strings, 2);
  RtlCopyMemory(package, &fixed, sizeof(fixed));
  SK_INFO("PackLogonInfo:0x%p Length:0x%0x\n", package, length);
  *Package = package;
  *Length = length;
  status = STATUS_SUCCESS;
Exit:
  if (node) sk_ReleaseLogonInfo_Node(LogonMgr, node);
  SK_LEAVE(status);
  return status;
}
