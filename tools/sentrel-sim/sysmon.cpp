#include "sysmon.h"

#include <algorithm>
#include <cstdio>
#include <cctype>
#include <fstream>
#include <list>
#include <map>
#include <set>
#include <sstream>
#include <unordered_set>

#include "sentrel/event_types.h"
#include "sentrel_sdk/white_rule_text.h"
#include "white_rule_log.h"

namespace sentrel_sim {

namespace {

constexpr uint64_t kConsumerPid = 99996;
constexpr uint64_t kFirstRemappedPid = 1000000;
// Every Win32 process maps these at start; a process whose start the recording missed gets them
// here, at distinct bases.
const char* const kStartDlls[] = {"C:\\Windows\\System32\\kernel32.dll", "C:\\Windows\\System32\\KernelBase.dll"};
constexpr uint64_t kStartDllBase = 0x7FFB00000000, kStartDllSpacing = 0x200000;

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string FileName(const std::string& path) {
  size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// One event of the recording: its id and its fields (a flat object, or the export's EventData).
struct Recorded {
  int line = 0;
  int id = 0;
  Json fields;
  std::string Text(const char* name) const {
    return fields.contains(name) && fields[name].is_string() ? fields[name].get<std::string>() : std::string();
  }
  // Decimal or "0x..." numbers, as JSON numbers or strings; nullopt when absent or not a number.
  std::optional<uint64_t> Number(const char* name) const {
    if (!fields.contains(name)) return std::nullopt;
    const Json& v = fields[name];
    if (v.is_number_unsigned()) return v.get<uint64_t>();
    if (v.is_number_integer() && v.get<int64_t>() >= 0) return static_cast<uint64_t>(v.get<int64_t>());
    if (!v.is_string() || v.get<std::string>().empty()) return std::nullopt;
    std::string t = v.get<std::string>();
    bool hex = t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
    std::string digits = hex ? t.substr(2) : t;
    if (digits.empty() || digits.size() > 16 ||
        digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos) {
      return std::nullopt;
    }
    if (!hex && digits.size() > 19) return std::nullopt;
    return std::stoull(digits, nullptr, hex ? 16 : 10);
  }
};

// The event a line holds; why not, in *why.
bool ReadEvent(const std::string& text, int line, Recorded* event, std::string* why) {
  Json object = Json::parse(text, nullptr, false);
  if (object.is_discarded() || !object.is_object()) {
    *why = "not a JSON object";
    return false;
  }
  event->line = line;
  event->fields = object.contains("EventData") && object["EventData"].is_object() ? object["EventData"] : object;
  Recorded top{line, 0, object};
  std::optional<uint64_t> id = top.Number("EventID");
  if (!id) id = event->Number("EventID");
  if (!id || *id > 255) {
    *why = "no EventID";
    return false;
  }
  event->id = static_cast<int>(*id);
  auto require = [&](std::initializer_list<const char*> names, bool numbers) {
    for (const char* name : names) {
      if (numbers ? !event->Number(name) : event->Text(name).empty()) {
        *why = std::string("event ") + std::to_string(event->id) + " without " + name;
        return false;
      }
    }
    return true;
  };
  switch (event->id) {
    case 1: return require({"ProcessId"}, true) && require({"Image"}, false);
    case 5: return require({"ProcessId"}, true);
    case 6: return require({"ImageLoaded"}, false);
    case 7: return require({"ProcessId"}, true) && require({"ImageLoaded"}, false);
    case 8: return require({"SourceProcessId", "TargetProcessId"}, true);
    default: return true;  // skipped, not malformed
  }
}

bool Replayed(int id) { return id == 1 || id == 5 || id == 6 || id == 7 || id == 8; }

// What the first pass learns of a process that ran before the recording: one named before (or
// without) its start.
struct ProcessFacts {
  std::string image, commandLine;
  uint64_t logonId = 0;  // its own, or for a process that ran before, a child's
};

class Replay {
 public:
  Replay(std::ostream& out, const SysmonOptions& options) : out_(out), options_(options) {}

  int Run(const std::string& path) {
    if (!options_.whiteRules.empty() && !ReadWhiteRules(options_.whiteRules)) return 2;
    if (!Scan(path)) return 2;
    if (options_.emitScenario) {
      emitOnly_ = true;
    } else {
      RunOptions run;
      run.log = options_.log;
      run.observeLog = true;
      run.observe = [this](const Json& line) { Observe(line); };
      session_ = std::make_unique<Session>(out_, run, nullptr);
    }
    Prologue();
    std::ifstream file(path);
    std::string text;
    int line = 0;
    while (std::getline(file, text)) {
      ++line;
      Recorded event;
      std::string why;
      if (!IsEventLine(text) || !ReadEvent(text, line, &event, &why) || !Replayed(event.id)) continue;
      ReplayEvent(event);
    }
    if (emitOnly_) return 0;
    int status = session_->Finish();
    for (auto& [pid, events] : pool_) notRecorded_ += events.size();
    pool_.clear();
    out_ << Json{{"comparison", Comparison()}}.dump() << '\n';
    return status;
  }

 private:
  static bool IsEventLine(const std::string& text) {
    size_t first = text.find_first_not_of(" \t\r");
    return first != std::string::npos;
  }

  // The consumer's white rules, as a person writes them (sentrel_sdk/white_rule_text.h).
  bool ReadWhiteRules(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
      std::fprintf(stderr, "sentrel-sim: cannot read %s\n", path.c_str());
      return false;
    }
    std::stringstream text;
    text << file.rdbuf();
    sentrel_sdk::WhiteRuleRecords checked;
    std::string problem;
    if (!sentrel_sdk::ParseWhiteRules(text.str(), &checked, &problem)) {
      std::fprintf(stderr, "sentrel-sim: %s: %s\n", path.c_str(), problem.c_str());
      return false;
    }
    std::istringstream lines(text.str());
    std::string line;
    while (std::getline(lines, line)) {
      size_t start = line.find_first_not_of(" \t\r");
      if (start == std::string::npos || line[start] == '#') continue;
      size_t blank = line.find_first_of(" \t", start);
      size_t pattern = line.find_first_not_of(" \t", blank);
      size_t end = line.find_last_not_of(" \t\r");
      uploads_.push_back({{"type", line.substr(start, blank - start)}, {"pattern", line.substr(pattern, end + 1 - pattern)}});
    }
    return true;
  }

  // Pass one: what every process is, which ran before the recording, who the users are.
  bool Scan(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
      std::fprintf(stderr, "sentrel-sim: cannot read %s\n", path.c_str());
      return false;
    }
    std::string text;
    int line = 0;
    while (std::getline(file, text)) {
      ++line;
      if (!IsEventLine(text)) continue;
      Recorded e;
      std::string why;
      if (!ReadEvent(text, line, &e, &why)) {
        malformed_.push_back({{"line", line}, {"why", why}});
        continue;
      }
      if (!Replayed(e.id)) {
        std::string id = std::to_string(e.id);
        skipped_[id] = skipped_.contains(id) ? skipped_[id].get<int>() + 1 : 1;
        continue;
      }
      std::string id = std::to_string(e.id);
      recorded_[id] = recorded_.contains(id) ? recorded_[id].get<int>() + 1 : 1;
      switch (e.id) {
        case 1: {
          uint64_t logon = e.Number("LogonId").value_or(0);
          if (e.Number("ParentProcessId")) {
            Name(*e.Number("ParentProcessId"), e.Text("ParentImage"), e.Text("ParentCommandLine"));
            auto parent = facts_.find(*e.Number("ParentProcessId"));
            if (parent != facts_.end() && !parent->second.logonId) parent->second.logonId = logon;
          }
          uint64_t pid = *e.Number("ProcessId");
          auto facts = facts_.find(pid);
          if (facts != facts_.end()) {
            facts->second.image = e.Text("Image");
            facts->second.logonId = logon;
          } else {
            // Only the id of a process whose start was recorded is kept: what it is comes with
            // its event 1 in the second pass.
            created_.insert(pid);
          }
          LearnUser(e);
          break;
        }
        case 5: Name(*e.Number("ProcessId"), e.Text("Image"), ""); break;
        case 7: Name(*e.Number("ProcessId"), e.Text("Image"), ""); break;
        case 8:
          Name(*e.Number("SourceProcessId"), e.Text("SourceImage"), "");
          Name(*e.Number("TargetProcessId"), e.Text("TargetImage"), "");
          break;
        default: break;
      }
    }
    return true;
  }
  void Name(uint64_t pid, const std::string& image, const std::string& commandLine) {
    if (pid == 0 || pid == 4) return;
    if (created_.count(pid)) return;
    ProcessFacts& facts = facts_[pid];
    if (facts.image.empty()) facts.image = image;
    if (facts.commandLine.empty()) facts.commandLine = commandLine;
  }
  void LearnUser(const Recorded& e) {
    std::optional<uint64_t> logon = e.Number("LogonId");
    std::string user = e.Text("User");
    if (!logon || user.empty() || users_.count(*logon)) return;
    users_[*logon] = {user, e.Number("TerminalSessionId").value_or(1)};
  }

  uint64_t Pid(uint64_t recorded) {
    if (recorded == 0 || recorded == 4) return 4;
    if (recorded != 560 && recorded != 640 && recorded != kConsumerPid && recorded < kFirstRemappedPid) return recorded;
    auto it = remapped_.find(recorded);
    if (it != remapped_.end()) return it->second;
    return remapped_[recorded] = kFirstRemappedPid + 4 * remapped_.size();
  }

  void Do(Json op) {
    if (emitOnly_) {
      out_ << op.dump() << '\n';
      return;
    }
    Op checked;
    ScenarioError error;
    if (!MakeOp(op, 0, &checked, &error)) return;  // the importer made only well-formed ops
    log_.clear();
    session_->Perform(checked);
  }

  void Prologue() {
    Do({{"op", "machine"}, {"cpus", 4}, {"windows", 10}});
    // The reporters' decisions in the driver's log tell why a recorded event went unreported.
    const std::string debugKey = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Sentrel\\Debug";
    Do({{"op", "registry"}, {"key", debugKey}, {"value", "PrintLevel"}, {"type", "REG_DWORD"}, {"data", 5u}});
    // The white rules (0x800), the rule engine (0x20000) and the device (0x4, the consumer's uploads)
    // name the rules as they are added, so
    // that a filtered event can be told which rule passed it.
    Do({{"op", "registry"}, {"key", debugKey}, {"value", "TraceLevel"}, {"type", "REG_DWORD"}, {"data", 0x4000u | 0x800u | 0x20000u | 0x4u}});
    // Sessions other than the well-known ones and the machine's logged-on user.
    int n = 0;
    for (const auto& [logon, user] : users_) {
      if (logon == 0x3E7 || logon == 0x3E5 || logon == 0x3E4 || logon == 0x3C2A1) continue;
      Do({{"op", "logon"}, {"logon", logon}, {"user", user.first}, {"sid", "S-1-5-21-1004336348-1177238915-682003330-" + std::to_string(1100 + n++)},
          {"session", user.second}});
    }
    for (const auto& [pid, facts] : facts_) {
      Json op = {{"op", "process"}, {"pid", Pid(pid)}, {"image", facts.image.empty() ? "C:\\Windows\\System32\\svchost.exe" : facts.image}};
      if (!facts.commandLine.empty()) op["cmdline"] = facts.commandLine;
      // The user of a process the recording never saw start: that of a child it started, if any.
      if (facts.logonId && users_.count(facts.logonId)) {
        op["logon"] = facts.logonId;
        op["session"] = users_[facts.logonId].second;
      }
      Do(op);
      running_.insert(Pid(pid));
      for (size_t i = 0; i < std::size(kStartDlls); ++i) {
        Do({{"op", "image"}, {"pid", Pid(pid)}, {"path", kStartDlls[i]}, {"base", kStartDllBase + i * kStartDllSpacing}});
        mappedModules_.insert({Pid(pid), Lower(FileName(kStartDlls[i]))});
      }
      mappedModules_.insert({Pid(pid), "ntdll.dll"});
    }
    Do({{"op", "process"}, {"pid", kConsumerPid}, {"ppid", 640}, {"image", "C:\\Program Files\\Sentrel\\agent.exe"}});
    Do({{"op", "load"}});
    Do({{"op", "consumer"}, {"pid", kConsumerPid}});
    if (!uploads_.empty()) Do({{"op", "white_rules"}, {"rules", uploads_}});
  }

  static std::string Integrity(const std::string& level) {
    std::string l = Lower(level);
    if (l == "low" || l == "appcontainer") return "low";
    if (l == "high") return "high";
    if (l == "system") return "system";
    if (l == "untrusted") return "untrusted";
    return "medium";
  }

  void ReplayEvent(const Recorded& e) {
    switch (e.id) {
      case 1: {
        uint64_t pid = Pid(*e.Number("ProcessId"));
        if (running_.count(pid)) {
          Unmatched(e, "its process ran before the recording started");
          return;
        }
        uint64_t parent = e.Number("ParentProcessId") ? Pid(*e.Number("ParentProcessId")) : 4;
        Json op = {{"op", "process"}, {"pid", pid}, {"ppid", running_.count(parent) ? parent : 4}, {"image", e.Text("Image")}};
        if (!e.Text("CommandLine").empty()) op["cmdline"] = e.Text("CommandLine");
        if (!e.Text("CurrentDirectory").empty()) op["cwd"] = e.Text("CurrentDirectory");
        if (e.Number("LogonId") && users_.count(*e.Number("LogonId"))) op["logon"] = *e.Number("LogonId");
        if (!e.Text("IntegrityLevel").empty()) op["integrity"] = Integrity(e.Text("IntegrityLevel"));
        if (e.Number("TerminalSessionId")) op["session"] = *e.Number("TerminalSessionId");
        Do(op);
        running_.insert(pid);
        mappedModules_.insert({pid, "ntdll.dll"});
        mappedModules_.insert({pid, Lower(FileName(e.Text("Image")))});
        Match(e, "ET_PROCESS_CREATE", pid, [](const Json&) { return true; });
        break;
      }
      case 5: {
        uint64_t pid = Pid(*e.Number("ProcessId"));
        if (running_.erase(pid)) Do({{"op", "exit"}, {"pid", pid}});
        // What the replay knew of its images goes with it: only live processes are kept.
        mappedModules_.erase(mappedModules_.lower_bound({pid, std::string()}),
                             mappedModules_.lower_bound({pid + 1, std::string()}));
        // A process's end is not one of Sentrel's events.
        ++notObservable_;
        auto pooled = pool_.find(pid);
        if (pooled != pool_.end()) {
          notRecorded_ += pooled->second.size();
          pool_.erase(pooled);
        }
        break;
      }
      case 6: {
        std::string path = e.Text("ImageLoaded");
        std::string lower = Lower(path);
        // The service control manager loads drivers by \SystemRoot paths.
        std::string replayed = lower.rfind("c:\\windows\\", 0) == 0 ? "\\SystemRoot\\" + path.substr(11) : path;
        Do({{"op", "driver"}, {"path", replayed}});
        Match(e, "ET_DRIVER_LOAD", 0, [&](const Json& ev) { return Lower(ev["data"]["image_path"].get<std::string>()) == lower; });
        break;
      }
      case 7: {
        uint64_t pid = Pid(*e.Number("ProcessId"));
        std::string path = e.Text("ImageLoaded");
        std::string name = Lower(FileName(path));
        // The executable and ntdll.dll came with the process.
        bool mapped = Lower(path) == Lower(e.Text("Image")) || name == "ntdll.dll" ||
                      ((name == "kernel32.dll" || name == "kernelbase.dll") && facts_.count(*e.Number("ProcessId")));
        if (!running_.count(pid)) {
          Unmatched(e, "its process is not running");
          return;
        }
        if (!mapped) Do({{"op", "image"}, {"pid", pid}, {"path", path}});
        Match(e, "ET_IMAGE_LOAD", pid, [&](const Json& ev) { return Lower(ev["data"]["image_path"].get<std::string>()) == Lower(path); });
        break;
      }
      case 8: {
        uint64_t source = Pid(*e.Number("SourceProcessId")), target = Pid(*e.Number("TargetProcessId"));
        if (!running_.count(source) || !running_.count(target)) {
          Unmatched(e, "its source or target is not running");
          return;
        }
        // The recording does not say when the thread ends: it ends at once, so that a long
        // recording does not pile threads up in its targets.
        Json op = {{"op", "thread"}, {"pid", target}, {"by_pid", source}, {"exit", true}};
        std::string module = FileName(e.Text("StartModule"));
        std::optional<uint64_t> start = e.Number("StartAddress");
        if (!module.empty() && module != "-" && mappedModules_.count({target, Lower(module)})) {
          // The recording has the address, not the module's base: the offset is kept within the
          // module's first 64 KiB, where the replay's mapping of it certainly reaches.
          op["start_module"] = module;
          op["start_offset"] = start ? (*start & 0xFFFF) : 0;
        } else if (start) {
          op["start"] = *start;
        }
        Do(op);
        Match(e, "ET_REMOTE_THREAD_CREATE", source, [&](const Json& ev) {
          return ev["data"]["target_process_id"].get<uint64_t>() == target;
        });
        break;
      }
      default: break;
    }
  }

  // Sentrel's lines while an op runs: its events go to the pool of their process until a recorded
  // event claims them; its log lines tell why an event was not reported.
  void Observe(const Json& line) {
    if (line.contains("log")) {
      log_.push_back(line["log"].get<std::string>());
      whiteRules_.Observe(log_.back());
      return;
    }
    if (line.contains("reply") && line["reply"] == "image" && line.contains("base")) return;
    if (line.contains("reply") && line["reply"] == "white_rules") {
      uploaded_ = {{"rules", line.value("rules", Json(0))}, {"status", line.value("status", Json("refused"))}};
      return;
    }
    if (!line.contains("event") || line.contains("producer")) return;
    uint64_t pid = line["src_pid"].get<uint64_t>();
    if (pid == kConsumerPid) return;
    pool_[pid].push_back(line);
    if (line["event"] == "ET_IMAGE_LOAD") {
      std::string path = line["data"]["image_path"];
      mappedModules_.insert({pid, Lower(FileName(path))});
    }
  }

  template <typename Pred>
  void Match(const Recorded& e, const std::string& type, uint64_t pid, Pred pred) {
    // Images the replay mapped, for later remote threads' modules (reported or not).
    if (e.id == 7) mappedModules_.insert({Pid(*e.Number("ProcessId")), Lower(FileName(e.Text("ImageLoaded")))});
    for (auto& [owner, events] : pool_) {
      if (pid && owner != pid) continue;
      for (auto it = events.begin(); it != events.end(); ++it) {
        if ((*it)["event"] != type || !pred(*it)) continue;
        ++both_;
        if (BlackRuleSingledOut(e)) ++blackRule_;
        Differences(e, *it);
        events.erase(it);
        return;
      }
    }
    Unmatched(e, "");
  }

  bool Logged(const std::string& text, const std::string& about) const { return LoggedLine(text, about) != nullptr; }
  const std::string* LoggedLine(const std::string& text, const std::string& about) const {
    for (const std::string& line : log_) {
      if (line.find(text) != std::string::npos && (about.empty() || Lower(line).find(Lower(about)) != std::string::npos)) return &line;
    }
    return nullptr;
  }
  // The white rule that passed a recorded event, from the path the driver's log names.
  std::string PassingRule(const Recorded& e, const std::string& logged) const {
    unsigned type = e.id == 1 ? ET_PROCESS_CREATE : e.id == 8 ? ET_REMOTE_THREAD_CREATE : e.id == 6 ? ET_DRIVER_LOAD : ET_IMAGE_LOAD;
    size_t bypass = logged.find("Bypass ");
    std::string rule = bypass == std::string::npos ? std::string() : whiteRules_.Passing(type, logged.substr(bypass + 7));
    return std::string(sk_EventTypeName(type)) + " " + (rule.empty() ? "(a rule the driver's log did not list)" : rule);
  }
  bool BlackRuleSingledOut(const Recorded& e) const {
    return e.id == 7 && Logged("Match Black Rule Report", FileName(e.Text("ImageLoaded")));
  }

  void Unmatched(const Recorded& e, std::string reason) {
    std::string about = e.id == 7 || e.id == 6 ? FileName(e.Text("ImageLoaded")) : FileName(e.Text(e.id == 8 ? "SourceImage" : "Image"));
    if (reason.empty()) {
      // The reporter's own line ("... Match White Rule Bypass <path>"), not the rule engine's.
      const std::string* logged = LoggedLine("Bypass ", about);
      if (logged && logged->find("Match White Rule") != std::string::npos) {
        ++whiteRule_;
        std::string key = std::to_string(e.id);
        whiteRuleByEvent_[key] = whiteRuleByEvent_.contains(key) ? whiteRuleByEvent_[key].get<int>() + 1 : 1;
        std::string rule = PassingRule(e, *logged);
        whiteRuleByRule_[rule] = whiteRuleByRule_.contains(rule) ? whiteRuleByRule_[rule].get<int>() + 1 : 1;
        if (whiteRuleExamples_.size() < 5) {
          whiteRuleExamples_.push_back({{"line", e.line}, {"event", e.id}, {"passed", about}, {"rule", rule}});
        }
        return;
      }
      reason = Logged("sk_GetImageRealPath fail", "")      ? "the image's path could not be converted"
               : e.id == 6 && Logged("ServiceProc", "")       ? "services.exe is not known"
               : Logged("sk_GetLogonInfo_Process fail", "")   ? "its logon session is not in the driver's logon table"
               : Logged("sk_PackProcessInfo_Pid fail", "")    ? "the process's packages could not be built"
                                                              : "not seen by the driver";
    }
    ++notReported_;
    notReportedReasons_[reason] = notReportedReasons_.contains(reason) ? notReportedReasons_[reason].get<int>() + 1 : 1;
    if (notReportedExamples_.size() < 5) notReportedExamples_.push_back({{"line", e.line}, {"event", e.id}, {"reason", reason}});
  }

  void Differ(const char* field, const Recorded& e, const Json& recorded, const Json& reported) {
    differences_[field] = differences_.contains(field) ? differences_[field].get<int>() + 1 : 1;
    if (differenceExamples_.size() < 5) {
      differenceExamples_.push_back({{"line", e.line}, {"field", field}, {"recorded", recorded}, {"reported", reported}});
    }
  }
  static bool SameText(const Json& a, const std::string& b) { return a.is_string() && Lower(a.get<std::string>()) == Lower(b); }

  void Differences(const Recorded& e, const Json& ev) {
    if (e.id == 1) {
      if (!SameText(ev["data"]["image_path"], e.Text("Image"))) Differ("image_path", e, e.Text("Image"), ev["data"]["image_path"]);
      if (!e.Text("CommandLine").empty() && ev["process"]["command_line"] != e.Text("CommandLine")) {
        Differ("command_line", e, e.Text("CommandLine"), ev["process"]["command_line"]);
      }
      if (!e.Text("User").empty() && !SameText(ev["logon"]["user_name"], e.Text("User"))) Differ("user", e, e.Text("User"), ev["logon"]["user_name"]);
      uint64_t parent = e.Number("ParentProcessId") ? Pid(*e.Number("ParentProcessId")) : 0;
      uint64_t reported = ev["tree"].size() > 1 ? ev["tree"][1]["process_id"].get<uint64_t>() : 0;
      if (parent && parent != 4 && reported != parent) Differ("parent_chain", e, parent, reported);
    } else if (e.id == 8) {
      std::string module = FileName(e.Text("StartModule"));
      std::string reported = ev["data"]["module_name"].is_string() ? ev["data"]["module_name"].get<std::string>() : "";
      bool recordedKnown = !module.empty() && module != "-";
      if (recordedKnown ? Lower(module) != Lower(reported) : reported != "unknow") {
        Differ("start_module", e, module, ev["data"]["module_name"]);
        return;
      }
      // The offset into the module ("+0x3c40": the replay kept the address's low 16 bits), or
      // outside any image the whole address ("0x1f3a0010000").
      std::optional<uint64_t> address = e.Number("StartAddress");
      const Json& offset = ev["data"]["start_offset"];
      if (!address || !offset.is_string()) return;
      std::string text = offset.get<std::string>();
      bool relative = !text.empty() && text[0] == '+';
      Recorded parsed{0, 0, Json{{"v", relative ? text.substr(1) : text}}};
      uint64_t expected = recordedKnown ? (*address & 0xFFFF) : *address;
      if (relative != recordedKnown || parsed.Number("v") != expected) {
        char want[32];
        std::snprintf(want, sizeof want, recordedKnown ? "+0x%llx" : "0x%llx", static_cast<unsigned long long>(expected));
        Differ("start_offset", e, want, offset);
      }
    }
  }

  Json Comparison() {
    uint64_t total = 0;
    for (auto& [id, count] : recorded_.items()) total += count.get<uint64_t>();
    uint64_t unexplained = notReportedReasons_.contains("not seen by the driver")
                               ? notReportedReasons_["not seen by the driver"].get<uint64_t>()
                               : 0;
    return {{"recorded", recorded_},
            // Every recorded event is paired, filtered, explained or not observable, and nothing
            // is left unexplained.
            {"clean", both_ + whiteRule_ + notReported_ + notObservable_ == total && unexplained == 0},
            {"skipped", skipped_},
            {"malformed_lines", malformed_},
            {"reported_and_recorded", both_},
            {"of_which_black_rule", blackRule_},
            {"white_rules_uploaded", uploaded_},
            {"filtered_by_white_rule", {{"count", whiteRule_}, {"by_event", whiteRuleByEvent_}, {"by_rule", whiteRuleByRule_}, {"examples", whiteRuleExamples_}}},
            {"recorded_not_reported", {{"count", notReported_}, {"reasons", notReportedReasons_}, {"examples", notReportedExamples_}}},
            {"not_observable", {{"count", notObservable_}, {"why", "event 5 (a process's end) is no event of Sentrel's"}}},
            {"reported_not_recorded", notRecorded_},
            {"differences", {{"counts", differences_}, {"examples", differenceExamples_}}}};
  }

  std::ostream& out_;
  SysmonOptions options_;
  bool emitOnly_ = false;
  std::unique_ptr<Session> session_;
  std::map<uint64_t, ProcessFacts> facts_;  // the processes that ran before the recording
  std::unordered_set<uint64_t> created_;    // the ids of processes whose start it recorded
  std::map<uint64_t, std::pair<std::string, uint64_t>> users_;  // logon id -> user, session
  std::map<uint64_t, uint64_t> remapped_;
  std::set<uint64_t> running_;
  std::set<std::pair<uint64_t, std::string>> mappedModules_;
  std::map<uint64_t, std::list<Json>> pool_;  // Sentrel's events not yet paired, by process
  std::vector<std::string> log_;
  Json recorded_ = Json::object(), skipped_ = Json::object(), malformed_ = Json::array();
  uint64_t both_ = 0, blackRule_ = 0, whiteRule_ = 0, notReported_ = 0, notObservable_ = 0, notRecorded_ = 0;
  Json whiteRuleExamples_ = Json::array(), whiteRuleByRule_ = Json::object();
  WhiteRuleLog whiteRules_;
  Json uploads_ = Json::array();  // the consumer's white rules
  Json uploaded_;                  // what the driver answered to them (null when there were none)
  Json whiteRuleByEvent_ = Json::object(), notReportedReasons_ = Json::object(), notReportedExamples_ = Json::array();
  Json differences_ = Json::object(), differenceExamples_ = Json::array();
};

}  // namespace

int ReplaySysmon(const std::string& path, std::ostream& output, const SysmonOptions& options) {
  Replay replay(output, options);
  return replay.Run(path);
}

}  // namespace sentrel_sim
