// sentrel-sim through its library entry point: scenarios in, JSON Lines out.
#include <gtest/gtest.h>

#include <algorithm>
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

TEST(SentrelSimTest, TheDemoShowsEventsAndControlPacketsAndEndsClean) {
  Output run = Scenario(sentrel_sim::DemoScenario());
  ASSERT_EQ(run.status, 0);
  std::vector<Json> events = run.With("event");
  ASSERT_EQ(events.size(), 2u);
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
