// SPDX-License-Identifier: Apache-2.0
// Which cameras have been heard, which of them answer, and which to ask next. No I/O, no lock and no clock of its own:
// whoever owns it brings the time and sends the probes.
//
// A sighting is one camera at one address on one interface. What a broadcast has brought is unverified: a sighting
// counts as present once the camera has answered a request sent to that very address, and until it has missed a given
// number of rounds of such requests. A camera is listed while one of its sightings is present. So a camera that is
// heard on two interfaces is one; an address change is the new sighting becoming present and the old one going.
//
// Nobody can talk a camera out of the list, or another one in. What is claimed of a present camera, or of its address,
// changes nothing until the camera itself has said so, asked there, or has fallen silent. Present cameras are asked
// from a socket of their own, whose port no broadcast has shown; unverified ones a few at a time.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_CAMERATABLE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_CAMERATABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hal/HAL.h"
#include "platform/Diagnostics.h"
#include "platform/linux/gige/CameraKey.h"
#include "platform/linux/gige/RequestIds.h"
#include "platform/linux/gige/Timings.h"

namespace Nimbrel2::Platform::GigE {

/// Which socket of an interface: that of broadcasts and of all that is unverified, or that of present cameras.
enum class Port : std::uint8_t { Search, Verify };

/// A request that somebody should send: DISCOVERY with that id to that address on that interface.
struct Probe {
    int interface = 0;
    std::uint32_t ip = 0;
    std::uint16_t id = 0;
    Port port = Port::Search;
};

/// Where an answer came in, and what the addresses in it say about its sender.
struct Answer {
    int interface = 0;
    std::uint32_t from = 0;
    GvcpDiscoveryRecord record{};
    GigEUsability usability = GigEUsability::Usable;  ///< as UsabilityOfAddress says
};

class CameraTable {
public:
    enum class State : std::uint8_t {
        OutOfReach,   ///< its address, or its mask, keeps it from being used through that interface
        Unconfirmed,  ///< heard, but it has not answered at its address
        Present,
    };

    struct Camera;

    struct Sighting {
        Camera* camera = nullptr;
        int interface = 0;
        std::uint32_t ip = 0;
        State state = State::OutOfReach;
        GigEUsability usability = GigEUsability::Usable;  ///< of its address alone
        GvcpDiscoveryRecord record{};
        bool addressTaken = false;  ///< another camera answers at its address
        TimePoint lastHeard;        ///< any answer
        TimePoint lastAnswer;       ///< an answer to a probe

        bool HasFailed() const { return m_failures > 0; }

    private:
        friend class CameraTable;
        std::uint32_t m_sender = 0;  ///< of the last answer to a broadcast
        bool m_hasHost = false;      ///< this computer knows a host at that address
        bool m_probing = false;
        std::uint16_t m_probeId = 0;
        int m_round = 0;
        int m_sentInRound = 0;
        TimePoint m_probeStart;
        TimePoint m_roundEnd;
        TimePoint m_refusedSince;  ///< the network has taken no request since; the epoch: it does
        TimePoint m_patientUntil;  ///< no round counts as missed before
        TimePoint m_nextSend;      ///< while probing
        TimePoint m_nextProbe;     ///< otherwise
        TimePoint m_broadcastAt;   ///< the last one that it should answer; the epoch: none, or it has
        TimePoint m_spareAt;       ///< from when it may be asked for a missing answer to a broadcast
        TimePoint m_claimAt;       ///< from when it may be asked for what others claim
        int m_failures = 0;
        std::list<Sighting*>::iterator m_unlisted;  ///< place in the list below, unless present
    };

    struct Camera {
        CameraKey key;
        std::vector<std::unique_ptr<Sighting>> sightings;
        Sighting* listed = nullptr;  ///< the present sighting that stands for the camera; null when it is not listed
    };

    /// Sightings remembered at once, so that no flood of invented cameras takes more memory. Present ones are never
    /// forgotten for others.
    static constexpr std::size_t MaxSightings = 4096;
    /// Unverified sightings asked at once. Those that do not exist wait for ARP, in a queue that is short on purpose.
    static constexpr std::size_t MaxConfirming = 24;

    CameraTable(const Timings& timings, RequestIds& ids) : m_timings(timings), m_ids(ids) {}
    ~CameraTable();
    CameraTable(const CameraTable&) = delete;
    CameraTable& operator=(const CameraTable&) = delete;

    // ---- What happens. Probes that it causes are appended to out.

    /// A broadcast left on an interface: present cameras there should answer.
    void Broadcasted(int interface, TimePoint now);

    /// A camera answered a broadcast.
    void HeardBroadcast(const Answer& answer, TimePoint now, std::vector<Probe>* out);

    /// A camera answered a request sent to one address.
    /// @return False for an answer to no outstanding probe, not from the probed address, or not on the probe's port.
    bool HeardProbe(Port port, const Answer& answer, std::uint16_t id, TimePoint now, std::vector<Probe>* out);

    /// A probe was not sent: the network took no more. It does not count, for a while.
    void ProbeRefused(std::uint16_t id, TimePoint now);

    /// Forgets what was heard on an interface, for it is gone, or its link for too long.
    void DropInterface(int interface);

    /// The link of an interface is down, and may be back soon: nobody there is asked, and nobody is missed.
    void PauseInterface(int interface);
    /// It is back: everybody there is asked at once.
    void ResumeInterface(int interface, TimePoint now);
    bool IsPaused(int interface) const { return m_paused.count(interface) != 0; }
    /// Whether a listed camera is on an interface that is paused.
    bool IsListedPaused() const;

    /// The addresses of an interface have changed.
    void Reclassify(int interface, const std::function<GigEUsability(const GvcpDiscoveryRecord&)>& judge,
                    TimePoint now);

    /// A camera has been given the address in the record: forgets its other ones and asks it there at once, and for a
    /// while, for it and its neighbours first have to find each other anew.
    void HasMoved(const Answer& answer, TimePoint now, std::vector<Probe>* out);

    /// Hosts that this computer knows on an interface. What claims to be at one of these addresses, now or later, is
    /// asked first, and forgotten last: a camera asks for this computer by ARP before it answers, an invented one
    /// cannot.
    void KnowHosts(int interface, std::set<std::uint32_t> hosts);

    /// Does what is due: repeats probes, starts those whose time has come, drops what missed its rounds.
    void Tick(TimePoint now, std::vector<Probe>* out);

    /// When Tick is due again; it does nothing before.
    TimePoint GetNextDeadline() const { return m_nextDue; }

    /// Asks every present camera now, or one.
    void ProbeAll(TimePoint now, std::vector<Probe>* out);
    void ProbeCamera(const CameraKey& key, TimePoint now, std::vector<Probe>* out);

    // ---- What is known

    /// Whether a present camera is being asked, since less than the time that a listing waits for one.
    bool IsVerifying(TimePoint now) const;
    /// Whether a sighting that has not failed before is still to be confirmed.
    bool IsConfirming() const;
    /// Whether more unverified sightings wait to be asked than are asked at once.
    bool HasBacklog(TimePoint now) const;
    /// Whether a camera missed a round of its running probe.
    static bool HasMissedRound(const Camera& camera);

    const Camera* Find(const CameraKey& key) const;
    const Sighting* FindSighting(const CameraKey& key, int interface, std::uint32_t ip) const;
    const std::map<CameraKey, Camera>& GetCameras() const { return m_cameras; }
    /// Present sightings by interface and address: at most one for each.
    using Place = std::pair<int, std::uint32_t>;
    const std::map<Place, Sighting*>& GetPresent() const { return m_holders; }
    std::size_t GetNumSightings() const { return m_numSightings; }
    std::size_t GetNumConfirming() const { return m_confirming.size(); }

    /// Whether the listed cameras or their addresses may have changed since the last call.
    bool TakeChanged();

private:
    Sighting* FindOwn(const CameraKey& key, int interface, std::uint32_t ip);
    Sighting* AddSighting(const Answer& answer, TimePoint now);
    void Erase(Sighting* sighting);
    void EraseIf(const std::function<bool(const Sighting&)>& predicate);
    bool MakeRoom();
    void StartProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out);
    void EndProbe(Sighting& sighting);
    void Send(Sighting& sighting, TimePoint now, std::vector<Probe>* out);
    void ProbeNow(Sighting& present, TimePoint now, std::vector<Probe>* out);
    bool AdvanceProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out);
    void TickPresent(Sighting& sighting, TimePoint now, std::vector<Probe>* out, std::vector<Sighting*>* missed);
    TimePoint NextOf(const Sighting& sighting) const;
    void AskAboutClaim(Sighting& present, TimePoint now, std::vector<Probe>* out);
    void Confirm(Sighting& sighting, const GvcpDiscoveryRecord& record, TimePoint now);
    void NotConfirmed(Sighting& sighting, TimePoint now);
    bool IsWaitingForItsTurn(const Sighting& sighting) const;
    bool MayBeConfirmed(const Sighting& sighting, TimePoint now) const;
    void StartConfirmations(TimePoint now, std::vector<Probe>* out);
    void MoveToUnlisted(Sighting& sighting, State state);
    void SetState(Sighting& sighting, GigEUsability usability, TimePoint now);
    void ChooseListed(Camera& camera);
    void Due(TimePoint time) { m_nextDue = std::min(m_nextDue, time); }
    void FindNextDue();

    const Timings& m_timings;
    RequestIds& m_ids;
    std::map<CameraKey, Camera> m_cameras;
    std::map<Place, Sighting*> m_holders;  ///< present sightings
    std::unordered_map<std::uint16_t, Sighting*> m_probes;
    std::vector<Sighting*> m_confirming;  ///< unverified sightings with a running probe
    std::list<Sighting*> m_unlisted;      ///< sightings that are not present, least recently heard first
    std::set<int> m_paused;
    std::map<int, std::set<std::uint32_t>> m_hosts;  ///< known ones, by interface
    std::size_t m_numSightings = 0;
    TimePoint m_nextDue = TimePoint::max();
    bool m_changed = false;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
