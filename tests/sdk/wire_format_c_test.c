/* The public wire-format headers compiled as C11 for the host. Their static assertions hold here
 * too; the functions below let wire_format_test.cpp compare what C sees with what C++ sees. */
#include "sentrel/event_data.h"
#include "sentrel/control_codes.h"
#include "sentrel/event_types.h"
#include "sentrel/packet.h"
#include "sentrel/packet_build.h"
#include "sentrel/white_rule.h"
#include "sentrel/wire_types.h"

/* Sizes and offsets as C sees them, in this order: sizeof(SK_PACKET) and its eight field offsets,
 * sizeof(SENTREL_AUTH_COMMUID) and its four field offsets, sizeof(SK_UUID), sizeof(SK_EVENT_TYPE). */
#define WIRE_C_LAYOUT_COUNT 16
void wire_c_Layout(SK_UINT32 Out[WIRE_C_LAYOUT_COUNT]) {
  SK_UINT32 Layout[WIRE_C_LAYOUT_COUNT] = {
      sizeof(SK_PACKET),
      SK_OFFSETOF(SK_PACKET, Length),
      SK_OFFSETOF(SK_PACKET, DataLength),
      SK_OFFSETOF(SK_PACKET, Reserved),
      SK_OFFSETOF(SK_PACKET, PacketType),
      SK_OFFSETOF(SK_PACKET, SrcType),
      SK_OFFSETOF(SK_PACKET, SrcPid),
      SK_OFFSETOF(SK_PACKET, DstType),
      SK_OFFSETOF(SK_PACKET, DstPid),
      sizeof(SENTREL_AUTH_COMMUID),
      SK_OFFSETOF(SENTREL_AUTH_COMMUID, Size),
      SK_OFFSETOF(SENTREL_AUTH_COMMUID, Tag),
      SK_OFFSETOF(SENTREL_AUTH_COMMUID, Kind),
      SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId),
      sizeof(SK_UUID),
      sizeof(SK_EVENT_TYPE),
  };
  SK_UINT32 Index;
  for (Index = 0; Index < WIRE_C_LAYOUT_COUNT; ++Index) Out[Index] = Layout[Index];
}

/* A 52-byte control packet to SKT_SENTREL carrying ControlCode; returns its length. */
SK_UINT32 wire_c_BuildControlPacket(SK_UINT8* Out, SK_UINT32 SrcPid, SK_UINT32 ControlCode) {
  SK_UINT32 Length = sk_PacketInit(Out, SKPT_CONTROL, SKT_PRODUCER, SrcPid, SKT_SENTREL, 0,
                                   SK_CONTROL_PACKET_MIN_SIZE - SK_PACKET_HEADER_SIZE);
  sk_StoreLe32(Out, SK_PACKET_BODY_LENGTH_OFFSET, Length - SK_PACKET_HEADER_SIZE);
  sk_StoreLe32(Out, SK_PACKET_CONTROL_CODE_OFFSET, ControlCode);
  return Length;
}

int wire_c_PacketCheck(const SK_UINT8* Bytes, SK_UINT32 Length) {
  return (int)sk_PacketCheck(Bytes, Length);
}

const char* wire_c_EventTypeName(SK_UINT32 EventType) { return sk_EventTypeName(EventType); }

int wire_c_AuthCommuIdRead(const SK_UINT8* Bytes, SK_UINT32 Length, SENTREL_AUTH_COMMUID* Auth) {
  return sk_AuthCommuIdRead(Bytes, Length, Auth);
}
