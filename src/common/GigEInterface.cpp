// SPDX-License-Identifier: Apache-2.0
// GigE operations on a HAL entry. Any thread, no lock during a HAL call.
#include "common/GigEInterface.h"

#include <limits>

#include "common/DiscoveryRecord.h"

namespace Nimbrel2 {

namespace {
// GigE Vision bootstrap registers, and the bit of the first that says whether the second is there.
constexpr std::uint32_t GvcpCapability = 0x0934;
constexpr std::uint32_t HasLinkSpeed = 0x10000000;
constexpr std::uint32_t LinkSpeed = 0x0670;

bool IsRegisterAddress(std::uint64_t address) { return address <= std::numeric_limits<std::uint32_t>::max(); }
}  // namespace

GigEInterface::GigEInterface(void* entry) : HardwareInterface(entry) {}

std::uint32_t GigEInterface::ReleaseCamera() { return m_entry.Release(HAL_GigEFreeCamera); }

std::uint32_t GigEInterface::ReleaseDevice() { return m_entry.Release(HAL_GigEFreeCamera); }

std::uint32_t GigEInterface::GetConfigInfo(std::uint32_t* macHigh, std::uint32_t* macLow, std::uint32_t* serialNumber,
                                           std::uint32_t* version, std::uint32_t* deviceMode, char* vendor, char* model,
                                           std::uint32_t* vendorSize, std::uint32_t* modelSize) {
    return OnEntry(HAL_GigEGetConfigInfo, macHigh, macLow, serialNumber, version, deviceMode, vendor, model, vendorSize,
                   modelSize);
}

std::uint32_t GigEInterface::WriteRegister(std::uint64_t address, std::uint32_t, std::uint32_t value, std::uint32_t) {
    return IsRegisterAddress(address) ? OnEntry(HAL_GigEWriteRegister, static_cast<std::uint32_t>(address), value)
                                      : static_cast<std::uint32_t>(HAL_INVALID_ARGUMENT);
}

std::uint32_t GigEInterface::ReadRegister(std::uint64_t address, std::uint32_t, std::uint32_t* value) {
    return IsRegisterAddress(address) ? ReadGVCPRegister(static_cast<unsigned int>(address), value)
                                      : static_cast<std::uint32_t>(HAL_INVALID_ARGUMENT);
}

InterfaceType GigEInterface::GetInterfaceType() { return INTERFACE_GIGE; }

std::uint32_t GigEInterface::GetCameraInfo(CameraInfo* info) {
    GvcpDiscoveryRecord record{};
    const std::uint32_t status = OnEntry(HAL_GigEGetDiscoveryRecord, &record);
    if (status != HAL_OK) {
        return status;
    }
    CameraInfo found;
    FillCameraInfo(record, &found);
    CopyRecordText(record.deviceVersion, found.deviceVersion);
    CopyRecordText(record.serialNumber, found.serialText);
    *info = found;
    return HAL_OK;
}

std::uint32_t GigEInterface::GetLinkSpeed(std::uint32_t* megabits) {
    std::uint32_t capability = 0;
    std::uint32_t status = OnEntry(HAL_GigEReadRegister, GvcpCapability, &capability);
    if (status != HAL_OK) {
        return status;
    }
    if ((capability & HasLinkSpeed) == 0) {
        return HAL_NOT_SUPPORTED;
    }
    status = OnEntry(HAL_GigEReadRegister, LinkSpeed, megabits);
    return status == HAL_OK && *megabits == 0 ? std::uint32_t{HAL_NOT_SUPPORTED} : status;
}

bool GigEInterface::IsInMonitorMode() {
    std::uint32_t monitor = 0;
    return OnEntry(HAL_GigEIsInMonitorMode, &monitor) != HAL_OK || monitor != 0;
}

std::uint32_t GigEInterface::ReadGVCPRegister(unsigned int address, unsigned int* value) {
    return OnEntry(HAL_GigEReadRegister, address, value);
}

std::uint32_t GigEInterface::GetLocalApplicationPort(unsigned int* port) {
    return OnEntry(HAL_GigEGetLocalApplicationPort, port);
}

std::uint32_t GigEInterface::GetLocalApplicationIPAddress(unsigned int* ipAddress) {
    return OnEntry(HAL_GigEGetLocalApplicationIpAddress, ipAddress);
}

}  // namespace Nimbrel2
