// Memory that faults when read: the simulator marks ranges invalid (backed by inaccessible pages,
// so an unguarded read really crashes), and the guarded copy refuses them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

namespace ntsim {

class FaultMap {
 public:
  ~FaultMap();
  // Reserves inaccessible memory of at least the given size and returns its address.
  void* ReserveFaultingRange(size_t size);
  bool Faults(const void* address, size_t length);
  void ReleaseAll();

 private:
  std::mutex mutex_;
  std::map<uintptr_t, size_t> ranges_;  // start -> length
};

}  // namespace ntsim
