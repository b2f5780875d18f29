// SPDX-License-Identifier: Apache-2.0
// USB operations on a HAL entry. Any thread, no lock during a HAL call.
#include "common/UsbInterface.h"

namespace Nimbrel2 {

namespace {
constexpr std::uint64_t MaxTreeRecords = 1024;
constexpr std::uint32_t SuperSpeedMegabits = 5000;

InterfaceType TypeAtSpeed(std::uint32_t megabits) {
    return megabits >= SuperSpeedMegabits ? INTERFACE_USB_3 : INTERFACE_USB_2;
}
}  // namespace

UsbInterface::UsbInterface(void* entry) : HardwareInterface(entry) {}

std::uint32_t UsbInterface::ReleaseCamera() { return m_entry.Release(HAL_UsbFreeCamera); }

std::uint32_t UsbInterface::ReleaseDevice() { return m_entry.Release(HAL_UsbFreeCamera); }

std::uint32_t UsbInterface::GetConfigInfo(std::uint32_t* vidPid, std::uint32_t* busAndAddress,
                                          std::uint32_t* serialNumber, std::uint32_t* speed, std::uint32_t* version,
                                          char* vendor, char* model, std::uint32_t* vendorSize,
                                          std::uint32_t* modelSize) {
    std::uint32_t megabits = 0;
    const std::uint32_t status = OnEntry(HAL_UsbGetConfigInfo, vidPid, busAndAddress, serialNumber, &megabits, version,
                                         vendor, model, vendorSize, modelSize);
    if (status == HAL_OK) {
        *speed = megabits;
        m_lastType = TypeAtSpeed(megabits);  // so that the kind is known even if the camera goes before anybody asks
    }
    return status;
}

int UsbInterface::GetUsbSelfIds(unsigned int* deviceId, std::uint64_t* hostKey, std::uint64_t* count,
                                UsbSelfId* records) {
    std::vector<UsbSelfId> reading(MaxTreeRecords);
    std::uint64_t found = reading.size();
    std::uint32_t generation = 0;
    const std::uint32_t status = OnEntry(HAL_UsbGetSelfIds, reading.data(), &found, deviceId, hostKey, &generation);
    if (status != HAL_OK) {
        return static_cast<int>(status);
    }
    if (found > reading.size()) {
        return HAL_BAD_ANSWER;  // more than there was room for
    }
    if (records != nullptr) {
        return static_cast<int>(m_tree.Fetch(generation, count, records));
    }
    reading.resize(found);
    m_tree.Keep(std::move(reading), generation);
    *count = found;
    return HAL_OK;
}

std::uint32_t UsbInterface::WriteRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t value,
                                          std::uint32_t flags) {
    return OnEntry(HAL_UsbWriteRegister, address, selector, value, flags);
}

std::uint32_t UsbInterface::ReadRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t* value) {
    return OnEntry(HAL_UsbReadRegister, address, selector, value);
}

InterfaceType UsbInterface::GetInterfaceType() {
    std::uint32_t speed = 0;
    if (OnEntry(HAL_UsbGetSpeed, &speed) == HAL_OK) {
        m_lastType = TypeAtSpeed(speed);
    }
    return m_lastType;
}

std::uint32_t UsbInterface::FireBusReset() { return OnEntry(HAL_UsbFireBusReset); }

std::uint32_t UsbInterface::GetCameraInfo(CameraInfo* info) {
    std::uint32_t serialNumber = 0;
    std::uint32_t ignored = 0;
    std::uint32_t vendorSize = CameraInfo::TextCapacity;
    std::uint32_t modelSize = CameraInfo::TextCapacity;
    CameraInfo found;
    std::uint32_t status = GetConfigInfo(&ignored, &ignored, &serialNumber, &ignored, &ignored, found.vendorName,
                                         found.modelName, &vendorSize, &modelSize);
    if (status != HAL_OK) {
        return status;
    }
    std::uint32_t serialSize = CameraInfo::TextCapacity;
    status = OnEntry(HAL_UsbGetSerialText, found.serialText, &serialSize);
    if (status != HAL_OK) {
        return status;
    }
    TerminateText(found.vendorName);
    TerminateText(found.modelName);
    TerminateText(found.serialText);
    found.serialNumber = serialNumber;
    found.interfaceType = GetInterfaceType();
    *info = found;
    return HAL_OK;
}

std::uint32_t UsbInterface::GetLinkSpeed(std::uint32_t* megabits) {
    const std::uint32_t status = OnEntry(HAL_UsbGetSpeed, megabits);
    return status == HAL_OK && *megabits == 0 ? std::uint32_t{HAL_NOT_SUPPORTED} : status;
}

std::uint32_t UsbInterface::GetLinkInfo(unsigned int* link) { return OnEntry(HAL_UsbGetLinkInfo, link); }

std::uint32_t UsbInterface::GetPortStatus(unsigned int* status) { return OnEntry(HAL_UsbGetPortStatus, status); }

}  // namespace Nimbrel2
