/* SPDX-License-Identifier: Apache-2.0
 * The smallest HAL: every function of hal/HAL.h, with three buses on which nothing is attached. Start from it for a HAL
 * of your own, and link that after nimbrel2::core (pkg-config: nimbrel2-core). Any thread; its one variable is atomic.
 */
#include <stdatomic.h>
#include <stdbool.h>
#include <stddef.h>

#include "hal/HAL.h"

static atomic_bool running;

/* Nothing is ever listed, so no entry names a device. What comes behind the entry is passed for completeness only. */
static uint32_t NoSuchEntry(const void* entry, ...) {
    if (!running) return HAL_CLOSED;
    return entry == NULL ? HAL_INVALID_ARGUMENT : HAL_GONE;
}

static uint32_t ListNothing(void** entries, uint64_t* count) {
    if (!running) return HAL_CLOSED;
    if (entries == NULL || count == NULL) return HAL_INVALID_ARGUMENT;
    *count = 0;
    return HAL_OK;
}

/* Nothing ever happens on these buses, so a registration needs no thread and is the same for all who ask. */
static char registered;

static uint32_t Register(void** registration, HALBusEventFunction function) {
    if (registration != NULL) *registration = NULL;
    if (!running) return HAL_CLOSED;
    if (registration == NULL || function == NULL) return HAL_INVALID_ARGUMENT;
    *registration = &registered;
    return HAL_OK;
}

static uint32_t Deregister(const void* registration) {
    if (!running) return HAL_CLOSED;
    if (registration == NULL) return HAL_INVALID_ARGUMENT;
    return registration == &registered ? HAL_OK : HAL_GONE;
}

static uint32_t NoNetwork(int unusedArguments, ...) {
    (void)unusedArguments;
    return running ? HAL_NO_BUS : HAL_CLOSED;
}

uint32_t HAL_InitLibrary(void) { return atomic_exchange(&running, true) ? HAL_BUSY : HAL_OK; }
uint32_t HAL_CleanupLibrary(void) { return atomic_exchange(&running, false) ? HAL_OK : HAL_CLOSED; }

/* ---- Listings ---- */

uint32_t HAL_1394GetCameras(void** entries, uint64_t* count) { return ListNothing(entries, count); }
uint32_t HAL_1394GetVirtualCameras(void** entries, const uint64_t* serialNumbers, uint64_t* count) {
    (void)serialNumbers;
    return ListNothing(entries, count);
}
uint32_t HAL_1394GetDevices(void** entries, uint64_t* count) { return ListNothing(entries, count); }
uint32_t HAL_UsbGetCameras(void** entries, uint64_t* count) { return ListNothing(entries, count); }
uint32_t HAL_GigEGetCameras(void** entries, uint64_t* count) { return ListNothing(entries, count); }

/* ---- Bus event registration ---- */

uint32_t HAL_1394RegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    (void)context;
    return Register(registration, function);
}
uint32_t HAL_UsbRegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    (void)context;
    return Register(registration, function);
}
uint32_t HAL_GigERegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    (void)context;
    return Register(registration, function);
}
uint32_t HAL_1394DeregisterBusEvents(void* registration) { return Deregister(registration); }
uint32_t HAL_UsbDeregisterBusEvents(void* registration) { return Deregister(registration); }
uint32_t HAL_GigEDeregisterBusEvents(void* registration) { return Deregister(registration); }

/* ---- GVCP services ---- */

uint32_t HAL_GvcpDiscovery(GvcpDiscoveryRecord* records, uint32_t* count) { return NoNetwork(2, records, count); }
uint32_t HAL_GvcpForceIp(uint32_t macHigh, uint32_t macLow, uint32_t ipAddress, uint32_t subnetMask, uint32_t gateway) {
    return NoNetwork(5, macHigh, macLow, ipAddress, subnetMask, gateway);
}
uint32_t HAL_GvcpForceIpAuto(void) { return NoNetwork(0); }
uint32_t HAL_GvcpAutoForceIpToCamera(uint32_t serialNumber) { return NoNetwork(1, serialNumber); }

/* ---- One entry ---- */

uint32_t HAL_1394FreeCamera(void* entry) { return NoSuchEntry(entry); }
uint32_t HAL_1394FreeDevice(void* entry) { return NoSuchEntry(entry); }
uint32_t HAL_UsbFreeCamera(void* entry) { return NoSuchEntry(entry); }
uint32_t HAL_GigEFreeCamera(void* entry) { return NoSuchEntry(entry); }
uint32_t HAL_GigEGetCameraIpAddress(void* entry, uint32_t* ipAddress) { return NoSuchEntry(entry, ipAddress); }
uint32_t HAL_1394GetConfigInfo(void* entry, uint32_t* first, uint32_t* nodeAddress, uint32_t* serialNumber,
                               uint32_t* card, uint32_t* unitVersion, char* vendor, char* model, uint32_t* vendorSize,
                               uint32_t* modelSize) {
    return NoSuchEntry(entry, first, nodeAddress, serialNumber, card, unitVersion, vendor, model, vendorSize,
                       modelSize);
}
uint32_t HAL_1394GetDeviceInfo(void* entry, uint32_t* info1, uint32_t* info2, uint32_t* info3) {
    return NoSuchEntry(entry, info1, info2, info3);
}
uint32_t HAL_1394GetNode(void* entry, uint16_t* node, uint16_t* busNumber) {
    return NoSuchEntry(entry, node, busNumber);
}
uint32_t HAL_1394ReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value) {
    return NoSuchEntry(entry, address, selector, value);
}
uint32_t HAL_1394WriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value, uint32_t flags) {
    return NoSuchEntry(entry, address, selector, value, flags);
}
uint32_t HAL_1394ReadPhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address, uint32_t* value) {
    return NoSuchEntry(entry, page, port, address, value);
}
uint32_t HAL_1394WritePhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address, uint32_t value) {
    return NoSuchEntry(entry, page, port, address, value);
}
uint32_t HAL_1394FireBusReset(void* entry) { return NoSuchEntry(entry); }
uint32_t HAL_1394GetSelfIds(void* entry, SelfIdPacket_t* packets, uint64_t* count, uint64_t* busKey,
                            uint32_t* generation) {
    return NoSuchEntry(entry, packets, count, busKey, generation);
}
uint32_t HAL_1394GetNodeSerialNumbers(void* entry, uint32_t* serialNumbers, uint64_t count) {
    return NoSuchEntry(entry, serialNumbers, count);
}
uint32_t HAL_UsbGetConfigInfo(void* entry, uint32_t* vidPid, uint32_t* busAndAddress, uint32_t* serialNumber,
                              uint32_t* speed, uint32_t* version, char* vendor, char* model, uint32_t* vendorSize,
                              uint32_t* modelSize) {
    return NoSuchEntry(entry, vidPid, busAndAddress, serialNumber, speed, version, vendor, model, vendorSize,
                       modelSize);
}
uint32_t HAL_UsbGetSerialText(void* entry, char* text, uint32_t* size) { return NoSuchEntry(entry, text, size); }
uint32_t HAL_UsbGetSpeed(void* entry, uint32_t* speed) { return NoSuchEntry(entry, speed); }
uint32_t HAL_UsbReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value) {
    return NoSuchEntry(entry, address, selector, value);
}
uint32_t HAL_UsbWriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value, uint32_t flags) {
    return NoSuchEntry(entry, address, selector, value, flags);
}
uint32_t HAL_UsbFireBusReset(void* entry) { return NoSuchEntry(entry); }
uint32_t HAL_UsbGetLinkInfo(void* entry, uint32_t* link) { return NoSuchEntry(entry, link); }
uint32_t HAL_UsbGetPortStatus(void* entry, uint32_t* status) { return NoSuchEntry(entry, status); }
uint32_t HAL_UsbGetSelfIds(void* entry, UsbSelfId* records, uint64_t* count, uint32_t* deviceId, uint64_t* hostKey,
                           uint32_t* generation) {
    return NoSuchEntry(entry, records, count, deviceId, hostKey, generation);
}
uint32_t HAL_GigEGetConfigInfo(void* entry, uint32_t* macHigh, uint32_t* macLow, uint32_t* serialNumber,
                               uint32_t* version, uint32_t* deviceMode, char* vendor, char* model, uint32_t* vendorSize,
                               uint32_t* modelSize) {
    return NoSuchEntry(entry, macHigh, macLow, serialNumber, version, deviceMode, vendor, model, vendorSize, modelSize);
}
uint32_t HAL_GigEGetDiscoveryRecord(void* entry, GvcpDiscoveryRecord* record) { return NoSuchEntry(entry, record); }
uint32_t HAL_GigEReadRegister(void* entry, uint32_t address, uint32_t* value) {
    return NoSuchEntry(entry, address, value);
}
uint32_t HAL_GigEWriteRegister(void* entry, uint32_t address, uint32_t value) {
    return NoSuchEntry(entry, address, value);
}
uint32_t HAL_GigEIsInMonitorMode(void* entry, uint32_t* monitor) { return NoSuchEntry(entry, monitor); }
uint32_t HAL_GigEGetLocalApplicationPort(void* entry, uint32_t* port) { return NoSuchEntry(entry, port); }
uint32_t HAL_GigEGetLocalApplicationIpAddress(void* entry, uint32_t* ipAddress) {
    return NoSuchEntry(entry, ipAddress);
}
