// SPDX-License-Identifier: Apache-2.0
// An operating system that refuses sockets, devices and file descriptors.
#include <netinet/in.h>

#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/Refusals.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GigERefused : public GigEWireTest {
protected:
    void StartAfter(const std::function<void()>& setUp) { m_startStatus = GigEWireTest::StartAfter(setUp); }

    std::uint32_t m_startStatus = HAL_OK;
};

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
        EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
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
    EXPECT_EQ(Discover(&records), HAL_PERMISSION);
    EXPECT_EQ(ForceIp(1, 2, 3, 4), HAL_PERMISSION);
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_PERMISSION);
}

TEST_F(GigERefused, BindingIsAPermissionProblem) {
    AddCamera("192.168.77.102", 2);
    StartAfter([] { Refuse(__NR_bind, 2, sizeof(sockaddr_in)); });
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
    EXPECT_EQ(Discover(&records), HAL_PERMISSION);
}

TEST_F(GigERefused, AComputerWithoutNetworkIsAskedForNothing) {
    m_host.Ip("link del h0");
    StartAfter([] { Refuse(__NR_socket, 0, AF_INET); });
    Platform::Listing<Platform::GigEDevice> cameras;
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_OK);
}

TEST_F(GigERefused, WithoutDescriptorsItDoesNotStart) {
    Platform::LinuxGigEOptions options;
    m_bus = Platform::MakeLinuxGigEBus(options, m_sink);
    Platform::Listing<Platform::GigEDevice> cameras;
    // Also because UndefinedBehaviorSanitizer needs descriptors to look at an object's type the first time, as it does
    // in the start of another one.
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_CLOSED);
    const auto another = Platform::MakeLinuxGigEBus(options, m_sink);
    m_host.Run([&] { EXPECT_EQ(another->Start(), HAL_OK); });
    another->Stop();
    m_host.Run([&] {
        const NoMoreDescriptors none;
        EXPECT_EQ(m_bus->Start(), HAL_OUT_OF_MEMORY);
    });
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_CLOSED);
    m_bus->Stop();
}

TEST_F(GigERefused, AnAddressWithoutDescriptorsIsAProblemOfThisComputerAndNotOfTheNetwork) {
    AddCamera("192.168.77.102", 2);
    Start({});
    EXPECT_EQ(List().size(), 1u);
    const NoMoreDescriptors none;
    EXPECT_EQ(ForceIp(0x020000000002, Ip("192.168.77.103"), 0xFFFFFF00, 0), HAL_OUT_OF_MEMORY);
}

TEST_F(GigERefused, AnInterfaceWithoutASocketIsTriedAgain) {
    AddCamera("192.168.77.102", 2);
    m_host.Ip("link set h0 down");
    Start({});
    EXPECT_THAT(List(), IsEmpty());
    const LinkSwitch link(m_host, "h0");
    {
        const NoMoreDescriptors none;
        link.SetUp();
        Platform::Listing<Platform::GigEDevice> cameras;
        const auto deadline = Clock::now() + 5s;
        std::uint32_t status = HAL_OK;
        while (status == HAL_OK && Clock::now() < deadline) {
            status = m_bus->ListCameras(&cameras);
        }
        EXPECT_EQ(status, HAL_OUT_OF_MEMORY);
    }
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
    EXPECT_EQ(Discover(&records), HAL_PERMISSION);
}

TEST_F(GigERefused, LostNoticesOfTheKernelAreMadeUpFor) {
    Platform::ChangeSocket changes;
    m_host.Run([&] { ASSERT_EQ(changes.Open(), 0); });
    EXPECT_FALSE(changes.Drain());
    // Far more notices than the socket holds: some are lost, and that something happened is not.
    std::string batch;
    for (int i = 0; i < 1500; ++i) {
        batch += "addr add 10.0.0.1/8 dev h0\naddr del 10.0.0.1/8 dev h0\n";
    }
    m_host.RunProgram({"sh", "-c", "printf '" + batch + "' | ip -batch -"});
    EXPECT_TRUE(changes.Drain());
    EXPECT_FALSE(changes.Drain());
    m_host.Ip("addr add 10.0.0.1/8 dev h0");
    EXPECT_TRUE(changes.Drain());
}

}  // namespace
}  // namespace Nimbrel2::Testing
