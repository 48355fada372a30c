// The simulated object manager and I/O manager as a driver and its user-mode callers observe
// them: the namespace and its symbolic links, ObQueryNameString's buffer protocol, handles, and a
// small driver defined here whose device a user process opens, reads, writes, controls and closes.
// The verifier's request checks (completed twice, never completed, pending but not marked) are
// provoked on purpose; a request left pending is completed from another host thread.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ntsim/ntsim.h"
#include "world.h"
#include "sim_test_support.h"

using ntsim::IoResult;
using ntsim::ObjectHeader;
using ntsim::UserProcess;
using ntsim::Verifier;
using ntsim::World;

namespace {

using sim_test::Eventually;
using sim_test::HostThread;
using sim_test::RecordViolations;
using sim_test::ViolationCalls;

using namespace std::chrono_literals;

constexpr uint64_t kKernelHandleBits = 0xFFFFFFFF80000000ull;





// A counted string over text that outlives it.
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

// The object's name as ObQueryNameString gives it, or "<status>" on failure.
std::string QueryName(PVOID object) {
  ULONG needed = 0;
  ObQueryNameString(object, nullptr, 0, &needed);
  std::vector<ULONG_PTR> buffer(needed / sizeof(ULONG_PTR) + 1);
  auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer.data());
  NTSTATUS status = ObQueryNameString(object, info, needed, &needed);
  if (!NT_SUCCESS(status)) return "<" + std::to_string(status) + ">";
  return Utf8(info->Name);
}

bool Exists(World& world, const std::u16string& path, bool openLink = false, POBJECT_TYPE* type = nullptr) {
  ObjectHeader* header = nullptr;
  if (!NT_SUCCESS(world.kernel().ob.Lookup(path, openLink, &header, nullptr))) return false;
  if (type) *type = header->type;
  world.kernel().ob.Dereference(header->Body());
  return true;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

// ---------------------------------------------------------------------------------------------
// A driver written for these tests: its dispatch routines log each request and hand it to a
// per-major handler, or complete it with success.

class TestDriver {
 public:
  struct Request {
    UCHAR major;
    PDEVICE_OBJECT device;
  };
  using Handler = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;

  explicit TestDriver(World& world, const std::u16string& name = u"\\Driver\\SimTest") {
    driver_ = world.kernel().io.CreateDriverObject(name, nullptr);
    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL,
                        IRP_MJ_SHUTDOWN, IRP_MJ_CLEANUP}) {
      driver_->MajorFunction[major] = Dispatch;
    }
  }

  // A device whose extension points back at this driver. Ready devices have finished initialising.
  PDEVICE_OBJECT AddDevice(const std::u16string& name, ULONG flags = 0, bool ready = true, BOOLEAN exclusive = FALSE) {
    UNICODE_STRING counted = Counted(name);
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(driver_, sizeof(TestDriver*), name.empty() ? nullptr : &counted,
                                     FILE_DEVICE_UNKNOWN, 0, exclusive, &device);
    EXPECT_EQ(status, STATUS_SUCCESS);
    if (!NT_SUCCESS(status)) return nullptr;
    *static_cast<TestDriver**>(device->DeviceExtension) = this;
    device->Flags |= flags;
    if (ready) device->Flags &= ~DO_DEVICE_INITIALIZING;
    return device;
  }

  PDRIVER_OBJECT Object() { return driver_; }

  std::vector<UCHAR> Majors() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<UCHAR> majors;
    for (const Request& r : log_) majors.push_back(r.major);
    return majors;
  }
  std::vector<Request> Log() {
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
  }
  void ClearLog() {
    std::lock_guard<std::mutex> lock(mutex_);
    log_.clear();
  }

  Handler on[IRP_MJ_MAXIMUM_FUNCTION + 1];

 private:
  static NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    auto* self = *static_cast<TestDriver**>(device->DeviceExtension);
    UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->log_.push_back({major, device});
    }
    if (self->on[major]) return self->on[major](device, irp);
    return Complete(irp, STATUS_SUCCESS);
  }

  PDRIVER_OBJECT driver_;
  std::mutex mutex_;
  std::vector<Request> log_;
};

using Majors = std::vector<UCHAR>;

// ---------------------------------------------------------------------------------------------
// The object namespace

TEST(NamespaceTest, DosDevicesIsALinkToTheDosDevicesDirectory) {
  World world;
  POBJECT_TYPE type = nullptr;
  ASSERT_TRUE(Exists(world, u"\\DosDevices", true, &type));
  EXPECT_EQ(type, &world.kernel().ob.types.symbolicLink);
  ASSERT_TRUE(Exists(world, u"\\DosDevices", false, &type));
  EXPECT_EQ(type, &world.kernel().ob.types.directory);

  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest");
  std::u16string link = u"\\DosDevices\\SimTest", target = u"\\Device\\SimTest";
  UNICODE_STRING linkName = Counted(link), targetName = Counted(target);
  ASSERT_EQ(IoCreateSymbolicLink(&linkName, &targetName), STATUS_SUCCESS);
  ASSERT_TRUE(Exists(world, u"\\??\\SimTest", true, &type));  // the same directory
  EXPECT_EQ(type, &world.kernel().ob.types.symbolicLink);
  ASSERT_TRUE(Exists(world, u"\\??\\simtest", false, &type));  // names are case-insensitive
  EXPECT_EQ(type, &world.kernel().ob.types.device);

  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\\\.\\SimTest", GENERIC_READ, &handle), STATUS_SUCCESS);
  EXPECT_EQ(app.CloseHandle(handle), STATUS_SUCCESS);

  ASSERT_EQ(IoDeleteSymbolicLink(&linkName), STATUS_SUCCESS);
  EXPECT_FALSE(Exists(world, u"\\??\\SimTest", true));
  EXPECT_EQ(app.CreateFile(u"\\\\.\\SimTest", GENERIC_READ, &handle), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(IoDeleteSymbolicLink(&linkName), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST(NamespaceTest, LinksAreFollowedInTheMiddleOfAPath) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest");
  std::u16string fileName;
  driver.on[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
    fileName = ntsim::ToU16(&IoGetCurrentIrpStackLocation(irp)->FileObject->FileName);
    return Complete(irp, STATUS_SUCCESS);
  };
  std::u16string drive = u"\\??\\Q:", device = u"\\Device\\SimTest", alias = u"\\Devices", directory = u"\\Device";
  UNICODE_STRING driveName = Counted(drive), deviceName = Counted(device);
  UNICODE_STRING aliasName = Counted(alias), directoryName = Counted(directory);
  ASSERT_EQ(IoCreateSymbolicLink(&driveName, &deviceName), STATUS_SUCCESS);
  ASSERT_EQ(IoCreateSymbolicLink(&aliasName, &directoryName), STATUS_SUCCESS);

  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = nullptr;
  // The rest of the path after the device is the file name within it.
  ASSERT_EQ(app.CreateFile(u"Q:\\dir\\file.txt", GENERIC_READ, &handle), STATUS_SUCCESS);
  EXPECT_EQ(ntsim::ToUtf8(fileName), "\\dir\\file.txt");
  app.CloseHandle(handle);
  // A link to a directory, followed by a name within it.
  ASSERT_EQ(app.CreateFile(u"\\Devices\\SimTest\\x", GENERIC_READ, &handle), STATUS_SUCCESS);
  EXPECT_EQ(ntsim::ToUtf8(fileName), "\\x");
  app.CloseHandle(handle);

  EXPECT_EQ(app.CreateFile(u"\\\\.\\NoSuchDevice", GENERIC_READ, &handle), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(app.CreateFile(u"R:\\dir\\file.txt", GENERIC_READ, &handle), STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(app.CreateFile(u"\\Device", GENERIC_READ, &handle), STATUS_OBJECT_TYPE_MISMATCH);  // a directory

  // A link that leads to itself ends the lookup instead of looping.
  std::u16string loop = u"\\??\\Loop";
  UNICODE_STRING loopName = Counted(loop);
  ASSERT_EQ(IoCreateSymbolicLink(&loopName, &loopName), STATUS_SUCCESS);
  EXPECT_FALSE(NT_SUCCESS(app.CreateFile(u"\\\\.\\Loop", GENERIC_READ, &handle)));
}

TEST(NamespaceTest, ANameTakenIsACollisionWhateverItsCase) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest");
  std::u16string same = u"\\device\\SIMTEST";
  UNICODE_STRING sameName = Counted(same);
  PDEVICE_OBJECT second = nullptr;
  EXPECT_EQ(IoCreateDevice(driver.Object(), 0, &sameName, FILE_DEVICE_UNKNOWN, 0, FALSE, &second),
            STATUS_OBJECT_NAME_COLLISION);
  EXPECT_EQ(driver.Object()->DeviceObject->NextDevice, nullptr) << "the failed device was not added";

  std::u16string link = u"\\??\\SimTest", target = u"\\Device\\SimTest", other = u"\\Device\\Other";
  UNICODE_STRING linkName = Counted(link), targetName = Counted(target), otherName = Counted(other);
  ASSERT_EQ(IoCreateSymbolicLink(&linkName, &targetName), STATUS_SUCCESS);
  EXPECT_EQ(IoCreateSymbolicLink(&linkName, &otherName), STATUS_OBJECT_NAME_COLLISION);
  std::u16string viaDosDevices = u"\\DosDevices\\simtest";
  UNICODE_STRING viaDosDevicesName = Counted(viaDosDevices);
  EXPECT_EQ(IoCreateSymbolicLink(&viaDosDevicesName, &otherName), STATUS_OBJECT_NAME_COLLISION);

  std::u16string orphan = u"\\NoSuchDirectory\\Device";
  UNICODE_STRING orphanName = Counted(orphan);
  EXPECT_EQ(IoCreateDevice(driver.Object(), 0, &orphanName, FILE_DEVICE_UNKNOWN, 0, FALSE, &second),
            STATUS_OBJECT_PATH_NOT_FOUND);
}

// ---------------------------------------------------------------------------------------------
// ObQueryNameString

TEST(QueryNameTest, TooSmallGivesTheNeededLengthAndSuccessFillsTheBufferBehindTheHeader) {
  World world;
  TestDriver driver(world);
  PDEVICE_OBJECT device = driver.AddDevice(u"\\Device\\SimTest");
  const std::string name = "\\Device\\SimTest";
  const ULONG needed = sizeof(OBJECT_NAME_INFORMATION) + (name.size() + 1) * sizeof(WCHAR);

  ULONG returned = 0;
  EXPECT_EQ(ObQueryNameString(device, nullptr, 0, &returned), STATUS_INFO_LENGTH_MISMATCH);
  EXPECT_EQ(returned, needed);
  std::vector<ULONG_PTR> storage(64, ~ULONG_PTR(0));
  auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(storage.data());
  returned = 0;
  EXPECT_EQ(ObQueryNameString(device, info, needed - 1, &returned), STATUS_INFO_LENGTH_MISMATCH);
  EXPECT_EQ(returned, needed);
  EXPECT_EQ(storage[0], ~ULONG_PTR(0)) << "nothing is returned with the mismatch";

  ASSERT_EQ(ObQueryNameString(device, info, needed, &returned), STATUS_SUCCESS);
  EXPECT_EQ(returned, needed);
  EXPECT_EQ(info->Name.Buffer, reinterpret_cast<PWSTR>(info + 1));
  EXPECT_EQ(info->Name.Length, name.size() * sizeof(WCHAR));
  EXPECT_EQ(info->Name.MaximumLength, info->Name.Length + sizeof(WCHAR));
  EXPECT_EQ(Utf8(info->Name), name);
  EXPECT_EQ(info->Name.Buffer[name.size()], 0);

  // An unnamed object: success with an empty name.
  PDEVICE_OBJECT unnamed = driver.AddDevice(u"");
  ASSERT_EQ(ObQueryNameString(unnamed, info, sizeof(storage[0]) * storage.size(), &returned), STATUS_SUCCESS);
  EXPECT_EQ(info->Name.Length, 0);
  EXPECT_EQ(info->Name.MaximumLength, 0);
  EXPECT_EQ(info->Name.Buffer, nullptr);
}

// ---------------------------------------------------------------------------------------------
// Handles

TEST(HandleTest, KernelHandlesAreRecognisableAndCheckedOnUse) {
  World world;
  RecordViolations(world);
  TestDriver driver(world);
  PDEVICE_OBJECT device = driver.AddDevice(u"\\Device\\SimTest");

  HANDLE kernel = nullptr, process = nullptr;
  ASSERT_EQ(ObOpenObjectByPointer(device, OBJ_KERNEL_HANDLE, nullptr, READ_CONTROL, *IoDeviceObjectType,
                                  KernelMode, &kernel),
            STATUS_SUCCESS);
  ASSERT_EQ(ObOpenObjectByPointer(device, 0, nullptr, READ_CONTROL, *IoDeviceObjectType, KernelMode, &process),
            STATUS_SUCCESS);
  auto bits = [](HANDLE h) { return reinterpret_cast<uint64_t>(h); };
  EXPECT_EQ(bits(kernel) & kKernelHandleBits, kKernelHandleBits);
  EXPECT_EQ(bits(process) & kKernelHandleBits, 0u);
  EXPECT_EQ(bits(kernel) % 4, 0u);
  EXPECT_EQ(bits(process) % 4, 0u);
  EXPECT_EQ(ObOpenObjectByPointer(device, OBJ_KERNEL_HANDLE, nullptr, 0, *IoFileObjectType, KernelMode, &kernel),
            STATUS_OBJECT_TYPE_MISMATCH);

  PVOID object = nullptr;
  EXPECT_EQ(ObReferenceObjectByHandle(kernel, 0, *IoFileObjectType, KernelMode, &object, nullptr),
            STATUS_OBJECT_TYPE_MISMATCH);
  OBJECT_HANDLE_INFORMATION handleInfo{};
  ASSERT_EQ(ObReferenceObjectByHandle(kernel, FILE_READ_DATA, *IoDeviceObjectType, KernelMode, &object, &handleInfo),
            STATUS_SUCCESS);
  EXPECT_EQ(object, device);
  EXPECT_EQ(handleInfo.GrantedAccess, static_cast<ACCESS_MASK>(READ_CONTROL));
  ObDereferenceObject(object);
  // A kernel handle means nothing to a user-mode caller; user-mode access is checked.
  EXPECT_EQ(ObReferenceObjectByHandle(kernel, 0, nullptr, UserMode, &object, nullptr), STATUS_INVALID_HANDLE);
  EXPECT_EQ(ObReferenceObjectByHandle(process, FILE_WRITE_DATA, nullptr, UserMode, &object, nullptr),
            STATUS_ACCESS_DENIED);
  EXPECT_TRUE(world.verifier().Violations().empty());

  EXPECT_EQ(ZwClose(kernel), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(process), STATUS_SUCCESS);
  EXPECT_EQ(ObReferenceObjectByHandle(kernel, 0, nullptr, KernelMode, &object, nullptr), STATUS_INVALID_HANDLE);
  EXPECT_TRUE(world.verifier().Violations().empty());
  EXPECT_EQ(ZwClose(kernel), STATUS_INVALID_HANDLE);  // closed already
  EXPECT_EQ(ZwClose(reinterpret_cast<HANDLE>(kKernelHandleBits | 0x7FF0)), STATUS_INVALID_HANDLE);  // never opened
  EXPECT_EQ(ViolationCalls(world), (std::vector<std::string>{"ZwClose", "ZwClose"}));
}

TEST(HandleTest, AUserHandleBelongsToItsProcess) {
  World world;
  RecordViolations(world);
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest");
  UserProcess& owner = world.StartProcess(u"owner.exe");
  UserProcess& stranger = world.StartProcess(u"stranger.exe");
  HANDLE handle = nullptr;
  ASSERT_EQ(owner.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &handle), STATUS_SUCCESS);
  EXPECT_EQ(reinterpret_cast<uint64_t>(handle) & kKernelHandleBits, 0u);
  char buffer[4];
  EXPECT_EQ(stranger.ReadFile(handle, buffer, sizeof buffer).status, STATUS_INVALID_HANDLE);
  EXPECT_EQ(stranger.CloseHandle(handle), STATUS_INVALID_HANDLE);
  EXPECT_EQ(driver.Majors(), Majors{IRP_MJ_CREATE});
  EXPECT_TRUE(world.verifier().Violations().empty()) << "a user-mode caller's bad handle is an error, not a bug";
  EXPECT_EQ(owner.CloseHandle(handle), STATUS_SUCCESS);
  EXPECT_EQ(owner.CloseHandle(handle), STATUS_INVALID_HANDLE);
}

// ---------------------------------------------------------------------------------------------
// Requests from a user process to the test driver

TEST(DeviceRequestTest, OpeningWaitsForTheDeviceToFinishInitialising) {
  World world;
  TestDriver driver(world);
  PDEVICE_OBJECT device = driver.AddDevice(u"\\Device\\SimTest", 0, /*ready=*/false);
  ASSERT_TRUE(device->Flags & DO_DEVICE_INITIALIZING);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = nullptr;
  EXPECT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &handle), STATUS_NO_SUCH_DEVICE);
  EXPECT_TRUE(driver.Majors().empty());

  device->Flags &= ~DO_DEVICE_INITIALIZING;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &handle), STATUS_SUCCESS);
  EXPECT_EQ(driver.Majors(), Majors{IRP_MJ_CREATE});

  // The driver may refuse the open: no handle, and no cleanup or close follows.
  driver.ClearLog();
  driver.on[IRP_MJ_CREATE] = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_ACCESS_DENIED); };
  HANDLE refused = nullptr;
  EXPECT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &refused), STATUS_ACCESS_DENIED);
  EXPECT_EQ(driver.Majors(), Majors{IRP_MJ_CREATE});
  EXPECT_EQ(app.CloseHandle(handle), STATUS_SUCCESS);
}

TEST(DeviceRequestTest, AnExclusiveDeviceTakesOneOpenAtATime) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest", 0, true, /*exclusive=*/TRUE);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE first = nullptr, second = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &first), STATUS_SUCCESS);
  EXPECT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &second), STATUS_ACCESS_DENIED);
  ASSERT_EQ(app.CloseHandle(first), STATUS_SUCCESS);
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &second), STATUS_SUCCESS);
  app.CloseHandle(second);
}

TEST(DeviceRequestTest, ClosingTheLastHandleSendsCleanupThenClose) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest");
  PFILE_OBJECT file = nullptr;
  driver.on[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
    file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    return Complete(irp, STATUS_SUCCESS);
  };
  std::vector<HANDLE> cleanupProcess;
  std::vector<PFILE_OBJECT> closedFiles;
  driver.on[IRP_MJ_CLEANUP] = [&](PDEVICE_OBJECT, PIRP irp) {
    cleanupProcess.push_back(PsGetCurrentProcessId());
    return Complete(irp, STATUS_SUCCESS);
  };
  driver.on[IRP_MJ_CLOSE] = [&](PDEVICE_OBJECT, PIRP irp) {
    closedFiles.push_back(IoGetCurrentIrpStackLocation(irp)->FileObject);
    return Complete(irp, STATUS_SUCCESS);
  };
  UserProcess& app = world.StartProcess(u"app.exe");

  HANDLE handle = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &handle), STATUS_SUCCESS);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(QueryName(file), "\\Device\\SimTest");
  ASSERT_EQ(app.CloseHandle(handle), STATUS_SUCCESS);
  EXPECT_EQ(driver.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
  ASSERT_EQ(cleanupProcess.size(), 1u);
  EXPECT_EQ(reinterpret_cast<uint64_t>(cleanupProcess[0]), app.Id()) << "cleanup comes in the closing process";
  EXPECT_EQ(closedFiles, std::vector<PFILE_OBJECT>{file});

  // With a second handle to the same file, closing the first sends nothing.
  driver.ClearLog();
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest\\name", GENERIC_READ, &handle), STATUS_SUCCESS);
  EXPECT_EQ(QueryName(file), "\\Device\\SimTest\\name");
  HANDLE kernelHandle = nullptr;
  ASSERT_EQ(ObOpenObjectByPointer(file, OBJ_KERNEL_HANDLE, nullptr, FILE_READ_DATA, *IoFileObjectType, KernelMode,
                                  &kernelHandle),
            STATUS_SUCCESS);
  ASSERT_EQ(app.CloseHandle(handle), STATUS_SUCCESS);
  EXPECT_EQ(driver.Majors(), Majors{IRP_MJ_CREATE});
  ASSERT_EQ(ZwClose(kernelHandle), STATUS_SUCCESS);
  EXPECT_EQ(driver.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));

  // A referenced file object is closed when the last reference goes, after its cleanup.
  driver.ClearLog();
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &handle), STATUS_SUCCESS);
  ObReferenceObject(file);
  ASSERT_EQ(app.CloseHandle(handle), STATUS_SUCCESS);
  EXPECT_EQ(driver.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP}));
  ObDereferenceObject(file);
  EXPECT_EQ(driver.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
}

TEST(DeviceRequestTest, ReadsGetTheBuffersTheDeviceAskedFor) {
  World world;
  TestDriver driver(world);
  PDEVICE_OBJECT buffered = driver.AddDevice(u"\\Device\\Buffered", DO_BUFFERED_IO);
  PDEVICE_OBJECT direct = driver.AddDevice(u"\\Device\\Direct", DO_DIRECT_IO);
  PDEVICE_OBJECT neither = driver.AddDevice(u"\\Device\\Neither");
  struct Seen {
    ULONG length = 0;
    PVOID systemBuffer = nullptr;
    PVOID userBuffer = nullptr;
    PMDL mdl = nullptr;
    ULONG mdlBytes = 0;
    PCHAR mdlAddress = nullptr;
    KPROCESSOR_MODE requestorMode = KernelMode;
  } seen;
  driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT device, PIRP irp) {
    seen = Seen();
    seen.length = IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length;
    seen.systemBuffer = irp->AssociatedIrp.SystemBuffer;
    seen.userBuffer = irp->UserBuffer;
    seen.mdl = irp->MdlAddress;
    seen.requestorMode = irp->RequestorMode;
    if (seen.mdl) {
      seen.mdlBytes = seen.mdl->ByteCount;
      seen.mdlAddress = static_cast<PCHAR>(seen.mdl->StartVa) + seen.mdl->ByteOffset;
    }
    if (device == buffered) std::memcpy(seen.systemBuffer, "kernel", 6);
    return Complete(irp, STATUS_SUCCESS, 6);
  };
  UserProcess& app = world.StartProcess(u"app.exe");
  auto open = [&](const char16_t* path) {
    HANDLE h = nullptr;
    EXPECT_EQ(app.CreateFile(path, GENERIC_READ, &h), STATUS_SUCCESS);
    return h;
  };

  // Buffered: the driver fills a kernel buffer; Information bytes of it reach the caller.
  char user[16];
  std::memset(user, 'u', sizeof user);
  IoResult result = app.ReadFile(open(u"\\Device\\Buffered"), user, sizeof user);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.information, 6u);
  EXPECT_EQ(seen.length, sizeof user);
  EXPECT_NE(seen.systemBuffer, nullptr);
  EXPECT_NE(seen.systemBuffer, static_cast<void*>(user));
  EXPECT_EQ(seen.mdl, nullptr);
  EXPECT_EQ(seen.requestorMode, UserMode);
  EXPECT_EQ(std::string(user, sizeof user), "kerneluuuuuuuuuu");

  // Direct: an MDL that describes the caller's buffer.
  result = app.ReadFile(open(u"\\Device\\Direct"), user, sizeof user);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  ASSERT_NE(seen.mdl, nullptr);
  EXPECT_EQ(seen.mdlBytes, sizeof user);
  EXPECT_EQ(seen.mdlAddress, user);
  EXPECT_EQ(seen.systemBuffer, nullptr);

  // Neither: the caller's own pointer.
  result = app.ReadFile(open(u"\\Device\\Neither"), user, sizeof user);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(seen.userBuffer, static_cast<void*>(user));
  EXPECT_EQ(seen.systemBuffer, nullptr);
  EXPECT_EQ(seen.mdl, nullptr);
  (void)direct;
  (void)neither;
}

TEST(DeviceRequestTest, WritesNeedWriteAccessAndCarryTheCallersBytes) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest", DO_BUFFERED_IO);
  std::string written;
  driver.on[IRP_MJ_WRITE] = [&](PDEVICE_OBJECT, PIRP irp) {
    ULONG length = IoGetCurrentIrpStackLocation(irp)->Parameters.Write.Length;
    written.assign(static_cast<char*>(irp->AssociatedIrp.SystemBuffer), length);
    return Complete(irp, STATUS_SUCCESS, length);
  };
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE reader = nullptr, writer = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &reader), STATUS_SUCCESS);
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_WRITE, &writer), STATUS_SUCCESS);

  EXPECT_EQ(app.WriteFile(reader, "denied", 6).status, STATUS_ACCESS_DENIED);
  char buffer[8];
  EXPECT_EQ(app.ReadFile(writer, buffer, sizeof buffer).status, STATUS_ACCESS_DENIED);
  EXPECT_EQ(driver.Majors(), (Majors{IRP_MJ_CREATE, IRP_MJ_CREATE})) << "refused requests never reach the driver";

  IoResult result = app.WriteFile(writer, "payload", 7);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.information, 7u);
  EXPECT_EQ(written, "payload");

  // A major function the driver does not handle is answered by the I/O manager.
  EXPECT_EQ(app.SendRequest(reader, IRP_MJ_FLUSH_BUFFERS).status, STATUS_INVALID_DEVICE_REQUEST);
  app.CloseHandle(reader);
  app.CloseHandle(writer);
}

TEST(DeviceRequestTest, DeviceControlBuffersFollowTheTransferMethod) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest");
  const ULONG buffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
  const ULONG outDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);
  const ULONG neither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_NEITHER, FILE_ANY_ACCESS);
  const ULONG needsWrite = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_BUFFERED, FILE_WRITE_ACCESS);
  const ULONG failing = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x804, METHOD_BUFFERED, FILE_ANY_ACCESS);
  const ULONG overflowing = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x805, METHOD_BUFFERED, FILE_ANY_ACCESS);
  struct Seen {
    ULONG code = 0, inLength = 0, outLength = 0;
    std::string input;
    PVOID type3 = nullptr, userBuffer = nullptr, mdlAddress = nullptr;
  } seen;
  driver.on[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
    auto& p = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    seen = Seen();
    seen.code = p.IoControlCode;
    seen.inLength = p.InputBufferLength;
    seen.outLength = p.OutputBufferLength;
    seen.type3 = p.Type3InputBuffer;
    seen.userBuffer = irp->UserBuffer;
    if (irp->MdlAddress) seen.mdlAddress = static_cast<PCHAR>(irp->MdlAddress->StartVa) + irp->MdlAddress->ByteOffset;
    auto* system = static_cast<char*>(irp->AssociatedIrp.SystemBuffer);
    if (system) seen.input.assign(system, p.InputBufferLength);
    if (p.IoControlCode == buffered) {
      std::memcpy(system, "pong!", 5);
      return Complete(irp, STATUS_SUCCESS, 5);
    }
    if (p.IoControlCode == failing) {
      std::memcpy(system, "junk!", 5);
      return Complete(irp, STATUS_INVALID_PARAMETER, 5);
    }
    if (p.IoControlCode == overflowing) {
      std::memcpy(system, "partial", p.OutputBufferLength);
      return Complete(irp, STATUS_BUFFER_OVERFLOW, p.OutputBufferLength);
    }
    return Complete(irp, STATUS_SUCCESS);
  };
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &handle), STATUS_SUCCESS);
  char out[16];

  // METHOD_BUFFERED: one system buffer holds the input, then the output; Information bytes return.
  std::memset(out, 'u', sizeof out);
  IoResult result = app.DeviceIoControl(handle, buffered, "ping", 4, out, sizeof out);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.information, 5u);
  EXPECT_EQ(seen.code, buffered);
  EXPECT_EQ(seen.inLength, 4u);
  EXPECT_EQ(seen.outLength, sizeof out);
  EXPECT_EQ(seen.input, "ping");
  EXPECT_EQ(std::string(out, sizeof out), "pong!uuuuuuuuuuu");

  // An error returns no output; a warning returns what the driver said it wrote.
  std::memset(out, 'u', sizeof out);
  result = app.DeviceIoControl(handle, failing, "ping", 4, out, sizeof out);
  EXPECT_EQ(result.status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(std::string(out, sizeof out), std::string(sizeof out, 'u'));
  result = app.DeviceIoControl(handle, overflowing, nullptr, 0, out, 4);
  EXPECT_EQ(result.status, STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(std::string(out, sizeof out), "partuuuuuuuuuuuu");

  // METHOD_OUT_DIRECT: the input is buffered, the output described by an MDL.
  result = app.DeviceIoControl(handle, outDirect, "in", 2, out, sizeof out);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(seen.input, "in");
  EXPECT_EQ(seen.mdlAddress, static_cast<void*>(out));

  // METHOD_NEITHER: the caller's own pointers.
  const char in[] = "raw";
  result = app.DeviceIoControl(handle, neither, in, sizeof in, out, sizeof out);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(seen.type3, static_cast<const void*>(in));
  EXPECT_EQ(seen.userBuffer, static_cast<void*>(out));
  EXPECT_TRUE(seen.input.empty());

  // The access bits of the code are checked against the handle.
  driver.ClearLog();
  EXPECT_EQ(app.DeviceIoControl(handle, needsWrite, nullptr, 0, nullptr, 0).status, STATUS_ACCESS_DENIED);
  EXPECT_TRUE(driver.Majors().empty());
  app.CloseHandle(handle);
}

TEST(DeviceRequestTest, RequestMistakesAreViolations) {
  World world;
  RecordViolations(world);
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ | GENERIC_WRITE, &handle), STATUS_SUCCESS);
  char buffer[8] = {};

  driver.on[IRP_MJ_READ] = [](PDEVICE_OBJECT, PIRP irp) {
    Complete(irp, STATUS_SUCCESS);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
  };
  app.ReadFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IofCompleteRequest"});

  world.verifier().ClearViolations();
  driver.on[IRP_MJ_WRITE] = [](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; };  // forgets to complete
  app.WriteFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IRP_MJ_WRITE"});

  world.verifier().ClearViolations();
  driver.on[IRP_MJ_READ] = [](PDEVICE_OBJECT, PIRP irp) {
    Complete(irp, STATUS_SUCCESS, 3);
    return STATUS_PENDING;  // without IoMarkIrpPending
  };
  IoResult result = app.ReadFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IRP_MJ_READ"});
  EXPECT_EQ(result.status, STATUS_SUCCESS) << "the caller still gets the completion";
  EXPECT_EQ(result.information, 3u);

  world.verifier().ClearViolations();
  driver.on[IRP_MJ_READ] = [](PDEVICE_OBJECT, PIRP irp) {
    Complete(irp, STATUS_SUCCESS);
    return STATUS_UNSUCCESSFUL;  // not what it completed with
  };
  app.ReadFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IRP_MJ_READ"});

  world.verifier().ClearViolations();
  driver.on[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS, 64);  // more than the caller's output buffer
  };
  app.DeviceIoControl(handle, CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS), nullptr, 0,
                      buffer, sizeof buffer);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IRP_MJ_DEVICE_CONTROL"});

  // Marked pending, the request must be left pending: a dispatch routine that completes it and
  // returns the status has already handed it over.
  world.verifier().ClearViolations();
  driver.on[IRP_MJ_READ] = [](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    return Complete(irp, STATUS_SUCCESS, 1);
  };
  app.ReadFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(ViolationCalls(world), std::vector<std::string>{"IRP_MJ_READ"});

  // A request marked pending and completed before the dispatch returns is in order.
  world.verifier().ClearViolations();
  driver.on[IRP_MJ_READ] = [](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    Complete(irp, STATUS_SUCCESS, 1);
    return STATUS_PENDING;
  };
  result = app.ReadFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_TRUE(world.verifier().Violations().empty());
  app.CloseHandle(handle);
}

TEST(DeviceRequestTest, APendingRequestBlocksTheCallerUntilCompletedElsewhere) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest", DO_BUFFERED_IO);
  std::atomic<PIRP> parked{nullptr};
  driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    parked = irp;
    return STATUS_PENDING;
  };
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ, &handle), STATUS_SUCCESS);

  char buffer[8];
  std::memset(buffer, 'u', sizeof buffer);
  IoResult result;
  HostThread caller([&] { result = app.ReadFile(handle, buffer, sizeof buffer); });
  ASSERT_TRUE(Eventually([&] { return parked.load() != nullptr; }));
  EXPECT_FALSE(caller.FinishedWithin(30ms)) << "the caller returned before its request was completed";
  EXPECT_EQ(world.kernel().io.OutstandingRequests(), 1u);

  {
    HostThread completer([&] {
      PIRP irp = parked.load();
      std::memcpy(irp->AssociatedIrp.SystemBuffer, "late", 4);
      Complete(irp, STATUS_SUCCESS, 4);
    });
  }
  ASSERT_TRUE(caller.FinishedWithin(5s));
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.information, 4u);
  EXPECT_EQ(std::string(buffer, sizeof buffer), "lateuuuu");
  EXPECT_EQ(world.kernel().io.OutstandingRequests(), 0u);
  app.CloseHandle(handle);
}

// Windows may free a request marked pending as soon as another thread has completed it, while its
// dispatch routine still runs; one not marked pending lives until its dispatch routine returns.
TEST(DeviceRequestTest, APendingRequestCompletedElsewhereIsFreedAtOnce) {
  World world;
  TestDriver driver(world);
  driver.AddDevice(u"\\Device\\SimTest", DO_BUFFERED_IO);
  UserProcess& app = world.StartProcess(u"app.exe");
  HANDLE handle = nullptr;
  ASSERT_EQ(app.CreateFile(u"\\Device\\SimTest", GENERIC_READ | GENERIC_WRITE, &handle), STATUS_SUCCESS);
  char buffer[8] = {};

  size_t leftWhileDispatching = 99;
  driver.on[IRP_MJ_READ] = [&](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    { HostThread completer([&] { Complete(irp, STATUS_SUCCESS, 2); }); }
    leftWhileDispatching = world.kernel().io.AllocatedRequests();
    return STATUS_PENDING;
  };
  IoResult result = app.ReadFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(leftWhileDispatching, 0u) << "the completed pending request was still allocated";
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.information, 2u);

  driver.on[IRP_MJ_WRITE] = [&](PDEVICE_OBJECT, PIRP irp) {
    { HostThread completer([&] { Complete(irp, STATUS_SUCCESS); }); }
    leftWhileDispatching = world.kernel().io.AllocatedRequests();
    return STATUS_SUCCESS;
  };
  result = app.WriteFile(handle, buffer, sizeof buffer);
  EXPECT_EQ(leftWhileDispatching, 1u) << "a request not marked pending was freed under its dispatch routine";
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(world.kernel().io.AllocatedRequests(), 0u);
  app.CloseHandle(handle);
}

// ---------------------------------------------------------------------------------------------
// Other devices, and shutdown

std::vector<UCHAR>* g_mountManagerLog = nullptr;

NTSTATUS NTAPI LogMountManagerRequest(PDEVICE_OBJECT, PIRP irp) {
  g_mountManagerLog->push_back(IoGetCurrentIrpStackLocation(irp)->MajorFunction);
  return Complete(irp, STATUS_SUCCESS);
}

TEST(DeviceObjectPointerTest, TheFileObjectIsReferencedAndItsDereferenceSendsTheClose) {
  World world;
  ObjectHeader* header = nullptr;
  ASSERT_EQ(world.kernel().ob.Lookup(u"\\Device\\MountPointManager", false, &header, nullptr), STATUS_SUCCESS);
  auto* mountManager = static_cast<PDEVICE_OBJECT>(header->Body());
  world.kernel().ob.Dereference(mountManager);
  std::vector<UCHAR> log;
  g_mountManagerLog = &log;
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
    mountManager->DriverObject->MajorFunction[major] = LogMountManagerRequest;
  }

  std::u16string path = u"\\Device\\MountPointManager";
  UNICODE_STRING name = Counted(path);
  PFILE_OBJECT file = nullptr;
  PDEVICE_OBJECT device = nullptr;
  ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_ATTRIBUTES, &file, &device), STATUS_SUCCESS);
  EXPECT_EQ(device, mountManager);
  EXPECT_EQ(file->DeviceObject, mountManager);
  EXPECT_EQ(QueryName(device), "\\Device\\MountPointManager");
  EXPECT_EQ(log, (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP})) << "the handle is closed; the file stays referenced";
  ObDereferenceObject(file);
  EXPECT_EQ(log, (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
  g_mountManagerLog = nullptr;

  std::u16string missing = u"\\Device\\NoSuchDevice";
  UNICODE_STRING missingName = Counted(missing);
  EXPECT_EQ(IoGetDeviceObjectPointer(&missingName, FILE_READ_ATTRIBUTES, &file, &device),
            STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST(ShutdownTest, OnlyRegisteredDevicesHearOfIt) {
  World world;
  TestDriver driver(world);
  PDEVICE_OBJECT stays = driver.AddDevice(u"\\Device\\Stays");
  PDEVICE_OBJECT leaves = driver.AddDevice(u"\\Device\\Leaves");
  driver.AddDevice(u"\\Device\\Never");
  ASSERT_EQ(IoRegisterShutdownNotification(stays), STATUS_SUCCESS);
  ASSERT_EQ(IoRegisterShutdownNotification(leaves), STATUS_SUCCESS);
  IoUnregisterShutdownNotification(leaves);

  world.Shutdown();
  auto log = driver.Log();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].major, IRP_MJ_SHUTDOWN);
  EXPECT_EQ(log[0].device, stays);

  // The machine keeps running: a second shutdown is delivered again.
  world.Shutdown();
  EXPECT_EQ(driver.Majors(), (Majors{IRP_MJ_SHUTDOWN, IRP_MJ_SHUTDOWN}));
  IoUnregisterShutdownNotification(stays);
}

}  // namespace
