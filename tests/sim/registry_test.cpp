// The simulated configuration manager as a driver observes it: opening keys by absolute and
// relative names, ZwQueryValueKey's three information classes and its buffer-size protocol, the
// loaded user hives as ZwEnumerateKey lists them, the
// CurrentControlSet link, registry callbacks around value writes (including writes they veto and
// writes whose data faults), and hives that outlive a crash and a reboot.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ntsim/ntsim.h"
#include "world.h"
#include "sim_test_support.h"

using ntsim::UserProcess;
using ntsim::World;

namespace {

using sim_test::Eventually;
using sim_test::HostThread;
using sim_test::RecordViolations;
using sim_test::ViolationCalls;

using namespace std::chrono_literals;

const std::u16string kTestKey = u"\\REGISTRY\\MACHINE\\SOFTWARE\\SimTest";
const char* const kServiceKeyName = "\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\Sentrel";


UNICODE_STRING Counted(const std::u16string& text) {
  UNICODE_STRING s;
  s.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  s.MaximumLength = s.Length;
  s.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(text.data()));
  return s;
}

std::string Utf8(const UNICODE_STRING& s) {
  return ntsim::ToUtf8(std::u16string(reinterpret_cast<const char16_t*>(s.Buffer), s.Length / sizeof(WCHAR)));
}

std::string Utf8(const WCHAR* text, ULONG bytes) {
  return ntsim::ToUtf8(std::u16string(reinterpret_cast<const char16_t*>(text), bytes / sizeof(WCHAR)));
}

NTSTATUS OpenKey(const std::u16string& path, HANDLE* key, HANDLE root = nullptr) {
  UNICODE_STRING name = Counted(path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
  return ZwOpenKey(key, KEY_READ, &attributes);
}

NTSTATUS CreateKey(const std::u16string& path, HANDLE* key, ULONG* disposition = nullptr) {
  UNICODE_STRING name = Counted(path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
  return ZwCreateKey(key, KEY_ALL_ACCESS, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, disposition);
}

NTSTATUS SetValue(HANDLE key, const std::u16string& name, ULONG type, const void* data, ULONG size) {
  UNICODE_STRING valueName = Counted(name);
  return ZwSetValueKey(key, &valueName, 0, type, const_cast<void*>(data), size);
}

// ObQueryNameString of any object, or "<status>".
std::string QueryName(PVOID object) {
  ULONG needed = 0;
  ObQueryNameString(object, nullptr, 0, &needed);
  std::vector<ULONG_PTR> buffer(needed / sizeof(ULONG_PTR) + 1);
  auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer.data());
  NTSTATUS status = ObQueryNameString(object, info, needed, &needed);
  if (!NT_SUCCESS(status)) return "<" + std::to_string(status) + ">";
  return Utf8(info->Name);
}

std::string KeyName(HANDLE key) {
  PVOID object = nullptr;
  NTSTATUS status = ObReferenceObjectByHandle(key, 0, *CmKeyObjectType, KernelMode, &object, nullptr);
  if (!NT_SUCCESS(status)) return "<" + std::to_string(status) + ">";
  std::string name = QueryName(object);
  ObDereferenceObject(object);
  return name;
}

// A value's data as ZwQueryValueKey returns it, or "<status>".
std::string ValueData(HANDLE key, const std::u16string& name) {
  UNICODE_STRING valueName = Counted(name);
  ULONG needed = 0;
  NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, nullptr, 0, &needed);
  if (status != STATUS_BUFFER_TOO_SMALL) return "<" + std::to_string(status) + ">";
  std::vector<ULONG> buffer(needed / sizeof(ULONG) + 1);
  auto* info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer.data());
  status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, info, needed, &needed);
  if (!NT_SUCCESS(status)) return "<" + std::to_string(status) + ">";
  return std::string(reinterpret_cast<char*>(info->Data), info->DataLength);
}

ULONG DwordValue(HANDLE key, const std::u16string& name) {
  std::string data = ValueData(key, name);
  ULONG value = 0xFFFFFFFF;
  if (data.size() == sizeof value) std::memcpy(&value, data.data(), sizeof value);
  return value;
}

// ---------------------------------------------------------------------------------------------
// Keys

TEST(RegistryKeyTest, KeysOpenByAbsoluteOrRelativeNameInAnyCase) {
  World world;
  HANDLE service = nullptr;
  ASSERT_EQ(OpenKey(u"\\Registry\\Machine\\system\\CONTROLSET001\\services\\sentrel", &service), STATUS_SUCCESS);
  EXPECT_EQ(KeyName(service), kServiceKeyName) << "the key keeps the spelling it was created with";
  EXPECT_EQ(reinterpret_cast<uint64_t>(service) & 0xFFFFFFFF80000000ull, 0xFFFFFFFF80000000ull);

  HANDLE system = nullptr, relative = nullptr, missing = nullptr;
  ASSERT_EQ(OpenKey(u"\\REGISTRY\\MACHINE\\SYSTEM", &system), STATUS_SUCCESS);
  ASSERT_EQ(OpenKey(u"controlset001\\Services\\SENTREL", &relative, system), STATUS_SUCCESS);
  EXPECT_EQ(KeyName(relative), kServiceKeyName);
  EXPECT_EQ(OpenKey(u"ControlSet001\\Services\\Missing", &missing, system), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(OpenKey(u"\\REGISTRY\\MACHINE\\SOFTWARE\\Missing", &missing), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(OpenKey(u"\\REGISTRY\\MACHINE\\Missing\\Deeper", &missing), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(missing, nullptr);

  // The root must be a key handle that is still open.
  EXPECT_EQ(ZwClose(system), STATUS_SUCCESS);
  EXPECT_EQ(OpenKey(u"ControlSet001", &missing, system), STATUS_INVALID_HANDLE);
  EXPECT_EQ(ZwClose(service), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(relative), STATUS_SUCCESS);
}

TEST(RegistryKeyTest, CreateKeyCreatesOnlyUnderAnExistingParent) {
  World world;
  HANDLE key = nullptr, again = nullptr, orphan = nullptr;
  ULONG disposition = 0;
  ASSERT_EQ(CreateKey(kTestKey, &key, &disposition), STATUS_SUCCESS);
  EXPECT_EQ(disposition, static_cast<ULONG>(REG_CREATED_NEW_KEY));
  ASSERT_EQ(CreateKey(u"\\REGISTRY\\MACHINE\\SOFTWARE\\simtest", &again, &disposition), STATUS_SUCCESS);
  EXPECT_EQ(disposition, static_cast<ULONG>(REG_OPENED_EXISTING_KEY));
  EXPECT_EQ(CreateKey(kTestKey + u"\\Missing\\Child", &orphan, &disposition), STATUS_OBJECT_NAME_NOT_FOUND);

  ULONG value = 0x1234;
  ASSERT_EQ(SetValue(key, u"Number", REG_DWORD, &value, sizeof value), STATUS_SUCCESS);
  EXPECT_EQ(DwordValue(again, u"NUMBER"), 0x1234u) << "both handles name one key; value names ignore case";
  ZwClose(key);
  ZwClose(again);
}

// ---------------------------------------------------------------------------------------------
// ZwQueryValueKey

class QueryValueTest : public testing::Test {
 protected:
  void SetUp() override {
    world_.SetRegistryValueDirect(kTestKey, u"Greeting", REG_SZ, u"hello", sizeof(u"hello"));
    ASSERT_EQ(OpenKey(kTestKey, &key_), STATUS_SUCCESS);
  }
  void TearDown() override { ZwClose(key_); }

  NTSTATUS Query(const std::u16string& name, KEY_VALUE_INFORMATION_CLASS infoClass, ULONG length,
                 ULONG* resultLength) {
    std::fill(buffer_.begin(), buffer_.end(), 0xAB);
    UNICODE_STRING valueName = Counted(name);
    return ZwQueryValueKey(key_, &valueName, infoClass, buffer_.data(), length, resultLength);
  }
  template <typename T>
  const T* Info() const {
    return reinterpret_cast<const T*>(buffer_.data());
  }
  bool Untouched() const {
    return std::all_of(buffer_.begin(), buffer_.end(), [](uint8_t b) { return b == 0xAB; });
  }

  World world_;
  HANDLE key_ = nullptr;
  std::vector<uint8_t> buffer_ = std::vector<uint8_t>(256);
};

TEST_F(QueryValueTest, EachInformationClassDescribesTheValue) {
  const ULONG nameBytes = 8 * sizeof(WCHAR);  // "Greeting"
  const ULONG dataBytes = sizeof(u"hello");
  ULONG result = 0;

  ASSERT_EQ(Query(u"greeting", KeyValuePartialInformation, 256, &result), STATUS_SUCCESS);
  auto* partial = Info<KEY_VALUE_PARTIAL_INFORMATION>();
  EXPECT_EQ(result, offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data) + dataBytes);
  EXPECT_EQ(partial->TitleIndex, 0u);
  EXPECT_EQ(partial->Type, static_cast<ULONG>(REG_SZ));
  EXPECT_EQ(partial->DataLength, dataBytes);
  EXPECT_EQ(Utf8(reinterpret_cast<const WCHAR*>(partial->Data), dataBytes - sizeof(WCHAR)), "hello");

  ASSERT_EQ(Query(u"GREETING", KeyValueBasicInformation, 256, &result), STATUS_SUCCESS);
  auto* basic = Info<KEY_VALUE_BASIC_INFORMATION>();
  EXPECT_EQ(result, offsetof(KEY_VALUE_BASIC_INFORMATION, Name) + nameBytes);
  EXPECT_EQ(basic->Type, static_cast<ULONG>(REG_SZ));
  EXPECT_EQ(basic->NameLength, nameBytes);
  EXPECT_EQ(Utf8(basic->Name, basic->NameLength), "Greeting") << "the stored spelling, not the query's";

  ASSERT_EQ(Query(u"Greeting", KeyValueFullInformation, 256, &result), STATUS_SUCCESS);
  auto* full = Info<KEY_VALUE_FULL_INFORMATION>();
  EXPECT_EQ(full->Type, static_cast<ULONG>(REG_SZ));
  EXPECT_EQ(full->NameLength, nameBytes);
  EXPECT_EQ(Utf8(full->Name, full->NameLength), "Greeting");
  EXPECT_EQ(full->DataLength, dataBytes);
  EXPECT_GE(full->DataOffset, offsetof(KEY_VALUE_FULL_INFORMATION, Name) + nameBytes);
  EXPECT_EQ(result, full->DataOffset + full->DataLength);
  EXPECT_EQ(Utf8(reinterpret_cast<const WCHAR*>(buffer_.data() + full->DataOffset), dataBytes - sizeof(WCHAR)),
            "hello");

  EXPECT_EQ(Query(u"Greeting", static_cast<KEY_VALUE_INFORMATION_CLASS>(42), 256, &result),
            STATUS_INVALID_PARAMETER);
}

TEST_F(QueryValueTest, ShortBuffersGetTheNeededLengthAndAtMostTheFixedPart) {
  struct Case {
    KEY_VALUE_INFORMATION_CLASS infoClass;
    ULONG fixed;
  };
  const Case cases[] = {
      {KeyValueBasicInformation, static_cast<ULONG>(offsetof(KEY_VALUE_BASIC_INFORMATION, Name))},
      {KeyValueFullInformation, static_cast<ULONG>(offsetof(KEY_VALUE_FULL_INFORMATION, Name))},
      {KeyValuePartialInformation, static_cast<ULONG>(offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("information class " + std::to_string(c.infoClass));
    ULONG total = 0;
    ASSERT_EQ(Query(u"Greeting", c.infoClass, 256, &total), STATUS_SUCCESS);

    // Smaller than the fixed part: nothing written, the whole length reported.
    ULONG result = 0;
    EXPECT_EQ(Query(u"Greeting", c.infoClass, 0, &result), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, total);
    EXPECT_EQ(Query(u"Greeting", c.infoClass, c.fixed - 1, &result), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, total);
    EXPECT_TRUE(Untouched());

    // The fixed part fits but not the rest: the fixed part is written, and nothing past the buffer.
    for (ULONG length : {c.fixed, total - 1}) {
      result = 0;
      EXPECT_EQ(Query(u"Greeting", c.infoClass, length, &result), STATUS_BUFFER_OVERFLOW) << length;
      EXPECT_EQ(result, total);
      EXPECT_EQ(Info<KEY_VALUE_BASIC_INFORMATION>()->Type, static_cast<ULONG>(REG_SZ));
      EXPECT_TRUE(std::all_of(buffer_.begin() + length, buffer_.end(), [](uint8_t b) { return b == 0xAB; }));
    }
    EXPECT_EQ(Query(u"Greeting", c.infoClass, total, &result), STATUS_SUCCESS);
  }
  EXPECT_EQ(Info<KEY_VALUE_PARTIAL_INFORMATION>()->DataLength, sizeof(u"hello"));

  ULONG result = 0;
  EXPECT_EQ(Query(u"Missing", KeyValuePartialInformation, 256, &result), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_TRUE(Untouched());
}

// ---------------------------------------------------------------------------------------------
// Subkey enumeration

class EnumerateKeyTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(OpenKey(u"\\Registry\\User", &users_), STATUS_SUCCESS); }
  void TearDown() override { ZwClose(users_); }
  NTSTATUS Enumerate(ULONG index, KEY_INFORMATION_CLASS infoClass, ULONG length, ULONG* result) {
    std::fill(buffer_.begin(), buffer_.end(), 0xAB);
    return ZwEnumerateKey(users_, index, infoClass, buffer_.data(), length, result);
  }
  std::string NameAt(ULONG index) {
    ULONG result = 0;
    if (Enumerate(index, KeyBasicInformation, 512, &result) != STATUS_SUCCESS) return "<none>";
    auto* basic = reinterpret_cast<const KEY_BASIC_INFORMATION*>(buffer_.data());
    return Utf8(basic->Name, basic->NameLength);
  }
  template <typename T>
  const T* Info() const {
    return reinterpret_cast<const T*>(buffer_.data());
  }

  World world_;
  HANDLE users_ = nullptr;
  std::vector<uint8_t> buffer_ = std::vector<uint8_t>(512);
};

TEST_F(EnumerateKeyTest, TheLoadedUserHivesComeInTheOrderOfTheirUpcasedNames) {
  const std::string user = ntsim::ToUtf8(World::LoggedOnUserSid());
  std::vector<std::string> names;
  for (ULONG i = 0; i < 6; ++i) names.push_back(NameAt(i));
  EXPECT_EQ(names, (std::vector<std::string>{".DEFAULT", "S-1-5-18", "S-1-5-19", "S-1-5-20", user, user + "_Classes"}));
  ULONG result = 0;
  EXPECT_EQ(Enumerate(6, KeyBasicInformation, 512, &result), STATUS_NO_MORE_ENTRIES);
  EXPECT_EQ(Enumerate(1000, KeyNodeInformation, 512, &result), STATUS_NO_MORE_ENTRIES);

  // A user who logs on later is found from then on, in its place.
  world_.LoadUserHive(u"S-1-5-21-1-2-3-500");
  EXPECT_EQ(NameAt(4), "S-1-5-21-1-2-3-500");
  EXPECT_EQ(NameAt(5), "S-1-5-21-1-2-3-500_Classes");
  EXPECT_EQ(NameAt(8), "<none>");
}

TEST_F(EnumerateKeyTest, EachInformationClassDescribesTheSubkey) {
  const std::string user = ntsim::ToUtf8(World::LoggedOnUserSid());
  const ULONG nameBytes = static_cast<ULONG>(user.size() * sizeof(WCHAR));
  ULONG result = 0;

  ASSERT_EQ(Enumerate(4, KeyBasicInformation, 512, &result), STATUS_SUCCESS);
  EXPECT_EQ(result, offsetof(KEY_BASIC_INFORMATION, Name) + nameBytes);
  EXPECT_EQ(Info<KEY_BASIC_INFORMATION>()->NameLength, nameBytes);
  EXPECT_EQ(Info<KEY_BASIC_INFORMATION>()->TitleIndex, 0u);
  const LONGLONG written = Info<KEY_BASIC_INFORMATION>()->LastWriteTime.QuadPart;
  EXPECT_GT(written, 130000000000000000LL) << "system time of a date after 2012";

  ASSERT_EQ(Enumerate(4, KeyNodeInformation, 512, &result), STATUS_SUCCESS);
  auto* node = Info<KEY_NODE_INFORMATION>();
  EXPECT_EQ(Utf8(node->Name, node->NameLength), user);
  EXPECT_EQ(node->ClassLength, 0u);
  EXPECT_EQ(node->ClassOffset, offsetof(KEY_NODE_INFORMATION, Name) + nameBytes) << "right behind the name";
  EXPECT_EQ(result, node->ClassOffset);

  // The user's hive holds "Control Panel" and "Software", and no values.
  world_.SetRegistryValueDirect(std::u16string(u"\\REGISTRY\\USER\\") + World::LoggedOnUserSid(), u"Seven",
                                REG_BINARY, "1234567", 7);
  ASSERT_EQ(Enumerate(4, KeyFullInformation, 512, &result), STATUS_SUCCESS);
  auto* full = Info<KEY_FULL_INFORMATION>();
  EXPECT_EQ(result, offsetof(KEY_FULL_INFORMATION, Class));
  EXPECT_EQ(full->SubKeys, 2u);
  EXPECT_EQ(full->MaxNameLen, 13u * sizeof(WCHAR));
  EXPECT_EQ(full->Values, 1u);
  EXPECT_EQ(full->MaxValueNameLen, 5u * sizeof(WCHAR));
  EXPECT_EQ(full->MaxValueDataLen, 7u);
  EXPECT_EQ(full->ClassLength, 0u);
  EXPECT_GE(full->LastWriteTime.QuadPart, written) << "a value write is a write to the key";

  EXPECT_EQ(Enumerate(0, KeyNameInformation, 512, &result), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Enumerate(0, static_cast<KEY_INFORMATION_CLASS>(42), 512, &result), STATUS_INVALID_PARAMETER);
}

TEST_F(EnumerateKeyTest, ShortBuffersGetTheNeededLengthAndAtMostTheFixedPart) {
  struct Case {
    KEY_INFORMATION_CLASS infoClass;
    ULONG fixed;
  };
  const Case cases[] = {
      {KeyBasicInformation, static_cast<ULONG>(offsetof(KEY_BASIC_INFORMATION, Name))},
      {KeyNodeInformation, static_cast<ULONG>(offsetof(KEY_NODE_INFORMATION, Name))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("information class " + std::to_string(c.infoClass));
    ULONG total = 0;
    ASSERT_EQ(Enumerate(0, c.infoClass, 512, &total), STATUS_SUCCESS);
    ULONG result = 0;
    EXPECT_EQ(Enumerate(0, c.infoClass, c.fixed - 1, &result), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, total);
    EXPECT_TRUE(std::all_of(buffer_.begin(), buffer_.end(), [](uint8_t b) { return b == 0xAB; }));
    for (ULONG length : {c.fixed, total - 1}) {
      result = 0;
      EXPECT_EQ(Enumerate(0, c.infoClass, length, &result), STATUS_BUFFER_OVERFLOW) << length;
      EXPECT_EQ(result, total);
      EXPECT_EQ(c.infoClass == KeyBasicInformation ? Info<KEY_BASIC_INFORMATION>()->NameLength
                                                    : Info<KEY_NODE_INFORMATION>()->NameLength,
                16u) << "the fixed part of \".DEFAULT\"";
      EXPECT_TRUE(std::all_of(buffer_.begin() + length, buffer_.end(), [](uint8_t b) { return b == 0xAB; }));
    }
  }
  ULONG result = 0;
  EXPECT_EQ(Enumerate(0, KeyFullInformation, 4, &result), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(result, offsetof(KEY_FULL_INFORMATION, Class));
}

// ---------------------------------------------------------------------------------------------
// CurrentControlSet

TEST(CurrentControlSetTest, KeysOpenedThroughTheLinkAreNamedByTheControlSet) {
  World world;
  HANDLE viaLink = nullptr, link = nullptr, direct = nullptr, relative = nullptr;
  ASSERT_EQ(OpenKey(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Sentrel", &viaLink), STATUS_SUCCESS);
  EXPECT_EQ(KeyName(viaLink), kServiceKeyName);
  ASSERT_EQ(OpenKey(u"\\REGISTRY\\MACHINE\\SYSTEM\\currentcontrolset", &link), STATUS_SUCCESS);
  EXPECT_EQ(KeyName(link), "\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001");
  ASSERT_EQ(OpenKey(u"Services\\Sentrel", &relative, link), STATUS_SUCCESS);
  EXPECT_EQ(KeyName(relative), kServiceKeyName);

  // One key, whichever way it was opened.
  ASSERT_EQ(OpenKey(World::ServiceKeyPath(), &direct), STATUS_SUCCESS);
  ULONG value = 77;
  ASSERT_EQ(SetValue(viaLink, u"Written", REG_DWORD, &value, sizeof value), STATUS_SUCCESS);
  EXPECT_EQ(DwordValue(direct, u"Written"), 77u);
  EXPECT_EQ(DwordValue(relative, u"Start"), 3u);
  for (HANDLE h : {viaLink, link, direct, relative}) EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
}

// ---------------------------------------------------------------------------------------------
// Registry callbacks

// What a registry callback saw of one notification.
struct Notification {
  REG_NOTIFY_CLASS type;
  PVOID argument = nullptr;
  std::thread::id hostThread;
  uint64_t processId = 0;
  KPROCESSOR_MODE previousMode = KernelMode;
  std::string storedData;  // the value's data as stored when the callback ran
  // RegNtPreSetValueKey
  std::string keyName, valueName;
  ULONG valueType = 0;
  PVOID data = nullptr;
  ULONG dataSize = 0;
  NTSTATUS captureStatus = STATUS_SUCCESS;  // the callback's guarded copy of the caller's data
  std::string capturedData;
  // RegNtPostSetValueKey
  NTSTATUS postStatus = STATUS_SUCCESS;
  PVOID preInformation = nullptr;
};

struct CallbackState {
  std::mutex mutex;
  std::vector<Notification> seen;
  NTSTATUS preResult = STATUS_SUCCESS;
  HANDLE probeKey = nullptr;  // a kernel handle to the key under test
  std::u16string probeValue;

  std::vector<Notification> SetValueNotifications() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<Notification> out;
    for (const Notification& n : seen) {
      if (n.type == RegNtPreSetValueKey || n.type == RegNtPostSetValueKey) out.push_back(n);
    }
    return out;
  }
};

NTSTATUS NTAPI RecordingCallback(PVOID context, PVOID argument1, PVOID argument2) {
  auto* state = static_cast<CallbackState*>(context);
  Notification n;
  n.type = static_cast<REG_NOTIFY_CLASS>(reinterpret_cast<ULONG_PTR>(argument1));
  n.argument = argument2;
  n.hostThread = std::this_thread::get_id();
  n.processId = reinterpret_cast<uint64_t>(PsGetCurrentProcessId());
  n.previousMode = ExGetPreviousMode();
  if (state->probeKey) n.storedData = ValueData(state->probeKey, state->probeValue);
  NTSTATUS result = STATUS_SUCCESS;
  if (n.type == RegNtPreSetValueKey) {
    auto* info = static_cast<PREG_SET_VALUE_KEY_INFORMATION>(argument2);
    n.keyName = QueryName(info->Object);
    n.valueName = Utf8(*info->ValueName);
    n.valueType = info->Type;
    n.data = info->Data;
    n.dataSize = info->DataSize;
    std::vector<char> copy(info->DataSize);
    n.captureStatus = NtSimGuardedCopy(copy.data(), info->Data, info->DataSize);
    if (NT_SUCCESS(n.captureStatus)) n.capturedData.assign(copy.begin(), copy.end());
    result = state->preResult;
  } else if (n.type == RegNtPostSetValueKey) {
    auto* info = static_cast<PREG_POST_OPERATION_INFORMATION>(argument2);
    n.postStatus = info->Status;
    n.preInformation = info->PreInformation;
  }
  std::lock_guard<std::mutex> lock(state->mutex);
  state->seen.push_back(n);
  return result;
}

class RegistryCallbackTest : public testing::Test {
 protected:
  void SetUp() override {
    world_.SetRegistryValueDirect(kTestKey, u"Mode", REG_BINARY, "old", 3);
    ASSERT_EQ(OpenKey(kTestKey, &state_.probeKey), STATUS_SUCCESS);
    state_.probeValue = u"Mode";
    ASSERT_EQ(CmRegisterCallback(RecordingCallback, &state_, &cookie_), STATUS_SUCCESS);
  }
  void TearDown() override {
    if (registered_) {
      EXPECT_EQ(CmUnRegisterCallback(cookie_), STATUS_SUCCESS);
    }
    ZwClose(state_.probeKey);
  }

  World world_;
  CallbackState state_;
  LARGE_INTEGER cookie_{};
  bool registered_ = true;
};

TEST_F(RegistryCallbackTest, PreNotificationComesOnTheWritingThreadBeforeTheValueIsStored) {
  UserProcess& app = world_.StartProcess(u"regedit.exe");
  NTSTATUS status = STATUS_UNSUCCESSFUL;
  std::thread::id writer;
  {
    HostThread thread([&] {
      writer = std::this_thread::get_id();
      status = app.SetRegistryValue(kTestKey, u"Mode", REG_BINARY, "new!", 4);
    });
  }
  ASSERT_EQ(status, STATUS_SUCCESS);

  auto seen = state_.SetValueNotifications();
  ASSERT_EQ(seen.size(), 2u);
  const Notification& pre = seen[0];
  EXPECT_EQ(pre.type, RegNtPreSetValueKey);
  EXPECT_EQ(pre.hostThread, writer);
  EXPECT_EQ(pre.processId, app.Id());
  EXPECT_EQ(pre.previousMode, UserMode);
  EXPECT_EQ(pre.keyName, "\\REGISTRY\\MACHINE\\SOFTWARE\\SimTest");
  EXPECT_EQ(pre.valueName, "Mode");
  EXPECT_EQ(pre.valueType, static_cast<ULONG>(REG_BINARY));
  EXPECT_EQ(pre.dataSize, 4u);
  EXPECT_EQ(pre.capturedData, "new!");
  EXPECT_EQ(pre.storedData, "old") << "the pre-notification came after the write";

  const Notification& post = seen[1];
  EXPECT_EQ(post.type, RegNtPostSetValueKey);
  EXPECT_EQ(post.hostThread, writer);
  EXPECT_EQ(post.postStatus, STATUS_SUCCESS);
  EXPECT_EQ(post.preInformation, pre.argument);
  EXPECT_EQ(post.storedData, "new!");
  EXPECT_EQ(ValueData(state_.probeKey, u"Mode"), "new!");

  // A driver's own write is seen too, with kernel mode as the previous mode.
  ASSERT_EQ(SetValue(state_.probeKey, u"Mode", REG_BINARY, "kernel", 6), STATUS_SUCCESS);
  seen = state_.SetValueNotifications();
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[2].previousMode, KernelMode);
  EXPECT_EQ(seen[2].capturedData, "kernel");
}

TEST_F(RegistryCallbackTest, AFailingPreNotificationVetoesTheWrite) {
  state_.preResult = STATUS_ACCESS_DENIED;
  EXPECT_EQ(world_.SetRegistryValue(kTestKey, u"Mode", REG_BINARY, "new!", 4), STATUS_ACCESS_DENIED);
  auto seen = state_.SetValueNotifications();
  ASSERT_EQ(seen.size(), 1u) << "no post-notification follows a veto";
  EXPECT_EQ(seen[0].type, RegNtPreSetValueKey);
  EXPECT_EQ(ValueData(state_.probeKey, u"Mode"), "old");

  ULONG value = 5;
  EXPECT_EQ(SetValue(state_.probeKey, u"Other", REG_DWORD, &value, sizeof value), STATUS_ACCESS_DENIED);
  EXPECT_EQ(ValueData(state_.probeKey, u"Other"), "<" + std::to_string(STATUS_OBJECT_NAME_NOT_FOUND) + ">");

  // The first veto ends the operation: whichever callback is asked first, the other hears nothing.
  CallbackState second;
  second.preResult = STATUS_ACCESS_DENIED;
  LARGE_INTEGER secondCookie{};
  ASSERT_EQ(CmRegisterCallback(RecordingCallback, &second, &secondCookie), STATUS_SUCCESS);
  size_t before = state_.SetValueNotifications().size();
  EXPECT_EQ(world_.SetRegistryValue(kTestKey, u"Mode", REG_BINARY, "new!", 4), STATUS_ACCESS_DENIED);
  EXPECT_EQ(state_.SetValueNotifications().size() - before + second.SetValueNotifications().size(), 1u);
  EXPECT_EQ(CmUnRegisterCallback(secondCookie), STATUS_SUCCESS);
}

TEST_F(RegistryCallbackTest, DataThatFaultsFailsTheWriteAfterThePreNotificationSawIt) {
  void* faulting = world_.FaultingBuffer(16);
  EXPECT_EQ(world_.SetRegistryValue(kTestKey, u"Mode", REG_BINARY, faulting, 16), STATUS_ACCESS_VIOLATION);
  auto seen = state_.SetValueNotifications();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].type, RegNtPreSetValueKey);
  EXPECT_EQ(seen[0].data, faulting);
  EXPECT_EQ(seen[0].dataSize, 16u);
  EXPECT_EQ(seen[0].captureStatus, STATUS_ACCESS_VIOLATION) << "the callback must read it guarded";
  EXPECT_EQ(seen[1].type, RegNtPostSetValueKey);
  EXPECT_EQ(seen[1].postStatus, STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(ValueData(state_.probeKey, u"Mode"), "old");
}

TEST_F(RegistryCallbackTest, UnregisteredCallbacksHearNothingAndUnknownCookiesAreRefused) {
  ASSERT_EQ(CmUnRegisterCallback(cookie_), STATUS_SUCCESS);
  registered_ = false;
  EXPECT_EQ(world_.SetRegistryValue(kTestKey, u"Mode", REG_BINARY, "new!", 4), STATUS_SUCCESS);
  EXPECT_TRUE(state_.SetValueNotifications().empty());
  EXPECT_EQ(CmUnRegisterCallback(cookie_), STATUS_INVALID_PARAMETER);
  LARGE_INTEGER unknown;
  unknown.QuadPart = 0x7777777;
  EXPECT_EQ(CmUnRegisterCallback(unknown), STATUS_INVALID_PARAMETER);

  // Registration is an allocation point.
  world_.verifier().FailNth(1);
  LARGE_INTEGER cookie{};
  EXPECT_EQ(CmRegisterCallback(RecordingCallback, &state_, &cookie), STATUS_INSUFFICIENT_RESOURCES);
  world_.verifier().FailNth(0);
  EXPECT_EQ(world_.SetRegistryValue(kTestKey, u"Mode", REG_BINARY, "again", 5), STATUS_SUCCESS);
  EXPECT_TRUE(state_.SetValueNotifications().empty());
}

// ---------------------------------------------------------------------------------------------
// Hives across crashes and reboots

TEST(HiveTest, KeysAndValuesSurviveACrashAndAReboot) {
  World world;
  const std::u16string durable = kTestKey + u"\\Durable";
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(kTestKey, &key), STATUS_SUCCESS);
  ZwClose(key);
  ASSERT_EQ(CreateKey(durable, &key), STATUS_SUCCESS);
  ULONG value = 7;
  ASSERT_EQ(SetValue(key, u"Count", REG_DWORD, &value, sizeof value), STATUS_SUCCESS);
  ZwClose(key);
  CallbackState state;
  LARGE_INTEGER cookie{};
  ASSERT_EQ(CmRegisterCallback(RecordingCallback, &state, &cookie), STATUS_SUCCESS);

  // A crash loses what belonged to the boot (callbacks, handles), not what was in the hives.
  world.Crash();
  ASSERT_EQ(OpenKey(durable, &key), STATUS_SUCCESS);
  EXPECT_EQ(DwordValue(key, u"Count"), 7u);
  value = 8;
  ASSERT_EQ(SetValue(key, u"Count", REG_DWORD, &value, sizeof value), STATUS_SUCCESS);
  EXPECT_EQ(world.SetRegistryValue(durable, u"Written", REG_BINARY, "user", 4), STATUS_SUCCESS);
  EXPECT_TRUE(state.SetValueNotifications().empty()) << "a callback of the crashed boot was called";
  EXPECT_EQ(CmUnRegisterCallback(cookie), STATUS_INVALID_PARAMETER);
  ZwClose(key);

  world.Reboot();
  ASSERT_EQ(OpenKey(durable, &key), STATUS_SUCCESS);
  EXPECT_EQ(DwordValue(key, u"Count"), 8u);
  EXPECT_EQ(ValueData(key, u"Written"), "user");
  ZwClose(key);
  ASSERT_EQ(OpenKey(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Sentrel", &key), STATUS_SUCCESS);
  EXPECT_EQ(KeyName(key), kServiceKeyName);
  ZwClose(key);
}

}  // namespace
