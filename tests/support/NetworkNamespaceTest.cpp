// SPDX-License-Identifier: Apache-2.0
// The tests' own networks and programs do what the tests that use them rely on.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Testing {
namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;

ino_t NamespaceOfThisThread() {
    struct stat status {};
    EXPECT_EQ(stat("/proc/thread-self/ns/net", &status), 0);
    return status.st_ino;
}

std::vector<std::string> Interfaces() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net"))
        names.push_back(entry.path().filename());
    return names;
}

TEST(NetworkNamespace, HasNothingButLoopbackWhenItIsNew) {
    NetworkNamespace network;
    network.Run([] { EXPECT_THAT(Interfaces(), ::testing::ElementsAre("lo")); });
    EXPECT_THAT(network.RunProgram({"ip", "-o", "link"}).output, HasSubstr("LOOPBACK,UP"));
}

TEST(NetworkNamespace, HoldsWhatIsStartedInsideButNotItsMaker) {
    const ino_t outside = NamespaceOfThisThread();
    NetworkNamespace network;
    ino_t inside = 0;
    network.Run([&] { inside = NamespaceOfThisThread(); });
    ino_t thread = 0;
    network.StartThread([&] { thread = NamespaceOfThisThread(); }).join();
    const ProgramResult program = network.RunProgram({"stat", "-L", "-c", "%i", "/proc/self/ns/net"});
    EXPECT_NE(inside, outside);
    EXPECT_EQ(thread, inside);
    EXPECT_EQ(program.output, std::to_string(inside) + "\n");
    EXPECT_EQ(NamespaceOfThisThread(), outside);
}

TEST(NetworkNamespace, LetsExceptionsOut) {
    NetworkNamespace network;
    EXPECT_THROW(network.Run([] { throw std::logic_error("inside"); }), std::logic_error);
    EXPECT_THROW(network.Ip("link set nowhere up"), std::runtime_error);
    EXPECT_THROW(network.RunProgram({"/nowhere/to/be/found"}), std::system_error);
    network.Run([] {});
}

TEST(NetworkNamespace, IsJoinedToAnotherByACable) {
    NetworkNamespace host;
    NetworkNamespace camera;
    Connect(host, "h0", camera, "c0");
    host.Ip("addr add 192.168.77.1/24 dev h0");
    camera.Ip("addr add 192.168.77.2/24 dev c0");
    int receiver = -1;
    camera.Run([&] { receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(4000);
    address.sin_addr.s_addr = inet_addr("192.168.77.2");
    ASSERT_EQ(bind(receiver, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    const timeval limit{10, 0};
    setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    host.Run([&] {
        const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(sendto(sender, "hello", 5, 0, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 5);
        close(sender);
    });
    char buffer[8] = {};
    EXPECT_EQ(recv(receiver, buffer, sizeof(buffer), 0), 5);
    EXPECT_STREQ(buffer, "hello");
    close(receiver);
}

TEST(NetworkNamespace, TakesSystemControlsOfItsOwn) {
    NetworkNamespace network;
    network.SetSystemControl("net/ipv4/conf/all/rp_filter", "2");
    EXPECT_EQ(network.RunProgram({"cat", "/proc/sys/net/ipv4/conf/all/rp_filter"}).output, "2\n");
    EXPECT_THROW(network.SetSystemControl("net/ipv4/conf/nowhere/rp_filter", "2"), std::runtime_error);
}

TEST(ChildProcess, TellsOutputErrorsAndExitStatus) {
    const ProgramResult result = RunProgram({"sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.errors, "err\n");
}

TEST(ChildProcess, ReadsMoreThanAPipeHolds) {
    const ProgramResult result = RunProgram({"head", "-c", "1000000", "/dev/zero"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output.size(), 1000000u);
}

TEST(ChildProcess, WaitsForATextAndEndsBySignal) {
    ChildProcess child({"sh", "-c", "echo ready; exec sleep 100"});
    EXPECT_TRUE(child.WaitForOutput("ready", seconds(10)));
    child.Signal(SIGTERM);
    EXPECT_EQ(child.WaitForExit(seconds(10)), 128 + SIGTERM);
    EXPECT_FALSE(child.WaitForOutput("never", seconds(10))) << "the end of the program ends the wait";
}

TEST(ChildProcess, IsKilledWhenItDoesNotEndInTime) {
    EXPECT_EQ(RunProgram({"sleep", "100"}, std::chrono::milliseconds(50)).exitStatus, 128 + SIGKILL);
    pid_t pid = 0;
    {
        ChildProcess child({"sleep", "100"});
        pid = child.GetPid();
    }
    EXPECT_EQ(kill(pid, 0), -1) << "gone and reaped";
}

}  // namespace
}  // namespace Nimbrel2::Testing
