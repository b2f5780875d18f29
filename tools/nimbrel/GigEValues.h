// SPDX-License-Identifier: Apache-2.0
// Addresses of GigE cameras as text. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_GIGEVALUES_H
#define NIMBREL2_TOOLS_NIMBREL_GIGEVALUES_H

#include <cstdint>
#include <string>

#include "common/IPAddress.h"
#include "common/MACAddress.h"

namespace Nimbrel2::Tool {

/// 192.168.77.50. @throws CommandError (wrong usage) that names the option and the text; so do those below.
IPAddress ParseIp(const std::string& option, const std::string& text);
/// An address that a camera can have: ParseIp without 0.x, multicast and above.
IPAddress ParseCameraIp(const std::string& option, const std::string& text);
/// 255.255.255.0, without holes, or its length: /24 or 24.
IPAddress ParseMask(const std::string& option, const std::string& text);
/// 02:00:5e:00:00:01 or 02-00-5e-00-00-01, of one device: neither all zero nor a group address.
MACAddress ParseMac(const std::string& option, const std::string& text);

/// 02:00:5e:00:00:01
std::string FormatMac(const MACAddress& mac);
/// 192.168.77.50/24; a mask with holes follows in full.
std::string FormatSubnet(const IPAddress& ip, const IPAddress& mask);

/// 192.168.77.0/24, the subnet that the address is in.
std::string SubnetOf(const IPAddress& ip, const IPAddress& mask);

/// Octet 0 in bits 47 to 40.
std::uint64_t PackMac(const MACAddress& mac);

bool IsSame(const MACAddress& first, const MACAddress& second);

}  // namespace Nimbrel2::Tool

#endif
