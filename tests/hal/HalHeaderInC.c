/* SPDX-License-Identifier: Apache-2.0
 * HAL.h as a C program sees it. No thread, no lock.
 */
#include "tests/hal/HalHeaderInC.h"

#include <stddef.h>

#include "hal/HAL.h"

_Static_assert(sizeof(HALStatus) == 4 && sizeof(HALBusEvent) == 4 && sizeof(HALInterfaceType) == 4,
               "enums cross the line as 32 bits");

/* A callback of the registered type can be written in C. */
static void OnEvent(HALBusEvent event, void* context, HALInterfaceType interfaceType, unsigned int first,
                    unsigned int second, unsigned int third) {
    *(uint32_t*)context = event + interfaceType + first + second + third;
}

uint32_t CallTheCallback(HALBusEvent event, HALInterfaceType interfaceType) {
    const HALBusEventFunction function = &OnEvent;
    uint32_t sum = 0;
    function(event, &sum, interfaceType, 10, 20, 30);
    return sum;
}

uint64_t SizeInC(enum RecordOfTheHal record) {
    switch (record) {
        case RECORD_SELF_ID:
            return sizeof(SelfIdPacket_t);
        case RECORD_USB:
            return sizeof(UsbSelfId);
        case RECORD_DISCOVERY:
            return sizeof(GvcpDiscoveryRecord);
    }
    return 0;
}

/* Every offset of the discovery record, one after the other. */
const uint64_t DISCOVERY_OFFSETS_IN_C[] = {
    offsetof(GvcpDiscoveryRecord, versionMajor),     offsetof(GvcpDiscoveryRecord, versionMinor),
    offsetof(GvcpDiscoveryRecord, deviceMode),       offsetof(GvcpDiscoveryRecord, macHigh),
    offsetof(GvcpDiscoveryRecord, padding),          offsetof(GvcpDiscoveryRecord, macLow),
    offsetof(GvcpDiscoveryRecord, ipConfigOptions),  offsetof(GvcpDiscoveryRecord, ipConfigCurrent),
    offsetof(GvcpDiscoveryRecord, ipAddress),        offsetof(GvcpDiscoveryRecord, subnetMask),
    offsetof(GvcpDiscoveryRecord, defaultGateway),   offsetof(GvcpDiscoveryRecord, manufacturerName),
    offsetof(GvcpDiscoveryRecord, modelName),        offsetof(GvcpDiscoveryRecord, deviceVersion),
    offsetof(GvcpDiscoveryRecord, manufacturerInfo), offsetof(GvcpDiscoveryRecord, serialNumber),
    offsetof(GvcpDiscoveryRecord, userDefinedName)};
const uint64_t DISCOVERY_FIELDS_IN_C = sizeof DISCOVERY_OFFSETS_IN_C / sizeof DISCOVERY_OFFSETS_IN_C[0];
