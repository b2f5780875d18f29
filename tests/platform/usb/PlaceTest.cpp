// SPDX-License-Identifier: Apache-2.0
// Names, route strings and keys of USB devices.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/usb/Place.h"

namespace Nimbrel2::Platform::Usb {
namespace {

using Ports = std::vector<std::uint8_t>;

TEST(UsbDeviceName, SaysTheBusAndThePorts) {
    EXPECT_EQ(ParseDeviceName("usb2"), (DeviceName{2, {}}));
    EXPECT_EQ(ParseDeviceName("1-4"), (DeviceName{1, {4}}));
    EXPECT_EQ(ParseDeviceName("12-1.2.3.4.5.6"), (DeviceName{12, {1, 2, 3, 4, 5, 6}}));
    EXPECT_EQ(ParseDeviceName("3-15.31"), (DeviceName{3, {15, 31}}));
}

TEST(UsbDeviceName, IsNoOther) {
    for (const char* name : {"", "usb", "usb0", "usb2x", "2", "2-", "2-0", "2-1.", "2-.1", "2-1:1.0", "2-0:1.0", "x-1",
                             "-1", "2-256", "2-1.2.3.4.5.6.7.8", "2-1-1", "99999999999-1", "usb99999999999", "2.1"}) {
        EXPECT_EQ(ParseDeviceName(name), std::nullopt) << name;
    }
}

TEST(UsbRouteString, IsTheKernels) {
    const struct {
        Ports ports;
        std::uint64_t route;
        std::uint32_t hubs;
    } rows[] = {
        {{}, 0, 0},
        {{2}, 0, 0},
        {{1, 2}, 0x2, 1},
        {{1, 4, 3}, 0x34, 2},
        {{1, 3, 5, 7}, 0x753, 3},
        {{2, 4, 6, 8}, 0x864, 3},
        {{1, 2, 3, 4, 5, 6}, 0x65432, 5},
        {{20, 16, 31}, 0xFF, 2},  // ports above 15 are written as 15
    };
    for (const auto& row : rows) {
        EXPECT_EQ(RouteString(row.ports), row.route) << PortPath(row.ports);
        EXPECT_EQ(CountHubsAbove(row.ports), row.hubs) << PortPath(row.ports);
    }
    EXPECT_EQ(PortPath({1, 4, 15}), "1.4.15");
    EXPECT_EQ(PortPath({}), "");
}

TEST(UsbControllerKey, OfPciHoldsItsAddressAndOfOthersAHash) {
    EXPECT_EQ(ControllerKey("/devices/pci0000:00/0000:00:14.0"), 0x00A0u);
    EXPECT_EQ(ControllerKey("/devices/pci0000:00/0000:00:1c.0/0000:39:00.7"), 0x3907u);
    EXPECT_EQ(ControllerKey("/devices/pci10000:e0/10000:e1:00.0"), 0x10000E100u);
    const std::uint64_t platform = ControllerKey("/devices/platform/vhci_hcd.0");
    EXPECT_NE(platform >> 63, 0u);
    EXPECT_EQ(ControllerKey("/devices/platform/vhci_hcd.0"), platform);
    EXPECT_NE(ControllerKey("/devices/platform/vhci_hcd.1"), platform);
    for (const char* name : {"", "/", "0000:00:14", "0000:00:14.8", "0000:00:20.0", "000:00:14.0", "0000:00:14.0x",
                             "0000:0:14.0", "fe980000.usb", "0000:00:14.", "g000:00:14.0"}) {
        EXPECT_NE(ControllerKey(std::string("/devices/") + name) >> 63, 0u) << name;
    }
}

TEST(UsbDeviceId, IsUniqueOnAControllerAndNeverTheHosts) {
    EXPECT_EQ(DeviceId(1, 1), 129u);
    EXPECT_EQ(DeviceId(2, 27), 283u);
    EXPECT_NE(DeviceId(1, 127), DeviceId(2, 1));
    EXPECT_NE(RootPortId(1, 4), RootPortId(2, 4)) << "the halves have ports of their own";
}

}  // namespace
}  // namespace Nimbrel2::Platform::Usb
