// SPDX-License-Identifier: Apache-2.0
// GigE Vision cameras on this computer's own network interfaces.
// Any thread; see GigEDriver.h for the threads and locks below.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_LINUXGIGEBUS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_LINUXGIGEBUS_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Drivers.h"

namespace Nimbrel2::Platform {

struct LinuxGigEOptions {
    /// Network interfaces to use, by name. Empty: every one that is up, except loopback.
    std::vector<std::string> networkInterfaces;

    /// How long the first listing and each discovery listen, from their first request.
    std::chrono::milliseconds discoveryWindow{1000};

    /// As in Platform::Options.
    std::optional<GigECameraName> searchFor;
    std::optional<PortRange> sourcePorts;
};

/// The driver of the GigE bus. It looks for cameras from Start() on, in the network namespace of the thread that calls
/// it.
/// @param events  Must outlive the driver's Stop. Nothing is raised after that.
std::unique_ptr<GigEBus> MakeLinuxGigEBus(const LinuxGigEOptions& options, BusEventSink& events);

}  // namespace Nimbrel2::Platform

#endif
