// A driver image that forgets to remove its notify routines when it unloads: the unload verdict
// must name them, since the kernel would go on calling into the unmapped image.
#include "ntsim/ntsim.h"

namespace {

VOID NTAPI OnThread(HANDLE, HANDLE, BOOLEAN) {}
VOID NTAPI OnImage(PUNICODE_STRING, HANDLE, PIMAGE_INFO) {}
VOID NTAPI OnProcess(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO) {}
VOID NTAPI Unload(PDRIVER_OBJECT) { PsSetCreateProcessNotifyRoutineEx(OnProcess, TRUE); }

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
  DriverObject->DriverUnload = Unload;
  NTSTATUS status = PsSetCreateProcessNotifyRoutineEx(OnProcess, FALSE);
  if (NT_SUCCESS(status)) status = PsSetCreateThreadNotifyRoutine(OnThread);
  if (NT_SUCCESS(status)) status = PsSetLoadImageNotifyRoutine(OnImage);
  return status;
}
