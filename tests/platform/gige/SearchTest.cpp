// SPDX-License-Identifier: Apache-2.0
// Searches: where they did not look, when they end, and which ports they use.
#include <netinet/in.h>

#include <algorithm>

#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"
#include "tests/platform/gige/Refusals.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::GigECameraName;
using Platform::GigESearchProblem;
using Platform::GigESearchReport;
using Platform::PortRange;
using Platform::Gvcp::MessageId;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::SizeIs;
using Kind = GigESearchProblem::Kind;
using Request = HostileDevice::Request;

constexpr std::uint64_t CameraMac = 0x020000000000;

class GigESearch : public GigEWireTest {
protected:
    GigESearchReport Report() {
        GigESearchReport report;
        EXPECT_EQ(m_bus->GetSearchReport(&report), HAL_OK);
        return report;
    }

    /// Waits until a search has a problem of that kind. @return it, or an empty one.
    GigESearchProblem WaitForProblem(Kind kind) {
        const auto deadline = Clock::now() + 10s;
        while (Clock::now() < deadline) {
            for (const GigESearchProblem& problem : Report().problems) {
                if (problem.kind == kind) {
                    return problem;
                }
            }
            std::this_thread::yield();
        }
        ADD_FAILURE() << "no such problem";
        return {};
    }

    void Filter(const std::string& rules) {
        const ProgramResult result = m_host.RunProgram(
            {"nft", "add table ip t; add chain ip t out { type filter hook output priority 0; };" + rules});
        ASSERT_EQ(result.exitStatus, 0) << result.errors;
    }
};

// ---- Where they did not look ---------------------------------------------------------------------------------------

TEST_F(GigESearch, ThatLooksEverywhereHasNoProblem) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    EXPECT_THAT(Report().problems, IsEmpty());
    EXPECT_THAT(Report().filtered, IsEmpty());
    Platform::GigEDiscovery discovery;
    EXPECT_EQ(m_bus->Discover(std::nullopt, &discovery), HAL_OK);
    EXPECT_THAT(discovery.report.problems, IsEmpty());
}

TEST_F(GigESearch, NamesAnInterfaceWhoseSocketIsRefused) {
    ASSERT_EQ(StartAfter([] { Refuse(__NR_bind, 2, sizeof(sockaddr_in)); }), HAL_OK);
    const auto problem = WaitForProblem(Kind::Socket);
    EXPECT_EQ(problem.interfaceName, "h0");
    EXPECT_NE(problem.interface, 0);
    EXPECT_EQ(problem.error, EPERM);
    EXPECT_EQ(problem.reason, "no socket: Operation not permitted");
}

TEST_F(GigESearch, SaysThatTheKernelTellsNoInterfaces) {
    ASSERT_EQ(StartAfter([] { Refuse(__NR_socket, 0, AF_NETLINK); }), HAL_OK);
    const auto problem = WaitForProblem(Kind::Interfaces);
    EXPECT_EQ(problem.interface, 0);
    EXPECT_EQ(problem.error, EPERM);
    EXPECT_THAT(problem.reason, HasSubstr("Operation not permitted"));
}

TEST_F(GigESearch, NamesAnInterfaceWhoseBroadcastsAFirewallRefuses) {
    AddCamera("192.168.77.102", 2);
    Filter("add rule ip t out ip daddr 255.255.255.255 reject");
    Start({});
    const auto problem = WaitForProblem(Kind::Broadcast);
    EXPECT_EQ(problem.interfaceName, "h0");
    EXPECT_EQ(problem.error, EPERM);
    EXPECT_EQ(problem.reason, "broadcasts are refused: Operation not permitted");
    // Another wire, on which cameras are found, makes that no success of the search.
    NetworkNamespace second;
    Connect(m_host, "h1", second, "c0");
    m_host.Ip("addr add 172.20.0.1/24 dev h1");
    Filter("flush chain ip t out; add rule ip t out oifname \"h0\" ip daddr 255.255.255.255 reject");
    const auto cameras = MakeCameras(second);
    ASSERT_TRUE(cameras->AddCamera(CameraOptions("172.20.0.103", 3)));
    EXPECT_TRUE(WaitForNames({"3@172.20.0.103"}, 10s));
    Platform::GigEDiscovery discovery;
    EXPECT_EQ(m_bus->Discover(std::nullopt, &discovery), HAL_OK);
    ASSERT_THAT(discovery.report.problems, SizeIs(1));
    EXPECT_EQ(discovery.report.problems[0].interfaceName, "h0");
    EXPECT_EQ(discovery.report.problems[0].kind, Kind::Broadcast);
}

TEST_F(GigESearch, NamesAnInterfaceWhoseRequestsAreRefusedAndKeepsItsCamerasForASecond) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    const auto refused = Clock::now();
    Filter("add rule ip t out ip daddr 192.168.77.102 reject");
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.removals == 1; }, 10s));
    EXPECT_GE(Since(refused), 1s);
    const auto problem = WaitForProblem(Kind::Request);
    EXPECT_EQ(problem.interfaceName, "h0");
    EXPECT_EQ(problem.error, EPERM);
    EXPECT_EQ(problem.reason, "requests for single cameras are refused: Operation not permitted");
    m_host.RunProgram({"nft", "flush ruleset"});
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102"}, 10s));
}

TEST_F(GigESearch, NamesAnInterfaceForWhichThereAreNoDescriptorsLeft) {
    m_host.Ip("link set h0 down");
    Start({});
    EXPECT_THAT(List(), IsEmpty());
    const LinkSwitch link(m_host, "h0");
    GigESearchProblem problem;
    {
        const NoMoreDescriptors none;
        link.SetUp();
        problem = WaitForProblem(Kind::Socket);
    }
    EXPECT_EQ(problem.interfaceName, "h0");
    EXPECT_EQ(problem.error, EMFILE);
    EXPECT_EQ(problem.reason, "no socket: Too many open files");
}

TEST_F(GigESearch, NamesAFilterThatMayHideCamerasUntilTheInterfaceHasHeardSome) {
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "1");
    Start({});
    EXPECT_THAT(List(), IsEmpty());
    const GigESearchReport before = Report();
    ASSERT_THAT(before.filtered, SizeIs(1));
    EXPECT_EQ(before.filtered[0].interfaceName, "h0");
    EXPECT_EQ(before.filtered[0].rpFilter, 1);
    EXPECT_EQ(before.filtered[0].heard, 0u);
    EXPECT_TRUE(before.MayHideCameras(before.filtered[0])) << "nobody was heard";
    m_cameras.reset();
    std::atomic<bool> another{false};
    HostileDevice device(m_wire, Ip("192.168.77.100"), [&](HostileDevice& self, const Request& request) {
        if (!request.Is(MessageId::DiscoveryCmd)) {
            return;
        }
        self.Answer(request, HostileDevice::DiscoveryAck(request, 1, Ip("192.168.77.100")));
        // One that answers without a question by ARP: the kernel drops what it sends, and counts it.
        if (!another) {
            return;
        }
        self.AnswerFrom(request, Ip("10.9.9.9"), 3956, HostileDevice::DiscoveryAck(request, 9, Ip("10.9.9.9")));
    });
    ASSERT_TRUE(WaitForNames({"666@192.168.77.100"}, 10s));
    const GigESearchReport heard = Report();
    ASSERT_THAT(heard.filtered, SizeIs(1));
    EXPECT_EQ(heard.filteredPackets, 0u);
    EXPECT_FALSE(heard.MayHideCameras(heard.filtered[0])) << "one was, and nothing was dropped";
    another = true;
    const auto deadline = Clock::now() + 10s;
    while (Report().filteredPackets == 0 && Clock::now() < deadline) {
        std::this_thread::yield();
    }
    const GigESearchReport dropped = Report();
    ASSERT_THAT(dropped.filtered, SizeIs(1));
    EXPECT_TRUE(dropped.MayHideCameras(dropped.filtered[0]));
}

// ---- When they end -------------------------------------------------------------------------------------------------

class GigESearchFor : public GigESearch, public ::testing::WithParamInterface<GigECameraName> {};

TEST_P(GigESearchFor, EndsWhenTheCameraAnswers) {
    AddCamera("192.168.77.102", 2);
    AddCamera("192.168.77.103", 3);
    m_window = 30s;
    Platform::LinuxGigEOptions options;
    options.searchFor = GetParam();
    StartWith(options);
    const auto start = Clock::now();
    EXPECT_THAT(ListNames(), IsSupersetOf({"3@192.168.77.103"}));
    Platform::GigEDiscovery discovery;
    EXPECT_EQ(m_bus->Discover(GetParam(), &discovery), HAL_OK);
    ASSERT_THAT(discovery.cameras, SizeIs(1)) << "that one and no other";
    EXPECT_EQ(NameOf(discovery.cameras[0].record), "3@192.168.77.103");
    EXPECT_LT(Since(start), 20s) << "and not with the window";
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102", "3@192.168.77.103"}, 10s)) << "the others are found all the same";
}

INSTANTIATE_TEST_SUITE_P(Names, GigESearchFor,
                         ::testing::Values(GigECameraName{Ip("192.168.77.103"), 0}, GigECameraName{0, CameraMac + 3}),
                         [](const auto& name) { return std::string(name.param.ip != 0 ? "ByAddress" : "ByMac"); });

TEST_F(GigESearch, ForACameraThatIsNotThereEndsWithItsWindow) {
    AddCamera("192.168.77.102", 2);
    Platform::LinuxGigEOptions options;
    options.searchFor = GigECameraName{0, CameraMac + 3};
    StartWith(options);
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    Platform::GigEDiscovery discovery;
    const auto start = Clock::now();
    EXPECT_EQ(m_bus->Discover(options.searchFor, &discovery), HAL_OK);
    EXPECT_GE(Since(start), m_window);
    EXPECT_THAT(discovery.cameras, IsEmpty());
}

// A camera may take a second to answer a broadcast, as long as it draws. Asked by itself it answers at once.
TEST_F(GigESearch, ByAddressDoesNotWaitForTheDelayOfAnswersToBroadcasts) {
    auto options = CameraOptions("192.168.77.102", 2);
    options.discoveryDelay = 60000;
    AddCamera(options);
    m_window = 30s;
    Platform::LinuxGigEOptions search;
    search.searchFor = GigECameraName{Ip("192.168.77.102"), 0};
    StartWith(search);
    const auto start = Clock::now();
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_LT(Since(start), 10s);
}

// ---- Which ports they use ------------------------------------------------------------------------------------------

class GigESourcePorts : public GigESearch {
protected:
    void StartOn(PortRange ports) {
        Platform::LinuxGigEOptions options;
        options.sourcePorts = ports;
        StartWith(options);
    }
};

TEST_F(GigESourcePorts, AreThoseOfTheRangeAndNoOthers) {
    AddCamera("192.168.77.102", 2);
    NetworkNamespace second;
    Connect(m_host, "h1", second, "c0");
    m_host.Ip("addr add 172.20.0.1/24 dev h1");
    second.Ip("addr add 172.20.0.100/24 dev c0");
    HostileDevice device(second, Ip("172.20.0.100"), [](HostileDevice& self, const Request& request) {
        if (request.Is(MessageId::DiscoveryCmd)) {
            self.Answer(request, HostileDevice::DiscoveryAck(request, 0x0666, Ip("172.20.0.100")));
        } else if (request.Is(MessageId::ReadRegCmd)) {
            self.Answer(request, HostileDevice::ReadAck(request, request.Address() == 0x24 ? request.to : 0));
        }
    });
    StartOn({40100, 40109});  // four for each interface, and one for each camera
    ASSERT_TRUE(WaitForNames({"666@172.20.0.100", "2@192.168.77.102"}, 10s));
    std::vector<GvcpDiscoveryRecord> records;
    EXPECT_EQ(Discover(&records), HAL_OK);
    EXPECT_EQ(ForceIp(0x0667, Ip("172.20.0.101"), 0xFFFFFF00, 0), HAL_NO_ACKNOWLEDGE);
    for (const auto& camera : List()) {
        std::uint32_t port = 0;
        EXPECT_EQ(camera->GetLocalPort(&port), HAL_OK);
        EXPECT_GE(port, 40100u);
        EXPECT_LE(port, 40109u);
    }
    std::vector<std::uint16_t> ports;
    for (const Request& request : device.GetRequests()) {
        ports.push_back(request.fromPort);
    }
    EXPECT_THAT(ports, Each(::testing::AllOf(::testing::Ge(40100), ::testing::Le(40109))));
    EXPECT_THAT(Report().problems, IsEmpty());
}

TEST_F(GigESourcePorts, ThatAreTooFewAreNamedWithTheNeed) {
    for (std::uint64_t i = 2; i < 6; ++i) {
        AddCamera("192.168.77.10" + std::to_string(i), i);
    }
    StartOn({40100, 40103});  // two for the monitor, and two cameras have none
    EXPECT_EQ(List().size(), 4u) << "they are there";
    const auto problem = WaitForProblem(Kind::SourcePorts);
    EXPECT_EQ(problem.interfaceName, "h0");
    EXPECT_EQ(problem.error, EADDRINUSE);
    EXPECT_EQ(problem.reason, "the source ports 40100-40103 are too few: 2 more are needed");
    int without = 0;
    for (const auto& camera : List()) {
        std::uint32_t value = 0;
        without += camera->ReadRegister(0xC, &value) == HAL_OUT_OF_MEMORY ? 1 : 0;
    }
    EXPECT_EQ(without, 2);
}

TEST_F(GigESourcePorts, ThatAreAllTakenKeepAnInterfaceFromBeingSearched) {
    AddCamera("192.168.77.102", 2);
    StartOn({40100, 40100});
    const auto problem = WaitForProblem(Kind::SourcePorts);
    EXPECT_EQ(problem.interfaceName, "h0");
    EXPECT_EQ(problem.reason, "all source ports are in use");
    Platform::Listing<Platform::GigEDevice> cameras;
    EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_OUT_OF_MEMORY);
}

}  // namespace
}  // namespace Nimbrel2::Testing
