// SPDX-License-Identifier: Apache-2.0
// Lists cameras and finds the ones that entries name. Any thread; m_mutex for each call, while sysfs is read too.
#include "platform/base/Errno.h"
#include "platform/linux/usb/UsbCore.h"

namespace Nimbrel2::Platform::Usb {

std::uint32_t UsbCore::ListCameras(std::vector<DevicePointer>* cameras, BusState* state) {
    const LockGuard lock(m_mutex);
    if (!m_running) {
        return HAL_CLOSED;
    }
    TakeEvents();
    int error = m_lookError;
    if (m_lookIsDue || !m_hearsUevents || error != 0) {
        error = Look();
        m_monitor.Wake();  // it may wait for an end of the burst that has been seen to here
    }
    if (error != 0) {
        return StatusOfErrno(error);
    }
    for (const DevicePointer& device : m_devices) {
        if (device->IsListed()) {
            cameras->push_back(device);
        }
    }
    state->resets = m_resets;
    for (const auto& entry : m_reported) {
        state->devices.push_back(entry.second);
    }
    return HAL_OK;
}

std::uint32_t UsbCore::FindCamera(NamedCamera* camera, DevicePointer* device) {
    const LockGuard lock(m_mutex);
    if (!m_running) {
        return HAL_CLOSED;
    }
    *device = FindAttached(camera);
    return *device != nullptr ? HAL_OK : HAL_GONE;
}

std::uint32_t UsbCore::GetTree(NamedCamera* camera, std::vector<UsbSelfId>* records, std::uint32_t* deviceId,
                               std::uint64_t* hostKey, std::uint32_t* generation) {
    const LockGuard lock(m_mutex);
    if (!m_running) {
        return HAL_CLOSED;
    }
    if (const int error = LookIfDue(); error != 0) {
        return StatusOfErrno(error);
    }
    const DevicePointer device = FindAttached(camera);
    if (device == nullptr) {
        return HAL_GONE;
    }
    // Its controller is there as long as it is.
    const Tree& tree = m_trees.at(device->hostKey);
    records->insert(records->end(), tree.records.begin(), tree.records.end());
    *deviceId = device->GetId();
    *hostKey = device->hostKey;
    *generation = tree.generation;
    return HAL_OK;
}

DevicePointer UsbCore::FindAttached(NamedCamera* camera) const {
    const bool isByText = !camera->key.serial.empty() && m_ambiguous.count(camera->key) == 0;
    DevicePointer found;
    for (const DevicePointer& device : m_devices) {
        if (!device->IsListed() || KeyOf(*device) != camera->key) {
            continue;
        }
        if (PlaceOf(*device) == camera->place) {
            return device;
        }
        // The text tells it, wherever it is now.
        if (isByText && found == nullptr) {
            found = device;
        }
    }
    if (found != nullptr) {
        camera->place = PlaceOf(*found);
    }
    return found;
}

}  // namespace Nimbrel2::Platform::Usb
