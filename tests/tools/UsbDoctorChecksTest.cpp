// SPDX-License-Identifier: Apache-2.0
// Each USB check of `nimbrel doctor` on made-up diagnoses: what it fires on, what it does not, its evidence and its
// cure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tools/nimbrel/doctor/UsbChecks.h"
#include "tools/nimbrel/doctor/UsbTexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::UsbClaim;
using Platform::UsbDeviceDiagnosis;
using Platform::UsbPortDiagnosis;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

UsbDeviceDiagnosis Hub(const std::string& name, const std::string& above, std::uint8_t port, std::uint32_t speed) {
    UsbDeviceDiagnosis hub;
    hub.name = name;
    hub.hub = above;
    hub.port = port;
    hub.speed = hub.deviceSpeed = hub.portSpeed = speed;
    hub.isHub = true;
    hub.configuration = 1;
    hub.powerControl = "auto";
    hub.suspendDelay = 0;
    hub.runtimeStatus = "active";
    for (std::uint8_t number = 1; number <= 4; ++number) {
        UsbPortDiagnosis entry;
        entry.number = number;
        hub.ports.push_back(entry);
    }
    return hub;
}

UsbDeviceDiagnosis Camera(const std::string& name, const std::string& above, std::uint8_t port, std::uint32_t speed,
                          std::uint32_t serial) {
    UsbDeviceDiagnosis camera;
    camera.name = name;
    camera.hub = above;
    camera.port = port;
    camera.speed = speed;
    camera.deviceSpeed = 5000;
    camera.portSpeed = speed;
    camera.model = "Model";
    camera.serial = std::to_string(serial);
    camera.serialNumber = serial;
    camera.isCamera = camera.isVision = camera.isListed = true;
    camera.configuration = 1;
    camera.powerControl = "on";
    camera.suspendDelay = 2000;
    camera.runtimeStatus = "active";
    camera.vendorId = 0x1209;
    camera.productId = 1;
    camera.node = "/dev/bus/usb/002/003";
    return camera;
}

/// A controller with both halves and one camera at SuperSpeed behind a hub: all is well.
class UsbDoctorChecks : public ::testing::Test {
protected:
    UsbDoctorChecks() {
        auto& devices = examined.diagnosis.devices;
        devices.push_back(Hub("usb1", "", 0, 480));
        devices.push_back(Hub("1-2", "usb1", 2, 480));
        devices.push_back(Hub("usb2", "", 0, 5000));
        devices.push_back(Hub("2-1", "usb2", 1, 5000));
        devices.push_back(Camera("2-1.3", "2-1", 3, 5000, 7));
        Of("1-2").deviceSpeed = 5000;  // one half of a USB 3 hub
        examined.diagnosis.isUdevRunning = true;
        examined.diagnosis.memoryLimit = 1000;
        examined.rule.installed = "/opt/nimbrel/share/nimbrel2/udev/70-nimbrel2-usb3-vision.rules";
    }

    UsbDeviceDiagnosis& Of(const std::string& name) {
        for (UsbDeviceDiagnosis& device : examined.diagnosis.devices) {
            if (device.name == name) {
                return device;
            }
        }
        ADD_FAILURE() << name;
        return examined.diagnosis.devices.front();
    }
    UsbDeviceDiagnosis& Add(UsbDeviceDiagnosis device) {
        examined.diagnosis.devices.push_back(std::move(device));
        return examined.diagnosis.devices.back();
    }

    Finding ExpectWrong(Check<UsbExamination> check) {
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

    UsbExamination examined;
};

TEST_F(UsbDoctorChecks, FindNothingOnAHealthyComputer) {
    for (const auto check : UsbChecks()) {
        for (const Finding& finding : check(examined)) {
            EXPECT_TRUE(finding.ok) << finding.evidence;
            EXPECT_THAT(finding.cure, IsEmpty());
            EXPECT_NE(finding.evidence, "");
        }
    }
}

TEST_F(UsbDoctorChecks, AreSilentWhereNobodyDrivesTheBusAndSayWhyItCannotBeSearched) {
    examined = UsbExamination{};
    examined.status = HAL_NO_BUS;
    for (const auto check : UsbChecks()) {
        EXPECT_THAT(check(examined), IsEmpty());
    }
    examined.status = HAL_PERMISSION;
    EXPECT_THAT(ExpectWrong(CheckUsbDriver).evidence, HasSubstr("permission"));
    examined.status = HAL_OK;
    examined.diagnosis.error = EACCES;
    EXPECT_THAT(ExpectWrong(CheckUsbDriver).evidence, HasSubstr("Permission denied"));
}

TEST_F(UsbDoctorChecks, TellThatUeventsCannotCome) {
    examined.diagnosis.hearsUevents = false;
    EXPECT_THAT(ExpectWrong(CheckUsbEvents).evidence, HasSubstr("no uevents into this"));
    examined.diagnosis.ueventError = EPERM;
    EXPECT_THAT(ExpectWrong(CheckUsbEvents).evidence, HasSubstr("Operation not permitted"));
}

TEST_F(UsbDoctorChecks, TellOfCamerasThatAreNeverListed) {
    Of("2-1.3").isListed = false;
    Of("2-1.3").isAuthorized = false;
    const Finding finding = ExpectWrong(CheckUsbAuthorization);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("camera 7 (Model at 2-1.3)"), HasSubstr("not authorized")));
    EXPECT_EQ(finding.cure, "echo 1 | sudo tee /sys/bus/usb/devices/2-1.3/authorized");
    Of("2-1.3").isAuthorized = true;
    Of("2-1.3").configuration = 0;
    EXPECT_EQ(ExpectWrong(CheckUsbAuthorization).cure,
              "echo 1 | sudo tee /sys/bus/usb/devices/2-1.3/bConfigurationValue");
}

TEST_F(UsbDoctorChecks, NameTheRuleForANodeThatMayNotBeOpened) {
    Of("2-1.3").nodeError = EACCES;
    Finding finding = ExpectWrong(CheckUsbPermission);
    EXPECT_THAT(finding.evidence, AllOf(HasSubstr("/dev/bus/usb/002/003"), HasSubstr("Permission denied")));
    EXPECT_THAT(finding.cure, AllOf(HasSubstr("sudo cp /opt/nimbrel/share/nimbrel2/udev/70-nimbrel2-usb3-vision.rules"),
                                    HasSubstr("udevadm control --reload"), HasSubstr("udevadm trigger")));
    examined.rule.isInForce = true;
    EXPECT_THAT(ExpectWrong(CheckUsbPermission).cure, HasSubstr("usermod -aG plugdev"));
    Of("2-1.3").isVision = false;
    finding = ExpectWrong(CheckUsbPermission);
    EXPECT_THAT(finding.cure, AllOf(HasSubstr("ATTR{idVendor}==\"1209\""), HasSubstr("ATTR{idProduct}==\"0001\"")));
    examined.diagnosis.isUdevRunning = false;
    EXPECT_EQ(ExpectWrong(CheckUsbPermission).cure, "sudo chmod a+rw /dev/bus/usb/002/003");
    Of("2-1.3").nodeError = ENOENT;
    EXPECT_THAT(ExpectWrong(CheckUsbPermission).cure, HasSubstr("container"));
}

TEST_F(UsbDoctorChecks, NameTheProgramThatHasTheCamera) {
    Of("2-1.3").claims = {UsbClaim{0, true, "usbfs", 4711, "viewer"}, UsbClaim{2, false, "usbfs", 4711, "viewer"}};
    const Finding finding = ExpectWrong(CheckUsbClaims);
    EXPECT_THAT(finding.evidence, HasSubstr("process 4711 (viewer)"));
    EXPECT_EQ(finding.cure, "kill 4711");
    Of("2-1.3").claims = {UsbClaim{2, false, "usbfs", 0, ""}};
    EXPECT_THAT(ExpectWrong(CheckUsbClaims).evidence, HasSubstr("may not see"));
    Of("2-1.3").claims = {UsbClaim{0, true, "uvcvideo", 0, ""}};
    EXPECT_EQ(ExpectWrong(CheckUsbClaims).cure, "echo 2-1.3:1.0 | sudo tee /sys/bus/usb/drivers/uvcvideo/unbind");
    Of("2-1.3").claims = {UsbClaim{1, false, "snd-usb-audio", 0, ""}};
    EXPECT_TRUE(CheckUsbClaims(examined).at(0).ok) << "its registers can be reached all the same";
}

// ---- Speed: what is to blame ---------------------------------------------------------------------------------------

TEST_F(UsbDoctorChecks, BlameTheCableOfACameraOnAPortThatCouldDoMore) {
    UsbDeviceDiagnosis& camera = Add(Camera("1-2.1", "1-2", 1, 480, 8));
    camera.portSpeed = 5000;
    const Finding finding = ExpectWrong(CheckUsbSpeed);
    EXPECT_THAT(finding.evidence,
                AllOf(HasSubstr("camera 8 (Model at 1-2.1) can do 5 Gbit/s and runs at 480 Mbit/s"),
                      HasSubstr("the cable of the camera"), HasSubstr("port 1 of hub 1-2 can do 5 Gbit/s")));
    EXPECT_THAT(finding.cure, HasSubstr("another USB 3 cable"));
}

TEST_F(UsbDoctorChecks, BlameAHubThatCanDoNoMore) {
    Add(Camera("1-2.1", "1-2", 1, 480, 8));
    Of("1-2").deviceSpeed = 480;
    EXPECT_THAT(ExpectWrong(CheckUsbSpeed).evidence, HasSubstr("to blame: hub 1-2, which is no USB 3 hub"));
}

TEST_F(UsbDoctorChecks, BlameTheCableOfAHubThatFellBack) {
    Add(Camera("1-2.1", "1-2", 1, 480, 8));
    Of("1-2").portSpeed = 5000;
    EXPECT_THAT(ExpectWrong(CheckUsbSpeed).evidence,
                HasSubstr("to blame: the cable of hub 1-2, for port 2 of root hub usb1 can do 5 Gbit/s"));
}

TEST_F(UsbDoctorChecks, BlameAPortOfTheComputer) {
    Add(Camera("1-4", "usb1", 4, 480, 8));
    Finding finding = ExpectWrong(CheckUsbSpeed);
    EXPECT_THAT(finding.evidence, HasSubstr("to blame: port 4 of root hub usb1 can do 480 Mbit/s only"));
    EXPECT_THAT(finding.cure, HasSubstr("SuperSpeed port"));
    Of("1-4").portSpeed = 0;
    EXPECT_THAT(ExpectWrong(CheckUsbSpeed).evidence, HasSubstr("the cable of the camera, or port 4 of root hub usb1"));
    Of("1-4").portSpeed = 480;
    std::erase_if(examined.diagnosis.devices,
                  [](const auto& device) { return device.name[0] == '2' || device.name == "usb2"; });
    EXPECT_THAT(ExpectWrong(CheckUsbSpeed).evidence, HasSubstr("this computer has no SuperSpeed ports"));
}

TEST_F(UsbDoctorChecks, FindNoFaultWithACameraThatCanDoNoMoreOrDoesNotSay) {
    Add(Camera("1-4", "usb1", 4, 480, 8)).deviceSpeed = 480;
    Add(Camera("1-3", "usb1", 3, 480, 9)).deviceSpeed = 0;
    const Findings findings = CheckUsbSpeed(examined);
    ASSERT_THAT(findings, SizeIs(1));
    EXPECT_TRUE(findings[0].ok);
    EXPECT_THAT(findings[0].evidence, HasSubstr("camera 8 (Model at 1-4): 480 Mbit/s"));
}

TEST_F(UsbDoctorChecks, AreNotLedAstrayByHubsInALoop) {
    Add(Camera("1-4", "1-9", 4, 480, 8));
    Add(Hub("1-9", "1-8", 1, 480)).deviceSpeed = 5000;
    Add(Hub("1-8", "1-9", 1, 480)).deviceSpeed = 5000;
    for (const auto check : UsbChecks()) {
        check(examined);
    }
    EXPECT_THAT(ExpectWrong(CheckUsbSpeed).evidence, HasSubstr("to blame"));
}

TEST_F(UsbDoctorChecks, TellOfAHubThatFellToFullSpeed) {
    Of("1-2").speed = 12;
    Of("1-2").deviceSpeed = 480;
    EXPECT_THAT(ExpectWrong(CheckUsbHubSpeed).evidence,
                HasSubstr("hub 1-2 on port 2 of root hub usb1 can do 480 Mbit/s and has fallen to 12 Mbit/s"));
    Of("1-2").deviceSpeed = 12;
    EXPECT_TRUE(CheckUsbHubSpeed(examined).at(0).ok) << "it can do no more, and no camera is behind it";
    EXPECT_THAT(CheckUsbHubSpeed(examined).at(0).evidence, HasSubstr("none above a camera"));
    Add(Camera("1-2.1", "1-2", 1, 12, 8));
    EXPECT_THAT(ExpectWrong(CheckUsbHubSpeed).evidence, HasSubstr("can do no more than 12 Mbit/s"));
}

// ---- Power, memory, serial numbers ---------------------------------------------------------------------------------

TEST_F(UsbDoctorChecks, TellOfPortsThatWereSwitchedOff) {
    Of("usb1").ports[2].overCurrents = 3;
    EXPECT_THAT(ExpectWrong(CheckUsbOverCurrent).evidence,
                HasSubstr("port 3 of root hub usb1 was switched off 3 times"));
}

TEST_F(UsbDoctorChecks, TellOfACameraThatMayBeSuspendedAndOfItsHubs) {
    Of("2-1.3").powerControl = "auto";
    const Findings findings = CheckUsbSuspend(examined);
    ASSERT_THAT(findings, SizeIs(3)) << "the camera, its hub and the root hub";
    EXPECT_THAT(findings[0].evidence,
                HasSubstr("camera 7 (Model at 2-1.3) may be suspended by the kernel after 2000 ms"));
    EXPECT_EQ(findings[0].cure, "echo on | sudo tee /sys/bus/usb/devices/2-1.3/power/control");
    EXPECT_THAT(findings[1].evidence, HasSubstr("hub 2-1 above camera 7"));
    EXPECT_EQ(findings[1].cure, "echo on | sudo tee /sys/bus/usb/devices/2-1/power/control");
    Of("2-1.3").suspendDelay = -1000;
    EXPECT_TRUE(CheckUsbSuspend(examined).at(0).ok) << "never means never";
}

TEST_F(UsbDoctorChecks, TellOfAHubThatSleepsAboveACamera) {
    Of("2-1").runtimeStatus = "suspended";
    EXPECT_THAT(ExpectWrong(CheckUsbSuspend).evidence,
                HasSubstr("hub 2-1 above camera 7 (Model at 2-1.3) is suspended"));
}

TEST_F(UsbDoctorChecks, TellOfMemoryThatIsTooSmallForSuperSpeed) {
    examined.diagnosis.memoryLimit = 16;
    const Finding finding = ExpectWrong(CheckUsbMemory);
    EXPECT_THAT(finding.evidence, HasSubstr("usbfs_memory_mb is 16"));
    EXPECT_EQ(finding.cure, "echo 1000 | sudo tee /sys/module/usbcore/parameters/usbfs_memory_mb");
    examined.diagnosis.memoryLimit = 0;
    EXPECT_TRUE(CheckUsbMemory(examined).at(0).ok) << "no limit";
    examined.diagnosis.memoryLimit = 16;
    Of("2-1.3").speed = 480;
    EXPECT_THAT(CheckUsbMemory(examined), IsEmpty()) << "enough for that";
}

TEST(UsbRule, IsNamedWithTheCommandThatPutsItInForce) {
    UsbRule rule = FindUsbRule();
    EXPECT_THAT(rule.installed, HasSubstr("/share/nimbrel2/udev/" + UsbRuleName()));
    rule.isInForce = false;
    EXPECT_THAT(HintForUsbPermission(rule, true), HasSubstr(CommandForUsbRule(rule)));
    EXPECT_THAT(HintForUsbPermission(rule, false), HasSubstr("nimbrel doctor")) << "no rule gives what is not there";
    rule.isInForce = true;
    EXPECT_THAT(HintForUsbPermission(rule, true), HasSubstr("nimbrel doctor"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Doctor
