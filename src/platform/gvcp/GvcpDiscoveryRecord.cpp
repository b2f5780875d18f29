// SPDX-License-Identifier: Apache-2.0
// The DISCOVERY_ACK payload, an image of the first 248 bytes of bootstrap memory, to and from the HAL's record.
// Pure functions: any thread, no lock.
#include <algorithm>

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {
namespace {

static_assert(sizeof(GvcpDiscoveryRecord) == 212, "the record crosses the HAL line: 212 bytes");

constexpr std::size_t SpecVersionMajor = 0;
constexpr std::size_t SpecVersionMinor = 2;
constexpr std::size_t MacHigh = Register::DeviceMacAddressHigh + 2;

template <std::size_t Size>
void LoadText(const std::uint8_t* bytes, char (&text)[Size]) {
    std::copy_n(bytes, Size, reinterpret_cast<std::uint8_t*>(text));
}

template <std::size_t Size>
void StoreText(const char (&text)[Size], std::uint8_t* bytes) {
    std::copy_n(reinterpret_cast<const std::uint8_t*>(text), Size, bytes);
}

}  // namespace

GvcpDiscoveryRecord DecodeDiscoveryPayload(std::span<const std::uint8_t, DiscoveryPayloadBytes> payload) {
    const std::uint8_t* bytes = payload.data();
    GvcpDiscoveryRecord record{};
    record.versionMajor = LoadU16(bytes + SpecVersionMajor);
    record.versionMinor = LoadU16(bytes + SpecVersionMinor);
    record.deviceMode = LoadU32(bytes + Register::DeviceMode);
    record.macHigh = LoadU16(bytes + MacHigh);
    record.macLow = LoadU32(bytes + Register::DeviceMacAddressLow);
    record.ipConfigOptions = LoadU32(bytes + Register::SupportedIpConfiguration);
    record.ipConfigCurrent = LoadU32(bytes + Register::CurrentIpConfiguration);
    record.ipAddress = LoadU32(bytes + Register::CurrentIpAddress);
    record.subnetMask = LoadU32(bytes + Register::CurrentSubnetMask);
    record.defaultGateway = LoadU32(bytes + Register::CurrentDefaultGateway);
    LoadText(bytes + Register::ManufacturerName, record.manufacturerName);
    LoadText(bytes + Register::ModelName, record.modelName);
    LoadText(bytes + Register::DeviceVersion, record.deviceVersion);
    LoadText(bytes + Register::ManufacturerInfo, record.manufacturerInfo);
    LoadText(bytes + Register::SerialNumber, record.serialNumber);
    LoadText(bytes + Register::UserDefinedName, record.userDefinedName);
    return record;
}

std::array<std::uint8_t, DiscoveryPayloadBytes> EncodeDiscoveryPayload(const GvcpDiscoveryRecord& record) {
    std::array<std::uint8_t, DiscoveryPayloadBytes> payload{};
    std::uint8_t* bytes = payload.data();
    StoreU16(bytes + SpecVersionMajor, record.versionMajor);
    StoreU16(bytes + SpecVersionMinor, record.versionMinor);
    StoreU32(bytes + Register::DeviceMode, record.deviceMode);
    StoreU16(bytes + MacHigh, record.macHigh);
    StoreU32(bytes + Register::DeviceMacAddressLow, record.macLow);
    StoreU32(bytes + Register::SupportedIpConfiguration, record.ipConfigOptions);
    StoreU32(bytes + Register::CurrentIpConfiguration, record.ipConfigCurrent);
    StoreU32(bytes + Register::CurrentIpAddress, record.ipAddress);
    StoreU32(bytes + Register::CurrentSubnetMask, record.subnetMask);
    StoreU32(bytes + Register::CurrentDefaultGateway, record.defaultGateway);
    StoreText(record.manufacturerName, bytes + Register::ManufacturerName);
    StoreText(record.modelName, bytes + Register::ModelName);
    StoreText(record.deviceVersion, bytes + Register::DeviceVersion);
    StoreText(record.manufacturerInfo, bytes + Register::ManufacturerInfo);
    StoreText(record.serialNumber, bytes + Register::SerialNumber);
    StoreText(record.userDefinedName, bytes + Register::UserDefinedName);
    return payload;
}

}  // namespace Nimbrel2::Platform::Gvcp
