// Memory manager: routine lookup by name.
#pragma once

#include "ntsim/status.h"

NTSIM_BEGIN_DECLS

PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

NTSIM_END_DECLS
