// The machine that tests and tools drive: it boots a simulated kernel, loads and unloads the
// driver image, delivers shutdown, crashes and reboots, runs user-mode processes that talk to
// devices, writes the registry, and gives the verifier's verdict on what the driver left behind.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "fs/file_system.h"
#include "kernel.h"

namespace ntsim {

// What the verifier found when the driver went away (or now, for Check()).
struct Verdict {
  std::vector<Finding> findings;
  bool Clean() const { return findings.empty(); }
  std::string Report() const;  // one line per finding, or "clean"
};

class World;

// A user-mode process: opens devices and issues requests as the Win32 routines would.
class UserProcess {
 public:
  UserProcess(World& world, _KPROCESS* process, _KTHREAD* thread);
  uint64_t Id() const;
  // "\\.\Sentrel" or an NT path; returns the status CreateFile would have got from the kernel.
  NTSTATUS CreateFile(const std::u16string& path, ACCESS_MASK access, HANDLE* handle);
  IoResult DeviceIoControl(HANDLE handle, ULONG code, const void* in, ULONG inLength, void* out, ULONG outLength);
  IoResult ReadFile(HANDLE handle, void* buffer, ULONG length);
  IoResult WriteFile(HANDLE handle, const void* buffer, ULONG length);
  IoResult SendRequest(HANDLE handle, UCHAR majorFunction);  // a request with no buffers
  NTSTATUS CloseHandle(HANDLE handle);
  // RegSetValueEx: registry callbacks see the write before it happens.
  NTSTATUS SetRegistryValue(const std::u16string& keyPath, const std::u16string& name, ULONG type, const void* data,
                            ULONG size);
  _KPROCESS* Process() { return process_; }

 private:
  World& world_;
  _KPROCESS* process_;
  _KTHREAD* thread_;
};

class World {
 public:
  struct Options {
    MachineConfig machine;
    std::string driverImage;      // path of the driver's shared object; empty: the build's default
    bool echoDebugOutput = false;  // copy the debugger output to stderr as it comes
  };

  World();
  explicit World(Options options);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  Kernel& kernel() { return *kernel_; }
  Verifier& verifier() { return kernel_->verifier; }
  DebugOutput& debug() { return kernel_->debug; }

  // The service key the driver is loaded with, as the I/O manager names it.
  static const char16_t* ServiceKeyPath();

  // DriverEntry's status. A failed entry leaves no driver; LastVerdict() tells what it left behind.
  NTSTATUS LoadDriver();
  bool DriverLoaded() const { return driver_ != nullptr; }
  PDRIVER_OBJECT DriverObject() const { return driver_; }
  // Calls the unload routine (the driver must have one) and checks what is left.
  Verdict UnloadDriver();
  const Verdict& LastVerdict() const { return lastVerdict_; }

  // Orderly shutdown: IRP_MJ_SHUTDOWN to every registered device. The machine keeps running.
  void Shutdown();
  // Shutdown, then power off without unloading, then boot again with the same hives.
  void Reboot();
  // The machine stops at once: nothing is unloaded or notified; it boots again as it was left.
  void Crash();

  UserProcess& StartProcess(const std::u16string& imageName);

  // Registry set-up, with no callbacks (as if done before the driver loaded).
  void SetRegistryValueDirect(const std::u16string& keyPath, const std::u16string& name, ULONG type,
                              const void* data, size_t size);
  void SetRegistryDwordDirect(const std::u16string& keyPath, const std::u16string& name, ULONG value);
  // A registry write by a user-mode process.
  NTSTATUS SetRegistryValue(const std::u16string& keyPath, const std::u16string& name, ULONG type, const void* data,
                            ULONG size);
  NTSTATUS SetRegistryDword(const std::u16string& keyPath, const std::u16string& name, ULONG value);

  // The machine's files, by NT path ("\SystemRoot\System32\x.dat", "\??\C:\x"), as seen from
  // outside the running system (no requests, no callbacks). They survive reboots and crashes.
  std::optional<std::vector<uint8_t>> ReadFileBytes(const std::u16string& ntPath);
  bool WriteFileBytes(const std::u16string& ntPath, const std::vector<uint8_t>& bytes);
  bool DeleteFile(const std::u16string& ntPath);
  // Makes every write to the file fail with the given status (STATUS_SUCCESS: writes work again).
  void FailWrites(const std::u16string& ntPath, NTSTATUS status);

  // A buffer whose reads fault, for handing to the driver as a caller's bad pointer.
  void* FaultingBuffer(size_t size) { return kernel_->faults.ReserveFaultingRange(size); }

  // Runs fn as the system's driver-load thread (PASSIVE_LEVEL, kernel mode).
  template <typename Fn>
  auto AsSystem(Fn fn) {
    ThreadScope scope(systemThread_, KernelMode);
    return fn();
  }

 private:
  void Boot();
  void PowerOff();
  Verdict CheckDriverLeftovers(const char* when);
  void CloseImage();
  FileNode* FindFile(const std::u16string& ntPath, Volume** volume, std::u16string* key);

  Options options_;
  std::shared_ptr<KeyNode> hives_;
  std::shared_ptr<FileStore> files_;
  std::unique_ptr<Kernel> kernel_;
  _KTHREAD* systemThread_ = nullptr;
  std::vector<std::unique_ptr<UserProcess>> processes_;
  void* image_ = nullptr;
  PDRIVER_OBJECT driver_ = nullptr;
  Verdict lastVerdict_;
};

}  // namespace ntsim
