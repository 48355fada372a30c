#include "monitor/event_report.h"

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/event_packet.h"
#include "monitor/image_mgr.h"
#include "monitor/probers.h"
#include "monitor/process_query.h"
#include "names/logon_mgr.h"
#include "names/string_block.h"
#include "names/token_query.h"
#include "rules/path_rule.h"
#include "rules/rule_sets.h"

#define SK_MODULE SK_TRACE_REPORT

// A counted string over a path cache node's text.
static VOID sk_PathNodeString(PPATH_CACHE_NODE Node, PUNICODE_STRING String) {
  String->Buffer = (PWCH)((PUCHAR)Node + FIELD_OFFSET(PATH_CACHE_NODE, Path));
  String->Length = String->MaximumLength = Node->Length;
}

// A path handed over by a notification drops its "\??\" (any "\?" and the two after it).
static VOID sk_WithoutDosPrefix(PCUNICODE_STRING Path, PUNICODE_STRING Shown) {
  *Shown = *Path;
  if (Path->Length >= 4 * sizeof(WCHAR) && Path->Buffer[0] == L'\\' && Path->Buffer[1] == L'?') {
    Shown->Buffer += 4;
    Shown->Length -= 4 * sizeof(WCHAR);
    Shown->MaximumLength = Shown->Length;
  }
}

static VOID sk_AddEventString(PSK_EVENT Event, PCUNICODE_STRING Source, SK_STRING_REF *Ref) {
  PSK_PACK_STRING string = &Event->Strings[Event->StringCount++];
  sk_SetPackString(string, Source);
  string->Ref = Ref;
}

NTSTATUS sk_Report_ProcessCreateEvent(PEPROCESS Process, PPROC_INFO_NODE Node) {
  NTSTATUS status;
  UNICODE_STRING ntPath;
  PROCESS_CREATE_EVENT_DATA data;
  SK_EVENT event;
  PUCHAR packet;
  ULONG length;

  PAGED_CODE();
  SK_ENTER();
  sk_PathNodeString(Node->NtImagePath, &ntPath);
  status = sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, ET_PROCESS_CREATE, &ntPath);
  if (NT_SUCCESS(status)) {
    SK_INFO("Match White Rule,Bypass %wZ\n", &ntPath);
    goto Exit;
  }
  RtlZeroMemory(&data, sizeof(data));
  RtlZeroMemory(&event, sizeof(event));
  data.ImageType = SentrelData.PsGetProcessWow64Process(Process) ? SK_IMAGE_TYPE_WOW64 : SK_IMAGE_TYPE_NATIVE;
  event.Type = ET_PROCESS_CREATE;
  event.ProcessId = PsGetProcessId(Process);
  event.Process = Process;
  event.Data = &data;
  event.DataLength = sizeof(data);
  sk_SetPackImagePath(&event.Strings[0], Node->DosImagePath);
  event.Strings[0].Ref = &data.ImagePath;
  event.StringCount = 1;
  status = sk_BuildEventPacket(&event, &packet, &length);
  if (!NT_SUCCESS(status)) goto Exit;
  if (sk_EventReportEnabled()) {
    UNICODE_STRING shown;
    shown.Buffer = (PWCH)event.Strings[0].Buffer;
    shown.Length = shown.MaximumLength = (USHORT)event.Strings[0].Length;
    SK_PRINT(SK_LEVEL_EVENT_REPORT, "[C:0x%0x] New Process Create Pid:%d ImagePath:%wZ\n",
             (ULONG)InterlockedIncrement(&SentrelData.ProcessCreateCount), (ULONG)(ULONG_PTR)event.ProcessId,
             &shown);
  }
  sk_SendEventPacket(ET_PROCESS_CREATE, packet, length);
  status = STATUS_SUCCESS;
Exit:
  SK_LEAVE(status);
  return status;
}

USHORT sk_FormatStartOffset(PWCHAR Text, ULONG64 StartAddress, ULONG64 ImageBase) {
  static const WCHAR digits[] = L"0123456789abcdef";
  ULONG64 value = ImageBase ? (ULONG)(StartAddress - ImageBase) : StartAddress;
  WCHAR reversed[16];
  USHORT count = 0, at = 0;
  do {
    reversed[count++] = digits[value & 0xF];
    value >>= 4;
  } while (value);
  if (ImageBase) Text[at++] = L'+';
  Text[at++] = L'0';
  Text[at++] = L'x';
  while (count) Text[at++] = reversed[--count];
  return (USHORT)(at * sizeof(WCHAR));
}

NTSTATUS sk_Report_RTEvent(PEPROCESS Source, PEPROCESS Target, HANDLE SourceProcessId, HANDLE TargetProcessId,
                           HANDLE NewThreadId, ULONG64 StartAddress, ULONG64 ImageBase, ULONG64 ImageEnd,
                           PCUNICODE_STRING SourceUserName, PCUNICODE_STRING TargetUserName,
                           PCUNICODE_STRING ModuleName) {
  NTSTATUS status;
  PUNICODE_STRING targetPath = NULL;
  REMOTE_THREAD_EVENT_DATA data;
  SK_EVENT event;
  WCHAR offsetBuffer[24];
  UNICODE_STRING offsetText;
  PUCHAR packet;
  ULONG length;

  UNREFERENCED_PARAMETER(ImageEnd);
  PAGED_CODE();
  SK_ENTER();
  status = sk_GetProcImageDosPath_Process(Target, &targetPath);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetProcImageDosPath_Process", status);
    targetPath = NULL;
    goto Exit;
  }
  offsetText.Buffer = offsetBuffer;
  offsetText.Length = offsetText.MaximumLength = sk_FormatStartOffset(offsetBuffer, StartAddress, ImageBase);

  RtlZeroMemory(&data, sizeof(data));
  RtlZeroMemory(&event, sizeof(event));
  data.TargetProcessId = (ULONG)(ULONG_PTR)TargetProcessId;
  data.TargetThreadId = (ULONG)(ULONG_PTR)NewThreadId;
  data.StartAddressLow = (ULONG)StartAddress;
  data.StartAddressHigh = (ULONG)(StartAddress >> 32);
  event.Type = ET_REMOTE_THREAD_CREATE;
  event.ProcessId = SourceProcessId;
  event.Process = Source;
  event.Data = &data;
  event.DataLength = sizeof(data);
  sk_AddEventString(&event, SourceUserName, &data.SourceUserName);
  sk_AddEventString(&event, &offsetText, &data.StartOffsetText);
  sk_AddEventString(&event, ModuleName, &data.ModuleName);
  sk_AddEventString(&event, TargetUserName, &data.TargetUserName);
  sk_AddEventString(&event, targetPath, &data.TargetImagePath);
  status = sk_BuildEventPacket(&event, &packet, &length);
  if (!NT_SUCCESS(status)) goto Exit;
  if (sk_EventReportEnabled()) {
    SK_PRINT(SK_LEVEL_EVENT_REPORT, "[C:0x%0x] Remote Thread Create Src P:%d T:%d -> Target P:%d T:%d\n",
             (ULONG)InterlockedIncrement(&SentrelData.RemoteThreadCount), (ULONG)(ULONG_PTR)PsGetCurrentProcessId(),
             (ULONG)(ULONG_PTR)PsGetCurrentThreadId(), (ULONG)(ULONG_PTR)TargetProcessId,
             (ULONG)(ULONG_PTR)NewThreadId);
  }
  status = sk_SendEventPacket(ET_REMOTE_THREAD_CREATE, packet, length);
Exit:
  if (targetPath) skt_FreeUnicodeStringSelf(targetPath);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_ReportRemoteThreadEvent(PEPROCESS Source, PEPROCESS Target, HANDLE SourceThreadId, HANDLE NewThreadId) {
  NTSTATUS status;
  ULONG64 sourceLogon = 0, targetLogon = 0, imageBase = 0, imageEnd = 0;
  PLOGON_INFO_NODE sourceNode = NULL, targetNode = NULL;
  PPROC_INFO_NODE targetProc = NULL;
  PETHREAD thread = NULL;
  PVOID start = NULL;
  PUNICODE_STRING imageName = NULL;
  UNICODE_STRING unknown = SK_CONSTANT_STRING(L"unknow");
  HANDLE targetId = PsGetProcessId(Target);

  UNREFERENCED_PARAMETER(SourceThreadId);
  PAGED_CODE();
  SK_ENTER();
  status = skt_GetLogonId(Source, &sourceLogon);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("Src skt_GetLogonId", status);
    goto Exit;
  }
  status = skt_GetLogonId(Target, &targetLogon);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("Dst skt_GetLogonId", status);
    goto Exit;
  }
  status = sk_LookupLogonInfo_LogonId(&SentrelData.LogonMgr, sourceLogon, &sourceNode);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("Src sk_LookupLogonInfo_LogonId", status);
    sourceNode = NULL;
    goto Exit;
  }
  if (targetLogon != sourceLogon) {
    status = sk_LookupLogonInfo_LogonId(&SentrelData.LogonMgr, targetLogon, &targetNode);
    if (!NT_SUCCESS(status)) {
      SK_FAIL("Dst sk_LookupLogonInfo_LogonId", status);
      targetNode = NULL;
      goto Exit;
    }
  }
  status = sk_GetProcInfo(&SentrelData.ProcessMgr, targetId, PsGetProcessCreateTimeQuadPart(Target), &targetProc);
  if (!NT_SUCCESS(status)) {
    targetProc = NULL;
    goto Exit;
  }
  status = PsLookupThreadByThreadId(NewThreadId, &thread);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("Dst PsLookupThreadByThreadId", status);
    thread = NULL;
    goto Exit;
  }
  status = skt_GetThreadWin32StartAddress(thread, &start);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("Dst skt_GetThreadWin32StartAddress", status);
    goto Exit;
  }
  if (!NT_SUCCESS(sk_LookupImageInfoFromProcNode_Address(targetProc, (ULONG64)(ULONG_PTR)start, &imageBase,
                                                         &imageEnd, &imageName))) {
    imageName = NULL;
    imageBase = imageEnd = 0;
  }
  sk_Report_RTEvent(Source, Target, PsGetProcessId(Source), targetId, NewThreadId, (ULONG64)(ULONG_PTR)start,
                    imageBase, imageEnd, sourceNode->UserName, (targetNode ? targetNode : sourceNode)->UserName,
                    imageName ? imageName : &unknown);
  status = STATUS_SUCCESS;
Exit:
  if (imageName) skt_FreeUnicodeStringSelf(imageName);
  if (thread) ObDereferenceObject(thread);
  if (targetProc) sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, targetProc);
  if (targetNode) sk_ReleaseLogonInfo_Node(&SentrelData.LogonMgr, targetNode);
  if (sourceNode) sk_ReleaseLogonInfo_Node(&SentrelData.LogonMgr, sourceNode);
  SK_LEAVE(status);
  return status;
}

// From the image's PE header in the current address space: 0xC0 for an x86 or x64 DLL, 0xC1 for an
// executable of those machines, else the header's characteristics (0xFFFF when it cannot be read).
static USHORT sk_ImageLoadType(PVOID ImageBase) {
  ULONG checksum;
  USHORT machine, characteristics;
  sk_ReadImageHeaders(ImageBase, &checksum, &machine, &characteristics);
  if ((machine == 0x014C || machine == 0x8664) && (characteristics & 0x0002)) {
    return (characteristics & 0x2000) ? 0xC0 : 0xC1;
  }
  return characteristics;
}

NTSTATUS sk_ReportImageLoadEvent(PCUNICODE_STRING ImagePath, PIMAGE_INFO ImageInfo) {
  NTSTATUS status;
  UNICODE_STRING path;
  IMAGE_LOAD_EVENT_DATA data;
  SK_EVENT event;
  PUCHAR packet;
  ULONG length;

  PAGED_CODE();
  SK_ENTER();
  sk_WithoutDosPrefix(ImagePath, &path);
  RtlZeroMemory(&data, sizeof(data));
  RtlZeroMemory(&event, sizeof(event));
  event.Type = ET_IMAGE_LOAD;
  event.ProcessId = PsGetCurrentProcessId();
  event.Process = PsGetCurrentProcess();
  event.Data = &data;
  event.DataLength = sizeof(data);
  sk_AddEventString(&event, &path, &data.ImagePath);
  data.ImageType = sk_ImageLoadType(ImageInfo->ImageBase);
  status = sk_BuildEventPacket(&event, &packet, &length);
  if (!NT_SUCCESS(status)) goto Exit;
  if (sk_EventReportEnabled()) {
    SK_PRINT(SK_LEVEL_EVENT_REPORT, "[C:0x%0x] Image Load Pid:%d ImagePath:%wZ\n",
             (ULONG)InterlockedIncrement(&SentrelData.ImageLoadCount), (ULONG)(ULONG_PTR)event.ProcessId, &path);
  }
  status = sk_SendEventPacket(ET_IMAGE_LOAD, packet, length);
Exit:
  SK_LEAVE(status);
  return status;
}

// The driver's service name: its file name without ".sys" (any case), a new string block. A name
// of four characters or fewer is refused.
static NTSTATUS sk_GetServiceName(PCUNICODE_STRING ImagePath, PUNICODE_STRING *ServiceName) {
  UNICODE_STRING name, rest, suffix, sys = SK_CONSTANT_STRING(L".sys");
  skt_DissectLastName(ImagePath, &name, &rest);
  if (name.Length <= 4 * sizeof(WCHAR)) return STATUS_INSUFFICIENT_RESOURCES;
  suffix.Buffer = name.Buffer + name.Length / sizeof(WCHAR) - 4;
  suffix.Length = suffix.MaximumLength = 4 * sizeof(WCHAR);
  if (RtlEqualUnicodeString(&suffix, &sys, TRUE)) name.Length -= 4 * sizeof(WCHAR);
  *ServiceName = skt_AllocateUnicodeStringSelf(PagedPool, name.Length);
  if (!*ServiceName) return STATUS_INSUFFICIENT_RESOURCES;
  RtlCopyUnicodeString(*ServiceName, &name);
  return STATUS_SUCCESS;
}

NTSTATUS sk_ReportDriverLoadEvent(PCUNICODE_STRING ImagePath) {
  NTSTATUS status;
  UNICODE_STRING path;
  PUNICODE_STRING serviceName = NULL;
  DRIVER_LOAD_EVENT_DATA data;
  SK_EVENT event;
  PUCHAR packet;
  ULONG length;

  PAGED_CODE();
  SK_ENTER();
  sk_WithoutDosPrefix(ImagePath, &path);
  RtlZeroMemory(&data, sizeof(data));
  RtlZeroMemory(&event, sizeof(event));
  status = sk_GetDriverLoadActor(&event.Process, &event.ProcessId);
  if (!NT_SUCCESS(status)) goto Exit;
  status = sk_GetServiceName(ImagePath, &serviceName);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetServiceName", status);
    serviceName = NULL;
    goto Exit;
  }
  data.ProcessId = (ULONG)(ULONG_PTR)event.ProcessId;
  event.Type = ET_DRIVER_LOAD;
  event.Data = &data;
  event.DataLength = sizeof(data);
  sk_AddEventString(&event, serviceName, &data.ServiceName);
  sk_AddEventString(&event, &path, &data.ImagePath);
  status = sk_BuildEventPacket(&event, &packet, &length);
  if (!NT_SUCCESS(status)) goto Exit;
  if (sk_EventReportEnabled()) {
    SK_PRINT(SK_LEVEL_EVENT_REPORT, "[C:0x%0x] Driver Load Pid:%d serviceName:%wZ ImagePath:%wZ\n",
             (ULONG)InterlockedIncrement(&SentrelData.DriverLoadCount), (ULONG)(ULONG_PTR)event.ProcessId,
             serviceName, &path);
  }
  status = sk_SendEventPacket(ET_DRIVER_LOAD, packet, length);
Exit:
  if (serviceName) skt_FreeUnicodeStringSelf(serviceName);
  if (event.Process) ObDereferenceObject(event.Process);
  SK_LEAVE(status);
  return status;
}
