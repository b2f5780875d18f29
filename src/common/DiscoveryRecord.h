// SPDX-License-Identifier: Apache-2.0
// From a GigE discovery answer to what users see. Pure.
#ifndef NIMBREL2_COMMON_DISCOVERYRECORD_H
#define NIMBREL2_COMMON_DISCOVERYRECORD_H

#include <cstddef>
#include <cstring>

#include "common/CameraInfo.h"
#include "hal/HAL.h"

namespace Nimbrel2 {

/// Copies a text of a record up to, and not including, its first zero byte or the end of its field. The rest of the
/// target is left alone.
template <std::size_t FieldSize, std::size_t TargetSize>
void CopyRecordText(const char (&field)[FieldSize], char (&target)[TargetSize]) {
    static_assert(FieldSize < TargetSize, "a full field leaves room for a terminator");
    std::memcpy(target, field, strnlen(field, FieldSize));
}

/// Fills serial number, interface type, GigE version, addresses, vendor, model and user-defined name. The serial number
/// is the decimal number at the start of its text, cut to 32 bits. Nothing else is written.
void FillCameraInfo(const GvcpDiscoveryRecord& record, CameraInfo* info);

}  // namespace Nimbrel2

#endif
