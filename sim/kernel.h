// One booted simulated machine's kernel state. The driver-facing routines reach it through K().
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cm/registry.h"
#include "debug_output.h"
#include "ex/pool.h"
#include "internal_arena.h"
#include "io/io_manager.h"
#include "mm/fault_map.h"
#include "mm/kernel_modules.h"
#include "mm/process_memory.h"
#include "mm/user_views.h"
#include "ob/object_manager.h"
#include "ps/notify.h"
#include "ps/process.h"
#include "ps/system_thread.h"
#include "se/logon_sessions.h"
#include "verifier.h"

namespace ntsim {

struct MachineConfig {
  int processors = 4;       // active processors, in all groups
  int processorGroups = 1;  // groups they are split into (see ke/processors.h)
  int windowsMajor = 10;
  // Routines this kernel does not export ("PsAcquireProcessExitSynchronization", ...).
  std::vector<std::string> missingRoutines;
  // Whether SystemModuleInformation lists the kernel image (a module list that lacks it).
  bool listKernelImage = true;
};

// The routines the kernel image exports on this machine.
std::vector<KernelModules::Routine> KernelExports(const MachineConfig& config);

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
  ProcessMemory userMemory;  // outlives the processes whose memory it holds
  KernelModules modules;
  InternalArena arena;
  Pool pool;
  MemoryManager mm;
  ObjectManager ob;
  ProcessManager ps;
  LogonSessions se;
  Notifications notify;
  IoManager io;
  Registry cm;
  SystemThreads threads;
  // Runs, on the calling thread, at the start of every ExAcquireRundownProtection, when set: a test
  // stops a thread there (between reading a pointer and taking its reference). Set only while no
  // other thread takes rundown references; one relaxed load when unset.
  std::function<void(PEX_RUNDOWN_REF)> rundownAcquireHook;
  std::atomic<bool> rundownAcquireHooked{false};
};

// The booted kernel. Calling a kernel routine with no machine booted stops the process. Inline:
// every kernel routine starts here.
extern std::atomic<Kernel*> g_kernel;  // read by every host thread that calls the kernel
extern std::atomic<uint64_t> g_kernelGeneration;  // its generation, 0 with none booted
[[noreturn]] void NoKernelBooted();
inline Kernel& K() {
  Kernel* kernel = g_kernel.load(std::memory_order_acquire);
  if (__builtin_expect(!kernel, 0)) NoKernelBooted();
  return *kernel;
}
bool KernelBooted();
void SetKernel(Kernel* kernel);

inline _KTHREAD* CurrentThread() {
  const ThreadBinding& binding = t_binding;
  uint64_t booted = g_kernelGeneration.load(std::memory_order_acquire);
  if (__builtin_expect(binding.thread != nullptr && binding.generation == booted, 1)) return binding.thread;
  return BindCurrentThread();
}

}  // namespace ntsim
