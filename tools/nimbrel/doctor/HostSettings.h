// SPDX-License-Identifier: Apache-2.0
// The settings of this computer's network, as far as this user may read them. Any thread.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_HOSTSETTINGS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_HOSTSETTINGS_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "tools/nimbrel/doctor/PacketRules.h"

namespace Nimbrel2::Tool::Doctor {

struct HostSettings {
    std::optional<std::uint32_t> largestReceiveBuffer;  ///< net.core.rmem_max, octets
    RuleSet rules;                                      ///< of nftables and both kinds of iptables
    std::set<std::string> carriers;                     ///< network interfaces that others are built upon
    std::set<std::string> bridges;                      ///< network interfaces that are bridges
    std::set<std::string> cameraless;  ///< without ARP, or bridges without a port: no camera can be there
};

/// Reads files, and runs the programs that list rules; they change nothing and are refused to most users.
HostSettings ReadHostSettings();

/// How many packets the reverse path filter has dropped since this network began: TcpExtIPReversePathFilter.
std::optional<std::uint64_t> ReadFilteredPackets();
/// The same in the text of /proc/net/netstat. Pure.
std::optional<std::uint64_t> ParseFilteredPackets(const std::string& netstat);

}  // namespace Nimbrel2::Tool::Doctor

#endif
