// SPDX-License-Identifier: Apache-2.0
// Who is there, by itself: what is heard and when is what the test says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "platform/linux/gige/Presence.h"

namespace Nimbrel2::Platform::GigE {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Use = InterfacePresence::Use;

constexpr int TestWire = 2;

class States final : public BusEventSink {
public:
    void Report(BusState state) noexcept override {
        const std::lock_guard lock(m_mutex);
        m_states.push_back(std::move(state));
    }
    void RaiseError() noexcept override {}
    std::size_t Count() const {
        const std::lock_guard lock(m_mutex);
        return m_states.size();
    }
    BusState Last() const {
        const std::lock_guard lock(m_mutex);
        return m_states.empty() ? BusState{} : m_states.back();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<BusState> m_states;
};

class PresenceTest : public ::testing::Test {
protected:
    PresenceTest() {
        m_timings.discoveryWindow = 24h;  // it ends when the test says so
        Make(std::nullopt);
    }
    ~PresenceTest() override { m_presence->Stop(); }

    void Make(std::optional<GigECameraName> searchFor) {
        if (m_presence) {
            m_presence->Stop();
        }
        m_presence = std::make_unique<Presence>(m_timings, m_ids, searchFor, m_states);
        m_presence->Start();
        Follow(Use::Used);
    }

    void Follow(Use use, std::uint32_t version = 1) {
        m_presence->Follow(
            {{TestWire, use, version}}, [this](int, const GvcpDiscoveryRecord&) { return m_usability; }, Clock::now());
    }

    static GvcpDiscoveryRecord Record(std::uint64_t mac) {
        GvcpDiscoveryRecord record{};
        record.macLow = static_cast<std::uint32_t>(mac);
        record.ipAddress = static_cast<std::uint32_t>(100 + mac);
        return record;
    }

    static Answer From(std::uint64_t mac) { return {TestWire, Record(mac).ipAddress, Record(mac)}; }

    void AnswerAll(const std::vector<Probe>& probes) {
        for (const Probe& probe : probes) {
            std::vector<Probe> more;
            m_presence->HeardProbe(probe.port, From(probe.ip - 100), probe.id, Clock::now(), &more);
        }
    }

    /// Heard, asked, answered.
    void Add(std::uint64_t mac) {
        std::vector<Probe> probes;
        m_presence->HeardBroadcast(From(mac), Clock::now(), &probes);
        AnswerAll(probes);
        Tick();
    }

    std::vector<Probe> Tick() {
        std::vector<Probe> probes;
        m_presence->Tick(Clock::now(), &probes);
        return probes;
    }

    std::vector<std::uint32_t> List() {
        std::vector<SightingView> cameras;
        BusState state;
        m_presence->TakeListed(&cameras, &state);
        EXPECT_EQ(state, m_states.Count() == 0 ? BusState{} : m_states.Last()) << "a listing returns what was reported";
        std::vector<std::uint32_t> addresses;
        for (const SightingView& camera : cameras) {
            addresses.push_back(camera.record.ipAddress);
        }
        return addresses;
    }

    /// Runs something that waits. The future says that it has ended.
    template <class Function>
    std::future<void> InBackground(Function function) {
        return std::async(std::launch::async, function);
    }

    Timings m_timings;
    GigEUsability m_usability = GigEUsability::Usable;
    States m_states;
    RequestIds m_ids{Random(1)};
    std::unique_ptr<Presence> m_presence;
};

TEST_F(PresenceTest, ReportsEachChangeOnce) {
    Add(1);
    EXPECT_EQ(m_states.Count(), 1u);
    ASSERT_THAT(m_states.Last().devices, SizeIs(1));
    Tick();
    EXPECT_EQ(m_states.Count(), 1u);
    EXPECT_THAT(List(), ElementsAre(101));
    Add(2);
    EXPECT_EQ(m_states.Count(), 2u);
    EXPECT_THAT(List(), ElementsAre(101, 102));
}

TEST_F(PresenceTest, ReportsWhatAListingFindsBeforeItReturns) {
    std::vector<Probe> probes;
    m_presence->HeardBroadcast(From(1), Clock::now(), &probes);
    AnswerAll(probes);
    EXPECT_EQ(m_states.Count(), 0u);
    EXPECT_THAT(List(), ElementsAre(101));
    EXPECT_EQ(m_states.Count(), 1u);
}

TEST_F(PresenceTest, ReportsNothingAfterStop) {
    m_presence->Stop();
    Add(1);
    EXPECT_EQ(m_states.Count(), 0u);
}

TEST_F(PresenceTest, DropsCamerasWithTheirInterface) {
    Add(1);
    m_presence->Follow({}, {}, Clock::now());
    EXPECT_THAT(List(), IsEmpty());
    EXPECT_FALSE(m_presence->FindPlace(CameraKey{1, 0, {}}));
}

TEST_F(PresenceTest, JudgesCamerasAnewWhenTheAddressesOfTheirInterfaceChange) {
    Add(1);
    const auto before = m_presence->FindPlace(CameraKey{1, 0, {}});
    m_usability = GigEUsability::OtherSubnet;
    Follow(Use::Used);
    EXPECT_THAT(List(), ElementsAre(101)) << "nothing has changed";
    Follow(Use::Used, 2);
    EXPECT_THAT(List(), IsEmpty());
    m_usability = GigEUsability::Usable;
    Follow(Use::Used, 3);
    AnswerAll(Tick());
    const auto after = m_presence->FindPlace(CameraKey{1, 0, {}});
    ASSERT_TRUE(before && after);
    EXPECT_FALSE(before->IsSameEnd(*after)) << "what talked from the old address does not any more";
}

TEST_F(PresenceTest, HoldsCamerasAndListingsWhileALinkMayComeBack) {
    Add(1);
    Follow(Use::Waiting);
    auto listing = InBackground([this] { m_presence->WaitForLinks(); });
    EXPECT_EQ(listing.wait_for(50ms), std::future_status::timeout);
    EXPECT_THAT(List(), ElementsAre(101));
    Follow(Use::Used);
    Tick();
    listing.get();
    EXPECT_THAT(List(), ElementsAre(101));
    EXPECT_EQ(m_states.Count(), 1u) << "nothing was raised";
}

TEST_F(PresenceTest, WaitsForNoLinkThatNoCameraIsListedOn) {
    Follow(Use::Waiting);
    m_presence->WaitForLinks();
}

TEST_F(PresenceTest, EndsAFirstSearchWithItsWindowAndWithoutANetworkAtOnce) {
    m_presence->Follow({}, {}, Clock::now());
    m_presence->WaitForFirstSearch();
    Follow(Use::Used);
    m_presence->Broadcasted(TestWire, Clock::now() - 25h);
    m_presence->WaitForFirstSearch();
}

TEST_F(PresenceTest, EndsAFirstSearchWhenTheCameraThatIsWantedAnswers) {
    for (const GigECameraName name : {GigECameraName{102, 0}, GigECameraName{0, 2}}) {
        Make(name);
        m_presence->Broadcasted(TestWire, Clock::now());
        Add(1);
        auto listing = InBackground([this] { m_presence->WaitForFirstSearch(); });
        EXPECT_EQ(listing.wait_for(50ms), std::future_status::timeout) << "another one is there";
        Add(2);
        Tick();
        listing.get();
    }
}

TEST_F(PresenceTest, WaitsForNoFirstSearchASecondTime) {
    m_presence->Broadcasted(TestWire, Clock::now());
    List();
    m_presence->WaitForFirstSearch();
}

TEST_F(PresenceTest, WaitsForVerificationUntilAllHaveAnswered) {
    m_timings.verifyWait = 24h;
    Add(1);
    std::vector<Probe> probes;
    const auto places = m_presence->BeginVerification(Clock::now(), &probes);
    EXPECT_THAT(places, SizeIs(1));
    auto listing = InBackground([this] { m_presence->WaitForVerification(TimePoint::max()); });
    EXPECT_EQ(listing.wait_for(50ms), std::future_status::timeout);
    AnswerAll(probes);
    Tick();
    listing.get();
    EXPECT_TRUE(m_presence->HasAnswered(CameraKey{1, 0, {}}, TimePoint()));
    EXPECT_FALSE(m_presence->HasAnswered(CameraKey{1, 0, {}}, Clock::now() + 1h));
}

TEST_F(PresenceTest, WaitsUntilACameraHasAnsweredAtItsNewAddress) {
    Add(1);
    Answer moved = From(1);
    moved.record.ipAddress = moved.from = 150;
    std::vector<Probe> probes;
    const TimePoint since = Clock::now();
    m_presence->HasMoved(moved, since, &probes);
    ASSERT_THAT(probes, SizeIs(1));
    auto forcing = InBackground([&] {
        m_presence->WaitUntilAnswered({GigECameraName{150, 1}}, since, TimePoint::max());
    });
    EXPECT_EQ(forcing.wait_for(50ms), std::future_status::timeout);
    std::vector<Probe> more;
    m_presence->HeardProbe(probes[0].port, moved, probes[0].id, Clock::now(), &more);
    Tick();
    forcing.get();
}

TEST_F(PresenceTest, EndsEveryWaitWhenItStops) {
    m_presence->Broadcasted(TestWire, Clock::now());
    auto first = InBackground([this] { m_presence->WaitForFirstSearch(); });
    auto second = InBackground([this] {
        m_presence->WaitUntilAnswered({GigECameraName{9, 0}}, TimePoint(), TimePoint::max());
    });
    EXPECT_EQ(first.wait_for(20ms), std::future_status::timeout);
    m_presence->Stop();
    first.get();
    second.get();
}

TEST_F(PresenceTest, SaysOfEachSightingWhetherItCanBeUsed) {
    Add(1);
    std::vector<Probe> probes;
    Answer twin = From(2);
    twin.record.ipAddress = twin.from = 101;
    m_presence->HeardBroadcast(twin, Clock::now(), &probes);
    Answer foreign = From(3);
    foreign.usability = GigEUsability::OtherSubnet;
    m_presence->HeardBroadcast(foreign, Clock::now(), &probes);
    m_presence->HeardBroadcast(From(4), Clock::now(), &probes);
    std::map<std::uint64_t, GigEUsability> usability;
    for (const SightingView& view : m_presence->GetSightings()) {
        usability[view.key.mac] = view.usability;
    }
    EXPECT_EQ(usability[1], GigEUsability::Usable);
    EXPECT_EQ(usability[2], GigEUsability::AddressTaken);
    EXPECT_EQ(usability[3], GigEUsability::OtherSubnet);
    EXPECT_EQ(usability[4], GigEUsability::NoAnswer);
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
