// One image mapped into a process: an entry of the process node's image list.
#pragma once

#include "platform/nt.h"

struct _IMAGE_INFO_NODE;

typedef struct _PROC_IMAGE_RECORD {
  USHORT Tag;  // SK_RECORD_IMAGE
  USHORT Size;
  ULONG ImageSize;
  ULONG64 ImageBase;
  ULONG64 ImageEnd;
  struct _IMAGE_INFO_NODE *ImageNode;  // one reference held
  LIST_ENTRY Links;
} PROC_IMAGE_RECORD, *PPROC_IMAGE_RECORD;
