// SPDX-License-Identifier: Apache-2.0
// Which network interface has an IPv4 address, and giving one to an interface or taking it away, in the network
// namespace of the caller. Any thread, no lock; each call is a few system calls and blocks for no network.
#ifndef NIMBREL2_PLATFORM_SIMULATED_INTERFACEADDRESSES_H
#define NIMBREL2_PLATFORM_SIMULATED_INTERFACEADDRESSES_H

#include <cstdint>
#include <string>

namespace Nimbrel2::Platform::Simulated {

/// The interface that has the address; the loopback interface has all of 127.0.0.0/8. Empty: none.
std::string FindInterfaceOf(std::uint32_t address);

/// @return 0 or an errno: EPERM without CAP_NET_ADMIN, EEXIST when the interface has the address.
int AddInterfaceAddress(const std::string& interfaceName, std::uint32_t address, std::uint32_t subnetMask);

/// Takes the address away without taking other addresses of its subnet along.
/// @return 0 or an errno; then nothing was changed.
int RemoveInterfaceAddress(const std::string& interfaceName, std::uint32_t address, std::uint32_t subnetMask);

}  // namespace Nimbrel2::Platform::Simulated

#endif
