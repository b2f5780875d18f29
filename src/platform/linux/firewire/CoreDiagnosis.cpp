// SPDX-License-Identifier: Apache-2.0
// What the driver knows of the buses, for people who look for a camera. Any thread; m_mutex is let go while a bus
// answers.
#include <algorithm>

#include "platform/linux/firewire/FireWireCore.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

constexpr std::uint64_t StateClearOffset = 0xFFFFF0000000;
constexpr std::uint32_t SlowestPhy = 100;       // Mbit/s, doubled with each speed code
constexpr std::uint32_t CycleMaster = 1U << 8;  // cmstr: sends cycle starts when it is the root

/// Nobody has the number 63.
std::optional<unsigned int> PhyIdOf(std::uint16_t nodeId) {
    const unsigned int phyId = nodeId & 0x3F;
    return phyId == 0x3F ? std::nullopt : std::optional(phyId);
}

}  // namespace

// The tree is the controller's own knowledge: reading it sends nothing over the bus.
std::uint32_t FireWireCore::Describe(std::vector<BusMap>* maps) {
    UniqueLock lock(m_mutex);
    if (!m_running) {
        return HAL_CLOSED;
    }
    std::vector<std::string> paths;
    for (const auto& [path, card] : m_cards) {
        paths.push_back(path);
    }
    for (const std::string& path : paths) {
        WaitForSelfIds(lock, path);
        if (!m_running) {
            return HAL_CLOSED;
        }
        if (m_cards.count(path) != 0) {
            maps->push_back(DescribeBus(path));
        }
    }
    return HAL_OK;
}

BusMap FireWireCore::DescribeBus(const std::string& path) {
    const Card& card = m_cards[path];
    BusMap map;
    map.bus = HAL_INTERFACE_1394;
    const Node* local = FindLocal(path);
    map.name = local != nullptr ? local->scanned.name : path.substr(path.rfind('/') + 1);
    std::map<std::uint32_t, BusMapNode> nodes;
    const bool isKnown = card.selfIds.state == State::Done && card.selfIds.status == HAL_OK &&
                         card.selfIds.generation == card.ids.generation;
    if (isKnown) {
        for (const FireWirePhy& phy : card.phys) {
            BusMapNode& entry = nodes[phy.phyId];
            entry.speed = SlowestPhy << phy.speed;
            entry.isHub = phy.IsHub();
        }
    }
    for (const auto& [name, node] : m_nodes) {
        const auto phyId = PhyIdOf(node.ids.node);
        if (node.key.card != path || !IsPresent(node) || !node.IsOpen() || !phyId) {
            continue;
        }
        BusMapNode& entry = nodes[*phyId];
        entry.isHub = false;
        entry.isThisComputer = node.scanned.isLocal;
        entry.vendor = node.rom.GetVendor();
        entry.model = node.rom.GetModel();
        entry.name = entry.vendor + (entry.vendor.empty() || entry.model.empty() ? "" : " ") + entry.model;
        entry.isCamera = node.FindCamera() != nullptr;
        if (entry.isCamera) {
            entry.serialNumber = static_cast<std::uint32_t>(node.key.eui64);
        } else {
            entry.vendor.clear();
            entry.model.clear();
        }
    }
    for (auto& [phyId, entry] : nodes) {
        entry.id = phyId;
        map.nodes.push_back(std::move(entry));
    }
    return map;
}

std::uint32_t FireWireCore::Diagnose(bool askNodes, FireWireDiagnosis* diagnosis) {
    diagnosis->idleControllers = FindIdleControllers();
    std::vector<std::string> paths;
    std::vector<NodeKey> cameras;
    {
        const LockGuard lock(m_mutex);
        if (!m_running) {
            return HAL_CLOSED;
        }
        diagnosis->driverLoaded = m_driverLoaded;
        for (const auto& [path, card] : m_cards) {
            paths.push_back(path);
        }
        for (const auto& [name, node] : m_nodes) {
            if (node.FindCamera() != nullptr) {
                cameras.push_back(node.key);
            }
        }
    }
    // Whether they answer; the first asks for all.
    std::uint32_t serialNumber = 0;
    for (const NodeKey& camera : cameras) {
        if (askNodes) {
            ReadSerialNumber(camera, &serialNumber);
        }
    }
    for (const std::string& path : paths) {
        std::optional<NodeKey> root;
        {
            UniqueLock lock(m_mutex);
            Node* local = nullptr;
            const std::uint32_t selfIdStatus = askNodes ? WaitForSelfIds(lock, path) : CheckSelfIds(path, &local);
            if (!m_running) {
                return HAL_CLOSED;
            }
            if (m_cards.count(path) == 0) {
                continue;
            }
            diagnosis->buses.push_back(DiagnoseBus(path, selfIdStatus));
            root = FindRoot(path);
        }
        if (!root || !askNodes) {
            continue;
        }
        std::uint32_t state = 0;
        const std::uint32_t status = Execute(*root, {RequestKind::ReadQuadlet, StateClearOffset, 4, 0}, &state);
        if (status == HAL_OK) {
            diagnosis->buses.back().hasCycleMaster = (state & CycleMaster) != 0;
        }
    }
    return HAL_OK;
}

std::optional<NodeKey> FireWireCore::FindRoot(const std::string& path) {
    const Card& card = m_cards[path];
    for (const auto& [name, node] : m_nodes) {
        if (node.key.card == path && node.IsOpen() && IsPresent(node) && node.ids.node == card.ids.root) {
            return node.key;
        }
    }
    return std::nullopt;
}

FireWireBusDiagnosis FireWireCore::DiagnoseBus(const std::string& path, std::uint32_t selfIdStatus) {
    const Card& card = m_cards[path];
    FireWireBusDiagnosis bus;
    bus.path = path;
    bus.card = card.number;
    bus.selfIdStatus = selfIdStatus;
    const Node* local = FindLocal(path);
    bus.treeError = local == nullptr ? ENODEV : local->openError;
    if (card.known) {
        bus.local = PhyIdOf(card.ids.local);
        bus.root = PhyIdOf(card.ids.root);
        bus.busManager = PhyIdOf(card.ids.busManager);
        bus.resourceManager = PhyIdOf(card.ids.resourceManager);
    }
    if (selfIdStatus == HAL_OK) {
        bus.phys = card.phys;
    }
    for (const auto& [name, node] : m_nodes) {
        if (node.key.card != path || !IsPresent(node)) {
            continue;
        }
        bus.seesResets = bus.seesResets || node.IsOpen();
        FireWireNode shown;
        shown.name = name;
        shown.eui64 = node.key.eui64;
        shown.vendor = node.rom.GetVendor();
        shown.model = node.rom.GetModel();
        shown.camera = node.FindCamera() != nullptr;
        shown.local = node.scanned.isLocal;
        shown.cycleMasterCapable = node.rom.cycleMasterCapable;
        shown.error = node.openError;
        if (node.IsOpen()) {
            shown.phyId = PhyIdOf(node.ids.node);
        }
        shown.mute = node.mute;
        bus.nodes.push_back(std::move(shown));
    }
    std::sort(bus.nodes.begin(), bus.nodes.end(), [](const auto& a, const auto& b) { return a.eui64 < b.eui64; });

    const TimePoint now = Clock::now();
    const auto isRecent = [&](TimePoint at) { return now - at <= m_timings.history; };
    bus.watched =
        std::chrono::duration_cast<Milliseconds>(std::min<Clock::duration>(now - card.seenAt, m_timings.history));
    bus.resets = static_cast<unsigned int>(std::count_if(card.resetTimes.begin(), card.resetTimes.end(), isRecent));
    std::map<Socket, unsigned int> sockets;
    for (const auto& [at, socket] : card.portChanges) {
        if (isRecent(at)) {
            ++sockets[socket];
        }
    }
    for (const auto& [socket, changes] : sockets) {
        const FireWirePhy* phy = FollowWay(card.phys, card.local, socket.way);
        if (phy != nullptr) {
            bus.portChanges.push_back({phy->phyId, socket.port, changes});
        }
    }
    return bus;
}

}  // namespace Nimbrel2::Platform::FireWire
