// The white rules the driver holds, learned from its log as it adds them (its built-in rules at
// start, and what the consumer uploads), and which of them passes a path. The driver's log names
// the path a white rule passed, not the rule; the rules are matched here as the driver's rule
// engine matches them: by whole path components, without regard to case, a rule anchored at the
// start of the path ("\prefix\*") before one that begins with a star ("*\name.exe").
#pragma once

#include <string>
#include <vector>

namespace sentrel_sim {

class WhiteRuleLog {
 public:
  // One line of the driver's log, as the debugger printed it.
  void Observe(const std::string& line);
  // The rule of the event type that passes the path (as the driver compared it), written as it was
  // added ("\SystemRoot\*"); empty if none of the rules seen does.
  std::string Passing(unsigned eventType, const std::string& path) const;
  size_t Count() const { return rules_.size(); }

 private:
  struct Rule {
    unsigned type;
    std::string written;  // as added
    std::string stored;   // as the driver keeps it (a "\SystemRoot" or DOS pattern converted)
  };
  void Add(unsigned type, const std::string& written, bool uploaded);

  std::vector<Rule> rules_;
  bool inBuiltIns_ = false;       // between the built-in white rules' heading and their end
  bool lastUploaded_ = false;     // the newest rule came from the consumer and is not yet converted
  std::string convertedFrom_, convertedTo_;  // the newest conversion the driver logged
};

}  // namespace sentrel_sim
