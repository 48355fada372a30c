// The public wire-format headers compiled as C++ for the driver's target (x64 Windows kernel,
// LLP64, freestanding), this time before the DDK headers: they need nothing from them and must not
// clash with them. The static assertions in the headers fix every size and offset, so this file
// only has to compile.
#include "sentrel/control_codes.h"
#include "sentrel/event_types.h"
#include "sentrel/packet.h"
#include "sentrel/packet_build.h"
#include "sentrel/wire_types.h"

#include <ntifs.h>

static_assert(IOCTL_SK_NOTIFY_ONLINE ==
                  CTL_CODE(0x666, 0x000, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS),
              "SK_CTL_CODE agrees with CTL_CODE");
static_assert(IOCTL_SK_QUERY_PACKCOMINFO ==
                  CTL_CODE(0x666, 0x007, METHOD_OUT_DIRECT, FILE_READ_ACCESS | FILE_WRITE_ACCESS),
              "SK_CTL_CODE agrees with CTL_CODE");
static_assert(sizeof(GUID) == sizeof(SK_UUID), "GUID and SK_UUID");

extern "C" SK_UINT32 sk_WireLayoutProbeCxx(void* Packet, SK_UINT32 Length) {
  SENTREL_AUTH_COMMUID Auth;
  GUID Id = {};
  if (sk_PacketCheck(Packet, Length) != SKPC_ACCEPTED) return 0;
  sk_AuthCommuIdInit(Packet, reinterpret_cast<const SK_UUID*>(&Id));
  return static_cast<SK_UINT32>(sk_AuthCommuIdRead(Packet, Length, &Auth)) + Auth.Size;
}
