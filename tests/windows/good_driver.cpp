// A minimal driver that the post-link check must accept: it imports from ntoskrnl.exe only, has
// no dynamic initializers, and its only global is constant-initialised.
#include <ntifs.h>

namespace {

struct Greeting {
    const char* text;
    ULONG count;
};

// constexpr-initialised: lives in .data/.rdata, no constructor code.
constexpr Greeting kGreeting{"good_driver loaded from %wZ (%lu)\n", 1};
ULONG g_loads = 0;

}  // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    UNREFERENCED_PARAMETER(DriverObject);
    // A function-local static with a constant initializer is fine too.
    static ULONG s_calls = 0;
    ++s_calls;
    g_loads += kGreeting.count;
    DbgPrint(kGreeting.text, RegistryPath, g_loads + s_calls);
    return STATUS_SUCCESS;
}
