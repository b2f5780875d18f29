// SPDX-License-Identifier: Apache-2.0
// Reads CAMERA and looks it up in the bus master's lists. Main thread only; no lock.
#include "tools/nimbrel/CameraArgument.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::uint32_t kLargest = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kMostNamed = 8;

const char kForms[] = "serial:N, index:N, ip:A or guid:G; a bare number\nis a serial number.";

bool IsNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// ---- What is meant -------------------------------------------------------------------------------------------------

std::string NameOf(const Camera& camera) {
    return "camera " + std::to_string(camera.serialNumber) + " (" + FormatInterface(camera.interfaceType) + ")";
}

FoundCamera ToFound(const Camera& camera) { return {camera.guid, camera.interfaceType, NameOf(camera)}; }

// What the user may have meant instead.
std::string Others(const std::vector<Camera>& cameras) {
    if (cameras.empty()) return "; no camera is listed";
    if (cameras.size() > kMostNamed) {
        return "; " + std::to_string(cameras.size()) + " cameras are listed: `nimbrel list` shows them";
    }
    std::vector<std::string> serials;
    for (const Camera& camera : cameras) serials.push_back(std::to_string(camera.serialNumber));
    return serials.size() == 1 ? "; the only one listed is " + serials[0] : "; listed are " + Enumerate(serials);
}

FoundCamera Find(const std::vector<Camera>& cameras, const BySerial& by) {
    std::vector<Camera> found;
    std::copy_if(cameras.begin(), cameras.end(), std::back_inserter(found),
                 [&by](const Camera& camera) { return camera.serialNumber == by.serialNumber; });
    const std::string serial = std::to_string(by.serialNumber);
    if (found.empty()) throw CommandError("no camera has the serial number " + serial + Others(cameras));
    if (found.size() > 1) {
        std::vector<std::string> guids;
        for (const Camera& camera : found) guids.push_back("guid:" + FormatGuid(camera.guid));
        throw CommandError(std::to_string(found.size()) + " cameras have the serial number " + serial + ": " +
                           Enumerate(guids));
    }
    return ToFound(found.front());
}

FoundCamera Find(const std::vector<Camera>& cameras, const ByIndex& by) {
    for (const Camera& camera : cameras) {
        if (camera.index == by.index) return ToFound(camera);
    }
    const std::string text = "no camera has the index " + std::to_string(by.index);
    if (cameras.empty()) throw CommandError(text + "; no camera is listed");
    const std::string last = std::to_string(cameras.back().index);
    throw CommandError(text + (last == "0" ? "; the only one listed has 0" : "; they go from 0 to " + last));
}

FoundCamera Find(const std::vector<Camera>& cameras, const IPAddress& ip) {
    for (const Camera& camera : cameras) {
        if (camera.IsGigE() && PackIPAddress(camera.ip) == PackIPAddress(ip)) return ToFound(camera);
    }
    std::vector<std::string> addresses;
    for (const Camera& camera : cameras) {
        if (camera.IsGigE()) addresses.push_back(FormatIp(camera.ip));
    }
    std::string others = "; no GigE camera is listed";
    if (addresses.size() > kMostNamed) {
        others = "; " + std::to_string(addresses.size()) + " GigE cameras are listed";
    } else if (!addresses.empty()) {
        others = "; those listed have " + Enumerate(addresses);
    }
    throw CommandError("no listed camera has the address " + FormatIp(ip) + others +
                       " (`nimbrel discover` shows also those on a wrong subnet)");
}

FoundCamera FindByGuid(BusMaster& busMaster, const std::vector<Camera>& cameras, const ZevoGuid& guid) {
    for (const Camera& camera : cameras) {
        if (camera.guid == guid) return ToFound(camera);
    }
    for (const Device& device : ListDevices(busMaster)) {
        if (device.guid != guid) continue;
        return {guid, device.interfaceType,
                "device " + FormatGuid(guid) + " (" + FormatInterface(device.interfaceType) + ")"};
    }
    throw CommandError("no camera or device has the guid " + FormatGuid(guid));
}

std::optional<ZevoGuid> ReadGuid(const std::string& text) {
    constexpr std::size_t kGroup = 9;  // eight digits and what separates them
    if (text.size() != 4 * kGroup - 1) return std::nullopt;
    ZevoGuid guid;
    for (std::size_t i = 0; i < 4; ++i) {
        const char* begin = text.data() + i * kGroup;
        const auto [end, error] = std::from_chars(begin, begin + kGroup - 1, guid.value[i], 16);
        if (error != std::errc() || end != begin + kGroup - 1) return std::nullopt;
        if (i != 3 && *end != '-') return std::nullopt;
    }
    return guid;
}

}  // namespace

ZevoGuid ParseGuid(const std::string& option, const std::string& text) {
    const std::optional<ZevoGuid> guid = ReadGuid(text);
    if (!guid) {
        throw CommandError(
            option + ": \"" + text + "\" is not a guid, which is four groups of eight hexadecimal digits joined by -",
            kUsage);
    }
    return *guid;
}

CameraChoice ParseCamera(const std::string& text) {
    const std::size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    const std::string value = colon == std::string::npos ? text : text.substr(colon + 1);
    const std::string option = "CAMERA " + kind;
    if (colon == std::string::npos) {
        if (!IsNumber(text)) {
            throw CommandError(
                "CAMERA: \"" + text + "\" is neither a serial number nor serial:N, index:N, ip:A, guid:G", kUsage);
        }
        return BySerial{ParseNumber("CAMERA", value, 0, kLargest)};
    }
    if (kind == "serial") return BySerial{ParseNumber(option, value, 0, kLargest)};
    if (kind == "index") return ByIndex{ParseNumber(option, value, 0, kLargest)};
    if (kind == "ip") return ParseIp(option, value);
    if (kind == "guid") return ParseGuid(option, value);
    throw CommandError("CAMERA: \"" + text + "\" begins with none of serial:, index:, ip:, guid:", kUsage);
}

FoundCamera FindCamera(BusMaster& busMaster, const CameraChoice& choice) {
    const std::vector<Camera> cameras = ListCameras(busMaster);
    if (const auto* guid = std::get_if<ZevoGuid>(&choice)) return FindByGuid(busMaster, cameras, *guid);
    if (const auto* serial = std::get_if<BySerial>(&choice)) return Find(cameras, *serial);
    if (const auto* index = std::get_if<ByIndex>(&choice)) return Find(cameras, *index);
    return Find(cameras, std::get<IPAddress>(choice));
}

void CheckFor(const FoundCamera& camera, const Error& error) {
    if (error != ERROR_OK) throw CommandError(camera.name + ": " + error.Describe());
}

void CameraArgument::AddTo(CLI::App& command) {
    const CLI::callback_t parser = [this](const CLI::results_t& words) {
        m_choice = ParseCamera(words.at(0));
        return true;
    };
    command.add_option("CAMERA", parser, kForms)->required()->type_name("");
}

FoundCamera CameraArgument::Find(const CommandContext& context, BusMaster& busMaster) const {
    try {
        return FindCamera(busMaster, m_choice);
    } catch (const CommandError&) {
        context.CheckBuses(busMaster);
        throw;
    }
}

void AddCameraCommand(CLI::App& app, CommandContext& context, const std::string& name, const std::string& description,
                      const std::string& footer,
                      std::function<std::string(BusMaster& busMaster, FoundCamera& camera, bool asJson)> operation) {
    const auto argument = std::make_shared<CameraArgument>();
    CLI::App* command =
        context.AddCommand(app, name, description, [&context, argument, operation = std::move(operation)] {
            const BusMasterSession busMaster = context.StartBusMaster();
            FoundCamera camera = argument->Find(context, *busMaster);
            context.Print(operation(*busMaster, camera, context.WantsJson()));
            return static_cast<int>(kDone);
        });
    argument->AddTo(*command);
    context.AddJsonOption(*command, "Print one JSON document.");
    context.AddBusOptions(*command);
    command->footer(footer);
}

}  // namespace Nimbrel2::Tool
