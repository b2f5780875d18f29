// SPDX-License-Identifier: Apache-2.0
// Names for the bits of USB port status. Pure.
#include "tools/nimbrel/UsbStatus.h"

#include <array>
#include <utility>

#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::uint32_t SuperSpeed = 5000;

using BitNames = std::array<const char*, 16>;

constexpr const char* NoName = nullptr;

// USB 2.0 tables 11-21 and 11-22, with the bits of its link power management addendum.
constexpr BitNames Usb2Status{"connected", "enabled", "suspended", "over-current", "reset",      NoName,
                              NoName,      NoName,    "power",     "low speed",    "high speed", "test mode",
                              "indicator", NoName,    NoName,      NoName};
constexpr BitNames Usb2Change{"connection", "enabling", "suspending", "over-current", "reset", "sleep"};

// USB 3.2 tables 10-13 and 10-14. Bits 5 to 8 are the link state, 10 to 12 the speed, of which there is one.
constexpr BitNames Usb3Status{"connected", "enabled", NoName, "over-current", "reset",
                              NoName,      NoName,    NoName, NoName,         "power"};
constexpr BitNames Usb3Change{"connection", NoName,       NoName,       "over-current",
                              "reset",      "warm reset", "link state", "configuration error"};
constexpr std::uint32_t LinkStateBits = 0x01E0;
constexpr std::uint32_t SpeedBits = 0x1C00;
constexpr std::array<const char*, 12> LinkStates{"U0",       "U1",        "U2",         "U3",
                                                 "disabled", "Rx.Detect", "inactive",   "polling",
                                                 "recovery", "hot reset", "compliance", "loopback"};

std::vector<std::string> NamesOf(std::uint32_t bits, const BitNames& names) {
    std::vector<std::string> words;
    for (std::size_t bit = 0; bit < names.size(); ++bit) {
        if ((bits >> bit & 1) == 0) {
            continue;
        }
        words.push_back(names.at(bit) != NoName ? names.at(bit) : "bit " + std::to_string(bit));
    }
    return words;
}

}  // namespace

UsbLink DecodeUsbLink(std::uint32_t link) { return {link >> 16, link >> 8 & 0xFF, link & 0xFF}; }

std::string DescribeUsbSpeed(std::uint32_t megabits) {
    switch (megabits) {
        case 0:
            return "unknown";
        case 1:
            return "1.5 Mbit/s (low speed)";
        case 12:
            return FormatSpeed(megabits) + " (full speed)";
        case 480:
            return FormatSpeed(megabits) + " (high speed)";
        case SuperSpeed:
            return FormatSpeed(megabits) + " (SuperSpeed)";
        default:
            return FormatSpeed(megabits) + (megabits > SuperSpeed ? " (SuperSpeed+)" : "");
    }
}

UsbPort DecodeUsbPort(std::uint32_t status, bool superSpeed) {
    const std::uint32_t low = status & 0xFFFF;
    const std::uint32_t high = status >> 16;
    if (!superSpeed) {
        return {NamesOf(low, Usb2Status), NamesOf(high, Usb2Change), ""};
    }
    const std::uint32_t state = (low & LinkStateBits) >> 5;
    return {NamesOf(low & ~(LinkStateBits | SpeedBits), Usb3Status), NamesOf(high, Usb3Change),
            state < LinkStates.size() ? LinkStates.at(state) : "state " + std::to_string(state)};
}

}  // namespace Nimbrel2::Tool
