// SPDX-License-Identifier: Apache-2.0
// What the kernel tells on a node's file, from bytes. Pure: no lock, no I/O, no memory, any thread.
#include "platform/linux/firewire/NodeEvent.h"

#include <linux/firewire-cdev.h>

#include <cstddef>
#include <cstring>

namespace Nimbrel2::Platform::FireWire {
namespace {

using Bytes = std::span<const std::uint8_t>;

/// The fixed part of an event. What the kernel sends may be shorter than the struct: some end in padding.
/// @return false when even what is needed of it is not there.
template <class Event>
bool Load(Bytes bytes, std::size_t needed, Event* event) {
    if (bytes.size() < needed) {
        return false;
    }
    std::memcpy(event, bytes.data(), needed);
    return true;
}

NodeEvent ParseBusReset(Bytes bytes) {
    constexpr std::size_t Needed =
        offsetof(fw_cdev_event_bus_reset, generation) + sizeof(fw_cdev_event_bus_reset::generation);
    fw_cdev_event_bus_reset event{};
    if (!Load(bytes, Needed, &event)) {
        return {};
    }
    return BusResetEvent{{static_cast<std::uint16_t>(event.node_id), static_cast<std::uint16_t>(event.local_node_id),
                          static_cast<std::uint16_t>(event.bm_node_id), static_cast<std::uint16_t>(event.irm_node_id),
                          static_cast<std::uint16_t>(event.root_node_id), static_cast<std::uint8_t>(event.generation)}};
}

NodeEvent ParseResponse(Bytes bytes) {
    constexpr std::size_t Head = offsetof(fw_cdev_event_response, data);
    fw_cdev_event_response event{};
    if (!Load(bytes, Head, &event) || bytes.size() - Head < event.length) {
        return {};
    }
    return ResponseEvent{event.closure, event.rcode, bytes.subspan(Head, event.length)};
}

NodeEvent ParsePhyPacket(Bytes bytes, bool received) {
    constexpr std::size_t Head = offsetof(fw_cdev_event_phy_packet, data);
    fw_cdev_event_phy_packet event{};
    if (!Load(bytes, Head, &event) || bytes.size() - Head < event.length) {
        return {};
    }
    PhyPacketEvent packet{received, event.closure, event.rcode, 0};
    if (received && !Load(bytes.subspan(Head, event.length), sizeof packet.quadlet, &packet.quadlet)) {
        return {};
    }
    return packet;
}

}  // namespace

NodeEvent ParseNodeEvent(std::span<const std::uint8_t> bytes) {
    fw_cdev_event_common common{};
    if (!Load(bytes, offsetof(fw_cdev_event_common, type) + sizeof common.type, &common)) {
        return {};
    }
    switch (common.type) {
        case FW_CDEV_EVENT_BUS_RESET:
            return ParseBusReset(bytes);
        case FW_CDEV_EVENT_RESPONSE:
            return ParseResponse(bytes);
        case FW_CDEV_EVENT_PHY_PACKET_SENT:
            return ParsePhyPacket(bytes, false);
        case FW_CDEV_EVENT_PHY_PACKET_RECEIVED:
            return ParsePhyPacket(bytes, true);
        default:
            return {};
    }
}

}  // namespace Nimbrel2::Platform::FireWire
