// sentrel-sim: runs Sentrel inside the simulated NT kernel and shows what happens.
//
// For now it runs the start-up demo: boot a machine, set the driver's Debug levels (PrintLevel 5:
// errors and traces; TraceLevel 0x2: the driver core), load the driver, open and close its device
// as a user-mode program would, unload it, and print the driver's debug output and the verifier's
// verdict. Scenario files come with the consumer library.
#include <cstdio>
#include <cstring>
#include <string>

#include "world.h"

using ntsim::IoResult;
using ntsim::World;

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::printf("usage: sentrel-sim\n  Loads Sentrel on a simulated machine, opens its device, unloads it,\n"
                  "  and prints the driver's debug output and the verifier's verdict.\n");
      return 0;
    }
  }
  World world;
  std::u16string debugKey = std::u16string(World::ServiceKeyPath()) + u"\\Debug";
  world.SetRegistryDwordDirect(debugKey, u"PrintLevel", 5);
  world.SetRegistryDwordDirect(debugKey, u"TraceLevel", 0x2);

  NTSTATUS status = world.LoadDriver();
  std::printf("== load: DriverEntry returned %08x\n", static_cast<unsigned>(status));
  bool ok = NT_SUCCESS(status);
  if (ok) {
    ntsim::UserProcess& agent = world.StartProcess(u"agent.exe");
    HANDLE device = nullptr;
    status = agent.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &device);
    std::printf("== open \\\\.\\Sentrel from agent.exe (pid %llu): %08x\n",
                static_cast<unsigned long long>(agent.Id()), static_cast<unsigned>(status));
    if (NT_SUCCESS(status)) {
      char buffer[64];
      IoResult read = agent.ReadFile(device, buffer, sizeof buffer);
      std::printf("== read: %08x (reads are answered once device dispatch is in)\n",
                  static_cast<unsigned>(read.status));
      std::printf("== close: %08x\n", static_cast<unsigned>(agent.CloseHandle(device)));
    } else {
      ok = false;
    }
  }
  ntsim::Verdict verdict = ok ? world.UnloadDriver() : world.LastVerdict();
  if (ok) std::printf("== unload\n");
  std::printf("\n== driver debug output\n%s", world.debug().Text().c_str());
  std::printf("\n== verifier: %s", verdict.Report().c_str());
  return ok && verdict.Clean() ? 0 : 1;
}
