// SPDX-License-Identifier: Apache-2.0
// A rig that runs out of memory in the middle of a change: whoever listens hears that something happened. A binary of
// its own, because it replaces operator new.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/hal/BusNews.h"
#include "platform/rig/Rig.h"
#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2::Platform {
namespace {

using Nimbrel2::Testing::AllocationFailure;

// Counts what a registration hears, without memory of its own.
class Counter final : public BusEventSink {
public:
    void Report(BusState state) noexcept override {
        m_news.Report(std::move(state), [this](HALBusEvent event, std::uint32_t, std::uint32_t) { ++m_heard[event]; });
    }
    void ReportUnknown() noexcept override {
        m_news.ReportUnknown([this](HALBusEvent event, std::uint32_t, std::uint32_t) { ++m_heard[event]; });
    }
    void RaiseError() noexcept override {}

    int TakeResets() { return std::exchange(m_heard[HAL_BUS_RESET], 0); }
    /// Arrivals less removals.
    int Balance() const { return m_heard[HAL_BUS_ARRIVAL] - m_heard[HAL_BUS_REMOVAL]; }

private:
    BusNews m_news;
    int m_heard[4] = {};
};

constexpr const char* OneCameraEach = R"({
  "firewire": [{"name": "fw0",
    "phys": [{"name": "card", "kind": "card", "eui64": "0x0800460102030405"},
             {"name": "eye", "eui64": "0x0011880000000007"}],
    "cables": [[["card", 0], ["eye", 0]]]}],
  "usb": [{"name": "host", "devices": [{"name": "u", "parent": "host", "port": 1, "serial": "42"}]}],
  "gige": [{"name": "eth0", "address": "192.168.7.1/24",
    "cameras": [{"name": "g", "mac": "02:00:00:00:00:01", "address": "192.168.7.2/24", "serial": "7"}]}]})";

class RigAllocationFailure : public testing::Test {
protected:
    RigAllocationFailure()
        : m_rig(std::make_shared<Rig>(ParseRig(OneCameraEach, "rig").rig)),
          m_fireWire(MakeRigFireWireBus(m_rig, m_fireWireEvents)),
          m_usb(MakeRigUsbBus(m_rig, m_usbEvents)),
          m_gigE(MakeRigGigEBus(m_rig, m_gigEEvents)) {}
    ~RigAllocationFailure() override {
        m_fireWire->Stop();
        m_usb->Stop();
        m_gigE->Stop();
    }

    template <class Bus, class Device>
    static std::size_t CountCameras(Bus& bus) {
        Listing<Device> cameras;
        EXPECT_EQ(bus.ListCameras(&cameras), HAL_OK);
        return cameras.devices.size();
    }

    Counter m_fireWireEvents;
    Counter m_usbEvents;
    Counter m_gigEEvents;
    const std::shared_ptr<Rig> m_rig;
    const std::unique_ptr<FireWireBus> m_fireWire;
    const std::unique_ptr<UsbBus> m_usb;
    const std::unique_ptr<GigEBus> m_gigE;
};

TEST_F(RigAllocationFailure, InAChangeHidesNothing) {
    ASSERT_EQ(m_gigE->Start(), HAL_OK);
    std::uint64_t failing = 0;
    for (bool failed = true; failed;) {
        ASSERT_FALSE(m_rig->Unplug("g"));
        ASSERT_EQ(m_gigEEvents.Balance(), 0);
        m_gigEEvents.TakeResets();
        {
            const AllocationFailure failure(++failing);
            EXPECT_FALSE(m_rig->Plug("g"));
            failed = failure.Happened();
        }
        EXPECT_GE(m_gigEEvents.TakeResets(), 1) << "allocation " << failing;
        EXPECT_EQ((CountCameras<GigEBus, GigEDevice>(*m_gigE)), 1u);
        EXPECT_EQ(m_gigEEvents.Balance(), 1) << "the listing reports what could not be told";
        ASSERT_LT(failing, 100u);
    }
    EXPECT_GT(failing, 1u);
}

TEST_F(RigAllocationFailure, InAStartIsMadeUpForByTheFirstListing) {
    for (std::uint64_t nth = 1; nth < 10; ++nth) {
        const AllocationFailure failure(nth);
        EXPECT_EQ(m_fireWire->Start(), HAL_OK);
        EXPECT_EQ(m_usb->Start(), HAL_OK);
        EXPECT_EQ(m_gigE->Start(), HAL_OK);
    }
    EXPECT_EQ((CountCameras<UsbBus, UsbDevice>(*m_usb)), 1u);
    EXPECT_EQ(m_usbEvents.Balance(), 1);
}

}  // namespace
}  // namespace Nimbrel2::Platform
