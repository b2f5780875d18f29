// SPDX-License-Identifier: Apache-2.0
// The packet filter rules of this computer and what they do to a camera's packets. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_PACKETRULES_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_PACKETRULES_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Nimbrel2::Tool::Doctor {

/// A UDP packet between this computer and a camera. Addresses have their first octet in the most significant byte.
struct Packet {
    bool incoming = true;
    std::string interface;
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
    bool isNew = true;         ///< to connection tracking; answers to broadcasts are
    bool isBroadcast = false;  ///< to everybody on the network
    bool isBridged = false;    ///< the interface is a bridge: the packet passes one of its ports
};

/// Yes and No are sure; Maybe is what cannot be told, such as a rule that looks at something unknown here.
enum class Truth { No, Maybe, Yes };

Truth Both(Truth a, Truth b);
Truth Not(Truth a);

struct Rule {
    enum class Verdict { None, Accept, Drop, Jump, Goto, Return };

    std::function<Truth(const Packet& packet)> matches;
    Verdict verdict = Verdict::None;
    std::string target;       ///< of Jump and Goto
    std::string description;  ///< "handle 7", or the rule itself
};

/// Who made a chain: the command that changes it.
enum class RuleTool { Nft, Iptables, IptablesLegacy };

struct Chain {
    RuleTool tool = RuleTool::Nft;
    std::string family;  ///< nft: "inet", "ip", "netdev", "bridge"
    std::string table;
    std::string name;
    std::string hook;  ///< "ingress", "prerouting", "input", "output", "postrouting"; empty: reached by jumps only
    /// Ingress and egress: the interfaces that it is for; empty when that is not known.
    std::vector<std::string> devices;
    bool dropsByPolicy = false;
    std::vector<Rule> rules;
};

/// A chain that drops a packet.
struct Blocker {
    const Chain* chain = nullptr;
    std::string how;    ///< "by its policy", "by the rule ..."
    bool sure = false;  ///< false: perhaps
};

/// All chains, by table and name. Chains of different tools and families may have equal names.
struct RuleSet {
    std::vector<Chain> chains;
    /// No user of this computer but root may see the rules of its packet filters.
    bool known = false;

    /// Every chain of a hook that the packet passes and that drops it, or may.
    std::vector<Blocker> FindBlockers(const Packet& packet) const;
};

/// The command that lets such packets pass the chain of the blocker, for a POSIX shell: that of the firewall's own
/// front end where one is at work, or else an accepting rule at the head of the chain.
std::string CureOf(const RuleSet& rules, const Blocker& blocker, const Packet& packet);

/// "nftables chain inet wall entry", "iptables chain INPUT of table filter".
std::string Describe(const Chain& chain);

/// The chains in the JSON form of `nft -j list ruleset`, without those that belong to iptables. Nothing when it is
/// none.
std::optional<std::vector<Chain>> ParseNftRules(const std::string& json);

/// Reads from the text of `nft list chains` which interfaces the chains at ingress and egress are for: the JSON form
/// of nft 1.0.6 leaves that out.
void ReadDevicesOfChains(const std::string& text, std::vector<Chain>* chains);

/// The chains in the text of iptables-save.
std::vector<Chain> ParseIptablesRules(const std::string& text, RuleTool tool);

}  // namespace Nimbrel2::Tool::Doctor

#endif
