// SPDX-License-Identifier: Apache-2.0
// Discovery: every camera that answers a broadcast within one window, wherever its address is. Any thread; m_mutex is
// let go while the answers come.
#include <poll.h>

#include <algorithm>
#include <tuple>

#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

// As many as are remembered. Those in the table are collected above this too: no flood of invented ones hides them.
constexpr std::size_t kMaxCollected = CameraTable::kMaxSightings;
constexpr std::size_t kPacketBudget = 256;

}  // namespace

/// Collects what is heard into something that lives only as long as the discovery, however that ends.
class GigECore::Collecting {
public:
    Collecting(GigECore& core, Collected* heard) : m_core(core), m_heard(heard) {
        const std::lock_guard lock(m_core.m_mutex);
        m_core.m_collectors.push_back(m_heard);
    }
    ~Collecting() {
        const std::lock_guard lock(m_core.m_mutex);
        std::erase(m_core.m_collectors, m_heard);
    }
    Collecting(const Collecting&) = delete;
    Collecting& operator=(const Collecting&) = delete;

private:
    GigECore& m_core;
    Collected* const m_heard;
};

std::uint32_t GigECore::Discover(std::vector<DiscoveredCamera>* cameras) {
    Collected heard;
    const std::uint32_t status = DiscoverAll(&heard);
    if (status != HAL_OK) return status;

    // One answer a camera, the last one: a camera that was given another address meanwhile has told it last.
    cameras->clear();
    for (const auto& [where, camera] : heard) {
        if (!cameras->empty() && KeyOf(cameras->back().record) == where.first) {
            if (cameras->back().heardAt < camera.heardAt) cameras->back() = camera;
        } else {
            cameras->push_back(camera);
        }
    }
    std::sort(cameras->begin(), cameras->end(), [](const DiscoveredCamera& a, const DiscoveredCamera& b) {
        return std::make_tuple(MacOf(a.record), a.record.ipAddress, SerialTextOf(a.record)) <
               std::make_tuple(MacOf(b.record), b.record.ipAddress, SerialTextOf(b.record));
    });
    return HAL_OK;
}

std::uint32_t GigECore::DiscoverAll(Collected* heard) {
    std::vector<std::shared_ptr<UdpPort>> ports;
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return HAL_CLOSED;
        if (!HasUsedInterface()) return RefusalStatus();
        for (const auto& entry : m_interfaces) {
            if (entry.second.IsUsed()) ports.push_back(entry.second.port);
        }
    }
    std::vector<PacketListener> listeners;
    for (const auto& port : ports) {
        int ofAll = 0;
        int ofIt = 0;
        m_routes.ReadRpFilter(port->GetInterface(), &ofAll, &ofIt);
        if (ofAll == 0 && ofIt == 0) continue;
        PacketListener listener(port);
        if (listener.IsOpen()) listeners.push_back(std::move(listener));
    }

    {
        const Collecting collecting(*this, heard);
        const TimePoint start = Clock::now();
        std::vector<Probe> probes;
        {
            std::lock_guard lock(m_mutex);
            for (auto& entry : m_interfaces) {
                if (entry.second.IsUsed()) StartBurst(entry.second, start);
            }
            // A firewall may let through only what it can pair with a request, which broadcasts are not.
            m_table.ProbeAll(start, &probes);
        }
        m_poller.Wake();
        SendProbes(probes);
        WaitForAnswers(listeners, start + m_timings.discoveryWindow);
    }

    std::lock_guard lock(m_mutex);
    if (!m_running) return HAL_CLOSED;
    return heard->empty() ? SendStatus() : std::uint32_t{HAL_OK};
}

// The monitor reads the sockets; what only the listeners hear is read here.
void GigECore::WaitForAnswers(std::vector<PacketListener>& listeners, TimePoint deadline) {
    std::vector<pollfd> fds{pollfd{m_stop.Get(), POLLIN, 0}};
    for (const PacketListener& listener : listeners) fds.push_back(pollfd{listener.GetFd(), POLLIN, 0});
    while (fds.front().revents == 0) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return;
        if (::poll(fds.data(), fds.size(), static_cast<int>(left)) < 0) fds.front().revents = 0;
        for (std::size_t i = 0; i < listeners.size(); ++i) {
            if (fds[i + 1].revents != 0) listeners[i].Drain(kPacketBudget, *this);
        }
    }
}

void GigECore::Collect(const CameraKey& key, const DiscoveredCamera& camera) {
    for (Collected* heard : m_collectors) {
        const CameraTable::Camera* known = heard->size() < kMaxCollected ? nullptr : m_table.Find(key);
        const bool room = heard->size() < kMaxCollected || (known != nullptr && known->listed != nullptr);
        const auto found = heard->find({key, camera.interface});
        if (found != heard->end()) {
            found->second = camera;
        } else if (room) {
            heard->emplace(std::make_pair(key, camera.interface), camera);
        }
    }
}

// Why nothing was heard, when no interface let a request out.
std::uint32_t GigECore::SendStatus() const {
    int error = 0;
    for (const auto& entry : m_interfaces) {
        if (!entry.second.IsUsed()) continue;
        if (entry.second.sendError == 0) return HAL_OK;
        error = entry.second.sendError;
    }
    return StatusOfErrno(error);
}

}  // namespace Nimbrel2::Platform::GigE
