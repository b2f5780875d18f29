// SPDX-License-Identifier: Apache-2.0
// Common options and the start of the bus master. Main thread only; no lock.
#include "tools/nimbrel/CommandContext.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "common/Trace.h"
#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/NetworkInterfaces.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/SearchReport.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds ShortestWindow{10};
constexpr milliseconds LongestWindow{30000};

void AddUnlessThere(std::vector<std::string>* words, const std::string& word) {
    if (std::find(words->begin(), words->end(), word) == words->end()) {
        words->push_back(word);
    }
}

void CheckBusName(const std::string& name) {
    std::vector<std::string> names;
    for (const BusKind& bus : BusKinds()) {
        names.emplace_back(bus.name);
    }
    if (std::find(names.begin(), names.end(), name) != names.end()) {
        return;
    }
    throw CommandError("--bus: \"" + name + "\" is not one of " + Enumerate(names, "or"), ExitUsage);
}

// Before the command and after it.
void CheckGivenOnce(const std::string& option, bool given) {
    if (given) {
        throw CommandError(option + ": given twice, before the command and after it", ExitUsage);
    }
}

Platform::Driver* DriverOf(Platform::Options* options, HALInterfaceType bus) {
    if (bus == HAL_INTERFACE_1394) {
        return &options->fireWire;
    }
    return bus == HAL_INTERFACE_USB ? &options->usb : &options->gigE;
}

// "1209:0001": two groups of four hexadecimal digits, as lsusb prints them.
Platform::UsbId ParseUsbId(const std::string& text) {
    const auto readGroup = [&text](std::size_t begin, std::uint16_t* value) {
        const char* end = text.data() + begin + 4;
        return std::from_chars(text.data() + begin, end, *value, 16).ptr == end;
    };
    Platform::UsbId id;
    if (text.size() != 9 || text[4] != ':' || !readGroup(0, &id.vendor) || !readGroup(5, &id.product)) {
        throw CommandError("--usb-id: \"" + text + "\" is not two groups of four hexadecimal digits, like 1209:0001",
                           ExitUsage);
    }
    return id;
}

void CheckExists(const std::vector<std::string>& interfaces) {
    const std::vector<std::string> existing = NetworkInterfaceNames();
    for (const std::string& name : interfaces) {
        if (std::find(existing.begin(), existing.end(), name) != existing.end()) {
            continue;
        }
        throw CommandError("--interface: this computer has no network interface \"" + name + "\"; it has " +
                           (existing.empty() ? "none" : Enumerate(existing)));
    }
}

// "2 heard: 192.168.77.10 Cairn G 2040, 192.168.77.11 Cairn G 2040"
std::string DescribeHeard() {
    Platform::GigEDiagnosis diagnosis;
    if (Platform::DiagnoseGigE(false, &diagnosis) != HAL_OK || diagnosis.cameras.empty()) {
        return {};
    }
    std::string text;
    const std::vector<HeardCamera> heard = FindHeardCameras(diagnosis);
    for (const HeardCamera& camera : heard) {
        text += (text.empty() ? ": " : ", ") + FormatIp(camera.camera.ip) + " " + camera.camera.vendor + " " +
                camera.camera.model;
    }
    return std::to_string(heard.size()) + " heard" + text;
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
            throw CommandError(name + ": \"" + values[0] + "\" and \"" + values[1] + "\" given, but it takes one value",
                               ExitUsage);
        }
        for (const std::string& value : values) {
            parser(value);
        }
        return true;
    };
    command.add_option(name, callback, description)->type_name(placeholder)->take_all();
}

void CommandContext::AddJsonOption(CLI::App& command, const std::string& description) {
    command.add_flag("--json", m_json, description);
    AddValue(command, "--color", "auto|always|never",
             "Colours in what is printed for people. Default:\nauto, on terminals unless NO_COLOR is set.",
             [this](const std::string& text) { m_colour = ParseColourChoice(text); });
}

void CommandContext::AddBusOptions(CLI::App& command) {
    AddValue(
        command, "--bus", "1394|usb|gige", "Search this bus only; repeatable. Default: all\nthree.",
        [this](const std::string& name) {
            CheckBusName(name);
            AddUnlessThere(&m_buses, name);
        },
        Times::Repeatable);
    AddNetworkOptions(command);
    AddValue(
        command, "--usb-id", "VID:PID",
        "USB devices with these ids are cameras, though\n"
        "no class says so; repeatable. Four hexadecimal\n"
        "digits each, as lsusb prints them.",
        [this](const std::string& text) {
            const Platform::UsbId id = ParseUsbId(text);
            std::erase_if(m_usbIds, [id](const Platform::UsbId& other) {
                return other.vendor == id.vendor && other.product == id.product;
            });
            m_usbIds.push_back(id);
        },
        Times::Repeatable);
    command.add_flag("--virtual", m_virtual, "List virtual cameras too.");
    AddRigOptions(command);
}

void CommandContext::AddGigEOptions(CLI::App& command) {
    AddNetworkOptions(command);
    AddRigOptions(command);
}

void CommandContext::AddNetworkOptions(CLI::App& command) {
    AddValue(
        command, "--interface", "NAME",
        "Search this network interface only for GigE\n"
        "cameras; repeatable. Default: all that are up but\n"
        "loopback, which must be named: --interface lo.",
        [this](const std::string& name) {
            if (name.empty()) {
                throw CommandError("--interface: \"\" is not the name of an interface", ExitUsage);
            }
            AddUnlessThere(&m_interfaces, name);
        },
        Times::Repeatable);
    AddValue(command, "--discovery-window", "SECONDS",
             "How long to wait for answers of GigE cameras, 0.01\n"
             "to 30. Default: 1, the longest that a camera may\n"
             "take. Most answer within 0.01.",
             [this](const std::string& text) {
                 CheckGivenOnce("--discovery-window", m_discoveryWindow.has_value());
                 m_discoveryWindow = ParseSeconds("--discovery-window", text, ShortestWindow, LongestWindow);
             });
    AddValue(command, "--source-port", "FIRST-LAST",
             "Send to GigE cameras from these UDP ports only, so\n"
             "that a firewall rule can name them. Each network\n"
             "interface needs 4, and 1 for each of its cameras.",
             [this](const std::string& text) {
                 CheckGivenOnce("--source-port", m_sourcePorts.has_value());
                 m_sourcePorts = ParsePortRange("--source-port", text);
             });
}

void CommandContext::AddRigOptions(CLI::App& command) {
    AddValue(command, "--rig", "FILE", "Run on the simulated computer in this file\n(`nimbrel help rig`).",
             [this](const std::string& file) {
                 CheckGivenOnce("--rig", m_rigFile.has_value());
                 m_rigFile = file;
             });
    command.add_flag("--demo", m_demo, "Run on the built-in simulated computer.");
}

void CommandContext::Print(const std::string& text) { m_output.Write(text); }

bool CommandContext::UsesBus(const std::string& name) const {
    return m_buses.empty() || std::find(m_buses.begin(), m_buses.end(), name) != m_buses.end();
}

std::string CommandContext::DescribeBuses(const std::string& conjunction) const {
    std::vector<std::string> names;
    for (const BusKind& bus : BusKinds()) {
        if (IsSearched(bus)) {
            names.emplace_back(bus.forPeople);
        }
    }
    return names.empty() ? "no bus" : Enumerate(names, conjunction);
}

bool CommandContext::IsSearched(const BusKind& bus) const {
    const bool hasDriver = std::none_of(m_withoutDriver.begin(), m_withoutDriver.end(),
                                        [&bus](const BusKind& other) { return other.type == bus.type; });
    return UsesBus(bus.name) && hasDriver;
}

std::string CommandContext::DescribeBusesWithoutDriver() const {
    std::vector<std::string> names;
    for (const BusKind& bus : m_withoutDriver) {
        names.emplace_back(bus.forPeople);
    }
    if (names.empty()) {
        return {};
    }
    return "this build of nimbrel cannot search " + Enumerate(names, "or") + ": it has no driver for " +
           (names.size() == 1 ? "it" : "them");
}

Json CommandContext::SearchedAsJson() const {
    Json searched = Json::array();
    for (const BusKind& bus : BusKinds()) {
        if (IsSearched(bus)) {
            searched.push_back(bus.name);
        }
    }
    return searched;
}

std::vector<std::string> CommandContext::GetSearchedInterfaces(const Platform::GigESearchReport& report) const {
    if (m_rig) {
        return m_rig->WithGigE([](const Platform::GigEModel& model) { return model.InterfacesUp(); });
    }
    std::vector<std::string> names = m_interfaces;
    if (names.empty()) {
        Platform::GigEDiagnosis diagnosis;
        Platform::DiagnoseGigE(false, &diagnosis);
        for (const Platform::InterfaceDiagnosis& interface : diagnosis.interfaces) {
            if (interface.used) {
                names.push_back(interface.interface.name);
            }
        }
    }
    std::erase_if(names, [&](const std::string& name) {
        return std::any_of(report.problems.begin(), report.problems.end(), [&](const auto& problem) {
            return !problem.inPart && (problem.interfaceName.empty() || problem.interfaceName == name);
        });
    });
    return names;
}

Platform::Options CommandContext::MakePlatformOptions(milliseconds unlessGiven) const {
    Platform::Options options;
    for (const BusKind& bus : BusKinds()) {
        const Platform::Driver driver = m_rig ? Platform::Driver::Rig : Platform::Driver::Linux;
        *DriverOf(&options, bus.type) = UsesBus(bus.name) ? driver : Platform::Driver::None;
    }
    if (m_rig) {
        options.makeDrivers = Platform::MakeRigDrivers(m_rig);
    } else {
        options.networkInterfaces = m_interfaces;
    }
    options.usbCameraIds = m_usbIds;
    options.trace = [](const std::string& text) { Trace(text); };
    options.discoveryWindow = m_discoveryWindow.value_or(unlessGiven);
    options.sourcePorts = m_sourcePorts;
    options.searchFor = m_searchFor;
    return options;
}

void CommandContext::LoadRig() {
    if (m_rig || (!m_demo && !m_rigFile)) {
        return;
    }
    if (m_demo && m_rigFile) {
        throw CommandError("--rig and --demo cannot be combined", ExitUsage);
    }
    try {
        Platform::RigPlan plan =
            m_demo ? Platform::ParseRig(Platform::BuiltInRig(), "the built-in rig") : Platform::ReadRigFile(*m_rigFile);
        if (!m_interfaces.empty()) {
            Platform::KeepNetworkInterfaces(&plan.rig, m_interfaces);
        }
        m_rig = std::make_shared<Platform::Rig>(std::move(plan.rig));
    } catch (const Platform::RigFileError& error) {
        throw CommandError(ForTerminal(error.what()));
    } catch (const std::invalid_argument& error) {
        throw CommandError(std::string("--interface: ") + error.what());
    }
}

BusMasterSession CommandContext::MakeBusMaster(milliseconds unlessGiven) {
    LoadRig();
    if (!m_rig) {
        CheckExists(m_interfaces);
    }
    const Platform::Options options = MakePlatformOptions(unlessGiven);
    if (const Platform::ConfigureResult result = Platform::Configure(options); !result) {
        throw CommandError("the options cannot be used: " + result.reason);
    }
    BusMasterSession session(&Singleton<BusMaster>::GetInstance(),
                             [](BusMaster*) { Singleton<BusMaster>::DestroyInstance(); });
    if (Platform::GetBusSupport(HAL_INTERFACE_GIGE) == HAL_CLOSED) {
        // It has not told anybody why it could not start the HAL.
        if (const std::uint32_t status = HAL_InitLibrary(); status != HAL_OK) {
            throw CommandError("the buses cannot be searched: " + DescribeStatus(status));
        }
    }
    m_withoutDriver = FindBusesWithoutDriver([this](const BusKind& bus) { return UsesBus(bus.name); });
    const bool onlyThose =
        std::none_of(BusKinds().begin(), BusKinds().end(), [this](const BusKind& bus) { return IsSearched(bus); });
    if (onlyThose) {
        throw CommandError(DescribeBusesWithoutDriver());
    }
    return session;
}

BusMasterSession CommandContext::OpenGigE() {
    m_buses = {"gige"};
    return MakeBusMaster(Platform::Options().discoveryWindow);
}

BusMasterSession CommandContext::StartBusMaster(milliseconds unlessGiven) {
    BusMasterSession session = MakeBusMaster(unlessGiven);
    const Progress progress =
        UsesBus("gige") ? Progress("Discovering GigE cameras", DescribeHeard) : Progress("Searching for cameras");
    if (m_virtual) {
        Check(session->EnableVirtualDeviceEnumeration(), "virtual cameras cannot be listed");
    }
    const auto isWanted = [this](const BusKind& bus) { return UsesBus(bus.name); };
    if (const Error error = session->Initialize(); error != ERROR_OK) {
        throw ExplainStart(error, isWanted);
    }
    if (!session->GetInitialized()) {
        throw CommandError("IEEE 1394 does not report its bus events, so cameras that come and go would be missed")
            .WithHint("Go on without it: `--bus usb --bus gige`.");
    }
    return session;
}

bool CommandContext::CheckBuses(BusMaster& busMaster) const {
    const auto failures = FindFailedBuses(busMaster, [this](const BusKind& bus) { return UsesBus(bus.name); });
    const std::vector<std::string> problems =
        UsesBus("gige") ? DescribeProblems(ReadSearchReport()) : std::vector<std::string>();
    for (const BusFailure& failure : failures) {
        // The interfaces say more.
        if (failure.bus.type == HAL_INTERFACE_GIGE && !problems.empty()) {
            continue;
        }
        WriteError("nimbrel: " + failure.Describe() + "\n");
    }
    for (const std::string& line : problems) {
        WriteError("nimbrel: " + line + "\n");
    }
    return failures.empty() && problems.empty();
}

void CommandContext::NoteFilters(const std::string& command) const {
    if (!UsesBus("gige")) {
        return;
    }
    for (const std::string& line : DescribeFilters(ReadSearchReport())) {
        WriteError(std::string("nimbrel ").append(command).append(": ").append(line).append(".\n"));
    }
}

void CommandContext::NoteBusesWithoutDriver(const std::string& command) const {
    if (!m_withoutDriver.empty()) {
        WriteError("nimbrel " + command + ": " + DescribeBusesWithoutDriver() + ".\n");
    }
}

}  // namespace Nimbrel2::Tool
