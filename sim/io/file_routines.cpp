// The file routines of the Zw family, as a driver calls them (previous mode kernel), and NtOpenFile.
#include "kernel.h"

using namespace ntsim;

namespace {

NTSTATUS Finish(PIO_STATUS_BLOCK iosb, const IoResult& result) {
  if (iosb) {
    iosb->Status = result.status;
    iosb->Information = result.information;
  }
  return result.status;
}

// A create as the system service runs it: previous mode kernel for the Zw routines, the caller's
// own for the Nt ones. A kernel handle is only for kernel-mode callers.
NTSTATUS Create(const char* call, KPROCESSOR_MODE mode, PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock, ULONG FileAttributes,
                ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions) {
  if (!ObjectAttributes || !ObjectAttributes->ObjectName || ObjectAttributes->RootDirectory) {
    return STATUS_INVALID_PARAMETER;  // relative opens are not simulated
  }
  if (K().verifier.ShouldFail(call)) return STATUS_INSUFFICIENT_RESOURCES;
  ThreadScope scope(CurrentThread(), mode);
  CreateRequest request;
  request.ntPath = ToU16(ObjectAttributes->ObjectName);
  request.access = DesiredAccess;
  request.share = ShareAccess;
  request.disposition = CreateDisposition;
  request.options = CreateOptions;
  request.attributes = FileAttributes;
  request.kernelHandle = mode == KernelMode && (ObjectAttributes->Attributes & OBJ_KERNEL_HANDLE) != 0;
  request.driverOwned = true;
  ULONG_PTR information = 0;
  NTSTATUS status = K().io.CreateFile(request, FileHandle, &information);
  return Finish(IoStatusBlock, IoResult{status, information});
}

}  // namespace

NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                            PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                            ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                            ULONG EaLength) {
  return Create("ZwCreateFile", KernelMode, FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock,
                FileAttributes, ShareAccess, CreateDisposition, CreateOptions);
}

NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) {
  return ZwCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0, ShareAccess, FILE_OPEN,
                      OpenOptions, nullptr, 0);
}

NTSTATUS NTAPI NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) {
  return Create("NtOpenFile", ExGetPreviousMode(), FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, 0,
                ShareAccess, FILE_OPEN, OpenOptions);
}

NTSTATUS NTAPI ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                          PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                          PULONG Key) {
  ThreadScope kernelCall(CurrentThread(), KernelMode);
  return Finish(IoStatusBlock, K().io.Transfer(FileHandle, IRP_MJ_READ, Buffer, Length, ByteOffset, KernelMode));
}

NTSTATUS NTAPI ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                           PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                           PULONG Key) {
  ThreadScope kernelCall(CurrentThread(), KernelMode);
  return Finish(IoStatusBlock, K().io.Transfer(FileHandle, IRP_MJ_WRITE, Buffer, Length, ByteOffset, KernelMode));
}

NTSTATUS NTAPI ZwFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) {
  ThreadScope kernelCall(CurrentThread(), KernelMode);
  return Finish(IoStatusBlock, K().io.Flush(FileHandle, KernelMode));
}

NTSTATUS NTAPI ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass) {
  ThreadScope kernelCall(CurrentThread(), KernelMode);
  return Finish(IoStatusBlock, K().io.QueryInformation(FileHandle, FileInformationClass, FileInformation, Length,
                                                       KernelMode));
}
