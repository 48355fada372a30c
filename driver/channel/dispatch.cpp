#include "channel/dispatch.h"

#include "channel/complete_request.h"
#include "channel/interface_krnl.h"
#include "channel/loss_report.h"
#include "channel/pending_reads.h"
#include "channel/registration.h"
#include "channel/ring_buffer.h"
#include "channel/routing.h"
#include "core/debug_log.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "rules/rule_sets.h"
#include "sentrel/control_codes.h"
#include "sentrel/packet.h"

#define SK_MODULE SK_TRACE_COMMU

#define SK_NO_INFORMATION ((ULONG_PTR)-1)

NTSTATUS sk_Read(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  NTSTATUS status;
  UNREFERENCED_PARAMETER(DeviceObject);
  PAGED_CODE();
  SK_ENTER();
  status = sk_ServeRead(Irp, (ULONG)(ULONG_PTR)PsGetCurrentProcessId());
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_Write(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.Length;
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  ULONG_PTR information = 0;
  PSK_PACKET packet;

  UNREFERENCED_PARAMETER(DeviceObject);
  PAGED_CODE();
  SK_ENTER();
  if (Irp->UserEvent) KeSetEvent(Irp->UserEvent, 1, FALSE);
  if (!Irp->MdlAddress || length < SK_PACKET_MIN_SIZE) {
    SK_ERROR("Length < sizeof(SK_PACKET)\n");
    goto Exit;
  }
  packet = (PSK_PACKET)MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority);
  if (!packet) {
    SK_ERROR("MmGetSystemAddressForMdlSafe fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  switch (packet->PacketType) {
    case 0:
      break;
    case SKPT_EVENT:
      SK_INFO("SKPT_EVENT\n");
      if (packet->DstType == SKT_CONSUMER) {
        status = rb_WriteRingBuf(&SentrelData.RingBuf, packet, length);
        if (NT_SUCCESS(status)) information = length;
      }
      break;
    case SKPT_CONTROL:
      SK_INFO("SKPT_CONTROL\n");
      // No longer than the largest event packet: a control packet waits in pool until it is read,
      // and any process may write one.
      if (length > RB_MAX_PACKET_LENGTH) {
        SK_ERROR("Control Packet Too Long:0x%0x\n", length);
        status = STATUS_INVALID_BUFFER_SIZE;
        break;
      }
      status = sk_Commu_Control(packet, length, &information);
      break;
    default:
      SK_ERROR("Unknow ProtoType:%d \n", packet->PacketType);
      break;
  }
Exit:
  sk_CompleteIrp(Irp, status, information);
  SK_LEAVE(status);
  return status;
}

static PVOID sk_MapDirectBuffer(PIRP Irp) {
  return MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority);
}

static BOOLEAN sk_RefuseUserMode(NTSTATUS *Status) {
  if (ExGetPreviousMode() != UserMode) return FALSE;
  SK_ERROR("Access Denied UserMode Request\n");
  *Status = STATUS_ACCESS_DENIED;
  return TRUE;
}

static BOOLEAN sk_RefuseNonConsumer(NTSTATUS *Status, ULONG_PTR *Information) {
  if (sk_IsConsumerProcess(PsGetCurrentProcessId())) return FALSE;
  SK_ERROR("Not Comsumer Process\n");
  *Status = STATUS_ACCESS_DENIED;
  *Information = SK_NO_INFORMATION;
  return TRUE;
}

NTSTATUS sk_DeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
  ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
  ULONG outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
  PVOID systemBuffer = Irp->AssociatedIrp.SystemBuffer;
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  ULONG_PTR information = 0;
  PVOID mapped;
  ULONG length;

  UNREFERENCED_PARAMETER(DeviceObject);
  PAGED_CODE();
  SK_ENTER();
  switch (code) {
    // Kernel-mode requests of producer drivers (sentrel/interface_krnl.h).
    case IOCTL_SK_REGISTER_PRODUCER:
      SK_INFO("IOCTL_SK_REGISTER_PRODUCER\n");
      if (sk_RefuseUserMode(&status)) break;
      if (inputLength != 16) {
        SK_ERROR("Invalid Parameter\n");
        break;
      }
      status = sk_AddProducerInfo(((PDEVICE_OBJECT *)systemBuffer)[0], ((PSK_PRODUCER_OFFLINE *)systemBuffer)[1]);
      break;
    case IOCTL_SK_UNREGISTER_PRODUCER:
      SK_INFO("IOCTL_SK_UNREGISTER_PRODUCER\n");
      if (sk_RefuseUserMode(&status)) break;
      if (inputLength != 8) {
        SK_ERROR("Invalid Parameter\n");
        break;
      }
      status = sk_DelProducerInfo(*(PDEVICE_OBJECT *)systemBuffer);
      break;
    case IOCTL_SK_GET_INTERFACEKRNL:
      SK_INFO("IOCTL_SK_GET_INTERFACEKRNL\n");
      if (sk_RefuseUserMode(&status)) break;
      if (outputLength != SK_INTERFACE_KRNL_SIZE) {
        SK_ERROR("Invalid Parameter\n");
        break;
      }
      {
        // The identity is the buffer's first 8 bytes, read before the answer overwrites them.
        PDEVICE_OBJECT identity = NULL;
        RtlCopyMemory(&identity, systemBuffer, inputLength < sizeof(identity) ? inputLength : sizeof(identity));
        status = sk_GetInterfaceKrnl(identity, (SK_INTERFACE_KRNL *)systemBuffer);
      }
      if (NT_SUCCESS(status)) {
        information = SK_INTERFACE_KRNL_SIZE;
      } else {
        SK_ERROR("sk_GetInterfaceKrnl fail Status:%08lx\n", status);
      }
      break;
    case IOCTL_SK_RESERVED_4:
    case IOCTL_SK_RESERVED_5:
      status = STATUS_NOT_IMPLEMENTED;
      information = SK_NO_INFORMATION;
      break;
    case IOCTL_SK_ADD_WHITE_RULE:
      SK_INFO("IOCTL_SK_ADD_WHITE_RULE\n");
      if (sk_RefuseNonConsumer(&status, &information)) break;
      if (!Irp->MdlAddress || inputLength == 0) {
        sk_DelAllWhiteRule();
        SK_ERROR("Del All White Rule\n");
        status = STATUS_SUCCESS;
        break;
      }
      if (inputLength <= 12) {
        SK_ERROR("Invalid Parameter\n");
        information = SK_NO_INFORMATION;
        break;
      }
      if (inputLength > MmGetMdlByteCount(Irp->MdlAddress)) break;
      mapped = sk_MapDirectBuffer(Irp);
      if (!mapped || *(PUSHORT)mapped == 0) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        break;
      }
      status = sk_AddWhiteRuleFunction_Ioctl(mapped, inputLength);
      break;
    case IOCTL_SK_QUERY_PACKCOMINFO:
      SK_INFO("IOCTL_SK_QUERY_PACKCOMINFO\n");
      if (!Irp->MdlAddress) {
        SK_ERROR("!Irp->MdlAddress\n");
        information = SK_NO_INFORMATION;
        break;
      }
      if (inputLength != 4) {
        SK_ERROR("Invalid Parameter\n");
        information = 4;
        break;
      }
      mapped = sk_MapDirectBuffer(Irp);
      if (!mapped) {
        SK_ERROR("MmGetSystemAddressForMdlSafe fail\n");
        status = STATUS_INSUFFICIENT_RESOURCES;
        break;
      }
      {
        ULONG answered = 0;
        status = sk_QueryPackCommonInformation(*(PULONG)systemBuffer, outputLength, mapped, &answered);
        information = NT_SUCCESS(status) ? answered : SK_NO_INFORMATION;
      }
      break;
    case IOCTL_APP_REGISTER_CONSUMER:
    case IOCTL_APP_REGISTER_PRODUCER:
      SK_INFO("IOCTL_APP_REGISTER_CONSUMER or IOCTL_APP_REGISTER_PRODUCER\n");
      if (!Irp->MdlAddress) {
        SK_ERROR("!Irp->MdlAddress\n");
        information = SK_NO_INFORMATION;
        break;
      }
      mapped = sk_MapDirectBuffer(Irp);
      if (!mapped) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        break;
      }
      status = sk_AppRegister(code, stack->FileObject, mapped, outputLength, &information);
      break;
    case IOCTL_SK_MAP_RINGBUF:
      // Consumer only: a mapping moves the buffers into the caller's address space, so any other
      // process that could take it would blind the consumer to every event.
      if (sk_RefuseNonConsumer(&status, &information)) break;
      if (!Irp->MdlAddress) {
        SK_ERROR("!Irp->MdlAddress\n");
        information = SK_NO_INFORMATION;
        break;
      }
      if (outputLength <= 16) {
        SK_ERROR("Invalid Parameter\n");
        information = 16 + 8 * (ULONG_PTR)SentrelData.RingBuf.BufferCount;
        break;
      }
      mapped = sk_MapDirectBuffer(Irp);
      if (!mapped) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        break;
      }
      length = outputLength;
      status = rb_GetRingBufInternal(&SentrelData.RingBuf, IoGetCurrentProcess(), mapped, &length);
      information = length;
      break;
    case IOCTL_SK_QUERY_LOSSES:
      SK_INFO("IOCTL_SK_QUERY_LOSSES\n");
      if (sk_RefuseNonConsumer(&status, &information)) break;
      // With no output buffer at all the answer is only the length it needs.
      mapped = Irp->MdlAddress ? sk_MapDirectBuffer(Irp) : NULL;
      if (Irp->MdlAddress && !mapped) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        break;
      }
      status = sk_QueryLossCounters(mapped, mapped ? outputLength : 0, &information);
      break;
    case IOCTL_SK_EVENT_MASK:
      if (sk_RefuseNonConsumer(&status, &information)) break;
      if (inputLength != sizeof(ULONG64)) {
        SK_ERROR("Invalid Input Parameter\n");
        information = sizeof(ULONG64);
        break;
      }
      if (*(PULONG64)systemBuffer != SK_EVENT_MASK_QUERY) {
        SentrelData.EventMask = *(PULONG64)systemBuffer;
        status = STATUS_SUCCESS;
        break;
      }
      if (outputLength != sizeof(ULONG64)) {
        SK_ERROR("Invalid Output Parameter\n");
        information = sizeof(ULONG64);
        break;
      }
      *(PULONG64)systemBuffer = SentrelData.EventMask;
      information = sizeof(ULONG64);
      status = STATUS_SUCCESS;
      break;
    default:
      SK_ERROR("Unknow Ioctl:0x%0x\n", code);
      break;
  }
  sk_CompleteIrp(Irp, status, information);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_Cleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
  PSK_CCB record = (PSK_CCB)fileObject->FsContext2;

  UNREFERENCED_PARAMETER(DeviceObject);
  PAGED_CODE();
  SK_ENTER();
  SK_INFO("ProcessId:%d\n", (ULONG)(ULONG_PTR)PsGetCurrentProcessId());
  if (record) {
    sk_CancelPendingReads(fileObject);
    if (record != &SentrelData.ConsumerAuth && record->Tag == SK_RECORD_REGISTRATION && record->Size == sizeof(SK_CCB)) {
      ExFreeToPagedLookasideList(&SentrelData.CcbLookaside, record);
      fileObject->FsContext2 = NULL;
    }
  }
  sk_CompleteIrp(Irp, STATUS_SUCCESS, 0);
  SK_LEAVE(STATUS_SUCCESS);
  return STATUS_SUCCESS;
}
