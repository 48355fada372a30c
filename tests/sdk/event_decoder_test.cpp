// Decoding event packets as the consumer finds them in the ring buffers: the driver's own events,
// built here byte by byte as the layouts say, and producers' events.
#include <gtest/gtest.h>

#include <cstring>

#include "sentrel/event_data.h"
#include "sentrel/packet_build.h"
#include "sentrel_sdk/event_decoder.h"
#include "sentrel_sdk/event_line.h"

namespace {

using sentrel_sdk::Json;

// A record under construction: a fixed part, then strings appended with their references.
class Builder {
 public:
  explicit Builder(size_t fixed) : bytes_(fixed, 0) {}
  void U16(uint32_t at, uint16_t v) { sk_StoreLe16(bytes_.data(), at, v); }
  void U32(uint32_t at, uint32_t v) { sk_StoreLe32(bytes_.data(), at, v); }
  void String(uint32_t refAt, const std::u16string& text) {
    U16(refAt, static_cast<uint16_t>(bytes_.size()));
    U16(refAt + 2, static_cast<uint16_t>(text.size() * 2));
    for (char16_t c : text) {
      bytes_.push_back(static_cast<uint8_t>(c));
      bytes_.push_back(static_cast<uint8_t>(c >> 8));
    }
  }
  // Closes a package: Length and NextOffset are its size.
  std::vector<uint8_t> Package(uint32_t kind) {
    U32(0, static_cast<uint32_t>(bytes_.size()));
    U32(4, kind);
    U32(8, static_cast<uint32_t>(bytes_.size()));
    return bytes_;
  }
  std::vector<uint8_t>& Bytes() { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

std::vector<uint8_t> ProcessPackage() {
  Builder b(sizeof(PROC_INFO_PACKAGE));
  b.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, ProcessId), 1234);
  b.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorProcessId), 800);
  b.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, ParentProcessId), 801);
  b.U32(SK_OFFSETOF(PROC_INFO_PACKAGE, IntegrityLevel), SK_INTEGRITY_HIGH);
  b.Bytes()[SK_OFFSETOF(PROC_INFO_PACKAGE, ProcessIdentity)] = 0xAB;
  b.String(SK_OFFSETOF(PROC_INFO_PACKAGE, ImagePath), u"C:\\Windows\\System32\\cmd.exe");
  b.String(SK_OFFSETOF(PROC_INFO_PACKAGE, CommandLine), u"cmd /c \u00e9cho \U0001F600");
  b.String(SK_OFFSETOF(PROC_INFO_PACKAGE, ImageName), u"cmd.exe");
  b.String(SK_OFFSETOF(PROC_INFO_PACKAGE, CreatorUserName), u"HOST\\ann");
  return b.Package(SK_PACKAGE_PROC_INFO);
}

std::vector<uint8_t> LogonPackage() {
  Builder b(sizeof(LOGON_INFO_PACKAGE));
  b.U32(SK_OFFSETOF(LOGON_INFO_PACKAGE, SessionId), 2);
  b.U32(SK_OFFSETOF(LOGON_INFO_PACKAGE, LogonIdLow), 0x3E7);
  b.U32(SK_OFFSETOF(LOGON_INFO_PACKAGE, LogonIdHigh), 1);
  b.String(SK_OFFSETOF(LOGON_INFO_PACKAGE, UserName), u"HOST\\ann");
  b.String(SK_OFFSETOF(LOGON_INFO_PACKAGE, UserSid), u"S-1-5-21-1-2-3-1001");
  return b.Package(SK_PACKAGE_LOGON_INFO);
}

std::vector<uint8_t> TreePackage(const std::vector<std::pair<uint32_t, std::u16string>>& entries) {
  Builder b(sizeof(PROC_TREE_INFO_PACKAGE) + entries.size() * sizeof(PROC_TREE_ENTRY));
  b.U32(SK_OFFSETOF(PROC_TREE_INFO_PACKAGE, Count), static_cast<uint32_t>(entries.size()));
  for (size_t i = 0; i < entries.size(); ++i) {
    uint32_t at = static_cast<uint32_t>(sizeof(PROC_TREE_INFO_PACKAGE) + i * sizeof(PROC_TREE_ENTRY));
    b.U32(at, entries[i].first);
    for (size_t c = 0; c < entries[i].second.size() && c < 63; ++c) b.U16(at + 4 + uint32_t(c) * 2, entries[i].second[c]);
  }
  return b.Package(SK_PACKAGE_PROC_TREE_INFO);
}

// A whole event packet as the driver builds it.
std::vector<uint8_t> Event(uint32_t type, const std::vector<uint8_t>& packages, const std::vector<uint8_t>& data) {
  uint32_t body = static_cast<uint32_t>(sizeof(PACKAGE_HEADER) + packages.size() + data.size());
  std::vector<uint8_t> packet(SK_PACKET_HEADER_SIZE + body);
  sk_PacketInit(packet.data(), SKPT_EVENT, SKT_PRODUCER, 1234, SKT_CONSUMER, SK_PACKET_NO_PID, body);
  sk_StoreLe32(packet.data(), 44, body);
  sk_StoreLe32(packet.data(), 48, type);
  sk_StoreLe32(packet.data(), 52, static_cast<uint32_t>(sizeof(PACKAGE_HEADER) + packages.size()));
  std::copy(packages.begin(), packages.end(), packet.begin() + SK_EVENT_PACKAGES_OFFSET);
  std::copy(data.begin(), data.end(), packet.begin() + SK_EVENT_PACKAGES_OFFSET + packages.size());
  return packet;
}

std::vector<uint8_t> CommonBlock() {
  std::vector<uint8_t> block = ProcessPackage();
  std::vector<uint8_t> logon = LogonPackage();
  std::vector<uint8_t> tree = TreePackage({{1234, u"cmd.exe"}, {800, std::u16string(70, u'x')}});
  block.insert(block.end(), logon.begin(), logon.end());
  block.insert(block.end(), tree.begin(), tree.end());
  return block;
}

Json Decode(const std::vector<uint8_t>& packet) { return sentrel_sdk::DecodeEvent(packet.data(), packet.size()); }

TEST(EventDecoderTest, ADriverEventGivesEveryFieldOfItsPackagesAndRecord) {
  Builder data(sizeof(REMOTE_THREAD_EVENT_DATA));
  data.U32(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetProcessId), 4321);
  data.U32(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetThreadId), 99);
  data.U32(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, StartAddressLow), 0x10001234);
  data.U32(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, StartAddressHigh), 0x7ff8);
  data.String(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, StartOffsetText), u"+0x1234");
  data.String(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, ModuleName), u"kernel32.dll");
  data.String(SK_OFFSETOF(REMOTE_THREAD_EVENT_DATA, TargetImagePath), u"C:\\Windows\\notepad.exe");
  Json event = Decode(Event(ET_REMOTE_THREAD_CREATE, CommonBlock(), data.Bytes()));

  EXPECT_EQ(event["event"], "ET_REMOTE_THREAD_CREATE");
  EXPECT_EQ(event["src_pid"], 1234);
  EXPECT_FALSE(event.contains("malformed")) << event.dump();
  const Json& process = event["process"];
  EXPECT_EQ(process["process_id"], 1234);
  EXPECT_EQ(process["creator_process_id"], 800);
  EXPECT_EQ(process["parent_process_id"], 801);
  EXPECT_EQ(process["integrity_level"], 4);
  EXPECT_EQ(process["process_identity"], "ab000000000000000000000000000000");
  EXPECT_EQ(process["image_path"], "C:\\Windows\\System32\\cmd.exe");
  EXPECT_EQ(process["command_line"], "cmd /c \xc3\xa9" "cho \xf0\x9f\x98\x80");  // UTF-8, a surrogate pair too
  EXPECT_EQ(process["creator_user_name"], "HOST\\ann");
  EXPECT_TRUE(process["current_directory"].is_null());  // absent
  EXPECT_EQ(event["logon"]["logon_id"], 0x1000003E7u);
  EXPECT_EQ(event["logon"]["user_sid"], "S-1-5-21-1-2-3-1001");
  ASSERT_EQ(event["tree"].size(), 2u);
  EXPECT_EQ(event["tree"][0]["image_name"], "cmd.exe");
  EXPECT_EQ(event["tree"][1]["image_name"], std::string(63, 'x'));  // at most 63 characters
  const Json& record = event["data"];
  EXPECT_EQ(record["target_process_id"], 4321);
  EXPECT_EQ(record["start_address"], "0x7ff810001234");
  EXPECT_EQ(record["start_offset"], "+0x1234");
  EXPECT_EQ(record["module_name"], "kernel32.dll");
  EXPECT_TRUE(record["source_user_name"].is_null());

  Builder load(sizeof(DRIVER_LOAD_EVENT_DATA));
  load.U32(SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ProcessId), 4);
  load.String(SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ServiceName), u"extra");
  load.String(SK_OFFSETOF(DRIVER_LOAD_EVENT_DATA, ImagePath), u"\\SystemRoot\\System32\\drivers\\extra.sys");
  Json driver = Decode(Event(ET_DRIVER_LOAD, CommonBlock(), load.Bytes()));
  EXPECT_EQ(driver["data"]["service_name"], "extra");
  EXPECT_EQ(driver["data"]["image_path"], "\\SystemRoot\\System32\\drivers\\extra.sys");
}

TEST(EventDecoderTest, RecordsThatDoNotAddUpAreMarkedAndKeptInHex) {
  Builder data(sizeof(IMAGE_LOAD_EVENT_DATA));
  data.String(SK_OFFSETOF(IMAGE_LOAD_EVENT_DATA, ImagePath), u"C:\\a.dll");
  std::vector<uint8_t> good = Event(ET_IMAGE_LOAD, CommonBlock(), data.Bytes());
  ASSERT_FALSE(Decode(good).contains("malformed"));

  std::vector<uint8_t> outside = good;  // the image path's length runs past the record
  sk_StoreLe16(outside.data(), uint32_t(outside.size() - data.Bytes().size() + 0x10), 0x200);
  EXPECT_EQ(Decode(outside)["malformed"], "image_path lies outside its record");

  std::vector<uint8_t> block = CommonBlock();
  sk_StoreLe32(block.data(), 4, 9);  // the first package is not a process package
  Json wrongKind = Decode(Event(ET_IMAGE_LOAD, block, data.Bytes()));
  EXPECT_EQ(wrongKind["malformed"], "process package has type 9");
  EXPECT_EQ(wrongKind["body"].get<std::string>().size(), 2 * (block.size() + data.Bytes().size() + 12));

  std::vector<uint8_t> tree = TreePackage({{1, u"a"}});
  sk_StoreLe32(tree.data(), 12, 2);  // claims two entries
  std::vector<uint8_t> shortTree = ProcessPackage();
  std::vector<uint8_t> logon = LogonPackage();
  shortTree.insert(shortTree.end(), logon.begin(), logon.end());
  shortTree.insert(shortTree.end(), tree.begin(), tree.end());
  EXPECT_NE(Decode(Event(ET_IMAGE_LOAD, shortTree, data.Bytes()))["malformed"].get<std::string>().find("tree"),
            std::string::npos);
  EXPECT_EQ(Decode(Event(ET_IMAGE_LOAD, CommonBlock(), {}))["malformed"], "event data record is cut short");

  std::vector<uint8_t> lengths = good;  // a header whose DataLength is not Length - 44
  sk_StoreLe32(lengths.data(), SK_OFFSETOF(SK_PACKET, DataLength), uint32_t(good.size() - 40));
  EXPECT_EQ(Decode(lengths)["malformed"].get<std::string>().rfind("the packet header's Length and DataLength", 0), 0u);
}

TEST(EventDecoderTest, AProducersEventKeepsItsBodyInHex) {
  std::vector<uint8_t> packet(SK_PACKET_HEADER_SIZE + 10, 0);
  sk_PacketInit(packet.data(), SKPT_EVENT, SKT_PRODUCER, 77, SKT_CONSUMER, 0, 10);
  sk_StoreLe32(packet.data(), 44, 10);
  sk_StoreLe32(packet.data(), 48, ET_NET_DNS);
  packet[52] = 0xCA;
  packet[53] = 0xFE;
  Json event = Decode(packet);
  EXPECT_EQ(event["event"], "ET_NET_DNS");
  EXPECT_EQ(event["producer"], true);
  EXPECT_EQ(event["body"], "0a00000010000000cafe");
  sk_StoreLe32(packet.data(), 48, 57);
  EXPECT_EQ(Decode(packet)["event"], "type_57");
  EXPECT_EQ(sentrel_sdk::DecodeEvent(packet.data(), 40)["malformed"], "shorter than a packet");
}

}  // namespace

namespace {

// The answer to IOCTL_SK_QUERY_PACKCOMINFO: a header of type SK_PACK_COMMON_INFO_TYPE, then the
// three packages.
std::vector<uint8_t> Description(const std::vector<uint8_t>& block) {
  std::vector<uint8_t> answer(sizeof(PACKAGE_HEADER));
  sk_StoreLe32(answer.data(), 0, static_cast<uint32_t>(sizeof(PACKAGE_HEADER) + block.size()));
  sk_StoreLe32(answer.data(), 4, SK_PACK_COMMON_INFO_TYPE);
  answer.insert(answer.end(), block.begin(), block.end());
  return answer;
}

TEST(EventDecoderTest, AProcessDescriptionDecodesLikeAnEventsPackages) {
  std::vector<uint8_t> answer = Description(CommonBlock());
  answer.resize(answer.size() + 100, 0xEE);  // the rest of the caller's buffer is not looked at
  Json description = Json::object();
  std::string error;
  ASSERT_TRUE(sentrel_sdk::DecodeProcessDescription(answer.data(), answer.size(), &description, &error)) << error;
  Json event = Decode(Event(ET_IMAGE_LOAD, CommonBlock(), Builder(sizeof(IMAGE_LOAD_EVENT_DATA)).Bytes()));
  EXPECT_EQ(description["process"], event["process"]);
  EXPECT_EQ(description["logon"], event["logon"]);
  EXPECT_EQ(description["tree"], event["tree"]);

  std::vector<uint8_t> wrongType = Description(CommonBlock());
  sk_StoreLe32(wrongType.data(), 4, SK_PACKAGE_PROC_INFO);
  EXPECT_FALSE(sentrel_sdk::DecodeProcessDescription(wrongType.data(), wrongType.size(), &description, &error));
  EXPECT_EQ(error, "the answer has type 1");
  std::vector<uint8_t> cut = Description(CommonBlock());
  EXPECT_FALSE(sentrel_sdk::DecodeProcessDescription(cut.data(), cut.size() - 1, &description, &error));
  EXPECT_NE(error.find("does not fit"), std::string::npos) << error;
  EXPECT_FALSE(sentrel_sdk::DecodeProcessDescription(cut.data(), 11, &description, &error));
}

TEST(EventLineTest, TheNameAndTheBufferComeFirstThenWhatTheDecoderGives) {
  std::vector<uint8_t> packet = Event(ET_DRIVER_LOAD, CommonBlock(), Builder(sizeof(DRIVER_LOAD_EVENT_DATA)).Bytes());
  sentrel_sdk::RingRecord record;
  record.data = packet.data();
  record.length = static_cast<uint32_t>(packet.size());
  record.buffer = 3;
  Json line = sentrel_sdk::EventLine(record);
  std::vector<std::string> keys;
  for (auto& [key, value] : line.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"event", "cpu", "src_pid", "length", "process", "logon", "tree", "data"}));
  EXPECT_EQ(line["cpu"], 3);
  EXPECT_EQ(sentrel_sdk::EventLineKind(line), "ET_DRIVER_LOAD");
  record.length = 20;  // too short to name its event
  EXPECT_EQ(sentrel_sdk::EventLineKind(sentrel_sdk::EventLine(record)), "malformed");
}

}  // namespace
