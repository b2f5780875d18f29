// SPDX-License-Identifier: Apache-2.0
// Many threads at once, and many times over: starts and ends, resets, rescans, registrations, look-ups.
#include <chrono>
#include <random>

#include "tests/busmaster/BusMasterFixture.h"
#include "tests/support/Sanitized.h"

namespace Nimbrel2::Testing {
namespace {

// A start is five times as slow under a sanitizer, which looks at each one harder.
constexpr int Starts = NIMBREL2_TESTS_SANITIZED ? 2000 : 20000;
constexpr int StormMilliseconds = 1000;
constexpr int StressRuns = NIMBREL2_TESTS_SANITIZED ? 15 : 40;

class Stress : public BusMasterFixture {};

// A lost confirmation would cost 40 s, which the time-out of one minute shows.
TEST(StartStress, NoConfirmationIsLostInManyStarts) {
    constexpr int StartsPerHal = 500;  // a scripted HAL remembers every call
    for (int i = 0; i < Starts; i += StartsPerHal) {
        const ScriptedHal hal;
        for (int k = 0; k < StartsPerHal; ++k) {
            boost::weak_ptr<Members> members;
            {
                BusMaster busMaster;
                members = BusMasterTestAccess::Share(busMaster);
                ASSERT_TRUE(busMaster.Initialize() == ERROR_OK) << "start " << i + k;
                ASSERT_TRUE(busMaster.GetInitialized()) << "start " << i + k << " was answered before it was confirmed";
            }
            ASSERT_TRUE(members.expired()) << "the worker of start " << i + k << " was not joined";
        }
    }
}

// What a failed start still does must not be taken for the confirmation of the one that follows at once.
TEST(StartStress, AStartRightAfterAFailedOneIsNotAnsweredEarly) {
    for (int i = 0; i < Starts / 10; i += 100) {
        ScriptedHal hal;
        for (int k = 0; k < 100; ++k) {
            BusMaster busMaster;
            hal.Fail("HAL_1394GetDevices", 1, HAL_FAILED);
            ASSERT_EQ(ERROR_LOW_LEVEL_FAILURE, busMaster.Initialize().GetType());
            ASSERT_TRUE(busMaster.Initialize() == ERROR_OK);
            ASSERT_TRUE(busMaster.GetInitialized()) << "run " << i + k;
            hal.FailNothing();
        }
        // The threads of the failed starts may still be on their way out.
        ASSERT_TRUE(Eventually([&hal] { return hal.RegistrationsOutstanding() == 0; }));
    }
}

TEST_F(Stress, LookUpsFromEightThreadsGetThroughAStormOfResets) {
    for (unsigned int i = 0; i < 8; ++i) {
        hal.AddUsbCamera(21 + i);
    }
    hal.AddFireWireDevice(1, 2);
    Start();
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        while (!stop) {
            hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB);
            hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_1394, 1, 2);
        }
    });
    std::vector<std::thread> askers;
    std::atomic<std::uint64_t> answers[8] = {};
    for (unsigned int i = 0; i < 8; ++i) {
        askers.emplace_back([&, i] {
            while (!stop) {
                ZevoGuid guid;
                ASSERT_TRUE(busMaster->GetCameraFromSerialNumber(21 + i, &guid) == ERROR_OK);
                HardwareInterface* hwInterface = nullptr;
                ASSERT_TRUE(busMaster->GetHwInterfaceFromGuid(guid, &hwInterface) == ERROR_OK);
                InterfaceType type = INTERFACE_NONE;
                ASSERT_TRUE(busMaster->GetInterfaceTypeFromGuid(guid, &type) == ERROR_OK);
                ASSERT_EQ(INTERFACE_USB_3, type);
                ++answers[i];
            }
        });
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(StormMilliseconds);
    EXPECT_TRUE(Eventually([&] {
        return std::chrono::steady_clock::now() > end &&
               std::all_of(std::begin(answers), std::end(answers), [](const auto& count) { return count >= 10; });
    })) << "a look-up starved";
    stop = true;
    storm.join();
    for (std::thread& asker : askers) {
        asker.join();
    }
    EXPECT_TRUE(WaitUntilIdle());
    EXPECT_LT(2U, Listings());
}

// One object, everything at once, ended in the middle of it.
class Everything {
public:
    Everything(ScriptedHal& hal, BusMaster& busMaster, std::vector<ScriptedHal::DevicePointer> devices,
               unsigned int seed)
        : m_hal(hal), m_busMaster(busMaster), m_devices(std::move(devices)), m_seed(seed) {}

    void Run() {
        Start([this](std::minstd_rand& random) { ComeAndGo(random); });
        Start([this](std::minstd_rand& random) { RaiseSomething(random); });
        Start([this](std::minstd_rand&) { m_busMaster.RescanBus(); });
        Start([this](std::minstd_rand&) { RegisterAndUnregister(); });
        Start([this](std::minstd_rand&) { RegisterAndUnregister(); });
        Start([this](std::minstd_rand& random) { LookUp(random); });
        Start([this](std::minstd_rand& random) { LookUp(random); });
    }

    void Stop() {
        m_stop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

    std::uint64_t Calls() const { return m_calls; }

private:
    template <class Action>
    void Start(Action action) {
        m_threads.emplace_back([this, action, seed = ++m_seed] {
            std::minstd_rand random(seed);
            while (!m_stop) {
                action(random);
            }
        });
    }

    void ComeAndGo(std::minstd_rand& random) {
        const auto& device = m_devices[random() % m_devices.size()];
        m_hal.Detach(device);
        if (random() % 2 == 0) {
            m_hal.Attach(device);
        }
        m_hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_1394);
    }

    void RaiseSomething(std::minstd_rand& random) {
        const auto event = static_cast<HALBusEvent>(random() % 5);
        const auto bus = static_cast<HALInterfaceType>(random() % 4);
        m_hal.Raise(event, bus, random() % 2 == 0 ? 1 : 0, random() % 2 == 0 ? 2 : 0);
    }

    void RegisterAndUnregister() {
        void* handles[3] = {};
        for (unsigned int i = 0; i < 3; ++i) {
            EXPECT_TRUE(m_busMaster.RegisterCallback(&Everything::OnEvent, static_cast<BusCallbackType>(i), this,
                                                     &handles[i]) == ERROR_OK);
        }
        for (void* handle : handles) {
            EXPECT_TRUE(m_busMaster.UnregisterCallback(handle) == ERROR_OK);
        }
    }

    void LookUp(std::minstd_rand& random) {
        unsigned int count = 0;
        EXPECT_TRUE(m_busMaster.GetNumOfCameras(&count) == ERROR_OK);
        ZevoGuid guid;
        const unsigned int index = static_cast<unsigned int>(random()) % (count + 1);
        if (m_busMaster.GetCameraFromIndex(index, &guid) == ERROR_OK) {
            InterfaceType type = INTERFACE_NONE;
            m_busMaster.GetInterfaceTypeFromGuid(guid, &type);
        }
        CameraInfo info{};
        m_busMaster.GetCameraInfo(guid, &info);
        // Nothing but this share may keep the object while its camera leaves.
        boost::shared_ptr<HardwareInterface> kept;
        if (m_busMaster.KeepHwInterface(guid, &kept) == ERROR_OK) {
            const std::uint32_t status = kept->GetCameraInfo(&info);
            EXPECT_TRUE(status == HAL_OK || status == HAL_GONE) << status;
        }
        m_busMaster.GetCameraFromSerialNumber(21, &guid);
        m_busMaster.GetCameraFromIPAddress({{10, 0, 0, 1}}, &guid);
        m_busMaster.GetGeneration(21);
    }

    static void OnEvent(void* data, unsigned int) {
        auto& everything = *static_cast<Everything*>(data);
        ++everything.m_calls;
        unsigned int count = 0;
        EXPECT_TRUE(everything.m_busMaster.GetNumOfCameras(&count) == ERROR_OK);
    }

    ScriptedHal& m_hal;
    BusMaster& m_busMaster;
    const std::vector<ScriptedHal::DevicePointer> m_devices;
    unsigned int m_seed;
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint64_t> m_calls{0};
    std::vector<std::thread> m_threads;
};

TEST_F(Stress, EverythingAtOnceManyTimesOver) {
    GetDeadlines().rescan = milliseconds(20);
    std::uint64_t calls = 0;
    for (unsigned int run = 0; run < StressRuns; ++run) {
        hal.DetachAll();
        const std::vector<ScriptedHal::DevicePointer> devices = {
            hal.AddFireWireCamera(11), hal.AddFireWireCamera(12),         hal.AddUsbCamera(21),
            hal.AddUsbCamera(22),      hal.AddGigECamera(31, 0x0A000001), hal.AddFireWireDevice(1, 2)};
        Start();
        Everything everything(hal, *busMaster, devices, run * 100);
        everything.Run();
        const std::size_t listings = Listings();
        EXPECT_TRUE(Eventually([&] { return Listings() >= listings + 5; }));
        everything.Stop();
        calls += everything.Calls();
        // Resets may be pending and callbacks under way.
        Destroy();
        ExpectGone();
        EXPECT_EQ(0U, hal.RegistrationsOutstanding());
        EXPECT_EQ(0U, hal.EntriesOutstanding());
        hal.ExpectNoMisuse();
        hal.ClearCalls();
        traces.Clear();
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_LT(0U, calls);
}

}  // namespace
}  // namespace Nimbrel2::Testing
