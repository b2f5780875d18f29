// SPDX-License-Identifier: Apache-2.0
// Where a USB device is. Pure functions: any thread, no lock, no I/O.
#include "platform/linux/usb/Place.h"

#include <algorithm>
#include <charconv>

namespace Nimbrel2::Platform::Usb {

namespace {

constexpr std::size_t MostPorts = 7;  // a device below six hubs, which no bus allows, and one more
constexpr std::uint32_t MostBuses = 0xFFFF;
constexpr std::uint64_t HashTag = std::uint64_t{1} << 63;

// Takes a decimal number off the text; nothing when it starts with none or with one that is out of range.
std::optional<std::uint32_t> TakeNumber(std::string_view* text, std::uint32_t most) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc{} || value == 0 || value > most) {
        return std::nullopt;
    }
    text->remove_prefix(static_cast<std::size_t>(end - text->data()));
    return value;
}

// Takes a hexadecimal field of a PCI name and the character behind it off the text.
std::optional<std::uint32_t> TakeHex(std::string_view* text, std::size_t least, std::size_t most, char behind) {
    const std::size_t size = behind == '\0' ? text->size() : text->find(behind);
    if (size == std::string_view::npos || size < least || size > most) {
        return std::nullopt;
    }
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + size, value, 16);
    if (error != std::errc{} || end != text->data() + size) {
        return std::nullopt;
    }
    text->remove_prefix(std::min(size + 1, text->size()));
    return value;
}

// "0000:00:14.0"
std::optional<std::uint64_t> ParsePciName(std::string_view name) {
    const auto domain = TakeHex(&name, 4, 8, ':');
    const auto bus = domain ? TakeHex(&name, 2, 2, ':') : std::nullopt;
    const auto device = bus ? TakeHex(&name, 2, 2, '.') : std::nullopt;
    const auto function = device ? TakeHex(&name, 1, 1, '\0') : std::nullopt;
    if (!function || *device > 31 || *function > 7) {
        return std::nullopt;
    }
    return std::uint64_t{*domain} << 16 | *bus << 8 | *device << 3 | *function;
}

}  // namespace

std::optional<DeviceName> ParseDeviceName(std::string_view name) {
    constexpr std::string_view RootHub = "usb";
    DeviceName parsed;
    if (name.substr(0, RootHub.size()) == RootHub) {
        name.remove_prefix(RootHub.size());
        const auto bus = TakeNumber(&name, MostBuses);
        if (!bus || !name.empty()) {
            return std::nullopt;
        }
        parsed.bus = *bus;
        return parsed;
    }
    const auto bus = TakeNumber(&name, MostBuses);
    if (!bus) {
        return std::nullopt;
    }
    parsed.bus = *bus;
    for (char separator = '-'; !name.empty(); separator = '.') {
        if (name.front() != separator || parsed.ports.size() == MostPorts) {
            return std::nullopt;
        }
        name.remove_prefix(1);
        const auto port = TakeNumber(&name, 255);
        if (!port) {
            return std::nullopt;
        }
        parsed.ports.push_back(static_cast<std::uint8_t>(*port));
    }
    if (parsed.ports.empty()) {
        return std::nullopt;
    }
    return parsed;
}

std::string PortPath(const std::vector<std::uint8_t>& ports) {
    std::string path;
    for (const std::uint8_t port : ports) {
        if (!path.empty()) {
            path += '.';
        }
        path += std::to_string(port);
    }
    return path;
}

std::uint32_t CountHubsAbove(const std::vector<std::uint8_t>& ports) {
    return ports.empty() ? 0 : static_cast<std::uint32_t>(ports.size() - 1);
}

std::uint64_t RouteString(const std::vector<std::uint8_t>& ports) {
    std::uint64_t route = 0;
    for (std::size_t tier = 1; tier < ports.size(); ++tier) {
        route |= std::uint64_t{std::min<std::uint8_t>(ports[tier], 15)} << 4 * (tier - 1);
    }
    return route;
}

std::uint64_t ControllerKey(std::string_view path) {
    if (const auto key = ParsePciName(path.substr(path.rfind('/') + 1))) {
        return *key;
    }
    std::uint64_t hash = 14695981039346656037U;  // FNV-1a
    for (const char c : path) {
        hash = (hash ^ static_cast<std::uint8_t>(c)) * 1099511628211U;
    }
    return hash | HashTag;
}

}  // namespace Nimbrel2::Platform::Usb
