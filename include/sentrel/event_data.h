// The event packets the driver builds: the SK_PACKET header, an event body header (a
// PACKAGE_HEADER whose Type is the event type and whose NextOffset leads to the event data record),
// the acting process's three packages (package.h), then the event data record of its type. Each
// record starts with 12 zero bytes; its string offsets count from the record's start.
#pragma once

#include "sentrel/package.h"

#define SK_EVENT_BODY_HEADER_OFFSET 44u  // the event body header, right after the packet header
#define SK_EVENT_PACKAGES_OFFSET 56u     // the first package

// ImageType of a process creation: how the process runs.
#define SK_IMAGE_TYPE_WOW64 0xC1u
#define SK_IMAGE_TYPE_NATIVE 0xC3u

// ET_PROCESS_CREATE. The image path follows at 0x24.
typedef struct _PROCESS_CREATE_EVENT_DATA {
  PACKAGE_HEADER Header;  // zero
  SK_UINT16 ImageType;    // SK_IMAGE_TYPE_
  SK_UINT8 Reserved1[16];
  SK_STRING_REF ImagePath;  // drive-letter form without "\??\"
  SK_UINT16 Reserved2;
} PROCESS_CREATE_EVENT_DATA;

// ET_REMOTE_THREAD_CREATE. Strings in this order: source user name, start offset text, module
// name, target user name, target image path.
typedef struct _REMOTE_THREAD_EVENT_DATA {
  PACKAGE_HEADER Header;  // zero
  SK_UINT32 TargetProcessId;
  SK_UINT32 TargetThreadId;
  SK_UINT32 StartAddressLow;  // the thread's Win32 start address
  SK_UINT32 StartAddressHigh;
  SK_STRING_REF SourceUserName;
  SK_STRING_REF StartOffsetText;  // "+0x1a2b": from the base of the image holding the address
  SK_STRING_REF ModuleName;       // that image's name, or "unknow"
  SK_STRING_REF TargetUserName;
  SK_STRING_REF TargetImagePath;  // always present
} REMOTE_THREAD_EVENT_DATA;

// ET_IMAGE_LOAD. The image path follows at 0x14.
typedef struct _IMAGE_LOAD_EVENT_DATA {
  PACKAGE_HEADER Header;  // zero
  SK_UINT16 ImageType;    // from the image's PE header
  SK_STRING_REF ImagePath;
  SK_UINT16 Reserved;
} IMAGE_LOAD_EVENT_DATA;

// ET_DRIVER_LOAD. Strings: service name, then image path.
typedef struct _DRIVER_LOAD_EVENT_DATA {
  PACKAGE_HEADER Header;  // zero
  SK_UINT32 ProcessId;    // the acting process (the packet's SrcPid)
  SK_UINT32 Reserved1;
  SK_STRING_REF ServiceName;  // the image's file name without ".sys"
  SK_UINT8 Reserved2[8];
  SK_STRING_REF ImagePath;
} DRIVER_LOAD_EVENT_DATA;

SK_STATIC_ASSERT(sizeof(PROCESS_CREATE_EVENT_DATA) == 0x24, "PROCESS_CREATE_EVENT_DATA fixed part");
SK_STATIC_ASSERT(SK_OFFSETOF(PROCESS_CREATE_EVENT_DATA, ImagePath) == 0x1E, "ImagePathOffset");
SK_STATIC_ASSERT(sizeof(REMOTE_THREAD_EVENT_DATA) == 0x30, "REMOTE_THREAD_EVENT_DATA fixed part");
SK_STATIC_ASSERT(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, SourceUserName) == 0x1C, "SourceUserName");
SK_STATIC_ASSERT(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetImagePath) == 0x2C, "TargetImagePath");
SK_STATIC_ASSERT(sizeof(IMAGE_LOAD_EVENT_DATA) == 0x14, "IMAGE_LOAD_EVENT_DATA fixed part");
SK_STATIC_ASSERT(SK_OFFSETOF(IMAGE_LOAD_EVENT_DATA, ImagePath) == 0x0E, "ImagePathOffset");
SK_STATIC_ASSERT(sizeof(DRIVER_LOAD_EVENT_DATA) == 0x24, "DRIVER_LOAD_EVENT_DATA fixed part");
SK_STATIC_ASSERT(SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ServiceName) == 0x14, "ServiceName");
SK_STATIC_ASSERT(SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ImagePath) == 0x20, "ImagePath");
