// SPDX-License-Identifier: Apache-2.0
// Which cameras have been heard, which of them answer, and which to ask next.
// No thread, lock, I/O or clock of its own; the owner brings them.
#include "platform/linux/gige/CameraTable.h"

#include <tuple>

namespace Nimbrel2::Platform::GigE {

namespace {

// Above this many, waiting sightings are looked through when Tick is due and not for each answer.
constexpr std::size_t ManyUnlisted = 512;
// How many known hosts are passed over when room for a new sighting is looked for.
constexpr int MostPassedOver = 64;

bool IsSame(const GvcpDiscoveryRecord& record, const CameraKey& key, std::uint32_t ip) {
    return record.ipAddress == ip && KeyOf(record) == key;
}

}  // namespace

CameraTable::~CameraTable() {
    for (const auto& probe : m_probes) {
        m_ids.Release(probe.first);
    }
}

// ---- What is heard -------------------------------------------------------------------------------------------------

void CameraTable::Broadcasted(int interface, TimePoint now) {
    for (const auto& [place, sighting] : m_holders) {
        if (place.first != interface || sighting->m_probing) {
            continue;
        }
        const TimePoint probe = now + m_timings.probeDelay;
        // The later requests of a burst do not put it off again and again.
        if (sighting->m_nextProbe <= now || sighting->m_nextProbe > probe) {
            sighting->m_nextProbe = probe;
        }
        if (sighting->m_broadcastAt == TimePoint()) {
            sighting->m_broadcastAt = now;
        }
        Due(NextOf(*sighting));
    }
}

void CameraTable::HeardBroadcast(const Answer& answer, TimePoint now, std::vector<Probe>* out) {
    const GvcpDiscoveryRecord& record = answer.record;
    const CameraKey key = KeyOf(record);
    Sighting* sighting = FindOwn(key, answer.interface, record.ipAddress);
    if (sighting != nullptr && sighting->state == State::Present) {
        // It says that it is there, and no more: only the camera itself, asked alone, says how it has changed.
        sighting->lastHeard = now;
        if (answer.from == sighting->ip) {
            sighting->m_broadcastAt = TimePoint();
        }
        return;
    }
    const auto holder = m_holders.find({answer.interface, record.ipAddress});
    if (holder != m_holders.end()) {
        AskAboutClaim(*holder->second, now, out);
    }
    if (sighting == nullptr) {
        sighting = AddSighting(answer, now);
        if (sighting == nullptr) {
            return;
        }
        // A camera heard at a new address has probably left the old one; the sooner that is known the better.
        for (const auto& other : sighting->camera->sightings) {
            if (other->state == State::Present && other->ip != record.ipAddress) {
                AskAboutClaim(*other, now, out);
            }
        }
    }
    sighting->lastHeard = now;
    sighting->record = record;
    sighting->m_sender = answer.from;
    m_unlisted.splice(m_unlisted.end(), m_unlisted, sighting->m_unlisted);
    SetState(*sighting, answer.usability, now);
    const bool room = m_confirming.size() < MaxConfirming;
    if (room && MayBeConfirmed(*sighting, now)) {
        StartProbe(*sighting, now, out);
    }
}

bool CameraTable::HeardProbe(Port port, const Answer& answer, std::uint16_t id, TimePoint now,
                             std::vector<Probe>* out) {
    const auto found = m_probes.find(id);
    if (found == m_probes.end()) {
        return false;
    }
    Sighting* sighting = found->second;
    const bool present = sighting->state == State::Present;
    if (sighting->interface != answer.interface || sighting->ip != answer.from) {
        return false;
    }
    if (port != (present ? Port::Verify : Port::Search)) {
        return false;
    }

    if (IsSame(answer.record, sighting->camera->key, sighting->ip)) {
        SetState(*sighting, answer.usability, now);
        if (sighting->state == State::OutOfReach) {
            sighting->record = answer.record;
        } else {
            Confirm(*sighting, answer.record, now);
        }
    } else if (present) {
        // Another camera answers at its address. It may still answer itself before its rounds are over.
        sighting->addressTaken = true;
    } else {
        sighting->addressTaken = true;
        NotConfirmed(*sighting, now);
        // Whoever answered may live there, or elsewhere, where it has not been asked.
        const GvcpDiscoveryRecord& record = answer.record;
        if (record.ipAddress == answer.from && answer.usability == GigEUsability::Usable) {
            Sighting* other = FindOwn(KeyOf(record), answer.interface, record.ipAddress);
            if (other == nullptr) {
                other = AddSighting(answer, now);
            }
            if (other != nullptr) {
                SetState(*other, answer.usability, now);
                Confirm(*other, record, now);
            }
        }
    }
    if (m_unlisted.size() <= ManyUnlisted) {
        StartConfirmations(now, out);
    } else {
        Due(now);
    }
    return true;
}

// A present camera is asked by itself whether it is true what others say of it, or of its address; now and then, for
// they may say it all the time.
void CameraTable::AskAboutClaim(Sighting& present, TimePoint now, std::vector<Probe>* out) {
    if (present.m_probing || now < present.m_claimAt || IsPaused(present.interface)) {
        return;
    }
    present.m_claimAt = now + m_timings.claimRest;
    StartProbe(present, now, out);
}

// @pre its place is held by nobody else
void CameraTable::Confirm(Sighting& sighting, const GvcpDiscoveryRecord& record, TimePoint now) {
    const Place place{sighting.interface, sighting.ip};
    if (sighting.state != State::Present) {
        const auto [holder, isFree] = m_holders.try_emplace(place, &sighting);
        if (!isFree) {
            sighting.addressTaken = true;
            NotConfirmed(sighting, now);
            return;
        }
    }
    EndProbe(sighting);
    sighting.record = record;
    sighting.lastHeard = now;
    sighting.lastAnswer = now;
    sighting.addressTaken = false;
    sighting.m_failures = 0;
    sighting.m_refusedSince = TimePoint();
    sighting.m_broadcastAt = TimePoint();
    sighting.m_nextProbe = now + m_timings.probePeriod;
    Due(sighting.m_nextProbe);
    if (sighting.state == State::Present) {
        return;
    }
    m_unlisted.erase(sighting.m_unlisted);
    sighting.state = State::Present;
    ChooseListed(*sighting.camera);
}

void CameraTable::NotConfirmed(Sighting& sighting, TimePoint now) {
    EndProbe(sighting);
    const Milliseconds wait =
        std::min(m_timings.confirmRetry * (1 << std::min(sighting.m_failures, 8)), m_timings.confirmRetryMax);
    ++sighting.m_failures;
    sighting.m_nextProbe = now + wait;
    Due(sighting.m_nextProbe);
}

// ---- Probes --------------------------------------------------------------------------------------------------------

// What is waiting for another camera to leave its address is not asked in vain; nor is its address while it is being
// asked for another one that claims it, for whoever answers there answers for all of them.
bool CameraTable::IsWaitingForItsTurn(const Sighting& sighting) const {
    if (sighting.state != State::Unconfirmed || sighting.m_probing || IsPaused(sighting.interface)) {
        return false;
    }
    return m_holders.count({sighting.interface, sighting.ip}) == 0 &&
           std::none_of(m_confirming.begin(), m_confirming.end(), [&](const Sighting* other) {
               return other->interface == sighting.interface && other->ip == sighting.ip;
           });
}

bool CameraTable::MayBeConfirmed(const Sighting& sighting, TimePoint now) const {
    return now >= sighting.m_nextProbe && IsWaitingForItsTurn(sighting);
}

void CameraTable::StartConfirmations(TimePoint now, std::vector<Probe>* out) {
    while (m_confirming.size() < MaxConfirming) {
        // Known hosts first, those that have not failed, and of the senders the one that is being asked least about.
        Sighting* best = nullptr;
        std::tuple<bool, int, std::ptrdiff_t> least;
        for (Sighting* sighting : m_unlisted) {
            if (!MayBeConfirmed(*sighting, now)) {
                continue;
            }
            const auto sameSender = std::count_if(m_confirming.begin(), m_confirming.end(), [&](const Sighting* other) {
                return other->m_sender == sighting->m_sender;
            });
            const std::tuple rank(!sighting->m_hasHost, sighting->m_failures, sameSender);
            if (best == nullptr || rank < least) {
                best = sighting, least = rank;
            }
        }
        if (best == nullptr) {
            return;
        }
        StartProbe(*best, now, out);
        if (!best->m_probing) {
            return;
        }
    }
}

void CameraTable::StartProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out) {
    const std::uint16_t id = m_ids.Take();
    if (id == 0) {  // more requests outstanding than there are ids
        sighting.m_nextProbe = now + m_timings.probePeriod;
        Due(sighting.m_nextProbe);
        return;
    }
    try {
        m_probes.emplace(id, &sighting);
        if (sighting.state != State::Present) {
            m_confirming.push_back(&sighting);
        }
    } catch (...) {
        m_probes.erase(id);
        m_ids.Release(id);
        throw;
    }
    sighting.m_probing = true;
    sighting.m_probeId = id;
    sighting.m_round = 0;
    sighting.m_sentInRound = 0;
    sighting.m_probeStart = now;
    sighting.m_roundEnd = now + m_timings.probeRound;
    sighting.m_nextSend = now;
    sighting.m_broadcastAt = TimePoint();
    Due(now);
    Send(sighting, now, out);
}

void CameraTable::EndProbe(Sighting& sighting) {
    if (!sighting.m_probing) {
        return;
    }
    sighting.m_probing = false;
    m_probes.erase(sighting.m_probeId);
    m_ids.Release(sighting.m_probeId);
    if (sighting.state != State::Present) {
        std::erase(m_confirming, &sighting);
    }
}

void CameraTable::Send(Sighting& sighting, TimePoint now, std::vector<Probe>* out) {
    const bool present = sighting.state == State::Present;
    out->push_back(Probe{sighting.interface, sighting.ip, sighting.m_probeId, present ? Port::Verify : Port::Search});
    ++sighting.m_sentInRound;
    const bool lastRound = sighting.m_round + 1 >= m_timings.probeRounds;
    const Milliseconds repeat = lastRound ? m_timings.probeRepeatLast : m_timings.probeRepeat;
    sighting.m_nextSend = now + (present ? repeat : m_timings.confirmRepeat);
    Due(std::min(sighting.m_nextSend, sighting.m_roundEnd));
}

void CameraTable::ProbeRefused(std::uint16_t id, TimePoint now) {
    const auto found = m_probes.find(id);
    if (found == m_probes.end()) {
        return;
    }
    Sighting& sighting = *found->second;
    if (sighting.m_sentInRound > 0) {
        --sighting.m_sentInRound;
    }
    if (sighting.m_refusedSince == TimePoint()) {
        sighting.m_refusedSince = now;
    }
}

// False when the sighting has missed its rounds.
bool CameraTable::AdvanceProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out) {
    if (now >= sighting.m_roundEnd) {
        const bool refused = sighting.m_sentInRound == 0;
        if (!refused) {
            sighting.m_refusedSince = TimePoint();
        }
        const bool inVain = refused && sighting.m_refusedSince != TimePoint();
        if (inVain && now - sighting.m_refusedSince >= m_timings.refusedGrace) {
            return false;
        }
        // A round in which nothing could be sent, or one while it still moves, is not a missed one.
        if (!refused && now >= sighting.m_patientUntil && ++sighting.m_round >= m_timings.probeRounds) {
            return false;
        }
        sighting.m_sentInRound = 0;
        // From now, not from the end of the last one: a process that was stopped must not take its own sleep for the
        // camera's.
        sighting.m_roundEnd = now + m_timings.probeRound;
        sighting.m_nextSend = now;
    }
    if (now >= sighting.m_nextSend) {
        Send(sighting, now, out);
    }
    return true;
}

// When a present sighting that is not being asked is to be: in its turn, or sooner for a broadcast that it has not
// answered.
TimePoint CameraTable::NextOf(const Sighting& sighting) const {
    if (sighting.m_broadcastAt == TimePoint()) {
        return sighting.m_nextProbe;
    }
    const TimePoint missed = sighting.m_broadcastAt + m_timings.signWait;
    return missed >= sighting.m_spareAt ? std::min(sighting.m_nextProbe, missed) : sighting.m_nextProbe;
}

void CameraTable::TickPresent(Sighting& sighting, TimePoint now, std::vector<Probe>* out,
                              std::vector<Sighting*>* missed) {
    if (IsPaused(sighting.interface)) {
        return;
    }
    if (sighting.m_probing) {
        if (!AdvanceProbe(sighting, now, out)) {
            missed->push_back(&sighting);
        }
    } else if (now >= NextOf(sighting)) {
        if (now < sighting.m_nextProbe) {
            sighting.m_spareAt = now + m_timings.signRest;
        }
        StartProbe(sighting, now, out);
    }
}

void CameraTable::Tick(TimePoint now, std::vector<Probe>* out) {
    if (now < m_nextDue) {
        return;
    }
    std::vector<Sighting*> missed;
    for (const auto& holder : m_holders) {
        TickPresent(*holder.second, now, out, &missed);
    }
    std::vector<Sighting*> failed;
    for (Sighting* sighting : m_confirming) {
        if (!AdvanceProbe(*sighting, now, out)) {
            failed.push_back(sighting);
        }
    }
    for (Sighting* sighting : missed) {
        Erase(sighting);
    }
    for (Sighting* sighting : failed) {
        NotConfirmed(*sighting, now);
    }
    while (!m_unlisted.empty() && now - m_unlisted.front()->lastHeard >= m_timings.sightingLifetime) {
        Erase(m_unlisted.front());
    }
    StartConfirmations(now, out);
    FindNextDue();
}

void CameraTable::FindNextDue() {
    TimePoint next = TimePoint::max();
    for (const auto& holder : m_holders) {
        const Sighting& sighting = *holder.second;
        if (IsPaused(sighting.interface)) {
            continue;
        }
        next =
            std::min(next, sighting.m_probing ? std::min(sighting.m_roundEnd, sighting.m_nextSend) : NextOf(sighting));
    }
    for (const Sighting* sighting : m_confirming) {
        next = std::min(next, std::min(sighting->m_roundEnd, sighting->m_nextSend));
    }
    const bool room = m_confirming.size() < MaxConfirming;
    for (const Sighting* sighting : m_unlisted) {
        if (!room) {
            break;  // one that ends brings the next
        }
        if (sighting->m_nextProbe < next && IsWaitingForItsTurn(*sighting)) {
            next = sighting->m_nextProbe;
        }
    }
    if (!m_unlisted.empty()) {
        next = std::min(next, m_unlisted.front()->lastHeard + m_timings.sightingLifetime);
    }
    m_nextDue = next;
}

void CameraTable::ProbeNow(Sighting& present, TimePoint now, std::vector<Probe>* out) {
    if (IsPaused(present.interface)) {
        return;
    }
    if (present.m_probing) {
        Send(present, now, out);
    } else {
        StartProbe(present, now, out);
    }
}

void CameraTable::ProbeAll(TimePoint now, std::vector<Probe>* out) {
    for (const auto& holder : m_holders) {
        ProbeNow(*holder.second, now, out);
    }
}

void CameraTable::ProbeCamera(const CameraKey& key, TimePoint now, std::vector<Probe>* out) {
    const auto found = m_cameras.find(key);
    if (found == m_cameras.end()) {
        return;
    }
    for (auto& sighting : found->second.sightings) {
        if (sighting->state == State::Present) {
            ProbeNow(*sighting, now, out);
        }
    }
}

bool CameraTable::IsVerifying(TimePoint now) const {
    return std::any_of(m_holders.begin(), m_holders.end(), [&](const auto& holder) {
        const Sighting& sighting = *holder.second;
        return sighting.m_probing && now - sighting.m_probeStart < m_timings.verifyWait &&
               !IsPaused(sighting.interface);
    });
}

bool CameraTable::IsConfirming() const {
    return std::any_of(m_unlisted.begin(), m_unlisted.end(), [this](const Sighting* sighting) {
        return sighting->state == State::Unconfirmed && sighting->m_failures == 0 &&
               m_holders.count({sighting->interface, sighting->ip}) == 0;
    });
}

bool CameraTable::HasBacklog(TimePoint now) const {
    if (m_confirming.size() < MaxConfirming) {
        return false;
    }
    return std::any_of(m_unlisted.begin(), m_unlisted.end(),
                       [&](const Sighting* sighting) { return MayBeConfirmed(*sighting, now); });
}

bool CameraTable::HasMissedRound(const Camera& camera) {
    return camera.listed != nullptr && camera.listed->m_probing && camera.listed->m_round > 0;
}

// ---- Sightings -----------------------------------------------------------------------------------------------------

const CameraTable::Camera* CameraTable::Find(const CameraKey& key) const {
    const auto found = m_cameras.find(key);
    return found != m_cameras.end() ? &found->second : nullptr;
}

const CameraTable::Sighting* CameraTable::FindSighting(const CameraKey& key, int interface, std::uint32_t ip) const {
    const Camera* camera = Find(key);
    if (camera == nullptr) {
        return nullptr;
    }
    for (const auto& sighting : camera->sightings) {
        if (sighting->interface == interface && sighting->ip == ip) {
            return sighting.get();
        }
    }
    return nullptr;
}

CameraTable::Sighting* CameraTable::FindOwn(const CameraKey& key, int interface, std::uint32_t ip) {
    return const_cast<Sighting*>(FindSighting(key, interface, ip));
}

// The one that was heard least recently gives way: not one that is being asked, or the flood that pushes it out would
// be answered by as many requests, and known hosts last. False when all are present.
bool CameraTable::MakeRoom() {
    if (m_numSightings < MaxSightings) {
        return true;
    }
    if (m_unlisted.empty()) {
        return false;
    }
    int passed = 0;
    for (Sighting* sighting : m_unlisted) {
        if (sighting->m_probing || (sighting->m_hasHost && ++passed <= MostPassedOver)) {
            continue;
        }
        Erase(sighting);
        return true;
    }
    Erase(m_unlisted.front());
    return true;
}

CameraTable::Sighting* CameraTable::AddSighting(const Answer& answer, TimePoint now) {
    if (!MakeRoom()) {
        return nullptr;
    }
    // All memory first: a table that has run out of it is still whole.
    auto sighting = std::make_unique<Sighting>();
    std::list<Sighting*> unlisted{sighting.get()};
    const CameraKey key = KeyOf(answer.record);
    auto found = m_cameras.find(key);
    if (found == m_cameras.end()) {
        Camera fresh{key, {}, nullptr};
        fresh.sightings.reserve(1);
        found = m_cameras.emplace(key, std::move(fresh)).first;
    } else {
        found->second.sightings.reserve(found->second.sightings.size() + 1);
    }
    Camera& camera = found->second;
    sighting->camera = &camera;
    sighting->interface = answer.interface;
    sighting->ip = answer.record.ipAddress;
    sighting->state = answer.usability == GigEUsability::Usable ? State::Unconfirmed : State::OutOfReach;
    sighting->usability = answer.usability;
    sighting->record = answer.record;
    sighting->lastHeard = now;
    sighting->m_sender = answer.from;
    const auto hosts = m_hosts.find(answer.interface);
    sighting->m_hasHost = hosts != m_hosts.end() && hosts->second.count(sighting->ip) != 0;
    sighting->m_nextProbe = now;
    sighting->m_unlisted = unlisted.begin();
    m_unlisted.splice(m_unlisted.end(), unlisted);
    camera.sightings.push_back(std::move(sighting));
    ++m_numSightings;
    Due(now + m_timings.sightingLifetime);
    return camera.sightings.back().get();
}

void CameraTable::Erase(Sighting* sighting) {
    if (sighting->m_probing) {
        Due(TimePoint());  // others may have waited for this question
    }
    EndProbe(*sighting);
    if (sighting->state == State::Present) {
        // Who waits for its address is asked next.
        m_holders.erase({sighting->interface, sighting->ip});
        for (Sighting* other : m_unlisted) {
            if (other->interface != sighting->interface || other->ip != sighting->ip) {
                continue;
            }
            other->m_nextProbe = TimePoint();
            Due(TimePoint());
        }
    } else {
        m_unlisted.erase(sighting->m_unlisted);
    }
    Camera& camera = *sighting->camera;
    if (camera.listed == sighting) {
        camera.listed = nullptr, m_changed = true;
    }
    std::erase_if(camera.sightings, [&](const auto& held) { return held.get() == sighting; });
    --m_numSightings;
    if (camera.sightings.empty()) {
        m_cameras.erase(m_cameras.find(camera.key));
    } else {
        ChooseListed(camera);
    }
}

void CameraTable::EraseIf(const std::function<bool(const Sighting&)>& predicate) {
    std::vector<Sighting*> gone;
    for (auto& entry : m_cameras) {
        for (auto& sighting : entry.second.sightings) {
            if (predicate(*sighting)) {
                gone.push_back(sighting.get());
            }
        }
    }
    for (Sighting* sighting : gone) {
        Erase(sighting);
    }
}

void CameraTable::DropInterface(int interface) {
    EraseIf([&](const Sighting& sighting) { return sighting.interface == interface; });
    m_paused.erase(interface);
    m_hosts.erase(interface);
}

void CameraTable::PauseInterface(int interface) {
    if (!m_paused.insert(interface).second) {
        return;
    }
    std::vector<Sighting*> confirming;
    for (Sighting* sighting : m_confirming) {
        if (sighting->interface == interface) {
            confirming.push_back(sighting);
        }
    }
    for (Sighting* sighting : confirming) {
        EndProbe(*sighting);
    }
}

void CameraTable::ResumeInterface(int interface, TimePoint now) {
    if (m_paused.erase(interface) == 0) {
        return;
    }
    for (auto& entry : m_cameras) {
        for (auto& sighting : entry.second.sightings) {
            if (sighting->interface != interface) {
                continue;
            }
            EndProbe(*sighting);
            sighting->m_nextProbe = now;
            sighting->m_refusedSince = TimePoint();
        }
    }
    Due(now);
}

bool CameraTable::IsListedPaused() const {
    return std::any_of(m_cameras.begin(), m_cameras.end(), [this](const auto& entry) {
        return entry.second.listed != nullptr && IsPaused(entry.second.listed->interface);
    });
}

void CameraTable::HasMoved(const Answer& answer, TimePoint now, std::vector<Probe>* out) {
    const CameraKey key = KeyOf(answer.record);
    Sighting* sighting = FindOwn(key, answer.interface, answer.record.ipAddress);
    if (sighting == nullptr) {
        sighting = AddSighting(answer, now);
    }
    if (sighting == nullptr) {
        return;
    }
    EraseIf([&](const Sighting& other) { return other.camera->key == key && other.ip != answer.record.ipAddress; });
    SetState(*sighting, answer.usability, now);
    sighting->m_patientUntil = now + m_timings.forceIpVerify;
    sighting->m_nextProbe = now;
    sighting->m_hasHost = true;  // somebody has just acknowledged from there
    if (MayBeConfirmed(*sighting, now)) {
        StartProbe(*sighting, now, out);
    } else if (sighting->state == State::Present) {
        ProbeCamera(key, now, out);  // its mask or its gateway may be others now
    }
}

void CameraTable::KnowHosts(int interface, std::set<std::uint32_t> hosts) {
    std::set<std::uint32_t>& known = m_hosts[interface];
    known = std::move(hosts);
    for (Sighting* sighting : m_unlisted) {
        if (sighting->interface == interface) {
            sighting->m_hasHost = known.count(sighting->ip) != 0;
        }
    }
}

void CameraTable::Reclassify(int interface, const std::function<GigEUsability(const GvcpDiscoveryRecord&)>& judge,
                             TimePoint now) {
    for (auto& entry : m_cameras) {
        for (auto& sighting : entry.second.sightings) {
            if (sighting->interface == interface) {
                SetState(*sighting, judge(sighting->record), now);
            }
        }
    }
}

// What the addresses say now.
void CameraTable::SetState(Sighting& sighting, GigEUsability usability, TimePoint now) {
    sighting.usability = usability;
    const bool inReach = usability == GigEUsability::Usable;
    if (inReach == (sighting.state != State::OutOfReach)) {
        return;
    }
    MoveToUnlisted(sighting, inReach ? State::Unconfirmed : State::OutOfReach);
    sighting.m_nextProbe = now;
    Due(now);
    ChooseListed(*sighting.camera);
}

void CameraTable::MoveToUnlisted(Sighting& sighting, State state) {
    if (sighting.state == State::Present) {
        sighting.m_unlisted = m_unlisted.insert(m_unlisted.end(), &sighting);
        EndProbe(sighting);
        m_holders.erase({sighting.interface, sighting.ip});
    }
    EndProbe(sighting);
    sighting.state = state;
    Due(sighting.lastHeard + m_timings.sightingLifetime);
}

void CameraTable::ChooseListed(Camera& camera) {
    if (camera.listed != nullptr && camera.listed->state == State::Present) {
        return;
    }
    // The one that answered last is the likeliest to answer again; the first of them, so that the choice is stable.
    Sighting* best = nullptr;
    for (auto& sighting : camera.sightings) {
        if (sighting->state != State::Present) {
            continue;
        }
        if (best == nullptr || sighting->lastAnswer > best->lastAnswer) {
            best = sighting.get();
        }
    }
    if (best != camera.listed) {
        m_changed = true;
    }
    camera.listed = best;
}

bool CameraTable::TakeChanged() { return std::exchange(m_changed, false); }

}  // namespace Nimbrel2::Platform::GigE
