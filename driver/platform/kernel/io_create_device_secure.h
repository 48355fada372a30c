// IoCreateDeviceSecure: the WDK ships it as a static library (wdmsec), so we provide our own.
// It creates the device and then applies the security descriptor of the SDDL string.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

NTSTATUS IoCreateDeviceSecure(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                              DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PCUNICODE_STRING DefaultSDDLString, LPCGUID DeviceClassGuid,
                              PDEVICE_OBJECT *DeviceObject);

#ifdef __cplusplus
}
#endif
