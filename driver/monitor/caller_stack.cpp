#include "monitor/caller_stack.h"

#include "core/debug_log.h"
#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "monitor/image_mgr.h"
#include "monitor/image_record.h"
#include "names/path_cache.h"

#define SK_MODULE SK_TRACE_PACKAGE

#define SK_STACK_TEXT_CHARS 8192

// The frame record of one capture (5128 bytes).
typedef struct _SK_STACK_FRAMES {
  ULONG Depth;
  ULONG64 Frames[SK_CALLER_STACK_MAX_FRAMES];
  PPROC_IMAGE_RECORD Images[SK_CALLER_STACK_MAX_FRAMES];
  ULONG Offsets[SK_CALLER_STACK_MAX_FRAMES];
} SK_STACK_FRAMES, *PSK_STACK_FRAMES;

static_assert(sizeof(SK_STACK_FRAMES) == 5128, "the frame record");

static const WCHAR SkUnknownImage[] = L"UnknowImage";

// The text an image is shown by: its DOS path without "\??\" (or as it is when it does not begin
// with a backslash), else its kernel path.
static VOID sk_DisplayPath(PIMAGE_INFO_NODE Image, const WCHAR **Text, ULONG *Length) {
  PPATH_CACHE_NODE path = Image->DosPath ? Image->DosPath : Image->NtPath;
  *Text = (const WCHAR *)((const UCHAR *)path + FIELD_OFFSET(PATH_CACHE_NODE, Path));
  *Length = path->Length;
  if (Image->DosPath && path->Length >= 4 * sizeof(WCHAR) && (*Text)[0] == L'\\') {
    *Text += 4;
    *Length -= 4 * sizeof(WCHAR);
  }
}

// Appends hexadecimal digits: lower case without leading zeros, or all sixteen in upper case.
static ULONG sk_PutHex(PWCHAR Text, ULONG At, ULONG64 Value, BOOLEAN FullWidth) {
  static const WCHAR lower[] = L"0123456789abcdef", upper[] = L"0123456789ABCDEF";
  WCHAR digits[16];
  ULONG count = 0;
  do {
    digits[count++] = (FullWidth ? upper : lower)[Value & 0xF];
    Value >>= 4;
  } while (Value || (FullWidth && count < 16));
  while (count) Text[At++] = digits[--count];
  return At;
}

// One frame's text in Text (SK_STACK_TEXT_CHARS characters); returns its length in characters.
static ULONG sk_FrameText(PSK_STACK_FRAMES Record, ULONG Index, PWCHAR Text) {
  const WCHAR *name = SkUnknownImage;
  ULONG nameBytes = sizeof(SkUnknownImage) - sizeof(WCHAR);
  PPROC_IMAGE_RECORD image = Record->Images[Index];
  BOOLEAN known = image && image->ImageNode;
  ULONG at;
  if (known) sk_DisplayPath(image->ImageNode, &name, &nameBytes);
  at = nameBytes / sizeof(WCHAR);
  if (at > SK_STACK_TEXT_CHARS - 19) at = SK_STACK_TEXT_CHARS - 19;  // room for "+0x" and 16 digits
  RtlCopyMemory(Text, name, at * sizeof(WCHAR));
  Text[at++] = L'+';
  Text[at++] = L'0';
  Text[at++] = L'x';
  return known ? sk_PutHex(Text, at, Record->Offsets[Index], FALSE) : sk_PutHex(Text, at, Record->Frames[Index], TRUE);
}

NTSTATUS sk_GetCallerStackInfoPackage_ProcNode(PPROC_INFO_NODE Node, PVOID *Package, PULONG Length) {
  NTSTATUS status = STATUS_SUCCESS;
  PSK_STACK_FRAMES record = NULL;
  PWCHAR text = NULL;
  PUCHAR package = NULL;
  ULONG resolved = 0, size, at, i;
  PLIST_ENTRY entry;

  PAGED_CODE();
  SK_ENTER();
  if (Node->ProcessId != (ULONG64)(ULONG_PTR)PsGetCurrentProcessId()) {
    SK_ERROR("XX->ProcessId != CurrentProcessId\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  if (!Package || !Length) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  *Package = NULL;
  *Length = 0;
  record = (PSK_STACK_FRAMES)ExAllocatePoolWithTag(PagedPool, sizeof(*record), SK_TAG_STACK_FRAMES);
  if (!record) {
    SK_ERROR("Record alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(record, sizeof(*record));
  text = (PWCHAR)ExAllocatePoolWithTag(PagedPool, SK_STACK_TEXT_CHARS * sizeof(WCHAR), SK_TAG_STACK_TEXT);
  if (!text) {
    SK_ERROR("TempBuf alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(text, SK_STACK_TEXT_CHARS * sizeof(WCHAR));
  record->Depth = SentrelData.RtlWalkFrameChain((PVOID *)record->Frames, SK_CALLER_STACK_MAX_FRAMES, 1);
  if (record->Depth == 0) {
    SK_ERROR("Record->Depth == 0\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }

  // Newest image first, so that a range mapped again resolves to what is there now. The image
  // records and their nodes stay while the process's node is held.
  ExAcquireFastMutex(Node->ImageListLock);
  for (entry = Node->ImageList.Blink; entry != &Node->ImageList && resolved < record->Depth; entry = entry->Blink) {
    PPROC_IMAGE_RECORD image = CONTAINING_RECORD(entry, PROC_IMAGE_RECORD, Links);
    for (i = 0; i < record->Depth; ++i) {
      if (record->Images[i] || record->Frames[i] <= image->ImageBase || record->Frames[i] >= image->ImageEnd) continue;
      record->Images[i] = image;
      record->Offsets[i] = (ULONG)(record->Frames[i] - image->ImageBase);
      ++resolved;
    }
  }
  ExReleaseFastMutex(Node->ImageListLock);

  size = SK_CALLER_STACK_HEADER_BYTES;
  for (i = 0; i < record->Depth; ++i) {
    PPROC_IMAGE_RECORD image = record->Images[i];
    if (image && image->ImageNode) {
      const WCHAR *name;
      ULONG nameBytes;
      sk_DisplayPath(image->ImageNode, &name, &nameBytes);
      size += nameBytes + 28;
    } else {
      size += sizeof(SkUnknownImage) - sizeof(WCHAR) + 92;
    }
  }
  package = (PUCHAR)ExAllocatePoolWithTag(PagedPool, size, SK_TAG_CALLER_STACK);
  if (!package) {
    SK_ERROR("xStackInfo alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
    goto Exit;
  }
  RtlZeroMemory(package, size);
  ((PULONG)package)[0] = size;
  ((PULONG)package)[1] = SK_PACKAGE_CALLER_STACK;
  ((PULONG)package)[2] = size;
  ((PULONG)package)[3] = record->Depth;
  at = SK_CALLER_STACK_HEADER_BYTES;
  for (i = 0; i < record->Depth; ++i) {
    ULONG bytes = sk_FrameText(record, i, text) * sizeof(WCHAR);
    if (at + 4 + bytes > size) {
      SK_ERROR("Invalid byteOffset 0x%0x > TotalLength:0x%0x\n", at + 4 + bytes, size);
      ExFreePoolWithTag(package, SK_TAG_CALLER_STACK);
      package = NULL;
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Exit;
    }
    *(PUSHORT)(package + at) = (USHORT)bytes;
    RtlCopyMemory(package + at + 4, text, bytes);
    at += 4 + bytes;
  }
  *Package = package;
  *Length = size;
Exit:
  if (text) ExFreePoolWithTag(text, SK_TAG_STACK_TEXT);
  if (record) ExFreePoolWithTag(record, SK_TAG_STACK_FRAMES);
  SK_LEAVE(status);
  return status;
}

NTSTATUS sk_GetCallerStackInfoPackage(PVOID *Package, PULONG Length) {
  NTSTATUS status;
  PPROC_INFO_NODE node = NULL;

  PAGED_CODE();
  SK_ENTER();
  status = sk_GetProcInfo(&SentrelData.ProcessMgr, PsGetCurrentProcessId(),
                          PsGetProcessCreateTimeQuadPart(IoGetCurrentProcess()), &node);
  if (!NT_SUCCESS(status)) {
    SK_ERROR("sk_GetProcInfo -> %08lx\n", status);
    goto Exit;
  }
  status = sk_GetCallerStackInfoPackage_ProcNode(node, Package, Length);
  if (!NT_SUCCESS(status)) SK_FAIL("sk_GetCallerStackInfoPackage_ProcNode", status);
  sk_ReleaseProcInfo_Node(&SentrelData.ProcessMgr, node);
Exit:
  SK_LEAVE(status);
  return status;
}
