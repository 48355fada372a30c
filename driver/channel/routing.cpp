#include "channel/routing.h"

#include "channel/msg_queue.h"
#include "channel/pending_reads.h"
#include "channel/registration.h"
#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "sentrel/packet.h"

#define SK_MODULE SK_TRACE_COMMU

NTSTATUS sk_Commu_Control(PVOID Packet, ULONG Length, PULONG_PTR Information) {
  PSK_PACKET packet = (PSK_PACKET)Packet;
  NTSTATUS status;
  ULONG code;

  PAGED_CODE();
  SK_ENTER();
  switch (packet->DstType) {
    case SKT_SENTREL:
      SK_INFO("SKT_SENTREL\n");
      *Information = 0;
      status = STATUS_INVALID_PARAMETER;
      if (Length >= SK_CONTROL_PACKET_MIN_SIZE) {
        code = *(PULONG)((PUCHAR)Packet + SK_PACKET_CONTROL_CODE_OFFSET);
        if (code >= SKCC_FIRST && code <= SKCC_LAST) status = STATUS_NOT_IMPLEMENTED;
      }
      break;
    case SKT_CONSUMER:
      SK_INFO("SKT_CONSUMER\n");
      status = sk_Consumer_Control(Packet, Length, Information);
      break;
    case SKT_PRODUCERS:
    case SKT_PRODUCER:
      SK_INFO("SKT_PRODUCER or SKT_PRODUCERS\n");
      status = sk_ProducerControl(Packet, Length, Information);
      break;
    default:
      SK_ERROR("Unknow Dest %d\n", packet->DstType);
      *Information = 0;
      status = STATUS_INVALID_PARAMETER;
      break;
  }
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_Consumer_Control(PVOID Packet, ULONG Length, PULONG_PTR Information) {
  ULONG consumer = SK_READ_ONCE(SentrelData.ConsumerMsgQueue.ProcessId);
  NTSTATUS status = sk_SendMsgToConsumer(Packet, Length);
  if (NT_SUCCESS(status)) {
    *Information = Length;
    SK_INFO("sk_SendMsg Msg to Pid:%d success MsgLen:0x%0x\n", consumer, Length);
  } else {
    SK_ERROR("sk_SendMsg Send Msg to Pid:%d fail Status:%08lx\n", consumer, status);
  }
  return status;
}

NTSTATUS sk_ProducerControl(PVOID Packet, ULONG Length, PULONG_PTR Information) {
  PSK_PACKET packet = (PSK_PACKET)Packet;
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  SK_BROADCAST_CONTEXT broadcast;

  *Information = (ULONG_PTR)-1;
  if (packet->DstType == SKT_PRODUCERS) {
    SK_INFO("SKT_PRODUCERS\n");
    broadcast.Status = STATUS_SUCCESS;
    broadcast.Packet = Packet;
    broadcast.Length = Length;
    broadcast.Information = Information;
    sk_EnumProcMsgQueue(&SentrelData.ProcMsgMgr, sk_EnumProducerInfo, &broadcast);
    status = broadcast.Status;
  } else if (packet->DstType == SKT_PRODUCER) {
    SK_INFO("SKT_PRODUCER\n");
    if (sk_IsConsumerProcess((HANDLE)(ULONG_PTR)packet->DstPid)) {
      SK_INFO("Prohibit producer from sending control packets to consumer\n");
      return STATUS_INVALID_PARAMETER;
    }
    status = sk_SendMsg(packet->DstPid, Packet, Length);
    if (NT_SUCCESS(status)) {
      *Information = Length;
      SK_INFO("sk_SendMsg Msg to Pid:%d success MsgLen:0x%0x\n", packet->DstPid, Length);
    } else {
      SK_ERROR("sk_SendMsg Send Msg to Pid:%d fail Status:%08lx\n", packet->DstPid, status);
    }
  }
  return status;
}

NTSTATUS sk_EnumProducerInfo(PSK_MSG_QUEUE Queue, PVOID Context) {
  PSK_BROADCAST_CONTEXT broadcast = (PSK_BROADCAST_CONTEXT)Context;
  NTSTATUS status;
  PVOID copy;

  if (sk_IsConsumerProcess((HANDLE)(ULONG_PTR)Queue->ProcessId)) {
    SK_INFO("ByPass Consumer Process\n");
    broadcast->Status = STATUS_SUCCESS;
    return STATUS_SUCCESS;
  }
  copy = ExAllocatePoolWithTag(PagedPool, broadcast->Length, SK_TAG_BROADCAST_COPY);
  if (!copy) {
    SK_ERROR("Buf alloc fail\n");
    broadcast->Status = STATUS_INSUFFICIENT_RESOURCES;
    return STATUS_SUCCESS;
  }
  RtlCopyMemory(copy, broadcast->Packet, broadcast->Length);
  status = sk_SendMsg(Queue->ProcessId, copy, broadcast->Length);
  if (NT_SUCCESS(status)) {
    *broadcast->Information = broadcast->Length;
    broadcast->Status = STATUS_SUCCESS;
    SK_INFO("sk_SendMsg Pid:%d Success SendLen:0x%0x\n", Queue->ProcessId, broadcast->Length);
  } else {
    broadcast->Status = status;
    SK_ERROR("sk_SendMsg Pid:%d fail Status:%08lx\n", Queue->ProcessId, status);
  }
  ExFreePoolWithTag(copy, SK_TAG_BROADCAST_COPY);
  return STATUS_SUCCESS;
}
