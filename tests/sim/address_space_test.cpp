// A process's address space as ZwQueryVirtualMemory reports it, and who may read process memory.
#include <gtest/gtest.h>

#include "world.h"

using namespace ntsim;

namespace {

TEST(AddressSpaceTest, RegionsNamesAndTheEndOfUserSpace) {
  World world;
  ProcessSpec spec;
  spec.imagePath = u"\\??\\C:\\Windows\\System32\\cmd.exe";
  spec.mapExecutable = false;
  UserProcess& app = world.CreateProcess(spec);
  world.MapImage(app, u"\\??\\C:\\Windows\\System32\\kernel32.dll", 0x7FF800000000, 0x8000);
  world.AllocatePrivate(app, 0x7FF800010000, 0x3000, false);

  app.InProcess([&] {
    MEMORY_BASIC_INFORMATION info;
    SIZE_T returned = 0;
    auto query = [&](uintptr_t address) {
      return ZwQueryVirtualMemory(NtCurrentProcess(), reinterpret_cast<PVOID>(address), MemoryBasicInformation, &info,
                                  sizeof info, &returned);
    };
    // The image: a header page, then its code; the first query rounds down to the page.
    ASSERT_EQ(query(0x7FF800000123), STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(info.BaseAddress), 0x7FF800000000u);
    EXPECT_EQ(info.RegionSize, 0x1000u);
    EXPECT_EQ(info.Type, ULONG(MEM_IMAGE));
    EXPECT_EQ(info.Protect, ULONG(PAGE_READONLY));
    EXPECT_EQ(returned, sizeof info);
    ASSERT_EQ(query(0x7FF800001000), STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(info.AllocationBase), 0x7FF800000000u);
    EXPECT_EQ(info.Protect, ULONG(PAGE_EXECUTE_READ));
    // Free up to the reserved region, which has no protection.
    ASSERT_EQ(query(0x7FF800008000), STATUS_SUCCESS);
    EXPECT_EQ(info.State, ULONG(MEM_FREE));
    EXPECT_EQ(info.Type, 0u);
    EXPECT_EQ(info.Protect, ULONG(PAGE_NOACCESS));
    EXPECT_EQ(info.RegionSize, 0x8000u);
    ASSERT_EQ(query(0x7FF800010000), STATUS_SUCCESS);
    EXPECT_EQ(info.State, ULONG(MEM_RESERVE));
    EXPECT_EQ(info.Type, ULONG(MEM_PRIVATE));
    EXPECT_EQ(info.Protect, 0u);
    // The last free region ends at the last user page; past it the query fails.
    ASSERT_EQ(query(0x7FFFFFFE0000), STATUS_SUCCESS);
    EXPECT_EQ(0x7FFFFFFE0000 + info.RegionSize, 0x7FFFFFFF0000u);
    EXPECT_EQ(query(0x7FFFFFFF0000), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ZwQueryVirtualMemory(NtCurrentProcess(), nullptr, MemoryBasicInformation, &info, 47, nullptr),
              STATUS_INFO_LENGTH_MISMATCH);

    // The file behind an image view; none behind private memory.
    alignas(8) uint8_t buffer[512];
    auto* name = reinterpret_cast<PUNICODE_STRING>(buffer);
    ASSERT_EQ(ZwQueryVirtualMemory(NtCurrentProcess(), reinterpret_cast<PVOID>(0x7FF800002000),
                                   MemoryMappedFilenameInformation, buffer, sizeof buffer, &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(name->Buffer), name->Length / 2),
              u"\\Device\\HarddiskVolume3\\Windows\\System32\\kernel32.dll");
    EXPECT_EQ(ZwQueryVirtualMemory(NtCurrentProcess(), reinterpret_cast<PVOID>(0x7FF800000000),
                                   MemoryMappedFilenameInformation, buffer, 20, &returned),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(returned, sizeof(UNICODE_STRING) + name->MaximumLength);
    EXPECT_EQ(ZwQueryVirtualMemory(NtCurrentProcess(), reinterpret_cast<PVOID>(0x7FF800010000),
                                   MemoryMappedFilenameInformation, buffer, sizeof buffer, &returned),
              STATUS_INVALID_ADDRESS);
  });
}

TEST(AddressSpaceTest, ProcessMemoryIsReadableOnlyInItsOwnContextAndWhereItDoesNotFault) {
  World world;
  ProcessSpec spec;
  spec.imagePath = u"\\??\\C:\\Windows\\System32\\cmd.exe";
  spec.commandLine = u"cmd /c";
  UserProcess& app = world.CreateProcess(spec);
  PVOID peb = PsGetProcessPeb(app.Process());
  uint64_t parameters = 0;
  EXPECT_EQ(world.AsSystem([&] { return NtSimGuardedCopy(&parameters, static_cast<uint8_t*>(peb) + 0x20, 8); }),
            STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(world.AsSystem([&] {
    KAPC_STATE state;
    KeStackAttachProcess(app.Process(), &state);
    NTSTATUS status = NtSimGuardedCopy(&parameters, static_cast<uint8_t*>(peb) + 0x20, 8);
    KeUnstackDetachProcess(&state);
    return status;
  }),
            STATUS_SUCCESS);
  EXPECT_EQ(parameters, reinterpret_cast<uintptr_t>(app.Environment().parameters));
  world.MakeProcessMemoryFault(app, ProcessMemoryPart::CommandLine);
  EXPECT_EQ(app.InProcess([&] { return NtSimGuardedCopy(&parameters, app.Environment().commandLine, 2); }),
            STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(app.InProcess([&] { return NtSimGuardedCopy(&parameters, app.Environment().parameters, 8); }),
            STATUS_SUCCESS);
  world.ExitProcess(app);
}

}  // namespace
