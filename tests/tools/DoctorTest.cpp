// SPDX-License-Identifier: Apache-2.0
// `nimbrel doctor` on real networks: namespaces with simulated and independent cameras, as root and as nobody.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "tests/support/NetworkNamespace.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Nimbrel2::Testing::Connect;
using Nimbrel2::Testing::NetworkNamespace;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// h0 (192.168.77.1/24) on a wire to c0 (192.168.77.100/24) of another computer.
class DoctorOnAWire : public ::testing::Test {
protected:
    DoctorOnAWire() {
        Connect(m_host, "h0", m_wire, "c0");
        m_host.Ip("addr add 192.168.77.1/24 dev h0");
        m_wire.Ip("addr add 192.168.77.100/24 dev c0");
        for (const char* which : {"all", "h0"}) {
            m_host.SetSystemControl(std::string("net/ipv4/conf/") + which + "/rp_filter", "0");
        }
    }

    void SimulateCamera(const std::string& address, const std::string& mac, const std::string& serial) {
        m_simulators.push_back(m_wire.StartProgram({RealProgram(), "simulate", "gige", "--interface", "c0", "--address",
                                                    address, "--mac", mac, "--serial", serial}));
        ASSERT_TRUE(m_simulators.back()->WaitForOutput("\n", TestDeadline)) << m_simulators.back()->GetErrors();
    }

    void StartIndependentCamera() {
        m_simulators.push_back(m_wire.StartProgram({"arv-fake-gv-camera-0.8", "-i", "192.168.77.100", "-s", "1001"}));
        const auto list = m_host.RunProgram(
            {RealProgram(), "list", "--bus", "gige", "--wait", "1001", "--timeout", "20"}, TestDeadline);
        ASSERT_EQ(list.exitStatus, 0) << list.errors;
    }

    ProgramResult Run(Words before, const Words& arguments) {
        before.insert(before.end(), {RealProgram(), "doctor", "--bus", "gige", "--discovery-window", "0.3"});
        before.insert(before.end(), arguments.begin(), arguments.end());
        return m_host.RunProgram(before, TestDeadline);
    }

    /// The findings of a check. Whether any check of all is wrong must be the exit status.
    std::vector<Json> Findings(const std::string& check, const Words& before = {}) {
        const ProgramResult result = Run(before, {"--json"});
        std::vector<Json> found;
        bool anyWrong = false;
        const Json json = Json::parse(result.output);
        for (const Json& finding : json["findings"]) {
            anyWrong = anyWrong || !finding["ok"].get<bool>();
            EXPECT_EQ(finding["cure"].get<std::string>().empty(), finding["ok"].get<bool>());
            if (finding["check"] == check) {
                found.push_back(finding);
            }
        }
        EXPECT_EQ(result.exitStatus, anyWrong ? 1 : 0);
        EXPECT_THAT(result.errors, IsEmpty());
        return found;
    }

    Json OneWrong(const std::string& check, const Words& before = {}) {
        const std::vector<Json> found = Findings(check, before);
        EXPECT_EQ(found.size(), 1u) << check;
        if (found.empty()) {
            return {{"evidence", ""}, {"cure", ""}};
        }
        EXPECT_FALSE(found[0]["ok"].get<bool>()) << found[0].dump();
        return found[0];
    }

    void ExpectFine(const std::string& check, const Words& before = {}) {
        const std::vector<Json> found = Findings(check, before);
        ASSERT_EQ(found.size(), 1u) << check;
        EXPECT_TRUE(found[0]["ok"].get<bool>()) << found[0].dump();
    }

    /// The kernel takes a while to notice a link.
    void ExpectFineInTheEnd(const std::string& check) {
        const auto deadline = std::chrono::steady_clock::now() + TestDeadline;
        bool isFine = false;
        while (!isFine && std::chrono::steady_clock::now() < deadline) {
            isFine = Findings(check).at(0)["ok"].get<bool>();
        }
        EXPECT_TRUE(isFine) << check;
    }

    /// Runs a cure as a user's shell would: this is root, and the program has another name here.
    void Apply(const Json& finding) {
        const std::string cure = finding["cure"];
        const std::string shell = "sudo() { \"$@\"; }; nimbrel() { '" + RealProgram() + "' \"$@\"; }; " + cure;
        const ProgramResult result = m_host.RunProgram({"bash", "-c", shell}, TestDeadline);
        EXPECT_EQ(result.exitStatus, 0) << cure << ": " << result.errors;
        EXPECT_NE(cure.front(), '#') << "that is no command";
    }

    std::vector<Json> AllWrong(const Words& before = {}) {
        const Json json = Json::parse(Run(before, {"--json"}).output);
        std::vector<Json> wrong;
        for (const Json& finding : json["findings"]) {
            if (!finding["ok"].get<bool>()) {
                wrong.push_back(finding);
            }
        }
        return wrong;
    }

    /// Carries out every cure; the next doctor must be content.
    void ExpectCured(const Words& before = {}) {
        const std::vector<Json> wrong = AllWrong(before);
        EXPECT_FALSE(wrong.empty());
        for (const Json& finding : wrong) {
            Apply(finding);
        }
        const ProgramResult after = Run(before, {});
        EXPECT_EQ(after.exitStatus, 0) << after.output << Json(wrong).dump(2);
        EXPECT_THAT(after.output, HasSubstr("Nothing is wrong."));
    }

    static Words Nobody() {
        return {"setpriv",        "--reuid=65534",   "--regid=65534",
                "--clear-groups", "--inh-caps=-all", "--bounding-set=-all"};
    }

    NetworkNamespace m_host;
    NetworkNamespace m_wire;
    std::vector<std::unique_ptr<ChildProcess>> m_simulators;
};

TEST_F(DoctorOnAWire, FindsNothingWrongWhereNothingIs) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const char* filter : {"0", "2", "1"}) {  // 2 is what many systems begin with
        m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", filter);
        for (const Words& user : {Words{}, Nobody()}) {
            const ProgramResult result = Run(user, {});
            EXPECT_EQ(result.exitStatus, 0) << result.output << result.errors;
            EXPECT_THAT(result.output, AllOf(HasSubstr("Nothing is wrong."), Not(HasSubstr("sysctl.d"))));
        }
    }
}

TEST_F(DoctorOnAWire, LeavesWhatOtherInterfacesAreBuiltUponAlone) {
    m_host.Ip("addr flush dev h0");
    m_host.Ip("link add link h0 name m0 type macvlan mode bridge");
    m_host.Ip("link set m0 up");
    m_host.Ip("addr add 192.168.77.1/24 dev m0");
    ExpectFine("gige.interface");
}

TEST_F(DoctorOnAWire, FindsACameraOnAForeignSubnetAndItsCureHelps) {
    SimulateCamera("10.9.9.9", "02:00:00:00:00:09", "9");
    for (const Words& user : {Words{}, Nobody()}) {
        const Json finding = OneWrong("gige.foreign-subnet", user);
        EXPECT_THAT(finding["evidence"].get<std::string>(),
                    AllOf(HasSubstr("10.9.9.9"), HasSubstr("192.168.77.0/24"), HasSubstr("h0")));
        EXPECT_EQ(finding["cure"], "nimbrel auto-ip --serial 9");
    }
    ExpectCured();
}

TEST_F(DoctorOnAWire, FindsTwoInterfacesInOneSubnetOnlyWhereSomethingIsLostAndItsCureHelps) {
    NetworkNamespace second;
    Connect(m_host, "u0", second, "u1");
    m_host.Ip("addr add 192.168.77.2/24 dev u0");
    second.Ip("addr add 192.168.77.200/24 dev u1");
    m_host.SetSystemControl("net/ipv4/conf/u0/rp_filter", "0");
    ExpectFine("gige.subnet-overlap");
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "1");
    const Json finding = OneWrong("gige.subnet-overlap");
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("u0"));
    ExpectCured();
}

TEST_F(DoctorOnAWire, FindsTwoCamerasOnOneAddressAndItsCureHelps) {
    NetworkNamespace second;
    Connect(m_wire, "b1", second, "c1");
    m_wire.Ip("link add name bridge0 type bridge");
    m_wire.Ip("link set bridge0 up");
    m_wire.Ip("addr flush dev c0");
    m_wire.Ip("link set c0 master bridge0");
    m_wire.Ip("link set b1 master bridge0");
    NetworkNamespace first;
    Connect(m_wire, "b2", first, "c2");
    m_wire.Ip("link set b2 master bridge0");
    std::vector<std::unique_ptr<ChildProcess>> cameras;
    for (const auto& [network, name, mac] : {std::tuple{&second, "c1", "1"}, std::tuple{&first, "c2", "2"}}) {
        network->Ip(std::string("addr add 192.168.77.10") + mac + "/24 dev " + name);
        cameras.push_back(
            network->StartProgram({RealProgram(), "simulate", "gige", "--interface", name, "--address", "192.168.77.55",
                                   "--mac", std::string("02:00:00:00:00:0") + mac, "--serial", mac}));
        ASSERT_TRUE(cameras.back()->WaitForOutput("\n", TestDeadline)) << cameras.back()->GetErrors();
    }
    // A bridge forwards nothing until its ports have come up.
    const auto bothAnswer = [this] {
        const Words discover{RealProgram(), "discover", "--discovery-window", "0.3", "--json"};
        return Json::parse(m_host.RunProgram(discover, TestDeadline).output)["cameras"].size() == 2;
    };
    const auto end = std::chrono::steady_clock::now() + TestDeadline;
    while (!bothAnswer()) {
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    }
    const Json finding = OneWrong("gige.address-conflict");
    EXPECT_THAT(finding["evidence"].get<std::string>(),
                AllOf(HasSubstr("02:00:00:00:00:01"), HasSubstr("02:00:00:00:00:02"), HasSubstr("192.168.77.55")));
    EXPECT_EQ(AllWrong().size(), 1u) << "one cause";
    ExpectCured();
}

TEST_F(DoctorOnAWire, FindsAReversePathFilterThatHasDroppedAnswersAndItsCureHelps) {
    SimulateCamera("10.9.9.9", "02:00:00:00:00:09", "9");
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "2");
    m_host.SetSystemControl("net/ipv4/conf/h0/rp_filter", "1");
    EXPECT_THAT(Findings("gige.foreign-subnet", Nobody()), IsEmpty()) << "nobody can know";
    const Json finding = OneWrong("gige.rp-filter", Nobody());
    EXPECT_THAT(finding["evidence"].get<std::string>(),
                AllOf(HasSubstr("h0: reverse path filter 2"), HasSubstr("dropped")));
    // Root sees the camera, so there is one finding, and its cure makes the filter harmless.
    EXPECT_EQ(AllWrong().size(), 1u);
    EXPECT_THAT(OneWrong("gige.foreign-subnet")["evidence"].get<std::string>(), HasSubstr("10.9.9.9"));
    EXPECT_THAT(Run(Nobody(), {}).output, HasSubstr("/share/nimbrel2/sysctl.d/60-nimbrel2.conf to /etc/sysctl.d"));
    Apply(finding);
    ExpectFine("gige.rp-filter", Nobody());
    OneWrong("gige.foreign-subnet", Nobody());
    ExpectCured(Nobody());
}

TEST_F(DoctorOnAWire, AgreesWithDiscoverOnTheReversePathFilter) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "1");
    m_host.Ip("route add default via 192.168.77.254 dev h0");
    ExpectFine("gige.rp-filter", Nobody());
    EXPECT_THAT(Run(Nobody(), {}).output, HasSubstr("drops nothing"));
    Words discover = Nobody();
    discover.insert(discover.end(), {RealProgram(), "discover", "--discovery-window", "0.3"});
    EXPECT_THAT(m_host.RunProgram(discover, TestDeadline).errors, IsEmpty());
}

// ---- Firewalls -----------------------------------------------------------------------------------------------------

struct Firewall {
    const char* name;
    Words commands;           ///< that set it up
    std::size_t numFindings;  ///< one for each chain that drops
    const char* named;        ///< in the evidence
};

std::ostream& operator<<(std::ostream& out, const Firewall& row) { return out << row.name; }

class DoctorBehindAFirewall : public DoctorOnAWire, public ::testing::WithParamInterface<Firewall> {};

TEST_P(DoctorBehindAFirewall, FindsEachChainThatDropsAndEachCureHelps) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const std::string& command : GetParam().commands) {
        const ProgramResult result = m_host.RunProgram({"sh", "-c", command}, TestDeadline);
        ASSERT_EQ(result.exitStatus, 0) << command << ": " << result.errors;
    }
    const std::vector<Json> wrong = AllWrong();
    EXPECT_EQ(wrong.size(), GetParam().numFindings) << Json(wrong).dump(2);
    for (const Json& finding : wrong) {
        EXPECT_EQ(finding["check"], "gige.firewall");
    }
    EXPECT_THAT(Json(wrong).dump(), HasSubstr(GetParam().named));
    ExpectCured();
    const Json listed = Json::parse(
        m_host.RunProgram({RealProgram(), "list", "--bus", "gige", "--discovery-window", "0.3", "--json"}, TestDeadline)
            .output);
    EXPECT_EQ(listed["cameras"].size(), 1u) << "the camera can be used";
}

const char TestTable[] = "nft add table inet wall";
const char Established[] = "nft add rule inet wall entry ct state established,related accept";

INSTANTIATE_TEST_SUITE_P(
    Kinds, DoctorBehindAFirewall,
    ::testing::Values(
        Firewall{"PolicyOfInput",
                 {TestTable, "nft add chain inet wall entry '{ type filter hook input priority 0; policy drop; }'",
                  Established},
                 1,
                 "inet wall entry"},
        Firewall{"RuleOfInputInAChainOfItsOwn",
                 {TestTable, "nft add chain inet wall entry '{ type filter hook input priority 0; }'",
                  "nft add chain inet wall strangers", Established,
                  "nft add rule inet wall entry iifname h0 jump strangers", "nft add rule inet wall strangers drop"},
                 1,
                 "of chain strangers"},
        Firewall{"TwoChainsOfInput",
                 {TestTable, "nft add chain inet wall entry '{ type filter hook input priority 0; policy drop; }'",
                  Established, "nft add table ip second",
                  "nft add chain ip second door '{ type filter hook input priority 10; policy drop; }'"},
                 2,
                 "ip second door"},
        Firewall{
            "Prerouting",
            {TestTable, "nft add chain inet wall entry '{ type filter hook prerouting priority -150; policy drop; }'",
             Established},
            1,
            "inet wall entry"},
        Firewall{"Ingress",
                 {"nft add table netdev edge",
                  "nft add chain netdev edge entry '{ type filter hook ingress device h0 priority 0; }'",
                  "nft add rule netdev edge entry udp sport 3956 drop"},
                 1,
                 "netdev edge entry"},
        Firewall{"IngressOfAChainForSeveralInterfaces",
                 {"nft add table netdev edge",
                  "nft add chain netdev edge entry '{ type filter hook ingress devices = { lo, h0 } priority 0; }'",
                  "nft add rule netdev edge entry udp sport 3956 drop"},
                 1,
                 "netdev edge entry"},
        Firewall{"Egress",
                 {"nft add table netdev edge",
                  "nft add chain netdev edge exit '{ type filter hook egress device h0 priority 0; }'",
                  "nft add rule netdev edge exit udp dport 3956 drop"},
                 1,
                 "netdev edge exit"},
        Firewall{"BridgeThatTheInterfaceIs",
                 {"ip link add br0 type bridge forward_delay 0", "ip addr flush dev h0", "ip link set h0 master br0",
                  "ip link set br0 up", "ip addr add 192.168.77.1/24 dev br0", "nft add table bridge wall",
                  "nft add chain bridge wall entry '{ type filter hook input priority 0; }'",
                  "nft add rule bridge wall entry udp sport 3956 drop"},
                 1,
                 "bridge wall entry"},
        Firewall{"RuleOfOutputForItsPort",
                 {TestTable, "nft add chain inet wall exit '{ type filter hook output priority 0; }'",
                  "nft add rule inet wall exit udp dport 3956 drop"},
                 1,
                 "inet wall exit"},
        Firewall{"RuleOfOutputForOneSubnet",
                 {TestTable, "nft add chain inet wall exit '{ type filter hook output priority 0; }'",
                  "nft add rule inet wall exit ip daddr 192.168.77.0/24 reject"},
                 1,
                 "requests to single cameras"},
        Firewall{"Iptables",
                 {"iptables-nft -A INPUT -m conntrack --ctstate ESTABLISHED -j ACCEPT", "iptables-nft -P INPUT DROP"},
                 1,
                 "iptables chain INPUT"},
        Firewall{"IptablesLegacyInTwoTables",
                 {"iptables-legacy -t raw -A PREROUTING -p udp --sport 3956 -j DROP",
                  "iptables-legacy -A INPUT -i h0 -p udp -j DROP"},
                 2,
                 "iptables-legacy chain PREROUTING of table raw"},
        Firewall{"Ufw",
                 {"cp -a /etc/ufw /tmp/ufw.$PPID && mount --bind /tmp/ufw.$PPID /etc/ufw", "ufw --force enable"},
                 1,
                 "INPUT"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(DoctorOnAWire, FindsAFirewallWithoutReadingItsRules) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const char* rule :
         {TestTable, "nft add chain inet wall entry '{ type filter hook input priority 0; policy drop; }'",
          Established}) {
        ASSERT_EQ(m_host.RunProgram({"sh", "-c", rule}).exitStatus, 0) << rule;
    }
    const Json finding = OneWrong("gige.firewall", Nobody());
    EXPECT_THAT(finding["evidence"].get<std::string>(),
                AllOf(HasSubstr("camera 2"), HasSubstr("answers when asked directly"),
                      HasSubstr("only root may see which rule")));
    EXPECT_EQ(finding["cure"], "# root sees which rule: sudo " + RealProgram() + " doctor --interface h0");
    ExpectCured();
    ExpectFine("gige.firewall", Nobody());
}

TEST_F(DoctorOnAWire, LeavesAFirewallAloneThatDropsNothingOfCameras) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const char* rule :
         {TestTable, "nft add chain inet wall entry '{ type filter hook input priority 0; policy drop; }'",
          "nft add rule inet wall entry udp sport 3956 accept", Established,
          "iptables-legacy -A INPUT -p tcp --dport 22 -j DROP"}) {
        ASSERT_EQ(m_host.RunProgram({"sh", "-c", rule}).exitStatus, 0) << rule;
    }
    EXPECT_EQ(AllWrong().size(), 0u);
}

TEST_F(DoctorOnAWire, BlamesAChainOfAnotherInterfaceForNothing) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    NetworkNamespace second;
    Connect(m_host, "u0", second, "u1");
    m_host.Ip("addr add 192.168.78.1/24 dev u0");
    for (const char* rule : {"nft add table netdev edge",
                             "nft add chain netdev edge in '{ type filter hook ingress device u0 priority 0; }'",
                             "nft add rule netdev edge in udp sport 3956 drop",
                             "nft add chain netdev edge out '{ type filter hook egress device u0 priority 0; }'",
                             "nft add rule netdev edge out udp dport 3956 drop"}) {
        ASSERT_EQ(m_host.RunProgram({"sh", "-c", rule}).exitStatus, 0) << rule;
    }
    const std::vector<Json> wrong = AllWrong();
    EXPECT_EQ(wrong.size(), 2u) << Json(wrong).dump(2);
    for (const Json& finding : wrong) {
        EXPECT_EQ(finding["evidence"].get<std::string>().rfind("u0: ", 0), 0u) << finding;
    }
    ExpectCured();
}

/// firewalld, with a bus and files of its own.
class DoctorBehindFirewalld : public DoctorOnAWire {
protected:
    DoctorBehindFirewalld() {
        const ProgramResult folders = m_host.RunProgram(
            {"sh", "-c", "mount -t tmpfs none /run && mkdir /run/dbus && mount -t tmpfs none /etc/firewalld"});
        EXPECT_EQ(folders.exitStatus, 0) << folders.errors;
        m_bus = m_host.StartProgram({"dbus-daemon", "--system", "--nofork", "--nopidfile", "--print-address"});
        EXPECT_TRUE(m_bus->WaitForOutput("\n", TestDeadline)) << m_bus->GetErrors();
        m_firewalld = m_host.StartProgram({"firewalld", "--nofork", "--nopid"});
        const auto end = std::chrono::steady_clock::now() + TestDeadline;
        while (m_host.RunProgram({"firewall-cmd", "--state"}, TestDeadline).exitStatus != 0) {
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << m_firewalld->GetErrors();
                break;
            }
        }
    }

    std::unique_ptr<ChildProcess> m_bus;
    std::unique_ptr<ChildProcess> m_firewalld;
};

TEST_F(DoctorBehindFirewalld, FindsTheOneChainThatDropsAndItsCureHelpsInTheZoneOfTheInterface) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const char* zone : {"", "--zone=internal"}) {
        if (*zone != '\0') {
            const ProgramResult moved =
                m_host.RunProgram({"firewall-cmd", zone, "--change-interface=h0"}, TestDeadline);
            ASSERT_EQ(moved.exitStatus, 0) << moved.errors;
        }
        const std::vector<Json> wrong = AllWrong();
        ASSERT_EQ(wrong.size(), 1u) << Json(wrong).dump(2);
        EXPECT_EQ(wrong[0]["check"], "gige.firewall");
        EXPECT_THAT(wrong[0]["evidence"].get<std::string>(), HasSubstr("inet firewalld filter_INPUT"));
        ExpectCured();
    }
}

// ---- Interfaces and cameras ----------------------------------------------------------------------------------------

TEST_F(DoctorOnAWire, FindsAnInterfaceThatIsDownAndItsCureHelps) {
    m_host.Ip("link set h0 down");
    const Json finding = OneWrong("gige.interface");
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("h0 is down"));
    Apply(finding);
    ExpectFineInTheEnd("gige.interface");
}

TEST_F(DoctorOnAWire, FindsAnInterfaceWithoutAnAddressAndItsCureHelps) {
    m_host.Ip("addr flush dev h0");
    EXPECT_THAT(OneWrong("gige.interface")["evidence"].get<std::string>(), HasSubstr("h0 has no IPv4 address"));
    ExpectCured();
}

TEST_F(DoctorOnAWire, FindsAnInterfaceThatLacksEverythingAndOneCureHelps) {
    m_host.Ip("addr flush dev h0");
    m_host.Ip("link set h0 down");
    const Json finding = OneWrong("gige.interface");
    EXPECT_EQ(finding["evidence"], "h0 is down and has no IPv4 address, so no camera on it can be used");
    Apply(finding);
    ExpectFineInTheEnd("gige.interface");
}

TEST_F(DoctorOnAWire, FindsAMaskWithoutRoomAndItsCureHelps) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    m_host.Ip("addr flush dev h0");
    m_host.Ip("addr add 192.168.77.1 dev h0");  // a mask was forgotten
    EXPECT_THAT(OneWrong("gige.interface")["evidence"].get<std::string>(),
                HasSubstr("h0 has the address 192.168.77.1/32, a subnet without room for a camera"));
    EXPECT_EQ(AllWrong().size(), 1u) << "one cause";
    ExpectCured();
}

TEST_F(DoctorOnAWire, NamesNoInterfaceThatCanHaveNoCamera) {
    m_host.Ip("link add i0 type ifb");
    m_host.Ip("link add br0 type bridge");
    m_host.Ip("link set h0 down");
    const std::vector<Json> wrong = AllWrong();
    ASSERT_EQ(wrong.size(), 1u) << Json(wrong).dump(2);
    EXPECT_THAT(wrong[0]["evidence"].get<std::string>(), HasSubstr("h0 is down"));
}

TEST_F(DoctorOnAWire, FindsForeignCamerasThatShareASerialNumberAndTheirCuresHelp) {
    SimulateCamera("10.9.9.9", "02:00:00:00:00:09", "7");
    SimulateCamera("10.9.9.10", "02:00:00:00:00:0a", "7");
    SimulateCamera("10.9.9.11", "02:00:00:00:00:0b", "AB");  // a serial number without a number
    SimulateCamera("10.9.9.12", "02:00:00:00:00:0c", "CD");
    EXPECT_EQ(Findings("gige.foreign-subnet").size(), 4u);
    ExpectCured();
}

// ---- Sockets -------------------------------------------------------------------------------------------------------

TEST_F(DoctorOnAWire, FindsPortsThatOthersHaveAndTheirEndHelps) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    auto holder = m_host.StartProgram({"python3", "-u", "-c", R"(
import socket, time
held = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(8)]
for number, one in enumerate(held):
    one.bind(("", 40000 + number))
print("held")
time.sleep(1000)
)"});
    ASSERT_TRUE(holder->WaitForOutput("held", TestDeadline)) << holder->GetErrors();
    const Words ports{"--source-port", "40000-40007"};
    const ProgramResult refused = Run({}, ports);
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_THAT(refused.output,
                HasSubstr("WRONG  gige.driver\n       h0: bind refused: Address already in use\n"
                          "       cure: # other programs have these ports: give --source-port another range\n"));
    EXPECT_THAT(refused.output, HasSubstr("1 thing is wrong."));
    const ProgramResult others = Run({}, {"--source-port", "40010-40017"});
    EXPECT_EQ(others.exitStatus, 0) << others.output;
    holder.reset();
    const ProgramResult after = Run({}, ports);
    EXPECT_EQ(after.exitStatus, 0) << after.output;
}

TEST_F(DoctorOnAWire, FindsThatThereAreNoMoreFilesAndMoreHelp) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    const auto examine = [this](const std::string& most) {
        return m_host.RunProgram(
            {"prlimit", "--nofile=" + most, RealProgram(), "doctor", "--bus", "gige", "--discovery-window", "0.3"},
            TestDeadline);
    };
    // However far it gets, the cause is the same.
    unsigned int refusals = 0;
    for (int most = 9; most <= 16; ++most) {
        const std::string output = examine(std::to_string(most)).output;
        if (output.find("Too many open files") == std::string::npos) {
            continue;
        }
        ++refusals;
        EXPECT_THAT(output, AllOf(HasSubstr("WRONG  gige.driver\n"),
                                  HasSubstr("cure: # too many files are open: close programs, or raise `ulimit -n`"),
                                  HasSubstr("1 thing is wrong.")))
            << most;
    }
    EXPECT_GT(refusals, 2u);
    const ProgramResult after = examine("256");
    EXPECT_EQ(after.exitStatus, 0) << after.output;
}

TEST_F(DoctorOnAWire, FindsARefusedBroadcastAsAnybodyAndItsCureHelps) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const char* rule :
         {"nft add table inet wall", "nft add chain inet wall exit '{ type filter hook output priority 0; }'",
          "nft add rule inet wall exit ip daddr 255.255.255.255 drop"}) {
        ASSERT_EQ(m_host.RunProgram({"sh", "-c", rule}).exitStatus, 0) << rule;
    }
    const Json finding = OneWrong("gige.driver", Nobody());
    EXPECT_EQ(finding["evidence"], "h0: a broadcast was refused: Operation not permitted");
    EXPECT_EQ(finding["cure"],
              "# run it as root to see which rule refuses it: sudo " + RealProgram() + " doctor --bus gige");
    ExpectCured();
    ExpectFine("gige.driver", Nobody());
}

// Stopped while its sockets are flooded, so that the kernel must drop, however large they are and fast this computer
// is.
TEST_F(DoctorOnAWire, FindsDatagramsThatItsSocketHasLostAndTheNextOneIsContent) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    auto doctor = m_host.StartProgram({RealProgram(), "doctor", "--bus", "gige", "--discovery-window", "3"});
    auto watcher = m_host.StartProgram({"python3", "-u", "-c", R"(
import os, signal, sys, time
doctor = int(sys.argv[1])
def drops():
    lines = [line.split() for line in open("/proc/net/udp").readlines()[1:]]
    return {int(words[1].split(":")[1], 16): int(words[12]) for words in lines}
while not drops():
    time.sleep(0.001)
os.kill(doctor, signal.SIGSTOP)
ports = list(drops())
print(*ports, "stopped")
while not all(drops()[port] for port in ports):
    time.sleep(0.001)
os.kill(doctor, signal.SIGCONT)
print("lost")
)",
                                        std::to_string(doctor->GetPid())});
    ASSERT_TRUE(watcher->WaitForOutput("stopped", TestDeadline)) << watcher->GetErrors();
    auto flood = m_wire.StartProgram({"python3", "-c", R"(
import socket, sys
wire = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
while True:
    for port in sys.argv[1].split()[:-1]:
        wire.sendto(b"x" * 1400, ("192.168.77.1", int(port)))
)",
                                      watcher->GetOutput()});
    ASSERT_TRUE(watcher->WaitForOutput("lost", TestDeadline)) << watcher->GetErrors() << flood->GetErrors();
    flood.reset();
    EXPECT_EQ(doctor->WaitForExit(TestDeadline), 1) << doctor->GetOutput();
    EXPECT_THAT(doctor->GetOutput(),
                AllOf(HasSubstr("WRONG  gige.receive-buffer\n       h0: the driver's socket holds "),
                      HasSubstr("       cure: # this computer is too busy to read them: end other programs\n"),
                      HasSubstr("1 thing is wrong.")));
    EXPECT_EQ(Run({}, {}).exitStatus, 0);
}

TEST_F(DoctorOnAWire, FindsWhoControlsACameraUntilTheyEnd) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    // Takes control on another computer and keeps its heartbeat.
    auto holder = m_wire.StartProgram({"python3", "-u", "-c", R"(
import socket, struct, time
camera = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
camera.bind(("192.168.77.100", 1234))
camera.connect(("192.168.77.102", 3956))
def write(address, value):
    camera.send(struct.pack(">BBHHHII", 0x42, 1, 0x82, 8, 1, address, value))
    camera.recv(100)
write(0xA00, 2)
print("held")
while True:
    time.sleep(0.5)
    write(0xA00, 2)
)"});
    ASSERT_TRUE(holder->WaitForOutput("held", TestDeadline)) << holder->GetErrors();
    const Json finding = OneWrong("gige.control", Nobody());
    EXPECT_THAT(finding["evidence"].get<std::string>(),
                AllOf(HasSubstr("camera 2"), HasSubstr("192.168.77.100, port 1234, which is another computer")));
    EXPECT_EQ(finding["cure"], "# end the program on 192.168.77.100 that uses UDP port 1234");
    holder.reset();
    const auto deadline = std::chrono::steady_clock::now() + TestDeadline;
    while (!Findings("gige.control").at(0)["ok"].get<bool>()) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "its heartbeat runs out";
    }
}

TEST_F(DoctorOnAWire, FindsAnMtuThatIsTooSmallForWhatACameraSendsAndItsCureHelps) {
    m_host.Ip("link set dev h0 mtu 1280");
    ExpectFine("gige.mtu");
    StartIndependentCamera();
    EXPECT_THAT(OneWrong("gige.mtu")["evidence"].get<std::string>(),
                AllOf(HasSubstr("1280"), HasSubstr("camera 1001")));
    ExpectCured();
}

TEST_F(DoctorOnAWire, FindsACameraWhoseMaskLeavesThisComputerOutAndItsCureHelps) {
    m_simulators.push_back(
        m_wire.StartProgram({RealProgram(), "simulate", "gige", "--interface", "c0", "--address", "192.168.77.102",
                             "--mask", "/30", "--mac", "02:00:00:00:00:02", "--serial", "2"}));
    ASSERT_TRUE(m_simulators.back()->WaitForOutput("\n", TestDeadline)) << m_simulators.back()->GetErrors();
    const Json finding = OneWrong("gige.no-answer");
    EXPECT_THAT(finding["evidence"].get<std::string>(),
                HasSubstr("its subnet mask 255.255.255.252 leaves this computer out, and it has no gateway"));
    EXPECT_EQ(finding["cure"], "nimbrel force-ip --mac 02:00:00:00:00:02 --ip 192.168.77.102/24");
    EXPECT_EQ(AllWrong().size(), 1u) << "one cause";
    ExpectCured();
}

TEST_F(DoctorOnAWire, FindsACameraThatDoesNotAnswerAtItsAddress) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const char* rule :
         {"nft add table inet camera", "nft add chain inet camera entry '{ type filter hook input priority 0; }'",
          "nft add rule inet camera entry ip daddr 192.168.77.102 drop"}) {
        ASSERT_EQ(m_wire.RunProgram({"sh", "-c", rule}).exitStatus, 0) << rule;
    }
    EXPECT_THAT(OneWrong("gige.no-answer")["evidence"].get<std::string>(),
                HasSubstr("camera 2 (02:00:00:00:00:02) answers broadcasts, but not at its address 192.168.77.102"));
    EXPECT_EQ(AllWrong().size(), 1u);
}

TEST(Doctor, SaysThatThereIsNoNetworkAtAll) {
    NetworkNamespace network;
    network.Ip("link set lo down");
    const ProgramResult result =
        network.RunProgram({RealProgram(), "doctor", "--bus", "gige", "--discovery-window", "0.1"}, TestDeadline);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, HasSubstr("no network interface of this computer can carry cameras (1 in all)"));
    EXPECT_THAT(result.output, HasSubstr("1 thing is wrong."));
}

TEST(Doctor, RunsOnASimulatedComputer) {
    const ProgramResult result = RunReal({"doctor", "--demo", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    const Json findings = Json::parse(result.output)["findings"];
    EXPECT_GT(findings.size(), 5u);
    for (const Json& finding : findings) {
        EXPECT_TRUE(finding["ok"].get<bool>());
        EXPECT_EQ(finding.size(), 4u);
    }
}

TEST(Doctor, FindsCamerasThatCannotBeToldApart) {
    const auto rig = [](const std::string& serial) {
        return R"({"usb": [{"name": "xhci0", "devices": [
            {"name": "a", "parent": "xhci0", "port": 1, "serial": "33", "vendor": "V", "model": "M"},
            {"name": "b", "parent": "xhci0", "port": 2, "serial": ")" +
               serial + R"(", "vendor": "V", "model": "M"}]}]})";
    };
    const ProgramResult result = RigComputer(rig("33")).Run({"doctor", "--bus", "usb"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("WRONG  cameras.guid"),
                                     HasSubstr("xhci0 port 1 (index 0) and USB 3, xhci0 port 2 (index 1)")));
    EXPECT_EQ(RigComputer(rig("34")).Run({"doctor", "--bus", "usb"}).exitStatus, 0);
}

TEST(Doctor, NamesBusesThatCannotBeSearchedAndThoseWithoutADriver) {
    const ProgramResult failing = ScriptedComputer({"fail usb 3"}).Run({"doctor", "--bus", "usb", "--json"});
    EXPECT_EQ(failing.exitStatus, 1);
    const Json finding = Json::parse(failing.output)["findings"][0];
    EXPECT_EQ(finding["check"], "usb.driver");
    EXPECT_EQ(finding["evidence"], "USB cannot be searched: permission denied");
    EXPECT_EQ(finding["cure"], "sudo nimbrel doctor --bus usb");
    const ProgramResult missing =
        ScriptedComputer({"without usb", "1394 1 V M"}).Run({"doctor", "--bus", "usb", "--bus", "1394"});
    EXPECT_EQ(missing.exitStatus, 0) << missing.output;
    EXPECT_THAT(
        missing.output,
        HasSubstr("ok     usb.driver\n       this build of nimbrel has no driver for USB, so it is not searched\n"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
