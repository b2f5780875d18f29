// SPDX-License-Identifier: Apache-2.0
// A USB camera as the HAL sees it. Any thread; a leaf mutex guards what it remembers, never held during a call.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_LINUXUSBDEVICE_H
#define NIMBREL2_PLATFORM_LINUX_USB_LINUXUSBDEVICE_H

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/linux/usb/UsbCore.h"

namespace Nimbrel2::Platform::Usb {

class LinuxUsbDevice final : public UsbDevice {
public:
    LinuxUsbDevice(std::shared_ptr<UsbCore> core, const DeviceRecord& listed);

    std::uint32_t GetConfigInfo(ConfigInfo* info) override;
    std::uint32_t GetSerialText(std::string* text) override;
    std::uint32_t GetSpeed(std::uint32_t* megabits) override;
    std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t* value) override;
    std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t value) override;
    std::uint32_t FireBusReset() override;
    std::uint32_t GetLinkInfo(std::uint32_t* link) override;
    std::uint32_t GetPortStatus(std::uint32_t* status) override;
    std::uint32_t GetTree(std::vector<UsbSelfId>* records, std::uint32_t* deviceId, std::uint64_t* hostKey,
                          std::uint32_t* generation) override;

private:
    /// Calls the operation with the camera's name, and remembers where that has found it.
    template <class Operation>
    std::uint32_t OnCamera(const Operation& operation);

    const std::shared_ptr<UsbCore> m_core;
    std::atomic<std::uint32_t> m_lastSpeed;
    Mutex m_mutex;
    NamedCamera m_camera NIMBREL2_GUARDED_BY(m_mutex);
};

}  // namespace Nimbrel2::Platform::Usb

#endif
