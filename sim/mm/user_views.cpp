#include "mm/user_views.h"

#include <sys/mman.h>

#include "kernel.h"

namespace ntsim {

MemoryManager::~MemoryManager() { ReleaseAll(); }

void MemoryManager::Unmap(const UserView& view) { munmap(reinterpret_cast<void*>(view.base), view.length); }

void* MemoryManager::MapView(_KPROCESS* process, int fd, size_t offset, size_t length, uintptr_t kernelStart,
                             PMDL mdl, MEMORY_CACHING_TYPE cacheType) {
  void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
  if (p == MAP_FAILED) return nullptr;
  UserView view;
  view.process = process;
  view.base = reinterpret_cast<uintptr_t>(p);
  view.length = length;
  view.kernelStart = kernelStart;
  view.mdl = mdl;
  view.cacheType = cacheType;
  std::lock_guard<std::mutex> lock(mutex_);
  views_[view.base] = view;
  return p;
}

bool MemoryManager::UnmapView(_KPROCESS* process, uintptr_t base, PMDL mdl, std::string* problem) {
  UserView view;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = views_.find(base);
    if (it == views_.end()) {
      *problem = "the address is not the start of a user view";
      return false;
    }
    if (it->second.process != process) {
      *problem = "the view belongs to process " + std::to_string(it->second.process->id) +
                 ", not to the current process " + std::to_string(process->id) +
                 " (attach to the process that the pages were mapped into)";
      return false;
    }
    if (it->second.mdl != mdl) {
      *problem = "the view was mapped from another MDL";
      return false;
    }
    view = it->second;
    views_.erase(it);
  }
  Unmap(view);
  return true;
}

std::vector<UserView> MemoryManager::ViewsOf(const _KPROCESS* process) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<UserView> out;
  for (auto& [base, view] : views_) {
    if (view.process == process) out.push_back(view);
  }
  return out;
}

std::vector<UserView> MemoryManager::ViewsMappedFrom(PMDL mdl) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<UserView> out;
  for (auto& [base, view] : views_) {
    if (view.mdl == mdl) out.push_back(view);
  }
  return out;
}

size_t MemoryManager::ViewCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return views_.size();
}

std::vector<UserView> MemoryManager::TakeViewsOf(const _KPROCESS* process) {
  std::vector<UserView> out;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = views_.begin(); it != views_.end();) {
      if (it->second.process == process) {
        out.push_back(it->second);
        it = views_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const UserView& view : out) Unmap(view);
  return out;
}

std::vector<UserView> MemoryManager::TakeViewsShowing(uintptr_t kernelStart, size_t length) {
  std::vector<UserView> out;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = views_.begin(); it != views_.end();) {
      const UserView& view = it->second;
      if (view.kernelStart < kernelStart + length && kernelStart < view.kernelStart + view.length) {
        out.push_back(view);
        it = views_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const UserView& view : out) Unmap(view);
  return out;
}

void MemoryManager::ReleaseAll() {
  std::map<uintptr_t, UserView> views;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    views.swap(views_);
  }
  for (auto& [base, view] : views) Unmap(view);
}

}  // namespace ntsim
