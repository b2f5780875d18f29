// SPDX-License-Identifier: Apache-2.0
// Every deadline and period of the GigE driver, in one place that tests may shorten. All on the steady clock.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_TIMINGS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_TIMINGS_H

#include "platform/base/Clock.h"

namespace Nimbrel2::Platform::GigE {

struct Timings {
    /// How long a first listing and a discovery listen, from their first request. A conforming camera answers a
    /// broadcast after a random delay of up to one second.
    Milliseconds discoveryWindow{1000};
    /// Requests in a window, evenly spaced: one lost datagram must not hide a camera.
    int windowRequests = 8;

    Milliseconds broadcastPeriod{1000};  ///< the monitor's search for newcomers, after the window
    Milliseconds broadcastAnswer{2000};  ///< how long a broadcast's answers count, from its last request

    Milliseconds probePeriod{500};  ///< each known camera is asked this often whether it is still there
    Milliseconds probeRound{300};   ///< one round of asking
    int probeRounds = 2;            ///< missed rounds that make a camera gone
    /// Requests of a round are repeated, more often in the last one: with three datagrams in ten lost on either way, a
    /// camera that is there must still answer one of them.
    Milliseconds probeRepeat{50};
    Milliseconds probeRepeatLast{25};

    Milliseconds confirmRetry{1000};     ///< a camera heard but not reached is asked again after this, then twice this,
    Milliseconds confirmRetryMax{4000};  ///< at most this
    Milliseconds sightingLifetime{10000};  ///< what was heard but is not listed is forgotten after this

    Milliseconds registerTry{200};
    int registerTries = 3;
    Milliseconds pendingLimit{1000};       ///< a command ends after this, whatever its pending acknowledges ask for
    Milliseconds quietAfterTimeOut{1000};  ///< a camera that timed out is not asked again for this long

    Milliseconds forceIpTry{300};
    int forceIpTries = 3;
    Milliseconds forceIpVerify{2000};  ///< a camera may take this long to be heard at its new address

    /// A listing ends after this, whatever the network does; after a longer window, two rounds of asking later.
    Milliseconds listingLimit{3000};
    Milliseconds listedGrace{3000};  ///< an entry's own listing answers for a camera that left this shortly after it

    Milliseconds refusedRetry{1000};  ///< sockets that were refused are tried again after this
    Milliseconds neighbourWait{200};  ///< how long a host may take to answer an ARP request
};

}  // namespace Nimbrel2::Platform::GigE

#endif
