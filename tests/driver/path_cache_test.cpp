// The path cache: keys, shared reference-counted nodes, removal at the last release, and a release
// racing adds of the same path on other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "names/path_cache.h"
#include "test_support.h"

using sentrel_test::Counted;
using ntsim::World;

namespace {

class PathCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(&mgr, 0, sizeof mgr);
    ASSERT_EQ(sk_InitPathMgr(&mgr), STATUS_SUCCESS);
  }
  void TearDown() override {
    if (mgr.Flags & SK_PATH_MGR_INITED) {
      EXPECT_EQ(sk_UninitPathMgr(&mgr), STATUS_SUCCESS);
    }
    EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  }
  ULONG Nodes() { return RtlNumberGenericTableElementsAvl(&mgr.Table); }
  NTSTATUS Add(const std::u16string& path, PPATH_CACHE_NODE* node) {
    UNICODE_STRING s = Counted(path);
    return sk_AddPathCache(&mgr, &s, node);
  }
  static std::u16string PathOf(PPATH_CACHE_NODE node) {
    return std::u16string(reinterpret_cast<const char16_t*>(node->Path), node->Length / 2);
  }
  World world;
  SK_PATH_MGR mgr;
};

TEST_F(PathCacheTest, KeyIsTheTwoHashesOfTheSignExtendedBytes) {
  std::u16string a = u"A", accented = u"\u00e9x", empty;
  UNICODE_STRING s = Counted(a);
  EXPECT_EQ(sk_PathCacheKey(&s), 0xc8440f0500410fffull);
  s = Counted(accented);  // 0xE9 is a negative byte: it enters both sums as 0xFFFFFFE9
  EXPECT_EQ(sk_PathCacheKey(&s), 0x3ac17fddd25b5c5full);
  s = Counted(empty);
  EXPECT_EQ(sk_PathCacheKey(&s), 0u);
}

TEST_F(PathCacheTest, OnePathOneNodeSharedUntilTheLastRelease) {
  PPATH_CACHE_NODE first = nullptr, second = nullptr;
  ASSERT_EQ(Add(u"\\Device\\HarddiskVolume3\\Windows\\System32\\ntdll.dll", &first), STATUS_SUCCESS);
  ASSERT_EQ(Add(u"\\Device\\HarddiskVolume3\\Windows\\System32\\ntdll.dll", &second), STATUS_SUCCESS);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->RefCount, 2);
  EXPECT_EQ(first->Tag, 0xFCF5);
  EXPECT_EQ(first->Size, first->Length + 24);
  EXPECT_EQ(PathOf(first), u"\\Device\\HarddiskVolume3\\Windows\\System32\\ntdll.dll");
  EXPECT_EQ(Nodes(), 1u);
  EXPECT_EQ(sk_ReleasePathCache_Node(&mgr, first), STATUS_SUCCESS);
  EXPECT_EQ(Nodes(), 1u);
  EXPECT_EQ(sk_ReleasePathCache_Node(&mgr, second), STATUS_SUCCESS);
  EXPECT_EQ(Nodes(), 0u);

  // Paths are bytes: another letter case is another node.
  PPATH_CACHE_NODE upper = nullptr, lower = nullptr;
  ASSERT_EQ(Add(u"C:\\Windows\\notepad.exe", &upper), STATUS_SUCCESS);
  ASSERT_EQ(Add(u"c:\\windows\\notepad.exe", &lower), STATUS_SUCCESS);
  EXPECT_NE(upper, lower);
  EXPECT_EQ(Nodes(), 2u);
  sk_ReleasePathCache_Node(&mgr, upper);
  sk_ReleasePathCache_Node(&mgr, lower);
}

TEST_F(PathCacheTest, ANodeAddedWithoutAHolderStaysUntilTheManagerStops) {
  ASSERT_EQ(Add(u"\\SystemRoot\\explorer.exe", nullptr), STATUS_SUCCESS);
  EXPECT_EQ(Nodes(), 1u);
  PPATH_CACHE_NODE node = nullptr;
  ASSERT_EQ(Add(u"\\SystemRoot\\explorer.exe", &node), STATUS_SUCCESS);
  EXPECT_EQ(node->RefCount, 1);
  EXPECT_EQ(sk_UninitPathMgr(&mgr), STATUS_SUCCESS);  // removes every node, held or not
  EXPECT_EQ(sk_UninitPathMgr(&mgr), STATUS_SUCCESS);  // a stopped manager stops with success
}

TEST_F(PathCacheTest, BadInputAndFailedAllocationsLeaveTheTableAsItWas) {
  PPATH_CACHE_NODE node = nullptr;
  std::u16string path = u"\\a";
  UNICODE_STRING s = Counted(path);
  EXPECT_EQ(sk_AddPathCache(nullptr, &s, &node), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(sk_AddPathCache(&mgr, nullptr, &node), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(sk_ReleasePathCache_Node(&mgr, nullptr), STATUS_INVALID_PARAMETER);
  // Too long for a node's 16-bit size: refused, not cut.
  std::u16string longest(SK_PATH_CACHE_MAX_LENGTH / 2, u'x'), tooLong(SK_PATH_CACHE_MAX_LENGTH / 2 + 1, u'x');
  EXPECT_EQ(Add(tooLong, &node), STATUS_NAME_TOO_LONG);
  ASSERT_EQ(Add(longest, &node), STATUS_SUCCESS);
  EXPECT_EQ(node->Size, SK_PATH_CACHE_MAX_LENGTH - 1 + 24);
  sk_ReleasePathCache_Node(&mgr, node);
  // The temporary node, then the table's element.
  for (uint64_t n : {1u, 2u}) {
    world.verifier().FailNth(n);
    EXPECT_EQ(Add(u"\\b", &node), STATUS_INSUFFICIENT_RESOURCES) << n;
    EXPECT_EQ(Nodes(), 0u);
    EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  }
  world.verifier().FailNth(0);
  SK_PATH_MGR stopped = {};
  EXPECT_EQ(sk_AddPathCache(&stopped, &s, &node), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(PathCacheTest, AReleaseRacingAddsOfTheSamePathNeverFreesAHeldNode) {
  const std::u16string path = u"\\Device\\HarddiskVolume3\\Windows\\System32\\kernel32.dll";
  std::atomic<int> badNodes{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 400; ++i) {
        PPATH_CACHE_NODE node = nullptr;
        if (Add(path, &node) != STATUS_SUCCESS) {
          badNodes.fetch_add(1);
          continue;
        }
        // While held, the node is whole and counted.
        if (PathOf(node) != path || SK_READ_ONCE(node->RefCount) < 1) badNodes.fetch_add(1);
        sk_ReleasePathCache_Node(&mgr, node);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(badNodes.load(), 0);
  EXPECT_EQ(Nodes(), 0u);  // the last release of each generation removed it
}

}  // namespace
