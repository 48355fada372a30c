// Kernel modules and exported routines.
#include <gtest/gtest.h>

#include "core/debug_log.h"
#include "monitor/module_query.h"
#include "query_test_support.h"

using namespace ntsim;
using sentrel_test::HasMessage;

namespace {

class ModuleQueryTest : public sentrel_test::QueryTest {};

PVOID Find(PVOID base, const char* name) {
  ANSI_STRING text;
  RtlInitAnsiString(&text, name);
  return skt_FindExportedRoutineByName(base, &text);
}

TEST_F(ModuleQueryTest, ExportLookupFindsEveryNameOfTheSortedTableAndNothingElse) {
  ExportImageSpec spec;
  spec.dllName = "test.sys";
  spec.names = {"Alpha", "Beta", "Delta", "Gamma", "Omega", "Zeta"};
  spec.nameOrdinals = {5, 4, 3, 2, 1, 9};  // Zeta's ordinal is beyond the function table
  spec.functions = {0x1100, 0x1200, 0x1300, 0x1400, 0x1500, 0x1600};
  std::vector<uint8_t> image = BuildExportImage(spec);
  PVOID base = image.data();
  auto at = [&](uint32_t rva) { return static_cast<PVOID>(image.data() + rva); };
  EXPECT_EQ(Find(base, "Alpha"), at(0x1600));  // the first name
  EXPECT_EQ(Find(base, "Beta"), at(0x1500));
  EXPECT_EQ(Find(base, "Delta"), at(0x1400));
  EXPECT_EQ(Find(base, "Gamma"), at(0x1300));
  EXPECT_EQ(Find(base, "Omega"), at(0x1200));  // the last name that has a function
  EXPECT_EQ(Find(base, "Zeta"), nullptr);      // present, but its ordinal is out of range
  for (const char* absent : {"Aaa", "Alph", "Alphaa", "Epsilon", "Zz", "alpha", ""}) {
    EXPECT_EQ(Find(base, absent), nullptr) << absent;
  }
  EXPECT_TRUE(HasMessage(world, "Can't find Zeta"));
  // A counted name is compared by its length, not by what follows it in memory.
  ANSI_STRING prefix = {4, 6, const_cast<PCHAR>("Betas")};
  EXPECT_EQ(skt_FindExportedRoutineByName(base, &prefix), at(0x1500));

  ExportImageSpec empty;
  std::vector<uint8_t> bare = BuildExportImage(empty);
  EXPECT_EQ(Find(bare.data(), "Alpha"), nullptr);
  std::vector<uint8_t> notAnImage(4096, 0);
  EXPECT_EQ(Find(notAnImage.data(), "Alpha"), nullptr);
  EXPECT_TRUE(HasMessage(world, "Can't find Export Directory"));
  EXPECT_EQ(Find(nullptr, "Alpha"), nullptr);
  EXPECT_EQ(skt_FindExportedRoutineByName(base, nullptr), nullptr);

  // By a UTF-16 name: the kernel image answers as the kernel's own lookup does.
  PVOID kernel = reinterpret_cast<PVOID>(world.kernel().modules.KernelImageBase());
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"ObQueryNameString");
  EXPECT_EQ(world.AsSystem([&] { return skt_MmGetSystemRoutineAddress(kernel, &name); }),
            MmGetSystemRoutineAddress(&name));
  RtlInitUnicodeString(&name, L"NoSuchRoutine");
  EXPECT_EQ(world.AsSystem([&] { return skt_MmGetSystemRoutineAddress(kernel, &name); }), nullptr);
  EXPECT_EQ(skt_MmGetSystemRoutineAddress(nullptr, &name), nullptr);
  // Without memory for the name's conversion, the kernel's lookup answers instead.
  RtlInitUnicodeString(&name, L"ZwClose");
  world.verifier().FailNth(1);
  EXPECT_EQ(world.AsSystem([&] { return skt_MmGetSystemRoutineAddress(kernel, &name); }),
            MmGetSystemRoutineAddress(&name));
  EXPECT_TRUE(world.verifier().InjectedFailure());
}

struct ModuleWalk {
  std::vector<std::string> paths;
  size_t stopAt = SIZE_MAX;
};
NTSTATUS NTAPI CollectModule(PRTL_PROCESS_MODULE_INFORMATION entry, PVOID context) {
  auto* walk = static_cast<ModuleWalk*>(context);
  walk->paths.push_back(reinterpret_cast<const char*>(entry->FullPathName));
  return walk->paths.size() >= walk->stopAt ? STATUS_NOT_FOUND : STATUS_SUCCESS;
}

TEST_F(ModuleQueryTest, ModuleWalkAndTheStrictAddressMatch) {
  // Enough drivers that the first snapshot buffer is too small.
  for (int i = 0; i < 80; ++i) {
    world.LoadKernelImage(u"\\SystemRoot\\System32\\drivers\\extra" + std::u16string(1, u'0' + i % 10) + u".sys");
  }
  ModuleWalk all;
  EXPECT_EQ(world.AsSystem([&] { return skt_EnumSysModule(CollectModule, &all); }), STATUS_SUCCESS);
  ASSERT_EQ(all.paths.size(), 82u);
  EXPECT_EQ(all.paths[0], "\\SystemRoot\\system32\\ntoskrnl.exe");
  EXPECT_EQ(all.paths[1], "\\SystemRoot\\system32\\hal.dll");
  ModuleWalk stopped;
  stopped.stopAt = 2;
  EXPECT_EQ(world.AsSystem([&] { return skt_EnumSysModule(CollectModule, &stopped); }), STATUS_NOT_FOUND);
  EXPECT_EQ(stopped.paths.size(), 2u);
  EXPECT_EQ(skt_EnumSysModule(nullptr, nullptr), STATUS_INVALID_PARAMETER);
  world.verifier().FailNth(1);
  EXPECT_EQ(world.AsSystem([&] { return skt_EnumSysModule(CollectModule, &stopped); }), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(HasMessage(world, "ProcModInfo alloc fail"));

  RTL_PROCESS_MODULE_INFORMATION module = {};
  module.ImageBase = reinterpret_cast<PVOID>(0xFFFFF80000100000);
  module.ImageSize = 0x1000;
  auto matches = [&](uintptr_t address, PVOID* base, PULONG size) {
    MODULE_ADDRESS_QUERY query = {STATUS_INSUFFICIENT_RESOURCES, reinterpret_cast<PVOID>(address), base, size};
    NTSTATUS walk = skt_ModuleContainsAddress(&module, &query);
    EXPECT_EQ(walk, NT_SUCCESS(query.Status) ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS);
    return NT_SUCCESS(query.Status);
  };
  PVOID base = nullptr;
  ULONG size = 0;
  EXPECT_FALSE(matches(0xFFFFF80000100000, &base, &size));  // the base itself
  EXPECT_FALSE(matches(0xFFFFF80000101000, &base, &size));  // the end
  EXPECT_EQ(base, nullptr);
  EXPECT_TRUE(matches(0xFFFFF80000100FFF, nullptr, nullptr));
  EXPECT_TRUE(matches(0xFFFFF80000100001, &base, &size));
  EXPECT_EQ(base, module.ImageBase);
  EXPECT_EQ(size, 0x1000u);
}

}  // namespace
