// Memory descriptor lists over non-paged pool and their user views: an MDL describes its pages,
// MmMapLockedPagesSpecifyCache maps them a second time, at another address, into the current
// (or attached) process, MmUnmapLockedPages takes the view away in that process's context, and the
// verifier stops views that outlive their process or their pool block, as well as the misuses the
// documentation forbids.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "ntsim/ntsim.h"
#include "sim_test_support.h"

using ntsim::World;
using sim_test::RecordViolations;
using sim_test::ViolationCalls;

namespace {

constexpr ULONG kTag = 'MtsT';

struct Buffer {
  PUCHAR block = nullptr;  // three pages of non-paged pool
  PMDL mdl = nullptr;      // two pages' worth from byte 100 on: spans all three
};

Buffer MakeBuffer() {
  Buffer buffer;
  buffer.block = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, 3 * PAGE_SIZE, kTag));
  buffer.mdl = IoAllocateMdl(buffer.block + 100, 2 * PAGE_SIZE, FALSE, FALSE, nullptr);
  MmBuildMdlForNonPagedPool(buffer.mdl);
  return buffer;
}

void FreeBuffer(Buffer& buffer) {
  IoFreeMdl(buffer.mdl);
  ExFreePoolWithTag(buffer.block, kTag);
}

PUCHAR MapIntoCurrent(PMDL mdl) {
  return static_cast<PUCHAR>(MmMapLockedPagesSpecifyCache(mdl, UserMode, MmCached, nullptr, FALSE, NormalPagePriority));
}

TEST(MdlTest, AnMdlOverNonPagedPoolDescribesItsPages) {
  World world;
  world.AsSystem([&] {
    PUCHAR block = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, 3 * PAGE_SIZE, kTag));
    ASSERT_EQ(reinterpret_cast<uintptr_t>(block) % PAGE_SIZE, 0u);  // a page or more: page-aligned
    PMDL mdl = IoAllocateMdl(block + 100, 2 * PAGE_SIZE, FALSE, FALSE, nullptr);
    ASSERT_NE(mdl, nullptr);
    EXPECT_EQ(static_cast<size_t>(mdl->Size), sizeof(MDL) + 3 * sizeof(PFN_NUMBER));
    EXPECT_EQ(MmSizeOfMdl(block + 100, 2 * PAGE_SIZE), sizeof(MDL) + 3 * sizeof(PFN_NUMBER));
    EXPECT_EQ(mdl->StartVa, block);
    EXPECT_EQ(mdl->ByteOffset, 100u);
    EXPECT_EQ(mdl->ByteCount, 2u * PAGE_SIZE);

    MmBuildMdlForNonPagedPool(mdl);
    EXPECT_TRUE(mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL);
    EXPECT_EQ(mdl->MappedSystemVa, block + 100);
    PPFN_NUMBER pfns = MmGetMdlPfnArray(mdl);
    EXPECT_EQ(pfns[1], pfns[0] + 1);
    EXPECT_EQ(pfns[2], pfns[0] + 2);

    EXPECT_EQ(IoAllocateMdl(block, 0, FALSE, FALSE, nullptr), nullptr);
    IoFreeMdl(mdl);
    ExFreePoolWithTag(block, kTag);
  });
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  EXPECT_TRUE(world.verifier().Violations().empty());
}

TEST(MdlTest, MdlsOverOtherMemoryAndForbiddenMappingsAreViolations) {
  World world;
  RecordViolations(world);
  world.AsSystem([&] {
    PUCHAR paged = static_cast<PUCHAR>(ExAllocatePoolWithTag(PagedPool, PAGE_SIZE, kTag));
    PMDL mdl = IoAllocateMdl(paged, PAGE_SIZE, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl);  // paged pool
    IoFreeMdl(mdl);
    ExFreePoolWithTag(paged, kTag);

    PUCHAR small = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, 256, kTag));
    struct {
      MDL header;
      PFN_NUMBER pages[1];
    } tooSmall;
    MmInitializeMdl(&tooSmall.header, small, 256);
    tooSmall.header.Size = sizeof(MDL);  // no room for its page-frame entry
    MmBuildMdlForNonPagedPool(&tooSmall.header);

    // A second system mapping, or the release of the only one, of a non-paged pool MDL.
    Buffer buffer = MakeBuffer();
    EXPECT_EQ(MmMapLockedPagesSpecifyCache(buffer.mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority),
              nullptr);
    MmUnmapLockedPages(buffer.mdl->MappedSystemVa, buffer.mdl);
    FreeBuffer(buffer);

    // Memory that is no page-sized pool block cannot be mapped into a process.
    MmInitializeMdl(&tooSmall.header, small, 256);
    MmBuildMdlForNonPagedPool(&tooSmall.header);
    EXPECT_EQ(MapIntoCurrent(&tooSmall.header), nullptr);
    ExFreePoolWithTag(small, kTag);
  });
  std::vector<std::string> expected = {"MmBuildMdlForNonPagedPool", "MmBuildMdlForNonPagedPool",
                                       "MmMapLockedPagesSpecifyCache", "MmUnmapLockedPages",
                                       "MmMapLockedPagesSpecifyCache"};
  EXPECT_EQ(ViolationCalls(world), expected);
}

TEST(UserViewTest, AViewIsASecondMappingOfTheSamePagesAtAnotherAddress) {
  World world;
  ntsim::UserProcess& agent = world.StartProcess(u"agent.exe");
  Buffer buffer = world.AsSystem(MakeBuffer);
  PUCHAR kernel = buffer.block + 100;
  PUCHAR user = agent.InProcess([&] { return MapIntoCurrent(buffer.mdl); });
  ASSERT_NE(user, nullptr);
  EXPECT_NE(user, kernel);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(user) % PAGE_SIZE, 100u);  // the byte offset is kept

  // Both addresses show the same bytes, written from either side, across all pages.
  for (ULONG at : {0u, 1u, PAGE_SIZE - 100u, 2u * PAGE_SIZE - 1u}) {
    kernel[at] = static_cast<UCHAR>(at * 7 + 1);
    EXPECT_EQ(user[at], kernel[at]) << at;
    user[at] = static_cast<UCHAR>(at * 3 + 2);
    EXPECT_EQ(kernel[at], user[at]) << at;
  }
  std::vector<ntsim::UserView> views = world.kernel().mm.ViewsOf(agent.Process());
  ASSERT_EQ(views.size(), 1u);
  EXPECT_EQ(views[0].length, 3u * PAGE_SIZE);
  EXPECT_EQ(views[0].mdl, buffer.mdl);

  // A second view of the same MDL is another address again.
  PUCHAR again = agent.InProcess([&] { return MapIntoCurrent(buffer.mdl); });
  EXPECT_NE(again, user);
  EXPECT_EQ(world.kernel().mm.ViewsOf(agent.Process()).size(), 2u);

  agent.InProcess([&] {
    MmUnmapLockedPages(user, buffer.mdl);
    MmUnmapLockedPages(again, buffer.mdl);
  });
  EXPECT_TRUE(world.kernel().mm.ViewsOf(agent.Process()).empty());
  world.AsSystem([&] { FreeBuffer(buffer); });
  EXPECT_TRUE(world.verifier().Violations().empty());
}

TEST(UserViewTest, AnAttachedThreadMapsIntoAndUnmapsFromTheProcessItAttachedTo) {
  World world;
  RecordViolations(world);
  ntsim::UserProcess& agent = world.StartProcess(u"agent.exe");
  world.AsSystem([&] {
    Buffer buffer = MakeBuffer();
    KAPC_STATE state;
    KeStackAttachProcess(agent.Process(), &state);
    EXPECT_EQ(PsGetCurrentProcess(), agent.Process());
    EXPECT_EQ(IoGetCurrentProcess(), agent.Process());
    EXPECT_EQ(reinterpret_cast<uintptr_t>(PsGetCurrentProcessId()), 4u);  // the thread's own process
    PUCHAR user = MapIntoCurrent(buffer.mdl);
    ASSERT_NE(user, nullptr);
    KeUnstackDetachProcess(&state);
    EXPECT_EQ(PsGetCurrentProcess(), world.kernel().ps.System());
    EXPECT_EQ(world.kernel().mm.ViewsOf(agent.Process()).size(), 1u);
    EXPECT_TRUE(world.verifier().Violations().empty());

    // Unmapping outside the process's context would delete another process's address range.
    MmUnmapLockedPages(user, buffer.mdl);
    EXPECT_EQ(world.kernel().mm.ViewsOf(agent.Process()).size(), 1u);
    KeStackAttachProcess(agent.Process(), &state);
    MmUnmapLockedPages(user, buffer.mdl);
    KAPC_STATE stranger = {};
    KeUnstackDetachProcess(&stranger);  // not the state of this attach
    KeUnstackDetachProcess(&state);
    EXPECT_TRUE(world.kernel().mm.ViewsOf(agent.Process()).empty());
    FreeBuffer(buffer);
  });
  std::vector<std::string> expected = {"MmUnmapLockedPages", "KeUnstackDetachProcess"};
  EXPECT_EQ(ViolationCalls(world), expected);
}

TEST(UserViewTest, AViewMustNotOutliveItsProcessOrItsPoolBlock) {
  World world;
  RecordViolations(world);
  ntsim::UserProcess& first = world.StartProcess(u"agent.exe");
  Buffer buffer = world.AsSystem(MakeBuffer);
  ASSERT_NE(first.InProcess([&] { return MapIntoCurrent(buffer.mdl); }), nullptr);
  world.ExitProcess(first);
  ASSERT_EQ(ViolationCalls(world), std::vector<std::string>{"process exit"});
  EXPECT_TRUE(world.kernel().mm.ViewsOf(first.Process()).empty());

  world.verifier().ClearViolations();
  ntsim::UserProcess& second = world.StartProcess(u"agent.exe");
  ASSERT_NE(second.InProcess([&] { return MapIntoCurrent(buffer.mdl); }), nullptr);
  world.AsSystem([&] { IoFreeMdl(buffer.mdl); });
  world.AsSystem([&] { ExFreePoolWithTag(buffer.block, kTag); });
  std::vector<std::string> expected = {"IoFreeMdl", "ExFreePoolWithTag"};
  EXPECT_EQ(ViolationCalls(world), expected);
  EXPECT_EQ(world.kernel().mm.ViewCount(), 0u);
}

TEST(UserViewTest, AUserMappingThatFailsRaisesAnExceptionThatOnlyAGuardCatches) {
  World world;
  RecordViolations(world);
  ntsim::UserProcess& agent = world.StartProcess(u"agent.exe");
  Buffer buffer = world.AsSystem(MakeBuffer);
  agent.InProcess([&] {
    world.verifier().FailNth(1);
    NtSimEnterGuardedRegion();
    EXPECT_EQ(MapIntoCurrent(buffer.mdl), nullptr);
    EXPECT_EQ(NtSimLeaveGuardedRegion(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(world.verifier().Violations().empty());
    NtSimEnterGuardedRegion();  // a guard that sees no exception reports none
    PUCHAR user = MapIntoCurrent(buffer.mdl);
    EXPECT_EQ(NtSimLeaveGuardedRegion(), STATUS_SUCCESS);
    MmUnmapLockedPages(user, buffer.mdl);

    world.verifier().FailNth(1);
    EXPECT_EQ(MapIntoCurrent(buffer.mdl), nullptr);  // unguarded
    world.verifier().FailNth(0);
  });
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"MmMapLockedPagesSpecifyCache"});
  EXPECT_EQ(world.kernel().mm.ViewCount(), 0u);
  world.AsSystem([&] { FreeBuffer(buffer); });
}

}  // namespace
