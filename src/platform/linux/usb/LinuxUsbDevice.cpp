// SPDX-License-Identifier: Apache-2.0
// A USB camera as the HAL sees it: hands everything to the core. Any thread.
#include "platform/linux/usb/LinuxUsbDevice.h"

namespace Nimbrel2::Platform::Usb {

LinuxUsbDevice::LinuxUsbDevice(std::shared_ptr<UsbCore> core, const DeviceRecord& listed)
    : m_core(std::move(core)), m_lastSpeed(listed.speed), m_camera{KeyOf(listed), PlaceOf(listed)} {}

template <class Operation>
std::uint32_t LinuxUsbDevice::OnCamera(const Operation& operation) {
    NamedCamera camera;
    {
        const LockGuard lock(m_mutex);
        camera = m_camera;
    }
    const std::uint32_t status = operation(&camera);
    const LockGuard lock(m_mutex);
    m_camera.place = std::move(camera.place);
    return status;
}

std::uint32_t LinuxUsbDevice::GetConfigInfo(ConfigInfo* info) {
    DevicePointer device;
    const std::uint32_t status = OnCamera([&](NamedCamera* camera) { return m_core->FindCamera(camera, &device); });
    if (status != HAL_OK) {
        return status;
    }
    const Descriptors& descriptors = device->descriptors;
    info->numbers = {static_cast<std::uint32_t>(descriptors.vendorId) << 16 | descriptors.productId,
                     device->bus << 8 | device->number, device->serialNumber, device->speed, descriptors.usbVersion};
    info->vendor = device->texts.vendor;
    info->model = device->texts.model;
    m_lastSpeed = device->speed;
    return HAL_OK;
}

std::uint32_t LinuxUsbDevice::GetSerialText(std::string* text) {
    if (m_core->IsClosed()) {
        return HAL_CLOSED;
    }
    const LockGuard lock(m_mutex);
    *text = m_camera.key.serial;
    return HAL_OK;
}

std::uint32_t LinuxUsbDevice::GetSpeed(std::uint32_t* megabits) {
    DevicePointer device;
    const std::uint32_t status = OnCamera([&](NamedCamera* camera) { return m_core->FindCamera(camera, &device); });
    if (status == HAL_OK) {
        m_lastSpeed = device->speed;
    }
    *megabits = m_lastSpeed;
    return status == HAL_GONE ? std::uint32_t{HAL_OK} : status;
}

std::uint32_t LinuxUsbDevice::ReadRegister(std::uint64_t address, std::uint32_t* value) {
    return OnCamera([&](NamedCamera* camera) { return m_core->ReadRegister(camera, address, value); });
}

std::uint32_t LinuxUsbDevice::WriteRegister(std::uint64_t address, std::uint32_t value) {
    return OnCamera([&](NamedCamera* camera) { return m_core->WriteRegister(camera, address, value); });
}

std::uint32_t LinuxUsbDevice::FireBusReset() {
    return OnCamera([&](NamedCamera* camera) { return m_core->Reset(camera); });
}

std::uint32_t LinuxUsbDevice::GetLinkInfo(std::uint32_t* link) {
    DevicePointer device;
    const std::uint32_t status = OnCamera([&](NamedCamera* camera) { return m_core->FindCamera(camera, &device); });
    if (status == HAL_OK) {
        *link = LinkInfo(*device);
    }
    return status;
}

std::uint32_t LinuxUsbDevice::GetPortStatus(std::uint32_t* portStatus) {
    return OnCamera([&](NamedCamera* camera) { return m_core->GetPortStatus(camera, portStatus); });
}

std::uint32_t LinuxUsbDevice::GetTree(std::vector<UsbSelfId>* records, std::uint32_t* deviceId, std::uint64_t* hostKey,
                                      std::uint32_t* generation) {
    return OnCamera(
        [&](NamedCamera* camera) { return m_core->GetTree(camera, records, deviceId, hostKey, generation); });
}

}  // namespace Nimbrel2::Platform::Usb
