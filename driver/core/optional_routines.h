// Kernel routines that not every kernel exports, or whose reference pages name no Windows version
// (Sentrel loads on Windows 7, and a kernel that lacks an imported routine refuses the whole
// driver). They are called through pointers in SentrelData; where a routine is missing, its
// pointer holds a fallback.
#pragma once

#include "platform/nt.h"

typedef NTSTATUS (*PSK_PS_REFERENCE_PROCESS_FILE_POINTER)(PEPROCESS Process, PFILE_OBJECT *FileObject);
typedef NTSTATUS (*PSK_SE_LOCATE_PROCESS_IMAGE_NAME)(PEPROCESS Process, PUNICODE_STRING *ImageName);
typedef NTSTATUS (*PSK_PS_ACQUIRE_PROCESS_EXIT_SYNCHRONIZATION)(PEPROCESS Process);
typedef VOID (*PSK_PS_RELEASE_PROCESS_EXIT_SYNCHRONIZATION)(PEPROCESS Process);
typedef NTSTATUS (*PSK_OB_OPEN_OBJECT_BY_POINTER)(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                                                  ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                  KPROCESSOR_MODE AccessMode, PHANDLE Handle);
typedef NTSTATUS (*PSK_ZW_QUERY_INFORMATION_THREAD)(HANDLE ThreadHandle, THREADINFOCLASS ThreadInformationClass,
                                                    PVOID ThreadInformation, ULONG ThreadInformationLength,
                                                    PULONG ReturnLength);
typedef PPEB (*PSK_PS_GET_PROCESS_PEB)(PEPROCESS Process);
typedef NTSTATUS (*PSK_SE_QUERY_AUTHENTICATION_ID_TOKEN)(PACCESS_TOKEN Token, PLUID AuthenticationId);
typedef ULONG (*PSK_PS_GET_PROCESS_SESSION_ID)(PEPROCESS Process);
typedef HANDLE (*PSK_PS_GET_PROCESS_INHERITED_FROM_UNIQUE_PROCESS_ID)(PEPROCESS Process);
typedef PVOID (*PSK_PS_GET_PROCESS_WOW64_PROCESS)(PEPROCESS Process);
typedef ULONG (*PSK_RTL_WALK_FRAME_CHAIN)(PVOID *Callers, ULONG Count, ULONG Flags);

struct _SENTREL_DATA;

// Finds the kernel image and resolves the twelve routines (or installs their fallbacks). Cannot fail.
void sk_ResolveOptionalRoutines(struct _SENTREL_DATA *Data);
