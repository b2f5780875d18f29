// SPDX-License-Identifier: Apache-2.0
// Device enumeration, and the release of handles and entries. Takes no lock: the caller owns the lists.
#include <boost/assert.hpp>

#include "busmaster/BusMaster.h"
#include "busmaster/HalList.h"
#include "common/GuidGenerator.h"
#include "common/IEEE1394Interface.h"

namespace Nimbrel2 {

namespace {

constexpr std::size_t DeviceCapacity = 256;

EntryOutcome Identify1394Device(BusMasterHandle& handle, IEEE1394Interface& hwInterface, unsigned int index) {
    std::uint32_t info1 = 0;
    std::uint32_t info2 = 0;
    std::uint32_t info3 = 0;
    if (hwInterface.GetDeviceInfo(&info1, &info2, &info3) != HAL_OK) {
        return {EntryOutcome::Kind::SkipAndFree};
    }
    // This order and the added index fix the guid of every device; the HAL takes the index off again beforehand.
    const Error error =
        GuidGenerator::GenerateGUIDForDevice(hwInterface.GetInterfaceType(), info2, info1, info3 + index, &handle.guid);
    if (error != ERROR_OK) {
        return FailWith(NIMBREL2_ERROR(ERROR_GUID_GENERATION_FAILED, InternalError(error), "%s",
                                       "Failed to generate the 1394 GUID."));
    }
    return {};
}

// Lets go of a handle after the interface has given its entry back.
void FreeHandle(BusMasterHandle* handle, std::uint32_t (HardwareInterface::*release)()) {
    (handle->hwInterface.operator->()->*release)();  // the shared pointer asserts that there is one
    handle->hwInterface.reset();
    delete handle;
}

template <class Free>
void FreeEntries(void** halHandles, unsigned int end, unsigned int start, Free free) {
    for (unsigned int index = start; index < end; ++index) {
        free(halHandles[index]);
    }
}

}  // namespace

Error BusMaster::GetDevices(HandleList* devices) { return Get1394Devices(devices); }

Error BusMaster::Get1394Devices(HandleList* devices) {
    HalArray<DeviceCapacity> found;
    const std::uint32_t status = HAL_1394GetDevices(found.entries.data(), &found.count);
    if (status != HAL_OK) {
        return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Could not get 1394 devices. Error: 0x%x.", status);
    }
    const HalList<IEEE1394Interface> list{&Free1394HALDevices, &FreeDeviceList,
                                          "Could not allocate the 1394 interface."};
    return list.Wrap(found.entries.data(), found.Count(), devices, &Identify1394Device);
}

void BusMaster::FreeCamera(BusMasterHandle* handle) {
    if (handle != nullptr) {
        FreeHandle(handle, &HardwareInterface::ReleaseCamera);
    }
}

void BusMaster::FreeCameraList(HandleList* list) {
    if (list == nullptr) {
        return;
    }
    for (BusMasterHandle* handle : *list) {
        FreeHandle(handle, &HardwareInterface::ReleaseCamera);
    }
    list->clear();
}

void BusMaster::FreeDeviceList(HandleList* list) {
    if (list == nullptr) {
        return;
    }
    for (BusMasterHandle* handle : *list) {
        FreeHandle(handle, &HardwareInterface::ReleaseDevice);
    }
    list->clear();
}

void BusMaster::Free1394HALCameras(void** halHandles, unsigned int end, unsigned int start) {
    FreeEntries(halHandles, end, start, &HAL_1394FreeCamera);
}

void BusMaster::Free1394HALDevices(void** halHandles, unsigned int end, unsigned int start) {
    FreeEntries(halHandles, end, start, &HAL_1394FreeDevice);
}

void BusMaster::FreeUsbHALDevices(void** halHandles, unsigned int end, unsigned int start) {
    FreeEntries(halHandles, end, start, &HAL_UsbFreeCamera);
}

void BusMaster::FreeGigEHALDevices(void** halHandles, unsigned int end, unsigned int start) {
    FreeEntries(halHandles, end, start, &HAL_GigEFreeCamera);
}

}  // namespace Nimbrel2
