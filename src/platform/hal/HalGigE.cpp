// SPDX-License-Identifier: Apache-2.0
// The functions on one GigE camera, and the GVCP services. Run on their caller's thread, which the driver may block for
// network I/O; no lock of the glue is held.
#include <algorithm>
#include <optional>
#include <vector>

#include "platform/base/CameraAddress.h"
#include "platform/base/Texts.h"
#include "platform/hal/Calls.h"

using namespace Nimbrel2::Platform;

static_assert(sizeof(GvcpDiscoveryRecord) == 212, "the record has no padding but the one it names");

uint32_t HAL_GigEGetCameraIpAddress(void* entry, uint32_t* ipAddress) {
    return OnDevice<GigEDevice>(__func__, entry, ipAddress != nullptr, [&](GigEDevice& device, std::uint32_t) {
        GvcpDiscoveryRecord record{};
        const std::uint32_t status = device.GetRecord(&record);
        if (status == HAL_OK) {
            *ipAddress = record.ipAddress;
        }
        return status;
    });
}

uint32_t HAL_GigEGetConfigInfo(void* entry, uint32_t* macHigh, uint32_t* macLow, uint32_t* serialNumber,
                               uint32_t* version, uint32_t* deviceMode, char* vendor, char* model, uint32_t* vendorSize,
                               uint32_t* modelSize) {
    const bool good =
        macHigh && macLow && serialNumber && version && deviceMode && vendor && model && vendorSize && modelSize;
    return OnDevice<GigEDevice>(__func__, entry, good, [&](GigEDevice& device, std::uint32_t) {
        GvcpDiscoveryRecord record{};
        const std::uint32_t status = device.GetRecord(&record);
        if (status != HAL_OK) {
            return status;
        }
        *macHigh = record.macHigh;
        *macLow = record.macLow;
        *serialNumber = LeadingNumber(FieldText(record.serialNumber));
        *version = std::uint32_t{record.versionMajor} << 16 | record.versionMinor;
        *deviceMode = record.deviceMode;
        CopyText(FieldText(record.manufacturerName), vendor, vendorSize);
        CopyText(FieldText(record.modelName), model, modelSize);
        return status;
    });
}

uint32_t HAL_GigEGetDiscoveryRecord(void* entry, GvcpDiscoveryRecord* record) {
    return OnDevice<GigEDevice>(__func__, entry, record != nullptr,
                                [&](GigEDevice& device, std::uint32_t) { return device.GetRecord(record); });
}

uint32_t HAL_GigEReadRegister(void* entry, uint32_t address, uint32_t* value) {
    return OnDevice<GigEDevice>(__func__, entry, address % 4 == 0 && value,
                                [&](GigEDevice& device, std::uint32_t) { return device.ReadRegister(address, value); });
}

uint32_t HAL_GigEWriteRegister(void* entry, uint32_t address, uint32_t value) {
    return OnDevice<GigEDevice>(__func__, entry, address % 4 == 0, [&](GigEDevice& device, std::uint32_t) {
        return device.WriteRegister(address, value);
    });
}

uint32_t HAL_GigEIsInMonitorMode(void* entry, uint32_t* monitor) {
    return OnDevice<GigEDevice>(__func__, entry, monitor != nullptr, [&](GigEDevice& device, std::uint32_t) {
        bool monitored = false;
        const std::uint32_t status = device.IsInMonitorMode(&monitored);
        if (status == HAL_OK) {
            *monitor = monitored ? 1 : 0;
        }
        return status;
    });
}

uint32_t HAL_GigEGetLocalApplicationPort(void* entry, uint32_t* port) {
    return OnDevice<GigEDevice>(__func__, entry, port != nullptr,
                                [&](GigEDevice& device, std::uint32_t) { return device.GetLocalPort(port); });
}

uint32_t HAL_GigEGetLocalApplicationIpAddress(void* entry, uint32_t* ipAddress) {
    return OnDevice<GigEDevice>(__func__, entry, ipAddress != nullptr,
                                [&](GigEDevice& device, std::uint32_t) { return device.GetLocalAddress(ipAddress); });
}

uint32_t HAL_GvcpDiscovery(GvcpDiscoveryRecord* records, uint32_t* count) {
    const bool good = count != nullptr && (records != nullptr || *count == 0);
    return InSession(__func__, good, [&](Session& session) -> std::uint32_t {
        GigEDiscovery discovery;
        const std::uint32_t status = session.GigE().Discover(std::nullopt, &discovery);
        if (status != HAL_OK) {
            return status;
        }
        const std::uint32_t capacity = *count;
        *count = static_cast<std::uint32_t>(discovery.cameras.size());
        if (*count > capacity) {
            return HAL_ARRAY_TOO_SMALL;
        }
        std::transform(discovery.cameras.begin(), discovery.cameras.end(), records,
                       [](const CameraDiagnosis& camera) { return camera.record; });
        return HAL_OK;
    });
}

uint32_t HAL_GvcpForceIp(uint32_t macHigh, uint32_t macLow, uint32_t ipAddress, uint32_t subnetMask, uint32_t gateway) {
    return InSession(__func__, macHigh <= 0xFFFF, [&](Session& session) {
        const std::uint32_t status = CheckCameraAddress(ipAddress, subnetMask, gateway);
        if (status != HAL_OK) {
            return status;
        }
        ForceIpResult result;
        return session.GigE().ForceAddress({std::uint64_t{macHigh} << 32 | macLow, ipAddress, subnetMask, gateway},
                                           &result);
    });
}

namespace {

std::uint32_t ForceIpAutomatically(Session& session, std::optional<std::uint32_t> serialNumber) {
    std::vector<AddressPlan> plans;
    const std::uint32_t status = session.GigE().PlanAddresses(serialNumber, &plans);
    if (status != HAL_OK) {
        return status;
    }
    if (serialNumber && plans.size() > 1) {
        return HAL_AMBIGUOUS;
    }
    return session.GigE().ApplyAddresses(&plans);
}

}  // namespace

uint32_t HAL_GvcpForceIpAuto(void) {
    return InSession(__func__, true, [](Session& session) { return ForceIpAutomatically(session, std::nullopt); });
}

uint32_t HAL_GvcpAutoForceIpToCamera(uint32_t serialNumber) {
    return InSession(__func__, true, [&](Session& session) { return ForceIpAutomatically(session, serialNumber); });
}
