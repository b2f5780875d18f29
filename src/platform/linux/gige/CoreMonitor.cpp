// SPDX-License-Identifier: Apache-2.0
// The monitor thread: reads the sockets, asks who is there, and reports who came and left. Parts of it run on every
// thread that reads a socket while it waits for an answer. Takes m_mutex for each step; never waits with it.
#include <sys/eventfd.h>

#include <cerrno>
#include <new>
#include <system_error>

#include "platform/base/StartThread.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::uint64_t kChangesToken = 0;
constexpr std::uint8_t kDiscoveryFlags = Gvcp::Flag::kAcknowledgeRequired | Gvcp::Flag::kAllowBroadcastAcknowledge;
// What one interface may take of the monitor's time before the others and the deadlines have their turn.
constexpr std::size_t kReadBudget = 256;
// Deadlines are met this much later at most: with thousands of cameras, most ticks serve many of them.
constexpr Milliseconds kTickGrid{5};

TimePoint OnGrid(TimePoint deadline) {
    if (deadline == TimePoint::max()) return deadline;
    const auto since = std::chrono::ceil<Milliseconds>(deadline.time_since_epoch());
    return TimePoint((since + kTickGrid - Milliseconds(1)) / kTickGrid * kTickGrid);
}

}  // namespace

std::uint32_t GigECore::Start() {
    int error = m_poller.Open();
    if (error == 0) {
        m_stop = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!m_stop.IsOpen()) error = errno;
    }
    if (error != 0) return StatusOfErrno(error);
    m_replies = std::make_unique<PendingReplies>(m_poller, m_stop.Get());
    {
        std::lock_guard lock(m_mutex);
        m_running = true;
    }
    // Here and not on the monitor thread, so that the first listing knows whether there is a network to wait for.
    LookAtInterfaces();
    try {
        m_monitor = StartThread("gige-monitor", [this] { MonitorLoop(); });
    } catch (const std::system_error&) {
        std::lock_guard lock(m_mutex);
        m_running = false;
        return HAL_OUT_OF_MEMORY;
    }
    return HAL_OK;
}

void GigECore::Stop() {
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return;
        m_running = false;
        m_changed.notify_all();
    }
    m_stopping = true;
    m_replies->Close();
    const std::uint64_t one = 1;
    while (::write(m_stop.Get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
    m_poller.Wake();
    if (m_monitor.joinable()) m_monitor.join();
}

void GigECore::MonitorLoop() {
    m_monitorId = std::this_thread::get_id();
    while (!m_stopping) {
        try {
            MonitorTurn();
        } catch (const std::bad_alloc&) {
            // What this turn has left undone the next ones do, the look at the interfaces included.
            m_retryRefused = Clock::now();
            std::this_thread::sleep_for(kTickGrid);
        }
    }
}

void GigECore::MonitorTurn() {
    std::vector<std::uint64_t> ready;
    std::vector<std::shared_ptr<UdpPort>> ports;
    m_poller.Wait(DoWhatIsDue(), &ready);
    bool look = Clock::now() >= m_retryRefused;
    if (look) m_retryRefused = TimePoint::max();
    for (const std::uint64_t token : ready) {
        if (token == kChangesToken) {
            look = m_changes.Drain() || look;
            continue;
        }
        std::lock_guard lock(m_mutex);
        const auto found = m_interfaces.find(static_cast<int>(token));
        if (found != m_interfaces.end() && found->second.port) ports.push_back(found->second.port);
    }
    // Before the deadlines are looked at: an answer that lies on the socket has come in time.
    for (const auto& port : ports) port->Drain(kReadBudget, *this);
    if (look) LookAtInterfaces();
}

TimePoint GigECore::DoWhatIsDue() {
    std::vector<Probe> probes;
    TimePoint next = TimePoint::max();
    {
        std::lock_guard lock(m_mutex);
        const TimePoint now = Clock::now();
        bool refused = m_routesRefused != 0;
        for (auto& entry : m_interfaces) {
            Interface& interface = entry.second;
            if (interface.error != 0) refused = true;
            if (!interface.IsUsed()) continue;
            if (now >= interface.nextBroadcast) SendBroadcast(interface, now);
            next = std::min(next, interface.nextBroadcast);
        }
        std::erase_if(m_broadcasts, [&](const auto& entry) {
            if (now < entry.second.until) return false;
            m_ids.Release(entry.first);
            return true;
        });
        m_table.Tick(now, &probes);
        next = std::min(next, m_table.GetNextDeadline());
        if (refused && m_retryRefused == TimePoint::max()) m_retryRefused = now + m_timings.refusedRetry;
        next = std::min(next, m_retryRefused);
        if (m_numWaiting > 0) m_changed.notify_all();
        ReportChanges();
    }
    SendProbes(probes);
    return OnGrid(next);
}

void GigECore::SendBroadcast(Interface& interface, TimePoint now) {
    const bool burst = interface.requestsLeft > 0;
    std::uint16_t id = burst ? interface.burstId : std::uint16_t{0};
    if (id == 0 || m_broadcasts.count(id) == 0) id = m_ids.Take();
    if (burst) {
        interface.burstId = id;
        --interface.requestsLeft;
    }
    // The next one even if this one fails: what refuses it now may let it through then.
    interface.nextBroadcast = now + (interface.requestsLeft > 0 ? m_timings.discoveryWindow / m_timings.windowRequests
                                                                : m_timings.broadcastPeriod);
    if (id == 0) return;
    m_broadcasts[id] =
        Broadcast{interface.info.index, now + std::max(m_timings.broadcastAnswer, m_timings.discoveryWindow)};
    interface.sendError = interface.port->Broadcast(Gvcp::EncodeDiscoveryCommand(id, kDiscoveryFlags).GetBytes());
    if (m_windowEnd == TimePoint::max()) {
        m_windowEnd = now + m_timings.discoveryWindow;
        m_changed.notify_all();
    }
}

void GigECore::SendProbes(const std::vector<Probe>& probes) {
    std::vector<std::uint16_t> refused;
    for (const Probe& probe : probes) {
        std::shared_ptr<UdpPort> port;
        std::uint32_t from = 0;
        {
            std::lock_guard lock(m_mutex);
            const auto found = m_interfaces.find(probe.interface);
            if (found == m_interfaces.end() || !found->second.IsUsed()) continue;
            port = found->second.port;
            from = LocalAddressFor(found->second.info, probe.ip);
        }
        const int error =
            port->Send(Gvcp::EncodeDiscoveryCommand(probe.id, kDiscoveryFlags).GetBytes(), probe.ip, from);
        if (error == EAGAIN || error == ENOBUFS) refused.push_back(probe.id);
    }
    if (refused.empty()) return;
    std::lock_guard lock(m_mutex);
    for (const std::uint16_t id : refused) m_table.ProbeRefused(id);
}

void GigECore::OnDatagram(UdpPort& port, std::uint32_t from, std::uint16_t fromPort,
                          std::span<const std::uint8_t> bytes) {
    if (fromPort != Gvcp::kPort) return;
    try {
        OnAcknowledge(port, from, bytes);
    } catch (const std::bad_alloc&) {
        // Lost, as datagrams are.
    }
}

void GigECore::OnAcknowledge(UdpPort& port, std::uint32_t from, std::span<const std::uint8_t> bytes) {
    const Gvcp::DecodedAcknowledge acknowledge = Gvcp::DecodeAcknowledge(bytes);
    if (acknowledge.error == Gvcp::DecodeError::TooShort || acknowledge.error == Gvcp::DecodeError::NotAnAcknowledge) {
        return;
    }
    if (acknowledge.header.id != Gvcp::MessageId::DiscoveryAck) {
        m_replies->Deliver(port.GetInterface(), from, acknowledge, Clock::now());
    } else if (const auto* discovery = std::get_if<Gvcp::DiscoveryAcknowledge>(&acknowledge.body)) {
        OnDiscoveryAcknowledge(port, from, acknowledge.header.ackId, discovery->record);
    }
}

// Whether an answer belongs to a broadcast on that interface that is not too long ago, and does not come from a sender
// that has brought more news than it can have.
bool GigECore::TakesAnswer(const Interface& interface, std::uint32_t from, std::uint16_t id, const CameraKey& key,
                           TimePoint now) {
    const auto broadcast = m_broadcasts.find(id);
    if (broadcast == m_broadcasts.end()) return false;
    if (broadcast->second.interface != interface.info.index || now >= broadcast->second.until) return false;
    const CameraTable::Camera* camera = m_table.Find(key);
    return (camera != nullptr && camera->listed != nullptr) || m_hearsay.Take(from, now);
}

void GigECore::OnDiscoveryAcknowledge(UdpPort& port, std::uint32_t from, std::uint16_t id,
                                      const GvcpDiscoveryRecord& record) {
    std::vector<Probe> probes;
    {
        std::lock_guard lock(m_mutex);
        const auto found = m_interfaces.find(port.GetInterface());
        if (!m_running || found == m_interfaces.end() || !found->second.IsUsed()) return;
        const int index = found->first;
        const Interface& interface = found->second;
        const CameraKey key = KeyOf(record);
        const TimePoint now = Clock::now();
        bool reachable = true;
        if (!m_table.HeardProbe(index, from, id, record, now, &probes)) {
            if (!TakesAnswer(interface, from, id, key, now)) return;
            reachable = IsReachable(interface, record.ipAddress, now);
            m_table.HeardBroadcast(index, record, reachable, now, &probes);
        }
        Collect(key, DiscoveredCamera{record, index, reachable, now});
        if (m_numWaiting > 0) m_changed.notify_all();
        // The monitor knows nothing of the deadlines that another thread's datagrams have brought.
        if (std::this_thread::get_id() != m_monitorId.load()) m_poller.Wake();
    }
    SendProbes(probes);
}

void GigECore::ReportChanges() {
    m_reportDue = m_table.TakeChanged() || m_reportDue;
    if (!m_running || !m_reportDue) return;
    m_events.Report(GetState());
    m_reportDue = false;
}

}  // namespace Nimbrel2::Platform::GigE
