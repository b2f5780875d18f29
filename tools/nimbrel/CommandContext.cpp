// SPDX-License-Identifier: Apache-2.0
// Common options and the start of the bus master. Main thread only; no lock.
#include "tools/nimbrel/CommandContext.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"
#include "tools/nimbrel/BusHealth.h"
#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/NetworkInterfaces.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kShortestWindow{10};
constexpr milliseconds kLongestWindow{30000};

struct Bus {
    const char* name;
    const char* forPeople;
    Platform::Driver Platform::Options::*driver;
};

constexpr Bus kBuses[] = {{"1394", "IEEE 1394", &Platform::Options::fireWire},
                          {"usb", "USB", &Platform::Options::usb},
                          {"gige", "GigE", &Platform::Options::gigE}};

void AddUnlessThere(std::vector<std::string>* words, const std::string& word) {
    if (std::find(words->begin(), words->end(), word) == words->end()) words->push_back(word);
}

void CheckBusName(const std::string& name) {
    for (const Bus& bus : kBuses) {
        if (name == bus.name) return;
    }
    throw CommandError("--bus: \"" + name + "\" is not one of 1394, usb, gige", kUsage);
}

// Before the command and after it.
void CheckIsFirst(const std::string& option, bool given) {
    if (given) throw CommandError(option + ": given before the command and after it, which is one too many", kUsage);
}

void CheckExists(const std::vector<std::string>& interfaces) {
    const std::vector<std::string> existing = NetworkInterfaceNames();
    for (const std::string& name : interfaces) {
        if (std::find(existing.begin(), existing.end(), name) != existing.end()) continue;
        throw CommandError("--interface: this computer has no network interface \"" + name + "\"; it has " +
                           (existing.empty() ? "none" : Enumerate(existing)));
    }
}

}  // namespace

CLI::App* CommandContext::AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                                     std::function<int()> action) {
    CLI::App* command = app.add_subcommand(name, description);
    command->callback([this, action = std::move(action)] { SetAction(action); });
    return command;
}

void CommandContext::AddValue(CLI::App& command, const std::string& name, const std::string& placeholder,
                              const std::string& description, std::function<void(const std::string&)> parser,
                              Times times) {
    const CLI::callback_t callback = [name, parser = std::move(parser), times](const CLI::results_t& values) {
        if (times == Times::Once && values.size() > 1) {
            throw CommandError(name + ": \"" + values[0] + "\" and \"" + values[1] + "\" are one too many", kUsage);
        }
        for (const std::string& value : values) parser(value);
        return true;
    };
    command.add_option(name, callback, description)->type_name(placeholder)->take_all();
}

void CommandContext::AddJsonOption(CLI::App& command, const std::string& description) {
    command.add_flag("--json", m_json, description);
}

void CommandContext::AddBusOptions(CLI::App& command) {
    AddValue(
        command, "--bus", "1394|usb|gige", "Look at this bus only; repeatable. Without it:\nall three.",
        [this](const std::string& name) {
            CheckBusName(name);
            AddUnlessThere(&m_buses, name);
        },
        Times::Repeatable);
    AddNetworkOptions(command);
    command.add_flag("--virtual", m_virtual, "Show virtual cameras too.");
    AddRigOptions(command);
}

void CommandContext::AddGigEOptions(CLI::App& command) {
    AddNetworkOptions(command);
    AddRigOptions(command);
}

void CommandContext::AddNetworkOptions(CLI::App& command) {
    AddValue(
        command, "--interface", "NAME",
        "Look for GigE cameras on this network interface\n"
        "only; repeatable. Without it: on all that are up,\n"
        "except loopback: name lo for cameras on it.",
        [this](const std::string& name) {
            if (name.empty()) throw CommandError("--interface: \"\" is not the name of an interface", kUsage);
            AddUnlessThere(&m_interfaces, name);
        },
        Times::Repeatable);
    AddValue(command, "--discovery-window", "SECONDS",
             "How long the first search for GigE cameras\n"
             "listens, 0.01 to 30; 1 by default, the longest\n"
             "that a camera may take. Most answer in 0.01.",
             [this](const std::string& text) {
                 CheckIsFirst("--discovery-window", m_discoveryWindow.has_value());
                 m_discoveryWindow = ParseSeconds("--discovery-window", text, kShortestWindow, kLongestWindow);
             });
}

void CommandContext::AddRigOptions(CLI::App& command) {
    AddValue(command, "--rig", "FILE",
             "Run on the simulated computer that this file\ndescribes (`nimbrel rig --help`).",
             [this](const std::string& file) {
                 CheckIsFirst("--rig", m_rigFile.has_value());
                 m_rigFile = file;
             });
    command.add_flag("--demo", m_demo, "Run on the built-in simulated computer.");
}

void CommandContext::Print(const std::string& text) { m_output.Write(text); }

bool CommandContext::UsesBus(const std::string& name) const {
    return m_buses.empty() || std::find(m_buses.begin(), m_buses.end(), name) != m_buses.end();
}

std::string CommandContext::DescribeBuses() const {
    std::vector<std::string> names;
    for (const Bus& bus : kBuses) {
        if (UsesBus(bus.name)) names.emplace_back(bus.forPeople);
    }
    return Enumerate(names);
}

std::vector<std::string> CommandContext::GetNetworkInterfaces() const {
    if (m_rig) return m_rig->WithGigE([](const Platform::GigEModel& model) { return model.InterfacesUp(); });
    return m_interfaces.empty() ? UsualNetworkInterfaceNames() : m_interfaces;
}

Platform::Options CommandContext::MakePlatformOptions(milliseconds unlessGiven) const {
    Platform::Options options;
    for (const Bus& bus : kBuses) {
        const Platform::Driver driver = m_rig ? Platform::Driver::Rig : Platform::Driver::Linux;
        options.*bus.driver = UsesBus(bus.name) ? driver : Platform::Driver::None;
    }
    if (m_rig) {
        options.makeDrivers = Platform::MakeRigDrivers(m_rig);
    } else {
        options.networkInterfaces = m_interfaces;
    }
    options.discoveryWindow = m_discoveryWindow.value_or(unlessGiven);
    return options;
}

void CommandContext::LoadRig() {
    if (m_rig || (!m_demo && !m_rigFile)) return;
    if (m_demo && m_rigFile) throw CommandError("--rig and --demo are one too many", kUsage);
    try {
        Platform::RigPlan plan =
            m_demo ? Platform::ParseRig(Platform::BuiltInRig(), "the built-in rig") : Platform::ReadRigFile(*m_rigFile);
        if (!m_interfaces.empty()) Platform::KeepNetworkInterfaces(&plan.rig, m_interfaces);
        m_rig = std::make_shared<Platform::Rig>(std::move(plan.rig));
    } catch (const Platform::RigFileError& error) {
        throw CommandError(ForTerminal(error.what()));
    } catch (const std::invalid_argument& error) {
        throw CommandError(std::string("--interface: ") + error.what());
    }
}

BusMasterSession CommandContext::MakeBusMaster(milliseconds unlessGiven) {
    LoadRig();
    if (!m_rig) CheckExists(m_interfaces);
    const Platform::Options options = MakePlatformOptions(unlessGiven);
    if (const Platform::ConfigureResult result = Platform::Configure(options); !result) {
        throw CommandError("the options cannot be used: " + result.reason);
    }
    return BusMasterSession(&Singleton<BusMaster>::GetInstance(),
                            [](BusMaster*) { Singleton<BusMaster>::DestroyInstance(); });
}

BusMasterSession CommandContext::OpenGigE() {
    m_buses = {"gige"};
    return MakeBusMaster(Platform::Options().discoveryWindow);
}

BusMasterSession CommandContext::StartBusMaster(milliseconds unlessGiven) {
    BusMasterSession session = MakeBusMaster(unlessGiven);
    const Progress progress(UsesBus("gige") ? "Discovering GigE cameras" : "Looking for cameras");
    if (m_virtual) Check(session->EnableVirtualDeviceEnumeration());
    Check(session->Initialize());
    if (!session->GetInitialized()) {
        throw CommandError("the bus master has started without bus events: those of IEEE 1394 were refused");
    }
    return session;
}

bool CommandContext::CheckBuses(BusMaster& busMaster) const {
    const auto failures = FindFailedBuses(busMaster, [this](const std::string& bus) { return UsesBus(bus); });
    for (const std::string& failure : failures) WriteError("nimbrel: " + failure + "\n");
    return failures.empty();
}

}  // namespace Nimbrel2::Tool
