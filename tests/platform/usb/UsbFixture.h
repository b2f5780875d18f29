// SPDX-License-Identifier: Apache-2.0
// What the USB driver's tests share: mocked devices, the driver that ships on top of them, and what it has reported.
#ifndef NIMBREL2_TESTS_PLATFORM_USB_USBFIXTURE_H
#define NIMBREL2_TESTS_PLATFORM_USB_USBFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/usb/LinuxUsbBus.h"
#include "platform/linux/usb/LinuxUsbDevice.h"
#include "platform/linux/usb/UsbCore.h"
#include "tests/platform/usb/ReportedStates.h"
#include "tests/platform/usb/UsbTestbed.h"

namespace Nimbrel2::Testing {

using namespace std::chrono_literals;

/// A driver that the test starts when its devices are in place.
class UsbFixture : public testing::Test {
public:
    using Device = std::shared_ptr<Platform::UsbDevice>;

    ~UsbFixture() override {
        if (core) {
            core->Stop();
        }
    }

    void Start() {
        core = std::make_shared<Platform::Usb::UsbCore>(options, timings, states);
        ASSERT_EQ(core->Start(), HAL_OK);
    }

    /// The listing of the driver, as the HAL gets it.
    std::vector<Device> List() {
        std::vector<Platform::Usb::DevicePointer> listed;
        listedState = {};
        EXPECT_EQ(core->ListCameras(&listed, &listedState), HAL_OK);
        std::vector<Device> devices;
        for (const auto& record : listed) {
            devices.push_back(std::make_shared<Platform::Usb::LinuxUsbDevice>(core, *record));
        }
        return devices;
    }
    /// Their models and serial texts, "Model A".
    std::vector<std::string> ListNames() {
        std::vector<std::string> names;
        for (const Device& device : List()) {
            names.push_back(NameOf(*device));
        }
        return names;
    }
    static std::string NameOf(Platform::UsbDevice& device) {
        Platform::ConfigInfo info;
        std::string serial;
        EXPECT_EQ(device.GetConfigInfo(&info), HAL_OK);
        EXPECT_EQ(device.GetSerialText(&serial), HAL_OK);
        return info.model + " " + serial;
    }
    static Platform::ConfigInfo InfoOf(Platform::UsbDevice& device) {
        Platform::ConfigInfo info;
        EXPECT_EQ(device.GetConfigInfo(&info), HAL_OK);
        return info;
    }

    struct TreeReading {
        std::uint32_t status = 0;
        std::vector<UsbSelfId> records;
        std::uint32_t deviceId = 0;
        std::uint64_t hostKey = 0;
        std::uint32_t generation = 0;
    };
    static TreeReading ReadTree(Platform::UsbDevice& device) {
        TreeReading reading;
        reading.status = device.GetTree(&reading.records, &reading.deviceId, &reading.hostKey, &reading.generation);
        return reading;
    }

    UsbTestbed bed;
    Platform::LinuxUsbOptions options;
    Platform::Usb::Timings timings;
    ReportedStates states;
    std::shared_ptr<Platform::Usb::UsbCore> core;
    Platform::BusState listedState;  ///< of the last listing
};

}  // namespace Nimbrel2::Testing

#endif
