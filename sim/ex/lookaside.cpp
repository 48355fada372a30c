// Lookaside lists: fixed-size entries from pool, with freed entries kept for reuse up to the
// list's depth. Entries carry the list's tag, so entries never returned show up as pool leaks.
#include <atomic>
#include <thread>
#include <vector>

#include "kernel.h"

using namespace ntsim;

namespace {

constexpr USHORT kDefaultDepth = 4;  // the system chooses when the caller passes 0

// The kernel keeps a list's free entries in an interlocked singly linked list: one locked
// instruction to pop, one to push. A spin lock taken with one exchange and let go with a plain
// store costs the same, where a host mutex would cost two locked instructions each way.
struct LookasideImpl {
  std::atomic_flag busy = ATOMIC_FLAG_INIT;
  std::vector<void*> cached;  // room for the list's depth, reserved at its start
};

class CacheLock {
 public:
  explicit CacheLock(LookasideImpl* impl) : impl_(impl) {
    // A holder the host preempted is waited for by yielding, not by spinning out the quantum.
    for (int spins = 0; impl_->busy.test_and_set(std::memory_order_acquire); ++spins) {
      if (spins < 64) {
        __builtin_ia32_pause();
      } else {
        std::this_thread::yield();
      }
    }
  }
  ~CacheLock() { impl_->busy.clear(std::memory_order_release); }
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;

 private:
  LookasideImpl* impl_;
};

void Initialize(GENERAL_LOOKASIDE_SIM* l, POOL_TYPE type, PALLOCATE_FUNCTION allocate, PFREE_FUNCTION free,
                SIZE_T size, ULONG tag, USHORT depth) {
  std::memset(l, 0, sizeof *l);
  l->Impl = K().arena.New<LookasideImpl>("lookaside list");
  l->Type = type;
  l->Tag = tag;
  l->Size = static_cast<ULONG>(size);
  l->Depth = depth ? depth : kDefaultDepth;
  l->MaximumDepth = l->Depth;
  l->Allocate = allocate;
  l->Free = free;
  static_cast<LookasideImpl*>(l->Impl)->cached.reserve(l->Depth);
}

LookasideImpl* ImplOf(GENERAL_LOOKASIDE_SIM* l, const char* call) {
  if (!l->Impl) K().verifier.Violation(call, "lookaside list not initialised (or already deleted)");
  return static_cast<LookasideImpl*>(l->Impl);
}

void* Allocate(GENERAL_LOOKASIDE_SIM* l, const char* call) {
  LookasideImpl* impl = ImplOf(l, call);
  if (!impl) return nullptr;
  {
    CacheLock lock(impl);
    ++l->TotalAllocates;
    if (!impl->cached.empty()) {
      void* entry = impl->cached.back();
      impl->cached.pop_back();
      return entry;
    }
    ++l->AllocateMisses;
  }
  if (l->Allocate) return l->Allocate(l->Type, l->Size, l->Tag);
  return K().pool.Allocate(l->Type, l->Size, l->Tag, call);
}

void FreeEntry(GENERAL_LOOKASIDE_SIM* l, void* entry) {
  if (l->Free) l->Free(entry);
  else K().pool.Free(entry, l->Tag, true, "ExFreeToLookasideList");
}

void Free(GENERAL_LOOKASIDE_SIM* l, void* entry, const char* call) {
  LookasideImpl* impl = ImplOf(l, call);
  if (!impl) return;
  {
    CacheLock lock(impl);
    ++l->TotalFrees;
    if (impl->cached.size() < l->Depth) {
      impl->cached.push_back(entry);
      return;
    }
    ++l->FreeMisses;
  }
  FreeEntry(l, entry);
}

void Delete(GENERAL_LOOKASIDE_SIM* l, const char* call) {
  LookasideImpl* impl = ImplOf(l, call);
  if (!impl) return;
  for (void* entry : impl->cached) FreeEntry(l, entry);
  K().arena.Delete(impl);
  l->Impl = nullptr;
}

}  // namespace

VOID NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                          PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth) {
  Initialize(&Lookaside->L, PagedPool, Allocate, Free, Size, Tag, Depth);
}

VOID NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside) {
  Delete(&Lookaside->L, "ExDeletePagedLookasideList");
}

PVOID NTAPI ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside) {
  return Allocate(&Lookaside->L, "ExAllocateFromPagedLookasideList");
}

VOID NTAPI ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
  Free(&Lookaside->L, Entry, "ExFreeToPagedLookasideList");
}

VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                           PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth) {
  Initialize(&Lookaside->L, NonPagedPool, Allocate, Free, Size, Tag, Depth);
}

VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
  Delete(&Lookaside->L, "ExDeleteNPagedLookasideList");
}

PVOID NTAPI ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
  return Allocate(&Lookaside->L, "ExAllocateFromNPagedLookasideList");
}

VOID NTAPI ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
  Free(&Lookaside->L, Entry, "ExFreeToNPagedLookasideList");
}
