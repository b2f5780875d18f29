// SPDX-License-Identifier: Apache-2.0
// Discovers GigE cameras. Main thread only; no lock.
#include "tools/nimbrel/GigECameras.h"

#include <thread>

#include "platform/base/Texts.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/SearchReport.h"
#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds VerifyLimit{5};
constexpr std::chrono::milliseconds ShortestRound{100};

std::string VersionText(std::uint32_t major, std::uint32_t minor) {
    return std::to_string(major) + "." + std::to_string(minor);
}

}  // namespace

GigECamera FromInfo(const CameraInfo& info) {
    return {info.serialNumber,
            info.macAddress,
            info.ipAddress,
            info.subnetMask,
            info.defaultGateway,
            FromField(info.vendorName),
            FromField(info.modelName),
            FromField(info.userDefinedName),
            VersionText(info.gigEMajorVersion, info.gigEMinorVersion)};
}

GigECamera FromRecord(const GvcpDiscoveryRecord& record) {
    GigECamera camera;
    camera.serialNumber = Platform::LeadingNumber(Platform::FieldText(record.serialNumber));
    const std::uint64_t mac = std::uint64_t{record.macHigh} << 32 | record.macLow;
    for (int i = 0; i < 6; ++i) {
        camera.mac.octets[i] = static_cast<std::uint8_t>(mac >> (40 - 8 * i) & 0xFF);
    }
    camera.ip = UnpackIPAddress(record.ipAddress);
    camera.subnet = UnpackIPAddress(record.subnetMask);
    camera.gateway = UnpackIPAddress(record.defaultGateway);
    camera.vendor = FromField(record.manufacturerName);
    camera.model = FromField(record.modelName);
    camera.name = FromField(record.userDefinedName);
    camera.version = VersionText(record.versionMajor, record.versionMinor);
    return camera;
}

bool IsSame(const GigECamera& first, const GigECamera& second) {
    return IsSame(first.mac, second.mac) && PackIPAddress(first.ip) == PackIPAddress(second.ip) &&
           first.serialNumber == second.serialNumber;
}

Platform::GigEDiscovery DiscoverGigE(const std::optional<MACAddress>& until) {
    std::optional<Platform::GigECameraName> name;
    if (until) {
        name = Platform::GigECameraName{0, PackMac(*until)};
    }
    Platform::GigEDiscovery discovery;
    const std::uint32_t status = Platform::DiscoverGigE(name, &discovery);
    if (status == HAL_OK) {
        return discovery;
    }
    throw ExplainSearchFailure(status);
}

std::vector<Platform::CameraDiagnosis> DiscoverUntil(
    const std::function<bool(const std::vector<Platform::CameraDiagnosis>&)>& isEnough) {
    const Clock::time_point end = Clock::now() + VerifyLimit;
    for (;;) {
        const Clock::time_point round = Clock::now();
        std::vector<Platform::CameraDiagnosis> cameras = DiscoverGigE().cameras;
        if (isEnough(cameras) || Clock::now() >= end) {
            return cameras;
        }
        std::this_thread::sleep_until(round + ShortestRound);  // a rig answers at once
    }
}

const Platform::CameraDiagnosis* FindByMac(const std::vector<Platform::CameraDiagnosis>& cameras,
                                           const MACAddress& mac) {
    for (const Platform::CameraDiagnosis& camera : cameras) {
        if (IsSame(FromRecord(camera.record).mac, mac)) {
            return &camera;
        }
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
