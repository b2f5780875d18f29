// SPDX-License-Identifier: Apache-2.0
// The PHY registers of a rig's IEEE 1394 nodes (IEEE 1394a-2000 5B.1). No thread, no lock: the rig guards the model.
#include <algorithm>

#include "platform/rig/FireWireModel.h"

namespace Nimbrel2::Platform {

namespace {

constexpr std::uint32_t FirstPagedRegister = 8;
constexpr std::uint32_t MaxPage = 7;
constexpr std::uint32_t MaxPort = 15;
constexpr std::uint32_t PagePortStatus = 0;
constexpr std::uint32_t PageVendor = 1;

bool IsAddress(std::uint32_t page, std::uint32_t port, std::uint32_t address) {
    if (address < FirstPagedRegister) {
        return page == 0 && port == 0;
    }
    return address <= 15 && page <= MaxPage && port <= MaxPort;
}

}  // namespace

std::uint32_t FireWireModel::ReadPhy(std::uint64_t eui64, std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                     std::uint32_t* value) const {
    const Node* node = FindNode(eui64);
    if (node == nullptr) {
        return HAL_GONE;
    }
    if (!IsAddress(page, port, address)) {
        return HAL_INVALID_ARGUMENT;
    }
    const PhyDescription& description = *node->phy;
    const Phy& phy = m_phys[IndexOfNode(eui64)];
    const bool isRoot = node == &m_nodes.back();
    const auto ports = static_cast<std::uint32_t>(phy.ports.size());
    *value = 0;
    switch (address) {
        case 0:
            *value = node->phyId << 2 | (isRoot ? 2U : 0U) | 1U;  // cable power is there
            return HAL_OK;
        case 1:
            *value = (phy.forceRoot ? 0x80U : 0U) | m_description.gapCount;
            return HAL_OK;
        case 2:
            *value = 7U << 5 | ports;
            return HAL_OK;
        case 3:
            *value = description.speed << 5;
            return HAL_OK;
        case 4:
            *value = 0x80U | (description.contender ? 0x40U : 0U) | description.powerClass;
            return HAL_OK;
        case 5:
            *value = phy.enabledControls;
            return HAL_OK;
        case 6:
        case 7:
            return HAL_OK;
        default:
            break;
    }
    if (page == PagePortStatus && port < ports && address == 8) {
        const bool connected = phy.ports[port].phy != NoPhy;
        const auto parentIsHigher = [&] {
            // A neighbour is the parent when it comes later in self-ID order.
            for (const Node& other : m_nodes) {
                if (other.phy == &m_description.phys[phy.ports[port].phy]) {
                    return other.phyId > node->phyId;
                }
            }
            return false;
        };
        if (connected) {
            *value = (parentIsHigher() ? 0U : 1U << 3) | 1U << 2 | 1U << 1;  // Child, Connected, Bias
        }
    } else if (page == PagePortStatus && port < ports && address == 9) {
        const std::size_t peer = phy.ports[port].phy;
        *value = peer != NoPhy ? std::min(description.speed, m_description.phys[peer].speed) << 5 : 0;
    } else if (page == PageVendor && address == 8) {
        *value = 1;  // complies with IEEE 1394a-2000
    } else if (page == PageVendor && address >= 10 && address <= 12) {
        *value = static_cast<std::uint32_t>(description.eui64 >> (40 + 8 * (12 - address))) & 0xFF;  // OUI
    }
    return HAL_OK;
}

std::uint32_t FireWireModel::WritePhy(std::uint64_t eui64, std::uint32_t page, std::uint32_t port,
                                      std::uint32_t address, std::uint32_t value, bool* resetAsked) {
    *resetAsked = false;
    const std::size_t index = IndexOfNode(eui64);
    if (index == NoPhy) {
        return HAL_GONE;
    }
    Phy& phy = m_phys[index];
    if (!IsAddress(page, port, address) || value > 0xFF) {
        return HAL_INVALID_ARGUMENT;
    }
    switch (address) {
        case 1:  // RHB, IBR, gap count
            phy.forceRoot = (value & 0x80) != 0;
            SetGapCount(value & 0x3F);
            *resetAsked = (value & 0x40) != 0;
            return HAL_OK;
        case 5:  // ISBR starts an arbitrated short reset; the rest is kept
            phy.enabledControls = static_cast<std::uint8_t>(value & ~0x40U);
            *resetAsked = (value & 0x40) != 0;
            return HAL_OK;
        default:
            return HAL_WRITE_PROTECTED;
    }
}

}  // namespace Nimbrel2::Platform
