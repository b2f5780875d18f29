// SPDX-License-Identifier: Apache-2.0
// Words for what the driver knows of GigE cameras. Pure.
#include "tools/nimbrel/GigEUsability.h"

#include <algorithm>

#include "platform/base/CameraAddress.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

const Platform::InterfaceDiagnosis* FindInterface(const Platform::GigEDiagnosis& diagnosis, int index) {
    for (const auto& interface : diagnosis.interfaces) {
        if (interface.interface.index == index) {
            return &interface;
        }
    }
    return nullptr;
}

std::string DescribeSubnets(const Platform::InterfaceDiagnosis& interface) {
    std::vector<std::string> subnets;
    for (const auto& address : interface.interface.addresses) {
        subnets.push_back(SubnetOf(UnpackIPAddress(address.address), UnpackIPAddress(address.GetMask())));
    }
    return interface.interface.name + (subnets.empty() ? " has no address" : " is on " + Enumerate(subnets));
}

}  // namespace

std::string FormatUsability(Usability usability) {
    switch (usability) {
        case Usability::Usable:
            return "usable";
        case Usability::NoAddress:
            return "no-address";
        case Usability::InvalidAddress:
            return "invalid-address";
        case Usability::OtherSubnet:
            return "wrong-subnet";
        case Usability::OutsideItsSubnet:
            return "wrong-mask";
        case Usability::AddressTaken:
            return "address-taken";
        case Usability::NoAnswer:
            return "no-answer";
        case Usability::NoRegisters:
            break;
    }
    return "no-registers";
}

std::string HeardCamera::Explain() const {
    const std::string text = Platform::DescribeUsability(usability);
    const bool ofSubnets = usability == Usability::OtherSubnet || usability == Usability::NoAddress;
    return text + (ofSubnets && interface != nullptr ? "; " + DescribeSubnets(*interface) : "");
}

std::vector<HeardCamera> FindHeardCameras(const Platform::GigEDiagnosis& diagnosis) {
    std::vector<HeardCamera> cameras;
    for (const Platform::CameraDiagnosis& heard : diagnosis.cameras) {
        HeardCamera camera{FromRecord(heard.record), heard.usability, FindInterface(diagnosis, heard.interface),
                           heard.listed};
        const auto known = std::find_if(cameras.begin(), cameras.end(), [&camera](const HeardCamera& other) {
            return IsSame(other.camera, camera.camera);
        });
        if (known == cameras.end()) {
            cameras.push_back(camera);
        } else if (known->usability != Usability::Usable && camera.usability == Usability::Usable) {
            *known = camera;
        }
    }
    return cameras;
}

bool HasRoomForCameras(const Platform::NetworkInterface& interface) {
    return std::any_of(interface.addresses.begin(), interface.addresses.end(),
                       [](const auto& address) { return address.prefixLength <= Platform::LongestPrefix; });
}

std::string CureForUnusable(const std::vector<HeardCamera>& cameras) {
    // A silent camera may need an address or not, and one on an interface whose mask has room for none needs a mask:
    // the doctor looks closer.
    const auto isCuredByAutoIp = [](const HeardCamera& camera) {
        return Platform::NeedsAddress(camera.usability) && camera.usability != Usability::NoAnswer &&
               (camera.interface == nullptr || HasRoomForCameras(camera.interface->interface));
    };
    const auto isUnusable = [](const HeardCamera& camera) { return camera.usability != Usability::Usable; };
    const auto unusable = std::count_if(cameras.begin(), cameras.end(), isUnusable);
    const auto cured = std::count_if(cameras.begin(), cameras.end(), isCuredByAutoIp);
    std::string text;
    if (cured != 0) {
        text = std::string("`nimbrel auto-ip` gives ") +
               (cured == 1 ? "that camera an address" : "such cameras addresses") + " of the right subnet.\n";
    }
    if (unusable > cured) {
        text += "`nimbrel doctor` explains " + std::string(cured == 0 ? "why" : "the others") + ".\n";
    }
    return text;
}

}  // namespace Nimbrel2::Tool
