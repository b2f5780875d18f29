// SPDX-License-Identifier: Apache-2.0
// Link information, port status by way of the hub and without it, and resets of ports.
#include <filesystem>
#include <fstream>

#include "tests/platform/usb/SimulatedUsbfs.h"
#include "tests/platform/usb/UsbFixture.h"

namespace Nimbrel2::Testing {
namespace {

using testing::SizeIs;

class SimulatedHub final : public SimulatedUsbDevice {
public:
    std::map<std::uint16_t, std::uint32_t> ports;  ///< wPortStatus and wPortChange
    int answerBytes = 4;
    std::function<void()> onRequest;
    std::vector<Setup> requests;

    int Control(const Setup& setup, std::uint8_t* data) override {
        requests.push_back(setup);
        if (onRequest) {
            onRequest();
        }
        if (setup.requestType != 0xA3 || setup.request != 0 || ports.count(setup.index) == 0) {
            return -EPIPE;
        }
        for (int i = 0; i < 4; ++i) {
            data[i] = static_cast<std::uint8_t>(ports[setup.index] >> 8 * i & 0xFF);
        }
        return answerBytes;
    }
};

class UsbPorts : public UsbFixture {
public:
    UsbPorts() {
        bed.AddController(UsbTestbed::Pci, 1, 2);
        bed.Add(Hub("2-1", 2, true));
        bed.Add(Camera("2-1.3", 3, "A"));
        usbfs.Attach("/dev/bus/usb/002/002", hub);
        usbfs.Attach("/dev/bus/usb/002/003", camera);
        hub->ports = {{3, 0x00400203}};
        Start();
        entry = List().at(0);
    }
    ~UsbPorts() override {
        core->Stop();
        EXPECT_EQ(usbfs.CountClaims(), 0u);
        EXPECT_EQ(usbfs.CountFiles(), 0u);
        usbfs.DetachAll();
    }

    SimulatedUsbfs& usbfs = SimulatedUsbfs::Get();
    std::shared_ptr<SimulatedHub> hub = std::make_shared<SimulatedHub>();
    std::shared_ptr<SimulatedVisionCamera> camera = std::make_shared<SimulatedVisionCamera>();
    Device entry;
    std::uint32_t value = 0;
};

TEST_F(UsbPorts, AreAskedOfTheHubAbove) {
    EXPECT_EQ(entry->GetPortStatus(&value), HAL_OK);
    EXPECT_EQ(value, 0x00400203u);
    ASSERT_THAT(hub->requests, SizeIs(1));
    EXPECT_EQ(hub->requests[0].index, 3);
    EXPECT_EQ(hub->claims, 0) << "the hub is the kernel's";
}

TEST_F(UsbPorts, OfARootHubAreAskedOfIt) {
    const auto root = std::make_shared<SimulatedHub>();
    root->ports = {{5, 0x0203}};
    usbfs.Attach("/dev/bus/usb/002/001", root);
    bed.Add(Camera("2-5", 4, "B"));
    const Device other = List().at(1);
    EXPECT_EQ(other->GetPortStatus(&value), HAL_OK);
    EXPECT_EQ(value, 0x0203u);
}

TEST_F(UsbPorts, OfAHubThatMayNotBeOpenedAreWhatSysfsKnows) {
    std::filesystem::remove(bed.RealPath("/dev/bus/usb/002/002"));
    EXPECT_EQ(entry->GetPortStatus(&value), HAL_OK);
    EXPECT_EQ(value, 0x0203u);
    bed.SetAttribute("2-1.3", "power/runtime_status", "suspended");
    EXPECT_EQ(entry->GetPortStatus(&value), HAL_OK);
    EXPECT_EQ(value, 0x0263u);
}

TEST_F(UsbPorts, AnswerAStatusWhenTheHubDoesNotAnswerRight) {
    hub->answerBytes = 2;
    EXPECT_EQ(entry->GetPortStatus(&value), HAL_BAD_ANSWER);
    hub->ports.clear();
    EXPECT_EQ(entry->GetPortStatus(&value), HAL_REFUSED);
}

TEST_F(UsbPorts, OfACameraThatLeavesMeanwhileAreGone) {
    hub->onRequest = [&] {
        bed.SendUevent("2-1.3", "remove");
        bed.RemoveSilently("2-1.3");
    };
    EXPECT_EQ(entry->GetPortStatus(&value), HAL_GONE);
}

// ---- Resets --------------------------------------------------------------------------------------------------------

TEST_F(UsbPorts, AreResetAndTheDriverSaysSoItselfForNoUeventFollows) {
    const std::uint64_t resets = states.GetLast().resets;
    const auto devices = states.GetLast().devices;
    EXPECT_EQ(entry->FireBusReset(), HAL_OK);
    EXPECT_EQ(camera->resets, 1);
    EXPECT_EQ(states.GetLast().resets, resets + 1);
    EXPECT_EQ(states.GetLast().devices, devices);
}

TEST_F(UsbPorts, OfACameraThatAnotherProgramUsesAreNotReset) {
    const std::uint64_t resets = states.GetLast().resets;
    for (const unsigned int interface : {0u, 1u, 2u}) {
        camera->claimedByOthers = {interface};
        bed.SetLink("2-1.3", "2-1.3:1." + std::to_string(interface) + "/driver", "../../bus/usb/drivers/usbfs");
        EXPECT_EQ(entry->FireBusReset(), HAL_BUSY) << interface;
    }
    EXPECT_EQ(camera->resets, 0);
    EXPECT_EQ(states.GetLast().resets, resets);
}

TEST_F(UsbPorts, OfACameraThatADriverOfTheKernelUsesAreReset) {
    camera->claimedByOthers = {2};
    bed.SetLink("2-1.3", "2-1.3:1.2/driver", "../../bus/usb/drivers/snd-usb-audio");
    EXPECT_EQ(entry->FireBusReset(), HAL_OK);
    EXPECT_EQ(camera->resets, 1);
}

TEST_F(UsbPorts, CountAsResetWhenTheDeviceComesBackAsAnother) {
    class Changing final : public SimulatedVisionCamera {
        int Reset() override { return ENODEV; }
    };
    usbfs.Attach("/dev/bus/usb/002/003", std::make_shared<Changing>());
    const std::uint64_t resets = states.GetLast().resets;
    EXPECT_EQ(entry->FireBusReset(), HAL_OK);
    EXPECT_EQ(states.GetLast().resets, resets + 1);
}

TEST_F(UsbPorts, ThatCannotBeResetAnswerAStatus) {
    class Failing final : public SimulatedVisionCamera {
        int Reset() override { return EIO; }
    };
    usbfs.Attach("/dev/bus/usb/002/003", std::make_shared<Failing>());
    const std::uint64_t resets = states.GetLast().resets;
    EXPECT_EQ(entry->FireBusReset(), HAL_FAILED);
    EXPECT_EQ(states.GetLast().resets, resets);
}

}  // namespace
}  // namespace Nimbrel2::Testing
