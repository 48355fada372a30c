// Runs a scenario on a simulated machine with Sentrel, and writes what happens as JSON Lines: the
// replies of the ops, the events the consumer reads (decoded by the consumer library), the
// driver's log if asked for, and a closing summary with the verifier's verdict.
#pragma once

#include <istream>
#include <ostream>

namespace sentrel_sim {

struct RunOptions {
  bool log = false;  // the driver's DbgPrint output as {"log": ...} lines
};

// The exit status: 0 when every op ran and the verifier found nothing left behind; 1 when an op
// was refused or the verifier found something; 2 for a scenario error (nothing runs).
int RunScenario(std::istream& scenario, std::ostream& output, const RunOptions& options);

// The scenario the tool runs when given none.
const char* DemoScenario();

}  // namespace sentrel_sim
