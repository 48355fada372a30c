// Host threads for the simulated kernel's concurrency tests: every wait is bounded, so a thread that
// the simulated kernel never releases stops the run with a message instead of hanging it.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

namespace sim_test {

using namespace std::chrono_literals;

// Runs fn on a host thread of its own, which the simulated kernel adopts as a system thread.
class HostThread {
 public:
  template <typename Fn>
  explicit HostThread(Fn fn) {
    auto done = std::make_shared<std::promise<void>>();
    finished_ = done->get_future();
    thread_ = std::thread([fn, done]() mutable {
      fn();
      done->set_value();
    });
  }
  HostThread(const HostThread&) = delete;
  HostThread& operator=(const HostThread&) = delete;
  ~HostThread() {
    if (!FinishedWithin(10s)) {
      std::fprintf(stderr, "a host thread is still blocked in the simulated kernel after 10 s\n");
      std::abort();
    }
    thread_.join();
  }
  bool FinishedWithin(std::chrono::milliseconds bound) {
    return finished_.wait_for(bound) == std::future_status::ready;
  }

 private:
  std::thread thread_;
  std::future<void> finished_;
};

// Polls cond for up to two seconds.
template <typename Cond>
bool Eventually(Cond cond) {
  auto deadline = std::chrono::steady_clock::now() + 2s;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

}  // namespace sim_test
