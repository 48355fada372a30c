// Runs a scenario on a simulated machine with Sentrel, and writes what happens as JSON Lines: the
// replies of the ops, the events the consumer reads (decoded by the consumer library), the
// driver's log if asked for, and a closing summary with the verifier's verdict.
#pragma once

#include <functional>
#include <istream>
#include <memory>
#include <ostream>

#include "scenario.h"

namespace sentrel_sim {

struct RunOptions {
  bool log = false;  // the driver's DbgPrint output as {"log": ...} lines
  // Sees every line before it is written (and the driver's log lines when observeLog is set, even
  // those not written).
  std::function<void(const Json&)> observe;
  bool observeLog = false;
};

// A scenario run op by op, for a caller that makes the ops as it goes: the machine boots at
// construction (shaped by a "machine" op if one is given), Finish ends the run as RunScenario
// does and returns its exit status. Ops are checked by ParseScenario's rules beforehand.
class Session {
 public:
  Session(std::ostream& output, const RunOptions& options, const Op* machineOp = nullptr);
  ~Session();
  void Perform(const Op& op);
  int Finish();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The exit status: 0 when every op ran and the verifier found nothing left behind; 1 when an op
// was refused or the verifier found something; 2 for a scenario error (nothing runs).
int RunScenario(std::istream& scenario, std::ostream& output, const RunOptions& options);

// The scenario the tool runs when given none.
const char* DemoScenario();

}  // namespace sentrel_sim
