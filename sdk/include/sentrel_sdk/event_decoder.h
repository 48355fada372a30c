// Decoding the event packets a consumer finds in the ring buffers into JSON: the driver's own
// events with their three packages (the acting process, its logon session, its creators) and the
// event data record, every field named; a producer's event with its body in hex.
//
// The fields, as docs/events.md lists them:
//   {"event": "ET_IMAGE_LOAD", "src_pid": 1234, "length": n,
//    "process": {...}, "logon": {...}, "tree": [{"process_id": n, "image_name": "..."}], "data": {...}}
// or, for a packet that is not one of the driver's events,
//   {"event": "ET_...", "src_pid": n, "length": n, "producer": true, "body": "hex"}
// A driver event whose records do not add up keeps its body in hex and says what was wrong in
// "malformed". Strings are UTF-8; an absent string is null.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace sentrel_sdk {

using Json = nlohmann::ordered_json;

// One event packet (SK_PACKET header and body), as read from a ring buffer.
Json DecodeEvent(const uint8_t* packet, size_t length);

// The three packages of one process back to back (an event's common-information block, or the
// answer to IOCTL_SK_QUERY_PACKCOMINFO after its header): sets "process", "logon" and "tree" in
// out; false, with the reason in *error, if they do not add up.
bool DecodeCommonInfo(const uint8_t* block, size_t length, Json* out, std::string* error);

// The answer to IOCTL_SK_QUERY_PACKCOMINFO: a PACKAGE_HEADER of type SK_PACK_COMMON_INFO_TYPE over
// the three packages; sets "process", "logon" and "tree" in out like DecodeCommonInfo.
bool DecodeProcessDescription(const uint8_t* answer, size_t length, Json* out, std::string* error);

// UTF-16LE to UTF-8; unpaired surrogates become U+FFFD.
std::string Utf16ToUtf8(const uint8_t* bytes, size_t byteLength);
std::string Hex(const uint8_t* bytes, size_t length);

}  // namespace sentrel_sdk
