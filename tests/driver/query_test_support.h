// The process, thread and module queries on a simulated machine, with their log on and the check
// that no call leaves anything of the driver's behind.
#pragma once

#include <gtest/gtest.h>

#include "core/debug_log.h"
#include "core/optional_routines.h"
#include "core/sentrel_data.h"
#include "test_support.h"

namespace sentrel_test {

class QueryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PrintLevel = SK_LEVEL_ERROR | SK_LEVEL_INFO;
    TraceLevel = SK_TRACE_TOOL;
    // The queries reach some kernel routines through the table the driver fills at load.
    world.AsSystem([] { sk_ResolveOptionalRoutines(&SentrelData); });
  }
  void TearDown() override {
    world.verifier().FailNth(0);
    ExpectNothingHeld(world);
    PrintLevel = TraceLevel = 0;
  }
  ntsim::World world;
};

}  // namespace sentrel_test
