#include "world.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>

#include "fs/mount_manager.h"
#include "fs/volumes.h"

namespace ntsim {

using namespace std::chrono_literals;

#ifndef NTSIM_DEFAULT_DRIVER_IMAGE
#define NTSIM_DEFAULT_DRIVER_IMAGE ""
#endif

namespace {

constexpr NTSTATUS kStatusImageAlreadyLoaded = (NTSTATUS)0xC000010EL;
constexpr NTSTATUS kStatusInvalidImageFormat = (NTSTATUS)0xC000007BL;
constexpr uint64_t kDefaultImageSize = 0x20000;

HANDLE IdHandle(uint64_t id) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id)); }

// A counted string over text that outlives it.
UNICODE_STRING Counted(std::u16string& text) {
  auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  return UNICODE_STRING{bytes, bytes, reinterpret_cast<PWSTR>(text.data())};
}

[[noreturn]] void Stop(const std::string& what) {
  std::fprintf(stderr, "ntsim: %s\n", what.c_str());
  std::abort();
}

std::string Hex(uint64_t value, int digits = 8) {
  char text[32];
  std::snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(value));
  return text;
}

}  // namespace

std::string Verdict::Report() const {
  if (findings.empty()) return "clean: nothing left behind\n";
  std::string text;
  for (const Finding& f : findings) text += f.call + ": " + f.what + "\n";
  return text;
}

// ---------------------------------------------------------------------------------------------

UserProcess::UserProcess(World& world, _KPROCESS* process, _KTHREAD* initialThread)
    : world_(world), process_(process), initialThreadId_(initialThread ? initialThread->id : 0) {
  world_.kernel().ob.Reference(process_);  // as its creator's process handle would
}

UserProcess::~UserProcess() { world_.kernel().ob.Dereference(process_); }

uint64_t UserProcess::Id() const { return process_->id; }

bool UserProcess::Exited() const { return world_.kernel().ps.FindProcess(process_->id) != process_; }

_KTHREAD* UserProcess::Thread() { return world_.kernel().ps.ActingThread(process_); }

uint64_t UserProcess::CurrentThreadId() { return Thread()->id; }

NTSTATUS UserProcess::CreateFile(const std::u16string& path, ACCESS_MASK access, HANDLE* handle, bool overlapped) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.UserCreateFile(path, access, handle, overlapped);
}

IoResult UserProcess::DeviceIoControl(HANDLE handle, ULONG code, const void* in, ULONG inLength, void* out,
                                      ULONG outLength) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.UserDeviceIoControl(handle, code, in, inLength, out, outLength);
}

IoResult UserProcess::ReadFile(HANDLE handle, void* buffer, ULONG length) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.UserRead(handle, buffer, length);
}

IoResult UserProcess::WriteFile(HANDLE handle, const void* buffer, ULONG length) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.UserWrite(handle, buffer, length);
}

IoResult UserProcess::SendRequest(HANDLE handle, UCHAR majorFunction) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.UserSendMajor(handle, majorFunction);
}

std::shared_ptr<PendingIo> UserProcess::ReadFileOverlapped(HANDLE handle, void* buffer, ULONG length,
                                                           uint64_t offset) {
  ThreadScope scope(Thread(), UserMode);
  LARGE_INTEGER position;
  position.QuadPart = static_cast<LONGLONG>(offset);
  return world_.kernel().io.StartTransfer(handle, IRP_MJ_READ, buffer, length, &position, UserMode, true);
}

std::shared_ptr<PendingIo> UserProcess::WriteFileOverlapped(HANDLE handle, const void* buffer, ULONG length,
                                                            uint64_t offset) {
  ThreadScope scope(Thread(), UserMode);
  LARGE_INTEGER position;
  position.QuadPart = static_cast<LONGLONG>(offset);
  return world_.kernel().io.StartTransfer(handle, IRP_MJ_WRITE, const_cast<void*>(buffer), length, &position,
                                          UserMode, true);
}

std::shared_ptr<PendingIo> UserProcess::DeviceIoControlOverlapped(HANDLE handle, ULONG code, const void* in,
                                                                  ULONG inLength, void* out, ULONG outLength) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.StartDeviceIoControl(handle, code, in, inLength, out, outLength, UserMode, true);
}

NTSTATUS UserProcess::CancelIo(HANDLE handle) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.CancelIo(handle);
}

NTSTATUS UserProcess::CancelIoEx(HANDLE handle, const PendingIo* request) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.CancelIoEx(handle, request);
}

NTSTATUS UserProcess::CloseHandle(HANDLE handle) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().io.UserCloseHandle(handle);
}

NTSTATUS UserProcess::DuplicateHandle(HANDLE handle, UserProcess& target, HANDLE* duplicate) {
  ThreadScope scope(Thread(), UserMode);
  return world_.kernel().ob.DuplicateHandle(handle, target.process_->handles, duplicate);
}

NTSTATUS UserProcess::SetRegistryValue(const std::u16string& keyPath, const std::u16string& name, ULONG type,
                                       const void* data, ULONG size) {
  ThreadScope scope(Thread(), UserMode);
  Registry& cm = world_.kernel().cm;
  if (!cm.Find(keyPath)) cm.CreatePath(keyPath);  // RegCreateKeyEx, level by level
  UNICODE_STRING path{static_cast<USHORT>(keyPath.size() * 2), static_cast<USHORT>(keyPath.size() * 2),
                      reinterpret_cast<PWSTR>(const_cast<char16_t*>(keyPath.data()))};
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
  HANDLE key = nullptr;
  NTSTATUS status = cm.OpenKey(&attributes, KEY_SET_VALUE, true, false, &key, nullptr);
  if (!NT_SUCCESS(status)) return status;
  UNICODE_STRING valueName{static_cast<USHORT>(name.size() * 2), static_cast<USHORT>(name.size() * 2),
                           reinterpret_cast<PWSTR>(const_cast<char16_t*>(name.data()))};
  status = cm.SetValue(key, &valueName, type, data, size);
  world_.kernel().ob.CloseHandle(key, UserMode);
  return status;
}

// ---------------------------------------------------------------------------------------------

World::World() : World(Options()) {}

World::World(Options options) : options_(std::move(options)) {
  if (options_.driverImage.empty()) {
    const char* env = std::getenv("SENTREL_DRIVER_IMAGE");
    options_.driverImage = env ? env : NTSIM_DEFAULT_DRIVER_IMAGE;
  }
  Boot();
}

World::~World() {
  PowerOff();
  CloseImage();
}

const char16_t* World::LoggedOnUserSid() { return u"S-1-5-21-3623811015-3361044348-30300820-1013"; }

uint64_t World::LoggedOnUserLogonId() { return 0x3C2A1; }

void World::LogOn(const LogonSpec& logon) {
  LogonSession session;
  session.logonId = logon.logonId;
  session.domain = logon.domain;
  session.user = logon.user;
  session.sid = logon.sid;
  session.session = logon.session;
  if (!logon.logonId || !kernel_->se.LogOn(session)) {
    Stop("LogOn: logon id " + std::to_string(logon.logonId) + " with SID '" + logon.sid + "' is not a logon session");
  }
  std::u16string sid(logon.sid.begin(), logon.sid.end());
  if (!kernel_->cm.Find(u"\\REGISTRY\\USER\\" + sid)) LoadUserHive(sid);
}

void World::LogOff(uint64_t logonId) {
  if (!kernel_->se.LogOff(logonId)) Stop("LogOff: no logon session " + std::to_string(logonId));
}

void World::LoadUserHive(const std::u16string& sid) {
  Registry& cm = kernel_->cm;
  std::u16string hive = u"\\REGISTRY\\USER\\" + sid;
  cm.CreatePath(hive + u"\\Software\\Microsoft\\Windows\\CurrentVersion\\Run");
  cm.CreatePath(hive + u"\\Control Panel\\Desktop");
  cm.CreatePath(hive + u"_Classes\\CLSID");
}

const char16_t* World::ServiceKeyPath() { return u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\Sentrel"; }

void World::Boot() {
  kernel_ = std::make_unique<Kernel>(options_.machine);
  SetKernel(kernel_.get());
  kernel_->debug.SetEcho(options_.echoDebugOutput);
  if (hives_) {
    kernel_->cm.AdoptHives(hives_);
  } else {
    hives_ = kernel_->cm.Hives();
    Registry& cm = kernel_->cm;
    KeyNode* service = cm.CreatePath(ServiceKeyPath());
    ULONG one = 1, demand = 3, normal = 1;
    cm.SetValueDirect(service, u"Type", REG_DWORD, &one, 4);
    cm.SetValueDirect(service, u"Start", REG_DWORD, &demand, 4);
    cm.SetValueDirect(service, u"ErrorControl", REG_DWORD, &normal, 4);
    std::u16string image = u"\\SystemRoot\\System32\\drivers\\Sentrel.sys";
    cm.SetValueDirect(service, u"ImagePath", REG_EXPAND_SZ, image.c_str(), (image.size() + 1) * 2);
    cm.MakeLink(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet", u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001");
    cm.CreatePath(u"\\REGISTRY\\MACHINE\\SOFTWARE");
    // The hives a machine with one logged-on user has loaded: the default user, the three service
    // accounts, and the user's own hive with its classes hive.
    for (const char16_t* sid : {u".DEFAULT", u"S-1-5-18", u"S-1-5-19", u"S-1-5-20"}) {
      cm.CreatePath(std::u16string(u"\\REGISTRY\\USER\\") + sid);
    }
    LoadUserHive(LoggedOnUserSid());
  }
  std::u16string userSid = LoggedOnUserSid();
  kernel_->se.LogOn({LoggedOnUserLogonId(), u"SENTREL-LAB", u"analyst", std::string(userSid.begin(), userSid.end()), 1});
  if (!files_) {
    files_ = std::make_shared<FileStore>();
    LayOutFactoryVolumes(*files_);
  }
  StartFileSystem(kernel_->io, files_);
  LinkDriveLetters(kernel_->ob, *files_);
  kernel_->ob.CreateSymbolicLink(u"\\SystemRoot", u"\\Device\\HarddiskVolume3\\Windows", nullptr);
  kernel_->ob.CreateSymbolicLink(u"\\??\\UNC", u"\\Device\\Mup", nullptr);
  ConnectMountManager(files_);
  ntsim::MountManagerFailQueries(mountManagerFailure_);
  ntsim::MountManagerAnswerPending(mountManagerPending_);
  if (options_.usualProcesses) StartUsualProcesses();
}

void World::StartUsualProcesses() {
  // What runs before anyone logs on: the service control manager, started by wininit.exe, as
  // SYSTEM in session 0.
  ProcessSpec wininit;
  wininit.pid = kWininitPid;
  wininit.imagePath = u"\\??\\C:\\Windows\\System32\\wininit.exe";
  wininit.commandLine = u"wininit.exe";
  wininit.sessionId = 0;
  CreateProcess(wininit);
  ProcessSpec services = wininit;
  services.pid = kServicesPid;
  services.parentPid = kWininitPid;
  services.imagePath = u"\\??\\C:\\Windows\\System32\\services.exe";
  services.commandLine = u"C:\\Windows\\system32\\services.exe";
  CreateProcess(services);
}

FileNode* World::FindFile(const std::u16string& ntPath, Volume** volume, std::u16string* key) {
  std::u16string device, path;
  if (!ResolveVolumePath(kernel_->ob, ntPath, &device, &path)) return nullptr;
  *volume = files_->FindVolume(device);
  if (!*volume) return nullptr;
  *key = Upcase(path);
  auto it = (*volume)->files.find(*key);
  return it == (*volume)->files.end() ? nullptr : &it->second;
}

std::optional<std::vector<uint8_t>> World::ReadFileBytes(const std::u16string& ntPath) {
  std::lock_guard<std::mutex> lock(files_->mutex);
  Volume* volume = nullptr;
  std::u16string key;
  FileNode* node = FindFile(ntPath, &volume, &key);
  if (!node || node->directory) return std::nullopt;
  return node->data;
}

bool World::WriteFileBytes(const std::u16string& ntPath, const std::vector<uint8_t>& bytes) {
  std::u16string device, path;
  if (!ResolveVolumePath(kernel_->ob, ntPath, &device, &path)) return false;
  std::lock_guard<std::mutex> lock(files_->mutex);
  Volume* volume = files_->FindVolume(device);
  if (!volume) return false;
  size_t slash = path.find_last_of(u'\\');
  std::u16string parent = slash == 0 ? u"\\" : path.substr(0, slash);
  auto dir = volume->files.find(Upcase(parent));
  if (dir == volume->files.end() || !dir->second.directory) return false;
  FileNode& node = volume->files[Upcase(path)];
  node.path = path;
  node.directory = false;
  node.data = bytes;
  return true;
}

bool World::DeleteFile(const std::u16string& ntPath) {
  std::lock_guard<std::mutex> lock(files_->mutex);
  Volume* volume = nullptr;
  std::u16string key;
  if (!FindFile(ntPath, &volume, &key)) return false;
  volume->files.erase(key);
  return true;
}

void World::FailWrites(const std::u16string& ntPath, NTSTATUS status) {
  std::u16string device, path;
  if (!ResolveVolumePath(kernel_->ob, ntPath, &device, &path)) return;
  std::lock_guard<std::mutex> lock(files_->mutex);
  Volume* volume = files_->FindVolume(device);
  if (!volume) return;
  if (NT_SUCCESS(status)) volume->failingWrites.erase(Upcase(path));
  else volume->failingWrites[Upcase(path)] = status;
}

bool World::MakeDirectory(const std::u16string& ntPath) {
  std::u16string device, path;
  if (!ResolveVolumePath(kernel_->ob, ntPath, &device, &path)) return false;
  std::lock_guard<std::mutex> lock(files_->mutex);
  Volume* volume = files_->FindVolume(device);
  if (!volume) return false;
  auto existing = volume->files.find(Upcase(path));
  if (existing != volume->files.end()) return existing->second.directory;
  size_t slash = path.find_last_of(u'\\');
  auto parent = volume->files.find(Upcase(slash == 0 ? u"\\" : path.substr(0, slash)));
  if (parent == volume->files.end() || !parent->second.directory) return false;
  FileNode& node = volume->files[Upcase(path)];
  node.path = path;
  node.directory = true;
  return true;
}

void World::AddVolume(const std::u16string& device, char16_t letter, bool knownToMountManager) {
  if (!ntsim::AddVolume(kernel_->io, kernel_->ob, *files_, device, letter, knownToMountManager)) {
    Stop("AddVolume: cannot add " + ToUtf8(device) + " with letter '" + ToUtf8(std::u16string(1, letter)) + "'");
  }
}

void World::RemoveVolume(const std::u16string& device) {
  if (!ntsim::RemoveVolume(kernel_->io, kernel_->ob, *files_, device)) {
    Stop("RemoveVolume: " + ToUtf8(device) + " is no present volume");
  }
}

void World::AssignDriveLetter(const std::u16string& device, char16_t letter) {
  if (!ntsim::AssignDriveLetter(kernel_->ob, *files_, device, letter)) {
    Stop("AssignDriveLetter: cannot give " + ToUtf8(device) + " the letter '" + ToUtf8(std::u16string(1, letter)) +
         "'");
  }
}

void World::RemoveDriveLetter(char16_t letter) { ntsim::RemoveDriveLetter(kernel_->ob, *files_, letter); }

void World::SetVolumeMountFolder(const std::u16string& device, const std::u16string& folder) {
  if (!ntsim::SetVolumeMountFolder(*files_, device, folder)) {
    Stop("SetVolumeMountFolder: " + ToUtf8(device) + " is no volume");
  }
}

void World::MountManagerFailQueries(NTSTATUS status) {
  mountManagerFailure_ = status;
  ntsim::MountManagerFailQueries(status);
}

void World::MountManagerAnswerPending(bool pending) {
  mountManagerPending_ = pending;
  ntsim::MountManagerAnswerPending(pending);
}

size_t World::MountManagerQueryCount() { return ntsim::MountManagerQueryCount(); }

void World::PowerOff() {
  {
    std::lock_guard<std::mutex> lock(processesMutex_);
    processes_.clear();
  }
  quillet_.reset();  // its objects go with the kernel
  driver_ = nullptr;
  kernel_.reset();
  SetKernel(nullptr);
}

void World::CloseImage() {
  if (image_) dlclose(image_);
  image_ = nullptr;
}

NTSTATUS World::LoadDriver() {
  if (driver_) return kStatusImageAlreadyLoaded;
  lastVerdict_ = Verdict();
  // A fresh mapping of the image each time: its globals start as the file has them.
  image_ = dlopen(options_.driverImage.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!image_) {
    std::fprintf(stderr, "ntsim: cannot map driver image '%s': %s\n", options_.driverImage.c_str(), dlerror());
    return kStatusInvalidImageFormat;
  }
  auto entry = reinterpret_cast<PDRIVER_INITIALIZE>(dlsym(image_, "DriverEntry"));
  if (!entry) {
    CloseImage();
    return kStatusInvalidImageFormat;
  }
  PDRIVER_OBJECT driver = kernel_->io.CreateDriverObject(u"\\Driver\\Sentrel", entry);
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(entry), &info)) driver->DriverStart = info.dli_fbase;
  // The I/O manager frees the registry path once the entry routine returns; a driver must copy it.
  std::u16string pathText = ServiceKeyPath();
  std::vector<char16_t> pathBuffer(pathText.begin(), pathText.end());
  UNICODE_STRING registryPath{static_cast<USHORT>(pathText.size() * 2), static_cast<USHORT>(pathText.size() * 2),
                              reinterpret_cast<PWSTR>(pathBuffer.data())};
  NTSTATUS status = AsSystem([&] { return entry(driver, &registryPath); });
  std::fill(pathBuffer.begin(), pathBuffer.end(), u'\xFFFF');
  if (!NT_SUCCESS(status)) {
    driver_ = driver;
    lastVerdict_ = CheckDriverLeftovers("DriverEntry");
    return status;
  }
  driver_ = driver;
  return status;
}

Verdict World::UnloadDriver() {
  if (!driver_) return Verdict{{{"UnloadDriver", "no driver is loaded"}}};
  if (!driver_->DriverUnload) return Verdict{{{"UnloadDriver", "the driver has no unload routine"}}};
  // The kernel unloads a driver only once its devices' last references are gone; closes that
  // completions deferred are part of that.
  kernel_->io.WaitForDeferredDereferences();
  for (PDEVICE_OBJECT device = driver_->DeviceObject; device; device = device->NextDevice) {
    if (device->ReferenceCount > 0) {
      return Verdict{{{"UnloadDriver", "a device of the driver is still open: the unload waits for its handles"}}};
    }
  }
  PDRIVER_OBJECT driver = driver_;
  AsSystem([&] { driver->DriverUnload(driver); });
  lastVerdict_ = CheckDriverLeftovers("DriverUnload");
  return lastVerdict_;
}

Verdict World::CheckDriverLeftovers(const char* when) {
  Verdict verdict;
  Kernel& k = *kernel_;
  std::map<ULONG, std::pair<size_t, size_t>> byTag;
  for (const PoolBlock& block : k.pool.Outstanding()) {
    byTag[block.tag].first += 1;
    byTag[block.tag].second += block.size;
  }
  for (auto& [tag, count] : byTag) {
    verdict.findings.push_back({when, "pool not freed: " + std::to_string(count.first) + " block(s), " +
                                          std::to_string(count.second) + " bytes of tag '" + TagText(tag) + "'"});
  }
  for (const ObjectManager::HeldReferences& held : k.ob.DriverHeldReferences()) {
    verdict.findings.push_back({when, std::to_string(held.count) + " reference(s) to " + ToUtf8(held.type) +
                                          " object " + ToUtf8(held.name) + " still held"});
  }
  for (auto& [handle, entry] : k.ob.KernelHandles().Entries()) {
    if (entry.driverOwned) {
      verdict.findings.push_back({when, "kernel handle " + Hex(reinterpret_cast<uint64_t>(handle), 16) + " to " +
                                            ToUtf8(entry.object->type->name) + " object not closed"});
    }
  }
  for (auto& [handle, entry] : k.ps.System()->handles.Entries()) {
    if (entry.driverOwned) {
      verdict.findings.push_back({when, "handle in the system process to " + ToUtf8(entry.object->type->name) +
                                            " object not closed"});
    }
  }
  for (auto& [kind, count] : k.arena.Live()) {
    verdict.findings.push_back({when, std::to_string(count) + " " + kind + "(s) never deleted"});
  }
  bool dangling = false;
  if (size_t n = k.cm.CallbackCount()) {
    verdict.findings.push_back({when, std::to_string(n) + " registry callback(s) still registered"});
    dangling = true;
  }
  Notifications::Counts notify = k.notify.Registered();
  if (notify.Total()) {
    verdict.findings.push_back({when, std::to_string(notify.Total()) + " notify routine(s) still registered (" +
                                          std::to_string(notify.process) + " process, " +
                                          std::to_string(notify.thread) + " thread, " +
                                          std::to_string(notify.image) + " load-image)"});
    dangling = true;
  }
  for (PDEVICE_OBJECT device : k.io.ShutdownDevices()) {
    if (device->DriverObject == driver_) {
      verdict.findings.push_back({when, "shutdown notification still registered"});
      dangling = true;
    }
  }
  for (PDEVICE_OBJECT device = driver_->DeviceObject; device; device = device->NextDevice) {
    verdict.findings.push_back({when, "device " + ToUtf8(k.ob.FullName(ObjectManager::HeaderOf(device))) +
                                          " not deleted"});
    dangling = true;
  }
  for (const std::u16string& link : k.io.DriverLinks()) {
    verdict.findings.push_back({when, "symbolic link " + ToUtf8(link) + " not deleted"});
  }
  if (size_t n = k.threads.Running()) {
    verdict.findings.push_back({when, std::to_string(n) + " system thread(s) still running"});
    dangling = true;
  }
  if (size_t n = k.mm.ViewCount()) {
    verdict.findings.push_back({when, std::to_string(n) + " user view(s) of driver memory still mapped"});
  }
  if (size_t n = k.io.OutstandingRequests(driver_)) {
    verdict.findings.push_back({when, std::to_string(n) + " request(s) never completed"});
    dangling = true;
  }
  for (const Finding& violation : k.verifier.Violations()) verdict.findings.push_back(violation);
  if (dangling) {
    // The kernel would still call into the image: a bug check on a real machine.
    k.verifier.Violation(when, "driver unloaded without cancelling pending operations:\n" + verdict.Report());
  } else {
    k.io.DeleteDriverObject(driver_);
    CloseImage();
  }
  driver_ = nullptr;
  return verdict;
}

void World::Shutdown() {
  AsSystem([&] {
    for (PDEVICE_OBJECT device : kernel_->io.ShutdownDevices()) {
      PIRP irp = kernel_->io.AllocateIrp(device->StackSize);
      IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_SHUTDOWN;
      kernel_->io.SendAndWait(device, irp);
      kernel_->io.FreeIrp(irp);
    }
  });
}

void World::Reboot() {
  Shutdown();
  PowerOff();
  CloseImage();
  Boot();
}

void World::Crash() {
  PowerOff();
  CloseImage();
  Boot();
}

UserProcess& World::CreateProcess(const ProcessSpec& spec) {
  Kernel& k = *kernel_;
  _KPROCESS* parent = k.ps.FindProcess(spec.parentPid);
  if (!parent) Stop("CreateProcess: the parent process " + std::to_string(spec.parentPid) + " is not running");
  uint64_t creatorPid = spec.creatorPid ? spec.creatorPid : spec.parentPid;
  _KPROCESS* creatorProcess = k.ps.FindProcess(creatorPid);
  if (!creatorProcess) Stop("CreateProcess: the creating process " + std::to_string(creatorPid) + " is not running");
  _KTHREAD* creator = k.ps.ActingThread(creatorProcess);
  // Its primary token: the creator's logon session and integrity level, unless others are asked for.
  const TokenBody* creatorToken = LogonSessions::Token(creatorProcess->token);
  uint64_t logonId = spec.logonId ? spec.logonId : creatorToken->logonId;
  ULONG integrityRid = spec.integrityRid ? *spec.integrityRid : creatorToken->integrityRid;
  if (!k.se.Find(logonId)) Stop("CreateProcess: logon session " + std::to_string(logonId) + " is not logged on");
  if (spec.pid && k.ps.FindProcess(spec.pid)) Stop("CreateProcess: process id " + std::to_string(spec.pid) + " is in use");
  // The parameter block's strings are counted strings with their terminator: 32,766 characters.
  for (const std::u16string* text : {&spec.imagePath, &spec.commandLine, &spec.currentDirectory}) {
    if (text->size() > kMaxProcessParameterChars) {
      Stop("CreateProcess: a process parameter of " + std::to_string(text->size()) + " characters (32,766 at most)");
    }
  }
  // Its address space begins with the environment block and parameters, in place before anyone
  // can find the process (a driver's scan of the running processes reads them).
  EnvironmentSpec environment;
  environment.imagePath = spec.imagePath.rfind(u"\\??\\", 0) == 0 ? spec.imagePath.substr(4) : spec.imagePath;
  environment.commandLine = spec.commandLine;
  environment.currentDirectory = spec.currentDirectory;
  environment.normalized = spec.normalizedParameters;
  environment.wow64 = spec.wow64;
  EnvironmentBlock block;
  bool placed = true;
  _KPROCESS* process = k.ps.CreateProcess(spec.pid, spec.imagePath, spec.parentPid, spec.commandLine,
                                          [&](_KPROCESS* made) {
                                            made->token = k.se.CreateToken(logonId, integrityRid, spec.sessionId);
                                            made->wow64 = spec.wow64;
                                            made->sessionId = spec.sessionId;
                                            made->devicePath = DevicePath(spec.imagePath);
                                            made->imageFile = ReferenceImageFile(spec.imagePath);
                                            block = BuildEnvironment(k.userMemory, made, environment);
                                            made->peb = block.peb;
                                            made->wow64Peb = block.wow64Peb;
                                            AddressSpace::Allocation memory;
                                            memory.base = block.base;
                                            memory.regions.push_back({block.size, MEM_COMMIT, PAGE_READWRITE});
                                            placed = made->addressSpace.Add(memory);
                                          });
  if (!process) Stop("CreateProcess: process id " + std::to_string(spec.pid) + " is in use");
  if (!placed) Stop("CreateProcess: the environment block lies outside user space");
  // Then its executable and ntdll.dll.
  std::vector<std::pair<std::u16string, uint64_t>> images;
  if (spec.mapExecutable) {
    ImageSpec executable;
    executable.path = spec.imagePath;
    executable.dll = false;
    images.emplace_back(spec.imagePath, PlaceImage(process, executable, spec.wow64 ? 0x400000 : 0x7FF600000000));
    // The native ntdll.dll, in a Wow64 process too.
    ImageSpec ntdll;
    ntdll.path = u"\\SystemRoot\\System32\\ntdll.dll";
    ntdll.machine = IMAGE_FILE_MACHINE_AMD64;
    images.emplace_back(ntdll.path, PlaceImage(process, ntdll, 0x7FFE00000000));
  }

  // Its first thread starts at the executable's entry point.
  _KTHREAD* initial = k.ps.CreateThread(process, true, images.empty() ? 0 : images.front().second + 0x1000);
  UserProcess* user;
  {
    std::lock_guard<std::mutex> lock(processesMutex_);
    processes_.push_back(std::make_unique<UserProcess>(*this, process, initial));
    user = processes_.back().get();
  }
  user->environment_ = block;
  {
    ThreadScope scope(creator, creatorProcess->isSystem ? KernelMode : UserMode);
    std::u16string imagePath = spec.imagePath, commandLine = spec.commandLine;  // what the routines see
    UNICODE_STRING imageName = Counted(imagePath), command = Counted(commandLine);
    PS_CREATE_NOTIFY_INFO info = {};
    info.Size = sizeof info;
    info.FileOpenNameAvailable = TRUE;
    info.ParentProcessId = IdHandle(spec.parentPid);
    info.CreatingThreadId.UniqueProcess = IdHandle(creatorProcess->id);
    info.CreatingThreadId.UniqueThread = IdHandle(creator->id);
    info.FileObject = ReferenceImageFile(spec.imagePath);
    info.ImageFileName = &imageName;
    info.CommandLine = commandLine.empty() ? nullptr : &command;
    info.CreationStatus = STATUS_SUCCESS;
    k.notify.ProcessCreated(process, IdHandle(process->id), IdHandle(spec.parentPid), &info);
    k.ob.Dereference(info.FileObject);
    user->creationStatus_ = info.CreationStatus;
    k.notify.ThreadCreated(IdHandle(process->id), IdHandle(initial->id));
  }
  k.ps.OfferThread(process, initial);
  for (const auto& [path, base] : images) {
    ThreadScope scope(k.ps.ActingThread(process), UserMode);
    NotifyImage(path, process->id, base, kDefaultImageSize, false);
  }
  return *user;
}

NTSTATUS World::LoadProducerDriver() {
  if (!quillet_) quillet_ = std::make_unique<Quillet>();
  return AsSystem([&] { return quillet_->Load(); });
}

void World::UnloadProducerDriver() {
  if (quillet_) AsSystem([&] { quillet_->Unload(); });
}

UserProcess* World::FindUserProcess(uint64_t pid) {
  std::lock_guard<std::mutex> lock(processesMutex_);
  for (auto& process : processes_) {
    if (process->Id() == pid && !process->Exited()) return process.get();
  }
  return nullptr;
}

UserProcess& World::StartProcess(const std::u16string& imageName) {
  ProcessSpec spec;
  spec.imagePath = imageName.rfind(u"\\", 0) == 0 ? imageName : u"\\??\\C:\\Windows\\System32\\" + imageName;
  return CreateProcess(spec);
}

void World::EndThread(_KTHREAD* thread) {
  Kernel& k = *kernel_;
  ProcessManager::ThreadEnd end = k.ps.EndThread(thread);
  if (!end.ended) return;
  // The requests still queued to it end first. A host thread blocked in one of them as this
  // thread wakes and leaves; the exit then runs as the thread, on this host thread alone.
  k.io.CancelThreadIo(thread);
  int own = CurrentThread() == thread ? 1 : 0;  // this host thread may itself be running as it
  for (auto deadline = std::chrono::steady_clock::now() + 10s;
       thread->scopes.load(std::memory_order_acquire) > own && std::chrono::steady_clock::now() < deadline;) {
    std::this_thread::sleep_for(1ms);
  }
  {
    ThreadScope scope(thread, KernelMode);
    NotifyThreadEnd(thread, end.last);
  }
  k.ps.Retire(thread);
}

void World::NotifyThreadEnd(_KTHREAD* thread, bool last) {
  Kernel& k = *kernel_;
  _KPROCESS* process = thread->process;
  if (thread->announced) k.notify.ThreadExited(IdHandle(process->id), IdHandle(thread->id));
  if (last) {
    k.ps.WaitForExitSynchronization(process);
    k.notify.ProcessExited(process, IdHandle(process->id), IdHandle(process->parentId));
    k.ps.RemoveExitedProcess(process);
    k.ob.CloseAll(process->handles);
    if (PFILE_OBJECT image = k.ps.TakeImageFile(process)) k.ob.Dereference(image);
    k.userMemory.ReleaseProcess(process);
    process->addressSpace.Clear();
    // The address space goes now: a view of driver memory still in it is a bug check.
    for (const UserView& view : k.mm.TakeViewsOf(process)) {
      k.verifier.Violation("process exit", "process " + std::to_string(process->id) +
                                               " exits with a user view of " + std::to_string(view.length) +
                                               " bytes of driver memory still mapped at " + Hex(view.base, 16));
    }
    k.ps.ReleaseExitedProcess(process);
  }
}

void World::ExitProcess(UserProcess& process) {
  std::vector<_KTHREAD*> threads;
  if (!kernel_->ps.BeginExit(process.Process(), &threads)) return;
  for (_KTHREAD* thread : threads) EndThread(thread);
}

void World::ForgetProcess(UserProcess& process) {
  if (!process.Exited()) Stop("ForgetProcess: process " + std::to_string(process.Id()) + " is still running");
  std::unique_ptr<UserProcess> forgotten;  // destroyed outside the lock
  std::lock_guard<std::mutex> lock(processesMutex_);
  for (auto it = processes_.begin(); it != processes_.end(); ++it) {
    if (it->get() == &process) {
      forgotten = std::move(*it);
      processes_.erase(it);
      return;
    }
  }
}

uint64_t World::StartThread(UserProcess& process, UserProcess* creator, uint64_t startAddress, uint64_t threadId,
                           uint64_t creatorThreadId) {
  Kernel& k = *kernel_;
  _KPROCESS* creatorProcess = creator ? creator->Process() : process.Process();
  _KTHREAD* creating = creatorThreadId ? k.ps.FindThread(creatorThreadId) : k.ps.ActingThread(creatorProcess);
  if (!creating || creating->process != creatorProcess) {
    Stop("StartThread: thread " + std::to_string(creatorThreadId) + " is no live thread of the creating process");
  }
  _KTHREAD* thread = k.ps.CreateThread(process.Process(), true, startAddress, threadId);
  if (!thread) Stop("StartThread: id " + std::to_string(threadId) + " is in use");
  ThreadScope scope(creating, UserMode);
  k.notify.ThreadCreated(IdHandle(process.Id()), IdHandle(thread->id));
  return thread->id;
}

void World::SetUserStack(uint64_t threadId, std::vector<uint64_t> frames) {
  _KTHREAD* thread = kernel_->ps.FindThread(threadId);
  if (!thread) Stop("SetUserStack: no live thread " + std::to_string(threadId));
  thread->userStack = std::move(frames);
}

void World::SetUserStack(UserProcess& process, std::vector<uint64_t> frames) {
  process.Thread()->userStack = std::move(frames);
}

void World::ExitThread(uint64_t threadId) {
  _KTHREAD* thread = kernel_->ps.FindThread(threadId);
  if (!thread) return;
  if (thread->process->isSystem) Stop("ExitThread: thread " + std::to_string(threadId) + " is a System thread");
  EndThread(thread);
}

void World::NotifyImage(const std::u16string& ntImagePath, uint64_t processId, uint64_t base, uint64_t size,
                        bool kernelImage) {
  // What the routines see: a user-mode image named by drive letter is reported by its volume's
  // device name, as the kernel names the file behind the section ("\Device\HarddiskVolume3\...");
  // "\SystemRoot\..." names stay as they are.
  std::u16string path = !kernelImage && ntImagePath.rfind(u"\\??\\", 0) == 0 ? DevicePath(ntImagePath) : ntImagePath;
  UNICODE_STRING name = Counted(path);
  IMAGE_INFO_EX info = {};
  info.Size = sizeof info;
  info.ImageInfo.ImageAddressingMode = IMAGE_ADDRESSING_MODE_32BIT;
  info.ImageInfo.SystemModeImage = kernelImage ? 1 : 0;
  info.ImageInfo.ExtendedInfoPresent = 1;
  info.ImageInfo.ImageBase = reinterpret_cast<PVOID>(static_cast<uintptr_t>(base));
  info.ImageInfo.ImageSize = size;
  info.FileObject = ReferenceImageFile(ntImagePath);
  if (info.FileObject) {
    kernel_->notify.ImageLoaded(&name, IdHandle(processId), &info.ImageInfo);
    kernel_->ob.Dereference(info.FileObject);
    return;
  }
  // No file to name: the plain IMAGE_INFO, on its own, without the extended part.
  IMAGE_INFO plain = info.ImageInfo;
  plain.ExtendedInfoPresent = 0;
  kernel_->notify.ImageLoaded(&name, IdHandle(processId), &plain);
}

std::u16string World::DevicePath(const std::u16string& ntPath) {
  PFILE_OBJECT file = ReferenceImageFile(ntPath);
  std::u16string name;
  if (!NT_SUCCESS(kernel_->io.QueryFileObjectName(file, &name))) {
    // No such file: its volume's device name all the same, where the path names a volume.
    std::u16string device, path;
    name = ResolveVolumePath(kernel_->ob, ntPath, &device, &path) ? device + path : ntPath;
  }
  kernel_->ob.Dereference(file);
  return name;
}

// The first page of an image view: DOS header, PE signature, file header and optional header as
// the image's description asks, in a page of the process's user memory.
static const uint8_t* BuildImageHeader(Kernel& k, _KPROCESS* process, const ImageSpec& image, uint64_t size) {
  auto* page = static_cast<uint8_t*>(k.userMemory.Allocate(process, PAGE_SIZE));
  USHORT machine = image.machine ? image.machine : process->wow64 ? IMAGE_FILE_MACHINE_I386 : IMAGE_FILE_MACHINE_AMD64;
  bool bits32 = machine == IMAGE_FILE_MACHINE_I386 || machine == 0x1C0;
  auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(page);
  dos->e_magic = IMAGE_DOS_SIGNATURE;
  dos->e_lfanew = 0x80;
  auto* nt = reinterpret_cast<IMAGE_NT_HEADERS64*>(page + 0x80);
  nt->Signature = IMAGE_NT_SIGNATURE;
  nt->FileHeader.Machine = machine;
  nt->FileHeader.NumberOfSections = 2;
  nt->FileHeader.SizeOfOptionalHeader = bits32 ? 0xE0 : 0xF0;
  nt->FileHeader.Characteristics = static_cast<USHORT>(0x0002 | (bits32 ? 0x0100 : 0x0020) | (image.dll ? 0x2000 : 0));
  // PE32 and PE32+ optional headers keep CheckSum, SizeOfImage and SizeOfHeaders at the same offsets.
  nt->OptionalHeader.Magic = bits32 ? 0x10B : IMAGE_NT_OPTIONAL_HDR64_MAGIC;
  nt->OptionalHeader.SizeOfImage = static_cast<ULONG>(size);
  nt->OptionalHeader.SizeOfHeaders = PAGE_SIZE;
  if (image.checksum) {
    nt->OptionalHeader.CheckSum = *image.checksum;
  } else {
    ULONG sum = 0x2A000;
    for (char16_t c : Upcase(image.path)) sum = sum * 31 + c;
    nt->OptionalHeader.CheckSum = sum & 0x7FFFFFFF;
  }
  if (!image.readableHeader) k.userMemory.MakeFault(page, PAGE_SIZE);
  return page;
}

uint64_t World::PlaceImage(_KPROCESS* process, const ImageSpec& image, uint64_t from) {
  const std::u16string& ntImagePath = image.path;
  uint64_t base = image.base;
  uint64_t size = image.size;
  if (size == 0) size = kDefaultImageSize;
  size = (size + PAGE_SIZE - 1) & ~uint64_t(PAGE_SIZE - 1);
  if (size < 3 * PAGE_SIZE) size = 3 * PAGE_SIZE;
  bool chosen = base == 0;
  // Where the loader puts DLLs: high, or low in a Wow64 process.
  if (from == 0) from = process->wow64 ? 0x10000000 : 0x7FF800000000;
  // A header page, code, then data, as the sections of a typical image.
  AddressSpace::Allocation view;
  view.base = base;
  view.type = MEM_IMAGE;
  view.allocationProtect = PAGE_EXECUTE_WRITECOPY;
  view.mappedName = DevicePath(ntImagePath);
  view.header = BuildImageHeader(*kernel_, process, image, size);
  uint64_t code = ((size - PAGE_SIZE) / 2 + PAGE_SIZE - 1) & ~uint64_t(PAGE_SIZE - 1);
  view.regions.push_back({PAGE_SIZE, MEM_COMMIT, PAGE_READONLY});
  view.regions.push_back({code, MEM_COMMIT, PAGE_EXECUTE_READ});
  view.regions.push_back({size - PAGE_SIZE - code, MEM_COMMIT, PAGE_WRITECOPY});
  // A place found free may be taken by another host thread's mapping before this one adds it.
  for (int tries = 0; chosen && tries < 100; ++tries) {
    view.base = process->addressSpace.FindFree(size, from);
    if (view.base != 0 && process->addressSpace.Add(view)) return view.base;
  }
  if (chosen || !process->addressSpace.Add(view)) {
    Stop("MapImage: " + Hex(base, 16) + " (" + std::to_string(size) + " bytes) is not free in process " +
         std::to_string(process->id));
  }
  return base;
}

uint64_t World::MapImage(UserProcess& process, const std::u16string& ntImagePath, uint64_t base, uint64_t size) {
  ImageSpec image;
  image.path = ntImagePath;
  image.base = base;
  image.size = size;
  return MapImage(process, image);
}

uint64_t World::MapImage(UserProcess& process, const ImageSpec& image) {
  uint64_t base = PlaceImage(process.Process(), image);
  ThreadScope scope(kernel_->ps.ActingThread(process.Process()), UserMode);
  NotifyImage(image.path, process.Id(), base, image.size ? image.size : kDefaultImageSize, false);
  return base;
}

void World::AllocatePrivate(UserProcess& process, uint64_t base, uint64_t size, bool commit) {
  AddressSpace::Allocation memory;
  memory.base = base;
  memory.regions.push_back({(size + PAGE_SIZE - 1) & ~uint64_t(PAGE_SIZE - 1), commit ? ULONG(MEM_COMMIT) : ULONG(MEM_RESERVE),
                            PAGE_READWRITE});
  if (!process.Process()->addressSpace.Add(memory)) {
    Stop("AllocatePrivate: " + Hex(base, 16) + " is not free in process " + std::to_string(process.Id()));
  }
}

uint64_t World::LoadKernelImage(const std::u16string& ntImagePath, uint64_t base, uint64_t size, UserProcess* loader) {
  std::string path;
  for (char16_t c : ntImagePath) path.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  base = kernel_->modules.Add(path, base, static_cast<uint32_t>(size));
  ThreadScope scope(kernel_->ps.ActingThread(loader ? loader->Process() : kernel_->ps.System()), KernelMode);
  NotifyImage(ntImagePath, 0, base, size, true);
  return base;
}

void World::MakeProcessMemoryFault(UserProcess& process, ProcessMemoryPart part) {
  const EnvironmentBlock& block = process.Environment();
  void* start = nullptr;
  switch (part) {
    case ProcessMemoryPart::EnvironmentBlock: start = block.peb; break;
    case ProcessMemoryPart::Parameters: start = block.parameters; break;
    case ProcessMemoryPart::CommandLine: start = block.commandLine; break;
    case ProcessMemoryPart::CurrentDirectory: start = block.currentDirectory; break;
  }
  kernel_->userMemory.MakeFault(start, PAGE_SIZE);
}

void World::OnProcessSnapshot(std::function<void()> hook) { kernel_->ps.SetSnapshotHook(std::move(hook)); }

void World::FailNotifyRegistration(const std::string& routine, NTSTATUS status) {
  kernel_->notify.FailRegistration(routine, status);
}

void World::SetRegistryValueDirect(const std::u16string& keyPath, const std::u16string& name, ULONG type,
                                   const void* data, size_t size) {
  kernel_->cm.SetValueDirect(kernel_->cm.CreatePath(keyPath), name, type, data, size);
}

void World::SetRegistryDwordDirect(const std::u16string& keyPath, const std::u16string& name, ULONG value) {
  SetRegistryValueDirect(keyPath, name, REG_DWORD, &value, sizeof value);
}

NTSTATUS World::SetRegistryValue(const std::u16string& keyPath, const std::u16string& name, ULONG type,
                                 const void* data, ULONG size) {
  UserProcess* writer = nullptr;
  {
    std::lock_guard<std::mutex> lock(processesMutex_);
    for (auto& process : processes_) {
      if (!process->Exited()) {
        writer = process.get();
        break;
      }
    }
  }
  if (!writer) writer = &StartProcess(u"regedit.exe");
  return writer->SetRegistryValue(keyPath, name, type, data, size);
}

NTSTATUS World::SetRegistryDword(const std::u16string& keyPath, const std::u16string& name, ULONG value) {
  return SetRegistryValue(keyPath, name, REG_DWORD, &value, sizeof value);
}

}  // namespace ntsim
