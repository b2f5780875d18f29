// SPDX-License-Identifier: Apache-2.0
// Asks the HAL about buses that show nothing. Main thread only; no lock.
#include "tools/nimbrel/BusHealth.h"

#include <algorithm>
#include <array>

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
    static const std::array<const char*, 24> texts = [] {
        std::array<const char*, 24> array{};
        array[HAL_OK] = "done";
        array[HAL_FAILED] = "failed";
        array[HAL_INVALID_ARGUMENT] = "a value is out of its range";
        array[HAL_PERMISSION] = "this user is not permitted to";
        array[HAL_GONE] = "the device is gone";
        array[HAL_PHY_WRITE_NOT_IMPLEMENTED] = "this computer has no way to write a PHY register";
        array[HAL_BUSY] = "busy, to be tried again later";
        array[HAL_TIMED_OUT] = "no answer in time";
        array[HAL_NO_BUS] = "this computer has no such bus, or no network interface is up";
        array[HAL_CLOSED] = "the buses are closed";
        array[HAL_OUT_OF_MEMORY] = "out of memory, threads or file descriptors";
        array[HAL_NO_ACKNOWLEDGE] = "nobody acknowledged";
        array[HAL_NOT_SUPPORTED] = "this kind of device cannot do that";
        array[HAL_BAD_ANSWER] = "the answer was malformed";
        array[HAL_BUS_CHANGED] = "the bus changed meanwhile";
        array[HAL_NO_SUCH_REGISTER] = "the device has no such register";
        array[HAL_WRITE_PROTECTED] = "the register is write-protected";
        array[HAL_ACCESS_DENIED] = "another application holds the device";
        array[HAL_REFUSED] = "the device refused";
        array[HAL_NO_TREE] = "there is no tree to show";
        array[HAL_UNREACHABLE] = "unreachable: no route, or the network interface is down";
        array[HAL_ARRAY_TOO_SMALL] = "more answers than there is room for";
        return array;
    }();
    const bool known = status < texts.size() && texts[status] != nullptr;
    return (known ? texts[status] : "failed") + std::string(" (status ") + std::to_string(status) + ")";
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
