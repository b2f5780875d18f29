// SPDX-License-Identifier: Apache-2.0
// Listings. Any thread; m_mutex is let go while the network is waited for.
#include <algorithm>
#include <tuple>

#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

/// Counts a thread that waits for the table to change, also when memory runs out meanwhile. m_mutex is held from its
/// begin, and at its end.
class Waiting {
public:
    Waiting(int& count, std::unique_lock<std::mutex>& lock) : m_count(count), m_lock(lock) { ++m_count; }
    ~Waiting() {
        if (!m_lock.owns_lock()) m_lock.lock();
        --m_count;
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

private:
    int& m_count;
    std::unique_lock<std::mutex>& m_lock;
};

}  // namespace

// Of two cameras that have answered at one address, which happens while one takes it over from the other, the last one
// has it.
std::vector<const CameraTable::Sighting*> GigECore::FindListed() const {
    std::map<std::pair<int, std::uint32_t>, const CameraTable::Sighting*> holders;
    for (const auto& [key, camera] : m_table.GetCameras()) {
        if (camera.listed == nullptr) continue;
        const CameraTable::Sighting*& holder = holders[{camera.listed->interface, camera.listed->ip}];
        if (holder == nullptr || holder->lastAnswer < camera.listed->lastAnswer) holder = camera.listed;
    }
    std::vector<const CameraTable::Sighting*> listed;
    for (const auto& entry : holders) listed.push_back(entry.second);
    return listed;
}

BusState GigECore::GetState() const {
    BusState state;
    for (const CameraTable::Sighting* sighting : FindListed()) {
        const CameraKey& key = sighting->camera->key;
        state.devices.push_back(
            PresentDevice{std::to_string(key.mac) + "/" + IpText(key.ip) + "/" + key.serial, sighting->ip});
    }
    return state;
}

std::uint32_t GigECore::ListCameras(std::vector<ListedCamera>* cameras, BusState* state) {
    std::unique_lock lock(m_mutex);
    if (!m_running) return HAL_CLOSED;
    const Waiting waiting(m_numWaiting, lock);
    const TimePoint limit = Clock::now() + m_timings.listingLimit;
    if (!m_hasListed) WaitForWindow(lock, limit);
    Verify(lock, limit);
    if (!m_running) return HAL_CLOSED;

    // From here to the end nothing changes.
    const std::uint32_t status = HasUsedInterface() ? std::uint32_t{HAL_OK} : RefusalStatus();
    cameras->clear();
    if (status != HAL_OK && status != HAL_NO_BUS) return status;
    ReportChanges();
    CollectListed(cameras);
    *state = GetState();
    m_hasListed = true;
    return HAL_OK;
}

// The window ends at a fixed time after the first request, whatever is heard meanwhile. A computer without a network
// has nothing to wait for.
void GigECore::WaitForWindow(std::unique_lock<std::mutex>& lock, TimePoint limit) {
    while (m_running && HasUsedInterface() && Clock::now() < m_windowEnd) {
        // The first request is the monitor's first act; until then there is no end to wait for.
        const TimePoint end = m_windowEnd == TimePoint::max() ? limit : m_windowEnd;
        if (Clock::now() >= end) return;
        m_changed.wait_until(lock, end);
    }
}

// Asks all known cameras at once whether they are still there. Those that a first listing has heard but not yet reached
// get their chance to answer; later the monitor reports them when they do. After a window longer than the limit there
// still is time for this.
void GigECore::Verify(std::unique_lock<std::mutex>& lock, TimePoint limit) {
    const TimePoint start = Clock::now();
    const TimePoint deadline = std::max(limit, start + m_timings.probeRounds * m_timings.probeRound);
    std::vector<Probe> probes;
    m_table.ProbeAll(start, &probes);
    if (!probes.empty()) {
        lock.unlock();
        SendProbes(probes);
        m_poller.Wake();
        lock.lock();
    }
    const bool isFirst = !m_hasListed;
    while (m_running && (m_table.IsVerifying(start) || (isFirst && m_table.IsConfirming()))) {
        if (m_changed.wait_until(lock, deadline) == std::cv_status::timeout) return;
    }
}

void GigECore::CollectListed(std::vector<ListedCamera>* cameras) const {
    const TimePoint now = Clock::now();
    cameras->clear();
    for (const CameraTable::Sighting* sighting : FindListed()) {
        cameras->push_back(ListedCamera{sighting->camera->key, sighting->record, now});
    }
    std::sort(cameras->begin(), cameras->end(), [](const ListedCamera& a, const ListedCamera& b) {
        return std::tie(a.key.mac, a.record.ipAddress, a.key.serial) <
               std::tie(b.key.mac, b.record.ipAddress, b.key.serial);
    });
}

std::uint32_t GigECore::GetRecord(const ListedCamera& listed, GvcpDiscoveryRecord* record) {
    std::lock_guard lock(m_mutex);
    if (!m_running) return HAL_CLOSED;
    const CameraTable::Camera* camera = m_table.Find(listed.key);
    // What the listing saw stays true of a camera that has left, and the bus master may still be busy with that
    // listing.
    *record = camera != nullptr && camera->listed != nullptr ? camera->listed->record : listed.record;
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform::GigE
