// Conversions between the three forms of a file path the driver meets: the NT path that the kernel
// reports (\Device\HarddiskVolume3\Windows\System32\cmd.exe), the DOS path under the global drive
// letters (\??\C:\Windows\System32\cmd.exe), and the symbolic forms handed over by callers and
// the kernel (\SystemRoot\..., \Windows\..., \Device\Mup\...). Every string handed out is a string
// block (names/string_block.h) that the receiver frees with skt_FreeUnicodeStringSelf.
// All of them run at PASSIVE_LEVEL.
#pragma once

#include "platform/nt.h"

// Opens Path (a DOS, \SystemRoot or NT path) and gives its NT path and/or its DOS path, the
// latter asked of the mount manager. Succeeds once the NT name is known: a DOS part that cannot be
// made leaves *DosPath null. PoolType and FileObject are not used.
NTSTATUS skt_PathConvertToNtPath(POOL_TYPE PoolType, BOOLEAN IsDirectory, PFILE_OBJECT FileObject,
                                 PUNICODE_STRING Path, PUNICODE_STRING *NtPath, PUNICODE_STRING *DosPath);
// As skt_PathConvertToNtPath for a file (an image), given either its file object (used as it is)
// or its path; the DOS part comes from the DOS name table. PoolType is not used.
NTSTATUS skt_ImagePathConvertToNtPath(POOL_TYPE PoolType, PFILE_OBJECT FileObject, PUNICODE_STRING Path,
                                      PUNICODE_STRING *NtPath, PUNICODE_STRING *DosPath);
// The NT path of Path, with 80 bytes of spare capacity behind it (MaximumLength tells the whole
// capacity) so that a pattern suffix can be appended in place.
NTSTATUS skt_QueryNtPath(PUNICODE_STRING Path, BOOLEAN IsDirectory, PUNICODE_STRING *NtPath);
#define SK_NT_PATH_SPARE 80
// The DOS path of an NT path from the DOS name table; a network path (\Device\Mup\...) is its own
// DOS path. PoolType is not used.
NTSTATUS skt_QueryDosPathFromNtPath(POOL_TYPE PoolType, PCUNICODE_STRING NtPath, PUNICODE_STRING *DosPath);
// The DOS path of an image name from an image-load notification (\SystemRoot\..., \Windows\...,
// \Device\HarddiskVolumeN\...). *RealPath is a new string block, or ImageName itself when the name
// is left as it is: the caller frees it only when it differs from ImageName.
NTSTATUS sk_GetImageRealPath(PUNICODE_STRING ImageName, PUNICODE_STRING *RealPath);
// The volume part of an NT path (\Device\HarddiskVolume3), sharing NtPath's buffer.
NTSTATUS skt_GetVolDevName(PCUNICODE_STRING NtPath, PUNICODE_STRING VolumeName);
// The DOS name of a volume (C:) from the mount manager. DosName->Buffer is pool of tag "gTdm"
// (SK_TAG_MOUNT_MGR) that the caller frees with ExFreePoolWithTag.
NTSTATUS skt_QueryDosNameFromNtName(PCUNICODE_STRING VolumeName, PUNICODE_STRING DosName);
