// SPDX-License-Identifier: Apache-2.0
// Hands questions of Diagnostics.h to the driver. Run on their caller's thread, which the driver may block for network
// I/O; no lock of the glue is held.
#include "platform/Diagnostics.h"

#include "platform/BusMap.h"
#include "platform/FireWireDiagnostics.h"
#include "platform/base/CameraAddress.h"
#include "platform/base/Texts.h"
#include "platform/hal/Calls.h"

namespace Nimbrel2::Platform {
namespace {

BusMapNode NodeOf(const GvcpDiscoveryRecord& record, std::size_t position) {
    BusMapNode node;
    node.id = static_cast<std::uint32_t>(position);
    node.isCamera = true;
    node.serialNumber = LeadingNumber(FieldText(record.serialNumber));
    node.vendor = FieldText(record.manufacturerName);
    node.model = FieldText(record.modelName);
    node.name = FieldText(record.userDefinedName);
    node.mac = static_cast<std::uint64_t>(record.macHigh) << 32 | record.macLow;
    return node;
}

// One map per network interface, with the cameras that are listed through it.
std::vector<BusMap> MapsOf(const GigEDiagnosis& diagnosis) {
    std::vector<BusMap> maps;
    for (const InterfaceDiagnosis& interface : diagnosis.interfaces) {
        BusMap map;
        map.bus = HAL_INTERFACE_GIGE;
        map.name = interface.interface.name;
        map.hasLink = interface.interface.up && interface.interface.running;
        map.linkSpeed = interface.linkSpeed;
        for (const CameraDiagnosis& camera : diagnosis.cameras) {
            if (!camera.listed || camera.interface != interface.interface.index) {
                continue;
            }
            map.nodes.push_back(NodeOf(camera.record, map.nodes.size()));
        }
        maps.push_back(std::move(map));
    }
    return maps;
}

void Append(std::vector<BusMap>* all, std::vector<BusMap> some) {
    for (BusMap& map : some) {
        all->push_back(std::move(map));
    }
}

/// The glue hands the drivers empty containers.
/// @param function  Its own name, or that of the function of the HAL that does the same: a fault that a rig plans for
///                  that one meets both.
template <class Answer, class Work>
std::uint32_t Ask(const char* function, Answer* answer, const Work& work) {
    return InSession(function, answer != nullptr, [&](Session& session) {
        *answer = Answer{};
        return work(session.GigE());
    });
}

}  // namespace

std::uint32_t DiagnoseFireWire(bool askNodes, FireWireDiagnosis* diagnosis) {
    return InSession(__func__, diagnosis != nullptr, [&](Session& session) {
        *diagnosis = FireWireDiagnosis{};
        return session.FireWire().Diagnose(askNodes, diagnosis);
    });
}

std::uint32_t DescribeBuses(std::vector<BusMap>* maps) {
    return InSession(__func__, maps != nullptr, [&](Session& session) -> std::uint32_t {
        maps->clear();
        std::vector<BusMap> fireWire;
        if (session.FireWire().Describe(&fireWire) == HAL_OK) {
            Append(maps, std::move(fireWire));
        }
        std::vector<BusMap> usb;
        if (session.Usb().Describe(&usb) == HAL_OK) {
            Append(maps, std::move(usb));
        }
        GigEDiagnosis diagnosis;
        if (session.GigE().Diagnose(false, &diagnosis) == HAL_OK) {
            Append(maps, MapsOf(diagnosis));
        }
        return HAL_OK;
    });
}

std::uint32_t GetBusSupport(HALInterfaceType bus) {
    const bool known = bus == HAL_INTERFACE_1394 || bus == HAL_INTERFACE_USB || bus == HAL_INTERFACE_GIGE;
    return InSession(__func__, known, [bus](Session& session) { return session.GetSupport(bus); });
}

std::uint32_t DiagnoseGigE(bool askControl, GigEDiagnosis* diagnosis) {
    return Ask(__func__, diagnosis, [&](GigEBus& bus) { return bus.Diagnose(askControl, diagnosis); });
}

std::uint32_t GetGigESearchReport(GigESearchReport* report) {
    return Ask(__func__, report, [&](GigEBus& bus) { return bus.GetSearchReport(report); });
}

std::uint32_t DiscoverGigE(const std::optional<GigECameraName>& until, GigEDiscovery* discovery) {
    return Ask("HAL_GvcpDiscovery", discovery, [&](GigEBus& bus) { return bus.Discover(until, discovery); });
}

std::uint32_t FindMutedGigECameras(GigEHearing* hearing) {
    return Ask(__func__, hearing, [&](GigEBus& bus) { return bus.FindMutedCameras(hearing); });
}

std::uint32_t PlanGigEAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) {
    return Ask(__func__, plans, [&](GigEBus& bus) { return bus.PlanAddresses(serialNumber, plans); });
}

std::uint32_t ApplyGigEAddresses(std::vector<AddressPlan>* plans) {
    return InSession("HAL_GvcpForceIpAuto", plans != nullptr,
                     [&](Session& session) { return session.GigE().ApplyAddresses(plans); });
}

std::uint32_t ForceGigEAddress(const GigEAddress& address, ForceIpResult* result) {
    return Ask("HAL_GvcpForceIp", result, [&](GigEBus& bus) {
        const std::uint32_t status = CheckCameraAddress(address.ip, address.mask, address.gateway);
        return status == HAL_OK ? bus.ForceAddress(address, result) : status;
    });
}

std::uint32_t FindGigEAddressHolder(std::uint32_t ip, AddressHolder* holder) {
    return Ask(__func__, holder, [&](GigEBus& bus) { return bus.FindAddressHolder(ip, holder); });
}

std::uint32_t DiagnoseUsb(UsbDiagnosis* diagnosis) {
    return InSession(__func__, diagnosis != nullptr, [&](Session& session) {
        *diagnosis = UsbDiagnosis();
        return session.Usb().Diagnose(diagnosis);
    });
}

}  // namespace Nimbrel2::Platform
