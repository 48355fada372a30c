// sentrel-sim through its library entry point: scenarios in, JSON Lines out.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "runner.h"
#include "scenario.h"

namespace {

using sentrel_sim::Json;

struct Output {
  int status = -1;
  std::vector<Json> lines;
  // The lines that have the key, in order.
  std::vector<Json> With(const std::string& key) const {
    std::vector<Json> out;
    for (const Json& line : lines) {
      if (line.contains(key)) out.push_back(line);
    }
    return out;
  }
  Json Reply(const std::string& op, size_t nth = 0) const {
    for (const Json& line : lines) {
      if (line.contains("reply") && line["reply"] == op && nth-- == 0) return line;
    }
    return Json();
  }
  Json Summary() const { return lines.empty() ? Json() : lines.back()["summary"]; }
};

Output Scenario(const std::string& text, bool log = false) {
  std::istringstream in(text);
  std::ostringstream out;
  Output run;
  sentrel_sim::RunOptions options;
  options.log = log;
  run.status = sentrel_sim::RunScenario(in, out, options);
  std::istringstream lines(out.str());
  std::string line;
  while (std::getline(lines, line)) run.lines.push_back(Json::parse(line));
  return run;
}

std::string ReadScenario(const std::string& name) {
  std::ifstream file(std::string(SENTREL_SCENARIOS_DIR) + "/" + name);
  std::stringstream text;
  text << file.rdbuf();
  EXPECT_FALSE(text.str().empty()) << name;
  return text.str();
}

// The events of one kind, in order.
std::vector<Json> EventsOf(const Output& run, const std::string& type) {
  std::vector<Json> out;
  for (const Json& line : run.With("event")) {
    if (line["event"] == type) out.push_back(line);
  }
  return out;
}

TEST(SentrelSimTest, TheChannelScenarioCarriesEventsAndControlPacketsAndEndsClean) {
  Output run = Scenario(ReadScenario("channel.jsonl"));
  ASSERT_EQ(run.status, 0);
  std::vector<Json> events;
  for (const Json& line : run.With("event")) {
    if (line.contains("producer")) events.push_back(line);
  }
  ASSERT_EQ(events.size(), 2u) << "the producers' events; the driver reports the processes besides";
  EXPECT_EQ(events[0]["event"], "ET_FILE_CREATE");
  EXPECT_EQ(events[0]["src_pid"], 2000);
  EXPECT_EQ(events[0]["body"], "1500000006000000433a5c54656d705c612e657865");
  EXPECT_EQ(events[1]["event"], "ET_NET_CONNECT");
  // The consumer's read waited until the producer answered.
  EXPECT_EQ(run.Reply("read", 1)["pending"], true);
  Json late = run.Reply("read", 2);
  EXPECT_EQ(late["late"], true);
  EXPECT_EQ(late["packet"]["body"], "02000000");
  // The broadcast reached both producers; the bad packets were refused by the driver.
  EXPECT_EQ(run.Reply("read", 4)["packet"]["body"], "04000000");
  EXPECT_EQ(run.Reply("read", 5)["packet"]["body"], "04000000");
  EXPECT_EQ(run.Reply("send", 6)["status"], "0xc000000d");
  EXPECT_EQ(run.Reply("write")["status"], "0xc000000d");
  Json summary = run.Summary();
  EXPECT_EQ(summary["events"]["ET_FILE_CREATE"], 1);
  EXPECT_EQ(summary["verdict"]["clean"], true);
  EXPECT_EQ(summary["refused_ops"], 0);
}

// The demo, as the README tells it.
TEST(SentrelSimTest, TheDemoTellsTheIntrusionFromStartToEnd) {
  Output run = Scenario(sentrel_sim::DemoScenario());
  ASSERT_EQ(run.status, 0);
  for (const Json& event : run.With("event")) {
    EXPECT_FALSE(event.contains("malformed")) << event.dump();
    EXPECT_FALSE(event.contains("producer")) << event.dump();
  }
  std::vector<Json> created = EventsOf(run, "ET_PROCESS_CREATE");
  std::vector<uint64_t> pids;
  for (const Json& e : created) pids.push_back(e["src_pid"]);
  // The attack's chain, explorer.exe at its first image load after the start, the backup tool
  // once: its second start came after the white rule.
  EXPECT_EQ(pids, (std::vector<uint64_t>{2000, 2100, 2200, 2300, 1500, 2400}));
  const Json& host = created[3];
  EXPECT_EQ(host["process"]["command_line"].get<std::string>().rfind("powershell -nop -w hidden -enc ", 0), 0u);
  EXPECT_EQ(host["process"]["creator_image_path"], "C:\\Windows\\System32\\cmd.exe");
  EXPECT_EQ(host["logon"]["user_name"], "SENTREL-LAB\\analyst");
  ASSERT_EQ(host["tree"].size(), 5u);
  EXPECT_EQ(host["tree"][4]["image_name"], "Explorer.EXE");

  std::vector<Json> images = EventsOf(run, "ET_IMAGE_LOAD");
  ASSERT_FALSE(images.empty());
  const Json* dropped = nullptr;
  for (const Json& e : images) {
    EXPECT_NE(e["src_pid"], 2410) << "silenced by the agent's white rule";
    EXPECT_EQ(e["data"]["image_path"].get<std::string>().find("samlib.dll"), std::string::npos) << "the mask";
    if (e["data"]["image_path"] == "C:\\Users\\analyst\\AppData\\Local\\Temp\\vaultcli.dll") dropped = &e;
  }
  ASSERT_NE(dropped, nullptr) << "the black rule wins over the agent's white rule";
  EXPECT_EQ((*dropped)["data"]["image_type"], "0xc0");

  std::vector<Json> threads = EventsOf(run, "ET_REMOTE_THREAD_CREATE");
  ASSERT_EQ(threads.size(), 1u);
  EXPECT_EQ(threads[0]["src_pid"], 2300);
  EXPECT_EQ(threads[0]["data"]["target_process_id"], 1500);
  EXPECT_EQ(threads[0]["data"]["module_name"], "shell32.dll");
  EXPECT_EQ(threads[0]["data"]["start_offset"], "+0x1a2b0");

  std::vector<Json> connects = EventsOf(run, "ET_NET_CONNECT");
  ASSERT_EQ(connects.size(), 1u) << "from the network producer driver";
  EXPECT_EQ(connects[0]["process"], host["process"]);
  EXPECT_EQ(connects[0]["caller_stack"][1], "UnknowImage+0x00001F0000001A2C") << "code in no image";
  EXPECT_EQ(connects[0]["caller_stack"][0], "C:\\Users\\analyst\\AppData\\Local\\Temp\\vaultcli.dll+0x1f40");

  std::vector<Json> drivers = EventsOf(run, "ET_DRIVER_LOAD");
  ASSERT_EQ(drivers.size(), 1u);
  EXPECT_EQ(drivers[0]["src_pid"], 640) << "services.exe";
  EXPECT_EQ(drivers[0]["data"]["service_name"], "kbdfltr");

  Json query = run.Reply("query");
  EXPECT_EQ(query["process"], host["process"]);
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
}

TEST(SentrelSimTest, EachMalformedLineIsNamedAndNothingRuns) {
  struct Case {
    std::string scenario;
    int line;
    std::string field;
  };
  const std::vector<Case> cases = {
      {"{\"op\":\"load\"}\n{\"op\":", 2, ""},
      {"[1,2]", 1, ""},
      {"{\"pid\":4}", 1, "op"},
      {"{\"op\":7}", 1, "op"},
      {"{\"op\":\"launch\"}", 1, "op"},
      {"# comment\n\n{\"op\":\"load\"}\n{\"op\":\"exit\"}", 4, "pid"},
      {"{\"op\":\"exit\",\"pid\":\"12\"}", 1, "pid"},
      {"{\"op\":\"exit\",\"pid\":-3}", 1, "pid"},
      {"{\"op\":\"exit\",\"pid\":12,\"signal\":9}", 1, "signal"},
      {"{\"op\":\"load\"}\n{\"op\":\"machine\",\"cpus\":2}", 2, "op"},
      {"{\"op\":\"send\",\"pid\":1,\"packet\":{\"dst\":\"consumer\"}}", 1, "packet.type"},
      {"{\"op\":\"send\",\"pid\":1,\"packet\":{\"type\":1,\"dst\":1,\"body\":\"xyz\"}}", 1, "packet.body"},
      {"{\"op\":\"write\",\"pid\":1,\"hex\":\"abc\"}", 1, "hex"},
      {"{\"op\":\"process\",\"pid\":10,\"image\":\"a.exe\",\"wow64\":1}", 1, "wow64"},
  };
  for (const Case& c : cases) {
    Output run = Scenario(c.scenario);
    EXPECT_EQ(run.status, 2) << c.scenario;
    ASSERT_EQ(run.lines.size(), 1u) << c.scenario;  // the error alone: not even the first line ran
    EXPECT_EQ(run.lines[0]["error"]["line"], c.line) << c.scenario;
    EXPECT_EQ(run.lines[0]["error"]["field"], c.field) << c.scenario;
  }
  // Numbers may be written in hex.
  Output hex = Scenario("{\"op\":\"machine\",\"cpus\":\"0x2\"}\n{\"op\":\"load\"}\n{\"op\":\"consumer\",\"pid\":\"0x3e8\"}");
  EXPECT_EQ(hex.status, 0);
  EXPECT_EQ(hex.Reply("consumer")["buffers"], 2);
  EXPECT_EQ(hex.Reply("consumer")["pid"], "0x3e8");
}

TEST(SentrelSimTest, OpsThatCannotRunAreRefusedAndTheRunFails) {
  Output run = Scenario(
      "{\"op\":\"send\",\"pid\":5,\"packet\":{\"type\":\"control\",\"dst\":\"consumer\"}}\n"
      "{\"op\":\"load\"}\n"
      "{\"op\":\"read\",\"pid\":77}\n"
      "{\"op\":\"mask\",\"mask\":0}\n"
      "{\"op\":\"registry\",\"key\":\"\\\\Registry\\\\Machine\\\\Software\",\"value\":\"v\",\"type\":\"REG_WEIRD\",\"data\":1}\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.Reply("send")["refused"], "the driver is not loaded");
  EXPECT_EQ(run.Reply("send")["line"], 1);
  EXPECT_EQ(run.Reply("read")["refused"], "process 77 is not running");
  EXPECT_EQ(run.Reply("mask")["refused"], "no consumer is running");
  EXPECT_TRUE(run.Reply("registry").contains("refused"));
  EXPECT_EQ(run.Summary()["refused_ops"], 4);
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
}

// A producer that never reads loses its oldest control packets at the queue's limit: the consumer
// sees how many, for that process, with the losses op and in the summary.
TEST(SentrelSimTest, TheConsumerSeesWhatTheQueuesEvicted) {
  std::string text =
      "{\"op\":\"load\"}\n"
      "{\"op\":\"consumer\",\"pid\":1000}\n"
      "{\"op\":\"producer\",\"pid\":2000}\n";
  for (int i = 0; i < 2048; ++i) {
    text += "{\"op\":\"send\",\"pid\":1000,\"packet\":{\"type\":\"control\",\"dst\":\"producer\",\"dst_pid\":2000,\"body\":\"01000000\"}}\n";
  }
  text += "{\"op\":\"losses\"}\n";
  Output run = Scenario(text);
  ASSERT_EQ(run.status, 0);
  Json losses = run.Reply("losses")["losses"];
  ASSERT_TRUE(losses.is_object()) << run.Reply("losses").dump();
  EXPECT_EQ(losses["process_queues_evicted"], 8);
  EXPECT_EQ(losses["queues"], Json::parse("[{\"pid\":2000,\"evicted\":8}]"));
  ASSERT_EQ(losses["buffers"].size(), 4u);
  EXPECT_EQ(losses["buffers"][3], Json::parse("{\"cpu\":3,\"overwritten\":0,\"dropped\":0}"));
  EXPECT_EQ(run.Summary()["losses"]["process_queues_evicted"], 8);
}

TEST(SentrelSimTest, ProcessesThreadsImagesAndTheMachineLifecycle) {
  Output run = Scenario(
      "{\"op\":\"volume\",\"device\":\"\\\\Device\\\\HarddiskVolume7\",\"letter\":\"E\"}\n"
      "{\"op\":\"load\"}\n"
      "{\"op\":\"process\",\"pid\":300,\"image\":\"C:\\\\Windows\\\\System32\\\\cmd.exe\",\"cmdline\":\"cmd /c x\",\"user\":\"HOST\\\\ann\",\"sid\":\"S-1-5-21-1-2-3-500\",\"logon\":\"0x9000\",\"integrity\":\"high\"}\n"
      "{\"op\":\"image\",\"pid\":300,\"path\":\"C:\\\\Windows\\\\System32\\\\kernel32.dll\",\"base\":\"0x7ff810000000\"}\n"
      "{\"op\":\"thread\",\"pid\":300,\"by_pid\":300,\"start_module\":\"kernel32.dll\",\"start_offset\":\"0x1230\"}\n"
      "{\"op\":\"driver\",\"path\":\"C:\\\\Windows\\\\System32\\\\drivers\\\\extra.sys\"}\n"
      "{\"op\":\"registry\",\"key\":\"\\\\Registry\\\\Machine\\\\Software\\\\Test\",\"value\":\"Level\",\"type\":\"REG_DWORD\",\"data\":3}\n"
      "{\"op\":\"crash\"}\n"
      "{\"op\":\"load\"}\n"
      "{\"op\":\"consumer\",\"pid\":400}\n"
      "{\"op\":\"mask\",\"mask\":\"0x30\"}\n"
      "{\"op\":\"reboot\"}\n"
      "{\"op\":\"load\"}\n",
      true);
  EXPECT_EQ(run.status, 0);
  EXPECT_FALSE(run.Reply("process").contains("not_simulated"));
  EXPECT_EQ(run.Reply("process")["status"], "0x00000000");
  EXPECT_EQ(run.Reply("image")["base"], "0x7ff810000000");
  EXPECT_EQ(run.Reply("thread")["start"], "0x7ff810001230");
  EXPECT_EQ(run.Reply("registry")["status"], "0x00000000");
  EXPECT_EQ(run.Reply("load", 1)["status"], "0x00000000");  // after the crash
  EXPECT_EQ(run.Reply("mask")["status"], "0x00000000");
  EXPECT_EQ(run.Reply("load", 2)["status"], "0x00000000");  // after the reboot
  EXPECT_FALSE(run.With("log").empty());
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
}

// Users log on and off; processes run as them; the driver's logon table follows what the trigger
// processes of each session do, as its log shows.
TEST(SentrelSimTest, UsersLogOnAndTheLogonTableFollowsTheirTriggerProcesses) {
  const std::string debugKey = "\\\\Registry\\\\Machine\\\\System\\\\CurrentControlSet\\\\Services\\\\Sentrel\\\\Debug";
  Output run = Scenario(
      "{\"op\":\"registry\",\"key\":\"" + debugKey + "\",\"value\":\"PrintLevel\",\"type\":\"REG_DWORD\",\"data\":5}\n"
      "{\"op\":\"registry\",\"key\":\"" + debugKey + "\",\"value\":\"TraceLevel\",\"type\":\"REG_DWORD\",\"data\":\"0x400\"}\n"
      "{\"op\":\"logon\",\"logon\":\"0x7a000\",\"user\":\"CONTOSO\\\\dana\",\"sid\":\"S-1-5-21-4-5-6-2201\",\"session\":2}\n"
      "{\"op\":\"process\",\"pid\":500,\"image\":\"C:\\\\Windows\\\\Explorer.EXE\",\"logon\":\"0x7a000\",\"session\":2}\n"
      "{\"op\":\"load\"}\n"
      "{\"op\":\"process\",\"pid\":510,\"ppid\":500,\"image\":\"C:\\\\Windows\\\\System32\\\\InputMethod\\\\CHS\\\\ChsIME.exe\",\"user\":\"kiosk\",\"sid\":\"S-1-5-21-1-2-3-1105\",\"logon\":\"0x7b000\",\"integrity\":\"low\"}\n"
      "{\"op\":\"exit\",\"pid\":510}\n"
      "{\"op\":\"logoff\",\"logon\":\"0x7b000\"}\n"
      "{\"op\":\"process\",\"pid\":520,\"image\":\"C:\\\\Windows\\\\System32\\\\cmd.exe\",\"logon\":\"0x7b000\"}\n"
      "{\"op\":\"process\",\"pid\":521,\"image\":\"C:\\\\Windows\\\\System32\\\\cmd.exe\",\"user\":\"x\"}\n"
      "{\"op\":\"process\",\"pid\":522,\"image\":\"C:\\\\Windows\\\\System32\\\\cmd.exe\",\"integrity\":\"mediumish\"}\n"
      "{\"op\":\"logon\",\"logon\":\"0x7c000\",\"user\":\"eve\",\"sid\":\"S-1-5-x\"}\n"
      "{\"op\":\"unload\"}\n",
      true);
  EXPECT_EQ(run.Reply("logon")["logon"], "0x7a000");
  EXPECT_EQ(run.Reply("process")["status"], "0x00000000");
  EXPECT_EQ(run.Reply("logoff")["logon"], "0x7b000");
  EXPECT_EQ(run.Reply("process", 2)["refused"], "logon session 0x7b000 is not logged on");
  EXPECT_EQ(run.Reply("process", 3)["refused"], "user and sid belong to a logon session: give its logon id");
  EXPECT_EQ(run.Reply("process", 4)["refused"].get<std::string>().rfind("integrity is", 0), 0u);
  EXPECT_EQ(run.Reply("logon", 1)["refused"], "sid S-1-5-x is no SID");
  std::vector<std::string> log;
  for (const Json& line : run.With("log")) log.push_back(line["log"].get<std::string>());
  auto logged = [&](const std::string& text) {
    for (const std::string& line : log) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  };
  // At start dana's session was found through Explorer; the input method added the kiosk user's on
  // a thread of its own, and its exit removed it again.
  EXPECT_TRUE(logged("Add User:CONTOSO\\dana UserSid:S-1-5-21-4-5-6-2201"));
  EXPECT_TRUE(logged("Add User:NT AUTHORITY\\SYSTEM UserSid:S-1-5-18"));
  EXPECT_TRUE(logged("Add User:kiosk UserSid:S-1-5-21-1-2-3-1105"));
  EXPECT_TRUE(logged("Remove Node:"));
  EXPECT_TRUE(logged("LogonMgr Init Success"));
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
  EXPECT_EQ(run.status, 1) << "refused ops fail the run";
}

// The process and image tables as the driver's log shows them: a process found at start, a chain
// of creators kept past exit and swept together, an image shared by two processes, images the
// driver does not record.
TEST(SentrelSimTest, TheProcessAndImageTablesFollowTheScenario) {
  const std::string debugKey = "\\\\Registry\\\\Machine\\\\System\\\\CurrentControlSet\\\\Services\\\\Sentrel\\\\Debug";
  auto op = [](const std::string& text) { return "{" + text + "}\n"; };
  Output run = Scenario(
      op("\"op\":\"registry\",\"key\":\"" + debugKey + "\",\"value\":\"PrintLevel\",\"type\":\"REG_DWORD\",\"data\":5") +
      op("\"op\":\"registry\",\"key\":\"" + debugKey + "\",\"value\":\"TraceLevel\",\"type\":\"REG_DWORD\",\"data\":\"0xc0\"") +
      op("\"op\":\"process\",\"pid\":300,\"image\":\"C:\\\\Windows\\\\explorer.exe\"") +
      op("\"op\":\"load\"") +
      op("\"op\":\"process\",\"pid\":310,\"ppid\":300,\"image\":\"C:\\\\Windows\\\\System32\\\\cmd.exe\",\"cmdline\":\"cmd /k\"") +
      op("\"op\":\"process\",\"pid\":320,\"ppid\":310,\"image\":\"C:\\\\Windows\\\\System32\\\\notepad.exe\",\"wow64\":true") +
      op("\"op\":\"image\",\"pid\":310,\"path\":\"C:\\\\Windows\\\\System32\\\\kernel32.dll\"") +
      op("\"op\":\"image\",\"pid\":320,\"path\":\"C:\\\\Windows\\\\System32\\\\kernel32.dll\"") +
      op("\"op\":\"image\",\"pid\":320,\"path\":\"C:\\\\Windows\\\\System32\\\\odd.dll\",\"machine\":\"0x200\"") +
      op("\"op\":\"image\",\"pid\":320,\"path\":\"C:\\\\Windows\\\\System32\\\\torn.dll\",\"unreadable\":true") +
      op("\"op\":\"exit\",\"pid\":310") +
      op("\"op\":\"exit\",\"pid\":320") +
      op("\"op\":\"unload\""),
      true);
  EXPECT_EQ(run.status, 0);
  EXPECT_FALSE(run.Reply("image").contains("not_simulated"));
  std::vector<std::string> log;
  for (const Json& line : run.With("log")) log.push_back(line["log"].get<std::string>());
  auto count = [&](const std::string& text) {
    return std::count_if(log.begin(), log.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; });
  };
  // explorer.exe from the start-up scan, then cmd.exe and notepad.exe as they are created.
  EXPECT_EQ(count("Pid:0x12c"), 1);
  EXPECT_EQ(count("Pid:0x136"), 1);
  EXPECT_EQ(count("Pid:0x140"), 1);
  EXPECT_EQ(count("CommandLine:cmd /k"), 1);
  EXPECT_GE(count("Find Exist Node:"), 1) << "kernel32.dll found again for the second process";
  EXPECT_EQ(count("Get Checksum  fail "), 2) << "the foreign and the unreadable image";
  EXPECT_EQ(count("Remove Pid:320"), 1) << "notepad's exit sweeps it and the exited cmd.exe it kept";
  EXPECT_EQ(count("Remove Pid:310"), 0);
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
}

}  // namespace

namespace {

// The consumer's question about one process, answered from the driver's packages: a user's script
// host three creators deep, a service nobody known created, the answer's length rules, and what
// exits take away.
std::string QueryScenario(uint64_t room) {
  const std::string debugKey = "\\\\Registry\\\\Machine\\\\System\\\\CurrentControlSet\\\\Services\\\\Sentrel\\\\Debug";
  auto op = [](const std::string& text) { return "{" + text + "}\n"; };
  return op("\"op\":\"registry\",\"key\":\"" + debugKey + "\",\"value\":\"PrintLevel\",\"type\":\"REG_DWORD\",\"data\":5") +
         op("\"op\":\"registry\",\"key\":\"" + debugKey + "\",\"value\":\"TraceLevel\",\"type\":\"REG_DWORD\",\"data\":\"0x2004\"") +
         op("\"op\":\"logon\",\"logon\":\"0x7a100\",\"user\":\"SENTREL-LAB\\\\mallory\",\"sid\":\"S-1-5-21-7-8-9-1337\",\"session\":2") +
         op("\"op\":\"process\",\"pid\":1000,\"image\":\"C:\\\\Windows\\\\explorer.exe\",\"logon\":\"0x7a100\",\"session\":2") +
         op("\"op\":\"process\",\"pid\":1010,\"image\":\"C:\\\\Windows\\\\System32\\\\dwm.exe\",\"logon\":\"0x7a100\",\"session\":2") +
         op("\"op\":\"load\"") +
         op("\"op\":\"consumer\",\"pid\":50") +
         op("\"op\":\"process\",\"pid\":1100,\"ppid\":1000,\"image\":\"C:\\\\Windows\\\\System32\\\\cmd.exe\","
            "\"cmdline\":\"cmd.exe /c run.ps1\",\"cwd\":\"C:\\\\Users\\\\mallory\\\\\"") +
         op("\"op\":\"process\",\"pid\":1200,\"ppid\":1100,\"image\":\"C:\\\\Windows\\\\System32\\\\WindowsPowerShell\\\\v1.0\\\\powershell.exe\","
            "\"cmdline\":\"powershell.exe -enc SQBFAFgA\",\"cwd\":\"C:\\\\Users\\\\mallory\\\\\",\"integrity\":\"high\"") +
         op("\"op\":\"process\",\"pid\":1300,\"image\":\"C:\\\\Windows\\\\System32\\\\svchost.exe\",\"cmdline\":\"svchost.exe -k netsvcs\"") +
         op("\"op\":\"query\",\"pid\":1200") + op("\"op\":\"query\",\"pid\":1200") + op("\"op\":\"query\",\"pid\":1300") +
         op("\"op\":\"query\",\"pid\":1200,\"room\":" + std::to_string(room)) +
         op("\"op\":\"query\",\"pid\":1200,\"room\":" + std::to_string(room - 1)) +
         op("\"op\":\"exit\",\"pid\":1200") + op("\"op\":\"query\",\"pid\":1200") +
         op("\"op\":\"exit\",\"pid\":1010") + op("\"op\":\"unload\"");
}

TEST(SentrelSimTest, TheConsumerQueriesAProcessAndSeesItsThreePackages) {
  // A first run learns the answer's length, a second asks with exactly that room and one byte less.
  uint64_t length = Scenario(QueryScenario(100)).Reply("query")["length"].get<uint64_t>();
  Output run = Scenario(QueryScenario(length), true);
  Json first = run.Reply("query");
  ASSERT_EQ(first["status"], "0x00000000") << first.dump();
  EXPECT_EQ(first["length"], length);
  const Json& process = first["process"];
  EXPECT_EQ(process["process_id"], 1200);
  EXPECT_EQ(process["creator_process_id"], 1100);
  EXPECT_EQ(process["parent_process_id"], 1100);
  EXPECT_EQ(process["integrity_level"], 4);
  EXPECT_EQ(process["image_path"], "C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe");
  EXPECT_EQ(process["command_line"], "powershell.exe -enc SQBFAFgA");
  EXPECT_EQ(process["current_directory"], "C:\\Users\\mallory\\");
  EXPECT_EQ(process["image_name"], "powershell.exe");
  EXPECT_EQ(process["creator_image_path"], "C:\\Windows\\System32\\cmd.exe");
  EXPECT_EQ(process["creator_user_name"], "SENTREL-LAB\\mallory");
  EXPECT_EQ(process["creator_command_line"], "cmd.exe /c run.ps1");
  EXPECT_NE(process["creator_process_identity"], std::string(32, '0'));
  EXPECT_EQ(first["logon"]["user_name"], "SENTREL-LAB\\mallory");
  EXPECT_EQ(first["logon"]["user_sid"], "S-1-5-21-7-8-9-1337");
  EXPECT_EQ(first["logon"]["session_id"], 2);
  EXPECT_EQ(first["logon"]["logon_id"], 0x7a100);
  ASSERT_EQ(first["tree"].size(), 3u);
  EXPECT_EQ(first["tree"][0], (Json{{"process_id", 1200}, {"image_name", "powershell.exe"}}));
  EXPECT_EQ(first["tree"][1], (Json{{"process_id", 1100}, {"image_name", "cmd.exe"}}));
  EXPECT_EQ(first["tree"][2], (Json{{"process_id", 1000}, {"image_name", "Explorer.EXE"}})) << "as the volume spells it";
  Json second = run.Reply("query", 1);
  EXPECT_EQ(second, first) << "asked again, the same packages";

  // Created by the System process: its creator is not known.
  Json lone = run.Reply("query", 2);
  ASSERT_EQ(lone["status"], "0x00000000");
  EXPECT_EQ(lone["tree"].size(), 1u);
  EXPECT_EQ(lone["process"]["creator_process_id"], 4);
  EXPECT_EQ(lone["process"]["creator_process_identity"], std::string(32, '0'));
  for (const char* field : {"creator_image_path", "creator_user_name", "creator_command_line"}) {
    EXPECT_TRUE(lone["process"][field].is_null()) << field;
  }

  EXPECT_EQ(run.Reply("query", 3)["status"], "0x00000000") << "exactly the needed room";
  Json tooShort = run.Reply("query", 4);
  EXPECT_EQ(tooShort["status"], "0x80000005");
  EXPECT_EQ(tooShort["written"], false);
  Json gone = run.Reply("query", 5);
  EXPECT_NE(gone["status"], "0x00000000");
  EXPECT_EQ(gone["written"], false);

  std::vector<std::string> log;
  for (const Json& line : run.With("log")) log.push_back(line["log"].get<std::string>());
  auto logged = [&](const std::string& text) {
    return std::any_of(log.begin(), log.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; });
  };
  char needed[64];
  std::snprintf(needed, sizeof needed, "NeedLength:0x%llx", static_cast<unsigned long long>(length));
  EXPECT_TRUE(logged(needed)) << "the driver's log names the length it needed";
  EXPECT_TRUE(logged("Del ProcCacheNode Pid:1200 "));
  EXPECT_TRUE(logged("Del ProcTreeCacheNode Pid:1200 "));
  // The session's package outlives the script host and goes with dwm.exe.
  auto at = [&](const std::string& text) {
    return std::find_if(log.begin(), log.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; });
  };
  EXPECT_LT(at("Del ProcCacheNode Pid:1200 "), at("Del LogonCacheNode LogonId:0x7a100 "));
  EXPECT_LT(at("Del LogonCacheNode LogonId:0x7a100 "), at("sk_UninitPackageCacheMgr Entry"));
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
  EXPECT_EQ(run.status, 0);
}

}  // namespace

namespace {

// The four events of the driver, each field as the consumer decodes it, and every reason an event
// is not produced: the mask, the consumer's own activity, a creator's first thread in its child,
// white rules (and a black rule that wins over them), names that make no service.
TEST(SentrelSimTest, TheDriversFourEventsAndWhatKeepsThemQuiet) {
  auto op = [](const std::string& text) { return "{" + text + "}\n"; };
  Output run = Scenario(
      op("\"op\":\"process\",\"pid\":1000,\"image\":\"C:\\\\Windows\\\\explorer.exe\"") +
      op("\"op\":\"process\",\"pid\":50,\"image\":\"C:\\\\Program Files\\\\Sentrel\\\\agent.exe\"") +
      op("\"op\":\"load\"") + op("\"op\":\"consumer\",\"pid\":50") +
      op("\"op\":\"process\",\"pid\":1100,\"ppid\":1000,\"image\":\"C:\\\\Tools\\\\inject.exe\"") +
      op("\"op\":\"image\",\"pid\":1000,\"path\":\"C:\\\\Apps\\\\plugin.dll\",\"base\":\"0x7ff700000000\"") +
      // Threads: 0x1234 into plugin.dll, one outside every image, one by the consumer, one of the
      // target's own.
      op("\"op\":\"thread\",\"pid\":1000,\"by_pid\":1100,\"tid\":7000,\"start_module\":\"plugin.dll\",\"start_offset\":\"0x1234\"") +
      op("\"op\":\"thread\",\"pid\":1000,\"by_pid\":1100,\"start\":\"0x50000\"") +
      op("\"op\":\"thread\",\"pid\":1000,\"by_pid\":50") +
      op("\"op\":\"thread\",\"pid\":1000") +
      // Images: an unreadable header, one loaded into the consumer.
      op("\"op\":\"image\",\"pid\":1100,\"path\":\"C:\\\\Apps\\\\torn.dll\",\"unreadable\":true") +
      op("\"op\":\"image\",\"pid\":50,\"path\":\"C:\\\\Apps\\\\agent-helper.dll\"") +
      // Drivers: service names, and a load by a process of its own.
      op("\"op\":\"driver\",\"path\":\"\\\\SystemRoot\\\\System32\\\\drivers\\\\x.sys\"") +
      op("\"op\":\"driver\",\"path\":\"\\\\SystemRoot\\\\System32\\\\drivers\\\\beep.SYS\"") +
      op("\"op\":\"driver\",\"path\":\"\\\\SystemRoot\\\\System32\\\\drivers\\\\a.sy\"") +
      op("\"op\":\"driver\",\"path\":\"\\\\SystemRoot\\\\System32\\\\drivers\\\\driver\"") +
      op("\"op\":\"driver\",\"path\":\"\\\\SystemRoot\\\\System32\\\\drivers\\\\tool.sys\",\"by_pid\":1100") +
      // White rules, then a black-listed DLL that a white rule would pass.
      op("\"op\":\"white_rules\",\"rules\":[{\"type\":\"ET_IMAGE_LOAD\",\"pattern\":\"*\\\\quiet.dll\"},"
         "{\"type\":\"ET_IMAGE_LOAD\",\"pattern\":\"*\\\\samlib.dll\"}]") +
      op("\"op\":\"image\",\"pid\":1100,\"path\":\"C:\\\\Apps\\\\quiet.dll\"") +
      op("\"op\":\"image\",\"pid\":1100,\"path\":\"C:\\\\Apps\\\\samlib.dll\"") +
      // Malformed rule records go in through the raw request: refused, nothing changes.
      op("\"op\":\"ioctl\",\"pid\":50,\"code\":\"0x0666c019\",\"in\":\"0400\",\"direct\":\"0400\"") +
      op("\"op\":\"white_rules\",\"delete\":true") +
      op("\"op\":\"image\",\"pid\":1100,\"path\":\"C:\\\\Apps\\\\quiet.dll\"") +
      // The mask: remote threads, images and drivers off; process creation goes on.
      op("\"op\":\"mask\",\"mask\":\"0xffffffffffffffcd\"") +
      op("\"op\":\"thread\",\"pid\":1000,\"by_pid\":1100") +
      op("\"op\":\"image\",\"pid\":1100,\"path\":\"C:\\\\Apps\\\\late.dll\"") +
      op("\"op\":\"driver\",\"path\":\"\\\\SystemRoot\\\\System32\\\\drivers\\\\late.sys\"") +
      op("\"op\":\"process\",\"pid\":1200,\"ppid\":1100,\"image\":\"C:\\\\Tools\\\\late.exe\"") +
      op("\"op\":\"unload\""));
  ASSERT_EQ(run.Reply("load")["status"], "0x00000000") << run.lines.front().dump();
  EXPECT_EQ(run.Reply("white_rules", 1)["status"], "0x00000000") << "deleting every rule";
  EXPECT_NE(run.Reply("ioctl")["status"], "0x00000000") << run.Reply("ioctl").dump();
  for (const Json& event : run.With("event")) {
    // The decoder marks a packet whose lengths do not add up (DataLength, Length - 44, the body
    // header's Length) as malformed, or takes it for a producer's.
    EXPECT_FALSE(event.contains("malformed")) << event.dump();
    EXPECT_FALSE(event.contains("producer")) << event.dump();
    if (event["event"] != "ET_PROCESS_CREATE") {
      EXPECT_NE(event["src_pid"], 50) << "no thread or image of the consumer's own: " << event.dump();
    }
  }

  std::vector<Json> threads = EventsOf(run, "ET_REMOTE_THREAD_CREATE");
  ASSERT_EQ(threads.size(), 2u) << "the consumer's, the target's own and the masked one are not reported";
  EXPECT_EQ(threads[0]["data"]["target_thread_id"], 7000);
  EXPECT_EQ(threads[0]["data"]["start_offset"], "+0x1234");
  EXPECT_EQ(threads[0]["data"]["module_name"], "plugin.dll");
  EXPECT_EQ(threads[0]["data"]["start_address"], "0x7ff700001234");
  EXPECT_EQ(threads[0]["data"]["target_image_path"], "C:\\Windows\\Explorer.EXE");
  EXPECT_EQ(threads[1]["data"]["start_offset"], "0x50000") << "no image: the whole address, no plus";
  EXPECT_EQ(threads[1]["data"]["module_name"], "unknow");

  std::vector<std::string> images;
  for (const Json& e : EventsOf(run, "ET_IMAGE_LOAD")) {
    std::string path = e["data"]["image_path"];
    images.push_back(path.substr(path.find_last_of('\\') + 1));
    if (path == "C:\\Apps\\torn.dll") {
      EXPECT_EQ(e["data"]["image_type"], "0xffff");
    } else if (path == "C:\\Apps\\plugin.dll") {
      EXPECT_EQ(e["data"]["image_type"], "0xc0");
    }
  }
  EXPECT_EQ(images, (std::vector<std::string>{"inject.exe", "plugin.dll", "torn.dll", "samlib.dll", "quiet.dll"}));

  std::vector<std::pair<uint64_t, std::string>> drivers;
  for (const Json& e : EventsOf(run, "ET_DRIVER_LOAD")) {
    drivers.emplace_back(e["src_pid"], e["data"]["service_name"]);
    EXPECT_EQ(e["data"]["process_id"], e["src_pid"]);
  }
  EXPECT_EQ(drivers, (std::vector<std::pair<uint64_t, std::string>>{
                         {640, "x"}, {640, "beep"}, {640, "driver"}, {1100, "tool"}}))
      << "a.sy names no service; loads in the System process are services.exe's";

  std::vector<uint64_t> created;
  for (const Json& e : EventsOf(run, "ET_PROCESS_CREATE")) created.push_back(e["src_pid"]);
  // Processes found at start are reported at their first image load after it (the consumer too).
  EXPECT_EQ(created, (std::vector<uint64_t>{1100, 1000, 50, 1200})) << "the mask leaves process creation on";
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
}

}  // namespace

namespace {

// Quillet, the producer driver, loaded before Sentrel: told that Sentrel is online, it registers;
// its events carry the packages it borrows and, when asked, the caller stack; at Sentrel's unload
// it is told the interface went away.
TEST(SentrelSimTest, AProducerDriverSendsEventsWithTheCallerStack) {
  auto op = [](const std::string& text) { return "{" + text + "}\n"; };
  Output run = Scenario(
      op("\"op\":\"producer_driver\",\"action\":\"load\"") +
      op("\"op\":\"process\",\"pid\":1000,\"image\":\"C:\\\\Windows\\\\explorer.exe\"") +
      op("\"op\":\"load\"") + op("\"op\":\"consumer\",\"pid\":50") +
      op("\"op\":\"process\",\"pid\":1100,\"ppid\":1000,\"image\":\"C:\\\\Tools\\\\sync.exe\"") +
      op("\"op\":\"image\",\"pid\":1100,\"path\":\"C:\\\\Tools\\\\net.dll\",\"base\":\"0x7ff800000000\"") +
      op("\"op\":\"kernel_event\",\"pid\":1100,\"event_type\":\"ET_NET_CONNECT\",\"data\":\"0a000001bb01\","
         "\"stack\":[\"net.dll+0x2c0\",\"0x7ff800000000\",\"0x40000\"]") +
      op("\"op\":\"kernel_event\",\"pid\":1100,\"event_type\":\"ET_FILE_CREATE\"") +
      op("\"op\":\"unload\"") + op("\"op\":\"producer_driver\",\"action\":\"unload\""));
  EXPECT_EQ(run.Reply("producer_driver")["table"], false) << "Sentrel was not loaded yet";
  std::vector<Json> net = EventsOf(run, "ET_NET_CONNECT");
  ASSERT_EQ(net.size(), 1u) << run.Reply("kernel_event").dump();
  EXPECT_EQ(net[0]["src_pid"], 1100);
  EXPECT_EQ(net[0]["process"]["image_name"], "sync.exe");
  EXPECT_EQ(net[0]["tree"].size(), 2u);
  EXPECT_EQ(net[0]["caller_stack"], (Json{"C:\\Tools\\net.dll+0x2c0", "UnknowImage+0x00007FF800000000",
                                          "UnknowImage+0x0000000000040000"}));
  EXPECT_EQ(net[0]["data"]["bytes"], "0a000001bb01");
  std::vector<Json> file = EventsOf(run, "ET_FILE_CREATE");
  ASSERT_EQ(file.size(), 1u);
  EXPECT_FALSE(file[0].contains("caller_stack"));
  Json unloaded = run.Reply("producer_driver", 1);
  EXPECT_EQ(unloaded["online_notices"], 1);
  EXPECT_EQ(unloaded["offline_calls"], 1);
  EXPECT_EQ(run.Summary()["verdict"]["clean"], true);
  EXPECT_EQ(run.status, 0);
}

}  // namespace
