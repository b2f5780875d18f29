// SPDX-License-Identifier: Apache-2.0
// What a simulated GigE camera is, and how it misbehaves. Plain values.
#ifndef NIMBREL2_PLATFORM_SIMULATED_SIMULATEDCAMERAOPTIONS_H
#define NIMBREL2_PLATFORM_SIMULATED_SIMULATEDCAMERAOPTIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/gvcp/GvcpConstants.h"

namespace Nimbrel2::Platform::Simulated {

/// Who talks to a camera. First octet of the address in the most significant byte.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;

    bool operator==(const Endpoint&) const = default;
};

/// Lets some commands fail with a status instead of being carried out.
struct ErrorRule {
    /// Which command; none: every one.
    std::optional<Gvcp::MessageId> command = std::nullopt;
    /// Only commands that touch the register at this address; none: all.
    std::optional<std::uint32_t> address = std::nullopt;
    Gvcp::Status status = Gvcp::Status::Error;
    /// The first of the matching commands that fails, counted from 1 ...
    std::uint32_t first = 1;
    /// ... and how many fail from there on; 0: all.
    std::uint32_t count = 0;
};

/// How a camera misbehaves. The default is a camera that does not.
struct Faults {
    /// Each answer waits a random time in this range (both equal: exactly that long). Later ones may overtake it.
    std::chrono::milliseconds delayMinimum{0};
    std::chrono::milliseconds delayMaximum{0};
    /// Chance in percent that a datagram is lost, drawn for each command that comes in and each answer that goes out.
    double lossPercent = 0;
    /// Chance in percent that an answer is sent twice.
    double duplicatePercent = 0;
    /// The first rule that applies to a command decides.
    std::vector<ErrorRule> errors;
    /// A PENDING_ACK that announces this time goes before each answer to a register command; 0: none.
    std::chrono::milliseconds pendingAnnounced{0};
    /// How long after that PENDING_ACK the answer really comes.
    std::chrono::milliseconds pendingActual{0};
    /// Answers nothing and does nothing, as if unplugged.
    bool silent = false;
    /// Answers are cut to this many bytes.
    std::optional<std::size_t> truncateTo = std::nullopt;
};

/// Somebody else who holds a camera's control channel and never lets it lapse.
struct ControlOwner {
    Endpoint endpoint;
    bool exclusive = false;
};

struct SimulatedCameraOptions {
    /// Network interface whose broadcasts the camera hears. Empty: the one that has the address.
    /// When it is named and lacks the address, the address is added to it (CAP_NET_ADMIN), and removed in the end.
    std::string interfaceName;

    /// First octet in the most significant byte; what the camera has until it is forced to another configuration.
    std::uint32_t address = 0x7F000001;
    std::uint32_t subnetMask = 0xFF000000;
    std::uint32_t gateway = 0;

    /// Used instead of the above from the next restart on, when enabled and not 0. Writable by a controller.
    bool persistentIpEnabled = false;
    std::uint32_t persistentAddress = 0;
    std::uint32_t persistentSubnetMask = 0;
    std::uint32_t persistentGateway = 0;

    /// Six octets, the first in bits 47 to 40.
    std::uint64_t mac = 0x020000000001;

    /// Texts are cut at the size of their field: 32, 32, 32, 48, 16 and 16 bytes.
    std::string vendor = "Nimbrel";
    std::string model = "Simulated GigE Camera";
    std::string deviceVersion = "1.0";
    std::string info = "Simulated";
    std::string serialNumber = "1";
    std::string userDefinedName;

    std::uint16_t versionMajor = 2;
    std::uint16_t versionMinor = 0;
    /// Big-endian transmitter, UTF-8 texts.
    std::uint32_t deviceMode = 0x80000001;
    std::uint32_t linkSpeed = 1000;  ///< Mbit/s

    /// Milliseconds of the registers of the same name. Control lapses after the heartbeat time-out; answers to
    /// broadcast discoveries wait a random time up to the discovery delay.
    std::uint32_t heartbeatTimeout = 3000;
    std::uint16_t discoveryDelay = 0;

    /// Several registers in one READREG or WRITEREG. Without it such commands are invalid.
    bool concatenation = true;
    /// Whether registers tell who holds control. Without it they are absent.
    bool tellsOwner = true;

    std::optional<ControlOwner> owner;
    Faults faults;
};

}  // namespace Nimbrel2::Platform::Simulated

#endif
