// String blocks, the object-name query and the 64-bit key comparison.
#include <gtest/gtest.h>

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/table_compare.h"
#include "names/string_block.h"
#include "test_support.h"

using namespace sentrel_test;
using ntsim::World;

namespace {

TEST(StringBlockTest, BlockIsOneZeroedPagedAllocationWithTheBufferBehindTheHeader) {
  World world;
  PUNICODE_STRING block = skt_AllocateUnicodeStringSelf(NonPagedPool, 40);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->Length, 0);
  EXPECT_EQ(block->MaximumLength, 40);
  EXPECT_EQ(reinterpret_cast<char*>(block->Buffer), reinterpret_cast<char*>(block) + 16);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(block->Buffer[i], 0);
  auto outstanding = world.kernel().pool.Outstanding();
  ASSERT_EQ(outstanding.size(), 1u);
  EXPECT_EQ(outstanding[0].size, 56u);
  EXPECT_EQ(outstanding[0].tag, static_cast<ULONG>(SK_TAG_STRING_BLOCK));
  EXPECT_EQ(outstanding[0].type, PagedPool);  // whatever the caller asked for

  EXPECT_EQ(skt_FreeUnicodeStringSelf(block), STATUS_SUCCESS);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());

  EXPECT_EQ(skt_AllocateUnicodeStringSelf(PagedPool, 0x10000), nullptr);  // beyond a counted string
  world.verifier().FailNth(1);
  EXPECT_EQ(skt_AllocateUnicodeStringSelf(PagedPool, 8), nullptr);
}

TEST(StringBlockTest, FreeOfASeparateBufferFreesOnlyTheBuffer) {
  World world;
  UNICODE_STRING header;
  header.Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, 8, SK_TAG_STRING_BLOCK));
  header.Length = 4;
  header.MaximumLength = 8;
  EXPECT_EQ(skt_FreeUnicodeStringSelf(&header), STATUS_SUCCESS);
  EXPECT_EQ(header.Buffer, nullptr);
  EXPECT_EQ(header.Length, 0);
  EXPECT_EQ(header.MaximumLength, 0);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  // Nothing to free.
  EXPECT_EQ(skt_FreeUnicodeStringSelf(&header), STATUS_INVALID_PARAMETER);
}

TEST(StringBlockTest, NameQueryGivesTheKeyNameInOneSelfContainedBlock) {
  World world;
  PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
  TraceLevel = SK_TRACE_TOOL;
  world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", 1);
  // Opened through the CurrentControlSet link: named by the control set it leads to.
  std::u16string path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Sentrel\\Debug";
  UNICODE_STRING name = Counted(path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
  HANDLE key;
  ASSERT_EQ(ZwOpenKey(&key, KEY_READ, &attributes), STATUS_SUCCESS);
  PVOID object;
  ASSERT_EQ(ObReferenceObjectByHandle(key, 0, *CmKeyObjectType, KernelMode, &object, nullptr), STATUS_SUCCESS);

  PUNICODE_STRING keyName = nullptr;
  ASSERT_EQ(skt_GetNameInfo(object, &keyName), STATUS_SUCCESS);
  EXPECT_EQ(Text(keyName), DebugKey());
  EXPECT_EQ(reinterpret_cast<char*>(keyName->Buffer), reinterpret_cast<char*>(keyName) + 16);
  char expected[160];
  std::snprintf(expected, sizeof expected, "Object:%016llX -> ", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(object)));
  EXPECT_TRUE(HasMessage(world, expected + ntsim::ToUtf8(DebugKey())));
  EXPECT_EQ(skt_FreeUnicodeStringSelf(keyName), STATUS_SUCCESS);

  // No room for the copy: the query fails cleanly.
  world.verifier().FailNth(1);
  EXPECT_EQ(skt_GetNameInfo(object, &keyName), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(HasMessage(world, "pName alloc fail"));

  // An object without a name has no name to give.
  EXPECT_EQ(skt_GetNameInfo(PsGetCurrentThread(), &keyName), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_TRUE(HasMessage(world, "ObQueryNameString fail Status:00000000"));

  ObDereferenceObject(object);
  ZwClose(key);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  PrintLevel = TraceLevel = 0;
}

TEST(CompareKey64Test, OrdersBySecondEightBytesUnsigned) {
  struct Element {
    ULONG64 header;
    ULONG64 key;
  };
  Element low{0xFFFFFFFFFFFFFFFFull, 1}, high{0, 0xFFFFFFFFFFFFFFFFull}, same{7, 1};
  EXPECT_EQ(skt_CompareKey64(nullptr, &low, &high), GenericLessThan);
  EXPECT_EQ(skt_CompareKey64(nullptr, &high, &low), GenericGreaterThan);
  EXPECT_EQ(skt_CompareKey64(nullptr, &low, &same), GenericEqual);
}

}  // namespace
