// Replaying system-monitor recordings through Sentrel: the recordings under scenarios/sysmon/
// account for every event they hold, the scenario they become, lines that are no events, and
// recordings made of damaged lines, which must never bring the tool down.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#include "scenario.h"
#include "sentrel/event_types.h"
#include "sysmon.h"
#include "white_rule_log.h"

namespace {

using sentrel_sim::Json;

struct Replayed {
  int status = -1;
  std::vector<Json> lines;
  Json Comparison() const { return lines.empty() ? Json() : lines.back()["comparison"]; }
  std::vector<Json> Events(const std::string& type) const {
    std::vector<Json> out;
    for (const Json& line : lines) {
      if (line.contains("event") && line["event"] == type) out.push_back(line);
    }
    return out;
  }
};

Replayed Replay(const std::string& path, bool emitScenario = false, const std::string& whiteRules = "") {
  std::ostringstream out;
  sentrel_sim::SysmonOptions options;
  options.emitScenario = emitScenario;
  options.whiteRules = whiteRules;
  Replayed run;
  run.status = sentrel_sim::ReplaySysmon(path, out, options);
  std::istringstream lines(out.str());
  std::string line;
  while (std::getline(lines, line)) run.lines.push_back(Json::parse(line));
  return run;
}

std::string Recording(const std::string& name) { return std::string(SENTREL_SCENARIOS_DIR) + "/sysmon/" + name; }

// A recording written for one test, removed afterwards.
class TempRecording {
 public:
  explicit TempRecording(const std::string& text) {
    char name[] = "/tmp/sentrel-sysmon-XXXXXX";
    int fd = mkstemp(name);
    path_ = name;
    FILE* file = fdopen(fd, "w");
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
  }
  ~TempRecording() { std::remove(path_.c_str()); }
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

TEST(SysmonReplayTest, TheInjectionRecordingIsAccountedForEventByEvent) {
  Replayed run = Replay(Recording("injection.jsonl"));
  ASSERT_EQ(run.status, 0);
  Json c = run.Comparison();
  EXPECT_EQ(c["clean"], true) << c.dump();
  EXPECT_EQ(c["recorded"], (Json{{"1", 2}, {"7", 5}, {"8", 2}, {"5", 2}}));
  EXPECT_EQ(c["skipped"], (Json{{"3", 1}})) << "a network event is no event of this replay";
  EXPECT_EQ(c["reported_and_recorded"], 6);
  EXPECT_EQ(c["filtered_by_white_rule"]["count"], 3) << "ntdll.dll, powershell.exe and kernel32.dll of the system folder";
  EXPECT_EQ(c["reported_not_recorded"], 0);
  EXPECT_EQ(c["differences"]["counts"], Json::object());
  // The recording names KERNEL32.DLL; the replay maps kernel32.dll: the same file to Windows.
  std::vector<Json> threads = run.Events("ET_REMOTE_THREAD_CREATE");
  ASSERT_EQ(threads.size(), 2u);
  EXPECT_EQ(threads[0]["data"]["module_name"], "kernel32.dll");
  EXPECT_EQ(threads[0]["data"]["target_process_id"], 4120) << "explorer.exe ran before the recording";
  EXPECT_EQ(threads[0]["data"]["start_offset"], "+0x3c40");
  EXPECT_EQ(threads[1]["data"]["module_name"], "unknow") << "code in no image";
  std::vector<Json> created = run.Events("ET_PROCESS_CREATE");
  ASSERT_EQ(created.size(), 2u);
  EXPECT_EQ(created[1]["logon"]["user_name"], "CORP\\rwalsh");
  EXPECT_EQ(created[1]["tree"].size(), 3u) << "powershell.exe, WINWORD.EXE, explorer.exe";
}

TEST(SysmonReplayTest, ADriverLoadAndABenignHourAreAccountedFor) {
  Replayed driver = Replay(Recording("driver-load.jsonl"));
  EXPECT_EQ(driver.status, 0);
  EXPECT_EQ(driver.Comparison()["clean"], true) << driver.Comparison().dump();
  std::vector<Json> loads = driver.Events("ET_DRIVER_LOAD");
  ASSERT_EQ(loads.size(), 1u);
  EXPECT_EQ(loads[0]["data"]["service_name"], "kbdfltr");
  EXPECT_EQ(loads[0]["src_pid"], 640) << "services.exe";

  Replayed hour = Replay(Recording("benign-hour.jsonl"));
  EXPECT_EQ(hour.status, 0);
  Json c = hour.Comparison();
  EXPECT_EQ(c["clean"], true) << c.dump();
  EXPECT_EQ(c["skipped"], (Json{{"3", 1}, {"22", 1}}));
  EXPECT_EQ(c["reported_and_recorded"], 5);
  EXPECT_EQ(c["filtered_by_white_rule"]["count"], 4);
}

TEST(SysmonReplayTest, TheConsumersWhiteRulesAreUploadedAndEachFilteredEventNamesItsRule) {
  TempRecording rules(
      "# the agent's own rules\n"
      "ET_IMAGE_LOAD       \\??\\C:\\Program Files\\Backup\\*\n"
      "ET_PROCESS_CREATE   *\\GIT.exe\n");
  Replayed hour = Replay(Recording("benign-hour.jsonl"), false, rules.Path());
  ASSERT_EQ(hour.status, 0);
  Json c = hour.Comparison();
  EXPECT_EQ(c["clean"], true) << c.dump();
  EXPECT_EQ(c["white_rules_uploaded"], (Json{{"rules", 2}, {"status", "0x00000000"}}));
  EXPECT_EQ(c["reported_and_recorded"], 3) << "git.exe's creation and the backup agent's image are filtered now";
  EXPECT_EQ(c["filtered_by_white_rule"]["count"], 6);
  const Json& byRule = c["filtered_by_white_rule"]["by_rule"];
  EXPECT_EQ(byRule.size(), 3u) << byRule.dump();
  EXPECT_EQ(byRule.value("ET_IMAGE_LOAD \\SystemRoot\\*", 0), 4) << "the built-in one";
  EXPECT_EQ(byRule.value("ET_IMAGE_LOAD \\??\\C:\\Program Files\\Backup\\*", 0), 1);
  EXPECT_EQ(byRule.value("ET_PROCESS_CREATE *\\GIT.exe", 0), 1) << "a rule's letter case is its own";
  EXPECT_EQ(hour.Events("ET_PROCESS_CREATE").size(), 2u) << "notepad.exe and the backup agent";

  // A rule for a folder that does not exist is refused by the driver, and the comparison says so.
  TempRecording missing("ET_PROCESS_CREATE C:\\No Such Folder\\*\n");
  Json refused = Replay(Recording("benign-hour.jsonl"), false, missing.Path()).Comparison();
  EXPECT_NE(refused["white_rules_uploaded"]["status"], "0x00000000");
  EXPECT_EQ(refused["filtered_by_white_rule"]["count"], 4);

  TempRecording broken("ET_PROCESS_CREATE *\\a.exe\nET_NO_SUCH_TYPE *\\b.exe\n");
  EXPECT_EQ(Replay(Recording("benign-hour.jsonl"), false, broken.Path()).status, 2);
  EXPECT_EQ(Replay(Recording("benign-hour.jsonl"), false, "/nonexistent/rules.txt").status, 2);
}

// Which rule passed a path, as the driver's rule engine would have it.
TEST(SysmonReplayTest, TheRuleThatPassedAPathIsFoundAsTheRuleEngineFindsIt) {
  sentrel_sim::WhiteRuleLog log;
  auto line = [&](const std::string& message) { log.Observe("[SK][INFO][T:0x00007F0012345678]   " + message); };
  line("Add ET_IMAGE_LOAD Rule *\\before.dll Success");  // before the built-in rules' heading: not white
  line("[sk_AddDefauleWhiteRule] Add Default White Rule");
  line("Add ET_IMAGE_LOAD Rule *\\System32\\x.dll Success");
  line("\\SystemRoot\\* -> \\??\\C:\\Windows\\*");
  line("Add ET_IMAGE_LOAD Rule \\SystemRoot\\* Success");
  line("Add ET_IMAGE_LOAD Rule *\\broken.dll fail Status:c000009a");
  line(" sk_AddDefauleWhiteRule -> 00000000");
  line("Add White Rule [0][C:\\Tools\\*]");
  line("C:\\Tools\\* -> \\Device\\HarddiskVolume3\\Tools\\*");
  line("Add White Rule [4][*\\Tools\\y.dll]");
  line("Add White Rule [0][C:\\Missing\\*]");
  line("sk_AddWhiteRule fail Status:c0000034");
  EXPECT_EQ(log.Count(), 4u);
  // An anchored rule before one that begins with a star, whole components, any case.
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\??\\C:\\WINDOWS\\System32\\X.DLL"), "\\SystemRoot\\*");
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\??\\D:\\Apps\\System32\\x.dll"), "*\\System32\\x.dll");
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\??\\D:\\Apps\\x.dll.bak"), "");
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\??\\C:\\WindowsOld\\a.dll"), "") << "a component is matched whole";
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\??\\D:\\broken.dll"), "") << "a refused rule";
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\??\\D:\\before.dll"), "") << "not a white rule";
  // The consumer's, by the pattern the driver converted it to.
  EXPECT_EQ(log.Passing(ET_PROCESS_CREATE, "\\Device\\HarddiskVolume3\\Tools\\a.exe"), "C:\\Tools\\*");
  EXPECT_EQ(log.Passing(ET_PROCESS_CREATE, "\\Device\\HarddiskVolume3\\Missing\\a.exe"), "");
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\??\\D:\\Tools\\y.dll"), "*\\Tools\\y.dll");
  // Reached from its end, a path's first component keeps its backslash.
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "\\Tools\\y.dll"), "");
  EXPECT_EQ(log.Passing(ET_IMAGE_LOAD, "D:\\Tools\\y.dll"), "*\\Tools\\y.dll");
}

TEST(SysmonReplayTest, TheScenarioCanBeWrittenOutAndReadAsAScenario) {
  Replayed scenario = Replay(Recording("injection.jsonl"), true);
  ASSERT_EQ(scenario.status, 0);
  std::ostringstream text;
  for (const Json& line : scenario.lines) text << line.dump() << '\n';
  std::istringstream in(text.str());
  std::vector<sentrel_sim::Op> ops;
  sentrel_sim::ScenarioError error;
  ASSERT_TRUE(sentrel_sim::ParseScenario(in, &ops, &error)) << error.line << ": " << error.message;
  EXPECT_EQ(ops.front().name, "machine");
  // explorer.exe ran before: it is created before the driver loads, with the user of the child it
  // started, and the DLLs every Win32 process maps at start.
  size_t load = 0, explorer = 0;
  for (size_t i = 0; i < ops.size(); ++i) {
    if (ops[i].name == "load") load = i;
    if (ops[i].name == "process" && ops[i].fields["pid"] == 4120) explorer = i;
  }
  EXPECT_LT(explorer, load);
  EXPECT_EQ(ops[explorer].fields["logon"], 0x5a3c1);
}

TEST(SysmonReplayTest, LinesThatAreNoEventsAreNamedAndSkipped) {
  TempRecording recording(
      "{\"EventID\":1,\"ProcessId\":3000,\"Image\":\"C:\\\\Tools\\\\a.exe\",\"ParentProcessId\":4}\n"
      "not json at all\n"
      "[1,2,3]\n"
      "{\"EventID\":7,\"ProcessId\":3000}\n"
      "{\"Image\":\"C:\\\\x.exe\"}\n"
      "\n"
      "{\"EventID\":\"1\",\"ProcessId\":\"0x0bc8\",\"Image\":\"C:\\\\Tools\\\\b.exe\",\"ParentProcessId\":\"3000\"}\n");
  Replayed run = Replay(recording.Path());
  Json c = run.Comparison();
  ASSERT_TRUE(c.is_object());
  EXPECT_EQ(c["malformed_lines"],
            (Json{{{"line", 2}, {"why", "not a JSON object"}}, {{"line", 3}, {"why", "not a JSON object"}},
                  {{"line", 4}, {"why", "event 7 without ImageLoaded"}}, {{"line", 5}, {"why", "no EventID"}}}));
  EXPECT_EQ(c["recorded"], (Json{{"1", 2}}));
  std::vector<Json> created = run.Events("ET_PROCESS_CREATE");
  ASSERT_EQ(created.size(), 2u);
  EXPECT_EQ(created[1]["src_pid"], 0xbc8) << "numbers in strings, decimal or hex";
  EXPECT_EQ(created[1]["tree"][1]["process_id"], 3000);
}

// Damaged recordings: lines cut short, bytes flipped, fields of the wrong kind. The tool reads each
// as far as it can and never stops short of its comparison.
TEST(SysmonReplayTest, DamagedRecordingsNeverBringItDown) {
  std::ifstream file(Recording("injection.jsonl"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  std::mt19937 random(7);
  for (int round = 0; round < 12; ++round) {
    std::string text;
    for (std::string line : lines) {
      switch (random() % 5) {
        case 0: line = line.substr(0, random() % (line.size() + 1)); break;
        case 1: line[random() % line.size()] = static_cast<char>(random() % 256); break;
        case 2: {
          size_t at = line.find("\"ProcessId\":");
          if (at != std::string::npos) line.insert(at + 12, random() % 2 ? "\"x\"," : "-1,");
          break;
        }
        default: break;
      }
      text += line + "\n";
    }
    TempRecording recording(text);
    Replayed run = Replay(recording.Path());
    ASSERT_TRUE(run.Comparison().is_object()) << "round " << round;
    EXPECT_NE(run.status, 2) << "round " << round;
  }
}

}  // namespace
