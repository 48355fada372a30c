// Who talks to the device: the one consumer process, and producers, each registered on a handle.
// The consumer identity (ConsumerMsgQueue.ProcessId and .FileObject, ConsumerProcess, and the
// registered flag) is a set of plain words written by a registration and by the consumer's exit,
// and read without a lock.
#pragma once

#include "platform/nt.h"

// Both registration requests; Buffer receives SENTREL_AUTH_COMMUID.
NTSTATUS sk_AppRegister(ULONG IoControlCode, PFILE_OBJECT FileObject, PVOID Buffer, ULONG OutputLength,
                        PULONG_PTR Information);
BOOLEAN sk_IsConsumerProcess(HANDLE ProcessId);
BOOLEAN sk_IsConsumerUnmarked(void);
VOID sk_MarkConsumer(void);

NTSTATUS sk_InitCommuncation(void);
NTSTATUS sk_UninitCommuncation(void);
// Process subscriber: the consumer's exit ends its registration.
VOID sk_CommunProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create);
