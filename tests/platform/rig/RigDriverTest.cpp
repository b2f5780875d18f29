// SPDX-License-Identifier: Apache-2.0
// The drivers over a rig: what its devices answer, there and gone, and the events that a change raises.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/hal/BusNews.h"
#include "platform/rig/Rig.h"
#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"

namespace Nimbrel2::Platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What becomes of a rig's reports: the events that a registration hears, with the device words if there are any.
class Recorder final : public BusEventSink {
public:
    void Report(BusState state) noexcept override {
        ++m_numUnsettled;
        Keep(std::move(state));
    }
    void ReportSettled(BusState state) noexcept override {
        ++m_numSettled;
        Keep(std::move(state));
    }
    void RaiseError() noexcept override { m_events.push_back("error"); }
    std::vector<std::string> Take() { return std::exchange(m_events, {}); }
    int GetNumUnsettled() const { return m_numUnsettled; }
    int GetNumSettled() const { return m_numSettled; }

private:
    void Keep(BusState state) {
        m_news.Report(std::move(state), [this](HALBusEvent event, std::uint32_t first, std::uint32_t second) {
            static const char* const names[] = {"reset", "arrival", "removal"};
            m_events.push_back(names[event] + (first != 0 || second != 0
                                                   ? " " + std::to_string(first) + " " + std::to_string(second)
                                                   : std::string()));
        });
    }

    BusNews m_news;
    std::vector<std::string> m_events;
    int m_numUnsettled = 0;
    int m_numSettled = 0;
};

class RigDrivers : public testing::Test {
protected:
    RigDrivers() {
        EXPECT_EQ(m_fireWire->Start(), HAL_OK);
        EXPECT_EQ(m_usb->Start(), HAL_OK);
        m_fireWireEvents.Take();
        m_usbEvents.Take();
    }

    std::shared_ptr<FireWireDevice> FireWireCamera() {
        Listing<FireWireDevice> cameras;
        EXPECT_EQ(m_fireWire->ListCameras(&cameras), HAL_OK);
        return cameras.devices.at(0);
    }
    std::shared_ptr<UsbDevice> UsbCamera() {
        Listing<UsbDevice> cameras;
        EXPECT_EQ(m_usb->ListCameras(&cameras), HAL_OK);
        return cameras.devices.at(0);
    }

    const std::shared_ptr<Rig> m_rig = std::make_shared<Rig>(ParseRig(R"({
      "firewire": [{"name": "fw0",
        "phys": [{"name": "card", "kind": "card", "ports": 3, "eui64": "0x0800460102030405", "contender": true},
                 {"name": "eye", "eui64": "0x0011880000000007", "vendor": "Acme", "model": "Eye"},
                 {"name": "disk", "kind": "device", "eui64": "0x0000000300000004"}],
        "cables": [[["card", 0], ["eye", 0]], [["card", 1], ["disk", 0]]]}],
      "usb": [{"name": "x", "devices": [
        {"name": "hub", "kind": "hub", "parent": "x", "port": 2, "speed": 480},
        {"name": "u", "parent": "hub", "port": 3, "vendorId": "1234", "productId": "5678", "serial": "42"},
        {"name": "stick", "kind": "device", "parent": "x", "port": 1}]}]})",
                                                                      "rig")
                                                                 .rig);
    std::vector<std::string> TakeEvents() {
        std::vector<std::string> events = m_fireWireEvents.Take();
        for (std::string& event : m_usbEvents.Take()) {
            events.push_back(std::move(event));
        }
        return events;
    }

    Recorder m_fireWireEvents;
    Recorder m_usbEvents;
    const std::unique_ptr<FireWireBus> m_fireWire = MakeRigFireWireBus(m_rig, m_fireWireEvents);
    const std::unique_ptr<UsbBus> m_usb = MakeRigUsbBus(m_rig, m_usbEvents);
};

TEST_F(RigDrivers, SayInVirtualTimeThatEachBurstIsOverSoThatNobodyWaitsForItsEnd) {
    const int before = m_usbEvents.GetNumUnsettled();
    m_rig->SetFast(true);
    for (int i = 0; i < 10; ++i) {
        m_rig->Unplug("hub");
        m_rig->Plug("hub");
    }
    EXPECT_EQ(m_usbEvents.GetNumUnsettled(), before);
    EXPECT_EQ(m_usbEvents.GetNumSettled(), 20);
    m_rig->SetFast(false);
    m_rig->Unplug("hub");
    EXPECT_EQ(m_usbEvents.GetNumUnsettled(), before + 1);
}

TEST_F(RigDrivers, RaiseAResetAndWhatCameOrWentAndNameOnlyFireWireDevices) {
    m_rig->Unplug("disk");
    EXPECT_THAT(TakeEvents(), ElementsAre("reset", "removal 3 4"));
    m_rig->Plug("disk");
    EXPECT_THAT(TakeEvents(), ElementsAre("reset", "arrival 3 4"));
    m_rig->Unplug("eye");
    EXPECT_THAT(TakeEvents(), ElementsAre("reset", "removal"));
    m_rig->Unplug("hub");
    EXPECT_THAT(TakeEvents(), ElementsAre("reset", "removal"));
    m_rig->Plug("hub");
    EXPECT_THAT(TakeEvents(), ElementsAre("reset", "arrival"));
    m_rig->Unplug("stick");
    EXPECT_THAT(TakeEvents(), ElementsAre("reset")) << "no camera";
    m_rig->ResetBus("fw0", 2);
    EXPECT_THAT(TakeEvents(), ElementsAre("reset", "reset"));
    m_rig->FailBus("x");
    EXPECT_THAT(TakeEvents(), ElementsAre("error"));
    EXPECT_NE(m_rig->Unplug("eye"), std::nullopt);
    EXPECT_THAT(TakeEvents(), IsEmpty()) << "nothing happened";
    m_usb->Stop();
    m_rig->Unplug("hub");
    EXPECT_THAT(TakeEvents(), IsEmpty()) << "nobody listens any more";
}

TEST_F(RigDrivers, AnswerForAFireWireCamera) {
    const auto camera = FireWireCamera();
    ConfigInfo info;
    ASSERT_EQ(camera->GetConfigInfo(&info), HAL_OK);
    EXPECT_THAT(info.numbers, ElementsAre(0x00118800U, 0xFFC0U, 7U, 0U, 0x102U));
    EXPECT_EQ(info.vendor, "Acme");
    std::vector<std::uint32_t> serialNumbers;
    ASSERT_EQ(camera->GetNodeSerialNumbers(&serialNumbers), HAL_OK);
    EXPECT_THAT(serialNumbers, ElementsAre(7U, 4U, 0x02030405U)) << "by phy id";
    std::vector<SelfIdPacket_t> packets;
    std::uint64_t busKey = 0;
    std::uint32_t before = 0, after = 0;
    ASSERT_EQ(camera->GetSelfIds(&packets, &busKey, &before), HAL_OK);
    EXPECT_EQ(packets.size(), 3U);
    ASSERT_EQ(camera->FireBusReset(), HAL_OK);
    ASSERT_EQ(camera->GetSelfIds(&packets, &busKey, &after), HAL_OK);
    EXPECT_EQ(after, before + 1);
    EXPECT_EQ(packets.front().bytes[3] & 2, 2) << "it started the reset";
    EXPECT_EQ(camera->WritePhy(0, 0, 5, 0x40), HAL_OK);
    EXPECT_THAT(TakeEvents(), ElementsAre("reset", "reset"));

    m_rig->Unplug("eye");
    ASSERT_EQ(camera->GetConfigInfo(&info), HAL_OK) << "a listing that holds it is not worthless";
    EXPECT_THAT(info.numbers, ElementsAre(0x00118800U, 0xFFFFU, 7U, 0xFFFFU, 0x102U));
    EXPECT_EQ(camera->FireBusReset(), HAL_GONE);
    EXPECT_EQ(camera->ReadQuadlet(0xFFFFF0000400, &before), HAL_GONE);
    m_fireWire->Stop();
    EXPECT_EQ(camera->FireBusReset(), HAL_CLOSED);
}

TEST_F(RigDrivers, AnswerForAUsbCamera) {
    const auto camera = UsbCamera();
    ConfigInfo info;
    ASSERT_EQ(camera->GetConfigInfo(&info), HAL_OK);
    EXPECT_EQ(info.numbers[0], 0x12345678U);
    EXPECT_EQ(info.numbers[2], 42U);
    EXPECT_EQ(info.numbers[3], 480U);
    EXPECT_EQ(info.numbers[4], 0x0200U);
    std::uint32_t value = 0;
    ASSERT_EQ(camera->GetLinkInfo(&value), HAL_OK);
    EXPECT_EQ(value, 48U << 16 | 3U << 8 | 1U);
    ASSERT_EQ(camera->GetPortStatus(&value), HAL_OK);
    EXPECT_EQ(value, 0x0503U);
    std::vector<UsbSelfId> records;
    std::uint32_t id = 0, before = 0, after = 0;
    std::uint64_t host = 0;
    ASSERT_EQ(camera->GetTree(&records, &id, &host, &before), HAL_OK);
    EXPECT_EQ(info.numbers[1], host << 8 | id) << "bus and address";
    ASSERT_EQ(camera->FireBusReset(), HAL_OK);
    EXPECT_THAT(TakeEvents(), ElementsAre("reset"));
    ASSERT_EQ(camera->GetTree(&records, &id, &host, &after), HAL_OK);
    EXPECT_NE(after, before);

    ASSERT_EQ(m_rig->Move("u", 0, {"x", 3}), std::nullopt);
    ASSERT_EQ(camera->GetSpeed(&value), HAL_OK);
    EXPECT_EQ(value, 5000U) << "it is live";
    m_rig->Unplug("u");
    EXPECT_EQ(camera->GetSpeed(&value), HAL_OK);
    EXPECT_EQ(value, 5000U) << "the last one known";
    EXPECT_EQ(camera->GetPortStatus(&value), HAL_GONE);
    EXPECT_EQ(camera->FireBusReset(), HAL_GONE);
    EXPECT_EQ(camera->ReadRegister(0, &value), HAL_NOT_SUPPORTED);
}

}  // namespace
}  // namespace Nimbrel2::Platform
