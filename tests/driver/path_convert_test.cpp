// The path conversions on a running machine: NT, DOS and symbolic paths on lettered and letterless
// volumes and network shares, the system root found at start-up, the mount manager asked on a
// miss and not again, and every failure path returning its status with nothing left behind.
#include <gtest/gtest.h>

#include "names/dos_name.h"
#include "names/name_hash.h"
#include "names/path_convert.h"
#include "path_test_support.h"

using namespace sentrel_test;

namespace {

const char16_t kCmd[] = u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe";
const char16_t kCmdDos[] = u"\\??\\C:\\Windows\\System32\\cmd.exe";

class PathConvertTest : public StartedDriverTest {
 protected:
  // skt_PathConvertToNtPath's two answers, as text.
  NTSTATUS Convert(const std::u16string& path, bool directory, std::u16string* nt, std::u16string* dos) {
    UNICODE_STRING s = Counted(path);
    PUNICODE_STRING ntPath = nullptr, dosPath = nullptr;
    NTSTATUS status = world.AsSystem(
        [&] { return skt_PathConvertToNtPath(PagedPool, directory, nullptr, &s, &ntPath, &dosPath); });
    *nt = Take(ntPath);
    *dos = Take(dosPath);
    return status;
  }
  NTSTATUS ImageConvert(const std::u16string& path, std::u16string* nt, std::u16string* dos) {
    UNICODE_STRING s = Counted(path);
    PUNICODE_STRING ntPath = nullptr, dosPath = nullptr;
    NTSTATUS status =
        world.AsSystem([&] { return skt_ImagePathConvertToNtPath(PagedPool, nullptr, &s, &ntPath, &dosPath); });
    *nt = Take(ntPath);
    *dos = Take(dosPath);
    return status;
  }
  NTSTATUS DosOf(const std::u16string& ntPath, std::u16string* dos) {
    UNICODE_STRING s = Counted(ntPath);
    PUNICODE_STRING dosPath = nullptr;
    NTSTATUS status = world.AsSystem([&] { return skt_QueryDosPathFromNtPath(PagedPool, &s, &dosPath); });
    *dos = Take(dosPath);
    return status;
  }
  NTSTATUS RealPath(const std::u16string& name, std::u16string* real, bool* same) {
    UNICODE_STRING s = Counted(name);
    PUNICODE_STRING out = nullptr;
    NTSTATUS status = world.AsSystem([&] { return sk_GetImageRealPath(&s, &out); });
    *same = out == &s;
    *real = *same ? Text(&s) : Take(out);
    return status;
  }
  NTSTATUS VolumeOf(const std::u16string& ntPath, std::u16string* volume) {
    UNICODE_STRING s = Counted(ntPath), v{};
    NTSTATUS status = world.AsSystem([&] { return skt_GetVolDevName(&s, &v); });
    *volume = NT_SUCCESS(status) ? Text(&v) : u"";
    if (NT_SUCCESS(status)) {
      EXPECT_EQ(v.Buffer, s.Buffer) << "the volume name shares the path's buffer";
    }
    return status;
  }
};

TEST_F(PathConvertTest, SystemRootPathsAreWhatTheMachineSays) {
  EXPECT_EQ(Text(SentrelData.SystemRootPath), u"\\SystemRoot");
  EXPECT_EQ(Text(SentrelData.SystemRootNtPath), u"\\Device\\HarddiskVolume3\\Windows");
  EXPECT_EQ(Text(SentrelData.SystemRootDosPath), u"\\??\\C:\\Windows");
}

TEST_F(PathConvertTest, VolumeNameIsTheDevicePartOfAnNtPath) {
  std::u16string volume;
  EXPECT_EQ(VolumeOf(kCmd, &volume), STATUS_SUCCESS);
  EXPECT_EQ(volume, u"\\Device\\HarddiskVolume3");
  EXPECT_EQ(VolumeOf(u"\\Device\\HarddiskVolume3", &volume), STATUS_SUCCESS);
  EXPECT_EQ(volume, u"\\Device\\HarddiskVolume3");
  EXPECT_EQ(VolumeOf(u"\\device\\Mup\\server\\share", &volume), STATUS_INVALID_PARAMETER);  // 'd' is tested as is
  EXPECT_EQ(VolumeOf(u"\\DEVICE\\HarddiskVolume3\\x", &volume), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(VolumeOf(u"\\DeVICE\\HarddiskVolume3\\x", &volume), STATUS_SUCCESS);  // the rest is not
  EXPECT_EQ(VolumeOf(u"\\Devices\\x", &volume), STATUS_NOT_FOUND);
  EXPECT_EQ(VolumeOf(u"\\Device\\", &volume), STATUS_INVALID_PARAMETER);  // nothing behind the prefix
  EXPECT_EQ(VolumeOf(u"\\Device\\X", &volume), STATUS_SUCCESS);
  EXPECT_EQ(volume, u"\\Device\\X");
}

TEST_F(PathConvertTest, HashesAreTakenOverSignExtendedBytes) {
  // Values worked out independently over the UTF-16 bytes.
  std::u16string a = u"A", e = u"\u00e9", volume = u"\\Device\\HarddiskVolume3";
  UNICODE_STRING s = Counted(a);
  EXPECT_EQ(skt_HashBKDR(&s), 0x2143u);
  EXPECT_EQ(skt_HashDJB(&s), 0x5972a6u);
  s = Counted(e);  // 0xE9 counts as -23
  EXPECT_EQ(skt_HashBKDR(&s), 0xfffff43bu);
  EXPECT_EQ(skt_HashDJB(&s), 0x59674eu);
  s = Counted(volume);
  EXPECT_EQ(sk_DosNameKey(&s), 0x02cf1c3f31aa6002ull);
}

TEST_F(PathConvertTest, OpenablePathsGiveTheirNtAndDosPaths) {
  std::u16string nt, dos;
  for (const char16_t* path : {u"\\??\\C:\\Windows\\System32\\cmd.exe", u"\\SystemRoot\\System32\\cmd.exe",
                               u"\\SystemRoot\\system32\\CMD.EXE", kCmd}) {
    ASSERT_EQ(Convert(path, false, &nt, &dos), STATUS_SUCCESS) << ntsim::ToUtf8(path);
    EXPECT_EQ(nt, kCmd);  // the name as the file system keeps it
    EXPECT_EQ(dos, kCmdDos);
  }
  ASSERT_EQ(Convert(u"\\??\\D:\\Data\\report.txt", false, &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(nt, u"\\Device\\HarddiskVolume5\\Data\\report.txt");
  EXPECT_EQ(dos, u"\\??\\D:\\Data\\report.txt");
  // A volume's root directory is named with its trailing backslash.
  ASSERT_EQ(Convert(u"\\??\\D:\\", true, &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(nt, u"\\Device\\HarddiskVolume5\\");
  EXPECT_EQ(dos, u"\\??\\D:\\");

  // The open honours what the caller says the path is.
  EXPECT_EQ(Convert(u"\\SystemRoot\\System32", false, &nt, &dos), STATUS_FILE_IS_A_DIRECTORY);
  EXPECT_EQ(Convert(u"\\SystemRoot\\System32\\cmd.exe", true, &nt, &dos), STATUS_NOT_A_DIRECTORY);
  EXPECT_EQ(Convert(u"\\SystemRoot\\System32\\missing.exe", false, &nt, &dos), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_TRUE(HasMessage(world, "ZwOpenFile fail Status:c0000034"));
  EXPECT_EQ(nt, u"<null>");
  EXPECT_EQ(Convert(u"", false, &nt, &dos), STATUS_OBJECT_PATH_SYNTAX_BAD);  // no name to look up
}

TEST_F(PathConvertTest, EitherAnswerAloneMayBeAskedForButOneMustBe) {
  std::u16string text = u"\\SystemRoot\\System32\\cmd.exe";
  UNICODE_STRING s = Counted(text);
  PUNICODE_STRING nt = nullptr, dos = nullptr;
  world.AsSystem([&] {
    EXPECT_EQ(skt_PathConvertToNtPath(PagedPool, FALSE, nullptr, &s, nullptr, &dos), STATUS_SUCCESS);
    EXPECT_EQ(skt_PathConvertToNtPath(PagedPool, FALSE, nullptr, &s, &nt, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(skt_PathConvertToNtPath(PagedPool, FALSE, nullptr, &s, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(skt_PathConvertToNtPath(PagedPool, FALSE, nullptr, nullptr, &nt, &dos), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(skt_ImagePathConvertToNtPath(PagedPool, nullptr, nullptr, &nt, &dos), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(skt_ImagePathConvertToNtPath(PagedPool, nullptr, &s, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    return 0;
  });
  EXPECT_EQ(Take(dos), kCmdDos);
  EXPECT_EQ(Take(nt), kCmd);
}

TEST_F(PathConvertTest, VolumesWithoutADosNameKeepTheirNtPath) {
  std::u16string nt, dos;
  // A network share: the mount manager has no name for the redirector.
  ASSERT_EQ(Convert(u"\\??\\UNC\\server\\share\\tools\\a.exe", false, &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(nt, u"\\Device\\Mup\\server\\share\\tools\\a.exe");
  EXPECT_EQ(dos, u"<null>");
  // A volume that never registered with the mount manager.
  world.AddVolume(u"\\Device\\HarddiskVolume9", 0, false);
  ASSERT_TRUE(world.WriteFileBytes(u"\\Device\\HarddiskVolume9\\x.bin", {1, 2, 3}));
  ASSERT_EQ(Convert(u"\\Device\\HarddiskVolume9\\x.bin", false, &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(nt, u"\\Device\\HarddiskVolume9\\x.bin");
  EXPECT_EQ(dos, u"<null>");
  EXPECT_TRUE(HasMessage(world, "skt_QueryDosNameFromNtName fail Status:c0000034"));
  // From the table, the same: no DOS part, yet success.
  ASSERT_EQ(ImageConvert(u"\\Device\\HarddiskVolume9\\x.bin", &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(nt, u"\\Device\\HarddiskVolume9\\x.bin");
  EXPECT_EQ(dos, u"<null>");

  // A volume the mount manager knows but that has no letter: it is answered with its GUID path
  // ("\\?\Volume{...}\"), no DOS name either, by both conversions.
  world.AddVolume(u"\\Device\\HarddiskVolume7", 0, true);
  ASSERT_TRUE(world.WriteFileBytes(u"\\Device\\HarddiskVolume7\\x.bin", {1}));
  ASSERT_EQ(Convert(u"\\Device\\HarddiskVolume7\\x.bin", false, &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(nt, u"\\Device\\HarddiskVolume7\\x.bin");
  EXPECT_EQ(dos, u"<null>");
  ASSERT_EQ(ImageConvert(u"\\Device\\HarddiskVolume7\\x.bin", &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"<null>");
  // Given a mount folder, the volume is named by it, its trailing backslash not doubled.
  world.SetVolumeMountFolder(u"\\Device\\HarddiskVolume7", u"C:\\Mount\\Data\\");
  ASSERT_EQ(Convert(u"\\Device\\HarddiskVolume7\\x.bin", false, &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\??\\C:\\Mount\\Data\\x.bin");
}

TEST_F(PathConvertTest, NetworkPathsAreTheirOwnDosPaths) {
  std::u16string dos;
  EXPECT_EQ(DosOf(u"\\Device\\Mup\\server\\share\\a.exe", &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\Device\\Mup\\server\\share\\a.exe");
  EXPECT_EQ(DosOf(u"\\DEVICE\\MUP\\server\\share\\a.exe", &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\DEVICE\\MUP\\server\\share\\a.exe");
  EXPECT_EQ(DosOf(kCmd, &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, kCmdDos);
  EXPECT_EQ(DosOf(u"\\??\\C:\\x.exe", &dos), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(dos, u"<null>");
}

TEST_F(PathConvertTest, ImagesConvertFromTheirFileObjectOrTheirPath) {
  std::u16string nt, dos;
  ASSERT_EQ(ImageConvert(u"\\SystemRoot\\System32\\ntdll.dll", &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(nt, u"\\Device\\HarddiskVolume3\\Windows\\System32\\ntdll.dll");
  EXPECT_EQ(dos, u"\\??\\C:\\Windows\\System32\\ntdll.dll");
  EXPECT_EQ(ImageConvert(u"\\SystemRoot\\System32", &nt, &dos), STATUS_FILE_IS_A_DIRECTORY);
  EXPECT_TRUE(HasMessage(world, "NtOpenFile fail Status:c00000ba"));

  // A file object of the caller's is used as it is: its references are the caller's.
  world.AsSystem([&] {
    std::u16string text = u"\\??\\D:\\Data\\report.txt";
    UNICODE_STRING name = Counted(text);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb;
    HANDLE handle = nullptr;
    EXPECT_EQ(ZwOpenFile(&handle, GENERIC_READ, &attributes, &iosb, FILE_SHARE_READ, FILE_NON_DIRECTORY_FILE),
              STATUS_SUCCESS);
    PVOID file = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &file, nullptr), STATUS_SUCCESS);
    long before = ntsim::ObjectManager::HeaderOf(file)->pointerCount.load();
    PUNICODE_STRING ntPath = nullptr, dosPath = nullptr;
    EXPECT_EQ(skt_ImagePathConvertToNtPath(PagedPool, static_cast<PFILE_OBJECT>(file), nullptr, &ntPath, &dosPath),
              STATUS_SUCCESS);
    EXPECT_EQ(ntsim::ObjectManager::HeaderOf(file)->pointerCount.load(), before);
    EXPECT_EQ(Take(ntPath), u"\\Device\\HarddiskVolume5\\Data\\report.txt");
    // Exactly the room of its characters: the table's DOS name replaces the volume name.
    EXPECT_EQ(dosPath->MaximumLength, dosPath->Length);
    EXPECT_EQ(Take(dosPath), u"\\??\\D:\\Data\\report.txt");
    ObDereferenceObject(file);
    ZwClose(handle);
    return 0;
  });
}

TEST_F(PathConvertTest, QueryNtPathLeavesRoomToAppendAPattern) {
  for (bool directory : {false, true}) {
    std::u16string text = u"\\SystemRoot\\System32";
    UNICODE_STRING s = Counted(text);
    PUNICODE_STRING nt = nullptr;
    // Without the directory option the open takes files and directories alike.
    ASSERT_EQ(world.AsSystem([&] { return skt_QueryNtPath(&s, directory, &nt); }), STATUS_SUCCESS);
    EXPECT_GE(nt->MaximumLength - nt->Length, SK_NT_PATH_SPARE);
    EXPECT_EQ(RtlAppendUnicodeToString(nt, L"\\*"), STATUS_SUCCESS);
    EXPECT_EQ(Take(nt), u"\\Device\\HarddiskVolume3\\Windows\\System32\\*");
  }
  std::u16string text = u"\\SystemRoot\\System32\\cmd.exe";
  UNICODE_STRING s = Counted(text);
  PUNICODE_STRING nt = nullptr;
  ASSERT_EQ(world.AsSystem([&] { return skt_QueryNtPath(&s, FALSE, &nt); }), STATUS_SUCCESS);
  EXPECT_EQ(Take(nt), kCmd);
  EXPECT_EQ(world.AsSystem([&] { return skt_QueryNtPath(&s, TRUE, &nt); }), STATUS_NOT_A_DIRECTORY);
}

TEST_F(PathConvertTest, ImageNamesBecomeDosPaths) {
  std::u16string real;
  bool same = false;
  EXPECT_EQ(RealPath(u"\\SystemRoot\\System32\\drivers\\x.sys", &real, &same), STATUS_SUCCESS);
  EXPECT_EQ(real, u"\\??\\C:\\Windows\\System32\\drivers\\x.sys");
  EXPECT_EQ(RealPath(u"\\systemroot\\System32\\drivers\\x.sys", &real, &same), STATUS_SUCCESS);
  EXPECT_EQ(real, u"\\??\\C:\\Windows\\System32\\drivers\\x.sys");
  EXPECT_EQ(RealPath(u"\\Windows\\System32\\ntdll.dll", &real, &same), STATUS_SUCCESS);
  EXPECT_EQ(real, u"\\??\\C:\\Windows\\System32\\ntdll.dll");
  EXPECT_EQ(RealPath(u"\\Device\\HarddiskVolume5\\Data\\report.txt", &real, &same), STATUS_SUCCESS);
  EXPECT_EQ(real, u"\\??\\D:\\Data\\report.txt");
  EXPECT_FALSE(same);

  // Names that carry none of the prefixes come back as they are: silently when short, with a
  // refusal when long enough to have carried one.
  EXPECT_EQ(RealPath(u"\\??\\C:\\x.dll", &real, &same), STATUS_SUCCESS);
  EXPECT_TRUE(same);
  EXPECT_EQ(RealPath(u"\\??\\C:\\Program Files\\a.dll", &real, &same), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(same);
  EXPECT_EQ(RealPath(u"\\SystemRoot", &real, &same), STATUS_SUCCESS);  // nothing behind the prefix
  EXPECT_TRUE(same);
  // A volume the table does not know is not asked of the mount manager here.
  world.AddVolume(u"\\Device\\HarddiskVolume7", u'F');
  size_t queries = world.MountManagerQueryCount();
  EXPECT_EQ(RealPath(u"\\Device\\HarddiskVolume7\\a.exe", &real, &same), STATUS_NOT_FOUND);
  EXPECT_TRUE(same);
  EXPECT_EQ(world.MountManagerQueryCount(), queries);
  EXPECT_TRUE(HasMessage(world, "sk_LookupDosName fail Status:c0000225"));
}

TEST_F(PathConvertTest, ANewVolumeIsAskedOfTheMountManagerOnceThenFoundInTheTable) {
  world.AddVolume(u"\\Device\\HarddiskVolume7", u'F');
  std::u16string dos;
  size_t queries = world.MountManagerQueryCount();
  ASSERT_EQ(DosOf(u"\\Device\\HarddiskVolume7\\Tools\\x.exe", &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\??\\F:\\Tools\\x.exe");
  EXPECT_EQ(world.MountManagerQueryCount(), queries + 2);  // the size, then the answer
  EXPECT_TRUE(HasMessage(world, "add \\Device\\HarddiskVolume7-F:"));
  ASSERT_EQ(DosOf(u"\\Device\\HarddiskVolume7\\y.exe", &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\??\\F:\\y.exe");
  EXPECT_EQ(world.MountManagerQueryCount(), queries + 2);

  // A letter that moves later is not noticed: the table keeps what it learned.
  world.RemoveDriveLetter(u'F');
  world.AssignDriveLetter(u"\\Device\\HarddiskVolume7", u'G');
  ASSERT_EQ(DosOf(u"\\Device\\HarddiskVolume7\\y.exe", &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\??\\F:\\y.exe");

  // Pending answers are waited for.
  world.MountManagerAnswerPending(true);
  world.AddVolume(u"\\Device\\HarddiskVolume8", u'H');
  ASSERT_EQ(DosOf(u"\\Device\\HarddiskVolume8\\z.exe", &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\??\\H:\\z.exe");
  std::u16string nt;
  ASSERT_TRUE(world.WriteFileBytes(u"\\??\\H:\\z.exe", {1}));
  ASSERT_EQ(Convert(u"\\??\\H:\\z.exe", false, &nt, &dos), STATUS_SUCCESS);
  EXPECT_EQ(dos, u"\\??\\H:\\z.exe");
}

TEST_F(PathConvertTest, MountManagerFailuresAndOversizedAnswersStopTheConversion) {
  world.AddVolume(u"\\Device\\HarddiskVolume7", u'F');
  world.MountManagerFailQueries(STATUS_DEVICE_NOT_READY);
  std::u16string dos;
  EXPECT_EQ(DosOf(u"\\Device\\HarddiskVolume7\\x.exe", &dos), STATUS_DEVICE_NOT_READY);
  EXPECT_TRUE(HasMessage(world, "Query Volume Paths fail Status:c00000a3"));
  EXPECT_EQ(dos, u"<null>");
  world.MountManagerFailQueries(STATUS_SUCCESS);

  // A letterless volume mounted on a folder whose name alone needs more than 64 KiB.
  world.AddVolume(u"\\Device\\HarddiskVolume8");
  world.SetVolumeMountFolder(u"\\Device\\HarddiskVolume8", u"C:\\" + std::u16string(33000, u'm') + u"\\");
  size_t queries = world.MountManagerQueryCount();
  EXPECT_EQ(DosOf(u"\\Device\\HarddiskVolume8\\x.exe", &dos), STATUS_INVALID_BUFFER_SIZE);
  EXPECT_EQ(world.MountManagerQueryCount(), queries + 1);
  EXPECT_TRUE(HasMessage(world, "OutputLength > MAXUSHORT"));
}

TEST_F(PathConvertTest, EveryFailureOfAConversionIsCleanAndNamed) {
  // The open, the name query, each allocation and each mount-manager request, in turn.
  EachFailure([&](uint64_t n) {
    std::u16string text = u"\\SystemRoot\\System32\\cmd.exe";
    UNICODE_STRING s = Counted(text);
    PUNICODE_STRING nt = nullptr, dos = nullptr;
    NTSTATUS status = skt_PathConvertToNtPath(PagedPool, FALSE, nullptr, &s, &nt, &dos);
    if (status == STATUS_SUCCESS) {
      EXPECT_EQ(Take(nt), kCmd) << n;
      std::u16string dosText = Take(dos);
      // Only a failure can take the DOS part away.
      if (dosText == u"<null>") {
        EXPECT_TRUE(world.verifier().InjectedFailure()) << n;
      } else {
        EXPECT_EQ(dosText, kCmdDos) << n;
      }
    } else {
      EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << n;
      EXPECT_EQ(nt, nullptr) << n;
    }
  });
  // A volume that arrives after start-up, so that the table must ask the mount manager.
  auto arrive = [&] {
    world.AddVolume(u"\\Device\\HarddiskVolume7", u'F');
    ASSERT_TRUE(world.WriteFileBytes(u"\\??\\F:\\a.exe", {1}));
  };
  auto leave = [&] { world.RemoveVolume(u"\\Device\\HarddiskVolume7"); };
  EachFailure([&](uint64_t n) {
    std::u16string text = u"\\??\\F:\\a.exe";
    UNICODE_STRING s = Counted(text);
    PUNICODE_STRING nt = nullptr, dos = nullptr;
    NTSTATUS status = skt_ImagePathConvertToNtPath(PagedPool, nullptr, &s, &nt, &dos);
    if (status == STATUS_SUCCESS) {
      EXPECT_EQ(Take(nt), u"\\Device\\HarddiskVolume7\\a.exe") << n;
      std::u16string dosText = Take(dos);
      if (dosText == u"<null>") {
        EXPECT_TRUE(world.verifier().InjectedFailure()) << n;
      } else {
        EXPECT_EQ(dosText, u"\\??\\F:\\a.exe") << n;
      }
    } else {
      EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << n;
    }
  }, arrive, leave);
  EachFailure([&](uint64_t n) {
    std::u16string text = u"\\Device\\HarddiskVolume7\\a.exe";
    UNICODE_STRING s = Counted(text);
    PUNICODE_STRING dos = nullptr;
    NTSTATUS status = skt_QueryDosPathFromNtPath(PagedPool, &s, &dos);
    if (status == STATUS_SUCCESS) {
      EXPECT_EQ(Take(dos), u"\\??\\F:\\a.exe") << n;
    } else {
      EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << n;
      EXPECT_EQ(dos, nullptr) << n;
    }
  }, arrive, leave);
  EachFailure([&](uint64_t n) {
    std::u16string text = u"\\SystemRoot\\System32\\drivers\\x.sys";
    UNICODE_STRING s = Counted(text);
    PUNICODE_STRING real = nullptr;
    NTSTATUS status = sk_GetImageRealPath(&s, &real);
    if (status == STATUS_SUCCESS) {
      EXPECT_EQ(Take(real), u"\\??\\C:\\Windows\\System32\\drivers\\x.sys") << n;
    } else {
      EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << n;
      EXPECT_EQ(real, &s) << n;
    }
  });
}

}  // namespace
