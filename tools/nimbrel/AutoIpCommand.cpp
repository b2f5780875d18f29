// SPDX-License-Identifier: Apache-2.0
// Gives GigE cameras on wrong subnets an address and verifies it. Main thread only; no lock.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::AddressPlan;

const char kFooter[] =
    R"(Leaves cameras alone whose address is in the subnet of the network interface
that hears them. Each of the others gets a free address of that subnet: one that
neither this computer nor another camera, a gateway or a host on that network
uses. It keeps it until it is powered off. The command succeeds when all have
answered at their new addresses. A camera that an application holds ignores it.

Exit status:
  0  Every camera has an address of its subnet. With --dry-run: or would have.
  1  A camera has none (the others were handled), or the command failed;
     standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok","dry_run","cameras":[{"serial","mac","network_interface","ip",
"subnet","new_ip","new_subnet","result","reason"}]}; "result" is "right",
"changed", "would-change" or "failed"; without a new address "new_ip" and
"new_subnet" are null.

Examples:
  nimbrel auto-ip --dry-run                       what would change, and why
  nimbrel auto-ip
  nimbrel auto-ip --serial 19340211 --interface eth1
)";

// One camera: its address before and after.
struct Outcome {
    enum class Result { Right, Changed, WouldChange, Failed };
    GigECamera before;
    std::string interface;
    std::optional<Platform::InterfaceAddress> home;  ///< this computer's address on that network
    std::optional<IPAddress> newIp;
    IPAddress newMask;
    Result result = Result::Right;
    std::string reason;
};

using Result = Outcome::Result;

const char* NameOf(Result result) {
    switch (result) {
        case Result::Changed:
            return "changed";
        case Result::WouldChange:
            return "would-change";
        case Result::Failed:
            return "failed";
        case Result::Right:
            break;
    }
    return "right";
}

class AutoIpCommand {
public:
    explicit AutoIpCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        CommandContext::AddValue(command, "--serial", "N", "Only this camera.", [this](const std::string& text) {
            m_serial = ParseNumber("--serial", text, 1, std::numeric_limits<std::uint32_t>::max());
        });
        command.add_flag("--dry-run", m_dryRun, "Change nothing; print what would change and why.");
        m_context.AddJsonOption(command, "Print JSON.");
        m_context.AddGigEOptions(command);
    }

    int Run() {
        const BusMasterSession busMaster = m_context.OpenGigE();
        Plan();
        if (!m_dryRun && AnyOf(Result::WouldChange)) Change(*busMaster);
        m_context.Print(m_context.WantsJson() ? AsJson() : ForPeople());
        if (AnyOf(Result::Failed)) {
            throw CommandError(NamesOfFailed())
                .WithHint("`nimbrel doctor` finds out why.")
                .WithDetails(m_error == ERROR_OK ? "" : m_error.Describe());
        }
        return kDone;
    }

private:
    std::string NamesOfFailed() const {
        std::vector<std::string> names;
        for (const Outcome& outcome : m_outcomes) {
            if (outcome.result == Result::Failed) names.push_back(Tool::NameOf(outcome.before));
        }
        return Enumerate(names) + (names.size() == 1 ? " has" : " have") + " no address of the right subnet";
    }

    bool AnyOf(Result result) const {
        return std::any_of(m_outcomes.begin(), m_outcomes.end(),
                           [result](const Outcome& outcome) { return outcome.result == result; });
    }

    // ---- What to do ------------------------------------------------------------------------------------------

    void Plan() {
        const Progress progress("Searching for GigE cameras on wrong subnets");
        std::vector<AddressPlan> plans;
        const std::uint32_t status = Platform::PlanGigEAddresses(m_serial, &plans);
        if (status == HAL_GONE && m_serial) {
            throw CommandError("no GigE camera with the serial number " + std::to_string(*m_serial) + " answers")
                .WithHint("`nimbrel discover` shows the cameras that answer.");
        }
        if (status != HAL_OK) {
            throw CommandError("GigE cannot be searched: " + DescribeStatus(status))
                .WithHint(NextStep(status, INTERFACE_GIGE));
        }
        for (const AddressPlan& plan : plans) m_outcomes.push_back(OutcomeOf(plan));
    }

    static Outcome OutcomeOf(const AddressPlan& plan) {
        Outcome outcome;
        outcome.before = FromRecord(plan.record);
        outcome.interface = plan.interfaceName;
        if (plan.interfaceAddress.address != 0) outcome.home = plan.interfaceAddress;
        const std::string subnet = outcome.home ? outcome.interface + ", " +
                                                      FormatSubnet(UnpackIPAddress(outcome.home->address),
                                                                   UnpackIPAddress(outcome.home->GetMask()))
                                                : outcome.interface + ", which has no address";
        if (plan.alreadyRight) {
            const bool inside = outcome.home && outcome.home->Contains(plan.record.ipAddress);
            outcome.reason = inside ? "it is in the subnet of " + subnet
                                    : "it is not in the subnet of " + subnet + ", but has a route there";
            return outcome;
        }
        outcome.reason = "it is not in the subnet of " + subnet;
        if (plan.status != HAL_OK) {
            outcome.result = Result::Failed;
            outcome.reason = WhyNot(plan.status, subnet);
            return outcome;
        }
        outcome.result = Result::WouldChange;
        outcome.newIp = UnpackIPAddress(plan.newIp);
        outcome.newMask = UnpackIPAddress(plan.newMask);
        return outcome;
    }

    static std::string WhyNot(std::uint32_t status, const std::string& subnet) {
        if (status == HAL_UNREACHABLE) return "no address for it: it is connected to " + subnet;
        if (status == HAL_NOT_SUPPORTED) return "it has no MAC by which it could be given an address";
        if (status == HAL_FAILED) return "no address is free in the subnet of " + subnet;
        return "no address was found for it: " + DescribeStatus(status);
    }

    // ---- Change -----------------------------------------------------------------------------------------------------

    void Change(BusMaster& busMaster) {
        const Progress progress("Giving addresses");
        const Error error = m_serial ? busMaster.ForceAllIPAddressesAutomatically(*m_serial)
                                     : busMaster.ForceAllIPAddressesAutomatically();
        // After an error one of them has kept its address, so those that still answer elsewhere are not waited for. A
        // silent one may be restarting at its new address.
        const std::vector<GigECamera> after = DiscoverUntil(busMaster, [&](const std::vector<GigECamera>& cameras) {
            return std::all_of(m_outcomes.begin(), m_outcomes.end(), [&](const Outcome& outcome) {
                const bool givenUp = error != ERROR_OK && FindByMac(cameras, outcome.before.mac) != nullptr;
                return outcome.result != Result::WouldChange || givenUp || IsHome(outcome, cameras);
            });
        });
        for (Outcome& outcome : m_outcomes) {
            if (outcome.result == Result::WouldChange) Conclude(after, &outcome);
        }
        if (error != ERROR_OK) m_error = error;
    }

    static bool IsHome(const Outcome& outcome, const std::vector<GigECamera>& cameras) {
        const GigECamera* camera = FindByMac(cameras, outcome.before.mac);
        return camera != nullptr && outcome.home && outcome.home->Contains(PackIPAddress(camera->ip));
    }

    // The driver chooses free addresses again, so the camera may have got another one than planned.
    static void Conclude(const std::vector<GigECamera>& after, Outcome* outcome) {
        const GigECamera* camera = FindByMac(after, outcome->before.mac);
        if (IsHome(*outcome, after)) {
            outcome->result = Result::Changed;
            outcome->newIp = camera->ip;
            outcome->newMask = camera->subnet;
            return;
        }
        outcome->result = Result::Failed;
        outcome->newIp.reset();
        outcome->reason = WhyNot(camera, outcome->before);
    }

    static std::string WhyNot(const GigECamera* camera, const GigECamera& before) {
        if (camera == nullptr) return "it no longer answers";
        if (PackIPAddress(camera->ip) == PackIPAddress(before.ip)) {
            return "it stays at its old address, most likely because an application holds it";
        }
        return "it now answers at " + FormatSubnet(camera->ip, camera->subnet) + ", which it was not given";
    }

    // ---- Result ---------------------------------------------------------------------------------------------------

    std::string AsJson() {
        Json cameras = Json::array();
        for (const Outcome& outcome : m_outcomes) {
            Json json{{"serial", outcome.before.serialNumber},
                      {"mac", FormatMac(outcome.before.mac)},
                      {"network_interface", outcome.interface},
                      {"ip", FormatIp(outcome.before.ip)},
                      {"subnet", FormatIp(outcome.before.subnet)},
                      {"new_ip", nullptr},
                      {"new_subnet", nullptr}};
            if (outcome.newIp) {
                json["new_ip"] = FormatIp(*outcome.newIp);
                json["new_subnet"] = FormatIp(outcome.newMask);
            }
            json["result"] = NameOf(outcome.result);
            json["reason"] = outcome.reason;
            cameras.push_back(json);
        }
        return Dump(Json{{"ok", !AnyOf(Result::Failed)}, {"dry_run", m_dryRun}, {"cameras", cameras}}, 2);
    }

    std::string ForPeople() {
        if (m_outcomes.empty()) return "No GigE camera answered. `nimbrel doctor` finds out why.\n";
        std::string text;
        for (const Outcome& outcome : m_outcomes) {
            text += Tool::NameOf(outcome.before) + ": " + FormatSubnet(outcome.before.ip, outcome.before.subnet);
            if (outcome.newIp) {
                text += (m_dryRun ? " would become " : " became ") + FormatSubnet(*outcome.newIp, outcome.newMask);
            } else {
                text += outcome.result == Result::Failed ? " could not be changed" : " stays";
            }
            text += "\n    " + outcome.reason + "\n";
        }
        return ForTerminal(text, Lines::Kept);
    }

    CommandContext& m_context;
    std::optional<std::uint32_t> m_serial;
    bool m_dryRun = false;
    std::vector<Outcome> m_outcomes;
    Error m_error;
};

}  // namespace

void AddAutoIpCommand(CLI::App& app, CommandContext& context) {
    const auto automatic = std::make_shared<AutoIpCommand>(context);
    CLI::App* command = context.AddCommand(app, "auto-ip", "Gives GigE cameras on wrong subnets an address.",
                                           [automatic] { return automatic->Run(); });
    automatic->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
