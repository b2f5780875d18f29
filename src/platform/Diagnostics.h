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
#include "platform/Platform.h"

namespace Nimbrel2::Platform {

// ---- GigE ----------------------------------------------------------------------------------------------------------

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
            if (!candidate.Contains(ip)) {
                continue;
            }
            const bool better =
                best == nullptr || candidate.prefixLength > best->prefixLength ||
                (candidate.prefixLength == best->prefixLength && best->secondary && !candidate.secondary);
            if (better) {
                best = &candidate;
            }
        }
        return best;
    }
};

/// Whether this computer can use a GigE camera, or the first reason why not. Listings, discoveries, automatic addresses
/// and whoever looks for a cure all go by this one answer.
enum class GigEUsability : std::uint8_t {
    Usable,
    NoAddress,         ///< its address is 0.0.0.0
    InvalidAddress,    ///< its address is none that one host can have: a network's, a broadcast, a group, loopback
    OtherSubnet,       ///< its address is in no subnet of the interface that hears it, and no route leads there
    OutsideItsSubnet,  ///< its subnet mask leaves this computer out, and it has no gateway: it knows no way back
    AddressTaken,      ///< another camera, or this computer, has its address
    NoAnswer,          ///< it does not answer at its address
    NoRegisters,       ///< it answers at its address, but its registers do not
};

/// Completes "the camera cannot be used: ", and is empty for one that can.
constexpr const char* DescribeUsability(GigEUsability usability) {
    switch (usability) {
        case GigEUsability::Usable:
            return "";
        case GigEUsability::NoAddress:
            return "it has no address";
        case GigEUsability::InvalidAddress:
            return "its address is not one that a host can have";
        case GigEUsability::OtherSubnet:
            return "its address is in another subnet";
        case GigEUsability::OutsideItsSubnet:
            return "its subnet mask leaves this computer out, and it has no gateway";
        case GigEUsability::AddressTaken:
            return "another device has its address";
        case GigEUsability::NoAnswer:
            return "it does not answer at its address";
        case GigEUsability::NoRegisters:
            return "its registers do not answer";
    }
    return "";
}

/// Whether another address would cure it.
constexpr bool NeedsAddress(GigEUsability usability) {
    return usability != GigEUsability::Usable && usability != GigEUsability::NoRegisters;
}

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
    /// Whoever holds the camera. 0: the camera does not say, or was not asked, or status says why it is not known.
    std::uint32_t ownerIp = 0;
    std::uint16_t ownerPort = 0;
    /// HALStatus: what kept the camera from saying its state or, of one that is held, by whom. Else HAL_OK.
    std::uint32_t status = HAL_OK;
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
    unsigned int heard = 0;           ///< cameras that have answered here lately

    int GetRpFilter() const { return rpFilterOfAll > rpFilterOfIt ? rpFilterOfAll : rpFilterOfIt; }
};

/// A camera as one interface has heard it. One that two interfaces hear is there twice.
struct CameraDiagnosis {
    GvcpDiscoveryRecord record{};
    int interface = 0;  ///< NetworkInterface::index
    GigEUsability usability = GigEUsability::NoAnswer;
    bool reachable = false;     ///< its address is one that can be talked to through that interface
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

// ---- Searches ------------------------------------------------------------------------------------------------------

/// A network interface that should have been searched and was not.
struct GigESearchProblem {
    enum class Kind : std::uint8_t {
        Interfaces,   ///< the kernel does not tell its network interfaces: none was searched
        Socket,       ///< no socket could be had
        SourcePorts,  ///< Options::sourcePorts has too few ports
        Broadcast,    ///< the request for all cameras was refused
        Request,      ///< requests for single cameras have been refused for a second, and those have left
    };

    int interface = 0;          ///< NetworkInterface::index; 0 for all
    std::string interfaceName;  ///< empty for all
    Kind kind = Kind::Socket;
    int error = 0;        ///< errno
    std::string reason;   ///< for people, without the name: "no socket: Too many open files"
    bool inPart = false;  ///< it was searched all the same, and some cameras on it may be missing
};

/// A network interface in use whose reverse path filter drops the answers of cameras on other subnets.
struct FilteredInterface {
    int interface = 0;
    std::string interfaceName;
    int rpFilter = 0;        ///< in force: 1 strict, 2 loose
    unsigned int heard = 0;  ///< cameras that have answered here lately, whatever their subnet
};

/// What a search did not see, as far as that can be known.
struct GigESearchReport {
    std::vector<GigESearchProblem> problems;
    std::vector<FilteredInterface> filtered;
    /// Packets that the reverse path filters of this computer have dropped since the search began: since
    /// HAL_InitLibrary for listings.
    std::uint64_t filteredPackets = 0;

    /// Whether it is worth a word that the interface may hide cameras.
    bool MayHideCameras(const FilteredInterface& interface) const {
        return interface.heard == 0 || filteredPackets > 0;
    }
};

/// The cameras that answered a discovery, and what it did not see.
struct GigEDiscovery {
    /// Those that answered, in the order of MAC and address; each once. Control and packet sizes are not asked for.
    std::vector<CameraDiagnosis> cameras;
    GigESearchReport report;
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
    bool reachable = false;        ///< its address is one that can be talked to through that interface
    bool onWire = false;           ///< its answer was seen to arrive: this computer has dropped it
    bool answersDirectly = false;  ///< it answers a request that goes to its own address
};

struct GigEHearing {
    std::vector<InterfaceHearing> interfaces;  ///< those that are used
    std::vector<MutedCamera> muted;
};

// ---- Addresses -----------------------------------------------------------------------------------------------------

/// What automatic addressing would do to one camera, and why.
struct AddressPlan {
    GvcpDiscoveryRecord record{};  ///< the camera with the address that it has
    int interface = 0;             ///< the one that has heard it, NetworkInterface::index
    std::string interfaceName;
    InterfaceAddress interfaceAddress;  ///< this computer's on that wire; all zero (but the length 32) when it has none
    GigEUsability usability = GigEUsability::NoAnswer;  ///< why it needs another address, if it does
    bool alreadyRight = false;                          ///< no other address would help it: it is left alone
    std::uint32_t newIp = 0;                            ///< 0 when none could be found, or none is needed
    std::uint32_t newMask = 0;                          ///< the new gateway is always none
    /// Why a camera that needs an address cannot be given one: HAL_UNREACHABLE (the interface has no address itself),
    /// HAL_NOT_SUPPORTED (the camera has no MAC to be addressed by), HAL_FAILED (no address of the subnet is free), or
    /// what kept the driver from asking whose the addresses are. HAL_OK otherwise.
    /// After ApplyGigEAddresses also what became of it: HAL_NO_ACKNOWLEDGE, or why it could not be sent.
    std::uint32_t status = HAL_OK;
};

/// An IPv4 configuration for one camera.
struct GigEAddress {
    std::uint64_t mac = 0;  ///< of the camera; octet 0 in bits 47 to 40
    std::uint32_t ip = 0;
    std::uint32_t mask = 0;
    std::uint32_t gateway = 0;  ///< 0 for none
};

/// What became of giving a camera an address.
struct ForceIpResult {
    bool acknowledged = false;
    /// That very camera, asked at that very address, has answered.
    bool verified = false;
    /// Nobody at that address can be asked: it is in no subnet of this computer, and no route leads there. Never true
    /// of a verified one.
    bool outOfReach = false;
    GvcpDiscoveryRecord record{};  ///< of a verified one: what it answered
};

/// Who has an address now.
struct AddressHolder {
    enum class Kind : std::uint8_t {
        Nobody,        ///< nobody answers for it
        ThisComputer,  ///< on that interface
        Camera,        ///< one that answers discoveries; its MAC is that of its answer
        Host,          ///< somebody answers ARP for it, and no discovery
        Unknown,       ///< it is in no subnet of this computer, and this user may not ask on the wire
    };

    Kind kind = Kind::Nobody;
    std::uint64_t mac = 0;
    int interface = 0;  ///< the one that it is on, NetworkInterface::index
    std::string interfaceName;
};

// ---- USB -----------------------------------------------------------------------------------------------------------

/// One port of a hub. What the kernel does not say of it keeps its default.
struct UsbPortDiagnosis {
    std::uint8_t number = 0;
    std::string connectType;         ///< "hotplug", "hardwired", "not used", "unknown"
    std::string device;              ///< UsbDeviceDiagnosis::name of what is plugged in
    std::string peerHub;             ///< name of the hub that has the same socket in the other half of the controller
    std::uint8_t peerPort = 0;       ///< its number there
    std::uint32_t overCurrents = 0;  ///< how often the port was switched off because too much was drawn from it
};

/// Who has taken an interface of a device.
struct UsbClaim {
    std::uint8_t interface = 0;
    bool isControl = false;     ///< it is the one by which the camera's registers are reached
    std::string driver;         ///< of the kernel; "usbfs" stands for a program
    std::uint32_t process = 0;  ///< that program; 0 when this user may not see it
    std::string command;        ///< its name
};

/// One device as the kernel describes it. The two halves of a USB 3 hub are two devices.
struct UsbDeviceDiagnosis {
    std::string name;            ///< the kernel's: "usb2" is the root hub of bus 2, "2-1.3" is on port 3 of "2-1"
    std::string hub;             ///< name of the hub above; empty for a root hub
    std::uint8_t port = 0;       ///< on that hub; 0 for a root hub
    std::string controller;      ///< "0000:00:14.0"
    std::uint64_t hostKey = 0;   ///< tells controllers apart, as HAL_UsbGetSelfIds does
    std::uint32_t deviceId = 0;  ///< as in UsbSelfId; 63, the host's, for a root hub
    std::uint32_t bus = 0;
    std::uint32_t number = 0;      ///< on its bus: bus << 8 | number is what HAL_UsbGetConfigInfo tells
    std::uint16_t usbVersion = 0;  ///< bcdUSB
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::string vendor;  ///< the three texts are empty when the device has none; a camera's are those of its listing
    std::string model;
    std::string serial;

    // Mbit/s; 0 when nobody knows.
    std::uint32_t speed = 0;        ///< of the link now
    std::uint32_t deviceSpeed = 0;  ///< the most that the device can do
    std::uint32_t portSpeed = 0;    ///< the most that its port can do, by this hub or by its other half

    bool isHub = false;
    std::vector<UsbPortDiagnosis> ports;  ///< of a hub, in the order of their numbers

    bool isCamera = false;
    bool isVision = false;           ///< a camera by the USB3 Vision class; else one that Options::usbCameraIds names
    bool isListed = false;           ///< a camera that listings show: it is authorized and configured
    std::uint32_t serialNumber = 0;  ///< of a camera
    bool isAuthorized = true;
    std::uint32_t configuration = 0;  ///< 0 for none

    std::string powerControl;        ///< "auto": the kernel may suspend it; "on": it may not
    std::string runtimeStatus;       ///< "active", "suspended", ...
    std::int32_t suspendDelay = -1;  ///< after so many ms without use; never when negative

    std::string node;              ///< "/dev/bus/usb/002/027"
    int nodeError = 0;             ///< errno that this user gets who wants to send it requests; 0: may do so
    std::vector<UsbClaim> claims;  ///< of a camera
};

struct UsbDiagnosis {
    int error = 0;               ///< errno of the last look at the buses
    bool hearsUevents = true;    ///< of plugging in and out; else the driver looks every two seconds
    int ueventError = 0;         ///< errno of the socket; 0: the kernel does not send them into this namespace
    bool isUdevRunning = false;  ///< it gives device nodes to users
    std::optional<std::uint32_t> memoryLimit;  ///< MB for all transfers of programs together (usbfs); 0: none
    std::vector<UsbDeviceDiagnosis> devices;   ///< by controller; of each the buses, and each device after its hub
};

// ---- Questions -----------------------------------------------------------------------------------------------------

/// Whether a bus is searched. A bus that is not lists nothing and raises nothing, which to the bus master is the same
/// as one without cameras.
/// @return HAL_OK: it is. HAL_NO_BUS: Options leave it out. HAL_NOT_SUPPORTED: this build has no driver for it.
///         Anything else: what kept its driver from starting. HAL_INVALID_ARGUMENT: no such bus.
/// @par Threads  Any. No I/O.
NIMBREL2_API std::uint32_t GetBusSupport(HALInterfaceType bus);

/// What is known of network interfaces and of the cameras on them, those that no listing shows included.
/// @param askControl  Asks all listed cameras at once, too, who controls them and how large their packets are. Those
///                    that do not answer are waited for half a second, once.
/// @param diagnosis   Overwritten. What the last discoveries have heard: sends none itself.
/// @return HAL_OK; HAL_NO_BUS when nobody drives the bus.
/// @par Threads  Any, but an event callback. Without askControl no network I/O: some questions to the kernel.
NIMBREL2_API std::uint32_t DiagnoseGigE(bool askControl, GigEDiagnosis* diagnosis);

/// Where the searches that listings go by do not search, and what may be hidden from them: for messages after a
/// listing.
/// @param report  Overwritten.
/// @return HAL_OK; HAL_NO_BUS when nobody drives the bus.
/// @par Threads  Any, but an event callback. No network I/O: some questions to the kernel.
NIMBREL2_API std::uint32_t GetGigESearchReport(GigESearchReport* report);

/// Looks for cameras as HAL_GvcpDiscovery does, and says of each whether it can be used, and where it did not look.
/// @param until      Ends as soon as this camera has answered. Nothing: listens for the whole window. A camera that is
///                   named by an address is also asked there directly, for such an answer need not be waited for.
/// @param discovery  Overwritten. With until, the cameras that have answered by then.
/// @return As HAL_GvcpDiscovery; HAL_OK too when the camera has not answered.
/// @par Threads  Any, but an event callback. Takes one discovery window (Options::discoveryWindow) at most, and 0.6 s
///               more while cameras do not answer at their addresses.
NIMBREL2_API std::uint32_t DiscoverGigE(const std::optional<GigECameraName>& until, GigEDiscovery* discovery);

/// Looks for cameras whose answers to broadcasts are filtered on their way in: sends broadcasts from sockets of its
/// own, watches the wire where this user may, and then asks those hosts on it directly that this computer has just had
/// to do with. A camera asks for this computer's hardware address before it answers, so it is among them even when a
/// firewall takes the answer itself; a firewall that pairs answers with requests lets the direct one through.
/// @param hearing  Overwritten.
/// @return HAL_OK, whatever is heard; HAL_NO_BUS when nobody drives the bus.
/// @par Threads  Any, but an event callback. Takes one discovery window, and 0.6 s more where there are hosts to ask.
NIMBREL2_API std::uint32_t FindMutedGigECameras(GigEHearing* hearing);

/// What HAL_GvcpForceIpAuto would do, or HAL_GvcpAutoForceIpToCamera for one camera. Changes nothing. Cameras may come
/// and go and the addresses may be taken before anybody gives them: a plan is no promise.
/// @param serialNumber  Of the one camera; nothing for all of them. Two cameras may have it: two plans, then.
/// @param plans         Overwritten: one a camera that answers a discovery, in the order of their MACs.
/// @return HAL_OK, however many plans fail; HAL_NO_BUS or the reason when no network interface can be used; HAL_GONE
///         when no camera has that serial number.
/// @par Threads  Any, but an event callback. Takes as long as DiscoverGigE, and where a camera needs an address 0.2 s
///               more; on a wire where most addresses are taken that again and again, 32 times at most.
NIMBREL2_API std::uint32_t PlanGigEAddresses(std::optional<std::uint32_t> serialNumber,
                                             std::vector<AddressPlan>* plans);

/// Gives cameras exactly the addresses that these plans name, on the interfaces that they name, all at once. Plans
/// without a new address, and those whose status is not HAL_OK, are left alone.
/// @param plans  Each status says what became of it.
/// @return HAL_OK, or the first status of a plan that is not.
/// @par Threads  Any, but an event callback. Takes 0.9 s at most for those that do not acknowledge, and up to 2 s until
///               the others answer at their addresses.
NIMBREL2_API std::uint32_t ApplyGigEAddresses(std::vector<AddressPlan>* plans);

/// Gives one camera an address as HAL_GvcpForceIp does, and looks whether it has it.
/// @param result  Overwritten; also filled when nobody acknowledged, for it may be the acknowledge that got lost.
/// @return As HAL_GvcpForceIp. HAL_OK alone says that it was acknowledged, not that it was verified.
/// @par Threads  Any, but an event callback. Up to 0.9 s without an acknowledge, and up to 2 s until it answers.
NIMBREL2_API std::uint32_t ForceGigEAddress(const GigEAddress& address, ForceIpResult* result);

/// Finds out who has an address: this computer, a camera, or another host, which is asked by ARP. Where this user may
/// see packets it is asked with an ARP request that names no sender (RFC 5227), else by the kernel, which only asks for
/// addresses in this computer's own subnets and may still remember a host that has left.
/// @param holder  Overwritten.
/// @return HAL_OK, whoever has it; HAL_NO_BUS or the reason when no network interface can be used.
/// @par Threads  Any, but an event callback. Some 0.2 s where a host must be asked.
NIMBREL2_API std::uint32_t FindGigEAddressHolder(std::uint32_t ip, AddressHolder* holder);

/// What is known of USB controllers, hubs and devices, those that no listing shows included. Opens no device and asks
/// none, and raises nothing.
/// @param diagnosis  Overwritten.
/// @return HAL_OK, with what could not be read in it; HAL_NO_BUS when nobody drives the bus.
/// @par Threads  Any, but an event callback. Reads sysfs: milliseconds.
NIMBREL2_API std::uint32_t DiagnoseUsb(UsbDiagnosis* diagnosis);

}  // namespace Nimbrel2::Platform

#endif
