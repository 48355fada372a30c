// Security descriptors, ACLs and SIDs in their absolute layout, and applying a DACL to an object.
#include <string>

#include "kernel.h"

using namespace ntsim;

namespace ntsim {

std::string SidText(PSID sid) {
  auto* s = static_cast<SID*>(sid);
  uint64_t authority = 0;
  for (int i = 0; i < 6; ++i) authority = (authority << 8) | s->IdentifierAuthority.Value[i];
  std::string text = "S-" + std::to_string(s->Revision) + "-" + std::to_string(authority);
  for (int i = 0; i < s->SubAuthorityCount; ++i) text += "-" + std::to_string(s->SubAuthority[i]);
  return text;
}

}  // namespace ntsim

NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision) {
  if (Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
  std::memset(SecurityDescriptor, 0, sizeof(SECURITY_DESCRIPTOR));
  static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor)->Revision = SECURITY_DESCRIPTOR_REVISION;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent, PACL Dacl,
                                            BOOLEAN DaclDefaulted) {
  auto* sd = static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor);
  if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
  if (sd->Control & SE_SELF_RELATIVE) return STATUS_INVALID_SECURITY_DESCR;
  if (!DaclPresent) {
    sd->Control &= ~SE_DACL_PRESENT;
    return STATUS_SUCCESS;
  }
  sd->Control |= SE_DACL_PRESENT;
  sd->Dacl = Dacl;
  if (DaclDefaulted) sd->Control |= SE_DACL_DEFAULTED;
  else sd->Control &= ~SE_DACL_DEFAULTED;
  return STATUS_SUCCESS;
}

BOOLEAN NTAPI RtlValidSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor) {
  return static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor)->Revision == SECURITY_DESCRIPTOR_REVISION;
}

NTSTATUS NTAPI RtlCreateAcl(PACL Acl, ULONG AclLength, ULONG AclRevision) {
  if (AclLength < sizeof(ACL)) return STATUS_BUFFER_TOO_SMALL;
  if (AclRevision != ACL_REVISION || AclLength > 0xFFFF) return STATUS_INVALID_PARAMETER;
  std::memset(Acl, 0, sizeof(ACL));
  Acl->AclRevision = static_cast<UCHAR>(AclRevision);
  Acl->AclSize = static_cast<USHORT>(AclLength & ~3u);
  return STATUS_SUCCESS;
}

ULONG NTAPI RtlLengthRequiredSid(ULONG SubAuthorityCount) { return 8 + 4 * SubAuthorityCount; }

ULONG NTAPI RtlLengthSid(PSID Sid) { return RtlLengthRequiredSid(static_cast<SID*>(Sid)->SubAuthorityCount); }

BOOLEAN NTAPI RtlValidSid(PSID Sid) {
  auto* s = static_cast<SID*>(Sid);
  return s && s->Revision == SID_REVISION && s->SubAuthorityCount <= SID_MAX_SUB_AUTHORITIES;
}

NTSTATUS NTAPI RtlInitializeSid(PSID Sid, PSID_IDENTIFIER_AUTHORITY IdentifierAuthority, UCHAR SubAuthorityCount) {
  if (SubAuthorityCount > SID_MAX_SUB_AUTHORITIES) return STATUS_INVALID_PARAMETER;
  auto* s = static_cast<SID*>(Sid);
  s->Revision = SID_REVISION;
  s->SubAuthorityCount = SubAuthorityCount;
  s->IdentifierAuthority = *IdentifierAuthority;
  return STATUS_SUCCESS;
}

PULONG NTAPI RtlSubAuthoritySid(PSID Sid, ULONG SubAuthority) { return &static_cast<SID*>(Sid)->SubAuthority[SubAuthority]; }

NTSTATUS NTAPI RtlAddAccessAllowedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid) {
  if (!RtlValidSid(Sid)) return STATUS_INVALID_SID;
  if (Acl->AclRevision != ACL_REVISION || AceRevision != ACL_REVISION) return STATUS_REVISION_MISMATCH;
  // Find the end of the existing entries.
  auto* cursor = reinterpret_cast<UCHAR*>(Acl + 1);
  for (USHORT i = 0; i < Acl->AceCount; ++i) cursor += reinterpret_cast<ACE_HEADER*>(cursor)->AceSize;
  ULONG sidLength = RtlLengthSid(Sid);
  ULONG aceSize = static_cast<ULONG>(offsetof(ACCESS_ALLOWED_ACE, SidStart)) + sidLength;
  if (cursor + aceSize > reinterpret_cast<UCHAR*>(Acl) + Acl->AclSize) return STATUS_ALLOTTED_SPACE_EXCEEDED;
  auto* ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(cursor);
  ace->Header.AceType = ACCESS_ALLOWED_ACE_TYPE;
  ace->Header.AceFlags = 0;
  ace->Header.AceSize = static_cast<USHORT>(aceSize);
  ace->Mask = AccessMask;
  std::memcpy(&ace->SidStart, Sid, sidLength);
  ++Acl->AceCount;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                                   PSECURITY_DESCRIPTOR SecurityDescriptor) {
  void* body = nullptr;
  ACCESS_MASK granted = 0;
  NTSTATUS status = K().ob.ReferenceByHandle(Handle, nullptr, KernelMode, 0, &body, &granted);
  if (!NT_SUCCESS(status)) return status;
  auto* sd = static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor);
  if ((SecurityInformation & DACL_SECURITY_INFORMATION) && !(granted & (WRITE_DAC | GENERIC_ALL))) {
    status = STATUS_ACCESS_DENIED;
  } else if (!sd) {
    status = STATUS_ACCESS_VIOLATION;  // as documented for a null SecurityDescriptor
  } else if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) {
    status = STATUS_INVALID_SECURITY_DESCR;
  } else if (SecurityInformation & DACL_SECURITY_INFORMATION) {
    SecurityRecord record;
    record.daclPresent = (sd->Control & SE_DACL_PRESENT) != 0;
    record.daclProtected = (sd->Control & SE_DACL_PROTECTED) != 0;
    if (record.daclPresent && sd->Dacl) {
      auto* cursor = reinterpret_cast<UCHAR*>(sd->Dacl + 1);
      for (USHORT i = 0; i < sd->Dacl->AceCount; ++i) {
        auto* ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(cursor);
        record.dacl.push_back({ace->Header.AceType, ace->Header.AceFlags, ace->Mask, SidText(&ace->SidStart)});
        cursor += ace->Header.AceSize;
      }
    }
    ObjectManager::HeaderOf(body)->security = record;
  }
  K().ob.Dereference(body);
  return status;
}
