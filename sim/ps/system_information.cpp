// NtQuerySystemInformation: the running processes with their threads (SystemProcessInformation)
// and the loaded kernel modules (SystemModuleInformation). A buffer that is too small gets
// STATUS_INFO_LENGTH_MISMATCH and the length that the answer needed at that moment.
#include "kernel.h"

using namespace ntsim;

namespace {

HANDLE IdHandle(uint64_t id) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(id)); }

size_t Align8(size_t value) { return (value + 7) & ~size_t(7); }

size_t EntrySize(const ProcessManager::ProcessFacts& process) {
  return Align8(sizeof(SYSTEM_PROCESS_INFORMATION) + process.threads.size() * sizeof(SYSTEM_THREAD_INFORMATION) +
                (process.imageName.size() + 1) * sizeof(WCHAR));
}

NTSTATUS QueryProcesses(PVOID buffer, ULONG length, PULONG returnLength) {
  Kernel& k = K();
  if (std::function<void()> hook = k.ps.SnapshotHook()) hook();
  std::vector<ProcessManager::ProcessFacts> processes = k.ps.Snapshot();
  // The idle process comes first, with no name and one thread per processor; System is next.
  ProcessManager::ProcessFacts idle{0, 0, 0, 0, std::u16string(), {}};
  for (ULONG i = 0; i < KeQueryActiveProcessorCountEx(ALL_PROCESSOR_GROUPS); ++i) idle.threads.push_back({0, 0, 0});
  processes.insert(processes.begin(), idle);
  size_t total = 0;
  for (const auto& process : processes) total += EntrySize(process);
  if (total > 0xFFFFFFFFu) return STATUS_INSUFFICIENT_RESOURCES;
  if (returnLength) *returnLength = static_cast<ULONG>(total);
  if (length < total) return STATUS_INFO_LENGTH_MISMATCH;
  auto* at = static_cast<uint8_t*>(buffer);
  std::memset(at, 0, total);
  for (size_t i = 0; i < processes.size(); ++i) {
    const auto& facts = processes[i];
    auto* entry = reinterpret_cast<SYSTEM_PROCESS_INFORMATION*>(at);
    size_t size = EntrySize(facts);
    entry->NextEntryOffset = i + 1 < processes.size() ? static_cast<ULONG>(size) : 0;
    entry->NumberOfThreads = static_cast<ULONG>(facts.threads.size());
    entry->CreateTime.QuadPart = facts.createTime;
    entry->UniqueProcessId = IdHandle(facts.id);
    entry->InheritedFromUniqueProcessId = IdHandle(facts.parentId);
    entry->SessionId = facts.sessionId;
    entry->BasePriority = 8;
    auto* threads = reinterpret_cast<SYSTEM_THREAD_INFORMATION*>(entry + 1);
    for (size_t t = 0; t < facts.threads.size(); ++t) {
      threads[t].CreateTime.QuadPart = facts.threads[t].createTime;
      threads[t].StartAddress = reinterpret_cast<PVOID>(static_cast<uintptr_t>(facts.threads[t].startAddress));
      threads[t].ClientId.UniqueProcess = IdHandle(facts.id);
      threads[t].ClientId.UniqueThread = IdHandle(facts.threads[t].id);
      threads[t].Priority = threads[t].BasePriority = 8;
    }
    if (!facts.imageName.empty()) {
      auto* name = reinterpret_cast<PWSTR>(threads + facts.threads.size());
      std::memcpy(name, facts.imageName.data(), facts.imageName.size() * sizeof(WCHAR));
      entry->ImageName.Buffer = name;
      entry->ImageName.Length = static_cast<USHORT>(facts.imageName.size() * sizeof(WCHAR));
      entry->ImageName.MaximumLength = static_cast<USHORT>(entry->ImageName.Length + sizeof(WCHAR));
    }
    at += size;
  }
  return STATUS_SUCCESS;
}

NTSTATUS QueryModules(PVOID buffer, ULONG length, PULONG returnLength) {
  std::vector<KernelModules::Module> modules = K().modules.Listed();
  size_t total = offsetof(RTL_PROCESS_MODULES, Modules) + modules.size() * sizeof(RTL_PROCESS_MODULE_INFORMATION);
  if (returnLength) *returnLength = static_cast<ULONG>(total);
  if (length < total) return STATUS_INFO_LENGTH_MISMATCH;
  auto* answer = static_cast<RTL_PROCESS_MODULES*>(buffer);
  std::memset(answer, 0, total);
  answer->NumberOfModules = static_cast<ULONG>(modules.size());
  for (size_t i = 0; i < modules.size(); ++i) {
    RTL_PROCESS_MODULE_INFORMATION& entry = answer->Modules[i];
    entry.ImageBase = reinterpret_cast<PVOID>(modules[i].base);
    entry.ImageSize = modules[i].size;
    entry.LoadOrderIndex = static_cast<USHORT>(i);
    entry.LoadCount = 1;
    std::string path = modules[i].path.substr(0, sizeof entry.FullPathName - 1);
    std::memcpy(entry.FullPathName, path.c_str(), path.size() + 1);
    entry.OffsetToFileName = static_cast<USHORT>(path.find_last_of('\\') + 1);
  }
  return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NTAPI NtQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass, PVOID SystemInformation,
                                        ULONG SystemInformationLength, PULONG ReturnLength) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    K().verifier.Violation("NtQuerySystemInformation", "called above PASSIVE_LEVEL");
  }
  switch (SystemInformationClass) {
    case SystemProcessInformation:
      return QueryProcesses(SystemInformation, SystemInformationLength, ReturnLength);
    case SystemModuleInformation:
      return QueryModules(SystemInformation, SystemInformationLength, ReturnLength);
    default:
      return STATUS_INVALID_INFO_CLASS;
  }
}

NTSTATUS NTAPI ZwQuerySystemInformation(SYSTEM_INFORMATION_CLASS SystemInformationClass, PVOID SystemInformation,
                                        ULONG SystemInformationLength, PULONG ReturnLength) {
  return NtQuerySystemInformation(SystemInformationClass, SystemInformation, SystemInformationLength, ReturnLength);
}
