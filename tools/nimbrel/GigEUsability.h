// SPDX-License-Identifier: Apache-2.0
// GigE cameras that were heard, and whether the driver says that they can be used. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_GIGEUSABILITY_H
#define NIMBREL2_TOOLS_NIMBREL_GIGEUSABILITY_H

#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/GigECameras.h"

namespace Nimbrel2::Tool {

using Usability = Platform::GigEUsability;

/// "usable", "no-address", "wrong-subnet", ...: the word in JSON.
std::string FormatUsability(Usability usability);

/// One camera, at the interface where it can be used best.
struct HeardCamera {
    GigECamera camera;
    Usability usability = Usability::Usable;
    const Platform::InterfaceDiagnosis* interface = nullptr;  ///< Of the diagnosis; null when it is gone.
    bool isListed = false;

    /// "wrong subnet: eth1 is on 192.168.77.0/24"
    std::string Explain() const;
};

/// Every camera that was heard, each once, in the order of the diagnosis. Points into it.
std::vector<HeardCamera> FindHeardCameras(const Platform::GigEDiagnosis& diagnosis);

/// Whether one of its subnets has addresses for cameras; not when its masks leave none.
bool HasRoomForCameras(const Platform::NetworkInterface& interface);

/// What to do about cameras that were heard and cannot be used; empty when all can.
std::string CureForUnusable(const std::vector<HeardCamera>& cameras);

}  // namespace Nimbrel2::Tool

#endif
