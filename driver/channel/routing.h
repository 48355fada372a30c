// Where a control packet written to the device goes: to the driver itself, to the consumer, to
// one producer, or to every process with a message queue except the consumer.
#pragma once

#include "platform/nt.h"
#include "channel/msg_queue_record.h"

// A broadcast's state, carried through every queue of the table.
typedef struct _SK_BROADCAST_CONTEXT {
  NTSTATUS Status;
  PVOID Packet;
  ULONG Length;
  PULONG_PTR Information;
} SK_BROADCAST_CONTEXT, *PSK_BROADCAST_CONTEXT;

NTSTATUS sk_Commu_Control(PVOID Packet, ULONG Length, PULONG_PTR Information);
NTSTATUS sk_Consumer_Control(PVOID Packet, ULONG Length, PULONG_PTR Information);
NTSTATUS sk_ProducerControl(PVOID Packet, ULONG Length, PULONG_PTR Information);
// The broadcast step for one queue; always STATUS_SUCCESS, so that every queue is reached.
NTSTATUS sk_EnumProducerInfo(PSK_MSG_QUEUE Queue, PVOID Context);
