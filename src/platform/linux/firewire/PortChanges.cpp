// SPDX-License-Identifier: Apache-2.0
// Which sockets of a bus changed between two bus resets. Pure: no lock, no I/O, any thread.
#include "platform/linux/firewire/PortChanges.h"

#include <algorithm>
#include <optional>

namespace Nimbrel2::Platform::FireWire {
namespace {

using Phys = std::span<const FireWirePhy>;

std::optional<unsigned int> NeighbourAt(const FireWirePhy& phy, std::size_t port) {
    return port < phy.ports.size() ? phy.ports[port].neighbour : std::nullopt;
}

/// The port of a PHY at whose other end another one is; no port has the number that is returned when there is none.
std::size_t PortTo(const FireWirePhy& phy, unsigned int neighbour) {
    const auto found = std::find_if(phy.ports.begin(), phy.ports.end(),
                                    [neighbour](const FireWirePort& port) { return port.neighbour == neighbour; });
    return static_cast<std::size_t>(found - phy.ports.begin());
}

/// Whether two PHYs may be one and the same: what a bus reset does not change.
bool MayBeSame(const FireWirePhy& before, const FireWirePhy& after) {
    return before.speed == after.speed && before.powerClass == after.powerClass;
}

/// Walks both trees from this computer outwards.
class Comparison {
public:
    Comparison(Phys before, Phys after) : m_before(before), m_after(after) {}

    void Compare(const FireWirePhy& before, const FireWirePhy& after, std::optional<std::size_t> from) {
        const std::size_t numPorts = std::max(before.ports.size(), after.ports.size());
        for (std::size_t port = 0; port < numPorts; ++port) {
            if (port == from) {
                continue;
            }
            const auto was = NeighbourAt(before, port);
            const auto is = NeighbourAt(after, port);
            if (!was && !is) {
                continue;
            }
            if (!was || !is || !Follow(before, m_before[*was], after, m_after[*is], port)) {
                m_changes.push_back({m_way, static_cast<unsigned int>(port)});
            }
        }
    }

    std::vector<Socket> Take() { return std::move(m_changes); }

private:
    /// False when there is another PHY at the end of the cable, or the cable is in another socket of it.
    bool Follow(const FireWirePhy& before, const FireWirePhy& next, const FireWirePhy& after,
                const FireWirePhy& nextNow, std::size_t port) {
        const std::size_t back = PortTo(next, before.phyId);
        if (back != PortTo(nextNow, after.phyId) || !MayBeSame(next, nextNow)) {
            return false;
        }
        m_way.push_back(static_cast<unsigned int>(port));
        Compare(next, nextNow, back);
        m_way.pop_back();
        return true;
    }

    const Phys m_before;
    const Phys m_after;
    std::vector<unsigned int> m_way;
    std::vector<Socket> m_changes;
};

}  // namespace

std::vector<Socket> FindPortChanges(std::span<const FireWirePhy> before, unsigned int localBefore,
                                    std::span<const FireWirePhy> after, unsigned int localAfter) {
    if (localBefore >= before.size() || localAfter >= after.size()) {
        return {};
    }
    Comparison comparison(before, after);
    comparison.Compare(before[localBefore], after[localAfter], std::nullopt);
    return comparison.Take();
}

const FireWirePhy* FollowWay(std::span<const FireWirePhy> phys, unsigned int local, std::span<const unsigned int> way) {
    if (local >= phys.size()) {
        return nullptr;
    }
    const FireWirePhy* phy = &phys[local];
    for (const unsigned int port : way) {
        const auto next = NeighbourAt(*phy, port);
        if (!next || *next >= phys.size()) {
            return nullptr;
        }
        phy = &phys[*next];
    }
    return phy;
}

}  // namespace Nimbrel2::Platform::FireWire
