// SPDX-License-Identifier: Apache-2.0
// Each check of `nimbrel doctor` on made-up diagnoses: what it fires on, what it does not, its evidence and its cure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "tools/nimbrel/doctor/CameraChecks.h"
#include "tools/nimbrel/doctor/GigEChecks.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::CameraDiagnosis;
using Platform::ControlState;
using Platform::GigEUsability;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t TestHost = 0xC0A84D01;  // 192.168.77.1

InterfaceDiagnosis Interface(int index, const std::string& name, std::uint32_t address) {
    InterfaceDiagnosis entry;
    entry.interface.index = index;
    entry.interface.name = name;
    entry.interface.up = entry.interface.running = entry.interface.broadcast = entry.used = true;
    entry.interface.mtu = 1500;
    if (address != 0) {
        entry.interface.addresses.push_back(InterfaceAddress{address, 24});
    }
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
    camera.usability = Platform::GigEUsability::Usable;
    camera.control.state = ControlState::Free;
    return camera;
}

void Disable(CameraDiagnosis& camera, GigEUsability why) {
    camera.usability = why;
    camera.listed = camera.present = false;
    camera.reachable =
        why == GigEUsability::AddressTaken || why == GigEUsability::NoAnswer || why == GigEUsability::NoRegisters;
    camera.addressTaken = why == GigEUsability::AddressTaken;
}

/// One interface, h0 192.168.77.1/24, with one camera that is all right.
class DoctorChecks : public ::testing::Test {
protected:
    DoctorChecks() {
        examined.diagnosis.interfaces.push_back(Interface(2, "h0", TestHost));
        examined.diagnosis.cameras.push_back(Camera(5, TestHost + 4));
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
        if (findings.empty()) {
            return {};
        }
        EXPECT_FALSE(findings[0].ok) << findings[0].evidence;
        EXPECT_NE(findings[0].evidence, "");
        EXPECT_NE(findings[0].cure, "");
        return findings[0];
    }

    GigEExamination examined;
};

TEST_F(DoctorChecks, FindNothingOnAHealthyComputer) {
    for (const auto check : GigEChecks()) {
        ExpectFine(check);
    }
}

TEST_F(DoctorChecks, StandEveryEmptyExamination) {
    examined = GigEExamination{};
    for (const auto check : GigEChecks()) {
        check(examined);
    }
    EXPECT_THAT(ExpectWrong(CheckInterfaces).evidence,
                HasSubstr("no network interface of this computer can carry cameras"));
    examined.status = HAL_PERMISSION;
    EXPECT_THAT(ExpectWrong(CheckDriver).evidence, HasSubstr("permission denied"));
    EXPECT_THAT(CheckInterfaces(examined), IsEmpty()) << "nothing is known of them";
    examined.status = HAL_OK;
    examined.status = HAL_OUT_OF_MEMORY;
    EXPECT_THAT(ExpectWrong(CheckDriver).cure, HasSubstr("# close programs"));
    examined.status = HAL_OK;
    examined.diagnosis.error = EMFILE;
    EXPECT_THAT(ExpectWrong(CheckDriver).cure, HasSubstr("# too many files are open"));
    examined.diagnosis.error = EPERM;
    EXPECT_THAT(ExpectWrong(CheckDriver).evidence, HasSubstr("Operation not permitted"));
    EXPECT_THAT(CheckInterfaces(examined), IsEmpty());
}

TEST_F(DoctorChecks, DriverTellsARefusedSocketAndARefusedBroadcast) {
    H0().sendError = EPERM;
    Finding finding = ExpectWrong(CheckDriver);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("h0"), HasSubstr("Operation not permitted")));
    EXPECT_THAT(finding.cure, HasSubstr("sudo nimbrel doctor --bus gige"));
    examined.host.rules.known = true;
    ExpectFine(CheckDriver);  // the firewall check names the rule
    H0().sendError = 0;
    examined.hearing.interfaces[0].error = ENETUNREACH;
    EXPECT_EQ(ExpectWrong(CheckDriver).cure, "sudo ip address add 192.168.100.1/24 dev h0");
    examined.hearing.interfaces[0].error = EMFILE;
    EXPECT_THAT(ExpectWrong(CheckDriver).evidence, HasSubstr("h0: socket refused: Too many open files"));
    EXPECT_THAT(ExpectWrong(CheckDriver).cure, HasSubstr("# too many files are open"));
    examined.hearing.interfaces.clear();
    H0().used = false;
    H0().error = EMFILE;
    H0().reason = "socket refused: Too many open files";
    EXPECT_THAT(ExpectWrong(CheckDriver).evidence, HasSubstr("h0: socket refused"));
    EXPECT_THAT(CheckInterfaces(examined), IsEmpty()) << "that is the cause";
    EXPECT_THAT(ExpectWrong(CheckDriver).cure, HasSubstr("# too many files are open"));
    H0().error = EADDRINUSE;
    EXPECT_THAT(ExpectWrong(CheckDriver).cure, HasSubstr("--source-port"));
}

TEST_F(DoctorChecks, InterfaceThatIsDownIsWrongWhenNoOtherWorks) {
    H0().used = H0().interface.up = H0().interface.running = false;
    Finding finding = ExpectWrong(CheckInterfaces);
    EXPECT_EQ(finding.check, "gige.interface");
    EXPECT_THAT(finding.evidence, HasSubstr("h0 is down"));
    EXPECT_EQ(finding.cure, "sudo ip link set dev h0 up");
    H0().interface.up = true;
    finding = ExpectWrong(CheckInterfaces);
    EXPECT_THAT(finding.evidence, HasSubstr("h0 has no link"));
    EXPECT_EQ(finding.cure, "# plug the cable of h0 in at both ends") << "no command can do that";

    examined.diagnosis.interfaces.push_back(Interface(3, "u0", 0xAC140001));
    ExpectFine(CheckInterfaces);
    EXPECT_THAT(CheckInterfaces(examined)[0].evidence, HasSubstr("h0 has no link and is not searched"));
}

TEST_F(DoctorChecks, InterfaceThatLacksSeveralThingsHasOneCureForAll) {
    H0().used = H0().interface.up = H0().interface.running = false;
    H0().interface.addresses.clear();
    examined.diagnosis.cameras.clear();
    EXPECT_EQ(ExpectWrong(CheckInterfaces).evidence,
              "h0 is down and has no IPv4 address, so no camera on it can be used");
    EXPECT_EQ(ExpectWrong(CheckInterfaces).cure,
              "sudo ip link set dev h0 up && sudo ip address add 192.168.100.1/24 dev h0");
    H0().interface.up = true;
    EXPECT_EQ(ExpectWrong(CheckInterfaces).evidence,
              "h0 has no link and no IPv4 address, so no camera on it can be used");
    EXPECT_EQ(ExpectWrong(CheckInterfaces).cure,
              "# plug the cable of h0 in at both ends, then: sudo ip address add 192.168.100.1/24 dev h0");
}

TEST_F(DoctorChecks, InterfacesWithoutAnAddressGetASubnetEach) {
    examined.diagnosis.interfaces = {Interface(2, "h0", 0), Interface(3, "u0", 0)};
    const Findings findings = CheckInterfaces(examined);
    ASSERT_THAT(findings, SizeIs(2));
    EXPECT_EQ(findings[0].cure, "sudo ip address add 192.168.100.1/24 dev h0");
    EXPECT_EQ(findings[1].cure, "sudo ip address add 192.168.101.1/24 dev u0");
}

TEST_F(DoctorChecks, InterfaceThatCanHaveNoCameraIsNeverNamed) {
    H0().used = H0().interface.running = false;
    examined.diagnosis.interfaces.push_back(Interface(3, "docker0", 0xAC110001));
    examined.diagnosis.interfaces[1].used = examined.diagnosis.interfaces[1].interface.running = false;
    EXPECT_THAT(CheckInterfaces(examined), SizeIs(2));
    examined.host.cameraless = {"docker0"};
    EXPECT_THAT(ExpectWrong(CheckInterfaces).evidence, HasSubstr("h0 has no link"));
}

TEST_F(DoctorChecks, InterfaceWithALinkAndNoAddressIsWrongUnlessOthersAreBuiltUponIt) {
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
    examined.diagnosis.interfaces[1].interface.portOf.clear();
    examined.host.carriers = {"u0"};  // the parent of a macvlan or a VLAN
    ExpectFine(CheckInterfaces);
}

TEST_F(DoctorChecks, CommandsQuoteNamesForTheShell) {
    H0().interface.name = "h0;reboot";
    H0().interface.addresses.clear();
    EXPECT_EQ(ExpectWrong(CheckInterfaces).cure, "sudo ip address add 192.168.100.1/24 dev 'h0;reboot'");
}

TEST_F(DoctorChecks, SubnetOverlapIsWrongOnlyWhereTheFilterDropsWhatCamerasSend) {
    examined.diagnosis.interfaces.push_back(Interface(3, "u0", TestHost + 1));
    ExpectFine(CheckSubnetOverlap);
    EXPECT_THAT(CheckSubnetOverlap(examined)[0].evidence,
                HasSubstr("h0 192.168.77.1/24 and u0 192.168.77.2/24 are in one subnet"));
    examined.filters[3].ofOwnSubnet = true;
    const Finding finding = ExpectWrong(CheckSubnetOverlap);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("u0"), HasSubstr("reverse path filter")));
    EXPECT_EQ(finding.cure, "sudo sysctl -w net/ipv4/conf/u0/rp_filter=2");
    examined.diagnosis.interfaces.pop_back();
    EXPECT_EQ(CheckSubnetOverlap(examined)[0].evidence, "one interface in use");
}

TEST_F(DoctorChecks, RpFilterIsWrongOnlyWhenItHasDroppedSomethingThatNobodySaw) {
    examined.hearing.interfaces[0].seesWire = false;
    H0().rpFilterOfAll = 2;
    examined.filters[2].ofUnknownSubnets = true;
    examined.filteredPackets = 0;
    ExpectFine(CheckRpFilter);  // 2 is the default of many systems
    EXPECT_THAT(CheckRpFilter(examined)[0].evidence,
                HasSubstr("would hide a camera on another subnet; nothing was dropped"));
    examined.filteredPackets = 7;
    H0().rpFilterOfIt = 1;
    Finding finding = ExpectWrong(CheckRpFilter);
    EXPECT_THAT(finding.evidence,
                AllOf(HasSubstr("h0: reverse path filter 2 (loose; all 2, h0 1)"), HasSubstr("dropped 7 packets")));
    EXPECT_EQ(finding.cure, "sudo sysctl -w net/ipv4/conf/all/rp_filter=0 net/ipv4/conf/h0/rp_filter=0");
    examined.hearing.interfaces[0].seesWire = true;
    ExpectFine(CheckRpFilter);  // the camera is known, and the finding is its address
    examined.hearing.interfaces[0].seesWire = false;
    examined.filters[2].ofUnknownSubnets = false;
    ExpectFine(CheckRpFilter);
}

TEST_F(DoctorChecks, RpFilterNeedOnlyBeLooseWhereThereIsADefaultRoute) {
    examined.hearing.interfaces[0].seesWire = false;
    H0().rpFilterOfAll = 1;
    examined.filters[2].ofUnknownSubnets = true;
    examined.filteredPackets = 1;
    examined.diagnosis.defaultRoute = 3;
    EXPECT_EQ(ExpectWrong(CheckRpFilter).cure, "sudo sysctl -w net/ipv4/conf/h0/rp_filter=2");
}

// A chain at a hook with one rule that drops every packet, or such a policy.
Chain DroppingChain(RuleTool tool, const std::string& table, const std::string& name, const std::string& hook) {
    Chain chain;
    chain.tool = tool;
    chain.family = "inet";
    chain.table = table;
    chain.name = name;
    chain.hook = hook;
    chain.dropsByPolicy = true;
    return chain;
}

TEST_F(DoctorChecks, FirewallHasOneFindingForEachChainThatDropsWithARuleForThatChain) {
    examined.host.rules.known = true;
    ExpectFine(CheckFirewall);
    examined.host.rules.chains = {DroppingChain(RuleTool::Nft, "wall", "entry", "input"),
                                  DroppingChain(RuleTool::Nft, "wall2", "early", "prerouting"),
                                  DroppingChain(RuleTool::IptablesLegacy, "filter", "OUTPUT", "output"),
                                  DroppingChain(RuleTool::Nft, "wall", "passing", "forward")};
    Mute(9, TestHost + 8, true).onWire = true;
    const Findings findings = CheckFirewall(examined);
    ASSERT_THAT(findings, SizeIs(3)) << "two for what comes in, one for what goes out";
    const auto with = [&findings](const std::string& chain) {
        const auto found = std::find_if(findings.begin(), findings.end(),
                                        [&](const Finding& f) { return f.evidence.find(chain) != std::string::npos; });
        return found == findings.end() ? Finding{} : *found;
    };
    EXPECT_EQ(with("inet wall entry").cure,
              "sudo nft insert rule inet wall entry iifname '\"h0\"' udp sport 3956 accept");
    EXPECT_THAT(with("inet wall entry").evidence,
                AllOf(HasSubstr("by its policy"),
                      HasSubstr("camera 9 (02:00:00:00:00:09) at 192.168.77.9 (seen on the wire)")));
    EXPECT_EQ(with("inet wall2 early").cure,
              "sudo nft insert rule inet wall2 early iifname '\"h0\"' udp sport 3956 accept");
    EXPECT_EQ(with("iptables-legacy chain OUTPUT").cure,
              "sudo iptables-legacy -w -t filter -I OUTPUT 1 -o h0 -p udp --dport 3956 -j ACCEPT");
}

TEST_F(DoctorChecks, FirewallWithoutKnownRulesIsWrongOnlyWhenACameraIsSilenced) {
    ExpectFine(CheckFirewall);
    Mute(9, TestHost + 8, true).answersDirectly = true;
    Finding finding = ExpectWrong(CheckFirewall);
    EXPECT_THAT(finding.evidence,
                AllOf(HasSubstr("camera 9 (02:00:00:00:00:09) at 192.168.77.9 (answers when asked directly)"),
                      HasSubstr("only root may see which rule drops them")));
    EXPECT_EQ(finding.cure, "# root sees which rule: sudo nimbrel doctor --interface h0");
    examined.host.rules.known = true;
    finding = ExpectWrong(CheckFirewall);
    EXPECT_THAT(finding.evidence, HasSubstr("no rule of nftables or iptables drops them"));
    EXPECT_THAT(finding.cure, HasSubstr("# look for a filter"));
}

TEST_F(DoctorChecks, FirewallIsNotBlamedForWhatOthersDrop) {
    examined.host.rules.known = true;
    Mute(9, 0, false).onWire = true;
    ExpectFine(CheckFirewall);  // the kernel itself drops packets from 0.0.0.0
    EXPECT_THAT(ExpectWrong(CheckForeignSubnet).evidence, HasSubstr("camera 9 (02:00:00:00:00:09) has no address yet"));
    examined.hearing.muted.clear();
    Mute(9, 0x0A090909, false).onWire = true;
    examined.filters[2].ofUnknownSubnets = true;
    ExpectFine(CheckFirewall);  // that was the reverse path filter
}

TEST_F(DoctorChecks, FirewallSaysWhatCouldNotBeChecked) {
    examined.hearing.interfaces[0].seesWire = false;
    examined.hearing.interfaces[0].heard = 0;
    ExpectFine(CheckFirewall);
    EXPECT_THAT(CheckFirewall(examined)[0].evidence,
                AllOf(HasSubstr("root can see more"), HasSubstr("only root may see the rules")));
}

TEST_F(DoctorChecks, ForeignSubnetNamesAddressSubnetAndCommand) {
    First() = Camera(9, 0x0A090909);
    Disable(First(), GigEUsability::OtherSubnet);
    Finding finding = ExpectWrong(CheckForeignSubnet);
    EXPECT_EQ(finding.evidence,
              "camera 9 (02:00:00:00:00:09) has the address 10.9.9.9 and is connected to h0, which is on "
              "192.168.77.0/24, so it cannot be used");
    EXPECT_EQ(finding.cure, "nimbrel auto-ip --serial 9");
    First().record.serialNumber[0] = '\0';
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "nimbrel auto-ip") << "no number names it";
    First().record.macHigh = 0;
    First().record.macLow = 0;
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "sudo ip route add 10.9.9.9/32 dev h0");
    H0().interface.addresses.clear();
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "sudo ip address add 192.168.100.1/24 dev h0");
}

TEST_F(DoctorChecks, ForeignSubnetKnowsCamerasWithoutAnAddressAndWithOneThatNoHostCanHave) {
    First() = Camera(9, 0);
    Disable(First(), GigEUsability::NoAddress);
    Finding finding = ExpectWrong(CheckForeignSubnet);
    EXPECT_THAT(finding.evidence, HasSubstr("camera 9 (02:00:00:00:00:09) has no address yet and is connected to h0"));
    EXPECT_EQ(finding.cure, "nimbrel auto-ip --serial 9");
    First() = Camera(9, 0xE0000001);
    Disable(First(), GigEUsability::InvalidAddress);
    finding = ExpectWrong(CheckForeignSubnet);
    EXPECT_THAT(finding.evidence, HasSubstr("has the address 224.0.0.1, which no host can have, and is"));
    EXPECT_EQ(finding.cure, "nimbrel auto-ip --serial 9");
    for (const auto check : GigEChecks()) {
        if (check == CheckForeignSubnet) {
            continue;
        }
        EXPECT_THAT(check(examined), ::testing::Each(::testing::Field(&Finding::ok, true)));
    }
}

TEST_F(DoctorChecks, ForeignSubnetKnowsACameraThatAnotherInterfaceReaches) {
    examined.diagnosis.cameras.push_back(First());
    Disable(examined.diagnosis.cameras[1], GigEUsability::OtherSubnet);
    examined.diagnosis.cameras[1].interface = 3;
    ExpectFine(CheckForeignSubnet);
    Mute(9, 0x0A090909, false).onWire = true;
    EXPECT_THAT(ExpectWrong(CheckForeignSubnet).evidence, HasSubstr("camera 9"));
}

TEST_F(DoctorChecks, ForeignSubnetNamesNoCameraByASerialNumberThatAnotherHasToo) {
    examined.diagnosis.cameras.push_back(Camera(9, 0x0A090909));
    Disable(examined.diagnosis.cameras[1], GigEUsability::OtherSubnet);
    examined.diagnosis.cameras[1].record.serialNumber[0] = '5';  // that of the one that is all right
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "nimbrel auto-ip");
    examined.diagnosis.cameras[1].record.serialNumber[0] = '9';
    Mute(8, 0x0A090908, false).record.serialNumber[0] = '9';
    const Findings findings = CheckForeignSubnet(examined);
    ASSERT_THAT(findings, SizeIs(2));
    EXPECT_EQ(findings[0].cure, "nimbrel auto-ip");
    EXPECT_EQ(findings[1].cure, "nimbrel auto-ip");
}

TEST_F(DoctorChecks, InterfaceWhoseMaskLeavesNoRoomIsTheOneFindingOfItsCameras) {
    H0().interface.addresses[0].prefixLength = 32;
    Disable(First(), GigEUsability::OtherSubnet);
    const Finding finding = ExpectWrong(CheckInterfaces);
    EXPECT_EQ(finding.evidence,
              "h0 has the address 192.168.77.1/32, a subnet without room for a camera, so no camera on it can be used");
    EXPECT_EQ(finding.cure,
              "sudo ip address add 192.168.77.1/24 dev h0 && sudo ip address delete 192.168.77.1/32 dev h0");
    ExpectFine(CheckForeignSubnet);
    First().record.ipAddress = 0x0A090909;
    EXPECT_EQ(ExpectWrong(CheckForeignSubnet).cure, "nimbrel auto-ip --serial 5") << "that is another cause";

    examined.diagnosis.cameras.clear();
    ExpectWrong(CheckInterfaces);  // nothing else works
    examined.diagnosis.interfaces.push_back(Interface(3, "u0", 0xAC140001));
    ExpectFine(CheckInterfaces);  // nobody may want cameras there
    H0().interface.addresses.push_back(InterfaceAddress{0x0A000001, 24});
    examined.diagnosis.cameras.push_back(Camera(5, 0x0A000005));
    ExpectFine(CheckInterfaces);  // an address more does no harm
}

TEST_F(DoctorChecks, ControlSaysWhyItIsNotKnownWhoHoldsACamera) {
    First().control.state = ControlState::Controlled;
    EXPECT_THAT(ExpectWrong(CheckControl).evidence, HasSubstr("by an application that it does not name"));
    First().control.status = HAL_TIMED_OUT;
    EXPECT_THAT(ExpectWrong(CheckControl).evidence,
                HasSubstr("by an application that it did not name: no answer in time"));
    First().control.state = ControlState::Unknown;
    const Findings unknown = CheckControl(examined);
    ASSERT_THAT(unknown, SizeIs(1));
    EXPECT_EQ(unknown[0].evidence, "camera 5 (02:00:00:00:00:05) did not say whether it is in use: no answer in time");
}

TEST_F(DoctorChecks, AddressConflictMovesTheCameraThatIsNotListed) {
    examined.diagnosis.cameras.insert(examined.diagnosis.cameras.begin(), Camera(4, TestHost + 4));
    Disable(examined.diagnosis.cameras[0], GigEUsability::AddressTaken);
    const Finding finding = ExpectWrong(CheckAddressConflict);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("camera 4"), HasSubstr("camera 5"), HasSubstr("192.168.77.5")));
    EXPECT_EQ(finding.cure, "nimbrel auto-ip --serial 4");
    examined.diagnosis.cameras.push_back(Camera(6, TestHost + 4));
    Disable(examined.diagnosis.cameras[2], GigEUsability::AddressTaken);
    EXPECT_EQ(ExpectWrong(CheckAddressConflict).cure, "nimbrel auto-ip") << "two must move";
}

TEST_F(DoctorChecks, AddressConflictKnowsThisComputersOwnAddress) {
    First().record.ipAddress = TestHost;
    EXPECT_THAT(ExpectWrong(CheckAddressConflict).evidence, HasSubstr("this computer"));
    EXPECT_EQ(CheckAddressConflict(examined)[0].cure, "# give one of them another address");
    Disable(First(), GigEUsability::AddressTaken);
    EXPECT_EQ(ExpectWrong(CheckAddressConflict).cure, "nimbrel auto-ip --serial 5");
}

TEST_F(DoctorChecks, NoAnswerIsTheFindingOfACameraThatNoOtherCheckExplains) {
    ExpectFine(CheckNoAnswer);
    Disable(First(), GigEUsability::NoRegisters);
    EXPECT_THAT(ExpectWrong(CheckNoAnswer).evidence, HasSubstr("but its registers do not answer"));
    Disable(First(), GigEUsability::NoAnswer);
    EXPECT_EQ(ExpectWrong(CheckNoAnswer).cure, "# power the camera off and on again");
    Disable(First(), GigEUsability::OutsideItsSubnet);
    First().record.subnetMask = 0xFFFFFFFC;  // .4 to .7, without .1
    const Finding finding = ExpectWrong(CheckNoAnswer);
    EXPECT_THAT(finding.evidence,
                HasSubstr("its subnet mask 255.255.255.252 leaves this computer out, and it has no gateway"));
    EXPECT_EQ(finding.cure, "nimbrel force-ip --mac 02:00:00:00:00:05 --ip 192.168.77.5/24");
    examined.host.rules = {{DroppingChain(RuleTool::Nft, "wall", "exit", "output")}, true};
    EXPECT_THAT(ExpectWrong(CheckNoAnswer).evidence, HasSubstr("subnet mask")) << "no firewall makes that";
    Disable(First(), GigEUsability::NoAnswer);
    ExpectFine(CheckNoAnswer);
    EXPECT_THAT(CheckFirewall(examined)[0].evidence,
                HasSubstr("no answer from camera 5 (02:00:00:00:00:05) at 192.168.77.5"));
}

TEST_F(DoctorChecks, ControlNamesWhoHoldsACameraAndIsWrongOnlyWhenThatIsNotThisComputer) {
    First().control = {ControlState::Controlled, TestHost + 50, 1234};
    Finding finding = ExpectWrong(CheckControl);
    EXPECT_THAT(finding.evidence,
                AllOf(HasSubstr("camera 5"), HasSubstr("192.168.77.51, port 1234, which is another computer")));
    EXPECT_EQ(finding.cure, "# end the program on 192.168.77.51 that uses UDP port 1234");
    First().control = {ControlState::Exclusive, 0, 0};
    EXPECT_THAT(ExpectWrong(CheckControl).evidence,
                HasSubstr("in use exclusively by an application that it does not name"));
    First().control = {ControlState::Controlled, TestHost, 1234};
    ExpectFine(CheckControl);
    EXPECT_THAT(CheckControl(examined)[0].evidence, HasSubstr("in use by a program on this computer, UDP port 1234"));
    for (const ControlState state : {ControlState::Ours, ControlState::Free, ControlState::Unknown}) {
        First().control = {state, 0, 0};
        ExpectFine(CheckControl);
    }
}

TEST_F(DoctorChecks, MtuMustHoldWhatCamerasSendAndNothingElse) {
    H0().interface.mtu = 1400;
    ExpectFine(CheckMtu);
    First().packetSize = 1500;
    EXPECT_EQ(ExpectWrong(CheckMtu).cure, "sudo ip link set dev h0 mtu 1500");
    H0().interface.mtu = 1500;
    ExpectFine(CheckMtu);
    First().packetSize = 8228;
    const Finding finding = ExpectWrong(CheckMtu);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("1500"), HasSubstr("camera 5"), HasSubstr("8228")));
    EXPECT_EQ(finding.cure, "sudo ip link set dev h0 mtu 9000");
    H0().interface.mtu = 9000;
    ExpectFine(CheckMtu);
}

TEST_F(DoctorChecks, ReceiveBufferIsWrongOnlyWhenItHasLostSomething) {
    examined.host.largestReceiveBuffer = 212992;
    H0().receiveDrops = 3;
    const Finding finding = ExpectWrong(CheckReceiveBuffer);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("lost 3 datagrams"), HasSubstr("425984")));
    EXPECT_EQ(finding.cure, "sudo sysctl -w net.core.rmem_max=33554432");
    H0().receiveBuffer = 8388608;  // all that it asks for: a larger limit gives it no more
    EXPECT_THAT(ExpectWrong(CheckReceiveBuffer).cure, HasSubstr("# this computer is too busy"));
    H0().receiveBuffer = 425984;
    examined.host.largestReceiveBuffer = 33554432;
    EXPECT_THAT(ExpectWrong(CheckReceiveBuffer).cure, HasSubstr("# this computer is too busy"));
    H0().receiveDrops = 0;
    H0().receiveBuffer = 4608;
    ExpectFine(CheckReceiveBuffer);
}

// ---- Cameras that look alike ---------------------------------------------------------------------------------------

Tool::Camera UsbCamera(unsigned int index, std::uint32_t serial, std::uint32_t guid, const std::string& location) {
    Tool::Camera camera;
    camera.index = index;
    camera.serialNumber = serial;
    camera.guid = ZevoGuid{{guid, 0, 0, 0}};
    camera.interfaceType = INTERFACE_USB_3;
    camera.location = location;
    return camera;
}

TEST(DoctorCameraChecks, FindCamerasThatCannotBeToldApart) {
    EXPECT_THAT(CheckGuids({}), IsEmpty());
    std::vector<Tool::Camera> cameras{UsbCamera(0, 17, 1, "xhci0 port 1"), UsbCamera(1, 18, 2, "xhci0 port 2")};
    EXPECT_TRUE(CheckGuids(cameras).at(0).ok);
    EXPECT_THAT(CheckSerialNumbers(cameras), IsEmpty());
    cameras.push_back(UsbCamera(2, 17, 1, "xhci0 port 3"));
    const Findings findings = CheckGuids(cameras);
    ASSERT_THAT(findings, SizeIs(1));
    EXPECT_FALSE(findings[0].ok);
    EXPECT_EQ(findings[0].check, "cameras.guid");
    EXPECT_THAT(findings[0].evidence, HasSubstr("USB 3, xhci0 port 1 (index 0) and USB 3, xhci0 port 3 (index 2)"));
}

TEST(DoctorCameraChecks, RemarkUponSharedSerialNumbers) {
    const Findings findings =
        CheckSerialNumbers({UsbCamera(0, 17, 1, "xhci0 port 1"), UsbCamera(1, 17, 2, "xhci0 port 2")});
    ASSERT_THAT(findings, SizeIs(1));
    EXPECT_TRUE(findings[0].ok) << "guid: still names each";
    EXPECT_THAT(findings[0].evidence,
                HasSubstr("2 cameras have the serial number 17, so commands need guid: or mac: for them"));
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
