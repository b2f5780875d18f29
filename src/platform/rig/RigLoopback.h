// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_PLATFORM_RIG_RIGLOOPBACK_H
#define NIMBREL2_PLATFORM_RIG_RIGLOOPBACK_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/rig/Rig.h"
#include "platform/simulated/SimulatedGigENetwork.h"

namespace Nimbrel2::Platform {

/// A rig's GigE camera on this computer's loopback interface.
struct LoopbackCamera {
    std::string name;
    Simulated::SimulatedCameraOptions options;  ///< with the loopback address
    Simulated::SimulatedGigENetwork::CameraId id = 0;
};

/// Puts the GigE cameras of a rig that are plugged in on UDP sockets, one loopback address each from the first on, so
/// that the real GigE driver reaches them there. Texts, MAC, control and faults are the rig's; the address cannot be.
/// @param firstAddress  Below 127.0.0.0/8, first octet in the most significant byte.
/// @return an empty text, or which camera could not be put there and why; those before it stay.
std::string PutOnLoopback(const RigDescription& rig, std::uint32_t firstAddress,
                          Simulated::SimulatedGigENetwork* network, std::vector<LoopbackCamera>* cameras);

}  // namespace Nimbrel2::Platform

#endif
