// SPDX-License-Identifier: Apache-2.0
// The seam between the HAL that ships and its drivers: one interface per bus kind, implemented for Linux and for rigs.
//
// Life       A driver is made by HAL_InitLibrary with the sink that it reports to, started once, stopped once if Start
//            has answered HAL_OK, and destroyed. The sink outlives it.
// Threads    Everything may be called from any thread at any time between Start and the end of Stop, in parallel.
//            Devices are shared and may outlive their driver: they then answer HAL_CLOSED. An operation in flight while
//            Stop is called comes back soon.
// Arguments  The glue has checked them: addresses are aligned and within their range, out-parameters are never null.
//            What an out-parameter holds after a failure is meaningless.
// Containers The glue hands over an empty one and the driver appends; the driver sorts where it says so; the glue cuts
//            what does not fit its caller.
// Results    HALStatus values. Every operation may answer HAL_CLOSED (Stop has been called) and HAL_FAILED (whatever
//            has no status of its own); each class says what else. errno and the codes of a bus are turned into these
//            here, and none is passed on: base/Errno.h has a status for each errno of sockets and files, a driver its
//            own table for its bus (linux/usb/OpenDevice.cpp for libusb, gvcp/GvcpStatus.cpp for cameras).
// Cost       "No I/O" means from memory: microseconds. What may block says for how long, and holds no lock meanwhile
//            that Report or a listing needs.
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
#include "platform/BusMap.h"
#include "platform/Diagnostics.h"
#include "platform/FireWireDiagnostics.h"

namespace Nimbrel2::Platform {

/// What HAL_*GetConfigInfo answers: the five numbers in the order of that function (the third is the serial number).
struct ConfigInfo {
    std::array<std::uint32_t, 5> numbers{};
    std::string vendor;
    std::string model;
};

// ---- What is there --------------------------------------------------------------------------------------------------

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
    /// A number of the driver's own, which need not count anything: another one than last time has every user enumerate
    /// anew, also when the devices are the same. IEEE 1394 raises it with each bus reset, for node ids change; USB with
    /// each change of a tree, for hubs are no devices here, and when a camera's port was reset; GigE leaves it 0.
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
    /// happens. A driver that could not make the state for want of memory must try again later, or say so by
    /// ReportUnknown, or the change is lost.
    /// Calls must come in the order of the changes: make them under the lock that guards what the driver knows.
    /// Never blocks, never takes memory and never calls back on this thread.
    virtual void Report(BusState state) noexcept = 0;

    /// The same when the burst is over, so that users hear of it at once: from a driver that has waited for its end (10
    /// ms of quiet, 100 ms at most), or on whose bus no time passes.
    virtual void ReportSettled(BusState state) noexcept { Report(std::move(state)); }

    /// The bus has changed, and there is no memory to say how: every registration gets a bus reset, and the listing
    /// that follows reports the rest. For a driver without a thread that could try again; called as Report is.
    virtual void ReportUnknown() noexcept {}

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

// ---- IEEE 1394 ------------------------------------------------------------------------------------------------------

/// One node, found anew by card and EUI-64 at each call. HAL_GONE while it is not on its bus; where there is I/O, also
/// HAL_PERMISSION (this user may not open the node), HAL_BUSY, HAL_TIMED_OUT and HAL_BAD_ANSWER.
class FireWireDevice {
public:
    virtual ~FireWireDevice() = default;
    /// EUI-64's high quadlet, node id (0xFFC0 | phy id), EUI-64's low quadlet as the serial number, card, software
    /// version of the unit; the texts of the configuration ROM. A virtual camera has 0 where it has nothing. Of a node
    /// that has left what the listing saw, with 0xFFFF for node id and card. No I/O.
    virtual std::uint32_t GetConfigInfo(ConfigInfo* info) = 0;
    /// No I/O.
    virtual std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) = 0;
    /// Phy id and card, as the bus was last seen; 0xFFFF for what may not be known. No I/O.
    virtual std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) = 0;
    /// One transaction, in host order, at most 3 s; a node that timed out answers HAL_TIMED_OUT at once for a second.
    /// HAL_NO_SUCH_REGISTER: the node has nothing at that address. HAL_REFUSED: it has answered with another error.
    /// @param offset  The whole 48-bit address offset.
    virtual std::uint32_t ReadQuadlet(std::uint64_t offset, std::uint32_t* value) = 0;
    /// As ReadQuadlet; HAL_WRITE_PROTECTED too.
    virtual std::uint32_t WriteQuadlet(std::uint64_t offset, std::uint32_t value) = 0;
    /// One PHY register, at most a second. page and port count from address 8 on.
    virtual std::uint32_t ReadPhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                  std::uint32_t* value) = 0;
    /// HAL_PHY_WRITE_NOT_IMPLEMENTED: this computer has no way to do it.
    virtual std::uint32_t WritePhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                                   std::uint32_t value) = 0;
    /// Asks for a short bus reset and does not wait for it.
    virtual std::uint32_t FireBusReset() = 0;
    /// The self-ID packets of the node's bus, by phy id, in bus order within one PHY. busKey tells buses apart,
    /// generation changes with every bus reset. All nodes of a bus share one reading per generation: milliseconds, at
    /// most 3 s on a bus that is being reset. HAL_PERMISSION also for a node that this user may not open.
    virtual std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                                     std::uint32_t* generation) = 0;
    /// One serial number per phy id, 0 where none is known. No I/O.
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
    /// All cameras, whether or not this user may open them, sorted by card and EUI-64. Opens nothing and does no
    /// transaction: milliseconds. HAL_PERMISSION, HAL_OUT_OF_MEMORY: the bus could not be looked at.
    virtual std::uint32_t ListCameras(Listing<FireWireDevice>* /*cameras*/) { return HAL_OK; }
    /// The same for the nodes that are no cameras.
    virtual std::uint32_t ListDevices(Listing<FireWireDevice>* /*devices*/) { return HAL_OK; }
    /// Cameras that are on no bus, and in no state. None has one of the serial numbers in taken. No I/O.
    virtual std::uint32_t ListVirtualCameras(const std::vector<std::uint64_t>& /*taken*/,
                                             std::vector<std::shared_ptr<FireWireDevice>>* /*cameras*/) {
        return HAL_OK;
    }
    /// As FireWireDiagnostics.h states it for DiagnoseFireWire.
    virtual std::uint32_t Diagnose(bool /*askNodes*/, FireWireDiagnosis* /*diagnosis*/) { return HAL_NO_BUS; }
    /// One map per bus, in the order of the cards. No bus I/O.
    virtual std::uint32_t Describe(std::vector<BusMap>* /*maps*/) { return HAL_OK; }
};

// ---- USB ------------------------------------------------------------------------------------------------------------

/// One camera, found anew by VID, PID and serial text at each call, by port path when that text is empty or not unique.
/// HAL_GONE while it is not attached; where there is I/O, also HAL_PERMISSION (this user may not open it, or is not
/// shown its node), HAL_ACCESS_DENIED (another program has claimed it; at once) and HAL_TIMED_OUT.
class UsbDevice {
public:
    virtual ~UsbDevice() = default;
    /// VID << 16 | PID, bus number << 8 | device number, serial number (UsbSerial.h), speed in Mbit/s, bcdUSB; the
    /// texts of manufacturer and product. No I/O.
    virtual std::uint32_t GetConfigInfo(ConfigInfo* info) = 0;
    /// iSerialNumber. No I/O.
    virtual std::uint32_t GetSerialText(std::string* text) = 0;
    /// Of the link; of a camera that is gone the last one known. No I/O.
    virtual std::uint32_t GetSpeed(std::uint32_t* megabits) = 0;
    /// One access, with the camera's interface claimed meanwhile: 200 ms per try, 1 s when the camera asks for time.
    /// @param address  48 bits, as IEEE 1394 has them: one that the caller gave by its low 32 bits alone comes with
    ///                 0xFFFF00000000 added. A camera whose registers have addresses of another kind (USB3 Vision) is
    ///                 asked without that.
    /// HAL_NOT_SUPPORTED: it has no register protocol. HAL_NO_SUCH_REGISTER, HAL_WRITE_PROTECTED, HAL_ACCESS_DENIED,
    /// HAL_REFUSED: the camera has said so. HAL_BAD_ANSWER: it answers what its protocol does not know.
    virtual std::uint32_t ReadRegister(std::uint64_t address, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteRegister(std::uint64_t address, std::uint32_t value) = 0;
    /// Resets the camera's port; the bus is enumerated anew afterwards. HAL_BUSY: another program has claimed one of
    /// its interfaces, and nothing was reset.
    virtual std::uint32_t FireBusReset() = 0;
    /// Speed in units of 10 Mbit/s << 16 | port number << 8 | number of hubs above. No I/O.
    virtual std::uint32_t GetLinkInfo(std::uint32_t* link) = 0;
    /// wPortChange << 16 | wPortStatus, asked from the hub above: some 10 ms. Of a hub that this user may not open,
    /// what is known without it.
    virtual std::uint32_t GetPortStatus(std::uint32_t* status) = 0;
    /// The whole tree of the camera's controller, from one reading, each device behind the hub above it. A USB 3
    /// controller has two root hubs, one per speed, and each hub below it is two devices: all of it is one tree,
    /// without the root hubs, and rootPortId keeps the ports of the two apart. deviceId is the camera's own, hostKey
    /// tells controllers apart, generation changes with every change below the controller. Milliseconds. HAL_NO_TREE:
    /// there is none to show.
    virtual std::uint32_t GetTree(std::vector<UsbSelfId>* records, std::uint32_t* deviceId, std::uint64_t* hostKey,
                                  std::uint32_t* generation) = 0;
};

/// Start and Stop as for FireWireBus.
class UsbBus {
public:
    virtual ~UsbBus() = default;
    virtual std::uint32_t Start() { return HAL_OK; }
    virtual void Stop() {}
    /// All cameras, whether or not this user may open them, sorted by controller and port path. Opens nothing:
    /// milliseconds. HAL_PERMISSION, HAL_OUT_OF_MEMORY: the bus could not be looked at.
    virtual std::uint32_t ListCameras(Listing<UsbDevice>* /*cameras*/) { return HAL_OK; }
    /// One map per host controller. No bus I/O.
    virtual std::uint32_t Describe(std::vector<BusMap>* /*maps*/) { return HAL_OK; }
    /// As Diagnostics.h states it for DiagnoseUsb.
    virtual std::uint32_t Diagnose(UsbDiagnosis* /*diagnosis*/) { return HAL_NO_BUS; }
};

// ---- GigE -----------------------------------------------------------------------------------------------------------

/// One camera, found anew by its MAC at each call. HAL_GONE while it does not answer at its address.
class GigEDevice {
public:
    virtual ~GigEDevice() = default;
    /// Its last discovery answer; of a camera that is gone, as it was listed. No I/O.
    virtual std::uint32_t GetRecord(GvcpDiscoveryRecord* record) = 0;
    /// One command: three tries of 200 ms, 1 s when the camera asks for time; a camera that timed out answers
    /// HAL_TIMED_OUT at once for a second. HAL_UNREACHABLE, HAL_PERMISSION: the request could not be sent.
    /// HAL_NO_SUCH_REGISTER, HAL_WRITE_PROTECTED, HAL_ACCESS_DENIED, HAL_BUSY, HAL_REFUSED: the camera has said so.
    /// HAL_BAD_ANSWER: its answer is no answer. The current address (0x24) of a camera that counts as present is known
    /// without its answer.
    virtual std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) = 0;
    virtual std::uint32_t WriteRegister(std::uint32_t address, std::uint32_t value) = 0;
    /// Whether this application may only watch, because another one has control. Costs and fails as a read does.
    virtual std::uint32_t IsInMonitorMode(bool* monitor) = 0;
    /// Where this application's commands to the camera come from. Nothing is sent. HAL_UNREACHABLE: from nowhere.
    virtual std::uint32_t GetLocalPort(std::uint32_t* port) = 0;
    virtual std::uint32_t GetLocalAddress(std::uint32_t* ipAddress) = 0;
};

/// Start and Stop as for FireWireBus.
class GigEBus {
public:
    /// @param reason  What the services answer of a bus that has nothing: why no request can be sent.
    explicit GigEBus(std::uint32_t reason = HAL_NO_BUS) : m_reason(reason) {}
    virtual ~GigEBus() = default;
    GigEBus(const GigEBus&) = delete;
    GigEBus& operator=(const GigEBus&) = delete;

    virtual std::uint32_t Start() { return HAL_OK; }
    virtual void Stop() {}
    /// The cameras that can be used, sorted by MAC and address. May wait for the network: at most 3 s, the first time
    /// for the discovery window and 2 s. HAL_PERMISSION, HAL_OUT_OF_MEMORY: nobody could be asked.
    virtual std::uint32_t ListCameras(Listing<GigEDevice>* /*cameras*/) { return HAL_OK; }
    // The services. What they find is told in full in Diagnostics.h. HAL_NO_BUS, HAL_PERMISSION, HAL_UNREACHABLE: no
    // request could be sent on any interface; where some could not, the report says which.

    /// Broadcasts, and collects cameras on any subnet, sorted by MAC: one discovery window, and 0.6 s more while some
    /// do not answer at their addresses. HAL_OK also when there is none.
    /// @param until  The search ends as soon as this camera has answered.
    virtual std::uint32_t Discover(const std::optional<GigECameraName>& /*until*/, GigEDiscovery* /*discovery*/) {
        return m_reason;
    }
    /// Gives one camera an address by FORCEIP, and waits until it answers there: 0.9 s, and 2 s more.
    /// HAL_NO_ACKNOWLEDGE: nobody has acknowledged.
    /// @param address  Has passed CheckCameraAddress (platform/base/CameraAddress.h).
    virtual std::uint32_t ForceAddress(const GigEAddress& /*address*/, ForceIpResult* /*result*/) { return m_reason; }
    /// Which cameras need another address, and a free one for each, sorted by MAC; changes nothing. One discovery
    /// window, 0.6 s more while cameras do not answer at their addresses, and 0.2 s for each time that hosts are asked
    /// whose the addresses are: once, unless most are taken. HAL_GONE: no camera has that serial number.
    virtual std::uint32_t PlanAddresses(std::optional<std::uint32_t> /*serialNumber*/,
                                        std::vector<AddressPlan>* /*plans*/) {
        return m_reason;
    }
    /// Carries plans out, all at once, and writes the status of each: 0.9 s, and 2 s more. Unlike other containers, the
    /// plans come in. @return the first status of a plan that is not HAL_OK.
    virtual std::uint32_t ApplyAddresses(std::vector<AddressPlan>* /*plans*/) { return m_reason; }
    /// Who has that address: 0.2 s where a host must be asked. HAL_OK, whoever has it.
    virtual std::uint32_t FindAddressHolder(std::uint32_t /*ip*/, AddressHolder* /*holder*/) { return m_reason; }
    /// What is known of interfaces and cameras. No I/O with cameras; with askControl one question to each, all at once:
    /// half a second at most.
    virtual std::uint32_t Diagnose(bool /*askControl*/, GigEDiagnosis* /*diagnosis*/) { return m_reason; }
    /// Where the searches that listings go by do not search. No I/O with cameras.
    virtual std::uint32_t GetSearchReport(GigESearchReport* /*report*/) { return m_reason; }
    /// Cameras whose answers do not reach this program: one discovery window, and 0.6 s more.
    virtual std::uint32_t FindMutedCameras(GigEHearing* /*hearing*/) { return m_reason; }

private:
    const std::uint32_t m_reason;
};

// ---- Making them ----------------------------------------------------------------------------------------------------

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
