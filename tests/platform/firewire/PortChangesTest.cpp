// SPDX-License-Identifier: Apache-2.0
// Which sockets changed between two bus resets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/base/SelfIds.h"
#include "platform/linux/firewire/PortChanges.h"
#include "platform/rig/FireWireModel.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A bus that is numbered as real ones are.
class ChangingBus : public ::testing::Test {
protected:
    ChangingBus() : m_model(Describe(), 0) {}

    static FireWireBusDescription Describe() {
        FireWireBusDescription bus;
        const auto add = [&bus](const char* name, PhyKind kind, unsigned int ports, std::uint64_t eui64) {
            PhyDescription phy;
            phy.name = name;
            phy.kind = kind;
            phy.ports = ports;
            phy.eui64 = eui64;
            bus.phys.push_back(phy);
        };
        add("card", PhyKind::Card, 3, 1);
        add("hub", PhyKind::Repeater, 6, 0);
        add("a", PhyKind::Camera, 1, 2);
        add("b", PhyKind::Camera, 1, 3);
        add("c", PhyKind::Camera, 1, 4);
        bus.phys[4].speed = 1;
        const auto cable = [&bus](const char* first, unsigned int port, const char* second, unsigned int otherPort) {
            bus.cables.push_back({{{{first, port}, {second, otherPort}}}});
        };
        cable("card", 1, "hub", 3);
        cable("hub", 0, "a", 0);
        cable("hub", 5, "b", 0);
        cable("card", 2, "c", 0);
        return bus;
    }

    std::vector<FireWirePhy> Phys() const { return DecodeSelfIds(m_model.SelfIds()).value(); }
    unsigned int Local() const { return m_model.FindNode(1)->phyId; }

    template <class Change>
    std::vector<Socket> After(const Change& change) {
        const auto before = Phys();
        const unsigned int localBefore = Local();
        change();
        return FindPortChanges(before, localBefore, Phys(), Local());
    }

    FireWireModel m_model;
};

using Way = std::vector<unsigned int>;

TEST_F(ChangingBus, OfAResetThatChangesNothingHasNoChangedSocket) {
    EXPECT_THAT(After([&] { m_model.Reset("a"); }), IsEmpty());
}

TEST_F(ChangingBus, IsChangedWhereACableIsPulledOutOrPluggedIn) {
    EXPECT_THAT(After([&] { m_model.Unplug("b"); }), ElementsAre(Socket{Way{1}, 5}));
    EXPECT_THAT(After([&] { m_model.Plug("b"); }), ElementsAre(Socket{Way{1}, 5}));
    EXPECT_THAT(After([&] { m_model.Unplug("c"); }), ElementsAre(Socket{Way{}, 2}));
}

TEST_F(ChangingBus, IsNotChangedBehindTheSocketInWhichItChanged) {
    EXPECT_THAT(After([&] { m_model.Unplug("hub"); }), ElementsAre(Socket{Way{}, 1}));
    EXPECT_THAT(After([&] { m_model.Plug("hub"); }), ElementsAre(Socket{Way{}, 1}));
}

TEST_F(ChangingBus, IsChangedInEachSocketThatChanged) {
    EXPECT_THAT(After([&] {
                    m_model.Unplug("a");
                    m_model.Unplug("c");
                }),
                ElementsAre(Socket{Way{1}, 0}, Socket{Way{}, 2}));
}

TEST_F(ChangingBus, IsChangedWhereAnotherDeviceIsPluggedIn) {
    // c is slower than b.
    m_model.Unplug("c");
    EXPECT_THAT(After([&] {
                    m_model.Unplug("b");
                    m_model.Move("c", 0, {"hub", 5});
                }),
                ElementsAre(Socket{Way{1}, 5}));
}

TEST_F(ChangingBus, IsChangedWhereADeviceIsPluggedInByAnotherOfItsSockets) {
    EXPECT_THAT(After([&] { m_model.Move("hub", 4, {"card", 1}); }), ElementsAre(Socket{Way{}, 1}));
}

TEST_F(ChangingBus, IsNotComparedWithoutThisComputersOwnPhy) {
    const auto phys = Phys();
    EXPECT_THAT(FindPortChanges(phys, 63, phys, Local()), IsEmpty());
    EXPECT_THAT(FindPortChanges(phys, Local(), phys, 63), IsEmpty());
    EXPECT_THAT(FindPortChanges({}, 0, phys, Local()), IsEmpty());
}

TEST_F(ChangingBus, IsFollowedToThePhyThatAWayNames) {
    const auto phys = Phys();
    EXPECT_EQ(FollowWay(phys, Local(), {})->phyId, Local());
    const FireWirePhy* hub = FollowWay(phys, Local(), Way{1});
    ASSERT_NE(hub, nullptr);
    EXPECT_EQ(hub->ports.size(), 6u);
    EXPECT_EQ(FollowWay(phys, Local(), Way{1, 5})->phyId, m_model.FindNode(3)->phyId);
    EXPECT_EQ(FollowWay(phys, Local(), Way{1, 4}), nullptr);
    EXPECT_EQ(FollowWay(phys, Local(), Way{7}), nullptr);
    EXPECT_EQ(FollowWay(phys, 63, {}), nullptr);
}

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
