#include "ob/object_manager.h"

#include <cstdlib>
#include <new>

#include "kernel.h"

namespace ntsim {

namespace {

constexpr size_t kHeaderSpace = (sizeof(ObjectHeader) + 15) & ~size_t(15);

void DestroyDirectory(void* body) { static_cast<DirectoryBody*>(body)->~DirectoryBody(); }
void DestroySymbolicLink(void* body) { static_cast<SymbolicLinkBody*>(body)->~SymbolicLinkBody(); }

}  // namespace

void* ObjectHeader::Body() { return reinterpret_cast<char*>(this) + kHeaderSpace; }

// ---------------------------------------------------------------------------------------------
// Handle tables. Handles are multiples of 4; kernel handles carry the kernel bit pattern of a
// 64-bit system (0xFFFFFFFF8xxxxxxx), so that a kernel handle used from user mode is recognisable.

namespace {
constexpr uint64_t kKernelHandleBits = 0xFFFFFFFF80000000ull;
}

HANDLE HandleTable::Insert(ObjectHeader* object, ACCESS_MASK access, bool driverOwned) {
  std::lock_guard<std::mutex> lock(mutex_);
  uint64_t index = next_++;
  entries_[index] = HandleEntry{object, access, driverOwned};
  uint64_t value = index * 4;
  if (kernel_) value |= kKernelHandleBits;
  return reinterpret_cast<HANDLE>(value);
}

static bool HandleIndex(HANDLE handle, bool kernel, uint64_t* index) {
  uint64_t value = reinterpret_cast<uint64_t>(handle);
  bool isKernel = (value & kKernelHandleBits) == kKernelHandleBits;
  if (isKernel != kernel) return false;
  value &= ~kKernelHandleBits;
  if (value == 0 || (value & 3) != 0) return false;
  *index = value / 4;
  return true;
}

bool HandleTable::Lookup(HANDLE handle, HandleEntry* entry) {
  uint64_t index;
  if (!HandleIndex(handle, kernel_, &index)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(index);
  if (it == entries_.end()) return false;
  *entry = it->second;
  return true;
}

bool HandleTable::Remove(HANDLE handle, HandleEntry* entry) {
  uint64_t index;
  if (!HandleIndex(handle, kernel_, &index)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(index);
  if (it == entries_.end()) return false;
  *entry = it->second;
  entries_.erase(it);
  return true;
}

std::vector<std::pair<HANDLE, HandleEntry>> HandleTable::Entries() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::pair<HANDLE, HandleEntry>> out;
  for (auto& [index, entry] : entries_) {
    uint64_t value = index * 4;
    if (kernel_) value |= kKernelHandleBits;
    out.emplace_back(reinterpret_cast<HANDLE>(value), entry);
  }
  return out;
}

// ---------------------------------------------------------------------------------------------

ObjectManager::ObjectManager() {
  types.directory.name = u"Directory";
  types.directory.onDelete = DestroyDirectory;
  types.symbolicLink.name = u"SymbolicLink";
  types.symbolicLink.onDelete = DestroySymbolicLink;
  types.directory.destroyBody = DestroyDirectory;
  types.symbolicLink.destroyBody = DestroySymbolicLink;
  types.device.name = u"Device";
  types.driver.name = u"Driver";
  types.file.name = u"File";
  types.process.name = u"Process";
  types.thread.name = u"Thread";
  types.key.name = u"Key";
  types.token.name = u"Token";
  types.token.validAccessMask = 0x000F01FF;  // TOKEN_ALL_ACCESS
  for (_OBJECT_TYPE* type : {&types.directory, &types.symbolicLink, &types.device, &types.driver, &types.file,
                             &types.process, &types.thread, &types.key, &types.token}) {
    type->owner = this;
  }
  DirectoryBody* root = CreateObjectOf<DirectoryBody>(&types.directory);
  root_ = HeaderOf(root);
  root_->permanent = true;
}

ObjectManager::~ObjectManager() {
  // The machine goes away as a whole: free what is left without running any delete procedure
  // that could call into a driver that is gone.
  std::vector<ObjectHeader*> all;
  for (auto& [body, header] : live_) all.push_back(header);
  live_.clear();
  for (ObjectHeader* header : all) {
    if (header->type->destroyBody) header->type->destroyBody(header->Body());
    header->~ObjectHeader();
    std::free(header);
  }
}

void* ObjectManager::CreateObject(POBJECT_TYPE type, size_t bodySize) {
  void* memory = std::aligned_alloc(16, (kHeaderSpace + bodySize + 15) & ~size_t(15));
  if (!memory) std::abort();
  ObjectHeader* header = new (memory) ObjectHeader();
  header->type = type;
  header->bodySize = bodySize;
  void* body = header->Body();
  std::memset(body, 0, bodySize);
  std::lock_guard<std::mutex> lock(mutex_);
  live_[body] = header;
  return body;
}

ObjectHeader* ObjectManager::HeaderOf(const void* body) {
  if (!body) return nullptr;
  auto* header = reinterpret_cast<ObjectHeader*>(const_cast<char*>(static_cast<const char*>(body)) - kHeaderSpace);
  return header;
}

bool ObjectManager::IsObject(const void* body) {
  std::lock_guard<std::mutex> lock(mutex_);
  return live_.count(body) != 0;
}

void ObjectManager::Reference(void* body) { HeaderOf(body)->pointerCount.fetch_add(1); }

void ObjectManager::Dereference(void* body) {
  ObjectHeader* header = HeaderOf(body);
  long count = header->pointerCount.fetch_sub(1) - 1;
  if (count < 0) {
    K().verifier.Violation("ObfDereferenceObject", "reference count of " + ToUtf8(header->type->name) +
                                                       " object dropped below zero");
    return;
  }
  if (count > 0) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    live_.erase(body);
  }
  if (header->type->onDelete) header->type->onDelete(body);
  header->~ObjectHeader();
  std::free(header);
}

ObjectHeader* ObjectManager::DirectoryFor(const std::u16string& path, std::u16string* leaf, NTSTATUS* status) {
  size_t slash = path.find_last_of(u'\\');
  if (path.empty() || path[0] != u'\\' || slash == std::u16string::npos || slash + 1 >= path.size()) {
    *status = STATUS_OBJECT_NAME_INVALID;
    return nullptr;
  }
  *leaf = path.substr(slash + 1);
  std::u16string parent = slash == 0 ? u"\\" : path.substr(0, slash);
  ObjectHeader* dir = nullptr;
  std::u16string remaining;
  *status = Lookup(parent, false, &dir, &remaining);
  if (!NT_SUCCESS(*status)) {
    *status = STATUS_OBJECT_PATH_NOT_FOUND;
    return nullptr;
  }
  if (dir->type != &types.directory || !remaining.empty()) {
    Dereference(dir->Body());
    *status = STATUS_OBJECT_PATH_NOT_FOUND;
    return nullptr;
  }
  return dir;
}

NTSTATUS ObjectManager::Lookup(const std::u16string& path, bool openLink, ObjectHeader** object,
                               std::u16string* remaining) {
  if (path.empty() || path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
  std::u16string current = path;
  for (int reparse = 0; reparse < 32; ++reparse) {
    std::vector<std::u16string> parts = SplitPath(current);
    std::unique_lock<std::mutex> lock(mutex_);
    ObjectHeader* node = root_;
    size_t i = 0;
    bool restarted = false;
    for (; i < parts.size(); ++i) {
      if (node->type != &types.directory) break;
      auto* dir = static_cast<DirectoryBody*>(node->Body());
      auto it = dir->entries.find(Upcase(parts[i]));
      if (it == dir->entries.end()) {
        return i + 1 == parts.size() ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
      }
      ObjectHeader* next = it->second;
      bool last = i + 1 == parts.size();
      if (next->type == &types.symbolicLink && !(last && openLink)) {
        std::u16string rebuilt = static_cast<SymbolicLinkBody*>(next->Body())->target;
        for (size_t j = i + 1; j < parts.size(); ++j) rebuilt += u"\\" + parts[j];
        if (current.size() > 1 && current.back() == u'\\') rebuilt += u"\\";
        current = rebuilt;
        restarted = true;
        break;
      }
      node = next;
    }
    if (restarted) continue;
    std::u16string rest;
    for (size_t j = i; j < parts.size(); ++j) rest += u"\\" + parts[j];
    if (i < parts.size() && current.back() == u'\\') rest += u"\\";
    // A trailing backslash after a device name is part of the file name: "\Device\X\".
    if (i == parts.size() && node != root_ && current.back() == u'\\' && node->type != &types.directory) rest = u"\\";
    node->pointerCount.fetch_add(1);
    *object = node;
    if (remaining) *remaining = rest;
    return STATUS_SUCCESS;
  }
  return STATUS_OBJECT_PATH_NOT_FOUND;  // a loop of links
}

NTSTATUS ObjectManager::InsertName(void* body, const std::u16string& path, bool permanent) {
  NTSTATUS status;
  std::u16string leaf;
  ObjectHeader* dir = DirectoryFor(path, &leaf, &status);
  if (!dir) return status;
  ObjectHeader* header = HeaderOf(body);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto* entries = &static_cast<DirectoryBody*>(dir->Body())->entries;
    std::u16string key = Upcase(leaf);
    if (entries->count(key)) {
      status = STATUS_OBJECT_NAME_COLLISION;
    } else {
      (*entries)[key] = header;
      header->name = leaf;
      header->directory = dir;
      header->permanent = permanent;
      if (permanent) header->pointerCount.fetch_add(1);
      dir->pointerCount.fetch_add(1);  // a named object keeps its directory alive
      status = STATUS_SUCCESS;
    }
  }
  Dereference(dir->Body());
  return status;
}

void ObjectManager::RemoveName(void* body) {
  ObjectHeader* header = HeaderOf(body);
  ObjectHeader* dir = nullptr;
  bool permanent = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!header->directory) return;
    dir = header->directory;
    static_cast<DirectoryBody*>(dir->Body())->entries.erase(Upcase(header->name));
    header->directory = nullptr;
    permanent = header->permanent;
    header->permanent = false;
  }
  Dereference(dir->Body());
  if (permanent) Dereference(body);
}

NTSTATUS ObjectManager::CreateDirectory(const std::u16string& path) {
  DirectoryBody* dir = CreateObjectOf<DirectoryBody>(&types.directory);
  NTSTATUS status = InsertName(dir, path, true);
  Dereference(dir);
  return status;
}

NTSTATUS ObjectManager::CreateSymbolicLink(const std::u16string& path, const std::u16string& target, void** link) {
  SymbolicLinkBody* body = CreateObjectOf<SymbolicLinkBody>(&types.symbolicLink);
  body->target = target;
  NTSTATUS status = InsertName(body, path, true);
  if (NT_SUCCESS(status) && link) *link = body;
  Dereference(body);
  return status;
}

std::u16string ObjectManager::FullName(ObjectHeader* header) {
  std::lock_guard<std::mutex> lock(mutex_);
  return FullNameLocked(header);
}

std::u16string ObjectManager::FullNameLocked(ObjectHeader* header) {
  if (!header->directory) return std::u16string();
  std::u16string name;
  for (ObjectHeader* h = header; h && h != root_; h = h->directory) name = u"\\" + h->name + name;
  return name;
}

HANDLE ObjectManager::InsertHandle(void* body, ACCESS_MASK access, bool kernelHandle, bool driverOwned) {
  ObjectHeader* header = HeaderOf(body);
  header->pointerCount.fetch_add(1);
  header->handleCount.fetch_add(1);
  HandleTable& table = kernelHandle ? kernelHandles_ : CurrentProcess()->handles;
  return table.Insert(header, access, driverOwned);
}

NTSTATUS ObjectManager::ReferenceByHandle(HANDLE handle, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                                          ACCESS_MASK access, void** body, ACCESS_MASK* granted) {
  HandleEntry entry;
  bool found = (mode == KernelMode && kernelHandles_.Lookup(handle, &entry)) ||
               CurrentProcess()->handles.Lookup(handle, &entry);
  if (!found) return STATUS_INVALID_HANDLE;
  if (type && entry.object->type != type) return STATUS_OBJECT_TYPE_MISMATCH;
  if (mode == UserMode && (access & ~entry.access) != 0) return STATUS_ACCESS_DENIED;
  entry.object->pointerCount.fetch_add(1);
  *body = entry.object->Body();
  if (granted) *granted = entry.access;
  return STATUS_SUCCESS;
}

NTSTATUS ObjectManager::CloseHandle(HANDLE handle, KPROCESSOR_MODE mode) {
  HandleEntry entry;
  bool found = (mode == KernelMode && kernelHandles_.Remove(handle, &entry)) ||
               CurrentProcess()->handles.Remove(handle, &entry);
  if (!found) return STATUS_INVALID_HANDLE;
  ObjectHeader* header = entry.object;
  if (header->handleCount.fetch_sub(1) == 1 && header->type->onLastHandleClose) {
    header->type->onLastHandleClose(header->Body());
  }
  Dereference(header->Body());
  return STATUS_SUCCESS;
}

NTSTATUS ObjectManager::DuplicateHandle(HANDLE handle, HandleTable& target, HANDLE* duplicate) {
  HandleEntry entry;
  if (!CurrentProcess()->handles.Lookup(handle, &entry)) return STATUS_INVALID_HANDLE;
  entry.object->pointerCount.fetch_add(1);
  entry.object->handleCount.fetch_add(1);
  *duplicate = target.Insert(entry.object, entry.access, false);
  return STATUS_SUCCESS;
}

void ObjectManager::CloseAll(HandleTable& table) {
  for (auto& [handle, entry] : table.Entries()) {
    HandleEntry removed;
    if (!table.Remove(handle, &removed)) continue;
    if (removed.object->handleCount.fetch_sub(1) == 1 && removed.object->type->onLastHandleClose) {
      removed.object->type->onLastHandleClose(removed.object->Body());
    }
    Dereference(removed.object->Body());
  }
}

std::vector<ObjectManager::HeldReferences> ObjectManager::DriverHeldReferences() {
  // Under the lock: an object leaves the live set before it is freed, so none is freed meanwhile.
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<HeldReferences> out;
  for (auto& [body, header] : live_) {
    long held = header->driverReferences.load();
    if (held > 0) out.push_back({header->type->name, FullNameLocked(header), held});
  }
  return out;
}

size_t ObjectManager::LiveCount(POBJECT_TYPE type) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!type) return live_.size();
  size_t n = 0;
  for (auto& [body, header] : live_) n += header->type == type ? 1 : 0;
  return n;
}

}  // namespace ntsim
