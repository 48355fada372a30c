// A driver that imports a routine from ntdll.dll, which exists only in user mode: the kernel
// loader would refuse the image. The post-link check must reject it on its imports alone.
#include <ntifs.h>

extern "C" __declspec(dllimport) ULONG NTAPI RtlGetLastWin32Error(VOID);

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(DriverObject);
    DbgPrint("forbidden_import %wZ %lu\n", RegistryPath, RtlGetLastWin32Error());
    return STATUS_SUCCESS;
}
