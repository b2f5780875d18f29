// SPDX-License-Identifier: Apache-2.0
// The subcommand's options, and the run: cameras are set up, shown and served by the network's own thread while this
// one waits for a signal or the end of the time.
#include "tools/nimbrel/SimulateCommand.h"

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <utility>

#include "platform/base/Texts.h"
#include "platform/simulated/InterfaceAddresses.h"
#include "platform/simulated/SimulatedGigENetwork.h"
#include "tools/nimbrel/SimulateOptions.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::FormatIp;
using Platform::Simulated::SimulatedCameraOptions;
using Platform::Simulated::SimulatedGigENetwork;

constexpr unsigned int kMostCameras = 4096;
constexpr double kLongestDuration = 1e7;  // seconds, four months

// ---- Options -------------------------------------------------------------------------------------------------------

/// A check that refuses what the reader cannot read, by value and by example. The option's name is put before it.
template <typename Reader>
CLI::Validator Readable(Reader reader, const std::string& what) {
    return CLI::Validator(
        [reader, what](std::string& text) { return reader(text) ? std::string() : "'" + text + "' is not " + what; },
        "");
}

CLI::Validator AtMost(std::size_t bytes) {
    return CLI::Validator(
        [bytes](std::string& text) {
            return text.size() <= bytes ? std::string()
                                        : "'" + text + "' is longer than " + std::to_string(bytes) + " bytes";
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
    command.add_option("--count", options.count, "How many cameras (1); addresses, MACs and serials count up.")
        ->type_name("N")
        ->check(Whole(1, kMostCameras, "a number from 1 to 4096"));
    CLI::Option* single = command.add_option("--address", options.address, "Address of the first camera (127.0.0.2).")
                              ->type_name("A")
                              ->check(address);
    command.add_option("--base-address", options.address, "The same, for several cameras.")
        ->type_name("A")
        ->check(address)
        ->excludes(single);
    command
        .add_option("--interface", options.interfaceName,
                    "Network interface (the one that has the address). When it is named, addresses that it lacks are "
                    "added to it, and removed in the end.")
        ->type_name("NAME");
    command.add_option("--mac", options.mac, "MAC address of the first camera (02:00 and the octets of its address).")
        ->type_name("M")
        ->check(Readable(ReadMac, "a MAC address of one device such as 02:00:5e:00:00:01"));
    command.add_option("--mask", options.subnetMask, "Subnet mask (255.0.0.0 for 127.*, else 255.255.255.0).")
        ->type_name("N")
        ->check(Readable(ReadSubnetMask, "a subnet mask such as 255.255.255.0"));
    command.add_option("--gateway", options.gateway, "Default gateway (0.0.0.0).")->type_name("G")->check(gateway);
}

void AddText(CLI::App& command, const std::string& name, std::string& text, std::size_t bytes,
             const std::string& description) {
    command.add_option(name, text, description)->type_name("TEXT")->check(AtMost(bytes));
}

void AddTextOptions(CLI::App& command, SimulateOptions& options) {
    namespace Gvcp = Platform::Gvcp;
    AddText(command, "--serial", options.serial, Gvcp::kSerialNumberBytes, "Serial number of the first camera (1).");
    AddText(command, "--vendor", options.vendor, Gvcp::kManufacturerNameBytes, "Vendor name.");
    AddText(command, "--model", options.model, Gvcp::kModelNameBytes, "Model name.");
    AddText(command, "--name", options.name, Gvcp::kUserDefinedNameBytes, "User-defined name (none).");
    AddText(command, "--version", options.version, Gvcp::kDeviceVersionBytes, "Device version.");
    AddText(command, "--info", options.info, Gvcp::kManufacturerInfoBytes, "Manufacturer's information.");
}

void AddControlOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--ccp-owner", options.controlOwner, "Another application that holds control, for good.")
        ->type_name("A:PORT")
        ->check(Readable(ReadEndpoint, "an address and a port such as 192.168.77.1:50000"));
    command.add_flag("--exclusive", options.exclusive, "That application holds exclusive access.");
}

void AddTimeOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--delay", options.delay, "Milliseconds before each answer, at random between two.")
        ->type_name("MS|MIN-MAX")
        ->check(Readable(ReadDelay, "milliseconds such as 20 or 0-100, up to 60000"));
    command
        .add_option("--discovery-delay", options.discoveryDelay,
                    "Answers to broadcast discoveries wait a random time up to so many milliseconds (0).")
        ->type_name("MS")
        ->check(Whole(0, 65535, "a number from 0 to 65535"));
    command
        .add_option("--pending", options.pending,
                    "Register commands get a PENDING_ACK first: so many milliseconds, or really and announced.")
        ->type_name("MS|REALLY-ANNOUNCED")
        ->check(Readable(ReadDelay, "milliseconds such as 300 or 300-500, up to 60000"));
}

void AddFaultOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--loss", options.lossPercent, "Percent of datagrams that are lost, each way (0).")
        ->type_name("PCT")
        ->check(Between(0, 100, "a percentage from 0 to 100"));
    command.add_option("--duplicate", options.duplicatePercent, "Percent of answers that are sent twice (0).")
        ->type_name("PCT")
        ->check(Between(0, 100, "a percentage from 0 to 100"));
    command
        .add_option("--error", options.errors,
                    "Refuse a command: any, discovery, forceip, readreg, writereg, readmem or writemem, followed by "
                    "@0xA00 to mean one register only; with a status of 0x8000 to 0xFFFF, not-implemented, "
                    "invalid-parameter, invalid-address, write-protect, bad-alignment, access-denied, busy or error. "
                    "Repeatable.")
        ->type_name("COMMAND:STATUS")
        ->allow_extra_args(false)
        ->check(Readable(ReadErrorRule, "COMMAND:STATUS such as readreg:0x8006 or any@0xA00:busy"));
    command.add_option("--seed", options.seed, "What is random is the same for the same seed (1).")
        ->type_name("N")
        ->check(Whole(0, UINT64_MAX, "a whole number"));
}

void AddRunOptions(CLI::App& command, SimulateOptions& options) {
    command.add_option("--duration", options.duration, "End after so many seconds (at Ctrl-C).")
        ->type_name("S")
        ->check(Between(0.001, kLongestDuration, "seconds from 0.001 to 10000000"));
    command.add_flag("--json", options.json, "One JSON object for each camera, on a line of its own.");
}

// ---- Run -----------------------------------------------------------------------------------------------------------

/// SIGINT, SIGTERM and SIGHUP as something to wait for. Threads made meanwhile leave them to this one, and one that
/// comes while the cameras are set up is kept until then.
class EndSignals {
public:
    EndSignals() {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGINT);
        sigaddset(&m_signals, SIGTERM);
        sigaddset(&m_signals, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &m_signals, &m_before);
    }
    ~EndSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;

    /// Waits for one of them; seconds 0: as long as it takes.
    void Wait(double seconds) const {
        using Clock = std::chrono::steady_clock;
        if (seconds == 0) {
            while (sigwaitinfo(&m_signals, nullptr) < 0) continue;
            return;
        }
        const auto deadline =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        for (auto left = deadline - Clock::now(); left.count() > 0; left = deadline - Clock::now()) {
            const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
            const timespec timeout{static_cast<time_t>(whole.count()),
                                   static_cast<long>(std::chrono::nanoseconds(left - whole).count())};
            if (sigtimedwait(&m_signals, nullptr, &timeout) >= 0) return;
        }
    }

private:
    sigset_t m_signals{};
    sigset_t m_before{};
};

/// @throws std::system_error when it cannot be printed. Without a reader the cameras are there all the same.
void PrintCamera(const SimulatedCameraOptions& camera, const std::string& interfaceName, bool json) {
    if (json) {
        // Texts come from the command line in any bytes; what is no UTF-8 is shown as such.
        const nlohmann::ordered_json line{
            {"serial", std::strtoul(camera.serialNumber.c_str(), nullptr, 10) & 0xFFFFFFFF},
            {"serial_text", camera.serialNumber},
            {"mac", FormatMac(camera.mac)},
            {"ip", FormatIp(camera.address)},
            {"subnet", FormatIp(camera.subnetMask)},
            {"gateway", FormatIp(camera.gateway)},
            {"interface", interfaceName},
            {"vendor", camera.vendor},
            {"model", camera.model},
            {"name", camera.userDefinedName}};
        std::puts(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else {
        std::printf("%-15s  %s  %-8s  serial %s  %s %s%s\n", FormatIp(camera.address).c_str(),
                    FormatMac(camera.mac).c_str(), interfaceName.c_str(), camera.serialNumber.c_str(),
                    camera.vendor.c_str(), camera.model.c_str(),
                    camera.userDefinedName.empty() ? "" : ("  \"" + camera.userDefinedName + "\"").c_str());
    }
    if (std::fflush(stdout) != 0 && errno != EPIPE) {
        throw std::system_error(errno, std::generic_category(), "standard output cannot be written");
    }
}

void PrintProblem(const std::string& problem) { std::fprintf(stderr, "nimbrel: %s\n", problem.c_str()); }

int Serve(const SimulateOptions& options, const SimulationPlan& plan) {
    const EndSignals signals;
    SimulatedGigENetwork::Options networkOptions;
    networkOptions.seed = options.seed;
    networkOptions.report = [](const std::string& line) {
        PrintProblem("a forced address could not be taken: " + line);
    };
    SimulatedGigENetwork network(networkOptions);
    for (const SimulatedCameraOptions& camera : plan.cameras) {
        const auto added = network.AddCamera(camera);
        if (!added) {
            PrintProblem(added.reason);
            return 1;
        }
        PrintCamera(camera, Platform::Simulated::FindInterfaceOf(camera.address), options.json);
    }
    signals.Wait(options.duration);
    return 0;
}

int RunSimulation(const SimulateOptions& options) {
    const SimulationPlan plan = MakeSimulationPlan(options);
    if (!plan.problem.empty()) {
        PrintProblem(plan.problem);
        return 2;
    }
    try {
        return Serve(options, plan);
    } catch (const std::exception& failure) {
        PrintProblem(failure.what());
        return 1;
    }
}

}  // namespace

void AddSimulateCommand(CLI::App& app, std::function<void(std::function<int()>)> setAction) {
    CLI::App* simulate = app.add_subcommand("simulate", "Simulates cameras on a network.");
    simulate->require_subcommand(1);
    CLI::App* gige =
        simulate->add_subcommand("gige",
                                 "Simulates GigE cameras on this computer's network interfaces, until Ctrl-C. They are "
                                 "discovered, read, written, "
                                 "controlled and forced to addresses like real ones; they stream no images.");
    const auto options = std::make_shared<SimulateOptions>();
    AddAddressOptions(*gige, *options);
    AddTextOptions(*gige, *options);
    AddControlOptions(*gige, *options);
    AddTimeOptions(*gige, *options);
    AddFaultOptions(*gige, *options);
    AddRunOptions(*gige, *options);
    gige->callback(
        [options, setAction = std::move(setAction)] { setAction([options] { return RunSimulation(*options); }); });
}

}  // namespace Nimbrel2::Tool
