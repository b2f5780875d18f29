// SPDX-License-Identifier: Apache-2.0
// One open of a node's file, /dev/fwN. ReadEvent: one thread at a time. Everything else: any thread; no lock. No call
// waits for the bus: answers come as events.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_NODEFILE_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_NODEFILE_H

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/linux/firewire/NodeEvent.h"

namespace Nimbrel2::Platform::FireWire {

/// What the file itself tells, at once.
struct NodeInfo {
    std::uint32_t card = 0;
    BusIds ids;
};

enum class RequestKind { ReadQuadlet, WriteQuadlet, ReadBlock };

struct Request {
    RequestKind kind = RequestKind::ReadQuadlet;
    std::uint64_t offset = 0;
    std::uint32_t length = 4;  ///< octets
    std::uint32_t value = 0;   ///< of a write
};

/// All results are 0 or an errno; ENODEV: the kernel has given the node up.
class NodeFile {
public:
    /// @param name  "fw0".
    int Open(const std::string& name);
    int GetFd() const { return m_file.Get(); }

    /// From the first call on the file also has an event for each bus reset.
    /// @param rom  Receives the configuration ROM, in host order; may be null.
    int GetInfo(NodeInfo* info, std::vector<std::uint32_t>* rom = nullptr) const;

    /// @param generation  Must be the last one that this very file has told. The kernel sends a request to whoever has
    ///                    the node's number in the given generation, and a node that was unplugged keeps its number and
    ///                    its file for two seconds: with the bus' new generation a neighbour would answer.
    int Send(const Request& request, std::uint8_t generation, std::uint64_t closure) const;

    /// Asks for a short reset of the node's bus.
    int ResetBus() const;

    /// The local node's file only. Packets that PHYs send are events of this file from here on.
    int ReceivePhyPackets() const;
    int SendPhyPacket(std::uint32_t quadlet, std::uint8_t generation, std::uint64_t closure) const;

    /// Whether ReadEvent has something to take or to tell.
    bool HasEvent() const;
    /// Takes the next event, if there is one: EAGAIN else. ENODEV: there is none, and none will come.
    /// @param event  Good until the next call.
    int ReadEvent(NodeEvent* event);

private:
    FileDescriptor m_file;
    std::array<std::uint8_t, 4096 + 64> m_event;  ///< a read that has too little room loses what is left
};

}  // namespace Nimbrel2::Platform::FireWire

#endif
