#include "sentrel_sdk/event_decoder.h"

#include "sentrel/event_data.h"
#include "sentrel/packet_build.h"

namespace sentrel_sdk {

namespace {

// A record inside the packet: reads are bounded by it, and a string reference outside it fails.
class Record {
 public:
  Record(const uint8_t* base, size_t length) : base_(base), length_(length) {}
  size_t Length() const { return length_; }
  uint16_t U16(uint32_t offset) const { return sk_LoadLe16(base_, offset); }
  uint32_t U32(uint32_t offset) const { return sk_LoadLe32(base_, offset); }
  uint64_t U64(uint32_t offset) const { return sk_LoadLe64(base_, offset); }
  const uint8_t* At(uint32_t offset) const { return base_ + offset; }
  // The string an SK_STRING_REF at refOffset names: null when absent.
  bool String(uint32_t refOffset, Json* out, std::string* error, const char* name) const {
    uint16_t offset = U16(refOffset), length = U16(refOffset + 2);
    if (offset == 0 && length == 0) {
      *out = nullptr;
      return true;
    }
    if (length % 2 != 0 || size_t(offset) + length > length_) {
      *error = std::string(name) + " lies outside its record";
      return false;
    }
    *out = Utf16ToUtf8(base_ + offset, length);
    return true;
  }

 private:
  const uint8_t* base_;
  size_t length_;
};

bool Strings(const Record& record, std::initializer_list<std::pair<const char*, uint32_t>> fields, Json* out,
             std::string* error) {
  for (const auto& [name, offset] : fields) {
    Json value;
    if (!record.String(offset, &value, error, name)) return false;
    (*out)[name] = value;
  }
  return true;
}

// The package of the expected kind at the start of block; its length in *used.
bool PackageAt(const uint8_t* block, size_t length, uint32_t kind, uint32_t fixed, Record* record, size_t* used,
               std::string* error) {
  const char* names[] = {"", "process package", "logon package", "tree package", "caller stack package"};
  if (length < fixed) {
    *error = std::string(names[kind]) + " is cut short";
    return false;
  }
  uint32_t packageLength = sk_LoadLe32(block, 0);
  if (sk_LoadLe32(block, 4) != kind) {
    *error = std::string(names[kind]) + " has type " + std::to_string(sk_LoadLe32(block, 4));
    return false;
  }
  if (packageLength < fixed || packageLength > length) {
    *error = std::string(names[kind]) + " length " + std::to_string(packageLength) + " does not fit";
    return false;
  }
  *record = Record(block, packageLength);
  *used = packageLength;
  return true;
}

bool DecodeProcess(const Record& r, Json* out, std::string* error) {
  Json& p = *out;
  p["process_id"] = r.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, ProcessId));
  p["creator_process_id"] = r.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorProcessId));
  p["parent_process_id"] = r.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, ParentProcessId));
  p["integrity_level"] = r.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, IntegrityLevel));
  p["process_identity"] = Hex(r.At(SK_OFFSETOF(PROC_INFO_PACKAGE, ProcessIdentity)), 16);
  p["creator_process_identity"] = Hex(r.At(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorProcessIdentity)), 16);
  return Strings(r,
                 {{"image_path", SK_OFFSETOF(PROC_INFO_PACKAGE, ImagePath)},
                  {"command_line", SK_OFFSETOF(PROC_INFO_PACKAGE, CommandLine)},
                  {"creator_user_name", SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorUserName)},
                  {"creator_command_line", SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorCommandLine)},
                  {"creator_image_path", SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorImagePath)},
                  {"image_name", SK_OFFSETOF(PROC_INFO_PACKAGE, ImageName)},
                  {"current_directory", SK_OFFSETOF(PROC_INFO_PACKAGE, CurrentDirectory)}},
                 out, error);
}

bool DecodeLogon(const Record& r, Json* out, std::string* error) {
  (*out)["session_id"] = r.U32(SK_OFFSETOF(LOGON_INFO_PACKAGE, SessionId));
  (*out)["logon_id"] = r.U64(SK_OFFSETOF(LOGON_INFO_PACKAGE, LogonIdLow));
  return Strings(r,
                 {{"user_name", SK_OFFSETOF(LOGON_INFO_PACKAGE, UserName)},
                  {"user_sid", SK_OFFSETOF(LOGON_INFO_PACKAGE, UserSid)}},
                 out, error);
}

bool DecodeTree(const Record& r, Json* out, std::string* error) {
  uint32_t count = r.U32(SK_OFFSETOF(PROC_TREE_INFO_PACKAGE, Count));
  if (uint64_t(sizeof(PROC_TREE_INFO_PACKAGE)) + uint64_t(count) * sizeof(PROC_TREE_ENTRY) != r.Length()) {
    *error = "tree package of " + std::to_string(r.Length()) + " bytes does not hold " + std::to_string(count) +
             " entries";
    return false;
  }
  *out = Json::array();
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t at = sizeof(PROC_TREE_INFO_PACKAGE) + i * sizeof(PROC_TREE_ENTRY);
    size_t chars = 0;
    const uint8_t* name = r.At(at + SK_OFFSETOF(PROC_TREE_ENTRY, ImageName));
    while (chars < SK_TREE_IMAGE_NAME_SIZE / 2 && sk_LoadLe16(name, uint32_t(chars * 2)) != 0) ++chars;
    out->push_back(Json{{"process_id", r.U32(at)}, {"image_name", Utf16ToUtf8(name, chars * 2)}});
  }
  return true;
}

// Kind 4: Depth entries, each a 16-bit byte length, 16 zero bits, then the frame's text.
bool DecodeCallerStack(const Record& r, Json* out, std::string* error) {
  uint32_t depth = r.U32(12);
  size_t at = SK_CALLER_STACK_HEADER_BYTES;
  *out = Json::array();
  for (uint32_t i = 0; i < depth; ++i) {
    if (at + 4 > r.Length() || at + 4 + r.U16(uint32_t(at)) > r.Length()) {
      *error = "caller stack frame " + std::to_string(i) + " lies outside its package";
      return false;
    }
    uint16_t bytes = r.U16(uint32_t(at));
    out->push_back(Utf16ToUtf8(r.At(uint32_t(at + 4)), bytes));
    at += 4 + bytes;
  }
  return true;
}

std::string HexWord(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

bool DecodeData(uint32_t type, const Record& r, Json* out, std::string* error) {
  Json& d = *out;
  switch (type) {
    case ET_PROCESS_CREATE:
      if (r.Length() < sizeof(PROCESS_CREATE_EVENT_DATA)) break;
      d["image_type"] = HexWord(r.U16(SK_OFFSETOF(PROCESS_CREATE_EVENT_DATA, ImageType)));
      return Strings(r, {{"image_path", SK_OFFSETOF(PROCESS_CREATE_EVENT_DATA, ImagePath)}}, out, error);
    case ET_REMOTE_THREAD_CREATE:
      if (r.Length() < sizeof(REMOTE_THREAD_EVENT_DATA)) break;
      d["target_process_id"] = r.U32(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetProcessId));
      d["target_thread_id"] = r.U32(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetThreadId));
      d["start_address"] = HexWord(r.U64(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, StartAddressLow)));
      return Strings(r,
                     {{"source_user_name", SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, SourceUserName)},
                      {"start_offset", SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, StartOffsetText)},
                      {"module_name", SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, ModuleName)},
                      {"target_user_name", SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetUserName)},
                      {"target_image_path", SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetImagePath)}},
                     out, error);
    case ET_IMAGE_LOAD:
      if (r.Length() < sizeof(IMAGE_LOAD_EVENT_DATA)) break;
      d["image_type"] = HexWord(r.U16(SK_OFFSETOF(IMAGE_LOAD_EVENT_DATA, ImageType)));
      return Strings(r, {{"image_path", SK_OFFSETOF(IMAGE_LOAD_EVENT_DATA, ImagePath)}}, out, error);
    case ET_DRIVER_LOAD:
      if (r.Length() < sizeof(DRIVER_LOAD_EVENT_DATA)) break;
      d["process_id"] = r.U32(SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ProcessId));
      return Strings(r,
                     {{"service_name", SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ServiceName)},
                      {"image_path", SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ImagePath)}},
                     out, error);
    default:
      d["bytes"] = Hex(r.At(0), r.Length());
      return true;
  }
  *error = "event data record is cut short";
  return false;
}

}  // namespace

std::string Hex(const uint8_t* bytes, size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(length * 2);
  for (size_t i = 0; i < length; ++i) {
    text.push_back(digits[bytes[i] >> 4]);
    text.push_back(digits[bytes[i] & 0xF]);
  }
  return text;
}

std::string Utf16ToUtf8(const uint8_t* bytes, size_t byteLength) {
  std::string text;
  size_t count = byteLength / 2;
  for (size_t i = 0; i < count; ++i) {
    uint32_t c = sk_LoadLe16(bytes, uint32_t(i * 2));
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < count) {
      uint32_t low = sk_LoadLe16(bytes, uint32_t((i + 1) * 2));
      if (low >= 0xDC00 && low <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      } else {
        c = 0xFFFD;
      }
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      text.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      text.push_back(static_cast<char>(0xC0 | (c >> 6)));
      text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      text.push_back(static_cast<char>(0xE0 | (c >> 12)));
      text.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      text.push_back(static_cast<char>(0xF0 | (c >> 18)));
      text.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      text.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return text;
}

bool DecodeCommonInfo(const uint8_t* block, size_t length, Json* out, std::string* error) {
  Record process(nullptr, 0), logon(nullptr, 0), tree(nullptr, 0);
  size_t used = 0, at = 0;
  if (!PackageAt(block, length, SK_PACKAGE_PROC_INFO, sizeof(PROC_INFO_PACKAGE), &process, &used, error)) return false;
  at += used;
  if (!PackageAt(block + at, length - at, SK_PACKAGE_LOGON_INFO, sizeof(LOGON_INFO_PACKAGE), &logon, &used, error)) {
    return false;
  }
  at += used;
  if (!PackageAt(block + at, length - at, SK_PACKAGE_PROC_TREE_INFO, sizeof(PROC_TREE_INFO_PACKAGE), &tree, &used,
                 error)) {
    return false;
  }
  Json p = Json::object(), l = Json::object(), t;
  if (!DecodeProcess(process, &p, error) || !DecodeLogon(logon, &l, error) || !DecodeTree(tree, &t, error)) {
    return false;
  }
  (*out)["process"] = p;
  (*out)["logon"] = l;
  (*out)["tree"] = t;
  at += used;
  // A producer driver may attach the caller stack of the acting thread after the tree.
  if (at < length) {
    Record stack(nullptr, 0);
    Json frames;
    if (!PackageAt(block + at, length - at, SK_PACKAGE_CALLER_STACK, SK_CALLER_STACK_HEADER_BYTES, &stack, &used,
                   error) ||
        !DecodeCallerStack(stack, &frames, error)) {
      return false;
    }
    (*out)["caller_stack"] = frames;
  }
  return true;
}

bool DecodeProcessDescription(const uint8_t* answer, size_t length, Json* out, std::string* error) {
  if (length < sizeof(PACKAGE_HEADER)) {
    *error = "an answer of " + std::to_string(length) + " bytes has no header";
    return false;
  }
  uint32_t total = sk_LoadLe32(answer, SK_OFFSETOF(PACKAGE_HEADER, Length));
  uint32_t type = sk_LoadLe32(answer, SK_OFFSETOF(PACKAGE_HEADER, Type));
  if (type != SK_PACK_COMMON_INFO_TYPE) {
    *error = "the answer has type " + std::to_string(type);
    return false;
  }
  if (total < sizeof(PACKAGE_HEADER) || total > length) {
    *error = "the answer's length " + std::to_string(total) + " does not fit its " + std::to_string(length) + " bytes";
    return false;
  }
  return DecodeCommonInfo(answer + sizeof(PACKAGE_HEADER), total - sizeof(PACKAGE_HEADER), out, error);
}

Json DecodeEvent(const uint8_t* packet, size_t length) {
  Json event;
  if (length < SK_PACKET_MIN_SIZE) {
    event["event"] = nullptr;
    event["length"] = length;
    event["malformed"] = "shorter than a packet";
    event["bytes"] = Hex(packet, length);
    return event;
  }
  uint32_t type = sk_LoadLe32(packet, SK_PACKET_EVENT_TYPE_OFFSET);
  const char* name = sk_EventTypeName(type);
  event["event"] = name && *name ? Json(name) : Json("type_" + std::to_string(type));
  event["src_pid"] = sk_LoadLe32(packet, SK_OFFSETOF(SK_PACKET, SrcPid));
  event["length"] = length;
  const uint8_t* body = packet + SK_PACKET_BODY_OFFSET;
  size_t bodyLength = length - SK_PACKET_BODY_OFFSET;

  // The driver's own events say so with their destination process and their body header.
  bool driverEvent = sk_LoadLe32(packet, SK_OFFSETOF(SK_PACKET, DstPid)) == SK_PACKET_NO_PID &&
                     bodyLength >= sizeof(PACKAGE_HEADER) && sk_LoadLe32(body, 0) == bodyLength;
  if (!driverEvent) {
    event["producer"] = true;
    event["body"] = Hex(body, bodyLength);
    return event;
  }
  std::string error;
  uint32_t dataOffset = sk_LoadLe32(body, 8);
  if (sk_LoadLe32(packet, SK_OFFSETOF(SK_PACKET, Length)) != length ||
      sk_LoadLe32(packet, SK_OFFSETOF(SK_PACKET, DataLength)) != bodyLength) {
    error = "the packet header's Length and DataLength do not add up to its " + std::to_string(length) + " bytes";
  } else if (dataOffset < sizeof(PACKAGE_HEADER) || dataOffset > bodyLength) {
    error = "event data offset " + std::to_string(dataOffset) + " does not fit";
  } else {
    Json decoded = Json::object();
    Json data = Json::object();
    if (DecodeCommonInfo(body + sizeof(PACKAGE_HEADER), dataOffset - sizeof(PACKAGE_HEADER), &decoded, &error) &&
        DecodeData(type, Record(body + dataOffset, bodyLength - dataOffset), &data, &error)) {
      for (auto& [key, value] : decoded.items()) event[key] = value;
      event["data"] = data;
      return event;
    }
  }
  event["malformed"] = error;
  event["body"] = Hex(body, bodyLength);
  return event;
}

}  // namespace sentrel_sdk
