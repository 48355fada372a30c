// The device's pending reads and the hand-over of control packets to them. This is the one module
// that pairs queued packets with parked reads and completes reads: a read that finds no packet
// parks in a cancel-safe queue over a list guarded by a fast mutex; a sender hands its packet to a
// parked read of the destination's handle, or queues it; a cancellation or the cleanup of the
// handle ends a parked read. The message queues (msg_queue.h) only hold packets.
//
// Once a read is parked it belongs to the queue: a sender, a cancellation or a cleanup on another
// processor may complete it and the I/O manager free it at once. Nothing here touches a request
// after handing it to the queue or completing it; whoever takes a request out owns it.
#pragma once

#include "platform/nt.h"

struct _SK_DEVICE_EXTENSION;

// Sets up the list, its lock and the cancel-safe queue in the device's extension.
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_InitPendingReads(_Inout_ struct _SK_DEVICE_EXTENSION *Extension);

// A read of the process on the request's handle: served from the process's queue (made for this
// handle if the process has none), or parked until a packet comes. STATUS_PENDING when parked.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_ServeRead(_In_ PIRP Irp, _In_ ULONG ProcessId);

// Delivery of a control packet to a process other than the consumer, or to the consumer: handed to
// a parked read of the destination's handle when one fits, queued otherwise.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_SendMsg(_In_ ULONG ProcessId, _In_reads_bytes_(MsgLen) PVOID Msg, _In_ ULONG MsgLen);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS sk_SendMsgToConsumer(_In_reads_bytes_(MsgLen) PVOID Msg, _In_ ULONG MsgLen);

// Completes every parked read of the handle as cancelled (its cleanup).
_IRQL_requires_max_(PASSIVE_LEVEL)
VOID sk_CancelPendingReads(_In_ PFILE_OBJECT FileObject);
