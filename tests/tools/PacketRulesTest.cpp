// SPDX-License-Identifier: Apache-2.0
// What rules of nftables and iptables do to a camera's packets, from the texts that their programs print.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/nimbrel/doctor/PacketRules.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

// The answer of 192.168.77.9 to a broadcast, as 192.168.77.1 gets it on eth1.
Packet Answer() {
    Packet packet;
    packet.interface = "eth1";
    packet.source = 0xC0A84D09;
    packet.destination = 0xC0A84D01;
    packet.sourcePort = 3956;
    packet.destinationPort = 40000;
    return packet;
}

Packet Request() {
    Packet packet;
    packet.incoming = false;
    packet.interface = "eth1";
    packet.source = 0xC0A84D01;
    packet.destination = 0xC0A84D09;
    packet.sourcePort = 40000;
    packet.destinationPort = 3956;
    return packet;
}

// ---- nftables ------------------------------------------------------------------------------------------------------

std::string InputChain(const std::string& policy, const std::string& rules) {
    std::string json =
        R"({"nftables": [{"metainfo": {"version": "1.0.6"}}, {"table": {"family": "inet", "name": "wall"}},
        {"chain": {"family": "inet", "table": "wall", "name": "in", "hook": "input", "prio": 0, "policy": ")" +
        policy + R"("}},
        {"chain": {"family": "inet", "table": "wall", "name": "other"}})";
    std::string rest = rules;
    int handle = 1;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        json += R"(, {"rule": {"family": "inet", "table": "wall", "chain": "in", "handle": )" +
                std::to_string(handle++) + R"(, "expr": [)" + rest.substr(0, end) + "]}}";
        rest = end == rest.size() ? "" : rest.substr(end + 1);
    }
    return json + "]}";
}

RuleSet Nft(const std::string& json) {
    RuleSet rules;
    rules.known = true;
    rules.chains = ParseNftRules(json).value_or(std::vector<Chain>{});
    EXPECT_FALSE(rules.chains.empty()) << json;
    return rules;
}

enum class Fate { Passes, Dropped, Perhaps };

std::ostream& operator<<(std::ostream& out, Fate fate) {
    return out << (fate == Fate::Passes ? "passes" : fate == Fate::Dropped ? "dropped" : "perhaps dropped");
}

Fate FateOf(const RuleSet& rules, const Packet& packet) {
    const std::vector<Blocker> blockers = rules.FindBlockers(packet);
    EXPECT_LE(blockers.size(), 1u);
    if (blockers.empty()) {
        return Fate::Passes;
    }
    return blockers[0].sure ? Fate::Dropped : Fate::Perhaps;
}

struct RuleRow {
    const char* name;
    const char* policy;
    const char* rules;
    Fate fate;
};

std::ostream& operator<<(std::ostream& out, const RuleRow& row) { return out << row.name; }

const char DropAll[] = R"({"drop": null})";

class NftRule : public ::testing::TestWithParam<RuleRow> {};

TEST_P(NftRule, DecidesUponTheAnswerOfACamera) {
    EXPECT_EQ(FateOf(Nft(InputChain(GetParam().policy, GetParam().rules)), Answer()), GetParam().fate);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, NftRule,
    ::testing::Values(
        RuleRow{"NoRule", "accept", "", Fate::Passes}, RuleRow{"PolicyDrop", "drop", "", Fate::Dropped},
        RuleRow{"DropAll", "accept", DropAll, Fate::Dropped},
        RuleRow{"RejectAll", "accept", R"({"reject": {"type": "icmpx"}})", Fate::Dropped},
        RuleRow{
            "OfItsPort", "drop",
            R"({"match": {"op": "==", "left": {"payload": {"protocol": "udp", "field": "sport"}}, "right": 3956}}, {"accept": null})",
            Fate::Passes},
        RuleRow{
            "OfAnotherPort", "drop",
            R"({"match": {"op": "==", "left": {"payload": {"protocol": "udp", "field": "sport"}}, "right": 53}}, {"accept": null})",
            Fate::Dropped},
        RuleRow{
            "OfTcp", "accept",
            R"({"match": {"op": "==", "left": {"payload": {"protocol": "tcp", "field": "dport"}}, "right": 40000}}, {"drop": null})",
            Fate::Passes},
        RuleRow{"OfAnotherProtocolByName", "accept",
                R"({"match": {"op": "==", "left": {"meta": {"key": "l4proto"}}, "right": "tcp"}}, {"drop": null})",
                Fate::Passes},
        RuleRow{"OfIpv6", "accept",
                R"({"match": {"op": "==", "left": {"meta": {"key": "nfproto"}}, "right": "ipv6"}}, {"drop": null})",
                Fate::Passes},
        RuleRow{
            "OfPortsInARange", "drop",
            R"({"match": {"op": "==", "left": {"payload": {"protocol": "udp", "field": "dport"}}, "right": {"range": [1024, 65535]}}}, {"accept": null})",
            Fate::Passes},
        RuleRow{
            "OfPortsInASet", "drop",
            R"({"match": {"op": "==", "left": {"payload": {"protocol": "udp", "field": "sport"}}, "right": {"set": [53, 3956]}}}, {"accept": null})",
            Fate::Passes},
        RuleRow{
            "OfItsSubnet", "accept",
            R"({"match": {"op": "==", "left": {"payload": {"protocol": "ip", "field": "saddr"}}, "right": {"prefix": {"addr": "192.168.77.0", "len": 24}}}}, {"drop": null})",
            Fate::Dropped},
        RuleRow{
            "NotOfItsSubnet", "accept",
            R"({"match": {"op": "!=", "left": {"payload": {"protocol": "ip", "field": "saddr"}}, "right": {"prefix": {"addr": "192.168.77.0", "len": 24}}}}, {"drop": null})",
            Fate::Passes},
        RuleRow{"OfItsInterface", "drop",
                R"({"match": {"op": "==", "left": {"meta": {"key": "iifname"}}, "right": "eth1"}}, {"accept": null})",
                Fate::Passes},
        RuleRow{"OfInterfacesLikeIt", "drop",
                R"({"match": {"op": "==", "left": {"meta": {"key": "iifname"}}, "right": "eth*"}}, {"accept": null})",
                Fate::Passes},
        RuleRow{"OfAnotherInterface", "drop",
                R"({"match": {"op": "==", "left": {"meta": {"key": "iif"}}, "right": "lo"}}, {"accept": null})",
                Fate::Dropped},
        RuleRow{
            "OfEstablishedConnections", "drop",
            R"({"match": {"op": "in", "left": {"ct": {"key": "state"}}, "right": ["established", "related"]}}, {"accept": null})",
            Fate::Dropped},
        RuleRow{"OfSomethingUnknown", "accept",
                R"({"match": {"op": "==", "left": {"meta": {"key": "mark"}}, "right": 7}}, {"drop": null})",
                Fate::Perhaps},
        RuleRow{"AcceptingSomethingUnknown", "drop",
                R"({"match": {"op": "==", "left": {"meta": {"key": "mark"}}, "right": 7}}, {"accept": null})",
                Fate::Perhaps},
        RuleRow{"LimitedInRate", "accept", R"({"limit": {"rate": 10, "per": "second"}}, {"drop": null})",
                Fate::Perhaps},
        RuleRow{"AfterACounterAndALog", "accept",
                R"({"counter": {"packets": 0, "bytes": 0}}, {"log": null}, {"drop": null})", Fate::Dropped},
        RuleRow{"AfterOneThatAccepts", "accept", "{\"accept\": null}\n{\"drop\": null}", Fate::Passes},
        RuleRow{
            "VerdictMap", "drop",
            R"({"vmap": {"key": {"payload": {"protocol": "udp", "field": "sport"}}, "data": {"set": [[53, {"drop": null}], [3956, {"accept": null}]]}}})",
            Fate::Passes},
        RuleRow{"JumpToNowhere", "drop", R"({"jump": {"target": "missing"}})", Fate::Perhaps},
        RuleRow{"JumpThatComesBack", "drop", R"({"jump": {"target": "other"}})", Fate::Dropped},
        RuleRow{"Malformed", "drop", R"({"match": 7}, {"accept": null})", Fate::Perhaps}),
    [](const auto& test) { return test.param.name; });

TEST(NftRules, AreFoundAtEachHookThatThePacketPasses) {
    const RuleSet rules = Nft(R"({"nftables": [
        {"chain": {"family": "netdev", "table": "t", "name": "mine", "hook": "ingress", "dev": "eth1", "policy": "drop"}},
        {"chain": {"family": "netdev", "table": "t", "name": "theirs", "hook": "ingress", "dev": "eth2", "policy": "drop"}},
        {"chain": {"family": "ip", "table": "t", "name": "pre", "hook": "prerouting", "policy": "drop"}},
        {"chain": {"family": "inet", "table": "t", "name": "in", "hook": "input", "policy": "drop"}},
        {"chain": {"family": "inet", "table": "t", "name": "out", "hook": "output", "policy": "drop"}},
        {"chain": {"family": "inet", "table": "t", "name": "post", "hook": "postrouting", "policy": "drop"}},
        {"chain": {"family": "inet", "table": "t", "name": "fwd", "hook": "forward", "policy": "drop"}},
        {"chain": {"family": "ip6", "table": "t", "name": "six", "hook": "input", "policy": "drop"}}]})");
    std::vector<std::string> names;
    for (const Blocker& blocker : rules.FindBlockers(Answer())) {
        names.push_back(blocker.chain->name);
    }
    EXPECT_THAT(names, ::testing::ElementsAre("mine", "pre", "in"));
    names.clear();
    for (const Blocker& blocker : rules.FindBlockers(Request())) {
        names.push_back(blocker.chain->name);
    }
    EXPECT_THAT(names, ::testing::ElementsAre("out", "post"));
}

TEST(NftRules, AtIngressAreForTheInterfacesThatTheTextFormNames) {
    RuleSet rules = Nft(R"({"nftables": [
        {"chain": {"family": "netdev", "table": "the edge", "name": "one", "hook": "ingress", "policy": "drop"}},
        {"chain": {"family": "netdev", "table": "the edge", "name": "two", "hook": "ingress", "policy": "drop"}},
        {"chain": {"family": "inet", "table": "t", "name": "one", "hook": "ingress", "policy": "drop"}},
        {"chain": {"family": "netdev", "table": "the edge", "name": "out", "hook": "egress", "policy": "drop"}}]})");
    const auto surely = [&rules](const Packet& packet) {
        std::vector<std::string> names;
        for (const Blocker& blocker : rules.FindBlockers(packet)) {
            if (blocker.sure) {
                names.push_back(blocker.chain->family + " " + blocker.chain->name);
            }
        }
        return names;
    };
    EXPECT_THAT(rules.FindBlockers(Answer()), SizeIs(3));
    EXPECT_THAT(surely(Answer()), IsEmpty()) << "the JSON form does not say which interface";
    ReadDevicesOfChains(
        "table netdev \"the edge\" {\n\tchain one { # handle 1\n"
        "\t\tcomment \"type filter hook ingress device eth1\"\n"
        "\t\ttype filter hook ingress device \"eth2\" priority filter; policy drop;\n\t}\n"
        "\tchain two {\n\t\ttype filter hook ingress devices = { eth3, \"eth1\" } priority -5;\n\t}\n"
        "\tchain out {\n\t\ttype filter hook egress device eth1 priority filter; policy drop;\n\t}\n}\n"
        "table inet t {\n\tchain one {\n\t\ttype filter hook ingress device eth1 priority 0;\n\t}\n}\n"
        "table ip new {\n\tchain one {\n\t\ttype filter hook\n\t}\n}\n",
        &rules.chains);
    EXPECT_THAT(surely(Answer()), ::testing::ElementsAre("netdev two", "inet one"));
    EXPECT_THAT(rules.FindBlockers(Answer()), SizeIs(2));
    EXPECT_THAT(surely(Request()), ::testing::ElementsAre("netdev out"));
}

TEST(NftRules, OfBridgesAreForPacketsThatPassOne) {
    RuleSet rules = Nft(R"({"nftables": [
        {"chain": {"family": "bridge", "table": "t", "name": "in", "hook": "input", "policy": "drop"}}]})");
    EXPECT_EQ(FateOf(rules, Answer()), Fate::Passes);
    Packet bridged = Answer();
    bridged.isBridged = true;
    EXPECT_EQ(FateOf(rules, bridged), Fate::Dropped);
    EXPECT_EQ(CureOf(rules, rules.FindBlockers(bridged).at(0), bridged),
              "sudo nft insert rule bridge t in udp sport 3956 accept");
    rules = Nft(R"({"nftables": [
        {"chain": {"family": "bridge", "table": "t", "name": "in", "hook": "input", "policy": "accept"}},
        {"rule": {"family": "bridge", "table": "t", "chain": "in", "handle": 3, "expr": [
          {"match": {"op": "==", "left": {"meta": {"key": "iifname"}}, "right": "port0"}}, {"drop": null}]}}]})");
    EXPECT_EQ(FateOf(rules, bridged), Fate::Perhaps) << "nobody knows behind which port the camera is";
}

TEST(NftRules, OfIptablesAreLeftToIptables) {
    const auto chains = ParseNftRules(R"({"nftables": [
        {"chain": {"family": "ip", "table": "filter", "name": "INPUT", "hook": "input", "policy": "drop"}},
        {"chain": {"family": "ip", "table": "filter", "name": "ufw-user-input"}},
        {"chain": {"family": "ip", "table": "mine", "name": "entry", "hook": "input", "policy": "drop"}}]})");
    ASSERT_TRUE(chains);
    ASSERT_THAT(*chains, SizeIs(1));
    EXPECT_EQ((*chains)[0].name, "entry");
}

TEST(NftRules, ThatAreNoneAreRefusedAndOddOnesAreSkipped) {
    for (const char* bad : {"", "7", "[]", "{", R"({"nftables": 3})"}) {
        EXPECT_FALSE(ParseNftRules(bad)) << bad;
    }
    EXPECT_TRUE(ParseNftRules(
        R"({"nftables": [7, null, {"rule": {"family": "inet"}}, {"chain": "odd"}, {"rule": {"expr": 3}}]})"));
}

TEST(NftRules, KnowTheElementsOfNamedSets) {
    const RuleSet rules = Nft(R"({"nftables": [
        {"chain": {"family": "inet", "table": "t", "name": "in", "hook": "input", "policy": "drop"}},
        {"set": {"family": "inet", "table": "t", "name": "ports", "type": "inet_service", "elem": [53, {"elem": {"val": 3956}}]}},
        {"rule": {"family": "inet", "table": "t", "chain": "in", "handle": 9, "expr": [
          {"match": {"op": "==", "left": {"payload": {"protocol": "udp", "field": "sport"}}, "right": "@ports"}}, {"accept": null}]}}]})");
    EXPECT_EQ(FateOf(rules, Answer()), Fate::Passes);
}

// ---- iptables ------------------------------------------------------------------------------------------------------

RuleSet Iptables(const std::string& rules, const std::string& policy = "ACCEPT") {
    RuleSet set;
    set.known = true;
    set.chains = ParseIptablesRules("# Generated\n*filter\n:INPUT " + policy +
                                        " [0:0]\n:FORWARD DROP [0:0]\n:OUTPUT ACCEPT [0:0]\n"
                                        ":mine - [0:0]\n" +
                                        rules + "\nCOMMIT\n",
                                    RuleTool::IptablesLegacy);
    return set;
}

class IptablesRule : public ::testing::TestWithParam<RuleRow> {};

TEST_P(IptablesRule, DecidesUponTheAnswerOfACamera) {
    EXPECT_EQ(FateOf(Iptables(GetParam().rules, GetParam().policy), Answer()), GetParam().fate);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, IptablesRule,
    ::testing::Values(
        RuleRow{"NoRule", "ACCEPT", "", Fate::Passes}, RuleRow{"PolicyDrop", "DROP", "", Fate::Dropped},
        RuleRow{"DropAll", "ACCEPT", "-A INPUT -j DROP", Fate::Dropped},
        RuleRow{"RejectAll", "ACCEPT", "-A INPUT -j REJECT --reject-with icmp-port-unreachable", Fate::Dropped},
        RuleRow{"OfItsPort", "DROP", "-A INPUT -p udp -m udp --sport 3956 -j ACCEPT", Fate::Passes},
        RuleRow{"OfAnotherPort", "DROP", "-A INPUT -p udp -m udp --sport 53 -j ACCEPT", Fate::Dropped},
        RuleRow{"OfPorts", "DROP", "-A INPUT -p udp -m multiport --dports 53,1024:65535 -j ACCEPT", Fate::Passes},
        RuleRow{"OfTcp", "ACCEPT", "-A INPUT -p tcp -j DROP", Fate::Passes},
        RuleRow{"OfItsSubnet", "ACCEPT", "-A INPUT -s 192.168.77.0/24 -j DROP", Fate::Dropped},
        RuleRow{"NotOfItsSubnet", "ACCEPT", "-A INPUT ! -s 192.168.77.0/24 -j DROP", Fate::Passes},
        RuleRow{"OfEverySubnet", "ACCEPT", "-A INPUT -s 0.0.0.0/0 -j DROP", Fate::Dropped},
        RuleRow{"OfItsInterface", "DROP", "-A INPUT -i eth1 -j ACCEPT", Fate::Passes},
        RuleRow{"OfInterfacesLikeIt", "DROP", "-A INPUT -i eth+ -j ACCEPT", Fate::Passes},
        RuleRow{"OfAnotherInterface", "DROP", "-A INPUT -i lo -j ACCEPT", Fate::Dropped},
        RuleRow{"OfEstablishedConnections", "DROP", "-A INPUT -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT",
                Fate::Dropped},
        RuleRow{"OfSomethingUnknown", "ACCEPT", "-A INPUT -m mark --mark 0x1 -j DROP", Fate::Perhaps},
        RuleRow{"WithAComment", "ACCEPT", "-A INPUT -m comment --comment \"keep \\\"all\\\" out -j ACCEPT\" -j DROP",
                Fate::Dropped},
        RuleRow{"ThatLogs", "DROP", "-A INPUT -j LOG --log-prefix \"-j ACCEPT\"", Fate::Dropped},
        RuleRow{"InAChainOfTheUser", "ACCEPT", "-A INPUT -j mine\n-A mine -p udp -j DROP", Fate::Dropped},
        RuleRow{"ThatReturns", "DROP", "-A INPUT -j mine\n-A mine -j RETURN\n-A mine -j ACCEPT", Fate::Dropped},
        RuleRow{"OfOtherHosts", "ACCEPT", "-A INPUT -m addrtype --dst-type LOCAL -j RETURN\n-A INPUT -j DROP",
                Fate::Passes},
        RuleRow{"ThatGoesToAChainWithoutComingBack", "ACCEPT", "-A INPUT -g mine\n-A INPUT -j DROP", Fate::Passes}),
    [](const auto& test) { return test.param.name; });

TEST(IptablesRules, OfNatDoNotCount) {
    RuleSet rules;
    rules.chains = ParseIptablesRules("*nat\n:PREROUTING DROP [0:0]\nCOMMIT\n*raw\n:PREROUTING DROP [0:0]\nCOMMIT\n",
                                      RuleTool::Iptables);
    const auto blockers = rules.FindBlockers(Answer());
    ASSERT_THAT(blockers, SizeIs(1));
    EXPECT_EQ(blockers[0].chain->table, "raw");
}

// ---- Cures ---------------------------------------------------------------------------------------------------------

TEST(CureOfABlocker, IsThatOfTheFrontEndWhereOneIsAtWork) {
    RuleSet ufw = Iptables("-A INPUT -j mine", "DROP");
    ufw.chains.push_back(ufw.chains.back());
    ufw.chains.back().name = "ufw-user-input";
    EXPECT_EQ(CureOf(ufw, ufw.FindBlockers(Answer()).at(0), Answer()),
              "sudo ufw allow in on eth1 proto udp from any port 3956");
    Chain zone;
    zone.family = "inet";
    zone.table = "firewalld";
    zone.name = "filter_INPUT";
    zone.hook = "input";
    zone.dropsByPolicy = true;
    RuleSet firewalld;
    firewalld.chains = {zone};
    EXPECT_EQ(CureOf(firewalld, firewalld.FindBlockers(Answer()).at(0), Answer()),
              "sudo sh -c 'zone=$(firewall-cmd --get-zone-of-interface=eth1 || firewall-cmd --get-default-zone) && "
              "firewall-cmd --zone=\"$zone\" --add-source-port=3956/udp && "
              "firewall-cmd --permanent --zone=\"$zone\" --add-source-port=3956/udp'");
    firewalld.chains[0].hook = "output";  // for which zones have no ports
    EXPECT_EQ(CureOf(firewalld, firewalld.FindBlockers(Request()).at(0), Request()),
              "sudo nft insert rule inet firewalld filter_INPUT oifname '\"eth1\"' udp dport 3956 accept");
}

TEST(CureOfABlocker, IsARuleForTheInterfaceQuotedForTheShell) {
    RuleSet rules = Iptables("", "DROP");
    Packet packet = Answer();
    packet.interface = "eth1$(id)";
    EXPECT_EQ(CureOf(rules, rules.FindBlockers(packet).at(0), packet),
              "sudo iptables-legacy -w -t filter -I INPUT 1 -i 'eth1$(id)' -p udp --sport 3956 -j ACCEPT");
    rules = Nft(InputChain("drop", ""));
    EXPECT_EQ(CureOf(rules, rules.FindBlockers(packet).at(0), packet),
              "sudo nft insert rule inet wall in iifname '\"eth1$(id)\"' udp sport 3956 accept");
}

}  // namespace
}  // namespace Nimbrel2::Tool::Doctor
