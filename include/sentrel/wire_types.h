// The few building blocks of Sentrel's wire formats: fixed-width integers, a compile-time assertion
// and offsetof, and the 16-byte UUID. Every header in include/sentrel/ is compiled by the driver
// (freestanding, no libc, LLP64) and by consumers (Linux LP64 or Windows user mode, C or C++), so
// nothing here may come from a library header: the integer types are the compiler's own, and every
// record is built only from them, without pointers, `long` or implicit padding. A record's layout
// is then the same for all of them, and a static assertion next to each record says so.
#pragma once

#if defined(__BYTE_ORDER__) && defined(__ORDER_LITTLE_ENDIAN__) && \
    __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "Sentrel's records are little-endian and are read in place; this target is not"
#endif

#if defined(__UINT8_TYPE__) && defined(__UINT16_TYPE__) && defined(__UINT32_TYPE__) && \
    defined(__UINT64_TYPE__) && defined(__INT32_TYPE__) && defined(__INT64_TYPE__)
typedef __UINT8_TYPE__ SK_UINT8;
typedef __UINT16_TYPE__ SK_UINT16;
typedef __UINT32_TYPE__ SK_UINT32;
typedef __UINT64_TYPE__ SK_UINT64;
typedef __INT32_TYPE__ SK_INT32;
typedef __INT64_TYPE__ SK_INT64;
#elif defined(_MSC_VER)
typedef unsigned __int8 SK_UINT8;
typedef unsigned __int16 SK_UINT16;
typedef unsigned __int32 SK_UINT32;
typedef unsigned __int64 SK_UINT64;
typedef __int32 SK_INT32;
typedef __int64 SK_INT64;
#else
#error "no fixed-width integer types known for this compiler"
#endif

#if defined(__cplusplus)
#define SK_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define SK_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

// offsetof without <stddef.h>, which a freestanding kernel build may not offer.
#if defined(__GNUC__) || defined(__clang__)
#define SK_OFFSETOF(type, field) __builtin_offsetof(type, field)
#else
#define SK_OFFSETOF(type, field) ((SK_UINT64) & (((type*)0)->field))
#endif

SK_STATIC_ASSERT(sizeof(SK_UINT8) == 1, "SK_UINT8 is 8 bits");
SK_STATIC_ASSERT(sizeof(SK_UINT16) == 2, "SK_UINT16 is 16 bits");
SK_STATIC_ASSERT(sizeof(SK_UINT32) == 4, "SK_UINT32 is 32 bits");
SK_STATIC_ASSERT(sizeof(SK_UINT64) == 8, "SK_UINT64 is 64 bits");
SK_STATIC_ASSERT(sizeof(SK_INT32) == 4, "SK_INT32 is 32 bits");
SK_STATIC_ASSERT(sizeof(SK_INT64) == 8, "SK_INT64 is 64 bits");
SK_STATIC_ASSERT((SK_UINT8)-1 > 0 && (SK_UINT32)-1 > 0 && (SK_UINT64)-1 > 0, "unsigned types");
SK_STATIC_ASSERT((SK_INT32)-1 < 0 && (SK_INT64)-1 < 0, "signed types");

// A UUID as the kernel's ExUuidCreate makes it (the GUID layout): the first three fields are
// little-endian integers, the last eight bytes are in order. The kernel's GUID can be copied into
// it byte for byte.
typedef struct _SK_UUID {
  SK_UINT32 Data1;
  SK_UINT16 Data2;
  SK_UINT16 Data3;
  SK_UINT8 Data4[8];
} SK_UUID, *PSK_UUID;

SK_STATIC_ASSERT(sizeof(SK_UUID) == 16, "SK_UUID is 16 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_UUID, Data1) == 0, "SK_UUID.Data1");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_UUID, Data2) == 4, "SK_UUID.Data2");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_UUID, Data3) == 6, "SK_UUID.Data3");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_UUID, Data4) == 8, "SK_UUID.Data4");
