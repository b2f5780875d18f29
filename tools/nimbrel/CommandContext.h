// SPDX-License-Identifier: Apache-2.0
// What the commands share: common options, the action that the command line asks for, output, the bus master.
// Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_COMMANDCONTEXT_H
#define NIMBREL2_TOOLS_NIMBREL_COMMANDCONTEXT_H

#include <CLI/CLI.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "busmaster/BusMaster.h"
#include "platform/Platform.h"
#include "tools/nimbrel/BusHealth.h"
#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Output.h"
#include "tools/nimbrel/Style.h"

namespace Nimbrel2::Platform {
class Rig;
}  // namespace Nimbrel2::Platform

namespace Nimbrel2::Tool {

/// The bus master while a command uses it. Its end is the bus master's: callbacks are over when it returns.
using BusMasterSession = std::unique_ptr<BusMaster, void (*)(BusMaster*)>;

class CommandContext {
public:
    CommandContext() = default;
    CommandContext(const CommandContext&) = delete;
    CommandContext& operator=(const CommandContext&) = delete;

    // ---- While the command line is declared ------------------------------------------------------------------------

    /// A subcommand that runs the action when it is the one asked for.
    CLI::App* AddCommand(CLI::App& app, const std::string& name, const std::string& description,
                         std::function<int()> action);

    /// `--json` and `--color`.
    void AddJsonOption(CLI::App& command, const std::string& description);
    /// `--interface`, `--bus`, `--usb-id`, `--discovery-window`, `--source-port`, `--virtual`, `--rig`, `--demo`: for
    /// commands that start the bus master.
    void AddBusOptions(CLI::App& command);
    /// The same without `--bus` and `--virtual`: for commands that are about GigE alone.
    void AddGigEOptions(CLI::App& command);

    enum class Times { Once, Repeatable };
    /// An option that takes one text each time it is given. The parser throws CommandError for a text that it refuses.
    static void AddValue(CLI::App& command, const std::string& name, const std::string& placeholder,
                         const std::string& description, std::function<void(const std::string&)> parser,
                         Times times = Times::Once);

    // ---- After it was parsed ---------------------------------------------------------------------------------------

    void SetAction(std::function<int()> action) { m_action = std::move(action); }
    /// What the command line asks for; empty before it was parsed.
    const std::function<int()>& GetAction() const { return m_action; }

    bool WantsJson() const { return m_json; }
    /// Whether what is printed for people has colours.
    bool UsesColour() const { return !m_json && Tool::UsesColour(m_colour); }
    Output& GetOutput() { return m_output; }

    /// Writes a command's result. A reader that has gone is no error. @throws CommandError.
    void Print(const std::string& text);

    /// Configures the platform, makes the bus master and lists everything once, with progress on a terminal. Takes the
    /// discovery window.
    /// @param unlessGiven  The discovery window when the user has not chosen one.
    /// @throws CommandError when an interface does not exist, or with the bus master's error.
    BusMasterSession StartBusMaster(std::chrono::milliseconds unlessGiven = Platform::Options().discoveryWindow);

    /// The same for GigE alone, listing nothing: for operations that need the network only. Takes no time.
    BusMasterSession OpenGigE();

    /// Looks for this camera only: the first search for GigE cameras ends as soon as it has answered. Before the bus
    /// master is started.
    void SearchFor(const Platform::GigECameraName& camera) { m_searchFor = camera; }

    /// Names on standard error the buses and network interfaces that are not searched; to the bus master they merely
    /// have no cameras.
    /// @return true if all are. @throws CommandError.
    bool CheckBuses(BusMaster& busMaster) const;
    /// Names on standard error the reverse path filters that may have hidden GigE cameras from the searches so far.
    void NoteFilters(const std::string& command) const;

    /// Runs everything on that rig from here on, whatever --rig and --demo say.
    void UseRig(std::shared_ptr<Platform::Rig> rig) { m_rig = std::move(rig); }
    /// The rig that the command runs on; null: this computer.
    const std::shared_ptr<Platform::Rig>& GetRig() const { return m_rig; }

    /// Whether the user wants that bus searched: "1394", "usb" or "gige".
    bool UsesBus(const std::string& name) const;
    /// Whether it is: wanted, and this build has a driver for it. Known once the bus master was made; so are the three
    /// below.
    bool IsSearched(const BusKind& bus) const;
    /// "IEEE 1394, USB and GigE": the buses that are searched.
    std::string DescribeBuses(const std::string& conjunction = "and") const;
    /// A sentence without its full stop that names the wanted buses without a driver; empty when each has one.
    std::string DescribeBusesWithoutDriver() const;
    /// The same on standard error, if there is anything to say.
    void NoteBusesWithoutDriver(const std::string& command) const;
    /// The buses that are searched, as options name them.
    Json SearchedAsJson() const;
    /// What GigE searches: the rig's network interfaces that are up, the named ones of this computer, or all that its
    /// driver uses. Without those of which the search report says that they were not.
    std::vector<std::string> GetSearchedInterfaces(const Platform::GigESearchReport& report) const;

private:
    Platform::Options MakePlatformOptions(std::chrono::milliseconds unlessGiven) const;
    void AddRigOptions(CLI::App& command);
    void AddNetworkOptions(CLI::App& command);
    void LoadRig();
    BusMasterSession MakeBusMaster(std::chrono::milliseconds unlessGiven);

    bool m_json = false;
    ColourChoice m_colour = ColourChoice::Auto;
    bool m_virtual = false;
    std::vector<std::string> m_interfaces;
    std::vector<std::string> m_buses;
    std::vector<Platform::UsbId> m_usbIds;
    std::optional<std::chrono::milliseconds> m_discoveryWindow;
    std::optional<Platform::PortRange> m_sourcePorts;
    std::optional<Platform::GigECameraName> m_searchFor;
    std::optional<std::string> m_rigFile;
    bool m_demo = false;
    std::shared_ptr<Platform::Rig> m_rig;
    std::vector<BusKind> m_withoutDriver;  ///< Of those that the user wants.
    std::function<int()> m_action;
    Output m_output;
};

}  // namespace Nimbrel2::Tool

#endif
