// Matching event paths against the rule sets, as the reporters ask them: for each event of a
// realistic mix (process images, DLL loads, registry keys), the white set and then the black set of
// its event type. The rule engine's tries are measured against a baseline that tests each rule in
// turn (a case-insensitive compare of the path with every pattern of the type, in list order, under
// the same kind of lock), both with the built-in rule sets as they are after start-up and with ten
// times as many rules. The last lines give the ratios: baseline over tries, and each with ten
// times the rules over itself with the built-in ones. These machines are noisy: run it with
// --benchmark_repetitions=5 for medians.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_table.h"
#include "core/sentrel_data.h"
#include "rules/default_rules.h"
#include "rules/rule_sets.h"
#include "world.h"

namespace {

using Text = std::u16string;

enum Category { kAll, kProcesses, kDlls, kRegistry, kCategories };
const char* const kCategoryNames[kCategories] = {"all", "processes", "dlls", "registry"};

struct Event {
  Category category;
  SK_EVENT_TYPE type;
  Text path;
};

// What the machine sees most of the time: images starting from the system and program folders,
// DLLs loading from them, and registry writes under the machine's and the users' keys. Most pass
// both sets without a match; a few are singled out.
std::vector<Event> EventMix(const Text& user) {
  const Text volume = u"\\Device\\HarddiskVolume3";
  const Text users = u"\\REGISTRY\\USER\\" + user;
  std::vector<Event> mix;
  for (const char16_t* image :
       {u"\\Windows\\System32\\svchost.exe", u"\\Windows\\System32\\conhost.exe", u"\\Windows\\System32\\RuntimeBroker.exe",
        u"\\Windows\\System32\\backgroundTaskHost.exe", u"\\Windows\\System32\\cmd.exe",
        u"\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe", u"\\Windows\\explorer.exe",
        u"\\Program Files\\Google\\Chrome\\Application\\chrome.exe",
        u"\\Program Files (x86)\\Microsoft\\Edge\\Application\\msedge.exe",
        u"\\Users\\alice\\AppData\\Local\\Temp\\setup_4711.exe", u"\\Program Files\\Git\\usr\\bin\\ssh.exe",
        u"\\Windows\\System32\\SearchProtocolHost.exe"}) {
    mix.push_back({kProcesses, ET_PROCESS_CREATE, volume + image});
  }
  for (const char16_t* dll :
       {u"\\??\\C:\\Windows\\System32\\ntdll.dll", u"\\??\\C:\\Windows\\System32\\kernelbase.dll",
        u"\\??\\C:\\Windows\\System32\\combase.dll", u"\\??\\C:\\Windows\\System32\\hid.dll",
        u"\\??\\C:\\Program Files\\Google\\Chrome\\Application\\118.0.5993.88\\chrome_elf.dll",
        u"\\??\\C:\\Program Files\\Microsoft Office\\root\\Office16\\mso20win32client.dll",
        u"\\??\\C:\\Users\\alice\\AppData\\Local\\Microsoft\\Teams\\current\\ffmpeg.dll",
        u"\\??\\C:\\Windows\\WinSxS\\amd64_microsoft.windows.common-controls_6595b64144ccf1df_6.0.19041.1110\\comctl32.dll"}) {
    mix.push_back({kDlls, ET_IMAGE_LOAD, dll});
  }
  for (const Text& key :
       {Text(u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run"),
        Text(u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\bam\\State\\UserSettings"),
        Text(u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Windows Defender\\Signature Updates"),
        Text(u"\\REGISTRY\\MACHINE\\SOFTWARE\\WOW6432Node\\Google\\Update\\ClientState\\{430FD4D0}"),
        Text(u"\\REGISTRY\\MACHINE\\SOFTWARE\\Microsoft\\Cryptography\\RNG"),
        Text(u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Control\\DeviceClasses\\{53f56307}\\##?#USBSTOR"),
        users + u"\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\RecentDocs\\.txt",
        users + u"\\Software\\Microsoft\\Office\\16.0\\Common\\Roaming\\Identities",
        users + u"\\Software\\Microsoft\\Windows\\CurrentVersion\\Run",
        users + u"\\Control Panel\\Desktop\\WindowMetrics",
        users + u"_Classes\\Local Settings\\Software\\Microsoft\\Windows\\Shell\\BagMRU\\1\\0",
        Text(u"\\REGISTRY\\MACHINE\\SOFTWARE\\Classes\\CLSID\\{8856F961}\\InprocServer32")}) {
    mix.push_back({kRegistry, ET_REGISTRY_VALUE_MODIFY, key});
  }
  return mix;
}

UNICODE_STRING Counted(const Text& text) {
  UNICODE_STRING s;
  s.Length = s.MaximumLength = static_cast<USHORT>(text.size() * sizeof(char16_t));
  s.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(text.data()));
  return s;
}

// The baseline: per event type, the patterns as the engine stores them, each tested in turn.
struct LinearRule {
  bool suffix;
  Text text;  // a prefix rule without its final "\*"; a suffix rule's tail, "\" included
  UNICODE_STRING counted;
};

class LinearRuleSet {
 public:
  LinearRuleSet() { ExInitializeResourceLite(&lock_); }
  ~LinearRuleSet() { ExDeleteResourceLite(&lock_); }
  void Add(SK_EVENT_TYPE type, Text pattern) {
    LinearRule rule;
    rule.suffix = !pattern.empty() && pattern[0] == u'*';
    if (rule.suffix) pattern.erase(0, 1);
    else if (pattern.size() >= 2 && pattern.compare(pattern.size() - 2, 2, u"\\*") == 0) pattern.resize(pattern.size() - 2);
    rule.text = pattern;
    slots_[type].push_back(rule);
  }
  void Seal() {
    for (auto& slot : slots_) {
      for (LinearRule& rule : slot) rule.counted = Counted(rule.text);
    }
  }
  bool Match(SK_EVENT_TYPE type, PCUNICODE_STRING path) {
    bool matched = false;
    if (slots_[type].empty()) return false;  // as the engine answers a type without rules
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&lock_, TRUE);
    for (const LinearRule& rule : slots_[type]) {
      const USHORT length = rule.counted.Length;
      if (length > path->Length) continue;
      if (rule.suffix) {
        UNICODE_STRING tail = *path;
        tail.Buffer += (path->Length - length) / sizeof(WCHAR);
        tail.Length = tail.MaximumLength = length;
        matched = RtlEqualUnicodeString(&tail, &rule.counted, TRUE);
      } else {
        matched = RtlPrefixUnicodeString(&rule.counted, path, TRUE) &&
                  (length == path->Length || path->Buffer[length / sizeof(WCHAR)] == L'\\');
      }
      if (matched) break;
    }
    ExReleaseResourceLite(&lock_);
    KeLeaveCriticalRegion();
    return matched;
  }

 private:
  std::vector<LinearRule> slots_[SK_RULE_SLOT_COUNT];
  ERESOURCE lock_;
};

// A set of rules twice over: in the rule engine and in the baseline.
struct RuleSet {
  RuleMgr engine{};
  LinearRuleSet linear;
};

struct Fixture {
  std::vector<Event> mix;
  std::unique_ptr<RuleSet> white[2], black[2];  // [0]: built-in, [1]: ten times the rules
};
Fixture* g_fixture;

// Nine more rules like a pattern: its last named component with a digit before its extension
// (*\cmd.exe: *\cmd1.exe ... *\cmd9.exe), so they land beside it at its depth.
std::vector<Text> Variants(const Text& pattern) {
  std::vector<Text> out;
  Text base = pattern;
  Text tail;
  if (base.size() >= 2 && base.compare(base.size() - 2, 2, u"\\*") == 0) {
    tail = u"\\*";
    base.resize(base.size() - 2);
  }
  size_t slash = base.rfind(u'\\');
  size_t dot = base.rfind(u'.');
  size_t at = dot != Text::npos && (slash == Text::npos || dot > slash) ? dot : base.size();
  for (char16_t d = u'1'; d <= u'9'; ++d) out.push_back(base.substr(0, at) + d + base.substr(at) + tail);
  return out;
}

void Add(RuleSet& set, bool tenfold, SK_EVENT_TYPE type, const Text& pattern, const Text& stored) {
  UNICODE_STRING s = Counted(pattern);
  sk_AddRule(&set.engine, type, &s);
  set.linear.Add(type, stored);
  if (!tenfold) return;
  std::vector<Text> patterns = Variants(pattern), storedVariants = Variants(stored);
  for (size_t i = 0; i < patterns.size(); ++i) {
    s = Counted(patterns[i]);
    sk_AddRule(&set.engine, type, &s);
    set.linear.Add(type, storedVariants[i]);
  }
}

Text Text16(PCUNICODE_STRING s) { return Text(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / 2); }

// The built-in lists as the start-up adds them, with the per-user templates for the user hives.
void Fill(RuleSet& white, RuleSet& black, bool tenfold, const std::vector<Text>& hives) {
  sk_InitRuleMgr(&white.engine);
  sk_InitRuleMgr(&black.engine);
  const Text systemRoot = u"\\SystemRoot";
  for (const SK_DEFAULT_WHITE_RULE& rule : SkDefaultWhiteRules) {
    Text pattern = reinterpret_cast<const char16_t*>(rule.Pattern), stored = pattern;
    if (pattern.compare(0, systemRoot.size(), systemRoot) == 0) {
      bool nt = rule.EventType == ET_PROCESS_ACCESS;
      stored = Text16(nt ? SentrelData.SystemRootNtPath : SentrelData.SystemRootDosPath) + pattern.substr(systemRoot.size());
    }
    Add(white, tenfold, rule.EventType, pattern, stored);
  }
  auto list = [&](SK_EVENT_TYPE type, const PCWSTR* patterns, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      Text pattern = reinterpret_cast<const char16_t*>(patterns[i]);
      Add(black, tenfold, type, pattern, pattern);
    }
  };
  list(ET_PROCESS_CREATE, SkDefaultBlackProgramRules, SK_DEFAULT_BLACK_PROGRAM_RULES);
  list(ET_IMAGE_LOAD, SkDefaultBlackDllRules, SK_DEFAULT_BLACK_DLL_RULES);
  for (SK_EVENT_TYPE type = ET_REGISTRY_KEY_CREATE; type <= ET_REGISTRY_VALUE_MODIFY; ++type) {
    list(type, SkDefaultBlackRegistryRules, SK_DEFAULT_BLACK_REGISTRY_RULES);
    for (const Text& hive : hives) {
      for (PCWSTR raw : SkDefaultUserHiveTemplates) {
        Text pattern = reinterpret_cast<const char16_t*>(raw);
        size_t slash = pattern.find(u'\\');
        // The engine takes the doubled backslash as one; the baseline compares text and needs it single.
        Text rule = u"\\Registry\\User\\" + hive + u"\\" + pattern.substr(slash);
        Add(black, tenfold, type, rule, u"\\Registry\\User\\" + hive + pattern.substr(slash));
      }
    }
  }
  white.linear.Seal();
  black.linear.Seal();
}

void BM_Match(benchmark::State& state) {
  const bool linear = state.range(0) == 1;
  const int set = static_cast<int>(state.range(1));
  const Category category = static_cast<Category>(state.range(2));
  RuleSet& white = *g_fixture->white[set];
  RuleSet& black = *g_fixture->black[set];
  std::vector<UNICODE_STRING> paths;
  std::vector<SK_EVENT_TYPE> types;
  for (const Event& event : g_fixture->mix) {
    if (category != kAll && event.category != category) continue;
    paths.push_back(Counted(event.path));
    types.push_back(event.type);
  }
  for (auto _ : state) {
    for (size_t i = 0; i < paths.size(); ++i) {
      if (linear) {
        benchmark::DoNotOptimize(white.linear.Match(types[i], &paths[i]) || black.linear.Match(types[i], &paths[i]));
      } else {
        benchmark::DoNotOptimize(sk_MatchRule(&white.engine, types[i], &paths[i]) == STATUS_SUCCESS ||
                                 sk_MatchRule(&black.engine, types[i], &paths[i]) == STATUS_SUCCESS);
      }
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * paths.size()));
  state.SetLabel(std::string(kCategoryNames[category]) + (set ? ", 10x rules" : ", built-in rules"));
}

// What both ways pay before comparing anything: a set's lock taken and given back, once for each
// set that has rules of the event's type. On the simulated kernel an executive resource costs far
// more than on a real one, which narrows the ratios; this run tells by how much.
void BM_LockOnly(benchmark::State& state) {
  ERESOURCE lock;
  ExInitializeResourceLite(&lock);
  const size_t events = g_fixture->mix.size();
  for (auto _ : state) {
    for (size_t i = 0; i < events; ++i) {
      KeEnterCriticalRegion();
      ExAcquireResourceSharedLite(&lock, TRUE);
      benchmark::ClobberMemory();
      ExReleaseResourceLite(&lock);
      KeLeaveCriticalRegion();
    }
  }
  ExDeleteResourceLite(&lock);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * events));
}
BENCHMARK(BM_LockOnly);

BENCHMARK(BM_Match)->ArgsProduct({{0, 1}, {0, 1}, {kAll, kProcesses, kDlls, kRegistry}})->ArgNames({"linear", "tenfold", "category"});

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    // With --benchmark_repetitions the median of the repetitions counts, else the one run.
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      double perEvent = run.GetAdjustedRealTime();
      auto items = run.counters.find("items_per_second");
      if (items != run.counters.end() && items->second.value > 0) perEvent = 1e9 / items->second.value;
      times_[run.run_name.str()] = perEvent;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double Time(int linear, int tenfold, int category) {
    char name[96];
    std::snprintf(name, sizeof name, "BM_Match/linear:%d/tenfold:%d/category:%d", linear, tenfold, category);
    return times_[name];
  }
  void PrintRatios() {
    std::printf("\nns per event (white then black set of its type); each set with rules of the type costs both\n"
                "ways %.1f ns of lock on this kernel (processes: one such set, DLLs and registry: two)\n",
                times_["BM_LockOnly"]);
    std::printf("%-10s %12s %12s %9s %12s %12s %9s %12s %12s\n", "", "tries", "each rule", "ratio", "tries 10x",
                "each 10x", "ratio", "tries 10x/1", "each 10x/1");
    for (int c = 0; c < kCategories; ++c) {
      double t = Time(0, 0, c), l = Time(1, 0, c), t10 = Time(0, 1, c), l10 = Time(1, 1, c);
      if (t <= 0 || t10 <= 0) continue;
      std::printf("%-10s %12.1f %12.1f %8.1fx %12.1f %12.1f %8.1fx %11.2fx %11.2fx\n", kCategoryNames[c], t, l, l / t,
                  t10, l10, l10 / t10, t10 / t, l10 / l);
    }
    bench_table::SpeedUpAtLeast("rule match, built-in sets, event mix", Time(0, 0, kAll), "each rule in turn",
                                Time(1, 0, kAll), 10.0);
    for (int c = kProcesses; c < kCategories; ++c) {
      bench_table::SpeedUpAtLeast(std::string("rule match, built-in sets, ") + kCategoryNames[c], Time(0, 0, c),
                                  "each rule in turn", Time(1, 0, c), 1.0);
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  ntsim::World world;
  SkDriverObject = world.kernel().io.CreateDriverObject(u"\\Driver\\RuleBench", nullptr);
  if (world.AsSystem(sk_InitSentrelData) != STATUS_SUCCESS) return 1;
  world.debug().Clear();

  Fixture fixture;
  g_fixture = &fixture;
  fixture.mix = EventMix(ntsim::World::LoggedOnUserSid());
  const std::vector<Text> hives = {u".DEFAULT", u"S-1-5-18", u"S-1-5-19", u"S-1-5-20", ntsim::World::LoggedOnUserSid()};
  size_t rules[2] = {};
  for (int set = 0; set < 2; ++set) {
    fixture.white[set] = std::make_unique<RuleSet>();
    fixture.black[set] = std::make_unique<RuleSet>();
    world.AsSystem([&] {
      Fill(*fixture.white[set], *fixture.black[set], set == 1, hives);
      return 0;
    });
    for (const RuleSet* s : {fixture.white[set].get(), fixture.black[set].get()}) {
      for (const RuleNode& slot : s->engine.Slots) rules[set] += slot.Rules.ForwardCount + slot.Rules.ReverseCount;
    }
  }
  // The built-in sets filled here are the start-up's own.
  for (SK_EVENT_TYPE type = 0; type < SK_RULE_SLOT_COUNT; ++type) {
    const PathRuleMgr& ours = fixture.black[0]->engine.Slots[type].Rules;
    const PathRuleMgr& started = SentrelData.BlackRuleMgr.Slots[type].Rules;
    if (ours.ForwardCount != started.ForwardCount || ours.ReverseCount != started.ReverseCount) {
      std::fprintf(stderr, "event type %u: the bench's black rules differ from the start-up's\n", type);
      return 1;
    }
  }
  // Both ways of matching agree on every event of the mix.
  size_t matches[2] = {};
  for (int set = 0; set < 2; ++set) {
    for (const Event& event : fixture.mix) {
      UNICODE_STRING path = Counted(event.path);
      bool tries = world.AsSystem([&] {
        return sk_MatchRule(&fixture.white[set]->engine, event.type, &path) == STATUS_SUCCESS ||
               sk_MatchRule(&fixture.black[set]->engine, event.type, &path) == STATUS_SUCCESS;
      });
      bool each = world.AsSystem([&] {
        return fixture.white[set]->linear.Match(event.type, &path) || fixture.black[set]->linear.Match(event.type, &path);
      });
      if (tries != each) {
        std::fprintf(stderr, "the two ways disagree on an event of type %u\n", event.type);
        return 1;
      }
      matches[set] += tries;
    }
  }
  std::printf("%zu events; built-in sets: %zu rules, %zu events matched; 10x sets: %zu rules, %zu matched\n",
              fixture.mix.size(), rules[0], matches[0], rules[1], matches[1]);

  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  for (int set = 0; set < 2; ++set) {
    sk_UninitRuleMgr(&fixture.white[set]->engine);
    sk_UninitRuleMgr(&fixture.black[set]->engine);
  }
  world.AsSystem(sk_UninitSentrelData);
  return 0;
}
