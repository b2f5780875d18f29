// SPDX-License-Identifier: Apache-2.0
// What the driver tells people who look for a camera.
#include "tests/platform/gige/GigEFixture.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::AddressPlan;
using Platform::CameraDiagnosis;
using Platform::ControlState;
using Platform::GigEDiagnosis;
using Platform::InterfaceDiagnosis;
using Platform::Simulated::SimulatedGigECamera;

class GigEDiagnosisTest : public GigEWireTest {
protected:
    GigEDiagnosis Diagnose(bool askControl = false) {
        GigEDiagnosis diagnosis;
        EXPECT_EQ(m_bus->Diagnose(askControl, &diagnosis), HAL_OK);
        return diagnosis;
    }

    static InterfaceDiagnosis Interface(const GigEDiagnosis& diagnosis, const std::string& name) {
        for (const InterfaceDiagnosis& entry : diagnosis.interfaces) {
            if (entry.interface.name == name) {
                return entry;
            }
        }
        ADD_FAILURE() << "no " << name;
        return {};
    }

    static CameraDiagnosis Camera(const GigEDiagnosis& diagnosis, const std::string& name) {
        for (const CameraDiagnosis& entry : diagnosis.cameras) {
            if (NameOf(entry.record) == name) {
                return entry;
            }
        }
        ADD_FAILURE() << "no " << name;
        return {};
    }
};

TEST_F(GigEDiagnosisTest, NamesWhyAnInterfaceIsNotUsed) {
    m_host.Ip("link add bare type veth peer name empty");
    Connect(m_host, "alone", m_wire, "other");
    m_host.Ip("link set empty up");
    m_wire.Ip("link set other down");
    // The kernel takes a while to notice that the other end is down.
    const auto noticed = Clock::now() + 5s;
    Start({});
    while (Interface(Diagnose(), "alone").reason != "no link" && Clock::now() < noticed) {
        std::this_thread::yield();
    }
    const GigEDiagnosis diagnosis = Diagnose();
    EXPECT_EQ(diagnosis.error, 0);
    EXPECT_EQ(Interface(diagnosis, "lo").reason, "loopback is used only when it is named");
    EXPECT_EQ(Interface(diagnosis, "bare").reason, "down");
    EXPECT_EQ(Interface(diagnosis, "empty").reason, "no link");
    EXPECT_EQ(Interface(diagnosis, "alone").reason, "no link");
    m_wire.Ip("link set other up");
    m_wire.Ip("addr add 172.20.0.2/24 dev other");
    const auto deadline = Clock::now() + 5s;
    while (Interface(Diagnose(), "alone").reason == "no link" && Clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(Interface(Diagnose(), "alone").reason, "no IPv4 address");
    const InterfaceDiagnosis used = Interface(diagnosis, "h0");
    EXPECT_TRUE(used.used);
    EXPECT_EQ(used.reason, "");
    EXPECT_EQ(used.interface.mtu, 1500u);
    ASSERT_EQ(used.interface.addresses.size(), 1u);
    EXPECT_EQ(used.interface.addresses[0].address, Ip("192.168.77.1"));
    EXPECT_EQ(used.interface.addresses[0].prefixLength, 24);
    EXPECT_NE(used.localPort, 0);
    EXPECT_GT(used.receiveBuffer, 100000u);
}

TEST_F(GigEDiagnosisTest, KnowsTheReversePathFilterInForce) {
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "0");
    m_host.SetSystemControl("net/ipv4/conf/h0/rp_filter", "2");
    Start({});
    InterfaceDiagnosis used = Interface(Diagnose(), "h0");
    EXPECT_EQ(used.rpFilterOfAll, 0);
    EXPECT_EQ(used.rpFilterOfIt, 2);
    EXPECT_EQ(used.GetRpFilter(), 2);
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "1");
    m_host.SetSystemControl("net/ipv4/conf/h0/rp_filter", "0");
    used = Interface(Diagnose(), "h0");
    EXPECT_EQ(used.rpFilterOfAll, 1);
    EXPECT_EQ(used.GetRpFilter(), 1);
}

TEST_F(GigEDiagnosisTest, KnowsTheWayToForeignAddresses) {
    Start({});
    EXPECT_EQ(Diagnose().defaultRoute, 0);
    m_host.Ip("route add default via 192.168.77.254 dev h0");
    const GigEDiagnosis diagnosis = Diagnose();
    EXPECT_EQ(diagnosis.defaultRoute, Interface(diagnosis, "h0").interface.index);
}

TEST_F(GigEDiagnosisTest, AsksCamerasForTheSizeOfTheirPackets) {
    const auto id = AddCamera("192.168.77.102", 2);
    m_cameras->Use(id, [](SimulatedGigECamera& camera) { camera.GetRegisters().Poke(0xD04, 0x40000000 | 9000); });
    Start({});
    ASSERT_EQ(List().size(), 1u);
    EXPECT_EQ(Camera(Diagnose(true), "2@192.168.77.102").packetSize, 9000u);
    EXPECT_EQ(Camera(Diagnose(false), "2@192.168.77.102").packetSize, 0u);
}

TEST_F(GigEDiagnosisTest, TellsReachableFromForeignAndWhoIsInControl) {
    auto options = CameraOptions("192.168.77.102", 2);
    options.owner = Platform::Simulated::ControlOwner{{Ip("192.168.77.60"), 1234}, false};
    AddCamera(options);
    AddCamera("10.9.9.9", 9);
    Start({});
    ASSERT_EQ(List().size(), 1u);
    const GigEDiagnosis diagnosis = Diagnose(true);
    const CameraDiagnosis right = Camera(diagnosis, "2@192.168.77.102");
    EXPECT_TRUE(right.reachable && right.present && right.listed);
    EXPECT_FALSE(right.addressTaken);
    EXPECT_EQ(right.control.state, ControlState::Controlled);
    EXPECT_EQ(right.control.ownerIp, Ip("192.168.77.60"));
    const CameraDiagnosis foreign = Camera(diagnosis, "9@10.9.9.9");
    EXPECT_FALSE(foreign.reachable || foreign.present || foreign.listed);
    EXPECT_EQ(foreign.control.state, ControlState::Unknown);
}

TEST_F(GigEDiagnosisTest, TellsWhenTheKernelDoesNot) {
    Start({});
    Stop();
    GigEDiagnosis diagnosis;
    EXPECT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_CLOSED);
    std::vector<AddressPlan> plans;
    EXPECT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_CLOSED);
}

TEST_F(GigEDiagnosisTest, PlansAddressesWithoutChangingAny) {
    AddCamera("192.168.77.102", 2);
    const auto id = AddCamera("10.9.9.9", 9);
    Start({});
    std::vector<AddressPlan> plans;
    ASSERT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_OK);
    ASSERT_EQ(plans.size(), 2u);
    EXPECT_TRUE(plans[0].alreadyRight);
    EXPECT_EQ(plans[0].newIp, 0u);
    EXPECT_FALSE(plans[1].alreadyRight);
    EXPECT_EQ(plans[1].interfaceName, "h0");
    EXPECT_EQ(plans[1].newIp & 0xFFFFFF00, Ip("192.168.77.0"));
    EXPECT_EQ(plans[1].newMask, 0xFFFFFF00u);
    EXPECT_EQ(plans[1].status, HAL_OK);
    m_cameras->Use(id, [](SimulatedGigECamera& camera) { EXPECT_EQ(camera.GetAddress(), Ip("10.9.9.9")); });
    EXPECT_TRUE(plans[1].interfaceAddress.Contains(plans[1].newIp));
    std::vector<AddressPlan> one;
    ASSERT_EQ(m_bus->PlanAddresses(9, &one), HAL_OK);
    ASSERT_EQ(one.size(), 1u) << "of that camera alone";
    EXPECT_EQ(one[0].record.ipAddress, Ip("10.9.9.9"));
    std::vector<AddressPlan> none;
    EXPECT_EQ(m_bus->PlanAddresses(4711, &none), HAL_GONE);
    EXPECT_THAT(none, ::testing::IsEmpty());
}

}  // namespace
}  // namespace Nimbrel2::Testing
