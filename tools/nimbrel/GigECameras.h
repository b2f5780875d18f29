// SPDX-License-Identifier: Apache-2.0
// GigE cameras that answer a discovery, as values that commands print and compare. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_GIGECAMERAS_H
#define NIMBREL2_TOOLS_NIMBREL_GIGECAMERAS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/Diagnostics.h"
#include "tools/nimbrel/Cameras.h"

namespace Nimbrel2::Tool {

/// One camera's answer. Its texts are the camera's own, so they may hold anything.
struct GigECamera {
    std::uint32_t serialNumber = 0;
    MACAddress mac;
    IPAddress ip;
    IPAddress subnet;
    IPAddress gateway;
    std::string vendor;
    std::string model;
    std::string name;
    std::string version;  ///< Of the GigE Vision standard, "2.0".
};

GigECamera FromRecord(const GvcpDiscoveryRecord& record);
GigECamera FromInfo(const CameraInfo& info);

/// Same MAC, address and serial number.
bool IsSame(const GigECamera& first, const GigECamera& second);

/// Every camera that answers a broadcast, on whatever subnet. Takes the discovery window, or ends as soon as the camera
/// with that MAC has answered.
/// @throws CommandError when GigE cannot be searched.
Platform::GigEDiscovery DiscoverGigE(const std::optional<MACAddress>& until = std::nullopt);

/// Discovers until the answers satisfy the condition, at least once and for at most five seconds: a camera that was
/// just given an address may take some time to return.
/// @return the answers to the last discovery.
std::vector<Platform::CameraDiagnosis> DiscoverUntil(
    const std::function<bool(const std::vector<Platform::CameraDiagnosis>&)>& isEnough);

/// Null if none has that MAC.
const Platform::CameraDiagnosis* FindByMac(const std::vector<Platform::CameraDiagnosis>& cameras,
                                           const MACAddress& mac);

/// "camera 19340211 (02:00:5e:00:00:01)"
std::string NameOf(const GigECamera& camera);

Json ToJson(const GigECamera& camera);

}  // namespace Nimbrel2::Tool

#endif
