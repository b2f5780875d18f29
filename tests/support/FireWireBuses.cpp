// SPDX-License-Identifier: Apache-2.0
// IEEE 1394 buses that tests and benchmarks share. Pure.
#include "tests/support/FireWireBuses.h"

namespace Nimbrel2::Testing {

using Platform::CableDescription;
using Platform::FireWireBusDescription;
using Platform::PhyDescription;
using Platform::PhyKind;

namespace {

PhyDescription Phy(const std::string& name, PhyKind kind, std::uint64_t eui64, unsigned int ports) {
    PhyDescription phy;
    phy.name = name;
    phy.kind = kind;
    phy.eui64 = eui64;
    phy.ports = ports;
    phy.contender = kind == PhyKind::Card;
    if (kind == PhyKind::Card) {
        phy.vendor = "Linux Firewire";
    }
    return phy;
}

PhyDescription Camera(const std::string& name, std::uint64_t eui64) {
    PhyDescription camera = Phy(name, PhyKind::Camera, eui64, 1);
    camera.vendor = "Acme";
    camera.model = "Zoom 1394";
    return camera;
}

CableDescription Cable(const std::string& a, unsigned int portOfA, const std::string& b, unsigned int portOfB) {
    return {{{{a, portOfA}, {b, portOfB}}}};
}

}  // namespace

FireWireBusDescription StandardFireWireBus() {
    FireWireBusDescription bus;
    bus.name = "bus";
    PhyDescription disk = Phy("disk", PhyKind::Device, 0x003094000000D15C, 2);
    bus.phys = {Phy("card", PhyKind::Card, 0x0011220000000001, 3), Phy("hub", PhyKind::Repeater, 0, 6),
                Camera("left", 0x0011880000031001), Camera("right", 0x0011880000031002), disk};
    bus.cables = {Cable("card", 0, "hub", 0), Cable("hub", 1, "left", 0), Cable("hub", 2, "right", 0),
                  Cable("card", 1, "disk", 0)};
    return bus;
}

FireWireBusDescription FireWireBusOfCameras(unsigned int numCameras, const std::string& prefix) {
    FireWireBusDescription bus;
    bus.name = prefix + "bus";
    bus.phys.push_back(Phy(prefix + "card", PhyKind::Card, 0x0011220000000010, 27));
    std::string hub = prefix + "card";
    unsigned int freePort = 0;
    for (unsigned int i = 0; i < numCameras; ++i) {
        if (freePort == 26) {  // the last port leads to the next hub
            const std::string next = prefix + "hub" + std::to_string(i);
            bus.phys.push_back(Phy(next, PhyKind::Repeater, 0, 27));
            bus.cables.push_back(Cable(hub, freePort, next, 0));
            hub = next;
            freePort = 1;
        }
        const std::string name = prefix + "camera" + std::to_string(i);
        bus.phys.push_back(Camera(name, 0x0011880000040000 + i));
        bus.cables.push_back(Cable(hub, freePort++, name, 0));
    }
    return bus;
}

}  // namespace Nimbrel2::Testing
