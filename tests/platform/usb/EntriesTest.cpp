// SPDX-License-Identifier: Apache-2.0
// Entries of USB cameras: they name a device, and find it again after it was unplugged, or answer a status.
#include "tests/platform/usb/UsbFixture.h"

namespace Nimbrel2::Testing {
namespace {

using testing::SizeIs;

class UsbEntries : public UsbFixture {
public:
    UsbEntries() { bed.AddController(UsbTestbed::Pci, 1, 2); }

    static std::uint32_t AddressOf(Platform::UsbDevice& device) { return InfoOf(device).numbers[1]; }
    static std::uint32_t StatusOf(Platform::UsbDevice& device) {
        Platform::ConfigInfo info;
        return device.GetConfigInfo(&info);
    }
};

TEST_F(UsbEntries, FindTheirCameraOnTheSamePortAndOnAnother) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device camera = List().at(0);
    EXPECT_EQ(AddressOf(*camera), 2u << 8 | 2u);
    bed.Remove("2-1");
    ASSERT_TRUE(states.WaitForDevices(0));
    EXPECT_EQ(StatusOf(*camera), HAL_GONE);
    bed.Add(Camera("2-1", 3, "A"));
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_EQ(AddressOf(*camera), 2u << 8 | 3u);
    bed.Remove("2-1");
    bed.Add(Camera("1-6", 9, "A", false));
    ASSERT_TRUE(states.WaitFor([](const auto& state) {
        return state.devices.size() == 1 && state.devices[0].version == Platform::Usb::DeviceId(1, 9);
    }));
    EXPECT_EQ(AddressOf(*camera), 1u << 8 | 9u);
    std::uint32_t speed = 0;
    EXPECT_EQ(camera->GetSpeed(&speed), HAL_OK);
    EXPECT_EQ(speed, 480u) << "the kind of the bus goes with the link";
}

TEST_F(UsbEntries, OfACameraThatIsGoneTellItsTextAndItsLastSpeed) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device camera = List().at(0);
    bed.Remove("2-1");
    ASSERT_TRUE(states.WaitForDevices(0));
    std::string text;
    std::uint32_t value = 0;
    EXPECT_EQ(camera->GetSerialText(&text), HAL_OK);
    EXPECT_EQ(text, "A");
    EXPECT_EQ(camera->GetSpeed(&value), HAL_OK);
    EXPECT_EQ(value, 5000u);
    EXPECT_EQ(camera->GetLinkInfo(&value), HAL_GONE);
    EXPECT_EQ(camera->GetPortStatus(&value), HAL_GONE);
    EXPECT_EQ(camera->ReadRegister(0, &value), HAL_GONE);
    EXPECT_EQ(camera->WriteRegister(0, 1), HAL_GONE);
    EXPECT_EQ(camera->FireBusReset(), HAL_GONE);
    EXPECT_EQ(ReadTree(*camera).status, HAL_GONE);
}

TEST_F(UsbEntries, OfACameraWithoutASerialTextNameItsPort) {
    bed.Add(Camera("2-1", 2, ""));
    Start();
    const Device camera = List().at(0);
    bed.Remove("2-1");
    bed.Add(Camera("2-2", 3, ""));
    ASSERT_TRUE(states.WaitFor([](const auto& state) {
        return state.devices.size() == 1 && state.devices[0].version == Platform::Usb::DeviceId(2, 3);
    }));
    EXPECT_EQ(StatusOf(*camera), HAL_GONE) << "another camera of that kind, as far as anybody knows";
    bed.Add(Camera("2-1", 4, ""));
    ASSERT_TRUE(states.WaitForDevices(2));
    EXPECT_EQ(AddressOf(*camera), 2u << 8 | 4u);
}

TEST_F(UsbEntries, OfCamerasWithOneSerialTextNameTheirPorts) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device first = List().at(0);
    bed.Add(Camera("2-2", 3, "A"));
    ASSERT_TRUE(states.WaitForDevices(2));
    const auto both = List();
    ASSERT_THAT(both, SizeIs(2));
    EXPECT_EQ(AddressOf(*first), 2u << 8 | 2u);
    EXPECT_EQ(AddressOf(*both[0]), 2u << 8 | 2u);
    EXPECT_EQ(AddressOf(*both[1]), 2u << 8 | 3u);
    bed.Remove("2-1");
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_EQ(StatusOf(*first), HAL_GONE) << "never with the other one's data";
    EXPECT_EQ(StatusOf(*both[0]), HAL_GONE);
    EXPECT_EQ(AddressOf(*both[1]), 2u << 8 | 3u);
}

TEST_F(UsbEntries, FollowACameraThatFallsBackToUsb2BeforeTheKernelHasGivenUpItsSuperSpeedLink) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device camera = List().at(0);
    bed.Add(Camera("1-1", 3, "A", false));
    ASSERT_TRUE(states.WaitForDevices(2));
    EXPECT_EQ(AddressOf(*camera), 2u << 8 | 2u) << "it stays what it is as long as that is there";
    bed.Remove("2-1");
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_EQ(AddressOf(*camera), 1u << 8 | 3u);
    bed.Remove("1-1");
    ASSERT_TRUE(states.WaitForDevices(0));
    bed.Add(Camera("2-5", 4, "A"));
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_EQ(AddressOf(*camera), 2u << 8 | 4u) << "its text tells it as before";
}

TEST_F(UsbEntries, OfCamerasThatStayInBothHalvesOfAControllerWithOneSerialTextNameTheirPorts) {
    timings.fallBack = 0ms;
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device camera = List().at(0);
    bed.Add(Camera("1-1", 3, "A", false));
    ASSERT_TRUE(states.WaitForDevices(2));
    bed.Remove("2-1");
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_EQ(StatusOf(*camera), HAL_GONE) << "the other one is no falling back";
}

TEST_F(UsbEntries, OfTheSameSerialTextAndAnotherModelAreOtherCameras) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device camera = List().at(0);
    bed.Remove("2-1");
    MockedDevice other = Camera("2-1", 3, "A");
    other.descriptors = CameraDescriptors(true, 0x1209, 2);
    bed.Add(other);
    ASSERT_TRUE(states.WaitFor([](const auto& state) {
        return state.devices.size() == 1 && state.devices[0].version == Platform::Usb::DeviceId(2, 3);
    }));
    EXPECT_EQ(StatusOf(*camera), HAL_GONE);
}

TEST_F(UsbEntries, OfOneCameraMayBeMany) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device kept = List().at(0);
    const Device fresh = List().at(0);
    EXPECT_NE(kept, fresh);
    EXPECT_EQ(AddressOf(*kept), AddressOf(*fresh));
}

TEST_F(UsbEntries, OutliveTheDriver) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const Device camera = List().at(0);
    core->Stop();
    core.reset();
    EXPECT_EQ(StatusOf(*camera), HAL_CLOSED);
}

}  // namespace
}  // namespace Nimbrel2::Testing
