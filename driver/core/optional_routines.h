// Kernel routines that not every kernel exports. They are called through pointers in SentrelData;
// where a routine is missing, its pointer holds a fallback.
#pragma once

#include "platform/nt.h"

typedef NTSTATUS (*PSK_PS_REFERENCE_PROCESS_FILE_POINTER)(PEPROCESS Process, PFILE_OBJECT *FileObject);
typedef NTSTATUS (*PSK_SE_LOCATE_PROCESS_IMAGE_NAME)(PEPROCESS Process, PUNICODE_STRING *ImageName);
typedef NTSTATUS (*PSK_PS_ACQUIRE_PROCESS_EXIT_SYNCHRONIZATION)(PEPROCESS Process);
typedef VOID (*PSK_PS_RELEASE_PROCESS_EXIT_SYNCHRONIZATION)(PEPROCESS Process);

struct _SENTREL_DATA;

// Finds the kernel image and resolves the four routines (or installs their fallbacks). Cannot fail.
void sk_ResolveOptionalRoutines(struct _SENTREL_DATA *Data);
