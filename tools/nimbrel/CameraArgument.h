// SPDX-License-Identifier: Apache-2.0
// CAMERA: the word by which commands are told which camera they are for. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_CAMERAARGUMENT_H
#define NIMBREL2_TOOLS_NIMBREL_CAMERAARGUMENT_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <variant>

#include "busmaster/BusMaster.h"
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
using CameraChoice = std::variant<BySerial, ByIndex, IPAddress, ZevoGuid>;

/// `serial:N`, `index:N`, `ip:A`, `guid:G`; a bare number is a serial number.
/// @throws CommandError (wrong usage) that names the word.
CameraChoice ParseCamera(const std::string& text);

/// A guid as listings print it, in either case. @throws CommandError (wrong usage) that names the option and the text.
ZevoGuid ParseGuid(const std::string& option, const std::string& text);

/// What CAMERA turned out to be: a camera, or by its guid an IEEE 1394 device that is none.
struct FoundCamera {
    ZevoGuid guid;
    InterfaceType interfaceType = INTERFACE_NONE;
    std::string name;  ///< "camera 19340211 (GigE)"
};

/// The one that is meant. No bus I/O.
/// @throws CommandError when nothing listed is meant, or more than one camera is.
FoundCamera FindCamera(BusMaster& busMaster, const CameraChoice& choice);

/// @throws CommandError that names the camera and holds the error's description, unless it is ERROR_OK.
void CheckFor(const FoundCamera& camera, const Error& error);

/// The positional argument CAMERA of a command.
class CameraArgument {
public:
    void AddTo(CLI::App& command);

    /// As FindCamera; when that fails, buses that cannot be searched are named on standard error first.
    FoundCamera Find(const CommandContext& context, BusMaster& busMaster) const;

private:
    CameraChoice m_choice;
};

/// A command for one camera: it starts the bus master, finds CAMERA and prints what the operation returns.
/// @param footer     What its help ends with.
/// @param operation  Makes the text or, when JSON is wanted, the document. The camera is its own. @throws CommandError.
void AddCameraCommand(CLI::App& app, CommandContext& context, const std::string& name, const std::string& description,
                      const std::string& footer,
                      std::function<std::string(BusMaster& busMaster, FoundCamera& camera, bool asJson)> operation);

}  // namespace Nimbrel2::Tool

#endif
