// SPDX-License-Identifier: Apache-2.0
// The network interfaces of this computer and the monitor's two sockets on each: which are used, why others are not,
// and what refuses to let requests out. Only the monitor thread changes them; any thread may ask.
// m_mutex is a leaf but for RouteSocket's, held while the kernel is asked for a route, which takes microseconds.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_INTERFACES_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_INTERFACES_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/base/Mutex.h"
#include "platform/linux/gige/CameraTable.h"
#include "platform/linux/gige/Presence.h"
#include "platform/linux/gige/UdpSocket.h"

namespace Nimbrel2::Platform::GigE {

/// An interface in use, and the sockets of the monitor.
struct UsedInterface {
    NetworkInterface info;
    std::shared_ptr<UdpSocket> search;
    std::shared_ptr<UdpSocket> verify;

    const std::shared_ptr<UdpSocket>& Of(Port port) const { return port == Port::Search ? search : verify; }
};

class Interfaces {
public:
    using Opener = std::function<int(const NetworkInterface&, Port, std::shared_ptr<UdpSocket>*, std::string* where)>;
    using RouteFinder = std::function<bool(int interface, std::uint32_t ip)>;

    /// Questions to the kernel in one second. Cameras that a route leads to are few; invented ones may be many.
    static constexpr int MostRouteQuestions = 100;

    /// @param wanted  Names that the user has limited GigE to; empty for no limit.
    Interfaces(std::vector<std::string> wanted, const Timings& timings, Opener open, RouteFinder hasRoute);

    // ---- The monitor thread, and whoever starts the driver before there is one

    /// What the kernel says now. Opens and closes sockets. What memory ends is done by the next call.
    void Update(const std::vector<NetworkInterface>& found, TimePoint now);
    /// The kernel did not say: what was known stays.
    void UpdateRefused(int error);
    /// Forgets links that have been lost for too long. @return when the next one will have been.
    /// @param changed  Set to true when there was one.
    TimePoint Expire(TimePoint now, bool* changed);
    std::vector<InterfacePresence> GetPresence() const;
    void Broadcasted(int interface, int error);

    // ---- Any thread

    /// Probes of present cameras were sent or refused: 0 or an errno.
    void Probed(int interface, int error, TimePoint now);

    std::vector<UsedInterface> GetUsed() const;
    std::optional<UsedInterface> FindUsed(int interface) const;
    std::string GetName(int interface) const;
    /// Every address of this computer, used interfaces or not, with its interface.
    std::vector<std::pair<InterfaceAddress, NetworkInterface>> GetAddresses() const;

    /// What the addresses say about a camera that the interface has heard.
    GigEUsability Judge(int interface, const GvcpDiscoveryRecord& record);
    /// Whether this computer can talk to that address through the interface.
    bool IsInReach(int interface, std::uint32_t ip);

    bool HasRefusals() const;
    /// HAL_OK when one is used; else what a service answers.
    std::uint32_t GetStatus() const;
    void Diagnose(GigEDiagnosis* diagnosis) const;
    void AddProblems(GigESearchReport* report) const;

private:
    struct Interface {
        NetworkInterface info;
        std::shared_ptr<UdpSocket> search;  ///< both are kept while the interface may come back
        std::shared_ptr<UdpSocket> verify;
        std::string reason;  ///< why it is not used; empty when it is
        int error = 0;       ///< errno of a socket that was refused
        std::string where;   ///< what was refused
        int sendError = 0;   ///< errno of the last broadcast
        int probeError = 0;  ///< errno of the last probe
        std::uint32_t version = 1;
        TimePoint refusedSince;  ///< no probe was sent since; the epoch: they are
        TimePoint lostAt;        ///< its link; the epoch: it has one, or never had

        bool IsUsed() const { return reason.empty() && search && verify; }
        bool IsWaiting() const { return !IsUsed() && lostAt != TimePoint(); }
    };

    struct RouteAnswer {
        bool direct = false;
        TimePoint askedAt;
    };

    void UpdateOne(Interface& interface, const NetworkInterface& now, TimePoint time) NIMBREL2_REQUIRES(m_mutex);
    int OpenSockets(Interface& interface) NIMBREL2_REQUIRES(m_mutex);
    bool HasRoute(int interface, std::uint32_t ip, TimePoint now) NIMBREL2_REQUIRES(m_mutex);
    GigEUsability JudgeOne(const Interface& interface, const GvcpDiscoveryRecord& record) NIMBREL2_REQUIRES(m_mutex);

    const std::vector<std::string> m_wanted;
    const Timings& m_timings;
    const Opener m_open;
    const RouteFinder m_askForRoute;

    mutable Mutex m_mutex;
    std::map<int, Interface> m_interfaces NIMBREL2_GUARDED_BY(m_mutex);
    int m_kernelError NIMBREL2_GUARDED_BY(m_mutex) = 0;  ///< errno of the last look at the interfaces
    std::map<std::pair<int, std::uint32_t>, RouteAnswer> m_routes NIMBREL2_GUARDED_BY(m_mutex);
    TimePoint m_questionsSince NIMBREL2_GUARDED_BY(m_mutex);
    int m_numQuestions NIMBREL2_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
