// SPDX-License-Identifier: Apache-2.0
// Network interfaces that come, go and change, and the socket of each. The monitor thread, and Start before there is
// one; takes m_mutex to store what it has read, never while it asks the kernel about interfaces.
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>

#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

/// What the monitor's poller calls the socket of link and address changes; ports go by their interface's index.
constexpr std::uint64_t kChangesToken = 0;

// Cameras of foreign subnets are few; invented ones may be many.
constexpr std::size_t kMaxRouteAnswers = 1024;

bool IsSubnetEnd(const InterfaceAddress& subnet, std::uint32_t ip) {
    const std::uint32_t host = ip & ~subnet.GetMask();
    return subnet.prefixLength < 31 && (host == 0 || host == ~subnet.GetMask());
}

}  // namespace

// Whether the interface's own subnets hold the address, or a route that somebody has set leads to it. Nothing that
// could not be one host's address is reachable: what a camera says of itself must not make this computer talk to a
// group.
bool GigECore::IsReachable(const Interface& interface, std::uint32_t ip, TimePoint now) {
    if (interface.info.loopback) return ip >> 24 == 127;
    if (ip >> 24 == 0 || ip >> 24 == 127 || ip >> 28 >= 0xE) return false;
    const InterfaceAddress* subnet = interface.info.FindSubnet(ip);
    if (subnet != nullptr) return !IsSubnetEnd(*subnet, ip);

    if (m_directRoutes.size() >= kMaxRouteAnswers) m_directRoutes.clear();
    RouteAnswer& answer = m_directRoutes[{interface.info.index, ip}];
    if (answer.askedAt == TimePoint() || now - answer.askedAt >= m_timings.broadcastPeriod) {
        answer = {m_routes.HasDirectRoute(interface.info.index, ip), now};
    }
    return answer.direct;
}

// Listens before it looks, so that nothing that changes in between is missed. A computer that refuses one or the other
// is asked again every second.
int GigECore::OpenSockets() {
    if (!m_changes.IsOpen()) {
        const int error = m_changes.Open();
        if (error != 0) return error;
        m_poller.Add(m_changes.GetFd(), kChangesToken);
    }
    return m_routes.IsOpen() ? 0 : m_routes.Open();
}

void GigECore::LookAtInterfaces() {
    std::vector<NetworkInterface> found;
    int error = OpenSockets();
    if (error == 0) error = m_routes.ReadInterfaces(&found);

    std::lock_guard lock(m_mutex);
    m_routesRefused = error;
    if (error != 0) return;  // what was known stays
    std::set<int> present;
    for (const NetworkInterface& now : found) {
        present.insert(now.index);
        const auto [entry, isNew] = m_interfaces.try_emplace(now.index);
        UpdateInterface(entry->second, now, isNew);
    }
    for (auto entry = m_interfaces.begin(); entry != m_interfaces.end();) {
        const int index = entry->first;
        ++entry;
        if (present.count(index) == 0) DropInterface(index);
    }
    m_changed.notify_all();
}

void GigECore::UpdateInterface(Interface& interface, const NetworkInterface& now, bool isNew) {
    const bool wasUsed = !isNew && interface.IsUsed();
    const bool sameAddresses = !isNew && interface.info.addresses == now.addresses;
    interface.info = now;

    if (!IsEligible(now, m_wantedInterfaces)) {
        if (interface.port) m_poller.Remove(interface.port->GetFd());
        interface.port.reset();
    }
    interface.reason = ReasonNotUsed(now, m_wantedInterfaces);
    interface.error = 0;
    if (interface.reason.empty() && !interface.port) {
        std::string where;
        interface.error = UdpPort::Open(now, &interface.port, &where);
        if (interface.error == 0) interface.error = m_poller.Add(interface.port->GetFd(), TokenOf(*interface.port));
        if (interface.error != 0) {
            interface.port.reset();
            interface.reason = where + " refused: " + std::system_category().message(interface.error);
        }
    }

    const TimePoint time = Clock::now();
    if (!interface.IsUsed()) {
        m_table.DropInterface(now.index);
    } else if (!wasUsed) {
        StartBurst(interface, time);
    } else if (!sameAddresses) {
        m_directRoutes.clear();
        m_table.Reclassify(
            now.index, [&](std::uint32_t ip) { return IsReachable(interface, ip, time); }, time);
        StartBurst(interface, time);
    }
}

void GigECore::DropInterface(int index) {
    Interface& interface = m_interfaces.at(index);
    if (interface.port) m_poller.Remove(interface.port->GetFd());
    m_table.DropInterface(index);
    m_interfaces.erase(index);
}

void GigECore::StartBurst(Interface& interface, TimePoint now) {
    interface.requestsLeft = m_timings.windowRequests;
    interface.nextBroadcast = now;
    interface.burstId = 0;
}

// The address that this computer talks from to that camera.
std::uint32_t GigECore::LocalAddressFor(const NetworkInterface& interface, std::uint32_t ip) {
    if (interface.loopback) return INADDR_LOOPBACK;
    const InterfaceAddress* subnet = interface.FindSubnet(ip);
    if (subnet != nullptr) return subnet->address;
    return interface.addresses.empty() ? 0 : interface.addresses.front().address;
}

bool GigECore::HasUsedInterface() const {
    return std::any_of(m_interfaces.begin(), m_interfaces.end(),
                       [](const auto& entry) { return entry.second.IsUsed(); });
}

// What a service answers when no interface can be used.
std::uint32_t GigECore::RefusalStatus() const {
    for (const auto& entry : m_interfaces) {
        if (entry.second.error != 0) return StatusOfErrno(entry.second.error);
    }
    return m_routesRefused != 0 ? StatusOfErrno(m_routesRefused) : std::uint32_t{HAL_NO_BUS};
}

}  // namespace Nimbrel2::Platform::GigE
