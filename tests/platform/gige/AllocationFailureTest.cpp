// SPDX-License-Identifier: Apache-2.0
// A computer that is short of memory: the camera table stays whole, and the monitor goes on. A binary of its own,
// because it replaces operator new.
#include <algorithm>
#include <atomic>
#include <new>
#include <thread>

#include "platform/linux/gige/CameraTable.h"
#include "platform/linux/gige/Presence.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::GigE::CameraTable;
using Platform::GigE::Port;
using Platform::GigE::Probe;

/// Counts the devices of the last report, without memory.
class DeviceCount final : public Platform::BusEventSink {
public:
    void Report(Platform::BusState state) noexcept override { m_count = static_cast<int>(state.devices.size()); }
    void RaiseError() noexcept override {}

    /// Waits without memory either.
    bool WaitFor(int count) const {
        const auto deadline = Clock::now() + 20s;
        while (m_count != count && Clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
        return m_count == count;
    }

private:
    std::atomic<int> m_count{0};
};

class GigEAllocationFailure : public GigEWireTest {};

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

TEST(PresenceAllocationFailure, LosesNoChange) {
    GvcpDiscoveryRecord record{};
    record.ipAddress = 0x0A000001;
    std::fill(std::begin(record.serialNumber), std::end(record.serialNumber), 'A');
    const Platform::GigE::Timings timings;
    const auto judge = [](int, const GvcpDiscoveryRecord&) { return Platform::GigEUsability::Usable; };
    const Platform::GigE::Answer answer{2, record.ipAddress, record};
    bool failed = true;
    int failures = 0;
    for (std::uint64_t failing = 1; failed; ++failing) {
        Platform::GigE::RequestIds ids{Platform::Random(1)};
        DeviceCount sink;
        Platform::GigE::Presence presence(timings, ids, std::nullopt, sink);
        presence.Start();
        const auto now = Clock::now();
        const std::vector<Platform::GigE::InterfacePresence> wire{{2, Platform::GigE::InterfacePresence::Use::Used, 1}};
        presence.Follow(wire, judge, now);
        std::vector<Probe> probes;
        presence.HeardBroadcast(answer, now, &probes);
        ASSERT_EQ(probes.size(), 1u);
        presence.HeardProbe(Port::Search, answer, probes[0].id, now, &probes);
        // The change is there, and not reported yet.
        {
            const AllocationFailure failure(failing);
            try {
                presence.Tick(now, &probes);
            } catch (const std::bad_alloc&) {
                ++failures;
            }
            failed = failure.Happened();
        }
        presence.Tick(now, &probes);
        EXPECT_TRUE(sink.WaitFor(1)) << "the arrival, allocation " << failing;
        {
            const AllocationFailure failure(failing);
            try {
                presence.Follow({}, judge, now);
                presence.Tick(now, &probes);
            } catch (const std::bad_alloc&) {
                ++failures;
            }
            failed = failed || failure.Happened();
        }
        presence.Follow({}, judge, now);
        presence.Tick(now, &probes);
        EXPECT_TRUE(sink.WaitFor(0)) << "the removal, allocation " << failing;
    }
    EXPECT_GT(failures, 2);
}

// Whatever the monitor is about when memory runs out: heard, asked, confirmed, reported, missed.
TEST_F(GigEAllocationFailure, OfTheMonitorLosesNoChange) {
    m_host.Ip("addr add 127.0.0.2/8 dev lo");
    IndependentCamera camera(m_host, "127.0.0.2", "LO02");
    Platform::GigE::DriverOptions options;
    options.networkInterfaces = {"lo"};
    options.timings.discoveryWindow = 50ms;
    options.timings.broadcastPeriod = options.timings.probePeriod = 40ms;
    options.timings.probeDelay = options.timings.signWait = 20ms;
    options.timings.signRest = options.timings.probeRound = 40ms;
    options.timings.confirmRetry = options.timings.confirmRetryMax = 40ms;
    DeviceCount sink;
    Platform::GigE::GigEDriver driver(options, sink);
    m_host.Run([&] { ASSERT_EQ(driver.Start(), HAL_OK); });
    ASSERT_TRUE(sink.WaitFor(1));
    for (std::uint64_t failing = 1; failing <= 60; ++failing) {
        const AllocationFailure failure(failing, AllocationFailure::Scope::AllThreads);
        camera.Pause();
        ASSERT_TRUE(sink.WaitFor(0)) << "allocation " << failing;
        camera.Continue();
        ASSERT_TRUE(sink.WaitFor(1)) << "allocation " << failing;
    }
    driver.Stop();
}

TEST_F(GigEAllocationFailure, InGivingAnAddressLeavesTheDriverAsItWas) {
    AddCamera("192.168.77.102", 2);
    Platform::GigE::DriverOptions options;
    options.timings.discoveryWindow = 50ms;
    DeviceCount sink;
    Platform::GigE::GigEDriver driver(options, sink);
    m_host.Run([&] { ASSERT_EQ(driver.Start(), HAL_OK); });
    ASSERT_TRUE(sink.WaitFor(1));
    const auto force = [&](std::uint64_t number) {
        Platform::ForceIpResult result;
        const auto ip = static_cast<std::uint32_t>(Ip("192.168.77.150") + number % 2);
        return driver.GetAddresses().Force({0x020000000002, ip, 0xFFFFFF00, 0}, &result);
    };
    int failures = 0;
    // Of this thread, and of all that help it: the monitor that opens sockets for it, and the camera.
    for (const auto scope : {AllocationFailure::Scope::ThisThread, AllocationFailure::Scope::AllThreads}) {
        bool failed = true;
        for (std::uint64_t failing = 1; failed && failing <= 200; ++failing) {
            const AllocationFailure failure(failing, scope);
            try {
                force(failing);
            } catch (const std::bad_alloc&) {
                ++failures;
            }
            failed = failure.Happened();
        }
    }
    EXPECT_GT(failures, 20);
    EXPECT_EQ(force(0), HAL_OK);
    EXPECT_TRUE(sink.WaitFor(1));
    driver.Stop();
}

TEST_F(GigEAllocationFailure, OfASimulatedNetworkLosesADatagramAndNoMore) {
    AddCamera("192.168.77.102", 2);
    RawGvcp raw(m_host);
    for (std::uint64_t failing = 1; failing <= 40; ++failing) {
        const AllocationFailure failure(failing, AllocationFailure::Scope::AllThreads);
        const AllocationFailure::Pause here;
        const auto deadline = Clock::now() + 20s;
        while (!failure.Happened() && Clock::now() < deadline) {
            raw.WaitForAnswer("192.168.77.102", 20ms);
        }
        ASSERT_TRUE(failure.Happened()) << "allocation " << failing;
        std::uint32_t value = 0;
        EXPECT_TRUE(raw.Read("192.168.77.102", 0xC, &value));
        EXPECT_EQ(value, 2u);
    }
}

TEST_F(GigEAllocationFailure, DoesNotEndTheMonitor) {
    IndependentCamera camera(m_host, "127.0.0.1", "LO01");
    m_window = 2s;
    Start({"lo"});
    ASSERT_EQ(List().size(), 1u);
    const auto before = m_sink.GetCounts();
    // This thread makes no allocation meanwhile: it is the monitor whose first one fails, then its second one, ...
    for (std::uint64_t failing = 1; failing <= 8; ++failing) {
        const AllocationFailure failure(failing, AllocationFailure::Scope::AllThreads);
        const auto deadline = Clock::now() + 20s;
        while (!failure.Happened() && Clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
        ASSERT_TRUE(failure.Happened()) << "allocation " << failing;
    }
    EXPECT_EQ(ListNames().size(), 1u);
    EXPECT_EQ(m_sink.GetCounts(), before);
    camera.Kill();
    EXPECT_TRUE(m_sink.WaitFor([&](const auto& counts) { return counts.removals > before.removals; }, 10s));
}

}  // namespace
}  // namespace Nimbrel2::Testing
