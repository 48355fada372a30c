// The load guard: a small record file counts the loads that have not ended in an orderly way.
// Every load raises the count first thing; unload, shutdown and a failed load lower it again. A
// crash lowers nothing, so after three crashed runs in a row the driver refuses to load, and stays
// refused until the file is removed or repaired from outside.
#pragma once

#include "platform/nt.h"

#define SK_LOAD_GUARD_FILE L"\\SystemRoot\\System32\\kestrixkernel.dat"
#define SK_LOAD_GUARD_MAGIC 0xFBFB
#define SK_LOAD_GUARD_TRAILER 0xFEFEFEFE
#define SK_LOAD_GUARD_LIMIT 3  // loads not ended in order after which the driver refuses to load

// The file holds exactly this record at offset 0, little-endian.
typedef struct _SK_LOAD_GUARD_RECORD {
  USHORT Magic;  // SK_LOAD_GUARD_MAGIC
  USHORT Size;   // 128
  ULONG LoadCount;
  WCHAR ModuleName[58];  // "Sentrel.sys", no terminator, zero-filled; written, never checked
  ULONG Trailer;         // SK_LOAD_GUARD_TRAILER
} SK_LOAD_GUARD_RECORD, *PSK_LOAD_GUARD_RECORD;

static_assert(sizeof(SK_LOAD_GUARD_RECORD) == 128, "the load-guard record is 128 bytes");
static_assert(FIELD_OFFSET(SK_LOAD_GUARD_RECORD, LoadCount) == 4, "LoadCount at offset 4");
static_assert(FIELD_OFFSET(SK_LOAD_GUARD_RECORD, ModuleName) == 8, "ModuleName at offset 8");
static_assert(FIELD_OFFSET(SK_LOAD_GUARD_RECORD, Trailer) == 124, "Trailer at offset 124");

extern volatile BOOLEAN LoadGuardArmed;  // this load raised the count, so a release may lower it

// First in DriverEntry: a failure ends the load with its status (STATUS_ACCESS_DENIED when refused).
NTSTATUS sk_LoadGuardEnter(void);
// At shutdown, unload and failed entry: lowers the count once for this load.
NTSTATUS sk_LoadGuardRelease(void);
