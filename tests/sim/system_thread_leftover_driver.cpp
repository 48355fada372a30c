// A driver image that starts a system thread and unloads without making it end: the unload
// verdict must say so, since the thread would go on running code of the unmapped image.
#include "ntsim/ntsim.h"

namespace {

KEVENT g_never;  // nobody sets it: the thread waits until the machine goes away

VOID NTAPI Worker(PVOID) {
  KeWaitForSingleObject(&g_never, Executive, KernelMode, FALSE, nullptr);
  PsTerminateSystemThread(STATUS_SUCCESS);
}

VOID NTAPI Unload(PDRIVER_OBJECT) {}

}  // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
  DriverObject->DriverUnload = Unload;
  KeInitializeEvent(&g_never, NotificationEvent, FALSE);
  HANDLE thread = nullptr;
  NTSTATUS status = PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Worker, nullptr);
  if (NT_SUCCESS(status)) ZwClose(thread);
  return status;
}
