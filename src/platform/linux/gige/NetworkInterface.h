// SPDX-License-Identifier: Apache-2.0
// A network interface as the kernel describes it, and which of them GigE uses.
// Values and pure functions; any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_NETWORKINTERFACE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_NETWORKINTERFACE_H

#include <cstdint>
#include <string>
#include <vector>

namespace Nimbrel2::Platform::GigE {

/// Addresses have their first octet in the most significant byte.
struct InterfaceAddress {
    std::uint32_t address = 0;
    std::uint8_t prefixLength = 32;
    bool secondary = false;  ///< the kernel sends from the primary address of a subnet

    std::uint32_t GetMask() const { return prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - prefixLength); }
    bool Contains(std::uint32_t ip) const { return ((ip ^ address) & GetMask()) == 0; }
    bool operator==(const InterfaceAddress&) const = default;
};

struct NetworkInterface {
    int index = 0;
    std::string name;
    bool up = false;       ///< switched on
    bool running = false;  ///< with a link
    bool loopback = false;
    bool pointToPoint = false;
    bool broadcast = false;
    std::uint32_t mtu = 0;
    std::string portOf;  ///< what kind of device it is a port of ("bridge", "bond", ...), empty for none
    std::vector<InterfaceAddress> addresses;

    /// The address of the most specific subnet that holds ip, null when none does.
    const InterfaceAddress* FindSubnet(std::uint32_t ip) const;

    bool operator==(const NetworkInterface&) const = default;
};

/// Why cameras are not looked for on an interface; empty when they are.
/// @param wanted  The names that the user has limited GigE to; empty for no limit.
std::string ReasonNotUsed(const NetworkInterface& interface, const std::vector<std::string>& wanted);

/// Whether the interface could be used if only it were up: it keeps its socket, and so its local port, meanwhile.
bool IsEligible(const NetworkInterface& interface, const std::vector<std::string>& wanted);

}  // namespace Nimbrel2::Platform::GigE

#endif
