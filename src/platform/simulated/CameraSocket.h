// SPDX-License-Identifier: Apache-2.0
// The UDP sockets of simulated cameras: one at each camera's address, one for each interface's broadcasts.
// One thread at a time, no lock; nothing blocks.
#ifndef NIMBREL2_PLATFORM_SIMULATED_CAMERASOCKET_H
#define NIMBREL2_PLATFORM_SIMULATED_CAMERASOCKET_H

#include <cstdint>
#include <span>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/simulated/SimulatedCameraOptions.h"

namespace Nimbrel2::Platform::Simulated {

/// Opens a camera's own socket. @return 0, or an errno: EADDRNOTAVAIL when this computer does not have the address,
/// EADDRINUSE when another camera is there.
int OpenCameraSocket(std::uint32_t address, FileDescriptor* socket);

/// Opens the socket that hears limited broadcasts on one interface; several programs may have one. @return 0 or an
/// errno.
int OpenBroadcastSocket(const std::string& interfaceName, FileDescriptor* socket);

/// Takes one datagram. @return false when there is none now.
bool ReceiveDatagram(int socket, std::span<std::uint8_t> buffer, std::size_t* size, Endpoint* peer);

/// Sends to the peer; a full buffer or a missing route loses the datagram, as a network would.
void SendUnicast(int socket, const Endpoint& peer, Gvcp::Bytes datagram);

/// Sends to 255.255.255.255 on that interface. @param from  An address of this computer: the camera's.
void SendBroadcast(int socket, unsigned int interfaceIndex, std::uint32_t from, std::uint16_t port,
                   Gvcp::Bytes datagram);

}  // namespace Nimbrel2::Platform::Simulated

#endif
