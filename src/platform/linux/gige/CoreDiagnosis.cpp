// SPDX-License-Identifier: Apache-2.0
// What the driver knows, for people. Any thread; m_mutex while it is copied, not while the kernel and the cameras are
// asked for the rest.
#include <linux/ethtool.h>
#include <linux/if.h>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <string>

#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

// An address of those set apart for documentation: what leads there leads anywhere.
constexpr std::uint32_t kNowhereNear = 0xC6336401;  // 198.51.100.1

void ReadSocketMemory(int fd, InterfaceDiagnosis* diagnosis) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> values{};
    socklen_t size = sizeof values;
    if (::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, values.data(), &size) != 0) return;
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
    if (::ioctl(fd, SIOCETHTOOL, &request) != 0) return 0;
    const std::uint32_t speed = ethtool_cmd_speed(&command);
    return speed == static_cast<std::uint32_t>(SPEED_UNKNOWN) ? 0 : speed;
}

}  // namespace

std::uint32_t GigECore::Diagnose(bool askControl, GigEDiagnosis* diagnosis) {
    *diagnosis = GigEDiagnosis{};
    std::vector<std::shared_ptr<UdpPort>> ports;
    std::vector<ListedCamera> listed;
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return HAL_CLOSED;
        diagnosis->error = m_routesRefused;
        for (const auto& [index, interface] : m_interfaces) {
            InterfaceDiagnosis entry;
            entry.interface = interface.info;
            entry.used = interface.IsUsed();
            entry.reason = interface.reason;
            entry.error = interface.error;
            entry.sendError = interface.sendError;
            diagnosis->interfaces.push_back(entry);
            ports.push_back(interface.port);
        }
        for (const auto& [key, camera] : m_table.GetCameras()) {
            for (const auto& sighting : camera.sightings) {
                CameraDiagnosis entry;
                entry.record = sighting->record;
                entry.interface = sighting->interface;
                entry.reachable = sighting->state != CameraTable::State::Foreign;
                entry.present = sighting->state == CameraTable::State::Present;
                entry.listed = sighting.get() == camera.listed;
                entry.addressTaken = sighting->addressTaken;
                diagnosis->cameras.push_back(entry);
                listed.push_back(ListedCamera{key, sighting->record, TimePoint()});
            }
        }
    }
    diagnosis->defaultRoute = m_routes.FindRoute(kNowhereNear);
    for (std::size_t i = 0; i < ports.size(); ++i) {
        InterfaceDiagnosis& entry = diagnosis->interfaces[i];
        m_routes.ReadRpFilter(entry.interface.index, &entry.rpFilterOfAll, &entry.rpFilterOfIt);
        if (!ports[i]) continue;
        entry.localPort = ports[i]->GetLocalPort();
        ReadSocketMemory(ports[i]->GetFd(), &entry);
        entry.linkSpeed = ReadLinkSpeed(ports[i]->GetFd(), entry.interface.name);
    }
    for (std::size_t i = 0; askControl && i < listed.size(); ++i) {
        if (!diagnosis->cameras[i].listed) continue;
        GetControl(listed[i], &diagnosis->cameras[i].control);
        std::uint32_t packetSize = 0;
        const Command read{Gvcp::MessageId::ReadRegAck, Gvcp::Register::kStreamChannelPacketSize, 0};
        if (Execute(listed[i], read, &packetSize) == HAL_OK) diagnosis->cameras[i].packetSize = packetSize & 0xFFFF;
    }
    return HAL_OK;
}

}  // namespace Nimbrel2::Platform::GigE
