// The machine's processors: MachineConfig::processors active processors split into
// MachineConfig::processorGroups groups as evenly as possible (the first groups take one more when
// they do not divide evenly), numbered by system-wide index group after group.
#pragma once

#include "ntsim/ntsim.h"

namespace ntsim {

ULONG ProcessorCount();
USHORT ProcessorGroupCount();
ULONG GroupProcessorCount(USHORT group);  // 0 for a group that does not exist
ULONG GroupFirstIndex(USHORT group);
KAFFINITY GroupAffinityMask(USHORT group);  // every processor of the group

}  // namespace ntsim
