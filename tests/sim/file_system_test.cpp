// The simulated file system as a driver reaches it through the Zw file routines.
#include <gtest/gtest.h>

#include <vector>

#include "world.h"

using ntsim::World;

namespace {

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
  EXPECT_EQ(Open(path, FILE_OPEN, kSync, &file, GENERIC_READ), STATUS_INVALID_PARAMETER);
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

}  // namespace
