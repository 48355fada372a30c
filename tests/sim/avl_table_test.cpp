// AVL generic tables: ordering, the caller's allocate and free routines, enumeration and indexing,
// and the shape of the tree the kernel's layout exposes (the root at BalancedRoot.RightChild).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "ntsim/ntsim.h"

namespace {

// Elements keyed by a full 64-bit unsigned value, as the driver's tables are.
struct Element {
  ULONG64 Key;
  ULONG64 Value;
};

// A table whose routines keep books on every node they hand out and take back.
class TestTable {
 public:
  TestTable() { RtlInitializeGenericTableAvl(&table_, Compare, Allocate, Free, this); }
  ~TestTable() {
    for (void* node : live_) free(node);
  }
  TestTable(const TestTable&) = delete;
  TestTable& operator=(const TestTable&) = delete;

  PRTL_AVL_TABLE get() { return &table_; }

  Element* Insert(ULONG64 key, ULONG64 value, BOOLEAN* new_element = nullptr) {
    Element element{key, value};
    return static_cast<Element*>(
        RtlInsertElementGenericTableAvl(&table_, &element, sizeof(element), new_element));
  }
  Element* Lookup(ULONG64 key) {
    Element probe{key, 0};
    return static_cast<Element*>(RtlLookupElementGenericTableAvl(&table_, &probe));
  }
  BOOLEAN Delete(ULONG64 key) {
    Element probe{key, 0};
    return RtlDeleteElementGenericTableAvl(&table_, &probe);
  }
  std::vector<ULONG64> KeysWithoutSplaying() {
    std::vector<ULONG64> keys;
    PVOID restart = nullptr;
    while (auto* e = static_cast<Element*>(RtlEnumerateGenericTableWithoutSplayingAvl(&table_, &restart))) {
      keys.push_back(e->Key);
    }
    return keys;
  }

  int allocations = 0;
  int frees = 0;
  int fail_allocations = 0;  // how many allocations from now on return NULL
  std::vector<CLONG> sizes;
  std::set<void*> live_;
  void* last_allocated = nullptr;
  void* last_freed = nullptr;

 private:
  static TestTable* Self(PRTL_AVL_TABLE table) { return static_cast<TestTable*>(table->TableContext); }

  static RTL_GENERIC_COMPARE_RESULTS NTAPI Compare(PRTL_AVL_TABLE, PVOID first, PVOID second) {
    ULONG64 a = static_cast<Element*>(first)->Key, b = static_cast<Element*>(second)->Key;
    return a < b ? GenericLessThan : a > b ? GenericGreaterThan : GenericEqual;
  }
  static PVOID NTAPI Allocate(PRTL_AVL_TABLE table, CLONG size) {
    TestTable* self = Self(table);
    self->sizes.push_back(size);
    if (self->fail_allocations > 0) {
      self->fail_allocations--;
      return nullptr;
    }
    void* node = malloc(size);
    memset(node, 0xCD, size);  // the table must initialise what it uses
    self->allocations++;
    self->live_.insert(node);
    self->last_allocated = node;
    return node;
  }
  static VOID NTAPI Free(PRTL_AVL_TABLE table, PVOID buffer) {
    TestTable* self = Self(table);
    EXPECT_EQ(self->live_.count(buffer), 1u) << "freed a node the table was not given";
    self->live_.erase(buffer);
    self->frees++;
    self->last_freed = buffer;
    free(buffer);
  }

  RTL_AVL_TABLE table_;
};

// Checks the tree hanging from BalancedRoot.RightChild: parent links, key order, the Balance of each
// node against the heights of its subtrees. Returns the tree's height (0 when empty).
int CheckSubtree(PRTL_BALANCED_LINKS node, PRTL_BALANCED_LINKS parent, const ULONG64* low,
                 const ULONG64* high, size_t* count) {
  if (node == nullptr) return 0;
  EXPECT_EQ(node->Parent, parent);
  ULONG64 key = reinterpret_cast<Element*>(node + 1)->Key;
  if (low != nullptr) {
    EXPECT_GT(key, *low);
  }
  if (high != nullptr) {
    EXPECT_LT(key, *high);
  }
  ++*count;
  int left = CheckSubtree(node->LeftChild, node, low, &key, count);
  int right = CheckSubtree(node->RightChild, node, &key, high, count);
  EXPECT_EQ(node->Balance, right - left) << "key " << key;
  return 1 + std::max(left, right);
}

int CheckTree(PRTL_AVL_TABLE table) {
  EXPECT_EQ(table->BalancedRoot.LeftChild, nullptr);
  size_t count = 0;
  int height = CheckSubtree(table->BalancedRoot.RightChild, &table->BalancedRoot, nullptr, nullptr, &count);
  EXPECT_EQ(count, RtlNumberGenericTableElementsAvl(table));
  return height;
}

// An AVL tree of n nodes is at most about 1.44 log2(n + 2) tall.
int MaxAvlHeight(size_t n) { return static_cast<int>(1.4405 * std::log2(static_cast<double>(n) + 2.0)); }

constexpr ULONG64 kHigh = 0x8000000000000000ull;  // compares above every 32-bit or signed-positive key

TEST(AvlTable, InsertsLookUpAndEnumerateInKeyOrder) {
  TestTable t;
  EXPECT_TRUE(RtlIsGenericTableEmptyAvl(t.get()));
  PVOID restart = nullptr;
  EXPECT_EQ(RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &restart), nullptr);
  EXPECT_EQ(RtlEnumerateGenericTableAvl(t.get(), TRUE), nullptr);
  EXPECT_EQ(RtlGetElementGenericTableAvl(t.get(), 0), nullptr);

  // Keys that differ only above bit 31, and keys with the top bit set, must not collide or wrap.
  const std::vector<ULONG64> keys = {5, kHigh + 1, 0x100000005ull, 0, kHigh, 0xFFFFFFFFFFFFFFFFull,
                                     0xFFFFFFFFull, 7, 0x200000000ull, 1};
  for (ULONG64 key : keys) {
    Element source{key, key ^ 0x5A5A};
    BOOLEAN is_new = FALSE;
    auto* e = static_cast<Element*>(RtlInsertElementGenericTableAvl(t.get(), &source, sizeof(source), &is_new));
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(is_new);
    EXPECT_NE(e, &source) << "the element is a copy in the table's node";
    EXPECT_EQ(e->Key, key);
    EXPECT_EQ(e->Value, key ^ 0x5A5A);
  }
  EXPECT_FALSE(RtlIsGenericTableEmptyAvl(t.get()));
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(t.get()), keys.size());

  for (ULONG64 key : keys) {
    Element* e = t.Lookup(key);
    ASSERT_NE(e, nullptr) << key;
    EXPECT_EQ(e->Key, key);
  }
  EXPECT_EQ(t.Lookup(5 + 0x100000000ull * 2), nullptr);
  EXPECT_EQ(t.Lookup(2), nullptr);

  std::vector<ULONG64> sorted = keys;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(t.KeysWithoutSplaying(), sorted);

  std::vector<ULONG64> enumerated;
  for (auto* e = static_cast<Element*>(RtlEnumerateGenericTableAvl(t.get(), TRUE)); e != nullptr;
       e = static_cast<Element*>(RtlEnumerateGenericTableAvl(t.get(), FALSE))) {
    enumerated.push_back(e->Key);
  }
  EXPECT_EQ(enumerated, sorted);
  CheckTree(t.get());
}

TEST(AvlTable, InsertOfAnEqualKeyReturnsTheExistingElementWithoutAllocating) {
  TestTable t;
  BOOLEAN is_new = FALSE;
  Element* first = t.Insert(42, 1, &is_new);
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(is_new);
  t.Insert(41, 0);
  t.Insert(43, 0);
  int allocations = t.allocations;

  is_new = TRUE;
  Element* again = t.Insert(42, 2, &is_new);
  EXPECT_EQ(again, first);
  EXPECT_FALSE(is_new);
  EXPECT_EQ(first->Value, 1u) << "the existing element is left as it was";
  EXPECT_EQ(t.allocations, allocations);
  EXPECT_EQ(t.sizes.size(), static_cast<size_t>(allocations)) << "the allocate routine was not even asked";
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(t.get()), 3u);

  // NewElement is optional.
  EXPECT_EQ(t.Insert(42, 3, nullptr), first);
  EXPECT_NE(t.Insert(44, 3, nullptr), nullptr);
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(t.get()), 4u);
}

TEST(AvlTable, AllocateRoutineSeesLinksPlusElementAndItsFailurePropagates) {
  TestTable t;
  // Elements of sizes that are not a multiple of anything in particular: the data follows the links.
  for (CLONG size : {CLONG(16), CLONG(24), CLONG(29), CLONG(100)}) {
    std::vector<UCHAR> buffer(size, static_cast<UCHAR>(size));
    reinterpret_cast<Element*>(buffer.data())->Key = size;
    auto* data = static_cast<PUCHAR>(RtlInsertElementGenericTableAvl(t.get(), buffer.data(), size, nullptr));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(t.sizes.back(), sizeof(RTL_BALANCED_LINKS) + size);
    EXPECT_EQ(data, static_cast<PUCHAR>(t.last_allocated) + sizeof(RTL_BALANCED_LINKS));
    EXPECT_EQ(memcmp(data, buffer.data(), size), 0);
  }

  t.Insert(1, 1);
  t.Insert(3, 3);
  size_t count = RtlNumberGenericTableElementsAvl(t.get());
  t.fail_allocations = 1;
  BOOLEAN is_new = TRUE;
  EXPECT_EQ(t.Insert(2, 2, &is_new), nullptr);
  EXPECT_FALSE(is_new);
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(t.get()), count);
  EXPECT_EQ(t.Lookup(2), nullptr);
  CheckTree(t.get());

  // An existing key needs no allocation, so a failing allocator does not matter to it.
  t.fail_allocations = 1;
  EXPECT_NE(t.Insert(3, 0), nullptr);
  t.fail_allocations = 0;
  EXPECT_NE(t.Insert(2, 2), nullptr);
  EXPECT_EQ(t.KeysWithoutSplaying(), (std::vector<ULONG64>{1, 2, 3, 16, 24, 29, 100}));
}

TEST(AvlTable, DeleteFreesExactlyTheNodesThatWereAllocated) {
  TestTable t;
  for (ULONG64 key = 0; key < 64; ++key) t.Insert(key * 3, key);
  ASSERT_EQ(t.allocations, 64);

  // The free routine gets back the node the allocate routine returned, not the element.
  Element* element = t.Lookup(30);
  ASSERT_NE(element, nullptr);
  EXPECT_TRUE(t.Delete(30));
  EXPECT_EQ(t.last_freed, reinterpret_cast<PUCHAR>(element) - sizeof(RTL_BALANCED_LINKS));
  EXPECT_EQ(t.Lookup(30), nullptr);

  EXPECT_FALSE(t.Delete(30));
  EXPECT_FALSE(t.Delete(31));
  EXPECT_FALSE(t.Delete(kHigh + 30));
  EXPECT_EQ(t.frees, 1);
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(t.get()), 63u);

  // Other elements stay where they were: deleting a node with two children must not move data.
  Element* survivor = t.Lookup(33);
  PRTL_BALANCED_LINKS root = t.get()->BalancedRoot.RightChild;
  ASSERT_TRUE(root->LeftChild != nullptr && root->RightChild != nullptr);
  EXPECT_TRUE(t.Delete(reinterpret_cast<Element*>(root + 1)->Key));
  EXPECT_EQ(t.last_freed, root);
  EXPECT_EQ(t.Lookup(33), survivor);
  EXPECT_EQ(survivor->Key, 33u);
  CheckTree(t.get());

  for (ULONG64 key = 0; key < 64; ++key) t.Delete(key * 3);
  EXPECT_TRUE(RtlIsGenericTableEmptyAvl(t.get()));
  EXPECT_EQ(t.allocations, t.frees);
  EXPECT_TRUE(t.live_.empty());
  EXPECT_EQ(t.get()->BalancedRoot.RightChild, nullptr);

  // An emptied table is as good as a new one.
  EXPECT_NE(t.Insert(7, 7), nullptr);
  EXPECT_EQ(t.KeysWithoutSplaying(), std::vector<ULONG64>{7});
}

TEST(AvlTable, EnumerationWithoutSplayingLeavesTheTreeAloneAndDrainsATable) {
  TestTable t;
  for (ULONG64 key : {50, 20, 80, 10, 30, 70, 90, 60, 40}) t.Insert(key, key);

  // Snapshot every node's links: enumerating must not change the tree.
  auto snapshot = [&t] {
    std::vector<RTL_BALANCED_LINKS> links{t.get()->BalancedRoot};
    for (void* node : t.live_) links.push_back(*static_cast<PRTL_BALANCED_LINKS>(node));
    return links;
  };
  auto same = [](const std::vector<RTL_BALANCED_LINKS>& a, const std::vector<RTL_BALANCED_LINKS>& b) {
    return a.size() == b.size() && memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0;
  };
  auto before = snapshot();
  EXPECT_EQ(t.KeysWithoutSplaying(), (std::vector<ULONG64>{10, 20, 30, 40, 50, 60, 70, 80, 90}));
  EXPECT_TRUE(same(before, snapshot()));

  // A restart key resumes after the element it was left on; two enumerations do not disturb each other.
  PVOID a = nullptr, b = nullptr;
  for (int i = 0; i < 4; ++i) RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &a);
  auto* e = static_cast<Element*>(RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &b));
  EXPECT_EQ(e->Key, 10u);
  e = static_cast<Element*>(RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &a));
  EXPECT_EQ(e->Key, 50u);
  PVOID saved = a;
  for (int i = 0; i < 4; ++i) ASSERT_NE(RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &a), nullptr);
  EXPECT_EQ(RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &a), nullptr);
  e = static_cast<Element*>(RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &saved));
  EXPECT_EQ(e->Key, 60u);
  EXPECT_TRUE(same(before, snapshot()));

  // The usual way to empty a table: take the first element, delete it, start over.
  std::vector<ULONG64> drained;
  PVOID restart;
  while ((e = static_cast<Element*>(RtlEnumerateGenericTableWithoutSplayingAvl(t.get(), &(restart = nullptr))))) {
    drained.push_back(e->Key);
    ASSERT_TRUE(RtlDeleteElementGenericTableAvl(t.get(), e));
    CheckTree(t.get());
  }
  EXPECT_EQ(drained, (std::vector<ULONG64>{10, 20, 30, 40, 50, 60, 70, 80, 90}));
  EXPECT_TRUE(RtlIsGenericTableEmptyAvl(t.get()));
  EXPECT_EQ(t.allocations, t.frees);

  // The table's own enumeration survives deleting the element it just returned.
  for (ULONG64 key = 1; key <= 20; ++key) t.Insert(key, key);
  std::vector<ULONG64> kept;
  for (e = static_cast<Element*>(RtlEnumerateGenericTableAvl(t.get(), TRUE)); e != nullptr;
       e = static_cast<Element*>(RtlEnumerateGenericTableAvl(t.get(), FALSE))) {
    if (e->Key % 3 == 1) {
      ASSERT_TRUE(RtlDeleteElementGenericTableAvl(t.get(), e));
    } else {
      kept.push_back(e->Key);
    }
  }
  EXPECT_EQ(kept, (std::vector<ULONG64>{2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18, 20}));
  EXPECT_EQ(t.KeysWithoutSplaying(), kept);
}

TEST(AvlTable, GetElementByIndexFollowsKeyOrder) {
  TestTable t;
  for (ULONG64 key = 100; key > 0; --key) t.Insert(key * 10, 0);
  ASSERT_EQ(RtlNumberGenericTableElementsAvl(t.get()), 100u);

  for (ULONG i = 0; i < 100; ++i) {
    auto* e = static_cast<Element*>(RtlGetElementGenericTableAvl(t.get(), i));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->Key, (i + 1) * 10u);
  }
  // Backwards and jumping about, as well as forwards.
  for (ULONG i : {99u, 0u, 50u, 49u, 51u, 98u, 1u}) {
    EXPECT_EQ(static_cast<Element*>(RtlGetElementGenericTableAvl(t.get(), i))->Key, (i + 1) * 10u);
  }
  EXPECT_EQ(RtlGetElementGenericTableAvl(t.get(), 100), nullptr);
  EXPECT_EQ(RtlGetElementGenericTableAvl(t.get(), 0xFFFFFFFFu), nullptr);

  // Indexes after a deleted or inserted element move by one.
  RtlGetElementGenericTableAvl(t.get(), 60);
  t.Delete(300);  // index 29
  EXPECT_EQ(static_cast<Element*>(RtlGetElementGenericTableAvl(t.get(), 60))->Key, 620u);
  EXPECT_EQ(static_cast<Element*>(RtlGetElementGenericTableAvl(t.get(), 29))->Key, 310u);
  t.Insert(5, 0);
  EXPECT_EQ(static_cast<Element*>(RtlGetElementGenericTableAvl(t.get(), 0))->Key, 5u);
  EXPECT_EQ(static_cast<Element*>(RtlGetElementGenericTableAvl(t.get(), 60))->Key, 610u);
  EXPECT_EQ(static_cast<Element*>(RtlGetElementGenericTableAvl(t.get(), 99))->Key, 1000u);
  EXPECT_EQ(RtlGetElementGenericTableAvl(t.get(), 100), nullptr);
}

TEST(AvlTable, FullLookupReportsWhereAnInsertGoes) {
  TestTable t;
  Element probe{20, 2};
  PVOID where = &probe;
  TABLE_SEARCH_RESULT result = TableFoundNode;
  EXPECT_EQ(RtlLookupElementGenericTableFullAvl(t.get(), &probe, &where, &result), nullptr);
  EXPECT_EQ(result, TableEmptyTree);
  BOOLEAN is_new = FALSE;
  auto* e = static_cast<Element*>(
      RtlInsertElementGenericTableFullAvl(t.get(), &probe, sizeof(probe), &is_new, where, result));
  ASSERT_NE(e, nullptr);
  EXPECT_TRUE(is_new);

  for (ULONG64 key : {10, 30, 25, 5}) {
    probe = {key, key};
    ASSERT_EQ(RtlLookupElementGenericTableFullAvl(t.get(), &probe, &where, &result), nullptr);
    EXPECT_TRUE(result == TableInsertAsLeft || result == TableInsertAsRight);
    ASSERT_NE(RtlInsertElementGenericTableFullAvl(t.get(), &probe, sizeof(probe), nullptr, where, result), nullptr);
  }
  probe = {25, 0};
  e = static_cast<Element*>(RtlLookupElementGenericTableFullAvl(t.get(), &probe, &where, &result));
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(result, TableFoundNode);
  EXPECT_EQ(where, reinterpret_cast<PUCHAR>(e) - sizeof(RTL_BALANCED_LINKS));
  EXPECT_EQ(t.KeysWithoutSplaying(), (std::vector<ULONG64>{5, 10, 20, 25, 30}));
  CheckTree(t.get());
}

TEST(AvlTable, StaysBalancedThroughThousandsOfRandomInsertsAndDeletes) {
  // Ascending keys are the worst case for an unbalanced tree.
  {
    TestTable t;
    for (ULONG64 key = 0; key < 4096; ++key) t.Insert(key, key);
    EXPECT_LE(CheckTree(t.get()), MaxAvlHeight(4096));
    for (ULONG64 key = 0; key < 4096; key += 2) t.Delete(key);
    EXPECT_LE(CheckTree(t.get()), MaxAvlHeight(2048));
  }

  TestTable t;
  std::map<ULONG64, ULONG64> model;
  std::mt19937_64 random(20240611);
  auto random_key = [&random] {
    // A small key space, so that inserts hit existing keys and deletes hit present ones.
    ULONG64 low = random() % 2048;
    return (low & 1) ? low | kHigh : low << 20;
  };
  for (int round = 0; round < 6000; ++round) {
    ULONG64 key = random_key();
    if (random() % 3 != 0) {
      ULONG64 value = random();
      BOOLEAN is_new = FALSE;
      Element* e = t.Insert(key, value, &is_new);
      ASSERT_NE(e, nullptr);
      auto inserted = model.emplace(key, value);
      ASSERT_EQ(is_new != FALSE, inserted.second) << "key " << key;
      ASSERT_EQ(e->Value, inserted.first->second);
    } else {
      ASSERT_EQ(t.Delete(key) != FALSE, model.erase(key) == 1) << "key " << key;
    }
    if (round % 500 == 0 || round == 5999) {
      int height = CheckTree(t.get());
      EXPECT_LE(height, MaxAvlHeight(model.size())) << "round " << round << ", " << model.size() << " elements";
      std::vector<ULONG64> expected;
      for (const auto& kv : model) expected.push_back(kv.first);
      ASSERT_EQ(t.KeysWithoutSplaying(), expected) << "round " << round;
    }
  }
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(t.get()), model.size());
  EXPECT_EQ(static_cast<size_t>(t.allocations - t.frees), model.size());
  for (const auto& kv : model) {
    Element* e = t.Lookup(kv.first);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->Value, kv.second);
  }
}

}  // namespace
