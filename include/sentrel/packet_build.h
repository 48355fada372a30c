// Building and checking packets and registration answers, for the driver (kernel mode, no libc)
// and for consumers alike. Everything reads and writes byte by byte in little-endian order, so a
// buffer may sit at any address (a read buffer, a slot of a ring buffer, a byte vector) and the
// result does not depend on the host's alignment rules.
#pragma once

#include "sentrel/event_types.h"
#include "sentrel/packet.h"
#include "sentrel/wire_types.h"

static inline SK_UINT16 sk_LoadLe16(const void* Bytes, SK_UINT32 Offset) {
  const SK_UINT8* At = (const SK_UINT8*)Bytes + Offset;
  return (SK_UINT16)(At[0] | (At[1] << 8));
}

static inline SK_UINT32 sk_LoadLe32(const void* Bytes, SK_UINT32 Offset) {
  const SK_UINT8* At = (const SK_UINT8*)Bytes + Offset;
  return (SK_UINT32)At[0] | ((SK_UINT32)At[1] << 8) | ((SK_UINT32)At[2] << 16) |
         ((SK_UINT32)At[3] << 24);
}

static inline SK_UINT64 sk_LoadLe64(const void* Bytes, SK_UINT32 Offset) {
  return (SK_UINT64)sk_LoadLe32(Bytes, Offset) | ((SK_UINT64)sk_LoadLe32(Bytes, Offset + 4) << 32);
}

static inline void sk_StoreLe16(void* Bytes, SK_UINT32 Offset, SK_UINT16 Value) {
  SK_UINT8* At = (SK_UINT8*)Bytes + Offset;
  At[0] = (SK_UINT8)Value;
  At[1] = (SK_UINT8)(Value >> 8);
}

static inline void sk_StoreLe32(void* Bytes, SK_UINT32 Offset, SK_UINT32 Value) {
  SK_UINT8* At = (SK_UINT8*)Bytes + Offset;
  At[0] = (SK_UINT8)Value;
  At[1] = (SK_UINT8)(Value >> 8);
  At[2] = (SK_UINT8)(Value >> 16);
  At[3] = (SK_UINT8)(Value >> 24);
}

static inline void sk_StoreLe64(void* Bytes, SK_UINT32 Offset, SK_UINT64 Value) {
  sk_StoreLe32(Bytes, Offset, (SK_UINT32)Value);
  sk_StoreLe32(Bytes, Offset + 4, (SK_UINT32)(Value >> 32));
}

// Fills the 44-byte header at Packet for a body of BodyLength bytes: Length = 44 + BodyLength,
// DataLength = BodyLength, Reserved zero, the rest as given. The body is left alone. Returns the
// total length, or 0 (writing nothing) when it would not fit in 32 bits.
static inline SK_UINT32 sk_PacketInit(void* Packet, SK_UINT32 PacketType, SK_UINT32 SrcType,
                                      SK_UINT32 SrcPid, SK_UINT32 DstType, SK_UINT32 DstPid,
                                      SK_UINT32 BodyLength) {
  SK_UINT32 Index;
  if (BodyLength > 0xFFFFFFFFu - SK_PACKET_HEADER_SIZE) return 0;
  sk_StoreLe32(Packet, SK_OFFSETOF(SK_PACKET, Length), SK_PACKET_HEADER_SIZE + BodyLength);
  sk_StoreLe32(Packet, SK_OFFSETOF(SK_PACKET, DataLength), BodyLength);
  for (Index = 0; Index < sizeof(((SK_PACKET*)0)->Reserved); ++Index) {
    ((SK_UINT8*)Packet)[SK_OFFSETOF(SK_PACKET, Reserved) + Index] = 0;
  }
  sk_StoreLe32(Packet, SK_OFFSETOF(SK_PACKET, PacketType), PacketType);
  sk_StoreLe32(Packet, SK_OFFSETOF(SK_PACKET, SrcType), SrcType);
  sk_StoreLe32(Packet, SK_OFFSETOF(SK_PACKET, SrcPid), SrcPid);
  sk_StoreLe32(Packet, SK_OFFSETOF(SK_PACKET, DstType), DstType);
  sk_StoreLe32(Packet, SK_OFFSETOF(SK_PACKET, DstPid), DstPid);
  return SK_PACKET_HEADER_SIZE + BodyLength;
}

// The header of an event packet as the driver builds it: from SKT_PRODUCER with the acting
// process's id, to SKT_CONSUMER, DstPid SK_PACKET_NO_PID.
static inline SK_UINT32 sk_PacketInitEvent(void* Packet, SK_UINT32 SrcPid, SK_UINT32 BodyLength) {
  return sk_PacketInit(Packet, SKPT_EVENT, SKT_PRODUCER, SrcPid, SKT_CONSUMER, SK_PACKET_NO_PID,
                       BodyLength);
}

// Decodes the header of the packet at Bytes, which must hold at least SK_PACKET_HEADER_SIZE bytes.
static inline void sk_PacketReadHeader(const void* Bytes, SK_PACKET* Header) {
  SK_UINT32 Index;
  Header->Length = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, Length));
  Header->DataLength = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, DataLength));
  for (Index = 0; Index < sizeof(Header->Reserved); ++Index) {
    Header->Reserved[Index] = ((const SK_UINT8*)Bytes)[SK_OFFSETOF(SK_PACKET, Reserved) + Index];
  }
  Header->PacketType = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, PacketType));
  Header->SrcType = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, SrcType));
  Header->SrcPid = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, SrcPid));
  Header->DstType = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, DstType));
  Header->DstPid = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, DstPid));
}

// What the driver makes of a packet that arrives by a write request, judged from the format alone.
// The rules are tested in the driver's order; the first that fails is the answer. Every refusal
// completes the write with STATUS_INVALID_PARAMETER.
typedef enum _SK_PACKET_CHECK {
  SKPC_ACCEPTED = 0,            // routed on; a control code at offset 48 may still be unknown
  SKPC_TOO_SHORT = 1,           // no buffer, or shorter than SK_PACKET_MIN_SIZE
  SKPC_NO_PACKET_TYPE = 2,      // PacketType 0: refused without a log line
  SKPC_EVENT_NOT_TO_CONSUMER = 3,  // SKPT_EVENT to anything but SKT_CONSUMER: no log line
  SKPC_UNKNOWN_DESTINATION = 4,    // SKPT_CONTROL to an unknown DstType: "Unknow Dest %d\n"
  SKPC_NO_CONTROL_CODE = 5,     // SKPT_CONTROL to SKT_SENTREL shorter than 52 bytes
  SKPC_UNKNOWN_PACKET_TYPE = 6  // any other PacketType: "Unknow ProtoType:%d \n"
} SK_PACKET_CHECK;

// Checks the Length bytes at Bytes (Length is the length of the request: the header's Length
// field is not consulted).
static inline SK_PACKET_CHECK sk_PacketCheck(const void* Bytes, SK_UINT32 Length) {
  SK_UINT32 PacketType;
  SK_UINT32 DstType;
  if (Bytes == 0 || Length < SK_PACKET_MIN_SIZE) return SKPC_TOO_SHORT;
  PacketType = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, PacketType));
  DstType = sk_LoadLe32(Bytes, SK_OFFSETOF(SK_PACKET, DstType));
  switch (PacketType) {
    case 0:
      return SKPC_NO_PACKET_TYPE;
    case SKPT_EVENT:
      return DstType == SKT_CONSUMER ? SKPC_ACCEPTED : SKPC_EVENT_NOT_TO_CONSUMER;
    case SKPT_CONTROL:
      switch (DstType) {
        case SKT_SENTREL:
          return Length < SK_CONTROL_PACKET_MIN_SIZE ? SKPC_NO_CONTROL_CODE : SKPC_ACCEPTED;
        case SKT_CONSUMER:
        case SKT_PRODUCERS:
        case SKT_PRODUCER:
          return SKPC_ACCEPTED;
        default:
          return SKPC_UNKNOWN_DESTINATION;
      }
    default:
      return SKPC_UNKNOWN_PACKET_TYPE;
  }
}

// The 32-bit word at offset 48 of a packet of Length bytes: the control code of a control packet
// to SKT_SENTREL, the event type of an event packet the driver built. Returns 1 and sets *Value, or
// 0 when the packet is too short to hold it.
static inline int sk_PacketReadWord48(const void* Bytes, SK_UINT32 Length, SK_UINT32* Value) {
  if (Bytes == 0 || Length < SK_PACKET_CONTROL_CODE_OFFSET + 4) return 0;
  *Value = sk_LoadLe32(Bytes, SK_PACKET_CONTROL_CODE_OFFSET);
  return 1;
}

static inline int sk_PacketControlCode(const void* Bytes, SK_UINT32 Length, SK_UINT32* ControlCode) {
  return sk_PacketReadWord48(Bytes, Length, ControlCode);
}

static inline int sk_PacketEventType(const void* Bytes, SK_UINT32 Length, SK_EVENT_TYPE* EventType) {
  return sk_PacketReadWord48(Bytes, Length, EventType);
}

// Whether the driver recognises a control code (and answers it with STATUS_NOT_IMPLEMENTED rather
// than STATUS_INVALID_PARAMETER).
static inline int sk_IsRecognisedControlCode(SK_UINT32 ControlCode) {
  return ControlCode >= SKCC_FIRST && ControlCode <= SKCC_LAST;
}

// Writes the 24-byte registration answer for CommuId at Buffer, which must hold
// SK_AUTH_COMMUID_SIZE bytes. Returns the bytes written.
static inline SK_UINT32 sk_AuthCommuIdInit(void* Buffer, const SK_UUID* CommuId) {
  SK_UINT32 Index;
  sk_StoreLe16(Buffer, SK_OFFSETOF(SENTREL_AUTH_COMMUID, Size), (SK_UINT16)SK_AUTH_COMMUID_SIZE);
  sk_StoreLe16(Buffer, SK_OFFSETOF(SENTREL_AUTH_COMMUID, Tag), (SK_UINT16)SK_AUTH_COMMUID_TAG);
  sk_StoreLe32(Buffer, SK_OFFSETOF(SENTREL_AUTH_COMMUID, Kind), SK_AUTH_COMMUID_KIND);
  sk_StoreLe32(Buffer, SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 0, CommuId->Data1);
  sk_StoreLe16(Buffer, SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 4, CommuId->Data2);
  sk_StoreLe16(Buffer, SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 6, CommuId->Data3);
  for (Index = 0; Index < sizeof(CommuId->Data4); ++Index) {
    ((SK_UINT8*)Buffer)[SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 8 + Index] =
        CommuId->Data4[Index];
  }
  return SK_AUTH_COMMUID_SIZE;
}

// Decodes a registration answer of Length bytes into *Auth. Returns 1 when it is one: at least 24
// bytes with Size 24, Tag 0xFCFC and Kind 3; otherwise 0, and *Auth holds whatever could be read.
static inline int sk_AuthCommuIdRead(const void* Bytes, SK_UINT32 Length,
                                     SENTREL_AUTH_COMMUID* Auth) {
  SK_UINT32 Index;
  if (Bytes == 0 || Length < SK_AUTH_COMMUID_SIZE) return 0;
  Auth->Size = sk_LoadLe16(Bytes, SK_OFFSETOF(SENTREL_AUTH_COMMUID, Size));
  Auth->Tag = sk_LoadLe16(Bytes, SK_OFFSETOF(SENTREL_AUTH_COMMUID, Tag));
  Auth->Kind = sk_LoadLe32(Bytes, SK_OFFSETOF(SENTREL_AUTH_COMMUID, Kind));
  Auth->CommuId.Data1 = sk_LoadLe32(Bytes, SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 0);
  Auth->CommuId.Data2 = sk_LoadLe16(Bytes, SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 4);
  Auth->CommuId.Data3 = sk_LoadLe16(Bytes, SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 6);
  for (Index = 0; Index < sizeof(Auth->CommuId.Data4); ++Index) {
    Auth->CommuId.Data4[Index] =
        ((const SK_UINT8*)Bytes)[SK_OFFSETOF(SENTREL_AUTH_COMMUID, CommuId) + 8 + Index];
  }
  return Auth->Size == SK_AUTH_COMMUID_SIZE && Auth->Tag == SK_AUTH_COMMUID_TAG &&
         Auth->Kind == SK_AUTH_COMMUID_KIND;
}
