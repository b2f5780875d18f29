// SPDX-License-Identifier: Apache-2.0
// Finds GigE cameras wherever their address is, and says what may hide one. Main thread only; no lock.
#include "tools/nimbrel/DiscoverCommand.h"

#include <memory>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/ReversePath.h"
#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

const char kFooter[] =
    R"help(Shows every GigE camera that answers a broadcast, those on a wrong subnet too,
which `nimbrel list` cannot show because they cannot be used. `nimbrel auto-ip`
gives those an address. Where a filter of this computer can hide such a camera,
a warning on standard error says so, with the commands that cure it.

Exit status:
  0  It was looked, be nothing found.
  1  It failed; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: [{"serial","mac","ip","subnet","gateway","vendor","model","name",
"version"}]; "version" is that of GigE Vision, "name" the one that users give.

Examples:
  nimbrel discover
  nimbrel discover --interface eth1 --discovery-window 0.2
  nimbrel discover --json | jq -r '.[] | "\(.mac) \(.ip)"'
)help";

class DiscoverCommand {
public:
    explicit DiscoverCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_context.AddJsonOption(command, "Print one JSON document.");
        m_context.AddGigEOptions(command);
    }

    int Run() {
        const BusMasterSession busMaster = m_context.OpenGigE();
        std::vector<GigECamera> cameras;
        {
            const Progress progress("Discovering GigE cameras");
            cameras = DiscoverGigECameras(*busMaster);
        }
        Platform::GigEDiagnosis diagnosis;
        const bool diagnosed = Platform::DiagnoseGigE(false, &diagnosis) == HAL_OK;
        m_context.Print(m_context.WantsJson() ? AsJson(cameras) : ForPeople(cameras, diagnosis));
        if (diagnosed) WriteError(Warnings(diagnosis));
        return kDone;
    }

private:
    static std::string AsJson(const std::vector<GigECamera>& cameras) {
        Json json = Json::array();
        for (const GigECamera& camera : cameras) json.push_back(ToJson(camera));
        return Dump(json, 2);
    }

    // ---- For people ------------------------------------------------------------------------------------------------

    std::string ForPeople(const std::vector<GigECamera>& cameras, const Platform::GigEDiagnosis& diagnosis) const {
        if (cameras.empty()) {
            std::vector<std::string> names;
            for (const auto& interface : diagnosis.interfaces) {
                if (interface.used) names.push_back(ForTerminal(interface.interface.name));
            }
            return "No GigE camera answered" + (names.empty() ? "" : " on " + Enumerate(names)) + ".\n";
        }
        std::string text = CameraTable(cameras).Render(OutputWidth());
        std::size_t foreign = 0;
        for (const GigECamera& camera : cameras) foreign += IsForeign(camera, diagnosis) ? 1 : 0;
        if (foreign != 0) {
            text += "\n" + std::to_string(foreign) + (foreign == 1 ? " camera is" : " cameras are") +
                    " on a wrong subnet: `nimbrel auto-ip` gives " + (foreign == 1 ? "it" : "each") +
                    " a right address.\n";
        }
        return text;
    }

    static Table CameraTable(const std::vector<GigECamera>& cameras) {
        Table table;
        table.AddColumn("SERIAL", Table::Align::Right);
        table.AddColumn("MAC");
        table.AddColumn("ADDRESS");
        table.AddColumn("GATEWAY");
        table.AddColumn("VENDOR", Table::Align::Left, Table::Width::Giving);
        table.AddColumn("MODEL", Table::Align::Left, Table::Width::Giving);
        table.AddColumn("NAME", Table::Align::Left, Table::Width::Giving);
        table.AddColumn("GEV");
        for (const GigECamera& camera : cameras) {
            const bool hasGateway = PackIPAddress(camera.gateway) != 0;
            table.AddRow({std::to_string(camera.serialNumber), FormatMac(camera.mac),
                          FormatSubnet(camera.ip, camera.subnet), hasGateway ? FormatIp(camera.gateway) : "none",
                          camera.vendor, camera.model, camera.name, camera.version});
        }
        return table;
    }

    // No interface that hears it has it on its subnet.
    static bool IsForeign(const GigECamera& camera, const Platform::GigEDiagnosis& diagnosis) {
        bool heard = false;
        for (const auto& other : diagnosis.cameras) {
            const bool same = IsSame(FromRecord(other.record), camera);
            if (same && other.reachable) return false;
            heard = heard || same;
        }
        return heard;
    }

    // ---- What may hide a camera ------------------------------------------------------------------------------------

    static std::string Warnings(const Platform::GigEDiagnosis& diagnosis) {
        std::string text;
        for (const auto& interface : diagnosis.interfaces) {
            if (!interface.used || interface.GetRpFilter() == 0) continue;
            const std::string seen = WarningOfSeen(interface, diagnosis);
            text += seen.empty() ? WarningOfUnseen(interface) : seen;
        }
        return text;
    }

    static std::string FilterOf(const Platform::InterfaceDiagnosis& interface) {
        return "the reverse path filter of " + interface.interface.name + " (rp_filter " +
               std::to_string(interface.GetRpFilter()) + ")";
    }

    static std::string WarningOfSeen(const Platform::InterfaceDiagnosis& interface,
                                     const Platform::GigEDiagnosis& diagnosis) {
        std::vector<std::string> addresses;
        for (const auto& camera : diagnosis.cameras) {
            const IPAddress ip = UnpackIPAddress(camera.record.ipAddress);
            if (camera.interface != interface.interface.index || camera.reachable) continue;
            if (IsSwallowed(interface, ip)) addresses.push_back(FormatIp(ip));
        }
        if (addresses.empty()) return "";
        return "nimbrel discover: warning: " + FilterOf(interface) + " drops the answers of " + Enumerate(addresses) +
               ":\nprograms without CAP_NET_RAW do not see what is there. `nimbrel auto-ip` cures it for good,\n"
               "and these do as long as the address stays:\n" +
               CuresForSwallowing(interface.interface.name, addresses.front());
    }

    static std::string WarningOfUnseen(const Platform::InterfaceDiagnosis& interface) {
        if (MayListenToPackets() || !AreStrangersSwallowed(interface)) return "";
        return "nimbrel discover: warning: " + FilterOf(interface) +
               " drops the answers of cameras on other\nsubnets: one may be there and not show. To see it, run this as "
               "root, or:\n" +
               CuresForSwallowing(interface.interface.name, "ADDRESS") +
               "A camera whose MAC you know needs neither: `nimbrel force-ip` reaches it.\n";
    }

    CommandContext& m_context;
};

}  // namespace

void AddDiscoverCommand(CLI::App& app, CommandContext& context) {
    const auto discover = std::make_shared<DiscoverCommand>(context);
    CLI::App* command = context.AddCommand(app, "discover", "Finds GigE cameras, those on a wrong subnet too.",
                                           [discover] { return discover->Run(); });
    discover->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
