// SPDX-License-Identifier: Apache-2.0
// The seam between the shipped HAL and its drivers: one interface a bus kind, implemented for Linux and for rigs.
//
// A driver is made by HAL_InitLibrary and destroyed by HAL_CleanupLibrary. Everything here may be called from any
// thread at any time in between, in parallel. All results are HALStatus values as HAL.h states them for the function of
// the same name; out-parameters are never null. Device objects name a physical device (see HAL.h, "Entries"); they are
// held by shared pointers and may outlive their driver's Stop, after which they answer HAL_CLOSED.
#ifndef NIMBREL2_PLATFORM_DRIVERS_H
#define NIMBREL2_PLATFORM_DRIVERS_H

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/Diagnostics.h"

namespace Nimbrel2::Platform {

/// What HAL_*GetConfigInfo answers: the five numbers in the order of that function (the third is the serial number).
struct ConfigInfo {
    std::array<std::uint32_t, 5> numbers{};
    std::string vendor;
    std::string model;
};

/// Where a driver reports what happens on its bus. Never blocks and never calls back on the caller's thread, so it may
/// be called with the driver's locks held.
class BusEventSink {
public:
    virtual ~BusEventSink() = default;

    /// Something on the bus changed: every registration gets a bus reset, after a burst has settled (10 ms of quiet,
    /// 100 ms at most). The change counts as unseen until a listing that began later has ended. A change that the
    /// driver finds while it lists, and returns with that listing, is not raised: whoever lists learns of it from the
    /// result.
    virtual void RaiseReset() = 0;

    /// One device came, left, or the bus failed. The words are 0 except for FireWire nodes that are no cameras.
    virtual void Raise(HALBusEvent event, std::uint32_t first, std::uint32_t second) = 0;
};

class FireWireDevice {
public:
    virtual ~FireWireDevice() = default;
    virtual std::uint32_t GetConfigInfo(ConfigInfo* info) = 0;
    virtual std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) = 0;
    virtual std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) = 0;
    /// offset is the whole 48-bit address offset.
    virtual std::uint32_t ReadQuadlet(std::uint64_t offset, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteQuadlet(std::uint64_t offset, std::uint32_t value) = 0;
    virtual std::uint32_t ReadPhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                  std::uint32_t* value) = 0;
    virtual std::uint32_t WritePhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                   std::uint32_t value) = 0;
    virtual std::uint32_t FireBusReset() = 0;
    virtual std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                                     std::uint32_t* generation) = 0;
    /// One serial number a phy id, 0 where none is known.
    virtual std::uint32_t GetNodeSerialNumbers(std::vector<std::uint32_t>* serialNumbers) = 0;
};

class FireWireBus {
public:
    virtual ~FireWireBus() = default;
    virtual std::uint32_t Start() = 0;
    virtual void Stop() = 0;
    virtual std::uint32_t ListCameras(std::vector<std::shared_ptr<FireWireDevice>>* cameras) = 0;
    /// No virtual camera has one of the serial numbers in taken.
    virtual std::uint32_t ListVirtualCameras(const std::vector<std::uint64_t>& taken,
                                             std::vector<std::shared_ptr<FireWireDevice>>* cameras) = 0;
    virtual std::uint32_t ListDevices(std::vector<std::shared_ptr<FireWireDevice>>* devices) = 0;
};

class UsbDevice {
public:
    virtual ~UsbDevice() = default;
    virtual std::uint32_t GetConfigInfo(ConfigInfo* info) = 0;
    virtual std::uint32_t GetSerialText(std::string* text) = 0;
    virtual std::uint32_t GetSpeed(std::uint32_t* megabits) = 0;
    virtual std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t value) = 0;
    virtual std::uint32_t FireBusReset() = 0;
    virtual std::uint32_t GetLinkInfo(std::uint32_t* link) = 0;
    virtual std::uint32_t GetPortStatus(std::uint32_t* status) = 0;
    virtual std::uint32_t GetTree(std::vector<UsbSelfId>* records, std::uint32_t* deviceId, std::uint64_t* hostKey,
                                  std::uint32_t* generation) = 0;
};

class UsbBus {
public:
    virtual ~UsbBus() = default;
    virtual std::uint32_t Start() = 0;
    virtual void Stop() = 0;
    virtual std::uint32_t ListCameras(std::vector<std::shared_ptr<UsbDevice>>* cameras) = 0;
};

class GigEDevice {
public:
    virtual ~GigEDevice() = default;
    virtual std::uint32_t GetRecord(GvcpDiscoveryRecord* record) = 0;
    virtual std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteRegister(std::uint32_t address, std::uint32_t value) = 0;
    virtual std::uint32_t IsInMonitorMode(bool* monitor) = 0;
    virtual std::uint32_t GetLocalPort(std::uint32_t* port) = 0;
    virtual std::uint32_t GetLocalAddress(std::uint32_t* ipAddress) = 0;
};

class GigEBus {
public:
    virtual ~GigEBus() = default;
    virtual std::uint32_t Start() = 0;
    virtual void Stop() = 0;
    virtual std::uint32_t ListCameras(std::vector<std::shared_ptr<GigEDevice>>* cameras) = 0;
    virtual std::uint32_t Discover(std::vector<GvcpDiscoveryRecord>* records) = 0;
    virtual std::uint32_t ForceIp(std::uint64_t mac, std::uint32_t ipAddress, std::uint32_t subnetMask,
                                  std::uint32_t gateway) = 0;
    virtual std::uint32_t ForceIpAuto() = 0;
    virtual std::uint32_t AutoForceIpToCamera(std::uint32_t serialNumber) = 0;
    /// As Diagnostics.h states it for DiagnoseGigE.
    virtual std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis) = 0;
    /// As Diagnostics.h states it for TestGigEHearing.
    virtual std::uint32_t TestHearing(GigEHearing* hearing) = 0;
    /// As Diagnostics.h states it for PlanGigEAddresses.
    virtual std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) = 0;
};

}  // namespace Nimbrel2::Platform

#endif
