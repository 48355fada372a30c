#include "debug_output.h"

#include <cstdio>

namespace ntsim {

void DebugOutput::Append(const std::string& piece) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (echo_) {
    std::fwrite(piece.data(), 1, piece.size(), stderr);
    std::fflush(stderr);
  }
  for (char c : piece) {
    if (c == '\n') {
      lines_.push_back(partial_);
      partial_.clear();
    } else if (c != '\r') {
      partial_.push_back(c);
    }
  }
}

std::vector<std::string> DebugOutput::Lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> DebugOutput::TakeLines() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> taken;
  taken.swap(lines_);
  return taken;
}

std::string DebugOutput::Text() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string text;
  for (auto& line : lines_) text += line + "\n";
  return text + partial_;
}

void DebugOutput::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
  partial_.clear();
}

void DebugOutput::SetEcho(bool echo) {
  std::lock_guard<std::mutex> lock(mutex_);
  echo_ = echo;
}

}  // namespace ntsim
