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
    for (const std::string& word : GetParam().named) {
        EXPECT_THAT(result.errors, HasSubstr(word));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Wrong, Usage,
    ::testing::Values(
        WrongUsage{"NoCommand", {}, {"a command is missing", "--help"}},
        WrongUsage{"CutCommand", {"lis"}, {"unknown command 'lis'; did you mean list?"}},
        WrongUsage{"MisspeltCommand", {"lsit", "--json"}, {"unknown command 'lsit'; did you mean list?"}},
        WrongUsage{"CommandLikeNoOther", {"grab"}, {"unknown command 'grab'\n"}},
        WrongUsage{
            "MisspeltRigCommand", {"rig", "plya", "x"}, {"nimbrel rig: unknown command 'plya'; did you mean play?"}},
        WrongUsage{"RigCommandLikeNoOther",
                   {"rig", "burn"},
                   {"unknown command 'burn'; rig has check, play, serve, schema and demo"}},
        WrongUsage{"RigCommandMissing", {"rig"}, {"a command is missing: check, play, serve, schema or demo"}},
        WrongUsage{"MisspeltPhyCommand", {"phy", "raed", "17"}, {"unknown command 'raed'; did you mean read?"}},
        WrongUsage{"MisspeltSimulation", {"simulate", "gig"}, {"unknown command 'gig'; did you mean gige?"}},
        WrongUsage{"HelpOfAMisspeltCommand", {"help", "lis"}, {"unknown command 'lis'; did you mean list?"}},
        WrongUsage{"HelpOfAMisspeltRigCommand", {"help", "rig", "plya"}, {"did you mean play?"}},
        WrongUsage{"OptionOfACommandBeforeIt", {"--json", "list"}, {"unknown option --json", "nimbrel list --json"}},
        WrongUsage{"TwoCommands", {"list", "watch"}, {"watch"}},
        WrongUsage{"UnknownOption", {"list", "--jsno"}, {"unknown option --jsno; did you mean --json?"}},
        WrongUsage{"UnexpectedWord", {"watch", "19340211"}, {"19340211"}},
        WrongUsage{"UnknownBus", {"list", "--bus", "can"}, {"--bus", "\"can\"", "1394, usb or gige"}},
        WrongUsage{"TwoBusesAfterOneOption", {"list", "--bus", "usb", "gige"}, {"gige"}},
        WrongUsage{"ValueMissing", {"list", "--discovery-window"}, {"--discovery-window"}},
        WrongUsage{
            "WindowTooShort", {"list", "--discovery-window", "0.009"}, {"--discovery-window", "\"0.009\"", "0.01 s"}},
        WrongUsage{
            "WindowTooLong", {"watch", "--discovery-window", "30.1"}, {"--discovery-window", "\"30.1\"", "30 s"}},
        WrongUsage{"WindowWithComma", {"list", "--discovery-window", "0,2"}, {"--discovery-window", "\"0,2\""}},
        WrongUsage{"WindowNotANumber", {"list", "--discovery-window", "nan"}, {"--discovery-window", "\"nan\""}},
        WrongUsage{"WindowInfinite", {"list", "--discovery-window", "inf"}, {"--discovery-window", "\"inf\""}},
        WrongUsage{"PortAlone", {"list", "--source-port", "50000"}, {"--source-port: \"50000\" is not two UDP ports"}},
        WrongUsage{"PortsReversed", {"list", "--source-port", "50009-50000"}, {"--source-port", "the lower one first"}},
        WrongUsage{"PortsOfAdministrators", {"list", "--source-port", "1000-1100"}, {"--source-port", "1024"}},
        WrongUsage{"PortsBeyondTheLast", {"list", "--source-port", "65000-65536"}, {"--source-port", "65535"}},
        WrongUsage{"TooFewPorts",
                   {"list", "--source-port", "50000-50003"},
                   {"--source-port: \"50000-50003\" has 4 ports; each network interface needs 4"}},
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
        WrongUsage{"FormatUnknown", {"topology", "--format", "gif"}, {"--format", "\"gif\"", "text, json, dot, svg"}},
        WrongUsage{
            "FormatTwice", {"topology", "--format", "svg", "--format", "dot"}, {"--format", "\"svg\"", "\"dot\""}},
        WrongUsage{"FormatAndJson", {"topology", "--json", "--format", "svg"}, {"--json", "--format"}},
        WrongUsage{"OutputMissing", {"topology", "--output"}, {"--output"}},
        WrongUsage{"DemoAndNoCommand", {"--demo"}, {"a command is missing", "--help"}},
        WrongUsage{"DemoBeforeACommandWithoutBuses", {"--demo", "simulate", "gige"}, {"simulate", "--demo"}},
        WrongUsage{"RigBeforeACommandWithoutBuses", {"--rig", "x", "rig", "check", "y"}, {"rig", "--rig"}},
        WrongUsage{"RigBeforeAndAfter", {"--rig", "x", "list", "--rig", "y"}, {"--rig", "before", "after"}},
        WrongUsage{"RigBeforeAndDemoAfter", {"--rig", "x", "list", "--demo"}, {"--rig", "--demo"}},
        WrongUsage{"WindowBeforeAndAfter",
                   {"--discovery-window", "1", "list", "--discovery-window", "1"},
                   {"--discovery-window"}},
        WrongUsage{"UnknownBusBefore", {"--bus", "can", "list"}, {"--bus", "\"can\""}},
        WrongUsage{"UnknownOptionBefore", {"--dmeo", "list"}, {"unknown option --dmeo; did you mean --demo?"}},
        WrongUsage{
            "UnknownColumn", {"list", "--columns", "serial,modle"}, {"--columns", "\"modle\"", "did you mean model?"}},
        WrongUsage{
            "NoColumn", {"list", "--columns", "colour"}, {"\"colour\" is not a column; there are index, serial,"}},
        WrongUsage{"UnknownSortKey", {"list", "--sort", "-sped"}, {"--sort", "\"sped\"", "did you mean speed?"}},
        WrongUsage{"ColumnsAndLong", {"list", "--long", "--columns", "serial"}, {"--long", "--columns"}},
        WrongUsage{"UnknownColour", {"list", "--color", "red"}, {"--color", "\"red\"", "auto, always or never"}},
        WrongUsage{"MaskTwice",
                   {"force-ip", "--mac", "02:00:00:00:09:01", "--ip", "10.0.0.1/8", "--mask", "/8"},
                   {"--mask", "--ip"}},
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
    for (std::string word; command >> word;) {
        words.push_back(word);
    }
    words.emplace_back("--help");
    const ProgramResult result = Nimbrel2::Testing::RunProgram(words);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_THAT(result.output, AllOf(HasSubstr("Exit status:"), HasSubstr("Examples:"), HasSubstr("--help")));
    for (const std::string& line : Lines(result.output)) {
        EXPECT_LE(line.size(), 80u) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Commands, Help,
                         ::testing::Values("", "list", "topology", "watch", "discover", "force-ip", "auto-ip",
                                           "control", "reset", "phy", "phy read", "phy write", "usb-link", "usb-port",
                                           "rescan", "doctor", "help", "rig", "simulate", "simulate gige"),
                         [](const auto& test) {
                             std::string name = *test.param == '\0' ? "program" : test.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

TEST(Help, OfACommandIsTheSameByEitherWay) {
    const std::vector<Words> commands{{"list"}, {"rig", "play"}, {"simulate", "gige"}, {"phy", "read"}};
    for (const Words& command : commands) {
        Words asCommand{"help"};
        asCommand.insert(asCommand.end(), command.begin(), command.end());
        Words asOption = command;
        asOption.emplace_back("--help");
        EXPECT_EQ(RunReal(asCommand).output, RunReal(asOption).output);
        EXPECT_THAT(RunReal(asCommand).output, HasSubstr("Usage: nimbrel"));
    }
    EXPECT_EQ(RunReal({"help"}).output, RunReal({"--help"}).output);
}

TEST(Help, OfACommandThatThereIsNotNamesItAndTheNearest) {
    const std::vector<std::pair<Words, std::string>> rows{
        {{"lis", "--help"}, "nimbrel: unknown command 'lis'; did you mean list?\nTry `nimbrel --help`.\n"},
        {{"--help", "rescam"}, "nimbrel: unknown command 'rescam'; did you mean rescan?\nTry `nimbrel --help`.\n"},
        {{"rig", "pla", "--help"},
         "nimbrel rig: unknown command 'pla'; did you mean play?\nTry `nimbrel rig --help`.\n"}};
    for (const auto& [words, errors] : rows) {
        const ProgramResult result = RunReal(words);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.errors, errors);
        EXPECT_THAT(result.output, IsEmpty());
    }
}

TEST(Help, HasNoTwoEmptyLinesInARow) { EXPECT_THAT(RunReal({"--help"}).output, ::testing::Not(HasSubstr("\n\n\n"))); }

TEST(Version, IsPrintedAlone) {
    for (const char* option : {"--version", "-V"}) {
        const ProgramResult result = RunReal({option});
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.output, "nimbrel " NIMBREL2_VERSION "\n");
        EXPECT_THAT(result.errors, IsEmpty());
    }
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

TEST(BusesWithoutDriver, AreNamedByEachCommandThatSearchesThem) {
    const Words script{"without 1394", "without usb", "gige 44 10.1.2.3 Mill Drill"};
    const std::string note = "this build of nimbrel cannot search IEEE 1394 or USB: it has no driver for them.\n";
    const ProgramResult list = ScriptedComputer(script).Run({"list"});
    EXPECT_EQ(list.exitStatus, 0);
    EXPECT_EQ(list.errors, "nimbrel list: " + note);
    EXPECT_EQ(Json::parse(ScriptedComputer(script).Run({"list", "--json"}).output)["searched"].dump(), R"(["gige"])");
    EXPECT_THAT(ScriptedComputer(script).Run({"watch", "--duration", "0"}).errors,
                AllOf(HasSubstr("nimbrel watch: " + note), HasSubstr("Watching GigE: 1 camera now.")));
    const ProgramResult rescan = ScriptedComputer(script).Run({"rescan"});
    EXPECT_EQ(rescan.errors, "nimbrel rescan: " + note);
    EXPECT_EQ(rescan.output, "Enumerated again: 1 camera on GigE.\n");
    EXPECT_EQ(ScriptedComputer(script).Run({"topology"}).errors, "nimbrel topology: " + note);
    EXPECT_THAT(ScriptedComputer(script).Run({"reset", "17"}).errors, HasSubstr("nimbrel reset: " + note));
    EXPECT_THAT(ScriptedComputer({"without usb"}).Run({"list"}).output,
                HasSubstr("No cameras found on IEEE 1394 or GigE."));
}

TEST(BusesWithoutDriver, FailWhenTheyAreAllThatIsWanted) {
    const ProgramResult result = ScriptedComputer({"without usb"}).Run({"list", "--bus", "usb"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errors, "nimbrel list: this build of nimbrel cannot search USB: it has no driver for it\n");
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
        return Nimbrel2::Testing::RunProgram(words, TestDeadline).output;
    };
    EXPECT_THAT(run({"--demo", "list"}), AllOf(HasSubstr("31000001"), run({"list", "--demo"})));
    const std::string rig = NIMBREL_RIGS "/firewire-chain.json";
    EXPECT_THAT(run({"--rig", rig, "list"}), AllOf(HasSubstr("Chain 1"), run({"list", "--rig", rig})));
    EXPECT_THAT(run({"--demo", "list", "--demo"}), HasSubstr("31000001"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
