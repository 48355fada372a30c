// Declarations of kernel routines and types that the mingw-w64 DDK headers lack.
// Each is documented and exported by ntoskrnl.exe (or ksecdd.sys) on the Windows versions we run on.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Nothing yet: the process, token and system-information queries add theirs here.

#ifdef __cplusplus
}
#endif
