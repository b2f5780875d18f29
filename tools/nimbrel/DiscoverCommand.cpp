// SPDX-License-Identifier: Apache-2.0
// Finds GigE cameras on any subnet and says what may hide one. Main thread only; no lock.
#include <memory>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/ReversePath.h"
#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

const char kFooter[] =
    R"help(Shows every GigE camera that answers a broadcast, including those on a wrong
subnet, which `nimbrel list` cannot show because they cannot be used. `nimbrel
auto-ip` gives those an address. Where a filter of this computer can hide such a
camera, a warning on standard error names it with the commands that help.

Exit status:
  0  Searched, even if nothing was found.
  1  Failed; standard error says why.
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
        std::vector<GigECamera> cameras;
        {
            const Progress progress("Discovering GigE cameras");
            cameras = DiscoverGigECameras(*busMaster);
        }
        Platform::GigEDiagnosis diagnosis;
        const bool diagnosed = Platform::DiagnoseGigE(false, &diagnosis) == HAL_OK;
        const std::vector<HeardCamera> heard = FindHeardCameras(diagnosis);
        m_context.Print(m_context.WantsJson() ? AsJson(cameras, heard) : ForPeople(cameras, heard, diagnosis));
        if (diagnosed) WriteError(Warnings(diagnosis));
        return kDone;
    }

private:
    // Nothing when the camera was heard by the discovery only.
    static const HeardCamera* Find(const std::vector<HeardCamera>& heard, const GigECamera& camera) {
        for (const HeardCamera& other : heard) {
            if (IsSame(other.camera, camera)) return &other;
        }
        return nullptr;
    }

    static std::string AsJson(const std::vector<GigECamera>& cameras, const std::vector<HeardCamera>& heard) {
        Json json{{"cameras", Json::array()}};
        for (const GigECamera& camera : cameras) {
            const HeardCamera* known = Find(heard, camera);
            json["cameras"].push_back(ToJson(camera));
            if (known != nullptr) json["cameras"].back()["usable"] = FormatUsability(known->usability);
        }
        return Dump(json, 2);
    }

    // ---- For people ------------------------------------------------------------------------------------------------

    std::string ForPeople(const std::vector<GigECamera>& cameras, const std::vector<HeardCamera>& heard,
                          const Platform::GigEDiagnosis& diagnosis) const {
        if (cameras.empty()) {
            std::vector<std::string> names;
            for (const auto& interface : diagnosis.interfaces) {
                if (interface.used) names.push_back(ForTerminal(interface.interface.name));
            }
            return "No GigE camera answered" + (names.empty() ? "" : " on " + Enumerate(names)) +
                   ". `nimbrel doctor` finds out why.\n";
        }
        const std::string cure = CureForUnusable(heard);
        return CameraTable(cameras, heard).Render(OutputWidth(), m_context.UsesColour()) +
               (cure.empty() ? "" : "\n" + cure);
    }

    static Table CameraTable(const std::vector<GigECamera>& cameras, const std::vector<HeardCamera>& heard) {
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
        for (const GigECamera& camera : cameras) {
            const bool hasGateway = PackIPAddress(camera.gateway) != 0;
            const HeardCamera* known = Find(heard, camera);
            const bool usable = known != nullptr && known->usability == Usability::Usable;
            const std::string word = known == nullptr ? "unknown" : usable ? "yes" : FormatUsability(known->usability);
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

    // ---- What may hide a camera ------------------------------------------------------------------------------------

    static std::string Warnings(const Platform::GigEDiagnosis& diagnosis) {
        std::string text;
        for (const auto& interface : diagnosis.interfaces) {
            if (!interface.used || interface.GetRpFilter() == 0) continue;
            const std::string seen = WarningForHeard(interface, diagnosis);
            text += seen.empty() ? WarningForHidden(interface) : seen;
        }
        return text;
    }

    static std::string FilterOf(const Platform::InterfaceDiagnosis& interface) {
        return "the reverse path filter of " + interface.interface.name + " (rp_filter " +
               std::to_string(interface.GetRpFilter()) + ")";
    }

    static std::string WarningForHeard(const Platform::InterfaceDiagnosis& interface,
                                       const Platform::GigEDiagnosis& diagnosis) {
        std::vector<std::string> addresses;
        for (const auto& camera : diagnosis.cameras) {
            const IPAddress ip = UnpackIPAddress(camera.record.ipAddress);
            if (camera.interface != interface.interface.index || camera.reachable) continue;
            if (IsDropped(interface, ip)) addresses.push_back(FormatIp(ip));
        }
        if (addresses.empty()) return "";
        return "nimbrel discover: warning: " + FilterOf(interface) + " drops the answers of " + Enumerate(addresses) +
               ":\nonly programs with CAP_NET_RAW see them. `nimbrel auto-ip` solves it; so does one of these\n"
               "for as long as the camera keeps its address:\n" +
               CuresForFilter(interface.interface.name, addresses.front());
    }

    static std::string WarningForHidden(const Platform::InterfaceDiagnosis& interface) {
        if (MayListenToPackets() || !AreUnknownDropped(interface)) return "";
        return "nimbrel discover: warning: " + FilterOf(interface) +
               " drops the answers of cameras on other\nsubnets, so one may be hidden. To see it, run this as "
               "root, or:\n" +
               CuresForFilter(interface.interface.name, "ADDRESS") +
               "`nimbrel force-ip` reaches a camera whose MAC you know without any of these.\n";
    }

    CommandContext& m_context;
};

}  // namespace

void AddDiscoverCommand(CLI::App& app, CommandContext& context) {
    const auto discover = std::make_shared<DiscoverCommand>(context);
    CLI::App* command = context.AddCommand(app, "discover", "Finds GigE cameras, whatever their subnet.",
                                           [discover] { return discover->Run(); });
    discover->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
