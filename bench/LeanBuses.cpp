// SPDX-License-Identifier: Apache-2.0
// The fullest buses there are, as their drivers report them. Made once, then read by any thread.
#include "bench/LeanBuses.h"

#include <cstddef>

namespace Nimbrel2::Bench {

namespace {

std::uint8_t Byte(unsigned int value) { return static_cast<std::uint8_t>(value); }

// Self-ID packets with up to eleven ports.
void AppendPhy(FireWireBus& bus, unsigned int phyId, const std::vector<unsigned int>& ports) {
    const auto port = [&ports](std::size_t index) { return index < ports.size() ? ports[index] : 0; };
    const bool more = ports.size() > 3;
    bus.stream.push_back(SelfIdPacket_t{
        {Byte(0x80 | phyId), 0x7F, 0x80, Byte(port(0) << 6 | port(1) << 4 | port(2) << 2 | (more ? 1 : 0))}});
    if (more) {
        bus.stream.push_back(SelfIdPacket_t{{Byte(0x80 | phyId), Byte(0x80 | port(3)),
                                             Byte(port(4) << 6 | port(5) << 4 | port(6) << 2 | port(7)),
                                             Byte(port(8) << 6 | port(9) << 4 | port(10) << 2)}});
    }
}

std::vector<unsigned int> Ports(std::size_t children, bool isRoot) {
    std::vector<unsigned int> ports(children, 3);
    ports.push_back(isRoot ? 1 : 2);
    return ports;
}

FireWireBus MakeFireWireBus() {
    FireWireBus bus;
    unsigned int phyId = 0;
    const auto addCameras = [&](unsigned int count) {
        for (; count > 0; --count) {
            bus.cameras.push_back(phyId);
            AppendPhy(bus, phyId++, Ports(0, false));
        }
    };
    for (unsigned int hub = 0; hub < 8; ++hub) {
        addCameras(6);
        AppendPhy(bus, phyId++, Ports(6, false));
    }
    AppendPhy(bus, phyId++, Ports(8, false));
    addCameras(5);
    AppendPhy(bus, phyId, Ports(6, true));
    return bus;
}

UsbHost MakeUsbHost() {
    UsbHost host;
    std::uint32_t nextId = 1;
    const auto add = [&](std::uint64_t rootPort, std::uint64_t route, bool isCamera) {
        nextId += nextId == 63 ? 1 : 0;  // the host's own
        if (isCamera) {
            host.cameras.push_back(nextId);
        }
        host.records.push_back(UsbSelfId{nextId++, 5000, rootPort, route, 0});
    };
    for (std::uint64_t rootPort = 1; rootPort <= 3; ++rootPort) {
        add(rootPort, 0, false);
        for (std::uint64_t hub = 1; hub <= 6; ++hub) {
            add(rootPort, hub, false);
            for (std::uint64_t camera = 1; camera <= (hub == 6 ? 5u : 6u); ++camera) {
                add(rootPort, camera << 4 | hub, true);
            }
        }
    }
    add(4, 0, true);
    return host;
}

}  // namespace

const FireWireBus& FullFireWireBus() {
    static const FireWireBus bus = MakeFireWireBus();
    return bus;
}

const UsbHost& FullUsbHost() {
    static const UsbHost host = MakeUsbHost();
    return host;
}

}  // namespace Nimbrel2::Bench
