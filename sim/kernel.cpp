#include "kernel.h"

#include "fs/mount_manager.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace ntsim {

void PublishObjectTypes(ObjectManager& ob);
void SetSharedUserDataVersion(int windowsMajor);

std::atomic<Kernel*> g_kernel{nullptr};
std::atomic<uint64_t> g_kernelGeneration{0};

namespace {
std::atomic<uint64_t> g_generation{0};
}  // namespace

Kernel::Kernel(const MachineConfig& machine) : config(machine), generation(++g_generation) {
  Kernel* previous = g_kernel;
  SetKernel(this);  // boot steps below already call kernel routines
  modules.Boot(KernelExports(config), config.listKernelImage);
  PublishObjectTypes(ob);
  se.Boot(ob);
  ps.Boot(ob);
  ps.System()->token = se.CreateToken(kSystemLogonId, SECURITY_MANDATORY_SYSTEM_RID, 0);
  SetSharedUserDataVersion(config.windowsMajor);
  io.Boot(ob);
  cm.Boot(ob);
  StartMountManager(io);
  SetKernel(previous ? previous : this);
}

Kernel::~Kernel() {
  Kernel* previous = g_kernel;
  SetKernel(this);
  threads.Shutdown();  // system threads run kernel code until they end
  StopMountManager();  // its late answers complete requests of this kernel
  cm.Teardown();
  io.Teardown();
  ps.Teardown();
  mm.ReleaseAll();
  pool.ReleaseAll();
  faults.ReleaseAll();
  modules.Teardown();
  SetKernel(previous == this ? nullptr : previous);
  ResetCurrentThreadBinding();
}

void NoKernelBooted() {
  std::fprintf(stderr, "ntsim: a kernel routine was called with no simulated machine booted\n");
  std::abort();
}

bool KernelBooted() { return g_kernel != nullptr; }

void SetKernel(Kernel* kernel) {
  g_kernel = kernel;
  g_kernelGeneration = kernel ? kernel->generation : 0;
}

}  // namespace ntsim
