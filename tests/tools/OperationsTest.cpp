// SPDX-License-Identifier: Apache-2.0
// `nimbrel reset`, `phy`, `usb-link`, `usb-port`, `control` and `rescan` on simulated computers: what they print, whom
// they mean, how they fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

ProgramResult OnDemo(Words arguments) {
    arguments.emplace_back("--demo");
    return RunReal(arguments);
}

// One camera a bus; what stands in the timeline has happened when the program starts.
std::string OneOfEach(const std::string& timeline) {
    return R"({"firewire": [{"name": "fw0", "phys": [
                  {"name": "card", "kind": "card", "eui64": "0x0800460102030405"},
                  {"name": "eye", "eui64": "0x0011880000000011", "vendor": "Acme", "model": "Eye"}],
                "cables": [[["card", 0], ["eye", 0]]]}],
               "usb": [{"name": "xhci0", "devices": [
                  {"name": "stick", "parent": "xhci0", "port": 2, "serial": "22", "vendor": "B", "model": "U"}]}],
               "gige": [{"name": "eth0", "address": "192.168.77.1/24", "cameras": [
                  {"name": "gate", "mac": "02:00:00:00:77:0a", "address": "192.168.77.10/24", "serial": "33"}]}],
               "timeline": [)" +
           timeline + "]}";
}

std::string Fault(const std::string& function, unsigned int status, unsigned int call = 1, unsigned int delay = 0) {
    return R"({"fault": {"function": ")" + function + R"(", "call": )" + std::to_string(call) + R"(, "status": )" +
           std::to_string(status) + R"(, "delayMs": )" + std::to_string(delay) + "}}";
}

std::string GuidOf(const Words& arguments, const char* list, std::size_t index) {
    Words words{"list", "--json"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return Json::parse(RunReal(words).output)[list][index]["guid"];
}

// ---- What is printed -----------------------------------------------------------------------------------------------

struct Printed {
    const char* name;
    Words arguments;
    std::string output;
};

std::ostream& operator<<(std::ostream& out, const Printed& row) { return out << row.name; }

class OnTheDemo : public ::testing::TestWithParam<Printed> {};

TEST_P(OnTheDemo, Prints) {
    const ProgramResult result = OnDemo(GetParam().arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.output, GetParam().output);
    EXPECT_THAT(result.errors, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Operation, OnTheDemo,
    ::testing::Values(
        Printed{"Reset", {"reset", "200705"}, "Reset requested: camera 200705 (IEEE 1394).\n"},
        Printed{"ResetAsJson", {"reset", "200705", "--json"}, "{\"ok\":true}\n"},
        Printed{"ResetOfUsb", {"reset", "serial:21000101"}, "Reset requested: camera 21000101 (USB 3).\n"},
        Printed{"PhyRead", {"phy", "read", "200705", "0", "0", "1"}, "0x07\n"},
        Printed{"PhyReadOfAPort", {"phy", "read", "index:0", "0x0", "0", "0x8"}, "0x06\n"},
        Printed{"PhyReadAsJson", {"phy", "read", "200705", "0", "0", "1", "--json"}, "{\"ok\":true,\"value\":7}\n"},
        Printed{"PhyWrite",
                {"phy", "write", "200705", "0", "0", "1", "0x3f"},
                "Wrote 0x3f to camera 200705 (IEEE 1394).\n"},
        Printed{"PhyWriteAsJson",
                {"phy", "write", "200705", "0", "0", "1", "63", "--json"},
                "{\"ok\":true,\"value\":63}\n"},
        Printed{"UsbLink",
                {"usb-link", "21000101"},
                "speed  5 Gbit/s (SuperSpeed)\nport   2 of its hub\nhubs   1 above it\n"},
        Printed{"UsbLinkOnARootPort",
                {"usb-link", "20000007"},
                "speed  480 Mbit/s (high speed)\nport   3 of the computer\nhubs   0 above it\n"},
        Printed{"UsbLinkAsJson",
                {"usb-link", "21000102", "--json"},
                R"j({"ok":true,"value":32768258,"speed":5000,"port":1,"hubs":2})j"
                "\n"},
        Printed{"UsbPort",
                {"usb-port", "21000101"},
                "status  0x0203  connected, enabled and power\nchange  0x0000  nothing\nlink    U0\n"},
        Printed{"UsbPortOfUsb2",
                {"usb-port", "20000007"},
                "status  0x0503  connected, enabled, power and high speed\nchange  0x0000  nothing\n"},
        Printed{"UsbPortAsJson",
                {"usb-port", "21000101", "--json"},
                R"({"ok":true,"value":515,"status":["connected","enabled","power"],"change":[],"link_state":"U0"})"
                "\n"},
        Printed{"UsbPortOfUsb2AsJson",
                {"usb-port", "20000007", "--json"},
                R"({"ok":true,"value":1283,"status":["connected","enabled","power","high speed"],"change":[]})"
                "\n"},
        Printed{"Control", {"control", "ip:192.168.77.11"}, "Camera 31000002 is free: this computer may control it.\n"},
        Printed{"ControlAsJson", {"control", "31000001", "--json"}, "{\"available\":true}\n"},
        Printed{"Rescan", {"rescan"}, "Enumerated again: 7 cameras on IEEE 1394, USB and GigE.\n"},
        Printed{"RescanOfOneBus", {"rescan", "--bus", "usb"}, "Enumerated again: 3 cameras on USB.\n"},
        Printed{"RescanAsJson",
                {"rescan", "--json"},
                "{\"ok\":true,\"value\":7,\"searched\":[\"1394\",\"usb\",\"gige\"]}\n"}),
    [](const auto& test) { return test.param.name; });

TEST(Operation, RunsOnARigOfAFile) {
    const RigComputer rig(OneOfEach(""));
    const ProgramResult result = RunReal({"usb-link", "22", "--json", "--rig", rig.GetPath()});
    EXPECT_EQ(result.output, "{\"ok\":true,\"value\":32768512,\"speed\":5000,\"port\":2,\"hubs\":0}\n");
}

TEST(Operation, TakesOptionsOfTheBusesBeforeTheCommandToo) {
    EXPECT_EQ(RunReal({"--demo", "phy", "read", "200705", "0", "0", "1"}).output, "0x07\n");
    EXPECT_EQ(RunReal({"--demo", "control", "31000001", "--json"}).output, "{\"available\":true}\n");
    EXPECT_EQ(RunReal({"--demo", "discover"}).exitStatus, 0);
}

// ---- Which camera --------------------------------------------------------------------------------------------------

TEST(CameraArgument, MayBeAGuidInEitherCase) {
    std::string guid = GuidOf({"--demo"}, "cameras", 3);
    EXPECT_EQ(OnDemo({"usb-link", "guid:" + guid}).exitStatus, 0);
    for (char& c : guid) {
        c = static_cast<char>(std::toupper(c));
    }
    EXPECT_EQ(OnDemo({"usb-link", "guid:" + guid}).exitStatus, 0);
}

TEST(CameraArgument, MayBeTheGuidOfADeviceThatIsNoCamera) {
    const std::string guid = GuidOf({"--demo"}, "devices", 0);
    EXPECT_EQ(OnDemo({"reset", "guid:" + guid}).output, "Reset requested: device " + guid + " (IEEE 1394).\n");
}

TEST(CameraArgument, MayBeAMacInEitherForm) {
    const std::string output = "Camera 31000002 is free: this computer may control it.\n";
    EXPECT_EQ(OnDemo({"control", "mac:02:00:00:00:77:0b"}).output, output);
    EXPECT_EQ(OnDemo({"control", "mac:02-00-00-00-77-0B"}).output, output);
}

TEST(CameraArgument, ThatMeansTwoCamerasFailsAndTellsThemApart) {
    const RigComputer rig(
        R"({"gige": [{"name": "eth0", "address": "192.168.77.1/24", "cameras": [
             {"name": "a", "mac": "02:00:00:00:77:0a", "address": "192.168.77.10/24", "serial": "33"}]}],
            "usb": [{"name": "xhci0", "devices": [
             {"name": "hub", "kind": "hub", "parent": "xhci0", "port": 1},
             {"name": "b", "parent": "hub", "port": 3, "serial": "33"}]}]})");
    const ProgramResult result = rig.Run({"control", "33"});
    EXPECT_EQ(result.exitStatus, 1);
    const Words options{"--rig", rig.GetPath()};
    EXPECT_EQ(result.errors,
              "nimbrel control: 2 cameras have the serial number 33:\n"
              "  guid:" +
                  GuidOf(options, "cameras", 0) +
                  "  USB 3, xhci0 port 1.3, index 0\n"
                  "  mac:02:00:00:00:77:0a  GigE, 192.168.77.10 on eth0, index 1\n"
                  "Name one of them, such as guid:" +
                  GuidOf(options, "cameras", 0) + ".\n");
    EXPECT_EQ(rig.Run({"control", "mac:02:00:00:00:77:0a"}).exitStatus, 0);
}

TEST(CameraArgument, ThatMeansACameraWithATwinIsRefusedHoweverItIsNamed) {
    // Equal texts and serial numbers make one guid, by which every operation goes.
    const RigComputer rig(
        R"({"usb": [{"name": "xhci0", "devices": [
             {"name": "a", "parent": "xhci0", "port": 1, "serial": "33", "vendor": "V", "model": "M"},
             {"name": "b", "parent": "xhci0", "port": 2, "serial": "33", "vendor": "V", "model": "M"}]}]})");
    const std::string guid = GuidOf({"--rig", rig.GetPath()}, "cameras", 0);
    for (const std::string& camera : {std::string("33"), "guid:" + guid, std::string("index:1")}) {
        const ProgramResult result = rig.Run({"usb-link", camera});
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.errors,
                    AllOf(HasSubstr("2 cameras have the guid " + guid), HasSubstr("xhci0 port 1, index 0\n"),
                          HasSubstr("xhci0 port 2, index 1\n"), HasSubstr("Unplug all but one of them.")));
    }
}

TEST(CameraArgument, OfABusThatCannotBeSearchedFailsAndSaysThatToo) {
    const ProgramResult result =
        RigComputer(OneOfEach(Fault("HAL_UsbGetCameras", 3, 1) + "," + Fault("HAL_UsbGetCameras", 3, 2)))
            .Run({"usb-link", "22"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("nimbrel: USB cannot be searched: permission denied\n"),
                                     HasSubstr("no camera has the serial number 22; listed are 17 and 33")));
}

TEST(CameraArgument, FailsWhereNothingIsListed) {
    EXPECT_THAT(ScriptedComputer().Run({"reset", "index:0"}).errors,
                HasSubstr("no camera has the index 0; no camera is listed"));
    EXPECT_THAT(ScriptedComputer().Run({"reset", "5"}).errors,
                HasSubstr("the serial number 5; no camera is listed\n"
                          "`nimbrel doctor` finds out why a camera is not seen.\n"));
}

TEST(CameraArgument, OfACameraThatIsHeardAndCannotBeUsedFailsWithTheReasonAndTheCure) {
    const std::string rig = NIMBREL_RIGS "/wrong-subnet.json";
    const Json heard = Json::parse(RunReal({"discover", "--json", "--rig", rig}).output)["cameras"];
    const auto lost =
        std::find_if(heard.begin(), heard.end(), [](const Json& c) { return c["usable"] == "wrong-subnet"; });
    ASSERT_NE(lost, heard.end());
    const std::string serial = std::to_string((*lost)["serial"].get<unsigned int>());
    const std::string mac = (*lost)["mac"];
    const std::string ip = (*lost)["ip"];
    const std::string reason = "nimbrel control: camera " + serial + " (" + mac + ") at " + ip +
                               " is heard, but cannot be used: its address is in another subnet; ";
    for (const std::string& name : {serial, "mac:" + mac, "ip:" + ip}) {
        const ProgramResult result = RunReal({"control", name, "--rig", rig});
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.errors,
                    AllOf(StartsWith(reason),
                          HasSubstr("\n`nimbrel auto-ip` gives that camera an address of the right subnet.\n")));
    }
    EXPECT_THAT(RunReal({"usb-link", serial, "--rig", rig}).errors, HasSubstr("no camera has the serial number"))
        << "that is for other cameras";
    EXPECT_THAT(RunReal({"control", serial, "--rig", rig, "--bus", "usb"}).errors,
                HasSubstr("no camera has the serial"))
        << "nobody was to listen";
}

TEST(CameraArgument, OfManyCamerasIsNotAnsweredWithAllOfThem) {
    Words lines;
    for (int i = 0; i < 9; ++i) {
        lines.push_back("gige 10" + std::to_string(i) + " 10.0.0." + std::to_string(i) + " V M");
    }
    EXPECT_THAT(ScriptedComputer(lines).Run({"reset", "5"}).errors,
                HasSubstr("; 9 cameras are listed, see `nimbrel list`"));
    EXPECT_THAT(ScriptedComputer(lines).Run({"control", "ip:10.0.0.77"}).errors,
                HasSubstr("; 9 GigE cameras are listed, see `nimbrel list --bus gige`"));
}

// ---- How it fails --------------------------------------------------------------------------------------------------

struct Failure {
    const char* name;
    Words arguments;
    Words said;
};

std::ostream& operator<<(std::ostream& out, const Failure& row) { return out << row.name; }

class FailsOnTheDemo : public ::testing::TestWithParam<Failure> {};

TEST_P(FailsOnTheDemo, WithStatus1AndTheReason) {
    const Words& arguments = GetParam().arguments;
    const ProgramResult result = OnDemo(arguments);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    const std::string command = arguments[0] == "phy" ? "phy " + arguments[1] : arguments[0];
    EXPECT_THAT(result.errors, StartsWith("nimbrel " + command + ": "));
    for (const std::string& words : GetParam().said) {
        EXPECT_THAT(result.errors, HasSubstr(words));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Operation, FailsOnTheDemo,
    ::testing::Values(
        Failure{
            "NoSuchSerialNumber", {"reset", "17"}, {"no camera has the serial number 17; listed are 200705, 200706"}},
        Failure{"NoSuchIndex", {"reset", "index:7"}, {"no camera has the index 7; they go from 0 to 6"}},
        Failure{"NoSuchAddress",
                {"control", "ip:10.0.0.1"},
                {"no camera has the address 10.0.0.1; those listed have 192.168.77.10 and 192.168.77.11",
                 "`nimbrel discover`"}},
        Failure{"AddressOfNoGigE", {"control", "ip:10.0.0.1", "--bus", "usb"}, {"no GigE camera is listed"}},
        Failure{"NoSuchGuid",
                {"reset", "guid:00000000-00000000-00000000-00000001"},
                {"no camera or device has the guid 00000000-00000000-00000000-00000001"}},
        Failure{"ResetOfGigE",
                {"reset", "31000001"},
                {"camera 31000001 is on GigE, reset is for IEEE 1394 and USB cameras\n"}},
        Failure{"PhyReadOfUsb",
                {"phy", "read", "21000101", "0", "0", "1"},
                {"camera 21000101 is on USB 3, phy is for IEEE 1394 cameras\n", "`nimbrel list --bus 1394`"}},
        Failure{"PhyWriteOfGigE",
                {"phy", "write", "31000001", "0", "0", "1", "1"},
                {"camera 31000001 is on GigE, phy is for IEEE 1394 cameras\n"}},
        Failure{
            "UsbLinkOfGigE", {"usb-link", "31000001"}, {"camera 31000001 is on GigE, usb-link is for USB cameras\n"}},
        Failure{
            "UsbPortOf1394", {"usb-port", "200705"}, {"camera 200705 is on IEEE 1394, usb-port is for USB cameras\n"}},
        Failure{"ControlOf1394",
                {"control", "200705"},
                {"camera 200705 is on IEEE 1394, control is for GigE cameras\n", "`nimbrel list --bus gige`"}},
        Failure{
            "NoSuchMac",
            {"control", "mac:02:00:00:00:77:ff"},
            {"no camera has the MAC 02:00:00:00:77:ff; those listed have 02:00:00:00:77:0a and 02:00:00:00:77:0b"}}),
    [](const auto& test) { return test.param.name; });

struct HalFailure {
    const char* name;
    Words arguments;
    const char* function;
    unsigned int status;
    const char* said;
};

std::ostream& operator<<(std::ostream& out, const HalFailure& row) { return out << row.name; }

class FailsInTheHal : public ::testing::TestWithParam<HalFailure> {};

TEST_P(FailsInTheHal, WithCameraBusAndCauseInAUsersWords) {
    const ProgramResult result =
        RigComputer(OneOfEach(Fault(GetParam().function, GetParam().status, 1, 20))).Run(GetParam().arguments);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, HasSubstr(GetParam().said));
    for (const char* ours : {"BusMaster.cpp", "rror 0x", "built", "(error"}) {
        EXPECT_THAT(result.errors, Not(HasSubstr(ours)));
    }
}

TEST(Verbose, ShowsTheWholeChainOfAnErrorAndItsPlace) {
    const RigComputer rig(OneOfEach(Fault("HAL_1394FireBusReset", 3, 1, 20)));
    const ProgramResult result = rig.Run({"reset", "17", "-v"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors,
                AllOf(HasSubstr("  exit status 1: camera 17 (IEEE 1394) cannot be reset: permission denied\n"),
                      HasSubstr("BusMaster.cpp:"), HasSubstr("Error 0x3")));
    EXPECT_THAT(result.errors,
                HasSubstr("nimbrel reset: camera 17 (IEEE 1394) cannot be reset: permission denied\nTry"));
}

INSTANTIATE_TEST_SUITE_P(
    Operation, FailsInTheHal,
    ::testing::Values(
        HalFailure{
            "Reset",
            {"reset", "17"},
            "HAL_1394FireBusReset",
            3,
            "camera 17 (IEEE 1394) cannot be reset: permission denied\nTry again as root: `sudo nimbrel reset 17`.\n"},
        HalFailure{"ResetOfUsb",
                   {"reset", "22"},
                   "HAL_UsbFireBusReset",
                   4,
                   "camera 22 (USB 3) cannot be reset: the device is no longer attached\n`nimbrel list` shows what is "
                   "attached now.\n"},
        HalFailure{
            "ResetOfUsbInUse",
            {"reset", "22"},
            "HAL_UsbFireBusReset",
            6,
            "camera 22 (USB 3) cannot be reset: busy, try again later\n`nimbrel doctor --bus usb` shows who uses "
            "it.\n"},
        HalFailure{"PhyReadThatTimesOut",
                   {"phy", "read", "17", "0", "0", "1"},
                   "HAL_1394ReadPhyRegister",
                   7,
                   "camera 17 (IEEE 1394) did not return its PHY register: no answer in time\n"},
        HalFailure{"PhyWrite",
                   {"phy", "write", "17", "0", "0", "1", "1", "--json"},
                   "HAL_1394WritePhyRegister",
                   7,
                   "camera 17 (IEEE 1394) has a PHY register that was not written: no answer in time\n"},
        HalFailure{"PhyWriteThatIsNotImplemented",
                   {"phy", "write", "17", "0", "0", "1", "1"},
                   "HAL_1394WritePhyRegister",
                   5,
                   "camera 17 (IEEE 1394) has a PHY register that was not written: this computer cannot write PHY "
                   "registers\n"},
        HalFailure{"UsbLink",
                   {"usb-link", "22"},
                   "HAL_UsbGetLinkInfo",
                   4,
                   "camera 22 (USB 3) has a link that cannot be read: the hub does not answer\n"},
        HalFailure{"UsbPortThatTimesOut",
                   {"usb-port", "22"},
                   "HAL_UsbGetPortStatus",
                   7,
                   "camera 22 (USB 3) has a port that cannot be read: the hub does not answer\n"}),
    [](const auto& test) { return test.param.name; });

TEST(Control, AsksTheCameraAgainWhenOneReadFails) {
    // The first reads are those of the listing, which fails or does without; a later one is that of the question.
    int numAnswers = 0;
    for (unsigned int call = 1; call <= 10; ++call) {
        const ProgramResult result =
            RigComputer(OneOfEach(Fault("HAL_GigEReadRegister", 7, call))).Run({"control", "33"});
        if (result.exitStatus == 0) {
            EXPECT_EQ(result.output, "Camera 33 is free: this computer may control it.\n");
            ++numAnswers;
        } else {
            EXPECT_THAT(result.errors, HasSubstr("no camera has the serial number 33")) << call;
        }
    }
    EXPECT_GT(numAnswers, 0);
}

// ---- Who holds a camera --------------------------------------------------------------------------------------------

std::string Taken(bool exclusive) {
    return R"({"take": {"camera": "gate", "address": "192.168.77.200", "port": 50000, "exclusive": )" +
           std::string(exclusive ? "true" : "false") + "}}";
}

TEST(Control, NamesWhoHoldsTheCamera) {
    const RigComputer rig(OneOfEach(Taken(false)));
    const ProgramResult result = rig.Run({"control", "33"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.output, "Camera 33 is in use by the application at 192.168.77.200, port 50000.\n");
    EXPECT_EQ(rig.Run({"control", "33", "--json"}).output,
              R"({"available":false,"exclusive":false,"holder":{"ip":"192.168.77.200","port":50000}})"
              "\n");
}

TEST(Control, SaysNoForACameraThatIsHeldExclusively) {
    const RigComputer rig(OneOfEach(Taken(true)));
    const ProgramResult result = rig.Run({"control", "33"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.output, "Camera 33 is in use exclusively by another application, which it does not name.\n");
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_EQ(rig.Run({"control", "33", "--json"}).output, "{\"available\":false,\"exclusive\":true}\n");
}

TEST(Control, SaysYesOnceTheCameraIsReleased) {
    EXPECT_EQ(RigComputer(OneOfEach(Taken(true) + R"(,{"release": "gate"})")).Run({"control", "33", "--json"}).output,
              "{\"available\":true}\n");
}

// ---- Rescan --------------------------------------------------------------------------------------------------------

TEST(Rescan, FindsWhatTheFirstLookHasMissed) {
    EXPECT_EQ(RigComputer(OneOfEach(Fault("HAL_GigEGetCameras", 7))).Run({"rescan", "--json"}).output,
              "{\"ok\":true,\"value\":3,\"searched\":[\"1394\",\"usb\",\"gige\"]}\n");
}

TEST(Rescan, FailsWhenABusCannotBeSearched) {
    std::string faults;
    for (unsigned int call = 1; call <= 8; ++call) {
        faults += (call == 1 ? "" : ",") + Fault("HAL_GigEGetCameras", 21, call);
    }
    const ProgramResult result = RigComputer(OneOfEach(faults)).Run({"rescan"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, HasSubstr("GigE cannot be searched: unreachable"));
}

TEST(Rescan, ReachesTheBuses) {
    // The listing that finds the fault is the second one: there was a second one.
    const ProgramResult result =
        RigComputer(OneOfEach(Fault("HAL_UsbGetCameras", 3, 2) + "," + Fault("HAL_UsbGetCameras", 3, 3)))
            .Run({"rescan"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("USB cannot be searched"), Not(HasSubstr("GigE"))));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
