// SPDX-License-Identifier: Apache-2.0
// Reads rules as `nft -j list ruleset` prints them (libnftables-json(5)). Pure.
#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "tools/nimbrel/SimulateOptions.h"
#include "tools/nimbrel/doctor/PacketRules.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Json = nlohmann::json;

// What a packet has where a match looks. Nothing: it cannot be told.
struct Value {
    bool isNumber = false;
    std::uint64_t number = 0;
    std::vector<std::string> words;  ///< names that all stand for the value
};

// Elements of named sets, by family, table and name.
using Sets = std::map<std::string, Json>;

const Json* Find(const Json& object, const char* name) {
    if (!object.is_object()) {
        return nullptr;
    }
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

std::string TextOf(const Json& object, const char* name) {
    const Json* found = Find(object, name);
    return found != nullptr && found->is_string() ? found->get<std::string>() : std::string();
}

std::string FormatIp(std::uint32_t ip) {
    return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 0xFF) + "." + std::to_string(ip >> 8 & 0xFF) +
           "." + std::to_string(ip & 0xFF);
}

// Nothing: unknown; an empty value: the packet has no such field, so no comparison holds.
std::optional<Value> PayloadOf(const Packet& packet, const Json& payload) {
    const std::string protocol = TextOf(payload, "protocol");
    const std::string field = TextOf(payload, "field");
    if (protocol == "udp" || protocol == "th") {
        if (field == "sport") {
            return Value{true, packet.sourcePort, {}};
        }
        if (field == "dport") {
            return Value{true, packet.destinationPort, {}};
        }
        return std::nullopt;
    }
    if (protocol == "ip") {
        if (field == "saddr") {
            return Value{true, packet.source, {FormatIp(packet.source)}};
        }
        if (field == "daddr") {
            return Value{true, packet.destination, {FormatIp(packet.destination)}};
        }
        if (field == "protocol") {
            return Value{true, 17, {"udp"}};
        }
        return std::nullopt;
    }
    const std::set<std::string> others{"tcp", "icmp", "icmpv6",  "ip6",  "sctp", "dccp",
                                       "esp", "ah",   "udplite", "igmp", "arp"};
    if (others.count(protocol) != 0) {
        return Value{};
    }
    return std::nullopt;
}

std::optional<Value> MetaOf(const Packet& packet, const std::string& key) {
    const std::string& in = packet.incoming ? packet.interface : "";
    const std::string& out = packet.incoming ? "" : packet.interface;
    if (key == "iifname" || key == "iif") {
        return Value{false, 0, {in}};
    }
    if (key == "oifname" || key == "oif") {
        return Value{false, 0, {out}};
    }
    if (key == "l4proto") {
        return Value{true, 17, {"udp"}};
    }
    if (key == "nfproto") {
        return Value{true, 2, {"ipv4"}};
    }
    if (key == "protocol") {
        return Value{true, 0x0800, {"ip"}};
    }
    if (key == "pkttype") {
        return packet.isBroadcast ? std::nullopt : std::optional(Value{false, 0, {"host", "unicast"}});
    }
    return std::nullopt;
}

std::optional<Value> LeftOf(const Packet& packet, const Json& left) {
    if (const Json* payload = Find(left, "payload")) {
        return PayloadOf(packet, *payload);
    }
    if (const Json* meta = Find(left, "meta")) {
        return MetaOf(packet, TextOf(*meta, "key"));
    }
    const Json* ct = Find(left, "ct");
    if (ct != nullptr && TextOf(*ct, "key") == "state") {
        return Value{false, 0, {packet.isNew ? "new" : "established"}};
    }
    return std::nullopt;
}

std::optional<std::uint64_t> NumberOf(const Json& value) {
    if (value.is_number_unsigned() || value.is_number_integer()) {
        return value.get<std::uint64_t>();
    }
    if (!value.is_string()) {
        return std::nullopt;
    }
    if (const auto ip = ReadAddress(value.get<std::string>())) {
        return *ip;
    }
    return std::nullopt;
}

// A word, where "eth*" stands for every name that begins like this.
bool IsLike(const std::string& word, const std::string& pattern) {
    if (!pattern.empty() && pattern.back() == '*') {
        return word.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
    }
    return word == pattern;
}

Truth AsTruth(bool value) { return value ? Truth::Yes : Truth::No; }

class Matcher {
public:
    Matcher(const Sets& sets, std::string scope) : m_sets(sets), m_scope(std::move(scope)) {}

    Truth Equals(const Value& value, const Json& right) const {
        if (right.is_object()) {
            return EqualsObject(value, right);
        }
        if (right.is_array()) {
            return EqualsAny(value, right);
        }
        if (right.is_string() && !right.get<std::string>().empty() && right.get<std::string>().front() == '@') {
            const auto set = m_sets.find(m_scope + right.get<std::string>().substr(1));
            return set == m_sets.end() ? Truth::Maybe : EqualsAny(value, set->second);
        }
        if (right.is_string() && !value.words.empty()) {
            const std::string word = right.get<std::string>();
            const bool like =
                std::any_of(value.words.begin(), value.words.end(), [&](const auto& one) { return IsLike(one, word); });
            if (like || !value.isNumber) {
                return AsTruth(like);
            }
        }
        const std::optional<std::uint64_t> number = NumberOf(right);
        if (value.isNumber && number) {
            return AsTruth(value.number == *number);
        }
        // A service by name, for one. What has names has another one, and what has no value at all equals nothing.
        return value.isNumber && value.words.empty() ? Truth::Maybe : Truth::No;
    }

private:
    Truth EqualsAny(const Value& value, const Json& list) const {
        Truth truth = Truth::No;
        for (const Json& one : list) {
            truth = std::max(truth, Equals(value, one));
        }
        return truth;
    }

    Truth EqualsObject(const Value& value, const Json& right) const {
        if (const Json* set = Find(right, "set")) {
            return set->is_array() ? EqualsAny(value, *set) : Equals(value, *set);
        }
        if (const Json* element = Find(right, "elem")) {
            const Json* inner = Find(*element, "val");
            return inner == nullptr ? Truth::Maybe : Equals(value, *inner);
        }
        if (!value.isNumber) {
            return value.words.empty() ? Truth::No : Truth::Maybe;
        }
        if (const Json* range = Find(right, "range"); range != nullptr && range->is_array() && range->size() == 2) {
            const auto low = NumberOf((*range)[0]);
            const auto high = NumberOf((*range)[1]);
            if (low && high) {
                return AsTruth(value.number >= *low && value.number <= *high);
            }
        }
        if (const Json* prefix = Find(right, "prefix")) {
            const auto address = NumberOf(prefix->value("addr", Json()));
            const Json* length = Find(*prefix, "len");
            if (address && length != nullptr && length->is_number_unsigned() && length->get<unsigned int>() <= 32) {
                const unsigned int bits = length->get<unsigned int>();
                const std::uint64_t mask = bits == 0 ? 0 : 0xFFFFFFFF & ~std::uint64_t{0} << (32 - bits);
                return AsTruth(((value.number ^ *address) & mask) == 0);
            }
        }
        return Truth::Maybe;
    }

    const Sets& m_sets;
    const std::string m_scope;
};

Truth Compare(const Value& value, const std::string& op, const Json& right, const Matcher& matcher) {
    const bool hasNothing = !value.isNumber && value.words.empty();
    if (op == "==" || op == "in" || op.empty()) {
        return matcher.Equals(value, right);
    }
    if (op == "!=") {
        return hasNothing ? Truth::No : Not(matcher.Equals(value, right));
    }
    const auto number = NumberOf(right);
    if (hasNothing) {
        return Truth::No;
    }
    if (!value.isNumber || !number) {
        return Truth::Maybe;
    }
    if (op == "<") {
        return AsTruth(value.number < *number);
    }
    if (op == ">") {
        return AsTruth(value.number > *number);
    }
    if (op == "<=") {
        return AsTruth(value.number <= *number);
    }
    if (op == ">=") {
        return AsTruth(value.number >= *number);
    }
    return Truth::Maybe;
}

bool ReadVerdict(const Json& expression, Rule* rule) {
    if (expression.contains("accept")) {
        rule->verdict = Rule::Verdict::Accept;
    } else if (expression.contains("drop") || expression.contains("reject")) {
        rule->verdict = Rule::Verdict::Drop;
    } else if (expression.contains("return")) {
        rule->verdict = Rule::Verdict::Return;
    } else if (expression.contains("jump") || expression.contains("goto")) {
        const bool jumps = expression.contains("jump");
        rule->verdict = jumps ? Rule::Verdict::Jump : Rule::Verdict::Goto;
        rule->target = TextOf(*Find(expression, jumps ? "jump" : "goto"), "target");
    } else {
        return false;
    }
    return true;
}

// Expressions that do something and let every packet go on.
bool IsHarmless(const Json& expression) {
    static const std::array<const char*, 8> names{"counter", "log",       "mangle",     "notrack",
                                                  "comment", "ct helper", "ct timeout", "dup"};
    return std::any_of(names.begin(), names.end(), [&](const char* name) { return expression.contains(name); });
}

using Predicate = std::function<Truth(const Packet& packet)>;

Predicate MatchOf(const Json& match, const std::shared_ptr<const Sets>& sets, const std::string& scope) {
    return [match, sets, scope](const Packet& packet) {
        const Json* left = Find(match, "left");
        const Json* right = Find(match, "right");
        if (left == nullptr || right == nullptr) {
            return Truth::Maybe;
        }
        // There the interface is the port of the bridge, and which one the camera is behind is not known.
        const Json* meta = Find(*left, "meta");
        const std::string key = meta == nullptr ? "" : TextOf(*meta, "key");
        const bool isPort = scope.rfind("bridge ", 0) == 0 && (key.rfind("iif", 0) == 0 || key.rfind("oif", 0) == 0);
        const std::optional<Value> value = isPort ? std::nullopt : LeftOf(packet, *left);
        return value ? Compare(*value, TextOf(match, "op"), *right, Matcher(*sets, scope)) : Truth::Maybe;
    };
}

Predicate All(std::vector<Predicate> predicates) {
    return [predicates = std::move(predicates)](const Packet& packet) {
        Truth truth = Truth::Yes;
        for (const Predicate& predicate : predicates) {
            truth = Both(truth, predicate(packet));
        }
        return truth;
    };
}

// One rule each verdict: a verdict map has many.
void AddRules(const Json& rule, const std::shared_ptr<const Sets>& sets, const std::string& scope,
              std::vector<Rule>* rules) {
    const Json* expressions = Find(rule, "expr");
    if (expressions == nullptr || !expressions->is_array()) {
        return;
    }
    const std::string description = "with handle " + std::to_string(rule.value("handle", 0));
    std::vector<Predicate> matches;
    for (const Json& expression : *expressions) {
        if (!expression.is_object() || IsHarmless(expression)) {
            continue;
        }
        Rule made;
        made.description = description;
        if (const Json* match = Find(expression, "match")) {
            matches.push_back(MatchOf(*match, sets, scope));
        } else if (const Json* map = Find(expression, "vmap")) {
            const Json* data = Find(*map, "data");
            const Json* set = data == nullptr ? nullptr : Find(*data, "set");
            if (set == nullptr && data != nullptr && data->is_string() && data->get<std::string>().front() == '@') {
                const auto named = sets->find(scope + data->get<std::string>().substr(1));
                if (named != sets->end()) {
                    set = &named->second;
                }
            }
            if (set == nullptr || !set->is_array()) {
                continue;
            }
            for (const Json& entry : *set) {
                if (!entry.is_array() || entry.size() != 2 || !ReadVerdict(entry[1], &made)) {
                    continue;
                }
                std::vector<Predicate> all = matches;
                all.push_back(
                    MatchOf({{"op", "=="}, {"left", map->value("key", Json())}, {"right", entry[0]}}, sets, scope));
                made.matches = All(std::move(all));
                rules->push_back(made);
            }
        } else if (ReadVerdict(expression, &made)) {
            made.matches = All(matches);
            rules->push_back(made);
        } else {
            matches.push_back([](const Packet&) { return Truth::Maybe; });
        }
    }
}

using Words = std::vector<std::string>;

// Words at blanks and commas, without their quotes.
Words SplitLine(const std::string& line) {
    Words words;
    std::string word;
    bool quoted = false;
    for (const char letter : line + " ") {
        if (letter == '"') {
            quoted = !quoted;
        } else if (quoted || (letter != ' ' && letter != '\t' && letter != ',')) {
            word += letter;
        } else if (!word.empty()) {
            words.push_back(std::exchange(word, {}));
        }
    }
    return words;
}

// "type filter hook ingress device eth1 priority filter;", "... devices = { eth1 eth2 } priority ..."
Words DevicesOf(const Words& words) {
    if (words[4] == "device") {
        return {words[5]};
    }
    const auto end = std::find(words.begin(), words.end(), "}");
    if (words[4] != "devices" || end < words.begin() + 7) {
        return {};
    }
    return {words.begin() + 7, end};
}

// iptables writes its rules into tables and chains of these names, and reads them back by its own program.
bool BelongsToIptables(const std::string& family, const std::string& table, const std::string& chain) {
    const std::set<std::string> tables{"filter", "raw", "mangle", "nat", "security"};
    const std::set<std::string> chains{"INPUT", "OUTPUT", "FORWARD", "PREROUTING", "POSTROUTING"};
    return family == "ip" && tables.count(table) != 0 && chains.count(chain) != 0;
}

}  // namespace

std::optional<std::vector<Chain>> ParseNftRules(const std::string& json) {
    const Json document = Json::parse(json, nullptr, false);
    const Json* entries = Find(document, "nftables");
    if (entries == nullptr || !entries->is_array()) {
        return std::nullopt;
    }
    const auto sets = std::make_shared<Sets>();
    std::vector<Chain> chains;
    std::set<std::string> ofIptables;  // tables
    const std::set<std::string> families{"inet", "ip", "netdev", "bridge"};
    for (const Json& entry : *entries) {
        for (const char* kind : {"set", "map"}) {
            const Json* set = Find(entry, kind);
            const Json* elements = set == nullptr ? nullptr : Find(*set, "elem");
            if (elements == nullptr) {
                continue;
            }
            (*sets)[TextOf(*set, "family") + " " + TextOf(*set, "table") + " " + TextOf(*set, "name")] = *elements;
        }
        const Json* chain = Find(entry, "chain");
        if (chain == nullptr) {
            continue;
        }
        Chain made;
        made.family = TextOf(*chain, "family");
        made.table = TextOf(*chain, "table");
        made.name = TextOf(*chain, "name");
        made.hook = TextOf(*chain, "hook");
        const Json* devices = Find(*chain, "dev");
        for (const Json& device : devices == nullptr    ? Json::array()
                                  : devices->is_array() ? *devices
                                                        : Json::array({*devices})) {
            if (device.is_string()) {
                made.devices.push_back(device.get<std::string>());
            }
        }
        made.dropsByPolicy = TextOf(*chain, "policy") == "drop";
        if (BelongsToIptables(made.family, made.table, made.name)) {
            ofIptables.insert(made.family + " " + made.table);
        }
        if (families.count(made.family) != 0) {
            chains.push_back(std::move(made));
        }
    }
    for (const Json& entry : *entries) {
        const Json* rule = Find(entry, "rule");
        if (rule == nullptr) {
            continue;
        }
        const std::string scope = TextOf(*rule, "family") + " " + TextOf(*rule, "table") + " ";
        for (Chain& chain : chains) {
            const bool same = chain.family + " " + chain.table + " " == scope && chain.name == TextOf(*rule, "chain");
            if (same) {
                AddRules(*rule, sets, scope, &chain.rules);
            }
        }
    }
    chains.erase(
        std::remove_if(chains.begin(), chains.end(),
                       [&](const Chain& chain) { return ofIptables.count(chain.family + " " + chain.table) != 0; }),
        chains.end());
    return chains;
}

void ReadDevicesOfChains(const std::string& text, std::vector<Chain>* chains) {
    std::istringstream lines(text);
    std::string family;
    std::string table;
    std::string chain;
    for (std::string line; std::getline(lines, line);) {
        const Words words = SplitLine(line);
        if (words.size() >= 3 && words[0] == "table") {
            family = words[1];
            table = words[2];
        } else if (words.size() >= 2 && words[0] == "chain") {
            chain = words[1];
        } else if (words.size() >= 6 && words[0] == "type" && words[2] == "hook") {
            const auto known = std::find_if(chains->begin(), chains->end(), [&](const Chain& one) {
                return one.tool == RuleTool::Nft && one.family == family && one.table == table && one.name == chain;
            });
            if (known != chains->end()) {
                known->devices = DevicesOf(words);
            }
        }
    }
}

}  // namespace Nimbrel2::Tool::Doctor
