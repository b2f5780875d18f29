// SPDX-License-Identifier: Apache-2.0
// What the GigE driver knows about interfaces and cameras, for people who look for a camera that does not show.
// Plain values.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_GIGEDIAGNOSIS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_GIGEDIAGNOSIS_H

#include <cstdint>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/linux/gige/NetworkInterface.h"

namespace Nimbrel2::Platform::GigE {

/// Who may control a camera now.
enum class ControlState : std::uint8_t {
    Free,
    Ours,        ///< this application holds it
    Controlled,  ///< another application holds it; registers can be read
    Exclusive,   ///< another application holds it alone
    Unknown,     ///< the camera was not asked, or did not say
};

struct ControlInfo {
    ControlState state = ControlState::Unknown;
    std::uint32_t ownerIp = 0;  ///< 0 when the camera does not say
    std::uint16_t ownerPort = 0;
};

struct InterfaceDiagnosis {
    NetworkInterface interface;
    bool used = false;
    std::string reason;  ///< why it is not used
    int error = 0;       ///< errno of the socket, when it was refused
    int sendError = 0;   ///< errno of the last broadcast
    std::uint16_t localPort = 0;
    int rpFilterOfAll = 0;  ///< the reverse path filter in force is the larger of the two: 0 off, 1 strict, 2 loose
    int rpFilterOfIt = 0;
    std::uint32_t receiveBuffer = 0;  ///< octets that the socket holds
    std::uint32_t receiveDrops = 0;   ///< datagrams that it could not hold

    int GetRpFilter() const { return rpFilterOfAll > rpFilterOfIt ? rpFilterOfAll : rpFilterOfIt; }
};

/// A camera as one interface has heard it.
struct CameraDiagnosis {
    GvcpDiscoveryRecord record{};
    int interface = 0;
    bool reachable = false;     ///< its address is one of that interface's wire
    bool present = false;       ///< it answers at its address
    bool listed = false;        ///< it is listed, by this interface
    bool addressTaken = false;  ///< another camera answers at its address
    ControlInfo control;        ///< of listed ones, when asked for
};

struct GigEDiagnosis {
    int error = 0;  ///< errno of the last look at the interfaces
    std::vector<InterfaceDiagnosis> interfaces;
    std::vector<CameraDiagnosis> cameras;
};

/// What automatic addressing does, or would do, to one camera.
struct AddressPlan {
    GvcpDiscoveryRecord record{};
    int interface = 0;
    std::string interfaceName;
    bool alreadyRight = false;
    std::uint32_t newIp = 0;  ///< 0 when none could be found, or none is needed
    std::uint32_t newMask = 0;
    std::uint32_t status = HAL_OK;  ///< why there is no new address, or what FORCEIP came to
};

}  // namespace Nimbrel2::Platform::GigE

#endif
