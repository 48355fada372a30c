// ZwQueryVirtualMemory over a process's address space (mm/address_space.h), and ProbeForRead.
#include "kernel.h"
#include "ps/system_thread.h"

using namespace ntsim;

NTSTATUS NTAPI ZwQueryVirtualMemory(HANDLE ProcessHandle, PVOID BaseAddress,
                                    MEMORY_INFORMATION_CLASS MemoryInformationClass, PVOID MemoryInformation,
                                    SIZE_T MemoryInformationLength, PSIZE_T ReturnLength) {
  Kernel& k = K();
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) k.verifier.Violation("ZwQueryVirtualMemory", "called above PASSIVE_LEVEL");
  if (MemoryInformationClass != MemoryBasicInformation && MemoryInformationClass != MemoryMappedFilenameInformation) {
    return STATUS_INVALID_INFO_CLASS;
  }
  _KPROCESS* process = nullptr;
  if (ProcessHandle == NtCurrentProcess()) {
    process = CurrentProcess();
    k.ob.Reference(process);
  } else {
    void* body = nullptr;
    NTSTATUS status = k.ob.ReferenceByHandle(ProcessHandle, &k.ob.types.process, KernelMode,
                                             PROCESS_QUERY_INFORMATION, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    process = static_cast<_KPROCESS*>(body);
  }
  auto address = reinterpret_cast<uintptr_t>(BaseAddress);
  NTSTATUS status = STATUS_SUCCESS;
  SIZE_T written = 0;
  if (MemoryInformationClass == MemoryBasicInformation) {
    if (MemoryInformationLength < sizeof(MEMORY_BASIC_INFORMATION)) {
      status = STATUS_INFO_LENGTH_MISMATCH;
    } else {
      MEMORY_BASIC_INFORMATION info;
      status = process->addressSpace.QueryBasic(address, &info);
      if (NT_SUCCESS(status)) {
        std::memcpy(MemoryInformation, &info, sizeof info);
        written = sizeof info;
      }
    }
  } else {
    // A counted string followed by its characters and a terminating null.
    std::u16string name;
    if (address > kHighestUserAddress) {
      status = STATUS_INVALID_PARAMETER;
    } else if (!process->addressSpace.MappedName(address, &name)) {
      status = STATUS_INVALID_ADDRESS;
    } else {
      SIZE_T needed = sizeof(UNICODE_STRING) + (name.size() + 1) * sizeof(WCHAR);
      written = needed;
      if (MemoryInformationLength < needed) {
        status = STATUS_BUFFER_OVERFLOW;
      } else {
        auto* text = static_cast<PUNICODE_STRING>(MemoryInformation);
        text->Buffer = reinterpret_cast<PWSTR>(text + 1);
        text->Length = static_cast<USHORT>(name.size() * sizeof(WCHAR));
        text->MaximumLength = static_cast<USHORT>(text->Length + sizeof(WCHAR));
        std::memcpy(text->Buffer, name.data(), text->Length);
        text->Buffer[name.size()] = 0;
      }
    }
  }
  if (ReturnLength && (NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW)) *ReturnLength = written;
  k.ob.Dereference(process);
  return status;
}

// Sections are not simulated. The routine is exported because drivers locate the kernel image by
// its address; a driver that calls it is told so by the verifier.
NTSTATUS NTAPI ZwCreateSection(PHANDLE SectionHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                               PLARGE_INTEGER MaximumSize, ULONG SectionPageProtection, ULONG AllocationAttributes,
                               HANDLE FileHandle) {
  K().verifier.Violation("ZwCreateSection", "sections are not simulated");
  return STATUS_NOT_SUPPORTED;
}

VOID NTAPI ProbeForRead(const volatile VOID* Address, SIZE_T Length, ULONG Alignment) {
  const void* address = const_cast<const void*>(Address);
  if (Length == 0) return;
  auto start = reinterpret_cast<ULONG_PTR>(address);
  if (Alignment != 1 && Alignment != 2 && Alignment != 4 && Alignment != 8 && Alignment != 16) {
    K().verifier.Violation("ProbeForRead", "the alignment is not 1, 2, 4, 8 or 16");
  }
  if (Alignment && start % Alignment != 0) {
    RaiseKernelException("ProbeForRead", STATUS_DATATYPE_MISALIGNMENT, "a misaligned user buffer");
    return;
  }
  ULONG_PTR end = start + Length;
  // The simulated kernel's pool lies among the host's addresses below the probe address; on Windows
  // it lies above it. A range that touches a pool block is therefore beyond user space here too.
  PoolBlock block;
  const void* blockStart = nullptr;
  bool kernel = K().pool.Find(address, 1, &block, &blockStart) ||
                K().pool.Find(reinterpret_cast<const void*>(end - 1), 1, &block, &blockStart);
  if (end < start || end > NTSIM_USER_PROBE_ADDRESS || kernel) {
    RaiseKernelException("ProbeForRead", STATUS_ACCESS_VIOLATION, "a buffer beyond user space");
  }
}
