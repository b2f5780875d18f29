// SPDX-License-Identifier: Apache-2.0
// `nimbrel watch` on scripted buses: what it prints while things happen, how it ends.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

const char TestReady[] = "Ctrl-C ends.\n";

std::vector<Json> EventsOf(const ChildProcess& watch, const std::string& kind) {
    std::vector<Json> events;
    for (const Json& event : ParseLines(watch.GetOutput())) {
        if (event["event"] == kind) {
            events.push_back(event);
        }
    }
    return events;
}

bool WaitForEvents(ChildProcess& watch, const std::string& kind, std::size_t count) {
    return watch.WaitUntil([&] { return EventsOf(watch, kind).size() >= count; }, TestDeadline);
}

TEST(WatchAsJson, PrintsAnObjectPerLineAsThingsHappen) {
    ScriptedComputer computer({"usb 22 5000 V M"});
    const auto watch = computer.Start({"watch", "--json"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    EXPECT_THAT(watch->GetErrors(), HasSubstr("Watching IEEE 1394, USB and GigE: 1 camera now."));
    computer.Do("gige 44 10.0.0.1 V M");
    ASSERT_TRUE(WaitForEvents(*watch, "arrival", 1)) << "nothing is kept in a buffer";
    computer.Do("remove 44");
    ASSERT_TRUE(WaitForEvents(*watch, "removal", 1));
    computer.Do("remove 22");
    ASSERT_TRUE(WaitForEvents(*watch, "removal", 2));
    ASSERT_TRUE(WaitForEvents(*watch, "reset", 3)) << "one for each change";

    Json arrival = EventsOf(*watch, "arrival")[0];
    const std::string time = arrival["time"];
    EXPECT_THAT(time, MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z"));
    std::tm parts{};
    ASSERT_NE(strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr);
    EXPECT_LE(std::abs(std::difftime(timegm(&parts), std::time(nullptr))), 60);
    arrival["time"] = "";
    EXPECT_EQ(arrival["guid"].get<std::string>().size(), 35u);
    arrival["guid"] = "";
    EXPECT_EQ(arrival.dump(), R"({"event":"arrival","serial":44,"generation":1,"time":"","guid":"",)"
                              R"("interface":"GigE","vendor":"V","model":"M","ip":"10.0.0.1"})");
    EXPECT_EQ(EventsOf(*watch, "removal")[0]["ip"], "10.0.0.1") << "as it was before it left";
    EXPECT_EQ(EventsOf(*watch, "removal")[1]["interface"], "USB3");
    EXPECT_FALSE(EventsOf(*watch, "removal")[1].contains("ip"));
    EXPECT_FALSE(EventsOf(*watch, "reset")[0].contains("guid"));
    EXPECT_EQ(EventsOf(*watch, "removal")[0]["serial"], 44);
    EXPECT_EQ(EventsOf(*watch, "removal")[0]["generation"], 2);
    EXPECT_EQ(EventsOf(*watch, "removal")[1]["serial"], 22);
    EXPECT_EQ(EventsOf(*watch, "removal")[1]["generation"], 1);
    EXPECT_EQ(EventsOf(*watch, "reset")[0]["serial"], 0);
    EXPECT_EQ(EventsOf(*watch, "reset")[0]["generation"], 0);
}

TEST(WatchForPeople, CallsCamerasByTheirNamesAlsoWhenTheyHaveLeft) {
    ScriptedComputer computer({"usb 22 5000 Mill Planer"});
    const auto watch = computer.Start({"watch"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    computer.Do(R"(gige 44 10.0.0.1 \x1b[2JMill Drill)");
    ASSERT_TRUE(watch->WaitForOutput("arrival", TestDeadline));
    computer.Do("remove 22");
    ASSERT_TRUE(watch->WaitForOutput("removal", TestDeadline));
    ASSERT_TRUE(watch->WaitForOutput("Planer, USB3\n", TestDeadline));
    const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";
    const Words lines = Lines(watch->GetOutput());
    EXPECT_THAT(lines, Contains(MatchesRegex(time + "  bus reset")));
    EXPECT_THAT(lines, Contains(MatchesRegex(time + "  arrival          44  .*\\[2JMill Drill, GigE 10\\.0\\.0\\.1")));
    EXPECT_THAT(lines, Contains(MatchesRegex(time + "  removal          22  Mill Planer, USB3")));
    EXPECT_THAT(watch->GetOutput(), Not(HasSubstr("\x1b")));
}

TEST(WatchForPeople, TellsCamerasOfOneSerialNumberApart) {
    // These serial texts begin with no digit, so that all their numbers are 0.
    ScriptedComputer computer({"gige A 10.0.0.1 V First", "gige B 10.0.0.2 V Second"});
    const auto watch = computer.Start({"watch"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    computer.Do("remove B");
    ASSERT_TRUE(watch->WaitForOutput("removal           0  V Second, GigE 10.0.0.2\n", TestDeadline));
    computer.Do("gige C 10.0.0.3 V Third");
    ASSERT_TRUE(watch->WaitForOutput("arrival           0  V Third, GigE 10.0.0.3\n", TestDeadline));
    computer.Do("remove A");
    ASSERT_TRUE(watch->WaitForOutput("removal           0  V First, GigE 10.0.0.1\n", TestDeadline));
}

TEST(Watch, EndsAfterSoManyEvents) {
    ScriptedComputer computer;
    const auto watch = computer.Start({"watch", "--json", "--count", "2"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    computer.Do("usb 22 480 V M");  // three events, in any order: an arrival and the resets of two cycles
    EXPECT_EQ(watch->WaitForExit(TestDeadline), 0);
    EXPECT_EQ(Lines(watch->GetOutput()).size(), 2u);
}

TEST(Watch, EndsAfterSoManySeconds) {
    const auto start = std::chrono::steady_clock::now();
    const ProgramResult result = ScriptedComputer().Run({"watch", "--duration", "0.3"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(300));
    EXPECT_THAT(result.output, IsEmpty());
}

TEST(Watch, SaysWhichBusItCannotSee) {
    const ProgramResult result = ScriptedComputer({"fail gige 21"}).Run({"watch", "--duration", "0"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(
        result.errors,
        HasSubstr("nimbrel: GigE cannot be searched: unreachable: no route, or the network interface is down\n"));
}

/// A watch that runs on a computer whose USB cannot be searched.
class WatchOfABusThatCannotBeSearched : public ::testing::Test {
protected:
    void Start(const Words& more) {
        m_computer = std::make_unique<ScriptedComputer>(Words{"fail usb 3"});
        Words words{"watch", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        m_watch = m_computer->Start(words);
        ASSERT_TRUE(m_watch->WaitForErrors(TestReady, TestDeadline)) << m_watch->GetErrors();
        EXPECT_THAT(m_watch->GetErrors(), HasSubstr("nimbrel: USB cannot be searched: permission denied\n"));
    }

    std::unique_ptr<ScriptedComputer> m_computer;
    std::unique_ptr<ChildProcess> m_watch;
};

TEST_F(WatchOfABusThatCannotBeSearched, EndsWith1AfterItsEvents) {
    Start({"--count", "1"});
    m_computer->Do("reset gige");
    EXPECT_EQ(m_watch->WaitForExit(TestDeadline), 1);
    EXPECT_EQ(Lines(m_watch->GetOutput()).size(), 1u);
}

TEST_F(WatchOfABusThatCannotBeSearched, EndsWith1AfterItsTime) {
    Start({"--duration", "0.1"});
    EXPECT_EQ(m_watch->WaitForExit(TestDeadline), 1);
}

TEST_F(WatchOfABusThatCannotBeSearched, EndsWith1OnASignal) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Start({});
        EXPECT_EQ(EndBy(signal, *m_watch), 1) << signal;
    }
}

TEST_F(WatchOfABusThatCannotBeSearched, EndsWith1WhenItsReaderGoesAway) {
    const ScriptedComputer quiet({"fail usb 3"});
    ChildProcess idle({"bash", "-c", quiet.ShellCommandLine("watch") + " | sleep 0.2; echo ${PIPESTATUS[0]}"});
    EXPECT_EQ(idle.WaitForExit(TestDeadline), 0);
    EXPECT_EQ(idle.GetOutput(), "1\n");
    ScriptedComputer lively({"fail usb 3"});
    ChildProcess content({"bash", "-c", lively.ShellCommandLine("watch --json") + " | head -1; echo ${PIPESTATUS[0]}"});
    ASSERT_TRUE(content.WaitForErrors(TestReady, TestDeadline));
    lively.Do("reset gige");
    EXPECT_EQ(content.WaitForExit(TestDeadline), 0);
    const Words lines = Lines(content.GetOutput());
    ASSERT_EQ(lines.size(), 2u) << content.GetOutput();
    EXPECT_EQ(lines[1], "1");
}

TEST_F(WatchOfABusThatCannotBeSearched, EndsWith0WhereThatBusIsNotWanted) {
    EXPECT_EQ(ScriptedComputer({"fail usb 3"}).Run({"watch", "--duration", "0", "--bus", "gige"}).exitStatus, 0);
    EXPECT_EQ(ScriptedComputer({"without usb"}).Run({"watch", "--duration", "0"}).exitStatus, 0)
        << "no fault of the computer";
}

TEST(Watch, FailsWithTheErrorOfTheBusMasterWhenItDoesNotStart) {
    const ProgramResult result = ScriptedComputer({"fail 1394 3"}).Run({"watch"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("nimbrel watch: IEEE 1394 cannot be searched: permission denied\n"),
                                     HasSubstr("Go on without it: `--bus usb --bus gige`.")));
}

class WatchSignal : public ::testing::TestWithParam<int> {};

TEST_P(WatchSignal, EndsItCleanly) {
    ScriptedComputer computer;
    const auto watch = computer.Start({"watch", "--json"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    computer.Do("usb 22 480 V M");
    ASSERT_TRUE(WaitForEvents(*watch, "arrival", 1));
    EXPECT_EQ(EndBy(GetParam(), *watch), 0);
    EXPECT_FALSE(ParseLines(watch->GetOutput()).empty());
}

TEST_P(WatchSignal, EndsTheFirstDiscoveryAtOnce) {
    const ScriptedComputer computer({"hold 1394"});
    const auto watch = computer.Start({"watch"});
    ASSERT_TRUE(watch->WaitForErrors("listing 1394 is held", TestDeadline));
    EXPECT_EQ(EndBy(GetParam(), *watch), 128 + GetParam());
}

TEST_P(WatchSignal, EndsItWithinASecondWhileABusHangs) {
    ScriptedComputer computer;
    const auto watch = computer.Start({"watch", "--verbose"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    computer.Do("hold usb");
    computer.Do("reset gige");
    ASSERT_TRUE(watch->WaitForErrors("listing usb is held", TestDeadline));
    EXPECT_EQ(EndBy(GetParam(), *watch), 0);
    // An orderly end would wait for the bus; this one is that of a timer of 0.7 s, and says nothing any more.
    EXPECT_THAT(watch->GetErrors(), Not(HasSubstr("exit status")));
}

INSTANTIATE_TEST_SUITE_P(Signals, WatchSignal, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST(Watch, KeepsRunningOnCtrlCInTheBackgroundOfAScript) {
    // A shell without job control has its background programs ignore SIGINT, so that Ctrl-C does not reach them.
    ScriptedComputer computer;
    ChildProcess shell(
        {"sh", "-c", computer.ShellCommandLine("watch --json") + R"( & echo $! >&2; wait $!; echo status $?)"});
    ASSERT_TRUE(shell.WaitForErrors(TestReady, TestDeadline));
    const pid_t watch = std::stoi(shell.GetErrors());
    ASSERT_EQ(kill(watch, SIGINT), 0);
    computer.Do("usb 22 480 V M");
    ASSERT_TRUE(shell.WaitForOutput("arrival", TestDeadline)) << "the signal came before the camera";
    ASSERT_EQ(kill(watch, SIGTERM), 0);
    ASSERT_TRUE(shell.WaitForOutput("status 0\n", TestDeadline)) << shell.GetOutput();
}

TEST(WatchForPeople, HasColoursWhenTheyAreWanted) {
    ScriptedComputer computer;
    const auto watch = computer.Start({"watch", "--color", "always", "--count", "1"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    computer.Do("reset usb");
    EXPECT_EQ(watch->WaitForExit(TestDeadline), 0);
    EXPECT_THAT(watch->GetOutput(), HasSubstr("\x1b[2mbus reset\x1b[0m\n"));
}

TEST(Watch, KeepsRunningWithoutItsTerminalUnderNohup) {
    ScriptedComputer computer;
    Words words = computer.CommandLine({"watch", "--json"});
    words.insert(words.begin(), "nohup");
    ChildProcess watch(words);
    ASSERT_TRUE(watch.WaitForErrors(TestReady, TestDeadline));
    watch.Signal(SIGHUP);
    computer.Do("usb 22 480 V M");
    EXPECT_TRUE(WaitForEvents(watch, "arrival", 1));
}

TEST(Watch, EndsQuietlyWhenItsReaderIsContentWithTheFirstLine) {
    ScriptedComputer computer;
    ChildProcess shell({"bash", "-c", computer.ShellCommandLine("watch --json") + " | head -1; echo ${PIPESTATUS[0]}"});
    ASSERT_TRUE(shell.WaitForErrors(TestReady, TestDeadline));
    computer.Do("usb 22 480 V M");
    EXPECT_EQ(shell.WaitForExit(TestDeadline), 0);
    const Words lines = Lines(shell.GetOutput());
    ASSERT_EQ(lines.size(), 2u) << shell.GetOutput();
    EXPECT_EQ(lines[1], "0");
    EXPECT_EQ(Lines(shell.GetErrors()).size(), 1u) << shell.GetErrors();
}

TEST(Watch, EndsByItselfWhenItsReaderGoesAwayAndNothingHappens) {
    const ScriptedComputer computer;
    ChildProcess shell({"bash", "-c", computer.ShellCommandLine("watch") + " | sleep 0.2; echo ${PIPESTATUS[0]}"});
    EXPECT_EQ(shell.WaitForExit(TestDeadline), 0);
    EXPECT_EQ(shell.GetOutput(), "0\n");
}

TEST(Watch, EndsOnCtrlCWhileNobodyReadsItsOutput) {
    ScriptedComputer computer({"usb 22 480 V M"});
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_GE(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096) << "one page takes one event; the next one has to wait";
    const std::string output = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(ends[1]);
    ChildProcess watch({"sh", "-c", "exec " + computer.ShellCommandLine("watch --json") + " >" + output});
    ASSERT_TRUE(watch.WaitForErrors(TestReady, TestDeadline));
    computer.Do("remove 22");
    pollfd wait{ends[0], POLLIN, 0};
    ASSERT_EQ(poll(&wait, 1, 30000), 1);
    EXPECT_EQ(EndBy(SIGINT, watch), 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(Watch, FailsWhenStandardOutputIsFull) {
    ScriptedComputer computer;
    ChildProcess watch({"sh", "-c", "exec " + computer.ShellCommandLine("watch") + " >/dev/full"});
    ASSERT_TRUE(watch.WaitForErrors(TestReady, TestDeadline));
    computer.Do("usb 22 480 V M");
    EXPECT_EQ(watch.WaitForExit(TestDeadline), 1);
    EXPECT_THAT(watch.GetErrors(), HasSubstr("standard output cannot be written"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
