#include "channel/loss_report.h"

#include "channel/msg_queue.h"
#include "channel/ring_buffer.h"
#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "sentrel/loss_counters.h"

#define SK_MODULE SK_TRACE_COMMU

typedef struct _SK_QUEUE_LOSS_LIST {
  PUCHAR Output;
  ULONG OutputLength;
  ULONG Offset;  // where the next record goes
  ULONG Count;   // queues seen, listed or not
} SK_QUEUE_LOSS_LIST, *PSK_QUEUE_LOSS_LIST;

static VOID sk_ListQueueLoss(ULONG ProcessId, ULONG64 Evicted, PVOID Context) {
  PSK_QUEUE_LOSS_LIST list = (PSK_QUEUE_LOSS_LIST)Context;
  SK_QUEUE_LOSSES record;

  if (list->OutputLength >= sizeof(record) && list->Offset <= list->OutputLength - sizeof(record)) {
    RtlZeroMemory(&record, sizeof(record));
    record.ProcessId = ProcessId;
    record.Evicted = Evicted;
    RtlCopyMemory(list->Output + list->Offset, &record, sizeof(record));
  }
  list->Offset += sizeof(record);
  ++list->Count;
}

NTSTATUS sk_QueryLossCounters(PVOID Output, ULONG OutputLength, PULONG_PTR Information) {
  PUCHAR output = (PUCHAR)Output;
  ULONG buffers = SentrelData.RingBuf.BufferCount;
  SK_LOSS_COUNTERS header;
  SK_RING_LOSSES ring;
  SK_QUEUE_LOSS_LIST list;
  ULONG i;
  NTSTATUS status = STATUS_SUCCESS;

  PAGED_CODE();
  SK_ENTER();
  RtlZeroMemory(&header, sizeof(header));
  header.BufferCount = buffers;
  for (i = 0; i < buffers; ++i) {
    rb_QueryRingLosses(&SentrelData.RingBuf, i, &ring.OverwrittenRecords, &ring.DroppedPackets);
    if (OutputLength >= SK_LOSS_COUNTERS_SIZE(i + 1, 0)) {
      RtlCopyMemory(output + SK_LOSS_COUNTERS_SIZE(i, 0), &ring, sizeof(ring));
    }
  }
  list.Output = output;
  list.OutputLength = OutputLength;
  list.Offset = (ULONG)SK_LOSS_COUNTERS_SIZE(buffers, 0);
  list.Count = 0;
  sk_QueryMsgQueueEvictions(&SentrelData.ProcMsgMgr, &header.ConsumerQueueEvicted, &header.ProcessQueuesEvicted,
                            sk_ListQueueLoss, &list);
  header.QueueCount = list.Count;
  header.Size = (ULONG)SK_LOSS_COUNTERS_SIZE(buffers, list.Count);
  if (OutputLength >= sizeof(header)) RtlCopyMemory(output, &header, sizeof(header));
  *Information = header.Size;
  if (OutputLength < header.Size) {
    SK_ERROR("Buffer too small NeedLength:0x%0x\n", header.Size);
    status = STATUS_BUFFER_OVERFLOW;
  }
  SK_LEAVE(status);
  return status;
}
