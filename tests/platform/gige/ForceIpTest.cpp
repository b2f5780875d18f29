// SPDX-License-Identifier: Apache-2.0
// Cameras on wrong subnets are found, and given addresses.
#include "platform/gvcp/GvcpCodec.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::Simulated::SimulatedGigECamera;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class GigEForceIp : public GigEWireTest {
protected:
    std::uint32_t Force(std::uint64_t mac, const std::string& ip, const std::string& mask = "255.255.255.0",
                        const std::string& gateway = "0.0.0.0") {
        return ForceIp(0x020000000000 + mac, Ip(ip), Ip(mask), Ip(gateway));
    }

    std::uint32_t AddressOf(Platform::Simulated::SimulatedGigENetwork::CameraId id) {
        std::uint32_t address = 0;
        m_cameras->Use(id, [&](SimulatedGigECamera& camera) { address = camera.GetAddress(); });
        return address;
    }
};

TEST_F(GigEForceIp, MovesACameraThatWasListed) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    const auto before = m_sink.GetCounts();
    EXPECT_EQ(Force(2, "192.168.77.150"), HAL_OK);
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.150"));
    EXPECT_LE(m_sink.GetCounts().resets - before.resets, 2);
}

TEST_F(GigEForceIp, BringsAForeignCameraHome) {
    const auto id = AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_THAT(ListNames(), IsEmpty());
    EXPECT_EQ(Force(9, "192.168.77.150", "255.255.255.0", "192.168.77.254"), HAL_OK);
    EXPECT_EQ(AddressOf(id), Ip("192.168.77.150"));
    EXPECT_THAT(ListNames(), ElementsAre("9@192.168.77.150"));
    const auto records = ListRecords();
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_EQ(records[0].subnetMask, 0xFFFFFF00u);
    EXPECT_EQ(records[0].defaultGateway, Ip("192.168.77.254"));
}

TEST_F(GigEForceIp, NeedsNoDiscoveryBefore) {
    const auto id = AddCamera("10.9.9.9", 9);
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "1");
    Start({});
    EXPECT_EQ(Force(9, "192.168.77.150"), HAL_OK) << "its answer comes from the new address, which no filter minds";
    EXPECT_EQ(AddressOf(id), Ip("192.168.77.150"));
    EXPECT_TRUE(WaitForNames({"9@192.168.77.150"}, 5s));
}

TEST_F(GigEForceIp, SaysWhenNobodyAcknowledges) {
    const auto id = AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    const auto start = Clock::now();
    EXPECT_EQ(Force(3, "192.168.77.150"), HAL_NO_ACKNOWLEDGE) << "a MAC that nobody has";
    EXPECT_GE(Since(start), 890ms);
    EXPECT_LT(Since(start), 3s);
    EXPECT_EQ(AddressOf(id), Ip("192.168.77.102"));
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
}

TEST_F(GigEForceIp, IsIgnoredByACameraInUse) {
    auto options = CameraOptions("192.168.77.102", 2);
    options.owner = Platform::Simulated::ControlOwner{{Ip("192.168.77.60"), 1234}, false};
    const auto id = AddCamera(options);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    EXPECT_EQ(Force(2, "192.168.77.150"), HAL_NO_ACKNOWLEDGE);
    EXPECT_EQ(AddressOf(id), Ip("192.168.77.102"));
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
}

TEST_F(GigEForceIp, IsRepeatedWhenItIsLost) {
    auto options = CameraOptions("192.168.77.102", 2);
    AddCamera(options);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    NetworkNamespace other;
    m_wire.Ip("addr flush dev c0");
    HostileDevice::Bytes acknowledge;
    std::atomic<int> requests{0};
    m_cameras.reset();
    m_wire.Ip("addr add 192.168.77.150/24 dev c0");
    HostileDevice device(m_wire, Ip("192.168.77.150"), [&](HostileDevice& self, const HostileDevice::Request& request) {
        if (!request.Is(Platform::Gvcp::MessageId::ForceIpCmd) || ++requests < 3) {
            return;
        }
        self.Answer(request, Platform::Gvcp::EncodeForceIpAck(request.header.requestId).GetBytes());
    });
    EXPECT_EQ(Force(2, "192.168.77.150"), HAL_OK);
    EXPECT_EQ(requests, 3);
    std::vector<std::uint16_t> ids;
    for (const auto& request : device.GetRequests()) {
        if (request.Is(Platform::Gvcp::MessageId::ForceIpCmd)) {
            ids.push_back(request.header.requestId);
        }
    }
    EXPECT_THAT(ids, ::testing::Each(ids.at(0)));
}

TEST_F(GigEForceIp, TakesNoAcknowledgeFromAnotherAddress) {
    m_wire.Ip("addr add 192.168.77.101/24 dev c0");
    HostileDevice device(m_wire, Ip("192.168.77.101"), [](HostileDevice& self, const HostileDevice::Request& request) {
        if (!request.Is(Platform::Gvcp::MessageId::ForceIpCmd)) {
            return;
        }
        self.Answer(request, Platform::Gvcp::EncodeForceIpAck(request.header.requestId).GetBytes());
    });
    Start({});
    EXPECT_EQ(Force(2, "192.168.77.150"), HAL_NO_ACKNOWLEDGE);
}

TEST_F(GigEForceIp, GivesEveryCameraOnAWrongSubnetAnAddressOfItsOwn) {
    const auto right = AddCamera("192.168.77.102", 2);
    std::vector<Platform::Simulated::SimulatedGigENetwork::CameraId> wrong;
    for (std::uint64_t i = 0; i < 12; ++i) {
        wrong.push_back(AddCamera("10.9.9." + std::to_string(10 + i), 100 + i));
    }
    Start({});
    EXPECT_EQ(ListNames().size(), 1u);
    const auto start = Clock::now();
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    EXPECT_LT(Since(start), m_window + 2s);
    EXPECT_EQ(AddressOf(right), Ip("192.168.77.102")) << "one already right is left alone";
    std::set<std::uint32_t> addresses{Ip("192.168.77.1"), Ip("192.168.77.100"), Ip("192.168.77.102")};
    for (const auto id : wrong) {
        const std::uint32_t address = AddressOf(id);
        EXPECT_EQ(address & 0xFFFFFF00, Ip("192.168.77.0"));
        EXPECT_TRUE(addresses.insert(address).second) << "taken twice";
    }
    EXPECT_EQ(ListNames().size(), 13u);
    const auto again = m_sink.GetCounts();
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK) << "nothing is left to do";
    EXPECT_EQ(m_sink.GetCounts(), again);
}

TEST_F(GigEForceIp, TakesNoAddressThatAHostAnswersFor) {
    // All but one address of a small subnet belong to hosts that say nothing but ARP.
    m_host.Ip("addr flush dev h0");
    m_host.Ip("addr add 192.168.77.1/28 dev h0");
    m_wire.Ip("addr flush dev c0");
    for (int i = 2; i <= 14; ++i) {
        if (i != 11) {
            m_wire.Ip("addr add 192.168.77." + std::to_string(i) + "/28 dev c0");
        }
    }
    const auto id = AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    EXPECT_EQ(AddressOf(id), Ip("192.168.77.11"));
    const auto records = ListRecords();
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_EQ(records[0].subnetMask, Ip("255.255.255.240")) << "the interface's mask";
}

// A firewall that lets nothing out but what it must must not make every address look free.
TEST_F(GigEForceIp, TakesNoAddressThatItMayNotAskFor) {
    m_host.Ip("addr flush dev h0");
    m_host.Ip("addr add 192.168.77.1/28 dev h0");
    m_wire.Ip("addr flush dev c0");
    for (int i = 2; i <= 14; ++i) {
        if (i != 11) {
            m_wire.Ip("addr add 192.168.77." + std::to_string(i) + "/28 dev c0");
        }
    }
    const auto forbid = [this](const std::string& what) {
        const ProgramResult result = m_host.RunProgram(
            {"nft",
             "flush ruleset; add table ip t; add chain ip t out { type filter hook output priority 0; };"
             "add rule ip t out " +
                 what + " drop"});
        ASSERT_EQ(result.exitStatus, 0) << result.errors;
    };
    const auto id = AddCamera("10.9.9.9", 9);
    forbid("ip daddr 192.168.77.0/28");
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_PERMISSION);
    EXPECT_EQ(AddressOf(id), Ip("10.9.9.9"));
    forbid("udp dport != 3956");
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    EXPECT_EQ(AddressOf(id), Ip("192.168.77.11"));
}

TEST_F(GigEForceIp, FindsTheOneFreeAddressOfACrowdedWire) {
    m_wire.Ip("addr flush dev c0");
    // Hosts at all addresses but the driver's own, .1, and .11: from where the search for this camera begins it is the
    // 222nd.
    for (const char* hosts : {"2/31", "4/30", "8/31", "10/32", "12/30", "16/28", "32/27", "64/26", "128/25"}) {
        m_wire.Ip(std::string("route add table local local 192.168.77.") + hosts + " dev c0");
    }
    const auto id = AddCamera("10.9.9.9", 13);
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    EXPECT_EQ(AddressOf(id), Ip("192.168.77.11"));
}

TEST_F(GigEForceIp, FillsASubnetToTheLastAddress) {
    m_host.Ip("addr flush dev h0");
    m_host.Ip("addr add 192.168.77.1/28 dev h0");
    m_wire.Ip("addr flush dev c0");
    std::vector<Platform::Simulated::SimulatedGigENetwork::CameraId> ids;
    for (std::uint64_t i = 0; i < 13; ++i) {
        ids.push_back(AddCamera("10.9.9." + std::to_string(10 + i), 100 + i));
    }
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    std::set<std::uint32_t> addresses;
    for (const auto id : ids) {
        addresses.insert(AddressOf(id));
    }
    EXPECT_THAT(addresses, SizeIs(13));
    EXPECT_EQ(*addresses.begin(), Ip("192.168.77.2"));
    EXPECT_EQ(*addresses.rbegin(), Ip("192.168.77.14"));
}

TEST_F(GigEForceIp, TakesTheSubnetThatHasRoomForACamera) {
    m_host.Ip("addr flush dev h0");
    m_host.Ip("addr add 169.254.1.1/32 dev h0");
    m_host.Ip("addr add 192.168.77.1/24 dev h0");
    const auto id = AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    EXPECT_EQ(AddressOf(id) & 0xFFFFFF00, Ip("192.168.77.0"));
}

TEST_F(GigEForceIp, GivesNoAddressTwiceWhereTwoInterfacesAreInOneSubnet) {
    m_host.Ip("addr flush dev h0");
    m_host.Ip("addr add 192.168.77.1/29 dev h0");
    m_wire.Ip("addr flush dev c0");
    NetworkNamespace second;
    Connect(m_host, "h1", second, "c0");
    m_host.Ip("addr add 192.168.77.2/29 dev h1");
    const auto cameras = MakeCameras(second);
    // Four addresses are left for four cameras: two of them, at least, want the same one first.
    for (std::uint64_t i = 0; i < 2; ++i) {
        AddCamera("10.9.9." + std::to_string(10 + i), 100 + i);
    }
    for (std::uint64_t i = 2; i < 4; ++i) {
        cameras->AddCamera(CameraOptions("10.9.9." + std::to_string(10 + i), 100 + i));
    }
    Start({});
    std::vector<Platform::AddressPlan> plans;
    ASSERT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_OK);
    std::set<std::uint32_t> addresses;
    for (const auto& plan : plans) {
        EXPECT_EQ(plan.status, HAL_OK);
        EXPECT_TRUE(addresses.insert(plan.newIp).second) << "given twice";
    }
    EXPECT_THAT(addresses, SizeIs(4));
}

TEST_F(GigEForceIp, SaysWhenTheSubnetIsFullAndStillServesTheOthers) {
    m_host.Ip("addr flush dev h0");
    m_host.Ip("addr add 192.168.77.1/30 dev h0");
    m_wire.Ip("addr flush dev c0");
    m_wire.Ip("addr add 192.168.77.2/30 dev c0");
    AddCamera("10.9.9.9", 9);
    NetworkNamespace second;
    Connect(m_host, "h1", second, "c0");
    m_host.Ip("addr add 172.20.0.1/24 dev h1");
    second.Ip("addr add 172.20.0.100/24 dev c0");
    const auto cameras = MakeCameras(second);
    const auto id = cameras->AddCamera(CameraOptions("10.9.9.9", 8)).id;
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_FAILED);
    std::uint32_t address = 0;
    cameras->Use(id, [&](SimulatedGigECamera& camera) { address = camera.GetAddress(); });
    EXPECT_EQ(address & 0xFFFFFF00, Ip("172.20.0.0"));
}

TEST_F(GigEForceIp, AFailureDoesNotStopTheOthersAndIsReturned) {
    auto options = CameraOptions("10.9.9.8", 1);
    options.owner = Platform::Simulated::ControlOwner{{Ip("10.9.9.60"), 1234}, false};
    const auto held = AddCamera(options);
    const auto free = AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_NO_ACKNOWLEDGE);
    EXPECT_EQ(AddressOf(held), Ip("10.9.9.8"));
    EXPECT_EQ(AddressOf(free) & 0xFFFFFF00, Ip("192.168.77.0"));
}

TEST_F(GigEForceIp, ServesOneCameraBySerialNumber) {
    const auto first = AddCamera("10.9.9.8", 8);
    const auto second = AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_EQ(AutoForceIp(9), HAL_OK);
    EXPECT_EQ(AddressOf(first), Ip("10.9.9.8"));
    EXPECT_EQ(AddressOf(second) & 0xFFFFFF00, Ip("192.168.77.0"));
    EXPECT_EQ(AutoForceIp(9), HAL_OK) << "it is right by now";
    EXPECT_EQ(AutoForceIp(10), HAL_GONE);
}

TEST_F(GigEForceIp, GivesTheSameAddressAgain) {
    m_wire.Ip("link set c0 address 02:00:00:00:00:09");  // what answers ARP for the camera
    const auto id = AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    const std::uint32_t first = AddressOf(id);
    m_cameras->Use(id, [](SimulatedGigECamera& camera) { camera.PowerCycle(); });
    ASSERT_EQ(AddressOf(id), Ip("10.9.9.9"));
    EXPECT_TRUE(WaitForNames({}, 5s));
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    EXPECT_EQ(AddressOf(id), first);
}

TEST_F(GigEForceIp, CannotServeCamerasWithoutMac) {
    IndependentCamera camera(m_wire, "192.168.77.100", "7");
    Start({});
    EXPECT_EQ(ListNames().size(), 1u);
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK) << "it is right";
    m_host.Ip("addr add 10.0.0.1/24 dev h0");
    m_host.Ip("addr del 192.168.77.1/24 dev h0");
    m_wire.Ip("route add 10.0.0.1/32 dev c0");
    EXPECT_TRUE(WaitForNames({}, 5s));
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_NOT_SUPPORTED);
}

// ---- What the kernel keeps from the socket -------------------------------------------------------------------------

class GigERpFilter : public GigEForceIp, public ::testing::WithParamInterface<int> {};

TEST_P(GigERpFilter, HidesNoForeignCameraFromWhoMayListenToPackets) {
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", std::to_string(GetParam()));
    AddCamera("192.168.77.102", 2);
    AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    // Who listens to packets does so on the caller's network.
    m_host.Run([&] {
        EXPECT_THAT(DiscoverNames(), ElementsAre("2@192.168.77.102", "9@10.9.9.9"));
        EXPECT_EQ(AutoForceIp(std::nullopt), HAL_OK);
    });
    EXPECT_EQ(ListNames().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Settings, GigERpFilter, ::testing::Values(0, 1, 2));

TEST_F(GigEForceIp, AFirewallHidesNoCameraThatIsKnown) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    const auto before = m_sink.GetCounts();
    const auto result =
        m_host.RunProgram({"nft",
                           "add table ip t; add chain ip t in { type filter hook input priority 0; policy drop; };"
                           "add rule ip t in ct state established,related accept"});
    ASSERT_EQ(result.exitStatus, 0) << result.errors;
    AddCamera("192.168.77.103", 3);
    EXPECT_THAT(DiscoverNames(), ElementsAre("2@192.168.77.102")) << "asked by itself it gets through";
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_EQ(m_sink.GetCounts(), before);
    m_host.RunProgram({"nft", "flush ruleset"});
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102", "3@192.168.77.103"}, 5s));
}

}  // namespace
}  // namespace Nimbrel2::Testing
