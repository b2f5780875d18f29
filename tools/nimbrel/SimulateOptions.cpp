// SPDX-License-Identifier: Apache-2.0
// Option values of `nimbrel simulate gige` and the cameras that follow from them. Pure functions; any thread.
#include "tools/nimbrel/SimulateOptions.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <tuple>
#include <utility>

namespace Nimbrel2::Tool {

using Platform::Gvcp::MessageId;
using Platform::Gvcp::Status;
using Platform::Simulated::ControlOwner;
using Platform::Simulated::Endpoint;
using Platform::Simulated::ErrorRule;
using Platform::Simulated::SimulatedCameraOptions;
using std::chrono::milliseconds;

namespace {

constexpr std::uint32_t FirstLoopbackCamera = 0x7F000002;
constexpr unsigned int LongestDelay = 60000;
constexpr std::uint64_t LargestMac = 0xFFFFFFFFFFFF;
constexpr std::uint64_t MulticastBit = std::uint64_t{1} << 40;

struct NamedCommand {
    std::string_view name;
    std::optional<MessageId> id;
};

constexpr std::array<NamedCommand, 7> CommandNames{{{"any", std::nullopt},
                                                    {"discovery", MessageId::DiscoveryCmd},
                                                    {"forceip", MessageId::ForceIpCmd},
                                                    {"readreg", MessageId::ReadRegCmd},
                                                    {"writereg", MessageId::WriteRegCmd},
                                                    {"readmem", MessageId::ReadMemCmd},
                                                    {"writemem", MessageId::WriteMemCmd}}};

struct NamedStatus {
    std::string_view name;
    Status status;
};

constexpr std::array<NamedStatus, 8> StatusNames{{{"not-implemented", Status::NotImplemented},
                                                  {"invalid-parameter", Status::InvalidParameter},
                                                  {"invalid-address", Status::InvalidAddress},
                                                  {"write-protect", Status::WriteProtect},
                                                  {"bad-alignment", Status::BadAlignment},
                                                  {"access-denied", Status::AccessDenied},
                                                  {"busy", Status::Busy},
                                                  {"error", Status::Error}}};

/// A whole number, decimal, or hexadecimal after 0x.
std::optional<std::uint64_t> ReadNumber(std::string_view text, std::uint64_t largest) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = hexadecimal ? text.substr(2) : text;
    std::uint64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, hexadecimal ? 16 : 10);
    if (error != std::errc() || end != digits.data() + digits.size() || value > largest) {
        return std::nullopt;
    }
    return value;
}

std::optional<Status> ReadStatus(std::string_view text) {
    for (const NamedStatus& named : StatusNames) {
        if (named.name == text) {
            return named.status;
        }
    }
    const auto number = ReadNumber(text, 0xFFFF);
    // Without the top bit it would not be an error.
    if (!number || *number < 0x8000) {
        return std::nullopt;
    }
    return static_cast<Status>(*number);
}

}  // namespace

// ---- Values --------------------------------------------------------------------------------------------------------

std::optional<std::uint32_t> ReadAddress(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return std::nullopt;
    }
    return ntohl(address.s_addr);
}

std::optional<std::uint32_t> ReadHostAddress(const std::string& text) {
    const auto address = ReadAddress(text);
    if (!address || *address >> 24 == 0 || *address >> 28 >= 0xE) {
        return std::nullopt;
    }
    return address;
}

std::optional<std::uint32_t> ReadSubnetMask(const std::string& text) {
    const bool hasSlash = !text.empty() && text.front() == '/';
    if (const auto length = ReadWhole(hasSlash ? text.substr(1) : text, 1, 32)) {
        return static_cast<std::uint32_t>(~std::uint64_t{0} << (32 - *length));
    }
    const auto mask = ReadAddress(text);
    if (!mask || *mask == 0 || std::countl_one(*mask) + std::countr_zero(*mask) != 32) {
        return std::nullopt;
    }
    return mask;
}

std::optional<std::uint64_t> ReadMac(const std::string& text) {
    if (text.size() != 17) {
        return std::nullopt;
    }
    std::uint64_t mac = 0;
    for (std::size_t i = 0; i < text.size(); i += 3) {
        unsigned int octet = 0;
        const char* begin = text.data() + i;
        const auto [end, error] = std::from_chars(begin, begin + 2, octet, 16);
        if (error != std::errc() || end != begin + 2) {
            return std::nullopt;
        }
        if (i + 2 < text.size() && (text[i + 2] != text[2] || (text[2] != ':' && text[2] != '-'))) {
            return std::nullopt;
        }
        mac = mac << 8 | octet;
    }
    if (mac == 0 || (mac & MulticastBit) != 0) {
        return std::nullopt;
    }
    return mac;
}

std::optional<Endpoint> ReadEndpoint(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    const auto address = ReadAddress(text.substr(0, colon));
    const auto port = ReadNumber(std::string_view(text).substr(colon + 1), 0xFFFF);
    if (!address || !port || *port == 0) {
        return std::nullopt;
    }
    return Endpoint{*address, static_cast<std::uint16_t>(*port)};
}

std::optional<std::pair<milliseconds, milliseconds>> ReadDelay(const std::string& text) {
    const std::size_t dash = text.find('-');
    const std::string_view low = std::string_view(text).substr(0, dash);
    const std::string_view high = dash == std::string::npos ? low : std::string_view(text).substr(dash + 1);
    const auto minimum = ReadNumber(low, LongestDelay);
    const auto maximum = ReadNumber(high, LongestDelay);
    if (!minimum || !maximum || *minimum > *maximum) {
        return std::nullopt;
    }
    return std::pair(milliseconds(*minimum), milliseconds(*maximum));
}

std::optional<double> ReadDecimal(const std::string& text, double low, double high) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) {
        return std::nullopt;
    }
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::uint64_t> ReadWhole(const std::string& text, std::uint64_t low, std::uint64_t high) {
    if (text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const auto value = ReadNumber(text, high);
    return value && *value >= low ? value : std::nullopt;
}

std::optional<ErrorRule> ReadErrorRule(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    const std::string_view what = std::string_view(text).substr(0, colon);
    const std::size_t at = what.find('@');
    const auto command = std::find_if(CommandNames.begin(), CommandNames.end(),
                                      [&](const NamedCommand& named) { return named.name == what.substr(0, at); });
    const auto status = ReadStatus(std::string_view(text).substr(colon + 1));
    if (command == CommandNames.end() || !status) {
        return std::nullopt;
    }
    ErrorRule rule;
    rule.command = command->id;
    rule.status = *status;
    if (at != std::string_view::npos) {
        const auto address = ReadNumber(what.substr(at + 1), 0xFFFFFFFF);
        if (!address) {
            return std::nullopt;
        }
        rule.address = static_cast<std::uint32_t>(*address);
    }
    return rule;
}

// ---- The cameras ---------------------------------------------------------------------------------------------------

namespace {

/// What the first camera has, before the others count up.
SimulatedCameraOptions MakeFirst(const SimulateOptions& options) {
    SimulatedCameraOptions camera;
    camera.interfaceName = options.interfaceName;
    camera.address = ReadAddress(options.address).value_or(FirstLoopbackCamera);
    const bool loopback = camera.address >> 24 == 127;
    camera.subnetMask = ReadSubnetMask(options.subnetMask).value_or(loopback ? 0xFF000000 : 0xFFFFFF00);
    camera.gateway = ReadAddress(options.gateway).value_or(0);
    // A locally administered MAC address that no other address has.
    camera.mac = ReadMac(options.mac).value_or(std::uint64_t{0x0200} << 32 | camera.address);
    if (!options.vendor.empty()) {
        camera.vendor = options.vendor;
    }
    if (!options.model.empty()) {
        camera.model = options.model;
    }
    if (!options.version.empty()) {
        camera.deviceVersion = options.version;
    }
    if (!options.info.empty()) {
        camera.info = options.info;
    }
    if (!options.serial.empty()) {
        camera.serialNumber = options.serial;
    }
    camera.userDefinedName = options.name;
    camera.discoveryDelay = static_cast<std::uint16_t>(options.discoveryDelay);
    if (const auto endpoint = ReadEndpoint(options.controlOwner)) {
        camera.owner = ControlOwner{*endpoint, options.exclusive};
    }
    camera.faults.lossPercent = options.lossPercent;
    camera.faults.duplicatePercent = options.duplicatePercent;
    if (const auto delay = ReadDelay(options.delay)) {
        std::tie(camera.faults.delayMinimum, camera.faults.delayMaximum) = *delay;
    }
    if (const auto pending = ReadDelay(options.pending)) {
        std::tie(camera.faults.pendingActual, camera.faults.pendingAnnounced) = *pending;
    }
    for (const std::string& error : options.errors) {
        if (const auto rule = ReadErrorRule(error)) {
            camera.faults.errors.push_back(*rule);
        }
    }
    return camera;
}

/// Whether that many addresses from the first on are hosts of one subnet.
bool HaveRoom(const SimulatedCameraOptions& first, unsigned int count) {
    const std::uint32_t last = first.address + (count - 1);
    if (last < first.address || (last & first.subnetMask) != (first.address & first.subnetMask)) {
        return false;
    }
    const bool hasBroadcast = std::popcount(first.subnetMask) < 31;
    return !hasBroadcast || ((first.address & ~first.subnetMask) != 0 && (last | first.subnetMask) != 0xFFFFFFFF);
}

std::string FindProblem(const SimulateOptions& options, const SimulatedCameraOptions& first) {
    const std::string count = std::to_string(options.count);
    if (options.exclusive && options.controlOwner.empty()) {
        return "--exclusive requires --ccp-owner";
    }
    if (!HaveRoom(first, options.count)) {
        return "--count " + count + ": the subnet with mask " + Platform::FormatIp(first.subnetMask) +
               " has fewer host addresses from " + Platform::FormatIp(first.address) + " on";
    }
    if (first.mac + (options.count - 1) > LargestMac || ((first.mac + (options.count - 1)) & MulticastBit) != 0) {
        return "--mac " + options.mac + ": fewer MAC addresses from here on than --count " + count;
    }
    const auto serial = ReadNumber(first.serialNumber, UINT64_MAX - options.count);
    const bool countable = serial && std::to_string(*serial) == first.serialNumber;
    if (options.count > 1 && !countable) {
        return "--serial " + first.serialNumber + ": several cameras need a number to count up from";
    }
    if (options.count > 1 && std::to_string(*serial + options.count - 1).size() > Platform::Gvcp::SerialNumberBytes) {
        return "--serial " + first.serialNumber + ": the last of " + count + " has more than 16 digits";
    }
    return {};
}

}  // namespace

SimulationPlan MakeSimulationPlan(const SimulateOptions& options) {
    SimulationPlan plan;
    const SimulatedCameraOptions first = MakeFirst(options);
    plan.problem = FindProblem(options, first);
    if (!plan.problem.empty()) {
        return plan;
    }
    const std::uint64_t serial = ReadNumber(first.serialNumber, UINT64_MAX).value_or(0);
    for (unsigned int i = 0; i < options.count; ++i) {
        SimulatedCameraOptions camera = first;
        camera.address += i;
        camera.mac += i;
        if (i != 0) {
            camera.serialNumber = std::to_string(serial + i);
        }
        plan.cameras.push_back(std::move(camera));
    }
    return plan;
}

}  // namespace Nimbrel2::Tool
