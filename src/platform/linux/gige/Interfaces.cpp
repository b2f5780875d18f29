// SPDX-License-Identifier: Apache-2.0
// Network interfaces that come, go and change, and the monitor's sockets on them. m_mutex for a few instructions, for
// the few system calls that open a socket, and for those that ask for a route.
#include "platform/linux/gige/Interfaces.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/base/CameraAddress.h"
#include "platform/base/Errno.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::size_t MaxRouteAnswers = 1024;
constexpr Milliseconds RouteLifetime{1000};

std::string ErrorText(int error) { return std::system_category().message(error); }

}  // namespace

Interfaces::Interfaces(std::vector<std::string> wanted, const Timings& timings, Opener open, RouteFinder hasRoute)
    : m_wanted(std::move(wanted)), m_timings(timings), m_open(std::move(open)), m_askForRoute(std::move(hasRoute)) {}

// ---- The monitor ---------------------------------------------------------------------------------------------------

void Interfaces::Update(const std::vector<NetworkInterface>& found, TimePoint now) {
    const LockGuard lock(m_mutex);
    m_kernelError = 0;
    std::erase_if(m_interfaces, [&](const auto& known) {
        return std::none_of(found.begin(), found.end(), [&](const auto& info) { return info.index == known.first; });
    });
    for (const NetworkInterface& info : found) {
        UpdateOne(m_interfaces[info.index], info, now);
    }
}

void Interfaces::UpdateRefused(int error) {
    const LockGuard lock(m_mutex);
    m_kernelError = error;
}

void Interfaces::UpdateOne(Interface& interface, const NetworkInterface& now, TimePoint time) {
    const bool wasUsed = interface.IsUsed();
    if (interface.info.addresses != now.addresses) {
        ++interface.version;
        m_routes.clear();
    }
    interface.info = now;
    const bool eligible = IsEligible(now, m_wanted);
    if (!eligible) {
        interface.search = interface.verify = nullptr;
    }
    interface.reason = ReasonNotUsed(now, m_wanted);
    interface.error = 0;
    if (interface.reason.empty() && !interface.IsUsed()) {
        interface.error = OpenSockets(interface);
        if (interface.error != 0) {
            interface.reason = interface.where + " refused: " + ErrorText(interface.error);
        }
    }
    const bool hasLink = now.up && now.running;
    if (interface.IsUsed() || !eligible || (hasLink && interface.error == 0)) {
        interface.lostAt = TimePoint();
    } else if (wasUsed && !hasLink) {
        interface.lostAt = time;
    }
}

int Interfaces::OpenSockets(Interface& interface) {
    std::shared_ptr<UdpSocket> search;
    std::shared_ptr<UdpSocket> verify;
    int error = m_open(interface.info, Port::Search, &search, &interface.where);
    if (error == 0) {
        error = m_open(interface.info, Port::Verify, &verify, &interface.where);
    }
    if (error != 0) {
        return error;
    }
    interface.search = std::move(search);
    interface.verify = std::move(verify);
    return 0;
}

TimePoint Interfaces::Expire(TimePoint now, bool* changed) {
    const LockGuard lock(m_mutex);
    TimePoint next = TimePoint::max();
    for (auto& entry : m_interfaces) {
        Interface& interface = entry.second;
        if (!interface.IsWaiting()) {
            continue;
        }
        const TimePoint end = interface.lostAt + m_timings.linkGrace;
        if (now >= end) {
            interface.lostAt = TimePoint();
            *changed = true;
        } else {
            next = std::min(next, end);
        }
    }
    return next;
}

std::vector<InterfacePresence> Interfaces::GetPresence() const {
    const LockGuard lock(m_mutex);
    std::vector<InterfacePresence> present;
    for (const auto& [index, interface] : m_interfaces) {
        if (interface.IsUsed()) {
            present.push_back({index, InterfacePresence::Use::Used, interface.version});
        }
        if (interface.IsWaiting()) {
            present.push_back({index, InterfacePresence::Use::Waiting, interface.version});
        }
    }
    return present;
}

void Interfaces::Broadcasted(int interface, int error) {
    const LockGuard lock(m_mutex);
    const auto found = m_interfaces.find(interface);
    if (found != m_interfaces.end()) {
        found->second.sendError = error;
    }
}

// ---- Any thread ----------------------------------------------------------------------------------------------------

void Interfaces::Probed(int interface, int error, TimePoint now) {
    const LockGuard lock(m_mutex);
    const auto found = m_interfaces.find(interface);
    if (found == m_interfaces.end()) {
        return;
    }
    found->second.probeError = error;
    if (error == 0) {
        found->second.refusedSince = TimePoint();
    } else if (found->second.refusedSince == TimePoint()) {
        found->second.refusedSince = now;
    }
}

std::vector<UsedInterface> Interfaces::GetUsed() const {
    const LockGuard lock(m_mutex);
    std::vector<UsedInterface> used;
    for (const auto& entry : m_interfaces) {
        if (entry.second.IsUsed()) {
            used.push_back({entry.second.info, entry.second.search, entry.second.verify});
        }
    }
    return used;
}

std::optional<UsedInterface> Interfaces::FindUsed(int interface) const {
    const LockGuard lock(m_mutex);
    const auto found = m_interfaces.find(interface);
    if (found == m_interfaces.end() || !found->second.IsUsed()) {
        return std::nullopt;
    }
    return UsedInterface{found->second.info, found->second.search, found->second.verify};
}

std::string Interfaces::GetName(int interface) const {
    const LockGuard lock(m_mutex);
    const auto found = m_interfaces.find(interface);
    return found != m_interfaces.end() ? found->second.info.name : std::string();
}

std::vector<std::pair<InterfaceAddress, NetworkInterface>> Interfaces::GetAddresses() const {
    const LockGuard lock(m_mutex);
    std::vector<std::pair<InterfaceAddress, NetworkInterface>> addresses;
    for (const auto& entry : m_interfaces) {
        for (const InterfaceAddress& address : entry.second.info.addresses) {
            addresses.emplace_back(address, entry.second.info);
        }
    }
    return addresses;
}

// The kernel is asked about an address once a second. When there are too many to ask about, what it said last holds,
// and of those it was never asked about there is none.
bool Interfaces::HasRoute(int interface, std::uint32_t ip, TimePoint now) {
    const auto found = m_routes.find({interface, ip});
    if (found != m_routes.end() && now - found->second.askedAt < RouteLifetime) {
        return found->second.direct;
    }
    if (now - m_questionsSince >= RouteLifetime) {
        m_questionsSince = now;
        m_numQuestions = 0;
    }
    if (m_numQuestions >= MostRouteQuestions) {
        return found != m_routes.end() && found->second.direct;
    }
    ++m_numQuestions;
    if (m_routes.size() >= MaxRouteAnswers) {
        std::erase_if(m_routes, [](const auto& answer) { return !answer.second.direct; });
    }
    RouteAnswer& answer = m_routes[{interface, ip}];
    answer = {m_askForRoute(interface, ip), now};
    return answer.direct;
}

GigEUsability Interfaces::JudgeOne(const Interface& interface, const GvcpDiscoveryRecord& record) {
    const bool route =
        NeedsRoute(interface.info, record.ipAddress) && HasRoute(interface.info.index, record.ipAddress, Clock::now());
    return UsabilityOfAddress(interface.info, record, route);
}

GigEUsability Interfaces::Judge(int interface, const GvcpDiscoveryRecord& record) {
    const LockGuard lock(m_mutex);
    const auto found = m_interfaces.find(interface);
    return found != m_interfaces.end() ? JudgeOne(found->second, record) : GigEUsability::OtherSubnet;
}

bool Interfaces::IsInReach(int interface, std::uint32_t ip) {
    GvcpDiscoveryRecord record{};  // of a camera that knows its way back
    record.ipAddress = ip;
    const GigEUsability usability = Judge(interface, record);
    return usability == GigEUsability::Usable || usability == GigEUsability::AddressTaken;
}

bool Interfaces::HasRefusals() const {
    const LockGuard lock(m_mutex);
    return m_kernelError != 0 || std::any_of(m_interfaces.begin(), m_interfaces.end(),
                                             [](const auto& entry) { return entry.second.error != 0; });
}

std::uint32_t Interfaces::GetStatus() const {
    const LockGuard lock(m_mutex);
    const auto isUsed = [](const auto& entry) { return entry.second.IsUsed(); };
    if (std::any_of(m_interfaces.begin(), m_interfaces.end(), isUsed)) {
        return HAL_OK;
    }
    for (const auto& entry : m_interfaces) {
        if (entry.second.error != 0) {
            return StatusOfErrno(entry.second.error);
        }
    }
    return m_kernelError != 0 ? StatusOfErrno(m_kernelError) : std::uint32_t{HAL_NO_BUS};
}

void Interfaces::Diagnose(GigEDiagnosis* diagnosis) const {
    const LockGuard lock(m_mutex);
    diagnosis->error = m_kernelError;
    for (const auto& [index, interface] : m_interfaces) {
        InterfaceDiagnosis entry;
        entry.interface = interface.info;
        entry.used = interface.IsUsed();
        entry.reason = interface.reason;
        entry.error = interface.error;
        entry.sendError = interface.sendError;
        if (interface.search) {
            entry.localPort = interface.search->GetLocalPort();
        }
        diagnosis->interfaces.push_back(entry);
    }
}

void Interfaces::AddProblems(GigESearchReport* report) const {
    using Kind = GigESearchProblem::Kind;
    const LockGuard lock(m_mutex);
    if (m_kernelError != 0) {
        report->problems.push_back({0,
                                    {},
                                    Kind::Interfaces,
                                    m_kernelError,
                                    "the kernel does not tell its network interfaces: " + ErrorText(m_kernelError)});
    }
    const TimePoint now = Clock::now();
    for (const auto& [index, interface] : m_interfaces) {
        const auto add = [&, number = index, &name = interface.info.name](Kind kind, int error, std::string reason,
                                                                          bool inPart = false) {
            report->problems.push_back({number, name, kind, error, std::move(reason), inPart});
        };
        if (interface.error == EADDRINUSE) {
            add(Kind::SourcePorts, interface.error, "all source ports are in use");
        } else if (interface.error != 0) {
            add(Kind::Socket, interface.error, "no socket: " + ErrorText(interface.error));
        }
        if (!interface.IsUsed()) {
            continue;
        }
        const bool refused =
            interface.refusedSince != TimePoint() && now - interface.refusedSince >= m_timings.refusedGrace;
        if (interface.sendError != 0) {
            add(Kind::Broadcast, interface.sendError, "broadcasts are refused: " + ErrorText(interface.sendError));
        } else if (refused) {
            add(Kind::Request, interface.probeError,
                "requests for single cameras are refused: " + ErrorText(interface.probeError), true);
        }
    }
}

}  // namespace Nimbrel2::Platform::GigE
