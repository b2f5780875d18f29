// SPDX-License-Identifier: Apache-2.0
// The status of the port that a camera is on. Runs on its caller's thread; m_mutex is only taken to look devices up,
// and no lock is held while a hub is asked.
#include <libusb.h>

#include <algorithm>
#include <array>

#include "platform/base/Sysfs.h"
#include "platform/linux/usb/UsbCore.h"

namespace Nimbrel2::Platform::Usb {

namespace {

// GetPortStatus (USB 2.0 11.24.2.7): a class request to the hub, which goes past the interface that the kernel holds.
constexpr std::uint8_t FromHubsPort = 0xA3;
constexpr std::uint8_t GetStatusRequest = 0x00;
constexpr std::uint16_t StatusBytes = 4;

bool IsSuspended(const DeviceRecord& device) {
    SysfsDirectory directory;
    std::string text;
    return directory.Open(device.path) == 0 && directory.ReadText("power/runtime_status", &text) == 0 &&
           text == "suspended";
}

}  // namespace

DevicePointer UsbCore::FindHubAbove(const DeviceRecord& device) const {
    const std::vector<std::uint8_t> ports(device.ports.begin(), device.ports.end() - 1);
    const LockGuard lock(m_mutex);
    const auto found = std::find_if(m_devices.begin(), m_devices.end(), [&](const DevicePointer& other) {
        return other->bus == device.bus && other->ports == ports;
    });
    return found == m_devices.end() ? nullptr : *found;
}

// HAL_PERMISSION: the hub may not be opened.
std::uint32_t UsbCore::AskHub(const DeviceRecord& hub, std::uint8_t port, std::uint32_t* status) {
    OpenDevice open;
    if (open.OpenNode(NodePath(hub.bus, hub.number)) != 0) {
        return HAL_PERMISSION;
    }
    if (const std::uint32_t opened = open.Wrap(m_context, hub.descriptors); opened != HAL_OK) {
        return opened;
    }
    std::array<std::uint8_t, StatusBytes> bytes{};
    const int result = libusb_control_transfer(open.Get(), FromHubsPort, GetStatusRequest, 0, port, bytes.data(),
                                               StatusBytes, static_cast<unsigned int>(m_timings.portStatusTry.count()));
    if (result < 0) {
        return StatusOfLibusb(result);
    }
    if (result != StatusBytes) {
        return HAL_BAD_ANSWER;
    }
    *status = static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
              static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
    return HAL_OK;
}

std::uint32_t UsbCore::GetPortStatus(NamedCamera* camera, std::uint32_t* status) {
    DevicePointer device;
    if (const std::uint32_t found = FindNow(camera, &device); found != HAL_OK) {
        return found;
    }
    const DevicePointer hub = FindHubAbove(*device);
    std::uint32_t asked = hub != nullptr ? AskHub(*hub, device->ports.back(), status) : std::uint32_t{HAL_PERMISSION};
    if (asked == HAL_PERMISSION) {
        *status = PortStatus(device->speed, IsSuspended(*device));
        asked = HAL_OK;
    }
    DevicePointer now;
    const std::uint32_t still = FindNow(camera, &now);
    return still == HAL_OK ? asked : still;
}

}  // namespace Nimbrel2::Platform::Usb
