// SPDX-License-Identifier: Apache-2.0
// Compares listings with the maps of the buses. Any thread; no lock.
#include "tools/nimbrel/Capacity.h"

#include <algorithm>
#include <cstddef>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/BusHealth.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/Locations.h"

namespace Nimbrel2::Tool {
namespace {

// HAL.h: how many entries the bus master has room for.
std::size_t CapacityOf(HALInterfaceType bus) { return bus == HAL_INTERFACE_1394 ? 256 : 128; }

std::size_t CountAttached(HALInterfaceType bus) {
    if (bus == HAL_INTERFACE_GIGE) {
        Platform::GigEDiagnosis diagnosis;
        if (Platform::DiagnoseGigE(false, &diagnosis) != HAL_OK) {
            return 0;
        }
        const auto heard = FindHeardCameras(diagnosis);
        return static_cast<std::size_t>(std::count_if(heard.begin(), heard.end(), [](const HeardCamera& camera) {
            return camera.usability == Usability::Usable;
        }));
    }
    std::size_t count = 0;
    for (const Platform::BusMap& map : ReadBusMaps()) {
        if (map.bus != bus) {
            continue;
        }
        for (const Platform::BusMapNode& node : map.nodes) {
            count += node.isCamera ? 1 : 0;
        }
    }
    return count;
}

}  // namespace

std::vector<std::string> FindCutListings(const std::vector<Camera>& listed) {
    std::vector<std::string> sentences;
    for (const BusKind& bus : BusKinds()) {
        const auto count =
            static_cast<std::size_t>(std::count_if(listed.begin(), listed.end(), [&bus](const Camera& camera) {
                return IsOn(bus.type, camera.interfaceType);
            }));
        if (count < CapacityOf(bus.type)) {
            continue;
        }
        const std::size_t attached = CountAttached(bus.type);
        if (attached <= count) {
            continue;
        }
        sentences.push_back(std::to_string(count) + " of " + std::to_string(attached) + " " + bus.forPeople +
                            " cameras are listed, as many as there is room for.");
    }
    return sentences;
}

}  // namespace Nimbrel2::Tool
