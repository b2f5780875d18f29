// SPDX-License-Identifier: Apache-2.0
// Which cameras have been heard, which of them answer, and whom to ask next.
// No thread, lock, I/O or clock of its own; the owner brings them.
#include "platform/linux/gige/CameraTable.h"

#include <algorithm>
#include <utility>

namespace Nimbrel2::Platform::GigE {

namespace {

// A round in which nothing could be sent is not a missed one, but a network that takes nothing at all must not keep a
// camera listed for ever.
constexpr int kMaxRefusedRounds = 3;

bool SameRecord(const GvcpDiscoveryRecord& record, const CameraKey& key, std::uint32_t ip) {
    return record.ipAddress == ip && KeyOf(record) == key;
}

}  // namespace

CameraTable::~CameraTable() {
    for (const auto& probe : m_probes) m_ids.Release(probe.first);
}

// ---- What is heard -------------------------------------------------------------------------------------------------

void CameraTable::HeardBroadcast(int interface, const GvcpDiscoveryRecord& record, bool reachable, TimePoint now,
                                 std::vector<Probe>* out) {
    Sighting* sighting = FindSighting(KeyOf(record), interface, record.ipAddress);
    if (sighting == nullptr) {
        sighting = AddSighting(interface, record, reachable, now);
        if (sighting == nullptr) return;
        AskOtherAddresses(*sighting, now, out);
    }
    sighting->lastHeard = now;
    if (sighting->state == State::Present) return;  // only the camera itself, asked alone, says how it has changed

    sighting->record = record;
    m_unlisted.splice(m_unlisted.end(), m_unlisted, sighting->m_unlisted);
    if (reachable != (sighting->state == State::Unconfirmed)) {
        EndProbe(*sighting);
        sighting->state = reachable ? State::Unconfirmed : State::Foreign;
        sighting->m_nextProbe = now;
    }
    if (sighting->state == State::Unconfirmed && !sighting->m_probing && now >= sighting->m_nextProbe) {
        StartProbe(*sighting, now, out);
    }
}

bool CameraTable::HeardProbe(int interface, std::uint32_t from, std::uint16_t id, const GvcpDiscoveryRecord& record,
                             TimePoint now, std::vector<Probe>* out) {
    const auto found = m_probes.find(id);
    if (found == m_probes.end()) return false;
    Sighting* sighting = found->second;
    if (sighting->interface != interface || sighting->ip != from) return false;

    if (SameRecord(record, sighting->camera->key, sighting->ip)) {
        Confirm(*sighting, record, now);
        return true;
    }
    // Another camera answers there. A present one may still answer itself before its rounds are over.
    sighting->addressTaken = true;
    if (sighting->state != State::Present) NotConfirmed(*sighting, now);
    if (record.ipAddress != from) return true;  // it says that it lives elsewhere, where it has not been asked
    Sighting* other = FindSighting(KeyOf(record), interface, from);
    if (other == nullptr) {
        other = AddSighting(interface, record, true, now);
        if (other == nullptr) return true;
        AskOtherAddresses(*other, now, out);
    }
    Confirm(*other, record, now);
    return true;
}

void CameraTable::AskOtherAddresses(const Sighting& sighting, TimePoint now, std::vector<Probe>* out) {
    // A camera heard at a new address has probably left the old one; the sooner that is known the better.
    for (const auto& other : sighting.camera->sightings) {
        const bool old = other.get() != &sighting && other->ip != sighting.ip && other->state == State::Present;
        if (old && !other->m_probing) StartProbe(*other, now, out);
    }
}

void CameraTable::Confirm(Sighting& sighting, const GvcpDiscoveryRecord& record, TimePoint now) {
    EndProbe(sighting);
    sighting.record = record;
    sighting.lastHeard = now;
    sighting.lastAnswer = now;
    sighting.addressTaken = false;
    sighting.m_failures = 0;
    sighting.m_nextProbe = now + m_timings.probePeriod;
    Due(sighting.m_nextProbe);
    if (sighting.state == State::Present) return;
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
}

// ---- Probes --------------------------------------------------------------------------------------------------------

void CameraTable::StartProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out) {
    const std::uint16_t id = m_ids.Take();
    if (id == 0) {  // more requests outstanding than there are ids
        sighting.m_nextProbe = now + m_timings.probePeriod;
        return;
    }
    m_probes[id] = &sighting;
    sighting.m_probing = true;
    sighting.m_probeId = id;
    sighting.m_round = 0;
    sighting.m_sentInRound = 0;
    sighting.m_refusedRounds = 0;
    sighting.m_roundEnd = now + m_timings.probeRound;
    if (sighting.state != State::Present) ++m_numConfirming;
    Due(sighting.m_roundEnd);
    Send(sighting, now, out);
}

void CameraTable::EndProbe(Sighting& sighting) {
    if (!sighting.m_probing) return;
    sighting.m_probing = false;
    m_probes.erase(sighting.m_probeId);
    m_ids.Release(sighting.m_probeId);
    if (sighting.state != State::Present) --m_numConfirming;
}

void CameraTable::Send(Sighting& sighting, TimePoint now, std::vector<Probe>* out) {
    out->push_back(Probe{sighting.interface, sighting.ip, sighting.m_probeId});
    ++sighting.m_sentInRound;
    const bool lastRound = sighting.m_round + 1 >= m_timings.probeRounds;
    sighting.m_nextSend = now + (lastRound ? m_timings.probeRepeatLast : m_timings.probeRepeat);
    Due(sighting.m_nextSend);
}

void CameraTable::ProbeRefused(std::uint16_t id) {
    const auto found = m_probes.find(id);
    if (found != m_probes.end() && found->second->m_sentInRound > 0) --found->second->m_sentInRound;
}

// False when the sighting has missed its rounds.
bool CameraTable::AdvanceProbe(Sighting& sighting, TimePoint now, std::vector<Probe>* out) {
    if (now >= sighting.m_roundEnd) {
        if (sighting.m_sentInRound == 0 && sighting.m_refusedRounds < kMaxRefusedRounds) {
            ++sighting.m_refusedRounds;
        } else if (now < sighting.m_patientUntil) {
            // Not counted.
        } else if (++sighting.m_round >= m_timings.probeRounds) {
            return false;
        }
        sighting.m_sentInRound = 0;
        // From now, not from the end of the last one: a process that was stopped must not take its own sleep for the
        // camera's.
        sighting.m_roundEnd = now + m_timings.probeRound;
        sighting.m_nextSend = now;
    }
    const bool eager = sighting.state == State::Present || m_numConfirming <= kMaxEagerConfirmations;
    if (now >= sighting.m_nextSend && (eager || sighting.m_sentInRound == 0)) Send(sighting, now, out);
    return true;
}

void CameraTable::Tick(TimePoint now, std::vector<Probe>* out) {
    if (now < m_nextDue) return;
    std::vector<Sighting*> missed;
    for (auto& entry : m_cameras) {
        for (auto& sighting : entry.second.sightings) {
            if (sighting->m_probing) {
                if (!AdvanceProbe(*sighting, now, out)) missed.push_back(sighting.get());
            } else if (sighting->state == State::Present && now >= sighting->m_nextProbe) {
                StartProbe(*sighting, now, out);
            }
        }
    }
    for (Sighting* sighting : missed) {
        if (sighting->state == State::Present) {
            Erase(sighting);
        } else {
            NotConfirmed(*sighting, now);
        }
    }
    while (!m_unlisted.empty() && now - m_unlisted.front()->lastHeard >= m_timings.sightingLifetime) {
        Erase(m_unlisted.front());
    }
    FindNextDue();
}

void CameraTable::FindNextDue() {
    TimePoint next = TimePoint::max();
    for (const auto& entry : m_cameras) {
        for (const auto& sighting : entry.second.sightings) {
            if (sighting->m_probing) {
                const bool eager = sighting->state == State::Present || m_numConfirming <= kMaxEagerConfirmations;
                next = std::min(next, sighting->m_roundEnd);
                if (eager || sighting->m_sentInRound == 0) next = std::min(next, sighting->m_nextSend);
            } else if (sighting->state == State::Present) {
                next = std::min(next, sighting->m_nextProbe);
            }
        }
    }
    if (!m_unlisted.empty()) next = std::min(next, m_unlisted.front()->lastHeard + m_timings.sightingLifetime);
    m_nextDue = next;
}

void CameraTable::ProbeAll(TimePoint now, std::vector<Probe>* out) {
    for (auto& entry : m_cameras) ProbeCamera(entry.first, now, out);
}

void CameraTable::ProbeCamera(const CameraKey& key, TimePoint now, std::vector<Probe>* out) {
    const auto found = m_cameras.find(key);
    if (found == m_cameras.end()) return;
    for (auto& sighting : found->second.sightings) {
        if (sighting->state != State::Present) continue;
        if (sighting->m_probing) {
            Send(*sighting, now, out);
        } else {
            StartProbe(*sighting, now, out);
        }
    }
}

bool CameraTable::IsVerifying(TimePoint since) const {
    for (const auto& entry : m_cameras) {
        for (const auto& sighting : entry.second.sightings) {
            const bool waits = sighting->state == State::Present && sighting->m_probing && sighting->lastAnswer < since;
            if (waits) return true;
        }
    }
    return false;
}

bool CameraTable::IsConfirming() const {
    return std::any_of(m_unlisted.begin(), m_unlisted.end(),
                       [](const Sighting* sighting) { return sighting->m_probing && sighting->m_failures == 0; });
}

bool CameraTable::HasMissedRound(const Camera& camera) {
    return camera.listed != nullptr && camera.listed->m_probing && camera.listed->m_round > 0;
}

// ---- Sightings -----------------------------------------------------------------------------------------------------

const CameraTable::Camera* CameraTable::Find(const CameraKey& key) const {
    const auto found = m_cameras.find(key);
    return found != m_cameras.end() ? &found->second : nullptr;
}

CameraTable::Sighting* CameraTable::FindSighting(const CameraKey& key, int interface, std::uint32_t ip) {
    const auto found = m_cameras.find(key);
    if (found == m_cameras.end()) return nullptr;
    for (auto& sighting : found->second.sightings) {
        if (sighting->interface == interface && sighting->ip == ip) return sighting.get();
    }
    return nullptr;
}

CameraTable::Sighting* CameraTable::AddSighting(int interface, const GvcpDiscoveryRecord& record, bool reachable,
                                                TimePoint now) {
    if (m_numSightings >= kMaxSightings) {
        if (m_unlisted.empty()) return nullptr;
        Erase(m_unlisted.front());
    }
    // All memory first: a table that has run out of it is still whole.
    auto sighting = std::make_unique<Sighting>();
    std::list<Sighting*> unlisted{sighting.get()};
    const CameraKey key = KeyOf(record);
    auto found = m_cameras.find(key);
    if (found == m_cameras.end()) {
        Camera fresh{key, {}, nullptr, std::make_shared<CameraChannel>()};
        fresh.sightings.reserve(1);
        found = m_cameras.emplace(key, std::move(fresh)).first;
    } else {
        found->second.sightings.reserve(found->second.sightings.size() + 1);
    }
    Camera& camera = found->second;
    sighting->camera = &camera;
    sighting->interface = interface;
    sighting->ip = record.ipAddress;
    sighting->state = reachable ? State::Unconfirmed : State::Foreign;
    sighting->record = record;
    sighting->lastHeard = now;
    sighting->m_nextProbe = now;
    sighting->m_unlisted = unlisted.begin();
    m_unlisted.splice(m_unlisted.end(), unlisted);
    camera.sightings.push_back(std::move(sighting));
    ++m_numSightings;
    Due(now + m_timings.sightingLifetime);
    return camera.sightings.back().get();
}

void CameraTable::Erase(Sighting* sighting) {
    EndProbe(*sighting);
    if (sighting->state != State::Present) m_unlisted.erase(sighting->m_unlisted);
    Camera& camera = *sighting->camera;
    if (camera.listed == sighting) camera.listed = nullptr, m_changed = true;
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
            if (predicate(*sighting)) gone.push_back(sighting.get());
        }
    }
    for (Sighting* sighting : gone) Erase(sighting);
}

void CameraTable::DropInterface(int interface) {
    EraseIf([&](const Sighting& sighting) { return sighting.interface == interface; });
}

void CameraTable::HasMoved(int interface, const GvcpDiscoveryRecord& record, bool reachable, TimePoint now,
                           std::vector<Probe>* out) {
    const CameraKey key = KeyOf(record);
    Sighting* sighting = FindSighting(key, interface, record.ipAddress);
    if (sighting == nullptr) sighting = AddSighting(interface, record, reachable, now);
    if (sighting == nullptr) return;
    EraseIf([&](const Sighting& other) { return other.camera->key == key && other.ip != record.ipAddress; });
    sighting->m_patientUntil = now + m_timings.forceIpVerify;
    if (sighting->state == State::Unconfirmed && !sighting->m_probing) StartProbe(*sighting, now, out);
}

void CameraTable::Reclassify(int interface, const std::function<bool(std::uint32_t)>& isReachable, TimePoint now) {
    for (auto& entry : m_cameras) {
        for (auto& sighting : entry.second.sightings) {
            if (sighting->interface != interface) continue;
            const bool reachable = isReachable(sighting->ip);
            if (reachable == (sighting->state != State::Foreign)) continue;
            MoveToUnlisted(*sighting, reachable ? State::Unconfirmed : State::Foreign);
            sighting->m_nextProbe = now;
        }
        ChooseListed(entry.second);
    }
}

void CameraTable::MoveToUnlisted(Sighting& sighting, State state) {
    EndProbe(sighting);
    if (sighting.state == State::Present) sighting.m_unlisted = m_unlisted.insert(m_unlisted.end(), &sighting);
    sighting.state = state;
    Due(sighting.lastHeard + m_timings.sightingLifetime);
}

void CameraTable::ChooseListed(Camera& camera) {
    if (camera.listed != nullptr && camera.listed->state == State::Present) return;
    // The one that answered last is the likeliest to answer again; the first of them, so that the choice is stable.
    Sighting* best = nullptr;
    for (auto& sighting : camera.sightings) {
        if (sighting->state != State::Present) continue;
        if (best == nullptr || sighting->lastAnswer > best->lastAnswer) best = sighting.get();
    }
    if (best != camera.listed) m_changed = true;
    camera.listed = best;
}

bool CameraTable::TakeChanged() { return std::exchange(m_changed, false); }

}  // namespace Nimbrel2::Platform::GigE
