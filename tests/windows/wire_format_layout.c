// The public wire-format headers compiled as C for the driver's target (x64 Windows kernel, LLP64,
// freestanding), after the DDK headers as driver sources include them: the static assertions in
// the headers fix every size and offset, so this file only has to compile.
#include <ntifs.h>

#include "sentrel/control_codes.h"
#include "sentrel/event_types.h"
#include "sentrel/packet.h"
#include "sentrel/packet_build.h"
#include "sentrel/ring_buffer.h"
#include "sentrel/white_rule.h"
#include "sentrel/wire_types.h"

// Our control codes are the platform's CTL_CODE.
SK_STATIC_ASSERT(IOCTL_SK_ADD_WHITE_RULE ==
                     CTL_CODE(0x666, 0x006, METHOD_IN_DIRECT, FILE_READ_ACCESS | FILE_WRITE_ACCESS),
                 "SK_CTL_CODE agrees with CTL_CODE");
SK_STATIC_ASSERT(IOCTL_APP_REGISTER_PRODUCER ==
                     CTL_CODE(0x666, 0x0A9, METHOD_OUT_DIRECT, FILE_READ_ACCESS | FILE_WRITE_ACCESS),
                 "SK_CTL_CODE agrees with CTL_CODE");
// The kernel's GUID is copied into SK_UUID byte for byte.
SK_STATIC_ASSERT(sizeof(GUID) == sizeof(SK_UUID), "GUID and SK_UUID");
SK_STATIC_ASSERT(SK_OFFSETOF(GUID, Data4) == SK_OFFSETOF(SK_UUID, Data4), "GUID and SK_UUID");
SK_STATIC_ASSERT(sizeof(ULONG) == sizeof(SK_UINT32) && sizeof(USHORT) == sizeof(SK_UINT16) &&
                     sizeof(ULONGLONG) == sizeof(SK_UINT64),
                 "the kernel's integer types and ours");

// Referenced, so that the helpers are compiled with the driver's flags too.
SK_UINT32 sk_WireLayoutProbeC(void* Packet, SK_UINT32 Length) {
  SK_UINT32 Code = 0;
  if (sk_PacketCheck(Packet, Length) != SKPC_ACCEPTED) return 0;
  sk_PacketControlCode(Packet, Length, &Code);
  return Code + sk_PacketInitEvent(Packet, 4, 0) + (sk_EventTypeName(Code) != 0);
}
