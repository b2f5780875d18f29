// SPDX-License-Identifier: Apache-2.0
// Any thread; no lock.
#include "tests/support/LargeRig.h"

#include <string>
#include <utility>

namespace Nimbrel2::Testing {

Platform::RigDescription RigOf512Cameras() {
    Platform::RigDescription description;
    for (unsigned int bus = 0; bus < 5; ++bus) {
        Platform::FireWireBusDescription fireWire;
        fireWire.name = "fw" + std::to_string(bus);
        const auto add = [&fireWire, bus](const std::string& name, Platform::PhyKind kind, unsigned int ports) {
            Platform::PhyDescription phy;
            phy.name = name;
            phy.kind = kind;
            phy.ports = ports;
            phy.eui64 = kind == Platform::PhyKind::Repeater ? 0 : (bus + 1) * 1000 + fireWire.phys.size();
            fireWire.phys.push_back(phy);
        };
        const std::string suffix = " " + std::to_string(bus);
        add("card" + suffix, Platform::PhyKind::Card, 3);
        for (unsigned int hub = 0; hub < 3; ++hub) {
            add("hub " + std::to_string(hub) + suffix, Platform::PhyKind::Repeater, 27);
            fireWire.cables.push_back({{{{"card" + suffix, hub}, {"hub " + std::to_string(hub) + suffix, 0}}}});
        }
        for (unsigned int camera = 0; camera < 52 && bus * 52 + camera < 256; ++camera) {
            const std::string name = "camera " + std::to_string(camera) + suffix;
            add(name, Platform::PhyKind::Camera, 1);
            fireWire.cables.push_back(
                {{{{"hub " + std::to_string(camera / 26) + suffix, 1 + camera % 26}, {name, 0}}}});
        }
        description.fireWire.push_back(std::move(fireWire));
    }
    for (unsigned int host = 0; host < 16; ++host) {
        Platform::UsbHostDescription usb;
        usb.name = "usb" + std::to_string(host);
        usb.usb3Ports = 8;
        for (unsigned int port = 1; port <= 8; ++port) {
            Platform::UsbDeviceDescription camera;
            camera.name = usb.name + " camera " + std::to_string(port);
            camera.parent = usb.name;
            camera.port = port;
            camera.serial = std::to_string(100000 + host * 8 + port);
            usb.devices.push_back(camera);
        }
        description.usb.push_back(std::move(usb));
    }
    Platform::NetworkInterfaceDescription network{"eth0", 0x0A000001, 0xFF000000, true, {}};
    for (unsigned int i = 0; i < 128; ++i) {
        Platform::GigECameraDescription camera;
        camera.name = "net " + std::to_string(i);
        camera.options.mac = 0x020000000100 + i;
        camera.options.address = 0x0A000100 + i;
        camera.options.serialNumber = std::to_string(200000 + i);
        network.cameras.push_back(camera);
    }
    description.gigE.push_back(std::move(network));
    return description;
}

}  // namespace Nimbrel2::Testing
