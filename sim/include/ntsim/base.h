// Basic NT types as the 64-bit Windows kernel lays them out (LLP64), for host builds made with
// -fshort-wchar so that WCHAR is 16 bits and L"..." literals are the same bytes as on Windows.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#ifdef __cplusplus
#include <cstring>
#endif

static_assert(sizeof(wchar_t) == 2, "host builds of Sentrel need -fshort-wchar");

#ifdef __cplusplus
#define NTSIM_EXTERN_C extern "C"
#define NTSIM_BEGIN_DECLS extern "C" {
#define NTSIM_END_DECLS }
#else
#define NTSIM_EXTERN_C
#define NTSIM_BEGIN_DECLS
#define NTSIM_END_DECLS
#endif

#define NTAPI
#define NTSYSAPI
#define FASTCALL
#define DECLSPEC_NOINLINE __attribute__((noinline))
#define IN
#define OUT
#define OPTIONAL
#define UNREFERENCED_PARAMETER(P) ((void)(P))

typedef void VOID;
typedef void *PVOID, **PPVOID;
typedef const void *PCVOID;
typedef char CHAR, *PCHAR, CCHAR;
typedef const char *PCSTR, *PCSZ;
typedef char *PSTR, *PSZ;
typedef unsigned char UCHAR, *PUCHAR;
typedef uint8_t BOOLEAN, *PBOOLEAN;
typedef int16_t SHORT, CSHORT, *PSHORT;
typedef uint16_t USHORT, *PUSHORT;
typedef int32_t LONG, *PLONG;
typedef uint32_t ULONG, *PULONG, DWORD;
typedef int32_t NTSTATUS, *PNTSTATUS;
typedef int64_t LONGLONG, LONG64, *PLONGLONG, *PLONG64;
typedef uint64_t ULONGLONG, ULONG64, *PULONGLONG, *PULONG64;
typedef uint64_t ULONG_PTR, *PULONG_PTR, SIZE_T, *PSIZE_T;
typedef int64_t LONG_PTR, *PLONG_PTR;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR, *PWCH;
typedef const wchar_t *PCWSTR, *PCWCH;
typedef void *HANDLE, **PHANDLE;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG DEVICE_TYPE;

#define TRUE 1
#define FALSE 0
#ifndef NULL
#define NULL 0
#endif

typedef union _LARGE_INTEGER {
  struct {
    ULONG LowPart;
    LONG HighPart;
  };
  struct {
    ULONG LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
  struct {
    ULONG LowPart;
    ULONG HighPart;
  };
  ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _UNICODE_STRING {
  USHORT Length;
  USHORT MaximumLength;
  PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _STRING {
  USHORT Length;
  USHORT MaximumLength;
  PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING;
typedef const STRING *PCANSI_STRING;

typedef struct _LIST_ENTRY {
  struct _LIST_ENTRY *Flink;
  struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
  struct _SINGLE_LIST_ENTRY *Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

typedef struct _GUID {
  ULONG Data1;
  USHORT Data2;
  USHORT Data3;
  UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID *LPCGUID;

typedef struct _IO_STATUS_BLOCK {
  union {
    NTSTATUS Status;
    PVOID Pointer;
  };
  ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef struct _OBJECT_ATTRIBUTES {
  ULONG Length;
  HANDLE RootDirectory;
  PUNICODE_STRING ObjectName;
  ULONG Attributes;
  PVOID SecurityDescriptor;
  PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L

#define InitializeObjectAttributes(p, n, a, r, s) \
  do {                                            \
    (p)->Length = sizeof(OBJECT_ATTRIBUTES);      \
    (p)->RootDirectory = (r);                     \
    (p)->Attributes = (a);                        \
    (p)->ObjectName = (n);                        \
    (p)->SecurityDescriptor = (s);                \
    (p)->SecurityQualityOfService = NULL;         \
  } while (0)

#define MAXUCHAR 0xff
#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffff

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type *)0)->field))
#define RTL_NUMBER_OF(A) (sizeof(A) / sizeof((A)[0]))
#define ARRAYSIZE(A) RTL_NUMBER_OF(A)
// By offsetof, not by a member of a null pointer as the DDK's macro is: the same address, without
// the undefined behaviour that the sanitizers stop at.
#define CONTAINING_RECORD(address, type, field) ((type *)((PCHAR)(address) - offsetof(type, field)))
#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_ERROR_STATUS(Status) ((((ULONG)(Status)) >> 30) == 3)
#define ALIGN_UP_BY(length, alignment) \
  (((ULONG_PTR)(length) + (alignment) - 1) & ~((ULONG_PTR)(alignment) - 1))

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))

#define PAGE_SIZE 0x1000

// Processor modes and interrupt levels.
#define KernelMode 0
#define UserMode 1
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

// Access rights.
#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define GENERIC_READ 0x80000000UL
#define GENERIC_WRITE 0x40000000UL
#define GENERIC_EXECUTE 0x20000000UL
#define GENERIC_ALL 0x10000000UL
#define MAXIMUM_ALLOWED 0x02000000L

// Registry value types.
#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_DWORD_BIG_ENDIAN 5
#define REG_LINK 6
#define REG_MULTI_SZ 7
#define REG_QWORD 11

// Interlocked operations, full barriers as on x64.
static inline LONG InterlockedIncrement(volatile LONG *Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
static inline LONG InterlockedDecrement(volatile LONG *Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
static inline LONG InterlockedExchange(volatile LONG *Target, LONG Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedExchangeAdd(volatile LONG *Addend, LONG Value) {
  return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedCompareExchange(volatile LONG *Destination, LONG Exchange, LONG Comparand) {
  __atomic_compare_exchange_n(Destination, &Comparand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comparand;
}
static inline LONG InterlockedOr(volatile LONG *Destination, LONG Value) {
  return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedAnd(volatile LONG *Destination, LONG Value) {
  return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}
static inline LONG64 InterlockedIncrement64(volatile LONG64 *Addend) {
  return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
static inline LONG64 InterlockedDecrement64(volatile LONG64 *Addend) {
  return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
static inline LONG64 InterlockedExchangeAdd64(volatile LONG64 *Addend, LONG64 Value) {
  return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
static inline LONG64 InterlockedExchange64(volatile LONG64 *Target, LONG64 Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
static inline LONG64 InterlockedCompareExchange64(volatile LONG64 *Destination, LONG64 Exchange, LONG64 Comparand) {
  __atomic_compare_exchange_n(Destination, &Comparand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comparand;
}
static inline PVOID InterlockedExchangePointer(PVOID volatile *Target, PVOID Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
static inline PVOID InterlockedCompareExchangePointer(PVOID volatile *Destination, PVOID Exchange, PVOID Comparand) {
  __atomic_compare_exchange_n(Destination, &Comparand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comparand;
}
