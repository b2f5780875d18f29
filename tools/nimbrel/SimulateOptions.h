// SPDX-License-Identifier: Apache-2.0
// What `nimbrel simulate gige` was asked for, as text and as the cameras that follow from it. Pure functions; any
// thread.
#ifndef NIMBREL2_TOOLS_NIMBREL_SIMULATEOPTIONS_H
#define NIMBREL2_TOOLS_NIMBREL_SIMULATEOPTIONS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/Texts.h"
#include "platform/simulated/SimulatedCameraOptions.h"

namespace Nimbrel2::Tool {

/// Readers of option values. Each returns nothing for text that is not wholly such a value.
std::optional<std::uint32_t> ReadAddress(const std::string& text);      ///< 192.168.77.50
std::optional<std::uint32_t> ReadHostAddress(const std::string& text);  ///< the same, but neither 0.* nor multicast
std::optional<std::uint32_t> ReadSubnetMask(const std::string& text);   ///< 255.255.255.0 without holes, /24 or 24
/// 02:00:5e:00:00:01 or 02-00-5e-00-00-01, not a group address.
std::optional<std::uint64_t> ReadMac(const std::string& text);
std::optional<Platform::Simulated::Endpoint> ReadEndpoint(const std::string& text);  ///< 192.168.77.1:50000
/// Milliseconds, one number or two joined by "-", up to a minute.
std::optional<std::pair<std::chrono::milliseconds, std::chrono::milliseconds>> ReadDelay(const std::string& text);
/// Digits with or without a decimal point, within bounds.
std::optional<double> ReadDecimal(const std::string& text, double low, double high);
/// Digits, within bounds.
std::optional<std::uint64_t> ReadWhole(const std::string& text, std::uint64_t low, std::uint64_t high);
/// COMMAND:STATUS or COMMAND@ADDRESS:STATUS; a status by number or by the standard's name.
std::optional<Platform::Simulated::ErrorRule> ReadErrorRule(const std::string& text);

/// Values of the options, checked one by one; empty and 0 stand for "not given" where a default follows from others.
struct SimulateOptions {
    unsigned int count = 1;
    std::string interfaceName;
    std::string address;
    std::string subnetMask;
    std::string gateway;
    std::string mac;
    std::string serial;
    std::string vendor;
    std::string model;
    std::string name;
    std::string version;
    std::string info;
    std::string controlOwner;
    bool exclusive = false;
    std::string delay;
    double lossPercent = 0;
    double duplicatePercent = 0;
    std::vector<std::string> errors;
    std::string pending;
    unsigned int discoveryDelay = 0;
    std::uint64_t seed = 1;
    double duration = 0;
    bool json = false;
};

struct SimulationPlan {
    std::vector<Platform::Simulated::SimulatedCameraOptions> cameras;
    std::string problem;  ///< names the option and the value that do not fit the others; then there are no cameras
};

/// The cameras: addresses, MAC addresses and serial numbers count up from the first.
SimulationPlan MakeSimulationPlan(const SimulateOptions& options);

using Platform::FormatMac;

}  // namespace Nimbrel2::Tool

#endif
