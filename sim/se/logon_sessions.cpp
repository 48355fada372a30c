// Logon sessions and the token objects that name them.
#include "se/logon_sessions.h"

#include <new>

#include "kernel.h"

namespace ntsim {

namespace {

void DestroyToken(void* body) { static_cast<TokenBody*>(body)->~TokenBody(); }

bool ParseNumber(const std::string& text, size_t* at, uint64_t limit, uint64_t* value) {
  size_t start = *at;
  uint64_t number = 0;
  while (*at < text.size() && text[*at] >= '0' && text[*at] <= '9') {
    number = number * 10 + static_cast<uint64_t>(text[*at] - '0');
    if (number > limit) return false;
    ++*at;
  }
  *value = number;
  return *at > start;
}

}  // namespace

bool SidFromText(const std::string& text, std::vector<uint8_t>* sid) {
  if (text.compare(0, 2, "S-") != 0) return false;
  size_t at = 2;
  uint64_t revision = 0, authority = 0;
  if (!ParseNumber(text, &at, 0xFF, &revision) || revision != SID_REVISION) return false;
  if (at >= text.size() || text[at] != '-') return false;
  ++at;
  if (!ParseNumber(text, &at, 0xFFFFFFFFFFFFull, &authority)) return false;
  std::vector<uint32_t> subAuthorities;
  while (at < text.size()) {
    uint64_t value = 0;
    if (text[at] != '-') return false;
    ++at;
    if (!ParseNumber(text, &at, 0xFFFFFFFFull, &value)) return false;
    subAuthorities.push_back(static_cast<uint32_t>(value));
  }
  if (subAuthorities.empty() || subAuthorities.size() > SID_MAX_SUB_AUTHORITIES) return false;
  sid->assign(8 + 4 * subAuthorities.size(), 0);
  (*sid)[0] = SID_REVISION;
  (*sid)[1] = static_cast<uint8_t>(subAuthorities.size());
  for (int i = 0; i < 6; ++i) (*sid)[2 + i] = static_cast<uint8_t>(authority >> (8 * (5 - i)));
  // Sub-authorities are little-endian ULONGs, as the kernel lays them out.
  std::memcpy(sid->data() + 8, subAuthorities.data(), 4 * subAuthorities.size());
  return true;
}

void LogonSessions::Boot(ObjectManager& ob) {
  ob_ = &ob;
  ob.types.token.onDelete = DestroyToken;
  ob.types.token.destroyBody = DestroyToken;
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_[kSystemLogonId] = {kSystemLogonId, u"NT AUTHORITY", u"SYSTEM", "S-1-5-18", 0};
  sessions_[kLocalServiceLogonId] = {kLocalServiceLogonId, u"NT AUTHORITY", u"LOCAL SERVICE", "S-1-5-19", 0};
  sessions_[kNetworkServiceLogonId] = {kNetworkServiceLogonId, u"NT AUTHORITY", u"NETWORK SERVICE", "S-1-5-20", 0};
}

bool LogonSessions::LogOn(const LogonSession& session) {
  std::vector<uint8_t> sid;
  if (!SidFromText(session.sid, &sid)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_[session.logonId] = session;
  return true;
}

bool LogonSessions::LogOff(uint64_t logonId) {
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_.erase(logonId) != 0;
}

std::optional<LogonSession> LogonSessions::Find(uint64_t logonId) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sessions_.find(logonId);
  if (it == sessions_.end()) return std::nullopt;
  return it->second;
}

void* LogonSessions::CreateToken(uint64_t logonId, ULONG integrityRid, ULONG sessionId) {
  std::optional<LogonSession> session = Find(logonId);
  if (!session) return nullptr;
  TokenBody* token = ob_->CreateObjectOf<TokenBody>(&ob_->types.token);
  SidFromText(session->sid, &token->userSid);
  token->logonId = logonId;
  token->integrityRid = integrityRid;
  token->sessionId = sessionId;
  return token;
}

}  // namespace ntsim
