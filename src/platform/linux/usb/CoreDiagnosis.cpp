// SPDX-License-Identifier: Apache-2.0
// What the driver knows, for diagnosis. Runs on its caller's thread; m_mutex is only taken to copy what is known.
#include "platform/base/Sysfs.h"
#include "platform/linux/usb/Inspect.h"
#include "platform/linux/usb/Map.h"
#include "platform/linux/usb/UsbCore.h"

namespace Nimbrel2::Platform::Usb {

namespace {

std::vector<UsbDeviceDiagnosis> InspectAll(const std::vector<DevicePointer>& devices) {
    std::vector<UsbDeviceDiagnosis> inspected;
    inspected.reserve(devices.size());
    for (const DevicePointer& device : devices) {
        inspected.push_back(Inspect(*device));
    }
    RelatePorts(&inspected);
    return inspected;
}

}  // namespace

std::uint32_t UsbCore::Diagnose(UsbDiagnosis* diagnosis) {
    std::vector<DevicePointer> devices;
    {
        const LockGuard lock(m_mutex);
        if (!m_running) {
            return HAL_CLOSED;
        }
        devices = m_devices;
        diagnosis->error = m_lookError;
        diagnosis->hearsUevents = m_hearsUevents;
        diagnosis->ueventError = m_ueventError;
    }
    diagnosis->isUdevRunning = IsUdevRunning();
    SysfsDirectory parameters;
    if (parameters.Open("module/usbcore/parameters") == 0) {
        diagnosis->memoryLimit = parameters.ReadNumber("usbfs_memory_mb");
    }
    diagnosis->devices = InspectAll(devices);
    for (std::size_t i = 0; i < devices.size(); ++i) {
        if (diagnosis->devices[i].isCamera) {
            diagnosis->devices[i].claims = FindClaims(*devices[i]);
        }
    }
    return HAL_OK;
}

std::uint32_t UsbCore::Describe(std::vector<BusMap>* maps) {
    std::vector<DevicePointer> devices;
    {
        const LockGuard lock(m_mutex);
        if (!m_running) {
            return HAL_CLOSED;
        }
        devices = m_devices;
    }
    *maps = MapControllers(InspectAll(devices));
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform::Usb
