// SPDX-License-Identifier: Apache-2.0
// A computer that is short of memory: the camera table stays whole, and the monitor goes on. A binary of its own,
// because it replaces operator new.
#include <algorithm>
#include <new>
#include <thread>

#include "platform/linux/gige/CameraTable.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::GigE::CameraTable;
using Platform::GigE::Port;
using Platform::GigE::Probe;

using GigEAllocationFailure = GigETest;

TEST(CameraTableAllocationFailure, LeavesTheTableWhole) {
    GvcpDiscoveryRecord record{};
    record.ipAddress = 0x0A000001;
    // Longer than a string holds without memory of its own.
    std::fill(std::begin(record.serialNumber), std::end(record.serialNumber), 'A');
    const Platform::GigE::Timings timings;
    Platform::TimePoint now;
    bool failed = true;
    int failures = 0;
    for (std::uint64_t failing = 1; failed; ++failing) {
        Platform::GigE::RequestIds ids{Platform::Random(1)};
        CameraTable table(timings, ids);
        std::vector<Probe> probes;
        {
            const AllocationFailure failure(failing);
            try {
                table.HeardBroadcast({2, record.ipAddress, record}, now, &probes);
                table.HeardBroadcast({3, record.ipAddress, record}, now, &probes);
                table.DropInterface(3);
            } catch (const std::bad_alloc&) {
                ++failures;
            }
            failed = failure.Happened();
        }
        std::size_t sightings = 0;
        for (const auto& [key, camera] : table.GetCameras()) {
            EXPECT_FALSE(camera.sightings.empty()) << "allocation " << failing;
            sightings += camera.sightings.size();
        }
        EXPECT_EQ(table.GetNumSightings(), sightings) << "allocation " << failing;
        // The camera goes on being heard, is asked with the next round at the latest, and is listed when it answers.
        probes.clear();
        table.HeardBroadcast({2, record.ipAddress, record}, now, &probes);
        const auto later = now + timings.probeRound;
        table.Tick(later, &probes);
        const auto probe =
            std::find_if(probes.begin(), probes.end(), [](const Probe& sent) { return sent.interface == 2; });
        ASSERT_NE(probe, probes.end()) << "allocation " << failing;
        const std::uint16_t id = probe->id;
        EXPECT_TRUE(table.HeardProbe(Port::Search, {2, record.ipAddress, record}, id, later, &probes));
        EXPECT_NE(table.GetCameras().begin()->second.listed, nullptr);
    }
    EXPECT_GT(failures, 5);
}

TEST_F(GigEAllocationFailure, DoesNotEndTheMonitor) {
    IndependentCamera camera(m_host, "127.0.0.1", "LO01");
    Start({"lo"});
    ASSERT_EQ(List().size(), 1u);
    const auto before = m_sink.GetCounts();
    // This thread makes no allocation meanwhile: it is the monitor whose first one fails, then its second one, ...
    for (std::uint64_t failing = 1; failing <= 8; ++failing) {
        const AllocationFailure failure(failing, AllocationFailure::Scope::AllThreads);
        const auto deadline = Clock::now() + 20s;
        while (!failure.Happened() && Clock::now() < deadline) std::this_thread::sleep_for(1ms);
        ASSERT_TRUE(failure.Happened()) << "allocation " << failing;
    }
    EXPECT_EQ(ListNames().size(), 1u);
    EXPECT_EQ(m_sink.GetCounts(), before);
    camera.Kill();
    EXPECT_TRUE(m_sink.WaitFor([&](const auto& counts) { return counts.removals > before.removals; }, 10s));
}

}  // namespace
}  // namespace Nimbrel2::Testing
