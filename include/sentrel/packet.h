// The packet: what a producer or the consumer writes to the device, what a read returns, what waits
// in a process's message queue and what the driver writes into the ring buffers. Every packet
// starts with the 44-byte SK_PACKET header; the body follows it. All integers are little-endian and
// offsets count from the start of the packet.
//
// The registration answer SENTREL_AUTH_COMMUID is here too: it is written into the caller's buffer
// by both registration requests (control_codes.h).
#pragma once

#include "sentrel/event_types.h"
#include "sentrel/wire_types.h"

#define SK_PACKET_HEADER_SIZE 44u
#define SK_PACKET_BODY_OFFSET SK_PACKET_HEADER_SIZE
// The smallest packet accepted anywhere, 48 bytes: the header and the first 32-bit word of the
// body. It is what the driver's log lines call "sizeof(SK_PACKET)" ("Length < sizeof(SK_PACKET)\n",
// "MsgLen < sizeof(SK_PACKET)\n"); every path that receives a packet refuses a shorter one.
#define SK_PACKET_MIN_SIZE 48u

// PacketType. Type 0 is refused silently; any other unknown type is refused and logged.
#define SKPT_EVENT 1u    // only to SKT_CONSUMER; goes into the ring buffers
#define SKPT_CONTROL 2u  // routed by DstType

// Endpoints: SrcType and DstType. As a destination:
#define SKT_SENTREL 0u    // the driver itself; the body carries a control code (below)
#define SKT_CONSUMER 1u   // the one registered consumer process
#define SKT_PRODUCERS 2u  // every process with a message queue except the consumer (broadcast)
#define SKT_PRODUCER 3u   // the process in DstPid, which must not be the consumer

// The DstPid of the packets the driver builds (DstPid matters only for SKT_PRODUCER).
#define SK_PACKET_NO_PID 0xFFFFFFFFu

typedef struct _SK_PACKET {
  // Total length, header included. The driver writes it in the packets it builds; on receipt it
  // goes by the length of the request, never by this field.
  SK_UINT32 Length;
  // Length - 44. Written by the driver, not examined on receipt.
  SK_UINT32 DataLength;
  // Zero in the packets the driver builds; never examined.
  SK_UINT8 Reserved[16];
  SK_UINT32 PacketType;  // SKPT_
  SK_UINT32 SrcType;     // SKT_; SKT_PRODUCER in the driver's event packets; not examined
  SK_UINT32 SrcPid;      // not examined
  SK_UINT32 DstType;     // SKT_; decides the routing
  SK_UINT32 DstPid;      // only with SKT_PRODUCER; SK_PACKET_NO_PID in the driver's packets
  // The body, DataLength bytes, follows at SK_PACKET_BODY_OFFSET.
} SK_PACKET, *PSK_PACKET;

SK_STATIC_ASSERT(sizeof(SK_PACKET) == SK_PACKET_HEADER_SIZE, "SK_PACKET header is 44 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, Length) == 0, "SK_PACKET.Length");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, DataLength) == 4, "SK_PACKET.DataLength");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, Reserved) == 8, "SK_PACKET.Reserved");
SK_STATIC_ASSERT(sizeof(((SK_PACKET*)0)->Reserved) == 16, "SK_PACKET.Reserved size");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, PacketType) == 24, "SK_PACKET.PacketType");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, SrcType) == 28, "SK_PACKET.SrcType");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, SrcPid) == 32, "SK_PACKET.SrcPid");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, DstType) == 36, "SK_PACKET.DstType");
SK_STATIC_ASSERT(SK_OFFSETOF(SK_PACKET, DstPid) == 40, "SK_PACKET.DstPid");
SK_STATIC_ASSERT(SK_PACKET_MIN_SIZE == SK_PACKET_HEADER_SIZE + 4, "header and one body word");

// Body conventions the routing relies on.
//
// Event packets the driver builds: the body starts with its own length (equal to DataLength),
// followed by the event type (event_types.h).
#define SK_PACKET_BODY_LENGTH_OFFSET 44u
#define SK_PACKET_EVENT_TYPE_OFFSET 48u
//
// Control packets addressed to SKT_SENTREL: the control code is the 32-bit word at offset 48, so
// such a packet needs 52 bytes. Control packets to the consumer or to producers are opaque: the
// driver passes them on whole and never looks past the header.
#define SK_PACKET_CONTROL_CODE_OFFSET 48u
#define SK_CONTROL_PACKET_MIN_SIZE 52u
//
// The recognised control codes. None of them changes the driver's state: all three are answered
// with STATUS_NOT_IMPLEMENTED, any other code with STATUS_INVALID_PARAMETER.
#define SKCC_RESERVED_1 1u
#define SKCC_RESERVED_2 2u
#define SKCC_RESERVED_3 3u
#define SKCC_FIRST SKCC_RESERVED_1
#define SKCC_LAST SKCC_RESERVED_3

SK_STATIC_ASSERT(SK_PACKET_EVENT_TYPE_OFFSET == SK_PACKET_BODY_LENGTH_OFFSET + 4, "event type");
SK_STATIC_ASSERT(SK_CONTROL_PACKET_MIN_SIZE == SK_PACKET_CONTROL_CODE_OFFSET + 4, "control code");

// The answer to both registration requests, written into the caller's buffer; a buffer shorter
// than 24 bytes gets STATUS_BUFFER_OVERFLOW with the needed 24 as information.
#define SK_AUTH_COMMUID_SIZE 24u
#define SK_AUTH_COMMUID_TAG 0xFCFCu
#define SK_AUTH_COMMUID_KIND 3u  // consumer and producer alike

typedef struct _SENTREL_AUTH_COMMUID {
  SK_UINT16 Size;   // SK_AUTH_COMMUID_SIZE
  SK_UINT16 Tag;    // SK_AUTH_COMMUID_TAG
  SK_UINT32 Kind;   // SK_AUTH_COMMUID_KIND
  SK_UUID CommuId;  // fresh at every registration; names the registration to the registrant
} SENTREL_AUTH_COMMUID, *PSENTREL_AUTH_COMMUID;

SK_STATIC_ASSERT(sizeof(SENTREL_AUTH_COMMUID) == SK_AUTH_COMMUID_SIZE, "SENTREL_AUTH_COMMUID size");
SK_STATIC_ASSERT(SK_OFFSETOF(SENTREL_AUTH_COMMUID, Size) == 0, "SENTREL_AUTH_COMMUID.Size");
SK_STATIC_ASSERT(SK_OFFSETOF(SENTREL_AUTH_COMMUID, Tag) == 2, "SENTREL_AUTH_COMMUID.Tag");
SK_STATIC_ASSERT(SK_OFFSETOF(SENTREL_AUTH_COMMUID, Kind) == 4, "SENTREL_AUTH_COMMUID.Kind");
SK_STATIC_ASSERT(SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) == 8, "SENTREL_AUTH_COMMUID.CommuId");
// The packet header's reserved bytes have room for a CommuId, though nothing puts one there.
SK_STATIC_ASSERT(sizeof(((SK_PACKET*)0)->Reserved) == sizeof(SK_UUID), "Reserved fits a CommuId");

// IOCTL_SK_EVENT_MASK takes a new 64-bit mask, or this value to read the current mask back: so the
// all-ones mask (every type enabled) can be read but not written.
#define SK_EVENT_MASK_QUERY SK_EVENT_MASK_ALL
