// The kernel debugger's output: DbgPrint pieces are joined into lines as a debugger shows them.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace ntsim {

class DebugOutput {
 public:
  void Append(const std::string& piece);
  std::vector<std::string> Lines();  // complete lines, without their line ends
  // The complete lines so far, which the output then forgets: for a reader that follows it as it
  // grows (a long run would otherwise keep, and copy, every line it ever printed).
  std::vector<std::string> TakeLines();
  std::string Text();                // everything, including an unfinished last line
  void Clear();
  void SetEcho(bool echo);           // also write every piece to stderr as it comes

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::string partial_;
  bool echo_ = false;
};

}  // namespace ntsim
