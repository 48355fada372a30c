// The one door through which the driver reaches the kernel. For Windows it is the DDK of the
// mingw-w64 toolchain plus our own declarations of what that DDK lacks; for the host build it is
// the simulated kernel, which declares the same types and routines.
#pragma once

#if defined(_WIN32) && !defined(SENTREL_HOST)
#include <ntifs.h>
#include <mountmgr.h>
#include <ntimage.h>
#include "kernel/kernel_decls.h"
// Aligned 32-bit accesses are atomic on x64; volatile keeps the compiler from caching them.
#define SK_READ_ONCE(x) (*(volatile __typeof__(x)*)&(x))
#define SK_WRITE_ONCE(x, v) (*(volatile __typeof__(x)*)&(x) = (v))
// A load that no earlier interlocked operation of the thread may pass: on x64 every locked
// instruction is a full barrier, so a plain load is one.
#define SK_READ_ORDERED(x) SK_READ_ONCE(x)
#else
#include <ntsim/ntsim.h>
#define SK_READ_ONCE(x) __atomic_load_n(&(x), __ATOMIC_RELAXED)
#define SK_WRITE_ONCE(x, v) __atomic_store_n(&(x), (v), __ATOMIC_RELAXED)
#define SK_READ_ORDERED(x) __atomic_load_n(&(x), __ATOMIC_SEQ_CST)
#endif

// A full memory barrier. On the host it is a locked exchange, as the kernel's own KeMemoryBarrier
// is, which ThreadSanitizer also understands (it does not model fences).
#if defined(_WIN32) && !defined(SENTREL_HOST)
#define SK_FULL_BARRIER() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#else
#define SK_FULL_BARRIER() KeMemoryBarrier()
#endif

#include "annotations.h"
#include "kernel/io_create_device_secure.h"
