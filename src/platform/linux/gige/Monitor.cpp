// SPDX-License-Identifier: Apache-2.0
// The monitor thread. Everything but Run, Wake, StartBursts and SendProbes runs on it alone; m_mutex for the hand-over
// of tasks.
#include "platform/linux/gige/Monitor.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <new>
#include <set>
#include <variant>

#include "platform/base/CameraAddress.h"
#include "platform/base/Errno.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::GigE {

namespace {

/// What the poller calls the socket of link and address changes; the others go by their descriptor.
constexpr std::uint64_t ChangesToken = ~std::uint64_t{0} >> 8;
constexpr std::uint8_t DiscoveryFlags = Gvcp::Flag::AcknowledgeRequired | Gvcp::Flag::AllowBroadcastAcknowledge;
// What one socket may take of the monitor's time before the others and the deadlines have their turn.
constexpr std::size_t ReadBudget = 256;
// Deadlines are met this much later at most: with thousands of cameras, most ticks serve many of them.
constexpr Milliseconds TickGrid{5};
constexpr std::size_t HeaderBytes = 8;

TimePoint OnGrid(TimePoint deadline) {
    if (deadline == TimePoint::max()) {
        return deadline;
    }
    const auto since = std::chrono::ceil<Milliseconds>(deadline.time_since_epoch());
    return TimePoint((since + TickGrid - Milliseconds(1)) / TickGrid * TickGrid);
}

std::uint64_t TokenOf(const UdpSocket& socket) { return static_cast<std::uint64_t>(socket.GetFd()); }

}  // namespace

Monitor::Monitor(const Timings& timings, RequestIds& ids, Interfaces& interfaces, Presence& presence,
                 RouteSocket& routes, std::optional<GigECameraName> searchFor)
    : m_timings(timings),
      m_interfaces(interfaces),
      m_presence(presence),
      m_routes(routes),
      m_searchFor(searchFor),
      m_schedule(timings, ids) {}

std::uint32_t Monitor::Start() {
    if (const std::uint32_t status = m_thread.Open(); status != HAL_OK) {
        return status;
    }
    m_stop = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_stop.IsOpen()) {
        return StatusOfErrno(errno);
    }
    Look();
    Apply();
    {
        const LockGuard lock(m_mutex);
        m_running = true;
    }
    const std::uint32_t status = m_thread.Start("gige-monitor", [this] { Turn(); });
    if (status != HAL_OK) {
        const LockGuard lock(m_mutex);
        m_running = false;
    }
    return status;
}

void Monitor::Stop() {
    if (!m_stop.IsOpen() || m_thread.IsStopping()) {
        return;
    }
    const std::uint64_t one = 1;
    while (::write(m_stop.Get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
    m_thread.Stop();
    RunTasks(false);
}

void Monitor::Turn() {
    try {
        DoTurn();
    } catch (const std::bad_alloc&) {
        // What this turn has left undone the next ones do.
        m_lookDue = true;
        throw;
    }
}

void Monitor::DoTurn() {
    std::vector<std::uint64_t> ready;
    m_thread.GetPoller().Wait(RunDueWork(), &ready);
    const auto isReady = [&](std::uint64_t token) {
        return std::find(ready.begin(), ready.end(), token) != ready.end();
    };
    if (isReady(ChangesToken) && m_changes.Drain()) {
        m_lookDue = true;
    }
    RunTasks(true);
    // Before the deadlines are looked at: an answer that lies on the socket has come in time. Those of present cameras
    // first: no flood of others keeps them waiting.
    for (const Port port : {Port::Verify, Port::Search}) {
        m_draining = port;
        for (const Polled& polled : m_polled) {
            if (polled.port == port && isReady(TokenOf(*polled.socket))) {
                polled.socket->Drain(ReadBudget, *this);
            }
        }
    }
}

// ---- What other threads want ---------------------------------------------------------------------------------------

bool Monitor::Run(const std::function<void()>& function) {
    if (m_thread.IsCurrent()) {
        function();
        return true;
    }
    Task task;
    task.function = &function;
    UniqueLock lock(m_mutex);
    if (!m_running) {
        return false;
    }
    (m_lastTask != nullptr ? m_lastTask->next : m_firstTask) = &task;
    m_lastTask = &task;
    m_thread.Wake();
    m_taskEnded.Wait(lock, [&task] { return task.ended; });
    if (task.failure) {
        std::rethrow_exception(task.failure);
    }
    return task.ran;
}

void Monitor::RunTasks(bool running) {
    Task* task = nullptr;
    {
        const LockGuard lock(m_mutex);
        m_running = running;
        task = m_firstTask;
        m_firstTask = m_lastTask = nullptr;
    }
    while (task != nullptr) {
        Task* const next = task->next;
        if (running) {
            try {
                (*task->function)();
                task->ran = true;
            } catch (...) {
                task->failure = std::current_exception();
            }
        }
        const LockGuard lock(m_mutex);
        task->ended = true;
        m_taskEnded.NotifyAll();
        task = next;
    }
}

void Monitor::StartBursts() {
    m_burstsWanted = true;
    m_thread.Wake();
}

void Monitor::SendProbes(const std::vector<Probe>& probes) {
    std::optional<UsedInterface> interface;
    std::vector<std::uint16_t> refused;
    const TimePoint now = Clock::now();
    for (const Probe& probe : probes) {
        if (!interface || interface->info.index != probe.interface) {
            interface = m_interfaces.FindUsed(probe.interface);
        }
        if (!interface) {
            continue;
        }
        const auto packet = Gvcp::EncodeDiscoveryCommand(probe.id, DiscoveryFlags);
        const int error =
            interface->Of(probe.port)->Send(packet.GetBytes(), probe.ip, LocalAddressFor(interface->info, probe.ip));
        if (error != 0) {
            refused.push_back(probe.id);
        }
        if (probe.port == Port::Verify) {
            m_interfaces.Probed(probe.interface, error, now);
        }
    }
    if (!refused.empty()) {
        m_presence.ProbesRefused(refused, now);
    }
}

// ---- Interfaces ----------------------------------------------------------------------------------------------------

// Listens before it looks, so that nothing that changes in between is missed. A computer that refuses one or the other
// is asked again every second.
int Monitor::OpenSockets() {
    if (!m_changes.IsOpen()) {
        int error = m_changes.Open();
        if (error == 0) {
            error = m_thread.GetPoller().Add(m_changes.GetFd(), ChangesToken);
        }
        if (error != 0) {
            return error;
        }
    }
    return m_routes.IsOpen() ? 0 : m_routes.Open();
}

void Monitor::Look() {
    std::vector<NetworkInterface> found;
    int error = OpenSockets();
    if (error == 0) {
        error = m_routes.ReadInterfaces(&found);
    }
    m_applyDue = true;
    if (error == 0) {
        m_interfaces.Update(found, Clock::now());
    } else {
        m_interfaces.UpdateRefused(error);
    }
    m_lookDue = false;
    m_retryRefused = m_interfaces.HasRefusals() ? Clock::now() + m_timings.refusedRetry : TimePoint::max();
}

void Monitor::Apply() {
    const std::vector<UsedInterface> used = m_interfaces.GetUsed();
    std::vector<int> indices;
    for (const UsedInterface& interface : used) {
        indices.push_back(interface.info.index);
    }
    const TimePoint now = Clock::now();
    FollowSockets(used);
    m_presence.Follow(
        m_interfaces.GetPresence(),
        [this](int interface, const GvcpDiscoveryRecord& record) { return m_interfaces.Judge(interface, record); },
        now);
    m_schedule.Follow(indices, now);
    m_applyDue = false;
}

void Monitor::FollowSockets(const std::vector<UsedInterface>& used) {
    std::erase_if(m_polled, [&](const Polled& polled) {
        const bool kept = std::any_of(used.begin(), used.end(), [&](const UsedInterface& interface) {
            return interface.Of(polled.port) == polled.socket;
        });
        if (!kept) {
            m_thread.GetPoller().Remove(polled.socket->GetFd());
        }
        return !kept;
    });
    for (const UsedInterface& interface : used) {
        for (const Port port : {Port::Search, Port::Verify}) {
            const std::shared_ptr<UdpSocket>& socket = interface.Of(port);
            const bool known = std::any_of(m_polled.begin(), m_polled.end(),
                                           [&](const Polled& polled) { return polled.socket == socket; });
            if (known) {
                continue;
            }
            m_polled.reserve(m_polled.size() + 1);
            if (m_thread.GetPoller().Add(socket->GetFd(), TokenOf(*socket)) == 0) {
                m_polled.push_back({socket, port});
            } else {
                m_retryRefused = Clock::now() + m_timings.refusedRetry;
            }
        }
    }
}

// ---- What is due ---------------------------------------------------------------------------------------------------

TimePoint Monitor::RunDueWork() {
    if (m_lookDue || Clock::now() >= m_retryRefused) {
        Look();
    }
    TimePoint next = m_interfaces.Expire(Clock::now(), &m_applyDue);
    if (m_applyDue) {
        Apply();
    }

    const TimePoint now = Clock::now();
    if (m_burstsWanted.exchange(false)) {
        m_schedule.StartBursts(now);
    }
    for (const auto& broadcast : m_schedule.TakeDue(now)) {
        SendBroadcast(broadcast, now);
    }
    AskForHosts(now);
    std::vector<Probe> probes;
    probes.swap(m_probes);
    next = std::min({next, m_presence.Tick(now, &probes), m_schedule.GetNextDeadline(), m_retryRefused});
    SendProbes(probes);
    return OnGrid(next);
}

void Monitor::SendBroadcast(const BroadcastSchedule::Broadcast& broadcast, TimePoint now) {
    const auto interface = m_interfaces.FindUsed(broadcast.interface);
    if (!interface) {
        return;
    }
    const auto packet = Gvcp::EncodeDiscoveryCommand(broadcast.id, DiscoveryFlags);
    m_interfaces.Broadcasted(broadcast.interface, interface->search->Broadcast(packet.GetBytes()));
    m_presence.Broadcasted(broadcast.interface, now);
    // A camera that somebody waits for need not take the time that cameras take to answer broadcasts.
    if (!m_searchFor || m_searchFor->ip == 0 || !m_interfaces.IsInReach(broadcast.interface, m_searchFor->ip)) {
        return;
    }
    interface->search->Send(packet.GetBytes(), m_searchFor->ip, LocalAddressFor(interface->info, m_searchFor->ip));
}

void Monitor::AskForHosts(TimePoint now) {
    if (now < m_nextHosts || !m_presence.HasBacklog(now)) {
        return;
    }
    m_nextHosts = now + m_timings.hostsPeriod;
    for (const Polled& polled : m_polled) {
        if (polled.port != Port::Search) {
            continue;
        }
        std::map<std::uint32_t, std::uint64_t> neighbours;
        if (m_routes.ReadNeighbours(polled.socket->GetInterface(), &neighbours) != 0) {
            continue;
        }
        std::set<std::uint32_t> hosts;
        for (const auto& neighbour : neighbours) {
            hosts.insert(neighbour.first);
        }
        m_presence.KnowHosts(polled.socket->GetInterface(), std::move(hosts));
    }
}

// ---- Answers -------------------------------------------------------------------------------------------------------

void Monitor::OnDatagram(UdpSocket& socket, std::uint32_t from, std::uint16_t fromPort,
                         std::span<const std::uint8_t> bytes) {
    if (fromPort != Gvcp::Port || bytes.size() < HeaderBytes) {
        return;
    }
    try {
        OnDiscoveryAcknowledge(socket, from, bytes);
    } catch (const std::bad_alloc&) {
        // Lost, as datagrams are.
    }
}

void Monitor::OnDiscoveryAcknowledge(UdpSocket& socket, std::uint32_t from, std::span<const std::uint8_t> bytes) {
    const TimePoint now = Clock::now();
    const int interface = socket.GetInterface();
    // Before anything that costs: this may be one of twenty thousand in a second.
    const std::uint16_t claimedId = Gvcp::LoadU16(&bytes[6]);
    const bool toBroadcast = m_draining == Port::Search && m_schedule.Accepts(interface, claimedId, now);
    if (toBroadcast && !m_budget.Take(from, now)) {
        return;
    }

    const Gvcp::DecodedAcknowledge acknowledge = Gvcp::DecodeAcknowledge(bytes);
    const auto* discovery = std::get_if<Gvcp::DiscoveryAcknowledge>(&acknowledge.body);
    if (discovery == nullptr) {
        return;
    }
    Answer answer;
    answer.interface = interface;
    answer.from = from;
    answer.record = discovery->record;
    answer.usability = m_interfaces.Judge(interface, answer.record);
    if (toBroadcast) {
        m_presence.HeardBroadcast(answer, now, &m_probes);
    } else {
        m_presence.HeardProbe(m_draining, answer, acknowledge.header.ackId, now, &m_probes);
    }
}

}  // namespace Nimbrel2::Platform::GigE
