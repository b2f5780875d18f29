// SPDX-License-Identifier: Apache-2.0
// IEEE 1394 operations on a HAL entry. Any thread, no lock during a HAL call.
#include "common/IEEE1394Interface.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

namespace Nimbrel2 {

namespace {
// 63 PHYs of at most four self-ID quadlets each (IEEE 1394a-2000).
constexpr std::uint64_t MaxSelfIdQuadlets = 252;
}  // namespace

IEEE1394Interface::IEEE1394Interface(void* entry) : HardwareInterface(entry) {
    std::uint16_t node = 0;
    std::uint16_t busNumber = 0;
    if (OnEntry(HAL_1394GetNode, &node, &busNumber) == HAL_OK) {
        m_node = node;
        m_busNumber = busNumber;
    }
}

std::uint32_t IEEE1394Interface::ReleaseCamera() { return m_entry.Release(HAL_1394FreeCamera); }

std::uint32_t IEEE1394Interface::ReleaseDevice() { return m_entry.Release(HAL_1394FreeDevice); }

std::uint32_t IEEE1394Interface::GetConfigInfo(std::uint32_t* euiHigh, std::uint32_t* nodeAddress,
                                               std::uint32_t* serialNumber, std::uint32_t* card,
                                               std::uint32_t* unitVersion, char* vendor, char* model,
                                               std::uint32_t* vendorSize, std::uint32_t* modelSize) {
    return OnEntry(HAL_1394GetConfigInfo, euiHigh, nodeAddress, serialNumber, card, unitVersion, vendor, model,
                   vendorSize, modelSize);
}

int IEEE1394Interface::GetSelfIds(unsigned int* generation, std::uint64_t* busKey, std::uint64_t* count,
                                  SelfIdPacket_t* packets) {
    std::vector<SelfIdPacket_t> reading(MaxSelfIdQuadlets);
    std::uint64_t found = reading.size();
    const std::uint32_t status = OnEntry(HAL_1394GetSelfIds, reading.data(), &found, busKey, generation);
    if (status != HAL_OK) {
        return static_cast<int>(status);
    }
    if (found > reading.size()) {
        return HAL_BAD_ANSWER;  // more than there was room for
    }
    if (packets != nullptr) {
        return static_cast<int>(m_selfIds.Fetch(*generation, count, packets));
    }
    reading.resize(found);
    m_selfIds.Keep(std::move(reading), *generation);
    *count = found;
    return HAL_OK;
}

std::uint32_t IEEE1394Interface::GetNodeSerialNumbers(std::vector<unsigned int>* serialNumbers) {
    return OnEntry(HAL_1394GetNodeSerialNumbers, serialNumbers->data(),
                   static_cast<std::uint64_t>(serialNumbers->size()));
}

std::uint32_t IEEE1394Interface::GetDeviceInfo(std::uint32_t* info1, std::uint32_t* info2, std::uint32_t* info3) {
    return OnEntry(HAL_1394GetDeviceInfo, info1, info2, info3);
}

std::uint32_t IEEE1394Interface::WriteRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t value,
                                               std::uint32_t flags) {
    return OnEntry(HAL_1394WriteRegister, address, selector, value, flags);
}

std::uint32_t IEEE1394Interface::ReadRegister(std::uint64_t address, std::uint32_t selector, std::uint32_t* value) {
    return OnEntry(HAL_1394ReadRegister, address, selector, value);
}

std::uint32_t IEEE1394Interface::ReadPhyRegister(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                                 std::uint32_t* value) {
    return OnEntry(HAL_1394ReadPhyRegister, page, port, address, value);
}

std::uint32_t IEEE1394Interface::WritePhyRegister(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                                  std::uint32_t value) {
    return OnEntry(HAL_1394WritePhyRegister, page, port, address, value);
}

InterfaceType IEEE1394Interface::GetInterfaceType() { return INTERFACE_IEEE1394; }

std::uint32_t IEEE1394Interface::FireBusReset() { return OnEntry(HAL_1394FireBusReset); }

std::uint32_t IEEE1394Interface::GetCameraInfo(CameraInfo* info) {
    std::uint32_t euiHigh = 0;
    std::uint32_t serialNumber = 0;
    std::uint32_t ignored = 0;
    std::uint32_t vendorSize = CameraInfo::TextCapacity;
    std::uint32_t modelSize = CameraInfo::TextCapacity;
    CameraInfo found;
    const std::uint32_t status = GetConfigInfo(&euiHigh, &ignored, &serialNumber, &ignored, &ignored, found.vendorName,
                                               found.modelName, &vendorSize, &modelSize);
    if (status != HAL_OK) {
        return status;
    }
    TerminateText(found.vendorName);
    TerminateText(found.modelName);
    found.serialNumber = serialNumber;
    found.interfaceType = INTERFACE_IEEE1394;
    if (euiHigh != 0) {
        std::snprintf(found.serialText, sizeof found.serialText, "%08x%08x", euiHigh, serialNumber);
    } else {
        std::snprintf(found.serialText, sizeof found.serialText, "%u", serialNumber);  // a virtual camera: no EUI-64
    }
    *info = found;
    return HAL_OK;
}

std::uint32_t IEEE1394Interface::GetLinkSpeed(std::uint32_t* megabits) {
    std::uint16_t node = 0;
    std::uint16_t busNumber = 0;
    std::uint32_t status = OnEntry(HAL_1394GetNode, &node, &busNumber);  // the kept one may be of an earlier bus reset
    if (status != HAL_OK) {
        return status;
    }
    std::array<SelfIdPacket_t, MaxSelfIdQuadlets> packets{};
    std::uint64_t count = packets.size();
    std::uint64_t busKey = 0;
    std::uint32_t generation = 0;
    status = OnEntry(HAL_1394GetSelfIds, packets.data(), &count, &busKey, &generation);
    if (status != HAL_OK) {
        return status;
    }
    const auto end = packets.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(count, packets.size()));
    const auto own = std::find_if(packets.begin(), end, [node](const SelfIdPacket_t& packet) {
        const bool isPacketZero = (packet.bytes[1] & 0x80) == 0;
        return isPacketZero && (packet.bytes[0] & 0x3F) == node;
    });
    if (own == end) {
        return HAL_BUS_CHANGED;
    }
    *megabits = 100U << (own->bytes[2] >> 6);
    return HAL_OK;
}

std::uint32_t IEEE1394Interface::GetCameraNode(unsigned short* node) {
    *node = m_node;
    return HAL_OK;
}

void IEEE1394Interface::SetCameraNode(unsigned short node) { m_node = node; }

std::uint32_t IEEE1394Interface::GetCameraBusNum(unsigned short* busNumber) {
    *busNumber = m_busNumber;
    return HAL_OK;
}

void IEEE1394Interface::SetCameraBusNum(unsigned short busNumber) { m_busNumber = busNumber; }

}  // namespace Nimbrel2
