#include "events_app.h"

#include <cerrno>
#include <cstdlib>
#include <map>

#include "sentrel_sdk/consumer.h"
#include "sentrel_sdk/event_line.h"
#include "sentrel_sdk/white_rule_text.h"

namespace sentrel_events {

using sentrel_sdk::DeviceAnswer;
using sentrel_sdk::Json;

namespace {

bool Number(const char* text, uint64_t limit, uint64_t* value) {
  if (!text || !*text || *text == '-') return false;
  errno = 0;
  char* end = nullptr;
  // Decimal, or hex after 0x; never octal (a process id written 0755 means 755).
  bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  unsigned long long parsed = std::strtoull(text, &end, hex ? 16 : 10);
  if (errno != 0 || *end != '\0' || parsed > limit) return false;
  *value = parsed;
  return true;
}

std::string ErrorText(const DeviceAnswer& answer) {
  switch (answer.error) {
    case sentrel_sdk::kErrorAccessDenied: return "access denied (Windows error 5)";
    case sentrel_sdk::kErrorInvalidFunction: return "not implemented by this driver (Windows error 1)";
    case sentrel_sdk::kErrorInvalidParameter: return "invalid parameter (Windows error 87)";
    case sentrel_sdk::kErrorInvalidData: return "an answer that does not add up (Windows error 13)";
    case sentrel_sdk::kErrorNoSystemResources: return "the driver lacks resources (Windows error 1450)";
    default: return "Windows error " + std::to_string(answer.error);
  }
}

}  // namespace

const char* Usage() {
  return "usage: sentrel-events [options]\n"
         "\n"
         "Reads the events of the Sentrel driver on this machine and prints each as one JSON line,\n"
         "the same lines sentrel-sim prints (docs/events.md lists every field):\n"
         "  {\"event\":\"ET_PROCESS_CREATE\",\"cpu\":0,\"src_pid\":4321,\"length\":412,\"process\":{...},...}\n"
         "It registers as the driver's consumer (one process at a time may be), maps the driver's\n"
         "ring buffers and drains them until it has printed N events (--count) or Ctrl-C is pressed,\n"
         "then prints a {\"summary\":...} line. Run it from an elevated prompt once the driver is\n"
         "started (docs/install-windows.md).\n"
         "\n"
         "options:\n"
         "  --count N          stop after N events; the buffer being read is finished first, so\n"
         "                     that no event taken out of it is dropped: a few more may print\n"
         "  --mask MASK        enable only these event types: bit (1 << type), e.g. 0x31 for\n"
         "                     ET_PROCESS_CREATE, ET_IMAGE_LOAD and ET_DRIVER_LOAD; the driver keeps\n"
         "                     it until it stops (all ones, 0xffffffffffffffff, cannot be set)\n"
         "  --add-rules FILE   upload white rules: events that match are not reported. One rule a\n"
         "                     line, the event type then the pattern; # starts a comment:\n"
         "                       ET_PROCESS_CREATE  *\\Tools\\build.exe\n"
         "                       ET_IMAGE_LOAD      \\SystemRoot\\System32\\*\n"
         "  --delete-rules     delete every white rule, the built-in ones too; the event types that\n"
         "                     had rules take no new ones until the driver restarts\n"
         "  --describe PID     print the driver's description of one process and exit\n"
         "  --poll MS          pause between passes over empty buffers (default 20)\n"
         "  --help             this text\n"
         "\n"
         "exit status: 0 done; 1 the driver refused a request (mask, rules, description);\n"
         "2 nothing could start: bad options, the device cannot be opened (is the driver installed\n"
         "and started?), another process is the consumer, or the ring buffers cannot be mapped.\n"
         "\n"
         "The summary counts the events by type and what the reader met in the buffers, and\n"
         "gives the driver's loss counters (docs/losses.md): per processor the unread records\n"
         "lost to a full buffer and the packets dropped, and the control packets queues evicted.\n";
}

bool ParseOptions(int argc, const char* const* argv, Options* options, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    auto needs = [&](const char* what) {
      *error = name + " needs " + what;
      return false;
    };
    uint64_t number = 0;
    if (name == "--help" || name == "-h" || name == "/?") {
      options->help = true;
    } else if (name == "--delete-rules") {
      options->deleteRules = true;
    } else if (name == "--count") {
      if (!Number(value, UINT64_MAX, &number) || number == 0) return needs("a number of events above 0");
      options->count = number, ++i;
    } else if (name == "--mask") {
      if (!Number(value, UINT64_MAX, &number)) return needs("a mask (decimal, or hex with 0x)");
      if (number == UINT64_MAX) return needs("a mask other than all ones (that value only reads the mask)");
      options->mask = number, ++i;
    } else if (name == "--add-rules") {
      if (!value) return needs("a file");
      options->rulesFile = value, ++i;
    } else if (name == "--describe") {
      if (!Number(value, UINT32_MAX, &number)) return needs("a process id");
      options->describe = static_cast<uint32_t>(number), ++i;
    } else if (name == "--poll") {
      if (!Number(value, 60000, &number)) return needs("milliseconds (0 to 60000)");
      options->pollMs = static_cast<uint32_t>(number), ++i;
    } else {
      *error = "unknown argument " + name;
      return false;
    }
  }
  if (options->deleteRules && !options->rulesFile.empty()) {
    // After a delete the driver takes no new rules for the event types that had some, until it
    // starts again; an upload in the same run would fail half-way.
    *error = "--delete-rules and --add-rules go in separate runs (after a delete the driver refuses new rules for "
             "the event types that had rules until it restarts)";
    return false;
  }
  return true;
}

std::string NoDeviceMessage(uint32_t error) {
  return "sentrel-events: cannot open \\\\.\\Sentrel (Windows error " + std::to_string(error) +
         "): is the driver installed and started? (docs/install-windows.md)";
}

int Run(sentrel_sdk::Device& device, const Options& options, const Environment& environment, std::ostream& out,
        std::ostream& err) {
  sentrel_sdk::Consumer consumer(device);

  if (options.describe) {
    // Any process may ask; no registration needed.
    Json description = Json::object();
    std::string problem;
    DeviceAnswer answer = consumer.DescribeProcess(*options.describe, &description, &problem);
    if (!answer.Ok()) {
      err << "sentrel-events: the driver did not describe process " << *options.describe << ": "
          << (problem.empty() ? ErrorText(answer) : problem) << '\n';
      return kExitRefused;
    }
    Json line = {{"process_id", *options.describe}};
    for (auto& [key, value] : description.items()) line[key] = value;
    out << Json{{"description", line}}.dump() << '\n';
    return kExitOk;
  }

  // The rules file is read before anything changes in the driver.
  sentrel_sdk::WhiteRuleRecords rules;
  if (!options.rulesFile.empty()) {
    std::string text, problem;
    if (!environment.readFile(options.rulesFile, &text, &problem)) {
      err << "sentrel-events: cannot read " << options.rulesFile << ": " << problem << '\n';
      return kExitNoStart;
    }
    if (!sentrel_sdk::ParseWhiteRules(text, &rules, &problem)) {
      err << "sentrel-events: " << options.rulesFile << ": " << problem << '\n';
      return kExitNoStart;
    }
  }

  std::string commuId;
  DeviceAnswer answer = consumer.Register(&commuId);
  if (answer.error == sentrel_sdk::kErrorAccessDenied) {
    err << "sentrel-events: another process is Sentrel's consumer; only one may be registered at a time "
           "(stop it and try again)\n";
    return kExitNoStart;
  }
  if (!answer.Ok()) {
    err << "sentrel-events: registration as consumer failed: " << ErrorText(answer) << '\n';
    return kExitNoStart;
  }
  err << "sentrel-events: registered as consumer, CommuId " << commuId << '\n';

  if (options.deleteRules) {
    answer = consumer.DeleteWhiteRules();
    if (!answer.Ok()) {
      err << "sentrel-events: deleting the white rules failed: " << ErrorText(answer) << '\n';
      return kExitRefused;
    }
    err << "sentrel-events: white rules deleted\n";
  }
  if (rules.count > 0) {
    answer = consumer.AddWhiteRules(rules);
    if (!answer.Ok()) {
      err << "sentrel-events: uploading " << rules.count << " white rules failed: " << ErrorText(answer) << '\n';
      return kExitRefused;
    }
    err << "sentrel-events: " << rules.count << " white rules uploaded\n";
  }
  if (options.mask) {
    answer = consumer.SetEventMask(*options.mask);
    if (!answer.Ok()) {
      err << "sentrel-events: setting the event mask failed: " << ErrorText(answer) << '\n';
      return kExitRefused;
    }
  }

  std::optional<sentrel_sdk::RingReader> reader;
  answer = consumer.MapRingBuffers(&reader);
  if (!answer.Ok()) {
    err << "sentrel-events: the ring buffers could not be mapped: " << ErrorText(answer) << '\n';
    return kExitNoStart;
  }
  err << "sentrel-events: " << reader->BufferCount() << " ring buffers mapped; reading"
      << (options.count ? " " + std::to_string(options.count) + " events" : " until Ctrl-C") << '\n';

  std::map<std::string, uint64_t> byType;
  uint64_t printed = 0;
  auto print = [&](const sentrel_sdk::RingRecord& record) {
    Json line = sentrel_sdk::EventLine(record);
    ++byType[sentrel_sdk::EventLineKind(line)];
    ++printed;
    out << line.dump() << '\n';
  };
  // Whole slots at a time: a slot is given back only after all its records are printed. Ctrl-C is
  // looked at between slots, so the reader never leaves a slot taken.
  for (;;) {
    size_t read = 0;
    for (size_t buffer = 0; buffer < reader->BufferCount(); ++buffer) {
      read += reader->DrainBuffer(buffer, print);
      if ((options.count && printed >= options.count) || environment.stopRequested()) break;
    }
    out.flush();
    if ((options.count && printed >= options.count) || environment.stopRequested()) break;
    if (read == 0) environment.sleepMs(options.pollMs);
  }

  const sentrel_sdk::RingReaderCounts& counts = reader->Counts();
  Json events = Json::object();
  for (const auto& [type, count] : byType) events[type] = count;
  std::optional<sentrel_sdk::LossReport> losses;
  answer = consumer.QueryLosses(&losses);
  if (!answer.Ok()) err << "sentrel-events: the loss counters could not be read: " << ErrorText(answer) << '\n';
  out << Json{{"summary",
               {{"events", events},
                {"reader",
                 {{"records", counts.records},
                  {"slots_read", counts.slotsRead},
                  {"slots_busy", counts.slotsBusy},
                  {"malformed", counts.malformed}}},
                {"losses", losses ? sentrel_sdk::LossReportJson(*losses) : Json()}}}}
             .dump()
      << '\n';
  // The views of the buffers go when this process exits; the device closes with its handle.
  return kExitOk;
}

}  // namespace sentrel_events
