// SPDX-License-Identifier: Apache-2.0
// Names in the findings on USB. Pure.
#include "tools/nimbrel/doctor/UsbTexts.h"

#include <algorithm>

namespace Nimbrel2::Tool::Doctor {

using Platform::UsbDeviceDiagnosis;
using Platform::UsbDiagnosis;

const UsbDeviceDiagnosis* FindUsbDevice(const UsbDiagnosis& diagnosis, const std::string& name) {
    const auto found = std::find_if(diagnosis.devices.begin(), diagnosis.devices.end(),
                                    [&](const UsbDeviceDiagnosis& device) { return device.name == name; });
    return found == diagnosis.devices.end() ? nullptr : &*found;
}

std::vector<const UsbDeviceDiagnosis*> HubsAbove(const UsbDiagnosis& diagnosis, const UsbDeviceDiagnosis& device) {
    std::vector<const UsbDeviceDiagnosis*> hubs;
    // No more than there are devices, whatever the names say.
    for (const UsbDeviceDiagnosis* hub = FindUsbDevice(diagnosis, device.hub);
         hub != nullptr && hubs.size() < diagnosis.devices.size(); hub = FindUsbDevice(diagnosis, hub->hub)) {
        hubs.push_back(hub);
    }
    return hubs;
}

std::string UsbCameraText(const UsbDeviceDiagnosis& camera) {
    return "camera " + std::to_string(camera.serialNumber) + " (" + camera.model + " at " + camera.name + ")";
}

std::string UsbHubText(const UsbDeviceDiagnosis& hub) { return (hub.hub.empty() ? "root hub " : "hub ") + hub.name; }

std::string UsbPortText(const UsbDiagnosis& diagnosis, const UsbDeviceDiagnosis& device) {
    const UsbDeviceDiagnosis* hub = FindUsbDevice(diagnosis, device.hub);
    return "port " + std::to_string(device.port) + " of " + (hub != nullptr ? UsbHubText(*hub) : "hub " + device.hub);
}

std::string UsbAttribute(const UsbDeviceDiagnosis& device, const std::string& attribute) {
    return "/sys/bus/usb/devices/" + device.name + "/" + attribute;
}

std::string WriteUsbAttribute(const std::string& path, const std::string& value) {
    return "echo " + value + " | sudo tee " + path;
}

}  // namespace Nimbrel2::Tool::Doctor
