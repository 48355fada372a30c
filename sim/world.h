// The machine that tests and tools drive: it boots a simulated kernel, loads and unloads the
// driver image, delivers shutdown, crashes and reboots, runs user-mode processes that talk to
// devices, writes the registry, and gives the verifier's verdict on what the driver left behind.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fs/file_system.h"
#include "kernel.h"
#include "producer/quillet.h"
#include "ps/process_environment.h"

namespace ntsim {

// What the verifier found when the driver went away (or now, for Check()).
struct Verdict {
  std::vector<Finding> findings;
  bool Clean() const { return findings.empty(); }
  std::string Report() const;  // one line per finding, or "clean"
};

class World;

// A process to create: its id (0: the next free one), its parent (the System process by default)
// and the process whose thread creates it (the parent by default), its executable's NT path and
// command line as the creation notifications report them, and what its parameter block holds.
// The longest image path, command line or current directory a process can be given: Windows
// counts 32,767 characters with the terminating zero.
constexpr size_t kMaxProcessParameterChars = 32766;

struct ProcessSpec {
  uint64_t pid = 0;
  uint64_t parentPid = 4;
  uint64_t creatorPid = 0;
  std::u16string imagePath;  // "\??\C:\Windows\System32\notepad.exe"
  std::u16string commandLine;
  std::u16string currentDirectory = u"C:\\Windows\\System32\\";
  bool normalizedParameters = true;  // false: the parameter block's strings are still offsets
  bool wow64 = false;
  ULONG sessionId = 1;
  bool mapExecutable = true;  // its executable and ntdll.dll are mapped (and their loads notified)
  // Its primary token: the creator's logon session and integrity level unless these say otherwise
  // (logon 0: the creator's; the session must be logged on).
  uint64_t logonId = 0;
  std::optional<ULONG> integrityRid;
};

// A user logs on: the logon session's id, the user's domain (may be empty), name and SID, and the
// terminal-services session.
struct LogonSpec {
  uint64_t logonId = 0;
  std::u16string domain;
  std::u16string user;
  std::string sid;
  ULONG session = 1;
};

// An image to map into a process: its NT path, where (base 0: the next free place for an image of
// its kind) and how large (0: 128 KB), and what its PE headers say: the machine (0: the process's
// own, 0x14C in a Wow64 process, else 0x8664), a DLL or an executable, the optional header's
// checksum (unset: one derived from the path); or a header page that faults for every reader.
struct ImageSpec {
  std::u16string path;
  uint64_t base = 0;
  uint64_t size = 0;
  USHORT machine = 0;
  bool dll = true;
  std::optional<ULONG> checksum;
  bool readableHeader = true;
};

// The parts of a process's own memory that a test can make fault.
enum class ProcessMemoryPart { EnvironmentBlock, Parameters, CommandLine, CurrentDirectory };

// A user-mode process: opens devices and issues requests as the Win32 routines would. Each host
// thread that calls it acts as a thread of its own in the process (the first as its initial
// thread), so several host threads may use one process at once.
class UserProcess {
 public:
  UserProcess(World& world, _KPROCESS* process, _KTHREAD* initialThread);
  ~UserProcess();
  UserProcess(const UserProcess&) = delete;
  UserProcess& operator=(const UserProcess&) = delete;
  uint64_t Id() const;
  uint64_t InitialThreadId() const { return initialThreadId_; }
  // The id of the thread the calling host thread acts as in this process.
  uint64_t CurrentThreadId();
  // "\\.\Sentrel" or an NT path; returns the status CreateFile would have got from the kernel.
  // An overlapped handle (FILE_FLAG_OVERLAPPED) is for the overlapped calls below; a synchronous one
  // makes every call wait for its request's completion.
  NTSTATUS CreateFile(const std::u16string& path, ACCESS_MASK access, HANDLE* handle, bool overlapped = false);
  // The synchronous calls: each returns once its request is completed, however long it stays
  // pending in the driver.
  IoResult DeviceIoControl(HANDLE handle, ULONG code, const void* in, ULONG inLength, void* out, ULONG outLength);
  IoResult ReadFile(HANDLE handle, void* buffer, ULONG length);
  IoResult WriteFile(HANDLE handle, const void* buffer, ULONG length);
  IoResult SendRequest(HANDLE handle, UCHAR majorFunction);  // a request with no buffers
  // The overlapped calls, with an OVERLAPPED whose event the request carries (Irp->UserEvent): on
  // an overlapped handle IssueStatus() is STATUS_PENDING while the request waits in its driver;
  // Wait() and Result() are GetOverlappedResult's. The buffers must outlive the request.
  std::shared_ptr<PendingIo> ReadFileOverlapped(HANDLE handle, void* buffer, ULONG length, uint64_t offset = 0);
  std::shared_ptr<PendingIo> WriteFileOverlapped(HANDLE handle, const void* buffer, ULONG length,
                                                 uint64_t offset = 0);
  std::shared_ptr<PendingIo> DeviceIoControlOverlapped(HANDLE handle, ULONG code, const void* in, ULONG inLength,
                                                       void* out, ULONG outLength);
  // CancelIo: the calling thread's requests on the handle, cancelled and waited for.
  // CancelIoEx: the process's requests on the handle (or only `request`), not waited for;
  // STATUS_NOT_FOUND when there is none to cancel.
  NTSTATUS CancelIo(HANDLE handle);
  NTSTATUS CancelIoEx(HANDLE handle, const PendingIo* request = nullptr);
  NTSTATUS CloseHandle(HANDLE handle);
  // DuplicateHandle into another process, with the same access: both handles name one file object.
  NTSTATUS DuplicateHandle(HANDLE handle, UserProcess& target, HANDLE* duplicate);
  // RegSetValueEx: registry callbacks see the write before it happens.
  NTSTATUS SetRegistryValue(const std::u16string& keyPath, const std::u16string& name, ULONG type, const void* data,
                            ULONG size);
  _KPROCESS* Process() { return process_; }
  const EnvironmentBlock& Environment() const { return environment_; }
  // Whether the process has exited (ExitProcess, or its last thread ended).
  bool Exited() const;
  // What the process-creation routines left in CreationStatus. A routine may refuse the process
  // by setting an error there; the world records the answer but creates the process all the same.
  NTSTATUS CreationStatus() const { return creationStatus_; }
  // Runs fn in the calling host thread's thread of this process, as a driver routine runs inside a
  // request the process made (kernel code, previous mode user): for calling the driver's routines
  // in the process's context.
  template <typename Fn>
  auto InProcess(Fn fn) {
    ThreadScope scope(Thread(), UserMode);
    return fn();
  }

 private:
  friend class World;
  _KTHREAD* Thread();  // the calling host thread's thread in this process

  World& world_;
  _KPROCESS* process_;
  uint64_t initialThreadId_;
  NTSTATUS creationStatus_ = STATUS_SUCCESS;
  EnvironmentBlock environment_;
};

class World {
 public:
  struct Options {
    MachineConfig machine;
    std::string driverImage;      // path of the driver's shared object; empty: the build's default
    bool echoDebugOutput = false;  // copy the debugger output to stderr as it comes
    // Boot with the processes a Windows machine runs before anyone logs on: wininit.exe
    // (kWininitPid) and the service control manager, C:\Windows\System32\services.exe
    // (kServicesPid), as SYSTEM in session 0.
    bool usualProcesses = false;
  };
  static constexpr uint64_t kWininitPid = 560;
  static constexpr uint64_t kServicesPid = 640;

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
  // The machine boots with the user hives \REGISTRY\USER\.DEFAULT, S-1-5-18, S-1-5-19, S-1-5-20
  // and those of one logged-on user: <sid> and <sid>_Classes, with this SID.
  static const char16_t* LoggedOnUserSid();
  // Another user logs on: their hive and classes hive are loaded under \REGISTRY\USER.
  void LoadUserHive(const std::u16string& sid);
  // The logged-on user's session from boot: LoggedOnUserLogonId(), "SENTREL-LAB\analyst", the
  // SID above, terminal-services session 1. SYSTEM (0x3E7), LOCAL SERVICE (0x3E5) and NETWORK
  // SERVICE (0x3E4) exist from boot too.
  static uint64_t LoggedOnUserLogonId();
  // A logon session begins (its user's hive is loaded) or ends; a bad SID or an unknown session
  // stops the test. Processes keep the tokens they have.
  void LogOn(const LogonSpec& logon);
  void LogOff(uint64_t logonId);

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

  // Processes, threads and images. Each of these may be called from several host threads at once;
  // the notifications run on the calling host thread, in the simulated thread the kernel documents:
  //  - process creation: a thread of the parent (the calling host thread's thread there), inside a
  //    critical region; then the initial thread's creation, in the same thread;
  //  - thread creation: the creating thread (of `creator`, or else of the process itself);
  //  - thread exit: the exiting thread, after the requests still queued to it (synchronous and
  //    overlapped ones) have been cancelled and completed; process exit: its last thread, after
  //    that thread's exit, inside a critical region; the process's handles are closed then;
  //  - image mapping: a thread of the process the image is mapped into (kernel images: the System
  //    process, with process id 0 and SystemModeImage set), inside a critical region.
  // Ending a process or thread that has already ended does nothing. A process must not be used by
  // other host threads while it exits.
  UserProcess& CreateProcess(const ProcessSpec& spec);
  // The producer driver Quillet (sim/producer/quillet.h), loaded beside the driver under test or
  // before it; its methods run inside AsSystem or a process's InProcess.
  NTSTATUS LoadProducerDriver();
  void UnloadProducerDriver();
  Quillet* ProducerDriver() { return quillet_.get(); }
  // The process with this id that CreateProcess made and that has not exited; null if none.
  UserProcess* FindUserProcess(uint64_t pid);
  // CreateProcess with the System process as parent; a bare file name is taken from System32.
  UserProcess& StartProcess(const std::u16string& imageName);
  void ExitProcess(UserProcess& process);
  // The caller is done with an exited process: the world's record of it goes (the process object
  // goes with its last reference), so that a long run keeps only its live processes. A process
  // that has not exited stops the test.
  void ForgetProcess(UserProcess& process);
  // The new thread's id; startAddress is where its user-mode code starts (its Win32 start address).
  // threadId: the id the new thread gets (0: the next free one; an id in use stops the test);
  // creatorThreadId: which of the creator's threads creates it (0: the calling host thread's).
  uint64_t StartThread(UserProcess& process, UserProcess* creator = nullptr, uint64_t startAddress = 0,
                       uint64_t threadId = 0, uint64_t creatorThreadId = 0);
  void ExitThread(uint64_t threadId);
  // The user-mode call stack (return addresses, innermost first) of a thread, or of the calling
  // host thread's thread in the process; call it while that thread runs nothing else.
  void SetUserStack(uint64_t threadId, std::vector<uint64_t> frames);
  void SetUserStack(UserProcess& process, std::vector<uint64_t> frames);
  // Maps an image view into the process's address space (a header page, code, then data; base 0:
  // the next free place for an image of its kind; size 0: 128 KB) and notifies its load. Returns
  // its base. A base that is not free stops the test.
  uint64_t MapImage(UserProcess& process, const std::u16string& ntImagePath, uint64_t base = 0, uint64_t size = 0);
  uint64_t MapImage(UserProcess& process, const ImageSpec& image);
  // Any other allocation of the process's own: reserved (MEM_RESERVE) or committed private memory.
  void AllocatePrivate(UserProcess& process, uint64_t base, uint64_t size, bool commit);
  // Loads a kernel driver image: it joins the module list and its load is notified (process id 0,
  // SystemModeImage set) in a thread of the System process, as a load by the service control
  // manager runs, or in a thread of `loader` (a process that loads a driver itself). Returns its base.
  uint64_t LoadKernelImage(const std::u16string& ntImagePath, uint64_t base = 0, uint64_t size = 0x20000,
                           UserProcess* loader = nullptr);
  // Makes a part of the process's memory fault from now on, for every reader.
  void MakeProcessMemoryFault(UserProcess& process, ProcessMemoryPart part);
  // Runs before every answer to the query for the running processes (null: nothing runs).
  void OnProcessSnapshot(std::function<void()> hook);
  // Makes the named notify-registration routine ("PsSetCreateProcessNotifyRoutineEx2", ...) fail
  // with the status when it registers a routine; STATUS_SUCCESS makes it work again.
  void FailNotifyRegistration(const std::string& routine, NTSTATUS status);

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
  // A directory (its parent must exist); true if it is there now, made or found.
  bool MakeDirectory(const std::u16string& ntPath);

  // Volumes and drive letters, as disks arrive and leave and the owner changes letters. The world
  // boots with C: = \Device\HarddiskVolume3 (the system root C:\Windows), D: =
  // \Device\HarddiskVolume5, the letterless system-reserved \Device\HarddiskVolume1, and the network
  // redirector \Device\Mup behind \??\UNC. Changes outlive reboots and crashes. Each may be called
  // from any host thread while a driver runs; a request the machine cannot carry out (no such
  // volume, a letter outside A-Z, a name taken by another object) stops the test with a message.
  //  - AddVolume: a volume, with its root directory if new, gets its device and, with a letter, its
  //    link \??\X:. A removed volume added again finds its files as it left them.
  //  - RemoveVolume: its device and letter go; its files stay in the store, and files still open
  //    on it fail their transfers with STATUS_NO_SUCH_DEVICE.
  //  - AssignDriveLetter: creates or moves the volume's \??\X:; a volume that had the letter loses it.
  //  - SetVolumeMountFolder: the folder ("C:\Mount\Data\") the mount manager reports for the
  //    volume while it has no letter; empty: none.
  void AddVolume(const std::u16string& device, char16_t letter = 0, bool knownToMountManager = true);
  void RemoveVolume(const std::u16string& device);
  void AssignDriveLetter(const std::u16string& device, char16_t letter);
  void RemoveDriveLetter(char16_t letter);
  void SetVolumeMountFolder(const std::u16string& device, const std::u16string& folder);

  // The mount point manager, for tests. A status other than STATUS_SUCCESS fails every volume-path
  // query with it; pending answers come from another host thread shortly after the dispatch
  // returns STATUS_PENDING. Both settings outlive reboots; the count starts again at each boot.
  void MountManagerFailQueries(NTSTATUS status);
  void MountManagerAnswerPending(bool pending);
  size_t MountManagerQueryCount();

  // A buffer whose reads fault, for handing to the driver as a caller's bad pointer.
  void* FaultingBuffer(size_t size) { return kernel_->faults.ReserveFaultingRange(size); }

  // Runs fn as the calling host thread's system thread (PASSIVE_LEVEL, kernel mode): on the host
  // thread that loads the driver, the driver-load thread.
  template <typename Fn>
  auto AsSystem(Fn fn) {
    ThreadScope scope(kernel_->ps.ActingThread(kernel_->ps.System()), KernelMode);
    return fn();
  }

 private:
  void Boot();
  void StartUsualProcesses();
  void PowerOff();
  Verdict CheckDriverLeftovers(const char* when);
  void CloseImage();
  FileNode* FindFile(const std::u16string& ntPath, Volume** volume, std::u16string* key);
  void EndThread(_KTHREAD* thread);
  void NotifyThreadEnd(_KTHREAD* thread, bool last);  // runs as the thread
  void NotifyImage(const std::u16string& ntImagePath, uint64_t processId, uint64_t base, uint64_t size,
                   bool kernelImage);
  uint64_t PlaceImage(_KPROCESS* process, const ImageSpec& image, uint64_t from = 0);
  std::u16string DevicePath(const std::u16string& ntPath);

  Options options_;
  std::shared_ptr<KeyNode> hives_;
  std::shared_ptr<FileStore> files_;
  std::unique_ptr<Kernel> kernel_;
  std::mutex processesMutex_;  // guards processes_ (each UserProcess stays where it is)
  std::vector<std::unique_ptr<UserProcess>> processes_;
  std::unique_ptr<Quillet> quillet_;
  void* image_ = nullptr;
  PDRIVER_OBJECT driver_ = nullptr;
  Verdict lastVerdict_;
  NTSTATUS mountManagerFailure_ = STATUS_SUCCESS;
  bool mountManagerPending_ = false;
};

}  // namespace ntsim
