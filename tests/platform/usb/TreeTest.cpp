// SPDX-License-Identifier: Apache-2.0
// Trees of controllers, link words, and port status words without a hub's help.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "platform/linux/usb/Tree.h"

namespace Nimbrel2::Platform::Usb {
namespace {

using testing::ElementsAre;

constexpr std::uint64_t FirstDevice = 0xA0;
constexpr std::uint64_t Second = 0x3900;

DevicePointer Device(std::uint64_t hostKey, std::uint32_t bus, std::vector<std::uint8_t> ports, std::uint32_t number,
                     std::uint32_t speed) {
    auto device = std::make_shared<DeviceRecord>();
    device->controller = std::to_string(hostKey);
    device->hostKey = hostKey;
    device->bus = bus;
    device->ports = std::move(ports);
    device->number = number;
    device->speed = speed;
    return device;
}

MATCHER_P5(IsRecord, id, speed, rootPort, route, parent, "") {
    return arg.deviceId == static_cast<std::uint32_t>(id) && arg.speed == static_cast<std::uint32_t>(speed) &&
           arg.rootPortId == static_cast<std::uint64_t>(rootPort) &&
           arg.routeString == static_cast<std::uint64_t>(route) && arg.parentId == static_cast<std::uint64_t>(parent);
}

TEST(UsbTree, HoldsBothHalvesOfAHubAndEachDeviceAfterTheHubAboveIt) {
    const auto trees = BuildTrees({
        Device(FirstDevice, 1, {}, 1, 480),
        Device(FirstDevice, 1, {1}, 2, 480),
        Device(FirstDevice, 1, {1, 3}, 7, 12),
        Device(FirstDevice, 2, {}, 1, 10000),
        Device(FirstDevice, 2, {1}, 2, 5000),
        Device(FirstDevice, 2, {1, 4}, 3, 5000),
    });
    ASSERT_EQ(trees.size(), 1u);
    EXPECT_THAT(trees.at(FirstDevice),
                ElementsAre(IsRecord(130, 480, 0x101, 0, 63), IsRecord(135, 12, 0x101, 3, 130),
                            IsRecord(258, 5000, 0x201, 0, 63), IsRecord(259, 5000, 0x201, 4, 258)));
}

TEST(UsbTree, OfEachControllerIsItsOwnAndMayBeEmpty) {
    const auto trees = BuildTrees(
        {Device(FirstDevice, 1, {}, 1, 480), Device(Second, 3, {}, 1, 5000), Device(Second, 3, {2}, 2, 5000)});
    ASSERT_EQ(trees.size(), 2u);
    EXPECT_TRUE(trees.at(FirstDevice).empty());
    EXPECT_THAT(trees.at(Second), ElementsAre(IsRecord(386, 5000, 0x302, 0, 63)));
}

TEST(UsbTree, OfEverythingThatTwoBusesCanHoldHasUniqueIdsAndNeverTheHosts) {
    std::vector<DevicePointer> devices;
    for (std::uint32_t bus = 1; bus <= 2; ++bus) {
        for (std::uint32_t number = 1; number <= 127; ++number) {
            devices.push_back(Device(FirstDevice, bus, {static_cast<std::uint8_t>(number)}, number, 480));
        }
    }
    std::set<std::uint32_t> ids;
    const auto trees = BuildTrees(devices);
    for (const UsbSelfId& record : trees.at(FirstDevice)) {
        EXPECT_NE(record.deviceId, 63u);
        EXPECT_TRUE(ids.insert(record.deviceId).second);
    }
    EXPECT_EQ(ids.size(), 254u);
}

TEST(UsbTree, IsAnotherOneWhenAnythingInItDiffers) {
    const auto tree = [](std::uint32_t number, std::uint32_t speed, std::uint8_t port) {
        return BuildTrees({Device(FirstDevice, 2, {1, port}, number, speed)}).at(FirstDevice);
    };
    EXPECT_TRUE(AreEqual(tree(3, 5000, 4), tree(3, 5000, 4)));
    EXPECT_FALSE(AreEqual(tree(3, 5000, 4), tree(4, 5000, 4)));
    EXPECT_FALSE(AreEqual(tree(3, 5000, 4), tree(3, 10000, 4)));
    EXPECT_FALSE(AreEqual(tree(3, 5000, 4), tree(3, 5000, 5)));
    EXPECT_FALSE(AreEqual(tree(3, 5000, 4), {}));
}

TEST(UsbLinkInfo, HoldsSpeedPortAndHubs) {
    EXPECT_EQ(LinkInfo(*Device(FirstDevice, 2, {1, 2, 3, 4, 5, 6}, 27, 5000)), 500u << 16 | 6u << 8 | 5u);
    EXPECT_EQ(LinkInfo(*Device(FirstDevice, 1, {2}, 3, 480)), 48u << 16 | 2u << 8);
    EXPECT_EQ(LinkInfo(*Device(FirstDevice, 2, {1}, 2, 20000)), 2000u << 16 | 1u << 8);
}

TEST(UsbPortStatus, WithoutTheHubSaysWhatIsKnownOfAWorkingDevice) {
    // As real hubs were seen to answer.
    EXPECT_EQ(PortStatus(5000, false), 0x0203u);
    EXPECT_EQ(PortStatus(5000, true), 0x0263u);
    EXPECT_EQ(PortStatus(10000, false), 0x0203u);
    EXPECT_EQ(PortStatus(480, false), 0x0503u);
    EXPECT_EQ(PortStatus(480, true), 0x0507u);
    EXPECT_EQ(PortStatus(12, false), 0x0103u);
    EXPECT_EQ(PortStatus(1, false), 0x0303u);
    EXPECT_EQ(PortStatus(0, false), 0x0103u) << "a speed that is not known";
}

}  // namespace
}  // namespace Nimbrel2::Platform::Usb
