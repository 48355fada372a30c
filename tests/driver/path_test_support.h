// A started SentrelData on a simulated machine, for the tests of the path conversions and the DOS
// name table, with the checks that nothing is left behind.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "names/string_block.h"
#include "test_support.h"

namespace sentrel_test {

// The text of a string block, which is then freed; "<null>" for none.
inline std::u16string Take(PUNICODE_STRING block) {
  if (!block) return u"<null>";
  std::u16string text = Text(block);
  skt_FreeUnicodeStringSelf(block);
  return text;
}

class StartedDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SkDriverObject = world.kernel().io.CreateDriverObject(u"\\Driver\\PathTest", nullptr);
    PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
    TraceLevel = SK_TRACE_CORE | SK_TRACE_TOOL | SK_TRACE_DOSNAME;
    ASSERT_EQ(Start(), STATUS_SUCCESS);
  }
  void TearDown() override {
    world.verifier().FailNth(0);
    if (SentrelData.DriverObject) {
      EXPECT_EQ(Stop(), STATUS_SUCCESS);
    }
    ExpectNothingHeld("teardown");
    PrintLevel = TraceLevel = 0;
    SkDriverObject = nullptr;
  }
  NTSTATUS Start() { return world.AsSystem(sk_InitSentrelData); }
  NTSTATUS Stop() { return world.AsSystem(sk_UninitSentrelData); }

  // With SentrelData stopped: no pool, no object reference and no kernel handle of the driver's.
  void ExpectNothingHeld(const std::string& when) { sentrel_test::ExpectNothingHeld(world, when); }

  // Runs call with the n-th allocation point failing, for n = 1, 2, ... until a run meets no
  // injected failure; SentrelData is started afresh for each run and stopped after it, and
  // nothing may be left behind. call gets n; prepare runs after each start, finish before each
  // stop, both without failures.
  template <typename Call>
  void EachFailure(Call call, std::function<void()> prepare = nullptr, std::function<void()> finish = nullptr) {
    ASSERT_EQ(Stop(), STATUS_SUCCESS);
    for (uint64_t n = 1;; ++n) {
      ASSERT_EQ(Start(), STATUS_SUCCESS) << n;
      if (prepare) prepare();
      world.verifier().FailNth(n);
      world.AsSystem([&] {
        call(n);
        return 0;
      });
      bool injected = world.verifier().InjectedFailure();
      world.verifier().FailNth(0);
      if (finish) finish();
      ASSERT_EQ(Stop(), STATUS_SUCCESS) << n;
      ExpectNothingHeld("failure " + std::to_string(n));
      if (!injected) break;
      ASSERT_LT(n, 200u) << "the call never stops meeting failures";
    }
    ASSERT_EQ(Start(), STATUS_SUCCESS);
  }

  ntsim::World world;
};

}  // namespace sentrel_test
