// SPDX-License-Identifier: Apache-2.0
// Listings, and what an entry tells without the bus. Any thread; m_mutex is let go while the monitor looks.
#include <algorithm>

#include "platform/linux/firewire/FireWireCore.h"

namespace Nimbrel2::Platform::FireWire {

// The monitor takes for each listing what the kernel has told so far, so that one is right whether or not what it shows
// was reported.
std::uint32_t FireWireCore::List(NodeKind kind, std::vector<ListedNode>* nodes, BusState* state) {
    UniqueLock lock(m_mutex);
    if (!m_running) {
        return HAL_CLOSED;
    }
    const std::uint64_t look = ++m_looksWanted;
    m_monitor.Wake();
    const bool hasLooked =
        m_changed.WaitUntil(lock, Clock::now() + m_timings.listing,
                            [&]() NIMBREL2_REQUIRES(m_mutex) { return !m_running || m_looksDone >= look; });
    if (!m_running) {
        return HAL_CLOSED;
    }
    if (!hasLooked) {
        return HAL_TIMED_OUT;
    }
    if (m_lookStatus != HAL_OK) {
        return m_lookStatus;
    }

    // What was reported last: the monitor reports with this lock held.
    *state = GetState();
    std::set<NodeKey> seen;
    for (const auto& [name, node] : m_nodes) {
        if (node.scanned.isLocal || !IsPresent(node)) {
            continue;
        }
        const RomUnit* camera = node.FindCamera();
        if ((camera != nullptr) != (kind == NodeKind::Camera) || !seen.insert(node.key).second) {
            continue;
        }
        const std::uint32_t version = camera != nullptr        ? camera->version
                                      : node.rom.units.empty() ? 0
                                                               : node.rom.units.front().version;
        nodes->push_back({node.key, version, node.rom.GetVendor(), node.rom.GetModel()});
    }
    std::sort(nodes->begin(), nodes->end(), [](const ListedNode& a, const ListedNode& b) { return a.key < b.key; });
    return HAL_OK;
}

std::uint32_t FireWireCore::GetIds(const NodeKey& key, std::uint16_t* nodeId, std::uint32_t* card) {
    const LockGuard lock(m_mutex);
    Node* node = nullptr;
    const std::uint32_t status = FindPresent(key, &node);
    if (status != HAL_OK) {
        return status;
    }
    *nodeId = node->IsOpen() ? node->ids.node : UnknownNode;
    *card = m_cards[key.card].number.value_or(UnknownCard);
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform::FireWire
