// sentrel-events without its platform: the options, and a run over an open device that registers,
// configures, maps the ring buffers and prints each event as one JSON line (docs/events.md), the
// same lines sentrel-sim prints. main.cpp opens the device and handles Ctrl-C.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "sentrel_sdk/device.h"

namespace sentrel_events {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;   // the driver refused a request (mask, rules, description)
constexpr int kExitNoStart = 2;   // bad options, no device, another consumer, no mapping

struct Options {
  bool help = false;
  std::optional<uint64_t> mask;
  std::string rulesFile;  // white rules to upload (sentrel_sdk/white_rule_text.h)
  bool deleteRules = false;
  std::optional<uint32_t> describe;
  uint64_t count = 0;     // stop after this many events; 0: until Ctrl-C
  uint32_t pollMs = 20;   // pause when the buffers are empty
};

const char* Usage();

// false, with the reason in *error, for arguments that are not options of ours.
bool ParseOptions(int argc, const char* const* argv, Options* options, std::string* error);

// What a run needs from its platform besides the device.
struct Environment {
  std::function<bool()> stopRequested;                                  // Ctrl-C
  std::function<void(uint32_t)> sleepMs;                                // the pause between empty passes
  std::function<bool(const std::string&, std::string*, std::string*)> readFile;  // path, contents, error
};

// One run; returns the exit status. Event lines and the summary go to out, messages to err.
int Run(sentrel_sdk::Device& device, const Options& options, const Environment& environment, std::ostream& out,
        std::ostream& err);

// The message for a device that cannot be opened (exit status 2).
std::string NoDeviceMessage(uint32_t error);

}  // namespace sentrel_events
