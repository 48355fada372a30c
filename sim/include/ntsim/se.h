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

// Tokens and logon sessions.
typedef struct _LUID {
  ULONG LowPart;
  LONG HighPart;
} LUID, *PLUID;

typedef PVOID PACCESS_TOKEN;

typedef struct _SID_AND_ATTRIBUTES {
  PSID Sid;
  ULONG Attributes;
} SID_AND_ATTRIBUTES, *PSID_AND_ATTRIBUTES;

typedef struct _TOKEN_USER {
  SID_AND_ATTRIBUTES User;
} TOKEN_USER, *PTOKEN_USER;

typedef struct _TOKEN_MANDATORY_LABEL {
  SID_AND_ATTRIBUTES Label;
} TOKEN_MANDATORY_LABEL, *PTOKEN_MANDATORY_LABEL;

typedef enum _TOKEN_INFORMATION_CLASS {
  TokenUser = 1,
  TokenGroups,
  TokenPrivileges,
  TokenOwner,
  TokenPrimaryGroup,
  TokenDefaultDacl,
  TokenSource,
  TokenType,
  TokenImpersonationLevel,
  TokenStatistics,
  TokenRestrictedSids,
  TokenSessionId,
  TokenGroupsAndPrivileges,
  TokenSessionReference,
  TokenSandBoxInert,
  TokenAuditPolicy,
  TokenOrigin,
  TokenElevationType,
  TokenLinkedToken,
  TokenElevation,
  TokenHasRestrictions,
  TokenAccessInformation,
  TokenVirtualizationAllowed,
  TokenVirtualizationEnabled,
  TokenIntegrityLevel,
} TOKEN_INFORMATION_CLASS, *PTOKEN_INFORMATION_CLASS;

typedef enum _TOKEN_TYPE { TokenPrimary = 1, TokenImpersonation } TOKEN_TYPE;
typedef enum _SECURITY_IMPERSONATION_LEVEL {
  SecurityAnonymous,
  SecurityIdentification,
  SecurityImpersonation,
  SecurityDelegation
} SECURITY_IMPERSONATION_LEVEL;

typedef struct _TOKEN_STATISTICS {
  LUID TokenId;
  LUID AuthenticationId;
  LARGE_INTEGER ExpirationTime;
  TOKEN_TYPE TokenType;
  SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
  ULONG DynamicCharged;
  ULONG DynamicAvailable;
  ULONG GroupCount;
  ULONG PrivilegeCount;
  LUID ModifiedId;
} TOKEN_STATISTICS, *PTOKEN_STATISTICS;

#define TOKEN_ASSIGN_PRIMARY 0x0001
#define TOKEN_DUPLICATE 0x0002
#define TOKEN_IMPERSONATE 0x0004
#define TOKEN_QUERY 0x0008
#define TOKEN_QUERY_SOURCE 0x0010
#define TOKEN_READ (0x00020000L | TOKEN_QUERY)
#define TOKEN_ALL_ACCESS 0x000F01FF

#define SECURITY_MANDATORY_UNTRUSTED_RID 0x00000000L
#define SECURITY_MANDATORY_LOW_RID 0x00001000L
#define SECURITY_MANDATORY_MEDIUM_RID 0x00002000L
#define SECURITY_MANDATORY_MEDIUM_PLUS_RID 0x00002100L
#define SECURITY_MANDATORY_HIGH_RID 0x00003000L
#define SECURITY_MANDATORY_SYSTEM_RID 0x00004000L
#define SECURITY_MANDATORY_PROTECTED_PROCESS_RID 0x00005000L

// The logon-session query of the kernel security support library (ksecdd.sys).
typedef struct _SECURITY_USER_DATA {
  UNICODE_STRING UserName;
  UNICODE_STRING LogonDomainName;
  UNICODE_STRING LogonServer;
  PSID pSid;
} SECURITY_USER_DATA, *PSECURITY_USER_DATA, SecurityUserData, *PSecurityUserData;
#define UNDERSTANDS_LONG_NAMES 1
#define NO_LONG_NAMES 2

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

// Tokens: the process's primary token, referenced (release it with PsDereferencePrimaryToken or
// ObDereferenceObject); its authentication id (the logon session); what SeQueryInformationToken
// answers (TokenIntegrityLevel and TokenSessionId: the DWORD itself, stored in place of the pointer;
// TokenUser and TokenStatistics: a paged-pool block the caller frees with ExFreePool);
// ZwQueryInformationToken (TokenUser, TokenStatistics, TokenSessionId, TokenIntegrityLevel).
extern POBJECT_TYPE *SeTokenObjectType;
PACCESS_TOKEN NTAPI PsReferencePrimaryToken(PEPROCESS Process);
VOID NTAPI PsDereferencePrimaryToken(PACCESS_TOKEN PrimaryToken);
NTSTATUS NTAPI SeQueryAuthenticationIdToken(PACCESS_TOKEN Token, PLUID AuthenticationId);
NTSTATUS NTAPI SeQueryInformationToken(PACCESS_TOKEN Token, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                       PVOID *TokenInformation);
NTSTATUS NTAPI ZwQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                       PVOID TokenInformation, ULONG TokenInformationLength, PULONG ReturnLength);
// "S-1-5-18": with AllocateDestinationString the buffer comes from paged pool and is freed with
// RtlFreeUnicodeString.
NTSTATUS NTAPI RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid,
                                            BOOLEAN AllocateDestinationString);
VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
// ksecdd.sys: the user of a logon session; the answer is freed with LsaFreeReturnBuffer.
NTSTATUS NTAPI GetSecurityUserInfo(PLUID LogonId, ULONG Flags, PSECURITY_USER_DATA *UserInformation);
NTSTATUS NTAPI LsaFreeReturnBuffer(PVOID Buffer);

NTSIM_END_DECLS
