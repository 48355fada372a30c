// Tokens and logon sessions as drivers see them: each process's primary token names its logon
// session, user and integrity label; the security support library describes a session.
#include <gtest/gtest.h>

#include <string>

#include "sim_test_support.h"
#include "world.h"

using namespace ntsim;

namespace {

std::u16string Text(const UNICODE_STRING& s) { return std::u16string(reinterpret_cast<const char16_t*>(s.Buffer), s.Length / 2); }

// What the calls above took they gave back: no reference, handle or pool block is left.
void ExpectNothingHeld(World& world) {
  EXPECT_TRUE(world.kernel().ob.DriverHeldReferences().empty());
  EXPECT_TRUE(world.kernel().pool.Outstanding().empty());
  for (auto& [handle, entry] : world.kernel().ob.KernelHandles().Entries()) EXPECT_FALSE(entry.driverOwned);
}

uint64_t LogonOf(PEPROCESS process) {
  PACCESS_TOKEN token = PsReferencePrimaryToken(process);
  LUID luid = {};
  EXPECT_EQ(SeQueryAuthenticationIdToken(token, &luid), STATUS_SUCCESS);
  ObfDereferenceObject(token);
  return (static_cast<uint64_t>(luid.HighPart) << 32) | luid.LowPart;
}

ULONG IntegrityOf(PEPROCESS process) {
  PACCESS_TOKEN token = PsReferencePrimaryToken(process);
  PVOID value = nullptr;
  EXPECT_EQ(SeQueryInformationToken(token, TokenIntegrityLevel, &value), STATUS_SUCCESS);
  PsDereferencePrimaryToken(token);
  return static_cast<ULONG>(reinterpret_cast<uintptr_t>(value));
}

TEST(SecurityTest, ProcessesInheritTheirCreatorsTokenUnlessTold) {
  World world;
  world.LogOn({0x51000, u"", u"kiosk", "S-1-5-21-1-2-3-1105", 2});
  ProcessSpec spec;
  spec.imagePath = u"\\??\\C:\\Windows\\explorer.exe";
  spec.logonId = World::LoggedOnUserLogonId();
  spec.integrityRid = SECURITY_MANDATORY_MEDIUM_RID;
  UserProcess& shell = world.CreateProcess(spec);
  ProcessSpec child;
  child.imagePath = u"\\??\\C:\\Windows\\System32\\cmd.exe";
  child.parentPid = shell.Id();
  UserProcess& cmd = world.CreateProcess(child);
  child.logonId = 0x51000;
  child.integrityRid = SECURITY_MANDATORY_LOW_RID;
  UserProcess& kiosk = world.CreateProcess(child);

  world.AsSystem([&] {
    EXPECT_EQ(LogonOf(world.kernel().ps.System()), 0x3E7u);
    EXPECT_EQ(IntegrityOf(world.kernel().ps.System()), ULONG(SECURITY_MANDATORY_SYSTEM_RID));
    EXPECT_EQ(LogonOf(shell.Process()), World::LoggedOnUserLogonId());
    EXPECT_EQ(LogonOf(cmd.Process()), World::LoggedOnUserLogonId());
    EXPECT_EQ(IntegrityOf(cmd.Process()), ULONG(SECURITY_MANDATORY_MEDIUM_RID));
    EXPECT_EQ(LogonOf(kiosk.Process()), 0x51000u);
    EXPECT_EQ(IntegrityOf(kiosk.Process()), ULONG(SECURITY_MANDATORY_LOW_RID));
    // The session id comes back as the value, as the integrity level does.
    PACCESS_TOKEN token = PsReferencePrimaryToken(kiosk.Process());
    PVOID session = nullptr;
    EXPECT_EQ(SeQueryInformationToken(token, TokenSessionId, &session), STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(session), 1u);  // the process's session, not the user's
    PVOID statistics = nullptr;
    ASSERT_EQ(SeQueryInformationToken(token, TokenStatistics, &statistics), STATUS_SUCCESS);
    EXPECT_EQ(static_cast<PTOKEN_STATISTICS>(statistics)->AuthenticationId.LowPart, 0x51000u);
    ExFreePool(statistics);
    EXPECT_EQ(SeQueryInformationToken(token, TokenGroups, &statistics), STATUS_INVALID_INFO_CLASS);
    ObfDereferenceObject(token);
  });
  ExpectNothingHeld(world);
}

TEST(SecurityTest, TokenUserThroughAHandleFollowsTheBufferProtocol) {
  World world;
  world.AsSystem([&] {
    PACCESS_TOKEN token = PsReferencePrimaryToken(world.kernel().ps.System());
    HANDLE handle = nullptr;
    ASSERT_EQ(ObOpenObjectByPointer(token, OBJ_KERNEL_HANDLE, nullptr, TOKEN_READ, *SeTokenObjectType, KernelMode,
                                    &handle),
              STATUS_SUCCESS);
    alignas(8) UCHAR buffer[88];
    ULONG needed = 0;
    // S-1-5-18: the 16-byte TOKEN_USER and a 12-byte SID.
    std::memset(buffer, 0xAB, sizeof buffer);
    EXPECT_EQ(ZwQueryInformationToken(handle, TokenUser, buffer, 27, &needed), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(needed, 28u);
    EXPECT_EQ(buffer[0], 0xAB) << "nothing is written to a short buffer";
    ASSERT_EQ(ZwQueryInformationToken(handle, TokenUser, buffer, sizeof buffer, &needed), STATUS_SUCCESS);
    UNICODE_STRING text = {};
    ASSERT_EQ(RtlConvertSidToUnicodeString(&text, reinterpret_cast<PTOKEN_USER>(buffer)->User.Sid, TRUE),
              STATUS_SUCCESS);
    EXPECT_EQ(Text(text), u"S-1-5-18");
    RtlFreeUnicodeString(&text);
    EXPECT_EQ(text.Buffer, nullptr);
    // A caller's own buffer too short for the text.
    WCHAR small[4];
    UNICODE_STRING fixed = {0, sizeof small, small};
    EXPECT_EQ(RtlConvertSidToUnicodeString(&fixed, reinterpret_cast<PTOKEN_USER>(buffer)->User.Sid, FALSE),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    // A handle without TOKEN_QUERY is refused.
    ASSERT_EQ(ObOpenObjectByPointer(token, OBJ_KERNEL_HANDLE, nullptr, TOKEN_DUPLICATE, *SeTokenObjectType,
                                    KernelMode, &handle),
              STATUS_SUCCESS);
    EXPECT_EQ(ZwQueryInformationToken(handle, TokenUser, buffer, sizeof buffer, &needed), STATUS_ACCESS_DENIED);
    ZwClose(handle);
    // The token is no process.
    EXPECT_EQ(ObOpenObjectByPointer(token, OBJ_KERNEL_HANDLE, nullptr, TOKEN_READ, *PsProcessType, KernelMode,
                                    &handle),
              STATUS_OBJECT_TYPE_MISMATCH);
    ObfDereferenceObject(token);
  });
  ExpectNothingHeld(world);
}

TEST(SecurityTest, TheSecuritySupportLibraryDescribesLoggedOnSessionsOnly) {
  World world;
  world.LogOn({0x77000, u"", u"kiosk", "S-1-5-21-9-8-7-1001", 3});
  world.AsSystem([&] {
    auto describe = [](uint64_t id, std::u16string* domain, std::u16string* user, std::string* sid) {
      LUID luid = {static_cast<ULONG>(id), static_cast<LONG>(id >> 32)};
      PSECURITY_USER_DATA data = nullptr;
      NTSTATUS status = GetSecurityUserInfo(&luid, UNDERSTANDS_LONG_NAMES, &data);
      if (!NT_SUCCESS(status)) return status;
      *domain = Text(data->LogonDomainName);
      *user = Text(data->UserName);
      *sid = SidText(data->pSid);
      EXPECT_EQ(LsaFreeReturnBuffer(data), STATUS_SUCCESS);
      return status;
    };
    std::u16string domain, user;
    std::string sid;
    EXPECT_EQ(describe(0x3E5, &domain, &user, &sid), STATUS_SUCCESS);
    EXPECT_EQ(domain + u"\\" + user, u"NT AUTHORITY\\LOCAL SERVICE");
    EXPECT_EQ(sid, "S-1-5-19");
    EXPECT_EQ(describe(World::LoggedOnUserLogonId(), &domain, &user, &sid), STATUS_SUCCESS);
    EXPECT_EQ(domain + u"\\" + user, u"SENTREL-LAB\\analyst");
    EXPECT_EQ(describe(0x77000, &domain, &user, &sid), STATUS_SUCCESS);
    EXPECT_EQ(domain, u"");
    EXPECT_EQ(sid, "S-1-5-21-9-8-7-1001");
    EXPECT_EQ(describe(0x12345, &domain, &user, &sid), STATUS_NO_SUCH_LOGON_SESSION);
  });
  EXPECT_EQ(world.kernel().se.userInfoQueries.load(), 4u);
  world.LogOff(0x77000);
  world.AsSystem([&] {
    LUID luid = {0x77000, 0};
    PSECURITY_USER_DATA data = nullptr;
    EXPECT_EQ(GetSecurityUserInfo(&luid, 0, &data), STATUS_NO_SUCH_LOGON_SESSION);
  });
  EXPECT_EQ(NtSimSharedUserData.NtMajorVersion, 10u);
  ExpectNothingHeld(world);
}

TEST(SecurityTest, SidTextRoundTripsAndRefusesWhatIsNoSid) {
  std::vector<uint8_t> sid;
  ASSERT_TRUE(SidFromText("S-1-5-21-3623811015-3361044348-30300820-1013", &sid));
  EXPECT_EQ(sid.size(), 28u);
  EXPECT_EQ(SidText(sid.data()), "S-1-5-21-3623811015-3361044348-30300820-1013");
  for (const char* bad : {"", "S-1", "S-2-5-18", "S-1-5", "S-1-5-", "S-1-5-18x", "S-1-5-4294967296",
                          "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"}) {
    EXPECT_FALSE(SidFromText(bad, &sid)) << bad;
  }
}

}  // namespace
