// SPDX-License-Identifier: Apache-2.0
// Merging a fresh camera list into the kept one. The worker runs it with m_busMasterMutex held; ReenableIso also runs
// on the HAL's event threads, on a snapshot. Takes no lock.
#include <algorithm>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "busmaster/BusMaster.h"
#include "busmaster/Support.h"
#include "common/IEEE1394Interface.h"

namespace Nimbrel2 {

namespace {

constexpr std::uint64_t UniqueIdLowRegister = 0xF0000410;  // IEEE 1394 configuration ROM, bus information block
constexpr std::uint64_t IsoEnableRegister = 0xF0F00614;    // IIDC ISO_EN
constexpr std::uint32_t IsoOn = 0x80000000;
constexpr std::uint32_t WholeDevice = 0xFFFFFFFF;  // what every register operation of the bus master selects

// The two interfaces of one IEEE 1394 camera that is in both lists; null for everything else.
struct FireWirePair {
    IEEE1394Interface* from = nullptr;
    IEEE1394Interface* to = nullptr;

    FireWirePair(BusMasterHandle* fromHandle, BusMasterHandle* toHandle) {
        if (!BusMaster::AreDevicesEqual(fromHandle, toHandle) ||
            fromHandle->hwInterface->GetInterfaceType() != INTERFACE_IEEE1394 ||
            toHandle->hwInterface->GetInterfaceType() != INTERFACE_IEEE1394) {
            return;
        }
        from = dynamic_cast<IEEE1394Interface*>(fromHandle->hwInterface.get());
        to = dynamic_cast<IEEE1394Interface*>(toHandle->hwInterface.get());
    }

    explicit operator bool() const { return from != nullptr && to != nullptr; }
};

}  // namespace

bool BusMaster::AreDevicesEqual(BusMasterHandle* first, BusMasterHandle* second) { return first->guid == second->guid; }

Error BusMaster::UpdateCameraList(HandleList& current, HandleList& fresh, HandleList& arrived, HandleList& removed) {
    return WithoutExceptions([&]() -> Error {
        TraceLine("Updating camera list. Current size: %zu, new size: %zu", current.size(), fresh.size());
        // All memory first: from here on nothing can fail half-way, so no handle is ever in no list or in two.
        removed.reserve(removed.size() + current.size());
        current.reserve(current.size() + fresh.size());
        arrived.reserve(fresh.size());

        for (BusMasterHandle* kept : current) {
            const auto duplicate = std::find_if(
                fresh.begin(), fresh.end(), [kept](BusMasterHandle* handle) { return AreDevicesEqual(kept, handle); });
            if (duplicate == fresh.end()) {
                removed.push_back(kept);
                continue;
            }
            ReassignNode(*duplicate, kept);
            ReassignBusNumber(*duplicate, kept);
            ReenableIso(kept);
            FreeCamera(*duplicate);
            fresh.erase(duplicate);
        }
        for (BusMasterHandle* handle : removed) {
            const auto position = std::find(current.begin(), current.end(), handle);
            if (position != current.end()) {
                current.erase(position);
            }
        }
        arrived.assign(fresh.begin(), fresh.end());
        fresh.clear();
        current.insert(current.end(), arrived.begin(), arrived.end());
        TraceLine("Completed updating camera list");
        return InternalError(ERROR_OK);
    });
}

bool BusMaster::ReassignNode(BusMasterHandle* from, BusMasterHandle* to) {
    const FireWirePair pair(from, to);
    if (!pair) {
        return false;
    }
    unsigned short newNode = 0;
    unsigned short oldNode = 0;
    pair.from->GetCameraNode(&newNode);
    pair.to->GetCameraNode(&oldNode);
    if (newNode != oldNode) {
        TraceLine("Reassigning Node %d to Node %d\n", newNode, oldNode);
        pair.to->SetCameraNode(newNode);
    }
    return true;
}

bool BusMaster::ReassignBusNumber(BusMasterHandle* from, BusMasterHandle* to) {
    const FireWirePair pair(from, to);
    if (!pair) {
        return false;
    }
    unsigned short newNumber = 0;
    unsigned short oldNumber = 0;
    pair.from->GetCameraBusNum(&newNumber);
    pair.to->GetCameraBusNum(&oldNumber);
    if (newNumber != oldNumber) {
        TraceLine("Reassigning Bus Number %d to Bus Number %d\n", newNumber, oldNumber);
        pair.to->SetCameraBusNum(newNumber);
    }
    return true;
}

bool BusMaster::ReenableIso(BusMasterHandle* handle) {
    if (handle->hwInterface->GetInterfaceType() != INTERFACE_IEEE1394) {
        return false;
    }
    auto* const camera = dynamic_cast<IEEE1394Interface*>(handle->hwInterface.get());
    if (camera == nullptr) {
        return false;
    }
    std::uint32_t uniqueIdLow = 0;
    const std::uint32_t readStatus = camera->ReadRegister(UniqueIdLowRegister, WholeDevice, &uniqueIdLow);
    // Another camera at this place must not be made to transmit.
    if (readStatus != HAL_OK || !camera->isoEnabled || uniqueIdLow != handle->serialNumber) {
        return true;
    }
    const std::uint32_t writeStatus = camera->WriteRegister(IsoEnableRegister, WholeDevice, IsoOn, 0);
    if (writeStatus == HAL_OK) {
        TraceLine("Write to iso bit succeeded");
    } else {
        TraceLine("Write to iso bit failed with error %08X", writeStatus);
    }
    return true;
}

}  // namespace Nimbrel2
