// SPDX-License-Identifier: Apache-2.0
// Asks the HAL about buses that show nothing. Main thread only; no lock.
#include "tools/nimbrel/BusHealth.h"

#include <algorithm>
#include <array>
#include <optional>

#include "hal/HAL.h"
#include "platform/Diagnostics.h"
#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/ErrorTexts.h"

namespace Nimbrel2::Tool {
namespace {

struct HalListing {
    HALInterfaceType bus;
    std::uint32_t (*list)(void** entries, std::uint64_t* count);
    std::uint32_t (*free)(void* entry);
};

constexpr HalListing HalListings[] = {
    {HAL_INTERFACE_1394, HAL_1394GetCameras, HAL_1394FreeCamera},
    {HAL_INTERFACE_1394, HAL_1394GetDevices, HAL_1394FreeDevice},
    {HAL_INTERFACE_USB, HAL_UsbGetCameras, HAL_UsbFreeCamera},
    {HAL_INTERFACE_GIGE, HAL_GigEGetCameras, HAL_GigEFreeCamera},
};

// The first status of a bus that is not HAL_OK.
std::uint32_t TryListing(HALInterfaceType bus) {
    for (const HalListing& listing : HalListings) {
        if (listing.bus != bus) {
            continue;
        }
        std::array<void*, 256> entries{};
        std::uint64_t count = entries.size();
        const std::uint32_t status = listing.list(entries.data(), &count);
        if (status != HAL_OK) {
            return status;
        }
        for (std::uint64_t i = 0; i < count; ++i) {
            listing.free(entries[i]);
        }
    }
    return HAL_OK;
}

// A bus whose driver did not start lists nothing and answers HAL_OK; support tells why.
std::optional<BusFailure> TryBus(const BusKind& bus) {
    std::uint32_t status = Platform::GetBusSupport(bus.type);
    if (status == HAL_NOT_SUPPORTED || status == HAL_NO_BUS) {
        return std::nullopt;
    }
    if (status == HAL_OK) {
        status = TryListing(bus.type);
    }
    if (status == HAL_OK) {
        return std::nullopt;
    }
    return BusFailure{bus, status};
}

// The options that leave one bus out.
std::string OthersThan(const BusKind& failed, const IsWanted& isWanted) {
    std::string options;
    for (const BusKind& bus : BusKinds()) {
        if (bus.type != failed.type && isWanted(bus)) {
            options += std::string(options.empty() ? "" : " ") + "--bus " + bus.name;
        }
    }
    return options;
}

}  // namespace

const std::vector<BusKind>& BusKinds() {
    static const std::vector<BusKind> kinds{{"1394", "IEEE 1394", HAL_INTERFACE_1394},
                                            {"usb", "USB", HAL_INTERFACE_USB},
                                            {"gige", "GigE", HAL_INTERFACE_GIGE}};
    return kinds;
}

bool IsOn(HALInterfaceType bus, InterfaceType camera) {
    switch (camera) {
        case INTERFACE_IEEE1394:
            return bus == HAL_INTERFACE_1394;
        case INTERFACE_USB_2:
        case INTERFACE_USB_3:
            return bus == HAL_INTERFACE_USB;
        case INTERFACE_GIGE:
            return bus == HAL_INTERFACE_GIGE;
        case INTERFACE_NONE:
            break;
    }
    return false;
}

std::vector<BusKind> FindBusesWithoutDriver(const IsWanted& isWanted) {
    std::vector<BusKind> buses;
    for (const BusKind& bus : BusKinds()) {
        if (isWanted(bus) && Platform::GetBusSupport(bus.type) == HAL_NOT_SUPPORTED) {
            buses.push_back(bus);
        }
    }
    return buses;
}

std::string BusFailure::Describe() const {
    return std::string(bus.forPeople) + " cannot be searched: " + DescribeStatus(status);
}

std::vector<BusFailure> FindFailedBuses(BusMaster& busMaster, const IsWanted& isWanted) {
    const std::vector<Camera> cameras = ListCameras(busMaster);
    std::vector<BusFailure> failures;
    for (const BusKind& bus : BusKinds()) {
        const bool shows = std::any_of(cameras.begin(), cameras.end(),
                                       [&bus](const Camera& camera) { return IsOn(bus.type, camera.interfaceType); });
        if (shows || !isWanted(bus)) {
            continue;
        }
        if (const auto failure = TryBus(bus)) {
            failures.push_back(*failure);
        }
    }
    return failures;
}

CommandError ExplainStart(const Error& error, const IsWanted& isWanted) {
    if (error == ERROR_INIT_TIMED_OUT) {
        return CommandError("the buses were not listed within 40 s: a driver hangs")
            .WithHint("Search one bus at a time to find it: `nimbrel list --bus usb`.")
            .WithDetails(error.Describe());
    }
    for (const BusKind& bus : BusKinds()) {
        if (!isWanted(bus)) {
            continue;
        }
        const auto failure = TryBus(bus);
        if (!failure) {
            continue;
        }
        const std::string others = OthersThan(bus, isWanted);
        return CommandError(failure->Describe())
            .WithHint(others.empty() ? NextStep(failure->status, INTERFACE_NONE)
                                     : "Go on without it: `" + others + "`.")
            .WithDetails(error.Describe());
    }
    return Explain(error, "the buses cannot be listed");
}

}  // namespace Nimbrel2::Tool
