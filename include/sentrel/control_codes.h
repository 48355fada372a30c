// Device-control codes of the Sentrel device. Every code has device type 0x666, requires read and
// write access, and is built like the platform's CTL_CODE(0x666, Function, Method, 3). The macro is
// our own because Linux consumers have no CTL_CODE; the Windows build checks that both agree.
//
// Who may send what:
//   kernel only   - the register/unregister/interface codes: a request from user mode is refused
//   consumer only - IOCTL_SK_ADD_WHITE_RULE, IOCTL_SK_EVENT_MASK, IOCTL_SK_MAP_RINGBUF,
//                   IOCTL_SK_QUERY_LOSSES: the caller must be the consumer
//   anyone        - the rest
#pragma once

#include "sentrel/wire_types.h"

#define SK_DEVICE_TYPE_SENTREL 0x666u
#define SK_ACCESS_READ_WRITE 3u  // FILE_READ_ACCESS | FILE_WRITE_ACCESS

// Transfer methods, the platform's METHOD_ values.
#define SK_METHOD_BUFFERED 0u
#define SK_METHOD_IN_DIRECT 1u
#define SK_METHOD_OUT_DIRECT 2u
#define SK_METHOD_NEITHER 3u

#define SK_CTL_CODE(Function, Method)                                                  \
  ((SK_UINT32)((SK_DEVICE_TYPE_SENTREL << 16) | (SK_ACCESS_READ_WRITE << 14) |         \
               ((SK_UINT32)(Function) << 2) | (SK_UINT32)(Method)))

// The fields of a code, for decoding one.
#define SK_CTL_DEVICE_TYPE(Code) (((SK_UINT32)(Code) >> 16) & 0xFFFFu)
#define SK_CTL_ACCESS(Code) (((SK_UINT32)(Code) >> 14) & 0x3u)
#define SK_CTL_FUNCTION(Code) (((SK_UINT32)(Code) >> 2) & 0xFFFu)
#define SK_CTL_METHOD(Code) ((SK_UINT32)(Code) & 0x3u)

// Sent by the driver to a producer driver's device when the driver comes online; no buffers.
#define IOCTL_SK_NOTIFY_ONLINE SK_CTL_CODE(0x000, SK_METHOD_BUFFERED)

// Kernel only. In: the producer driver's device object (64 bits) and a 64-bit value kept with it,
// exactly 16 bytes. Out: none.
#define IOCTL_SK_REGISTER_PRODUCER SK_CTL_CODE(0x001, SK_METHOD_BUFFERED)
// Kernel only. In: the device object as registered, exactly 8 bytes. Out: none.
#define IOCTL_SK_UNREGISTER_PRODUCER SK_CTL_CODE(0x002, SK_METHOD_BUFFERED)
// Kernel only. In: the device object as registered (first 8 bytes). Out: the kernel interface
// table, exactly 124 bytes.
#define IOCTL_SK_GET_INTERFACEKRNL SK_CTL_CODE(0x003, SK_METHOD_BUFFERED)
// Reserved: always fail with STATUS_NOT_IMPLEMENTED.
#define IOCTL_SK_RESERVED_4 SK_CTL_CODE(0x004, SK_METHOD_BUFFERED)
#define IOCTL_SK_RESERVED_5 SK_CTL_CODE(0x005, SK_METHOD_BUFFERED)
// Consumer only. The white-rule records travel in the direct buffer; their length is the input
// length (at least 13, at most the direct buffer's). No direct buffer or input length 0 deletes all
// white rules.
#define IOCTL_SK_ADD_WHITE_RULE SK_CTL_CODE(0x006, SK_METHOD_IN_DIRECT)
// In: a 32-bit process id, exactly 4 bytes. Out (direct buffer): that process's description.
#define IOCTL_SK_QUERY_PACKCOMINFO SK_CTL_CODE(0x007, SK_METHOD_OUT_DIRECT)
// Out (direct buffer, at least 24 bytes): SENTREL_AUTH_COMMUID (packet.h).
#define IOCTL_APP_REGISTER_CONSUMER SK_CTL_CODE(0x008, SK_METHOD_OUT_DIRECT)
// Consumer only. Out (direct buffer, more than 16 bytes): the ring-buffer mapping record; it needs
// 16 + 8 bytes per ring buffer.
#define IOCTL_SK_MAP_RINGBUF SK_CTL_CODE(0x00A, SK_METHOD_OUT_DIRECT)
// Consumer only. In: exactly 8 bytes, the new event mask, or SK_EVENT_MASK_QUERY to read it; out,
// for a query: exactly 8 bytes, the current mask.
#define IOCTL_SK_EVENT_MASK SK_CTL_CODE(0x00B, SK_METHOD_BUFFERED)
// Consumer only. Out (direct buffer): SK_LOSS_COUNTERS and the records behind it (loss_counters.h).
#define IOCTL_SK_QUERY_LOSSES SK_CTL_CODE(0x00C, SK_METHOD_OUT_DIRECT)
// Out (direct buffer, at least 24 bytes): SENTREL_AUTH_COMMUID (packet.h).
#define IOCTL_APP_REGISTER_PRODUCER SK_CTL_CODE(0x0A9, SK_METHOD_OUT_DIRECT)

SK_STATIC_ASSERT(IOCTL_SK_NOTIFY_ONLINE == 0x0666C000u, "IOCTL_SK_NOTIFY_ONLINE");
SK_STATIC_ASSERT(IOCTL_SK_REGISTER_PRODUCER == 0x0666C004u, "IOCTL_SK_REGISTER_PRODUCER");
SK_STATIC_ASSERT(IOCTL_SK_UNREGISTER_PRODUCER == 0x0666C008u, "IOCTL_SK_UNREGISTER_PRODUCER");
SK_STATIC_ASSERT(IOCTL_SK_GET_INTERFACEKRNL == 0x0666C00Cu, "IOCTL_SK_GET_INTERFACEKRNL");
SK_STATIC_ASSERT(IOCTL_SK_RESERVED_4 == 0x0666C010u, "IOCTL_SK_RESERVED_4");
SK_STATIC_ASSERT(IOCTL_SK_RESERVED_5 == 0x0666C014u, "IOCTL_SK_RESERVED_5");
SK_STATIC_ASSERT(IOCTL_SK_ADD_WHITE_RULE == 0x0666C019u, "IOCTL_SK_ADD_WHITE_RULE");
SK_STATIC_ASSERT(IOCTL_SK_QUERY_PACKCOMINFO == 0x0666C01Eu, "IOCTL_SK_QUERY_PACKCOMINFO");
SK_STATIC_ASSERT(IOCTL_APP_REGISTER_CONSUMER == 0x0666C022u, "IOCTL_APP_REGISTER_CONSUMER");
SK_STATIC_ASSERT(IOCTL_SK_MAP_RINGBUF == 0x0666C02Au, "IOCTL_SK_MAP_RINGBUF");
SK_STATIC_ASSERT(IOCTL_SK_EVENT_MASK == 0x0666C02Cu, "IOCTL_SK_EVENT_MASK");
SK_STATIC_ASSERT(IOCTL_SK_QUERY_LOSSES == 0x0666C032u, "IOCTL_SK_QUERY_LOSSES");
SK_STATIC_ASSERT(IOCTL_APP_REGISTER_PRODUCER == 0x0666C2A6u, "IOCTL_APP_REGISTER_PRODUCER");
SK_STATIC_ASSERT(SK_CTL_FUNCTION(IOCTL_APP_REGISTER_PRODUCER) == 0x0A9 &&
                     SK_CTL_METHOD(IOCTL_SK_ADD_WHITE_RULE) == SK_METHOD_IN_DIRECT &&
                     SK_CTL_ACCESS(IOCTL_SK_EVENT_MASK) == SK_ACCESS_READ_WRITE &&
                     SK_CTL_DEVICE_TYPE(IOCTL_SK_MAP_RINGBUF) == SK_DEVICE_TYPE_SENTREL,
                 "decoding a code gives back its fields");
