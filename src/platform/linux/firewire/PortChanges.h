// SPDX-License-Identifier: Apache-2.0
// Which sockets of a bus changed between two bus resets. Pure: no lock, no I/O, any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_PORTCHANGES_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_PORTCHANGES_H

#include <span>
#include <vector>

#include "platform/FireWireDiagnostics.h"

namespace Nimbrel2::Platform::FireWire {

/// One socket. Phy ids change with every reset, so it is named by the way to its PHY: the ports that lead there from
/// this computer's own PHY.
struct Socket {
    std::vector<unsigned int> way;
    unsigned int port = 0;

    auto operator<=>(const Socket&) const = default;
};

/// The sockets, on the side of this computer, in which a cable came or went or now leads to something else. What is
/// behind such a socket is not looked at: it changed because that did.
/// @param localBefore, localAfter  The phy id of this computer's own PHY. Nothing is found when there is no such PHY.
std::vector<Socket> FindPortChanges(std::span<const FireWirePhy> before, unsigned int localBefore,
                                    std::span<const FireWirePhy> after, unsigned int localAfter);

/// The PHY that a way leads to, null when it leads nowhere.
const FireWirePhy* FollowWay(std::span<const FireWirePhy> phys, unsigned int local, std::span<const unsigned int> way);

}  // namespace Nimbrel2::Platform::FireWire

#endif
