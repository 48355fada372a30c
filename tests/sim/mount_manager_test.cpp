// The mount point manager's volume-path query as a driver makes it: the device found with
// IoGetDeviceObjectPointer, the request built with IoBuildDeviceIoControlRequest, sent with
// IofCallDriver, and waited for on its event when it pends. Also the requests that
// IoBuildDeviceIoControlRequest builds for any device: their buffers, and that the I/O manager
// frees them on completion.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "sim_test_support.h"
#include "world.h"

using ntsim::World;

namespace {

std::string Utf8(const std::u16string& text) { return ntsim::ToUtf8(text); }

struct Answer {
  NTSTATUS returned = 0;  // what IofCallDriver returned
  IO_STATUS_BLOCK iosb{};
  std::vector<uint8_t> out;  // the caller's output buffer afterwards

  ULONG MultiSzLength() const {
    ULONG length = 0;
    std::memcpy(&length, out.data(), sizeof length);
    return length;
  }
  // The first string of the answer's multi-string.
  std::string FirstPath() const {
    std::u16string text;
    for (size_t i = 4; i + 1 < iosb.Information; i += 2) {
      char16_t c = static_cast<char16_t>(out[i] | (out[i + 1] << 8));
      if (!c) break;
      text.push_back(c);
    }
    return Utf8(text);
  }
};

constexpr uint8_t kUntouched = 0xEE;

// A driver's side of the query, written as a driver would.
class MountManagerClient {
 public:
  MountManagerClient() {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, MOUNTMGR_DEVICE_NAME);
    EXPECT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_ATTRIBUTES, &file_, &device_), STATUS_SUCCESS);
  }
  ~MountManagerClient() {
    if (file_) ObDereferenceObject(file_);
  }

  // The raw request: an input of inLength bytes (the target name record, cut or padded).
  Answer Send(const std::u16string& deviceName, ULONG outLength, ULONG inLength = ~0u,
              ULONG code = IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH) {
    std::vector<uint8_t> in(sizeof(USHORT) + deviceName.size() * sizeof(WCHAR));
    USHORT nameLength = static_cast<USHORT>(deviceName.size() * sizeof(WCHAR));
    std::memcpy(in.data(), &nameLength, sizeof nameLength);
    std::memcpy(in.data() + sizeof nameLength, deviceName.data(), nameLength);
    if (inLength != ~0u) in.resize(inLength);
    Answer answer;
    answer.out.assign(outLength, kUntouched);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    answer.iosb.Status = 0x7EEEEEEE;
    PIRP irp = IoBuildDeviceIoControlRequest(
        code, device_, in.empty() ? nullptr : in.data(), static_cast<ULONG>(in.size()),
        answer.out.empty() ? nullptr : answer.out.data(), outLength, FALSE, &event, &answer.iosb);
    EXPECT_NE(irp, nullptr);
    if (!irp) return answer;
    answer.returned = IofCallDriver(device_, irp);
    if (answer.returned == STATUS_PENDING) {
      EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    } else {
      EXPECT_EQ(answer.iosb.Status, answer.returned) << "the status block is set before a synchronous return";
    }
    return answer;
  }

  // The two steps: the fixed part first, then a buffer of the length it tells.
  Answer Query(const std::u16string& deviceName) {
    Answer first = Send(deviceName, sizeof(MOUNTMGR_VOLUME_PATHS));
    if (first.iosb.Status != STATUS_BUFFER_OVERFLOW) return first;
    return Send(deviceName, FIELD_OFFSET(MOUNTMGR_VOLUME_PATHS, MultiSz) + first.MultiSzLength());
  }

  std::string PathOf(const std::u16string& deviceName) {
    Answer answer = Query(deviceName);
    if (answer.iosb.Status != STATUS_SUCCESS) return "<" + std::to_string(answer.iosb.Status) + ">";
    return answer.FirstPath();
  }

 private:
  PFILE_OBJECT file_ = nullptr;
  PDEVICE_OBJECT device_ = nullptr;
};

void ExpectNothingLeft(World& world) {
  EXPECT_EQ(world.kernel().io.OutstandingRequests(), 0u);
  EXPECT_EQ(world.kernel().io.AllocatedRequests(), 0u);
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
}

// ---------------------------------------------------------------------------------------------
// IOCTL_MOUNTMGR_QUERY_DOS_VOLUME_PATH

TEST(MountManagerTest, ALetteredVolumeIsAnsweredInTwoSteps) {
  World world;
  MountManagerClient client;
  Answer first = client.Send(u"\\Device\\HarddiskVolume3", sizeof(MOUNTMGR_VOLUME_PATHS));
  EXPECT_EQ(first.returned, STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(first.iosb.Status, STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(first.iosb.Information, sizeof(MOUNTMGR_VOLUME_PATHS));
  EXPECT_EQ(first.MultiSzLength(), 8u) << "\"C:\" and two terminators";

  Answer second = client.Send(u"\\Device\\HarddiskVolume3", 4 + 8 + 6);
  ASSERT_EQ(second.iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(second.iosb.Information, 12u);
  EXPECT_EQ(second.MultiSzLength(), 8u);
  const uint8_t expected[] = {'C', 0, ':', 0, 0, 0, 0, 0};
  EXPECT_EQ(std::vector<uint8_t>(second.out.begin() + 4, second.out.begin() + 12),
            std::vector<uint8_t>(std::begin(expected), std::end(expected)));
  EXPECT_EQ(second.out[12], kUntouched) << "only Information bytes are copied back";

  EXPECT_EQ(client.PathOf(u"\\DEVICE\\harddiskvolume5"), "D:") << "device names match in any case";
  EXPECT_EQ(world.MountManagerQueryCount(), 4u);
  ExpectNothingLeft(world);
}

TEST(MountManagerTest, LetterlessVolumesAnswerWithTheirFolderOrTheirGuidPath) {
  World world;
  std::string reserved;
  {
    MountManagerClient client;
    reserved = client.PathOf(u"\\Device\\HarddiskVolume1");
    EXPECT_TRUE(std::regex_match(reserved, std::regex(R"(\\\\\?\\Volume\{[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-)"
                                                      R"([89ab][0-9a-f]{3}-[0-9a-f]{12}\}\\)")))
        << reserved;
    world.AddVolume(u"\\Device\\HarddiskVolume9");
    std::string added = client.PathOf(u"\\Device\\HarddiskVolume9");
    EXPECT_NE(added, reserved) << "each volume has its own GUID";
    EXPECT_EQ(added.size(), reserved.size());

    world.SetVolumeMountFolder(u"\\Device\\HarddiskVolume9", u"C:\\Mount\\Data\\");
    Answer folder = client.Query(u"\\Device\\HarddiskVolume9");
    EXPECT_EQ(folder.FirstPath(), "C:\\Mount\\Data\\");
    EXPECT_EQ(folder.MultiSzLength(), (14u + 2u) * sizeof(WCHAR));
    // A letter goes before a folder; without it the folder is back.
    world.AssignDriveLetter(u"\\Device\\HarddiskVolume9", u'M');
    EXPECT_EQ(client.PathOf(u"\\Device\\HarddiskVolume9"), "M:");
    world.RemoveDriveLetter(u'M');
    EXPECT_EQ(client.PathOf(u"\\Device\\HarddiskVolume9"), "C:\\Mount\\Data\\");
    world.SetVolumeMountFolder(u"\\Device\\HarddiskVolume9", u"");
    EXPECT_EQ(client.PathOf(u"\\Device\\HarddiskVolume9"), added);
  }
  world.Reboot();
  MountManagerClient client;
  EXPECT_EQ(client.PathOf(u"\\Device\\HarddiskVolume1"), reserved) << "the same GUID on every boot";
}

TEST(MountManagerTest, UnknownDevicesAndMalformedRequestsAreRefused) {
  World world;
  world.AddVolume(u"\\Device\\HarddiskVolume11", 0, false);
  world.AddVolume(u"\\Device\\HarddiskVolume12", u'K');
  world.RemoveVolume(u"\\Device\\HarddiskVolume12");
  {
    MountManagerClient client;
    for (const char16_t* name : {u"\\Device\\Mup", u"\\Device\\HarddiskVolume11", u"\\Device\\HarddiskVolume12",
                                 u"\\Device\\NoSuchVolume", u"\\??\\C:", u""}) {
      Answer answer = client.Query(name);
      EXPECT_EQ(answer.iosb.Status, STATUS_OBJECT_NAME_NOT_FOUND) << Utf8(name);
      EXPECT_EQ(answer.out[0], kUntouched) << "nothing is copied back on an error";
    }
    const std::u16string c = u"\\Device\\HarddiskVolume3";
    EXPECT_EQ(client.Send(c, 64, 1).iosb.Status, STATUS_INVALID_PARAMETER) << "no room for the name's length";
    EXPECT_EQ(client.Send(c, 64, 2 + c.size() * 2 - 1).iosb.Status, STATUS_INVALID_PARAMETER) << "a cut name";
    EXPECT_EQ(client.Send(c, 64, 2 + c.size() * 2 + 6).iosb.Status, STATUS_SUCCESS) << "room to spare is fine";
    EXPECT_EQ(client.Send(c, sizeof(MOUNTMGR_VOLUME_PATHS) - 1).iosb.Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(client.Send(c, 64, ~0u, CTL_CODE(MOUNTMGRCONTROLTYPE, 2, METHOD_BUFFERED, FILE_ANY_ACCESS)).iosb.Status,
              STATUS_INVALID_DEVICE_REQUEST);
    // Every volume-path query counts, refused or not; a new boot counts afresh.
    EXPECT_EQ(world.MountManagerQueryCount(), 6u + 4u);
    ExpectNothingLeft(world);
  }
  world.Reboot();
  EXPECT_EQ(world.MountManagerQueryCount(), 0u);
}

TEST(MountManagerTest, PendingAndFailedAnswersReachTheWaitingCaller) {
  World world;
  {
    MountManagerClient client;
    world.MountManagerAnswerPending(true);
    Answer first = client.Send(u"\\Device\\HarddiskVolume5", sizeof(MOUNTMGR_VOLUME_PATHS));
    EXPECT_EQ(first.returned, STATUS_PENDING);
    EXPECT_EQ(first.iosb.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(first.MultiSzLength(), 8u);
    Answer pending = client.Query(u"\\Device\\HarddiskVolume5");
    EXPECT_EQ(pending.returned, STATUS_PENDING);
    EXPECT_EQ(pending.iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(pending.FirstPath(), "D:");
    ExpectNothingLeft(world);

    // Failures reach the caller with nothing copied, pending or not, and outlive a reboot.
    world.MountManagerFailQueries(STATUS_IO_DEVICE_ERROR);
    Answer failed = client.Query(u"\\Device\\HarddiskVolume5");
    EXPECT_EQ(failed.returned, STATUS_PENDING);
    EXPECT_EQ(failed.iosb.Status, STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(failed.out[0], kUntouched);
    world.MountManagerAnswerPending(false);
  }
  world.Reboot();
  MountManagerClient client;
  Answer synchronous = client.Query(u"\\Device\\HarddiskVolume5");
  EXPECT_EQ(synchronous.returned, STATUS_IO_DEVICE_ERROR);
  world.MountManagerFailQueries(STATUS_SUCCESS);
  EXPECT_EQ(client.PathOf(u"\\Device\\HarddiskVolume5"), "D:");
  ExpectNothingLeft(world);
}

TEST(MountManagerTest, AnAnswerLongerThanAUnicodeStringIsStillGivenWhole) {
  World world;
  std::u16string folder = u"C:\\Mount\\";
  while (folder.size() < 40000) folder += u"nested\\";
  world.AddVolume(u"\\Device\\HarddiskVolume13");
  world.SetVolumeMountFolder(u"\\Device\\HarddiskVolume13", folder);
  MountManagerClient client;
  Answer first = client.Send(u"\\Device\\HarddiskVolume13", sizeof(MOUNTMGR_VOLUME_PATHS));
  EXPECT_EQ(first.iosb.Status, STATUS_BUFFER_OVERFLOW);
  const ULONG length = static_cast<ULONG>((folder.size() + 2) * sizeof(WCHAR));
  ASSERT_EQ(first.MultiSzLength(), length);
  ASSERT_GT(length + sizeof(MOUNTMGR_VOLUME_PATHS), 65535u);
  Answer whole = client.Send(u"\\Device\\HarddiskVolume13", 4 + length);
  ASSERT_EQ(whole.iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(whole.iosb.Information, 4u + length);
  EXPECT_EQ(whole.FirstPath(), Utf8(folder));
  EXPECT_EQ(whole.out[4 + length - 2], 0);
  ExpectNothingLeft(world);
}

// ---------------------------------------------------------------------------------------------
// IoBuildDeviceIoControlRequest for any device

std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> g_dispatch;

NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT device, PIRP irp) { return g_dispatch(device, irp); }

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

class DeviceControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PDRIVER_OBJECT driver = world.kernel().io.CreateDriverObject(u"\\Driver\\ControlTest", nullptr);
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Dispatch;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Dispatch;
    ASSERT_EQ(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device), STATUS_SUCCESS);
    device->StackSize = 3;
    device->Flags &= ~DO_DEVICE_INITIALIZING;
  }
  void TearDown() override {
    IoDeleteDevice(device);
    g_dispatch = nullptr;
  }

  // Builds, sends and waits for one request, as a driver does.
  NTSTATUS Call(ULONG code, void* in, ULONG inLength, void* out, ULONG outLength, IO_STATUS_BLOCK* iosb,
                BOOLEAN internal = FALSE) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    PIRP irp = IoBuildDeviceIoControlRequest(code, device, in, inLength, out, outLength, internal, &event, iosb);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = IofCallDriver(device, irp);
    if (status == STATUS_PENDING) {
      KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
      status = iosb->Status;
    }
    EXPECT_EQ(KeReadStateEvent(&event), 1) << "the event is set on completion";
    return status;
  }

  World world;
  PDEVICE_OBJECT device = nullptr;
};

TEST_F(DeviceControlTest, BufferedRequestsShareOneBufferAndCopyBackOnlyWhatWasNotAnError) {
  const ULONG code = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
  char in[6] = "input";
  char out[16];
  NTSTATUS answer = STATUS_SUCCESS;
  g_dispatch = [&](PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    EXPECT_EQ(stack->MajorFunction, IRP_MJ_DEVICE_CONTROL);
    EXPECT_EQ(stack->Parameters.DeviceIoControl.IoControlCode, code);
    EXPECT_EQ(stack->Parameters.DeviceIoControl.InputBufferLength, sizeof in);
    EXPECT_EQ(stack->Parameters.DeviceIoControl.OutputBufferLength, sizeof out);
    EXPECT_EQ(irp->StackCount, 3);
    EXPECT_EQ(irp->RequestorMode, KernelMode);
    auto* system = static_cast<char*>(irp->AssociatedIrp.SystemBuffer);
    EXPECT_NE(system, in);
    EXPECT_NE(system, out);
    EXPECT_STREQ(system, "input");
    std::memcpy(system, "0123456789abcdef", 16);  // the whole of the larger length
    return Complete(irp, answer, 10);
  };
  IO_STATUS_BLOCK iosb{};
  std::memset(out, 'u', sizeof out);
  ASSERT_EQ(Call(code, in, sizeof in, out, sizeof out, &iosb), STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 10u);
  EXPECT_EQ(std::string(out, sizeof out), "0123456789uuuuuu");
  // A warning still copies; an error does not, though the caller learns its status and information.
  answer = STATUS_BUFFER_OVERFLOW;
  std::memset(out, 'u', sizeof out);
  EXPECT_EQ(Call(code, in, sizeof in, out, sizeof out, &iosb), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(std::string(out, sizeof out), "0123456789uuuuuu");
  answer = STATUS_INVALID_PARAMETER;
  std::memset(out, 'u', sizeof out);
  EXPECT_EQ(Call(code, in, sizeof in, out, sizeof out, &iosb), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(iosb.Information, 10u);
  EXPECT_EQ(std::string(out, sizeof out), std::string(16, 'u'));
  ExpectNothingLeft(world);
}

TEST_F(DeviceControlTest, DirectAndNeitherRequestsReachTheCallersBuffers) {
  char in[4] = "abc";
  char out[32] = {};
  g_dispatch = [&](PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    EXPECT_EQ(stack->MajorFunction, IRP_MJ_INTERNAL_DEVICE_CONTROL);
    if (METHOD_FROM_CTL_CODE(stack->Parameters.DeviceIoControl.IoControlCode) == METHOD_NEITHER) {
      EXPECT_EQ(stack->Parameters.DeviceIoControl.Type3InputBuffer, in);
      EXPECT_EQ(irp->UserBuffer, out);
      std::memcpy(irp->UserBuffer, "neither", 8);
    } else {
      EXPECT_STREQ(static_cast<char*>(irp->AssociatedIrp.SystemBuffer), "abc");
      EXPECT_NE(irp->AssociatedIrp.SystemBuffer, in);
      EXPECT_NE(irp->MdlAddress, nullptr);
      if (!irp->MdlAddress) return Complete(irp, STATUS_INVALID_PARAMETER, 0);
      EXPECT_EQ(irp->MdlAddress->ByteCount, sizeof out);
      // The MDL describes the caller's buffer; the driver maps it before using it.
      PVOID system = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
      EXPECT_EQ(system, out);
      if (!system) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
      std::memcpy(system, "direct", 7);
    }
    return Complete(irp, STATUS_SUCCESS, 8);
  };
  IO_STATUS_BLOCK iosb{};
  ASSERT_EQ(Call(CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_OUT_DIRECT, FILE_ANY_ACCESS), in, sizeof in, out,
                 sizeof out, &iosb, TRUE),
            STATUS_SUCCESS);
  EXPECT_STREQ(out, "direct");
  ASSERT_EQ(Call(CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_NEITHER, FILE_ANY_ACCESS), in, sizeof in, out, sizeof out,
                 &iosb, TRUE),
            STATUS_SUCCESS);
  EXPECT_STREQ(out, "neither");
  ExpectNothingLeft(world);
}

TEST_F(DeviceControlTest, ARequestCompletedLaterIsFreedAndTheBuildCanFail) {
  std::atomic<PIRP> parked{nullptr};
  g_dispatch = [&](PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    parked = irp;
    return STATUS_PENDING;
  };
  const ULONG code = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x804, METHOD_BUFFERED, FILE_ANY_ACCESS);
  ULONG value = 0;
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  PIRP irp = IoBuildDeviceIoControlRequest(code, device, nullptr, 0, &value, sizeof value, FALSE, &event, &iosb);
  ASSERT_NE(irp, nullptr);
  ASSERT_EQ(IofCallDriver(device, irp), STATUS_PENDING);
  EXPECT_EQ(world.kernel().io.OutstandingRequests(), 1u);
  {
    sim_test::HostThread completer([&] {
      PIRP held = parked.load();
      *static_cast<ULONG*>(held->AssociatedIrp.SystemBuffer) = 0xC0FFEE;
      Complete(held, STATUS_SUCCESS, sizeof(ULONG));
    });
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
  }
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(value, 0xC0FFEEu);
  ExpectNothingLeft(world);

  // An allocation point: the request is not built, and nothing is left allocated.
  world.verifier().FailNth(1);
  EXPECT_EQ(IoBuildDeviceIoControlRequest(code, device, nullptr, 0, &value, sizeof value, FALSE, &event, &iosb),
            nullptr);
  world.verifier().FailNth(0);
  EXPECT_EQ(world.kernel().io.AllocatedRequests(), 0u);
}

}  // namespace
