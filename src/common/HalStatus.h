// SPDX-License-Identifier: Apache-2.0
// HAL statuses for people.
#ifndef NIMBREL2_COMMON_HALSTATUS_H
#define NIMBREL2_COMMON_HALSTATUS_H

#include <cstdint>

#include "hal/Export.h"

namespace Nimbrel2 {

/// What a HALStatus means, as a short English text: "permission denied". The operations of a HardwareInterface return
/// such a status, and the messages of Error hold it as a hexadecimal number, with and without 0x: "Error: 18" is 24.
/// @return a text that lives for ever; "unknown status" for a number that is no HALStatus.
NIMBREL2_API const char* HalStatusText(std::uint32_t status) noexcept;

}  // namespace Nimbrel2

#endif
