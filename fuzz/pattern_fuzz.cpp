// Fuzz target: the pattern language. An input is lines of bytes (each byte one character, so that
// Latin-1 letters test case folding too): a line "R..." adds the rest as a pattern, a line "M..."
// matches the rest as a path. The rule engine's answers are compared with a model of the language
// written here from its description, which tests each rule in turn: whether a pattern is refused,
// and whether a path matches.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "core/pool_tags.h"
#include "rules/rule_mgr.h"
#include "world.h"

#define FUZZ_CHECK(cond, ...)                               \
  do {                                                      \
    if (!(cond)) {                                          \
      std::fprintf(stderr, "pattern_fuzz: " __VA_ARGS__);   \
      std::fprintf(stderr, "\n");                           \
      std::abort();                                         \
    }                                                       \
  } while (0)

namespace {

using Text = std::u16string;
const SK_EVENT_TYPE kType = ET_REGISTRY_KEY_CREATE;  // patterns of this type are taken as they are

// Splitting from the front: a leading backslash skipped, the first name up to the next backslash,
// the rest behind it.
std::pair<Text, Text> SplitFirst(const Text& s) {
  if (s.empty()) return {};
  size_t begin = s[0] == u'\\' ? 1 : 0;
  size_t end = s.find(u'\\', begin);
  if (end == Text::npos) return {s.substr(begin), Text()};
  return {s.substr(begin, end - begin), s.substr(end + 1)};
}

// Splitting from the end: one trailing backslash ignored; the last name behind the last backslash
// above index 0, or the whole rest.
std::pair<Text, Text> SplitLast(const Text& s) {
  if (s.empty() || s == u"\\") return {};
  size_t end = s.back() == u'\\' ? s.size() - 1 : s.size();
  for (size_t i = end; i-- > 1;) {
    if (s[i] == u'\\') return {s.substr(i + 1, end - i - 1), s.substr(0, i)};
  }
  return {s.substr(0, end), Text()};
}

Text Upcase(const Text& s) {
  Text out;
  for (char16_t c : s) out.push_back(static_cast<char16_t>(RtlUpcaseUnicodeChar(c)));
  return out;
}

struct ModelRule {
  bool suffix;
  std::vector<Text> components;  // upcased, in the order of the walk
};

// The rule a pattern is, or false when the language refuses it.
bool Compile(const Text& pattern, ModelRule* rule) {
  if (pattern.empty()) return false;
  rule->suffix = pattern[0] == u'*';
  auto split = rule->suffix ? SplitLast : SplitFirst;
  std::pair<Text, Text> part;
  if (rule->suffix) {
    part = SplitLast(SplitFirst(pattern).second);
  } else {
    if (pattern.find(u'*') < pattern.size() - 1) return false;
    part = SplitFirst(pattern);
  }
  if (part.first.empty()) return false;
  rule->components = {Upcase(part.first)};
  while (!part.second.empty() && part.second != u"*") {
    part = split(part.second);
    rule->components.push_back(Upcase(part.first));
  }
  return true;
}

std::vector<Text> Components(const Text& path, bool fromEnd) {
  std::vector<Text> out;
  Text rest = path;
  while (!rest.empty()) {
    auto part = fromEnd ? SplitLast(rest) : SplitFirst(rest);
    out.push_back(Upcase(part.first));
    rest = part.second;
  }
  return out;
}

bool ModelMatches(const std::vector<ModelRule>& rules, const Text& path) {
  const std::vector<Text> forward = Components(path, false), reverse = Components(path, true);
  for (const ModelRule& rule : rules) {
    const std::vector<Text>& walked = rule.suffix ? reverse : forward;
    if (rule.components.size() > walked.size()) continue;
    bool same = true;
    for (size_t i = 0; same && i < rule.components.size(); ++i) same = rule.components[i] == walked[i];
    if (same) return true;
  }
  return false;
}

ntsim::World* world;
RuleMgr* mgr;

std::string Printable(const Text& s) {
  std::string out;
  for (char16_t c : s) out.push_back(c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?');
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (!world) {
    world = new ntsim::World();
    mgr = new RuleMgr();
  }
  std::vector<ModelRule> model;
  size_t lines = 0;
  world->AsSystem([&] { return sk_InitRuleMgr(mgr); });
  size_t start = 0;
  while (start < size && lines < 256) {
    size_t end = start;
    while (end < size && data[end] != '\n') ++end;
    Text text;
    for (size_t i = start + 1; i < end && text.size() < 512; ++i) text.push_back(data[i]);
    const char kind = static_cast<char>(data[start]);
    UNICODE_STRING s;
    s.Length = s.MaximumLength = static_cast<USHORT>(text.size() * sizeof(char16_t));
    s.Buffer = reinterpret_cast<PWSTR>(text.data());
    if (kind == 'R') {
      NTSTATUS status = world->AsSystem([&] { return sk_AddRule(mgr, kType, &s); });
      ModelRule rule;
      bool valid = Compile(text, &rule);
      // A leading \SystemRoot is replaced by the system root's DOS path, which a machine without a
      // started driver has not got: such a pattern is refused before it is looked at.
      bool underSystemRoot = Upcase(text.substr(0, 11)) == u"\\SYSTEMROOT";
      NTSTATUS expected = underSystemRoot ? STATUS_OBJECT_PATH_NOT_FOUND : valid ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
      FUZZ_CHECK(status == expected, "pattern \"%s\": %08x, the model says %08x", Printable(text).c_str(),
                 (unsigned)status, (unsigned)expected);
      if (expected == STATUS_SUCCESS) model.push_back(rule);
    } else if (kind == 'M') {
      NTSTATUS status = world->AsSystem([&] { return sk_MatchRule(mgr, kType, &s); });
      bool expected = ModelMatches(model, text);
      FUZZ_CHECK(status == (expected ? STATUS_SUCCESS : STATUS_NOT_FOUND), "path \"%s\": %08x, the model says %s",
                 Printable(text).c_str(), (unsigned)status, expected ? "a match" : "none");
    }
    ++lines;
    start = end + 1;
  }
  world->AsSystem([&] { return sk_UninitRuleMgr(mgr); });
  return 0;
}

bool FuzzReplayFinished() {
  bool clean = !world || world->kernel().pool.Outstanding().empty();
  if (!clean) std::fprintf(stderr, "pattern_fuzz: pool left after the rules were deleted\n");
  delete mgr;
  delete world;
  mgr = nullptr;
  world = nullptr;
  return clean;
}
