// SPDX-License-Identifier: Apache-2.0
// The DISCOVERY_ACK payload, an image of the first 248 bytes of bootstrap memory, to and from the HAL's record.
// Pure functions: any thread, no lock.
#include <algorithm>

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {
namespace {

static_assert(sizeof(GvcpDiscoveryRecord) == 212, "the record crosses the HAL line: 212 bytes");

constexpr std::size_t kSpecVersionMajor = 0;
constexpr std::size_t kSpecVersionMinor = 2;
constexpr std::size_t kMacHigh = Register::kDeviceMacAddressHigh + 2;

template <std::size_t Size>
void LoadText(const std::uint8_t* bytes, char (&text)[Size]) {
    std::copy_n(bytes, Size, reinterpret_cast<std::uint8_t*>(text));
}

template <std::size_t Size>
void StoreText(const char (&text)[Size], std::uint8_t* bytes) {
    std::copy_n(reinterpret_cast<const std::uint8_t*>(text), Size, bytes);
}

}  // namespace

GvcpDiscoveryRecord DecodeDiscoveryPayload(std::span<const std::uint8_t, kDiscoveryPayloadBytes> payload) {
    const std::uint8_t* bytes = payload.data();
    GvcpDiscoveryRecord record{};
    record.versionMajor = LoadU16(bytes + kSpecVersionMajor);
    record.versionMinor = LoadU16(bytes + kSpecVersionMinor);
    record.deviceMode = LoadU32(bytes + Register::kDeviceMode);
    record.macHigh = LoadU16(bytes + kMacHigh);
    record.macLow = LoadU32(bytes + Register::kDeviceMacAddressLow);
    record.ipConfigOptions = LoadU32(bytes + Register::kSupportedIpConfiguration);
    record.ipConfigCurrent = LoadU32(bytes + Register::kCurrentIpConfiguration);
    record.ipAddress = LoadU32(bytes + Register::kCurrentIpAddress);
    record.subnetMask = LoadU32(bytes + Register::kCurrentSubnetMask);
    record.defaultGateway = LoadU32(bytes + Register::kCurrentDefaultGateway);
    LoadText(bytes + Register::kManufacturerName, record.manufacturerName);
    LoadText(bytes + Register::kModelName, record.modelName);
    LoadText(bytes + Register::kDeviceVersion, record.deviceVersion);
    LoadText(bytes + Register::kManufacturerInfo, record.manufacturerInfo);
    LoadText(bytes + Register::kSerialNumber, record.serialNumber);
    LoadText(bytes + Register::kUserDefinedName, record.userDefinedName);
    return record;
}

std::array<std::uint8_t, kDiscoveryPayloadBytes> EncodeDiscoveryPayload(const GvcpDiscoveryRecord& record) {
    std::array<std::uint8_t, kDiscoveryPayloadBytes> payload{};
    std::uint8_t* bytes = payload.data();
    StoreU16(bytes + kSpecVersionMajor, record.versionMajor);
    StoreU16(bytes + kSpecVersionMinor, record.versionMinor);
    StoreU32(bytes + Register::kDeviceMode, record.deviceMode);
    StoreU16(bytes + kMacHigh, record.macHigh);
    StoreU32(bytes + Register::kDeviceMacAddressLow, record.macLow);
    StoreU32(bytes + Register::kSupportedIpConfiguration, record.ipConfigOptions);
    StoreU32(bytes + Register::kCurrentIpConfiguration, record.ipConfigCurrent);
    StoreU32(bytes + Register::kCurrentIpAddress, record.ipAddress);
    StoreU32(bytes + Register::kCurrentSubnetMask, record.subnetMask);
    StoreU32(bytes + Register::kCurrentDefaultGateway, record.defaultGateway);
    StoreText(record.manufacturerName, bytes + Register::kManufacturerName);
    StoreText(record.modelName, bytes + Register::kModelName);
    StoreText(record.deviceVersion, bytes + Register::kDeviceVersion);
    StoreText(record.manufacturerInfo, bytes + Register::kManufacturerInfo);
    StoreText(record.serialNumber, bytes + Register::kSerialNumber);
    StoreText(record.userDefinedName, bytes + Register::kUserDefinedName);
    return payload;
}

}  // namespace Nimbrel2::Platform::Gvcp
