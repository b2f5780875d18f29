// SPDX-License-Identifier: Apache-2.0
// What tells one GigE camera from another. Pure functions; any thread.
#include "platform/linux/gige/CameraKey.h"

#include <cstdio>

#include "platform/base/Texts.h"

namespace Nimbrel2::Platform::GigE {

std::uint64_t MacOf(const GvcpDiscoveryRecord& record) {
    return static_cast<std::uint64_t>(record.macHigh) << 32 | record.macLow;
}

std::string SerialTextOf(const GvcpDiscoveryRecord& record) { return std::string(FieldText(record.serialNumber)); }

std::uint32_t SerialNumberOf(const GvcpDiscoveryRecord& record) {
    return LeadingNumber(FieldText(record.serialNumber));
}

CameraKey KeyOf(const GvcpDiscoveryRecord& record) {
    const std::uint64_t mac = MacOf(record);
    if (mac != 0) return CameraKey{mac, 0, {}};
    return CameraKey{0, record.ipAddress, SerialTextOf(record)};
}

std::string MacText(std::uint64_t mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>(mac >> 40 & 0xFF),
                  static_cast<unsigned>(mac >> 32 & 0xFF), static_cast<unsigned>(mac >> 24 & 0xFF),
                  static_cast<unsigned>(mac >> 16 & 0xFF), static_cast<unsigned>(mac >> 8 & 0xFF),
                  static_cast<unsigned>(mac & 0xFF));
    return text;
}

std::string IpText(std::uint32_t ip) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
    return text;
}

}  // namespace Nimbrel2::Platform::GigE
