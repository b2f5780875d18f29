// SPDX-License-Identifier: Apache-2.0
// The rig's FireWire bus: numbering, self-ID packets, registers, and what cannot be a bus.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "platform/rig/ConfigRom.h"
#include "platform/rig/FireWireModel.h"

namespace Nimbrel2::Platform {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

PhyDescription Phy(const std::string& name, PhyKind kind, unsigned int ports, std::uint64_t eui64) {
    PhyDescription phy;
    phy.name = name;
    phy.kind = kind;
    phy.ports = ports;
    phy.eui64 = eui64;
    return phy;
}

CableDescription Cable(const std::string& a, unsigned int portA, const std::string& b, unsigned int portB) {
    return {{CableEnd{a, portA}, CableEnd{b, portB}}};
}

// card(0) - hub(0); hub(1) - a, hub(4) - b
FireWireBusDescription HubBus() {
    FireWireBusDescription bus;
    bus.name = "fw0";
    bus.gapCount = 7;
    bus.phys = {Phy("card", PhyKind::Card, 3, 0x0800460102030405), Phy("hub", PhyKind::Repeater, 6, 0),
                Phy("a", PhyKind::Camera, 1, 0x0011880000000001), Phy("b", PhyKind::Camera, 2, 0x0011880000000002)};
    bus.phys[0].contender = true;
    bus.cables = {Cable("card", 0, "hub", 0), Cable("hub", 1, "a", 0), Cable("hub", 4, "b", 0)};
    return bus;
}

std::vector<std::string> NamesInOrder(const FireWireModel& bus) {
    std::vector<std::string> names;
    for (const FireWireModel::Node& node : bus.Nodes()) {
        names.push_back(node.phy->name);
    }
    return names;
}

std::vector<std::uint32_t> Quadlets(const FireWireModel& bus) {
    std::vector<std::uint32_t> quadlets;
    for (const SelfIdPacket_t& packet : bus.SelfIds()) {
        quadlets.push_back(static_cast<std::uint32_t>(packet.bytes[0]) << 24 |
                           static_cast<std::uint32_t>(packet.bytes[1]) << 16 |
                           static_cast<std::uint32_t>(packet.bytes[2]) << 8 | packet.bytes[3]);
    }
    return quadlets;
}

TEST(FireWireModel, NumbersEachPhyAfterItsChildrenLowestPortFirst) {
    const FireWireModel bus(HubBus(), 0);
    // Three leaves name the hub their parent in one round, so it is the root.
    EXPECT_THAT(NamesInOrder(bus), ElementsAre("card", "a", "b", "hub"));
}

TEST(FireWireModel, WritesSelfIdPacketsBitByBit) {
    const FireWireModel bus(HubBus(), 0);
    EXPECT_THAT(
        Quadlets(bus),
        ElementsAre(0x80000000U | 0U << 24 | 1U << 22 | 7U << 16 | 2U << 14 | 1U << 11 | 2U << 6 | 1U << 4 | 1U << 2,
                    0x80000000U | 1U << 24 | 1U << 22 | 7U << 16 | 2U << 14 | 2U << 6,
                    0x80000000U | 2U << 24 | 1U << 22 | 7U << 16 | 2U << 14 | 2U << 6 | 1U << 4,
                    // The hub has no link; ports 0 and 1 to children, 2 open, more to come ...
                    0x80000000U | 3U << 24 | 7U << 16 | 2U << 14 | 3U << 6 | 3U << 4 | 1U << 2 | 1U,
                    // ... ports 3 (open), 4 (child) and 5 (open) in the first extended packet.
                    0x80800000U | 3U << 24 | 1U << 16 | 3U << 14 | 1U << 12));
}

TEST(FireWireModel, NeedsThreeExtendedPacketsForTwentySevenPorts) {
    FireWireBusDescription bus = HubBus();
    bus.phys[1].ports = 27;
    bus.cables[2] = Cable("hub", 26, "b", 0);
    const std::vector<std::uint32_t> quadlets = Quadlets(FireWireModel(bus, 0));
    ASSERT_EQ(quadlets.size(), 7U);
    EXPECT_EQ(quadlets[3] & 1U, 1U);
    EXPECT_EQ(quadlets[4] >> 20 & 7U, 0U);
    EXPECT_EQ(quadlets[5] >> 20 & 7U, 1U);
    EXPECT_EQ(quadlets[6] >> 20 & 7U, 2U);
    EXPECT_EQ(quadlets[6] & 1U, 0U);
    EXPECT_EQ(quadlets[6] >> 2 & 3U, 3U) << "port 26 leads to a child";
}

TEST(FireWireModel, RenumbersAndCountsAResetWhenACameraIsUnpluggedAndPluggedIn) {
    FireWireModel bus(HubBus(), 0);
    const std::uint32_t generation = bus.Generation();
    ASSERT_EQ(bus.FindNode(0x0011880000000002)->phyId, 2U);
    EXPECT_TRUE(bus.Unplug("a"));
    EXPECT_FALSE(bus.Unplug("a"));
    EXPECT_EQ(bus.FindNode(0x0011880000000001), nullptr);
    EXPECT_THAT(NamesInOrder(bus), ElementsAre("card", "b", "hub"));
    EXPECT_EQ(bus.FindNode(0x0011880000000002)->phyId, 1U);
    EXPECT_EQ(bus.Generation(), generation + 1);
    EXPECT_TRUE(bus.Plug("a"));
    EXPECT_FALSE(bus.Plug("a"));
    EXPECT_EQ(bus.FindNode(0x0011880000000002)->phyId, 2U);
}

TEST(FireWireModel, TakesWhatHangsBehindAnUnpluggedHubAlong) {
    FireWireModel bus(HubBus(), 0);
    EXPECT_TRUE(bus.Unplug("hub"));
    EXPECT_THAT(NamesInOrder(bus), ElementsAre("card"));
    EXPECT_FALSE(bus.Unplug("card")) << "the computer's own card stays";
}

TEST(FireWireModel, LetsAForcedRootBeTheRoot) {
    FireWireModel bus(HubBus(), 0);
    bool resetAsked = false;
    EXPECT_EQ(bus.WritePhy(0x0011880000000001, 0, 0, 1, 0x80 | 0x40 | 5, &resetAsked), HAL_OK);
    EXPECT_TRUE(resetAsked);
    bus.Reset("a");
    EXPECT_EQ(NamesInOrder(bus).back(), "a");
    EXPECT_EQ(Quadlets(bus).back() & 2U, 2U) << "the packet of the node that asked says so";
    EXPECT_EQ(Quadlets(bus).front() >> 16 & 0x3FU, 5U) << "and the gap count is the one that was written";
}

TEST(FireWireModel, TakesTheMiddleWhenBothEndsHoldBack) {
    FireWireBusDescription description = HubBus();
    description.phys[0].ports = 1;
    description.cables = {Cable("card", 0, "b", 0), Cable("b", 1, "a", 0)};
    description.phys[1].plugged = false;
    FireWireModel bus(description, 0);
    bool resetAsked = false;
    for (const std::uint64_t end : {0x0800460102030405U, 0x0011880000000001U}) {
        EXPECT_EQ(bus.WritePhy(end, 0, 0, 1, 0x80 | 0x40 | 5, &resetAsked), HAL_OK);
    }
    bus.Reset("a");
    EXPECT_THAT(NamesInOrder(bus), ElementsAre("card", "a", "b"));
}

TEST(FireWireModel, ForgetsWhatWasWrittenToACameraThatLosesItsCable) {
    FireWireModel bus(HubBus(), 0);
    const std::uint64_t a = 0x0011880000000001;
    std::uint32_t value = 0;
    const auto unplugAndPlug = [&bus] { return bus.Unplug("a") && bus.Plug("a"); };
    const auto move = [&bus] { return !bus.Move("a", 0, {"hub", 2}).has_value(); };
    const std::function<bool()> losses[] = {unplugAndPlug, move};
    for (const std::function<bool()>& lose : losses) {
        EXPECT_EQ(bus.WriteQuadlet(a, 0xFFFFF0F00614, 0x80000000), HAL_OK);
        bus.Reset("");
        EXPECT_EQ(bus.ReadQuadlet(a, 0xFFFFF0F00614, &value), HAL_OK);
        EXPECT_EQ(value, 0x80000000U) << "a bus reset takes no power";
        EXPECT_TRUE(lose());
        EXPECT_EQ(bus.ReadQuadlet(a, 0xFFFFF0F00614, &value), HAL_OK);
        EXPECT_EQ(value, 0U);
    }
}

TEST(FireWireModel, MovesACameraUnlessThePortIsTakenOrACableWouldCloseALoop) {
    FireWireModel bus(HubBus(), 0);
    EXPECT_THAT(bus.Move("a", 0, {"hub", 4}).value_or(""), HasSubstr("has a cable already"));
    EXPECT_THAT(bus.Move("a", 0, {"hub", 9}).value_or(""), HasSubstr("has no port 9"));
    EXPECT_THAT(bus.Move("a", 3, {"hub", 2}).value_or(""), HasSubstr("has no port 3"));
    EXPECT_THAT(bus.Move("a", 0, {"nobody", 0}).value_or(""), HasSubstr("no PHY of this bus is named"));
    EXPECT_EQ(bus.Move("a", 0, {"b", 1}), std::nullopt);
    EXPECT_THAT(NamesInOrder(bus), testing::Contains("a"));
    EXPECT_EQ(bus.Move("hub", 0, {"card", 1}), std::nullopt) << "alone: its cables come off";
    EXPECT_THAT(NamesInOrder(bus), testing::UnorderedElementsAre("card", "hub"));
}

TEST(FireWireModel, DoesNotMoveAHubOntoWhatHangsBehindIt) {
    FireWireModel bus(HubBus(), 0);
    EXPECT_THAT(bus.Move("hub", 2, {"b", 1}).value_or(""), HasSubstr("\"b\" hangs behind \"hub\""));
    EXPECT_THAT(bus.Move("hub", 2, {"hub", 3}).value_or(""), HasSubstr("loop"));
    EXPECT_THAT(bus.Move("card", 1, {"b", 1}).value_or(""), HasSubstr("the computer's own card"));
    EXPECT_THAT(NamesInOrder(bus), testing::UnorderedElementsAre("card", "hub", "a", "b"));
    EXPECT_EQ(bus.Move("b", 0, {"card", 1}), std::nullopt);
    EXPECT_EQ(bus.Move("hub", 2, {"b", 1}), std::nullopt) << "which hangs beside it now";
    EXPECT_THAT(NamesInOrder(bus), testing::UnorderedElementsAre("card", "hub", "b"));
}

TEST(FireWireModel, AnswersRegistersOfACamera) {
    FireWireModel bus(HubBus(), 0);
    std::uint32_t value = 0;
    EXPECT_EQ(bus.ReadQuadlet(0x0011880000000002, 0xFFFFF0000410, &value), HAL_OK);
    EXPECT_EQ(value, 2U) << "quadlet 4 of the configuration ROM is the low half of the EUI-64";
    EXPECT_EQ(bus.WriteQuadlet(0x0011880000000002, 0xFFFFF0F00614, 0x80000000), HAL_OK);
    EXPECT_EQ(bus.ReadQuadlet(0x0011880000000002, 0xFFFFF0F00614, &value), HAL_OK);
    EXPECT_EQ(value, 0x80000000U);
    EXPECT_EQ(bus.WriteQuadlet(0x0011880000000002, 0xFFFFF0000410, 1), HAL_WRITE_PROTECTED);
    EXPECT_EQ(bus.ReadQuadlet(0x0011880000000002, 0xFFFFF0F00615, &value), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(bus.ReadQuadlet(0x0011880000000002, 0xFFFF00000000, &value), HAL_NO_SUCH_REGISTER);
    EXPECT_EQ(bus.ReadQuadlet(0x0800460102030405, 0xFFFFF0F00614, &value), HAL_NO_SUCH_REGISTER);
    EXPECT_EQ(bus.ReadQuadlet(77, 0xFFFFF0000410, &value), HAL_GONE);
    EXPECT_EQ(bus.WriteQuadlet(77, 0xFFFFF0F00614, 0), HAL_GONE);
}

TEST(FireWireModel, AnswersPhyRegisters) {
    FireWireBusDescription description = HubBus();
    description.phys[1].speed = 1;
    FireWireModel bus(description, 0);
    const std::uint64_t b = 0x0011880000000002;
    std::uint32_t value = 0;
    EXPECT_EQ(bus.ReadPhy(b, 0, 0, 0, &value), HAL_OK);
    EXPECT_EQ(value, 2U << 2 | 1U);
    EXPECT_EQ(bus.ReadPhy(b, 0, 0, 1, &value), HAL_OK);
    EXPECT_EQ(value, 7U);
    EXPECT_EQ(bus.ReadPhy(b, 0, 0, 2, &value), HAL_OK);
    EXPECT_EQ(value, 7U << 5 | 2U);
    EXPECT_EQ(bus.ReadPhy(b, 0, 0, 8, &value), HAL_OK);
    EXPECT_EQ(value, 0x06U) << "connected to its parent";
    EXPECT_EQ(bus.ReadPhy(b, 0, 1, 8, &value), HAL_OK);
    EXPECT_EQ(value, 0U) << "nothing there";
    EXPECT_EQ(bus.ReadPhy(b, 0, 0, 9, &value), HAL_OK);
    EXPECT_EQ(value, 1U << 5) << "S400 towards an S200 hub";
    EXPECT_EQ(bus.ReadPhy(b, 1, 0, 10, &value), HAL_OK);
    EXPECT_EQ(value, 0x00U);
    EXPECT_EQ(bus.ReadPhy(b, 1, 0, 11, &value), HAL_OK);
    EXPECT_EQ(value, 0x11U);
    EXPECT_EQ(bus.ReadPhy(b, 1, 0, 12, &value), HAL_OK);
    EXPECT_EQ(value, 0x88U);
    EXPECT_EQ(bus.ReadPhy(b, 1, 0, 0, &value), HAL_INVALID_ARGUMENT) << "base registers have no page";
    EXPECT_EQ(bus.ReadPhy(b, 0, 0, 16, &value), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(bus.ReadPhy(b, 8, 0, 8, &value), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(bus.ReadPhy(99, 0, 0, 0, &value), HAL_GONE);
    bool resetAsked = true;
    EXPECT_EQ(bus.WritePhy(b, 0, 0, 0, 1, &resetAsked), HAL_WRITE_PROTECTED);
    EXPECT_FALSE(resetAsked);
    EXPECT_EQ(bus.WritePhy(b, 0, 0, 1, 0x100, &resetAsked), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(bus.WritePhy(99, 0, 0, 1, 0, &resetAsked), HAL_GONE);
    EXPECT_EQ(bus.WritePhy(b, 0, 0, 5, 0x42, &resetAsked), HAL_OK);
    EXPECT_TRUE(resetAsked) << "ISBR";
    EXPECT_EQ(bus.ReadPhy(b, 0, 0, 5, &value), HAL_OK);
    EXPECT_EQ(value, 0x02U);
}

TEST(FireWireModel, ShowsRawSelfIdsAsTheyAre) {
    FireWireBusDescription bus;
    bus.name = "raw";
    bus.selfIds = {0x807F8942, 0x817F8080};
    bus.placedCameras.push_back({1, Phy("eye", PhyKind::Camera, 1, 0x11)});
    ASSERT_TRUE(FireWireModel::Validate(bus, "").empty());
    FireWireModel model(bus, 0);
    EXPECT_THAT(Quadlets(model), ElementsAre(0x807F8942U, 0x817F8080U));
    ASSERT_NE(model.FindNode(0x11), nullptr);
    EXPECT_EQ(model.FindNode(0x11)->phyId, 1U);
    EXPECT_TRUE(model.Unplug("eye"));
    EXPECT_EQ(model.FindNode(0x11), nullptr);
    EXPECT_THAT(model.Move("eye", 0, {"eye", 0}).value_or(""), HasSubstr("given as self-ID quadlets"));
}

PhyDescription Camera(std::uint64_t eui64) { return Phy("eye", PhyKind::Camera, 1, eui64); }

FireWireBusDescription RawBus(std::vector<FireWireBusDescription::PlacedCamera> cameras) {
    FireWireBusDescription bus;
    bus.name = "raw";
    bus.selfIds = {0x807F8942};
    bus.placedCameras = std::move(cameras);
    return bus;
}

struct BadBus {
    const char* name;
    void (*spoil)(FireWireBusDescription& bus);
    const char* pointer;
    const char* reason;
};

class FireWireModelRefuses : public testing::TestWithParam<BadBus> {};

TEST_P(FireWireModelRefuses, WhatIsNoBus) {
    FireWireBusDescription bus = HubBus();
    GetParam().spoil(bus);
    const std::vector<RigProblem> problems = FireWireModel::Validate(bus, "/firewire/0");
    ASSERT_FALSE(problems.empty());
    EXPECT_EQ(problems.front().pointer, GetParam().pointer);
    EXPECT_THAT(problems.front().reason, HasSubstr(GetParam().reason));
}

INSTANTIATE_TEST_SUITE_P(
    Table, FireWireModelRefuses,
    testing::Values(
        BadBus{"NoCard", [](auto& bus) { bus.phys[0].kind = PhyKind::Camera; }, "/firewire/0/phys",
               "exactly one card, not 0"},
        BadBus{"TwoCards", [](auto& bus) { bus.phys[2].kind = PhyKind::Card; }, "/firewire/0/phys",
               "exactly one card, not 2"},
        BadBus{"SixtyFourPhys",
               [](auto& bus) {
                   for (unsigned int i = 0; i < 60; ++i) {
                       bus.phys.push_back(Phy("x" + std::to_string(i), PhyKind::Repeater, 3, 0));
                   }
               },
               "/firewire/0/phys", "at most 63 PHYs, not 64"},
        BadBus{"Loop",
               [](auto& bus) {
                   bus.phys.push_back(Phy("hub 2", PhyKind::Repeater, 3, 0));
                   bus.cables.push_back(Cable("hub", 2, "hub 2", 0));
                   bus.cables.push_back(Cable("hub", 3, "hub 2", 1));
               },
               "/firewire/0/cables/4", "closes a loop"},
        BadBus{"CableToItself", [](auto& bus) { bus.cables.push_back(Cable("hub", 2, "hub", 3)); },
               "/firewire/0/cables/3", "closes a loop"},
        BadBus{"TwoOnOnePort", [](auto& bus) { bus.cables[2].ends[0].port = 1; }, "/firewire/0/cables/2/0",
               "has a cable already"},
        BadBus{"NoSuchPort", [](auto& bus) { bus.cables[2].ends[0].port = 6; }, "/firewire/0/cables/2/0",
               "has no port 6"},
        BadBus{"NoSuchPhy", [](auto& bus) { bus.cables[2].ends[1].phy = "c"; }, "/firewire/0/cables/2/1",
               "named \"c\""},
        BadBus{"SameName", [](auto& bus) { bus.phys[3].name = "a"; }, "/firewire/0/phys/3/name",
               "\"a\" is empty or taken"},
        BadBus{"SameEui64", [](auto& bus) { bus.phys[3].eui64 = bus.phys[2].eui64; }, "/firewire/0/phys/3/eui64",
               "no other node has"},
        BadBus{"NoEui64", [](auto& bus) { bus.phys[3].eui64 = 0; }, "/firewire/0/phys/3/eui64", "needs an EUI-64"},
        BadBus{"TooManyPorts", [](auto& bus) { bus.phys[1].ports = 28; }, "/firewire/0/phys/1/ports", "not 28"},
        BadBus{"GapCount", [](auto& bus) { bus.gapCount = 64; }, "/firewire/0/gapCount", "not 64"},
        BadBus{"CameraWithoutCable", [](auto& bus) { bus.cables.pop_back(); }, "/firewire/0/phys/3",
               "no cables join \"b\" to the card"},
        BadBus{"PhysAndSelfIds", [](auto& bus) { bus.selfIds = {0x807F0000}; }, "/firewire/0/selfIds", "not both"},
        BadBus{"PlacesWithoutSelfIds",
               [](auto& bus) {
                   bus.placedCameras.push_back({0, Camera(0x11)});
               },
               "/firewire/0/placedCameras", "there are none"},
        BadBus{"RawCameraOnNoBus",
               [](auto& bus) {
                   bus = RawBus({{1, Camera(0x11)}});
               },
               "/firewire/0/placedCameras/0/phyId", "no self-ID quadlet has the phy id 1"},
        BadBus{"RawCamerasOnOnePlace",
               [](auto& bus) {
                   bus = RawBus({{0, Camera(0x11)}, {0, Camera(0x12)}});
               },
               "/firewire/0/placedCameras/1/phyId", "another camera has it"},
        BadBus{"RawCameraWithoutEui64",
               [](auto& bus) {
                   bus = RawBus({{0, Camera(0)}});
               },
               "/firewire/0/placedCameras/0/eui64", "needs an EUI-64"},
        BadBus{"RawRepeater",
               [](auto& bus) {
                   bus = RawBus({{0, Phy("r", PhyKind::Repeater, 1, 0x11)}});
               },
               "/firewire/0/placedCameras/0/kind", "not cards and repeaters"}),
    [](const testing::TestParamInfo<BadBus>& row) { return row.param.name; });

TEST(ConfigRom, HoldsIdentityTextsAndUnitOfACamera) {
    PhyDescription camera = Phy("a", PhyKind::Camera, 1, 0x0011880000000001);
    camera.vendor = "Acme";
    camera.model = "Zoom 1394";
    const std::vector<std::uint32_t> rom = BuildConfigRom(camera);
    ASSERT_GT(rom.size(), 17U);
    EXPECT_EQ(rom[1], 0x31333934U);
    EXPECT_EQ(rom[3], 0x00118800U);
    EXPECT_EQ(rom[4], 1U);
    EXPECT_EQ(rom[0] & 0xFFFFU, ConfigRomCrc(&rom[1], 4));
    // Root directory at 5; its entry 8 leads to the unit directory, whose entry 12 leads to the dependent one.
    EXPECT_EQ(rom[8], 0xD1000001U);
    EXPECT_EQ(rom[10], 0x1200A02DU);
    EXPECT_EQ(rom[11], 0x13000102U);
    EXPECT_EQ(rom[12], 0xD4000001U);
    EXPECT_EQ(rom[14], 0x403C0000U);
    const std::uint32_t vendorLeaf = 15 + (rom[15] & 0xFFFFFF);
    EXPECT_EQ(rom[vendorLeaf] >> 16, 3U) << "two quadlets of zeros and one of text";
    EXPECT_EQ(rom[vendorLeaf + 3], 0x41636D65U) << "Acme";
    const std::uint32_t modelLeaf = 16 + (rom[16] & 0xFFFFFF);
    EXPECT_EQ(rom[modelLeaf + 3], 0x5A6F6F6DU) << "Zoom";
    EXPECT_EQ(modelLeaf + (rom[modelLeaf] >> 16) + 1, rom.size());
}

}  // namespace
}  // namespace Nimbrel2::Platform
