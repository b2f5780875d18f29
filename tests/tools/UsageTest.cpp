// SPDX-License-Identifier: Apache-2.0
// What the command line says to those who use it wrongly or ask it for help.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct WrongUsage {
    const char* name;
    Words arguments;
    Words named;  ///< What the message must name.
};

class Usage : public ::testing::TestWithParam<WrongUsage> {};

TEST_P(Usage, IsRefusedWithTheOptionAndTheValueNamed) {
    const ProgramResult result = Nimbrel2::Testing::RunProgram([] {
        Words words{RealProgram()};
        words.insert(words.end(), GetParam().arguments.begin(), GetParam().arguments.end());
        return words;
    }());
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, StartsWith("nimbrel"));
    for (const std::string& word : GetParam().named) EXPECT_THAT(result.errors, HasSubstr(word));
}

INSTANTIATE_TEST_SUITE_P(
    Wrong, Usage,
    ::testing::Values(
        WrongUsage{"NoCommand", {}, {"command", "--help"}}, WrongUsage{"MisspeltCommand", {"lsit"}, {"lsit"}},
        WrongUsage{"TwoCommands", {"list", "watch"}, {"watch"}},
        WrongUsage{"UnknownOption", {"list", "--jsno"}, {"list", "--jsno"}},
        WrongUsage{"UnexpectedWord", {"watch", "19340211"}, {"19340211"}},
        WrongUsage{"UnknownBus", {"list", "--bus", "can"}, {"--bus", "\"can\"", "1394, usb, gige"}},
        WrongUsage{"TwoBusesAfterOneOption", {"list", "--bus", "usb", "gige"}, {"gige"}},
        WrongUsage{"ValueMissing", {"list", "--discovery-window"}, {"--discovery-window"}},
        WrongUsage{
            "WindowTooShort", {"list", "--discovery-window", "0.009"}, {"--discovery-window", "\"0.009\"", "0.01 s"}},
        WrongUsage{
            "WindowTooLong", {"watch", "--discovery-window", "30.1"}, {"--discovery-window", "\"30.1\"", "30 s"}},
        WrongUsage{"WindowWithComma", {"list", "--discovery-window", "0,2"}, {"--discovery-window", "\"0,2\""}},
        WrongUsage{"WindowNotANumber", {"list", "--discovery-window", "nan"}, {"--discovery-window", "\"nan\""}},
        WrongUsage{"WindowInfinite", {"list", "--discovery-window", "inf"}, {"--discovery-window", "\"inf\""}},
        WrongUsage{"WindowNegative", {"list", "--discovery-window", "-1"}, {"--discovery-window", "\"-1\""}},
        WrongUsage{"WindowTwice",
                   {"list", "--discovery-window", "1", "--discovery-window", "2"},
                   {"--discovery-window", "\"1\"", "\"2\""}},
        WrongUsage{"InterfaceEmpty", {"list", "--interface", ""}, {"--interface", "\"\""}},
        WrongUsage{"WaitForNoNumber", {"list", "--wait", "17,GV01"}, {"--wait", "\"GV01\""}},
        WrongUsage{"WaitForNobody", {"list", "--wait", "17,"}, {"--wait", "\"\""}},
        WrongUsage{"WaitForTooLargeANumber", {"list", "--wait", "4294967296"}, {"--wait", "4294967296"}},
        WrongUsage{"TimeoutWithoutWait", {"list", "--timeout", "3"}, {"--timeout", "--wait"}},
        WrongUsage{"TimeoutOfLetters", {"list", "--wait", "1", "--timeout", "soon"}, {"--timeout", "\"soon\""}},
        WrongUsage{"CountOfZero", {"watch", "--count", "0"}, {"--count", "\"0\""}},
        WrongUsage{"CountNegative", {"watch", "--count", "-3"}, {"--count", "\"-3\""}},
        WrongUsage{"FormatUnknown", {"topology", "--format", "png"}, {"--format", "\"png\"", "text, json, dot, svg"}},
        WrongUsage{
            "FormatTwice", {"topology", "--format", "svg", "--format", "dot"}, {"--format", "\"svg\"", "\"dot\""}},
        WrongUsage{"FormatAndJson", {"topology", "--json", "--format", "svg"}, {"--json", "--format"}},
        WrongUsage{"OutputMissing", {"topology", "--output"}, {"--output"}},
        WrongUsage{"DemoAndNoCommand", {"--demo"}, {"command", "--help"}},
        WrongUsage{"DemoBeforeACommandWithoutBuses", {"--demo", "simulate", "gige"}, {"simulate", "--demo"}},
        WrongUsage{"RigBeforeACommandWithoutBuses", {"--rig", "x", "rig", "check", "y"}, {"rig", "--rig"}},
        WrongUsage{"RigBeforeAndAfter", {"--rig", "x", "list", "--rig", "y"}, {"--rig", "before", "after"}},
        WrongUsage{"RigBeforeAndDemoAfter", {"--rig", "x", "list", "--demo"}, {"--rig", "--demo"}},
        WrongUsage{"WindowBeforeAndAfter",
                   {"--discovery-window", "1", "list", "--discovery-window", "1"},
                   {"--discovery-window"}},
        WrongUsage{"UnknownBusBefore", {"--bus", "can", "list"}, {"--bus", "\"can\""}},
        WrongUsage{"UnknownOptionBefore", {"--dmeo", "list"}, {"--dmeo"}},
        WrongUsage{"DurationNegative", {"watch", "--duration", "-3"}, {"--duration", "\"-3\""}},
        WrongUsage{"CameraMissing", {"reset"}, {"reset", "CAMERA"}},
        WrongUsage{"CameraOfLetters", {"control", "GV01"}, {"CAMERA", "\"GV01\""}},
        WrongUsage{"CameraOfUnknownKind", {"usb-link", "name:left"}, {"CAMERA", "\"name:left\""}},
        WrongUsage{"TwoCameras", {"usb-port", "17", "18"}, {"18"}}, WrongUsage{"PhyWithoutVerb", {"phy"}, {"phy"}},
        WrongUsage{"PhyAddressMissing", {"phy", "read", "17", "0", "0"}, {"ADDRESS"}},
        WrongUsage{"PhyPageTooLarge", {"phy", "read", "17", "8", "0", "8"}, {"PAGE", "\"8\"", "0 to 7"}},
        WrongUsage{"PhyPortTooLarge", {"phy", "read", "17", "0", "0x10", "8"}, {"PORT", "\"0x10\"", "0 to 15"}},
        WrongUsage{"PhyAddressOfLetters", {"phy", "read", "17", "0", "0", "x"}, {"ADDRESS", "\"x\""}},
        WrongUsage{"PhyBaseRegisterOfAPort", {"phy", "read", "17", "0", "2", "1"}, {"ADDRESS", "\"1\"", "port 2"}},
        WrongUsage{"PhyValueTooLarge", {"phy", "write", "17", "0", "0", "1", "256"}, {"VALUE", "\"256\"", "0 to 255"}},
        WrongUsage{"SerialOfZero", {"auto-ip", "--serial", "0"}, {"--serial", "\"0\"", "1 to 4294967295"}},
        WrongUsage{"BusOfAGigECommand", {"discover", "--bus", "usb"}, {"--bus"}}),
    [](const auto& test) { return test.param.name; });

TEST(UsageMessage, ShowsNoControlCharactersOfTheValue) {
    const ProgramResult result = Nimbrel2::Testing::RunProgram({RealProgram(), "list", "--bus", "\x1b[2J\x9b"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_THAT(result.errors,
                AllOf(HasSubstr("--bus"), ::testing::Not(HasSubstr("\x1b")), ::testing::Not(HasSubstr("\x9b"))));
}

class Help : public ::testing::TestWithParam<const char*> {};

TEST_P(Help, FitsEightyColumnsAndTellsExitStatusAndExamples) {
    Words words{RealProgram()};
    std::istringstream command(GetParam());
    for (std::string word; command >> word;) words.push_back(word);
    words.emplace_back("--help");
    const ProgramResult result = Nimbrel2::Testing::RunProgram(words);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_THAT(result.output, AllOf(HasSubstr("Exit status:"), HasSubstr("Examples:"), HasSubstr("--help")));
    for (const std::string& line : Lines(result.output)) EXPECT_LE(line.size(), 80u) << line;
}

INSTANTIATE_TEST_SUITE_P(Commands, Help,
                         ::testing::Values("", "list", "topology", "watch", "discover", "force-ip", "auto-ip",
                                           "control", "reset", "phy", "phy read", "phy write", "usb-link", "usb-port",
                                           "rescan"),
                         [](const auto& test) {
                             std::string name = *test.param == '\0' ? "program" : test.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

TEST(Version, IsPrintedAlone) {
    const ProgramResult result = Nimbrel2::Testing::RunProgram({RealProgram(), "--version"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "nimbrel " NIMBREL2_VERSION "\n");
    EXPECT_THAT(result.errors, IsEmpty());
}

TEST(Interface, ThatTheComputerDoesNotHaveFailsAndNamesThoseItHas) {
    const ProgramResult result = ScriptedComputer().Run({"list", "--interface", "nosuch0"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, AllOf(HasSubstr("--interface"), HasSubstr("\"nosuch0\""), HasSubstr("lo")));
}

std::string OptionsOf(const Words& arguments) {
    const ProgramResult result = ScriptedComputer({"tell options"}).Run(arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    return result.errors;
}

TEST(Options, ReachThePlatform) {
    EXPECT_EQ(OptionsOf({"list"}), "options: 1394=linux usb=linux gige=linux interfaces= window=1000\n");
    EXPECT_EQ(OptionsOf({"list", "--bus", "gige", "--interface", "lo", "--interface", "lo"}),
              "options: 1394=none usb=none gige=linux interfaces=lo, window=1000\n");
    EXPECT_EQ(OptionsOf({"list", "--bus", "1394", "--bus=usb", "--discovery-window", "0.25"}),
              "options: 1394=linux usb=linux gige=none interfaces= window=250\n");
    EXPECT_EQ(OptionsOf({"list", "--discovery-window", "30"}),
              "options: 1394=linux usb=linux gige=linux interfaces= window=30000\n");
}

TEST(Options, MayStandBeforeTheCommandAsWell) {
    EXPECT_EQ(OptionsOf({"--bus", "gige", "--interface", "lo", "--discovery-window", "0.25", "list"}),
              OptionsOf({"list", "--bus", "gige", "--interface", "lo", "--discovery-window", "0.25"}));
    EXPECT_EQ(OptionsOf({"--bus", "1394", "list", "--bus", "usb"}),
              OptionsOf({"list", "--bus", "1394", "--bus", "usb"}))
        << "each says one of them";
    const Words script{"virtual 77 Nobody Nothing"};
    EXPECT_EQ(ScriptedComputer(script).Run({"--virtual", "list"}).output,
              ScriptedComputer(script).Run({"list", "--virtual"}).output);
    const auto run = [](Words words) {
        words.insert(words.begin(), RealProgram());
        return Nimbrel2::Testing::RunProgram(words, kDeadline).output;
    };
    EXPECT_THAT(run({"--demo", "list"}), AllOf(HasSubstr("31000001"), run({"list", "--demo"})));
    const std::string rig = NIMBREL_RIGS "/firewire-chain.json";
    EXPECT_THAT(run({"--rig", rig, "list"}), AllOf(HasSubstr("Chain 1"), run({"list", "--rig", rig})));
    EXPECT_THAT(run({"--demo", "list", "--demo"}), HasSubstr("31000001"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
