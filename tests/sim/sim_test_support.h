// Helpers shared by the simulated kernel's tests: bounded host threads, and the verifier's
// violations recorded instead of stopping the run.
#pragma once

#include <string>
#include <vector>

#include "host_thread.h"
#include "world.h"

namespace sim_test {

// Violations are recorded for the test to inspect instead of stopping the process.
inline void RecordViolations(ntsim::World& world) {
  world.verifier().SetViolationPolicy(ntsim::Verifier::ViolationPolicy::Record);
}

// The routines named by the verifier's findings, in order.
inline std::vector<std::string> ViolationCalls(ntsim::World& world) {
  std::vector<std::string> calls;
  for (const ntsim::Finding& f : world.verifier().Violations()) calls.push_back(f.call);
  return calls;
}

}  // namespace sim_test
