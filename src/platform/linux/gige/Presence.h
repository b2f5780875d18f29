// SPDX-License-Identifier: Apache-2.0
// Who is there: the camera table with its lock, what listings wait for, and the reports of what has changed.
// Any thread. m_mutex is held for a few instructions and never while the network is waited for; the event sink's lock
// and that of the request ids are taken inside it, no other.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_PRESENCE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_PRESENCE_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "platform/Drivers.h"
#include "platform/base/Mutex.h"
#include "platform/linux/gige/CameraTable.h"

namespace Nimbrel2::Platform::GigE {

/// Where a listed camera is to be talked to now.
struct CameraPlace {
    CameraKey key;
    int interface = 0;
    std::uint32_t ip = 0;
    /// Another number after the interface's addresses have changed: what was opened for another is to be opened anew.
    std::uint32_t version = 0;
    /// It is just missing its rounds, or another camera has answered at its address: what would answer is not it.
    bool silent = false;

    bool IsSameEnd(const CameraPlace& other) const {
        return interface == other.interface && ip == other.ip && version == other.version;
    }
};

/// What is known of a camera on one interface.
struct SightingView {
    CameraKey key;
    int interface = 0;
    GvcpDiscoveryRecord record{};
    CameraTable::State state = CameraTable::State::OutOfReach;
    GigEUsability usability = GigEUsability::NoAnswer;  ///< all but whether its registers answer
    bool listed = false;
    bool addressTaken = false;
    TimePoint lastHeard;
};

/// A network interface as far as presence depends on it.
struct InterfacePresence {
    enum class Use : std::uint8_t {
        Used,
        Waiting,  ///< its link was lost a moment ago
    };
    int interface = 0;
    Use use = Use::Used;
    std::uint32_t version = 0;  ///< another number when its addresses have changed
};

class Presence {
public:
    using Judge = std::function<GigEUsability(int interface, const GvcpDiscoveryRecord&)>;

    Presence(const Timings& timings, RequestIds& ids, std::optional<GigECameraName> searchFor, BusEventSink& events);

    void Start();
    /// Ends every wait. Nothing is reported after it.
    void Stop();
    bool IsRunning() const;

    // ---- The monitor thread. What is to be sent is appended to probes.

    /// The interfaces are like this now. May be called again with the same, also when memory ran out meanwhile.
    void Follow(const std::vector<InterfacePresence>& interfaces, const Judge& judge, TimePoint now);
    /// A broadcast left. The first one begins the window of the first listing.
    void Broadcasted(int interface, TimePoint now);
    bool HeardProbe(Port port, const Answer& answer, std::uint16_t id, TimePoint now, std::vector<Probe>* probes);
    void KnowHosts(int interface, std::set<std::uint32_t> hosts);
    bool HasBacklog(TimePoint now) const;
    /// Does what is due, reports what has changed and wakes who waits. @return when it is due again.
    TimePoint Tick(TimePoint now, std::vector<Probe>* probes);

    // ---- Any thread

    void HeardBroadcast(const Answer& answer, TimePoint now, std::vector<Probe>* probes);
    void ProbesRefused(const std::vector<std::uint16_t>& ids, TimePoint now);
    void ProbeCameras(const std::vector<CameraKey>& keys, TimePoint now, std::vector<Probe>* probes);
    /// As CameraTable::HasMoved; WaitUntilAnswered tells when it has arrived.
    void HasMoved(const Answer& answer, TimePoint now, std::vector<Probe>* probes);

    /// Waits for the end of the first listing's window, once; for the camera that is searched for, not so long.
    /// Then for cameras that were heard in it and not yet reached. Later ones wait for nothing.
    void WaitForFirstSearch();
    /// Waits while a link that was lost a moment ago may come back.
    void WaitForLinks();
    /// Asks all listed cameras. @return where they are.
    std::vector<CameraPlace> BeginVerification(TimePoint now, std::vector<Probe>* probes);
    /// Waits for the answers of those that BeginVerification asked, as long as a listing waits.
    void WaitForVerification(TimePoint deadline);
    /// Waits until each of the sightings is present or has failed once, or the deadline.
    void WaitUntilConcluded(const std::vector<SightingView>& sightings, TimePoint deadline);
    /// Waits until each of these cameras has answered at its address since then, or the deadline.
    void WaitUntilAnswered(const std::vector<GigECameraName>& cameras, TimePoint since, TimePoint deadline);

    /// Fills what is listed, and reports it: nothing changes in between. From here on listings are no first ones.
    void TakeListed(std::vector<SightingView>* cameras, BusState* state);

    std::optional<CameraPlace> FindPlace(const CameraKey& key) const;
    std::optional<SightingView> FindListed(const CameraKey& key) const;
    /// What is known of the same camera at the same address on the same interface.
    std::optional<SightingView> Find(const SightingView& view) const;
    /// The listed cameras, or those of one interface.
    std::vector<CameraPlace> GetPlaces(std::optional<int> interface = std::nullopt) const;
    /// Whether the camera has answered since.
    bool HasAnswered(const CameraKey& key, TimePoint since) const;
    std::vector<SightingView> GetSightings() const;
    std::vector<SightingView> GetSightings(const CameraKey& key) const;

private:
    /// Counts a thread that waits for the table to change.
    class Waiting;

    void Report() NIMBREL2_REQUIRES(m_mutex);
    BusState GetState() const NIMBREL2_REQUIRES(m_mutex);
    bool IsSearchDone(TimePoint now) const NIMBREL2_REQUIRES(m_mutex);
    bool IsThere(const GigECameraName& camera, TimePoint since) const NIMBREL2_REQUIRES(m_mutex);
    SightingView ViewOf(const CameraTable::Sighting& sighting) const NIMBREL2_REQUIRES(m_mutex);
    CameraPlace PlaceOf(const CameraTable::Camera& camera) const NIMBREL2_REQUIRES(m_mutex);
    void Changed() NIMBREL2_REQUIRES(m_mutex);

    const Timings& m_timings;
    const std::optional<GigECameraName> m_searchFor;
    BusEventSink& m_events;

    mutable Mutex m_mutex;
    ConditionVariable m_changed;
    bool m_running NIMBREL2_GUARDED_BY(m_mutex) = false;
    CameraTable m_table NIMBREL2_GUARDED_BY(m_mutex);
    std::map<int, InterfacePresence> m_interfaces NIMBREL2_GUARDED_BY(m_mutex);
    TimePoint m_windowEnd NIMBREL2_GUARDED_BY(m_mutex) = TimePoint::max();  ///< set by the first broadcast
    bool m_hasListed NIMBREL2_GUARDED_BY(m_mutex) = false;
    bool m_reportDue NIMBREL2_GUARDED_BY(m_mutex) = false;  ///< the table has changed since the last report
    int m_numWaiting NIMBREL2_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
