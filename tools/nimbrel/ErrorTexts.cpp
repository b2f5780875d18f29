// SPDX-License-Identifier: Apache-2.0
// Finds the words for errors. Pure.
#include "tools/nimbrel/ErrorTexts.h"

#include <charconv>

#include "common/HalStatus.h"
#include "hal/HAL.h"
#include "tools/nimbrel/doctor/UsbRule.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::uint32_t NoStatus = 0xFFFFFFFF;
constexpr char UsersOfUsb[] = "`nimbrel doctor --bus usb` shows who uses it.";

// "... Error 0x3", "... Error: 0x3." and "... Error: 3": always hexadecimal.
std::optional<std::uint32_t> StatusAtEnd(std::string message) {
    while (!message.empty() && message.back() == '.') {
        message.pop_back();
    }
    const std::size_t at = message.rfind("Error");
    if (at == std::string::npos) {
        return std::nullopt;
    }
    std::size_t begin = message.find_first_not_of(": ", at + 5);
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    if (message.compare(begin, 2, "0x") == 0) {
        begin += 2;
    }
    std::uint32_t status = 0;
    const char* last = message.data() + message.size();
    const auto [end, error] = std::from_chars(message.data() + begin, last, status, 16);
    if (error != std::errc() || end != last) {
        return std::nullopt;
    }
    return status;
}

}  // namespace

std::string DescribeStatus(std::uint32_t status) {
    if (status == HAL_FAILED) {
        return "the driver gives no reason";
    }
    const std::string text = HalStatusText(status);
    return text == HalStatusText(NoStatus) ? "failed with status " + std::to_string(status) : text;
}

std::optional<std::uint32_t> FindStatus(const Error& error) {
    for (const Error* cause = &error; cause != nullptr; cause = cause->GetCause()) {
        if (const auto status = StatusAtEnd(cause->GetMessage())) {
            return status;
        }
    }
    return std::nullopt;
}

std::string DescribeCause(const Error& error) {
    if (error == ERROR_MEMORY_ALLOCATION_FAILED) {
        return "out of memory";
    }
    if (error == ERROR_TIMEOUT) {
        return DescribeStatus(HAL_NO_ACKNOWLEDGE);
    }
    if (error == ERROR_NOT_FOUND) {
        return DescribeStatus(HAL_GONE);
    }
    if (error == ERROR_NOT_IMPLEMENTED) {
        return DescribeStatus(HAL_PHY_WRITE_NOT_IMPLEMENTED);
    }
    if (error == ERROR_REGISTER_FAILED) {
        return "the camera does not answer";
    }
    if (const auto status = FindStatus(error)) {
        return DescribeStatus(*status);
    }
    const Error* first = &error;  // the messages below hold no status
    while (first->GetCause() != nullptr) {
        first = first->GetCause();
    }
    std::string message = first->GetMessage();
    if (message == "Unable to read card register.") {
        return "the hub does not answer";
    }
    while (!message.empty() && message.back() == '.') {
        message.pop_back();
    }
    return message.empty() ? "failed without a reason" : message;
}

std::string WhyNotNamed(std::uint32_t status) {
    return status == HAL_OK ? "does not name" : "did not name: " + DescribeStatus(status);
}

std::string NextStep(std::uint32_t status, InterfaceType bus) {
    const bool isUsb = bus == INTERFACE_USB_2 || bus == INTERFACE_USB_3;
    switch (status) {
        case HAL_PERMISSION:
            if (isUsb) {
                return Doctor::HintForUsbPermission();
            }
            return std::string("Try again as root: `") + AgainAsRootMark + "`.";
        case HAL_GONE:
        case HAL_BUS_CHANGED:
            return "`nimbrel list` shows what is attached now.";
        case HAL_BUSY:
            return isUsb ? UsersOfUsb : "";
        case HAL_ACCESS_DENIED:
            if (isUsb) {
                return UsersOfUsb;
            }
            return bus == INTERFACE_GIGE ? "`nimbrel control` shows who holds it." : "End the program that uses it.";
        case HAL_NO_BUS:
        case HAL_UNREACHABLE:
        case HAL_TIMED_OUT:
        case HAL_NO_ACKNOWLEDGE:
            return bus == INTERFACE_GIGE ? "`nimbrel doctor` finds out why."
                                         : "`nimbrel list` shows whether it is still attached.";
        default:
            return {};
    }
}

CommandError Explain(const Error& error, const std::string& what, InterfaceType bus) {
    std::uint32_t status = FindStatus(error).value_or(HAL_OK);
    if (error == ERROR_TIMEOUT) {
        status = HAL_NO_ACKNOWLEDGE;
    }
    if (error == ERROR_NOT_FOUND) {
        status = HAL_GONE;
    }
    if (error == ERROR_REGISTER_FAILED) {
        status = HAL_TIMED_OUT;
    }
    return CommandError(what + ": " + DescribeCause(error))
        .WithHint(NextStep(status, bus))
        .WithDetails(error.Describe());
}

void Check(const Error& error, const std::string& what) {
    if (error != ERROR_OK) {
        throw Explain(error, what);
    }
}

std::string BusName(InterfaceType type) {
    switch (type) {
        case INTERFACE_IEEE1394:
            return "IEEE 1394";
        case INTERFACE_USB_2:
            return "USB 2";
        case INTERFACE_USB_3:
            return "USB 3";
        case INTERFACE_GIGE:
            return "GigE";
        case INTERFACE_NONE:
            break;
    }
    return "no bus";
}

}  // namespace Nimbrel2::Tool
