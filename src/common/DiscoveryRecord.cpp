// SPDX-License-Identifier: Apache-2.0
// From a GigE discovery answer to what users see. Pure.
#include "common/DiscoveryRecord.h"

#include <charconv>

namespace Nimbrel2 {

static_assert(sizeof(GvcpDiscoveryRecord) == 212, "the discovery record is 212 bytes on every machine");

namespace {

// A field holds at most 16 digits, which 64 bits always hold.
std::uint32_t SerialNumberFromText(const char (&text)[16]) {
    std::uint64_t number = 0;
    std::from_chars(text, text + sizeof text, number);
    return static_cast<std::uint32_t>(number);
}

}  // namespace

void FillCameraInfo(const GvcpDiscoveryRecord& record, CameraInfo* info) {
    info->serialNumber = SerialNumberFromText(record.serialNumber);
    info->interfaceType = INTERFACE_GIGE;
    info->gigEMajorVersion = record.versionMajor;
    info->gigEMinorVersion = record.versionMinor;
    info->macAddress = MACAddress{
        {static_cast<std::uint8_t>(record.macHigh >> 8), static_cast<std::uint8_t>(record.macHigh & 0xFF),
         static_cast<std::uint8_t>(record.macLow >> 24), static_cast<std::uint8_t>(record.macLow >> 16 & 0xFF),
         static_cast<std::uint8_t>(record.macLow >> 8 & 0xFF), static_cast<std::uint8_t>(record.macLow & 0xFF)}};
    info->ipAddress = UnpackIPAddress(record.ipAddress);
    info->subnetMask = UnpackIPAddress(record.subnetMask);
    info->defaultGateway = UnpackIPAddress(record.defaultGateway);
    CopyRecordText(record.manufacturerName, info->vendorName);
    CopyRecordText(record.modelName, info->modelName);
    CopyRecordText(record.userDefinedName, info->userDefinedName);
}

}  // namespace Nimbrel2
