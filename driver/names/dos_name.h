// The DOS name table: a volume's device name (\Device\HarddiskVolume3) to its DOS drive name
// (\??\C:). Filled from the drive letters at start, completed from the mount manager when a lookup
// misses, and fed by producer drivers. Entries are never removed while the driver runs.
#pragma once

#include "platform/nt.h"

#define SK_DOS_NAME_MGR_INITED 0x1

typedef struct _SK_DOS_NAME_MGR {
  USHORT Tag;   // SK_RECORD_DOS_NAME_MGR
  USHORT Size;
  ULONG Flags;  // SK_DOS_NAME_MGR_INITED
  RTL_AVL_TABLE Table;  // DOS_NAME_NODE elements ordered by Key
  // Guards Table; taken inside a critical region: shared for lookups, exclusive for adds, the
  // start-up fill and the purge. Nothing else is locked while it is held.
  ERESOURCE Lock;
} SK_DOS_NAME_MGR, *PSK_DOS_NAME_MGR;

typedef struct _DOS_NAME_NODE {
  USHORT Tag;   // SK_RECORD_DOS_NAME_NODE
  USHORT Size;
  ULONG Flags;  // 0
  // skt_HashBKDR of the volume name in the high 32 bits, skt_HashDJB in the low ones. Two names
  // with one key are one entry: the names themselves are never compared.
  ULONG64 Key;
  PUNICODE_STRING VolumeName;  // string block: \Device\HarddiskVolume3
  PUNICODE_STRING DosName;     // string block, always starting with a backslash: \??\C:
} DOS_NAME_NODE, *PDOS_NAME_NODE;

static_assert(FIELD_OFFSET(DOS_NAME_NODE, Key) == 8, "the table compares the second 8 bytes");

// A lookup's answer holds at most this many bytes of the DOS name.
#define SK_DOS_NAME_LOOKUP_CAPACITY 64

ULONG64 sk_DosNameKey(PCUNICODE_STRING VolumeName);
// Both always succeed.
NTSTATUS sk_InitDosNameMgr(PSK_DOS_NAME_MGR DosNameMgr);
NTSTATUS sk_UninitDosNameMgr(PSK_DOS_NAME_MGR DosNameMgr);
// Inserts or replaces (the newest information for a volume wins). A DOS name without a leading
// backslash (C:) is stored as \??\C:. TakeLock FALSE: the caller holds the lock exclusively.
NTSTATUS sk_AddDosNameInfo(PSK_DOS_NAME_MGR DosNameMgr, BOOLEAN TakeLock, PCUNICODE_STRING VolumeName,
                           PCUNICODE_STRING DosName);
// A copy of the DOS name (a string block the caller frees with skt_FreeUnicodeStringSelf), or
// STATUS_NOT_FOUND.
NTSTATUS sk_LookupDosName(PSK_DOS_NAME_MGR DosNameMgr, PCUNICODE_STRING VolumeName, PUNICODE_STRING *DosName);
// Adds every drive letter A: to Z: that opens as a volume root; the caller holds the lock
// exclusively. Returns the last letter's failure, which is only logged.
NTSTATUS sk_EnumAllDosName_Unlock(PSK_DOS_NAME_MGR DosNameMgr);
NTSTATUS sk_EnumAllDosName(PSK_DOS_NAME_MGR DosNameMgr);
VOID sk_DelAllDosName(PSK_DOS_NAME_MGR DosNameMgr);
