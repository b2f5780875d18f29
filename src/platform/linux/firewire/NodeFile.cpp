// SPDX-License-Identifier: Apache-2.0
// One open of a node's file. Threads: see the header. No lock; nothing here waits for the bus.
#include "platform/linux/firewire/NodeFile.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/firewire-cdev.h>
#include <linux/firewire-constants.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/firewire/ConfigRom.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

// Later versions have the kernel send events of other layouts.
constexpr std::uint32_t InterfaceVersion = 5;

// The kernel takes user space's pointers as numbers.
template <class T>
std::uint64_t AddressOf(T* object) {
    return reinterpret_cast<std::uintptr_t>(object);
}

template <class Argument>
int Control(int fd, unsigned long request, Argument* argument) {
    while (::ioctl(fd, request, argument) < 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

std::uint32_t TransactionCode(RequestKind kind) {
    switch (kind) {
        case RequestKind::ReadQuadlet:
            return TCODE_READ_QUADLET_REQUEST;
        case RequestKind::WriteQuadlet:
            return TCODE_WRITE_QUADLET_REQUEST;
        case RequestKind::ReadBlock:
            break;
    }
    return TCODE_READ_BLOCK_REQUEST;
}

}  // namespace

int NodeFile::Open(const std::string& name) {
    const std::string path = "/dev/" + name;
    m_file = FileDescriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    return m_file.IsOpen() ? 0 : errno;
}

int NodeFile::GetInfo(NodeInfo* info, std::vector<std::uint32_t>* rom) const {
    fw_cdev_event_bus_reset state{};
    fw_cdev_get_info request{};
    request.version = InterfaceVersion;
    request.bus_reset = AddressOf(&state);
    request.bus_reset_closure = 0;  // nobody asks for it; it must only stay the same
    if (rom != nullptr) {
        rom->assign(MaxRomQuadlets, 0);
        request.rom = AddressOf(rom->data());
        request.rom_length = static_cast<std::uint32_t>(rom->size() * sizeof(std::uint32_t));
    }
    const int error = Control(m_file.Get(), FW_CDEV_IOC_GET_INFO, &request);
    if (error != 0) {
        return error;
    }
    if (rom != nullptr) {
        rom->resize(std::min<std::size_t>(rom->size(), request.rom_length / sizeof(std::uint32_t)));
    }
    info->card = request.card;
    info->ids = {static_cast<std::uint16_t>(state.node_id),      static_cast<std::uint16_t>(state.local_node_id),
                 static_cast<std::uint16_t>(state.bm_node_id),   static_cast<std::uint16_t>(state.irm_node_id),
                 static_cast<std::uint16_t>(state.root_node_id), static_cast<std::uint8_t>(state.generation)};
    return 0;
}

int NodeFile::Send(const Request& request, std::uint8_t generation, std::uint64_t closure) const {
    std::uint32_t payload = htobe32(request.value);
    fw_cdev_send_request argument{};
    argument.tcode = TransactionCode(request.kind);
    argument.length = request.length;
    argument.offset = request.offset;
    argument.closure = closure;
    argument.data = request.kind == RequestKind::WriteQuadlet ? AddressOf(&payload) : 0;
    argument.generation = generation;
    return Control(m_file.Get(), FW_CDEV_IOC_SEND_REQUEST, &argument);
}

int NodeFile::ResetBus() const {
    fw_cdev_initiate_bus_reset argument{};
    argument.type = FW_CDEV_SHORT_RESET;
    return Control(m_file.Get(), FW_CDEV_IOC_INITIATE_BUS_RESET, &argument);
}

int NodeFile::ReceivePhyPackets() const {
    fw_cdev_receive_phy_packets argument{};
    return Control(m_file.Get(), FW_CDEV_IOC_RECEIVE_PHY_PACKETS, &argument);
}

int NodeFile::SendPhyPacket(std::uint32_t quadlet, std::uint8_t generation, std::uint64_t closure) const {
    fw_cdev_send_phy_packet argument{};
    argument.closure = closure;
    argument.data[0] = quadlet;
    argument.data[1] = ~quadlet;
    argument.generation = generation;
    return Control(m_file.Get(), FW_CDEV_IOC_SEND_PHY_PACKET, &argument);
}

bool NodeFile::HasEvent() const {
    pollfd ready{m_file.Get(), POLLIN, 0};
    return ::poll(&ready, 1, 0) > 0;
}

int NodeFile::ReadEvent(NodeEvent* event) {
    // A read waits whatever the file's flags say, so it is only made when something is there.
    pollfd ready{m_file.Get(), POLLIN, 0};
    if (::poll(&ready, 1, 0) < 0 || ready.revents == 0) {
        return EAGAIN;
    }
    if ((ready.revents & POLLIN) == 0) {
        return ENODEV;
    }
    const ssize_t size = ::read(m_file.Get(), m_event.data(), m_event.size());
    if (size < 0) {
        return errno == EINTR ? EAGAIN : errno;
    }
    if (size == 0) {
        return ENODEV;
    }
    *event = ParseNodeEvent(std::span(m_event).first(static_cast<std::size_t>(size)));
    return 0;
}

}  // namespace Nimbrel2::Platform::FireWire
