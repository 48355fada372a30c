#include "sentrel_sdk/event_line.h"

namespace sentrel_sdk {

Json EventLine(const RingRecord& record) {
  Json decoded = DecodeEvent(record.data, record.length);
  // The event's name first and its processor second, so that lines read alike in any tool.
  Json line = {{"event", decoded["event"]}, {"cpu", record.buffer}};
  for (auto& [key, value] : decoded.items()) {
    if (key != "event") line[key] = value;
  }
  return line;
}

std::string EventLineKind(const Json& line) {
  const Json& name = line["event"];
  return name.is_string() ? name.get<std::string>() : "malformed";
}

}  // namespace sentrel_sdk
