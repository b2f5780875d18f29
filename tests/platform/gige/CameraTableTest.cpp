// SPDX-License-Identifier: Apache-2.0
// The camera table by itself: time, answers and lost datagrams are what the test says they are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <random>
#include <set>

#include "platform/linux/gige/CameraTable.h"

namespace Nimbrel2::Platform::GigE {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int TestFirst = 2;
constexpr int Second = 3;

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
    static GigE::Answer From(int interface, const GvcpDiscoveryRecord& record,
                             GigEUsability usability = GigEUsability::Usable) {
        return {interface, record.ipAddress, record, usability};
    }

    /// A camera answers a broadcast. @return the probes that this causes.
    std::vector<Probe> Hear(int interface, const GvcpDiscoveryRecord& record,
                            GigEUsability usability = GigEUsability::Usable) {
        std::vector<Probe> probes;
        m_table.HeardBroadcast(From(interface, record, usability), m_now, &probes);
        return probes;
    }

    bool Answer(const Probe& probe, const GvcpDiscoveryRecord& record,
                GigEUsability usability = GigEUsability::Usable) {
        return AnswerOn(probe.port, probe, record, usability);
    }
    bool AnswerOn(Port port, const Probe& probe, const GvcpDiscoveryRecord& record,
                  GigEUsability usability = GigEUsability::Usable) {
        std::vector<Probe> probes;
        const GigE::Answer answer{probe.interface, probe.ip, record, usability};
        const bool taken = m_table.HeardProbe(port, answer, probe.id, m_now, &probes);
        m_caused.insert(m_caused.end(), probes.begin(), probes.end());
        return taken;
    }

    /// Heard, asked and answered.
    void Add(int interface, const GvcpDiscoveryRecord& record) {
        for (const Probe& probe : Hear(interface, record)) {
            if (probe.ip != record.ipAddress) {
                continue;
            }
            EXPECT_TRUE(Answer(probe, record));
        }
    }

    /// Lets time pass in steps of 5 ms; answer says what comes back for each probe.
    void Pass(
        Milliseconds time, const std::function<void(const Probe&)>& answer = [](const Probe&) {}) {
        for (const TimePoint end = m_now + time; m_now < end; m_now += 5ms) {
            std::vector<Probe> probes;
            m_table.Tick(m_now, &probes);
            probes.insert(probes.end(), m_caused.begin(), m_caused.end());
            m_caused.clear();
            for (const Probe& probe : probes) {
                answer(probe);
            }
        }
    }

    std::vector<std::uint32_t> ListedAddresses() const {
        std::vector<std::uint32_t> addresses;
        for (const auto& [key, camera] : m_table.GetCameras()) {
            if (camera.listed != nullptr) {
                addresses.push_back(camera.listed->ip);
            }
        }
        return addresses;
    }

    const CameraTable::Sighting* ListedOf(std::uint64_t mac) const {
        const CameraTable::Camera* camera = m_table.Find(CameraKey{mac, 0, {}});
        return camera != nullptr ? camera->listed : nullptr;
    }

    const Timings m_timings{};
    RequestIds m_ids{Random(1)};
    CameraTable m_table{m_timings, m_ids};
    TimePoint m_now = TimePoint() + std::chrono::hours(1);
    std::vector<Probe> m_caused;  ///< by answers
};

TEST_F(CameraTableTest, ListsACameraOnceItHasAnsweredAtItsAddress) {
    const auto probes = Hear(TestFirst, Record(1, 101));
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_EQ(probes[0].ip, 101u);
    EXPECT_EQ(probes[0].interface, TestFirst);
    EXPECT_EQ(probes[0].port, Port::Search);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_TRUE(m_table.IsConfirming());
    EXPECT_TRUE(Answer(probes[0], Record(1, 101)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_FALSE(m_table.IsConfirming());
    EXPECT_TRUE(m_table.TakeChanged());
    EXPECT_FALSE(m_table.TakeChanged());
}

TEST_F(CameraTableTest, TakesAnAnswerOnlyFromWhereItAsked) {
    const Probe probe = Hear(TestFirst, Record(1, 101)).at(0);
    std::vector<Probe> probes;
    const auto heard = [&](int interface, std::uint32_t from, std::uint16_t id) {
        return m_table.HeardProbe(Port::Search, {interface, from, Record(1, 101)}, id, m_now, &probes);
    };
    EXPECT_FALSE(heard(Second, 101, probe.id)) << "wrong interface";
    EXPECT_FALSE(heard(TestFirst, 102, probe.id)) << "wrong sender";
    EXPECT_FALSE(heard(TestFirst, 101, static_cast<std::uint16_t>(probe.id + 1))) << "wrong id";
    EXPECT_FALSE(AnswerOn(Port::Verify, probe, Record(1, 101))) << "wrong port";
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_TRUE(Answer(probe, Record(1, 101)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_FALSE(Answer(probe, Record(1, 101))) << "a duplicate";
}

TEST_F(CameraTableTest, AsksPresentCamerasFromAPortThatNoBroadcastHasShown) {
    Add(TestFirst, Record(1, 101));
    std::vector<Probe> probes;
    m_table.ProbeAll(m_now, &probes);
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_EQ(probes[0].port, Port::Verify);
    EXPECT_FALSE(AnswerOn(Port::Search, probes[0], Record(1, 101))) << "whoever has heard broadcasts knows that port";
    EXPECT_TRUE(Answer(probes[0], Record(1, 101)));
}

TEST_F(CameraTableTest, DropsACameraAfterTwoMissedRoundsAndNoSooner) {
    Add(TestFirst, Record(1, 101));
    Pass(m_timings.probePeriod + 2 * m_timings.probeRound - 10ms);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    Pass(20ms);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_EQ(m_table.GetNumSightings(), 0u);
}

TEST_F(CameraTableTest, MissesACameraSoonThatDoesNotAnswerABroadcast) {
    Add(TestFirst, Record(1, 101));
    m_table.Broadcasted(TestFirst, m_now);
    Pass(m_timings.signWait + 2 * m_timings.probeRound + 10ms);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
}

TEST_F(CameraTableTest, KeepsACameraThatAnswersOneOfItsManyProbes) {
    Add(TestFirst, Record(1, 101));
    for (int answered = 0; answered < 12; ++answered) {
        int sent = 0;
        Pass(1700ms, [&](const Probe& probe) {
            if (sent++ == answered) {
                Answer(probe, Record(1, 101));
            }
        });
        EXPECT_THAT(ListedAddresses(), ElementsAre(101)) << "answered number " << answered;
        Pass(1200ms, [&](const Probe& probe) { Answer(probe, Record(1, 101)); });
    }
}

/// Packets in 100 broadcast periods with one camera: requests and answers. The camera answers a broadcast after delay.
class CameraTablePackets : public CameraTableTest {
protected:
    int Count(const std::function<Milliseconds()>& delay) {
        int packets = 0;
        TimePoint nextBroadcast = m_now;
        TimePoint answerAt = TimePoint::max();
        for (const TimePoint end = m_now + 100 * m_timings.broadcastPeriod; m_now < end; m_now += 5ms) {
            if (m_now >= nextBroadcast) {
                nextBroadcast = m_now + m_timings.broadcastPeriod;
                m_table.Broadcasted(TestFirst, m_now);
                answerAt = m_now + delay();
                ++packets;
            }
            if (m_now >= answerAt) {
                answerAt = TimePoint::max();
                Hear(TestFirst, Record(1, 101));
                ++packets;
            }
            std::vector<Probe> probes;
            m_table.Tick(m_now, &probes);
            for (const Probe& probe : probes) {
                if (Answer(probe, Record(1, 101))) {
                    packets += 2;
                }
            }
        }
        EXPECT_THAT(ListedAddresses(), ElementsAre(101));
        return packets;
    }
    const double m_seconds = std::chrono::duration<double>(100 * m_timings.broadcastPeriod).count();
};

TEST_F(CameraTablePackets, AreFourASecondAtMostForACameraThatAnswersAtOnce) {
    Add(TestFirst, Record(1, 101));
    EXPECT_LE(Count([] { return 0ms; }) / m_seconds, 3.8);
}

TEST_F(CameraTablePackets, AreFourASecondAtMostForACameraThatTakesItsTime) {
    Add(TestFirst, Record(1, 101));
    Random random(5);
    EXPECT_LE(Count([&] { return random.Between(0ms, 1000ms); }) / m_seconds, 4.0);
}

TEST_F(CameraTablePackets, AreFourASecondAtMostForACameraThatAnswersNoBroadcast) {
    Add(TestFirst, Record(1, 101));
    EXPECT_LE(Count([] { return 1h; }) / m_seconds, 4.0);
}

TEST_F(CameraTableTest, RepeatsAProbeWithItsId) {
    Add(TestFirst, Record(1, 101));
    std::vector<std::uint16_t> ids;
    Pass(1500ms, [&](const Probe& probe) { ids.push_back(probe.id); });
    ASSERT_GE(ids.size(), 6u);
    EXPECT_THAT(ids, ::testing::Each(ids[0]));
}

TEST_F(CameraTableTest, DoesNotCountRefusedRequestsForASecondAndNoLonger) {
    Add(TestFirst, Record(1, 101));
    std::optional<TimePoint> first;
    const auto refuse = [&](const Probe& probe) {
        if (!first) {
            first = m_now;
        }
        m_table.ProbeRefused(probe.id, m_now);
    };
    while (!first) {
        Pass(5ms, refuse);
    }
    Pass(m_timings.refusedGrace - 10ms, refuse);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    Pass(m_timings.probeRound + 20ms, refuse);
    EXPECT_THAT(ListedAddresses(), IsEmpty()) << "a network that takes nothing is none";
}

TEST_F(CameraTableTest, StartsToCountAnewWhenTheNetworkTakesRequestsAgain) {
    Add(TestFirst, Record(1, 101));
    const auto refuse = [&](const Probe& probe) { m_table.ProbeRefused(probe.id, m_now); };
    Pass(m_timings.probePeriod + 800ms, refuse);
    Pass(400ms, [&](const Probe& probe) { Answer(probe, Record(1, 101)); });
    Pass(m_timings.probePeriod + 800ms, refuse);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
}

TEST_F(CameraTableTest, HoldsCamerasWhileTheirLinkMayComeBack) {
    Add(TestFirst, Record(1, 101));
    m_table.PauseInterface(TestFirst);
    EXPECT_TRUE(m_table.IsListedPaused());
    int sent = 0;
    Pass(5s, [&](const Probe&) { ++sent; });
    EXPECT_EQ(sent, 0);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    m_table.ResumeInterface(TestFirst, m_now);
    EXPECT_FALSE(m_table.IsListedPaused());
    m_table.TakeChanged();
    Pass(10ms, [&](const Probe& probe) { Answer(probe, Record(1, 101)), ++sent; });
    EXPECT_EQ(sent, 1) << "it is asked at once";
    EXPECT_FALSE(m_table.TakeChanged());
}

TEST_F(CameraTableTest, MissesCamerasAfterTheirLinkIsBack) {
    Add(TestFirst, Record(1, 101));
    m_table.PauseInterface(TestFirst);
    m_table.ResumeInterface(TestFirst, m_now);
    Pass(2 * m_timings.probeRound + 10ms);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
}

TEST_F(CameraTableTest, GivesACameraAWholeRoundAfterItWasStoppedItself) {
    Add(TestFirst, Record(1, 101));
    Pass(1110ms);
    m_now += 10s;
    std::vector<Probe> probes;
    m_table.Tick(m_now, &probes);
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_TRUE(Answer(probes[0], Record(1, 101)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
}

TEST_F(CameraTableTest, DropsWhatWasHeardOnAnInterfaceWithIt) {
    Add(TestFirst, Record(1, 101));
    Add(Second, Record(2, 102));
    m_table.DropInterface(TestFirst);
    EXPECT_THAT(ListedAddresses(), ElementsAre(102));
}

TEST_F(CameraTableTest, ListsACameraHeardOnTwoInterfacesOnceAndKeepsItWhenOneGoes) {
    Add(TestFirst, Record(1, 101));
    Add(Second, Record(1, 101));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_EQ(m_table.Find(CameraKey{1, 0, {}})->listed->interface, TestFirst);
    m_table.TakeChanged();
    m_table.DropInterface(TestFirst);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    EXPECT_EQ(m_table.Find(CameraKey{1, 0, {}})->listed->interface, Second);
}

TEST_F(CameraTableTest, FollowsACameraToANewAddress) {
    Add(TestFirst, Record(1, 101));
    std::vector<Probe> probes = Hear(TestFirst, Record(1, 102));
    ASSERT_EQ(probes.size(), 2u) << "the new address and, at once, the old one";
    for (const Probe& probe : probes) {
        if (probe.ip != 102) {
            continue;
        }
        EXPECT_TRUE(Answer(probe, Record(1, 102)));
    }
    EXPECT_THAT(ListedAddresses(), ElementsAre(101)) << "until the old one has missed its rounds";
    Pass(650ms, [&](const Probe& probe) {
        if (probe.ip == 102) {
            Answer(probe, Record(1, 102));
        }
    });
    EXPECT_THAT(ListedAddresses(), ElementsAre(102));
    EXPECT_EQ(m_table.GetCameras().size(), 1u);
}

TEST_F(CameraTableTest, DoesNotLetAnotherClaimOfItsMacMoveACameraThatAnswers) {
    Add(TestFirst, Record(1, 101));
    for (int i = 0; i < 20; ++i) {
        for (const Probe& probe : Hear(TestFirst, Record(1, 102))) {
            Answer(probe, Record(1, probe.ip));
        }
        Pass(500ms, [&](const Probe& probe) { Answer(probe, Record(1, probe.ip)); });
        EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    }
}

TEST_F(CameraTableTest, ListsOfTwoCamerasOnOneAddressTheOneThatAnswersThere) {
    Add(TestFirst, Record(1, 101));
    const auto probes = Hear(TestFirst, Record(2, 101));
    ASSERT_EQ(probes.size(), 1u) << "the one that has the address is asked";
    EXPECT_EQ(probes[0].port, Port::Verify);
    EXPECT_TRUE(Answer(probes[0], Record(1, 101)));
    EXPECT_NE(ListedOf(1), nullptr);
    EXPECT_EQ(ListedOf(2), nullptr);
    int sent = 0;
    Pass(1s, [&](const Probe& probe) { sent += probe.port == Port::Search ? 1 : 0, Answer(probe, Record(1, 101)); });
    EXPECT_EQ(sent, 0) << "there is nothing to ask while the address is held";
}

TEST_F(CameraTableTest, GivesAnAddressToTheCameraThatTakesItOver) {
    Add(TestFirst, Record(1, 101));
    Hear(TestFirst, Record(2, 101));
    Pass(2s, [&](const Probe& probe) { Answer(probe, Record(2, 101)); });
    EXPECT_EQ(m_table.Find(CameraKey{1, 0, {}}), nullptr);
    EXPECT_NE(ListedOf(2), nullptr);
}

TEST_F(CameraTableTest, BelievesAnotherIdentityAtAKnownAddressOnlyWhenTheKnownOneIsSilent) {
    Add(TestFirst, Record(1, 101, "A"));
    m_table.TakeChanged();
    for (int i = 0; i < 20; ++i) {
        std::vector<Probe> probes;
        m_table.ProbeAll(m_now, &probes);
        for (const Probe& probe : probes) {
            EXPECT_TRUE(Answer(probe, Record(2, 101))) << "with the right id, from the right address";
            EXPECT_TRUE(Answer(probe, Record(1, 101, "A")));
        }
        Pass(100ms, [&](const Probe& probe) { Answer(probe, Record(1, 101, "A")); });
    }
    EXPECT_NE(ListedOf(1), nullptr);
    EXPECT_EQ(m_table.Find(CameraKey{2, 0, {}}), nullptr);
    EXPECT_FALSE(m_table.TakeChanged());
}

TEST_F(CameraTableTest, AsksAPresentCameraNowAndThenAboutWhatOthersClaim) {
    Add(TestFirst, Record(1, 101));
    int sent = 0;
    for (int i = 0; i < 200; ++i) {
        for (const Probe& probe : Hear(TestFirst, Record(1, static_cast<std::uint32_t>(1000 + i)))) {
            if (probe.port == Port::Verify) {
                ++sent, Answer(probe, Record(1, 101));
            }
        }
        for (const Probe& probe : Hear(TestFirst, Record(static_cast<std::uint64_t>(1000 + i), 101))) {
            if (probe.port == Port::Verify) {
                ++sent, Answer(probe, Record(1, 101));
            }
        }
        Pass(5ms, [&](const Probe& probe) {
            if (probe.port == Port::Verify) {
                Answer(probe, Record(1, 101));
            }
        });
    }
    EXPECT_GE(sent, 2);
    EXPECT_LE(sent, 6) << "in one second of false claims";
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
}

TEST_F(CameraTableTest, TellsCamerasWithoutMacBySerialAndAddress) {
    Add(TestFirst, Record(0, 101, "A"));
    Add(TestFirst, Record(0, 102, "A"));
    Add(TestFirst, Record(0, 103, "B"));
    EXPECT_THAT(ListedAddresses(), ElementsAre(101, 102, 103));
    Hear(TestFirst, Record(0, 101, "C"));
    Pass(2s, [&](const Probe& asked) {
        Answer(asked, Record(0, asked.ip, asked.ip == 101 ? "C" : asked.ip == 102 ? "A" : "B"));
    });
    EXPECT_EQ(m_table.Find(CameraKey{0, 101, "A"}), nullptr);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101, 102, 103));
}

TEST_F(CameraTableTest, NeitherAsksNorListsForeignCamerasAndForgetsThem) {
    EXPECT_THAT(Hear(TestFirst, Record(1, 101), GigEUsability::OtherSubnet), IsEmpty());
    EXPECT_EQ(m_table.GetNumSightings(), 1u);
    int sent = 0;
    Pass(m_timings.sightingLifetime - 100ms, [&](const Probe&) { ++sent; });
    EXPECT_EQ(m_table.GetNumSightings(), 1u);
    Pass(200ms, [&](const Probe&) { ++sent; });
    EXPECT_EQ(m_table.GetNumSightings(), 0u);
    EXPECT_EQ(sent, 0);
}

TEST_F(CameraTableTest, ReclassifiesWhenAnInterfaceChangesItsAddress) {
    Add(TestFirst, Record(1, 101));
    Hear(TestFirst, Record(2, 202), GigEUsability::OtherSubnet);
    m_table.Reclassify(
        TestFirst,
        [](const GvcpDiscoveryRecord& record) {
            return record.ipAddress > 200 ? GigEUsability::Usable : GigEUsability::OtherSubnet;
        },
        m_now);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    const Probe probe = Hear(TestFirst, Record(2, 202)).at(0);
    EXPECT_TRUE(Answer(probe, Record(2, 202)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(202));
}

TEST_F(CameraTableTest, UnlistsACameraWhoseNewMaskKeepsItFromAnswering) {
    Add(TestFirst, Record(1, 101));
    std::vector<Probe> probes;
    m_table.ProbeAll(m_now, &probes);
    EXPECT_TRUE(Answer(probes.at(0), Record(1, 101), GigEUsability::OutsideItsSubnet));
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_EQ(m_table.Find(CameraKey{1, 0, {}})->sightings[0]->usability, GigEUsability::OutsideItsSubnet);
}

TEST_F(CameraTableTest, AsksLessAndLessOftenWhereNobodyAnswers) {
    int sent = 0;
    for (int second = 0; second < 30; ++second) {
        sent += static_cast<int>(Hear(TestFirst, Record(1, 101)).size());
        Pass(1s, [&](const Probe&) { ++sent; });
    }
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_LE(sent, 30 * 4);
    EXPECT_GE(sent, 30) << "it may still come to life";
}

TEST_F(CameraTableTest, TakesTextsFromTheCameraItselfOnceItIsListed) {
    Add(TestFirst, Record(1, 101, "real"));
    Hear(TestFirst, Record(1, 101, "false"));
    EXPECT_EQ(SerialTextOf(m_table.Find(CameraKey{1, 0, {}})->listed->record), "real");
    bool answered = false;
    Pass(1200ms, [&](const Probe& probe) { answered = Answer(probe, Record(1, 101, "new")); });
    EXPECT_TRUE(answered);
    EXPECT_EQ(SerialTextOf(m_table.Find(CameraKey{1, 0, {}})->listed->record), "new");
}

TEST_F(CameraTableTest, LosesNoCameraAndNoMemoryToAFloodOfInventedOnes) {
    Add(TestFirst, Record(1, 101));
    std::size_t sent = 0;
    const auto answer = [&](const Probe& probe) {
        ++sent;
        if (probe.ip <= 102) {
            Answer(probe, Record(probe.ip - 100, probe.ip));
        }
    };
    for (std::uint64_t i = 0; i < 60000; ++i) {
        if (i % 100 == 0) {
            Pass(5ms, answer);
        }
        sent += Hear(TestFirst, Record(0x1000 + i, static_cast<std::uint32_t>(0x1000 + i % 500))).size();
        ASSERT_LE(m_table.GetNumSightings(), CameraTable::MaxSightings);
        ASSERT_LE(m_table.GetNumConfirming(), CameraTable::MaxConfirming);
    }
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
    // Three seconds: each of those that are asked at once takes six requests in 600 ms.
    EXPECT_LE(sent, CameraTable::MaxConfirming * 6 * 6) << "a flood is not answered by one";
    // One more that is real still gets in when the flood has ended.
    Hear(TestFirst, Record(2, 102));
    m_table.KnowHosts(TestFirst, {102});
    Pass(1s, answer);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101, 102));
    Pass(12s, answer);
    EXPECT_EQ(m_table.GetNumSightings(), 2u);
}

TEST_F(CameraTableTest, FindsRealCamerasInAFloodByTheHostsThatThisComputerKnows) {
    int sent = 0;
    std::uint64_t invented = 0;
    for (int step = 0; step < 200; ++step) {
        // 20,000 invented answers a second, and 16 cameras that answer now and then.
        for (int i = 0; i < 100; ++i) {
            ++invented;
            Hear(TestFirst, Record(0x10000 + invented, static_cast<std::uint32_t>(0x10000 + invented)));
        }
        if (step % 25 == 0) {
            for (std::uint64_t i = 1; i <= 16; ++i) {
                Hear(TestFirst, Record(i, static_cast<std::uint32_t>(100 + i)));
            }
        }
        std::set<std::uint32_t> hosts;
        for (std::uint32_t i = 1; i <= 16; ++i) {
            hosts.insert(100 + i);
        }
        if (step % 10 == 0) {
            m_table.KnowHosts(TestFirst, hosts);
        }
        Pass(5ms, [&](const Probe& probe) {
            ++sent;
            if (probe.ip <= 116) {
                Answer(probe, Record(probe.ip - 100, probe.ip));
            }
        });
    }
    EXPECT_EQ(ListedAddresses().size(), 16u) << "after one second";
}

TEST_F(CameraTableTest, FindsRealCamerasInAFloodThatIsWorkedOffInOneGoAfterAPause) {
    std::uint64_t invented = 0;
    const auto flood = [&](std::size_t number) {
        for (std::size_t i = 0; i < number; ++i) {
            ++invented;
            Hear(TestFirst, Record(0x10000 + invented, static_cast<std::uint32_t>(0x10000 + invented)));
        }
    };
    flood(100);
    std::set<std::uint32_t> hosts;
    for (std::uint32_t i = 1; i <= 16; ++i) {
        hosts.insert(100 + i);
    }
    m_table.KnowHosts(TestFirst, hosts);
    for (std::uint64_t i = 1; i <= 16; ++i) {
        Hear(TestFirst, Record(i, static_cast<std::uint32_t>(100 + i)));
    }
    // More than are remembered, before anybody asks again who is known.
    flood(2 * CameraTable::MaxSightings);
    Pass(2s, [this](const Probe& probe) {
        if (probe.ip <= 116) {
            Answer(probe, Record(probe.ip - 100, probe.ip));
        }
    });
    EXPECT_EQ(ListedAddresses().size(), 16u);
}

TEST_F(CameraTableTest, AsksOnceForAllThatClaimOneAddressOfAKnownHost) {
    m_table.KnowHosts(TestFirst, {50, 101, 102});
    // Each from another sender.
    for (std::uint32_t i = 0; i < 1000; ++i) {
        std::vector<Probe> probes;
        m_table.HeardBroadcast({TestFirst, 0x2000 + i, Record(0x1000 + i, 50)}, m_now, &probes);
    }
    Hear(TestFirst, Record(1, 101));
    Hear(TestFirst, Record(2, 102));
    std::set<std::uint32_t> asked;
    Pass(700ms, [&](const Probe& probe) { asked.insert(probe.ip); });
    EXPECT_THAT(asked, ::testing::IsSupersetOf({101u, 102u})) << "with the next that are asked";
}

TEST_F(CameraTableTest, SharesItsQuestionsAmongTheSenders) {
    // One sender claims a thousand cameras, another one.
    for (std::uint32_t i = 0; i < 1000; ++i) {
        std::vector<Probe> probes;
        m_table.HeardBroadcast({TestFirst, 50, Record(0x1000 + i, 0x1000 + i)}, m_now, &probes);
    }
    Hear(TestFirst, Record(2, 102));
    bool asked = false;
    Pass(700ms, [&](const Probe& probe) { asked = asked || probe.ip == 102; });
    EXPECT_TRUE(asked) << "with the next that are asked";
}

TEST_F(CameraTableTest, TakesNoMoreThanItsCapacityOfPresentCameras) {
    for (std::uint64_t i = 1; i <= CameraTable::MaxSightings + 10; ++i) {
        Add(TestFirst, Record(i, static_cast<std::uint32_t>(i)));
    }
    EXPECT_EQ(ListedAddresses().size(), CameraTable::MaxSightings);
    EXPECT_EQ(m_table.GetNumSightings(), CameraTable::MaxSightings);
}

TEST_F(CameraTableTest, ForgetsTheOldAddressOfACameraThatWasMoved) {
    Add(TestFirst, Record(1, 101));
    m_table.TakeChanged();
    std::vector<Probe> probes;
    m_table.HasMoved(From(TestFirst, Record(1, 102)), m_now, &probes);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_TRUE(Answer(probes[0], Record(1, 102)));
    EXPECT_THAT(ListedAddresses(), ElementsAre(102));
    EXPECT_TRUE(m_table.TakeChanged());
}

TEST_F(CameraTableTest, AsksACameraAnewThatWasGivenTheAddressItHas) {
    Add(TestFirst, Record(1, 101));
    std::vector<Probe> probes;
    m_table.HasMoved(From(TestFirst, Record(1, 101)), m_now, &probes);
    ASSERT_EQ(probes.size(), 1u);
    EXPECT_EQ(probes[0].port, Port::Verify);
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
}

TEST_F(CameraTableTest, VerifiesAllAtOnceAndWaitsForNobodyLong) {
    Add(TestFirst, Record(1, 101));
    Add(TestFirst, Record(2, 102));
    m_now += 100ms;
    std::vector<Probe> probes;
    m_table.ProbeAll(m_now, &probes);
    ASSERT_EQ(probes.size(), 2u);
    EXPECT_TRUE(m_table.IsVerifying(m_now));
    EXPECT_TRUE(Answer(probes[0], Record(probes[0].ip - 100, probes[0].ip)));
    EXPECT_TRUE(m_table.IsVerifying(m_now));
    Pass(m_timings.verifyWait);
    EXPECT_FALSE(m_table.IsVerifying(m_now)) << "who is silent that long is not waited for";
    EXPECT_EQ(ListedAddresses().size(), 2u) << "and stays listed while its rounds last";
    probes.clear();
    m_table.ProbeAll(m_now, &probes);
    EXPECT_TRUE(Answer(probes[0].ip == 101 ? probes[0] : probes[1], Record(1, 101)));
    EXPECT_FALSE(m_table.IsVerifying(m_now)) << "also not by the next listing";
    Pass(600ms, [&](const Probe& probe) {
        if (probe.ip == 101) {
            Answer(probe, Record(1, 101));
        }
    });
    EXPECT_THAT(ListedAddresses(), ElementsAre(101));
}

TEST_F(CameraTableTest, GivesBackEveryRequestId) {
    {
        CameraTable table(m_timings, m_ids);
        std::vector<Probe> probes;
        for (std::uint32_t i = 1; i <= 100; ++i) {
            table.HeardBroadcast(From(TestFirst, Record(i, i)), m_now, &probes);
        }
        EXPECT_EQ(probes.size(), CameraTable::MaxConfirming);
    }
    std::set<std::uint16_t> ids;
    for (int i = 0; i < 65535; ++i) {
        ids.insert(m_ids.Take());
    }
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
        if (camera.sightings.empty()) {
            violations.push_back("a camera that was never heard");
        }
        bool present = false;
        bool listedIsItsOwn = camera.listed == nullptr;
        for (const auto& sighting : camera.sightings) {
            ++sightings;
            present = present || sighting->state == CameraTable::State::Present;
            const auto holder = table.GetPresent().find({sighting->interface, sighting->ip});
            const bool holds = holder != table.GetPresent().end() && holder->second == sighting.get();
            if (holds != (sighting->state == CameraTable::State::Present)) {
                violations.push_back("two present sightings on one address, or none");
            }
            listedIsItsOwn = listedIsItsOwn || sighting.get() == camera.listed;
            if (sighting->camera != &camera) {
                violations.push_back("a sighting of another camera");
            }
            if (KeyOf(sighting->record) != key) {
                violations.push_back("a record of another camera");
            }
            if (sighting->record.ipAddress != sighting->ip) {
                violations.push_back("a record with another address");
            }
        }
        if (!listedIsItsOwn) {
            violations.push_back("listed by a sighting that is gone");
        }
        if (present != (camera.listed != nullptr)) {
            violations.push_back("present but not listed, or listed but absent");
        }
    }
    if (table.GetNumConfirming() > CameraTable::MaxConfirming) {
        violations.push_back("too many are asked at once");
    }
    for (const auto& [place, sighting] : table.GetPresent()) {
        if (sighting->state != CameraTable::State::Present) {
            violations.push_back("an absent sighting holds a place");
        }
    }
    if (sightings != table.GetNumSightings()) {
        violations.push_back("sightings are miscounted");
    }
    return violations;
}

TEST_F(CameraTableTest, HoldsTogetherUnderRandomEvents) {
    std::mt19937 random(20240607);
    const auto pick = [&](std::size_t count) { return static_cast<std::uint32_t>(random() % count); };
    std::vector<Probe> outstanding;
    for (int step = 0; step < 40000; ++step) {
        m_now += Milliseconds(pick(40));
        const int interface = static_cast<int>(1 + pick(3));
        const GvcpDiscoveryRecord record = Record(pick(6), 100 + pick(5), pick(2) != 0 ? "A" : "B");
        std::vector<Probe> probes;
        const auto usability = pick(4) != 0 ? GigEUsability::Usable : GigEUsability::OtherSubnet;
        const GigE::Answer heard{interface, pick(4) != 0 ? record.ipAddress : 100 + pick(5), record, usability};
        switch (pick(15)) {
            case 0:
                m_table.DropInterface(interface);
                break;
            case 1: {
                const std::uint32_t border = 100 + pick(6);
                m_table.Reclassify(
                    interface,
                    [&](const GvcpDiscoveryRecord& known) {
                        return known.ipAddress >= border ? GigEUsability::Usable : GigEUsability::OtherSubnet;
                    },
                    m_now);
                break;
            }
            case 2:
                m_table.HasMoved(heard, m_now, &probes);
                break;
            case 3:
                m_table.ProbeAll(m_now, &probes);
                break;
            case 4:
                if (!outstanding.empty()) {
                    m_table.ProbeRefused(outstanding[pick(outstanding.size())].id, m_now);
                }
                break;
            case 5:
            case 6:
            case 7:
                m_table.HeardBroadcast(heard, m_now, &probes);
                break;
            case 8:
                m_table.Tick(m_now, &probes);
                break;
            case 9:
                m_table.PauseInterface(interface);
                break;
            case 10:
                m_table.ResumeInterface(interface, m_now);
                break;
            case 11:
                m_table.Broadcasted(interface, m_now);
                m_table.KnowHosts(interface, {100 + pick(5)});
                break;
            default:
                if (outstanding.empty()) {
                    break;
                }
                const Probe& probe = outstanding[pick(outstanding.size())];
                const GvcpDiscoveryRecord answer = Record(pick(6), pick(8) != 0 ? probe.ip : 100 + pick(5), "A");
                m_table.HeardProbe(probe.port, {probe.interface, probe.ip, answer, usability}, probe.id, m_now,
                                   &probes);
        }
        outstanding.insert(outstanding.end(), probes.begin(), probes.end());
        if (outstanding.size() > 64) {
            outstanding.erase(outstanding.begin(), outstanding.end() - 64);
        }
        ASSERT_THAT(Violations(m_table), IsEmpty()) << "step " << step;
    }
    for (const int interface : {1, 2, 3}) {
        m_table.ResumeInterface(interface, m_now);
    }
    Pass(15s);
    EXPECT_THAT(ListedAddresses(), IsEmpty());
    EXPECT_EQ(m_table.GetNumSightings(), 0u);
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
