// Logon sessions and access tokens: the machine's logon sessions (the three well-known service
// sessions from boot, users as they log on and off), and the primary token each process holds,
// a Token object that names its session, its user and its mandatory integrity label.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ob/object_manager.h"

namespace ntsim {

constexpr uint64_t kNetworkServiceLogonId = 0x3E4;
constexpr uint64_t kLocalServiceLogonId = 0x3E5;
constexpr uint64_t kSystemLogonId = 0x3E7;

struct LogonSession {
  uint64_t logonId = 0;
  std::u16string domain;  // may be empty
  std::u16string user;
  std::string sid;        // "S-1-5-21-..."
  ULONG session = 0;      // terminal-services session
};

// The body of a Token object.
struct TokenBody {
  std::vector<uint8_t> userSid;  // the SID in its binary layout
  uint64_t logonId = 0;          // the authentication id
  ULONG integrityRid = 0;        // the mandatory label's RID
  ULONG sessionId = 0;
};

// A SID in its binary layout as text ("S-1-5-18").
std::string SidText(PSID sid);
// "S-1-5-21-1-2-3" in its binary layout; false if the text is no SID.
bool SidFromText(const std::string& text, std::vector<uint8_t>* sid);

class LogonSessions {
 public:
  // The Token type, and the well-known sessions: SYSTEM, LOCAL SERVICE, NETWORK SERVICE.
  void Boot(ObjectManager& ob);
  // A user logs on (a session with that id is replaced); false for a SID that does not parse.
  bool LogOn(const LogonSession& session);
  // The session ends: GetSecurityUserInfo no longer knows it, tokens keep naming it.
  bool LogOff(uint64_t logonId);
  std::optional<LogonSession> Find(uint64_t logonId);
  // A new token for a known session (null if unknown); the caller holds its one reference.
  void* CreateToken(uint64_t logonId, ULONG integrityRid, ULONG sessionId);
  static TokenBody* Token(void* body) { return static_cast<TokenBody*>(body); }

  // How often GetSecurityUserInfo was asked, for tests.
  std::atomic<uint64_t> userInfoQueries{0};
  // Runs at the start of every GetSecurityUserInfo with the session asked about, on the calling
  // thread, when set: a test records the question or holds the caller there. Set only while no
  // thread calls the routine.
  std::function<void(uint64_t logonId)> userInfoHook;

 private:
  ObjectManager* ob_ = nullptr;
  std::mutex mutex_;
  std::map<uint64_t, LogonSession> sessions_;
};

}  // namespace ntsim
