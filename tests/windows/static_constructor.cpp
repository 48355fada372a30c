// A driver with a global whose constructor runs code. Nothing calls static constructors in the
// kernel, so g_processor would silently stay zero; the post-link check must reject the image on
// that alone (everything else about it is a proper driver).
#include <ntifs.h>

namespace {

struct ProcessorTag {
    ULONG number;
    ProcessorTag() : number(KeGetCurrentProcessorNumberEx(nullptr) + 1) {}
};

ProcessorTag g_processor;

}  // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(DriverObject);
    DbgPrint("static_constructor %wZ %lu\n", RegistryPath, g_processor.number);
    return STATUS_SUCCESS;
}
