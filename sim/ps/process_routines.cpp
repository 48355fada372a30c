// What drivers may ask about processes and threads: lookups by id, the environment block, the
// executable's name and file, exit synchronization, and a thread's start address.
#include "kernel.h"

using namespace ntsim;

namespace ntsim {
void NoteDriverReference(void* body);  // a reference handed to the driver, which must drop it
}

namespace {

constexpr ULONG kImageNameTag = 0x6E496553;  // "SeIn"

HANDLE IdHandle(uint64_t id) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id)); }
uint64_t HandleId(HANDLE handle) { return reinterpret_cast<uintptr_t>(handle); }

}  // namespace

NTSTATUS NTAPI PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS* Process) {
  Kernel& k = K();
  _KPROCESS* process = k.ps.ReferenceProcess(HandleId(ProcessId));
  if (!process) return STATUS_INVALID_CID;  // as from Windows Vista on
  NoteDriverReference(process);
  *Process = process;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsLookupThreadByThreadId(HANDLE ThreadId, PETHREAD* Thread) {
  Kernel& k = K();
  _KTHREAD* thread = k.ps.ReferenceThread(HandleId(ThreadId));
  if (!thread) return STATUS_INVALID_PARAMETER;
  NoteDriverReference(thread);
  *Thread = thread;
  return STATUS_SUCCESS;
}

PPEB NTAPI PsGetProcessPeb(PEPROCESS Process) { return static_cast<PPEB>(Process->peb); }
PVOID NTAPI PsGetProcessWow64Process(PEPROCESS Process) { return Process->wow64Peb; }
LONGLONG NTAPI PsGetProcessCreateTimeQuadPart(PEPROCESS Process) { return Process->createTime; }
HANDLE NTAPI PsGetProcessInheritedFromUniqueProcessId(PEPROCESS Process) { return IdHandle(Process->parentId); }
ULONG NTAPI PsGetProcessSessionId(PEPROCESS Process) { return Process->sessionId; }
BOOLEAN NTAPI PsIsSystemThread(PETHREAD Thread) { return Thread->process->isSystem ? TRUE : FALSE; }
PEPROCESS NTAPI PsGetThreadProcess(PETHREAD Thread) { return Thread->process; }

NTSTATUS NTAPI SeLocateProcessImageName(PEPROCESS Process, PUNICODE_STRING* pImageFileName) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    K().verifier.Violation("SeLocateProcessImageName", "called above PASSIVE_LEVEL");
  }
  size_t bytes = Process->devicePath.size() * sizeof(WCHAR);
  auto* name = static_cast<PUNICODE_STRING>(
      K().pool.Allocate(PagedPool, sizeof(UNICODE_STRING) + bytes, kImageNameTag, "SeLocateProcessImageName"));
  if (!name) return STATUS_INSUFFICIENT_RESOURCES;
  name->Length = name->MaximumLength = static_cast<USHORT>(bytes);
  name->Buffer = bytes ? reinterpret_cast<PWSTR>(name + 1) : nullptr;
  if (bytes) std::memcpy(name->Buffer, Process->devicePath.data(), bytes);
  *pImageFileName = name;
  return STATUS_SUCCESS;
}

// The file object of the section the process was created from; a process that has exited (or the
// System process) has none.
NTSTATUS NTAPI PsReferenceProcessFilePointer(PEPROCESS Process, PFILE_OBJECT* FileObject) {
  PFILE_OBJECT file = K().ps.ReferenceImageFile(Process);
  if (!file) return STATUS_UNSUCCESSFUL;
  NoteDriverReference(file);
  *FileObject = file;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsAcquireProcessExitSynchronization(PEPROCESS Process) {
  return K().ps.AcquireExitSynchronization(Process) ? STATUS_SUCCESS : STATUS_PROCESS_IS_TERMINATING;
}

VOID NTAPI PsReleaseProcessExitSynchronization(PEPROCESS Process) { K().ps.ReleaseExitSynchronization(Process); }

NTSTATUS NTAPI ZwQueryInformationThread(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                        PVOID ThreadInformation, ULONG ThreadInformationLength, PULONG ReturnLength) {
  Kernel& k = K();
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    k.verifier.Violation("ZwQueryInformationThread", "called above PASSIVE_LEVEL");
  }
  if (ThreadInformationClass != ThreadQuerySetWin32StartAddress) return STATUS_INVALID_INFO_CLASS;
  if (ThreadInformationLength != sizeof(PVOID)) return STATUS_INFO_LENGTH_MISMATCH;
  _KTHREAD* thread = nullptr;
  if (ThreadHandle == NtCurrentThread()) {
    thread = CurrentThread();
    k.ob.Reference(thread);
  } else {
    void* body = nullptr;
    NTSTATUS status =
        k.ob.ReferenceByHandle(ThreadHandle, &k.ob.types.thread, KernelMode, THREAD_QUERY_INFORMATION, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    thread = static_cast<_KTHREAD*>(body);
  }
  PVOID start = reinterpret_cast<PVOID>(static_cast<uintptr_t>(thread->win32StartAddress));
  std::memcpy(ThreadInformation, &start, sizeof start);
  if (ReturnLength) *ReturnLength = sizeof start;
  k.ob.Dereference(thread);
  return STATUS_SUCCESS;
}

ULONG NTAPI RtlWalkFrameChain(PVOID* Callers, ULONG Count, ULONG Flags) {
  // Flag 1: the current thread's user-mode stack; without it the kernel-mode frames, which the
  // simulated kernel does not have.
  _KTHREAD* thread = CurrentThread();
  if (!(Flags & 1) || !thread || !Callers) return 0;
  ULONG depth = 0;
  for (uint64_t frame : thread->userStack) {
    if (depth == Count) break;
    Callers[depth++] = reinterpret_cast<PVOID>(static_cast<uintptr_t>(frame));
  }
  return depth;
}
