// SPDX-License-Identifier: Apache-2.0
// A rig's GigE cameras on loopback sockets. Runs on the caller's thread; the network serves on its own.
#include "platform/rig/RigLoopback.h"

#include <utility>

namespace Nimbrel2::Platform {

std::string PutOnLoopback(const RigDescription& rig, std::uint32_t firstAddress,
                          Simulated::SimulatedGigENetwork* network, std::vector<LoopbackCamera>* cameras) {
    std::uint32_t address = firstAddress;
    for (const NetworkInterfaceDescription& interface : rig.gigE) {
        for (const GigECameraDescription& description : interface.cameras) {
            if (!description.plugged || !interface.up) {
                continue;
            }
            LoopbackCamera camera{description.name, description.options, 0};
            camera.options.interfaceName.clear();
            camera.options.address = address++;
            camera.options.subnetMask = 0xFF000000;
            camera.options.gateway = 0;
            const Simulated::SimulatedGigENetwork::AddResult added = network->AddCamera(camera.options);
            if (!added) {
                return "\"" + description.name + "\": " + added.reason;
            }
            camera.id = added.id;
            cameras->push_back(std::move(camera));
        }
    }
    return {};
}

}  // namespace Nimbrel2::Platform
