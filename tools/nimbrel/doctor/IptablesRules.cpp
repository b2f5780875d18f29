// SPDX-License-Identifier: Apache-2.0
// Reads rules as iptables-save prints them. Pure.
#include <algorithm>
#include <charconv>
#include <sstream>
#include <string_view>

#include "tools/nimbrel/SimulateOptions.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/doctor/PacketRules.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Words = std::vector<std::string>;
using Predicate = std::function<Truth(const Packet& packet)>;

Truth AsTruth(bool value) { return value ? Truth::Yes : Truth::No; }

// Words at blanks; a part in double quotes is one word, where a backslash takes the next character as it is.
Words SplitRule(const std::string& line) {
    Words words;
    std::string word;
    bool quoted = false;
    bool any = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\' && quoted && i + 1 < line.size()) {
            word += line[++i];
        } else if (line[i] == '"') {
            quoted = !quoted;
            any = true;
        } else if (line[i] == ' ' && !quoted) {
            if (any) {
                words.push_back(word);
            }
            word.clear();
            any = false;
        } else {
            word += line[i];
            any = true;
        }
    }
    if (any) {
        words.push_back(word);
    }
    return words;
}

// "10.0.0.0/8", "10.0.0.0/255.0.0.0", "10.0.0.1"
Truth IsIn(std::uint32_t address, const std::string& subnet) {
    const std::size_t slash = subnet.find('/');
    const auto base = ReadAddress(subnet.substr(0, slash));
    if (!base) {
        return Truth::Maybe;
    }
    if (slash == std::string::npos) {
        return AsTruth(address == *base);
    }
    if (subnet.substr(slash + 1) == "0" || subnet.substr(slash + 1) == "0.0.0.0") {
        return Truth::Yes;
    }
    const auto mask = ReadSubnetMask(subnet.substr(slash));
    const auto dotted = ReadSubnetMask(subnet.substr(slash + 1));
    if (!mask && !dotted) {
        return Truth::Maybe;
    }
    return AsTruth(((address ^ *base) & (mask ? *mask : *dotted)) == 0);
}

// "3956", "1024:65535", "53,3956,5000:6000"
Truth IsAmong(std::uint16_t port, const std::string& ports) {
    for (const std::string& word : SplitAt(ports, ',')) {
        const std::size_t colon = word.find(':');
        const auto low = ReadWhole(word.substr(0, colon), 0, 65535);
        const auto high = colon == std::string::npos ? low : ReadWhole(word.substr(colon + 1), 0, 65535);
        if (!low || !high) {
            return Truth::Maybe;
        }
        if (port >= *low && port <= *high) {
            return Truth::Yes;
        }
    }
    return Truth::No;
}

// "eth0", "eth+"
Truth IsLike(const std::string& name, const std::string& pattern) {
    if (pattern.empty() || pattern.back() != '+') {
        return AsTruth(name == pattern);
    }
    return AsTruth(name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0);
}

Truth HasState(const Packet& packet, const std::string& states) {
    for (const std::string& state : SplitAt(states, ',')) {
        if (state == (packet.isNew ? "NEW" : "ESTABLISHED")) {
            return Truth::Yes;
        }
    }
    return Truth::No;
}

Truth IsOfType(const Packet& packet, const std::string& type) {
    // An answer comes to this computer's own address; what else there is depends on routes.
    if (packet.incoming) {
        return AsTruth(type == "LOCAL");
    }
    return packet.isBroadcast ? AsTruth(type == "BROADCAST") : AsTruth(type == "UNICAST");
}

// The match of one option with its value; nothing for an option that is not known here.
std::optional<Predicate> MatchOf(const std::string& option, const std::string& value) {
    if (option == "-s") {
        return [value](const Packet& p) { return IsIn(p.source, value); };
    }
    if (option == "-d") {
        return [value](const Packet& p) { return IsIn(p.destination, value); };
    }
    if (option == "-i") {
        return [value](const Packet& p) { return p.incoming ? IsLike(p.interface, value) : Truth::No; };
    }
    if (option == "-o") {
        return [value](const Packet& p) { return p.incoming ? Truth::No : IsLike(p.interface, value); };
    }
    if (option == "-p") {
        return [value](const Packet&) { return AsTruth(value == "udp" || value == "all" || value == "17"); };
    }
    if (option == "--sport" || option == "--sports") {
        return [value](const Packet& p) { return IsAmong(p.sourcePort, value); };
    }
    if (option == "--dport" || option == "--dports") {
        return [value](const Packet& p) { return IsAmong(p.destinationPort, value); };
    }
    if (option == "--ctstate" || option == "--state") {
        return [value](const Packet& p) { return HasState(p, value); };
    }
    if (option == "--dst-type") {
        return [value](const Packet& p) { return IsOfType(p, value); };
    }
    if (option == "--comment" || option == "-m") {
        return [](const Packet&) { return Truth::Yes; };
    }
    return std::nullopt;
}

// What comes after -j LOG and the like has no part in the match.
bool ReadTarget(const std::string& option, const std::string& target, Rule* rule) {
    if (option != "-j" && option != "-g") {
        return false;
    }
    if (target == "ACCEPT") {
        rule->verdict = Rule::Verdict::Accept;
    } else if (target == "DROP" || target == "REJECT") {
        rule->verdict = Rule::Verdict::Drop;
    } else if (target == "RETURN") {
        rule->verdict = Rule::Verdict::Return;
    } else {
        rule->verdict = option == "-g" ? Rule::Verdict::Goto : Rule::Verdict::Jump;
        rule->target = target;
    }
    return true;
}

Rule ParseRule(const Words& words, const std::string& line) {
    Rule rule;
    rule.description = "\"" + line + "\"";
    std::vector<Predicate> matches;
    bool negated = false;
    for (std::size_t i = 2; i < words.size(); ++i) {
        if (words[i] == "!") {
            negated = true;
            continue;
        }
        const std::string value = i + 1 < words.size() ? words[i + 1] : "";
        if (ReadTarget(words[i], value, &rule)) {
            break;
        }
        const std::optional<Predicate> match = MatchOf(words[i], value);
        if (match) {
            ++i;
        }
        const Predicate predicate = match ? *match : [](const Packet&) { return Truth::Maybe; };
        matches.push_back(negated ? [predicate](const Packet& p) { return Not(predicate(p)); } : predicate);
        negated = false;
    }
    rule.matches = [matches = std::move(matches)](const Packet& packet) {
        Truth truth = Truth::Yes;
        for (const Predicate& match : matches) {
            truth = Both(truth, match(packet));
        }
        return truth;
    };
    return rule;
}

std::string HookOf(const std::string& chain) {
    if (chain == "PREROUTING") {
        return "prerouting";
    }
    if (chain == "INPUT") {
        return "input";
    }
    if (chain == "OUTPUT") {
        return "output";
    }
    return chain == "POSTROUTING" ? "postrouting" : "";
}

}  // namespace

std::vector<Chain> ParseIptablesRules(const std::string& text, RuleTool tool) {
    std::vector<Chain> chains;
    std::istringstream lines(text);
    std::string table;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.front() == '#') {
            continue;
        }
        if (line.front() == '*') {
            table = line.substr(1);
            continue;
        }
        const Words words = SplitRule(line);
        if (words.size() >= 2 && words[0].front() == ':') {
            Chain chain;
            chain.tool = tool;
            chain.family = "ip";
            chain.table = table;
            chain.name = words[0].substr(1);
            // The nat table sees the first packet of a connection only, and does not filter.
            chain.hook = table == "nat" ? "" : HookOf(chain.name);
            chain.dropsByPolicy = words[1] == "DROP";
            chains.push_back(std::move(chain));
        } else if (words.size() >= 3 && words[0] == "-A") {
            for (Chain& chain : chains) {
                if (chain.table == table && chain.name == words[1]) {
                    chain.rules.push_back(ParseRule(words, line));
                }
            }
        }
    }
    // A target that is no chain is one that lets packets go on, such as LOG.
    for (Chain& chain : chains) {
        for (Rule& rule : chain.rules) {
            const bool jumps = rule.verdict == Rule::Verdict::Jump || rule.verdict == Rule::Verdict::Goto;
            const bool isChain = std::any_of(chains.begin(), chains.end(), [&](const Chain& other) {
                return other.table == chain.table && other.name == rule.target;
            });
            if (jumps && !isChain) {
                rule.verdict = Rule::Verdict::None;
            }
        }
    }
    return chains;
}

}  // namespace Nimbrel2::Tool::Doctor
