// SPDX-License-Identifier: Apache-2.0
// Shows whether this computer may control a GigE camera, and who does. Main thread only; no lock.
#include <string>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::ControlInfo;
using Platform::ControlState;

const char Footer[] =
    R"(One application at a time may control a GigE camera; others may monitor it
unless it is held exclusively. The command asks the camera and does not take
control. A camera whose application has died is free again after its heartbeat
time-out, 3 s as a rule.

Exit status:
  0  Answered, also when the answer is no.
  1  No such camera, it is not on GigE, or it does not answer; standard error
     says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"available":true|false}; when another application holds the camera, also
"exclusive":true|false and, if the camera reports it, "holder":{"ip","port"}.

Examples:
  nimbrel control 19340211
  nimbrel control ip:192.168.77.10 --json | jq .available
)";

bool IsHeld(const ControlInfo& control) {
    return control.state == ControlState::Controlled || control.state == ControlState::Exclusive;
}

// What the driver knows of it: more than a yes or no, or why it is not known.
ControlInfo ReadControl(BusMaster& busMaster, const FoundCamera& camera) {
    ControlInfo unknown;
    unknown.status = HAL_GONE;
    CameraInfo info;
    if (busMaster.GetCameraInfo(camera.guid, &info) != ERROR_OK) {
        return unknown;
    }
    Platform::GigEDiagnosis diagnosis;
    if (const std::uint32_t status = Platform::DiagnoseGigE(true, &diagnosis); status != HAL_OK) {
        unknown.status = status;
        return unknown;
    }
    for (const Platform::CameraDiagnosis& heard : diagnosis.cameras) {
        if (heard.listed && IsSame(FromRecord(heard.record), FromInfo(info))) {
            return heard.control;
        }
    }
    return unknown;
}

Json ToJson(bool available, const ControlInfo& control) {
    Json json{{"available", available}};
    if (!IsHeld(control)) {
        return json;
    }
    json["exclusive"] = control.state == ControlState::Exclusive;
    if (control.ownerIp != 0) {
        json["holder"] = Json{{"ip", FormatIp(UnpackIPAddress(control.ownerIp))}, {"port", control.ownerPort}};
    }
    return json;
}

std::string DescribeHolder(const ControlInfo& control) {
    if (control.ownerIp != 0) {
        return "the application at " + FormatIp(UnpackIPAddress(control.ownerIp)) + ", port " +
               std::to_string(control.ownerPort);
    }
    return "another application, which it " + WhyNotNamed(control.status);
}

std::string ForPeople(const FoundCamera& camera, bool available, const ControlInfo& control) {
    if (available) {
        return AsSentence(camera.name) + " is free: this computer may control it.\n";
    }
    return AsSentence(camera.name) + " is in use" + (control.state == ControlState::Exclusive ? " exclusively" : "") +
           " by " + DescribeHolder(control) + ".\n";
}

std::string DescribeControl(BusMaster& busMaster, FoundCamera& camera, bool asJson) {
    bool available = false;
    const Error error = busMaster.QueryGigECameraCCPStatus(&camera.guid, &available);
    const std::string what = "did not say who controls it";
    if (error != ERROR_OK && error != ERROR_REGISTER_FAILED) {
        CheckFor(camera, error, what);
    }
    ControlInfo control;
    if (error != ERROR_OK || !available) {
        // A camera that is held exclusively refuses even these reads, and some do not report their holder. To the bus
        // master those are errors, and without the reason; to the user the answer is no.
        control = ReadControl(busMaster, camera);
        const bool isKnown = control.state != ControlState::Unknown;
        if (!isKnown && error != ERROR_OK) {
            throw CommandError(camera.GetNameWithBus() + " " + what + ": " + DescribeStatus(control.status))
                .WithHint(NextStep(control.status, INTERFACE_GIGE))
                .WithDetails(error.Describe());
        }
        // It was asked later, and may have been let go meanwhile.
        available = isKnown && !IsHeld(control);
    }
    return asJson ? Dump(ToJson(available, control)) : ForPeople(camera, available, control);
}

}  // namespace

void AddControlCommand(CLI::App& app, CommandContext& context) {
    AddCameraCommand(app, context,
                     {"control", "Shows who controls a GigE camera.", Footer, Scope::GigE, DescribeControl});
}

}  // namespace Nimbrel2::Tool
