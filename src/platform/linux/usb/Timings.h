// SPDX-License-Identifier: Apache-2.0
// Every deadline, period and size of the USB driver, in one place for tests to change. Times are on the steady clock.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_TIMINGS_H
#define NIMBREL2_PLATFORM_LINUX_USB_TIMINGS_H

#include "platform/base/Clock.h"
#include "platform/base/Uevents.h"

namespace Nimbrel2::Platform::Usb {

struct Timings {
    /// A burst of uevents ends with this much quiet, or when it has lasted so long. One look follows, and one bus
    /// reset.
    Milliseconds quiet{10};
    Milliseconds longestBurst{100};

    int ueventBuffer = UeventSocket::UsualBuffer;  ///< bytes

    Milliseconds scanPeriod{2000};  ///< where uevents cannot come
    Milliseconds freshLook{100};    ///< how long a look is believed there; a listing never believes an old one
    Milliseconds scanRetry{1000};   ///< after a scan that failed for want of memory or descriptors

    /// How long one camera may be seen in both halves of its controller: after that they are two.
    Milliseconds fallBack{10000};

    /// udevd may give a new device's node to its users only now.
    Milliseconds permissionGrace{1000};
    Milliseconds permissionRetry{20};

    Milliseconds registerTry{200};
    int registerTries = 3;
    Milliseconds pendingLimit{1000};  ///< an access ends after this, whatever the camera asks for
    Milliseconds portStatusTry{200};
};

}  // namespace Nimbrel2::Platform::Usb

#endif
