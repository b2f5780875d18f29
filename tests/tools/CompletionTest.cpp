// SPDX-License-Identifier: Apache-2.0
// What the tab key may add to a command line, before any shell has a part in it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "tests/support/NetworkNamespace.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Nimbrel2::Testing::NetworkNamespace;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

Words CommandLine(const Words& typed) {
    Words words{"complete", "--"};
    words.insert(words.end(), typed.begin(), typed.end());
    return words;
}

// The lines of an answer but the first, which tells of files.
Words Offered(const ProgramResult& result) {
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    Words lines;
    std::istringstream text(result.output);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    EXPECT_THAT(lines, ::testing::Not(IsEmpty()));
    return lines.empty() ? lines : Words(lines.begin() + 1, lines.end());
}

Words OfferedFor(const Words& typed) { return Offered(RunReal(CommandLine(typed))); }

TEST(Completion, DescribesEachCommandInOneLine) {
    EXPECT_THAT(OfferedFor({"to"}), ElementsAre("topology\tShows how the cameras are connected"));
    EXPECT_THAT(OfferedFor({"phy", ""}), ElementsAre(StartsWith("read\t"), StartsWith("write\t")));
}

TEST(Completion, DescribesCamerasAndLeavesOutThoseThatAreOnTheLineAlready) {
    EXPECT_THAT(OfferedFor({"list", "--demo", "--wait", "31000001,31"}),
                ElementsAre("31000001,31000002\tCairn G 2040, GigE 192.168.77.11"));
}

TEST(Completion, KnowsTheOptionsInFrontOfTheCommandToo) {
    EXPECT_THAT(OfferedFor({"--demo", "--bus=usb", "list", "--serial", "2"}),
                ElementsAre(StartsWith("21000101\t"), StartsWith("21000102\t"), StartsWith("20000007\t")));
}

TEST(Completion, OffersNoWordsWhereAnyTextMayStand) {
    EXPECT_THAT(OfferedFor({"simulate", "gige", "--name", ""}), IsEmpty());
    EXPECT_THAT(OfferedFor({"watch", "--duration", ""}), IsEmpty());
    EXPECT_THAT(OfferedFor({"list", "--bus", "x"}), IsEmpty());
}

TEST(Completion, SaysWhichFilesTheShellIsToAdd) {
    EXPECT_EQ(RunReal(CommandLine({"list", "--rig", "x"})).output, "files .json\n");
    EXPECT_EQ(RunReal(CommandLine({"rig", "check", ""})).output, "files .json\n");
    EXPECT_EQ(RunReal(CommandLine({"list", "--log", ""})).output, "files\n");
    EXPECT_EQ(RunReal(CommandLine({"rig", "check", "a.json", ""})).output, "-\n");
}

TEST(Completion, OffersNothingBehindAFaultThatTheCommandWillName) {
    EXPECT_THAT(OfferedFor({"list", "--rig", "no such file", "--serial", ""}), IsEmpty());
    EXPECT_THAT(OfferedFor({"list", "--bus", "nonsense", "--serial", ""}), IsEmpty());
    EXPECT_THAT(OfferedFor({"help", "nonsense", ""}), IsEmpty());
}

TEST(Completion, OffersNoTextThatATerminalMustNotShow) {
    const RigComputer computer(R"({"usb": [{"name": "xhci0", "devices": [
        {"name": "a", "parent": "xhci0", "port": 1, "serial": "33", "vendor": "V\u001b[2J", "model": "M"},
        {"name": "b", "parent": "xhci0", "port": 2, "serial": "34", "vendor": "W", "model": "M"}]}]})");
    EXPECT_THAT(OfferedFor({"list", "--rig", computer.GetPath(), "--vendor", ""}), ElementsAre("W\t"));
}

TEST(Completion, GivesUpSoonOnABusThatDoesNotAnswer) {
    const RigComputer computer(R"({
        "firewire": [{"name": "fw0", "phys": [{"name": "card", "kind": "card", "eui64": "1"}]}],
        "timeline": [{"fault": {"function": "HAL_1394GetCameras", "delayMs": 60000}}]})");
    const ProgramResult result = computer.Run(CommandLine({"control", ""}));
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, IsEmpty());
}

TEST(Completion, OffersWhatAQuickLookAtTheNetworkFinds) {
    NetworkNamespace network;
    const auto near = network.StartProgram({RealProgram(), "simulate", "gige", "--serial", "1001"});
    ASSERT_TRUE(near->WaitForOutput("serial 1001", TestDeadline)) << near->GetErrors();
    const auto offered = [&network](const Words& typed) {
        Words words{RealProgram()};
        const Words rest = CommandLine(typed);
        words.insert(words.end(), rest.begin(), rest.end());
        return Offered(network.RunProgram(words, TestDeadline));
    };
    // A look is short, and a busy computer slow.
    const auto end = std::chrono::steady_clock::now() + TestDeadline;
    Words serials;
    while (serials.empty() && std::chrono::steady_clock::now() < end) {
        serials = offered({"list", "--interface", "lo", "--wait", ""});
    }
    EXPECT_THAT(serials, ElementsAre(StartsWith("1001\t")));
    Words macs;
    while (macs.empty() && std::chrono::steady_clock::now() < end) {
        macs = offered({"force-ip", "--interface", "lo", "--mac", "02:"});
    }
    EXPECT_THAT(macs, ElementsAre(StartsWith("02:00:7f:00:00:02\t")));
    EXPECT_THAT(offered({"list", "--interface", ""}), Contains("lo\t"));
}

TEST(Completion, IsNoCommandThatHelpShows) {
    EXPECT_THAT(RunReal({"help"}).output, ::testing::Not(::testing::HasSubstr("complete")));
    EXPECT_THAT(RunReal({"complet"}).errors, ::testing::Not(::testing::HasSubstr("complete?")));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
