// SPDX-License-Identifier: Apache-2.0
// Names in the findings on IEEE 1394. Pure.
#include "tools/nimbrel/doctor/FireWireTexts.h"

#include <algorithm>
#include <cstdio>

namespace Nimbrel2::Tool::Doctor {

using Platform::FireWireBusDiagnosis;
using Platform::FireWireNode;

std::string BusText(const FireWireBusDiagnosis& bus) {
    const std::string controller = bus.path.substr(bus.path.rfind('/') + 1);
    return bus.card ? "bus " + std::to_string(*bus.card) + " (" + controller + ")" : "the bus of " + controller;
}

std::string NodeText(const FireWireNode& node) {
    if (node.local) {
        return "this computer's controller";
    }
    std::string names = node.vendor;
    if (!node.model.empty()) {
        names += (names.empty() ? "" : " ") + node.model;
    }
    if (!names.empty()) {
        names = " (" + names + ")";
    }
    if (node.camera) {
        return "camera " + std::to_string(static_cast<std::uint32_t>(node.eui64)) + names;
    }
    char eui64[17];
    std::snprintf(eui64, sizeof eui64, "%016llx", static_cast<unsigned long long>(node.eui64));
    return "device " + std::string(eui64) + names;
}

std::string PhyText(const FireWireBusDiagnosis& bus, unsigned int phyId) {
    const auto node = std::find_if(bus.nodes.begin(), bus.nodes.end(),
                                   [phyId](const FireWireNode& candidate) { return candidate.phyId == phyId; });
    if (node != bus.nodes.end()) {
        return NodeText(*node);
    }
    if (bus.local == phyId) {
        return "this computer's controller";
    }
    const bool isHub = phyId < bus.phys.size() && bus.phys[phyId].IsHub();
    return (isHub ? "the hub that is PHY " : "PHY ") + std::to_string(phyId);
}

std::string ResetCommand(const FireWireBusDiagnosis& bus) {
    const auto camera =
        std::find_if(bus.nodes.begin(), bus.nodes.end(), [](const FireWireNode& node) { return node.camera; });
    if (camera == bus.nodes.end()) {
        return "# unplug a device and plug it in again";
    }
    return "nimbrel reset " + std::to_string(static_cast<std::uint32_t>(camera->eui64));
}

bool HasCamera(const FireWireBusDiagnosis& bus) {
    return std::any_of(bus.nodes.begin(), bus.nodes.end(), [](const FireWireNode& node) { return node.camera; });
}

}  // namespace Nimbrel2::Tool::Doctor
