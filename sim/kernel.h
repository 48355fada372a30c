// One booted simulated machine's kernel state. The driver-facing routines reach it through K().
#pragma once

#include <cstdint>

#include "cm/registry.h"
#include "debug_output.h"
#include "ex/pool.h"
#include "internal_arena.h"
#include "io/io_manager.h"
#include "mm/fault_map.h"
#include "mm/user_views.h"
#include "ob/object_manager.h"
#include "ps/notify.h"
#include "ps/process.h"
#include "ps/system_thread.h"
#include "verifier.h"

namespace ntsim {

struct MachineConfig {
  int processors = 4;       // active processors, in all groups
  int processorGroups = 1;  // groups they are split into (see ke/processors.h)
  int windowsMajor = 10;
};

struct Kernel {
  explicit Kernel(const MachineConfig& config);
  ~Kernel();
  Kernel(const Kernel&) = delete;
  Kernel& operator=(const Kernel&) = delete;

  MachineConfig config;
  uint64_t generation;
  Verifier verifier;
  DebugOutput debug;
  FaultMap faults;
  InternalArena arena;
  Pool pool;
  MemoryManager mm;
  ObjectManager ob;
  ProcessManager ps;
  Notifications notify;
  IoManager io;
  Registry cm;
  SystemThreads threads;
};

// The booted kernel. Calling a kernel routine with no machine booted stops the process.
Kernel& K();
bool KernelBooted();
void SetKernel(Kernel* kernel);

}  // namespace ntsim
