#include "ps/process.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "ke/processors.h"
#include "kernel.h"

namespace ntsim {

__thread ThreadBinding t_binding;

namespace {

// Host threads by number: unlike std::thread::id, a number is never given to a later host thread,
// which must not inherit a dead host thread's simulated threads (and their IRQL or regions).
std::atomic<uint64_t> g_hostThreads{0};
thread_local const uint64_t t_hostThread = ++g_hostThreads;

void DestroyProcess(void* body) { static_cast<_KPROCESS*>(body)->~_KPROCESS(); }
void DestroyThread(void* body) { static_cast<_KTHREAD*>(body)->~_KTHREAD(); }

// The last reference went: a process lets go of its token, a thread of its process. (The kernel
// they belong to need not be the booted one: a test may have booted another since.)
void DeleteProcess(void* body) {
  ObjectManager* ob = ObjectManager::HeaderOf(body)->type->owner;
  void* token = static_cast<_KPROCESS*>(body)->token;
  DestroyProcess(body);
  if (token) ob->Dereference(token);
}
void DeleteThread(void* body) {
  ObjectManager* ob = ObjectManager::HeaderOf(body)->type->owner;
  _KPROCESS* process = static_cast<_KTHREAD*>(body)->process;
  DestroyThread(body);
  ob->Dereference(process);
}

template <typename T>
void Forget(std::vector<T*>& items, T* item) {
  items.erase(std::remove(items.begin(), items.end(), item), items.end());
}

// The system time as the kernel keeps it: 100 ns units since 1601-01-01.
LONGLONG SystemTimeNow() {
  constexpr LONGLONG kUnixEpoch = 116444736000000000LL;
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return kUnixEpoch + std::chrono::duration_cast<std::chrono::nanoseconds>(since).count() / 100;
}

}  // namespace

void ProcessManager::Boot(ObjectManager& ob) {
  ob_ = &ob;
  ob.types.process.onDelete = DeleteProcess;
  ob.types.thread.onDelete = DeleteThread;
  ob.types.process.destroyBody = DestroyProcess;
  ob.types.thread.destroyBody = DestroyThread;
  system_ = CreateProcess(4, u"System", 0);
  system_->isSystem = true;
}

void ProcessManager::Teardown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    retired_.clear();
    liveProcesses_.clear();
    creationOrder_.clear();
    liveThreads_.clear();
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

_KPROCESS* ProcessManager::CreateProcess(uint64_t id, const std::u16string& imagePath, uint64_t parentId,
                                         const std::u16string& commandLine,
                                         const std::function<void(_KPROCESS*)>& prepare) {
  _KPROCESS* process = ob_->CreateObjectOf<_KPROCESS>(&ob_->types.process);
  process->id = id ? id : NewId();
  size_t slash = imagePath.find_last_of(u'\\');
  process->imageName = slash == std::u16string::npos ? imagePath : imagePath.substr(slash + 1);
  process->imagePath = imagePath;
  process->commandLine = commandLine;
  process->parentId = parentId;
  process->createTime = SystemTimeNow();
  if (prepare) prepare(process);  // before any other thread can find it
  std::lock_guard<std::mutex> lock(mutex_);
  if (!liveProcesses_.emplace(process->id, process).second) {
    ob_->Dereference(process);
    return nullptr;
  }
  creationOrder_.push_back(process);
  if (process->id >= nextId_) nextId_ = (process->id + 4) & ~uint64_t(3);
  return process;
}

_KTHREAD* ProcessManager::CreateThread(_KPROCESS* process, bool announced, uint64_t win32StartAddress, uint64_t id) {
  if (id) {
    // Threads and processes share one id table.
    std::lock_guard<std::mutex> lock(mutex_);
    if (liveThreads_.count(id) || liveProcesses_.count(id)) return nullptr;
    if (id >= nextId_) nextId_ = (id + 4) & ~uint64_t(3);
  }
  _KTHREAD* thread = ob_->CreateObjectOf<_KTHREAD>(&ob_->types.thread);
  thread->id = id ? id : NewId();
  ob_->Reference(process);  // a thread object keeps its process object
  thread->process = process;
  thread->announced = announced;
  thread->win32StartAddress = win32StartAddress;  // set before the thread can be seen
  thread->createTime = SystemTimeNow();
  int processors = static_cast<int>(ProcessorCount());
  std::lock_guard<std::mutex> lock(mutex_);
  if (process->exiting) {
    std::fprintf(stderr, "ntsim: a thread is started in process %llu after its exit began\n",
                 static_cast<unsigned long long>(process->id));
    std::abort();
  }
  thread->processor = static_cast<ULONG>(nextProcessor_++ % static_cast<uint64_t>(processors));
  PROCESSOR_NUMBER number;
  KeGetProcessorNumberFromIndex(thread->processor, &number);
  thread->group = thread->userGroup = number.Group;
  thread->affinity = thread->userAffinity = GroupAffinityMask(number.Group);
  liveThreads_[thread->id] = thread;
  process->threads.push_back(thread);
  return thread;
}

void ProcessManager::OfferThread(_KPROCESS* process, _KTHREAD* thread) {
  std::lock_guard<std::mutex> lock(mutex_);
  process->spare = thread;
}

_KTHREAD* ProcessManager::ActingThread(_KPROCESS* process) {
  uint64_t self = t_hostThread;
  bool exiting;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = process->acting.find(self);
    if (it != process->acting.end()) return it->second;
    exiting = process->exiting;
    if (!exiting && process->spare) {
      _KTHREAD* thread = process->spare;
      process->spare = nullptr;
      process->acting[self] = thread;
      return thread;
    }
  }
  _KTHREAD* thread = exiting ? nullptr : CreateThread(process);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!thread || process->exiting) {
    std::fprintf(stderr, "ntsim: a host thread acts in process %llu after its exit began\n",
                 static_cast<unsigned long long>(process->id));
    std::abort();
  }
  process->acting[self] = thread;
  return thread;
}

_KPROCESS* ProcessManager::FindProcess(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = liveProcesses_.find(id);
  return it == liveProcesses_.end() ? nullptr : it->second;
}

_KTHREAD* ProcessManager::FindThread(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = liveThreads_.find(id);
  return it == liveThreads_.end() ? nullptr : it->second;
}

_KPROCESS* ProcessManager::ReferenceProcess(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = liveProcesses_.find(id);
  if (it == liveProcesses_.end()) return nullptr;
  ob_->Reference(it->second);
  return it->second;
}

_KTHREAD* ProcessManager::ReferenceThread(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = liveThreads_.find(id);
  if (it == liveThreads_.end()) return nullptr;
  ob_->Reference(it->second);
  return it->second;
}

ProcessManager::ThreadEnd ProcessManager::EndThread(_KTHREAD* thread) {
  std::lock_guard<std::mutex> lock(mutex_);
  ThreadEnd end;
  if (thread->exited) return end;
  thread->exited = true;
  end.ended = true;
  liveThreads_.erase(thread->id);
  _KPROCESS* process = thread->process;
  Forget(process->threads, thread);
  for (auto it = process->acting.begin(); it != process->acting.end();) {
    it = it->second == thread ? process->acting.erase(it) : std::next(it);
  }
  if (process->spare == thread) process->spare = nullptr;
  if (process->threads.empty() && !process->isSystem) {  // the System process never exits
    end.last = true;
    process->exiting = true;
    Forget(creationOrder_, process);
    // Its id still finds it until its exit has been notified (RemoveExitedProcess).
  }
  return end;
}

void ProcessManager::RemoveExitedProcess(_KPROCESS* process) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = liveProcesses_.find(process->id);
  if (it != liveProcesses_.end() && it->second == process) liveProcesses_.erase(it);
}

void ProcessManager::ReleaseExitedProcess(_KPROCESS* process) {
  if (process != system_) ob_->Dereference(process);
}

void ProcessManager::Retire(_KTHREAD* thread) {
  std::vector<_KTHREAD*> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (thread) retired_.push_back(thread);
    for (auto it = retired_.begin(); it != retired_.end();) {
      if ((*it)->scopes.load(std::memory_order_acquire) == 0) {
        released.push_back(*it);
        it = retired_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (_KTHREAD* done : released) ob_->Dereference(done);
}

bool ProcessManager::BeginExit(_KPROCESS* process, std::vector<_KTHREAD*>* threads) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (process->exiting) return false;
  process->exiting = true;
  *threads = process->threads;
  return true;
}

bool ProcessManager::AcquireExitSynchronization(_KPROCESS* process) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (process->exiting) return false;
  ++process->exitSynchronization;
  return true;
}

void ProcessManager::ReleaseExitSynchronization(_KPROCESS* process) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (process->exitSynchronization == 0) {
    std::fprintf(stderr, "ntsim: exit synchronization of process %llu released more often than acquired\n",
                 static_cast<unsigned long long>(process->id));
    std::abort();
  }
  if (--process->exitSynchronization == 0) exitSynchronizationReleased_.notify_all();
}

void ProcessManager::WaitForExitSynchronization(_KPROCESS* process) {
  std::unique_lock<std::mutex> lock(mutex_);
  exitSynchronizationReleased_.wait(lock, [process] { return process->exitSynchronization == 0; });
}

PFILE_OBJECT ProcessManager::ReferenceImageFile(_KPROCESS* process) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (process->imageFile) ob_->Reference(process->imageFile);
  return process->imageFile;
}

PFILE_OBJECT ProcessManager::TakeImageFile(_KPROCESS* process) {
  std::lock_guard<std::mutex> lock(mutex_);
  PFILE_OBJECT file = process->imageFile;
  process->imageFile = nullptr;
  return file;
}

std::vector<ProcessManager::ProcessFacts> ProcessManager::Snapshot() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<ProcessFacts> facts;
  facts.reserve(creationOrder_.size());
  for (_KPROCESS* process : creationOrder_) {
    ProcessFacts entry{process->id, process->parentId, process->sessionId, process->createTime, process->imageName, {}};
    for (_KTHREAD* thread : process->threads) {
      entry.threads.push_back(ThreadFacts{thread->id, thread->win32StartAddress, thread->createTime});
    }
    facts.push_back(std::move(entry));
  }
  return facts;
}

void ProcessManager::SetSnapshotHook(std::function<void()> hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  snapshotHook_ = std::move(hook);
}

std::function<void()> ProcessManager::SnapshotHook() {
  std::lock_guard<std::mutex> lock(mutex_);
  return snapshotHook_;
}

_KTHREAD* BindCurrentThread() {
  Kernel& kernel = K();
  if (t_binding.thread && t_binding.generation == kernel.generation) return t_binding.thread;
  // A host thread that was never bound acts as a system thread of its own.
  t_binding.thread = kernel.ps.ActingThread(kernel.ps.System());
  t_binding.generation = kernel.generation;
  return t_binding.thread;
}

_KPROCESS* CurrentProcess() {
  _KTHREAD* thread = CurrentThread();
  return thread->attachedProcess ? thread->attachedProcess : thread->process;
}

ThreadScope::ThreadScope(_KTHREAD* thread, KPROCESSOR_MODE previousMode)
    : thread_(thread), attachDepth_(thread->attachDepth) {
  thread->scopes.fetch_add(1, std::memory_order_acq_rel);
  saved_ = (t_binding.generation == K().generation) ? t_binding.thread : nullptr;
  savedMode_ = thread->previousMode;
  t_binding.thread = thread;
  t_binding.generation = K().generation;
  thread->previousMode = previousMode;
}

ThreadScope::~ThreadScope() {
  // Driver code that the scope ran must have undone every attach it made.
  if (thread_->attachDepth != attachDepth_) {
    K().verifier.Violation("KeStackAttachProcess", "thread " + std::to_string(thread_->id) +
                                                       " returned from driver code still attached to process " +
                                                       std::to_string(thread_->attachedProcess->id));
  }
  thread_->previousMode = savedMode_;
  t_binding.thread = saved_;
  thread_->scopes.fetch_sub(1, std::memory_order_acq_rel);
}

void ResetCurrentThreadBinding() { t_binding = ThreadBinding{}; }

}  // namespace ntsim
