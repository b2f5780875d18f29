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
#include "tools/nimbrel/SearchReport.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::AddressPlan;
using Platform::CameraDiagnosis;

const char Footer[] =
    R"(Leaves cameras alone whose address is in the subnet of the network interface
that hears them. Each of the others gets a free address of that subnet: one that
neither this computer nor another camera, a gateway or a host on that network
uses. It keeps it until it is powered off. The command succeeds when all have
answered at their new addresses. A camera that an application holds ignores it.
--dry-run prints the plan that the next run applies unless something changes.

Exit status:
  0  Every camera has an address of its subnet. With --dry-run: or would have.
  1  A camera has none (the others were handled), the command failed, or a
     network interface was not searched; standard error says why.
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
        if (!m_dryRun && AnyOf(Result::WouldChange)) {
            Change();
        }
        m_context.Print(m_context.WantsJson() ? AsJson() : ForPeople());
        const std::vector<std::string> problems = DescribeProblems(ReadSearchReport());
        for (const std::string& line : problems) {
            WriteError("nimbrel auto-ip: " + line + ".\n");
        }
        if (AnyOf(Result::Failed)) {
            throw CommandError(NamesOfFailed()).WithHint("`nimbrel doctor` finds out why.");
        }
        return problems.empty() ? ExitDone : ExitFailed;
    }

private:
    std::string NamesOfFailed() const {
        std::vector<std::string> names;
        for (const Outcome& outcome : m_outcomes) {
            if (outcome.result == Result::Failed) {
                names.push_back(Tool::NameOf(outcome.before));
            }
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
        const std::uint32_t status = Platform::PlanGigEAddresses(m_serial, &m_plans);
        if (status == HAL_GONE && m_serial) {
            throw CommandError("no GigE camera with the serial number " + std::to_string(*m_serial) + " answers")
                .WithHint("`nimbrel discover` shows the cameras that answer.");
        }
        if (status != HAL_OK) {
            throw ExplainSearchFailure(status);
        }
        if (m_serial && m_plans.size() > 1) {
            RefuseTwins();
        }
        for (const AddressPlan& plan : m_plans) {
            m_outcomes.push_back(OutcomeOf(plan));
        }
    }

    [[noreturn]] void RefuseTwins() const {
        std::vector<std::string> names;
        for (const AddressPlan& plan : m_plans) {
            const GigECamera camera = FromRecord(plan.record);
            names.push_back(FormatMac(camera.mac) + " at " + FormatSubnet(camera.ip, camera.subnet));
        }
        throw CommandError("--serial: " + std::to_string(m_plans.size()) + " cameras have the serial number " +
                           std::to_string(*m_serial) + ": " + Enumerate(names))
            .WithHint("`nimbrel force-ip --mac` gives one of them an address.");
    }

    static Outcome OutcomeOf(const AddressPlan& plan) {
        Outcome outcome;
        outcome.before = FromRecord(plan.record);
        outcome.interface = plan.interfaceName;
        if (plan.interfaceAddress.address != 0) {
            outcome.home = plan.interfaceAddress;
        }
        const std::string subnet = outcome.home ? outcome.interface + ", " +
                                                      FormatSubnet(UnpackIPAddress(outcome.home->address),
                                                                   UnpackIPAddress(outcome.home->GetMask()))
                                                : outcome.interface + ", which has no address";
        outcome.reason = ReasonOf(plan, outcome.home, subnet);
        if (plan.alreadyRight) {
            return outcome;
        }
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

    static std::string ReasonOf(const AddressPlan& plan, const std::optional<Platform::InterfaceAddress>& home,
                                const std::string& subnet) {
        const bool inside = home && home->Contains(plan.record.ipAddress);
        switch (plan.usability) {
            case Platform::GigEUsability::Usable:
                return inside ? "it is in the subnet of " + subnet
                              : "it is not in the subnet of " + subnet + ", but has a route there";
            case Platform::GigEUsability::OtherSubnet:
                return "it is not in the subnet of " + subnet;
            default:
                return Platform::DescribeUsability(plan.usability);
        }
    }

    static std::string WhyNot(std::uint32_t status, const std::string& subnet) {
        if (status == HAL_UNREACHABLE) {
            return "no address for it: it is connected to " + subnet;
        }
        if (status == HAL_NOT_SUPPORTED) {
            return "it has no MAC by which it could be given an address";
        }
        if (status == HAL_FAILED) {
            return "no address is free in the subnet of " + subnet;
        }
        return "no address was found for it: " + DescribeStatus(status);
    }

    // ---- Change -----------------------------------------------------------------------------------------------------

    void Change() {
        const Progress progress("Giving addresses");
        const std::uint32_t status = Platform::ApplyGigEAddresses(&m_plans);
        const bool nothingTried =
            status != HAL_OK && std::all_of(m_plans.begin(), m_plans.end(), [](const AddressPlan& plan) {
                return plan.newIp == 0 || plan.status == HAL_OK;
            });
        for (AddressPlan& plan : m_plans) {
            if (nothingTried && plan.newIp != 0) {
                plan.status = status;
            }
        }
        // A camera without an acknowledge that still answers elsewhere has kept its address and is not waited for. A
        // silent one may be restarting at its new address.
        const std::vector<CameraDiagnosis> after = DiscoverUntil([&](const std::vector<CameraDiagnosis>& cameras) {
            for (std::size_t i = 0; i < m_plans.size(); ++i) {
                const CameraDiagnosis* camera = FindByMac(cameras, m_outcomes[i].before.mac);
                const bool givenUp = m_plans[i].status != HAL_OK && camera != nullptr;
                if (m_outcomes[i].result == Result::WouldChange && !givenUp && !AnswersThere(m_outcomes[i], camera)) {
                    return false;
                }
            }
            return true;
        });
        for (std::size_t i = 0; i < m_plans.size(); ++i) {
            if (m_outcomes[i].result == Result::WouldChange) {
                Conclude(after, m_plans[i].status, &m_outcomes[i]);
            }
        }
    }

    static bool SaysSo(const Outcome& outcome, const CameraDiagnosis* camera) {
        return camera != nullptr && camera->record.ipAddress == PackIPAddress(*outcome.newIp);
    }

    // And not only a broadcast, with the address in the answer.
    static bool AnswersThere(const Outcome& outcome, const CameraDiagnosis* camera) {
        return SaysSo(outcome, camera) && camera->present;
    }

    static void Conclude(const std::vector<CameraDiagnosis>& after, std::uint32_t status, Outcome* outcome) {
        const CameraDiagnosis* camera = FindByMac(after, outcome->before.mac);
        if (AnswersThere(*outcome, camera)) {
            outcome->result = Result::Changed;
            return;
        }
        const bool isSent = status == HAL_OK || status == HAL_NO_ACKNOWLEDGE;
        outcome->reason = isSent ? WhyNot(camera, *outcome) : "it was not told: " + DescribeStatus(status);
        outcome->result = Result::Failed;
        outcome->newIp.reset();
    }

    static std::string WhyNot(const CameraDiagnosis* camera, const Outcome& outcome) {
        if (camera == nullptr) {
            return "it no longer answers";
        }
        if (SaysSo(outcome, camera)) {
            return "it says that it has " + FormatSubnet(*outcome.newIp, outcome.newMask) +
                   ", but does not answer there";
        }
        const GigECamera now = FromRecord(camera->record);
        if (PackIPAddress(now.ip) == PackIPAddress(outcome.before.ip)) {
            return "it stays at its old address, most likely because an application holds it";
        }
        return "it now answers at " + FormatSubnet(now.ip, now.subnet) + ", which it was not given";
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
        if (m_outcomes.empty()) {
            return "No GigE camera answered. `nimbrel doctor` finds out why.\n";
        }
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
    std::vector<AddressPlan> m_plans;
    std::vector<Outcome> m_outcomes;  ///< One for each plan.
};

}  // namespace

void AddAutoIpCommand(CLI::App& app, CommandContext& context) {
    const auto automatic = std::make_shared<AutoIpCommand>(context);
    CLI::App* command = context.AddCommand(app, "auto-ip", "Gives GigE cameras on wrong subnets an address.",
                                           [automatic] { return automatic->Run(); });
    automatic->AddOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
