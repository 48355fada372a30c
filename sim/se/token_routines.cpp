// What drivers may ask about tokens and logon sessions: the primary token of a process, its logon
// session, user, integrity label and session, SIDs as text, and the security support library's
// description of a logon session (ksecdd.sys).
#include <cstdio>

#include "kernel.h"

using namespace ntsim;

namespace ntsim {
void NoteDriverReference(void* body);  // a reference handed to the driver, which must drop it
}

KUSER_SHARED_DATA NtSimSharedUserData;

namespace ntsim {
void SetSharedUserDataVersion(int windowsMajor) {
  NtSimSharedUserData.NtMajorVersion = static_cast<ULONG>(windowsMajor);
  NtSimSharedUserData.NtMinorVersion = windowsMajor == 6 ? 1 : 0;  // Windows 7 is 6.1
}
}  // namespace ntsim

namespace {

constexpr ULONG kTokenInformationTag = 0x69546553;  // "SeTi"
constexpr ULONG kSidStringTag = 0x73536553;         // "SeSs"
constexpr ULONG kUserInfoTag = 0x69556553;          // "SeUi"

void CheckPassive(const char* call) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) K().verifier.Violation(call, "called above PASSIVE_LEVEL");
}

// The token object the driver hands in, or null after a violation.
TokenBody* CheckedToken(const char* call, PACCESS_TOKEN Token) {
  Kernel& k = K();
  if (!k.ob.IsObject(Token) || ObjectManager::HeaderOf(Token)->type != &k.ob.types.token) {
    char text[96];
    std::snprintf(text, sizeof text, "%p is not a token object", Token);
    k.verifier.Violation(call, text);
    return nullptr;
  }
  return LogonSessions::Token(Token);
}

LUID ToLuid(uint64_t id) {
  LUID luid;
  luid.LowPart = static_cast<ULONG>(id);
  luid.HighPart = static_cast<LONG>(id >> 32);
  return luid;
}

// The fixed-size answers of a token: what fills `bytes` bytes at `out`, the SID (if any) after them.
struct TokenAnswer {
  std::vector<uint8_t> bytes;
  size_t sidOffset = 0;  // TokenUser: where the SID starts, to point the structure at it
};

bool BuildAnswer(const TokenBody& token, TOKEN_INFORMATION_CLASS cls, TokenAnswer* answer) {
  switch (cls) {
    case TokenUser: {
      answer->sidOffset = sizeof(TOKEN_USER);
      answer->bytes.assign(sizeof(TOKEN_USER) + token.userSid.size(), 0);
      std::memcpy(answer->bytes.data() + sizeof(TOKEN_USER), token.userSid.data(), token.userSid.size());
      return true;
    }
    case TokenStatistics: {
      TOKEN_STATISTICS statistics = {};
      statistics.TokenId = ToLuid(reinterpret_cast<uintptr_t>(&token) >> 4);
      statistics.AuthenticationId = ToLuid(token.logonId);
      statistics.ExpirationTime.QuadPart = 0x7FFFFFFFFFFFFFFFLL;
      statistics.TokenType = TokenPrimary;
      statistics.ImpersonationLevel = SecurityAnonymous;
      answer->bytes.assign(sizeof statistics, 0);
      std::memcpy(answer->bytes.data(), &statistics, sizeof statistics);
      return true;
    }
    case TokenSessionId:
    case TokenIntegrityLevel: {
      ULONG value = cls == TokenSessionId ? token.sessionId : token.integrityRid;
      answer->bytes.assign(sizeof value, 0);
      std::memcpy(answer->bytes.data(), &value, sizeof value);
      return true;
    }
    default:
      return false;  // the other classes are not simulated
  }
}

// Points a TOKEN_USER at the SID that follows it in the same buffer.
void FixUpSid(TOKEN_INFORMATION_CLASS cls, uint8_t* buffer, size_t sidOffset) {
  if (cls != TokenUser) return;
  auto* user = reinterpret_cast<PTOKEN_USER>(buffer);
  user->User.Sid = buffer + sidOffset;
  user->User.Attributes = 0;
}

}  // namespace

PACCESS_TOKEN NTAPI PsReferencePrimaryToken(PEPROCESS Process) {
  CheckPassive("PsReferencePrimaryToken");
  Kernel& k = K();
  if (!Process->token) return nullptr;
  k.ob.Reference(Process->token);
  NoteDriverReference(Process->token);
  return Process->token;
}

VOID NTAPI PsDereferencePrimaryToken(PACCESS_TOKEN PrimaryToken) {
  if (KeGetCurrentIrql() >= DISPATCH_LEVEL) {
    K().verifier.Violation("PsDereferencePrimaryToken", "called at DISPATCH_LEVEL or above");
  }
  if (!CheckedToken("PsDereferencePrimaryToken", PrimaryToken)) return;
  ObfDereferenceObject(PrimaryToken);
}

NTSTATUS NTAPI SeQueryAuthenticationIdToken(PACCESS_TOKEN Token, PLUID AuthenticationId) {
  CheckPassive("SeQueryAuthenticationIdToken");
  TokenBody* token = CheckedToken("SeQueryAuthenticationIdToken", Token);
  if (!token) return STATUS_INVALID_PARAMETER;
  *AuthenticationId = ToLuid(token->logonId);
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI SeQueryInformationToken(PACCESS_TOKEN Token, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                       PVOID* TokenInformation) {
  CheckPassive("SeQueryInformationToken");
  Kernel& k = K();
  TokenBody* token = CheckedToken("SeQueryInformationToken", Token);
  if (!token) return STATUS_INVALID_PARAMETER;
  TokenAnswer answer;
  if (!BuildAnswer(*token, TokenInformationClass, &answer)) return STATUS_INVALID_INFO_CLASS;
  if (TokenInformationClass == TokenSessionId || TokenInformationClass == TokenIntegrityLevel) {
    // These two come back as the value itself, not as a pointer to it.
    ULONG value;
    std::memcpy(&value, answer.bytes.data(), sizeof value);
    *reinterpret_cast<PULONG>(TokenInformation) = value;
    return STATUS_SUCCESS;
  }
  auto* block = static_cast<uint8_t*>(
      k.pool.Allocate(PagedPool, answer.bytes.size(), kTokenInformationTag, "SeQueryInformationToken"));
  if (!block) return STATUS_INSUFFICIENT_RESOURCES;
  std::memcpy(block, answer.bytes.data(), answer.bytes.size());
  FixUpSid(TokenInformationClass, block, answer.sidOffset);
  *TokenInformation = block;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                       PVOID TokenInformation, ULONG TokenInformationLength, PULONG ReturnLength) {
  CheckPassive("ZwQueryInformationToken");
  Kernel& k = K();
  void* body = nullptr;
  ACCESS_MASK granted = 0;
  NTSTATUS status = k.ob.ReferenceByHandle(TokenHandle, &k.ob.types.token, KernelMode, 0, &body, &granted);
  if (!NT_SUCCESS(status)) return status;
  TokenAnswer answer;
  if (!(granted & TOKEN_QUERY)) {
    status = STATUS_ACCESS_DENIED;
  } else if (!BuildAnswer(*LogonSessions::Token(body), TokenInformationClass, &answer)) {
    status = STATUS_INVALID_INFO_CLASS;
  } else {
    if (ReturnLength) *ReturnLength = static_cast<ULONG>(answer.bytes.size());
    if (TokenInformationLength < answer.bytes.size()) {
      status = STATUS_BUFFER_TOO_SMALL;  // nothing is written
    } else {
      auto* out = static_cast<uint8_t*>(TokenInformation);
      std::memcpy(out, answer.bytes.data(), answer.bytes.size());
      FixUpSid(TokenInformationClass, out, answer.sidOffset);
    }
  }
  k.ob.Dereference(body);
  return status;
}

NTSTATUS NTAPI RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid,
                                            BOOLEAN AllocateDestinationString) {
  if (KeGetCurrentIrql() > APC_LEVEL) {
    K().verifier.Violation("RtlConvertSidToUnicodeString", "called above APC_LEVEL");
  }
  if (!RtlValidSid(Sid)) return STATUS_INVALID_SID;
  std::string text = SidText(Sid);
  ULONG bytes = static_cast<ULONG>(text.size() * sizeof(WCHAR));
  if (AllocateDestinationString) {
    auto* buffer = static_cast<PWCH>(
        K().pool.Allocate(PagedPool, bytes + sizeof(WCHAR), kSidStringTag, "RtlConvertSidToUnicodeString"));
    if (!buffer) return STATUS_NO_MEMORY;
    UnicodeString->Buffer = buffer;
    UnicodeString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
  } else if (UnicodeString->MaximumLength < bytes + sizeof(WCHAR)) {
    return STATUS_BUFFER_OVERFLOW;
  }
  for (size_t i = 0; i < text.size(); ++i) UnicodeString->Buffer[i] = static_cast<WCHAR>(text[i]);
  UnicodeString->Buffer[text.size()] = 0;
  UnicodeString->Length = static_cast<USHORT>(bytes);
  return STATUS_SUCCESS;
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
  if (KeGetCurrentIrql() > APC_LEVEL) K().verifier.Violation("RtlFreeUnicodeString", "called above APC_LEVEL");
  if (UnicodeString->Buffer) K().pool.Free(UnicodeString->Buffer, 0, false, "RtlFreeUnicodeString");
  UnicodeString->Buffer = nullptr;
  UnicodeString->Length = 0;
  UnicodeString->MaximumLength = 0;
}

NTSTATUS NTAPI GetSecurityUserInfo(PLUID LogonId, ULONG Flags, PSECURITY_USER_DATA* UserInformation) {
  (void)Flags;  // documented as not used
  CheckPassive("GetSecurityUserInfo");
  Kernel& k = K();
  k.se.userInfoQueries.fetch_add(1);
  uint64_t id = 0;
  if (LogonId) {
    id = (static_cast<uint64_t>(static_cast<ULONG>(LogonId->HighPart)) << 32) | LogonId->LowPart;
  } else {
    // No id: the session of the calling thread's process.
    _KPROCESS* process = CurrentThread()->process;
    if (process->token) id = LogonSessions::Token(process->token)->logonId;
  }
  if (k.se.userInfoHook) k.se.userInfoHook(id);
  std::optional<LogonSession> session = k.se.Find(id);
  if (!session) return STATUS_NO_SUCH_LOGON_SESSION;
  std::vector<uint8_t> sid;
  SidFromText(session->sid, &sid);
  // One block: the record, then the user name, the domain, the (empty) server, each terminated,
  // then the SID.
  const std::u16string server;
  size_t strings = (session->user.size() + session->domain.size() + server.size() + 3) * sizeof(WCHAR);
  size_t size = sizeof(SECURITY_USER_DATA) + ((strings + 3) & ~size_t(3)) + sid.size();  // the SID 4-aligned
  auto* data =
      static_cast<PSECURITY_USER_DATA>(k.pool.Allocate(PagedPool, size, kUserInfoTag, "GetSecurityUserInfo"));
  if (!data) return STATUS_INSUFFICIENT_RESOURCES;
  auto* cursor = reinterpret_cast<WCHAR*>(data + 1);
  auto place = [&cursor](UNICODE_STRING* target, const std::u16string& text) {
    std::memcpy(cursor, text.data(), text.size() * sizeof(WCHAR));
    cursor[text.size()] = 0;
    target->Buffer = cursor;
    target->Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    target->MaximumLength = static_cast<USHORT>(target->Length + sizeof(WCHAR));
    cursor += text.size() + 1;
  };
  place(&data->UserName, session->user);
  place(&data->LogonDomainName, session->domain);
  place(&data->LogonServer, server);
  auto* sidStart = reinterpret_cast<uint8_t*>(data + 1) + ((strings + 3) & ~size_t(3));
  std::memcpy(sidStart, sid.data(), sid.size());
  data->pSid = sidStart;
  *UserInformation = data;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI LsaFreeReturnBuffer(PVOID Buffer) {
  if (!Buffer) return STATUS_INVALID_PARAMETER;
  K().pool.Free(Buffer, 0, false, "LsaFreeReturnBuffer");
  return STATUS_SUCCESS;
}
