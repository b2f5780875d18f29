// SPDX-License-Identifier: Apache-2.0
// What an application may choose about the HAL that ships, before it first asks for the bus master.
#ifndef NIMBREL2_PLATFORM_PLATFORM_H
#define NIMBREL2_PLATFORM_PLATFORM_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hal/Export.h"

namespace Nimbrel2::Platform {

/// Who drives a bus.
enum class Driver {
    None,   ///< Nobody: the bus lists nothing and raises nothing.
    Linux,  ///< This computer's own bus.
    Rig,    ///< A simulated computer: Options::makeDrivers.
};

// What passes between the HAL and its drivers; an application only hands it on.
struct Options;
struct Drivers;
struct BusEventSinks;

/// A USB camera that speaks IIDC over vendor requests; no class tells it, so its ids must be named.
struct UsbId {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
};

/// One GigE camera, by its address or its MAC, whichever is not 0.
struct GigECameraName {
    std::uint32_t ip = 0;   ///< first octet in the most significant byte
    std::uint64_t mac = 0;  ///< octet 0 in bits 47 to 40
};

/// UDP ports, both ends included.
struct PortRange {
    std::uint16_t first = 0;
    std::uint16_t last = 0;
};

/// Ports that GigE needs at once for each network interface, besides one for each camera: two for the monitor, one for
/// a discovery or an address that is given meanwhile, and one to spare.
inline constexpr unsigned int SourcePortsBesideCameras = 4;

struct Options {
    Driver fireWire = Driver::Linux;
    Driver usb = Driver::Linux;
    Driver gigE = Driver::Linux;

    /// Network interfaces that GigE uses, by name. Empty: every one that is up, except loopback.
    std::vector<std::string> networkInterfaces;

    /// How long a discovery listens, from its first request. A conforming camera may take a second to answer.
    /// 10 ms to 30 s.
    std::chrono::milliseconds discoveryWindow{1000};

    /// The camera that the application is looking for: the first listing ends as soon as it has answered, instead of
    /// listening for the whole window. All others are still found, and raise events.
    std::optional<GigECameraName> searchFor;

    /// The ports that GigE talks from, so that a firewall rule can name them. Nothing: any that the system gives.
    /// Needed are SourcePortsBesideCameras for each network interface, and one for each camera.
    std::optional<PortRange> sourcePorts;

    /// USB cameras besides those of the USB3 Vision class.
    std::vector<UsbId> usbCameraIds;

    /// Receives what a driver has to say that no result tells: that it cannot hear of changes, which device makes no
    /// sense to it. One line each, said once. Called on any thread, with locks of the driver held: it must not call the
    /// HAL, nor throw. Empty: it is dropped.
    std::function<void(const std::string& text)> trace;

    /// Makes the drivers of the buses with Driver::Rig; must be there when one has it. SimulatedComputer::MakeOptions
    /// (platform/SimulatedComputer.h, in a library of its own) sets it. Called by HAL_InitLibrary.
    std::function<Drivers(const Options& options, const BusEventSinks& sinks)> makeDrivers;
};

/// What Configure answers: empty reason, or the option and the value that are wrong.
struct ConfigureResult {
    std::uint32_t status = 0;  ///< HALStatus
    std::string reason;
    explicit operator bool() const { return status == 0; }
};

/// Chooses drivers and options for the next HAL_InitLibrary. Without a call the defaults above hold.
/// @return HAL_BUSY while the HAL is running, that is from the first Singleton<BusMaster>::GetInstance() to the end of
///         that object; HAL_INVALID_ARGUMENT with the reason for an option out of range. Nothing changes then.
/// @par Threads  Any, one at a time with HAL_InitLibrary. No I/O.
NIMBREL2_API ConfigureResult Configure(const Options& options);

/// Waits until every bus event that was raised so far has been called back, on all buses.
/// @return false when that took longer than the time, or the HAL is not running.
/// @par Threads  Any, but an event callback. A bus that never rests is never done.
NIMBREL2_API bool WaitUntilEventsAreDelivered(std::chrono::milliseconds time);

}  // namespace Nimbrel2::Platform

#endif
