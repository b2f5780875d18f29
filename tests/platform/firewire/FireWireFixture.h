// SPDX-License-Identifier: Apache-2.0
// The driver on emulated buses: what it reports, and shorthands. Tests run on their own thread; the sink is called on
// the driver's.
#ifndef NIMBREL2_TESTS_PLATFORM_FIREWIRE_FIREWIREFIXTURE_H
#define NIMBREL2_TESTS_PLATFORM_FIREWIRE_FIREWIREFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Drivers.h"
#include "platform/linux/firewire/LinuxFireWireBus.h"
#include "tests/support/EmulatedFireWire.h"
#include "tests/support/FireWireBuses.h"

namespace Nimbrel2::Platform::FireWire {

/// Longer than anything takes on a busy machine.
constexpr std::chrono::seconds TestDeadline{20};

constexpr char FirstCard[] = "0000:06:01.0";
constexpr char SecondCard[] = "0000:07:01.0";
constexpr std::uint64_t IsoEnableRegister = 0xFFFFF0F00614;
constexpr std::uint64_t SerialNumberRegister = 0xFFFFF0000410;

/// What the driver has reported.
class RecordingSink final : public BusEventSink {
public:
    /// Reports must take no memory.
    RecordingSink() { m_states.reserve(4096); }

    void Report(BusState state) noexcept override { Keep(std::move(state), false); }
    void ReportSettled(BusState state) noexcept override { Keep(std::move(state), true); }
    void RaiseError() noexcept override { ADD_FAILURE() << "a bus error"; }

    BusState GetLast() const {
        const std::lock_guard lock(m_mutex);
        return m_states.empty() ? BusState{} : m_states.back();
    }
    /// Whether the last different one came as the end of a burst.
    bool IsLastSettled() const {
        const std::lock_guard lock(m_mutex);
        return m_isLastSettled;
    }
    /// Different ones in a row.
    std::size_t Count() const {
        const std::lock_guard lock(m_mutex);
        return m_states.size();
    }
    bool WaitUntil(const std::function<bool(const BusState&)>& condition) const {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, TestDeadline, [&] { return !m_states.empty() && condition(m_states.back()); });
    }
    bool WaitForDevices(std::size_t number) const {
        return WaitUntil([number](const BusState& state) { return state.devices.size() == number; });
    }
    bool WaitForResets(std::uint64_t number) const {
        return WaitUntil([number](const BusState& state) { return state.resets >= number; });
    }

private:
    void Keep(BusState state, bool settled) {
        const std::lock_guard lock(m_mutex);
        if (!m_states.empty() && m_states.back() == state) {
            return;
        }
        m_states.push_back(std::move(state));
        m_isLastSettled = settled;
        m_changed.notify_all();
    }

    bool m_isLastSettled = false;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<BusState> m_states;
};

using Devices = std::vector<std::shared_ptr<FireWireDevice>>;

class FireWireDriver : public ::testing::Test {
protected:
    FireWireDriver() = default;
    ~FireWireDriver() override { Stop(); }

    void AddStandardBus();
    void Start();
    void Stop();

    Devices ListCameras(BusState* state = nullptr);
    Devices ListDevices(BusState* state = nullptr);
    /// The camera with that serial number, null for none.
    std::shared_ptr<FireWireDevice> FindCamera(std::uint32_t serialNumber);

    static std::string Describe(FireWireDevice& device);
    std::vector<std::string> DescribeAll(const Devices& devices);
    static std::uint32_t SerialNumberOf(FireWireDevice& device);

    Testing::EmulatedFireWire m_computer;
    RecordingSink m_sink;
    std::unique_ptr<FireWireBus> m_bus;
};

/// On a started standard bus.
class FireWireDriverOfTwoCameras : public FireWireDriver {
protected:
    void SetUp() override {
        AddStandardBus();
        Start();
        m_left = FindCamera(0x00031001);
        m_right = FindCamera(0x00031002);
        ASSERT_TRUE(m_left && m_right);
    }

    std::shared_ptr<FireWireDevice> m_left;
    std::shared_ptr<FireWireDevice> m_right;
};

/// Waits for what nobody tells. @return false when it did not come about.
bool WaitUntil(const std::function<bool()>& condition);

}  // namespace Nimbrel2::Platform::FireWire

#endif
