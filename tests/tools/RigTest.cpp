// SPDX-License-Identifier: Apache-2.0
// Rigs on the command line: cameras of a rig behind the driver of a real network, and plays that are cut short.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "tests/support/NetworkNamespace.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Nimbrel2::Testing::NetworkNamespace;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

TEST(RigServe, PutsTheGigECamerasOfARigWhereTheRealDriverFindsThem) {
    NetworkNamespace network;
    const auto serve = network.StartProgram({RealProgram(), "rig", "serve", NIMBREL_RIGS "/faulty.json"});
    ASSERT_TRUE(serve->WaitForOutput("held", TestDeadline)) << serve->GetErrors();
    const ProgramResult list = network.RunProgram(
        {RealProgram(), "list", "--interface", "lo", "--wait", "45000001,45000002", "--timeout", "20", "--json"},
        TestDeadline);
    ASSERT_EQ(list.exitStatus, 0) << list.errors;
    std::set<std::string> seen;
    const Json json = Json::parse(list.output);
    for (const Json& camera : json["cameras"]) {
        seen.insert(camera["serial_text"].get<std::string>() + " " + camera["vendor"].get<std::string>() + " " +
                    camera["ip"].get<std::string>());
    }
    EXPECT_THAT(seen, UnorderedElementsAre("45000001 Cairn 127.0.0.2", "45000002 Cairn 127.0.0.3"));
    serve->Signal(SIGINT);
    EXPECT_EQ(serve->WaitForExit(TestDeadline), 0);
}

TEST(RigPlay, CtrlCEndsItWithinASecondWhileABusHangs) {
    const std::string path = ::testing::TempDir() + "slow-" + std::to_string(getpid()) + ".json";
    std::ofstream(path) << R"({
      "firewire": [{"name": "fw0", "phys": [{"name": "card", "kind": "card", "eui64": "1"}]}],
      "timeline": [{"fault": {"function": "HAL_1394GetCameras", "delayMs": 60000}}, {"busReset": "fw0"}]})";
    ChildProcess play({RealProgram(), "rig", "play", path});
    EXPECT_TRUE(play.WaitForOutput("-- reset", TestDeadline)) << play.GetErrors();
    EXPECT_THAT(play.GetOutput(), HasSubstr("takes 60000 ms longer"));
    play.Signal(SIGINT);
    EXPECT_EQ(play.WaitForExit(TestDeadline), 128 + SIGINT) << "the play was cut short";
    std::remove(path.c_str());
}

TEST(RigPlay, IsEndedBySigtermWithItsStatusWhileItWaitsForAStep) {
    const std::string path = ::testing::TempDir() + "later-" + std::to_string(getpid()) + ".json";
    std::ofstream(path) << R"({"gige": [{"name": "e", "address": "10.0.0.1/8"}],
                               "timeline": [{"link": {"interface": "e", "up": false}},
                                            {"at": 600, "link": {"interface": "e", "up": true}}]})";
    ChildProcess play({RealProgram(), "rig", "play", path});
    EXPECT_TRUE(play.WaitForOutput("-- ", TestDeadline)) << play.GetErrors();
    play.Signal(SIGTERM);
    EXPECT_EQ(play.WaitForExit(TestDeadline), 128 + SIGTERM);
    std::remove(path.c_str());
}

TEST(RigServe, EndsWhenItsReaderIsGone) {
    NetworkNamespace network;
    const ProgramResult result =
        network.RunProgram({"bash", "-c", RealProgram() + " rig serve | head -1; echo ${PIPESTATUS[0]}"}, TestDeadline);
    EXPECT_EQ(result.output, "127.0.0.2  gate\n0\n");
}

TEST(RigServe, IgnoresCtrlCInTheBackgroundOfAScript) {
    NetworkNamespace network;
    const auto shell =
        network.StartProgram({"sh", "-c", RealProgram() + " rig serve & echo pid $!; wait $!; echo status $?"});
    ASSERT_TRUE(shell->WaitForOutput("gate", TestDeadline)) << shell->GetErrors();
    ASSERT_TRUE(shell->WaitForOutput("pid ", TestDeadline));
    const std::string output = shell->GetOutput();
    const pid_t serve = std::stoi(output.substr(output.find("pid ") + 4));
    std::ifstream file("/proc/" + std::to_string(serve) + "/status");
    const std::string status{std::istreambuf_iterator<char>(file), {}};
    const std::size_t ignored = status.find("SigIgn:");
    ASSERT_NE(ignored, std::string::npos);
    EXPECT_EQ(std::stoull(status.substr(ignored + 7), nullptr, 16) >> (SIGINT - 1) & 1, 1u);
    ASSERT_EQ(kill(serve, SIGINT), 0);
    ASSERT_EQ(kill(serve, SIGTERM), 0);
    ASSERT_TRUE(shell->WaitForOutput("status 0\n", TestDeadline)) << shell->GetOutput();
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
