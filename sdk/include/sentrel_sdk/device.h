// The consumer's door to Sentrel's device, the one part of the library that differs by platform:
// a device-control request answered as Windows answers DeviceIoControl, with the Win32 error code
// (0 for success) and the bytes transferred. On Windows, OpenSentrelDevice opens "\\.\Sentrel"
// (sdk/src/platform/windows_device.cpp); tests put the simulated machine behind the same class.
#pragma once

#include <cstdint>
#include <memory>

namespace sentrel_sdk {

// The Win32 errors a consumer tells apart (winerror.h values; the driver's NTSTATUS reaches user
// mode translated into these).
constexpr uint32_t kErrorFileNotFound = 2;         // ERROR_FILE_NOT_FOUND: no such device
constexpr uint32_t kErrorAccessDenied = 5;         // ERROR_ACCESS_DENIED
constexpr uint32_t kErrorInvalidFunction = 1;      // ERROR_INVALID_FUNCTION (STATUS_NOT_IMPLEMENTED)
constexpr uint32_t kErrorInvalidData = 13;         // ERROR_INVALID_DATA: an answer that does not add up
constexpr uint32_t kErrorInvalidParameter = 87;    // ERROR_INVALID_PARAMETER
constexpr uint32_t kErrorInsufficientBuffer = 122;  // ERROR_INSUFFICIENT_BUFFER (STATUS_BUFFER_TOO_SMALL)
constexpr uint32_t kErrorMoreData = 234;           // ERROR_MORE_DATA (STATUS_BUFFER_OVERFLOW)
constexpr uint32_t kErrorNoSystemResources = 1450;  // ERROR_NO_SYSTEM_RESOURCES (STATUS_INSUFFICIENT_RESOURCES)

struct DeviceAnswer {
  uint32_t error = 0;  // Win32 error code; 0 is success
  uint32_t bytes = 0;  // bytes written into the output buffer
  bool Ok() const { return error == 0; }
};

class Device {
 public:
  virtual ~Device() = default;
  virtual DeviceAnswer Control(uint32_t code, const void* in, uint32_t inLength, void* out, uint32_t outLength) = 0;
};

#ifdef _WIN32
// "\\.\Sentrel" opened for reading and writing; null, with the Win32 error in *error, when it
// cannot be opened (ERROR_FILE_NOT_FOUND: the driver is not running). Closing the device is
// destroying it.
std::unique_ptr<Device> OpenSentrelDevice(uint32_t* error);
#endif

}  // namespace sentrel_sdk
