// I/O manager: drivers, devices, files, requests (IRPs), symbolic links, shutdown notification.
#pragma once

#include "ntsim/ob.h"
#include "ntsim/se.h"

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CREATE_NAMED_PIPE 0x01
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_QUERY_INFORMATION 0x05
#define IRP_MJ_SET_INFORMATION 0x06
#define IRP_MJ_QUERY_EA 0x07
#define IRP_MJ_SET_EA 0x08
#define IRP_MJ_FLUSH_BUFFERS 0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION 0x0b
#define IRP_MJ_DIRECTORY_CONTROL 0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL 0x0d
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_SHUTDOWN 0x10
#define IRP_MJ_LOCK_CONTROL 0x11
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_CREATE_MAILSLOT 0x13
#define IRP_MJ_QUERY_SECURITY 0x14
#define IRP_MJ_SET_SECURITY 0x15
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_DEVICE_CHANGE 0x18
#define IRP_MJ_QUERY_QUOTA 0x19
#define IRP_MJ_SET_QUOTA 0x1a
#define IRP_MJ_PNP 0x1b
#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

#define FILE_DEVICE_DISK 0x00000007
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_NETWORK_FILE_SYSTEM 0x00000014
#define FILE_DEVICE_DISK_FILE_SYSTEM 0x00000008

#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0
#define FILE_READ_ACCESS 0x0001
#define FILE_WRITE_ACCESS 0x0002
#define CTL_CODE(DeviceType, Function, Method, Access) \
  (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define METHOD_FROM_CTL_CODE(ctrlCode) ((ULONG)((ctrlCode) & 3))
#define DEVICE_TYPE_FROM_CTL_CODE(ctrlCode) (((ULONG)((ctrlCode) & 0xffff0000)) >> 16)

#define FILE_READ_DATA 0x0001
#define FILE_WRITE_DATA 0x0002
#define FILE_APPEND_DATA 0x0004
#define FILE_READ_EA 0x0008
#define FILE_WRITE_EA 0x0010
#define FILE_EXECUTE 0x0020
#define FILE_READ_ATTRIBUTES 0x0080
#define FILE_WRITE_ATTRIBUTES 0x0100
#define FILE_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF)

#define DO_VERIFY_VOLUME 0x00000002
#define DO_BUFFERED_IO 0x00000004
#define DO_EXCLUSIVE 0x00000008
#define DO_DIRECT_IO 0x00000010
#define DO_MAP_IO_BUFFER 0x00000020
#define DO_DEVICE_HAS_NAME 0x00000040
#define DO_DEVICE_INITIALIZING 0x00000080

#define IO_TYPE_DEVICE 3
#define IO_TYPE_DRIVER 4
#define IO_TYPE_FILE 5
#define IO_TYPE_IRP 6

typedef struct _DEVICE_OBJECT DEVICE_OBJECT, *PDEVICE_OBJECT;
typedef struct _DRIVER_OBJECT DRIVER_OBJECT, *PDRIVER_OBJECT;
typedef struct _FILE_OBJECT FILE_OBJECT, *PFILE_OBJECT;
typedef struct _IRP IRP, *PIRP;

typedef NTSTATUS NTAPI DRIVER_INITIALIZE(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE *PDRIVER_INITIALIZE;
typedef NTSTATUS NTAPI DRIVER_DISPATCH(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_DISPATCH *PDRIVER_DISPATCH;
typedef VOID NTAPI DRIVER_UNLOAD(PDRIVER_OBJECT DriverObject);
typedef DRIVER_UNLOAD *PDRIVER_UNLOAD;
typedef VOID NTAPI DRIVER_CANCEL(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef DRIVER_CANCEL *PDRIVER_CANCEL;
typedef NTSTATUS NTAPI IO_COMPLETION_ROUTINE(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
typedef IO_COMPLETION_ROUTINE *PIO_COMPLETION_ROUTINE;

typedef struct _DRIVER_EXTENSION {
  PDRIVER_OBJECT DriverObject;
  PVOID AddDevice;
  ULONG Count;
  UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

struct _DRIVER_OBJECT {
  CSHORT Type;
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;
  ULONG Flags;
  PVOID DriverStart;
  ULONG DriverSize;
  PVOID DriverSection;
  PDRIVER_EXTENSION DriverExtension;
  UNICODE_STRING DriverName;
  PUNICODE_STRING HardwareDatabase;
  PVOID FastIoDispatch;
  PDRIVER_INITIALIZE DriverInit;
  PVOID DriverStartIo;
  PDRIVER_UNLOAD DriverUnload;
  PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
};

struct _DEVICE_OBJECT {
  CSHORT Type;
  USHORT Size;
  LONG ReferenceCount;
  PDRIVER_OBJECT DriverObject;
  PDEVICE_OBJECT NextDevice;
  PDEVICE_OBJECT AttachedDevice;
  PIRP CurrentIrp;
  PVOID Timer;
  ULONG Flags;
  ULONG Characteristics;
  PVOID Vpb;
  PVOID DeviceExtension;
  DEVICE_TYPE DeviceType;
  CCHAR StackSize;
  ULONG AlignmentRequirement;
};

struct _FILE_OBJECT {
  CSHORT Type;
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;
  PVOID Vpb;
  PVOID FsContext;
  PVOID FsContext2;
  PVOID SectionObjectPointer;
  PVOID PrivateCacheMap;
  NTSTATUS FinalStatus;
  PFILE_OBJECT RelatedFileObject;
  BOOLEAN LockOperation;
  BOOLEAN DeletePending;
  BOOLEAN ReadAccess;
  BOOLEAN WriteAccess;
  BOOLEAN DeleteAccess;
  BOOLEAN SharedRead;
  BOOLEAN SharedWrite;
  BOOLEAN SharedDelete;
  ULONG Flags;
  UNICODE_STRING FileName;
  LARGE_INTEGER CurrentByteOffset;
  ULONG Waiters;
  ULONG Busy;
  PVOID LastLock;
  KEVENT Lock;
  KEVENT Event;
};

// A memory descriptor list: describes a locked buffer for direct I/O.
typedef struct _MDL {
  struct _MDL *Next;
  CSHORT Size;
  CSHORT MdlFlags;
  PEPROCESS Process;
  PVOID MappedSystemVa;
  PVOID StartVa;
  ULONG ByteCount;
  ULONG ByteOffset;
} MDL, *PMDL;

typedef struct _IO_STACK_LOCATION {
  UCHAR MajorFunction;
  UCHAR MinorFunction;
  UCHAR Flags;
  UCHAR Control;
  union {
    struct {
      PVOID SecurityContext;
      ULONG Options;
      USHORT FileAttributes;
      USHORT ShareAccess;
      ULONG EaLength;
    } Create;
    struct {
      ULONG Length;
      ULONG Key;
      LARGE_INTEGER ByteOffset;
    } Read;
    struct {
      ULONG Length;
      ULONG Key;
      LARGE_INTEGER ByteOffset;
    } Write;
    struct {
      ULONG Length;
      int FileInformationClass;
    } QueryFile;
    struct {
      ULONG OutputBufferLength;
      ULONG InputBufferLength;
      ULONG IoControlCode;
      PVOID Type3InputBuffer;
    } DeviceIoControl;
    struct {
      PVOID Argument1;
      PVOID Argument2;
      PVOID Argument3;
      PVOID Argument4;
    } Others;
  } Parameters;
  PDEVICE_OBJECT DeviceObject;
  PFILE_OBJECT FileObject;
  PIO_COMPLETION_ROUTINE CompletionRoutine;
  PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

// Laid out as the kernel's: drivers reach into Tail.Overlay and the cancel fields directly.
struct _IRP {
  CSHORT Type;
  USHORT Size;
  PMDL MdlAddress;
  ULONG Flags;
  union {
    struct _IRP *MasterIrp;
    volatile LONG IrpCount;
    PVOID SystemBuffer;
  } AssociatedIrp;
  LIST_ENTRY ThreadListEntry;
  IO_STATUS_BLOCK IoStatus;
  KPROCESSOR_MODE RequestorMode;
  BOOLEAN PendingReturned;
  CHAR StackCount;
  CHAR CurrentLocation;
  BOOLEAN Cancel;
  KIRQL CancelIrql;
  CCHAR ApcEnvironment;
  UCHAR AllocationFlags;
  PIO_STATUS_BLOCK UserIosb;
  PKEVENT UserEvent;
  union {
    struct {
      union {
        PVOID UserApcRoutine;
        PVOID IssuingProcess;
      };
      PVOID UserApcContext;
    } AsynchronousParameters;
    LARGE_INTEGER AllocationSize;
  } Overlay;
  volatile PDRIVER_CANCEL CancelRoutine;
  PVOID UserBuffer;
  union {
    struct {
      union {
        UCHAR DeviceQueueEntry[24];
        PVOID DriverContext[4];
      };
      PETHREAD Thread;
      PCHAR AuxiliaryBuffer;
      struct {
        LIST_ENTRY ListEntry;
        union {
          struct _IO_STACK_LOCATION *CurrentStackLocation;
          ULONG PacketType;
        };
      };
      PFILE_OBJECT OriginalFileObject;
    } Overlay;
    UCHAR Apc[0x58];  // a KAPC, which the simulator does not use
    PVOID CompletionKey;
  } Tail;
};
static_assert(sizeof(IRP) == 0xD0, "IRP is laid out as the kernel's");
static_assert(offsetof(IRP, CancelRoutine) == 0x68, "IRP.CancelRoutine");
static_assert(offsetof(IRP, Tail.Overlay.DriverContext) == 0x78, "IRP.Tail.Overlay.DriverContext");
static_assert(offsetof(IRP, Tail.Overlay.ListEntry) == 0xA8, "IRP.Tail.Overlay.ListEntry");
static_assert(offsetof(IRP, Tail.Overlay.OriginalFileObject) == 0xC0, "IRP.Tail.Overlay.OriginalFileObject");

#define SL_PENDING_RETURNED 0x01

// Cancel-safe queues. As in wdm.h the callbacks are declared as pointer types; only the Ex insert
// routine also has a function type.
#define IO_TYPE_CSQ_IRP_CONTEXT 1
#define IO_TYPE_CSQ 2
#define IO_TYPE_CSQ_EX 3

struct _IO_CSQ;

typedef struct _IO_CSQ_IRP_CONTEXT {
  ULONG Type;
  struct _IRP *Irp;
  struct _IO_CSQ *Csq;
} IO_CSQ_IRP_CONTEXT, *PIO_CSQ_IRP_CONTEXT;

typedef VOID(NTAPI *PIO_CSQ_INSERT_IRP)(struct _IO_CSQ *Csq, PIRP Irp);
typedef NTSTATUS(NTAPI IO_CSQ_INSERT_IRP_EX)(struct _IO_CSQ *Csq, PIRP Irp, PVOID InsertContext);
typedef IO_CSQ_INSERT_IRP_EX *PIO_CSQ_INSERT_IRP_EX;
typedef VOID(NTAPI *PIO_CSQ_REMOVE_IRP)(struct _IO_CSQ *Csq, PIRP Irp);
typedef PIRP(NTAPI *PIO_CSQ_PEEK_NEXT_IRP)(struct _IO_CSQ *Csq, PIRP Irp, PVOID PeekContext);
typedef VOID(NTAPI *PIO_CSQ_ACQUIRE_LOCK)(struct _IO_CSQ *Csq, PKIRQL Irql);
typedef VOID(NTAPI *PIO_CSQ_RELEASE_LOCK)(struct _IO_CSQ *Csq, KIRQL Irql);
typedef VOID(NTAPI *PIO_CSQ_COMPLETE_CANCELED_IRP)(struct _IO_CSQ *Csq, PIRP Irp);

typedef struct _IO_CSQ {
  ULONG Type;
  PIO_CSQ_INSERT_IRP CsqInsertIrp;
  PIO_CSQ_REMOVE_IRP CsqRemoveIrp;
  PIO_CSQ_PEEK_NEXT_IRP CsqPeekNextIrp;
  PIO_CSQ_ACQUIRE_LOCK CsqAcquireLock;
  PIO_CSQ_RELEASE_LOCK CsqReleaseLock;
  PIO_CSQ_COMPLETE_CANCELED_IRP CsqCompleteCanceledIrp;
  PVOID ReservePointer;
} IO_CSQ, *PIO_CSQ;

NTSIM_BEGIN_DECLS

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                              DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PDEVICE_OBJECT *DeviceObject);
VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);
NTSTATUS NTAPI IoRegisterShutdownNotification(PDEVICE_OBJECT DeviceObject);
VOID NTAPI IoUnregisterShutdownNotification(PDEVICE_OBJECT DeviceObject);
VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                        PFILE_OBJECT *FileObject, PDEVICE_OBJECT *DeviceObject);
PEPROCESS NTAPI IoGetRequestorProcess(PIRP Irp);
PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                         BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                         PIO_STATUS_BLOCK IoStatusBlock);


// Cancellation and the cancel-safe queue routines.
BOOLEAN NTAPI IoCancelIrp(PIRP Irp);
VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql);
VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql);
NTSTATUS NTAPI IoCsqInitialize(PIO_CSQ Csq, PIO_CSQ_INSERT_IRP CsqInsertIrp, PIO_CSQ_REMOVE_IRP CsqRemoveIrp,
                               PIO_CSQ_PEEK_NEXT_IRP CsqPeekNextIrp, PIO_CSQ_ACQUIRE_LOCK CsqAcquireLock,
                               PIO_CSQ_RELEASE_LOCK CsqReleaseLock,
                               PIO_CSQ_COMPLETE_CANCELED_IRP CsqCompleteCanceledIrp);
NTSTATUS NTAPI IoCsqInitializeEx(PIO_CSQ Csq, PIO_CSQ_INSERT_IRP_EX CsqInsertIrp, PIO_CSQ_REMOVE_IRP CsqRemoveIrp,
                                 PIO_CSQ_PEEK_NEXT_IRP CsqPeekNextIrp, PIO_CSQ_ACQUIRE_LOCK CsqAcquireLock,
                                 PIO_CSQ_RELEASE_LOCK CsqReleaseLock,
                                 PIO_CSQ_COMPLETE_CANCELED_IRP CsqCompleteCanceledIrp);
VOID NTAPI IoCsqInsertIrp(PIO_CSQ Csq, PIRP Irp, PIO_CSQ_IRP_CONTEXT Context);
NTSTATUS NTAPI IoCsqInsertIrpEx(PIO_CSQ Csq, PIRP Irp, PIO_CSQ_IRP_CONTEXT Context, PVOID InsertContext);
PIRP NTAPI IoCsqRemoveIrp(PIO_CSQ Csq, PIO_CSQ_IRP_CONTEXT Context);
PIRP NTAPI IoCsqRemoveNextIrp(PIO_CSQ Csq, PVOID PeekContext);

NTSIM_END_DECLS

// As wdm.h defines it: an interlocked exchange, so that setting and clearing race safely with
// IoCancelIrp, which takes the routine out the same way.
#define IoSetCancelRoutine(_Irp, _CancelRoutine)                                   \
  ((PDRIVER_CANCEL)(ULONG_PTR)InterlockedExchangePointer((PVOID *)&(_Irp)->CancelRoutine, \
                                                         (PVOID)(ULONG_PTR)(_CancelRoutine)))

#define IoCompleteRequest(Irp, PriorityBoost) IofCompleteRequest((Irp), (PriorityBoost))
#define IoCallDriver(DeviceObject, Irp) IofCallDriver((DeviceObject), (Irp))

static inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) {
  return Irp->Tail.Overlay.CurrentStackLocation;
}
static inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) {
  return Irp->Tail.Overlay.CurrentStackLocation - 1;
}
static inline VOID IoMarkIrpPending(PIRP Irp) {
  IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
}
