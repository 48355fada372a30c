// White rules written as text become the records the driver reads: the bytes of each record, how
// records chain, and the lines that are refused with their line number.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sentrel/packet_build.h"
#include "sentrel/white_rule.h"
#include "sentrel_sdk/white_rule_text.h"

using sentrel_sdk::ParseWhiteRules;
using sentrel_sdk::WhiteRuleRecords;

namespace {

struct Rule {
  uint32_t type;
  std::u16string path;
};

// Walks the records as the driver does: NextOffset from each record's start, 0 in the last.
std::vector<Rule> Walk(const std::vector<uint8_t>& bytes) {
  std::vector<Rule> rules;
  size_t at = 0;
  for (;;) {
    EXPECT_LE(at + WHITE_RULE_NODE_SIZE, bytes.size());
    uint16_t length = sk_LoadLe16(bytes.data() + at, 0);
    Rule rule{sk_LoadLe32(bytes.data() + at, 4), {}};
    for (uint16_t i = 0; i < length; i += 2) rule.path.push_back(sk_LoadLe16(bytes.data() + at, 8u + i));
    rules.push_back(rule);
    uint16_t next = sk_LoadLe16(bytes.data() + at, 2);
    if (next == 0) return rules;
    at += next;
  }
}

TEST(WhiteRuleTextTest, LinesBecomeChainedRecords) {
  WhiteRuleRecords records;
  std::string error;
  ASSERT_TRUE(ParseWhiteRules("# tools we trust\n"
                              "ET_PROCESS_CREATE   *\\Tools\\build.exe  \r\n"
                              "\n"
                              "  ET_IMAGE_LOAD\t\\SystemRoot\\System32\\*\n"
                              "16 *\\caf\xc3\xa9\xf0\x9f\x98\x80.exe\n"
                              "ET_NET_DNS x",
                              &records, &error))
      << error;
  EXPECT_EQ(records.count, 4u);
  std::vector<Rule> rules = Walk(records.bytes);
  ASSERT_EQ(rules.size(), 4u);
  EXPECT_EQ(rules[0].type, ET_PROCESS_CREATE);
  EXPECT_EQ(rules[0].path, u"*\\Tools\\build.exe");
  EXPECT_EQ(rules[1].type, ET_IMAGE_LOAD);
  EXPECT_EQ(rules[1].path, u"\\SystemRoot\\System32\\*");
  EXPECT_EQ(rules[2].type, ET_NET_DNS);
  EXPECT_EQ(rules[2].path, u"*\\caf\u00e9\U0001F600.exe");
  // A one-character pattern still takes a record's declared size, so the driver finds room for it.
  EXPECT_EQ(rules[3].path, u"x");
  EXPECT_EQ(records.bytes.size(), 8u + 34 + 8 + 44 + 8 + 24 + WHITE_RULE_NODE_SIZE);
  // The first record's bytes, as the driver reads them.
  EXPECT_EQ(sk_LoadLe16(records.bytes.data(), 0), 34u);
  EXPECT_EQ(sk_LoadLe16(records.bytes.data(), 2), 42u);
  EXPECT_EQ(sk_LoadLe32(records.bytes.data(), 4), 0u);
  EXPECT_EQ(sk_LoadLe16(records.bytes.data(), 8), u'*');
}

TEST(WhiteRuleTextTest, OneShortRuleStillMakesARequestTheDriverTakes) {
  WhiteRuleRecords records;
  std::string error;
  ASSERT_TRUE(ParseWhiteRules("ET_FILE_CREATE a\n", &records, &error)) << error;
  EXPECT_GE(records.bytes.size(), WHITE_RULE_REQUEST_MIN_LENGTH);
  EXPECT_EQ(Walk(records.bytes).size(), 1u);
}

TEST(WhiteRuleTextTest, BadLinesAreRefusedWithTheirNumber) {
  struct Case {
    std::string text, error;
  } cases[] = {
      {"ET_PROCESS_CREATE *\\a.exe\nET_NOPE *\\b.exe\n", "line 2: \"ET_NOPE\" is not an event type"},
      {"ET_PROCESS_CREATE\n", "line 1: a rule needs a pattern"},
      {"ET_PROCESS_CREATE   \t \n", "line 1: a rule needs a pattern"},
      {"20 *\\a.exe\n", "line 1: \"20\" is not an event type"},
      {"\n\nET_IMAGE_LOAD *\\\xff.dll\n", "line 3: the pattern is not UTF-8"},
      {"ET_IMAGE_LOAD *\\\xed\xa0\x80.dll\n", "line 1: the pattern is not UTF-8"},  // an encoded surrogate
      {"ET_IMAGE_LOAD *\\\xc3\n", "line 1: the pattern is not UTF-8"},              // cut short
      {"ET_IMAGE_LOAD *\\" + std::string(40000, 'a') + "\n", "line 1: the pattern is too long"},
      {"# nothing but comments\n\n", "no rules"},
      {"", "no rules"},
  };
  for (const Case& c : cases) {
    WhiteRuleRecords records;
    std::string error;
    EXPECT_FALSE(ParseWhiteRules(c.text, &records, &error)) << c.text.substr(0, 40);
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
  }
}

}  // namespace
