// SPDX-License-Identifier: Apache-2.0
// Simulated cameras on loopback for benchmarks.
#include "bench/GigECameras.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <variant>

#include "hal/HAL.h"
#include "platform/Platform.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform {

namespace {

constexpr std::uint64_t MostListed = 256;

int OpenSocket(std::uint32_t ip) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_port = htons(Gvcp::Port);
    own.sin_addr.s_addr = htonl(ip);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        Give("a camera's socket");
    }
    return fd;
}

}  // namespace

void Give(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

void EnterNetworkOfItsOwn() {
    if (unshare(CLONE_NEWNET) != 0) {
        Give("unshare (root is needed)");
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    if (ioctl(fd, SIOCGIFFLAGS, &request) != 0) {
        Give("lo");
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
        Give("lo up");
    }
    close(fd);
}

// ---- Cameras -------------------------------------------------------------------------------------------------------

Cameras::Cameras(std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
        Simulated::SimulatedCameraOptions options;
        options.address = FirstAddress + static_cast<std::uint32_t>(i);
        options.mac = 0x020000000100 + static_cast<std::uint64_t>(i);
        options.serialNumber = std::to_string(1000 + i);
        const auto added = m_network.AddCamera(options);
        if (!added) {
            Give("a simulated camera");
        }
        m_ids.push_back(added.id);
    }
}

Cameras::~Cameras() { HAL_CleanupLibrary(); }

void Cameras::StartHal(std::chrono::milliseconds window) {
    Options options;
    options.networkInterfaces = {"lo"};
    options.discoveryWindow = window;
    if (!Configure(options) || HAL_InitLibrary() != HAL_OK) {
        Give("the HAL");
    }
}

std::vector<void*> Cameras::ListEntries() {
    std::vector<void*> entries(MostListed);
    std::uint64_t count = entries.size();
    if (HAL_GigEGetCameras(entries.data(), &count) != HAL_OK) {
        count = 0;
    }
    entries.resize(count);
    return entries;
}

std::uint64_t Cameras::List(void** first) {
    const std::vector<void*> entries = ListEntries();
    const bool keep = first != nullptr && !entries.empty();
    if (keep) {
        *first = entries[0];
    }
    std::for_each(entries.begin() + (keep ? 1 : 0), entries.end(), HAL_GigEFreeCamera);
    return entries.size();
}

std::vector<std::uint32_t> Cameras::Enumerate() {
    std::vector<std::uint32_t> macs;
    for (void* entry : ListEntries()) {
        std::uint32_t monitor = 0;
        std::uint32_t ip = 0;
        GvcpDiscoveryRecord record{};
        HAL_GigEIsInMonitorMode(entry, &monitor);
        if (HAL_GigEGetDiscoveryRecord(entry, &record) == HAL_OK &&
            HAL_GigEReadRegister(entry, CurrentIpAddress, &ip) == HAL_OK) {
            macs.push_back(record.macLow);
        }
        HAL_GigEFreeCamera(entry);
    }
    std::sort(macs.begin(), macs.end());
    return macs;
}

void Cameras::SetSilent(std::size_t index, bool silent) {
    m_network.Use(m_ids[index], [silent](Simulated::SimulatedGigECamera& camera) { camera.SetSilent(silent); });
}

Simulated::CameraStatistics Cameras::GetStatistics() {
    Simulated::CameraStatistics all;
    for (const auto id : m_ids) {
        m_network.Use(id, [&all](Simulated::SimulatedGigECamera& camera) {
            const Simulated::CameraStatistics& one = camera.GetStatistics();
            all.received += one.received;
            all.discovery += one.discovery;
            all.executed += one.executed;
            all.repeated += one.repeated;
            all.lost += one.lost;
            all.answered += one.answered;
        });
    }
    return all;
}

// ---- MutableCameras ------------------------------------------------------------------------------------------------

MutableCameras::MutableCameras(std::uint32_t address, std::uint32_t count, bool mute)
    : m_address(address), m_mute(mute) {
    for (std::uint32_t i = 0; i < count; ++i) {
        m_sockets.push_back(OpenSocket(address + i));
    }
    m_sockets.push_back(OpenSocket(INADDR_BROADCAST));
    m_thread = std::thread([this] { Serve(); });
}

MutableCameras::~MutableCameras() {
    m_stop = true;
    m_thread.join();
    for (const int fd : m_sockets) {
        close(fd);
    }
}

void MutableCameras::Serve() {
    std::vector<pollfd> polled;
    for (const int fd : m_sockets) {
        polled.push_back({fd, POLLIN, 0});
    }
    while (!m_stop) {
        if (poll(polled.data(), polled.size(), 10) <= 0) {
            continue;
        }
        for (std::size_t i = 0; i < polled.size(); ++i) {
            if (polled[i].revents == 0) {
                continue;
            }
            std::vector<std::uint8_t> command(2048);
            sockaddr_in from{};
            socklen_t fromSize = sizeof from;
            const ssize_t size = recvfrom(polled[i].fd, command.data(), command.size(), MSG_DONTWAIT,
                                          reinterpret_cast<sockaddr*>(&from), &fromSize);
            if (size < 8) {
                continue;
            }
            command.resize(static_cast<std::size_t>(size));
            const bool broadcast = i + 1 == polled.size();
            for (std::size_t k = broadcast ? 0 : i; k < (broadcast ? i : i + 1); ++k) {
                Answer(k, command, from.sin_addr.s_addr, from.sin_port);
            }
        }
    }
}

void MutableCameras::Answer(std::size_t index, const std::vector<std::uint8_t>& bytes, std::uint32_t from,
                            std::uint16_t port) {
    const Gvcp::DecodedCommand command = Gvcp::DecodeCommand(bytes);
    const auto number = static_cast<std::uint32_t>(index);
    Gvcp::Packet answer;
    if (command.header.id == Gvcp::MessageId::DiscoveryCmd) {
        GvcpDiscoveryRecord record{};
        record.macHigh = 0x0200;
        record.macLow = 0x1000 + number;
        record.ipAddress = m_address + number;
        record.subnetMask = 0xFF000000;
        std::strcpy(record.serialNumber, "77");
        answer = Gvcp::EncodeDiscoveryAck(command.header.requestId, record);
    } else if (const auto* read = std::get_if<Gvcp::ReadRegCommand>(&command.body); read != nullptr && !m_mute) {
        const std::uint32_t value = read->addresses[0] == CurrentIpAddress ? m_address + number : 0;
        answer = Gvcp::EncodeReadRegAck(command.header.requestId, {&value, 1});
    } else {
        return;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = from;
    to.sin_port = port;
    sendto(m_sockets[index], answer.GetData(), answer.GetSize(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

}  // namespace Nimbrel2::Platform
