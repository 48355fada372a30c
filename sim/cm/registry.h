// The simulated configuration manager: the key tree with values, key objects and handles, and
// registry callbacks. The key tree is the machine's hives: it survives reboots and crashes of the
// world, while key objects and callbacks belong to one boot.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ob/object_manager.h"

namespace ntsim {

struct RegistryValue {
  std::u16string name;
  ULONG type = REG_NONE;
  std::vector<uint8_t> data;
};

struct KeyNode {
  std::u16string name;
  KeyNode* parent = nullptr;
  std::map<std::u16string, std::unique_ptr<KeyNode>> subkeys;  // key: upcased name
  std::vector<RegistryValue> values;
  std::u16string linkTarget;  // a symbolic-link key ("CurrentControlSet") points here
  int64_t lastWriteTime = 0;  // system time (100 ns since 1601) of the key's creation or last value write
};

// Body of a key object.
struct KeyBody {
  KeyNode* node = nullptr;
};

class Registry {
 public:
  void Boot(ObjectManager& ob);
  void Teardown();
  // Hives are shared between boots of one world.
  void AdoptHives(std::shared_ptr<KeyNode> root);
  std::shared_ptr<KeyNode> Hives() { return root_; }

  // Paths are absolute ("\Registry\Machine\System\..."), case-insensitive; links are followed.
  KeyNode* Find(const std::u16string& path);
  KeyNode* CreatePath(const std::u16string& path);
  void MakeLink(const std::u16string& path, const std::u16string& target);
  std::u16string FullName(KeyNode* node);
  void SetValueDirect(KeyNode* node, const std::u16string& name, ULONG type, const void* data, size_t size);
  const RegistryValue* FindValue(KeyNode* node, const std::u16string& name);

  NTSTATUS OpenKey(const OBJECT_ATTRIBUTES* attributes, ACCESS_MASK access, bool create, bool driverCall,
                   HANDLE* handle, ULONG* disposition);
  NTSTATUS QueryValue(HANDLE handle, const UNICODE_STRING* name, KEY_VALUE_INFORMATION_CLASS infoClass, void* buffer,
                      ULONG length, ULONG* resultLength);
  NTSTATUS EnumerateKey(HANDLE handle, ULONG index, KEY_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                        ULONG* resultLength);
  // A value write as NtSetValueKey does it: pre-callbacks (which may veto it), the capture of the
  // caller's data (which may fault), the write, post-callbacks.
  NTSTATUS SetValue(HANDLE handle, const UNICODE_STRING* name, ULONG type, const void* data, ULONG size);

  NTSTATUS RegisterCallback(PEX_CALLBACK_FUNCTION function, PVOID context, LARGE_INTEGER* cookie);
  NTSTATUS UnregisterCallback(LARGE_INTEGER cookie);
  size_t CallbackCount();

 private:
  struct Callback {
    PEX_CALLBACK_FUNCTION function;
    PVOID context;
    int64_t cookie;
    std::shared_ptr<std::atomic<int>> inFlight;
    bool removed = false;
  };
  KeyNode* Walk(const std::u16string& path, bool create);
  NTSTATUS Notify(REG_NOTIFY_CLASS type, void* argument);

  ObjectManager* ob_ = nullptr;
  std::recursive_mutex mutex_;
  std::shared_ptr<KeyNode> root_;
  std::mutex callbackMutex_;
  std::vector<std::shared_ptr<Callback>> callbacks_;
  int64_t nextCookie_ = 0x1000;
};

}  // namespace ntsim
