// A driver that imports ExAllocatePool2, which kernels before Windows 10 version 2004 do not
// export: Windows 7 would refuse to load it. The post-link check must reject it for that alone.
#include <ntifs.h>

extern "C" __declspec(dllimport) PVOID NTAPI ExAllocatePool2(ULONG64 Flags, SIZE_T NumberOfBytes, ULONG Tag);

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(DriverObject);
    PVOID block = ExAllocatePool2(0x40 /* POOL_FLAG_NON_PAGED */, 16, 'tsTN');
    DbgPrint("newer_import %wZ %p\n", RegistryPath, block);
    if (block) ExFreePoolWithTag(block, 'tsTN');
    return STATUS_SUCCESS;
}
