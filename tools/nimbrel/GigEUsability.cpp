// SPDX-License-Identifier: Apache-2.0
// Judges GigE cameras by what the driver knows of them. Pure.
#include "tools/nimbrel/GigEUsability.h"

#include <algorithm>

#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

Usability Judge(const Platform::CameraDiagnosis& heard) {
    if (!heard.reachable) return Usability::WrongSubnet;
    if (heard.addressTaken) return Usability::AddressTaken;
    return heard.present ? Usability::Usable : Usability::Silent;
}

const Platform::InterfaceDiagnosis* FindInterface(const Platform::GigEDiagnosis& diagnosis, int index) {
    for (const auto& interface : diagnosis.interfaces) {
        if (interface.interface.index == index) return &interface;
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
        case Usability::WrongSubnet:
            return "wrong-subnet";
        case Usability::AddressTaken:
            return "address-taken";
        case Usability::Silent:
            break;
    }
    return "silent";
}

std::string HeardCamera::Explain() const {
    switch (usability) {
        case Usability::Usable:
            return "usable";
        case Usability::WrongSubnet:
            return "wrong subnet" + (interface == nullptr ? "" : ": " + DescribeSubnets(*interface));
        case Usability::AddressTaken:
            return "another camera has its address";
        case Usability::Silent:
            break;
    }
    return "does not answer at its address";
}

std::vector<HeardCamera> FindHeardCameras(const Platform::GigEDiagnosis& diagnosis) {
    std::vector<HeardCamera> cameras;
    for (const Platform::CameraDiagnosis& heard : diagnosis.cameras) {
        HeardCamera camera{FromRecord(heard.record), Judge(heard), FindInterface(diagnosis, heard.interface)};
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

std::string CureForUnusable(const std::vector<HeardCamera>& cameras) {
    const auto count = [&cameras](Usability usability) {
        return static_cast<std::size_t>(
            std::count_if(cameras.begin(), cameras.end(),
                          [usability](const HeardCamera& camera) { return camera.usability == usability; }));
    };
    const std::size_t foreign = count(Usability::WrongSubnet);
    const std::size_t others = count(Usability::AddressTaken) + count(Usability::Silent);
    std::string text;
    if (foreign != 0) {
        text = "`nimbrel auto-ip` gives " +
               (foreign == 1 ? std::string("the camera on a wrong subnet an address")
                             : "cameras on a wrong subnet addresses") +
               " of the right one.\n";
    }
    if (others != 0) text += "`nimbrel doctor` explains " + std::string(foreign == 0 ? "why" : "the others") + ".\n";
    return text;
}

}  // namespace Nimbrel2::Tool
