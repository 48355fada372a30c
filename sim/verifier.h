// The verifier: checks the driver's use of kernel routines, in the spirit of Driver Verifier.
// Misuse (double free, tag mismatch, a request completed twice, ...) is a violation: by default it
// prints a report naming the call and stops the process, as a bug check would. What the driver
// leaves behind at unload (pool, references, handles, callbacks, devices, links) is a finding of
// the unload verdict. Fault injection makes the Nth allocation point fail.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace ntsim {

struct Finding {
  std::string call;  // the routine in which it was found ("ExFreePoolWithTag", "DriverUnload")
  std::string what;
};

class Verifier {
 public:
  // How a violation is handled: the default prints and aborts; tests of the verifier itself record.
  enum class ViolationPolicy { Abort, Record };

  void SetViolationPolicy(ViolationPolicy policy);
  void Violation(const std::string& call, const std::string& what);
  std::vector<Finding> Violations() const;
  void ClearViolations();

  // Fault injection over allocation points (pool allocations and the kernel routines that
  // allocate on the driver's behalf). FailNth(n) makes the n-th point from now fail, once;
  // FailNth(0) turns injection off. AllocationPoints() counts the points seen since FailNth.
  void FailNth(uint64_t n);
  // Pool allocations of these tags are no allocation points (empty: every allocation is one), for
  // tests of a whole start-up whose thousands of small allocations of one kind are failed in turn
  // by tests of their own. Kept until changed.
  void ExemptTags(std::vector<uint32_t> tags);
  bool ShouldFail(const char* call, uint32_t poolTag = 0);
  uint64_t AllocationPoints() const;
  bool InjectedFailure() const;  // whether the armed failure has been delivered

 private:
  mutable std::mutex mutex_;
  ViolationPolicy policy_ = ViolationPolicy::Abort;
  std::vector<Finding> violations_;
  std::vector<uint32_t> exemptTags_;
  uint64_t failAt_ = 0;
  uint64_t points_ = 0;
  bool injected_ = false;
};

}  // namespace ntsim
