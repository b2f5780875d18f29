// SPDX-License-Identifier: Apache-2.0
// The monitor thread: it alone reads the sockets of the interfaces, asks who is there, and keeps Interfaces and
// Presence current. What else needs sockets in the driver's network namespace has them made on this thread.
// Takes the locks of the parts for each step, one at a time; never waits for the network with one held.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_MONITOR_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_MONITOR_H

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "platform/base/MonitorThread.h"
#include "platform/base/Mutex.h"
#include "platform/base/RouteSocket.h"
#include "platform/linux/gige/BroadcastSchedule.h"
#include "platform/linux/gige/Interfaces.h"
#include "platform/linux/gige/Presence.h"
#include "platform/linux/gige/UnverifiedBudget.h"

namespace Nimbrel2::Platform::GigE {

class Monitor final : public DatagramHandler {
public:
    Monitor(const Timings& timings, RequestIds& ids, Interfaces& interfaces, Presence& presence, RouteSocket& routes,
            std::optional<GigECameraName> searchFor);
    ~Monitor() override { Stop(); }

    /// Looks at the interfaces, so that the first listing knows whether there is a network to wait for, and starts the
    /// thread. @return HAL_OK, HAL_OUT_OF_MEMORY, or what the errno of a refused descriptor is.
    std::uint32_t Start();
    void Stop();

    /// Readable from Stop on.
    int GetStopFd() const { return m_stop.Get(); }

    /// Runs the function on the monitor thread, soon, and waits for its end. What it throws comes out here. It must not
    /// wait for anything, and no lock that the monitor takes may be held. @return false when the monitor has ended: the
    /// function was not called.
    bool Run(const std::function<void()>& function);

    /// Something has become due sooner than the monitor knows. Any thread.
    void Wake() { m_thread.Wake(); }
    /// Every interface is searched anew. Any thread.
    void StartBursts();
    /// Any thread.
    void SendProbes(const std::vector<Probe>& probes);

    void OnDatagram(UdpSocket& socket, std::uint32_t from, std::uint16_t fromPort,
                    std::span<const std::uint8_t> bytes) override;

private:
    struct Task {
        const std::function<void()>* function = nullptr;
        Task* next = nullptr;
        bool ran = false;
        bool ended = false;
        std::exception_ptr failure;
    };
    struct Polled {
        std::shared_ptr<UdpSocket> socket;
        Port port = Port::Search;
    };

    void Turn();
    void DoTurn();
    void RunTasks(bool running);
    int OpenSockets();
    void Look();
    void Apply();
    void FollowSockets(const std::vector<UsedInterface>& used);
    TimePoint RunDueWork();
    void SendBroadcast(const BroadcastSchedule::Broadcast& broadcast, TimePoint now);
    void AskForHosts(TimePoint now);
    void OnDiscoveryAcknowledge(UdpSocket& socket, std::uint32_t from, std::span<const std::uint8_t> bytes);

    const Timings& m_timings;
    Interfaces& m_interfaces;
    Presence& m_presence;
    RouteSocket& m_routes;
    const std::optional<GigECameraName> m_searchFor;

    MonitorThread m_thread;
    FileDescriptor m_stop;
    std::atomic<bool> m_burstsWanted{false};

    // The monitor thread's own, and Start's before there is one.
    ChangeSocket m_changes;
    BroadcastSchedule m_schedule;
    UnverifiedBudget m_budget;
    std::vector<Polled> m_polled;
    std::vector<Probe> m_probes;     ///< that answers have brought, to be sent at the end of a turn
    Port m_draining = Port::Search;  ///< whose datagrams these are
    bool m_lookDue = true;           ///< the kernel is to be asked about interfaces
    bool m_applyDue = true;          ///< what is known of interfaces has changed
    TimePoint m_retryRefused = TimePoint::max();
    TimePoint m_nextHosts;

    Mutex m_mutex;
    ConditionVariable m_taskEnded;
    bool m_running NIMBREL2_GUARDED_BY(m_mutex) = false;  ///< takes tasks
    Task* m_firstTask NIMBREL2_GUARDED_BY(m_mutex) = nullptr;
    Task* m_lastTask NIMBREL2_GUARDED_BY(m_mutex) = nullptr;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
