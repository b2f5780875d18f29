// SPDX-License-Identifier: Apache-2.0
// Each check of `nimbrel doctor` on made-up diagnoses: what it fires on, what it does not, its evidence and its cure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tools/nimbrel/doctor/GigEChecks.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::CameraDiagnosis;
using Platform::ControlState;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kHost = 0xC0A84D01;  // 192.168.77.1

InterfaceDiagnosis Interface(int index, const std::string& name, std::uint32_t address) {
    InterfaceDiagnosis entry;
    entry.interface.index = index;
    entry.interface.name = name;
    entry.interface.up = entry.interface.running = entry.interface.broadcast = entry.used = true;
    entry.interface.mtu = 1500;
    if (address != 0) entry.interface.addresses.push_back(InterfaceAddress{address, 24});
    entry.receiveBuffer = 425984;
    return entry;
}

GvcpDiscoveryRecord Record(std::uint32_t number, std::uint32_t ip) {
    GvcpDiscoveryRecord record{};
    record.macHigh = 0x0200;
    record.macLow = number;
    record.ipAddress = ip;
    const std::string serial = std::to_string(number);
    std::memcpy(record.serialNumber, serial.data(), serial.size());
    return record;
}

CameraDiagnosis Camera(std::uint32_t number, std::uint32_t ip) {
    CameraDiagnosis camera;
    camera.record = Record(number, ip);
    camera.interface = 2;
    camera.reachable = camera.present = camera.listed = true;
    camera.control.state = ControlState::Free;
    return camera;
}

/// One interface, h0 192.168.77.1/24, with one camera that is all right.
class DoctorChecks : public ::testing::Test {
protected:
    DoctorChecks() {
        examined.diagnosis.interfaces.push_back(Interface(2, "h0", kHost));
        examined.diagnosis.cameras.push_back(Camera(5, kHost + 4));
        Platform::InterfaceHearing hearing;
        hearing.interface = 2;
        hearing.heard = 1;
        hearing.seesWire = true;
        examined.hearing.interfaces.push_back(hearing);
    }

    InterfaceDiagnosis& H0() { return examined.diagnosis.interfaces[0]; }
    CameraDiagnosis& First() { return examined.diagnosis.cameras[0]; }

    Platform::MutedCamera& Mute(std::uint32_t number, std::uint32_t ip, bool reachable) {
        Platform::MutedCamera muted;
        muted.record = Record(number, ip);
        muted.interface = 2;
        muted.reachable = reachable;
        examined.hearing.muted.push_back(muted);
        return examined.hearing.muted.back();
    }

    void ExpectFine(Check<GigEExamination> check) {
        const Findings findings = check(examined);
        ASSERT_THAT(findings, SizeIs(1));
        EXPECT_TRUE(findings[0].ok) << findings[0].evidence;
        EXPECT_THAT(findings[0].cure, IsEmpty());
        EXPECT_NE(findings[0].evidence, "");
    }

    Finding ExpectWrong(Check<GigEExamination> check) {
        const Findings findings = check(examined);
        EXPECT_THAT(findings, SizeIs(1));
        if (findings.empty()) return {};
        EXPECT_FALSE(findings[0].ok) << findings[0].evidence;
        EXPECT_NE(findings[0].evidence, "");
        EXPECT_NE(findings[0].cure, "");
        return findings[0];
    }

    GigEExamination examined;
};

TEST_F(DoctorChecks, FindNothingOnAHealthyComputer) {
    for (const auto check : GigEChecks()) ExpectFine(check);
}

TEST_F(DoctorChecks, StandEveryEmptyExamination) {
    examined = GigEExamination{};
    for (const auto check : GigEChecks()) check(examined);
    EXPECT_THAT(ExpectWrong(CheckInterfaces).evidence, HasSubstr("no network interface that cameras could be on"));
    examined.status = HAL_PERMISSION;
    EXPECT_THAT(ExpectWrong(CheckDriver).evidence, HasSubstr("permission denied"));
    EXPECT_THAT(CheckInterfaces(examined), IsEmpty()) << "nothing is known of them";
    examined.status = HAL_OK;
    examined.diagnosis.error = EPERM;
    EXPECT_THAT(ExpectWrong(CheckDriver).evidence, HasSubstr("Operation not permitted"));
    EXPECT_THAT(CheckInterfaces(examined), IsEmpty());
}

TEST_F(DoctorChecks, DriverTellsARefusedSocketAndARefusedBroadcast) {
    H0().sendError = EPERM;
    Finding finding = ExpectWrong(CheckDriver);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("h0"), HasSubstr("Operation not permitted")));
    EXPECT_EQ(finding.cure, "sudo nft insert rule inet filter output udp dport 3956 accept");
    H0().sendError = 0;
    examined.hearing.interfaces[0].error = ENETUNREACH;
    EXPECT_EQ(ExpectWrong(CheckDriver).cure, "sudo ip address add 192.168.100.1/24 dev h0");
    examined.hearing.interfaces.clear();
    H0().used = false;
    H0().error = EPERM;
    H0().reason = "socket refused: Operation not permitted";
    EXPECT_THAT(ExpectWrong(CheckDriver).evidence, HasSubstr("h0: socket refused"));
    EXPECT_THAT(CheckInterfaces(examined), IsEmpty()) << "that is the cause";
}

TEST_F(DoctorChecks, InterfaceThatIsDownIsWrongWhenNoOtherWorks) {
    H0().used = H0().interface.up = H0().interface.running = false;
    Finding finding = ExpectWrong(CheckInterfaces);
    EXPECT_EQ(finding.check, "gige.interface");
    EXPECT_THAT(finding.evidence, HasSubstr("h0 is down"));
    EXPECT_EQ(finding.cure, "sudo ip link set dev h0 up");
    H0().interface.up = true;
    EXPECT_THAT(ExpectWrong(CheckInterfaces).evidence, HasSubstr("h0 has no link"));

    examined.diagnosis.interfaces.push_back(Interface(3, "u0", 0xAC140001));
    ExpectFine(CheckInterfaces);
    EXPECT_THAT(CheckInterfaces(examined)[0].evidence, HasSubstr("h0 has no link and is not looked at"));
}

TEST_F(DoctorChecks, InterfaceWithACableAndNoAddressIsWrongInAnyCase) {
    examined.diagnosis.interfaces.push_back(Interface(3, "u0", 0));
    for (const bool used : {false, true}) {
        examined.diagnosis.interfaces[1].used = used;
        const Finding finding = ExpectWrong(CheckInterfaces);
        EXPECT_THAT(finding.evidence, HasSubstr("u0 has no IPv4 address"));
        EXPECT_EQ(finding.cure, "sudo ip address add 192.168.100.1/24 dev u0");
    }
    examined.diagnosis.interfaces[1].used = false;
    examined.diagnosis.interfaces[1].interface.portOf = "bridge";
    ExpectFine(CheckInterfaces);
}

TEST_F(DoctorChecks, SubnetOverlapNamesBothInterfacesAndASubnetThatIsFree) {
    examined.diagnosis.interfaces.push_back(Interface(3, "u0", kHost + 1));
    examined.diagnosis.interfaces.push_back(Interface(4, "u1", 0xC0A86401));
    const Finding finding = ExpectWrong(CheckSubnetOverlap);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("h0 192.168.77.1/24"), HasSubstr("u0 192.168.77.2/24")));
    EXPECT_EQ(finding.cure,
              "sudo ip address del 192.168.77.2/24 dev u0 && sudo ip address add 192.168.101.1/24 dev u0");
    examined.diagnosis.interfaces[1].interface.up = false;
    ExpectFine(CheckSubnetOverlap);
}

TEST_F(DoctorChecks, RpFilterIsWrongWhereItDropsForeignAnswers) {
    struct Row {
        int all, own, defaultRoute;
        bool wrong;
    };
    for (const Row& row : {Row{0, 0, 0, false}, Row{1, 0, 0, true}, Row{0, 1, 0, true}, Row{0, 2, 0, true},
                           Row{2, 1, 3, false}, Row{1, 0, 3, true}, Row{1, 0, 2, false}, Row{2, 0, 2, false}}) {
        H0().rpFilterOfAll = row.all;
        H0().rpFilterOfIt = row.own;
        examined.diagnosis.defaultRoute = row.defaultRoute;
        const Findings findings = CheckRpFilter(examined);
        ASSERT_THAT(findings, SizeIs(1));
        EXPECT_EQ(!findings[0].ok, row.wrong) << row.all << row.own << row.defaultRoute << findings[0].evidence;
    }
    H0().rpFilterOfAll = 1;
    H0().rpFilterOfIt = 2;
    examined.diagnosis.defaultRoute = 0;
    examined.filteredPackets = 7;
    Mute(9, 0x0A090909, false).onWire = true;
    const Finding finding = ExpectWrong(CheckRpFilter);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("in force is 2, loose (all 1, h0 2"), HasSubstr("dropped 7 packets"),
                                        HasSubstr("camera 9"), HasSubstr("10.9.9.9")));
    EXPECT_EQ(finding.cure, "sudo sysctl -w net/ipv4/conf/all/rp_filter=0 net/ipv4/conf/h0/rp_filter=0");
    ExpectFine(CheckFirewall);
}

TEST_F(DoctorChecks, FirewallIsWrongWhenACameraIsSilencedAndTheCureFitsTheFirewall) {
    Mute(9, kHost + 8, true).answersDirectly = true;
    Finding finding = ExpectWrong(CheckFirewall);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("camera 9 (02:00:00:00:00:09) at 192.168.77.9"),
                                        HasSubstr("asked directly"), HasSubstr("cannot be read by this user")));
    EXPECT_EQ(finding.cure, "sudo nft insert rule inet filter input udp sport 3956 accept");
    examined.hearing.muted[0].onWire = true;
    examined.host.inputChains = {{"ip", "a", "first", false}, {"inet", "wall", "in", true}};
    finding = ExpectWrong(CheckFirewall);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("arrives on the wire"), HasSubstr("\"inet wall in\" drops")));
    EXPECT_EQ(finding.cure, "sudo nft insert rule inet wall in udp sport 3956 accept");
    examined.host.usesUfw = true;
    EXPECT_EQ(ExpectWrong(CheckFirewall).cure, "sudo ufw allow in proto udp from any port 3956");
    examined.host.usesFirewalld = true;
    EXPECT_THAT(ExpectWrong(CheckFirewall).cure, HasSubstr("firewall-cmd --permanent --add-source-port=3956/udp"));
}

TEST_F(DoctorChecks, FirewallSaysWhatCouldNotBeChecked) {
    examined.hearing.interfaces[0].seesWire = false;
    examined.hearing.interfaces[0].heard = 0;
    ExpectFine(CheckFirewall);
    EXPECT_THAT(CheckFirewall(examined)[0].evidence, HasSubstr("not ruled out"));
}

TEST_F(DoctorChecks, ForeignSubnetNamesAddressSubnetAndCommand) {
    First() = Camera(9, 0x0A090909);
    First().reachable = First().listed = First().present = false;
    Finding finding = ExpectWrong(CheckForeignSubnet);
    EXPECT_THAT(finding.evidence,
                AllOf(HasSubstr("camera 9"), HasSubstr("10.9.9.9"), HasSubstr("192.168.77.0/24"), HasSubstr("h0")));
    EXPECT_EQ(finding.cure, "nimbrel auto-ip --serial 9");
    First().record.serialNumber[0] = '\0';
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "nimbrel auto-ip");
    First().record.macHigh = 0;
    First().record.macLow = 0;
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "sudo ip route add 10.9.9.9/32 dev h0");
    H0().interface.addresses.clear();
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "sudo ip address add 192.168.100.1/24 dev h0");
}

TEST_F(DoctorChecks, ForeignSubnetKnowsACameraThatAnotherInterfaceReaches) {
    examined.diagnosis.cameras.push_back(First());
    examined.diagnosis.cameras[1].reachable = examined.diagnosis.cameras[1].listed = false;
    examined.diagnosis.cameras[1].interface = 3;
    ExpectFine(CheckForeignSubnet);
    Mute(9, 0x0A090909, false).onWire = true;
    EXPECT_THAT(ExpectWrong(CheckForeignSubnet).evidence, HasSubstr("camera 9"));
}

TEST_F(DoctorChecks, AddressConflictMovesTheCameraThatIsNotListed) {
    examined.diagnosis.cameras.insert(examined.diagnosis.cameras.begin(), Camera(4, kHost + 4));
    examined.diagnosis.cameras[0].listed = false;
    const Finding finding = ExpectWrong(CheckAddressConflict);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("camera 4"), HasSubstr("camera 5"), HasSubstr("192.168.77.5")));
    EXPECT_EQ(finding.cure, "nimbrel force-ip --mac 02:00:00:00:00:04 --ip 192.168.77.254 --mask 255.255.255.0");
}

TEST_F(DoctorChecks, AddressConflictKnowsThisComputersOwnAddress) {
    First().record.ipAddress = kHost;
    EXPECT_THAT(ExpectWrong(CheckAddressConflict).evidence, HasSubstr("this computer"));
}

TEST_F(DoctorChecks, ControlNamesWhoHoldsACamera) {
    First().control = {ControlState::Controlled, kHost + 50, 1234};
    Finding finding = ExpectWrong(CheckControl);
    EXPECT_THAT(finding.evidence,
                AllOf(HasSubstr("camera 5"), HasSubstr("192.168.77.51, port 1234: another computer")));
    EXPECT_THAT(finding.cure, HasSubstr("192.168.77.51"));
    First().control = {ControlState::Controlled, kHost, 1234};
    finding = ExpectWrong(CheckControl);
    EXPECT_THAT(finding.evidence, HasSubstr("a program on this computer"));
    EXPECT_THAT(finding.cure, HasSubstr("sport = :1234"));
    First().control = {ControlState::Exclusive, 0, 0};
    EXPECT_THAT(ExpectWrong(CheckControl).evidence, HasSubstr("held exclusively by an application"));
    for (const ControlState state : {ControlState::Ours, ControlState::Free, ControlState::Unknown}) {
        First().control = {state, 0, 0};
        ExpectFine(CheckControl);
    }
}

TEST_F(DoctorChecks, MtuMustHoldWhatCamerasSend) {
    H0().interface.mtu = 1400;
    EXPECT_EQ(ExpectWrong(CheckMtu).cure, "sudo ip link set dev h0 mtu 1500");
    H0().interface.mtu = 1500;
    First().packetSize = 8228;
    const Finding finding = ExpectWrong(CheckMtu);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("1500"), HasSubstr("camera 5"), HasSubstr("8228")));
    EXPECT_EQ(finding.cure, "sudo ip link set dev h0 mtu 9000");
    H0().interface.mtu = 9000;
    ExpectFine(CheckMtu);
}

TEST_F(DoctorChecks, ReceiveBufferIsWrongWhenItIsSmallOrHasLostSomething) {
    examined.host.largestReceiveBuffer = 212992;
    H0().receiveDrops = 3;
    const Finding finding = ExpectWrong(CheckReceiveBuffer);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("lost 3"), HasSubstr("425984"), HasSubstr("212992")));
    EXPECT_EQ(finding.cure, "sudo sysctl -w net.core.rmem_max=33554432");
    H0().receiveDrops = 0;
    ExpectFine(CheckReceiveBuffer);
    H0().receiveBuffer = 4608;
    ExpectWrong(CheckReceiveBuffer);
}

TEST(DoctorHostSettings, ReadInputChainsOfARuleset) {
    const auto chains = ParseRuleset(
        R"({"nftables": [{"metainfo": {"version": "1.0.6"}}, {"table": {"family": "inet", "name": "wall"}},
            {"chain": {"family": "inet", "table": "wall", "name": "in", "hook": "input", "policy": "drop"}},
            {"chain": {"family": "ip", "table": "nat", "name": "p", "hook": "prerouting", "policy": "accept"}},
            {"chain": {"family": "ip6", "table": "six", "name": "in", "hook": "input", "policy": "drop"}},
            {"chain": {"family": "ip", "table": "filter", "name": "INPUT", "hook": "input", "policy": "accept"}},
            {"rule": {"family": "inet"}}, 7, {"chain": "odd"}]})");
    ASSERT_TRUE(chains);
    ASSERT_THAT(*chains, SizeIs(2));
    EXPECT_EQ((*chains)[0].table, "wall");
    EXPECT_TRUE((*chains)[0].drops);
    EXPECT_EQ((*chains)[1].name, "INPUT");
    EXPECT_FALSE((*chains)[1].drops);
    for (const char* bad : {"", "7", "[]", "{", "{\"nftables\": 3}"}) EXPECT_FALSE(ParseRuleset(bad)) << bad;
}

TEST(DoctorHostSettings, ReadTheCounterOfTheReversePathFilter) {
    EXPECT_EQ(ParseFilteredPackets("TcpExt: A IPReversePathFilter B\nTcpExt: 1 42 3\nIpExt: C\nIpExt: 5\n"), 42u);
    EXPECT_EQ(ParseFilteredPackets("IpExt: C\nIpExt: 5\nTcpExt: A IPReversePathFilter\nTcpExt: 1 4\n"), 4u);
    for (const char* bad : {"", "TcpExt: IPReversePathFilter", "TcpExt: IPReversePathFilter\nTcpExt:\n",
                            "TcpExt: IPReversePathFilter\nTcpExt: x\n"}) {
        EXPECT_FALSE(ParseFilteredPackets(bad)) << bad;
    }
}

}  // namespace
}  // namespace Nimbrel2::Tool::Doctor
