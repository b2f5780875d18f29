// SPDX-License-Identifier: Apache-2.0
// GVCP services. Run on their caller's thread, which the driver blocks for network I/O; no lock of the glue is held.
#include <algorithm>
#include <vector>

#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

static_assert(sizeof(GvcpDiscoveryRecord) == 212, "the record has no padding but the one it names");

uint32_t HAL_GvcpDiscovery(GvcpDiscoveryRecord* records, uint32_t* count) {
    const bool good = count != nullptr && (records != nullptr || *count == 0);
    return InSession(__func__, good, [&](Session& session) -> std::uint32_t {
        std::vector<GvcpDiscoveryRecord> found;
        const std::uint32_t status = session.GigE().Discover(&found);
        if (status != HAL_OK) return status;
        const std::uint32_t capacity = *count;
        *count = static_cast<std::uint32_t>(found.size());
        if (found.size() > capacity) return HAL_ARRAY_TOO_SMALL;
        std::copy(found.begin(), found.end(), records);
        return HAL_OK;
    });
}

uint32_t HAL_GvcpForceIp(uint32_t macHigh, uint32_t macLow, uint32_t ipAddress, uint32_t subnetMask, uint32_t gateway) {
    return InSession(__func__, macHigh <= 0xFFFF, [&](Session& session) {
        const std::uint64_t mac = std::uint64_t{macHigh} << 32 | macLow;
        return session.GigE().ForceIp(mac, ipAddress, subnetMask, gateway);
    });
}

uint32_t HAL_GvcpForceIpAuto(void) {
    return InSession(__func__, true, [](Session& session) { return session.GigE().ForceIpAuto(); });
}

uint32_t HAL_GvcpAutoForceIpToCamera(uint32_t serialNumber) {
    return InSession(__func__, true,
                     [&](Session& session) { return session.GigE().AutoForceIpToCamera(serialNumber); });
}
