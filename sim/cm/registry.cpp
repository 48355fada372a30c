#include "cm/registry.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "kernel.h"

namespace ntsim {

namespace {

void DestroyKey(void* body) { static_cast<KeyBody*>(body)->~KeyBody(); }

bool QueryKeyName(void* body, std::u16string* name) {
  *name = K().cm.FullName(static_cast<KeyBody*>(body)->node);
  return true;
}

template <typename T>
void Put(std::vector<uint8_t>& out, size_t offset, T value) {
  std::memcpy(out.data() + offset, &value, sizeof value);
}

// Now as system time: 100-ns intervals since the start of 1601.
int64_t SystemTimeNow() {
  constexpr int64_t kUnixEpochAsSystemTime = 116444736000000000LL;
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return kUnixEpochAsSystemTime + std::chrono::duration_cast<std::chrono::nanoseconds>(since).count() / 100;
}

}  // namespace

void Registry::Boot(ObjectManager& ob) {
  ob_ = &ob;
  ob.types.key.onDelete = DestroyKey;
  ob.types.key.destroyBody = DestroyKey;
  ob.types.key.queryName = QueryKeyName;
  if (!root_) {
    root_ = std::make_shared<KeyNode>();
    root_->name = u"REGISTRY";
  }
}

void Registry::Teardown() {
  std::lock_guard<std::mutex> lock(callbackMutex_);
  callbacks_.clear();
}

void Registry::AdoptHives(std::shared_ptr<KeyNode> root) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  root_ = std::move(root);
}

KeyNode* Registry::Walk(const std::u16string& path, bool create) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::vector<std::u16string> parts = SplitPath(path);
  for (int reparse = 0; reparse < 16; ++reparse) {
    if (parts.empty() || Upcase(parts[0]) != u"REGISTRY") return nullptr;
    KeyNode* node = root_.get();
    bool restarted = false;
    for (size_t i = 1; i < parts.size(); ++i) {
      auto it = node->subkeys.find(Upcase(parts[i]));
      if (it == node->subkeys.end()) {
        if (!create) return nullptr;
        auto child = std::make_unique<KeyNode>();
        child->name = parts[i];
        child->parent = node;
        child->lastWriteTime = SystemTimeNow();
        it = node->subkeys.emplace(Upcase(parts[i]), std::move(child)).first;
      }
      node = it->second.get();
      if (!node->linkTarget.empty()) {
        std::vector<std::u16string> rebuilt = SplitPath(node->linkTarget);
        rebuilt.insert(rebuilt.end(), parts.begin() + i + 1, parts.end());
        parts = rebuilt;
        restarted = true;
        break;
      }
    }
    if (!restarted) return node;
  }
  return nullptr;
}

KeyNode* Registry::Find(const std::u16string& path) { return Walk(path, false); }
KeyNode* Registry::CreatePath(const std::u16string& path) { return Walk(path, true); }

void Registry::MakeLink(const std::u16string& path, const std::u16string& target) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  size_t slash = path.find_last_of(u'\\');
  KeyNode* parent = CreatePath(path.substr(0, slash));
  std::u16string leaf = path.substr(slash + 1);
  auto& slot = parent->subkeys[Upcase(leaf)];
  if (!slot) {
    slot = std::make_unique<KeyNode>();
    slot->name = leaf;
    slot->parent = parent;
    slot->lastWriteTime = SystemTimeNow();
  }
  slot->linkTarget = target;
}

std::u16string Registry::FullName(KeyNode* node) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::u16string name;
  for (KeyNode* n = node; n; n = n->parent) name = u"\\" + n->name + name;
  return name;
}

void Registry::SetValueDirect(KeyNode* node, const std::u16string& name, ULONG type, const void* data, size_t size) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  const auto* bytes = static_cast<const uint8_t*>(data);
  node->lastWriteTime = SystemTimeNow();
  for (auto& value : node->values) {
    if (Upcase(value.name) == Upcase(name)) {
      value.type = type;
      value.data.assign(bytes, bytes + size);
      return;
    }
  }
  node->values.push_back(RegistryValue{name, type, std::vector<uint8_t>(bytes, bytes + size)});
}

const RegistryValue* Registry::FindValue(KeyNode* node, const std::u16string& name) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  for (auto& value : node->values) {
    if (Upcase(value.name) == Upcase(name)) return &value;
  }
  return nullptr;
}

NTSTATUS Registry::OpenKey(const OBJECT_ATTRIBUTES* attributes, ACCESS_MASK access, bool create, bool driverCall,
                           HANDLE* handle, ULONG* disposition) {
  if (!attributes || !attributes->ObjectName) return STATUS_INVALID_PARAMETER;
  std::u16string path = ToU16(attributes->ObjectName);
  if (attributes->RootDirectory) {
    void* body = nullptr;
    NTSTATUS status = ob_->ReferenceByHandle(attributes->RootDirectory, &ob_->types.key, KernelMode, 0, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    if (!path.empty() && path[0] == u'\\') {
      ob_->Dereference(body);
      return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    path = FullName(static_cast<KeyBody*>(body)->node) + (path.empty() ? u"" : u"\\" + path);
    ob_->Dereference(body);
  } else if (path.empty() || path[0] != u'\\') {
    return STATUS_OBJECT_PATH_SYNTAX_BAD;
  }
  if (driverCall && K().verifier.ShouldFail(create ? "ZwCreateKey" : "ZwOpenKey")) return STATUS_INSUFFICIENT_RESOURCES;
  KeyNode* node = Find(path);
  if (disposition) *disposition = REG_OPENED_EXISTING_KEY;
  if (!node) {
    if (!create) return STATUS_OBJECT_NAME_NOT_FOUND;
    size_t slash = path.find_last_of(u'\\');
    if (slash == 0 || !Find(path.substr(0, slash))) return STATUS_OBJECT_NAME_NOT_FOUND;
    node = CreatePath(path);
    if (disposition) *disposition = REG_CREATED_NEW_KEY;
  }
  KeyBody* key = ob_->CreateObjectOf<KeyBody>(&ob_->types.key);
  key->node = node;
  *handle = ob_->InsertHandle(key, access, (attributes->Attributes & OBJ_KERNEL_HANDLE) != 0, driverCall);
  ob_->Dereference(key);
  return STATUS_SUCCESS;
}

NTSTATUS Registry::QueryValue(HANDLE handle, const UNICODE_STRING* name, KEY_VALUE_INFORMATION_CLASS infoClass,
                              void* buffer, ULONG length, ULONG* resultLength) {
  void* body = nullptr;
  NTSTATUS status = ob_->ReferenceByHandle(handle, &ob_->types.key, ExGetPreviousMode(), KEY_QUERY_VALUE, &body, nullptr);
  if (!NT_SUCCESS(status)) return status;
  KeyNode* node = static_cast<KeyBody*>(body)->node;
  std::vector<uint8_t> record;
  size_t fixed = 0;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    const RegistryValue* value = FindValue(node, ToU16(name));
    if (!value) {
      ob_->Dereference(body);
      return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    ULONG nameBytes = static_cast<ULONG>(value->name.size() * sizeof(WCHAR));
    ULONG dataBytes = static_cast<ULONG>(value->data.size());
    switch (infoClass) {
      case KeyValueBasicInformation:
        fixed = offsetof(KEY_VALUE_BASIC_INFORMATION, Name);
        record.resize(fixed + nameBytes);
        Put<ULONG>(record, 0, 0);
        Put<ULONG>(record, 4, value->type);
        Put<ULONG>(record, 8, nameBytes);
        std::memcpy(record.data() + fixed, value->name.data(), nameBytes);
        break;
      case KeyValueFullInformation: {
        fixed = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
        ULONG dataOffset = static_cast<ULONG>((fixed + nameBytes + 7) & ~size_t(7));
        record.resize(dataOffset + dataBytes);
        Put<ULONG>(record, 0, 0);
        Put<ULONG>(record, 4, value->type);
        Put<ULONG>(record, 8, dataOffset);
        Put<ULONG>(record, 12, dataBytes);
        Put<ULONG>(record, 16, nameBytes);
        std::memcpy(record.data() + fixed, value->name.data(), nameBytes);
        if (dataBytes) std::memcpy(record.data() + dataOffset, value->data.data(), dataBytes);
        break;
      }
      case KeyValuePartialInformation:
        fixed = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
        record.resize(fixed + dataBytes);
        Put<ULONG>(record, 0, 0);
        Put<ULONG>(record, 4, value->type);
        Put<ULONG>(record, 8, dataBytes);
        if (dataBytes) std::memcpy(record.data() + fixed, value->data.data(), dataBytes);
        break;
      default:
        ob_->Dereference(body);
        return STATUS_INVALID_PARAMETER;
    }
  }
  ob_->Dereference(body);
  *resultLength = static_cast<ULONG>(record.size());
  if (length < fixed) return STATUS_BUFFER_TOO_SMALL;
  if (length < record.size()) {
    std::memcpy(buffer, record.data(), fixed);  // the fixed part only
    return STATUS_BUFFER_OVERFLOW;
  }
  std::memcpy(buffer, record.data(), record.size());
  return STATUS_SUCCESS;
}

NTSTATUS Registry::EnumerateKey(HANDLE handle, ULONG index, KEY_INFORMATION_CLASS infoClass, void* buffer,
                                ULONG length, ULONG* resultLength) {
  void* body = nullptr;
  NTSTATUS status =
      ob_->ReferenceByHandle(handle, &ob_->types.key, ExGetPreviousMode(), KEY_ENUMERATE_SUB_KEYS, &body, nullptr);
  if (!NT_SUCCESS(status)) return status;
  KeyNode* parent = static_cast<KeyBody*>(body)->node;
  std::vector<uint8_t> record;
  size_t fixed = 0;
  status = STATUS_SUCCESS;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (infoClass != KeyBasicInformation && infoClass != KeyNodeInformation && infoClass != KeyFullInformation) {
      status = STATUS_INVALID_PARAMETER;
    } else if (index >= parent->subkeys.size()) {
      status = STATUS_NO_MORE_ENTRIES;
    } else {
      // Subkeys are kept by upcased name: the order in which the hive lists them.
      auto it = parent->subkeys.begin();
      std::advance(it, index);
      const KeyNode& key = *it->second;
      ULONG nameBytes = static_cast<ULONG>(key.name.size() * sizeof(WCHAR));
      switch (infoClass) {
        case KeyBasicInformation:
          fixed = offsetof(KEY_BASIC_INFORMATION, Name);
          record.resize(fixed + nameBytes);
          Put<int64_t>(record, 0, key.lastWriteTime);
          Put<ULONG>(record, 8, 0);
          Put<ULONG>(record, 12, nameBytes);
          std::memcpy(record.data() + fixed, key.name.data(), nameBytes);
          break;
        case KeyNodeInformation:
          // Our keys have no class: an empty class string right behind the name.
          fixed = offsetof(KEY_NODE_INFORMATION, Name);
          record.resize(fixed + nameBytes);
          Put<int64_t>(record, 0, key.lastWriteTime);
          Put<ULONG>(record, 8, 0);
          Put<ULONG>(record, 12, static_cast<ULONG>(fixed + nameBytes));
          Put<ULONG>(record, 16, 0);
          Put<ULONG>(record, 20, nameBytes);
          std::memcpy(record.data() + fixed, key.name.data(), nameBytes);
          break;
        default: {
          ULONG maxName = 0, maxValueName = 0, maxValueData = 0;
          for (const auto& [upcased, sub] : key.subkeys) {
            maxName = std::max<ULONG>(maxName, static_cast<ULONG>(sub->name.size() * sizeof(WCHAR)));
          }
          for (const RegistryValue& value : key.values) {
            maxValueName = std::max<ULONG>(maxValueName, static_cast<ULONG>(value.name.size() * sizeof(WCHAR)));
            maxValueData = std::max<ULONG>(maxValueData, static_cast<ULONG>(value.data.size()));
          }
          fixed = offsetof(KEY_FULL_INFORMATION, Class);
          record.resize(fixed);
          Put<int64_t>(record, 0, key.lastWriteTime);
          Put<ULONG>(record, 8, 0);
          Put<ULONG>(record, 12, static_cast<ULONG>(fixed));
          Put<ULONG>(record, 16, 0);
          Put<ULONG>(record, 20, static_cast<ULONG>(key.subkeys.size()));
          Put<ULONG>(record, 24, maxName);
          Put<ULONG>(record, 28, 0);
          Put<ULONG>(record, 32, static_cast<ULONG>(key.values.size()));
          Put<ULONG>(record, 36, maxValueName);
          Put<ULONG>(record, 40, maxValueData);
          break;
        }
      }
    }
  }
  ob_->Dereference(body);
  if (status != STATUS_SUCCESS) return status;
  *resultLength = static_cast<ULONG>(record.size());
  if (length < fixed) return STATUS_BUFFER_TOO_SMALL;
  if (length < record.size()) {
    std::memcpy(buffer, record.data(), fixed);  // the fixed part only
    return STATUS_BUFFER_OVERFLOW;
  }
  std::memcpy(buffer, record.data(), record.size());
  return STATUS_SUCCESS;
}

NTSTATUS Registry::Notify(REG_NOTIFY_CLASS type, void* argument) {
  std::vector<std::shared_ptr<Callback>> callbacks;
  {
    std::lock_guard<std::mutex> lock(callbackMutex_);
    for (auto& callback : callbacks_) {
      callback->inFlight->fetch_add(1);
      callbacks.push_back(callback);
    }
  }
  NTSTATUS result = STATUS_SUCCESS;
  for (auto& callback : callbacks) {
    if (NT_SUCCESS(result) && !callback->removed) {
      NTSTATUS status = callback->function(callback->context, reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(type)),
                                           argument);
      if (!NT_SUCCESS(status)) result = status;
    }
    callback->inFlight->fetch_sub(1);
  }
  return result;
}

NTSTATUS Registry::SetValue(HANDLE handle, const UNICODE_STRING* name, ULONG type, const void* data, ULONG size) {
  void* body = nullptr;
  NTSTATUS status = ob_->ReferenceByHandle(handle, &ob_->types.key, ExGetPreviousMode(), KEY_SET_VALUE, &body, nullptr);
  if (!NT_SUCCESS(status)) return status;
  UNICODE_STRING capturedName = *name;
  REG_SET_VALUE_KEY_INFORMATION info = {};
  info.Object = body;
  info.ValueName = &capturedName;
  info.Type = type;
  info.Data = const_cast<void*>(data);  // the caller's buffer, as the kernel hands it to callbacks
  info.DataSize = size;
  status = Notify(RegNtPreSetValueKey, &info);
  if (NT_SUCCESS(status)) {
    if (K().faults.Faults(data, size)) {
      status = STATUS_ACCESS_VIOLATION;
    } else {
      SetValueDirect(static_cast<KeyBody*>(body)->node, ToU16(name), type, data, size);
    }
    REG_POST_OPERATION_INFORMATION post = {};
    post.Object = body;
    post.Status = status;
    post.PreInformation = &info;
    Notify(RegNtPostSetValueKey, &post);
  }
  ob_->Dereference(body);
  return status;
}

NTSTATUS Registry::RegisterCallback(PEX_CALLBACK_FUNCTION function, PVOID context, LARGE_INTEGER* cookie) {
  if (K().verifier.ShouldFail("CmRegisterCallback")) return STATUS_INSUFFICIENT_RESOURCES;
  auto callback = std::make_shared<Callback>();
  callback->function = function;
  callback->context = context;
  callback->inFlight = std::make_shared<std::atomic<int>>(0);
  std::lock_guard<std::mutex> lock(callbackMutex_);
  callback->cookie = nextCookie_++;
  cookie->QuadPart = callback->cookie;
  callbacks_.push_back(callback);
  return STATUS_SUCCESS;
}

NTSTATUS Registry::UnregisterCallback(LARGE_INTEGER cookie) {
  std::shared_ptr<Callback> found;
  {
    std::lock_guard<std::mutex> lock(callbackMutex_);
    for (auto it = callbacks_.begin(); it != callbacks_.end(); ++it) {
      if ((*it)->cookie == cookie.QuadPart) {
        found = *it;
        callbacks_.erase(it);
        break;
      }
    }
  }
  if (!found) return STATUS_INVALID_PARAMETER;
  found->removed = true;
  // The routine returns only when no call of the callback is in progress.
  while (found->inFlight->load() != 0) std::this_thread::yield();
  return STATUS_SUCCESS;
}

size_t Registry::CallbackCount() {
  std::lock_guard<std::mutex> lock(callbackMutex_);
  return callbacks_.size();
}

}  // namespace ntsim

using namespace ntsim;

NTSTATUS NTAPI CmRegisterCallback(PEX_CALLBACK_FUNCTION Function, PVOID Context, PLARGE_INTEGER Cookie) {
  return K().cm.RegisterCallback(Function, Context, Cookie);
}

NTSTATUS NTAPI CmUnRegisterCallback(LARGE_INTEGER Cookie) { return K().cm.UnregisterCallback(Cookie); }

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
  return K().cm.OpenKey(ObjectAttributes, DesiredAccess, false, true, KeyHandle, nullptr);
}

NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                           ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition) {
  return K().cm.OpenKey(ObjectAttributes, DesiredAccess, true, true, KeyHandle, Disposition);
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                               ULONG Length, PULONG ResultLength) {
  ThreadScope kernelCall(CurrentThread(), KernelMode);  // a Zw routine runs with previous mode kernel
  return K().cm.QueryValue(KeyHandle, ValueName, KeyValueInformationClass, KeyValueInformation, Length, ResultLength);
}

NTSTATUS NTAPI ZwEnumerateKey(HANDLE KeyHandle, ULONG Index, KEY_INFORMATION_CLASS KeyInformationClass,
                              PVOID KeyInformation, ULONG Length, PULONG ResultLength) {
  ThreadScope kernelCall(CurrentThread(), KernelMode);
  return K().cm.EnumerateKey(KeyHandle, Index, KeyInformationClass, KeyInformation, Length, ResultLength);
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                             ULONG DataSize) {
  ThreadScope kernelCall(CurrentThread(), KernelMode);
  return K().cm.SetValue(KeyHandle, ValueName, Type, Data, DataSize);
}
