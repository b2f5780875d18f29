// SPDX-License-Identifier: Apache-2.0
// Gives a GigE camera an address and verifies it. Main thread only; no lock.
#include <algorithm>
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

namespace Nimbrel2::Tool {
namespace {

const char kFooter[] =
    R"(The camera takes the address at once and keeps it until it is powered off. The
request is a broadcast, so it needs no route to the camera and no privileges. A
camera that an application holds ignores it. The command succeeds when the
camera has answered at its new address.

The default of --mask is the mask of the network interface that hears the
camera, or else of the one in whose subnet the address is.

Exit status:
  0  The camera answers at its new address.
  1  No acknowledge, or the camera does not answer there, or another camera or
     this computer has the address (other hosts are not checked); standard error
     says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true,"mac","ip","subnet","gateway"}

Examples:
  nimbrel discover                                shows the MAC
  nimbrel force-ip --mac 02:00:5e:00:00:01 --ip 192.168.77.50
  nimbrel force-ip --mac 02-00-5E-00-00-01 --ip 192.168.77.50/24 \
      --gateway 192.168.77.254 --interface eth1
)";

class ForceIpCommand {
public:
    explicit ForceIpCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        CommandContext::AddValue(command, "--mac", "MAC", "MAC of the camera, such as 02:00:5e:00:00:01;\nrequired.",
                                 [this](const std::string& text) { m_mac = ParseMac("--mac", text); });
        CommandContext::AddValue(command, "--ip", "ADDRESS[/N]", "New address, with or without its mask; required.",
                                 [this](const std::string& text) { ParseAddress(text); });
        CommandContext::AddValue(command, "--mask", "MASK", "Subnet mask, such as /24 or 255.255.255.0.",
                                 [this](const std::string& text) { m_mask = ParseMask("--mask", text); });
        CommandContext::AddValue(command, "--gateway", "ADDRESS", "Gateway. Default: 0.0.0.0, none.",
                                 [this](const std::string& text) { m_gateway = ParseIp("--gateway", text); });
        m_context.AddJsonOption(command, "Print JSON.");
        m_context.AddGigEOptions(command);
    }

    int Run() {
        if (!m_mac) throw CommandError("--mac is missing: which camera", kUsage);
        if (!m_ip) throw CommandError("--ip is missing: its new address", kUsage);
        if (m_mask && m_maskOfIp) throw CommandError("--mask and the mask of --ip cannot be combined", kUsage);
        if (m_maskOfIp) m_mask = m_maskOfIp;
        const BusMasterSession busMaster = m_context.OpenGigE();
        Prepare(*busMaster);
        const std::vector<GigECamera> after = Force(*busMaster);
        CheckThatItMoved(FindByMac(after, *m_mac));
        PrintResult();
        return kDone;
    }

private:
    void ParseAddress(const std::string& text) {
        const std::size_t slash = text.find('/');
        m_ip = ParseCameraIp("--ip", text.substr(0, slash));
        if (slash != std::string::npos) m_maskOfIp = ParseMask("--ip", text.substr(slash));
    }

    // ---- Before ----------------------------------------------------------------------------------------------------

    // A discovery finds the interface that hears the camera: the driver sends there, and its mask is the default.
    void Prepare(BusMaster& busMaster) {
        std::vector<GigECamera> cameras;
        {
            const Progress progress("Searching for " + FormatMac(*m_mac));
            cameras = DiscoverGigECameras(busMaster);
        }
        Platform::GigEDiagnosis diagnosis;
        Platform::DiagnoseGigE(false, &diagnosis);
        if (!m_mask) m_mask = FindMask(diagnosis);
        if (IsSubnetEdge(*m_ip, *m_mask)) {
            throw CommandError("--ip: \"" + FormatIp(*m_ip) + "\" is the first or last address of " +
                                   SubnetOf(*m_ip, *m_mask) + ", which no camera can have",
                               kUsage);
        }
        CheckThatAddressIsFree(cameras, diagnosis);
        if (!IsOnAnySubnet(diagnosis)) {
            WriteError("nimbrel force-ip: warning: no network interface is in a subnet with " + FormatIp(*m_ip) +
                       ", so this computer cannot use the camera there.\n");
        }
    }

    bool IsOnAnySubnet(const Platform::GigEDiagnosis& diagnosis) const {
        return std::any_of(diagnosis.interfaces.begin(), diagnosis.interfaces.end(), [this](const auto& interface) {
            return interface.used && interface.interface.FindSubnet(PackIPAddress(*m_ip)) != nullptr;
        });
    }

    IPAddress FindMask(const Platform::GigEDiagnosis& diagnosis) const {
        const Platform::InterfaceAddress* heardIn = nullptr;
        const Platform::InterfaceAddress* elsewhere = nullptr;
        for (const auto& interface : diagnosis.interfaces) {
            if (!interface.used || interface.interface.addresses.empty()) continue;
            const Platform::InterfaceAddress* subnet = interface.interface.FindSubnet(PackIPAddress(*m_ip));
            if (elsewhere == nullptr) elsewhere = subnet;
            if (!IsHeardOn(diagnosis, interface.interface.index)) continue;
            if (heardIn == nullptr || subnet != nullptr) {
                heardIn = subnet != nullptr ? subnet : &interface.interface.addresses.front();
            }
        }
        const Platform::InterfaceAddress* found = heardIn != nullptr ? heardIn : elsewhere;
        if (found != nullptr) return UnpackIPAddress(found->GetMask());
        throw CommandError("--mask is missing: " + FormatMac(*m_mac) +
                           " does not answer, and no network interface is in a subnet with " + FormatIp(*m_ip))
            .WithHint("`nimbrel discover` shows the cameras that answer.");
    }

    bool IsHeardOn(const Platform::GigEDiagnosis& diagnosis, int interface) const {
        for (const auto& camera : diagnosis.cameras) {
            if (camera.interface == interface && IsSame(FromRecord(camera.record).mac, *m_mac)) return true;
        }
        return false;
    }

    void CheckThatAddressIsFree(const std::vector<GigECamera>& cameras,
                                const Platform::GigEDiagnosis& diagnosis) const {
        const std::uint32_t ip = PackIPAddress(*m_ip);
        for (const GigECamera& camera : cameras) {
            if (PackIPAddress(camera.ip) != ip || IsSame(camera.mac, *m_mac)) continue;
            throw CommandError("--ip: " + FormatIp(*m_ip) + " is the address of " + NameOf(camera));
        }
        for (const auto& interface : diagnosis.interfaces) {
            for (const auto& address : interface.interface.addresses) {
                if (address.address != ip) continue;
                throw CommandError("--ip: " + FormatIp(*m_ip) + " is the address of this computer on " +
                                   interface.interface.name);
            }
        }
    }

    // ---- The address, and after ------------------------------------------------------------------------------------

    bool HasMoved(const GigECamera& camera) const {
        return PackIPAddress(camera.ip) == PackIPAddress(*m_ip) &&
               PackIPAddress(camera.subnet) == PackIPAddress(*m_mask) &&
               PackIPAddress(camera.gateway) == PackIPAddress(m_gateway);
    }

    std::vector<GigECamera> Force(BusMaster& busMaster) const {
        const Progress progress("Waiting for " + FormatMac(*m_mac) + " at " + FormatIp(*m_ip));
        const Error error = busMaster.ForceIPAddressToCamera(*m_mac, *m_ip, *m_mask, m_gateway);
        if (error != ERROR_OK && error != ERROR_TIMEOUT) {
            throw Explain(error, FormatMac(*m_mac) + " cannot be given an address", INTERFACE_GIGE);
        }
        if (error == ERROR_OK) {
            return DiscoverUntil(busMaster, [this](const std::vector<GigECamera>& cameras) {
                const GigECamera* camera = FindByMac(cameras, *m_mac);
                return camera != nullptr && HasMoved(*camera);
            });
        }
        // The camera ignored the request, or its acknowledge was lost.
        std::vector<GigECamera> cameras = DiscoverGigECameras(busMaster);
        const GigECamera* camera = FindByMac(cameras, *m_mac);
        if (camera != nullptr && HasMoved(*camera)) return cameras;
        if (camera == nullptr) {
            throw CommandError("no acknowledge, and no camera with the MAC " + FormatMac(*m_mac) +
                               " answers a discovery")
                .WithHint("Check its MAC, cable and power; `nimbrel discover` shows the cameras that answer.")
                .WithDetails(error.Describe());
        }
        throw CommandError("no acknowledge: " + NameOf(*camera) + " stays at " +
                           FormatSubnet(camera->ip, camera->subnet) + ", most likely because an application holds it")
            .WithHint("`nimbrel control mac:" + FormatMac(*m_mac) + "` shows who holds it.")
            .WithDetails(error.Describe());
    }

    void CheckThatItMoved(const GigECamera* camera) const {
        if (camera != nullptr && HasMoved(*camera)) return;
        const std::string acknowledged = FormatMac(*m_mac) + " acknowledged " + FormatSubnet(*m_ip, *m_mask) + ", but ";
        if (camera == nullptr) {
            throw CommandError(acknowledged + "no longer answers")
                .WithHint("It may still be starting: `nimbrel discover` shows whether it is back.");
        }
        throw CommandError(acknowledged + "answers at " + FormatSubnet(camera->ip, camera->subnet) + ", gateway " +
                           FormatIp(camera->gateway));
    }

    void PrintResult() {
        if (m_context.WantsJson()) {
            m_context.Print(Dump(Json{{"ok", true},
                                      {"mac", FormatMac(*m_mac)},
                                      {"ip", FormatIp(*m_ip)},
                                      {"subnet", FormatIp(*m_mask)},
                                      {"gateway", FormatIp(m_gateway)}}));
        } else {
            m_context.Print(FormatMac(*m_mac) + " now answers at " + FormatSubnet(*m_ip, *m_mask) + ".\n");
        }
    }

    CommandContext& m_context;
    std::optional<MACAddress> m_mac;
    std::optional<IPAddress> m_ip;
    std::optional<IPAddress> m_mask;
    std::optional<IPAddress> m_maskOfIp;
    IPAddress m_gateway;
};

}  // namespace

void AddForceIpCommand(CLI::App& app, CommandContext& context) {
    const auto force = std::make_shared<ForceIpCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "force-ip", "Gives a GigE camera an address.", [force] { return force->Run(); });
    force->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
