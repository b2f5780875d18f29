// SPDX-License-Identifier: Apache-2.0
// CAMERA: the argument that names the camera a command is for. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_CAMERAARGUMENT_H
#define NIMBREL2_TOOLS_NIMBREL_CAMERAARGUMENT_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <variant>

#include "busmaster/BusMaster.h"
#include "common/MACAddress.h"
#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

struct BySerial {
    std::uint32_t serialNumber = 0;
};
struct ByIndex {
    std::uint32_t index = 0;
};
/// What CAMERA may be.
using CameraChoice = std::variant<BySerial, ByIndex, IPAddress, MACAddress, ZevoGuid>;

/// `serial:N`, `index:N`, `ip:A`, `mac:M`, `guid:G`; a bare number is a serial number.
/// @throws CommandError (wrong usage) that names the word.
CameraChoice ParseCamera(const std::string& text);

/// A guid as listings print it, in either case. @throws CommandError (wrong usage) that names the option and the text.
ZevoGuid ParseGuid(const std::string& option, const std::string& text);

/// A camera or, named by its guid, an IEEE 1394 device that is no camera.
struct FoundCamera {
    ZevoGuid guid;
    InterfaceType interfaceType = INTERFACE_NONE;
    std::string name;  ///< "camera 19340211"

    /// "camera 19340211 (GigE)"
    std::string GetNameWithBus() const;
};

/// Finds the one that is meant. No bus I/O.
/// @throws CommandError when nothing listed is meant, when more than one camera is, or when another camera has the same
///         guid, so that an operation could reach either.
FoundCamera FindCamera(BusMaster& busMaster, const CameraChoice& choice);

/// @throws CommandError "camera 17 (USB 3) cannot be reset: CAUSE", unless the error is ERROR_OK.
/// @param what  "cannot be reset"
void CheckFor(const FoundCamera& camera, const Error& error, const std::string& what);

/// The kinds of bus that a command is for.
enum class Scope { AnyBus, IEEE1394, Usb, GigE, BusesWithReset };

/// The positional argument CAMERA of a command.
class CameraArgument {
public:
    void AddTo(CLI::App& command);

    /// Starts the bus master. When an address or a MAC names the camera, the search ends as soon as that has answered.
    BusMasterSession Start(CommandContext& context) const;

    /// As FindCamera; when that fails, buses that cannot be searched are named on standard error first.
    /// @param command  "usb-link", for the message when the camera is on a bus that the command is not for.
    FoundCamera Find(const CommandContext& context, BusMaster& busMaster, const std::string& command,
                     Scope scope) const;

private:
    CameraChoice m_choice;
};

/// A command for one camera: starts the bus master, finds CAMERA and prints what the operation returns.
struct CameraCommand {
    std::string name;
    std::string description;
    std::string footer;  ///< What its help ends with.
    Scope scope = Scope::AnyBus;
    /// Makes the text or, when JSON is wanted, the document. The camera is its own. @throws CommandError.
    std::function<std::string(BusMaster& busMaster, FoundCamera& camera, bool asJson)> operation;
};
void AddCameraCommand(CLI::App& app, CommandContext& context, CameraCommand command);

}  // namespace Nimbrel2::Tool

#endif
