// SPDX-License-Identifier: Apache-2.0
// From the self-ID packets of an IEEE 1394 bus to its tree of PHYs. Pure: no lock, no I/O, no state.
#include "topology/SelfIdParsing.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Nimbrel2 {

namespace {

constexpr unsigned int PhyIdMask = 0x3F;
constexpr unsigned int MorePacketsBit = 0x01;
constexpr unsigned int PortStatusMask = 0x03;

void AddPort(unsigned int bits, PortList& ports, std::uint32_t& childCount) {
    const unsigned int status = bits & PortStatusMask;
    if (status == 0) {  // The PHY has no such port.
        return;
    }
    ports.push_back(static_cast<TopologyNode::PortType>(status));
    if (status == TopologyNode::PORT_TO_CHILD) {
        ++childCount;
    }
}

bool MorePacketsFollow(const SelfIdPacket_t& packet) { return (packet.bytes[3] & MorePacketsBit) != 0; }

TopologyNode MakePhy(const SelfIdPacket_t& packetZero, const PortList& ports) {
    TopologyNode phy(ZevoGuid{}, static_cast<int>(packetZero.bytes[0] & PhyIdMask), TopologyNode::NODE_DEVICE,
                     INTERFACE_IEEE1394);
    for (const TopologyNode::PortType port : ports) {
        phy.AddPortType(port);
    }
    return phy;
}

// A PHY whose children are not attached yet.
struct PendingPhy {
    TopologyNode node;
    std::uint32_t childCount;
};

// What one pass over the stream finds.
struct Stream {
    std::vector<TopologyNode> leaves;  // in stream order
    std::vector<PendingPhy> parents;   // in stream order
    TopologyNode root;
};

Stream ReadStream(std::span<const SelfIdPacket_t> packets) {
    Stream stream;
    PortList ports;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const SelfIdPacket_t& packetZero = packets[i];
        std::uint32_t childCount = 0;
        ports.clear();
        ParseSelfIdPacketZero(packetZero, ports, childCount);
        while (MorePacketsFollow(packets[i]) && i + 1 < packets.size()) {
            ++i;
            ParseSelfIdPacketMore(packets[i], ports, childCount);
        }
        if (i + 1 == packets.size()) {
            ports.insert(ports.begin(), TopologyNode::PORT_TO_PARENT);
            stream.root = MakePhy(packetZero, ports);
        } else if (childCount == 0) {
            stream.leaves.push_back(MakePhy(packetZero, ports));
        } else {
            stream.parents.push_back(PendingPhy{MakePhy(packetZero, ports), childCount});
        }
    }
    return stream;
}

// The subtrees that have no parent yet, in order, with a gap that moves to wherever the next parent belongs. In a
// stream of ascending phy ids it only moves forward, so that each subtree passes it once.
class Orphans {
public:
    explicit Orphans(std::vector<TopologyNode> leaves)
        : m_after(std::make_move_iterator(leaves.rbegin()), std::make_move_iterator(leaves.rend())) {}

    bool IsEmpty() const { return m_before.empty() && m_after.empty(); }

    // Gives the parent the last of the subtrees in front of it and puts it in their place.
    void Adopt(PendingPhy parent) {
        MoveGapBehindIdsBelow(parent.node.GetDeviceId());
        const std::size_t adopted = std::min<std::size_t>(parent.childCount, m_before.size());
        const auto first = m_before.end() - static_cast<std::ptrdiff_t>(adopted);
        for (auto child = first; child != m_before.end(); ++child) {
            parent.node.AddChild(std::move(child->node));
        }
        m_before.erase(first, m_before.end());
        m_after.push_back(std::move(parent.node));
    }

    // Gives the parent all that is left.
    void AdoptAll(TopologyNode& parent) {
        for (Orphan& child : m_before) {
            parent.AddChild(std::move(child.node));
        }
        for (auto child = m_after.rbegin(); child != m_after.rend(); ++child) {
            parent.AddChild(std::move(*child));
        }
        m_before.clear();
        m_after.clear();
    }

private:
    struct Orphan {
        TopologyNode node;
        int highestIdSoFar;  // of this and all in front of it: a stream out of order must stop at the first that is not
                             // below the parent
    };

    void MoveGapBehindIdsBelow(int id) {
        while (!m_before.empty() && m_before.back().highestIdSoFar >= id) {
            m_after.push_back(std::move(m_before.back().node));
            m_before.pop_back();
        }
        while (!m_after.empty() && m_after.back().GetDeviceId() < id) {
            const int ownId = m_after.back().GetDeviceId();
            const int highest = m_before.empty() ? ownId : std::max(ownId, m_before.back().highestIdSoFar);
            m_before.push_back(Orphan{std::move(m_after.back()), highest});
            m_after.pop_back();
        }
    }

    std::vector<Orphan> m_before;       // in front of the gap
    std::vector<TopologyNode> m_after;  // behind the gap, the nearest last
};

}  // namespace

void ParseSelfIdPacketZero(const SelfIdPacket_t& packet, PortList& ports, std::uint32_t& childCount) {
    AddPort(packet.bytes[3] >> 6, ports, childCount);
    AddPort(packet.bytes[3] >> 4, ports, childCount);
    AddPort(packet.bytes[3] >> 2, ports, childCount);
}

void ParseSelfIdPacketMore(const SelfIdPacket_t& packet, PortList& ports, std::uint32_t& childCount) {
    AddPort(packet.bytes[1], ports, childCount);
    AddPort(packet.bytes[2] >> 6, ports, childCount);
    AddPort(packet.bytes[2] >> 4, ports, childCount);
    AddPort(packet.bytes[2] >> 2, ports, childCount);
    AddPort(packet.bytes[2], ports, childCount);
    AddPort(packet.bytes[3] >> 6, ports, childCount);
    AddPort(packet.bytes[3] >> 4, ports, childCount);
    AddPort(packet.bytes[3] >> 2, ports, childCount);
}

TopologyNode ParseSelfIdPackets(std::span<const SelfIdPacket_t> packets) {
    Stream stream = ReadStream(packets);
    Orphans orphans(std::move(stream.leaves));
    for (PendingPhy& parent : stream.parents) {
        if (orphans.IsEmpty()) {
            break;
        }
        orphans.Adopt(std::move(parent));
    }
    orphans.AdoptAll(stream.root);
    return std::move(stream.root);
}

}  // namespace Nimbrel2
