// SPDX-License-Identifier: Apache-2.0
// Gives a GigE camera an address and verifies it. Main thread only; no lock.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/base/CameraAddress.h"
#include "platform/base/Texts.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Progress.h"

namespace Nimbrel2::Tool {
namespace {

const char Footer[] =
    R"(The camera takes the address at once and keeps it until it is powered off. The
request is a broadcast, so it needs no route to the camera and no privileges. A
camera that an application holds ignores it. The command succeeds when that very
camera has answered at its new address; --force accepts its acknowledge for an
address outside all subnets of this computer. An address that somebody has is
refused without --force.

The default of --mask is the mask of the network interface that hears the
camera, or else of the one in whose subnet the address is.

Exit status:
  0  The camera answers at its new address.
  1  No acknowledge, or the camera does not answer there, or somebody has the
     address; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true,"mac","ip","subnet","gateway","verified"}

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
        command.add_flag("--force", m_force,
                         "Even if a camera or host has that address, or\nnobody there can be asked.");
        m_context.AddJsonOption(command, "Print JSON.");
        m_context.AddGigEOptions(command);
    }

    int Run() {
        if (!m_mac) {
            throw CommandError("--mac is missing: which camera", ExitUsage);
        }
        if (!m_ip) {
            throw CommandError("--ip is missing: its new address", ExitUsage);
        }
        if (m_mask && m_maskOfIp) {
            throw CommandError("--mask and the mask of --ip cannot be combined", ExitUsage);
        }
        if (m_maskOfIp) {
            m_mask = m_maskOfIp;
        }
        const BusMasterSession busMaster = m_context.OpenGigE();
        Search();
        if (!m_mask) {
            m_mask = FindMask();
        }
        CheckConfiguration();
        CheckThatAddressIsFree();
        Force();
        PrintResult();
        return ExitDone;
    }

private:
    void ParseAddress(const std::string& text) {
        const std::size_t slash = text.find('/');
        m_ip = ParseCameraIp("--ip", text.substr(0, slash));
        if (slash != std::string::npos) {
            m_maskOfIp = ParseMask("--ip", text.substr(slash));
        }
    }

    // ---- Before ----------------------------------------------------------------------------------------------------

    void Search() {
        const Progress progress("Searching for " + FormatMac(*m_mac));
        m_cameras = DiscoverGigE().cameras;
    }

    // The mask of the network interface that hears the camera.
    IPAddress FindMask() const {
        Platform::GigEDiagnosis diagnosis;
        Platform::DiagnoseGigE(false, &diagnosis);
        diagnosis.cameras = m_cameras;
        const Platform::InterfaceAddress* heardIn = nullptr;
        const Platform::InterfaceAddress* elsewhere = nullptr;
        for (const auto& interface : diagnosis.interfaces) {
            if (!interface.used || interface.interface.addresses.empty()) {
                continue;
            }
            const Platform::InterfaceAddress* subnet = interface.interface.FindSubnet(PackIPAddress(*m_ip));
            if (elsewhere == nullptr) {
                elsewhere = subnet;
            }
            if (!IsHeardOn(diagnosis, interface.interface.index)) {
                continue;
            }
            if (heardIn == nullptr || subnet != nullptr) {
                heardIn = subnet != nullptr ? subnet : &interface.interface.addresses.front();
            }
        }
        const Platform::InterfaceAddress* found = heardIn != nullptr ? heardIn : elsewhere;
        if (found != nullptr) {
            return UnpackIPAddress(found->GetMask());
        }
        throw CommandError("--mask is missing: " + FormatMac(*m_mac) +
                           " does not answer, and no network interface is in a subnet with " + FormatIp(*m_ip))
            .WithHint("`nimbrel discover` shows the cameras that answer.");
    }

    bool IsHeardOn(const Platform::GigEDiagnosis& diagnosis, int interface) const {
        for (const auto& camera : diagnosis.cameras) {
            if (camera.interface == interface && IsSame(FromRecord(camera.record).mac, *m_mac)) {
                return true;
            }
        }
        return false;
    }

    // What no camera can have, the driver would refuse as well, but without the name of the option.
    void CheckConfiguration() const {
        const auto refuse = [](const char* option, const IPAddress& value, const std::string& why) {
            return CommandError(std::string(option) + ": \"" + FormatIp(value) + "\" " + why, ExitUsage);
        };
        const std::uint32_t status =
            Platform::CheckCameraAddress(PackIPAddress(*m_ip), PackIPAddress(*m_mask), PackIPAddress(m_gateway));
        if (status == HAL_BAD_MASK) {
            throw refuse("--mask", *m_mask, "leaves no room for a camera and this computer");
        }
        if (status == HAL_BAD_GATEWAY) {
            throw refuse("--gateway", m_gateway, "is not another address of " + SubnetOf(*m_ip, *m_mask));
        }
        if (status == HAL_OK) {
            return;
        }
        if (!Platform::IsHostAddress(PackIPAddress(*m_ip))) {
            throw refuse("--ip", *m_ip, "is not an address of a host");
        }
        throw refuse("--ip", *m_ip,
                     "is the first or last address of " + SubnetOf(*m_ip, *m_mask) + ", which no camera can have");
    }

    void CheckThatAddressIsFree() const {
        using Kind = Platform::AddressHolder::Kind;
        Platform::AddressHolder holder;
        bool isItsOwn = false;  // and only mask or gateway change
        for (const Platform::CameraDiagnosis& heard : m_cameras) {
            if (heard.record.ipAddress != PackIPAddress(*m_ip)) {
                continue;
            }
            const GigECamera camera = FromRecord(heard.record);
            isItsOwn = isItsOwn || IsSame(camera.mac, *m_mac);
            if (IsSame(camera.mac, *m_mac) || m_force) {
                continue;
            }
            throw CommandError("--ip: " + FormatIp(*m_ip) + " is the address of " + NameOf(camera))
                .WithHint("Choose another address, or give it all the same with --force.");
        }
        {
            const Progress progress("Asking who has " + FormatIp(*m_ip));
            if (Platform::FindGigEAddressHolder(PackIPAddress(*m_ip), &holder) != HAL_OK) {
                return;
            }
        }
        const std::string taken = "--ip: " + FormatIp(*m_ip) + " is the address of ";
        const std::string on = holder.interfaceName.empty() ? "" : " on " + holder.interfaceName;
        if (holder.kind == Kind::ThisComputer) {
            throw CommandError(taken + "this computer" + on);
        }
        const bool isTaken = holder.kind == Kind::Camera || holder.kind == Kind::Host;
        if (!isTaken || holder.mac == PackMac(*m_mac) || isItsOwn || m_force) {
            return;
        }
        throw CommandError(taken + (holder.kind == Kind::Camera ? "the camera " : "the host ") +
                           (holder.mac == 0 ? std::string("that answers for it") : Platform::FormatMac(holder.mac)) +
                           on)
            .WithHint("Choose another address, or give it all the same with --force.");
    }

    // ---- The address, and after ------------------------------------------------------------------------------------

    void Force() {
        const Progress progress("Waiting for " + FormatMac(*m_mac) + " at " + FormatIp(*m_ip));
        const Platform::GigEAddress address{PackMac(*m_mac), PackIPAddress(*m_ip), PackIPAddress(*m_mask),
                                            PackIPAddress(m_gateway)};
        Platform::ForceIpResult result;
        const std::uint32_t status = Platform::ForceGigEAddress(address, &result);
        m_verified = result.verified && result.record.subnetMask == address.mask &&
                     result.record.defaultGateway == address.gateway;
        if (m_verified) {
            return;
        }
        if (status != HAL_OK && status != HAL_NO_ACKNOWLEDGE) {
            throw CommandError(FormatMac(*m_mac) + " cannot be given an address: " + DescribeStatus(status))
                .WithHint(NextStep(status, INTERFACE_GIGE));
        }
        if (result.acknowledged && result.outOfReach) {
            if (m_force) {
                return;
            }
            throw CommandError(FormatMac(*m_mac) + " acknowledged " + FormatSubnet(*m_ip, *m_mask) +
                               ", not verified: no network interface is in a subnet with that address")
                .WithHint("With --force that is enough.");
        }
        ExplainFailure(result.acknowledged);
    }

    [[noreturn]] void ExplainFailure(bool acknowledged) const {
        std::optional<GigECamera> camera;
        for (const Platform::CameraDiagnosis& heard : DiscoverGigE(m_mac).cameras) {
            const GigECamera other = FromRecord(heard.record);
            if (IsSame(other.mac, *m_mac)) {
                camera = other;
            }
        }
        if (acknowledged) {
            const std::string text = FormatMac(*m_mac) + " acknowledged " + FormatSubnet(*m_ip, *m_mask) + ", but ";
            if (camera) {
                throw CommandError(text + "answers at " + FormatSubnet(camera->ip, camera->subnet) + ", gateway " +
                                   FormatIp(camera->gateway));
            }
            throw CommandError(text + "no longer answers")
                .WithHint("It may still be starting: `nimbrel discover` shows whether it is back.");
        }
        if (camera) {
            throw CommandError("no acknowledge: " + NameOf(*camera) + " stays at " +
                               FormatSubnet(camera->ip, camera->subnet) +
                               ", most likely because an application holds it")
                .WithHint("`nimbrel control mac:" + FormatMac(*m_mac) + "` shows who holds it.");
        }
        throw CommandError("no acknowledge, and no camera with the MAC " + FormatMac(*m_mac) + " answers a discovery")
            .WithHint("Check its MAC, cable and power; `nimbrel discover` shows the cameras that answer.");
    }

    void PrintResult() {
        if (m_context.WantsJson()) {
            m_context.Print(Dump(Json{{"ok", true},
                                      {"mac", FormatMac(*m_mac)},
                                      {"ip", FormatIp(*m_ip)},
                                      {"subnet", FormatIp(*m_mask)},
                                      {"gateway", FormatIp(m_gateway)},
                                      {"verified", m_verified}}));
        } else if (!m_verified) {
            m_context.Print(FormatMac(*m_mac) + " acknowledged " + FormatSubnet(*m_ip, *m_mask) + ", not verified.\n");
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
    std::vector<Platform::CameraDiagnosis> m_cameras;  ///< That answered before.
    bool m_force = false;
    bool m_verified = false;
};

}  // namespace

void AddForceIpCommand(CLI::App& app, CommandContext& context) {
    const auto force = std::make_shared<ForceIpCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "force-ip", "Gives a GigE camera an address.", [force] { return force->Run(); });
    force->AddOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
