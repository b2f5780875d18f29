// SPDX-License-Identifier: Apache-2.0
// What the USB driver lists, of recorded and of built trees. No device is opened.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>

#include "platform/base/UsbSerial.h"
#include "tests/platform/usb/UsbFixture.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::ConfigInfo;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class UsbListing : public UsbFixture {};

TEST_F(UsbListing, OfAComputerWithoutUsbIsEmpty) {
    Start();
    EXPECT_THAT(List(), IsEmpty());
    EXPECT_THAT(states.GetLast().devices, IsEmpty());
}

TEST_F(UsbListing, ShowsACameraBehindFiveHubsAndOneAtHighSpeed) {
    bed.AddRecording("superspeed-hub-chain.umockdev");
    Start();
    const auto cameras = List();
    ASSERT_THAT(cameras, SizeIs(2));
    // In the order of port paths: the halves of a controller one after the other.
    const ConfigInfo slow = InfoOf(*cameras[0]);
    const ConfigInfo fast = InfoOf(*cameras[1]);
    EXPECT_EQ(slow.numbers[3], 480u);
    EXPECT_EQ(fast.numbers[3], 5000u);
    EXPECT_EQ(fast.numbers[0], 0x12090001u);
    EXPECT_EQ(fast.numbers[1], 2u << 8 | 27u);
    EXPECT_EQ(fast.numbers[4], 0x0300u);
    EXPECT_EQ(fast.vendor, "Example Vision");
    std::string serial;
    ASSERT_EQ(cameras[1]->GetSerialText(&serial), HAL_OK);
    EXPECT_EQ(fast.numbers[2], Platform::UsbSerialNumber(0x1209, 1, serial));
    std::uint32_t speed = 0;
    EXPECT_EQ(cameras[1]->GetSpeed(&speed), HAL_OK);
    EXPECT_EQ(speed, 5000u);
}

TEST_F(UsbListing, ShowsTheOneCameraAmongOtherDevices) {
    bed.AddRecording("xhci-hubs-and-camera.umockdev");
    Start();
    EXPECT_THAT(ListNames(), ElementsAre("Model SS 1000001"));
    EXPECT_EQ(InfoOf(*List()[0]).numbers[2], 1000001u);
}

TEST_F(UsbListing, IsInTheOrderOfControllersAndPorts) {
    bed.AddController("/devices/pci0000:00/0000:00:1d.0", 3, 4);
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("4-1", 2, "E"));
    bed.Add(Hub("2-2", 2, true));
    bed.Add(Camera("2-2.10", 3, "D"));
    bed.Add(Camera("2-2.9", 4, "C"));
    bed.Add(Camera("2-1", 5, "B"));
    bed.Add(Camera("1-5", 2, "A", false));
    Start();
    EXPECT_THAT(ListNames(), ElementsAre("Model A", "Model B", "Model C", "Model D", "Model E"));
}

TEST_F(UsbListing, ShowsCamerasWithoutAClassOnceTheirIdsAreNamed) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    MockedDevice camera = Camera("1-1", 2, "77", false);
    camera.descriptors = VendorDescriptors(0xABCD, 0x0102);
    bed.Add(camera);
    Start();
    EXPECT_THAT(List(), IsEmpty());
    core->Stop();
    options.cameraIds = {{0xABCD, 0x0103}, {0xABCD, 0x0102}};
    Start();
    EXPECT_THAT(ListNames(), ElementsAre("Model 77"));
    EXPECT_EQ(InfoOf(*List()[0]).numbers[0], 0xABCD0102u);
}

TEST_F(UsbListing, LeavesOutWhatTheKernelDoesNotLetWork) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    MockedDevice camera = Camera("2-1", 2, "A");
    camera.attributes = {{"authorized", "0"}};
    bed.Add(camera);
    camera = Camera("2-2", 3, "B");
    camera.attributes = {{"bConfigurationValue", ""}};
    bed.Add(camera);
    camera = Camera("2-3", 4, "C");
    camera.attributes = {{"bConfigurationValue", "0"}};
    bed.Add(camera);
    bed.Add(Camera("2-4", 5, "D"));
    Start();
    EXPECT_THAT(ListNames(), ElementsAre("Model D"));
    EXPECT_THAT(states.GetLast().devices, SizeIs(1));

    // What the kernel says of it is that its interfaces have come.
    bed.SetAttribute("2-1", "authorized", "1");
    bed.SendUevent("2-1", "bind");
    EXPECT_TRUE(states.WaitForDevices(2));
    EXPECT_THAT(ListNames(), ElementsAre("Model A", "Model D"));
}

TEST_F(UsbListing, NamesVendorAndModelByTheirIdsWhenThereAreNoTexts) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    MockedDevice camera = Camera("2-1", 2, "");
    camera.manufacturer.clear();
    camera.product.clear();
    bed.Add(camera);
    Start();
    const auto cameras = List();
    ASSERT_THAT(cameras, SizeIs(1));
    EXPECT_EQ(InfoOf(*cameras[0]).vendor, "1209");
    EXPECT_EQ(InfoOf(*cameras[0]).model, "0001");
}

TEST_F(UsbListing, TellsCamerasWithoutSerialTextsApartByTheirPlaces) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, ""));
    bed.Add(Camera("2-2", 3, ""));
    bed.Add(Camera("2-3", 4, "00000000"));
    bed.Add(Camera("1-1", 2, "", false));  // another socket than 2-1
    Start();
    std::set<std::uint32_t> serials;
    for (const Device& camera : List()) {
        serials.insert(InfoOf(*camera).numbers[2]);
    }
    EXPECT_THAT(serials, SizeIs(4));
    EXPECT_EQ(serials.count(0), 0u);
    EXPECT_THAT(states.GetLast().devices, SizeIs(4));
}

TEST_F(UsbListing, SkipsADeviceThatMakesNoSenseWithAWordThatNamesIt) {
    std::mutex mutex;
    std::vector<std::string> traces;
    options.trace = [&](const std::string& text) {
        const std::lock_guard lock(mutex);
        traces.push_back(text);
    };
    bed.AddController(UsbTestbed::Pci, 1, 2);
    MockedDevice camera = Camera("2-1", 2, "A");
    camera.descriptors.resize(17);
    bed.Add(camera);
    camera = Camera("2-2", 3, "B");
    camera.attributes = {{"devnum", "999"}};
    bed.Add(camera);
    bed.Add(Camera("2-3", 4, "C"));
    bed.Add(Camera("2-5", 6, "E"));
    bed.RemoveAttribute("2-5", "devnum");
    std::filesystem::create_directory(bed.RealPath(bed.PathOf("2-5")) + "/devnum");  // reading it fails
    Start();
    EXPECT_THAT(ListNames(), ElementsAre("Model C"));
    bed.Add(Camera("2-4", 5, "D"));  // another look changes nothing
    EXPECT_TRUE(states.WaitForDevices(2));
    const std::lock_guard lock(mutex);
    EXPECT_THAT(traces,
                testing::UnorderedElementsAre("USB device 2-1 is left out: its descriptors or its path make no sense",
                                              "USB device 2-2 is left out: its device number makes no sense",
                                              "USB device 2-5 is left out: it cannot be read: Is a directory"));
}

TEST_F(UsbListing, OfDescriptorsCutAtAnyByteLosesNoOtherCamera) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "A"));
    const auto whole = CameraDescriptors(true);
    for (unsigned int i = 0; i < 6; ++i) {
        MockedDevice camera = Camera("2-" + std::to_string(2 + i), 3 + i, "cut");
        camera.descriptors.resize(std::max<std::size_t>(whole.size() * i / 6, 1));
        bed.Add(camera);
    }
    Start();
    const auto names = ListNames();
    EXPECT_EQ(names.front(), "Model A");
    EXPECT_THAT(names, testing::Each(testing::AnyOf("Model A", "Model cut")));
}

TEST_F(UsbListing, IsMadeWithoutAskingAnyDevice) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "A"));
    // Whoever opened its node would find none.
    std::filesystem::remove_all(bed.RealPath("/dev/bus"));
    Start();
    EXPECT_THAT(ListNames(), ElementsAre("Model A"));
    std::uint32_t link = 0;
    EXPECT_EQ(List()[0]->GetLinkInfo(&link), HAL_OK);
    EXPECT_EQ(link, 500u << 16 | 1u << 8);
}

TEST_F(UsbListing, DoesNotWaitForADeviceThatCanBeNoCameraAndThatTheKernelIsStuckWith) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Hub("2-2", 2, true));
    // The kernel answers these once it is done with the device.
    std::vector<std::string> stuck;
    for (const char* attribute : {"bConfigurationValue", "manufacturer", "product"}) {
        bed.RemoveAttribute("2-2", attribute);
        stuck.push_back(bed.RealPath(bed.PathOf("2-2")) + "/" + attribute);
        ASSERT_EQ(::mkfifo(stuck.back().c_str(), 0600), 0);
    }
    bed.Add(Camera("2-1", 3, "A"));
    auto names = std::async(std::launch::async, [&] {
        Start();
        return ListNames();
    });
    const bool isListed = names.wait_for(20s) == std::future_status::ready;
    for (const std::string& path : stuck) {
        // Past the library that redirects the calls, which holds its lock while somebody waits in one of them.
        const Platform::FileDescriptor reader(
            static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)));
        std::filesystem::remove(path);  // whoever reads it goes on
    }
    EXPECT_TRUE(isListed);
    EXPECT_THAT(names.get(), ElementsAre("Model A"));
}

TEST_F(UsbListing, GoesOnWhileDevicesVanishUnderItsHands) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    for (int i = 0; i < 30; ++i) {
        const unsigned int number = 3 + static_cast<unsigned int>(i);
        bed.Add(Camera("2-2", number, "B"));
        bed.SendUevent("2-2", "remove");
        // Half of what it reads is gone, then all.
        if (i % 3 == 0) {
            bed.RemoveAttribute("2-2", "descriptors");
        }
        if (i % 3 == 1) {
            bed.RemoveAttribute("2-2", "devnum");
        }
        EXPECT_THAT(ListNames(), testing::Contains("Model A"));
        bed.RemoveSilently("2-2");
    }
    EXPECT_TRUE(states.WaitForDevices(1));
    EXPECT_THAT(ListNames(), ElementsAre("Model A"));
}

TEST_F(UsbListing, IsClosedAfterTheEnd) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const auto cameras = List();
    core->Stop();
    std::vector<Platform::Usb::DevicePointer> listed;
    EXPECT_EQ(core->ListCameras(&listed, &listedState), HAL_CLOSED);
    ConfigInfo info;
    std::string text;
    std::uint32_t value = 0;
    std::uint64_t key = 0;
    std::vector<UsbSelfId> records;
    EXPECT_EQ(cameras[0]->GetConfigInfo(&info), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetSerialText(&text), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetSpeed(&value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetLinkInfo(&value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetPortStatus(&value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->GetTree(&records, &value, &key, &value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->ReadRegister(0, &value), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->WriteRegister(0, 1), HAL_CLOSED);
    EXPECT_EQ(cameras[0]->FireBusReset(), HAL_CLOSED);
}

}  // namespace
}  // namespace Nimbrel2::Testing
