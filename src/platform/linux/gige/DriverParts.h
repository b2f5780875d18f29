// SPDX-License-Identifier: Apache-2.0
// What the driver consists of, for those of its parts that use the others. Each part has a state, a lock and a header
// of its own; this holds them together and nothing else.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_DRIVERPARTS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_DRIVERPARTS_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/gige/FilterCounter.h"
#include "platform/linux/gige/Interfaces.h"
#include "platform/linux/gige/Monitor.h"
#include "platform/linux/gige/Presence.h"
#include "platform/linux/gige/Registers.h"

namespace Nimbrel2::Platform::GigE {

/// What the driver was told to do.
struct DriverOptions {
    std::vector<std::string> networkInterfaces;  ///< empty for all
    std::optional<GigECameraName> searchFor;
    std::optional<PortRange> sourcePorts;
    Timings timings;
};

struct DriverParts {
    DriverParts(const DriverOptions& given, BusEventSink& events);
    DriverParts(const DriverParts&) = delete;
    DriverParts& operator=(const DriverParts&) = delete;

    /// Opens a socket of its own for somebody, who reads it alone. On the monitor thread: in Monitor::Run.
    /// @param socket  The answer. @return 0 or an errno.
    int OpenSocket(const NetworkInterface& interface, SocketOptions socketOptions, std::shared_ptr<UdpSocket>* socket,
                   std::string* where) const;

    /// What searches do not see now. @param filteredBefore  What the counter of filtered packets was when the search
    /// began.
    void FillReport(std::uint64_t filteredBefore, GigESearchReport* report);
    /// Answers HAL_CLOSED, or what a service answers when no interface can be used.
    std::uint32_t GetStatus() const;

    const DriverOptions options;
    RequestIds ids;
    RouteSocket routes;
    FilterCounter filtered;
    Presence presence;
    Interfaces interfaces;
    Monitor monitor;
    Registers registers;
};

/// What a socket for a discovery, an address or a test hears.
class Listener final : public DatagramHandler {
public:
    using Function = std::function<void(std::uint32_t from, std::span<const std::uint8_t> bytes)>;
    explicit Listener(Function function) : m_function(std::move(function)) {}
    void OnDatagram(UdpSocket& socket, std::uint32_t from, std::uint16_t fromPort,
                    std::span<const std::uint8_t> bytes) override;

private:
    const Function m_function;
};

/// Waits for something to read. @return false when stopFd became readable or the deadline has come; the flags say which
/// descriptors can be read.
bool WaitForAny(const std::vector<int>& fds, int stopFd, TimePoint deadline, std::vector<bool>* readable);

}  // namespace Nimbrel2::Platform::GigE

#endif
