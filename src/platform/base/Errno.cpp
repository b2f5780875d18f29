// SPDX-License-Identifier: Apache-2.0
// What an errno means to whoever calls the HAL. Pure; any thread; no lock.
#include "platform/base/Errno.h"

#include <cerrno>

#include "hal/HAL.h"

namespace Nimbrel2::Platform {

std::uint32_t StatusOfErrno(int error) {
    switch (error) {
        case 0:
            return HAL_OK;
        case EPERM:
        case EACCES:
            return HAL_PERMISSION;
        case EMFILE:
        case ENFILE:
        case ENOMEM:
        case ENOSPC:
        case EADDRINUSE:  // a range of ports that is used up
            return HAL_OUT_OF_MEMORY;
        case ENETDOWN:
        case ENETUNREACH:
        case EHOSTUNREACH:
        case EHOSTDOWN:
        case ENODEV:
        case ENXIO:
        case EADDRNOTAVAIL:
        case EINVAL:  // what sendmsg answers when the address to send from is no longer this computer's
            return HAL_UNREACHABLE;
        case EAGAIN:
        case ENOBUFS:
            return HAL_BUSY;
        default:
            return HAL_FAILED;
    }
}

bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

}  // namespace Nimbrel2::Platform
