// The routines this kernel exports by name, and MmGetSystemRoutineAddress, which finds them in the
// kernel image's export directory. A routine the simulator does not implement is not exported,
// just as an older kernel lacks newer routines; a machine can be told to lack others too.
#include <algorithm>
#include <string>
#include <vector>

#include "kernel.h"

using namespace ntsim;

namespace {

#define EXPORT(name) {#name, reinterpret_cast<void*>(&name)}

const std::vector<KernelModules::Routine>& Exports() {
  static const std::vector<KernelModules::Routine> exports = {
      EXPORT(DbgPrint),
      EXPORT(ExAllocatePoolWithTag),
      EXPORT(ExFreePoolWithTag),
      EXPORT(ExInitializeResourceLite),
      EXPORT(ExDeleteResourceLite),
      EXPORT(ExAcquireResourceSharedLite),
      EXPORT(ExAcquireResourceExclusiveLite),
      EXPORT(ExReleaseResourceLite),
      EXPORT(ExInitializeRundownProtection),
      EXPORT(ExReInitializeRundownProtection),
      EXPORT(ExAcquireRundownProtection),
      EXPORT(ExAcquireRundownProtectionEx),
      EXPORT(ExReleaseRundownProtection),
      EXPORT(ExReleaseRundownProtectionEx),
      EXPORT(ExWaitForRundownProtectionRelease),
      EXPORT(ExRundownCompleted),
      EXPORT(ExInitializePushLock),
      EXPORT(ExfAcquirePushLockExclusive),
      EXPORT(ExfReleasePushLockExclusive),
      EXPORT(ExfAcquirePushLockShared),
      EXPORT(ExfReleasePushLockShared),
      EXPORT(IoCreateDevice),
      EXPORT(IoDeleteDevice),
      EXPORT(IoCreateSymbolicLink),
      EXPORT(IoDeleteSymbolicLink),
      EXPORT(IoGetDeviceObjectPointer),
      EXPORT(IoBuildDeviceIoControlRequest),
      EXPORT(IofCompleteRequest),
      EXPORT(IofCallDriver),
      EXPORT(IoRegisterShutdownNotification),
      EXPORT(IoUnregisterShutdownNotification),
      EXPORT(KeInitializeEvent),
      EXPORT(KeSetEvent),
      EXPORT(KeWaitForSingleObject),
      EXPORT(MmGetSystemRoutineAddress),
      EXPORT(ObfDereferenceObject),
      EXPORT(ObfReferenceObject),
      EXPORT(ObQueryNameString),
      EXPORT(ObReferenceObjectByHandle),
      EXPORT(ObOpenObjectByPointer),
      EXPORT(NtClose),
      EXPORT(NtOpenFile),
      EXPORT(PsSetCreateProcessNotifyRoutine),
      EXPORT(PsSetCreateProcessNotifyRoutineEx),
      {"PsSetCreateProcessNotifyRoutineEx2", reinterpret_cast<void*>(&SetCreateProcessNotifyRoutineEx2)},
      EXPORT(PsSetCreateThreadNotifyRoutine),
      EXPORT(PsRemoveCreateThreadNotifyRoutine),
      EXPORT(PsSetLoadImageNotifyRoutine),
      EXPORT(PsRemoveLoadImageNotifyRoutine),
      EXPORT(CmRegisterCallback),
      EXPORT(CmUnRegisterCallback),
      EXPORT(RtlInitUnicodeString),
      EXPORT(RtlCopyUnicodeString),
      EXPORT(RtlEqualUnicodeString),
      EXPORT(RtlInitializeGenericTableAvl),
      EXPORT(RtlInsertElementGenericTableAvl),
      EXPORT(RtlInsertElementGenericTableFullAvl),
      EXPORT(RtlDeleteElementGenericTableAvl),
      EXPORT(RtlLookupElementGenericTableAvl),
      EXPORT(RtlLookupElementGenericTableFullAvl),
      EXPORT(RtlEnumerateGenericTableAvl),
      EXPORT(RtlEnumerateGenericTableWithoutSplayingAvl),
      EXPORT(RtlGetElementGenericTableAvl),
      EXPORT(RtlNumberGenericTableElementsAvl),
      EXPORT(RtlIsGenericTableEmptyAvl),
      EXPORT(ZwClose),
      EXPORT(ZwCreateFile),
      EXPORT(ZwFlushBuffersFile),
      EXPORT(ZwOpenFile),
      EXPORT(ZwQueryInformationFile),
      EXPORT(ZwReadFile),
      EXPORT(ZwWriteFile),
      EXPORT(ZwOpenKey),
      EXPORT(ZwQueryValueKey),
      EXPORT(ZwSetSecurityObject),
      EXPORT(ZwCreateSection),
      EXPORT(ZwQueryVirtualMemory),
      EXPORT(ZwQueryInformationThread),
      EXPORT(NtQuerySystemInformation),
      EXPORT(ZwQuerySystemInformation),
      EXPORT(KeStackAttachProcess),
      EXPORT(KeUnstackDetachProcess),
      EXPORT(IoGetCurrentProcess),
      EXPORT(PsGetCurrentProcessId),
      EXPORT(PsLookupProcessByProcessId),
      EXPORT(PsLookupThreadByThreadId),
      EXPORT(PsGetProcessPeb),
      EXPORT(PsGetProcessWow64Process),
      EXPORT(PsGetProcessCreateTimeQuadPart),
      EXPORT(PsGetProcessInheritedFromUniqueProcessId),
      EXPORT(RtlWalkFrameChain),
      EXPORT(PsGetProcessSessionId),
      EXPORT(PsReferenceProcessFilePointer),
      EXPORT(PsAcquireProcessExitSynchronization),
      EXPORT(PsReleaseProcessExitSynchronization),
      EXPORT(SeLocateProcessImageName),
      EXPORT(SeQueryAuthenticationIdToken),
      EXPORT(RtlImageNtHeader),
      EXPORT(RtlImageDirectoryEntryToData),
      EXPORT(RtlUnicodeStringToAnsiString),
      EXPORT(RtlFreeAnsiString),
  };
  return exports;
}

#undef EXPORT

}  // namespace

namespace ntsim {

std::vector<KernelModules::Routine> KernelExports(const MachineConfig& config) {
  std::vector<KernelModules::Routine> routines;
  for (const KernelModules::Routine& routine : Exports()) {
    // Windows 10 added the subsystem-wide process notifications.
    if (config.windowsMajor < 10 && routine.name == "PsSetCreateProcessNotifyRoutineEx2") continue;
    if (std::find(config.missingRoutines.begin(), config.missingRoutines.end(), routine.name) !=
        config.missingRoutines.end()) {
      continue;
    }
    routines.push_back(routine);
  }
  return routines;
}

}  // namespace ntsim

PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    K().verifier.Violation("MmGetSystemRoutineAddress", "called above PASSIVE_LEVEL");
  }
  std::string name;
  for (char16_t c : ToU16(SystemRoutineName)) {
    if (c >= 0x80) return nullptr;  // export names are ASCII
    name.push_back(static_cast<char>(c));
  }
  return K().modules.RoutineAddress(name);
}
