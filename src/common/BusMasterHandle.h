// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_BUSMASTERHANDLE_H
#define NIMBREL2_COMMON_BUSMASTERHANDLE_H

#include <boost/shared_ptr.hpp>
#include <cstdint>

#include "common/HardwareInterface.h"
#include "common/ZevoGuid.h"

namespace Nimbrel2 {

/// One camera or device in a list of the bus master. Two handles are the same camera when their guids are equal.
struct BusMasterHandle {
    std::uint32_t serialNumber = 0;                    ///< As the camera told it at enumeration.
    ZevoGuid guid;                                     ///< All zero until it has been generated.
    boost::shared_ptr<HardwareInterface> hwInterface;  ///< Empty only while the handle is being made or freed.
};

}  // namespace Nimbrel2

#endif
