// SPDX-License-Identifier: Apache-2.0
// Listings, device operations and diagnosis of the GigE driver. Any thread; no lock of its own.
#include "platform/linux/gige/GigEDriver.h"

#include <linux/ethtool.h>
#include <linux/if.h>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string>

#include "platform/base/CameraAddress.h"
#include "platform/gvcp/GvcpConstants.h"

namespace Nimbrel2::Platform::GigE {

namespace {

namespace Register = Gvcp::Register;

// An address of those set apart for documentation: what leads there leads anywhere.
constexpr std::uint32_t NowhereNear = 0xC6336401;  // 198.51.100.1

void ReadSocketMemory(int fd, InterfaceDiagnosis* diagnosis) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> values{};
    socklen_t size = sizeof values;
    if (::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, values.data(), &size) != 0) {
        return;
    }
    diagnosis->receiveBuffer = values[SK_MEMINFO_RCVBUF];
    diagnosis->receiveDrops = values[SK_MEMINFO_DROPS];
}

// Mbit/s; 0 when the interface does not tell, as one without a cable.
std::uint32_t ReadLinkSpeed(int fd, const std::string& name) {
    ethtool_cmd command{};
    command.cmd = ETHTOOL_GSET;
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_data = reinterpret_cast<char*>(&command);
    if (::ioctl(fd, SIOCETHTOOL, &request) != 0) {
        return 0;
    }
    const std::uint32_t speed = ethtool_cmd_speed(&command);
    return speed == static_cast<std::uint32_t>(SPEED_UNKNOWN) ? 0 : speed;
}

}  // namespace

GigEDriver::GigEDriver(const DriverOptions& options, BusEventSink& events)
    : m_parts(options, events), m_discovery(m_parts), m_addresses(m_parts, m_discovery), m_hearing(m_parts) {}

std::uint32_t GigEDriver::Start() {
    m_parts.filtered.Open();
    m_parts.presence.Start();
    const std::uint32_t status = m_parts.monitor.Start();
    if (status == HAL_OK) {
        m_parts.registers.Start(m_parts.monitor.GetStopFd());
    } else {
        m_parts.presence.Stop();
    }
    return status;
}

void GigEDriver::Stop() {
    m_parts.presence.Stop();
    m_parts.registers.Stop();
    m_parts.monitor.Stop();
}

// ---- Listings ------------------------------------------------------------------------------------------------------

std::uint32_t GigEDriver::ListCameras(std::vector<ListedCamera>* cameras, BusState* state) {
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }
    m_parts.presence.WaitForFirstSearch();
    m_parts.presence.WaitForLinks();
    const std::map<CameraKey, Readings> readings = VerifyListed();
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }

    const std::uint32_t status = m_parts.interfaces.GetStatus();
    if (status != HAL_OK && status != HAL_NO_BUS) {
        return status;
    }
    std::vector<SightingView> listed;
    m_parts.presence.TakeListed(&listed, state);
    const TimePoint now = Clock::now();
    for (const SightingView& view : listed) {
        // One that has come in the last moment has not been asked yet.
        Readings unread;
        unread.skipped = true;
        const auto found = readings.find(view.key);
        cameras->push_back({view.key, view.record, found != readings.end() ? found->second : unread, now});
    }
    return HAL_OK;
}

// Asks all listed cameras at once whether they are still there, and what an enumeration wants to know of them. Those
// that are found meanwhile are asked that too: none of them is to cost the enumeration its time.
std::map<CameraKey, Readings> GigEDriver::VerifyListed() {
    const ReadingPlan plan{true, Register::CurrentIpAddress};
    const TimePoint start = Clock::now();
    std::vector<Probe> probes;
    const std::vector<CameraPlace> places = m_parts.presence.BeginVerification(start, &probes);
    m_parts.monitor.SendProbes(probes);
    m_parts.monitor.Wake();
    std::map<CameraKey, Readings> readings = m_parts.registers.ReadAll(places, plan);
    m_parts.presence.WaitForVerification(start + m_parts.options.timings.verifyWait);

    std::vector<CameraPlace> fresh = m_parts.presence.GetPlaces();
    std::erase_if(fresh, [&](const CameraPlace& place) { return readings.count(place.key) != 0; });
    if (!fresh.empty()) {
        readings.merge(m_parts.registers.ReadAll(fresh, plan));
    }
    return readings;
}

// ---- One camera ----------------------------------------------------------------------------------------------------

bool GigEDriver::CountsAsPresent(const ListedCamera& listed, std::uint32_t* ip) {
    if (const auto place = m_parts.presence.FindPlace(listed.key)) {
        *ip = place->ip;
        return true;
    }
    // One camera that leaves while the bus master walks through the listing must not cost it all the others. That this
    // one has left follows as an event.
    *ip = listed.record.ipAddress;
    return Clock::now() - listed.listedAt < m_parts.options.timings.listedGrace;
}

// Not when the camera has moved since: then it answers for itself.
bool GigEDriver::IsFresh(const ListedCamera& listed) const {
    if (!m_parts.presence.IsRunning()) {
        return false;
    }
    const auto place = m_parts.presence.FindPlace(listed.key);
    if (place && place->ip != listed.record.ipAddress) {
        return false;
    }
    return Clock::now() - listed.listedAt < m_parts.options.timings.listedGrace;
}

std::uint32_t GigEDriver::GetRecord(const ListedCamera& listed, GvcpDiscoveryRecord* record) {
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }
    // What the listing saw stays true of a camera that has left, and the bus master may still be busy with that
    // listing.
    const auto view = m_parts.presence.FindListed(listed.key);
    *record = view ? view->record : listed.record;
    return HAL_OK;
}

std::uint32_t GigEDriver::ReadRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t* value) {
    if (address % 4 != 0) {
        return HAL_INVALID_ARGUMENT;
    }
    const std::uint32_t status = m_parts.registers.Read(listed.key, address, value);
    return address == Register::CurrentIpAddress ? ConcludeAddress(listed, status, value) : status;
}

std::uint32_t GigEDriver::ConcludeAddress(const ListedCamera& listed, std::uint32_t status, std::uint32_t* value) {
    std::uint32_t ip = 0;
    if (status == HAL_OK || status == HAL_CLOSED || !CountsAsPresent(listed, &ip)) {
        return status;
    }
    *value = ip;
    return HAL_OK;
}

std::uint32_t GigEDriver::WriteRegister(const ListedCamera& listed, std::uint32_t address, std::uint32_t value) {
    if (address % 4 != 0) {
        return HAL_INVALID_ARGUMENT;
    }
    return m_parts.registers.Write(listed.key, address, value);
}

std::uint32_t GigEDriver::IsInMonitorMode(const ListedCamera& listed, bool* monitor) {
    ControlInfo control;
    const std::uint32_t status = m_parts.registers.GetControl(listed.key, &control);
    return ConcludeMonitorMode(listed, status, control, monitor);
}

// A camera that is there and does not say who controls it may only be watched: to try for control could disturb whoever
// has it.
std::uint32_t GigEDriver::ConcludeMonitorMode(const ListedCamera& listed, std::uint32_t status,
                                              const ControlInfo& control, bool* monitor) {
    *monitor = control.state != ControlState::Free && control.state != ControlState::Ours;
    if (status == HAL_OK || status == HAL_CLOSED) {
        return status;
    }
    std::uint32_t ip = 0;
    return CountsAsPresent(listed, &ip) ? std::uint32_t{HAL_OK} : status;
}

// ---- For people ----------------------------------------------------------------------------------------------------

std::uint32_t GigEDriver::GetSearchReport(GigESearchReport* report) {
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }
    m_parts.FillReport(m_parts.filtered.GetFirst(), report);
    return HAL_OK;
}

std::uint32_t GigEDriver::Diagnose(bool askControl, GigEDiagnosis* diagnosis) {
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }
    m_parts.interfaces.Diagnose(diagnosis);
    diagnosis->defaultRoute = m_parts.routes.FindRoute(NowhereNear);
    const std::vector<SightingView> sightings = m_parts.presence.GetSightings();
    for (InterfaceDiagnosis& entry : diagnosis->interfaces) {
        m_parts.routes.ReadRpFilter(entry.interface.index, &entry.rpFilterOfAll, &entry.rpFilterOfIt);
        entry.heard =
            static_cast<unsigned int>(std::count_if(sightings.begin(), sightings.end(), [&](const SightingView& view) {
                return view.interface == entry.interface.index;
            }));
        const auto used = m_parts.interfaces.FindUsed(entry.interface.index);
        if (!used) {
            continue;
        }
        ReadSocketMemory(used->search->GetFd(), &entry);
        entry.linkSpeed = ReadLinkSpeed(used->search->GetFd(), entry.interface.name);
    }
    std::map<CameraKey, Readings> readings;
    if (askControl) {
        std::vector<CameraPlace> places;
        for (const SightingView& view : sightings) {
            const auto place = m_parts.presence.FindPlace(view.key);
            if (view.listed && place) {
                places.push_back(*place);
            }
        }
        readings = m_parts.registers.ReadAll(places, ReadingPlan{true, Register::StreamChannelPacketSize});
    }
    for (const SightingView& view : sightings) {
        CameraDiagnosis camera = DescribeSighting(view, m_parts.registers);
        const auto read = readings.find(view.key);
        if (view.listed && read != readings.end()) {
            Readings& values = read->second;
            if (values.skipped) {
                m_parts.registers.GetControl(view.key, &values.control);
                values.valueStatus = m_parts.registers.Read(view.key, Register::StreamChannelPacketSize, &values.value);
            }
            camera.control = values.control;
            if (values.valueStatus == HAL_OK) {
                camera.packetSize = values.value & 0xFFFF;
            }
        }
        diagnosis->cameras.push_back(camera);
    }
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform::GigE
