// SPDX-License-Identifier: Apache-2.0
// Whether a camera has the address that it was given, who has an address, and plans that are applied as they were
// shown.
#include <thread>

#include "platform/gvcp/GvcpCodec.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::AddressHolder;
using Platform::AddressPlan;
using Platform::ForceIpResult;
using Platform::GigEUsability;
using Platform::Gvcp::MessageId;
using Platform::Simulated::SimulatedGigECamera;
using ::testing::ElementsAre;
using ::testing::SizeIs;
using Request = HostileDevice::Request;

constexpr std::uint64_t CameraMac = 0x020000000000;

class GigEAddresses : public GigEWireTest {
protected:
    ForceIpResult Force(std::uint64_t mac, const std::string& ip, std::uint32_t expected = HAL_OK) {
        ForceIpResult result;
        EXPECT_EQ(m_bus->ForceAddress({CameraMac + mac, Ip(ip), 0xFFFFFF00, 0}, &result), expected);
        return result;
    }

    AddressHolder FindHolder(const std::string& ip) {
        AddressHolder holder;
        EXPECT_EQ(m_bus->FindAddressHolder(Ip(ip), &holder), HAL_OK);
        return holder;
    }

    std::uint32_t AddressOf(Platform::Simulated::SimulatedGigENetwork::CameraId id) {
        std::uint32_t address = 0;
        m_cameras->Use(id, [&](SimulatedGigECamera& camera) { address = camera.GetAddress(); });
        return address;
    }
};

// ---- Whether it has it ---------------------------------------------------------------------------------------------

TEST_F(GigEAddresses, AreVerifiedByTheCameraThatWasGivenThem) {
    AddCamera("10.9.9.9", 9);
    Start({});
    const ForceIpResult result = Force(9, "192.168.77.150");
    EXPECT_TRUE(result.acknowledged);
    EXPECT_TRUE(result.verified);
    EXPECT_FALSE(result.outOfReach);
    EXPECT_EQ(NameOf(result.record), "9@192.168.77.150");
}

// It acknowledges what was meant for another one, and answers there with its own MAC.
TEST_F(GigEAddresses, AreNotVerifiedByAnotherDeviceThatHasThem) {
    m_wire.Ip("addr add 192.168.77.150/24 dev c0");
    HostileDevice device(m_wire, Ip("192.168.77.150"), [](HostileDevice& self, const Request& request) {
        if (request.Is(MessageId::ForceIpCmd)) {
            self.Answer(request, Platform::Gvcp::EncodeForceIpAck(request.header.requestId).GetBytes());
        } else if (request.Is(MessageId::DiscoveryCmd)) {
            self.Answer(request, HostileDevice::DiscoveryAck(request, 0x0666, Ip("192.168.77.150")));
        }
    });
    Start({});
    const ForceIpResult result = Force(9, "192.168.77.150");
    EXPECT_TRUE(result.acknowledged);
    EXPECT_FALSE(result.verified);
    EXPECT_FALSE(result.outOfReach) << "it could have been asked";
}

TEST_F(GigEAddresses, AreNotVerifiedByACameraThatAcknowledgesAndFallsSilent) {
    m_wire.Ip("addr add 192.168.77.150/24 dev c0");
    HostileDevice device(m_wire, Ip("192.168.77.150"), [](HostileDevice& self, const Request& request) {
        if (!request.Is(MessageId::ForceIpCmd)) {
            return;
        }
        self.Answer(request, Platform::Gvcp::EncodeForceIpAck(request.header.requestId).GetBytes());
    });
    Start({});
    const ForceIpResult result = Force(9, "192.168.77.150");
    EXPECT_TRUE(result.acknowledged);
    EXPECT_FALSE(result.verified);
}

TEST_F(GigEAddresses, AreVerifiedEvenWhenTheAcknowledgeIsLost) {
    m_wire.Ip("addr add 192.168.77.150/24 dev c0");
    HostileDevice device(m_wire, Ip("192.168.77.150"), [](HostileDevice& self, const Request& request) {
        if (!request.Is(MessageId::DiscoveryCmd)) {
            return;
        }
        self.Answer(request, HostileDevice::DiscoveryAck(request, CameraMac + 9, Ip("192.168.77.150")));
    });
    Start({});
    ASSERT_EQ(List().size(), 1u);
    const ForceIpResult result = Force(9, "192.168.77.150", HAL_NO_ACKNOWLEDGE);
    EXPECT_FALSE(result.acknowledged);
    EXPECT_TRUE(result.verified) << "it answers there";
}

TEST_F(GigEAddresses, OutsideEverySubnetAreAcknowledgedAndOutOfReach) {
    const auto id = AddCamera("192.168.77.102", 2);
    Platform::GigE::Timings timings;
    timings.discoveryWindow = m_window;
    timings.forceIpVerify = 1h;  // nothing that cannot come is waited for
    StartDriver(timings);
    ASSERT_EQ(m_listed.size(), 1u);
    ForceIpResult result;
    EXPECT_EQ(m_driver->GetAddresses().Force({CameraMac + 2, Ip("172.20.0.5"), 0xFFFFFF00, 0}, &result), HAL_OK);
    EXPECT_TRUE(result.acknowledged);
    EXPECT_FALSE(result.verified);
    EXPECT_TRUE(result.outOfReach);
    EXPECT_EQ(AddressOf(id), Ip("172.20.0.5"));
}

// It begins its configuration anew and says nothing to it.
TEST_F(GigEAddresses, OfZeroAreSentAndNotWaitedFor) {
    HostileDevice device(m_wire, Ip("192.168.77.100"), [](HostileDevice&, const Request&) {});
    Start({});
    const ForceIpResult result = Force(2, "0.0.0.0");
    EXPECT_FALSE(result.acknowledged);
    EXPECT_FALSE(result.verified);
    EXPECT_TRUE(device.WaitFor([](const Request& request) { return request.Is(MessageId::ForceIpCmd); }, 10s));
}

// ---- Who has it ----------------------------------------------------------------------------------------------------

TEST_F(GigEAddresses, AreFoundWithWhoeverHasThem) {
    AddCamera("192.168.77.102", 2);
    AddCamera("10.9.9.9", 9);
    m_wire.Ip("addr add 172.20.0.7/24 dev c0");  // a host that answers nothing but ARP, as .100 is
    Start({});
    ASSERT_EQ(List().size(), 1u);

    EXPECT_EQ(FindHolder("192.168.77.1").kind, AddressHolder::Kind::ThisComputer);
    EXPECT_EQ(FindHolder("192.168.77.1").interfaceName, "h0");
    const AddressHolder camera = FindHolder("192.168.77.102");
    EXPECT_EQ(camera.kind, AddressHolder::Kind::Camera);
    EXPECT_EQ(camera.mac, CameraMac + 2);
    EXPECT_EQ(FindHolder("10.9.9.9").mac, CameraMac + 9) << "of another subnet too";
    const AddressHolder host = FindHolder("192.168.77.100");
    EXPECT_EQ(host.kind, AddressHolder::Kind::Host);
    EXPECT_NE(host.mac, 0u);
    EXPECT_EQ(host.interfaceName, "h0");
    EXPECT_EQ(FindHolder("192.168.77.200").kind, AddressHolder::Kind::Nobody);
    EXPECT_EQ(FindHolder("172.20.0.7").kind, AddressHolder::Kind::Host) << "who may see packets asks anywhere";
    EXPECT_EQ(FindHolder("172.20.0.8").kind, AddressHolder::Kind::Nobody);
}

TEST_F(GigEAddresses, AreFoundByTheKernelsOwnArpWhereNoPacketsMayBeSeen) {
    m_wire.Ip("addr add 172.20.0.7/24 dev c0");
    ASSERT_EQ(StartAfter(DropCapabilities), HAL_OK);
    std::thread([&] {
        DropCapabilities();
        const AddressHolder host = FindHolder("192.168.77.100");
        EXPECT_EQ(host.kind, AddressHolder::Kind::Host);
        EXPECT_NE(host.mac, 0u);
        EXPECT_EQ(FindHolder("192.168.77.200").kind, AddressHolder::Kind::Nobody);
        EXPECT_EQ(FindHolder("172.20.0.7").kind, AddressHolder::Kind::Unknown);
    }).join();
}

// ---- Plans ---------------------------------------------------------------------------------------------------------

TEST_F(GigEAddresses, AreGivenExactlyAsPlanned) {
    const auto first = AddCamera("10.9.9.8", 8);
    const auto second = AddCamera("10.9.9.9", 9);
    const auto third = AddCamera("10.9.9.10", 10);
    Start({});
    std::vector<AddressPlan> plans;
    ASSERT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_OK);
    ASSERT_THAT(plans, SizeIs(3));
    const std::uint32_t shown = plans[0].newIp;
    plans[1].newIp = Ip("192.168.77.222");  // what somebody has decided since
    plans[2].status = HAL_FAILED;
    EXPECT_EQ(m_bus->ApplyAddresses(&plans), HAL_FAILED) << "of the one that had failed before";
    EXPECT_EQ(plans[0].status, HAL_OK);
    EXPECT_EQ(plans[1].status, HAL_OK);
    EXPECT_EQ(AddressOf(first), shown);
    EXPECT_EQ(AddressOf(second), Ip("192.168.77.222"));
    EXPECT_EQ(AddressOf(third), Ip("10.9.9.10"));
    EXPECT_EQ(List().size(), 2u) << "both answer by then";
}

TEST_F(GigEAddresses, OfTwoCamerasWithOneSerialNumberAreTwoPlans) {
    AddCamera("10.9.9.8", 8);
    auto options = CameraOptions("10.9.9.9", 9);
    options.serialNumber = "8";
    AddCamera(options);
    Start({});
    std::vector<AddressPlan> plans;
    ASSERT_EQ(m_bus->PlanAddresses(8, &plans), HAL_OK);
    ASSERT_THAT(plans, SizeIs(2));
    EXPECT_EQ(plans[0].record.macLow, 8u);
    EXPECT_EQ(plans[1].record.macLow, 9u);
}

TEST_F(GigEAddresses, OfACameraThatHasTheAddressOfThisComputerAreReplaced) {
    // Its answers to broadcasts cannot come from there; a switch that mirrors, or an address given to this computer
    // later, makes such a camera heard.
    HostileDevice device(m_wire, Ip("192.168.77.100"), [](HostileDevice& self, const Request& request) {
        if (!request.Is(MessageId::DiscoveryCmd)) {
            return;
        }
        self.Answer(request, HostileDevice::DiscoveryAck(request, CameraMac + 5, Ip("192.168.77.1")));
    });
    Start({});
    std::vector<AddressPlan> plans;
    ASSERT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_OK);
    ASSERT_THAT(plans, SizeIs(1));
    EXPECT_FALSE(plans[0].alreadyRight);
    EXPECT_EQ(plans[0].usability, GigEUsability::AddressTaken);
    EXPECT_NE(plans[0].newIp, 0u);
    EXPECT_NE(plans[0].newIp, Ip("192.168.77.1"));
}

TEST_F(GigEAddresses, OfZeroAreSeenPlannedAndCured) {
    std::atomic<std::uint32_t> ip{0};
    HostileDevice device(m_wire, Ip("192.168.77.100"), [&](HostileDevice& self, const Request& request) {
        if (request.Is(MessageId::DiscoveryCmd)) {
            if (ip != 0 && request.to != ip && request.to != 0xFFFFFFFF) {
                return;
            }
            self.AnswerFrom(request, ip != 0 ? ip.load() : Ip("192.168.77.100"), 3956,
                            HostileDevice::DiscoveryAck(request, CameraMac + 5, ip));
        } else if (request.Is(MessageId::ReadRegCmd)) {
            self.AnswerFrom(request, ip, 3956,
                            HostileDevice::ReadAck(request, request.Address() == 0x24 ? ip.load() : 0));
        } else if (request.Is(MessageId::ForceIpCmd)) {
            const auto command = Platform::Gvcp::DecodeCommand(request.bytes);
            const auto* force = std::get_if<Platform::Gvcp::ForceIpCommand>(&command.body);
            if (force == nullptr || force->macLow != 5) {
                return;
            }
            if (ip == 0) {
                m_wire.Ip("addr add " + Platform::FormatIp(force->ipAddress) + "/24 dev c0");
            }
            ip = force->ipAddress;
            self.AnswerFrom(request, ip, 3956,
                            HostileDevice::Bytes{0, 0, 0, 5, 0, 0, request.bytes[6], request.bytes[7]});
        }
    });
    Start({});
    EXPECT_EQ(List().size(), 0u);
    Platform::GigEDiscovery discovery;
    ASSERT_EQ(m_bus->Discover(std::nullopt, &discovery), HAL_OK);
    ASSERT_THAT(discovery.cameras, SizeIs(1));
    EXPECT_EQ(discovery.cameras[0].usability, GigEUsability::NoAddress);
    std::vector<AddressPlan> plans;
    ASSERT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_OK);
    ASSERT_THAT(plans, SizeIs(1));
    EXPECT_EQ(plans[0].usability, GigEUsability::NoAddress);
    ASSERT_EQ(m_bus->ApplyAddresses(&plans), HAL_OK);
    EXPECT_EQ(ip, plans[0].newIp);
    EXPECT_THAT(ListNames(), ElementsAre("666@" + Platform::FormatIp(plans[0].newIp)));
}

}  // namespace
}  // namespace Nimbrel2::Testing
