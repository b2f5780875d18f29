// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_CAMERAINFO_H
#define NIMBREL2_COMMON_CAMERAINFO_H

#include <cstdint>

#include "common/IPAddress.h"
#include "common/InterfaceType.h"
#include "common/MACAddress.h"

namespace Nimbrel2 {

/// What a camera tells of itself. Starts zeroed, so that texts copied without a terminator end all the same.
struct CameraInfo {
    static constexpr unsigned int TextCapacity = 64;

    std::uint32_t serialNumber = 0;
    InterfaceType interfaceType = INTERFACE_IEEE1394;
    char vendorName[TextCapacity] = {};
    char modelName[TextCapacity] = {};
    char serialText[TextCapacity] = {};  ///< The serial number as the device tells it, of which serialNumber is a part.

    // GigE only.
    std::uint32_t gigEMajorVersion = 0;  ///< Of the GigE Vision standard.
    std::uint32_t gigEMinorVersion = 0;
    char deviceVersion[TextCapacity] = {};
    char userDefinedName[TextCapacity] = {};
    MACAddress macAddress;
    IPAddress ipAddress;
    IPAddress subnetMask;
    IPAddress defaultGateway;
};

/// Ends a text that came from outside: its last character is lost when it filled the field.
inline void TerminateText(char (&text)[CameraInfo::TextCapacity]) noexcept {
    text[CameraInfo::TextCapacity - 1] = '\0';
}

}  // namespace Nimbrel2

#endif
