// SPDX-License-Identifier: Apache-2.0
// A packet socket and the pcap file format. One thread, no lock.
#include "tests/support/PacketCapture.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <system_error>

namespace Nimbrel2::Testing {
namespace {

constexpr std::uint32_t LargestFrame = 65536;
constexpr std::uint32_t LinkTypeEthernet = 1;

void Check(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// The file has the byte order of the computer that writes it; its magic number tells which.
void Write(std::ofstream& file, std::initializer_list<std::uint32_t> words) {
    for (const std::uint32_t word : words) {
        file.write(reinterpret_cast<const char*>(&word), sizeof(word));
    }
}

}  // namespace

PacketCapture::PacketCapture(const std::string& interfaceName) {
    m_socket = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL));
    Check(m_socket, "packet socket");
    try {
        ifreq request{};
        interfaceName.copy(request.ifr_name, IFNAMSIZ - 1);
        Check(ioctl(m_socket, SIOCGIFFLAGS, &request), "SIOCGIFFLAGS");
        m_loopback = (request.ifr_flags & IFF_LOOPBACK) != 0;
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(if_nametoindex(interfaceName.c_str()));
        Check(bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind packet socket");
    } catch (...) {
        close(m_socket);
        throw;
    }
}

PacketCapture::~PacketCapture() { close(m_socket); }

void PacketCapture::Collect() {
    std::vector<std::uint8_t> buffer(LargestFrame);
    for (;;) {
        sockaddr_ll from{};
        socklen_t fromSize = sizeof(from);
        const ssize_t size =
            recvfrom(m_socket, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &fromSize);
        if (size < 0) {
            return;
        }
        // A loopback interface shows each frame going out and coming in.
        if (m_loopback && from.sll_pkttype == PACKET_OUTGOING) {
            continue;
        }
        m_frames.emplace_back(buffer.begin(), buffer.begin() + size);
    }
}

void PacketCapture::WriteTo(const std::string& path) const {
    std::ofstream file(path, std::ios::binary);
    const std::array<std::uint16_t, 2> versions{2, 4};
    Write(file, {0xA1B2C3D4});
    file.write(reinterpret_cast<const char*>(versions.data()), sizeof(versions));
    Write(file, {0, 0, LargestFrame, LinkTypeEthernet});
    std::uint32_t time = 0;
    for (const auto& frame : m_frames) {
        const auto size = static_cast<std::uint32_t>(frame.size());
        Write(file, {time++, 0, size, size});
        file.write(reinterpret_cast<const char*>(frame.data()), size);
    }
    file.flush();
    if (!file) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

TemporaryFile::TemporaryFile() {
    std::string path = std::filesystem::temp_directory_path() / "nimbrel2-test-XXXXXX";
    const int fd = mkstemp(path.data());
    Check(fd, "mkstemp");
    close(fd);
    m_path = path;
}

TemporaryFile::~TemporaryFile() { std::remove(m_path.c_str()); }

}  // namespace Nimbrel2::Testing
