// SPDX-License-Identifier: Apache-2.0
// What tells one GigE camera from another. Pure functions; any thread.
#include "platform/linux/gige/CameraKey.h"

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
    if (mac != 0) {
        return CameraKey{mac, 0, {}};
    }
    return CameraKey{0, record.ipAddress, SerialTextOf(record)};
}

}  // namespace Nimbrel2::Platform::GigE
