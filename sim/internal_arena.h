// Bookkeeping the simulator keeps on behalf of records that live in the driver's own memory
// (lookaside lists, executive resources). It belongs to the machine: when the machine goes away
// without the driver tearing its records down (a crash), it goes with it. What is still here when
// the driver unloads is a record the driver never deleted.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ntsim {

class InternalArena {
 public:
  template <typename T>
  T* New(const char* kind) {
    T* raw = new T();
    std::lock_guard<std::mutex> lock(mutex_);
    items_[raw] = Item{kind, std::shared_ptr<void>(raw, [](void* p) { delete static_cast<T*>(p); })};
    return raw;
  }
  void Delete(void* p) {
    std::shared_ptr<void> doomed;  // destroyed after the lock is dropped
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = items_.find(p);
    if (it == items_.end()) return;
    doomed = std::move(it->second.holder);
    items_.erase(it);
  }
  // How many records of each kind are still alive.
  std::map<std::string, size_t> Live() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::map<std::string, size_t> counts;
    for (auto& [p, item] : items_) ++counts[item.kind];
    return counts;
  }

 private:
  struct Item {
    std::string kind;
    std::shared_ptr<void> holder;
  };
  std::mutex mutex_;
  std::unordered_map<void*, Item> items_;
};

}  // namespace ntsim
