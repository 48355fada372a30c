// ExUuidCreate: random (version 4) UUIDs, as the kernel makes them.
#include <random>

#include "kernel.h"

using namespace ntsim;

NTSTATUS NTAPI ExUuidCreate(UUID* Uuid) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) K().verifier.Violation("ExUuidCreate", "called above PASSIVE_LEVEL");
  thread_local std::mt19937_64 generator{std::random_device{}()};
  uint64_t high = generator(), low = generator();
  UCHAR bytes[16];
  std::memcpy(bytes, &high, 8);
  std::memcpy(bytes + 8, &low, 8);
  std::memcpy(Uuid, bytes, sizeof *Uuid);
  Uuid->Data3 = static_cast<USHORT>((Uuid->Data3 & 0x0FFF) | 0x4000);  // version 4
  Uuid->Data4[0] = static_cast<UCHAR>((Uuid->Data4[0] & 0x3F) | 0x80);  // the RFC 4122 variant
  return STATUS_SUCCESS;
}
