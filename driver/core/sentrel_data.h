// SentrelData: the driver's single global context, with the order in which managers start and stop.
#pragma once

#include "platform/nt.h"
#include "channel/msg_queue.h"
#include "channel/msg_queue_record.h"
#include "channel/ring_buffer.h"
#include "channel/registration_record.h"
#include "core/optional_routines.h"
#include "names/dos_name.h"
#include "names/logon_mgr.h"
#include "monitor/image_mgr.h"
#include "monitor/package_cache.h"
#include "monitor/stack_hook.h"
#include "monitor/process_mgr.h"
#include "names/path_cache.h"
#include "rules/rule_mgr.h"

typedef struct _SENTREL_DATA {
  USHORT Tag;  // SK_RECORD_SENTREL_DATA
  USHORT Size;
  // Active kernel notification registrations: bit 0 process, bit 1 thread, bit 2 image load.
  volatile LONG InitFlags;
  ULONG64 EventMask;  // bit (1 << event type) enables a type; all ones at start-up
  PDRIVER_OBJECT DriverObject;  // equals the driver object exactly while the context is initialised
  PDEVICE_OBJECT DeviceObject;
  PDEVICE_OBJECT MountMgrDeviceObject;
  PFILE_OBJECT MountMgrFileObject;  // keeps the mount manager's device referenced
  PEPROCESS ConsumerProcess;
  SK_CCB ConsumerAuth;
  PAGED_LOOKASIDE_LIST CcbLookaside;
  PAGED_LOOKASIDE_LIST MsgNodeLookaside;
  PAGED_LOOKASIDE_LIST ImageLookaside;
  NPAGED_LOOKASIDE_LIST MutexLookaside;
  SK_MSG_QUEUE ConsumerMsgQueue;
  PUNICODE_STRING SystemRootPath;     // "\SystemRoot"
  PUNICODE_STRING SystemRootNtPath;   // the system root as a kernel path
  PUNICODE_STRING SystemRootDosPath;  // the system root as a DOS path
  ULONG64 KernelImageBase;
  ULONG KernelImageSize;
  volatile LONG DeliveredMsgCount;
  volatile LONG ReadMsgCount;
  volatile LONG ProcessCreateCount;
  volatile LONG RemoteThreadCount;
  volatile LONG ImageLoadCount;
  volatile LONG DriverLoadCount;
  SK_PATH_MGR PathMgr;
  SK_PROCESS_MGR ProcessMgr;
  SK_IMAGE_MGR ImageMgr;
  SK_PROC_MSG_MGR ProcMsgMgr;
  SK_DOS_NAME_MGR DosNameMgr;
  SK_STACK_HOOK StackHook;
  SK_LOGON_MGR LogonMgr;
  RuleMgr WhiteRuleMgr;
  RuleMgr BlackRuleMgr;
  SK_PACKAGE_CACHE_MGR PackageCacheMgr;
  SK_RING_BUF RingBuf;
  PSK_SE_LOCATE_PROCESS_IMAGE_NAME SeLocateProcessImageName;
  PSK_PS_REFERENCE_PROCESS_FILE_POINTER PsReferenceProcessFilePointer;
  PSK_PS_ACQUIRE_PROCESS_EXIT_SYNCHRONIZATION PsAcquireProcessExitSynchronization;
  PSK_PS_RELEASE_PROCESS_EXIT_SYNCHRONIZATION PsReleaseProcessExitSynchronization;
  PSK_OB_OPEN_OBJECT_BY_POINTER ObOpenObjectByPointer;
  PSK_ZW_QUERY_INFORMATION_THREAD ZwQueryInformationThread;
  PSK_PS_GET_PROCESS_PEB PsGetProcessPeb;
  PSK_PS_GET_PROCESS_WOW64_PROCESS PsGetProcessWow64Process;
  PSK_SE_QUERY_AUTHENTICATION_ID_TOKEN SeQueryAuthenticationIdToken;
  PSK_PS_GET_PROCESS_SESSION_ID PsGetProcessSessionId;
  PSK_PS_GET_PROCESS_INHERITED_FROM_UNIQUE_PROCESS_ID PsGetProcessInheritedFromUniqueProcessId;
  PSK_RTL_WALK_FRAME_CHAIN RtlWalkFrameChain;
} SENTREL_DATA, *PSENTREL_DATA;

static_assert(sizeof(SENTREL_DATA) <= 0xFFFF, "the record's size fits its 16-bit Size");

// The device's extension: the queue of read requests waiting for a packet.
typedef struct _SK_DEVICE_EXTENSION {
  USHORT Tag;  // SK_RECORD_DEVICE_EXTENSION
  USHORT Size;
  LIST_ENTRY PendingReadList;
  FAST_MUTEX PendingReadLock;
  IO_CSQ CancelSafeQueue;  // over the two above (channel/pending_reads.h)
} SK_DEVICE_EXTENSION, *PSK_DEVICE_EXTENSION;

extern SENTREL_DATA SentrelData;
extern PDRIVER_OBJECT SkDriverObject;  // kept from entry on, before the context is initialised
extern PDEVICE_OBJECT SkDeviceObject;
extern volatile BOOLEAN SentrelOnline;    // reporters report only while set; read without a lock
extern volatile LONG LoadGuardReleased;  // the run's end is counted; set once per load (interlocked)

NTSTATUS sk_InitSentrelData(void);
NTSTATUS sk_UninitSentrelData(void);
// The ring buffers' owner exit hook, a process subscriber of the notification multiplexer: when the
// process the buffers are mapped into exits, the mapping is released in its context.
VOID sk_RingBufOwnerProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create);
