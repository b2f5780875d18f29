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

    // Each known camera answers a broadcast, and half a period later a request of its own: four packets in 1.1 s.
    Milliseconds broadcastPeriod{1100};  ///< the monitor's search for newcomers, after the window
    Milliseconds broadcastAnswer{2000};  ///< how long a broadcast's answers count, from its last request
    Milliseconds probeDelay{550};        ///< from a broadcast to the request that each known camera gets
    Milliseconds probePeriod{1100};      ///< between two such requests, when no broadcast comes in between
    /// A camera that has not answered a broadcast by then gets its request at once: most answer within milliseconds,
    /// and this one may be gone. One that is slow to answer is spared it for a while.
    Milliseconds signWait{100};
    Milliseconds signRest{10000};
    /// A known camera of which somebody else claims something is asked again after this at the earliest.
    Milliseconds claimRest{250};

    Milliseconds probeRound{300};  ///< one round of asking
    int probeRounds = 2;           ///< missed rounds that make a camera gone
    /// Requests of a round are repeated, more often in the last one: with three datagrams in ten lost on either way, a
    /// camera that is there must still answer one of them.
    Milliseconds probeRepeat{50};
    Milliseconds probeRepeatLast{25};
    /// Rounds in which the network takes no request do not count for this long; after it the camera is gone.
    Milliseconds refusedGrace{1000};
    Milliseconds linkGrace{500};  ///< a link that is back within this has lost no camera

    Milliseconds confirmRepeat{100};       ///< a camera that was only heard is asked less often
    Milliseconds confirmRetry{1000};       ///< one that was not reached is asked again after this, then twice this,
    Milliseconds confirmRetryMax{4000};    ///< at most this
    Milliseconds sightingLifetime{10000};  ///< what was heard but is not listed is forgotten after this
    Milliseconds hostsPeriod{50};          ///< between two looks at who has asked for this computer by ARP

    Milliseconds registerTry{200};
    int registerTries = 3;
    Milliseconds pendingLimit{1000};       ///< a command ends after this, whatever its pending acknowledges ask for
    Milliseconds quietAfterTimeOut{1000};  ///< a camera that timed out is not asked again for this long
    Milliseconds channelLifetime{60000};   ///< what is known of talking to a camera is kept this long without it

    Milliseconds forceIpTry{300};
    int forceIpTries = 3;
    Milliseconds forceIpVerify{2000};  ///< a camera may take this long to be heard at its new address

    // Listings.
    Milliseconds verifyWait{50};     ///< for a known camera to answer; it stays listed while the monitor decides
    Milliseconds suspectAfter{20};   ///< a camera whose registers are silent that long is asked whether it is there
    Milliseconds muteWait{500};      ///< for registers that do not answer, once
    Milliseconds confirmWait{700};   ///< for cameras that a first listing has heard but not reached
    Milliseconds listedGrace{3000};  ///< an entry's own listing answers for a camera that left this shortly after it

    Milliseconds refusedRetry{1000};  ///< sockets that were refused are tried again after this
    Milliseconds neighbourWait{200};  ///< how long a host may take to answer an ARP request
};

}  // namespace Nimbrel2::Platform::GigE

#endif
