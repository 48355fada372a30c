// System times (100-ns units since 1601-01-01) as seconds since 1970 and since 1980.
#include "kernel.h"

namespace {

constexpr LONGLONG kTicksPerSecond = 10000000;
constexpr LONGLONG kSeconds1601To1970 = 11644473600LL;
constexpr LONGLONG kSeconds1601To1980 = 11960006400LL;

// FALSE when the time lies before the epoch or more than 2^32 - 1 seconds after it.
BOOLEAN SecondsSince(PLARGE_INTEGER Time, LONGLONG epoch, PULONG ElapsedSeconds) {
  LONGLONG seconds = Time->QuadPart / kTicksPerSecond - epoch;
  if (Time->QuadPart < 0 || seconds < 0 || seconds > 0xFFFFFFFFLL) return FALSE;
  *ElapsedSeconds = static_cast<ULONG>(seconds);
  return TRUE;
}

}  // namespace

BOOLEAN NTAPI RtlTimeToSecondsSince1970(PLARGE_INTEGER Time, PULONG ElapsedSeconds) {
  return SecondsSince(Time, kSeconds1601To1970, ElapsedSeconds);
}

BOOLEAN NTAPI RtlTimeToSecondsSince1980(PLARGE_INTEGER Time, PULONG ElapsedSeconds) {
  return SecondsSince(Time, kSeconds1601To1980, ElapsedSeconds);
}
