// What every benchmark program shares: a reporter that keeps each benchmark's time per iteration
// (the median when --benchmark_repetitions asks for several runs, else the one run), and the rows
// of the summary table that scripts/bench.sh gathers from every program. A row is printed as
//
//   ROW|<benchmark>|<figure>|<baseline>|<ratio>|<goal>|<met or not>
//
// so that the script can put the rows of all programs into one table.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace bench_table {

class Reporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      std::string name = run.run_name.str();
      bool median = run.run_type == Run::RT_Aggregate;
      // A median replaces single runs of the same benchmark; a single run never replaces a median.
      if (!median && medians_.count(name)) continue;
      if (median) medians_[name] = true;
      times_[name] = run.GetAdjustedRealTime();
      auto rate = run.counters.find("items_per_second");
      if (rate != run.counters.end()) rates_[name] = rate->second;
      for (const auto& [counter, value] : run.counters) counters_[name + "#" + counter] = value;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Nanoseconds per iteration of the named run ("BM_Write/128"), 0 if it did not run.
  double Time(const std::string& name) const { return Find(times_, name); }
  double Rate(const std::string& name) const { return Find(rates_, name); }
  double Counter(const std::string& name, const std::string& counter) const {
    return Find(counters_, name + "#" + counter);
  }

 private:
  static double Find(const std::map<std::string, double>& map, const std::string& name) {
    auto it = map.find(name);
    return it == map.end() ? 0 : it->second;
  }
  std::map<std::string, double> times_;
  std::map<std::string, double> rates_;
  std::map<std::string, double> counters_;
  std::map<std::string, bool> medians_;
};

inline std::string Ns(double ns) {
  char text[32];
  std::snprintf(text, sizeof text, ns < 10 ? "%.2f ns" : "%.1f ns", ns);
  return text;
}

inline std::string Times(double ratio) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2fx", ratio);
  return text;
}

// One row of the summary table. A figure that did not run is reported as not met.
inline void Row(const std::string& benchmark, const std::string& figure, const std::string& baseline, double ratio,
                const std::string& goal, bool met) {
  std::printf("ROW|%s|%s|%s|%s|%s|%s\n", benchmark.c_str(), figure.c_str(), baseline.c_str(), Times(ratio).c_str(),
              goal.c_str(), met ? "met" : "NOT MET");
}

// The usual row: a time against its baseline's time, with the goal "at most Limit times".
inline void AtMost(const std::string& benchmark, double ns, const std::string& baselineName, double baselineNs,
                   double limit) {
  double ratio = baselineNs > 0 ? ns / baselineNs : 0;
  char goal[32];
  std::snprintf(goal, sizeof goal, "<= %.1fx", limit);
  Row(benchmark, Ns(ns), baselineName + " " + Ns(baselineNs), ratio, goal, ns > 0 && baselineNs > 0 && ratio <= limit);
}

// A speed-up: the baseline's time over the figure's, with the goal "at least Limit times".
inline void SpeedUpAtLeast(const std::string& benchmark, double ns, const std::string& baselineName, double baselineNs,
                           double limit) {
  double ratio = ns > 0 ? baselineNs / ns : 0;
  char goal[48];
  std::snprintf(goal, sizeof goal, "speed-up >= %.1fx", limit);
  Row(benchmark, Ns(ns), baselineName + " " + Ns(baselineNs), ratio, goal, ns > 0 && baselineNs > 0 && ratio >= limit);
}

}  // namespace bench_table
