// SPDX-License-Identifier: Apache-2.0
// Many cameras, many threads, lossy wires.
#include <atomic>
#include <random>
#include <thread>

#include "tests/platform/gige/GigEFixture.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::Simulated::SimulatedGigECamera;
using ::testing::ElementsAre;
using CameraId = Platform::Simulated::SimulatedGigENetwork::CameraId;

class GigEStress : public GigEWireTest {
protected:
    void AddCameras(int count, const Platform::Simulated::Faults& faults = {}) {
        m_host.Ip("addr flush dev h0");
        m_host.Ip("addr add 10.0.0.1/16 dev h0");
        for (int i = 0; i < count; ++i) {
            auto options = CameraOptions("10.0.1." + std::to_string(1 + i), static_cast<std::uint64_t>(1 + i));
            options.subnetMask = 0xFFFF0000;
            options.faults = faults;
            m_ids.push_back(AddCamera(options));
        }
    }

    std::vector<CameraId> m_ids;
};

TEST_F(GigEStress, ThreeDatagramsInTenLostLoseNoCamera) {
    Platform::Simulated::Faults faults;
    faults.lossPercent = 30;
    AddCameras(8, faults);
    m_window = 1s;
    Start({});
    // All of them, if not at once then with the next rounds.
    const auto deadline = Clock::now() + 10s;
    while (ListNames().size() < 8) {
        ASSERT_LT(Clock::now(), deadline);
    }
    const auto before = m_sink.GetCounts();
    const auto begin = Clock::now();
    while (Since(begin) < 8s) {
        const auto start = Clock::now();
        const auto names = ListNames();
        EXPECT_EQ(names.size(), 8u);
        EXPECT_LT(Since(start), 3s);
    }
    EXPECT_EQ(m_sink.GetCounts(), before);
}

TEST_F(GigEStress, DuplicatesAndDelaysChangeNothing) {
    Platform::Simulated::Faults faults;
    faults.duplicatePercent = 100;
    faults.delayMaximum = 40ms;
    AddCameras(8, faults);
    m_window = 500ms;
    Start({});
    EXPECT_EQ(ListNames().size(), 8u);
    const auto before = m_sink.GetCounts();
    const auto begin = Clock::now();
    const auto cameras = List();
    while (Since(begin) < 3s) {
        EXPECT_EQ(ListNames().size(), 8u);
        for (const auto& camera : cameras) {
            GvcpDiscoveryRecord record{};
            std::uint32_t value = 0;
            EXPECT_EQ(camera->GetRecord(&record), HAL_OK);
            EXPECT_EQ(camera->ReadRegister(0xC, &value), HAL_OK);
            EXPECT_EQ(value, record.macLow);
        }
    }
    EXPECT_EQ(m_sink.GetCounts(), before);
}

TEST_F(GigEStress, ManyThreadsReadTheirOwnValues) {
    AddCameras(16);
    Start({});
    const auto cameras = List();
    ASSERT_EQ(cameras.size(), 16u);
    std::atomic<bool> stop{false};
    std::atomic<std::uint64_t> reads{0};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            std::mt19937 random(static_cast<unsigned>(i));
            while (!stop) {
                const std::size_t which = random() % cameras.size();
                std::uint32_t value = 0;
                EXPECT_EQ(cameras[which]->ReadRegister(0x24, &value), HAL_OK);
                EXPECT_EQ(value, Ip("10.0.1.1") + which);
                ++reads;
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop) {
            EXPECT_EQ(ListNames().size(), 16u);
        }
    });
    threads.emplace_back([&] {
        while (!stop) {
            EXPECT_EQ(DiscoverNames().size(), 16u);
        }
    });
    const auto begin = Clock::now();
    while (Since(begin) < 3s) {
        std::this_thread::sleep_for(10ms);  // the length of the trial
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(reads, 500u);
    EXPECT_EQ(m_sink.GetCounts().removals, 0);
}

TEST_F(GigEStress, StopEndsEverythingThatWaits) {
    AddCameras(4);
    m_window = 30s;
    Start({});
    std::vector<std::thread> threads;
    std::atomic<int> waiting{0};
    threads.emplace_back([&] {
        Platform::Listing<Platform::GigEDevice> cameras;
        ++waiting;
        EXPECT_EQ(m_bus->ListCameras(&cameras), HAL_CLOSED);
    });
    threads.emplace_back([&] {
        std::vector<GvcpDiscoveryRecord> records;
        ++waiting;
        EXPECT_EQ(Discover(&records), HAL_CLOSED);
    });
    threads.emplace_back([&] {
        ++waiting;
        const std::uint32_t status = ForceIp(0x0200000000FF, Ip("10.0.1.200"), 0xFFFF0000, 0);
        EXPECT_TRUE(status == HAL_CLOSED || status == HAL_NO_ACKNOWLEDGE) << status;
    });
    threads.emplace_back([&] {
        ++waiting;
        EXPECT_EQ(AutoForceIp(std::nullopt), HAL_CLOSED);
    });
    while (waiting < 4) {
        std::this_thread::yield();
    }
    const auto start = Clock::now();
    m_bus->Stop();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LT(Since(start), m_window / 2) << "by themselves they would wait for the window";
}

TEST_F(GigEStress, AQuarterOf128CamerasComesAndGoesWithoutAFalseWord) {
    AddCameras(128);
    Platform::GigE::Timings timings;
    timings.probeRound = 1s;  // one thread plays all the cameras, and may have to wait for its turn
    StartDriver(timings);
    const auto count = [this] {
        EXPECT_EQ(ListOfDriver(), HAL_OK);
        return m_listed.size();
    };
    ASSERT_EQ(m_listed.size(), 128u);
    std::mt19937 random(128);
    RecordingSink::Counts expected = m_sink.GetCounts();
    const auto begin = Clock::now();
    int cycles = 0;
    while (Since(begin) < 60s) {
        std::shuffle(m_ids.begin(), m_ids.end(), random);
        const auto setSilent = [&](bool silent) {
            for (std::size_t i = 0; i < 32; ++i) {
                m_cameras->Use(m_ids[i], [&](SimulatedGigECamera& camera) { camera.SetSilent(silent); });
            }
        };
        setSilent(true);
        expected.removals += 32;
        ASSERT_TRUE(m_sink.WaitFor([&](const auto& counts) { return counts.removals >= expected.removals; }, 20s))
            << m_sink.GetCounts().removals;
        ASSERT_EQ(count(), 96u);
        setSilent(false);
        expected.arrivals += 32;
        ASSERT_TRUE(m_sink.WaitFor([&](const auto& counts) { return counts.arrivals >= expected.arrivals; }, 20s))
            << m_sink.GetCounts().arrivals;
        const auto start = Clock::now();
        ASSERT_EQ(count(), 128u);
        EXPECT_LT(Since(start), 3s);
        ASSERT_EQ(m_sink.GetCounts().removals, expected.removals);
        ASSERT_EQ(m_sink.GetCounts().arrivals, expected.arrivals);
        ++cycles;
    }
    EXPECT_GE(cycles, 5);
}

}  // namespace
}  // namespace Nimbrel2::Testing
