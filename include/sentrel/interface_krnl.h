// The kernel interface: the table of routines a producer driver gets from Sentrel with
// IOCTL_SK_GET_INTERFACEKRNL, once it has registered its device object with
// IOCTL_SK_REGISTER_PRODUCER (both kernel-mode requests only). Each routine is the address of a
// function in Sentrel.sys, stored as 8 bytes from offset 4 on, so that the pointers are not 8-byte
// aligned: read them with an unaligned load. The routines, with their arguments (x64 calling
// convention) and results:
//
//   SendEvent                        (const void *packet, ULONG length) -> NTSTATUS
//                                    a complete SK_PACKET event into the ring buffers
//   MatchWhiteRule, MatchBlackRule   (ULONG eventType, PUNICODE_STRING path) -> BOOLEAN
//   GetProcInfoPackage               (HANDLE processId, PVOID *package, PULONG length) -> NTSTATUS
//   GetProcInfoPackageByProcess      (PEPROCESS process, PVOID *package, PULONG length) -> NTSTATUS
//   GetLogonInfoPackage              (ULONG64 logonId, PVOID *package, PULONG length) -> NTSTATUS
//   GetProcTreeInfoPackage           (HANDLE processId, PVOID *package, PULONG length) -> NTSTATUS
//   GetProcTreeInfoPackageByProcess  (PEPROCESS process, PVOID *package, PULONG length) -> NTSTATUS
//   GetProcessImageNtPath,           (PEPROCESS process, PUNICODE_STRING *path) -> NTSTATUS; the
//   GetProcessImageDosPath            path is one paged-pool block (tag "gTsu") the caller frees
//   AddDosNameInfo                   (PUNICODE_STRING volumeDevice, PUNICODE_STRING dosName) -> NTSTATUS
//   IsEventEnabled                   (ULONG64 mask) -> BOOLEAN: any of the mask's event bits enabled
//   GetCallerStackInfoPackage        (PVOID *package, PULONG length) -> NTSTATUS: the calling
//                                    thread's user-mode caller stack (package kind 4), the caller's
//   FreeCallerStackInfoPackage       (PVOID package): gives such a package back; null is ignored
//   IsConsumerProcess                (ULONG processId) -> BOOLEAN
//
// The process, logon and tree packages stay Sentrel's: copy them at once and never free them.
// Every routine but IsEventEnabled fails once the interface is off (STATUS_INSUFFICIENT_RESOURCES,
// FALSE, or nothing for the free): Sentrel calls the producer's offline routine then, and after
// that the producer must not call the table again.
#pragma once

#include "sentrel/wire_types.h"

#define SK_INTERFACE_KRNL_TAG 0xFCE8u
#define SK_INTERFACE_KRNL_SIZE 124u

#pragma pack(push, 1)
typedef struct _SK_INTERFACE_KRNL {
  SK_UINT16 Tag;   // SK_INTERFACE_KRNL_TAG
  SK_UINT16 Size;  // SK_INTERFACE_KRNL_SIZE
  SK_UINT64 SendEvent;
  SK_UINT64 MatchWhiteRule;
  SK_UINT64 GetProcInfoPackage;
  SK_UINT64 GetProcInfoPackageByProcess;
  SK_UINT64 GetLogonInfoPackage;
  SK_UINT64 GetProcTreeInfoPackage;
  SK_UINT64 GetProcTreeInfoPackageByProcess;
  SK_UINT64 GetProcessImageNtPath;
  SK_UINT64 GetProcessImageDosPath;
  SK_UINT64 AddDosNameInfo;
  SK_UINT64 IsEventEnabled;
  SK_UINT64 GetCallerStackInfoPackage;
  SK_UINT64 FreeCallerStackInfoPackage;
  SK_UINT64 MatchBlackRule;
  SK_UINT64 IsConsumerProcess;
} SK_INTERFACE_KRNL;
#pragma pack(pop)

SK_STATIC_ASSERT(sizeof(SK_INTERFACE_KRNL) == SK_INTERFACE_KRNL_SIZE, "SK_INTERFACE_KRNL is 124 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, SendEvent) == 4, "SendEvent");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, MatchWhiteRule) == 12, "MatchWhiteRule");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetProcInfoPackage) == 20, "GetProcInfoPackage");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetProcInfoPackageByProcess) == 28, "GetProcInfoPackageByProcess");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetLogonInfoPackage) == 36, "GetLogonInfoPackage");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetProcTreeInfoPackage) == 44, "GetProcTreeInfoPackage");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetProcTreeInfoPackageByProcess) == 52, "GetProcTreeInfoPackageByProcess");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetProcessImageNtPath) == 60, "GetProcessImageNtPath");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetProcessImageDosPath) == 68, "GetProcessImageDosPath");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, AddDosNameInfo) == 76, "AddDosNameInfo");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, IsEventEnabled) == 84, "IsEventEnabled");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, GetCallerStackInfoPackage) == 92, "GetCallerStackInfoPackage");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, FreeCallerStackInfoPackage) == 100, "FreeCallerStackInfoPackage");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, MatchBlackRule) == 108, "MatchBlackRule");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_INTERFACE_KRNL, IsConsumerProcess) == 116, "IsConsumerProcess");

// The producer drivers Sentrel tells when it comes on line (IOCTL_SK_NOTIFY_ONLINE to their device).
#define SK_KNOWN_PRODUCER_DEVICE L"\\Quillet"
