// SPDX-License-Identifier: Apache-2.0
// Network interfaces by themselves: what the kernel says of them and whether sockets can be had is what the test says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/linux/gige/Interfaces.h"

namespace Nimbrel2::Platform::GigE {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Use = InterfacePresence::Use;
using Kind = GigESearchProblem::Kind;

constexpr int Index = 2;

class InterfacesTest : public ::testing::Test {
protected:
    static NetworkInterface Eth0(std::uint32_t address = 0xC0A84D01) {
        NetworkInterface interface;
        interface.index = Index;
        interface.name = "eth0";
        interface.up = interface.running = interface.broadcast = true;
        if (address != 0) {
            interface.addresses.push_back({address, 24, false});
        }
        return interface;
    }

    static NetworkInterface WithoutLink() {
        NetworkInterface interface = Eth0();
        interface.running = false;
        return interface;
    }

    void Update(const std::vector<NetworkInterface>& found) { m_interfaces.Update(found, m_now); }

    /// Nothing when the interface is neither used nor waited for.
    std::optional<Use> UseOf() const {
        const auto presence = m_interfaces.GetPresence();
        return presence.empty() ? std::nullopt : std::optional(presence.at(0).use);
    }
    std::uint32_t Version() const { return m_interfaces.GetPresence().at(0).version; }

    bool Expire() {
        bool changed = false;
        m_interfaces.Expire(m_now, &changed);
        return changed;
    }

    std::vector<GigESearchProblem> Problems() const {
        GigESearchReport report;
        m_interfaces.AddProblems(&report);
        return report.problems;
    }

    /// A socket that is good enough for looking at.
    int Open(std::shared_ptr<UdpSocket>* socket, std::string* where) {
        ++m_opened;
        *where = "socket";
        if (m_refusal != 0) {
            return m_refusal;
        }
        NetworkInterface loopback;
        loopback.index = 1;
        loopback.name = "lo";
        loopback.loopback = true;
        return UdpSocket::Open(loopback, {}, socket, where);
    }

    static GvcpDiscoveryRecord CameraAt(std::uint32_t ip) {
        GvcpDiscoveryRecord record{};
        record.ipAddress = ip;
        return record;
    }

    const Timings m_timings{};
    TimePoint m_now = Clock::now();
    int m_refusal = 0;
    int m_opened = 0;
    int m_routeQuestions = 0;
    std::uint32_t m_routedIp = 0x0A090909;
    Interfaces m_interfaces{{},
                            m_timings,
                            [this](const NetworkInterface&, Port, std::shared_ptr<UdpSocket>* socket,
                                   std::string* where) { return Open(socket, where); },
                            [this](int, std::uint32_t ip) {
                                ++m_routeQuestions;
                                return ip == m_routedIp;
                            }};
};

TEST_F(InterfacesTest, HaveASocketForSearchesAndOneForPresentCameras) {
    EXPECT_EQ(m_interfaces.GetStatus(), HAL_NO_BUS);
    Update({Eth0()});
    EXPECT_EQ(UseOf(), Use::Used);
    EXPECT_EQ(m_interfaces.GetStatus(), HAL_OK);
    const auto used = m_interfaces.FindUsed(Index);
    ASSERT_TRUE(used);
    EXPECT_NE(used->Of(Port::Search)->GetLocalPort(), used->Of(Port::Verify)->GetLocalPort());
    EXPECT_THAT(Problems(), IsEmpty());
    Update({Eth0()});
    EXPECT_EQ(m_opened, 2) << "they are kept";
    Update({});
    EXPECT_EQ(UseOf(), std::nullopt);
    EXPECT_FALSE(m_interfaces.FindUsed(Index));
}

TEST_F(InterfacesTest, WaitForALinkThatWasLostAMomentAgo) {
    Update({Eth0()});
    const std::uint16_t port = m_interfaces.FindUsed(Index)->verify->GetLocalPort();
    Update({WithoutLink()});
    EXPECT_EQ(UseOf(), Use::Waiting);
    m_now += m_timings.linkGrace - 1ms;
    EXPECT_FALSE(Expire());
    EXPECT_EQ(UseOf(), Use::Waiting);
    Update({Eth0()});
    EXPECT_EQ(UseOf(), Use::Used);
    EXPECT_EQ(m_interfaces.FindUsed(Index)->verify->GetLocalPort(), port) << "with the sockets that it had";
}

TEST_F(InterfacesTest, WaitForALostLinkForHalfASecond) {
    Update({Eth0()});
    Update({WithoutLink()});
    m_now += 100ms;
    Update({WithoutLink()});
    m_now += m_timings.linkGrace - 100ms;
    EXPECT_TRUE(Expire());
    EXPECT_EQ(UseOf(), std::nullopt);
    EXPECT_FALSE(Expire()) << "once";
    Update({WithoutLink()});
    EXPECT_EQ(UseOf(), std::nullopt) << "it is not lost anew";
    Update({Eth0()});
    EXPECT_EQ(UseOf(), Use::Used);
    EXPECT_EQ(m_opened, 2);
}

TEST_F(InterfacesTest, WaitForNoLinkThatWasNeverThereAndForNoInterfaceThatIsGone) {
    Update({WithoutLink()});
    EXPECT_EQ(UseOf(), std::nullopt);
    Update({Eth0()});
    Update({});
    EXPECT_EQ(UseOf(), std::nullopt);
}

TEST_F(InterfacesTest, TellWhenTheirAddressesHaveChanged) {
    Update({Eth0()});
    const std::uint32_t first = Version();
    Update({Eth0()});
    EXPECT_EQ(Version(), first);
    Update({Eth0(0xC0A84E01)});
    EXPECT_NE(Version(), first);
    EXPECT_EQ(m_interfaces.Judge(Index, CameraAt(0xC0A84D32)), GigEUsability::OtherSubnet);
}

TEST_F(InterfacesTest, AreNamedWhenTheirSocketIsRefused) {
    m_refusal = EMFILE;
    Update({Eth0()});
    EXPECT_EQ(m_interfaces.GetStatus(), HAL_OUT_OF_MEMORY);
    EXPECT_TRUE(m_interfaces.HasRefusals());
    ASSERT_THAT(Problems(), SizeIs(1));
    EXPECT_EQ(Problems()[0].kind, Kind::Socket);
    EXPECT_EQ(Problems()[0].interfaceName, "eth0");
    EXPECT_EQ(Problems()[0].error, EMFILE);
    EXPECT_EQ(Problems()[0].reason, "no socket: Too many open files");
    m_refusal = EADDRINUSE;
    Update({Eth0()});
    EXPECT_EQ(Problems()[0].kind, Kind::SourcePorts);
    m_refusal = 0;
    Update({Eth0()});
    EXPECT_EQ(UseOf(), Use::Used);
    EXPECT_FALSE(m_interfaces.HasRefusals());
    EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(InterfacesTest, AreNamedWhenTheirBroadcastsAreRefused) {
    Update({Eth0()});
    m_interfaces.Broadcasted(Index, EPERM);
    ASSERT_THAT(Problems(), SizeIs(1));
    EXPECT_EQ(Problems()[0].kind, Kind::Broadcast);
    EXPECT_EQ(Problems()[0].reason, "broadcasts are refused: Operation not permitted");
    m_interfaces.Broadcasted(Index, 0);
    EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(InterfacesTest, AreNamedWhenRequestsAreRefusedForASecond) {
    Update({Eth0()});
    m_interfaces.Probed(Index, ENOBUFS, Clock::now() - m_timings.refusedGrace + 10s);
    EXPECT_THAT(Problems(), IsEmpty()) << "not yet";
    m_interfaces.Probed(Index, 0, Clock::now());
    m_interfaces.Probed(Index, ENOBUFS, Clock::now() - m_timings.refusedGrace - 1ms);
    ASSERT_THAT(Problems(), SizeIs(1));
    EXPECT_EQ(Problems()[0].kind, Kind::Request);
    EXPECT_EQ(Problems()[0].error, ENOBUFS);
    m_interfaces.Probed(Index, 0, Clock::now());
    EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(InterfacesTest, SayWhenTheKernelDoesNot) {
    Update({Eth0()});
    m_interfaces.UpdateRefused(EPERM);
    EXPECT_EQ(UseOf(), Use::Used) << "what was known stays";
    ASSERT_THAT(Problems(), SizeIs(1));
    EXPECT_EQ(Problems()[0].kind, Kind::Interfaces);
    EXPECT_EQ(Problems()[0].interface, 0);
}

TEST_F(InterfacesTest, AskTheKernelForRoutesNowAndThen) {
    Update({Eth0()});
    GvcpDiscoveryRecord routed = CameraAt(m_routedIp);
    routed.defaultGateway = 0x0A090901;
    EXPECT_EQ(m_interfaces.Judge(Index, routed), GigEUsability::Usable);
    EXPECT_EQ(m_interfaces.Judge(Index, CameraAt(0xC0A84D32)), GigEUsability::Usable);
    EXPECT_EQ(m_routeQuestions, 1) << "none about what is on the wire anyway";
    for (int i = 0; i < 1000; ++i) {
        m_interfaces.Judge(Index, routed);
    }
    EXPECT_LE(m_routeQuestions, 2);
}

TEST_F(InterfacesTest, AskTheKernelFewQuestionsHoweverManyAddressesAreInvented) {
    Update({Eth0()});
    GvcpDiscoveryRecord routed = CameraAt(m_routedIp);
    routed.defaultGateway = 0x0A090901;
    ASSERT_EQ(m_interfaces.Judge(Index, routed), GigEUsability::Usable);
    const TimePoint start = Clock::now();
    for (std::uint32_t i = 0; i < 20000; ++i) {
        m_interfaces.Judge(Index, CameraAt(0x0B000000 + i));
    }
    const auto seconds = 2 + std::chrono::ceil<std::chrono::seconds>(Clock::now() - start).count();
    EXPECT_LE(m_routeQuestions, Interfaces::MostRouteQuestions * seconds);
    EXPECT_EQ(m_interfaces.Judge(Index, routed), GigEUsability::Usable) << "what is known of a route stays";
}

TEST_F(InterfacesTest, JudgeNothingOnAnInterfaceThatIsGone) {
    EXPECT_EQ(m_interfaces.Judge(Index, CameraAt(0xC0A84D32)), GigEUsability::OtherSubnet);
    EXPECT_FALSE(m_interfaces.IsInReach(Index, 0xC0A84D32));
    EXPECT_EQ(m_interfaces.GetName(Index), "");
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
