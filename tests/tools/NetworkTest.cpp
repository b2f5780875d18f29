// SPDX-License-Identifier: Apache-2.0
// The command line on real sockets: independent fake cameras on the loopback interface of a network namespace.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>

#include "tests/support/NetworkNamespace.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Nimbrel2::Testing::NetworkNamespace;
using std::chrono::milliseconds;

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

const char TestReady[] = "Ctrl-C ends.\n";
/// How long a camera that comes or goes may take to be told.
constexpr milliseconds Noticed{3000};

/// Four cameras, 1001 to 1004 on 127.0.0.1 to .4.
class LoopbackCameras : public ::testing::Test {
protected:
    LoopbackCameras() {
        for (int number = 2; number <= 4; ++number) {
            m_network.Ip("addr add 127.0.0." + std::to_string(number) + "/8 dev lo");
        }
        for (int number = 1; number <= 4; ++number) {
            StartCamera(number);
        }
    }

    void StartCamera(int number) {
        const std::string address = "127.0.0." + std::to_string(number);
        m_cameras[number] =
            m_network.StartProgram({"arv-fake-gv-camera-0.8", "-i", address, "-s", std::to_string(1000 + number)});
    }

    void KillCamera(int number) { m_cameras.erase(number); }

    ProgramResult Run(const Words& arguments) {
        Words words{RealProgram()};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return m_network.RunProgram(words, TestDeadline);
    }

    std::unique_ptr<ChildProcess> Start(const Words& arguments) {
        Words words{RealProgram()};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return m_network.StartProgram(words);
    }

    NetworkNamespace m_network;
    std::map<int, std::unique_ptr<ChildProcess>> m_cameras;
};

TEST_F(LoopbackCameras, AreListedWithVendorModelSerialAddressAndGuid) {
    ASSERT_EQ(Run({"list", "--interface", "lo", "--wait", "1001,1002,1003,1004", "--timeout", "20"}).exitStatus, 0);
    const ProgramResult result = Run({"list", "--bus", "gige", "--interface", "lo", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.errors, IsEmpty());
    const Json json = Json::parse(result.output);
    std::set<std::string> seen;
    std::set<std::string> guids;
    for (const Json& camera : json["cameras"]) {
        EXPECT_EQ(camera["vendor"], "Aravis");
        EXPECT_EQ(camera["model"], "Fake");
        EXPECT_EQ(camera["interface"], "GigE");
        EXPECT_EQ(camera["serial_text"], std::to_string(camera["serial"].get<int>()));
        EXPECT_THAT(camera["guid"].get<std::string>(), MatchesRegex("([0-9a-f]{8}-){3}[0-9a-f]{8}"));
        seen.insert(camera["serial_text"].get<std::string>() + " " + camera["ip"].get<std::string>());
        guids.insert(camera["guid"].get<std::string>());
    }
    EXPECT_THAT(seen, UnorderedElementsAre("1001 127.0.0.1", "1002 127.0.0.2", "1003 127.0.0.3", "1004 127.0.0.4"));
    EXPECT_EQ(guids.size(), 4u);
    EXPECT_THAT(json["devices"], IsEmpty());
}

TEST_F(LoopbackCameras, AreNotListedWhenLoopbackIsNotNamed) {
    const ProgramResult result = Run({"list", "--discovery-window", "0.2"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, HasSubstr("No cameras found"));
    EXPECT_THAT(result.output, HasSubstr("no network interface is up"));
}

TEST(ListWithoutCameras, NamesTheNetworkInterfacesThatWereSearchedAndNoOthers) {
    NetworkNamespace network;
    network.Ip("link add v0 type veth peer name v1");
    network.Ip("link set v0 up");
    network.Ip("link set v1 up");
    const Words list{RealProgram(), "list", "--bus", "gige"};
    EXPECT_THAT(network.RunProgram(list, TestDeadline).output,
                HasSubstr("GigE: no network interface is up with a link"))
        << "they have no IPv4 address";
    network.Ip("addr add 10.1.2.3/24 dev v0");
    EXPECT_THAT(network.RunProgram(list, TestDeadline).output, HasSubstr("GigE: searched v0.\n"));
}

TEST(ListWithoutCameras, NamesWhatThereIsTooLittleOf) {
    NetworkNamespace network;
    network.Ip("link add v0 type veth peer name v1");
    network.Ip("link set v0 up");
    network.Ip("link set v1 up");
    network.Ip("addr add 10.1.2.3/24 dev v0");
    // From not enough for anything to enough for all but the cameras' own sockets.
    int numUnstarted = 0;
    int numUnsearched = 0;
    for (int limit = 5;; ++limit) {
        ASSERT_LT(limit, 100);
        const ProgramResult result =
            network.RunProgram({"sh", "-c",
                                "ulimit -n " + std::to_string(limit) + "; exec " + RealProgram() +
                                    " list --bus gige --discovery-window 0.05"},
                               TestDeadline);
        if (result.exitStatus == 0) {
            EXPECT_THAT(result.output, HasSubstr("GigE: searched v0.\n"));
            break;
        }
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.output, Not(HasSubstr("GigE: searched"))) << limit;
        EXPECT_THAT(result.output, Not(HasSubstr("no network interface is up"))) << limit;
        if (result.errors ==
            "nimbrel list: the buses cannot be searched: out of memory, threads or file descriptors\n") {
            ++numUnstarted;
        } else {
            EXPECT_THAT(result.errors, HasSubstr("is not searched: ")) << limit;
            EXPECT_THAT(result.errors, HasSubstr("Too many open files")) << limit;
            ++numUnsearched;
        }
    }
    EXPECT_GT(numUnstarted, 0);
    EXPECT_GT(numUnsearched, 0);
}

TEST_F(LoopbackCameras, AreWatchedAsTheyComeAndGo) {
    ASSERT_EQ(Run({"list", "--interface", "lo", "--wait", "1001,1002,1003,1004", "--timeout", "20"}).exitStatus, 0);
    const auto watch = Start({"watch", "--interface", "lo", "--json"});
    ASSERT_TRUE(watch->WaitForErrors(TestReady, TestDeadline));
    EXPECT_THAT(watch->GetErrors(), HasSubstr(": 4 cameras now."));
    const auto sees = [&](const std::string& kind, int serial) {
        return watch->WaitUntil(
            [&] {
                for (const Json& event : ParseLines(watch->GetOutput())) {
                    if (event["event"] == kind && event["serial"] == serial) {
                        return true;
                    }
                }
                return false;
            },
            Noticed);
    };
    KillCamera(3);
    EXPECT_TRUE(sees("removal", 1003)) << watch->GetOutput();
    StartCamera(3);
    EXPECT_TRUE(sees("arrival", 1003)) << watch->GetOutput();
    for (const Json& event : ParseLines(watch->GetOutput())) {
        if (event["event"] == "reset") {
            continue;
        }
        EXPECT_EQ(event["serial"], 1003) << "nothing happened to the others";
    }
    EXPECT_EQ(EndBy(SIGINT, *watch), 0);
}

TEST_F(LoopbackCameras, AreWaitedForUntilTheyAnswer) {
    KillCamera(2);
    const auto list = Start({"list", "--interface", "lo", "--wait", "1001,1002", "--json"});
    EXPECT_FALSE(list->WaitForOutput("1002", milliseconds(700)));
    StartCamera(2);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(list->WaitForExit(TestDeadline), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, Noticed);
    EXPECT_THAT(list->GetOutput(), HasSubstr("127.0.0.2"));
}

TEST_F(LoopbackCameras, AreListedInTheTimeThatTheUserGives) {
    ASSERT_EQ(Run({"list", "--interface", "lo", "--wait", "1001,1002,1003,1004", "--timeout", "20"}).exitStatus, 0);
    const auto start = std::chrono::steady_clock::now();
    const ProgramResult result = Run({"list", "--interface", "lo", "--discovery-window", "0.05", "--json"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1000));
    EXPECT_EQ(Json::parse(result.output)["cameras"].size(), 4u);
}

TEST_F(LoopbackCameras, LetCtrlCEndTheDiscoveryAtOnce) {
    const auto list = Start({"list", "--interface", "lo", "--discovery-window", "30"});
    // It is inside the discovery once it has a socket for it.
    const std::string socket = "pid=" + std::to_string(list->GetPid()) + ",";
    const auto deadline = std::chrono::steady_clock::now() + TestDeadline;
    while (m_network.RunProgram({"ss", "-Huanp"}).output.find(socket) == std::string::npos) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    }
    EXPECT_EQ(EndBy(SIGINT, *list), 128 + SIGINT);
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
