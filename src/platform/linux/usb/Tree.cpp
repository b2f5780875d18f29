// SPDX-License-Identifier: Apache-2.0
// Trees, link words and port status words. Pure functions: any thread, no lock, no I/O.
#include "platform/linux/usb/Tree.h"

#include <algorithm>

namespace Nimbrel2::Platform::Usb {

namespace {

bool AreSame(const UsbSelfId& a, const UsbSelfId& b) {
    return a.deviceId == b.deviceId && a.speed == b.speed && a.rootPortId == b.rootPortId &&
           a.routeString == b.routeString && a.parentId == b.parentId;
}

// The hub above is among the devices before it, unless it left while they were read.
std::uint32_t FindParentId(const std::vector<DevicePointer>& devices, const DeviceRecord& device) {
    if (device.ports.size() < 2) {
        return HostDeviceId;
    }
    const std::vector<std::uint8_t> ports(device.ports.begin(), device.ports.end() - 1);
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const DevicePointer& other) {
        return other->bus == device.bus && other->ports == ports;
    });
    return found == devices.end() ? HostDeviceId : (*found)->GetId();
}

}  // namespace

bool AreEqual(const TreeRecords& a, const TreeRecords& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), AreSame);
}

std::map<std::uint64_t, TreeRecords> BuildTrees(const std::vector<DevicePointer>& devices) {
    std::map<std::uint64_t, TreeRecords> trees;
    for (const DevicePointer& device : devices) {
        TreeRecords& records = trees[device->hostKey];
        if (device->IsRootHub()) {
            continue;
        }
        UsbSelfId record{};
        record.deviceId = device->GetId();
        record.speed = device->speed;
        record.rootPortId = RootPortId(device->bus, device->ports.front());
        record.routeString = RouteString(device->ports);
        record.parentId = FindParentId(devices, *device);
        records.push_back(record);
    }
    return trees;
}

std::uint32_t LinkInfo(const DeviceRecord& device) {
    const std::uint32_t speed = std::min<std::uint32_t>(device.speed / 10, 0xFFFF);
    const std::uint32_t port = device.ports.empty() ? 0 : device.ports.back();
    return speed << 16 | port << 8 | CountHubsAbove(device.ports);
}

std::uint32_t PortStatus(std::uint32_t speed, bool suspended) {
    constexpr std::uint32_t ConnectedAndEnabled = 0x0003;
    if (speed >= SuperSpeed) {
        return ConnectedAndEnabled | 1u << 9 | (suspended ? 3u << 5 : 0u);
    }
    const std::uint32_t speedBits = speed >= HighSpeed ? 1u << 10 : speed >= FullSpeed || speed == 0 ? 0u : 1u << 9;
    return ConnectedAndEnabled | 1u << 8 | (suspended ? 1u << 2 : 0u) | speedBits;
}

}  // namespace Nimbrel2::Platform::Usb
