// SPDX-License-Identifier: Apache-2.0
// `nimbrel simulate`: its options, and the run: cameras are set up, printed and served by the network's own thread
// while the main thread waits for a signal, the end of the reader or of the time.
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/base/Texts.h"
#include "platform/simulated/InterfaceAddresses.h"
#include "platform/simulated/SimulatedGigENetwork.h"
#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/Interrupts.h"
#include "tools/nimbrel/SimulateOptions.h"
#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::FormatIp;
using Platform::Simulated::SimulatedCameraOptions;
using Platform::Simulated::SimulatedGigENetwork;

constexpr unsigned int MostCameras = 4096;
constexpr double LongestDuration = 1e7;  // seconds, four months

const char Footer[] =
    R"(The cameras are discovered, read, written, controlled and given addresses like
real ones; they do not stream images. They need no privileges on loopback, and
root to add addresses to a network interface. The command ends on Ctrl-C,
SIGTERM or SIGHUP, after --duration, or when the reader of its output is gone.

Exit status:
  0  Ended in one of these ways.
  1  A camera cannot be simulated; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: one object per line, {"serial","serial_text","mac","ip","subnet",
"gateway","network_interface","vendor","model","name"}.

Examples:
  nimbrel simulate gige --count 4
  nimbrel list --interface lo                     in another terminal
  nimbrel simulate gige --interface eth1 --address 10.9.9.9 --mask /24
)";

std::string Padded(const std::string& text, std::size_t width) {
    return text + std::string(text.size() < width ? width - text.size() : 0, ' ');
}

// ---- Options -------------------------------------------------------------------------------------------------------

/// Refuses what the reader cannot read. The message gets the name of the option in front.
template <typename Reader>
CLI::Validator Readable(Reader reader, const std::string& what) {
    return CLI::Validator(
        [reader, what](std::string& text) { return reader(text) ? std::string() : "\"" + text + "\" is not " + what; },
        "");
}

CLI::Validator AtMost(std::size_t bytes) {
    return CLI::Validator(
        [bytes](std::string& text) {
            return text.size() <= bytes ? std::string()
                                        : "\"" + text + "\" is longer than " + std::to_string(bytes) + " bytes";
        },
        "");
}

/// A decimal number in a range.
CLI::Validator Between(double low, double high, const std::string& what) {
    return Readable([low, high](const std::string& text) { return ReadDecimal(text, low, high); }, what);
}

/// A whole number in a range.
CLI::Validator Whole(std::uint64_t low, std::uint64_t high, const std::string& what) {
    return Readable([low, high](const std::string& text) { return ReadWhole(text, low, high); }, what);
}

void AddAddressOptions(CLI::App& command, SimulateOptions& options) {
    const auto address = Readable(ReadHostAddress, "the IPv4 address of a host such as 192.168.77.50");
    const auto gateway = Readable(ReadAddress, "an IPv4 address such as 192.168.77.1");
    command
        .add_option("--count", options.count, "Number of cameras (1); addresses, MACs and serial\nnumbers count up.")
        ->type_name("N")
        ->check(Whole(1, MostCameras, "a number from 1 to 4096"));
    CLI::Option* single = command.add_option("--address", options.address, "Address of the first camera (127.0.0.2).")
                              ->type_name("A")
                              ->option_text("A")
                              ->check(address);
    command.add_option("--base-address", options.address, "The same as --address.")
        ->type_name("A")
        ->option_text("A")
        ->check(address)
        ->excludes(single);
    command
        .add_option("--interface", options.interfaceName,
                    "Network interface (the one with the address). When\nnamed, addresses that it lacks are added to "
                    "it and\nremoved at the end.")
        ->type_name("NAME");
    command.add_option("--mac", options.mac, "MAC of the first camera (02:00 and the octets of\nits address).")
        ->type_name("M")
        ->check(Readable(ReadMac, "a MAC address of one device such as 02:00:5e:00:00:01"));
    command.add_option("--mask", options.subnetMask, "Subnet mask (/8 for 127.*, else /24).")
        ->type_name("N")
        ->check(Readable(ReadSubnetMask, "a subnet mask such as /24 or 255.255.255.0"));
    command.add_option("--gateway", options.gateway, "Default gateway (0.0.0.0).")->type_name("G")->check(gateway);
}

void AddText(CLI::App& command, const std::string& name, std::string& text, std::size_t bytes,
             const std::string& description) {
    command.add_option(name, text, description)->type_name("TEXT")->check(AtMost(bytes));
}

void AddTextOptions(CLI::App& command, SimulateOptions& options) {
    namespace Gvcp = Platform::Gvcp;
    AddText(command, "--serial", options.serial, Gvcp::SerialNumberBytes, "Serial number of the first camera (1).");
    AddText(command, "--vendor", options.vendor, Gvcp::ManufacturerNameBytes, "Vendor name.");
    AddText(command, "--model", options.model, Gvcp::ModelNameBytes, "Model name.");
    AddText(command, "--name", options.name, Gvcp::UserDefinedNameBytes, "User-defined name (none).");
    AddText(command, "--version", options.version, Gvcp::DeviceVersionBytes, "Device version.");
    AddText(command, "--info", options.info, Gvcp::ManufacturerInfoBytes, "Manufacturer's information.");
}

void AddControlOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--ccp-owner", options.controlOwner, "Another application controls the cameras.")
        ->type_name("A:PORT")
        ->check(Readable(ReadEndpoint, "an address and a port such as 192.168.77.1:50000"));
    command.add_flag("--exclusive", options.exclusive, "It holds exclusive access.");
}

void AddTimeOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--delay", options.delay, "Delay of each answer in milliseconds, random\nbetween MIN and MAX.")
        ->type_name("MS|MIN-MAX")
        ->check(Readable(ReadDelay, "milliseconds such as 20 or 0-100, up to 60000"));
    command
        .add_option("--discovery-delay", options.discoveryDelay,
                    "Largest random delay of answers to broadcasts, in\nmilliseconds (0).")
        ->type_name("MS")
        ->check(Whole(0, 65535, "a number from 0 to 65535"));
    command
        .add_option(
            "--pending", options.pending,
            "Answer register commands with PENDING_ACK first,\nfor this many milliseconds; or announce another\ntime.")
        ->type_name("MS|MS-ANNOUNCED")
        ->check(Readable(ReadDelay, "milliseconds such as 300 or 300-500, up to 60000"));
}

void AddFaultOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--loss", options.lossPercent, "Percentage of datagrams lost in each direction (0).")
        ->type_name("PCT")
        ->check(Between(0, 100, "a percentage from 0 to 100"));
    command.add_option("--duplicate", options.duplicatePercent, "Percentage of answers sent twice (0).")
        ->type_name("PCT")
        ->check(Between(0, 100, "a percentage from 0 to 100"));
    command
        .add_option("--error", options.errors,
                    "Refuse a command: any, discovery, forceip, readreg,\n"
                    "writereg, readmem or writemem, with @0xA00 for one\n"
                    "register only; with a status: 0x8000 to 0xFFFF,\n"
                    "not-implemented, invalid-parameter,\n"
                    "invalid-address, write-protect, bad-alignment,\n"
                    "access-denied, busy or error. Repeatable.")
        ->type_name("COMMAND:STATUS")
        ->allow_extra_args(false)
        ->check(Readable(ReadErrorRule, "COMMAND:STATUS such as readreg:0x8006 or any@0xA00:busy"));
    command.add_option("--seed", options.seed, "Seed of all random numbers (1).")
        ->type_name("N")
        ->check(Whole(0, UINT64_MAX, "a whole number"));
}

void AddRunOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--duration", options.duration, "End after this many seconds. Default: run until\nCtrl-C.")
        ->type_name("S")
        ->check(Between(0.001, LongestDuration, "seconds from 0.001 to 10000000"));
    command.add_flag("--json", options.json, "Print one JSON object per camera and line.");
}

// ---- Run -----------------------------------------------------------------------------------------------------------

std::string Describe(const SimulatedCameraOptions& camera, const std::string& interfaceName, bool asJson) {
    if (!asJson) {
        std::string line = Padded(FormatIp(camera.address), 15) + "  " + FormatMac(camera.mac) + "  " +
                           Padded(interfaceName, 8) + "  serial " + camera.serialNumber + "  " + camera.vendor + " " +
                           camera.model;
        if (!camera.userDefinedName.empty()) {
            line += "  \"" + camera.userDefinedName + "\"";
        }
        return ForTerminal(line) + "\n";
    }
    return Dump(Json{{"serial", Platform::LeadingNumber(camera.serialNumber)},
                     {"serial_text", camera.serialNumber},
                     {"mac", FormatMac(camera.mac)},
                     {"ip", FormatIp(camera.address)},
                     {"subnet", FormatIp(camera.subnetMask)},
                     {"gateway", FormatIp(camera.gateway)},
                     {"network_interface", interfaceName},
                     {"vendor", camera.vendor},
                     {"model", camera.model},
                     {"name", camera.userDefinedName}});
}

int RunSimulation(CommandContext& context, const SimulateOptions& options) {
    const SimulationPlan plan = MakeSimulationPlan(options);
    if (!plan.problem.empty()) {
        throw CommandError(plan.problem, ExitUsage);
    }
    const int interrupt = Interrupts::Catch(Interrupts::End::Orderly);
    context.GetOutput().SetInterrupt(interrupt);
    SimulatedGigENetwork::Options networkOptions;
    networkOptions.seed = options.seed;
    networkOptions.report = [](const std::string& line) {
        WriteError("nimbrel simulate gige: a forced address cannot be taken: " + line + "\n");
    };
    SimulatedGigENetwork network(networkOptions);
    for (const SimulatedCameraOptions& camera : plan.cameras) {
        const auto added = network.AddCamera(camera);
        if (!added) {
            throw CommandError(added.reason);
        }
        const std::string line = Describe(camera, Platform::Simulated::FindInterfaceOf(camera.address), options.json);
        if (context.GetOutput().Write(line) != Output::Result::Written) {
            return ExitDone;
        }
    }
    std::optional<std::chrono::milliseconds> time;
    if (options.duration != 0) {
        time = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(options.duration));
    }
    Output::WaitForEnd(interrupt, time);
    return ExitDone;
}

}  // namespace

void AddSimulateCommand(CLI::App& app, CommandContext& context) {
    CLI::App* simulate = app.add_subcommand("simulate", "Simulates cameras on a network.");
    simulate->require_subcommand(1);
    simulate->footer(Footer);
    const auto options = std::make_shared<SimulateOptions>();
    CLI::App* gige = context.AddCommand(*simulate, "gige", "Simulates GigE cameras on a network interface.",
                                        [&context, options] { return RunSimulation(context, *options); });
    AddAddressOptions(*gige, *options);
    AddTextOptions(*gige, *options);
    AddControlOptions(*gige, *options);
    AddTimeOptions(*gige, *options);
    AddFaultOptions(*gige, *options);
    AddRunOptions(*gige, *options);
    gige->footer(Footer);
}

}  // namespace Nimbrel2::Tool
