// The device on Windows: CreateFileW, DeviceIoControl and CloseHandle on "\\.\Sentrel".
#include <windows.h>

#include "sentrel_sdk/device.h"

namespace sentrel_sdk {

namespace {

class WindowsDevice : public Device {
 public:
  explicit WindowsDevice(HANDLE handle) : handle_(handle) {}
  ~WindowsDevice() override { CloseHandle(handle_); }
  WindowsDevice(const WindowsDevice&) = delete;
  WindowsDevice& operator=(const WindowsDevice&) = delete;

  DeviceAnswer Control(uint32_t code, const void* in, uint32_t inLength, void* out, uint32_t outLength) override {
    DWORD bytes = 0;
    DeviceAnswer answer;
    // The handle is synchronous: the call returns once the driver has completed the request.
    if (!DeviceIoControl(handle_, code, const_cast<void*>(in), inLength, out, outLength, &bytes, nullptr)) {
      answer.error = GetLastError();
    }
    answer.bytes = bytes;
    return answer;
  }

 private:
  HANDLE handle_;
};

}  // namespace

std::unique_ptr<Device> OpenSentrelDevice(uint32_t* error) {
  HANDLE handle = CreateFileW(L"\\\\.\\Sentrel", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    *error = GetLastError();
    return nullptr;
  }
  *error = 0;
  return std::make_unique<WindowsDevice>(handle);
}

}  // namespace sentrel_sdk
