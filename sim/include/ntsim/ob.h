// Object manager: references, handles, names.
#pragma once

#include "ntsim/ex.h"

typedef struct _OBJECT_TYPE *POBJECT_TYPE;

typedef struct _OBJECT_NAME_INFORMATION {
  UNICODE_STRING Name;
} OBJECT_NAME_INFORMATION, *POBJECT_NAME_INFORMATION;

typedef struct _OBJECT_HANDLE_INFORMATION {
  ULONG HandleAttributes;
  ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

typedef struct _ACCESS_STATE *PACCESS_STATE;

NTSIM_BEGIN_DECLS

// As the kernel exports them: pointers to the type-object pointers.
extern POBJECT_TYPE *IoFileObjectType;
extern POBJECT_TYPE *IoDeviceObjectType;
extern POBJECT_TYPE *IoDriverObjectType;
extern POBJECT_TYPE *PsProcessType;
extern POBJECT_TYPE *PsThreadType;
extern POBJECT_TYPE *CmKeyObjectType;

LONG_PTR FASTCALL ObfReferenceObject(PVOID Object);
LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object);
NTSTATUS NTAPI ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo, ULONG Length,
                                 PULONG ReturnLength);
NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                         KPROCESSOR_MODE AccessMode, PVOID *Object,
                                         POBJECT_HANDLE_INFORMATION HandleInformation);
NTSTATUS NTAPI ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                                     ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                     KPROCESSOR_MODE AccessMode, PHANDLE Handle);
NTSTATUS NTAPI ZwClose(HANDLE Handle);
NTSTATUS NTAPI NtClose(HANDLE Handle);

NTSIM_END_DECLS

#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)
