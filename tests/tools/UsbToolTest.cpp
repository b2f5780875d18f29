// SPDX-License-Identifier: Apache-2.0
// The command line on mocked USB devices: what users see of recorded trees, of a hot plug, and of what is wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/platform/usb/UsbTestbed.h"
#include "tests/support/ChildProcess.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Json = nlohmann::ordered_json;
using Nimbrel2::Testing::Camera;
using Nimbrel2::Testing::ChildProcess;
using Nimbrel2::Testing::Hub;
using Nimbrel2::Testing::ProgramResult;
using Nimbrel2::Testing::UsbTestbed;
using Words = std::vector<std::string>;
using testing::HasSubstr;
using testing::SizeIs;

constexpr std::chrono::seconds TestDeadline{60};

class UsbTool : public testing::Test {
public:
    /// The program as users have it, with the mocked devices in front of the C library.
    Words CommandLine(const Words& arguments, const Words& before = {}) const {
        const char* const options = secure_getenv("ASAN_OPTIONS");
        Words words = before;
        words.insert(words.end(),
                     {"env", "LD_PRELOAD=" NIMBREL2_MOCK_LIBRARY,
                      // What is preloaded comes before a sanitizer's library here, and may.
                      "ASAN_OPTIONS=" + std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0",
                      NIMBREL_PROGRAM});
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }
    ProgramResult Run(const Words& arguments, const Words& before = {}) const {
        return Nimbrel2::Testing::RunProgram(CommandLine(arguments, before), TestDeadline);
    }
    Json RunForJson(const Words& arguments, const Words& before = {}) const {
        const ProgramResult result = Run(arguments, before);
        EXPECT_EQ(result.errors, "");
        return Json::parse(result.output, nullptr, false);
    }
    /// The findings that something is wrong, by check.
    std::map<std::string, Json> Wrong(const Words& before = {}) const {
        const Json all = RunForJson({"--bus", "usb", "doctor", "--json"}, before);
        std::map<std::string, Json> wrong;
        for (const Json& finding : all.is_object() ? all.at("findings") : all) {
            if (!finding.at("ok").get<bool>()) {
                wrong[finding.at("check")] = finding;
            }
        }
        return wrong;
    }

    UsbTestbed bed;
};

TEST_F(UsbTool, ListShowsTheCameraBehindFiveHubs) {
    bed.AddRecording("superspeed-hub-chain.umockdev");
    const Json list = RunForJson({"--bus", "usb", "list", "--json"});
    ASSERT_THAT(list.at("cameras"), SizeIs(2));
    const Json& camera = list["cameras"][1];
    EXPECT_EQ(camera.at("interface"), "USB3");
    EXPECT_EQ(camera.at("vendor"), "Example Vision");
    EXPECT_EQ(camera.at("speed"), 5000);
    EXPECT_EQ(camera.at("location"), "vhci_hcd.0 port 1.2.3.4.5.6 (2-1.2.3.4.5.6)");
    EXPECT_EQ(list["cameras"][0].at("interface"), "USB2");
}

TEST_F(UsbTool, TopologyPlacesACameraBehindFourHubsAndNoneBehindFive) {
    bed.AddRecording("superspeed-hub-chain.umockdev");
    ProgramResult result = Run({"--bus", "usb", "topology"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("USB host vhci_hcd.0"));
    EXPECT_THAT(result.output, HasSubstr("port 4: Example Vision Sim Hub"));
    EXPECT_THAT(result.output, HasSubstr("5 Gbit/s"));
    EXPECT_THAT(result.output, HasSubstr("it is more than four hubs deep"));
    bed.Remove("2-1.2.3.4.5");
    bed.Add(Camera("2-1.2.3.4.5", 40, "4004"));
    const Json list = RunForJson({"--bus", "usb", "list", "--json"});
    ASSERT_THAT(list.at("cameras"), SizeIs(2));
    const Json tree = RunForJson({"--bus", "usb", "topology", "--format", "json"});
    EXPECT_THAT(tree.dump(), HasSubstr(list["cameras"][1].at("guid").get<std::string>()));
    EXPECT_THAT(tree.at("unplaced"), SizeIs(0));
}

TEST_F(UsbTool, ListTellsWhereACameraIsAndWhatItCouldDo) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Hub("1-3", 2, false));
    bed.Add(Camera("1-3.2", 3, "4711", false));
    const ProgramResult result = Run({"--bus", "usb", "list", "-l"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("attached to    0000:00:14.0 port 3.2 (1-3.2)\n"));
    EXPECT_THAT(result.output, HasSubstr("speed          480 Mbit/s\n"));
    EXPECT_THAT(result.output, HasSubstr("at most        5 Gbit/s by the camera"));
}

TEST_F(UsbTool, TopologyNamesTheControllerTheHubsAndThePorts) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Hub("2-1", 2, true));
    bed.Add(Camera("2-1.2", 3, "4711"));
    const ProgramResult result = Run({"--bus", "usb", "topology"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("USB host 0000:00:14.0"));
    EXPECT_THAT(result.output, testing::ContainsRegex("port 1: .*\n.*port 2: .*4711 +5 Gbit/s"));
}

TEST_F(UsbTool, WatchTellsOfACameraThatIsPluggedIn) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    ChildProcess watch(CommandLine({"--bus", "usb", "watch"}));
    ASSERT_TRUE(watch.WaitForErrors("0 cameras now", TestDeadline)) << watch.GetErrors();
    bed.Add(Camera("2-1", 2, "4711"));
    EXPECT_TRUE(watch.WaitForOutput("4711", TestDeadline)) << watch.GetOutput() << watch.GetErrors();
    EXPECT_THAT(watch.GetOutput(), HasSubstr("arrival"));
    bed.Remove("2-1");
    EXPECT_TRUE(watch.WaitForOutput("removal", TestDeadline)) << watch.GetOutput();
}

TEST_F(UsbTool, UsbIdMakesACameraOfADeviceWithoutAClass) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    auto device = Camera("1-1", 2, "77", false);
    device.descriptors = Nimbrel2::Testing::VendorDescriptors(0xABCD, 0x0102);
    bed.Add(device);
    EXPECT_THAT(RunForJson({"--bus", "usb", "list", "--json"}).at("cameras"), SizeIs(0));
    EXPECT_THAT(
        RunForJson({"--bus", "usb", "--usb-id", "ABCD:0102", "--usb-id", "abcd:0102", "list", "--json"}).at("cameras"),
        SizeIs(1));
    for (const char* wrong : {"", "abcd", "abcd:", "abcd:01023", "xbcd:0102", "abcd-0102", "abc:01020", "ab:cd:0102"}) {
        const ProgramResult result = Run({"--bus", "usb", "--usb-id", wrong, "list"});
        EXPECT_EQ(result.exitStatus, 2) << wrong;
        EXPECT_THAT(result.errors, HasSubstr("--usb-id")) << wrong;
    }
}

TEST_F(UsbTool, DoctorFindsNothingWrongOnAHealthyComputer) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Hub("2-1", 2, true));
    bed.Add(Camera("2-1.2", 3, "4711"));
    bed.SetFile("module/usbcore/parameters/usbfs_memory_mb", "1000");
    EXPECT_TRUE(Wrong().empty()) << Json(Wrong()).dump(2);
    EXPECT_EQ(Run({"--bus", "usb", "doctor"}).exitStatus, 0);
}

TEST_F(UsbTool, DoctorFindsWhatIsWrong) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.SetFile("module/usbcore/parameters/usbfs_memory_mb", "16");
    auto camera = Camera("2-2", 3, "1");
    camera.attributes = {{"power/control", "auto"}};
    bed.Add(camera);
    camera = Camera("2-3", 4, "2");
    camera.attributes = {{"authorized", "0"}};
    bed.Add(camera);
    bed.Add(Camera("2-4", 5, "1"));
    bed.Add(Camera("1-5", 6, "3", false));
    bed.SetAttribute("usb1", "1-0:1.0/usb1-port5/over_current_count", "2");
    bed.SetLink("2-4", "2-4:1.0/driver", "../../../../../../bus/usb/drivers/usbfs");
    const auto wrong = Wrong();
    for (const char* check : {"usb.memory", "usb.suspend", "usb.authorization", "cameras.guid", "usb.speed",
                              "usb.over-current", "usb.claimed"}) {
        ASSERT_EQ(wrong.count(check), 1u) << check << " in " << Json(wrong).dump(2);
        EXPECT_NE(wrong.at(check).at("evidence"), "") << check;
        EXPECT_NE(wrong.at(check).at("cure"), "") << check;
    }
    EXPECT_THAT(wrong, SizeIs(7)) << Json(wrong).dump(2);
    EXPECT_EQ(Run({"--bus", "usb", "doctor"}).exitStatus, 1);
}

TEST_F(UsbTool, DoctorNamesTheRuleWhenANodeMayNotBeOpened) {
    using std::filesystem::perms;
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "1"));
    std::filesystem::permissions(bed.GetRoot(), perms(0755));
    std::filesystem::permissions(bed.RealPath("/dev/bus/usb/002/002"), perms(0600));
    const auto wrong = Wrong({"setpriv", "--reuid=65534", "--clear-groups"});
    ASSERT_EQ(wrong.count("usb.permission"), 1u) << Json(wrong).dump(2);
    EXPECT_THAT(wrong.at("usb.permission").at("evidence").get<std::string>(), HasSubstr("/dev/bus/usb/002/002"));
}

TEST_F(UsbTool, DoctorTellsThatUeventsDoNotComeIntoAnotherUserNamespace) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    const auto wrong = Wrong({"unshare", "--user", "--map-root-user", "--net"});
    ASSERT_EQ(wrong.count("usb.events"), 1u) << Json(wrong).dump(2);
    EXPECT_THAT(wrong.at("usb.events").at("evidence").get<std::string>(), HasSubstr("two seconds"));
}

TEST_F(UsbTool, WatchHearsInAnotherUserNamespaceToo) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "4711"));
    ChildProcess watch(CommandLine({"--bus", "usb", "watch"}, {"unshare", "--user", "--map-root-user", "--net"}));
    ASSERT_TRUE(watch.WaitForErrors("1 camera now", TestDeadline)) << watch.GetErrors();
    bed.RemoveSilently("2-1");
    EXPECT_TRUE(watch.WaitForOutput("removal", TestDeadline)) << watch.GetOutput();
}

TEST_F(UsbTool, ResetOfACameraWithoutANodeSaysThatItMayNotBeOpenedAndNotThatItHasLeft) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "1"));
    std::filesystem::remove_all(bed.RealPath("/dev/bus"));
    const ProgramResult result = Run({"--bus", "usb", "reset", "1"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("permission denied"));
    EXPECT_THAT(result.errors, HasSubstr("nimbrel doctor --bus usb"));
    EXPECT_THAT(Wrong()["usb.permission"].dump(), HasSubstr("container"));
}

TEST_F(UsbTool, ResetOfACameraThatMayNotBeOpenedFailsAndSaysWhatToDo) {
    using std::filesystem::perms;
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "1"));
    std::filesystem::permissions(bed.GetRoot(), perms(0755));
    std::filesystem::permissions(bed.GetRoot() + "/ioctl/_default", perms(0777));
    std::filesystem::permissions(bed.RealPath("/dev/bus/usb/002/002"), perms(0600));
    const ProgramResult result = Run({"--bus", "usb", "reset", "1"}, {"setpriv", "--reuid=65534", "--clear-groups"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("permission denied"));
    EXPECT_THAT(result.errors,
                testing::AnyOf(HasSubstr("70-nimbrel2-usb3-vision.rules"), HasSubstr("nimbrel doctor --bus usb")));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
