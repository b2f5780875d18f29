// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_BUSMASTER_BUSCALLBACKTYPE_H
#define NIMBREL2_BUSMASTER_BUSCALLBACKTYPE_H

#include <cstdint>

namespace Nimbrel2 {

/// The event a callback is registered for.
enum BusCallbackType : std::uint32_t {
    BUS_RESET = 0,  ///< Called with 0 after each re-enumeration, of RescanBus too; mostly twice for one bus reset.
    ARRIVAL = 1,    ///< Called with the serial number of the camera that came.
    REMOVAL = 2     ///< Called with the serial number of the camera that left.
};

}  // namespace Nimbrel2

#endif
