// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_INTERFACETYPE_H
#define NIMBREL2_COMMON_INTERFACETYPE_H

#include <cstdint>

namespace Nimbrel2 {

/// The kind of bus a camera is on. Numbered differently from HALInterfaceType, which has one USB kind.
enum InterfaceType : std::uint32_t {
    INTERFACE_IEEE1394 = 0,
    INTERFACE_USB_2 = 1,
    INTERFACE_USB_3 = 2,
    INTERFACE_GIGE = 3,
    INTERFACE_NONE = 4  ///< The computer in a topology tree, which is on no bus.
};

}  // namespace Nimbrel2

#endif
