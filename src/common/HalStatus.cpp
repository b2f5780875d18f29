// SPDX-License-Identifier: Apache-2.0
// Texts of HAL statuses. Pure: no lock, any thread.
#include "common/HalStatus.h"

#include "hal/HAL.h"

namespace Nimbrel2 {

const char* HalStatusText(std::uint32_t status) noexcept {
    switch (static_cast<HALStatus>(status)) {
        case HAL_OK:
            return "success";
        case HAL_FAILED:
            return "failed";
        case HAL_INVALID_ARGUMENT:
            return "an argument is missing, misaligned or out of range";
        case HAL_PERMISSION:
            return "permission denied";
        case HAL_GONE:
            return "the device is no longer attached";
        case HAL_PHY_WRITE_NOT_IMPLEMENTED:
            return "this computer cannot write PHY registers";
        case HAL_BUSY:
            return "busy, try again later";
        case HAL_TIMED_OUT:
            return "no answer in time";
        case HAL_NO_BUS:
            return "no such bus on this computer, or no network interface in use";
        case HAL_CLOSED:
            return "the bus drivers are not running";
        case HAL_OUT_OF_MEMORY:
            return "out of memory, threads or file descriptors";
        case HAL_NO_ACKNOWLEDGE:
            return "not acknowledged";
        case HAL_NOT_SUPPORTED:
            return "not supported by this kind of device";
        case HAL_BAD_ANSWER:
            return "malformed answer";
        case HAL_BUS_CHANGED:
            return "the bus has changed meanwhile";
        case HAL_NO_SUCH_REGISTER:
            return "no such register";
        case HAL_WRITE_PROTECTED:
            return "the register is write-protected";
        case HAL_ACCESS_DENIED:
            return "in use by another application";
        case HAL_REFUSED:
            return "refused by the device";
        case HAL_NO_TREE:
            return "no topology to show";
        case HAL_UNREACHABLE:
            return "unreachable: no route, or the network interface is down";
        case HAL_ARRAY_TOO_SMALL:
            return "more cameras than the array has room for";
        case HAL_BAD_MASK:
            return "no subnet mask that a camera can have";
        case HAL_BAD_ADDRESS:
            return "no address that a camera can have";
        case HAL_BAD_GATEWAY:
            return "no gateway that the camera could use";
        case HAL_AMBIGUOUS:
            return "several cameras have this serial number";
    }
    return "unknown status";
}

}  // namespace Nimbrel2
