// SPDX-License-Identifier: Apache-2.0
// The rig's USB host: both halves of the tree, speeds, records, and what cannot be a host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/rig/UsbModel.h"

namespace Nimbrel2::Platform {
namespace {

using testing::HasSubstr;

UsbDeviceDescription Device(const std::string& name, UsbKind kind, const std::string& parent, unsigned int port,
                            unsigned int speed = 5000) {
    UsbDeviceDescription device;
    device.name = name;
    device.kind = kind;
    device.parent = parent;
    device.port = port;
    device.speed = speed;
    return device;
}

UsbHostDescription HubHost() {
    UsbHostDescription host;
    host.name = "xhci0";
    host.devices = {Device("hub", UsbKind::Hub, "xhci0", 1), Device("slow hub", UsbKind::Hub, "hub", 2, 480),
                    Device("fast", UsbKind::Camera, "hub", 1), Device("held back", UsbKind::Camera, "slow hub", 3)};
    return host;
}

UsbSelfId RecordOf(const UsbModel& host, const std::string& name) {
    for (const UsbSelfId& record : host.Records()) {
        if (record.deviceId == host.Find(name)->deviceId) {
            return record;
        }
    }
    return {};
}

TEST(UsbModel, PutsAHubIntoBothHalvesAndACameraIntoTheFastestItCanHave) {
    const UsbModel host(HubHost(), 0);
    EXPECT_EQ(host.Find("fast")->speed, 5000U);
    EXPECT_EQ(host.Find("held back")->speed, 480U) << "its hub only does high speed";
    int halves = 0;
    for (const UsbModel::Attached& attached : host.Devices()) {
        halves += attached.device->name == "hub" ? 1 : 0;
    }
    EXPECT_EQ(halves, 2);
    EXPECT_EQ(host.Records().size(), 5U);
}

TEST(UsbModel, MakesALinkAsFastAsTheSlowestAbove) {
    UsbHostDescription description;
    description.name = "xhci0";
    description.devices = {
        Device("hub", UsbKind::Hub, "xhci0", 1, 5000), Device("ten gigabits", UsbKind::Camera, "hub", 1, 10000),
        Device("old hub", UsbKind::Hub, "xhci0", 2, 12), Device("behind it", UsbKind::Camera, "old hub", 1, 480),
        Device("direct", UsbKind::Camera, "xhci0", 3, 20000)};
    const UsbModel host(description, 0);
    EXPECT_EQ(host.Find("ten gigabits")->speed, 5000U);
    EXPECT_EQ(host.Find("behind it")->speed, 12U);
    EXPECT_EQ(UsbModel::PortStatus(*host.Find("behind it")), 0x0103U);
    EXPECT_EQ(host.Find("direct")->speed, 20000U);
    EXPECT_EQ(UsbModel::LinkInfo(*host.Find("direct")), 2000U << 16 | 3U << 8);
}

TEST(UsbModel, WritesRouteStringsWithANibbleForEachHubTier) {
    const UsbModel host(HubHost(), 0);
    EXPECT_EQ(RecordOf(host, "hub").routeString, 0U);
    EXPECT_EQ(RecordOf(host, "fast").routeString, 0x1U);
    EXPECT_EQ(RecordOf(host, "held back").routeString, 0x32U) << "port 2 of the first hub, port 3 of the second";
    EXPECT_EQ(RecordOf(host, "fast").rootPortId, RecordOf(host, "hub").rootPortId);
    EXPECT_NE(RecordOf(host, "fast").rootPortId, RecordOf(host, "held back").rootPortId)
        << "the halves have ports of their own";
    EXPECT_EQ(RecordOf(host, "hub").parentId, 63U);
    EXPECT_EQ(RecordOf(host, "fast").parentId, host.Find("hub")->deviceId);
}

TEST(UsbModel, GivesANewAddressAtEachPlugAndNever63) {
    UsbModel host(HubHost(), 0);
    std::uint32_t last = host.Find("fast")->deviceId;
    for (int i = 0; i < 300; ++i) {
        const std::uint32_t hub = host.Find("hub")->deviceId;
        ASSERT_TRUE(host.Unplug("fast"));
        EXPECT_EQ(host.Find("fast"), nullptr);
        ASSERT_TRUE(host.Plug("fast"));
        EXPECT_NE(host.Find("fast")->deviceId, last);
        EXPECT_NE(host.Find("fast")->deviceId, 63U);
        EXPECT_LE(host.Find("fast")->deviceId, 255U);
        EXPECT_NE(host.Find("fast")->deviceId, hub);
        EXPECT_EQ(host.Find("hub")->deviceId, hub) << "a device that stays keeps its address";
        last = host.Find("fast")->deviceId;
    }
}

TEST(UsbModel, TakesEverythingBelowAnUnpluggedHubAlong) {
    UsbModel host(HubHost(), 0);
    EXPECT_TRUE(host.Unplug("hub"));
    EXPECT_TRUE(host.Devices().empty());
    EXPECT_FALSE(host.Unplug("hub"));
    EXPECT_TRUE(host.Plug("hub"));
    EXPECT_NE(host.Find("held back"), nullptr);
}

TEST(UsbModel, MakesACameraFasterThatIsMovedToAFastHub) {
    UsbModel host(HubHost(), 0);
    EXPECT_THAT(host.Move("held back", "hub", 1).value_or(""), HasSubstr("is taken"));
    EXPECT_THAT(host.Move("held back", "fast", 1).value_or(""), HasSubstr("neither this host nor one of its hubs"));
    EXPECT_EQ(host.Move("held back", "hub", 3), std::nullopt);
    EXPECT_EQ(host.Find("held back")->speed, 5000U);
    EXPECT_EQ(UsbModel::PortStatus(*host.Find("held back")), 0x0203U);
    EXPECT_EQ(UsbModel::LinkInfo(*host.Find("held back")), 500U << 16 | 3U << 8 | 1U);
}

TEST(UsbModel, ShowsRawRecordsAsTheyAre) {
    UsbHostDescription description;
    description.name = "raw";
    description.records = {UsbSelfId{5, 480, 0x203, 0, 63}, UsbSelfId{6, 480, 0x203, 0x4, 5}};
    description.placedCameras.push_back({6, Device("eye", UsbKind::Camera, "raw", 1)});
    ASSERT_TRUE(UsbModel::Validate(description, "").empty());
    UsbModel host(description, 0);
    ASSERT_EQ(host.Records().size(), 2U);
    EXPECT_EQ(host.Records()[1].routeString, 0x4U);
    EXPECT_EQ(host.Find("eye")->deviceId, 6U);
    EXPECT_EQ(UsbModel::LinkInfo(*host.Find("eye")), 48U << 16 | 4U << 8 | 1U) << "as its record says";
    EXPECT_EQ(UsbModel::PortStatus(*host.Find("eye")), 0x0503U);
    EXPECT_THAT(host.Move("eye", "raw", 2).value_or(""), HasSubstr("given as records"));
}

UsbHostDescription RawHost(const std::vector<std::uint32_t>& records, const std::vector<std::uint32_t>& cameras) {
    UsbHostDescription host;
    host.name = "raw";
    for (const std::uint32_t id : records) {
        host.records.push_back(UsbSelfId{id, 480, 1, 0, 63});
    }
    for (const std::uint32_t id : cameras) {
        host.placedCameras.push_back({id, Device("eye", UsbKind::Camera, "raw", 1)});
    }
    return host;
}

struct BadHost {
    const char* name;
    void (*spoil)(UsbHostDescription& host);
    const char* pointer;
    const char* reason;
};

class UsbModelRefuses : public testing::TestWithParam<BadHost> {};

TEST_P(UsbModelRefuses, WhatIsNoHost) {
    UsbHostDescription host = HubHost();
    GetParam().spoil(host);
    const std::vector<RigProblem> problems = UsbModel::Validate(host, "/usb/0");
    ASSERT_FALSE(problems.empty());
    EXPECT_EQ(problems.front().pointer, GetParam().pointer);
    EXPECT_THAT(problems.front().reason, HasSubstr(GetParam().reason));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UsbModelRefuses,
    testing::Values(
        BadHost{"TwoOnOnePort", [](auto& host) { host.devices[2].port = 2; }, "/usb/0/devices/2/port", "is taken"},
        BadHost{"NoSuchPort", [](auto& host) { host.devices[2].port = 5; }, "/usb/0/devices/2/port", "has no port 5"},
        BadHost{"PortZero", [](auto& host) { host.devices[2].port = 0; }, "/usb/0/devices/2/port", "has no port 0"},
        BadHost{"OnNoBus", [](auto& host) { host.devices[2].parent = "elsewhere"; }, "/usb/0/devices/2/parent",
                "neither this host nor one of its hubs"},
        BadHost{"BehindACamera", [](auto& host) { host.devices[3].parent = "fast"; }, "/usb/0/devices/3/parent",
                "neither this host nor one of its hubs"},
        BadHost{"SixthHub",
                [](auto& host) {
                    host.devices.push_back(Device("h3", UsbKind::Hub, "slow hub", 1));
                    host.devices.push_back(Device("h4", UsbKind::Hub, "h3", 1));
                    host.devices.push_back(Device("h5", UsbKind::Hub, "h4", 1));
                    host.devices.push_back(Device("h6", UsbKind::Hub, "h5", 1));
                },
                "/usb/0/devices/7/parent", "more than five hubs"},
        BadHost{"HubsInALoop",
                [](auto& host) {
                    host.devices[0].parent = "slow hub";
                    host.devices[0].port = 4;
                },
                "/usb/0/devices/0/parent", "loop"},
        BadHost{"SameName", [](auto& host) { host.devices[2].name = "hub"; }, "/usb/0/devices/2/name",
                "empty or taken"},
        BadHost{"Speed", [](auto& host) { host.devices[2].speed = 1000; }, "/usb/0/devices/2/speed", "not 1000"},
        BadHost{"HubPorts", [](auto& host) { host.devices[0].ports = 16; }, "/usb/0/devices/0/ports", "not 16"},
        BadHost{"NoPorts", [](auto& host) { host.usb2Ports = host.usb3Ports = 0; }, "/usb/0", "root ports"},
        BadHost{"NoHalfForIt", [](auto& host) { host.usb2Ports = 0; }, "/usb/0/devices/1/speed",
                "only does SuperSpeed"},
        BadHost{"TooManyDevices",
                [](auto& host) {
                    for (unsigned int i = 0; i < 124; ++i) {
                        host.devices.push_back(Device("d" + std::to_string(i), UsbKind::Device, "hub", 1));
                    }
                },
                "/usb/0/devices", "at most 127 devices, not 128"},
        BadHost{"PlacesWithoutRecords", [](auto& host) { host.placedCameras.resize(1); }, "/usb/0/placedCameras",
                "there are none"},
        BadHost{"RecordOfTheHost",
                [](auto& host) {
                    host = RawHost({1, 63}, {1});
                },
                "/usb/0/records/1/deviceId", "63, the host's"},
        BadHost{"TwoRecordsOfOneDevice",
                [](auto& host) {
                    host = RawHost({1, 1}, {1});
                },
                "/usb/0/records/1/deviceId", "another record's"},
        BadHost{"TwoCamerasOfOneRecord",
                [](auto& host) {
                    host = RawHost({1}, {1, 1});
                },
                "/usb/0/placedCameras/1/deviceId", "another camera has it"},
        BadHost{"RawSpeed", [](auto& host) { host = RawHost({1}, {1}), host.placedCameras[0].camera.speed = 13; },
                "/usb/0/placedCameras/0/speed", "not 13"},
        BadHost{"CameraOfNoRecord", [](auto& host) { host = RawHost({1}, {2}); }, "/usb/0/placedCameras/0/deviceId",
                "no record has the device id 2"},
        BadHost{"TooManyRecords",
                [](auto& host) {
                    host.devices.clear(), host.records.resize(1025, UsbSelfId{1, 0, 0, 0, 0});
                },
                "/usb/0/records", "at most 1024"},
        BadHost{"RecordsAndDevices", [](auto& host) { host.records.resize(1); }, "/usb/0/records", "not both"}),
    [](const testing::TestParamInfo<BadHost>& row) { return row.param.name; });

}  // namespace
}  // namespace Nimbrel2::Platform
