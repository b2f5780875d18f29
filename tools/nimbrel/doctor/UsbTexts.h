// SPDX-License-Identifier: Apache-2.0
// Names in the findings on USB, and the way from a device to the computer. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_USBTEXTS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_USBTEXTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"

namespace Nimbrel2::Tool::Doctor {

/// Null when there is none of that name.
const Platform::UsbDeviceDiagnosis* FindUsbDevice(const Platform::UsbDiagnosis& diagnosis, const std::string& name);

/// The hubs above a device, the nearest first and the root hub last.
std::vector<const Platform::UsbDeviceDiagnosis*> HubsAbove(const Platform::UsbDiagnosis& diagnosis,
                                                           const Platform::UsbDeviceDiagnosis& device);

/// "camera 1000001 (Model SS at 2-4)". Model and serial text are the camera's own and may hold anything.
std::string UsbCameraText(const Platform::UsbDeviceDiagnosis& camera);
/// "hub 2-1", "root hub usb2".
std::string UsbHubText(const Platform::UsbDeviceDiagnosis& hub);
/// "port 3 of hub 2-1": the one that a device is on.
std::string UsbPortText(const Platform::UsbDiagnosis& diagnosis, const Platform::UsbDeviceDiagnosis& device);

/// "/sys/bus/usb/devices/2-1/" and the attribute.
std::string UsbAttribute(const Platform::UsbDeviceDiagnosis& device, const std::string& attribute);
/// The command that writes an attribute.
std::string WriteUsbAttribute(const std::string& path, const std::string& value);

}  // namespace Nimbrel2::Tool::Doctor

#endif
