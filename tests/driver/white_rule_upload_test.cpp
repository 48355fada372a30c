// The consumer's white rules: IOCTL_SK_ADD_WHITE_RULE as the consumer sends it through the device,
// with well-formed and malformed records and the statuses each gets, the delete of all white rules
// and the event types it closes; and the same records as the reporters then see them.
#include <gtest/gtest.h>

#include "channel_test_support.h"
#include "path_test_support.h"
#include "rules/rule_sets.h"
#include "sentrel/white_rule.h"

using namespace ntsim;
using namespace sentrel_test;

namespace {

// One record: its event type and path; Length and NextOffset as they follow from the path and the
// record's place unless given (a NextOffset of 0 ends the chain; the last record's is 0 unless given).
struct Rule {
  uint32_t type;
  std::u16string path;
  int length = -1;
  int nextOffset = -1;
};

std::vector<uint8_t> Records(const std::vector<Rule>& rules, size_t trailing = 0) {
  std::vector<uint8_t> bytes;
  size_t offset = 0;
  for (size_t i = 0; i < rules.size(); ++i) {
    const Rule& r = rules[i];
    const size_t pathBytes = r.path.size() * sizeof(char16_t);
    const bool last = i + 1 == rules.size();
    const uint16_t length = static_cast<uint16_t>(r.length >= 0 ? r.length : pathBytes);
    const uint16_t next = static_cast<uint16_t>(r.nextOffset >= 0 ? r.nextOffset : last ? 0 : 8 + pathBytes);
    bytes.resize(std::max(bytes.size(), offset + 8 + pathBytes));
    std::memcpy(&bytes[offset], &length, 2);
    std::memcpy(&bytes[offset + 2], &next, 2);
    std::memcpy(&bytes[offset + 4], &r.type, 4);
    std::memcpy(&bytes[offset + 8], r.path.data(), pathBytes);
    if (!last) offset += next;
  }
  bytes.resize(bytes.size() + trailing, 0xEE);
  return bytes;
}

class WhiteRuleUploadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    world.SetRegistryDwordDirect(DebugKey(), u"PrintLevel", SK_LEVEL_ERROR | SK_LEVEL_INFO);
    world.SetRegistryDwordDirect(DebugKey(), u"TraceLevel", SK_TRACE_COMMU);
    ASSERT_EQ(world.LoadDriver(), STATUS_SUCCESS);
  }
  void TearDown() override {
    if (world.DriverLoaded()) {
      for (UserProcess* process : started) world.ExitProcess(*process);
      Verdict verdict = world.UnloadDriver();
      EXPECT_TRUE(verdict.Clean()) << verdict.Report();
    }
  }
  Client Start(const std::u16string& image) {
    UserProcess& process = world.StartProcess(image);
    started.push_back(&process);
    return Client(world, process);
  }
  // The request as DeviceIoControl sends it: the records in both buffers, the input length saying
  // how many bytes of the direct buffer hold them.
  IoResult Send(Client& client, HANDLE handle, std::vector<uint8_t> records, ULONG inLength, ULONG outLength) {
    std::vector<uint8_t> in(std::max<size_t>(inLength, records.size()), 0);
    std::copy(records.begin(), records.end(), in.begin());
    records.resize(std::max<size_t>(records.size(), outLength));
    return client.Process().DeviceIoControl(handle, IOCTL_SK_ADD_WHITE_RULE, in.data(), inLength,
                                            outLength ? records.data() : nullptr, outLength);
  }
  IoResult Send(Client& client, HANDLE handle, const std::vector<uint8_t>& records) {
    return Send(client, handle, records, static_cast<ULONG>(records.size()), static_cast<ULONG>(records.size()));
  }

  World world;
  std::vector<UserProcess*> started;
};

TEST_F(WhiteRuleUploadTest, OnlyTheConsumerSendsWhiteRules) {
  Client app = Start(u"app.exe");
  HANDLE h = app.Open(false);
  IoResult refused = Send(app, h, Records({{ET_REGISTRY_KEY_CREATE, u"\\A"}}, 1));
  EXPECT_EQ(refused.status, STATUS_ACCESS_DENIED);
  EXPECT_EQ(refused.information, ~ULONG_PTR(0));
  EXPECT_TRUE(HasMessage(world, "Not Comsumer Process"));
  EXPECT_FALSE(HasMessage(world, "Add White Rule [10][\\A]"));
  IoResult deleteAll = Send(app, h, {}, 0, 0);
  EXPECT_EQ(deleteAll.status, STATUS_ACCESS_DENIED);
  EXPECT_FALSE(HasMessage(world, "Del All White Rule"));
}

TEST_F(WhiteRuleUploadTest, RecordsAreAddedUntilTheLastOrTheFirstBadOne) {
  Client agent = Start(u"agent.exe");
  HANDLE h = agent.Open(false);
  ASSERT_EQ(agent.Register(h, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);

  // One minimal record is not enough; one more byte is, and a record of two characters is a rule.
  std::vector<uint8_t> one = Records({{ET_REGISTRY_KEY_CREATE, u"\\A"}});
  ASSERT_EQ(one.size(), WHITE_RULE_NODE_SIZE);
  IoResult tooShort = Send(agent, h, one);
  EXPECT_EQ(tooShort.status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(tooShort.information, ~ULONG_PTR(0));
  EXPECT_TRUE(HasMessage(world, "Invalid Parameter"));
  IoResult added = Send(agent, h, Records({{ET_REGISTRY_KEY_CREATE, u"\\A"}}, 1));
  EXPECT_EQ(added.status, STATUS_SUCCESS);
  EXPECT_EQ(added.information, 0u);
  EXPECT_TRUE(HasMessage(world, "IOCTL_SK_ADD_WHITE_RULE"));
  EXPECT_TRUE(HasMessage(world, "Add White Rule [10][\\A]"));

  // The records' length may not exceed the direct buffer; a first record of length 0 is refused.
  std::vector<uint8_t> two = Records({{ET_REGISTRY_KEY_CREATE, u"\\B\\C"}});
  EXPECT_EQ(Send(agent, h, two, static_cast<ULONG>(two.size()) + 2, static_cast<ULONG>(two.size())).status,
            STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Send(agent, h, Records({{ET_REGISTRY_KEY_CREATE, u"", 0}}, 8)).status, STATUS_INSUFFICIENT_RESOURCES);

  // Several records, the second at an odd offset, then bytes too few for another record.
  std::vector<uint8_t> chain = Records({{ET_PROCESS_ACCESS, u"*\\a.exe", -1, 8 + 14 + 1},
                                        {ET_NAMED_PIPE_CONNECT, u"*\\pipe"},
                                        {ET_REGISTRY_KEY_MODIFY, u"\\REGISTRY\\X", -1, 8 + 22}},
                                       3);
  ASSERT_EQ(chain.size(), 23u + 20u + 30u + 3u);
  world.debug().Clear();
  EXPECT_EQ(Send(agent, h, chain).status, STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "Add White Rule [2][*\\a.exe]"));
  EXPECT_TRUE(HasMessage(world, "Add White Rule [15][*\\pipe]"));
  EXPECT_TRUE(HasMessage(world, "Add White Rule [11][\\REGISTRY\\X]"));
  EXPECT_TRUE(HasMessage(world, "pNext + sizeof(WHITE_RULE_NODE) > pEnd fail"));

  // A path running past the end: refused when it is the first, after an added rule the request
  // still succeeds.
  EXPECT_EQ(Send(agent, h, Records({{ET_REGISTRY_KEY_CREATE, u"\\D\\E", 40}}, 1)).status, STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(HasMessage(world, "NodeEnd > pEnd fail"));
  EXPECT_EQ(Send(agent, h, Records({{ET_REGISTRY_KEY_CREATE, u"\\F"}, {ET_REGISTRY_KEY_CREATE, u"\\G", 200}})).status,
            STATUS_SUCCESS);

  // An event type beyond the slots, or a pattern the engine refuses, stops the walk with its status.
  world.debug().Clear();
  EXPECT_EQ(Send(agent, h, Records({{ET_REGISTRY_KEY_CREATE, u"\\H"}, {20, u"\\I"}, {ET_REGISTRY_KEY_CREATE, u"\\J"}})).status,
            STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(HasMessage(world, "Add White Rule [10][\\H]"));
  EXPECT_TRUE(HasMessage(world, "sk_AddWhiteRule fail Status:c000000d"));
  EXPECT_FALSE(HasMessage(world, "Add White Rule [10][\\J]"));
  EXPECT_EQ(Send(agent, h, Records({{ET_REGISTRY_KEY_CREATE, u"*cmd.exe"}}, 1)).status, STATUS_INVALID_PARAMETER);
  // A path that must be converted and names nothing gets the status of its open.
  EXPECT_EQ(Send(agent, h, Records({{ET_PROCESS_CREATE, u"\\??\\C:\\nothing.exe"}}, 1)).status,
            STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(WhiteRuleUploadTest, DeletingAllWhiteRulesClosesTheTypesThatHadRules) {
  Client agent = Start(u"agent.exe");
  HANDLE h = agent.Open(false);
  ASSERT_EQ(agent.Register(h, IOCTL_APP_REGISTER_CONSUMER).result.status, STATUS_SUCCESS);
  ASSERT_EQ(Send(agent, h, Records({{ET_SCRIPT_EXECUTE, u"*\\ok.ps1"}}, 1)).status, STATUS_SUCCESS);

  // No direct buffer: delete all.
  IoResult deleted = Send(agent, h, {}, 0, 0);
  EXPECT_EQ(deleted.status, STATUS_SUCCESS);
  EXPECT_EQ(deleted.information, 0u);
  EXPECT_TRUE(HasMessage(world, "Del All White Rule"));
  // Types that had rules, the built-in ones and the consumer's, are closed; others stay open.
  for (uint32_t type : {ET_PROCESS_ACCESS, ET_IMAGE_LOAD, ET_REGISTRY_KEY_CREATE, ET_NAMED_PIPE_CONNECT, ET_SCRIPT_EXECUTE}) {
    EXPECT_EQ(Send(agent, h, Records({{type, u"*\\x.exe"}}, 1)).status, STATUS_INSUFFICIENT_RESOURCES) << type;
  }
  EXPECT_EQ(Send(agent, h, Records({{ET_PROCESS_CREATE, u"*\\x.exe"}}, 1)).status, STATUS_SUCCESS);
  EXPECT_EQ(Send(agent, h, Records({{ET_NAMED_PIPE_CREATE, u"*\\x"}}, 1)).status, STATUS_SUCCESS);

  // An input length of 0 with a buffer deletes all as well, and closes what was opened since.
  std::vector<uint8_t> records = Records({{ET_PROCESS_CREATE, u"*\\y.exe"}}, 1);
  EXPECT_EQ(Send(agent, h, records, 0, static_cast<ULONG>(records.size())).status, STATUS_SUCCESS);
  EXPECT_EQ(Send(agent, h, records).status, STATUS_INSUFFICIENT_RESOURCES);
}

class WhiteRuleWalkTest : public StartedDriverTest {
 protected:
  NTSTATUS Upload(std::vector<uint8_t> records) {
    return world.AsSystem(
        [&] { return sk_AddWhiteRuleFunction_Ioctl(records.data(), static_cast<ULONG>(records.size())); });
  }
  NTSTATUS White(SK_EVENT_TYPE type, const std::u16string& path) {
    UNICODE_STRING s = Counted(path);
    return world.AsSystem([&] { return sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, type, &s); });
  }
};

TEST_F(WhiteRuleWalkTest, UploadedRulesLetTheirEventsPassUntilAllAreDeleted) {
  ASSERT_EQ(Upload(Records({{ET_PROCESS_CREATE, u"*\\agent-helper.exe"},
                            {ET_PROCESS_CREATE, u"\\SystemRoot\\System32\\*"},
                            {ET_REGISTRY_VALUE_CREATE, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Sentrel\\*"},
                            {ET_NET_CONNECT, u"\\??\\C:\\Tools\\Browser.exe", 5 * 2 + 1}})),  // an odd length: 5 characters
            STATUS_SUCCESS);
  EXPECT_EQ(White(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume5\\Agent\\AGENT-HELPER.EXE"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\Windows\\System32\\svchost.exe"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume3\\Windows\\explorer.exe"), STATUS_NOT_FOUND);
  EXPECT_EQ(White(ET_REGISTRY_VALUE_CREATE, u"\\REGISTRY\\MACHINE\\SOFTWARE\\Sentrel\\Config"), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_NET_CONNECT, u"\\??\\C\\x"), STATUS_SUCCESS) << "the rule \\??\\C";
  EXPECT_EQ(White(ET_NET_CONNECT, u"\\??\\C:\\Tools\\Browser.exe"), STATUS_NOT_FOUND);

  world.AsSystem([] {
    sk_DelAllWhiteRule();
    return 0;
  });
  EXPECT_EQ(White(ET_PROCESS_CREATE, u"\\Device\\HarddiskVolume5\\Agent\\agent-helper.exe"), STATUS_NOT_FOUND);
  EXPECT_EQ(White(ET_PROCESS_ACCESS, u"\\Device\\HarddiskVolume3\\Windows\\System32\\lsass.exe"), STATUS_NOT_FOUND);
  EXPECT_EQ(White(ET_REGISTRY_KEY_CREATE, u"\\REGISTRY\\USER\\S-1-5-18"), STATUS_NOT_FOUND);
  EXPECT_EQ(Upload(Records({{ET_PROCESS_CREATE, u"*\\x.exe"}})), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(Upload(Records({{ET_FILE_CREATE, u"*\\x.tmp"}})), STATUS_SUCCESS);
  EXPECT_EQ(White(ET_FILE_CREATE, u"\\Device\\HarddiskVolume5\\x.tmp"), STATUS_SUCCESS);
}

TEST_F(WhiteRuleWalkTest, AFailureKeepsTheRulesAddedBeforeIt) {
  TraceLevel |= SK_TRACE_COMMU;
  std::vector<uint8_t> records = Records({{ET_NET_LISTEN, u"*\\server.exe"},
                                          {ET_PROCESS_CREATE, u"\\SystemRoot\\*"},
                                          {ET_NET_DNS, u"\\a\\b\\c"}});
  std::vector<NTSTATUS> results;
  EachFailure([&](uint64_t) {
    NTSTATUS status = sk_AddWhiteRuleFunction_Ioctl(records.data(), static_cast<ULONG>(records.size()));
    results.push_back(status);
    const std::u16string serverPath = u"\\Device\\HarddiskVolume3\\server.exe";
    const std::u16string dnsName = u"\\a\\b\\c\\d";
    UNICODE_STRING server = Counted(serverPath);
    UNICODE_STRING dns = Counted(dnsName);
    NTSTATUS first = sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, ET_NET_LISTEN, &server);
    NTSTATUS last = sk_MatchWhiteRule(&SentrelData.WhiteRuleMgr, ET_NET_DNS, &dns);
    if (status == STATUS_SUCCESS) {
      EXPECT_EQ(first, STATUS_SUCCESS);
      EXPECT_EQ(last, STATUS_SUCCESS);
    } else {
      EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
      EXPECT_EQ(last, STATUS_NOT_FOUND) << "the walk stopped before the last record";
    }
  });
  EXPECT_GE(results.size(), 4u);
  EXPECT_EQ(results.back(), STATUS_SUCCESS);
  EXPECT_TRUE(HasMessage(world, "WhiteRule alloc fail"));
  EXPECT_TRUE(HasMessage(world, "sk_AddWhiteRule fail Status:c000009a"));
}

}  // namespace
