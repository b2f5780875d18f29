// SPDX-License-Identifier: Apache-2.0
// `nimbrel rig play`, `nimbrel rig check` and --rig, run on files as users write them. One thread a test; no lock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

// A rig in a file of its own, until the end of the test.
class RigOnDisk {
public:
    explicit RigOnDisk(const std::string& text) { std::ofstream(m_path) << text; }
    ~RigOnDisk() { std::remove(m_path.c_str()); }

    RigOnDisk(const RigOnDisk&) = delete;
    RigOnDisk& operator=(const RigOnDisk&) = delete;

    const std::string& Path() const { return m_path; }

    /// The program on it, whose name comes after those words.
    ProgramResult Run(Words words) const {
        words.insert(words.begin(), RealProgram());
        words.push_back(m_path);
        return Nimbrel2::Testing::RunProgram(words, TestDeadline);
    }

private:
    const std::string m_path = ::testing::TempDir() + "rig-tool-" + std::to_string(getpid()) + ".json";
};

std::string WithTimeline(const std::string& timeline, const std::string& end = "") {
    return R"({"gige": [{"name": "e", "address": "192.168.77.1/24", "cameras": [
        {"name": "a", "mac": "02:00:00:00:00:01", "address": "192.168.77.2/24", "serial": "5"},
        {"name": "b", "mac": "02:00:00:00:00:02", "address": "192.168.77.3/24", "serial": "6"},
        {"name": "c", "mac": "02:00:00:00:00:03", "address": "192.168.77.4/24", "serial": "7"}]}],
        "timeline": [)" +
           timeline + "]" + (end.empty() ? "" : ", \"end\": {\"cameras\": [" + end + "]}") + "}";
}

const Words InBothModes[] = {{"rig", "play"}, {"rig", "play", "--fast"}};

TEST(RigPlay, FindsAnAwaitedEventThatCameBeforeTheStepsBetween) {
    const RigOnDisk rig(WithTimeline(R"({"unplug": "a"}, {"release": "b"},
        {"after": {"event": "removal", "serial": 5}, "plug": "a"})",
                                     "5, 6, 7"));
    for (const Words& words : InBothModes) {
        const ProgramResult result = rig.Run(words);
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_THAT(result.output, HasSubstr("3 cameras, as the file says"));
    }
}

// Callbacks overtake each other, so nothing may depend on their order.
TEST(RigPlay, FindsEventsOfOneStepInAnyOrder) {
    const RigOnDisk rig(WithTimeline(R"({"link": {"interface": "e", "up": false}},
        {"after": {"event": "removal", "serial": 7}, "release": "a"},
        {"after": {"event": "removal", "serial": 5}, "release": "a"},
        {"after": {"event": "removal"}, "link": {"interface": "e", "up": true}},
        {"after": {"event": "arrival", "serial": 6}, "unplug": "b"},
        {"after": {"event": "removal", "serial": 6}, "plug": "b"})",
                                     "7, 6, 5"));
    for (const Words& words : InBothModes) {
        const ProgramResult result = rig.Run(words);
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
    }
}

TEST(RigPlay, FindsEachEventOnce) {
    const RigOnDisk rig(WithTimeline(R"({"unplug": "a"}, {"after": {"event": "removal", "serial": 5}, "plug": "a"},
        {"after": {"event": "removal", "serial": 5}, "unplug": "a"})"));
    const ProgramResult result = rig.Run({"rig", "play", "--fast"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errors, "nimbrel rig play: " + rig.Path() + ": /timeline/2/after: this event did not happen\n");
}

TEST(RigPlay, EndsWithTheSerialNumbersThatAreMissingAndTooMany) {
    const RigOnDisk rig(WithTimeline("", "6, 8, 9, 7, 7"));
    for (const Words& words : InBothModes) {
        const ProgramResult result = rig.Run(words);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.errors, "nimbrel rig play: " + rig.Path() +
                                     ": /end/cameras: the final state differs: missing 7, 8 and 9; unexpected 5\n");
    }
}

TEST(RigPlay, WarnsOfAFaultThatNeverHappened) {
    const RigOnDisk rig(WithTimeline(R"({"fault": {"function": "HAL_GvcpDiscovery", "status": 3}},
        {"fault": {"function": "HAL_GigEGetCameras", "status": 3, "call": 3}}, {"unplug": "a"})"));
    const ProgramResult result = rig.Run({"rig", "play", "--fast"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(Lines(result.errors).front(), "nimbrel rig play: warning: " + rig.Path() +
                                                ": the fault of HAL_GvcpDiscovery did not happen: 1 more call needed");
    const RigOnDisk met(WithTimeline(R"({"fault": {"function": "HAL_CleanupLibrary"}})"));
    EXPECT_EQ(met.Run({"rig", "play", "--fast"}).errors, "") << "the end of the play may meet a fault";
}

TEST(RigPlay, WaitsForNoTimeOfTheFileWhenItIsFast) {
    constexpr int Steps = 100;
    std::string steps;
    for (int i = 0; i < Steps; ++i) {
        steps += std::string(i == 0 ? "" : ",") + R"({"at": )" + std::to_string(i) +
                 (i % 2 == 0 ? R"(, "unplug": "a"})" : R"(, "plug": "a"})");
    }
    static_assert(std::chrono::seconds(Steps) > TestDeadline, "the steps are a second apart");
    const RigOnDisk rig(WithTimeline(steps, "5, 6, 7"));
    const ProgramResult result = rig.Run({"rig", "play", "--fast", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    const std::vector<Json> events = ParseLines(result.output);
    EXPECT_EQ(std::count_if(events.begin(), events.end(), [](const Json& event) { return event["event"] != "reset"; }),
              Steps);
}

TEST(RigCheck, NamesItselfTheFileThePlaceAndTheReason) {
    const RigOnDisk rig(WithTimeline(R"({"at": 2, "unplug": "a"}, {"at": 1, "plug": "a"})"));
    const ProgramResult result = rig.Run({"rig", "check"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errors, "nimbrel rig check: " + rig.Path() +
                                 ": /timeline/1/at: 1 s is before an earlier step, which is at 2 s\n");
}

TEST(RigCheck, RehearsesTheTimelineDownToTheAction) {
    const RigOnDisk rig(WithTimeline(R"({"unplug": "a"}, {"unplug": "a"})"));
    EXPECT_THAT(rig.Run({"rig", "check"}).errors, HasSubstr(": /timeline/1/unplug: \"a\" is not plugged in"));
}

TEST(RigCheck, KeepsControlCharactersOfAFileFromTheTerminal) {
    const RigOnDisk rig("{\"a\\u001b[31m\\n\": 1}");
    for (const Words& words : {Words{"rig", "check"}, Words{"list", "--rig"}}) {
        const ProgramResult result = rig.Run(words);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.errors, AllOf(HasSubstr("unknown key\n"), Not(HasSubstr("\033"))));
        EXPECT_EQ(Lines(result.errors).size(), 1U) << result.errors;
    }
}

TEST(RigCheck, NeedsAFileAndSaysSo) {
    const ProgramResult result = Nimbrel2::Testing::RunProgram({RealProgram(), "rig", "check", "--help"}, TestDeadline);
    EXPECT_THAT(result.output, AllOf(HasSubstr("REQUIRED"), Not(HasSubstr("built-in"))));
}

TEST(ListOnARig, NamesTheRigsOwnInterfaces) {
    const RigOnDisk rig(R"({"gige": [{"name": "ringed", "address": "10.0.0.1/8"}]})");
    EXPECT_THAT(rig.Run({"list", "--rig"}).output, HasSubstr("GigE: searched ringed.\n"));
}

TEST(ListOnARig, SaysThatNoneIsUp) {
    const RigOnDisk rig(R"({"gige": [{"name": "ringed", "address": "10.0.0.1/8", "up": false}]})");
    const ProgramResult result = rig.Run({"list", "--rig"});
    EXPECT_THAT(result.output, HasSubstr("GigE: the rig has no network interface that is up.\n"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
