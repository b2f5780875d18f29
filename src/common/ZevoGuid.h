// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_ZEVOGUID_H
#define NIMBREL2_COMMON_ZEVOGUID_H

#include <cstdint>

namespace Nimbrel2 {

/// Identifier of a camera or device, word 0 first. All zero means none. Derived from what the device tells of itself,
/// so that the same device has the same identifier in every process (see GuidGenerator).
struct ZevoGuid {
    std::uint32_t value[4] = {0, 0, 0, 0};

    /// All four words, in order.
    friend bool operator==(const ZevoGuid& a, const ZevoGuid& b) noexcept {
        return a.value[0] == b.value[0] && a.value[1] == b.value[1] && a.value[2] == b.value[2] &&
               a.value[3] == b.value[3];
    }
};

}  // namespace Nimbrel2

#endif
