// SPDX-License-Identifier: Apache-2.0
// Tells whether this computer may control a GigE camera, and who does. Main thread only; no lock.
#include "tools/nimbrel/ControlCommand.h"

#include <string>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::ControlInfo;
using Platform::ControlState;

const char kFooter[] =
    R"(Only one application at a time may control a GigE camera; others may watch it,
unless it is held exclusively. The command asks the camera and takes nothing. A
camera that is unplugged or whose application has died is free again after its
heartbeat time, 3 s as a rule.

Exit status:
  0  The question is answered, be it with no.
  1  There is no such camera, it is no GigE camera, or it does not answer;
     standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"available":true|false}, and where another application holds the camera
"exclusive":true|false, and "holder":{"ip","port"} if the camera tells.

Examples:
  nimbrel control 19340211
  nimbrel control ip:192.168.77.10 --json | jq .available
)";

bool IsHeld(const ControlInfo& control) {
    return control.state == ControlState::Controlled || control.state == ControlState::Exclusive;
}

ControlInfo AskWhoHolds(BusMaster& busMaster, const FoundCamera& camera) {
    CameraInfo info;
    if (busMaster.GetCameraInfo(camera.guid, &info) != ERROR_OK) return {};
    Platform::GigEDiagnosis diagnosis;
    if (Platform::DiagnoseGigE(true, &diagnosis) != HAL_OK) return {};
    for (const Platform::CameraDiagnosis& heard : diagnosis.cameras) {
        if (heard.listed && IsSame(FromRecord(heard.record), FromInfo(info))) return heard.control;
    }
    return {};
}

Json ToJson(bool available, const ControlInfo& control) {
    Json json{{"available", available}};
    if (!IsHeld(control)) return json;
    json["exclusive"] = control.state == ControlState::Exclusive;
    if (control.ownerIp != 0) {
        json["holder"] = Json{{"ip", FormatIp(UnpackIPAddress(control.ownerIp))}, {"port", control.ownerPort}};
    }
    return json;
}

std::string ForPeople(const FoundCamera& camera, bool available, const ControlInfo& control) {
    if (available) return "This computer may control " + camera.name + ": nobody else does.\n";
    const std::string holder = control.ownerIp == 0
                                   ? "an application that the camera does not name"
                                   : "the application at " + FormatIp(UnpackIPAddress(control.ownerIp)) + ", port " +
                                         std::to_string(control.ownerPort) + ",";
    return "This computer may not control " + camera.name + ":\n" + holder + " holds it" +
           (control.state == ControlState::Exclusive ? " exclusively" : "") + ".\n";
}

std::string TellControl(BusMaster& busMaster, FoundCamera& camera, bool asJson) {
    bool available = false;
    const Error error = busMaster.QueryGigECameraCCPStatus(&camera.guid, &available);
    if (error != ERROR_OK && error != ERROR_REGISTER_FAILED) CheckFor(camera, error);
    ControlInfo control;
    if (error != ERROR_OK || !available) {
        control = AskWhoHolds(busMaster, camera);
        // A camera that is held exclusively refuses even that question, and some do not tell who holds them. To the bus
        // master those are errors; to the user the answer is no.
        if (!IsHeld(control)) CheckFor(camera, error);
        available = false;
    }
    return asJson ? Dump(ToJson(available, control)) : ForPeople(camera, available, control);
}

}  // namespace

void AddControlCommand(CLI::App& app, CommandContext& context) {
    AddCameraCommand(app, context, "control", "Tells whether a GigE camera is free to control.", kFooter, TellControl);
}

}  // namespace Nimbrel2::Tool
