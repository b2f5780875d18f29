// SPDX-License-Identifier: Apache-2.0
// What the kernel tells on a node's file, from bytes. Pure: no lock, no I/O, no memory, any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_NODEEVENT_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_NODEEVENT_H

#include <cstdint>
#include <span>
#include <variant>

namespace Nimbrel2::Platform::FireWire {

/// A node and its bus after a bus reset. Node ids are 0xFFC0 | phy id; 0xFFFF is nobody, or not known.
struct BusIds {
    std::uint16_t node = 0xFFFF;
    std::uint16_t local = 0xFFFF;
    std::uint16_t busManager = 0xFFFF;
    std::uint16_t resourceManager = 0xFFFF;
    std::uint16_t root = 0xFFFF;
    std::uint8_t generation = 0;  ///< counts resets and wraps

    bool operator==(const BusIds&) const = default;
};

struct BusResetEvent {
    BusIds ids;
};

/// The end of a request, also of one that nobody has answered.
struct ResponseEvent {
    std::uint64_t closure = 0;
    std::uint32_t rcode = 0;
    std::span<const std::uint8_t> payload;  ///< in bus order; lies in the bytes that were parsed
};

struct PhyPacketEvent {
    bool received = false;  ///< or else: was sent, or could not be
    std::uint64_t closure = 0;
    std::uint32_t rcode = 0;
    std::uint32_t quadlet = 0;  ///< of a received one, without its inverse
};

/// monostate: an event that nobody here has asked for.
using NodeEvent = std::variant<std::monostate, BusResetEvent, ResponseEvent, PhyPacketEvent>;

/// @param bytes  What one read of a node's file has returned. Lengths that do not fit make it nobody's event.
NodeEvent ParseNodeEvent(std::span<const std::uint8_t> bytes);

}  // namespace Nimbrel2::Platform::FireWire

#endif
