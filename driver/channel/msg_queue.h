// Message queues: control packets wait here, one queue per process that talks to the device and
// one for the consumer, until their process reads them. The queues only hold packets: pairing them
// with reads that wait is the pending reads' part (pending_reads.h). Queues are bounded: the
// oldest packets go first.
//
// Queue lifetime: a queue found in the table is used only while the table's lock is held shared,
// so the exit of its process (which deletes the queue under the lock held exclusive) waits until
// every use has ended. The consumer's queue lives in SentrelData from start to stop.
#pragma once

#include "platform/nt.h"
#include "channel/msg_queue_record.h"

#define SK_PROC_MSG_MGR_INITED 0x1
#define SK_PROCESS_QUEUE_LIMIT 2048    // reaching it drops the 8 oldest packets
#define SK_PROCESS_QUEUE_DROP 8
#define SK_CONSUMER_QUEUE_LIMIT 16384  // reaching it drops the 2048 oldest packets
#define SK_CONSUMER_QUEUE_DROP 2048
// What a queue may hold in bytes; a packet that would pass it is refused (STATUS_QUOTA_EXCEEDED)
// and nothing queued is dropped for it. Without a byte bound any process could keep 2048 packets of
// the largest size, 128 MiB of pool, in a queue nobody reads. Control packets are commands of a few
// dozen to a few hundred bytes: a producer's queue holds 2048 packets of 512 bytes, the consumer's,
// which every producer sends to, 16384 of them, before the budget is reached.
#define SK_PROCESS_QUEUE_BYTES (1024u * 1024u)
#define SK_CONSUMER_QUEUE_BYTES (8u * 1024u * 1024u)

typedef struct _SK_PROC_MSG_MGR {
  USHORT Tag;  // SK_RECORD_PROC_MSG_MGR
  USHORT Size;
  ULONG Flags;
  RTL_AVL_TABLE QueueTable;  // SK_MSG_QUEUE elements keyed by process id
  ERESOURCE QueueTableLock;  // inside a critical region; shared to use a queue, exclusive to add or delete
  ULONG64 EvictedByGoneQueues;  // what deleted queues had evicted; under QueueTableLock held exclusive
} SK_PROC_MSG_MGR, *PSK_PROC_MSG_MGR;

NTSTATUS sk_InitProcMsgMgr(PSK_PROC_MSG_MGR ProcMsgMgr);
NTSTATUS sk_UninitProcMsgMgr(PSK_PROC_MSG_MGR ProcMsgMgr);

// The table lock, for the operations below that need it held.
VOID sk_LockQueueTableShared(PSK_PROC_MSG_MGR ProcMsgMgr);
VOID sk_UnlockQueueTable(PSK_PROC_MSG_MGR ProcMsgMgr);

// Creates the queue of a process, or points an existing one at a new handle.
NTSTATUS sk_AddProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PFILE_OBJECT FileObject, PSK_MSG_QUEUE *Queue);
// Finds a queue (the consumer's for the consumer's id); with a file object, a missing one is made.
// The caller holds the table lock shared; making a queue drops and retakes it.
NTSTATUS sk_GetProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PFILE_OBJECT FileObject, PSK_MSG_QUEUE *Queue);
// The length of the oldest packet waiting for the process (its queue made for the handle if it
// has none); STATUS_NOT_FOUND when nothing waits.
NTSTATUS sk_GetMsgLength(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PFILE_OBJECT FileObject, PULONG Length);
// Takes the oldest node out; the caller owns it (sk_FreeMsgNode).
PSK_MSG_NODE sk_PickMsgFromMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId);
// Puts a node back behind every packet that waits.
NTSTATUS sk_ReInsertMsgNodeToMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PSK_MSG_NODE Node);
// Appends a packet copy (paged pool, SK_TAG_MSG_COPY) that the queue owns from then on.
NTSTATUS sk_AddMsgToMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId, PVOID Msg, ULONG MsgLen);
NTSTATUS sk_AddMsgToConsumerMsgQueue(PSK_MSG_QUEUE ConsumerMsgQueue, PVOID Msg, ULONG MsgLen);
VOID sk_ClearMsgQueue(PSK_MSG_QUEUE Queue);
NTSTATUS sk_DelProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, ULONG ProcessId);
// Calls Visit for every queue, with the table lock held shared, until a visit fails; the last
// visit's status, or STATUS_INVALID_PARAMETER for an empty table.
typedef NTSTATUS (*PSK_MSG_QUEUE_VISITOR)(PSK_MSG_QUEUE Queue, PVOID Context);
NTSTATUS sk_EnumProcMsgQueue(PSK_PROC_MSG_MGR ProcMsgMgr, PSK_MSG_QUEUE_VISITOR Visit, PVOID Context);
VOID sk_FreeMsgNode(PSK_MSG_NODE Node);

// The packets the queues have dropped to make room. ConsumerEvicted and ProcessesEvicted count
// since start (ProcessesEvicted also what queues gone with their process had dropped); Visit is
// called, with the table lock held shared, for every process queue that has dropped packets.
typedef VOID (*PSK_EVICTION_VISITOR)(ULONG ProcessId, ULONG64 Evicted, PVOID Context);
VOID sk_QueryMsgQueueEvictions(PSK_PROC_MSG_MGR ProcMsgMgr, PULONG64 ConsumerEvicted, PULONG64 ProcessesEvicted,
                               PSK_EVICTION_VISITOR Visit, PVOID Context);

// Process subscriber: an exiting process's queue goes with it.
VOID sk_ProcMsgNotfiy(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create);
