// The public wire formats as a consumer meets them: packets and registration answers written out
// byte by byte, decoded and checked with the packet helpers, built by the helpers and compared with
// the bytes, and the same headers compiled as C agreeing with C++.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "sentrel/control_codes.h"
#include "sentrel/event_types.h"
#include "sentrel/packet.h"
#include "sentrel/packet_build.h"
#include "sentrel/wire_types.h"

// wire_format_c_test.c, compiled as C.
extern "C" {
void wire_c_Layout(SK_UINT32 Out[16]);
SK_UINT32 wire_c_BuildControlPacket(SK_UINT8* Out, SK_UINT32 SrcPid, SK_UINT32 ControlCode);
int wire_c_PacketCheck(const SK_UINT8* Bytes, SK_UINT32 Length);
const char* wire_c_EventTypeName(SK_UINT32 EventType);
int wire_c_AuthCommuIdRead(const SK_UINT8* Bytes, SK_UINT32 Length, SENTREL_AUTH_COMMUID* Auth);
}

namespace {

using Bytes = std::vector<std::uint8_t>;

// A 52-byte control packet from producer 0x1234 to the driver with control code 2. Every field has
// a value of its own, so a field read from the wrong offset shows.
const Bytes kControlToSentrel = {
    0x34, 0x00, 0x00, 0x00,                          //  0 Length 52
    0x08, 0x00, 0x00, 0x00,                          //  4 DataLength 8
    0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,  //  8 Reserved
    0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF,  //
    0x02, 0x00, 0x00, 0x00,                          // 24 PacketType SKPT_CONTROL
    0x03, 0x00, 0x00, 0x00,                          // 28 SrcType SKT_PRODUCER
    0x34, 0x12, 0x00, 0x00,                          // 32 SrcPid 0x1234
    0x00, 0x00, 0x00, 0x00,                          // 36 DstType SKT_SENTREL
    0xEF, 0xBE, 0xAD, 0xDE,                          // 40 DstPid 0xDEADBEEF
    0x08, 0x00, 0x00, 0x00,                          // 44 body: its length
    0x02, 0x00, 0x00, 0x00,                          // 48 ControlCode 2
};

// A 56-byte event packet as the driver builds it: from SKT_PRODUCER, process 0x10, to
// SKT_CONSUMER, DstPid all ones; body length 12, event type 4 (image load), then 4 more bytes.
const Bytes kDriverEvent = {
    0x38, 0x00, 0x00, 0x00,                          //  0 Length 56
    0x0C, 0x00, 0x00, 0x00,                          //  4 DataLength 12
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //  8 Reserved
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
    0x01, 0x00, 0x00, 0x00,                          // 24 PacketType SKPT_EVENT
    0x03, 0x00, 0x00, 0x00,                          // 28 SrcType SKT_PRODUCER
    0x10, 0x00, 0x00, 0x00,                          // 32 SrcPid 0x10
    0x01, 0x00, 0x00, 0x00,                          // 36 DstType SKT_CONSUMER
    0xFF, 0xFF, 0xFF, 0xFF,                          // 40 DstPid none
    0x0C, 0x00, 0x00, 0x00,                          // 44 body length 12
    0x04, 0x00, 0x00, 0x00,                          // 48 event type 4
    0x5A, 0x5A, 0x5A, 0x5A,                          // 52 rest of the body
};

// A 48-byte control packet to the process 0x0BAD: no control code, the body is opaque.
const Bytes kControlToProducer = {
    0x30, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00,  //  0 Length 48, DataLength 4
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //  8 Reserved
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
    0x02, 0x00, 0x00, 0x00,                          // 24 SKPT_CONTROL
    0x01, 0x00, 0x00, 0x00,                          // 28 from SKT_CONSUMER
    0x64, 0x00, 0x00, 0x00,                          // 32 SrcPid 100
    0x03, 0x00, 0x00, 0x00,                          // 36 to SKT_PRODUCER
    0xAD, 0x0B, 0x00, 0x00,                          // 40 DstPid 0x0BAD
    0x77, 0x66, 0x55, 0x44,                          // 44 opaque body
};

// The registration answer: Size 24, Tag 0xFCFC, Kind 3, CommuId 00112233-4455-6677-8899AABBCCDDEEFF.
const Bytes kAuthCommuId = {
    0x18, 0x00,                                      //  0 Size
    0xFC, 0xFC,                                      //  2 Tag
    0x03, 0x00, 0x00, 0x00,                          //  4 Kind
    0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,  //  8 CommuId
    0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF,  //
};

void Put32(Bytes& bytes, size_t offset, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

Bytes WithField(Bytes bytes, size_t offset, std::uint32_t value) {
  Put32(bytes, offset, value);
  return bytes;
}

SK_PACKET_CHECK Check(const Bytes& bytes, size_t length) {
  return sk_PacketCheck(bytes.data(), static_cast<SK_UINT32>(length));
}
SK_PACKET_CHECK Check(const Bytes& bytes) { return Check(bytes, bytes.size()); }

TEST(PacketFormatTest, HeaderFieldsComeFromTheirOffsetsAtAnyAlignment) {
  // Decoded in place and from a copy one byte off alignment, then as the in-memory record.
  Bytes shifted(kControlToSentrel.size() + 1);
  std::memcpy(shifted.data() + 1, kControlToSentrel.data(), kControlToSentrel.size());
  SK_PACKET fromStruct;
  std::memcpy(&fromStruct, kControlToSentrel.data(), sizeof fromStruct);
  const std::uint8_t* const copies[] = {kControlToSentrel.data(), shifted.data() + 1};
  for (const std::uint8_t* at : copies) {
    SK_PACKET h;
    sk_PacketReadHeader(at, &h);
    EXPECT_EQ(h.Length, 52u);
    EXPECT_EQ(h.DataLength, 8u);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(h.Reserved[i], 0xA0 + i);
    EXPECT_EQ(h.PacketType, SKPT_CONTROL);
    EXPECT_EQ(h.SrcType, SKT_PRODUCER);
    EXPECT_EQ(h.SrcPid, 0x1234u);
    EXPECT_EQ(h.DstType, SKT_SENTREL);
    EXPECT_EQ(h.DstPid, 0xDEADBEEFu);
    EXPECT_EQ(std::memcmp(&h, &fromStruct, sizeof h), 0);

    SK_UINT32 code = 0;
    ASSERT_TRUE(sk_PacketControlCode(at, 52, &code));
    EXPECT_EQ(code, 2u);
    EXPECT_EQ(sk_PacketCheck(at, 52), SKPC_ACCEPTED);
  }

  SK_PACKET e;
  sk_PacketReadHeader(kDriverEvent.data(), &e);
  EXPECT_EQ(e.PacketType, SKPT_EVENT);
  EXPECT_EQ(e.SrcPid, 0x10u);
  EXPECT_EQ(e.DstType, SKT_CONSUMER);
  EXPECT_EQ(e.DstPid, SK_PACKET_NO_PID);
  SK_EVENT_TYPE type = 99;
  ASSERT_TRUE(sk_PacketEventType(kDriverEvent.data(), 56, &type));
  EXPECT_EQ(type, ET_IMAGE_LOAD);
  EXPECT_STREQ(sk_EventTypeName(type), "ET_IMAGE_LOAD");
  EXPECT_EQ(sk_LoadLe32(kDriverEvent.data(), SK_PACKET_BODY_LENGTH_OFFSET), e.DataLength);

  SK_PACKET p;
  sk_PacketReadHeader(kControlToProducer.data(), &p);
  EXPECT_EQ(p.SrcType, SKT_CONSUMER);
  EXPECT_EQ(p.SrcPid, 100u);
  EXPECT_EQ(p.DstType, SKT_PRODUCER);
  EXPECT_EQ(p.DstPid, 0x0BADu);
}

TEST(PacketFormatTest, BuiltHeadersHaveTheHandWrittenBytes) {
  // Building over a dirty buffer: the header is rewritten whole (Reserved zeroed), the body kept.
  Bytes built(kDriverEvent.size(), 0xEE);
  std::memcpy(built.data() + 44, kDriverEvent.data() + 44, 12);
  EXPECT_EQ(sk_PacketInitEvent(built.data(), 0x10, 12), 56u);
  EXPECT_EQ(built, kDriverEvent);

  // The general form, at an odd address: only the Reserved bytes differ from the hand-written packet.
  Bytes control(kControlToSentrel.size() + 1, 0xEE);
  std::memcpy(control.data() + 45, kControlToSentrel.data() + 44, 8);
  EXPECT_EQ(sk_PacketInit(control.data() + 1, SKPT_CONTROL, SKT_PRODUCER, 0x1234, SKT_SENTREL,
                          0xDEADBEEF, 8),
            52u);
  Bytes expected = kControlToSentrel;
  std::memset(expected.data() + 8, 0, 16);
  EXPECT_EQ(Bytes(control.begin() + 1, control.end()), expected);
  EXPECT_EQ(control[0], 0xEE);

  // A body whose length does not fit the 32-bit Length is refused and nothing is written.
  Bytes header(44, 0xEE);
  EXPECT_EQ(sk_PacketInit(header.data(), SKPT_EVENT, 0, 0, 0, 0, 0xFFFFFFFFu - 43), 0u);
  EXPECT_EQ(header, Bytes(44, 0xEE));
  EXPECT_EQ(sk_PacketInit(header.data(), SKPT_EVENT, 0, 0, 0, 0, 0xFFFFFFFFu - 44), 0xFFFFFFFFu);
  EXPECT_EQ(sk_LoadLe32(header.data(), 0), 0xFFFFFFFFu);
}

TEST(PacketCheckTest, LengthRulesGoByTheRequestLengthNotTheLengthField) {
  Bytes toConsumer = WithField(kControlToProducer, 36, SKT_CONSUMER);
  Bytes event = kDriverEvent;

  // 48 bytes is the smallest packet, whatever its kind, and a missing buffer is too short too.
  EXPECT_EQ(Check(event, 47), SKPC_TOO_SHORT);
  EXPECT_EQ(Check(event, 48), SKPC_ACCEPTED);
  EXPECT_EQ(Check(toConsumer, 47), SKPC_TOO_SHORT);
  EXPECT_EQ(Check(toConsumer, 48), SKPC_ACCEPTED);
  EXPECT_EQ(Check(WithField(event, 24, 0), 47), SKPC_TOO_SHORT);  // length before type
  EXPECT_EQ(sk_PacketCheck(nullptr, 48), SKPC_TOO_SHORT);
  EXPECT_EQ(Check(event, 0), SKPC_TOO_SHORT);

  // The Length field may say anything.
  EXPECT_EQ(Check(WithField(event, 0, 0), 48), SKPC_ACCEPTED);
  EXPECT_EQ(Check(WithField(event, 0, 1000), 56), SKPC_ACCEPTED);
  EXPECT_EQ(Check(WithField(event, 0, 20), 56), SKPC_ACCEPTED);

  // Only a control packet to the driver needs its control code, so 52 bytes.
  EXPECT_EQ(Check(kControlToSentrel, 51), SKPC_NO_CONTROL_CODE);
  EXPECT_EQ(Check(kControlToSentrel, 48), SKPC_NO_CONTROL_CODE);
  EXPECT_EQ(Check(kControlToSentrel, 52), SKPC_ACCEPTED);
  SK_UINT32 code = 77;
  EXPECT_FALSE(sk_PacketControlCode(kControlToSentrel.data(), 51, &code));
  EXPECT_EQ(code, 77u);
  EXPECT_TRUE(sk_PacketControlCode(kControlToSentrel.data(), 52, &code));
  SK_EVENT_TYPE type = 77;
  EXPECT_FALSE(sk_PacketEventType(event.data(), 48, &type));
  EXPECT_EQ(type, 77u);
}

TEST(PacketCheckTest, PacketTypesAndDestinations) {
  // Packet type 0 and unknown types, each with a destination that would be fine.
  EXPECT_EQ(Check(WithField(kDriverEvent, 24, 0)), SKPC_NO_PACKET_TYPE);
  EXPECT_EQ(Check(WithField(kControlToSentrel, 24, 0)), SKPC_NO_PACKET_TYPE);
  for (std::uint32_t type : {3u, 4u, 0x100u, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Check(WithField(kDriverEvent, 24, type)), SKPC_UNKNOWN_PACKET_TYPE) << type;
  }

  // Events go to the consumer only; no other destination, known or not, is "unknown" for them.
  for (std::uint32_t dst : {0u, 2u, 3u, 4u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Check(WithField(kDriverEvent, 36, dst)), SKPC_EVENT_NOT_TO_CONSUMER) << dst;
  }

  // Control packets go to any of the four endpoints and to nothing else, even when too short to
  // carry a control code.
  for (std::uint32_t dst : {1u, 2u, 3u}) {
    EXPECT_EQ(Check(WithField(kControlToProducer, 36, dst)), SKPC_ACCEPTED) << dst;
  }
  for (std::uint32_t dst : {4u, 0x100u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Check(WithField(kControlToProducer, 36, dst)), SKPC_UNKNOWN_DESTINATION) << dst;
    EXPECT_EQ(Check(WithField(kControlToSentrel, 36, dst)), SKPC_UNKNOWN_DESTINATION) << dst;
  }

  // Only codes 1 to 3 are recognised; the check accepts the others, the driver refuses them later.
  EXPECT_FALSE(sk_IsRecognisedControlCode(0));
  EXPECT_TRUE(sk_IsRecognisedControlCode(1));
  EXPECT_TRUE(sk_IsRecognisedControlCode(3));
  EXPECT_FALSE(sk_IsRecognisedControlCode(4));
  EXPECT_FALSE(sk_IsRecognisedControlCode(0xFFFFFFFFu));
  EXPECT_EQ(Check(WithField(kControlToSentrel, 48, 9)), SKPC_ACCEPTED);
}

TEST(AuthCommuIdTest, RegistrationAnswerFromAndToRawBytes) {
  SENTREL_AUTH_COMMUID auth;
  ASSERT_TRUE(sk_AuthCommuIdRead(kAuthCommuId.data(), 24, &auth));
  EXPECT_EQ(auth.Size, 24);
  EXPECT_EQ(auth.Tag, 0xFCFC);
  EXPECT_EQ(auth.Kind, 3u);
  EXPECT_EQ(auth.CommuId.Data1, 0x00112233u);
  EXPECT_EQ(auth.CommuId.Data2, 0x4455);
  EXPECT_EQ(auth.CommuId.Data3, 0x6677);
  const std::uint8_t data4[8] = {0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
  EXPECT_EQ(std::memcmp(auth.CommuId.Data4, data4, 8), 0);

  // The record's in-memory layout is the wire layout.
  SENTREL_AUTH_COMMUID copied;
  std::memcpy(&copied, kAuthCommuId.data(), sizeof copied);
  EXPECT_EQ(std::memcmp(&copied, &auth, sizeof auth), 0);

  // Written back at an odd address: the same 24 bytes and nothing beyond them.
  Bytes written(26, 0xEE);
  EXPECT_EQ(sk_AuthCommuIdInit(written.data() + 1, &auth.CommuId), 24u);
  EXPECT_EQ(Bytes(written.begin() + 1, written.end() - 1), kAuthCommuId);
  EXPECT_EQ(written.front(), 0xEE);
  EXPECT_EQ(written.back(), 0xEE);

  // Too short, or not an answer: the driver's own registration records carry tag 0xFCF3 and kind
  // 0 or 1.
  EXPECT_FALSE(sk_AuthCommuIdRead(kAuthCommuId.data(), 23, &auth));
  Bytes other = kAuthCommuId;
  other[2] = 0xF3;
  EXPECT_FALSE(sk_AuthCommuIdRead(other.data(), 24, &auth));
  other = kAuthCommuId;
  other[4] = 0;
  EXPECT_FALSE(sk_AuthCommuIdRead(other.data(), 24, &auth));
  other = kAuthCommuId;
  other[0] = 0x10;
  EXPECT_FALSE(sk_AuthCommuIdRead(other.data(), 24, &auth));
}

TEST(EventTypeTest, NameTableRoundTrips) {
  // Each name is its own constant's name, so the numbers and the table cannot drift apart.
#define SK_EXPECT_NAME(type) EXPECT_STREQ(sk_EventTypeName(type), #type)
  SK_EXPECT_NAME(ET_PROCESS_CREATE);
  SK_EXPECT_NAME(ET_REMOTE_THREAD_CREATE);
  SK_EXPECT_NAME(ET_PROCESS_ACCESS);
  SK_EXPECT_NAME(ET_DISK_RAW_ACCESS);
  SK_EXPECT_NAME(ET_IMAGE_LOAD);
  SK_EXPECT_NAME(ET_DRIVER_LOAD);
  SK_EXPECT_NAME(ET_FILE_CREATE);
  SK_EXPECT_NAME(ET_NET_CONNECT);
  SK_EXPECT_NAME(ET_NET_LISTEN);
  SK_EXPECT_NAME(ET_NET_ACCEPT);
  SK_EXPECT_NAME(ET_REGISTRY_KEY_CREATE);
  SK_EXPECT_NAME(ET_REGISTRY_KEY_MODIFY);
  SK_EXPECT_NAME(ET_REGISTRY_VALUE_CREATE);
  SK_EXPECT_NAME(ET_REGISTRY_VALUE_MODIFY);
  SK_EXPECT_NAME(ET_NAMED_PIPE_CREATE);
  SK_EXPECT_NAME(ET_NAMED_PIPE_CONNECT);
  SK_EXPECT_NAME(ET_NET_DNS);
  SK_EXPECT_NAME(ET_SERVICE_CREATE);
  SK_EXPECT_NAME(ET_SCRIPT_EXECUTE);
#undef SK_EXPECT_NAME
  // The numbers the driver's own reporters use.
  EXPECT_EQ(ET_PROCESS_CREATE, 0u);
  EXPECT_EQ(ET_REMOTE_THREAD_CREATE, 1u);
  EXPECT_EQ(ET_IMAGE_LOAD, 4u);
  EXPECT_EQ(ET_DRIVER_LOAD, 5u);
  EXPECT_EQ(ET_SCRIPT_EXECUTE, 18u);

  std::set<std::string> names;
  for (SK_UINT32 type = 0; type < SK_EVENT_TYPE_COUNT; ++type) {
    const std::string name = sk_EventTypeName(type);
    names.insert(name);
    SK_EVENT_TYPE back = 0xFFFF;
    ASSERT_TRUE(sk_EventTypeFromName(name.data(), static_cast<SK_UINT32>(name.size()), &back)) << name;
    EXPECT_EQ(back, type) << name;
  }
  EXPECT_EQ(names.size(), SK_EVENT_TYPE_COUNT);

  // One more slot without a name, then nothing.
  EXPECT_STREQ(sk_EventTypeName(19), "");
  EXPECT_EQ(sk_EventTypeName(20), nullptr);
  EXPECT_EQ(sk_EventTypeName(0xFFFFFFFFu), nullptr);

  // Names are matched whole, exactly, by their counted length.
  SK_EVENT_TYPE type = 77;
  EXPECT_FALSE(sk_EventTypeFromName("", 0, &type));
  EXPECT_FALSE(sk_EventTypeFromName("ET_IMAGE_LOA", 12, &type));
  EXPECT_FALSE(sk_EventTypeFromName("ET_IMAGE_LOADS", 14, &type));
  EXPECT_FALSE(sk_EventTypeFromName("et_image_load", 13, &type));
  EXPECT_FALSE(sk_EventTypeFromName("ET_IMAGE_LOAD\0", 14, &type));
  EXPECT_EQ(type, 77u);
  EXPECT_TRUE(sk_EventTypeFromName("ET_IMAGE_LOADS", 13, &type));
  EXPECT_EQ(type, ET_IMAGE_LOAD);
  EXPECT_TRUE(sk_EventTypeFromName("ET_NET_DNS", 10, &type));
  EXPECT_EQ(type, ET_NET_DNS);
}

TEST(WireFormatCTest, CAndCxxAgree) {
  SK_UINT32 layout[16];
  wire_c_Layout(layout);
  const SK_UINT32 expected[16] = {44, 0, 4, 8, 24, 28, 32, 36, 40, 24, 0, 2, 4, 8, 16, 4};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(layout[i], expected[i]) << "entry " << i;

  Bytes built(52, 0xEE);
  EXPECT_EQ(wire_c_BuildControlPacket(built.data(), 0x1234, 2), 52u);
  Bytes expectedPacket = WithField(kControlToSentrel, 40, 0);
  std::memset(expectedPacket.data() + 8, 0, 16);
  EXPECT_EQ(built, expectedPacket);

  const std::pair<const Bytes*, size_t> packets[] = {
      {&kControlToSentrel, 52}, {&kControlToSentrel, 51}, {&kDriverEvent, 56},
      {&kDriverEvent, 47},      {&kControlToProducer, 48}};
  for (const auto& [packet, length] : packets) {
    for (std::uint32_t dst : {0u, 1u, 3u, 9u}) {
      for (std::uint32_t type : {0u, 1u, 2u, 5u}) {
        Bytes b = WithField(WithField(*packet, 36, dst), 24, type);
        EXPECT_EQ(wire_c_PacketCheck(b.data(), static_cast<SK_UINT32>(length)),
                  static_cast<int>(Check(b, length)));
      }
    }
  }

  for (SK_UINT32 type = 0; type < 22; ++type) {
    const char* c = wire_c_EventTypeName(type);
    const char* cxx = sk_EventTypeName(type);
    if (cxx == nullptr) {
      EXPECT_EQ(c, nullptr);
    } else {
      EXPECT_STREQ(c, cxx);
    }
  }

  SENTREL_AUTH_COMMUID auth;
  EXPECT_EQ(wire_c_AuthCommuIdRead(kAuthCommuId.data(), 24, &auth), 1);
  EXPECT_EQ(auth.CommuId.Data3, 0x6677);
}

}  // namespace
