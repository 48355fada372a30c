// Caller stacks and the stack hook on a simulated machine: the frame texts (an offset into an
// image shown by its path, an address in no image or at an image's very base shown whole), the
// newest of overlapping images, the 256-frame bound, the package's computed length, a capture for
// another process refused, every allocation failure, and the per-process groups.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "monitor/caller_stack.h"
#include "monitor/image_mgr.h"
#include "monitor/stack_hook.h"
#include "test_support.h"

using ntsim::ImageSpec;
using ntsim::ProcessSpec;
using ntsim::UserProcess;
using ntsim::World;

namespace {

constexpr uint64_t kPlugin = 0x7FF700000000, kHelper = 0x7FF700100000;

struct Stack {
  NTSTATUS status = STATUS_UNSUCCESSFUL;
  std::vector<uint8_t> bytes;
  std::vector<std::u16string> frames;
};

class CallerStackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    world = std::make_unique<World>();
    SkDriverObject = world->kernel().io.CreateDriverObject(u"\\Driver\\StackTest", nullptr);
    sentrel_test::ExemptRuleTries(*world);
    PrintLevel = SK_LEVEL_ERROR;
    TraceLevel = SK_TRACE_PACKAGE | SK_TRACE_STACKHOOK;
    ASSERT_EQ(world->AsSystem(sk_InitSentrelData), STATUS_SUCCESS);
    ProcessSpec spec;
    spec.pid = 2000;
    spec.imagePath = u"\\??\\C:\\Apps\\tool.exe";
    tool = &world->CreateProcess(spec);
    world->MapImage(*tool, ImageSpec{u"\\??\\C:\\Apps\\plugin.dll", kPlugin, 0x20000});
    world->MapImage(*tool, ImageSpec{u"\\??\\C:\\Apps\\helper.dll", kHelper, 0x20000});
  }
  void TearDown() override {
    world->verifier().FailNth(0);
    if (SentrelData.DriverObject) {
      EXPECT_EQ(world->AsSystem(sk_UninitSentrelData), STATUS_SUCCESS);
    }
    sentrel_test::ExpectNothingHeld(*world, "teardown");
    PrintLevel = TraceLevel = 0;
    SkDriverObject = nullptr;
  }
  // The tool's caller stack with these frames, decoded.
  Stack Capture(std::vector<uint64_t> frames) {
    Stack out;
    world->SetUserStack(*tool, std::move(frames));
    tool->InProcess([&] {
      PVOID package = nullptr;
      ULONG length = 0;
      out.status = sk_GetCallerStackInfoPackage(&package, &length);
      if (!NT_SUCCESS(out.status)) return 0;
      out.bytes.assign(static_cast<uint8_t*>(package), static_cast<uint8_t*>(package) + length);
      ExFreePoolWithTag(package, SK_TAG_CALLER_STACK);
      return 0;
    });
    if (!NT_SUCCESS(out.status)) return out;
    uint32_t depth;
    std::memcpy(&depth, out.bytes.data() + 12, 4);
    size_t at = 16;
    for (uint32_t i = 0; i < depth; ++i) {
      uint16_t length;
      std::memcpy(&length, out.bytes.data() + at, 2);
      std::u16string text(length / 2, u'\0');
      std::memcpy(text.data(), out.bytes.data() + at + 4, length);
      out.frames.push_back(text);
      at += 4 + length;
    }
    EXPECT_LE(at, out.bytes.size());
    for (size_t i = at; i < out.bytes.size(); ++i) {
      EXPECT_EQ(out.bytes[i], 0) << "after the last entry, at " << i;
    }
    return out;
  }
  uint32_t U32(const Stack& s, size_t at) {
    uint32_t v;
    std::memcpy(&v, s.bytes.data() + at, 4);
    return v;
  }

  std::unique_ptr<World> world;
  UserProcess* tool = nullptr;
};

TEST_F(CallerStackTest, FramesAreShownByImageAndOffsetOrByTheirWholeAddress) {
  Stack s = Capture({kPlugin + 0x2C0, kHelper + 0x1a2b, kPlugin, 0x10000});
  ASSERT_EQ(s.status, STATUS_SUCCESS);
  EXPECT_EQ(U32(s, 4), 4u);
  EXPECT_EQ(U32(s, 8), U32(s, 0));
  EXPECT_EQ(U32(s, 12), 4u);
  EXPECT_EQ(s.frames, (std::vector<std::u16string>{u"C:\\Apps\\plugin.dll+0x2c0", u"C:\\Apps\\helper.dll+0x1a2b",
                                                   u"UnknowImage+0x00007FF700000000",
                                                   u"UnknowImage+0x0000000000010000"}))
      << "an image's base belongs to no image";
  // The computed bound: 16, then per frame the path + 28 bytes, or "UnknowImage" + 92.
  EXPECT_EQ(U32(s, 0), 16u + (36 + 28) + (36 + 28) + (22 + 92) + (22 + 92));
  EXPECT_EQ(s.bytes.size(), U32(s, 0));
}

TEST_F(CallerStackTest, AnAddressMappedAgainResolvesToTheNewestImage) {
  // Another image recorded over plugin.dll's range, as after an unmap and a new map there (its
  // headers are read where it is mapped, in the tool's address space).
  tool->InProcess([&] {
    PPROC_INFO_NODE node = nullptr;
    PIMAGE_INFO_NODE image = nullptr;
    std::u16string path = u"\\Device\\HarddiskVolume3\\Apps\\newer.dll";
    UNICODE_STRING nt = sentrel_test::Counted(path);
    EXPECT_EQ(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)2000, tool->Process()->createTime, &node), STATUS_SUCCESS);
    EXPECT_EQ(sk_AddImageNode(&SentrelData.ImageMgr, (PVOID)kPlugin, &nt, nullptr, &image), STATUS_SUCCESS);
    EXPECT_EQ(sk_AddImageToProcNode(kPlugin, 0x20000, image, node), STATUS_SUCCESS);
    return sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
  });
  Stack s = Capture({kPlugin + 0x10});
  ASSERT_EQ(s.status, STATUS_SUCCESS);
  EXPECT_EQ(s.frames, (std::vector<std::u16string>{u"\\Device\\HarddiskVolume3\\Apps\\newer.dll+0x10"}))
      << "no DOS path: the kernel path";
}

TEST_F(CallerStackTest, AtMost256FramesAndNoneIsNoPackage) {
  std::vector<uint64_t> deep;
  for (uint64_t i = 0; i < 300; ++i) deep.push_back(kHelper + 0x100 + i);
  Stack s = Capture(deep);
  ASSERT_EQ(s.status, STATUS_SUCCESS);
  EXPECT_EQ(s.frames.size(), 256u);
  EXPECT_EQ(s.frames.back(), u"C:\\Apps\\helper.dll+0x1ff");
  EXPECT_EQ(Capture({}).status, STATUS_INVALID_PARAMETER) << "a thread with no user-mode frames";
}

TEST_F(CallerStackTest, ACaptureForAnotherProcessIsRefused) {
  world->SetUserStack(*tool, {kPlugin + 0x10});
  world->AsSystem([&] {
    PPROC_INFO_NODE node = nullptr;
    EXPECT_EQ(sk_GetProcInfo(&SentrelData.ProcessMgr, (HANDLE)2000, tool->Process()->createTime, &node), STATUS_SUCCESS);
    PVOID package = reinterpret_cast<PVOID>(1);
    ULONG length = 1;
    EXPECT_EQ(sk_GetCallerStackInfoPackage_ProcNode(node, &package, &length), STATUS_INVALID_PARAMETER);
    return sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
  });
}

TEST_F(CallerStackTest, EveryAllocationFailureOfACaptureLeavesNothing) {
  for (uint64_t n = 1;; ++n) {
    world->verifier().FailNth(n);
    Stack s = Capture({kPlugin + 0x2C0, 0x10000});
    bool injected = world->verifier().InjectedFailure();
    world->verifier().FailNth(0);
    if (!injected) {
      EXPECT_EQ(s.status, STATUS_SUCCESS);
      break;
    }
    EXPECT_EQ(s.status, STATUS_INSUFFICIENT_RESOURCES) << n;
    ASSERT_LT(n, 20u);
  }
}

TEST_F(CallerStackTest, EachProcessHasOneGroupFromItsCreationToItsExit) {
  PSK_STACK_HOOK hook = &SentrelData.StackHook;
  size_t before = RtlNumberGenericTableElementsAvl(&hook->GroupTable);
  ProcessSpec spec;
  spec.pid = 3000;
  spec.imagePath = u"\\??\\C:\\Apps\\other.exe";
  UserProcess& other = world->CreateProcess(spec);
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(&hook->GroupTable), before + 1);
  world->ExitProcess(other);
  EXPECT_EQ(RtlNumberGenericTableElementsAvl(&hook->GroupTable), before);
  EXPECT_EQ(world->AsSystem([&] { return sk_DelStackHookGroup(hook, (HANDLE)3000); }), STATUS_NOT_FOUND)
      << "a second exit";
  EXPECT_EQ(world->AsSystem([&] { return sk_AddStackHookGroup(hook, (HANDLE)2000); }), STATUS_SUCCESS)
      << "an existing group stays as it is";
}

}  // namespace
