// SPDX-License-Identifier: Apache-2.0
// Network interfaces, addresses and wires that change under the GigE driver.
#include <net/if.h>
#include <sys/ioctl.h>

#include <atomic>
#include <thread>

#include "platform/gvcp/GvcpCodec.h"
#include "tests/platform/gige/GigEFixture.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::Simulated::SimulatedCameraOptions;
using Platform::Simulated::SimulatedGigECamera;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using GigENetwork = GigEWireTest;

TEST_F(GigENetwork, ListsTheCamerasOfAWire) {
    AddCamera("192.168.77.102", 2);
    AddCamera("192.168.77.103", 1);
    IndependentCamera independent(m_wire, "192.168.77.100", "7");
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("7@192.168.77.100", "1@192.168.77.103", "2@192.168.77.102"));
    EXPECT_THAT(ListNames(), ElementsAre("7@192.168.77.100", "1@192.168.77.103", "2@192.168.77.102"));
}

TEST_F(GigENetwork, HasNothingToDoWithoutANetwork) {
    m_host.Ip("link del h0");
    m_window = 10s;
    Start({});
    const auto start = Clock::now();
    EXPECT_THAT(List(), IsEmpty());
    EXPECT_LT(Since(start), m_window);
    std::vector<GvcpDiscoveryRecord> records;
    EXPECT_EQ(Discover(&records), HAL_NO_BUS);
    EXPECT_EQ(ForceIp(1, 2, 3, 4), HAL_NO_BUS);
    EXPECT_EQ(AutoForceIp(std::nullopt), HAL_NO_BUS);
    EXPECT_EQ(AutoForceIp(1), HAL_NO_BUS);
    EXPECT_EQ(m_sink.GetCounts(), RecordingSink::Counts());
}

TEST_F(GigENetwork, ReportsCamerasOfAnInterfaceThatAppears) {
    m_host.Ip("link del h0");
    Start({});
    EXPECT_THAT(List(), IsEmpty());
    const auto start = Clock::now();
    Connect(m_host, "h0", m_wire, "c0");
    m_wire.Ip("addr add 192.168.77.100/24 dev c0");
    AddCamera("192.168.77.102", 2);
    m_host.Ip("addr add 192.168.77.1/24 dev h0");
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.arrivals == 1; }, 5s));
    EXPECT_LT(Since(start), 3s);
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
}

TEST_F(GigENetwork, DropsCamerasWithTheirLinkAlone) {
    AddCamera("192.168.77.102", 2);
    Platform::GigE::Timings timings;
    timings.discoveryWindow = m_window;
    timings.probePeriod = 1h;  // no camera is missed by itself
    StartDriver(timings);
    ASSERT_EQ(m_listed.size(), 1u);
    m_wire.Ip("link set c0 down");
    EXPECT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.removals == 1; }, 5s));
}

TEST_F(GigENetwork, FindsCamerasAgainThatWentWithTheirLink) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    m_wire.Ip("link set c0 down");
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.removals == 1; }, 5s));
    EXPECT_THAT(ListNames(), IsEmpty());
    const auto before = m_sink.GetCounts();
    m_wire.Ip("link set c0 up");
    const auto up = Clock::now();
    ASSERT_TRUE(m_sink.WaitFor([&](const auto& counts) { return counts.arrivals > before.arrivals; }, 5s));
    EXPECT_LT(Since(up), 3s);
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
}

TEST_F(GigENetwork, KeepsCamerasWhoseLinkIsBackInTimeAndHoldsListingsMeanwhile) {
    AddCamera("192.168.77.102", 2);
    Platform::GigE::Timings timings;
    timings.discoveryWindow = m_window;
    timings.linkGrace = 60s;  // it is back in time, however busy this computer is
    StartDriver(timings);
    ASSERT_EQ(m_listed.size(), 1u);
    const auto before = m_sink.GetCounts();
    m_wire.Ip("link set c0 down");
    const auto isUsed = [this] {
        Platform::GigEDiagnosis diagnosis;
        EXPECT_EQ(m_driver->Diagnose(false, &diagnosis), HAL_OK);
        return std::any_of(diagnosis.interfaces.begin(), diagnosis.interfaces.end(),
                           [](const auto& entry) { return entry.interface.name == "h0" && entry.used; });
    };
    const auto deadline = Clock::now() + 10s;
    while (isUsed() && Clock::now() < deadline) {
        std::this_thread::yield();
    }
    ASSERT_FALSE(isUsed());
    // The monitor is done with what it has noticed when it runs anything else.
    Platform::GigEHearing hearing;
    ASSERT_EQ(m_driver->GetHearing().FindMutedCameras(&hearing), HAL_OK);
    std::atomic<bool> listed{false};
    std::thread listing([&] {
        EXPECT_EQ(ListOfDriver(), HAL_OK);
        listed = true;
    });
    // A listing that did not wait would have ended long before.
    const auto begin = Clock::now();
    while (Since(begin) < 300ms) {
        EXPECT_FALSE(listed);
        std::this_thread::yield();
    }
    m_wire.Ip("link set c0 up");
    listing.join();
    EXPECT_EQ(m_listed.size(), 1u);
    EXPECT_EQ(m_sink.GetCounts(), before);
}

TEST_F(GigENetwork, FindsCamerasOfAnInterfaceThatIsMovedAwayAndMadeAnew) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    NetworkNamespace elsewhere;
    m_host.Ip("link set h0 netns " + std::to_string(elsewhere.GetTask()));
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.removals == 1; }, 5s));
    EXPECT_THAT(ListNames(), IsEmpty());
    NetworkNamespace second;
    Connect(m_host, "h0", second, "c0");
    m_host.Ip("addr add 192.168.77.1/24 dev h0");
    second.Ip("addr add 192.168.77.100/24 dev c0");
    const auto cameras = MakeCameras(second);
    ASSERT_TRUE(cameras->AddCamera(CameraOptions("192.168.77.103", 3)));
    EXPECT_TRUE(WaitForNames({"3@192.168.77.103"}, 10s));
    // And the first one comes back, under another name.
    elsewhere.Ip("link set h0 down");
    elsewhere.Ip("link set h0 name h9");
    elsewhere.Ip("link set h9 netns " + std::to_string(m_host.GetTask()));
    m_host.Ip("link set h9 up");
    m_host.Ip("addr add 192.168.77.2/24 dev h9");
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102", "3@192.168.77.103"}, 10s));
}

TEST_F(GigENetwork, ListsNoCameraWhoseMaskLeavesThisComputerOut) {
    auto options = CameraOptions("192.168.77.102", 2);
    options.subnetMask = Ip("255.255.255.252");
    AddCamera(options);
    options = CameraOptions("192.168.77.110", 3);
    options.subnetMask = Ip("255.255.255.252");
    options.gateway = Ip("192.168.77.109");
    AddCamera(options);
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("3@192.168.77.110")) << "with a gateway it knows a way back";
    Platform::GigEDiscovery discovery;
    ASSERT_EQ(m_bus->Discover(std::nullopt, &discovery), HAL_OK);
    ASSERT_EQ(discovery.cameras.size(), 2u);
    EXPECT_EQ(discovery.cameras[0].usability, Platform::GigEUsability::OutsideItsSubnet);
    EXPECT_EQ(discovery.cameras[1].usability, Platform::GigEUsability::Usable);
    Platform::GigEDiagnosis diagnosis;
    ASSERT_EQ(m_bus->Diagnose(false, &diagnosis), HAL_OK);
    const auto wrong = std::find_if(diagnosis.cameras.begin(), diagnosis.cameras.end(),
                                    [](const auto& camera) { return camera.record.ipAddress == Ip("192.168.77.102"); });
    ASSERT_NE(wrong, diagnosis.cameras.end());
    EXPECT_EQ(wrong->usability, Platform::GigEUsability::OutsideItsSubnet);
    std::vector<Platform::AddressPlan> plans;
    ASSERT_EQ(m_bus->PlanAddresses(2, &plans), HAL_OK);
    ASSERT_EQ(plans.size(), 1u);
    EXPECT_FALSE(plans[0].alreadyRight);
    EXPECT_EQ(plans[0].usability, Platform::GigEUsability::OutsideItsSubnet);
    EXPECT_EQ(plans[0].newMask, 0xFFFFFF00u);
    ASSERT_EQ(m_bus->ApplyAddresses(&plans), HAL_OK);
    EXPECT_THAT(ListNames(), ::testing::SizeIs(2));
}

// VLANs and macvlans: two interfaces that hear what one cable brings.
TEST_F(GigENetwork, ListsACameraOnceThatAnInterfaceAndItsMacvlanHear) {
    m_host.Ip("link add link h0 name m0 type macvlan mode bridge");
    m_host.Ip("link set m0 up");
    m_host.Ip("addr add 192.168.77.3/24 dev m0");
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    const auto before = m_sink.GetCounts();
    EXPECT_THAT(DiscoverNames(), ElementsAre("2@192.168.77.102"));
    m_host.Ip("link del m0");
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[0]->ReadRegister(0xC, &value), HAL_OK);
    EXPECT_EQ(m_sink.GetCounts().removals, before.removals);
}

TEST_F(GigENetwork, KeepsItsLocalPortThroughALinkFailure) {
    AddCamera("192.168.77.102", 2);
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    std::uint32_t before = 0;
    ASSERT_EQ(cameras[0]->GetLocalPort(&before), HAL_OK);
    EXPECT_NE(before, 0u);
    m_wire.Ip("link set c0 down");
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.removals == 1; }, 5s));
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[0]->GetLocalPort(&value), HAL_GONE);
    m_wire.Ip("link set c0 up");
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102"}, 5s));
    std::uint32_t after = 0;
    EXPECT_EQ(cameras[0]->GetLocalPort(&after), HAL_OK) << "the entry names the camera, not the connection";
    EXPECT_EQ(after, before);
}

TEST_F(GigENetwork, FollowsTheAddressesOfItsInterfaces) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    m_host.Ip("addr add 10.9.9.1/24 dev h0");
    m_host.Ip("addr del 192.168.77.1/24 dev h0");
    ASSERT_TRUE(m_sink.WaitFor([](const auto& counts) { return counts.removals == 1; }, 5s));
    EXPECT_THAT(ListNames(), IsEmpty());
    EXPECT_THAT(DiscoverNames(), ElementsAre("2@192.168.77.102")) << "out of reach, not out of sight";
    m_host.Ip("addr add 192.168.77.2/24 dev h0");
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102"}, 5s));
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    std::uint32_t address = 0;
    EXPECT_EQ(cameras[0]->GetLocalAddress(&address), HAL_OK);
    EXPECT_EQ(address, Ip("192.168.77.2"));
}

TEST_F(GigENetwork, SurvivesTheRenamingOfAnInterface) {
    AddCamera("192.168.77.102", 2);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    m_host.Ip("link set h0 down");
    m_host.Ip("link set h0 name camera0");
    m_host.Ip("link set camera0 up");
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102"}, 5s));
}

TEST_F(GigENetwork, GoesByTheNamesItWasGiven) {
    AddCamera("192.168.77.102", 2);
    Start({"other"});
    EXPECT_THAT(ListNames(), IsEmpty());
    m_host.Ip("link set h0 down");
    m_host.Ip("link set h0 name other");
    m_host.Ip("link set other up");
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102"}, 5s));
    m_host.Ip("link set other down");
    m_host.Ip("link set other name h0");
    m_host.Ip("link set h0 up");
    EXPECT_TRUE(WaitForNames({}, 5s));
}

TEST_F(GigENetwork, FollowsACameraThatChangesItsAddress) {
    const auto id = AddCamera("192.168.77.102", 2);
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    const auto before = m_sink.GetCounts();
    m_cameras->Use(id, [](SimulatedGigECamera& camera) {
        const Platform::Gvcp::ForceIpCommand move{0x0200, 2, Ip("192.168.77.103"), 0xFFFFFF00, 0};
        const auto packet = Platform::Gvcp::EncodeForceIpCommand(1, 1, move);
        camera.Receive(packet.GetBytes(), {}, Platform::Simulated::Arrival::Broadcast, Clock::now());
    });
    ASSERT_TRUE(m_sink.WaitFor([&](const auto& counts) { return counts.arrivals > before.arrivals; }, 5s));
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.103"));
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[0]->ReadRegister(0x24, &value), HAL_OK) << "an old entry finds the camera";
    EXPECT_EQ(value, Ip("192.168.77.103"));
    EXPECT_EQ(m_sink.GetCounts().resets - before.resets, 1);
    EXPECT_EQ(m_sink.GetCounts().removals - before.removals, 1);
}

TEST_F(GigENetwork, ListsNoForeignCameraButDiscoversIt) {
    AddCamera("192.168.77.102", 2);
    AddCamera("10.9.9.9", 9);
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
    EXPECT_THAT(DiscoverNames(), ElementsAre("2@192.168.77.102", "9@10.9.9.9"));
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102"));
}

TEST_F(GigENetwork, ListsAForeignCameraThatARouteLeadsToWhenItHasAGateway) {
    auto options = CameraOptions("10.9.9.9", 9);
    AddCamera(options);
    options = CameraOptions("10.9.9.10", 10);
    options.gateway = Ip("10.9.9.1");
    AddCamera(options);
    m_host.Ip("route add 10.9.9.10/32 dev h0");
    m_wire.Ip("route add 192.168.77.1/32 dev c0");
    m_host.Ip("route add 10.9.9.9/32 dev h0");
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("10@10.9.9.10")) << "the other one knows no way back";
}

TEST_F(GigENetwork, CountsADefaultRouteForNothing) {
    AddCamera("10.9.9.9", 9);
    m_host.Ip("route add default dev h0");
    Start({});
    EXPECT_THAT(ListNames(), IsEmpty());
}

class GigETwoWires : public GigEWireTest {
protected:
    /// A second wire, from m_host's h1 to m_second's c0.
    void AddWire(const std::string& hostAddress, const std::string& cameraAddress) {
        Connect(m_host, "h1", m_second, "c0");
        m_host.Ip("addr add " + hostAddress + " dev h1");
        m_second.Ip("addr add " + cameraAddress + " dev c0");
        m_secondCameras = MakeCameras(m_second);
    }

    NetworkNamespace m_second;
    std::unique_ptr<Platform::Simulated::SimulatedGigENetwork> m_secondCameras;
};

TEST_F(GigETwoWires, AreDiscoveredAtOnce) {
    AddWire("172.20.0.1/24", "172.20.0.100/24");
    AddCamera("192.168.77.102", 2);
    ASSERT_TRUE(m_secondCameras->AddCamera(CameraOptions("172.20.0.103", 3)));
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102", "3@172.20.0.103"));
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 2u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[0]->GetLocalAddress(&value), HAL_OK);
    EXPECT_EQ(value, Ip("192.168.77.1"));
    EXPECT_EQ(cameras[1]->GetLocalAddress(&value), HAL_OK);
    EXPECT_EQ(value, Ip("172.20.0.1"));
}

TEST_F(GigETwoWires, MayShareASubnet) {
    AddWire("192.168.77.2/24", "192.168.77.200/24");
    AddCamera("192.168.77.102", 2);
    ASSERT_TRUE(m_secondCameras->AddCamera(CameraOptions("192.168.77.103", 3)));
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102", "3@192.168.77.103"));
    for (const auto& camera : List()) {
        GvcpDiscoveryRecord record{};
        std::uint32_t value = 0;
        ASSERT_EQ(camera->GetRecord(&record), HAL_OK);
        EXPECT_EQ(camera->ReadRegister(0x24, &value), HAL_OK);
        EXPECT_EQ(value, record.ipAddress);
        EXPECT_EQ(camera->ReadRegister(0xC, &value), HAL_OK) << "from the camera, which knows its MAC";
        EXPECT_EQ(value, record.macLow);
    }
}

TEST_F(GigETwoWires, MayEachHaveACameraAtTheSameAddress) {
    AddWire("192.168.77.2/24", "192.168.77.200/24");
    AddCamera("192.168.77.102", 2);
    ASSERT_TRUE(m_secondCameras->AddCamera(CameraOptions("192.168.77.102", 3)));
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("2@192.168.77.102", "3@192.168.77.102"));
    for (const auto& camera : List()) {
        GvcpDiscoveryRecord record{};
        std::uint32_t value = 0;
        ASSERT_EQ(camera->GetRecord(&record), HAL_OK);
        EXPECT_EQ(camera->ReadRegister(0xC, &value), HAL_OK);
        EXPECT_EQ(value, record.macLow);
    }
}

TEST_F(GigETwoWires, LoseOnlyTheirOwnCameras) {
    AddWire("172.20.0.1/24", "172.20.0.100/24");
    AddCamera("192.168.77.102", 2);
    ASSERT_TRUE(m_secondCameras->AddCamera(CameraOptions("172.20.0.103", 3)));
    Start({});
    ASSERT_EQ(List().size(), 2u);
    m_host.Ip("link del h1");
    EXPECT_TRUE(WaitForNames({"2@192.168.77.102"}, 5s));
    EXPECT_LE(m_sink.GetCounts().removals, 1);
}

/// A switch: bridge br0 in a namespace of its own, with a port for everybody.
class GigESwitch : public GigETest {
protected:
    GigESwitch() { m_switch.Ip("link add br0 type bridge"), m_switch.Ip("link set br0 up"); }

    void PlugIn(NetworkNamespace& network, const std::string& interface, const std::string& address) {
        const std::string port = "p" + std::to_string(++m_ports);
        Connect(m_switch, port, network, interface);
        m_switch.Ip("link set " + port + " master br0");
        network.Ip("addr add " + address + " dev " + interface);
    }

    NetworkNamespace m_switch;
    int m_ports = 0;
};

TEST_F(GigESwitch, ShowsACameraHeardTwiceOnceAndKeepsItWhenOneCableIsPulled) {
    // Without these the host answers on either interface for both addresses, and the camera's answers arrive on any.
    m_host.SetSystemControl("net/ipv4/conf/all/arp_ignore", "1");
    m_host.SetSystemControl("net/ipv4/conf/all/arp_announce", "2");
    NetworkNamespace wire;
    PlugIn(m_host, "h0", "192.168.77.1/24");
    PlugIn(m_host, "h1", "192.168.77.2/24");
    PlugIn(wire, "c0", "192.168.77.101/24");
    IndependentCamera camera(wire, "192.168.77.101", "7");
    camera.SetMac(0x020000007701);
    Start({});
    EXPECT_THAT(ListNames(), ElementsAre("7@192.168.77.101"));
    EXPECT_THAT(DiscoverNames(), ElementsAre("7@192.168.77.101"));
    const auto before = m_sink.GetCounts();
    m_host.Ip("link set h0 down");
    EXPECT_THAT(ListNames(), ElementsAre("7@192.168.77.101"));
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    std::uint32_t address = 0;
    EXPECT_EQ(cameras[0]->GetLocalAddress(&address), HAL_OK);
    EXPECT_EQ(address, Ip("192.168.77.2"));
    EXPECT_EQ(m_sink.GetCounts(), before);
}

// The kernel answers ARP for either address on either card, and sends by the first: what a camera answers arrives where
// it was not asked.
TEST_F(GigESwitch, ListsEachCameraOnceWithTheKernelsOwnArpSettings) {
    NetworkNamespace wire;
    PlugIn(m_host, "h0", "192.168.77.1/24");
    PlugIn(m_host, "h1", "192.168.77.2/24");
    PlugIn(wire, "c0", "192.168.77.101/24");
    const auto cameras = MakeCameras(wire);
    std::vector<std::string> names;
    for (std::uint64_t i = 2; i < 10; ++i) {
        ASSERT_TRUE(cameras->AddCamera(GigEWireTest::CameraOptions("192.168.77.10" + std::to_string(i), i)));
        names.push_back(std::to_string(i) + "@192.168.77.10" + std::to_string(i));
    }
    m_window = 1s;
    Start({});
    EXPECT_EQ(ListNames(), names);
    const auto before = m_sink.GetCounts();
    EXPECT_EQ(DiscoverNames(), names);
    const auto begin = Clock::now();
    while (Since(begin) < 4s) {
        EXPECT_EQ(ListNames(), names);
        for (const auto& camera : List()) {
            GvcpDiscoveryRecord record{};
            std::uint32_t value = 0;
            ASSERT_EQ(camera->GetRecord(&record), HAL_OK);
            EXPECT_EQ(camera->ReadRegister(0xC, &value), HAL_OK);
            EXPECT_EQ(value, record.macLow);
        }
    }
    EXPECT_EQ(m_sink.GetCounts(), before) << "nobody comes and goes";
}

TEST_F(GigESwitch, WithTwoCamerasOnOneAddressListsOneAndDiscoversBoth) {
    NetworkNamespace first;
    NetworkNamespace second;
    PlugIn(m_host, "h0", "192.168.77.1/24");
    PlugIn(first, "c0", "192.168.77.101/24");
    PlugIn(second, "c0", "192.168.77.101/24");
    const auto firstCameras = MakeCameras(first);
    const auto secondCameras = MakeCameras(second);
    SimulatedCameraOptions options;
    options.interfaceName = "c0";
    options.address = Ip("192.168.77.101");
    options.subnetMask = 0xFFFFFF00;
    for (const int i : {1, 2}) {
        options.mac = 0x020000000000 + static_cast<std::uint64_t>(i);
        options.serialNumber = std::to_string(i);
        ASSERT_TRUE((i == 1 ? firstCameras : secondCameras)->AddCamera(options));
    }
    Start({});
    // This computer's ARP table goes by whoever has spoken last, so that the cameras may take turns at first.
    std::uint32_t status = HAL_GONE;
    const auto deadline = Clock::now() + 10s;
    while (status != HAL_OK && Clock::now() < deadline) {
        const auto cameras = List();
        ASSERT_LE(cameras.size(), 1u);
        if (cameras.empty()) {
            continue;
        }
        GvcpDiscoveryRecord record{};
        ASSERT_EQ(cameras[0]->GetRecord(&record), HAL_OK);
        std::uint32_t value = 0;
        status = cameras[0]->ReadRegister(0xC, &value);
        EXPECT_TRUE(status != HAL_OK || value == record.macLow) << "the one that is listed is the one that answers";
    }
    EXPECT_EQ(status, HAL_OK);
    EXPECT_THAT(DiscoverNames(), ElementsAre("1@192.168.77.101", "2@192.168.77.101"));
}

}  // namespace
}  // namespace Nimbrel2::Testing
