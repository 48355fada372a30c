// A process's queue of control packets, and one queued packet.
#pragma once

#include "platform/nt.h"

#define SK_MSG_QUEUE_USABLE 0x1
#define SK_MSG_QUEUE_CONSUMER_REGISTERED 0x2

typedef struct _SK_MSG_NODE {
  USHORT Tag;  // SK_RECORD_MSG_NODE
  USHORT Size;
  ULONG MsgLen;
  PVOID Msg;  // private copy of the packet
  LIST_ENTRY Link;
} SK_MSG_NODE, *PSK_MSG_NODE;

typedef struct _SK_MSG_QUEUE {
  USHORT Tag;  // SK_RECORD_MSG_QUEUE
  USHORT Size;
  ULONG Flags;
  ULONG ProcessId;
  volatile LONG MsgCount;
  PFILE_OBJECT FileObject;
  LIST_ENTRY MsgList;
  PFAST_MUTEX MsgQueueLock;  // from the fast-mutex lookaside list
  ULONG MsgBytes;            // the packets' lengths added up; under MsgQueueLock
  ULONG64 EvictedCount;      // packets dropped to make room, since the queue was made; under MsgQueueLock
} SK_MSG_QUEUE, *PSK_MSG_QUEUE;
