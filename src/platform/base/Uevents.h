// SPDX-License-Identifier: Apache-2.0
// The kernel's news of devices: a socket that hears them, and a reader of their two forms.
// ParseUevent is pure. UeventSocket: one thread at a time, no lock. UeventsReachUs: any thread.
#ifndef NIMBREL2_PLATFORM_BASE_UEVENTS_H
#define NIMBREL2_PLATFORM_BASE_UEVENTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/base/FileDescriptor.h"

namespace Nimbrel2::Platform {

/// One uevent. The texts lie in the bytes that it was read from and live as long as those.
struct Uevent {
    std::string_view action;      ///< "add", "bind", "change", "unbind", "remove", ...
    std::string_view devicePath;  ///< "/devices/...": below the root of sysfs
    std::string_view subsystem;   ///< "usb", "firewire", ...
    std::string_view properties;  ///< all of them, NAME=value, each with a zero byte at its end

    /// The value of a property, DEVTYPE for one; empty when it is missing.
    std::string_view Find(std::string_view name) const;
};

/// Reads a uevent as the kernel sends it ("add@/devices/..." and properties), or as udevd and stand-ins of the kernel
/// do (a binary header and properties). Nothing for bytes that are neither, or that lack one of the first three texts.
std::optional<Uevent> ParseUevent(std::span<const std::uint8_t> bytes);

/// Who a message came from, as the socket tells.
struct UeventSender {
    std::uint32_t port = 0;             ///< netlink port; 0 is the kernel and nobody else
    std::optional<std::uint32_t> user;  ///< effective user of the process, when it is told
};

/// Whether a sender may speak of devices: the kernel (from another user namespace it counts as nobody) and root.
bool IsTrusted(const UeventSender& sender);

/// Hears the uevents that the kernel sends to the network namespace of the thread that opened it, without udevd's help.
class UeventSocket {
public:
    /// Large enough for the events of a hundred devices that come at once.
    static constexpr int UsualBuffer = 8 << 20;

    /// @param bufferBytes  What the kernel keeps for us. As much as the system allows to this user when that is less.
    /// @return 0 or an errno.
    int Open(int bufferBytes = UsualBuffer);
    bool IsOpen() const { return m_socket.IsOpen(); }
    /// For a Poller; -1 when it is not open.
    int GetFd() const { return m_socket.Get(); }

    enum class Receipt {
        Nothing,  ///< no event waits
        Event,    ///< one was taken
        Lost,     ///< events were lost: whatever they said, look at everything again
    };
    /// Takes one event off the socket; does not wait. Messages that are no uevents or that come from anybody but the
    /// kernel and root are dropped. The texts of *event are good until the next call.
    Receipt Receive(Uevent* event);

private:
    FileDescriptor m_socket;
    std::vector<std::uint8_t> m_message;
};

/// Whether the kernel sends the calling thread's network namespace the uevents of devices that belong to no such
/// namespace, which USB and IEEE 1394 controllers are: only if the first user namespace owns it. False also when that
/// cannot be told.
bool UeventsReachUs();

}  // namespace Nimbrel2::Platform

#endif
