// SPDX-License-Identifier: Apache-2.0
// GVCP statuses in the HAL's words. Pure function: any thread, no lock.
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {

HALStatus ToHalStatus(Status status) {
    switch (status) {
        case Status::Success:
            return HAL_OK;
        case Status::NotImplemented:
            return HAL_NOT_SUPPORTED;
        case Status::InvalidParameter:
        case Status::BadAlignment:
            return HAL_INVALID_ARGUMENT;
        case Status::InvalidAddress:
            return HAL_NO_SUCH_REGISTER;
        case Status::WriteProtect:
            return HAL_WRITE_PROTECTED;
        case Status::AccessDenied:
            return HAL_ACCESS_DENIED;
        case Status::Busy:
            return HAL_BUSY;
        default:
            return HAL_REFUSED;
    }
}

}  // namespace Nimbrel2::Platform::Gvcp
