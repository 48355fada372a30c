// sentrel-sim: runs Sentrel inside the simulated NT kernel on a scenario and prints, as JSON Lines,
// what happens: replies, the events the consumer reads, and a closing summary (docs/scenario.md).
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "runner.h"
#include "sysmon.h"

int main(int argc, char** argv) {
  sentrel_sim::RunOptions options;
  const char* path = nullptr;
  const char* sysmon = nullptr;
  bool emitScenario = false;
  const char* whiteRules = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::printf(
          "usage: sentrel-sim [--log] [scenario.jsonl | -]\n"
          "       sentrel-sim [--log] [--emit-scenario] [--white-rules rules.txt] --sysmon recording.jsonl\n"
          "  Runs the scenario (the built-in demo when none is given; - reads standard input) on a\n"
          "  simulated machine with Sentrel and prints JSON Lines: op replies, the events the consumer\n"
          "  reads, with --log the driver's debug output, and a summary with the verifier's verdict.\n"
          "  With --sysmon it replays a system-monitor recording (JSON Lines, events 1, 5, 6, 7, 8) and\n"
          "  ends with a comparison of what Sentrel reported and what was recorded; --emit-scenario\n"
          "  prints the scenario the recording becomes instead; --white-rules has the consumer upload\n"
          "  those white rules first (docs/sysmon-replay.md).\n"
          "  Exit status: 0 all ran and nothing was left behind, 1 otherwise, 2 scenario error.\n");
      return 0;
    }
    if (std::strcmp(argv[i], "--log") == 0) {
      options.log = true;
    } else if (std::strcmp(argv[i], "--emit-scenario") == 0) {
      emitScenario = true;
    } else if (std::strcmp(argv[i], "--sysmon") == 0 && i + 1 < argc) {
      sysmon = argv[++i];
    } else if (std::strcmp(argv[i], "--white-rules") == 0 && i + 1 < argc) {
      whiteRules = argv[++i];
    } else if (!path) {
      path = argv[i];
    } else {
      std::fprintf(stderr, "sentrel-sim: one scenario at a time (see --help)\n");
      return 2;
    }
  }
  if (whiteRules && !sysmon) {
    std::fprintf(stderr, "sentrel-sim: --white-rules goes with --sysmon (a scenario has its white_rules op)\n");
    return 2;
  }
  if (sysmon) {
    if (path) {
      std::fprintf(stderr, "sentrel-sim: a recording or a scenario, not both (see --help)\n");
      return 2;
    }
    sentrel_sim::SysmonOptions replay;
    replay.emitScenario = emitScenario;
    replay.log = options.log;
    if (whiteRules) replay.whiteRules = whiteRules;
    return sentrel_sim::ReplaySysmon(sysmon, std::cout, replay);
  }
  if (!path) {
    std::istringstream demo(sentrel_sim::DemoScenario());
    return sentrel_sim::RunScenario(demo, std::cout, options);
  }
  if (std::strcmp(path, "-") == 0) return sentrel_sim::RunScenario(std::cin, std::cout, options);
  std::ifstream file(path);
  if (!file) {
    std::fprintf(stderr, "sentrel-sim: cannot read %s\n", path);
    return 2;
  }
  return sentrel_sim::RunScenario(file, std::cout, options);
}
