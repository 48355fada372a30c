// The process, thread and address-space queries, against processes of the simulated machine.
#include <gtest/gtest.h>

#include <set>

#include "core/debug_log.h"
#include "monitor/process_query.h"
#include "names/string_block.h"
#include "query_test_support.h"

using namespace ntsim;
using sentrel_test::HasMessage;
using sentrel_test::Text;

namespace {

class ProcessQueryTest : public sentrel_test::QueryTest {
 protected:
  UserProcess& Launch(const std::u16string& commandLine, const std::u16string& directory, bool normalized,
                      bool wow64 = false) {
    ProcessSpec spec;
    spec.imagePath = u"\\??\\C:\\Windows\\System32\\notepad.exe";
    spec.commandLine = commandLine;
    spec.currentDirectory = directory;
    spec.normalizedParameters = normalized;
    spec.wow64 = wow64;
    return world.CreateProcess(spec);
  }

  struct PathInfo {
    NTSTATUS status;
    std::u16string commandLine, currentDirectory;
    bool outputsNull;
  };
  // Asked from a system thread, so the query attaches to the process.
  PathInfo Ask(UserProcess& process) { return Ask(process.Process()); }
  PathInfo Ask(PEPROCESS process) {
    return world.AsSystem([&] {
      PUNICODE_STRING commandLine = reinterpret_cast<PUNICODE_STRING>(1);
      PUNICODE_STRING directory = reinterpret_cast<PUNICODE_STRING>(1);
      PathInfo info{skt_GetProcessPathInfo(process, &commandLine, &directory), u"", u"",
                    !commandLine && !directory};
      if (commandLine) info.commandLine = Text(commandLine), skt_FreeUnicodeStringSelf(commandLine);
      if (directory) info.currentDirectory = Text(directory), skt_FreeUnicodeStringSelf(directory);
      return info;
    });
  }
};

TEST_F(ProcessQueryTest, CommandLineAndDirectoryComeFromNormalizedAndUnnormalizedBlocks) {
  UserProcess& normalized = Launch(u"notepad.exe C:\\notes.txt", u"C:\\Users\\ann\\", true);
  UserProcess& raw = Launch(u"notepad.exe /raw", u"D:\\Data\\", false);
  PathInfo one = Ask(normalized);
  EXPECT_EQ(one.status, STATUS_SUCCESS);
  EXPECT_EQ(one.commandLine, u"notepad.exe C:\\notes.txt");
  EXPECT_EQ(one.currentDirectory, u"C:\\Users\\ann\\");
  PathInfo two = Ask(raw);
  EXPECT_EQ(two.status, STATUS_SUCCESS);
  EXPECT_EQ(two.commandLine, u"notepad.exe /raw");
  EXPECT_EQ(two.currentDirectory, u"D:\\Data\\");
  EXPECT_TRUE(HasMessage(world, "CommandLine:notepad.exe /raw"));

  // In the process's own context no attach is needed; one output alone may be asked for.
  PUNICODE_STRING directory = nullptr;
  EXPECT_EQ(raw.InProcess([&] { return skt_GetProcessPathInfo(raw.Process(), nullptr, &directory); }),
            STATUS_SUCCESS);
  ASSERT_NE(directory, nullptr);
  EXPECT_EQ(Text(directory), u"D:\\Data\\");
  skt_FreeUnicodeStringSelf(directory);
  EXPECT_EQ(skt_GetProcessPathInfo(raw.Process(), nullptr, nullptr), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(skt_GetProcessPathInfo(nullptr, &directory, nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(ProcessQueryTest, EmptyStringsAndFaultsReturnNothingAndKeepNothing) {
  PathInfo noCommand = Ask(Launch(u"", u"C:\\", true));
  EXPECT_EQ(noCommand.status, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(noCommand.outputsNull);
  EXPECT_TRUE(HasMessage(world, "CommandLine Invalid"));
  // The command line was built before the empty directory was found: it is freed (TearDown).
  PathInfo noDirectory = Ask(Launch(u"notepad.exe", u"", false));
  EXPECT_EQ(noDirectory.status, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(noDirectory.outputsNull);
  EXPECT_TRUE(HasMessage(world, "CurrentDirectory Invalid"));

  for (ProcessMemoryPart part : {ProcessMemoryPart::EnvironmentBlock, ProcessMemoryPart::Parameters,
                                 ProcessMemoryPart::CommandLine, ProcessMemoryPart::CurrentDirectory}) {
    UserProcess& process = Launch(u"notepad.exe", u"C:\\", true);
    world.MakeProcessMemoryFault(process, part);
    PathInfo faulted = Ask(process);  // a detach left out would stop the run here
    EXPECT_EQ(faulted.status, STATUS_ACCESS_VIOLATION) << static_cast<int>(part);
    EXPECT_TRUE(faulted.outputsNull);
  }
  EXPECT_TRUE(HasMessage(world, "skt_GetProcessParametersFromPeb fail Status:c0000005"));

  // The System process has no environment block.
  EXPECT_EQ(Ask(world.kernel().ps.System()).status, STATUS_INSUFFICIENT_RESOURCES);
}

// The parameter block is the process's own memory: it may point its strings, or the environment
// block its parameters, at kernel memory. Nothing of that memory may come back.
TEST_F(ProcessQueryTest, ABlockThatPointsIntoTheKernelGivesNothingOfIt) {
  static const char16_t kSecret[] = u"KERNEL SECRET";
  void* secret = world.AsSystem([] { return ExAllocatePoolWithTag(NonPagedPool, 64, 'tseT'); });
  ASSERT_NE(secret, nullptr);
  std::memcpy(secret, kSecret, sizeof kSecret);
  auto kernelWord = reinterpret_cast<uint64_t>(secret);
  constexpr size_t kCommandLineBuffer = 0x78, kDirectoryBuffer = 0x40, kParameters = 0x20;

  UserProcess& byCommandLine = Launch(u"notepad.exe a", u"C:\\", true);
  std::memcpy(static_cast<char*>(byCommandLine.Environment().parameters) + kCommandLineBuffer, &kernelWord, 8);
  UserProcess& byDirectory = Launch(u"notepad.exe b", u"C:\\", true);
  std::memcpy(static_cast<char*>(byDirectory.Environment().parameters) + kDirectoryBuffer, &kernelWord, 8);
  UserProcess& byParameters = Launch(u"notepad.exe c", u"C:\\", true);
  std::memcpy(static_cast<char*>(byParameters.Environment().peb) + kParameters, &kernelWord, 8);
  // Unnormalized, the buffer field is an offset from the block: one that reaches the kernel.
  UserProcess& byOffset = Launch(u"notepad.exe d", u"C:\\", false);
  uint64_t wrapping = ~reinterpret_cast<uint64_t>(byOffset.Environment().parameters) + 1 + kernelWord;
  std::memcpy(static_cast<char*>(byOffset.Environment().parameters) + kCommandLineBuffer, &wrapping, 8);

  for (UserProcess* process : {&byCommandLine, &byDirectory, &byParameters, &byOffset}) {
    PathInfo info = Ask(*process);
    EXPECT_EQ(info.status, STATUS_ACCESS_VIOLATION) << process->Id();
    EXPECT_TRUE(info.outputsNull);
  }
  world.AsSystem([&] {
    ExFreePoolWithTag(secret, 'tseT');
    return 0;
  });
}

TEST_F(ProcessQueryTest, EachAllocationFailureIsReportedAndFreesWhatWasBuilt) {
  UserProcess& process = Launch(u"notepad.exe x", u"C:\\", true);
  size_t failures = 0;
  for (uint64_t n = 1;; ++n) {
    world.verifier().FailNth(n);
    PathInfo info = Ask(process);
    bool injected = world.verifier().InjectedFailure();
    world.verifier().FailNth(0);
    if (!injected) {
      EXPECT_EQ(info.status, STATUS_SUCCESS);
      break;
    }
    ++failures;
    EXPECT_EQ(info.status, STATUS_INSUFFICIENT_RESOURCES) << n;
    EXPECT_TRUE(info.outputsNull) << n;
    EXPECT_TRUE(world.kernel().pool.Outstanding().empty()) << n;
  }
  EXPECT_EQ(failures, 2u);
  EXPECT_TRUE(HasMessage(world, "vCommandLine alloc fail"));
  EXPECT_TRUE(HasMessage(world, "vCurrentDirectory alloc fail"));
}

TEST_F(ProcessQueryTest, ThreadStartAddressComesThroughAKernelHandleThatIsClosed) {
  UserProcess& process = Launch(u"notepad.exe", u"C:\\", true);
  uint64_t tid = world.StartThread(process, nullptr, 0x7FF612345678);
  PETHREAD thread = world.kernel().ps.FindThread(tid);
  PVOID start = nullptr;
  EXPECT_EQ(world.AsSystem([&] { return skt_GetThreadWin32StartAddress(thread, &start); }), STATUS_SUCCESS);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(start), 0x7FF612345678u);
  EXPECT_TRUE(HasMessage(world, "Win32StartAddress:0x12345678"));

  world.verifier().FailNth(1);  // the handle cannot be opened
  start = nullptr;
  EXPECT_EQ(world.AsSystem([&] { return skt_GetThreadWin32StartAddress(thread, &start); }),
            STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(start, nullptr);
  EXPECT_TRUE(HasMessage(world, "ObOpenObjectByPointer fail Status:c000009a"));
}

// The images the walk reports: name, base and size.
struct Seen {
  std::u16string name;
  uintptr_t base;
  ULONG size;
  bool operator==(const Seen& other) const {
    return name == other.name && base == other.base && size == other.size;
  }
};
struct WalkContext {
  std::vector<Seen> seen;
  size_t stopAfter = SIZE_MAX;
};
NTSTATUS NTAPI Collect(PUNICODE_STRING name, PVOID base, ULONG size, PVOID context) {
  auto* walk = static_cast<WalkContext*>(context);
  walk->seen.push_back({Text(name), reinterpret_cast<uintptr_t>(base), size});
  return walk->seen.size() >= walk->stopAfter ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
}

TEST_F(ProcessQueryTest, AddressSpaceWalkReportsImageRunsUntilTheEndOfUserSpace) {
  ProcessSpec spec;
  spec.imagePath = u"\\??\\C:\\Windows\\System32\\cmd.exe";
  spec.mapExecutable = false;
  UserProcess& process = world.CreateProcess(spec);
  // An image directly followed by private memory, then directly by another image: one run, as
  // only a free region closes a run. Then an image of its own.
  world.MapImage(process, u"\\??\\C:\\Windows\\System32\\kernel32.dll", 0x7FF800000000, 0x20000);
  world.AllocatePrivate(process, 0x7FF800020000, 0x10000, false);
  world.MapImage(process, u"\\??\\C:\\Windows\\System32\\ntdll.dll", 0x7FF800030000, 0x30000);
  world.MapImage(process, u"\\??\\C:\\Windows\\System32\\cmd.exe", 0x7FF900000000, 0x10000);
  world.MapImage(process, u"\\??\\C:\\Windows\\System32\\notepad.exe", 0x20000, 0x10000);  // below the start

  WalkContext walk;
  NTSTATUS status =
      world.AsSystem([&] { return skt_QueryModuleInfo_VirtualMemory_Process(process.Process(), Collect, &walk); });
  EXPECT_EQ(status, STATUS_INVALID_PARAMETER);  // the query past the last user address
  std::vector<Seen> expected = {
      {u"\\Device\\HarddiskVolume3\\Windows\\System32\\kernel32.dll", 0x7FF800000000, 0x50000},
      {u"\\Device\\HarddiskVolume3\\Windows\\System32\\cmd.exe", 0x7FF900000000, 0x10000},
  };
  EXPECT_EQ(walk.seen, expected);
  EXPECT_TRUE(HasMessage(world, "ZwQueryVirtualMemory fail Status:c000000d"));

  // A callback that has what it wants stops the walk, which then succeeds.
  WalkContext first;
  first.stopAfter = 1;
  EXPECT_EQ(process.InProcess([&] { return skt_QueryModuleInfo_VirtualMemory_Process(process.Process(), Collect, &first); }),
            STATUS_SUCCESS);
  EXPECT_EQ(first.seen.size(), 1u);
  EXPECT_EQ(skt_QueryModuleInfo_VirtualMemory_Process(process.Process(), nullptr, nullptr), STATUS_INVALID_PARAMETER);

  // A Wow64 process's walk starts lower and finds its low image; its executable and ntdll too.
  UserProcess& wow = Launch(u"app.exe", u"C:\\", true, true);
  world.MapImage(wow, u"\\??\\C:\\Windows\\System32\\kernel32.dll", 0x20000, 0x10000);
  WalkContext low;
  world.AsSystem([&] { return skt_QueryModuleInfo_VirtualMemory_Process(wow.Process(), Collect, &low); });
  ASSERT_EQ(low.seen.size(), 3u);
  EXPECT_EQ(low.seen[0].base, 0x20000u);
  EXPECT_EQ(low.seen[1].name, u"\\Device\\HarddiskVolume3\\Windows\\System32\\notepad.exe");

  // Failures to open the handle or to get the name buffer leave nothing behind.
  for (uint64_t n = 1; n <= 2; ++n) {
    world.verifier().FailNth(n);
    WalkContext failed;
    EXPECT_EQ(world.AsSystem([&] { return skt_QueryModuleInfo_VirtualMemory_Process(wow.Process(), Collect, &failed); }),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(world.verifier().InjectedFailure());
    EXPECT_TRUE(failed.seen.empty());
  }
  EXPECT_TRUE(HasMessage(world, "NameInfo alloca fail"));
}

struct ProcessWalk {
  std::vector<uint64_t> ids;
  bool lastHadNoNext = false;
  size_t stopAt = SIZE_MAX;
};
NTSTATUS NTAPI CollectProcess(PSYSTEM_PROCESS_INFORMATION entry, PVOID context) {
  auto* walk = static_cast<ProcessWalk*>(context);
  walk->ids.push_back(reinterpret_cast<uintptr_t>(entry->UniqueProcessId));
  walk->lastHadNoNext = entry->NextEntryOffset == 0;
  return walk->ids.size() >= walk->stopAt ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
}

TEST_F(ProcessQueryTest, ProcessListIsWalkedWholeEvenWhenItGrowsBetweenQueries) {
  for (int i = 0; i < 60; ++i) world.StartProcess(u"svchost.exe");
  int queries = 0;
  world.OnProcessSnapshot([&] {
    // Each of the first two answers finds 60 more processes than the buffer was sized for.
    if (++queries <= 2) {
      for (int i = 0; i < 60; ++i) world.StartProcess(u"worker.exe");
    }
  });
  ProcessWalk walk;
  EXPECT_EQ(world.AsSystem([&] { return skt_EnumProcess(CollectProcess, &walk); }), STATUS_SUCCESS);
  world.OnProcessSnapshot(nullptr);
  EXPECT_EQ(queries, 3);
  // The idle process, System, and all 180 others; the last entry is passed too.
  EXPECT_EQ(walk.ids.size(), 182u);
  EXPECT_EQ(walk.ids[0], 0u);
  EXPECT_EQ(walk.ids[1], 4u);
  EXPECT_EQ(std::set<uint64_t>(walk.ids.begin(), walk.ids.end()).size(), 182u);
  EXPECT_TRUE(walk.lastHadNoNext);

  // A callback that stops at once still makes a successful walk.
  ProcessWalk stopped;
  stopped.stopAt = 1;
  EXPECT_EQ(world.AsSystem([&] { return skt_EnumProcess(CollectProcess, &stopped); }), STATUS_SUCCESS);
  EXPECT_EQ(stopped.ids.size(), 1u);
  EXPECT_TRUE(HasMessage(world, "break Callback"));
  EXPECT_EQ(skt_EnumProcess(nullptr, nullptr), STATUS_INVALID_PARAMETER);

  world.verifier().FailNth(1);
  ProcessWalk none;
  EXPECT_EQ(world.AsSystem([&] { return skt_EnumProcess(CollectProcess, &none); }), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_TRUE(none.ids.empty());
  EXPECT_TRUE(HasMessage(world, "ProcInfo alloc fail"));
}

}  // namespace
