// IoCreateDeviceSecure for drivers built without the WDK's static library: create the device,
// then apply the discretionary ACL that the SDDL string describes.
//
// The SDDL understood is what device security strings use: "D:" with optional flags ("P" for a
// protected DACL), then access-allowed entries "(A;flags;rights;;;sid)" whose rights are generic
// or standard rights by name (GA, GR, GW, GX, SD, RC, WD, WO, FA, FR, FW, FX) or a hex mask, and whose
// SID is a well-known alias (SY, BA, BU, WD, RC, AU, LS, NS) or "S-1-...". Anything else is refused
// with STATUS_INVALID_PARAMETER before the device is created.
#include "platform/nt.h"
#include "core/optional_routines.h"
#include "core/pool_tags.h"

#define SK_SDDL_MAX_ACES 16
#define SK_SDDL_MAX_SUBAUTH 8

typedef struct _SK_SDDL_ACE {
  UCHAR Flags;
  ACCESS_MASK Mask;
  UCHAR Authority;
  UCHAR SubAuthorityCount;
  ULONG SubAuthority[SK_SDDL_MAX_SUBAUTH];
} SK_SDDL_ACE;

typedef struct _SK_SDDL {
  BOOLEAN Protected;
  ULONG AceCount;
  SK_SDDL_ACE Aces[SK_SDDL_MAX_ACES];
} SK_SDDL;

typedef struct _SK_SDDL_CURSOR {
  const WCHAR *At;
  const WCHAR *End;
} SK_SDDL_CURSOR;

static BOOLEAN sk_SddlTake(SK_SDDL_CURSOR *Cursor, const char *Text) {
  const WCHAR *p = Cursor->At;
  for (; *Text; ++Text, ++p) {
    if (p >= Cursor->End || *p != (WCHAR)*Text) return FALSE;
  }
  Cursor->At = p;
  return TRUE;
}

static BOOLEAN sk_SddlNumber(SK_SDDL_CURSOR *Cursor, ULONG Base, ULONG *Value) {
  ULONG v = 0;
  const WCHAR *start = Cursor->At;
  while (Cursor->At < Cursor->End) {
    WCHAR c = *Cursor->At;
    ULONG digit;
    if (c >= L'0' && c <= L'9') digit = c - L'0';
    else if (Base == 16 && c >= L'a' && c <= L'f') digit = c - L'a' + 10;
    else if (Base == 16 && c >= L'A' && c <= L'F') digit = c - L'A' + 10;
    else break;
    v = v * Base + digit;
    ++Cursor->At;
  }
  *Value = v;
  return Cursor->At != start;
}

typedef struct _SK_SDDL_NAME {
  char Name[3];
  ACCESS_MASK Mask;
} SK_SDDL_NAME;

static const SK_SDDL_NAME SkSddlRights[] = {
    {"GA", GENERIC_ALL},     {"GR", GENERIC_READ}, {"GW", GENERIC_WRITE},     {"GX", GENERIC_EXECUTE},
    {"SD", DELETE},          {"RC", READ_CONTROL}, {"WD", WRITE_DAC},         {"WO", WRITE_OWNER},
    {"FA", FILE_ALL_ACCESS}, {"FR", 0x120089},     {"FW", 0x120116},          {"FX", 0x1200A0},
};

static BOOLEAN sk_SddlRights(SK_SDDL_CURSOR *Cursor, ACCESS_MASK *Mask) {
  *Mask = 0;
  if (sk_SddlTake(Cursor, "0x")) return sk_SddlNumber(Cursor, 16, Mask);
  while (Cursor->At < Cursor->End && *Cursor->At != L';') {
    ULONG i;
    for (i = 0; i < RTL_NUMBER_OF(SkSddlRights); ++i) {
      if (sk_SddlTake(Cursor, SkSddlRights[i].Name)) {
        *Mask |= SkSddlRights[i].Mask;
        break;
      }
    }
    if (i == RTL_NUMBER_OF(SkSddlRights)) return FALSE;
  }
  return *Mask != 0;
}

typedef struct _SK_SDDL_ALIAS {
  char Name[3];
  UCHAR Authority;
  UCHAR Count;
  ULONG SubAuthority[2];
} SK_SDDL_ALIAS;

static const SK_SDDL_ALIAS SkSddlAliases[] = {
    {"SY", 5, 1, {SECURITY_LOCAL_SYSTEM_RID, 0}},
    {"BA", 5, 2, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS}},
    {"BU", 5, 2, {SECURITY_BUILTIN_DOMAIN_RID, 0x221}},
    {"WD", 1, 1, {SECURITY_WORLD_RID, 0}},
    {"RC", 5, 1, {SECURITY_RESTRICTED_CODE_RID, 0}},
    {"AU", 5, 1, {11, 0}},
    {"LS", 5, 1, {19, 0}},
    {"NS", 5, 1, {20, 0}},
};

static BOOLEAN sk_SddlSid(SK_SDDL_CURSOR *Cursor, SK_SDDL_ACE *Ace) {
  ULONG value;
  if (sk_SddlTake(Cursor, "S-1-")) {
    if (!sk_SddlNumber(Cursor, 10, &value) || value > 0xFF) return FALSE;
    Ace->Authority = (UCHAR)value;
    Ace->SubAuthorityCount = 0;
    while (sk_SddlTake(Cursor, "-")) {
      if (Ace->SubAuthorityCount == SK_SDDL_MAX_SUBAUTH || !sk_SddlNumber(Cursor, 10, &value)) return FALSE;
      Ace->SubAuthority[Ace->SubAuthorityCount++] = value;
    }
    return Ace->SubAuthorityCount > 0;
  }
  for (ULONG i = 0; i < RTL_NUMBER_OF(SkSddlAliases); ++i) {
    if (sk_SddlTake(Cursor, SkSddlAliases[i].Name)) {
      Ace->Authority = SkSddlAliases[i].Authority;
      Ace->SubAuthorityCount = SkSddlAliases[i].Count;
      Ace->SubAuthority[0] = SkSddlAliases[i].SubAuthority[0];
      Ace->SubAuthority[1] = SkSddlAliases[i].SubAuthority[1];
      return TRUE;
    }
  }
  return FALSE;
}

static NTSTATUS sk_ParseSddl(PCUNICODE_STRING Text, SK_SDDL *Sddl) {
  SK_SDDL_CURSOR cursor;
  cursor.At = Text->Buffer;
  cursor.End = Text->Buffer + Text->Length / sizeof(WCHAR);
  RtlZeroMemory(Sddl, sizeof(*Sddl));
  if (!sk_SddlTake(&cursor, "D:")) return STATUS_INVALID_PARAMETER;
  while (cursor.At < cursor.End && *cursor.At != L'(') {
    if (sk_SddlTake(&cursor, "P")) Sddl->Protected = TRUE;
    else if (!sk_SddlTake(&cursor, "AI") && !sk_SddlTake(&cursor, "AR")) return STATUS_INVALID_PARAMETER;
  }
  while (cursor.At < cursor.End) {
    SK_SDDL_ACE *ace;
    if (Sddl->AceCount == SK_SDDL_MAX_ACES) return STATUS_INVALID_PARAMETER;
    ace = &Sddl->Aces[Sddl->AceCount];
    if (!sk_SddlTake(&cursor, "(A;")) return STATUS_INVALID_PARAMETER;
    while (cursor.At < cursor.End && *cursor.At != L';') {
      if (sk_SddlTake(&cursor, "CI")) ace->Flags |= 0x2;
      else if (sk_SddlTake(&cursor, "OI")) ace->Flags |= 0x1;
      else return STATUS_INVALID_PARAMETER;
    }
    if (!sk_SddlTake(&cursor, ";") || !sk_SddlRights(&cursor, &ace->Mask) || !sk_SddlTake(&cursor, ";;;") ||
        !sk_SddlSid(&cursor, ace) || !sk_SddlTake(&cursor, ")")) {
      return STATUS_INVALID_PARAMETER;
    }
    ++Sddl->AceCount;
  }
  return Sddl->AceCount ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// A SID of Count sub-authorities: revision, count, the 6-byte authority, then the sub-authorities.
#define SK_SID_LENGTH(Count) (8u + 4u * (ULONG)(Count))

// Builds the absolute security descriptor and its ACL in one pool block, then sets it on the device.
// The ACL and its SIDs are written here rather than with RtlCreateAcl, RtlAddAccessAllowedAce and
// RtlLengthRequiredSid, whose reference pages name no Windows version (Sentrel loads on Windows 7).
static NTSTATUS sk_ApplySddl(PDEVICE_OBJECT DeviceObject, const SK_SDDL *Sddl) {
  NTSTATUS status;
  ULONG aclSize = sizeof(ACL);
  ULONG i;
  PUCHAR block = NULL;
  PSECURITY_DESCRIPTOR sd;
  PACL acl;
  PUCHAR next;
  HANDLE handle = NULL;

  for (i = 0; i < Sddl->AceCount; ++i) {
    aclSize += (ULONG)FIELD_OFFSET(ACCESS_ALLOWED_ACE, SidStart) + SK_SID_LENGTH(Sddl->Aces[i].SubAuthorityCount);
  }
  block = (PUCHAR)ExAllocatePoolWithTag(PagedPool, sizeof(SECURITY_DESCRIPTOR) + aclSize, SK_TAG_SECURITY);
  if (!block) return STATUS_INSUFFICIENT_RESOURCES;
  RtlZeroMemory(block, sizeof(SECURITY_DESCRIPTOR) + aclSize);
  sd = (PSECURITY_DESCRIPTOR)block;
  acl = (PACL)(block + sizeof(SECURITY_DESCRIPTOR));

  acl->AclRevision = ACL_REVISION;
  acl->AclSize = (USHORT)aclSize;
  next = (PUCHAR)(acl + 1);
  for (i = 0; i < Sddl->AceCount; ++i) {
    const SK_SDDL_ACE *ace = &Sddl->Aces[i];
    ACCESS_ALLOWED_ACE *entry = (ACCESS_ALLOWED_ACE *)next;
    PUCHAR sid = (PUCHAR)&entry->SidStart;
    ULONG j;
    entry->Header.AceType = ACCESS_ALLOWED_ACE_TYPE;
    entry->Header.AceSize = (USHORT)(FIELD_OFFSET(ACCESS_ALLOWED_ACE, SidStart) + SK_SID_LENGTH(ace->SubAuthorityCount));
    entry->Mask = ace->Mask;
    sid[0] = SID_REVISION;
    sid[1] = (UCHAR)ace->SubAuthorityCount;
    sid[7] = ace->Authority;  // the authority is big-endian; ours fit its last byte
    for (j = 0; j < ace->SubAuthorityCount; ++j) RtlCopyMemory(sid + 8 + 4 * j, &ace->SubAuthority[j], sizeof(ULONG));
    ++acl->AceCount;
    next += entry->Header.AceSize;
  }

  status = RtlCreateSecurityDescriptor(sd, SECURITY_DESCRIPTOR_REVISION);
  if (NT_SUCCESS(status)) status = RtlSetDaclSecurityDescriptor(sd, TRUE, acl, FALSE);
  if (NT_SUCCESS(status) && Sddl->Protected) ((SECURITY_DESCRIPTOR *)sd)->Control |= SE_DACL_PROTECTED;
  if (NT_SUCCESS(status)) {
    // Looked up by name: its reference page names no Windows version. This runs in DriverEntry,
    // before the driver's table of such routines is filled.
    UNICODE_STRING name;
    PSK_OB_OPEN_OBJECT_BY_POINTER openObject;
    RtlInitUnicodeString(&name, L"ObOpenObjectByPointer");
    openObject = (PSK_OB_OPEN_OBJECT_BY_POINTER)MmGetSystemRoutineAddress(&name);
    status = openObject ? openObject(DeviceObject, OBJ_KERNEL_HANDLE, NULL, WRITE_DAC, NULL, KernelMode, &handle)
                        : STATUS_NOT_IMPLEMENTED;
  }
  if (NT_SUCCESS(status)) {
    status = ZwSetSecurityObject(handle, DACL_SECURITY_INFORMATION, sd);
    ZwClose(handle);
  }
  ExFreePoolWithTag(block, SK_TAG_SECURITY);
  return status;
}

extern "C" NTSTATUS IoCreateDeviceSecure(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                         PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                         ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                         PCUNICODE_STRING DefaultSDDLString, LPCGUID DeviceClassGuid,
                                         PDEVICE_OBJECT *DeviceObject) {
  // Parsed on the stack before anything exists, so a bad string costs nothing to undo.
  SK_SDDL sddl;
  NTSTATUS status;
  UNREFERENCED_PARAMETER(DeviceClassGuid);  // no per-class overrides are kept in the registry

  if (!DefaultSDDLString || !DefaultSDDLString->Buffer) return STATUS_INVALID_PARAMETER;
  status = sk_ParseSddl(DefaultSDDLString, &sddl);
  if (!NT_SUCCESS(status)) return status;
  status = IoCreateDevice(DriverObject, DeviceExtensionSize, DeviceName, DeviceType, DeviceCharacteristics, Exclusive,
                          DeviceObject);
  if (!NT_SUCCESS(status)) return status;
  status = sk_ApplySddl(*DeviceObject, &sddl);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(*DeviceObject);
    *DeviceObject = NULL;
  }
  return status;
}
