// SPDX-License-Identifier: Apache-2.0
// Each check of IEEE 1394 on simulated buses and made-up diagnoses: what it fires on, what it does not, its evidence
// and its cure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "platform/rig/FireWireModel.h"
#include "tools/nimbrel/UnseenFireWire.h"
#include "tools/nimbrel/doctor/FireWireChecks.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::FireWireBusDescription;
using Platform::FireWireBusDiagnosis;
using Platform::FireWireDiagnosis;
using Platform::FireWireModel;
using Platform::FireWirePhy;
using Platform::PhyDescription;
using Platform::PhyKind;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;
using namespace std::chrono_literals;

/// This computer's controller, on it a hub with two cameras. Nothing is wrong with it.
FireWireBusDescription Description() {
    FireWireBusDescription bus;
    bus.name = "/devices/pci0000:00/0000:06:01.0";
    bus.gapCount = 7;
    const auto add = [&bus](const char* name, PhyKind kind, unsigned int ports, std::uint64_t eui64) {
        PhyDescription phy;
        phy.name = name;
        phy.kind = kind;
        phy.ports = ports;
        phy.eui64 = eui64;
        phy.contender = kind == PhyKind::Card;
        if (kind == PhyKind::Camera) {
            phy.vendor = "Acme";
            phy.model = "Zoom";
        }
        bus.phys.push_back(phy);
    };
    add("card", PhyKind::Card, 3, 1);
    add("hub", PhyKind::Repeater, 6, 0);
    add("left", PhyKind::Camera, 1, 0x0011880000031001);
    add("right", PhyKind::Camera, 1, 0x0011880000031002);
    const auto cable = [&bus](const char* first, unsigned int port, const char* second) {
        bus.cables.push_back({{{{first, port}, {second, 0}}}});
    };
    cable("card", 1, "hub");
    cable("hub", 1, "left");
    cable("hub", 2, "right");
    return bus;
}

// left 0, right 1, hub 2, card 3.
class FireWireChecksOf : public ::testing::Test {
protected:
    FireWireChecksOf() { Describe(Description()); }

    void Describe(const FireWireBusDescription& description) {
        examined.diagnosis = {};
        examined.diagnosis.driverLoaded = true;
        FireWireModel model(description, 0);
        // The controller holds back from now on, so that it and not the hub becomes the root.
        bool resetAsked = false;
        EXPECT_EQ(model.WritePhy(1, 0, 0, 1, 0x80 | description.gapCount, &resetAsked), HAL_OK);
        model.Reset("card");
        examined.diagnosis.buses.push_back(model.Diagnose());
        Bus().watched = 5s;
    }

    FireWireBusDiagnosis& Bus() { return examined.diagnosis.buses.front(); }
    FireWirePhy& Phy(unsigned int phyId) { return Bus().phys.at(phyId); }

    FireWireExamination examined;
};

/// One finding that something is wrong, whose evidence and cure hold these texts.
MATCHER_P2(IsOneWrong, evidence, cure, "") {
    if (arg.size() != 1 || arg[0].ok) {
        return false;
    }
    *result_listener << arg[0].evidence << " | " << arg[0].cure;
    return arg[0].evidence.find(evidence) != std::string::npos && arg[0].cure.find(cure) != std::string::npos;
}

/// One finding that all is well, whose evidence holds that text.
MATCHER_P(IsOneFine, evidence, "") {
    if (arg.size() != 1 || !arg[0].ok || !arg[0].cure.empty()) {
        return false;
    }
    *result_listener << arg[0].evidence;
    return arg[0].evidence.find(evidence) != std::string::npos;
}

TEST_F(FireWireChecksOf, AHealthyBusFindNothingWrongAndSayWhatTheyMeasured) {
    for (const auto check : FireWireChecks()) {
        for (const Finding& finding : check(examined)) {
            EXPECT_TRUE(finding.ok) << finding.check << ": " << finding.evidence;
            EXPECT_NE(finding.evidence, "") << finding.check;
            EXPECT_EQ(finding.cure, "") << finding.check;
            EXPECT_THAT(finding.check, StartsWith("1394."));
        }
    }
    EXPECT_THAT(CheckFireWireDriver(examined), IsOneFine("bus 0 (0000:06:01.0) has 2 cameras and 0 other devices"));
    EXPECT_THAT(CheckFireWirePermission(examined), IsOneFine("3 files are open"));
    EXPECT_THAT(CheckFireWireAnswers(examined), IsOneFine("2 cameras answer"));
    EXPECT_THAT(CheckFireWireResets(examined), IsOneFine("0 bus resets in 5 s"));
    EXPECT_THAT(CheckFireWireGapCount(examined), IsOneFine("the gap count is 7 for 2 hops"));
    EXPECT_THAT(CheckFireWireManager(examined), IsOneFine("managed by this computer's controller"));
    EXPECT_THAT(CheckFireWireSpeed(examined), IsOneFine("camera 200705 (Acme Zoom) transmits at up to S400"));
    EXPECT_THAT(CheckFireWirePower(examined), IsEmpty()) << "nothing takes power";
}

TEST_F(FireWireChecksOf, AComputerWithoutFireWireAreSilentButForOneLine) {
    examined.diagnosis = {};
    EXPECT_THAT(CheckFireWireDriver(examined), IsOneFine("this computer has no IEEE 1394 controller"));
    for (const auto check : FireWireChecks()) {
        if (check != &CheckFireWireDriver) {
            EXPECT_THAT(check(examined), IsEmpty());
        }
    }
}

TEST_F(FireWireChecksOf, AControllerWithoutItsModuleNameIt) {
    examined.diagnosis = {};
    examined.diagnosis.idleControllers = {"0000:07:01.0", "0000:08:01.0"};
    const Findings findings = CheckFireWireDriver(examined);
    ASSERT_THAT(findings, SizeIs(2));
    EXPECT_FALSE(findings[0].ok);
    EXPECT_THAT(findings[0].evidence, HasSubstr("0000:07:01.0"));
    EXPECT_THAT(findings[1].evidence, HasSubstr("0000:08:01.0"));
    EXPECT_EQ(findings[0].cure, "sudo modprobe firewire-ohci");
}

TEST_F(FireWireChecksOf, ADriverThatCannotLookSayWhy) {
    examined.status = HAL_PERMISSION;
    examined.diagnosis = {};
    EXPECT_THAT(CheckFireWireDriver(examined), IsOneWrong("permission denied", "sudo nimbrel doctor"));
}

TEST_F(FireWireChecksOf, ABusThatNobodyDrivesSayNothing) {
    examined.status = HAL_NO_BUS;
    examined.diagnosis = {};
    for (const auto check : FireWireChecks()) {
        EXPECT_THAT(check(examined), IsEmpty());
    }
}

// ---- Permission ----------------------------------------------------------------------------------------------------

TEST_F(FireWireChecksOf, AFileThatMayNotBeOpenedBringTheRuleAndTheGroup) {
    Bus().nodes[0].error = EACCES;
    Bus().nodes[0].name = "fw0";
    examined.user = "ann";
    examined.rule.installed = "/opt/share/nimbrel2/udev/70-nimbrel2-firewire.rules";
    const Findings findings = CheckFireWirePermission(examined);
    ASSERT_THAT(findings,
                IsOneWrong("/dev/fw0 of this computer's controller cannot be opened, so nobody sees how the bus "
                           "is connected",
                           "usermod -aG video ann"));
    EXPECT_THAT(findings[0].evidence, HasSubstr("70-nimbrel2-firewire.rules is not there"));
    EXPECT_THAT(findings[0].cure,
                AllOf(HasSubstr("sudo cp /opt/share/nimbrel2/udev/70-nimbrel2-firewire.rules /etc/udev/rules.d/"),
                      HasSubstr("udevadm trigger --action=add --subsystem-match=firewire")));
}

TEST_F(FireWireChecksOf, AFileThatMayNotBeOpenedThoughTheRuleIsThereBringTheGroupAlone) {
    Bus().nodes[1].error = EPERM;
    examined.rule.isInForce = true;
    const Findings findings = CheckFireWirePermission(examined);
    ASSERT_THAT(findings, IsOneWrong("camera 200705", "usermod -aG video \"$USER\""));
    EXPECT_THAT(findings[0].cure, Not(HasSubstr("udevadm")));
    EXPECT_THAT(findings[0].evidence, HasSubstr("70-nimbrel2-firewire.rules is there"));
}

TEST_F(FireWireChecksOf, AFileThatCannotBeOpenedForAnotherReasonSayWhichOne) {
    Bus().nodes[1].error = EMFILE;
    Bus().nodes[1].name = "fw3";
    EXPECT_THAT(CheckFireWirePermission(examined), IsOneWrong("Too many open files", "ls -l /dev/fw3"));
}

// No rule gives users the files of disks.
TEST_F(FireWireChecksOf, AFileOfADeviceThatIsNoCameraMayStayRoots) {
    Bus().nodes[2].camera = false;
    Bus().nodes[2].error = EACCES;
    EXPECT_THAT(CheckFireWirePermission(examined), IsOneFine("2 files are open, all that it takes"));
}

// ---- The bus -------------------------------------------------------------------------------------------------------

TEST_F(FireWireChecksOf, ACameraThatDoesNotAnswerNameIt) {
    Bus().nodes[2].mute = true;
    EXPECT_THAT(CheckFireWireAnswers(examined), IsOneWrong("camera 200706", "nimbrel reset 200705"));
}

TEST_F(FireWireChecksOf, ABusThatNobodyManagesSayWhatIsMissing) {
    Bus().busManager.reset();
    EXPECT_THAT(CheckFireWireManager(examined), IsOneWrong("no node is the bus manager", "nimbrel reset 200705"));
    Bus().resourceManager.reset();
    EXPECT_THAT(CheckFireWireManager(examined),
                IsOneWrong("no node gives out channels and bandwidth", "nimbrel reset"));
}

TEST_F(FireWireChecksOf, ABusWithoutCycleMasterSayThatNoCameraCanTransmit) {
    Bus().hasCycleMaster = false;
    EXPECT_THAT(CheckFireWireManager(examined),
                IsOneWrong("the root, this computer's controller, sends no cycle starts", "nimbrel reset"));
    Bus().hasCycleMaster.reset();
    EXPECT_THAT(CheckFireWireManager(examined), IsOneFine("managed by")) << "nobody could ask";
    Phy(3).linkActive = false;
    EXPECT_THAT(CheckFireWireManager(examined), IsOneWrong("has no link to send cycle starts with", "nimbrel reset"));
}

TEST_F(FireWireChecksOf, ABusWithoutCamerasLeaveItsManagersAlone) {
    for (auto& node : Bus().nodes) {
        node.camera = false;
    }
    Bus().busManager.reset();
    EXPECT_THAT(CheckFireWireManager(examined), IsEmpty());
}

TEST_F(FireWireChecksOf, AShortBusWithAGapCountOf63SayWhatSuffices) {
    FireWireBusDescription description = Description();
    description.gapCount = 63;
    Describe(description);
    EXPECT_THAT(CheckFireWireGapCount(examined),
                IsOneWrong("the gap count is 63 for 2 hops, where 7 suffices", "nimbrel reset 200705"));
}

TEST_F(FireWireChecksOf, ABusOfBetaPhysMayHaveAGapCountOf63) {
    FireWireBusDescription description = Description();
    description.gapCount = 63;
    description.phys[1].speed = 3;
    Describe(description);
    EXPECT_THAT(CheckFireWireGapCount(examined), IsOneFine("63"));
}

TEST_F(FireWireChecksOf, ABusWhoseGapCountsDifferNameTwoPhysThatDo) {
    Phy(2).gapCount = 63;
    EXPECT_THAT(CheckFireWireGapCount(examined),
                IsOneWrong("camera 200705 (Acme Zoom) has 7 and the hub that is PHY 2 has 63", "nimbrel reset 200705"));
}

TEST_F(FireWireChecksOf, ACameraBehindASlowerHubNameTheHub) {
    Phy(2).speed = 1;
    const Findings findings = CheckFireWireSpeed(examined);
    ASSERT_THAT(findings, SizeIs(2));
    EXPECT_FALSE(findings[0].ok);
    EXPECT_THAT(findings[0].evidence,
                HasSubstr("camera 200705 (Acme Zoom) can do S400, but the hub that is PHY 2 before it only S200"));
    EXPECT_THAT(findings[0].cure, HasSubstr("# connect the camera past the hub that is PHY 2"));
}

TEST_F(FireWireChecksOf, ACameraAboveTheControllersSpeedNameTheController) {
    Phy(3).speed = 0;
    const Findings findings = CheckFireWireSpeed(examined);
    ASSERT_THAT(findings, SizeIs(2));
    EXPECT_THAT(findings[0].evidence, HasSubstr("this computer's controller before it only S100"));
    EXPECT_EQ(findings[0].cure, "# put a faster controller in");
}

TEST_F(FireWireChecksOf, ASlowCameraBehindAFastHubFindNothing) {
    Phy(0).speed = 0;
    EXPECT_THAT(CheckFireWireSpeed(examined), IsOneFine("camera 200705 (Acme Zoom) transmits at up to S100"));
}

TEST_F(FireWireChecksOf, ABusThatFeedsLessThanIsTakenCountTheWatts) {
    Phy(3).powerClass = 1;  // provides 15 W
    Phy(0).powerClass = 7;  // takes up to 10 W
    EXPECT_THAT(CheckFireWirePower(examined), IsOneFine("take up to 10 W from the bus, and others provide 15 W"));
    Phy(1).powerClass = 6;  // 6 W
    EXPECT_THAT(CheckFireWirePower(examined),
                IsOneWrong("take up to 16 W from the bus, and others provide 15 W", "# give the devices supplies"));
}

TEST_F(FireWireChecksOf, ADeviceThatIsOffOnABusThatNobodyFeedsNameIt) {
    Phy(1).powerClass = 4;
    EXPECT_THAT(CheckFireWirePower(examined), IsOneFine("none says that it feeds the bus"))
        << "many controllers feed it without a word";
    Phy(1).linkActive = false;
    EXPECT_THAT(CheckFireWirePower(examined), IsOneWrong("off: camera 200706", "# give the devices supplies"));
}

// ---- Resets --------------------------------------------------------------------------------------------------------

TEST_F(FireWireChecksOf, ABusThatResetsAgainAndAgainSayHowOftenAndNameThePort) {
    Bus().resets = 9;
    Bus().watched = 60s;
    Bus().portChanges = {{2, 2, 8}};
    EXPECT_THAT(
        CheckFireWireResets(examined),
        IsOneWrong("9 bus resets in 60 s; what is connected to port 2 of the hub that is PHY 2 came or went 8 times",
                   "# replace the cable in port 2 of the hub that is PHY 2"));
    Bus().portChanges.clear();
    EXPECT_THAT(CheckFireWireResets(examined), IsOneWrong("9 bus resets in 60 s", "# replace the cables of the bus"));
}

TEST_F(FireWireChecksOf, ABusThatWasResetByOneCableFindNothing) {
    Bus().resets = 2;
    EXPECT_THAT(CheckFireWireResets(examined), IsOneFine("2 bus resets in 5 s"));
    Bus().resets = 3;
    EXPECT_THAT(CheckFireWireResets(examined), IsOneWrong("3 bus resets", "# replace"));
}

TEST_F(FireWireChecksOf, ABusWhoseResetsNobodySeesSayNothingOfThem) {
    Bus().seesResets = false;
    EXPECT_THAT(CheckFireWireResets(examined), IsEmpty());
}

TEST_F(FireWireChecksOf, AQuietBusWatchItForSecondsAndAnotherOneUntilItIsPlain) {
    const FireWireDiagnosis& diagnosis = examined.diagnosis;
    EXPECT_FALSE(IsWatchedLongEnough(diagnosis, 4s));
    EXPECT_TRUE(IsWatchedLongEnough(diagnosis, 5s));
    Bus().resets = 1;
    EXPECT_FALSE(IsWatchedLongEnough(diagnosis, 59s));
    EXPECT_TRUE(IsWatchedLongEnough(diagnosis, 60s));
    Bus().resets = 3;
    EXPECT_TRUE(IsWatchedLongEnough(diagnosis, 5s));
    Bus().resets = 0;
    Bus().seesResets = false;
    EXPECT_TRUE(IsWatchedLongEnough(diagnosis, 0s)) << "there is nothing to watch";
}

// ---- What watch and topology cannot show ---------------------------------------------------------------------------

TEST_F(FireWireChecksOf, ABusThatIsSeenWholeLeaveNothingToSay) {
    EXPECT_THAT(DescribeUnseenFireWire(examined.diagnosis, Shown::Resets), IsEmpty());
    EXPECT_THAT(DescribeUnseenFireWire(examined.diagnosis, Shown::Tree), IsEmpty());
}

TEST_F(FireWireChecksOf, ABusWhoseControllerMayNotBeOpenedLeaveItsTreeUnseen) {
    Bus().treeError = EACCES;
    EXPECT_THAT(DescribeUnseenFireWire(examined.diagnosis, Shown::Resets), IsEmpty());
    EXPECT_THAT(DescribeUnseenFireWire(examined.diagnosis, Shown::Tree),
                ElementsAre(AllOf(HasSubstr("IEEE 1394, bus 0 (0000:06:01.0): how it is connected cannot be seen"),
                                  HasSubstr("nimbrel doctor --bus 1394"))));
}

TEST_F(FireWireChecksOf, ABusOfWhichNothingMayBeOpenedLeaveItsResetsUnseen) {
    Bus().seesResets = false;
    Bus().card.reset();
    EXPECT_THAT(DescribeUnseenFireWire(examined.diagnosis, Shown::Resets),
                ElementsAre(HasSubstr("IEEE 1394, the bus of 0000:06:01.0: its resets cannot be seen")));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Doctor
