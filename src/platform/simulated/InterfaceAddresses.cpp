// SPDX-License-Identifier: Apache-2.0
// Interface addresses by getifaddrs and rtnetlink. Any thread, no lock.
#include "platform/simulated/InterfaceAddresses.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/base/FileDescriptor.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

/// RTM_NEWADDR or RTM_DELADDR with the three attributes that we use.
struct AddressRequest {
    nlmsghdr header{};
    ifaddrmsg body{};
    std::array<std::uint8_t, 3 * RTA_SPACE(sizeof(std::uint32_t))> attributes{};
};

void AddAttribute(AddressRequest* request, unsigned short type, std::uint32_t address) {
    static_assert(sizeof(AddressRequest) == NLMSG_SPACE(sizeof(ifaddrmsg)) + 3 * RTA_SPACE(sizeof(std::uint32_t)));
    const std::size_t used = request->header.nlmsg_len - NLMSG_LENGTH(sizeof(ifaddrmsg));
    rtattr attribute{};
    attribute.rta_type = type;
    attribute.rta_len = RTA_LENGTH(sizeof(std::uint32_t));
    const std::uint32_t wire = htonl(address);
    std::memcpy(&request->attributes[used], &attribute, sizeof(attribute));
    std::memcpy(&request->attributes[used + RTA_LENGTH(0)], &wire, sizeof(wire));
    request->header.nlmsg_len += static_cast<std::uint32_t>(RTA_SPACE(sizeof(std::uint32_t)));
}

/// Sends the request and waits for the kernel's word on it, which comes at once.
int Transact(const AddressRequest& request) {
    const FileDescriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!netlink.IsOpen()) return errno;
    if (send(netlink.Get(), &request, request.header.nlmsg_len, 0) < 0) return errno;
    std::array<std::uint8_t, 4096> buffer;
    const ssize_t size = recv(netlink.Get(), buffer.data(), buffer.size(), 0);
    if (size < 0) return errno;
    if (static_cast<std::size_t>(size) < NLMSG_LENGTH(sizeof(nlmsgerr))) return EPROTO;
    nlmsghdr header;
    nlmsgerr answer;
    std::memcpy(&header, buffer.data(), sizeof(header));
    if (header.nlmsg_type != NLMSG_ERROR) return EPROTO;
    std::memcpy(&answer, buffer.data() + NLMSG_HDRLEN, sizeof(answer));
    return -answer.error;
}

int ChangeAddress(unsigned short type, unsigned short flags, const std::string& interfaceName, std::uint32_t address,
                  std::uint32_t subnetMask) {
    const unsigned int index = if_nametoindex(interfaceName.c_str());
    if (index == 0) return errno;
    const int prefix = std::countl_one(subnetMask);
    AddressRequest request;
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifaddrmsg));
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = static_cast<unsigned short>(NLM_F_REQUEST | NLM_F_ACK | flags);
    request.body.ifa_family = AF_INET;
    request.body.ifa_prefixlen = static_cast<unsigned char>(prefix);
    request.body.ifa_index = index;
    AddAttribute(&request, IFA_LOCAL, address);
    AddAttribute(&request, IFA_ADDRESS, address);
    if (type == RTM_NEWADDR && prefix < 31) AddAttribute(&request, IFA_BROADCAST, address | ~subnetMask);
    return Transact(request);
}

/// Without this the kernel removes all addresses of a subnet with the first of them.
int KeepOtherAddresses(const std::string& interfaceName) {
    const std::string path = "/proc/sys/net/ipv4/conf/" + interfaceName + "/promote_secondaries";
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.IsOpen()) return errno;
    return write(file.Get(), "1", 1) == 1 ? 0 : errno;
}

bool HasAddress(const ifaddrs& entry, std::uint32_t address) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) return false;
    sockaddr_in name;
    std::memcpy(&name, entry.ifa_addr, sizeof(name));
    if (ntohl(name.sin_addr.s_addr) == address) return true;
    return (entry.ifa_flags & IFF_LOOPBACK) != 0 && address >> 24 == IN_LOOPBACKNET;
}

}  // namespace

std::string FindInterfaceOf(std::uint32_t address) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return {};
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (HasAddress(*entry, address)) return entry->ifa_name;
    }
    return {};
}

int AddInterfaceAddress(const std::string& interfaceName, std::uint32_t address, std::uint32_t subnetMask) {
    return ChangeAddress(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, interfaceName, address, subnetMask);
}

int RemoveInterfaceAddress(const std::string& interfaceName, std::uint32_t address, std::uint32_t subnetMask) {
    const int error = KeepOtherAddresses(interfaceName);
    if (error != 0) return error;
    return ChangeAddress(RTM_DELADDR, 0, interfaceName, address, subnetMask);
}

std::string FormatAddress(std::uint32_t address) {
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
           std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}

}  // namespace Nimbrel2::Platform::Simulated
