// SPDX-License-Identifier: Apache-2.0
// Camera enumeration: three buses at once, each on a thread of its own that GetCameras joins.
// GetCameras holds m_enumerationMutex throughout; the bus threads take no lock and share nothing but the HAL.
#include <cinttypes>
#include <cstdio>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/HalList.h"
#include "common/GigEInterface.h"
#include "common/GuidGenerator.h"
#include "common/IEEE1394Interface.h"
#include "common/UsbInterface.h"

namespace Nimbrel2 {

namespace {

constexpr std::size_t FireWireCapacity = 256;
constexpr std::size_t UsbCapacity = 128;
constexpr std::size_t GigECapacity = 128;
constexpr unsigned int CurrentIpAddressRegister = 0x24;  // GigE Vision bootstrap register
constexpr unsigned int VirtualSerialMask = 0x00FFFFFF;

struct Identification {
    std::uint32_t serialNumber = 0;
    char first[512] = {};
    char second[512] = {};
};

std::uint32_t Identify(HardwareInterface& hwInterface, Identification* identification) {
    std::uint32_t ignored[4] = {0, 0, 0, 0};
    std::uint32_t firstSize = sizeof identification->first;
    std::uint32_t secondSize = sizeof identification->second;
    const std::uint32_t status =
        hwInterface.GetConfigInfo(&ignored[0], &ignored[1], &identification->serialNumber, &ignored[2], &ignored[3],
                                  identification->first, identification->second, &firstSize, &secondSize);
    identification->first[sizeof identification->first - 1] = '\0';
    identification->second[sizeof identification->second - 1] = '\0';
    return status;
}

// Real and virtual IEEE 1394 cameras differ only in what of the serial number goes into the guid.
EntryOutcome Identify1394Camera(BusMasterHandle& handle, IEEE1394Interface& hwInterface, unsigned int serialMask) {
    Identification identification;
    const std::uint32_t status = Identify(hwInterface, &identification);
    if (status != HAL_OK) {
        return FailWith(NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE,
                                       "Could not read the 1394 device config info. Error: 0x%x.", status));
    }
    handle.serialNumber = identification.serialNumber;
    const Error error = GuidGenerator::GenerateGUIDForCamera(identification.first, identification.second,
                                                             identification.serialNumber & serialMask, &handle.guid);
    if (error != ERROR_OK) {
        return FailWith(NIMBREL2_ERROR(ERROR_GUID_GENERATION_FAILED, InternalError(error), "%s",
                                       "Failed to generate the 1394 GUID."));
    }
    return {};
}

EntryOutcome IdentifyUsbCamera(BusMasterHandle& handle, UsbInterface& hwInterface) {
    Identification identification;
    if (Identify(hwInterface, &identification) != HAL_OK) {
        return {EntryOutcome::Kind::SkipAndFree};
    }
    handle.serialNumber = identification.serialNumber;
    const Error error = GuidGenerator::GenerateGUIDForCamera(identification.first, identification.second,
                                                             identification.serialNumber, &handle.guid);
    if (error != ERROR_OK) {
        return FailWith(NIMBREL2_ERROR(ERROR_GUID_GENERATION_FAILED, InternalError(error), "%s",
                                       "Failed to generate the USB GUID."));
    }
    return {};
}

EntryOutcome IdentifyGigECamera(BusMasterHandle& handle, GigEInterface& hwInterface, void* entry) {
    std::uint32_t ipAddress = 0;
    unsigned int marker = 0;
    std::uint32_t status = HAL_OK;
    const bool isGigE = hwInterface.GetInterfaceType() == INTERFACE_GIGE;
    if (isGigE && !hwInterface.IsInMonitorMode()) {
        status = hwInterface.ReadGVCPRegister(CurrentIpAddressRegister, &ipAddress);
    } else {
        marker = isGigE ? 0 : 1;
        status = HAL_GigEGetCameraIpAddress(entry, &ipAddress);
    }
    if (status != HAL_OK) {
        return FailWith(NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "%s", "Could not Read Camera IP address."));
    }
    Identification identification;
    if (Identify(hwInterface, &identification) != HAL_OK) {
        return {EntryOutcome::Kind::SkipAndLeave};
    }
    handle.serialNumber = identification.serialNumber;
    const Error error = GuidGenerator::GenerateGUIDForGigECamera(
        identification.first, identification.second, identification.serialNumber, ipAddress, marker, &handle.guid);
    if (error != ERROR_OK) {
        return FailWith(NIMBREL2_ERROR(ERROR_GUID_GENERATION_FAILED, InternalError(error), "%s",
                                       "Failed to generate the GigE GUID."));
    }
    return {};
}

}  // namespace

// Three listings at once, so that the call takes as long as the slowest bus. The order never depends on which thread
// ends first, and a bus that failed contributes no cameras.
Error BusMaster::Members::GetCameras(HandleList& cameras) {
    const boost::unique_lock<boost::mutex> lock(m_enumerationMutex);
    struct Bus {
        const char* threadName;
        Error (*list)(HandleList*);
        HandleList cameras;
        boost::thread thread;
    };
    Bus buses[] = {{"nimbrel-1394", &Get1394Cameras, {}, {}},
                   {"nimbrel-usb", &GetUSBCameras, {}, {}},
                   {"nimbrel-gige", &GetGigECameras, {}, {}}};
    const auto join = [&buses] {
        for (Bus& bus : buses) {
            if (bus.thread.joinable()) {
                bus.thread.join();
            }
        }
    };
    try {
        for (Bus& bus : buses) {
            bus.thread = StartThread(bus.threadName, [&bus] { bus.list(&bus.cameras); });
        }
        join();
        if (m_enumerateVirtualDevices) {
            GetVirtualCameras(&buses[0].cameras);  // after the joins: it wants the real cameras' serial numbers
        }
        cameras.reserve(cameras.size() + buses[0].cameras.size() + buses[1].cameras.size() + buses[2].cameras.size());
    } catch (...) {
        join();
        for (Bus& bus : buses) {
            FreeCameraList(&bus.cameras);
        }
        throw;
    }
    for (const Bus& bus : buses) {
        cameras.insert(cameras.end(), bus.cameras.begin(), bus.cameras.end());
    }
    return InternalError(ERROR_OK);
}

Error BusMaster::Get1394Cameras(HandleList* cameras) {
    HalArray<FireWireCapacity> found;
    if (HAL_1394GetCameras(found.entries.data(), &found.count) != HAL_OK) {
        return InternalError(ERROR_OK);
    }
    TraceLine("HAL_1394GetCameras returned : %" PRIu64, found.count);
    const HalList<IEEE1394Interface> list{&Free1394HALCameras, &FreeCameraList,
                                          "Could not allocate the 1394 interface."};
    return list.Wrap(found.entries.data(), found.Count(), cameras,
                     [](BusMasterHandle& handle, IEEE1394Interface& hwInterface, unsigned int) {
                         return Identify1394Camera(handle, hwInterface, 0xFFFFFFFF);
                     });
}

Error BusMaster::GetUSBCameras(HandleList* cameras) {
    HalArray<UsbCapacity> found;
    if (HAL_UsbGetCameras(found.entries.data(), &found.count) != HAL_OK) {
        return InternalError(ERROR_OK);
    }
    const HalList<UsbInterface> list{&FreeUsbHALDevices, &FreeCameraList, "Could not allocate the USB interface."};
    return list.Wrap(found.entries.data(), found.Count(), cameras,
                     [](BusMasterHandle& handle, UsbInterface& hwInterface, unsigned int) {
                         return IdentifyUsbCamera(handle, hwInterface);
                     });
}

Error BusMaster::GetGigECameras(HandleList* cameras) {
    HalArray<GigECapacity> found;
    if (HAL_GigEGetCameras(found.entries.data(), &found.count) != HAL_OK) {
        return InternalError(ERROR_OK);
    }
    const HalList<GigEInterface> list{&FreeGigEHALDevices, &FreeCameraList, "Could not allocate the GigE interface."};
    return list.Wrap(found.entries.data(), found.Count(), cameras,
                     [&found](BusMasterHandle& handle, GigEInterface& hwInterface, unsigned int index) {
                         return IdentifyGigECamera(handle, hwInterface, found.entries[index]);
                     });
}

Error BusMaster::GetVirtualCameras(HandleList* cameras) {
    HalArray<FireWireCapacity> found;
    std::array<std::uint64_t, FireWireCapacity> serialNumbers{};
    found.count = std::min(cameras->size(), serialNumbers.size());
    for (std::size_t i = 0; i < found.count; ++i) {
        serialNumbers[i] = (*cameras)[i]->serialNumber;
    }
    if (HAL_1394GetVirtualCameras(found.entries.data(), serialNumbers.data(), &found.count) != HAL_OK) {
        return InternalError(ERROR_OK);
    }
    const HalList<IEEE1394Interface> list{&Free1394HALCameras, &FreeCameraList,
                                          "Could not allocate the 1394 interface."};
    return list.Wrap(found.entries.data(), found.Count(), cameras,
                     [](BusMasterHandle& handle, IEEE1394Interface& hwInterface, unsigned int) {
                         return Identify1394Camera(handle, hwInterface, VirtualSerialMask);
                     });
}

}  // namespace Nimbrel2
