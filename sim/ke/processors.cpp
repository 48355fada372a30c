// Processors, groups and thread affinity: KeQueryActiveProcessorCountEx, the index and number
// conversions, the current processor, KeSetSystemGroupAffinityThread and its revert.
#include "ke/processors.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "kernel.h"

namespace ntsim {

namespace {

struct Layout {
  ULONG processors;
  USHORT groups;
};

Layout Topology() {
  const MachineConfig& config = K().config;
  Layout layout;
  layout.processors = static_cast<ULONG>(std::max(1, config.processors));
  layout.groups = static_cast<USHORT>(std::clamp(config.processorGroups, 1, static_cast<int>(layout.processors)));
  if ((layout.processors + layout.groups - 1) / layout.groups > MAXIMUM_PROC_PER_GROUP) {
    std::fprintf(stderr, "ntsim: %u processors do not fit %u group(s) of at most 64\n", layout.processors,
                 layout.groups);
    std::abort();
  }
  return layout;
}

}  // namespace

ULONG ProcessorCount() { return Topology().processors; }

USHORT ProcessorGroupCount() { return Topology().groups; }

ULONG GroupProcessorCount(USHORT group) {
  Layout layout = Topology();
  if (group >= layout.groups) return 0;
  return layout.processors / layout.groups + (group < layout.processors % layout.groups ? 1 : 0);
}

ULONG GroupFirstIndex(USHORT group) {
  ULONG first = 0;
  for (USHORT g = 0; g < group; ++g) first += GroupProcessorCount(g);
  return first;
}

KAFFINITY GroupAffinityMask(USHORT group) {
  ULONG count = GroupProcessorCount(group);
  return count >= 64 ? ~KAFFINITY(0) : (KAFFINITY(1) << count) - 1;
}

}  // namespace ntsim

using namespace ntsim;

ULONG NTAPI KeQueryActiveProcessorCountEx(USHORT GroupNumber) {
  if (GroupNumber == ALL_PROCESSOR_GROUPS) return ProcessorCount();
  return GroupProcessorCount(GroupNumber);
}

USHORT NTAPI KeQueryActiveGroupCount(void) { return ProcessorGroupCount(); }

NTSTATUS NTAPI KeGetProcessorNumberFromIndex(ULONG ProcIndex, PPROCESSOR_NUMBER ProcNumber) {
  USHORT groups = ProcessorGroupCount();
  for (USHORT group = 0; group < groups; ++group) {
    ULONG first = GroupFirstIndex(group), count = GroupProcessorCount(group);
    if (ProcIndex >= first && ProcIndex < first + count) {
      ProcNumber->Group = group;
      ProcNumber->Number = static_cast<UCHAR>(ProcIndex - first);
      ProcNumber->Reserved = 0;
      return STATUS_SUCCESS;
    }
  }
  return STATUS_INVALID_PARAMETER;
}

ULONG NTAPI KeGetProcessorIndexFromNumber(PPROCESSOR_NUMBER ProcNumber) {
  if (ProcNumber->Number >= GroupProcessorCount(ProcNumber->Group)) return INVALID_PROCESSOR_INDEX;
  return GroupFirstIndex(ProcNumber->Group) + ProcNumber->Number;
}

ULONG NTAPI KeGetCurrentProcessorNumberEx(PPROCESSOR_NUMBER ProcNumber) {
  ULONG index = CurrentThread()->processor;
  if (__builtin_expect(ProcNumber != nullptr, 0)) KeGetProcessorNumberFromIndex(index, ProcNumber);
  return index;
}

// Older drivers know no groups: in group 0 the group-relative number, in any other group a number
// below the size of group 0, so that it stays below KeQueryActiveProcessorCount's answer.
ULONG NTAPI KeGetCurrentProcessorNumber(void) {
  PROCESSOR_NUMBER number;
  KeGetCurrentProcessorNumberEx(&number);
  if (number.Group == 0) return number.Number;
  return number.Number % GroupProcessorCount(0);
}

namespace {

bool ValidAffinity(USHORT group, KAFFINITY mask) {
  return group < ProcessorGroupCount() && mask != 0 && (mask & ~GroupAffinityMask(group)) == 0;
}

// The thread is scheduled onto a processor of its new affinity at once if it is not on one.
void ApplyAffinity(_KTHREAD* thread, USHORT group, KAFFINITY mask) {
  thread->group = group;
  thread->affinity = mask;
  ULONG first = GroupFirstIndex(group);
  bool inSet = thread->processor >= first && thread->processor - first < 64 &&
               ((mask >> (thread->processor - first)) & 1);
  if (!inSet) thread->processor = first + static_cast<ULONG>(__builtin_ctzll(mask));
}

void CheckAffinityIrql(const char* call) {
  if (KeGetCurrentIrql() > DISPATCH_LEVEL) K().verifier.Violation(call, "called above DISPATCH_LEVEL");
}

}  // namespace

VOID NTAPI KeSetSystemGroupAffinityThread(PGROUP_AFFINITY Affinity, PGROUP_AFFINITY PreviousAffinity) {
  CheckAffinityIrql("KeSetSystemGroupAffinityThread");
  _KTHREAD* thread = CurrentThread();
  if (PreviousAffinity) {
    // A mask of 0 tells the revert to restore the affinity the thread was created with.
    std::memset(PreviousAffinity, 0, sizeof *PreviousAffinity);
    if (thread->systemAffinity) {
      PreviousAffinity->Group = thread->group;
      PreviousAffinity->Mask = thread->affinity;
    }
  }
  // An invalid group or mask (no active processor in it) changes nothing.
  if (!ValidAffinity(Affinity->Group, Affinity->Mask)) return;
  thread->systemAffinity = true;
  ApplyAffinity(thread, Affinity->Group, Affinity->Mask);
}

VOID NTAPI KeRevertToUserGroupAffinityThread(PGROUP_AFFINITY PreviousAffinity) {
  CheckAffinityIrql("KeRevertToUserGroupAffinityThread");
  _KTHREAD* thread = CurrentThread();
  if (!thread->systemAffinity) return;  // no KeSetSystemGroupAffinityThread since the last revert
  if (PreviousAffinity->Mask == 0) {
    thread->systemAffinity = false;
    ApplyAffinity(thread, thread->userGroup, thread->userAffinity);
  } else if (ValidAffinity(PreviousAffinity->Group, PreviousAffinity->Mask)) {
    ApplyAffinity(thread, PreviousAffinity->Group, PreviousAffinity->Mask);
  }
}
