// SPDX-License-Identifier: Apache-2.0
// Which cameras have been heard, which of them answer, and whom to ask next. No I/O, no lock and no clock of its own:
// whoever owns it brings the time and sends the probes.
//
// A sighting is one camera at one address on one interface. What a broadcast has brought is only hearsay: a sighting
// counts as present once the camera has answered a request sent to that very address, and until it has missed a given
// number of rounds of such requests. A camera is listed while one of its sightings is present. So a camera that is
// heard on two interfaces is one; of two cameras on one address the one that answers there is listed; an address change
// is the new sighting becoming present and the old one going; and nobody can talk a camera out of the list.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_CAMERATABLE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_CAMERATABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "hal/HAL.h"
#include "platform/linux/gige/CameraKey.h"
#include "platform/linux/gige/RequestIds.h"
#include "platform/linux/gige/Timings.h"

namespace Nimbrel2::Platform::GigE {

/// What all entries of one camera share: one command at a time, and what the last ones have taught.
struct CameraChannel {
    std::mutex command;         ///< held during a command: a camera takes one at a time. Guards all below.
    TimePoint quietUntil;       ///< not asked before
    bool holdsControl = false;  ///< the last write of the control privilege by this application took it
};

/// A request that somebody should send: DISCOVERY with that id to that address on that interface.
struct Probe {
    int interface = 0;
    std::uint32_t ip = 0;
    std::uint16_t id = 0;
};

class CameraTable {
public:
    enum class State : std::uint8_t {
        Foreign,      ///< its address cannot be reached through the interface that heard it
        Unconfirmed,  ///< heard, but it has not answered at its address
        Present,
    };

    struct Camera;

    struct Sighting {
        Camera* camera = nullptr;
        int interface = 0;
        std::uint32_t ip = 0;
        State state = State::Foreign;
        GvcpDiscoveryRecord record{};
        bool addressTaken = false;  ///< another camera answers at its address
        TimePoint lastHeard;        ///< any answer
        TimePoint lastAnswer;       ///< an answer to a probe

    private:
        friend class CameraTable;
        bool m_probing = false;
        std::uint16_t m_probeId = 0;
        int m_round = 0;
        int m_sentInRound = 0;
        int m_refusedRounds = 0;  ///< rounds that do not count, for nothing could be sent
        TimePoint m_roundEnd;
        TimePoint m_patientUntil;  ///< no round counts as missed before
        TimePoint m_nextSend;      ///< while probing
        TimePoint m_nextProbe;     ///< otherwise
        int m_failures = 0;
        std::list<Sighting*>::iterator m_unlisted;  ///< place in the list below, unless present
    };

    struct Camera {
        CameraKey key;
        std::vector<std::unique_ptr<Sighting>> sightings;
        Sighting* listed = nullptr;  ///< the present sighting that stands for the camera; null when it is not listed
        std::shared_ptr<CameraChannel> channel;
    };

    /// Sightings remembered at once, so that no flood of invented cameras takes more memory. Present ones never give
    /// way.
    static constexpr std::size_t kMaxSightings = 4096;
    /// Above this many unconfirmed sightings being asked at once, each is asked once a try: a flood is not answered by
    /// one.
    static constexpr std::size_t kMaxEagerConfirmations = 256;

    CameraTable(const Timings& timings, RequestIds& ids) : m_timings(timings), m_ids(ids) {}
    ~CameraTable();
    CameraTable(const CameraTable&) = delete;
    CameraTable& operator=(const CameraTable&) = delete;

    /// A camera answered a broadcast. New sightings are asked at once: probes are appended to out.
    /// @param reachable  Whether its address can be reached through that interface.
    void HeardBroadcast(int interface, const GvcpDiscoveryRecord& record, bool reachable, TimePoint now,
                        std::vector<Probe>* out);

    /// A camera answered a request sent to one address.
    /// @param from  The address that answered.
    /// @return False for an answer to no outstanding probe, or not from where it was sent to.
    bool HeardProbe(int interface, std::uint32_t from, std::uint16_t id, const GvcpDiscoveryRecord& record,
                    TimePoint now, std::vector<Probe>* out);

    /// A probe could not be sent because the network took no more: it does not count.
    void ProbeRefused(std::uint16_t id);

    /// Forgets what was heard on an interface, for its link is down or it is gone.
    void DropInterface(int interface);

    /// The addresses of an interface have changed.
    void Reclassify(int interface, const std::function<bool(std::uint32_t)>& isReachable, TimePoint now);

    /// A camera has been given the address in the record: forgets its other ones and asks it there at once, and for a
    /// while, for it and its neighbours first have to find each other anew.
    void HasMoved(int interface, const GvcpDiscoveryRecord& record, bool reachable, TimePoint now,
                  std::vector<Probe>* out);

    /// Does what is due: repeats probes, starts those whose time has come, drops what missed its rounds.
    void Tick(TimePoint now, std::vector<Probe>* out);

    /// When Tick is due again; it does nothing before.
    TimePoint GetNextDeadline() const { return m_nextDue; }

    /// Asks every present camera now, or one.
    void ProbeAll(TimePoint now, std::vector<Probe>* out);
    void ProbeCamera(const CameraKey& key, TimePoint now, std::vector<Probe>* out);

    /// Whether a listed camera has not answered since, and may still do so.
    bool IsVerifying(TimePoint since) const;
    /// Whether a sighting that has not failed before is still being confirmed.
    bool IsConfirming() const;
    /// Whether a camera missed a round of its running probe.
    static bool HasMissedRound(const Camera& camera);

    const Camera* Find(const CameraKey& key) const;
    const std::map<CameraKey, Camera>& GetCameras() const { return m_cameras; }
    std::size_t GetNumSightings() const { return m_numSightings; }

    /// Whether the listed cameras or their addresses may have changed since the last call.
    bool TakeChanged();

private:
    Sighting* FindSighting(const CameraKey& key, int interface, std::uint32_t ip);
    Sighting* AddSighting(int interface, const GvcpDiscoveryRecord& record, bool reachable, TimePoint now);
    void Erase(Sighting* sighting);
    void EraseIf(const std::function<bool(const Sighting&)>& predicate);
    void StartProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out);
    void EndProbe(Sighting& sighting);
    void Send(Sighting& sighting, TimePoint now, std::vector<Probe>* out);
    bool AdvanceProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out);
    void Confirm(Sighting& sighting, const GvcpDiscoveryRecord& record, TimePoint now);
    void NotConfirmed(Sighting& sighting, TimePoint now);
    void AskOtherAddresses(const Sighting& sighting, TimePoint now, std::vector<Probe>* out);
    void MoveToUnlisted(Sighting& sighting, State state);
    void ChooseListed(Camera& camera);
    void Due(TimePoint time) { m_nextDue = std::min(m_nextDue, time); }
    void FindNextDue();

    const Timings& m_timings;
    RequestIds& m_ids;
    std::map<CameraKey, Camera> m_cameras;
    std::unordered_map<std::uint16_t, Sighting*> m_probes;
    std::list<Sighting*> m_unlisted;  ///< sightings that are not present, least recently heard first
    std::size_t m_numSightings = 0;
    std::size_t m_numConfirming = 0;  ///< unconfirmed sightings with a running probe
    TimePoint m_nextDue = TimePoint::max();
    bool m_changed = false;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
