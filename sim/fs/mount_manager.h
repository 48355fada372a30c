// The mount point manager's device "\Device\MountPointManager": a driver of the simulated machine.
#pragma once

#include "io/io_manager.h"

namespace ntsim {

void StartMountManager(IoManager& io);

}  // namespace ntsim
