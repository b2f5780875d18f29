// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_MACADDRESS_H
#define NIMBREL2_COMMON_MACADDRESS_H

#include <cstdint>

namespace Nimbrel2 {

/// An EUI-48. octets[0] is written first.
struct MACAddress {
    std::uint8_t octets[6] = {0, 0, 0, 0, 0, 0};
};

}  // namespace Nimbrel2

#endif
