// Packages: the self-contained descriptions of a process that every driver event carries (and that
// IOCTL_SK_QUERY_PACKCOMINFO answers): who it is, under which logon session it runs, and its chain
// of creators. Strings are UTF-16LE without a terminator, found inside their package by a 16-bit
// offset and a 16-bit byte length (SK_STRING_REF); an absent string has offset 0 and length 0.
#pragma once

#include "sentrel/ring_buffer.h"
#include "sentrel/wire_types.h"

// Opens every package, every event body and the query answer.
typedef struct _PACKAGE_HEADER {
  SK_UINT32 Length;      // of what the header opens, header included
  SK_UINT32 Type;        // a package kind, an event type (event body) or SK_PACK_COMMON_INFO_TYPE
  SK_UINT32 NextOffset;  // from this header to the next record; 0 if none follows
} PACKAGE_HEADER;

typedef struct _SK_STRING_REF {
  SK_UINT16 Offset;  // from the start of the package (or event data record)
  SK_UINT16 Length;  // bytes
} SK_STRING_REF;

// The longest packages the driver builds, so that an event carrying all three still fits one
// ring-buffer slot with room for its own data. Strings that would not fit are shortened: see
// docs/packages.md.
#define SK_PROC_INFO_PACKAGE_MAX 0x8000u
#define SK_LOGON_INFO_PACKAGE_MAX 0x1000u
#define SK_PROC_TREE_MAX_ENTRIES 64u  // the process and its nearest creators
#define SK_PROC_TREE_INFO_PACKAGE_MAX (16u + 132u * SK_PROC_TREE_MAX_ENTRIES)
// The longest answer to IOCTL_SK_QUERY_PACKCOMINFO.
#define SK_PACK_COMMON_INFO_MAX \
  (12u + SK_PROC_INFO_PACKAGE_MAX + SK_LOGON_INFO_PACKAGE_MAX + SK_PROC_TREE_INFO_PACKAGE_MAX)

// Package kinds (PACKAGE_HEADER.Type of a package).
#define SK_PACKAGE_PROC_INFO 1u
#define SK_PACKAGE_LOGON_INFO 2u
#define SK_PACKAGE_PROC_TREE_INFO 3u
#define SK_PACKAGE_CALLER_STACK 4u  // a producer driver's: Length, Type, NextOffset, Depth, then
                                    // Depth entries {u16 text bytes, u16 0, UTF-16LE text}
#define SK_CALLER_STACK_HEADER_BYTES 16u
// The query answer's Type: a header and the three packages of one process.
#define SK_PACK_COMMON_INFO_TYPE 20u

// Integrity of a process's primary token.
#define SK_INTEGRITY_UNTRUSTED 0u
#define SK_INTEGRITY_LOW 1u
#define SK_INTEGRITY_MEDIUM 2u
#define SK_INTEGRITY_MEDIUM_PLUS 3u
#define SK_INTEGRITY_HIGH 4u
#define SK_INTEGRITY_SYSTEM 5u
#define SK_INTEGRITY_PROTECTED 6u

// Kind 1. Strings follow the fixed part in this order, each only if present: image path, command
// line, current directory, image name, creator image path, creator user name, creator command line.
typedef struct _PROC_INFO_PACKAGE {
  PACKAGE_HEADER Header;  // NextOffset = Length
  SK_UINT32 ProcessId;
  SK_UINT32 CreatorProcessId;  // the process current when the creation was seen
  SK_UINT32 ParentProcessId;   // as the creation notification gave it
  SK_UINT32 IntegrityLevel;    // SK_INTEGRITY_
  SK_UINT8 ProcessIdentity[16];
  SK_UINT8 CreatorProcessIdentity[16];  // zero when the creator is not known
  SK_STRING_REF ImagePath;              // drive-letter form without "\??\"; always present
  SK_STRING_REF CommandLine;
  SK_STRING_REF CreatorUserName;  // DOMAIN\user
  SK_STRING_REF CreatorCommandLine;
  SK_STRING_REF CreatorImagePath;
  SK_STRING_REF ImageName;  // the image file name
  SK_STRING_REF CurrentDirectory;
} PROC_INFO_PACKAGE;

// Kind 2. Strings: user name (always present), then the SID's text form.
typedef struct _LOGON_INFO_PACKAGE {
  PACKAGE_HEADER Header;  // NextOffset = Length
  SK_UINT32 SessionId;
  SK_UINT32 LogonIdLow;  // the logon id (LUID), low part
  SK_UINT32 LogonIdHigh;
  SK_STRING_REF UserName;
  SK_STRING_REF UserSid;
  SK_UINT8 Reserved[20];
} LOGON_INFO_PACKAGE;

// Kind 3: Count entries follow, the process itself first, then its creator, and so on.
typedef struct _PROC_TREE_INFO_PACKAGE {
  PACKAGE_HEADER Header;  // Length = 16 + 132 x Count; NextOffset = Length (0 ending a query answer)
  SK_UINT32 Count;
} PROC_TREE_INFO_PACKAGE;

#define SK_TREE_IMAGE_NAME_SIZE 128u
typedef struct _PROC_TREE_ENTRY {
  SK_UINT32 ProcessId;
  SK_UINT16 ImageName[SK_TREE_IMAGE_NAME_SIZE / 2];  // at most 63 characters, zero-padded
} PROC_TREE_ENTRY;

SK_STATIC_ASSERT(sizeof(PACKAGE_HEADER) == 12, "PACKAGE_HEADER");
SK_STATIC_ASSERT(sizeof(PROC_INFO_PACKAGE) == 0x58, "PROC_INFO_PACKAGE fixed part");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, ProcessIdentity) == 0x1C, "ProcessIdentity");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, ImagePath) == 0x3C, "ImagePath");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, CurrentDirectory) == 0x54, "CurrentDirectory");
SK_STATIC_ASSERT(sizeof(LOGON_INFO_PACKAGE) == 0x34, "LOGON_INFO_PACKAGE fixed part");
SK_STATIC_ASSERT(SK_OFFSETOF(LOGON_INFO_PACKAGE, UserName) == 0x18, "UserName");
SK_STATIC_ASSERT(SK_OFFSETOF(LOGON_INFO_PACKAGE, UserSid) == 0x1C, "UserSid");
SK_STATIC_ASSERT(sizeof(PROC_TREE_INFO_PACKAGE) == 16, "PROC_TREE_INFO_PACKAGE fixed part");
SK_STATIC_ASSERT(sizeof(PROC_TREE_ENTRY) == 132, "PROC_TREE_ENTRY");
SK_STATIC_ASSERT(sizeof(PROC_TREE_INFO_PACKAGE) + SK_PROC_TREE_MAX_ENTRIES * sizeof(PROC_TREE_ENTRY) ==
                     SK_PROC_TREE_INFO_PACKAGE_MAX,
                 "the longest tree package");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorProcessIdentity) == 0x2C, "CreatorProcessIdentity");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, CommandLine) == 0x40, "CommandLine");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorUserName) == 0x44, "CreatorUserName");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorCommandLine) == 0x48, "CreatorCommandLine");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorImagePath) == 0x4C, "CreatorImagePath");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, ImageName) == 0x50, "ImageName");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, ProcessId) == 0x0C, "ProcessId");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_INFO_PACKAGE, IntegrityLevel) == 0x18, "IntegrityLevel");
SK_STATIC_ASSERT(SK_OFFSETOF(LOGON_INFO_PACKAGE, SessionId) == 0x0C, "SessionId");
SK_STATIC_ASSERT(SK_OFFSETOF(LOGON_INFO_PACKAGE, LogonIdLow) == 0x10, "LogonId");
SK_STATIC_ASSERT(SK_OFFSETOF(LOGON_INFO_PACKAGE, Reserved) == 0x20, "Reserved");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_TREE_INFO_PACKAGE, Count) == 0x0C, "Count");
SK_STATIC_ASSERT(SK_OFFSETOF(PROC_TREE_ENTRY, ImageName) == 4, "tree entry name");
// An event: the packet header (44 bytes), the body's header (12), the packages, then its data.
SK_STATIC_ASSERT(44u + SK_PACK_COMMON_INFO_MAX + 16384u <= RB_MAX_PACKET_LENGTH,
                 "an event with the longest packages has 16 KiB left for its data in a slot");
