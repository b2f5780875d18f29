// SPDX-License-Identifier: Apache-2.0
// The seam between the HAL that ships and its drivers: one interface per bus kind, implemented for Linux and for rigs.
//
// Life       A driver is made by HAL_InitLibrary with the sink that it reports to, started once, stopped once when
// Start
//            has answered HAL_OK, and destroyed. The sink outlives it.
// Threads    Everything may be called from any thread at any time between Start and the end of Stop, in parallel;
// device
//            objects also afterwards, for they are shared and may outlive their driver: they then answer HAL_CLOSED.
//            An operation in flight while Stop is called comes back soon.
// Results    HALStatus values, as HAL.h states them for the function of the same name. Out-parameters are never null.
//            What one holds after a failure is meaningless.
// Containers An operation that fills a container is given an empty one and appends to it.
// Memory     Operations may throw std::bad_alloc, and the bus is whole afterwards. Nothing else is thrown.
// Base class Each one answers for a bus that this computer does not have: it starts, lists nothing and reports nothing.
//            A driver overrides what its bus has.
#ifndef NIMBREL2_PLATFORM_DRIVERS_H
#define NIMBREL2_PLATFORM_DRIVERS_H

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hal/HAL.h"
#include "platform/Diagnostics.h"
#include "platform/FireWireDiagnostics.h"

namespace Nimbrel2::Platform {

/// What HAL_*GetConfigInfo answers: the five numbers in the order of that function (the third is the serial number).
struct ConfigInfo {
    std::array<std::uint32_t, 5> numbers{};
    std::string vendor;
    std::string model;
};

// ---- What is there
// ----------------------------------------------------------------------------------------------------

/// One device that users hear of when it arrives or leaves.
struct PresentDevice {
    /// Tells it from every other device of the bus kind, and stays while it is the same device. Any octets.
    std::string identity;
    /// Another number stands for another visit: the device left and came back between two looks (a USB device has
    /// another device number), or is reached in another way (a GigE camera has another address).
    std::uint64_t version = 0;
    /// The device words of its events: the halves of the EUI-64 of a FireWire node that is no camera, else 0.
    std::uint32_t firstWord = 0;
    std::uint32_t secondWord = 0;

    bool operator==(const PresentDevice&) const = default;
};

/// A bus kind at one moment.
struct BusState {
    /// Another number says that the bus was reset, or that something else changed for which users must enumerate anew.
    std::uint64_t resets = 0;
    std::vector<PresentDevice> devices;  ///< in any order, each identity once

    bool operator==(const BusState&) const = default;
};

/// What is news is decided behind this, for all drivers alike: it compares what it is given with what it was given
/// last and raises a bus reset for any difference, a removal for each device (identity and version) that is there no
/// longer, and an arrival for each new one, once, to every registration.
class BusEventSink {
public:
    virtual ~BusEventSink() = default;

    /// The bus is like this now. To be called in Start, and whenever it may have changed: with nothing changed nothing
    /// happens. A driver that could not make the state for want of memory must try again later, or the change is lost.
    /// Calls must come in the order of the changes: make them under the lock that guards what the driver knows.
    /// Never blocks, never takes memory and never calls back on this thread.
    virtual void Report(BusState state) noexcept = 0;

    /// The same from a driver that has waited for the end of the burst itself (10 ms of quiet, 100 ms at most): users
    /// hear of it at once.
    virtual void ReportSettled(BusState state) noexcept { Report(std::move(state)); }

    /// The bus failed: every registration gets HAL_BUS_ERROR.
    virtual void RaiseError() noexcept = 0;
};

/// What a listing found.
template <class Device>
struct Listing {
    /// Sorted as HAL.h says.
    std::vector<std::shared_ptr<Device>> devices;
    /// The bus at the moment of the listing: what a registration that follows takes for known. A listing that finds a
    /// change reports it to the sink before it returns, and returns the state that it reported.
    BusState state;
};

// ---- IEEE 1394
// --------------------------------------------------------------------------------------------------------

/// One node, found anew by card and EUI-64 at each call. HAL_GONE while it is not on its bus.
class FireWireDevice {
public:
    virtual ~FireWireDevice() = default;
    /// These three do no bus I/O.
    virtual std::uint32_t GetConfigInfo(ConfigInfo* info) = 0;
    virtual std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) = 0;
    virtual std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) = 0;
    /// One transaction, at most 3 s; a node that timed out answers HAL_TIMED_OUT at once for a second.
    /// offset is the whole 48-bit address offset, a multiple of 4.
    virtual std::uint32_t ReadQuadlet(std::uint64_t offset, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteQuadlet(std::uint64_t offset, std::uint32_t value) = 0;
    virtual std::uint32_t ReadPhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                  std::uint32_t* value) = 0;
    virtual std::uint32_t WritePhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                   std::uint32_t value) = 0;
    virtual std::uint32_t FireBusReset() = 0;
    virtual std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                                     std::uint32_t* generation) = 0;
    /// One serial number per phy id, 0 where none is known.
    virtual std::uint32_t GetNodeSerialNumbers(std::vector<std::uint32_t>* serialNumbers) = 0;
};

class FireWireBus {
public:
    virtual ~FireWireBus() = default;
    /// Listens from here on. Whatever but HAL_OK: nothing was started; the bus then counts as one that is not there,
    /// except that HAL_OUT_OF_MEMORY fails the whole HAL_InitLibrary.
    virtual std::uint32_t Start() { return HAL_OK; }
    /// Ends the driver's threads. Nothing is reported after it has returned.
    virtual void Stop() {}
    /// Opens nothing and does no transaction: milliseconds.
    virtual std::uint32_t ListCameras(Listing<FireWireDevice>* /*cameras*/) { return HAL_OK; }
    virtual std::uint32_t ListDevices(Listing<FireWireDevice>* /*devices*/) { return HAL_OK; }
    /// Cameras that are on no bus, and in no state. None has one of the serial numbers in taken.
    virtual std::uint32_t ListVirtualCameras(const std::vector<std::uint64_t>& /*taken*/,
                                             std::vector<std::shared_ptr<FireWireDevice>>* /*cameras*/) {
        return HAL_OK;
    }
    /// As FireWireDiagnostics.h states it for DiagnoseFireWire.
    virtual std::uint32_t Diagnose(bool /*askNodes*/, FireWireDiagnosis* /*diagnosis*/) { return HAL_NO_BUS; }
};

// ---- USB
// --------------------------------------------------------------------------------------------------------------

/// One camera, found anew by VID, PID and serial text at each call, by port path when that text is empty or not unique.
/// HAL_GONE while it is not attached.
class UsbDevice {
public:
    virtual ~UsbDevice() = default;
    /// These three do no bus I/O; the last also answers, with the last speed known, when the camera is gone.
    virtual std::uint32_t GetConfigInfo(ConfigInfo* info) = 0;
    virtual std::uint32_t GetSerialText(std::string* text) = 0;
    virtual std::uint32_t GetSpeed(std::uint32_t* megabits) = 0;
    /// One access, with the camera's interface claimed meanwhile: 200 ms a try, 1 s when the camera asks for time.
    virtual std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t value) = 0;
    virtual std::uint32_t FireBusReset() = 0;
    virtual std::uint32_t GetLinkInfo(std::uint32_t* link) = 0;
    virtual std::uint32_t GetPortStatus(std::uint32_t* status) = 0;
    /// The whole tree of the camera's controller, from one reading.
    virtual std::uint32_t GetTree(std::vector<UsbSelfId>* records, std::uint32_t* deviceId, std::uint64_t* hostKey,
                                  std::uint32_t* generation) = 0;
};

/// Start, Stop and listing as for FireWireBus.
class UsbBus {
public:
    virtual ~UsbBus() = default;
    virtual std::uint32_t Start() { return HAL_OK; }
    virtual void Stop() {}
    virtual std::uint32_t ListCameras(Listing<UsbDevice>* /*cameras*/) { return HAL_OK; }
    /// As Diagnostics.h states it for DiagnoseUsb.
    virtual std::uint32_t Diagnose(UsbDiagnosis* /*diagnosis*/) { return HAL_NO_BUS; }
};

// ---- GigE
// -------------------------------------------------------------------------------------------------------------

/// One camera, found anew by its MAC at each call. HAL_GONE while it does not answer at its address.
class GigEDevice {
public:
    virtual ~GigEDevice() = default;
    /// No network I/O; also of a camera that is gone, as it was listed.
    virtual std::uint32_t GetRecord(GvcpDiscoveryRecord* record) = 0;
    /// address is a multiple of 4.
    virtual std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteRegister(std::uint32_t address, std::uint32_t value) = 0;
    virtual std::uint32_t IsInMonitorMode(bool* monitor) = 0;
    virtual std::uint32_t GetLocalPort(std::uint32_t* port) = 0;
    virtual std::uint32_t GetLocalAddress(std::uint32_t* ipAddress) = 0;
};

/// Start, Stop and listing as for FireWireBus; a listing may wait for the network, at most three seconds, the first one
/// for the discovery window and two.
class GigEBus {
public:
    /// @param reason  What the services answer of a bus that has nothing: why no request can be sent.
    explicit GigEBus(std::uint32_t reason = HAL_NO_BUS) : m_reason(reason) {}
    virtual ~GigEBus() = default;
    GigEBus(const GigEBus&) = delete;
    GigEBus& operator=(const GigEBus&) = delete;

    virtual std::uint32_t Start() { return HAL_OK; }
    virtual void Stop() {}
    virtual std::uint32_t ListCameras(Listing<GigEDevice>* /*cameras*/) { return HAL_OK; }
    // As Diagnostics.h states them for the functions of these names. What Discover hears is also what
    // HAL_GvcpDiscovery answers, and ForceAddress and the two for plans are what HAL_GvcpForceIp and its siblings do.
    virtual std::uint32_t Discover(const std::optional<GigECameraName>& /*until*/, GigEDiscovery* /*discovery*/) {
        return m_reason;
    }
    /// @param address  Has passed CheckCameraAddress (platform/base/CameraAddress.h).
    virtual std::uint32_t ForceAddress(const GigEAddress& /*address*/, ForceIpResult* /*result*/) { return m_reason; }
    virtual std::uint32_t PlanAddresses(std::optional<std::uint32_t> /*serialNumber*/,
                                        std::vector<AddressPlan>* /*plans*/) {
        return m_reason;
    }
    virtual std::uint32_t ApplyAddresses(std::vector<AddressPlan>* /*plans*/) { return m_reason; }
    virtual std::uint32_t FindAddressHolder(std::uint32_t /*ip*/, AddressHolder* /*holder*/) { return m_reason; }
    virtual std::uint32_t Diagnose(bool /*askControl*/, GigEDiagnosis* /*diagnosis*/) { return m_reason; }
    virtual std::uint32_t GetSearchReport(GigESearchReport* /*report*/) { return m_reason; }
    virtual std::uint32_t FindMutedCameras(GigEHearing* /*hearing*/) { return m_reason; }

private:
    const std::uint32_t m_reason;
};

// ---- Making them
// ------------------------------------------------------------------------------------------------------

/// One driver per bus kind, made but not started. A null one stands for a bus that is not there.
struct Drivers {
    std::unique_ptr<FireWireBus> fireWire;
    std::unique_ptr<UsbBus> usb;
    std::unique_ptr<GigEBus> gigE;
    /// At the head of each HAL function: what is not HAL_OK is the function's answer. May wait. Empty: nothing happens.
    std::function<std::uint32_t(const char* function)> enter;
};

/// Where each driver reports. They outlive the drivers.
struct BusEventSinks {
    BusEventSink& fireWire;
    BusEventSink& usb;
    BusEventSink& gigE;
};

}  // namespace Nimbrel2::Platform

#endif
