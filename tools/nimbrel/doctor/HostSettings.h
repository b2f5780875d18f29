// SPDX-License-Identifier: Apache-2.0
// What this computer's files and rules say about its network, as far as this user may read them. Any thread.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_HOSTSETTINGS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_HOSTSETTINGS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Nimbrel2::Tool::Doctor {

/// Where a packet filter looks at what comes in.
struct InputChain {
    std::string family;  ///< "inet" or "ip"
    std::string table;
    std::string name;
    bool drops = false;  ///< what no rule accepts is dropped
};

struct HostSettings {
    std::optional<std::uint32_t> largestReceiveBuffer;  ///< net.core.rmem_max, octets
    /// The input chains of nftables, those that other front ends have made included. Nothing: this user may not see
    /// them, or there is no `nft`.
    std::optional<std::vector<InputChain>> inputChains;
    bool usesUfw = false;
    bool usesFirewalld = false;
};

/// Reads files and runs `nft list ruleset`, which changes nothing and is refused to most users.
HostSettings ReadHostSettings();

/// The input chains in the JSON form of `nft -j list ruleset`. Pure. Nothing when it is none.
std::optional<std::vector<InputChain>> ParseRuleset(const std::string& json);

/// How many packets the reverse path filter has dropped since this network began: TcpExtIPReversePathFilter.
std::optional<std::uint64_t> ReadFilteredPackets();
/// The same in the text of /proc/net/netstat. Pure.
std::optional<std::uint64_t> ParseFilteredPackets(const std::string& netstat);

}  // namespace Nimbrel2::Tool::Doctor

#endif
