// sentrel-events against the driver on a simulated machine: the device requests go through the
// same Device class that opens "\\.\Sentrel" on Windows, answered as DeviceIoControl answers them.
// What is checked is what its user sees: the lines it prints, its messages and its exit status.
#include <gtest/gtest.h>

#include <sstream>

#include "events_app.h"
#include "ntsim/status.h"
#include "sentrel/packet_build.h"
#include "sentrel/ring_buffer.h"
#include "sentrel_sdk/consumer.h"
#include "world.h"

namespace {

using sentrel_sdk::Json;

// What Windows makes of the driver's statuses on the way to DeviceIoControl's caller.
uint32_t Win32ErrorOf(NTSTATUS status) {
  switch (status) {
    case STATUS_SUCCESS: return 0;
    case STATUS_ACCESS_DENIED: return sentrel_sdk::kErrorAccessDenied;
    case STATUS_INVALID_PARAMETER: return sentrel_sdk::kErrorInvalidParameter;
    case STATUS_NOT_IMPLEMENTED: return sentrel_sdk::kErrorInvalidFunction;
    case STATUS_BUFFER_TOO_SMALL: return sentrel_sdk::kErrorInsufficientBuffer;
    case STATUS_BUFFER_OVERFLOW: return sentrel_sdk::kErrorMoreData;
    case STATUS_INSUFFICIENT_RESOURCES: return sentrel_sdk::kErrorNoSystemResources;
    default: return 317;  // ERROR_MR_MID_NOT_FOUND: no Win32 equivalent
  }
}

// A process's synchronous handle on the device, as sentrel-events.exe holds one.
class SimDevice : public sentrel_sdk::Device {
 public:
  explicit SimDevice(ntsim::UserProcess& process) : process_(process) {
    EXPECT_EQ(process.CreateFile(u"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, &handle_), STATUS_SUCCESS);
  }
  ~SimDevice() override {
    if (!process_.Exited()) process_.CloseHandle(handle_);
  }
  sentrel_sdk::DeviceAnswer Control(uint32_t code, const void* in, uint32_t inLength, void* out,
                                    uint32_t outLength) override {
    ntsim::IoResult result = process_.DeviceIoControl(handle_, code, in, inLength, out, outLength);
    return {Win32ErrorOf(result.status), static_cast<uint32_t>(result.information)};
  }
  ntsim::UserProcess& Process() { return process_; }
  HANDLE Handle() const { return handle_; }

 private:
  ntsim::UserProcess& process_;
  HANDLE handle_ = nullptr;
};

struct RunOutput {
  int status = -1;
  std::vector<Json> lines;
  std::string messages;
  std::vector<Json> Events() const {
    std::vector<Json> events;
    for (const Json& line : lines) {
      if (line.contains("event")) events.push_back(line);
    }
    return events;
  }
};

class SentrelEventsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS); }
  void TearDown() override {
    devices.clear();
    for (ntsim::UserProcess* process : started) world.ExitProcess(*process);
    ntsim::Verdict verdict = world.UnloadDriver();
    EXPECT_TRUE(verdict.Clean()) << verdict.Report();
  }
  SimDevice& Open(const std::u16string& image) {
    ntsim::UserProcess& process = world.StartProcess(image);
    started.push_back(&process);
    devices.push_back(std::make_unique<SimDevice>(process));
    return *devices.back();
  }
  // A producer's event packet, written to the device as any process may.
  void Produce(SimDevice& producer, uint32_t eventType, const std::string& body) {
    std::vector<uint8_t> packet(SK_PACKET_HEADER_SIZE + 8 + body.size());
    sk_PacketInit(packet.data(), SKPT_EVENT, SKT_PRODUCER, static_cast<uint32_t>(producer.Process().Id()),
                  SKT_CONSUMER, 0, static_cast<uint32_t>(packet.size() - SK_PACKET_HEADER_SIZE));
    sk_StoreLe32(packet.data(), SK_PACKET_HEADER_SIZE, static_cast<uint32_t>(8 + body.size()));
    sk_StoreLe32(packet.data(), SK_PACKET_HEADER_SIZE + 4, eventType);
    std::memcpy(packet.data() + SK_PACKET_HEADER_SIZE + 8, body.data(), body.size());
    auto io = producer.Process().WriteFileOverlapped(producer.Handle(), packet.data(),
                                                     static_cast<ULONG>(packet.size()));
    ASSERT_TRUE(io->Wait(std::chrono::seconds(5)));
    ASSERT_EQ(io->Result().status, STATUS_SUCCESS);
  }
  RunOutput Run(SimDevice& device, const std::vector<const char*>& arguments) {
    std::vector<const char*> argv = {"sentrel-events"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    sentrel_events::Options options;
    std::string error;
    EXPECT_TRUE(sentrel_events::ParseOptions(static_cast<int>(argv.size()), argv.data(), &options, &error)) << error;
    std::ostringstream out, err;
    RunOutput output;
    output.status = device.Process().InProcess([&] { return sentrel_events::Run(device, options, environment, out, err); });
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);) output.lines.push_back(Json::parse(line));
    output.messages = err.str();
    return output;
  }

  ntsim::World world;
  std::vector<ntsim::UserProcess*> started;
  std::vector<std::unique_ptr<SimDevice>> devices;
  std::map<std::string, std::string> files;
  int sleeps = 0;
  int stopAfterSleeps = -1;  // Ctrl-C once this many empty passes have slept
  sentrel_events::Environment environment{
      [this] { return stopAfterSleeps >= 0 && sleeps >= stopAfterSleeps; },
      [this](uint32_t) { ++sleeps; },
      [this](const std::string& path, std::string* text, std::string* error) {
        auto it = files.find(path);
        if (it == files.end()) {
          *error = "no such file";
          return false;
        }
        *text = it->second;
        return true;
      }};
};

TEST_F(SentrelEventsTest, PrintsTheEventsWaitingInTheBuffersAsEventLinesThenASummary) {
  SimDevice& producer = Open(u"producer.exe");
  // Written before any consumer: they wait in the ring buffers.
  Produce(producer, ET_FILE_CREATE, "C:\\a.txt");
  Produce(producer, ET_NET_DNS, "example.org");
  Produce(producer, ET_FILE_CREATE, "C:\\b.txt");
  SimDevice& consumer = Open(u"sentrel-events.exe");

  RunOutput output = Run(consumer, {"--count", "3"});
  EXPECT_EQ(output.status, sentrel_events::kExitOk) << output.messages;
  std::vector<Json> events = output.Events();
  ASSERT_EQ(events.size(), 3u);
  std::multiset<std::string> bodies;
  for (const Json& event : events) {
    EXPECT_EQ(event.begin().key(), "event");  // the name first, as sentrel-sim prints it
    EXPECT_EQ(event["src_pid"], producer.Process().Id());
    EXPECT_EQ(event["producer"], true);
    EXPECT_TRUE(event["cpu"].is_number());
    bodies.insert(event["body"].get<std::string>().substr(16));  // after the length and the type
  }
  EXPECT_EQ(bodies, (std::multiset<std::string>{sentrel_sdk::Hex(reinterpret_cast<const uint8_t*>("C:\\a.txt"), 8),
                                                sentrel_sdk::Hex(reinterpret_cast<const uint8_t*>("C:\\b.txt"), 8),
                                                sentrel_sdk::Hex(reinterpret_cast<const uint8_t*>("example.org"), 11)}));
  Json summary = output.lines.back()["summary"];
  EXPECT_EQ(summary["events"], (Json{{"ET_FILE_CREATE", 2}, {"ET_NET_DNS", 1}}));
  EXPECT_EQ(summary["reader"]["records"], 3);
  EXPECT_EQ(summary["reader"]["malformed"], 0);
  EXPECT_NE(output.messages.find("registered as consumer"), std::string::npos);
  // Nothing was lost: the driver's counters say so, per processor.
  ASSERT_TRUE(summary["losses"].is_object()) << output.messages;
  EXPECT_EQ(summary["losses"]["buffers"].size(), 4u);
  EXPECT_EQ(summary["losses"]["buffers"][0], (Json{{"cpu", 0}, {"overwritten", 0}, {"dropped", 0}}));
  EXPECT_EQ(summary["losses"]["consumer_queue_evicted"], 0);
}

TEST_F(SentrelEventsTest, CtrlCEndsTheRunBetweenSlotsAndLeavesNoSlotTaken) {
  SimDevice& producer = Open(u"producer.exe");
  SimDevice& consumer = Open(u"sentrel-events.exe");
  Produce(producer, ET_NET_CONNECT, "10.0.0.1");
  stopAfterSleeps = 2;
  RunOutput output = Run(consumer, {});
  EXPECT_EQ(output.status, sentrel_events::kExitOk) << output.messages;
  EXPECT_EQ(output.Events().size(), 1u);
  EXPECT_EQ(sleeps, 2);
  ASSERT_TRUE(output.lines.back().contains("summary"));

  // Every slot is free again: what is written now waits for the next read.
  std::optional<sentrel_sdk::RingReader> reader;
  sentrel_sdk::Consumer again(consumer);
  ASSERT_TRUE(consumer.Process().InProcess([&] { return again.MapRingBuffers(&reader); }).Ok());
  for (size_t buffer = 0; buffer < reader->BufferCount(); ++buffer) {
    for (uint32_t slot = 0; slot < RB_SLOT_COUNT; ++slot) EXPECT_EQ(reader->SlotState(buffer, slot), RB_SLOT_FREE);
  }
  Produce(producer, ET_NET_CONNECT, "10.0.0.2");
  EXPECT_EQ(reader->DrainAll([](const sentrel_sdk::RingRecord&) {}), 1u);
}

TEST_F(SentrelEventsTest, ASecondConsumerIsTurnedAwayWithStatus2) {
  SimDevice& first = Open(u"agent.exe");
  std::string commuId;
  ASSERT_TRUE(first.Process().InProcess([&] { return sentrel_sdk::Consumer(first).Register(&commuId); }).Ok());
  SimDevice& second = Open(u"sentrel-events.exe");
  RunOutput output = Run(second, {"--count", "1"});
  EXPECT_EQ(output.status, sentrel_events::kExitNoStart);
  EXPECT_NE(output.messages.find("another process is Sentrel's consumer"), std::string::npos) << output.messages;
  EXPECT_TRUE(output.lines.empty());
}

TEST_F(SentrelEventsTest, RulesAndMaskReachTheDriverAndABadRulesFileChangesNothing) {
  SimDevice& consumer = Open(u"sentrel-events.exe");
  files["bad.txt"] = "ET_PROCESS_CREATE *\\a.exe\nET_WHATEVER *\\b.exe\n";
  RunOutput bad = Run(consumer, {"--add-rules", "bad.txt", "--mask", "0x31"});
  EXPECT_EQ(bad.status, sentrel_events::kExitNoStart);
  EXPECT_NE(bad.messages.find("bad.txt: line 2: \"ET_WHATEVER\" is not an event type"), std::string::npos)
      << bad.messages;
  RunOutput missing = Run(consumer, {"--add-rules", "nowhere.txt"});
  EXPECT_EQ(missing.status, sentrel_events::kExitNoStart);
  EXPECT_NE(missing.messages.find("cannot read nowhere.txt"), std::string::npos);

  // Nothing was registered by the refused runs: another process may still become the consumer,
  // and the mask is still all ones.
  SimDevice& probe = Open(u"probe.exe");
  sentrel_sdk::Consumer probeConsumer(probe);
  std::string commuId;
  uint64_t mask = 0;
  ASSERT_TRUE(probe.Process().InProcess([&] { return probeConsumer.Register(&commuId); }).Ok());
  ASSERT_TRUE(probe.Process().InProcess([&] { return probeConsumer.QueryEventMask(&mask); }).Ok());
  EXPECT_EQ(mask, ~0ull);
  world.ExitProcess(probe.Process());

  files["good.txt"] = "# ours\nET_PROCESS_CREATE *\\Tools\\build.exe\nET_IMAGE_LOAD \\SystemRoot\\System32\\*\n";
  stopAfterSleeps = 0;
  RunOutput good = Run(consumer, {"--add-rules", "good.txt", "--mask", "0x31"});
  EXPECT_EQ(good.status, sentrel_events::kExitOk) << good.messages;
  EXPECT_NE(good.messages.find("2 white rules uploaded"), std::string::npos);
  sentrel_sdk::Consumer same(consumer);
  ASSERT_TRUE(consumer.Process().InProcess([&] { return same.QueryEventMask(&mask); }).Ok());
  EXPECT_EQ(mask, 0x31u);

  // A delete closes the event types that had rules: an upload for them is refused afterwards.
  RunOutput deleted = Run(consumer, {"--delete-rules"});
  EXPECT_EQ(deleted.status, sentrel_events::kExitOk) << deleted.messages;
  EXPECT_NE(deleted.messages.find("white rules deleted"), std::string::npos);
  RunOutput again = Run(consumer, {"--add-rules", "good.txt"});
  EXPECT_EQ(again.status, sentrel_events::kExitRefused);
  EXPECT_NE(again.messages.find("uploading 2 white rules failed"), std::string::npos) << again.messages;
}

TEST_F(SentrelEventsTest, DescribesARunningProcessAndRefusesTheSystemProcess) {
  SimDevice& consumer = Open(u"sentrel-events.exe");
  RunOutput described = Run(consumer, {"--describe", std::to_string(consumer.Process().Id()).c_str()});
  ASSERT_EQ(described.status, sentrel_events::kExitOk) << described.messages;
  ASSERT_EQ(described.lines.size(), 1u);
  const Json& line = described.lines[0]["description"];
  EXPECT_EQ(line["process"]["image_name"], "sentrel-events.exe") << line.dump();
  EXPECT_EQ(line["tree"][0]["process_id"], consumer.Process().Id());
  EXPECT_TRUE(line["logon"]["user_name"].is_string());

  // The System process has no place in the process table.
  RunOutput refused = Run(consumer, {"--describe", "4"});
  EXPECT_EQ(refused.status, sentrel_events::kExitRefused);
  EXPECT_NE(refused.messages.find("did not describe process 4: invalid parameter"), std::string::npos)
      << refused.messages;
}

TEST(SentrelEventsOptionsTest, OptionsAndTheirMistakes) {
  auto parse = [](std::vector<const char*> argv, sentrel_events::Options* options) {
    argv.insert(argv.begin(), "sentrel-events");
    std::string error;
    bool ok = sentrel_events::ParseOptions(static_cast<int>(argv.size()), argv.data(), options, &error);
    return ok ? std::string() : error;
  };
  sentrel_events::Options options;
  EXPECT_EQ(parse({"--count", "10", "--mask", "0x31", "--poll", "5", "--describe", "1234"}, &options), "");
  EXPECT_EQ(options.count, 10u);
  EXPECT_EQ(*options.mask, 0x31u);
  EXPECT_EQ(options.pollMs, 5u);
  EXPECT_EQ(*options.describe, 1234u);
  sentrel_events::Options octal;
  EXPECT_EQ(parse({"--describe", "0755"}, &octal), "");
  EXPECT_EQ(*octal.describe, 755u);
  sentrel_events::Options other;
  EXPECT_EQ(parse({"--count", "0"}, &other), "--count needs a number of events above 0");
  EXPECT_EQ(parse({"--count"}, &other), "--count needs a number of events above 0");
  EXPECT_EQ(parse({"--mask", "0xffffffffffffffff"}, &other),
            "--mask needs a mask other than all ones (that value only reads the mask)");
  EXPECT_EQ(parse({"--mask", "-1"}, &other), "--mask needs a mask (decimal, or hex with 0x)");
  EXPECT_EQ(parse({"--describe", "4294967296"}, &other), "--describe needs a process id");
  EXPECT_EQ(parse({"--add-rules"}, &other), "--add-rules needs a file");
  EXPECT_EQ(parse({"events"}, &other), "unknown argument events");
  EXPECT_EQ(parse({"--delete-rules", "--add-rules", "r.txt"}, &other).rfind("--delete-rules and --add-rules go in "
                                                                              "separate runs", 0),
            0u);
  EXPECT_EQ(sentrel_events::NoDeviceMessage(2),
            "sentrel-events: cannot open \\\\.\\Sentrel (Windows error 2): is the driver installed and started? "
            "(docs/install-windows.md)");
}

}  // namespace
