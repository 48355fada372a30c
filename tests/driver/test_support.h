// Small helpers shared by the driver's tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/pool_tags.h"
#include "world.h"

namespace sentrel_test {

// A counted string over a u16string that outlives it.
inline UNICODE_STRING Counted(const std::u16string& text) {
  UNICODE_STRING s;
  s.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  s.MaximumLength = s.Length;
  s.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(text.data()));
  return s;
}

inline std::u16string Text(const UNICODE_STRING* s) {
  return std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR));
}

// Takes the rule tries' nodes and indexes out of fault injection. Every start-up adds the built-in
// rules, a few thousand such allocations; the rule engine's own tests fail each kind in turn, and
// tests that fail every allocation point of a whole load would otherwise spend minutes on them.
inline void ExemptRuleTries(ntsim::World& world) {
  world.verifier().ExemptTags({SK_TAG_PATH_RULE_NODE, SK_TAG_RULE_INDEX});
}

inline std::u16string DebugKey() { return std::u16string(ntsim::World::ServiceKeyPath()) + u"\\Debug"; }

// The debugger lines without their "[SK][...][T:0x...] " prefix, indentation kept.
inline std::vector<std::string> Messages(ntsim::World& world) {
  std::vector<std::string> out;
  for (const std::string& line : world.debug().Lines()) {
    size_t end = line.find("] ", line.find("[T:0x"));
    out.push_back(end == std::string::npos ? line : line.substr(end + 2));
  }
  return out;
}

// No pool, object reference or kernel handle of the driver's is left behind.
inline void ExpectNothingHeld(ntsim::World& world, const std::string& when = std::string()) {
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty()) << when;
  for (const auto& held : world.kernel().ob.DriverHeldReferences()) {
    ADD_FAILURE() << when << ": the driver still holds " << held.count << " reference(s) to a "
                  << ntsim::ToUtf8(held.type) << " object";
  }
  for (auto& [handle, entry] : world.kernel().ob.KernelHandles().Entries()) {
    EXPECT_FALSE(entry.driverOwned) << when;
  }
}

inline bool HasMessage(ntsim::World& world, const std::string& text) {
  for (const std::string& m : Messages(world)) {
    size_t first = m.find_first_not_of(' ');
    if (first != std::string::npos && m.substr(first) == text) return true;
  }
  return false;
}

// A line that begins with the text (after its indentation).
inline bool HasMessageStarting(ntsim::World& world, const std::string& text) {
  for (const std::string& m : Messages(world)) {
    size_t first = m.find_first_not_of(' ');
    if (first != std::string::npos && m.compare(first, text.size(), text) == 0) return true;
  }
  return false;
}

// The logged-on user whose processes the package tests describe: SENTREL-LAB\mallory, session 2.
constexpr uint64_t kMallory = 0x7A100;
inline void LogOnMallory(ntsim::World& world) {
  world.LogOn({kMallory, u"SENTREL-LAB", u"mallory", "S-1-5-21-7-8-9-1337", 2});
}
// One of her processes, started by `creator` from a DOS path, in her profile folder.
inline ntsim::ProcessSpec MallorysProcess(uint64_t pid, uint64_t creator, const std::u16string& dosPath,
                                          const std::u16string& commandLine, uint64_t logon = kMallory,
                                          ULONG integrityRid = 0x2000) {
  ntsim::ProcessSpec spec;
  spec.pid = pid;
  spec.parentPid = creator;
  spec.creatorPid = creator;
  spec.imagePath = u"\\??\\" + dosPath;
  spec.commandLine = commandLine;
  spec.currentDirectory = u"C:\\Users\\mallory\\";
  spec.logonId = logon;
  spec.integrityRid = integrityRid;
  spec.sessionId = 2;
  return spec;
}

}  // namespace sentrel_test
