// SPDX-License-Identifier: Apache-2.0
// Asks the HAL about buses that show nothing. Main thread only; no lock.
#include "tools/nimbrel/BusHealth.h"

#include <algorithm>
#include <array>

#include "common/HalStatus.h"
#include "hal/HAL.h"
#include "tools/nimbrel/Cameras.h"

namespace Nimbrel2::Tool {
namespace {

struct Bus {
    const char* name;
    const char* forPeople;
    std::uint32_t (*list)(void** entries, std::uint64_t* count);
    std::uint32_t (*free)(void* entry);
    bool (*holds)(InterfaceType type);
};

constexpr Bus kBuses[] = {
    {"1394", "IEEE 1394", HAL_1394GetCameras, HAL_1394FreeCamera,
     [](InterfaceType type) { return type == INTERFACE_IEEE1394; }},
    {"usb", "USB", HAL_UsbGetCameras, HAL_UsbFreeCamera,
     [](InterfaceType type) { return type == INTERFACE_USB_2 || type == INTERFACE_USB_3; }},
    {"gige", "GigE", HAL_GigEGetCameras, HAL_GigEFreeCamera, [](InterfaceType type) { return type == INTERFACE_GIGE; }},
};

}  // namespace

std::string DescribeStatus(std::uint32_t status) {
    return HalStatusText(status) + std::string(" (status ") + std::to_string(status) + ")";
}

std::vector<std::string> FindFailedBuses(BusMaster& busMaster,
                                         const std::function<bool(const std::string& bus)>& isWanted) {
    const std::vector<Camera> cameras = ListCameras(busMaster);
    std::vector<std::string> sentences;
    bool swallowed = false;
    for (const Bus& bus : kBuses) {
        const bool shows = std::any_of(cameras.begin(), cameras.end(),
                                       [&bus](const Camera& camera) { return bus.holds(camera.interfaceType); });
        if (shows || !isWanted(bus.name)) continue;
        std::array<void*, 256> entries{};
        std::uint64_t count = entries.size();
        const std::uint32_t status = bus.list(entries.data(), &count);
        if (status != HAL_OK) {
            sentences.push_back(std::string(bus.forPeople) + " cannot be searched: " + DescribeStatus(status));
            continue;
        }
        for (std::uint64_t i = 0; i < count; ++i) bus.free(entries[i]);
        swallowed = swallowed || count != 0;
    }
    // A listing that returns a newcomer is the end of its news, and this one went past the bus master.
    if (swallowed) Check(busMaster.RescanBus());
    return sentences;
}

}  // namespace Nimbrel2::Tool
