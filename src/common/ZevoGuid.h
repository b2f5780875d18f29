// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_ZEVOGUID_H
#define NIMBREL2_COMMON_ZEVOGUID_H

#include <algorithm>
#include <cstdint>

namespace Nimbrel2 {

/// Identifier of a camera or device, word 0 first. All zero means none. Made of what the device tells of itself, so
/// that it is the same in every process. On IEEE 1394 and USB it never changes. A GigE camera's is made of its IP
/// address, too, and changes with that: keep its serial number or its MAC. Cameras of one vendor, model and serial
/// number share theirs.
struct ZevoGuid {
    std::uint32_t value[4] = {0, 0, 0, 0};

    /// All four words, in order.
    friend bool operator==(const ZevoGuid& a, const ZevoGuid& b) noexcept {
        return a.value[0] == b.value[0] && a.value[1] == b.value[1] && a.value[2] == b.value[2] &&
               a.value[3] == b.value[3];
    }
    friend bool operator!=(const ZevoGuid& a, const ZevoGuid& b) noexcept { return !(a == b); }
    /// Word by word, so that it can be the key of a map; the order has no other meaning.
    friend bool operator<(const ZevoGuid& a, const ZevoGuid& b) noexcept {
        return std::lexicographical_compare(a.value, a.value + 4, b.value, b.value + 4);
    }
};

}  // namespace Nimbrel2

#endif
