// Security: SIDs, ACLs and security descriptors in their documented absolute layout.
#pragma once

#include "ntsim/status.h"

typedef struct _SID_IDENTIFIER_AUTHORITY {
  UCHAR Value[6];
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;

typedef struct _SID {
  UCHAR Revision;
  UCHAR SubAuthorityCount;
  SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
  ULONG SubAuthority[1];
} SID, *PISID;
typedef PVOID PSID;

#define SID_REVISION 1
#define SID_MAX_SUB_AUTHORITIES 15
#define SECURITY_NULL_SID_AUTHORITY {0, 0, 0, 0, 0, 0}
#define SECURITY_WORLD_SID_AUTHORITY {0, 0, 0, 0, 0, 1}
#define SECURITY_NT_AUTHORITY {0, 0, 0, 0, 0, 5}
#define SECURITY_WORLD_RID 0x00000000L
#define SECURITY_RESTRICTED_CODE_RID 0x0000000CL
#define SECURITY_LOCAL_SYSTEM_RID 0x00000012L
#define SECURITY_BUILTIN_DOMAIN_RID 0x00000020L
#define DOMAIN_ALIAS_RID_ADMINS 0x00000220L

typedef struct _ACL {
  UCHAR AclRevision;
  UCHAR Sbz1;
  USHORT AclSize;
  USHORT AceCount;
  USHORT Sbz2;
} ACL, *PACL;
#define ACL_REVISION 2

typedef struct _ACE_HEADER {
  UCHAR AceType;
  UCHAR AceFlags;
  USHORT AceSize;
} ACE_HEADER, *PACE_HEADER;
#define ACCESS_ALLOWED_ACE_TYPE 0x0
#define ACCESS_DENIED_ACE_TYPE 0x1

typedef struct _ACCESS_ALLOWED_ACE {
  ACE_HEADER Header;
  ACCESS_MASK Mask;
  ULONG SidStart;
} ACCESS_ALLOWED_ACE, *PACCESS_ALLOWED_ACE;

typedef USHORT SECURITY_DESCRIPTOR_CONTROL, *PSECURITY_DESCRIPTOR_CONTROL;
#define SE_OWNER_DEFAULTED 0x0001
#define SE_GROUP_DEFAULTED 0x0002
#define SE_DACL_PRESENT 0x0004
#define SE_DACL_DEFAULTED 0x0008
#define SE_DACL_PROTECTED 0x1000
#define SE_SELF_RELATIVE 0x8000

typedef struct _SECURITY_DESCRIPTOR {
  UCHAR Revision;
  UCHAR Sbz1;
  SECURITY_DESCRIPTOR_CONTROL Control;
  PSID Owner;
  PSID Group;
  PACL Sacl;
  PACL Dacl;
} SECURITY_DESCRIPTOR, *PISECURITY_DESCRIPTOR;
typedef PVOID PSECURITY_DESCRIPTOR;
#define SECURITY_DESCRIPTOR_REVISION 1

typedef ULONG SECURITY_INFORMATION, *PSECURITY_INFORMATION;
#define OWNER_SECURITY_INFORMATION 0x00000001L
#define GROUP_SECURITY_INFORMATION 0x00000002L
#define DACL_SECURITY_INFORMATION 0x00000004L
#define SACL_SECURITY_INFORMATION 0x00000008L

NTSIM_BEGIN_DECLS

NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision);
NTSTATUS NTAPI RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent,
                                            PACL Dacl, BOOLEAN DaclDefaulted);
BOOLEAN NTAPI RtlValidSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor);
NTSTATUS NTAPI RtlCreateAcl(PACL Acl, ULONG AclLength, ULONG AclRevision);
NTSTATUS NTAPI RtlAddAccessAllowedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid);
ULONG NTAPI RtlLengthSid(PSID Sid);
ULONG NTAPI RtlLengthRequiredSid(ULONG SubAuthorityCount);
NTSTATUS NTAPI RtlInitializeSid(PSID Sid, PSID_IDENTIFIER_AUTHORITY IdentifierAuthority, UCHAR SubAuthorityCount);
PULONG NTAPI RtlSubAuthoritySid(PSID Sid, ULONG SubAuthority);
BOOLEAN NTAPI RtlValidSid(PSID Sid);
NTSTATUS NTAPI ZwSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                                   PSECURITY_DESCRIPTOR SecurityDescriptor);

// The NT path of the process's executable ("\Device\HarddiskVolume3\Windows\notepad.exe") in one
// paged-pool block (the counted string, then its characters) that the caller frees with ExFreePool.
// Not every kernel exports it: drivers find it with MmGetSystemRoutineAddress.
NTSTATUS NTAPI SeLocateProcessImageName(PEPROCESS Process, PUNICODE_STRING *pImageFileName);

NTSIM_END_DECLS
