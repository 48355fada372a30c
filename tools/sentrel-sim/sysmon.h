// Replaying a recording of Windows activity, as the Sysinternals system monitor (Sysmon) logs it
// exported to JSON Lines, through Sentrel on the simulated machine, and comparing what Sentrel
// reports with what was recorded (docs/sysmon-replay.md).
//
// Events 1 (process created), 5 (process ended), 6 (driver loaded), 7 (image loaded) and 8 (remote
// thread) are replayed; others are skipped and counted; a line that is not such an event is named
// by its line number and skipped. The processes the recording refers to before it shows their
// start (parents, sources, targets) run before the driver loads; the users and logon sessions come
// from the events' fields.
#pragma once

#include <istream>
#include <ostream>
#include <string>

#include "runner.h"

namespace sentrel_sim {

struct SysmonOptions {
  bool emitScenario = false;  // write the scenario the recording becomes, and run nothing
  bool log = false;           // the driver's log lines in the output too
  std::string whiteRules;     // a file of white rules the consumer uploads once it runs (none if empty)
};

// Reads the recording twice (the first pass learns which processes exist before it starts). Writes
// Sentrel's output and, last, one {"comparison": ...} line; returns the run's exit status, or 2
// when the recording cannot be read.
int ReplaySysmon(const std::string& path, std::ostream& output, const SysmonOptions& options);

}  // namespace sentrel_sim
