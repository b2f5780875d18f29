// SPDX-License-Identifier: Apache-2.0
// Uevents off a netlink socket. Threads: see the header. No lock; nothing here waits.
#include "platform/base/Uevents.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/nsfs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Nimbrel2::Platform {

namespace {

constexpr std::uint32_t KernelGroup = 1;
// The kernel's messages end at 2 KiB of properties, udevd's at 8 KiB of them.
constexpr std::size_t MessageBytes = 32768;
// The inode number of the first user namespace, the same on every kernel.
constexpr ino_t FirstUserNamespace = 0xEFFFFFFD;

// The header of udevd's form: texts are laid out behind it, magic in network order, the rest in the host's.
constexpr std::string_view UdevPrefix("libudev\0", 8);
constexpr std::uint32_t UdevMagic = 0xFEEDCAFE;
constexpr std::size_t MagicOffset = 8;
constexpr std::size_t PropertiesOffset = 16;
constexpr std::size_t PropertiesLength = 20;
constexpr std::size_t UdevHeaderBytes = 24;  // as far as it is read

std::uint32_t LoadWord(std::string_view bytes, std::size_t offset) {
    std::uint32_t word;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

// The properties of either form; nothing when it is none.
std::optional<std::string_view> FindProperties(std::string_view message) {
    if (message.substr(0, UdevPrefix.size()) == UdevPrefix) {
        if (message.size() < UdevHeaderBytes) {
            return std::nullopt;
        }
        if (be32toh(LoadWord(message, MagicOffset)) != UdevMagic) {
            return std::nullopt;
        }
        const std::size_t offset = LoadWord(message, PropertiesOffset);
        const std::size_t length = LoadWord(message, PropertiesLength);
        if (offset > message.size() || length > message.size() - offset) {
            return std::nullopt;
        }
        return message.substr(offset, length);
    }
    const std::size_t end = message.find('\0');
    if (end == std::string_view::npos || message.substr(0, end).find('@') == std::string_view::npos) {
        return std::nullopt;
    }
    return message.substr(end + 1);
}

// Takes the first property off the text; false at its end. One without its zero byte was cut and does not count.
bool NextProperty(std::string_view* rest, std::string_view* name, std::string_view* value) {
    while (true) {
        const std::size_t end = rest->find('\0');
        if (end == std::string_view::npos) {
            return false;
        }
        const std::string_view property = rest->substr(0, end);
        rest->remove_prefix(end + 1);
        const std::size_t equals = property.find('=');
        if (equals == std::string_view::npos) {
            continue;
        }
        *name = property.substr(0, equals);
        *value = property.substr(equals + 1);
        return true;
    }
}

UeventSender SenderOf(msghdr* message, const sockaddr_nl& address) {
    UeventSender sender{address.nl_pid, std::nullopt};
    for (cmsghdr* header = CMSG_FIRSTHDR(message); header != nullptr; header = CMSG_NXTHDR(message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_CREDENTIALS) {
            continue;
        }
        if (header->cmsg_len < CMSG_LEN(sizeof(ucred))) {
            continue;
        }
        ucred credentials;
        std::memcpy(&credentials, CMSG_DATA(header), sizeof credentials);
        sender.user = credentials.uid;
    }
    return sender;
}

}  // namespace

std::string_view Uevent::Find(std::string_view wanted) const {
    std::string_view rest = properties;
    std::string_view name;
    std::string_view value;
    while (NextProperty(&rest, &name, &value)) {
        if (name == wanted) {
            return value;
        }
    }
    return {};
}

std::optional<Uevent> ParseUevent(std::span<const std::uint8_t> bytes) {
    const std::string_view message(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const std::optional<std::string_view> properties = FindProperties(message);
    if (!properties) {
        return std::nullopt;
    }
    Uevent event;
    event.properties = *properties;
    event.action = event.Find("ACTION");
    event.devicePath = event.Find("DEVPATH");
    event.subsystem = event.Find("SUBSYSTEM");
    if (event.action.empty() || event.devicePath.empty() || event.subsystem.empty()) {
        return std::nullopt;
    }
    return event;
}

bool IsTrusted(const UeventSender& sender) { return sender.port == 0 || sender.user == 0u; }

int UeventSocket::Open(int bufferBytes) {
    m_message.resize(MessageBytes);
    FileDescriptor fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT));
    if (!fd.IsOpen()) {
        return errno;
    }
    // Past the system's limit for those who may; the limit itself for all others.
    if (::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &bufferBytes, sizeof bufferBytes) != 0 &&
        ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof bufferBytes) != 0) {
        return errno;
    }
    const int on = 1;
    if (::setsockopt(fd.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
        return errno;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = KernelGroup;
    if (::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        return errno;
    }
    m_socket = std::move(fd);
    return 0;
}

UeventSocket::Receipt UeventSocket::Receive(Uevent* event) {
    while (m_socket.IsOpen()) {
        sockaddr_nl address{};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
        iovec buffer{m_message.data(), m_message.size()};
        msghdr message{};
        message.msg_name = &address;
        message.msg_namelen = sizeof address;
        message.msg_iov = &buffer;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t size = ::recvmsg(m_socket.Get(), &message, 0);
        if (size < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == ENOBUFS ? Receipt::Lost : Receipt::Nothing;
        }
        if (!IsTrusted(SenderOf(&message, address))) {
            continue;
        }
        if ((message.msg_flags & MSG_TRUNC) != 0) {
            return Receipt::Lost;
        }
        const auto parsed = ParseUevent({m_message.data(), static_cast<std::size_t>(size)});
        if (!parsed) {
            continue;
        }
        *event = *parsed;
        return Receipt::Event;
    }
    return Receipt::Nothing;
}

bool UeventsReachUs() {
    // The thread's own, for a socket belongs to the namespace of the thread that opens it.
    const FileDescriptor network(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (!network.IsOpen()) {
        return false;
    }
    const FileDescriptor owner(::ioctl(network.Get(), NS_GET_USERNS));
    struct stat status {};
    return owner.IsOpen() && ::fstat(owner.Get(), &status) == 0 && status.st_ino == FirstUserNamespace;
}

}  // namespace Nimbrel2::Platform
