#include "names/token_query.h"

#include "core/debug_log.h"
#include "core/sentrel_data.h"
#include "names/string_block.h"

#define SK_MODULE SK_TRACE_TOOL

// TOKEN_USER and the longest SID (15 sub-authorities) fit.
#define SK_TOKEN_USER_BUFFER_SIZE 88

typedef struct _SK_INTEGRITY_CODE {
  ULONG Rid;
  ULONG Code;
} SK_INTEGRITY_CODE;

static const SK_INTEGRITY_CODE SkIntegrityCodes[] = {
    {0x0000, 0},  // untrusted
    {0x1000, 1},  // low
    {0x2000, 2},  // medium
    {0x2100, 3},  // medium plus
    {0x3000, 4},  // high
    {0x4000, 5},  // system
    {0x5000, 6},  // protected process
};

// What the three service sessions are called, without asking the security subsystem.
typedef struct _SK_SERVICE_LOGON {
  ULONG64 LogonId;
  UNICODE_STRING UserName;
  UNICODE_STRING UserSid;
  const char *Name;  // for the allocation failure's log line
} SK_SERVICE_LOGON;

static const SK_SERVICE_LOGON SkServiceLogons[] = {
    {SK_LOGON_ID_NETWORK_SERVICE, SK_CONSTANT_STRING(L"NT AUTHORITY\\NETWORK SERVICE"), SK_CONSTANT_STRING(L"S-1-5-20"),
     "NetService"},
    {SK_LOGON_ID_LOCAL_SERVICE, SK_CONSTANT_STRING(L"NT AUTHORITY\\LOCAL SERVICE"), SK_CONSTANT_STRING(L"S-1-5-19"),
     "LocalService"},
    {SK_LOGON_ID_SYSTEM, SK_CONSTANT_STRING(L"NT AUTHORITY\\SYSTEM"), SK_CONSTANT_STRING(L"S-1-5-18"), "System"},
};

static const SK_SERVICE_LOGON *sk_FindServiceLogon(ULONG64 LogonId) {
  ULONG i;
  for (i = 0; i < RTL_NUMBER_OF(SkServiceLogons); ++i) {
    if (SkServiceLogons[i].LogonId == LogonId) return &SkServiceLogons[i];
  }
  return NULL;
}

// A new string block of the given capacity holding a copy of Text.
static PUNICODE_STRING sk_CopyToBlock(PCUNICODE_STRING Text, ULONG Capacity) {
  PUNICODE_STRING block = skt_AllocateUnicodeStringSelf(PagedPool, Capacity);
  if (block) RtlCopyUnicodeString(block, Text);
  return block;
}

// The checks both token queries start with, and the process's primary token, referenced.
static NTSTATUS sk_ReferenceToken(PEPROCESS Process, PVOID Output, PACCESS_TOKEN *Token) {
  if (!Process || !Output) {
    SK_ERROR("Invalid Parameter\n");
    return STATUS_INVALID_PARAMETER;
  }
  *Token = PsReferencePrimaryToken(Process);
  if (!*Token) {
    SK_ERROR("PsReferencePrimaryToken fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  return STATUS_SUCCESS;
}

NTSTATUS skt_SeQueryInformationToken(PEPROCESS Process, PULONG IntegrityCode) {
  NTSTATUS status = STATUS_SUCCESS;
  PACCESS_TOKEN token;
  PVOID rid = NULL;  // TokenIntegrityLevel comes back as the RID itself, in place of the pointer
  ULONG i;

  PAGED_CODE();
  SK_ENTER();
  status = sk_ReferenceToken(Process, IntegrityCode, &token);
  if (!NT_SUCCESS(status)) goto Exit;
  status = SeQueryInformationToken(token, TokenIntegrityLevel, &rid);
  // ObDereferenceObject releases a token on every kernel (PsDereferencePrimaryToken's reference
  // page names no Windows version).
  ObDereferenceObject(token);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("SeQueryInformationToken", status);
    goto Exit;
  }
  for (i = 0; i < RTL_NUMBER_OF(SkIntegrityCodes); ++i) {
    if (SkIntegrityCodes[i].Rid == (ULONG)(ULONG_PTR)rid) {
      *IntegrityCode = SkIntegrityCodes[i].Code;
      break;
    }
  }
Exit:
  SK_LEAVE(status);
  return status;
}

// The token's authentication id as one 64-bit number.
static NTSTATUS sk_TokenLogonId(PACCESS_TOKEN Token, PULONG64 LogonId) {
  LUID luid;
  NTSTATUS status = SentrelData.SeQueryAuthenticationIdToken(Token, &luid);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("SeQueryAuthenticationIdToken", status);
    return status;
  }
  *LogonId = ((ULONG64)(ULONG)luid.HighPart << 32) | luid.LowPart;
  return STATUS_SUCCESS;
}

NTSTATUS skt_GetLogonId(PEPROCESS Process, PULONG64 LogonId) {
  NTSTATUS status = STATUS_SUCCESS;
  PACCESS_TOKEN token;

  PAGED_CODE();
  SK_ENTER();
  status = sk_ReferenceToken(Process, LogonId, &token);
  if (!NT_SUCCESS(status)) goto Exit;
  status = sk_TokenLogonId(token, LogonId);
  ObDereferenceObject(token);
  if (NT_SUCCESS(status)) SK_INFO("Process 0x%p LogonId:0x%0x\n", Process, (ULONG)*LogonId);
Exit:
  SK_LEAVE(status);
  return status;
}

// The token's user SID as text, through a kernel handle to the token.
static NTSTATUS sk_QueryTokenUserSid(PACCESS_TOKEN Token, PUNICODE_STRING *UserSid) {
  NTSTATUS status;
  HANDLE handle = NULL;
  ULONG64 buffer[SK_TOKEN_USER_BUFFER_SIZE / sizeof(ULONG64)];  // 8-byte aligned, as TOKEN_USER is
  PSID sid;
  ULONG returned = 0;
  UNICODE_STRING text = {0, 0, NULL};

  status = SentrelData.ObOpenObjectByPointer(Token, OBJ_KERNEL_HANDLE, NULL, TOKEN_READ, *SeTokenObjectType,
                                             KernelMode, &handle);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ObOpenObjectByPointer", status);
    return status;
  }
  status = ZwQueryInformationToken(handle, TokenUser, buffer, sizeof(buffer), &returned);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("ZwQueryInformationToken", status);
    goto Exit;
  }
  // The answer's first field points at the SID, inside the same buffer.
  RtlCopyMemory(&sid, (PUCHAR)buffer + FIELD_OFFSET(TOKEN_USER, User.Sid), sizeof(sid));
  status = RtlConvertSidToUnicodeString(&text, sid, TRUE);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("RtlConvertSidToUnicodeString", status);
    goto Exit;
  }
  *UserSid = sk_CopyToBlock(&text, text.Length);
  RtlFreeUnicodeString(&text);
  if (!*UserSid) {
    SK_ERROR("xUserSid alloc fail\n");
    status = STATUS_INSUFFICIENT_RESOURCES;
  }
Exit:
  ZwClose(handle);
  return status;
}

NTSTATUS skt_GetUserSid_Process(PEPROCESS Process, PUNICODE_STRING *UserSid) {
  NTSTATUS status = STATUS_SUCCESS;
  PACCESS_TOKEN token = NULL;
  PUNICODE_STRING sid = NULL;
  const SK_SERVICE_LOGON *service;
  ULONG64 logonId = 0;

  PAGED_CODE();
  SK_ENTER();
  if (!Process || !UserSid) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  token = PsReferencePrimaryToken(Process);
  if (!token) {
    SK_ERROR("PsReferencePrimaryToken fail\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  status = sk_TokenLogonId(token, &logonId);
  if (!NT_SUCCESS(status)) goto Exit;
  service = sk_FindServiceLogon(logonId);
  if (service) {
    sid = sk_CopyToBlock(&service->UserSid, service->UserSid.Length);
    if (!sid) {
      SK_ERROR("%s xUserSid alloc fail\n", service->Name);
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Exit;
    }
  } else {
    status = sk_QueryTokenUserSid(token, &sid);
    if (!NT_SUCCESS(status)) goto Exit;
  }
  *UserSid = sid;
  SK_INFO("Process 0x%p UserSid:%wZ\n", Process, sid);
Exit:
  if (token) ObDereferenceObject(token);
  SK_LEAVE(status);
  return status;
}

// The user of a logon session that is not one of the service sessions, from the security support
// library: "DOMAIN\name", or the bare name when the domain is empty.
static NTSTATUS sk_QuerySessionUserName(ULONG64 LogonId, PUNICODE_STRING *UserName) {
  NTSTATUS status;
  LUID luid;
  PSECURITY_USER_DATA info = NULL;
  PUNICODE_STRING name;
  UNICODE_STRING backslash = SK_CONSTANT_STRING(L"\\");

  luid.LowPart = (ULONG)LogonId;
  luid.HighPart = (LONG)(LogonId >> 32);
  status = GetSecurityUserInfo(&luid, UNDERSTANDS_LONG_NAMES, &info);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("GetSecurityUserInfo", status);
    return status;
  }
  if (info->LogonDomainName.Length) {
    name = skt_AllocateUnicodeStringSelf(PagedPool, (ULONG)info->UserName.Length + info->LogonDomainName.Length + 32);
    if (name) {
      RtlCopyUnicodeString(name, &info->LogonDomainName);
      RtlAppendUnicodeStringToString(name, &backslash);
      RtlAppendUnicodeStringToString(name, &info->UserName);
    }
  } else {
    name = sk_CopyToBlock(&info->UserName, (ULONG)info->UserName.Length + 16);
  }
  LsaFreeReturnBuffer(info);
  if (!name) {
    SK_ERROR("pUserName alloc fail\n");
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  *UserName = name;
  return STATUS_SUCCESS;
}

NTSTATUS skt_GetUserName(PEPROCESS Process, PUNICODE_STRING *UserName) {
  NTSTATUS status = STATUS_SUCCESS;
  PEPROCESS ownProcess = NULL;
  KAPC_STATE apcState;
  ULONG64 logonId = 0;
  const SK_SERVICE_LOGON *service;
  PUNICODE_STRING name = NULL;

  PAGED_CODE();
  SK_ENTER();
  if (!UserName) {
    SK_ERROR("Invalid Parameter\n");
    status = STATUS_INVALID_PARAMETER;
    goto Exit;
  }
  // A thread attached to another process asks from its own. Its own process is looked up by id
  // (the routine that hands it out directly has no documented first Windows version).
  if (PsGetProcessId(IoGetCurrentProcess()) != PsGetCurrentProcessId()) {
    if (NT_SUCCESS(PsLookupProcessByProcessId(PsGetCurrentProcessId(), &ownProcess))) {
      KeStackAttachProcess((PKPROCESS)ownProcess, &apcState);
    } else {
      ownProcess = NULL;
    }
  }

  status = skt_GetLogonId(Process, &logonId);
  if (!NT_SUCCESS(status)) {
    SK_FAIL("skt_GetLogonId", status);
    goto Detach;
  }
  service = sk_FindServiceLogon(logonId);
  if (service) {
    name = sk_CopyToBlock(&service->UserName, (ULONG)service->UserName.Length + 16);
    if (!name) {
      SK_ERROR("%s pUserName alloc fail\n", service->Name);
      status = STATUS_INSUFFICIENT_RESOURCES;
      goto Detach;
    }
  } else {
    status = sk_QuerySessionUserName(logonId, &name);
    if (!NT_SUCCESS(status)) goto Detach;
  }
  *UserName = name;
  SK_INFO("Process 0x%p UserName:%wZ\n", Process, name);

Detach:
  if (ownProcess) {
    KeUnstackDetachProcess(&apcState);
    ObDereferenceObject(ownProcess);
  }
Exit:
  SK_LEAVE(status);
  return status;
}
