// SPDX-License-Identifier: Apache-2.0
// Checks an application's options and keeps them for the next start. Any thread; no I/O.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "hal/HAL.h"
#include "platform/Platform.h"
#include "platform/hal/Process.h"

namespace Nimbrel2::Platform {
namespace {

constexpr std::chrono::milliseconds ShortestWindow{10};
constexpr std::chrono::milliseconds LongestWindow{30000};
constexpr std::uint16_t FirstSourcePort = 1024;   // those below are for administrators
constexpr std::size_t LongestInterfaceName = 15;  // IFNAMSIZ without the terminating zero

template <class... Values>
std::string Format(const char* format, Values... values) {
    char text[64];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

/// In quotes, with what a terminal would not show as \xNN.
std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        quoted += byte >= 0x20 && byte != 0x7F ? std::string(1, c) : Format("\\x%02x", byte);
    }
    return quoted + "\"";
}

void AddProblem(std::string& reason, const std::string& problem) {
    if (!reason.empty()) {
        reason += "; ";
    }
    reason += problem;
}

void CheckDriver(const char* option, Driver driver, bool hasRig, std::string& reason) {
    if (driver == Driver::Rig && !hasRig) {
        AddProblem(reason, std::string(option) + ": there is no rig to drive it");
    }
    if (driver == Driver::None || driver == Driver::Linux || driver == Driver::Rig) {
        return;
    }
    AddProblem(reason, std::string(option) + ": there is no driver " + std::to_string(static_cast<int>(driver)));
}

void CheckWindow(std::chrono::milliseconds window, std::string& reason) {
    if (window >= ShortestWindow && window <= LongestWindow) {
        return;
    }
    AddProblem(reason, "discoveryWindow: " + std::to_string(window.count()) + " ms is not within " +
                           std::to_string(ShortestWindow.count()) + " ms to " + std::to_string(LongestWindow.count()) +
                           " ms");
}

void CheckCameraName(const std::optional<GigECameraName>& name, std::string& reason) {
    if (!name) {
        return;
    }
    if ((name->ip == 0) == (name->mac == 0)) {
        AddProblem(reason, "searchFor: either the address or the MAC names the camera, not " +
                               std::string(name->ip == 0 ? "neither" : "both"));
    }
    if (name->mac >> 48 != 0) {
        AddProblem(reason, "searchFor: a MAC has 48 bits");
    }
}

void CheckSourcePorts(const std::optional<PortRange>& ports, std::string& reason) {
    if (!ports) {
        return;
    }
    const std::string range = std::to_string(ports->first) + "-" + std::to_string(ports->last);
    if (ports->first < FirstSourcePort) {
        AddProblem(reason, "sourcePorts: " + range + " begins below " + std::to_string(FirstSourcePort));
    } else if (ports->last < ports->first) {
        AddProblem(reason, "sourcePorts: " + range + " ends before it begins");
    } else if (const unsigned int count = ports->last - ports->first + 1u; count <= SourcePortsBesideCameras) {
        AddProblem(reason, "sourcePorts: " + range + " has " + std::to_string(count) +
                               (count == 1 ? " port; " : " ports; ") + std::to_string(SourcePortsBesideCameras) +
                               " are needed for each network interface, and one more for each camera");
    }
}

/// The kernel's own rule for names of network interfaces.
const char* FaultOfName(const std::string& name) {
    if (name.empty()) {
        return "is empty";
    }
    if (name.size() > LongestInterfaceName) {
        return "is longer than 15 characters";
    }
    if (name == "." || name == "..") {
        return "is no interface name";
    }
    for (const char c : name) {
        if (c == '/' || c == ':' || c == '\0') {
            return "contains a character that no interface name has";
        }
        if (std::isspace(static_cast<unsigned char>(c)) != 0) {
            return "contains white space";
        }
    }
    return nullptr;
}

void CheckNames(const std::vector<std::string>& names, std::string& reason) {
    for (auto name = names.begin(); name != names.end(); ++name) {
        if (const char* wrong = FaultOfName(*name)) {
            AddProblem(reason, "networkInterfaces: " + Quoted(*name) + " " + wrong);
        } else if (std::find(names.begin(), name, *name) != name) {
            AddProblem(reason, "networkInterfaces: " + Quoted(*name) + " is named twice");
        }
    }
}

void CheckUsbIds(const std::vector<UsbId>& ids, std::string& reason) {
    for (auto id = ids.begin(); id != ids.end(); ++id) {
        const auto equal = [&id](const UsbId& other) {
            return other.vendor == id->vendor && other.product == id->product;
        };
        if (std::find_if(ids.begin(), id, equal) == id) {
            continue;
        }
        AddProblem(reason, "usbCameraIds: " + Format("%04x:%04x", id->vendor, id->product) + " is named twice");
    }
}

std::string WhatIsWrong(const Options& options) {
    std::string reason;
    CheckDriver("fireWire", options.fireWire, options.makeDrivers != nullptr, reason);
    CheckDriver("usb", options.usb, options.makeDrivers != nullptr, reason);
    CheckDriver("gigE", options.gigE, options.makeDrivers != nullptr, reason);
    CheckNames(options.networkInterfaces, reason);
    CheckWindow(options.discoveryWindow, reason);
    CheckCameraName(options.searchFor, reason);
    CheckSourcePorts(options.sourcePorts, reason);
    CheckUsbIds(options.usbCameraIds, reason);
    return reason;
}

}  // namespace

ConfigureResult Configure(const Options& options) {
    try {
        std::string reason = WhatIsWrong(options);
        if (!reason.empty()) {
            return {HAL_INVALID_ARGUMENT, std::move(reason)};
        }
        if (Process::Get().SetOptions(options) == HAL_BUSY) {
            return {HAL_BUSY, "the HAL is running"};
        }
        return {};
    } catch (const std::bad_alloc&) {
        return {HAL_OUT_OF_MEMORY, {}};
    }
}

}  // namespace Nimbrel2::Platform
