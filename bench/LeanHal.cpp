// SPDX-License-Identifier: Apache-2.0
// The HAL of the benchmarks. Any thread, no lock.
#include "bench/LeanHal.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <thread>

#include "bench/LeanBuses.h"

using Nimbrel2::Bench::FullFireWireBus;
using Nimbrel2::Bench::FullUsbHost;

namespace {

struct Camera {
    std::uint32_t serialNumber = 0;
};

struct Bus {
    std::array<Camera, 256> cameras;
    std::atomic<unsigned int> attached{0};
    std::atomic<std::int64_t> listingMilliseconds{0};

    explicit Bus(std::uint32_t firstSerialNumber) {
        for (Camera& camera : cameras) {
            camera.serialNumber = firstSerialNumber++;
        }
    }

    std::size_t PlaceOf(const void* entry) const {
        return static_cast<std::size_t>(static_cast<const Camera*>(entry) - cameras.data());
    }

    std::uint32_t List(void** entries, std::uint64_t* count) {
        if (const std::int64_t milliseconds = listingMilliseconds) {
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        }
        *count = std::min<std::uint64_t>(*count, attached);
        for (std::uint64_t i = 0; i < *count; ++i) {
            entries[i] = &cameras[i];
        }
        return HAL_OK;
    }
};

Bus g_fireWire(1);
Bus g_usb(1001);
Bus g_gigE(2001);
std::atomic<std::uint64_t> g_listings{0};
std::atomic<HALBusEventFunction> g_function{nullptr};
std::atomic<void*> g_context{nullptr};

void PutText(const char* text, char* buffer, std::uint32_t* size) {
    const std::size_t length = std::strlen(text);
    std::memcpy(buffer, text, length + 1);
    *size = static_cast<std::uint32_t>(length);
}

std::uint32_t Identify(void* entry, std::uint32_t* serialNumber, char* vendor, char* model, std::uint32_t* vendorSize,
                       std::uint32_t* modelSize) {
    *serialNumber = static_cast<const Camera*>(entry)->serialNumber;
    PutText("Vendor of cameras", vendor, vendorSize);
    PutText("Model with a name", model, modelSize);
    return HAL_OK;
}

std::uint32_t Register(void** registration) {
    *registration = &g_listings;
    return HAL_OK;
}

}  // namespace

namespace Nimbrel2::Bench {

void AttachCameras(unsigned int fireWire, unsigned int usb, unsigned int gigE) {
    g_fireWire.attached = fireWire;
    g_usb.attached = usb;
    g_gigE.attached = gigE;
}

void SetListingTime(std::chrono::milliseconds fireWire, std::chrono::milliseconds usb, std::chrono::milliseconds gigE) {
    g_fireWire.listingMilliseconds = fireWire.count();
    g_usb.listingMilliseconds = usb.count();
    g_gigE.listingMilliseconds = gigE.count();
}

void RaiseBusReset() {
    if (const HALBusEventFunction function = g_function) {
        function(HAL_BUS_RESET, g_context, HAL_INTERFACE_1394, 0, 0, 0);
    }
}

std::uint64_t CountListings() { return g_listings; }

}  // namespace Nimbrel2::Bench

uint32_t HAL_InitLibrary(void) { return HAL_OK; }
uint32_t HAL_CleanupLibrary(void) { return HAL_OK; }

uint32_t HAL_1394GetCameras(void** entries, uint64_t* count) { return g_fireWire.List(entries, count); }
uint32_t HAL_UsbGetCameras(void** entries, uint64_t* count) { return g_usb.List(entries, count); }
uint32_t HAL_GigEGetCameras(void** entries, uint64_t* count) {
    ++g_listings;
    return g_gigE.List(entries, count);
}
uint32_t HAL_1394GetVirtualCameras(void**, const uint64_t*, uint64_t* count) { return *count = 0, HAL_OK; }
uint32_t HAL_1394GetDevices(void**, uint64_t* count) { return *count = 0, HAL_OK; }
uint32_t HAL_1394FreeCamera(void*) { return HAL_OK; }
uint32_t HAL_1394FreeDevice(void*) { return HAL_OK; }
uint32_t HAL_UsbFreeCamera(void*) { return HAL_OK; }
uint32_t HAL_GigEFreeCamera(void*) { return HAL_OK; }

uint32_t HAL_1394RegisterBusEvents(void** registration, HALBusEventFunction function, void* context) {
    g_context = context;
    g_function = function;
    return Register(registration);
}
uint32_t HAL_UsbRegisterBusEvents(void** registration, HALBusEventFunction, void*) { return Register(registration); }
uint32_t HAL_GigERegisterBusEvents(void** registration, HALBusEventFunction, void*) { return Register(registration); }
uint32_t HAL_1394DeregisterBusEvents(void*) { return g_function = nullptr, HAL_OK; }
uint32_t HAL_UsbDeregisterBusEvents(void*) { return HAL_OK; }
uint32_t HAL_GigEDeregisterBusEvents(void*) { return HAL_OK; }

uint32_t HAL_1394GetConfigInfo(void* entry, uint32_t*, uint32_t*, uint32_t* serialNumber, uint32_t*, uint32_t*,
                               char* vendor, char* model, uint32_t* vendorSize, uint32_t* modelSize) {
    return Identify(entry, serialNumber, vendor, model, vendorSize, modelSize);
}
uint32_t HAL_UsbGetConfigInfo(void* entry, uint32_t*, uint32_t*, uint32_t* serialNumber, uint32_t*, uint32_t*,
                              char* vendor, char* model, uint32_t* vendorSize, uint32_t* modelSize) {
    return Identify(entry, serialNumber, vendor, model, vendorSize, modelSize);
}
uint32_t HAL_GigEGetConfigInfo(void* entry, uint32_t*, uint32_t*, uint32_t* serialNumber, uint32_t*, uint32_t*,
                               char* vendor, char* model, uint32_t* vendorSize, uint32_t* modelSize) {
    return Identify(entry, serialNumber, vendor, model, vendorSize, modelSize);
}
uint32_t HAL_1394GetNode(void* entry, uint16_t* node, uint16_t* busNumber) {
    *node = static_cast<uint16_t>(static_cast<const Camera*>(entry)->serialNumber % 63);
    *busNumber = 0;
    return HAL_OK;
}
uint32_t HAL_1394ReadRegister(void* entry, uint64_t, uint32_t, uint32_t* value) {
    return *value = static_cast<const Camera*>(entry)->serialNumber, HAL_OK;
}
uint32_t HAL_1394WriteRegister(void*, uint64_t, uint32_t, uint32_t, uint32_t) { return HAL_OK; }
uint32_t HAL_UsbGetSpeed(void*, uint32_t* speed) { return *speed = 5000, HAL_OK; }
uint32_t HAL_GigEReadRegister(void* entry, uint32_t, uint32_t* value) {
    return *value = 0x0A000000 + static_cast<const Camera*>(entry)->serialNumber, HAL_OK;
}
uint32_t HAL_GigEIsInMonitorMode(void*, uint32_t* monitor) { return *monitor = 0, HAL_OK; }

// Cameras fill one bus or controller after the other, in the order of their listing.
uint32_t HAL_1394GetSelfIds(void* entry, SelfIdPacket_t* packets, uint64_t* count, uint64_t* busKey,
                            uint32_t* generation) {
    const auto& bus = FullFireWireBus();
    *count = bus.stream.size();
    *busKey = g_fireWire.PlaceOf(entry) / bus.cameras.size();
    *generation = 1;
    std::copy(bus.stream.begin(), bus.stream.end(), packets);
    return HAL_OK;
}
uint32_t HAL_1394GetNodeSerialNumbers(void* entry, uint32_t* serialNumbers, uint64_t count) {
    const auto& bus = FullFireWireBus();
    const std::size_t first = g_fireWire.PlaceOf(entry) / bus.cameras.size() * bus.cameras.size();
    for (std::size_t i = 0; i < bus.cameras.size() && bus.cameras[i] < count && first + i < g_fireWire.attached; ++i) {
        serialNumbers[bus.cameras[i]] = g_fireWire.cameras[first + i].serialNumber;
    }
    return HAL_OK;
}
uint32_t HAL_UsbGetSelfIds(void* entry, UsbSelfId* records, uint64_t* count, uint32_t* deviceId, uint64_t* hostKey,
                           uint32_t* generation) {
    const auto& host = FullUsbHost();
    const std::size_t place = g_usb.PlaceOf(entry);
    *count = host.records.size();
    *deviceId = host.cameras[place % host.cameras.size()];
    *hostKey = place / host.cameras.size();
    *generation = 1;
    std::copy(host.records.begin(), host.records.end(), records);
    return HAL_OK;
}

// What no benchmark asks for.
uint32_t HAL_GigEGetCameraIpAddress(void*, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_GvcpDiscovery(GvcpDiscoveryRecord*, uint32_t*) { return HAL_NO_BUS; }
uint32_t HAL_GvcpForceIp(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) { return HAL_NO_BUS; }
uint32_t HAL_GvcpForceIpAuto(void) { return HAL_NO_BUS; }
uint32_t HAL_GvcpAutoForceIpToCamera(uint32_t) { return HAL_NO_BUS; }
uint32_t HAL_1394GetDeviceInfo(void*, uint32_t*, uint32_t*, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_1394ReadPhyRegister(void*, uint32_t, uint32_t, uint32_t, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_1394WritePhyRegister(void*, uint32_t, uint32_t, uint32_t, uint32_t) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_1394FireBusReset(void*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_UsbGetSerialText(void*, char*, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_UsbReadRegister(void*, uint64_t, uint32_t, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_UsbWriteRegister(void*, uint64_t, uint32_t, uint32_t, uint32_t) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_UsbFireBusReset(void*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_UsbGetLinkInfo(void*, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_UsbGetPortStatus(void*, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_GigEGetDiscoveryRecord(void*, GvcpDiscoveryRecord*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_GigEWriteRegister(void*, uint32_t, uint32_t) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_GigEGetLocalApplicationPort(void*, uint32_t*) { return HAL_NOT_SUPPORTED; }
uint32_t HAL_GigEGetLocalApplicationIpAddress(void*, uint32_t*) { return HAL_NOT_SUPPORTED; }
