// SPDX-License-Identifier: Apache-2.0
// Rigs on the command line: cameras of a rig behind the driver of a real network, and plays that are cut short.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
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
    ASSERT_TRUE(serve->WaitForOutput("held", kDeadline)) << serve->GetErrors();
    const ProgramResult list = network.RunProgram(
        {RealProgram(), "list", "--interface", "lo", "--wait", "45000001,45000002", "--timeout", "20", "--json"},
        kDeadline);
    ASSERT_EQ(list.exitStatus, 0) << list.errors;
    std::set<std::string> seen;
    const Json json = Json::parse(list.output);
    for (const Json& camera : json["cameras"]) {
        seen.insert(camera["serial_text"].get<std::string>() + " " + camera["vendor"].get<std::string>() + " " +
                    camera["ip"].get<std::string>());
    }
    EXPECT_THAT(seen, UnorderedElementsAre("45000001 Cairn 127.0.0.2", "45000002 Cairn 127.0.0.3"));
    serve->Signal(SIGINT);
    EXPECT_EQ(serve->WaitForExit(kDeadline), 0);
}

TEST(RigPlay, CtrlCEndsItWithinASecondWhileABusHangs) {
    const std::string path = ::testing::TempDir() + "slow-" + std::to_string(getpid()) + ".json";
    std::ofstream(path) << R"({
      "firewire": [{"name": "fw0", "phys": [{"name": "card", "kind": "card", "eui64": "1"}]}],
      "timeline": [{"fault": {"function": "HAL_1394GetCameras", "delayMs": 60000}}, {"busReset": "fw0"}]})";
    ChildProcess play({RealProgram(), "rig", "play", path});
    EXPECT_TRUE(play.WaitForOutput("-- reset", kDeadline)) << play.GetErrors();
    EXPECT_THAT(play.GetOutput(), HasSubstr("takes 60000 ms longer"));
    play.Signal(SIGINT);
    EXPECT_EQ(play.WaitForExit(kDeadline), 0);
    std::remove(path.c_str());
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
