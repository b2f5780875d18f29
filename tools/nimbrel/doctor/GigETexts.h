// SPDX-License-Identifier: Apache-2.0
// Names, numbers and commands in the findings on GigE. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_GIGETEXTS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_GIGETEXTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"

namespace Nimbrel2::Tool::Doctor {

std::string IpText(std::uint32_t ip);
/// "192.168.77.1/24"
std::string AddressText(const Platform::InterfaceAddress& address);
/// "192.168.77.0/24"
std::string SubnetText(const Platform::InterfaceAddress& address);

/// Its address is none of the subnets of the interface that hears it, or none that a host can have.
bool IsElsewhere(const Platform::CameraDiagnosis& camera);

std::uint64_t MacOf(const GvcpDiscoveryRecord& record);
/// "camera 31000001 (02:00:00:00:77:0a)". The serial text is the camera's own and may hold anything.
std::string CameraText(const GvcpDiscoveryRecord& record);

/// Null when there is none of that index.
const Platform::InterfaceDiagnosis* FindInterface(const Platform::GigEDiagnosis& diagnosis, int index);
/// Its name, or its number when it has gone.
std::string InterfaceName(const Platform::GigEDiagnosis& diagnosis, int index);

/// Whether one of this computer's interfaces has the address.
bool IsOwnAddress(const Platform::GigEDiagnosis& diagnosis, std::uint32_t ip);

/// An address with its prefix, "192.168.100.1/24": of a subnet that this computer has no interface in.
/// @param skip  How many such subnets are given to others already.
std::string FreeSubnetAddress(const Platform::GigEDiagnosis& diagnosis, std::size_t skip = 0);
/// The subnet that was meant where an address was given with a mask that leaves no room for a camera, as `ip address
/// add` does without one: of 24 bits. Nothing where some address has room.
std::optional<Platform::InterfaceAddress> WiderSubnet(const Platform::NetworkInterface& interface);
/// An address of that subnet that no interface and no camera is known to have; 0 when there is none.
std::uint32_t FreeAddress(const Platform::GigEDiagnosis& diagnosis, const Platform::InterfaceAddress& subnet);

// ---- Commands, for a POSIX shell -----------------------------------------------------------------------------------

/// The words, quoted where they must be, run by root.
std::string Sudo(const std::vector<std::string>& words);
/// "net/ipv4/conf/eth0/rp_filter=2". Slashes, for a name may have dots.
std::string FilterSetting(const std::string& interface, int value);
/// A command that only a person can carry out, as a comment of the shell.
std::string ByHand(const std::string& text);

}  // namespace Nimbrel2::Tool::Doctor

#endif
