// SPDX-License-Identifier: Apache-2.0
// Self-IDs, numbers of nodes, PHY registers and bus resets.
#include <linux/firewire-constants.h>

#include "platform/base/SelfIds.h"
#include "platform/linux/firewire/TopologyMap.h"
#include "tests/platform/firewire/FireWireFixture.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct SelfIdReading {
    std::uint32_t status = HAL_OK;
    std::vector<SelfIdPacket_t> packets;
    std::uint64_t busKey = 0;
    std::uint32_t generation = 0;
};

SelfIdReading ReadSelfIds(FireWireDevice& device) {
    SelfIdReading reading;
    reading.status = device.GetSelfIds(&reading.packets, &reading.busKey, &reading.generation);
    return reading;
}

using FireWireBusOfNodes = FireWireDriverOfTwoCameras;

TEST_F(FireWireBusOfNodes, TellsItsSelfIdsOnceAGenerationWhoeverAsks) {
    const SelfIdReading left = ReadSelfIds(*m_left);
    ASSERT_EQ(left.status, HAL_OK);
    const auto phys = DecodeSelfIds(left.packets);
    ASSERT_TRUE(phys);
    // left 0, right 1, hub 2 (six ports), disk 3, card 4.
    ASSERT_THAT(*phys, SizeIs(5));
    EXPECT_FALSE((*phys)[2].linkActive);
    EXPECT_EQ((*phys)[0].ports[0].neighbour, 2u);
    EXPECT_EQ((*phys)[1].ports[0].neighbour, 2u);
    EXPECT_EQ((*phys)[2].ports[0].neighbour, 4u);
    const SelfIdReading right = ReadSelfIds(*m_right);
    EXPECT_EQ(right.status, HAL_OK);
    EXPECT_EQ(right.busKey, left.busKey);
    EXPECT_EQ(right.generation, left.generation);
    EXPECT_EQ(m_computer.CountRequests("card", TopologyMapOffset), 1u);
}

TEST_F(FireWireBusOfNodes, TellsOtherSelfIdsAndAnotherGenerationAfterAReset) {
    const SelfIdReading before = ReadSelfIds(*m_left);
    m_computer.Unplug("right");
    const SelfIdReading after = ReadSelfIds(*m_left);
    ASSERT_EQ(after.status, HAL_OK);
    EXPECT_NE(after.generation, before.generation);
    EXPECT_EQ(after.busKey, before.busKey);
    EXPECT_LT(after.packets.size(), before.packets.size());
    EXPECT_EQ(ReadSelfIds(*m_right).status, HAL_GONE);
    EXPECT_LE(m_computer.CountRequests("card", TopologyMapOffset), 2u);
}

TEST_F(FireWireBusOfNodes, ReadsItsSelfIdsAnewWhenTheBusIsResetMeanwhile) {
    for (int i = 0; i < 10; ++i) {
        m_computer.ResetIn("card", Testing::FileCall::SendRequest);
        m_computer.Reset("left");
        EXPECT_EQ(ReadSelfIds(*m_left).status, HAL_OK);
    }
}

TEST_F(FireWireBusOfNodes, RefusesSelfIdsThatMakeNoTree) {
    m_computer.CutAnswers("card", 20);
    m_computer.Reset("left");
    EXPECT_EQ(ReadSelfIds(*m_left).status, HAL_BAD_ANSWER);
    m_computer.CutAnswers("card", 1024);
    m_computer.Reset("left");
    EXPECT_EQ(ReadSelfIds(*m_left).status, HAL_OK);
}

TEST_F(FireWireBusOfNodes, TellsTheSerialNumbersOfItsNodesByPhyId) {
    std::vector<std::uint32_t> serialNumbers;
    ASSERT_EQ(m_left->GetNodeSerialNumbers(&serialNumbers), HAL_OK);
    EXPECT_THAT(serialNumbers, ElementsAre(0x00031001, 0x00031002, 0, 0x0000D15C, 1));
    m_computer.Unplug("left");
    // The one that has left still has a file, and another one its number.
    ASSERT_EQ(m_right->GetNodeSerialNumbers(&serialNumbers), HAL_OK);
    EXPECT_THAT(serialNumbers, ElementsAre(0x00031002, 0, 0x0000D15C, 1));
    EXPECT_EQ(m_left->GetNodeSerialNumbers(&serialNumbers), HAL_GONE);
}

TEST_F(FireWireBusOfNodes, HasAKeyOfItsOwn) {
    m_computer.AddBus(Testing::FireWireBusOfCameras(1, "b."), SecondCard);
    ASSERT_TRUE(m_sink.WaitForDevices(4));
    const auto other = FindCamera(0x00040000);
    ASSERT_TRUE(other);
    const SelfIdReading reading = ReadSelfIds(*other);
    EXPECT_EQ(reading.status, HAL_OK);
    EXPECT_THAT(reading.packets, SizeIs(1 + 4));
    EXPECT_NE(reading.busKey, ReadSelfIds(*m_left).busKey);
}

// ---- PHY registers -------------------------------------------------------------------------------------------------

TEST_F(FireWireBusOfNodes, ReadsPhyRegistersOfTheNodeItself) {
    std::uint32_t value = 0;
    ASSERT_EQ(m_right->ReadPhy(0, 0, 0, &value), HAL_OK);
    EXPECT_EQ(value >> 2, 1u) << "its phy id";
    ASSERT_EQ(m_right->ReadPhy(0, 0, 1, &value), HAL_OK);
    EXPECT_EQ(value & 0x3F, 63u) << "the gap count";
    ASSERT_EQ(m_right->ReadPhy(0, 0, 3, &value), HAL_OK);
    EXPECT_EQ(value >> 5, 2u) << "S400";
    ASSERT_EQ(m_right->ReadPhy(0, 0, 8, &value), HAL_OK);
    EXPECT_EQ(value & 6U, 6u) << "port 0 is connected and has bias";
    ASSERT_EQ(m_right->ReadPhy(0, 3, 8, &value), HAL_OK);
    EXPECT_EQ(value, 0u) << "there is no port 3";
    ASSERT_EQ(m_right->ReadPhy(1, 0, 10, &value), HAL_OK);
    EXPECT_EQ(value, 0x00u);
    ASSERT_EQ(m_right->ReadPhy(1, 0, 11, &value), HAL_OK);
    EXPECT_EQ(value, 0x11u) << "the vendor's OUI";
    m_computer.Unplug("left");
    ASSERT_EQ(m_right->ReadPhy(0, 0, 0, &value), HAL_OK);
    EXPECT_EQ(value >> 2, 0u) << "it has another number now";
    EXPECT_EQ(m_left->ReadPhy(0, 0, 0, &value), HAL_GONE);
}

TEST_F(FireWireBusOfNodes, TimesOutWhereAPhyKnowsNoRemoteAccess) {
    m_computer.SetPhyMute("left", true);
    std::uint32_t value = 0;
    EXPECT_EQ(m_left->ReadPhy(0, 0, 1, &value), HAL_TIMED_OUT);
    EXPECT_EQ(m_right->ReadPhy(0, 0, 1, &value), HAL_OK);
}

TEST_F(FireWireBusOfNodes, ReadsAPhyRegisterThoughTheBusIsResetMeanwhile) {
    std::uint32_t value = 0;
    for (int i = 0; i < 5; ++i) {
        m_computer.ResetIn("card", Testing::FileCall::SendPhyPacket);
        EXPECT_EQ(m_left->ReadPhy(0, 0, 1, &value), HAL_OK);
    }
}

TEST_F(FireWireBusOfNodes, WritesNoPhyRegister) {
    EXPECT_EQ(m_left->WritePhy(0, 0, 1, 0x3F), HAL_PHY_WRITE_NOT_IMPLEMENTED);
}

// ---- Resets --------------------------------------------------------------------------------------------------------

TEST_F(FireWireBusOfNodes, IsResetWhenAUserAsks) {
    EXPECT_EQ(m_left->FireBusReset(), HAL_OK);
    EXPECT_TRUE(m_sink.WaitForResets(1));
    EXPECT_TRUE(m_sink.IsLastSettled()) << "nobody need wait for the end of the burst once more";
    EXPECT_EQ(m_computer.CountResets("left"), 1u);
    m_computer.Unplug("left");
    EXPECT_EQ(m_left->FireBusReset(), HAL_GONE);
}

TEST_F(FireWireBusOfNodes, LacksWhatTakesTheControllersFileWhenThatLeaves) {
    m_computer.VanishIn("card", Testing::FileCall::GetInfo);
    std::uint32_t value = 0;
    EXPECT_THAT(ReadSelfIds(*m_left).status, ::testing::AnyOf(HAL_GONE, HAL_OK));
    EXPECT_TRUE(WaitUntil([&] { return ReadSelfIds(*m_left).status == HAL_GONE; }));
    EXPECT_EQ(m_left->ReadPhy(0, 0, 1, &value), HAL_GONE);
}

using Testing::FileCall;

class FireWireVanishingController : public FireWireDriverOfTwoCameras,
                                    public ::testing::WithParamInterface<FileCall> {};

TEST_P(FireWireVanishingController, LeavesNothingThatTakesItsFile) {
    m_computer.VanishIn("card", GetParam());
    m_computer.Reset("left");  // so that its self-IDs are read
    std::uint32_t value = 0;
    // One of these makes the call; those before it succeed.
    EXPECT_THAT(ReadSelfIds(*m_left).status, ::testing::AnyOf(HAL_GONE, HAL_OK));
    EXPECT_THAT(m_left->ReadPhy(0, 0, 1, &value), ::testing::AnyOf(HAL_GONE, HAL_OK));
    EXPECT_TRUE(WaitUntil([&] { return ReadSelfIds(*m_left).status == HAL_GONE; }));
    EXPECT_EQ(m_left->ReadPhy(0, 0, 1, &value), HAL_GONE);
    EXPECT_EQ(m_left->WritePhy(0, 0, 1, 0), HAL_PHY_WRITE_NOT_IMPLEMENTED);
}

INSTANTIATE_TEST_SUITE_P(InEachCall, FireWireVanishingController,
                         ::testing::Values(FileCall::GetInfo, FileCall::SendRequest, FileCall::ReceivePhyPackets,
                                           FileCall::SendPhyPacket, FileCall::Read));

class FireWireBusOfAUser : public FireWireDriver {};

TEST_F(FireWireBusOfAUser, IsDescribedByTheNodesThatMayBeOpenedWithoutTheControllersFile) {
    AddStandardBus();
    m_computer.Deny("card");
    m_computer.Deny("left");
    const Testing::NoPermissionOverride user;
    Start();
    std::vector<BusMap> maps;
    ASSERT_EQ(m_bus->Describe(&maps), HAL_OK);
    ASSERT_THAT(maps, SizeIs(1));
    ASSERT_THAT(maps[0].nodes, SizeIs(2));
    EXPECT_EQ(maps[0].nodes[0].serialNumber, 0x00031002u);
    EXPECT_EQ(maps[0].nodes[0].speed, 0u);
}

// Nobody knows its phy id, and the tree would put it in the place of another one.
TEST_F(FireWireBusOfAUser, PlacesNoCameraThatMayNotBeOpened) {
    AddStandardBus();
    m_computer.Deny("right");
    const Testing::NoPermissionOverride user;
    Start();
    EXPECT_EQ(ReadSelfIds(*FindCamera(0x00031002)).status, HAL_PERMISSION);
    EXPECT_EQ(ReadSelfIds(*FindCamera(0x00031001)).status, HAL_OK);
}

TEST_F(FireWireBusOfAUser, ShowsNoTreeAndNoPhyRegisterWithoutTheControllersFile) {
    AddStandardBus();
    m_computer.Deny("card");
    const Testing::NoPermissionOverride user;
    Start();
    const auto left = FindCamera(0x00031001);
    EXPECT_EQ(ReadSelfIds(*left).status, HAL_PERMISSION);
    std::uint32_t value = 0;
    EXPECT_EQ(left->ReadPhy(0, 0, 1, &value), HAL_PERMISSION);
    EXPECT_EQ(left->WritePhy(0, 0, 1, 0), HAL_PHY_WRITE_NOT_IMPLEMENTED);
    EXPECT_EQ(left->FireBusReset(), HAL_OK);
    std::vector<std::uint32_t> serialNumbers;
    EXPECT_EQ(left->GetNodeSerialNumbers(&serialNumbers), HAL_OK);
    EXPECT_THAT(serialNumbers, ElementsAre(0x00031001, 0x00031002, 0, 0x0000D15C, 0));
}

// ---- Diagnosis -----------------------------------------------------------------------------------------------------

TEST_F(FireWireBusOfNodes, IsDiagnosedWithItsTreeAndItsManagers) {
    FireWireDiagnosis diagnosis;
    ASSERT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_OK);
    EXPECT_TRUE(diagnosis.driverLoaded);
    EXPECT_THAT(diagnosis.idleControllers, IsEmpty());
    ASSERT_THAT(diagnosis.buses, SizeIs(1));
    const FireWireBusDiagnosis& bus = diagnosis.buses[0];
    EXPECT_EQ(bus.path, "/devices/pci0000:00/0000:00:1e.0/0000:06:01.0");
    EXPECT_EQ(bus.card, 0u);
    EXPECT_TRUE(bus.seesResets);
    EXPECT_EQ(bus.treeError, 0);
    EXPECT_EQ(bus.selfIdStatus, HAL_OK);
    EXPECT_EQ(bus.local, 4u);
    EXPECT_EQ(bus.root, 4u);
    EXPECT_EQ(bus.busManager, 4u);
    EXPECT_EQ(bus.resourceManager, 4u);
    EXPECT_EQ(bus.hasCycleMaster, true);
    EXPECT_THAT(bus.phys, SizeIs(5));
    ASSERT_THAT(bus.nodes, SizeIs(4));
    EXPECT_TRUE(bus.nodes[0].local);
    EXPECT_EQ(bus.nodes[0].phyId, 4u);
    EXPECT_EQ(bus.nodes[1].model, "Zoom 1394");
    EXPECT_TRUE(bus.nodes[1].camera);
    EXPECT_EQ(bus.nodes[1].phyId, 0u);
    EXPECT_EQ(bus.nodes[3].vendor, "Disco");
    EXPECT_FALSE(bus.nodes[3].camera);
    EXPECT_EQ(bus.resets, 0u);
    EXPECT_THAT(bus.portChanges, IsEmpty());
}

TEST_F(FireWireBusOfNodes, IsDescribedNodeByNode) {
    std::vector<BusMap> maps;
    ASSERT_EQ(m_bus->Describe(&maps), HAL_OK);
    ASSERT_THAT(maps, SizeIs(1));
    EXPECT_EQ(maps[0].bus, HAL_INTERFACE_1394);
    EXPECT_EQ(maps[0].name, "fw0");
    std::vector<std::string> texts;
    for (const BusMapNode& node : maps[0].nodes) {
        texts.push_back(std::to_string(node.id) + " " + std::to_string(node.speed) + (node.isHub ? " hub" : "") +
                        (node.isThisComputer ? " computer" : "") + (node.isCamera ? " camera" : "") + " '" + node.name +
                        "' " + std::to_string(node.serialNumber));
    }
    EXPECT_THAT(texts, ElementsAre("0 400 camera 'Acme Zoom 1394' 200705", "1 400 camera 'Acme Zoom 1394' 200706",
                                   "2 400 hub '' 0", "3 400 'Disco' 0", "4 400 computer 'Linux Firewire' 0"));
    EXPECT_EQ(maps[0].nodes[0].vendor, "Acme");
    EXPECT_EQ(maps[0].nodes[0].model, "Zoom 1394");
}

TEST_F(FireWireBusOfNodes, IsDiagnosedWithTheSocketInWhichACableComesAndGoes) {
    FireWireDiagnosis diagnosis;
    ASSERT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_OK);
    for (int i = 0; i < 3; ++i) {
        m_computer.Unplug("right");
        ASSERT_EQ(ReadSelfIds(*m_left).status, HAL_OK);
        m_computer.Plug("right");
        ASSERT_EQ(ReadSelfIds(*m_left).status, HAL_OK);
    }
    diagnosis = {};
    ASSERT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_OK);
    ASSERT_THAT(diagnosis.buses, SizeIs(1));
    EXPECT_EQ(diagnosis.buses[0].resets, 6u);
    ASSERT_THAT(diagnosis.buses[0].portChanges, SizeIs(1));
    EXPECT_EQ(diagnosis.buses[0].portChanges[0].phyId, 2u) << "the hub";
    EXPECT_EQ(diagnosis.buses[0].portChanges[0].port, 2u);
    EXPECT_EQ(diagnosis.buses[0].portChanges[0].changes, 6u);
}

TEST_F(FireWireBusOfNodes, IsDiagnosedWithOneResetWhenTheControllerCountsAnew) {
    for (unsigned int i = 1; i <= 3; ++i) {
        m_computer.Reset("left");
        ASSERT_TRUE(m_sink.WaitForResets(i));
    }
    m_computer.ResetAndCountAnew("left");
    ASSERT_TRUE(m_sink.WaitForResets(4));
    EXPECT_THAT(ListCameras(), SizeIs(2));
    FireWireDiagnosis diagnosis;
    ASSERT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_OK);
    ASSERT_THAT(diagnosis.buses, SizeIs(1));
    EXPECT_EQ(diagnosis.buses[0].resets, 4u);
}

TEST_F(FireWireBusOfAUser, IsDiagnosedWithWhatMayNotBeOpened) {
    AddStandardBus();
    m_computer.Deny("card");
    m_computer.Deny("right");
    m_computer.AddIdleController(SecondCard);
    const Testing::NoPermissionOverride user;
    Start();
    FireWireDiagnosis diagnosis;
    ASSERT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_OK);
    EXPECT_THAT(diagnosis.idleControllers, ElementsAre(SecondCard));
    ASSERT_THAT(diagnosis.buses, SizeIs(1));
    const FireWireBusDiagnosis& bus = diagnosis.buses[0];
    EXPECT_TRUE(bus.seesResets);
    EXPECT_EQ(bus.treeError, EACCES);
    EXPECT_EQ(bus.selfIdStatus, HAL_PERMISSION);
    EXPECT_THAT(bus.phys, IsEmpty());
    EXPECT_FALSE(bus.hasCycleMaster);
    EXPECT_EQ(bus.root, 4u);
    ASSERT_THAT(bus.nodes, SizeIs(4));
    EXPECT_EQ(bus.nodes[1].error, 0);
    EXPECT_EQ(bus.nodes[2].error, EACCES);
    EXPECT_FALSE(bus.nodes[2].phyId);
}

TEST_F(FireWireBusOfAUser, IsDiagnosedAsMissingWithoutTheKernelsDriver) {
    m_computer.AddIdleController(FirstCard);
    Start();
    FireWireDiagnosis diagnosis;
    ASSERT_EQ(m_bus->Diagnose(true, &diagnosis), HAL_OK);
    EXPECT_FALSE(diagnosis.driverLoaded);
    EXPECT_THAT(diagnosis.idleControllers, ElementsAre(FirstCard));
    EXPECT_THAT(diagnosis.buses, IsEmpty());
}

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
