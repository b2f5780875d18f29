// SPDX-License-Identifier: Apache-2.0
// What the driver of a bus knows beyond what a listing shows, for people who look for a camera: plain values, and the
// functions that fetch them. An application that only lists and uses cameras needs none of it.
//
// All values are the caller's own. Addresses, masks and gateways have their first octet in the most significant byte; a
// MAC is as in GvcpDiscoveryRecord. Results are HALStatus values; HAL_CLOSED when the HAL is not running.
#ifndef NIMBREL2_PLATFORM_DIAGNOSTICS_H
#define NIMBREL2_PLATFORM_DIAGNOSTICS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"

namespace Nimbrel2::Platform {

/// An IPv4 address of this computer, with the subnet that it is in.
struct InterfaceAddress {
    std::uint32_t address = 0;
    std::uint8_t prefixLength = 32;
    bool secondary = false;  ///< the kernel sends from the primary address of a subnet

    std::uint32_t GetMask() const { return prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - prefixLength); }
    bool Contains(std::uint32_t ip) const { return ((ip ^ address) & GetMask()) == 0; }
    bool operator==(const InterfaceAddress& other) const {
        return address == other.address && prefixLength == other.prefixLength && secondary == other.secondary;
    }
};

/// A network interface as the kernel describes it.
struct NetworkInterface {
    int index = 0;
    std::string name;
    bool up = false;       ///< switched on
    bool running = false;  ///< with a link
    bool loopback = false;
    bool pointToPoint = false;
    bool broadcast = false;
    std::uint32_t mtu = 0;  ///< octets
    std::string portOf;     ///< what kind of device it is a port of ("bridge", "bond", ...), empty for none
    std::vector<InterfaceAddress> addresses;

    /// The address of the most specific subnet that holds ip, null when none does.
    const InterfaceAddress* FindSubnet(std::uint32_t ip) const {
        const InterfaceAddress* best = nullptr;
        for (const InterfaceAddress& candidate : addresses) {
            if (!candidate.Contains(ip)) continue;
            const bool better =
                best == nullptr || candidate.prefixLength > best->prefixLength ||
                (candidate.prefixLength == best->prefixLength && best->secondary && !candidate.secondary);
            if (better) best = &candidate;
        }
        return best;
    }
};

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
    std::uint32_t linkSpeed = 0;      ///< Mbit/s; 0 when that is not known
    std::uint32_t receiveBuffer = 0;  ///< octets that the socket holds; 0 when that is not known
    std::uint32_t receiveDrops = 0;   ///< datagrams that it could not hold

    int GetRpFilter() const { return rpFilterOfAll > rpFilterOfIt ? rpFilterOfAll : rpFilterOfIt; }
};

/// A camera as one interface has heard it. One that two interfaces hear is there twice.
struct CameraDiagnosis {
    GvcpDiscoveryRecord record{};
    int interface = 0;          ///< NetworkInterface::index
    bool reachable = false;     ///< its address is one of that interface's wire
    bool present = false;       ///< it answers at its address
    bool listed = false;        ///< it is listed, by this interface
    bool addressTaken = false;  ///< another camera answers at its address
    ControlInfo control;        ///< of listed ones, when asked for
    /// Octets of an image packet, IP header included, as the camera's first stream is set; 0 when the camera was not
    /// asked or did not say. Of listed ones, when control is asked for.
    std::uint32_t packetSize = 0;
};

struct GigEDiagnosis {
    int error = 0;  ///< errno of the last look at the interfaces
    /// The interface by which this computer would answer an address that is on none of its wires; 0 when it knows no
    /// way. What the reverse path filter makes of a camera on a foreign subnet depends on it.
    int defaultRoute = 0;
    std::vector<InterfaceDiagnosis> interfaces;
    std::vector<CameraDiagnosis> cameras;
};

/// How well one interface hears.
struct InterfaceHearing {
    int interface = 0;            ///< NetworkInterface::index
    int error = 0;                ///< errno of the sockets that were opened for this, or of the broadcast
    bool seesWire = false;        ///< what arrives could be seen before any filter, which takes CAP_NET_RAW
    unsigned int heard = 0;       ///< cameras whose answers to a broadcast came through
    unsigned int neighbours = 0;  ///< hosts on the wire that were asked directly whether they are cameras
};

/// A camera whose answer to a broadcast does not come through to this computer's sockets.
struct MutedCamera {
    GvcpDiscoveryRecord record{};
    int interface = 0;             ///< the one that it is on, NetworkInterface::index
    bool reachable = false;        ///< its address is one of that interface's wire
    bool onWire = false;           ///< its answer was seen to arrive: this computer has dropped it
    bool answersDirectly = false;  ///< it answers a request that goes to its own address
};

struct GigEHearing {
    std::vector<InterfaceHearing> interfaces;  ///< those that are used
    std::vector<MutedCamera> muted;
};

/// What automatic addressing would do to one camera, and why.
struct AddressPlan {
    GvcpDiscoveryRecord record{};  ///< the camera with the address that it has
    int interface = 0;             ///< the one that has heard it, NetworkInterface::index
    std::string interfaceName;
    InterfaceAddress interfaceAddress;  ///< this computer's on that wire; all zero (but the length 32) when it has none
    bool alreadyRight = false;          ///< its address is one of that wire: it is left alone
    std::uint32_t newIp = 0;            ///< 0 when none could be found, or none is needed
    std::uint32_t newMask = 0;          ///< the new gateway is always none
    /// Why a camera that needs an address cannot be given one: HAL_UNREACHABLE (the interface has no address itself),
    /// HAL_NOT_SUPPORTED (the camera has no MAC to be addressed by), HAL_FAILED (no address of the subnet is free), or
    /// what kept the driver from asking whose the addresses are. HAL_OK otherwise.
    std::uint32_t status = HAL_OK;
};

/// Whether a bus is searched. A bus that is not lists nothing and raises nothing, which to the bus master is the same
/// as one without cameras.
/// @return HAL_OK: it is. HAL_NO_BUS: Options leave it out. HAL_NOT_SUPPORTED: this build has no driver for it.
///         Anything else: what kept its driver from starting. HAL_INVALID_ARGUMENT: no such bus.
/// @par Threads  Any. No I/O.
NIMBREL2_API std::uint32_t GetBusSupport(HALInterfaceType bus);

/// What is known of network interfaces and of the cameras on them, those that no listing shows included.
/// @param askControl  Asks each listed camera too who controls it and how large its packets are: four register reads
///                    each, one camera after another. One that does not answer takes its time-out of 0.6 s.
/// @param diagnosis   Overwritten. What the last discoveries have heard: sends none itself.
/// @return HAL_OK; HAL_NO_BUS when nobody drives the bus.
/// @par Threads  Any, but an event callback. Without askControl no network I/O: some questions to the kernel.
NIMBREL2_API std::uint32_t DiagnoseGigE(bool askControl, GigEDiagnosis* diagnosis);

/// Looks for cameras whose answers to broadcasts are filtered on their way in: sends broadcasts from sockets of its
/// own, watches the wire where this user may, and then asks those hosts on it directly that this computer has just had
/// to do with. A camera asks for this computer's hardware address before it answers, so it is among them even when a
/// firewall takes the answer itself; a firewall that pairs answers with requests lets the direct one through.
/// @param hearing  Overwritten.
/// @return HAL_OK, whatever is heard; HAL_NO_BUS when nobody drives the bus.
/// @par Threads  Any, but an event callback. Takes one discovery window, and 0.6 s more where there are hosts to ask.
NIMBREL2_API std::uint32_t TestGigEHearing(GigEHearing* hearing);

/// What HAL_GvcpForceIpAuto would do, or HAL_GvcpAutoForceIpToCamera for one camera. Changes nothing. Cameras may come
/// and go and the addresses may be taken before anybody gives them: a plan is no promise.
/// @param serialNumber  Of the one camera; nothing for all of them.
/// @param plans         Overwritten: one a camera that answers a discovery, in the order of their MACs.
/// @return HAL_OK, however many plans fail; HAL_NO_BUS or the reason when no network interface can be used; HAL_GONE
///         when no camera has that serial number.
/// @par Threads  Any, but an event callback. Takes one discovery window (Options::discoveryWindow), and some 0.3 s more
///               where a camera needs an address.
NIMBREL2_API std::uint32_t PlanGigEAddresses(std::optional<std::uint32_t> serialNumber,
                                             std::vector<AddressPlan>* plans);

}  // namespace Nimbrel2::Platform

#endif
