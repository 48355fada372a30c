// The contract annotations that routine declarations carry (direction of each argument, the
// highest IRQL a routine may be called at). Neither the mingw-w64 headers nor the host compiler
// give them meaning, so they are documentation that reads like the kernel's own headers; they are
// defined here only where a header has not defined them already.
#pragma once

#ifndef _IRQL_requires_max_
#define _IRQL_requires_max_(irql)
#endif
#ifndef _In_
#define _In_
#endif
#ifndef _In_opt_
#define _In_opt_
#endif
#ifndef _Out_
#define _Out_
#endif
#ifndef _Out_opt_
#define _Out_opt_
#endif
#ifndef _Inout_
#define _Inout_
#endif
#ifndef _Inout_opt_
#define _Inout_opt_
#endif
#ifndef _In_reads_bytes_
#define _In_reads_bytes_(size)
#endif
