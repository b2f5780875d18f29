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
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Locations.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::uint32_t Largest = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t MostNamed = 8;

const char Forms[] = "serial:N, index:N, ip:A, mac:M or guid:G; a bare\nnumber is a serial number.";

bool IsNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// ---- Which camera is meant -----------------------------------------------------------------------------------------

using Cameras = std::vector<Camera>;
using IsMeant = std::function<bool(const Camera& camera)>;

std::string NameOf(const Camera& camera) { return "camera " + std::to_string(camera.serialNumber); }

Cameras Matching(const Cameras& cameras, const IsMeant& isMeant) {
    Cameras found;
    std::copy_if(cameras.begin(), cameras.end(), std::back_inserter(found), isMeant);
    return found;
}

bool IsAlone(const Cameras& cameras, const IsMeant& isMeant) { return Matching(cameras, isMeant).size() == 1; }

IsMeant HasGuid(const ZevoGuid& guid) {
    return [guid](const Camera& camera) { return camera.guid == guid; };
}
IsMeant HasMac(const MACAddress& mac) {
    return [mac](const Camera& camera) { return camera.IsGigE() && IsSame(camera.mac, mac); };
}
IsMeant HasIp(const IPAddress& ip) {
    return [ip](const Camera& camera) { return camera.IsGigE() && PackIPAddress(camera.ip) == PackIPAddress(ip); };
}
IsMeant HasSerialNumber(std::uint32_t serialNumber) {
    return [serialNumber](const Camera& camera) { return camera.serialNumber == serialNumber; };
}
IsMeant HasIndex(std::uint32_t index) {
    return [index](const Camera& camera) { return camera.index == index; };
}

// A CAMERA that means this camera and no other; its guid when there is none.
std::string UniqueName(const Camera& camera, const Cameras& cameras) {
    if (camera.IsGigE() && IsAlone(cameras, HasMac(camera.mac))) {
        return "mac:" + FormatMac(camera.mac);
    }
    if (IsAlone(cameras, HasSerialNumber(camera.serialNumber))) {
        return "serial:" + std::to_string(camera.serialNumber);
    }
    return "guid:" + FormatGuid(camera.guid);
}

// One line for each, by which they can be told apart.
std::string Lines(const Cameras& some, const Cameras& all) {
    std::string text;
    for (const Camera& camera : some) {
        text += "\n  " + UniqueName(camera, all) + "  " + BusName(camera.interfaceType);
        const std::string location = DescribeLocation(camera);
        if (!location.empty()) {
            text += ", " + location;
        }
        text += ", index " + std::to_string(camera.index);
    }
    return text;
}

// Operations go by guid: of cameras that share one, only the first is ever reached.
FoundCamera Accept(BusMaster& busMaster, const Cameras& cameras, const Camera& camera) {
    Cameras twins = Matching(cameras, HasGuid(camera.guid));
    if (twins.size() > 1) {
        AddLocations(busMaster, &twins);
        throw CommandError(CountOf(twins.size(), "camera") + " have the guid " + FormatGuid(camera.guid) +
                           ", so a command could reach any of them:" + Lines(twins, cameras))
            .WithHint("Unplug all but one of them. `nimbrel doctor` explains why they look alike.");
    }
    return {camera.guid, camera.interfaceType, NameOf(camera)};
}

// @param what      "the serial number 17"
// @param ifNobody  What to say of the cameras that there are.
FoundCamera FindOne(BusMaster& busMaster, const Cameras& cameras, const IsMeant& isMeant, const std::string& what,
                    const std::string& ifNobody) {
    Cameras found = Matching(cameras, isMeant);
    if (found.empty()) {
        throw CommandError("no camera has " + what + ifNobody)
            .WithHint("`nimbrel doctor` finds out why a camera is not seen.");
    }
    if (found.size() > 1 && !IsAlone(found, HasGuid(found.front().guid))) {
        Accept(busMaster, cameras, found.front());
    }
    if (found.size() > 1) {
        AddLocations(busMaster, &found);
        throw CommandError(CountOf(found.size(), "camera") + " have " + what + ":" + Lines(found, cameras))
            .WithHint("Name one of them, such as " + UniqueName(found.front(), cameras) + ".");
    }
    return Accept(busMaster, cameras, found.front());
}

// ---- What the user may have meant instead --------------------------------------------------------------------------

std::string OtherSerialNumbers(const Cameras& cameras) {
    if (cameras.empty()) {
        return "; no camera is listed";
    }
    if (cameras.size() > MostNamed) {
        return "; " + std::to_string(cameras.size()) + " cameras are listed, see `nimbrel list`";
    }
    std::vector<std::string> serials;
    for (const Camera& camera : cameras) {
        serials.push_back(std::to_string(camera.serialNumber));
    }
    return serials.size() == 1 ? "; the only camera listed is " + serials[0] : "; listed are " + Enumerate(serials);
}

std::string OtherIndexes(const Cameras& cameras) {
    if (cameras.empty()) {
        return "; no camera is listed";
    }
    const std::string last = std::to_string(cameras.back().index);
    return last == "0" ? "; the only camera listed has 0" : "; they go from 0 to " + last;
}

std::string OtherGigECameras(const Cameras& cameras, std::string (*format)(const Camera& camera)) {
    std::vector<std::string> words;
    for (const Camera& camera : cameras) {
        if (camera.IsGigE()) {
            words.push_back(format(camera));
        }
    }
    const char DiscoverHint[] = " (`nimbrel discover` also shows cameras on a wrong subnet)";
    if (words.empty()) {
        return std::string("; no GigE camera is listed") + DiscoverHint;
    }
    if (words.size() > MostNamed) {
        return "; " + std::to_string(words.size()) + " GigE cameras are listed, see `nimbrel list --bus gige`";
    }
    return "; those listed have " + Enumerate(words) + DiscoverHint;
}

FoundCamera FindByGuid(BusMaster& busMaster, const Cameras& cameras, const ZevoGuid& guid) {
    for (const Camera& camera : cameras) {
        if (camera.guid == guid) {
            return Accept(busMaster, cameras, camera);
        }
    }
    for (const Device& device : ListDevices(busMaster)) {
        if (device.guid == guid) {
            return {guid, device.interfaceType, "device " + FormatGuid(guid)};
        }
    }
    throw CommandError("no camera or device has the guid " + FormatGuid(guid) + OtherSerialNumbers(cameras))
        .WithHint(
            "`nimbrel list --long` shows the guids. That of a GigE camera changes with its address: serial: or "
            "mac: do not.");
}

// ---- Heard, and not listed -----------------------------------------------------------------------------------------

bool IsNamedBy(const CameraChoice& choice, const GigECamera& camera) {
    if (const auto* serial = std::get_if<BySerial>(&choice)) {
        return camera.serialNumber == serial->serialNumber;
    }
    if (const auto* mac = std::get_if<MACAddress>(&choice)) {
        return IsSame(camera.mac, *mac);
    }
    const auto* ip = std::get_if<IPAddress>(&choice);
    return ip != nullptr && PackIPAddress(camera.ip) == PackIPAddress(*ip);
}

// Throws the reason why a GigE camera that is meant cannot be used, when one was heard that is not listed.
void CheckUnusable(const CameraChoice& choice) {
    Platform::GigEDiagnosis diagnosis;
    if (Platform::DiagnoseGigE(false, &diagnosis) != HAL_OK) {
        return;
    }
    for (const HeardCamera& heard : FindHeardCameras(diagnosis)) {
        if (heard.usability == Usability::Usable || !IsNamedBy(choice, heard.camera)) {
            continue;
        }
        std::string hint = CureForUnusable({heard});
        while (!hint.empty() && hint.back() == '\n') {
            hint.pop_back();
        }
        throw CommandError(NameOf(heard.camera) + " at " + FormatIp(heard.camera.ip) +
                           " is heard, but cannot be used: " + heard.Explain())
            .WithHint(hint);
    }
}

// ---- Which bus the command is for ----------------------------------------------------------------------------------

struct ScopeText {
    Scope scope;
    const char* cameras;
    const char* options;
    bool (*fits)(InterfaceType type);
};

constexpr ScopeText Scopes[] = {
    {Scope::IEEE1394, "IEEE 1394", "--bus 1394", [](InterfaceType type) { return type == INTERFACE_IEEE1394; }},
    {Scope::Usb, "USB", "--bus usb",
     [](InterfaceType type) { return type == INTERFACE_USB_2 || type == INTERFACE_USB_3; }},
    {Scope::GigE, "GigE", "--bus gige", [](InterfaceType type) { return type == INTERFACE_GIGE; }},
    {Scope::BusesWithReset, "IEEE 1394 and USB", "--bus 1394 --bus usb",
     [](InterfaceType type) { return type != INTERFACE_GIGE; }},
};

void CheckScope(const FoundCamera& camera, const std::string& command, Scope scope) {
    for (const ScopeText& text : Scopes) {
        if (text.scope != scope || text.fits(camera.interfaceType)) {
            continue;
        }
        throw CommandError(camera.name + " is on " + BusName(camera.interfaceType) + ", " + command + " is for " +
                           text.cameras + " cameras")
            .WithHint(std::string("`nimbrel list ") + text.options + "` shows those.");
    }
}

std::optional<ZevoGuid> ReadGuid(const std::string& text) {
    constexpr std::size_t Group = 9;  // eight digits and what separates them
    if (text.size() != 4 * Group - 1) {
        return std::nullopt;
    }
    ZevoGuid guid;
    for (std::size_t i = 0; i < 4; ++i) {
        const char* begin = text.data() + i * Group;
        const auto [end, error] = std::from_chars(begin, begin + Group - 1, guid.value[i], 16);
        if (error != std::errc() || end != begin + Group - 1) {
            return std::nullopt;
        }
        if (i != 3 && *end != '-') {
            return std::nullopt;
        }
    }
    return guid;
}

}  // namespace

ZevoGuid ParseGuid(const std::string& option, const std::string& text) {
    const std::optional<ZevoGuid> guid = ReadGuid(text);
    if (!guid) {
        throw CommandError(
            option + ": \"" + text + "\" is not a guid, which is four groups of eight hexadecimal digits joined by -",
            ExitUsage);
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
                "CAMERA: \"" + text + "\" is neither a serial number nor serial:N, index:N, ip:A, mac:M or guid:G",
                ExitUsage);
        }
        return BySerial{ParseNumber("CAMERA", value, 0, Largest)};
    }
    if (kind == "serial") {
        return BySerial{ParseNumber(option, value, 0, Largest)};
    }
    if (kind == "index") {
        return ByIndex{ParseNumber(option, value, 0, Largest)};
    }
    if (kind == "ip") {
        return ParseIp(option, value);
    }
    if (kind == "mac") {
        return ParseMac(option, value);
    }
    if (kind == "guid") {
        return ParseGuid(option, value);
    }
    throw CommandError("CAMERA: \"" + text + "\" does not begin with serial:, index:, ip:, mac: or guid:" +
                           DidYouMean(kind, {"serial", "index", "ip", "mac", "guid"}),
                       ExitUsage);
}

FoundCamera FindCamera(BusMaster& busMaster, const CameraChoice& choice) {
    const Cameras cameras = ListCameras(busMaster);
    if (const auto* guid = std::get_if<ZevoGuid>(&choice)) {
        return FindByGuid(busMaster, cameras, *guid);
    }
    if (const auto* serial = std::get_if<BySerial>(&choice)) {
        return FindOne(busMaster, cameras, HasSerialNumber(serial->serialNumber),
                       "the serial number " + std::to_string(serial->serialNumber), OtherSerialNumbers(cameras));
    }
    if (const auto* index = std::get_if<ByIndex>(&choice)) {
        return FindOne(busMaster, cameras, HasIndex(index->index), "the index " + std::to_string(index->index),
                       OtherIndexes(cameras));
    }
    if (const auto* mac = std::get_if<MACAddress>(&choice)) {
        return FindOne(busMaster, cameras, HasMac(*mac), "the MAC " + FormatMac(*mac),
                       OtherGigECameras(cameras, [](const Camera& camera) { return FormatMac(camera.mac); }));
    }
    const auto& ip = std::get<IPAddress>(choice);
    return FindOne(busMaster, cameras, HasIp(ip), "the address " + FormatIp(ip),
                   OtherGigECameras(cameras, [](const Camera& camera) { return FormatIp(camera.ip); }));
}

std::string FoundCamera::GetNameWithBus() const { return name + " (" + BusName(interfaceType) + ")"; }

void CheckFor(const FoundCamera& camera, const Error& error, const std::string& what) {
    if (error != ERROR_OK) {
        throw Explain(error, camera.GetNameWithBus() + " " + what, camera.interfaceType);
    }
}

void CameraArgument::AddTo(CLI::App& command) {
    const CLI::callback_t parser = [this](const CLI::results_t& words) {
        m_choice = ParseCamera(words.at(0));
        return true;
    };
    command.add_option("CAMERA", parser, Forms)->required()->type_name("");
}

BusMasterSession CameraArgument::Start(CommandContext& context) const {
    if (const auto* ip = std::get_if<IPAddress>(&m_choice)) {
        context.SearchFor({PackIPAddress(*ip), 0});
    }
    if (const auto* mac = std::get_if<MACAddress>(&m_choice)) {
        context.SearchFor({0, PackMac(*mac)});
    }
    return context.StartBusMaster();
}

FoundCamera CameraArgument::Find(const CommandContext& context, BusMaster& busMaster, const std::string& command,
                                 Scope scope) const {
    std::optional<FoundCamera> camera;
    try {
        camera = FindCamera(busMaster, m_choice);
        CheckScope(*camera, command, scope);
        return *camera;
    } catch (const CommandError&) {
        context.CheckBuses(busMaster);
        context.NoteBusesWithoutDriver(command);
        if (!camera && context.UsesBus("gige") && (scope == Scope::AnyBus || scope == Scope::GigE)) {
            CheckUnusable(m_choice);
        }
        throw;
    }
}

void AddCameraCommand(CLI::App& app, CommandContext& context, CameraCommand command) {
    const auto argument = std::make_shared<CameraArgument>();
    const auto shared = std::make_shared<const CameraCommand>(std::move(command));
    CLI::App* added = context.AddCommand(app, shared->name, shared->description, [&context, argument, shared] {
        const BusMasterSession busMaster = argument->Start(context);
        FoundCamera camera = argument->Find(context, *busMaster, shared->name, shared->scope);
        context.Print(shared->operation(*busMaster, camera, context.WantsJson()));
        return static_cast<int>(ExitDone);
    });
    argument->AddTo(*added);
    context.AddJsonOption(*added, "Print JSON.");
    context.AddBusOptions(*added);
    added->footer(shared->footer);
}

}  // namespace Nimbrel2::Tool
