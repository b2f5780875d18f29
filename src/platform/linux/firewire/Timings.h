// SPDX-License-Identifier: Apache-2.0
// Every deadline and period of the IEEE 1394 driver, in one place that tests may shorten. All on the steady clock.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_TIMINGS_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_TIMINGS_H

#include "platform/base/Clock.h"

namespace Nimbrel2::Platform::FireWire {

struct Timings {
    Milliseconds quiet{10};      ///< a burst of changes is over, and told, when nothing has come for this long
    Milliseconds quietMax{100};  ///< or this long after it began

    /// The kernel gives up after two seconds; this is for the case that it does not even tell that.
    Milliseconds answer{2500};
    Milliseconds transaction{3000};  ///< one register, retries included
    int busyTries = 10;
    Milliseconds busyPause{10};
    Milliseconds generationPause{10};  ///< between looks whether a reset that the bus is in the midst of has ended
    Milliseconds generationWait{100};  ///< and how long it may take before a node that is behind counts as gone

    Milliseconds quietAfterTimeOut{1000};  ///< a node that timed out is not asked again for this long
    Milliseconds probePauseMax{8000};      ///< the monitor asks after that time, then after twice of it, up to this
    Milliseconds readingLifetime{1000};    ///< how long what was read from all cameras at once may be answered from

    int phyTries = 3;  ///< PHY packets are not acknowledged
    Milliseconds phyAnswer{300};

    Milliseconds listing{3000};  ///< a listing ends after this, whatever keeps the monitor
    /// A file that was refused is tried again after this, then after twice that time, up to the last: udev sets the
    /// permissions some time after the kernel has told of a node, and administrators do when they read of it.
    Milliseconds openPause{50};
    Milliseconds openPauseMax{10000};
    Milliseconds lookPeriod{1000};  ///< where uevents do not come through
    Milliseconds history{60000};    ///< how far back resets are counted
};

}  // namespace Nimbrel2::Platform::FireWire

#endif
