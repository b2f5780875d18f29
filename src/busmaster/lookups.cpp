// SPDX-License-Identifier: Apache-2.0
// Look-ups over the camera and device lists. Any thread; each holds m_busMasterMutex for its walk, which for an IP
// address includes one register read a GigE camera, and for GetHandleFromGuid holds nothing.
#include <algorithm>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"
#include "common/GigEInterface.h"

namespace Nimbrel2 {

namespace {

using Lock = boost::unique_lock<boost::mutex>;
using HandleList = std::vector<BusMasterHandle*>;

constexpr unsigned int CurrentIpAddressRegister = 0x24;  // GigE Vision bootstrap register

Error NotInitialized() { return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED, "Object not initialized."); }

Error NotFound() { return NIMBREL2_ERROR(ERROR_NOT_FOUND, "Camera not found with specified guid."); }

Error BadIndex(unsigned int index, const HandleList& list) {
    return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid index parameter (%u/%u).", index,
                          static_cast<unsigned int>(list.size()));
}

BusMasterHandle* FindByGuid(const HandleList& list, const ZevoGuid& guid) {
    const auto found =
        std::find_if(list.begin(), list.end(), [&guid](const BusMasterHandle* handle) { return handle->guid == guid; });
    return found == list.end() ? nullptr : *found;
}

BusMasterHandle* FindBySerialNumber(const HandleList& list, unsigned int serial) {
    const auto found = std::find_if(list.begin(), list.end(),
                                    [serial](const BusMasterHandle* handle) { return handle->serialNumber == serial; });
    return found == list.end() ? nullptr : *found;
}

// Asks each GigE camera over the network.
BusMasterHandle* FindByIpAddress(const HandleList& list, const IPAddress& ip) {
    for (BusMasterHandle* camera : list) {
        if (camera->hwInterface->GetInterfaceType() != INTERFACE_GIGE) {
            continue;
        }
        std::uint32_t address = 0;  // what a camera of that type without GVCP registers counts as having
        if (auto* const gigE = dynamic_cast<GigEInterface*>(camera->hwInterface.get())) {
            if (gigE->ReadGVCPRegister(CurrentIpAddressRegister, &address) != HAL_OK) {
                TraceLine("Failed to read IP address register, skipping camera.");
                continue;
            }
        }
        if (address == PackIPAddress(ip)) {
            return camera;
        }
    }
    return nullptr;
}

Error Store(const boost::shared_ptr<HardwareInterface>& hwInterface, HardwareInterface** hw) {
    if (hw == nullptr) {
        return InternalError(ERROR_INVALID_PARAMETER);
    }
    *hw = hwInterface.get();
    return InternalError(ERROR_OK);
}

}  // namespace

Error BusMaster::GetNumOfCameras(unsigned int* count) {
    return WithoutExceptions([&] { return m_members->CountHandles(m_members->m_cameraList, count); });
}

Error BusMaster::GetNumOfDevices(unsigned int* count) {
    return WithoutExceptions([&] { return m_members->CountHandles(m_members->m_deviceList, count); });
}

Error BusMaster::Members::CountHandles(const HandleList& list, unsigned int* count) {
    const Lock lock = LockMain();
    if (!GetInitialized()) {
        return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED, "Bus Manager Object not initialized.");
    }
    if (count == nullptr) {
        return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid number of devices parameter.");
    }
    *count = static_cast<unsigned int>(list.size());
    return InternalError(ERROR_OK);
}

Error BusMaster::GetCameraFromIndex(unsigned int index, ZevoGuid* guid) {
    return WithoutExceptions([&]() -> Error {
        const Lock lock = m_members->LockMain();
        if (guid == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid guid parameter.");
        }
        if (!m_members->GetInitialized()) {
            return NotInitialized();
        }
        *guid = ZevoGuid{};
        const HandleList& cameras = m_members->m_cameraList;
        if (index >= cameras.size()) {
            return BadIndex(index, cameras);
        }
        *guid = cameras[index]->guid;
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetDeviceFromIndex(unsigned int index, ZevoGuid* guid) {
    return WithoutExceptions([&]() -> Error {
        const Lock lock = m_members->LockMain();
        if (guid == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid guid parameter.");
        }
        if (!m_members->GetInitialized()) {
            return NotInitialized();
        }
        const HandleList& devices = m_members->m_deviceList;
        if (index >= devices.size()) {
            return BadIndex(index, devices);
        }
        *guid = devices[index]->guid;
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetCameraSerialNumberFromIndex(unsigned int index, unsigned int* serial) {
    return WithoutExceptions([&]() -> Error {
        const Lock lock = m_members->LockMain();
        if (serial == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid serial number parameter.");
        }
        if (!m_members->GetInitialized()) {
            return NotInitialized();
        }
        const HandleList& cameras = m_members->m_cameraList;
        if (index >= cameras.size()) {
            return BadIndex(index, cameras);
        }
        *serial = cameras[index]->serialNumber;
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetHwInterfaceFromIndex(unsigned int index, HardwareInterface** hw) {
    return WithoutExceptions([&]() -> Error {
        const Lock lock = m_members->LockMain();
        if (!m_members->GetInitialized()) {
            return NotInitialized();
        }
        const HandleList& cameras = m_members->m_cameraList;
        if (index >= cameras.size()) {
            return BadIndex(index, cameras);
        }
        return Store(cameras[index]->hwInterface, hw);
    });
}

Error BusMaster::GetCameraFromSerialNumber(unsigned int serial, ZevoGuid* guid) {
    return WithoutExceptions([&]() -> Error {
        const Lock lock = m_members->LockMain();
        if (guid == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid guid parameter.");
        }
        if (!m_members->GetInitialized()) {
            return NotInitialized();
        }
        *guid = ZevoGuid{};
        const BusMasterHandle* camera = FindBySerialNumber(m_members->m_cameraList, serial);
        if (camera == nullptr) {
            return NIMBREL2_ERROR(ERROR_FAILED, "Camera with specified serial number was not found.");
        }
        *guid = camera->guid;
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetHwInterfaceFromSerialNumber(unsigned int serial, HardwareInterface** hw) {
    return WithoutExceptions([&]() -> Error {
        const Lock lock = m_members->LockMain();
        if (!m_members->GetInitialized()) {
            return NotInitialized();
        }
        const BusMasterHandle* camera = FindBySerialNumber(m_members->m_cameraList, serial);
        if (camera == nullptr) {
            return NIMBREL2_ERROR(ERROR_NOT_FOUND, "Camera not found with specified serial number.");
        }
        return Store(camera->hwInterface, hw);
    });
}

Error BusMaster::GetHandleFromGuid(ZevoGuid guid, BusMasterHandle** handle) {
    return WithoutExceptions([&]() -> Error {
        if (handle == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid handle parameter.");
        }
        BusMasterHandle* const found =
            m_members->IsInForkedProcess() ? nullptr : FindByGuid(m_members->m_cameraList, guid);
        if (found == nullptr) {
            return NIMBREL2_ERROR(ERROR_NOT_FOUND, "Could not find a device.");
        }
        *handle = found;
        return InternalError(ERROR_OK);
    });
}

boost::shared_ptr<HardwareInterface> BusMaster::Members::GetHwInterfaceFromGuidInternal(ZevoGuid guid) {
    const Lock lock = LockMain();
    if (!GetInitialized()) {
        return {};
    }
    const BusMasterHandle* handle = FindByGuid(m_cameraList, guid);
    if (handle == nullptr) {
        handle = FindByGuid(m_deviceList, guid);
    }
    return handle == nullptr ? boost::shared_ptr<HardwareInterface>() : handle->hwInterface;
}

Error BusMaster::GetHwInterfaceFromGuid(ZevoGuid guid, HardwareInterface** hw) {
    return WithoutExceptions([&]() -> Error {
        const boost::shared_ptr<HardwareInterface> found = m_members->GetHwInterfaceFromGuidInternal(guid);
        if (!found) {
            return NotFound();
        }
        return Store(found, hw);
    });
}

Error BusMaster::KeepHwInterface(ZevoGuid guid, boost::shared_ptr<HardwareInterface>* hw) {
    return WithoutExceptions([&]() -> Error {
        if (hw == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid interface address.");
        }
        boost::shared_ptr<HardwareInterface> found = m_members->GetHwInterfaceFromGuidInternal(guid);
        if (!found) {
            return NotFound();
        }
        *hw = std::move(found);
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetInterfaceTypeFromGuid(ZevoGuid guid, InterfaceType* type) {
    return WithoutExceptions([&]() -> Error {
        if (type == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid interface type address.");
        }
        const boost::shared_ptr<HardwareInterface> found = m_members->GetHwInterfaceFromGuidInternal(guid);
        if (!found) {
            return NIMBREL2_ERROR(ERROR_NOT_FOUND, "Device with matching ZevoGuid was not found.");
        }
        *type = found->GetInterfaceType();
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetCameraFromIPAddress(IPAddress ip, ZevoGuid* guid) {
    return WithoutExceptions([&]() -> Error {
        const Lock lock = m_members->LockMain();
        if (guid == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid ZevoGuid.");
        }
        *guid = ZevoGuid{};
        const BusMasterHandle* camera =
            m_members->IsInForkedProcess() ? nullptr : FindByIpAddress(m_members->m_cameraList, ip);
        if (camera == nullptr) {
            TraceLine("Device with matching ZevoGuid was not found.");
            return NIMBREL2_ERROR(ERROR_NOT_FOUND, "Device with matching ZevoGuid was not found.");
        }
        *guid = camera->guid;
        return InternalError(ERROR_OK);
    });
}

Error BusMaster::GetCameraInfo(ZevoGuid guid, CameraInfo* info) {
    return WithoutExceptions([&]() -> Error {
        if (info == nullptr) {
            return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid camera info address.");
        }
        const boost::shared_ptr<HardwareInterface> found = m_members->GetHwInterfaceFromGuidInternal(guid);
        if (!found) {
            return NotFound();
        }
        const std::uint32_t status = found->GetCameraInfo(info);
        if (status != HAL_OK) {
            return NIMBREL2_ERROR(ERROR_LOW_LEVEL_FAILURE, "Could not read the camera info. Error: 0x%x.", status);
        }
        return InternalError(ERROR_OK);
    });
}

}  // namespace Nimbrel2
