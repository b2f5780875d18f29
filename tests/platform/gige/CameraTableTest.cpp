// SPDX-License-Identifier: Apache-2.0
// The camera table by itself: time, answers and lost datagrams are what the test says they are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "platform/linux/gige/CameraTable.h"

namespace Nimbrel2::Platform::GigE {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kFirst = 2;
constexpr int kSecond = 3;

GvcpDiscoveryRecord Record(std::uint64_t mac, std::uint32_t ip, const char* serial = "1") {
    GvcpDiscoveryRecord record{};
    record.macHigh = static_cast<std::uint16_t>(mac >> 32);
    record.macLow = static_cast<std::uint32_t>(mac);
    record.ipAddress = ip;
    std::strncpy(record.serialNumber, serial, sizeof record.serialNumber);
    return record;
}

class CameraTableTest : public ::testing::Test {
protected:
    /// A camera answers a broadcast. @return the probes that this causes.
    std::vector<Probe> Hear(int interface, const GvcpDiscoveryRecord& record, bool reachable = true) {
        std::vector<Probe> probes;
        m_table.HeardBroadcast(interface, record, reachable, m_now, &probes);
        return probes;
    }

    bool Answer(const Probe& probe, const GvcpDiscoveryRecord& record) {
        std::vector<Probe> probes;
        return m_table.HeardProbe(probe.interface, probe.ip, probe.id, record, m_now, &probes);
    }

    /// Heard, asked and answered.
    void Add(int interface, const GvcpDiscoveryRecord& record) {
        for (const Probe& probe : Hear(interface, record)) {
            if (probe.ip != record.ipAddress) continue;
            EXPECT_TRUE(Answer(probe, record));
        }
    }

    /// Lets time pass in steps of 5 ms; answer says what comes back for each probe.
    void Pass(
        Milliseconds time, const std::function<void(const Probe&)>& answer = [](const Probe&) {}) {
        for (const TimePoint end = m_now + time; m_now < end; m_now += 5ms) {
            std::vector<Probe> probes;
            m_table.Tick(m_now, &probes);
            for (const Probe& probe : probes) answer(probe);
        }
    }

    std::vector<std::uint32_t> ListedAddresses() const {
        std::vector<std::uint32_t> addresses;
        for (const auto& [key, camera] : m_table.GetCameras()) {
            if (camera.listed != nullptr) addresses.push_back(camera.listed->ip);
        }
        return addresses;
    }

    const Timings m_timings{};
    RequestIds m_ids{1000};
    CameraTable m_table{m_timings, m_ids};
    TimePoint m_now = TimePoint() + std::chrono::hours(1);
};

TEST_F(CameraTableTest, ListsACameraOnceItHasAnsweredAtItsAddress) {
    const auto probes = Hear(kFirst, Record(1, 101));
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_EQ(probes[0].ip, 101u);
    EXPECT_EQ(probes[0].interface, kFirst);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_TRUE(m_table.IsConfirming());
    EXPECT_TRUE(Answer(probes[0], Record(1, 101)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_FALSE(m_table.IsConfirming());
    EXPECT_TRUE(m_table.TakeChanged());
    EXPECT_FALSE(m_table.TakeChanged());
}

TEST_F(CameraTableTest, TakesAnAnswerOnlyFromWhereItAsked) {
    const Probe probe = Hear(kFirst, Record(1, 101)).at(0);
    std::vector<Probe> probes;
    EXPECT_FALSE(m_table.HeardProbe(kSecond, 101, probe.id, Record(1, 101), m_now, &probes)) << "wrong interface";
    EXPECT_FALSE(m_table.HeardProbe(kFirst, 102, probe.id, Record(1, 101), m_now, &probes)) << "wrong sender";
    const auto otherId = static_cast<std::uint16_t>(probe.id + 1);
    EXPECT_FALSE(m_table.HeardProbe(kFirst, 101, otherId, Record(1, 101), m_now, &probes)) << "wrong id";
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_TRUE(Answer(probe, Record(1, 101)));
    EXPECT_FALSE(Answer(probe, Record(1, 101))) << "a duplicate";
}

TEST_F(CameraTableTest, DropsACameraAfterTwoMissedRoundsAndNoSooner) {
    Add(kFirst, Record(1, 101));
    const TimePoint lastAnswer = m_now;
    Pass(m_timings.probePeriod + 2 * m_timings.probeRound - 10ms);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    Pass(20ms);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_EQ(m_table.GetNumSightings(), 0u);
    EXPECT_LE(m_now - lastAnswer, m_timings.probePeriod + 2 * m_timings.probeRound + 20ms);
}

TEST_F(CameraTableTest, KeepsACameraThatAnswersOneOfItsManyProbes) {
    Add(kFirst, Record(1, 101));
    for (int answered = 0; answered < 12; ++answered) {
        int sent = 0;
        Pass(1100ms, [&](const Probe& probe) {
            if (sent++ == answered) Answer(probe, Record(1, 101));
        });
        EXPECT_THAT(ListedAddresses(), ElementsAre(101)) << "answered number " << answered;
        Pass(700ms, [&](const Probe& probe) { Answer(probe, Record(1, 101)); });
    }
}

TEST_F(CameraTableTest, AsksAKnownCameraTwiceASecondWithOneDatagramEach) {
    Add(kFirst, Record(1, 101));
    int sent = 0;
    Pass(10s, [&](const Probe& probe) {
        ++sent;
        Answer(probe, Record(1, 101));
    });
    EXPECT_GE(sent, 19);
    EXPECT_LE(sent, 20);
}

TEST_F(CameraTableTest, RepeatsAProbeWithItsId) {
    Add(kFirst, Record(1, 101));
    std::vector<std::uint16_t> ids;
    Pass(900ms, [&](const Probe& probe) { ids.push_back(probe.id); });
    ASSERT_GE(ids.size(), 6u);
    EXPECT_THAT(ids, ::testing::Each(ids[0]));
}

TEST_F(CameraTableTest, DoesNotCountRoundsInWhichNothingCouldBeSent) {
    Add(kFirst, Record(1, 101));
    const auto refuse = [&](const Probe& probe) { m_table.ProbeRefused(probe.id); };
    Pass(1500ms, refuse);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    Pass(2000ms, refuse);
    EXPECT_THAT(ListedAddresses(), IsEmpty()) << "a network that takes nothing for seconds is none";
}

TEST_F(CameraTableTest, GivesACameraAWholeRoundAfterItWasStoppedItself) {
    Add(kFirst, Record(1, 101));
    Pass(510ms);
    m_now += 10s;
    std::vector<Probe> probes;
    m_table.Tick(m_now, &probes);
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_TRUE(Answer(probes[0], Record(1, 101)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
}

TEST_F(CameraTableTest, DropsWhatWasHeardOnAnInterfaceWithIt) {
    Add(kFirst, Record(1, 101));
    Add(kSecond, Record(2, 102));
    m_table.DropInterface(kFirst);
    EXPECT_THAT(ListedAddresses(), ElementsAre(102));
}

TEST_F(CameraTableTest, ListsACameraHeardOnTwoInterfacesOnceAndKeepsItWhenOneGoes) {
    Add(kFirst, Record(1, 101));
    Add(kSecond, Record(1, 101));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_EQ(m_table.Find(CameraKey{1, 0, {}})->listed->interface, kFirst);
    m_table.TakeChanged();
    m_table.DropInterface(kFirst);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_EQ(m_table.Find(CameraKey{1, 0, {}})->listed->interface, kSecond);
}

TEST_F(CameraTableTest, FollowsACameraToANewAddress) {
    Add(kFirst, Record(1, 101));
    std::vector<Probe> probes = Hear(kFirst, Record(1, 102));
    ASSERT_EQ(probes.size(), 2u) << "the new address and, at once, the old one";
    for (const Probe& probe : probes) {
        if (probe.ip != 102) continue;
        EXPECT_TRUE(Answer(probe, Record(1, 102)));
    }
    EXPECT_THAT(ListedAddresses(), ElementsAre(101)) << "until the old one has missed its rounds";
    Pass(650ms, [&](const Probe& probe) {
        if (probe.ip == 102) Answer(probe, Record(1, 102));
    });
    EXPECT_THAT(ListedAddresses(), ElementsAre(102));
    EXPECT_EQ(m_table.GetCameras().size(), 1u);
}

TEST_F(CameraTableTest, DoesNotLetAnotherClaimOfItsMacMoveACameraThatAnswers) {
    Add(kFirst, Record(1, 101));
    for (int i = 0; i < 20; ++i) {
        for (const Probe& probe : Hear(kFirst, Record(1, 102))) Answer(probe, Record(1, probe.ip));
        Pass(500ms, [&](const Probe& probe) { Answer(probe, Record(1, probe.ip)); });
        EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    }
}

TEST_F(CameraTableTest, ListsOfTwoCamerasOnOneAddressTheOneThatAnswersThere) {
    Add(kFirst, Record(1, 101));
    const Probe probe = Hear(kFirst, Record(2, 101)).at(0);
    EXPECT_TRUE(Answer(probe, Record(1, 101)));
    ASSERT_NE(m_table.Find(CameraKey{1, 0, {}})->listed, nullptr);
    EXPECT_EQ(m_table.Find(CameraKey{2, 0, {}})->listed, nullptr);
    EXPECT_TRUE(m_table.Find(CameraKey{2, 0, {}})->sightings[0]->addressTaken);
    EXPECT_THAT(Hear(kFirst, Record(2, 101)), IsEmpty()) << "it is not asked again at once";
}

TEST_F(CameraTableTest, GivesAnAddressToTheCameraThatTakesItOver) {
    Add(kFirst, Record(1, 101));
    Hear(kFirst, Record(2, 101));
    Pass(2s, [&](const Probe& probe) { Answer(probe, Record(2, 101)); });
    EXPECT_EQ(m_table.Find(CameraKey{1, 0, {}}), nullptr);
    ASSERT_NE(m_table.Find(CameraKey{2, 0, {}}), nullptr);
    EXPECT_NE(m_table.Find(CameraKey{2, 0, {}})->listed, nullptr);
}

TEST_F(CameraTableTest, TellsCamerasWithoutMacBySerialAndAddress) {
    Add(kFirst, Record(0, 101, "A"));
    Add(kFirst, Record(0, 102, "A"));
    Add(kFirst, Record(0, 103, "B"));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101, 102, 103));
    const Probe probe = Hear(kFirst, Record(0, 101, "C")).at(0);
    EXPECT_TRUE(Answer(probe, Record(0, 101, "C")));
    Pass(2s, [&](const Probe& asked) {
        Answer(asked, Record(0, asked.ip, asked.ip == 101 ? "C" : asked.ip == 102 ? "A" : "B"));
    });
    EXPECT_EQ(m_table.Find(CameraKey{0, 101, "A"}), nullptr);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101, 102, 103));
}

TEST_F(CameraTableTest, NeitherAsksNorListsForeignCamerasAndForgetsThem) {
    EXPECT_THAT(Hear(kFirst, Record(1, 101), false), IsEmpty());
    EXPECT_EQ(m_table.GetNumSightings(), 1u);
    int sent = 0;
    Pass(m_timings.sightingLifetime - 100ms, [&](const Probe&) { ++sent; });
    EXPECT_EQ(m_table.GetNumSightings(), 1u);
    Pass(200ms, [&](const Probe&) { ++sent; });
    EXPECT_EQ(m_table.GetNumSightings(), 0u);
    EXPECT_EQ(sent, 0);
}

TEST_F(CameraTableTest, ReclassifiesWhenAnInterfaceChangesItsAddress) {
    Add(kFirst, Record(1, 101));
    Hear(kFirst, Record(2, 202), false);
    m_table.Reclassify(
        kFirst, [](std::uint32_t ip) { return ip > 200; }, m_now);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    const Probe probe = Hear(kFirst, Record(2, 202)).at(0);
    EXPECT_TRUE(Answer(probe, Record(2, 202)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(202));
}

TEST_F(CameraTableTest, AsksLessAndLessOftenWhereNobodyAnswers) {
    int sent = 0;
    for (int second = 0; second < 30; ++second) {
        sent += static_cast<int>(Hear(kFirst, Record(1, 101)).size());
        Pass(1s, [&](const Probe&) { ++sent; });
    }
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_LE(sent, 30 * 8);
    EXPECT_GE(sent, 30 * 2) << "it may still come to life";
}

TEST_F(CameraTableTest, TakesTextsFromTheCameraItselfOnceItIsListed) {
    Add(kFirst, Record(1, 101, "real"));
    Hear(kFirst, Record(1, 101, "false"));
    EXPECT_EQ(SerialTextOf(m_table.Find(CameraKey{1, 0, {}})->listed->record), "real");
    bool answered = false;
    Pass(600ms, [&](const Probe& probe) { answered = Answer(probe, Record(1, 101, "new")); });
    EXPECT_TRUE(answered);
    EXPECT_EQ(SerialTextOf(m_table.Find(CameraKey{1, 0, {}})->listed->record), "new");
}

TEST_F(CameraTableTest, LosesNoCameraAndNoMemoryToAFloodOfInventedOnes) {
    Add(kFirst, Record(1, 101));
    std::size_t sent = 0;
    for (std::uint64_t i = 0; i < 20000; ++i) {
        sent += Hear(kFirst, Record(0x1000 + i, static_cast<std::uint32_t>(0x1000 + i % 500))).size();
        ASSERT_LE(m_table.GetNumSightings(), CameraTable::kMaxSightings);
    }
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_LE(sent, 20000u);
    // One more that is real still gets in.
    Add(kFirst, Record(2, 102));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101, 102));
    sent = 0;
    Pass(1s, [&](const Probe& probe) {
        ++sent;
        if (probe.ip <= 102) Answer(probe, Record(probe.ip - 100, probe.ip));
    });
    EXPECT_LE(sent, 2 * CameraTable::kMaxSightings) << "a flood is not answered by a bigger one";
    EXPECT_THAT(ListedAddresses(), ElementsAre(101, 102));
    Pass(11s, [&](const Probe& probe) {
        if (probe.ip <= 102) Answer(probe, Record(probe.ip - 100, probe.ip));
    });
    EXPECT_EQ(m_table.GetNumSightings(), 2u);
}

TEST_F(CameraTableTest, TakesNoMoreThanItsCapacityOfPresentCameras) {
    for (std::uint64_t i = 1; i <= CameraTable::kMaxSightings + 10; ++i) {
        Add(kFirst, Record(i, static_cast<std::uint32_t>(i)));
    }
    EXPECT_EQ(ListedAddresses().size(), CameraTable::kMaxSightings);
    EXPECT_EQ(m_table.GetNumSightings(), CameraTable::kMaxSightings);
}

TEST_F(CameraTableTest, ForgetsTheOldAddressOfACameraThatWasMoved) {
    Add(kFirst, Record(1, 101));
    m_table.TakeChanged();
    std::vector<Probe> probes;
    m_table.HasMoved(kFirst, Record(1, 102), true, m_now, &probes);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_TRUE(Answer(probes[0], Record(1, 102)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(102));
    EXPECT_TRUE(m_table.TakeChanged());
}

TEST_F(CameraTableTest, VerifiesAllAtOnceAndKnowsWhenItHas) {
    Add(kFirst, Record(1, 101));
    Add(kFirst, Record(2, 102));
    m_now += 100ms;
    const TimePoint start = m_now;
    std::vector<Probe> probes;
    m_table.ProbeAll(m_now, &probes);
    ASSERT_EQ(probes.size(), 2u);
    EXPECT_TRUE(m_table.IsVerifying(start));
    EXPECT_TRUE(Answer(probes[0], Record(probes[0].ip - 100, probes[0].ip)));
    EXPECT_TRUE(m_table.IsVerifying(start));
    Pass(590ms);
    EXPECT_TRUE(m_table.IsVerifying(start));
    Pass(20ms, [&](const Probe& probe) { Answer(probe, Record(probe.ip - 100, probe.ip)); });
    EXPECT_FALSE(m_table.IsVerifying(start));
    EXPECT_EQ(ListedAddresses().size(), 1u);
}

TEST_F(CameraTableTest, GivesBackEveryRequestId) {
    {
        CameraTable table(m_timings, m_ids);
        std::vector<Probe> probes;
        for (std::uint32_t i = 1; i <= 100; ++i) table.HeardBroadcast(kFirst, Record(i, i), true, m_now, &probes);
        EXPECT_EQ(probes.size(), 100u);
    }
    std::set<std::uint16_t> ids;
    for (int i = 0; i < 65535; ++i) ids.insert(m_ids.Take());
    EXPECT_EQ(ids.size(), 65535u);
    EXPECT_EQ(ids.count(0), 0u);
    EXPECT_EQ(m_ids.Take(), 0) << "all are outstanding";
    m_ids.Release(4711);
    EXPECT_EQ(m_ids.Take(), 4711);
}

// What must hold whatever happens; a violation is a line.
std::vector<std::string> Violations(const CameraTable& table) {
    std::vector<std::string> violations;
    std::size_t sightings = 0;
    for (const auto& [key, camera] : table.GetCameras()) {
        if (camera.sightings.empty()) violations.push_back("a camera that was never heard");
        bool present = false;
        bool listedIsItsOwn = camera.listed == nullptr;
        for (const auto& sighting : camera.sightings) {
            ++sightings;
            present = present || sighting->state == CameraTable::State::Present;
            listedIsItsOwn = listedIsItsOwn || sighting.get() == camera.listed;
            if (sighting->camera != &camera) violations.push_back("a sighting of another camera");
            if (KeyOf(sighting->record) != key) violations.push_back("a record of another camera");
            if (sighting->record.ipAddress != sighting->ip) violations.push_back("a record with another address");
        }
        if (!listedIsItsOwn) violations.push_back("listed by a sighting that is gone");
        if (present != (camera.listed != nullptr)) violations.push_back("present but not listed, or listed but absent");
    }
    if (sightings != table.GetNumSightings()) violations.push_back("sightings are miscounted");
    return violations;
}

TEST_F(CameraTableTest, HoldsTogetherUnderRandomEvents) {
    std::mt19937 random(20240607);
    const auto pick = [&](std::size_t count) { return static_cast<std::uint32_t>(random() % count); };
    std::vector<Probe> outstanding;
    for (int step = 0; step < 30000; ++step) {
        m_now += Milliseconds(pick(40));
        const int interface = static_cast<int>(1 + pick(3));
        const GvcpDiscoveryRecord record = Record(pick(6), 100 + pick(5), pick(2) != 0 ? "A" : "B");
        std::vector<Probe> probes;
        switch (pick(12)) {
            case 0:
                m_table.DropInterface(interface);
                break;
            case 1: {
                const std::uint32_t border = 100 + pick(6);
                m_table.Reclassify(
                    interface, [&](std::uint32_t ip) { return ip >= border; }, m_now);
                break;
            }
            case 2:
                m_table.HasMoved(interface, record, pick(2) != 0, m_now, &probes);
                break;
            case 3:
                m_table.ProbeAll(m_now, &probes);
                break;
            case 4:
                if (!outstanding.empty()) m_table.ProbeRefused(outstanding[pick(outstanding.size())].id);
                break;
            case 5:
            case 6:
            case 7:
                m_table.HeardBroadcast(interface, record, pick(4) != 0, m_now, &probes);
                break;
            case 8:
                m_table.Tick(m_now, &probes);
                break;
            default:
                if (outstanding.empty()) break;
                const Probe& probe = outstanding[pick(outstanding.size())];
                const GvcpDiscoveryRecord answer = Record(pick(6), pick(8) != 0 ? probe.ip : 100 + pick(5), "A");
                m_table.HeardProbe(probe.interface, probe.ip, probe.id, answer, m_now, &probes);
        }
        outstanding.insert(outstanding.end(), probes.begin(), probes.end());
        if (outstanding.size() > 64) outstanding.erase(outstanding.begin(), outstanding.end() - 64);
        ASSERT_THAT(Violations(m_table), IsEmpty()) << "step " << step;
    }
    Pass(15s);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_EQ(m_table.GetNumSightings(), 0u);
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
