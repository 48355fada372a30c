// The one wait queue behind every simulated dispatcher object: state changes notify all waiters,
// who then re-check their own condition. Simple, and enough for the kernel's wait semantics.
#pragma once

#include <condition_variable>
#include <mutex>

namespace ntsim {

std::mutex& DispatcherLock();
std::condition_variable& DispatcherWake();

}  // namespace ntsim
