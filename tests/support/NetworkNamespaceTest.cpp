// SPDX-License-Identifier: Apache-2.0
// The tests' own networks and programs do what the tests that use them rely on.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>

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
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net")) {
        names.push_back(entry.path().filename());
    }
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

void Check(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// A folder with this computer's programs, and nothing in sys. Removed with the object, which nothing may be mounted
/// below by then.
class ProgramFolder {
public:
    ProgramFolder() : m_path(std::filesystem::temp_directory_path() / "nimbrel2-chroot-XXXXXX") {
        Check(mkdtemp(m_path.data()) != nullptr, "mkdtemp");
        for (const char* name : {"proc", "sys"}) {
            std::filesystem::create_directory(m_path + "/" + name);
        }
        for (const char* name : {"bin", "etc", "lib", "lib64", "sbin", "usr"}) {
            const std::filesystem::path original = std::string("/") + name;
            if (std::filesystem::is_symlink(original)) {
                std::filesystem::copy_symlink(original, m_path + original.string());
            } else if (std::filesystem::is_directory(original)) {
                std::filesystem::create_directory(m_path + original.string());
            }
        }
    }
    // Not remove_all: a mount that was left would take the programs with it.
    ~ProgramFolder() {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator(m_path, ignored)) {
            std::filesystem::remove(entry.path(), ignored);
        }
        std::filesystem::remove(m_path, ignored);
    }
    ProgramFolder(const ProgramFolder&) = delete;
    ProgramFolder& operator=(const ProgramFolder&) = delete;

    /// For the calling thread the folder becomes "/", which then is no mount point; what is mounted in it on the way is
    /// the thread's own. Mounts made later below it do spread to whoever copies the thread's mounts, as on most
    /// computers.
    void BecomeRoot() const {
        Check(unshare(CLONE_NEWNS) == 0, "unshare");
        SetMountPropagation(MS_PRIVATE);
        for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
            const std::string name = entry.path().filename();
            if (entry.is_symlink() || name == "sys") {
                continue;
            }
            const bool proc = name == "proc";
            Check(mount(proc ? "proc" : ("/" + name).c_str(), entry.path().c_str(), "proc", proc ? 0 : MS_BIND | MS_REC,
                        nullptr) == 0,
                  name.c_str());
        }
        SetMountPropagation(MS_SHARED);
        Check(chroot(m_path.c_str()) == 0 && chdir("/") == 0, "chroot");
    }

private:
    std::string m_path;
};

TEST(NetworkNamespace, IsMadeInAChrootThatIsNoMountPointAndLeavesNoMountThere) {
    const ProgramFolder folder;
    std::thread([&] {
        try {
            folder.BecomeRoot();
            ASSERT_EQ(mount("", "/", nullptr, MS_SLAVE, nullptr), -1)
                << "this root is a mount point and proves nothing";
            {
                NetworkNamespace network;
                network.Run([] { EXPECT_THAT(Interfaces(), ::testing::ElementsAre("lo")); });
                EXPECT_THAT(network.RunProgram({"ip", "-o", "link"}).output, HasSubstr("LOOPBACK,UP"));
                network.Run([] { EXPECT_FALSE(std::filesystem::exists("/tmp")) << "outside the chroot"; });
                EXPECT_TRUE(std::filesystem::is_empty("/sys")) << "mounted outside the namespace too";
            }
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
    }).join();
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
