// MmGetSystemRoutineAddress: the routines this kernel exports by name. A routine the simulator
// does not implement is not exported, just as an older kernel lacks newer routines.
#include <string>
#include <unordered_map>

#include "kernel.h"

using namespace ntsim;

namespace {

#define EXPORT(name) {u## #name, reinterpret_cast<void*>(&name)}

const std::unordered_map<std::u16string, void*>& Exports() {
  static const std::unordered_map<std::u16string, void*> exports = {
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
      {u"PsSetCreateProcessNotifyRoutineEx2", reinterpret_cast<void*>(&SetCreateProcessNotifyRoutineEx2)},
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
  };
  return exports;
}

#undef EXPORT

}  // namespace

PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    K().verifier.Violation("MmGetSystemRoutineAddress", "called above PASSIVE_LEVEL");
  }
  std::u16string name = ToU16(SystemRoutineName);
  // Windows 10 added the subsystem-wide process notifications.
  if (K().config.windowsMajor < 10 && name == u"PsSetCreateProcessNotifyRoutineEx2") return nullptr;
  auto it = Exports().find(name);
  return it == Exports().end() ? nullptr : it->second;
}
