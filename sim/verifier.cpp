#include "verifier.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace ntsim {

void Verifier::SetViolationPolicy(ViolationPolicy policy) {
  std::lock_guard<std::mutex> lock(mutex_);
  policy_ = policy;
}

void Verifier::Violation(const std::string& call, const std::string& what) {
  ViolationPolicy policy;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    violations_.push_back({call, what});
    policy = policy_;
  }
  if (policy == ViolationPolicy::Abort) {
    std::fprintf(stderr, "\n*** VERIFIER VIOLATION in %s: %s\n*** The machine stops here (bug check).\n",
                 call.c_str(), what.c_str());
    std::fflush(stderr);
    std::abort();
  }
}

std::vector<Finding> Verifier::Violations() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return violations_;
}

void Verifier::ClearViolations() {
  std::lock_guard<std::mutex> lock(mutex_);
  violations_.clear();
}

void Verifier::FailNth(uint64_t n) {
  std::lock_guard<std::mutex> lock(mutex_);
  failAt_ = n;
  points_ = 0;
  injected_ = false;
}

void Verifier::ExemptTags(std::vector<uint32_t> tags) {
  std::lock_guard<std::mutex> lock(mutex_);
  exemptTags_ = std::move(tags);
}

bool Verifier::ShouldFail(const char* call, uint32_t poolTag) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (poolTag != 0 && std::find(exemptTags_.begin(), exemptTags_.end(), poolTag) != exemptTags_.end()) return false;
  ++points_;
  if (failAt_ != 0 && points_ == failAt_) {
    injected_ = true;
    return true;
  }
  return false;
}

uint64_t Verifier::AllocationPoints() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return points_;
}

bool Verifier::InjectedFailure() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return injected_;
}

}  // namespace ntsim
