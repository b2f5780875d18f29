// SPDX-License-Identifier: Apache-2.0
// Finds GigE cameras on any subnet and says where it did not look. Main thread only; no lock.
#include <memory>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/SearchReport.h"
#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

const char Footer[] =
    R"help(Shows every GigE camera that answers a broadcast, including those on a wrong
subnet, which `nimbrel list` cannot show because they cannot be used. `nimbrel
auto-ip` gives those an address. Where a reverse path filter of this computer
may hide such a camera, a line on standard error says so.

Exit status:
  0  Searched, even if nothing was found.
  1  Failed, or a network interface was not searched; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"cameras":[{"serial","mac","ip","subnet","gateway","vendor","model",
"name","version","usable"}]}; "version" is that of GigE Vision, "name" the one
that users give; "usable" is "usable", "no-address", "invalid-address",
"wrong-subnet", "wrong-mask", "address-taken", "no-answer" or "no-registers".

Examples:
  nimbrel discover
  nimbrel discover --interface eth1 --discovery-window 0.2
  nimbrel discover --json | jq -r '.cameras[] | "\(.mac) \(.ip)"'
)help";

class DiscoverCommand {
public:
    explicit DiscoverCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_context.AddJsonOption(command, "Print JSON.");
        m_context.AddGigEOptions(command);
    }

    int Run() {
        const BusMasterSession busMaster = m_context.OpenGigE();
        Platform::GigEDiscovery discovery;
        {
            const Progress progress("Discovering GigE cameras");
            discovery = DiscoverGigE();
        }
        Platform::GigEDiagnosis diagnosis;
        Platform::DiagnoseGigE(false, &diagnosis);
        diagnosis.cameras = discovery.cameras;
        const std::vector<HeardCamera> cameras = FindHeardCameras(diagnosis);
        m_context.Print(m_context.WantsJson() ? AsJson(cameras) : ForPeople(cameras, diagnosis));
        const std::vector<std::string> problems = DescribeProblems(discovery.report);
        for (const std::string& line : problems) {
            WriteError("nimbrel discover: " + line + ".\n");
        }
        for (const std::string& line : DescribeFilters(discovery.report)) {
            WriteError("nimbrel discover: " + line + ".\n");
        }
        return problems.empty() ? ExitDone : ExitFailed;
    }

private:
    static std::string AsJson(const std::vector<HeardCamera>& cameras) {
        Json json{{"cameras", Json::array()}};
        for (const HeardCamera& heard : cameras) {
            json["cameras"].push_back(ToJson(heard.camera));
            json["cameras"].back()["usable"] = FormatUsability(heard.usability);
        }
        return Dump(json, 2);
    }

    // ---- For people ------------------------------------------------------------------------------------------------

    std::string ForPeople(const std::vector<HeardCamera>& cameras, const Platform::GigEDiagnosis& diagnosis) const {
        if (cameras.empty()) {
            std::vector<std::string> names;
            for (const auto& interface : diagnosis.interfaces) {
                if (interface.used) {
                    names.push_back(ForTerminal(interface.interface.name));
                }
            }
            return "No GigE camera answered" + (names.empty() ? "" : " on " + Enumerate(names)) +
                   ". `nimbrel doctor` finds out why.\n";
        }
        const std::string cure = CureForUnusable(cameras);
        return CameraTable(cameras).Render(OutputWidth(), m_context.UsesColour()) + (cure.empty() ? "" : "\n" + cure);
    }

    static Table CameraTable(const std::vector<HeardCamera>& cameras) {
        Table table;
        table.AddColumn("SERIAL", Table::Align::Right);
        table.AddColumn("MAC");
        table.AddColumn("ADDRESS");
        table.AddColumn("GATEWAY");
        table.AddColumn("VENDOR", Table::Align::Left, Table::Width::Flexible);
        table.AddColumn("MODEL", Table::Align::Left, Table::Width::Flexible);
        table.AddColumn("NAME", Table::Align::Left, Table::Width::Flexible);
        table.AddColumn("GEV");
        table.AddColumn("USABLE");
        for (const HeardCamera& heard : cameras) {
            const GigECamera& camera = heard.camera;
            const bool hasGateway = PackIPAddress(camera.gateway) != 0;
            const bool usable = heard.usability == Usability::Usable;
            const std::string word = usable ? "yes" : FormatUsability(heard.usability);
            table.AddRow({std::to_string(camera.serialNumber),
                          FormatMac(camera.mac),
                          FormatSubnet(camera.ip, camera.subnet),
                          hasGateway ? FormatIp(camera.gateway) : "none",
                          camera.vendor,
                          camera.model,
                          camera.name,
                          camera.version,
                          {word, usable ? Colour::Green : Colour::Red}});
        }
        return table;
    }

    CommandContext& m_context;
};

}  // namespace

void AddDiscoverCommand(CLI::App& app, CommandContext& context) {
    const auto discover = std::make_shared<DiscoverCommand>(context);
    CLI::App* command = context.AddCommand(app, "discover", "Finds GigE cameras, whatever their subnet.",
                                           [discover] { return discover->Run(); });
    discover->AddOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
