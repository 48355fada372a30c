#include "monitor/event_packet.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "monitor/package_block.h"
#include "monitor/package_cache.h"
#include "sentrel/packet_build.h"

#define SK_MODULE SK_TRACE_REPORT

BOOLEAN sk_EventReportEnabled(void) { return sk_LogEnabled(SK_LEVEL_EVENT_REPORT, SK_TRACE_REPORT); }

NTSTATUS sk_BuildEventPacket(PSK_EVENT Event, PUCHAR *Packet, PULONG Length) {
  NTSTATUS status;
  PVOID procInfo = NULL, logonInfo = NULL, treeInfo = NULL;
  ULONG procLength = 0, logonLength = 0, treeLength = 0;
  ULONG packages, length, room, i;
  PUCHAR packet, at;
  PACKAGE_HEADER body;

  PAGED_CODE();
  status = sk_GetProcInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.ProcessMgr, Event->ProcessId, &procInfo,
                                 &procLength);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PackProcessInfo_Pid", status);
    procInfo = NULL;
    goto Exit;
  }
  status = sk_GetLogonInfo_Process(Event->Process, &logonInfo, &logonLength);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_GetLogonInfo_Process", status);
    logonInfo = NULL;
    goto Exit;
  }
  status = sk_GetProcTreeInfoPackage(&SentrelData.PackageCacheMgr, &SentrelData.ProcessMgr, Event->ProcessId,
                                     &treeInfo, &treeLength);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_PackProcTree_Pid", status);
    treeInfo = NULL;
    goto Exit;
  }
  // The packages are bounded so that every event keeps room for its data; a path of tens of
  // thousands of characters is shortened rather than the whole event lost in the ring buffers.
  packages = procLength + logonLength + treeLength;
  room = RB_MAX_PACKET_LENGTH - SK_EVENT_PACKAGES_OFFSET - packages - Event->DataLength;
  sk_FitPackStrings(Event->Strings, Event->StringCount, room);
  length = SK_EVENT_PACKAGES_OFFSET + packages + Event->DataLength;
  for (i = 0; i < Event->StringCount; ++i) length += Event->Strings[i].Length;

  packet = (PUCHAR)ExAllocatePoolWithTag(PagedPool, length, SK_TAG_EVENT_PACKET);
  if (!packet) {
    SK_ERROR("Packet alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(packet, length);
  sk_PacketInitEvent(packet, (SK_UINT32)(ULONG_PTR)Event->ProcessId, length - SK_PACKET_HEADER_SIZE);
  body.Length = length - SK_PACKET_HEADER_SIZE;
  body.Type = Event->Type;
  body.NextOffset = sizeof(PACKAGE_HEADER) + packages;
  RtlCopyMemory(packet + SK_EVENT_BODY_HEADER_OFFSET, &body, sizeof(body));
  at = packet + SK_EVENT_PACKAGES_OFFSET;
  RtlCopyMemory(at, procInfo, procLength);
  RtlCopyMemory(at + procLength, logonInfo, logonLength);
  RtlCopyMemory(at + procLength + logonLength, treeInfo, treeLength);
  at += packages;
  sk_PutPackStrings(at, Event->DataLength, Event->Strings, Event->StringCount);
  RtlCopyMemory(at, Event->Data, Event->DataLength);
  *Packet = packet;
  *Length = length;
Exit:
  sk_ReleasePackage(procInfo);
  sk_ReleasePackage(logonInfo);
  sk_ReleasePackage(treeInfo);
  return status;
}

NTSTATUS sk_SendEventPacket(SK_EVENT_TYPE Type, PUCHAR Packet, ULONG Length) {
  NTSTATUS status;
  PAGED_CODE();
  status = rb_WriteRingBuf(&SentrelData.RingBuf, Packet, Length);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("sk_SendMsgToConsumer", status);
  } else {
    SK_INFO("Report Event %s Package Length:0x%0x\n", sk_EventTypeName(Type), Length);
  }
  ExFreePoolWithTag(Packet, SK_TAG_EVENT_PACKET);
  return status;
}
