// SPDX-License-Identifier: Apache-2.0
// What a rig's GigE bus tells of its interfaces and cameras, and what automatic addressing would do to them.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>

#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"

namespace Nimbrel2::Platform {
namespace {

// Two cameras are right, two are foreign, one has an address that another one has, one network is down.
const char TestRig[] = R"({
  "gige": [
    {"name": "e0", "address": "192.168.77.1/29", "cameras": [
      {"name": "right", "mac": "02:00:00:00:00:01", "address": "192.168.77.2/29", "serial": "101"},
      {"name": "twin", "mac": "02:00:00:00:00:02", "address": "192.168.77.2/29", "serial": "102"},
      {"name": "far", "mac": "02:00:00:00:00:03", "address": "10.9.9.9/24", "serial": "103"},
      {"name": "farther", "mac": "02:00:00:00:00:04", "address": "10.9.9.10/24", "serial": "104"}]},
    {"name": "e1", "address": "172.20.0.1/16", "up": false, "cameras": [
      {"name": "dark", "mac": "02:00:00:00:00:05", "address": "172.20.0.5/16", "serial": "105"}]}]
})";

class NoEvents : public BusEventSink {
public:
    void Report(BusState) noexcept override {}
    void RaiseError() noexcept override {}
};

class RigDiagnosis : public ::testing::Test {
protected:
    RigDiagnosis()
        : m_rig(std::make_shared<Rig>(ParseRig(TestRig, "diagnosis").rig)), m_bus(MakeRigGigEBus(m_rig, m_events)) {
        m_rig->SetFast(true);
        m_bus->Start();
    }

    GigEDiagnosis Diagnose(bool askControl) {
        GigEDiagnosis diagnosis;
        EXPECT_EQ(m_bus->Diagnose(askControl, &diagnosis), HAL_OK);
        return diagnosis;
    }

    std::vector<AddressPlan> Plan(std::optional<std::uint32_t> serialNumber = std::nullopt) {
        std::vector<AddressPlan> plans;
        EXPECT_EQ(m_bus->PlanAddresses(serialNumber, &plans), HAL_OK);
        return plans;
    }

    NoEvents m_events;
    std::shared_ptr<Rig> m_rig;
    std::unique_ptr<GigEBus> m_bus;
};

TEST_F(RigDiagnosis, DescribesInterfacesThatAreUpAndDown) {
    const GigEDiagnosis diagnosis = Diagnose(false);
    ASSERT_EQ(diagnosis.interfaces.size(), 2u);
    const InterfaceDiagnosis& up = diagnosis.interfaces[0];
    EXPECT_EQ(up.interface.name, "e0");
    EXPECT_TRUE(up.used && up.interface.up && up.interface.running);
    EXPECT_EQ(up.reason, "");
    ASSERT_EQ(up.interface.addresses.size(), 1u);
    EXPECT_EQ(up.interface.addresses[0].address, 0xC0A84D01u);
    EXPECT_EQ(up.interface.addresses[0].prefixLength, 29);
    const InterfaceDiagnosis& down = diagnosis.interfaces[1];
    EXPECT_FALSE(down.used || down.interface.up);
    EXPECT_EQ(down.reason, "down");
    EXPECT_NE(up.interface.index, down.interface.index);
}

TEST_F(RigDiagnosis, TellsListedForeignAndTwinCamerasApart) {
    const GigEDiagnosis diagnosis = Diagnose(false);
    ASSERT_EQ(diagnosis.cameras.size(), 4u) << "those that are heard";
    const auto& [right, twin, far, farther] =
        std::tie(diagnosis.cameras[0], diagnosis.cameras[1], diagnosis.cameras[2], diagnosis.cameras[3]);
    EXPECT_TRUE(right.reachable && right.present && right.listed);
    EXPECT_FALSE(right.addressTaken);
    EXPECT_TRUE(twin.reachable && twin.addressTaken);
    EXPECT_FALSE(twin.listed);
    EXPECT_FALSE(far.reachable || far.listed || far.addressTaken || farther.reachable);
    EXPECT_EQ(far.interface, diagnosis.interfaces[0].interface.index);
    EXPECT_EQ(right.control.state, ControlState::Unknown) << "nobody was asked";
}

TEST_F(RigDiagnosis, TellsWhoControlsACamera) {
    EXPECT_EQ(Diagnose(true).cameras[0].control.state, ControlState::Free);
    m_rig->Hold("right", Simulated::ControlOwner{{0xC0A84D06, 1234}, false});
    const ControlInfo held = Diagnose(true).cameras[0].control;
    EXPECT_EQ(held.state, ControlState::Controlled);
    EXPECT_EQ(held.ownerIp, 0xC0A84D06u);
    EXPECT_EQ(held.ownerPort, 1234);
    m_rig->Hold("right", Simulated::ControlOwner{{0xC0A84D06, 1234}, true});
    EXPECT_EQ(Diagnose(true).cameras[0].control.state, ControlState::Exclusive);
}

TEST_F(RigDiagnosis, KnowsItsOwnControl) {
    Listing<GigEDevice> cameras;
    ASSERT_EQ(m_bus->ListCameras(&cameras), HAL_OK);
    ASSERT_EQ(cameras.devices[0]->WriteRegister(0xA00, 2), HAL_OK);
    EXPECT_EQ(Diagnose(true).cameras[0].control.state, ControlState::Ours);
}

TEST_F(RigDiagnosis, HearsEveryCameraOfAnInterfaceThatIsUp) {
    GigEHearing hearing;
    ASSERT_EQ(m_bus->FindMutedCameras(&hearing), HAL_OK);
    ASSERT_EQ(hearing.interfaces.size(), 1u);
    EXPECT_EQ(hearing.interfaces[0].interface, Diagnose(false).interfaces[0].interface.index);
    EXPECT_EQ(hearing.interfaces[0].heard, 4u);
    EXPECT_TRUE(hearing.muted.empty());
    m_bus->Stop();
    EXPECT_EQ(m_bus->FindMutedCameras(&hearing), HAL_CLOSED);
}

TEST_F(RigDiagnosis, PlansOneFreeAddressForEachCameraThatNeedsOneAndChangesNothing) {
    const std::vector<AddressPlan> plans = Plan();
    ASSERT_EQ(plans.size(), 4u);
    EXPECT_TRUE(plans[0].alreadyRight);
    EXPECT_EQ(plans[0].usability, GigEUsability::Usable);
    EXPECT_EQ(plans[0].newIp, 0u);
    EXPECT_EQ(plans[1].usability, GigEUsability::AddressTaken);
    EXPECT_EQ(plans[2].usability, GigEUsability::OtherSubnet);
    std::set<std::uint32_t> given;
    for (const AddressPlan& plan : {plans[1], plans[2], plans[3]}) {
        EXPECT_FALSE(plan.alreadyRight);
        EXPECT_EQ(plan.status, HAL_OK);
        EXPECT_EQ(plan.interfaceName, "e0");
        EXPECT_EQ(plan.interfaceAddress.address, 0xC0A84D01u);
        EXPECT_TRUE(plan.interfaceAddress.Contains(plan.newIp));
        EXPECT_EQ(plan.newMask, 0xFFFFFFF8u);
        EXPECT_TRUE(given.insert(plan.newIp).second);
    }
    EXPECT_EQ(given.count(0xC0A84D01), 0u);
    EXPECT_EQ(given.count(0xC0A84D02), 0u);
    EXPECT_EQ(Diagnose(false).cameras[2].record.ipAddress, 0x0A090909u);
}

TEST_F(RigDiagnosis, DoesWhatItHasPlannedAndSaysWhatBecameOfIt) {
    std::vector<AddressPlan> plans = Plan();
    m_rig->Hold("far", Simulated::ControlOwner{{0xC0A84D06, 1234}, false});
    EXPECT_EQ(m_bus->ApplyAddresses(&plans), HAL_NO_ACKNOWLEDGE);
    const GigEDiagnosis diagnosis = Diagnose(false);
    EXPECT_EQ(diagnosis.cameras[1].record.ipAddress, plans[1].newIp);
    EXPECT_EQ(plans[1].status, HAL_OK);
    for (std::size_t i : {2u, 3u}) {
        const bool moved = diagnosis.cameras[i].record.ipAddress == plans[i].newIp;
        EXPECT_EQ(plans[i].status, moved ? HAL_OK : HAL_NO_ACKNOWLEDGE);
    }
}

TEST_F(RigDiagnosis, PlansForOneCamera) {
    const std::vector<AddressPlan> plans = Plan(104);
    ASSERT_EQ(plans.size(), 1u);
    EXPECT_EQ(plans[0].record.ipAddress, 0x0A09090Au);
    std::vector<AddressPlan> none;
    EXPECT_EQ(m_bus->PlanAddresses(4711, &none), HAL_GONE);
}

TEST_F(RigDiagnosis, PlansNoAddressWhereNoneIsFree) {
    m_rig->SetAddress("right", 0xC0A84D03, 0xFFFFFFF8, 0xC0A84D04);
    m_rig->SetAddress("twin", 0xC0A84D02, 0xFFFFFFF8, 0xC0A84D05);
    const std::vector<AddressPlan> plans = Plan();
    EXPECT_EQ(plans[2].newIp, 0xC0A84D06u);
    EXPECT_EQ(plans[3].newIp, 0u);
    EXPECT_EQ(plans[3].status, HAL_FAILED);
}

TEST_F(RigDiagnosis, AnswersWhyThereIsNoPlan) {
    std::vector<AddressPlan> plans;
    m_rig->SetLink("e0", false);
    EXPECT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_NO_BUS);
    m_bus->Stop();
    GigEDiagnosis diagnosis;
    EXPECT_EQ(m_bus->PlanAddresses(std::nullopt, &plans), HAL_CLOSED);
    EXPECT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_CLOSED);
}

}  // namespace
}  // namespace Nimbrel2::Platform
