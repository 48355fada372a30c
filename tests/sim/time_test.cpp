// System times as seconds since 1970 and 1980, with the range 32 bits hold.
#include <gtest/gtest.h>

#include "world.h"

namespace {

TEST(TimeTest, SecondsSinceTheEpochsAndTheirLimits) {
  ntsim::World world;
  LARGE_INTEGER time;
  ULONG seconds = 77;
  time.QuadPart = 116444736000000000LL + 10000000LL * 86400;  // 1970-01-02
  EXPECT_TRUE(RtlTimeToSecondsSince1970(&time, &seconds));
  EXPECT_EQ(seconds, 86400u);
  EXPECT_FALSE(RtlTimeToSecondsSince1980(&time, &seconds)) << "before 1980";
  time.QuadPart = 119600064000000000LL + 10000000LL * 5;  // 1980-01-01 00:00:05
  EXPECT_TRUE(RtlTimeToSecondsSince1980(&time, &seconds));
  EXPECT_EQ(seconds, 5u);
  time.QuadPart = 116444736000000000LL + 10000000LL * 0x100000000LL;  // 2106: past 32 bits
  EXPECT_FALSE(RtlTimeToSecondsSince1970(&time, &seconds));
}

}  // namespace
