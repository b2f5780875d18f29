// SPDX-License-Identifier: Apache-2.0
// Discovers GigE cameras through the bus master. Main thread only; no lock.
#include "tools/nimbrel/GigECameras.h"

#include <thread>

#include "common/DiscoveryRecord.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kVerifyLimit{5};
constexpr std::chrono::milliseconds kShortestRound{100};
// Each too small an array costs a discovery window more, so the first one is large.
constexpr unsigned int kFirstCapacity = 1024;
constexpr unsigned int kMostTries = 4;

GigECamera FromInfo(const CameraInfo& info) {
    return {info.serialNumber,
            info.macAddress,
            info.ipAddress,
            info.subnetMask,
            info.defaultGateway,
            FromField(info.vendorName),
            FromField(info.modelName),
            FromField(info.userDefinedName),
            std::to_string(info.gigEMajorVersion) + "." + std::to_string(info.gigEMinorVersion)};
}

}  // namespace

GigECamera FromRecord(const GvcpDiscoveryRecord& record) {
    CameraInfo info;
    FillCameraInfo(record, &info);
    return FromInfo(info);
}

bool IsSame(const GigECamera& first, const GigECamera& second) {
    return IsSame(first.mac, second.mac) && PackIPAddress(first.ip) == PackIPAddress(second.ip) &&
           first.serialNumber == second.serialNumber;
}

std::vector<GigECamera> DiscoverGigECameras(BusMaster& busMaster) {
    std::vector<CameraInfo> infos;
    unsigned int size = kFirstCapacity;
    for (unsigned int attempt = 1;; ++attempt) {
        infos.assign(size, {});
        const Error error = busMaster.DiscoverGigECameras(infos.data(), &size);
        if (error == ERROR_BUFFER_TOO_SMALL && attempt < kMostTries) {
            size += kFirstCapacity;  // more may come meanwhile
            continue;
        }
        Check(error);
        break;
    }
    std::vector<GigECamera> cameras;
    for (unsigned int i = 0; i < size; ++i) cameras.push_back(FromInfo(infos.at(i)));
    return cameras;
}

std::vector<GigECamera> DiscoverUntil(BusMaster& busMaster,
                                      const std::function<bool(const std::vector<GigECamera>&)>& isEnough) {
    const Clock::time_point end = Clock::now() + kVerifyLimit;
    for (;;) {
        const Clock::time_point round = Clock::now();
        std::vector<GigECamera> cameras = DiscoverGigECameras(busMaster);
        if (isEnough(cameras) || Clock::now() >= end) return cameras;
        std::this_thread::sleep_until(round + kShortestRound);  // a rig answers at once
    }
}

const GigECamera* FindByMac(const std::vector<GigECamera>& cameras, const MACAddress& mac) {
    for (const GigECamera& camera : cameras) {
        if (IsSame(camera.mac, mac)) return &camera;
    }
    return nullptr;
}

std::string NameOf(const GigECamera& camera) {
    return "camera " + std::to_string(camera.serialNumber) + " (" + FormatMac(camera.mac) + ")";
}

Json ToJson(const GigECamera& camera) {
    return Json{{"serial", camera.serialNumber},
                {"mac", FormatMac(camera.mac)},
                {"ip", FormatIp(camera.ip)},
                {"subnet", FormatIp(camera.subnet)},
                {"gateway", FormatIp(camera.gateway)},
                {"vendor", camera.vendor},
                {"model", camera.model},
                {"name", camera.name},
                {"version", camera.version}};
}

}  // namespace Nimbrel2::Tool
