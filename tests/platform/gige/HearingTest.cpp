// SPDX-License-Identifier: Apache-2.0
// Cameras whose answers are filtered on their way in: by a firewall, by the reverse path filter, seen with and without
// privileges.
#include "tests/platform/gige/GigEFixture.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::GigEHearing;
using Platform::MutedCamera;
using ::testing::IsEmpty;

class GigEHearingTest : public GigEWireTest {
protected:
    enum class User { Administrator, Ordinary };

    /// Starts the driver anew.
    GigEHearing TestAs(User user) {
        Stop();
        EXPECT_EQ(StartAfter([user] {
                      if (user == User::Ordinary) {
                          DropCapabilities();
                      }
                  }),
                  HAL_OK);
        return Test();
    }

    GigEHearing Test() {
        GigEHearing hearing;
        EXPECT_EQ(m_bus->FindMutedCameras(&hearing), HAL_OK);
        return hearing;
    }

    void Nft(const std::string& words) {
        const ProgramResult result = m_host.RunProgram({"nft", words});
        ASSERT_EQ(result.exitStatus, 0) << words << ": " << result.errors;
    }

    /// What most firewalls do: what nobody here has asked for does not come in.
    void SetUpFirewall() {
        Nft("add table inet wall");
        Nft("add chain inet wall input { type filter hook input priority 0; policy drop; }");
        Nft("add rule inet wall input ct state established,related accept");
    }
};

TEST_F(GigEHearingTest, HearsEveryCameraWhereNothingFilters) {
    AddCamera("192.168.77.102", 2);
    AddCamera("10.9.9.9", 9);
    for (const User user : {User::Administrator, User::Ordinary}) {
        const GigEHearing hearing = TestAs(user);
        ASSERT_EQ(hearing.interfaces.size(), 1u);
        EXPECT_EQ(hearing.interfaces[0].error, 0);
        EXPECT_EQ(hearing.interfaces[0].heard, 2u);
        EXPECT_EQ(hearing.interfaces[0].seesWire, user == User::Administrator);
        EXPECT_THAT(hearing.muted, IsEmpty());
    }
}

TEST_F(GigEHearingTest, FindsACameraBehindAFirewallByWatchingTheWire) {
    SetUpFirewall();
    AddCamera("192.168.77.102", 2);
    Start({});
    const GigEHearing hearing = Test();
    EXPECT_EQ(hearing.interfaces[0].heard, 0u);
    ASSERT_EQ(hearing.muted.size(), 1u);
    EXPECT_EQ(NameOf(hearing.muted[0].record), "2@192.168.77.102");
    EXPECT_TRUE(hearing.muted[0].onWire);
    EXPECT_TRUE(hearing.muted[0].reachable);
}

TEST_F(GigEHearingTest, FindsACameraBehindAFirewallByAskingItDirectly) {
    SetUpFirewall();
    const IndependentCamera camera(m_wire, "192.168.77.100", "1001");
    const GigEHearing hearing = TestAs(User::Ordinary);
    EXPECT_EQ(hearing.interfaces[0].heard, 0u);
    EXPECT_FALSE(hearing.interfaces[0].seesWire);
    EXPECT_EQ(hearing.interfaces[0].neighbours, 1u);
    ASSERT_EQ(hearing.muted.size(), 1u);
    EXPECT_EQ(NameOf(hearing.muted[0].record), "1001@192.168.77.100");
    EXPECT_TRUE(hearing.muted[0].answersDirectly);
    EXPECT_TRUE(hearing.muted[0].reachable);
    EXPECT_FALSE(hearing.muted[0].onWire);

    Nft("insert rule inet wall input udp sport 3956 accept");
    EXPECT_THAT(TestAs(User::Ordinary).muted, IsEmpty()) << "that is the cure";
}

TEST_F(GigEHearingTest, FindsACameraThatTheReversePathFilterHides) {
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "1");
    AddCamera("10.9.9.9", 9);
    Start({});
    const GigEHearing hearing = Test();
    ASSERT_EQ(hearing.interfaces.size(), 1u);
    EXPECT_TRUE(hearing.interfaces[0].seesWire);
    EXPECT_EQ(hearing.interfaces[0].heard, 0u);
    ASSERT_EQ(hearing.muted.size(), 1u);
    EXPECT_TRUE(hearing.muted[0].onWire);
    EXPECT_FALSE(hearing.muted[0].reachable);
    EXPECT_THAT(TestAs(User::Ordinary).muted, IsEmpty()) << "nobody else can know of it";
}

TEST_F(GigEHearingTest, TakesANeighbourThatIsNoCameraForNone) {
    m_host.Ip("neigh add 192.168.77.50 lladdr 02:00:00:00:00:50 nud reachable dev h0");
    Start({});
    const GigEHearing hearing = Test();
    EXPECT_EQ(hearing.interfaces[0].neighbours, 1u);
    EXPECT_THAT(hearing.muted, IsEmpty());
}

TEST_F(GigEHearingTest, SaysThatASendIsRefused) {
    Nft("add table inet wall");
    Nft("add chain inet wall output { type filter hook output priority 0; policy drop; }");
    Start({});
    EXPECT_EQ(Test().interfaces[0].error, EPERM);
}

TEST_F(GigEHearingTest, EndsWithTheDriver) {
    Start({});
    Stop();
    GigEHearing hearing;
    EXPECT_EQ(m_bus->FindMutedCameras(&hearing), HAL_CLOSED);
}

TEST_F(GigEHearingTest, ListsNoInterfaceWhereNoneIsUsed) {
    m_host.Ip("link set h0 down");
    Start({});
    const GigEHearing hearing = Test();
    EXPECT_THAT(hearing.interfaces, IsEmpty());
    EXPECT_THAT(hearing.muted, IsEmpty());
}

}  // namespace
}  // namespace Nimbrel2::Testing
