// The object manager's driver-facing routines.
#include <cstdio>

#include "kernel.h"

using namespace ntsim;

namespace {
POBJECT_TYPE g_fileType, g_deviceType, g_driverType, g_processType, g_threadType, g_keyType, g_tokenType;
}

POBJECT_TYPE *IoFileObjectType = &g_fileType;
POBJECT_TYPE *IoDeviceObjectType = &g_deviceType;
POBJECT_TYPE *IoDriverObjectType = &g_driverType;
POBJECT_TYPE *PsProcessType = &g_processType;
POBJECT_TYPE *PsThreadType = &g_threadType;
POBJECT_TYPE *CmKeyObjectType = &g_keyType;
POBJECT_TYPE *SeTokenObjectType = &g_tokenType;

namespace ntsim {

void PublishObjectTypes(ObjectManager& ob) {
  g_fileType = &ob.types.file;
  g_deviceType = &ob.types.device;
  g_driverType = &ob.types.driver;
  g_processType = &ob.types.process;
  g_threadType = &ob.types.thread;
  g_keyType = &ob.types.key;
  g_tokenType = &ob.types.token;
}

void NoteDriverReference(void* body) { ObjectManager::HeaderOf(body)->driverReferences.fetch_add(1); }

static ObjectHeader* CheckedHeader(const char* call, const void* body) {
  if (!K().ob.IsObject(body)) {
    char text[96];
    std::snprintf(text, sizeof text, "%p is not a live object", body);
    K().verifier.Violation(call, text);
    return nullptr;
  }
  return ObjectManager::HeaderOf(body);
}

std::u16string ObjectName(void* body) {
  ObjectHeader* header = ObjectManager::HeaderOf(body);
  std::u16string name;
  if (header->type->queryName && header->type->queryName(body, &name)) return name;
  return K().ob.FullName(header);
}

}  // namespace ntsim

LONG_PTR FASTCALL ObfReferenceObject(PVOID Object) {
  ObjectHeader* header = CheckedHeader("ObfReferenceObject", Object);
  if (!header) return 0;
  header->driverReferences.fetch_add(1);
  return header->pointerCount.fetch_add(1) + 1;
}

LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object) {
  ObjectHeader* header = CheckedHeader("ObfDereferenceObject", Object);
  if (!header) return 0;
  if (header->driverReferences.fetch_sub(1) <= 0) {
    header->driverReferences.fetch_add(1);
    K().verifier.Violation("ObfDereferenceObject", "the driver dropped a reference to a " +
                                                       ToUtf8(header->type->name) + " object that it did not hold");
    return 0;
  }
  long remaining = header->pointerCount.load() - 1;
  K().ob.Dereference(Object);
  return remaining;
}

// File objects are named by the I/O manager, which asks the file system: a name that does not fit
// is returned in part with STATUS_BUFFER_OVERFLOW once the buffer holds the header, and the
// query's buffer is an allocation that may fail.
static NTSTATUS QueryFileObjectName(PFILE_OBJECT file, POBJECT_NAME_INFORMATION info, ULONG length,
                                    PULONG returnLength) {
  if (K().verifier.ShouldFail("ObQueryNameString")) return STATUS_INSUFFICIENT_RESOURCES;
  std::u16string name;
  NTSTATUS status = K().io.QueryFileObjectName(file, &name);
  if (!NT_SUCCESS(status)) return status;
  const ULONG header = sizeof(OBJECT_NAME_INFORMATION);
  const ULONG bytes = static_cast<ULONG>(name.size() * sizeof(WCHAR));
  ULONG required = name.empty() ? header : header + bytes + sizeof(WCHAR);
  if (returnLength) *returnLength = required;
  if (length < header) return STATUS_INFO_LENGTH_MISMATCH;
  auto* buffer = reinterpret_cast<WCHAR*>(info + 1);
  if (name.empty()) {
    info->Name.Length = info->Name.MaximumLength = 0;
    info->Name.Buffer = nullptr;
    return STATUS_SUCCESS;
  }
  info->Name.Buffer = buffer;
  if (length < required) {
    // What fits, in whole characters; no terminator is promised.
    ULONG room = (length - header) & ~ULONG(1);
    ULONG copied = room < bytes ? room : bytes;
    std::memcpy(buffer, name.data(), copied);
    info->Name.Length = static_cast<USHORT>(copied);
    info->Name.MaximumLength = static_cast<USHORT>(room > 0xFFFE ? 0xFFFE : room);
    return STATUS_BUFFER_OVERFLOW;
  }
  std::memcpy(buffer, name.data(), bytes);
  buffer[name.size()] = 0;
  info->Name.Length = static_cast<USHORT>(bytes);
  info->Name.MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo, ULONG Length,
                                 PULONG ReturnLength) {
  ObjectHeader* header = CheckedHeader("ObQueryNameString", Object);
  if (!header) return STATUS_INVALID_PARAMETER;
  if (header->type == &K().ob.types.file) {
    return QueryFileObjectName(static_cast<PFILE_OBJECT>(Object), ObjectNameInfo, Length, ReturnLength);
  }
  std::u16string name = ObjectName(Object);
  ULONG required = sizeof(OBJECT_NAME_INFORMATION);
  if (!name.empty()) required += static_cast<ULONG>((name.size() + 1) * sizeof(WCHAR));
  if (ReturnLength) *ReturnLength = required;
  if (Length < required) return STATUS_INFO_LENGTH_MISMATCH;
  if (name.empty()) {
    ObjectNameInfo->Name.Length = 0;
    ObjectNameInfo->Name.MaximumLength = 0;
    ObjectNameInfo->Name.Buffer = nullptr;
    return STATUS_SUCCESS;
  }
  auto* buffer = reinterpret_cast<WCHAR*>(ObjectNameInfo + 1);
  std::memcpy(buffer, name.data(), name.size() * sizeof(WCHAR));
  buffer[name.size()] = 0;
  ObjectNameInfo->Name.Length = static_cast<USHORT>(name.size() * sizeof(WCHAR));
  ObjectNameInfo->Name.MaximumLength = static_cast<USHORT>(ObjectNameInfo->Name.Length + sizeof(WCHAR));
  ObjectNameInfo->Name.Buffer = buffer;
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                         KPROCESSOR_MODE AccessMode, PVOID *Object,
                                         POBJECT_HANDLE_INFORMATION HandleInformation) {
  ACCESS_MASK granted = 0;
  NTSTATUS status = K().ob.ReferenceByHandle(Handle, ObjectType, AccessMode, DesiredAccess, Object, &granted);
  if (!NT_SUCCESS(status)) return status;
  NoteDriverReference(*Object);
  if (HandleInformation) {
    HandleInformation->GrantedAccess = granted;
    HandleInformation->HandleAttributes = 0;
  }
  return STATUS_SUCCESS;
}

NTSTATUS NTAPI ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                                     ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                     PHANDLE Handle) {
  ObjectHeader* header = CheckedHeader("ObOpenObjectByPointer", Object);
  if (!header) return STATUS_INVALID_PARAMETER;
  if (ObjectType && header->type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
  if (K().verifier.ShouldFail("ObOpenObjectByPointer")) return STATUS_INSUFFICIENT_RESOURCES;
  *Handle = K().ob.InsertHandle(Object, DesiredAccess, (HandleAttributes & OBJ_KERNEL_HANDLE) != 0, true);
  return STATUS_SUCCESS;
}

static NTSTATUS CloseFor(const char* call, HANDLE Handle, KPROCESSOR_MODE mode) {
  NTSTATUS status = K().ob.CloseHandle(Handle, mode);
  if (status == STATUS_INVALID_HANDLE && mode == KernelMode) {
    char text[96];
    std::snprintf(text, sizeof text, "closing invalid handle %p", Handle);
    K().verifier.Violation(call, text);
  }
  return status;
}

NTSTATUS NTAPI ZwClose(HANDLE Handle) { return CloseFor("ZwClose", Handle, KernelMode); }
NTSTATUS NTAPI NtClose(HANDLE Handle) { return CloseFor("NtClose", Handle, ExGetPreviousMode()); }
