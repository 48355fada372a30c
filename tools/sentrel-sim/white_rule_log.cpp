#include "white_rule_log.h"

#include <cctype>

#include "sentrel/event_types.h"

namespace sentrel_sim {

namespace {

// The message of a log line: without the "[SK][LEVEL][T:...]" heading and the indentation.
std::string Message(const std::string& line) {
  size_t start = 0;
  if (line.rfind("[SK]", 0) == 0) {
    size_t thread = line.find("[T:");
    size_t end = thread == std::string::npos ? std::string::npos : line.find(']', thread);
    if (end != std::string::npos) start = end + 1;
  }
  while (start < line.size() && line[start] == ' ') ++start;
  return line.substr(start);
}

bool StartsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

bool EqualNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i]))) return false;
  }
  return true;
}

// Components as the driver's dissection takes them from the front: one leading backslash goes.
std::vector<std::string> Components(const std::string& path) {
  std::vector<std::string> parts;
  size_t at = !path.empty() && path[0] == '\\' ? 1 : 0;
  while (at < path.size()) {
    size_t slash = path.find('\\', at);
    if (slash == std::string::npos) slash = path.size();
    if (slash > at) parts.push_back(path.substr(at, slash - at));
    at = slash + 1;
  }
  return parts;
}

bool EventTypeNamed(const std::string& name, unsigned* type) {
  for (unsigned t = 0; t < SK_EVENT_TYPE_COUNT; ++t) {
    if (name == sk_EventTypeName(t)) {
      *type = t;
      return true;
    }
  }
  return false;
}

}  // namespace

void WhiteRuleLog::Add(unsigned type, const std::string& written, bool uploaded) {
  std::string stored = written;
  if (!uploaded && written == convertedFrom_) stored = convertedTo_;  // converted before it is announced
  rules_.push_back(Rule{type, written, stored});
  lastUploaded_ = uploaded;
  convertedFrom_.clear();
  convertedTo_.clear();
}

void WhiteRuleLog::Observe(const std::string& line) {
  std::string text = Message(line);
  if (text == "[sk_AddDefauleWhiteRule] Add Default White Rule") {
    inBuiltIns_ = true;
  } else if (StartsWith(text, "sk_AddDefauleWhiteRule -> ")) {
    inBuiltIns_ = false;
  } else if (StartsWith(text, "Add White Rule [")) {
    // The consumer's: "Add White Rule [type][pattern]".
    size_t close = text.find("][");
    if (close == std::string::npos || text.back() != ']') return;
    std::string number = text.substr(16, close - 16);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos || number.size() > 9) return;
    Add(static_cast<unsigned>(std::stoul(number)), text.substr(close + 2, text.size() - close - 3), true);
  } else if (StartsWith(text, "sk_AddWhiteRule fail")) {
    if (lastUploaded_) rules_.pop_back();  // the consumer's rule was refused
    lastUploaded_ = false;
  } else if (inBuiltIns_ && StartsWith(text, "Add ET_")) {
    // A built-in rule: "Add ET_IMAGE_LOAD Rule \SystemRoot\* Success" (or "... fail Status:...").
    size_t rule = text.find(" Rule ");
    const std::string success = " Success";
    if (rule == std::string::npos || text.size() < rule + 6 + success.size() ||
        text.compare(text.size() - success.size(), success.size(), success) != 0) {
      return;
    }
    unsigned type;
    if (!EventTypeNamed(text.substr(4, rule - 4), &type)) return;
    Add(type, text.substr(rule + 6, text.size() - rule - 6 - success.size()), false);
  } else if (size_t arrow = text.find(" -> "); arrow != std::string::npos && text.find('\\') < arrow) {
    // A pattern's conversion: "\SystemRoot\* -> \??\C:\Windows\*". A built-in rule's comes before
    // its announcement, an uploaded rule's after.
    std::string from = text.substr(0, arrow), to = text.substr(arrow + 4);
    if (lastUploaded_ && !rules_.empty() && rules_.back().written == from) {
      rules_.back().stored = to;
      lastUploaded_ = false;
    } else {
      convertedFrom_ = from;
      convertedTo_ = to;
    }
  }
}

std::string WhiteRuleLog::Passing(unsigned eventType, const std::string& path) const {
  std::vector<std::string> parts = Components(path);
  const Rule* best = nullptr;
  size_t bestLength = 0;
  bool bestAnchored = false;
  for (const Rule& rule : rules_) {
    if (rule.type != eventType || rule.stored.empty()) continue;
    bool anchored = rule.stored[0] != '*';
    std::vector<std::string> pattern = Components(anchored ? rule.stored : rule.stored.substr(1));
    if (anchored && !pattern.empty() && pattern.back() == "*") pattern.pop_back();  // the subtree
    if (pattern.empty() || pattern.size() > parts.size()) continue;
    // Reached from the end, a path's first component keeps its leading backslash: a rule that
    // spans the whole of such a path never matches it.
    if (!anchored && pattern.size() == parts.size() && !path.empty() && path[0] == '\\') continue;
    size_t offset = anchored ? 0 : parts.size() - pattern.size();
    bool match = true;
    for (size_t i = 0; i < pattern.size() && match; ++i) match = EqualNoCase(pattern[i], parts[offset + i]);
    if (!match) continue;
    // The driver's walk stops at the first rule it meets: anchored ones first, the shortest first.
    if (!best || (anchored && !bestAnchored) || (anchored == bestAnchored && pattern.size() < bestLength)) {
      best = &rule;
      bestLength = pattern.size();
      bestAnchored = anchored;
    }
  }
  return best ? best->written : std::string();
}

}  // namespace sentrel_sim
