// SPDX-License-Identifier: Apache-2.0
// The JSON form of a rig: its buses, what happens to it, and how it ends. docs/rigs.md tells it, rig.schema.json fixes
// it.
#ifndef NIMBREL2_PLATFORM_RIG_RIGFILE_H
#define NIMBREL2_PLATFORM_RIG_RIGFILE_H

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/rig/Rig.h"
#include "platform/rig/RigStep.h"

namespace Nimbrel2::Platform {

/// Why a file is no rig. what() is "FILE: POINTER: REASON"; the pointer is a JSON pointer (RFC 6901), empty for the
/// whole document.
class RigFileError : public std::runtime_error {
public:
    RigFileError(const std::string& file, const std::string& pointer, const std::string& reason)
        : std::runtime_error(file + ": " + (pointer.empty() ? "" : pointer + ": ") + reason) {}
};

/// What a rig file says.
struct RigPlan {
    std::string name;
    std::string description;
    RigDescription rig;
    std::vector<RigStep> timeline;
    /// The serial numbers that are listed after the last step, in ascending order; none: the file does not say.
    std::optional<std::vector<std::uint32_t>> finalSerialNumbers;
};

/// @throws RigFileError for a file that cannot be read, is larger than 16 MiB, nests deeper than 16 levels, is no JSON,
///         has an unknown, missing or repeated key or a value out of range, makes no computer, or whose timeline goes
///         back in time, names what is not there, or has a step that cannot be done when its turn comes. Reads the file
///         whole; no other I/O.
RigPlan ReadRigFile(const std::string& path);

/// The same for a text; file is what errors name.
RigPlan ParseRig(std::string_view text, const std::string& file);

/// An action of the timeline by itself: {"unplug": "left camera"}. @throws RigFileError, which shows the text as the
/// file.
RigAction ParseRigAction(std::string_view text, const RigDescription& rig);

/// Takes away all network interfaces of a rig but those named. @throws std::invalid_argument for a name it has not.
void KeepNetworkInterfaces(RigDescription* rig, const std::vector<std::string>& names);

/// The JSON Schema of the form, and the rig that is shown when nothing else is asked for.
std::string_view RigSchema();
std::string_view BuiltInRig();

}  // namespace Nimbrel2::Platform

#endif
