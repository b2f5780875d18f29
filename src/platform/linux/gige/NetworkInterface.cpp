// SPDX-License-Identifier: Apache-2.0
// Which network interfaces GigE uses. Pure functions; any thread.
#include "platform/linux/gige/NetworkInterface.h"

#include <algorithm>

namespace Nimbrel2::Platform::GigE {

namespace {

bool IsNamed(const NetworkInterface& interface, const std::vector<std::string>& wanted) {
    return std::find(wanted.begin(), wanted.end(), interface.name) != wanted.end();
}

/// What no change of link or address cures.
std::string ReasonNotEligible(const NetworkInterface& interface, const std::vector<std::string>& wanted) {
    const bool named = IsNamed(interface, wanted);
    if (!wanted.empty() && !named) {
        return "not among the network interfaces asked for";
    }
    if (interface.loopback) {
        return named ? "" : "loopback is used only when it is named";
    }
    if (interface.pointToPoint || !interface.broadcast) {
        return "cannot broadcast";
    }
    // A VRF only routes. Every other upper device takes the datagrams that arrive on its ports.
    if (!interface.portOf.empty() && interface.portOf != "vrf" && !named) {
        return "is a port of a " + interface.portOf;
    }
    return "";
}

}  // namespace

std::string ReasonNotUsed(const NetworkInterface& interface, const std::vector<std::string>& wanted) {
    std::string reason = ReasonNotEligible(interface, wanted);
    if (!reason.empty()) {
        return reason;
    }
    if (!interface.up) {
        return "down";
    }
    if (!interface.running) {
        return "no link";
    }
    if (interface.addresses.empty() && !IsNamed(interface, wanted)) {
        return "no IPv4 address";
    }
    return "";
}

bool IsEligible(const NetworkInterface& interface, const std::vector<std::string>& wanted) {
    return ReasonNotEligible(interface, wanted).empty();
}

}  // namespace Nimbrel2::Platform::GigE
