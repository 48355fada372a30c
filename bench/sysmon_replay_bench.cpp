// Replaying a long system-monitor recording through Sentrel: a generated recording of a machine
// where short-lived processes start, load DLLs (some from the system folder, some not), start
// threads in the desktop and end, replayed with its comparison. Prints recorded events per second,
// and the process's peak memory after a recording of a quarter of the length and after the whole:
// what the replay keeps must not grow with the recording, only with the processes alive at once.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "bench_table.h"
#include "sysmon.h"

namespace {

// Writes a recording of about `events` events; returns how many it holds.
size_t Generate(const std::string& path, size_t events) {
  std::ofstream out(path);
  size_t written = 0;
  for (uint64_t n = 0; written < events; ++n) {
    uint64_t pid = 10000 + 4 * (n % 5000);
    std::string image = "C:\\\\Tools\\\\job" + std::to_string(n % 50) + ".exe";
    out << "{\"EventID\":1,\"ProcessId\":" << pid << ",\"Image\":\"" << image << "\",\"CommandLine\":\"job --step "
        << n << "\",\"User\":\"CORP\\\\svc-build\",\"LogonId\":\"0x6a110\",\"TerminalSessionId\":1,"
        << "\"IntegrityLevel\":\"Medium\",\"ParentProcessId\":3880,\"ParentImage\":\"C:\\\\Windows\\\\explorer.exe\"}\n";
    ++written;
    for (int i = 0; i < 40; ++i) {
      std::string dll = i % 2 ? "C:\\\\Windows\\\\System32\\\\lib" + std::to_string(i) + ".dll"
                              : "C:\\\\Tools\\\\lib\\\\plugin" + std::to_string(i) + ".dll";
      out << "{\"EventID\":7,\"ProcessId\":" << pid << ",\"Image\":\"" << image << "\",\"ImageLoaded\":\"" << dll
          << "\"}\n";
      ++written;
    }
    for (int i = 0; i < 4; ++i) {
      out << "{\"EventID\":8,\"SourceProcessId\":" << pid << ",\"TargetProcessId\":3880,\"TargetImage\":"
          << "\"C:\\\\Windows\\\\explorer.exe\",\"StartAddress\":\"0x00007FFB1A2B3C40\",\"StartModule\":"
          << "\"C:\\\\Windows\\\\System32\\\\KERNEL32.DLL\"}\n";
      ++written;
    }
    out << "{\"EventID\":5,\"ProcessId\":" << pid << ",\"Image\":\"" << image << "\"}\n";
    ++written;
  }
  return written;
}

struct Run {
  size_t events = 0;
  double seconds = 0;
  long peakKiB = 0;
  bool clean = false;
};

Run Replay(size_t events) {
  std::string path = "/tmp/sentrel-sysmon-bench-" + std::to_string(events) + ".jsonl";
  Run run;
  run.events = Generate(path, events);
  // Sentrel's output is read as it comes and thrown away, as a consumer would; the comparison is kept.
  struct Discard : std::streambuf {
    std::string last, current;
    int overflow(int c) override {
      if (c == '\n') {
        last.swap(current);
        current.clear();
      } else {
        current.push_back(static_cast<char>(c));
      }
      return c;
    }
  } sink;
  std::ostream out(&sink);
  auto begin = std::chrono::steady_clock::now();
  sentrel_sim::ReplaySysmon(path, out, sentrel_sim::SysmonOptions());
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  run.peakKiB = usage.ru_maxrss;
  run.clean = sink.last.find("\"clean\":true") != std::string::npos;
  std::remove(path.c_str());
  return run;
}

}  // namespace

int main() {
  Run quarter = Replay(25000);
  Run whole = Replay(100000);
  for (const Run& r : {quarter, whole}) {
    std::printf("%zu recorded events replayed in %.1f s (%.0f events/s), peak memory %.0f MiB, comparison %s\n",
                r.events, r.seconds, r.events / r.seconds, r.peakKiB / 1024.0, r.clean ? "clean" : "NOT clean");
  }
  char figure[64], baseline[64];
  std::snprintf(figure, sizeof figure, "%.1f s, %.0f events/s", whole.seconds, whole.events / whole.seconds);
  bench_table::Row("replay of a 100,000-event recording", figure, "one minute", whole.seconds / 60.0,
                   "<= 1.0x, comparison clean", whole.seconds <= 60.0 && whole.clean);
  std::snprintf(figure, sizeof figure, "%.0f MiB", whole.peakKiB / 1024.0);
  std::snprintf(baseline, sizeof baseline, "after 25,000 events %.0f MiB", quarter.peakKiB / 1024.0);
  double growth = quarter.peakKiB ? double(whole.peakKiB) / double(quarter.peakKiB) : 0;
  bench_table::Row("peak memory, 100,000 events against 25,000", figure, baseline, growth, "<= 1.25x", growth <= 1.25);
  return 0;
}
