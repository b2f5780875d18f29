// SPDX-License-Identifier: Apache-2.0
// Whether a GigE camera that was heard can be used from this computer, and why not. Pure but for the reading.
#ifndef NIMBREL2_TOOLS_NIMBREL_GIGEUSABILITY_H
#define NIMBREL2_TOOLS_NIMBREL_GIGEUSABILITY_H

#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/GigECameras.h"

namespace Nimbrel2::Tool {

enum class Usability {
    Usable,
    WrongSubnet,   ///< Its address is on no subnet of an interface that hears it.
    AddressTaken,  ///< Another camera answers at its address.
    Silent,        ///< It answers broadcasts, and nothing at its address.
};

/// "usable", "wrong-subnet", "address-taken" or "silent": the word in JSON.
std::string FormatUsability(Usability usability);

/// One camera, at the interface where it can be used best.
struct HeardCamera {
    GigECamera camera;
    Usability usability = Usability::Usable;
    const Platform::InterfaceDiagnosis* interface = nullptr;  ///< Of the diagnosis; null when it is gone.

    /// "wrong subnet: eth1 is on 192.168.77.0/24"
    std::string Explain() const;
};

/// Every camera that was heard, each once, in the order of the diagnosis. Points into it.
std::vector<HeardCamera> FindHeardCameras(const Platform::GigEDiagnosis& diagnosis);

/// What to do about cameras that were heard and cannot be used; empty when all can.
std::string CureForUnusable(const std::vector<HeardCamera>& cameras);

}  // namespace Nimbrel2::Tool

#endif
