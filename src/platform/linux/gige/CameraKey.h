// SPDX-License-Identifier: Apache-2.0
// What tells one GigE camera from another, and the few things a discovery record says in other forms.
// Pure functions; any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_CAMERAKEY_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_CAMERAKEY_H

#include <compare>
#include <cstdint>
#include <string>

#include "hal/HAL.h"

namespace Nimbrel2::Platform::GigE {

/// The identity of a camera: its MAC address. Simulated cameras may have none; then the serial text and the address
/// tell them apart, and a changed address is another camera.
struct CameraKey {
    std::uint64_t mac = 0;  ///< octet 0 in bits 47 to 40
    std::uint32_t ip = 0;   ///< 0 when there is a MAC
    std::string serial;     ///< empty when there is a MAC

    auto operator<=>(const CameraKey&) const = default;
};

std::uint64_t MacOf(const GvcpDiscoveryRecord& record);

/// The serial text up to its zero byte or the end of its field.
std::string SerialTextOf(const GvcpDiscoveryRecord& record);

/// The decimal number at the start of the serial text, its low 32 bits; 0 when it begins with no digit.
std::uint32_t SerialNumberOf(const GvcpDiscoveryRecord& record);

CameraKey KeyOf(const GvcpDiscoveryRecord& record);

}  // namespace Nimbrel2::Platform::GigE

#endif
