// SPDX-License-Identifier: Apache-2.0
// Simulated cameras on a cable between two namespaces: foreign subnets, forced addresses, addresses added and removed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CameraTalk.h"
#include "HostSocket.h"
#include "platform/simulated/InterfaceAddresses.h"
#include "platform/simulated/SimulatedGigENetwork.h"
#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

using Nimbrel2::Testing::NetworkNamespace;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

constexpr std::uint32_t ForeignIp = 0x0A090909;  // 10.9.9.9
constexpr std::uint32_t RightIp = 0xC0A84D32;    // 192.168.77.50
constexpr std::uint64_t CameraMac = 0x020000000909;

Gvcp::Packet Force(std::uint16_t id, std::uint32_t address, std::uint32_t mask = 0xFFFFFF00) {
    return Gvcp::EncodeForceIpCommand(id, 0x01, {0x0200, 0x00000909, address, mask, 0});
}

/// A host at 192.168.77.1/24 and a camera computer, joined by a cable.
class SimulatedCable : public ::testing::Test {
protected:
    void SetUp() override {
        Connect(hostSpace, "h0", cameraSpace, "c0");
        hostSpace.Ip("addr add 192.168.77.1/24 dev h0");
        hostSpace.SetSystemControl("net/ipv4/conf/all/rp_filter", "0");
        hostSpace.SetSystemControl("net/ipv4/conf/h0/rp_filter", "0");
        cameraSpace.SetSystemControl("net/ipv4/conf/all/rp_filter", "0");
        cameraSpace.SetSystemControl("net/ipv4/conf/c0/rp_filter", "0");
        hostSpace.Run([this] { host = std::make_unique<HostSocket>("h0"); });
        cameraSpace.Run([this] {
            SimulatedGigENetwork::Options options;
            options.report = [this](const std::string& line) { reports.push_back(line); };
            network = std::make_unique<SimulatedGigENetwork>(options);
        });
    }

    void TearDown() override {
        cameraSpace.Run([this] { network.reset(); });
    }

    static SimulatedCameraOptions Foreign() {
        SimulatedCameraOptions options;
        options.interfaceName = "c0";
        options.address = ForeignIp;
        options.subnetMask = 0xFFFFFF00;
        options.mac = CameraMac;
        options.serialNumber = "4711";
        return options;
    }

    SimulatedGigENetwork::CameraId Add(const SimulatedCameraOptions& options) {
        const auto result = network->AddCamera(options);
        EXPECT_TRUE(result) << result.reason;
        return result.id;
    }

    std::string CameraAddresses() { return cameraSpace.RunProgram({"ip", "-o", "-4", "addr", "show", "c0"}).output; }

    NetworkNamespace hostSpace;
    NetworkNamespace cameraSpace;
    std::unique_ptr<HostSocket> host;
    std::vector<std::string> reports;
    std::unique_ptr<SimulatedGigENetwork> network;
};

TEST_F(SimulatedCable, ShowsAForeignCameraToThoseWhoAllowBroadcastAnswers) {
    const auto camera = Add(Foreign());
    host->Broadcast(Gvcp::EncodeDiscoveryCommand(1, 0x01));
    EXPECT_TRUE(network->WaitUntil(
        camera, [](SimulatedGigECamera& model) { return model.GetStatistics().discovery == 1; }, seconds(10)));
    host->Broadcast(Gvcp::EncodeDiscoveryCommand(2, 0x11));
    const auto received = host->Receive();
    ASSERT_TRUE(received);
    const auto decoded = received->Decode();
    EXPECT_EQ(decoded.header.ackId, 2) << "the first was not answered";
    EXPECT_EQ(received->from, (Endpoint{ForeignIp, Gvcp::Port}));
    EXPECT_EQ(std::get<Gvcp::DiscoveryAcknowledge>(decoded.body).record.ipAddress, ForeignIp);
}

TEST_F(SimulatedCable, MovesAForcedCameraToItsNewAddressAtOnce) {
    Add(Foreign());
    EXPECT_THAT(CameraAddresses(), HasSubstr("10.9.9.9/24"));
    host->Broadcast(Force(7, RightIp));
    const auto acknowledged = host->Receive();
    ASSERT_TRUE(acknowledged);
    EXPECT_EQ(acknowledged->from, (Endpoint{RightIp, Gvcp::Port})) << "the acknowledge comes from the new address";
    EXPECT_EQ(acknowledged->Decode().header.id, Gvcp::MessageId::ForceIpAck);
    EXPECT_EQ(acknowledged->Decode().header.ackId, 7);

    const std::uint32_t registers[] = {0x0024};
    host->Send(RightIp, Gvcp::EncodeReadRegCommand(8, registers));
    const auto read = host->Receive();
    ASSERT_TRUE(read);
    EXPECT_EQ(std::get<Gvcp::ReadRegAcknowledge>(read->Decode().body).values[0], RightIp);
    EXPECT_THAT(CameraAddresses(), HasSubstr("192.168.77.50/24"));
    EXPECT_THAT(CameraAddresses(), Not(HasSubstr("10.9.9.9"))) << "nobody is at the old address";
    EXPECT_THAT(reports, IsEmpty());
}

TEST_F(SimulatedCable, GoesBackWhenItIsRestarted) {
    Add(Foreign());
    host->Broadcast(Force(7, RightIp));
    ASSERT_TRUE(host->Receive());
    host->Broadcast(Force(8, 0));
    host->Broadcast(Gvcp::EncodeDiscoveryCommand(9, 0x11));
    const auto received = host->Receive();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->Decode().header.id, Gvcp::MessageId::DiscoveryAck) << "the restart was silent";
    EXPECT_EQ(received->from.address, ForeignIp);
}

TEST_F(SimulatedCable, KeepsTheNeighboursOfAnAddressThatLeaves) {
    // The first address of a subnet is the one with which the kernel would take the others away.
    SimulatedCameraOptions first = Foreign();
    first.address = 0xC0A84D0A;
    const auto leaving = Add(first);
    SimulatedCameraOptions second = Foreign();
    second.address = 0xC0A84D0B;
    second.mac = CameraMac + 1;
    Add(second);
    cameraSpace.Ip("addr add 192.168.77.12/24 dev c0");
    host->Broadcast(Force(7, RightIp));
    ASSERT_TRUE(host->Receive());
    EXPECT_THAT(CameraAddresses(), Not(HasSubstr("192.168.77.10/")));
    for (const char* address : {"192.168.77.11/24", "192.168.77.12/24", "192.168.77.50/24"}) {
        EXPECT_THAT(CameraAddresses(), HasSubstr(address));
    }
    network->RemoveCamera(leaving);
    EXPECT_THAT(CameraAddresses(), Not(HasSubstr("192.168.77.50/")));
    cameraSpace.Run([this] { network.reset(); });
    EXPECT_THAT(CameraAddresses(), Not(HasSubstr("192.168.77.11/"))) << "what was added is removed in the end";
    EXPECT_THAT(CameraAddresses(), HasSubstr("192.168.77.12/24")) << "what was not is left alone";
}

TEST_F(SimulatedCable, UsesAnAddressThatIsThereAndLeavesIt) {
    cameraSpace.Ip("addr add 10.9.9.9/24 dev c0");
    SimulatedCameraOptions options = Foreign();
    options.interfaceName.clear();
    Add(options);
    host->Broadcast(Force(7, RightIp));
    ASSERT_TRUE(host->Receive());
    EXPECT_THAT(CameraAddresses(), HasSubstr("10.9.9.9/24"));
    EXPECT_THAT(CameraAddresses(), HasSubstr("192.168.77.50/24"));
}

TEST_F(SimulatedCable, FollowsAForcedSubnetMask) {
    Add(Foreign());
    host->Broadcast(Force(7, RightIp));
    ASSERT_TRUE(host->Receive());
    host->Broadcast(Force(8, RightIp, 0xFFFF0000));
    ASSERT_TRUE(host->Receive());
    EXPECT_THAT(CameraAddresses(), HasSubstr("192.168.77.50/16"));
    EXPECT_THAT(CameraAddresses(), Not(HasSubstr("192.168.77.50/24")));
}

TEST_F(SimulatedCable, ReportsAnAddressThatItCannotHaveAndRecovers) {
    const auto camera = Add(Foreign());
    SimulatedCameraOptions other = Foreign();
    other.address = RightIp;
    other.mac = CameraMac + 1;
    const auto inTheWay = Add(other);
    host->Broadcast(Force(7, RightIp));
    EXPECT_TRUE(network->WaitUntil(
        camera, [](SimulatedGigECamera& model) { return model.GetAddress() == RightIp; }, seconds(10)));
    EXPECT_THAT(network->GetProblem(camera), HasSubstr("192.168.77.50 on c0: Address already in use"));
    EXPECT_THAT(reports, SizeIs(1));
    network->RemoveCamera(inTheWay);
    host->Broadcast(Force(8, RightIp));
    const auto acknowledged = host->Receive();
    ASSERT_TRUE(acknowledged);
    EXPECT_EQ(acknowledged->Decode().header.ackId, 8);
    EXPECT_THAT(network->GetProblem(camera), IsEmpty());
}

TEST_F(SimulatedCable, ForcesOneOfManyByItsMac) {
    for (std::uint32_t number = 0; number < 16; ++number) {
        SimulatedCameraOptions options = Foreign();
        options.address = ForeignIp + number;
        options.mac = CameraMac + number;
        Add(options);
    }
    host->Broadcast(Force(7, RightIp));
    ASSERT_TRUE(host->Receive());
    host->Broadcast(Gvcp::EncodeDiscoveryCommand(8, 0x11));
    const auto answers = host->Receive(16);
    ASSERT_THAT(answers, SizeIs(16));
    int foreign = 0;
    for (const Received& answer : answers) {
        foreign += answer.from.address >> 24 == 10 ? 1 : 0;
    }
    EXPECT_EQ(foreign, 15);
}

TEST_F(SimulatedCable, FindsCamerasOfTheSameComputer) {
    SimulatedCameraOptions options = Foreign();
    options.address = RightIp;
    Add(options);
    cameraSpace.Ip("addr add 192.168.77.2/24 dev c0");
    cameraSpace.Run([] {
        HostSocket local("c0");
        local.Broadcast(Gvcp::EncodeDiscoveryCommand(1, 0x01));
        const auto received = local.Receive();
        ASSERT_TRUE(received);
        EXPECT_EQ(received->from.address, RightIp);
    });
}

TEST(InterfaceAddresses, AreFoundAddedAndRemoved) {
    NetworkNamespace space;
    space.Ip("link add d0 type bridge");
    space.Ip("link set d0 up");
    space.Run([] {
        EXPECT_EQ(FindInterfaceOf(0x7F123456), "lo");
        EXPECT_EQ(FindInterfaceOf(RightIp), "");
        EXPECT_EQ(AddInterfaceAddress("d0", RightIp, 0xFFFFFF00), 0);
        EXPECT_EQ(FindInterfaceOf(RightIp), "d0");
        EXPECT_EQ(AddInterfaceAddress("d0", RightIp, 0xFFFFFF00), EEXIST);
        EXPECT_EQ(RemoveInterfaceAddress("d0", RightIp, 0xFFFFFF00), 0);
        EXPECT_EQ(FindInterfaceOf(RightIp), "");
        EXPECT_EQ(RemoveInterfaceAddress("d0", RightIp, 0xFFFFFF00), EADDRNOTAVAIL);
        EXPECT_EQ(AddInterfaceAddress("nowhere0", RightIp, 0xFFFFFF00), ENODEV);
    });
}

}  // namespace
}  // namespace Nimbrel2::Platform::Simulated
