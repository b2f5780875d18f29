// SPDX-License-Identifier: Apache-2.0
// Reads and writes values of options. Pure.
#include "tools/nimbrel/Values.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#include "tools/nimbrel/CommandError.h"

namespace Nimbrel2::Tool {
namespace {

using std::chrono::milliseconds;

constexpr std::uint16_t FirstFreePort = 1024;  // those below are for administrators

CommandError Refusal(const std::string& option, const std::string& text, const std::string& wanted) {
    return CommandError(option + ": \"" + text + "\" is not " + wanted, ExitUsage);
}

// Digits only: from_chars takes a minus sign for what it is, even before an unsigned number's digits.
template <class Number>
std::optional<Number> WholeNumber(const std::string& text, int base = 10) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// Digits and a point only: no sign, no exponent, no infinity.
std::optional<double> DecimalNumber(const std::string& text) {
    const bool hasDigits = text.find_first_of("0123456789") != std::string::npos;
    if (!hasDigits || text.find_first_not_of("0123456789.") != std::string::npos) {
        return std::nullopt;
    }
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

}  // namespace

milliseconds ParseSeconds(const std::string& option, const std::string& text, milliseconds smallest,
                          milliseconds largest) {
    const std::optional<double> seconds = DecimalNumber(text);
    const double rounded = std::round(seconds.value_or(0) * 1000);
    if (!seconds || rounded < static_cast<double>(smallest.count()) || rounded > static_cast<double>(largest.count())) {
        throw Refusal(
            option, text,
            "a time from " + FormatSeconds(smallest) + " to " + FormatSeconds(largest) + " in seconds, such as 0.2");
    }
    return milliseconds(static_cast<milliseconds::rep>(rounded));
}

std::uint64_t ParseCount(const std::string& option, const std::string& text) {
    const auto count = WholeNumber<std::uint64_t>(text);
    if (!count || *count == 0) {
        throw Refusal(option, text, "a whole number from 1 up");
    }
    return *count;
}

std::uint32_t ParseNumber(const std::string& option, const std::string& text, std::uint32_t smallest,
                          std::uint32_t largest) {
    const bool hexadecimal = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
    const auto number = hexadecimal ? WholeNumber<std::uint32_t>(text.substr(2), 16) : WholeNumber<std::uint32_t>(text);
    if (!number || *number < smallest || *number > largest) {
        throw Refusal(option, text, "a number from " + std::to_string(smallest) + " to " + std::to_string(largest));
    }
    return *number;
}

Platform::PortRange ParsePortRange(const std::string& option, const std::string& text) {
    const std::size_t dash = text.find('-');
    const auto first = WholeNumber<std::uint16_t>(text.substr(0, dash));
    const auto last = dash == std::string::npos ? std::nullopt : WholeNumber<std::uint16_t>(text.substr(dash + 1));
    if (!first || !last || *first < FirstFreePort || *last < *first) {
        throw Refusal(option, text, "two UDP ports from 1024 to 65535, the lower one first, such as 50000-50063");
    }
    if (const unsigned int count = *last - *first + 1u; count <= Platform::SourcePortsBesideCameras) {
        throw CommandError(option + ": \"" + text + "\" has " + std::to_string(count) +
                               (count == 1 ? " port" : " ports") + "; each network interface needs " +
                               std::to_string(Platform::SourcePortsBesideCameras) + ", and 1 for each of its cameras",
                           ExitUsage);
    }
    return {*first, *last};
}

std::vector<std::uint32_t> ParseSerialNumbers(const std::string& option, const std::string& text) {
    std::vector<std::uint32_t> serials;
    for (const std::string& word : SplitAt(text, ',')) {
        const auto serial = WholeNumber<std::uint32_t>(word);
        if (!serial) {
            throw Refusal(option, word, "a serial number, which is a number from 0 to 4294967295");
        }
        if (std::find(serials.begin(), serials.end(), *serial) == serials.end()) {
            serials.push_back(*serial);
        }
    }
    return serials;
}

std::string FormatSeconds(milliseconds time) {
    std::string text = std::to_string(time.count() / 1000);
    std::string decimals = std::to_string(1000 + time.count() % 1000).substr(1);
    decimals.erase(decimals.find_last_not_of('0') + 1);
    return text + (decimals.empty() ? "" : "." + decimals) + " s";
}

std::string FormatSpeed(std::uint32_t megabits) {
    if (megabits < 1000) {
        return std::to_string(megabits) + " Mbit/s";
    }
    std::string text = std::to_string(megabits / 1000);
    std::string decimals = std::to_string(1000 + megabits % 1000).substr(1);
    decimals.erase(decimals.find_last_not_of('0') + 1);
    return text + (decimals.empty() ? "" : "." + decimals) + " Gbit/s";
}

std::vector<std::string> SplitAt(const std::string& text, char separator) {
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

}  // namespace Nimbrel2::Tool
