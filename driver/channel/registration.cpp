#include "channel/registration.h"

#include "channel/msg_queue.h"
#include "core/debug_log.h"
#include "core/record_tags.h"
#include "core/sentrel_data.h"
#include "monitor/callback_plus.h"
#include "sentrel/control_codes.h"
#include "sentrel/packet.h"

#define SK_MODULE SK_TRACE_COMMU

BOOLEAN sk_IsConsumerProcess(HANDLE ProcessId) {
  ULONG consumer = SK_READ_ONCE(SentrelData.ConsumerMsgQueue.ProcessId);
  return consumer != 0 && consumer == (ULONG)(ULONG_PTR)ProcessId;
}

BOOLEAN sk_IsConsumerUnmarked(void) {
  return (SK_READ_ONCE(SentrelData.ConsumerMsgQueue.Flags) & SK_MSG_QUEUE_CONSUMER_REGISTERED) == 0;
}

VOID sk_MarkConsumer(void) {
  InterlockedOr((volatile LONG *)&SentrelData.ConsumerMsgQueue.Flags, SK_MSG_QUEUE_CONSUMER_REGISTERED);
}

static VOID sk_WriteAuth(PVOID Buffer, const GUID *CommuId) {
  PSENTREL_AUTH_COMMUID auth = (PSENTREL_AUTH_COMMUID)Buffer;
  auth->Size = SK_AUTH_COMMUID_SIZE;
  auth->Tag = SK_AUTH_COMMUID_TAG;
  auth->Kind = SK_AUTH_COMMUID_KIND;
  RtlCopyMemory(&auth->CommuId, CommuId, sizeof(auth->CommuId));
}

static VOID sk_FillRecord(PSK_CCB Record, ULONG Kind) {
  RtlZeroMemory(Record, sizeof(*Record));
  Record->Tag = SK_RECORD_REGISTRATION;
  Record->Size = sizeof(*Record);
  Record->Kind = Kind;
  ExUuidCreate(&Record->CommuId);
}

NTSTATUS sk_AppRegister(ULONG IoControlCode, PFILE_OBJECT FileObject, PVOID Buffer, ULONG OutputLength,
                        PULONG_PTR Information) {
  NTSTATUS status;
  HANDLE processId = PsGetCurrentProcessId();
  PSK_CCB ccb;

  PAGED_CODE();
  SK_ENTER();
  *Information = (ULONG_PTR)-1;
  if (OutputLength < SK_AUTH_COMMUID_SIZE) {
    SK_ERROR("OutLength < sizeof(SENTREL_AUTH_COMMUID) fail\n");
    *Information = SK_AUTH_COMMUID_SIZE;
    status = STATUS_BUFFER_OVERFLOW;
    goto Exit;
  }
  if (IoControlCode == IOCTL_APP_REGISTER_CONSUMER) {
    SK_INFO("IOCTL_APP_REGISTER_CONSUMER\n");
    if (!sk_IsConsumerUnmarked() && !sk_IsConsumerProcess(processId)) {
      SK_ERROR("Consumer Process Existing\n");
      *Information = 0;
      status = STATUS_ACCESS_DENIED;
      goto Exit;
    }
    // A handle that registered as producer before keeps its record nowhere now; give it back.
    ccb = (PSK_CCB)FileObject->FsContext2;
    if (ccb && ccb != &SentrelData.ConsumerAuth && ccb->Tag == SK_RECORD_REGISTRATION && ccb->Size == sizeof(SK_CCB)) {
      ExFreeToPagedLookasideList(&SentrelData.CcbLookaside, ccb);
    }
    sk_FillRecord(&SentrelData.ConsumerAuth, SK_REGISTRATION_CONSUMER);
    SK_WRITE_ONCE(SentrelData.ConsumerMsgQueue.ProcessId, (ULONG)(ULONG_PTR)processId);
    SK_WRITE_ONCE(SentrelData.ConsumerProcess, IoGetCurrentProcess());
    SK_WRITE_ONCE(SentrelData.ConsumerMsgQueue.FileObject, FileObject);
    FileObject->FsContext2 = &SentrelData.ConsumerAuth;
    sk_WriteAuth(Buffer, &SentrelData.ConsumerAuth.CommuId);
    *Information = SK_AUTH_COMMUID_SIZE;
    SK_INFO("Consumer Process %d Register Success\n", (ULONG)(ULONG_PTR)processId);
    if (sk_IsConsumerUnmarked()) sk_MarkConsumer();
    status = STATUS_SUCCESS;
  } else if (IoControlCode == IOCTL_APP_REGISTER_PRODUCER) {
    SK_INFO("IOCTL_APP_REGISTER_PRODUCER\n");
    if (FileObject->FsContext2) {
      SK_ERROR("Producer Process Already Registered\n");
      status = STATUS_INVALID_PARAMETER;
      goto Exit;
    }
    ccb = (PSK_CCB)ExAllocateFromPagedLookasideList(&SentrelData.CcbLookaside);
    if (!ccb) {
      SK_ERROR("Ccb alloc fail\n");
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Exit;
    }
    sk_FillRecord(ccb, SK_REGISTRATION_PRODUCER);
    FileObject->FsContext2 = ccb;
    status = sk_AddProcMsgQueue(&SentrelData.ProcMsgMgr, (ULONG)(ULONG_PTR)processId, FileObject, NULL);
    if (!NT_SUCCESS(status)) {
      SK_ERROR("sk_AddProcMsgQueue fail Status:%08lx\n", status);
      FileObject->FsContext2 = NULL;
      ExFreeToPagedLookasideList(&SentrelData.CcbLookaside, ccb);
      goto Exit;
    }
    sk_WriteAuth(Buffer, &ccb->CommuId);
    *Information = SK_AUTH_COMMUID_SIZE;
    SK_INFO("Producer Process %d Register Success\n", (ULONG)(ULONG_PTR)processId);
  } else {
    SK_ERROR("Unknow Ioctl 0x%0x\n", IoControlCode);
    status = STATUS_NOT_IMPLEMENTED;
  }
Exit:
  SK_LEAVE(status);
  return status;
}

VOID sk_CommunProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create) {
  UNREFERENCED_PARAMETER(ParentId);
  if (Create || !sk_IsConsumerProcess(ProcessId)) return;
  SK_INFO("[sk_CommunProcessNotify] Consumer Process %d Exit\n", (ULONG)(ULONG_PTR)ProcessId);
  SK_WRITE_ONCE(SentrelData.ConsumerMsgQueue.FileObject, (PFILE_OBJECT)NULL);
  InterlockedAnd((volatile LONG *)&SentrelData.ConsumerMsgQueue.Flags, ~(LONG)SK_MSG_QUEUE_CONSUMER_REGISTERED);
  SK_WRITE_ONCE(SentrelData.ConsumerMsgQueue.ProcessId, 0u);
  SK_WRITE_ONCE(SentrelData.ConsumerProcess, (PEPROCESS)NULL);
}

NTSTATUS sk_InitCommuncation(void) {
  NTSTATUS status = (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)
                        ? sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_CommunProcessNotify, FALSE)
                        : STATUS_INSUFFICIENT_RESOURCES;
  if (!NT_SUCCESS(status)) SK_ERROR("sk_PsSetCreateProcessNotifyRoutine fail Status:%08lx\n", status);
  return status;
}

NTSTATUS sk_UninitCommuncation(void) {
  NTSTATUS status = (SentrelData.InitFlags & SK_CALLBACK_PLUS_PROCESS)
                        ? sk_PsSetCreateProcessNotifyRoutine(SK_PROCESS_NOTIFY_PLAIN, (PVOID)sk_CommunProcessNotify, TRUE)
                        : STATUS_INSUFFICIENT_RESOURCES;
  if (!NT_SUCCESS(status)) SK_ERROR("sk_PsSetCreateProcessNotifyRoutine fail Status:%08lx\n", status);
  return status;
}
