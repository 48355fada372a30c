// The simulated file system as a driver reaches it through the Zw file routines: creates and their
// options, transfers, the names of open files, and volumes that come, go and change letters.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "sim_test_support.h"
#include "world.h"

using ntsim::World;

namespace {

constexpr uint64_t kKernelHandleBits = 0xFFFFFFFF80000000ull;

std::string Utf8(const std::u16string& text) { return ntsim::ToUtf8(text); }

// A file object's name as ObQueryNameString gives it with a buffer of the given length.
struct NameAnswer {
  NTSTATUS status;
  ULONG returned;
  std::u16string name;  // what Name holds on success or overflow
  bool terminated;      // a NUL follows the name in the buffer
};

NameAnswer QueryName(PVOID object, ULONG length) {
  std::vector<ULONG_PTR> storage(length / sizeof(ULONG_PTR) + 2, ~ULONG_PTR(0));
  auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(storage.data());
  NameAnswer answer{};
  answer.status = ObQueryNameString(object, info, length, &answer.returned);
  if (answer.status == STATUS_SUCCESS || answer.status == STATUS_BUFFER_OVERFLOW) {
    EXPECT_EQ(info->Name.Buffer, reinterpret_cast<PWSTR>(info + 1)) << "the name follows its header";
    EXPECT_LE(sizeof(OBJECT_NAME_INFORMATION) + info->Name.Length, length) << "the name stays in the buffer";
    answer.name.assign(reinterpret_cast<const char16_t*>(info->Name.Buffer), info->Name.Length / sizeof(WCHAR));
    answer.terminated = sizeof(OBJECT_NAME_INFORMATION) + info->Name.Length + sizeof(WCHAR) <= length &&
                        info->Name.Buffer[info->Name.Length / sizeof(WCHAR)] == 0;
  }
  return answer;
}

// The two-step protocol a driver follows: probe with the bare header, then ask with what it was told.
std::string NameOf(PVOID object) {
  NameAnswer probe = QueryName(object, sizeof(OBJECT_NAME_INFORMATION));
  if (probe.status != STATUS_BUFFER_OVERFLOW) return "<probe " + std::to_string(probe.status) + ">";
  NameAnswer full = QueryName(object, probe.returned);
  if (full.status != STATUS_SUCCESS) return "<" + std::to_string(full.status) + ">";
  EXPECT_EQ(full.returned, probe.returned);
  EXPECT_TRUE(full.terminated);
  return Utf8(full.name);
}

class FileSystemTest : public ::testing::Test {
 protected:
  NTSTATUS Open(const char16_t* path, ULONG disposition, ULONG options, HANDLE* file,
                ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, ULONG_PTR* information = nullptr) {
    std::u16string text = path;
    UNICODE_STRING name{static_cast<USHORT>(text.size() * 2), static_cast<USHORT>(text.size() * 2),
                        reinterpret_cast<PWSTR>(text.data())};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = ZwCreateFile(file, access, &attributes, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, 7, disposition,
                                   options, nullptr, 0);
    if (information) *information = iosb.Information;
    return status;
  }
  // The file object behind a kernel handle, valid while the handle is open.
  PFILE_OBJECT FileOf(HANDLE handle) {
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr), STATUS_SUCCESS);
    if (object) ObDereferenceObject(object);
    return static_cast<PFILE_OBJECT>(object);
  }
  // The name of the file opened by the path, or "<status>".
  std::string NameOfOpened(const char16_t* path, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT) {
    HANDLE file = nullptr;
    NTSTATUS status = Open(path, FILE_OPEN, options, &file, GENERIC_READ);
    if (!NT_SUCCESS(status)) return "<open " + std::to_string(status) + ">";
    std::string name = NameOf(FileOf(file));
    ZwClose(file);
    return name;
  }
  World world;
  static constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE;
};

TEST_F(FileSystemTest, CreateDispositionsFollowTheFileThatIsThere) {
  HANDLE file;
  ULONG_PTR information = 0;
  const char16_t* path = u"\\SystemRoot\\System32\\probe.dat";
  EXPECT_EQ(Open(path, FILE_OPEN, kSync, &file), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Open(u"\\SystemRoot\\Missing\\probe.dat", FILE_CREATE, kSync, &file), STATUS_OBJECT_PATH_NOT_FOUND);
  ASSERT_EQ(Open(path, FILE_CREATE, kSync, &file, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &information),
            STATUS_SUCCESS);
  EXPECT_EQ(information, static_cast<ULONG_PTR>(FILE_CREATED));
  EXPECT_EQ(ZwClose(file), STATUS_SUCCESS);
  EXPECT_EQ(Open(path, FILE_CREATE, kSync, &file), STATUS_OBJECT_NAME_COLLISION);
  ASSERT_EQ(Open(path, FILE_OPEN_IF, kSync, &file, GENERIC_READ | SYNCHRONIZE, &information), STATUS_SUCCESS);
  EXPECT_EQ(information, static_cast<ULONG_PTR>(FILE_OPENED));
  ZwClose(file);
  // A directory is not a file, and synchronous I/O needs SYNCHRONIZE access.
  EXPECT_EQ(Open(u"\\SystemRoot\\System32", FILE_OPEN, kSync, &file), STATUS_FILE_IS_A_DIRECTORY);
  EXPECT_EQ(Open(path, FILE_OPEN, kSync, &file, FILE_READ_DATA), STATUS_INVALID_PARAMETER);
  // Drive letters lead to the same volume.
  ASSERT_EQ(Open(u"\\??\\C:\\Windows\\System32\\PROBE.DAT", FILE_OPEN, kSync, &file), STATUS_SUCCESS);
  ZwClose(file);
}

TEST_F(FileSystemTest, ReadsWritesAndSizesAsTheRoutinesDocument) {
  HANDLE file;
  ASSERT_EQ(Open(u"\\SystemRoot\\System32\\data.bin", FILE_CREATE, kSync, &file), STATUS_SUCCESS);
  std::vector<uint8_t> bytes(300);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER offset{};
  ASSERT_EQ(ZwWriteFile(file, nullptr, nullptr, nullptr, &iosb, bytes.data(), 300, &offset, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 300u);
  EXPECT_EQ(ZwFlushBuffersFile(file, &iosb), STATUS_SUCCESS);

  FILE_STANDARD_INFORMATION info{};
  ASSERT_EQ(ZwQueryInformationFile(file, &iosb, &info, sizeof info, FileStandardInformation), STATUS_SUCCESS);
  EXPECT_EQ(info.EndOfFile.QuadPart, 300);
  EXPECT_EQ(info.AllocationSize.QuadPart, 4096);
  EXPECT_FALSE(info.Directory);
  EXPECT_EQ(ZwQueryInformationFile(file, &iosb, &info, 8, FileStandardInformation), STATUS_INFO_LENGTH_MISMATCH);

  // A read past the end returns what there is; a read at the end, STATUS_END_OF_FILE.
  uint8_t buffer[512] = {};
  offset.QuadPart = 200;
  EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 100u);
  EXPECT_EQ(buffer[0], 200);
  offset.QuadPart = 300;
  EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr),
            STATUS_END_OF_FILE);
  EXPECT_EQ(iosb.Information, 0u);
  // Without an offset, a synchronous file continues where the last transfer ended.
  offset.QuadPart = 0;
  ASSERT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, 10, &offset, nullptr), STATUS_SUCCESS);
  ASSERT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, 10, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(buffer[0], 10);
  ZwClose(file);
  EXPECT_EQ(world.ReadFileBytes(u"\\SystemRoot\\System32\\data.bin"), bytes);
}

TEST_F(FileSystemTest, UnbufferedTransfersMustCoverWholeSectors) {
  ASSERT_TRUE(world.WriteFileBytes(u"\\SystemRoot\\System32\\raw.bin", std::vector<uint8_t>(1000, 7)));
  HANDLE file;
  ASSERT_EQ(Open(u"\\SystemRoot\\System32\\raw.bin", FILE_OPEN, kSync | FILE_NO_INTERMEDIATE_BUFFERING, &file),
            STATUS_SUCCESS);
  alignas(16) static uint8_t buffer[4096];
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER offset{};
  EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, 128, &offset, nullptr), STATUS_INVALID_PARAMETER);
  offset.QuadPart = 100;
  EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, 512, &offset, nullptr), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer + 1, 512, nullptr, nullptr),
            STATUS_INVALID_PARAMETER);
  offset.QuadPart = 0;
  EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, 4096, &offset, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 1000u);
  ZwClose(file);
}

TEST_F(FileSystemTest, FilesOutliveCrashesAndInjectedWriteFailuresReachTheCaller) {
  const char16_t* path = u"\\SystemRoot\\System32\\kept.dat";
  HANDLE file;
  ASSERT_EQ(Open(path, FILE_CREATE, kSync, &file), STATUS_SUCCESS);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER offset{};
  uint8_t first[4] = {1, 2, 3, 4};
  ASSERT_EQ(ZwWriteFile(file, nullptr, nullptr, nullptr, &iosb, first, 4, &offset, nullptr), STATUS_SUCCESS);
  world.FailWrites(path, STATUS_DISK_FULL);
  uint8_t second[4] = {9, 9, 9, 9};
  EXPECT_EQ(ZwWriteFile(file, nullptr, nullptr, nullptr, &iosb, second, 4, &offset, nullptr), STATUS_DISK_FULL);
  // The machine stops with the file still open: it holds what the last write left.
  world.Crash();
  EXPECT_EQ(world.ReadFileBytes(path), std::vector<uint8_t>({1, 2, 3, 4}));
  world.Reboot();
  EXPECT_EQ(world.ReadFileBytes(path), std::vector<uint8_t>({1, 2, 3, 4}));
}

// ---------------------------------------------------------------------------------------------
// Create options

TEST_F(FileSystemTest, OpenOptionsTellFilesFromDirectories) {
  HANDLE file = nullptr;
  // GENERIC_READ is mapped before synchronous I/O is checked for SYNCHRONIZE; FILE_READ_DATA is not enough.
  const ULONG alert = FILE_SYNCHRONOUS_IO_ALERT;
  ASSERT_EQ(Open(u"\\SystemRoot\\System32", FILE_OPEN, alert | FILE_DIRECTORY_FILE, &file, GENERIC_READ),
            STATUS_SUCCESS);
  ZwClose(file);
  EXPECT_EQ(Open(u"\\SystemRoot\\System32", FILE_OPEN, alert | FILE_DIRECTORY_FILE, &file, FILE_READ_DATA),
            STATUS_INVALID_PARAMETER);
  const char16_t* cmd = u"\\??\\C:\\Windows\\System32\\cmd.exe";
  EXPECT_EQ(Open(cmd, FILE_OPEN, alert | FILE_DIRECTORY_FILE, &file, GENERIC_READ), STATUS_NOT_A_DIRECTORY);
  EXPECT_EQ(Open(u"\\SystemRoot", FILE_OPEN, alert | FILE_NON_DIRECTORY_FILE, &file, GENERIC_READ),
            STATUS_FILE_IS_A_DIRECTORY);
  // Without either option, both kinds open.
  for (const char16_t* path : {cmd, u"\\SystemRoot\\System32\\drivers"}) {
    ASSERT_EQ(Open(path, FILE_OPEN, alert, &file, GENERIC_READ), STATUS_SUCCESS) << Utf8(path);
    ZwClose(file);
  }
  // Missing names, missing or non-directory parents, and a file named as a directory.
  EXPECT_EQ(Open(u"\\SystemRoot\\System32\\absent.exe", FILE_OPEN, alert, &file, GENERIC_READ),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Open(u"\\SystemRoot\\Absent\\x.exe", FILE_OPEN, alert, &file, GENERIC_READ),
            STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(Open(u"\\SystemRoot\\System32\\cmd.exe\\x", FILE_OPEN_IF, alert, &file), STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(Open(u"\\SystemRoot\\System32\\cmd.exe\\", FILE_OPEN, alert, &file, GENERIC_READ),
            STATUS_OBJECT_NAME_INVALID);
  EXPECT_EQ(Open(u"\\SystemRoot\\System32\\new.txt\\", FILE_CREATE, alert, &file), STATUS_OBJECT_NAME_INVALID);
  // A directory is created, not overwritten.
  EXPECT_EQ(Open(u"\\SystemRoot\\Logs", FILE_OVERWRITE_IF, alert | FILE_DIRECTORY_FILE, &file),
            STATUS_INVALID_PARAMETER);
  ASSERT_EQ(Open(u"\\SystemRoot\\Logs\\", FILE_CREATE, alert | FILE_DIRECTORY_FILE, &file), STATUS_SUCCESS);
  ZwClose(file);
  EXPECT_EQ(Open(u"\\SystemRoot\\Logs", FILE_OPEN, kSync, &file), STATUS_FILE_IS_A_DIRECTORY);
}

TEST_F(FileSystemTest, NtOpenFileChecksAgainstTheCallersModeAndHandlesAreTyped) {
  std::u16string path = u"\\SystemRoot\\System32\\notepad.exe";
  UNICODE_STRING name{static_cast<USHORT>(path.size() * 2), static_cast<USHORT>(path.size() * 2),
                      reinterpret_cast<PWSTR>(path.data())};
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
  IO_STATUS_BLOCK iosb{};
  HANDLE handle = nullptr;
  // From a system thread the previous mode is kernel: a kernel handle, as ZwOpenFile would give.
  ASSERT_EQ(NtOpenFile(&handle, GENERIC_READ, &attributes, &iosb, FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT),
            STATUS_SUCCESS);
  EXPECT_EQ(reinterpret_cast<uint64_t>(handle) & kKernelHandleBits, kKernelHandleBits);
  EXPECT_EQ(iosb.Information, static_cast<ULONG_PTR>(FILE_OPENED));
  EXPECT_EQ(NameOf(FileOf(handle)), "\\Device\\HarddiskVolume3\\Windows\\System32\\notepad.exe");
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);

  // In a user thread's system call the handle belongs to the process, kernel attribute or not.
  ntsim::UserProcess& app = world.StartProcess(u"app.exe");
  {
    ntsim::ThreadScope user(world.kernel().ps.ActingThread(app.Process()), UserMode);
    ASSERT_EQ(NtOpenFile(&handle, GENERIC_READ, &attributes, &iosb, FILE_SHARE_READ, FILE_SYNCHRONOUS_IO_NONALERT),
              STATUS_SUCCESS);
  }
  EXPECT_EQ(reinterpret_cast<uint64_t>(handle) & kKernelHandleBits, 0u) << "not in the kernel's table";
  EXPECT_EQ(app.CloseHandle(handle), STATUS_SUCCESS);

  // A handle to anything but a file is refused where a file is asked for.
  HANDLE file = nullptr;
  ASSERT_EQ(Open(path.c_str(), FILE_OPEN, kSync, &file, GENERIC_READ), STATUS_SUCCESS);
  HANDLE device = nullptr;
  ASSERT_EQ(ObOpenObjectByPointer(FileOf(file)->DeviceObject, OBJ_KERNEL_HANDLE, nullptr, 0, *IoDeviceObjectType,
                                  KernelMode, &device),
            STATUS_SUCCESS);
  PVOID object = nullptr;
  EXPECT_EQ(ObReferenceObjectByHandle(device, 0, *IoFileObjectType, KernelMode, &object, nullptr),
            STATUS_OBJECT_TYPE_MISMATCH);
  ZwClose(device);
  ZwClose(file);
}

// ---------------------------------------------------------------------------------------------
// Names of open files

TEST_F(FileSystemTest, FileNamesComeFromTheFileSystemInTwoSteps) {
  HANDLE handle = nullptr;
  ASSERT_EQ(Open(u"\\??\\c:\\WINDOWS\\system32\\", FILE_OPEN, FILE_SYNCHRONOUS_IO_ALERT | FILE_DIRECTORY_FILE,
                 &handle, GENERIC_READ),
            STATUS_SUCCESS);
  PFILE_OBJECT file = FileOf(handle);
  // The file system's name: the path as the directory was created, without the trailing backslash.
  const std::u16string expected = u"\\Device\\HarddiskVolume3\\Windows\\System32";
  const ULONG required = sizeof(OBJECT_NAME_INFORMATION) + (expected.size() + 1) * sizeof(WCHAR);

  NameAnswer tooSmall = QueryName(file, sizeof(OBJECT_NAME_INFORMATION) - 1);
  EXPECT_EQ(tooSmall.status, STATUS_INFO_LENGTH_MISMATCH);
  EXPECT_EQ(tooSmall.returned, required);
  NameAnswer probe = QueryName(file, sizeof(OBJECT_NAME_INFORMATION));
  EXPECT_EQ(probe.status, STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(probe.returned, required);
  NameAnswer part = QueryName(file, sizeof(OBJECT_NAME_INFORMATION) + 11);
  EXPECT_EQ(part.status, STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(part.returned, required);
  EXPECT_EQ(Utf8(part.name), "\\Devi") << "as many whole characters as fit";
  NameAnswer noRoomForTheNul = QueryName(file, required - sizeof(WCHAR));
  EXPECT_EQ(noRoomForTheNul.status, STATUS_BUFFER_OVERFLOW);
  NameAnswer exact = QueryName(file, required);
  ASSERT_EQ(exact.status, STATUS_SUCCESS);
  EXPECT_EQ(exact.returned, required);
  EXPECT_EQ(exact.name, expected);
  EXPECT_TRUE(exact.terminated);

  // Other objects keep their own protocol: a short buffer is a mismatch, never a part.
  EXPECT_EQ(QueryName(file->DeviceObject, sizeof(OBJECT_NAME_INFORMATION)).status, STATUS_INFO_LENGTH_MISMATCH);
  EXPECT_EQ(Utf8(QueryName(file->DeviceObject, 256).name), "\\Device\\HarddiskVolume3");

  // The name query of a file object allocates, and that allocation can fail.
  world.verifier().FailNth(1);
  EXPECT_EQ(QueryName(file, required).status, STATUS_INSUFFICIENT_RESOURCES);
  world.verifier().FailNth(0);
  EXPECT_EQ(QueryName(file, required).status, STATUS_SUCCESS);
  ZwClose(handle);
}

TEST_F(FileSystemTest, TheRootKeepsItsBackslashAndLinksAndCaseAreResolved) {
  EXPECT_EQ(NameOfOpened(u"\\??\\C:\\"), "\\Device\\HarddiskVolume3\\");
  EXPECT_EQ(NameOfOpened(u"\\SystemRoot\\"), "\\Device\\HarddiskVolume3\\Windows");
  EXPECT_EQ(NameOfOpened(u"\\SystemRoot\\SYSTEM32\\Kernel32.DLL"),
            "\\Device\\HarddiskVolume3\\Windows\\System32\\kernel32.dll");
  EXPECT_EQ(NameOfOpened(u"\\??\\D:\\data\\REPORT.TXT"), "\\Device\\HarddiskVolume5\\Data\\report.txt");
  EXPECT_EQ(NameOfOpened(u"\\Device\\Mup\\server\\share\\tools\\a.exe"),
            "\\Device\\Mup\\server\\share\\tools\\a.exe");
  EXPECT_EQ(NameOfOpened(u"\\??\\UNC\\SERVER\\share\\tools\\a.exe"),
            "\\Device\\Mup\\server\\share\\tools\\a.exe");
  EXPECT_EQ(NameOfOpened(u"\\Device\\HarddiskVolume1\\Boot"), "\\Device\\HarddiskVolume1\\Boot");
}

// ---------------------------------------------------------------------------------------------
// Volumes and drive letters

TEST_F(FileSystemTest, VolumesComeAndGoAndTheirLettersMove) {
  HANDLE file = nullptr;
  const std::u16string volume = u"\\Device\\HarddiskVolume7";
  EXPECT_EQ(Open(u"\\??\\E:\\", FILE_OPEN, 0, &file, GENERIC_READ), STATUS_OBJECT_NAME_NOT_FOUND);

  world.AddVolume(volume, u'e');
  EXPECT_EQ(NameOfOpened(u"\\??\\E:\\"), "\\Device\\HarddiskVolume7\\");
  ASSERT_TRUE(world.MakeDirectory(u"\\??\\E:\\Logs"));
  EXPECT_TRUE(world.MakeDirectory(u"\\??\\E:\\Logs")) << "already there";
  EXPECT_FALSE(world.MakeDirectory(u"\\??\\E:\\Missing\\Logs"));
  ASSERT_TRUE(world.WriteFileBytes(u"\\??\\E:\\Logs\\a.log", {1, 2, 3}));
  EXPECT_FALSE(world.MakeDirectory(u"\\??\\E:\\Logs\\a.log")) << "a file is no directory";

  // A letter moves; one that another volume holds is taken from it.
  world.AssignDriveLetter(volume, u'F');
  EXPECT_EQ(Open(u"\\??\\E:\\Logs\\a.log", FILE_OPEN, kSync, &file), STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(NameOfOpened(u"\\??\\F:\\Logs\\a.log"), "\\Device\\HarddiskVolume7\\Logs\\a.log");
  world.AssignDriveLetter(volume, u'D');
  EXPECT_EQ(NameOfOpened(u"\\??\\D:\\Logs\\a.log"), "\\Device\\HarddiskVolume7\\Logs\\a.log");
  EXPECT_EQ(Open(u"\\??\\F:\\Logs\\a.log", FILE_OPEN, kSync, &file), STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(NameOfOpened(u"\\Device\\HarddiskVolume5\\Data\\report.txt"),
            "\\Device\\HarddiskVolume5\\Data\\report.txt")
      << "the volume that lost its letter is still there";

  // Removed with a file open: the file's transfers fail, new opens find nothing, the files stay.
  ASSERT_EQ(Open(u"\\??\\D:\\Logs\\a.log", FILE_OPEN, kSync, &file), STATUS_SUCCESS);
  world.RemoveVolume(volume);
  uint8_t bytes[8];
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER offset{};
  EXPECT_EQ(ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, bytes, sizeof bytes, &offset, nullptr),
            STATUS_NO_SUCH_DEVICE);
  EXPECT_EQ(ZwClose(file), STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\Logs\\a.log", FILE_OPEN, kSync, &file), STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(Open(u"\\Device\\HarddiskVolume7\\Logs\\a.log", FILE_OPEN, kSync, &file),
            STATUS_OBJECT_PATH_NOT_FOUND);

  // Back again under another letter, with its files; letters and absences outlive a reboot.
  world.AddVolume(volume, u'G');
  world.Reboot();
  EXPECT_EQ(world.ReadFileBytes(u"\\??\\G:\\Logs\\a.log"), std::vector<uint8_t>({1, 2, 3}));
  EXPECT_EQ(NameOfOpened(u"\\??\\C:\\Windows"), "\\Device\\HarddiskVolume3\\Windows");
  world.RemoveDriveLetter(u'G');
  world.RemoveVolume(u"\\Device\\HarddiskVolume5");
  world.Crash();
  EXPECT_EQ(Open(u"\\??\\G:\\Logs\\a.log", FILE_OPEN, kSync, &file), STATUS_OBJECT_PATH_NOT_FOUND);
  EXPECT_EQ(NameOfOpened(u"\\Device\\HarddiskVolume7\\Logs\\a.log"), "\\Device\\HarddiskVolume7\\Logs\\a.log");
  EXPECT_EQ(Open(u"\\Device\\HarddiskVolume5\\Data\\report.txt", FILE_OPEN, kSync, &file),
            STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(FileSystemTest, VolumesChangeWhileOtherThreadsUseTheirFiles) {
  const std::u16string volume = u"\\Device\\HarddiskVolume8";
  world.AddVolume(volume, u'H');
  ASSERT_TRUE(world.WriteFileBytes(u"\\??\\H:\\x.bin", {7}));
  std::atomic<bool> stop{false};
  std::atomic<int> opened{0};
  {
    sim_test::HostThread user([&] {
      while (!stop) {
        HANDLE file = nullptr;
        NTSTATUS status = Open(u"\\??\\H:\\x.bin", FILE_OPEN, kSync, &file, GENERIC_READ);
        if (NT_SUCCESS(status)) {
          ++opened;
          uint8_t byte = 0;
          IO_STATUS_BLOCK iosb{};
          LARGE_INTEGER offset{};
          NTSTATUS read = ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, &byte, 1, &offset, nullptr);
          EXPECT_TRUE(read == STATUS_SUCCESS || read == STATUS_NO_SUCH_DEVICE) << read;
          EXPECT_TRUE(read != STATUS_SUCCESS || byte == 7);
          ZwClose(file);
        } else {
          // Gone before the lookup, or between the lookup and the file system's answer.
          EXPECT_TRUE(status == STATUS_OBJECT_PATH_NOT_FOUND || status == STATUS_NO_SUCH_DEVICE) << status;
        }
      }
    });
    for (int i = 0; i < 200; ++i) {
      if (i % 2) {
        world.AddVolume(volume, i % 4 == 1 ? u'H' : u'I');
        world.AssignDriveLetter(volume, u'H');
      } else {
        world.RemoveVolume(volume);
      }
    }
    EXPECT_TRUE(sim_test::Eventually([&] { return opened > 0; }));
    stop = true;
  }
  EXPECT_EQ(world.kernel().io.OutstandingRequests(), 0u);
}

}  // namespace
