// SPDX-License-Identifier: Apache-2.0
// A device that answers GVCP as a test wants it to. m_mutex guards the requests and the threads in the background.
#include "tests/platform/gige/HostileDevice.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace Nimbrel2::Testing {

using Platform::Gvcp::Port;

namespace {

sockaddr_in AddressOf(std::uint32_t ip, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    address.sin_port = htons(port);
    return address;
}

HostileDevice::Bytes BytesOf(const Platform::Gvcp::Packet& packet) {
    return HostileDevice::Bytes(packet.GetData(), packet.GetData() + packet.GetSize());
}

}  // namespace

std::uint32_t HostileDevice::Request::Address() const {
    return bytes.size() >= 12 ? Platform::Gvcp::LoadU32(&bytes[8]) : ~std::uint32_t{0};
}

HostileDevice::HostileDevice(NetworkNamespace& network, std::uint32_t address,
                             std::function<void(HostileDevice&, const Request&)> function)
    : m_address(address), m_function(std::move(function)) {
    network.Run([&] {
        m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        m_raw = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
    });
    EXPECT_GE(m_socket, 0);
    EXPECT_GE(m_raw, 0);
    const int on = 1;
    setsockopt(m_socket, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    const sockaddr_in any = AddressOf(INADDR_ANY, Port);
    EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
    m_thread = std::thread([this] { Serve(); });
}

HostileDevice::~HostileDevice() {
    Stop();
    close(m_socket);
    close(m_raw);
}

void HostileDevice::Stop() {
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
    // Nobody adds to them any more.
    for (std::thread& thread : m_background) {
        thread.join();
    }
    m_background.clear();
}

void HostileDevice::InBackground(std::function<void()> work) {
    std::lock_guard lock(m_mutex);
    m_background.emplace_back(std::move(work));
}

void HostileDevice::Pause(std::chrono::milliseconds time) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, time, [this] { return m_stop.load(); });
}

void HostileDevice::Serve() {
    std::array<std::uint8_t, 2048> buffer;
    while (!m_stop) {
        pollfd wait{m_socket, POLLIN, 0};
        if (poll(&wait, 1, 10) <= 0) {
            continue;
        }
        sockaddr_in from{};
        iovec data{buffer.data(), buffer.size()};
        alignas(cmsghdr) std::array<char, 256> control;
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t size = recvmsg(m_socket, &message, MSG_DONTWAIT);
        if (size < 8) {
            continue;
        }
        Request request;
        request.bytes.assign(buffer.begin(), buffer.begin() + size);
        request.header = Platform::Gvcp::DecodeCommand(request.bytes).header;
        request.from = ntohl(from.sin_addr.s_addr);
        request.fromPort = ntohs(from.sin_port);
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level != IPPROTO_IP || header->cmsg_type != IP_PKTINFO) {
                continue;
            }
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(header), sizeof info);
            request.to = ntohl(info.ipi_addr.s_addr);
        }
        {
            std::lock_guard lock(m_mutex);
            m_requests.push_back(request);
        }
        m_function(*this, request);
        m_changed.notify_all();
    }
}

void HostileDevice::Answer(const Request& request, std::span<const std::uint8_t> bytes) {
    sockaddr_in to = AddressOf(request.from, request.fromPort);
    iovec data{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_spec_dst.s_addr = htonl(m_address);
    std::memcpy(CMSG_DATA(header), &info, sizeof info);
    sendmsg(m_socket, &message, 0);
}

void HostileDevice::AnswerFrom(const Request& request, std::uint32_t from, std::uint16_t fromPort,
                               std::span<const std::uint8_t> bytes) {
    Bytes packet(28 + bytes.size());
    const auto put16 = [&](std::size_t at, std::size_t value) {
        packet[at] = static_cast<std::uint8_t>(value >> 8);
        packet[at + 1] = static_cast<std::uint8_t>(value);
    };
    packet[0] = 0x45;
    put16(2, packet.size());
    packet[8] = 64;
    packet[9] = IPPROTO_UDP;
    put16(12, from >> 16);
    put16(14, from & 0xFFFF);
    put16(16, request.from >> 16);
    put16(18, request.from & 0xFFFF);
    put16(20, fromPort);
    put16(22, request.fromPort);
    put16(24, 8 + bytes.size());  // checksum 0: none
    std::copy(bytes.begin(), bytes.end(), packet.begin() + 28);
    const sockaddr_in to = AddressOf(request.from, 0);
    sendto(m_raw, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

std::vector<HostileDevice::Request> HostileDevice::GetRequests() const {
    std::lock_guard lock(m_mutex);
    return m_requests;
}

bool HostileDevice::WaitFor(const std::function<bool(const Request&)>& condition, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout,
                              [&] { return std::any_of(m_requests.begin(), m_requests.end(), condition); });
}

GvcpDiscoveryRecord HostileDevice::Record(std::uint64_t mac, std::uint32_t ip) {
    GvcpDiscoveryRecord record{};
    record.versionMajor = 2;
    record.macHigh = static_cast<std::uint16_t>(mac >> 32);
    record.macLow = static_cast<std::uint32_t>(mac);
    record.ipAddress = ip;
    record.subnetMask = 0xFFFFFF00;
    std::strcpy(record.serialNumber, "666");
    return record;
}

HostileDevice::Bytes HostileDevice::DiscoveryAck(const Request& request, std::uint64_t mac, std::uint32_t ip) {
    return BytesOf(Platform::Gvcp::EncodeDiscoveryAck(request.header.requestId, Record(mac, ip)));
}

HostileDevice::Bytes HostileDevice::ReadAck(const Request& request, std::uint32_t value) {
    return BytesOf(Platform::Gvcp::EncodeReadRegAck(request.header.requestId, {&value, 1}));
}

}  // namespace Nimbrel2::Testing
