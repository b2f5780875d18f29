// SPDX-License-Identifier: Apache-2.0
// One thing that happens to a rig, and when.
#ifndef NIMBREL2_PLATFORM_RIG_RIGSTEP_H
#define NIMBREL2_PLATFORM_RIG_RIGSTEP_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "platform/rig/Rig.h"

namespace Nimbrel2::Platform {

struct PlugStep {
    std::string device;
};
struct UnplugStep {
    std::string device;
};
/// Onto a port of a FireWire PHY or USB hub, or onto a network interface, which has no ports.
struct MoveStep {
    std::string device;
    std::string to;
    unsigned int port = 0;
    unsigned int ownPort = 0;  ///< FireWire only.
};
/// A storm is a reset that comes many times.
struct BusResetStep {
    std::string bus;
    unsigned int count = 1;
};
struct BusErrorStep {
    std::string bus;
};
struct TakeStep {
    std::string camera;
    Simulated::ControlOwner owner;
};
struct ReleaseStep {
    std::string camera;
};
struct AddressStep {
    std::string camera;
    std::uint32_t address = 0;
    std::uint32_t subnetMask = 0;
    std::uint32_t gateway = 0;
};
struct LinkStep {
    std::string interfaceName;
    bool up = true;
};
struct AnswersStep {
    std::string camera;
    Simulated::Faults faults;
};

using RigAction = std::variant<PlugStep, UnplugStep, MoveStep, BusResetStep, BusErrorStep, TakeStep, ReleaseStep,
                               AddressStep, LinkStep, AnswersStep, RigFault>;

/// An event that a step waits for.
struct AwaitedEvent {
    enum class Kind { Reset, Arrival, Removal } kind = Kind::Arrival;
    std::optional<std::uint32_t> serialNumber;  ///< None: of any camera.
};

struct RigStep {
    /// From the start of the play; none: as soon as the step before it is done.
    std::optional<std::chrono::milliseconds> at;
    std::optional<AwaitedEvent> after;
    RigAction action;
    std::string pointer;        ///< Where it stands in the file ...
    std::string actionPointer;  ///< ... down to the action.
};

/// Lets it happen. An empty result: done; else why it cannot be.
std::optional<std::string> Apply(Rig& rig, const RigAction& action);

/// In words, for people: "unplug \"left camera\"".
std::string Describe(const RigAction& action);

}  // namespace Nimbrel2::Platform

#endif
