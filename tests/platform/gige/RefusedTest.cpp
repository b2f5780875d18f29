// SPDX-License-Identifier: Apache-2.0
// An operating system that refuses sockets, devices and file descriptors.
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <system_error>

#include "platform/base/StartThread.h"
#include "tests/platform/gige/GigEFixture.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GigERefused : public GigEWireTest {
protected:
    /// Starts the driver on a thread of its own inside m_host, to which setUp has done something first. The driver's
    /// thread inherits it, the test's does not.
    void StartAfter(const std::function<void()>& setUp) {
        Platform::LinuxGigEOptions options;
        options.discoveryWindow = m_window;
        m_bus = Platform::MakeLinuxGigEBus(options, m_sink);
        std::uint32_t status = HAL_FAILED;
        m_host
            .StartThread([&] {
                setUp();
                status = m_bus->Start();
            })
            .join();
        m_startStatus = status;
    }

    std::uint32_t m_startStatus = HAL_OK;
};

/// Makes a system call fail with EPERM on this thread and those it starts, when its first or second argument is so.
void Refuse(int call, int argument, std::uint32_t value, int argument2 = -1, std::uint32_t value2 = 0) {
    const auto offset = [](int index) {
        return static_cast<std::uint32_t>(offsetof(seccomp_data, args) + static_cast<std::size_t>(index) * 8
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
                                          + 4
#endif
        );
    };
    const bool two = argument2 >= 0;
    std::vector<sock_filter> program{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0,
                 static_cast<std::uint8_t>(two ? 5 : 3)),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset(argument)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, static_cast<std::uint8_t>(two ? 3 : 1)),
    };
    if (two) {
        program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset(argument2)));
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value2, 0, 1));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0) << std::generic_category().message(errno);
}

/// Gives up every capability of this thread and those it starts.
void DropCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    ASSERT_EQ(syscall(SYS_capset, &header, none), 0) << std::generic_category().message(errno);
}

TEST_F(GigERefused, NoCapabilityIsNeeded) {
    const auto id = AddCamera("192.168.77.102", 2);
    AddCamera("10.9.9.9", 9);
    StartAfter(DropCapabilities);
    ASSERT_EQ(m_startStatus, HAL_OK);
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    // The threads that call have none either.
    std::thread([&] {
        DropCapabilities();
        EXPECT_THAT(DiscoverNames(), ElementsAre("2@192.168.77.102", "9@10.9.9.9"));
        EXPECT_EQ(m_bus->AutoForceIp(std::nullopt), HAL_OK);
        EXPECT_EQ(ListNames().size(), 2u);
    }).join();
    m_cameras->Use(id, [](auto& camera) { camera.SetSilent(true); });
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.removals == 1; }, 5s));
}

TEST_F(GigERefused, UdpSocketsAreAPermissionProblem) {
    AddCamera("192.168.77.102", 2);
    m_window = 10s;
    StartAfter([] { Refuse(__NR_socket, 0, AF_INET); });
    ASSERT_EQ(m_startStatus, HAL_OK);
    Platform::Listing<Platform::GigEDevice> cameras;
    const auto start = Clock::now();
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_PERMISSION);
    EXPECT_LT(Since(start), m_window);
    EXPECT_THAT(cameras.devices, IsEmpty());
    std::vector<GvcpDiscoveryRecord> records;
    EXPECT_EQ(m_bus->Discover(&records), HAL_PERMISSION);
    EXPECT_EQ(m_bus->ForceIp(1, 2, 3, 4), HAL_PERMISSION);
    EXPECT_EQ(m_bus->AutoForceIp(std::nullopt), HAL_PERMISSION);
}

TEST_F(GigERefused, BindingToADeviceIsAPermissionProblem) {
    AddCamera("192.168.77.102", 2);
    StartAfter([] { Refuse(__NR_setsockopt, 1, SOL_SOCKET, 2, SO_BINDTODEVICE); });
    ASSERT_EQ(m_startStatus, HAL_OK);
    Platform::Listing<Platform::GigEDevice> cameras;
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_PERMISSION);
}

TEST_F(GigERefused, TheKernelsOwnWordOnInterfacesIsAPermissionProblem) {
    AddCamera("192.168.77.102", 2);
    StartAfter([] { Refuse(__NR_socket, 0, AF_NETLINK); });
    ASSERT_EQ(m_startStatus, HAL_OK);
    Platform::Listing<Platform::GigEDevice> cameras;
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_PERMISSION);
    std::vector<GvcpDiscoveryRecord> records;
    EXPECT_EQ(m_bus->Discover(&records), HAL_PERMISSION);
}

TEST_F(GigERefused, AComputerWithoutNetworkIsAskedForNothing) {
    m_host.Ip("link del h0");
    StartAfter([] { Refuse(__NR_socket, 0, AF_INET); });
    Platform::Listing<Platform::GigEDevice> cameras;
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_OK);
}

/// Lets this process open no more file descriptors, until it is destroyed.
class NoMoreDescriptors {
public:
    NoMoreDescriptors() {
        // UndefinedBehaviorSanitizer needs descriptors to look at an object's type the first time: here a thread's.
        Platform::StartThread("first", [] {}).join();
        getrlimit(RLIMIT_NOFILE, &m_before);
        const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(next);
        rlimit none = m_before;
        none.rlim_cur = static_cast<rlim_t>(next);
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before{};
};

TEST_F(GigERefused, WithoutDescriptorsItDoesNotStart) {
    Platform::LinuxGigEOptions options;
    m_bus = Platform::MakeLinuxGigEBus(options, m_sink);
    Platform::Listing<Platform::GigEDevice> cameras;
    // Also because UndefinedBehaviorSanitizer needs descriptors to look at an object's type the first time.
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_CLOSED);
    m_host.Run([&] {
        const NoMoreDescriptors none;
        EXPECT_EQ(m_bus->Start(), HAL_OUT_OF_MEMORY);
    });
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_CLOSED);
    m_bus->Stop();
}

TEST_F(GigERefused, AnInterfaceWithoutASocketIsTriedAgain) {
    AddCamera("192.168.77.102", 2);
    m_host.Ip("link set h0 down");
    Start({});
    EXPECT_THAT(List(), IsEmpty());
    int control = -1;
    m_host.Run([&] { control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    {
        const NoMoreDescriptors none;
        ifreq request{};
        std::strcpy(request.ifr_name, "h0");
        ASSERT_EQ(ioctl(control, SIOCGIFFLAGS, &request), 0);
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        ASSERT_EQ(ioctl(control, SIOCSIFFLAGS, &request), 0);
        Platform::Listing<Platform::GigEDevice> cameras;
        const auto deadline = Clock::now() + 5s;
        std::uint32_t status = HAL_OK;
        while (status == HAL_OK && Clock::now() < deadline) status = m_bus->ListCameras(&cameras);
        EXPECT_EQ(status, HAL_OUT_OF_MEMORY);
    }
    close(control);
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.arrivals == 1; }, 5s));
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
}

TEST_F(GigERefused, RequestsThatAFirewallForbidsAreAPermissionProblem) {
    AddCamera("192.168.77.102", 2);
    const auto result = m_host.RunProgram({"nft",
                                           "add table ip t; add chain ip t out { type filter hook output priority 0; };"
                                           "add rule ip t out udp dport 3956 reject"});
    ASSERT_EQ(result.exitStatus, 0) << result.errors;
    Start({});
    EXPECT_THAT(List(), IsEmpty());
    std::vector<GvcpDiscoveryRecord> records;
    EXPECT_EQ(m_bus->Discover(&records), HAL_PERMISSION);
}

TEST_F(GigERefused, LostNoticesOfTheKernelAreMadeUpFor) {
    Platform::ChangeSocket changes;
    m_host.Run([&] { ASSERT_EQ(changes.Open(), 0); });
    EXPECT_FALSE(changes.Drain());
    // Far more notices than the socket holds: some are lost, and that something happened is not.
    std::string batch;
    for (int i = 0; i < 1500; ++i) batch += "addr add 10.0.0.1/8 dev h0\naddr del 10.0.0.1/8 dev h0\n";
    m_host.RunProgram({"sh", "-c", "printf '" + batch + "' | ip -batch -"});
    EXPECT_TRUE(changes.Drain());
    EXPECT_FALSE(changes.Drain());
    m_host.Ip("addr add 10.0.0.1/8 dev h0");
    EXPECT_TRUE(changes.Drain());
}

}  // namespace
}  // namespace Nimbrel2::Testing
