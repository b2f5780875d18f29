// SPDX-License-Identifier: Apache-2.0
// Follows a packet through chains of rules. Pure.
#include "tools/nimbrel/doctor/PacketRules.h"

#include <algorithm>

#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

constexpr unsigned int DeepestJump = 32;

// What a chain does to a packet.
struct Fate {
    enum class Kind { GoesOn, Accepted, Dropped };
    Kind kind = Kind::GoesOn;
    std::string how;
    // On the way here a rule that cannot be judged would have ended it otherwise.
    bool maybeAccepted = false;
    std::string maybeDropped;  ///< how; empty: surely not
};

bool IsOfDevices(const Chain& chain) { return chain.hook == "ingress" || chain.hook == "egress"; }

// Yes and No are sure. What passes the port of a bridge may or may not come from a camera.
Truth IsReached(const Chain& chain, const Packet& packet) {
    const bool forIncoming = chain.hook == "ingress" || chain.hook == "prerouting" || chain.hook == "input";
    const bool forOutgoing = chain.hook == "output" || chain.hook == "postrouting" || chain.hook == "egress";
    if (!(packet.incoming ? forIncoming : forOutgoing) || (chain.family == "bridge" && !packet.isBridged)) {
        return Truth::No;
    }
    if (!IsOfDevices(chain)) {
        return Truth::Yes;
    }
    const auto& devices = chain.devices;
    if (devices.empty()) {
        return Truth::Maybe;
    }
    const bool isHere = std::count(devices.begin(), devices.end(), packet.interface) != 0;
    return isHere ? Truth::Yes : Truth::No;
}

class Walk {
public:
    Walk(const std::vector<Chain>& chains, const Packet& packet) : m_chains(chains), m_packet(packet) {}

    Fate Through(const Chain& chain, unsigned int depth) const {
        Fate fate;
        for (const Rule& rule : chain.rules) {
            const Truth matches = rule.matches ? rule.matches(m_packet) : Truth::Yes;
            if (matches == Truth::No || rule.verdict == Rule::Verdict::None) {
                continue;
            }
            if (!Apply(chain, rule, matches == Truth::Yes, depth, &fate)) {
                continue;
            }
            if (fate.kind != Fate::Kind::GoesOn) {
                return fate;
            }
            break;  // it returned; at a hook that leaves it to the policy
        }
        if (!chain.hook.empty() && chain.dropsByPolicy) {
            fate.kind = Fate::Kind::Dropped;
            fate.how = "by its policy";
        }
        return fate;
    }

private:
    // True when the rule ends the way through the chain.
    bool Apply(const Chain& chain, const Rule& rule, bool sure, unsigned int depth, Fate* fate) const {
        const std::string how = "by the rule " + rule.description;
        switch (rule.verdict) {
            case Rule::Verdict::Accept:
                if (sure) {
                    fate->kind = Fate::Kind::Accepted;
                }
                fate->maybeAccepted = fate->maybeAccepted || !sure;
                return sure;
            case Rule::Verdict::Drop:
                if (sure) {
                    fate->kind = Fate::Kind::Dropped;
                    fate->how = how;
                } else if (fate->maybeDropped.empty()) {
                    fate->maybeDropped = how;
                }
                return sure;
            case Rule::Verdict::Return:
                fate->maybeAccepted = fate->maybeAccepted || !sure;
                return sure;
            case Rule::Verdict::Jump:
            case Rule::Verdict::Goto:
                return Jump(chain, rule, sure, depth, fate);
            case Rule::Verdict::None:
                break;
        }
        return false;
    }

    bool Jump(const Chain& chain, const Rule& rule, bool sure, unsigned int depth, Fate* fate) const {
        const Chain* target = FindTarget(chain, rule.target);
        if (target == nullptr || depth == DeepestJump) {
            fate->maybeAccepted = true;
            return false;
        }
        const Fate inside = Through(*target, depth + 1);
        const std::string how = inside.how.empty() ? "" : inside.how + " of chain " + target->name;
        fate->maybeAccepted = fate->maybeAccepted || inside.maybeAccepted;
        if (fate->maybeDropped.empty() && !inside.maybeDropped.empty()) {
            fate->maybeDropped = inside.maybeDropped + " of chain " + target->name;
        }
        if (inside.kind == Fate::Kind::GoesOn) {
            return sure && rule.verdict == Rule::Verdict::Goto;
        }
        if (!sure) {
            if (inside.kind == Fate::Kind::Accepted) {
                fate->maybeAccepted = true;
            }
            if (inside.kind == Fate::Kind::Dropped && fate->maybeDropped.empty()) {
                fate->maybeDropped = how;
            }
            return false;
        }
        fate->kind = inside.kind;
        fate->how = how;
        return true;
    }

    const Chain* FindTarget(const Chain& from, const std::string& name) const {
        for (const Chain& chain : m_chains) {
            const bool same = chain.tool == from.tool && chain.family == from.family && chain.table == from.table;
            if (same && chain.name == name) {
                return &chain;
            }
        }
        return nullptr;
    }

    const std::vector<Chain>& m_chains;
    const Packet& m_packet;
};

// A match for such packets and no others.
std::string NftMatch(const Packet& packet, bool withInterface) {
    const std::string port = packet.incoming ? "udp sport 3956" : "udp dport 3956";
    // A name with a quote in it cannot be written for nft.
    if (!withInterface || packet.interface.find('"') != std::string::npos) {
        return port;
    }
    return std::string(packet.incoming ? "iifname " : "oifname ") + QuoteForShell("\"" + packet.interface + "\"") +
           " " + port;
}

bool IsOfUfw(const RuleSet& rules, const Chain& chain) {
    const std::string user = chain.name == "INPUT" ? "ufw-user-input" : "ufw-user-output";
    return chain.tool != RuleTool::Nft && chain.table == "filter" &&
           std::any_of(rules.chains.begin(), rules.chains.end(),
                       [&](const Chain& other) { return other.tool == chain.tool && other.name == user; });
}

}  // namespace

Truth Both(Truth a, Truth b) { return std::min(a, b); }

Truth Not(Truth a) { return a == Truth::Yes ? Truth::No : a == Truth::No ? Truth::Yes : Truth::Maybe; }

std::vector<Blocker> RuleSet::FindBlockers(const Packet& packet) const {
    std::vector<Blocker> blockers;
    for (const Chain& chain : chains) {
        const Truth reached = chain.hook.empty() ? Truth::No : IsReached(chain, packet);
        if (reached == Truth::No) {
            continue;
        }
        const Fate fate = Walk(chains, packet).Through(chain, 0);
        if (fate.kind == Fate::Kind::Dropped) {
            blockers.push_back({&chain, fate.how, reached == Truth::Yes && !fate.maybeAccepted});
        } else if (!fate.maybeDropped.empty()) {
            blockers.push_back({&chain, fate.maybeDropped, false});
        }
    }
    return blockers;
}

std::string CureOf(const RuleSet& rules, const Blocker& blocker, const Packet& packet) {
    const Chain& chain = *blocker.chain;
    if (IsOfUfw(rules, chain)) {
        return "sudo ufw allow " + std::string(packet.incoming ? "in" : "out") + " on " +
               QuoteForShell(packet.interface) + " proto udp " +
               (packet.incoming ? "from any port 3956" : "to any port 3956");
    }
    // Its zones are for what comes in. An interface that was given to no zone is in the default one.
    if (chain.tool == RuleTool::Nft && chain.table == "firewalld" && packet.incoming) {
        const std::string rule = "--zone=\"$zone\" --add-source-port=3956/udp";
        return "sudo sh -c " +
               QuoteForShell("zone=$(firewall-cmd --get-zone-of-interface=" + QuoteForShell(packet.interface) +
                             " || firewall-cmd --get-default-zone) && firewall-cmd " + rule +
                             " && firewall-cmd --permanent " + rule);
    }
    if (chain.tool == RuleTool::Nft) {
        return "sudo nft insert rule " + chain.family + " " + QuoteForShell(chain.table) + " " +
               QuoteForShell(chain.name) + " " +
               NftMatch(packet, chain.family != "bridge" && chain.devices.size() != 1) + " accept";
    }
    const std::string program = chain.tool == RuleTool::Iptables ? "iptables-nft" : "iptables-legacy";
    return "sudo " + program + " -w -t " + QuoteForShell(chain.table) + " -I " + QuoteForShell(chain.name) + " 1 " +
           (packet.incoming ? "-i " : "-o ") + QuoteForShell(packet.interface) + " -p udp " +
           (packet.incoming ? "--sport 3956" : "--dport 3956") + " -j ACCEPT";
}

std::string Describe(const Chain& chain) {
    if (chain.tool == RuleTool::Nft) {
        return "nftables chain " + chain.family + " " + chain.table + " " + chain.name;
    }
    const std::string program = chain.tool == RuleTool::Iptables ? "iptables" : "iptables-legacy";
    return program + " chain " + chain.name + " of table " + chain.table;
}

}  // namespace Nimbrel2::Tool::Doctor
