// The simulated object manager: object headers with pointer and handle counts, object types,
// the namespace of directories and symbolic links, and handle tables.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ntsim/ntsim.h"
#include "rtl/name_text.h"

namespace ntsim {
class ObjectManager;
}

struct _OBJECT_TYPE {
  std::u16string name;
  ntsim::ObjectManager* owner = nullptr;  // the object manager whose objects are of this type
  // Runs when the last pointer reference goes; the body is freed afterwards.
  void (*onDelete)(void* body) = nullptr;
  // Runs when the last handle goes (files send their cleanup request here).
  void (*onLastHandleClose)(void* body) = nullptr;
  // The name that ObQueryNameString reports, for types whose names are not namespace entries.
  bool (*queryName)(void* body, std::u16string* name) = nullptr;
  // Frees what a C++ body owns when the machine goes away as a whole (no driver is called then).
  void (*destroyBody)(void* body) = nullptr;
  ULONG validAccessMask = 0x001F01FF;
};

namespace ntsim {

// One access-allowed entry of a discretionary ACL, as applied to an object.
struct AceRecord {
  UCHAR type = 0;
  UCHAR flags = 0;
  ACCESS_MASK mask = 0;
  std::string sid;  // "S-1-5-18"
};
struct SecurityRecord {
  bool daclPresent = false;
  bool daclProtected = false;
  std::vector<AceRecord> dacl;
};

struct ObjectHeader {
  static constexpr uint32_t kMagic = 0x6A624F53;  // "SObj"
  uint32_t magic = kMagic;
  POBJECT_TYPE type = nullptr;
  std::atomic<long> pointerCount{1};
  std::atomic<long> handleCount{0};
  std::atomic<long> driverReferences{0};  // references the driver took and has not yet dropped
  std::u16string name;                    // name within its directory, empty if unnamed
  ObjectHeader* directory = nullptr;      // the directory that holds the name
  bool permanent = false;
  SecurityRecord security;
  size_t bodySize = 0;
  void* Body();
};

// Directory object body: names are compared case-insensitively.
struct DirectoryBody {
  std::map<std::u16string, ObjectHeader*> entries;  // key: upcased name
};
// Symbolic link object body.
struct SymbolicLinkBody {
  std::u16string target;
};

struct HandleEntry {
  ObjectHeader* object = nullptr;
  ACCESS_MASK access = 0;
  bool driverOwned = false;  // opened by the driver: reported if still open at unload
};

class HandleTable {
 public:
  explicit HandleTable(bool kernel) : kernel_(kernel) {}
  HANDLE Insert(ObjectHeader* object, ACCESS_MASK access, bool driverOwned);
  bool Lookup(HANDLE handle, HandleEntry* entry);
  bool Remove(HANDLE handle, HandleEntry* entry);
  std::vector<std::pair<HANDLE, HandleEntry>> Entries();

 private:
  std::mutex mutex_;
  bool kernel_;
  uint64_t next_ = 1;
  std::map<uint64_t, HandleEntry> entries_;
};

struct ObjectTypes {
  _OBJECT_TYPE directory, symbolicLink, device, driver, file, process, thread, key, token;
};

class ObjectManager {
 public:
  ObjectManager();
  ~ObjectManager();

  ObjectTypes types;

  // Creates an object with a zeroed raw body of the given size; the caller holds one reference.
  void* CreateObject(POBJECT_TYPE type, size_t bodySize);
  // Creates an object whose body is a C++ object (the type's onDelete must destroy it).
  template <typename T>
  T* CreateObjectOf(POBJECT_TYPE type) {
    void* body = CreateObject(type, sizeof(T));
    return new (body) T();
  }
  static ObjectHeader* HeaderOf(const void* body);   // null if body is no live object
  bool IsObject(const void* body);
  void Reference(void* body);
  void Dereference(void* body);

  // Namespace. Paths are absolute ("\Device\X"); symbolic links are followed, also in the
  // middle of a path. Lookup stops at the first object that is not a directory and returns the
  // rest of the path in remaining (for devices: the file name within them).
  NTSTATUS Lookup(const std::u16string& path, bool openLink, ObjectHeader** object, std::u16string* remaining);
  // Inserts a named object (it gets a reference from the namespace while permanent).
  NTSTATUS InsertName(void* body, const std::u16string& path, bool permanent);
  void RemoveName(void* body);  // drops the namespace reference if permanent
  NTSTATUS CreateDirectory(const std::u16string& path);
  NTSTATUS CreateSymbolicLink(const std::u16string& path, const std::u16string& target, void** link);
  std::u16string FullName(ObjectHeader* header);

  // Handles: a kernel handle goes to the system table, any other to the current process's.
  HANDLE InsertHandle(void* body, ACCESS_MASK access, bool kernelHandle, bool driverOwned);
  NTSTATUS ReferenceByHandle(HANDLE handle, POBJECT_TYPE type, KPROCESSOR_MODE mode, ACCESS_MASK access,
                             void** body, ACCESS_MASK* granted);
  NTSTATUS CloseHandle(HANDLE handle, KPROCESSOR_MODE mode);
  // DuplicateHandle with DUPLICATE_SAME_ACCESS: a handle of the current process's table, for the
  // same object, inserted into another table.
  NTSTATUS DuplicateHandle(HANDLE handle, HandleTable& target, HANDLE* duplicate);
  HandleTable& KernelHandles() { return kernelHandles_; }
  // Closes every handle of a table, as process exit does.
  void CloseAll(HandleTable& table);

  // How many objects are live (of one type, or of any); safe while others run, unlike walking
  // them would be: an object may go with its last reference on any thread at any time.
  size_t LiveCount(POBJECT_TYPE type = nullptr);
  // Objects the driver holds references to, for the unload verdict; safe while others run.
  struct HeldReferences {
    std::u16string type;
    std::u16string name;
    long count;
  };
  std::vector<HeldReferences> DriverHeldReferences();

 private:
  std::u16string FullNameLocked(ObjectHeader* header);
  ObjectHeader* DirectoryFor(const std::u16string& path, std::u16string* leaf, NTSTATUS* status);
  std::mutex mutex_;  // guards the namespace and the live-object set
  std::unordered_map<const void*, ObjectHeader*> live_;
  ObjectHeader* root_ = nullptr;
  HandleTable kernelHandles_{true};
};

}  // namespace ntsim
