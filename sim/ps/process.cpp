#include "ps/process.h"

#include "kernel.h"

namespace ntsim {

namespace {

struct Binding {
  uint64_t generation = 0;
  _KTHREAD* thread = nullptr;
};
thread_local Binding t_binding;

void DestroyProcess(void* body) { static_cast<_KPROCESS*>(body)->~_KPROCESS(); }
void DestroyThread(void* body) { static_cast<_KTHREAD*>(body)->~_KTHREAD(); }

}  // namespace

void ProcessManager::Boot(ObjectManager& ob) {
  ob_ = &ob;
  ob.types.process.onDelete = DestroyProcess;
  ob.types.thread.onDelete = DestroyThread;
  ob.types.process.destroyBody = DestroyProcess;
  ob.types.thread.destroyBody = DestroyThread;
  system_ = CreateProcess(4, u"System", 0);
  system_->isSystem = true;
}

void ProcessManager::Teardown() {
  std::vector<_KTHREAD*> threads;
  std::vector<_KPROCESS*> processes;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    threads.swap(threads_);
    processes.swap(processes_);
  }
  // The machine goes away: handles are not closed (no driver may run now); the object manager
  // frees what is left.
  system_ = nullptr;
}

uint64_t ProcessManager::NewId() {
  std::lock_guard<std::mutex> lock(mutex_);
  uint64_t id = nextId_;
  nextId_ += 4;
  return id;
}

_KPROCESS* ProcessManager::CreateProcess(uint64_t id, const std::u16string& imageName, uint64_t parentId) {
  _KPROCESS* process = ob_->CreateObjectOf<_KPROCESS>(&ob_->types.process);
  process->id = id ? id : NewId();
  process->imageName = imageName;
  process->parentId = parentId;
  std::lock_guard<std::mutex> lock(mutex_);
  processes_.push_back(process);
  if (process->id >= nextId_) nextId_ = (process->id + 4) & ~uint64_t(3);
  return process;
}

_KTHREAD* ProcessManager::CreateThread(_KPROCESS* process) {
  _KTHREAD* thread = ob_->CreateObjectOf<_KTHREAD>(&ob_->types.thread);
  thread->id = NewId();
  thread->process = process;
  std::lock_guard<std::mutex> lock(mutex_);
  threads_.push_back(thread);
  return thread;
}

_KPROCESS* ProcessManager::FindProcess(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (_KPROCESS* process : processes_) {
    if (process->id == id) return process;
  }
  return nullptr;
}

_KTHREAD* CurrentThread() {
  Kernel& kernel = K();
  if (t_binding.thread && t_binding.generation == kernel.generation) return t_binding.thread;
  // A host thread that was never bound acts as a system thread of its own.
  t_binding.thread = kernel.ps.CreateThread(kernel.ps.System());
  t_binding.generation = kernel.generation;
  return t_binding.thread;
}

_KPROCESS* CurrentProcess() { return CurrentThread()->process; }

ThreadScope::ThreadScope(_KTHREAD* thread, KPROCESSOR_MODE previousMode) : thread_(thread) {
  saved_ = (t_binding.generation == K().generation) ? t_binding.thread : nullptr;
  savedMode_ = thread->previousMode;
  t_binding.thread = thread;
  t_binding.generation = K().generation;
  thread->previousMode = previousMode;
}

ThreadScope::~ThreadScope() {
  thread_->previousMode = savedMode_;
  t_binding.thread = saved_;
}

void ResetCurrentThreadBinding() { t_binding = Binding(); }

}  // namespace ntsim
