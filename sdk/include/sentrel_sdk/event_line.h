// The event line: one JSON object per event packet a consumer takes out of the ring buffers, the
// one format that sentrel-sim and sentrel-events both print (docs/events.md lists every field):
//   {"event":"ET_IMAGE_LOAD","cpu":n, ...what DecodeEvent gives...}
#pragma once

#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/ring_reader.h"

namespace sentrel_sdk {

// The line for one record; "cpu" is the record's buffer (its processor).
Json EventLine(const RingRecord& record);

// The key under which a line is counted in a summary: its event name, or "malformed" for a packet
// too short to carry one.
std::string EventLineKind(const Json& line);

}  // namespace sentrel_sdk
