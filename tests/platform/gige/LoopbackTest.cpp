// SPDX-License-Identifier: Apache-2.0
// The GigE driver against independent cameras on loopback.
#include "tests/platform/gige/GigEFixture.h"
#include "tests/support/ProcessThreads.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GigELoopback : public GigETest {};

TEST_F(GigELoopback, ListsCamerasWithoutMacBySerialAndAddress) {
    AddLoopbackAddresses(4);
    IndependentCamera first(m_host, "127.0.0.1", "LO01");
    IndependentCamera second(m_host, "127.0.0.2", "LO02");
    IndependentCamera third(m_host, "127.0.0.3", "LO03");
    IndependentCamera fourth(m_host, "127.0.0.4", "LO03");
    Start({"lo"});
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1", "LO02@127.0.0.2", "LO03@127.0.0.3", "LO03@127.0.0.4"));
    EXPECT_EQ(m_sink.GetCounts().removals, 0);
}

TEST_F(GigELoopback, UsesLoopbackOnlyWhenItIsNamed) {
    IndependentCamera camera(m_host, "127.0.0.1", "LO01");
    m_window = 10s;
    Start({});
    const auto start = Clock::now();
    EXPECT_THAT(List(), IsEmpty());
    EXPECT_LT(Since(start), m_window) << "without a network there is nothing to wait for";
}

TEST_F(GigELoopback, WaitsForTheWindowOnceAndThenOnlyVerifies) {
    IndependentCamera camera(m_host, "127.0.0.1", "LO01");
    m_window = 2s;
    const auto start = Clock::now();
    Start({"lo"});
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1"));
    EXPECT_GE(Since(start), m_window);
    const auto second = Clock::now();
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1"));
    EXPECT_LT(Since(second), m_window);
}

TEST_F(GigELoopback, MonitorsOnAThreadThatTakesNoSignalButThoseOfFaults) {
    Start({"lo"});
    EXPECT_THAT(List(), IsEmpty());  // The monitor has answered, so it runs.
    const auto monitors = ListThreads("gige-monitor");
    EXPECT_FALSE(monitors.empty());
    EXPECT_THAT(WrongMasks(monitors), IsEmpty());
}

TEST_F(GigELoopback, ReadsAndWritesRegisters) {
    IndependentCamera camera(m_host, "127.0.0.1", "LO01");
    Start({"lo"});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    std::uint32_t value = 0;
    EXPECT_EQ(cameras[0]->ReadRegister(0x24, &value), HAL_OK);
    EXPECT_EQ(value, Ip("127.0.0.1"));
    EXPECT_EQ(cameras[0]->WriteRegister(0x34, 0xFFFFFF00), HAL_OK);
    EXPECT_EQ(cameras[0]->ReadRegister(0x34, &value), HAL_OK);
    EXPECT_EQ(value, 0xFFFFFF00u);
    EXPECT_EQ(cameras[0]->ReadRegister(0x26, &value), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(cameras[0]->WriteRegister(0x26, 1), HAL_INVALID_ARGUMENT);
}

TEST_F(GigELoopback, ReportsOneKilledAndOneStarted) {
    AddLoopbackAddresses(3);
    IndependentCamera first(m_host, "127.0.0.1", "LO01");
    IndependentCamera second(m_host, "127.0.0.2", "LO02");
    Start({"lo"});
    ASSERT_EQ(List().size(), 2u);
    const RecordingSink::Counts before = m_sink.GetCounts();

    const auto killed = Clock::now();
    second.Kill();
    ASSERT_TRUE(m_sink.WaitFor([&](const auto& now) { return now.removals > before.removals; }, 5s));
    EXPECT_LT(Since(killed), 3s);
    EXPECT_GE(Since(killed), 300ms) << "one missed round is not enough";
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1"));

    const auto started = Clock::now();
    IndependentCamera third(m_host, "127.0.0.3", "LO03");
    ASSERT_TRUE(m_sink.WaitFor([&](const auto& now) { return now.arrivals > before.arrivals; }, 5s));
    EXPECT_LT(Since(started), 3s);
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1", "LO03@127.0.0.3"));

    const RecordingSink::Counts after = m_sink.GetCounts();
    EXPECT_EQ(after.resets - before.resets, 2);
    EXPECT_EQ(after.removals - before.removals, 1);
    EXPECT_EQ(after.arrivals - before.arrivals, 1);
}

TEST_F(GigELoopback, WaitsInAListingForNobodyLongAndLeavesTheRestToTheMonitor) {
    AddLoopbackAddresses(2);
    IndependentCamera first(m_host, "127.0.0.1", "LO01");
    IndependentCamera second(m_host, "127.0.0.2", "LO02");
    Start({"lo"});
    ASSERT_EQ(List().size(), 2u);
    const RecordingSink::Counts before = m_sink.GetCounts();
    second.Kill();
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1", "LO02@127.0.0.2")) << "it answered in its last round";
    ASSERT_TRUE(m_sink.WaitFor([&](const auto& now) { return now.removals > before.removals; }, 5s));
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1"));
    IndependentCamera third(m_host, "127.0.0.2", "LO02");
    ASSERT_TRUE(m_sink.WaitFor([&](const auto& now) { return now.arrivals > before.arrivals; }, 5s));
    EXPECT_EQ(m_sink.GetCounts().removals, before.removals + 1);
    EXPECT_EQ(m_sink.GetCounts().resets, before.resets + 2) << "one for each change";
}

TEST_F(GigELoopback, KeepsACameraThatMissesOneRound) {
    IndependentCamera camera(m_host, "127.0.0.1", "LO01");
    Start({"lo"});
    ASSERT_EQ(List().size(), 1u);
    const RecordingSink::Counts before = m_sink.GetCounts();
    for (int i = 0; i < 3; ++i) {
        camera.Pause();
        std::this_thread::sleep_for(400ms);  // the length of the outage, which is what is tested
        camera.Continue();
        EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.1"));
    }
    EXPECT_EQ(m_sink.GetCounts(), before);
}

TEST_F(GigELoopback, KnowsACameraByItsMacWhenItHasOne) {
    AddLoopbackAddresses(3);
    IndependentCamera first(m_host, "127.0.0.3", "LO01");
    IndependentCamera second(m_host, "127.0.0.2", "LO02");
    first.SetMac(0x020000007701);
    second.SetMac(0x020000007702);
    Start({"lo"});
    EXPECT_THAT(ListNames(), ElementsAre("LO01@127.0.0.3", "LO02@127.0.0.2")) << "sorted by MAC";
}

TEST_F(GigELoopback, AnswersClosedAfterStop) {
    IndependentCamera camera(m_host, "127.0.0.1", "LO01");
    Start({"lo"});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 1u);
    Stop();
    Platform::Listing<Platform::GigEDevice> none;
    EXPECT_EQ(m_bus->ListCameras(&none), HAL_CLOSED);
    std::vector<GvcpDiscoveryRecord> records;
    EXPECT_EQ(Discover(&records), HAL_CLOSED);
    EXPECT_EQ(ForceIp(1, 2, 3, 4), HAL_CLOSED);
    m_bus.reset();
    std::uint32_t value = 0;
    bool monitor = false;
    GvcpDiscoveryRecord record{};
    EXPECT_EQ(cameras[0]->ReadRegister(0x24, &value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->WriteRegister(0x34, 0), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->IsInMonitorMode(&monitor), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetLocalPort(&value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetLocalAddress(&value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetRecord(&record), HAL_CLOSED);
}

TEST_F(GigELoopback, DiscoversWhatAnswers) {
    AddLoopbackAddresses(2);
    IndependentCamera first(m_host, "127.0.0.1", "LO01");
    Start({"lo"});
    List();
    IndependentCamera second(m_host, "127.0.0.2", "LO02");
    std::vector<GvcpDiscoveryRecord> records;
    const auto start = Clock::now();
    ASSERT_EQ(Discover(&records), HAL_OK);
    EXPECT_GE(Since(start), m_window);
    EXPECT_LT(Since(start), m_window + 3s);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(NameOf(records[0]), "LO01@127.0.0.1");
    EXPECT_EQ(NameOf(records[1]), "LO02@127.0.0.2");
}

}  // namespace
}  // namespace Nimbrel2::Testing
