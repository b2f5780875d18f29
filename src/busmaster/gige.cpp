// SPDX-License-Identifier: Apache-2.0
// GigE addresses, discovery and control state. Any thread; takes no lock but the look-up's, for the control state only.
#include <memory>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"
#include "common/DiscoveryRecord.h"
#include "common/GigEInterface.h"

namespace Nimbrel2 {

namespace {

// GigE Vision bootstrap registers.
constexpr unsigned int ControlChannelPrivilegeRegister = 0x0A00;
constexpr unsigned int PrimaryApplicationPortRegister = 0x0A04;
constexpr unsigned int PrimaryApplicationIpAddressRegister = 0x0A14;

std::uint32_t HighPart(const MACAddress& mac) {
    return static_cast<std::uint32_t>(mac.octets[0]) << 8 | static_cast<std::uint32_t>(mac.octets[1]);
}

std::uint32_t LowPart(const MACAddress& mac) {
    return PackIPAddress(IPAddress{{mac.octets[2], mac.octets[3], mac.octets[4], mac.octets[5]}});
}

Error NoAcknowledge() { return NIMBREL2_ERROR(ERROR_TIMEOUT, "Timeout waiting for ForceIP ACK."); }

// What these operations, which need no start, answer in a forked process: the HAL is the other one's.
Error ForkedProcess() { return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED, "Object not initialized."); }

Error RegisterUnreadable() { return NIMBREL2_ERROR(ERROR_REGISTER_FAILED, "Fail to read CCP register!"); }

}  // namespace

Error BusMaster::ForceIPAddressToCamera(MACAddress mac, IPAddress ip, IPAddress subnet, IPAddress gateway) {
    return WithoutExceptions([&]() -> Error {
        if (m_members->IsInForkedProcess()) {
            return ForkedProcess();
        }
        const std::uint32_t status = HAL_GvcpForceIp(HighPart(mac), LowPart(mac), PackIPAddress(ip),
                                                     PackIPAddress(subnet), PackIPAddress(gateway));
        if (status == HAL_NO_ACKNOWLEDGE) {
            return NoAcknowledge();
        }
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Error setting IP to camera. Error: %X", status);
        }
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::ForceAllIPAddressesAutomatically() {
    return WithoutExceptions([&]() -> Error {
        if (m_members->IsInForkedProcess()) {
            return ForkedProcess();
        }
        const std::uint32_t status = HAL_GvcpForceIpAuto();
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Error auto setting IP to cameras. Error: %X", status);
        }
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::ForceAllIPAddressesAutomatically(unsigned int serialNumber) {
    return WithoutExceptions([&]() -> Error {
        if (serialNumber == 0) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Serial number cannot be NULL.");
        }
        if (m_members->IsInForkedProcess()) {
            return ForkedProcess();
        }
        const std::uint32_t status = HAL_GvcpAutoForceIpToCamera(serialNumber);
        if (status == HAL_NO_ACKNOWLEDGE) {
            return NoAcknowledge();
        }
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Error auto setting IP to camera. Error: %X", status);
        }
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::DiscoverGigECameras(CameraInfo* cameras, unsigned int* arraySize) {
    return WithoutExceptions([&]() -> Error {
        if (cameras == nullptr || arraySize == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Argument cannot be NULL.");
        }
        if (*arraySize == 0) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Array needs to be at least of size 1.");
        }
        if (m_members->IsInForkedProcess()) {
            return ForkedProcess();
        }
        const unsigned int capacity = *arraySize;
        const std::unique_ptr<GvcpDiscoveryRecord[]> records = std::make_unique<GvcpDiscoveryRecord[]>(capacity);
        const std::uint32_t status = HAL_GvcpDiscovery(records.get(), arraySize);
        if (status == HAL_ARRAY_TOO_SMALL) {
            return NIMBREL2_ERROR(ERROR_BUFFER_TOO_SMALL,
                                  "Array Size was too small, min size needed is returned in arraySize param.");
        }
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Error sending discovery packet. Error: %X", status);
        }
        for (unsigned int i = 0; i < *arraySize && i < capacity; ++i) {
            FillCameraInfo(records[i], &cameras[i]);
        }
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::QueryGigECameraCCPStatus(ZevoGuid* guid, bool* available) {
    return WithoutExceptions([&]() -> Error {
        if (guid == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "ZevoGuid cannot be NULL.");
        }
        const boost::shared_ptr<HardwareInterface> found = m_members->GetHwInterfaceFromGuidInternal(*guid);
        auto* const camera = dynamic_cast<GigEInterface*>(found.get());
        if (camera == nullptr) {
            return NIMBREL2_ERROR(ERROR_UNSUPPORTED_INTERFACE, "Unsupported Hardware Interface.");
        }
        unsigned int privilege = 0;
        if (camera->ReadGVCPRegister(ControlChannelPrivilegeRegister, &privilege) != HAL_OK) {
            return RegisterUnreadable();
        }
        if (privilege == 0) {  // Nobody holds control.
            *available = true;
            return InternalError(ERROR_OK);
        }
        unsigned int holderPort = 0;
        if (camera->ReadGVCPRegister(PrimaryApplicationPortRegister, &holderPort) != HAL_OK) {
            return RegisterUnreadable();
        }
        unsigned int ownPort = 0;
        if (camera->GetLocalApplicationPort(&ownPort) != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_REGISTER_FAILED, "Fail to get local application port!");
        }
        if (holderPort != ownPort) {
            *available = false;
            return InternalError(ERROR_OK);
        }
        unsigned int holderAddress = 0;
        if (camera->ReadGVCPRegister(PrimaryApplicationIpAddressRegister, &holderAddress) != HAL_OK) {
            *available = false;
            return RegisterUnreadable();
        }
        unsigned int ownAddress = 0;
        if (camera->GetLocalApplicationIPAddress(&ownAddress) != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_REGISTER_FAILED, "Fail to get local application IP address!");
        }
        *available = holderAddress == ownAddress;
        return InternalError(ERROR_OK);
    });
}

}  // namespace Nimbrel2
