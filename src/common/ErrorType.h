// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_ERRORTYPE_H
#define NIMBREL2_COMMON_ERRORTYPE_H

namespace Nimbrel2 {

/// What went wrong, as a number that never changes between releases.
enum ErrorType {
    ERROR_OK = 0,
    ERROR_FAILED = 1,           ///< The look-up of a guid by serial number found no camera; nothing else.
    ERROR_NOT_IMPLEMENTED = 2,  ///< The operation is not available here.
    ERROR_INIT_TIMED_OUT = 5,   ///< The worker thread did not confirm its start in time.
    ERROR_NOT_INITIALIZED = 6,
    ERROR_INVALID_PARAMETER = 7,  ///< A null output pointer, a bad index, type or handle, a size of zero.
    ERROR_MEMORY_ALLOCATION_FAILED = 10,
    ERROR_LOW_LEVEL_FAILURE = 11,  ///< A HAL or interface call failed; the message holds its status.
    ERROR_NOT_FOUND = 12,          ///< No camera or device matches the key.
    ERROR_GUID_GENERATION_FAILED = 13,
    ERROR_UNSUPPORTED_INTERFACE = 17,  ///< The camera is not on the kind of bus that the operation needs.
    ERROR_TIMEOUT = 18,                ///< Nobody acknowledged a GigE force-IP request.
    ERROR_REGISTER_FAILED = 28,        ///< A GigE control register, or the local port or address, could not be read.
    ERROR_BUFFER_TOO_SMALL = 40        ///< The caller's array is too small; the needed size was returned.
};

}  // namespace Nimbrel2

#endif
