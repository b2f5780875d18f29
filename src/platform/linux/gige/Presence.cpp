// SPDX-License-Identifier: Apache-2.0
// Who is there. Any thread; m_mutex for a few instructions, let go in every wait.
#include "platform/linux/gige/Presence.h"

#include <algorithm>
#include <string>
#include <tuple>

#include "platform/base/Texts.h"

namespace Nimbrel2::Platform::GigE {

namespace {

// The monitor sends the first request as its first act: a listing that comes before it waits no longer for that.
constexpr Milliseconds StartLimit{1000};

bool Matches(const GigECameraName& name, const CameraTable::Sighting& sighting) {
    return (name.ip == 0 || sighting.ip == name.ip) && (name.mac == 0 || MacOf(sighting.record) == name.mac);
}

}  // namespace

/// m_mutex is held at its begin, and at its end.
class Presence::Waiting {
public:
    explicit Waiting(Presence& presence) NIMBREL2_REQUIRES(presence.m_mutex) : m_presence(presence) {
        ++m_presence.m_numWaiting;
    }
    // Not analysed: the lock that is held lives longer than this, as every use shows.
    ~Waiting() NIMBREL2_NO_THREAD_SAFETY_ANALYSIS { --m_presence.m_numWaiting; }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    Presence& m_presence;
};

Presence::Presence(const Timings& timings, RequestIds& ids, std::optional<GigECameraName> searchFor,
                   BusEventSink& events)
    : m_timings(timings), m_searchFor(searchFor), m_events(events), m_table(timings, ids) {}

void Presence::Start() {
    const LockGuard lock(m_mutex);
    m_running = true;
}

void Presence::Stop() {
    const LockGuard lock(m_mutex);
    m_running = false;
    m_changed.NotifyAll();
}

bool Presence::IsRunning() const {
    const LockGuard lock(m_mutex);
    return m_running;
}

// ---- The monitor ---------------------------------------------------------------------------------------------------

void Presence::Follow(const std::vector<InterfacePresence>& interfaces, const Judge& judge, TimePoint now) {
    const LockGuard lock(m_mutex);
    // What is stored says what the table has been told, so that a run which memory ends is made up for by the next.
    for (auto known = m_interfaces.begin(); known != m_interfaces.end();) {
        const bool gone = std::none_of(interfaces.begin(), interfaces.end(),
                                       [&](const auto& interface) { return interface.interface == known->first; });
        if (gone) {
            m_table.DropInterface(known->first);
        }
        known = gone ? m_interfaces.erase(known) : std::next(known);
    }
    for (const InterfacePresence& interface : interfaces) {
        InterfacePresence& known = m_interfaces.try_emplace(interface.interface, interface).first->second;
        if (interface.use == InterfacePresence::Use::Waiting) {
            m_table.PauseInterface(interface.interface);
        } else {
            m_table.ResumeInterface(interface.interface, now);
        }
        if (known.version != interface.version) {
            m_table.Reclassify(
                interface.interface,
                [&](const GvcpDiscoveryRecord& record) { return judge(interface.interface, record); }, now);
        }
        known = interface;
    }
    Changed();
}

void Presence::Broadcasted(int interface, TimePoint now) {
    const LockGuard lock(m_mutex);
    m_table.Broadcasted(interface, now);
    if (m_windowEnd != TimePoint::max()) {
        return;
    }
    m_windowEnd = now + m_timings.discoveryWindow;
    m_changed.NotifyAll();
}

void Presence::HeardBroadcast(const Answer& answer, TimePoint now, std::vector<Probe>* probes) {
    const LockGuard lock(m_mutex);
    if (m_running && m_interfaces.count(answer.interface) != 0) {
        m_table.HeardBroadcast(answer, now, probes);
    }
}

bool Presence::HeardProbe(Port port, const Answer& answer, std::uint16_t id, TimePoint now,
                          std::vector<Probe>* probes) {
    const LockGuard lock(m_mutex);
    return m_running && m_table.HeardProbe(port, answer, id, now, probes);
}

void Presence::KnowHosts(int interface, std::set<std::uint32_t> hosts) {
    const LockGuard lock(m_mutex);
    m_table.KnowHosts(interface, std::move(hosts));
}

bool Presence::HasBacklog(TimePoint now) const {
    const LockGuard lock(m_mutex);
    return m_table.HasBacklog(now);
}

TimePoint Presence::Tick(TimePoint now, std::vector<Probe>* probes) {
    const LockGuard lock(m_mutex);
    m_table.Tick(now, probes);
    if (m_numWaiting > 0) {
        m_changed.NotifyAll();
    }
    Report();
    return m_table.GetNextDeadline();
}

void Presence::Changed() {
    if (m_numWaiting > 0) {
        m_changed.NotifyAll();
    }
}

// When memory runs out while the state is made, the report is still due.
void Presence::Report() {
    m_reportDue = m_table.TakeChanged() || m_reportDue;
    if (!m_running || !m_reportDue) {
        return;
    }
    m_events.Report(GetState());
    m_reportDue = false;
}

BusState Presence::GetState() const {
    BusState state;
    for (const auto& [key, camera] : m_table.GetCameras()) {
        if (camera.listed == nullptr) {
            continue;
        }
        state.devices.push_back(
            PresentDevice{FormatMac(key.mac) + "/" + FormatIp(key.ip) + "/" + key.serial, camera.listed->ip});
    }
    return state;
}

// ---- Any thread ----------------------------------------------------------------------------------------------------

void Presence::ProbesRefused(const std::vector<std::uint16_t>& ids, TimePoint now) {
    const LockGuard lock(m_mutex);
    for (const std::uint16_t id : ids) {
        m_table.ProbeRefused(id, now);
    }
}

void Presence::ProbeCameras(const std::vector<CameraKey>& keys, TimePoint now, std::vector<Probe>* probes) {
    const LockGuard lock(m_mutex);
    if (!m_running) {
        return;
    }
    for (const CameraKey& key : keys) {
        m_table.ProbeCamera(key, now, probes);
    }
}

void Presence::HasMoved(const Answer& answer, TimePoint now, std::vector<Probe>* probes) {
    const LockGuard lock(m_mutex);
    if (m_running && m_interfaces.count(answer.interface) != 0) {
        m_table.HasMoved(answer, now, probes);
    }
}

bool Presence::IsThere(const GigECameraName& name, TimePoint since) const {
    return std::any_of(m_table.GetPresent().begin(), m_table.GetPresent().end(), [&](const auto& present) {
        return Matches(name, *present.second) && present.second->lastAnswer >= since;
    });
}

bool Presence::IsSearchDone(TimePoint now) const {
    if (!m_running || m_hasListed || m_interfaces.empty()) {
        return true;
    }
    if (m_searchFor && IsThere(*m_searchFor, TimePoint())) {
        return true;
    }
    if (now < m_windowEnd) {
        return false;
    }
    return now >= m_windowEnd + m_timings.confirmWait || !m_table.IsConfirming();
}

void Presence::WaitForFirstSearch() {
    UniqueLock lock(m_mutex);
    const Waiting waiting(*this);
    const TimePoint start = Clock::now();
    while (!IsSearchDone(Clock::now())) {
        const TimePoint now = Clock::now();
        if (m_windowEnd == TimePoint::max()) {
            // The window ends at a fixed time after the first request, whatever is heard meanwhile.
            if (now >= start + StartLimit) {
                return;
            }
            m_changed.WaitUntil(lock, start + StartLimit);
        } else {
            m_changed.WaitUntil(lock, now < m_windowEnd ? m_windowEnd : m_windowEnd + m_timings.confirmWait);
        }
    }
}

void Presence::WaitForLinks() {
    UniqueLock lock(m_mutex);
    const Waiting waiting(*this);
    // The monitor ends it; the deadline is for a monitor that is held up.
    m_changed.WaitUntil(lock, Clock::now() + 2 * m_timings.linkGrace,
                        [this]() NIMBREL2_REQUIRES(m_mutex) { return !m_running || !m_table.IsListedPaused(); });
}

std::vector<CameraPlace> Presence::BeginVerification(TimePoint now, std::vector<Probe>* probes) {
    const LockGuard lock(m_mutex);
    std::vector<CameraPlace> places;
    if (!m_running) {
        return places;
    }
    m_table.ProbeAll(now, probes);
    for (const auto& [place, sighting] : m_table.GetPresent()) {
        if (sighting->camera->listed == sighting) {
            places.push_back(PlaceOf(*sighting->camera));
        }
    }
    return places;
}

void Presence::WaitForVerification(TimePoint deadline) {
    UniqueLock lock(m_mutex);
    const Waiting waiting(*this);
    m_changed.WaitUntil(lock, deadline, [this]() NIMBREL2_REQUIRES(m_mutex) {
        return !m_running || !m_table.IsVerifying(Clock::now());
    });
}

void Presence::WaitUntilConcluded(const std::vector<SightingView>& sightings, TimePoint deadline) {
    UniqueLock lock(m_mutex);
    const Waiting waiting(*this);
    auto next = sightings.begin();
    m_changed.WaitUntil(lock, deadline, [&]() NIMBREL2_REQUIRES(m_mutex) {
        for (; m_running && next != sightings.end(); ++next) {
            const auto* sighting = m_table.FindSighting(next->key, next->interface, next->record.ipAddress);
            const bool open = sighting != nullptr && sighting->state == CameraTable::State::Unconfirmed &&
                              !sighting->addressTaken && !sighting->HasFailed() &&
                              m_table.GetPresent().count({next->interface, next->record.ipAddress}) == 0;
            if (open) {
                return false;
            }
        }
        return true;
    });
}

void Presence::WaitUntilAnswered(const std::vector<GigECameraName>& cameras, TimePoint since, TimePoint deadline) {
    UniqueLock lock(m_mutex);
    const Waiting waiting(*this);
    m_changed.WaitUntil(lock, deadline, [&]() NIMBREL2_REQUIRES(m_mutex) {
        for (const GigECameraName& camera : cameras) {
            if (m_running && !IsThere(camera, since)) {
                return false;
            }
        }
        return true;
    });
}

void Presence::TakeListed(std::vector<SightingView>* cameras, BusState* state) {
    const LockGuard lock(m_mutex);
    Report();
    cameras->clear();
    for (const auto& [key, camera] : m_table.GetCameras()) {
        if (camera.listed != nullptr) {
            cameras->push_back(ViewOf(*camera.listed));
        }
    }
    std::sort(cameras->begin(), cameras->end(), [](const SightingView& a, const SightingView& b) {
        return std::tie(a.key.mac, a.record.ipAddress, a.key.serial) <
               std::tie(b.key.mac, b.record.ipAddress, b.key.serial);
    });
    *state = GetState();
    m_hasListed = true;
}

CameraPlace Presence::PlaceOf(const CameraTable::Camera& camera) const {
    const CameraTable::Sighting& listed = *camera.listed;
    const auto interface = m_interfaces.find(listed.interface);
    const std::uint32_t version = interface != m_interfaces.end() ? interface->second.version : 0;
    const bool silent = CameraTable::HasMissedRound(camera) || listed.addressTaken;
    return {camera.key, listed.interface, listed.ip, version, silent};
}

SightingView Presence::ViewOf(const CameraTable::Sighting& sighting) const {
    SightingView view;
    view.key = sighting.camera->key;
    view.interface = sighting.interface;
    view.record = sighting.record;
    view.state = sighting.state;
    view.usability = sighting.usability;
    view.listed = sighting.camera->listed == &sighting;
    view.addressTaken = sighting.addressTaken;
    view.lastHeard = sighting.lastHeard;
    if (view.usability == GigEUsability::Usable && sighting.state != CameraTable::State::Present) {
        const bool held = m_table.GetPresent().count({sighting.interface, sighting.ip}) != 0;
        view.addressTaken = view.addressTaken || held;
        view.usability = view.addressTaken ? GigEUsability::AddressTaken : GigEUsability::NoAnswer;
    }
    return view;
}

std::optional<CameraPlace> Presence::FindPlace(const CameraKey& key) const {
    const LockGuard lock(m_mutex);
    const CameraTable::Camera* camera = m_table.Find(key);
    if (camera == nullptr || camera->listed == nullptr) {
        return std::nullopt;
    }
    return PlaceOf(*camera);
}

std::optional<SightingView> Presence::FindListed(const CameraKey& key) const {
    const LockGuard lock(m_mutex);
    const CameraTable::Camera* camera = m_table.Find(key);
    if (camera == nullptr || camera->listed == nullptr) {
        return std::nullopt;
    }
    return ViewOf(*camera->listed);
}

std::optional<SightingView> Presence::Find(const SightingView& view) const {
    const LockGuard lock(m_mutex);
    const auto* sighting = m_table.FindSighting(view.key, view.interface, view.record.ipAddress);
    if (sighting == nullptr) {
        return std::nullopt;
    }
    return ViewOf(*sighting);
}

std::vector<CameraPlace> Presence::GetPlaces(std::optional<int> interface) const {
    const LockGuard lock(m_mutex);
    std::vector<CameraPlace> places;
    for (const auto& [place, sighting] : m_table.GetPresent()) {
        if (interface && place.first != *interface) {
            continue;
        }
        if (sighting->camera->listed == sighting) {
            places.push_back(PlaceOf(*sighting->camera));
        }
    }
    return places;
}

bool Presence::HasAnswered(const CameraKey& key, TimePoint since) const {
    const LockGuard lock(m_mutex);
    const CameraTable::Camera* camera = m_table.Find(key);
    return camera != nullptr && camera->listed != nullptr && camera->listed->lastAnswer >= since;
}

std::vector<SightingView> Presence::GetSightings() const {
    const LockGuard lock(m_mutex);
    std::vector<SightingView> views;
    for (const auto& [key, camera] : m_table.GetCameras()) {
        for (const auto& sighting : camera.sightings) {
            views.push_back(ViewOf(*sighting));
        }
    }
    return views;
}

std::vector<SightingView> Presence::GetSightings(const CameraKey& key) const {
    const LockGuard lock(m_mutex);
    std::vector<SightingView> views;
    const CameraTable::Camera* camera = m_table.Find(key);
    if (camera == nullptr) {
        return views;
    }
    for (const auto& sighting : camera->sightings) {
        views.push_back(ViewOf(*sighting));
    }
    return views;
}

}  // namespace Nimbrel2::Platform::GigE
