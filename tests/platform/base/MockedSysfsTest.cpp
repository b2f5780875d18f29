// SPDX-License-Identifier: Apache-2.0
// A mocked /sys and its uevents, as tests of drivers use them, read like the real ones. This program is linked with the
// library that redirects the calls of the C library, so it needs no environment of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <umockdev.h>

#include <cerrno>
#include <string>

#include "platform/base/Sysfs.h"
#include "platform/base/Uevents.h"

namespace Nimbrel2::Platform {
namespace {

using Receipt = UeventSocket::Receipt;

constexpr char TestDevice[] =
    "P: /devices/pci0000:00/0000:00:14.0/usb2/2-1\n"
    "E: DEVTYPE=usb_device\n"
    "E: SUBSYSTEM=usb\n"
    "A: speed=5000\\n\n"
    "H: descriptors=1201\n";

TEST(MockedSysfs, IsReadLikeTheRealOne) {
    UMockdevTestbed* const testbed = umockdev_testbed_new();
    ASSERT_TRUE(umockdev_testbed_add_from_string(testbed, TestDevice, nullptr));

    SysfsDirectory devices;
    ASSERT_EQ(devices.Open("bus/usb/devices"), 0);
    std::vector<std::string> names;
    EXPECT_EQ(devices.List(&names), 0);
    EXPECT_THAT(names, testing::ElementsAre("2-1"));
    EXPECT_EQ(devices.ReadLinkPath("2-1"), "/devices/pci0000:00/0000:00:14.0/usb2/2-1");
    SysfsDirectory device;
    ASSERT_EQ(device.Open(devices, "2-1"), 0);
    EXPECT_EQ(device.ReadNumber("speed"), 5000u);
    std::vector<std::uint8_t> bytes;
    EXPECT_EQ(device.ReadBytes("descriptors", &bytes), 0);
    EXPECT_THAT(bytes, testing::ElementsAre(0x12, 0x01));
    EXPECT_EQ(device.ReadLinkName("subsystem"), "usb");
    EXPECT_NE(device.GetInode(), 0u);

    umockdev_testbed_remove_device(testbed, "/sys/devices/pci0000:00/0000:00:14.0/usb2/2-1");
    std::string text;
    EXPECT_EQ(device.ReadText("speed", &text), ENOENT);
    g_object_unref(testbed);
}

TEST(MockedUevents, AreHeardLikeTheRealOnes) {
    UMockdevTestbed* const testbed = umockdev_testbed_new();
    UeventSocket socket;
    ASSERT_EQ(socket.Open(), 0);
    ASSERT_TRUE(umockdev_testbed_add_from_string(testbed, TestDevice, nullptr));
    Uevent event;
    ASSERT_EQ(socket.Receive(&event), Receipt::Event);
    EXPECT_EQ(event.action, "add");
    EXPECT_EQ(event.devicePath, "/devices/pci0000:00/0000:00:14.0/usb2/2-1");
    EXPECT_EQ(event.subsystem, "usb");
    EXPECT_EQ(event.Find("DEVTYPE"), "usb_device");
    umockdev_testbed_uevent(testbed, "/sys/devices/pci0000:00/0000:00:14.0/usb2/2-1", "remove");
    ASSERT_EQ(socket.Receive(&event), Receipt::Event);
    EXPECT_EQ(event.action, "remove");
    EXPECT_EQ(socket.Receive(&event), Receipt::Nothing);
    g_object_unref(testbed);
}

}  // namespace
}  // namespace Nimbrel2::Platform
