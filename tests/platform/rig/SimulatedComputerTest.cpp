// SPDX-License-Identifier: Apache-2.0
// What an application's own tests do with a simulated computer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

#include "busmaster/BusMaster.h"
#include "platform/SimulatedComputer.h"

namespace Nimbrel2::Platform {
namespace {

constexpr char OneCamera[] = R"({"gige": [{"name": "eth0", "address": "192.168.77.1/24", "cameras": [
    {"name": "one", "mac": "02:00:00:00:00:01", "address": "192.168.77.10/24", "serial": "1001"}]}]})";

std::string Thrown(const std::function<void()>& what) {
    try {
        what();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "nothing";
}

TEST(SimulatedComputer, IsWhatTheBusMasterSees) {
    SimulatedComputer computer = SimulatedComputer::Parse(OneCamera, "one camera");
    ASSERT_TRUE(Configure(computer.MakeOptions()));
    BusMaster busMaster;
    ASSERT_EQ(busMaster.Initialize().GetType(), ERROR_OK);
    ASSERT_TRUE(busMaster.WaitUntilQuiet(10000));
    const auto count = [&busMaster] {
        EXPECT_TRUE(WaitUntilEventsAreDelivered(std::chrono::seconds(10)));
        EXPECT_TRUE(busMaster.WaitUntilQuiet(10000));
        unsigned int cameras = 99;
        busMaster.GetNumOfCameras(&cameras);
        return cameras;
    };
    EXPECT_EQ(count(), 1U);
    computer.Perform(R"({"unplug": "one"})");
    EXPECT_EQ(count(), 0U);
    SimulatedComputer copy = computer;
    copy.Perform(R"({"plug": "one"})");
    EXPECT_EQ(count(), 1U) << "a copy is the same computer";
}

TEST(SimulatedComputer, HasCamerasOnAllBusesWhenBuiltIn) {
    ASSERT_TRUE(Configure(SimulatedComputer::BuiltIn().MakeOptions())) << "it lives on in the options";
    BusMaster busMaster;
    ASSERT_EQ(busMaster.Initialize().GetType(), ERROR_OK);
    TopologyNode tree;
    ASSERT_EQ(busMaster.GetTopology(&tree).GetType(), ERROR_OK);
    EXPECT_GE(tree.GetNumChildren(), 3U);
}

TEST(SimulatedComputer, SaysWhyATextIsNoAction) {
    SimulatedComputer computer = SimulatedComputer::Parse(OneCamera, "one camera");
    const auto perform = [&computer](const char* action) { return Thrown([&] { computer.Perform(action); }); };
    EXPECT_EQ(perform(R"({"unplug": "two"})"), R"({"unplug": "two"}: /unplug: the rig has no device named "two")");
    EXPECT_EQ(perform("{}"), "{}: a step is exactly one action, it has none");
    EXPECT_EQ(perform(R"({"unplug": "one", "plug": "one"})"),
              R"({"unplug": "one", "plug": "one"}: a step is exactly one action, it has 2)");
    EXPECT_THAT(perform(R"({"at": 1, "unplug": "one"})"), testing::HasSubstr("at")) << "it happens now";
    EXPECT_THROW(computer.Perform("{"), std::runtime_error);
    EXPECT_THROW(computer.Perform(R"({"plug": "one"})"), std::logic_error);
    EXPECT_EQ(perform(R"({"plug": "one"})"), R"({"plug": "one"}: "one" is plugged in already)");
}

TEST(SimulatedComputer, SaysWhyAFileIsNone) {
    EXPECT_EQ(Thrown([] { SimulatedComputer::ReadFile("no such file"); }),
              "no such file: cannot be opened: No such file or directory");
    EXPECT_EQ(Thrown([] { SimulatedComputer::Parse(R"({"gige": 1})", "mine"); }).substr(0, 12), "mine: /gige:");
}

}  // namespace
}  // namespace Nimbrel2::Platform
